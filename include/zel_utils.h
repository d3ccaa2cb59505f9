// Diagnostics, shape records and the shape/quantization arithmetic shared by
// the support checks and the lowering.
#pragma once

#include <cstdint>
#include <ostream>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "arv/nnhal/nnhal_types.h"
#include "zel_kestrel_runtime.h"

// ---------------------------------------------------------------------------
// Logging. Every line goes to the Android log under one tag.

// Tag of every line the plug-in writes.
constexpr const char* kZelLogTag = "zel-android-log-ravine";
// Writes `msg` at debug priority (3).
void handle_debug_info(const std::string& msg);
void handle_debug_info(const char* msg);
// Writes `msg` at error priority (6).
void handle_error_info(const std::string& msg);

// Stream renderings of the runtime records, so that check macros can print
// them as values (same text as toString).
std::ostream& operator<<(std::ostream& os, const kestrel_zel_nn_input& in);
std::ostream& operator<<(std::ostream& os, const kestrel_zel_nn_output& out);

namespace zel_detail {
// A located line's source: a file, and a line of that file, or 0 for the
// line of the check itself.
struct Source {
    const char* file;
    int line;
};
inline const char* fileOf(const char* file) {
    return file;
}
inline const char* fileOf(const Source& source) {
    return source.file;
}
inline int lineOf(const char*, int here) {
    return here;
}
inline int lineOf(const Source& source, int here) {
    return source.line != 0 ? source.line : here;
}
}  // namespace zel_detail

// "<file>::<line>" of the current source position; __FILE__ is made
// relative to the source tree by the build. The *_IN forms below take the
// source instead: a file name (with the line of the check), or a
// zel_detail::Source. Rules written once for two modules use the latter to
// name the module they run for, at the line that called the rule.
#define ZEL_LOCATION_STREAM_IN(os, source) \
    (os) << ::zel_detail::fileOf(source) << "::" << ::zel_detail::lineOf(source, __LINE__)
#define ZEL_LOCATION_STREAM(os) ZEL_LOCATION_STREAM_IN(os, __FILE__)

// Logs one located error line "<file>::<line> -- <msg>"; `msg` is a stream
// expression ("Need " << n << " inputs").
#define ZEL_LOG_LOCATED_IN(file, msg)                           \
    do {                                                        \
        std::ostringstream zel_os_;                             \
        ZEL_LOCATION_STREAM_IN(zel_os_, file) << " -- " << msg; \
        ::handle_error_info(zel_os_.str());                     \
    } while (0)
#define ZEL_LOG_LOCATED(msg) ZEL_LOG_LOCATED_IN(__FILE__, msg)

namespace zel_detail {
// Comparisons used by the check macros: mixed signed/unsigned integers are
// compared by value (a negative number is smaller than any unsigned one).
template <typename A, typename B>
constexpr bool mixedSign() {
    return std::is_integral<A>::value && std::is_integral<B>::value &&
           std::is_signed<A>::value != std::is_signed<B>::value;
}
template <typename A, typename B>
bool eq(const A& a, const B& b) {
    if constexpr (mixedSign<A, B>()) {
        if (std::is_signed<A>::value ? a < A{} : b < B{}) return false;
        return static_cast<unsigned long long>(a) == static_cast<unsigned long long>(b);
    } else {
        return a == b;
    }
}
template <typename A, typename B>
bool ne(const A& a, const B& b) {
    return !eq(a, b);
}
template <typename A, typename B>
bool le(const A& a, const B& b) {
    if constexpr (mixedSign<A, B>()) {
        if (std::is_signed<A>::value && a < A{}) return true;
        if (std::is_signed<B>::value && b < B{}) return false;
        return static_cast<unsigned long long>(a) <= static_cast<unsigned long long>(b);
    } else {
        return a <= b;
    }
}
template <typename A, typename B>
bool ge(const A& a, const B& b) {
    return le(b, a);
}
}  // namespace zel_detail

// Consistency check: when `a op b` is false, logs
// "<file>::<line> -- failed <a> <op> <b> (<va> <op> <vb>): <msg>" and
// returns `ret` from the enclosing function. Each side is evaluated once;
// `msg` is a stream expression.
#define ZEL_CHECK_IMPL(file, a, opText, fn, b, ret, msg)                                                          \
    do {                                                                                                          \
        const auto& zel_a_ = (a);                                                                                 \
        const auto& zel_b_ = (b);                                                                                 \
        if (!::zel_detail::fn(zel_a_, zel_b_)) {                                                                  \
            std::ostringstream zel_os_;                                                                           \
            ZEL_LOCATION_STREAM_IN(zel_os_, file)                                                                 \
                << " -- failed " #a " " opText " " #b " (" << zel_a_ << " " opText " " << zel_b_ << "): " << msg; \
            ::handle_error_info(zel_os_.str());                                                                   \
            return ret;                                                                                           \
        }                                                                                                         \
    } while (0)

#define ZEL_CHECK_EQ(a, b, ret, msg) ZEL_CHECK_IMPL(__FILE__, a, "==", eq, b, ret, msg)
#define ZEL_CHECK_NE(a, b, ret, msg) ZEL_CHECK_IMPL(__FILE__, a, "!=", ne, b, ret, msg)
#define ZEL_CHECK_GE(a, b, ret, msg) ZEL_CHECK_IMPL(__FILE__, a, ">=", ge, b, ret, msg)
#define ZEL_CHECK_LE(a, b, ret, msg) ZEL_CHECK_IMPL(__FILE__, a, "<=", le, b, ret, msg)
#define ZEL_CHECK_EQ_IN(file, a, b, ret, msg) ZEL_CHECK_IMPL(file, a, "==", eq, b, ret, msg)
#define ZEL_CHECK_NE_IN(file, a, b, ret, msg) ZEL_CHECK_IMPL(file, a, "!=", ne, b, ret, msg)
#define ZEL_CHECK_LE_IN(file, a, b, ret, msg) ZEL_CHECK_IMPL(file, a, "<=", le, b, ret, msg)

// Shape-inference precondition: logs "NN_CHECK failed: <condition>" and
// returns false.
#define NN_CHECK(condition)                               \
    do {                                                  \
        if (!(condition)) {                               \
            std::ostringstream zel_os_;                   \
            zel_os_ << "NN_CHECK failed: " << #condition; \
            ::handle_error_info(zel_os_.str());           \
            return false;                                 \
        }                                                 \
    } while (0)

namespace arv {
namespace nnhal {
namespace zel {

// Operand description used by shape inference.
struct Shape {
    OperandType type = OperandType::TENSOR_FP32;
    std::vector<uint32_t> dimensions;
    float scale = 0.0f;
    int32_t offset = 0;
};

// Bytes per element of an operand type; 0 (and an error line) when unknown.
uint32_t getSize(OperandType type);
// `dims` left-padded with 1s to exactly N entries; empty (and an error line)
// when dims has more than N entries.
std::vector<uint32_t> getAlignedDimensions(const std::vector<uint32_t>& dims, uint32_t N);

// ---------------------------------------------------------------------------
// Text renderings.

std::string toString(OperationType type);
std::string toString(OperandType type);
std::string toString(zel_op_type_enum op);
std::string toString(padding_type_enum padding);
std::string toString(unsigned int value);
std::string toString(int value);
std::string toString(float value);
std::string toString(const kestrel_zel_nn_input& in);
std::string toString(const kestrel_zel_nn_output& out);
std::string toString(const kestrel_zel_nn_tensordef& def);
std::string toString(const kestrel_zel_nn_perfinfo& info);
std::string toString(const Shape& shape);

// "[v0, v1, ...]"; "[]" for count 0.
template <typename T>
std::string toString(const T* values, unsigned int count) {
    std::string s = "[";
    for (unsigned int i = 0; i < count; ++i) {
        if (i != 0) s += ", ";
        s += std::to_string(values[i]);
    }
    s += "]";
    return s;
}

// ---------------------------------------------------------------------------
// Shape record helpers and shape inference. Every *Prepare returns false
// after one error line when a precondition fails; nothing is written to
// `out` then.

bool SameShape(const Shape& a, const Shape& b);
bool SetShape(const Shape& in, Shape* out);
uint32_t getNumberOfElements(const Shape& shape);
uint32_t getNumberOfDimensions(const Shape& shape);
uint32_t getSizeOfDimension(const Shape& shape, uint32_t dimensionIdx);

bool addMulPrepare(const Shape& in1, const Shape& in2, Shape* out);
bool floorPrepare(const Shape& input, Shape* output);
bool dequantizePrepare(const Shape& input, Shape* output);
bool convPrepare(const Shape& input, const Shape& filter, const Shape& bias, int32_t padding_left,
                 int32_t padding_right, int32_t padding_top, int32_t padding_bottom, int32_t stride_width,
                 int32_t stride_height, Shape* output);
bool depthwiseConvPrepare(const Shape& input, const Shape& filter, const Shape& bias, int32_t padding_left,
                          int32_t padding_right, int32_t padding_top, int32_t padding_bottom, int32_t stride_width,
                          int32_t stride_height, Shape* output);
bool genericPoolingPrepare(const Shape& input, int32_t padding_left, int32_t padding_right, int32_t padding_top,
                           int32_t padding_bottom, int32_t stride_width, int32_t stride_height, int32_t filter_width,
                           int32_t filter_height, Shape* output);
bool genericActivationPrepare(const Shape& input, Shape* output);
bool genericNormalizationPrepare(const Shape& input, Shape* output);
bool fullyConnectedPrepare(const Shape& input, const Shape& weights, const Shape& bias, Shape* output);
bool concatenationPrepare(const std::vector<Shape>& inputShapes, int32_t axis, Shape* output);
bool reshapePrepare(const Shape& input, const int32_t* targetDims, const int32_t targetDimsSize, Shape* output);
bool resizeBilinearPrepare(const Shape& input, int32_t width, int32_t height, Shape* output);
bool depthToSpacePrepare(const Shape& input, int32_t blockSize, Shape* output);
bool spaceToDepthPrepare(const Shape& input, int32_t blockSize, Shape* output);
bool embeddingLookupPrepare(const Shape& valueShape, const Shape& lookupShape, Shape* outputShape);
bool hashtableLookupPrepare(const Shape& lookupShape, const Shape& keyShape, const Shape& valueShape,
                            Shape* outputShape, Shape* hitShape);
bool padPrepare(const Shape& input, const int32_t* paddingsData, const Shape& paddingsShape, Shape* output);
bool batchToSpacePrepare(const Shape& input, const int32_t* blockSizeData, const Shape& blockSizeShape, Shape* output);
bool spaceToBatchPrepare(const Shape& input, const int32_t* blockSizeData, const Shape& blockSizeShape,
                         const int32_t* paddingsData, const Shape& paddingsShape, Shape* output);
bool squeezePrepare(const Shape& input, const int32_t* squeezeDims, const Shape& squeezeDimsShape, Shape* output);
bool transposePrepare(const Shape& input, const int32_t* permData, const Shape& permShape, Shape* output);
bool meanPrepare(const Shape& input, const int32_t* axisData, const Shape& axisShape, bool keepDims, Shape* output);
bool stridedSlicePrepare(const Shape& input, const int32_t* beginData, const Shape& beginShape, const int32_t* endData,
                         const Shape& endShape, const int32_t* stridesData, const Shape& stridesShape,
                         int32_t beginMask, int32_t endMask, int32_t shrinkAxisMask, Shape* output);

// ---------------------------------------------------------------------------
// Padding, activation and quantization arithmetic.

// Host implicit padding code (1 same, 2 valid) to the runtime's padding.
padding_type_enum getPadding(unsigned int code);
// Explicit paddings to SAME/VALID when they match exactly, else ZEL_NN_PAD_NA.
padding_type_enum getPadding(int inWidth, int inHeight, int strideWidth, int strideHeight, int filterWidth,
                             int filterHeight, int paddingLeft, int paddingRight, int paddingTop, int paddingBottom);
zel_op_type_enum getFloatActivationFunction(ActivationFunc activation);
zel_op_type_enum getQuantizedActivationFunction(ActivationFunc activation);
void CalculateActivationRangeUint8(int32_t activation, const Shape& outputShape, int32_t* act_min, int32_t* act_max);
void CalculateActivationRangeFloat(int32_t activation, float* activation_min, float* activation_max);
bool QuantizeMultiplierSmallerThanOne(double double_multiplier, int32_t* quantized_multiplier, int32_t* right_shift);
bool QuantizeMultiplierGreaterThanOne(double double_multiplier, int32_t* quantized_multiplier, int* left_shift);
bool GetQuantizedConvolutionMultipler(const Shape& inputShape, const Shape& filterShape, const Shape& biasShape,
                                      const Shape& outputShape, float* multiplier);
int32_t CalculateInputRadius(int input_integer_bits, int input_left_shift);

// Health probe of the runtime: true when it answers with the expected version.
bool isZelAvailable();

}  // namespace zel
}  // namespace nnhal
}  // namespace arv
