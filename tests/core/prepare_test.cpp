// Preparing and executing a model: runtime configuration, the build steps,
// clearing on failure, vote pairing and the host's buffers at execution.
#include <algorithm>

#include "core_fixture.h"

namespace zelcore {
namespace {

using arv::nnhal::ExecutionPerformance;

constexpr ExecutionPerformance kSpeed = ExecutionPerformance::SUSTAINED_SPEED;

class Prepare : public CoreTest {
protected:
    void SetUp() override {
        CoreTest::SetUp();
        mark = zelsim::calls().size();  // the binding's own config call comes before
    }

    // Entry points called since the test began.
    std::vector<std::string> entries() const {
        std::vector<std::string> out;
        const auto all = zelsim::calls();
        for (size_t i = mark; i < all.size(); ++i) out.push_back(all[i].entry);
        return out;
    }

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

    size_t mark = 0;
    HostGraph graph;
};

const std::vector<std::string> kClearingLines = {"Something went wrong. Clearing the model and aborting.",
                                                 "Out ZelModel::prepare()"};

std::vector<std::string> withClearing(const std::string& first) {
    std::vector<std::string> lines = {first};
    lines.insert(lines.end(), kClearingLines.begin(), kClearingLines.end());
    return lines;
}

// ---------------------------------------------------------------------------
// The successful path.

TEST_F(Prepare, EmptyGraphPreparesAndExecutes) {
    auto model = build(graph);
    ASSERT_TRUE(model->prepare(kSpeed));
    const int id = static_cast<int>(model->graphId());
    EXPECT_NE(0, id);
    EXPECT_EQ((std::vector<std::string>{"init", "set_config_params", "set_debug_level", "append_node", "append_node",
                                        "prepare"}),
              entries());
    const std::vector<NodeRow> nodes = {
        {1, ZEL_OP_INPUT, {}},
        {2, ZEL_OP_OUTPUT, {}},
    };
    expectNodes(id, 0, nodes);
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

TEST_F(Prepare, QuantizedGraphRunsOnTheHostBuffers) {
    const uint32_t in = graph.addQuant8({1, 2, 2, 1}, 0.5f, 128, Lifetime::Input);
    const uint32_t out = graph.addQuant8({1, 2, 2, 1}, 0.5f, 128, Lifetime::Output);
    graph.addOperation(OperationType::RELU, {in}, {out});
    graph.setInputs({in});
    graph.setOutputs({out});
    auto model = build(graph);
    const bool prepared = model->prepare(kSpeed);
    const int id = static_cast<int>(model->graphId());
    // Input node, the relu with its range constants, then the way back to
    // the declared range and the output node.
    const std::vector<NodeRow> nodes = {
        {1, ZEL_OP_INPUT, {}},
        {2, kConst, {}},
        {3, kConst, {}},
        {4, ZEL_OP_QuantizedRelu_8, {{1, 0}, {2, 0}, {3, 0}}},
        {5, ZEL_OP_Dequantize, {{4, 0}, {4, 1}, {4, 2}}},
        {6, kConst, {}},
        {7, kConst, {}},
        {8, ZEL_OP_Quantize, {{5, 0}, {6, 0}, {7, 0}}},
        {9, ZEL_OP_OUTPUT, {{8, 0}}},
    };
    expectNodes(id, 0, nodes);
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

TEST_F(Prepare, RuntimeErrorAtExecutionKeepsTheModelPrepared) {
    auto model = build(graph);
    ASSERT_TRUE(model->prepare(kSpeed));
    zelsim::failCall("execute_new", 1, -1);
    EXPECT_FALSE(model->execute(&graph));
    EXPECT_EQ(1u, log.count("ZelModel::execute was UNSUCCESSFUL"));
    EXPECT_EQ(1u, log.count("Out ZelModel::execute(IGraph* graph)"));
    EXPECT_TRUE(model->execute(&graph));
    EXPECT_EQ(1u, log.count("ZelModel::execute was SUCCESSFUL"));
    EXPECT_EQ(0, zelsim::callCount("teardown"));
    expectVotes(*model, 3, 3);
}

TEST_F(Prepare, ExecutionRefusesWhatCannotBeDescribed) {
    const uint32_t big = graph.addQuant8({1, 1, 1, 2, 2}, 1.0f, 0, Lifetime::Input);
    graph.setInputs({big});
    auto model = build(graph);
    EXPECT_FALSE(model->execute(&graph));
    EXPECT_FALSE(model->execute(nullptr));
    const std::vector<std::string> expected = {"Operand 0 has more than 4 dimensions and cannot be executed",
                                               "No graph to execute"};
    EXPECT_EQ(expected, errorTexts());
    EXPECT_EQ(0, zelsim::callCount("execute_new"));
    EXPECT_EQ(2u, log.count("ZelModel::execute was UNSUCCESSFUL"));
    expectVotes(*model, 2, 2);
}

// ---------------------------------------------------------------------------
// Failures before any node: no vote, no clearing.

TEST_F(Prepare, RuntimeConfigurationFailures) {
    struct Row {
        const char* entry;
        int code;
        const char* error;
        bool graphKept;
    };
    const Row rows[] = {
        {"init", 3, "failed 0 == mModelPrepareErrorCode (0 == 3): Zel could not allocate new graph", false},
        {"set_config_params", -1, "failed 0 == mModelPrepareErrorCode (0 == -1): mNnLib->set_config_params() failed",
         true},
        {"set_debug_level", -1, "failed 0 == mModelPrepareErrorCode (0 == -1): mNnLib->set_debug_level() failed", true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.entry);
        SetUp();
        auto model = build(graph);
        zelsim::failCall(row.entry, 1, row.code);
        EXPECT_FALSE(model->prepare(kSpeed));
        EXPECT_EQ(std::vector<std::string>{row.error}, errorTexts());
        EXPECT_EQ(0, zelsim::callCount("teardown"));
        EXPECT_EQ(0, zelsim::callCount("append_node"));
        expectVotes(*model, 0, 0);
        const int id = static_cast<int>(model->graphId());
        EXPECT_EQ(row.graphKept, id != 0 && zelsim::graphExists(id));
        // The destructor tears a kept graph down.
        model.reset();
        if (row.graphKept) {
            EXPECT_FALSE(zelsim::graphExists(id));
        }
    }
}

// ---------------------------------------------------------------------------
// Failures while appending: vote down, clear, tear down.

TEST_F(Prepare, UnknownOperationClearsTheModel) {
    const uint32_t a = graph.addFloatTensor({1, 2}, Lifetime::Input);
    const uint32_t b = graph.addFloatTensor({1, 2}, Lifetime::Input);
    const uint32_t act = graph.addInt32(0);
    const uint32_t out = graph.addFloatTensor({1, 2}, Lifetime::Output);
    graph.addOperation(OperationType::ADD, {a, b, act}, {out});
    graph.setInputs({a, b});
    graph.setOutputs({out});
    auto model = build(graph);
    EXPECT_FALSE(model->prepare(kSpeed));
    EXPECT_EQ(withClearing("Operation not found"), log.errors());
    EXPECT_EQ(1u, log.count("operationType: ADD"));
    EXPECT_EQ(1u, log.count("operandType: TENSOR_FP32"));
    const int id = static_cast<int>(model->graphId());
    EXPECT_FALSE(zelsim::graphExists(id));
    EXPECT_EQ(input{}, model->operands()[a].kestrel_input);  // references forgotten
    expectVotes(*model, 1, 2);                               // the prepare's own down vote and the clearing's
}

TEST_F(Prepare, OperationsThatCannotBeLowered) {
    struct Row {
        const char* name;
        OperationType type;
        int inputs;  // 0: none; 1: {q}; 3: {q, q, scalar without data}
        std::string error;
    };
    const Row rows[] = {
        {"no inputs", OperationType::RELU, 0, "Operation 0 has no inputs"},
        {"vendor op with one input", OperationType::OEM_SPLIT, 1,
         "failed operation->getNumInputs() >= 2 (1 >= 2): Need at least 2 inputs for OEM op"},
        {"scalar without data", OperationType::ADD, 3, "Scalar operand 2 has no data"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        SetUp();
        HostGraph g;
        const uint32_t q = g.addQuant8({1, 2}, 0.5f, 0, Lifetime::Input);
        const uint32_t out = g.addQuant8({1, 2}, 0.5f, 0, Lifetime::Output);
        const uint32_t scalar = g.addOperand(OperandType::SCALAR_INT32, {}, 0.0f, 0, Lifetime::Constant);
        ASSERT_EQ(2u, scalar);
        std::vector<uint32_t> ins;
        if (row.inputs >= 1) ins.push_back(q);
        if (row.inputs == 3) ins.insert(ins.end(), {q, scalar});
        g.addOperation(row.type, ins, {out});
        g.setInputs({q});
        g.setOutputs({out});
        std::unique_ptr<ZelModel> model(ZelModel::create(&g));
        ASSERT_NE(nullptr, model);
        EXPECT_FALSE(model->prepare(kSpeed));
        EXPECT_EQ(withClearing(row.error), errorTexts());
        EXPECT_FALSE(zelsim::graphExists(static_cast<int>(model->graphId())));
    }
}

TEST_F(Prepare, FailedLoweringIsReported) {
    const uint32_t in = graph.addQuant8({1, 2, 2, 1}, 0.5f, 0, Lifetime::Input);
    const uint32_t out = graph.addQuant8({1, 2, 2, 1}, 0.5f, 0, Lifetime::Output);
    graph.addOperation(OperationType::TRANSPOSE_CONV_2D, {in}, {out});
    graph.setInputs({in});
    graph.setOutputs({out});
    auto model = build(graph);
    EXPECT_FALSE(model->prepare(kSpeed));
    const std::vector<std::string> errors = log.errors();
    ASSERT_GE(errors.size(), 3u);
    EXPECT_EQ("error adding operation", errors[errors.size() - 3]);
    EXPECT_EQ(kClearingLines, std::vector<std::string>(errors.end() - 2, errors.end()));
}

class VendorLstm : public Prepare {
protected:
    // OEM_LSTM whose input 5 and outputs 1 and 3 have the given types.
    void buildLstm(HostGraph& graph, int inputCount, OperandType input5, int outputCount, OperandType output1,
                   OperandType output3) {
        std::vector<uint32_t> ins;
        for (int i = 0; i < inputCount; ++i) {
            const OperandType type = i == 5 ? input5 : OperandType::TENSOR_QUANT8;
            ins.push_back(graph.addOperand(type, {1, 8}, 0.5f, 0, Lifetime::Input));
        }
        std::vector<uint32_t> outs;
        for (int i = 0; i < outputCount; ++i) {
            const OperandType type = i == 1 ? output1 : i == 3 ? output3 : OperandType::TENSOR_QUANT8;
            outs.push_back(graph.addOperand(type, {1, 8}, 0.5f, 0, Lifetime::Output));
        }
        graph.addOperation(OperationType::OEM_LSTM, ins, outs);
        graph.setInputs(ins);
        graph.setOutputs(outs);
        cell = inputCount > 5 ? ins[5] : UINT32_MAX;
        out1 = outputCount > 1 ? outs[1] : UINT32_MAX;
        out3 = outputCount > 3 ? outs[3] : UINT32_MAX;
    }

    uint32_t cell = 0, out1 = 0, out3 = 0;
};

constexpr OperandType kByte = OperandType::TENSOR_CUSTOM_BYTE;
constexpr OperandType kQuant = OperandType::TENSOR_QUANT8;

TEST_F(VendorLstm, PreprocessingChecksInOrder) {
    struct Row {
        int inputs;
        OperandType input5;
        int outputs;
        OperandType output1;
        OperandType output3;
        std::string error;
        std::vector<int> doubled;  // 0: input 5, 1: output 1
    };
    const Row rows[] = {
        {5,
         kByte,
         4,
         kByte,
         kByte,
         "failed 6 == operation->getNumInputs() (6 == 5): OEM LSTM op requires 6 inputs",
         {}},
        {6, kQuant, 4, kByte, kByte, "OEM LSTM op input 5 must be in type TENSOR_CUSTOM_BYTE", {}},
        {6,
         kByte,
         3,
         kByte,
         kByte,
         "failed 4 == operation->getNumOutputs() (4 == 3): OEM LSTM op requires 4 outputs",
         {0}},
        {6, kByte, 4, kQuant, kByte, "OEM LSTM op output 1 must be in type TENSOR_CUSTOM_BYTE", {0}},
        {6, kByte, 4, kByte, kQuant, "OEM LSTM op output 3 must be in type TENSOR_CUSTOM_BYTE", {0, 1}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.error);
        SetUp();
        HostGraph lstm;
        buildLstm(lstm, row.inputs, row.input5, row.outputs, row.output1, row.output3);
        auto model = build(lstm);
        EXPECT_FALSE(model->prepare(kSpeed));
        EXPECT_EQ(1u, log.count("Do preprocessing for LSTM operation."));
        EXPECT_EQ(withClearing(row.error), errorTexts());
        EXPECT_EQ(0, zelsim::callCount("append_node"));
        EXPECT_FALSE(zelsim::graphExists(static_cast<int>(model->graphId())));
        // Sizes already changed stay changed.
        const bool cellDoubled = std::count(row.doubled.begin(), row.doubled.end(), 0) == 1;
        const bool out1Doubled = std::count(row.doubled.begin(), row.doubled.end(), 1) == 1;
        if (cell != UINT32_MAX) {
            EXPECT_EQ(cellDoubled ? 2u : 1u, model->operands()[cell].elementSize);
        }
        if (out1 != UINT32_MAX) {
            EXPECT_EQ(out1Doubled ? 2u : 1u, model->operands()[out1].elementSize);
        }
    }
}

TEST_F(VendorLstm, WellFormedOperandsGetTwoByteElements) {
    buildLstm(graph, 6, kByte, 4, kByte, kByte);
    auto model = build(graph);
    zelsim::setPassThrough(true);  // only the input node's records matter here
    // Preprocessing passes; the vendor operation has no lowering.
    EXPECT_FALSE(model->prepare(kSpeed));
    EXPECT_EQ(withClearing("Operation not found"), log.errors());
    EXPECT_EQ(1u, log.count("Out ZelModel::operationPreProcess()"));
    for (uint32_t index : {cell, out1, out3}) EXPECT_EQ(2u, model->operands()[index].elementSize) << index;
    // The custom-byte input's slot counts elements of two bytes.
    const auto inputNode = zelsim::nodes(static_cast<int>(model->graphId())).at(0);
    EXPECT_EQ(arv::nnhal::zel::make_kestrel_nn_output({1, 4}, 2), inputNode.outputs.at(5));
}

// ---------------------------------------------------------------------------
// Trying again.

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
    // Node ids carry on: the refused input node used id 1.
    const std::vector<NodeRow> nodes = {
        {2, ZEL_OP_INPUT, {}},
        {3, ZEL_OP_OUTPUT, {}},
    };
    expectNodes(second, 0, nodes);
    expectVotes(*model, 2, 3);
}

// ---------------------------------------------------------------------------
// Runtime dumps.

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
