// Nodes that move 8-bit values around: concatenation, reshape and
// bilinear resizing.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <sstream>

#include "op_list.h"
#include "op_support.h"

namespace zelsim {
namespace detail {

namespace {

constexpr const char* kConcat = "QuantizedConcat_8";
constexpr const char* kReshape = "QuantizedReshape";
constexpr const char* kResize = "QuantizedResizeBilinear_8";

// Concat: dim, then N values, N mins, N maxes.
constexpr size_t kConcatDim = 0;

std::string concatDims(const std::vector<Dims4>& dims, int32_t axis, Dims4* out) {
    if (axis < 0 || axis > 3) {
        std::ostringstream s;
        s << "dim must be 0 to 3, got " << axis;
        return s.str();
    }
    Dims4 r = dims[0];
    for (size_t i = 1; i < dims.size(); ++i) {
        for (int k = 0; k < 4; ++k) {
            if (k != axis && dims[i].d[k] != dims[0].d[k]) {
                std::ostringstream s;
                s << "value " << i << " (" << dims[i].str() << ") does not match value 0 (" << dims[0].str()
                  << ") outside dim " << axis;
                return s.str();
            }
        }
        r.d[axis] += dims[i].d[axis];
    }
    *out = r;
    return "";
}

enum ReshapeInput : size_t { kRIn = 0, kRShape, kRMin, kRMax, kReshapeInputs };
enum ResizeInput : size_t { kZIn = 0, kZSize, kZMin, kZMax, kResizeInputs };

}  // namespace

std::string validateConcat(const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    Validator v(kConcat, node, inputs);
    if (!v.inputCountAtLeast(4) || !v.noPadding()) return v.result();
    if ((v.inputs() - 1) % 3 != 0) {
        std::ostringstream s;
        s << "expects 1 + 3N inputs (dim, N values, N mins, N maxes), got " << v.inputs();
        v.fail(s.str());
        return v.result();
    }
    const size_t n = (v.inputs() - 1) / 3;
    int32_t axis = 0;
    if (!v.int32Const(kConcatDim, "dim", 1, &axis)) return v.result();
    std::vector<Dims4> dims;
    for (size_t i = 0; i < n; ++i) {
        const std::string value = "value " + std::to_string(i);
        const std::string min = "min " + std::to_string(i);
        const std::string max = "max " + std::to_string(i);
        if (!(v.value(1 + i, value.c_str(), 1) && v.scalarFloat(1 + n + i, min.c_str()) &&
              v.scalarFloat(1 + 2 * n + i, max.c_str()))) {
            return v.result();
        }
        dims.push_back(v.arg(1 + i).dims);
    }
    Dims4 out;
    const std::string why = concatDims(dims, axis, &out);
    if (!why.empty()) {
        v.fail(why);
        return v.result();
    }
    v.quantOutputs(out, 1);
    return v.result();
}

// The result range is that of the inputs when they all share one; else the
// union of their ranges (widened to an integer zero point when it holds
// 0), every input being requantized into it, rounding to nearest.
bool executeConcat(const NodeDesc&, const std::vector<const Tensor*>& inputs, std::vector<Tensor>& outputs,
                   std::string* error) {
    Run r(kConcat, inputs, outputs, error);
    if (!r.atLeast(4, 3)) return false;
    if ((inputs.size() - 1) % 3 != 0) return r.fail("inputs are not dim, N values, N mins, N maxes");
    const size_t n = (inputs.size() - 1) / 3;
    if (r.in(kConcatDim).data.size() != 4) return r.fail("dim must be one int32");
    const int32_t axis = loadI32(r.in(kConcatDim).data.data());
    std::vector<Dims4> dims(n);
    std::vector<Affine8> ranges(n);
    std::vector<float> mins(n), maxs(n);
    bool shared = true;
    for (size_t i = 0; i < n; ++i) {
        if (!(r.value(1 + i, 1) && r.range8(1 + n + i, 1 + 2 * n + i, &ranges[i]) &&
              r.scalarFloat(1 + n + i, &mins[i]) && r.scalarFloat(1 + 2 * n + i, &maxs[i]))) {
            return false;
        }
        dims[i] = r.dimsOf(1 + i);
        shared = shared && mins[i] == mins[0] && maxs[i] == maxs[0];
    }
    Dims4 outDims;
    const std::string why = concatDims(dims, axis, &outDims);
    if (!why.empty()) return r.fail(why);

    float lo = mins[0], hi = maxs[0];
    if (!shared) {
        coveringRange(*std::min_element(mins.begin(), mins.end()), *std::max_element(maxs.begin(), maxs.end()), &lo,
                      &hi);
    }
    Affine8 target;
    if (!makeAffine8(lo, hi, &target)) return r.fail("joined range is not finite");
    std::vector<uint8_t> lut(256 * n);
    for (size_t i = 0; i < n; ++i) {
        for (uint32_t q = 0; q < 256; ++q)
            lut[256 * i + q] = shared ? static_cast<uint8_t>(q) : target.quantize(ranges[i].value(q));
    }

    uint8_t* out = nullptr;
    if (!r.output(0, outDims, 1, &out)) return false;
    uint32_t outer = 1;
    for (int k = 0; k < axis; ++k) outer *= outDims.d[k];
    uint32_t after = 1;
    for (int k = axis + 1; k < 4; ++k) after *= outDims.d[k];
    for (uint32_t o = 0; o < outer; ++o) {
        for (size_t i = 0; i < n; ++i) {
            const uint32_t chunk = dims[i].d[axis] * after;
            const uint8_t* src = r.in(1 + i).data.data() + static_cast<size_t>(o) * chunk;
            const uint8_t* map = lut.data() + 256 * i;
            for (uint32_t k = 0; k < chunk; ++k) *out++ = map[src[k]];
        }
    }
    return r.writeRange(lo, hi);
}

std::string validateReshape(const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    Validator v(kReshape, node, inputs);
    if (!(v.inputCount(kReshapeInputs) && v.noPadding() && v.value(kRIn, "input", 1) && v.connected(kRShape, "shape") &&
          v.scalarFloat(kRMin, "input min") && v.scalarFloat(kRMax, "input max") && v.outputCount(3))) {
        return v.result();
    }
    const Dims4 out = v.outputDims(0);
    if (out.count() != v.arg(kRIn).dims.count()) {
        v.fail("output 0 (value) " + out.str() + " does not hold the " + std::to_string(v.arg(kRIn).dims.count()) +
               " values of the input " + v.arg(kRIn).dims.str());
        return v.result();
    }
    v.quantOutputs(out, 1);
    return v.result();
}

// The bytes and the range pass unchanged; only the dims change.
bool executeReshape(const NodeDesc&, const std::vector<const Tensor*>& inputs, std::vector<Tensor>& outputs,
                    std::string* error) {
    Run r(kReshape, inputs, outputs, error);
    float lo = 0.0f, hi = 0.0f;
    if (!(r.counts(kReshapeInputs, 3) && r.value(kRIn, 1) && r.scalarFloat(kRMin, &lo) && r.scalarFloat(kRMax, &hi))) {
        return false;
    }
    const Tensor& o = outputs[0];
    const Dims4 outDims(o.dims[0], o.dims[1], o.dims[2], o.dims[3]);
    if (outDims.count() != r.dimsOf(kRIn).count()) {
        return r.fail("output " + outDims.str() + " does not hold the values of the input " + r.dimsOf(kRIn).str());
    }
    uint8_t* out = nullptr;
    if (!r.output(0, outDims, 1, &out)) return false;
    std::memcpy(out, r.in(kRIn).data.data(), r.in(kRIn).data.size());
    return r.writeRange(lo, hi);
}

std::string validateResizeBilinear(const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    Validator v(kResize, node, inputs);
    int32_t size[2] = {0, 0};
    if (!(v.inputCount(kResizeInputs) && v.noPadding() && v.value(kZIn, "input", 1) &&
          v.int32Const(kZSize, "size", 2, size) && v.scalarFloat(kZMin, "input min") &&
          v.scalarFloat(kZMax, "input max"))) {
        return v.result();
    }
    if (size[0] <= 0 || size[1] <= 0) {
        v.fail("size must be positive, got " + std::to_string(size[0]) + "x" + std::to_string(size[1]));
        return v.result();
    }
    const Dims4 in = v.arg(kZIn).dims;
    v.quantOutputs(Dims4(in.d[0], static_cast<uint32_t>(size[0]), static_cast<uint32_t>(size[1]), in.d[3]), 1);
    return v.result();
}

// Corners not aligned: output pixel (y, x) reads the input at (y * inH /
// outH, x * inW / outW), the neighbour below/right clamped at the edge, and
// interpolates the bytes (same range in and out), rounding to nearest.
bool executeResizeBilinear(const NodeDesc&, const std::vector<const Tensor*>& inputs, std::vector<Tensor>& outputs,
                           std::string* error) {
    Run r(kResize, inputs, outputs, error);
    float lo = 0.0f, hi = 0.0f;
    if (!(r.counts(kResizeInputs, 3) && r.value(kZIn, 1) && r.scalarFloat(kZMin, &lo) && r.scalarFloat(kZMax, &hi))) {
        return false;
    }
    if (r.in(kZSize).data.size() != 8) return r.fail("size must be two int32 values");
    const int32_t outH = loadI32(r.in(kZSize).data.data());
    const int32_t outW = loadI32(r.in(kZSize).data.data() + 4);
    if (outH <= 0 || outW <= 0) return r.fail("size must be positive");
    const Dims4 in = r.dimsOf(kZIn);
    const Dims4 outDims(in.d[0], static_cast<uint32_t>(outH), static_cast<uint32_t>(outW), in.d[3]);
    uint8_t* out = nullptr;
    if (!r.output(0, outDims, 1, &out)) return false;
    const uint8_t* src = r.in(kZIn).data.data();
    const uint32_t depth = in.d[3];
    auto at = [&](uint32_t b, uint32_t y, uint32_t x, uint32_t c) {
        return static_cast<double>(src[((static_cast<size_t>(b) * in.d[1] + y) * in.d[2] + x) * depth + c]);
    };
    for (uint32_t b = 0; b < in.d[0]; ++b) {
        for (uint32_t y = 0; y < outDims.d[1]; ++y) {
            const double sy = static_cast<double>(y) * in.d[1] / outDims.d[1];
            const uint32_t y0 = static_cast<uint32_t>(sy);
            const uint32_t y1 = std::min(y0 + 1, in.d[1] - 1);
            const double fy = sy - y0;
            for (uint32_t x = 0; x < outDims.d[2]; ++x) {
                const double sx = static_cast<double>(x) * in.d[2] / outDims.d[2];
                const uint32_t x0 = static_cast<uint32_t>(sx);
                const uint32_t x1 = std::min(x0 + 1, in.d[2] - 1);
                const double fx = sx - x0;
                for (uint32_t c = 0; c < depth; ++c) {
                    const double top = at(b, y0, x0, c) * (1.0 - fx) + at(b, y0, x1, c) * fx;
                    const double bottom = at(b, y1, x0, c) * (1.0 - fx) + at(b, y1, x1, c) * fx;
                    *out++ = roundClampU8(top * (1.0 - fy) + bottom * fy);
                }
            }
        }
    }
    return r.writeRange(lo, hi);
}

}  // namespace detail
}  // namespace zelsim
