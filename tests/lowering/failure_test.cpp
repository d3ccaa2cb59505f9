// Refusals of the lowering: operand counts, padding, missing table rows,
// malformed graphs and runtime refusals during prepare.
#include <algorithm>
#include <stdexcept>

#include "lowering_support.h"
#include "zel_operations_prepare_float32.h"
#include "zel_operations_prepare_quant8.h"

namespace lowering {
namespace {

using arv::nnhal::ExecutionPerformance;
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

void PrintTo(const CountCase& c, std::ostream* os) { *os << c.label; }

std::vector<uint32_t> indices(uint32_t count) {
    std::vector<uint32_t> list;
    for (uint32_t i = 0; i < count; ++i) list.push_back(i);
    return list;
}

class CountTest : public LoweringTest, public ::testing::WithParamInterface<CountCase> {};

// The count is refused before any operand is read or any node appended.
TEST_P(CountTest, RefusesWithOneLine) {
    HostGraph graph;
    for (int i = 0; i < 16; ++i) graph.addInt32(1);
    auto model = attached(graph);
    ASSERT_TRUE(model);
    log.clear();
    const int appendsBefore = appendCalls();

    EXPECT_FALSE(GetParam().fn(indices(GetParam().inputs), indices(GetParam().outputs), model.get()));
    EXPECT_EQ(std::vector<std::string>{GetParam().message}, errorTexts());
    EXPECT_EQ(appendsBefore, appendCalls());
}

const CountCase kCounts[] = {
    {"conv_8", q8::conv_2d, 8, 1, "Need 7 or 10 inputs for quant8_asym::conv_2d"},
    {"conv_9", q8::conv_2d, 9, 1, "Need 7 or 10 inputs for quant8_asym::conv_2d"},
    {"conv_2_outputs", q8::conv_2d, 7, 2, "failed 1 == outs.size() (2 == 1): Need 1 output for quant8_asym::conv_2d"},
    {"depthwise_9", q8::depthwise_conv_2d, 9, 1, "Need 8 to 11 inputs for quant8_asym::depthwise_conv_2d"},
    {"depthwise_10", q8::depthwise_conv_2d, 10, 1, "Need 8 to 11 inputs for quant8_asym::depthwise_conv_2d"},
    {"depthwise_12", q8::depthwise_conv_2d, 12, 1, "Need 8 to 11 inputs for quant8_asym::depthwise_conv_2d"},
    {"depthwise_0_outputs", q8::depthwise_conv_2d, 11, 0,
     "failed 1 == outs.size() (0 == 1): Need 1 output for quant8_asym::depthwise_conv_2d"},
    {"fully_connected_3", q8::fully_connected, 3, 1, "Need 4 inputs for quant8::fully_connected"},
    {"fully_connected_2_outputs", q8::fully_connected, 4, 2,
     "failed 1 == outs.size() (2 == 1): Need 1 output for quant8::fully_connected"},
    {"add_2", q8::add, 2, 1, "Need 3 inputs for quant8_asym::add"},
    {"add_0_outputs", q8::add, 3, 0, "failed 1 == outs.size() (0 == 1): Need 1 output for quant8_asym::add"},
    {"sub_4", q8::sub, 4, 1, "Need 3 inputs for quant8_asym::sub"},
    {"mul_2", q8::mul, 2, 1, "Need 3 inputs for quant8_asym::mul"},
    {"average_pool_8", q8::average_pool_2d, 8, 1, "Need 7 or 10 inputs for quant8_asym::average_pool_2d"},
    {"max_pool_6", q8::max_pool_2d, 6, 1, "Need 7 or 10 inputs for quant8_asym::max_pool_2d"},
    {"max_pool_2_outputs", q8::max_pool_2d, 7, 2,
     "failed 1 == outs.size() (2 == 1): Need 1 output for quant8_asym::max_pool_2d"},
    {"concatenation_2", q8::concatenation, 2, 1, "Need at least 3 inputs for quant8_asym::concatenation"},
    {"relu_2", q8::relu, 2, 1, "Need 1 input for quant8_asym::relu"},
    {"relu1_0", q8::relu1, 0, 1, "Need 1 input for quant8_asym::relu1"},
    {"relu6_2", q8::relu6, 2, 1, "Need 1 input for quant8_asym::relu6"},
    {"relu6_2_outputs", q8::relu6, 1, 2, "failed 1 == outs.size() (2 == 1): Need 1 output for quant8_asym::relu6"},
    {"prelu_1", q8::prelu, 1, 1, "Need 2 inputs for quant8_asym::prelu"},
    {"logistic_2", q8::logistic, 2, 1, "Need 1 input for quant8_asym::logistic"},
    {"softmax_1", q8::softmax, 1, 1, "Need 2 inputs for quant8_asym::softmax"},
    {"reshape_3", q8::reshape, 3, 1, "Need 2 inputs for quant8_asym::reshape"},
    {"squeeze_1", q8::squeeze, 1, 1, "Need 2 inputs for SQUEEZE"},
    {"squeeze_2_outputs", q8::squeeze, 2, 2, "failed 1 == outs.size() (2 == 1): Need 1 output for SQUEEZE"},
    {"pad_1", q8::pad, 1, 1, "Need 2 inputs for quant8_asym::pad"},
    {"resize_2", q8::resize_bilinear, 2, 1, "Need 3 inputs for float32::resize_bilinear"},
    {"resize_0_outputs", q8::resize_bilinear, 3, 0,
     "failed 1 == outs.size() (0 == 1): Need 1 output for float32::resize_bilinear"},
    {"batch_to_space_3", q8::batch_to_space_nd, 3, 1, "Need 2 inputs for quant8_asym::batch_to_space_nd"},
    {"space_to_batch_2", q8::space_to_batch_nd, 2, 1, "Need 3 inputs for quant8_asym::space_to_batch_nd"},
    {"space_to_depth_1", q8::space_to_depth, 1, 1, "Need 2 inputs for quant8_asym::space_to_depth"},
    {"lstm_5", q8::oemLstm, 5, 4, "Need 6 inputs for OEM LSTM"},
    {"lstm_3_outputs", q8::oemLstm, 6, 3, "failed 4 == outs.size() (3 == 4): Need 4 outputs for OEM LSTM"},
    {"split_3", q8::oemSplit, 3, 2, "Need 4 inputs for OEM Split"},
    {"f32_add_2", f32::add, 2, 1, "Need 3 inputs for float32::add"},
    {"f32_sub_4", f32::sub, 4, 1, "Need 3 inputs for float32::sub"},
    {"f32_mul_0_outputs", f32::mul, 3, 0, "failed 1 == outs.size() (0 == 1): Need 1 output for float32::mul"},
    {"f32_average_pool_9", f32::average_pool_2d, 9, 1, "Need 7 or 10 inputs for float32::average_pool_2d"},
    {"f32_l2_pool_8", f32::l2_pool_2d, 8, 1, "Need 7 or 10 inputs for float32::l2_pool_2d"},
    {"f32_max_pool_11", f32::max_pool_2d, 11, 1, "Need 7 or 10 inputs for float32::max_pool_2d"},
    {"f32_conv_8", f32::conv_2d, 8, 1, "Need 7 or 10 inputs for float32::conv_2d"},
    {"f32_conv_2_outputs", f32::conv_2d, 10, 2,
     "failed 1 == outs.size() (2 == 1): Need 1 output for float32::conv_2d"},
    {"f32_depthwise_9", f32::depthwise_conv_2d, 9, 1, "Need 8 or 11 inputs for float32::depthwise_conv_2d"},
    {"f32_fully_connected_5", f32::fully_connected, 5, 1, "Need 4 inputs for float32::fully_connected"},
    {"f32_concatenation_1", f32::concatenation, 1, 1, "Need at least 3 inputs for float32::concatenation"},
    {"f32_lrn_4", f32::local_response_normalization, 4, 1,
     "Need 5 inputs for float32::local_response_normalization"},
    {"f32_logistic_2", f32::logistic, 2, 1, "Need 1 input for float32::logistic"},
    {"f32_tanh_0", f32::tanh, 0, 1, "Need 1 input for float32::tanh"},
    {"f32_relu_2", f32::relu, 2, 1, "Need 1 input for float32::relu"},
    {"f32_relu1_2", f32::relu1, 2, 1, "Need 1 input for float32::relu1"},
    {"f32_relu6_2_outputs", f32::relu6, 1, 2, "failed 1 == outs.size() (2 == 1): Need 1 output for float32::relu6"},
    {"f32_softmax_1", f32::softmax, 1, 1, "Need 2 inputs for float32::softmax"},
    {"f32_reshape_3", f32::reshape, 3, 1, "Need 2 inputs for float32::reshape"},
    {"f32_squeeze_1", f32::squeeze, 1, 1, "Need 2 inputs for SQUEEZE"},
    {"f32_pad_1", f32::pad, 1, 1, "Need 2 inputs for PAD"},
    {"f32_pad_2_outputs", f32::pad, 2, 2, "failed 1 == outs.size() (2 == 1): Need 1 output for PAD"},
    {"f32_transpose_3", f32::transpose, 3, 1, "Need 2 inputs for TRANSPOSE"},
    {"f32_resize_2", f32::resize_bilinear, 2, 1, "Need 3 inputs for float32::resize_bilinear"},
    {"f32_batch_to_space_1", f32::batch_to_space_nd, 1, 1, "Need 2 inputs for float32::batch_to_space_nd"},
    {"f32_space_to_batch_2", f32::space_to_batch_nd, 2, 1, "Need 3 inputs for float32::space_to_batch_nd"},
};

INSTANTIATE_TEST_SUITE_P(AllFamilies, CountTest, ::testing::ValuesIn(kCounts),
                         [](const ::testing::TestParamInfo<CountCase>& info) { return info.param.label; });

// Lowering through prepare: the error lines of a failed operation, in order.
class PrepareFailureTest : public LoweringTest {
protected:
    // Prepares `graph` and expects failure; returns the error texts.
    std::vector<std::string> failingPrepare(HostGraph& graph) {
        auto model = build(graph);
        if (!model) {
            ADD_FAILURE() << "graph does not build";
            return {};
        }
        EXPECT_FALSE(model->prepare(ExecutionPerformance::SUSTAINED_SPEED));
        return errorTexts();
    }
};

// in [1,3,3,1] through `type` with the given scalar parameters after it.
void windowGraph(HostGraph& g, OperationType type, const std::vector<int32_t>& scalars, bool withFilter) {
    const uint32_t in = g.addQuant8({1, 3, 3, 1}, 0.5f, 0, Lifetime::Input);
    std::vector<uint32_t> ins = {in};
    if (withFilter) {
        ins.push_back(g.addQuant8({1, 2, 2, 1}, 0.5f, 0, Lifetime::Constant, {1, 2, 3, 4}));
        ins.push_back(g.addInt32Tensor({1}, 0.25f, {0}));
    }
    for (int32_t value : scalars) ins.push_back(g.addInt32(value));
    const uint32_t out = g.addQuant8({1, 3, 3, 1}, 1.0f, 0, Lifetime::Output);
    g.addOperation(type, ins, {out});
    g.setInputs({in});
    g.setOutputs({out});
}

struct PaddingCase {
    const char* label;
    OperationType type;
    std::vector<int32_t> scalars;
    bool withFilter;
};

void PrintTo(const PaddingCase& c, std::ostream* os) { *os << c.label; }

class UnknownPaddingTest : public PrepareFailureTest, public ::testing::WithParamInterface<PaddingCase> {};

// Left 1 / right 0 is not what SAME gives (the odd pixel goes right), and
// padding code 3 is neither SAME nor VALID.
TEST_P(UnknownPaddingTest, FailsBeforeTheOperationNode) {
    HostGraph graph;
    windowGraph(graph, GetParam().type, GetParam().scalars, GetParam().withFilter);
    const std::vector<std::string> errors = failingPrepare(graph);
    ASSERT_FALSE(errors.empty());
    EXPECT_EQ("failed pad != ZEL_NN_PAD_NA (0 != 0): Unknown padding", errors[0]);
    EXPECT_EQ(1, std::count(errors.begin(), errors.end(), "error adding operation"));
    // Only the input node was appended as an operation.
    EXPECT_EQ(1, zelsim::callCount("append_node"));
}

const PaddingCase kPaddings[] = {
    {"conv_explicit_left", OperationType::CONV_2D, {1, 0, 0, 0, 1, 1, 0}, true},
    {"conv_implicit_code_3", OperationType::CONV_2D, {3, 1, 1, 0}, true},
    {"depthwise_explicit_top", OperationType::DEPTHWISE_CONV_2D, {0, 1, 1, 0, 1, 1, 1, 0}, true},
    {"average_pool_code_0", OperationType::AVERAGE_POOL_2D, {0, 1, 1, 2, 2, 0}, false},
    {"max_pool_explicit_left", OperationType::MAX_POOL_2D, {1, 0, 0, 1, 1, 1, 2, 2, 0}, false},
};

INSTANTIATE_TEST_SUITE_P(WindowOps, UnknownPaddingTest, ::testing::ValuesIn(kPaddings),
                         [](const ::testing::TestParamInfo<PaddingCase>& info) { return info.param.label; });

TEST_F(PrepareFailureTest, DepthwiseWithNineInputsNamesTheRangeText) {
    HostGraph graph;
    windowGraph(graph, OperationType::DEPTHWISE_CONV_2D, {0, 0, 0, 0, 1, 1}, true);
    const std::vector<std::string> errors = failingPrepare(graph);
    ASSERT_GE(errors.size(), 2u);
    EXPECT_EQ("Need 8 to 11 inputs for quant8_asym::depthwise_conv_2d", errors[0]);
    EXPECT_EQ("error adding operation", errors[1]);
}

TEST_F(PrepareFailureTest, ResizeWithTwoInputsReportsTheFloatText) {
    HostGraph graph;
    const uint32_t in = graph.addQuant8({1, 2, 2, 1}, 0.5f, 0, Lifetime::Input);
    const uint32_t width = graph.addInt32(3);
    const uint32_t out = graph.addQuant8({1, 2, 3, 1}, 0.5f, 0, Lifetime::Output);
    graph.addOperation(OperationType::RESIZE_BILINEAR, {in, width}, {out});
    graph.setInputs({in});
    graph.setOutputs({out});
    const std::vector<std::string> errors = failingPrepare(graph);
    ASSERT_GE(errors.size(), 2u);
    EXPECT_EQ("Need 3 inputs for float32::resize_bilinear", errors[0]);
    EXPECT_EQ("error adding operation", errors[1]);
}

struct MissingRowCase {
    const char* label;
    OperationType type;
    OperandType operandType;
};

void PrintTo(const MissingRowCase& c, std::ostream* os) { *os << c.label; }

class MissingRowTest : public PrepareFailureTest, public ::testing::WithParamInterface<MissingRowCase> {};

// Pairs without a lowering row fail in the model before any lowering.
TEST_P(MissingRowTest, OperationNotFound) {
    HostGraph graph;
    const uint32_t a = graph.addOperand(GetParam().operandType, {1, 2, 2, 1}, 0.5f, 0, Lifetime::Input);
    const uint32_t b = graph.addOperand(GetParam().operandType, {1, 2, 2, 1}, 0.5f, 0, Lifetime::Input);
    const uint32_t act = graph.addInt32(0);
    const uint32_t out = graph.addOperand(GetParam().operandType, {1, 2, 2, 1}, 0.5f, 0, Lifetime::Output);
    graph.addOperation(GetParam().type, {a, b, act}, {out});
    graph.setInputs({a, b});
    graph.setOutputs({out});
    const std::vector<std::string> errors = failingPrepare(graph);
    ASSERT_FALSE(errors.empty());
    EXPECT_EQ("Operation not found", errors[0]);
}

const MissingRowCase kMissingRows[] = {
    {"float_add", OperationType::ADD, OperandType::TENSOR_FP32},
    {"float_conv", OperationType::CONV_2D, OperandType::TENSOR_FP32},
    {"quant8_mul", OperationType::MUL, OperandType::TENSOR_QUANT8},
    {"quant8_softmax", OperationType::SOFTMAX, OperandType::TENSOR_QUANT8},
};

INSTANTIATE_TEST_SUITE_P(Unregistered, MissingRowTest, ::testing::ValuesIn(kMissingRows),
                         [](const ::testing::TestParamInfo<MissingRowCase>& info) { return info.param.label; });

// The row exists; its function refuses without a line of its own.
TEST_F(PrepareFailureTest, TransposeConvFindsItsRowAndFails) {
    HostGraph graph;
    windowGraph(graph, OperationType::TRANSPOSE_CONV_2D, {1, 1, 1, 0}, true);
    const std::vector<std::string> errors = failingPrepare(graph);
    ASSERT_FALSE(errors.empty());
    EXPECT_EQ("error adding operation", errors[0]);
    EXPECT_EQ(0, std::count(errors.begin(), errors.end(), "Operation not found"));
    EXPECT_EQ(1, zelsim::callCount("append_node"));
    EXPECT_EQ(0, zelsim::callCount("append_const_node"));
}

// --- malformed operations -------------------------------------------------

TEST_F(LoweringTest, OperandOutsideTheGraphIsRefusedBeforeAnyRead) {
    HostGraph graph;
    windowGraph(graph, OperationType::CONV_2D, {1, 1, 1, 0}, true);
    auto model = attached(graph);
    ASSERT_TRUE(model);
    log.clear();
    const int appendsBefore = appendCalls();
    EXPECT_FALSE(q8::conv_2d({0, 1, 2, 3, 99, 5, 6}, {7}, model.get()));
    EXPECT_FALSE(f32::relu({0}, {1000}, model.get()));
    EXPECT_EQ(2u, log.errors().size());
    EXPECT_EQ(appendsBefore, appendCalls());
}

TEST_F(LoweringTest, ScalarWithoutDataIsRefusedBeforeAnyRead) {
    HostGraph graph;
    const uint32_t in = graph.addQuant8({1, 4, 4, 1}, 0.5f, 0, Lifetime::Input);
    const uint32_t empty = graph.addOperand(OperandType::SCALAR_INT32, {}, 0.0f, 0, Lifetime::Constant);
    const uint32_t two = graph.addInt32(2);
    const uint32_t out = graph.addQuant8({1, 2, 2, 1}, 0.5f, 0, Lifetime::Output);
    graph.setInputs({in});
    graph.setOutputs({out});
    auto model = attached(graph);
    ASSERT_TRUE(model);
    log.clear();
    const int appendsBefore = appendCalls();
    EXPECT_FALSE(q8::max_pool_2d({in, two, empty, two, two, two, two}, {out}, model.get()));
    EXPECT_EQ(1u, log.errors().size());
    EXPECT_EQ(appendsBefore, appendCalls());
}

TEST_F(LoweringTest, NullModelIsRefused) {
    EXPECT_FALSE(q8::relu({0}, {1}, nullptr));
    EXPECT_FALSE(f32::relu({0}, {1}, nullptr));
    EXPECT_EQ(std::vector<std::string>(2, "No model to lower into"), errorTexts());
}

// --- runtime refusals during prepare --------------------------------------

const Canonical& convGraph() {
    for (const Canonical& c : canonicalGraphs()) {
        if (c.name == "conv_implicit_relu6") return c;
    }
    throw std::runtime_error("no conv graph");
}

// Refusing the n-th append of `entry` fails prepare, tears the graph down
// once, and leaves the model preparable on a fresh graph.
void refuseAndRecover(const std::string& entry, unsigned nth) {
    SCOPED_TRACE(entry + " #" + std::to_string(nth));
    zelsim::reset();
    HostGraph graph;
    convGraph().build(graph);
    std::unique_ptr<ZelModel> model(ZelModel::create(&graph));
    ASSERT_TRUE(model);
    zelsim::failCall(entry, nth, -1);

    EXPECT_FALSE(model->prepare(ExecutionPerformance::SUSTAINED_SPEED));
    const int failedId = static_cast<int>(model->graphId());
    EXPECT_EQ(1, zelsim::callCount("teardown"));
    EXPECT_FALSE(zelsim::graphExists(failedId));

    ASSERT_TRUE(model->prepare(ExecutionPerformance::SUSTAINED_SPEED)) << zelsim::lastError(model->graphId());
    const int freshId = static_cast<int>(model->graphId());
    EXPECT_NE(failedId, freshId);
    EXPECT_TRUE(allAccepted(freshId));
    EXPECT_TRUE(zelsim::graphPrepared(freshId));
    EXPECT_EQ(1, zelsim::callCount("teardown"));
}

TEST_F(LoweringTest, RefusalAtEveryNodeClearsAndRecovers) {
    HostGraph graph;
    convGraph().build(graph);
    {
        std::unique_ptr<ZelModel> model(ZelModel::create(&graph));
        ASSERT_TRUE(model);
        ASSERT_TRUE(model->prepare(ExecutionPerformance::SUSTAINED_SPEED));
    }
    const int nodes = zelsim::callCount("append_node");
    const int constants = zelsim::callCount("append_const_node");
    // input, conv, bias add, requantize, relux, dequantize, quantize, output
    ASSERT_EQ(8, nodes);
    // filter, bias, six ranges, stride, two output ranges, 6.0, two fix-up ranges
    ASSERT_EQ(14, constants);
    for (int n = 1; n <= nodes; ++n) refuseAndRecover("append_node", static_cast<unsigned>(n));
    for (int n = 1; n <= constants; ++n) refuseAndRecover("append_const_node", static_cast<unsigned>(n));
}

// A bias the runtime refuses leaves an empty record: the record check
// refuses the operation before its first node.
TEST_F(LoweringTest, RefusedBiasFailsTheRecordCheck) {
    HostGraph graph;
    convGraph().build(graph);
    auto model = build(graph);
    ASSERT_TRUE(model);
    zelsim::failCall("append_const_node", 2, -1);  // the filter is the first constant, the bias the second
    EXPECT_FALSE(model->prepare(ExecutionPerformance::SUSTAINED_SPEED));
    const std::string empty = "kestrel_nn_input{.src_id: 0, .output_idx: 0}";
    const std::vector<std::string> errors = errorTexts();
    EXPECT_EQ(1, std::count(errors.begin(), errors.end(),
                            "failed kestrel_zel_nn_input{} != input (" + empty + " != " + empty +
                                "): Need to create a valid input operand node."));
    EXPECT_EQ(1, zelsim::callCount("append_node"));
}

}  // namespace
}  // namespace lowering
