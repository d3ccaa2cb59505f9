// The simulator's innermost elementwise loops, written plainly for the
// compiler to run on vector lanes. On x86-64 (g++) each is also built for
// AVX2 and the loader picks the form the machine runs; both forms do the
// same integer operations, so the bytes never depend on the machine.
#pragma once

#include <cstddef>
#include <cstdint>

// Outside the zelsim namespace: the library exports zelsim::, and these
// multi-versioned functions must stay internal to it.
namespace zelsim_loops {

// out[i] = min(max(in[i], lo), hi).
void clampBytes(const uint8_t* in, size_t n, uint8_t lo, uint8_t hi, uint8_t* out);

// For `pixels` rows of `depth` values: sum[p][c] = acc[p][c] + bias[c]
// (wrapping); hi[c] / lo[c] take the largest and smallest acc[p][c] seen.
void addBias(const int32_t* acc, const int32_t* bias, uint32_t depth, size_t pixels, int32_t* sum, int32_t* hi,
             int32_t* lo);

// acc[j] += x[j] * f[j] (16-bit factors, 32-bit sums).
void multiplyAdd(uint32_t n, const int16_t* x, const int16_t* f, int32_t* acc);

// acc[j] += x0[j] * f0[j] + x1[j] * f1[j] + x2[j] * f2[j]: three taps of a
// row at once, one pass over the sums.
void multiplyAdd3(uint32_t n, const int16_t* x0, const int16_t* f0, const int16_t* x1, const int16_t* f1,
                  const int16_t* x2, const int16_t* f2, int32_t* acc);

// acc[j] = x0[j] * f0[j] + x1[j] * f1[j] + x2[j] * f2[j].
void multiply3(uint32_t n, const int16_t* x0, const int16_t* f0, const int16_t* x1, const int16_t* f1,
               const int16_t* x2, const int16_t* f2, int32_t* acc);

}  // namespace zelsim_loops
