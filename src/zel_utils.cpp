// Diagnostics (logging and the text renderings of the host enumerations and
// the runtime records), element sizes and dimension alignment, shape records
// and output-shape inference, and the padding, activation and fixed-point
// arithmetic the lowering hands to the runtime.
//
// Every shape rule is an NN_CHECK whose text is the condition as written
// here, so local names are chosen to make the logged text read as the rule.
// Nothing in this file may trap or overflow on a malformed graph: sizes are
// unsigned (wrapping), products that must not wrap are taken in 64 bits,
// divisions by a zero stride or block give 0 or are refused first, and
// pointers are checked before they are read.
#include "zel_utils.h"

#include <android/log.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>

#include "zel_accelerator.h"
#include "zel_operation_names.h"

void handle_debug_info(const std::string& msg) {
    __android_log_print(ANDROID_LOG_DEBUG, kZelLogTag, "%s", msg.c_str());
}

void handle_debug_info(const char* msg) {
    __android_log_print(ANDROID_LOG_DEBUG, kZelLogTag, "%s", msg);
}

void handle_error_info(const std::string& msg) {
    __android_log_print(ANDROID_LOG_ERROR, kZelLogTag, "%s", msg.c_str());
}

std::ostream& operator<<(std::ostream& os, const kestrel_zel_nn_input& in) {
    return os << arv::nnhal::zel::toString(in);
}

std::ostream& operator<<(std::ostream& os, const kestrel_zel_nn_output& out) {
    return os << arv::nnhal::zel::toString(out);
}

namespace arv {
namespace nnhal {
namespace zel {

namespace {

struct NamedValue {
    int32_t value;
    const char* name;
};

constexpr NamedValue kOperandNames[] = {
    {0, "SCALAR_FP32"},   {1, "SCALAR_INT32"}, {2, "SCALAR_UNSIGNED_INT32"},  {3, "TENSOR_FP32"}, {4, "TENSOR_INT32"},
    {5, "TENSOR_QUANT8"}, {10000, "CUSTOM"},   {10001, "TENSOR_CUSTOM_BYTE"},
};

// Only the runtime operations the plug-in emits have a name; the others
// print as their number.
constexpr NamedValue kZelOpNames[] = {
    {0, "ZEL_OP_INPUT"},
    {1, "ZEL_OP_OUTPUT"},
    {2, "ZEL_OP_Nop"},
    {15, "ZEL_OP_QuantizedConv2d_8x8to32"},
    {17, "ZEL_OP_QuantizedMatMul_8x8to32"},
    {21, "ZEL_OP_QuantizedRelu_8"},
    {23, "ZEL_OP_QuantizedReluX_8"},
    {25, "ZEL_OP_QuantizedMaxPool_8"},
    {27, "ZEL_OP_QuantizedAvgPool_8"},
    {31, "ZEL_OP_QuantizedConcat_8"},
    {39, "ZEL_OP_Quantize"},
    {41, "ZEL_OP_Dequantize"},
    {60, "ZEL_OP_QuantizedReshape"},
    {70, "ZEL_OP_Requantize_32to8"},
    {113, "ZEL_OP_QuantizedAdd_8p8to32"},
    {156, "ZEL_OP_QuantizedDepthwiseConv2d_8x8to32"},
    {167, "ZEL_OP_QuantizedClamp_8"},
    {176, "ZEL_OP_QuantizedBiasAdd_32p32to32"},
};

// Indexed by the padding value.
constexpr const char* kPaddingNames[] = {
    "NN_PAD_NA", "NN_PAD_SAME", "NN_PAD_VALID", "NN_PAD_MIRROR_REFLECT", "NN_PAD_MIRROR_SYMMETRIC", "NN_PAD_SAME_CAFFE",
};

template <size_t N>
const char* findName(const NamedValue (&table)[N], int32_t value) {
    for (const NamedValue& entry : table) {
        if (entry.value == value) return entry.name;
    }
    return nullptr;
}

}  // namespace

std::string toString(OperationType type) {
    const char* name = findOperationName(static_cast<int32_t>(type));
    return name != nullptr ? name : "UNKNOWN_OPERATION_TYPE";
}

std::string toString(OperandType type) {
    const char* name = findName(kOperandNames, static_cast<int32_t>(type));
    return name != nullptr ? name : "UNKNOWN_OPERAND_TYPE";
}

// The two runtime enumerations may carry numbers outside their enumerators
// (a runtime answer, a corrupt record); their bits are read as they are.
static_assert(sizeof(zel_op_type_enum) == sizeof(int32_t), "zel_op_type_enum is one 32-bit word");
static_assert(sizeof(padding_type_enum) == sizeof(uint32_t), "padding_type_enum is one 32-bit word");

std::string toString(zel_op_type_enum op) {
    int32_t value = 0;
    std::memcpy(&value, &op, sizeof(value));
    const char* name = findName(kZelOpNames, value);
    return name != nullptr ? std::string(name) : std::to_string(value);
}

std::string toString(padding_type_enum padding) {
    uint32_t index = 0;
    std::memcpy(&index, &padding, sizeof(index));
    if (index >= sizeof(kPaddingNames) / sizeof(kPaddingNames[0])) return "<invalid kestrel_nn_padding_type>";
    return kPaddingNames[index];
}

std::string toString(unsigned int value) {
    return std::to_string(value);
}

std::string toString(int value) {
    return std::to_string(value);
}

std::string toString(float value) {
    return std::to_string(value);
}

std::string toString(const kestrel_zel_nn_input& in) {
    return "kestrel_nn_input{.src_id: " + std::to_string(in.src_id) +
           ", .output_idx: " + std::to_string(in.output_idx) + "}";
}

std::string toString(const kestrel_zel_nn_output& out) {
    // All eight sizes, whatever the rank.
    return "kestrel_nn_output{.rank: " + std::to_string(out.rank) + ", .max_sizes: " + toString(out.max_sizes, 8) +
           ", .elementsize: " + std::to_string(out.elementsize) + ", .zero_offset: " + std::to_string(out.zero_offset) +
           ", .stepsize: " + std::to_string(out.stepsize) + "}";
}

std::string toString(const kestrel_zel_nn_tensordef& def) {
    const uintptr_t address = reinterpret_cast<uintptr_t>(def.data);
    return "kestrel_nn_tensordef{.batches: " + std::to_string(def.batches) +
           ", .height: " + std::to_string(def.height) + ", .width: " + std::to_string(def.width) +
           ", .depth: " + std::to_string(def.depth) + ", .data: " + std::to_string(address) +
           ", .dataLen: " + std::to_string(def.dataLen) + ", .data_valid_len: " + std::to_string(def.data_valid_len) +
           ", .unused: " + std::to_string(def.unused) + "}";
}

std::string toString(const kestrel_zel_nn_perfinfo& info) {
    return "kestrel_nn_perfinfo{.node_id: " + std::to_string(info.node_id) +
           ", .executions: " + std::to_string(info.executions) + ", .counter_lo: " + std::to_string(info.counter_lo) +
           ", .counter_hi: " + std::to_string(info.counter_hi) + "}";
}

std::string toString(const Shape& shape) {
    const uint32_t count = static_cast<uint32_t>(shape.dimensions.size());
    return "Shape{.type: " + toString(shape.type) + ", .dimensions: " + toString(shape.dimensions.data(), count) +
           ", .scale: " + std::to_string(shape.scale) + ", .zeroPoint: " + std::to_string(shape.offset) + "}";
}

// ---------------------------------------------------------------------------

bool isZelAvailable() {
    handle_debug_info("In isZelAvailable()");
    const bool available = Controller::getInstance()->heartBeat();
    handle_debug_info("Out isZelAvailable()");
    return available;
}

}  // namespace zel
}  // namespace nnhal
}  // namespace arv

namespace arv {
namespace nnhal {
namespace zel {

namespace {

// "NN_CHECK failed: <condition>" for functions that have no bool to return.
void logFailedCondition(const char* condition) {
    std::ostringstream os;
    os << "NN_CHECK failed: " << condition;
    ::handle_error_info(os.str());
}

// Output size of a 2-D window (convolution, pooling) along one axis. The
// sizes are unsigned and wrap like the dimensions they come from; a zero
// stride gives 0.
uint32_t windowOutputSize(uint32_t in, int32_t padHead, int32_t padTail, int32_t stride, uint32_t filter) {
    const uint32_t step = static_cast<uint32_t>(stride);
    if (step == 0) return 0;
    // The 32-bit sum wraps: it is taken in 64 bits (2^32 added so that the
    // subtraction stays positive) and its low 32 bits kept.
    const uint64_t sum = uint64_t{in} + static_cast<uint32_t>(padHead) + static_cast<uint32_t>(padTail) + step +
                         (uint64_t{1} << 32) - filter;
    return static_cast<uint32_t>(sum) / step;
}

// Element counts above 2^32 cannot match any real tensor; products are
// clamped there so that they never overflow.
constexpr int64_t kElementCountCap = int64_t{1} << 32;

// Product of a running element count with one target entry. A negative
// running count marks a negative entry seen before (never a valid size).
int64_t mulElementCount(int64_t count, int64_t value) {
    if (count < 0 || value < 0) return -1;
    if (count == 0 || value == 0) return 0;
    if (count > kElementCountCap / value) return kElementCountCap;
    return count * value;
}

// Same-padding halves of one axis: out = ceil(in / stride), the window's
// overhang split with the larger half at the tail. 32-bit signed arithmetic
// that wraps (done in unsigned); a zero stride gives out = 0.
// The exact result is taken in 64 bits and its low 32 bits kept.
int32_t wrapAdd(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(static_cast<int64_t>(a) + b));
}
int32_t wrapSub(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(static_cast<int64_t>(a) - b));
}
int32_t wrapMul(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(static_cast<int64_t>(a) * b));
}
int32_t wrapDiv(int32_t a, int32_t b) {
    if (b == 0) return 0;
    if (b == -1) return wrapSub(0, a);  // INT32_MIN / -1 wraps to itself
    return a / b;
}

void samePaddingHalves(int32_t in, int32_t stride, int32_t filter, int32_t* head, int32_t* tail) {
    const int32_t out = wrapDiv(wrapSub(wrapAdd(in, stride), 1), stride);
    const int32_t tmp = wrapAdd(wrapMul(wrapSub(out, 1), stride), filter);
    if (tmp > in) {
        const int32_t total = wrapSub(tmp, in);
        *head = total / 2;
        *tail = wrapSub(total, *head);
    } else {
        *head = 0;
        *tail = 0;
    }
}

// Float to int32 the way the Arm conversion instruction does it: values out
// of range saturate and NaN becomes 0.
int32_t saturateToInt32(double value) {
    if (std::isnan(value)) return 0;
    if (value >= 2147483647.0) return std::numeric_limits<int32_t>::max();
    if (value <= -2147483648.0) return std::numeric_limits<int32_t>::min();
    return static_cast<int32_t>(value);
}

// round(value) as a 64-bit integer, half away from zero; anything beyond
// +-2^62 (or NaN) saturates so that the caller's range check refuses it.
int64_t roundToInt64(double value) {
    constexpr double kLimit = 4611686018427387904.0;  // 2^62
    if (std::isnan(value) || value >= kLimit) return std::numeric_limits<int64_t>::max();
    if (value <= -kLimit) return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(std::round(value));
}

// Bit `index` of a mask operand.
bool maskBit(int32_t mask, uint32_t index) {
    return ((static_cast<uint32_t>(mask) >> index) & 1u) != 0;
}

// Slice bound of a strided slice: negative indices count from the end, then
// the bound is clamped to the range a walk in the stride's direction can use.
int64_t clampedSliceIndex(int32_t index, int64_t dimSize, bool positiveStride) {
    int64_t value = index < 0 ? index + dimSize : index;
    if (positiveStride) return std::clamp<int64_t>(value, 0, dimSize);
    return std::clamp<int64_t>(value, -1, dimSize - 1);
}

}  // namespace

// ---------------------------------------------------------------------------
// Element sizes and dimension alignment.

uint32_t getSize(OperandType type) {
    switch (type) {
        case OperandType::SCALAR_FP32:
        case OperandType::SCALAR_INT32:
        case OperandType::SCALAR_UNSIGNED_INT32:
        case OperandType::TENSOR_FP32:
        case OperandType::TENSOR_INT32: return 4;
        case OperandType::TENSOR_QUANT8:
        case OperandType::TENSOR_CUSTOM_BYTE: return 1;
        default: ZEL_LOG_LOCATED("Error: type exceeds max enum value"); return 0;
    }
}

std::vector<uint32_t> getAlignedDimensions(const std::vector<uint32_t>& dims, uint32_t N) {
    ZEL_CHECK_GE(N, dims.size(), std::vector<uint32_t>(),
                 "Error: constant data dimensions " << dims.size() << " exceeds alignment of " << N);
    std::vector<uint32_t> aligned(N - dims.size(), 1);
    aligned.insert(aligned.end(), dims.begin(), dims.end());
    return aligned;
}

// ---------------------------------------------------------------------------
// Shape record.

bool SameShape(const Shape& a, const Shape& b) {
    return a.type == b.type && a.dimensions == b.dimensions;
}

bool SetShape(const Shape& in, Shape* out) {
    NN_CHECK(out != nullptr);
    if (in.type != out->type || in.dimensions.size() != out->dimensions.size()) return false;
    out->dimensions = in.dimensions;
    return true;
}

uint32_t getNumberOfElements(const Shape& shape) {
    uint32_t count = 1;
    for (uint32_t d : shape.dimensions) count *= d;
    return count;
}

uint32_t getNumberOfDimensions(const Shape& shape) {
    return static_cast<uint32_t>(shape.dimensions.size());
}

uint32_t getSizeOfDimension(const Shape& shape, uint32_t dimensionIdx) {
    if (dimensionIdx >= shape.dimensions.size()) return 0;
    return shape.dimensions[dimensionIdx];
}

// ---------------------------------------------------------------------------
// Output shapes of the operations the checks infer.

bool addMulPrepare(const Shape& in1, const Shape& in2, Shape* output) {
    NN_CHECK(output != nullptr);
    NN_CHECK(getNumberOfDimensions(in1) <= 4 && getNumberOfDimensions(in2) <= 4);
    NN_CHECK(in1.type == in2.type);
    if (SameShape(in1, in2)) return SetShape(in1, output);

    // Broadcast, aligning the two shapes on their last dimension.
    const uint32_t rank1 = getNumberOfDimensions(in1);
    const uint32_t rank2 = getNumberOfDimensions(in2);
    const uint32_t rank = std::max(rank1, rank2);
    std::vector<uint32_t> dims(rank);
    for (uint32_t i = 1; i <= rank; ++i) {
        const uint32_t d1 = i <= rank1 ? in1.dimensions[rank1 - i] : 1;
        const uint32_t d2 = i <= rank2 ? in2.dimensions[rank2 - i] : 1;
        if (d1 != 1 && d2 != 1 && d1 != d2) {
            ::handle_error_info("Dimensions mismatch for BroadcastAdd");
            return false;
        }
        dims[rank - i] = std::max(d1, d2);
    }
    output->dimensions = std::move(dims);
    return true;
}

bool floorPrepare(const Shape& input, Shape* output) {
    return SetShape(input, output);
}

bool dequantizePrepare(const Shape& input, Shape* output) {
    NN_CHECK(output != nullptr);
    if (input.type != OperandType::TENSOR_QUANT8 || output->type != OperandType::TENSOR_FP32) {
        ::handle_error_info("bad input / output operand type.");
        return false;
    }
    if (getNumberOfDimensions(input) != getNumberOfDimensions(*output)) {
        ::handle_error_info("input and output tensors don't have the same rank.");
        return false;
    }
    output->dimensions = input.dimensions;
    return true;
}

namespace {

// Both convolutions: the same operand checks in the same order, the rule
// that tells them apart, then the NHWC output. A convolution's filter is
// [depth out, h, w, depth in]; a depthwise one's is [1, h, w, depth out].
bool convolutionPrepare(bool depthwise, const Shape& input, const Shape& filter, const Shape& bias,
                        int32_t padding_left, int32_t padding_right, int32_t padding_top, int32_t padding_bottom,
                        int32_t stride_width, int32_t stride_height, Shape* output) {
    NN_CHECK(output != nullptr);
    NN_CHECK(input.type == filter.type);
    if (input.type == OperandType::TENSOR_QUANT8) {
        NN_CHECK(bias.type == OperandType::TENSOR_INT32);
    } else {
        NN_CHECK(input.type == bias.type);
    }
    NN_CHECK(getNumberOfDimensions(input) == 4);
    NN_CHECK(getNumberOfDimensions(filter) == 4);
    NN_CHECK(getNumberOfDimensions(bias) == 1);
    if (depthwise) {
        NN_CHECK(getSizeOfDimension(filter, 3) == getSizeOfDimension(bias, 0));
    } else {
        NN_CHECK(getSizeOfDimension(filter, 0) == getSizeOfDimension(bias, 0));
        NN_CHECK(getSizeOfDimension(filter, 3) == getSizeOfDimension(input, 3));
    }

    const uint32_t outHeight = windowOutputSize(getSizeOfDimension(input, 1), padding_top, padding_bottom,
                                                stride_height, getSizeOfDimension(filter, 1));
    const uint32_t outWidth = windowOutputSize(getSizeOfDimension(input, 2), padding_left, padding_right, stride_width,
                                               getSizeOfDimension(filter, 2));
    output->type = input.type;
    output->dimensions = {getSizeOfDimension(input, 0), outHeight, outWidth,
                          getSizeOfDimension(filter, depthwise ? 3 : 0)};
    return true;
}

}  // namespace

bool convPrepare(const Shape& input, const Shape& filter, const Shape& bias, int32_t padding_left,
                 int32_t padding_right, int32_t padding_top, int32_t padding_bottom, int32_t stride_width,
                 int32_t stride_height, Shape* output) {
    return convolutionPrepare(false, input, filter, bias, padding_left, padding_right, padding_top, padding_bottom,
                              stride_width, stride_height, output);
}

bool depthwiseConvPrepare(const Shape& input, const Shape& filter, const Shape& bias, int32_t padding_left,
                          int32_t padding_right, int32_t padding_top, int32_t padding_bottom, int32_t stride_width,
                          int32_t stride_height, Shape* output) {
    return convolutionPrepare(true, input, filter, bias, padding_left, padding_right, padding_top, padding_bottom,
                              stride_width, stride_height, output);
}

bool genericPoolingPrepare(const Shape& input, int32_t padding_left, int32_t padding_right, int32_t padding_top,
                           int32_t padding_bottom, int32_t stride_width, int32_t stride_height, int32_t filter_width,
                           int32_t filter_height, Shape* output) {
    NN_CHECK(output != nullptr);
    NN_CHECK(getNumberOfDimensions(input) == 4);

    const uint32_t outHeight = windowOutputSize(getSizeOfDimension(input, 1), padding_top, padding_bottom,
                                                stride_height, static_cast<uint32_t>(filter_height));
    const uint32_t outWidth = windowOutputSize(getSizeOfDimension(input, 2), padding_left, padding_right, stride_width,
                                               static_cast<uint32_t>(filter_width));
    output->type = input.type;
    output->dimensions = {getSizeOfDimension(input, 0), outHeight, outWidth, getSizeOfDimension(input, 3)};
    return true;
}

bool genericActivationPrepare(const Shape& input, Shape* output) {
    NN_CHECK(getNumberOfDimensions(input) <= 4);
    return SetShape(input, output);
}

bool genericNormalizationPrepare(const Shape& input, Shape* output) {
    NN_CHECK(getNumberOfDimensions(input) == 4);
    return SetShape(input, output);
}

bool fullyConnectedPrepare(const Shape& input, const Shape& weights, const Shape& bias, Shape* output) {
    NN_CHECK(output != nullptr);
    NN_CHECK(input.type == weights.type);
    if (input.type == OperandType::TENSOR_QUANT8) {
        NN_CHECK(bias.type == OperandType::TENSOR_INT32);
    } else {
        NN_CHECK(input.type == bias.type);
    }
    NN_CHECK(getNumberOfDimensions(input) >= 2);
    const uint32_t input_size = getNumberOfElements(input);
    const uint32_t num_units = getSizeOfDimension(weights, 0);
    const uint32_t depth = getSizeOfDimension(weights, 1);
    NN_CHECK(depth != 0);
    const uint32_t batch_size = input_size / depth;
    NN_CHECK(getSizeOfDimension(bias, 0) == num_units);
    NN_CHECK(getSizeOfDimension(weights, 1) * batch_size == input_size);
    NN_CHECK(getNumberOfDimensions(weights) == 2);

    output->type = input.type;
    output->dimensions = {batch_size, num_units};
    return true;
}

bool concatenationPrepare(const std::vector<Shape>& inputShapes, int32_t axis, Shape* output) {
    NN_CHECK(output != nullptr);
    // With no input the axis can never be in range, which refuses the call.
    const uint32_t num_dimensions = inputShapes.empty() ? 0 : getNumberOfDimensions(inputShapes[0]);
    NN_CHECK(axis >= 0);
    NN_CHECK(axis < (int32_t)num_dimensions);

    const uint32_t axisIdx = static_cast<uint32_t>(axis);
    const bool quantized = inputShapes[0].type == OperandType::TENSOR_QUANT8;
    uint32_t sumAxis = 0;
    for (size_t i = 0; i < inputShapes.size(); ++i) {
        NN_CHECK(getNumberOfDimensions(inputShapes[i]) == num_dimensions);
        NN_CHECK(inputShapes[i].type == inputShapes[0].type);
        if (quantized) {
            NN_CHECK(inputShapes[0].offset == inputShapes[i].offset);
            NN_CHECK(inputShapes[0].scale == inputShapes[i].scale);
        }
        for (uint32_t d = 0; d < num_dimensions; ++d) {
            if (d == axisIdx) continue;
            NN_CHECK(getSizeOfDimension(inputShapes[0], d) == getSizeOfDimension(inputShapes[i], d));
        }
        sumAxis += getSizeOfDimension(inputShapes[i], axisIdx);
    }
    if (quantized) {
        // The output operand carries its own quantization; it must be input 0's.
        NN_CHECK(inputShapes[0].offset == output->offset);
        NN_CHECK(inputShapes[0].scale == output->scale);
    }

    std::vector<uint32_t> dims = inputShapes[0].dimensions;
    dims[axisIdx] = sumAxis;
    output->type = inputShapes[0].type;
    output->dimensions = std::move(dims);
    return true;
}

bool reshapePrepare(const Shape& input, const int32_t* targetDims, const int32_t targetDimsSize, Shape* output) {
    NN_CHECK(output != nullptr);
    NN_CHECK(targetDimsSize >= 0);
    NN_CHECK(targetDims != nullptr || targetDimsSize == 0);

    // One entry may be -1: that dimension takes whatever the others leave.
    // The element counts are exact (64-bit, capped); any other negative entry
    // makes the output count negative so that it never matches.
    const int64_t numInputElements = getNumberOfElements(input);
    int64_t numOutputElements = 1;
    int32_t strechDim = -1;
    std::vector<uint32_t> outDims(static_cast<size_t>(targetDimsSize));
    for (int32_t i = 0; i < targetDimsSize; ++i) {
        const int32_t value = targetDims[i];
        if (value == -1) {
            NN_CHECK(strechDim == -1);
            strechDim = i;
        } else {
            numOutputElements = mulElementCount(numOutputElements, value);
            outDims[static_cast<size_t>(i)] = static_cast<uint32_t>(value);
        }
    }
    if (strechDim != -1) {
        const int64_t strechValue = numOutputElements > 0 ? numInputElements / numOutputElements : 0;
        outDims[static_cast<size_t>(strechDim)] = static_cast<uint32_t>(strechValue);
        numOutputElements = mulElementCount(numOutputElements, strechValue);
    }
    NN_CHECK(numInputElements == numOutputElements);

    output->type = input.type;
    output->dimensions = std::move(outDims);
    output->scale = input.scale;
    output->offset = input.offset;
    return true;
}

bool resizeBilinearPrepare(const Shape& input, int32_t width, int32_t height, Shape* output) {
    NN_CHECK(output != nullptr);
    NN_CHECK(getNumberOfDimensions(input) == 4);
    output->type = input.type;
    output->dimensions = {getSizeOfDimension(input, 0), static_cast<uint32_t>(height), static_cast<uint32_t>(width),
                          getSizeOfDimension(input, 3)};
    return true;
}

// ---------------------------------------------------------------------------
// Output shapes of operations no check infers yet.

bool depthToSpacePrepare(const Shape& input, int32_t blockSizeValue, Shape* output) {
    NN_CHECK(output != nullptr);
    NN_CHECK(getNumberOfDimensions(input) == 4);
    const int64_t blockSize = blockSizeValue;  // 64-bit so that blockSize * blockSize cannot overflow
    NN_CHECK(blockSize > 0);
    const uint32_t channels = getSizeOfDimension(input, 3);
    NN_CHECK(channels % (blockSize * blockSize) == 0);

    output->type = input.type;
    output->dimensions = {getSizeOfDimension(input, 0), static_cast<uint32_t>(getSizeOfDimension(input, 1) * blockSize),
                          static_cast<uint32_t>(getSizeOfDimension(input, 2) * blockSize),
                          static_cast<uint32_t>(channels / (blockSize * blockSize))};
    return true;
}

bool spaceToDepthPrepare(const Shape& input, int32_t blockSizeValue, Shape* output) {
    NN_CHECK(output != nullptr);
    NN_CHECK(getNumberOfDimensions(input) == 4);
    const int64_t blockSize = blockSizeValue;
    NN_CHECK(blockSize > 0);
    const uint32_t height = getSizeOfDimension(input, 1);
    const uint32_t width = getSizeOfDimension(input, 2);
    NN_CHECK(height % blockSize == 0);
    NN_CHECK(width % blockSize == 0);

    const uint64_t block = static_cast<uint64_t>(blockSize);
    output->type = input.type;
    output->dimensions = {getSizeOfDimension(input, 0), static_cast<uint32_t>(height / blockSize),
                          static_cast<uint32_t>(width / blockSize),
                          static_cast<uint32_t>(getSizeOfDimension(input, 3) * block * block)};
    return true;
}

bool embeddingLookupPrepare(const Shape& valueShape, const Shape& lookupShape, Shape* output) {
    NN_CHECK(output != nullptr);
    NN_CHECK(getNumberOfDimensions(valueShape) >= 2);
    NN_CHECK(getNumberOfDimensions(lookupShape) == 1);

    // One row of the value table per lookup.
    std::vector<uint32_t> dims = valueShape.dimensions;
    dims[0] = getSizeOfDimension(lookupShape, 0);
    output->type = valueShape.type;
    output->dimensions = std::move(dims);
    return true;
}

bool hashtableLookupPrepare(const Shape& lookupShape, const Shape& keyShape, const Shape& valueShape, Shape* output,
                            Shape* hits) {
    NN_CHECK(output != nullptr && hits != nullptr);
    NN_CHECK(getNumberOfDimensions(valueShape) >= 1);
    NN_CHECK(getNumberOfDimensions(lookupShape) == 1);
    NN_CHECK(getNumberOfDimensions(keyShape) == 1);

    // One value row per lookup, and one hit flag (a byte) per lookup.
    const uint32_t lookups = getSizeOfDimension(lookupShape, 0);
    std::vector<uint32_t> dims = valueShape.dimensions;
    dims[0] = lookups;
    output->type = valueShape.type;
    output->dimensions = std::move(dims);
    hits->type = OperandType::TENSOR_QUANT8;
    hits->dimensions = {lookups};
    return true;
}

bool padPrepare(const Shape& input, const int32_t* paddingsData, const Shape& paddingsShape, Shape* output) {
    NN_CHECK(output != nullptr);
    const uint32_t numInputDims = getNumberOfDimensions(input);
    NN_CHECK(numInputDims == 4);
    NN_CHECK(paddingsShape.type == OperandType::TENSOR_INT32);
    NN_CHECK(getNumberOfDimensions(paddingsShape) == 2);
    NN_CHECK(getSizeOfDimension(paddingsShape, 0) == numInputDims);
    NN_CHECK(getSizeOfDimension(paddingsShape, 1) == 2);
    NN_CHECK(paddingsData != nullptr);

    // paddingsData holds one (before, after) pair per dimension.
    std::vector<uint32_t> dims(numInputDims);
    for (uint32_t i = 0; i < numInputDims; ++i) {
        const int32_t beforePadding = paddingsData[2 * i];
        const int32_t afterPadding = paddingsData[2 * i + 1];
        NN_CHECK(beforePadding >= 0 && afterPadding >= 0);
        dims[i] =
            static_cast<uint32_t>(beforePadding) + getSizeOfDimension(input, i) + static_cast<uint32_t>(afterPadding);
    }
    output->type = input.type;
    output->dimensions = std::move(dims);
    return true;
}

bool batchToSpacePrepare(const Shape& input, const int32_t* blockSizeValues, const Shape& blockSizeShape,
                         Shape* output) {
    NN_CHECK(output != nullptr);
    NN_CHECK(getNumberOfDimensions(input) == 4);
    NN_CHECK(blockSizeShape.type == OperandType::TENSOR_INT32);
    NN_CHECK(getNumberOfDimensions(blockSizeShape) == 1);
    NN_CHECK(getSizeOfDimension(blockSizeShape, 0) == 2);
    NN_CHECK(blockSizeValues != nullptr);
    // 64-bit copies: the product of the two blocks must not overflow.
    const int64_t blockSizeData[2] = {blockSizeValues[0], blockSizeValues[1]};
    NN_CHECK(blockSizeData[0] >= 1 && blockSizeData[1] >= 1);
    const uint32_t batches = getSizeOfDimension(input, 0);
    NN_CHECK(batches % (blockSizeData[0] * blockSizeData[1]) == 0);

    output->type = input.type;
    output->dimensions = {static_cast<uint32_t>(batches / (blockSizeData[0] * blockSizeData[1])),
                          static_cast<uint32_t>(getSizeOfDimension(input, 1) * blockSizeData[0]),
                          static_cast<uint32_t>(getSizeOfDimension(input, 2) * blockSizeData[1]),
                          getSizeOfDimension(input, 3)};
    return true;
}

bool spaceToBatchPrepare(const Shape& input, const int32_t* blockSizeValues, const Shape& blockSizeShape,
                         const int32_t* paddingsData, const Shape& paddingsShape, Shape* output) {
    NN_CHECK(output != nullptr);
    NN_CHECK(getNumberOfDimensions(input) == 4);
    NN_CHECK(blockSizeShape.type == OperandType::TENSOR_INT32);
    NN_CHECK(getNumberOfDimensions(blockSizeShape) == 1);
    NN_CHECK(getSizeOfDimension(blockSizeShape, 0) == 2);
    NN_CHECK(paddingsShape.type == OperandType::TENSOR_INT32);
    NN_CHECK(getNumberOfDimensions(paddingsShape) == 2);
    NN_CHECK(getSizeOfDimension(paddingsShape, 0) == 2);
    NN_CHECK(getSizeOfDimension(paddingsShape, 1) == 2);
    NN_CHECK(blockSizeValues != nullptr && paddingsData != nullptr);
    const int64_t blockSizeData[2] = {blockSizeValues[0], blockSizeValues[1]};
    NN_CHECK(blockSizeData[0] >= 1 && blockSizeData[1] >= 1);
    NN_CHECK(paddingsData[0] >= 0 && paddingsData[1] >= 0 && paddingsData[2] >= 0 && paddingsData[3] >= 0);

    // paddingsData: {top, bottom, left, right}.
    const int64_t paddedHeight = int64_t{paddingsData[0]} + getSizeOfDimension(input, 1) + paddingsData[1];
    const int64_t paddedWidth = int64_t{paddingsData[2]} + getSizeOfDimension(input, 2) + paddingsData[3];
    NN_CHECK(paddedHeight % blockSizeData[0] == 0);
    NN_CHECK(paddedWidth % blockSizeData[1] == 0);

    const uint64_t blocks = static_cast<uint64_t>(blockSizeData[0]) * static_cast<uint64_t>(blockSizeData[1]);
    output->type = input.type;
    output->dimensions = {static_cast<uint32_t>(getSizeOfDimension(input, 0) * blocks),
                          static_cast<uint32_t>(paddedHeight / blockSizeData[0]),
                          static_cast<uint32_t>(paddedWidth / blockSizeData[1]), getSizeOfDimension(input, 3)};
    return true;
}

bool squeezePrepare(const Shape& input, const int32_t* squeezeDims, const Shape& squeezeDimsShape, Shape* output) {
    NN_CHECK(output != nullptr);
    NN_CHECK(squeezeDimsShape.type == OperandType::TENSOR_INT32);
    NN_CHECK(getNumberOfDimensions(squeezeDimsShape) == 1);
    const uint32_t numSqueezeDims = getSizeOfDimension(squeezeDimsShape, 0);
    const int32_t numInputDims = static_cast<int32_t>(getNumberOfDimensions(input));
    NN_CHECK(squeezeDims != nullptr || numSqueezeDims == 0);

    // No listed dimension squeezes every dimension of size 1. Negative
    // entries count from the end.
    std::vector<bool> squeezed(static_cast<size_t>(numInputDims), false);
    if (numSqueezeDims == 0) {
        for (uint32_t d = 0; d < squeezed.size(); ++d) squeezed[d] = getSizeOfDimension(input, d) == 1;
    } else {
        for (uint32_t idx = 0; idx < numSqueezeDims; ++idx) {
            const int32_t current = squeezeDims[idx] < 0 ? squeezeDims[idx] + numInputDims : squeezeDims[idx];
            NN_CHECK(current >= 0 && current < numInputDims && getSizeOfDimension(input, current) == 1);
            squeezed[static_cast<size_t>(current)] = true;
        }
    }
    std::vector<uint32_t> dims;
    for (uint32_t d = 0; d < squeezed.size(); ++d) {
        if (!squeezed[d]) dims.push_back(getSizeOfDimension(input, d));
    }
    // A tensor squeezed down to nothing keeps one element as [1].
    if (dims.empty()) dims.push_back(1);
    output->type = input.type;
    output->dimensions = std::move(dims);
    return true;
}

bool transposePrepare(const Shape& input, const int32_t* permData, const Shape& permShape, Shape* output) {
    NN_CHECK(output != nullptr);
    const uint32_t numInputDims = getNumberOfDimensions(input);
    NN_CHECK(numInputDims <= 4);
    NN_CHECK(permShape.type == OperandType::TENSOR_INT32);
    NN_CHECK(getNumberOfDimensions(permShape) == 1);
    NN_CHECK(numInputDims == getSizeOfDimension(permShape, 0));
    NN_CHECK(permData != nullptr || numInputDims == 0);

    // Output dimension idx is input dimension permData[idx].
    std::vector<uint32_t> dims(numInputDims);
    for (uint32_t idx = 0; idx < numInputDims; ++idx) {
        NN_CHECK(permData[idx] >= 0 && permData[idx] < static_cast<int32_t>(numInputDims));
        dims[idx] = getSizeOfDimension(input, static_cast<uint32_t>(permData[idx]));
    }
    output->type = input.type;
    output->dimensions = std::move(dims);
    return true;
}

bool meanPrepare(const Shape& input, const int32_t* axisData, const Shape& axisShape, bool keepDims, Shape* output) {
    NN_CHECK(output != nullptr);
    NN_CHECK(axisShape.type == OperandType::TENSOR_INT32);
    NN_CHECK(getNumberOfDimensions(axisShape) == 1);
    const uint32_t numAxes = getSizeOfDimension(axisShape, 0);
    const int32_t numInputDims = static_cast<int32_t>(getNumberOfDimensions(input));
    NN_CHECK(axisData != nullptr || numAxes == 0);

    // Negative axes count from the end; an axis listed twice reduces once.
    std::vector<bool> reduced(static_cast<size_t>(numInputDims), false);
    for (uint32_t i = 0; i < numAxes; ++i) {
        const int32_t current = axisData[i] < 0 ? axisData[i] + numInputDims : axisData[i];
        NN_CHECK(current >= 0 && current < numInputDims);
        reduced[static_cast<size_t>(current)] = true;
    }
    std::vector<uint32_t> dims;
    for (uint32_t d = 0; d < reduced.size(); ++d) {
        if (!reduced[d]) {
            dims.push_back(getSizeOfDimension(input, d));
        } else if (keepDims) {
            dims.push_back(1);
        }
    }
    // Reducing every dimension leaves one element, as [1].
    if (dims.empty()) dims.push_back(1);
    output->type = input.type;
    output->dimensions = std::move(dims);
    return true;
}

bool stridedSlicePrepare(const Shape& input, const int32_t* beginData, const Shape& beginShape, const int32_t* endData,
                         const Shape& endShape, const int32_t* stridesData, const Shape& stridesShape,
                         int32_t beginMask, int32_t endMask, int32_t shrinkAxisMask, Shape* output) {
    NN_CHECK(output != nullptr);
    const uint32_t numInputDims = getNumberOfDimensions(input);
    NN_CHECK(numInputDims <= 4);
    NN_CHECK(getNumberOfDimensions(beginShape) == 1);
    NN_CHECK(getNumberOfDimensions(endShape) == 1);
    NN_CHECK(getNumberOfDimensions(stridesShape) == 1);
    NN_CHECK(getSizeOfDimension(beginShape, 0) == numInputDims);
    NN_CHECK(getSizeOfDimension(endShape, 0) == numInputDims);
    NN_CHECK(getSizeOfDimension(stridesShape, 0) == numInputDims);
    NN_CHECK(beginShape.type == OperandType::TENSOR_INT32);
    NN_CHECK(endShape.type == OperandType::TENSOR_INT32);
    NN_CHECK(stridesShape.type == OperandType::TENSOR_INT32);
    NN_CHECK((beginData != nullptr && endData != nullptr && stridesData != nullptr) || numInputDims == 0);

    // Per dimension: a masked bound is the whole extent in the stride's
    // direction; the element count is ceil((end - begin) / stride), at
    // least 0. A shrunk dimension is dropped from the output.
    std::vector<uint32_t> dims;
    for (uint32_t idx = 0; idx < numInputDims; ++idx) {
        const int64_t dimSize = getSizeOfDimension(input, idx);
        const int32_t stride = stridesData[idx];
        NN_CHECK(stride != 0);
        const bool positiveStride = stride > 0;
        const int64_t begin = maskBit(beginMask, idx) ? (positiveStride ? 0 : dimSize - 1)
                                                      : clampedSliceIndex(beginData[idx], dimSize, positiveStride);
        const int64_t end = maskBit(endMask, idx) ? (positiveStride ? dimSize : -1)
                                                  : clampedSliceIndex(endData[idx], dimSize, positiveStride);
        const int64_t step = positiveStride ? int64_t{stride} : -int64_t{stride};
        const int64_t span = positiveStride ? end - begin : begin - end;
        const int64_t dim = span > 0 ? (span + step - 1) / step : 0;
        NN_CHECK(dim != 0);
        if (!maskBit(shrinkAxisMask, idx)) dims.push_back(static_cast<uint32_t>(dim));
    }
    // Shrinking every dimension leaves one element, as [1].
    if (dims.empty()) dims.push_back(1);
    output->type = input.type;
    output->dimensions = std::move(dims);
    return true;
}

// ---------------------------------------------------------------------------
// Padding, activation and quantization arithmetic.

padding_type_enum getPadding(unsigned int code) {
    switch (code) {
        case 1: return ZEL_NN_PAD_SAME;
        case 2: return ZEL_NN_PAD_VALID;
        default: return ZEL_NN_PAD_NA;
    }
}

padding_type_enum getPadding(int inWidth, int inHeight, int strideWidth, int strideHeight, int filterWidth,
                             int filterHeight, int paddingLeft, int paddingRight, int paddingTop, int paddingBottom) {
    if (paddingLeft == 0 && paddingRight == 0 && paddingTop == 0 && paddingBottom == 0) return ZEL_NN_PAD_VALID;

    int32_t left = 0;
    int32_t right = 0;
    int32_t top = 0;
    int32_t bottom = 0;
    samePaddingHalves(inWidth, strideWidth, filterWidth, &left, &right);
    samePaddingHalves(inHeight, strideHeight, filterHeight, &top, &bottom);
    if (left == paddingLeft && right == paddingRight && top == paddingTop && bottom == paddingBottom) {
        return ZEL_NN_PAD_SAME;
    }
    return ZEL_NN_PAD_NA;
}

zel_op_type_enum getFloatActivationFunction(ActivationFunc activation) {
    // Indexed by activation - 1: RELU, RELU1 (a clamp to [-1, 1]), RELU6.
    static constexpr zel_op_type_enum kOps[] = {ZEL_OP_FloatRelu, ZEL_OP_FloatClamp, ZEL_OP_FloatReluX};
    const int32_t code = static_cast<int32_t>(activation);
    if (code < 1 || code > 3) return ZEL_OP_Nop;
    return kOps[code - 1];
}

zel_op_type_enum getQuantizedActivationFunction(ActivationFunc activation) {
    static constexpr zel_op_type_enum kOps[] = {ZEL_OP_QuantizedRelu_8, ZEL_OP_QuantizedClamp_8,
                                                ZEL_OP_QuantizedReluX_8};
    const int32_t code = static_cast<int32_t>(activation);
    if (code < 1 || code > 3) return ZEL_OP_Nop;
    return kOps[code - 1];
}

namespace {

// Real bounds of a fused activation (+-FLT_MAX where it has none).
struct ActivationBounds {
    float low;
    float high;
};

// Logs and answers false for a code that is no fused activation.
bool activationBounds(int32_t activation, ActivationBounds* bounds) {
    switch (activation) {
        case static_cast<int32_t>(ActivationFunc::NONE): *bounds = {-FLT_MAX, FLT_MAX}; return true;
        case static_cast<int32_t>(ActivationFunc::RELU): *bounds = {0.0f, FLT_MAX}; return true;
        case static_cast<int32_t>(ActivationFunc::RELU1): *bounds = {-1.0f, 1.0f}; return true;
        case static_cast<int32_t>(ActivationFunc::RELU6): *bounds = {0.0f, 6.0f}; return true;
        default: ::handle_error_info("Unsupported fused activation function."); return false;
    }
}

}  // namespace

void CalculateActivationRangeUint8(int32_t activation, const Shape& outputShape, int32_t* act_min, int32_t* act_max) {
    if (act_min == nullptr || act_max == nullptr) {
        logFailedCondition("act_min != nullptr && act_max != nullptr");
        return;
    }
    ActivationBounds bounds{};
    if (!activationBounds(activation, &bounds)) return;
    const float scale = outputShape.scale;
    const int64_t zero_point = outputShape.offset;
    // Real value to quantized units: the division is single precision, the
    // sum cannot overflow in 64 bits and saturates back to 32.
    auto quantize = [scale, zero_point](float f) {
        return saturateToInt32(static_cast<double>(zero_point + saturateToInt32(std::round(f / scale))));
    };
    constexpr int32_t kQmin = 0;
    constexpr int32_t kQmax = 255;
    *act_min = bounds.low == -FLT_MAX ? kQmin : std::max(kQmin, quantize(bounds.low));
    *act_max = bounds.high == FLT_MAX ? kQmax : std::min(kQmax, quantize(bounds.high));
}

void CalculateActivationRangeFloat(int32_t activation, float* activation_min, float* activation_max) {
    if (activation_min == nullptr || activation_max == nullptr) {
        logFailedCondition("activation_min != nullptr && activation_max != nullptr");
        return;
    }
    ActivationBounds bounds{};
    if (!activationBounds(activation, &bounds)) return;
    *activation_min = bounds.low;
    *activation_max = bounds.high;
}

bool QuantizeMultiplierSmallerThanOne(double double_multiplier, int32_t* quantized_multiplier, int32_t* right_shift) {
    NN_CHECK(quantized_multiplier != nullptr && right_shift != nullptr);
    NN_CHECK(double_multiplier >= 0.);
    NN_CHECK(double_multiplier < 1.);
    if (double_multiplier == 0.) {
        *quantized_multiplier = 0;
        *right_shift = 0;
        return true;
    }
    NN_CHECK(double_multiplier > 0.);
    int exponent = 0;
    const double q = std::frexp(double_multiplier, &exponent);
    *right_shift = -exponent;
    int64_t q_fixed = roundToInt64(q * (1ll << 31));
    NN_CHECK(q_fixed <= (1ll << 31));
    if (q_fixed == (1ll << 31)) {
        // The mantissa rounded up to 1.0: use 0.5 and one shift less.
        q_fixed /= 2;
        --*right_shift;
    }
    NN_CHECK(*right_shift >= 0);
    *quantized_multiplier = static_cast<int32_t>(q_fixed);
    return true;
}

bool QuantizeMultiplierGreaterThanOne(double double_multiplier, int32_t* quantized_multiplier, int* left_shift) {
    NN_CHECK(quantized_multiplier != nullptr && left_shift != nullptr);
    NN_CHECK(double_multiplier > 1.);
    const double q = std::frexp(double_multiplier, left_shift);
    // An infinite multiplier has an infinite mantissa, which saturates here
    // and is refused by the range check.
    int64_t q_fixed = roundToInt64(q * (1ll << 31));
    NN_CHECK(q_fixed <= (1ll << 31));
    if (q_fixed == (1ll << 31)) {
        q_fixed /= 2;
        ++*left_shift;
    }
    NN_CHECK(*left_shift >= 0);
    *quantized_multiplier = static_cast<int32_t>(q_fixed);
    return true;
}

bool GetQuantizedConvolutionMultipler(const Shape& inputShape, const Shape& filterShape, const Shape& biasShape,
                                      const Shape& outputShape, float* multiplier) {
    NN_CHECK(multiplier != nullptr);
    const float input_product_scale = inputShape.scale * filterShape.scale;
    const float bias_scale = biasShape.scale;
    const float output_scale = outputShape.scale;
    // The bias is quantized with the product of the input and filter scales.
    NN_CHECK(std::abs(input_product_scale - bias_scale) <= 1e-6 * std::min(input_product_scale, bias_scale));
    NN_CHECK(input_product_scale >= 0);
    NN_CHECK(input_product_scale < output_scale);
    *multiplier = input_product_scale / output_scale;
    return true;
}

int32_t CalculateInputRadius(int input_integer_bits, int input_left_shift) {
    // ((2^bits - 1) * 2^(31 - bits)) / 2^shift. Powers of two are exact in
    // double, so ldexp gives the same value as the integer powers would, and
    // arguments outside the usual ranges cannot overflow a shift.
    const int64_t bits = std::clamp<int64_t>(input_integer_bits, -4096, 4096);
    const int64_t shift = std::clamp<int64_t>(input_left_shift, -4096, 4096);
    const double max_input_rescaled =
        std::ldexp(std::ldexp(1.0, static_cast<int>(bits)) - 1.0, static_cast<int>(31 - bits - shift));
    return saturateToInt32(std::floor(max_input_rescaled));
}

}  // namespace zel
}  // namespace nnhal
}  // namespace arv
