// Constant nodes: host constants, shape constants, range constants and the
// filter and weight layouts the runtime wants.
#include "core_fixture.h"

namespace zelcore {
namespace {

class Constants : public CoreTest {
protected:
    // Builds the model and gives it a runtime graph that records nodes
    // without judging them.
    void start() {
        model = build(graph);
        ASSERT_NE(nullptr, model);
        graphId = attach(*model);
        zelsim::setPassThrough(true);
        log.clear();
    }

    std::vector<zelsim::RecordedNode> recorded() { return zelsim::nodes(graphId); }

    void expectDims(const zelsim::RecordedNode& n, std::vector<uint32_t> dims) {
        EXPECT_TRUE(n.isConst);
        EXPECT_EQ(dims, std::vector<uint32_t>(n.dims, n.dims + 4));
    }

    HostGraph graph;
    std::unique_ptr<ZelModel> model;
    int graphId = 0;
};

TEST_F(Constants, ConstantReadTwiceIsOneNode) {
    const uint32_t w = graph.addQuant8({2, 3}, 0.5f, 0, Lifetime::Constant, iota(6));
    start();
    EXPECT_EQ(Ref(1, 0), ref(model->getTensor(w)));
    EXPECT_EQ(Ref(1, 0), ref(model->getTensor(w)));
    EXPECT_EQ(Ref(1, 0), ref(model->addOperand(w)));
    EXPECT_EQ(1u, log.startingWith("Create const node, id: ").size());
    EXPECT_EQ(1u, log.count("Input operand with index 0 is an input operand. Creating input internal node ..."));
    EXPECT_EQ(1u, log.count("Input operand with index 0 is not an input operand, directly return it ..."));
    ASSERT_EQ(1u, recorded().size());
    expectDims(recorded()[0], {1, 1, 2, 3});
    EXPECT_EQ(iota(6), recorded()[0].data);
}

TEST_F(Constants, ShapeConstantCarriesDimsAndOneZeroWord) {
    start();
    EXPECT_EQ(Ref(1, 0), ref(model->createShape(1, 3, 2, 1)));
    ASSERT_EQ(1u, recorded().size());
    expectDims(recorded()[0], {1, 3, 2, 1});
    EXPECT_EQ((std::vector<uint8_t>{0, 0, 0, 0}), recorded()[0].data);
    EXPECT_EQ(1u, log.count("Create const node, id: 1"));
}

TEST_F(Constants, ConvolutionFilterBecomesHeightWidthInOut) {
    const std::vector<uint8_t> bytes = iota(8 * 3 * 3 * 4);
    const uint32_t f = graph.addQuant8({8, 3, 3, 4}, 0.5f, 0, Lifetime::Constant, bytes);
    start();
    EXPECT_EQ(Ref(1, 0), ref(model->createConvFilterTensor(f)));
    EXPECT_EQ(1u, log.count("NHWC --> HWCN"));
    ASSERT_EQ(1u, recorded().size());
    const zelsim::RecordedNode n = recorded()[0];
    expectDims(n, {3, 3, 4, 8});
    ASSERT_EQ(bytes.size(), n.data.size());
    for (uint32_t o = 0; o < 8; ++o)
        for (uint32_t h = 0; h < 3; ++h)
            for (uint32_t w = 0; w < 3; ++w)
                for (uint32_t i = 0; i < 4; ++i) {
                    const size_t from = ((o * 3 + h) * 3 + w) * 4 + i;
                    const size_t to = ((h * 3 + w) * 4 + i) * 8 + o;
                    ASSERT_EQ(bytes[from], n.data[to]) << o << "," << h << "," << w << "," << i;
                }
    // Not remembered: every call makes a node.
    EXPECT_EQ(Ref(2, 0), ref(model->createConvFilterTensor(f)));
}

TEST_F(Constants, FloatFilterMovesWholeFloats) {
    const uint32_t f = graph.addFloatTensor({2, 1, 1, 3}, Lifetime::Constant, {0, 1, 2, 3, 4, 5});
    start();
    EXPECT_EQ(Ref(1, 0), ref(model->createConvFilterTensor(f)));
    const zelsim::RecordedNode n = recorded().at(0);
    expectDims(n, {1, 1, 3, 2});
    ASSERT_EQ(24u, n.data.size());
    std::vector<float> values(6);
    std::memcpy(values.data(), n.data.data(), 24);
    EXPECT_EQ((std::vector<float>{0, 3, 1, 4, 2, 5}), values);
}

TEST_F(Constants, FullyConnectedWeightsAreTransposed) {
    const std::vector<uint8_t> bytes = iota(15);
    const uint32_t w = graph.addQuant8({3, 5}, 0.5f, 0, Lifetime::Constant, bytes);
    const uint32_t fw = graph.addFloatTensor({2, 2}, Lifetime::Constant, {1, 2, 3, 4});
    start();
    EXPECT_EQ(Ref(1, 0), ref(model->createFullyConnectedWeightTensor(w)));
    EXPECT_EQ(1u, log.count("WC --> CW"));
    const zelsim::RecordedNode n = recorded().at(0);
    expectDims(n, {1, 1, 5, 3});
    for (uint32_t unit = 0; unit < 3; ++unit)
        for (uint32_t i = 0; i < 5; ++i) EXPECT_EQ(bytes[unit * 5 + i], n.data.at(i * 3 + unit));
    // Quantized weights are remembered, float weights are not.
    EXPECT_EQ(Ref(1, 0), ref(model->createFullyConnectedWeightTensor(w)));
    EXPECT_EQ(Ref(2, 0), ref(model->createFullyConnectedWeightTensor(fw)));
    EXPECT_EQ(Ref(3, 0), ref(model->createFullyConnectedWeightTensor(fw)));
    EXPECT_EQ(3u, recorded().size());
    EXPECT_EQ(Ref(1, 0), ref(model->operands()[w].kestrel_input));
    EXPECT_EQ(input{}, model->operands()[fw].kestrel_input);
}

TEST_F(Constants, DepthwiseFilterKeepsItsBytes) {
    const std::vector<uint8_t> bytes = iota(3 * 3 * 32);
    const uint32_t f = graph.addQuant8({1, 3, 3, 32}, 0.5f, 0, Lifetime::Constant, bytes);
    start();
    EXPECT_EQ(Ref(1, 0), ref(model->createDepthwiseFilterTensor(f, 2)));
    EXPECT_EQ(1u, log.count("NHWC --> HWCN"));
    expectDims(recorded().at(0), {3, 3, 16, 2});
    EXPECT_EQ(bytes, recorded().at(0).data);
    // A multiplier of 0 gives width 0 instead of dividing by it.
    EXPECT_EQ(Ref(2, 0), ref(model->createDepthwiseFilterTensor(f, 0)));
    expectDims(recorded().at(1), {3, 3, 0, 0});
}

TEST_F(Constants, RangeConstantsPerType) {
    struct Row {
        const char* name;
        OperandType type;
        float scale;
        int32_t zeroPoint;
        float min;
        float max;
    };
    const Row rows[] = {
        {"quant8", OperandType::TENSOR_QUANT8, 0.5f, 128, -64.0f, 63.5f},
        {"quant8 zp 0", OperandType::TENSOR_QUANT8, 0.25f, 0, 0.0f, 63.75f},
        {"int32 bias", OperandType::TENSOR_INT32, 0.25f, 0, -536870912.0f, 536870912.0f},
        {"float", OperandType::TENSOR_FP32, 2.0f, 0, 0.0f, 8589934592.0f},
    };
    std::vector<uint32_t> indices;
    for (const Row& row : rows) {
        indices.push_back(graph.addOperand(row.type, {1, 2}, row.scale, row.zeroPoint, Lifetime::Internal));
    }
    start();
    uint32_t expectedId = 0;
    for (size_t i = 0; i < indices.size(); ++i) {
        SCOPED_TRACE(rows[i].name);
        const input min = model->getQuantizationMin(indices[i]);
        const input max = model->getQuantizationMax(indices[i]);
        EXPECT_EQ(Ref(++expectedId, 0), ref(min));
        EXPECT_EQ(Ref(++expectedId, 0), ref(max));
        EXPECT_EQ(rows[i].min, floatOf(node(graphId, min.src_id).data));
        EXPECT_EQ(rows[i].max, floatOf(node(graphId, max.src_id).data));
        expectDims(node(graphId, min.src_id), {1, 1, 1, 1});
        // Cached: asking again makes no node.
        EXPECT_EQ(ref(min), ref(model->getQuantizationMin(indices[i])));
        EXPECT_EQ(ref(max), ref(model->getQuantizationMax(indices[i])));
        EXPECT_EQ(1u, log.count("Added quantization min node for operand: " + std::to_string(indices[i])));
        EXPECT_EQ(1u, log.count("Added quantization max node for operand: " + std::to_string(indices[i])));
    }
    EXPECT_EQ(expectedId, recorded().size());
}

TEST_F(Constants, QuantizationValuesOfTheDeclaredRange) {
    const uint32_t q = graph.addQuant8({1, 2}, 0.5f, 128, Lifetime::Internal);
    start();
    const input lo = model->createQuantizationValue(q, 0);
    const input hi = model->createQuantizationValue(q, 255);
    const input mid = model->createQuantizationValue(q, 130);
    EXPECT_EQ(-64.0f, floatOf(node(graphId, lo.src_id).data));
    EXPECT_EQ(63.5f, floatOf(node(graphId, hi.src_id).data));
    EXPECT_EQ(1.0f, floatOf(node(graphId, mid.src_id).data));
    EXPECT_EQ(1u, log.count("Create quantization value, operand: 0, value: 255"));
    EXPECT_EQ(3u, recorded().size());  // never cached
}

TEST_F(Constants, MoreThanFourDimensionsAreRefused) {
    const uint32_t big = graph.addQuant8({1, 1, 1, 2, 2}, 0.5f, 0, Lifetime::Constant, iota(4));
    start();
    EXPECT_EQ(input{}, model->getTensor(big));
    EXPECT_EQ(input{}, model->operands()[big].kestrel_input);
    const std::vector<std::string> errors = errorTexts();
    ASSERT_EQ(2u, errors.size());  // the alignment's own line, then the refusal
    EXPECT_EQ("failed 0ul != dimensions.size() (0 != 0): Rank must be at most 4", errors[1]);

    log.clear();
    EXPECT_EQ(input{}, model->createConvFilterTensor(big));
    EXPECT_EQ(input{}, model->createDepthwiseFilterTensor(big, 1));
    EXPECT_EQ(input{}, model->createFullyConnectedWeightTensor(big));
    EXPECT_EQ(3u, log.countContaining("failed 0ul != dims.size() (0 != 0): Need at most 4 dimensions"));
    EXPECT_TRUE(recorded().empty());
    EXPECT_EQ(0u, model->lastNodeId());
}

TEST_F(Constants, RefusedConstantStillUsesItsId) {
    const uint32_t w = graph.addQuant8({2}, 0.5f, 0, Lifetime::Constant, {1, 2});
    const uint32_t q = graph.addQuant8({2}, 0.5f, 0, Lifetime::Internal);
    start();
    zelsim::failCall("append_const_node", 1, -1);
    EXPECT_EQ(input{}, model->createShape(1, 2, 2, 1));
    EXPECT_EQ(std::vector<std::string>{"Failed to create tensor"}, errorTexts());
    EXPECT_EQ(1u, log.count("Create const node, id: 1"));
    EXPECT_EQ(Ref(2, 0), ref(model->createShape(1, 2, 2, 1)));
    ASSERT_EQ(1u, recorded().size());  // the refused call left no node
    EXPECT_EQ(2u, recorded()[0].nodeId);

    // A refused host constant is reported twice and stays absent, so the
    // next read tries again.
    log.clear();
    zelsim::failCall("append_const_node", 1, -1);
    EXPECT_EQ(input{}, model->getTensor(w));
    const std::vector<std::string> expected = {
        "Failed to create tensor",
        "failed kestrel_zel_nn_input{} != operand.kestrel_input (kestrel_nn_input{.src_id: 0, .output_idx: 0} != "
        "kestrel_nn_input{.src_id: 0, .output_idx: 0}): Failed to add operand",
    };
    EXPECT_EQ(expected, errorTexts());
    EXPECT_EQ(Ref(4, 0), ref(model->getTensor(w)));

    // A refused range constant is retried too.
    zelsim::failCall("append_const_node", 1, -1);
    EXPECT_EQ(input{}, model->getQuantizationMin(q));
    EXPECT_EQ(Ref(6, 0), ref(model->getQuantizationMin(q)));
}

TEST_F(Constants, FilterDataMustMatchItsDimensions) {
    const uint32_t shortFilter = graph.addQuant8({2, 2, 2, 2}, 0.5f, 0, Lifetime::Constant, iota(8));
    const uint32_t noData = graph.addQuant8({3, 5}, 0.5f, 0, Lifetime::Input);
    graph.setInputs({noData});
    start();
    EXPECT_EQ(input{}, model->createConvFilterTensor(shortFilter));
    EXPECT_EQ(input{}, model->createFullyConnectedWeightTensor(noData));
    const std::vector<std::string> expected = {
        "Operand 0 holds 8 bytes of data, but its dimensions need 16",
        "Operand 1 holds 0 bytes of data, but its dimensions need 15",
    };
    EXPECT_EQ(expected, errorTexts());
    EXPECT_TRUE(recorded().empty());
}

}  // namespace
}  // namespace zelcore
