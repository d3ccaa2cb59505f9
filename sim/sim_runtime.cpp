// Entry points of the simulator build of libzel_kestrel_runtime.so. Each one
// locks the store, gives an armed fault its chance, does its work and
// records the call with its result. Nothing is ever written to stdout or
// stderr: refusals are explained through getlog.
#include <algorithm>
#include <cstring>
#include <limits>

#include "store.h"

using zelsim::store::Graph;
using zelsim::store::kFailure;
using zelsim::store::State;
using zelsim::store::state;

namespace {

constexpr int kNoGraph = -1;

// Copies `text` into buf (at most length - 1 characters, then a zero byte).
void writeText(const std::string& text, unsigned char* buf, unsigned int length) {
    if (length == 0) return;
    const size_t n = std::min<size_t>(text.size(), length - 1u);
    std::memcpy(buf, text.data(), n);
    buf[n] = 0;
}

// Runs `work(graph)` on a live graph; unknown ids are refused.
template <typename Work>
int withGraph(const char* entry, int graphId, Work work) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    int code = 0;
    if (s.takeFault(entry, graphId, &code)) return s.record(entry, graphId, code);
    Graph* g = s.graph(graphId);
    return s.record(entry, graphId, g == nullptr ? kFailure : work(s, *g));
}

}  // namespace

extern "C" {

#ifndef ZELSIM_NO_CONFIG_ENTRY
int kestrel_zel_nn_config(void) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    int code = 0;
    if (s.takeFault("config", kNoGraph, &code)) return s.record("config", kNoGraph, code);
    return s.record("config", kNoGraph, s.configResult);
}
#endif

int kestrel_zel_nn_version(int* version) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    int code = 0;
    const bool faulted = s.takeFault("version", kNoGraph, &code);
    if (version == nullptr) return s.record("version", kNoGraph, kFailure);
    // A version fault changes the value written, not the return code.
    *version = faulted ? code : s.version;
    return s.record("version", kNoGraph, faulted ? 0 : s.versionResult);
}

int kestrel_zel_nn_init(int* graph_id) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    int code = 0;
    if (s.takeFault("init", kNoGraph, &code)) return s.record("init", kNoGraph, code);
    if (graph_id == nullptr || s.nextGraphId == std::numeric_limits<int>::max()) {
        return s.record("init", kNoGraph, kFailure);
    }
    auto g = std::make_unique<Graph>();
    g->id = s.nextGraphId++;
    s.lastGraphId = g->id;
    *graph_id = g->id;
    s.graphs.emplace(g->id, std::move(g));
    return s.record("init", *graph_id, 0);
}

int kestrel_zel_nn_set_config_params(int graph_id, kestrel_zel_nn_config_enum param, void* value) {
    (void)param;
    (void)value;
    return withGraph("set_config_params", graph_id, [](State&, Graph&) { return 0; });
}

int kestrel_zel_nn_set_debug_level(int graph_id, int level) {
    return withGraph("set_debug_level", graph_id, [level](State&, Graph& g) {
        g.debugLevel = level;
        return 0;
    });
}

int kestrel_zel_nn_getlog(int graph_id, unsigned char* buf, unsigned int length) {
    return withGraph("getlog", graph_id, [buf, length](State&, Graph& g) {
        if (buf == nullptr) return kFailure;
        writeText(g.lastError, buf, length);
        return 0;
    });
}

int kestrel_zel_nn_snpprint(int graph_id, unsigned char* buf, unsigned int length) {
    return withGraph("snpprint", graph_id, [buf, length](State&, Graph& g) {
        if (buf == nullptr) return kFailure;
        writeText(zelsim::store::renderText(g), buf, length);
        return 0;
    });
}

int kestrel_zel_nn_append_node(int graph_id, unsigned int node_id, zel_op_type_enum operation, int padding,
                               const kestrel_zel_nn_input* inputs, unsigned int num_inputs,
                               const kestrel_zel_nn_output* outputs, unsigned int num_outputs) {
    return withGraph("append_node", graph_id, [&](State& s, Graph& g) {
        return zelsim::store::appendNode(s, g, node_id, static_cast<int32_t>(operation), padding, inputs, num_inputs,
                                         outputs, num_outputs);
    });
}

int kestrel_zel_nn_append_const_node(int graph_id, unsigned int node_id, unsigned int batches, unsigned int height,
                                     unsigned int width, unsigned int depth, const unsigned char* data,
                                     unsigned int data_len) {
    return withGraph("append_const_node", graph_id, [&](State& s, Graph& g) {
        const uint32_t dims[4] = {batches, height, width, depth};
        return zelsim::store::appendConstNode(s, g, node_id, dims, data, data_len);
    });
}

int kestrel_zel_nn_prepare(int graph_id) {
    return withGraph("prepare", graph_id, [](State& s, Graph& g) { return zelsim::store::prepareGraph(s, g); });
}

int kestrel_zel_nn_execute_new(int graph_id, const kestrel_zel_nn_tensordef* inputs, unsigned int num_inputs,
                               kestrel_zel_nn_tensordef* outputs, unsigned int num_outputs) {
    return withGraph("execute_new", graph_id, [&](State& s, Graph& g) {
        return zelsim::store::executeGraph(s, g, inputs, num_inputs, outputs, num_outputs);
    });
}

// The single-tensor form: one input buffer, one output buffer whose
// dimensions are written back from the graph's output record.
int kestrel_zel_nn_execute(int graph_id, unsigned int batches_in, unsigned int height_in, unsigned int width_in,
                           unsigned int depth_in, const unsigned char* data_in, unsigned int data_len_in,
                           unsigned int* batches_out, unsigned int* height_out, unsigned int* width_out,
                           unsigned int* depth_out, unsigned char* data_out, unsigned int data_out_max,
                           unsigned int* data_out_size) {
    return withGraph("execute", graph_id, [&](State& s, Graph& g) {
        if (batches_out == nullptr || height_out == nullptr || width_out == nullptr || depth_out == nullptr ||
            data_out_size == nullptr) {
            return g.fail("execute: null output pointer");
        }
        constexpr unsigned int kMaxLen = static_cast<unsigned int>(std::numeric_limits<int32_t>::max());
        kestrel_zel_nn_tensordef in{};
        in.batches = batches_in;
        in.height = height_in;
        in.width = width_in;
        in.depth = depth_in;
        in.data = const_cast<unsigned char*>(data_in);  // only read
        in.dataLen = static_cast<int32_t>(std::min(data_len_in, kMaxLen));
        in.data_valid_len = data_len_in;
        kestrel_zel_nn_tensordef out{};
        out.data = data_out;
        out.dataLen = static_cast<int32_t>(std::min(data_out_max, kMaxLen));
        uint32_t dims[4] = {0, 0, 0, 0};
        const int rc = zelsim::store::executeGraph(s, g, &in, 1, &out, 1, dims);
        if (rc == 0) {
            *batches_out = dims[0];
            *height_out = dims[1];
            *width_out = dims[2];
            *depth_out = dims[3];
            *data_out_size = out.data_valid_len;
        }
        return rc;
    });
}

int kestrel_zel_nn_teardown(int graph_id) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    int code = 0;
    if (s.takeFault("teardown", graph_id, &code)) return s.record("teardown", graph_id, code);
    auto it = s.graphs.find(graph_id);
    if (it == s.graphs.end()) return s.record("teardown", graph_id, kFailure);
    s.retire(std::move(it->second));
    s.graphs.erase(it);
    return s.record("teardown", graph_id, 0);
}

}  // extern "C"
