// The DOT rendering zelrun falls back to when the runtime offers only its
// one-node-a-line listing.
#include "zelhost/graph_dump.h"

#include <gtest/gtest.h>

#include <string>

using arv::nnhal::host::listingToDot;

namespace {

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST(ListingToDot, NodesConstantsAndEdges) {
    const std::string listing =
        "node 1: ZEL_OP_INPUT (0) pad=0 in=[] out=[u8 1x3x3x1]\n"
        "const 2: 2x2x1x1 4 bytes\n"
        "node 3: ZEL_OP_QuantizedConv2d_8x8to32 (15) pad=2 in=[1:0, 2:0, 12:1] out=[i32 1x2x2x1, f32 1]\n"
        "\n"
        "garbage without an id\n";
    const std::string dot = listingToDot(listing, "graph \"7\"");
    EXPECT_EQ(dot.rfind("digraph \"graph \\\"7\\\"\" {\n", 0), 0u) << dot;
    EXPECT_TRUE(contains(dot, "  n1 [label=\"node 1: ZEL_OP_INPUT (0) pad=0 in=[] out=[u8 1x3x3x1]\"];\n")) << dot;
    EXPECT_TRUE(contains(dot, "  n2 [shape=ellipse, fontsize=9, label=\"const 2: 2x2x1x1 4 bytes\"];\n")) << dot;
    EXPECT_TRUE(contains(dot, "  n1 -> n3 [label=\"0\"];\n")) << dot;
    EXPECT_TRUE(contains(dot, "  n2 -> n3 [label=\"0\"];\n")) << dot;
    EXPECT_TRUE(contains(dot, "  n12 -> n3 [label=\"1\"];\n")) << dot;
    EXPECT_FALSE(contains(dot, "garbage")) << dot;
    EXPECT_FALSE(contains(dot, "-> n1 ")) << "sizes and codes are not references: " << dot;
    EXPECT_FALSE(contains(dot, "-> n2 ")) << dot;
    EXPECT_EQ(dot.substr(dot.size() - 2), "}\n");
}

TEST(ListingToDot, ParenthesisedReferences) {
    const std::string dot = listingToDot("5 Requantize (4,0) (4, 1) (15) (6,x)\n", "g");
    EXPECT_TRUE(contains(dot, "  n4 -> n5 [label=\"0\"];\n")) << dot;
    EXPECT_TRUE(contains(dot, "  n4 -> n5 [label=\"1\"];\n")) << dot;
    EXPECT_FALSE(contains(dot, "n15")) << dot;
    EXPECT_FALSE(contains(dot, "n6")) << dot;
}

TEST(ListingToDot, EmptyListingGivesAnEmptyGraph) {
    EXPECT_EQ(listingToDot("", "g"),
              "digraph \"g\" {\n  rankdir=TB;\n  node [shape=box, fontname=\"monospace\"];\n}\n");
}

}  // namespace
