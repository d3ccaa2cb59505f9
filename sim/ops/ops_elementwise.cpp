// Elementwise 8-bit nodes: the clamping activations, PReLU, and the
// conversions between floats and 8-bit values.
#include <algorithm>
#include <cmath>
#include <limits>

#include "op_list.h"
#include "op_support.h"
#include "parallel.h"
#include "vector_loops.h"

namespace zelsim {
namespace detail {

namespace {

constexpr const char* kRelu = "QuantizedRelu_8";
constexpr const char* kReluX = "QuantizedReluX_8";
constexpr const char* kClamp = "QuantizedClamp_8";
constexpr const char* kPRelu = "QuantizedPRelu_8";
constexpr const char* kQuantize = "Quantize";
constexpr const char* kDequantize = "Dequantize";

// Activations: value, its min and max, then the bounds of the op.
enum ActivationInput : size_t { kIn = 0, kInMin, kInMax, kBound0, kBound1 };

// Relu has no bound inputs, ReluX one (the upper bound), Clamp two.
std::string validateActivation(const char* name, size_t bounds, const char* const* boundRoles, const NodeDesc& node,
                               const std::vector<InputInfo>& inputs) {
    Validator v(name, node, inputs);
    if (!(v.inputCount(kBound0 + bounds) && v.noPadding() && v.value(kIn, "input", 1) &&
          v.scalarFloat(kInMin, "input min") && v.scalarFloat(kInMax, "input max"))) {
        return v.result();
    }
    for (size_t i = 0; i < bounds; ++i) {
        if (!v.scalarFloat(kBound0 + i, boundRoles[i])) return v.result();
    }
    v.quantOutputs(v.arg(kIn).dims, 1);
    return v.result();
}

// Clamps every value to the bytes nearest to the real bounds [lo, hi]
// (Relu: [0, +inf), ReluX: [0, x], Clamp: [lo, hi]); the range is kept.
bool executeActivation(const char* name, size_t bounds, const std::vector<const Tensor*>& inputs,
                       std::vector<Tensor>& outputs, std::string* error) {
    Run r(name, inputs, outputs, error);
    Affine8 a;
    float lo = 0.0f, hi = 0.0f;
    if (!(r.counts(kBound0 + bounds, 3) && r.value(kIn, 1) && r.range8(kInMin, kInMax, &a) &&
          r.scalarFloat(kInMin, &lo) && r.scalarFloat(kInMax, &hi))) {
        return false;
    }
    double realLo = 0.0;
    double realHi = std::numeric_limits<double>::infinity();
    float b0 = 0.0f, b1 = 0.0f;
    if (bounds == 1) {
        if (!r.scalarFloat(kBound0, &b0)) return false;
        realHi = b0;
    } else if (bounds == 2) {
        if (!r.scalarFloat(kBound0, &b0) || !r.scalarFloat(kBound1, &b1)) return false;
        realLo = b0;
        realHi = b1;
    }
    const uint8_t qLo = a.quantize(realLo);
    const uint8_t qHi = std::max(qLo, a.quantize(realHi));
    const Dims4 dims = r.dimsOf(kIn);
    uint8_t* out = nullptr;
    if (!r.output(0, dims, 1, &out)) return false;
    const uint8_t* in = r.in(kIn).data.data();
    const uint32_t n = dims.count();
    parallel::parallelFor(n, size_t{1} << 16, [in, out, qLo, qHi](size_t begin, size_t end) {
        zelsim_loops::clampBytes(in + begin, end - begin, qLo, qHi, out + begin);
    });
    return r.writeRange(lo, hi);
}

const char* const kReluXRoles[] = {"max value"};
const char* const kClampRoles[] = {"lower bound", "upper bound"};

enum PReluInput : size_t { kPIn = 0, kAlpha, kPInMin, kPInMax, kAlphaMin, kAlphaMax, kPReluInputs };

enum ConvertInput : size_t { kCIn = 0, kCMin, kCMax, kConvertInputs };

}  // namespace

std::string validateRelu(const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    return validateActivation(kRelu, 0, nullptr, node, inputs);
}

bool executeRelu(const NodeDesc&, const std::vector<const Tensor*>& inputs, std::vector<Tensor>& outputs,
                 std::string* error) {
    return executeActivation(kRelu, 0, inputs, outputs, error);
}

std::string validateReluX(const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    return validateActivation(kReluX, 1, kReluXRoles, node, inputs);
}

bool executeReluX(const NodeDesc&, const std::vector<const Tensor*>& inputs, std::vector<Tensor>& outputs,
                  std::string* error) {
    return executeActivation(kReluX, 1, inputs, outputs, error);
}

std::string validateClamp(const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    return validateActivation(kClamp, 2, kClampRoles, node, inputs);
}

bool executeClamp(const NodeDesc&, const std::vector<const Tensor*>& inputs, std::vector<Tensor>& outputs,
                  std::string* error) {
    return executeActivation(kClamp, 2, inputs, outputs, error);
}

std::string validatePRelu(const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    Validator v(kPRelu, node, inputs);
    if (!(v.inputCount(kPReluInputs) && v.noPadding() && v.value(kPIn, "input", 1) && v.value(kAlpha, "alpha", 1) &&
          v.scalarFloat(kPInMin, "input min") && v.scalarFloat(kPInMax, "input max") &&
          v.scalarFloat(kAlphaMin, "alpha min") && v.scalarFloat(kAlphaMax, "alpha max"))) {
        return v.result();
    }
    Dims4 out;
    if (!broadcastDims(v.arg(kPIn).dims, v.arg(kAlpha).dims, &out)) {
        v.fail("input " + v.arg(kPIn).dims.str() + " and alpha " + v.arg(kAlpha).dims.str() + " do not broadcast");
        return v.result();
    }
    v.quantOutputs(out, 1);
    return v.result();
}

// x >= 0 ? x : alpha * x on the real values. The result range is the span
// of the results joined with 0, widened to an integer zero point, so that
// the step is never coarser than the data needs.
bool executePRelu(const NodeDesc&, const std::vector<const Tensor*>& inputs, std::vector<Tensor>& outputs,
                  std::string* error) {
    Run r(kPRelu, inputs, outputs, error);
    Affine8 ax, aa;
    if (!(r.counts(kPReluInputs, 3) && r.value(kPIn, 1) && r.value(kAlpha, 1) && r.range8(kPInMin, kPInMax, &ax) &&
          r.range8(kAlphaMin, kAlphaMax, &aa))) {
        return false;
    }
    Dims4 dims;
    if (!broadcastDims(r.dimsOf(kPIn), r.dimsOf(kAlpha), &dims)) {
        return r.fail("input " + r.dimsOf(kPIn).str() + " and alpha " + r.dimsOf(kAlpha).str() + " do not broadcast");
    }
    const uint8_t* x = r.in(kPIn).data.data();
    const uint8_t* alpha = r.in(kAlpha).data.data();
    std::vector<double> real(dims.count());
    double lo = 0.0, hi = 0.0;
    forEachBroadcast(dims, r.dimsOf(kPIn), r.dimsOf(kAlpha), [&](uint32_t o, uint32_t ix, uint32_t ia) {
        const double v = ax.value(x[ix]);
        real[o] = v >= 0.0 ? v : aa.value(alpha[ia]) * v;
        lo = std::min(lo, real[o]);
        hi = std::max(hi, real[o]);
    });
    float mn = 0.0f, mx = 0.0f;
    coveringRange(lo, hi, &mn, &mx);
    Affine8 out;
    if (!makeAffine8(mn, mx, &out)) return r.fail("results have no finite range");
    uint8_t* data = nullptr;
    if (!r.output(0, dims, 1, &data)) return false;
    for (size_t i = 0; i < real.size(); ++i) data[i] = out.quantize(real[i]);
    return r.writeRange(mn, mx);
}

std::string validateQuantize(const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    Validator v(kQuantize, node, inputs);
    if (v.inputCount(kConvertInputs) && v.noPadding() && v.value(kCIn, "input", 4) && v.scalarFloat(kCMin, "min") &&
        v.scalarFloat(kCMax, "max")) {
        v.quantOutputs(v.arg(kCIn).dims, 1);
    }
    return v.result();
}

// q = round((x - lo) * 255 / (hi - lo)) clamped to [0, 255]; the range is
// [lo, hi].
bool executeQuantize(const NodeDesc&, const std::vector<const Tensor*>& inputs, std::vector<Tensor>& outputs,
                     std::string* error) {
    Run r(kQuantize, inputs, outputs, error);
    float lo = 0.0f, hi = 0.0f;
    if (!(r.counts(kConvertInputs, 3) && r.value(kCIn, 4) && r.scalarFloat(kCMin, &lo) && r.scalarFloat(kCMax, &hi))) {
        return false;
    }
    if (!std::isfinite(lo) || !std::isfinite(hi) || !(hi > lo)) return r.fail("range is not a finite non-empty range");
    const Dims4 dims = r.dimsOf(kCIn);
    uint8_t* out = nullptr;
    if (!r.output(0, dims, 1, &out)) return false;
    const uint8_t* in = r.in(kCIn).data.data();
    const double scale = 255.0 / (static_cast<double>(hi) - lo);
    const uint32_t n = dims.count();
    for (uint32_t i = 0; i < n; ++i) {
        out[i] = roundClampU8((static_cast<double>(loadF32(in + 4 * static_cast<size_t>(i))) - lo) * scale);
    }
    return r.writeRange(lo, hi);
}

std::string validateDequantize(const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    Validator v(kDequantize, node, inputs);
    if (v.inputCount(kConvertInputs) && v.noPadding() && v.value(kCIn, "input", 1) && v.scalarFloat(kCMin, "min") &&
        v.scalarFloat(kCMax, "max") && v.outputCount(1)) {
        v.outputRecord(0, "value", v.arg(kCIn).dims, 4);
    }
    return v.result();
}

bool executeDequantize(const NodeDesc&, const std::vector<const Tensor*>& inputs, std::vector<Tensor>& outputs,
                       std::string* error) {
    Run r(kDequantize, inputs, outputs, error);
    Affine8 a;
    if (!(r.counts(kConvertInputs, 1) && r.value(kCIn, 1) && r.range8(kCMin, kCMax, &a))) return false;
    const Dims4 dims = r.dimsOf(kCIn);
    uint8_t* out = nullptr;
    if (!r.output(0, dims, 4, &out)) return false;
    const uint8_t* in = r.in(kCIn).data.data();
    const uint32_t n = dims.count();
    for (uint32_t i = 0; i < n; ++i) storeF32(out + 4 * static_cast<size_t>(i), static_cast<float>(a.value(in[i])));
    return true;
}

}  // namespace detail
}  // namespace zelsim
