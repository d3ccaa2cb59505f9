// Text renderings of the host enumerations and the runtime records, the
// located check line and the log channel.
#include <android/log.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "log_capture.h"
#include "zel_model.h"
#include "zel_utils.h"

namespace zel = arv::nnhal::zel;
using arv::nnhal::OperandType;
using arv::nnhal::OperationType;

namespace {

struct NameCase {
    int64_t value;  // wide enough for every enumeration's numbers
    const char* text;
};

std::string caseName(const testing::TestParamInfo<NameCase>& info) {
    const std::string digits = std::to_string(info.param.value < 0 ? -info.param.value : info.param.value);
    return (info.param.value < 0 ? "minus_" : "v") + digits;
}

// --- OperationType -----------------------------------------------------------

const NameCase kOperationTypes[] = {
    {0, "ADD"},
    {1, "AVERAGE_POOL_2D"},
    {2, "CONCATENATION"},
    {3, "CONV_2D"},
    {4, "DEPTHWISE_CONV_2D"},
    {5, "DEPTH_TO_SPACE"},
    {6, "DEQUANTIZE"},
    {7, "EMBEDDING_LOOKUP"},
    {8, "FLOOR"},
    {9, "FULLY_CONNECTED"},
    {10, "HASHTABLE_LOOKUP"},
    {11, "L2_NORMALIZATION"},
    {12, "L2_POOL_2D"},
    {13, "LOCAL_RESPONSE_NORMALIZATION"},
    {14, "LOGISTIC"},
    {15, "LSH_PROJECTION"},
    {16, "LSTM"},
    {17, "MAX_POOL_2D"},
    {18, "MUL"},
    {19, "RELU"},
    {20, "RELU1"},
    {21, "RELU6"},
    {22, "RESHAPE"},
    {23, "RESIZE_BILINEAR"},
    {24, "RNN"},
    {25, "SOFTMAX"},
    {26, "SPACE_TO_DEPTH"},
    {27, "SVDF"},
    {28, "TANH"},
    {29, "BATCH_TO_SPACE_ND"},
    {30, "DIV"},
    {31, "MEAN"},
    {32, "PAD"},
    {33, "SPACE_TO_BATCH_ND"},
    {34, "SQUEEZE"},
    {35, "STRIDED_SLICE"},
    {36, "SUB"},
    {37, "TRANSPOSE"},
    {71, "PRELU"},
    {20000, "OEM_LSTM"},
    {20001, "OEM_SPLIT"},
    // Everything else is unknown, including the gap 38..70 and the
    // transposed convolution the host knows but this table does not.
    {38, "UNKNOWN_OPERATION_TYPE"},
    {50, "UNKNOWN_OPERATION_TYPE"},
    {70, "UNKNOWN_OPERATION_TYPE"},
    {72, "UNKNOWN_OPERATION_TYPE"},
    {91, "UNKNOWN_OPERATION_TYPE"},
    {19999, "UNKNOWN_OPERATION_TYPE"},
    {20002, "UNKNOWN_OPERATION_TYPE"},
    {-1, "UNKNOWN_OPERATION_TYPE"},
};

class OperationTypeText : public testing::TestWithParam<NameCase> {};

TEST_P(OperationTypeText, RendersItsName) {
    const OperationType type = static_cast<OperationType>(static_cast<int32_t>(GetParam().value));
    EXPECT_EQ(zel::toString(type), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(Table, OperationTypeText, testing::ValuesIn(kOperationTypes), caseName);

// --- OperandType -------------------------------------------------------------

const NameCase kOperandTypes[] = {
    {0, "SCALAR_FP32"},
    {1, "SCALAR_INT32"},
    {2, "SCALAR_UNSIGNED_INT32"},
    {3, "TENSOR_FP32"},
    {4, "TENSOR_INT32"},
    {5, "TENSOR_QUANT8"},
    {10000, "CUSTOM"},
    {10001, "TENSOR_CUSTOM_BYTE"},
    {6, "UNKNOWN_OPERAND_TYPE"},
    {9999, "UNKNOWN_OPERAND_TYPE"},
    {10002, "UNKNOWN_OPERAND_TYPE"},
    {-3, "UNKNOWN_OPERAND_TYPE"},
};

class OperandTypeText : public testing::TestWithParam<NameCase> {};

TEST_P(OperandTypeText, RendersItsName) {
    const OperandType type = static_cast<OperandType>(static_cast<int32_t>(GetParam().value));
    EXPECT_EQ(zel::toString(type), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(Table, OperandTypeText, testing::ValuesIn(kOperandTypes), caseName);

// --- zel_op_type_enum ----------------------------------------------------------

const NameCase kZelOps[] = {
    {0, "ZEL_OP_INPUT"},
    {1, "ZEL_OP_OUTPUT"},
    {2, "ZEL_OP_Nop"},
    {15, "ZEL_OP_QuantizedConv2d_8x8to32"},
    {17, "ZEL_OP_QuantizedMatMul_8x8to32"},
    {21, "ZEL_OP_QuantizedRelu_8"},
    {23, "ZEL_OP_QuantizedReluX_8"},
    {25, "ZEL_OP_QuantizedMaxPool_8"},
    {27, "ZEL_OP_QuantizedAvgPool_8"},
    {31, "ZEL_OP_QuantizedConcat_8"},
    {39, "ZEL_OP_Quantize"},
    {41, "ZEL_OP_Dequantize"},
    {60, "ZEL_OP_QuantizedReshape"},
    {70, "ZEL_OP_Requantize_32to8"},
    {113, "ZEL_OP_QuantizedAdd_8p8to32"},
    {156, "ZEL_OP_QuantizedDepthwiseConv2d_8x8to32"},
    {167, "ZEL_OP_QuantizedClamp_8"},
    {176, "ZEL_OP_QuantizedBiasAdd_32p32to32"},
    // Operations the plug-in never emits print as their number, even when
    // the runtime header names them.
    {3, "3"},
    {46, "46"},
    {58, "58"},
    {220, "220"},
    {2147483647, "2147483647"},
    {-1, "-1"},
    {-42, "-42"},
    {INT32_MIN, "-2147483648"},
};

class ZelOpText : public testing::TestWithParam<NameCase> {};

TEST_P(ZelOpText, RendersItsNameOrNumber) {
    const int32_t value = static_cast<int32_t>(GetParam().value);
    EXPECT_EQ(zel::toString(static_cast<zel_op_type_enum>(value)), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(Table, ZelOpText, testing::ValuesIn(kZelOps), caseName);

// --- padding_type_enum ---------------------------------------------------------

const NameCase kPaddings[] = {
    {0, "NN_PAD_NA"},
    {1, "NN_PAD_SAME"},
    {2, "NN_PAD_VALID"},
    {3, "NN_PAD_MIRROR_REFLECT"},
    {4, "NN_PAD_MIRROR_SYMMETRIC"},
    {5, "NN_PAD_SAME_CAFFE"},
    {6, "<invalid kestrel_nn_padding_type>"},
    {7, "<invalid kestrel_nn_padding_type>"},
    {1000, "<invalid kestrel_nn_padding_type>"},
    // Taken as unsigned: a negative value is a huge index.
    {-1, "<invalid kestrel_nn_padding_type>"},
};

class PaddingText : public testing::TestWithParam<NameCase> {};

TEST_P(PaddingText, RendersItsNameOrInvalid) {
    const int32_t value = static_cast<int32_t>(GetParam().value);
    EXPECT_EQ(zel::toString(static_cast<padding_type_enum>(value)), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(Table, PaddingText, testing::ValuesIn(kPaddings), caseName);

// --- numbers and arrays ------------------------------------------------------------

TEST(NumberText, ScalarsPrintAsToString) {
    EXPECT_EQ(zel::toString(0u), "0");
    EXPECT_EQ(zel::toString(4294967295u), "4294967295");
    EXPECT_EQ(zel::toString(-17), "-17");
    EXPECT_EQ(zel::toString(0.5f), "0.500000");
    EXPECT_EQ(zel::toString(-1.25f), "-1.250000");
    // Six decimals, so a small step rounds away.
    EXPECT_EQ(zel::toString(0.0000004f), "0.000000");
}

TEST(NumberText, ArraysAreBracketedAndCommaSeparated) {
    const unsigned int values[] = {1, 22, 333};
    EXPECT_EQ(zel::toString(values, 3u), "[1, 22, 333]");
    EXPECT_EQ(zel::toString(values, 1u), "[1]");
    EXPECT_EQ(zel::toString(values, 0u), "[]");
}

// --- records -------------------------------------------------------------------------

TEST(RecordText, InputNamesBothFields) {
    const kestrel_zel_nn_input in{7, 2};
    EXPECT_EQ(zel::toString(in), "kestrel_nn_input{.src_id: 7, .output_idx: 2}");
    EXPECT_EQ(zel::toString(kestrel_zel_nn_input{}), "kestrel_nn_input{.src_id: 0, .output_idx: 0}");
}

TEST(RecordText, OutputPrintsAllEightSizesWhateverTheRank) {
    kestrel_zel_nn_output out{};
    out.rank = 2;
    out.max_sizes[0] = 3;
    out.max_sizes[1] = 4;
    out.max_sizes[7] = 9;  // beyond the rank, still printed
    out.elementsize = 1;
    out.zero_offset = -128;
    out.stepsize = 0.5f;
    EXPECT_EQ(zel::toString(out),
              "kestrel_nn_output{.rank: 2, .max_sizes: [3, 4, 0, 0, 0, 0, 0, 9], .elementsize: 1, "
              ".zero_offset: -128, .stepsize: 0.500000}");
}

TEST(RecordText, TensordefPrintsTheDataAddressAsUnsignedDecimal) {
    unsigned char bytes[16] = {};
    kestrel_zel_nn_tensordef def{};
    def.batches = 1;
    def.height = 2;
    def.width = 3;
    def.depth = 4;
    def.data = bytes;
    def.dataLen = -1;
    def.data_valid_len = 24;
    def.unused = 0;
    const std::string address = std::to_string(reinterpret_cast<uintptr_t>(bytes));
    EXPECT_EQ(zel::toString(def), "kestrel_nn_tensordef{.batches: 1, .height: 2, .width: 3, .depth: 4, .data: " +
                                      address + ", .dataLen: -1, .data_valid_len: 24, .unused: 0}");

    def.data = nullptr;
    EXPECT_THAT(zel::toString(def), testing::HasSubstr(", .data: 0, .dataLen: "));
}

TEST(RecordText, PerfinfoNamesEveryCounter) {
    const kestrel_zel_nn_perfinfo info{5, 10, 4294967295u, 1};
    EXPECT_EQ(zel::toString(info),
              "kestrel_nn_perfinfo{.node_id: 5, .executions: 10, .counter_lo: 4294967295, .counter_hi: 1}");
}

TEST(RecordText, ShapeUsesTypeNameArrayAndSixDecimals) {
    zel::Shape shape;
    shape.type = OperandType::TENSOR_QUANT8;
    shape.dimensions = {1, 8, 8, 3};
    shape.scale = 0.5f;
    shape.offset = 128;
    EXPECT_EQ(zel::toString(shape),
              "Shape{.type: TENSOR_QUANT8, .dimensions: [1, 8, 8, 3], .scale: 0.500000, .zeroPoint: 128}");
}

TEST(RecordText, ShapeWithoutDimensionsPrintsEmptyArray) {
    zel::Shape shape;
    shape.type = OperandType::SCALAR_INT32;
    EXPECT_EQ(zel::toString(shape),
              "Shape{.type: SCALAR_INT32, .dimensions: [], .scale: 0.000000, .zeroPoint: 0}");
    shape.type = static_cast<OperandType>(77);
    EXPECT_THAT(zel::toString(shape), testing::StartsWith("Shape{.type: UNKNOWN_OPERAND_TYPE, "));
}

TEST(RecordText, StreamOperatorsPrintTheSameText) {
    const kestrel_zel_nn_input in{3, 1};
    kestrel_zel_nn_output out{};
    out.rank = 4;
    out.max_sizes[3] = 16;
    out.stepsize = 2.0f;
    std::ostringstream os;
    os << in << "|" << out;
    EXPECT_EQ(os.str(), zel::toString(in) + "|" + zel::toString(out));
}

// --- log channel -------------------------------------------------------------------

TEST(LogChannel, DebugAndErrorUseTheirPriorityAndTheOneTag) {
    zeltest::LogCapture log;
    handle_debug_info("first line");
    handle_error_info("second line");
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].priority, ANDROID_LOG_DEBUG);
    EXPECT_EQ(lines[0].priority, 3);
    EXPECT_EQ(lines[0].tag, "zel-android-log-ravine");
    EXPECT_EQ(lines[0].text, "first line");
    EXPECT_EQ(lines[1].priority, 6);
    EXPECT_EQ(lines[1].tag, "zel-android-log-ravine");
    EXPECT_EQ(lines[1].text, "second line");
}

TEST(LogChannel, PercentSignsAreNotFormatDirectives) {
    zeltest::LogCapture log;
    handle_error_info("100% %s %d done");
    EXPECT_EQ(log.errors(), std::vector<std::string>{"100% %s %d done"});
}

// --- located check line ------------------------------------------------------------

int checkEq(int left, int right) {
    ZEL_CHECK_EQ(left, right, -1, "Need " << right << " inputs for " << zel::toString(OperationType::CONV_2D));
    return 0;
}

bool checkNe(uint32_t count) {
    ZEL_CHECK_NE(0u, count, false, "failed getLog");
    return true;
}

int checkGe(size_t size) {
    ZEL_CHECK_GE(size, 3u, 7, "too small");
    return 0;
}

float checkLe(float scale) {
    ZEL_CHECK_LE(scale, 1.5f, -1.0f, "scale");
    return scale;
}

// Every side is evaluated once, even in the failure line.
int counted(int* calls, int value) {
    ++*calls;
    return value;
}

int checkOnce(int* calls) {
    ZEL_CHECK_EQ(counted(calls, 1), 2, -1, "once");
    return 0;
}

struct CheckCase {
    const char* name;
    std::function<bool()> failsWithItsValue;  // runs the check, true when it returned its failure value
    std::string text;                         // text after the location
};

class LocatedCheck : public testing::TestWithParam<CheckCase> {};

TEST_P(LocatedCheck, LogsOneLocatedLineAndReturnsTheFailureValue) {
    zeltest::LogCapture log;
    EXPECT_TRUE(GetParam().failsWithItsValue());
    const auto errors = log.errors();
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_TRUE(log.debugs().empty());
    EXPECT_EQ(zeltest::afterLocation(errors[0]), GetParam().text);
    // The location is the build's relative path of the file, "::" and the line.
    EXPECT_TRUE(std::regex_match(errors[0], std::regex("tests/foundation/text_test\\.cpp::[0-9]+ -- .*")))
        << errors[0];
}

INSTANTIATE_TEST_SUITE_P(
    Operators, LocatedCheck,
    testing::Values(
        CheckCase{"eq", [] { return checkEq(2, 3) == -1; },
                  "failed left == right (2 == 3): Need 3 inputs for CONV_2D"},
        CheckCase{"ne", [] { return !checkNe(0); }, "failed 0u != count (0 != 0): failed getLog"},
        CheckCase{"ge", [] { return checkGe(2) == 7; }, "failed size >= 3u (2 >= 3): too small"},
        CheckCase{"le", [] { return checkLe(2.25f) == -1.0f; }, "failed scale <= 1.5f (2.25 <= 1.5): scale"},
        CheckCase{"once",
                  [] {
                      int calls = 0;
                      return checkOnce(&calls) == -1 && calls == 1;
                  },
                  "failed counted(calls, 1) == 2 (1 == 2): once"}),
    [](const testing::TestParamInfo<CheckCase>& info) { return std::string(info.param.name); });

TEST(LocatedCheckPasses, PassingChecksLogNothing) {
    zeltest::LogCapture log;
    EXPECT_EQ(checkEq(4, 4), 0);
    EXPECT_TRUE(checkNe(3));
    EXPECT_EQ(checkGe(3), 0);
    EXPECT_EQ(checkLe(1.5f), 1.5f);
    EXPECT_TRUE(log.lines().empty());
}

TEST(LocatedCheckPasses, MixedSignComparisonsCompareValues) {
    zeltest::LogCapture log;
    // -1 is smaller than any unsigned number: no wrap-around to 4294967295.
    const auto check = [](int value) -> bool {
        ZEL_CHECK_LE(value, 3u, false, "small");
        return true;
    };
    EXPECT_TRUE(check(-1));
    EXPECT_FALSE(check(4));
    ASSERT_EQ(log.errors().size(), 1u);
    EXPECT_EQ(zeltest::afterLocation(log.errors()[0]), "failed value <= 3u (4 <= 3): small");
}

TEST(LocatedCheckInSources, LocationIsTheRelativeSourcePath) {
    zeltest::LogCapture log;
    EXPECT_TRUE(zel::getAlignedDimensions({1, 2, 3, 4, 5}, 4).empty());
    const auto errors = log.errors();
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_TRUE(std::regex_match(errors[0], std::regex("src/[a-z0-9_]+\\.cpp::[0-9]+ -- .*"))) << errors[0];
    EXPECT_EQ(zeltest::afterLocation(errors[0]),
              "failed N >= dims.size() (4 >= 5): Error: constant data dimensions 5 exceeds alignment of 4");
}

TEST(NnCheck, LogsTheConditionText) {
    zeltest::LogCapture log;
    const auto check = [](int rank) -> bool {
        NN_CHECK(rank <= 4);
        return true;
    };
    EXPECT_TRUE(check(4));
    EXPECT_FALSE(check(5));
    EXPECT_EQ(log.errors(), std::vector<std::string>{"NN_CHECK failed: rank <= 4"});
}

}  // namespace
