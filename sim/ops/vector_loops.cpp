#include "vector_loops.h"

#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
#define ZELSIM_VECTOR_CLONES __attribute__((target_clones("avx2", "default")))
#else
#define ZELSIM_VECTOR_CLONES
#endif

// Outside the zelsim namespace: the library exports zelsim::, and these
// multi-versioned functions must stay internal to it.
namespace zelsim_loops {

ZELSIM_VECTOR_CLONES
void clampBytes(const uint8_t* __restrict in, size_t n, uint8_t lo, uint8_t hi, uint8_t* __restrict out) {
    for (size_t i = 0; i < n; ++i) {
        const uint8_t v = in[i] < lo ? lo : in[i];
        out[i] = v > hi ? hi : v;
    }
}

ZELSIM_VECTOR_CLONES
void addBias(const int32_t* __restrict acc, const int32_t* __restrict bias, uint32_t depth, size_t pixels,
             int32_t* __restrict sum, int32_t* __restrict hi, int32_t* __restrict lo) {
    for (size_t p = 0; p < pixels; ++p) {
        const int32_t* a = acc + p * depth;
        int32_t* s = sum + p * depth;
        for (uint32_t c = 0; c < depth; ++c) {
            hi[c] = a[c] > hi[c] ? a[c] : hi[c];
            lo[c] = a[c] < lo[c] ? a[c] : lo[c];
            s[c] = static_cast<int32_t>(static_cast<uint32_t>(a[c]) + static_cast<uint32_t>(bias[c]));
        }
    }
}

ZELSIM_VECTOR_CLONES
void multiplyAdd(uint32_t n, const int16_t* __restrict x, const int16_t* __restrict f, int32_t* __restrict acc) {
    for (uint32_t j = 0; j < n; ++j) acc[j] += x[j] * f[j];
}

ZELSIM_VECTOR_CLONES
void multiplyAdd3(uint32_t n, const int16_t* __restrict x0, const int16_t* __restrict f0, const int16_t* __restrict x1,
                  const int16_t* __restrict f1, const int16_t* __restrict x2, const int16_t* __restrict f2,
                  int32_t* __restrict acc) {
    for (uint32_t j = 0; j < n; ++j) acc[j] += x0[j] * f0[j] + x1[j] * f1[j] + x2[j] * f2[j];
}

ZELSIM_VECTOR_CLONES
void multiply3(uint32_t n, const int16_t* __restrict x0, const int16_t* __restrict f0, const int16_t* __restrict x1,
               const int16_t* __restrict f1, const int16_t* __restrict x2, const int16_t* __restrict f2,
               int32_t* __restrict acc) {
    for (uint32_t j = 0; j < n; ++j) acc[j] = x0[j] * f0[j] + x1[j] * f1[j] + x2[j] * f2[j];
}

}  // namespace zelsim_loops
