// Several threads build, run and tear down graphs of their own at once.
// Bounded by work, not time: a few hundred graphs per thread.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "sim_test_util.h"

namespace {

using simtest::rec;

constexpr int kThreads = 4;
constexpr int kGraphsPerThread = 200;

// Returns the number of failures seen by this thread.
int worker(int seed) {
    int failures = 0;
    for (int i = 0; i < kGraphsPerThread; ++i) {
        int id = 0;
        if (kestrel_zel_nn_init(&id) != 0) return failures + 1;
        const kestrel_zel_nn_output out = rec(1, 1, 2, 2, 1);
        const kestrel_zel_nn_input refs[2] = {{1, 0}, {2, 0}};
        const uint8_t constBytes[4] = {static_cast<uint8_t>(seed), 1, 2, 3};
        failures += kestrel_zel_nn_append_node(id, 1, ZEL_OP_INPUT, 0, nullptr, 0, &out, 1) != 0;
        failures += kestrel_zel_nn_append_const_node(id, 2, 1, 1, 2, 2, constBytes, 4) != 0;
        failures += kestrel_zel_nn_append_node(id, 3, ZEL_OP_OUTPUT, 0, refs, 2, nullptr, 0) != 0;
        failures += kestrel_zel_nn_prepare(id) != 0;
        uint8_t in[4] = {static_cast<uint8_t>(i), 0, 0, static_cast<uint8_t>(seed)};
        uint8_t o0[4] = {}, o1[4] = {};
        kestrel_zel_nn_tensordef input = simtest::tensor(1, 1, 2, 2, in, 4);
        kestrel_zel_nn_tensordef outs[2] = {simtest::tensor(1, 1, 2, 2, o0, 4), simtest::tensor(1, 1, 2, 2, o1, 4)};
        failures += kestrel_zel_nn_execute_new(id, &input, 1, outs, 2) != 0;
        failures += std::memcmp(in, o0, 4) != 0 || std::memcmp(constBytes, o1, 4) != 0;
        unsigned char text[256];
        failures += kestrel_zel_nn_snpprint(id, text, sizeof(text)) != 0;
        failures += kestrel_zel_nn_teardown(id) != 0;
        (void)zelsim::nodes(id);
        (void)zelsim::liveGraphs();
    }
    return failures;
}

TEST(SimStress, ThreadsWorkOnTheirOwnGraphs) {
    zelsim::reset();
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) threads.emplace_back([t, &failures] { failures += worker(t + 1); });
    for (auto& t : threads) t.join();
    EXPECT_EQ(0, failures.load());
    EXPECT_EQ(0, zelsim::liveGraphs());
    EXPECT_EQ(kThreads * kGraphsPerThread, zelsim::lastGraphId());  // every id handed out once
    EXPECT_EQ(kThreads * kGraphsPerThread, zelsim::callCount("init"));
    zelsim::reset();
}

}  // namespace
