// What append_node, append_const_node and prepare refuse, and how the
// refusal reads through getlog. Each case starts from a valid graph
//   1 INPUT [u8 1x2x2x4]   2 const 1x1x1x1 (a float)   3 const 1x1x1x1
// and breaks one thing.
#include <gtest/gtest.h>

#include <functional>

#include "sim_test_util.h"
#include "zelsim/ops.h"

namespace {

using simtest::rec;

class ValidateTest : public simtest::SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        g = std::make_unique<simtest::Graph>();
        ASSERT_EQ(0, g->node(1, ZEL_OP_INPUT, {}, {rec(1, 2, 2, 4, 1)}));
        ASSERT_EQ(0, g->floatConstant(2, 0.0f));
        ASSERT_EQ(0, g->floatConstant(3, 6.0f));
    }
    void TearDown() override {
        g.reset();
        SimTest::TearDown();
    }
    std::unique_ptr<simtest::Graph> g;
};

struct RefusalCase {
    const char* name;
    std::function<int(simtest::Graph&)> append;
    const char* prefix;  // start of the explanation
    const char* detail;  // a part of it
};

kestrel_zel_nn_output badRank() {
    kestrel_zel_nn_output r = rec(1, 2, 2, 4, 1);
    r.rank = 3;
    return r;
}

using G = simtest::Graph;

// clang-format off
const RefusalCase kRefusals[] = {
    {"IdZero", [](G& g) { return g.node(0, ZEL_OP_OUTPUT, {{1, 0}}, {}); }, "node 0 (ZEL_OP_OUTPUT): ", "reserved"},
    {"IdGoesBack", [](G& g) { g.floatConstant(9, 1.0f); return g.node(5, ZEL_OP_OUTPUT, {{1, 0}}, {}); },
     "node 5 (ZEL_OP_OUTPUT): ", "must increase: 5 after 9"},
    {"UnknownOp", [](G& g) { return g.node(4, 9999, {{1, 0}}, {rec(1, 2, 2, 4, 1)}); },
     "node 4 (op 9999): ", "unknown op code 9999"},
    {"InputNamesNoNode", [](G& g) { return g.node(4, ZEL_OP_OUTPUT, {{1, 0}, {8, 0}}, {}); },
     "node 4 (ZEL_OP_OUTPUT): ", "input 1 {8, 0} names no node of this graph"},
    {"InputNamesRefusedNode",
     [](G& g) { g.constant(5, 1, 1, 1, 2, {1, 2, 3}); return g.node(6, ZEL_OP_OUTPUT, {{5, 0}}, {}); },
     "node 6 (ZEL_OP_OUTPUT): ", "input 0 {5, 0} names a refused node"},
    {"InputIsEmpty", [](G& g) { return g.node(4, ZEL_OP_OUTPUT, {{0, 0}}, {}); },
     "node 4 (ZEL_OP_OUTPUT): ", "input 0 {0, 0} is empty"},
    {"OutputIndexOfNode", [](G& g) { return g.node(4, ZEL_OP_OUTPUT, {{1, 1}}, {}); },
     "node 4 (ZEL_OP_OUTPUT): ", "input 0 {1, 1}: node 1 has 1 output(s)"},
    {"OutputRank", [](G& g) { return g.node(4, ZEL_OP_INPUT, {}, {rec(1, 1, 1, 1, 1), badRank()}); },
     "node 4 (ZEL_OP_INPUT): ", "output 1 has rank 3 (4 expected)"},
    {"OutputElementSize", [](G& g) { return g.node(4, ZEL_OP_INPUT, {}, {rec(1, 2, 2, 4, 3)}); },
     "node 4 (ZEL_OP_INPUT): ", "element size 3"},
    {"OutputTooLarge", [](G& g) { return g.node(4, ZEL_OP_INPUT, {}, {rec(1024, 1024, 1024, 2, 1)}); },
     "node 4 (ZEL_OP_INPUT): ", "output 0 is too large"},
    {"InputNodeWithInputs", [](G& g) { return g.node(4, ZEL_OP_INPUT, {{1, 0}}, {rec(1, 1, 1, 1, 1)}); },
     "node 4 (ZEL_OP_INPUT): ", "takes no inputs"},
    {"AfterPrepare", [](G& g) { g.prepare(); return g.node(4, ZEL_OP_OUTPUT, {{1, 0}}, {}); },
     "node 4 (ZEL_OP_OUTPUT): ", "is already prepared"},
    {"ConstLengthMismatch", [](G& g) { return g.constant(4, 1, 1, 2, 3, {1, 2, 3, 4, 5}); },
     "const 4: ", "5 bytes do not hold 1x1x2x3 elements"},
    {"ConstNullData", [](G& g) { return kestrel_zel_nn_append_const_node(g.id(), 4, 1, 1, 1, 1, nullptr, 4); },
     "const 4: ", "data is null with 4 bytes"},
    // A rule of the op table (a QuantizedRelu_8 without its range inputs).
    {"OpTableRule",
     [](G& g) { return g.node(4, ZEL_OP_QuantizedRelu_8, {{1, 0}}, {rec(1, 2, 2, 4, 1), simtest::range(), simtest::range()}); },
     "node 4 (ZEL_OP_QuantizedRelu_8): QuantizedRelu_8: ", "expects 3 inputs"},
};
// clang-format on

class RefusalTest : public ValidateTest, public ::testing::WithParamInterface<RefusalCase> {};

TEST_P(RefusalTest, RefusedWithExplanationAndRecordedAsRefused) {
    const RefusalCase& c = GetParam();
    EXPECT_NE(0, c.append(*g));
    const std::string log = g->log();
    EXPECT_EQ(0u, log.find(c.prefix)) << log;
    EXPECT_NE(std::string::npos, log.find(c.detail)) << log;
    const auto nodes = zelsim::nodes(g->id());
    ASSERT_FALSE(nodes.empty());
    EXPECT_FALSE(nodes.back().accepted);
    // The graph itself is untouched: its first three nodes still stand.
    for (size_t i = 0; i < 3; ++i) EXPECT_TRUE(nodes[i].accepted) << i;
}

INSTANTIATE_TEST_SUITE_P(Rules, RefusalTest, ::testing::ValuesIn(kRefusals),
                         [](const ::testing::TestParamInfo<RefusalCase>& info) { return info.param.name; });

// Constants of any element size, ids with gaps, and an id whose node was
// refused given again.
TEST_F(ValidateTest, AcceptedConstantsAndIds) {
    EXPECT_EQ(0, g->constant(4, 1, 3, 3, 1, {0, 0, 0, 0})) << g->log();  // shape only
    EXPECT_EQ(0, g->constant(5, 1, 1, 1, 2, {1, 0, 0, 0, 2, 0, 0, 0}));  // two 32-bit words
    EXPECT_EQ(0, g->constant(6, 1, 1, 3, 2, {1, 2, 3, 4, 5, 6}));        // bytes
    EXPECT_EQ(0, g->constant(7, 1, 1, 1, 3, {1, 2, 3, 4, 5, 6}));        // 16-bit values
    EXPECT_EQ("", g->log());
    EXPECT_NE(0, g->constant(9, 1, 1, 1, 2, {1, 2, 3}));
    EXPECT_EQ(0, g->constant(9, 1, 1, 1, 3, {1, 2, 3}));
    EXPECT_EQ(0, g->node(12, ZEL_OP_OUTPUT, {{1, 0}, {9, 0}}, {}));
}

struct PrepareCase {
    const char* name;
    std::function<void(simtest::Graph&)> build;
    const char* detail;
};

// clang-format off
const PrepareCase kPrepareRefusals[] = {
    {"TwoInputNodes", [](G& g) { g.node(4, ZEL_OP_INPUT, {}, {rec(1, 1, 1, 1, 1)}); },
     "prepare: more than one INPUT node (1 and 4)"},
    {"TwoOutputNodes", [](G& g) { g.node(4, ZEL_OP_OUTPUT, {{1, 0}}, {}); g.node(5, ZEL_OP_OUTPUT, {{2, 0}}, {}); },
     "prepare: more than one OUTPUT node (4 and 5)"},
    {"OutputNotLast", [](G& g) { g.node(4, ZEL_OP_OUTPUT, {{1, 0}}, {}); g.floatConstant(5, 1.0f); },
     "prepare: the OUTPUT node 4 is not the last node (node 5 follows)"},
};
// clang-format on

class PrepareRefusalTest : public ValidateTest, public ::testing::WithParamInterface<PrepareCase> {};

TEST_P(PrepareRefusalTest, RefusedWithExplanation) {
    GetParam().build(*g);
    EXPECT_NE(0, g->prepare());
    EXPECT_EQ(GetParam().detail, g->log());
    EXPECT_FALSE(zelsim::graphPrepared(g->id()));
}

INSTANTIATE_TEST_SUITE_P(Rules, PrepareRefusalTest, ::testing::ValuesIn(kPrepareRefusals),
                         [](const ::testing::TestParamInfo<PrepareCase>& info) { return info.param.name; });

TEST_F(ValidateTest, PrepareAcceptsGraphsWithoutBoundaryNodesAndIgnoresRefusedNodes) {
    EXPECT_NE(0, g->node(4, ZEL_OP_INPUT, {{1, 0}}, {rec(1, 1, 1, 1, 1)}));  // refused: not a second INPUT
    EXPECT_EQ(0, g->prepare()) << g->log();
    EXPECT_TRUE(zelsim::graphPrepared(g->id()));
    simtest::Graph empty;
    EXPECT_EQ(0, empty.prepare());
}

// Whatever op the table knows but cannot compute stops prepare.
TEST_F(ValidateTest, PrepareRefusesOpsWithoutKernel) {
    for (int32_t op = 2; op < 400; ++op) {
        const zelsim::OpSpec* entry = zelsim::findOp(op);
        if (entry == nullptr || entry->execute != nullptr) continue;
        simtest::Graph candidate;
        candidate.node(1, ZEL_OP_INPUT, {}, {rec(1, 2, 2, 4, 4)});
        if (candidate.node(2, op, {{1, 0}}, {rec(1, 2, 2, 4, 4)}) != 0) continue;  // needs other inputs
        EXPECT_NE(0, candidate.prepare());
        EXPECT_EQ("prepare: node 2: cannot execute op " + std::to_string(op) + " (ZEL_OP_" + entry->name + ")",
                  candidate.log());
        return;
    }
    GTEST_SKIP() << "every op the table knows has a kernel or needs more than one input";
}

TEST_F(ValidateTest, PassThroughRecordsWithoutValidation) {
    zelsim::setPassThrough(true);
    simtest::Graph p;
    EXPECT_EQ(0, p.node(1, 9999, {{7, 3}}, {rec(1, 1, 1, 1, 3)}));
    EXPECT_EQ(0, p.node(1, ZEL_OP_OUTPUT, {{0, 0}}, {}));
    EXPECT_EQ(0, p.constant(1, 1, 1, 1, 2, {1, 2, 3}));
    EXPECT_NE(0, kestrel_zel_nn_append_const_node(p.id(), 2, 1, 1, 1, 1, nullptr, 4));  // still no null data
    EXPECT_EQ(0, p.prepare());
    const auto nodes = zelsim::nodes(p.id());
    ASSERT_EQ(4u, nodes.size());
    EXPECT_EQ((std::vector<uint8_t>{1, 2, 3}), nodes[2].data);
    EXPECT_TRUE(nodes[0].accepted);
    // A graph appended in pass-through mode stays unchecked afterwards.
    zelsim::setPassThrough(false);
    EXPECT_EQ(0, p.prepare());
}

}  // namespace
