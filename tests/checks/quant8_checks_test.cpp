// The quant8 checks of the support table: every operation accepted in its
// canonical forms with the inferred shape stored, and every refusal rule
// with its exact line.
#include <gtest/gtest.h>

#include <algorithm>

#include "check_graph.h"

namespace checktest {
namespace {

namespace q8 = arv::nnhal::zel::quant8_asym_check;
using arv::nnhal::host::Lifetime;

constexpr const char* kQuant8Source = "src/zel_operations_check_quant8.cpp::";

// ---------------------------------------------------------------------------
// Canonical forms: the query answers 0 and the output shape is written.

struct Canonical {
    OperationType type;
    Form form;
    int32_t act;
};

std::string canonicalName(const testing::TestParamInfo<Canonical>& info) {
    return arv::nnhal::zel::toString(info.param.type) + "_" + formName(info.param.form) + "_act" +
           std::to_string(info.param.act);
}

std::vector<Canonical> canonicalCases() {
    std::vector<Canonical> cases;
    const Form forms[] = {Form::ImplicitSame, Form::ImplicitValid, Form::ExplicitSame, Form::ExplicitValid};
    for (int32_t act = 0; act <= 3; ++act) {
        for (OperationType type : {OperationType::CONV_2D, OperationType::DEPTHWISE_CONV_2D,
                                   OperationType::AVERAGE_POOL_2D, OperationType::MAX_POOL_2D}) {
            for (Form form : forms) cases.push_back({type, form, act});
        }
        for (OperationType type : {OperationType::FULLY_CONNECTED, OperationType::ADD, OperationType::SUB}) {
            cases.push_back({type, Form::ImplicitSame, act});
        }
    }
    for (OperationType type : {OperationType::RELU, OperationType::RELU1, OperationType::RELU6, OperationType::PRELU,
                               OperationType::CONCATENATION, OperationType::RESHAPE, OperationType::RESIZE_BILINEAR}) {
        cases.push_back({type, Form::ImplicitSame, 0});
    }
    return cases;
}

class CanonicalAccepted : public testing::TestWithParam<Canonical> {};

TEST_P(CanonicalAccepted, QueryAnswersSupportedAndStoresTheInferredShape) {
    OpGraph g(GetParam().type);
    const std::vector<uint32_t> expected = canonical(g, GetParam().form, GetParam().act);
    ASSERT_NE(g.model(), nullptr);
    zeltest::LogCapture log;

    EXPECT_EQ(0, g.model()->getOperationSupportLevel(g.operation()));
    EXPECT_EQ(expected, g.dims(g.outs[0]));
    EXPECT_EQ(std::vector<std::string>{}, log.errors());
    EXPECT_EQ(1u, log.count("{" + arv::nnhal::zel::toString(GetParam().type) + ", TENSOR_QUANT8} supported."));
    EXPECT_EQ(1u, log.count("In ZelModel::getOperationSupportLevel()"));
    EXPECT_EQ(1u, log.count("Out ZelModel::getOperationSupportLevel()"));
}

INSTANTIATE_TEST_SUITE_P(Quant8, CanonicalAccepted, testing::ValuesIn(canonicalCases()), canonicalName);

// ---------------------------------------------------------------------------
// Refusals: the check answers false after its own lines, in order.

struct Refusal {
    std::string name;
    OperationType type;
    Form form;
    std::function<void(OpGraph&)> mutate;
    std::vector<std::string> errors;
    std::vector<uint32_t> written;  // output dims stored before the refusal; empty: none
};

void PrintTo(const Refusal& c, std::ostream* os) {
    *os << c.name;
}

std::string refusalName(const testing::TestParamInfo<Refusal>& info) {
    return info.param.name;
}

void addInput(OpGraph& g) {
    g.ins.push_back(g.scalar(0));
}
void addOutput(OpGraph& g) {
    g.outs.push_back(g.tensorOutput({0, 0, 0, 0}));
}

const std::string kUnknownPadding = "failed pad != ZEL_NN_PAD_NA (0 != 0): Unknown padding";
const std::string kShape = "Error getting shape";

std::vector<Refusal> refusalCases() {
    using OT = OperationType;
    return {
        // CONV_2D, the fullest member.
        {"Conv8Inputs", OT::CONV_2D, Form::ImplicitSame, addInput, {"Need 7 or 10 inputs for CONV_2D"}, {}},
        {"Conv2Outputs",
         OT::CONV_2D,
         Form::ImplicitSame,
         addOutput,
         {"failed 1 == outs.size() (1 == 2): Need 1 output for CONV_2D"},
         {}},
        {"ConvPaddingCode3",
         OT::CONV_2D,
         Form::ImplicitSame,
         [](OpGraph& g) { g.setScalar(g.ins[3], 3); },
         {kUnknownPadding},
         {}},
        {"ConvPaddingCode0",
         OT::CONV_2D,
         Form::ImplicitSame,
         [](OpGraph& g) { g.setScalar(g.ins[3], 0); },
         {kUnknownPadding},
         {}},
        {"ConvExplicitExtraPixelLeft",
         OT::CONV_2D,
         Form::ExplicitSame,
         [](OpGraph& g) {
             g.setScalar(g.ins[3], 1);
             g.setScalar(g.ins[4], 0);
         },
         {kUnknownPadding},
         {}},
        {"ConvFilterDepth",
         OT::CONV_2D,
         Form::ImplicitSame,
         [](OpGraph& g) {
             g.setDims(g.ins[1], {4, 3, 3, 2});
         },
         {"NN_CHECK failed: getSizeOfDimension(filter, 3) == getSizeOfDimension(input, 3)", kShape},
         {}},
        {"ConvFilterNotConstant",
         OT::CONV_2D,
         Form::ExplicitValid,
         [](OpGraph& g) { g.makeGraphInput(g.ins[1]); },
         {"CONV_2D requires filter to be constant data"},
         {1, 3, 3, 4}},
        // DEPTHWISE_CONV_2D.
        {"Depthwise9Inputs",
         OT::DEPTHWISE_CONV_2D,
         Form::ImplicitSame,
         addInput,
         {"Need 8 or 11 inputs for DEPTHWISE_CONV_2D"},
         {}},
        {"Depthwise0Outputs",
         OT::DEPTHWISE_CONV_2D,
         Form::ImplicitSame,
         [](OpGraph& g) { g.outs.clear(); },
         {"failed 1 == outs.size() (1 == 0): Need 1 output for DEPTHWISE_CONV_2D"},
         {}},
        {"DepthwiseExplicitExtraRowTop",
         OT::DEPTHWISE_CONV_2D,
         Form::ExplicitSame,
         [](OpGraph& g) {
             g.setScalar(g.ins[5], 1);
             g.setScalar(g.ins[6], 0);
         },
         {kUnknownPadding},
         {}},
        {"DepthwiseBiasSize",
         OT::DEPTHWISE_CONV_2D,
         Form::ImplicitSame,
         [](OpGraph& g) { g.setDims(g.ins[2], {3}); },
         {"NN_CHECK failed: getSizeOfDimension(filter, 3) == getSizeOfDimension(bias, 0)", kShape},
         {}},
        {"DepthwiseFilterNotConstant",
         OT::DEPTHWISE_CONV_2D,
         Form::ImplicitSame,
         [](OpGraph& g) { g.makeGraphInput(g.ins[1]); },
         {"DEPTHWISE_CONV_2D requires filter to be constant data"},
         {1, 4, 4, 4}},
        // FULLY_CONNECTED.
        {"FullyConnected5Inputs",
         OT::FULLY_CONNECTED,
         Form::ImplicitSame,
         addInput,
         {"failed 4 == ins.size() (4 == 5): Need 4 inputs for FULLY_CONNECTED"},
         {}},
        {"FullyConnected2Outputs",
         OT::FULLY_CONNECTED,
         Form::ImplicitSame,
         addOutput,
         {"failed 1 == outs.size() (1 == 2): Need 1 output for FULLY_CONNECTED"},
         {}},
        {"FullyConnectedBiasSize",
         OT::FULLY_CONNECTED,
         Form::ImplicitSame,
         [](OpGraph& g) { g.setDims(g.ins[2], {4}); },
         {"NN_CHECK failed: getSizeOfDimension(bias, 0) == num_units", kShape},
         {}},
        {"FullyConnectedWeightsNotConstant",
         OT::FULLY_CONNECTED,
         Form::ImplicitSame,
         [](OpGraph& g) { g.makeGraphInput(g.ins[1]); },
         {"FULLY_CONNECTED requires weight to be constant data"},
         {2, 3}},
        // ADD, SUB.
        {"Add2Inputs",
         OT::ADD,
         Form::ImplicitSame,
         [](OpGraph& g) { g.ins.pop_back(); },
         {"failed 3 == ins.size() (3 == 2): Need 3 inputs for ADD"},
         {}},
        {"Sub2Outputs",
         OT::SUB,
         Form::ImplicitSame,
         addOutput,
         {"failed 1 == outs.size() (1 == 2): Need 1 output for SUB"},
         {}},
        {"AddShapesMismatch",
         OT::ADD,
         Form::ImplicitSame,
         [](OpGraph& g) {
             g.setDims(g.ins[1], {1, 2, 2, 4});
         },
         {"Dimensions mismatch for BroadcastAdd", kShape},
         {}},
        {"SubTypesDiffer",
         OT::SUB,
         Form::ImplicitSame,
         [](OpGraph& g) { g.graph.operand(g.ins[1]).mType = OperandType::TENSOR_INT32; },
         {"NN_CHECK failed: in1.type == in2.type", kShape},
         {}},
        // AVERAGE_POOL_2D, MAX_POOL_2D.
        {"MaxPool8Inputs", OT::MAX_POOL_2D, Form::ImplicitSame, addInput, {"Need 7 or 10 inputs for MAX_POOL_2D"}, {}},
        {"AveragePoolPaddingCode0",
         OT::AVERAGE_POOL_2D,
         Form::ImplicitValid,
         [](OpGraph& g) { g.setScalar(g.ins[1], 0); },
         {kUnknownPadding},
         {}},
        {"AveragePoolExplicitExtraPixelLeft",
         OT::AVERAGE_POOL_2D,
         Form::ExplicitSame,
         [](OpGraph& g) {
             g.setScalar(g.ins[1], 1);
             g.setScalar(g.ins[2], 0);
         },
         {kUnknownPadding},
         {}},
        {"MaxPoolRank3",
         OT::MAX_POOL_2D,
         Form::ImplicitSame,
         [](OpGraph& g) {
             g.setDims(g.ins[0], {8, 8, 3});
         },
         {"NN_CHECK failed: getNumberOfDimensions(input) == 4", kShape},
         {}},
        // RELU family, PRELU.
        {"Relu2Inputs",
         OT::RELU,
         Form::ImplicitSame,
         addInput,
         {"failed numInputs == ins.size() (1 == 2): Need 1 input for RELU"},
         {}},
        {"Prelu1Input",
         OT::PRELU,
         Form::ImplicitSame,
         [](OpGraph& g) { g.ins.pop_back(); },
         {"failed numInputs == ins.size() (2 == 1): Need 2 input for PRELU"},
         {}},
        {"Relu62Outputs",
         OT::RELU6,
         Form::ImplicitSame,
         addOutput,
         {"failed 1 == outs.size() (1 == 2): Need 1 output for RELU6"},
         {}},
        {"Relu1Rank5",
         OT::RELU1,
         Form::ImplicitSame,
         [](OpGraph& g) {
             g.setDims(g.ins[0], {1, 1, 2, 2, 3});
         },
         {"NN_CHECK failed: getNumberOfDimensions(input) <= 4", kShape},
         {}},
        // CONCATENATION.
        {"Concatenation2Inputs",
         OT::CONCATENATION,
         Form::ImplicitSame,
         [](OpGraph& g) { g.ins.erase(g.ins.begin() + 1); },
         {"failed 3 <= ins.size() (3 <= 2): Need at least 3 inputs for CONCATENATION"},
         {}},
        {"Concatenation2Outputs",
         OT::CONCATENATION,
         Form::ImplicitSame,
         addOutput,
         {"failed 1 == outs.size() (1 == 2): Need 1 output for CONCATENATION"},
         {}},
        {"ConcatenationAxis1",
         OT::CONCATENATION,
         Form::ImplicitSame,
         [](OpGraph& g) { g.setScalar(g.ins[2], 1); },
         {"failed axis == 3 (1 == 3): Concatenation only supports channel dimension."},
         {}},
        {"ConcatenationAxisMinus1",
         OT::CONCATENATION,
         Form::ImplicitSame,
         [](OpGraph& g) { g.setScalar(g.ins[2], -1); },
         {"failed axis == 3 (-1 == 3): Concatenation only supports channel dimension."},
         {}},
        {"ConcatenationOffsetsDiffer",
         OT::CONCATENATION,
         Form::ImplicitSame,
         [](OpGraph& g) { g.graph.operand(g.ins[1]).mZeroPoint = 3; },
         {"NN_CHECK failed: inputShapes[0].offset == inputShapes[i].offset", kShape},
         {}},
        // RESHAPE.
        {"Reshape3Inputs",
         OT::RESHAPE,
         Form::ImplicitSame,
         addInput,
         {"failed 2 == ins.size() (2 == 3): Need 2 inputs for RESHAPE"},
         {}},
        {"ReshapeTargetWithoutData",
         OT::RESHAPE,
         Form::ImplicitSame,
         [](OpGraph& g) { g.makeGraphInput(g.ins[1]); },
         {"pointer value is currently nullptr"},
         {}},
        {"ReshapeCountsDiffer",
         OT::RESHAPE,
         Form::ImplicitSame,
         [](OpGraph& g) {
             g.setInt32s(g.ins[1], {5, 6});
         },
         {"NN_CHECK failed: numInputElements == numOutputElements", kShape},
         {}},
        {"ReshapeTargetShorterThanShape",
         OT::RESHAPE,
         Form::ImplicitSame,
         [](OpGraph& g) { g.setDims(g.ins[1], {3}); },
         {"RESHAPE requires operand 1 to hold 3 int32 values of constant data (8 bytes)"},
         {}},
        // RESIZE_BILINEAR.
        {"ResizeBilinear2Inputs",
         OT::RESIZE_BILINEAR,
         Form::ImplicitSame,
         [](OpGraph& g) { g.ins.pop_back(); },
         {"failed 3 == ins.size() (3 == 2): Need 3 inputs for RESIZE_BILINEAR"},
         {}},
        {"ResizeBilinear2Outputs",
         OT::RESIZE_BILINEAR,
         Form::ImplicitSame,
         addOutput,
         {"failed 1 == outs.size() (1 == 2): Need 1 output for RESIZE_BILINEAR"},
         {}},
        {"ResizeBilinearRank3",
         OT::RESIZE_BILINEAR,
         Form::ImplicitSame,
         [](OpGraph& g) {
             g.setDims(g.ins[0], {2, 2, 3});
         },
         {"NN_CHECK failed: getNumberOfDimensions(input) == 4", kShape},
         {}},
    };
}

class RegisteredRefusal : public testing::TestWithParam<Refusal> {};

TEST_P(RegisteredRefusal, FirstFailingRuleLogsItsLineAndRefuses) {
    const Refusal& c = GetParam();
    OpGraph g(c.type);
    canonical(g, c.form);
    c.mutate(g);
    ASSERT_NE(g.model(), nullptr);
    const auto& table = arv::nnhal::zel::getOperationCheckTable();
    const auto row = table.find({c.type, OperandType::TENSOR_QUANT8});
    ASSERT_NE(row, table.end());
    zeltest::LogCapture log;

    EXPECT_FALSE(row->second(g.ins, g.outs, g.model()));
    EXPECT_EQ(c.errors, errorTexts(log));
    ASSERT_FALSE(log.errors().empty());
    EXPECT_EQ(0u, log.errors().back().rfind(kQuant8Source, 0)) << log.errors().back();
    if (!g.outs.empty()) {
        // Either the shape stored before the refusal, or the declared one.
        const std::vector<uint32_t> declared = g.graph.operand(g.outs[0]).mDims;
        EXPECT_EQ(c.written.empty() ? declared : c.written, g.dims(g.outs[0]));
    }
}

INSTANTIATE_TEST_SUITE_P(Quant8, RegisteredRefusal, testing::ValuesIn(refusalCases()), refusalName);

// ---------------------------------------------------------------------------
// Rules that are not refusals.

TEST(Quant8Rules, PoolOutputCountIsNotARule) {
    OpGraph g(OperationType::MAX_POOL_2D);
    const auto expected = pool2d(g, Form::ImplicitSame);
    addOutput(g);
    ASSERT_NE(g.model(), nullptr);
    zeltest::LogCapture log;
    EXPECT_TRUE(q8::max_pool_2d(g.ins, g.outs, g.model()));
    EXPECT_EQ(expected, g.dims(g.outs[0]));
    EXPECT_TRUE(log.errors().empty());
}

TEST(Quant8Rules, SameSplitOfAnOddTotalGivesTheFullOutput) {
    // in_w 224, filter 3, stride 2: out 112, needed 225, one padding column.
    OpGraph g(OperationType::CONV_2D);
    conv2d(g, Form::ImplicitSame);
    g.setDims(g.ins[0], {1, 224, 224, 3});
    EXPECT_TRUE(q8::conv_2d(g.ins, g.outs, g.model()));
    EXPECT_EQ((std::vector<uint32_t>{1, 112, 112, 4}), g.dims(g.outs[0]));
}

TEST(Quant8Rules, ActivationCodesOutsideTheHostSetMapToNoActivation) {
    // Only 1..3 name an activation; anything else becomes ZEL_OP_Nop.
    for (int32_t act : {4, 7, -1, 49}) {
        OpGraph g(OperationType::CONV_2D);
        conv2d(g, Form::ImplicitSame, act);
        EXPECT_TRUE(q8::conv_2d(g.ins, g.outs, g.model())) << act;
    }
}

TEST(Quant8Rules, FusedActivationCheckAcceptsExactlyTheFusableCodes) {
    const int32_t accepted[] = {2, 21, 23, 89, 167};
    for (int32_t code = 0; code < 400; ++code) {
        const bool expected = std::find(std::begin(accepted), std::end(accepted), code) != std::end(accepted);
        EXPECT_EQ(expected, q8::fusedActivationCheck(static_cast<zel_op_type_enum>(code))) << code;
    }
}

TEST(Quant8Rules, TransposeConv2dRefusesWithoutALine) {
    OpGraph g(OperationType::TRANSPOSE_CONV_2D);
    conv2d(g, Form::ImplicitSame);
    ASSERT_NE(g.model(), nullptr);
    zeltest::LogCapture log;
    EXPECT_FALSE(q8::transpose_conv_2d(g.ins, g.outs, g.model()));
    EXPECT_TRUE(log.texts().empty());
}

TEST(Quant8Rules, TableHoldsExactlyTheFifteenQuant8Rows) {
    using OT = OperationType;
    const std::vector<OT> expected = {OT::ADD,
                                      OT::AVERAGE_POOL_2D,
                                      OT::CONCATENATION,
                                      OT::CONV_2D,
                                      OT::DEPTHWISE_CONV_2D,
                                      OT::FULLY_CONNECTED,
                                      OT::MAX_POOL_2D,
                                      OT::RELU,
                                      OT::RELU1,
                                      OT::RELU6,
                                      OT::RESHAPE,
                                      OT::RESIZE_BILINEAR,
                                      OT::SUB,
                                      OT::PRELU,
                                      OT::TRANSPOSE_CONV_2D};
    std::vector<OT> keys;
    for (const auto& row : arv::nnhal::zel::getOperationCheckTable()) {
        EXPECT_EQ(OperandType::TENSOR_QUANT8, row.first.second);
        keys.push_back(row.first.first);
    }
    EXPECT_EQ(expected, keys);
    EXPECT_EQ(&arv::nnhal::zel::getOperationCheckTable(), &arv::nnhal::zel::getOperationCheckTable());
}

// ---------------------------------------------------------------------------
// Direct calls with indices outside the graph refuse instead of reading.

TEST(Quant8Malformed, IndicesOutsideTheGraphAreRefusedBeforeAnyRead) {
    OpGraph g(OperationType::CONV_2D);
    conv2d(g, Form::ImplicitSame);
    ZelModel* model = g.model();
    const uint32_t outside = g.graph.getOperandCount() + 5;

    std::vector<uint32_t> ins = g.ins;
    ins[1] = outside;
    zeltest::LogCapture log;
    EXPECT_FALSE(q8::conv_2d(ins, g.outs, model));
    EXPECT_EQ((std::vector<std::string>{"Input 1 of CONV_2D names operand " + std::to_string(outside) +
                                        ", which is outside the graph"}),
              errorTexts(log));

    log.clear();
    EXPECT_FALSE(q8::relu({g.ins[0]}, {outside}, model));
    EXPECT_EQ((std::vector<std::string>{"Output 0 of RELU names operand " + std::to_string(outside) +
                                        ", which is outside the graph"}),
              errorTexts(log));

    log.clear();
    EXPECT_FALSE(q8::max_pool_2d({g.ins[0], g.ins[3], g.ins[4], g.ins[5], g.ins[4], g.ins[4], g.ins[6]}, {}, model));
    EXPECT_EQ((std::vector<std::string>{"failed 1 <= outs.size() (1 <= 0): Need at least 1 output for MAX_POOL_2D"}),
              errorTexts(log));
}

TEST(Quant8Malformed, ScalarWithoutDataIsRefusedByTheCheck) {
    OpGraph g(OperationType::CONV_2D);
    conv2d(g, Form::ImplicitSame);
    const uint32_t empty = g.emptyScalar();
    g.ins[4] = empty;
    zeltest::LogCapture log;
    EXPECT_FALSE(q8::conv_2d(g.ins, g.outs, g.model()));
    EXPECT_EQ((std::vector<std::string>{"Scalar operand " + std::to_string(empty) + " has no data"}), errorTexts(log));
}

}  // namespace
}  // namespace checktest
