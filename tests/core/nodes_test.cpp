// Node construction: the append core, output slots and registration, graph
// input and output nodes, and the fused chains. Each expected chain is
// written out one node a line: {id, op (kConst for constants), inputs}.
#include <functional>

#include "core_fixture.h"

namespace zelcore {
namespace {

using arv::nnhal::zel::make_kestrel_nn_output;

class Nodes : public CoreTest {
protected:
    // Builds the model over `graph` and gives it a runtime graph that
    // records nodes without judging them (chains here are partial).
    void start() {
        model = build(graph);
        ASSERT_NE(nullptr, model);
        graphId = attach(*model);
        zelsim::setPassThrough(true);
        log.clear();
    }

    std::vector<output> outputsOf(uint32_t id) { return node(graphId, id).outputs; }

    float constValue(uint32_t id) { return floatOf(node(graphId, id).data); }

    HostGraph graph;
    std::unique_ptr<ZelModel> model;
    int graphId = 0;
};

// ---------------------------------------------------------------------------
// The append core.

TEST_F(Nodes, IdsAreUsedUpEvenByRefusedAppends) {
    graph.addQuant8({1, 2}, 1.0f, 0, Lifetime::Internal);
    start();
    const output rec = make_kestrel_nn_output({1, 2}, 1);
    EXPECT_EQ(1u, model->addOperationInternal(ZEL_OP_INPUT, 0, {}, {rec}));
    EXPECT_EQ(1u, log.count("Appended internal node, operation type: ZEL_OP_INPUT, node id: 1"));

    zelsim::failCall("append_node", 1, -1);
    EXPECT_EQ(0u, model->addOperationInternal(ZEL_OP_QuantizedRelu_8, 0, {input{1, 0}}, {rec}));
    EXPECT_EQ(1u, log.count("Appended internal node, operation type: ZEL_OP_QuantizedRelu_8, node id: 0"));
    EXPECT_EQ(3u, model->addOperationInternal(ZEL_OP_QuantizedRelu_8, 0, {input{1, 0}}, {rec}));
    const auto seen = zelsim::nodes(graphId);
    ASSERT_EQ(2u, seen.size());  // the refused call left no node
    EXPECT_EQ(1u, seen[0].nodeId);
    EXPECT_EQ(3u, seen[1].nodeId);
}

TEST_F(Nodes, AbsentReferencesAndEmptyRecordsNeverReachTheRuntime) {
    start();
    const output rec = make_kestrel_nn_output({1, 2}, 1);
    struct Row {
        const char* name;
        std::vector<input> inputs;
        std::vector<output> outputs;
        const char* error;
    };
    const Row rows[] = {
        {"absent input", {input{1, 0}, input{}}, {rec}, "error adding operation: one or more inputs is invalid"},
        {"empty record", {input{1, 0}}, {rec, output{}}, "error adding operation: one or more outputs is invalid"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        log.clear();
        EXPECT_EQ(0u, model->addOperationInternal(ZEL_OP_QuantizedRelu_8, 0, row.inputs, row.outputs));
        EXPECT_EQ(std::vector<std::string>{row.error}, errorTexts());
        EXPECT_EQ(0, zelsim::callCount("append_node"));
        EXPECT_EQ(0u, model->lastNodeId());
    }
    EXPECT_TRUE(model->verifyOperationInputs({}));
    EXPECT_TRUE(model->verifyOperationOutputs({}));
}

// ---------------------------------------------------------------------------
// Output slots and registration.

TEST_F(Nodes, QuantizedOutputsTakeThreeSlots) {
    const uint32_t q = graph.addQuant8({1, 2}, 0.5f, 0, Lifetime::Internal);
    const uint32_t f = graph.addFloatTensor({1, 3}, Lifetime::Internal);
    const uint32_t c = graph.addOperand(OperandType::TENSOR_CUSTOM_BYTE, {1, 8}, 0.0f, 0, Lifetime::Internal);
    start();
    model->operands()[c].elementSize = 2;  // as the vendor LSTM preparation sets it
    const input shape = model->createShape(1, 1, 1, 2);
    ASSERT_TRUE(model->addBasicOperation(ZEL_OP_QuantizedReshape, 0, {shape}, {q, f, c}));
    EXPECT_EQ(1u, log.count("Creating base operation node ..."));
    const std::vector<output> expected = {
        make_kestrel_nn_output({1, 2}, 1), rangeRecord(), rangeRecord(), make_kestrel_nn_output({1, 3}, 4),
        make_kestrel_nn_output({1, 4}, 2), rangeRecord(), rangeRecord()};
    EXPECT_EQ(expected, outputsOf(2));
    EXPECT_EQ(expected, model->getZelOutputs({q, f, c}));
    const OperandInfo& qi = model->operands()[q];
    const OperandInfo& fi = model->operands()[f];
    EXPECT_EQ(Ref(2, 0), ref(qi.kestrel_input));
    EXPECT_EQ(Ref(2, 1), ref(qi.quantMin));
    EXPECT_EQ(Ref(2, 2), ref(qi.quantMax));
    EXPECT_EQ(Ref(2, 3), ref(fi.kestrel_input));
    EXPECT_EQ(input{}, fi.quantMin);
    EXPECT_EQ(Ref(2, 4), ref(model->operands()[c].kestrel_input));
    EXPECT_EQ(Ref(2, 6), ref(model->operands()[c].quantMax));

    // A second registration is refused.
    log.clear();
    EXPECT_FALSE(model->registerZelInputs({q}, 9));
    EXPECT_EQ(std::vector<std::string>{"failed operand.kestrel_input == kestrel_zel_nn_input{} "
                                       "(kestrel_nn_input{.src_id: 2, .output_idx: 0} == "
                                       "kestrel_nn_input{.src_id: 0, .output_idx: 0}): Error: operation output "
                                       "has already been registered"},
              errorTexts());
    EXPECT_EQ(Ref(2, 0), ref(qi.kestrel_input));
}

// ---------------------------------------------------------------------------
// Graph inputs and outputs.

TEST_F(Nodes, InputNodeHasOneSlotPerGraphInput) {
    const uint32_t q = graph.addQuant8({1, 2, 2, 1}, 0.5f, 128, Lifetime::Input);
    const uint32_t f = graph.addFloatTensor({3}, Lifetime::Input);
    const uint32_t c = graph.addOperand(OperandType::TENSOR_CUSTOM_BYTE, {1, 8}, 0.0f, 0, Lifetime::Input);
    graph.setInputs({q, f, c});
    start();
    model->operands()[c].elementSize = 2;
    ASSERT_TRUE(model->addInputs());
    const std::vector<NodeRow> nodes = {
        {1, ZEL_OP_INPUT, {}},
    };
    expectNodes(graphId, 0, nodes);
    const std::vector<output> expected = {make_kestrel_nn_output({1, 2, 2, 1}, 1), make_kestrel_nn_output({3}, 4),
                                          make_kestrel_nn_output({1, 4}, 2)};
    EXPECT_EQ(expected, outputsOf(1));
    EXPECT_EQ(Ref(1, 0), ref(model->operands()[q].kestrel_input));
    EXPECT_EQ(Ref(1, 1), ref(model->operands()[f].kestrel_input));
    EXPECT_EQ(Ref(1, 2), ref(model->operands()[c].kestrel_input));
    EXPECT_EQ(input{}, model->operands()[q].quantMin);  // made on demand as constants
    EXPECT_EQ(1u, log.count("Input node size: 3"));
    EXPECT_EQ(1u, log.count("Operand index: 2"));
}

TEST_F(Nodes, RefusedInputNode) {
    graph.setInputs({graph.addQuant8({1, 2}, 0.5f, 0, Lifetime::Input)});
    start();
    zelsim::failCall("append_node", 1, -1);
    EXPECT_FALSE(model->addInputs());
    EXPECT_EQ(std::vector<std::string>{"failed 0 != node (0 != 0): Error adding input operation"}, errorTexts());
    EXPECT_EQ(input{}, model->operands()[0].kestrel_input);
}

class OutputNode : public Nodes {
protected:
    void SetUp() override {
        Nodes::SetUp();
        in = graph.addQuant8({1, 2}, 0.5f, 128, Lifetime::Input);
        quantOut = graph.addQuant8({1, 2}, 0.5f, 128, Lifetime::Output);
        floatOut = graph.addFloatTensor({2}, Lifetime::Output);
        rawOut = graph.addQuant8({1, 2}, 0.5f, 128, Lifetime::Output);
        graph.setInputs({in});
    }

    uint32_t in = 0, quantOut = 0, floatOut = 0, rawOut = 0;
};

TEST_F(OutputNode, QuantizedOutputsReturnToTheirDeclaredRange) {
    graph.setOutputs({quantOut, floatOut, rawOut});
    start();
    ASSERT_TRUE(model->addInputs());
    ASSERT_TRUE(model->addBasicOperation(ZEL_OP_QuantizedRelu_8, 0, {input{1, 0}}, {quantOut}));
    ASSERT_TRUE(model->addBasicOperation(ZEL_OP_FloatRelu, 0, {input{1, 0}}, {floatOut}));
    ASSERT_TRUE(model->addBasicOperation(ZEL_OP_QuantizedRelu_8, 0, {input{1, 0}}, {rawOut}));
    model->operands()[rawOut].dequantizeOutput = false;
    log.clear();
    ASSERT_TRUE(model->addOutputs());
    const std::vector<NodeRow> nodes = {
        {5, ZEL_OP_Dequantize, {{2, 0}, {2, 1}, {2, 2}}},
        {6, kConst, {}},
        {7, kConst, {}},
        {8, ZEL_OP_Quantize, {{5, 0}, {6, 0}, {7, 0}}},
        {9, ZEL_OP_OUTPUT, {{8, 0}, {3, 0}, {4, 0}}},
    };
    expectNodes(graphId, 4, nodes);
    EXPECT_EQ(std::vector<output>{make_kestrel_nn_output({1, 2}, 4)}, outputsOf(5));
    EXPECT_EQ(-64.0f, constValue(6));
    EXPECT_EQ(63.5f, constValue(7));
    const std::vector<output> quantized = {make_kestrel_nn_output({1, 2}, 1), rangeRecord(), rangeRecord()};
    EXPECT_EQ(quantized, outputsOf(8));
    EXPECT_TRUE(outputsOf(9).empty());
    EXPECT_EQ(1u, log.count("Dequantizing operand ..."));
    EXPECT_EQ(2u, log.count("Directly use this operand as OUTPUT node's input, no adjust range ..."));
    EXPECT_EQ(1u, log.count("Output operand size: 3"));
    EXPECT_TRUE(log.errors().empty());
}

TEST_F(OutputNode, UnregisteredOutputIsRefused) {
    graph.setOutputs({floatOut});
    start();
    ASSERT_TRUE(model->addInputs());
    EXPECT_FALSE(model->addOutputs());
    EXPECT_EQ(std::vector<std::string>{"failed operand.kestrel_input != kestrel_zel_nn_input{} "
                                       "(kestrel_nn_input{.src_id: 0, .output_idx: 0} != "
                                       "kestrel_nn_input{.src_id: 0, .output_idx: 0}): output operand has not "
                                       "been registered"},
              errorTexts());
}

TEST_F(OutputNode, QuantizedGraphInputAsOutputHasNoRangeToDequantize) {
    graph.setOutputs({in});
    start();
    ASSERT_TRUE(model->addInputs());
    EXPECT_FALSE(model->addOutputs());
    const std::vector<std::string> errors = errorTexts();
    ASSERT_FALSE(errors.empty());
    EXPECT_EQ("error adding operation: one or more inputs is invalid", errors.front());
    EXPECT_EQ("Error adding output operation", errors.back());

    // Without dequantization it goes straight to the output node.
    model = build(graph);
    graphId = attach(*model);
    ASSERT_TRUE(model->addInputs());
    model->operands()[in].dequantizeOutput = false;
    ASSERT_TRUE(model->addOutputs());
    const std::vector<NodeRow> nodes = {
        {2, ZEL_OP_OUTPUT, {{1, 0}}},
    };
    expectNodes(graphId, 1, nodes);
}

// ---------------------------------------------------------------------------
// The quantized fused chain.

class FusedQuant8 : public Nodes {
protected:
    void SetUp() override {
        Nodes::SetUp();
        in = graph.addQuant8({1, 2, 2, 1}, 0.5f, 128, Lifetime::Input);
        filter = graph.addQuant8({1, 1, 1, 1}, 0.5f, 0, Lifetime::Constant, {2});
        bias = graph.addInt32Tensor({1}, 0.25f, {0});
        out = graph.addQuant8({1, 2, 2, 1}, 0.5f, 128, Lifetime::Output);
        graph.setInputs({in});
        graph.setOutputs({out});
    }

    // Input node 1, filter 2, bias 3 with its range 4 and 5.
    void startWithOperands() {
        start();
        ASSERT_TRUE(model->addInputs());
        ASSERT_EQ(Ref(2, 0), ref(model->getTensor(filter)));
        ASSERT_EQ(Ref(3, 0), ref(model->getTensor(bias)));
        ASSERT_EQ(Ref(4, 0), ref(model->getQuantizationMin(bias)));
        ASSERT_EQ(Ref(5, 0), ref(model->getQuantizationMax(bias)));
        log.clear();
    }

    std::vector<input> baseInputs() const { return {input{1, 0}, input{2, 0}}; }
    std::vector<input> biasInputs() const { return {input{3, 0}, input{4, 0}, input{5, 0}}; }

    uint32_t in = 0, filter = 0, bias = 0, out = 0;
};

TEST_F(FusedQuant8, ChainsPerBiasAndActivation) {
    struct Row {
        const char* name;
        bool withBias;
        zel_op_type_enum activation;
        std::vector<NodeRow> chain;    // nodes after the five set-up nodes
        std::vector<float> constants;  // values of the chain's constants, in order
    };
    const Row rows[] = {
        {"bias, no activation",
         true,
         ZEL_OP_Nop,
         {
             {6, ZEL_OP_QuantizedConv2d_8x8to32, {{1, 0}, {2, 0}}},
             {7, ZEL_OP_QuantizedBiasAdd_32p32to32, {{6, 0}, {3, 0}, {6, 1}, {6, 2}, {4, 0}, {5, 0}}},
             {8, kConst, {}},
             {9, kConst, {}},
             {10, ZEL_OP_Requantize_32to8, {{7, 0}, {7, 1}, {7, 2}, {8, 0}, {9, 0}}},
         },
         {-64.0f, 63.5f}},
        {"bias, ReluX",
         true,
         ZEL_OP_QuantizedReluX_8,
         {
             {6, ZEL_OP_QuantizedConv2d_8x8to32, {{1, 0}, {2, 0}}},
             {7, ZEL_OP_QuantizedBiasAdd_32p32to32, {{6, 0}, {3, 0}, {6, 1}, {6, 2}, {4, 0}, {5, 0}}},
             {8, kConst, {}},
             {9, kConst, {}},
             {10, ZEL_OP_Requantize_32to8, {{7, 0}, {7, 1}, {7, 2}, {8, 0}, {9, 0}}},
             {11, kConst, {}},
             {12, ZEL_OP_QuantizedReluX_8, {{10, 0}, {10, 1}, {10, 2}, {11, 0}}},
         },
         {-64.0f, 63.5f, 6.0f}},
        {"bias, Clamp",
         true,
         ZEL_OP_QuantizedClamp_8,
         {
             {6, ZEL_OP_QuantizedConv2d_8x8to32, {{1, 0}, {2, 0}}},
             {7, ZEL_OP_QuantizedBiasAdd_32p32to32, {{6, 0}, {3, 0}, {6, 1}, {6, 2}, {4, 0}, {5, 0}}},
             {8, kConst, {}},
             {9, kConst, {}},
             {10, ZEL_OP_Requantize_32to8, {{7, 0}, {7, 1}, {7, 2}, {8, 0}, {9, 0}}},
             {11, kConst, {}},
             {12, kConst, {}},
             {13, ZEL_OP_QuantizedClamp_8, {{10, 0}, {10, 1}, {10, 2}, {11, 0}, {12, 0}}},
         },
         {-64.0f, 63.5f, -1.0f, 1.0f}},
        {"no bias, no activation",
         false,
         ZEL_OP_Nop,
         {
             {6, ZEL_OP_QuantizedConv2d_8x8to32, {{1, 0}, {2, 0}}},
             {7, kConst, {}},
             {8, kConst, {}},
             {9, ZEL_OP_Requantize_32to8, {{6, 0}, {6, 1}, {6, 2}, {7, 0}, {8, 0}}},
         },
         {-64.0f, 63.5f}},
    };
    const output wide = make_kestrel_nn_output({1, 2, 2, 1}, 4);
    const output narrow = make_kestrel_nn_output({1, 2, 2, 1}, 1);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        startWithOperands();
        ASSERT_TRUE(model->addFusedQuant8Operation(ZEL_OP_QuantizedConv2d_8x8to32, ZEL_NN_PAD_SAME, baseInputs(),
                                                   row.activation, row.withBias ? biasInputs() : std::vector<input>{},
                                                   {out}));
        expectNodes(graphId, 5, row.chain);
        std::vector<float> constants;
        for (const NodeRow& n : row.chain) {
            if (n.op == kConst) constants.push_back(constValue(n.id));
        }
        EXPECT_EQ(row.constants, constants);
        EXPECT_EQ(ZEL_NN_PAD_SAME, node(graphId, 6).padding);
        EXPECT_EQ((std::vector<output>{wide, rangeRecord(), rangeRecord()}), outputsOf(6));
        const uint32_t last = row.chain.back().id;
        EXPECT_EQ((std::vector<output>{narrow, rangeRecord(), rangeRecord()}), outputsOf(last));
        EXPECT_EQ(0, node(graphId, last).padding);
        const OperandInfo& o = model->operands()[out];
        EXPECT_EQ(Ref(last, 0), ref(o.kestrel_input));
        EXPECT_EQ(Ref(last, 1), ref(o.quantMin));
        EXPECT_EQ(Ref(last, 2), ref(o.quantMax));
        EXPECT_TRUE(log.errors().empty());
    }
}

// ---------------------------------------------------------------------------
// Operations with an activation, float chains and split.

TEST_F(Nodes, Quant8OperationWithActivation) {
    graph.setInputs({graph.addQuant8({1, 4}, 0.5f, 0, Lifetime::Input)});
    const uint32_t out = graph.addQuant8({1, 2}, 0.5f, 0, Lifetime::Internal);
    const uint32_t plain = graph.addQuant8({1, 2}, 0.5f, 0, Lifetime::Internal);
    start();
    ASSERT_TRUE(model->addInputs());
    ASSERT_TRUE(model->addQuant8OperationWithActivation(ZEL_OP_QuantizedMaxPool_8, ZEL_NN_PAD_VALID,
                                                        ZEL_OP_QuantizedReluX_8, {input{1, 0}}, {out}));
    ASSERT_TRUE(model->addQuant8OperationWithActivation(ZEL_OP_QuantizedAvgPool_8, ZEL_NN_PAD_SAME, ZEL_OP_Nop,
                                                        {input{1, 0}}, {plain}));
    const std::vector<NodeRow> nodes = {
        {2, ZEL_OP_QuantizedMaxPool_8, {{1, 0}}},
        {3, kConst, {}},
        {4, ZEL_OP_QuantizedReluX_8, {{2, 0}, {2, 1}, {2, 2}, {3, 0}}},
        {5, ZEL_OP_QuantizedAvgPool_8, {{1, 0}}},
    };
    expectNodes(graphId, 1, nodes);
    EXPECT_EQ(6.0f, constValue(3));
    const std::vector<output> records = {make_kestrel_nn_output({1, 2}, 1), rangeRecord(), rangeRecord()};
    EXPECT_EQ(records, outputsOf(2));
    EXPECT_EQ(records, outputsOf(4));
    EXPECT_EQ(ZEL_NN_PAD_VALID, node(graphId, 2).padding);
    EXPECT_EQ(0, node(graphId, 4).padding);
    EXPECT_EQ(Ref(4, 0), ref(model->operands()[out].kestrel_input));
    EXPECT_EQ(Ref(5, 2), ref(model->operands()[plain].quantMax));
}

TEST_F(Nodes, FloatOperationWithActivation) {
    graph.setInputs({graph.addFloatTensor({1, 4}, Lifetime::Input)});
    const uint32_t clamped = graph.addFloatTensor({1, 2}, Lifetime::Internal);
    const uint32_t plain = graph.addFloatTensor({1, 2}, Lifetime::Internal);
    start();
    ASSERT_TRUE(model->addInputs());
    ASSERT_TRUE(model->addFloatOperationWithActivation(ZEL_OP_FloatMaxPool, ZEL_NN_PAD_VALID, ZEL_OP_FloatClamp,
                                                       {input{1, 0}}, {clamped}));
    ASSERT_TRUE(model->addFloatOperationWithActivation(ZEL_OP_FloatAvgPool, ZEL_NN_PAD_SAME, ZEL_OP_Nop, {input{1, 0}},
                                                       {plain}));
    // The activation's constants come first; the activation reads only
    // the value output.
    const std::vector<NodeRow> nodes = {
        {2, kConst, {}},
        {3, kConst, {}},
        {4, ZEL_OP_FloatMaxPool, {{1, 0}}},
        {5, ZEL_OP_FloatClamp, {{4, 0}, {2, 0}, {3, 0}}},
        {6, ZEL_OP_FloatAvgPool, {{1, 0}}},
    };
    expectNodes(graphId, 1, nodes);
    EXPECT_EQ(-1.0f, constValue(2));
    EXPECT_EQ(1.0f, constValue(3));
    EXPECT_EQ(std::vector<output>{make_kestrel_nn_output({1, 2}, 4)}, outputsOf(5));
    EXPECT_EQ(Ref(5, 0), ref(model->operands()[clamped].kestrel_input));
    EXPECT_EQ(Ref(6, 0), ref(model->operands()[plain].kestrel_input));
}

TEST_F(Nodes, FusedFloatChain) {
    graph.setInputs({graph.addFloatTensor({1, 4}, Lifetime::Input)});
    const uint32_t bias = graph.addFloatTensor({2}, Lifetime::Constant, {0.5f, -0.5f});
    const uint32_t out = graph.addFloatTensor({1, 2}, Lifetime::Internal);
    const uint32_t plain = graph.addFloatTensor({1, 2}, Lifetime::Internal);
    start();
    ASSERT_TRUE(model->addInputs());
    const input b = model->getTensor(bias);
    ASSERT_TRUE(
        model->addFusedFloatOperation(ZEL_OP_FloatConv2d, ZEL_NN_PAD_SAME, b, ZEL_OP_FloatReluX, {input{1, 0}}, {out}));
    ASSERT_TRUE(model->addFusedFloatOperation(ZEL_OP_FloatMatMul, 0, input{}, ZEL_OP_Nop, {input{1, 0}}, {plain}));
    const std::vector<NodeRow> nodes = {
        {2, kConst, {}}, {3, ZEL_OP_FloatConv2d, {{1, 0}}},        {4, ZEL_OP_FloatBiasAdd, {{3, 0}, {2, 0}}},
        {5, kConst, {}}, {6, ZEL_OP_FloatReluX, {{4, 0}, {5, 0}}}, {7, ZEL_OP_FloatMatMul, {{1, 0}}},
    };
    expectNodes(graphId, 1, nodes);
    const std::vector<output> record = {make_kestrel_nn_output({1, 2}, 4)};
    for (uint32_t id : {3u, 4u, 6u, 7u}) EXPECT_EQ(record, outputsOf(id)) << id;
    EXPECT_EQ(ZEL_NN_PAD_SAME, node(graphId, 3).padding);
    EXPECT_EQ(6.0f, constValue(5));
    EXPECT_EQ(Ref(6, 0), ref(model->operands()[out].kestrel_input));
    EXPECT_EQ(Ref(7, 0), ref(model->operands()[plain].kestrel_input));
    EXPECT_TRUE(log.errors().empty());
}

TEST_F(Nodes, SplitRegistersThreeSlotsPerOutput) {
    graph.setInputs({graph.addQuant8({1, 4}, 0.5f, 0, Lifetime::Input)});
    const uint32_t first = graph.addQuant8({1, 2}, 0.5f, 0, Lifetime::Internal);
    const uint32_t second = graph.addQuant8({1, 2}, 0.5f, 0, Lifetime::Internal);
    start();
    ASSERT_TRUE(model->addInputs());
    const input dim = model->createShape(1, 1, 1, 1);
    ASSERT_TRUE(model->addSplitOperation({dim, input{1, 0}}, {first, second}));
    const std::vector<NodeRow> nodes = {
        {2, kConst, {}},
        {3, ZEL_OP_QuantizedSplit_8, {{2, 0}, {1, 0}}},
    };
    expectNodes(graphId, 1, nodes);
    const output value = make_kestrel_nn_output({1, 2}, 1);
    EXPECT_EQ((std::vector<output>{value, rangeRecord(), rangeRecord(), value, rangeRecord(), rangeRecord()}),
              outputsOf(3));
    EXPECT_EQ(Ref(3, 0), ref(model->operands()[first].kestrel_input));
    EXPECT_EQ(Ref(3, 3), ref(model->operands()[second].kestrel_input));
    EXPECT_EQ(Ref(3, 5), ref(model->operands()[second].quantMax));
}

TEST_F(Nodes, FailingStepsAreNamed) {
    graph.setInputs({graph.addQuant8({1, 4}, 0.5f, 0, Lifetime::Input)});
    const uint32_t q = graph.addQuant8({1, 2}, 0.5f, 0, Lifetime::Internal);
    const uint32_t f = graph.addFloatTensor({1, 2}, Lifetime::Internal);
    start();
    ASSERT_TRUE(model->addInputs());
    const input v{1, 0};
    const auto fusedQuant = [&] {
        return model->addFusedQuant8Operation(ZEL_OP_QuantizedConv2d_8x8to32, 0, {v}, ZEL_OP_QuantizedReluX_8,
                                              {v, v, v}, {q});
    };
    const auto quantAct = [&] {
        return model->addQuant8OperationWithActivation(ZEL_OP_QuantizedMaxPool_8, 0, ZEL_OP_QuantizedRelu_8, {v}, {q});
    };
    const auto floatAct = [&] {
        return model->addFloatOperationWithActivation(ZEL_OP_FloatMaxPool, 0, ZEL_OP_FloatRelu, {v}, {f});
    };
    const auto fusedFloat = [&] {
        return model->addFusedFloatOperation(ZEL_OP_FloatConv2d, 0, v, ZEL_OP_FloatRelu, {v}, {f});
    };
    const auto split = [&] { return model->addSplitOperation({v}, {q}); };
    struct Row {
        std::function<bool()> call;
        int nthAppend;  // the refused append_node call
        const char* error;
    };
    const Row rows[] = {
        {fusedQuant, 1, "Error adding base operation"},
        {fusedQuant, 2, "Error adding bias operation"},
        {fusedQuant, 3, "Error adding requantize operation"},
        {fusedQuant, 4, "Error adding activation operation"},
        {quantAct, 1, "Error adding base operation"},
        {quantAct, 2, "Error adding activation operation"},
        {floatAct, 1, "Error adding base operation"},
        {floatAct, 2, "Error adding activation operation"},
        {fusedFloat, 1, "Error adding base operation"},
        {fusedFloat, 2, "Error adding bias operation"},
        {fusedFloat, 3, "Error adding activation operation"},
        {split, 1, "Error adding ZEL_OP_QuantizedSplit_8 operation"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.error);
        log.clear();
        zelsim::failCall("append_node", row.nthAppend, -1);
        EXPECT_FALSE(row.call());
        EXPECT_EQ(std::vector<std::string>{std::string("failed 0 != node (0 != 0): ") + row.error}, errorTexts());
        EXPECT_EQ(input{}, model->operands()[q].kestrel_input);
        EXPECT_EQ(input{}, model->operands()[f].kestrel_input);
    }
}

TEST_F(Nodes, MalformedListsAppendNothing) {
    graph.setInputs({graph.addQuant8({1, 4}, 0.5f, 0, Lifetime::Input)});
    const uint32_t q = graph.addQuant8({1, 2}, 0.5f, 0, Lifetime::Internal);
    const uint32_t registered = graph.addQuant8({1, 2}, 0.5f, 0, Lifetime::Internal);
    const uint32_t f = graph.addFloatTensor({1, 2}, Lifetime::Internal);
    start();
    ASSERT_TRUE(model->addInputs());
    model->operands()[registered].kestrel_input = input{1, 0};
    const input v{1, 0};
    const int appends = zelsim::callCount("append_node") + zelsim::callCount("append_const_node");
    EXPECT_FALSE(
        model->addFusedQuant8Operation(ZEL_OP_QuantizedConv2d_8x8to32, 0, {v}, ZEL_OP_Nop, {v, v, v}, {q, registered}));
    EXPECT_FALSE(model->addFusedQuant8Operation(ZEL_OP_QuantizedConv2d_8x8to32, 0, {v}, ZEL_OP_Nop, {v, v}, {q}));
    EXPECT_FALSE(model->addFusedFloatOperation(ZEL_OP_FloatConv2d, 0, input{}, ZEL_OP_Nop, {v}, {f, q}));
    EXPECT_FALSE(model->addSplitOperation({v}, {q, registered}));
    const std::vector<std::string> expected = {
        "failed 1 == outputs.size() (1 == 2): addFusedQuant8Operation requires 1 output",
        "failed 3 == biasInputs.size() (3 == 2): addFusedQuant8Operation needs bias value, minimum and maximum",
        "failed 1 == outputs.size() (1 == 2): addFusedFloatOperation requires 1 output",
        "failed operand.kestrel_input == kestrel_zel_nn_input{} (kestrel_nn_input{.src_id: 1, .output_idx: 0} == "
        "kestrel_nn_input{.src_id: 0, .output_idx: 0}): Error: operation output has already been registered",
    };
    EXPECT_EQ(expected, errorTexts());
    EXPECT_EQ(appends, zelsim::callCount("append_node") + zelsim::callCount("append_const_node"));
    EXPECT_EQ(input{}, model->operands()[q].kestrel_input);
}

TEST_F(Nodes, ActivationArguments) {
    start();
    EXPECT_TRUE(model->setupActivationArgs(ZEL_OP_Nop).empty());
    EXPECT_TRUE(model->setupActivationArgs(ZEL_OP_FloatRelu).empty());
    EXPECT_EQ(0, zelsim::callCount("append_const_node"));
    // The values are checked with the chains; each call makes new constants.
    EXPECT_NE(ref(model->setupActivationArgs(ZEL_OP_FloatReluX).at(0)),
              ref(model->setupActivationArgs(ZEL_OP_QuantizedReluX_8).at(0)));
    EXPECT_EQ(2u, model->setupActivationArgs(ZEL_OP_QuantizedClamp_8).size());
    log.clear();
    EXPECT_TRUE(model->setupActivationArgs(static_cast<zel_op_type_enum>(999)).empty());
    EXPECT_EQ(std::vector<std::string>{"Unknown activation symbol 999"}, log.errors());
}

}  // namespace
}  // namespace zelcore
