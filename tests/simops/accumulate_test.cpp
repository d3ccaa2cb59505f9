// 32-bit result nodes run through the op table: convolution, depthwise
// convolution, matrix product, bias addition, requantization, add/sub.
// Expected values come from the definitions, written out here.
#include <algorithm>
#include <cmath>

#include "simops_util.h"

namespace simops {
namespace {

struct WindowCase {
    const char* name;
    D4 in;
    uint32_t fh, fw, outD, sh, sw;
    bool same;
    uint32_t mult;  // depth multiplier of a depthwise convolution, 0 for a convolution
    float inScale;
    int32_t inZero;
    float fScale;
    int32_t fZero;
};

class WindowSumTest : public ::testing::TestWithParam<WindowCase> {};

// Integer sums of (q - zero) products are exact, positions in the padding
// read the real zero, and the result's step is the product of the two
// steps. A depthwise output channel c * mult + m reads input channel c only.
TEST_P(WindowSumTest, ExactIntegerSumsWithPaddingReadingRealZero) {
    const WindowCase& c = GetParam();
    const bool depthwise = c.mult != 0;
    const uint32_t outD = depthwise ? c.in.c * c.mult : c.outD;
    Lcg g(7);
    const std::vector<uint8_t> in = g.bytes(c.in.count());
    const std::vector<uint8_t> filter = g.bytes(c.fh * c.fw * (depthwise ? 1 : c.in.c) * outD);
    uint32_t pt, pl;
    const uint32_t oh = windowAxis(c.in.h, c.fh, c.sh, c.same, &pt);
    const uint32_t ow = windowAxis(c.in.w, c.fw, c.sw, c.same, &pl);
    const HostRange ri = hostRange(c.inScale, c.inZero), rf = hostRange(c.fScale, c.fZero);

    OpRun r(depthwise ? ZEL_OP_QuantizedDepthwiseConv2d_8x8to32 : ZEL_OP_QuantizedConv2d_8x8to32,
            c.same ? ZEL_NN_PAD_SAME : ZEL_NN_PAD_VALID);
    r.in(u8(c.in, in)).in(u8({c.fh, c.fw, c.in.c, depthwise ? c.mult : outD}, filter));
    r.scalars({ri.min, ri.max, rf.min, rf.max}).in(hw(c.sh, c.sw)).quantOut({c.in.b, oh, ow, outD}, 4);
    ASSERT_TRUE(r.run()) << r.error;

    const std::vector<int32_t> got = ints(r.outs[0]);
    for (uint32_t b = 0; b < c.in.b; ++b)
        for (uint32_t y = 0; y < oh; ++y)
            for (uint32_t x = 0; x < ow; ++x)
                for (uint32_t o = 0; o < outD; ++o) {
                    int64_t sum = 0;
                    for (uint32_t ky = 0; ky < c.fh; ++ky)
                        for (uint32_t kx = 0; kx < c.fw; ++kx) {
                            const int iy = static_cast<int>(y * c.sh + ky) - static_cast<int>(pt);
                            const int ix = static_cast<int>(x * c.sw + kx) - static_cast<int>(pl);
                            if (iy < 0 || ix < 0 || iy >= static_cast<int>(c.in.h) || ix >= static_cast<int>(c.in.w))
                                continue;
                            const uint32_t first = depthwise ? o / c.mult : 0;
                            const uint32_t last = depthwise ? first + 1 : c.in.c;
                            for (uint32_t k = first; k < last; ++k) {
                                const int qi = in[((b * c.in.h + iy) * c.in.w + ix) * c.in.c + k];
                                const uint32_t tap = ky * c.fw + kx;
                                const int qf = filter[depthwise ? tap * outD + o : (tap * c.in.c + k) * outD + o];
                                sum += static_cast<int64_t>(qi - c.inZero) * (qf - c.fZero);
                            }
                        }
                    ASSERT_EQ(got[((b * oh + y) * ow + x) * outD + o], sum)
                        << "at " << b << "," << y << "," << x << "," << o;
                }
    const double step = static_cast<double>(c.inScale) * c.fScale;
    EXPECT_NEAR(step32(r.outs), step, step * 1e-6);
    EXPECT_EQ(first(r.outs[1]), -first(r.outs[2]));
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Shapes, WindowSumTest, ::testing::Values(
    // 4 wide, 3 window, stride 2: one pixel of padding, at the end.
    WindowCase{"SameOddTotalStride2", {1, 4, 4, 3}, 3, 3, 4, 2, 2, true, 0, 0.5f, 128, 0.25f, 100},
    WindowCase{"SameEvenTotal", {1, 5, 5, 3}, 3, 3, 2, 1, 1, true, 0, 0.0625f, 77, 0.125f, 0},
    WindowCase{"ValidStride2x1", {1, 7, 6, 2}, 3, 2, 5, 2, 1, false, 0, 0.5f, 3, 0.25f, 250},
    // 37 outputs: neither a multiple of the 16 lanes nor of 4 rows.
    WindowCase{"Pointwise37", {1, 3, 5, 19}, 1, 1, 37, 1, 1, false, 0, 0.5f, 0, 0.5f, 255},
    WindowCase{"TwoBatchesBlocks", {2, 9, 7, 8}, 3, 3, 20, 1, 1, true, 0, 0.5f, 128, 0.0078125f, 128},
    // Ranges not holding 0 with integer zero points: [2, 4] (zero -255)
    // and [-1, -0.5] (zero 510).
    WindowCase{"RangesWithoutZero", {1, 4, 4, 3}, 3, 3, 2, 1, 1, true, 0, 2.0f / 255.0f, -255, 0.5f / 255.0f, 510},
    WindowCase{"DepthwiseMult2SameOddStride2", {1, 4, 4, 3}, 3, 3, 0, 2, 2, true, 2, 0.5f, 120, 0.25f, 9},
    WindowCase{"DepthwiseMult1Valid", {1, 6, 5, 17}, 3, 3, 0, 1, 2, false, 1, 0.5f, 120, 0.25f, 9},
    WindowCase{"DepthwiseMult3Valid", {1, 3, 3, 2}, 2, 2, 0, 1, 1, false, 3, 0.5f, 120, 0.25f, 9}),
    [](const ::testing::TestParamInfo<WindowCase>& i) { return std::string(i.param.name); });
// clang-format on

// A range whose zero point is not an integer: the sum is taken on the real
// values and rounded to the result's step.
TEST(ConvRealValues, NonIntegerZeroPoint) {
    const D4 in{1, 3, 3, 2};
    Lcg g(11);
    const std::vector<uint8_t> q = g.bytes(in.count());
    const std::vector<uint8_t> f = g.bytes(2 * 2 * 2 * 3);
    const float imin = 0.3f, imax = 1.7f, fmin = -0.9f, fmax = 0.35f;
    OpRun r(ZEL_OP_QuantizedConv2d_8x8to32, ZEL_NN_PAD_SAME);
    r.in(u8(in, q)).in(u8({2, 2, 2, 3}, f)).scalars({imin, imax, fmin, fmax}).in(hw(1, 1)).quantOut({1, 3, 3, 3}, 4);
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

// Matrix product of ones-of-255: inner dimensions around the int32 limit.
// 33025 * 255 * 255 = 2147450625 is the last sum under 2^31.
TEST(MatMul, LargestProductsAccumulate) {
    for (const uint32_t depth : {33025u, 33026u}) {
        SCOPED_TRACE(depth);
        const bool exact = depth == 33025;
        OpRun r(ZEL_OP_QuantizedMatMul_8x8to32);
        r.in(u8({1, 1, 1, depth}, std::vector<uint8_t>(depth, 255)));
        r.in(u8({1, 1, depth, 2}, std::vector<uint8_t>(depth * 2, 255)));
        r.scalars({0, 127.5f, 0, 127.5f}).quantOut({1, 1, 1, 2}, 4);  // scale 0.5, zero point 0
        ASSERT_TRUE(r.run()) << r.error;
        const double step = step32(r.outs);
        for (int32_t v : ints(r.outs[0])) {
            if (exact) {
                EXPECT_EQ(v, static_cast<int64_t>(depth) * 255 * 255);
                EXPECT_DOUBLE_EQ(step, 0.25);
            } else {
                EXPECT_GT(step, 0.25);
                EXPECT_NEAR(v * step, static_cast<double>(depth) * 127.5 * 127.5, step);
            }
        }
    }
}

TEST(MatMul, RowsWithZeroPoints) {
    const uint32_t rows = 3, depth = 70, units = 5;
    const int32_t zi = 7, zw = 200;
    Lcg g(5);
    const std::vector<uint8_t> in = g.bytes(rows * depth), w = g.bytes(depth * units);
    const HostRange ri = hostRange(0.25f, zi), rw = hostRange(0.125f, zw);
    OpRun r(ZEL_OP_QuantizedMatMul_8x8to32);
    r.in(u8({1, 1, rows, depth}, in)).in(u8({1, 1, depth, units}, w)).scalars({ri.min, ri.max, rw.min, rw.max});
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
// sums beyond int32 double the step (halves away from zero).
TEST(BiasAdd, StepsAndOverflow) {
    const float quarter = 0.25f * 2147483648.0f, half = 0.5f * 2147483648.0f, one = 2147483648.0f;
    struct Row {
        const char* name;
        std::vector<int32_t> acc, bias;
        float accMax, biasMax;
        double step;
        std::vector<int32_t> expected;
    };
    const Row rows[] = {
        {"equal steps", {10, -20, 30, 40}, {4, -6}, quarter, quarter, 0.25, {14, -26, 34, 34}},
        {"coarser bias", {10, -20}, {3, -7}, quarter, half, 0.25, {16, -34}},
        {"overflow", {2147483647 - 5, -7}, {10, 0}, one, one, 2.0, {1073741826, -4}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        OpRun r(ZEL_OP_QuantizedBiasAdd_32p32to32);
        const D4 d{1, 1, static_cast<uint32_t>(row.acc.size()) / 2, 2};
        r.in(i32(d, row.acc)).in(i32({1, 1, 1, 2}, row.bias));
        r.scalars({-row.accMax, row.accMax, -row.biasMax, row.biasMax}).quantOut(d, 4);
        ASSERT_TRUE(r.run()) << r.error;
        EXPECT_DOUBLE_EQ(step32(r.outs), row.step);
        EXPECT_EQ(ints(r.outs[0]), row.expected);
    }
}

// Requantize: real value acc * step (1/16), placed in [out_min, out_max]
// and rounded half up; output step 1/8 for [0, 31.875].
TEST(Requantize, RoundsToNearestAndClamps) {
    struct Row {
        const char* name;
        float outMin, outMax;
        int32_t acc;
        uint8_t expected;
    };
    const Row rows[] = {
        {"half up", 0.0f, 31.875f, 1, 1},
        {"one and a half", 0.0f, 31.875f, 3, 2},
        {"below min", 0.0f, 31.875f, -5, 0},
        {"above max", 0.0f, 31.875f, 640, 255},
        {"zero at 128", -16.0f, 15.875f, 0, 128},
        {"negative in range", -16.0f, 15.875f, -32, 112},
        // Range [1, 2.275]: 0 is outside, below the first byte.
        {"range without zero", 1.0f, 2.275f, 24, 100},
    };
    const float m = 2147483648.0f / 16;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        OpRun r(ZEL_OP_Requantize_32to8);
        r.in(i32({1, 1, 1, 1}, {row.acc})).scalars({-m, m, row.outMin, row.outMax}).quantOut({1, 1, 1, 1}, 1);
        ASSERT_TRUE(r.run()) << r.error;
        EXPECT_EQ(r.outs[0].data[0], row.expected);
        EXPECT_EQ(first(r.outs[1]), row.outMin);
        EXPECT_EQ(first(r.outs[2]), row.outMax);
    }
}

// Add / sub with broadcasting: the real result within one result step.
struct ElementwiseCase {
    const char* name;
    int32_t op;
    D4 a, b, out;
    float aMin, aMax, bMin, bMax;
};

class ElementwiseTest : public ::testing::TestWithParam<ElementwiseCase> {};

TEST_P(ElementwiseTest, BroadcastsTrailingDims) {
    const ElementwiseCase& c = GetParam();
    Lcg g(17);
    const std::vector<uint8_t> a = g.bytes(c.a.count()), b = g.bytes(c.b.count());
    OpRun r(c.op);
    r.in(u8(c.a, a)).in(u8(c.b, b)).scalars({c.aMin, c.aMax, c.bMin, c.bMax}).quantOut(c.out, 4);
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
INSTANTIATE_TEST_SUITE_P(Shapes, ElementwiseTest, ::testing::Values(
    //              name              op                           a             b             out           a range            b range
    ElementwiseCase{"AddDepthVector", ZEL_OP_QuantizedAdd_8p8to32, {1, 2, 3, 4}, {1, 1, 1, 4}, {1, 2, 3, 4}, -4.0f, 3.96875f, 0.0f, 15.9375f},
    ElementwiseCase{"AddBothWays",    ZEL_OP_QuantizedAdd_8p8to32, {1, 2, 1, 4}, {1, 1, 3, 1}, {1, 2, 3, 4}, -1.0f, 1.0f,     0.3f, 1.7f},
    ElementwiseCase{"SubRowVector",   ZEL_OP_QuantizedSub_8p8to32, {1, 2, 3, 4}, {1, 2, 1, 1}, {1, 2, 3, 4}, 10.0f, 20.0f,    -64.0f, 63.5f},
    ElementwiseCase{"SubSameShape",   ZEL_OP_QuantizedSub_8p8to32, {2, 1, 1, 3}, {2, 1, 1, 3}, {2, 1, 1, 3}, 0.0f,  255.0f,   0.0f, 2.55f}),
    [](const ::testing::TestParamInfo<ElementwiseCase>& i) { return std::string(i.param.name); });
// clang-format on

}  // namespace
}  // namespace simops
