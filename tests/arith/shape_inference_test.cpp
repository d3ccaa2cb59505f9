// Shape record helpers and the output shapes the support checks infer.
#include <functional>

#include "arith_test_util.h"

namespace {

using namespace arithtest;
using namespace arv::nnhal::zel;
using Dims = std::vector<uint32_t>;

TEST(ShapeRecord, MeasuresAndCompares) {
    EXPECT_EQ(getNumberOfElements(q8({})), 1u);
    EXPECT_EQ(getNumberOfElements(q8({2, 3, 4})), 24u);
    EXPECT_EQ(getNumberOfElements(q8({2, 0, 4})), 0u);
    EXPECT_EQ(getNumberOfDimensions(q8({2, 3, 4})), 3u);
    EXPECT_EQ(getSizeOfDimension(q8({2, 3, 4}), 2), 4u);
    EXPECT_EQ(getSizeOfDimension(q8({2, 3, 4}), 3), 0u);
    EXPECT_EQ(getSizeOfDimension(q8({}), 0), 0u);

    EXPECT_TRUE(SameShape(q8({1, 2}, 0.5f, 1), q8({1, 2}, 0.25f, 7)));
    EXPECT_FALSE(SameShape(q8({1, 2}), i32({1, 2})));
    EXPECT_FALSE(SameShape(q8({1, 2}), q8({1, 2, 1})));
    EXPECT_FALSE(SameShape(q8({1, 2}), q8({2, 1})));
}

TEST(ShapeRecord, SetShapeCopiesDimensionsOnlyAndFailsSilently) {
    zeltest::LogCapture log;
    Shape out = q8({9, 9}, 0.25f, 3);
    EXPECT_TRUE(SetShape(q8({2, 5}, 1.0f, 100), &out));
    expectSameRecord(out, q8({2, 5}, 0.25f, 3));

    Shape wrongType = i32({9, 9});
    EXPECT_FALSE(SetShape(q8({2, 5}), &wrongType));
    EXPECT_EQ(wrongType.dimensions, (Dims{9, 9}));
    Shape wrongRank = q8({9});
    EXPECT_FALSE(SetShape(q8({2, 5}), &wrongRank));
    EXPECT_EQ(wrongRank.dimensions, (Dims{9}));
    EXPECT_TRUE(log.texts().empty());

    EXPECT_FALSE(SetShape(q8({2}), nullptr));
    EXPECT_EQ(log.errors().size(), 1u);
}

TEST(ElementwiseShape, SameShapesAndBroadcast) {
    zeltest::LogCapture log;
    Shape out = q8({0, 0, 0}, 0.25f, 4);
    EXPECT_TRUE(addMulPrepare(q8({2, 3, 4}), q8({2, 3, 4}), &out));
    EXPECT_EQ(out.dimensions, (Dims{2, 3, 4}));

    // Broadcast takes the larger rank and leaves the output's type alone.
    Shape bout = i32({});
    EXPECT_TRUE(addMulPrepare(q8({2, 1, 4}), q8({3, 1}), &bout));
    expectSameRecord(bout, i32({2, 3, 4}));
    EXPECT_TRUE(addMulPrepare(q8({5}), q8({2, 1, 1}), &bout));
    EXPECT_EQ(bout.dimensions, (Dims{2, 1, 5}));
    EXPECT_TRUE(log.texts().empty());

    // Equal shapes whose output was declared with another rank: no line.
    Shape badRank = q8({6});
    EXPECT_FALSE(addMulPrepare(q8({2, 3}), q8({2, 3}), &badRank));
    EXPECT_TRUE(log.texts().empty());
}

TEST(ElementwiseShape, Refusals) {
    const struct {
        Shape in1, in2;
        std::string line;
    } cases[] = {
        {q8({2, 3}), q8({4, 3}), "Dimensions mismatch for BroadcastAdd"},
        {q8({1, 1, 1, 1, 2}), q8({2}), nnCheck("getNumberOfDimensions(in1) <= 4 && getNumberOfDimensions(in2) <= 4")},
        {q8({2, 3}), i32({2, 3}), nnCheck("in1.type == in2.type")},
    };
    for (const auto& c : cases) {
        zeltest::LogCapture log;
        Shape out = untouched();
        expectRefused(addMulPrepare(c.in1, c.in2, &out), log, c.line, out);
    }
}

TEST(DequantizeShape, TypesThenRank) {
    zeltest::LogCapture log;
    Shape out = f32({0, 0});
    EXPECT_TRUE(dequantizePrepare(q8({3, 4}), &out));
    EXPECT_EQ(out.type, OperandType::TENSOR_FP32);
    EXPECT_EQ(out.dimensions, (Dims{3, 4}));

    Shape wrongOut = q8({0, 0});
    EXPECT_FALSE(dequantizePrepare(q8({3, 4}), &wrongOut));
    Shape wrongIn = f32({0, 0});
    EXPECT_FALSE(dequantizePrepare(f32({3, 4}), &wrongIn));
    Shape rank = f32({0});
    EXPECT_FALSE(dequantizePrepare(q8({3, 4}), &rank));
    EXPECT_EQ(log.errors(),
              (std::vector<std::string>{"bad input / output operand type.", "bad input / output operand type.",
                                        "input and output tensors don't have the same rank."}));
}

// Convolution family: start from a valid call and break one thing at a time.
struct ConvArgs {
    Shape input = q8({1, 224, 224, 3});
    Shape filter = q8({32, 3, 3, 3});
    Shape bias = i32({32});
};
struct ConvCase {
    const char* name;
    std::function<void(ConvArgs&)> mutate;
    std::string line;
};

TEST(ConvShape, ComputesOutput) {
    ConvArgs a;
    Shape out = q8({}, 0.25f, 2);
    ASSERT_TRUE(convPrepare(a.input, a.filter, a.bias, 0, 1, 0, 1, 2, 2, &out));
    expectSameRecord(out, q8({1, 112, 112, 32}, 0.25f, 2));

    // Float convolution with a float bias; a zero stride yields 0, no trap.
    ASSERT_TRUE(convPrepare(f32({1, 5, 7, 2}), f32({4, 3, 3, 2}), f32({4}), 1, 1, 0, 0, 1, 0, &out));
    EXPECT_EQ(out.type, OperandType::TENSOR_FP32);
    EXPECT_EQ(out.dimensions, (Dims{1, 0, 7, 4}));
}

TEST(ConvShape, Refusals) {
    const ConvCase cases[] = {
        {"filter type", [](ConvArgs& a) { a.filter.type = OperandType::TENSOR_FP32; }, "input.type == filter.type"},
        {"quant8 bias", [](ConvArgs& a) { a.bias.type = OperandType::TENSOR_QUANT8; },
         "bias.type == OperandType::TENSOR_INT32"},
        {"float bias",
         [](ConvArgs& a) {
             a.input.type = OperandType::TENSOR_FP32;
             a.filter.type = OperandType::TENSOR_FP32;
         },
         "input.type == bias.type"},
        {"filter rank (before bias rank)",
         [](ConvArgs& a) {
             a.filter = q8({32, 3, 3});
             a.bias = i32({32, 1});
         },
         "getNumberOfDimensions(filter) == 4"},
        {"bias size", [](ConvArgs& a) { a.bias = i32({16}); },
         "getSizeOfDimension(filter, 0) == getSizeOfDimension(bias, 0)"},
        {"depth",
         [](ConvArgs& a) {
             a.input = q8({1, 224, 224, 4});
         },
         "getSizeOfDimension(filter, 3) == getSizeOfDimension(input, 3)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ConvArgs a;
        c.mutate(a);
        zeltest::LogCapture log;
        Shape out = untouched();
        expectRefused(convPrepare(a.input, a.filter, a.bias, 0, 1, 0, 1, 2, 2, &out), log, nnCheck(c.line), out);
    }
}

TEST(DepthwiseConvShape, OutputDepthIsFilterDepth) {
    Shape out;
    // Depth multiplier 2: input depth 2, filter depth 4.
    ASSERT_TRUE(depthwiseConvPrepare(q8({1, 8, 8, 2}), q8({1, 3, 3, 4}), i32({4}), 1, 1, 1, 1, 1, 1, &out));
    expectSameRecord(out, q8({1, 8, 8, 4}, 0.0f));

    const ConvCase cases[] = {
        {"bias size", [](ConvArgs& a) { a.bias = i32({32}); },
         "getSizeOfDimension(filter, 3) == getSizeOfDimension(bias, 0)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ConvArgs a;
        a.filter = q8({1, 3, 3, 3});
        a.bias = i32({3});
        c.mutate(a);
        zeltest::LogCapture log;
        Shape o = untouched();
        expectRefused(depthwiseConvPrepare(a.input, a.filter, a.bias, 1, 1, 1, 1, 1, 1, &o), log, nnCheck(c.line), o);
    }
}

TEST(PoolingShape, WindowAndRank) {
    Shape out;
    ASSERT_TRUE(genericPoolingPrepare(q8({2, 5, 4, 3}), 0, 1, 0, 0, 2, 2, 2, 3, &out));
    // H: (5 + 0 + 0 + 2 - 3) / 2 = 2, W: (4 + 0 + 1 + 2 - 2) / 2 = 2
    EXPECT_EQ(out.dimensions, (Dims{2, 2, 2, 3}));

    zeltest::LogCapture log;
    Shape o = untouched();
    expectRefused(genericPoolingPrepare(q8({5, 4, 3}), 0, 0, 0, 0, 1, 1, 1, 1, &o), log,
                  nnCheck("getNumberOfDimensions(input) == 4"), o);
}

TEST(ActivationShape, RankLimits) {
    Shape out = q8({0, 0, 0, 0});
    EXPECT_TRUE(genericActivationPrepare(q8({1, 2, 3, 4}), &out));
    EXPECT_EQ(out.dimensions, (Dims{1, 2, 3, 4}));
    {
        zeltest::LogCapture log;
        Shape o = untouched();
        expectRefused(genericActivationPrepare(q8({1, 1, 2, 3, 4}), &o), log,
                      nnCheck("getNumberOfDimensions(input) <= 4"), o);
    }
    {
        zeltest::LogCapture log;
        Shape o = untouched();
        expectRefused(genericNormalizationPrepare(q8({2, 3, 4}), &o), log, nnCheck("getNumberOfDimensions(input) == 4"),
                      o);
    }
    // Declared output of another type: refused without a line.
    zeltest::LogCapture log;
    Shape floatOut = f32({0, 0});
    EXPECT_FALSE(genericActivationPrepare(q8({3, 4}), &floatOut));
    EXPECT_FALSE(floorPrepare(q8({3, 4}), &floatOut));
    EXPECT_TRUE(log.texts().empty());
}

struct FcArgs {
    Shape input = q8({2, 3, 4});
    Shape weights = q8({5, 12});
    Shape bias = i32({5});
};

TEST(FullyConnectedShape, FlattensInputToBatches) {
    FcArgs a;
    Shape out = q8({}, 0.25f, 1);
    ASSERT_TRUE(fullyConnectedPrepare(a.input, a.weights, a.bias, &out));
    expectSameRecord(out, q8({2, 5}, 0.25f, 1));
}

TEST(FullyConnectedShape, Refusals) {
    const struct {
        const char* name;
        std::function<void(FcArgs&)> mutate;
        std::string line;
    } cases[] = {
        {"weights type", [](FcArgs& a) { a.weights.type = OperandType::TENSOR_FP32; }, "input.type == weights.type"},
        {"float bias",
         [](FcArgs& a) {
             a.input.type = OperandType::TENSOR_FP32;
             a.weights.type = OperandType::TENSOR_FP32;
         },
         "input.type == bias.type"},
        {"no depth", [](FcArgs& a) { a.weights = q8({5}); }, "depth != 0"},
        {"units", [](FcArgs& a) { a.bias = i32({4}); }, "getSizeOfDimension(bias, 0) == num_units"},
        {"depth does not divide",
         [](FcArgs& a) {
             a.weights = q8({5, 7});
         },
         "getSizeOfDimension(weights, 1) * batch_size == input_size"},
        {"weights rank last",
         [](FcArgs& a) {
             a.weights = q8({5, 12, 1});
         },
         "getNumberOfDimensions(weights) == 2"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        FcArgs a;
        c.mutate(a);
        zeltest::LogCapture log;
        Shape out = untouched();
        expectRefused(fullyConnectedPrepare(a.input, a.weights, a.bias, &out), log, nnCheck(c.line), out);
    }
}

std::vector<Shape> concatInputs() {
    return {q8({1, 2, 2, 3}, 0.5f, 3), q8({1, 2, 2, 1}, 0.5f, 3), q8({1, 2, 2, 4}, 0.5f, 3)};
}

TEST(ConcatenationShape, SumsTheAxis) {
    Shape out = q8({}, 0.5f, 3);
    ASSERT_TRUE(concatenationPrepare(concatInputs(), 3, &out));
    expectSameRecord(out, q8({1, 2, 2, 8}, 0.5f, 3));
    // Float inputs are not held to one quantization.
    Shape fout = f32({});
    ASSERT_TRUE(concatenationPrepare({f32({2, 3}), shapeOf(OperandType::TENSOR_FP32, {4, 3}, 2.0f, 5)}, 0, &fout));
    EXPECT_EQ(fout.dimensions, (Dims{6, 3}));
}

TEST(ConcatenationShape, Refusals) {
    const struct {
        const char* name;
        int32_t axis;
        std::function<void(std::vector<Shape>&, Shape&)> mutate;
        std::string line;
    } cases[] = {
        {"negative axis", -1, [](std::vector<Shape>&, Shape&) {}, "axis >= 0"},
        {"axis beyond rank", 4, [](std::vector<Shape>&, Shape&) {}, "axis < (int32_t)num_dimensions"},
        {"no input", 0, [](std::vector<Shape>& in, Shape&) { in.clear(); }, "axis < (int32_t)num_dimensions"},
        {"type", 3, [](std::vector<Shape>& in, Shape&) { in[2].type = OperandType::TENSOR_INT32; },
         "inputShapes[i].type == inputShapes[0].type"},
        {"offset before scale", 3,
         [](std::vector<Shape>& in, Shape&) {
             in[1].offset = 4;
             in[1].scale = 0.25f;
         },
         "inputShapes[0].offset == inputShapes[i].offset"},
        {"other dimension", 3, [](std::vector<Shape>& in, Shape&) { in[2].dimensions[1] = 3; },
         "getSizeOfDimension(inputShapes[0], d) == getSizeOfDimension(inputShapes[i], d)"},
        {"output offset", 3, [](std::vector<Shape>&, Shape& out) { out.offset = 0; },
         "inputShapes[0].offset == output->offset"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<Shape> in = concatInputs();
        Shape out = q8({7, 7}, 0.5f, 3);
        c.mutate(in, out);
        const Shape before = out;
        zeltest::LogCapture log;
        EXPECT_FALSE(concatenationPrepare(in, c.axis, &out));
        EXPECT_EQ(log.errors(), std::vector<std::string>{nnCheck(c.line)});
        expectSameRecord(out, before);
    }
}

TEST(ReshapeShape, StretchesOneDimensionAndCopiesQuantization) {
    const int32_t target[] = {-1, 6};
    Shape out;
    ASSERT_TRUE(reshapePrepare(q8({1, 2, 3, 4}, 0.75f, 12), target, 2, &out));
    expectSameRecord(out, q8({4, 6}, 0.75f, 12));

    // No target entries: a one-element tensor becomes rank 0.
    ASSERT_TRUE(reshapePrepare(q8({1, 1}), nullptr, 0, &out));
    EXPECT_TRUE(out.dimensions.empty());
}

TEST(ReshapeShape, Refusals) {
    const struct {
        const char* name;
        Dims input;
        std::vector<int32_t> target;
        std::string line;
    } cases[] = {
        {"two stretches", {1, 2, 3, 4}, {-1, -1}, "strechDim == -1"},
        {"count", {1, 2, 3, 4}, {5, 5}, "numInputElements == numOutputElements"},
        // Negative entries must not cancel out: -2 * -12 is not 24 elements.
        {"negatives", {2, 12}, {-2, -12}, "numInputElements == numOutputElements"},
        // 65536 * 65537 wraps to 65536 in 32 bits.
        {"wrapping product", {65536}, {65536, 65537}, "numInputElements == numOutputElements"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        zeltest::LogCapture log;
        Shape out = untouched();
        expectRefused(reshapePrepare(q8(c.input), c.target.data(), static_cast<int32_t>(c.target.size()), &out), log,
                      nnCheck(c.line), out);
    }
    zeltest::LogCapture log;
    Shape out = untouched();
    expectRefused(reshapePrepare(q8({4}), nullptr, 2, &out), log,
                  nnCheck("targetDims != nullptr || targetDimsSize == 0"), out);
}

TEST(ResizeBilinearShape, HeightThenWidth) {
    Shape out;
    ASSERT_TRUE(resizeBilinearPrepare(q8({2, 4, 4, 3}), 5, 7, &out));
    EXPECT_EQ(out.dimensions, (Dims{2, 7, 5, 3}));
    zeltest::LogCapture log;
    Shape o = untouched();
    expectRefused(resizeBilinearPrepare(q8({4, 4, 3}), 5, 7, &o), log, nnCheck("getNumberOfDimensions(input) == 4"), o);
}

TEST(NullOutput, RefusedWithOneLine) {
    zeltest::LogCapture log;
    EXPECT_FALSE(addMulPrepare(q8({2}), q8({2}), nullptr));
    EXPECT_FALSE(convPrepare(q8({1, 3, 3, 1}), q8({1, 1, 1, 1}), i32({1}), 0, 0, 0, 0, 1, 1, nullptr));
    EXPECT_FALSE(concatenationPrepare(concatInputs(), 3, nullptr));
    EXPECT_FALSE(genericActivationPrepare(q8({2}), nullptr));
    EXPECT_EQ(log.errors().size(), 4u);
}

}  // namespace
