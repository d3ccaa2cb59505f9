// Output shapes of the layout operations (block moves, lookups, padding,
// squeeze, transpose, mean, strided slice). Passing cases follow the public
// conformance graphs of the operations no table routes (the conformance run
// pins the routed ones: batch/space moves, padding); refusals keep the rules whose
// arithmetic can go wrong (wrapping products, negative and out-of-range
// values, missing data).
#include "arith_test_util.h"

namespace {

using namespace arithtest;
using namespace arv::nnhal::zel;
using Dims = std::vector<uint32_t>;

// Runs one refused call and checks its single line and the untouched output.
template <typename Call>
void expectRefusal(const std::string& condition, Call call) {
    zeltest::LogCapture log;
    Shape out = untouched();
    expectRefused(call(&out), log, nnCheck(condition), out);
}

TEST(BlockShape, DepthToSpaceAndBack) {
    Shape out;
    ASSERT_TRUE(depthToSpacePrepare(q8({1, 1, 1, 8}), 2, &out));
    EXPECT_EQ(out.dimensions, (Dims{1, 2, 2, 2}));
    ASSERT_TRUE(spaceToDepthPrepare(q8({1, 4, 4, 1}), 2, &out));
    EXPECT_EQ(out.dimensions, (Dims{1, 2, 2, 4}));

    // 65536^2 does not fit 32 bits: still a plain refusal.
    expectRefusal("channels % (blockSize * blockSize) == 0", [](Shape* o) {
        return depthToSpacePrepare(q8({1, 1, 1, 8}), 65536, o);
    });
    expectRefusal("blockSize > 0", [](Shape* o) { return spaceToDepthPrepare(q8({1, 4, 4, 1}), -2, o); });
    expectRefusal("width % blockSize == 0", [](Shape* o) { return spaceToDepthPrepare(q8({1, 4, 6, 1}), 4, o); });
}

TEST(BlockShape, BatchToSpaceRefusals) {
    const int32_t zero[] = {0, 2};
    const int32_t tall[] = {4, 2};
    const int32_t pads[] = {1, 0, 2, 0};
    const int32_t negative[] = {-1, 0, 0, 0};
    expectRefusal("blockSizeData[0] >= 1 && blockSizeData[1] >= 1", [&](Shape* o) {
        return batchToSpacePrepare(q8({4, 2, 2, 1}), zero, i32({2}), o);
    });
    expectRefusal("blockSizeValues != nullptr", [&](Shape* o) {
        return batchToSpacePrepare(q8({4, 2, 2, 1}), nullptr, i32({2}), o);
    });
    expectRefusal("blockSizeValues != nullptr && paddingsData != nullptr", [&](Shape* o) {
        return spaceToBatchPrepare(q8({1, 4, 4, 1}), tall, i32({2}), nullptr, i32({2, 2}), o);
    });
    expectRefusal("paddedHeight % blockSizeData[0] == 0", [&](Shape* o) {
        return spaceToBatchPrepare(q8({1, 5, 2, 1}), tall, i32({2}), pads, i32({2, 2}), o);
    });
    expectRefusal("paddingsData[0] >= 0 && paddingsData[1] >= 0 && paddingsData[2] >= 0 && paddingsData[3] >= 0",
                  [&](Shape* o) {
                      return spaceToBatchPrepare(q8({1, 5, 2, 1}), tall, i32({2}), negative, i32({2, 2}), o);
                  });
}

TEST(LookupShape, EmbeddingAndHashtable) {
    Shape out;
    ASSERT_TRUE(embeddingLookupPrepare(q8({10, 3, 2}), i32({4}), &out));
    EXPECT_EQ(out.dimensions, (Dims{4, 3, 2}));
    Shape hits = f32({});
    ASSERT_TRUE(hashtableLookupPrepare(i32({4}), i32({3}), q8({3, 2}), &out, &hits));
    EXPECT_EQ(out.dimensions, (Dims{4, 2}));
    EXPECT_EQ(hits.type, OperandType::TENSOR_QUANT8);
    EXPECT_EQ(hits.dimensions, (Dims{4}));

    Shape h = untouched();
    expectRefusal("getNumberOfDimensions(keyShape) == 1", [&](Shape* o) {
        return hashtableLookupPrepare(i32({4}), i32({3, 1}), q8({3, 2}), o, &h);
    });
    expectSameRecord(h, untouched());
}

TEST(PadShape, Refusals) {
    const int32_t negative[] = {0, 0, 0, 2, -1, 3, 0, 0};
    expectRefusal("beforePadding >= 0 && afterPadding >= 0", [&](Shape* o) {
        return padPrepare(q8({1, 2, 3, 1}), negative, i32({4, 2}), o);
    });
    expectRefusal("paddingsData != nullptr", [&](Shape* o) {
        return padPrepare(q8({1, 2, 3, 1}), nullptr, i32({4, 2}), o);
    });
}

TEST(SqueezeShape, ListedOrAllUnitDimensions) {
    const int32_t fromEnd[] = {-1};
    Shape out;
    ASSERT_TRUE(squeezePrepare(q8({1, 24, 1}), fromEnd, i32({1}), &out));
    EXPECT_EQ(out.dimensions, (Dims{1, 24}));
    ASSERT_TRUE(squeezePrepare(q8({1, 24, 1}), nullptr, i32({0}), &out));
    EXPECT_EQ(out.dimensions, (Dims{24}));
    ASSERT_TRUE(squeezePrepare(q8({1, 1}), nullptr, i32({0}), &out));
    EXPECT_EQ(out.dimensions, (Dims{1}));

    const int32_t outOfRange[] = {3};
    expectRefusal("current >= 0 && current < numInputDims && getSizeOfDimension(input, current) == 1", [&](Shape* o) {
        return squeezePrepare(q8({1, 24, 1}), outOfRange, i32({1}), o);
    });
}

TEST(TransposeShape, PermutesDimensions) {
    const int32_t perm[] = {2, 0, 1, 3};
    Shape out;
    ASSERT_TRUE(transposePrepare(q8({2, 3, 4, 5}), perm, i32({4}), &out));
    EXPECT_EQ(out.dimensions, (Dims{4, 2, 3, 5}));

    // A scalar has nothing to permute and needs no permutation data.
    ASSERT_TRUE(transposePrepare(q8({}), nullptr, i32({0}), &out));
    EXPECT_TRUE(out.dimensions.empty());

    const int32_t bad[] = {2, 0, 4, 1};
    expectRefusal("permData[idx] >= 0 && permData[idx] < static_cast<int32_t>(numInputDims)", [&](Shape* o) {
        return transposePrepare(q8({2, 3, 4, 5}), bad, i32({4}), o);
    });
}

TEST(MeanShape, ReducesOrKeepsAxes) {
    const struct {
        std::vector<int32_t> axes;
        bool keepDims;
        Dims expected;
    } cases[] = {
        {{1, 0, -3, -3}, false, {2}},  // -3 is axis 0 again
        {{0, 1, 2}, false, {1}},
    };
    for (const auto& c : cases) {
        Shape out;
        ASSERT_TRUE(
            meanPrepare(q8({4, 3, 2}), c.axes.data(), i32({static_cast<uint32_t>(c.axes.size())}), c.keepDims, &out));
        EXPECT_EQ(out.dimensions, c.expected);
    }
    const int32_t bad[] = {3};
    expectRefusal("current >= 0 && current < numInputDims", [&](Shape* o) {
        return meanPrepare(q8({4, 3, 2}), bad, i32({1}), true, o);
    });
}

TEST(StridedSliceShape, BoundsMasksAndShrink) {
    const struct {
        Dims input;
        std::vector<int32_t> begin, end, strides;
        int32_t beginMask, endMask, shrinkMask;
        Dims expected;
    } cases[] = {
        {{4}, {1}, {3}, {1}, 0, 0, 0, {2}},
        {{4}, {-5}, {3}, {1}, 0, 0, 0, {3}},  // clamped to the start
        {{4}, {1}, {3}, {1}, 1, 0, 0, {3}},
        {{3}, {-1}, {-4}, {-1}, 0, 0, 0, {3}},
        {{2, 3}, {1, -1}, {2, -4}, {2, -1}, 0, 0, 0, {1, 3}},
        {{2, 3}, {1, 0}, {2, 2}, {1, 1}, 0, 2, 0, {1, 3}},
        {{2, 3}, {0, 0}, {1, 3}, {1, 1}, 0, 0, 1, {3}},
    };
    for (const auto& c : cases) {
        const Shape index = i32({static_cast<uint32_t>(c.input.size())});
        Shape out;
        ASSERT_TRUE(stridedSlicePrepare(q8(c.input), c.begin.data(), index, c.end.data(), index, c.strides.data(),
                                        index, c.beginMask, c.endMask, c.shrinkMask, &out));
        EXPECT_EQ(out.dimensions, c.expected);
    }

    const int32_t begin[] = {2, 0};
    const int32_t end[] = {1, 3};
    const int32_t unit[] = {1, 1};
    const int32_t zero[] = {0, 1};
    expectRefusal("stride != 0", [&](Shape* o) {
        return stridedSlicePrepare(q8({2, 3}), unit, i32({2}), end, i32({2}), zero, i32({2}), 0, 0, 0, o);
    });
    expectRefusal("dim != 0", [&](Shape* o) {
        return stridedSlicePrepare(q8({2, 3}), begin, i32({2}), end, i32({2}), unit, i32({2}), 0, 0, 0, o);
    });
}

}  // namespace
