// The support checks of both families, quant8 (the support table's rows
// taken from the table itself) and float32, called directly: each operation
// accepted in its canonical form with the inferred shape stored, and each
// distinct refusal with its exact line. Both families run the same rules;
// float32 takes every acceptance row, the rows where it differs, and one
// refusal that pins the file its lines name.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <map>
#include <string>

#include "check_graph.h"
#include "zel_operations_check_float32.h"
#include "zel_operations_check_quant8.h"

namespace checktest {
namespace {

namespace q8 = arv::nnhal::zel::quant8_asym_check;
namespace f32 = arv::nnhal::zel::float32_check;
using OT = OperationType;
using CheckFn = arv::nnhal::zel::OperationCheckFn;

enum Families : unsigned { kQ8 = 1, kF32 = 2, kBoth = 3 };

struct Family {
    Families id;
    const char* name;
    OperandType tensorType;
    const char* source;
    std::map<OT, CheckFn> checks;  // outside the support table

    CheckFn check(OT type) const {
        if (id == kQ8) {
            const auto& table = arv::nnhal::zel::getOperationCheckTable();
            const auto row = table.find({type, OperandType::TENSOR_QUANT8});
            if (row != table.end()) return row->second;
        }
        const auto it = checks.find(type);
        return it == checks.end() ? nullptr : it->second;
    }
};

const Family kQuant8{kQ8,
                     "Quant8",
                     OperandType::TENSOR_QUANT8,
                     "src/zel_operations_check_quant8.cpp::",
                     {{OT::MUL, q8::mul},
                      {OT::L2_POOL_2D, q8::l2_pool_2d},
                      {OT::SOFTMAX, q8::softmax},
                      {OT::DEQUANTIZE, q8::dequantize},
                      {OT::LOCAL_RESPONSE_NORMALIZATION, q8::local_response_normalization},
                      {OT::SQUEEZE, q8::squeeze},
                      {OT::PAD, q8::pad},
                      {OT::TRANSPOSE, q8::transposeCheck},
                      {OT::SPACE_TO_DEPTH, q8::space_to_depth},
                      {OT::BATCH_TO_SPACE_ND, q8::batch_to_space_nd},
                      {OT::SPACE_TO_BATCH_ND, q8::space_to_batch_nd},
                      {OT::OEM_LSTM, q8::oemLstmCheck},
                      {OT::OEM_SPLIT, q8::oemSplitCheck}}};

const Family kFloat32{kF32,
                      "Float32",
                      OperandType::TENSOR_FP32,
                      "src/zel_operations_check_float32.cpp::",
                      {{OT::CONV_2D, f32::conv_2d},
                       {OT::DEPTHWISE_CONV_2D, f32::depthwise_conv_2d},
                       {OT::FULLY_CONNECTED, f32::fully_connected},
                       {OT::ADD, f32::add},
                       {OT::SUB, f32::sub},
                       {OT::MUL, f32::mul},
                       {OT::AVERAGE_POOL_2D, f32::average_pool_2d},
                       {OT::MAX_POOL_2D, f32::max_pool_2d},
                       {OT::L2_POOL_2D, f32::l2_pool_2d},
                       {OT::RELU, f32::relu},
                       {OT::RELU6, f32::relu6},
                       {OT::SOFTMAX, f32::softmax},
                       {OT::CONCATENATION, f32::concatenation},
                       {OT::RESHAPE, f32::reshape},
                       {OT::RESIZE_BILINEAR, f32::resize_bilinear},
                       {OT::DEQUANTIZE, f32::dequantize},
                       {OT::LOCAL_RESPONSE_NORMALIZATION, f32::local_response_normalization},
                       {OT::SQUEEZE, f32::squeeze},
                       {OT::PAD, f32::pad},
                       {OT::TRANSPOSE, f32::transposeCheck},
                       {OT::SPACE_TO_DEPTH, f32::space_to_depth},
                       {OT::BATCH_TO_SPACE_ND, f32::batch_to_space_nd},
                       {OT::SPACE_TO_BATCH_ND, f32::space_to_batch_nd},
                       {OT::OEM_LSTM, f32::oemLstmCheck},
                       {OT::OEM_SPLIT, f32::oemSplitCheck}}};

// ---------------------------------------------------------------------------
// Edits of the canonical graph, applied before the model is built.

using Edit = std::function<void(OpGraph&)>;

Edit moreIns(int n = 1) {
    return [n](OpGraph& g) {
        for (int i = 0; i < n; ++i) g.ins.push_back(g.scalar(0));
    };
}
Edit lessIn() {
    return [](OpGraph& g) { g.ins.erase(g.ins.begin() + 1); };
}
Edit moreOut() {
    return [](OpGraph& g) { g.outs.push_back(g.tensorOutput({0, 0, 0, 0})); };
}
Edit noOut() {
    return [](OpGraph& g) { g.outs.clear(); };
}
Edit dims(size_t in, std::vector<uint32_t> d) {
    return [in, d](OpGraph& g) { g.setDims(g.ins[in], d); };
}
Edit outDims(std::vector<uint32_t> d) {
    return [d](OpGraph& g) { g.setDims(g.outs[0], d); };
}
Edit values(size_t in, std::vector<int32_t> v) {
    return [in, v](OpGraph& g) { g.setInt32s(g.ins[in], v); };
}
Edit scalars(std::vector<std::pair<size_t, int32_t>> set) {
    return [set](OpGraph& g) {
        for (const auto& s : set) g.setScalar(g.ins[s.first], s.second);
    };
}
Edit notConstant(size_t in) {
    return [in](OpGraph& g) { g.makeGraphInput(g.ins[in]); };
}
Edit both(Edit a, Edit b) {
    return [a, b](OpGraph& g) {
        a(g);
        b(g);
    };
}

const std::string kShape = "Error getting shape";
const std::string kUnknownPadding = "failed pad != ZEL_NN_PAD_NA (0 != 0): Unknown padding";

struct Rule {
    std::string name;
    unsigned families;
    OT type;
    Form form;
    int32_t act;
    Edit edit;                        // null: the canonical graph
    std::vector<std::string> errors;  // empty: the check passes
    // Output dims after the call; empty: the canonical result when the check
    // passes, the declared dims (nothing written) when it refuses.
    std::vector<uint32_t> dims = {};
};

constexpr Form IS = Form::ImplicitSame, IV = Form::ImplicitValid, ES = Form::ExplicitSame, EV = Form::ExplicitValid;

Rule pass(std::string name, unsigned families, OT type, Form form = IS, int32_t act = 0, Edit edit = nullptr,
          std::vector<uint32_t> dims = {}) {
    return {std::move(name), families, type, form, act, std::move(edit), {}, std::move(dims)};
}
Rule passEdited(std::string name, unsigned families, OT type, Edit edit, std::vector<uint32_t> dims = {}) {
    return pass(std::move(name), families, type, IS, 0, std::move(edit), std::move(dims));
}
Rule refuse(std::string name, unsigned families, OT type, Edit edit, std::vector<std::string> errors, Form form = IS,
            std::vector<uint32_t> dims = {}) {
    return {std::move(name), families, type, form, 0, std::move(edit), std::move(errors), std::move(dims)};
}

std::vector<Rule> rules() {
    return {
        // Canonical forms pass; every fused activation the runtime can fuse.
        pass("ConvImplicitSameRelu", kBoth, OT::CONV_2D, IS, 1),
        pass("ConvImplicitValid", kBoth, OT::CONV_2D, IV),
        pass("ConvExplicitSame", kBoth, OT::CONV_2D, ES),
        pass("ConvExplicitValidRelu6", kBoth, OT::CONV_2D, EV, 3),
        pass("DepthwiseExplicitSameRelu1", kBoth, OT::DEPTHWISE_CONV_2D, ES, 2),
        pass("DepthwiseImplicitValid", kBoth, OT::DEPTHWISE_CONV_2D, IV),
        pass("AveragePoolImplicitValid", kBoth, OT::AVERAGE_POOL_2D, IV),
        pass("MaxPoolExplicitSameRelu", kBoth, OT::MAX_POOL_2D, ES, 1),
        pass("L2PoolExplicitValid", kBoth, OT::L2_POOL_2D, EV),
        pass("FullyConnectedRelu6", kBoth, OT::FULLY_CONNECTED, IS, 3),
        pass("AddRelu1", kBoth, OT::ADD, IS, 2),
        pass("Sub", kBoth, OT::SUB),
        pass("Mul", kBoth, OT::MUL, IS, 1),
        pass("Relu", kBoth, OT::RELU),
        pass("Relu6", kBoth, OT::RELU6),
        pass("Prelu", kQ8, OT::PRELU),
        pass("Softmax", kBoth, OT::SOFTMAX),
        pass("Concatenation", kBoth, OT::CONCATENATION),
        pass("Reshape", kBoth, OT::RESHAPE),
        pass("ResizeBilinear", kBoth, OT::RESIZE_BILINEAR),
        pass("Dequantize", kBoth, OT::DEQUANTIZE),
        pass("LocalResponseNormalization", kBoth, OT::LOCAL_RESPONSE_NORMALIZATION),
        pass("Squeeze", kBoth, OT::SQUEEZE),
        passEdited("SqueezeNegativeIndex", kBoth, OT::SQUEEZE, values(1, {-2})),
        passEdited("SqueezeEveryUnitDimension", kBoth, OT::SQUEEZE, both(lessIn(), outDims({0, 0})), {2, 3}),
        pass("Pad", kBoth, OT::PAD),
        passEdited("PadUnknownOutput", kBoth, OT::PAD, outDims({0, 0, 0, 0}), {1, 4, 6, 3}),
        pass("Transpose", kBoth, OT::TRANSPOSE),
        pass("SpaceToDepth", kBoth, OT::SPACE_TO_DEPTH),
        pass("BatchToSpace", kBoth, OT::BATCH_TO_SPACE_ND),
        pass("SpaceToBatch", kBoth, OT::SPACE_TO_BATCH_ND),
        pass("OemLstm", kBoth, OT::OEM_LSTM),
        pass("OemSplit", kBoth, OT::OEM_SPLIT),
        // Accepted oddities.
        pass("ActivationOutsideTheHostSetIsNone", kBoth, OT::CONV_2D, IS, 49),
        passEdited("SameSplitOfAnOddTotal", kBoth, OT::CONV_2D, dims(0, {1, 224, 224, 3}), {1, 112, 112, 4}),
        passEdited("PoolOutputCountIsNotARule", kBoth, OT::MAX_POOL_2D, moreOut()),
        passEdited("ConcatenationAxis1", kF32, OT::CONCATENATION, both(dims(1, {1, 5, 2, 3}), scalars({{2, 1}})),
                   {1, 7, 2, 3}),
        passEdited("TransposeIndexesFedAtRunTime", kF32, OT::TRANSPOSE, notConstant(1)),
        // Counts.
        refuse("Depthwise9Inputs", kQ8, OT::DEPTHWISE_CONV_2D, moreIns(),
               {"Need 8 or 11 inputs for DEPTHWISE_CONV_2D"}),
        refuse("MaxPool11Inputs", kQ8, OT::MAX_POOL_2D, moreIns(), {"Need 7 or 10 inputs for MAX_POOL_2D"}, ES),
        refuse("ResizeBilinear4Inputs", kQ8, OT::RESIZE_BILINEAR, moreIns(),
               {"failed 3 == ins.size() (3 == 4): Need 3 inputs for RESIZE_BILINEAR"}),
        refuse("FullyConnected2Outputs", kQ8, OT::FULLY_CONNECTED, moreOut(),
               {"failed 1 == outs.size() (1 == 2): Need 1 output for FULLY_CONNECTED"}),
        refuse("Relu2Inputs", kQ8, OT::RELU, moreIns(),
               {"failed numInputs == ins.size() (1 == 2): Need 1 input for RELU"}),
        refuse("Concatenation2Inputs", kQ8, OT::CONCATENATION, lessIn(),
               {"failed 3 <= ins.size() (3 <= 2): Need at least 3 inputs for CONCATENATION"}),
        refuse("Squeeze3Inputs", kQ8, OT::SQUEEZE, moreIns(), {"Need 1 or 2 inputs for operation SQUEEZE"}),
        refuse("BatchToSpace3Inputs", kQ8, OT::BATCH_TO_SPACE_ND, moreIns(),
               {"BATCH_TO_SPACE_ND operation requires 2 input operand(s)!"}),
        refuse("SpaceToBatch0Outputs", kQ8, OT::SPACE_TO_BATCH_ND, noOut(),
               {"SPACE_TO_BATCH_ND operation requires 1 output operand(s)!"}),
        // Windows.
        refuse("ConvPaddingCode3", kQ8, OT::CONV_2D, scalars({{3, 3}}), {kUnknownPadding}),
        refuse("AveragePoolPaddingCode0", kQ8, OT::AVERAGE_POOL_2D, scalars({{1, 0}}), {kUnknownPadding}, IV),
        refuse("ConvExplicitExtraPixelLeft", kQ8, OT::CONV_2D, scalars({{3, 1}, {4, 0}}), {kUnknownPadding}, ES),
        refuse("MaxPoolExplicitExtraRowTop", kQ8, OT::MAX_POOL_2D, scalars({{3, 1}, {4, 0}}), {kUnknownPadding}, ES),
        refuse("ConvFilterDepth", kQ8, OT::CONV_2D, dims(1, {4, 3, 3, 2}),
               {"NN_CHECK failed: getSizeOfDimension(filter, 3) == getSizeOfDimension(input, 3)", kShape}),
        // Constancy comes last: the shape is already stored.
        refuse("ConvFilterNotConstant", kBoth, OT::CONV_2D, notConstant(1),
               {"CONV_2D requires filter to be constant data"}, EV, {1, 3, 3, 4}),
        refuse("DepthwiseFilterNotConstant", kQ8, OT::DEPTHWISE_CONV_2D, notConstant(1),
               {"DEPTHWISE_CONV_2D requires filter to be constant data"}, IS, {1, 4, 4, 4}),
        refuse("FullyConnectedWeightsNotConstant", kQ8, OT::FULLY_CONNECTED, notConstant(1),
               {"FULLY_CONNECTED requires weight to be constant data"}, IS, {2, 3}),
        // Operation parameters.
        refuse("AddShapesMismatch", kQ8, OT::ADD, dims(1, {1, 2, 2, 4}),
               {"Dimensions mismatch for BroadcastAdd", kShape}),
        refuse("ConcatenationAxis1", kQ8, OT::CONCATENATION, scalars({{2, 1}}),
               {"failed axis == 3 (1 == 3): Concatenation only supports channel dimension."}),
        refuse("ConcatenationAxis4", kF32, OT::CONCATENATION, scalars({{2, 4}}),
               {"NN_CHECK failed: axis < (int32_t)num_dimensions", kShape}),
        refuse("ReshapeTargetWithoutData", kQ8, OT::RESHAPE, notConstant(1), {"pointer value is currently nullptr"}),
        refuse("ReshapeTargetShorterThanShape", kQ8, OT::RESHAPE, dims(1, {3}),
               {"Input 1 of RESHAPE holds 8 bytes of constant data, short of 3 values"}),
        refuse("SqueezeRank5", kQ8, OT::SQUEEZE, dims(0, {1, 2, 1, 3, 1}), {"Input operand rank must be at most 4D"}),
        refuse("SqueezeIndexRank2", kQ8, OT::SQUEEZE, dims(1, {1, 1}),
               {"Invalid squeeze index tensor rank. Expected rank 1 but got 2"}),
        refuse("SqueezeTooManyIndexes", kQ8, OT::SQUEEZE, both(dims(1, {5}), values(1, {0, 0, 0, 0, 0})),
               {"Invalid squeeze tensor input. Size larger than input size"}),
        refuse("SqueezeDimensionOf2", kQ8, OT::SQUEEZE, values(1, {1}),
               {"Attempt to squeeze non squeezable dimension: 1"}),
        refuse("SqueezeIndexOutOfRange", kQ8, OT::SQUEEZE, values(1, {4}),
               {"Attempt to squeeze non squeezable dimension: 4"}),
        refuse("PadRank5", kQ8, OT::PAD, dims(0, {1, 1, 2, 2, 3}), {"PAD operation requires input of rank <= 4."}),
        refuse("PadPaddingsShape", kQ8, OT::PAD, dims(1, {3, 2}),
               {"PAD operation requires padding input of shape (4,2)"}),
        refuse("PadOutputRank", kQ8, OT::PAD, outDims({1, 4, 6}), {"PAD Input and output ranks miss match."}),
        refuse("PadOutputDimension", kQ8, OT::PAD, outDims({1, 4, 5, 3}),
               {"PAD Output shape at dimension (2) miss match! Expected 6, actual 5"}),
        refuse("TransposeIndexesNotConstant", kQ8, OT::TRANSPOSE, notConstant(1),
               {"Transpose requires transpose indexes to be constant"}),
        refuse("TransposeIndexesRank2", kQ8, OT::TRANSPOSE, dims(1, {2, 2}), {"Transpose tensor must be 1D!"}),
        refuse("TransposeIndexesTooFew", kQ8, OT::TRANSPOSE, both(dims(1, {3}), values(1, {0, 2, 1})),
               {"Transpose tensor must define index for every input dimension."}),
        refuse("TransposeOutputRank", kQ8, OT::TRANSPOSE, outDims({1, 3, 2}),
               {"Input and output tensors rank must match."}),
        refuse("TransposeOutputDimension", kQ8, OT::TRANSPOSE, outDims({1, 2, 3, 4}),
               {"Output dimension at index 1does not match input dimension 2"}),
        refuse("TransposeIndexOutOfRange", kQ8, OT::TRANSPOSE, values(1, {0, 2, 1, 4}),
               {"NN_CHECK failed: permData[idx] >= 0 && permData[idx] < static_cast<int32_t>(numInputDims)", kShape}),
        refuse("BatchToSpaceRank3", kQ8, OT::BATCH_TO_SPACE_ND, dims(0, {4, 2, 2}),
               {"BATCH_TO_SPACE_ND operation requires input of rank = 4."}),
        refuse("BatchToSpaceBlockShape", kQ8, OT::BATCH_TO_SPACE_ND, both(dims(1, {3}), values(1, {2, 2, 1})),
               {"BATCH_TO_SPACE_ND operation requires blocksize input of shape (2)"}),
        refuse("BatchToSpaceBlockZero", kQ8, OT::BATCH_TO_SPACE_ND, values(1, {0, 2}),
               {"BATCH_TO_SPACE_ND operation requires block sizes of at least 1, got 0 and 2"}),
        refuse("SpaceToBatchPaddingShape", kQ8, OT::SPACE_TO_BATCH_ND, dims(2, {2, 1}),
               {"SPACE_TO_BATCH_ND operation requires padding input of shape (2,2)"}),
        refuse("OemLstmWeightNotConstant", kQ8, OT::OEM_LSTM, notConstant(3),
               {"OEM LSTM requires weight to be constant data"}),
        refuse("OemLstmBiasNotConstant", kQ8, OT::OEM_LSTM, notConstant(4),
               {"OEM LSTM requires bias to be constant data"}),
        refuse("OemSplitPartsDiffer", kQ8, OT::OEM_SPLIT, scalars({{2, 3}}),
               {"failed (size_t)model->getScalar<int32_t>(ins[2]) == outs.size() (3 == 2): Number of outputs is "
                "incorrect"}),
    };
}

using RuleCase = std::pair<const Family*, Rule>;

std::vector<RuleCase> ruleCases() {
    std::vector<RuleCase> cases;
    for (const Family* family : {&kQuant8, &kFloat32}) {
        for (const Rule& rule : rules()) {
            if (rule.families & family->id) cases.push_back({family, rule});
        }
    }
    return cases;
}

// Line `number` of a source file of the tree, "" when there is none.
std::string sourceLine(const std::string& file, unsigned long number) {
    std::ifstream in(std::string(ZEL_SOURCE_DIR) + "/" + file);
    std::string line;
    for (unsigned long i = 0; i < number && std::getline(in, line); ++i) {
        if (i + 1 == number) return line;
    }
    return "";
}

// A located line names a line of its file: for the float32 family, which
// runs the shared rules, the forward that ran them.
void expectRealLocation(const Family& family, const std::string& located) {
    const size_t colons = located.find("::");
    ASSERT_NE(colons, std::string::npos) << located;
    const unsigned long number = std::stoul(located.substr(colons + 2));
    const std::string line = sourceLine(located.substr(0, colons), number);
    EXPECT_FALSE(line.empty()) << located;
    if (family.id == kF32) {
        EXPECT_NE(line.find("kFloat32Rules"), std::string::npos) << located << "\n" << line;
    }
}

class CheckRule : public testing::TestWithParam<RuleCase> {};

TEST_P(CheckRule, PassesOrLogsItsLinesAndRefuses) {
    const Family& family = *GetParam().first;
    const Rule& rule = GetParam().second;
    OpGraph g(rule.type, family.tensorType);
    const std::vector<uint32_t> inferred = canonical(g, rule.form, rule.act);
    if (rule.edit) rule.edit(g);
    const CheckFn check = family.check(rule.type);
    ASSERT_TRUE(static_cast<bool>(check));
    ASSERT_NE(g.model(), nullptr);
    const std::vector<uint32_t> declared = g.graph.operand(g.outs.empty() ? 0 : g.outs[0]).mDims;
    zeltest::LogCapture log;

    EXPECT_EQ(rule.errors.empty(), check(g.ins, g.outs, g.model()));
    EXPECT_EQ(rule.errors, errorTexts(log));
    if (!rule.errors.empty()) {
        EXPECT_EQ(0u, log.errors().back().rfind(family.source, 0)) << log.errors().back();
        expectRealLocation(family, log.errors().back());
    }
    if (!g.outs.empty()) {
        const std::vector<uint32_t> expected = !rule.dims.empty()    ? rule.dims
                                               : rule.errors.empty() ? inferred
                                                                     : declared;
        EXPECT_EQ(expected, g.dims(g.outs[0]));
    }
}

INSTANTIATE_TEST_SUITE_P(Checks, CheckRule, testing::ValuesIn(ruleCases()),
                         [](const testing::TestParamInfo<RuleCase>& info) {
                             return std::string(info.param.first->name) + "_" + info.param.second.name;
                         });

TEST(FusedActivationCheck, AcceptsExactlyTheFusableCodes) {
    const int32_t accepted[] = {2, 21, 23, 89, 167};
    for (int32_t code = 0; code < 400; ++code) {
        const bool expected = std::find(std::begin(accepted), std::end(accepted), code) != std::end(accepted);
        EXPECT_EQ(expected, q8::fusedActivationCheck(static_cast<zel_op_type_enum>(code))) << code;
    }
}

// Direct calls with operands the graph does not hold refuse before reading.
TEST(MalformedCall, OperandsOutsideTheGraphOrWithoutDataAreRefused) {
    OpGraph g(OT::CONV_2D);
    canonical(g);
    const uint32_t empty = g.emptyScalar();
    ZelModel* model = g.model();
    const std::string outside = std::to_string(g.graph.getOperandCount() + 5);
    std::vector<uint32_t> ins = g.ins;
    ins[1] = g.graph.getOperandCount() + 5;
    zeltest::LogCapture log;

    EXPECT_FALSE(q8::conv_2d(ins, g.outs, model));
    EXPECT_FALSE(f32::relu({g.ins[0]}, {ins[1]}, model));
    ins = g.ins;
    ins[4] = empty;
    EXPECT_FALSE(q8::conv_2d(ins, g.outs, model));
    EXPECT_FALSE(q8::max_pool_2d({g.ins[0], g.ins[3], g.ins[4], g.ins[5], g.ins[4], g.ins[4], g.ins[6]}, {}, model));
    EXPECT_EQ((std::vector<std::string>{"Input 1 of CONV_2D names operand " + outside + ", which is outside the graph",
                                        "Output 0 of RELU names operand " + outside + ", which is outside the graph",
                                        "Scalar operand " + std::to_string(empty) + " has no data",
                                        "failed 1 <= outs.size() (1 <= 0): Need at least 1 output for MAX_POOL_2D"}),
              errorTexts(log));
}

}  // namespace
}  // namespace checktest
