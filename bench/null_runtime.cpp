// A runtime that keeps nothing, for the memory benchmark: every entry point
// succeeds, constant data is read (summed, so the bytes are really touched)
// and then forgotten. With it on the loader path, the heap that a
// preparation holds is the plug-in's own; the runtime's copies of the
// constants are left out by construction. Built as
// <build>/bench/nullrt/libzel_kestrel_runtime.so (same file name as the
// real runtime, which the plug-in opens by that name).
#include <atomic>
#include <cstdint>

#include "zel_kestrel_runtime.h"

#define ZEL_NULL_EXPORT __attribute__((visibility("default")))

namespace {

std::atomic<int> gNextGraph{1};
std::atomic<uint64_t> gConstantBytes{0};
std::atomic<uint32_t> gChecksum{0};

}  // namespace

extern "C" {

// Constant bytes handed over since the library was loaded (a marker that
// also tells the benchmark which runtime the plug-in opened).
ZEL_NULL_EXPORT uint64_t zel_bench_null_runtime_bytes(void) {
    return gConstantBytes.load();
}

ZEL_NULL_EXPORT int kestrel_zel_nn_config(void) {
    return 0;
}

ZEL_NULL_EXPORT int kestrel_zel_nn_version(int* version) {
    if (version == nullptr) return -1;
    *version = 0x20100;
    return 0;
}

ZEL_NULL_EXPORT int kestrel_zel_nn_init(int* graph_id) {
    if (graph_id == nullptr) return -1;
    *graph_id = gNextGraph++;
    return 0;
}

ZEL_NULL_EXPORT int kestrel_zel_nn_set_config_params(int, kestrel_zel_nn_config_enum, void*) {
    return 0;
}

ZEL_NULL_EXPORT int kestrel_zel_nn_set_debug_level(int, int) {
    return 0;
}

ZEL_NULL_EXPORT int kestrel_zel_nn_getlog(int, unsigned char* buf, unsigned int length) {
    if (buf != nullptr && length > 0) buf[0] = 0;
    return 0;
}

ZEL_NULL_EXPORT int kestrel_zel_nn_snpprint(int, unsigned char* buf, unsigned int length) {
    if (buf != nullptr && length > 0) buf[0] = 0;
    return 0;
}

ZEL_NULL_EXPORT int kestrel_zel_nn_append_node(int, unsigned int, zel_op_type_enum, int, const kestrel_zel_nn_input*,
                                               unsigned int, const kestrel_zel_nn_output*, unsigned int) {
    return 0;
}

ZEL_NULL_EXPORT int kestrel_zel_nn_append_const_node(int, unsigned int, unsigned int, unsigned int, unsigned int,
                                                     unsigned int, const unsigned char* data, unsigned int data_len) {
    if (data == nullptr && data_len > 0) return -1;
    uint32_t sum = 0;
    for (unsigned int i = 0; i < data_len; ++i) sum = sum * 31u + data[i];
    gChecksum += sum;
    gConstantBytes += data_len;
    return 0;
}

ZEL_NULL_EXPORT int kestrel_zel_nn_prepare(int) {
    return 0;
}

ZEL_NULL_EXPORT int kestrel_zel_nn_execute_new(int, const kestrel_zel_nn_tensordef*, unsigned int,
                                               kestrel_zel_nn_tensordef*, unsigned int) {
    return 0;
}

ZEL_NULL_EXPORT int kestrel_zel_nn_execute(int, unsigned int, unsigned int, unsigned int, unsigned int,
                                           const unsigned char*, unsigned int, unsigned int*, unsigned int*,
                                           unsigned int*, unsigned int*, unsigned char*, unsigned int, unsigned int*) {
    return -1;
}

ZEL_NULL_EXPORT int kestrel_zel_nn_teardown(int) {
    return 0;
}

}  // extern "C"
