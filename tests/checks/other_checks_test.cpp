// The checks outside the support table (quant8) and the float32 family,
// called directly: one passing case and one case per message each. Where
// both families share a rule, the same table runs over both.
#include <gtest/gtest.h>

#include <map>

#include "check_graph.h"
#include "zel_operations_check_float32.h"

namespace checktest {
namespace {

namespace q8 = arv::nnhal::zel::quant8_asym_check;
namespace f32 = arv::nnhal::zel::float32_check;
using OT = OperationType;
using CheckPtr = bool (*)(const std::vector<uint32_t>&, const std::vector<uint32_t>&, ZelModel*);

struct Family {
    const char* name;
    OperandType tensorType;
    const char* source;
    std::map<std::string, CheckPtr> checks;
};

const Family& quant8Family() {
    static const Family family{"Quant8",
                               OperandType::TENSOR_QUANT8,
                               "src/zel_operations_check_quant8.cpp::",
                               {{"mul", q8::mul},
                                {"l2_pool_2d", q8::l2_pool_2d},
                                {"logistic", q8::logistic},
                                {"softmax", q8::softmax},
                                {"tanh", q8::tanh},
                                {"dequantize", q8::dequantize},
                                {"local_response_normalization", q8::local_response_normalization},
                                {"squeeze", q8::squeeze},
                                {"pad", q8::pad},
                                {"transposeCheck", q8::transposeCheck},
                                {"space_to_depth", q8::space_to_depth},
                                {"batch_to_space_nd", q8::batch_to_space_nd},
                                {"space_to_batch_nd", q8::space_to_batch_nd},
                                {"oemLstmCheck", q8::oemLstmCheck},
                                {"oemSplitCheck", q8::oemSplitCheck}}};
    return family;
}

const Family& float32Family() {
    static const Family family{"Float32",
                               OperandType::TENSOR_FP32,
                               "src/zel_operations_check_float32.cpp::",
                               {{"mul", f32::mul},
                                {"l2_pool_2d", f32::l2_pool_2d},
                                {"logistic", f32::logistic},
                                {"softmax", f32::softmax},
                                {"tanh", f32::tanh},
                                {"dequantize", f32::dequantize},
                                {"local_response_normalization", f32::local_response_normalization},
                                {"squeeze", f32::squeeze},
                                {"pad", f32::pad},
                                {"transposeCheck", f32::transposeCheck},
                                {"space_to_depth", f32::space_to_depth},
                                {"batch_to_space_nd", f32::batch_to_space_nd},
                                {"space_to_batch_nd", f32::space_to_batch_nd},
                                {"oemLstmCheck", f32::oemLstmCheck},
                                {"oemSplitCheck", f32::oemSplitCheck},
                                // The registered names, for the float canonical forms.
                                {"CONV_2D", f32::conv_2d},
                                {"DEPTHWISE_CONV_2D", f32::depthwise_conv_2d},
                                {"FULLY_CONNECTED", f32::fully_connected},
                                {"ADD", f32::add},
                                {"SUB", f32::sub},
                                {"AVERAGE_POOL_2D", f32::average_pool_2d},
                                {"MAX_POOL_2D", f32::max_pool_2d},
                                {"RELU", f32::relu},
                                {"RELU1", f32::relu1},
                                {"RELU6", f32::relu6},
                                {"CONCATENATION", f32::concatenation},
                                {"RESHAPE", f32::reshape},
                                {"RESIZE_BILINEAR", f32::resize_bilinear}}};
    return family;
}

// ---------------------------------------------------------------------------
// Graph builders of the unregistered operations.

uint32_t retype(OpGraph& g, uint32_t operand, OperandType type) {
    g.graph.operand(operand).mType = type;
    return operand;
}

void dequantizeOp(OpGraph& g) {
    g.ins = {retype(g, g.tensorInput({1, 2, 2, 3}), OperandType::TENSOR_QUANT8)};
    g.outs = {retype(g, g.tensorOutput({0, 0, 0, 0}), OperandType::TENSOR_FP32)};
}
void lrnOp(OpGraph& g) {
    g.ins = {g.tensorInput({1, 2, 2, 3}), g.scalar(1), g.scalar(1), g.scalar(1), g.scalar(1)};
    g.outs = {g.tensorOutput({0, 0, 0, 0})};
}
void squeezeOp(OpGraph& g) {
    g.ins = {g.tensorInput({1, 2, 1, 3}), g.int32Tensor({1}, {2})};
    g.outs = {g.tensorOutput({0, 0, 0})};
}
void padOp(OpGraph& g) {
    g.ins = {g.tensorInput({1, 2, 2, 3}), g.int32Tensor({4, 2}, {0, 0, 1, 1, 2, 2, 0, 0})};
    g.outs = {g.tensorOutput({1, 4, 6, 3})};
}
void transposeOp(OpGraph& g) {
    g.ins = {g.tensorInput({1, 2, 3, 4}), g.int32Tensor({4}, {0, 2, 1, 3})};
    g.outs = {g.tensorOutput({1, 3, 2, 4})};
}
void spaceToDepthOp(OpGraph& g) {
    g.ins = {g.tensorInput({1, 4, 4, 2}), g.scalar(2)};
    g.outs = {g.tensorOutput({0, 0, 0, 0})};
}
void batchToSpaceOp(OpGraph& g) {
    g.ins = {g.tensorInput({4, 2, 2, 3}), g.int32Tensor({2}, {2, 2})};
    g.outs = {g.tensorOutput({0, 0, 0, 0})};
}
void spaceToBatchOp(OpGraph& g) {
    g.ins = {g.tensorInput({1, 4, 4, 3}), g.int32Tensor({2}, {2, 2}), g.int32Tensor({2, 2}, {0, 0, 0, 0})};
    g.outs = {g.tensorOutput({0, 0, 0, 0})};
}
void oemLstmOp(OpGraph& g) {
    g.ins = {g.tensorInput({1, 8}),
             g.tensorInput({1, 4}),
             g.tensorInput({1, 4}),
             g.tensorConstant({16, 12}),
             g.int32Tensor({16}, std::vector<int32_t>(16, 0)),
             g.tensorInput({1, 8})};
    g.outs = {g.tensorOutput({1, 4}), g.tensorOutput({1, 8}), g.tensorOutput({1, 4}), g.tensorOutput({1, 8})};
}
void oemSplitOp(OpGraph& g) {
    g.ins = {g.scalar(3), g.tensorInput({1, 1, 1, 4}), g.scalar(2), g.scalar(0)};
    g.outs = {g.tensorOutput({1, 1, 1, 2}), g.tensorOutput({1, 1, 1, 2})};
}

struct Case {
    std::string name;
    std::string check;
    OT type;  // for the canonical builders
    std::function<void(OpGraph&)> build;
    std::function<void(OpGraph&)> mutate;  // null: the passing case
    std::vector<std::string> errors;       // empty: passes
    std::vector<uint32_t> dims = {};       // stored output dims when it passes (empty: not checked)
};

void PrintTo(const Case& c, std::ostream* os) {
    *os << c.name;
}

void canon(OpGraph& g) {
    canonical(g);
}
void oneMoreInput(OpGraph& g) {
    g.ins.push_back(g.scalar(0));
}
void oneLessInput(OpGraph& g) {
    g.ins.pop_back();
}
void oneMoreOutput(OpGraph& g) {
    g.outs.push_back(g.tensorOutput({0, 0, 0, 0}));
}
std::function<void(OpGraph&)> dims(size_t in, std::vector<uint32_t> d) {
    return [in, d](OpGraph& g) { g.setDims(g.ins[in], d); };
}
std::function<void(OpGraph&)> outDims(std::vector<uint32_t> d) {
    return [d](OpGraph& g) { g.setDims(g.outs[0], d); };
}
std::function<void(OpGraph&)> values(size_t in, std::vector<int32_t> v) {
    return [in, v](OpGraph& g) { g.setInt32s(g.ins[in], v); };
}
std::function<void(OpGraph&)> shapeAndValues(size_t in, std::vector<uint32_t> d, std::vector<int32_t> v) {
    return [in, d, v](OpGraph& g) {
        g.setDims(g.ins[in], d);
        g.setInt32s(g.ins[in], v);
    };
}
std::function<void(OpGraph&)> notConstant(size_t in) {
    return [in](OpGraph& g) { g.makeGraphInput(g.ins[in]); };
}

const std::string kShape = "Error getting shape";

// Cases whose rules and messages the two families share.
std::vector<Case> sharedCases() {
    return {
        {"MulPasses", "mul", OT::MUL, canon, nullptr, {}, {1, 2, 2, 3}},
        {"Mul2Inputs", "mul", OT::MUL, canon, oneLessInput, {"failed 3 == ins.size() (3 == 2): Need 3 inputs for MUL"}},
        {"L2PoolPasses", "l2_pool_2d", OT::L2_POOL_2D, canon, nullptr, {}, {1, 4, 4, 3}},
        {"L2Pool8Inputs", "l2_pool_2d", OT::L2_POOL_2D, canon, oneMoreInput, {"Need 7 or 10 inputs for L2_POOL_2D"}},
        {"L2PoolPaddingCode9",
         "l2_pool_2d",
         OT::L2_POOL_2D,
         canon,
         [](OpGraph& g) { g.setScalar(g.ins[1], 9); },
         {"failed pad != ZEL_NN_PAD_NA (0 != 0): Unknown padding"}},
        {"LogisticPasses", "logistic", OT::LOGISTIC, canon, nullptr, {}, {1, 2, 2, 3}},
        {"Logistic2Inputs",
         "logistic",
         OT::LOGISTIC,
         canon,
         oneMoreInput,
         {"failed numInputs == ins.size() (1 == 2): Need 1 input for LOGISTIC"}},
        {"SoftmaxPasses", "softmax", OT::SOFTMAX, canon, nullptr, {}, {1, 2, 2, 3}},
        {"Softmax1Input",
         "softmax",
         OT::SOFTMAX,
         canon,
         oneLessInput,
         {"failed numInputs == ins.size() (2 == 1): Need 2 input for SOFTMAX"}},
        {"Tanh2Outputs",
         "tanh",
         OT::TANH,
         canon,
         oneMoreOutput,
         {"failed 1 == outs.size() (1 == 2): Need 1 output for TANH"}},
        {"DequantizePasses", "dequantize", OT::DEQUANTIZE, dequantizeOp, nullptr, {}, {1, 2, 2, 3}},
        {"Dequantize2Inputs",
         "dequantize",
         OT::DEQUANTIZE,
         dequantizeOp,
         oneMoreInput,
         {"failed 1 == ins.size() (1 == 2): Need 1 input for DEQUANTIZE"}},
        {"Dequantize2Outputs",
         "dequantize",
         OT::DEQUANTIZE,
         dequantizeOp,
         oneMoreOutput,
         {"failed 1 == outs.size() (1 == 2): Need 1 output for DEQUANTIZE"}},
        {"DequantizeToQuant8",
         "dequantize",
         OT::DEQUANTIZE,
         dequantizeOp,
         [](OpGraph& g) { retype(g, g.outs[0], OperandType::TENSOR_QUANT8); },
         {"bad input / output operand type.", kShape}},
        {"LrnPasses",
         "local_response_normalization",
         OT::LOCAL_RESPONSE_NORMALIZATION,
         lrnOp,
         nullptr,
         {},
         {1, 2, 2, 3}},
        {"Lrn4Inputs",
         "local_response_normalization",
         OT::LOCAL_RESPONSE_NORMALIZATION,
         lrnOp,
         oneLessInput,
         {"failed 5 == ins.size() (5 == 4): Need 5 inputs for LOCAL_RESPONSE_NORMALIZATION"}},
        {"LrnRank3",
         "local_response_normalization",
         OT::LOCAL_RESPONSE_NORMALIZATION,
         lrnOp,
         dims(0, {2, 2, 3}),
         {"NN_CHECK failed: getNumberOfDimensions(input) == 4", kShape}},
        // SQUEEZE.
        {"SqueezePasses", "squeeze", OT::SQUEEZE, squeezeOp, nullptr, {}, {1, 2, 3}},
        {"SqueezeNegativeIndexPasses", "squeeze", OT::SQUEEZE, squeezeOp, values(1, {-2}), {}, {1, 2, 3}},
        {"SqueezeAllOnes",
         "squeeze",
         OT::SQUEEZE,
         squeezeOp,
         [](OpGraph& g) {
             oneLessInput(g);
             g.setDims(g.outs[0], {0, 0});
         },
         {},
         {2, 3}},
        {"Squeeze3Inputs",
         "squeeze",
         OT::SQUEEZE,
         squeezeOp,
         oneMoreInput,
         {"Need 1 or 2 inputs for operation SQUEEZE"}},
        {"Squeeze2Outputs",
         "squeeze",
         OT::SQUEEZE,
         squeezeOp,
         oneMoreOutput,
         {"failed 1 == outs.size() (1 == 2): Need 1 output for SQUEEZE"}},
        {"SqueezeRank5",
         "squeeze",
         OT::SQUEEZE,
         squeezeOp,
         dims(0, {1, 2, 1, 3, 1}),
         {"Input operand rank must be at most 4D"}},
        {"SqueezeIndexRank2",
         "squeeze",
         OT::SQUEEZE,
         squeezeOp,
         dims(1, {1, 1}),
         {"Invalid squeeze index tensor rank. Expected rank 1 but got 2"}},
        {"SqueezeTooManyIndexes",
         "squeeze",
         OT::SQUEEZE,
         squeezeOp,
         shapeAndValues(1, {5}, {0, 0, 0, 0, 0}),
         {"Invalid squeeze tensor input. Size larger than input size"}},
        {"SqueezeDimensionOf2",
         "squeeze",
         OT::SQUEEZE,
         squeezeOp,
         values(1, {1}),
         {"Attempt to squeeze non squeezable dimension: 1"}},
        {"SqueezeIndexOutOfRange",
         "squeeze",
         OT::SQUEEZE,
         squeezeOp,
         values(1, {4}),
         {"Attempt to squeeze non squeezable dimension: 4"}},
        // PAD.
        {"PadPasses", "pad", OT::PAD, padOp, nullptr, {}, {1, 4, 6, 3}},
        {"PadUnknownOutputPasses", "pad", OT::PAD, padOp, outDims({0, 0, 0, 0}), {}, {1, 4, 6, 3}},
        {"Pad1Input", "pad", OT::PAD, padOp, oneLessInput, {"failed 2 == ins.size() (2 == 1): Need 2 inputs for PAD"}},
        {"Pad2Outputs",
         "pad",
         OT::PAD,
         padOp,
         oneMoreOutput,
         {"failed 1 == outs.size() (1 == 2): Need 1 output for PAD"}},
        {"PadRank5", "pad", OT::PAD, padOp, dims(0, {1, 1, 2, 2, 3}), {"PAD operation requires input of rank <= 4."}},
        {"PadPaddingsShape",
         "pad",
         OT::PAD,
         padOp,
         dims(1, {3, 2}),
         {"PAD operation requires padding input of shape (4,2)"}},
        {"PadOutputRank", "pad", OT::PAD, padOp, outDims({1, 4, 6}), {"PAD Input and output ranks miss match."}},
        {"PadOutputDimension",
         "pad",
         OT::PAD,
         padOp,
         outDims({1, 4, 5, 3}),
         {"PAD Output shape at dimension (2) miss match! Expected 6, actual 5"}},
        {"PadNegative",
         "pad",
         OT::PAD,
         padOp,
         values(1, {0, 0, -1, 1, 2, 2, 0, 0}),
         {"NN_CHECK failed: beforePadding >= 0 && afterPadding >= 0", kShape}},
        {"PadPaddingsWithoutData",
         "pad",
         OT::PAD,
         padOp,
         notConstant(1),
         {"PAD requires operand 1 to hold 8 int32 values of constant data (0 bytes)"}},
        // TRANSPOSE.
        {"TransposePasses", "transposeCheck", OT::TRANSPOSE, transposeOp, nullptr, {}, {1, 3, 2, 4}},
        {"Transpose1Input",
         "transposeCheck",
         OT::TRANSPOSE,
         transposeOp,
         oneLessInput,
         {"failed 2 == ins.size() (2 == 1): Need 2 inputs for TRANSPOSE"}},
        {"Transpose2Outputs",
         "transposeCheck",
         OT::TRANSPOSE,
         transposeOp,
         oneMoreOutput,
         {"failed 1 == outs.size() (1 == 2): Need 1 output for TRANSPOSE"}},
        {"TransposeIndexesRank2",
         "transposeCheck",
         OT::TRANSPOSE,
         transposeOp,
         dims(1, {2, 2}),
         {"Transpose tensor must be 1D!"}},
        {"TransposeIndexesTooFew",
         "transposeCheck",
         OT::TRANSPOSE,
         transposeOp,
         shapeAndValues(1, {3}, {0, 2, 1}),
         {"Transpose tensor must define index for every input dimension."}},
        {"TransposeOutputRank",
         "transposeCheck",
         OT::TRANSPOSE,
         transposeOp,
         outDims({1, 3, 2}),
         {"Input and output tensors rank must match."}},
        {"TransposeOutputDimension",
         "transposeCheck",
         OT::TRANSPOSE,
         transposeOp,
         outDims({1, 2, 3, 4}),
         {"Output dimension at index 1does not match input dimension 2"}},
        {"TransposeIndexOutOfRange",
         "transposeCheck",
         OT::TRANSPOSE,
         transposeOp,
         values(1, {0, 2, 1, 4}),
         {"NN_CHECK failed: permData[idx] >= 0 && permData[idx] < static_cast<int32_t>(numInputDims)", kShape}},
        // SPACE_TO_DEPTH.
        {"SpaceToDepthPasses", "space_to_depth", OT::SPACE_TO_DEPTH, spaceToDepthOp, nullptr, {}, {1, 2, 2, 8}},
        {"SpaceToDepth3Inputs",
         "space_to_depth",
         OT::SPACE_TO_DEPTH,
         spaceToDepthOp,
         oneMoreInput,
         {"failed 2 == ins.size() (2 == 3): Need 2 inputs for SPACE_TO_DEPTH"}},
        {"SpaceToDepth2Outputs",
         "space_to_depth",
         OT::SPACE_TO_DEPTH,
         spaceToDepthOp,
         oneMoreOutput,
         {"failed 1 == outs.size() (1 == 2): Need 1 output for SPACE_TO_DEPTH"}},
        {"SpaceToDepthBlock3",
         "space_to_depth",
         OT::SPACE_TO_DEPTH,
         spaceToDepthOp,
         [](OpGraph& g) { g.setScalar(g.ins[1], 3); },
         {"NN_CHECK failed: height % blockSize == 0", kShape}},
        // BATCH_TO_SPACE_ND.
        {"BatchToSpacePasses", "batch_to_space_nd", OT::BATCH_TO_SPACE_ND, batchToSpaceOp, nullptr, {}, {1, 4, 4, 3}},
        {"BatchToSpace3Inputs",
         "batch_to_space_nd",
         OT::BATCH_TO_SPACE_ND,
         batchToSpaceOp,
         oneMoreInput,
         {"BATCH_TO_SPACE_ND operation requires 2 input operand(s)!"}},
        {"BatchToSpace2Outputs",
         "batch_to_space_nd",
         OT::BATCH_TO_SPACE_ND,
         batchToSpaceOp,
         oneMoreOutput,
         {"BATCH_TO_SPACE_ND operation requires 1 output operand(s)!"}},
        {"BatchToSpaceRank3",
         "batch_to_space_nd",
         OT::BATCH_TO_SPACE_ND,
         batchToSpaceOp,
         dims(0, {4, 2, 2}),
         {"BATCH_TO_SPACE_ND operation requires input of rank = 4."}},
        {"BatchToSpaceBlockShape",
         "batch_to_space_nd",
         OT::BATCH_TO_SPACE_ND,
         batchToSpaceOp,
         shapeAndValues(1, {3}, {2, 2, 1}),
         {"BATCH_TO_SPACE_ND operation requires blocksize input of shape (2)"}},
        {"BatchToSpaceBlockZero",
         "batch_to_space_nd",
         OT::BATCH_TO_SPACE_ND,
         batchToSpaceOp,
         values(1, {0, 2}),
         {"BATCH_TO_SPACE_ND operation requires block sizes of at least 1, got 0 and 2"}},
        {"BatchToSpaceBatchesNotDivisible",
         "batch_to_space_nd",
         OT::BATCH_TO_SPACE_ND,
         batchToSpaceOp,
         values(1, {3, 1}),
         {"NN_CHECK failed: batches % (blockSizeData[0] * blockSizeData[1]) == 0", kShape}},
        // SPACE_TO_BATCH_ND.
        {"SpaceToBatchPasses", "space_to_batch_nd", OT::SPACE_TO_BATCH_ND, spaceToBatchOp, nullptr, {}, {4, 2, 2, 3}},
        {"SpaceToBatch2Inputs",
         "space_to_batch_nd",
         OT::SPACE_TO_BATCH_ND,
         spaceToBatchOp,
         oneLessInput,
         {"SPACE_TO_BATCH_ND operation requires 3 input operand(s)!"}},
        {"SpaceToBatch0Outputs",
         "space_to_batch_nd",
         OT::SPACE_TO_BATCH_ND,
         spaceToBatchOp,
         [](OpGraph& g) { g.outs.clear(); },
         {"SPACE_TO_BATCH_ND operation requires 1 output operand(s)!"}},
        {"SpaceToBatchRank3",
         "space_to_batch_nd",
         OT::SPACE_TO_BATCH_ND,
         spaceToBatchOp,
         dims(0, {4, 4, 3}),
         {"SPACE_TO_BATCH_ND operation requires input of rank = 4."}},
        {"SpaceToBatchBlockShape",
         "space_to_batch_nd",
         OT::SPACE_TO_BATCH_ND,
         spaceToBatchOp,
         shapeAndValues(1, {1}, {2}),
         {"SPACE_TO_BATCH_ND operation requires blocksize input of shape (2)"}},
        {"SpaceToBatchPaddingShape",
         "space_to_batch_nd",
         OT::SPACE_TO_BATCH_ND,
         spaceToBatchOp,
         dims(2, {2, 1}),
         {"SPACE_TO_BATCH_ND operation requires padding input of shape (2,2)"}},
        {"SpaceToBatchHeightNotDivisible",
         "space_to_batch_nd",
         OT::SPACE_TO_BATCH_ND,
         spaceToBatchOp,
         values(1, {3, 2}),
         {"NN_CHECK failed: paddedHeight % blockSizeData[0] == 0", kShape}},
        // Vendor operations.
        {"OemLstmPasses", "oemLstmCheck", OT::OEM_LSTM, oemLstmOp, nullptr, {}, {}},
        {"OemLstm5Inputs",
         "oemLstmCheck",
         OT::OEM_LSTM,
         oemLstmOp,
         oneLessInput,
         {"failed 6 == ins.size() (6 == 5): Need 6 inputs for OEM LSTM"}},
        {"OemLstm3Outputs",
         "oemLstmCheck",
         OT::OEM_LSTM,
         oemLstmOp,
         [](OpGraph& g) { g.outs.pop_back(); },
         {"failed 4 == outs.size() (4 == 3): Need 4 outputs for OEM LSTM"}},
        {"OemLstmWeightNotConstant",
         "oemLstmCheck",
         OT::OEM_LSTM,
         oemLstmOp,
         notConstant(3),
         {"OEM LSTM requires weight to be constant data"}},
        {"OemLstmBiasNotConstant",
         "oemLstmCheck",
         OT::OEM_LSTM,
         oemLstmOp,
         notConstant(4),
         {"OEM LSTM requires bias to be constant data"}},
        {"OemSplitPasses", "oemSplitCheck", OT::OEM_SPLIT, oemSplitOp, nullptr, {}, {}},
        {"OemSplit3Inputs",
         "oemSplitCheck",
         OT::OEM_SPLIT,
         oemSplitOp,
         oneLessInput,
         {"failed 4 == ins.size() (4 == 3): Need 4 inputs for OEM Split"}},
        {"OemSplitPartsDiffer",
         "oemSplitCheck",
         OT::OEM_SPLIT,
         oemSplitOp,
         [](OpGraph& g) { g.setScalar(g.ins[2], 3); },
         {"failed (size_t)model->getScalar<int32_t>(ins[2]) == outs.size() (3 == 2): Number of outputs is incorrect"}},
    };
}

// Runs one case against one family's check.
void runCase(const Family& family, const Case& c, OperandType tensorType) {
    OpGraph g(c.type, tensorType);
    c.build(g);
    if (c.mutate) c.mutate(g);
    ASSERT_NE(g.model(), nullptr);
    const auto check = family.checks.find(c.check);
    ASSERT_NE(check, family.checks.end()) << c.check;
    zeltest::LogCapture log;

    EXPECT_EQ(c.errors.empty(), check->second(g.ins, g.outs, g.model()));
    EXPECT_EQ(c.errors, errorTexts(log));
    if (!c.errors.empty()) {
        EXPECT_EQ(0u, log.errors().back().rfind(family.source, 0)) << log.errors().back();
    } else if (!c.dims.empty()) {
        EXPECT_EQ(c.dims, g.dims(g.outs[0]));
    }
}

class SharedRules : public testing::TestWithParam<std::tuple<const Family*, Case>> {};

TEST_P(SharedRules, PassOrRefuseWithTheLine) {
    const Family& family = *std::get<0>(GetParam());
    runCase(family, std::get<1>(GetParam()), family.tensorType);
}

INSTANTIATE_TEST_SUITE_P(Checks, SharedRules,
                         testing::Combine(testing::Values(&quant8Family(), &float32Family()),
                                          testing::ValuesIn(sharedCases())),
                         [](const testing::TestParamInfo<std::tuple<const Family*, Case>>& info) {
                             return std::string(std::get<0>(info.param)->name) + "_" + std::get<1>(info.param).name;
                         });

// ---------------------------------------------------------------------------
// Float32 only: the registered operations in canonical form, and the rules
// in which the family differs from quant8.

std::vector<Case> float32Cases() {
    std::vector<Case> cases;
    const Form forms[] = {Form::ImplicitSame, Form::ImplicitValid, Form::ExplicitSame, Form::ExplicitValid};
    for (OT type : {OT::CONV_2D, OT::DEPTHWISE_CONV_2D, OT::AVERAGE_POOL_2D, OT::MAX_POOL_2D}) {
        for (Form form : forms) {
            OpGraph probe(type, OperandType::TENSOR_FP32);
            const auto expected = canonical(probe, form);
            const std::string name = arv::nnhal::zel::toString(type);
            cases.push_back(
                {name + formName(form), name, type, [form](OpGraph& g) { canonical(g, form); }, nullptr, {}, expected});
        }
    }
    for (OT type : {OT::FULLY_CONNECTED, OT::ADD, OT::SUB, OT::RELU, OT::RELU1, OT::RELU6, OT::CONCATENATION,
                    OT::RESHAPE, OT::RESIZE_BILINEAR}) {
        OpGraph probe(type, OperandType::TENSOR_FP32);
        const std::string name = arv::nnhal::zel::toString(type);
        cases.push_back({name, name, type, canon, nullptr, {}, canonical(probe)});
    }
    const std::vector<Case> differences = {
        {"ConvAnyActivation",
         "CONV_2D",
         OT::CONV_2D,
         [](OpGraph& g) { conv2d(g, Form::ImplicitSame, 49); },
         nullptr,
         {},
         {1, 4, 4, 4}},
        {"FullyConnectedAnyActivation",
         "FULLY_CONNECTED",
         OT::FULLY_CONNECTED,
         [](OpGraph& g) { fullyConnected(g, 1000); },
         nullptr,
         {},
         {2, 3}},
        {"ConcatenationAxis1",
         "CONCATENATION",
         OT::CONCATENATION,
         [](OpGraph& g) { concatenation(g, 1); },
         nullptr,
         {},
         {1, 7, 2, 3}},
        {"ConcatenationAxis4",
         "CONCATENATION",
         OT::CONCATENATION,
         [](OpGraph& g) { concatenation(g, 4); },
         nullptr,
         {"NN_CHECK failed: axis < (int32_t)num_dimensions", kShape}},
        {"TransposeIndexesFedAtRunTime",
         "transposeCheck",
         OT::TRANSPOSE,
         transposeOp,
         notConstant(1),
         {},
         {1, 3, 2, 4}},
        {"Conv8Inputs", "CONV_2D", OT::CONV_2D, canon, oneMoreInput, {"Need 7 or 10 inputs for CONV_2D"}},
        {"ConvUnknownPadding",
         "CONV_2D",
         OT::CONV_2D,
         canon,
         [](OpGraph& g) { g.setScalar(g.ins[3], 3); },
         {"failed pad != ZEL_NN_PAD_NA (0 != 0): Unknown padding"}},
        {"ConvFilterNotConstant",
         "CONV_2D",
         OT::CONV_2D,
         canon,
         notConstant(1),
         {"CONV_2D requires filter to be constant data"}},
        {"Depthwise10Inputs",
         "DEPTHWISE_CONV_2D",
         OT::DEPTHWISE_CONV_2D,
         canon,
         [](OpGraph& g) {
             g.ins.insert(g.ins.end(), {g.scalar(0), g.scalar(0)});
         },
         {"Need 8 or 11 inputs for DEPTHWISE_CONV_2D"}},
        {"DepthwiseFilterNotConstant",
         "DEPTHWISE_CONV_2D",
         OT::DEPTHWISE_CONV_2D,
         canon,
         notConstant(1),
         {"DEPTHWISE_CONV_2D requires filter to be constant data"}},
        {"FullyConnected3Inputs",
         "FULLY_CONNECTED",
         OT::FULLY_CONNECTED,
         canon,
         oneLessInput,
         {"failed 4 == ins.size() (4 == 3): Need 4 inputs for FULLY_CONNECTED"}},
        {"FullyConnectedWeightsNotConstant",
         "FULLY_CONNECTED",
         OT::FULLY_CONNECTED,
         canon,
         notConstant(1),
         {"FULLY_CONNECTED requires weight to be constant data"}},
        {"Add2Outputs",
         "ADD",
         OT::ADD,
         canon,
         oneMoreOutput,
         {"failed 1 == outs.size() (1 == 2): Need 1 output for ADD"}},
        {"MaxPoolExplicitExtraPixelLeft",
         "MAX_POOL_2D",
         OT::MAX_POOL_2D,
         [](OpGraph& g) { canonical(g, Form::ExplicitSame); },
         [](OpGraph& g) {
             g.setScalar(g.ins[1], 1);
             g.setScalar(g.ins[2], 0);
         },
         {"failed pad != ZEL_NN_PAD_NA (0 != 0): Unknown padding"}},
        {"Relu2Inputs",
         "RELU",
         OT::RELU,
         canon,
         oneMoreInput,
         {"failed numInputs == ins.size() (1 == 2): Need 1 input for RELU"}},
        {"Concatenation2Inputs",
         "CONCATENATION",
         OT::CONCATENATION,
         canon,
         [](OpGraph& g) { g.ins.erase(g.ins.begin()); },
         {"failed 3 <= ins.size() (3 <= 2): Need at least 3 inputs for CONCATENATION"}},
        {"ReshapeTargetWithoutData",
         "RESHAPE",
         OT::RESHAPE,
         canon,
         notConstant(1),
         {"pointer value is currently nullptr"}},
        {"ResizeBilinear4Inputs",
         "RESIZE_BILINEAR",
         OT::RESIZE_BILINEAR,
         canon,
         oneMoreInput,
         {"failed 3 == ins.size() (3 == 4): Need 3 inputs for RESIZE_BILINEAR"}},
    };
    cases.insert(cases.end(), differences.begin(), differences.end());
    return cases;
}

class Float32Rules : public testing::TestWithParam<Case> {};

TEST_P(Float32Rules, PassOrRefuseWithTheLine) {
    runCase(float32Family(), GetParam(), OperandType::TENSOR_FP32);
}

INSTANTIATE_TEST_SUITE_P(Float32, Float32Rules, testing::ValuesIn(float32Cases()),
                         [](const testing::TestParamInfo<Case>& info) { return info.param.name; });

TEST(Quant8Differences, TransposeIndexesMustBeConstant) {
    Case c{"",          "transposeCheck", OT::TRANSPOSE,
           transposeOp, notConstant(1),   {"Transpose requires transpose indexes to be constant"}};
    runCase(quant8Family(), c, OperandType::TENSOR_QUANT8);
}

}  // namespace
}  // namespace checktest
