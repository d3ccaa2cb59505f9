// The support table and the lowering table agree: every row the support
// query can accept lowers, and the lowered graph passes the simulator.
#include <set>

#include "lowering_support.h"
#include "zel_operations_check_quant8.h"
#include "zel_operations_prepare_quant8.h"

namespace lowering {
namespace {

using arv::nnhal::ExecutionPerformance;
using Key = std::pair<OperationType, OperandType>;

template <typename Table>
std::set<Key> keys(const Table& table) {
    std::set<Key> result;
    for (const auto& row : table) result.insert(row.first);
    return result;
}

TEST(LoweringTable, HoldsExactlyTheFifteenQuant8Rows) {
    const std::set<Key> expected = {
        {OperationType::ADD, OperandType::TENSOR_QUANT8},
        {OperationType::AVERAGE_POOL_2D, OperandType::TENSOR_QUANT8},
        {OperationType::CONCATENATION, OperandType::TENSOR_QUANT8},
        {OperationType::CONV_2D, OperandType::TENSOR_QUANT8},
        {OperationType::DEPTHWISE_CONV_2D, OperandType::TENSOR_QUANT8},
        {OperationType::FULLY_CONNECTED, OperandType::TENSOR_QUANT8},
        {OperationType::MAX_POOL_2D, OperandType::TENSOR_QUANT8},
        {OperationType::PRELU, OperandType::TENSOR_QUANT8},
        {OperationType::RELU, OperandType::TENSOR_QUANT8},
        {OperationType::RELU1, OperandType::TENSOR_QUANT8},
        {OperationType::RELU6, OperandType::TENSOR_QUANT8},
        {OperationType::RESIZE_BILINEAR, OperandType::TENSOR_QUANT8},
        {OperationType::RESHAPE, OperandType::TENSOR_QUANT8},
        {OperationType::SUB, OperandType::TENSOR_QUANT8},
        {OperationType::TRANSPOSE_CONV_2D, OperandType::TENSOR_QUANT8},
    };
    EXPECT_EQ(expected, keys(arv::nnhal::zel::getOperationPrepareTable()));
    EXPECT_EQ(&arv::nnhal::zel::getOperationPrepareTable(), &arv::nnhal::zel::getOperationPrepareTable());
}

TEST(LoweringTable, HasTheRowsOfTheSupportTable) {
    EXPECT_EQ(keys(arv::nnhal::zel::getOperationCheckTable()), keys(arv::nnhal::zel::getOperationPrepareTable()));
}

TEST(LoweringTable, TransposeConvRowRefuses) {
    const auto& table = arv::nnhal::zel::getOperationPrepareTable();
    const auto row = table.find({OperationType::TRANSPOSE_CONV_2D, OperandType::TENSOR_QUANT8});
    ASSERT_NE(table.end(), row);
    EXPECT_FALSE(row->second({0, 1, 2, 3, 4, 5, 6}, {7}, nullptr));
}

// Every row but TRANSPOSE_CONV_2D has at least one canonical graph.
TEST(LoweringTable, EveryLowerableRowHasACanonicalGraph) {
    std::set<Key> covered;
    for (const Canonical& c : canonicalGraphs()) {
        HostGraph graph;
        c.build(graph);
        ASSERT_EQ(1u, graph.getOperationCount()) << c.name;
        const auto* op = graph.getOperation(0);
        covered.insert({op->getType(), graph.getOperand(op->getInput(0))->getType()});
    }
    std::set<Key> expected = keys(arv::nnhal::zel::getOperationPrepareTable());
    expected.erase({OperationType::TRANSPOSE_CONV_2D, OperandType::TENSOR_QUANT8});
    EXPECT_EQ(expected, covered);
}

class SupportedLowersTest : public LoweringTest, public ::testing::WithParamInterface<Canonical> {};

// The support query accepts the graph, writing its output shapes; the same
// model then prepares with the default output path and every node passes.
TEST_P(SupportedLowersTest, AcceptedGraphPreparesAndValidates) {
    HostGraph graph;
    GetParam().build(graph);
    auto model = build(graph);
    ASSERT_TRUE(model);
    ASSERT_EQ(0, model->getOperationSupportLevel(graph.getOperation(0)));

    ASSERT_TRUE(model->prepare(ExecutionPerformance::SUSTAINED_SPEED)) << zelsim::lastError(model->graphId());
    const int id = static_cast<int>(model->graphId());
    EXPECT_TRUE(allAccepted(id));
    EXPECT_TRUE(zelsim::graphPrepared(id));
    // Nodes of the default path: the chain plus the output range fix-up.
    EXPECT_EQ(GetParam().chain.size() + 4, zelsim::nodes(id).size());
}

INSTANTIATE_TEST_SUITE_P(Canonical, SupportedLowersTest, ::testing::ValuesIn(canonicalGraphs()),
                         [](const ::testing::TestParamInfo<Canonical>& info) { return info.param.name; });

}  // namespace
}  // namespace lowering
