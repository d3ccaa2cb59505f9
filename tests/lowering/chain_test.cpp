// Each lowering-table row lowered through ZelModel::prepare against the
// simulator: the recorded node chain, and the simulator's acceptance.
#include <set>
#include <stdexcept>

#include "lowering_support.h"

namespace lowering {
namespace {

using arv::nnhal::ExecutionPerformance;

class ChainTest : public LoweringTest, public ::testing::WithParamInterface<Canonical> {};

TEST_P(ChainTest, LowersToTheExpectedNodes) {
    HostGraph graph;
    GetParam().build(graph);
    auto model = build(graph);
    ASSERT_TRUE(model);
    for (uint32_t out : model->graphOutputs()) model->operands()[out].dequantizeOutput = false;

    EXPECT_TRUE(model->prepare(ExecutionPerformance::SUSTAINED_SPEED)) << zelsim::lastError(model->graphId());
    expectChain(static_cast<int>(model->graphId()), GetParam().chain);
    EXPECT_TRUE(allAccepted(static_cast<int>(model->graphId())));
    EXPECT_TRUE(zelsim::graphPrepared(static_cast<int>(model->graphId())));
    EXPECT_EQ(std::vector<std::string>{}, errorTexts());
}

INSTANTIATE_TEST_SUITE_P(Quant8, ChainTest, ::testing::ValuesIn(canonicalGraphs()),
                         [](const ::testing::TestParamInfo<Canonical>& info) { return info.param.name; });

const Canonical& canonical(const std::string& name) {
    for (const Canonical& c : canonicalGraphs()) {
        if (c.name == name) return c;
    }
    throw std::runtime_error("no canonical graph " + name);
}

// With the default output path the value is brought back to the declared
// range after the activation: dequantize, two range constants, quantize.
TEST_F(LoweringTest, ConvOutputGoesBackToTheDeclaredRange) {
    HostGraph graph;
    canonical("conv_implicit_relu6").build(graph);
    auto model = build(graph);
    ASSERT_TRUE(model);
    EXPECT_TRUE(model->prepare(ExecutionPerformance::SUSTAINED_SPEED)) << zelsim::lastError(model->graphId());

    std::vector<std::string> chain = canonical("conv_implicit_relu6").chain;
    chain.pop_back();
    chain.insert(chain.end(), {
                                  "18 Dequantize pad=0 [17:0 17:1 17:2] -> [1x3x2x2*4]",
                                  "19 const 1x1x1x1 f32 0",
                                  "20 const 1x1x1x1 f32 255",
                                  "21 Quantize pad=0 [18:0 19:0 20:0] -> [1x3x2x2*1 1x1x1x1*4 1x1x1x1*4]",
                                  "22 OUTPUT pad=0 [21:0] -> []",
                              });
    expectChain(static_cast<int>(model->graphId()), chain);
    EXPECT_TRUE(zelsim::graphPrepared(static_cast<int>(model->graphId())));
}

// Two chained operations: the second reads the value and range outputs of
// the first instead of new range constants.
TEST_F(LoweringTest, SecondOperationReadsTheFirstOperationsOutput) {
    HostGraph graph;
    const uint32_t in = graph.addQuant8({1, 2, 2, 1}, 0.5f, 128, Lifetime::Input);
    const uint32_t mid = graph.addQuant8({1, 2, 2, 1}, 0.5f, 128, Lifetime::Internal);
    const uint32_t out = graph.addQuant8({1, 2, 2, 1}, 0.5f, 128, Lifetime::Output);
    graph.addOperation(OperationType::RELU, {in}, {mid});
    graph.addOperation(OperationType::RELU6, {mid}, {out});
    graph.setInputs({in});
    graph.setOutputs({out});
    auto model = build(graph);
    ASSERT_TRUE(model);
    model->operands()[out].dequantizeOutput = false;
    EXPECT_TRUE(model->prepare(ExecutionPerformance::SUSTAINED_SPEED)) << zelsim::lastError(model->graphId());

    expectChain(static_cast<int>(model->graphId()),
                {
                    "1 INPUT pad=0 [] -> [1x2x2x1*1]",
                    "2 const 1x1x1x1 f32 -64",
                    "3 const 1x1x1x1 f32 63.5",
                    "4 QuantizedRelu_8 pad=0 [1:0 2:0 3:0] -> [1x2x2x1*1 1x1x1x1*4 1x1x1x1*4]",
                    "5 const 1x1x1x1 f32 6",
                    "6 QuantizedReluX_8 pad=0 [4:0 4:1 4:2 5:0] -> [1x2x2x1*1 1x1x1x1*4 1x1x1x1*4]",
                    "7 OUTPUT pad=0 [6:0] -> []",
                });
}

struct TraceCase {
    const char* graph;
    std::vector<std::string> trace;
};

void PrintTo(const TraceCase& c, std::ostream* os) { *os << c.graph; }

// The progress lines of the lowering functions (and no others of theirs).
const std::set<std::string> kProgressTexts = {
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

class TraceTest : public LoweringTest, public ::testing::WithParamInterface<TraceCase> {};

TEST_P(TraceTest, LogsTheStepsInOrder) {
    HostGraph graph;
    canonical(GetParam().graph).build(graph);
    auto model = build(graph);
    ASSERT_TRUE(model);
    model->prepare(ExecutionPerformance::SUSTAINED_SPEED);
    std::vector<std::string> trace;
    for (const std::string& line : log.debugs()) {
        if (kProgressTexts.count(line) != 0) trace.push_back(line);
    }
    EXPECT_EQ(GetParam().trace, trace);
}

const TraceCase kTraces[] = {
    {"conv_implicit_relu6",
     {"Creating quantization nodes for inputs ...", "Parsing convolution parameters ...",
      "Parsing activation function type ...", "Creating quantization min / max nodes for inputs ...",
      "Creating stride tensor ..."}},
    {"depthwise_explicit_same",
     {"Creating quantization nodes for inputs ...", "Parsing depthwise convolution parameters ...",
      "Parsing activation function type ...", "Creating quantization min / max nodes for inputs ...",
      "Creating stride tensor ..."}},
    {"add", {"Creating quantization nodes for inputs ...", "Getting activation function type ..."}},
    {"sub_relu1", {"Creating quantization nodes for inputs ...", "Getting activation function type ..."}},
    {"average_pool_implicit",
     {"Parsing pooling parameters ...", "Parsing activation function type ...", "Creating pooling parameters nodes ..."}},
    {"max_pool_explicit_relu",
     {"Parsing max pooling parameters ...", "Parsing activation function type ...",
      "Creating quantization nodes for input parameters ..."}},
    {"concatenation", {"Creating quantization nodes for inputs ...", "Creating dimension tensor ..."}},
};

INSTANTIATE_TEST_SUITE_P(Quant8, TraceTest, ::testing::ValuesIn(kTraces),
                         [](const ::testing::TestParamInfo<TraceCase>& info) { return std::string(info.param.graph); });

}  // namespace
}  // namespace lowering
