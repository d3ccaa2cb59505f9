// Node construction: the append core, output slots and registration, the
// graph input and output nodes, and the failures of the fused chains. The
// chains themselves are checked through the lowerings (lowering_test).
#include <functional>

#include "core_fixture.h"
#include "zel_test_peers.h"

namespace zelcore {
namespace {

using Nodes = AttachedTest;

TEST_F(Nodes, IdsAreUsedUpEvenByRefusedAppends) {
    start();
    const output rec = make_kestrel_nn_output({1, 2}, 1);
    EXPECT_EQ(1u, model->addOperationInternal(ZEL_OP_INPUT, 0, {}, {rec}));
    zelsim::failCall("append_node", 1, -1);
    EXPECT_EQ(0u, model->addOperationInternal(ZEL_OP_QuantizedRelu_8, 0, {input{1, 0}}, {rec}));
    EXPECT_EQ(1u, log.count("Appended internal node, operation type: ZEL_OP_QuantizedRelu_8, node id: 0"));
    EXPECT_EQ(3u, model->addOperationInternal(ZEL_OP_QuantizedRelu_8, 0, {input{1, 0}}, {rec}));
    expectChain(graphId, {"1 INPUT pad=0 [] -> [1x1x1x2*1]", "3 QuantizedRelu_8 pad=0 [1:0] -> [1x1x1x2*1]"});
}

TEST_F(Nodes, AbsentReferencesAndEmptyRecordsNeverReachTheRuntime) {
    start();
    const output rec = make_kestrel_nn_output({1, 2}, 1);
    EXPECT_EQ(0u, model->addOperationInternal(ZEL_OP_QuantizedRelu_8, 0, {input{1, 0}, input{}}, {rec}));
    EXPECT_EQ(0u, model->addOperationInternal(ZEL_OP_QuantizedRelu_8, 0, {input{1, 0}}, {rec, output{}}));
    const std::vector<std::string> expected = {"error adding operation: one or more inputs is invalid",
                                               "error adding operation: one or more outputs is invalid"};
    EXPECT_EQ(expected, errorTexts());
    EXPECT_EQ(0, zelsim::callCount("append_node"));
    EXPECT_EQ(0u, peer(*model).lastNodeId());
}

// A quantized value takes three slots (value, min, max), a float one slot,
// a custom-byte value counts elements of its element size.
TEST_F(Nodes, OutputSlotsAndRegistration) {
    const uint32_t q = graph.addQuant8({1, 2}, 0.5f, 0, Lifetime::Internal);
    const uint32_t f = graph.addFloatTensor({1, 3}, Lifetime::Internal);
    const uint32_t c = graph.addOperand(OperandType::TENSOR_CUSTOM_BYTE, {1, 8}, 0.0f, 0, Lifetime::Internal);
    start();
    model->operands()[c].elementSize = 2;  // as the vendor LSTM preparation sets it
    ASSERT_TRUE(model->addBasicOperation(ZEL_OP_QuantizedReshape, 0, {model->createShape(1, 1, 1, 2)}, {q, f, c}));
    expectChain(graphId, {"2 QuantizedReshape pad=0 [1:0] -> [1x1x1x2*1 " RANGES " 1x1x1x3*4 1x1x1x4*2 " RANGES "]"},
                1);
    EXPECT_EQ(Ref(2, 1), ref(model->operands()[q].quantMin));
    EXPECT_EQ(Ref(2, 2), ref(model->operands()[q].quantMax));
    EXPECT_EQ(Ref(2, 3), ref(model->operands()[f].kestrel_input));
    EXPECT_EQ(input{}, model->operands()[f].quantMin);
    EXPECT_EQ(Ref(2, 6), ref(model->operands()[c].quantMax));

    log.clear();
    EXPECT_FALSE(model->registerZelInputs({q}, 9));
    EXPECT_EQ(std::vector<std::string>{"failed operand.kestrel_input == kestrel_zel_nn_input{} "
                                       "(kestrel_nn_input{.src_id: 2, .output_idx: 0} == "
                                       "kestrel_nn_input{.src_id: 0, .output_idx: 0}): Error: operation output "
                                       "has already been registered"},
              errorTexts());
    EXPECT_EQ(Ref(2, 0), ref(model->operands()[q].kestrel_input));
}

TEST_F(Nodes, InputNodeHasOneSlotPerGraphInput) {
    const uint32_t q = graph.addQuant8({1, 2, 2, 1}, 0.5f, 128, Lifetime::Input);
    const uint32_t f = graph.addFloatTensor({3}, Lifetime::Input);
    graph.setInputs({q, f});
    start();
    ASSERT_TRUE(model->addInputs());
    expectChain(graphId, {"1 INPUT pad=0 [] -> [1x2x2x1*1 1x1x1x3*4]"});
    EXPECT_EQ(Ref(1, 1), ref(model->operands()[f].kestrel_input));
    EXPECT_EQ(input{}, model->operands()[q].quantMin);  // made on demand as constants
    EXPECT_EQ(1u, log.count("Input node size: 2"));
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

// Quantized outputs go back to their declared range; float outputs and
// those marked not to be dequantized go straight to the output node.
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
    expectChain(graphId,
                {
                    "5 Dequantize pad=0 [2:0 2:1 2:2] -> [1x1x1x2*4]",
                    "6 const 1x1x1x1 f32 -64",
                    "7 const 1x1x1x1 f32 63.5",
                    "8 Quantize pad=0 [5:0 6:0 7:0] -> [1x1x1x2*1 " RANGES "]",
                    "9 OUTPUT pad=0 [8:0 3:0 4:0] -> []",
                },
                4);
    EXPECT_EQ(2u, log.count("Directly use this operand as OUTPUT node's input, no adjust range ..."));
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

// A graph input has no range outputs to dequantize from.
TEST_F(OutputNode, QuantizedGraphInputAsOutput) {
    graph.setOutputs({in});
    start();
    ASSERT_TRUE(model->addInputs());
    EXPECT_FALSE(model->addOutputs());
    const std::vector<std::string> errors = errorTexts();
    ASSERT_FALSE(errors.empty());
    EXPECT_EQ("error adding operation: one or more inputs is invalid", errors.front());
    EXPECT_EQ("Error adding output operation", errors.back());

    model = build(graph);
    graphId = attach(*model);
    ASSERT_TRUE(model->addInputs());
    model->operands()[in].dequantizeOutput = false;
    ASSERT_TRUE(model->addOutputs());
    expectChain(graphId, {"2 OUTPUT pad=0 [1:0] -> []"}, 1);
}

// Each step of a chain names itself when the runtime refuses its node; one
// row per distinct step text and per chain kind.
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
        {floatAct, 2, "Error adding activation operation"},
        {fusedFloat, 2, "Error adding bias operation"},
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
    EXPECT_EQ(1u, recorded().size());  // the input node only
    EXPECT_EQ(input{}, model->operands()[q].kestrel_input);
}

TEST_F(Nodes, ActivationArguments) {
    start();
    EXPECT_TRUE(model->setupActivationArgs(ZEL_OP_Nop).empty());
    EXPECT_TRUE(model->setupActivationArgs(ZEL_OP_FloatRelu).empty());
    EXPECT_EQ(2u, model->setupActivationArgs(ZEL_OP_QuantizedClamp_8).size());
    log.clear();
    EXPECT_TRUE(model->setupActivationArgs(static_cast<zel_op_type_enum>(999)).empty());
    EXPECT_EQ(std::vector<std::string>{"Unknown activation symbol 999"}, log.errors());
}

}  // namespace
}  // namespace zelcore
