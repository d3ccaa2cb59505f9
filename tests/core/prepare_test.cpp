// Preparing and executing a model: the build steps in order, clearing on
// failure, vote pairing and the host's buffers at execution. Runtime faults
// at every call are swept in reliability_fault_test.
#include <algorithm>

#include "core_fixture.h"

namespace zelcore {
namespace {

using arv::nnhal::ExecutionPerformance;

constexpr ExecutionPerformance kSpeed = ExecutionPerformance::SUSTAINED_SPEED;

class Prepare : public CoreTest {
protected:
    // True when `wanted` appears in the debug lines in this order.
    bool inOrder(const std::vector<std::string>& wanted) const {
        const auto lines = log.texts();
        auto at = lines.begin();
        for (const auto& w : wanted) {
            at = std::find(at, lines.end(), w);
            if (at == lines.end()) return false;
            ++at;
        }
        return true;
    }

    HostGraph graph;
};

std::vector<std::string> withClearing(const std::string& first) {
    return {first, "Something went wrong. Clearing the model and aborting.", "Out ZelModel::prepare()"};
}

TEST_F(Prepare, EmptyGraphPreparesAndExecutes) {
    auto model = build(graph);
    const size_t mark = zelsim::calls().size();  // the binding's own config call comes before
    ASSERT_TRUE(model->prepare(kSpeed));
    const int id = static_cast<int>(model->graphId());
    std::vector<std::string> entries;
    for (size_t i = mark; i < zelsim::calls().size(); ++i) entries.push_back(zelsim::calls()[i].entry);
    EXPECT_EQ((std::vector<std::string>{"init", "set_config_params", "set_debug_level", "append_node", "append_node",
                                        "prepare"}),
              entries);
    expectChain(id, {"1 INPUT pad=0 [] -> []", "2 OUTPUT pad=0 [] -> []"});
    EXPECT_TRUE(zelsim::graphPrepared(id));
    EXPECT_TRUE(inOrder({
        "mNnLib->init() finished, graph id: " + std::to_string(id) + ", error code: 0",
        "mNnLib->set_debug_level() finished, error code: 0",
        "Out ZelModel::operationPreProcess()",
        "Out ZelModel::addBatchSeqConfig()",
        "Out ZelModel::addInputs()",
        "Out ZelModel::addOperations()",
        "Out ZelModel::addOutputs()",
        "Finished append nodes.",
        "mNnLib->prepare() finished, error code: 0",
        "Out ZelModel::prepare()",
    }));
    EXPECT_TRUE(log.errors().empty());
    expectVotes(*model, 1, 1);

    log.clear();
    EXPECT_TRUE(model->execute(&graph));
    EXPECT_EQ(1, zelsim::callCount("execute_new"));
    EXPECT_TRUE(inOrder({"In ZelModel::execute(IGraph* graph)", "ZelModel::execute was SUCCESSFUL",
                         "Out ZelModel::execute(IGraph* graph)"}));
    expectVotes(*model, 2, 2);
    EXPECT_FALSE(model->getGraph().empty());
}

// Input node, the relu with its range constants, the way back to the
// declared range and the output node; then the relu computed on the host's
// buffers.
TEST_F(Prepare, QuantizedGraphRunsOnTheHostBuffers) {
    const uint32_t in = graph.addQuant8({1, 2, 2, 1}, 0.5f, 128, Lifetime::Input);
    const uint32_t out = graph.addQuant8({1, 2, 2, 1}, 0.5f, 128, Lifetime::Output);
    graph.addOperation(OperationType::RELU, {in}, {out});
    graph.setInputs({in});
    graph.setOutputs({out});
    auto model = build(graph);
    const bool prepared = model->prepare(kSpeed);
    const int id = static_cast<int>(model->graphId());
    expectChain(id, {
                        "1 INPUT pad=0 [] -> [1x2x2x1*1]",
                        "2 const 1x1x1x1 f32 -64",
                        "3 const 1x1x1x1 f32 63.5",
                        "4 QuantizedRelu_8 pad=0 [1:0 2:0 3:0] -> [1x2x2x1*1 " RANGES "]",
                        "5 Dequantize pad=0 [4:0 4:1 4:2] -> [1x2x2x1*4]",
                        "6 const 1x1x1x1 f32 -64",
                        "7 const 1x1x1x1 f32 63.5",
                        "8 Quantize pad=0 [5:0 6:0 7:0] -> [1x2x2x1*1 " RANGES "]",
                        "9 OUTPUT pad=0 [8:0] -> []",
                    });
    ASSERT_TRUE(prepared) << zelsim::lastError(id) << ::testing::PrintToString(log.errors());

    uint8_t inputBytes[4] = {100, 128, 200, 255};
    uint8_t outputBytes[4] = {0, 0, 0, 0};
    graph.bindInput(0, inputBytes, sizeof(inputBytes));
    graph.bindOutput(0, outputBytes, sizeof(outputBytes));
    graph.setExecuting(true);
    ASSERT_TRUE(model->execute(&graph)) << zelsim::lastError(id);
    const uint8_t expected[4] = {128, 128, 200, 255};
    for (int i = 0; i < 4; ++i) EXPECT_NEAR(expected[i], outputBytes[i], 1) << i;
}

TEST_F(Prepare, ExecutionRefusesWhatCannotBeDescribed) {
    graph.setInputs({graph.addQuant8({1, 1, 1, 2, 2}, 1.0f, 0, Lifetime::Input)});
    auto model = build(graph);
    EXPECT_FALSE(model->execute(&graph));
    EXPECT_FALSE(model->execute(nullptr));
    const std::vector<std::string> expected = {"Operand 0 has more than 4 dimensions and cannot be executed",
                                               "No graph to execute"};
    EXPECT_EQ(expected, errorTexts());
    EXPECT_EQ(0, zelsim::callCount("execute_new"));
    expectVotes(*model, 2, 2);
}

// An operation that cannot be lowered votes down, clears the model (its
// references forgotten) and tears the runtime graph down.
TEST_F(Prepare, LoweringFailuresClearTheModel) {
    struct Row {
        OperationType type;
        OperandType operandType;
        int inputs;
        std::string error;
    };
    const Row rows[] = {
        {OperationType::ADD, OperandType::TENSOR_FP32, 3, "Operation not found"},
        {OperationType::OEM_SPLIT, OperandType::TENSOR_QUANT8, 1,
         "failed operation->getNumInputs() >= 2 (1 >= 2): Need at least 2 inputs for OEM op"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.error);
        SetUp();
        HostGraph g;
        const uint32_t a = g.addOperand(row.operandType, {1, 2}, 0.5f, 0, Lifetime::Input);
        const uint32_t out = g.addOperand(row.operandType, {1, 2}, 0.5f, 0, Lifetime::Output);
        g.addOperation(row.type,
                       row.inputs == 3 ? std::vector<uint32_t>{a, a, g.addInt32(0)} : std::vector<uint32_t>{a}, {out});
        g.setInputs({a});
        g.setOutputs({out});
        auto model = build(g);
        EXPECT_FALSE(model->prepare(kSpeed));
        EXPECT_EQ(withClearing(row.error), errorTexts());
        EXPECT_FALSE(zelsim::graphExists(static_cast<int>(model->graphId())));
        EXPECT_EQ(input{}, model->operands()[a].kestrel_input);
        expectVotes(*model, 1, 2);  // the prepare's own down vote and the clearing's
    }
    EXPECT_EQ(1u, log.count("operationType: OEM_SPLIT"));
}

// The vendor LSTM's operands are checked in order before any node; sizes
// already doubled to two-byte elements stay doubled.
TEST_F(Prepare, VendorLstmPreprocessingChecksInOrder) {
    constexpr OperandType kByte = OperandType::TENSOR_CUSTOM_BYTE;
    constexpr OperandType kQuant = OperandType::TENSOR_QUANT8;
    struct Row {
        int inputs;
        OperandType input5;
        int outputs;
        OperandType output1;
        OperandType output3;
        std::string error;
        uint32_t input5Size, output1Size;
    };
    const Row rows[] = {
        {5, kByte, 4, kByte, kByte, "failed 6 == operation->getNumInputs() (6 == 5): OEM LSTM op requires 6 inputs", 0,
         1},
        {6, kQuant, 4, kByte, kByte, "OEM LSTM op input 5 must be in type TENSOR_CUSTOM_BYTE", 1, 1},
        {6, kByte, 3, kByte, kByte, "failed 4 == operation->getNumOutputs() (4 == 3): OEM LSTM op requires 4 outputs",
         2, 1},
        {6, kByte, 4, kQuant, kByte, "OEM LSTM op output 1 must be in type TENSOR_CUSTOM_BYTE", 2, 1},
        {6, kByte, 4, kByte, kQuant, "OEM LSTM op output 3 must be in type TENSOR_CUSTOM_BYTE", 2, 2},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.error);
        SetUp();
        HostGraph lstm;
        std::vector<uint32_t> ins, outs;
        for (int i = 0; i < row.inputs; ++i) {
            ins.push_back(lstm.addOperand(i == 5 ? row.input5 : kQuant, {1, 8}, 0.5f, 0, Lifetime::Input));
        }
        for (int i = 0; i < row.outputs; ++i) {
            const OperandType type = i == 1 ? row.output1 : i == 3 ? row.output3 : kQuant;
            outs.push_back(lstm.addOperand(type, {1, 8}, 0.5f, 0, Lifetime::Output));
        }
        lstm.addOperation(OperationType::OEM_LSTM, ins, outs);
        lstm.setInputs(ins);
        lstm.setOutputs(outs);
        auto model = build(lstm);
        EXPECT_FALSE(model->prepare(kSpeed));
        EXPECT_EQ(withClearing(row.error), errorTexts());
        EXPECT_EQ(0, zelsim::callCount("append_node"));
        if (row.inputs > 5) {
            EXPECT_EQ(row.input5Size, model->operands()[ins[5]].elementSize);
        }
        EXPECT_EQ(row.output1Size, model->operands()[outs[1]].elementSize);
    }
}

TEST_F(Prepare, PrepareAfterFailureUsesAFreshGraph) {
    auto model = build(graph);
    zelsim::failCall("append_node", 1, -1);
    EXPECT_FALSE(model->prepare(kSpeed));
    EXPECT_EQ(withClearing("failed 0 != node (0 != 0): Error adding input operation"), errorTexts());
    const int first = static_cast<int>(model->graphId());
    EXPECT_FALSE(zelsim::graphExists(first));

    ASSERT_TRUE(model->prepare(kSpeed));
    const int second = static_cast<int>(model->graphId());
    EXPECT_NE(first, second);
    EXPECT_TRUE(zelsim::graphPrepared(second));
    expectChain(second, {"2 INPUT pad=0 [] -> []", "3 OUTPUT pad=0 [] -> []"});  // the refused node used id 1
    expectVotes(*model, 2, 3);
}

TEST_F(Prepare, DumpsWithoutARuntimeGraph) {
    auto model = build(graph);
    EXPECT_EQ("", model->getLog());
    EXPECT_EQ("", model->getGraph());
    const std::vector<std::string> expected = {"failed 0 == err (0 == -1): failed getLog",
                                               "failed 0 == err (0 == -1): failed getGraph"};
    EXPECT_EQ(expected, errorTexts());
}

}  // namespace
}  // namespace zelcore
