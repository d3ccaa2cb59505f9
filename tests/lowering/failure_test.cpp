// Refusals of the lowering: operand counts, padding, missing table rows,
// malformed operations and runtime refusals during prepare.
#include <algorithm>

#include "lowering_support.h"
#include "zel_operations_prepare_float32.h"
#include "zel_operations_prepare_quant8.h"

namespace lowering {
namespace {

namespace q8 = arv::nnhal::zel::quant8_asym;
namespace f32 = arv::nnhal::zel::float32;

using LowerFn = bool (*)(const std::vector<uint32_t>&, const std::vector<uint32_t>&, ZelModel*);

struct CountCase {
    const char* label;
    LowerFn fn;
    uint32_t inputs;
    uint32_t outputs;
    const char* message;
};

void PrintTo(const CountCase& c, std::ostream* os) {
    *os << c.label;
}

class CountTest : public LoweringTest, public ::testing::WithParamInterface<CountCase> {};

// The count is refused with one line before any operand is read or any
// node appended.
TEST_P(CountTest, RefusesWithOneLine) {
    HostGraph graph;
    for (int i = 0; i < 16; ++i) graph.addInt32(1);
    auto model = attached(graph);
    ASSERT_TRUE(model);
    log.clear();
    const int appendsBefore = appendCalls();
    std::vector<uint32_t> ins(GetParam().inputs), outs(GetParam().outputs);
    for (uint32_t i = 0; i < ins.size(); ++i) ins[i] = i;
    for (uint32_t i = 0; i < outs.size(); ++i) outs[i] = i;
    EXPECT_FALSE(GetParam().fn(ins, outs, model.get()));
    EXPECT_EQ(std::vector<std::string>{GetParam().message}, errorTexts());
    EXPECT_EQ(appendsBefore, appendCalls());
}

// One row per form of the count rule and per text that does not follow
// the function's own name.
const CountCase kCounts[] = {
    {"conv_9", q8::conv_2d, 9, 1, "Need 7 or 10 inputs for quant8_asym::conv_2d"},
    {"conv_2_outputs", q8::conv_2d, 7, 2, "failed 1 == outs.size() (2 == 1): Need 1 output for quant8_asym::conv_2d"},
    {"depthwise_10", q8::depthwise_conv_2d, 10, 1, "Need 8 to 11 inputs for quant8_asym::depthwise_conv_2d"},
    {"fully_connected_3", q8::fully_connected, 3, 1, "Need 4 inputs for quant8::fully_connected"},
    {"concatenation_2", q8::concatenation, 2, 1, "Need at least 3 inputs for quant8_asym::concatenation"},
    {"relu1_0", q8::relu1, 0, 1, "Need 1 input for quant8_asym::relu1"},
    {"squeeze_1", q8::squeeze, 1, 1, "Need 2 inputs for SQUEEZE"},
    {"resize_2", q8::resize_bilinear, 2, 1, "Need 3 inputs for float32::resize_bilinear"},
    {"resize_0_outputs", q8::resize_bilinear, 3, 0,
     "failed 1 == outs.size() (0 == 1): Need 1 output for float32::resize_bilinear"},
    {"lstm_5", q8::oemLstm, 5, 4, "Need 6 inputs for OEM LSTM"},
    {"lstm_3_outputs", q8::oemLstm, 6, 3, "failed 4 == outs.size() (3 == 4): Need 4 outputs for OEM LSTM"},
    {"split_3", q8::oemSplit, 3, 2, "Need 4 inputs for OEM Split"},
    {"f32_add_2", f32::add, 2, 1, "Need 3 inputs for float32::add"},
    {"f32_conv_2_outputs", f32::conv_2d, 10, 2, "failed 1 == outs.size() (2 == 1): Need 1 output for float32::conv_2d"},
    {"f32_depthwise_9", f32::depthwise_conv_2d, 9, 1, "Need 8 or 11 inputs for float32::depthwise_conv_2d"},
    {"f32_pad_2_outputs", f32::pad, 2, 2, "failed 1 == outs.size() (2 == 1): Need 1 output for PAD"},
    {"f32_transpose_3", f32::transpose, 3, 1, "Need 2 inputs for TRANSPOSE"},
};

INSTANTIATE_TEST_SUITE_P(Forms, CountTest, ::testing::ValuesIn(kCounts),
                         [](const ::testing::TestParamInfo<CountCase>& info) { return info.param.label; });

// in [1,3,3,1] through `type` with the given scalar parameters after it.
void windowGraph(HostGraph& g, OperationType type, const std::vector<int32_t>& scalars, bool withFilter) {
    const uint32_t in = g.addQuant8({1, 3, 3, 1}, 0.5f, 0, Lifetime::Input);
    std::vector<uint32_t> ins = {in};
    if (withFilter) {
        ins.push_back(g.addQuant8({1, 2, 2, 1}, 0.5f, 0, Lifetime::Constant, {1, 2, 3, 4}));
        ins.push_back(g.addInt32Tensor({1}, 0.25f, {0}));
    }
    for (int32_t value : scalars) ins.push_back(g.addInt32(value));
    operation(g, type, ins, {g.addQuant8({1, 3, 3, 1}, 1.0f, 0, Lifetime::Output)}, {in});
}

// Prepares `graph` and expects failure; returns the error texts.
std::vector<std::string> failingPrepare(HostGraph& graph, const zeltest::LogCapture& log) {
    std::unique_ptr<ZelModel> model(ZelModel::create(&graph));
    if (!model) {
        ADD_FAILURE() << "graph does not build";
        return {};
    }
    EXPECT_FALSE(model->prepare(kSpeed));
    return zeltest::errorTexts(log);
}

// Left 1 / right 0 is not what SAME gives (the odd pixel goes right), and
// padding codes other than SAME and VALID are unknown; each window family
// checks its own padding.
TEST_F(LoweringTest, UnknownPaddingFailsBeforeTheOperationNode) {
    struct Row {
        const char* label;
        OperationType type;
        std::vector<int32_t> scalars;
        bool withFilter;
    };
    const Row rows[] = {
        {"conv explicit left", OperationType::CONV_2D, {1, 0, 0, 0, 1, 1, 0}, true},
        {"depthwise implicit code 3", OperationType::DEPTHWISE_CONV_2D, {3, 1, 1, 1, 0}, true},
        {"average pool code 0", OperationType::AVERAGE_POOL_2D, {0, 1, 1, 2, 2, 0}, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.label);
        SetUp();
        log.clear();
        HostGraph graph;
        windowGraph(graph, row.type, row.scalars, row.withFilter);
        const std::vector<std::string> errors = failingPrepare(graph, log);
        ASSERT_FALSE(errors.empty());
        EXPECT_EQ("failed pad != ZEL_NN_PAD_NA (0 != 0): Unknown padding", errors[0]);
        EXPECT_EQ(1, std::count(errors.begin(), errors.end(), "error adding operation"));
        EXPECT_EQ(1, zelsim::callCount("append_node"));  // the input node only
    }
}

// Pairs without a lowering row fail in the model before any lowering, even
// where a lowering function exists (quant8 softmax); the transposed
// convolution finds its row and fails without a line of its own.
TEST_F(LoweringTest, MissingRowsAndTheTransposedConvolution) {
    for (const OperationType type : {OperationType::SOFTMAX, OperationType::TRANSPOSE_CONV_2D}) {
        SCOPED_TRACE(static_cast<int>(type));
        SetUp();
        log.clear();
        HostGraph graph;
        windowGraph(graph, type, {1, 1, 1, 0}, true);
        const std::vector<std::string> errors = failingPrepare(graph, log);
        ASSERT_FALSE(errors.empty());
        EXPECT_EQ(type == OperationType::SOFTMAX ? "Operation not found" : "error adding operation", errors[0]);
        EXPECT_EQ(1, zelsim::callCount("append_node"));
        EXPECT_EQ(0, zelsim::callCount("append_const_node"));
    }
}

// Indices outside the graph and scalars without data are refused before any
// operand is read; no model, no lowering.
TEST_F(LoweringTest, MalformedOperationsAreRefusedBeforeAnyRead) {
    HostGraph graph;
    windowGraph(graph, OperationType::MAX_POOL_2D, {1, 1, 1, 2, 2, 0}, false);
    const uint32_t empty = graph.addOperand(OperandType::SCALAR_INT32, {}, 0.0f, 0, Lifetime::Constant);
    auto model = attached(graph);
    ASSERT_TRUE(model);
    log.clear();
    const int appendsBefore = appendCalls();
    EXPECT_FALSE(q8::max_pool_2d({0, 1, 2, 3, 99, 5, 6}, {7}, model.get()));
    EXPECT_FALSE(f32::relu({0}, {1000}, model.get()));
    EXPECT_FALSE(q8::max_pool_2d({0, 1, 2, empty, 4, 5, 6}, {7}, model.get()));
    EXPECT_EQ(3u, log.errors().size());
    EXPECT_EQ(appendsBefore, appendCalls());

    log.clear();
    EXPECT_FALSE(q8::relu({0}, {1}, nullptr));
    EXPECT_FALSE(f32::relu({0}, {1}, nullptr));
    EXPECT_EQ(std::vector<std::string>(2, "No model to lower into"), errorTexts());
}

// Refusing the n-th append of `entry` fails prepare, tears the graph down
// once, and leaves the model preparable on a fresh graph.
void refuseAndRecover(const std::string& entry, int nth) {
    SCOPED_TRACE(entry + " #" + std::to_string(nth));
    zelsim::reset();
    HostGraph graph;
    canonical("conv_implicit_relu6").build(graph);
    std::unique_ptr<ZelModel> model(ZelModel::create(&graph));
    ASSERT_TRUE(model);
    zelsim::failCall(entry, static_cast<unsigned>(nth), -1);

    EXPECT_FALSE(model->prepare(kSpeed));
    const int failedId = static_cast<int>(model->graphId());
    EXPECT_EQ(1, zelsim::callCount("teardown"));
    EXPECT_FALSE(zelsim::graphExists(failedId));

    ASSERT_TRUE(model->prepare(kSpeed)) << zelsim::lastError(model->graphId());
    const int freshId = static_cast<int>(model->graphId());
    EXPECT_NE(failedId, freshId);
    EXPECT_TRUE(allAccepted(freshId));
    EXPECT_TRUE(zelsim::graphPrepared(freshId));
    EXPECT_EQ(1, zelsim::callCount("teardown"));
}

TEST_F(LoweringTest, RefusalAtEveryNodeClearsAndRecovers) {
    HostGraph graph;
    canonical("conv_implicit_relu6").build(graph);
    ASSERT_TRUE(build(graph)->prepare(kSpeed));
    // input, conv, bias add, requantize, relux, dequantize, quantize, output
    const int nodes = zelsim::callCount("append_node");
    ASSERT_EQ(8, nodes);
    // filter, bias, six ranges, stride, two output ranges, 6.0, two fix-up ranges
    const int constants = zelsim::callCount("append_const_node");
    ASSERT_EQ(14, constants);
    for (int n = 1; n <= nodes; ++n) refuseAndRecover("append_node", n);
    for (int n = 1; n <= constants; ++n) refuseAndRecover("append_const_node", n);
}

// A bias the runtime refuses leaves an empty record: the record check
// refuses the operation before its first node.
TEST_F(LoweringTest, RefusedBiasFailsTheRecordCheck) {
    HostGraph graph;
    canonical("conv_implicit_relu6").build(graph);
    auto model = build(graph);
    ASSERT_TRUE(model);
    zelsim::failCall("append_const_node", 2, -1);  // the filter is the first constant, the bias the second
    EXPECT_FALSE(model->prepare(kSpeed));
    const std::string empty = "kestrel_nn_input{.src_id: 0, .output_idx: 0}";
    const std::vector<std::string> errors = errorTexts();
    EXPECT_EQ(1, std::count(errors.begin(), errors.end(),
                            "failed kestrel_zel_nn_input{} != input (" + empty + " != " + empty +
                                "): Need to create a valid input operand node."));
    EXPECT_EQ(1, zelsim::callCount("append_node"));
}

}  // namespace
}  // namespace lowering
