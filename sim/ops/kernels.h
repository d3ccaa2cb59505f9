// Accumulating 8x8->32 kernels: convolution, depthwise convolution and
// matrix product. Each has a reference form (real values summed in double,
// then divided by the accumulator step and rounded) and an integer form
// (exact int32 sums of (q - zero) products) used when both zero points are
// integers and the sums provably fit. The two agree exactly wherever the
// integer form applies; tests hold them to that.
#pragma once

#include <cstddef>
#include <cstdint>

#include "op_support.h"

namespace zelsim {
namespace kernels {

using detail::Affine8;

// Geometry of a window product. Input NHWC, output NHWC; the filter of a
// convolution is (fh, fw, inD, outD) with outD fastest, that of a depthwise
// convolution (fh, fw, inD, mult) where output channel c * mult + m reads
// input channel c. Taps outside the input read a real zero.
struct ConvShape {
    uint32_t batches = 1;
    uint32_t inH = 1, inW = 1, inD = 1;
    uint32_t fH = 1, fW = 1;
    uint32_t outD = 1;  // convolution: filter depth; depthwise: inD * mult
    uint32_t mult = 1;  // depthwise only
    uint32_t strideH = 1, strideW = 1;
    uint32_t outH = 1, outW = 1;
    uint32_t padTop = 0, padLeft = 0;
};

// Number of products summed into one output value.
uint32_t convTaps(const ConvShape& s);
uint32_t depthwiseTaps(const ConvShape& s);

// The accumulator step for sums of `taps` products of values of a and b:
// a.step * b.step, doubled until the largest possible sum fits in int32.
double productStep(uint32_t taps, const Affine8& a, const Affine8& b);

// True when the integer form is exact and cannot overflow: both zero points
// are integers and taps * max|q - zero_a| * max|q - zero_b| <= 2^31 - 1.
bool integerSumsFit(uint32_t taps, const Affine8& a, const Affine8& b);

// Reference forms: out = round(sum of real products / step).
void convReference(const ConvShape& s, const uint8_t* in, const Affine8& ain, const uint8_t* filter, const Affine8& af,
                   double step, int32_t* out);
void depthwiseReference(const ConvShape& s, const uint8_t* in, const Affine8& ain, const uint8_t* filter,
                        const Affine8& af, double step, int32_t* out);
// in: rows x depth; weights: depth x units (units fastest); out: rows x units.
void matmulReference(uint32_t rows, uint32_t depth, uint32_t units, const uint8_t* in, const Affine8& ain,
                     const uint8_t* weights, const Affine8& aw, double step, int32_t* out);

// Integer forms; the caller checked integerSumsFit and uses step =
// ain.step * af.step. They give exactly the sums of (q - zero) products.
void convInteger(const ConvShape& s, const uint8_t* in, const Affine8& ain, const uint8_t* filter, const Affine8& af,
                 int32_t* out);
void depthwiseInteger(const ConvShape& s, const uint8_t* in, const Affine8& ain, const uint8_t* filter,
                      const Affine8& af, int32_t* out);
void matmulInteger(uint32_t rows, uint32_t depth, uint32_t units, const uint8_t* in, const Affine8& ain,
                   const uint8_t* weights, const Affine8& aw, int32_t* out);

// C (rows x cols) = A (rows x depth) * B (depth x cols), 16-bit operands,
// 32-bit sums; the caller guarantees the sums fit. B's rows are `ldb`
// values apart, C's `ldc`.
void gemmS16(uint32_t rows, uint32_t depth, uint32_t cols, const int16_t* a, const int16_t* b, size_t ldb, int32_t* c,
             size_t ldc);
inline void gemmS16(uint32_t rows, uint32_t depth, uint32_t cols, const int16_t* a, const int16_t* b, int32_t* c) {
    gemmS16(rows, depth, cols, a, b, cols, c, cols);
}

}  // namespace kernels
}  // namespace zelsim
