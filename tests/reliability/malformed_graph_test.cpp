// Malformed host graphs, one mutation of a valid graph per row: every one is
// answered (support levels or none at all, an executor status) without a
// crash, an out-of-bounds read or a leak, and the first error line says
// what is wrong.
#include <gtest/gtest.h>

#include <cstdlib>
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
    graph->addOperation(OperationType::CONV_2D,
                        {kInput, kFilter, kBias, kPadding, kStrideW, kStrideH, kActivation}, {kConvOut});
    graph->addOperation(OperationType::RELU, {kConvOut}, {kOutput});
    graph->setInputs({kInput});
    graph->setOutputs({kOutput});
    return graph;
}

// Helpers for the rows.
OperandType typeCode(int32_t code) { return static_cast<OperandType>(code); }
OperationType operationCode(int32_t code) { return static_cast<OperationType>(code); }
void setDims(HostOperand& operand, std::vector<uint32_t> dims) {
    operand.mDims = dims;
    operand.mOriginalDims = std::move(dims);
}
void dropData(HostOperand& operand) {
    operand.mHasData = false;
    operand.mData.clear();
}


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

void PrintTo(const Mutation& mutation, std::ostream* out) { *out << mutation.name; }

std::vector<Mutation> mutations() {
    return {
        {"unchanged", [](HostGraph&) {}, {0, 0}, 0, ""},
        // --- operand type codes outside the known set ----------------------
        {"input type code 99", [](HostGraph& g) { g.operand(kInput).mType = typeCode(99); }, {1, 0}, 1, "?"},
        {"filter type code 99", [](HostGraph& g) { g.operand(kFilter).mType = typeCode(99); }, {1, 0}, 1, "?"},
        {"output type code 10000", [](HostGraph& g) { g.operand(kOutput).mType = typeCode(10000); }, {0, 0}, 1, "?"},
        {"padding type code -1", [](HostGraph& g) { g.operand(kPadding).mType = typeCode(-1); }, {0, 0}, 1, "?"},
        // --- scalars given rank 1 -------------------------------------------
        {"stride of rank 1", [](HostGraph& g) { setDims(g.operand(kStrideW), {1}); }, {0, 0}, 0, ""},
        {"activation of rank 1 [4]", [](HostGraph& g) { setDims(g.operand(kActivation), {4}); }, {0, 0}, 0, ""},
        // --- quantization parameters ------------------------------------------
        {"input scale 0", [](HostGraph& g) { g.operand(kInput).mScale = 0.0f; }, {0, 0}, 0, ""},
        {"filter scale -0.25", [](HostGraph& g) { g.operand(kFilter).mScale = -0.25f; }, {0, 0}, 0, ""},
        {"output scale 0", [](HostGraph& g) { g.operand(kOutput).mScale = 0.0f; }, {0, 0}, 0, ""},
        {"conv output scale -1", [](HostGraph& g) { g.operand(kConvOut).mScale = -1.0f; }, {0, 0}, 0, ""},
        {"input zero point -1", [](HostGraph& g) { g.operand(kInput).mZeroPoint = -1; }, {0, 0}, 0, ""},
        {"output zero point 256", [](HostGraph& g) { g.operand(kOutput).mZeroPoint = 256; }, {0, 0}, 0, ""},
        {"filter zero point 256", [](HostGraph& g) { g.operand(kFilter).mZeroPoint = 256; }, {0, 0}, 0, ""},
        // --- operation type codes out of range --------------------------------
        {"operation type 9999", [](HostGraph& g) { g.operation(kConv).mType = operationCode(9999); }, {1, 0}, 1, "?"},
        {"operation type -1", [](HostGraph& g) { g.operation(kRelu).mType = operationCode(-1); }, {0, 1}, 1, "?"},
        {"operation type 20000 with one input",
         [](HostGraph& g) {
             g.operation(kRelu).mType = operationCode(20000);
         },
         {0, 1}, 1, "?"},
        {"operation type 20001 with inputs",
         [](HostGraph& g) {
             g.operation(kConv).mType = operationCode(20001);
         },
         {1, 0}, 1, "?"},
        // --- operand indices equal to the operand count -------------------------
        {"conv input index = operand count",
         [](HostGraph& g) { g.operation(kConv).mInputs[1] = kOperandCount; }, {}, 1, "?"},
        {"conv input 0 index = operand count",
         [](HostGraph& g) { g.operation(kConv).mInputs[0] = kOperandCount; }, {}, 1, "?"},
        {"relu output index = operand count",
         [](HostGraph& g) { g.operation(kRelu).mOutputs[0] = kOperandCount; }, {}, 1, "?"},
        // --- input counts ---------------------------------------------------
        {"conv with its last input removed", [](HostGraph& g) { g.operation(kConv).mInputs.pop_back(); }, {1, 0}, 1,
         "?"},
        {"conv with an extra input", [](HostGraph& g) { g.operation(kConv).mInputs.push_back(kStrideW); }, {1, 0}, 1,
         "?"},
        {"relu with its input removed", [](HostGraph& g) { g.operation(kRelu).mInputs.clear(); }, {0, 1}, 1, "?"},
        {"relu with an extra input", [](HostGraph& g) { g.operation(kRelu).mInputs.push_back(kConvOut); }, {0, 1},
         1, "?"},
        {"relu without outputs", [](HostGraph& g) { g.operation(kRelu).mOutputs.clear(); }, {0, 1}, 1, "?"},
        {"conv with two outputs", [](HostGraph& g) { g.operation(kConv).mOutputs.push_back(kOutput); }, {1, 0}, 1,
         "?"},
        // --- graph inputs and outputs ---------------------------------------
        {"graph input index out of range", [](HostGraph& g) { g.setInputs({kOperandCount}); }, {}, 1, "?"},
        {"graph output index out of range", [](HostGraph& g) { g.setOutputs({kOperandCount + 5}); }, {}, 1, "?"},
        // --- constant data ------------------------------------------------------
        {"filter data one byte short", [](HostGraph& g) { g.operand(kFilter).mData.pop_back(); }, {0, 0}, 1, "?"},
        {"filter data absent", [](HostGraph& g) { dropData(g.operand(kFilter)); }, {0, 0}, 1, "?"},
        {"bias data one value short", [](HostGraph& g) { g.operand(kBias).mData.resize(4); }, {0, 0}, 1, "?"},
        {"bias data absent", [](HostGraph& g) { dropData(g.operand(kBias)); }, {0, 0}, 1, "?"},
        {"stride without data", [](HostGraph& g) { dropData(g.operand(kStrideH)); }, {1, 0}, 1, "?"},
        {"activation without data", [](HostGraph& g) { dropData(g.operand(kActivation)); }, {1, 0}, 1, "?"},
        {"padding with two bytes of data", [](HostGraph& g) { g.operand(kPadding).mData.resize(2); }, {1, 0}, 1,
         "?"},
        // --- dimensions -------------------------------------------------------
        {"input without dimensions", [](HostGraph& g) { setDims(g.operand(kInput), {}); }, {1, 0}, 1, "?"},
        {"filter without dimensions", [](HostGraph& g) { setDims(g.operand(kFilter), {}); }, {1, 0}, 1, "?"},
        {"input with five dimensions", [](HostGraph& g) { setDims(g.operand(kInput), {1, 1, 4, 4, 2}); }, {1, 0}, 1,
         "?"},
        {"filter with five dimensions", [](HostGraph& g) { setDims(g.operand(kFilter), {1, 2, 2, 2, 2}); }, {1, 0},
         1, "?"},
        {"output with five dimensions", [](HostGraph& g) { setDims(g.operand(kOutput), {1, 1, 3, 3, 2}); }, {0, 0},
         1, "?"},
        {"input height 0", [](HostGraph& g) { setDims(g.operand(kInput), {1, 0, 4, 2}); }, {1, 0}, 1, "?"},
        {"input of 2^32 elements",
         [](HostGraph& g) { setDims(g.operand(kInput), {1, 65536, 65536, 2}); }, {0, 0}, 1, "?"},
        // --- graph structure ----------------------------------------------------
        {"operations not in topological order",
         [](HostGraph& g) {
             std::swap(g.operation(kConv).mType, g.operation(kRelu).mType);
             std::swap(g.operation(kConv).mInputs, g.operation(kRelu).mInputs);
             std::swap(g.operation(kConv).mOutputs, g.operation(kRelu).mOutputs);
         },
         {0, 0}, 1, "?"},
        {"relu reading its own output", [](HostGraph& g) { g.operation(kRelu).mInputs[0] = kOutput; }, {0, 0}, 1,
         "?"},
        {"two operations writing one operand", [](HostGraph& g) { g.operation(kRelu).mOutputs[0] = kConvOut; },
         {0, 0}, 1, "?"},
        // --- a misbehaving host ---------------------------------------------------
        {"null operation", [](HostGraph& g) { g.nullOperation(kRelu); }, {}, 1, "?"},
        {"failing buffer",
         [](HostGraph& g) {
             g.addBuffer({1, 2, 3});
             g.failBuffer(0);
         },
         {}, 1, "?"},
        {"null buffer", [](HostGraph& g) { g.addBuffer({1, 2, 3}); }, {}, 1, "?", 0,
         [](reltest::BrokenHostGraph& b) { b.mNullBuffer = 0; }},
        {"null operand", [](HostGraph&) {}, {}, 1, "?", 0, [](reltest::BrokenHostGraph& b) { b.mNullOperand = kBias; }},
        {"operation null on the second fetch", [](HostGraph&) {}, {1, 1}, 0, "", 0,
         [](reltest::BrokenHostGraph& b) { b.mOperationsBeforeNull = 2; }},
    };
}

class MalformedGraph : public ::testing::TestWithParam<Mutation> {};

std::string levelsText(const std::vector<int>& levels) {
    std::string text = "[";
    for (size_t i = 0; i < levels.size(); ++i) text += (i ? ", " : "") + std::to_string(levels[i]);
    return text + "]";
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
    const std::string first = errors.empty() ? "" : zeltest::afterLocation(errors[0]).empty()
                                                       ? errors[0]
                                                       : zeltest::afterLocation(errors[0]);
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
    if (std::getenv("RELTEST_EXPLORE") != nullptr) {
        std::printf("ROW %-40s levels %-10s status %d exec %d errors %zu first: %s\n", row.name,
                    levelsText(levels).c_str(), static_cast<int>(created.status), executed, errors.size(),
                    first.c_str());
        for (const auto& e : errors) std::printf("      %s\n", e.c_str());
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
        EXPECT_EQ(first, row.firstError) << ::testing::PrintToString(errors);
    }
    // Whatever happened, no runtime graph is left behind.
    EXPECT_EQ(zelsim::liveGraphs(), 0);
}

INSTANTIATE_TEST_SUITE_P(Rows, MalformedGraph, ::testing::ValuesIn(mutations()),
                         [](const ::testing::TestParamInfo<Mutation>& info) {
                             std::string name;
                             for (const char* c = info.param.name; *c != '\0'; ++c) {
                                 name += std::isalnum(static_cast<unsigned char>(*c)) ? *c : '_';
                             }
                             return name;
                         });

}  // namespace
