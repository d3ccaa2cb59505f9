// Text renderings of numbers and the runtime records, and the located check
// line (the log transcripts of the golden scenarios show both in use).
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "log_capture.h"
#include "zel_model.h"
#include "zel_utils.h"

namespace zel = arv::nnhal::zel;
using arv::nnhal::OperandType;

namespace {

// The runtime enumerations (the host ones are named in the golden support
// answers): nodes the plug-in never emits print as their number, paddings
// past the table as invalid.
TEST(EnumText, RuntimeValuesOutsideTheirTables) {
    EXPECT_EQ(zel::toString(static_cast<zel_op_type_enum>(3)), "3");
    EXPECT_EQ(zel::toString(static_cast<zel_op_type_enum>(INT32_MIN)), "-2147483648");
    EXPECT_EQ(zel::toString(ZEL_NN_PAD_NA), "NN_PAD_NA");
    EXPECT_EQ(zel::toString(ZEL_NN_PAD_SAME_CAFFE), "NN_PAD_SAME_CAFFE");
    EXPECT_EQ(zel::toString(static_cast<padding_type_enum>(6)), "<invalid kestrel_nn_padding_type>");
    EXPECT_EQ(zel::toString(static_cast<padding_type_enum>(-1)), "<invalid kestrel_nn_padding_type>");
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

// --- located check line ------------------------------------------------------------
// The line's form (location, condition, values, message) is pinned by the
// golden scenarios' refusals; here the values that print or compare oddly.

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
        {[] { return !le(2.25f, 1.5f) && le(1.5f, 1.5f); }, "failed value <= limit (2.25 <= 1.5): small"},
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
    }
}

}  // namespace
