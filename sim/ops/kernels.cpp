#include "kernels.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

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

// acc[j] += x[j] * f[j].
void multiplyAdd(uint32_t n, const int16_t* __restrict x, const int16_t* __restrict f, int32_t* __restrict acc) {
    uint32_t j = 0;
    for (; j + kLanes <= n; j += kLanes) {
        const int16_t* xj = x + j;
        const int16_t* fj = f + j;
        int32_t* aj = acc + j;
        for (uint32_t t = 0; t < kLanes; ++t) aj[t] += xj[t] * fj[t];
    }
    for (; j < n; ++j) acc[j] += x[j] * f[j];
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
void gemmS16(uint32_t rows, uint32_t depth, uint32_t cols, const int16_t* a, const int16_t* b, int32_t* c) {
    constexpr uint32_t kColumnBlock = 64;
    for (uint32_t j0 = 0; j0 < cols; j0 += kColumnBlock) {
        const uint32_t n = std::min(kColumnBlock, cols - j0);
        const int16_t* bj = b + j0;
        uint32_t r = 0;
        for (; r + 4 <= rows; r += 4) {
            const int16_t* a0 = a + static_cast<size_t>(r) * depth;
            int32_t* c0 = c + static_cast<size_t>(r) * cols + j0;
            for (uint32_t i = 0; i < 4; ++i) std::memset(c0 + i * cols, 0, sizeof(int32_t) * n);
            for (uint32_t k = 0; k < depth; ++k) {
                const int16_t x0 = a0[k], x1 = a0[depth + k], x2 = a0[2 * depth + k], x3 = a0[3 * depth + k];
                if ((x0 | x1 | x2 | x3) == 0) continue;
                axpy4(n, bj + static_cast<size_t>(k) * cols, x0, x1, x2, x3, c0, c0 + cols, c0 + 2 * cols,
                      c0 + 3 * cols);
            }
        }
        for (; r < rows; ++r) {
            const int16_t* ar = a + static_cast<size_t>(r) * depth;
            int32_t* cr = c + static_cast<size_t>(r) * cols + j0;
            std::memset(cr, 0, sizeof(int32_t) * n);
            for (uint32_t k = 0; k < depth; ++k) {
                if (ar[k] != 0) axpy1(n, bj + static_cast<size_t>(k) * cols, ar[k], cr);
            }
        }
    }
}

void convInteger(const ConvShape& s, const uint8_t* in, const Affine8& ain, const uint8_t* filter, const Affine8& af,
                 int32_t* out) {
    const uint32_t taps = convTaps(s);
    const std::vector<int16_t> f = centered(filter, static_cast<size_t>(taps) * s.outD, af.zero);
    const uint32_t pixels = s.outH * s.outW;
    const uint32_t block = std::min(pixels, kPixelBlock);
    // im2col rows of one block: taps outside the input hold the centered
    // image of a real zero, which is 0.
    std::vector<int16_t> cols(static_cast<size_t>(block) * taps);
    const size_t rowBytes = static_cast<size_t>(s.inD);
    for (uint32_t b = 0; b < s.batches; ++b) {
        const uint8_t* image = in + static_cast<size_t>(b) * s.inH * s.inW * s.inD;
        for (uint32_t p0 = 0; p0 < pixels; p0 += block) {
            const uint32_t n = std::min(block, pixels - p0);
            std::fill(cols.begin(), cols.begin() + static_cast<size_t>(n) * taps, int16_t{0});
            for (uint32_t i = 0; i < n; ++i) {
                const uint32_t oy = (p0 + i) / s.outW;
                const uint32_t ox = (p0 + i) % s.outW;
                uint32_t y0, y1, x0, x1;
                tapRange(oy, s.strideH, s.padTop, s.fH, s.inH, &y0, &y1);
                tapRange(ox, s.strideW, s.padLeft, s.fW, s.inW, &x0, &x1);
                int16_t* row = cols.data() + static_cast<size_t>(i) * taps;
                for (uint32_t ky = y0; ky < y1; ++ky) {
                    const uint32_t iy = oy * s.strideH + ky - s.padTop;
                    for (uint32_t kx = x0; kx < x1; ++kx) {
                        const uint32_t ix = ox * s.strideW + kx - s.padLeft;
                        const uint8_t* src = image + (static_cast<size_t>(iy) * s.inW + ix) * rowBytes;
                        int16_t* dst = row + (static_cast<size_t>(ky) * s.fW + kx) * s.inD;
                        for (uint32_t c = 0; c < s.inD; ++c) {
                            dst[c] = static_cast<int16_t>(static_cast<int32_t>(src[c]) - ain.zero);
                        }
                    }
                }
            }
            int32_t* dst = out + (static_cast<size_t>(b) * pixels + p0) * s.outD;
            gemmS16(n, taps, s.outD, cols.data(), f.data(), dst);
        }
    }
}

void depthwiseInteger(const ConvShape& s, const uint8_t* in, const Affine8& ain, const uint8_t* filter,
                      const Affine8& af, int32_t* out) {
    const uint32_t taps = depthwiseTaps(s);
    const std::vector<int16_t> f = centered(filter, static_cast<size_t>(taps) * s.outD, af.zero);
    const size_t imageSize = static_cast<size_t>(s.inH) * s.inW * s.inD;
    std::vector<int16_t> x(imageSize);
    std::vector<int32_t> acc(s.outD);
    for (uint32_t b = 0; b < s.batches; ++b) {
        const uint8_t* image = in + b * imageSize;
        for (size_t i = 0; i < imageSize; ++i) {
            x[i] = static_cast<int16_t>(static_cast<int32_t>(image[i]) - ain.zero);
        }
        for (uint32_t oy = 0; oy < s.outH; ++oy) {
            uint32_t y0, y1;
            tapRange(oy, s.strideH, s.padTop, s.fH, s.inH, &y0, &y1);
            for (uint32_t ox = 0; ox < s.outW; ++ox) {
                uint32_t x0, x1;
                tapRange(ox, s.strideW, s.padLeft, s.fW, s.inW, &x0, &x1);
                int32_t* a = acc.data();
                std::fill(acc.begin(), acc.end(), 0);
                for (uint32_t ky = y0; ky < y1; ++ky) {
                    const uint32_t iy = oy * s.strideH + ky - s.padTop;
                    for (uint32_t kx = x0; kx < x1; ++kx) {
                        const uint32_t ix = ox * s.strideW + kx - s.padLeft;
                        const int16_t* px = x.data() + (static_cast<size_t>(iy) * s.inW + ix) * s.inD;
                        const int16_t* fk = f.data() + (static_cast<size_t>(ky) * s.fW + kx) * s.outD;
                        if (s.mult == 1) {
                            multiplyAdd(s.inD, px, fk, a);
                        } else {
                            for (uint32_t c = 0; c < s.inD; ++c) {
                                const int32_t v = px[c];
                                for (uint32_t m = 0; m < s.mult; ++m) a[c * s.mult + m] += v * fk[c * s.mult + m];
                            }
                        }
                    }
                }
                const size_t oi = ((static_cast<size_t>(b) * s.outH + oy) * s.outW + ox) * s.outD;
                std::memcpy(out + oi, acc.data(), sizeof(int32_t) * s.outD);
            }
        }
    }
}

void matmulInteger(uint32_t rows, uint32_t depth, uint32_t units, const uint8_t* in, const Affine8& ain,
                   const uint8_t* weights, const Affine8& aw, int32_t* out) {
    const std::vector<int16_t> w = centered(weights, static_cast<size_t>(depth) * units, aw.zero);
    const std::vector<int16_t> x = centered(in, static_cast<size_t>(rows) * depth, ain.zero);
    gemmS16(rows, depth, units, x.data(), w.data(), out);
}

}  // namespace kernels
}  // namespace zelsim
