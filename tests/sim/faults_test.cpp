// Fault injection through zelsim::failCall.
#include <gtest/gtest.h>

#include "sim_test_util.h"

namespace {

using FaultTest = simtest::SimTest;

// The count starts at the failCall, not at the last reset; the failing call
// returns the code and does nothing.
TEST_F(FaultTest, NthCallFromTheRequestFailsWithTheCodeAndDoesNothing) {
    simtest::Graph g;
    EXPECT_EQ(0, g.floatConstant(1, 1.0f));
    zelsim::failCall("append_const_node", 2, -7);
    EXPECT_EQ(0, g.floatConstant(2, 2.0f));
    EXPECT_EQ(-7, g.floatConstant(3, 3.0f));
    EXPECT_EQ(0, g.floatConstant(4, 4.0f));
    const auto nodes = zelsim::nodes(g.id());
    ASSERT_EQ(3u, nodes.size());  // the failed call appended nothing
    EXPECT_EQ(4u, nodes[2].nodeId);
    EXPECT_NE(std::string::npos, zelsim::lastError(g.id()).find("injected fault"));
    int id = 0;
    zelsim::failCall("kestrel_zel_nn_init", 1, 3);
    EXPECT_EQ(3, kestrel_zel_nn_init(&id));
    EXPECT_EQ(0, id);
}

TEST_F(FaultTest, SeveralFaultsOnEveryEntryPoint) {
    simtest::Graph g;
    const std::vector<std::string> entries = {"config",  "init",        "set_config_params", "set_debug_level",
                                              "getlog",  "snpprint",    "append_node",       "append_const_node",
                                              "prepare", "execute_new", "execute",           "teardown"};
    for (const auto& e : entries) zelsim::failCall(e, 1, 11);
    zelsim::failCall("prepare", 2, 12);
    unsigned char buf[8];
    unsigned u = 0;
    int id = 0;
    const kestrel_zel_nn_output out = simtest::rec(1, 1, 1, 1, 1);
    EXPECT_EQ(11, kestrel_zel_nn_config());
    EXPECT_EQ(11, kestrel_zel_nn_init(&id));
    EXPECT_EQ(11, kestrel_zel_nn_set_config_params(g.id(), ZEL_NN_CONFIG_DEFAULT, nullptr));
    EXPECT_EQ(11, kestrel_zel_nn_set_debug_level(g.id(), 0));
    EXPECT_EQ(11, kestrel_zel_nn_getlog(g.id(), buf, sizeof(buf)));
    EXPECT_EQ(11, kestrel_zel_nn_snpprint(g.id(), buf, sizeof(buf)));
    EXPECT_EQ(11, kestrel_zel_nn_append_node(g.id(), 1, ZEL_OP_INPUT, 0, nullptr, 0, &out, 1));
    EXPECT_EQ(11, kestrel_zel_nn_append_const_node(g.id(), 1, 1, 1, 1, 1, buf, 4));
    EXPECT_EQ(11, kestrel_zel_nn_prepare(g.id()));
    EXPECT_EQ(12, kestrel_zel_nn_prepare(g.id()));
    EXPECT_FALSE(zelsim::graphPrepared(g.id()));
    EXPECT_EQ(11, kestrel_zel_nn_execute_new(g.id(), nullptr, 0, nullptr, 0));
    EXPECT_EQ(11, kestrel_zel_nn_execute(g.id(), 1, 1, 1, 1, buf, 1, &u, &u, &u, &u, buf, 8, &u));
    EXPECT_EQ(11, kestrel_zel_nn_teardown(g.id()));
    EXPECT_TRUE(zelsim::graphExists(g.id()));
    // All faults used up: everything works again.
    EXPECT_EQ(0, kestrel_zel_nn_config());
    EXPECT_EQ(0, kestrel_zel_nn_prepare(g.id()));
    EXPECT_TRUE(zelsim::nodes(g.id()).empty());
}

TEST_F(FaultTest, ResetDisarmsAndUnknownEntriesOrCallZeroAreNoted) {
    zelsim::failCall("config", 1, 1);
    zelsim::reset();
    EXPECT_EQ(0, kestrel_zel_nn_config());
    zelsim::failCall("no_such_entry", 1, -1);
    zelsim::failCall("config", 0, 1);
    EXPECT_EQ(0, kestrel_zel_nn_config());
    const std::string notes = zelsim::notes();
    EXPECT_NE(std::string::npos, notes.find("no_such_entry")) << notes;
    EXPECT_NE(std::string::npos, notes.find("'config' call 0")) << notes;
}

}  // namespace
