// Lowering of float32 host operations into runtime nodes. None of these
// functions is in the lowering table; they are kept complete all the same.
//
// Every function walks the same steps: input count -> output count ->
// operand guards -> data inputs -> parameters -> constants -> node(s).
// Float values travel as one node output each (no range outputs). The
// accumulating operations use the float fused chain of the model:
//
//   base -> FloatBiasAdd (unless the bias is the empty record) ->
//   fused activation (unless Nop)
//
// The count checks, window parsing and constant records are the quant8
// module's (namespace lowering), run through kFloat32Steps so that their
// located lines name this file.
#include "zel_operations_prepare_float32.h"

#include <string>

#include "zel_model.h"
#include "zel_operations_prepare_quant8.h"
#include "zel_utils.h"

namespace arv {
namespace nnhal {
namespace zel {

namespace {

using namespace lowering;

constexpr Steps kFloat32Steps(__FILE__);

// add, sub, mul: [in0, in1] into the fused chain without a bias.
bool elementWise(const Ins& ins, const Ins& outs, ZelModel* model, zel_op_type_enum op, const std::string& name) {
    if (!kFloat32Steps.at(__LINE__).checkNamed(model, ins, ins.size() == 3, "3 inputs", outs, name)) return false;
    const input in0 = model->getTensor(ins[0]);
    const input in1 = model->getTensor(ins[1]);
    const zel_op_type_enum activation = model->getFloatActivation(ins[2]);
    return model->addFusedFloatOperation(op, 0, input{}, activation, {in0, in1}, outs);
}

// Pools: [in, window, stride] followed by the fused activation.
bool pool(const Ins& ins, const Ins& outs, ZelModel* model, zel_op_type_enum op, const std::string& name) {
    if (!kFloat32Steps.at(__LINE__).checkNamed(model, ins, ins.size() == 7 || ins.size() == 10, "7 or 10 inputs", outs,
                                               name)) {
        return false;
    }
    const bool explicitForm = ins.size() == 10;
    const input in = model->getTensor(ins[0]);
    Window w;
    if (!kFloat32Steps.at(__LINE__).parseWindow(model, ins, explicitForm, 1, true, &w)) return false;
    const zel_op_type_enum activation = model->getFloatActivation(ins[explicitForm ? 9 : 6]);
    if (!kFloat32Steps.at(__LINE__).knownPadding(w.padding)) return false;
    const input window =
        model->createShape(1, static_cast<uint32_t>(w.filterHeight), static_cast<uint32_t>(w.filterWidth), 1);
    const input stride = strideShape(model, w);
    return model->addFloatOperationWithActivation(op, w.padding, activation, {in, window, stride}, outs);
}

// One input, one standalone node [in, extra...].
bool unary(const Ins& ins, const Ins& outs, ZelModel* model, zel_op_type_enum op, const std::string& name,
           const std::vector<float>& bounds) {
    if (!kFloat32Steps.at(__LINE__).checkNamed(model, ins, ins.size() == 1, "1 input", outs, name)) return false;
    Inputs inputs = {model->getTensor(ins[0])};
    for (float bound : bounds) inputs.push_back(floatConstant(model, bound));
    return model->addBasicOperation(op, 0, inputs, outs);
}

// Two inputs, both host operands: [in, ins[1]].
bool withOperand(const Ins& ins, const Ins& outs, ZelModel* model, zel_op_type_enum op, const std::string& name) {
    if (!kFloat32Steps.at(__LINE__).checkNamed(model, ins, ins.size() == 2, "2 inputs", outs, name)) return false;
    const input in = model->getTensor(ins[0]);
    const input second = model->getTensor(ins[1]);
    return model->addBasicOperation(op, 0, {in, second}, outs);
}

}  // namespace

namespace float32 {

bool add(const Ins& ins, const Ins& outs, ZelModel* model) {
    return elementWise(ins, outs, model, ZEL_OP_FloatAdd, "float32::add");
}

bool sub(const Ins& ins, const Ins& outs, ZelModel* model) {
    return elementWise(ins, outs, model, ZEL_OP_FloatSub, "float32::sub");
}

bool mul(const Ins& ins, const Ins& outs, ZelModel* model) {
    return elementWise(ins, outs, model, ZEL_OP_FloatMul, "float32::mul");
}

bool average_pool_2d(const Ins& ins, const Ins& outs, ZelModel* model) {
    return pool(ins, outs, model, ZEL_OP_FloatAvgPool, "float32::average_pool_2d");
}

bool l2_pool_2d(const Ins& ins, const Ins& outs, ZelModel* model) {
    return pool(ins, outs, model, ZEL_OP_FloatL2Pool, "float32::l2_pool_2d");
}

bool max_pool_2d(const Ins& ins, const Ins& outs, ZelModel* model) {
    return pool(ins, outs, model, ZEL_OP_FloatMaxPool, "float32::max_pool_2d");
}

// Host order: input, filter, bias, then padding code, stride w/h,
// activation (7) or paddings l/r/t/b, stride w/h, activation (10).
bool conv_2d(const Ins& ins, const Ins& outs, ZelModel* model) {
    if (!kFloat32Steps.at(__LINE__).checkNamed(model, ins, ins.size() == 7 || ins.size() == 10, "7 or 10 inputs", outs,
                                               "float32::conv_2d")) {
        return false;
    }
    const bool explicitForm = ins.size() == 10;
    const input in = model->getTensor(ins[0]);
    const input filter = model->createConvFilterTensor(ins[1]);
    const input bias = model->getTensor(ins[2]);
    Window w;
    if (!kFloat32Steps.at(__LINE__).parseWindow(model, ins, explicitForm, 3, false, &w)) return false;
    const zel_op_type_enum activation = model->getFloatActivation(ins[explicitForm ? 9 : 6]);
    if (!kFloat32Steps.at(__LINE__).knownPadding(w.padding)) return false;
    const input stride = strideShape(model, w);
    return model->addFusedFloatOperation(ZEL_OP_FloatConv2d, w.padding, bias, activation, {in, filter, stride}, outs);
}

// As conv_2d with the depth multiplier (ins[6] or ins[9]) before the
// activation (ins[7] or ins[10]).
bool depthwise_conv_2d(const Ins& ins, const Ins& outs, ZelModel* model) {
    if (!kFloat32Steps.at(__LINE__).checkNamed(model, ins, ins.size() == 8 || ins.size() == 11, "8 or 11 inputs", outs,
                                               "float32::depthwise_conv_2d")) {
        return false;
    }
    const bool explicitForm = ins.size() == 11;
    const input in = model->getTensor(ins[0]);
    const input bias = model->getTensor(ins[2]);
    Window w;
    if (!kFloat32Steps.at(__LINE__).parseWindow(model, ins, explicitForm, 3, false, &w)) return false;
    const uint32_t multiplier = static_cast<uint32_t>(scalar(model, ins[explicitForm ? 9 : 6]));
    const zel_op_type_enum activation = model->getFloatActivation(ins[explicitForm ? 10 : 7]);
    if (!kFloat32Steps.at(__LINE__).knownPadding(w.padding)) return false;
    const input filter = model->createDepthwiseFilterTensor(ins[1], multiplier);
    const input stride = strideShape(model, w);
    return model->addFusedFloatOperation(ZEL_OP_FloatDepthwiseConv2d, w.padding, bias, activation, {in, filter, stride},
                                         outs);
}

// Host order: input, weights [units, inputSize], bias, activation.
bool fully_connected(const Ins& ins, const Ins& outs, ZelModel* model) {
    if (!kFloat32Steps.at(__LINE__).checkNamed(model, ins, ins.size() == 4, "4 inputs", outs,
                                               "float32::fully_connected")) {
        return false;
    }
    const input in = model->getTensor(ins[0]);
    const input weights = model->createFullyConnectedWeightTensor(ins[1]);
    const input bias = model->getTensor(ins[2]);
    const zel_op_type_enum activation = model->getFloatActivation(ins[3]);
    return model->addFusedFloatOperation(ZEL_OP_FloatMatMul, 0, bias, activation, {in, weights}, outs);
}

// Node: [axis, in0 .. inN-1]; the axis (last host input) is counted in the
// runtime's four dimensions.
bool concatenation(const Ins& ins, const Ins& outs, ZelModel* model) {
    if (!kFloat32Steps.at(__LINE__).checkNamed(model, ins, ins.size() >= 3, "at least 3 inputs", outs,
                                               "float32::concatenation")) {
        return false;
    }
    const size_t count = ins.size() - 1;
    int32_t runtimeAxis = 0;
    if (!toRuntimeAxis(scalar(model, ins[count]), model->getShape(ins[0]).dimensions.size(), &runtimeAxis)) {
        ZEL_LOG_LOCATED("Concatenation axis " << scalar(model, ins[count]) << " is outside the input's rank");
        return false;
    }
    Inputs inputs = {int32Constant(model, 1, 1, 1, 1, {runtimeAxis})};
    for (size_t i = 0; i < count; ++i) inputs.push_back(model->getTensor(ins[i]));
    return model->addBasicOperation(ZEL_OP_FloatConcat, 0, inputs, outs);
}

// Host order: input, radius, bias, alpha, beta. Node: [in, window
// 1x1x1x(2*radius+1), bias, alpha, beta].
bool local_response_normalization(const Ins& ins, const Ins& outs, ZelModel* model) {
    if (!kFloat32Steps.at(__LINE__).checkNamed(model, ins, ins.size() == 5, "5 inputs", outs,
                                               "float32::local_response_normalization")) {
        return false;
    }
    const input in = model->getTensor(ins[0]);
    const uint32_t radius = static_cast<uint32_t>(scalar(model, ins[1]));
    const input window = model->createShape(1, 1, 1, 2u * radius + 1u);
    const input bias = model->getTensor(ins[2]);
    const input alpha = model->getTensor(ins[3]);
    const input beta = model->getTensor(ins[4]);
    return model->addBasicOperation(ZEL_OP_FloatLocalResponseNorm, 0, {in, window, bias, alpha, beta}, outs);
}

bool logistic(const Ins& ins, const Ins& outs, ZelModel* model) {
    return unary(ins, outs, model, ZEL_OP_FloatSigmoid, "float32::logistic", {});
}

bool tanh(const Ins& ins, const Ins& outs, ZelModel* model) {
    return unary(ins, outs, model, ZEL_OP_FloatTanh, "float32::tanh", {});
}

bool relu(const Ins& ins, const Ins& outs, ZelModel* model) {
    return unary(ins, outs, model, ZEL_OP_FloatRelu, "float32::relu", {});
}

// RELU1 clamps to [-1.0, 1.0].
bool relu1(const Ins& ins, const Ins& outs, ZelModel* model) {
    return unary(ins, outs, model, ZEL_OP_FloatClamp, "float32::relu1", {-1.0f, 1.0f});
}

// RELU6 is ReluX with the bound 6.0.
bool relu6(const Ins& ins, const Ins& outs, ZelModel* model) {
    return unary(ins, outs, model, ZEL_OP_FloatReluX, "float32::relu6", {6.0f});
}

bool softmax(const Ins& ins, const Ins& outs, ZelModel* model) {
    return withOperand(ins, outs, model, ZEL_OP_FloatSoftmax, "float32::softmax");
}

bool reshape(const Ins& ins, const Ins& outs, ZelModel* model) {
    return withOperand(ins, outs, model, ZEL_OP_FloatReshape, "float32::reshape");
}

// A reshape to the output's dimensions, given as a 1x1x1xN int32 constant.
bool squeeze(const Ins& ins, const Ins& outs, ZelModel* model) {
    if (!kFloat32Steps.at(__LINE__).checkNamed(model, ins, ins.size() == 2, "2 inputs", outs,
                                               toString(OperationType::SQUEEZE))) {
        return false;
    }
    const input in = model->getTensor(ins[0]);
    const std::vector<uint32_t> dims = model->getShape(outs[0]).dimensions;
    const std::vector<int32_t> newShape(dims.begin(), dims.end());
    const input shape = int32Constant(model, 1, 1, 1, static_cast<uint32_t>(newShape.size()), newShape);
    return model->addBasicOperation(ZEL_OP_FloatReshape, 0, {in, shape}, outs);
}

bool pad(const Ins& ins, const Ins& outs, ZelModel* model) {
    return withOperand(ins, outs, model, ZEL_OP_FloatPad, toString(OperationType::PAD));
}

bool transpose(const Ins& ins, const Ins& outs, ZelModel* model) {
    return withOperand(ins, outs, model, ZEL_OP_FloatTranspose, toString(OperationType::TRANSPOSE));
}

// Host order: input, new width, new height. Node: [in, size {h, w}].
bool resize_bilinear(const Ins& ins, const Ins& outs, ZelModel* model) {
    if (!kFloat32Steps.at(__LINE__).checkNamed(model, ins, ins.size() == 3, "3 inputs", outs,
                                               "float32::resize_bilinear")) {
        return false;
    }
    const input in = model->getTensor(ins[0]);
    const int32_t newWidth = scalar(model, ins[1]);
    const int32_t newHeight = scalar(model, ins[2]);
    const input size = int32Constant(model, 1, 1, 1, 2, {newHeight, newWidth});
    return model->addBasicOperation(ZEL_OP_FloatResizeBilinear, 0, {in, size}, outs);
}

// Node: [in, block shape, crops]; the crops are all zero, 1x1x(rank-2)x2.
bool batch_to_space_nd(const Ins& ins, const Ins& outs, ZelModel* model) {
    if (!kFloat32Steps.at(__LINE__).checkNamed(model, ins, ins.size() == 2, "2 inputs", outs,
                                               "float32::batch_to_space_nd")) {
        return false;
    }
    const size_t rank = model->getShape(ins[0]).dimensions.size();
    if (rank < 3) {
        ZEL_LOG_LOCATED("Need an input of rank 3 or 4 for float32::batch_to_space_nd, got rank " << rank);
        return false;
    }
    const input in = model->getTensor(ins[0]);
    const input block = model->getTensor(ins[1]);
    const uint32_t spatial = static_cast<uint32_t>(rank - 2);
    const input crops = int32Constant(model, 1, 1, spatial, 2, std::vector<int32_t>(spatial * 2, 0));
    return model->addBasicOperation(ZEL_OP_FloatBatchToSpaceND, 0, {in, block, crops}, outs);
}

// Node: [in, block shape, paddings].
bool space_to_batch_nd(const Ins& ins, const Ins& outs, ZelModel* model) {
    if (!kFloat32Steps.at(__LINE__).checkNamed(model, ins, ins.size() == 3, "3 inputs", outs,
                                               "float32::space_to_batch_nd")) {
        return false;
    }
    const input in = model->getTensor(ins[0]);
    const input block = model->getTensor(ins[1]);
    const input paddings = model->getTensor(ins[2]);
    return model->addBasicOperation(ZEL_OP_FloatSpaceToBatchND, 0, {in, block, paddings}, outs);
}

}  // namespace float32
}  // namespace zel
}  // namespace nnhal
}  // namespace arv
