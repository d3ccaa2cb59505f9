// Soak: ten thousand create / execute / release cycles of the demo model.
// Resident memory must stay flat; the figures are printed. The voting delays
// are shortened: with the production 5 s grace period a fast build queues
// every vote of the last 5 s (a bounded window, not a leak), which would
// hide a real leak behind the queue's growth. Under the sanitizers (whose allocators keep freed
// memory on purpose) only the leak check at exit applies.
#include <gtest/gtest.h>

#include <cstdio>

#include "reliability_support.h"
#include "zel_test_peers.h"
#include "zelsim/control.h"

using namespace arv::nnhal;
using namespace arv::nnhal::host;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

constexpr int kWarmUp = 300;
constexpr int kCycles = 10000;
// The simulator records every call; it is reset this often so that its
// own record does not count as growth.
constexpr int kSimulatorResetEvery = 250;

struct Counts {
    int createFailures = 0;
    int executeFailures = 0;
    int wrongOutputs = 0;
};

void cycle(IAccelerator& accelerator, LoadedModel& model, bool compare, Counts& counts) {
    HostExecutorContext context;
    const CreateExecutorResult created = accelerator.createGraphExecutor(model.graph.get(), &context);
    if (created.executor == nullptr) {
        ++counts.createFailures;
        return;
    }
    IoBuffers buffers = makeBuffers(model);
    if (executeBound(*model.graph, *created.executor, buffers).status != Status::SUCCESS) {
        ++counts.executeFailures;
    } else if (compare && !compareOutputs(model, buffers.outputs).matched()) {
        ++counts.wrongOutputs;
    }
    created.executor->release();
}

TEST(Soak, TenThousandCyclesKeepResidentMemoryFlat) {
    zelsim::reset();
    reltest::useShortVotingDelays(std::chrono::milliseconds(1), std::chrono::milliseconds(60));
    reltest::freshRuntime();
    reltest::Accelerator accelerator;
    LoadedModel model = reltest::loadDemoModel();
    ASSERT_TRUE(model.graph);

    Counts counts;
    for (int i = 0; i < kWarmUp; ++i) {
        if (i % kSimulatorResetEvery == 0) zelsim::reset();
        cycle(*accelerator, model, false, counts);
    }
    zelsim::reset();
    const uint64_t start = reltest::residentKiB();
    uint64_t half = 0;
    for (int i = 1; i <= kCycles; ++i) {
        if (i % kSimulatorResetEvery == 0) {
            EXPECT_EQ(zelsim::liveGraphs(), 0);
            zelsim::reset();
        }
        cycle(*accelerator, model, i % 500 == 0, counts);
        if (i == kCycles / 2) half = reltest::residentKiB();
    }
    const uint64_t end = reltest::residentKiB();
    std::printf("resident memory: %llu KiB after %d warm-up cycles, %llu KiB after %d more, %llu KiB after %d%s\n",
                static_cast<unsigned long long>(start), kWarmUp, static_cast<unsigned long long>(half), kCycles / 2,
                static_cast<unsigned long long>(end), kCycles, kSanitized ? " (sanitizer build: not judged)" : "");

    arv::nnhal::zel::NnLibTestPeer::setDelays(arv::nnhal::zel::VotingThread::Delays{});

    EXPECT_EQ(counts.createFailures, 0);
    EXPECT_EQ(counts.executeFailures, 0);
    EXPECT_EQ(counts.wrongOutputs, 0);
    EXPECT_EQ(zelsim::liveGraphs(), 0);
    ASSERT_GT(start, 0u);
    if (!kSanitized) {
        // Flat: a leak of even 100 bytes a cycle would show as about 1 MiB.
        EXPECT_LT(end, start + 1024) << "grew by " << (end - start) << " KiB";
        EXPECT_LT(end, half + 512) << "second half grew by " << (end - half) << " KiB";
    }
}

}  // namespace
