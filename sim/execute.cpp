// execute_new: buffer checks against the INPUT and OUTPUT nodes, then one
// pass over the nodes in id order through the op table's kernels.
#include <cstring>

#include "store.h"

namespace zelsim {
namespace store {
namespace {

std::string dimsText(const uint32_t* d) {
    return std::to_string(d[0]) + "x" + std::to_string(d[1]) + "x" + std::to_string(d[2]) + "x" + std::to_string(d[3]);
}

struct Boundary {
    const Node* input = nullptr;
    const Node* output = nullptr;
};

Boundary findBoundary(const Graph& g) {
    Boundary b;
    for (const Node& n : g.nodes) {
        if (!n.accepted || n.isConst) continue;
        if (n.op == ZEL_OP_INPUT && b.input == nullptr) b.input = &n;
        if (n.op == ZEL_OP_OUTPUT) b.output = &n;
    }
    return b;
}

// Bytes that graph output `ref` produces, and its dims; false when the
// reference cannot be resolved (only possible in unchecked graphs).
bool outputSize(const Graph& g, const kestrel_zel_nn_input& ref, uint64_t* bytes, uint32_t dims[4]) {
    const Node* src = g.accepted(ref.src_id);
    if (src == nullptr || ref.output_idx >= src->outputCount()) return false;
    if (src->isConst) {
        *bytes = src->constant.data.size();
        std::memcpy(dims, src->constant.dims, sizeof(src->constant.dims));
        return true;
    }
    const kestrel_zel_nn_output& r = src->outputs[ref.output_idx];
    *bytes = recordElements(r) * r.elementsize;
    std::memcpy(dims, r.max_sizes, 4 * sizeof(uint32_t));
    return true;
}

std::string checkBuffers(const Graph& g, const Boundary& b, const kestrel_zel_nn_tensordef* inputs, uint32_t numInputs,
                         const kestrel_zel_nn_tensordef* outputs, uint32_t numOutputs, uint32_t* firstOutputDims) {
    const size_t wantIn = b.input == nullptr ? 0 : b.input->outputs.size();
    if (numInputs != wantIn) {
        return std::to_string(numInputs) + " input buffer(s) for " + std::to_string(wantIn) + " graph input(s)";
    }
    if (numInputs > 0 && inputs == nullptr) return "inputs pointer is null";
    for (uint32_t i = 0; i < numInputs; ++i) {
        const kestrel_zel_nn_tensordef& t = inputs[i];
        const kestrel_zel_nn_output& r = b.input->outputs[i];
        const uint32_t given[4] = {t.batches, t.height, t.width, t.depth};
        const std::string which = "input " + std::to_string(i);
        if (std::memcmp(given, r.max_sizes, sizeof(given)) != 0) {
            return which + " is " + dimsText(given) + ", the graph expects " + dimsText(r.max_sizes);
        }
        const uint64_t bytes = recordElements(r) * r.elementsize;
        if (t.dataLen < 0 || static_cast<uint64_t>(t.dataLen) != bytes) {
            return which + " holds " + std::to_string(t.dataLen) + " bytes, the graph expects " + std::to_string(bytes);
        }
        if (bytes > 0 && t.data == nullptr) return which + " has no data";
    }
    const size_t wantOut = b.output == nullptr ? 0 : b.output->inputs.size();
    if (numOutputs != wantOut) {
        return std::to_string(numOutputs) + " output buffer(s) for " + std::to_string(wantOut) + " graph output(s)";
    }
    if (numOutputs > 0 && outputs == nullptr) return "outputs pointer is null";
    for (uint32_t i = 0; i < numOutputs; ++i) {
        const kestrel_zel_nn_tensordef& t = outputs[i];
        uint64_t bytes = 0;
        uint32_t dims[4] = {0, 0, 0, 0};
        if (!outputSize(g, b.output->inputs[i], &bytes, dims)) continue;
        if (i == 0 && firstOutputDims != nullptr) std::memcpy(firstOutputDims, dims, sizeof(dims));
        const std::string which = "output " + std::to_string(i);
        if (t.dataLen < 0 || static_cast<uint64_t>(t.dataLen) < bytes) {
            return which + " buffer holds " + std::to_string(t.dataLen) + " bytes, " + std::to_string(bytes) +
                   " needed";
        }
        if (bytes > 0 && t.data == nullptr) return which + " has no data";
    }
    return "";
}

class Run {
public:
    // Each value is freed right after its last reader ran, so the memory of
    // a long graph stays small and warm (the allocator hands the same
    // blocks back to later nodes).
    explicit Run(Graph& g) : mGraph(g), mValues(g.nodes.size()), mLastUse(g.nodes.size(), 0) {
        for (size_t i = 0; i < g.nodes.size(); ++i) {
            const Node& n = g.nodes[i];
            if (!n.accepted || n.isConst) continue;
            for (const auto& ref : n.inputs) {
                const auto it = g.acceptedAt.find(ref.src_id);
                if (it != g.acceptedAt.end()) mLastUse[it->second] = std::max(mLastUse[it->second], i);
            }
        }
    }

    // The tensor behind a reference already checked at append time.
    const Tensor* value(const kestrel_zel_nn_input& ref) const {
        const auto it = mGraph.acceptedAt.find(ref.src_id);
        const Node& src = mGraph.nodes[it->second];
        if (src.isConst) return &src.constant;
        const std::vector<Tensor>& v = mValues[it->second];
        return ref.output_idx < v.size() ? &v[ref.output_idx] : nullptr;
    }

    std::string node(size_t index, const kestrel_zel_nn_tensordef* inputs, kestrel_zel_nn_tensordef* outputs) {
        const Node& n = mGraph.nodes[index];
        if (n.op == ZEL_OP_INPUT) {
            for (size_t i = 0; i < n.outputs.size(); ++i) {
                Tensor t = fresh(n.outputs[i]);
                if (!t.data.empty()) std::memcpy(t.data.data(), inputs[i].data, t.data.size());
                mValues[index].push_back(std::move(t));
            }
            return "";
        }
        std::vector<const Tensor*> in;
        for (const auto& ref : n.inputs) {
            const Tensor* t = value(ref);
            if (t == nullptr)
                return "input {" + std::to_string(ref.src_id) + ", " + std::to_string(ref.output_idx) +
                       "} has no value";
            in.push_back(t);
        }
        if (n.op == ZEL_OP_OUTPUT) return copyOut(in, outputs);
        const OpSpec* entry = findOp(n.op);
        if (entry == nullptr || entry->execute == nullptr) return "cannot execute op " + std::to_string(n.op);
        std::vector<Tensor> out;
        for (const auto& r : n.outputs) out.push_back(fresh(r));
        std::string error;
        bool ok = false;
        try {
            ok = entry->execute(toDesc(n), in, out, &error);
        } catch (const std::exception& e) {
            error = std::string("kernel threw: ") + e.what();
        } catch (...) {
            error = "kernel threw";
        }
        if (!ok) return error.empty() ? "kernel failed" : error;
        if (out.size() != n.outputs.size()) {
            return "kernel made " + std::to_string(out.size()) + " outputs, " + std::to_string(n.outputs.size()) +
                   " expected";
        }
        for (size_t i = 0; i < out.size(); ++i) {
            if (out[i].data.size() != static_cast<uint64_t>(out[i].elements()) * out[i].elementSize) {
                return "kernel output " + std::to_string(i) + " holds " + std::to_string(out[i].data.size()) +
                       " bytes for " + dimsText(out[i].dims) + " x " + std::to_string(out[i].elementSize);
            }
        }
        mValues[index] = std::move(out);
        release(index);
        return "";
    }

    // Every value still held goes back to the spare buffers.
    ~Run() {
        for (auto& values : mValues) recycle(values);
    }

private:
    // A tensor for an output record, on a spare buffer when one is large
    // enough (the smallest such), else zeroed.
    Tensor fresh(const kestrel_zel_nn_output& r) {
        Tensor t;
        std::memcpy(t.dims, r.max_sizes, sizeof(t.dims));
        t.elementSize = r.elementsize;
        const size_t bytes = static_cast<size_t>(recordElements(r) * r.elementsize);
        auto& spare = mGraph.spareBuffers;
        size_t best = spare.size();
        for (size_t i = 0; i < spare.size(); ++i) {
            if (spare[i].capacity() >= bytes &&
                (best == spare.size() || spare[i].capacity() < spare[best].capacity())) {
                best = i;
            }
        }
        if (best != spare.size() && bytes >= kSpareMinimum) {
            // Every kernel writes each byte of its outputs, so a reused
            // buffer is not cleared first.
            t.data = std::move(spare[best]);
            if (best + 1 != spare.size()) spare[best] = std::move(spare.back());
            spare.pop_back();
            t.data.resize(bytes);
        } else {
            t.data.assign(bytes, 0);
        }
        return t;
    }

    void recycle(std::vector<Tensor>& values) {
        for (Tensor& t : values) {
            if (t.data.capacity() >= kSpareMinimum) mGraph.spareBuffers.push_back(std::move(t.data));
        }
        std::vector<Tensor>().swap(values);
    }

    void release(size_t index) {
        for (const auto& ref : mGraph.nodes[index].inputs) {
            const auto it = mGraph.acceptedAt.find(ref.src_id);
            if (it != mGraph.acceptedAt.end() && mLastUse[it->second] == index && !mGraph.nodes[it->second].isConst) {
                recycle(mValues[it->second]);
            }
        }
    }

    // Smaller buffers come from the allocator's warm free lists anyway.
    static constexpr size_t kSpareMinimum = 4096;

    std::string copyOut(const std::vector<const Tensor*>& in, kestrel_zel_nn_tensordef* outputs) const {
        for (size_t i = 0; i < in.size(); ++i) {
            const std::vector<uint8_t>& bytes = in[i]->data;
            if (static_cast<uint64_t>(outputs[i].dataLen) < bytes.size()) {
                return "output " + std::to_string(i) + " buffer holds " + std::to_string(outputs[i].dataLen) +
                       " bytes, " + std::to_string(bytes.size()) + " produced";
            }
            if (!bytes.empty()) std::memcpy(outputs[i].data, bytes.data(), bytes.size());
            outputs[i].data_valid_len = static_cast<uint32_t>(bytes.size());
        }
        return "";
    }

    Graph& mGraph;
    std::vector<std::vector<Tensor>> mValues;  // per node index, its outputs
    std::vector<size_t> mLastUse;              // per node index, the last node reading it
};

}  // namespace

int executeGraph(State& s, Graph& g, const kestrel_zel_nn_tensordef* inputs, uint32_t numInputs,
                 kestrel_zel_nn_tensordef* outputs, uint32_t numOutputs, uint32_t* firstOutputDims) {
    if (!g.prepared) return g.fail("execute: graph " + std::to_string(g.id) + " is not prepared");
    const Boundary b = findBoundary(g);
    const std::string why = checkBuffers(g, b, inputs, numInputs, outputs, numOutputs, firstOutputDims);
    if (!why.empty()) return g.fail("execute: " + why);
    if (s.passThrough || g.unchecked) return 0;
    Run run(g);
    for (size_t i = 0; i < g.nodes.size(); ++i) {
        const Node& n = g.nodes[i];
        if (!n.accepted || n.isConst) continue;
        const std::string error = run.node(i, inputs, outputs);
        if (!error.empty()) {
            return g.fail("execute: node " + std::to_string(n.id) + " (" + opName(n.op) + "): " + error);
        }
    }
    return 0;
}

}  // namespace store
}  // namespace zelsim
