// Heap benchmark: the peak of the heap that the plug-in holds while it
// prepares a graph, measured with a counting operator new / delete in this
// program. The program is linked with the plug-in's code but not with a
// runtime: run it with the null runtime (<build>/bench/nullrt) first on
// LD_LIBRARY_PATH, which reads every constant and keeps nothing, so the
// runtime's copies of the constants are not in the count.
//
// usage: zel_bench_memory GRAPH...
// Prints one line per graph:
//   graph=... largest=<largest constant> peak=<peak during preparation>
//   retained=<held by the prepared executor> handed=<constant bytes the
//   runtime received>
// all in bytes, relative to the heap in use just before createGraphExecutor.
#include <dlfcn.h>

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "bench_support.h"

namespace {

std::atomic<uint64_t> gCurrent{0};
std::atomic<uint64_t> gPeak{0};

void account(uint64_t bytes) {
    const uint64_t now = gCurrent.fetch_add(bytes) + bytes;
    uint64_t peak = gPeak.load();
    while (now > peak && !gPeak.compare_exchange_weak(peak, now)) {
    }
}

// Each block carries its size in a header of `align` bytes just before the
// address handed out.
void* countedAlloc(std::size_t size, std::size_t align) {
    if (align < alignof(std::max_align_t)) align = alignof(std::max_align_t);
    void* block = nullptr;
    if (posix_memalign(&block, align, size + align) != 0) return nullptr;
    char* user = static_cast<char*>(block) + align;
    const uint64_t recorded = size;
    std::memcpy(user - sizeof(recorded), &recorded, sizeof(recorded));
    account(size);
    return user;
}

void countedFree(void* pointer, std::size_t align) {
    if (pointer == nullptr) return;
    if (align < alignof(std::max_align_t)) align = alignof(std::max_align_t);
    char* user = static_cast<char*>(pointer);
    uint64_t recorded = 0;
    std::memcpy(&recorded, user - sizeof(recorded), sizeof(recorded));
    gCurrent.fetch_sub(recorded);
    std::free(user - align);
}

void* throwingAlloc(std::size_t size, std::size_t align) {
    void* p = countedAlloc(size, align);
    if (p == nullptr) throw std::bad_alloc();
    return p;
}

}  // namespace

void* operator new(std::size_t size) {
    return throwingAlloc(size, 0);
}
void* operator new[](std::size_t size) {
    return throwingAlloc(size, 0);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return countedAlloc(size, 0);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return countedAlloc(size, 0);
}
void* operator new(std::size_t size, std::align_val_t align) {
    return throwingAlloc(size, static_cast<std::size_t>(align));
}
void* operator new[](std::size_t size, std::align_val_t align) {
    return throwingAlloc(size, static_cast<std::size_t>(align));
}
void* operator new(std::size_t size, std::align_val_t align, const std::nothrow_t&) noexcept {
    return countedAlloc(size, static_cast<std::size_t>(align));
}
void* operator new[](std::size_t size, std::align_val_t align, const std::nothrow_t&) noexcept {
    return countedAlloc(size, static_cast<std::size_t>(align));
}
void operator delete(void* p) noexcept {
    countedFree(p, 0);
}
void operator delete[](void* p) noexcept {
    countedFree(p, 0);
}
void operator delete(void* p, std::size_t) noexcept {
    countedFree(p, 0);
}
void operator delete[](void* p, std::size_t) noexcept {
    countedFree(p, 0);
}
void operator delete(void* p, const std::nothrow_t&) noexcept {
    countedFree(p, 0);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept {
    countedFree(p, 0);
}
void operator delete(void* p, std::align_val_t align) noexcept {
    countedFree(p, static_cast<std::size_t>(align));
}
void operator delete[](void* p, std::align_val_t align) noexcept {
    countedFree(p, static_cast<std::size_t>(align));
}
void operator delete(void* p, std::size_t, std::align_val_t align) noexcept {
    countedFree(p, static_cast<std::size_t>(align));
}
void operator delete[](void* p, std::size_t, std::align_val_t align) noexcept {
    countedFree(p, static_cast<std::size_t>(align));
}
void operator delete(void* p, std::align_val_t align, const std::nothrow_t&) noexcept {
    countedFree(p, static_cast<std::size_t>(align));
}
void operator delete[](void* p, std::align_val_t align, const std::nothrow_t&) noexcept {
    countedFree(p, static_cast<std::size_t>(align));
}

namespace {

using NullBytesFn = uint64_t (*)();

// The null runtime's byte counter, or null when the plug-in opened another
// runtime (whose copies would then be counted).
NullBytesFn nullRuntimeCounter() {
    void* handle = dlopen("libzel_kestrel_runtime.so", RTLD_LAZY | RTLD_NOLOAD);
    if (handle == nullptr) return nullptr;
    void* symbol = dlsym(handle, "zel_bench_null_runtime_bytes");
    dlclose(handle);
    NullBytesFn fn = nullptr;
    static_assert(sizeof(fn) == sizeof(symbol), "function and object pointers differ in size");
    std::memcpy(&fn, &symbol, sizeof(fn));
    return fn;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: zel_bench_memory GRAPH...\n");
        return 2;
    }
    // First use: the controller opens the runtime and starts its thread.
    {
        std::unique_ptr<zelbench::HostGraph> warm = zelbench::makeGraph("chain:2");
        arv::nnhal::IGraphExecutor* executor = zelbench::prepare(*warm);
        if (executor == nullptr) return 1;
        executor->release();
    }
    const NullBytesFn handedOver = nullRuntimeCounter();
    if (handedOver == nullptr) {
        std::fprintf(stderr,
                     "the plug-in did not open the null runtime: put <build>/bench/nullrt first on "
                     "LD_LIBRARY_PATH\n");
        return 1;
    }

    for (int a = 1; a < argc; ++a) {
        std::unique_ptr<zelbench::HostGraph> graph = zelbench::makeGraph(argv[a]);
        if (!graph) return 2;
        const uint64_t largest = zelbench::largestConstant(*graph);
        const uint64_t handedBefore = handedOver();
        const uint64_t base = gCurrent.load();
        gPeak.store(base);
        arv::nnhal::IGraphExecutor* executor = zelbench::prepare(*graph);
        if (executor == nullptr) return 1;
        const uint64_t peak = gPeak.load() - base;
        const int64_t retained = static_cast<int64_t>(gCurrent.load()) - static_cast<int64_t>(base);
        const uint64_t handed = handedOver() - handedBefore;
        executor->release();
        std::printf("graph=%s largest=%llu peak=%llu retained=%lld handed=%llu\n", argv[a],
                    static_cast<unsigned long long>(largest), static_cast<unsigned long long>(peak),
                    static_cast<long long>(retained), static_cast<unsigned long long>(handed));
    }
    return 0;
}
