// Malformed host graphs, one mutation of a valid graph per row: every one is
// answered (support levels or none at all, an executor status) without a
// crash, an out-of-bounds read or a leak, and the first error line says
// what is wrong.
#include <gtest/gtest.h>

#include <cctype>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "log_capture.h"
#include "reliability_support.h"
#include "zelsim/control.h"

using namespace arv::nnhal;
using namespace arv::nnhal::host;

namespace {

// Operand indices of the base graph.
enum : uint32_t {
    kInput = 0,
    kFilter,
    kBias,
    kPadding,
    kStrideW,
    kStrideH,
    kActivation,
    kConvOut,
    kOutput,
    kOperandCount
};
// Operation indices of the base graph.
enum : uint32_t { kConv = 0, kRelu = 1 };

// A 2x2 VALID convolution with a fused RELU on a [1, 4, 4, 2] input, then a
// RELU operation; one graph input, one graph output. Every row of the table
// mutates one thing of it.
std::unique_ptr<HostGraph> baseGraph() {
    auto graph = std::make_unique<HostGraph>();
    std::vector<uint8_t> filter(16);
    for (size_t i = 0; i < filter.size(); ++i) filter[i] = static_cast<uint8_t>(90 + 3 * i);
    graph->addQuant8({1, 4, 4, 2}, 0.5f, 10, Lifetime::Input);
    graph->addQuant8({2, 2, 2, 2}, 0.25f, 100, Lifetime::Constant, filter);
    graph->addInt32Tensor({2}, 0.125f, {8, -8});
    graph->addInt32(2);  // VALID
    graph->addInt32(1);
    graph->addInt32(1);
    graph->addInt32(1);  // RELU
    graph->addQuant8({1, 3, 3, 2}, 0.5f, 20, Lifetime::Internal);
    graph->addQuant8({1, 3, 3, 2}, 0.5f, 20, Lifetime::Output);
    graph->addOperation(OperationType::CONV_2D, {kInput, kFilter, kBias, kPadding, kStrideW, kStrideH, kActivation},
                        {kConvOut});
    graph->addOperation(OperationType::RELU, {kConvOut}, {kOutput});
    graph->setInputs({kInput});
    graph->setOutputs({kOutput});
    return graph;
}

// Helpers for the rows.
OperandType typeCode(int32_t code) {
    return static_cast<OperandType>(code);
}
OperationType operationCode(int32_t code) {
    return static_cast<OperationType>(code);
}
void setDims(HostOperand& operand, std::vector<uint32_t> dims) {
    operand.mDims = dims;
    operand.mOriginalDims = std::move(dims);
}
void dropData(HostOperand& operand) {
    operand.mHasData = false;
    operand.mData.clear();
}

// First error lines shared by several rows.
const char* const kUnknownType = "Error: type exceeds max enum value";
const char* const kNotFound = "Operation not found";
const char* const kFiveDimensions =
    "failed N >= dims.size() (4 >= 5): Error: constant data dimensions 5 exceeds alignment of 4";
// The runtime refused a constant (no data or the wrong number of bytes).
const char* const kRuntimeRefusedConstant = "Failed to create tensor";
// The runtime refused the operation's node (shapes it does not accept).
const char* const kRuntimeRefusedNode = "failed 0 != node (0 != 0): Error adding base operation";

struct Mutation {
    const char* name;
    std::function<void(HostGraph&)> mutate;
    // Support levels per operation; empty when no level is reported at all.
    std::vector<int> levels;
    // createGraphExecutor status (0, 1).
    int status;
    // Expected text of the first error line of createGraphExecutor (after
    // the location prefix); "" when the executor is built.
    std::string firstError;
    // When the executor is built: the status of one execution.
    int executeStatus = 0;
    // Wraps the graph in a host that misbehaves (null operand, buffer...).
    std::function<void(reltest::BrokenHostGraph&)> breakHost = nullptr;
};

void PrintTo(const Mutation& mutation, std::ostream* out) {
    *out << mutation.name;
}

std::vector<Mutation> mutations() {
    return {
        {"unchanged", [](HostGraph&) {}, {0, 0}, 0, ""},
        // --- operand type codes outside the known set ----------------------
        {"input type code 99", [](HostGraph& g) { g.operand(kInput).mType = typeCode(99); }, {1, 0}, 1, kUnknownType},
        {"filter type code 99", [](HostGraph& g) { g.operand(kFilter).mType = typeCode(99); }, {1, 0}, 0, ""},
        {"output type code 10000",
         [](HostGraph& g) { g.operand(kOutput).mType = typeCode(10000); },
         {0, 1},
         1,
         kUnknownType},
        {"padding type code -1", [](HostGraph& g) { g.operand(kPadding).mType = typeCode(-1); }, {0, 0}, 0, ""},
        // --- scalars given rank 1 -------------------------------------------
        {"stride of rank 1", [](HostGraph& g) { setDims(g.operand(kStrideW), {1}); }, {0, 0}, 0, ""},
        {"activation of rank 1 [4]", [](HostGraph& g) { setDims(g.operand(kActivation), {4}); }, {0, 0}, 0, ""},
        // --- quantization parameters ------------------------------------------
        {"input scale 0", [](HostGraph& g) { g.operand(kInput).mScale = 0.0f; }, {0, 0}, 0, "", 1},
        {"filter scale -0.25", [](HostGraph& g) { g.operand(kFilter).mScale = -0.25f; }, {0, 0}, 0, "", 1},
        {"output scale 0", [](HostGraph& g) { g.operand(kOutput).mScale = 0.0f; }, {0, 0}, 0, "", 1},
        {"conv output scale -1", [](HostGraph& g) { g.operand(kConvOut).mScale = -1.0f; }, {0, 0}, 0, "", 1},
        {"conv output scale 0", [](HostGraph& g) { g.operand(kConvOut).mScale = 0.0f; }, {0, 0}, 0, "", 1},
        {"input zero point -1", [](HostGraph& g) { g.operand(kInput).mZeroPoint = -1; }, {0, 0}, 0, ""},
        {"output zero point 256", [](HostGraph& g) { g.operand(kOutput).mZeroPoint = 256; }, {0, 0}, 0, ""},
        {"filter zero point 256", [](HostGraph& g) { g.operand(kFilter).mZeroPoint = 256; }, {0, 0}, 0, ""},
        // --- operation type codes out of range --------------------------------
        {"operation type 9999",
         [](HostGraph& g) { g.operation(kConv).mType = operationCode(9999); },
         {1, 0},
         1,
         kNotFound},
        {"operation type -1", [](HostGraph& g) { g.operation(kRelu).mType = operationCode(-1); }, {0, 1}, 1, kNotFound},
        {"operation type 20000 with one input",
         [](HostGraph& g) { g.operation(kRelu).mType = operationCode(20000); },
         {0, 1},
         1,
         "failed 6 == operation->getNumInputs() (6 == 1): OEM LSTM op requires 6 inputs"},
        {"operation type 20000 with six inputs",
         [](HostGraph& g) {
             g.operation(kRelu).mType = operationCode(20000);
             g.operation(kRelu).mInputs.assign(6, kConvOut);
         },
         {0, 1},
         1,
         "OEM LSTM op input 5 must be in type TENSOR_CUSTOM_BYTE"},
        {"operation type 20001 with inputs",
         [](HostGraph& g) { g.operation(kConv).mType = operationCode(20001); },
         {1, 0},
         1,
         kNotFound},
        // --- operand indices equal to the operand count -------------------------
        {"conv input index = operand count",
         [](HostGraph& g) { g.operation(kConv).mInputs[1] = kOperandCount; },
         {},
         1,
         "Operation 0 input 1 refers to operand 9 outside the graph (9 operands)"},
        {"conv input 0 index = operand count",
         [](HostGraph& g) { g.operation(kConv).mInputs[0] = kOperandCount; },
         {},
         1,
         "Operation 0 input 0 refers to operand 9 outside the graph (9 operands)"},
        {"relu output index = operand count",
         [](HostGraph& g) { g.operation(kRelu).mOutputs[0] = kOperandCount; },
         {},
         1,
         "Operation 1 output 0 refers to operand 9 outside the graph (9 operands)"},
        // --- input counts ---------------------------------------------------
        {"conv with its last input removed",
         [](HostGraph& g) { g.operation(kConv).mInputs.pop_back(); },
         {1, 0},
         1,
         "Need 7 or 10 inputs for quant8_asym::conv_2d"},
        {"conv with an extra input",
         [](HostGraph& g) { g.operation(kConv).mInputs.push_back(kStrideW); },
         {1, 0},
         1,
         "Need 7 or 10 inputs for quant8_asym::conv_2d"},
        {"relu with its input removed",
         [](HostGraph& g) { g.operation(kRelu).mInputs.clear(); },
         {0, 1},
         1,
         "Operation 1 has no inputs"},
        {"relu with an extra input",
         [](HostGraph& g) { g.operation(kRelu).mInputs.push_back(kConvOut); },
         {0, 1},
         1,
         "Need 1 input for quant8_asym::relu"},
        {"relu without outputs",
         [](HostGraph& g) { g.operation(kRelu).mOutputs.clear(); },
         {0, 1},
         1,
         "failed 1 == outs.size() (0 == 1): Need 1 output for quant8_asym::relu"},
        {"conv with two outputs",
         [](HostGraph& g) { g.operation(kConv).mOutputs.push_back(kOutput); },
         {1, 0},
         1,
         "failed 1 == outs.size() (2 == 1): Need 1 output for quant8_asym::conv_2d"},
        // --- graph inputs and outputs ---------------------------------------
        {"graph input index out of range",
         [](HostGraph& g) { g.setInputs({kOperandCount}); },
         {},
         1,
         "Graph input 0 refers to operand 9 outside the graph (9 operands)"},
        {"graph output index out of range",
         [](HostGraph& g) { g.setOutputs({kOperandCount + 5}); },
         {},
         1,
         "Graph output 0 refers to operand 14 outside the graph (9 operands)"},
        // --- constant data ------------------------------------------------------
        {"filter data one byte short",
         [](HostGraph& g) { g.operand(kFilter).mData.pop_back(); },
         {0, 0},
         1,
         "Operand 1 holds 15 bytes of data, but its dimensions need 16"},
        {"filter data absent",
         [](HostGraph& g) { dropData(g.operand(kFilter)); },
         {0, 0},
         1,
         "Operand 1 holds 0 bytes of data, but its dimensions need 16"},
        // The runtime judges constant bytes itself: 4 bytes pass as a shape-only
        // constant, and the bias node is then refused.
        {"bias data one value short",
         [](HostGraph& g) { g.operand(kBias).mData.resize(4); },
         {0, 0},
         1,
         "Error adding bias operation"},
        {"bias data absent", [](HostGraph& g) { dropData(g.operand(kBias)); }, {0, 0}, 1, kRuntimeRefusedConstant},
        {"stride without data",
         [](HostGraph& g) { dropData(g.operand(kStrideH)); },
         {1, 0},
         1,
         "Scalar operand 5 has no data"},
        {"activation without data",
         [](HostGraph& g) { dropData(g.operand(kActivation)); },
         {1, 0},
         1,
         "Scalar operand 6 has no data"},
        {"padding with two bytes of data",
         [](HostGraph& g) { g.operand(kPadding).mData.resize(2); },
         {1, 0},
         1,
         "Scalar operand 3 has no data"},
        // --- dimensions -------------------------------------------------------
        {"input without dimensions",
         [](HostGraph& g) { setDims(g.operand(kInput), {}); },
         {1, 0},
         1,
         kRuntimeRefusedNode},
        {"filter without dimensions",
         [](HostGraph& g) { setDims(g.operand(kFilter), {}); },
         {1, 0},
         1,
         "Operand 1 holds 16 bytes of data, but its dimensions need 1"},
        {"input with five dimensions",
         [](HostGraph& g) {
             setDims(g.operand(kInput), {1, 1, 4, 4, 2});
         },
         {1, 0},
         1,
         kFiveDimensions},
        {"filter with five dimensions",
         [](HostGraph& g) {
             setDims(g.operand(kFilter), {1, 2, 2, 2, 2});
         },
         {1, 0},
         1,
         kFiveDimensions},
        {"output with five dimensions",
         [](HostGraph& g) {
             setDims(g.operand(kOutput), {1, 1, 3, 3, 2});
         },
         {0, 1},
         1,
         kFiveDimensions},
        {"input height 0",
         [](HostGraph& g) {
             setDims(g.operand(kInput), {1, 0, 4, 2});
         },
         {2, 0},
         1,
         kRuntimeRefusedNode},
        {"input of 2^32 elements",
         [](HostGraph& g) {
             setDims(g.operand(kInput), {1, 65536, 65536, 2});
         },
         {0, 0},
         1,
         "Error adding input operation"},
        // --- graph structure ----------------------------------------------------
        {"operations not in topological order",
         [](HostGraph& g) {
             std::swap(g.operation(kConv).mType, g.operation(kRelu).mType);
             std::swap(g.operation(kConv).mInputs, g.operation(kRelu).mInputs);
             std::swap(g.operation(kConv).mOutputs, g.operation(kRelu).mOutputs);
         },
         {0, 0},
         1,
         kRuntimeRefusedConstant},
        {"relu reading its own output",
         [](HostGraph& g) { g.operation(kRelu).mInputs[0] = kOutput; },
         {0, 0},
         1,
         kRuntimeRefusedConstant},
        {"two operations writing one operand",
         [](HostGraph& g) { g.operation(kRelu).mOutputs[0] = kConvOut; },
         {0, 0},
         1,
         "Error: operation output has already been registered"},
        // --- a misbehaving host ---------------------------------------------------
        {"null operation", [](HostGraph& g) { g.nullOperation(kRelu); }, {}, 1, "Failed to get operation 1"},
        {"failing buffer",
         [](HostGraph& g) {
             g.addBuffer({1, 2, 3});
             g.failBuffer(0);
         },
         {},
         1,
         "Failed to get IBuffer 0"},
        // Buffers are collected, never read.
        {"null buffer",
         [](HostGraph& g) {
             g.addBuffer({1, 2, 3});
         },
         {0, 0},
         0,
         "",
         0,
         [](reltest::BrokenHostGraph& b) { b.mNullBuffer = 0; }},
        {"null operand",
         [](HostGraph&) {},
         {},
         1,
         "Failed to get operand 2",
         0,
         [](reltest::BrokenHostGraph& b) { b.mNullOperand = kBias; }},
        {"operation null on the second fetch",
         [](HostGraph&) {},
         {1, 1},
         0,
         "",
         0,
         [](reltest::BrokenHostGraph& b) { b.mOperationsBeforeNull = 2; }},
    };
}

class MalformedGraph : public ::testing::TestWithParam<Mutation> {};

std::string levelsText(const std::vector<int>& levels) {
    std::string text = "[";
    for (size_t i = 0; i < levels.size(); ++i) text += (i ? ", " : "") + std::to_string(levels[i]);
    return text + "]";
}

// Text of the first error line without its location prefix ("" when none).
std::string firstError(const std::vector<std::string>& errors) {
    if (errors.empty()) return "";
    const std::string stripped = zeltest::afterLocation(errors[0]);
    return stripped.empty() ? errors[0] : stripped;
}

// Test name of a row: its description with every other character as '_'.
template <typename Row>
std::string rowName(const ::testing::TestParamInfo<Row>& info) {
    std::string name;
    for (const char* c = info.param.name; *c != '\0'; ++c) {
        name += std::isalnum(static_cast<unsigned char>(*c)) ? *c : '_';
    }
    return name;
}

TEST_P(MalformedGraph, IsAnsweredWithoutHarm) {
    const Mutation& row = GetParam();
    zelsim::reset();
    reltest::Accelerator accelerator;

    auto graph = baseGraph();
    row.mutate(*graph);
    reltest::BrokenHostGraph broken(*graph);
    if (row.breakHost) row.breakHost(broken);
    IGraph* hostGraph = &broken;

    // Support query: the levels given, or none at all.
    std::vector<int> levels;
    {
        zeltest::LogCapture logs;
        HostSupportQuery query(graph->getOperationCount());
        accelerator->isGraphSupported(hostGraph, &query);
        if (query.calls() != 0) levels = query.levels();
        if (levels.empty()) {
            // A graph the model cannot be built from: one error line, no Out line.
            EXPECT_EQ(logs.errors().size(), 1u) << ::testing::PrintToString(logs.errors());
            EXPECT_EQ(logs.count("Out ZelAccelerator::isGraphSupported()"), 0u);
        }
    }

    // Executor: status 0 (then one execution) or 1 with the error line given.
    zeltest::LogCapture logs;
    reltest::BrokenHostGraph broken2(*graph);
    if (row.breakHost) row.breakHost(broken2);
    HostExecutorContext context;
    const CreateExecutorResult created = accelerator->createGraphExecutor(&broken2, &context);
    const std::vector<std::string> errors = logs.errors();
    const std::string first = firstError(errors);
    int executed = -1;
    if (created.executor != nullptr) {
        IoBuffers buffers;
        for (uint32_t i = 0; i < graph->getInputCount(); ++i) {
            buffers.inputs.emplace_back(static_cast<size_t>(operandByteSize(*graph, graph->getInput(i))), 7);
        }
        for (uint32_t i = 0; i < graph->getOutputCount(); ++i) {
            buffers.outputs.emplace_back(static_cast<size_t>(operandByteSize(*graph, graph->getOutput(i))), 0);
        }
        executed = static_cast<int>(executeBound(*graph, *created.executor, buffers).status);
        created.executor->release();
    }

    if (row.levels.empty()) {
        EXPECT_TRUE(levels.empty()) << levelsText(levels);
    } else {
        EXPECT_EQ(levelsText(levels), levelsText(row.levels));
    }
    EXPECT_EQ(static_cast<int>(created.status), row.status);
    EXPECT_EQ(created.executor != nullptr, row.status == 0);
    if (row.status == 0) {
        EXPECT_EQ(executed, row.executeStatus);
    } else {
        ASSERT_FALSE(errors.empty());
        EXPECT_NE(first.find(row.firstError), std::string::npos) << ::testing::PrintToString(errors);
    }
    // A graph the model cannot be built from gives exactly one error line.
    if (row.levels.empty()) {
        EXPECT_EQ(errors.size(), 1u) << ::testing::PrintToString(errors);
    }
    // Whatever happened, no runtime graph is left behind.
    EXPECT_EQ(zelsim::liveGraphs(), 0);
}

INSTANTIATE_TEST_SUITE_P(Rows, MalformedGraph, ::testing::ValuesIn(mutations()), rowName<Mutation>);

// --- parameter mutations of a realistic graph ---------------------------------

// Operation indices of the demo model: CONV_2D, DEPTHWISE_CONV_2D,
// MAX_POOL_2D, AVERAGE_POOL_2D, ADD, CONCATENATION, FULLY_CONNECTED, RELU6.
enum : uint32_t {
    kDemoConv = 0,
    kDemoDepthwise,
    kDemoMaxPool,
    kDemoAvgPool,
    kDemoAdd,
    kDemoConcat,
    kDemoFc,
    kDemoRelu6
};

// Gives input `position` of operation `op` a scalar of its own holding `value`
// (the demo model shares its scalars between operations).
void setScalar(HostGraph& graph, uint32_t op, uint32_t position, int32_t value) {
    graph.operation(op).mInputs.at(position) = graph.addInt32(value);
}

// Turns the implicit-padding convolution into the explicit form with the
// given pads (left, right, top, bottom) and strides.
void explicitConv(HostGraph& graph, int32_t left, int32_t right, int32_t top, int32_t bottom, int32_t stride) {
    std::vector<uint32_t>& ins = graph.operation(kDemoConv).mInputs;
    const uint32_t activation = ins.back();
    ins.resize(3);
    for (int32_t value : {left, right, top, bottom, stride, stride}) ins.push_back(graph.addInt32(value));
    ins.push_back(activation);
}

struct ParameterMutation {
    const char* name;
    std::function<void(HostGraph&)> mutate;
    std::vector<int> levels;  // all eight operations
    int status;
    std::string firstError;  // first error line of createGraphExecutor, "" when built
};

void PrintTo(const ParameterMutation& mutation, std::ostream* out) {
    *out << mutation.name;
}

std::vector<ParameterMutation> parameterMutations() {
    // Levels of the eight operations, and shorthands for the usual ones.
    const std::vector<int> all0 = {0, 0, 0, 0, 0, 0, 0, 0};
    // A stride of 0 or below gives empty outputs: the convolution passes, the
    // operations after it see a zero dimension.
    const std::vector<int> emptyAfterConv = {0, 2, 2, 2, 2, 2, 2, 0};
    const std::vector<int> convRefused = {1, 0, 0, 0, 0, 0, 0, 0};
    // A pooling window that changes the shape makes ADD and CONCATENATION
    // of the two pooled values disagree.
    const std::vector<int> poolsDisagree = {0, 0, 0, 0, 1, 1, 0, 0};
    const std::vector<int> addRefused = {0, 0, 0, 0, 1, 0, 0, 0};
    const std::vector<int> concatRefused = {0, 0, 0, 0, 0, 1, 0, 0};
    const std::vector<int> fcRefused = {0, 0, 0, 0, 0, 0, 1, 0};
    const char* const unknownPadding = "failed pad != ZEL_NN_PAD_NA (0 != 0): Unknown padding";
    const char* const biasRefused = "failed 0 != node (0 != 0): Error adding bias operation";
    return {
        {"unchanged", [](HostGraph&) {}, all0, 0, ""},
        {"conv stride 0", [](HostGraph& g) { setScalar(g, kDemoConv, 4, 0); }, emptyAfterConv, 1, kRuntimeRefusedNode},
        // The stride goes to the runtime as a shape constant of 2^32 - 1.
        {"conv stride -1", [](HostGraph& g) { setScalar(g, kDemoConv, 5, -1); }, emptyAfterConv, 1,
         kRuntimeRefusedConstant},
        {"conv stride 2^31-1",
         [](HostGraph& g) { setScalar(g, kDemoConv, 4, INT32_MAX); },
         {0, 0, 0, 0, 2, 2, 2, 0},
         1,
         kRuntimeRefusedNode},
        {"conv padding code 7", [](HostGraph& g) { setScalar(g, kDemoConv, 3, 7); }, convRefused, 1, unknownPadding},
        // Unknown activation codes mean no activation.
        {"conv activation code 9", [](HostGraph& g) { setScalar(g, kDemoConv, 6, 9); }, all0, 0, ""},
        {"conv activation code -1", [](HostGraph& g) { setScalar(g, kDemoConv, 6, -1); }, all0, 0, ""},
        {"conv explicit pads -5", [](HostGraph& g) { explicitConv(g, -5, -5, -5, -5, 1); }, convRefused, 1,
         unknownPadding},
        {"conv explicit pads 2^31-1", [](HostGraph& g) { explicitConv(g, INT32_MAX, INT32_MAX, 1, 1, 1); }, convRefused,
         1, unknownPadding},
        {"conv explicit pads -2^31", [](HostGraph& g) { explicitConv(g, INT32_MIN, 0, INT32_MIN, 0, 1); }, convRefused,
         1, unknownPadding},
        {"conv explicit stride 0", [](HostGraph& g) { explicitConv(g, 1, 1, 1, 1, 0); }, convRefused, 1,
         unknownPadding},
        // The multiplier is not a rule of the check; the runtime refuses the
        // filter whose dimensions it produces.
        {"depthwise multiplier 0", [](HostGraph& g) { setScalar(g, kDemoDepthwise, 6, 0); }, all0, 1,
         kRuntimeRefusedConstant},
        {"depthwise multiplier 3", [](HostGraph& g) { setScalar(g, kDemoDepthwise, 6, 3); }, all0, 1,
         kRuntimeRefusedConstant},
        {"depthwise multiplier -1", [](HostGraph& g) { setScalar(g, kDemoDepthwise, 6, -1); }, all0, 1,
         kRuntimeRefusedConstant},
        {"max pool window 0", [](HostGraph& g) { setScalar(g, kDemoMaxPool, 4, 0); }, poolsDisagree, 1,
         "failed 0 != node (0 != 0): Error adding base operation"},
        {"max pool window -3", [](HostGraph& g) { setScalar(g, kDemoMaxPool, 5, -3); }, poolsDisagree, 1,
         kRuntimeRefusedConstant},
        {"max pool window 1000", [](HostGraph& g) { setScalar(g, kDemoMaxPool, 4, 1000); }, poolsDisagree, 1,
         "failed 0 != node (0 != 0): Error adding base operation"},
        {"average pool stride 0", [](HostGraph& g) { setScalar(g, kDemoAvgPool, 2, 0); }, addRefused, 1,
         "failed 0 != node (0 != 0): Error adding base operation"},
        {"average pool stride 2^31-1", [](HostGraph& g) { setScalar(g, kDemoAvgPool, 3, INT32_MAX); }, all0, 1,
         kRuntimeRefusedConstant},
        {"concatenation axis 7", [](HostGraph& g) { setScalar(g, kDemoConcat, 2, 7); }, concatRefused, 1,
         kRuntimeRefusedNode},
        {"concatenation axis -1", [](HostGraph& g) { setScalar(g, kDemoConcat, 2, -1); }, concatRefused, 1,
         kRuntimeRefusedNode},
        {"concatenation of mismatched heights", [](HostGraph& g) { g.operation(kDemoConcat).mInputs[1] = 12; },
         concatRefused, 1, kRuntimeRefusedNode},
        {"add of mismatched shapes", [](HostGraph& g) { g.operation(kDemoAdd).mInputs[1] = 12; }, addRefused, 1,
         kRuntimeRefusedNode},
        {"fully connected weights [10, 255]",
         [](HostGraph& g) {
             setDims(g.operand(18), {10, 255});
             g.operand(18).mData.resize(2550);
         },
         fcRefused, 1, kRuntimeRefusedNode},
        {"fully connected weights [0, 256]",
         [](HostGraph& g) {
             setDims(g.operand(18), {0, 256});
         },
         fcRefused, 1, "Operand 18 holds 2560 bytes of data, but its dimensions need 0"},
        {"fully connected bias [9]",
         [](HostGraph& g) {
             setDims(g.operand(19), {9});
             g.operand(19).mData.resize(36);
         },
         fcRefused, 1, biasRefused},
        {"relu6 of a bias tensor",
         [](HostGraph& g) { g.operation(kDemoRelu6).mInputs[0] = 19; },
         {0, 0, 0, 0, 0, 0, 0, 1},
         1,
         kNotFound},
        // Output sizes wrap like the dimensions they come from; sizes are
        // counted in 64 bits where the data is compared.
        {"filter of 2^32 elements",
         [](HostGraph& g) {
             setDims(g.operand(1), {8, 65536, 65536, 3});
         },
         all0, 1, "Operand 1 holds 216 bytes of data, but its dimensions need 103079215104"},
        {"depthwise filter of 2^32 elements",
         [](HostGraph& g) {
             setDims(g.operand(10), {1, 65536, 65536, 8});
         },
         all0, 1, kRuntimeRefusedConstant},
    };
}

class MalformedParameters : public ::testing::TestWithParam<ParameterMutation> {};

TEST_P(MalformedParameters, AreAnsweredWithoutHarm) {
    const ParameterMutation& row = GetParam();
    zelsim::reset();
    reltest::Accelerator accelerator;
    LoadedModel model = reltest::loadDemoModel();
    ASSERT_TRUE(model.graph);
    HostGraph& graph = *model.graph;
    row.mutate(graph);

    HostSupportQuery query(graph.getOperationCount());
    {
        zeltest::LogCapture logs;
        accelerator->isGraphSupported(&graph, &query);
    }
    const std::vector<int> levels = query.calls() != 0 ? query.levels() : std::vector<int>();

    zeltest::LogCapture logs;
    HostExecutorContext context;
    const CreateExecutorResult created = accelerator->createGraphExecutor(&graph, &context);
    const std::vector<std::string> errors = logs.errors();
    const std::string first = firstError(errors);
    int executed = -1;
    if (created.executor != nullptr) {
        IoBuffers buffers = makeBuffers(model);
        executed = static_cast<int>(executeBound(graph, *created.executor, buffers).status);
        created.executor->release();
    }
    EXPECT_EQ(levelsText(levels), levelsText(row.levels));
    EXPECT_EQ(static_cast<int>(created.status), row.status);
    if (row.status == 0) {
        EXPECT_EQ(executed, 0);
    } else {
        ASSERT_FALSE(errors.empty());
        EXPECT_NE(first.find(row.firstError), std::string::npos) << ::testing::PrintToString(errors);
    }
    EXPECT_EQ(zelsim::liveGraphs(), 0);
}

INSTANTIATE_TEST_SUITE_P(Rows, MalformedParameters, ::testing::ValuesIn(parameterMutations()),
                         rowName<ParameterMutation>);

// --- malformed buffers at execution time ------------------------------------------

struct ExecutionMutation {
    const char* name;
    // Changes the host's side of one execution: its buffers and its graph.
    std::function<void(HostGraph&, IoBuffers&)> mutate;
    // Whether the graph reports the bound buffers (an executing host).
    bool executing;
    int status;
    std::string error;  // an error line of the execution, "" for none
};

void PrintTo(const ExecutionMutation& mutation, std::ostream* out) {
    *out << mutation.name;
}

std::vector<ExecutionMutation> executionMutations() {
    return {
        {"unchanged", [](HostGraph&, IoBuffers&) {}, true, 0, ""},
        {"input unbound", [](HostGraph&, IoBuffers& b) { b.inputs[0].clear(); }, true, 1, ""},
        {"output unbound", [](HostGraph&, IoBuffers& b) { b.outputs[0].clear(); }, true, 1, ""},
        {"input one byte short", [](HostGraph&, IoBuffers& b) { b.inputs[0].pop_back(); }, true, 1, ""},
        {"input one byte long", [](HostGraph&, IoBuffers& b) { b.inputs[0].push_back(0); }, true, 1, ""},
        {"output one byte short", [](HostGraph&, IoBuffers& b) { b.outputs[0].pop_back(); }, true, 1, ""},
        {"host not executing", [](HostGraph&, IoBuffers&) {}, false, 1, ""},
        {"input of rank 5 at execution",
         [](HostGraph& g, IoBuffers&) {
             g.operand(kInput).mDims = {1, 1, 4, 4, 2};
         },
         true, 1, "Operand 0 has more than 4 dimensions and cannot be executed"},
        {"input grown at execution",
         [](HostGraph& g, IoBuffers& b) {
             g.operand(kInput).mDims = {1, 8, 8, 2};
             b.inputs[0].resize(128);
         },
         true, 1, ""},
        {"input of rank 0 at execution", [](HostGraph& g, IoBuffers&) { g.operand(kInput).mDims.clear(); }, true, 0,
         ""},
    };
}

class MalformedExecution : public ::testing::TestWithParam<ExecutionMutation> {};

TEST_P(MalformedExecution, IsRefusedAndTheExecutorLivesOn) {
    const ExecutionMutation& row = GetParam();
    zelsim::reset();
    reltest::Accelerator accelerator;
    auto graph = baseGraph();
    HostExecutorContext context;
    const CreateExecutorResult created = accelerator->createGraphExecutor(graph.get(), &context);
    ASSERT_EQ(created.status, Status::SUCCESS);

    auto goodBuffers = [&] {
        IoBuffers buffers;
        buffers.inputs.emplace_back(static_cast<size_t>(operandByteSize(*graph, kInput)), 7);
        buffers.outputs.emplace_back(static_cast<size_t>(operandByteSize(*graph, kOutput)), 0);
        return buffers;
    };
    IoBuffers good = goodBuffers();
    ASSERT_EQ(executeBound(*graph, *created.executor, good).status, Status::SUCCESS);
    const std::vector<uint8_t> expected = good.outputs[0];

    IoBuffers bad = goodBuffers();
    row.mutate(*graph, bad);
    ExecuteResult result{};
    {
        zeltest::LogCapture logs;
        if (row.executing) {
            result = executeBound(*graph, *created.executor, bad);
        } else {
            for (uint32_t i = 0; i < bad.inputs.size(); ++i) {
                graph->bindInput(i, bad.inputs[i].data(), static_cast<uint32_t>(bad.inputs[i].size()));
            }
            result = created.executor->execute();
        }
        EXPECT_EQ(static_cast<int>(result.status), row.status);
        if (!row.error.empty()) {
            EXPECT_EQ(logs.countContaining(row.error), 1u) << ::testing::PrintToString(logs.errors());
        }
    }

    // The host puts things right: the same executor runs and gives the same result.
    graph->operand(kInput).mDims = graph->operand(kInput).mOriginalDims;
    IoBuffers again = goodBuffers();
    EXPECT_EQ(executeBound(*graph, *created.executor, again).status, Status::SUCCESS);
    EXPECT_EQ(again.outputs[0], expected);
    created.executor->release();
    EXPECT_EQ(zelsim::liveGraphs(), 0);
}

INSTANTIATE_TEST_SUITE_P(Rows, MalformedExecution, ::testing::ValuesIn(executionMutations()),
                         rowName<ExecutionMutation>);

}  // namespace
