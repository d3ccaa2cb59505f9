// Decodes an arbitrary byte string into a host graph: operand types (known
// and unknown codes), ranks 0..5, dims, quantization, lifetimes, constant
// data (complete, short or absent), and operations with arbitrary operand
// indices. Used by the fuzzer and by the corpus replay test.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "zelhost/host_graph.h"

namespace zelfuzz {

// Operation codes the decoder picks from (index = byte % size).
extern const std::vector<int32_t> kOperationCodes;
// Scales and zero points the decoder picks from.
extern const std::vector<float> kScales;
extern const std::vector<int32_t> kZeroPoints;

// Always returns a graph (possibly empty or malformed on purpose).
std::unique_ptr<arv::nnhal::host::HostGraph> decodeGraph(const uint8_t* data, size_t size);

// What one graph got from the plug-in.
struct Outcome {
    std::vector<int> levels;  // support level per operation
    arv::nnhal::Status created = arv::nnhal::Status::SUCCESS;
};

// Runs support query, executor creation and (when an executor is built) one
// execution on zero-filled buffers through the plug-in's accelerator.
Outcome exerciseGraph(arv::nnhal::host::HostGraph& graph);

// The promise of the support answer: a graph whose every operation was
// reported supported (0) gets an executor, unless its shape is one of the
// known gaps between query and preparation (listed in the README). Returns
// "" when the promise holds, else what broke it. Call it only when the
// runtime injects no fault.
std::string brokenPromise(arv::nnhal::host::HostGraph& graph, const Outcome& outcome);

}  // namespace zelfuzz
