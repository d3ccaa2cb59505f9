// Text renderings of the host enumerations and the runtime records, the
// located check line and the log channel. The name tables are pinned at
// their edges only: first and last names, gaps and out-of-range values.
#include <android/log.h>
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

template <typename Enum>
std::function<std::string(int32_t)> render() {
    return [](int32_t value) { return zel::toString(static_cast<Enum>(value)); };
}

TEST(EnumText, NamesAtTheEdgesOfEachTable) {
    const auto op = render<OperationType>();
    const auto operand = render<OperandType>();
    const auto node = render<zel_op_type_enum>();
    const auto padding = render<padding_type_enum>();
    const struct {
        std::function<std::string(int32_t)> toString;
        int32_t value;
        const char* text;
    } cases[] = {
        {op, 0, "ADD"},
        {op, 71, "PRELU"},
        {op, 20000, "OEM_LSTM"},
        {op, 20001, "OEM_SPLIT"},
        // The gap 38..70, the transposed convolution (known to the host, not
        // to this table) and everything past the ends are unknown.
        {op, 38, "UNKNOWN_OPERATION_TYPE"},
        {op, 72, "UNKNOWN_OPERATION_TYPE"},
        {op, 20002, "UNKNOWN_OPERATION_TYPE"},
        {op, -1, "UNKNOWN_OPERATION_TYPE"},
        {operand, 0, "SCALAR_FP32"},
        {operand, 10000, "CUSTOM"},
        {operand, 10001, "TENSOR_CUSTOM_BYTE"},
        {operand, 6, "UNKNOWN_OPERAND_TYPE"},
        {operand, 10002, "UNKNOWN_OPERAND_TYPE"},
        {operand, -3, "UNKNOWN_OPERAND_TYPE"},
        {node, 0, "ZEL_OP_INPUT"},
        {node, 176, "ZEL_OP_QuantizedBiasAdd_32p32to32"},
        // Nodes the plug-in never emits print as their number.
        {node, 3, "3"},
        {node, INT32_MIN, "-2147483648"},
        {padding, 0, "NN_PAD_NA"},
        {padding, 5, "NN_PAD_SAME_CAFFE"},
        {padding, 6, "<invalid kestrel_nn_padding_type>"},
        {padding, -1, "<invalid kestrel_nn_padding_type>"},  // a huge index, taken as unsigned
    };
    for (const auto& c : cases) EXPECT_EQ(c.toString(c.value), c.text) << c.value;
}

TEST(NumberText, ScalarsAndArrays) {
    EXPECT_EQ(zel::toString(4294967295u), "4294967295");
    EXPECT_EQ(zel::toString(-17), "-17");
    EXPECT_EQ(zel::toString(-1.25f), "-1.250000");
    EXPECT_EQ(zel::toString(0.0000004f), "0.000000");  // six decimals
    const unsigned int values[] = {1, 22, 333};
    EXPECT_EQ(zel::toString(values, 3u), "[1, 22, 333]");
    EXPECT_EQ(zel::toString(values, 0u), "[]");
}

TEST(RecordText, EveryFieldInOrder) {
    EXPECT_EQ(zel::toString(kestrel_zel_nn_input{7, 2}), "kestrel_nn_input{.src_id: 7, .output_idx: 2}");

    kestrel_zel_nn_output out{};
    out.rank = 2;
    out.max_sizes[0] = 3;
    out.max_sizes[7] = 9;  // beyond the rank, still printed
    out.elementsize = 1;
    out.zero_offset = -128;
    out.stepsize = 0.5f;
    EXPECT_EQ(zel::toString(out),
              "kestrel_nn_output{.rank: 2, .max_sizes: [3, 0, 0, 0, 0, 0, 0, 9], .elementsize: 1, "
              ".zero_offset: -128, .stepsize: 0.500000}");

    unsigned char bytes[4] = {};
    kestrel_zel_nn_tensordef def{1, 2, 3, 4, bytes, -1, 24, 0};
    EXPECT_EQ(zel::toString(def), "kestrel_nn_tensordef{.batches: 1, .height: 2, .width: 3, .depth: 4, .data: " +
                                      std::to_string(reinterpret_cast<uintptr_t>(bytes)) +
                                      ", .dataLen: -1, .data_valid_len: 24, .unused: 0}");

    EXPECT_EQ(zel::toString(kestrel_zel_nn_perfinfo{5, 10, 4294967295u, 1}),
              "kestrel_nn_perfinfo{.node_id: 5, .executions: 10, .counter_lo: 4294967295, .counter_hi: 1}");

    zel::Shape shape;
    shape.type = OperandType::TENSOR_QUANT8;
    shape.dimensions = {1, 8, 8, 3};
    shape.scale = 0.5f;
    shape.offset = 128;
    EXPECT_EQ(zel::toString(shape),
              "Shape{.type: TENSOR_QUANT8, .dimensions: [1, 8, 8, 3], .scale: 0.500000, .zeroPoint: 128}");

    std::ostringstream os;
    os << kestrel_zel_nn_input{3, 1} << "|" << out;
    EXPECT_EQ(os.str(), zel::toString(kestrel_zel_nn_input{3, 1}) + "|" + zel::toString(out));
}

TEST(LogChannel, DebugAndErrorUseTheirPriorityAndTheOneTag) {
    zeltest::LogCapture log;
    handle_debug_info("first line");
    handle_error_info("100% %s %d done");  // no format directives
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].priority, ANDROID_LOG_DEBUG);
    EXPECT_EQ(lines[0].tag, "zel-android-log-ravine");
    EXPECT_EQ(lines[0].text, "first line");
    EXPECT_EQ(lines[1].priority, ANDROID_LOG_ERROR);
    EXPECT_EQ(lines[1].tag, "zel-android-log-ravine");
    EXPECT_EQ(lines[1].text, "100% %s %d done");
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
template <typename T, typename Limit>
bool le(T value, Limit limit) {
    ZEL_CHECK_LE(value, limit, false, "small");
    return true;
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

TEST(LocatedCheck, LogsOneLocatedLineAndReturnsTheFailureValue) {
    int calls = 0;
    const struct {
        std::function<bool()> failsWithItsValue;  // runs the check: true when it returned its failure value
        std::string text;                         // after the location
    } cases[] = {
        {[] { return checkEq(2, 3) == -1; }, "failed left == right (2 == 3): Need 3 inputs for CONV_2D"},
        {[] { return !checkNe(0); }, "failed 0u != count (0 != 0): failed getLog"},
        {[] { return checkGe(2) == 7; }, "failed size >= 3u (2 >= 3): too small"},
        {[] { return !le(2.25f, 1.5f); }, "failed value <= limit (2.25 <= 1.5): small"},
        // Mixed signs compare values: -1 is below 3u, 4 is not.
        {[] { return le(-1, 3u) && !le(4, 3u); }, "failed value <= limit (4 <= 3): small"},
        {[&calls] { return checkOnce(&calls) == -1 && calls == 1; }, "failed counted(calls, 1) == 2 (1 == 2): once"},
    };
    for (const auto& c : cases) {
        zeltest::LogCapture log;
        EXPECT_TRUE(c.failsWithItsValue()) << c.text;
        const auto errors = log.errors();
        ASSERT_EQ(errors.size(), 1u) << c.text;
        EXPECT_TRUE(log.debugs().empty());
        EXPECT_EQ(zeltest::afterLocation(errors[0]), c.text);
        // The location is the build's relative path of the file, "::" and the line.
        EXPECT_TRUE(std::regex_match(errors[0], std::regex("tests/foundation/text_test\\.cpp::[0-9]+ -- .*")))
            << errors[0];
    }
}

TEST(LocatedCheck, PassingChecksLogNothing) {
    zeltest::LogCapture log;
    EXPECT_EQ(checkEq(4, 4), 0);
    EXPECT_TRUE(checkNe(3));
    EXPECT_EQ(checkGe(3), 0);
    EXPECT_TRUE(le(1.5f, 1.5f));
    EXPECT_TRUE(log.lines().empty());
}

TEST(LocatedCheck, LocationInTheSourcesIsTheRelativePath) {
    zeltest::LogCapture log;
    EXPECT_TRUE(zel::getAlignedDimensions({1, 2, 3, 4, 5}, 4).empty());
    const auto errors = log.errors();
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_TRUE(std::regex_match(errors[0], std::regex("src/zel_utils\\.cpp::[0-9]+ -- .*"))) << errors[0];
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
