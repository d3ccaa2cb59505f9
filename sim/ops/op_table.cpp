// Table of every node op code the simulator knows: name, validation and,
// where the simulator computes the node, its kernel. INPUT and OUTPUT are
// moved by the graph store itself; a null kernel means "cannot execute".
#include <string>
#include <vector>

#include "op_list.h"
#include "zelsim/ops.h"

namespace zelsim {
namespace {

using namespace detail;

struct Entry {
    int32_t op;
    OpSpec entry;
};

const Entry kTable[] = {
    {ZEL_OP_INPUT, {"INPUT", validateInput, nullptr}},
    {ZEL_OP_OUTPUT, {"OUTPUT", validateOutput, nullptr}},
    // 8-bit nodes the simulator computes.
    {ZEL_OP_QuantizedConv2d_8x8to32, {"QuantizedConv2d_8x8to32", validateConv, executeConv}},
    {ZEL_OP_QuantizedDepthwiseConv2d_8x8to32,
     {"QuantizedDepthwiseConv2d_8x8to32", validateDepthwise, executeDepthwise}},
    {ZEL_OP_QuantizedMatMul_8x8to32, {"QuantizedMatMul_8x8to32", validateMatMul, executeMatMul}},
    {ZEL_OP_QuantizedBiasAdd_32p32to32, {"QuantizedBiasAdd_32p32to32", validateBiasAdd, executeBiasAdd}},
    {ZEL_OP_Requantize_32to8, {"Requantize_32to8", validateRequantize, executeRequantize}},
    {ZEL_OP_QuantizedAdd_8p8to32, {"QuantizedAdd_8p8to32", validateAdd, executeAdd}},
    {ZEL_OP_QuantizedSub_8p8to32, {"QuantizedSub_8p8to32", validateSub, executeSub}},
    {ZEL_OP_QuantizedRelu_8, {"QuantizedRelu_8", validateRelu, executeRelu}},
    {ZEL_OP_QuantizedReluX_8, {"QuantizedReluX_8", validateReluX, executeReluX}},
    {ZEL_OP_QuantizedClamp_8, {"QuantizedClamp_8", validateClamp, executeClamp}},
    {ZEL_OP_QuantizedMaxPool_8, {"QuantizedMaxPool_8", validateMaxPool, executeMaxPool}},
    {ZEL_OP_QuantizedAvgPool_8, {"QuantizedAvgPool_8", validateAvgPool, executeAvgPool}},
    {ZEL_OP_QuantizedConcat_8, {"QuantizedConcat_8", validateConcat, executeConcat}},
    {ZEL_OP_QuantizedReshape, {"QuantizedReshape", validateReshape, executeReshape}},
    {ZEL_OP_QuantizedResizeBilinear_8, {"QuantizedResizeBilinear_8", validateResizeBilinear, executeResizeBilinear}},
    {ZEL_OP_QuantizedPRelu_8, {"QuantizedPRelu_8", validatePRelu, executePRelu}},
    {ZEL_OP_Quantize, {"Quantize", validateQuantize, executeQuantize}},
    {ZEL_OP_Dequantize, {"Dequantize", validateDequantize, executeDequantize}},
    // 8-bit nodes the simulator only checks.
    {ZEL_OP_QuantizedSigmoid_8, {"QuantizedSigmoid_8", validateSigmoid, nullptr}},
    {ZEL_OP_QuantizedSoftmax_8, {"QuantizedSoftmax_8", validateSoftmax, nullptr}},
    {ZEL_OP_QuantizedPad_8, {"QuantizedPad_8", validatePad, nullptr}},
    {ZEL_OP_QuantizedSpaceToBatchND_8, {"QuantizedSpaceToBatchND_8", validateSpaceToBatch, nullptr}},
    {ZEL_OP_QuantizedBatchToSpaceND_8, {"QuantizedBatchToSpaceND_8", validateBatchToSpace, nullptr}},
    {ZEL_OP_QuantizedSpaceToDepth_8, {"QuantizedSpaceToDepth_8", validateSpaceToDepth, nullptr}},
    {ZEL_OP_QuantizedSplit_8, {"QuantizedSplit_8", validateSplit, nullptr}},
    {ZEL_OP_QuantizedLstm_8, {"QuantizedLstm_8", validateLstm, nullptr}},
    // Float nodes: checked only.
    {ZEL_OP_FloatSoftmax, {"FloatSoftmax", validateFloat, nullptr}},
    {ZEL_OP_FloatConv2d, {"FloatConv2d", validateFloat, nullptr}},
    {ZEL_OP_FloatMatMul, {"FloatMatMul", validateFloat, nullptr}},
    {ZEL_OP_FloatRelu, {"FloatRelu", validateFloat, nullptr}},
    {ZEL_OP_FloatReluX, {"FloatReluX", validateFloat, nullptr}},
    {ZEL_OP_FloatAvgPool, {"FloatAvgPool", validateFloat, nullptr}},
    {ZEL_OP_FloatL2Pool, {"FloatL2Pool", validateFloat, nullptr}},
    {ZEL_OP_FloatMaxPool, {"FloatMaxPool", validateFloat, nullptr}},
    {ZEL_OP_FloatConcat, {"FloatConcat", validateFloat, nullptr}},
    {ZEL_OP_FloatLocalResponseNorm, {"FloatLocalResponseNorm", validateFloat, nullptr}},
    {ZEL_OP_FloatBiasAdd, {"FloatBiasAdd", validateFloat, nullptr}},
    {ZEL_OP_FloatReshape, {"FloatReshape", validateFloat, nullptr}},
    {ZEL_OP_FloatTanh, {"FloatTanh", validateFloat, nullptr}},
    {ZEL_OP_FloatSigmoid, {"FloatSigmoid", validateFloat, nullptr}},
    {ZEL_OP_FloatAdd, {"FloatAdd", validateFloat, nullptr}},
    {ZEL_OP_FloatMul, {"FloatMul", validateFloat, nullptr}},
    {ZEL_OP_FloatSub, {"FloatSub", validateFloat, nullptr}},
    {ZEL_OP_FloatPad, {"FloatPad", validateFloat, nullptr}},
    {ZEL_OP_FloatSpaceToBatchND, {"FloatSpaceToBatchND", validateFloat, nullptr}},
    {ZEL_OP_FloatBatchToSpaceND, {"FloatBatchToSpaceND", validateFloat, nullptr}},
    {ZEL_OP_FloatResizeBilinear, {"FloatResizeBilinear", validateFloat, nullptr}},
    {ZEL_OP_FloatDepthwiseConv2d, {"FloatDepthwiseConv2d", validateFloat, nullptr}},
    {ZEL_OP_FloatClamp, {"FloatClamp", validateFloat, nullptr}},
    {ZEL_OP_FloatTranspose, {"FloatTranspose", validateFloat, nullptr}},
};

}  // namespace

const OpSpec* findOp(int32_t op) {
    for (const Entry& e : kTable) {
        if (e.op == op) return &e.entry;
    }
    return nullptr;
}

}  // namespace zelsim
