// Decodes an arbitrary byte string into a host graph: operand types (known
// and unknown codes), ranks 0..5, dims, quantization, lifetimes, constant
// data (complete, short or absent), and operations with arbitrary operand
// indices. Used by the fuzzer and by the corpus replay test.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
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

// Runs support query, executor creation and (when an executor is built) one
// execution on zero-filled buffers through the plug-in's accelerator.
void exerciseGraph(arv::nnhal::host::HostGraph& graph);

}  // namespace zelfuzz
