// Running a loaded model on an accelerator: support query, buffer binding,
// execution and comparison of the outputs with the expected values.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "arv/nnhal/accelerator.h"
#include "zelhost/model_file.h"

namespace arv {
namespace nnhal {
namespace host {

// Support level of every operation of `graph` (-1 where the accelerator
// gave no answer).
std::vector<int> querySupport(IAccelerator& accelerator, HostGraph& graph);
// True when every level is 0.
bool allSupported(const std::vector<int>& levels);

// Multiply-accumulates of operation `index`, from the declared shapes of its
// operands: CONV_2D output elements x filter height x width x input depth,
// DEPTHWISE_CONV_2D output elements x filter height x width,
// FULLY_CONNECTED output elements x input size. Every other operation, and
// one whose operands are missing or of another rank, counts 0.
uint64_t operationMacs(const HostGraph& graph, uint32_t index);

// The split a host makes from the support answers: every maximal run of
// consecutive supported operations goes to the accelerator, every run of
// the others to the host's CPU.
struct Segment {
    bool accelerator = false;
    uint32_t first = 0;  // operation indices, inclusive
    uint32_t last = 0;
    uint64_t macs = 0;
};
struct Partition {
    std::vector<Segment> segments;
    uint32_t acceleratorOperations = 0;
    uint32_t operations = 0;
    uint64_t acceleratorMacs = 0;
    uint64_t macs = 0;
};
Partition partitionGraph(const HostGraph& graph, const std::vector<int>& levels);

// Host-side buffers of one execution, one per graph input / output.
struct IoBuffers {
    std::vector<std::vector<uint8_t>> inputs;
    std::vector<std::vector<uint8_t>> outputs;
};

// Inputs from the model's input data (zero-filled where the model has none),
// outputs zero-filled at the size of their operands.
IoBuffers makeBuffers(const LoadedModel& model);

// Binds `buffers` to the graph's inputs and outputs, marks the graph as
// executing for the duration of executor.execute() and unbinds afterwards.
ExecuteResult executeBound(HostGraph& graph, IGraphExecutor& executor, IoBuffers& buffers);

struct Comparison {
    bool sizeMismatch = false;  // an output holds another number of values than expected
    uint32_t mismatches = 0;    // values outside the tolerance
    double maxDifference = 0.0;
    std::string detail;  // the first problem, "" when everything matched
    bool matched() const { return !sizeMismatch && mismatches == 0; }
};

// Compares the outputs with model.expected within model.tolerance, skipping
// model.ignoredOutputs. A model without expected values always matches.
Comparison compareOutputs(const LoadedModel& model, const std::vector<std::vector<uint8_t>>& outputs);

// Up to `maxCount` values of a buffer as text, "15 15 15 15" (floats in
// shortest form), followed by " ..." when there are more.
std::string formatValues(ElementKind kind, const std::vector<uint8_t>& bytes, uint32_t maxCount);

// One conformance case, classified.
enum class CaseClass { Pass, Declined, Refused, Fail, Error };
struct CaseResult {
    CaseClass result = CaseClass::Error;
    std::string reason;        // why it did not pass ("" for a pass)
    bool unavailable = false;  // the accelerator answered status 7
};
// "pass", "declined", "refused", "FAIL", "ERROR".
const char* caseClassName(CaseClass value);
// Loads the file, queries support, builds an executor (released before
// returning), executes and compares.
CaseResult runCase(IAccelerator& accelerator, const std::string& path);

}  // namespace host
}  // namespace nnhal
}  // namespace arv
