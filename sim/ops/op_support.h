// Shared pieces of the simulator's node kernels: the static view of a
// node's inputs used by validation, the execution-time accessors, and the
// quantization arithmetic every kernel agrees on.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "zelsim/ops.h"

namespace zelsim {
namespace detail {

// Four dims in the runtime's order: batches, height, width, depth.
struct Dims4 {
    uint32_t d[4] = {0, 0, 0, 0};

    Dims4() = default;
    Dims4(uint32_t b, uint32_t h, uint32_t w, uint32_t c) : d{b, h, w, c} {}
    // Product of the four sizes, or UINT32_MAX when it does not fit.
    uint32_t count() const;
    bool operator==(const Dims4& o) const;
    bool operator!=(const Dims4& o) const { return !(*this == o); }
    // "BxHxWxD".
    std::string str() const;
};

// The four leading sizes of an output record.
Dims4 recordDims(const kestrel_zel_nn_output& record);

// ---------------------------------------------------------------------------
// Quantization arithmetic.

// An 8-bit value q with range [min, max] stands for min + q * step, step =
// (max - min) / 255. Ranges made from a scale and an integer zero point
// (every range the host declares) reach the runtime rounded to float; a zero
// point within kZeroSnap of an integer is taken as that integer, and the
// value is then (q - zero) * step. This lets integer kernels be exact.
struct Affine8 {
    double min = 0.0;
    double max = 0.0;
    double step = 0.0;
    bool integral = false;
    int32_t zero = 0;

    double value(uint32_t q) const {
        return integral ? (static_cast<double>(q) - zero) * step : min + static_cast<double>(q) * step;
    }
    // Inverse of value(): the (unrounded) position of a real value.
    double position(double real) const { return integral ? real / step + zero : (real - min) / step; }
    // Nearest byte of a real value, clamped to [0, 255].
    uint8_t quantize(double real) const;  // defined below
    // Largest magnitude of any representable value.
    double maxAbs() const;
};

constexpr double kZeroSnap = 1e-3;

// False when the range is not finite or empty (max <= min).
bool makeAffine8(float min, float max, Affine8* out);

// A 32-bit value q with range [min, max] stands for q * step, step =
// (max - min) / 2^32. False when the range is not finite or empty.
bool makeStep32(float min, float max, double* step);

// The float range [-2^31 * step, 2^31 * step] that carries `step`.
void rangeOfStep32(double step, float* min, float* max);

// Round to nearest (halves up) and clamp to [0, 255]; NaN gives 0.
inline uint8_t roundClampU8(double x) {
    if (!(x > 0.0)) return 0;  // also NaN
    if (x >= 255.0) return 255;
    return static_cast<uint8_t>(x + 0.5);  // positive: truncation is floor
}

inline uint8_t Affine8::quantize(double real) const {
    return roundClampU8(position(real));
}

// Step of a 32-bit accumulator: `base` doubled until every value of
// magnitude up to `bound` fits in a signed 32-bit integer.
double accumulatorStep(double base, double bound);

// Covering 8-bit range for values in [lo, hi]: an empty span becomes
// [lo, lo + 1]; when the span holds 0 it is widened so that its zero point
// is an integer (later integer kernels then stay exact).
void coveringRange(double lo, double hi, float* min, float* max);

// ---------------------------------------------------------------------------
// Validation.

// What validation knows about one input.
struct ArgView {
    bool connected = false;
    bool isConst = false;
    Dims4 dims;
    uint32_t elementSize = 0;                    // record size, or bytes / elements for constants
    const std::vector<uint8_t>* data = nullptr;  // constants only
};

ArgView viewOf(const InputInfo& info);

// Collects the first reason a node is refused. Every check returns whether
// the node is still acceptable, so checks chain with &&.
class Validator {
public:
    Validator(const char* name, const NodeDesc& node, const std::vector<InputInfo>& inputs);

    const std::string& result() const { return mError; }
    bool fail(const std::string& msg);

    size_t inputs() const { return mArgs.size(); }
    size_t outputs() const { return mNode.outputs.size(); }
    const ArgView& arg(size_t i) const { return mArgs[i]; }
    Dims4 outputDims(size_t i) const { return recordDims(mNode.outputs[i]); }
    const NodeDesc& node() const { return mNode; }

    bool inputCount(size_t n);
    bool inputCountAtLeast(size_t n);
    bool outputCount(size_t n);
    // Padding SAME or VALID (window operations) / padding 0 (all others).
    bool windowPadding(bool* same);
    bool noPadding();
    // Input i is connected (constant or operation output).
    bool connected(size_t i, const char* role);
    // Input i holds values of `elementSize` bytes (operation output or constant).
    bool value(size_t i, const char* role, uint32_t elementSize);
    // Input i is a 1x1x1x1 float: a 4-byte constant or a one-element output
    // record of element size 4.
    bool scalarFloat(size_t i, const char* role);
    // Input i is a constant of dims 1xHxWx1, H and W at least 1.
    bool hwShape(size_t i, const char* role, uint32_t* h, uint32_t* w);
    // Input i is a constant holding `count` int32 values; they are copied out.
    bool int32Const(size_t i, const char* role, uint32_t count, int32_t* values);
    // Input i is a constant of `elementSize`-byte elements with all its bytes.
    bool constData(size_t i, const char* role, uint32_t elementSize);
    // Output i is a record of dims `dims` and element size `elementSize`.
    bool outputRecord(size_t i, const char* role, const Dims4& dims, uint32_t elementSize);
    // Output i has element size `elementSize` (dims checked elsewhere).
    bool outputElementSize(size_t i, const char* role, uint32_t elementSize);
    // The three records of a quantized value: value, min, max.
    bool quantOutputs(const Dims4& dims, uint32_t elementSize);

private:
    std::string inputText(size_t i, const char* role) const;
    std::string outputText(size_t i, const char* role) const;

    const char* mName;
    const NodeDesc& mNode;
    std::vector<ArgView> mArgs;
    std::string mError;
};

// Output size of a window along one axis (SAME: ceil(in / stride); VALID:
// ceil((in - window + 1) / stride)) and the padding before the first
// element (SAME: half the total, the odd pixel going to the end). False
// when VALID leaves no output or the stride is 0.
bool windowAxis(uint32_t in, uint32_t window, uint32_t stride, bool same, uint32_t* out, uint32_t* padBefore);

// Calls f(outIndex, aIndex, bIndex) for every element of the broadcast
// shape `out` of a and b (row-major, depth fastest).
template <typename F>
void forEachBroadcast(const Dims4& out, const Dims4& a, const Dims4& b, F f) {
    uint32_t sa[4], sb[4];
    uint32_t pa = 1, pb = 1;
    for (int i = 3; i >= 0; --i) {
        sa[i] = a.d[i] == 1 ? 0 : pa;
        sb[i] = b.d[i] == 1 ? 0 : pb;
        pa *= a.d[i];
        pb *= b.d[i];
    }
    uint32_t o = 0;
    for (uint32_t n = 0; n < out.d[0]; ++n) {
        for (uint32_t h = 0; h < out.d[1]; ++h) {
            for (uint32_t w = 0; w < out.d[2]; ++w) {
                const uint32_t ia = n * sa[0] + h * sa[1] + w * sa[2];
                const uint32_t ib = n * sb[0] + h * sb[1] + w * sb[2];
                for (uint32_t c = 0; c < out.d[3]; ++c) f(o++, ia + c * sa[3], ib + c * sb[3]);
            }
        }
    }
}

// Broadcast of two 4-D shapes, trailing-aligned: each dim equal or one of
// them 1. False when they do not broadcast.
bool broadcastDims(const Dims4& a, const Dims4& b, Dims4* out);

// ---------------------------------------------------------------------------
// Execution.

// Accessors over the tensors of one node run; every failure sets the error
// as "<name>: <reason>" and returns false.
class Run {
public:
    Run(const char* name, const std::vector<const Tensor*>& inputs, std::vector<Tensor>& outputs, std::string* error);

    bool fail(const std::string& msg);
    bool counts(size_t inputs, size_t outputs);
    bool atLeast(size_t inputs, size_t outputs);

    const Tensor& in(size_t i) const { return *mInputs[i]; }
    Dims4 dimsOf(size_t i) const;
    size_t inputCount() const { return mInputs.size(); }

    // Input i holds elements() values of `elementSize` bytes.
    bool value(size_t i, uint32_t elementSize);
    // Input i is one float.
    bool scalarFloat(size_t i, float* v);
    // Inputs (lo, hi) are the range of an 8-bit value / a 32-bit value.
    bool range8(size_t minIdx, size_t maxIdx, Affine8* out);
    bool range32(size_t minIdx, size_t maxIdx, double* step);
    // Output i must have dims `dims` and `elementSize`-byte elements; its
    // buffer is sized to match and returned.
    bool output(size_t i, const Dims4& dims, uint32_t elementSize, uint8_t** data);
    // Writes the two range outputs 1 and 2.
    bool writeRange(float min, float max);

private:
    const char* mName;
    const std::vector<const Tensor*>& mInputs;
    std::vector<Tensor>& mOutputs;
    std::string* mError;
};

// Little helpers on byte buffers (no unaligned access).
int32_t loadI32(const uint8_t* p);
float loadF32(const uint8_t* p);
void storeI32(uint8_t* p, int32_t v);
void storeF32(uint8_t* p, float v);

}  // namespace detail
}  // namespace zelsim
