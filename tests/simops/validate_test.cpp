// Node validation: refusals made by changing one thing of a valid node, one
// row per distinct reason. Valid nodes of every family the plug-in emits
// are accepted through the lowering chains (lowering_test prepares them on
// the simulator); the rows here add the forms those do not reach.
#include "simops_util.h"

namespace simops {
namespace {

const D4 k1{1, 1, 1, 1};
constexpr int32_t kConv = ZEL_OP_QuantizedConv2d_8x8to32;

// A convolution up to its stride: input 1x4x4x3, filter 3x3x3x4, ranges.
NodeCheck conv(int32_t padding = ZEL_NN_PAD_SAME, D4 filter = {3, 3, 3, 4}, uint32_t inputElementSize = 1) {
    NodeCheck n(kConv, padding);
    n.value({1, 4, 4, 3}, inputElementSize).bytes(filter).scalars({-64, 63.5f, -32, 31.75f});
    return n;
}

NodeCheck matmul(D4 weights, D4 out) {
    NodeCheck n(ZEL_OP_QuantizedMatMul_8x8to32);
    n.value({1, 1, 2, 5}, 1).bytes(weights).scalars({0, 1, 0, 1});
    return n.quantOut(out, 4);
}

NodeCheck add(D4 b, D4 out) {
    NodeCheck n(ZEL_OP_QuantizedAdd_8p8to32);
    n.value({1, 2, 3, 4}, 1).value(b, 1).scalars({0, 1, 0, 1});
    return n.quantOut(out, 4);
}

NodeCheck concat(int32_t dim, D4 second, D4 out) {
    NodeCheck n(ZEL_OP_QuantizedConcat_8);
    n.int32s(k1, {dim}).value({1, 1, 2, 2}, 1).value(second, 1).scalars({0, 0, 1, 2});
    return n.quantOut(out, 1);
}

NodeCheck resize(std::vector<int32_t> size, D4 out) {
    NodeCheck n(ZEL_OP_QuantizedResizeBilinear_8);
    n.value({1, 2, 2, 3}, 1).int32s({1, 1, 1, static_cast<uint32_t>(size.size())}, size).scalars({0, 1});
    return n.quantOut(out, 1);
}

NodeCheck floatRelu(uint32_t outSize) {
    return NodeCheck(ZEL_OP_FloatRelu).value({1, 2, 2, 2}, 4).out({1, 2, 2, 2}, outSize);
}

struct ValidateCase {
    const char* name;
    NodeCheck node;
    std::string expected;  // "" = accepted
};

class ValidateTest : public ::testing::TestWithParam<ValidateCase> {};

TEST_P(ValidateTest, Reason) {
    EXPECT_EQ(GetParam().node.validate(), GetParam().expected);
}

const char* const kFloatText = " must be a 1x1x1x1 float (a 4-byte constant or a one-element output of element size 4)";

NodeCheck splitInto(size_t outputs) {
    NodeCheck n(ZEL_OP_QuantizedSplit_8);
    n.int32s(k1, {3}).value({1, 1, 2, 4}, 1).scalars({0, 1});
    for (size_t i = 0; i < outputs; ++i) n.out(i % 3 == 0 ? D4{1, 1, 2, 2} : k1, i % 3 == 0 ? 1 : 4);
    return n;
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Nodes, ValidateTest, ::testing::Values(
    ValidateCase{"ConvValidPadding", conv(ZEL_NN_PAD_VALID).shape(2, 2).quantOut({1, 1, 1, 4}, 4), ""},
    ValidateCase{"ConvSixInputs", conv().quantOut({1, 2, 2, 4}, 4), "QuantizedConv2d_8x8to32: expects 7 inputs, got 6"},
    ValidateCase{"ConvStrideNotHW", conv().constant({1, 2, 2, 2}, {0, 0, 0, 0}).quantOut({1, 2, 2, 4}, 4),
                 "QuantizedConv2d_8x8to32: input 6 (stride) must be a constant of dims 1xHxWx1, got 1x2x2x2"},
    ValidateCase{"ConvFilterDepth", conv(ZEL_NN_PAD_SAME, {3, 3, 2, 4}).shape(2, 2).quantOut({1, 2, 2, 4}, 4),
                 "QuantizedConv2d_8x8to32: filter input depth 2 (filter 3x3x2x4) does not match the input depth 3 "
                 "(input 1x4x4x3)"},
    ValidateCase{"ConvFilterShortData",
                 [] {
                     NodeCheck n(kConv, ZEL_NN_PAD_SAME);
                     n.value({1, 4, 4, 3}, 1).constant({3, 3, 3, 4}, std::vector<uint8_t>(100));
                     return n.scalars({0, 1, 0, 1}).shape(2, 2).quantOut({1, 2, 2, 4}, 4);
                 }(),
                 "QuantizedConv2d_8x8to32: input 1 (filter) must be a constant of 1-byte elements with all its data "
                 "(dims 3x3x3x4, 100 bytes)"},
    ValidateCase{"ConvOutputHeight", conv().shape(2, 2).quantOut({1, 3, 2, 4}, 4),
                 "QuantizedConv2d_8x8to32: output 0 (value) must be 1x2x2x4 with element size 4, got 1x3x2x4 with "
                 "element size 4"},
    ValidateCase{"ConvRangeRecord", conv().shape(2, 2).quantOut({1, 2, 2, 4}, 4).out(k1, 4),
                 "QuantizedConv2d_8x8to32: expects 3 outputs, got 4"},
    ValidateCase{"ConvNoPadding", conv(ZEL_NN_PAD_NA).shape(2, 2).quantOut({1, 2, 2, 4}, 4),
                 "QuantizedConv2d_8x8to32: padding must be SAME (1) or VALID (2), got 0"},
    ValidateCase{"ConvValidTooSmall", conv(ZEL_NN_PAD_VALID, {5, 3, 3, 4}).shape(1, 1).quantOut({1, 1, 2, 4}, 4),
                 "QuantizedConv2d_8x8to32: filter height 5 with stride 1 leaves no output for input height 4"},
    ValidateCase{"ConvMinEightBytes",
                 [] {
                     NodeCheck n(kConv, ZEL_NN_PAD_SAME);
                     n.value({1, 4, 4, 3}, 1).bytes({3, 3, 3, 4}).constant(k1, std::vector<uint8_t>(8));
                     return n.scalars({1, 0, 1}).shape(2, 2).quantOut({1, 2, 2, 4}, 4);
                 }(),
                 std::string("QuantizedConv2d_8x8to32: input 2 (input min)") + kFloatText},
    ValidateCase{"ConvInputElementSize", conv(ZEL_NN_PAD_SAME, {3, 3, 3, 4}, 4).shape(2, 2).quantOut({1, 2, 2, 4}, 4),
                 "QuantizedConv2d_8x8to32: input 0 (input) must hold elements of 1 byte, got dims 1x4x4x3 with element "
                 "size 4"},
    ValidateCase{"ConvNotConnected",
                 [] {
                     NodeCheck n(kConv, ZEL_NN_PAD_SAME);
                     n.none().bytes({3, 3, 3, 4}).scalars({0, 1, 0, 1});
                     return n.shape(2, 2).quantOut({1, 2, 2, 4}, 4);
                 }(),
                 "QuantizedConv2d_8x8to32: input 0 (input) is not connected"},
    ValidateCase{"MatMulWeightsDims", matmul({1, 3, 5, 1}, {1, 1, 2, 3}),
                 "QuantizedMatMul_8x8to32: weights must have dims 1x1xDEPTHxUNITS, got 1x3x5x1"},
    ValidateCase{"MatMulOutput", matmul({1, 1, 5, 3}, {1, 1, 2, 4}),
                 "QuantizedMatMul_8x8to32: output 1x1x2x4 must hold 2 rows of 3 units"},
    ValidateCase{"BiasAddLength",
                 [] {
                     NodeCheck n(ZEL_OP_QuantizedBiasAdd_32p32to32);
                     n.value({1, 2, 2, 4}, 4).int32s({1, 1, 1, 3}, {1, 1, 1}).scalars({-1, 1, -1, 1});
                     return n.quantOut({1, 2, 2, 4}, 4);
                 }(),
                 "QuantizedBiasAdd_32p32to32: bias holds 3 values, the accumulator depth is 4"},
    ValidateCase{"RequantizePadding",
                 [] {
                     NodeCheck n(ZEL_OP_Requantize_32to8, ZEL_NN_PAD_SAME);
                     return n.value({1, 2, 2, 4}, 4).scalars({-1, 1, 0, 6}).quantOut({1, 2, 2, 4}, 1);
                 }(),
                 "Requantize_32to8: padding must be 0, got 1"},
    ValidateCase{"AddBroadcast", add({1, 1, 1, 4}, {1, 2, 3, 4}), ""},
    ValidateCase{"AddNoBroadcast", add({1, 1, 1, 3}, {1, 2, 3, 4}),
                 "QuantizedAdd_8p8to32: inputs 1x2x3x4 and 1x1x1x3 do not broadcast"},
    ValidateCase{"MaxPoolWindowRecord",
                 [] {
                     NodeCheck n(ZEL_OP_QuantizedMaxPool_8, ZEL_NN_PAD_SAME);
                     n.value({1, 4, 4, 1}, 1).scalars({0, 1}).value({1, 3, 3, 1}, 4).shape(2, 2);
                     return n.quantOut({1, 2, 2, 1}, 1);
                 }(),
                 "QuantizedMaxPool_8: input 3 (window) must be a constant of dims 1xHxWx1, got 1x3x3x1"},
    ValidateCase{"ConcatDim", concat(4, {1, 1, 2, 3}, {1, 1, 2, 5}), "QuantizedConcat_8: dim must be 0 to 3, got 4"},
    ValidateCase{"ConcatMismatch", concat(3, {1, 1, 3, 2}, {1, 1, 2, 4}),
                 "QuantizedConcat_8: value 1 (1x1x3x2) does not match value 0 (1x1x2x2) outside dim 3"},
    ValidateCase{"ConcatCount", concat(3, {1, 1, 2, 3}, {1, 1, 2, 5}).scalars({0, 1}),
                 "QuantizedConcat_8: expects 1 + 3N inputs (dim, N values, N mins, N maxes), got 9"},
    ValidateCase{"ReshapeCount",
                 [] {
                     NodeCheck n(ZEL_OP_QuantizedReshape);
                     n.value({1, 2, 3, 1}, 1).int32s({1, 1, 1, 2}, {3, 2}).scalars({0, 1});
                     return n.quantOut({1, 1, 1, 5}, 1);
                 }(),
                 "QuantizedReshape: output 0 (value) 1x1x1x5 does not hold the 6 values of the input 1x2x3x1"},
    ValidateCase{"ResizeZero", resize({0, 3}, {1, 1, 3, 3}), "QuantizedResizeBilinear_8: size must be positive, got 0x3"},
    ValidateCase{"ResizeOneValue", resize({3}, {1, 3, 3, 3}),
                 "QuantizedResizeBilinear_8: input 1 (size) must be an int32 constant of 2 elements"},
    ValidateCase{"SplitPartial", splitInto(5), "QuantizedSplit_8: expects three outputs (value, min, max) per part, got 5"},
    ValidateCase{"FloatReluByteOutput", floatRelu(1),
                 "FloatRelu: output 0 (value) must have element size 4, got 1"}),
    [](const ::testing::TestParamInfo<ValidateCase>& i) { return std::string(i.param.name); });
// clang-format on

}  // namespace
}  // namespace simops
