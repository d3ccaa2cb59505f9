// The support table, the lowering table and the simulator agree: every row
// the support query accepts lowers through ZelModel::prepare to the
// expected node chain, and the simulator accepts every node.
#include <set>

#include "lowering_support.h"
#include "zel_operations_check_quant8.h"
#include "zel_operations_prepare_quant8.h"
#include "zel_test_peers.h"

namespace lowering {
namespace {

using Key = std::pair<OperationType, OperandType>;

template <typename Table>
std::set<Key> keys(const Table& table) {
    std::set<Key> result;
    for (const auto& row : table) result.insert(row.first);
    return result;
}

TEST(LoweringTable, HasTheRowsOfTheSupportTableAndACanonicalGraphForEach) {
    const auto& table = arv::nnhal::zel::getOperationPrepareTable();
    EXPECT_EQ(keys(arv::nnhal::zel::getOperationCheckTable()), keys(table));
    std::set<Key> covered;
    for (const Canonical& c : canonicalGraphs()) {
        HostGraph graph;
        c.build(graph);
        ASSERT_EQ(1u, graph.getOperationCount()) << c.name;
        const auto* op = graph.getOperation(0);
        covered.insert({op->getType(), graph.getOperand(op->getInput(0))->getType()});
    }
    // The transposed convolution has a row that always refuses.
    const Key transposeConv = {OperationType::TRANSPOSE_CONV_2D, OperandType::TENSOR_QUANT8};
    ASSERT_EQ(1u, table.count(transposeConv));
    EXPECT_FALSE(table.at(transposeConv)({0, 1, 2, 3, 4, 5, 6}, {7}, nullptr));
    std::set<Key> expected = keys(table);
    expected.erase(transposeConv);
    EXPECT_EQ(expected, covered);
}

class ChainTest : public LoweringTest, public ::testing::WithParamInterface<Canonical> {};

// The support query accepts the graph; the same model prepares with the
// default output path and every node passes. Where the graph has a chain,
// the default path is the chain plus the range fix-up (dequantize, two range
// constants, quantize), and without the fix-up the chain is the expected one.
TEST_P(ChainTest, SupportedGraphLowersToTheExpectedNodes) {
    HostGraph graph;
    GetParam().build(graph);
    auto model = build(graph);
    ASSERT_TRUE(model);
    ASSERT_EQ(0, model->getOperationSupportLevel(graph.getOperation(0)));
    ASSERT_TRUE(model->prepare(kSpeed)) << zelsim::lastError(model->graphId());
    EXPECT_TRUE(allAccepted(static_cast<int>(model->graphId())));
    EXPECT_TRUE(zelsim::graphPrepared(static_cast<int>(model->graphId())));
    EXPECT_EQ(std::vector<std::string>{}, errorTexts());
    if (GetParam().chain.empty()) return;
    EXPECT_EQ(GetParam().chain.size() + 4, zelsim::nodes(static_cast<int>(model->graphId())).size());

    model = build(graph);
    for (uint32_t out : peer(*model).graphOutputs()) model->operands()[out].dequantizeOutput = false;
    EXPECT_TRUE(model->prepare(kSpeed)) << zelsim::lastError(model->graphId());
    expectChain(static_cast<int>(model->graphId()), GetParam().chain);
}

INSTANTIATE_TEST_SUITE_P(Quant8, ChainTest, ::testing::ValuesIn(canonicalGraphs()),
                         [](const ::testing::TestParamInfo<Canonical>& info) { return info.param.name; });

// Two chained operations: the second reads the value and range outputs of
// the first instead of new range constants.
TEST_F(LoweringTest, SecondOperationReadsTheFirstOperationsOutput) {
    HostGraph graph;
    const uint32_t in = graph.addQuant8({1, 2, 2, 1}, 0.5f, 128, Lifetime::Input);
    const uint32_t mid = graph.addQuant8({1, 2, 2, 1}, 0.5f, 128, Lifetime::Internal);
    const uint32_t out = graph.addQuant8({1, 2, 2, 1}, 0.5f, 128, Lifetime::Output);
    graph.addOperation(OperationType::RELU, {in}, {mid});
    operation(graph, OperationType::RELU6, {mid}, {out}, {in});
    auto model = build(graph);
    ASSERT_TRUE(model);
    model->operands()[out].dequantizeOutput = false;
    EXPECT_TRUE(model->prepare(kSpeed)) << zelsim::lastError(model->graphId());
    expectChain(static_cast<int>(model->graphId()),
                {
                    "1 INPUT pad=0 [] -> [1x2x2x1*1]",
                    "2 const 1x1x1x1 f32 -64",
                    "3 const 1x1x1x1 f32 63.5",
                    "4 QuantizedRelu_8 pad=0 [1:0 2:0 3:0] -> [1x2x2x1*1 " RANGES "]",
                    "5 const 1x1x1x1 f32 6",
                    "6 QuantizedReluX_8 pad=0 [4:0 4:1 4:2 5:0] -> [1x2x2x1*1 " RANGES "]",
                    "7 OUTPUT pad=0 [6:0] -> []",
                });
}

// The progress lines of the lowering functions, in order (and no others of
// theirs); one graph per set of lines.
TEST_F(LoweringTest, ProgressLinesInOrder) {
    const std::set<std::string> progress = {
        "Creating quantization nodes for inputs ...",
        "Parsing convolution parameters ...",
        "Parsing depthwise convolution parameters ...",
        "Parsing activation function type ...",
        "Getting activation function type ...",
        "Creating quantization min / max nodes for inputs ...",
        "Creating stride tensor ...",
        "Parsing pooling parameters ...",
        "Parsing max pooling parameters ...",
        "Creating pooling parameters nodes ...",
        "Creating quantization nodes for input parameters ...",
        "Creating dimension tensor ...",
    };
    const std::string quantNodes = "Creating quantization nodes for inputs ...";
    const std::string activation = "Parsing activation function type ...";
    const std::string minMax = "Creating quantization min / max nodes for inputs ...";
    const std::string stride = "Creating stride tensor ...";
    const std::vector<std::pair<std::string, std::vector<std::string>>> traces = {
        {"conv_implicit_relu6", {quantNodes, "Parsing convolution parameters ...", activation, minMax, stride}},
        {"depthwise_explicit_same",
         {quantNodes, "Parsing depthwise convolution parameters ...", activation, minMax, stride}},
        {"add_relu", {quantNodes, "Getting activation function type ..."}},
        {"average_pool_implicit",
         {"Parsing pooling parameters ...", activation, "Creating pooling parameters nodes ..."}},
        {"max_pool_explicit_relu",
         {"Parsing max pooling parameters ...", activation, "Creating quantization nodes for input parameters ..."}},
        {"concatenation", {quantNodes, "Creating dimension tensor ..."}},
    };
    for (const auto& [name, expected] : traces) {
        SCOPED_TRACE(name);
        log.clear();
        HostGraph graph;
        canonical(name).build(graph);
        build(graph)->prepare(kSpeed);
        std::vector<std::string> trace;
        for (const std::string& line : log.debugs()) {
            if (progress.count(line) != 0) trace.push_back(line);
        }
        EXPECT_EQ(expected, trace);
    }
}

}  // namespace
}  // namespace lowering
