// Operand registry, free helpers and reading a host graph into a model.
#include "core_fixture.h"
#include "zel_test_peers.h"

namespace zelcore {
namespace {

using arv::nnhal::zel::getAlignedDimensions;
using arv::nnhal::zel::getSize;
using arv::nnhal::zel::getUpdatedOperand;

TEST_F(CoreTest, ElementSizesAndTheUnknownType) {
    EXPECT_EQ(4u, getSize(OperandType::TENSOR_FP32));
    EXPECT_EQ(1u, getSize(OperandType::TENSOR_QUANT8));
    EXPECT_EQ(1u, getSize(static_cast<OperandType>(10001)));
    EXPECT_TRUE(log.errors().empty());
    EXPECT_EQ(0u, getSize(static_cast<OperandType>(6)));
    EXPECT_EQ(std::vector<std::string>{"Error: type exceeds max enum value"}, errorTexts());
}

TEST_F(CoreTest, AlignedDimensionsPadOnTheLeft) {
    EXPECT_EQ((std::vector<uint32_t>{1, 1, 1, 1}), getAlignedDimensions({}, 4));
    EXPECT_EQ((std::vector<uint32_t>{1, 1, 2, 3}), getAlignedDimensions({2, 3}, 4));
    EXPECT_EQ((std::vector<uint32_t>{1, 1, 9}), getAlignedDimensions({9}, 3));
    EXPECT_TRUE(log.errors().empty());
    EXPECT_TRUE(getAlignedDimensions({1, 2, 3, 4, 5}, 4).empty());
    EXPECT_EQ(std::vector<std::string>{"failed N >= dims.size() (4 >= 5): Error: constant data dimensions 5 "
                                       "exceeds alignment of 4"},
              errorTexts());
    EXPECT_EQ(0u, make_kestrel_nn_output({1, 2, 3, 4, 5}, 4).rank);
}

TEST_F(CoreTest, RecordEqualityLooksAtEveryField) {
    EXPECT_TRUE((input{3, 1}) == (input{3, 1}));
    EXPECT_TRUE((input{3, 1}) != (input{3, 2}));
    EXPECT_TRUE((input{3, 1}) != (input{4, 1}));
    const output base = make_kestrel_nn_output({2, 3}, 1);
    EXPECT_EQ(4u, base.rank);
    EXPECT_EQ(3u, base.max_sizes[3]);
    EXPECT_TRUE(base == make_kestrel_nn_output({2, 3}, 1));
    for (int field = 0; field < 12; ++field) {
        output other = base;
        if (field == 0) other.rank += 1;
        if (field >= 1 && field <= 8) other.max_sizes[field - 1] += 1;
        if (field == 9) other.elementsize += 1;
        if (field == 10) other.zero_offset += 1;
        if (field == 11) other.stepsize += 0.5f;
        EXPECT_FALSE(base == other) << "field " << field;
        EXPECT_TRUE(base != other) << "field " << field;
    }
}

class Registry : public CoreTest {
protected:
    void SetUp() override {
        CoreTest::SetUp();
        in = graph.addQuant8({1, 4, 4, 2}, 0.5f, 128, Lifetime::Input);
        weights = graph.addQuant8({2, 3}, 0.25f, 10, Lifetime::Constant, iota(6));
        mid = graph.addQuant8({1, 4, 4, 2}, 0.5f, 128, Lifetime::Internal);
        out = graph.addFloatTensor({1, 4, 4, 2}, Lifetime::Output);
        custom = graph.addOperand(OperandType::TENSOR_CUSTOM_BYTE, {1, 40}, 0.0f, 0, Lifetime::Internal);
        leadingZero = graph.addQuant8({0, 5}, 1.0f, 0, Lifetime::Internal);
        graph.setInputs({in});
        graph.setOutputs({out});
        model = build(graph);
    }

    HostGraph graph;
    uint32_t in = 0, weights = 0, mid = 0, out = 0, custom = 0, leadingZero = 0;
    std::unique_ptr<ZelModel> model;
};

TEST_F(Registry, RecordsTakeTheHostOperandsAndTouchNoRuntime) {
    ASSERT_EQ(6u, model->operands().size());
    const OperandInfo& w = model->operands()[weights];
    EXPECT_EQ((std::vector<uint32_t>{2, 3}), w.dimensions);
    EXPECT_EQ(0.25f, w.scale);
    EXPECT_EQ(10, w.zeroPoint);
    ASSERT_EQ(6u, w.length);
    EXPECT_EQ(5, w.data[5]);
    EXPECT_TRUE(w.dequantizeOutput);
    EXPECT_EQ(nullptr, model->operands()[in].data);  // graph inputs have no data yet
    EXPECT_EQ(4u, model->operands()[out].elementSize);
    EXPECT_FALSE(model->isConstant(in));
    EXPECT_FALSE(model->isConstant(out));
    EXPECT_TRUE(model->isConstant(weights));
    EXPECT_TRUE(model->isConstant(mid));  // intermediates count as constant here
    EXPECT_EQ(1u, model->getNextNode());
    EXPECT_EQ(2u, model->getNextNode());
    EXPECT_EQ(0, zelsim::callCount("init") + zelsim::callCount("append_node"));
    EXPECT_EQ(1u, log.count("mOperands size: 6"));
}

TEST_F(Registry, DimensionsOfCustomBytesAndZeroBatches) {
    OperandInfo& c = model->operands()[custom];
    EXPECT_EQ((std::vector<uint32_t>{1, 40}), model->getDimensions(c, true));  // element size 1 at build
    c.elementSize = 2;
    EXPECT_EQ((std::vector<uint32_t>{1, 20}), model->getOriginalDimensions(c));
    c.dimensions = {1, 8};  // working dims are what original = false reads
    EXPECT_EQ((std::vector<uint32_t>{1, 4}), model->getDimensions(c, false));
    c.elementSize = 0;  // no division by zero
    EXPECT_EQ((std::vector<uint32_t>{1, 40}), model->getDimensions(c, true));

    const OperandInfo& z = model->operands()[leadingZero];
    EXPECT_EQ((std::vector<uint32_t>{0, 5}), model->getDimensions(z, true));  // batch size is 0
    peer(*model).setBatchSize(7);
    EXPECT_EQ((std::vector<uint32_t>{7, 5}), model->getDimensions(z, true));
    EXPECT_EQ((std::vector<uint32_t>{1, 4, 4, 2}), model->getDimensions(model->operands()[in], true));
}

// Codes are mapped in the lowering chains; here the edges: unknown codes and
// scalars without (enough) data read as nothing.
TEST_F(CoreTest, ScalarReadsOfMissingOrUnknownValues) {
    HostGraph graph;
    const uint32_t seven = graph.addInt32(7);
    const uint32_t empty = graph.addOperand(OperandType::SCALAR_INT32, {}, 0.0f, 0, Lifetime::Constant);
    const uint32_t shortOne = graph.addOperand(OperandType::SCALAR_INT32, {}, 0.0f, 0, Lifetime::Constant, {1, 0});
    auto model = build(graph);
    EXPECT_EQ(7, model->getScalar<int32_t>(seven));
    for (uint32_t index : {seven, empty, shortOne, 1000u}) {
        EXPECT_EQ(ZEL_NN_PAD_NA, model->getPadding(index)) << index;
        EXPECT_EQ(ZEL_OP_Nop, model->getQuantizedActivation(index)) << index;
        EXPECT_EQ(ZEL_OP_Nop, model->getFloatActivation(index)) << index;
    }
    EXPECT_EQ(0, model->getScalar<int32_t>(empty));
    EXPECT_EQ(0, model->getScalar<int32_t>(shortOne));
}

TEST_F(Registry, OperandListChecks) {
    const uint32_t scalar = graph.addInt32(5);
    const uint32_t noData = graph.addOperand(OperandType::SCALAR_FP32, {}, 0.0f, 0, Lifetime::Constant);
    const uint32_t shortData =
        graph.addOperand(OperandType::SCALAR_UNSIGNED_INT32, {}, 0.0f, 0, Lifetime::Constant, {1, 2});
    model = build(graph);
    EXPECT_TRUE(model->validOperands({in, scalar}, "Input"));
    EXPECT_TRUE(model->scalarsHaveData({in, weights, mid, scalar}));  // tensors need no data
    EXPECT_TRUE(log.errors().empty());

    EXPECT_FALSE(model->validOperands({in, 42}, "Input"));
    EXPECT_FALSE(model->validOperands({42}, nullptr));
    EXPECT_FALSE(model->scalarsHaveData({scalar, noData}));
    EXPECT_FALSE(model->scalarsHaveData({shortData}));
    const std::vector<std::string> expected = {
        "Input 1 refers to operand 42 outside the graph (9 operands)",
        "Operand 0 refers to operand 42 outside the graph (9 operands)",
        "Scalar operand " + std::to_string(noData) + " has no data",
        "Scalar operand " + std::to_string(shortData) + " has no data",
    };
    EXPECT_EQ(expected, errorTexts());
}

TEST_F(Registry, ExecutionRecordOfTheHostsCurrentBuffer) {
    uint8_t buffer[32] = {};
    graph.bindInput(0, buffer, sizeof(buffer));
    graph.operand(in).mDims = {2, 4, 4};  // the host changed the dims since the build
    graph.setExecuting(true);
    const OperandInfo updated = getUpdatedOperand(graph.getOperand(in), model->operands()[in]);
    EXPECT_EQ((std::vector<uint32_t>{1, 4, 4, 2}), updated.originalDimensions);
    const kestrel_zel_nn_tensordef def = model->convertToTensordef(updated);
    EXPECT_EQ((std::vector<uint32_t>{1, 2, 4, 4}),
              (std::vector<uint32_t>{def.batches, def.height, def.width, def.depth}));
    EXPECT_EQ(buffer, def.data);
    EXPECT_EQ(32, def.dataLen);
    EXPECT_EQ(32u, def.data_valid_len);

    // A host operand reporting no dims keeps the recorded ones.
    graph.operand(in).mDims = {};
    EXPECT_EQ((std::vector<uint32_t>{1, 4, 4, 2}),
              getUpdatedOperand(graph.getOperand(in), model->operands()[in]).dimensions);
    OperandInfo big = updated;
    big.dimensions = {1, 1, 1, 1, 1};
    EXPECT_EQ(nullptr, model->convertToTensordef(big).data);
}

TEST_F(Registry, ClearForgetsReferencesAndTearsTheRuntimeGraphDown) {
    model->operands()[weights].kestrel_input = input{3, 0};
    model->operands()[in].quantMin = input{4, 1};
    model->clearModel();  // no runtime graph yet: a vote, no teardown
    EXPECT_EQ(0, zelsim::callCount("teardown"));
    expectVotes(*model, 0, 1);
    EXPECT_EQ(input{}, model->operands()[weights].kestrel_input);
    EXPECT_EQ(input{}, model->operands()[in].quantMin);
    EXPECT_NE(nullptr, model->operands()[weights].data);  // host data stays

    const int id = attach(*model);
    model->clearModel();
    EXPECT_FALSE(zelsim::graphExists(id));
    EXPECT_EQ(static_cast<uint32_t>(id), model->graphId());
    model.reset();  // the destructor's clearModel tears the same id down again
    int teardowns = 0;
    for (const auto& call : zelsim::calls()) {
        if (call.entry == "teardown") {
            EXPECT_EQ(id, call.graphId);
            ++teardowns;
        }
    }
    EXPECT_EQ(2, teardowns);
}

TEST_F(CoreTest, NullGraphGivesNoModel) {
    EXPECT_EQ(nullptr, ZelModel::create(nullptr));
    EXPECT_EQ(1u, log.count("Out ZelModel::initModel(IGraph * graph)"));
    EXPECT_EQ(0u, log.count("Out ZelModel::create(IGraph * graph)"));
}

}  // namespace
}  // namespace zelcore
