// Control and observation API of the runtime simulator, for tests and
// tools that link libzel_kestrel_runtime.so (the simulator build) directly.
// Every function is thread-safe.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "zel_kestrel_runtime.h"

#ifndef ZELSIM_API
#define ZELSIM_API __attribute__((visibility("default")))
#endif

namespace zelsim {

// One entry-point call as the simulator saw it.
struct RecordedCall {
    std::string entry;  // entry point name without the "kestrel_zel_nn_" prefix, e.g. "append_node"
    int graphId;        // -1 for calls without a graph (config, version, init before success)
    int result;         // what the call returned
};

// One node as it was appended (also refused ones, with accepted = false).
struct RecordedNode {
    int graphId;
    uint32_t nodeId;
    bool isConst;
    int32_t op;       // zel_op_type_enum; -1 for constant nodes
    int32_t padding;  // as passed; 0 for constant nodes
    std::vector<kestrel_zel_nn_input> inputs;
    std::vector<kestrel_zel_nn_output> outputs;
    uint32_t dims[4];           // constant nodes: batches, height, width, depth
    std::vector<uint8_t> data;  // constant nodes: copy of the bytes
    bool accepted;              // false when the append was refused
};

// Forgets every graph, recorded call and fault; version 0x20100, config 0,
// validation and numerics on. Faults from ZELSIM_FAULTS are not re-read.
ZELSIM_API void reset();
// Every call since the last reset, in order.
ZELSIM_API std::vector<RecordedCall> calls();
// Number of recorded calls of `entry` since the last reset.
ZELSIM_API int callCount(const std::string& entry);
// Nodes appended to `graphId` in append order (refused ones included).
ZELSIM_API std::vector<RecordedNode> nodes(int graphId);
// Id of the last graph handed out by init (0 when none).
ZELSIM_API int lastGraphId();
// True while `graphId` exists (after init, before teardown).
ZELSIM_API bool graphExists(int graphId);
// True when prepare succeeded on `graphId`.
ZELSIM_API bool graphPrepared(int graphId);
// Number of graphs alive.
ZELSIM_API int liveGraphs();
// Text the runtime would give through getlog for `graphId` (last error).
ZELSIM_API std::string lastError(int graphId);

// Fault injection: the n-th call (1-based, counted from this call) of
// `entry` returns `code` without doing anything. Several faults may be armed.
ZELSIM_API void failCall(const std::string& entry, unsigned nth, int code);
// Arms the faults of a ZELSIM_FAULTS value as if read at load time (call
// numbers counted from the last reset); malformed items go to notes().
ZELSIM_API void armFaults(const std::string& text);
// Version answer (value written and return code of the version call).
ZELSIM_API void setVersion(int version, int result = 0);
// Return code of config.
ZELSIM_API void setConfigResult(int result);
// Pass-through mode: constant data is copied, nodes are not validated and
// execute_new only checks sizes (as a device runtime costs nothing here).
ZELSIM_API void setPassThrough(bool on);

// Worker threads that share the numerics of one node (1: everything runs
// on the calling thread). The default is ZELSIM_THREADS when set to a
// positive number, else the number of cores. 0 restores that default.
ZELSIM_API void setThreads(unsigned count);
// Threads in use now.
ZELSIM_API unsigned threads();
// Accumulation path of the 8-bit convolution and matrix-product nodes:
// true forces the portable loops even in a build that has the library path.
// Both give the same bytes; tests hold them to that.
ZELSIM_API void setPortableKernels(bool on);
// True when this build has the library accumulation path.
ZELSIM_API bool hasLibraryKernels();

// The simulator's own notes, one per line: ZELSIM_FAULTS items and failCall
// requests it ignored. Kept across reset(); "" when there is nothing to say.
ZELSIM_API std::string notes();
// Text rendering of `graphId` (what snpprint writes): one node per line.
// Torn-down graphs stay readable until reset (the last 64 of them);
// "" for an unknown graph.
ZELSIM_API std::string renderText(int graphId);
// Graphviz rendering of `graphId`: one box per node, one ellipse per
// constant, one edge per input labelled with the output index.
ZELSIM_API std::string renderDot(int graphId);

}  // namespace zelsim
