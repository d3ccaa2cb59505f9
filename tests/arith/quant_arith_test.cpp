// Padding choice, clamp ranges and fixed-point multipliers.
#include <cmath>
#include <limits>

#include "arith_test_util.h"

namespace {

using namespace arithtest;
using namespace arv::nnhal::zel;
using arv::nnhal::ActivationFunc;

constexpr int32_t kIntMin = std::numeric_limits<int32_t>::min();
constexpr int32_t kIntMax = std::numeric_limits<int32_t>::max();

// The plain same, valid and neither forms are golden scenarios.
TEST(PaddingCode, ExplicitPaddings) {
    const struct {
        const char* name;
        int w, h, sw, sh, fw, fh, left, right, top, bottom;
        padding_type_enum expected;
    } cases[] = {
        {"odd overhang split evenly", 5, 5, 2, 2, 3, 3, 1, 1, 1, 1, ZEL_NN_PAD_SAME},
        {"height only, wrong split", 4, 5, 1, 2, 1, 3, 0, 0, 0, 2, ZEL_NN_PAD_NA},
        {"too much padding", 5, 5, 1, 1, 3, 3, 2, 2, 1, 1, ZEL_NN_PAD_NA},
        {"zero stride", 5, 5, 0, 0, 3, 3, 1, 1, 1, 1, ZEL_NN_PAD_NA},
        {"wrapping sizes", kIntMax, kIntMax, kIntMax, 3, kIntMax, 3, 1, 0, 1, 0, ZEL_NN_PAD_NA},
        {"INT32_MIN over -1 wraps", kIntMin + 2, kIntMin + 2, -1, -1, 3, 3, 1, 1, 1, 1, ZEL_NN_PAD_SAME},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(getPadding(c.w, c.h, c.sw, c.sh, c.fw, c.fh, c.left, c.right, c.top, c.bottom), c.expected);
    }
}

TEST(ActivationRange, Uint8) {
    const float inf = std::numeric_limits<float>::infinity();
    const struct {
        const char* name;
        int32_t activation;
        float scale;
        int32_t zeroPoint;
        int32_t min, max;
    } cases[] = {
        {"none", 0, 0.1f, 77, 0, 255},
        {"relu6 inside", 3, 0.1f, 10, 10, 70},
        {"relu from zero point", 1, 0.5f, 200, 200, 255},
        {"relu1", 2, 0.01f, 128, 28, 228},
        {"halves away from zero", 2, 2.0f, 100, 99, 101},
        {"zero point above the range", 1, 0.5f, 300, 300, 255},
        {"infinite scale", 3, inf, 9, 9, 9},
        {"extreme zero point", 2, 1e-30f, kIntMax, 0, 255},  // no overflow on the way
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        zeltest::LogCapture log;
        int32_t lo = -7;
        int32_t hi = -7;
        CalculateActivationRangeUint8(c.activation, q8({1}, c.scale, c.zeroPoint), &lo, &hi);
        EXPECT_EQ(lo, c.min);
        EXPECT_EQ(hi, c.max);
        EXPECT_TRUE(log.texts().empty());
    }
    zeltest::LogCapture log;
    int32_t lo = 1234;
    int32_t hi = -99;
    CalculateActivationRangeUint8(4, q8({1}, 0.5f, 3), &lo, &hi);
    EXPECT_EQ(lo, 1234);
    EXPECT_EQ(hi, -99);
    EXPECT_EQ(log.errors(), std::vector<std::string>{"Unsupported fused activation function."});
}

// Unknown activation codes leave the float range untouched.
TEST(ActivationRange, FloatRefusesUnknownCodes) {
    zeltest::LogCapture log;
    float lo = 42.0f;
    float hi = 43.0f;
    CalculateActivationRangeFloat(5, &lo, &hi);
    EXPECT_EQ(lo, 42.0f);
    EXPECT_EQ(hi, 43.0f);
    EXPECT_EQ(log.errors(), std::vector<std::string>{"Unsupported fused activation function."});
}

// Fixed-point form of a real multiplier: a Q31 mantissa and a shift. A
// mantissa that rounds up to 2^31 is halved and the shift moves by one.
TEST(QuantizedMultiplier, SmallerAndGreaterThanOne) {
    const struct {
        double value;
        bool greater;  // QuantizeMultiplierGreaterThanOne, else SmallerThanOne
        int32_t multiplier, shift;
        const char* refusal;  // null: accepted
    } cases[] = {
        {0.5, false, 1 << 30, 0, nullptr},
        {0.0, false, 0, 0, nullptr},
        {0x1p-40, false, 1 << 30, 39, nullptr},
        {0.5 - 0x1p-40, false, 1 << 30, 0, nullptr},
        {3.0, true, 3 << 29, 2, nullptr},
        {2.0 - 0x1p-40, true, 1 << 30, 2, nullptr},
        {1024.0, true, 1 << 30, 11, nullptr},
        {1.0, false, 77, 55, "NN_CHECK failed: double_multiplier < 1."},
        {-0.25, false, 77, 55, "NN_CHECK failed: double_multiplier >= 0."},
        {std::nan(""), false, 77, 55, "NN_CHECK failed: double_multiplier >= 0."},
        {1.0 - 0x1p-40, false, 77, -1, "NN_CHECK failed: *right_shift >= 0"},  // right_shift left at -1
        {1.0, true, 77, 55, "NN_CHECK failed: double_multiplier > 1."},
        {std::nan(""), true, 77, 55, "NN_CHECK failed: double_multiplier > 1."},
        {std::numeric_limits<double>::infinity(), true, 77, 55, "NN_CHECK failed: q_fixed <= (1ll << 31)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.value << (c.greater ? " greater" : " smaller"));
        zeltest::LogCapture log;
        int32_t multiplier = 77;
        int32_t shift = 55;
        int leftShift = 55;
        const bool ok = c.greater ? QuantizeMultiplierGreaterThanOne(c.value, &multiplier, &leftShift)
                                  : QuantizeMultiplierSmallerThanOne(c.value, &multiplier, &shift);
        EXPECT_EQ(ok, c.refusal == nullptr);
        EXPECT_EQ(multiplier, c.multiplier);
        if (!c.greater || c.refusal == nullptr) {
            EXPECT_EQ(c.greater ? leftShift : shift, c.shift);
        }
        EXPECT_EQ(log.errors(), c.refusal ? std::vector<std::string>{c.refusal} : std::vector<std::string>{});
    }
}

TEST(QuantizedMultiplier, ConvolutionMultiplier) {
    float multiplier = -1.0f;
    ASSERT_TRUE(
        GetQuantizedConvolutionMultipler(q8({1}, 0.5f), q8({1}, 0.5f), i32({1}, 0.25f), q8({1}, 1.0f), &multiplier));
    EXPECT_EQ(multiplier, 0.25f);
    // A bias scale within one part in a million of the product is accepted.
    ASSERT_TRUE(GetQuantizedConvolutionMultipler(q8({1}, 0.5f), q8({1}, 0.5f), i32({1}, 0.25f * (1.0f + 5e-7f)),
                                                 q8({1}, 0.5f), &multiplier));
    EXPECT_EQ(multiplier, 0.5f);

    const struct {
        float biasScale, outputScale;
        std::string line;
    } refusals[] = {
        {0.25f, 0.25f, "NN_CHECK failed: input_product_scale < output_scale"},
        {0.25f * (1.0f + 4e-6f), 1.0f,
         "NN_CHECK failed: std::abs(input_product_scale - bias_scale) <= 1e-6 * std::min(input_product_scale, "
         "bias_scale)"},
    };
    for (const auto& c : refusals) {
        SCOPED_TRACE(c.line);
        zeltest::LogCapture log;
        float m = -1.0f;
        EXPECT_FALSE(GetQuantizedConvolutionMultipler(q8({1}, 0.5f), q8({1}, 0.5f), i32({1}, c.biasScale),
                                                      q8({1}, c.outputScale), &m));
        EXPECT_EQ(log.errors(), std::vector<std::string>{c.line});
        EXPECT_EQ(m, -1.0f);
    }
}

TEST(InputRadius, FixedPointFormat) {
    const struct {
        int bits, shift;
        int32_t expected;
    } cases[] = {
        {4, 20, 1920},  // 15 * 2^27 / 2^20
        {5, 27, 15},    // 31 * 2^26 / 2^27 = 15.5
        {0, 0, 0},
        {31, 0, kIntMax},
        {4, 62, 0},
        {40, 0, kIntMax},  // beyond the format: saturates instead of shifting out of range
        {kIntMax, kIntMin, kIntMax},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.bits << ", " << c.shift);
        EXPECT_EQ(CalculateInputRadius(c.bits, c.shift), c.expected);
    }
}

TEST(NullArguments, RefusedWithOneLine) {
    zeltest::LogCapture log;
    int32_t value = 5;
    int shift = 0;
    float f = 0.0f;
    CalculateActivationRangeUint8(1, q8({1}), nullptr, &value);
    CalculateActivationRangeFloat(1, &f, nullptr);
    EXPECT_FALSE(QuantizeMultiplierSmallerThanOne(0.5, nullptr, &value));
    EXPECT_FALSE(QuantizeMultiplierGreaterThanOne(3.0, &value, nullptr));
    EXPECT_FALSE(QuantizeMultiplierGreaterThanOne(3.0, nullptr, &shift));
    EXPECT_FALSE(
        GetQuantizedConvolutionMultipler(q8({1}, 0.5f), q8({1}, 0.5f), i32({1}, 0.25f), q8({1}, 1.0f), nullptr));
    EXPECT_EQ(log.errors().size(), 6u);
    EXPECT_EQ(log.startingWith("NN_CHECK failed: ").size(), 6u);
    EXPECT_EQ(value, 5);
    EXPECT_EQ(f, 0.0f);
}

}  // namespace
