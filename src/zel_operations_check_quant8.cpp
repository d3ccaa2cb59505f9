// Support checks for 8-bit quantized operations, the support table and the
// model's support query.
//
// Every check follows the same steps in the same order: input count, output
// count, operand sanity, parameters, fused activation, shape inference,
// setShape of the inferred output, constancy. The first failing step logs
// one located error line and the check answers false. A shape written by
// setShape stays in the model even when a later step refuses.
#include "zel_operations_check_quant8.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "zel_model.h"
#include "zel_utils.h"

namespace arv {
namespace nnhal {
namespace zel {

const OperationCheckTable& getOperationCheckTable() {
    // The table is narrow on purpose: only these quant8 rows are offered to
    // the host. Float32 and the other quant8 checks stay out of it.
    static const OperationCheckTable table = {
        {{OperationType::ADD, OperandType::TENSOR_QUANT8}, quant8_asym_check::add},
        {{OperationType::AVERAGE_POOL_2D, OperandType::TENSOR_QUANT8}, quant8_asym_check::average_pool_2d},
        {{OperationType::CONCATENATION, OperandType::TENSOR_QUANT8}, quant8_asym_check::concatenation},
        {{OperationType::CONV_2D, OperandType::TENSOR_QUANT8}, quant8_asym_check::conv_2d},
        {{OperationType::DEPTHWISE_CONV_2D, OperandType::TENSOR_QUANT8}, quant8_asym_check::depthwise_conv_2d},
        {{OperationType::FULLY_CONNECTED, OperandType::TENSOR_QUANT8}, quant8_asym_check::fully_connected},
        {{OperationType::MAX_POOL_2D, OperandType::TENSOR_QUANT8}, quant8_asym_check::max_pool_2d},
        {{OperationType::RELU, OperandType::TENSOR_QUANT8}, quant8_asym_check::relu},
        {{OperationType::RELU1, OperandType::TENSOR_QUANT8}, quant8_asym_check::relu1},
        {{OperationType::RELU6, OperandType::TENSOR_QUANT8}, quant8_asym_check::relu6},
        {{OperationType::RESHAPE, OperandType::TENSOR_QUANT8}, quant8_asym_check::reshape},
        {{OperationType::RESIZE_BILINEAR, OperandType::TENSOR_QUANT8}, quant8_asym_check::resize_bilinear},
        {{OperationType::SUB, OperandType::TENSOR_QUANT8}, quant8_asym_check::sub},
        {{OperationType::PRELU, OperandType::TENSOR_QUANT8}, quant8_asym_check::prelu},
        {{OperationType::TRANSPOSE_CONV_2D, OperandType::TENSOR_QUANT8}, quant8_asym_check::transpose_conv_2d},
    };
    return table;
}

namespace {

// Summary text of one query: "{<operation>, <operand type>}".
std::string queryKey(OperationType opType, OperandType operandType) {
    return "{" + toString(opType) + ", " + toString(operandType) + "}";
}

// Stands in for the key's operand type when input 0 cannot be read.
constexpr OperandType kUnknownOperandType = static_cast<OperandType>(-1);
constexpr OperationType kUnknownOperationType = static_cast<OperationType>(-1);

}  // namespace

int ZelModel::getOperationSupportLevel(IOperation* operation) {
    if (mNnLib) mNnLib->asyncVote(mVotingToken, VotingThread::UP);
    handle_debug_info("In ZelModel::getOperationSupportLevel()");

    OperationType opType = kUnknownOperationType;
    OperandType operandType = kUnknownOperandType;
    // Every way out logs the summary, the "Out" line and releases the vote.
    auto finish = [&](int level) {
        if (level == 0) {
            handle_debug_info(queryKey(opType, operandType) + " supported.");
        } else {
            handle_error_info(queryKey(opType, operandType) + " is not supported.");
        }
        handle_debug_info("Out ZelModel::getOperationSupportLevel()");
        if (mNnLib) mNnLib->asyncVote(mVotingToken, VotingThread::DOWN);
        return level;
    };

    if (operation == nullptr) {
        ZEL_LOG_LOCATED("No operation to query");
        return finish(1);
    }
    opType = operation->getType();
    const uint32_t first = operation->getInput(0);
    if (!validOperands({first}, "Input")) return finish(1);
    operandType = mOperands[first].type;

    // The vendor operations carry their data operand in input 1.
    if ((static_cast<int32_t>(opType) | 1) == static_cast<int32_t>(OperationType::OEM_SPLIT)) {
        if (operation->getNumInputs() <= 1) return finish(1);
        const uint32_t second = operation->getInput(1);
        if (!validOperands({first, second}, "Input")) return finish(1);
        operandType = mOperands[second].type;
    }

    std::vector<uint32_t> ins;
    std::vector<uint32_t> outs;
    for (uint32_t i = 0; i < operation->getNumInputs(); ++i) ins.push_back(operation->getInput(i));
    for (uint32_t i = 0; i < operation->getNumOutputs(); ++i) outs.push_back(operation->getOutput(i));
    // Checks index the registry directly: a malformed operation never reaches them.
    if (!validOperands(ins, "Input") || !validOperands(outs, "Output") || !scalarsHaveData(ins)) {
        return finish(1);
    }

    const OperationCheckTable& table = getOperationCheckTable();
    const auto row = table.find({opType, operandType});
    if (row == table.end()) return finish(1);
    if (!row->second(ins, outs, this)) return finish(1);
    if (!supportedParameters(operation)) return finish(2);
    return finish(0);
}

bool ZelModel::supportedParameters(IOperation* operation) {
    if (operation == nullptr) {
        ZEL_LOG_LOCATED("No operation to examine");
        return false;
    }
    std::vector<uint32_t> ins;
    for (uint32_t i = 0; i < operation->getNumInputs(); ++i) ins.push_back(operation->getInput(i));
    if (!validOperands(ins, "Input")) return false;
    for (uint32_t index : ins) {
        const std::vector<uint32_t> dims = mOperands[index].dimensions;
        // The batch may be 0 (set per execution); any other zero may not.
        for (size_t d = 1; d < dims.size(); ++d) {
            if (dims[d] == 0) return false;
        }
    }
    return true;
}

namespace {

using Ins = std::vector<uint32_t>;

// Paddings, strides and window size of a 2-D window operation.
struct Window {
    int32_t padLeft = 0;
    int32_t padRight = 0;
    int32_t padTop = 0;
    int32_t padBottom = 0;
    int32_t strideW = 0;
    int32_t strideH = 0;
    int32_t filterW = 0;
    int32_t filterH = 0;
    padding_type_enum padding = ZEL_NN_PAD_NA;
};

// SAME padding of one axis; the larger half of an odd total goes to the
// tail (right or bottom). A stride below 1 counts as no output.
void samePads(int64_t in, int64_t stride, int64_t filter, int32_t* head, int32_t* tail) {
    const int64_t out = stride > 0 ? (stride + in - 1) / stride : 0;
    const int64_t needed = (out - 1) * stride + filter;
    if (needed > in) {
        const int64_t total = needed - in;
        *head = static_cast<int32_t>(total / 2);
        *tail = static_cast<int32_t>(total - total / 2);
    } else {
        *head = 0;
        *tail = 0;
    }
}

// Largest element count of a shape handed to the runtime.
constexpr int64_t kMaxShapeElements = 0x7FFFFFFF;

// Reads the padding and strides starting at ins[first]. Implicit form: the
// padding code, stride_w, stride_h. Explicit form: left, right, top, bottom,
// stride_w, stride_h. The window size must already be in `window`. Strides
// below 1, a pooling window below 1 and a window larger than the padded
// input cannot be lowered (the inferred output size would wrap): each is
// refused with one line naming `at`.
bool readWindow(::zel_detail::Source at, ZelModel* model, const Ins& ins, bool explicitForm, size_t first,
                const Shape& input, OperationType type, bool pooling, Window* window) {
    const size_t strides = first + (explicitForm ? 4 : 1);
    window->strideW = model->getScalar<int32_t>(ins[strides]);
    window->strideH = model->getScalar<int32_t>(ins[strides + 1]);
    ZEL_CHECK_LE_IN(at, 1, window->strideW, false, "Stride must be at least 1 for " << toString(type));
    ZEL_CHECK_LE_IN(at, 1, window->strideH, false, "Stride must be at least 1 for " << toString(type));
    // The strides (and a pooling window) reach the runtime as the shape
    // 1 x h x w x 1, which may hold at most INT32_MAX elements.
    const int64_t strideElements = static_cast<int64_t>(window->strideW) * window->strideH;
    ZEL_CHECK_LE_IN(at, strideElements, kMaxShapeElements, false,
                    "Strides must form a runtime shape of at most 2147483647 elements for " << toString(type));
    if (pooling) {
        ZEL_CHECK_LE_IN(at, 1, window->filterW, false, "Window must be at least 1 for " << toString(type));
        ZEL_CHECK_LE_IN(at, 1, window->filterH, false, "Window must be at least 1 for " << toString(type));
        const int64_t windowElements = static_cast<int64_t>(window->filterW) * window->filterH;
        ZEL_CHECK_LE_IN(at, windowElements, kMaxShapeElements, false,
                        "Window must form a runtime shape of at most 2147483647 elements for " << toString(type));
    }
    const int32_t inW = static_cast<int32_t>(getSizeOfDimension(input, 2));
    const int32_t inH = static_cast<int32_t>(getSizeOfDimension(input, 1));
    int32_t code = 0;
    if (explicitForm) {
        window->padLeft = model->getScalar<int32_t>(ins[first]);
        window->padRight = model->getScalar<int32_t>(ins[first + 1]);
        window->padTop = model->getScalar<int32_t>(ins[first + 2]);
        window->padBottom = model->getScalar<int32_t>(ins[first + 3]);
    } else {
        code = model->getScalar<int32_t>(ins[first]);
        if (code == 1) {
            samePads(getSizeOfDimension(input, 2), window->strideW, window->filterW, &window->padLeft,
                     &window->padRight);
            samePads(getSizeOfDimension(input, 1), window->strideH, window->filterH, &window->padTop,
                     &window->padBottom);
        }
    }
    // Widened: pads come from the graph and may be anything.
    const int64_t paddedW = static_cast<int64_t>(getSizeOfDimension(input, 2)) + window->padLeft + window->padRight;
    const int64_t paddedH = static_cast<int64_t>(getSizeOfDimension(input, 1)) + window->padTop + window->padBottom;
    // An input dimension of 0 is left to the parameter test (level 2).
    if (inW != 0) {
        ZEL_CHECK_LE_IN(at, window->filterW, paddedW, false,
                        (pooling ? "Window" : "Filter") << " must fit the padded input of " << toString(type));
    }
    if (inH != 0) {
        ZEL_CHECK_LE_IN(at, window->filterH, paddedH, false,
                        (pooling ? "Window" : "Filter") << " must fit the padded input of " << toString(type));
    }
    window->padding = explicitForm
                          ? getPadding(inW, inH, window->strideW, window->strideH, window->filterW, window->filterH,
                                       window->padLeft, window->padRight, window->padTop, window->padBottom)
                          : getPadding(static_cast<unsigned int>(code));
    return true;
}

}  // namespace

// ---------------------------------------------------------------------------
// The rules of both families.

// Every index names an operand of the graph and every scalar input holds
// its value, so the steps below may read them.
bool CheckRules::operandsReadable(const Ins& ins, const Ins& outs, ZelModel* model, OperationType type) const {
    if (model == nullptr) {
        ZEL_LOG_LOCATED_IN(source(), "No model to check " << toString(type) << " against");
        return false;
    }
    for (size_t i = 0; i < ins.size(); ++i) {
        if (!model->isValidOperand(ins[i])) {
            ZEL_LOG_LOCATED_IN(source(), "Input " << i << " of " << toString(type) << " names operand " << ins[i]
                                                  << ", which is outside the graph");
            return false;
        }
    }
    for (size_t i = 0; i < outs.size(); ++i) {
        if (!model->isValidOperand(outs[i])) {
            ZEL_LOG_LOCATED_IN(source(), "Output " << i << " of " << toString(type) << " names operand " << outs[i]
                                                   << ", which is outside the graph");
            return false;
        }
    }
    // A tensor input that carries data must hold all of its values: the
    // runtime takes it as a constant of the declared shape.
    for (size_t i = 0; i < ins.size(); ++i) {
        const OperandInfo& operand = model->operands()[ins[i]];
        if (operand.data == nullptr && operand.length == 0) continue;
        uint64_t count = 1;
        for (uint32_t d : operand.originalDimensions) count = d != 0 && count > UINT64_MAX / d ? UINT64_MAX : count * d;
        const uint64_t element = getSize(operand.type);
        if (!operand.originalDimensions.empty() && count == 0) {
            ZEL_LOG_LOCATED_IN(source(),
                               "Input " << i << " of " << toString(type) << " is constant data with a dimension of 0");
            return false;
        }
        if (element != 0 && count > operand.length / element) {
            ZEL_LOG_LOCATED_IN(source(), "Input " << i << " of " << toString(type) << " holds " << operand.length
                                                  << " bytes of constant data, short of " << count << " values");
            return false;
        }
    }
    return model->scalarsHaveData(ins);
}

// The scalar parameters ins[first .. end) are read as int32 values: an
// operand of another element type (a float size, say) cannot be lowered,
// and is refused with one line naming the input.
bool CheckRules::int32Parameters(ZelModel* model, const Ins& ins, size_t first, size_t end, OperationType type) const {
    for (size_t i = first; i < end && i < ins.size(); ++i) {
        const OperandType operandType = model->operands()[ins[i]].type;
        if (operandType != OperandType::SCALAR_INT32 && operandType != OperandType::SCALAR_UNSIGNED_INT32 &&
            operandType != OperandType::TENSOR_INT32) {
            ZEL_LOG_LOCATED_IN(source(), "Input " << i << " of " << toString(type) << " must be an int32 scalar, not "
                                                  << toString(operandType));
            return false;
        }
    }
    return true;
}

// Copies the int32 values of a constant tensor operand (the data may be
// unaligned); false with one line when the data is missing or shorter than
// the operand's shape.
bool CheckRules::copyInt32Data(ZelModel* model, uint32_t index, OperationType type,
                               std::vector<int32_t>* values) const {
    const OperandInfo& operand = model->operands()[index];
    // Saturating product: absurd shapes must not wrap into a small count.
    uint64_t count = 1;
    for (uint32_t d : operand.dimensions) {
        count = d != 0 && count > UINT64_MAX / d ? UINT64_MAX : count * d;
    }
    if (operand.data == nullptr || count > operand.length / sizeof(int32_t)) {
        ZEL_LOG_LOCATED_IN(source(), toString(type)
                                         << " requires operand " << index << " to hold " << count
                                         << " int32 values of constant data (" << operand.length << " bytes)");
        return false;
    }
    values->resize(static_cast<size_t>(count));
    if (count != 0) std::memcpy(values->data(), operand.data, static_cast<size_t>(count) * sizeof(int32_t));
    return true;
}

// Quantized family only: true when the fused activation held by `index`
// maps to a node code the accelerator can fuse; otherwise one line naming
// the code. A float node takes any activation.
bool CheckRules::activationFusable(ZelModel* model, uint32_t index) const {
    if (!mQuantized) return true;
    const zel_op_type_enum activation = model->getQuantizedActivation(index);
    if (!quant8_asym_check::fusedActivationCheck(activation)) {
        ZEL_LOG_LOCATED_IN(source(), "Fused quantized activation " << toString(activation) << " is not supported");
        return false;
    }
    return true;
}

// Shape inference result written into the output operand, with the two
// shared messages.
bool CheckRules::storeShape(bool inferred, ZelModel* model, uint32_t out, const Shape& output, const Ins& ins) const {
    if (!inferred) {
        ZEL_LOG_LOCATED_IN(source(), "Error getting shape");
        return false;
    }
    // The operation is built with its output's declared shape: a declared
    // shape that is fully known (no dimension left 0) and holds a different
    // number of values than the inferred one cannot be built.
    // Inputs with a 0 past the batch are left to the parameter test (level
    // 2): their inferred sizes mean nothing.
    for (uint32_t index : ins) {
        const std::vector<uint32_t>& dims = model->operands()[index].dimensions;
        if (dims.size() >= 2 && std::find(dims.begin() + 1, dims.end(), 0u) != dims.end())
            return storeOnly(model, out, output);
    }
    // The operation is built with its output's declared type.
    const OperandType declaredType = model->operands()[out].type;
    if (declaredType != output.type) {
        ZEL_LOG_LOCATED_IN(source(), "Output operand " << out << " is declared as " << toString(declaredType)
                                                       << " where the operation gives " << toString(output.type));
        return false;
    }
    const std::vector<uint32_t>& declared = model->operands()[out].dimensions;
    uint64_t declaredCount = 1;
    uint64_t inferredCount = 1;
    for (uint32_t d : declared)
        declaredCount = d != 0 && declaredCount > UINT64_MAX / d ? UINT64_MAX : declaredCount * d;
    for (uint32_t d : output.dimensions) {
        inferredCount = d != 0 && inferredCount > UINT64_MAX / d ? UINT64_MAX : inferredCount * d;
    }
    if (!declared.empty() && declaredCount != 0 && declaredCount != inferredCount) {
        ZEL_LOG_LOCATED_IN(source(), "Output operand " << out << " is declared with " << declaredCount
                                                       << " values where the operation gives " << inferredCount);
        return false;
    }
    // The same values in another arrangement of the runtime's four dimensions.
    if (!declared.empty() && declaredCount != 0 && declared.size() <= 4 && output.dimensions.size() <= 4 &&
        getAlignedDimensions(declared, 4) != getAlignedDimensions(output.dimensions, 4)) {
        ZEL_LOG_LOCATED_IN(source(), "Output operand " << out << " is declared with another shape than the "
                                                       << output.dimensions.size() << "-D shape the operation gives");
        return false;
    }
    return storeOnly(model, out, output);
}

bool CheckRules::storeOnly(ZelModel* model, uint32_t out, const Shape& output) const {
    if (!model->setShape(out, output)) {
        ZEL_LOG_LOCATED_IN(source(), "Error setting shape");
        return false;
    }
    return true;
}

// The operands of the space/batch pair: the input, of rank 4, and the block
// sizes ins[1], [block_h, block_w], both positive.
struct CheckRules::SpaceBatch {
    Shape input;
    Shape blockShape;
    std::vector<int32_t> block;
};

// The steps the space/batch pair shares: counts, operands, input rank and
// block sizes.
bool CheckRules::readSpaceBatch(const Ins& ins, const Ins& outs, ZelModel* model, OperationType type, size_t inputCount,
                                SpaceBatch* operands) const {
    if (ins.size() != inputCount) {
        ZEL_LOG_LOCATED_IN(source(), toString(type) << " operation requires " << inputCount << " input operand(s)!");
        return false;
    }
    if (outs.size() != 1) {
        ZEL_LOG_LOCATED_IN(source(), toString(type) << " operation requires 1 output operand(s)!");
        return false;
    }
    if (!operandsReadable(ins, outs, model, type)) return false;

    operands->input = model->getShape(ins[0]);
    if (getNumberOfDimensions(operands->input) != 4) {
        ZEL_LOG_LOCATED_IN(source(), toString(type) << " operation requires input of rank = 4.");
        return false;
    }
    operands->blockShape = model->getShape(ins[1]);
    if (getNumberOfDimensions(operands->blockShape) != 1 || getSizeOfDimension(operands->blockShape, 0) != 2) {
        ZEL_LOG_LOCATED_IN(source(), toString(type) << " operation requires blocksize input of shape (" << 2 << ")");
        return false;
    }
    std::vector<int32_t>& block = operands->block;
    if (!copyInt32Data(model, ins[1], type, &block)) return false;
    if (block[0] < 1 || block[1] < 1) {
        ZEL_LOG_LOCATED_IN(source(), toString(type) << " operation requires block sizes of at least 1, got " << block[0]
                                                    << " and " << block[1]);
        return false;
    }
    return true;
}

bool CheckRules::elementWise(const Ins& ins, const Ins& outs, ZelModel* model, OperationType type) const {
    ZEL_CHECK_EQ_IN(source(), 3, ins.size(), false, "Need 3 inputs for " << toString(type));
    ZEL_CHECK_EQ_IN(source(), 1, outs.size(), false, "Need 1 output for " << toString(type));
    if (!operandsReadable(ins, outs, model, type)) return false;
    if (!int32Parameters(model, ins, 2, 3, type)) return false;

    if (!activationFusable(model, ins[2])) return false;
    Shape output = model->getShape(outs[0]);
    return storeShape(addMulPrepare(model->getShape(ins[0]), model->getShape(ins[1]), &output), model, outs[0], output,
                      ins);
}

bool CheckRules::pool(const Ins& ins, const Ins& outs, ZelModel* model, OperationType type) const {
    const bool explicitForm = ins.size() == 10;
    if (ins.size() != 7 && !explicitForm) {
        ZEL_LOG_LOCATED_IN(source(), "Need 7 or 10 inputs for " << toString(type));
        return false;
    }
    // The output count is not a rule here; the first output is still needed.
    ZEL_CHECK_LE_IN(source(), 1, outs.size(), false, "Need at least 1 output for " << toString(type));
    if (!operandsReadable(ins, outs, model, type)) return false;
    if (!int32Parameters(model, ins, 1, ins.size(), type)) return false;

    const Shape input = model->getShape(ins[0]);
    Window window;
    // The window size follows the strides: ins[4], ins[5] or ins[7], ins[8].
    const size_t filterAt = explicitForm ? 7 : 4;
    window.filterW = model->getScalar<int32_t>(ins[filterAt]);
    window.filterH = model->getScalar<int32_t>(ins[filterAt + 1]);
    if (!readWindow(source(), model, ins, explicitForm, 1, input, type, true, &window)) return false;
    const padding_type_enum pad = window.padding;
    ZEL_CHECK_NE_IN(source(), pad, ZEL_NN_PAD_NA, false, "Unknown padding");

    if (!activationFusable(model, ins.back())) return false;
    Shape output = model->getShape(outs[0]);
    const bool inferred =
        genericPoolingPrepare(input, window.padLeft, window.padRight, window.padTop, window.padBottom, window.strideW,
                              window.strideH, window.filterW, window.filterH, &output);
    return storeShape(inferred, model, outs[0], output, ins);
}

bool CheckRules::activation(const Ins& ins, const Ins& outs, ZelModel* model, uint32_t numInputs,
                            OperationType type) const {
    ZEL_CHECK_EQ_IN(source(), numInputs, ins.size(), false, "Need " << numInputs << " input for " << toString(type));
    ZEL_CHECK_EQ_IN(source(), 1, outs.size(), false, "Need 1 output for " << toString(type));
    if (!operandsReadable(ins, outs, model, type)) return false;

    Shape output = model->getShape(outs[0]);
    return storeShape(genericActivationPrepare(model->getShape(ins[0]), &output), model, outs[0], output, ins);
}

bool CheckRules::convolution(const Ins& ins, const Ins& outs, ZelModel* model, OperationType type,
                             size_t implicitCount) const {
    const bool explicitForm = ins.size() == implicitCount + 3;
    if (ins.size() != implicitCount && !explicitForm) {
        ZEL_LOG_LOCATED_IN(source(),
                           "Need " << implicitCount << " or " << implicitCount + 3 << " inputs for " << toString(type));
        return false;
    }
    ZEL_CHECK_EQ_IN(source(), 1, outs.size(), false, "Need 1 output for " << toString(type));
    if (!operandsReadable(ins, outs, model, type)) return false;
    if (!int32Parameters(model, ins, 3, ins.size(), type)) return false;

    const Shape input = model->getShape(ins[0]);
    const Shape filter = model->getShape(ins[1]);
    const Shape bias = model->getShape(ins[2]);
    Window window;
    window.filterW = static_cast<int32_t>(getSizeOfDimension(filter, 2));
    window.filterH = static_cast<int32_t>(getSizeOfDimension(filter, 1));
    if (!readWindow(source(), model, ins, explicitForm, 3, input, type, false, &window)) return false;
    const padding_type_enum pad = window.padding;
    ZEL_CHECK_NE_IN(source(), pad, ZEL_NN_PAD_NA, false, "Unknown padding");

    if (type == OperationType::DEPTHWISE_CONV_2D) {
        // The depth multiplier (before the activation) splits the filter's
        // depth into the input's channels.
        const int32_t multiplier = model->getScalar<int32_t>(ins[ins.size() - 2]);
        ZEL_CHECK_LE_IN(source(), 1, multiplier, false, "Depth multiplier must be at least 1 for " << toString(type));
        const uint64_t inputDepth = getSizeOfDimension(input, 3);
        ZEL_CHECK_EQ_IN(source(), inputDepth * static_cast<uint64_t>(multiplier), getSizeOfDimension(filter, 3), false,
                        "Filter depth must be the input depth times the depth multiplier for " << toString(type));
    }

    // The activation is the last input in both forms.
    if (!activationFusable(model, ins.back())) return false;

    Shape output = model->getShape(outs[0]);
    const bool inferred =
        type == OperationType::CONV_2D
            ? convPrepare(input, filter, bias, window.padLeft, window.padRight, window.padTop, window.padBottom,
                          window.strideW, window.strideH, &output)
            : depthwiseConvPrepare(input, filter, bias, window.padLeft, window.padRight, window.padTop,
                                   window.padBottom, window.strideW, window.strideH, &output);
    if (!storeShape(inferred, model, outs[0], output, ins)) return false;
    if (!model->isConstant(ins[1])) {
        ZEL_LOG_LOCATED_IN(source(), toString(type) << " requires filter to be constant data");
        return false;
    }
    return true;
}

bool CheckRules::fullyConnected(const Ins& ins, const Ins& outs, ZelModel* model) const {
    const OperationType type = OperationType::FULLY_CONNECTED;
    ZEL_CHECK_EQ_IN(source(), 4, ins.size(), false, "Need 4 inputs for " << toString(type));
    ZEL_CHECK_EQ_IN(source(), 1, outs.size(), false, "Need 1 output for " << toString(type));
    if (!operandsReadable(ins, outs, model, type)) return false;
    if (!int32Parameters(model, ins, 3, 4, type)) return false;

    if (!activationFusable(model, ins[3])) return false;
    Shape output = model->getShape(outs[0]);
    const bool inferred =
        fullyConnectedPrepare(model->getShape(ins[0]), model->getShape(ins[1]), model->getShape(ins[2]), &output);
    if (!storeShape(inferred, model, outs[0], output, ins)) return false;
    if (!model->isConstant(ins[1])) {
        ZEL_LOG_LOCATED_IN(source(), toString(type) << " requires weight to be constant data");
        return false;
    }
    return true;
}

bool CheckRules::concatenation(const Ins& ins, const Ins& outs, ZelModel* model) const {
    const OperationType type = OperationType::CONCATENATION;
    ZEL_CHECK_LE_IN(source(), 3, ins.size(), false, "Need at least 3 inputs for " << toString(type));
    ZEL_CHECK_EQ_IN(source(), 1, outs.size(), false, "Need 1 output for " << toString(type));
    if (!operandsReadable(ins, outs, model, type)) return false;
    if (!int32Parameters(model, ins, ins.size() - 1, ins.size(), type)) return false;

    // The runtime concatenates quantized tensors on the channel axis only;
    // float graphs take any axis that shape inference accepts.
    const int32_t axis = model->getScalar<int32_t>(ins.back());
    if (mQuantized) {
        ZEL_CHECK_EQ_IN(source(), axis, 3, false, "Concatenation only supports channel dimension.");
    }

    std::vector<Shape> shapes;
    for (size_t i = 0; i + 1 < ins.size(); ++i) shapes.push_back(model->getShape(ins[i]));
    Shape output = model->getShape(outs[0]);
    return storeShape(concatenationPrepare(shapes, axis, &output), model, outs[0], output, ins);
}

bool CheckRules::reshape(const Ins& ins, const Ins& outs, ZelModel* model) const {
    const OperationType type = OperationType::RESHAPE;
    ZEL_CHECK_EQ_IN(source(), 2, ins.size(), false, "Need 2 inputs for " << toString(type));
    ZEL_CHECK_EQ_IN(source(), 1, outs.size(), false, "Need 1 output for " << toString(type));
    if (!operandsReadable(ins, outs, model, type)) return false;

    if (model->getPointer(ins[1]) == nullptr) {
        ZEL_LOG_LOCATED_IN(source(), "pointer value is currently nullptr");
        return false;
    }
    const uint32_t count = getNumberOfElements(model->getShape(ins[1]));
    std::vector<int32_t> target;
    if (!copyInt32Data(model, ins[1], type, &target)) return false;

    Shape output = model->getShape(outs[0]);
    const bool inferred = reshapePrepare(model->getShape(ins[0]), target.data(), static_cast<int32_t>(count), &output);
    return storeShape(inferred, model, outs[0], output, ins);
}

bool CheckRules::resizeBilinear(const Ins& ins, const Ins& outs, ZelModel* model) const {
    const OperationType type = OperationType::RESIZE_BILINEAR;
    ZEL_CHECK_EQ_IN(source(), 3, ins.size(), false, "Need 3 inputs for " << toString(type));
    ZEL_CHECK_EQ_IN(source(), 1, outs.size(), false, "Need 1 output for " << toString(type));
    if (!operandsReadable(ins, outs, model, type)) return false;

    if (!int32Parameters(model, ins, 1, 3, type)) return false;

    // A target size below 1 leaves nothing to resize to.
    const int32_t width = model->getScalar<int32_t>(ins[1]);
    const int32_t height = model->getScalar<int32_t>(ins[2]);
    ZEL_CHECK_LE_IN(source(), 1, width, false, "Target width must be at least 1 for " << toString(type));
    ZEL_CHECK_LE_IN(source(), 1, height, false, "Target height must be at least 1 for " << toString(type));
    Shape output = model->getShape(outs[0]);
    return storeShape(resizeBilinearPrepare(model->getShape(ins[0]), width, height, &output), model, outs[0], output,
                      ins);
}

bool CheckRules::dequantize(const Ins& ins, const Ins& outs, ZelModel* model) const {
    const OperationType type = OperationType::DEQUANTIZE;
    ZEL_CHECK_EQ_IN(source(), 1, ins.size(), false, "Need 1 input for " << toString(type));
    ZEL_CHECK_EQ_IN(source(), 1, outs.size(), false, "Need 1 output for " << toString(type));
    if (!operandsReadable(ins, outs, model, type)) return false;

    Shape output = model->getShape(outs[0]);
    return storeShape(dequantizePrepare(model->getShape(ins[0]), &output), model, outs[0], output, ins);
}

bool CheckRules::localResponseNormalization(const Ins& ins, const Ins& outs, ZelModel* model) const {
    const OperationType type = OperationType::LOCAL_RESPONSE_NORMALIZATION;
    ZEL_CHECK_EQ_IN(source(), 5, ins.size(), false, "Need 5 inputs for " << toString(type));
    ZEL_CHECK_EQ_IN(source(), 1, outs.size(), false, "Need 1 output for " << toString(type));
    if (!operandsReadable(ins, outs, model, type)) return false;

    Shape output = model->getShape(outs[0]);
    return storeShape(genericNormalizationPrepare(model->getShape(ins[0]), &output), model, outs[0], output, ins);
}

bool CheckRules::squeeze(const Ins& ins, const Ins& outs, ZelModel* model) const {
    const OperationType type = OperationType::SQUEEZE;
    if (ins.size() != 1 && ins.size() != 2) {
        ZEL_LOG_LOCATED_IN(source(), "Need 1 or 2 inputs for operation " << toString(type));
        return false;
    }
    ZEL_CHECK_EQ_IN(source(), 1, outs.size(), false, "Need 1 output for " << toString(type));
    if (!operandsReadable(ins, outs, model, type)) return false;

    const Shape input = model->getShape(ins[0]);
    const uint32_t rank = getNumberOfDimensions(input);
    if (rank > 4) {
        ZEL_LOG_LOCATED_IN(source(), "Input operand rank must be at most 4D");
        return false;
    }
    // Without a (constant) list every dimension of size 1 is squeezed.
    Shape dimsShape;
    dimsShape.type = OperandType::TENSOR_INT32;
    dimsShape.dimensions = {0};
    std::vector<int32_t> dims;
    if (ins.size() == 2 && model->getPointer(ins[1]) != nullptr) {
        dimsShape = model->getShape(ins[1]);
        if (getNumberOfDimensions(dimsShape) != 1) {
            ZEL_LOG_LOCATED_IN(source(), "Invalid squeeze index tensor rank. Expected rank 1 but got "
                                             << getNumberOfDimensions(dimsShape));
            return false;
        }
        if (getSizeOfDimension(dimsShape, 0) > rank) {
            ZEL_LOG_LOCATED_IN(source(), "Invalid squeeze tensor input. Size larger than input size");
            return false;
        }
        if (!copyInt32Data(model, ins[1], type, &dims)) return false;
        for (int32_t dim : dims) {
            const int64_t current = dim < 0 ? static_cast<int64_t>(dim) + rank : dim;
            if (current < 0 || current >= rank || getSizeOfDimension(input, static_cast<uint32_t>(current)) != 1) {
                ZEL_LOG_LOCATED_IN(source(), "Attempt to squeeze non squeezable dimension: " << dim);
                return false;
            }
        }
    }
    Shape output = model->getShape(outs[0]);
    return storeShape(squeezePrepare(input, dims.data(), dimsShape, &output), model, outs[0], output, ins);
}

bool CheckRules::pad(const Ins& ins, const Ins& outs, ZelModel* model) const {
    const OperationType type = OperationType::PAD;
    ZEL_CHECK_EQ_IN(source(), 2, ins.size(), false, "Need 2 inputs for " << toString(type));
    ZEL_CHECK_EQ_IN(source(), 1, outs.size(), false, "Need 1 output for " << toString(type));
    if (!operandsReadable(ins, outs, model, type)) return false;

    const Shape input = model->getShape(ins[0]);
    const uint32_t rank = getNumberOfDimensions(input);
    if (rank > 4) {
        ZEL_LOG_LOCATED_IN(source(), toString(type) << " operation requires input of rank <= 4.");
        return false;
    }
    const Shape paddings = model->getShape(ins[1]);
    if (getNumberOfDimensions(paddings) != 2 || getSizeOfDimension(paddings, 0) != rank ||
        getSizeOfDimension(paddings, 1) != 2) {
        ZEL_LOG_LOCATED_IN(source(), toString(type) << " operation requires padding input of shape (" << rank << ",2)");
        return false;
    }
    std::vector<int32_t> values;
    if (!copyInt32Data(model, ins[1], type, &values)) return false;

    const Shape declared = model->getShape(outs[0]);
    Shape output = declared;
    if (!padPrepare(input, values.data(), paddings, &output)) {
        ZEL_LOG_LOCATED_IN(source(), "Error getting shape");
        return false;
    }
    // A declared output (rank 0 or a 0 dimension: not yet known) must agree.
    if (!declared.dimensions.empty()) {
        if (declared.dimensions.size() != rank) {
            ZEL_LOG_LOCATED_IN(source(), toString(type) << " Input and output ranks miss match.");
            return false;
        }
        for (size_t i = 0; i < rank && i < output.dimensions.size(); ++i) {
            if (declared.dimensions[i] != 0 && declared.dimensions[i] != output.dimensions[i]) {
                ZEL_LOG_LOCATED_IN(source(), toString(type)
                                                 << " Output shape at dimension (" << i << ") miss match! Expected "
                                                 << output.dimensions[i] << ", actual " << declared.dimensions[i]);
                return false;
            }
        }
    }
    return storeShape(true, model, outs[0], output, ins);
}

bool CheckRules::transpose(const Ins& ins, const Ins& outs, ZelModel* model) const {
    const OperationType type = OperationType::TRANSPOSE;
    ZEL_CHECK_EQ_IN(source(), 2, ins.size(), false, "Need 2 inputs for " << toString(type));
    ZEL_CHECK_EQ_IN(source(), 1, outs.size(), false, "Need 1 output for " << toString(type));
    if (!operandsReadable(ins, outs, model, type)) return false;

    if (mQuantized && (!model->isConstant(ins[1]) || model->getPointer(ins[1]) == nullptr)) {
        ZEL_LOG_LOCATED_IN(source(), "Transpose requires transpose indexes to be constant");
        return false;
    }
    const Shape input = model->getShape(ins[0]);
    const Shape perm = model->getShape(ins[1]);
    const uint32_t rank = getNumberOfDimensions(input);
    if (getNumberOfDimensions(perm) != 1) {
        ZEL_LOG_LOCATED_IN(source(), "Transpose tensor must be 1D!");
        return false;
    }
    if (getSizeOfDimension(perm, 0) != rank) {
        ZEL_LOG_LOCATED_IN(source(), "Transpose tensor must define index for every input dimension.");
        return false;
    }
    const Shape declared = model->getShape(outs[0]);
    if (getNumberOfDimensions(declared) != rank) {
        ZEL_LOG_LOCATED_IN(source(), "Input and output tensors rank must match.");
        return false;
    }
    // Float graphs may feed the indexes at run time: then only the ranks
    // can be checked now, and the output keeps its declared shape.
    if (model->getPointer(ins[1]) == nullptr) return true;
    std::vector<int32_t> values;
    if (!copyInt32Data(model, ins[1], type, &values)) return false;
    Shape output = declared;
    // Refuses indexes outside the input's rank before they are used below.
    if (!transposePrepare(input, values.data(), perm, &output)) {
        ZEL_LOG_LOCATED_IN(source(), "Error getting shape");
        return false;
    }
    for (uint32_t i = 0; i < rank && i < values.size(); ++i) {
        const uint32_t expected = getSizeOfDimension(input, static_cast<uint32_t>(values[i]));
        if (declared.dimensions[i] != 0 && declared.dimensions[i] != expected) {
            ZEL_LOG_LOCATED_IN(source(),
                               "Output dimension at index " << i << "does not match input dimension " << values[i]);
            return false;
        }
    }
    return storeShape(true, model, outs[0], output, ins);
}

bool CheckRules::spaceToDepth(const Ins& ins, const Ins& outs, ZelModel* model) const {
    const OperationType type = OperationType::SPACE_TO_DEPTH;
    ZEL_CHECK_EQ_IN(source(), 2, ins.size(), false, "Need 2 inputs for " << toString(type));
    ZEL_CHECK_EQ_IN(source(), 1, outs.size(), false, "Need 1 output for " << toString(type));
    if (!operandsReadable(ins, outs, model, type)) return false;

    const int32_t blockSize = model->getScalar<int32_t>(ins[1]);
    Shape output = model->getShape(outs[0]);
    return storeShape(spaceToDepthPrepare(model->getShape(ins[0]), blockSize, &output), model, outs[0], output, ins);
}

bool CheckRules::batchToSpace(const Ins& ins, const Ins& outs, ZelModel* model) const {
    SpaceBatch operands;
    if (!readSpaceBatch(ins, outs, model, OperationType::BATCH_TO_SPACE_ND, 2, &operands)) return false;

    Shape output = model->getShape(outs[0]);
    const bool inferred = batchToSpacePrepare(operands.input, operands.block.data(), operands.blockShape, &output);
    return storeShape(inferred, model, outs[0], output, ins);
}

bool CheckRules::spaceToBatch(const Ins& ins, const Ins& outs, ZelModel* model) const {
    const OperationType type = OperationType::SPACE_TO_BATCH_ND;
    SpaceBatch operands;
    if (!readSpaceBatch(ins, outs, model, type, 3, &operands)) return false;
    const Shape paddingShape = model->getShape(ins[2]);
    if (getNumberOfDimensions(paddingShape) != 2 || getSizeOfDimension(paddingShape, 0) != 2 ||
        getSizeOfDimension(paddingShape, 1) != 2) {
        ZEL_LOG_LOCATED_IN(source(), toString(type) << " operation requires padding input of shape (" << 2 << ",2)");
        return false;
    }
    std::vector<int32_t> paddings;
    if (!copyInt32Data(model, ins[2], type, &paddings)) return false;

    Shape output = model->getShape(outs[0]);
    const bool inferred = spaceToBatchPrepare(operands.input, operands.block.data(), operands.blockShape,
                                              paddings.data(), paddingShape, &output);
    return storeShape(inferred, model, outs[0], output, ins);
}

bool CheckRules::oemLstm(const Ins& ins, const Ins& outs, ZelModel* model) const {
    ZEL_CHECK_EQ_IN(source(), 6, ins.size(), false, "Need 6 inputs for OEM LSTM");
    ZEL_CHECK_EQ_IN(source(), 4, outs.size(), false, "Need 4 outputs for OEM LSTM");
    if (!operandsReadable(ins, outs, model, OperationType::OEM_LSTM)) return false;

    // The runtime node takes the weights (ins[3]) and bias (ins[4]) as constants.
    if (!model->isConstant(ins[3])) {
        ZEL_LOG_LOCATED_IN(source(), "OEM LSTM requires weight to be constant data");
        return false;
    }
    if (!model->isConstant(ins[4])) {
        ZEL_LOG_LOCATED_IN(source(), "OEM LSTM requires bias to be constant data");
        return false;
    }
    return true;
}

bool CheckRules::oemSplit(const Ins& ins, const Ins& outs, ZelModel* model) const {
    ZEL_CHECK_EQ_IN(source(), 4, ins.size(), false, "Need 4 inputs for OEM Split");
    if (!operandsReadable(ins, outs, model, OperationType::OEM_SPLIT)) return false;

    // ins[2] holds the number of parts; one output per part.
    ZEL_CHECK_EQ_IN(source(), (size_t)model->getScalar<int32_t>(ins[2]), outs.size(), false,
                    "Number of outputs is incorrect");
    return true;
}

// ---------------------------------------------------------------------------
// The quant8 family.

namespace quant8_asym_check {

constexpr CheckRules kQuant8Rules(__FILE__, true);

bool fusedActivationCheck(zel_op_type_enum code) {
    // A fixed set, kept as it is: 89 has no name but is accepted.
    switch (code) {
        case ZEL_OP_Nop:
        case ZEL_OP_QuantizedRelu_8:
        case ZEL_OP_QuantizedReluX_8:
        case ZEL_OP_QuantizedActivation89:
        case ZEL_OP_QuantizedClamp_8: return true;
        default: return false;
    }
}

bool elementWiseOpCheck(const Ins& ins, const Ins& outs, ZelModel* model, OperationType type) {
    return kQuant8Rules.elementWise(ins, outs, model, type);
}

bool pool(const Ins& ins, const Ins& outs, ZelModel* model, OperationType type) {
    return kQuant8Rules.pool(ins, outs, model, type);
}

bool activation(const Ins& ins, const Ins& outs, ZelModel* model, uint32_t numInputs, OperationType type) {
    return kQuant8Rules.activation(ins, outs, model, numInputs, type);
}

bool add(const Ins& ins, const Ins& outs, ZelModel* model) {
    return elementWiseOpCheck(ins, outs, model, OperationType::ADD);
}

bool sub(const Ins& ins, const Ins& outs, ZelModel* model) {
    return elementWiseOpCheck(ins, outs, model, OperationType::SUB);
}

bool mul(const Ins& ins, const Ins& outs, ZelModel* model) {
    return elementWiseOpCheck(ins, outs, model, OperationType::MUL);
}

bool average_pool_2d(const Ins& ins, const Ins& outs, ZelModel* model) {
    return pool(ins, outs, model, OperationType::AVERAGE_POOL_2D);
}

bool l2_pool_2d(const Ins& ins, const Ins& outs, ZelModel* model) {
    return pool(ins, outs, model, OperationType::L2_POOL_2D);
}

bool max_pool_2d(const Ins& ins, const Ins& outs, ZelModel* model) {
    return pool(ins, outs, model, OperationType::MAX_POOL_2D);
}

bool logistic(const Ins& ins, const Ins& outs, ZelModel* model) {
    return activation(ins, outs, model, 1, OperationType::LOGISTIC);
}

bool relu(const Ins& ins, const Ins& outs, ZelModel* model) {
    return activation(ins, outs, model, 1, OperationType::RELU);
}

bool relu1(const Ins& ins, const Ins& outs, ZelModel* model) {
    return activation(ins, outs, model, 1, OperationType::RELU1);
}

bool relu6(const Ins& ins, const Ins& outs, ZelModel* model) {
    return activation(ins, outs, model, 1, OperationType::RELU6);
}

bool prelu(const Ins& ins, const Ins& outs, ZelModel* model) {
    // The alpha input is counted, not examined.
    return activation(ins, outs, model, 2, OperationType::PRELU);
}

bool softmax(const Ins& ins, const Ins& outs, ZelModel* model) {
    return activation(ins, outs, model, 2, OperationType::SOFTMAX);
}

bool tanh(const Ins& ins, const Ins& outs, ZelModel* model) {
    return activation(ins, outs, model, 1, OperationType::TANH);
}

bool concatenation(const Ins& ins, const Ins& outs, ZelModel* model) {
    return kQuant8Rules.concatenation(ins, outs, model);
}

bool conv_2d(const Ins& ins, const Ins& outs, ZelModel* model) {
    return kQuant8Rules.convolution(ins, outs, model, OperationType::CONV_2D, 7);
}

bool depthwise_conv_2d(const Ins& ins, const Ins& outs, ZelModel* model) {
    // The depth multiplier (ins[6] or ins[9]) is not examined here.
    return kQuant8Rules.convolution(ins, outs, model, OperationType::DEPTHWISE_CONV_2D, 8);
}

bool fully_connected(const Ins& ins, const Ins& outs, ZelModel* model) {
    return kQuant8Rules.fullyConnected(ins, outs, model);
}

bool reshape(const Ins& ins, const Ins& outs, ZelModel* model) {
    return kQuant8Rules.reshape(ins, outs, model);
}

bool resize_bilinear(const Ins& ins, const Ins& outs, ZelModel* model) {
    return kQuant8Rules.resizeBilinear(ins, outs, model);
}

bool transpose_conv_2d(const Ins& /*ins*/, const Ins& /*outs*/, ZelModel* /*model*/) {
    // Registered, but the accelerator has no transposed convolution: always
    // refused, and the summary line of the query says so.
    return false;
}

bool dequantize(const Ins& ins, const Ins& outs, ZelModel* model) {
    return kQuant8Rules.dequantize(ins, outs, model);
}

bool local_response_normalization(const Ins& ins, const Ins& outs, ZelModel* model) {
    return kQuant8Rules.localResponseNormalization(ins, outs, model);
}

bool squeeze(const Ins& ins, const Ins& outs, ZelModel* model) {
    return kQuant8Rules.squeeze(ins, outs, model);
}

bool pad(const Ins& ins, const Ins& outs, ZelModel* model) {
    return kQuant8Rules.pad(ins, outs, model);
}

bool transposeCheck(const Ins& ins, const Ins& outs, ZelModel* model) {
    return kQuant8Rules.transpose(ins, outs, model);
}

bool space_to_depth(const Ins& ins, const Ins& outs, ZelModel* model) {
    return kQuant8Rules.spaceToDepth(ins, outs, model);
}

bool batch_to_space_nd(const Ins& ins, const Ins& outs, ZelModel* model) {
    return kQuant8Rules.batchToSpace(ins, outs, model);
}

bool space_to_batch_nd(const Ins& ins, const Ins& outs, ZelModel* model) {
    return kQuant8Rules.spaceToBatch(ins, outs, model);
}

bool oemLstmCheck(const Ins& ins, const Ins& outs, ZelModel* model) {
    return kQuant8Rules.oemLstm(ins, outs, model);
}

bool oemSplitCheck(const Ins& ins, const Ins& outs, ZelModel* model) {
    return kQuant8Rules.oemSplit(ins, outs, model);
}

}  // namespace quant8_asym_check
}  // namespace zel
}  // namespace nnhal
}  // namespace arv
