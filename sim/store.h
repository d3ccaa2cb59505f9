// Graph store of the runtime simulator: every graph, node, recorded call and
// armed fault of the process, behind one mutex. The entry points
// (sim_runtime.cpp) and the control API (store.cpp) are its only users.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "zel_kestrel_runtime.h"
#include "zelsim/control.h"
#include "zelsim/ops.h"

// Internal to the library: never exported, whatever the export list says.
#pragma GCC visibility push(hidden)

namespace zelsim {
namespace store {

// Return code of every refused call.
constexpr int kFailure = -1;
// Largest output record the store accepts, in bytes (keeps 32-bit hosts safe).
constexpr uint64_t kMaxTensorBytes = 1ull << 30;
// Torn-down graphs whose nodes and last error stay observable, and the
// constant bytes they may hold together.
constexpr size_t kRetiredGraphs = 64;
constexpr uint64_t kRetiredBytes = 16u << 20;
// Recorded calls kept (counters keep counting past it).
constexpr size_t kMaxRecordedCalls = 1u << 20;

// One appended node, accepted or refused.
struct Node {
    uint32_t id = 0;
    bool isConst = false;
    int32_t op = -1;  // -1 for constant nodes
    int32_t padding = 0;
    std::vector<kestrel_zel_nn_input> inputs;
    std::vector<kestrel_zel_nn_output> outputs;
    Tensor constant;  // constant nodes: dims as appended, bytes copied
    bool accepted = false;

    uint32_t outputCount() const { return isConst ? 1u : static_cast<uint32_t>(outputs.size()); }
};

struct Graph {
    int id = 0;
    std::vector<Node> nodes;                // append order, refused ones included
    std::map<uint32_t, size_t> acceptedAt;  // node id -> index in `nodes`
    uint32_t lastAcceptedId = 0;
    bool prepared = false;
    bool unchecked = false;  // something was appended in pass-through mode
    int debugLevel = 0;
    std::string lastError;
    uint64_t constBytes = 0;  // constant bytes held by the nodes
    // Value buffers of earlier executions, handed out again to later nodes
    // so that repeated runs reuse warm memory; dropped at teardown.
    std::vector<std::vector<uint8_t>> spareBuffers;

    const Node* accepted(uint32_t nodeId) const;
    // Stores `text` as the last error and returns kFailure.
    int fail(const std::string& text);
};

struct Fault {
    std::string entry;
    uint64_t callNumber;  // absolute count of `entry` calls that triggers it
    int code;
};

struct State {
    std::mutex mutex;
    std::map<int, std::unique_ptr<Graph>> graphs;
    std::deque<std::unique_ptr<Graph>> retired;
    uint64_t retiredBytes = 0;
    int nextGraphId = 1;
    int lastGraphId = 0;
    std::vector<RecordedCall> calls;
    std::map<std::string, uint64_t> callCounts;
    std::vector<Fault> faults;
    int version = 0x20100;
    int versionResult = 0;
    int configResult = 0;
    bool passThrough = false;
    std::string notes;

    Graph* graph(int graphId);
    // Counts the call of `entry`; true when an armed fault fires for it,
    // with its code in *code.
    bool takeFault(const std::string& entry, int graphId, int* code);
    // Records the call and returns `result`.
    int record(const char* entry, int graphId, int result);
    // Keeps a torn-down graph observable, forgetting the oldest ones.
    void retire(std::unique_ptr<Graph> g);
    void clear();
};

// The process-wide store (created when the library loads, destroyed when
// it is unloaded).
State& state();

// Name of op code `op` for messages and renderings: "ZEL_OP_" and the op
// table's name, or "op N" for a code the table does not know.
std::string opName(int32_t op);
// "entry" without the "kestrel_zel_nn_" prefix.
std::string entryName(const std::string& entry);
// Arms the faults of a ZELSIM_FAULTS value; malformed items go to s.notes.
void armFaults(State& s, const char* text);

// The node as the op table sees it.
NodeDesc toDesc(const Node& n);

// The work of the graph entry points, called with the store locked.
int appendNode(State& s, Graph& g, uint32_t nodeId, int32_t op, int32_t padding, const kestrel_zel_nn_input* inputs,
               uint32_t numInputs, const kestrel_zel_nn_output* outputs, uint32_t numOutputs);
int appendConstNode(State& s, Graph& g, uint32_t nodeId, const uint32_t dims[4], const uint8_t* data, uint32_t dataLen);
int prepareGraph(State& s, Graph& g);
// `firstOutputDims` (optional) receives the dims of the first graph output.
int executeGraph(State& s, Graph& g, const kestrel_zel_nn_tensordef* inputs, uint32_t numInputs,
                 kestrel_zel_nn_tensordef* outputs, uint32_t numOutputs, uint32_t* firstOutputDims = nullptr);

std::string renderText(const Graph& g);
std::string renderDot(const Graph& g);

// Element count of an output record's first four sizes (64-bit, no overflow).
uint64_t recordElements(const kestrel_zel_nn_output& record);

}  // namespace store
}  // namespace zelsim

#pragma GCC visibility pop
