// Model-file loader and the run helpers, where the in-memory result matters:
// the bytes handed to the plug-in for every operand type, the half
// conversion and NaN in the output comparison. The loader's refusals,
// lenient loading and the partition are command-line cases (tests/cli).
#include "zelhost/model_file.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include "zelhost/execution.h"

using namespace arv::nnhal;
using namespace arv::nnhal::host;

namespace {

std::string load(const std::string& text, LoadedModel& model) {
    return parseModel(text, "model.json", model, LoadOptions{});
}

std::string oneOperand(int32_t type, const std::string& dims, const std::string& data, const std::string& extra = "") {
    return R"({"operands": [{"type": )" + std::to_string(type) + R"(, "dims": )" + dims +
           R"(, "scale": 0, "zeroPoint": 0, "lifetime": "constant", "data": )" + data + extra +
           R"(}], "operations": [], "inputs": [], "outputs": [0]})";
}

// The rows of a "; "-separated table in this folder, comment lines skipped.
std::vector<std::vector<std::string>> readTable(const std::string& name) {
    std::ifstream in(ZEL_FRONTEND_DATA_DIR "/" + name);
    std::vector<std::vector<std::string>> rows;
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        rows.emplace_back();
        for (size_t at = 0, end = 0; end != std::string::npos; at = end + 2) {
            end = line.find("; ", at);
            rows.back().push_back(line.substr(at, end == std::string::npos ? end : end - at));
        }
    }
    EXPECT_FALSE(rows.empty()) << name;
    return rows;
}

// The bytes handed to the plug-in for one constant of each operand type
// (operand_bytes.txt); type 11 also keeps its channel scales.
TEST(Loader, StoresEveryOperandType) {
    for (const auto& f : readTable("operand_bytes.txt")) {
        ASSERT_EQ(f.size(), 4u);
        const bool perChannel = f[0] == "11";
        const char* scales = R"(, "channelQuant": {"channelDim": 0, "scales": [0.5, 2]})";
        LoadedModel model;
        ASSERT_EQ(load(oneOperand(std::stoi(f[0]), f[1], f[2], perChannel ? scales : ""), model), "") << f[0];
        const DataResult data = model.graph->getOperand(0)->getData();
        ASSERT_EQ(data.status, Status::SUCCESS) << f[0];
        std::string hex;
        char byte[4];
        for (size_t i = 0; i < data.length; ++i) hex.append(byte, std::snprintf(byte, 4, " %02x", data.data[i]));
        EXPECT_EQ(hex, " " + f[3]) << "type " << f[0];
        EXPECT_EQ(operandByteSize(*model.graph, 0), data.length) << "type " << f[0];
        if (perChannel) {
            EXPECT_EQ(model.graph->operand(0).mChannelScales, (std::vector<float>{0.5f, 2.0f}));
        }
    }
}

// The half rounding edges of half_rounding.txt; NaN stays NaN, and every
// finite half survives the round trip.
TEST(Half, RoundsToNearestEven) {
    for (const auto& f : readTable("half_rounding.txt")) {
        ASSERT_EQ(f.size(), 3u);
        EXPECT_EQ(toHalf(std::strtod(f[0].c_str(), nullptr)), std::stoul(f[1], nullptr, 16)) << f[0] << ": " << f[2];
    }
    EXPECT_EQ(toHalf(std::numeric_limits<double>::quiet_NaN()) & 0x7E00u, 0x7E00u);
    EXPECT_EQ(fromHalf(0xFC00), -std::numeric_limits<double>::infinity());
    for (uint32_t bits = 0; bits < 0x7C00; ++bits) {
        ASSERT_EQ(toHalf(fromHalf(static_cast<uint16_t>(bits))), bits) << "every finite half survives the round trip";
    }
}

// NaN never matches, whatever the tolerance.
TEST(CompareOutputs, NanNeverMatches) {
    LoadedModel model;
    ASSERT_EQ(load(R"({"operands": [{"type": 3, "dims": [2], "scale": 0, "zeroPoint": 0, "lifetime": "output"}],
        "operations": [], "inputs": [], "outputs": [0], "expected": [[0.5, -1.0]], "tolerance": 1000})",
                   model),
              "");
    const float values[2] = {std::numeric_limits<float>::quiet_NaN(), -1.0f};
    std::vector<uint8_t> bytes(sizeof values);
    std::memcpy(bytes.data(), values, sizeof values);
    const Comparison comparison = compareOutputs(model, {bytes});
    EXPECT_EQ(comparison.mismatches, 1u);
    EXPECT_EQ(comparison.detail.rfind("output 0[0]: got nan", 0), 0u) << comparison.detail;
}

}  // namespace
