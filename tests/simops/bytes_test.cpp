// 8-bit result nodes run through the op table: activations, PReLU,
// quantize/dequantize, pooling, concatenation, reshape, resize. Expected
// bytes are worked by hand in the comments.
#include <cmath>

#include "simops_util.h"

namespace simops {
namespace {

// Range [-10, 15.5]: step 0.1, zero point 100.
constexpr float kLo = -10.0f, kHi = 15.5f;
const std::vector<uint8_t> kRamp = {0, 50, 99, 100, 101, 150, 159, 160, 161, 255};

struct ActivationCase {
    const char* name;
    int32_t op;
    std::vector<float> bounds;
    std::vector<uint8_t> expected;
};
void PrintTo(const ActivationCase& c, std::ostream* os) {
    *os << c.name;
}

class ActivationTest : public ::testing::TestWithParam<ActivationCase> {};

TEST_P(ActivationTest, ClampsToBytesOfTheBoundsAndKeepsTheRange) {
    const ActivationCase& c = GetParam();
    OpRun r(c.op);
    r.in(u8({1, 1, 1, 10}, kRamp)).scalars({kLo, kHi});
    for (float b : c.bounds) r.scalars({b});
    r.quantOut({1, 1, 1, 10}, 1);
    ASSERT_TRUE(r.run()) << r.error;
    EXPECT_EQ(r.outs[0].data, c.expected);
    EXPECT_EQ(first(r.outs[1]), kLo);
    EXPECT_EQ(first(r.outs[2]), kHi);
}

INSTANTIATE_TEST_SUITE_P(
    Ops, ActivationTest,
    ::testing::Values(
        // 0.0 is byte 100.
        ActivationCase{"Relu", ZEL_OP_QuantizedRelu_8, {}, {100, 100, 100, 100, 101, 150, 159, 160, 161, 255}},
        // 6.0 is byte 160.
        ActivationCase{"ReluX", ZEL_OP_QuantizedReluX_8, {6.0f}, {100, 100, 100, 100, 101, 150, 159, 160, 160, 160}},
        // -1.0 and 1.0 are bytes 90 and 110.
        ActivationCase{
            "Clamp", ZEL_OP_QuantizedClamp_8, {-1.0f, 1.0f}, {90, 90, 99, 100, 101, 110, 110, 110, 110, 110}}),
    [](const ::testing::TestParamInfo<ActivationCase>& i) { return std::string(i.param.name); });

TEST(Quantize, RoundsHalvesUpAndClamps) {
    OpRun r(ZEL_OP_Quantize);
    // [-1, 1]: q = (x + 1) * 127.5.
    r.in(f32({1, 1, 1, 7}, {-2.0f, -1.0f, 0.0f, 0.5f, 1.0f, 3.0f, std::nanf("")})).scalars({-1, 1});
    r.quantOut({1, 1, 1, 7}, 1);
    ASSERT_TRUE(r.run()) << r.error;
    EXPECT_EQ(r.outs[0].data, (std::vector<uint8_t>{0, 0, 128, 191, 255, 255, 0}));
    EXPECT_EQ(first(r.outs[1]), -1.0f);
    EXPECT_EQ(first(r.outs[2]), 1.0f);
}

TEST(Dequantize, RealValues) {
    OpRun r(ZEL_OP_Dequantize);
    r.in(u8({1, 1, 2, 2}, {0, 128, 255, 1})).scalars({-64, 63.5f});
    r.out({1, 1, 2, 2}, 4);
    ASSERT_TRUE(r.run()) << r.error;
    EXPECT_EQ(floats(r.outs[0]), (std::vector<float>{-64.0f, 0.0f, 63.5f, -63.5f}));
}

// The host's PReLU case: x in scale 0.25 / zero 128, alpha {0, 1, 2} over
// the depth; results 0,0,0, 1,1,1, 0,-1,-2, 0,-2,-4, which the host's
// output quantization (0.5, 120) stores as the bytes below.
TEST(PRelu, HostVectorThroughItsOwnRange) {
    OpRun r(ZEL_OP_QuantizedPRelu_8);
    r.in(u8({1, 2, 2, 3}, {128, 128, 128, 132, 132, 132, 124, 124, 124, 120, 120, 120}));
    r.in(u8({1, 1, 1, 3}, {50, 54, 58}));
    const HostRange x = hostRange(0.25f, 128), a = hostRange(0.25f, 50);
    r.scalars({x.min, x.max, a.min, a.max});
    r.quantOut({1, 2, 2, 3}, 1);
    ASSERT_TRUE(r.run()) << r.error;
    const double lo = first(r.outs[1]), hi = first(r.outs[2]);
    const double step = (hi - lo) / 255;
    EXPECT_LE(lo, -4.0);
    EXPECT_GE(hi, 1.0);
    EXPECT_LT(hi - lo, 5.1);  // the range follows the results, not the input's span
    const double zero = -lo / step;
    EXPECT_NEAR(zero, std::round(zero), 1e-3);
    const std::vector<uint8_t> host = {120, 120, 120, 122, 122, 122, 120, 118, 116, 120, 116, 112};
    const std::vector<uint8_t> got = r.outs[0].data;
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(std::lround((lo + got[i] * step) / 0.5 + 120), host[i]) << i;
    }
}

struct PoolCase {
    const char* name;
    int32_t op;
    int32_t padding;
    D4 in;
    std::vector<uint8_t> data;
    uint32_t fh, fw, sh, sw;
    D4 out;
    std::vector<uint8_t> expected;
};
void PrintTo(const PoolCase& c, std::ostream* os) {
    *os << c.name;
}

class PoolTest : public ::testing::TestWithParam<PoolCase> {};

TEST_P(PoolTest, OnlyPositionsInsideTheInputCount) {
    const PoolCase& c = GetParam();
    OpRun r(c.op, c.padding);
    r.in(u8(c.in, c.data)).scalars({kLo, kHi}).in(hw(c.fh, c.fw)).in(hw(c.sh, c.sw));
    r.quantOut(c.out, 1);
    ASSERT_TRUE(r.run()) << r.error;
    EXPECT_EQ(r.outs[0].data, c.expected);
    EXPECT_EQ(first(r.outs[1]), kLo);
    EXPECT_EQ(first(r.outs[2]), kHi);
}

// 4x4 grid of y * 4 + x.
const std::vector<uint8_t> kGrid = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Windows, PoolTest,
    ::testing::Values(
        //       name                  op                         padding           in            data                                  fh fw sh sw out           expected
        // Corners average 4 values, edges 6, the centre 9.
        PoolCase{"AvgSameBorders",     ZEL_OP_QuantizedAvgPool_8, ZEL_NN_PAD_SAME,  {1, 3, 3, 1}, {10, 20, 30, 40, 50, 60, 70, 80, 90}, 3, 3, 1, 1, {1, 3, 3, 1}, {30, 35, 40, 45, 50, 55, 60, 65, 70}},
        // Odd total: the padding row/column is after the input. Windows
        // rows 0-2 / 2-3 and columns 0-2 / 2-3: 5, 6.5, 11, 12.5.
        PoolCase{"AvgSameOddTotal",    ZEL_OP_QuantizedAvgPool_8, ZEL_NN_PAD_SAME,  {1, 4, 4, 1}, kGrid,                                3, 3, 2, 2, {1, 2, 2, 1}, {5, 7, 11, 13}},
        // Halves round up: 1.5 -> 2.
        PoolCase{"AvgHalfUp",          ZEL_OP_QuantizedAvgPool_8, ZEL_NN_PAD_VALID, {1, 1, 2, 1}, {1, 2},                               1, 2, 1, 1, {1, 1, 1, 1}, {2}},
        // The host's avg_pool case.
        PoolCase{"AvgValidStride2",    ZEL_OP_QuantizedAvgPool_8, ZEL_NN_PAD_VALID, {1, 2, 4, 1}, {0, 96, 32, 64, 48, 32, 160, 112},    2, 2, 2, 2, {1, 1, 2, 1}, {44, 92}},
        PoolCase{"AvgDepth2",          ZEL_OP_QuantizedAvgPool_8, ZEL_NN_PAD_VALID, {1, 2, 2, 2}, {0, 100, 10, 101, 20, 102, 30, 104}, 2, 2, 1, 1, {1, 1, 1, 2}, {15, 102}},
        PoolCase{"MaxSameOddTotal",    ZEL_OP_QuantizedMaxPool_8, ZEL_NN_PAD_SAME,  {1, 4, 4, 1}, kGrid,                                3, 3, 2, 2, {1, 2, 2, 1}, {10, 11, 14, 15}},
        // All values are -5.0 (byte 50): padding must not bring in 0.0.
        PoolCase{"MaxNegativeNoPad",   ZEL_OP_QuantizedMaxPool_8, ZEL_NN_PAD_SAME,  {1, 2, 2, 1}, {50, 50, 50, 50},                     3, 3, 1, 1, {1, 2, 2, 1}, {50, 50, 50, 50}}),
    [](const ::testing::TestParamInfo<PoolCase>& i) { return std::string(i.param.name); });
// clang-format on

TEST(Concat, SharedRangeKeepsBytes) {
    OpRun r(ZEL_OP_QuantizedConcat_8);
    r.in(i32({1, 1, 1, 1}, {3}));
    r.in(u8({1, 1, 2, 2}, {1, 2, 3, 4})).in(u8({1, 1, 2, 1}, {9, 8}));
    r.scalars({kLo, kLo, kHi, kHi});
    r.quantOut({1, 1, 2, 3}, 1);
    ASSERT_TRUE(r.run()) << r.error;
    EXPECT_EQ(r.outs[0].data, (std::vector<uint8_t>{1, 2, 9, 3, 4, 8}));
    EXPECT_EQ(first(r.outs[1]), kLo);
    EXPECT_EQ(first(r.outs[2]), kHi);
}

// [0, 25.5] and [-12.75, 12.75] join to [-12.75, 25.5] (step 0.15, zero
// point 85); every value lands within half a step of where it was.
TEST(Concat, DifferentRangesJoinAndRequantize) {
    Lcg g(23);
    const std::vector<uint8_t> a = g.bytes(12), b = g.bytes(8);
    OpRun r(ZEL_OP_QuantizedConcat_8);
    r.in(i32({1, 1, 1, 1}, {1}));  // along height
    r.in(u8({1, 3, 2, 2}, a)).in(u8({1, 2, 2, 2}, b));
    r.scalars({0.0f, -12.75f, 25.5f, 12.75f});
    r.quantOut({1, 5, 2, 2}, 1);
    ASSERT_TRUE(r.run()) << r.error;
    const double lo = first(r.outs[1]), hi = first(r.outs[2]);
    EXPECT_NEAR(lo, -12.75, 1e-5);
    EXPECT_NEAR(hi, 25.5, 1e-5);
    const double step = (hi - lo) / 255;
    const std::vector<uint8_t> got = r.outs[0].data;
    for (size_t i = 0; i < 12; ++i) EXPECT_NEAR(lo + got[i] * step, a[i] * 0.1, step / 2 + 1e-6) << i;
    for (size_t i = 0; i < 8; ++i) EXPECT_NEAR(lo + got[12 + i] * step, -12.75 + b[i] * 0.1, step / 2 + 1e-6) << i;
}

TEST(Reshape, BytesAndRangePass) {
    OpRun r(ZEL_OP_QuantizedReshape);
    r.in(u8({1, 2, 3, 1}, {1, 2, 3, 4, 5, 6})).in(i32({1, 1, 1, 1}, {-1})).scalars({kLo, kHi});
    r.quantOut({1, 1, 1, 6}, 1);
    ASSERT_TRUE(r.run()) << r.error;
    EXPECT_EQ(r.outs[0].data, (std::vector<uint8_t>{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(first(r.outs[1]), kLo);
    EXPECT_EQ(first(r.outs[2]), kHi);
}

struct ResizeCase {
    const char* name;
    D4 in;
    std::vector<uint8_t> data;
    int32_t h, w;
    std::vector<uint8_t> expected;
};
void PrintTo(const ResizeCase& c, std::ostream* os) {
    *os << c.name;
}

class ResizeTest : public ::testing::TestWithParam<ResizeCase> {};

TEST_P(ResizeTest, CornersNotAligned) {
    const ResizeCase& c = GetParam();
    OpRun r(ZEL_OP_QuantizedResizeBilinear_8);
    r.in(u8(c.in, c.data)).in(i32({1, 1, 1, 2}, {c.h, c.w})).scalars({kLo, kHi});
    r.quantOut({c.in.b, static_cast<uint32_t>(c.h), static_cast<uint32_t>(c.w), c.in.c}, 1);
    ASSERT_TRUE(r.run()) << r.error;
    EXPECT_EQ(r.outs[0].data, c.expected);
    EXPECT_EQ(first(r.outs[2]), kHi);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ResizeTest,
    ::testing::Values(
        // Sources 0, 2/3, 4/3 per axis, the last clamped to row/column 1:
        // row 0: 0, 90*2/3 = 60, 90; row 2: 180, 180/3 + 255*2/3 = 230, 255;
        // row 1 = row 0 / 3 + row 2 * 2/3: 120, 173.3, 200.
        ResizeCase{"TwoToThree", {1, 2, 2, 1}, {0, 90, 180, 255}, 3, 3, {0, 60, 90, 120, 173, 200, 180, 230, 255}},
        ResizeCase{
            "HostVector", {1, 2, 2, 1}, {100, 100, 200, 200}, 3, 3, {100, 100, 100, 167, 167, 167, 200, 200, 200}},
        // Width 3 -> 2: sources 0 and 1.5.
        ResizeCase{"Shrink", {1, 1, 3, 2}, {0, 10, 100, 20, 200, 30}, 1, 2, {0, 10, 150, 25}}),
    [](const ::testing::TestParamInfo<ResizeCase>& i) { return std::string(i.param.name); });

// Run-time refusals: the node's text, the reason, and no crash.
struct RunErrorCase {
    const char* name;
    OpRun run;
    std::string text;
};
void PrintTo(const RunErrorCase& c, std::ostream* os) {
    *os << c.name;
}

class RunErrorTest : public ::testing::TestWithParam<RunErrorCase> {};

TEST_P(RunErrorTest, RefusesWithReason) {
    OpRun r = GetParam().run;
    EXPECT_FALSE(r.run());
    EXPECT_EQ(r.error, GetParam().text);
}

OpRun reluWith(Tensor in, float lo, float hi, D4 out) {
    OpRun r(ZEL_OP_QuantizedRelu_8);
    r.in(std::move(in)).scalars({lo, hi}).quantOut(out, 1);
    return r;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, RunErrorTest,
    ::testing::Values(
        RunErrorCase{"ShortData", reluWith(u8({1, 1, 1, 4}, {1, 2, 3}), kLo, kHi, {1, 1, 1, 4}),
                     "QuantizedRelu_8: input 0 holds 3 bytes for dims 1x1x1x4 of element size 1"},
        RunErrorCase{"EmptyRange", reluWith(u8({1, 1, 1, 2}, {1, 2}), 1.0f, 1.0f, {1, 1, 1, 2}),
                     "QuantizedRelu_8: range [1, 1] of inputs 1 and 2 is not a finite non-empty range"},
        RunErrorCase{"OutputMismatch", reluWith(u8({1, 1, 1, 2}, {1, 2}), kLo, kHi, {1, 1, 2, 1}),
                     "QuantizedRelu_8: output 0 is 1x1x2x1 with element size 1, the result is 1x1x1x2 with element "
                     "size 1"},
        RunErrorCase{"MissingInputs", OpRun(ZEL_OP_Requantize_32to8).quantOut({1, 1, 1, 1}, 1),
                     "Requantize_32to8: expects 5 inputs and 3 outputs, got 0 and 3"}),
    [](const ::testing::TestParamInfo<RunErrorCase>& i) { return std::string(i.param.name); });

}  // namespace
}  // namespace simops
