// Graph ids, call recording and the entry points' answers to unknown graphs
// and null pointers.
#include <gtest/gtest.h>

#include <tuple>

#include "sim_test_util.h"

namespace {

using StoreTest = simtest::SimTest;

// Ids start at 1 and are not reused until reset; every call is recorded in
// order with its graph and result.
TEST_F(StoreTest, GraphIdsAndTheCallRecord) {
    int a = 0, b = 0, c = 0, version = 0;
    kestrel_zel_nn_version(&version);
    ASSERT_EQ(0, kestrel_zel_nn_init(&a));
    ASSERT_EQ(0, kestrel_zel_nn_init(&b));
    ASSERT_EQ(0, kestrel_zel_nn_teardown(a));
    ASSERT_EQ(0, kestrel_zel_nn_init(&c));
    EXPECT_EQ((std::vector<int>{1, 2, 3}), (std::vector<int>{a, b, c}));
    EXPECT_EQ(3, zelsim::lastGraphId());
    EXPECT_FALSE(zelsim::graphExists(a));
    EXPECT_EQ(2, zelsim::liveGraphs());
    kestrel_zel_nn_prepare(b);
    kestrel_zel_nn_teardown(a);
    const std::vector<std::tuple<std::string, int, int>> want = {
        {"version", -1, 0}, {"init", 1, 0},    {"init", 2, 0},      {"teardown", 1, 0},
        {"init", 3, 0},     {"prepare", 2, 0}, {"teardown", 1, -1},
    };
    const auto got = zelsim::calls();
    ASSERT_EQ(want.size(), got.size());
    for (size_t i = 0; i < want.size(); ++i) {
        EXPECT_EQ(want[i], std::make_tuple(got[i].entry, got[i].graphId, got[i].result)) << i;
    }
    EXPECT_EQ(2, zelsim::callCount("kestrel_zel_nn_teardown"));
    zelsim::reset();
    EXPECT_EQ(0, zelsim::liveGraphs());
    ASSERT_EQ(0, kestrel_zel_nn_init(&a));
    EXPECT_EQ(1, a);
}

// Every entry point that takes a graph refuses ids that are not alive.
TEST_F(StoreTest, UnknownGraphIdsAreRefusedEverywhere) {
    int torn = 0;
    ASSERT_EQ(0, kestrel_zel_nn_init(&torn));
    ASSERT_EQ(0, kestrel_zel_nn_teardown(torn));
    unsigned char buf[16];
    const kestrel_zel_nn_output out = simtest::rec(1, 1, 1, 4, 1);
    unsigned int u = 0;
    for (int id : {0, -3, 99, torn}) {
        SCOPED_TRACE(id);
        EXPECT_NE(0, kestrel_zel_nn_set_config_params(id, ZEL_NN_CONFIG_DEFAULT, nullptr));
        EXPECT_NE(0, kestrel_zel_nn_set_debug_level(id, 1));
        EXPECT_NE(0, kestrel_zel_nn_getlog(id, buf, sizeof(buf)));
        EXPECT_NE(0, kestrel_zel_nn_snpprint(id, buf, sizeof(buf)));
        EXPECT_NE(0, kestrel_zel_nn_append_node(id, 1, ZEL_OP_INPUT, 0, nullptr, 0, &out, 1));
        EXPECT_NE(0, kestrel_zel_nn_append_const_node(id, 1, 1, 1, 1, 1, buf, 4));
        EXPECT_NE(0, kestrel_zel_nn_prepare(id));
        EXPECT_NE(0, kestrel_zel_nn_execute_new(id, nullptr, 0, nullptr, 0));
        EXPECT_NE(0, kestrel_zel_nn_execute(id, 1, 1, 1, 1, buf, 1, &u, &u, &u, &u, buf, sizeof(buf), &u));
        EXPECT_NE(0, kestrel_zel_nn_teardown(id));
    }
    EXPECT_EQ(0, zelsim::liveGraphs());
}

TEST_F(StoreTest, NullPointersAreRefused) {
    EXPECT_NE(0, kestrel_zel_nn_version(nullptr));
    EXPECT_NE(0, kestrel_zel_nn_init(nullptr));
    EXPECT_EQ(0, zelsim::liveGraphs());
    simtest::Graph g;
    EXPECT_NE(0, kestrel_zel_nn_getlog(g.id(), nullptr, 10));
    EXPECT_NE(0, kestrel_zel_nn_snpprint(g.id(), nullptr, 10));
    EXPECT_NE(0, kestrel_zel_nn_append_node(g.id(), 1, ZEL_OP_INPUT, 0, nullptr, 0, nullptr, 2));
    EXPECT_NE(0, kestrel_zel_nn_append_node(g.id(), 2, ZEL_OP_OUTPUT, 0, nullptr, 1, nullptr, 0));
    const auto nodes = zelsim::nodes(g.id());
    ASSERT_EQ(2u, nodes.size());
    for (const auto& n : nodes) EXPECT_FALSE(n.accepted) << n.nodeId;
    ASSERT_EQ(0, g.prepare());
    unsigned char byte = 0;
    EXPECT_NE(
        0, kestrel_zel_nn_execute(g.id(), 1, 1, 1, 1, &byte, 1, nullptr, nullptr, nullptr, nullptr, &byte, 1, nullptr));
}

TEST_F(StoreTest, GetlogWritesTheLastErrorTruncatedAndTerminated) {
    simtest::Graph g;
    unsigned char buf[8];
    std::memset(buf, 0xAA, sizeof(buf));
    ASSERT_EQ(0, kestrel_zel_nn_getlog(g.id(), buf, sizeof(buf)));
    EXPECT_EQ(0, buf[0]);  // nothing went wrong yet
    ASSERT_NE(0, g.constant(0, 1, 1, 1, 1, {0, 0, 0, 0}));
    const std::string full = g.log();
    ASSERT_GT(full.size(), 8u);
    std::memset(buf, 0xAA, sizeof(buf));
    ASSERT_EQ(0, kestrel_zel_nn_getlog(g.id(), buf, 5));
    EXPECT_EQ(full.substr(0, 4), std::string(reinterpret_cast<char*>(buf)));
    EXPECT_EQ(0xAA, buf[5]);  // nothing written past `length`
    EXPECT_EQ(full, zelsim::lastError(g.id()));
}

// Nodes (their constant data copied during the append) and the last error
// of a torn-down graph stay readable: the plug-in tears a graph down right
// after a refusal.
TEST_F(StoreTest, TornDownGraphsStayObservableUntilReset) {
    int id = 0;
    ASSERT_EQ(0, kestrel_zel_nn_init(&id));
    std::vector<uint8_t> bytes = {1, 2, 3, 4, 5, 6, 7, 8};
    ASSERT_EQ(0, kestrel_zel_nn_append_const_node(id, 1, 1, 1, 2, 4, bytes.data(), 8));
    std::fill(bytes.begin(), bytes.end(), 0);
    const kestrel_zel_nn_input in{7, 0};
    ASSERT_NE(0, kestrel_zel_nn_append_node(id, 2, ZEL_OP_OUTPUT, 0, &in, 1, nullptr, 0));
    const std::string error = zelsim::lastError(id);
    ASSERT_EQ(0, kestrel_zel_nn_teardown(id));
    EXPECT_FALSE(zelsim::graphExists(id));
    const auto nodes = zelsim::nodes(id);
    ASSERT_EQ(2u, nodes.size());
    EXPECT_TRUE(nodes[0].isConst);
    EXPECT_EQ((std::vector<uint8_t>{1, 2, 3, 4, 5, 6, 7, 8}), nodes[0].data);
    EXPECT_EQ(error, zelsim::lastError(id));
    EXPECT_NE("", zelsim::renderText(id));
    zelsim::reset();
    EXPECT_TRUE(zelsim::nodes(id).empty());
    EXPECT_EQ("", zelsim::lastError(id));
}

}  // namespace
