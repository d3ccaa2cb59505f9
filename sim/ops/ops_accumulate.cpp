// Nodes with 32-bit results: convolution, depthwise convolution, matrix
// product (8x8 -> 32), bias addition (32 + 32 -> 32), elementwise add and
// subtract (8 + 8 -> 32), and requantization back to 8 bits.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <mutex>
#include <sstream>
#if defined(__x86_64__)
#include <immintrin.h>
#elif defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "kernels.h"
#include "op_list.h"
#include "op_support.h"
#include "parallel.h"
#include "vector_loops.h"

namespace zelsim {
namespace detail {

namespace {

constexpr const char* kConv = "QuantizedConv2d_8x8to32";
constexpr const char* kDepthwise = "QuantizedDepthwiseConv2d_8x8to32";
constexpr const char* kMatMul = "QuantizedMatMul_8x8to32";
constexpr const char* kBiasAdd = "QuantizedBiasAdd_32p32to32";
constexpr const char* kRequantize = "Requantize_32to8";
constexpr const char* kAdd = "QuantizedAdd_8p8to32";
constexpr const char* kSub = "QuantizedSub_8p8to32";

constexpr double kInt32Max = 2147483647.0;

// Input positions of the window products.
enum WindowInput : size_t { kIn = 0, kFilter, kInMin, kInMax, kFilterMin, kFilterMax, kStride, kWindowInputs };

// Geometry of a convolution (depthwise: filter (fh, fw, inD, mult)) from
// the input and filter dims, the stride and the padding. Empty result when
// acceptable, else the reason.
std::string windowGeometry(const Dims4& in, const Dims4& filter, uint32_t strideH, uint32_t strideW, bool same,
                           bool depthwise, kernels::ConvShape* s) {
    std::ostringstream why;
    if (filter.d[2] != in.d[3]) {
        why << "filter input depth " << filter.d[2] << " (filter " << filter.str()
            << ") does not match the input depth " << in.d[3] << " (input " << in.str() << ")";
        return why.str();
    }
    s->batches = in.d[0];
    s->inH = in.d[1];
    s->inW = in.d[2];
    s->inD = in.d[3];
    s->fH = filter.d[0];
    s->fW = filter.d[1];
    s->mult = depthwise ? filter.d[3] : 1;
    s->outD = depthwise ? filter.d[2] * filter.d[3] : filter.d[3];
    s->strideH = strideH;
    s->strideW = strideW;
    if (!windowAxis(s->inH, s->fH, strideH, same, &s->outH, &s->padTop)) {
        why << "filter height " << s->fH << " with stride " << strideH << " leaves no output for input height "
            << s->inH;
        return why.str();
    }
    if (!windowAxis(s->inW, s->fW, strideW, same, &s->outW, &s->padLeft)) {
        why << "filter width " << s->fW << " with stride " << strideW << " leaves no output for input width " << s->inW;
        return why.str();
    }
    return "";
}

std::string validateWindowProduct(const char* name, bool depthwise, const NodeDesc& node,
                                  const std::vector<InputInfo>& inputs) {
    Validator v(name, node, inputs);
    bool same = false;
    uint32_t sh = 0, sw = 0;
    if (!(v.inputCount(kWindowInputs) && v.windowPadding(&same) && v.value(kIn, "input", 1) &&
          v.constData(kFilter, "filter", 1) && v.scalarFloat(kInMin, "input min") &&
          v.scalarFloat(kInMax, "input max") && v.scalarFloat(kFilterMin, "filter min") &&
          v.scalarFloat(kFilterMax, "filter max") && v.hwShape(kStride, "stride", &sh, &sw))) {
        return v.result();
    }
    kernels::ConvShape s;
    const std::string why = windowGeometry(v.arg(kIn).dims, v.arg(kFilter).dims, sh, sw, same, depthwise, &s);
    if (!why.empty()) {
        v.fail(why);
        return v.result();
    }
    v.quantOutputs(Dims4(s.batches, s.outH, s.outW, s.outD), 4);
    return v.result();
}

#if defined(__x86_64__)
// Requantization eight values at a time, on machines with AVX2 (see
// requantizeBytes).
__attribute__((target("avx2"))) inline __m128i requantizeLanesAvx2(__m128i acc, double scale, double offset) {
    __m256d x = _mm256_add_pd(_mm256_mul_pd(_mm256_cvtepi32_pd(acc), _mm256_set1_pd(scale)), _mm256_set1_pd(offset));
    x = _mm256_max_pd(x, _mm256_setzero_pd());
    x = _mm256_min_pd(x, _mm256_set1_pd(255.0));
    return _mm256_cvttpd_epi32(_mm256_add_pd(x, _mm256_set1_pd(0.5)));
}

__attribute__((target("avx2"))) size_t requantizeAvx2(const uint8_t* accBytes, size_t n, double scale, double offset,
                                                      uint8_t* out) {
    auto lane = [scale, offset](__m128i acc) { return requantizeLanesAvx2(acc, scale, offset); };
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m128i lo = lane(_mm_loadu_si128(reinterpret_cast<const __m128i*>(accBytes + i * sizeof(int32_t))));
        const __m128i hi =
            lane(_mm_loadu_si128(reinterpret_cast<const __m128i*>(accBytes + (i + 4) * sizeof(int32_t))));
        const __m128i words = _mm_packs_epi32(lo, hi);
        const __m128i bytes = _mm_packus_epi16(words, words);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out + i), bytes);
    }
    return i;
}

// Sixteen values at a time, on machines with AVX-512. (g++ 12's own
// conversion intrinsic trips its uninitialised-use warning.)
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
__attribute__((target("avx512f"))) inline __m256i requantizeLanesAvx512(__m256i acc, double scale, double offset) {
    __m512d x = _mm512_add_pd(_mm512_mul_pd(_mm512_cvtepi32_pd(acc), _mm512_set1_pd(scale)), _mm512_set1_pd(offset));
    x = _mm512_max_pd(x, _mm512_setzero_pd());
    x = _mm512_min_pd(x, _mm512_set1_pd(255.0));
    return _mm512_cvttpd_epi32(_mm512_add_pd(x, _mm512_set1_pd(0.5)));
}

__attribute__((target("avx512f"))) size_t requantizeAvx512(const uint8_t* accBytes, size_t n, double scale,
                                                           double offset, uint8_t* out) {
    size_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m256i lo = requantizeLanesAvx512(
            _mm256_loadu_si256(reinterpret_cast<const __m256i*>(accBytes + i * sizeof(int32_t))), scale, offset);
        const __m256i hi = requantizeLanesAvx512(
            _mm256_loadu_si256(reinterpret_cast<const __m256i*>(accBytes + (i + 8) * sizeof(int32_t))), scale, offset);
        const __m512i words = _mm512_inserti64x4(_mm512_castsi256_si512(lo), hi, 1);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), _mm512_cvtepi32_epi8(words));
    }
    return i;
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

bool haveAvx512() {
    static const bool have = __builtin_cpu_supports("avx512f");
    return have;
}

bool haveAvx2() {
    static const bool have = __builtin_cpu_supports("avx2");
    return have;
}
#endif

// out[i] = acc[i] * scale + offset rounded half up and clamped to
// [0, 255], exactly as roundClampU8 does. On x86-64 sixteen (AVX-512),
// eight (AVX2) or four (SSE2) values at a time: the same IEEE operations in
// the same order, never fused, so the same bytes.
void requantizeBytes(const uint8_t* accBytes, size_t n, const double scale, const double offset, uint8_t* out) {
    size_t i = 0;
#if defined(__x86_64__)
    if (haveAvx512()) {
        i = requantizeAvx512(accBytes, n, scale, offset, out);
    } else if (haveAvx2()) {
        i = requantizeAvx2(accBytes, n, scale, offset, out);
    }
#endif
#if defined(__SSE2__)
    const __m128d vScale = _mm_set1_pd(scale), vOffset = _mm_set1_pd(offset);
    const __m128d zero = _mm_setzero_pd(), top = _mm_set1_pd(255.0), half = _mm_set1_pd(0.5);
    auto lane = [&](__m128i acc) {
        __m128d x = _mm_add_pd(_mm_mul_pd(_mm_cvtepi32_pd(acc), vScale), vOffset);
        x = _mm_max_pd(x, zero);  // x > 0 ? x : 0, NaN included
        x = _mm_min_pd(x, top);
        return _mm_cvttpd_epi32(_mm_add_pd(x, half));
    };
    for (; i + 4 <= n; i += 4) {  // what the wider forms left
        const __m128i acc = _mm_loadu_si128(reinterpret_cast<const __m128i*>(accBytes + i * sizeof(int32_t)));
        const __m128i lo = lane(acc), hi = lane(_mm_srli_si128(acc, 8));
        const __m128i words = _mm_unpacklo_epi64(lo, hi);
        const __m128i bytes = _mm_packus_epi16(_mm_packs_epi32(words, words), words);
        const int32_t four = _mm_cvtsi128_si32(bytes);
        std::memcpy(out + i, &four, sizeof(four));
    }
#endif
    for (; i < n; ++i) {
        int32_t acc = 0;
        std::memcpy(&acc, accBytes + i * sizeof(int32_t), sizeof(acc));
        out[i] = roundClampU8(acc * scale + offset);
    }
}

// Output 0 as the int32 array the products are written into directly (the
// value buffers come from operator new, aligned for any scalar type).
bool accumulatorOutput(Run& r, const Dims4& dims, int32_t** acc) {
    uint8_t* out = nullptr;
    if (!r.output(0, dims, 4, &out)) return false;
    *acc = reinterpret_cast<int32_t*>(out);
    return true;
}

// The range outputs of a 32-bit result of accumulator step `step`.
bool writeStep32(Run& r, double step) {
    float lo = 0.0f, hi = 0.0f;
    rangeOfStep32(step, &lo, &hi);
    return r.writeRange(lo, hi);
}

bool writeAccumulator(Run& r, const Dims4& dims, const std::vector<int32_t>& acc, double step) {
    uint8_t* out = nullptr;
    if (!r.output(0, dims, 4, &out)) return false;
    std::memcpy(out, acc.data(), acc.size() * sizeof(int32_t));
    float lo = 0.0f, hi = 0.0f;
    rangeOfStep32(step, &lo, &hi);
    return r.writeRange(lo, hi);
}

bool executeWindowProduct(const char* name, bool depthwise, const NodeDesc& node,
                          const std::vector<const Tensor*>& inputs, std::vector<Tensor>& outputs, std::string* error) {
    Run r(name, inputs, outputs, error);
    Affine8 ain, af;
    if (!(r.counts(kWindowInputs, 3) && r.value(kIn, 1) && r.value(kFilter, 1) && r.range8(kInMin, kInMax, &ain) &&
          r.range8(kFilterMin, kFilterMax, &af))) {
        return false;
    }
    const Dims4 stride = r.dimsOf(kStride);
    kernels::ConvShape s;
    const std::string why = windowGeometry(r.dimsOf(kIn), r.dimsOf(kFilter), stride.d[1], stride.d[2],
                                           node.padding == ZEL_NN_PAD_SAME, depthwise, &s);
    if (!why.empty()) return r.fail(why);
    const Dims4 outDims(s.batches, s.outH, s.outW, s.outD);
    int32_t* acc = nullptr;
    if (!accumulatorOutput(r, outDims, &acc)) return false;
    const uint32_t taps = depthwise ? kernels::depthwiseTaps(s) : kernels::convTaps(s);
    const uint8_t* in = r.in(kIn).data.data();
    const uint8_t* filter = r.in(kFilter).data.data();
    double step = 0.0;
    if (kernels::integerSumsFit(taps, ain, af)) {
        step = ain.step * af.step;
        if (depthwise) {
            kernels::depthwiseInteger(s, in, ain, filter, af, acc);
        } else {
            kernels::convInteger(s, in, ain, filter, af, acc);
        }
    } else {
        step = kernels::productStep(taps, ain, af);
        if (depthwise) {
            kernels::depthwiseReference(s, in, ain, filter, af, step, acc);
        } else {
            kernels::convReference(s, in, ain, filter, af, step, acc);
        }
    }
    return writeStep32(r, step);
}

// Matrix product inputs.
enum MatMulInput : size_t { kMmIn = 0, kMmWeights, kMmInMin, kMmInMax, kMmWMin, kMmWMax, kMatMulInputs };

// Rows and the expected result dims of a product of `in` by weights (1, 1,
// depth, units); the result keeps the output record's own dims as long as
// they hold rows x units values with depth units.
std::string matmulGeometry(const Dims4& in, const Dims4& weights, const Dims4& out, uint32_t* rows) {
    std::ostringstream why;
    if (weights.d[0] != 1 || weights.d[1] != 1 || weights.d[2] == 0 || weights.d[3] == 0) {
        why << "weights must have dims 1x1xDEPTHxUNITS, got " << weights.str();
        return why.str();
    }
    const uint32_t depth = weights.d[2];
    if (in.count() % depth != 0) {
        why << "input " << in.str() << " does not split into rows of the weights depth " << depth;
        return why.str();
    }
    *rows = in.count() / depth;
    if (out.d[3] != weights.d[3] || out.count() != static_cast<uint64_t>(*rows) * weights.d[3]) {
        why << "output " << out.str() << " must hold " << *rows << " rows of " << weights.d[3] << " units";
        return why.str();
    }
    return "";
}

// Bias addition and requantization inputs.
enum BiasInput : size_t { kAcc = 0, kBias, kAccMin, kAccMax, kBiasMin, kBiasMax, kBiasInputs };
enum RequantizeInput : size_t { kRqIn = 0, kRqInMin, kRqInMax, kRqOutMin, kRqOutMax, kRequantizeInputs };

// Elementwise inputs.
enum ElementwiseInput : size_t { kA = 0, kB, kAMin, kAMax, kBMin, kBMax, kElementwiseInputs };

std::string validateElementwise(const char* name, const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    Validator v(name, node, inputs);
    if (!(v.inputCount(kElementwiseInputs) && v.noPadding() && v.value(kA, "a", 1) && v.value(kB, "b", 1) &&
          v.scalarFloat(kAMin, "a min") && v.scalarFloat(kAMax, "a max") && v.scalarFloat(kBMin, "b min") &&
          v.scalarFloat(kBMax, "b max"))) {
        return v.result();
    }
    Dims4 out;
    if (!broadcastDims(v.arg(kA).dims, v.arg(kB).dims, &out)) {
        v.fail("inputs " + v.arg(kA).dims.str() + " and " + v.arg(kB).dims.str() + " do not broadcast");
        return v.result();
    }
    v.quantOutputs(out, 4);
    return v.result();
}

// a + sign * b, on the real values, in a 32-bit result whose step is the
// power of two that leaves the largest possible magnitude just under 2^30.
bool executeElementwise(const char* name, double sign, const std::vector<const Tensor*>& inputs,
                        std::vector<Tensor>& outputs, std::string* error) {
    Run r(name, inputs, outputs, error);
    Affine8 aa, ab;
    if (!(r.counts(kElementwiseInputs, 3) && r.value(kA, 1) && r.value(kB, 1) && r.range8(kAMin, kAMax, &aa) &&
          r.range8(kBMin, kBMax, &ab))) {
        return false;
    }
    Dims4 outDims;
    if (!broadcastDims(r.dimsOf(kA), r.dimsOf(kB), &outDims)) {
        return r.fail("inputs " + r.dimsOf(kA).str() + " and " + r.dimsOf(kB).str() + " do not broadcast");
    }
    const double bound = aa.maxAbs() + ab.maxAbs();
    int exponent = 0;
    std::frexp(bound, &exponent);  // bound < 2^exponent
    const double step = std::ldexp(1.0, exponent - 30);
    double va[256], vb[256];
    for (uint32_t q = 0; q < 256; ++q) {
        va[q] = aa.value(q);
        vb[q] = sign * ab.value(q);
    }
    const uint8_t* a = r.in(kA).data.data();
    const uint8_t* b = r.in(kB).data.data();
    std::vector<int32_t> acc(outDims.count());
    forEachBroadcast(outDims, r.dimsOf(kA), r.dimsOf(kB), [&](uint32_t o, uint32_t ia, uint32_t ib) {
        acc[o] = static_cast<int32_t>(std::round((va[a[ia]] + vb[b[ib]]) / step));
    });
    return writeAccumulator(r, outDims, acc, step);
}

}  // namespace

std::string validateConv(const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    return validateWindowProduct(kConv, false, node, inputs);
}

bool executeConv(const NodeDesc& node, const std::vector<const Tensor*>& inputs, std::vector<Tensor>& outputs,
                 std::string* error) {
    return executeWindowProduct(kConv, false, node, inputs, outputs, error);
}

std::string validateDepthwise(const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    return validateWindowProduct(kDepthwise, true, node, inputs);
}

bool executeDepthwise(const NodeDesc& node, const std::vector<const Tensor*>& inputs, std::vector<Tensor>& outputs,
                      std::string* error) {
    return executeWindowProduct(kDepthwise, true, node, inputs, outputs, error);
}

std::string validateMatMul(const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    Validator v(kMatMul, node, inputs);
    if (!(v.inputCount(kMatMulInputs) && v.noPadding() && v.value(kMmIn, "input", 1) &&
          v.constData(kMmWeights, "weights", 1) && v.scalarFloat(kMmInMin, "input min") &&
          v.scalarFloat(kMmInMax, "input max") && v.scalarFloat(kMmWMin, "weights min") &&
          v.scalarFloat(kMmWMax, "weights max") && v.outputCount(3))) {
        return v.result();
    }
    uint32_t rows = 0;
    const Dims4 out = v.outputDims(0);
    const std::string why = matmulGeometry(v.arg(kMmIn).dims, v.arg(kMmWeights).dims, out, &rows);
    if (!why.empty()) {
        v.fail(why);
        return v.result();
    }
    v.quantOutputs(out, 4);
    return v.result();
}

bool executeMatMul(const NodeDesc&, const std::vector<const Tensor*>& inputs, std::vector<Tensor>& outputs,
                   std::string* error) {
    Run r(kMatMul, inputs, outputs, error);
    Affine8 ain, aw;
    if (!(r.counts(kMatMulInputs, 3) && r.value(kMmIn, 1) && r.value(kMmWeights, 1) &&
          r.range8(kMmInMin, kMmInMax, &ain) && r.range8(kMmWMin, kMmWMax, &aw))) {
        return false;
    }
    const Tensor& o = outputs[0];
    const Dims4 outDims(o.dims[0], o.dims[1], o.dims[2], o.dims[3]);
    const Dims4 w = r.dimsOf(kMmWeights);
    uint32_t rows = 0;
    const std::string why = matmulGeometry(r.dimsOf(kMmIn), w, outDims, &rows);
    if (!why.empty()) return r.fail(why);
    const uint32_t depth = w.d[2];
    const uint32_t units = w.d[3];
    int32_t* acc = nullptr;
    if (!accumulatorOutput(r, outDims, &acc)) return false;
    const uint8_t* in = r.in(kMmIn).data.data();
    const uint8_t* weights = r.in(kMmWeights).data.data();
    double step = 0.0;
    if (kernels::integerSumsFit(depth, ain, aw)) {
        step = ain.step * aw.step;
        kernels::matmulInteger(rows, depth, units, in, ain, weights, aw, acc);
    } else {
        step = kernels::productStep(depth, ain, aw);
        kernels::matmulReference(rows, depth, units, in, ain, weights, aw, step, acc);
    }
    return writeStep32(r, step);
}

std::string validateBiasAdd(const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    Validator v(kBiasAdd, node, inputs);
    if (!(v.inputCount(kBiasInputs) && v.noPadding() && v.value(kAcc, "accumulator", 4) && v.value(kBias, "bias", 4) &&
          v.scalarFloat(kAccMin, "accumulator min") && v.scalarFloat(kAccMax, "accumulator max") &&
          v.scalarFloat(kBiasMin, "bias min") && v.scalarFloat(kBiasMax, "bias max"))) {
        return v.result();
    }
    const Dims4 acc = v.arg(kAcc).dims;
    if (v.arg(kBias).dims.count() != acc.d[3]) {
        std::ostringstream s;
        s << "bias holds " << v.arg(kBias).dims.count() << " values, the accumulator depth is " << acc.d[3];
        v.fail(s.str());
        return v.result();
    }
    v.quantOutputs(acc, 4);
    return v.result();
}

// acc * stepA + bias * stepB. When both steps are equal (the usual case:
// the host's bias scale is the product of the input and filter scales) and
// the sums fit, the result is the exact integer sum with the same step;
// otherwise the step is doubled until the largest sum fits and the real
// sums are rounded to it.
bool executeBiasAdd(const NodeDesc&, const std::vector<const Tensor*>& inputs, std::vector<Tensor>& outputs,
                    std::string* error) {
    Run r(kBiasAdd, inputs, outputs, error);
    double stepA = 0.0, stepB = 0.0;
    if (!(r.counts(kBiasInputs, 3) && r.value(kAcc, 4) && r.value(kBias, 4) && r.range32(kAccMin, kAccMax, &stepA) &&
          r.range32(kBiasMin, kBiasMax, &stepB))) {
        return false;
    }
    const Dims4 dims = r.dimsOf(kAcc);
    const uint32_t depth = dims.d[3];
    if (r.dimsOf(kBias).count() != depth) return r.fail("bias length does not match the accumulator depth");
    const uint32_t n = dims.count();
    const uint32_t pixels = n / depth;
    std::vector<int32_t> bias(depth);
    std::memcpy(bias.data(), r.in(kBias).data.data(), sizeof(int32_t) * depth);
    const uint8_t* accBytes = r.in(kAcc).data.data();
    uint8_t* outBytes = nullptr;
    if (!r.output(0, dims, 4, &outBytes)) return false;

    // One pass: the integer sums are written while the largest accumulator
    // magnitudes are found; they stand when the step does not grow (the
    // usual case), otherwise a second pass writes the rounded real sums.
    int64_t maxBias = 0;
    for (int32_t b : bias) maxBias = std::max(maxBias, b < 0 ? -static_cast<int64_t>(b) : b);
    std::mutex maxMutex;
    int64_t maxAcc = 0;
    // The accumulator and the result are int32 arrays in their buffers
    // (written as such by the kernels), read and written in place.
    const int32_t* accIn = reinterpret_cast<const int32_t*>(accBytes);
    int32_t* sums = reinterpret_cast<int32_t*>(outBytes);
    parallel::parallelFor(pixels, 64, [&](size_t begin, size_t end) {
        std::vector<int32_t> his(depth, 0), los(depth, 0);
        zelsim_loops::addBias(accIn + begin * depth, bias.data(), depth, end - begin, sums + begin * depth, his.data(),
                              los.data());
        int32_t hi = 0, lo = 0;
        for (uint32_t c = 0; c < depth; ++c) {
            hi = std::max(hi, his[c]);
            lo = std::min(lo, los[c]);
        }
        const int64_t rangeMax = std::max<int64_t>(hi, -static_cast<int64_t>(lo));
        std::lock_guard<std::mutex> lock(maxMutex);
        maxAcc = std::max(maxAcc, rangeMax);
    });
    const bool sameStep = std::fabs(stepA - stepB) <= 1e-6 * stepA;
    const double step =
        accumulatorStep(stepA, static_cast<double>(maxAcc) * stepA + static_cast<double>(maxBias) * stepB);
    if (!(sameStep && step == stepA)) {
        for (uint32_t p = 0; p < pixels; ++p) {
            for (uint32_t c = 0; c < depth; ++c) {
                const size_t i = static_cast<size_t>(p) * depth + c;
                int32_t a = 0;
                std::memcpy(&a, accBytes + i * sizeof(int32_t), sizeof(int32_t));
                const double real = a * stepA + bias[c] * stepB;
                const int32_t v =
                    static_cast<int32_t>(std::min(std::max(std::round(real / step), -kInt32Max - 1.0), kInt32Max));
                std::memcpy(outBytes + i * sizeof(int32_t), &v, sizeof(int32_t));
            }
        }
    }
    float lo = 0.0f, hi = 0.0f;
    rangeOfStep32(step, &lo, &hi);
    return r.writeRange(lo, hi);
}

std::string validateRequantize(const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    Validator v(kRequantize, node, inputs);
    if (v.inputCount(kRequantizeInputs) && v.noPadding() && v.value(kRqIn, "accumulator", 4) &&
        v.scalarFloat(kRqInMin, "accumulator min") && v.scalarFloat(kRqInMax, "accumulator max") &&
        v.scalarFloat(kRqOutMin, "output min") && v.scalarFloat(kRqOutMax, "output max")) {
        v.quantOutputs(v.arg(kRqIn).dims, 1);
    }
    return v.result();
}

bool executeRequantize(const NodeDesc&, const std::vector<const Tensor*>& inputs, std::vector<Tensor>& outputs,
                       std::string* error) {
    Run r(kRequantize, inputs, outputs, error);
    double step = 0.0;
    Affine8 target;
    float lo = 0.0f, hi = 0.0f;
    if (!(r.counts(kRequantizeInputs, 3) && r.value(kRqIn, 4) && r.range32(kRqInMin, kRqInMax, &step) &&
          r.range8(kRqOutMin, kRqOutMax, &target) && r.scalarFloat(kRqOutMin, &lo) && r.scalarFloat(kRqOutMax, &hi))) {
        return false;
    }
    const Dims4 dims = r.dimsOf(kRqIn);
    uint8_t* out = nullptr;
    if (!r.output(0, dims, 1, &out)) return false;
    const uint32_t n = dims.count();
    const uint8_t* src = r.in(kRqIn).data.data();
    // position = acc * step / outStep + offset, the two factors folded once.
    const double scale = step / target.step;
    const double offset = target.position(0.0);
    parallel::parallelFor(n, 4096, [src, out, scale, offset](size_t begin, size_t end) {
        requantizeBytes(src + begin * sizeof(int32_t), end - begin, scale, offset, out + begin);
    });
    return r.writeRange(lo, hi);
}

std::string validateAdd(const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    return validateElementwise(kAdd, node, inputs);
}

bool executeAdd(const NodeDesc&, const std::vector<const Tensor*>& inputs, std::vector<Tensor>& outputs,
                std::string* error) {
    return executeElementwise(kAdd, 1.0, inputs, outputs, error);
}

std::string validateSub(const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    return validateElementwise(kSub, node, inputs);
}

bool executeSub(const NodeDesc&, const std::vector<const Tensor*>& inputs, std::vector<Tensor>& outputs,
                std::string* error) {
    return executeElementwise(kSub, -1.0, inputs, outputs, error);
}

}  // namespace detail
}  // namespace zelsim
