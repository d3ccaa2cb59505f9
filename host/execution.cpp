#include "zelhost/execution.h"

#include <algorithm>
#include <cmath>
#include <sstream>

#include "zelhost/names.h"

namespace arv {
namespace nnhal {
namespace host {

std::vector<int> querySupport(IAccelerator& accelerator, HostGraph& graph) {
    HostSupportQuery query(graph.getOperationCount());
    accelerator.isGraphSupported(&graph, &query);
    return query.levels();
}

bool allSupported(const std::vector<int>& levels) {
    return std::all_of(levels.begin(), levels.end(), [](int level) { return level == 0; });
}

namespace {

uint64_t saturatingAdd(uint64_t a, uint64_t b) {
    return a > UINT64_MAX - b ? UINT64_MAX : a + b;
}

// Dimension `d` of operand `index` when it has rank `rank`, else 0.
uint64_t dimension(const HostGraph& graph, uint32_t index, uint32_t rank, uint32_t d) {
    const IOperand* operand = graph.getOperand(index);
    if (operand == nullptr || operand->getDimensionCount() != rank) return 0;
    return operand->getDimension(d);
}

}  // namespace

uint64_t operationMacs(const HostGraph& graph, uint32_t index) {
    const IOperation* operation = graph.getOperation(index);
    if (operation == nullptr || operation->getNumInputs() < 2 || operation->getNumOutputs() < 1) return 0;
    const uint32_t filter = operation->getInput(1);
    uint64_t perOutput = 0;
    switch (operation->getType()) {
        case OperationType::CONV_2D:  // filter [depth_out, height, width, depth_in]
            perOutput =
                dimension(graph, filter, 4, 1) * dimension(graph, filter, 4, 2) * dimension(graph, filter, 4, 3);
            break;
        case OperationType::DEPTHWISE_CONV_2D:  // filter [1, height, width, depth_out]
            perOutput = dimension(graph, filter, 4, 1) * dimension(graph, filter, 4, 2);
            break;
        case OperationType::FULLY_CONNECTED:  // weights [units, input size]
            perOutput = dimension(graph, filter, 2, 1);
            break;
        default: return 0;
    }
    // Both factors stay below 2^28 for a loaded model, so the product fits.
    return perOutput * operandElementCount(graph, operation->getOutput(0));
}

Partition partitionGraph(const HostGraph& graph, const std::vector<int>& levels) {
    Partition partition;
    partition.operations = static_cast<uint32_t>(levels.size());
    for (uint32_t i = 0; i < levels.size(); ++i) {
        const bool accelerator = levels[i] == 0;
        const uint64_t macs = operationMacs(graph, i);
        if (partition.segments.empty() || partition.segments.back().accelerator != accelerator) {
            partition.segments.push_back(Segment{accelerator, i, i, 0});
        }
        Segment& segment = partition.segments.back();
        segment.last = i;
        segment.macs = saturatingAdd(segment.macs, macs);
        partition.macs = saturatingAdd(partition.macs, macs);
        if (accelerator) {
            ++partition.acceleratorOperations;
            partition.acceleratorMacs = saturatingAdd(partition.acceleratorMacs, macs);
        }
    }
    return partition;
}

IoBuffers makeBuffers(const LoadedModel& model) {
    IoBuffers buffers;
    const HostGraph& graph = *model.graph;
    for (uint32_t i = 0; i < graph.getInputCount(); ++i) {
        if (model.hasInputData && i < model.inputData.size()) {
            buffers.inputs.push_back(model.inputData[i]);
        } else {
            buffers.inputs.emplace_back(static_cast<size_t>(operandByteSize(graph, graph.getInput(i))), 0);
        }
    }
    for (uint32_t i = 0; i < graph.getOutputCount(); ++i) {
        buffers.outputs.emplace_back(static_cast<size_t>(operandByteSize(graph, graph.getOutput(i))), 0);
    }
    return buffers;
}

ExecuteResult executeBound(HostGraph& graph, IGraphExecutor& executor, IoBuffers& buffers) {
    auto bind = [](std::vector<uint8_t>& bytes) -> void* { return bytes.empty() ? nullptr : bytes.data(); };
    for (uint32_t i = 0; i < buffers.inputs.size(); ++i) {
        graph.bindInput(i, bind(buffers.inputs[i]), static_cast<uint32_t>(buffers.inputs[i].size()));
    }
    for (uint32_t i = 0; i < buffers.outputs.size(); ++i) {
        graph.bindOutput(i, bind(buffers.outputs[i]), static_cast<uint32_t>(buffers.outputs[i].size()));
    }
    graph.setExecuting(true);
    const ExecuteResult result = executor.execute();
    graph.setExecuting(false);
    for (uint32_t i = 0; i < buffers.inputs.size(); ++i) graph.bindInput(i, nullptr, 0);
    for (uint32_t i = 0; i < buffers.outputs.size(); ++i) graph.bindOutput(i, nullptr, 0);
    return result;
}

namespace {
std::string number(double value) {
    std::ostringstream out;
    out << value;
    return out.str();
}
}  // namespace

Comparison compareOutputs(const LoadedModel& model, const std::vector<std::vector<uint8_t>>& outputs) {
    Comparison comparison;
    if (!model.hasExpected) return comparison;
    const HostGraph& graph = *model.graph;
    for (uint32_t position = 0; position < model.expected.size(); ++position) {
        if (std::find(model.ignoredOutputs.begin(), model.ignoredOutputs.end(), position) !=
            model.ignoredOutputs.end()) {
            continue;
        }
        const std::vector<double>& expected = model.expected[position];
        const IOperand* operand =
            position < graph.getOutputCount() ? graph.getOperand(graph.getOutput(position)) : nullptr;
        if (operand == nullptr || position >= outputs.size()) {
            comparison.sizeMismatch = true;
            if (comparison.detail.empty()) comparison.detail = "output " + std::to_string(position) + " does not exist";
            continue;
        }
        const ElementKind kind = elementKindOf(static_cast<int32_t>(operand->getType()));
        const size_t count = outputs[position].size() / elementSize(kind);
        if (count != expected.size() || outputs[position].size() % elementSize(kind) != 0) {
            comparison.sizeMismatch = true;
            if (comparison.detail.empty()) {
                comparison.detail = "output " + std::to_string(position) + ": " + std::to_string(count) +
                                    " values, expected " + std::to_string(expected.size());
            }
            continue;
        }
        for (uint32_t i = 0; i < count; ++i) {
            const double got = readElement(kind, outputs[position].data(), i);
            const double difference = std::fabs(got - expected[i]);
            if (difference <= model.tolerance) {
                comparison.maxDifference = std::max(comparison.maxDifference, difference);
                continue;
            }
            ++comparison.mismatches;
            if (!(difference <= comparison.maxDifference)) comparison.maxDifference = difference;  // NaN sticks
            if (comparison.detail.empty()) {
                comparison.detail = "output " + std::to_string(position) + "[" + std::to_string(i) + "]: got " +
                                    number(got) + ", expected " + number(expected[i]) + " (tolerance " +
                                    number(model.tolerance) + ")";
            }
        }
    }
    return comparison;
}

std::string formatValues(ElementKind kind, const std::vector<uint8_t>& bytes, uint32_t maxCount) {
    const size_t count = bytes.size() / elementSize(kind);
    std::ostringstream out;
    for (size_t i = 0; i < count && i < maxCount; ++i) {
        if (i) out << ' ';
        out << readElement(kind, bytes.data(), static_cast<uint32_t>(i));
    }
    if (count > maxCount) out << " ...";
    return out.str();
}

const char* caseClassName(CaseClass value) {
    switch (value) {
        case CaseClass::Pass: return "pass";
        case CaseClass::Declined: return "declined";
        case CaseClass::Refused: return "refused";
        case CaseClass::Fail: return "FAIL";
        case CaseClass::Error: break;
    }
    return "ERROR";
}

CaseResult runCase(IAccelerator& accelerator, const std::string& path) {
    LoadedModel model;
    const std::string error = loadModelFile(path, model);
    if (!error.empty()) return {CaseClass::Error, error};
    HostGraph& graph = *model.graph;

    const std::vector<int> levels = querySupport(accelerator, graph);
    for (uint32_t i = 0; i < levels.size(); ++i) {
        if (levels[i] != 0) {
            const int32_t code = static_cast<int32_t>(graph.operation(i).mType);
            return {CaseClass::Declined, "operation " + std::to_string(i) + " " + operationName(code) + " (code " +
                                             std::to_string(code) + "): " + supportLevelName(levels[i])};
        }
    }

    HostExecutorContext context;
    const CreateExecutorResult created = accelerator.createGraphExecutor(&graph, &context);
    if (created.status == Status::GENERAL_FAILURE && created.executor == nullptr) {
        return {CaseClass::Refused, "createGraphExecutor returned status 1"};
    }
    if (created.status != Status::SUCCESS || created.executor == nullptr) {
        if (created.executor != nullptr) created.executor->release();
        return {CaseClass::Error,
                "createGraphExecutor returned status " + std::to_string(static_cast<int32_t>(created.status)),
                created.status == Status::ACCELERATOR_UNAVAILABLE};
    }

    IoBuffers buffers = makeBuffers(model);
    const ExecuteResult executed = executeBound(graph, *created.executor, buffers);
    created.executor->release();
    if (executed.status != Status::SUCCESS) {
        return {CaseClass::Error, "execute returned status " + std::to_string(static_cast<int32_t>(executed.status)),
                executed.status == Status::ACCELERATOR_UNAVAILABLE};
    }
    const Comparison comparison = compareOutputs(model, buffers.outputs);
    if (comparison.sizeMismatch) return {CaseClass::Error, "wrong output size: " + comparison.detail};
    if (comparison.mismatches != 0) {
        return {CaseClass::Fail,
                std::to_string(comparison.mismatches) + " value(s) outside tolerance, first " + comparison.detail};
    }
    return {CaseClass::Pass, ""};
}

}  // namespace host
}  // namespace nnhal
}  // namespace arv
