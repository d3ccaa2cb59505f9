// Node validation: one valid node per family, and refusals made by
// changing one thing, each with its one-line reason.
#include "simops_util.h"

namespace simops {
namespace {

const D4 k1{1, 1, 1, 1};

NodeCheck conv(int32_t padding = ZEL_NN_PAD_SAME) {
    NodeCheck n(ZEL_OP_QuantizedConv2d_8x8to32, padding);
    n.value({1, 4, 4, 3}, 1).bytesOf({3, 3, 3, 4}).scalar(-64).scalar(63.5f).scalar(-32).scalar(31.75f).shape(2, 2);
    return n;
}

NodeCheck depthwise() {
    NodeCheck n(ZEL_OP_QuantizedDepthwiseConv2d_8x8to32, ZEL_NN_PAD_VALID);
    n.value({1, 5, 4, 3}, 1).bytesOf({3, 3, 3, 2}).scalar(0).scalar(1).scalar(0).scalar(1).shape(1, 1);
    return n.quantOut({1, 3, 2, 6}, 4);
}

NodeCheck matmul(D4 weights, D4 out) {
    NodeCheck n(ZEL_OP_QuantizedMatMul_8x8to32);
    n.value({1, 1, 2, 5}, 1).bytesOf(weights).scalar(0).scalar(1).scalar(0).scalar(1);
    return n.quantOut(out, 4);
}

NodeCheck biasAdd(uint32_t biasLength) {
    NodeCheck n(ZEL_OP_QuantizedBiasAdd_32p32to32);
    n.value({1, 2, 2, 4}, 4).int32s({1, 1, 1, biasLength}, std::vector<int32_t>(biasLength, 1));
    n.scalar(-1).scalar(1).scalar(-1).scalar(1);
    return n.quantOut({1, 2, 2, 4}, 4);
}

NodeCheck requantize(uint32_t elementSize, int32_t padding = 0) {
    NodeCheck n(ZEL_OP_Requantize_32to8, padding);
    n.value({1, 2, 2, 4}, 4).scalar(-1).scalar(1).scalar(0).scalar(6);
    return n.quantOut({1, 2, 2, 4}, elementSize);
}

NodeCheck add(D4 b, D4 out) {
    NodeCheck n(ZEL_OP_QuantizedAdd_8p8to32);
    n.value({1, 2, 3, 4}, 1).value(b, 1).scalar(0).scalar(1).scalar(0).scalar(1);
    return n.quantOut(out, 4);
}

NodeCheck activation(int32_t op, int bounds) {
    NodeCheck n(op);
    n.value({1, 2, 2, 1}, 1).value(k1, 4).value(k1, 4);  // range from the node before
    if (bounds >= 1) n.scalar(-1);
    if (bounds >= 2) n.scalar(1);
    return n.quantOut({1, 2, 2, 1}, 1);
}

NodeCheck pool(int32_t op, NodeCheck::Kind window, D4 out) {
    NodeCheck n(op, ZEL_NN_PAD_SAME);
    n.value({1, 4, 4, 1}, 1).scalar(0).scalar(1);
    if (window == NodeCheck::kConst) {
        n.shape(3, 3);
    } else {
        n.value({1, 3, 3, 1}, 4);
    }
    return n.shape(2, 2).quantOut(out, 1);
}

NodeCheck concat(int32_t dim, D4 second, D4 out) {
    NodeCheck n(ZEL_OP_QuantizedConcat_8);
    n.int32s(k1, {dim}).value({1, 1, 2, 2}, 1).value(second, 1).scalar(0).scalar(0).scalar(1).scalar(2);
    return n.quantOut(out, 1);
}

NodeCheck reshape(D4 out) {
    NodeCheck n(ZEL_OP_QuantizedReshape);
    n.value({1, 2, 3, 1}, 1).int32s({1, 1, 1, 2}, {3, 2}).scalar(0).scalar(1);
    return n.quantOut(out, 1);
}

NodeCheck resize(std::vector<int32_t> size, D4 out) {
    NodeCheck n(ZEL_OP_QuantizedResizeBilinear_8);
    n.value({1, 2, 2, 3}, 1).int32s({1, 1, 1, static_cast<uint32_t>(size.size())}, size).scalar(0).scalar(1);
    return n.quantOut(out, 1);
}

NodeCheck prelu() {
    NodeCheck n(ZEL_OP_QuantizedPRelu_8);
    n.value({1, 2, 2, 3}, 1).bytesOf({1, 1, 1, 3}).scalar(-1).scalar(1).scalar(0).scalar(1);
    return n.quantOut({1, 2, 2, 3}, 1);
}

NodeCheck quantize() {
    NodeCheck n(ZEL_OP_Quantize);
    n.value({1, 1, 2, 2}, 4).scalar(-1).scalar(1);
    return n.quantOut({1, 1, 2, 2}, 1);
}

NodeCheck dequantize() {
    NodeCheck n(ZEL_OP_Dequantize);
    return n.value({1, 1, 2, 2}, 1).scalar(-1).scalar(1);
}

NodeCheck split(size_t outputs) {
    NodeCheck n(ZEL_OP_QuantizedSplit_8);
    n.int32s(k1, {3}).value({1, 1, 2, 4}, 1).scalar(0).scalar(1);
    for (size_t i = 0; i < outputs; ++i) n.out(i % 3 == 0 ? D4{1, 1, 2, 2} : k1, i % 3 == 0 ? 1 : 4);
    return n;
}

NodeCheck floatNode(int32_t op, int inputs, uint32_t outSize, int32_t padding = 0) {
    NodeCheck n(op, padding);
    for (int i = 0; i < inputs; ++i) n.value({1, 2, 2, 2}, 4);
    return n.out({1, 2, 2, 2}, outSize);
}

struct ValidateCase {
    const char* name;
    NodeCheck node;
    std::string expected;  // "" = accepted
};
void PrintTo(const ValidateCase& c, std::ostream* os) {
    *os << c.name;
}

class ValidateTest : public ::testing::TestWithParam<ValidateCase> {};

TEST_P(ValidateTest, Reason) {
    EXPECT_EQ(GetParam().node.validate(), GetParam().expected);
}

const char* const kFloatText = " must be a 1x1x1x1 float (a 4-byte constant or a one-element output of element size 4)";

INSTANTIATE_TEST_SUITE_P(
    Conv, ValidateTest,
    ::testing::Values(
        ValidateCase{"Valid", conv().quantOut({1, 2, 2, 4}, 4), ""},
        ValidateCase{"ValidValidPadding", conv(ZEL_NN_PAD_VALID).quantOut({1, 1, 1, 4}, 4), ""},
        ValidateCase{"SixInputs",
                     [] {
                         NodeCheck n(ZEL_OP_QuantizedConv2d_8x8to32, ZEL_NN_PAD_SAME);
                         n.value({1, 4, 4, 3}, 1).bytesOf({3, 3, 3, 4}).scalar(0).scalar(1).scalar(0).scalar(1);
                         return n.quantOut({1, 2, 2, 4}, 4);
                     }(),
                     "QuantizedConv2d_8x8to32: expects 7 inputs, got 6"},
        ValidateCase{"StrideNotHW",
                     [] {
                         NodeCheck n(ZEL_OP_QuantizedConv2d_8x8to32, ZEL_NN_PAD_SAME);
                         n.value({1, 4, 4, 3}, 1).bytesOf({3, 3, 3, 4}).scalar(0).scalar(1).scalar(0).scalar(1);
                         return n.constant({1, 2, 2, 2}, {0, 0, 0, 0}).quantOut({1, 2, 2, 4}, 4);
                     }(),
                     "QuantizedConv2d_8x8to32: input 6 (stride) must be a constant of dims 1xHxWx1, got 1x2x2x2"},
        ValidateCase{"FilterDepth",
                     [] {
                         NodeCheck n(ZEL_OP_QuantizedConv2d_8x8to32, ZEL_NN_PAD_SAME);
                         n.value({1, 4, 4, 3}, 1).bytesOf({3, 3, 2, 4}).scalar(0).scalar(1).scalar(0).scalar(1);
                         return n.shape(2, 2).quantOut({1, 2, 2, 4}, 4);
                     }(),
                     "QuantizedConv2d_8x8to32: filter input depth 2 (filter 3x3x2x4) does not match the input depth "
                     "3 (input 1x4x4x3)"},
        ValidateCase{"FilterShortData",
                     [] {
                         NodeCheck n(ZEL_OP_QuantizedConv2d_8x8to32, ZEL_NN_PAD_SAME);
                         n.value({1, 4, 4, 3}, 1).constant({3, 3, 3, 4}, std::vector<uint8_t>(100));
                         return n.scalar(0).scalar(1).scalar(0).scalar(1).shape(2, 2).quantOut({1, 2, 2, 4}, 4);
                     }(),
                     "QuantizedConv2d_8x8to32: input 1 (filter) must be a constant of 1-byte elements with all its "
                     "data (dims 3x3x3x4, 100 bytes)"},
        ValidateCase{"OutputHeight", conv().quantOut({1, 3, 2, 4}, 4),
                     "QuantizedConv2d_8x8to32: output 0 (value) must be 1x2x2x4 with element size 4, got 1x3x2x4 "
                     "with element size 4"},
        ValidateCase{"OutputElementSize", conv().quantOut({1, 2, 2, 4}, 1),
                     "QuantizedConv2d_8x8to32: output 0 (value) must be 1x2x2x4 with element size 4, got 1x2x2x4 "
                     "with element size 1"},
        ValidateCase{"RangeRecord", conv().quantOut({1, 2, 2, 4}, 4).out(k1, 4),
                     "QuantizedConv2d_8x8to32: expects 3 outputs, got 4"},
        ValidateCase{"NoPadding", conv(ZEL_NN_PAD_NA).quantOut({1, 2, 2, 4}, 4),
                     "QuantizedConv2d_8x8to32: padding must be SAME (1) or VALID (2), got 0"},
        ValidateCase{"ValidTooSmall",
                     [] {
                         NodeCheck n(ZEL_OP_QuantizedConv2d_8x8to32, ZEL_NN_PAD_VALID);
                         n.value({1, 4, 4, 3}, 1).bytesOf({5, 3, 3, 4}).scalar(0).scalar(1).scalar(0).scalar(1);
                         return n.shape(1, 1).quantOut({1, 1, 2, 4}, 4);
                     }(),
                     "QuantizedConv2d_8x8to32: filter height 5 with stride 1 leaves no output for input height 4"},
        ValidateCase{"MinEightBytes",
                     [] {
                         NodeCheck n(ZEL_OP_QuantizedConv2d_8x8to32, ZEL_NN_PAD_SAME);
                         n.value({1, 4, 4, 3}, 1).bytesOf({3, 3, 3, 4}).constant(k1, std::vector<uint8_t>(8));
                         return n.scalar(1).scalar(0).scalar(1).shape(2, 2).quantOut({1, 2, 2, 4}, 4);
                     }(),
                     std::string("QuantizedConv2d_8x8to32: input 2 (input min)") + kFloatText},
        ValidateCase{"InputElementSize",
                     [] {
                         NodeCheck n(ZEL_OP_QuantizedConv2d_8x8to32, ZEL_NN_PAD_SAME);
                         n.value({1, 4, 4, 3}, 4).bytesOf({3, 3, 3, 4}).scalar(0).scalar(1).scalar(0).scalar(1);
                         return n.shape(2, 2).quantOut({1, 2, 2, 4}, 4);
                     }(),
                     "QuantizedConv2d_8x8to32: input 0 (input) must hold elements of 1 byte, got dims 1x4x4x3 with "
                     "element size 4"},
        ValidateCase{"NotConnected",
                     [] {
                         NodeCheck n(ZEL_OP_QuantizedConv2d_8x8to32, ZEL_NN_PAD_SAME);
                         n.none().bytesOf({3, 3, 3, 4}).scalar(0).scalar(1).scalar(0).scalar(1);
                         return n.shape(2, 2).quantOut({1, 2, 2, 4}, 4);
                     }(),
                     "QuantizedConv2d_8x8to32: input 0 (input) is not connected"}),
    [](const ::testing::TestParamInfo<ValidateCase>& i) { return std::string(i.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Accumulate, ValidateTest,
    ::testing::Values(
        ValidateCase{"DepthwiseValid", depthwise(), ""},
        ValidateCase{"MatMulValid", matmul({1, 1, 5, 3}, {1, 1, 2, 3}), ""},
        ValidateCase{"MatMulWeightsDims", matmul({1, 3, 5, 1}, {1, 1, 2, 3}),
                     "QuantizedMatMul_8x8to32: weights must have dims 1x1xDEPTHxUNITS, got 1x3x5x1"},
        ValidateCase{"MatMulOutput", matmul({1, 1, 5, 3}, {1, 1, 2, 4}),
                     "QuantizedMatMul_8x8to32: output 1x1x2x4 must hold 2 rows of 3 units"},
        ValidateCase{"BiasAddValid", biasAdd(4), ""},
        ValidateCase{"BiasAddLength", biasAdd(3),
                     "QuantizedBiasAdd_32p32to32: bias holds 3 values, the accumulator depth is 4"},
        ValidateCase{"RequantizeValid", requantize(1), ""},
        ValidateCase{"RequantizeWide", requantize(4),
                     "Requantize_32to8: output 0 (value) must be 1x2x2x4 with element size 1, got 1x2x2x4 with "
                     "element size 4"},
        ValidateCase{"RequantizePadding", requantize(1, ZEL_NN_PAD_SAME), "Requantize_32to8: padding must be 0, got 1"},
        ValidateCase{"AddBroadcast", add({1, 1, 1, 4}, {1, 2, 3, 4}), ""},
        ValidateCase{"AddNoBroadcast", add({1, 1, 1, 3}, {1, 2, 3, 4}),
                     "QuantizedAdd_8p8to32: inputs 1x2x3x4 and 1x1x1x3 do not broadcast"},
        ValidateCase{"AddOutputDims", add({1, 2, 1, 1}, {1, 2, 1, 4}),
                     "QuantizedAdd_8p8to32: output 0 (value) must be 1x2x3x4 with element size 4, got 1x2x1x4 with "
                     "element size 4"}),
    [](const ::testing::TestParamInfo<ValidateCase>& i) { return std::string(i.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Bytes, ValidateTest,
    ::testing::Values(
        ValidateCase{"ReluValid", activation(ZEL_OP_QuantizedRelu_8, 0), ""},
        ValidateCase{"ReluXValid", activation(ZEL_OP_QuantizedReluX_8, 1), ""},
        ValidateCase{"ReluXWithoutBound", activation(ZEL_OP_QuantizedReluX_8, 0),
                     "QuantizedReluX_8: expects 4 inputs, got 3"},
        ValidateCase{"ClampValid", activation(ZEL_OP_QuantizedClamp_8, 2), ""},
        ValidateCase{"AvgPoolValid", pool(ZEL_OP_QuantizedAvgPool_8, NodeCheck::kConst, {1, 2, 2, 1}), ""},
        ValidateCase{"MaxPoolWindowRecord", pool(ZEL_OP_QuantizedMaxPool_8, NodeCheck::kRecord, {1, 2, 2, 1}),
                     "QuantizedMaxPool_8: input 3 (window) must be a constant of dims 1xHxWx1, got 1x3x3x1"},
        ValidateCase{"MaxPoolOutput", pool(ZEL_OP_QuantizedMaxPool_8, NodeCheck::kConst, {1, 3, 3, 1}),
                     "QuantizedMaxPool_8: output 0 (value) must be 1x2x2x1 with element size 1, got 1x3x3x1 with "
                     "element size 1"},
        ValidateCase{"ConcatValid", concat(3, {1, 1, 2, 3}, {1, 1, 2, 5}), ""},
        ValidateCase{"ConcatDim", concat(4, {1, 1, 2, 3}, {1, 1, 2, 5}),
                     "QuantizedConcat_8: dim must be 0 to 3, got 4"},
        ValidateCase{"ConcatMismatch", concat(3, {1, 1, 3, 2}, {1, 1, 2, 4}),
                     "QuantizedConcat_8: value 1 (1x1x3x2) does not match value 0 (1x1x2x2) outside dim 3"},
        ValidateCase{"ConcatCount", concat(3, {1, 1, 2, 3}, {1, 1, 2, 5}).scalar(0).scalar(1),
                     "QuantizedConcat_8: expects 1 + 3N inputs (dim, N values, N mins, N maxes), got 9"},
        ValidateCase{"ReshapeValid", reshape({1, 1, 3, 2}), ""},
        ValidateCase{"ReshapeCount", reshape({1, 1, 1, 5}),
                     "QuantizedReshape: output 0 (value) 1x1x1x5 does not hold the 6 values of the input 1x2x3x1"},
        ValidateCase{"ResizeValid", resize({3, 5}, {1, 3, 5, 3}), ""},
        ValidateCase{"ResizeZero", resize({0, 3}, {1, 1, 3, 3}),
                     "QuantizedResizeBilinear_8: size must be positive, got 0x3"},
        ValidateCase{"ResizeOneValue", resize({3}, {1, 3, 3, 3}),
                     "QuantizedResizeBilinear_8: input 1 (size) must be an int32 constant of 2 elements"},
        ValidateCase{"PReluValid", prelu(), ""}, ValidateCase{"QuantizeValid", quantize(), ""},
        ValidateCase{"DequantizeValid", dequantize().out({1, 1, 2, 2}, 4), ""},
        ValidateCase{"DequantizeThreeOutputs", dequantize().quantOut({1, 1, 2, 2}, 4),
                     "Dequantize: expects 1 output, got 3"}),
    [](const ::testing::TestParamInfo<ValidateCase>& i) { return std::string(i.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Structural, ValidateTest,
    ::testing::Values(ValidateCase{"InputWithOutputs", NodeCheck(ZEL_OP_INPUT).out({1, 2, 2, 1}, 1).out(k1, 4), ""},
                      ValidateCase{"InputWithInput", NodeCheck(ZEL_OP_INPUT).value(k1, 1),
                                   "INPUT: expects 0 inputs, got 1"},
                      ValidateCase{"OutputWithInputs", NodeCheck(ZEL_OP_OUTPUT).value(k1, 1).value(k1, 4), ""},
                      ValidateCase{"OutputWithOutput", NodeCheck(ZEL_OP_OUTPUT).value(k1, 1).out(k1, 1),
                                   "OUTPUT: expects 0 outputs, got 1"},
                      ValidateCase{"SplitValid", split(6), ""},
                      ValidateCase{"SplitPartial", split(5),
                                   "QuantizedSplit_8: expects three outputs (value, min, max) per part, got 5"},
                      ValidateCase{"FloatConvValid", floatNode(ZEL_OP_FloatConv2d, 3, 4, ZEL_NN_PAD_SAME), ""},
                      ValidateCase{"FloatConvCount", floatNode(ZEL_OP_FloatConv2d, 2, 4, ZEL_NN_PAD_SAME),
                                   "FloatConv2d: expects 3 inputs, got 2"},
                      ValidateCase{"FloatConcatMany", floatNode(ZEL_OP_FloatConcat, 4, 4), ""},
                      ValidateCase{"FloatReluByteOutput", floatNode(ZEL_OP_FloatRelu, 1, 1),
                                   "FloatRelu: output 0 (value) must have element size 4, got 1"}),
    [](const ::testing::TestParamInfo<ValidateCase>& i) { return std::string(i.param.name); });

// Every node code of the contract has an entry; the simulator computes
// exactly the 8-bit nodes the plug-in emits.
TEST(OpTable, CoversTheContract) {
    const int32_t computed[] = {15, 156, 17, 176, 70, 113, 125, 21, 23, 167, 25, 27, 31, 60, 141, 353, 39, 41};
    const int32_t checkedOnly[] = {0,  1,  115, 119, 134, 208, 209, 212, 220, 274, 47, 158, 48,  58,  66,  75,  67,
                                   51, 52, 53,  54,  56,  62,  61,  49,  169, 50,  46, 59,  131, 244, 135, 133, 132};
    for (int32_t op : computed) {
        const OpSpec* s = zelsim::findOp(op);
        ASSERT_NE(s, nullptr) << op;
        EXPECT_NE(s->validate, nullptr) << op;
        EXPECT_NE(s->execute, nullptr) << op;
    }
    for (int32_t op : checkedOnly) {
        const OpSpec* s = zelsim::findOp(op);
        ASSERT_NE(s, nullptr) << op;
        EXPECT_NE(s->validate, nullptr) << op;
        EXPECT_EQ(s->execute, nullptr) << op;
    }
    EXPECT_EQ(zelsim::findOp(ZEL_OP_Nop), nullptr);
    EXPECT_EQ(zelsim::findOp(ZEL_OP_QuantizedActivation89), nullptr);
    EXPECT_EQ(zelsim::findOp(-1), nullptr);
}

}  // namespace
}  // namespace simops
