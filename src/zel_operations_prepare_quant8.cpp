// Lowering of 8-bit quantized host operations into runtime nodes.
//
// Every quantized value travels as three node outputs (value, real minimum,
// real maximum), so each function gathers, besides the data inputs, the
// min/max constant nodes of every quantized input. Every function walks the
// same steps in the same order:
//
//   input count -> output count -> operand guards -> data inputs ->
//   parameters -> min/max nodes -> parameter constants -> record check ->
//   node(s)
//
// The accumulating operations (convolutions, matrix product, add/sub) end in
// the fused chain of the model:
//
//   base [acc,min,max] -> bias add (when a bias list is given) ->
//   requantize to the output's range -> fused activation (unless Nop)
//
// The count checks, window parsing and constant records are written once
// here (namespace lowering) for both families; their located lines name the
// file of the family that runs them.
#include "zel_operations_prepare_quant8.h"

#include <cstring>
#include <string>

#include "zel_model.h"
#include "zel_utils.h"

namespace arv {
namespace nnhal {
namespace zel {

// ---------------------------------------------------------------------------
// Steps both families share.

namespace lowering {

int32_t scalar(ZelModel* model, uint32_t index) {
    return model->getScalar<int32_t>(index);
}

bool toRuntimeAxis(int32_t axis, size_t rank, int32_t* runtimeAxis) {
    if (rank > 4 || axis < 0 || static_cast<size_t>(axis) >= rank) return false;
    *runtimeAxis = axis + 4 - static_cast<int32_t>(rank);
    return true;
}

input floatConstant(ZelModel* model, float value) {
    uint8_t bytes[sizeof(float)];
    std::memcpy(bytes, &value, sizeof(bytes));
    return model->createTensorInternal(1, 1, 1, 1, bytes, sizeof(bytes));
}

input int32Constant(ZelModel* model, uint32_t batches, uint32_t height, uint32_t width, uint32_t depth,
                    const std::vector<int32_t>& values) {
    std::vector<uint8_t> bytes(values.size() * sizeof(int32_t));
    if (!bytes.empty()) std::memcpy(bytes.data(), values.data(), bytes.size());
    return model->createTensorInternal(batches, height, width, depth, bytes.data(),
                                       static_cast<uint32_t>(bytes.size()));
}

input strideShape(ZelModel* model, const Window& w) {
    return model->createShape(1, static_cast<uint32_t>(w.strideHeight), static_cast<uint32_t>(w.strideWidth), 1);
}

bool Steps::checkFrame(ZelModel* model, const Ins& ins, bool inputsOk, const std::string& inputsText, const Ins& outs,
                       uint32_t outputsNeeded, const std::string& outputsText) const {
    if (!inputsOk) {
        ZEL_LOG_LOCATED_IN(source(), inputsText);
        return false;
    }
    if (outs.size() != outputsNeeded) {
        ZEL_LOG_LOCATED_IN(source(), "failed " << outputsNeeded << " == outs.size() (" << outs.size()
                                               << " == " << outputsNeeded << "): " << outputsText);
        return false;
    }
    if (model == nullptr) {
        ZEL_LOG_LOCATED_IN(source(), "No model to lower into");
        return false;
    }
    // Malformed graphs: indices outside the graph and scalars without data
    // are refused here, before anything is read.
    return model->validOperands(ins, "Input") && model->validOperands(outs, "Output") && model->scalarsHaveData(ins);
}

bool Steps::checkNamed(ZelModel* model, const Ins& ins, bool inputsOk, const std::string& need, const Ins& outs,
                       const std::string& name) const {
    return checkFrame(model, ins, inputsOk, "Need " + need + " for " + name, outs, 1, "Need 1 output for " + name);
}

bool Steps::parseWindow(ZelModel* model, const Ins& ins, bool explicitForm, uint32_t at, bool poolWindow,
                        Window* w) const {
    if (!explicitForm) {
        w->padding = model->getPadding(ins[at]);
        w->strideWidth = scalar(model, ins[at + 1]);
        w->strideHeight = scalar(model, ins[at + 2]);
        if (poolWindow) {
            w->filterWidth = scalar(model, ins[at + 3]);
            w->filterHeight = scalar(model, ins[at + 4]);
        }
        return true;
    }
    const int32_t left = scalar(model, ins[at]);
    const int32_t right = scalar(model, ins[at + 1]);
    const int32_t top = scalar(model, ins[at + 2]);
    const int32_t bottom = scalar(model, ins[at + 3]);
    w->strideWidth = scalar(model, ins[at + 4]);
    w->strideHeight = scalar(model, ins[at + 5]);
    const Shape inShape = model->getShape(ins[0]);
    if (inShape.dimensions.size() != 4) {
        ZEL_LOG_LOCATED_IN(source(), "Explicit padding needs a 4-D input, got rank " << inShape.dimensions.size());
        return false;
    }
    if (poolWindow) {
        w->filterWidth = scalar(model, ins[at + 6]);
        w->filterHeight = scalar(model, ins[at + 7]);
    } else {
        const Shape filterShape = model->getShape(ins[1]);
        if (filterShape.dimensions.size() != 4) {
            ZEL_LOG_LOCATED_IN(source(),
                               "Explicit padding needs a 4-D filter, got rank " << filterShape.dimensions.size());
            return false;
        }
        w->filterWidth = static_cast<int32_t>(filterShape.dimensions[2]);
        w->filterHeight = static_cast<int32_t>(filterShape.dimensions[1]);
    }
    w->padding = getPadding(static_cast<int32_t>(inShape.dimensions[2]), static_cast<int32_t>(inShape.dimensions[1]),
                            w->strideWidth, w->strideHeight, w->filterWidth, w->filterHeight, left, right, top, bottom);
    return true;
}

bool Steps::knownPadding(padding_type_enum pad) const {
    ZEL_CHECK_NE_IN(source(), pad, ZEL_NN_PAD_NA, false, "Unknown padding");
    return true;
}

}  // namespace lowering

// ---------------------------------------------------------------------------
// The quant8 family.

namespace {

using namespace lowering;

constexpr Steps kQuant8Steps(__FILE__);

// Every record handed to the runtime must name a node; an empty one means
// an operand could not be made into a node.
bool validRecords(const Inputs& records) {
    for (const kestrel_zel_nn_input& input : records) {
        ZEL_CHECK_NE(kestrel_zel_nn_input{}, input, false, "Need to create a valid input operand node.");
    }
    return true;
}

// add, sub, mul: [in0, in1, in0 min, in0 max, in1 min, in1 max] into the
// fused chain without a bias.
bool elementWise(const Ins& ins, const Ins& outs, ZelModel* model, zel_op_type_enum op, const std::string& name,
                 const char* activationText) {
    if (!kQuant8Steps.checkNamed(model, ins, ins.size() == 3, "3 inputs", outs, name)) return false;
    handle_debug_info("Creating quantization nodes for inputs ...");
    const input in0 = model->getTensor(ins[0]);
    const input in1 = model->getTensor(ins[1]);
    handle_debug_info(activationText);
    const zel_op_type_enum activation = model->getQuantizedActivation(ins[2]);
    const input in0Min = model->getQuantizationMin(ins[0]);
    const input in0Max = model->getQuantizationMax(ins[0]);
    const input in1Min = model->getQuantizationMin(ins[1]);
    const input in1Max = model->getQuantizationMax(ins[1]);
    const Inputs inputs = {in0, in1, in0Min, in0Max, in1Min, in1Max};
    if (!validRecords(inputs)) return false;
    return model->addFusedQuant8Operation(op, 0, inputs, activation, {}, outs);
}

// average and max pooling: [in, in min, in max, window, stride].
bool pool(const Ins& ins, const Ins& outs, ZelModel* model, zel_op_type_enum op, const std::string& name,
          const char* parsingText, const char* creatingText) {
    if (!kQuant8Steps.checkNamed(model, ins, ins.size() == 7 || ins.size() == 10, "7 or 10 inputs", outs, name)) {
        return false;
    }
    const bool explicitForm = ins.size() == 10;
    const input in = model->getTensor(ins[0]);
    handle_debug_info(parsingText);
    Window w;
    if (!kQuant8Steps.parseWindow(model, ins, explicitForm, 1, true, &w)) return false;
    handle_debug_info("Parsing activation function type ...");
    const zel_op_type_enum activation = model->getQuantizedActivation(ins[explicitForm ? 9 : 6]);
    if (!kQuant8Steps.knownPadding(w.padding)) return false;
    const input inMin = model->getQuantizationMin(ins[0]);
    const input inMax = model->getQuantizationMax(ins[0]);
    handle_debug_info(creatingText);
    const input window =
        model->createShape(1, static_cast<uint32_t>(w.filterHeight), static_cast<uint32_t>(w.filterWidth), 1);
    const input stride = strideShape(model, w);
    const Inputs inputs = {in, inMin, inMax, window, stride};
    if (!validRecords(inputs)) return false;
    return model->addQuant8OperationWithActivation(op, w.padding, activation, inputs, outs);
}

// One standalone node fed by `inputs`, after the record check.
bool basicNode(ZelModel* model, zel_op_type_enum op, const Inputs& inputs, const Ins& outs) {
    if (!validRecords(inputs)) return false;
    return model->addBasicOperation(op, 0, inputs, outs);
}

// The value of a quantized input with its range: [in, in min, in max].
Inputs withRange(ZelModel* model, uint32_t index) {
    const input in = model->getTensor(index);
    const input inMin = model->getQuantizationMin(index);
    const input inMax = model->getQuantizationMax(index);
    return {in, inMin, inMax};
}

// The node of the layout operations: [in, parameter, in min, in max] for
// the quantized input ins[0]. `makeParameter` makes the parameter record
// between the input's record and its range, the order the node ids follow.
template <typename MakeParameter>
bool layoutNode(ZelModel* model, zel_op_type_enum op, const Ins& ins, const Ins& outs, MakeParameter makeParameter) {
    const input in = model->getTensor(ins[0]);
    const input parameter = makeParameter();
    const input inMin = model->getQuantizationMin(ins[0]);
    const input inMax = model->getQuantizationMax(ins[0]);
    return basicNode(model, op, {in, parameter, inMin, inMax}, outs);
}

}  // namespace

const OperationPrepareTable& getOperationPrepareTable() {
    static const OperationPrepareTable table = {
        {{OperationType::ADD, OperandType::TENSOR_QUANT8}, quant8_asym::add},
        {{OperationType::AVERAGE_POOL_2D, OperandType::TENSOR_QUANT8}, quant8_asym::average_pool_2d},
        {{OperationType::CONCATENATION, OperandType::TENSOR_QUANT8}, quant8_asym::concatenation},
        {{OperationType::CONV_2D, OperandType::TENSOR_QUANT8}, quant8_asym::conv_2d},
        {{OperationType::DEPTHWISE_CONV_2D, OperandType::TENSOR_QUANT8}, quant8_asym::depthwise_conv_2d},
        {{OperationType::FULLY_CONNECTED, OperandType::TENSOR_QUANT8}, quant8_asym::fully_connected},
        {{OperationType::MAX_POOL_2D, OperandType::TENSOR_QUANT8}, quant8_asym::max_pool_2d},
        {{OperationType::PRELU, OperandType::TENSOR_QUANT8}, quant8_asym::prelu},
        {{OperationType::RELU, OperandType::TENSOR_QUANT8}, quant8_asym::relu},
        {{OperationType::RELU1, OperandType::TENSOR_QUANT8}, quant8_asym::relu1},
        {{OperationType::RELU6, OperandType::TENSOR_QUANT8}, quant8_asym::relu6},
        {{OperationType::RESIZE_BILINEAR, OperandType::TENSOR_QUANT8}, quant8_asym::resize_bilinear},
        {{OperationType::RESHAPE, OperandType::TENSOR_QUANT8}, quant8_asym::reshape},
        {{OperationType::SUB, OperandType::TENSOR_QUANT8}, quant8_asym::sub},
        {{OperationType::TRANSPOSE_CONV_2D, OperandType::TENSOR_QUANT8}, quant8_asym::transpose_conv_2d},
    };
    return table;
}

namespace quant8_asym {

bool add(const Ins& ins, const Ins& outs, ZelModel* model) {
    return elementWise(ins, outs, model, ZEL_OP_QuantizedAdd_8p8to32, "quant8_asym::add",
                       "Getting activation function type ...");
}

bool sub(const Ins& ins, const Ins& outs, ZelModel* model) {
    return elementWise(ins, outs, model, ZEL_OP_QuantizedSub_8p8to32, "quant8_asym::sub",
                       "Getting activation function type ...");
}

// Kept on the matrix-product code on purpose (the function is not in the
// lowering table).
bool mul(const Ins& ins, const Ins& outs, ZelModel* model) {
    return elementWise(ins, outs, model, ZEL_OP_QuantizedMatMul_8x8to32, "quant8_asym::mul",
                       "Parsing activation function type ...");
}

// Host order: input, filter, bias, then either padding code, stride w/h,
// activation (7) or paddings l/r/t/b, stride w/h, activation (10).
bool conv_2d(const Ins& ins, const Ins& outs, ZelModel* model) {
    if (!kQuant8Steps.checkNamed(model, ins, ins.size() == 7 || ins.size() == 10, "7 or 10 inputs", outs,
                                 "quant8_asym::conv_2d")) {
        return false;
    }
    const bool explicitForm = ins.size() == 10;
    handle_debug_info("Creating quantization nodes for inputs ...");
    const input in = model->getTensor(ins[0]);
    const input filter = model->createConvFilterTensor(ins[1]);
    const input bias = model->getTensor(ins[2]);

    handle_debug_info("Parsing convolution parameters ...");
    Window w;
    if (!kQuant8Steps.parseWindow(model, ins, explicitForm, 3, false, &w)) return false;
    handle_debug_info("Parsing activation function type ...");
    const zel_op_type_enum activation = model->getQuantizedActivation(ins[explicitForm ? 9 : 6]);
    if (!kQuant8Steps.knownPadding(w.padding)) return false;

    handle_debug_info("Creating quantization min / max nodes for inputs ...");
    const input inMin = model->getQuantizationMin(ins[0]);
    const input inMax = model->getQuantizationMax(ins[0]);
    const input filterMin = model->getQuantizationMin(ins[1]);
    const input filterMax = model->getQuantizationMax(ins[1]);
    const input biasMin = model->getQuantizationMin(ins[2]);
    const input biasMax = model->getQuantizationMax(ins[2]);

    handle_debug_info("Creating stride tensor ...");
    const input stride = strideShape(model, w);

    const Inputs biasInputs = {bias, biasMin, biasMax};
    const Inputs inputs = {in, filter, inMin, inMax, filterMin, filterMax, stride};
    if (!validRecords(biasInputs) || !validRecords(inputs)) return false;
    return model->addFusedQuant8Operation(ZEL_OP_QuantizedConv2d_8x8to32, w.padding, inputs, activation, biasInputs,
                                          outs);
}

// As conv_2d with the depth multiplier before the activation. Only 8 and 11
// inputs are accepted although the text reads "8 to 11"; kept as it is.
bool depthwise_conv_2d(const Ins& ins, const Ins& outs, ZelModel* model) {
    if (!kQuant8Steps.checkNamed(model, ins, ins.size() == 8 || ins.size() == 11, "8 to 11 inputs", outs,
                                 "quant8_asym::depthwise_conv_2d")) {
        return false;
    }
    const bool explicitForm = ins.size() == 11;
    handle_debug_info("Creating quantization nodes for inputs ...");
    const input in = model->getTensor(ins[0]);
    const input bias = model->getTensor(ins[2]);

    handle_debug_info("Parsing depthwise convolution parameters ...");
    Window w;
    if (!kQuant8Steps.parseWindow(model, ins, explicitForm, 3, false, &w)) return false;
    const uint32_t multiplier = static_cast<uint32_t>(scalar(model, ins[explicitForm ? 9 : 6]));
    handle_debug_info("Parsing activation function type ...");
    const zel_op_type_enum activation = model->getQuantizedActivation(ins[explicitForm ? 10 : 7]);
    if (!kQuant8Steps.knownPadding(w.padding)) return false;

    handle_debug_info("Creating quantization min / max nodes for inputs ...");
    const input inMin = model->getQuantizationMin(ins[0]);
    const input inMax = model->getQuantizationMax(ins[0]);
    const input filterMin = model->getQuantizationMin(ins[1]);
    const input filterMax = model->getQuantizationMax(ins[1]);
    const input biasMin = model->getQuantizationMin(ins[2]);
    const input biasMax = model->getQuantizationMax(ins[2]);
    const input filter = model->createDepthwiseFilterTensor(ins[1], multiplier);

    handle_debug_info("Creating stride tensor ...");
    const input stride = strideShape(model, w);

    const Inputs biasInputs = {bias, biasMin, biasMax};
    const Inputs inputs = {in, filter, inMin, inMax, filterMin, filterMax, stride};
    if (!validRecords(biasInputs) || !validRecords(inputs)) return false;
    return model->addFusedQuant8Operation(ZEL_OP_QuantizedDepthwiseConv2d_8x8to32, w.padding, inputs, activation,
                                          biasInputs, outs);
}

// Host order: input, weights [units, inputSize], bias, activation.
bool fully_connected(const Ins& ins, const Ins& outs, ZelModel* model) {
    if (!kQuant8Steps.checkNamed(model, ins, ins.size() == 4, "4 inputs", outs, "quant8::fully_connected")) {
        return false;
    }
    handle_debug_info("Creating quantization nodes for inputs ...");
    const input in = model->getTensor(ins[0]);
    const input weights = model->createFullyConnectedWeightTensor(ins[1]);
    const input bias = model->getTensor(ins[2]);
    handle_debug_info("Parsing activation function type ...");
    const zel_op_type_enum activation = model->getQuantizedActivation(ins[3]);

    handle_debug_info("Creating quantization min / max nodes for inputs ...");
    const input inMin = model->getQuantizationMin(ins[0]);
    const input inMax = model->getQuantizationMax(ins[0]);
    const input weightsMin = model->getQuantizationMin(ins[1]);
    const input weightsMax = model->getQuantizationMax(ins[1]);
    const input biasMin = model->getQuantizationMin(ins[2]);
    const input biasMax = model->getQuantizationMax(ins[2]);

    const Inputs biasInputs = {bias, biasMin, biasMax};
    const Inputs inputs = {in, weights, inMin, inMax, weightsMin, weightsMax};
    if (!validRecords(biasInputs) || !validRecords(inputs)) return false;
    return model->addFusedQuant8Operation(ZEL_OP_QuantizedMatMul_8x8to32, 0, inputs, activation, biasInputs, outs);
}

bool average_pool_2d(const Ins& ins, const Ins& outs, ZelModel* model) {
    return pool(ins, outs, model, ZEL_OP_QuantizedAvgPool_8, "quant8_asym::average_pool_2d",
                "Parsing pooling parameters ...", "Creating pooling parameters nodes ...");
}

bool max_pool_2d(const Ins& ins, const Ins& outs, ZelModel* model) {
    return pool(ins, outs, model, ZEL_OP_QuantizedMaxPool_8, "quant8_asym::max_pool_2d",
                "Parsing max pooling parameters ...", "Creating quantization nodes for input parameters ...");
}

// Host order: the data inputs, then the axis. Node: [dim, in0 .. inN-1,
// min0 .. minN-1, max0 .. maxN-1]; the dimension is the axis counted in the
// runtime's four dimensions.
bool concatenation(const Ins& ins, const Ins& outs, ZelModel* model) {
    if (!kQuant8Steps.checkNamed(model, ins, ins.size() >= 3, "at least 3 inputs", outs,
                                 "quant8_asym::concatenation")) {
        return false;
    }
    const size_t count = ins.size() - 1;
    handle_debug_info("Creating quantization nodes for inputs ...");
    Inputs values, mins, maxs;
    for (size_t i = 0; i < count; ++i) {
        values.push_back(model->getTensor(ins[i]));
        mins.push_back(model->getQuantizationMin(ins[i]));
        maxs.push_back(model->getQuantizationMax(ins[i]));
    }
    handle_debug_info("Creating dimension tensor ...");
    int32_t runtimeAxis = 0;
    if (!toRuntimeAxis(scalar(model, ins[count]), model->getShape(ins[0]).dimensions.size(), &runtimeAxis)) {
        ZEL_LOG_LOCATED("Concatenation axis " << scalar(model, ins[count]) << " is outside the input's rank");
        return false;
    }
    const input dim = int32Constant(model, 1, 1, 1, 1, {runtimeAxis});

    Inputs inputs = {dim};
    inputs.insert(inputs.end(), values.begin(), values.end());
    inputs.insert(inputs.end(), mins.begin(), mins.end());
    inputs.insert(inputs.end(), maxs.begin(), maxs.end());
    return basicNode(model, ZEL_OP_QuantizedConcat_8, inputs, outs);
}

bool relu(const Ins& ins, const Ins& outs, ZelModel* model) {
    if (!kQuant8Steps.checkNamed(model, ins, ins.size() == 1, "1 input", outs, "quant8_asym::relu")) return false;
    return basicNode(model, ZEL_OP_QuantizedRelu_8, withRange(model, ins[0]), outs);
}

// RELU1 clamps to [-1.0, 1.0].
bool relu1(const Ins& ins, const Ins& outs, ZelModel* model) {
    if (!kQuant8Steps.checkNamed(model, ins, ins.size() == 1, "1 input", outs, "quant8_asym::relu1")) return false;
    Inputs inputs = withRange(model, ins[0]);
    inputs.push_back(floatConstant(model, -1.0f));
    inputs.push_back(floatConstant(model, 1.0f));
    return basicNode(model, ZEL_OP_QuantizedClamp_8, inputs, outs);
}

// RELU6 is ReluX with the bound 6.0.
bool relu6(const Ins& ins, const Ins& outs, ZelModel* model) {
    if (!kQuant8Steps.checkNamed(model, ins, ins.size() == 1, "1 input", outs, "quant8_asym::relu6")) return false;
    Inputs inputs = withRange(model, ins[0]);
    inputs.push_back(floatConstant(model, 6.0f));
    return basicNode(model, ZEL_OP_QuantizedReluX_8, inputs, outs);
}

// Node: [in, alpha, in min, in max, alpha min, alpha max].
bool prelu(const Ins& ins, const Ins& outs, ZelModel* model) {
    if (!kQuant8Steps.checkNamed(model, ins, ins.size() == 2, "2 inputs", outs, "quant8_asym::prelu")) return false;
    const input in = model->getTensor(ins[0]);
    const input alpha = model->getTensor(ins[1]);
    const input inMin = model->getQuantizationMin(ins[0]);
    const input inMax = model->getQuantizationMax(ins[0]);
    const input alphaMin = model->getQuantizationMin(ins[1]);
    const input alphaMax = model->getQuantizationMax(ins[1]);
    return basicNode(model, ZEL_OP_QuantizedPRelu_8, {in, alpha, inMin, inMax, alphaMin, alphaMax}, outs);
}

// Node: [in, in min, the real value of quantized 256 in the input's range].
bool logistic(const Ins& ins, const Ins& outs, ZelModel* model) {
    if (!kQuant8Steps.checkNamed(model, ins, ins.size() == 1, "1 input", outs, "quant8_asym::logistic")) return false;
    const input in = model->getTensor(ins[0]);
    const input inMin = model->getQuantizationMin(ins[0]);
    const input upper = model->createQuantizationValue(ins[0], 256);
    return basicNode(model, ZEL_OP_QuantizedSigmoid_8, {in, inMin, upper}, outs);
}

// Node: [in, beta, in min, in max]. The runtime's softmax output range is
// its own, so the output goes to the output node without the range fix-up.
bool softmax(const Ins& ins, const Ins& outs, ZelModel* model) {
    if (!kQuant8Steps.checkNamed(model, ins, ins.size() == 2, "2 inputs", outs, "quant8_asym::softmax")) return false;
    const input in = model->getTensor(ins[0]);
    const input beta = model->getTensor(ins[1]);
    const input inMin = model->getQuantizationMin(ins[0]);
    const input inMax = model->getQuantizationMax(ins[0]);
    const Inputs inputs = {in, beta, inMin, inMax};
    if (!validRecords(inputs)) return false;
    model->operands()[outs[0]].dequantizeOutput = false;
    return model->addBasicOperation(ZEL_OP_QuantizedSoftmax_8, 0, inputs, outs);
}

// Node: [in, shape (host int32 tensor), in min, in max].
bool reshape(const Ins& ins, const Ins& outs, ZelModel* model) {
    if (!kQuant8Steps.checkNamed(model, ins, ins.size() == 2, "2 inputs", outs, "quant8_asym::reshape")) return false;
    return layoutNode(model, ZEL_OP_QuantizedReshape, ins, outs, [&] { return model->getTensor(ins[1]); });
}

// A reshape to the output's dimensions, given as a 1x1x1xN int32 constant.
bool squeeze(const Ins& ins, const Ins& outs, ZelModel* model) {
    if (!kQuant8Steps.checkNamed(model, ins, ins.size() == 2, "2 inputs", outs, "SQUEEZE")) return false;
    return layoutNode(model, ZEL_OP_QuantizedReshape, ins, outs, [&] {
        const std::vector<uint32_t> dims = model->getShape(outs[0]).dimensions;
        const std::vector<int32_t> newShape(dims.begin(), dims.end());
        return int32Constant(model, 1, 1, 1, static_cast<uint32_t>(newShape.size()), newShape);
    });
}

// Node: [in, paddings (host int32 tensor), in min, in max].
bool pad(const Ins& ins, const Ins& outs, ZelModel* model) {
    if (!kQuant8Steps.checkNamed(model, ins, ins.size() == 2, "2 inputs", outs, "quant8_asym::pad")) return false;
    return layoutNode(model, ZEL_OP_QuantizedPad_8, ins, outs, [&] { return model->getTensor(ins[1]); });
}

// Host order: input, new width, new height. Node: [in, size {h, w}, in min,
// in max]. The count texts name the float function; they are kept so.
bool resize_bilinear(const Ins& ins, const Ins& outs, ZelModel* model) {
    if (!kQuant8Steps.checkNamed(model, ins, ins.size() == 3, "3 inputs", outs, "float32::resize_bilinear")) {
        return false;
    }
    return layoutNode(model, ZEL_OP_QuantizedResizeBilinear_8, ins, outs, [&] {
        const int32_t newWidth = scalar(model, ins[1]);
        const int32_t newHeight = scalar(model, ins[2]);
        return int32Constant(model, 1, 1, 1, 2, {newHeight, newWidth});
    });
}

// Node: [in, in min, in max, block shape, crops]; the crops are all zero,
// 1x1x(rank-2)x2.
bool batch_to_space_nd(const Ins& ins, const Ins& outs, ZelModel* model) {
    if (!kQuant8Steps.checkNamed(model, ins, ins.size() == 2, "2 inputs", outs, "quant8_asym::batch_to_space_nd")) {
        return false;
    }
    const size_t rank = model->getShape(ins[0]).dimensions.size();
    if (rank < 3) {
        ZEL_LOG_LOCATED("Need an input of rank 3 or 4 for quant8_asym::batch_to_space_nd, got rank " << rank);
        return false;
    }
    Inputs inputs = withRange(model, ins[0]);
    inputs.push_back(model->getTensor(ins[1]));
    const uint32_t spatial = static_cast<uint32_t>(rank - 2);
    inputs.push_back(int32Constant(model, 1, 1, spatial, 2, std::vector<int32_t>(spatial * 2, 0)));
    return basicNode(model, ZEL_OP_QuantizedBatchToSpaceND_8, inputs, outs);
}

// Node: [in, in min, in max, block shape, paddings].
bool space_to_batch_nd(const Ins& ins, const Ins& outs, ZelModel* model) {
    if (!kQuant8Steps.checkNamed(model, ins, ins.size() == 3, "3 inputs", outs, "quant8_asym::space_to_batch_nd")) {
        return false;
    }
    Inputs inputs = withRange(model, ins[0]);
    inputs.push_back(model->getTensor(ins[1]));
    inputs.push_back(model->getTensor(ins[2]));
    return basicNode(model, ZEL_OP_QuantizedSpaceToBatchND_8, inputs, outs);
}

// Node: [in, block size (int32 1x1x1x1), in min, in max].
bool space_to_depth(const Ins& ins, const Ins& outs, ZelModel* model) {
    if (!kQuant8Steps.checkNamed(model, ins, ins.size() == 2, "2 inputs", outs, "quant8_asym::space_to_depth")) {
        return false;
    }
    return layoutNode(model, ZEL_OP_QuantizedSpaceToDepth_8, ins, outs,
                      [&] { return int32Constant(model, 1, 1, 1, 1, {scalar(model, ins[1])}); });
}

// Vendor LSTM: six inputs (ins[5] and outputs 1 and 3 are 16-bit custom
// bytes), four outputs, one node of fourteen inputs:
// [ins0, ins1, ins2, weights, ins4, ins5, range of ins1 (q 0 and 255),
//  weights min/max, ins4 min/max, range of ins5 (q -32768 and 32768)].
bool oemLstm(const Ins& ins, const Ins& outs, ZelModel* model) {
    if (!kQuant8Steps.checkFrame(model, ins, ins.size() == 6, "Need 6 inputs for OEM LSTM", outs, 4,
                                 "Need 4 outputs for OEM LSTM")) {
        return false;
    }
    const input in0 = model->getTensor(ins[0]);
    const input in1 = model->getTensor(ins[1]);
    const input in2 = model->getTensor(ins[2]);
    const input weights = model->createFullyConnectedWeightTensor(ins[3]);
    const input in4 = model->getTensor(ins[4]);
    const input in5 = model->getTensor(ins[5]);
    const input in1Low = model->createQuantizationValue(ins[1], 0);
    const input in1High = model->createQuantizationValue(ins[1], 255);
    const input weightsMin = model->getQuantizationMin(ins[3]);
    const input weightsMax = model->getQuantizationMax(ins[3]);
    const input in4Min = model->getQuantizationMin(ins[4]);
    const input in4Max = model->getQuantizationMax(ins[4]);
    const input in5Low = model->createQuantizationValue(ins[5], -32768);
    const input in5High = model->createQuantizationValue(ins[5], 32768);
    return basicNode(
        model, ZEL_OP_QuantizedLstm_8,
        {in0, in1, in2, weights, in4, in5, in1Low, in1High, weightsMin, weightsMax, in4Min, in4Max, in5Low, in5High},
        outs);
}

// Vendor split: ins[0] split dimension, ins[1] data, ins[2] number of
// outputs, ins[3] unused here. Node: [split dim (int32 1x1x1x1, counted in
// the runtime's four dimensions), data, data min, data max].
bool oemSplit(const Ins& ins, const Ins& outs, ZelModel* model) {
    if (ins.size() != 4) {
        ZEL_LOG_LOCATED("Need 4 inputs for OEM Split");
        return false;
    }
    if (model == nullptr) {
        ZEL_LOG_LOCATED("No model to lower into");
        return false;
    }
    if (!model->validOperands(ins, "Input") || !model->validOperands(outs, "Output") || !model->scalarsHaveData(ins)) {
        return false;
    }
    ZEL_CHECK_EQ((size_t)model->getScalar<int32_t>(ins[2]), outs.size(), false, "Number of outputs is incorrect");
    int32_t runtimeAxis = 0;
    if (!toRuntimeAxis(scalar(model, ins[0]), model->getShape(ins[1]).dimensions.size(), &runtimeAxis)) {
        ZEL_LOG_LOCATED("Split axis " << scalar(model, ins[0]) << " is outside the input's rank");
        return false;
    }
    const input splitDim = int32Constant(model, 1, 1, 1, 1, {runtimeAxis});
    Inputs inputs = {splitDim};
    const Inputs data = withRange(model, ins[1]);
    inputs.insert(inputs.end(), data.begin(), data.end());
    if (!validRecords(inputs)) return false;
    return model->addSplitOperation(inputs, outs);
}

// Not lowered: a transposed convolution always fails here.
bool transpose_conv_2d(const Ins& /*ins*/, const Ins& /*outs*/, ZelModel* /*model*/) {
    return false;
}

}  // namespace quant8_asym
}  // namespace zel
}  // namespace nnhal
}  // namespace arv
