// oneDNN's 8-bit GEMM behind the simulator's integer products (builds
// configured with ZELSIM_ACCUMULATE=onednn only).
#pragma once

#ifdef ZELSIM_LIBRARY_KERNELS

#include <cstddef>
#include <cstdint>

namespace zelsim {
namespace kernels {
namespace library {

// True when the library's u8 x s8 -> s32 GEMM sums exactly on this machine:
// it runs on the 8-bit dot product instructions, which add every product
// into 32 bits (older instruction sets pass through saturating 16-bit
// sums).
bool exactU8S8Gemm();

// c (m x n, rows ldc apart) = sum_k (a[i][k] - ao) * (b[k][j] - bo), row-major,
// on the calling thread only.
void gemmU8S8(uint32_t m, uint32_t n, uint32_t k, const uint8_t* a, size_t lda, uint8_t ao, const int8_t* b, size_t ldb,
              int8_t bo, int32_t* c, size_t ldc);

}  // namespace library
}  // namespace kernels
}  // namespace zelsim

#endif
