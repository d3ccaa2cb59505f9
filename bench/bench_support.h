// Shared pieces of the benchmark programs: the graphs they run, the
// plug-in's accelerator, and bound buffers for executions.
//
// A graph is named by a short text so that the programs and scripts/bench
// agree on what was measured:
//   "mobilenet"        MobileNet-v1-shaped graph, 224x224x3 input
//   "mobilenet:SIZE"   the same with a SIZExSIZEx3 input (smoke runs)
//   "chain:N"          N elementwise operations (ADD / RELU) in a chain
//   "wide:BYTES"       one FULLY_CONNECTED layer with about BYTES weight bytes
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "arv/nnhal/accelerator.h"
#include "zel_kestrel_runtime.h"
#include "zelhost/host_graph.h"

namespace zelbench {

using arv::nnhal::host::HostGraph;

// The graph named by `graphName` (see above); null, with a message on stderr,
// for a text it does not understand.
std::unique_ptr<HostGraph> makeGraph(const std::string& graphName);

// Number of host operations of a graph.
uint32_t operationCount(const HostGraph& graph);
// Sum of the bytes of every constant operand (weights, biases, scalars).
uint64_t constantBytes(HostGraph& graph);
// Bytes of the largest constant operand.
uint64_t largestConstant(HostGraph& graph);
// Multiply-accumulates of one inference when `graphName` names a MobileNet
// graph; 0 otherwise.
uint64_t macsOf(const std::string& graphName);

// The plug-in's accelerator, created through the factory on first use.
arv::nnhal::IAccelerator* accelerator();
// Releases the accelerator, which makes the plug-in reopen the runtime with
// a fresh power voting thread (an empty vote queue); the next accelerator()
// creates a new one. Every executor must have been released before.
void resetAccelerator();

// createGraphExecutor, null (with a message on stderr) when it fails.
arv::nnhal::IGraphExecutor* prepare(HostGraph& graph);

// Runtime graph id of an executor made by the plug-in.
int runtimeGraphId(arv::nnhal::IGraphExecutor* executor);

// Buffers bound to every graph input and output, with the runtime tensor
// records that describe them the way the plug-in does (dims left-padded to
// four). Binding marks the graph as executing; unbinding clears that.
class Bindings {
public:
    explicit Bindings(HostGraph& graph);
    ~Bindings();
    Bindings(const Bindings&) = delete;
    Bindings& operator=(const Bindings&) = delete;

    std::vector<kestrel_zel_nn_tensordef>& inputs() { return mInputDefs; }
    std::vector<kestrel_zel_nn_tensordef>& outputs() { return mOutputDefs; }

private:
    HostGraph& mGraph;
    std::vector<std::vector<uint8_t>> mBuffers;
    std::vector<kestrel_zel_nn_tensordef> mInputDefs;
    std::vector<kestrel_zel_nn_tensordef> mOutputDefs;
};

// Parses a byte count with an optional K, M or G suffix (powers of 1000,
// so "100M" is 100,000,000 bytes); 0 when the text is not a count.
uint64_t parseBytes(const std::string& text);

}  // namespace zelbench
