// Keeps the support matrix in README.md in step with the support and
// lowering tables: the matrix is generated from them, never edited by hand.
// Run with ZEL_WRITE_README=1 to rewrite the block in place.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "zel_operations_check_quant8.h"
#include "zel_operations_prepare_quant8.h"
#include "zel_utils.h"

namespace {

using arv::nnhal::OperandType;
using arv::nnhal::OperationType;
using namespace arv::nnhal::zel;

const char* kBegin = "<!-- support-matrix:begin -->";
const char* kEnd = "<!-- support-matrix:end -->";

std::string operationName(OperationType type) {
    const std::string name = toString(type);
    if (name != "UNKNOWN_OPERATION_TYPE") return name;
    // The diagnostic names leave this one out on purpose; the matrix names it.
    if (type == OperationType::TRANSPOSE_CONV_2D) return "TRANSPOSE_CONV_2D";
    return "operation " + std::to_string(static_cast<int32_t>(type));
}

std::string generateMatrix() {
    const auto& checks = getOperationCheckTable();
    const auto& lowering = getOperationPrepareTable();
    std::set<OperationType> operations;
    for (const auto& row : checks) operations.insert(row.first.first);
    for (const auto& row : lowering) operations.insert(row.first.first);
    const OperandType types[] = {OperandType::TENSOR_QUANT8, OperandType::TENSOR_FP32, OperandType::TENSOR_INT32};
    std::ostringstream out;
    out << kBegin << "\n| operation | code |";
    for (OperandType t : types) out << " " << toString(t) << " |";
    out << "\n|---|---|";
    for (size_t i = 0; i < sizeof types / sizeof types[0]; ++i) out << "---|";
    out << "\n";
    for (OperationType op : operations) {
        out << "| " << operationName(op) << " | " << static_cast<int32_t>(op) << " |";
        for (OperandType t : types) {
            const bool checked = checks.count({op, t}) != 0;
            const bool lowered = lowering.count({op, t}) != 0;
            out << " "
                << (checked && lowered ? "rules + lowering"
                    : checked          ? "rules only"
                    : lowered          ? "lowering only"
                                       : "-")
                << " |";
        }
        out << "\n";
    }
    out << "\nEvery operation or operand type not listed is reported unsupported (level 1). "
           "`TRANSPOSE_CONV_2D` has rows but its rule always refuses.\n"
        << kEnd;
    return out.str();
}

TEST(SupportMatrix, ReadmeMatchesTheTables) {
    const std::string path = std::string(ZEL_SOURCE_DIR) + "/README.md";
    std::ifstream in(path);
    ASSERT_TRUE(in.good()) << path;
    std::stringstream buffer;
    buffer << in.rdbuf();
    std::string readme = buffer.str();
    const auto begin = readme.find(kBegin);
    const auto end = readme.find(kEnd);
    ASSERT_NE(begin, std::string::npos) << "README.md lacks " << kBegin;
    ASSERT_NE(end, std::string::npos) << "README.md lacks " << kEnd;
    const std::string current = readme.substr(begin, end + std::string(kEnd).size() - begin);
    const std::string expected = generateMatrix();
    if (current != expected && std::getenv("ZEL_WRITE_README") != nullptr) {
        readme.replace(begin, current.size(), expected);
        std::ofstream(path) << readme;
        return;
    }
    EXPECT_EQ(current, expected) << "regenerate with: ZEL_WRITE_README=1 ctest -R support_matrix";
}

}  // namespace
