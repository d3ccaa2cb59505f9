// Text (snpprint) and DOT renderings.
#include <gtest/gtest.h>

#include <vector>

#include "sim_test_util.h"
#include "zelsim/c_control.h"

namespace {

using simtest::range;
using simtest::rec;

class RenderTest : public simtest::SimTest {
protected:
    // 1 INPUT, 2-3 range constants, 4 requantize-shaped node (op 70), 5 OUTPUT,
    // then a refused constant.
    void build(simtest::Graph& g) {
        ASSERT_EQ(0, g.node(1, ZEL_OP_INPUT, {}, {rec(1, 4, 4, 8, 4)}));
        ASSERT_EQ(0, g.floatConstant(2, -1.0f));
        ASSERT_EQ(0, g.floatConstant(3, 1.0f));
        // Node 4 may be refused by the op table (its inputs are not a real
        // requantize); rendering shows it either way.
        g.node(4, ZEL_OP_Requantize_32to8, {{1, 0}, {2, 0}, {3, 0}, {2, 0}, {3, 0}},
               {rec(1, 4, 4, 8, 1), range(), range()});
        g.node(5, ZEL_OP_OUTPUT, {{1, 0}}, {});
        g.constant(6, 1, 1, 1, 2, {1, 2, 3});
    }
};

TEST_F(RenderTest, TextHasOneLinePerNode) {
    simtest::Graph g;
    build(g);
    const bool fourAccepted = zelsim::nodes(g.id())[3].accepted;
    const std::string want =
        "node 1: ZEL_OP_INPUT (0) pad=0 in=[] out=[f32 1x4x4x8]\n"
        "const 2: 1x1x1x1 4 bytes\n"
        "const 3: 1x1x1x1 4 bytes\n"
        "node 4: ZEL_OP_Requantize_32to8 (70) pad=0 in=[1:0, 2:0, 3:0, 2:0, 3:0] out=[u8 1x4x4x8, f32 1x1x1x1, f32 "
        "1x1x1x1]" +
        std::string(fourAccepted ? "" : " refused") +
        "\n"
        "node 5: ZEL_OP_OUTPUT (1) pad=0 in=[1:0] out=[]\n"
        "const 6: 1x1x1x2 0 bytes refused\n";
    EXPECT_EQ(want, zelsim::renderText(g.id()));
    std::vector<unsigned char> buf(1024, 0xAA);
    ASSERT_EQ(0, kestrel_zel_nn_snpprint(g.id(), buf.data(), static_cast<unsigned>(buf.size())));
    EXPECT_EQ(want, std::string(reinterpret_cast<char*>(buf.data())));
    ASSERT_EQ(0, kestrel_zel_nn_snpprint(g.id(), buf.data(), 10));
    EXPECT_EQ(want.substr(0, 9), std::string(reinterpret_cast<char*>(buf.data())));
}

TEST_F(RenderTest, AccumulatorOutputsShowAsIntegers) {
    simtest::Graph g;
    ASSERT_EQ(0, g.node(1, ZEL_OP_INPUT, {}, {rec(1, 2, 2, 4, 1)}));
    ASSERT_EQ(0, g.floatConstant(2, 0.0f));
    ASSERT_EQ(0, g.floatConstant(3, 1.0f));
    g.node(4, ZEL_OP_QuantizedAdd_8p8to32, {{1, 0}, {1, 0}, {2, 0}, {3, 0}, {2, 0}, {3, 0}},
           {rec(1, 2, 2, 4, 4), range(), range()});
    const std::string text = zelsim::renderText(g.id());
    EXPECT_NE(std::string::npos, text.find("out=[i32 1x2x2x4, f32 1x1x1x1, f32 1x1x1x1]")) << text;
}

TEST_F(RenderTest, DotHasBoxesEllipsesAndLabelledEdges) {
    simtest::Graph g;
    build(g);
    const std::string dot = zelsim::renderDot(g.id());
    EXPECT_EQ(0u, dot.find("digraph graph_" + std::to_string(g.id()) + " {\n")) << dot;
    EXPECT_NE(std::string::npos, dot.find("  n1 [shape=box, label=\"1: ZEL_OP_INPUT\\n0: f32 1x4x4x8\"];\n")) << dot;
    EXPECT_NE(std::string::npos, dot.find("  n2 [shape=ellipse, fontsize=9, label=\"const 2\\n1x1x1x1\"];\n")) << dot;
    EXPECT_NE(std::string::npos, dot.find("  n1 -> n5 [label=\"0\"];\n")) << dot;
    EXPECT_NE(std::string::npos, dot.find("  n3 -> n4 [label=\"0\"];\n")) << dot;
    // The refused constant is drawn apart, dashed.
    EXPECT_NE(std::string::npos, dot.find("  refused5 [shape=ellipse, fontsize=9, label=\"const 6\\n1x1x1x2\", "
                                          "style=dashed, color=red];\n"))
        << dot;
    EXPECT_EQ(dot.size() - 2, dot.rfind("}\n"));
    size_t edges = 0;
    for (size_t at = dot.find("->"); at != std::string::npos; at = dot.find("->", at + 1)) ++edges;
    EXPECT_EQ(6u, edges);
}

TEST_F(RenderTest, UnknownGraphRendersNothing) {
    EXPECT_EQ("", zelsim::renderText(42));
    EXPECT_EQ("", zelsim::renderDot(42));
    char untouched[2] = {'x', 'x'};
    EXPECT_EQ(-1, zelsim_render_dot(42, untouched, sizeof untouched));
    EXPECT_EQ('x', untouched[0]);
}

// The C form of the DOT rendering: the whole length whatever the buffer,
// truncated copies always NUL-terminated, an exact fit copied whole.
TEST_F(RenderTest, CDotRenderingReportsItsLengthAndTruncates) {
    simtest::Graph g;
    build(g);
    EXPECT_EQ(g.id(), zelsim_last_graph_id());
    const std::string dot = zelsim::renderDot(g.id());
    const int length = static_cast<int>(dot.size());
    EXPECT_EQ(length, zelsim_render_dot(g.id(), nullptr, 0));
    std::vector<char> buffer(dot.size() + 1, 'x');
    EXPECT_EQ(length, zelsim_render_dot(g.id(), buffer.data(), static_cast<unsigned>(buffer.size())));
    EXPECT_EQ(dot, std::string(buffer.data()));
    EXPECT_EQ(length, zelsim_render_dot(g.id(), buffer.data(), 8));
    EXPECT_EQ(dot.substr(0, 7), std::string(buffer.data()));
    EXPECT_EQ(length, zelsim_render_dot(g.id(), buffer.data(), 1));
    EXPECT_EQ('\0', buffer[0]);
}

}  // namespace
