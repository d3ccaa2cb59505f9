// The model's support query: levels 0, 1 and 2, the lookup key (input 0, or
// input 1 for the vendor operations), the summary, trace lines, and
// malformed operations refused without reading outside the graph.
#include <gtest/gtest.h>

#include "check_graph.h"

namespace checktest {
namespace {

using arv::nnhal::host::HostOperation;

struct QueryCase {
    std::string name;
    OperationType type;
    OperandType tensorType;
    // Builds the operation; returns nothing, edits g before the model exists.
    std::function<void(OpGraph&)> build;
    // Edits the host operation after the model read the graph (malformed
    // indices the model would not accept at build).
    std::function<void(OpGraph&, HostOperation&)> corrupt;
    int level;
    // Error lines (stripped); "{N}" stands for the graph's operand count.
    std::vector<std::string> errors;
};

void PrintTo(const QueryCase& c, std::ostream* os) {
    *os << c.name;
}

std::string queryName(const testing::TestParamInfo<QueryCase>& info) {
    return info.param.name;
}

void canonicalOnly(OpGraph& g) {
    canonical(g);
}
void noCorruption(OpGraph&, HostOperation&) {}

std::vector<QueryCase> queryCases() {
    using OT = OperationType;
    const OperandType q8 = OperandType::TENSOR_QUANT8;
    return {
        {"ZeroInNonBatchDimensionIsLevel2",
         OT::CONV_2D,
         q8,
         [](OpGraph& g) {
             conv2d(g, Form::ImplicitSame);
             g.setDims(g.ins[0], {1, 0, 8, 3});
         },
         noCorruption,
         2,
         {"{CONV_2D, TENSOR_QUANT8} is not supported."}},
        {"ZeroBatchIsLevel0",
         OT::CONV_2D,
         q8,
         [](OpGraph& g) {
             conv2d(g, Form::ImplicitSame);
             g.setDims(g.ins[0], {0, 8, 8, 3});
         },
         noCorruption,
         0,
         {}},
        {"ZeroWidthOfActivationInputIsLevel2",
         OT::RELU,
         q8,
         [](OpGraph& g) {
             activation(g);
             g.setDims(g.ins[0], {1, 2, 0, 3});
         },
         noCorruption,
         2,
         {"{RELU, TENSOR_QUANT8} is not supported."}},
        {"ZeroBatchOfFullyConnectedIsLevel0",
         OT::FULLY_CONNECTED,
         q8,
         [](OpGraph& g) {
             fullyConnected(g);
             g.setDims(g.ins[0], {0, 6});
         },
         noCorruption,
         0,
         {}},
        // A float CONV_2D with 8 inputs: any check run would log its own line.
        {"FloatConvIsLevel1WithoutACheck",
         OT::CONV_2D,
         OperandType::TENSOR_FP32,
         [](OpGraph& g) {
             conv2d(g, Form::ImplicitSame);
             g.ins.push_back(g.scalar(0));
         },
         noCorruption,
         1,
         {"{CONV_2D, TENSOR_FP32} is not supported."}},
        {"CheckLineComesBeforeTheSummary",
         OT::CONV_2D,
         q8,
         [](OpGraph& g) {
             conv2d(g, Form::ImplicitSame);
             g.setScalar(g.ins[3], 7);
         },
         noCorruption,
         1,
         {"failed pad != ZEL_NN_PAD_NA (0 != 0): Unknown padding", "{CONV_2D, TENSOR_QUANT8} is not supported."}},
        {"TransposeConvIsAlwaysLevel1",
         OT::TRANSPOSE_CONV_2D,
         q8,
         [](OpGraph& g) { conv2d(g, Form::ImplicitSame); },
         noCorruption,
         1,
         {"{UNKNOWN_OPERATION_TYPE, TENSOR_QUANT8} is not supported."}},
        {"OemLstmWithOneInputNamesInput0",
         OT::OEM_LSTM,
         q8,
         [](OpGraph& g) {
             g.ins = {g.tensorInput({1, 4})};
             g.outs = {g.tensorOutput({1, 4})};
         },
         noCorruption,
         1,
         {"{OEM_LSTM, TENSOR_QUANT8} is not supported."}},
        {"OemLstmKeysOnInput1",
         OT::OEM_LSTM,
         q8,
         [](OpGraph& g) {
             g.ins = {g.tensorInput({1, 4}), g.int32Tensor({1}, {0})};
             g.outs = {g.tensorOutput({1, 4})};
         },
         noCorruption,
         1,
         {"{OEM_LSTM, TENSOR_INT32} is not supported."}},
        {"OemSplitKeysOnInput1",
         OT::OEM_SPLIT,
         q8,
         [](OpGraph& g) {
             g.ins = {g.scalar(3), g.tensorInput({1, 4}), g.scalar(2), g.scalar(0)};
             g.outs = {g.tensorOutput({1, 2}), g.tensorOutput({1, 2})};
         },
         noCorruption,
         1,
         {"{OEM_SPLIT, TENSOR_QUANT8} is not supported."}},
        // Malformed operations: one line from the registry, then the summary.
        {"InputOutsideTheGraph",
         OT::CONV_2D,
         q8,
         canonicalOnly,
         [](OpGraph&, HostOperation& op) { op.mInputs[1] = 999; },
         1,
         {"Input 1 refers to operand 999 outside the graph ({N} operands)",
          "{CONV_2D, TENSOR_QUANT8} is not supported."}},
        {"Input0OutsideTheGraph",
         OT::CONV_2D,
         q8,
         canonicalOnly,
         [](OpGraph&, HostOperation& op) { op.mInputs[0] = 999; },
         1,
         {"Input 0 refers to operand 999 outside the graph ({N} operands)",
          "{CONV_2D, UNKNOWN_OPERAND_TYPE} is not supported."}},
        {"OutputOutsideTheGraph",
         OT::RELU,
         q8,
         canonicalOnly,
         [](OpGraph&, HostOperation& op) { op.mOutputs[0] = 999; },
         1,
         {"Output 0 refers to operand 999 outside the graph ({N} operands)",
          "{RELU, TENSOR_QUANT8} is not supported."}},
        {"NoInputs",
         OT::RELU,
         q8,
         canonicalOnly,
         [](OpGraph&, HostOperation& op) { op.mInputs.clear(); },
         1,
         {"Input 0 refers to operand 4294967295 outside the graph ({N} operands)",
          "{RELU, UNKNOWN_OPERAND_TYPE} is not supported."}},
        {"OemInput1OutsideTheGraph",
         OT::OEM_SPLIT,
         q8,
         [](OpGraph& g) {
             g.ins = {g.scalar(3), g.tensorInput({1, 4}), g.scalar(1), g.scalar(0)};
             g.outs = {g.tensorOutput({1, 4})};
         },
         [](OpGraph&, HostOperation& op) { op.mInputs[1] = 999; },
         1,
         {"Input 1 refers to operand 999 outside the graph ({N} operands)",
          "{OEM_SPLIT, SCALAR_INT32} is not supported."}},
        {"ScalarWithoutData",
         OT::CONV_2D,
         q8,
         [](OpGraph& g) {
             conv2d(g, Form::ImplicitSame);
             g.ins[4] = g.emptyScalar();
         },
         noCorruption,
         1,
         {"Scalar operand 8 has no data", "{CONV_2D, TENSOR_QUANT8} is not supported."}},
        {"ScalarWithoutDataOutsideTheTable",
         OT::MUL,
         q8,
         [](OpGraph& g) {
             elementWise(g);
             g.ins[2] = g.emptyScalar();
         },
         noCorruption,
         1,
         {"Scalar operand 4 has no data", "{MUL, TENSOR_QUANT8} is not supported."}},
    };
}

class SupportQuery : public testing::TestWithParam<QueryCase> {};

TEST_P(SupportQuery, AnswersItsLevelWithOneTraceLinePair) {
    const QueryCase& c = GetParam();
    OpGraph g(c.type, c.tensorType);
    c.build(g);
    ASSERT_NE(g.model(), nullptr);
    c.corrupt(g, g.graph.operation(0));
    std::vector<std::string> expected;
    for (std::string line : c.errors) {
        const auto at = line.find("{N}");
        if (at != std::string::npos) line.replace(at, 3, std::to_string(g.graph.getOperandCount()));
        expected.push_back(line);
    }
    zeltest::LogCapture log;

    EXPECT_EQ(c.level, g.model()->getOperationSupportLevel(g.operation()));
    EXPECT_EQ(expected, errorTexts(log));
    EXPECT_EQ(1u, log.count("In ZelModel::getOperationSupportLevel()"));
    EXPECT_EQ(1u, log.count("Out ZelModel::getOperationSupportLevel()"));
    EXPECT_EQ("Out ZelModel::getOperationSupportLevel()", log.debugs().back());
    if (c.level == 0) {
        EXPECT_EQ(1u, log.countContaining("TENSOR_QUANT8} supported."));
    }
}

INSTANTIATE_TEST_SUITE_P(Query, SupportQuery, testing::ValuesIn(queryCases()), queryName);

TEST(SupportQueryNull, NullOperationIsLevel1) {
    OpGraph g(OperationType::RELU);
    activation(g);
    ASSERT_NE(g.model(), nullptr);
    zeltest::LogCapture log;
    EXPECT_EQ(1, g.model()->getOperationSupportLevel(nullptr));
    EXPECT_EQ((std::vector<std::string>{"No operation to query",
                                        "{UNKNOWN_OPERATION_TYPE, UNKNOWN_OPERAND_TYPE} is not supported."}),
              errorTexts(log));
    EXPECT_EQ(1u, log.count("Out ZelModel::getOperationSupportLevel()"));
}

TEST(SupportQueryRepeat, ShapeWrittenByARefusedCheckStays) {
    OpGraph g(OperationType::FULLY_CONNECTED);
    fullyConnected(g);
    g.makeGraphInput(g.ins[1]);
    ASSERT_NE(g.model(), nullptr);
    EXPECT_EQ(1, g.model()->getOperationSupportLevel(g.operation()));
    EXPECT_EQ((std::vector<uint32_t>{2, 3}), g.dims(g.outs[0]));
    EXPECT_EQ(1, g.model()->getOperationSupportLevel(g.operation()));
    EXPECT_EQ((std::vector<uint32_t>{2, 3}), g.dims(g.outs[0]));
}

// supportedParameters looks at the inputs only: a zero anywhere but the
// batch refuses; rank 0 and 1 never do.
TEST(SupportedParameters, ZeroOutsideTheBatchRefuses) {
    const struct {
        std::vector<uint32_t> dims;
        bool supported;
    } cases[] = {
        {{1, 2, 3, 4}, true}, {{0, 2, 3, 4}, true}, {{1, 0, 3, 4}, false}, {{1, 2, 3, 0}, false},
        {{0}, true},          {{}, true},           {{0, 0}, false},       {{3, 0, 5}, false},
    };
    for (const auto& c : cases) {
        OpGraph g(OperationType::RELU);
        activation(g);
        g.setDims(g.ins[0], c.dims);
        g.setDims(g.outs[0], {0, 0, 0});  // outputs are not examined
        ASSERT_NE(g.model(), nullptr);
        EXPECT_EQ(c.supported, g.model()->supportedParameters(g.operation())) << testing::PrintToString(c.dims);
    }
}

}  // namespace
}  // namespace checktest
