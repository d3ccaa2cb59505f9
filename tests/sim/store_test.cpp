// Graph ids, call recording, the control API and the entry points' answers
// to unknown graphs and null pointers.
#include <gtest/gtest.h>

#include <tuple>

#include "sim_test_util.h"

namespace {

using simtest::SimTest;

using StoreTest = SimTest;

TEST_F(StoreTest, GraphIdsStartAtOneAndAreNeverReusedUntilReset) {
    int a = 0, b = 0, c = 0;
    ASSERT_EQ(0, kestrel_zel_nn_init(&a));
    ASSERT_EQ(0, kestrel_zel_nn_init(&b));
    EXPECT_EQ(1, a);
    EXPECT_EQ(2, b);
    ASSERT_EQ(0, kestrel_zel_nn_teardown(a));
    ASSERT_EQ(0, kestrel_zel_nn_init(&c));
    EXPECT_EQ(3, c);
    EXPECT_EQ(3, zelsim::lastGraphId());
    EXPECT_FALSE(zelsim::graphExists(a));
    EXPECT_TRUE(zelsim::graphExists(b));
    EXPECT_EQ(2, zelsim::liveGraphs());
    zelsim::reset();
    EXPECT_EQ(0, zelsim::liveGraphs());
    EXPECT_EQ(0, zelsim::lastGraphId());
    ASSERT_EQ(0, kestrel_zel_nn_init(&a));
    EXPECT_EQ(1, a);
}

TEST_F(StoreTest, EveryCallIsRecordedInOrderWithItsResult) {
    int version = 0, id = 0;
    kestrel_zel_nn_config();
    kestrel_zel_nn_version(&version);
    kestrel_zel_nn_init(&id);
    kestrel_zel_nn_set_config_params(id, ZEL_NN_CONFIG_DEFAULT, nullptr);
    kestrel_zel_nn_set_debug_level(id, 0);
    kestrel_zel_nn_prepare(id);
    kestrel_zel_nn_teardown(id);
    kestrel_zel_nn_teardown(id);
    const std::vector<std::tuple<std::string, int, int>> want = {
        {"config", -1, 0},         {"version", -1, 0},      {"init", 1, 0},     {"set_config_params", 1, 0},
        {"set_debug_level", 1, 0}, {"prepare", 1, 0},       {"teardown", 1, 0}, {"teardown", 1, -1}};
    const auto got = zelsim::calls();
    ASSERT_EQ(want.size(), got.size());
    for (size_t i = 0; i < want.size(); ++i) {
        EXPECT_EQ(std::get<0>(want[i]), got[i].entry) << i;
        EXPECT_EQ(std::get<1>(want[i]), got[i].graphId) << i;
        EXPECT_EQ(std::get<2>(want[i]), got[i].result) << i;
    }
    EXPECT_EQ(2, zelsim::callCount("teardown"));
    EXPECT_EQ(2, zelsim::callCount("kestrel_zel_nn_teardown"));
    EXPECT_EQ(0, zelsim::callCount("append_node"));
}

TEST_F(StoreTest, VersionAndConfigAnswersAreConfigurable) {
    int version = 0;
    EXPECT_EQ(0, kestrel_zel_nn_version(&version));
    EXPECT_EQ(0x20100, version);
    EXPECT_EQ(0, kestrel_zel_nn_config());
    zelsim::setVersion(0x20200, 5);
    zelsim::setConfigResult(1);
    EXPECT_EQ(5, kestrel_zel_nn_version(&version));
    EXPECT_EQ(0x20200, version);
    EXPECT_EQ(1, kestrel_zel_nn_config());
    zelsim::reset();
    EXPECT_EQ(0, kestrel_zel_nn_version(&version));
    EXPECT_EQ(0x20100, version);
    EXPECT_EQ(0, kestrel_zel_nn_config());
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
    for (const auto& call : zelsim::calls()) {
        if (call.entry != "init" && !(call.entry == "teardown" && call.graphId == torn && call.result == 0)) {
            EXPECT_EQ(-1, call.result) << call.entry << " " << call.graphId;
        }
    }
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
    EXPECT_NE(0, kestrel_zel_nn_append_const_node(g.id(), 3, 1, 1, 1, 4, nullptr, 4));
    const auto nodes = zelsim::nodes(g.id());
    ASSERT_EQ(3u, nodes.size());
    for (const auto& n : nodes) EXPECT_FALSE(n.accepted) << n.nodeId;
    EXPECT_NE(std::string::npos, g.log().find("data is null")) << g.log();
    // Null output pointers of the single-tensor execute.
    ASSERT_EQ(0, g.prepare());
    unsigned char byte = 0;
    EXPECT_NE(0, kestrel_zel_nn_execute(g.id(), 1, 1, 1, 1, &byte, 1, nullptr, nullptr, nullptr, nullptr, &byte, 1,
                                        nullptr));
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

TEST_F(StoreTest, ConfigAndDebugLevelAcceptLiveGraphs) {
    simtest::Graph g;
    int value = 7;
    EXPECT_EQ(0, kestrel_zel_nn_set_config_params(g.id(), ZEL_NN_CONFIG_DEFAULT, nullptr));
    EXPECT_EQ(0, kestrel_zel_nn_set_config_params(g.id(), ZEL_NN_CONFIG_DEFAULT, &value));
    EXPECT_EQ(0, kestrel_zel_nn_set_debug_level(g.id(), 3));
}

// Nodes and the last error of a torn-down graph stay readable: the plug-in
// tears a graph down right after a refusal.
TEST_F(StoreTest, TornDownGraphsStayObservableUntilReset) {
    int id = 0;
    ASSERT_EQ(0, kestrel_zel_nn_init(&id));
    const kestrel_zel_nn_output out = simtest::rec(1, 2, 2, 3, 1);
    ASSERT_EQ(0, kestrel_zel_nn_append_node(id, 1, ZEL_OP_INPUT, 0, nullptr, 0, &out, 1));
    const kestrel_zel_nn_input in{7, 0};
    ASSERT_NE(0, kestrel_zel_nn_append_node(id, 2, ZEL_OP_OUTPUT, 0, &in, 1, nullptr, 0));
    const std::string error = zelsim::lastError(id);
    ASSERT_EQ(0, kestrel_zel_nn_teardown(id));
    EXPECT_FALSE(zelsim::graphExists(id));
    EXPECT_EQ(2u, zelsim::nodes(id).size());
    EXPECT_EQ(error, zelsim::lastError(id));
    EXPECT_NE("", zelsim::renderText(id));
    zelsim::reset();
    EXPECT_TRUE(zelsim::nodes(id).empty());
    EXPECT_EQ("", zelsim::lastError(id));
}

TEST_F(StoreTest, ConstantDataIsCopiedDuringTheAppend) {
    simtest::Graph g;
    std::vector<uint8_t> bytes = {1, 2, 3, 4, 5, 6, 7, 8};
    ASSERT_EQ(0, kestrel_zel_nn_append_const_node(g.id(), 1, 1, 1, 2, 4, bytes.data(), 8));
    std::fill(bytes.begin(), bytes.end(), 0);
    const auto nodes = zelsim::nodes(g.id());
    ASSERT_EQ(1u, nodes.size());
    EXPECT_TRUE(nodes[0].isConst);
    EXPECT_TRUE(nodes[0].accepted);
    EXPECT_EQ(-1, nodes[0].op);
    EXPECT_EQ((std::vector<uint8_t>{1, 2, 3, 4, 5, 6, 7, 8}), nodes[0].data);
    EXPECT_EQ(2u, nodes[0].dims[2]);
    EXPECT_EQ(4u, nodes[0].dims[3]);
}

}  // namespace
