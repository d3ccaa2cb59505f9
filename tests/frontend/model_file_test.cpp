// Model-file loader and the run helpers, where the in-memory result matters:
// the bytes handed to the plug-in for every operand type, the half
// conversion, lenient loading, the partition and the output comparison.
// The loader's refusals are command-line cases (tests/cli/model-*).
#include "zelhost/model_file.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "zelhost/execution.h"

using namespace arv::nnhal;
using namespace arv::nnhal::host;

namespace {

std::string load(const std::string& text, LoadedModel& model, bool strict = true) {
    LoadOptions options;
    options.checkIndices = strict;
    return parseModel(text, "model.json", model, options);
}

std::string oneOperand(int32_t type, const std::string& dims, const std::string& data, const std::string& extra = "") {
    return R"({"operands": [{"type": )" + std::to_string(type) + R"(, "dims": )" + dims +
           R"(, "scale": 0, "zeroPoint": 0, "lifetime": "constant")" + (data.empty() ? "" : ", \"data\": " + data) +
           extra + R"(}], "operations": [], "inputs": [], "outputs": [0]})";
}

// One constant of each type of the numbering, at the edges of its range: the
// little-endian bytes the plug-in is handed.
TEST(Loader, StoresEveryOperandType) {
    struct Row {
        int32_t type;
        const char* dims;
        const char* data;
        std::vector<uint8_t> bytes;
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
        LoadedModel model;
        ASSERT_EQ(load(oneOperand(row.type, row.dims, row.data, channel), model), "") << row.type;
        const DataResult data = model.graph->getOperand(0)->getData();
        ASSERT_EQ(data.status, Status::SUCCESS) << row.type;
        EXPECT_EQ(std::vector<uint8_t>(data.data, data.data + data.length), row.bytes) << "type " << row.type;
        EXPECT_EQ(operandByteSize(*model.graph, 0), row.bytes.size()) << "type " << row.type;
        if (row.type == 11) {
            EXPECT_EQ(model.graph->operand(0).mChannelScales, (std::vector<float>{0.5f, 2.0f}));
        }
    }
}

// Round to nearest, ties to the even mantissa, at every boundary of the half
// format; every finite half survives the round trip.
TEST(Half, RoundsToNearestEven) {
    const std::pair<double, uint16_t> cases[] = {
        {1.0 + std::ldexp(1.0, -11), 0x3C00},
        {1.0 + 3 * std::ldexp(1.0, -11), 0x3C02},
        {1.0 + std::ldexp(1.0, -11) + std::ldexp(1.0, -30), 0x3C01},
        {65519.99, 0x7BFF},
        {65520.0, 0x7C00},
        {-1e6, 0xFC00},
        {std::ldexp(1.0, -14), 0x0400},
        {std::ldexp(1023.5, -24), 0x0400},
        {std::ldexp(1.0, -24), 0x0001},
        {std::ldexp(1.0, -25), 0x0000},
        {std::ldexp(3.0, -26), 0x0001},
        {-std::ldexp(1.0, -26), 0x8000},
        {2049.0, 0x6800},
        {2051.0, 0x6802},
    };
    for (const auto& [value, bits] : cases) EXPECT_EQ(toHalf(value), bits) << value;
    EXPECT_EQ(toHalf(std::numeric_limits<double>::quiet_NaN()) & 0x7E00u, 0x7E00u);
    EXPECT_EQ(fromHalf(0xFC00), -std::numeric_limits<double>::infinity());
    for (uint32_t bits = 0; bits < 0x7C00; ++bits) {
        ASSERT_EQ(toHalf(fromHalf(static_cast<uint16_t>(bits))), bits) << "every finite half survives the round trip";
    }
}

// Lenient loading keeps graph-level oddities as they are.
TEST(LenientLoader, KeepsGraphOdditiesAsTheyAre) {
    LoadedModel model;
    ASSERT_EQ(load(oneOperand(17, "[]", "[1]"), model, false), "");
    EXPECT_EQ(static_cast<int32_t>(model.graph->getOperand(0)->getType()), 17);
    ASSERT_EQ(load(oneOperand(5, "[2, 2]", "[1, 2, 3]"), model, false), "");
    EXPECT_EQ(model.graph->getOperand(0)->getData().length, 3u) << "a short constant";
    ASSERT_EQ(load(oneOperand(4, "[1]", ""), model, false), "");
    EXPECT_NE(model.graph->getOperand(0)->getData().status, Status::SUCCESS) << "a constant without data";
}

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
    const Partition p = partitionGraph(g, {0, 1, 2, 0, -1});
    ASSERT_EQ(p.segments.size(), 4u);
    EXPECT_FALSE(p.segments[1].accelerator) << "levels 1 and 2 both stay on the CPU, in one run";
    EXPECT_EQ(p.segments[1].last, 2u);
    EXPECT_EQ(p.segments[1].macs, 162u + 180u);
    EXPECT_FALSE(p.segments[3].accelerator) << "an operation without an answer is not the accelerator's";
    EXPECT_EQ(p.acceleratorMacs, 1800u);
    EXPECT_EQ(p.macs, 2142u) << "the wrong-rank convolution counts no MACs";
}

std::vector<uint8_t> floatBytes(const std::vector<float>& values) {
    std::vector<uint8_t> bytes(values.size() * 4);
    std::memcpy(bytes.data(), values.data(), bytes.size());
    return bytes;
}

// NaN never matches; an ignored output is never compared.
TEST(CompareOutputs, NanAndIgnoredOutputs) {
    LoadedModel model;
    ASSERT_EQ(load(R"({"operands": [
        {"type": 5, "dims": [3], "scale": 1, "zeroPoint": 0, "lifetime": "output"},
        {"type": 3, "dims": [2], "scale": 0, "zeroPoint": 0, "lifetime": "output"}],
        "operations": [], "inputs": [], "outputs": [0, 1], "expected": [[10, 20, 30], [0.5, -1.0]], "tolerance": 1})",
                   model),
              "");
    const float nan = std::numeric_limits<float>::quiet_NaN();
    Comparison comparison = compareOutputs(model, {{10, 20, 30}, floatBytes({nan, -1.0f})});
    EXPECT_EQ(comparison.mismatches, 1u);
    EXPECT_EQ(comparison.detail.rfind("output 1[0]: got nan", 0), 0u) << comparison.detail;
    model.ignoredOutputs = {1};
    EXPECT_TRUE(compareOutputs(model, {{10, 20, 30}, floatBytes({nan, -1.0f})}).matched());
    EXPECT_FALSE(compareOutputs(model, {{0, 0, 0}, floatBytes({0.5f, -1.0f})}).matched());
}

}  // namespace
