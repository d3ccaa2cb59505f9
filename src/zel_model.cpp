// The model: operand registry, constant nodes, graph inputs and outputs,
// node construction, and the build / prepare / execute life of one graph.
#include "zel_model.h"

#include <sys/mman.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <exception>
#include <initializer_list>
#include <limits>
#include <new>
#include <string>
#include <type_traits>

#include "zel_operations_prepare_quant8.h"

namespace arv {
namespace nnhal {
namespace zel {

namespace {

// Returned by reference when an operand index is outside the graph.
const input kNoInput{};

// Bytes of the runtime's log and graph dumps.
constexpr uint32_t kDumpLength = 16384;

bool isThreeSlot(OperandType type) {
    return type == OperandType::TENSOR_QUANT8 || type == OperandType::TENSOR_CUSTOM_BYTE;
}

bool isScalar(OperandType type) {
    return type == OperandType::SCALAR_FP32 || type == OperandType::SCALAR_INT32 ||
           type == OperandType::SCALAR_UNSIGNED_INT32;
}

std::string decimal(uint32_t value) {
    return std::to_string(value);
}

// A debug line built in a buffer on the stack: the lines logged for every
// node and constant of a preparation cost no heap. A line too long for the
// buffer continues in a string.
class DebugLine {
public:
    DebugLine& operator<<(const char* text) { return append(text, std::strlen(text)); }
    DebugLine& operator<<(const std::string& text) { return append(text.data(), text.size()); }
    template <typename T, typename = std::enable_if_t<std::is_integral<T>::value>>
    DebugLine& operator<<(T value) {
        char digits[24];
        const std::to_chars_result end = std::to_chars(digits, digits + sizeof(digits), value);
        return append(digits, static_cast<size_t>(end.ptr - digits));
    }
    void log() const { handle_debug_info(mLong.empty() ? mShort : mLong.c_str()); }

private:
    DebugLine& append(const char* text, size_t length) {
        if (mLong.empty() && mLength + length < sizeof(mShort)) {
            std::memcpy(mShort + mLength, text, length);
            mLength += length;
            mShort[mLength] = '\0';
        } else {
            if (mLong.empty()) mLong.assign(mShort, mLength);
            mLong.append(text, length);
        }
        return *this;
    }

    char mShort[160] = {};
    size_t mLength = 0;
    std::string mLong;
};

// Record of a float range value (min or max of a quantized value).
output rangeRecord() {
    return make_kestrel_nn_output({1, 1, 1, 1}, 4);
}

void appendAll(std::vector<input>* list, const std::vector<input>& more) {
    list->insert(list->end(), more.begin(), more.end());
}

// Product that stops growing at 2^40: far above any 32-bit byte length, so
// a capped size never matches a real one, and never overflows.
constexpr uint64_t kSizeCap = uint64_t{1} << 40;
uint64_t cappedProduct(std::initializer_list<uint64_t> factors) {
    uint64_t product = 1;
    for (uint64_t factor : factors) {
        if (factor != 0 && product > kSizeCap / factor) return kSizeCap;
        product *= factor;
    }
    return std::min(product, kSizeCap);
}

}  // namespace

// ---------------------------------------------------------------------------
// Free helpers.

output make_kestrel_nn_output(const std::vector<uint32_t>& dims, uint32_t elementSize) {
    output record{};
    const std::vector<uint32_t> aligned = getAlignedDimensions(dims, 4);
    record.rank = static_cast<uint32_t>(std::min<size_t>(aligned.size(), 8));
    for (uint32_t i = 0; i < record.rank; ++i) record.max_sizes[i] = aligned[i];
    record.elementsize = elementSize;
    record.zero_offset = 0;
    record.stepsize = 0.0f;
    return record;
}

OperandInfo getUpdatedOperand(IOperand* operand, const OperandInfo& info) {
    OperandInfo updated;
    getUpdatedOperand(operand, info, &updated);
    return updated;
}

void getUpdatedOperand(IOperand* operand, const OperandInfo& info, OperandInfo* updated) {
    *updated = info;
    if (operand == nullptr) return;
    const uint32_t count = operand->getDimensionCount();
    if (count != 0) {
        updated->dimensions.resize(count);
        for (uint32_t i = 0; i < count; ++i) updated->dimensions[i] = operand->getDimension(i);
    }
    // The data is taken whatever the status says: during an execution the
    // host reports the bound buffer.
    const DataResult data = operand->getData();
    updated->data = data.data;
    updated->length = data.length;
}

namespace {
typedef uint8_t Bytes16 __attribute__((vector_size(16)));

// 16x16 byte tile: four rounds of interleaving row i with row i + 8.
void transposeTile16(const uint8_t* src, size_t srcStride, uint8_t* dst, size_t dstStride) {
    Bytes16 x[16];
    for (int i = 0; i < 16; ++i) std::memcpy(&x[i], src + i * srcStride, 16);
    for (int round = 0; round < 4; ++round) {
        Bytes16 y[16];
        for (int i = 0; i < 8; ++i) {
            y[2 * i] = __builtin_shufflevector(x[i], x[i + 8], 0, 16, 1, 17, 2, 18, 3, 19, 4, 20, 5, 21, 6, 22, 7, 23);
            y[2 * i + 1] =
                __builtin_shufflevector(x[i], x[i + 8], 8, 24, 9, 25, 10, 26, 11, 27, 12, 28, 13, 29, 14, 30, 15, 31);
        }
        for (int i = 0; i < 16; ++i) x[i] = y[i];
    }
    for (int i = 0; i < 16; ++i) std::memcpy(dst + i * dstStride, &x[i], 16);
}
}  // namespace

namespace {

// rows x cols at `data` (row stride `stride`) into `out` (row stride
// `outStride`), 16 x 16 tiles through registers and scalar edges.
void transposeTiles(uint32_t rows, uint32_t cols, const uint8_t* data, size_t stride, uint8_t* out, size_t outStride) {
    uint32_t r = 0;
    for (; r + 16 <= rows; r += 16) {
        uint32_t c = 0;
        for (; c + 16 <= cols; c += 16)
            transposeTile16(data + r * stride + c, stride, out + c * outStride + r, outStride);
        for (; c < cols; ++c) {
            for (uint32_t k = r; k < r + 16; ++k) out[c * outStride + k] = data[k * stride + c];
        }
    }
    for (; r < rows; ++r) {
        for (uint32_t c = 0; c < cols; ++c) out[c * outStride + r] = data[r * stride + c];
    }
}

}  // namespace

void transposeInto(uint32_t rows, uint32_t cols, const uint8_t* data, uint8_t* out) {
    const uint64_t bytes = static_cast<uint64_t>(rows) * cols;
    if (bytes <= (uint64_t{4} << 20)) {
        // Fits the cache: 64 x 64 blocks keep the rows read and the columns
        // written close enough for the tiles to go straight to the output.
        constexpr uint32_t kBlock = 64;
        for (uint32_t r0 = 0; r0 < rows; r0 += kBlock) {
            for (uint32_t c0 = 0; c0 < cols; c0 += kBlock) {
                transposeTiles(std::min(kBlock, rows - r0), std::min(kBlock, cols - c0),
                               data + static_cast<size_t>(r0) * cols + c0, cols,
                               out + static_cast<size_t>(c0) * rows + r0, rows);
            }
        }
        return;
    }
    // Larger matrices: 16 bytes into each of many output rows far apart
    // thrashes the cache and the address translation. Each 128 x 128 block
    // is transposed into a scratch block instead and leaves it as one
    // 128-byte run per output row (about 1.7 times faster from 10 MB up).
    constexpr uint32_t kBlock = 128;
    alignas(16) uint8_t scratch[kBlock * kBlock];
    for (uint32_t r0 = 0; r0 < rows; r0 += kBlock) {
        const uint32_t height = std::min(kBlock, rows - r0);
        for (uint32_t c0 = 0; c0 < cols; c0 += kBlock) {
            const uint32_t width = std::min(kBlock, cols - c0);
            transposeTiles(height, width, data + static_cast<size_t>(r0) * cols + c0, cols, scratch, height);
            for (uint32_t c = 0; c < width; ++c) {
                std::memcpy(out + static_cast<size_t>(c0 + c) * rows + r0, scratch + c * height, height);
            }
        }
    }
}

std::vector<uint8_t> transpose(uint32_t rows, uint32_t cols, const uint8_t* data) {
    const uint64_t count = static_cast<uint64_t>(rows) * cols;
    if (data == nullptr || count == 0 || count > std::numeric_limits<size_t>::max()) return {};
    std::vector<uint8_t> result(static_cast<size_t>(count));
    transposeInto(rows, cols, data, result.data());
    return result;
}

std::vector<float> transpose(uint32_t rows, uint32_t cols, const float* data) {
    const uint64_t count = static_cast<uint64_t>(rows) * cols;
    if (data == nullptr || count == 0 || count > std::numeric_limits<size_t>::max() / sizeof(float)) return {};
    std::vector<float> result(static_cast<size_t>(count));
    for (uint32_t r = 0; r < rows; ++r) {
        for (uint32_t c = 0; c < cols; ++c) {
            result[static_cast<size_t>(c) * rows + r] = data[static_cast<size_t>(r) * cols + c];
        }
    }
    return result;
}

// ---------------------------------------------------------------------------
// Construction and registry.

ZelModel::ZelModel()
    : mGraphId(0),
      mNodeId(0),
      mPrepared(false),
      mModelPrepareErrorCode(0),
      mNnLib(Controller::getInstance()->getNnLib()),
      mVotingToken(0),
      mBatchSize(0) {
    mVotingToken = mNnLib ? mNnLib->generateVotingToken() : 0;
    handle_debug_info("In ZelModel::ZelModel()");
    handle_debug_info("Out ZelModel::ZelModel()");
}

ZelModel::~ZelModel() {
    try {
        // The constructor's text, on purpose.
        handle_debug_info("In ZelModel::ZelModel()");
        if (mNnLib) mNnLib->releaseVotingToken(mVotingToken);
        clearModel();
    } catch (...) {
        // Nothing may leave a destructor; the runtime graph is gone or
        // will be reclaimed with the runtime.
    }
}

void ZelModel::clearModel() {
    if (mNnLib) mNnLib->asyncVote(mVotingToken, VotingThread::DOWN);
    for (OperandInfo& operand : mOperands) {
        operand.kestrel_input = input{};
        operand.quantMin = input{};
        operand.quantMax = input{};
        operand.output = output{};
    }
    // mGraphId is kept: a later clearModel tears the same id down again.
    if (mGraphId != 0 && mNnLib) mNnLib->teardown(static_cast<int>(mGraphId));
}

bool ZelModel::checkOperand(uint32_t index) {
    if (index < mOperands.size()) return true;
    ZEL_LOG_LOCATED("Operand " << index << " is outside the graph (" << mOperands.size() << " operands)");
    return false;
}

bool ZelModel::validOperands(const std::vector<uint32_t>& indices, const char* what) {
    for (size_t position = 0; position < indices.size(); ++position) {
        if (indices[position] >= mOperands.size()) {
            ZEL_LOG_LOCATED((what != nullptr ? what : "Operand")
                            << " " << position << " refers to operand " << indices[position] << " outside the graph ("
                            << mOperands.size() << " operands)");
            return false;
        }
    }
    return true;
}

bool ZelModel::scalarsHaveData(const std::vector<uint32_t>& indices) {
    if (!validOperands(indices, "Operand")) return false;
    for (uint32_t index : indices) {
        const OperandInfo& operand = mOperands[index];
        if (isScalar(operand.type) && (operand.data == nullptr || operand.length < 4)) {
            ZEL_LOG_LOCATED("Scalar operand " << index << " has no data");
            return false;
        }
    }
    return true;
}

Shape ZelModel::getShape(uint32_t index) {
    Shape shape;
    if (!checkOperand(index)) return shape;
    const OperandInfo& operand = mOperands[index];
    shape.type = operand.type;
    shape.dimensions = operand.dimensions;
    shape.scale = operand.scale;
    shape.offset = operand.zeroPoint;
    return shape;
}

bool ZelModel::setShape(uint32_t index, const Shape& shape) {
    if (!checkOperand(index)) return false;
    OperandInfo& operand = mOperands[index];
    operand.type = shape.type;
    operand.dimensions = shape.dimensions;
    operand.scale = shape.scale;
    operand.zeroPoint = shape.offset;
    return true;
}

bool ZelModel::isConstant(uint32_t index) {
    // Only graph inputs and outputs count as non-constant: intermediates
    // answer true, and callers only ask about inputs, outputs or constants.
    return std::find(mInputs.begin(), mInputs.end(), index) == mInputs.end() &&
           std::find(mOutputs.begin(), mOutputs.end(), index) == mOutputs.end();
}

const uint8_t* ZelModel::getPointer(uint32_t index) {
    if (!checkOperand(index)) return nullptr;
    return mOperands[index].data;
}

padding_type_enum ZelModel::getPadding(uint32_t index) {
    switch (getScalar<int32_t>(index)) {
        case 1: return ZEL_NN_PAD_SAME;
        case 2: return ZEL_NN_PAD_VALID;
        default: return ZEL_NN_PAD_NA;
    }
}

zel_op_type_enum ZelModel::getFloatActivation(uint32_t index) {
    return getFloatActivationFunction(static_cast<ActivationFunc>(getScalar<int32_t>(index)));
}

zel_op_type_enum ZelModel::getQuantizedActivation(uint32_t index) {
    return getQuantizedActivationFunction(static_cast<ActivationFunc>(getScalar<int32_t>(index)));
}

std::vector<uint32_t> ZelModel::getDimensions(const OperandInfo& operand, bool original) {
    std::vector<uint32_t> dims = original ? operand.originalDimensions : operand.dimensions;
    adjustDimensions(operand, dims.data(), dims.size());
    return dims;
}

void ZelModel::adjustDimensions(const OperandInfo& operand, uint32_t* dims, size_t count) const {
    if (count == 0) return;
    if (operand.type == OperandType::TENSOR_CUSTOM_BYTE && operand.elementSize != 0) {
        // The host counts a custom-byte operand's last dimension in bytes;
        // the runtime wants elements.
        dims[count - 1] /= operand.elementSize;
    }
    if (dims[0] == 0) dims[0] = mBatchSize;
}

std::vector<uint32_t> ZelModel::getOriginalDimensions(const OperandInfo& operand) {
    return getDimensions(operand, true);
}

uint32_t ZelModel::getNextNode() {
    return ++mNodeId;
}

uint32_t ZelModel::outputElementSize(const OperandInfo& operand) {
    return operand.type == OperandType::TENSOR_CUSTOM_BYTE ? operand.elementSize : getSize(operand.type);
}

// ---------------------------------------------------------------------------
// Constant nodes.

input ZelModel::createTensorInternal(uint32_t batches, uint32_t height, uint32_t width, uint32_t depth,
                                     const uint8_t* data, uint32_t length) {
    // The id is used up even when the runtime refuses the node.
    const uint32_t id = ++mNodeId;
    const int rc =
        mNnLib ? mNnLib->append_const_node(static_cast<int>(mGraphId), id, batches, height, width, depth, data, length)
               : -1;
    (DebugLine() << "Create const node, id: " << id).log();
    if (rc != 0) {
        ZEL_LOG_LOCATED("Failed to create tensor");
        return input{};
    }
    return input{id, 0};
}

input ZelModel::createShape(uint32_t batches, uint32_t height, uint32_t width, uint32_t depth) {
    // The runtime reads only the dims; the data is one zero word.
    const uint8_t zero[4] = {0, 0, 0, 0};
    return createTensorInternal(batches, height, width, depth, zero, sizeof(zero));
}

input ZelModel::createFloatConstant(float value) {
    uint8_t bytes[sizeof(float)];
    std::memcpy(bytes, &value, sizeof(float));
    return createTensorInternal(1, 1, 1, 1, bytes, sizeof(bytes));
}

input ZelModel::addOperand(uint32_t index) {
    if (!checkOperand(index)) return input{};
    OperandInfo& operand = mOperands[index];
    // A constant becomes exactly one node however many operations read it.
    if (isConstant(index) && operand.kestrel_input != input{}) return operand.kestrel_input;

    const std::vector<uint32_t> dimensions = getAlignedDimensions(getDimensions(operand, true), 4);
    ZEL_CHECK_NE(0ul, dimensions.size(), input{}, "Rank must be at most 4");
    operand.kestrel_input =
        createTensorInternal(dimensions[0], dimensions[1], dimensions[2], dimensions[3], operand.data, operand.length);
    ZEL_CHECK_NE(kestrel_zel_nn_input{}, operand.kestrel_input, input{}, "Failed to add operand");
    return operand.kestrel_input;
}

const input& ZelModel::getTensor(uint32_t index) {
    if (!checkOperand(index)) return kNoInput;
    OperandInfo& operand = mOperands[index];
    if (operand.kestrel_input == input{}) {
        (DebugLine() << "Input operand with index " << index
                     << " is an input operand. Creating input internal node ...")
            .log();
        operand.kestrel_input = addOperand(index);
    } else {
        (DebugLine() << "Input operand with index " << index << " is not an input operand, directly return it ...")
            .log();
    }
    return operand.kestrel_input;
}

const input& ZelModel::getQuantizationMin(uint32_t index) {
    if (!checkOperand(index)) return kNoInput;
    OperandInfo& operand = mOperands[index];
    if (operand.quantMin != input{}) return operand.quantMin;
    float base = 0.0f;
    if (operand.type == OperandType::TENSOR_INT32) {
        base = -2147483648.0f;
    } else if (operand.type == OperandType::TENSOR_QUANT8) {
        base = static_cast<float>(-static_cast<int64_t>(operand.zeroPoint));  // +0.0 for zero point 0
    }
    const float value = operand.scale * base;
    (DebugLine() << "Added quantization min node for operand: " << index).log();
    // A failed creation is stored as {0,0} and so retried next time.
    operand.quantMin = createFloatConstant(value);
    return operand.quantMin;
}

const input& ZelModel::getQuantizationMax(uint32_t index) {
    if (!checkOperand(index)) return kNoInput;
    OperandInfo& operand = mOperands[index];
    if (operand.quantMax != input{}) return operand.quantMax;
    // Other types get 2^32 against a minimum of 0: kept as it stands.
    float base = 4294967296.0f;
    if (operand.type == OperandType::TENSOR_INT32) {
        base = 2147483648.0f;
    } else if (operand.type == OperandType::TENSOR_QUANT8) {
        base = static_cast<float>(static_cast<int64_t>(255) - operand.zeroPoint);
    }
    const float value = operand.scale * base;
    (DebugLine() << "Added quantization max node for operand: " << index).log();
    operand.quantMax = createFloatConstant(value);
    return operand.quantMax;
}

bool ZelModel::transposedData(uint32_t index, uint64_t rows, uint64_t cols, const uint8_t** out) {
    const OperandInfo& operand = mOperands[index];
    const bool isFloat = getShape(index).type == OperandType::TENSOR_FP32;
    const uint64_t elementBytes = isFloat ? sizeof(float) : 1;
    const uint64_t needed = cappedProduct({rows, cols, elementBytes});
    // Transposing reads rows x cols elements and the runtime then reads
    // `length` bytes of the result: both must be exactly the data held.
    if (needed != operand.length || (needed != 0 && operand.data == nullptr)) {
        ZEL_LOG_LOCATED("Operand " << index << " holds " << operand.length << " bytes of data, but its dimensions "
                                   << "need "
                                   << (needed == kSizeCap ? std::string("more than 2^32") : std::to_string(needed)));
        return false;
    }
    *out = nullptr;
    if (needed == 0) return true;
    const uint32_t r = static_cast<uint32_t>(rows);
    const uint32_t c = static_cast<uint32_t>(cols);
    // One buffer serves every transpose of a preparation: the runtime has
    // taken its copy before the next constant is transposed, and a buffer
    // written moments ago is still in the cache.
    if (mTransposeBufferSize < needed) resizeTransposeBuffer(static_cast<size_t>(needed));
    uint8_t* buffer = mTransposeBuffer.get();
    if (isFloat) {
        // Host data may sit at any address: copy into aligned floats first.
        std::vector<float> values(static_cast<size_t>(rows * cols));
        std::memcpy(values.data(), operand.data, static_cast<size_t>(needed));
        const std::vector<float> transposed = transpose(r, c, values.data());
        std::memcpy(buffer, transposed.data(), static_cast<size_t>(needed));
    } else {
        transposeInto(r, c, operand.data, buffer);
    }
    *out = buffer;
    return true;
}

input ZelModel::createConvFilterTensor(uint32_t index) {
    if (!checkOperand(index)) return input{};
    const OperandInfo& operand = mOperands[index];
    const std::vector<uint32_t> dims = getAlignedDimensions(operand.originalDimensions, 4);
    ZEL_CHECK_NE(0ul, dims.size(), input{}, "Need at most 4 dimensions");
    handle_debug_info("NHWC --> HWCN");
    // Each output channel's filter [h, w, i] becomes one column.
    const uint8_t* transposed = nullptr;
    const uint64_t cols = cappedProduct({dims[1], dims[2], dims[3]});
    if (!transposedData(index, dims[0], cols, &transposed)) return input{};
    return createTensorInternal(dims[1], dims[2], dims[3], dims[0], transposed, operand.length);
}

input ZelModel::createDepthwiseFilterTensor(uint32_t index, uint32_t depthMultiplier) {
    if (!checkOperand(index)) return input{};
    const OperandInfo& operand = mOperands[index];
    const std::vector<uint32_t> dims = getAlignedDimensions(operand.originalDimensions, 4);
    ZEL_CHECK_NE(0ul, dims.size(), input{}, "Need at most 4 dimensions");
    // Same text as the convolution filter although no byte moves.
    handle_debug_info("NHWC --> HWCN");
    const uint32_t width = depthMultiplier != 0 ? dims[3] / depthMultiplier : 0;
    return createTensorInternal(dims[1], dims[2], width, depthMultiplier * dims[0], operand.data, operand.length);
}

input ZelModel::createFullyConnectedWeightTensor(uint32_t index) {
    if (!checkOperand(index)) return input{};
    OperandInfo& operand = mOperands[index];
    if (isConstant(index) && operand.kestrel_input != input{}) return operand.kestrel_input;
    const std::vector<uint32_t> dims = getAlignedDimensions(operand.originalDimensions, 4);
    ZEL_CHECK_NE(0ul, dims.size(), input{}, "Need at most 4 dimensions");
    handle_debug_info("WC --> CW");
    const uint64_t rows = cappedProduct({dims[1], dims[0], dims[2]});
    const uint32_t cols = dims[3];
    const uint8_t* transposed = nullptr;
    if (!transposedData(index, rows, cols, &transposed)) return input{};
    // rows fits: rows * cols * element size equals the 32-bit length.
    const input result = createTensorInternal(1, 1, cols, static_cast<uint32_t>(rows), transposed, operand.length);
    // Only quantized weights are remembered; a float weight gets a new
    // node on every call. Kept as is.
    if (operand.type != OperandType::TENSOR_FP32) operand.kestrel_input = result;
    return result;
}

input ZelModel::createQuantizationValue(uint32_t index, int32_t value) {
    if (!checkOperand(index)) return input{};
    const OperandInfo& operand = mOperands[index];
    (DebugLine() << "Create quantization value, operand: " << index << ", value: " << value).log();
    // 32-bit subtraction with wrap-around, then a single-precision product:
    // the difference is taken in 64 bits and its low 32 bits kept.
    const int32_t steps = static_cast<int32_t>(static_cast<uint32_t>(static_cast<int64_t>(value) - operand.zeroPoint));
    return createFloatConstant(operand.scale * static_cast<float>(steps));
}

// ---------------------------------------------------------------------------
// Graph inputs and outputs.

std::vector<output> ZelModel::getZelOutputs(const std::vector<uint32_t>& indices) {
    std::vector<output> records;
    for (uint32_t index : indices) {
        if (!checkOperand(index)) {
            // An all-zero record: the append refuses it.
            records.push_back(output{});
            continue;
        }
        const OperandInfo& operand = mOperands[index];
        records.push_back(make_kestrel_nn_output(getDimensions(operand, true), outputElementSize(operand)));
        if (isThreeSlot(operand.type)) {
            records.push_back(rangeRecord());
            records.push_back(rangeRecord());
        }
    }
    return records;
}

bool ZelModel::registerZelInputs(const std::vector<uint32_t>& indices, uint32_t node) {
    handle_debug_info("In ZelModel::registerZelInputs()");
    handle_debug_info("Updating output nodes' src ids ...");
    uint32_t slot = 0;
    for (uint32_t index : indices) {
        if (!checkOperand(index)) return false;
        OperandInfo& operand = mOperands[index];
        ZEL_CHECK_EQ(operand.kestrel_input, kestrel_zel_nn_input{}, false,
                     "Error: operation output has already been registered");
        operand.kestrel_input = input{node, slot};
        if (isThreeSlot(operand.type)) {
            operand.quantMin = input{node, slot + 1};
            operand.quantMax = input{node, slot + 2};
            slot += 3;
        } else {
            slot += 1;
        }
    }
    handle_debug_info("Out ZelModel::registerZelInputs()");
    return true;
}

bool ZelModel::addInputs() {
    handle_debug_info("In ZelModel::addInputs()");
    handle_debug_info("Input node size: " + std::to_string(mInputs.size()));
    std::vector<output> outputs;
    for (uint32_t index : mInputs) {
        (DebugLine() << "Operand index: " << index).log();
        if (!checkOperand(index)) return false;
        const OperandInfo& operand = mOperands[index];
        // One slot per graph input whatever its type: its range is made
        // on demand as constants of its declared scale and zero point.
        outputs.push_back(make_kestrel_nn_output(getDimensions(operand, true), outputElementSize(operand)));
    }
    const uint32_t node = addOperationInternal(ZEL_OP_INPUT, 0, {}, outputs);
    ZEL_CHECK_NE(0, node, false, "Error adding input operation");
    for (uint32_t position = 0; position < mInputs.size(); ++position) {
        mOperands[mInputs[position]].kestrel_input = input{node, position};
    }
    handle_debug_info("Out ZelModel::addInputs()");
    return true;
}

bool ZelModel::addOutputs() {
    handle_debug_info("In ZelModel::addOutputs()");
    handle_debug_info("Output operand size: " + std::to_string(mOutputs.size()));
    std::vector<input> inputs;
    for (uint32_t index : mOutputs) {
        (DebugLine() << "Operand id: " << index).log();
        if (!checkOperand(index)) return false;
        OperandInfo& operand = mOperands[index];
        ZEL_CHECK_NE(operand.kestrel_input, kestrel_zel_nn_input{}, false, "output operand has not been registered");
        if (operand.type == OperandType::TENSOR_QUANT8 && operand.dequantizeOutput) {
            // The runtime's range for the value may differ from the declared
            // one: go through float and back into the declared range.
            handle_debug_info("Dequantizing operand ...");
            const std::vector<uint32_t> dims = getDimensions(operand, true);
            const uint32_t dequantized =
                addOperationInternal(ZEL_OP_Dequantize, 0, {operand.kestrel_input, operand.quantMin, operand.quantMax},
                                     {make_kestrel_nn_output(dims, 4)});
            handle_debug_info("Requantizing to a fixed range ...");
            handle_debug_info("Create quantization min / max node for adjusting range ...");
            const input lo = createQuantizationValue(index, 0);
            const input hi = createQuantizationValue(index, 255);
            const uint32_t quantized =
                addOperationInternal(ZEL_OP_Quantize, 0, {input{dequantized, 0}, lo, hi},
                                     {make_kestrel_nn_output(dims, 1), rangeRecord(), rangeRecord()});
            // A refused node shows as {0,0} here and fails the output node.
            inputs.push_back(input{quantized, 0});
        } else {
            handle_debug_info("Directly use this operand as OUTPUT node's input, no adjust range ...");
            inputs.push_back(operand.kestrel_input);
        }
    }
    if (!addBasicOperation(ZEL_OP_OUTPUT, 0, inputs, {})) {
        handle_error_info("Error adding output operation");
        return false;
    }
    handle_debug_info("Out ZelModel::addOutputs()");
    return true;
}

// ---------------------------------------------------------------------------
// Node construction.

bool ZelModel::verifyOperationInputs(const std::vector<input>& inputs) {
    return std::none_of(inputs.begin(), inputs.end(), [](const input& in) { return in == input{}; });
}

bool ZelModel::verifyOperationOutputs(const std::vector<output>& outputs) {
    return std::none_of(outputs.begin(), outputs.end(), [](const output& out) { return out == output{}; });
}

uint32_t ZelModel::addOperationInternal(zel_op_type_enum op, int32_t padding, const std::vector<input>& inputs,
                                        const std::vector<output>& outputs) {
    if (!verifyOperationInputs(inputs)) {
        ZEL_LOG_LOCATED("error adding operation: one or more inputs is invalid");
        return 0;
    }
    if (!verifyOperationOutputs(outputs)) {
        ZEL_LOG_LOCATED("error adding operation: one or more outputs is invalid");
        return 0;
    }
    // The id is used up before the runtime sees it, refused or not.
    const uint32_t id = ++mNodeId;
    const int rc = mNnLib ? mNnLib->append_node(static_cast<int>(mGraphId), id, op, padding, inputs.data(),
                                                static_cast<unsigned int>(inputs.size()), outputs.data(),
                                                static_cast<unsigned int>(outputs.size()))
                          : -1;
    (DebugLine() << "Appended internal node, operation type: " << toString(op) << ", node id: " << (rc == 0 ? id : 0))
        .log();
    return rc == 0 ? id : 0;
}

bool ZelModel::addBasicOperation(zel_op_type_enum op, int32_t padding, const std::vector<input>& inputs,
                                 const std::vector<uint32_t>& outs) {
    const std::vector<output> outputs = getZelOutputs(outs);
    handle_debug_info("Creating base operation node ...");
    const uint32_t node = addOperationInternal(op, padding, inputs, outputs);
    ZEL_CHECK_NE(0, node, false, "Error adding base operation");
    return registerZelInputs(outs, node);
}

std::vector<input> ZelModel::setupActivationArgs(zel_op_type_enum activation) {
    switch (activation) {
        case ZEL_OP_Nop:
        case ZEL_OP_QuantizedRelu_8:
        case ZEL_OP_FloatRelu: return {};
        case ZEL_OP_QuantizedReluX_8:
        case ZEL_OP_FloatReluX: return {createFloatConstant(6.0f)};
        case ZEL_OP_QuantizedClamp_8:
        case ZEL_OP_FloatClamp: {
            const input lo = createFloatConstant(-1.0f);
            const input hi = createFloatConstant(1.0f);
            return {lo, hi};
        }
        default:
            handle_error_info("Unknown activation symbol " + std::to_string(static_cast<int>(activation)));
            return {};
    }
}

bool ZelModel::addFusedQuant8Operation(zel_op_type_enum baseOp, int32_t padding, const std::vector<input>& baseInputs,
                                       zel_op_type_enum activation, const std::vector<input>& biasInputs,
                                       const std::vector<uint32_t>& outputs) {
    ZEL_CHECK_EQ(1, outputs.size(), false, "addFusedQuant8Operation requires 1 output");
    if (!biasInputs.empty()) {
        ZEL_CHECK_EQ(3, biasInputs.size(), false, "addFusedQuant8Operation needs bias value, minimum and maximum");
    }
    const uint32_t index = outputs[0];
    if (!checkOperand(index)) return false;
    const std::vector<uint32_t> dims = getDimensions(mOperands[index], true);
    const output wide = make_kestrel_nn_output(dims, 4);
    const output range = rangeRecord();
    const output narrow = make_kestrel_nn_output(dims, 1);

    //   base [acc, min, max]
    //     -> bias add [acc, min, max]          (when a bias is given)
    //     -> requantize [u8, min, max]         (to the host's declared range)
    //     -> activation [u8, min, max]         (unless ZEL_OP_Nop)
    handle_debug_info("Creating base operation node ...");
    uint32_t node = addOperationInternal(baseOp, padding, baseInputs, {wide, range, range});
    ZEL_CHECK_NE(0, node, false, "Error adding base operation");

    if (!biasInputs.empty()) {
        const uint32_t base = node;
        handle_debug_info("Creating bias operation node ...");
        node = addOperationInternal(
            ZEL_OP_QuantizedBiasAdd_32p32to32, 0,
            {input{base, 0}, biasInputs[0], input{base, 1}, input{base, 2}, biasInputs[1], biasInputs[2]},
            {wide, range, range});
        ZEL_CHECK_NE(0, node, false, "Error adding bias operation");
    }

    handle_debug_info("Creating quantization min / max node for output.");
    const input lo = getQuantizationMin(index);
    const input hi = getQuantizationMax(index);

    const uint32_t accumulated = node;
    handle_debug_info("Creating requantization node ...");
    node = addOperationInternal(ZEL_OP_Requantize_32to8, 0,
                                {input{accumulated, 0}, input{accumulated, 1}, input{accumulated, 2}, lo, hi},
                                {narrow, range, range});
    ZEL_CHECK_NE(0, node, false, "Error adding requantize operation");

    if (activation != ZEL_OP_Nop) {
        const uint32_t requantized = node;
        handle_debug_info("Creating activation node ...");
        std::vector<input> inputs = {input{requantized, 0}, input{requantized, 1}, input{requantized, 2}};
        appendAll(&inputs, setupActivationArgs(activation));
        node = addOperationInternal(activation, 0, inputs, {narrow, range, range});
        ZEL_CHECK_NE(0, node, false, "Error adding activation operation");
    }
    return registerZelInputs(outputs, node);
}

bool ZelModel::addQuant8OperationWithActivation(zel_op_type_enum op, int32_t padding, zel_op_type_enum activation,
                                                const std::vector<input>& inputs, const std::vector<uint32_t>& outs) {
    const std::vector<output> records = getZelOutputs(outs);
    handle_debug_info("Creating base operation node ...");
    uint32_t node = addOperationInternal(op, padding, inputs, records);
    ZEL_CHECK_NE(0, node, false, "Error adding base operation");
    if (activation != ZEL_OP_Nop) {
        const uint32_t base = node;
        std::vector<input> activationInputs = {input{base, 0}, input{base, 1}, input{base, 2}};
        appendAll(&activationInputs, setupActivationArgs(activation));
        handle_debug_info("Creating activation node ...");
        node = addOperationInternal(activation, 0, activationInputs, records);
        ZEL_CHECK_NE(0, node, false, "Error adding activation operation");
    }
    return registerZelInputs(outs, node);
}

bool ZelModel::addFloatOperationWithActivation(zel_op_type_enum op, int32_t padding, zel_op_type_enum activation,
                                               const std::vector<input>& inputs, const std::vector<uint32_t>& outs) {
    const std::vector<output> records = getZelOutputs(outs);
    // The activation's constants come before the base node.
    const std::vector<input> args = setupActivationArgs(activation);
    handle_debug_info("Creating base operation node ...");
    uint32_t node = addOperationInternal(op, padding, inputs, records);
    ZEL_CHECK_NE(0, node, false, "Error adding base operation");
    if (activation != ZEL_OP_Nop) {
        const uint32_t base = node;
        std::vector<input> activationInputs = {input{base, 0}};
        appendAll(&activationInputs, args);
        handle_debug_info("Creating activation node ...");
        node = addOperationInternal(activation, 0, activationInputs, records);
        ZEL_CHECK_NE(0, node, false, "Error adding activation operation");
    }
    return registerZelInputs(outs, node);
}

bool ZelModel::addFusedFloatOperation(zel_op_type_enum baseOp, int32_t padding, const input& bias,
                                      zel_op_type_enum activation, const std::vector<input>& inputs,
                                      const std::vector<uint32_t>& outputs) {
    ZEL_CHECK_EQ(1, outputs.size(), false, "addFusedFloatOperation requires 1 output");
    const uint32_t index = outputs[0];
    if (!checkOperand(index)) return false;
    const output record = make_kestrel_nn_output(getDimensions(mOperands[index], true), 4);

    handle_debug_info("Creating base operation node ...");
    uint32_t node = addOperationInternal(baseOp, padding, inputs, {record});
    ZEL_CHECK_NE(0, node, false, "Error adding base operation");

    if (bias != input{}) {
        const uint32_t base = node;
        handle_debug_info("Creating bias operation node ...");
        node = addOperationInternal(ZEL_OP_FloatBiasAdd, 0, {input{base, 0}, bias}, {record});
        ZEL_CHECK_NE(0, node, false, "Error adding bias operation");
    }

    if (activation != ZEL_OP_Nop) {
        const uint32_t previous = node;
        std::vector<input> activationInputs = {input{previous, 0}};
        appendAll(&activationInputs, setupActivationArgs(activation));
        handle_debug_info("Creating activation node ...");
        node = addOperationInternal(activation, 0, activationInputs, {record});
        ZEL_CHECK_NE(0, node, false, "Error adding activation operation");
    }
    return registerZelInputs(outputs, node);
}

bool ZelModel::addSplitOperation(const std::vector<input>& inputs, const std::vector<uint32_t>& outs) {
    // Refused before anything is appended.
    for (uint32_t index : outs) {
        if (!checkOperand(index)) return false;
        const OperandInfo& operand = mOperands[index];
        ZEL_CHECK_EQ(operand.kestrel_input, kestrel_zel_nn_input{}, false,
                     "Error: operation output has already been registered");
    }
    const std::vector<output> records = getZelOutputs(outs);
    handle_debug_info("Creating split operation node ...");
    const uint32_t node = addOperationInternal(ZEL_OP_QuantizedSplit_8, 0, inputs, records);
    ZEL_CHECK_NE(0, node, false, "Error adding ZEL_OP_QuantizedSplit_8 operation");
    return registerZelInputs(outs, node);
}

// ---------------------------------------------------------------------------
// Build, prepare, execute.

ZelModel* ZelModel::create(IGraph* graph) {
    try {
        handle_debug_info("In ZelModel::create(IGraph * graph)");
        std::unique_ptr<ZelModel> model(new ZelModel());
        if (!model->initModel(graph)) return nullptr;
        handle_debug_info("Out ZelModel::create(IGraph * graph)");
        return model.release();
    } catch (const std::exception& e) {
        ZEL_LOG_LOCATED("Could not build the model: " << e.what());
    } catch (...) {
        ZEL_LOG_LOCATED("Could not build the model");
    }
    return nullptr;
}

bool ZelModel::initModel(IGraph* graph) {
    handle_debug_info("In ZelModel::initModel(IGraph * graph)");
    if (graph == nullptr) {
        handle_debug_info("Out ZelModel::initModel(IGraph * graph)");
        return false;
    }

    std::vector<IBuffer*> buffers;
    const uint32_t bufferCount = graph->getBufferCount();
    for (uint32_t i = 0; i < bufferCount; ++i) {
        const BufferResult result = graph->getBuffer(i);
        if (result.status != Status::SUCCESS) {
            ZEL_LOG_LOCATED("Failed to get IBuffer " << i);
            return false;
        }
        buffers.push_back(result.buffer);
    }

    std::vector<IOperation*> operations;
    const uint32_t operationCount = graph->getOperationCount();
    for (uint32_t i = 0; i < operationCount; ++i) {
        IOperation* operation = graph->getOperation(i);
        if (operation == nullptr) {
            ZEL_LOG_LOCATED("Failed to get operation " << i);
            return false;
        }
        operations.push_back(operation);
    }

    std::vector<uint32_t> inputs;
    const uint32_t inputCount = graph->getInputCount();
    for (uint32_t i = 0; i < inputCount; ++i) inputs.push_back(graph->getInput(i));
    std::vector<uint32_t> outputs;
    const uint32_t outputCount = graph->getOutputCount();
    for (uint32_t i = 0; i < outputCount; ++i) outputs.push_back(graph->getOutput(i));

    mBuffers = std::move(buffers);
    mOperations = std::move(operations);
    mInputs = std::move(inputs);
    mOutputs = std::move(outputs);

    const uint32_t operandCount = graph->getOperandCount();
    mOperands.assign(operandCount, OperandInfo());
    for (uint32_t i = 0; i < operandCount; ++i) {
        const IOperand* hostOperand = graph->getOperand(i);
        if (hostOperand == nullptr) {
            ZEL_LOG_LOCATED("Failed to get operand " << i);
            return false;
        }
        OperandInfo& info = mOperands[i];
        info.type = hostOperand->getType();
        const uint32_t rank = hostOperand->getDimensionCount();
        info.dimensions.resize(rank);
        info.originalDimensions.resize(rank);
        for (uint32_t d = 0; d < rank; ++d) {
            info.dimensions[d] = hostOperand->getDimension(d);
            info.originalDimensions[d] = hostOperand->getOriginalDimension(d);
        }
        const QuantParamsResult quantization = hostOperand->getQuantizationParams();
        if (quantization.status == Status::SUCCESS) {
            info.scale = quantization.params.getScale();
            info.zeroPoint = quantization.params.getZeroPoint();
        }
        const DataResult data = hostOperand->getData();
        if (data.status == Status::SUCCESS) {
            info.data = data.data;
            info.length = data.length;
        }
        info.elementSize = getSize(info.type);
        info.dequantizeOutput = true;
    }

    // Every index the model will follow must name an operand.
    const auto outside = [operandCount](uint32_t index) { return index >= operandCount; };
    for (uint32_t i = 0; i < mOperations.size(); ++i) {
        IOperation* operation = mOperations[i];
        const uint32_t numInputs = operation->getNumInputs();
        for (uint32_t j = 0; j < numInputs; ++j) {
            const uint32_t index = operation->getInput(j);
            if (outside(index)) {
                ZEL_LOG_LOCATED("Operation " << i << " input " << j << " refers to operand " << index
                                             << " outside the graph (" << operandCount << " operands)");
                return false;
            }
        }
        const uint32_t numOutputs = operation->getNumOutputs();
        for (uint32_t j = 0; j < numOutputs; ++j) {
            const uint32_t index = operation->getOutput(j);
            if (outside(index)) {
                ZEL_LOG_LOCATED("Operation " << i << " output " << j << " refers to operand " << index
                                             << " outside the graph (" << operandCount << " operands)");
                return false;
            }
        }
    }
    for (uint32_t p = 0; p < mInputs.size(); ++p) {
        if (outside(mInputs[p])) {
            ZEL_LOG_LOCATED("Graph input " << p << " refers to operand " << mInputs[p] << " outside the graph ("
                                           << operandCount << " operands)");
            return false;
        }
    }
    for (uint32_t p = 0; p < mOutputs.size(); ++p) {
        if (outside(mOutputs[p])) {
            ZEL_LOG_LOCATED("Graph output " << p << " refers to operand " << mOutputs[p] << " outside the graph ("
                                            << operandCount << " operands)");
            return false;
        }
    }

    handle_debug_info("mBuffers size: " + std::to_string(mBuffers.size()));
    handle_debug_info("mOperations size: " + std::to_string(mOperations.size()));
    handle_debug_info("mInputs size: " + std::to_string(mInputs.size()));
    handle_debug_info("mOutputs size: " + std::to_string(mOutputs.size()));
    handle_debug_info("mOperands size: " + std::to_string(mOperands.size()));
    // A fixed text, printed on every build.
    handle_debug_info("Out ZelModel::ZelModel(IGraph *graph, bool ops_check_only)");
    handle_debug_info("Out ZelModel::initModel(IGraph * graph)");
    return true;
}

bool ZelModel::prepare(ExecutionPerformance /*performance*/) {
    bool votedUp = false;
    try {
        handle_debug_info("In ZelModel::prepare()");
        if (mPrepared) {
            handle_debug_info("Model has already been prepared.");
            handle_debug_info("Out ZelModel::prepare()");
            return mModelPrepareErrorCode == 0;
        }

        mGraphId = 0;
        int graphId = 0;
        mModelPrepareErrorCode = mNnLib ? mNnLib->init(&graphId) : -1;
        mGraphId = static_cast<uint32_t>(graphId);
        handle_debug_info("mNnLib->init() finished, graph id: " + decimal(mGraphId) +
                          ", error code: " + std::to_string(mModelPrepareErrorCode));
        // These early failures neither vote nor clear: a graph id obtained
        // here is torn down by the destructor.
        ZEL_CHECK_EQ(0, mModelPrepareErrorCode, false, "Zel could not allocate new graph");
        ZEL_CHECK_NE(0, mGraphId, false, "Zel could not allocate new graph");

        mModelPrepareErrorCode = mNnLib->set_config_params(static_cast<int>(mGraphId), ZEL_NN_CONFIG_DEFAULT, nullptr);
        ZEL_CHECK_EQ(0, mModelPrepareErrorCode, false, "mNnLib->set_config_params() failed");

        mModelPrepareErrorCode = mNnLib->set_debug_level(static_cast<int>(mGraphId), 0);
        handle_debug_info("mNnLib->set_debug_level() finished, error code: " + std::to_string(mModelPrepareErrorCode));
        ZEL_CHECK_EQ(0, mModelPrepareErrorCode, false, "mNnLib->set_debug_level() failed");

        // Keep the accelerator powered while nodes are appended.
        mNnLib->asyncVote(mVotingToken, VotingThread::UP);
        votedUp = true;

        bool built = false;
        try {
            reserveTransposeBuffer();
            built = operationPreProcess();
            if (built) {
                addBatchSeqConfig();  // configures nothing; its answer is not looked at
                built = addInputs() && addOperations() && addOutputs();
            }
        } catch (const std::exception& e) {
            ZEL_LOG_LOCATED("Appending nodes failed: " << e.what());
            built = false;
        }
        resizeTransposeBuffer(0);

        if (built) {
            handle_debug_info("Finished append nodes.");
            mModelPrepareErrorCode = mNnLib->prepare(static_cast<int>(mGraphId));
            votedUp = false;
            mNnLib->asyncVote(mVotingToken, VotingThread::DOWN);
            handle_debug_info("mNnLib->prepare() finished, error code: " + std::to_string(mModelPrepareErrorCode));
            handle_debug_info("Out ZelModel::prepare()");
            return mModelPrepareErrorCode == 0;
        }

        votedUp = false;
        mNnLib->asyncVote(mVotingToken, VotingThread::DOWN);
        clearModel();
        handle_error_info("Something went wrong. Clearing the model and aborting.");
        handle_error_info("Out ZelModel::prepare()");
        return false;
    } catch (const std::exception& e) {
        ZEL_LOG_LOCATED("prepare failed: " << e.what());
    } catch (...) {
        ZEL_LOG_LOCATED("prepare failed");
    }
    try {
        if (votedUp && mNnLib) mNnLib->asyncVote(mVotingToken, VotingThread::DOWN);
    } catch (...) {
    }
    return false;
}

void ZelModel::reserveTransposeBuffer() {
    // Convolution filters and fully connected weights (input 1) are the
    // operands the lowering transposes.
    size_t largest = 0;
    for (IOperation* operation : mOperations) {
        const OperationType type = operation->getType();
        if (type != OperationType::CONV_2D && type != OperationType::FULLY_CONNECTED) continue;
        if (operation->getNumInputs() < 2) continue;
        const uint32_t index = operation->getInput(1);
        if (index < mOperands.size()) largest = std::max<size_t>(largest, mOperands[index].length);
    }
    resizeTransposeBuffer(largest);
}

namespace {
// Buffers from this size up are aligned to a huge page (2 MiB) and the
// kernel is asked to back them with huge pages: written for the first time,
// a fresh 100 MB buffer otherwise takes one page fault per 4 KiB.
constexpr size_t kHugePage = size_t{2} << 20;
constexpr size_t kHugeBufferBytes = 2 * kHugePage;
}  // namespace

void ZelModel::TransposeBufferDelete::operator()(uint8_t* buffer) const {
    if (huge) {
        ::operator delete[](buffer, std::align_val_t{kHugePage});
    } else {
        delete[] buffer;
    }
}

void ZelModel::resizeTransposeBuffer(size_t bytes) {
    mTransposeBuffer.reset();
    mTransposeBufferSize = 0;
    if (bytes == 0) return;
    // Left uninitialised: each transpose writes every byte it hands on.
    if (bytes < kHugeBufferBytes) {
        mTransposeBuffer =
            std::unique_ptr<uint8_t[], TransposeBufferDelete>(new uint8_t[bytes], TransposeBufferDelete{false});
    } else {
        uint8_t* buffer = static_cast<uint8_t*>(::operator new[](bytes, std::align_val_t{kHugePage}));
        mTransposeBuffer = std::unique_ptr<uint8_t[], TransposeBufferDelete>(buffer, TransposeBufferDelete{true});
        // Only a hint: without huge pages the buffer works the same.
        madvise(buffer, bytes, MADV_HUGEPAGE);
    }
    mTransposeBufferSize = bytes;
}

bool ZelModel::operationPreProcess() {
    handle_debug_info("In ZelModel::operationPreProcess()");
    for (IOperation* operation : mOperations) {
        if (operation->getType() != OperationType::OEM_LSTM) continue;
        handle_debug_info("Do preprocessing for LSTM operation.");
        ZEL_CHECK_EQ(6, operation->getNumInputs(), false, "OEM LSTM op requires 6 inputs");
        const uint32_t cell = operation->getInput(5);
        if (!checkOperand(cell)) return false;
        if (mOperands[cell].type != OperandType::TENSOR_CUSTOM_BYTE) {
            ZEL_LOG_LOCATED("OEM LSTM op input 5 must be in type TENSOR_CUSTOM_BYTE");
            return false;
        }
        mOperands[cell].elementSize = 2;
        ZEL_CHECK_EQ(4, operation->getNumOutputs(), false, "OEM LSTM op requires 4 outputs");
        for (uint32_t position : {1u, 3u}) {
            const uint32_t index = operation->getOutput(position);
            if (!checkOperand(index)) return false;
            if (mOperands[index].type != OperandType::TENSOR_CUSTOM_BYTE) {
                ZEL_LOG_LOCATED("OEM LSTM op output " << position << " must be in type TENSOR_CUSTOM_BYTE");
                return false;
            }
            mOperands[index].elementSize = 2;
        }
    }
    handle_debug_info("Out ZelModel::operationPreProcess()");
    return true;
}

bool ZelModel::addBatchSeqConfig() {
    handle_debug_info("In ZelModel::addBatchSeqConfig()");
    handle_debug_info("Out ZelModel::addBatchSeqConfig()");
    return true;
}

bool ZelModel::addOperations() {
    handle_debug_info("In ZelModel::addOperations()");
    const OperationPrepareTable& table = getOperationPrepareTable();
    for (uint32_t i = 0; i < mOperations.size(); ++i) {
        IOperation* operation = mOperations[i];
        const OperationType opType = operation->getType();
        if (operation->getNumInputs() == 0) {
            ZEL_LOG_LOCATED("Operation " << i << " has no inputs");
            return false;
        }
        OperandType operandType = mOperands[operation->getInput(0)].type;
        handle_debug_info("operationType: " + toString(opType));
        handle_debug_info("operandType: " + toString(operandType));
        if (opType == OperationType::OEM_LSTM || opType == OperationType::OEM_SPLIT) {
            // Input 0 of the vendor operations is not their data operand.
            ZEL_CHECK_GE(operation->getNumInputs(), 2, false, "Need at least 2 inputs for OEM op");
            operandType = mOperands[operation->getInput(1)].type;
        }

        const auto entry = table.find({opType, operandType});
        if (entry == table.end()) {
            handle_error_info("Operation not found");
            return false;
        }

        std::vector<uint32_t> ins;
        const uint32_t numInputs = operation->getNumInputs();
        (DebugLine() << "Operation input size: " << numInputs).log();
        for (uint32_t j = 0; j < numInputs; ++j) {
            ins.push_back(operation->getInput(j));
            (DebugLine() << "Get input operand: " << ins.back()).log();
        }
        std::vector<uint32_t> outs;
        const uint32_t numOutputs = operation->getNumOutputs();
        (DebugLine() << "Operation output size: " << numOutputs).log();
        for (uint32_t j = 0; j < numOutputs; ++j) {
            outs.push_back(operation->getOutput(j));
            (DebugLine() << "Get output operand: " << outs.back()).log();
        }

        if (!validOperands(ins, "Input") || !validOperands(outs, "Output") || !scalarsHaveData(ins)) return false;
        if (!entry->second(ins, outs, this)) {
            handle_error_info("error adding operation");
            return false;
        }
    }
    handle_debug_info("Out ZelModel::addOperations()");
    return true;
}

kestrel_zel_nn_tensordef ZelModel::convertToTensordef(const OperandInfo& info) {
    kestrel_zel_nn_tensordef def{};
    const std::vector<uint32_t>& current = info.dimensions;
    if (current.size() > 4) {
        // Alignment refuses it with its error line; the record stays zero.
        getAlignedDimensions(current, 4);
        return def;
    }
    // getDimensions aligned to four, built in place: every execution
    // converts each input and output, and allocates nothing for it.
    uint32_t dims[4] = {1, 1, 1, 1};
    uint32_t* const own = dims + (4 - current.size());
    std::copy(current.begin(), current.end(), own);
    adjustDimensions(info, own, current.size());
    def.batches = dims[0];
    def.height = dims[1];
    def.width = dims[2];
    def.depth = dims[3];
    // The runtime writes outputs through this pointer; the host's buffer
    // is writable even though the interface hands it out as const.
    def.data = const_cast<unsigned char*>(info.data);
    def.dataLen = static_cast<int32_t>(info.length);
    def.data_valid_len = info.length;
    def.unused = 0;
    return def;
}

bool ZelModel::execute(IGraph* graph) {
    bool votedUp = false;
    int result = -1;
    try {
        if (mNnLib) {
            mNnLib->asyncVote(mVotingToken, VotingThread::UP);
            votedUp = true;
        }
        handle_debug_info("In ZelModel::execute(IGraph* graph)");
        // The records of the host's current buffers. The lists and the
        // updated operand are the model's, kept from one execution to the
        // next, so that an execution allocates nothing.
        const auto collect = [&](const std::vector<uint32_t>& indices, std::vector<kestrel_zel_nn_tensordef>* defs) {
            defs->clear();
            for (uint32_t index : indices) {
                IOperand* operand = graph->getOperand(index);
                if (operand == nullptr || index >= mOperands.size()) {
                    ZEL_LOG_LOCATED("Graph operand " << index << " is missing");
                    return false;
                }
                getUpdatedOperand(operand, mOperands[index], &mExecutionOperand);
                if (mExecutionOperand.dimensions.size() > 4) {
                    ZEL_LOG_LOCATED("Operand " << index << " has more than 4 dimensions and cannot be executed");
                    return false;
                }
                defs->push_back(convertToTensordef(mExecutionOperand));
            }
            return true;
        };
        if (graph == nullptr) {
            ZEL_LOG_LOCATED("No graph to execute");
        } else if (collect(mInputs, &mExecutionInputs) && collect(mOutputs, &mExecutionOutputs)) {
            // The runtime writes the results straight into the host's
            // output buffers.
            result = mNnLib ? mNnLib->execute_new(static_cast<int>(mGraphId), mExecutionInputs.data(),
                                                  static_cast<unsigned int>(mExecutionInputs.size()),
                                                  mExecutionOutputs.data(),
                                                  static_cast<unsigned int>(mExecutionOutputs.size()))
                            : -1;
        }
        handle_debug_info(std::string("ZelModel::execute was ") + (result == 0 ? "SUCCESSFUL" : "UNSUCCESSFUL"));
        handle_debug_info("Out ZelModel::execute(IGraph* graph)");
    } catch (const std::exception& e) {
        ZEL_LOG_LOCATED("execute failed: " << e.what());
        result = -1;
    } catch (...) {
        ZEL_LOG_LOCATED("execute failed");
        result = -1;
    }
    try {
        if (votedUp) mNnLib->asyncVote(mVotingToken, VotingThread::DOWN);
    } catch (...) {
    }
    return result == 0;
}

std::string ZelModel::getLog() {
    std::vector<unsigned char> buffer(kDumpLength, 0);
    const int err = mNnLib ? mNnLib->getlog(static_cast<int>(mGraphId), buffer.data(), kDumpLength) : -1;
    ZEL_CHECK_EQ(0, err, std::string(), "failed getLog");
    const auto end = std::find(buffer.begin(), buffer.end(), 0);
    return std::string(buffer.begin(), end);
}

std::string ZelModel::getGraph() {
    std::vector<unsigned char> buffer(kDumpLength, 0);
    const int err = mNnLib ? mNnLib->snpprint(static_cast<int>(mGraphId), buffer.data(), kDumpLength) : -1;
    ZEL_CHECK_EQ(0, err, std::string(), "failed getGraph");
    const auto end = std::find(buffer.begin(), buffer.end(), 0);
    return std::string(buffer.begin(), end);
}

}  // namespace zel
}  // namespace nnhal
}  // namespace arv

// ---------------------------------------------------------------------------
// Record equality.

bool operator==(const kestrel_zel_nn_input& a, const kestrel_zel_nn_input& b) {
    return a.src_id == b.src_id && a.output_idx == b.output_idx;
}

bool operator!=(const kestrel_zel_nn_input& a, const kestrel_zel_nn_input& b) {
    return !(a == b);
}

bool operator==(const kestrel_zel_nn_output& a, const kestrel_zel_nn_output& b) {
    if (a.rank != b.rank || a.elementsize != b.elementsize || a.zero_offset != b.zero_offset ||
        a.stepsize != b.stepsize) {
        return false;
    }
    for (int i = 0; i < 8; ++i) {
        if (a.max_sizes[i] != b.max_sizes[i]) return false;
    }
    return true;
}

bool operator!=(const kestrel_zel_nn_output& a, const kestrel_zel_nn_output& b) {
    return !(a == b);
}
