// The model's support query: levels 0, 1 and 2, the lookup key (input 0, or
// input 1 for the vendor operations), the summary, trace lines, and
// malformed operations refused without reading outside the graph.
#include <gtest/gtest.h>

#include <functional>

#include "check_graph.h"

namespace checktest {
namespace {

using arv::nnhal::host::HostOperation;
using OT = OperationType;

struct QueryCase {
    std::string name;
    OT type;
    OperandType tensorType;
    std::function<void(OpGraph&)> build;  // before the model exists; null: canonical
    // Edits the host operation after the model read the graph (indices the
    // model would not accept at build).
    std::function<void(HostOperation&)> corrupt;
    int level;
    std::vector<std::string> errors;  // stripped; "{N}" stands for the operand count
};

std::function<void(OpGraph&)> input0Dims(std::vector<uint32_t> dims) {
    return [dims](OpGraph& g) {
        canonical(g);
        g.setDims(g.ins[0], dims);
    };
}
std::function<void(OpGraph&)> vendor(std::vector<uint32_t> (*inputs)(OpGraph&)) {
    return [inputs](OpGraph& g) {
        g.ins = inputs(g);
        g.outs = {g.tensorOutput({1, 4})};
    };
}
std::function<void(OpGraph&)> withInput(int32_t scalar) {
    return [scalar](OpGraph& g) {
        canonical(g);
        g.ins.push_back(g.scalar(scalar));
    };
}
std::function<void(OpGraph&)> withScalar(size_t at, int32_t value) {
    return [at, value](OpGraph& g) {
        canonical(g);
        g.setScalar(g.ins[at], value);
    };
}
std::function<void(HostOperation&)> input(size_t at, uint32_t operand) {
    return [at, operand](HostOperation& op) { op.mInputs[at] = operand; };
}

const OperandType Q8 = OperandType::TENSOR_QUANT8;
const std::string kOutside = " refers to operand 999 outside the graph ({N} operands)";

QueryCase query(std::string name, OT type, std::function<void(OpGraph&)> build,
                std::function<void(HostOperation&)> corrupt, int level, std::vector<std::string> errors,
                OperandType tensorType = Q8) {
    return {std::move(name), type, tensorType, std::move(build), std::move(corrupt), level, std::move(errors)};
}

std::vector<QueryCase> queryCases() {
    return {
        query("ZeroBatchIsLevel0", OT::CONV_2D, input0Dims({0, 8, 8, 3}), nullptr, 0, {}),
        query("ZeroInNonBatchDimensionIsLevel2", OT::CONV_2D, input0Dims({1, 0, 8, 3}), nullptr, 2,
              {"{CONV_2D, TENSOR_QUANT8} is not supported."}),
        // Eight inputs: a check run would log its own line.
        query("FloatConvIsLevel1WithoutACheck", OT::CONV_2D, withInput(0), nullptr, 1,
              {"{CONV_2D, TENSOR_FP32} is not supported."}, OperandType::TENSOR_FP32),
        query("CheckLineComesBeforeTheSummary", OT::CONV_2D, withScalar(3, 7), nullptr, 1,
              {"failed pad != ZEL_NN_PAD_NA (0 != 0): Unknown padding", "{CONV_2D, TENSOR_QUANT8} is not supported."}),
        // Registered, but the accelerator has no transposed convolution.
        query("TransposeConvIsAlwaysLevel1", OT::TRANSPOSE_CONV_2D, nullptr, nullptr, 1,
              {"{UNKNOWN_OPERATION_TYPE, TENSOR_QUANT8} is not supported."}),
        query("OemLstmWithOneInputKeysOnInput0", OT::OEM_LSTM, vendor([](OpGraph& g) {
                  return std::vector<uint32_t>{g.tensorInput({1, 4})};
              }),
              nullptr, 1, {"{OEM_LSTM, TENSOR_QUANT8} is not supported."}),
        query("OemLstmKeysOnInput1", OT::OEM_LSTM, vendor([](OpGraph& g) {
                  return std::vector<uint32_t>{g.tensorInput({1, 4}), g.int32Tensor({1}, {0})};
              }),
              nullptr, 1, {"{OEM_LSTM, TENSOR_INT32} is not supported."}),
        query("OemSplitKeysOnInput1", OT::OEM_SPLIT, nullptr, nullptr, 1,
              {"{OEM_SPLIT, TENSOR_QUANT8} is not supported."}),
        // Malformed operations: one line from the registry, then the summary.
        query("InputOutsideTheGraph", OT::CONV_2D, nullptr, input(1, 999), 1,
              {"Input 1" + kOutside, "{CONV_2D, TENSOR_QUANT8} is not supported."}),
        query("Input0OutsideTheGraph", OT::CONV_2D, nullptr, input(0, 999), 1,
              {"Input 0" + kOutside, "{CONV_2D, UNKNOWN_OPERAND_TYPE} is not supported."}),
        query("OemInput1OutsideTheGraph", OT::OEM_SPLIT, nullptr, input(1, 999), 1,
              {"Input 1" + kOutside, "{OEM_SPLIT, SCALAR_INT32} is not supported."}),
        query("OutputOutsideTheGraph", OT::RELU, nullptr, [](HostOperation& op) { op.mOutputs[0] = 999; }, 1,
              {"Output 0" + kOutside, "{RELU, TENSOR_QUANT8} is not supported."}),
        query("NoInputs", OT::RELU, nullptr, [](HostOperation& op) { op.mInputs.clear(); }, 1,
              {"Input 0 refers to operand 4294967295 outside the graph ({N} operands)",
               "{RELU, UNKNOWN_OPERAND_TYPE} is not supported."}),
        query("ScalarWithoutData", OT::CONV_2D,
              [](OpGraph& g) {
                  canonical(g);
                  g.ins[4] = g.emptyScalar();
              },
              nullptr, 1, {"Scalar operand 8 has no data", "{CONV_2D, TENSOR_QUANT8} is not supported."}),
    };
}

class SupportQuery : public testing::TestWithParam<QueryCase> {};

TEST_P(SupportQuery, AnswersItsLevelWithOneTraceLinePair) {
    const QueryCase& c = GetParam();
    OpGraph g(c.type, c.tensorType);
    if (c.build) {
        c.build(g);
    } else {
        canonical(g);
    }
    ASSERT_NE(g.model(), nullptr);
    if (c.corrupt) c.corrupt(g.graph.operation(0));
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
    EXPECT_EQ("Out ZelModel::getOperationSupportLevel()", log.debugs().back());
    EXPECT_EQ(c.level == 0 ? 1u : 0u, log.count("{CONV_2D, TENSOR_QUANT8} supported."));
}

INSTANTIATE_TEST_SUITE_P(Query, SupportQuery, testing::ValuesIn(queryCases()),
                         [](const testing::TestParamInfo<QueryCase>& info) { return info.param.name; });

TEST(SupportQueryEdges, NullOperationIsLevel1) {
    OpGraph g(OT::RELU);
    canonical(g);
    ASSERT_NE(g.model(), nullptr);
    zeltest::LogCapture log;
    EXPECT_EQ(1, g.model()->getOperationSupportLevel(nullptr));
    EXPECT_EQ((std::vector<std::string>{"No operation to query",
                                        "{UNKNOWN_OPERATION_TYPE, UNKNOWN_OPERAND_TYPE} is not supported."}),
              errorTexts(log));
    EXPECT_EQ(1u, log.count("Out ZelModel::getOperationSupportLevel()"));
}

TEST(SupportQueryEdges, ShapeWrittenByARefusedCheckStays) {
    OpGraph g(OT::FULLY_CONNECTED);
    canonical(g);
    g.makeGraphInput(g.ins[1]);
    ASSERT_NE(g.model(), nullptr);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(1, g.model()->getOperationSupportLevel(g.operation()));
        EXPECT_EQ((std::vector<uint32_t>{2, 3}), g.dims(g.outs[0]));
    }
}

// supportedParameters looks at the inputs only: a zero anywhere but the
// batch refuses; rank 0 and 1 never do.
TEST(SupportedParameters, ZeroOutsideTheBatchRefuses) {
    const struct {
        std::vector<uint32_t> dims;
        bool supported;
    } cases[] = {
        {{1, 2, 3, 4}, true}, {{0, 2, 3, 4}, true}, {{1, 2, 3, 0}, false}, {{0}, true},
        {{}, true},           {{0, 0}, false},      {{3, 0, 5}, false},
    };
    for (const auto& c : cases) {
        OpGraph g(OT::RELU);
        canonical(g);
        g.setDims(g.ins[0], c.dims);
        g.setDims(g.outs[0], {0, 0, 0});  // outputs are not examined
        ASSERT_NE(g.model(), nullptr);
        EXPECT_EQ(c.supported, g.model()->supportedParameters(g.operation())) << testing::PrintToString(c.dims);
    }
}

}  // namespace
}  // namespace checktest
