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
        BadFile{"unknown operand type", replaced(R"({"type": 1, "dims": [])", R"({"type": 17, "dims": [])"),
                "model.json: operands[3].type: unknown operand type 17"},
        BadFile{"scalar with dims", replaced(R"({"type": 1, "dims": [])", R"({"type": 1, "dims": [1])"),
                "model.json: operands[3].dims: a scalar has no dimensions, got [1]"},
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
