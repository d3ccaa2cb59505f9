// The simulator's worker threads and the choice of accumulation path.
//
// One small pool lives for the whole process: its threads wait on a
// condition variable between nodes, so no node ever creates a thread. A
// node splits its work into ranges with parallelFor(); the calling thread
// takes the first range itself. Every range writes its own part of the
// output, so the bytes never depend on the thread count.
#pragma once

#include <cstddef>
#include <functional>

namespace zelsim {
namespace parallel {

// Threads a node may use now (at least 1).
unsigned threadCount();

// Calls fn(begin, end) over [0, count) split into at most threadCount()
// contiguous ranges of whole multiples of `grain` (the last may be
// shorter), concurrently, and returns when all are done. Runs fn(0, count)
// on the calling thread when one range is enough, or when the pool is
// already busy with another call (another graph executing, or a nested
// call).
void parallelFor(size_t count, size_t grain, const std::function<void(size_t begin, size_t end)>& fn);

// True when the 8-bit products take the portable loops (always in a build
// without the library path).
bool portableKernels();

}  // namespace parallel
}  // namespace zelsim
