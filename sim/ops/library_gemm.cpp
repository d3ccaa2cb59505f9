#include "library_gemm.h"

#ifdef ZELSIM_LIBRARY_KERNELS

#include <omp.h>

#include "oneapi/dnnl/dnnl.h"

namespace zelsim {
namespace kernels {
namespace library {

bool exactU8S8Gemm() {
    static const bool exact = [] {
        const unsigned isa = static_cast<unsigned>(dnnl_get_effective_cpu_isa());
        const unsigned avx512Vnni = static_cast<unsigned>(dnnl_cpu_isa_avx512_core_vnni);
        const unsigned avx2Vnni = static_cast<unsigned>(dnnl_cpu_isa_avx2_vnni);
        return (isa & avx512Vnni) == avx512Vnni || (isa & avx2Vnni) == avx2Vnni;
    }();
    return exact;
}

void gemmU8S8(uint32_t m, uint32_t n, uint32_t k, const uint8_t* a, size_t lda, uint8_t ao, const int8_t* b, size_t ldb,
              int8_t bo, int32_t* c, size_t ldc) {
    // The simulator's own threads split the work: the library's OpenMP team
    // is held to one thread for the call, so the two never oversubscribe
    // the cores. The caller's setting is put back (the calling thread may
    // be the host's, with OpenMP work of its own).
    const int previous = omp_get_max_threads();
    if (previous != 1) omp_set_num_threads(1);
    const int32_t noOffset = 0;
    const dnnl_status_t status =
        dnnl_gemm_u8s8s32('N', 'N', 'F', m, n, k, 1.0f, a, static_cast<dnnl_dim_t>(lda), ao, b,
                          static_cast<dnnl_dim_t>(ldb), bo, 0.0f, c, static_cast<dnnl_dim_t>(ldc), &noOffset);
    if (previous != 1) omp_set_num_threads(previous);
    if (status == dnnl_success) return;
    // The library refused (it never should with these arguments): the same
    // sums, plainly.
    for (uint32_t i = 0; i < m; ++i) {
        for (uint32_t j = 0; j < n; ++j) {
            int32_t sum = 0;
            for (uint32_t q = 0; q < k; ++q) {
                sum += (static_cast<int32_t>(a[i * lda + q]) - ao) * (static_cast<int32_t>(b[q * ldb + j]) - bo);
            }
            c[i * ldc + j] = sum;
        }
    }
}

}  // namespace library
}  // namespace kernels
}  // namespace zelsim

#endif
