// Operand registry, free helpers and reading a host graph into a model.
#include <cmath>

#include "core_fixture.h"

namespace zelcore {
namespace {

using arv::nnhal::zel::getAlignedDimensions;
using arv::nnhal::zel::getSize;
using arv::nnhal::zel::getUpdatedOperand;
using arv::nnhal::zel::make_kestrel_nn_output;

// ---------------------------------------------------------------------------
// Free helpers.

using FreeHelpers = CoreTest;

TEST_F(FreeHelpers, ElementSizePerType) {
    struct Row {
        int32_t type;
        uint32_t size;
    };
    const Row rows[] = {{0, 4}, {1, 4}, {2, 4}, {3, 4}, {4, 4}, {5, 1}, {10001, 1}};
    for (const Row& row : rows) {
        EXPECT_EQ(row.size, getSize(static_cast<OperandType>(row.type))) << "type " << row.type;
    }
    EXPECT_TRUE(log.errors().empty());
    for (int32_t unknown : {6, 10000}) {
        log.clear();
        EXPECT_EQ(0u, getSize(static_cast<OperandType>(unknown)));
        EXPECT_EQ(std::vector<std::string>{"Error: type exceeds max enum value"}, errorTexts());
    }
}

TEST_F(FreeHelpers, AlignedDimensionsPadOnTheLeft) {
    struct Row {
        std::vector<uint32_t> dims;
        uint32_t n;
        std::vector<uint32_t> aligned;
    };
    const Row rows[] = {
        {{}, 4, {1, 1, 1, 1}},           {{7}, 4, {1, 1, 1, 7}}, {{2, 3}, 4, {1, 1, 2, 3}},
        {{2, 3, 4, 5}, 4, {2, 3, 4, 5}}, {{2, 3}, 2, {2, 3}},    {{9}, 3, {1, 1, 9}},
    };
    for (const Row& row : rows) EXPECT_EQ(row.aligned, getAlignedDimensions(row.dims, row.n));
    EXPECT_TRUE(log.errors().empty());
}

TEST_F(FreeHelpers, AlignedDimensionsRefuseTooManyDims) {
    EXPECT_TRUE(getAlignedDimensions({1, 2, 3, 4, 5}, 4).empty());
    EXPECT_EQ(std::vector<std::string>{"failed N >= dims.size() (4 >= 5): Error: constant data dimensions 5 "
                                       "exceeds alignment of 4"},
              errorTexts());
    EXPECT_EQ(0u, make_kestrel_nn_output({1, 2, 3, 4, 5}, 4).rank);
}

TEST_F(FreeHelpers, OutputRecordFromDims) {
    const output record = make_kestrel_nn_output({2, 3}, 1);
    EXPECT_EQ(4u, record.rank);
    const uint32_t sizes[8] = {1, 1, 2, 3, 0, 0, 0, 0};
    for (int i = 0; i < 8; ++i) EXPECT_EQ(sizes[i], record.max_sizes[i]) << i;
    EXPECT_EQ(1u, record.elementsize);
    EXPECT_EQ(0, record.zero_offset);
    EXPECT_EQ(0.0f, record.stepsize);
}

TEST_F(FreeHelpers, RecordEqualityLooksAtEveryField) {
    const input a{3, 1};
    EXPECT_TRUE(a == (input{3, 1}));
    EXPECT_FALSE(a != (input{3, 1}));
    EXPECT_TRUE(a != (input{3, 2}));
    EXPECT_TRUE(a != (input{4, 1}));

    const output base = make_kestrel_nn_output({2, 3}, 1);
    EXPECT_TRUE(base == make_kestrel_nn_output({2, 3}, 1));
    // Change each of the twelve fields in turn.
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

// ---------------------------------------------------------------------------
// Registry accessors.

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

TEST_F(Registry, RecordsTakeTheHostOperands) {
    ASSERT_EQ(6u, model->operands().size());
    const OperandInfo& w = model->operands()[weights];
    EXPECT_EQ(OperandType::TENSOR_QUANT8, w.type);
    EXPECT_EQ((std::vector<uint32_t>{2, 3}), w.dimensions);
    EXPECT_EQ((std::vector<uint32_t>{2, 3}), w.originalDimensions);
    EXPECT_EQ(0.25f, w.scale);
    EXPECT_EQ(10, w.zeroPoint);
    ASSERT_NE(nullptr, w.data);
    EXPECT_EQ(6u, w.length);
    EXPECT_EQ(5, w.data[5]);
    EXPECT_EQ(1u, w.elementSize);
    EXPECT_TRUE(w.dequantizeOutput);
    EXPECT_EQ(input{}, w.kestrel_input);

    // A graph input has no data while the graph is read; a float tensor no
    // quantization parameters.
    EXPECT_EQ(nullptr, model->operands()[in].data);
    EXPECT_EQ(0u, model->operands()[in].length);
    EXPECT_EQ(0.0f, model->operands()[out].scale);
    EXPECT_EQ(4u, model->operands()[out].elementSize);
    EXPECT_EQ((std::vector<uint32_t>{in}), model->graphInputs());
    EXPECT_EQ((std::vector<uint32_t>{out}), model->graphOutputs());
    // Building reads the host graph only.
    EXPECT_EQ(0, zelsim::callCount("init") + zelsim::callCount("append_node"));
    EXPECT_EQ(1u, log.count("mOperands size: 6"));
    EXPECT_EQ(1u, log.count("Out ZelModel::ZelModel(IGraph *graph, bool ops_check_only)"));
}

TEST_F(Registry, ConstancyAndNodeIds) {
    EXPECT_FALSE(model->isConstant(in));
    EXPECT_FALSE(model->isConstant(out));
    EXPECT_TRUE(model->isConstant(weights));
    EXPECT_TRUE(model->isConstant(mid));  // intermediates count as constant here
    EXPECT_EQ(1u, model->getNextNode());
    EXPECT_EQ(2u, model->getNextNode());
    EXPECT_EQ(2u, model->lastNodeId());
}

TEST_F(Registry, DimensionsOfCustomBytesAndZeroBatches) {
    OperandInfo& c = model->operands()[custom];
    EXPECT_EQ((std::vector<uint32_t>{1, 40}), model->getDimensions(c, true));  // element size 1 at build
    c.elementSize = 2;
    EXPECT_EQ((std::vector<uint32_t>{1, 20}), model->getDimensions(c, true));
    EXPECT_EQ((std::vector<uint32_t>{1, 20}), model->getOriginalDimensions(c));
    c.dimensions = {1, 8};  // working dims are what original = false reads
    EXPECT_EQ((std::vector<uint32_t>{1, 4}), model->getDimensions(c, false));
    c.elementSize = 0;  // no division by zero
    EXPECT_EQ((std::vector<uint32_t>{1, 40}), model->getDimensions(c, true));

    const OperandInfo& z = model->operands()[leadingZero];
    EXPECT_EQ((std::vector<uint32_t>{0, 5}), model->getDimensions(z, true));  // batch size is 0
    model->setBatchSizeForTest(7);
    EXPECT_EQ((std::vector<uint32_t>{7, 5}), model->getDimensions(z, true));
    EXPECT_EQ((std::vector<uint32_t>{1, 4, 4, 2}), model->getDimensions(model->operands()[in], true));
    OperandInfo scalar;
    EXPECT_TRUE(model->getDimensions(scalar, true).empty());
}

using ScalarReads = CoreTest;

TEST_F(ScalarReads, PaddingAndActivationCodes) {
    HostGraph graph;
    struct Row {
        int32_t value;
        padding_type_enum padding;
        zel_op_type_enum quantized;
        zel_op_type_enum floating;
    };
    const Row rows[] = {
        {0, ZEL_NN_PAD_NA, ZEL_OP_Nop, ZEL_OP_Nop},
        {1, ZEL_NN_PAD_SAME, ZEL_OP_QuantizedRelu_8, ZEL_OP_FloatRelu},
        {2, ZEL_NN_PAD_VALID, ZEL_OP_QuantizedClamp_8, ZEL_OP_FloatClamp},
        {3, ZEL_NN_PAD_NA, ZEL_OP_QuantizedReluX_8, ZEL_OP_FloatReluX},
        {7, ZEL_NN_PAD_NA, ZEL_OP_Nop, ZEL_OP_Nop},
    };
    std::vector<uint32_t> indices;
    for (const Row& row : rows) indices.push_back(graph.addInt32(row.value));
    // A scalar without data and one with too few bytes read as 0.
    const uint32_t empty = graph.addOperand(OperandType::SCALAR_INT32, {}, 0.0f, 0, Lifetime::Constant);
    const uint32_t shortOne = graph.addOperand(OperandType::SCALAR_INT32, {}, 0.0f, 0, Lifetime::Constant, {1, 0});
    std::unique_ptr<ZelModel> model(ZelModel::create(&graph));
    ASSERT_NE(nullptr, model);
    for (size_t i = 0; i < indices.size(); ++i) {
        EXPECT_EQ(rows[i].padding, model->getPadding(indices[i])) << rows[i].value;
        EXPECT_EQ(rows[i].quantized, model->getQuantizedActivation(indices[i])) << rows[i].value;
        EXPECT_EQ(rows[i].floating, model->getFloatActivation(indices[i])) << rows[i].value;
        EXPECT_EQ(rows[i].value, model->getScalar<int32_t>(indices[i]));
    }
    for (uint32_t index : {empty, shortOne, 1000u}) {
        EXPECT_EQ(ZEL_NN_PAD_NA, model->getPadding(index));
        EXPECT_EQ(ZEL_OP_Nop, model->getQuantizedActivation(index));
        EXPECT_EQ(0, model->getScalar<int32_t>(index));
    }
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
    EXPECT_FALSE(model->scalarsHaveData({77}));
    const std::vector<std::string> expected = {
        "Input 1 refers to operand 42 outside the graph (9 operands)",
        "Operand 0 refers to operand 42 outside the graph (9 operands)",
        "Scalar operand " + std::to_string(noData) + " has no data",
        "Scalar operand " + std::to_string(shortData) + " has no data",
        "Operand 0 refers to operand 77 outside the graph (9 operands)",
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
    EXPECT_EQ(0u, def.unused);

    // A host operand reporting no dims keeps the recorded ones.
    graph.operand(in).mDims = {};
    EXPECT_EQ((std::vector<uint32_t>{1, 4, 4, 2}),
              getUpdatedOperand(graph.getOperand(in), model->operands()[in]).dimensions);
    OperandInfo big = updated;
    big.dimensions = {1, 1, 1, 1, 1};
    EXPECT_EQ(nullptr, model->convertToTensordef(big).data);
}

// ---------------------------------------------------------------------------
// clearModel.

TEST_F(Registry, ClearWithoutRuntimeGraphVotesButTearsNothingDown) {
    model->operands()[weights].kestrel_input = input{3, 0};
    model->operands()[in].quantMin = input{4, 1};
    model->operands()[in].output = make_kestrel_nn_output({2}, 1);
    model->clearModel();
    EXPECT_EQ(0, zelsim::callCount("teardown"));
    expectVotes(*model, 0, 1);
    const OperandInfo& w = model->operands()[weights];
    EXPECT_EQ(input{}, w.kestrel_input);
    EXPECT_EQ(input{}, model->operands()[in].quantMin);
    EXPECT_EQ(output{}, model->operands()[in].output);
    EXPECT_NE(nullptr, w.data);  // host data stays
    EXPECT_EQ(0.25f, w.scale);
}

TEST_F(Registry, ClearTearsTheRuntimeGraphDownAndKeepsItsId) {
    const int id = attach(*model);
    ASSERT_TRUE(zelsim::graphExists(id));
    model->clearModel();
    EXPECT_FALSE(zelsim::graphExists(id));
    EXPECT_EQ(static_cast<uint32_t>(id), model->graphId());
    // The destructor's clearModel tears the same id down again.
    model.reset();
    int teardowns = 0;
    for (const auto& call : zelsim::calls()) {
        if (call.entry == "teardown") {
            EXPECT_EQ(id, call.graphId);
            ++teardowns;
        }
    }
    EXPECT_EQ(2, teardowns);
}

// ---------------------------------------------------------------------------
// Reading malformed host graphs.

using GraphReading = CoreTest;

TEST_F(GraphReading, NullGraphGivesNoModel) {
    EXPECT_EQ(nullptr, ZelModel::create(nullptr));
    EXPECT_EQ(1u, log.count("Out ZelModel::initModel(IGraph * graph)"));
    EXPECT_EQ(0u, log.count("Out ZelModel::create(IGraph * graph)"));
}

TEST_F(GraphReading, UnreadableBufferOrOperation) {
    HostGraph graph;
    graph.addBuffer({1, 2});
    graph.addBuffer({3});
    const uint32_t a = graph.addQuant8({1, 2}, 1.0f, 0, Lifetime::Input);
    const uint32_t b = graph.addQuant8({1, 2}, 1.0f, 0, Lifetime::Output);
    graph.addOperation(OperationType::RELU, {a}, {b});

    graph.failBuffer(1);
    EXPECT_EQ(nullptr, ZelModel::create(&graph));
    EXPECT_EQ(std::vector<std::string>{"Failed to get IBuffer 1"}, errorTexts());

    log.clear();
    graph.failBuffer(UINT32_MAX);
    graph.nullOperation(0);
    EXPECT_EQ(nullptr, ZelModel::create(&graph));
    EXPECT_EQ(std::vector<std::string>{"Failed to get operation 0"}, errorTexts());

    log.clear();
    graph.nullOperation(UINT32_MAX);
    EXPECT_NE(nullptr, std::unique_ptr<ZelModel>(ZelModel::create(&graph)));
    EXPECT_TRUE(log.errors().empty());
}

TEST_F(GraphReading, IndicesOutsideTheGraphAreRefused) {
    struct Row {
        const char* name;
        std::vector<uint32_t> opInputs;
        std::vector<uint32_t> opOutputs;
        std::vector<uint32_t> graphInputs;
        std::vector<uint32_t> graphOutputs;
        std::string error;
    };
    const Row rows[] = {
        {"operation input",
         {0, 9},
         {2},
         {0},
         {2},
         "Operation 0 input 1 refers to operand 9 outside the graph (3 operands)"},
        {"operation output",
         {0, 1},
         {3},
         {0},
         {2},
         "Operation 0 output 0 refers to operand 3 outside the graph (3 operands)"},
        {"graph input", {0, 1}, {2}, {0, 5}, {2}, "Graph input 1 refers to operand 5 outside the graph (3 operands)"},
        {"graph output",
         {0, 1},
         {2},
         {0},
         {4000000000u},
         "Graph output 0 refers to operand 4000000000 outside the graph (3 operands)"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        log.clear();
        HostGraph graph;
        graph.addQuant8({1, 2}, 1.0f, 0, Lifetime::Input);
        graph.addQuant8({1, 2}, 1.0f, 0, Lifetime::Constant, {1, 2});
        graph.addQuant8({1, 2}, 1.0f, 0, Lifetime::Output);
        graph.addOperation(OperationType::ADD, row.opInputs, row.opOutputs);
        graph.setInputs(row.graphInputs);
        graph.setOutputs(row.graphOutputs);
        EXPECT_EQ(nullptr, ZelModel::create(&graph));
        EXPECT_EQ(std::vector<std::string>{row.error}, errorTexts());
    }
}

}  // namespace
}  // namespace zelcore
