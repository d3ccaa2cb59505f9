// Shape record helpers and the output shapes the support checks infer, where
// no graph reaches them: float forms, operations outside the support table,
// empty or missing arguments, and what an inference writes (and keeps) in
// the output record. The refusals a graph reaches are golden scenarios.
#include <functional>

#include "arith_test_util.h"

namespace {

using namespace arithtest;
using namespace arv::nnhal::zel;
using Dims = std::vector<uint32_t>;
using Call = std::function<bool(Shape*)>;

TEST(ShapeRecord, MeasuresAndCompares) {
    EXPECT_EQ(getNumberOfElements(q8({})), 1u);
    EXPECT_EQ(getNumberOfElements(q8({2, 3, 4})), 24u);
    EXPECT_EQ(getNumberOfElements(q8({2, 0, 4})), 0u);
    EXPECT_EQ(getSizeOfDimension(q8({2, 3, 4}), 2), 4u);
    EXPECT_EQ(getSizeOfDimension(q8({2, 3, 4}), 3), 0u);

    EXPECT_TRUE(SameShape(q8({1, 2}, 0.5f, 1), q8({1, 2}, 0.25f, 7)));
    EXPECT_FALSE(SameShape(q8({1, 2}), i32({1, 2})));
    EXPECT_FALSE(SameShape(q8({1, 2}), q8({2, 1})));
}

// SetShape keeps the output's quantization. A declared output of another
// type or rank is refused without a line (golden scenarios: ADD, RELU).
TEST(ShapeRecord, SetShapeCopiesDimensionsOnly) {
    zeltest::LogCapture log;
    Shape out = q8({9, 9}, 0.25f, 3);
    EXPECT_TRUE(SetShape(q8({2, 5}, 1.0f, 100), &out));
    expectSameRecord(out, q8({2, 5}, 0.25f, 3));
    EXPECT_TRUE(log.texts().empty());

    EXPECT_FALSE(SetShape(q8({2}), nullptr));
    EXPECT_EQ(log.errors().size(), 1u);
}

Call conv(Shape in, Shape filter, Shape bias) {
    return [=](Shape* o) { return convPrepare(in, filter, bias, 0, 1, 0, 1, 2, 2, o); };
}
Call fc(Shape in, Shape weights, Shape bias) {
    return [=](Shape* o) { return fullyConnectedPrepare(in, weights, bias, o); };
}
Call concat(std::vector<Shape> in, int32_t axis) {
    return [=](Shape* o) { return concatenationPrepare(in, axis, o); };
}
Call reshape(Dims in, std::vector<int32_t> target) {
    return [=](Shape* o) { return reshapePrepare(q8(in), target.data(), static_cast<int32_t>(target.size()), o); };
}

// What a successful inference writes: dimensions always, the type and
// quantization only where the operation defines them.
TEST(ShapeInference, WritesTheOutputRecord) {
    const struct {
        const char* name;
        Call call;
        Shape before, after;
    } cases[] = {
        // A zero stride yields 0, no trap.
        {"float conv, zero stride",
         [](Shape* o) {
             return convPrepare(f32({1, 5, 7, 2}), f32({4, 3, 3, 2}), f32({4}), 1, 1, 0, 0, 1, 0, o);
         },
         f32({}), f32({1, 0, 7, 4})},
        // H: (5 + 0 + 0 + 2 - 3) / 2 = 2, W: (4 + 0 + 1 + 2 - 2) / 2 = 2
        {"pooling",
         [](Shape* o) {
             return genericPoolingPrepare(q8({2, 5, 4, 3}), 0, 1, 0, 0, 2, 2, 2, 3, o);
         },
         Shape(), q8({2, 2, 2, 3}, 0.0f)},
        // Float inputs are not held to one quantization.
        {"float concatenation", concat({f32({2, 3}), shapeOf(OperandType::TENSOR_FP32, {4, 3}, 2.0f, 5)}, 0), f32({}),
         f32({6, 3})},
        {"reshape copies the quantization", reshape({1, 2, 3, 4}, {-1, 6}), q8({}, 0.125f, 9), q8({4, 6}, 0.5f, 0)},
        // No target entries: a one-element tensor becomes rank 0.
        {"reshape to rank 0",
         [](Shape* o) {
             return reshapePrepare(q8({1, 1}), nullptr, 0, o);
         },
         q8({9}), q8({})},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        zeltest::LogCapture log;
        Shape out = c.before;
        EXPECT_TRUE(c.call(&out));
        expectSameRecord(out, c.after);
        EXPECT_TRUE(log.texts().empty());
    }
}

TEST(ShapeInference, RefusalsLogOneLineAndWriteNothing) {
    const Shape conc = q8({1, 2, 2, 3}, 0.5f, 3);
    const Shape conc1 = q8({1, 2, 2, 1}, 0.5f, 3);
    const struct {
        Call call;
        std::string line;
    } cases[] = {
        {conv(f32({1, 224, 224, 3}), f32({32, 3, 3, 3}), i32({32})), nnCheck("input.type == bias.type")},
        {[](Shape* o) {
             return genericNormalizationPrepare(q8({2, 3, 4}), o);
         },
         nnCheck("getNumberOfDimensions(input) == 4")},
        {fc(f32({2, 3, 4}), f32({5, 12}), i32({5})), nnCheck("input.type == bias.type")},
        {concat({conc, conc1}, -1), nnCheck("axis >= 0")},
        {concat({conc, conc1}, 4), nnCheck("axis < (int32_t)num_dimensions")},
        {concat({}, 0), nnCheck("axis < (int32_t)num_dimensions")},
        {[](Shape* o) { return reshapePrepare(q8({4}), nullptr, 2, o); },
         nnCheck("targetDims != nullptr || targetDimsSize == 0")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        zeltest::LogCapture log;
        Shape out = untouched();
        expectRefused(c.call(&out), log, c.line, out);
    }
}

// Refused without a line: a declared output of another type.
TEST(ShapeInference, DeclaredOutputMismatchRefusesSilently) {
    zeltest::LogCapture log;
    Shape floatOut = f32({0, 0});
    EXPECT_FALSE(floorPrepare(q8({3, 4}), &floatOut));
    EXPECT_TRUE(log.texts().empty());

    // Dequantize names the mismatch: types first, then rank.
    Shape wrongOut = q8({0, 0});
    EXPECT_FALSE(dequantizePrepare(q8({3, 4}), &wrongOut));
    Shape rank = f32({0});
    EXPECT_FALSE(dequantizePrepare(q8({3, 4}), &rank));
    EXPECT_EQ(log.errors(), (std::vector<std::string>{"bad input / output operand type.",
                                                      "input and output tensors don't have the same rank."}));
}

TEST(ShapeInference, NullOutputIsRefusedWithOneLine) {
    zeltest::LogCapture log;
    EXPECT_FALSE(addMulPrepare(q8({2}), q8({2}), nullptr));
    EXPECT_FALSE(convPrepare(q8({1, 3, 3, 1}), q8({1, 1, 1, 1}), i32({1}), 0, 0, 0, 0, 1, 1, nullptr));
    EXPECT_FALSE(concatenationPrepare({q8({2})}, 0, nullptr));
    EXPECT_FALSE(genericActivationPrepare(q8({2}), nullptr));
    EXPECT_EQ(log.errors().size(), 4u);
}

}  // namespace
