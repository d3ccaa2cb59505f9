// Model-file loader: one clear message per malformed file, the lenient mode
// that lets graph-level oddities through, and the comparison helpers.
#include "zelhost/model_file.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "zelhost/execution.h"

using namespace arv::nnhal;
using namespace arv::nnhal::host;

namespace {

// A valid two-operation graph; the cases below break it one place at a time.
// Operand 1 is a 2x2 quantized constant, 2 an int32 bias, 3 a scalar.
const char kValid[] = R"({
  "name": "small",
  "operands": [
    {"type": 5, "dims": [1, 2, 2, 1], "scale": 0.5, "zeroPoint": 3, "lifetime": "input"},
    {"type": 5, "dims": [1, 2, 2, 1], "scale": 0.5, "zeroPoint": 0, "lifetime": "constant", "data": [1, 2, 3, 250]},
    {"type": 4, "dims": [1], "scale": 0.25, "zeroPoint": 0, "lifetime": "constant", "data": [-7]},
    {"type": 1, "dims": [], "scale": 0.0, "zeroPoint": 0, "lifetime": "constant", "data": [0]},
    {"type": 5, "dims": [1, 2, 2, 1], "scale": 1.0, "zeroPoint": 0, "lifetime": "internal"},
    {"type": 3, "dims": [2], "scale": 0.0, "zeroPoint": 0, "lifetime": "output"}
  ],
  "operations": [
    {"type": 0, "inputs": [0, 1, 3], "outputs": [4]},
    {"type": 6, "inputs": [4], "outputs": [5]}
  ],
  "inputs": [0],
  "outputs": [5],
  "inputData": [[9, 8, 7, 6]],
  "expected": [[1.5, -2.25]],
  "tolerance": 0.5,
  "ignoredOutputs": [0]
})";

std::string replaced(const std::string& from, const std::string& to) {
    std::string text = kValid;
    const size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    if (at != std::string::npos) text.replace(at, from.size(), to);
    return text;
}

std::string load(const std::string& text, LoadedModel& model, bool strict = true) {
    LoadOptions options;
    options.checkIndices = strict;
    return parseModel(text, "model.json", model, options);
}

struct BadFile {
    const char* what;
    std::string text;
    std::string message;
};

class MalformedModel : public ::testing::TestWithParam<BadFile> {};

TEST_P(MalformedModel, GivesOneMessageNamingThePlace) {
    LoadedModel model;
    const std::string& wanted = GetParam().message;
    const std::string message = load(GetParam().text, model);
    if (!wanted.empty() && wanted.back() == '*') {
        EXPECT_EQ(message.substr(0, wanted.size() - 1), wanted.substr(0, wanted.size() - 1)) << message;
    } else {
        EXPECT_EQ(message, wanted);
    }
    EXPECT_EQ(model.graph, nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Loader, MalformedModel,
    ::testing::Values(
        BadFile{"truncated", std::string(kValid).substr(0, 40), "model.json: malformed JSON: parse error at line *"},
        BadFile{"top level array", "[1, 2]", "model.json: expected a JSON object at the top, got an array"},
        BadFile{"missing operands", replaced("\"operands\"", "\"operandz\""), "model.json: missing field \"operands\""},
        BadFile{"missing lifetime", replaced(R"("zeroPoint": 3, "lifetime": "input")", R"("zeroPoint": 3)"),
                "model.json: operands[0]: missing field \"lifetime\""},
        BadFile{"dims not an array", replaced(R"("dims": [1], "scale": 0.25)", R"("dims": "1", "scale": 0.25)"),
                "model.json: operands[2].dims: expected an array, got a string"},
        BadFile{"zero point fractional", replaced(R"("zeroPoint": 3)", R"("zeroPoint": 3.5)"),
                "model.json: operands[0].zeroPoint: expected an integer, got 3.5"},
        BadFile{"negative dimension",
                replaced("[1, 2, 2, 1], \"scale\": 0.5, \"zeroPoint\": 3",
                         "[1, -2, 2, 1], \"scale\": 0.5, \"zeroPoint\": 3"),
                "model.json: operands[0].dims[1]: value -2 out of range (0..4294967295)"},
        BadFile{"unknown lifetime", replaced(R"("lifetime": "internal")", R"("lifetime": "temporary")"),
                "model.json: operands[4].lifetime: unknown lifetime \"temporary\" (expected input, output, "
                "constant or internal)"},
        BadFile{"unknown operand type", replaced(R"({"type": 1, "dims": [])", R"({"type": 15, "dims": [])"),
                "model.json: operands[3].type: unknown operand type 15"},
        BadFile{"scalar with dims", replaced(R"({"type": 1, "dims": [])", R"({"type": 6, "dims": [1])"),
                "model.json: operands[3].dims: a scalar has no dimensions, got [1]"},
        BadFile{
            "boolean neither true false 0 nor 1",
            replaced(R"({"type": 1, "dims": [], "scale": 0.0, "zeroPoint": 0, "lifetime": "constant", "data": [0]})",
                     R"({"type": 6, "dims": [], "scale": 0.0, "zeroPoint": 0, "lifetime": "constant", "data": [2]})"),
            "model.json: operands[3].data[0]: expected true, false, 0 or 1 for BOOL, got 2"},
        BadFile{"signed byte out of range",
                replaced(R"({"type": 5, "dims": [1, 2, 2, 1], "scale": 0.5, "zeroPoint": 0)",
                         R"({"type": 14, "dims": [1, 2, 2, 1], "scale": 0.5, "zeroPoint": 0)"),
                "model.json: operands[1].data[3]: value 250 out of range for TENSOR_QUANT8_ASYMM_SIGNED (-128..127)"},
        BadFile{"half past its largest value",
                replaced(
                    R"({"type": 4, "dims": [1], "scale": 0.25, "zeroPoint": 0, "lifetime": "constant", "data": [-7]})",
                    R"({"type": 8, "dims": [1], "scale": 0, "zeroPoint": 0, "lifetime": "constant", "data": [65520]})"),
                "model.json: operands[2].data[0]: value 65520 out of range for TENSOR_FLOAT16"},
        BadFile{"per-channel filter without scales",
                replaced(R"({"type": 5, "dims": [1, 2, 2, 1], "scale": 0.5, "zeroPoint": 0)",
                         R"({"type": 11, "dims": [1, 2, 2, 1], "scale": 0.5, "zeroPoint": 0)"),
                "model.json: operands[1]: TENSOR_QUANT8_SYMM_PER_CHANNEL operand without \"channelQuant\""},
        BadFile{"per-channel scales of another count",
                replaced(R"({"type": 5, "dims": [1, 2, 2, 1], "scale": 0.5, "zeroPoint": 0)",
                         R"({"type": 11, "dims": [1, 2, 2, 1], "scale": 0.5, "zeroPoint": 0,
                             "channelQuant": {"channelDim": 1, "scales": [0.5]})"),
                "model.json: operands[1].channelQuant.scales: expected 2 scales (dimension 1), got 1"},
        BadFile{"per-channel scales on another type",
                replaced(R"("zeroPoint": 3, "lifetime")",
                         R"("zeroPoint": 3, "channelQuant": {"channelDim": 0, "scales": [1]}, "lifetime")"),
                "model.json: operands[0].channelQuant: only TENSOR_QUANT8_SYMM_PER_CHANNEL operands carry it"},
        BadFile{"short constant", replaced("[1, 2, 3, 250]", "[1, 2, 3]"),
                "model.json: operands[1].data: expected 4 values, got 3"},
        BadFile{"byte out of range", replaced("[1, 2, 3, 250]", "[1, 2, 300, 250]"),
                "model.json: operands[1].data[2]: value 300 out of range for TENSOR_QUANT8 (0..255)"},
        BadFile{"int32 out of range", replaced("[-7]", "[2147483648]"),
                "model.json: operands[2].data[0]: value 2147483648 out of range for TENSOR_INT32 "
                "(-2147483648..2147483647)"},
        BadFile{"constant without data", replaced(R"(, "data": [-7])", ""),
                "model.json: operands[2]: constant operand without \"data\""},
        BadFile{"data on an input",
                replaced(R"("lifetime": "input"})", R"("lifetime": "input", "data": [1, 2, 3, 4]})"),
                "model.json: operands[0].data: only constant operands carry data"},
        BadFile{"operation input past the operands", replaced("[0, 1, 3]", "[0, 6, 3]"),
                "model.json: operations[0].inputs[1]: operand index 6 out of range (6 operands)"},
        BadFile{"graph input past the operands", replaced(R"("inputs": [0])", R"("inputs": [7])"),
                "model.json: inputs[0]: operand index 7 out of range (6 operands)"},
        BadFile{"input data of wrong length", replaced("[[9, 8, 7, 6]]", "[[9, 8, 7, 6, 5]]"),
                "model.json: inputData[0]: expected 4 values, got 5"},
        BadFile{"input data per input", replaced("[[9, 8, 7, 6]]", "[[9, 8, 7, 6], [1]]"),
                "model.json: inputData: expected 1 arrays (one per graph input), got 2"},
        BadFile{"expected not nested", replaced("[[1.5, -2.25]]", "[1.5]"),
                "model.json: expected[0]: expected an array, got 1.5"},
        BadFile{"negative tolerance", replaced(R"("tolerance": 0.5)", R"("tolerance": -1)"),
                "model.json: tolerance: must not be negative, got -1"},
        BadFile{"ignored output out of range", replaced(R"("ignoredOutputs": [0])", R"("ignoredOutputs": [1])"),
                "model.json: ignoredOutputs[0]: output position 1 out of range (1 graph outputs)"}),
    [](const ::testing::TestParamInfo<BadFile>& info) {
        std::string name;
        for (const char* c = info.param.what; *c; ++c) name += std::isalnum(static_cast<unsigned char>(*c)) ? *c : '_';
        return name;
    });

TEST(Loader, BuildsTheGraphAndTheRunData) {
    LoadedModel model;
    ASSERT_EQ(load(kValid, model), "");
    ASSERT_NE(model.graph, nullptr);
    HostGraph& graph = *model.graph;
    EXPECT_EQ(model.name, "small");
    ASSERT_EQ(graph.getOperandCount(), 6u);
    ASSERT_EQ(graph.getOperationCount(), 2u);

    const IOperand* input = graph.getOperand(0);
    EXPECT_EQ(input->getType(), OperandType::TENSOR_QUANT8);
    EXPECT_EQ(input->getDimensionCount(), 4u);
    EXPECT_EQ(input->getDimension(1), 2u);
    EXPECT_EQ(input->getQuantizationParams().params.getScale(), 0.5f);
    EXPECT_EQ(input->getQuantizationParams().params.getZeroPoint(), 3);
    EXPECT_NE(input->getData().status, Status::SUCCESS) << "graph inputs hold no data outside an execution";

    const DataResult weights = graph.getOperand(1)->getData();
    ASSERT_EQ(weights.status, Status::SUCCESS);
    EXPECT_EQ(std::vector<uint8_t>(weights.data, weights.data + weights.length), (std::vector<uint8_t>{1, 2, 3, 250}));
    const DataResult bias = graph.getOperand(2)->getData();
    ASSERT_EQ(bias.length, 4u);
    int32_t biasValue = 0;
    std::memcpy(&biasValue, bias.data, 4);
    EXPECT_EQ(biasValue, -7);
    EXPECT_EQ(graph.getOperand(3)->getType(), OperandType::SCALAR_INT32);
    EXPECT_EQ(graph.getOperand(3)->getDimensionCount(), 0u);

    const IOperation* op = graph.getOperation(0);
    EXPECT_EQ(op->getType(), OperationType::ADD);
    EXPECT_EQ(op->getNumInputs(), 3u);
    EXPECT_EQ(op->getInput(1), 1u);
    EXPECT_EQ(graph.getOperation(1)->getType(), OperationType::DEQUANTIZE);
    EXPECT_EQ(graph.getInput(0), 0u);
    EXPECT_EQ(graph.getOutput(0), 5u);

    EXPECT_TRUE(model.hasInputData);
    EXPECT_EQ(model.inputData, (std::vector<std::vector<uint8_t>>{{9, 8, 7, 6}}));
    EXPECT_TRUE(model.hasExpected);
    EXPECT_EQ(model.expected, (std::vector<std::vector<double>>{{1.5, -2.25}}));
    EXPECT_EQ(model.tolerance, 0.5);
    EXPECT_EQ(model.ignoredOutputs, std::vector<uint32_t>{0});
}

TEST(Loader, RunDataIsOptional) {
    LoadedModel model;
    const std::string text =
        R"({"operands": [{"type": 3, "dims": [1], "scale": 0, "zeroPoint": 0, "lifetime": "input"}],
            "operations": [], "inputs": [0], "outputs": [0]})";
    ASSERT_EQ(load(text, model), "");
    EXPECT_FALSE(model.hasInputData);
    EXPECT_FALSE(model.hasExpected);
    EXPECT_EQ(model.tolerance, 0.0);
}

TEST(Loader, MissingFileIsNamed) {
    LoadedModel model;
    const std::string message = loadModelFile("/nonexistent/model.json", model);
    EXPECT_EQ(message.rfind("/nonexistent/model.json: cannot open file", 0), 0u) << message;
    EXPECT_EQ(model.graph, nullptr);
}

// Lenient loading: graph-level oddities reach the graph unchanged; values
// the graph cannot hold are still refused.
TEST(LenientLoader, KeepsGraphOdditiesOnly) {
    LoadedModel model;
    ASSERT_EQ(load(replaced("[0, 1, 3]", "[0, 6, 3]"), model, false), "");
    EXPECT_EQ(model.graph->getOperation(0)->getInput(1), 6u) << "an index equal to the operand count";
    EXPECT_EQ(model.graph->getOperand(6), nullptr);

    ASSERT_EQ(load(replaced("[1, 2, 3, 250]", "[1, 2, 3]"), model, false), "");
    EXPECT_EQ(model.graph->getOperand(1)->getData().length, 3u);

    ASSERT_EQ(load(replaced(R"({"type": 1, "dims": [])", R"({"type": 17, "dims": [])"), model, false), "");
    EXPECT_EQ(static_cast<int32_t>(model.graph->getOperand(3)->getType()), 17);

    ASSERT_EQ(load(replaced(R"(, "data": [-7])", ""), model, false), "");
    EXPECT_NE(model.graph->getOperand(2)->getData().status, Status::SUCCESS) << "a constant without data";

    EXPECT_EQ(load(replaced("[1, 2, 3, 250]", "[1, 2, 300, 250]"), model, false),
              "model.json: operands[1].data[2]: value 300 out of range for TENSOR_QUANT8 (0..255)");
    EXPECT_EQ(load("{", model, false).rfind("model.json: malformed JSON: ", 0), 0u);
}

// ---- every operand type -------------------------------------------------------

// One constant of each type of the numbering: the bytes the plug-in is
// handed, at the edges of each type's range.
TEST(Loader, StoresEveryOperandType) {
    struct Row {
        int32_t type;
        const char* dims;
        const char* data;
        std::vector<uint8_t> bytes;  // little-endian
    };
    const Row rows[] = {
        {0, "[]", "[-2.5]", {0x00, 0x00, 0x20, 0xC0}},
        {1, "[]", "[-2147483648]", {0x00, 0x00, 0x00, 0x80}},
        {2, "[]", "[4294967295]", {0xFF, 0xFF, 0xFF, 0xFF}},
        {3, "[1]", "[0.5]", {0x00, 0x00, 0x00, 0x3F}},
        {4, "[1]", "[-1]", {0xFF, 0xFF, 0xFF, 0xFF}},
        {5, "[2]", "[0, 255]", {0x00, 0xFF}},
        {6, "[]", "[true]", {0x01}},
        {7, "[2]", "[-32768, 32767]", {0x00, 0x80, 0xFF, 0x7F}},
        {8, "[3]", "[1, -2, 65504]", {0x00, 0x3C, 0x00, 0xC0, 0xFF, 0x7B}},
        {9, "[4]", "[true, false, 1, 0]", {0x01, 0x00, 0x01, 0x00}},
        {10, "[]", "[0.5]", {0x00, 0x38}},
        {11, "[2]", "[-128, 127]", {0x80, 0x7F}},
        {12, "[2]", "[0, 65535]", {0x00, 0x00, 0xFF, 0xFF}},
        {13, "[2]", "[-1, 1]", {0xFF, 0x01}},
        {14, "[2]", "[-128, 127]", {0x80, 0x7F}},
        {10000, "[1]", "[200]", {0xC8}},
        {10001, "[1]", "[7]", {0x07}},
    };
    for (const Row& row : rows) {
        const std::string channel = row.type == 11 ? R"(, "channelQuant": {"channelDim": 0, "scales": [0.5, 2]})" : "";
        const std::string text = std::string(R"({"operands": [{"type": )") + std::to_string(row.type) +
                                 R"(, "dims": )" + row.dims +
                                 R"(, "scale": 0, "zeroPoint": 0, "lifetime": "constant", "data": )" + row.data +
                                 channel + R"(}], "operations": [], "inputs": [], "outputs": [0]})";
        LoadedModel model;
        ASSERT_EQ(load(text, model), "") << row.type;
        const DataResult data = model.graph->getOperand(0)->getData();
        ASSERT_EQ(data.status, Status::SUCCESS) << row.type;
        EXPECT_EQ(std::vector<uint8_t>(data.data, data.data + data.length), row.bytes) << "type " << row.type;
        EXPECT_EQ(operandByteSize(*model.graph, 0), row.bytes.size()) << "type " << row.type;
    }
}

TEST(Loader, KeepsPerChannelAndSignedQuantization) {
    LoadedModel model;
    ASSERT_EQ(load(R"({"operands": [
        {"type": 11, "dims": [3, 1, 1, 2], "scale": 0, "zeroPoint": 0, "lifetime": "constant",
         "data": [1, 2, 3, 4, 5, 6], "channelQuant": {"channelDim": 0, "scales": [0.5, 0.25, 0.125]}},
        {"type": 14, "dims": [2], "scale": 0.5, "zeroPoint": -128, "lifetime": "input"}],
        "operations": [], "inputs": [1], "outputs": [0]})",
                   model),
              "");
    const HostOperand& filter = model.graph->operand(0);
    EXPECT_TRUE(filter.mHasChannelQuant);
    EXPECT_EQ(filter.mChannelDim, 0u);
    EXPECT_EQ(filter.mChannelScales, (std::vector<float>{0.5f, 0.25f, 0.125f}));
    const QuantParamsResult signedParams = model.graph->getOperand(1)->getQuantizationParams();
    EXPECT_EQ(signedParams.status, Status::SUCCESS);
    EXPECT_EQ(signedParams.params.getZeroPoint(), -128);
}

// Round to nearest, ties to the even mantissa, at every boundary of the
// half format; decoding gives back the value that was stored.
TEST(Half, RoundsToNearestEven) {
    struct Case {
        double value;
        uint16_t bits;
    };
    const Case cases[] = {
        {1.0, 0x3C00},
        {1.0 + std::ldexp(1.0, -11), 0x3C00},                         // tie between 1 and its successor: even
        {1.0 + 3 * std::ldexp(1.0, -11), 0x3C02},                     // tie between odd and even successor: even
        {1.0 + std::ldexp(1.0, -11) + std::ldexp(1.0, -30), 0x3C01},  // just past the tie
        {65504.0, 0x7BFF},
        {65519.99, 0x7BFF},
        {65520.0, 0x7C00},  // rounds up past the largest finite half
        {-1e6, 0xFC00},
        {std::ldexp(1.0, -14), 0x0400},     // smallest normal
        {std::ldexp(1023.5, -24), 0x0400},  // largest subnormal's tie rounds up into the normals
        {std::ldexp(1.0, -24), 0x0001},     // smallest subnormal
        {std::ldexp(1.0, -25), 0x0000},     // tie with zero: even
        {std::ldexp(3.0, -26), 0x0001},     // past the tie
        {-0.0, 0x8000},
        {-std::ldexp(1.0, -26), 0x8000},  // underflows, keeps its sign
        {2049.0, 0x6800},                 // 2048 and 2050 are neighbours; tie to 2048
        {2051.0, 0x6802},                 // tie to 2052
    };
    for (const Case& c : cases) {
        EXPECT_EQ(toHalf(c.value), c.bits) << c.value;
    }
    EXPECT_EQ(toHalf(std::numeric_limits<double>::quiet_NaN()) & 0x7E00u, 0x7E00u);
    EXPECT_TRUE(std::isnan(fromHalf(0x7E00)));
    EXPECT_EQ(fromHalf(0xFC00), -std::numeric_limits<double>::infinity());
    EXPECT_EQ(fromHalf(0x0001), std::ldexp(1.0, -24));
    EXPECT_EQ(fromHalf(0x7BFF), 65504.0);
    for (uint32_t bits = 0; bits < 0x7C00; ++bits) {
        ASSERT_EQ(toHalf(fromHalf(static_cast<uint16_t>(bits))), bits) << "every finite half survives the round trip";
    }
}

// ---- partition ------------------------------------------------------------------

TEST(Partition, RunsOfSupportedOperationsAndTheirMacs) {
    HostGraph g;
    const uint32_t in = g.addQuant8({1, 7, 7, 4}, 1.0f, 0, Lifetime::Input);
    const uint32_t convFilter = g.addQuant8({2, 3, 3, 4}, 1.0f, 0, Lifetime::Constant, std::vector<uint8_t>(72, 1));
    const uint32_t convOut = g.addQuant8({1, 5, 5, 2}, 1.0f, 0, Lifetime::Internal);
    const uint32_t dwFilter = g.addQuant8({1, 3, 3, 2}, 1.0f, 0, Lifetime::Constant, std::vector<uint8_t>(18, 1));
    const uint32_t dwOut = g.addQuant8({1, 3, 3, 2}, 1.0f, 0, Lifetime::Internal);
    const uint32_t weights = g.addQuant8({10, 18}, 1.0f, 0, Lifetime::Constant, std::vector<uint8_t>(180, 1));
    const uint32_t fcOut = g.addQuant8({1, 10}, 1.0f, 0, Lifetime::Internal);
    const uint32_t out = g.addQuant8({1, 10}, 1.0f, 0, Lifetime::Output);
    const uint32_t none = g.addInt32(0);
    g.addOperation(OperationType::CONV_2D, {in, convFilter, none}, {convOut});             // 50 x 36
    g.addOperation(OperationType::DEPTHWISE_CONV_2D, {convOut, dwFilter, none}, {dwOut});  // 18 x 9
    g.addOperation(OperationType::FULLY_CONNECTED, {dwOut, weights, none}, {fcOut});       // 10 x 18
    g.addOperation(OperationType::RELU, {fcOut}, {out});
    g.addOperation(OperationType::CONV_2D, {in, none}, {out});  // filter of the wrong rank
    EXPECT_EQ(operationMacs(g, 0), 1800u);
    EXPECT_EQ(operationMacs(g, 1), 162u);
    EXPECT_EQ(operationMacs(g, 2), 180u);
    EXPECT_EQ(operationMacs(g, 3), 0u);
    EXPECT_EQ(operationMacs(g, 4), 0u);

    const Partition p = partitionGraph(g, {0, 1, 2, 0, -1});
    ASSERT_EQ(p.segments.size(), 4u);
    EXPECT_TRUE(p.segments[0].accelerator);
    EXPECT_EQ(p.segments[0].last, 0u);
    EXPECT_FALSE(p.segments[1].accelerator) << "levels 1 and 2 both stay on the CPU, in one run";
    EXPECT_EQ(p.segments[1].first, 1u);
    EXPECT_EQ(p.segments[1].last, 2u);
    EXPECT_EQ(p.segments[1].macs, 342u);
    EXPECT_TRUE(p.segments[2].accelerator);
    EXPECT_EQ(p.segments[2].first, 3u);
    EXPECT_EQ(p.segments[2].last, 3u);
    EXPECT_FALSE(p.segments[3].accelerator) << "an operation without an answer is not the accelerator's";
    EXPECT_EQ(p.acceleratorOperations, 2u);
    EXPECT_EQ(p.operations, 5u);
    EXPECT_EQ(p.acceleratorMacs, 1800u);
    EXPECT_EQ(p.macs, 2142u);
}

// ---- comparison ---------------------------------------------------------------

std::vector<uint8_t> floatBytes(const std::vector<float>& values) {
    std::vector<uint8_t> bytes(values.size() * 4);
    std::memcpy(bytes.data(), values.data(), bytes.size());
    return bytes;
}

LoadedModel twoOutputs() {
    LoadedModel model;
    const std::string text = R"({
      "operands": [
        {"type": 5, "dims": [3], "scale": 1, "zeroPoint": 0, "lifetime": "output"},
        {"type": 3, "dims": [2], "scale": 0, "zeroPoint": 0, "lifetime": "output"}],
      "operations": [], "inputs": [], "outputs": [0, 1],
      "expected": [[10, 20, 30], [0.5, -1.0]], "tolerance": 1})";
    EXPECT_EQ(load(text, model), "");
    return model;
}

TEST(CompareOutputs, ToleranceNanAndTheFirstMismatch) {
    const LoadedModel model = twoOutputs();
    Comparison comparison = compareOutputs(model, {{11, 19, 30}, floatBytes({1.5f, -2.0f})});
    EXPECT_TRUE(comparison.matched()) << comparison.detail;
    EXPECT_EQ(comparison.maxDifference, 1.0);

    comparison = compareOutputs(model, {{10, 22, 33}, floatBytes({0.5f, -1.0f})});
    EXPECT_FALSE(comparison.matched());
    EXPECT_EQ(comparison.mismatches, 2u);
    EXPECT_EQ(comparison.detail, "output 0[1]: got 22, expected 20 (tolerance 1)");
    EXPECT_EQ(comparison.maxDifference, 3.0);

    comparison = compareOutputs(model, {{10, 20, 30}, floatBytes({std::numeric_limits<float>::quiet_NaN(), -1.0f})});
    EXPECT_EQ(comparison.mismatches, 1u);
    EXPECT_EQ(comparison.detail.rfind("output 1[0]: got nan", 0), 0u) << comparison.detail;

    comparison = compareOutputs(model, {{10, 20}, floatBytes({0.5f, -1.0f})});
    EXPECT_TRUE(comparison.sizeMismatch);
    EXPECT_EQ(comparison.detail, "output 0: 2 values, expected 3");
}

TEST(CompareOutputs, SkipsIgnoredOutputs) {
    LoadedModel model = twoOutputs();
    model.ignoredOutputs = {0};
    EXPECT_TRUE(compareOutputs(model, {{0, 0, 0}, floatBytes({0.5f, -1.0f})}).matched());
    model.ignoredOutputs = {1};
    EXPECT_TRUE(compareOutputs(model, {{10, 20, 30}, floatBytes({9.0f, -1.0f})}).matched());
    EXPECT_FALSE(compareOutputs(model, {{0, 0, 0}, floatBytes({0.5f, -1.0f})}).matched());
}

TEST(CompareOutputs, ReadsInt32Outputs) {
    LoadedModel model;
    ASSERT_EQ(load(R"({"operands": [{"type": 4, "dims": [2], "scale": 0, "zeroPoint": 0, "lifetime": "output"}],
                       "operations": [], "inputs": [], "outputs": [0], "expected": [[-100000, 7]]})",
                   model),
              "");
    std::vector<uint8_t> bytes(8);
    const int32_t values[2] = {-100000, 8};
    std::memcpy(bytes.data(), values, 8);
    const Comparison comparison = compareOutputs(model, {bytes});
    EXPECT_EQ(comparison.mismatches, 1u) << "tolerance defaults to 0";
    EXPECT_EQ(formatValues(ElementKind::Int32, bytes, 8), "-100000 8");
}

TEST(FormatValues, ShortensLongBuffers) {
    EXPECT_EQ(formatValues(ElementKind::Uint8, {1, 2, 3, 4, 5}, 3), "1 2 3 ...");
    EXPECT_EQ(formatValues(ElementKind::Float32, floatBytes({0.25f, -3.0f}), 4), "0.25 -3");
    EXPECT_EQ(formatValues(ElementKind::Uint8, {}, 4), "");
}

}  // namespace
