// Nodes the simulator checks but does not compute (beyond the graph ends,
// which the graph store handles): the quantized nodes the plug-in never
// registers, and every float node. Their checks are structural: input and
// output counts, connected inputs, element sizes of the outputs.
#include <sstream>

#include "op_list.h"
#include "op_support.h"

namespace zelsim {
namespace detail {

namespace {

const Dims4 kScalar(1, 1, 1, 1);

bool allConnected(Validator& v) {
    for (size_t i = 0; i < v.inputs(); ++i) {
        if (!v.connected(i, "operand")) return false;
    }
    return true;
}

// Three records of one quantized value whose dims the check leaves open.
bool quantTriple(Validator& v, size_t first) {
    return v.outputElementSize(first, "value", 1) && v.outputRecord(first + 1, "min", kScalar, 4) &&
           v.outputRecord(first + 2, "max", kScalar, 4);
}

// Quantized node with `count` inputs, whose input `value` is the 8-bit
// value and whose other inputs listed in `scalars` are single floats.
std::string quantShape(const char* name, size_t count, size_t value, std::initializer_list<size_t> scalars,
                       bool sameDims, const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    Validator v(name, node, inputs);
    if (!(v.inputCount(count) && v.noPadding() && allConnected(v) && v.value(value, "input", 1))) return v.result();
    for (size_t s : scalars) {
        if (!v.scalarFloat(s, "range or parameter")) return v.result();
    }
    if (sameDims) {
        v.quantOutputs(v.arg(value).dims, 1);
    } else if (v.outputCount(3)) {
        quantTriple(v, 0);
    }
    return v.result();
}

// Float nodes: op code, inputs (at least, when `atLeast`), window op.
struct FloatRule {
    int32_t op;
    size_t inputs;
    bool atLeast;
    bool window;
};

const FloatRule kFloatRules[] = {
    {ZEL_OP_FloatConv2d, 3, false, true},
    {ZEL_OP_FloatDepthwiseConv2d, 3, false, true},
    {ZEL_OP_FloatMatMul, 2, false, false},
    {ZEL_OP_FloatBiasAdd, 2, false, false},
    {ZEL_OP_FloatAdd, 2, false, false},
    {ZEL_OP_FloatSub, 2, false, false},
    {ZEL_OP_FloatMul, 2, false, false},
    {ZEL_OP_FloatAvgPool, 3, false, true},
    {ZEL_OP_FloatL2Pool, 3, false, true},
    {ZEL_OP_FloatMaxPool, 3, false, true},
    {ZEL_OP_FloatConcat, 2, true, false},
    {ZEL_OP_FloatLocalResponseNorm, 5, false, false},
    {ZEL_OP_FloatSigmoid, 1, false, false},
    {ZEL_OP_FloatTanh, 1, false, false},
    {ZEL_OP_FloatRelu, 1, false, false},
    {ZEL_OP_FloatClamp, 3, false, false},
    {ZEL_OP_FloatReluX, 2, false, false},
    {ZEL_OP_FloatSoftmax, 2, false, false},
    {ZEL_OP_FloatReshape, 2, false, false},
    {ZEL_OP_FloatPad, 2, false, false},
    {ZEL_OP_FloatTranspose, 2, false, false},
    {ZEL_OP_FloatResizeBilinear, 2, false, false},
    {ZEL_OP_FloatBatchToSpaceND, 3, false, false},
    {ZEL_OP_FloatSpaceToBatchND, 3, false, false},
};

}  // namespace

std::string validateInput(const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    Validator v("INPUT", node, inputs);
    v.inputCount(0);
    return v.result();
}

std::string validateOutput(const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    Validator v("OUTPUT", node, inputs);
    if (allConnected(v)) v.outputCount(0);
    return v.result();
}

// in, in_min, the value of byte 256 in the input's quantization.
std::string validateSigmoid(const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    return quantShape("QuantizedSigmoid_8", 3, 0, {1, 2}, true, node, inputs);
}

// in, beta, in_min, in_max.
std::string validateSoftmax(const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    return quantShape("QuantizedSoftmax_8", 4, 0, {1, 2, 3}, true, node, inputs);
}

// in, paddings, in_min, in_max.
std::string validatePad(const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    return quantShape("QuantizedPad_8", 4, 0, {2, 3}, false, node, inputs);
}

// in, in_min, in_max, block, paddings.
std::string validateSpaceToBatch(const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    return quantShape("QuantizedSpaceToBatchND_8", 5, 0, {1, 2}, false, node, inputs);
}

// in, in_min, in_max, block, crops.
std::string validateBatchToSpace(const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    return quantShape("QuantizedBatchToSpaceND_8", 5, 0, {1, 2}, false, node, inputs);
}

// in, block size, in_min, in_max.
std::string validateSpaceToDepth(const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    Validator v("QuantizedSpaceToDepth_8", node, inputs);
    int32_t block = 0;
    if (!(v.inputCount(4) && v.noPadding() && v.value(0, "input", 1) && v.int32Const(1, "block size", 1, &block) &&
          v.scalarFloat(2, "input min") && v.scalarFloat(3, "input max") && v.outputCount(3))) {
        return v.result();
    }
    quantTriple(v, 0);
    return v.result();
}

// split dim, data, data_min, data_max; three records per output value.
std::string validateSplit(const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    Validator v("QuantizedSplit_8", node, inputs);
    int32_t dim = 0;
    if (!(v.inputCount(4) && v.noPadding() && v.int32Const(0, "split dim", 1, &dim) && v.value(1, "data", 1) &&
          v.scalarFloat(2, "data min") && v.scalarFloat(3, "data max"))) {
        return v.result();
    }
    if (v.outputs() == 0 || v.outputs() % 3 != 0) {
        std::ostringstream s;
        s << "expects three outputs (value, min, max) per part, got " << v.outputs();
        v.fail(s.str());
        return v.result();
    }
    for (size_t i = 0; i < v.outputs(); i += 3) {
        if (!quantTriple(v, i)) break;
    }
    return v.result();
}

// 14 inputs; the four host outputs take one record each, three when
// quantized.
std::string validateLstm(const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    Validator v("QuantizedLstm_8", node, inputs);
    if (!(v.inputCount(14) && v.noPadding() && allConnected(v))) return v.result();
    if (v.outputs() < 4 || v.outputs() > 12) {
        std::ostringstream s;
        s << "expects 4 to 12 outputs, got " << v.outputs();
        v.fail(s.str());
    }
    return v.result();
}

std::string validateFloat(const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    const OpSpec* entry = findOp(node.op);
    Validator v(entry ? entry->name : "float node", node, inputs);
    for (const FloatRule& rule : kFloatRules) {
        if (rule.op != node.op) continue;
        bool same = false;
        if ((rule.atLeast ? v.inputCountAtLeast(rule.inputs) : v.inputCount(rule.inputs)) && allConnected(v) &&
            (rule.window ? v.windowPadding(&same) : v.noPadding()) && v.outputCount(1)) {
            v.outputElementSize(0, "value", 4);
        }
        return v.result();
    }
    v.fail("not a float node");
    return v.result();
}

}  // namespace detail
}  // namespace zelsim
