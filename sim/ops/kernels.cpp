#include "kernels.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "library_gemm.h"
#include "parallel.h"
#include "vector_loops.h"

namespace zelsim {
namespace kernels {

namespace {

constexpr double kInt32Max = 2147483647.0;

// Real value of every byte under one range.
struct ValueTable {
    double v[256];
    explicit ValueTable(const Affine8& a) {
        for (uint32_t q = 0; q < 256; ++q) v[q] = a.value(q);
    }
};

int32_t toAccumulator(double sum, double step) {
    double x = std::round(sum / step);
    // The step was chosen so that the sum fits; the clamp only guards
    // against the last bit of floating-point error.
    x = std::min(std::max(x, -kInt32Max - 1.0), kInt32Max);
    return static_cast<int32_t>(x);
}

// (q - zero) of every byte, in 16 bits.
std::vector<int16_t> centered(const uint8_t* q, size_t n, int32_t zero) {
    std::vector<int16_t> r(n);
    for (size_t i = 0; i < n; ++i) r[i] = static_cast<int16_t>(static_cast<int32_t>(q[i]) - zero);
    return r;
}

// First tap index (of `taps`) whose input position o * stride + k - pad lies
// in [0, in), and one past the last.
void tapRange(uint32_t o, uint32_t stride, uint32_t pad, uint32_t taps, uint32_t in, uint32_t* first, uint32_t* last) {
    const int64_t origin = static_cast<int64_t>(o) * stride - pad;
    const int64_t lo = std::max<int64_t>(0, -origin);
    const int64_t hi = std::min<int64_t>(taps, static_cast<int64_t>(in) - origin);
    *first = static_cast<uint32_t>(lo);
    *last = static_cast<uint32_t>(std::max(lo, hi));
}

// Pixels whose im2col rows are built and multiplied at a time.
constexpr uint32_t kPixelBlock = 32;

}  // namespace

uint32_t convTaps(const ConvShape& s) {
    return s.fH * s.fW * s.inD;
}

uint32_t depthwiseTaps(const ConvShape& s) {
    return s.fH * s.fW;
}

double productStep(uint32_t taps, const Affine8& a, const Affine8& b) {
    return detail::accumulatorStep(a.step * b.step, static_cast<double>(taps) * a.maxAbs() * b.maxAbs());
}

bool integerSumsFit(uint32_t taps, const Affine8& a, const Affine8& b) {
    if (!a.integral || !b.integral) return false;
    const double ma = std::max(std::fabs(static_cast<double>(a.zero)), std::fabs(255.0 - a.zero));
    const double mb = std::max(std::fabs(static_cast<double>(b.zero)), std::fabs(255.0 - b.zero));
    return static_cast<double>(taps) * ma * mb <= kInt32Max;
}

// ---------------------------------------------------------------------------
// Reference forms: the definitions, written as plainly as possible.

void convReference(const ConvShape& s, const uint8_t* in, const Affine8& ain, const uint8_t* filter, const Affine8& af,
                   double step, int32_t* out) {
    const ValueTable vi(ain);
    const ValueTable vf(af);
    for (uint32_t b = 0; b < s.batches; ++b) {
        for (uint32_t oy = 0; oy < s.outH; ++oy) {
            for (uint32_t ox = 0; ox < s.outW; ++ox) {
                for (uint32_t o = 0; o < s.outD; ++o) {
                    double sum = 0.0;
                    for (uint32_t ky = 0; ky < s.fH; ++ky) {
                        const int64_t iy = static_cast<int64_t>(oy) * s.strideH + ky - s.padTop;
                        if (iy < 0 || iy >= s.inH) continue;
                        for (uint32_t kx = 0; kx < s.fW; ++kx) {
                            const int64_t ix = static_cast<int64_t>(ox) * s.strideW + kx - s.padLeft;
                            if (ix < 0 || ix >= s.inW) continue;
                            const uint8_t* px = in + ((static_cast<size_t>(b) * s.inH + iy) * s.inW + ix) * s.inD;
                            for (uint32_t c = 0; c < s.inD; ++c) {
                                const size_t fi = ((static_cast<size_t>(ky) * s.fW + kx) * s.inD + c) * s.outD + o;
                                sum += vi.v[px[c]] * vf.v[filter[fi]];
                            }
                        }
                    }
                    const size_t oi = ((static_cast<size_t>(b) * s.outH + oy) * s.outW + ox) * s.outD + o;
                    out[oi] = toAccumulator(sum, step);
                }
            }
        }
    }
}

void depthwiseReference(const ConvShape& s, const uint8_t* in, const Affine8& ain, const uint8_t* filter,
                        const Affine8& af, double step, int32_t* out) {
    const ValueTable vi(ain);
    const ValueTable vf(af);
    for (uint32_t b = 0; b < s.batches; ++b) {
        for (uint32_t oy = 0; oy < s.outH; ++oy) {
            for (uint32_t ox = 0; ox < s.outW; ++ox) {
                for (uint32_t c = 0; c < s.inD; ++c) {
                    for (uint32_t m = 0; m < s.mult; ++m) {
                        const uint32_t o = c * s.mult + m;
                        double sum = 0.0;
                        for (uint32_t ky = 0; ky < s.fH; ++ky) {
                            const int64_t iy = static_cast<int64_t>(oy) * s.strideH + ky - s.padTop;
                            if (iy < 0 || iy >= s.inH) continue;
                            for (uint32_t kx = 0; kx < s.fW; ++kx) {
                                const int64_t ix = static_cast<int64_t>(ox) * s.strideW + kx - s.padLeft;
                                if (ix < 0 || ix >= s.inW) continue;
                                const size_t ii = ((static_cast<size_t>(b) * s.inH + iy) * s.inW + ix) * s.inD + c;
                                const size_t fi = (static_cast<size_t>(ky) * s.fW + kx) * s.outD + o;
                                sum += vi.v[in[ii]] * vf.v[filter[fi]];
                            }
                        }
                        const size_t oi = ((static_cast<size_t>(b) * s.outH + oy) * s.outW + ox) * s.outD + o;
                        out[oi] = toAccumulator(sum, step);
                    }
                }
            }
        }
    }
}

void matmulReference(uint32_t rows, uint32_t depth, uint32_t units, const uint8_t* in, const Affine8& ain,
                     const uint8_t* weights, const Affine8& aw, double step, int32_t* out) {
    const ValueTable vi(ain);
    const ValueTable vw(aw);
    for (uint32_t r = 0; r < rows; ++r) {
        for (uint32_t u = 0; u < units; ++u) {
            double sum = 0.0;
            for (uint32_t k = 0; k < depth; ++k) {
                sum += vi.v[in[static_cast<size_t>(r) * depth + k]] * vw.v[weights[static_cast<size_t>(k) * units + u]];
            }
            out[static_cast<size_t>(r) * units + u] = toAccumulator(sum, step);
        }
    }
}

// ---------------------------------------------------------------------------
// Integer forms.

namespace {

// The inner loops below run over contiguous columns in chunks of kLanes
// with a fixed trip count, each chunk through its own pointers, then a
// scalar tail. With restrict-qualified parameters (the rows never overlap)
// and 16-bit factors (16x16->32 widening products) this is what lets -O2
// vectorize them on every target without intrinsics.
constexpr uint32_t kLanes = 16;

// c[r][j] += x[r] * b[j] for four rows r and n columns.
void axpy4(uint32_t n, const int16_t* __restrict b, int16_t x0, int16_t x1, int16_t x2, int16_t x3,
           int32_t* __restrict c0, int32_t* __restrict c1, int32_t* __restrict c2, int32_t* __restrict c3) {
    uint32_t j = 0;
    for (; j + kLanes <= n; j += kLanes) {
        const int16_t* bj = b + j;
        int32_t* d0 = c0 + j;
        int32_t* d1 = c1 + j;
        int32_t* d2 = c2 + j;
        int32_t* d3 = c3 + j;
        for (uint32_t t = 0; t < kLanes; ++t) {
            const int16_t w = bj[t];
            d0[t] += x0 * w;
            d1[t] += x1 * w;
            d2[t] += x2 * w;
            d3[t] += x3 * w;
        }
    }
    for (; j < n; ++j) {
        const int16_t w = b[j];
        c0[j] += x0 * w;
        c1[j] += x1 * w;
        c2[j] += x2 * w;
        c3[j] += x3 * w;
    }
}

// c[j] += x * b[j].
void axpy1(uint32_t n, const int16_t* __restrict b, int16_t x, int32_t* __restrict c) {
    uint32_t j = 0;
    for (; j + kLanes <= n; j += kLanes) {
        const int16_t* bj = b + j;
        int32_t* cj = c + j;
        for (uint32_t t = 0; t < kLanes; ++t) cj[t] += x * bj[t];
    }
    for (; j < n; ++j) c[j] += x * b[j];
}

}  // namespace

// Columns are taken kColumnBlock at a time so that the slice of B they
// read (depth x kColumnBlock 16-bit values) stays in cache while every row
// of A passes over it; four rows of A at a time share each loaded row of
// that slice. Products of two 16-bit values need 31 bits; the caller's
// bound keeps every sum within int32.
void gemmS16(uint32_t rows, uint32_t depth, uint32_t cols, const int16_t* a, const int16_t* b, size_t ldb, int32_t* c,
             size_t ldc) {
    constexpr uint32_t kColumnBlock = 64;
    for (uint32_t j0 = 0; j0 < cols; j0 += kColumnBlock) {
        const uint32_t n = std::min(kColumnBlock, cols - j0);
        const int16_t* bj = b + j0;
        uint32_t r = 0;
        for (; r + 4 <= rows; r += 4) {
            const int16_t* a0 = a + static_cast<size_t>(r) * depth;
            int32_t* c0 = c + r * ldc + j0;
            for (uint32_t i = 0; i < 4; ++i) std::memset(c0 + i * ldc, 0, sizeof(int32_t) * n);
            for (uint32_t k = 0; k < depth; ++k) {
                const int16_t x0 = a0[k], x1 = a0[depth + k], x2 = a0[2 * depth + k], x3 = a0[3 * depth + k];
                if ((x0 | x1 | x2 | x3) == 0) continue;
                axpy4(n, bj + k * ldb, x0, x1, x2, x3, c0, c0 + ldc, c0 + 2 * ldc, c0 + 3 * ldc);
            }
        }
        for (; r < rows; ++r) {
            const int16_t* ar = a + static_cast<size_t>(r) * depth;
            int32_t* cr = c + r * ldc + j0;
            std::memset(cr, 0, sizeof(int32_t) * n);
            for (uint32_t k = 0; k < depth; ++k) {
                if (ar[k] != 0) axpy1(n, bj + k * ldb, ar[k], cr);
            }
        }
    }
}

namespace {

// Weights of one product (depth x cols, cols fastest) made ready for the
// chosen path once per node, then shared read-only by every thread.
//
// Library path (oneDNN's u8 x s8 -> s32 GEMM): the bytes are shifted by
// 128 into signed 8 bits and the offset becomes zero - 128, so that
// (shifted - offset) is exactly w - zero (-255..255); the input bytes keep
// their own zero point as the GEMM's offset of A. Both offsets are applied
// inside the GEMM in integers, so every sum is the exact one. Used only
// when both zero points are byte values and the machine has the 8-bit dot
// product instructions (without them the library's intermediate 16-bit
// sums may saturate).
//
// Portable path: 16-bit (w - zero), multiplied by gemmS16.
class Product {
public:
    Product(const uint8_t* w, uint32_t depth, uint32_t cols, int32_t zeroIn, int32_t zeroW)
        : mDepth(depth), mCols(cols), mZeroIn(zeroIn), mZeroW(zeroW) {
        const size_t n = static_cast<size_t>(depth) * cols;
#ifdef ZELSIM_LIBRARY_KERNELS
        mLibrary = !parallel::portableKernels() && zeroIn >= 0 && zeroIn <= 255 && zeroW >= 0 && zeroW <= 255 &&
                   library::exactU8S8Gemm();
        if (mLibrary) {
            mShifted.resize(n);
            for (size_t i = 0; i < n; ++i) mShifted[i] = static_cast<int8_t>(static_cast<int32_t>(w[i]) - 128);
            return;
        }
#endif
        mCentered = centered(w, n, zeroW);
    }

    bool library() const {
        return mLibrary;
    }

    // The same product from 16-bit rows (a - zero) (portable path only).
    void runCentered(uint32_t rows, const int16_t* a, int32_t* c, size_t ldc) const {
        gemmS16(rows, mDepth, mCols, a, mCentered.data(), mCols, c, ldc);
    }

    // c (rows x cols, rows ldc apart) = product of `rows` input rows
    // (bytes, lda apart).
    void run(uint32_t rows, const uint8_t* a, size_t lda, int32_t* c, size_t ldc, std::vector<int16_t>& scratch) const {
        if (rows == 0) return;
#ifdef ZELSIM_LIBRARY_KERNELS
        if (mLibrary) {
            library::gemmU8S8(rows, mCols, mDepth, a, lda, static_cast<uint8_t>(mZeroIn), mShifted.data(), mCols,
                              static_cast<int8_t>(mZeroW - 128), c, ldc);
            return;
        }
#endif
        scratch.resize(static_cast<size_t>(rows) * mDepth);
        for (uint32_t r = 0; r < rows; ++r) {
            const uint8_t* src = a + r * lda;
            int16_t* dst = scratch.data() + static_cast<size_t>(r) * mDepth;
            for (uint32_t k = 0; k < mDepth; ++k) dst[k] = static_cast<int16_t>(static_cast<int32_t>(src[k]) - mZeroIn);
        }
        gemmS16(rows, mDepth, mCols, scratch.data(), mCentered.data(), mCols, c, ldc);
    }

private:
    uint32_t mDepth, mCols;
    int32_t mZeroIn;
    [[maybe_unused]] int32_t mZeroW;  // read by the library path only
    bool mLibrary = false;
    std::vector<int8_t> mShifted;
    std::vector<int16_t> mCentered;
};

// Rows handed to one GEMM call, and the smallest share of rows a thread
// takes.
constexpr uint32_t kGemmRows = 256;
constexpr size_t kRowGrain = 8;

}  // namespace

// Rows of the product are output pixels: a 1x1 stride-1 unpadded
// convolution reads the input pixels as they are; any other builds the
// window rows of each block of pixels (im2col) in bytes, where a tap outside
// the input holds the input's zero point (the byte of a real zero, which
// adds nothing). A zero point outside 0..255 takes the 16-bit rows instead.
void convInteger(const ConvShape& s, const uint8_t* in, const Affine8& ain, const uint8_t* filter, const Affine8& af,
                 int32_t* out) {
    const uint32_t taps = convTaps(s);
    const Product product(filter, taps, s.outD, ain.zero, af.zero);
    const uint32_t pixels = s.outH * s.outW;
    const size_t total = static_cast<size_t>(s.batches) * pixels;
    const bool direct = s.fH == 1 && s.fW == 1 && s.strideH == 1 && s.strideW == 1 && s.padTop == 0 && s.padLeft == 0 &&
                        s.outH == s.inH && s.outW == s.inW;
    const bool byteRows = ain.zero >= 0 && ain.zero <= 255;
    const size_t imageSize = static_cast<size_t>(s.inH) * s.inW * s.inD;
    parallel::parallelFor(total, kRowGrain, [&](size_t begin, size_t end) {
        std::vector<int16_t> scratch;
        if (direct) {
            for (size_t p0 = begin; p0 < end; p0 += kGemmRows) {
                const uint32_t n = static_cast<uint32_t>(std::min<size_t>(kGemmRows, end - p0));
                product.run(n, in + p0 * s.inD, s.inD, out + p0 * s.outD, s.outD, scratch);
            }
            return;
        }
        const uint32_t block = product.library() ? kGemmRows : kPixelBlock;
        std::vector<uint8_t> bytes;
        std::vector<int16_t> wide;
        if (byteRows) {
            bytes.resize(static_cast<size_t>(block) * taps);
        } else {
            wide.resize(static_cast<size_t>(block) * taps);
        }
        for (size_t p0 = begin; p0 < end; p0 += block) {
            const uint32_t n = static_cast<uint32_t>(std::min<size_t>(block, end - p0));
            if (byteRows) {
                std::fill(bytes.begin(), bytes.begin() + static_cast<size_t>(n) * taps, static_cast<uint8_t>(ain.zero));
            } else {
                std::fill(wide.begin(), wide.begin() + static_cast<size_t>(n) * taps, int16_t{0});
            }
            for (uint32_t i = 0; i < n; ++i) {
                const size_t p = p0 + i;
                const uint8_t* image = in + (p / pixels) * imageSize;
                const uint32_t oy = static_cast<uint32_t>(p % pixels) / s.outW;
                const uint32_t ox = static_cast<uint32_t>(p % pixels) % s.outW;
                uint32_t y0, y1, x0, x1;
                tapRange(oy, s.strideH, s.padTop, s.fH, s.inH, &y0, &y1);
                tapRange(ox, s.strideW, s.padLeft, s.fW, s.inW, &x0, &x1);
                for (uint32_t ky = y0; ky < y1; ++ky) {
                    const uint32_t iy = oy * s.strideH + ky - s.padTop;
                    const uint32_t ix0 = ox * s.strideW + x0 - s.padLeft;
                    const uint8_t* src = image + (static_cast<size_t>(iy) * s.inW + ix0) * s.inD;
                    const size_t at = static_cast<size_t>(i) * taps + (static_cast<size_t>(ky) * s.fW + x0) * s.inD;
                    const size_t len = static_cast<size_t>(x1 - x0) * s.inD;
                    if (byteRows) {
                        std::memcpy(bytes.data() + at, src, len);
                    } else {
                        for (size_t c = 0; c < len; ++c) {
                            wide[at + c] = static_cast<int16_t>(static_cast<int32_t>(src[c]) - ain.zero);
                        }
                    }
                }
            }
            int32_t* dst = out + p0 * s.outD;
            if (byteRows) {
                product.run(n, bytes.data(), taps, dst, s.outD, scratch);
            } else {
                product.runCentered(n, wide.data(), dst, s.outD);
            }
        }
    });
}

void depthwiseInteger(const ConvShape& s, const uint8_t* in, const Affine8& ain, const uint8_t* filter,
                      const Affine8& af, int32_t* out) {
    const uint32_t taps = depthwiseTaps(s);
    const std::vector<int16_t> f = centered(filter, static_cast<size_t>(taps) * s.outD, af.zero);
    const size_t imageSize = static_cast<size_t>(s.inH) * s.inW * s.inD;
    // Threads take whole output rows; each centers the input rows it reads.
    const size_t outRows = static_cast<size_t>(s.batches) * s.outH;
    // One channel per input channel and stride 1 across: each tap adds a
    // contiguous run of the input row, times the tap's weights repeated
    // across the row, to a contiguous run of the output row.
    const bool rowWise = s.mult == 1 && s.strideW == 1;
    const size_t outRowSize = static_cast<size_t>(s.outW) * s.outD;
    std::vector<int16_t> tiled;
    if (rowWise) {
        tiled.resize(taps * outRowSize);
        for (uint32_t t = 0; t < taps; ++t) {
            for (uint32_t ox = 0; ox < s.outW; ++ox) {
                std::memcpy(tiled.data() + t * outRowSize + static_cast<size_t>(ox) * s.outD,
                            f.data() + static_cast<size_t>(t) * s.outD, sizeof(int16_t) * s.outD);
            }
        }
    }
    parallel::parallelFor(outRows, 1, [&](size_t begin, size_t end) {
        std::vector<int16_t> x(static_cast<size_t>(s.fH) * s.inW * s.inD);
        std::vector<int32_t> acc(s.outD);
        for (size_t row = begin; row < end; ++row) {
            const uint32_t b = static_cast<uint32_t>(row / s.outH);
            const uint32_t oy = static_cast<uint32_t>(row % s.outH);
            const uint8_t* image = in + b * imageSize;
            uint32_t y0, y1;
            tapRange(oy, s.strideH, s.padTop, s.fH, s.inH, &y0, &y1);
            const size_t rowSize = static_cast<size_t>(s.inW) * s.inD;
            for (uint32_t ky = y0; ky < y1; ++ky) {
                const uint8_t* src = image + (oy * s.strideH + ky - s.padTop) * rowSize;
                int16_t* dst = x.data() + ky * rowSize;
                for (size_t i = 0; i < rowSize; ++i)
                    dst[i] = static_cast<int16_t>(static_cast<int32_t>(src[i]) - ain.zero);
            }
            if (rowWise) {
                int32_t* o = out + row * outRowSize;
                // The first filter row writes the middle columns instead of
                // adding to them, so only the edges are cleared first.
                bool written = false;
                for (uint32_t ky = y0; ky < y1; ++ky) {
                    const int16_t* xr = x.data() + ky * rowSize;
                    const int16_t* fr = tiled.data() + static_cast<size_t>(ky) * s.fW * outRowSize;
                    // Output columns [lo, hi) whose tap kx lies inside the input.
                    auto columns = [&](uint32_t kx, int64_t* lo, int64_t* hi) {
                        *lo = std::max<int64_t>(0, static_cast<int64_t>(s.padLeft) - kx);
                        *hi = std::min<int64_t>(s.outW, static_cast<int64_t>(s.inW) + s.padLeft - kx);
                    };
                    // One tap over columns [from, to).
                    auto oneTap = [&](uint32_t kx, int64_t from, int64_t to) {
                        if (from >= to) return;
                        const size_t ix = static_cast<size_t>(from + kx - s.padLeft);
                        zelsim_loops::multiplyAdd(static_cast<uint32_t>((to - from) * s.outD), xr + ix * s.inD,
                                                  fr + kx * outRowSize, o + static_cast<size_t>(from) * s.outD);
                    };
                    if (s.fW == 3) {
                        // The columns all three taps reach in one pass; the
                        // edge columns tap by tap.
                        int64_t lo[3], hi[3];
                        for (uint32_t kx = 0; kx < 3; ++kx) columns(kx, &lo[kx], &hi[kx]);
                        const int64_t from = std::max({lo[0], lo[1], lo[2]});
                        const int64_t to = std::min({hi[0], hi[1], hi[2]});
                        if (from < to) {
                            const size_t ix = static_cast<size_t>(from - s.padLeft);
                            const uint32_t n = static_cast<uint32_t>((to - from) * s.outD);
                            int32_t* om = o + static_cast<size_t>(from) * s.outD;
                            if (!written) {
                                std::fill(o, om, 0);
                                std::fill(om + n, o + outRowSize, 0);
                                zelsim_loops::multiply3(n, xr + ix * s.inD, fr, xr + (ix + 1) * s.inD, fr + outRowSize,
                                                        xr + (ix + 2) * s.inD, fr + 2 * outRowSize, om);
                                written = true;
                            } else {
                                zelsim_loops::multiplyAdd3(n, xr + ix * s.inD, fr, xr + (ix + 1) * s.inD,
                                                           fr + outRowSize, xr + (ix + 2) * s.inD, fr + 2 * outRowSize,
                                                           om);
                            }
                            for (uint32_t kx = 0; kx < 3; ++kx) {
                                oneTap(kx, lo[kx], std::min(hi[kx], from));
                                oneTap(kx, std::max(lo[kx], to), hi[kx]);
                            }
                            continue;
                        }
                    }
                    if (!written) {
                        std::fill(o, o + outRowSize, 0);
                        written = true;
                    }
                    for (uint32_t kx = 0; kx < s.fW; ++kx) {
                        int64_t lo = 0, hi = 0;
                        columns(kx, &lo, &hi);
                        oneTap(kx, lo, hi);
                    }
                }
                if (!written) std::fill(o, o + outRowSize, 0);
                continue;
            }
            for (uint32_t ox = 0; ox < s.outW; ++ox) {
                uint32_t x0, x1;
                tapRange(ox, s.strideW, s.padLeft, s.fW, s.inW, &x0, &x1);
                int32_t* a = acc.data();
                std::fill(acc.begin(), acc.end(), 0);
                for (uint32_t ky = y0; ky < y1; ++ky) {
                    for (uint32_t kx = x0; kx < x1; ++kx) {
                        const uint32_t ix = ox * s.strideW + kx - s.padLeft;
                        const int16_t* px = x.data() + ky * rowSize + static_cast<size_t>(ix) * s.inD;
                        const int16_t* fk = f.data() + (static_cast<size_t>(ky) * s.fW + kx) * s.outD;
                        if (s.mult == 1) {
                            zelsim_loops::multiplyAdd(s.inD, px, fk, a);
                        } else {
                            for (uint32_t c = 0; c < s.inD; ++c) {
                                const int32_t v = px[c];
                                for (uint32_t m = 0; m < s.mult; ++m) a[c * s.mult + m] += v * fk[c * s.mult + m];
                            }
                        }
                    }
                }
                const size_t oi = (row * s.outW + ox) * s.outD;
                std::memcpy(out + oi, acc.data(), sizeof(int32_t) * s.outD);
            }
        }
    });
}

void matmulInteger(uint32_t rows, uint32_t depth, uint32_t units, const uint8_t* in, const Affine8& ain,
                   const uint8_t* weights, const Affine8& aw, int32_t* out) {
    if (ain.zero < 0 || ain.zero > 255) {
        const std::vector<int16_t> w = centered(weights, static_cast<size_t>(depth) * units, aw.zero);
        const std::vector<int16_t> x = centered(in, static_cast<size_t>(rows) * depth, ain.zero);
        gemmS16(rows, depth, units, x.data(), w.data(), out);
        return;
    }
    const Product product(weights, depth, units, ain.zero, aw.zero);
    parallel::parallelFor(rows, kRowGrain, [&](size_t begin, size_t end) {
        std::vector<int16_t> scratch;
        for (size_t r0 = begin; r0 < end; r0 += kGemmRows) {
            const uint32_t n = static_cast<uint32_t>(std::min<size_t>(kGemmRows, end - r0));
            product.run(n, in + r0 * depth, depth, out + r0 * units, units, scratch);
        }
    });
}

}  // namespace kernels
}  // namespace zelsim
