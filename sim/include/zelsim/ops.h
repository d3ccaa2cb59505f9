// Per-operation contract of the simulator: how each node op code is
// validated when appended and computed when executed. The graph store
// (sim_runtime) calls into this table; kernels live beside it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "zel_kestrel_runtime.h"

#ifndef ZELSIM_API
#define ZELSIM_API __attribute__((visibility("default")))
#endif

namespace zelsim {

// A value flowing between nodes: four dims (batches, height, width, depth),
// bytes per element, and the bytes (row-major, depth fastest).
struct Tensor {
    uint32_t dims[4] = {1, 1, 1, 1};
    uint32_t elementSize = 1;
    std::vector<uint8_t> data;
    uint32_t elements() const { return dims[0] * dims[1] * dims[2] * dims[3]; }
};

// A node as appended.
struct NodeDesc {
    uint32_t id = 0;
    int32_t op = 0;
    int32_t padding = 0;
    std::vector<kestrel_zel_nn_input> inputs;
    std::vector<kestrel_zel_nn_output> outputs;
};

// What validation knows about one input of a node: either the output record
// of an operation node, or a constant node (dims, bytes).
struct InputInfo {
    bool isConst = false;
    const kestrel_zel_nn_output* record = nullptr;  // operation outputs
    uint32_t constDims[4] = {0, 0, 0, 0};           // constant nodes
    const std::vector<uint8_t>* constData = nullptr;
};

struct OpSpec {
    const char* name;
    // "" when the node is acceptable; otherwise the reason, one line.
    std::string (*validate)(const NodeDesc& node, const std::vector<InputInfo>& inputs);
    // Computes the outputs (pre-sized from the node's output records) from
    // the inputs. Null when the simulator cannot compute this op. False with
    // *error set on a run-time failure.
    bool (*execute)(const NodeDesc& node, const std::vector<const Tensor*>& inputs, std::vector<Tensor>& outputs,
                    std::string* error);
};

// The table entry of `op`, or null for an op code the simulator does not know.
ZELSIM_API const OpSpec* findOp(int32_t op);

}  // namespace zelsim
