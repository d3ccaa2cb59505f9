// 32-bit result nodes run through the op table: convolution, depthwise
// convolution, matrix product, bias addition, requantization, add/sub.
// Expected values come from the definitions, written out here.
#include <algorithm>
#include <cmath>

#include "simops_util.h"

namespace simops {
namespace {

// Output size and leading pad of one window axis, as the node contract
// defines SAME (odd pixel at the end) and VALID.
void axis(uint32_t in, uint32_t f, uint32_t s, bool same, uint32_t* out, uint32_t* pad) {
    if (same) {
        *out = (in + s - 1) / s;
        const int total = std::max(0, static_cast<int>((*out - 1) * s + f) - static_cast<int>(in));
        *pad = static_cast<uint32_t>(total / 2);
    } else {
        *out = (in - f) / s + 1;
        *pad = 0;
    }
}

struct ConvCase {
    const char* name;
    D4 in;
    uint32_t fh, fw, outD, sh, sw;
    bool same;
    float inScale;
    int32_t inZero;
    float fScale;
    int32_t fZero;
};
void PrintTo(const ConvCase& c, std::ostream* os) {
    *os << c.name;
}

class ConvTest : public ::testing::TestWithParam<ConvCase> {};

// Integer sums of (q - zero) products are exact, and the result's step is
// the product of the two steps.
TEST_P(ConvTest, ExactIntegerSumsWithPaddingReadingRealZero) {
    const ConvCase& c = GetParam();
    Lcg g(7);
    const std::vector<uint8_t> in = g.bytes(c.in.count());
    const std::vector<uint8_t> filter = g.bytes(c.fh * c.fw * c.in.c * c.outD);
    uint32_t oh, ow, pt, pl;
    axis(c.in.h, c.fh, c.sh, c.same, &oh, &pt);
    axis(c.in.w, c.fw, c.sw, c.same, &ow, &pl);
    const HostRange ri = hostRange(c.inScale, c.inZero);
    const HostRange rf = hostRange(c.fScale, c.fZero);

    OpRun r(ZEL_OP_QuantizedConv2d_8x8to32, c.same ? ZEL_NN_PAD_SAME : ZEL_NN_PAD_VALID);
    r.in(u8(c.in, in)).in(u8({c.fh, c.fw, c.in.c, c.outD}, filter));
    r.in(scalar(ri.min)).in(scalar(ri.max)).in(scalar(rf.min)).in(scalar(rf.max)).in(hw(c.sh, c.sw));
    r.quantOut({c.in.b, oh, ow, c.outD}, 4);
    ASSERT_TRUE(r.run()) << r.error;

    const std::vector<int32_t> got = ints(r.outs[0]);
    for (uint32_t b = 0; b < c.in.b; ++b)
        for (uint32_t y = 0; y < oh; ++y)
            for (uint32_t x = 0; x < ow; ++x)
                for (uint32_t o = 0; o < c.outD; ++o) {
                    int64_t sum = 0;
                    for (uint32_t ky = 0; ky < c.fh; ++ky)
                        for (uint32_t kx = 0; kx < c.fw; ++kx) {
                            const int iy = static_cast<int>(y * c.sh + ky) - static_cast<int>(pt);
                            const int ix = static_cast<int>(x * c.sw + kx) - static_cast<int>(pl);
                            if (iy < 0 || ix < 0 || iy >= static_cast<int>(c.in.h) || ix >= static_cast<int>(c.in.w))
                                continue;
                            for (uint32_t k = 0; k < c.in.c; ++k) {
                                const int qi = in[((b * c.in.h + iy) * c.in.w + ix) * c.in.c + k];
                                const int qf = filter[((ky * c.fw + kx) * c.in.c + k) * c.outD + o];
                                sum += static_cast<int64_t>(qi - c.inZero) * (qf - c.fZero);
                            }
                        }
                    ASSERT_EQ(got[((b * oh + y) * ow + x) * c.outD + o], sum)
                        << "at " << b << "," << y << "," << x << "," << o;
                }
    const double step = static_cast<double>(c.inScale) * c.fScale;
    EXPECT_NEAR(step32(r.outs), step, step * 1e-6);
    EXPECT_EQ(first(r.outs[1]), -first(r.outs[2]));
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, ConvTest,
    ::testing::Values(
        // 4 wide, 3 window, stride 2: one pixel of padding, at the end.
        ConvCase{"SameOddTotalStride2", {1, 4, 4, 3}, 3, 3, 4, 2, 2, true, 0.5f, 128, 0.25f, 100},
        // 2x2 window, stride 1: total 1 in both axes, all at the end.
        ConvCase{"SameOddTotal2x2", {1, 6, 5, 2}, 2, 2, 3, 1, 1, true, 0.25f, 3, 0.5f, 250},
        ConvCase{"SameEvenTotal", {1, 5, 5, 3}, 3, 3, 2, 1, 1, true, 0.0625f, 77, 0.125f, 0},
        ConvCase{"ValidStride2x1", {1, 7, 6, 2}, 3, 2, 5, 2, 1, false, 0.5f, 3, 0.25f, 250},
        // 37 outputs: neither a multiple of the 16 lanes nor of 4 rows.
        ConvCase{"Pointwise37", {1, 3, 5, 19}, 1, 1, 37, 1, 1, false, 0.5f, 0, 0.5f, 255},
        ConvCase{"TwoBatchesBlocks", {2, 9, 7, 8}, 3, 3, 20, 1, 1, true, 0.5f, 128, 0.0078125f, 128},
        // Ranges not holding 0 with integer zero points: [2, 4] (zero -255)
        // and [-1, -0.5] (zero 510).
        ConvCase{"RangesWithoutZero", {1, 4, 4, 3}, 3, 3, 2, 1, 1, true, 2.0f / 255.0f, -255, 0.5f / 255.0f, 510}),
    [](const ::testing::TestParamInfo<ConvCase>& i) { return std::string(i.param.name); });

// A range whose zero point is not an integer: the sum is taken on the real
// values and rounded to the result's step.
TEST(ConvRealValues, NonIntegerZeroPoint) {
    const D4 in{1, 3, 3, 2};
    Lcg g(11);
    const std::vector<uint8_t> q = g.bytes(in.count());
    const std::vector<uint8_t> f = g.bytes(2 * 2 * 2 * 3);
    const float imin = 0.3f, imax = 1.7f, fmin = -0.9f, fmax = 0.35f;
    OpRun r(ZEL_OP_QuantizedConv2d_8x8to32, ZEL_NN_PAD_SAME);
    r.in(u8(in, q)).in(u8({2, 2, 2, 3}, f));
    r.in(scalar(imin)).in(scalar(imax)).in(scalar(fmin)).in(scalar(fmax)).in(hw(1, 1));
    r.quantOut({1, 3, 3, 3}, 4);
    ASSERT_TRUE(r.run()) << r.error;
    const double si = (static_cast<double>(imax) - imin) / 255, sf = (static_cast<double>(fmax) - fmin) / 255;
    const double step = step32(r.outs);
    const std::vector<int32_t> got = ints(r.outs[0]);
    for (uint32_t y = 0; y < 3; ++y)
        for (uint32_t x = 0; x < 3; ++x)
            for (uint32_t o = 0; o < 3; ++o) {
                double real = 0;
                for (uint32_t ky = 0; ky < 2; ++ky)
                    for (uint32_t kx = 0; kx < 2; ++kx) {
                        if (y + ky >= 3 || x + kx >= 3) continue;  // the padding is after
                        for (uint32_t k = 0; k < 2; ++k) {
                            real += (imin + si * q[((y + ky) * 3 + x + kx) * 2 + k]) *
                                    (fmin + sf * f[((ky * 2 + kx) * 2 + k) * 3 + o]);
                        }
                    }
                EXPECT_NEAR(got[(y * 3 + x) * 3 + o] * step, real, step) << y << "," << x << "," << o;
            }
}

struct DepthwiseCase {
    const char* name;
    D4 in;
    uint32_t fh, fw, mult, sh, sw;
    bool same;
};
void PrintTo(const DepthwiseCase& c, std::ostream* os) {
    *os << c.name;
}

class DepthwiseTest : public ::testing::TestWithParam<DepthwiseCase> {};

// Output channel c * mult + m reads input channel c only.
TEST_P(DepthwiseTest, ChannelMultiplier) {
    const DepthwiseCase& c = GetParam();
    const int32_t zi = 120, zf = 9;
    Lcg g(3);
    const std::vector<uint8_t> in = g.bytes(c.in.count());
    const uint32_t outD = c.in.c * c.mult;
    const std::vector<uint8_t> filter = g.bytes(c.fh * c.fw * outD);
    uint32_t oh, ow, pt, pl;
    axis(c.in.h, c.fh, c.sh, c.same, &oh, &pt);
    axis(c.in.w, c.fw, c.sw, c.same, &ow, &pl);
    const HostRange ri = hostRange(0.5f, zi), rf = hostRange(0.25f, zf);
    OpRun r(ZEL_OP_QuantizedDepthwiseConv2d_8x8to32, c.same ? ZEL_NN_PAD_SAME : ZEL_NN_PAD_VALID);
    r.in(u8(c.in, in)).in(u8({c.fh, c.fw, c.in.c, c.mult}, filter));
    r.in(scalar(ri.min)).in(scalar(ri.max)).in(scalar(rf.min)).in(scalar(rf.max)).in(hw(c.sh, c.sw));
    r.quantOut({1, oh, ow, outD}, 4);
    ASSERT_TRUE(r.run()) << r.error;
    const std::vector<int32_t> got = ints(r.outs[0]);
    for (uint32_t y = 0; y < oh; ++y)
        for (uint32_t x = 0; x < ow; ++x)
            for (uint32_t ch = 0; ch < c.in.c; ++ch)
                for (uint32_t m = 0; m < c.mult; ++m) {
                    int64_t sum = 0;
                    for (uint32_t ky = 0; ky < c.fh; ++ky)
                        for (uint32_t kx = 0; kx < c.fw; ++kx) {
                            const int iy = static_cast<int>(y * c.sh + ky) - static_cast<int>(pt);
                            const int ix = static_cast<int>(x * c.sw + kx) - static_cast<int>(pl);
                            if (iy < 0 || ix < 0 || iy >= static_cast<int>(c.in.h) || ix >= static_cast<int>(c.in.w))
                                continue;
                            sum += static_cast<int64_t>(in[(iy * c.in.w + ix) * c.in.c + ch] - zi) *
                                   (filter[(ky * c.fw + kx) * outD + ch * c.mult + m] - zf);
                        }
                    ASSERT_EQ(got[(y * ow + x) * outD + ch * c.mult + m], sum);
                }
    EXPECT_DOUBLE_EQ(step32(r.outs), 0.125);
}

INSTANTIATE_TEST_SUITE_P(Shapes, DepthwiseTest,
                         ::testing::Values(DepthwiseCase{"Mult2Same", {1, 5, 4, 3}, 3, 3, 2, 1, 1, true},
                                           DepthwiseCase{"Mult2SameOddStride2", {1, 4, 4, 3}, 3, 3, 2, 2, 2, true},
                                           DepthwiseCase{"Mult1Valid", {1, 6, 5, 17}, 3, 3, 1, 1, 2, false},
                                           DepthwiseCase{"Mult3Valid", {1, 3, 3, 2}, 2, 2, 3, 1, 1, false}),
                         [](const ::testing::TestParamInfo<DepthwiseCase>& i) { return std::string(i.param.name); });

// Matrix product of ones-of-255: inner dimensions around the int32 limit.
struct LimitCase {
    uint32_t depth;
    bool exact;  // fits the int32 sum at the product step
};

class MatMulLimitTest : public ::testing::TestWithParam<LimitCase> {};

TEST_P(MatMulLimitTest, LargestProductsAccumulate) {
    const uint32_t depth = GetParam().depth;
    const float s = 0.5f;  // range [0, 127.5], zero point 0
    OpRun r(ZEL_OP_QuantizedMatMul_8x8to32);
    r.in(u8({1, 1, 1, depth}, std::vector<uint8_t>(depth, 255)));
    r.in(u8({1, 1, depth, 2}, std::vector<uint8_t>(depth * 2, 255)));
    r.in(scalar(0)).in(scalar(127.5f)).in(scalar(0)).in(scalar(127.5f));
    r.quantOut({1, 1, 1, 2}, 4);
    ASSERT_TRUE(r.run()) << r.error;
    const double real = static_cast<double>(depth) * 127.5 * 127.5;
    const double step = step32(r.outs);
    for (int32_t v : ints(r.outs[0])) {
        if (GetParam().exact) {
            EXPECT_EQ(v, static_cast<int64_t>(depth) * 255 * 255);
            EXPECT_DOUBLE_EQ(step, s * s);
        } else {
            EXPECT_GT(step, s * s);
            EXPECT_NEAR(v * step, real, step);
        }
    }
}

// 33025 * 255 * 255 = 2147450625 is the last sum under 2^31.
INSTANTIATE_TEST_SUITE_P(Depths, MatMulLimitTest,
                         ::testing::Values(LimitCase{2048, true}, LimitCase{33025, true}, LimitCase{33026, false}));

TEST(MatMul, RowsWithZeroPoints) {
    const uint32_t rows = 3, depth = 70, units = 5;
    const int32_t zi = 7, zw = 200;
    Lcg g(5);
    const std::vector<uint8_t> in = g.bytes(rows * depth), w = g.bytes(depth * units);
    const HostRange ri = hostRange(0.25f, zi), rw = hostRange(0.125f, zw);
    OpRun r(ZEL_OP_QuantizedMatMul_8x8to32);
    r.in(u8({1, 1, rows, depth}, in)).in(u8({1, 1, depth, units}, w));
    r.in(scalar(ri.min)).in(scalar(ri.max)).in(scalar(rw.min)).in(scalar(rw.max));
    r.quantOut({1, 1, rows, units}, 4);
    ASSERT_TRUE(r.run()) << r.error;
    const std::vector<int32_t> got = ints(r.outs[0]);
    for (uint32_t i = 0; i < rows; ++i)
        for (uint32_t u = 0; u < units; ++u) {
            int64_t sum = 0;
            for (uint32_t k = 0; k < depth; ++k) sum += (in[i * depth + k] - zi) * (w[k * units + u] - zw);
            EXPECT_EQ(got[i * units + u], sum);
        }
}

// Bias addition: same steps add exactly; other steps rescale the bias;
// sums beyond int32 double the step.
TEST(BiasAdd, EqualStepsAddExactly) {
    const float m = 0.25f * 2147483648.0f;  // step 0.25
    OpRun r(ZEL_OP_QuantizedBiasAdd_32p32to32);
    r.in(i32({1, 1, 2, 2}, {10, -20, 30, 40})).in(i32({1, 1, 1, 2}, {4, -6}));
    r.in(scalar(-m)).in(scalar(m)).in(scalar(-m)).in(scalar(m));
    r.quantOut({1, 1, 2, 2}, 4);
    ASSERT_TRUE(r.run()) << r.error;
    EXPECT_EQ(ints(r.outs[0]), (std::vector<int32_t>{14, -26, 34, 34}));
    EXPECT_EQ(first(r.outs[2]), m);
}

TEST(BiasAdd, CoarserBiasStepIsRescaled) {
    const float ma = 0.25f * 2147483648.0f, mb = 0.5f * 2147483648.0f;
    OpRun r(ZEL_OP_QuantizedBiasAdd_32p32to32);
    r.in(i32({1, 1, 1, 2}, {10, -20})).in(i32({1, 1, 1, 2}, {3, -7}));
    r.in(scalar(-ma)).in(scalar(ma)).in(scalar(-mb)).in(scalar(mb));
    r.quantOut({1, 1, 1, 2}, 4);
    ASSERT_TRUE(r.run()) << r.error;
    EXPECT_DOUBLE_EQ(step32(r.outs), 0.25);
    EXPECT_EQ(ints(r.outs[0]), (std::vector<int32_t>{16, -34}));  // 10 + 2*3, -20 + 2*-7
}

TEST(BiasAdd, OverflowDoublesTheStep) {
    const float m = 2147483648.0f;  // step 1
    OpRun r(ZEL_OP_QuantizedBiasAdd_32p32to32);
    r.in(i32({1, 1, 1, 2}, {2147483647 - 5, -7})).in(i32({1, 1, 1, 2}, {10, 0}));
    r.in(scalar(-m)).in(scalar(m)).in(scalar(-m)).in(scalar(m));
    r.quantOut({1, 1, 1, 2}, 4);
    ASSERT_TRUE(r.run()) << r.error;
    EXPECT_DOUBLE_EQ(step32(r.outs), 2.0);
    const std::vector<int32_t> got = ints(r.outs[0]);
    EXPECT_EQ(got[0], 1073741826);  // (2^31 - 6 + 10) / 2
    EXPECT_EQ(got[1], -4);          // -3.5, halves away from zero
}

// Requantize: real value acc * step, placed in [out_min, out_max].
struct RequantizeCase {
    const char* name;
    float outMin, outMax;
    int32_t acc;
    uint8_t expected;
};
void PrintTo(const RequantizeCase& c, std::ostream* os) {
    *os << c.name;
}

class RequantizeTest : public ::testing::TestWithParam<RequantizeCase> {};

TEST_P(RequantizeTest, RoundsToNearestAndClamps) {
    const RequantizeCase& c = GetParam();
    const float m = 2147483648.0f / 16;  // step 1/16
    OpRun r(ZEL_OP_Requantize_32to8);
    r.in(i32({1, 1, 1, 1}, {c.acc})).in(scalar(-m)).in(scalar(m)).in(scalar(c.outMin)).in(scalar(c.outMax));
    r.quantOut({1, 1, 1, 1}, 1);
    ASSERT_TRUE(r.run()) << r.error;
    EXPECT_EQ(bytes(r.outs[0])[0], c.expected);
    EXPECT_EQ(first(r.outs[1]), c.outMin);
    EXPECT_EQ(first(r.outs[2]), c.outMax);
}

// Output step 1/8 (range width 255/8): acc 1 is half an output step.
INSTANTIATE_TEST_SUITE_P(Values, RequantizeTest,
                         ::testing::Values(RequantizeCase{"Zero", 0.0f, 31.875f, 0, 0},
                                           RequantizeCase{"HalfUp", 0.0f, 31.875f, 1, 1},
                                           RequantizeCase{"One", 0.0f, 31.875f, 2, 1},
                                           RequantizeCase{"OneAndHalf", 0.0f, 31.875f, 3, 2},
                                           RequantizeCase{"BelowMin", 0.0f, 31.875f, -5, 0},
                                           RequantizeCase{"AboveMax", 0.0f, 31.875f, 640, 255},
                                           RequantizeCase{"LastByte", 0.0f, 31.875f, 510, 255},
                                           RequantizeCase{"ZeroAt128", -16.0f, 15.875f, 0, 128},
                                           RequantizeCase{"NegativeInRange", -16.0f, 15.875f, -32, 112},
                                           // Range [1, 2.275]: 0 is outside, below the first byte.
                                           RequantizeCase{"RangeWithoutZeroLow", 1.0f, 2.275f, 0, 0},
                                           RequantizeCase{"RangeWithoutZeroMid", 1.0f, 2.275f, 24, 100}),
                         [](const ::testing::TestParamInfo<RequantizeCase>& i) { return std::string(i.param.name); });

// Add / sub with broadcasting: the real result within one result step.
struct ElementwiseCase {
    const char* name;
    int32_t op;
    D4 a, b, out;
    float aMin, aMax, bMin, bMax;
};
void PrintTo(const ElementwiseCase& c, std::ostream* os) {
    *os << c.name;
}

class ElementwiseTest : public ::testing::TestWithParam<ElementwiseCase> {};

TEST_P(ElementwiseTest, BroadcastsTrailingDims) {
    const ElementwiseCase& c = GetParam();
    Lcg g(17);
    const std::vector<uint8_t> a = g.bytes(c.a.count()), b = g.bytes(c.b.count());
    OpRun r(c.op);
    r.in(u8(c.a, a)).in(u8(c.b, b)).in(scalar(c.aMin)).in(scalar(c.aMax)).in(scalar(c.bMin)).in(scalar(c.bMax));
    r.quantOut(c.out, 4);
    ASSERT_TRUE(r.run()) << r.error;
    const double step = step32(r.outs);
    const double sa = (static_cast<double>(c.aMax) - c.aMin) / 255, sb = (static_cast<double>(c.bMax) - c.bMin) / 255;
    const double sign = c.op == ZEL_OP_QuantizedSub_8p8to32 ? -1.0 : 1.0;
    const std::vector<int32_t> got = ints(r.outs[0]);
    const uint32_t od[4] = {c.out.b, c.out.h, c.out.w, c.out.c};
    const uint32_t ad[4] = {c.a.b, c.a.h, c.a.w, c.a.c}, bd[4] = {c.b.b, c.b.h, c.b.w, c.b.c};
    uint32_t idx[4];
    for (uint32_t o = 0; o < c.out.count(); ++o) {
        uint32_t rest = o;
        for (int k = 3; k >= 0; --k) idx[k] = rest % od[k], rest /= od[k];
        uint32_t ia = 0, ib = 0;
        for (int k = 0; k < 4; ++k) {
            ia = ia * ad[k] + (ad[k] == 1 ? 0 : idx[k]);
            ib = ib * bd[k] + (bd[k] == 1 ? 0 : idx[k]);
        }
        const double real = (c.aMin + sa * a[ia]) + sign * (c.bMin + sb * b[ib]);
        ASSERT_NEAR(got[o] * step, real, step) << "element " << o;
    }
    // The range covers every possible result.
    EXPECT_GE(first(r.outs[2]),
              std::max(std::fabs(c.aMin), std::fabs(c.aMax)) + std::max(std::fabs(c.bMin), std::fabs(c.bMax)));
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Shapes, ElementwiseTest,
    ::testing::Values(
        //              name              op                           a             b             out           a range            b range
        ElementwiseCase{"AddDepthVector", ZEL_OP_QuantizedAdd_8p8to32, {1, 2, 3, 4}, {1, 1, 1, 4}, {1, 2, 3, 4}, -4.0f, 3.96875f, 0.0f, 15.9375f},
        ElementwiseCase{"AddBothWays",    ZEL_OP_QuantizedAdd_8p8to32, {1, 2, 1, 4}, {1, 1, 3, 1}, {1, 2, 3, 4}, -1.0f, 1.0f,     0.3f, 1.7f},
        ElementwiseCase{"SubRowVector",   ZEL_OP_QuantizedSub_8p8to32, {1, 2, 3, 4}, {1, 2, 1, 1}, {1, 2, 3, 4}, 10.0f, 20.0f,    -64.0f, 63.5f},
        ElementwiseCase{"SubSameShape",   ZEL_OP_QuantizedSub_8p8to32, {2, 1, 1, 3}, {2, 1, 1, 3}, {2, 1, 1, 3}, 0.0f,  255.0f,   0.0f, 2.55f}),
    [](const ::testing::TestParamInfo<ElementwiseCase>& i) { return std::string(i.param.name); });
// clang-format on

// The host's own add case: 2.0 * [1, 2] + 1.0 * [3, 4] = [5, 8].
TEST(Add, HostVector) {
    OpRun r(ZEL_OP_QuantizedAdd_8p8to32);
    r.in(u8({1, 1, 1, 2}, {1, 2})).in(u8({1, 1, 1, 2}, {3, 4}));
    r.in(scalar(0)).in(scalar(510)).in(scalar(0)).in(scalar(255));
    r.quantOut({1, 1, 1, 2}, 4);
    ASSERT_TRUE(r.run()) << r.error;
    const double step = step32(r.outs);
    EXPECT_DOUBLE_EQ(ints(r.outs[0])[0] * step, 5.0);
    EXPECT_DOUBLE_EQ(ints(r.outs[0])[1] * step, 8.0);
}

}  // namespace
}  // namespace simops
