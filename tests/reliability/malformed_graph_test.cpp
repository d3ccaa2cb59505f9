// Malformed host graphs, one mutation of a valid graph per row: every one is
// answered (support levels or none at all, an executor status) without a
// crash, an out-of-bounds read or a leak, and the first error line says
// what is wrong. One row per distinct rejection path; the graph-level rows
// mutate a small convolution graph, the parameter rows the demo model.
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
// RELU operation; one graph input, one graph output.
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

std::unique_ptr<HostGraph> demoGraph() {
    return std::move(reltest::loadDemoModel().graph);
}

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

void setDims(HostOperand& operand, std::vector<uint32_t> dims) {
    operand.mDims = dims;
    operand.mOriginalDims = std::move(dims);
}
void dropData(HostOperand& operand) {
    operand.mHasData = false;
    operand.mData.clear();
}
// Gives input `position` of operation `op` a scalar of its own holding
// `value` (the demo model shares its scalars between operations).
void setScalar(HostGraph& graph, uint32_t op, uint32_t position, int32_t value) {
    graph.operation(op).mInputs.at(position) = graph.addInt32(value);
}
// Turns the demo's implicit-padding convolution into the explicit form.
void explicitConv(HostGraph& graph, int32_t left, int32_t right, int32_t top, int32_t bottom, int32_t stride) {
    std::vector<uint32_t>& ins = graph.operation(kDemoConv).mInputs;
    const uint32_t activation = ins.back();
    ins.resize(3);
    for (int32_t value : {left, right, top, bottom, stride, stride}) ins.push_back(graph.addInt32(value));
    ins.push_back(activation);
}

// First error lines shared by several rows.
const char* const kUnknownType = "Error: type exceeds max enum value";
const char* const kNotFound = "Operation not found";
const char* const kFiveDimensions =
    "failed N >= dims.size() (4 >= 5): Error: constant data dimensions 5 exceeds alignment of 4";
const char* const kUnknownPadding = "failed pad != ZEL_NN_PAD_NA (0 != 0): Unknown padding";
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
    // Text within the first error line of createGraphExecutor (after the
    // location prefix); "" when the executor is built.
    std::string firstError;
    // When the executor is built: the status of one execution.
    int executeStatus = 0;
    // Wraps the graph in a host that misbehaves (null operand, buffer...).
    std::function<void(reltest::BrokenHostGraph&)> breakHost = nullptr;
};

void PrintTo(const Mutation& mutation, std::ostream* out) {
    *out << mutation.name;
}

// Test name of a row: its description with every other character as '_'.
template <typename Row>
std::string rowName(const ::testing::TestParamInfo<Row>& info) {
    std::string name;
    for (const char* c = info.param.name; *c != '\0'; ++c)
        name += std::isalnum(static_cast<unsigned char>(*c)) ? *c : '_';
    return name;
}

std::string levelsText(const std::vector<int>& levels) {
    std::string text = "[";
    for (size_t i = 0; i < levels.size(); ++i) text += (i ? ", " : "") + std::to_string(levels[i]);
    return text + "]";
}

// Buffers of the right sizes for the graph's inputs (7s) and outputs.
IoBuffers buffersFor(const HostGraph& graph) {
    IoBuffers buffers;
    for (uint32_t i = 0; i < graph.getInputCount(); ++i) {
        buffers.inputs.emplace_back(static_cast<size_t>(operandByteSize(graph, graph.getInput(i))), 7);
    }
    for (uint32_t i = 0; i < graph.getOutputCount(); ++i) {
        buffers.outputs.emplace_back(static_cast<size_t>(operandByteSize(graph, graph.getOutput(i))), 0);
    }
    return buffers;
}

// The support query, then the executor (and one execution when built), of
// the mutated graph.
void expectAnswered(const Mutation& row, const std::function<std::unique_ptr<HostGraph>()>& base) {
    zelsim::reset();
    reltest::Accelerator accelerator;
    std::unique_ptr<HostGraph> graph = base();
    ASSERT_TRUE(graph);
    row.mutate(*graph);

    std::vector<int> levels;
    {
        zeltest::LogCapture logs;
        reltest::BrokenHostGraph broken(*graph);
        if (row.breakHost) row.breakHost(broken);
        HostSupportQuery query(graph->getOperationCount());
        accelerator->isGraphSupported(&broken, &query);
        if (query.calls() != 0) levels = query.levels();
        if (levels.empty()) {
            // A graph the model cannot be built from: one error line, no Out line.
            EXPECT_EQ(logs.errors().size(), 1u) << ::testing::PrintToString(logs.errors());
            EXPECT_EQ(logs.count("Out ZelAccelerator::isGraphSupported()"), 0u);
        }
    }
    EXPECT_EQ(levelsText(levels), levelsText(row.levels));

    zeltest::LogCapture logs;
    reltest::BrokenHostGraph broken(*graph);
    if (row.breakHost) row.breakHost(broken);
    HostExecutorContext context;
    const CreateExecutorResult created = accelerator->createGraphExecutor(&broken, &context);
    const std::vector<std::string> errors = logs.errors();
    EXPECT_EQ(static_cast<int>(created.status), row.status);
    EXPECT_EQ(created.executor != nullptr, row.status == 0);
    if (created.executor != nullptr) {
        IoBuffers buffers = buffersFor(*graph);
        EXPECT_EQ(static_cast<int>(executeBound(*graph, *created.executor, buffers).status), row.executeStatus);
        created.executor->release();
    } else {
        ASSERT_FALSE(errors.empty());
        const std::string first = zeltest::afterLocation(errors[0]);
        EXPECT_NE((first.empty() ? errors[0] : first).find(row.firstError), std::string::npos)
            << ::testing::PrintToString(errors);
        if (row.levels.empty()) {
            EXPECT_EQ(errors.size(), 1u) << ::testing::PrintToString(errors);
        }
    }
    // Whatever happened, no runtime graph is left behind.
    EXPECT_EQ(zelsim::liveGraphs(), 0);
}

class MalformedGraph : public ::testing::TestWithParam<Mutation> {};

TEST_P(MalformedGraph, IsAnsweredWithoutHarm) {
    expectAnswered(GetParam(), baseGraph);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Rows, MalformedGraph, ::testing::ValuesIn(std::vector<Mutation>{
    {"unchanged", [](HostGraph&) {}, {0, 0}, 0, ""},
    // Type codes outside the known set: refused where read, ignored where not.
    {"input type code 99", [](HostGraph& g) { g.operand(kInput).mType = static_cast<OperandType>(99); },
     {1, 0}, 1, kUnknownType},
    {"filter type code 99", [](HostGraph& g) { g.operand(kFilter).mType = static_cast<OperandType>(99); },
     {1, 0}, 0, ""},
    // Quantization parameters are not checked before the runtime computes.
    {"input scale 0", [](HostGraph& g) { g.operand(kInput).mScale = 0.0f; }, {0, 0}, 0, "", 1},
    {"filter scale -0.25", [](HostGraph& g) { g.operand(kFilter).mScale = -0.25f; }, {0, 0}, 0, "", 1},
    {"output zero point 256", [](HostGraph& g) { g.operand(kOutput).mZeroPoint = 256; }, {0, 0}, 0, ""},
    {"operation type 9999", [](HostGraph& g) { g.operation(kConv).mType = static_cast<OperationType>(9999); },
     {1, 0}, 1, kNotFound},
    {"operation type 20000 with one input",
     [](HostGraph& g) { g.operation(kRelu).mType = static_cast<OperationType>(20000); }, {0, 1}, 1,
     "failed 6 == operation->getNumInputs() (6 == 1): OEM LSTM op requires 6 inputs"},
    // Indices outside the graph: no model at all.
    {"conv input index = operand count", [](HostGraph& g) { g.operation(kConv).mInputs[1] = kOperandCount; }, {}, 1,
     "Operation 0 input 1 refers to operand 9 outside the graph (9 operands)"},
    {"relu output index = operand count", [](HostGraph& g) { g.operation(kRelu).mOutputs[0] = kOperandCount; }, {}, 1,
     "Operation 1 output 0 refers to operand 9 outside the graph (9 operands)"},
    {"graph input index out of range", [](HostGraph& g) { g.setInputs({kOperandCount}); }, {}, 1,
     "Graph input 0 refers to operand 9 outside the graph (9 operands)"},
    {"graph output index out of range", [](HostGraph& g) { g.setOutputs({kOperandCount + 5}); }, {}, 1,
     "Graph output 0 refers to operand 14 outside the graph (9 operands)"},
    // Operand counts.
    {"conv with an extra input", [](HostGraph& g) { g.operation(kConv).mInputs.push_back(kStrideW); }, {1, 0}, 1,
     "Need 7 or 10 inputs for quant8_asym::conv_2d"},
    {"relu with its input removed", [](HostGraph& g) { g.operation(kRelu).mInputs.clear(); },
     {0, 1}, 1, "Operation 1 has no inputs"},
    {"relu without outputs", [](HostGraph& g) { g.operation(kRelu).mOutputs.clear(); }, {0, 1}, 1,
     "failed 1 == outs.size() (0 == 1): Need 1 output for quant8_asym::relu"},
    // Constant data.
    {"filter data one byte short", [](HostGraph& g) { g.operand(kFilter).mData.pop_back(); }, {1, 0}, 1,
     "Operand 1 holds 15 bytes of data, but its dimensions need 16"},
    // Refused at the query; preparation, asked all the same, refuses the
    // bias node.
    {"bias data one value short", [](HostGraph& g) { g.operand(kBias).mData.resize(4); },
     {1, 0}, 1, "Error adding bias operation"},
    {"bias data absent", [](HostGraph& g) { dropData(g.operand(kBias)); }, {0, 0}, 1, kRuntimeRefusedConstant},
    {"stride without data", [](HostGraph& g) { dropData(g.operand(kStrideH)); },
     {1, 0}, 1, "Scalar operand 5 has no data"},
    // Dimensions.
    {"input without dimensions", [](HostGraph& g) { setDims(g.operand(kInput), {}); }, {1, 0}, 1, kRuntimeRefusedNode},
    {"input with five dimensions", [](HostGraph& g) { setDims(g.operand(kInput), {1, 1, 4, 4, 2}); },
     {1, 0}, 1, kFiveDimensions},
    {"output with five dimensions", [](HostGraph& g) { setDims(g.operand(kOutput), {1, 1, 3, 3, 2}); },
     {0, 1}, 1, kFiveDimensions},
    // The convolution's inferred shape means nothing; the next operation's
    // declared output then disagrees with it.
    {"input height 0", [](HostGraph& g) { setDims(g.operand(kInput), {1, 0, 4, 2}); }, {2, 1}, 1, kRuntimeRefusedNode},
    {"input of 2^32 elements", [](HostGraph& g) { setDims(g.operand(kInput), {1, 65536, 65536, 2}); }, {1, 0}, 1,
     "Error adding input operation"},
    // Graph structure.
    {"operations not in topological order",
     [](HostGraph& g) {
         std::swap(g.operation(kConv).mType, g.operation(kRelu).mType);
         std::swap(g.operation(kConv).mInputs, g.operation(kRelu).mInputs);
         std::swap(g.operation(kConv).mOutputs, g.operation(kRelu).mOutputs);
     },
     {0, 0}, 1, kRuntimeRefusedConstant},
    {"two operations writing one operand", [](HostGraph& g) { g.operation(kRelu).mOutputs[0] = kConvOut; }, {0, 0}, 1,
     "Error: operation output has already been registered"},
    // A misbehaving host.
    {"null operation", [](HostGraph& g) { g.nullOperation(kRelu); }, {}, 1, "Failed to get operation 1"},
    {"failing buffer", [](HostGraph& g) { g.addBuffer({1, 2, 3}); g.failBuffer(0); }, {}, 1, "Failed to get IBuffer 0"},
    // Buffers are collected, never read.
    {"null buffer", [](HostGraph& g) { g.addBuffer({1, 2, 3}); }, {0, 0}, 0, "", 0,
     [](reltest::BrokenHostGraph& b) { b.mNullBuffer = 0; }},
    {"null operand", [](HostGraph&) {}, {}, 1, "Failed to get operand 2", 0,
     [](reltest::BrokenHostGraph& b) { b.mNullOperand = kBias; }},
    {"operation null on the second fetch", [](HostGraph&) {}, {1, 1}, 0, "", 0,
     [](reltest::BrokenHostGraph& b) { b.mOperationsBeforeNull = 2; }},
}), rowName<Mutation>);
// clang-format on

class MalformedParameters : public ::testing::TestWithParam<Mutation> {};

TEST_P(MalformedParameters, AreAnsweredWithoutHarm) {
    expectAnswered(GetParam(), demoGraph);
}

// Levels of the eight demo operations.
const std::vector<int> kAll0 = {0, 0, 0, 0, 0, 0, 0, 0};
const std::vector<int> kConvRefused = {1, 0, 0, 0, 0, 0, 0, 0};
const std::vector<int> kDepthwiseRefused = {0, 1, 0, 0, 0, 0, 0, 0};
const std::vector<int> kMaxPoolRefused = {0, 0, 1, 0, 0, 0, 0, 0};
const std::vector<int> kAvgPoolRefused = {0, 0, 0, 1, 0, 0, 0, 0};
const std::vector<int> kAddRefused = {0, 0, 0, 0, 1, 0, 0, 0};
const std::vector<int> kFcRefused = {0, 0, 0, 0, 0, 0, 1, 0};

// clang-format off
INSTANTIATE_TEST_SUITE_P(Rows, MalformedParameters, ::testing::ValuesIn(std::vector<Mutation>{
    {"unchanged", [](HostGraph&) {}, kAll0, 0, ""},
    // Refused at the query; preparation, asked all the same, passes the
    // stride to the runtime (as a shape constant of 2^32 - 1 for -1).
    {"conv stride 0", [](HostGraph& g) { setScalar(g, kDemoConv, 4, 0); }, kConvRefused, 1, kRuntimeRefusedNode},
    {"conv stride -1", [](HostGraph& g) { setScalar(g, kDemoConv, 5, -1); },
     kConvRefused, 1, kRuntimeRefusedConstant},
    {"conv padding code 7", [](HostGraph& g) { setScalar(g, kDemoConv, 3, 7); }, kConvRefused, 1, kUnknownPadding},
    // Unknown activation codes mean no activation.
    {"conv activation code 9", [](HostGraph& g) { setScalar(g, kDemoConv, 6, 9); }, kAll0, 0, ""},
    {"conv explicit pads 2^31-1", [](HostGraph& g) { explicitConv(g, INT32_MAX, INT32_MAX, 1, 1, 1); }, kConvRefused, 1,
     kUnknownPadding},
    {"conv explicit pads -2^31", [](HostGraph& g) { explicitConv(g, INT32_MIN, 0, INT32_MIN, 0, 1); }, kConvRefused, 1,
     kUnknownPadding},
    {"conv explicit stride 0", [](HostGraph& g) { explicitConv(g, 1, 1, 1, 1, 0); }, kConvRefused, 1, kUnknownPadding},
    // Refused at the query; preparation, asked all the same, leaves the
    // runtime to refuse the filter whose dimensions the multiplier produces.
    {"depthwise multiplier 0", [](HostGraph& g) { setScalar(g, kDemoDepthwise, 6, 0); },
     kDepthwiseRefused, 1, kRuntimeRefusedConstant},
    {"depthwise multiplier -1", [](HostGraph& g) { setScalar(g, kDemoDepthwise, 6, -1); },
     kDepthwiseRefused, 1, kRuntimeRefusedConstant},
    {"max pool window 0", [](HostGraph& g) { setScalar(g, kDemoMaxPool, 4, 0); },
     kMaxPoolRefused, 1, kRuntimeRefusedNode},
    {"max pool window -3", [](HostGraph& g) { setScalar(g, kDemoMaxPool, 5, -3); },
     kMaxPoolRefused, 1, kRuntimeRefusedConstant},
    {"average pool stride 0", [](HostGraph& g) { setScalar(g, kDemoAvgPool, 2, 0); },
     kAvgPoolRefused, 1, kRuntimeRefusedNode},
    {"concatenation axis 7", [](HostGraph& g) { setScalar(g, kDemoConcat, 2, 7); }, {0, 0, 0, 0, 0, 1, 0, 0}, 1,
     "Concatenation axis 7 is outside the input's rank"},
    {"add of mismatched shapes", [](HostGraph& g) { g.operation(kDemoAdd).mInputs[1] = 12; },
     kAddRefused, 1, kRuntimeRefusedNode},
    {"fully connected weights [10, 255]",
     [](HostGraph& g) { setDims(g.operand(18), {10, 255}); g.operand(18).mData.resize(2550); },
     kFcRefused, 1, kRuntimeRefusedNode},
    {"fully connected bias [9]", [](HostGraph& g) { setDims(g.operand(19), {9}); g.operand(19).mData.resize(36); },
     kFcRefused, 1, "failed 0 != node (0 != 0): Error adding bias operation"},
    {"relu6 of a bias tensor", [](HostGraph& g) { g.operation(kDemoRelu6).mInputs[0] = 19; },
     {0, 0, 0, 0, 0, 0, 0, 1}, 1, kNotFound},
    // Sizes are counted in 64 bits where the data is compared: refused at
    // the query, and by preparation when asked all the same.
    {"filter of 2^32 elements", [](HostGraph& g) { setDims(g.operand(1), {8, 65536, 65536, 3}); }, kConvRefused, 1,
     "Operand 1 holds 216 bytes of data, but its dimensions need 103079215104"},
    {"depthwise filter of 2^32 elements", [](HostGraph& g) { setDims(g.operand(10), {1, 65536, 65536, 8}); },
     kDepthwiseRefused, 1, kRuntimeRefusedConstant},
}), rowName<Mutation>);
// clang-format on

// --- malformed buffers at execution time --------------------------------------

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

class MalformedExecution : public ::testing::TestWithParam<ExecutionMutation> {};

TEST_P(MalformedExecution, IsRefusedAndTheExecutorLivesOn) {
    const ExecutionMutation& row = GetParam();
    zelsim::reset();
    reltest::Accelerator accelerator;
    auto graph = baseGraph();
    HostExecutorContext context;
    const CreateExecutorResult created = accelerator->createGraphExecutor(graph.get(), &context);
    ASSERT_EQ(created.status, Status::SUCCESS);
    IoBuffers good = buffersFor(*graph);
    ASSERT_EQ(executeBound(*graph, *created.executor, good).status, Status::SUCCESS);

    IoBuffers bad = buffersFor(*graph);
    row.mutate(*graph, bad);
    {
        zeltest::LogCapture logs;
        ExecuteResult result{};
        if (row.executing) {
            result = executeBound(*graph, *created.executor, bad);
        } else {
            graph->bindInput(0, bad.inputs[0].data(), static_cast<uint32_t>(bad.inputs[0].size()));
            result = created.executor->execute();
        }
        EXPECT_EQ(static_cast<int>(result.status), row.status);
        if (!row.error.empty()) {
            EXPECT_EQ(logs.countContaining(row.error), 1u) << ::testing::PrintToString(logs.errors());
        }
    }

    // The host puts things right: the same executor runs and gives the same result.
    graph->operand(kInput).mDims = graph->operand(kInput).mOriginalDims;
    IoBuffers again = buffersFor(*graph);
    EXPECT_EQ(executeBound(*graph, *created.executor, again).status, Status::SUCCESS);
    EXPECT_EQ(again.outputs[0], good.outputs[0]);
    created.executor->release();
    EXPECT_EQ(zelsim::liveGraphs(), 0);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Rows, MalformedExecution, ::testing::ValuesIn(std::vector<ExecutionMutation>{
    {"unchanged", [](HostGraph&, IoBuffers&) {}, true, 0, ""},
    {"input unbound", [](HostGraph&, IoBuffers& b) { b.inputs[0].clear(); }, true, 1, ""},
    {"input one byte short", [](HostGraph&, IoBuffers& b) { b.inputs[0].pop_back(); }, true, 1, ""},
    {"output one byte short", [](HostGraph&, IoBuffers& b) { b.outputs[0].pop_back(); }, true, 1, ""},
    {"host not executing", [](HostGraph&, IoBuffers&) {}, false, 1, ""},
    {"input of rank 5 at execution", [](HostGraph& g, IoBuffers&) { g.operand(kInput).mDims = {1, 1, 4, 4, 2}; },
     true, 1, "Operand 0 has more than 4 dimensions and cannot be executed"},
    {"input grown at execution",
     [](HostGraph& g, IoBuffers& b) { g.operand(kInput).mDims = {1, 8, 8, 2}; b.inputs[0].resize(128); },
     true, 1, ""},
    {"input of rank 0 at execution", [](HostGraph& g, IoBuffers&) { g.operand(kInput).mDims.clear(); }, true, 0, ""},
}), rowName<ExecutionMutation>);
// clang-format on

}  // namespace
