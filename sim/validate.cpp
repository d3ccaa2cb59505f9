// What the simulator accepts into a graph: the checks of append_node,
// append_const_node and prepare. Every refusal stores one line in the
// graph's last error (getlog) and keeps the node, marked refused.
#include <sys/mman.h>

#include <cstdint>
#include <sstream>

#include "store.h"

namespace zelsim {
namespace store {
namespace {

// A constant of several huge pages is copied into memory the kernel may
// back with huge pages: one page fault per 2 MiB instead of one per 4 KiB.
// Only a hint, for the whole 2 MiB pages inside the buffer.
void adviseHugePages(uint8_t* buffer, size_t bytes) {
    constexpr uintptr_t kHugePage = uintptr_t{2} << 20;
    if (bytes < 2 * kHugePage) return;
    const uintptr_t begin = (reinterpret_cast<uintptr_t>(buffer) + kHugePage - 1) & ~(kHugePage - 1);
    const uintptr_t end = (reinterpret_cast<uintptr_t>(buffer) + bytes) & ~(kHugePage - 1);
    if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
}

// "node 5 (ZEL_OP_Requantize_32to8): " or "const 2: ".
std::string subject(const Node& n) {
    if (n.isConst) return "const " + std::to_string(n.id) + ": ";
    return "node " + std::to_string(n.id) + " (" + opName(n.op) + "): ";
}

// Keeps `n` in the graph, accepted or not, and returns the append's result.
int keep(Graph& g, Node n, const std::string& refusal) {
    n.accepted = refusal.empty();
    if (n.accepted) {
        g.acceptedAt[n.id] = g.nodes.size();
        g.lastAcceptedId = n.id;
        g.constBytes += n.constant.data.size();
    }
    const std::string text = refusal.empty() ? "" : subject(n) + refusal;
    g.nodes.push_back(std::move(n));
    return text.empty() ? 0 : g.fail(text);
}

// Rules every node shares: id order, graph still open.
std::string checkId(const Graph& g, uint32_t id) {
    if (g.prepared) return "graph " + std::to_string(g.id) + " is already prepared";
    if (id == 0) return "node id 0 is reserved (it means \"no node\")";
    if (g.accepted(id) != nullptr) return "node id " + std::to_string(id) + " is already used";
    if (id <= g.lastAcceptedId) {
        return "node ids must increase: " + std::to_string(id) + " after " + std::to_string(g.lastAcceptedId);
    }
    return "";
}

std::string checkOutputRecord(const kestrel_zel_nn_output& r, uint32_t index) {
    const std::string which = "output " + std::to_string(index);
    if (r.rank != 4) return which + " has rank " + std::to_string(r.rank) + " (4 expected)";
    for (uint32_t i = r.rank; i < 8; ++i) {
        if (r.max_sizes[i] != 0) return which + " has size " + std::to_string(r.max_sizes[i]) + " beyond its rank";
    }
    if (r.elementsize != 1 && r.elementsize != 2 && r.elementsize != 4) {
        return which + " has element size " + std::to_string(r.elementsize) + " (1, 2 or 4 expected)";
    }
    if (recordElements(r) * r.elementsize > kMaxTensorBytes) return which + " is too large";
    return "";
}

bool refusedNodeExists(const Graph& g, uint32_t id) {
    for (const Node& n : g.nodes) {
        if (n.id == id && !n.accepted) return true;
    }
    return false;
}

// Inputs must name an output that an accepted node of this graph has.
std::string checkInputs(const Graph& g, const Node& n, std::vector<InputInfo>* infos) {
    for (size_t i = 0; i < n.inputs.size(); ++i) {
        const kestrel_zel_nn_input& in = n.inputs[i];
        const std::string which = "input " + std::to_string(i) + " {" + std::to_string(in.src_id) + ", " +
                                  std::to_string(in.output_idx) + "}";
        if (in.src_id == 0 && in.output_idx == 0) return which + " is empty";
        const Node* src = g.accepted(in.src_id);
        if (src == nullptr) {
            return which + (refusedNodeExists(g, in.src_id) ? " names a refused node" : " names no node of this graph");
        }
        if (in.output_idx >= src->outputCount()) {
            return which + ": node " + std::to_string(src->id) + " has " + std::to_string(src->outputCount()) +
                   " output(s)";
        }
        InputInfo info;
        info.isConst = src->isConst;
        if (src->isConst) {
            for (int d = 0; d < 4; ++d) info.constDims[d] = src->constant.dims[d];
            info.constData = &src->constant.data;
        } else {
            info.record = &src->outputs[in.output_idx];
        }
        infos->push_back(info);
    }
    return "";
}

// The graph's own INPUT and OUTPUT nodes have a fixed form; the op table
// may add its own rules for them.
std::string checkBoundaryNode(const Node& n) {
    if (n.op == ZEL_OP_INPUT && !n.inputs.empty()) return "the INPUT node takes no inputs";
    if (n.op == ZEL_OP_OUTPUT && !n.outputs.empty()) return "the OUTPUT node has no outputs";
    return "";
}

std::string validateNode(const Graph& g, const Node& n) {
    std::string why = checkId(g, n.id);
    if (!why.empty()) return why;
    const bool boundary = n.op == ZEL_OP_INPUT || n.op == ZEL_OP_OUTPUT;
    const OpSpec* entry = findOp(n.op);
    if (entry == nullptr && !boundary) return "unknown op code " + std::to_string(n.op);
    if (boundary && !(why = checkBoundaryNode(n)).empty()) return why;
    for (size_t i = 0; i < n.outputs.size(); ++i) {
        why = checkOutputRecord(n.outputs[i], static_cast<uint32_t>(i));
        if (!why.empty()) return why;
    }
    std::vector<InputInfo> infos;
    why = checkInputs(g, n, &infos);
    if (!why.empty()) return why;
    if (entry != nullptr && entry->validate != nullptr) return entry->validate(toDesc(n), infos);
    return "";
}

}  // namespace

NodeDesc toDesc(const Node& n) {
    NodeDesc d;
    d.id = n.id;
    d.op = n.op;
    d.padding = n.padding;
    d.inputs = n.inputs;
    d.outputs = n.outputs;
    return d;
}

int appendNode(State& s, Graph& g, uint32_t nodeId, int32_t op, int32_t padding, const kestrel_zel_nn_input* inputs,
               uint32_t numInputs, const kestrel_zel_nn_output* outputs, uint32_t numOutputs) {
    Node n;
    n.id = nodeId;
    n.op = op;
    n.padding = padding;
    if (numInputs > 0 && inputs == nullptr) return keep(g, std::move(n), "inputs pointer is null");
    if (numOutputs > 0 && outputs == nullptr) return keep(g, std::move(n), "outputs pointer is null");
    n.inputs.assign(inputs, inputs + numInputs);
    n.outputs.assign(outputs, outputs + numOutputs);
    if (s.passThrough) {
        g.unchecked = true;
        return keep(g, std::move(n), "");
    }
    const std::string why = validateNode(g, n);
    return keep(g, std::move(n), why);
}

int appendConstNode(State& s, Graph& g, uint32_t nodeId, const uint32_t dims[4], const uint8_t* data,
                    uint32_t dataLen) {
    Node n;
    n.id = nodeId;
    n.isConst = true;
    uint64_t elements = 1;
    for (int i = 0; i < 4; ++i) {
        n.constant.dims[i] = dims[i];
        elements *= dims[i];
    }
    if (dataLen > 0 && data == nullptr) {
        return keep(g, std::move(n), "data is null with " + std::to_string(dataLen) + " bytes");
    }
    if (s.passThrough) {
        g.unchecked = true;
    } else {
        std::string why = checkId(g, nodeId);
        // Shape-only constants carry one 4-byte word whatever their dims;
        // everything else holds elements of 1, 2 or 4 bytes.
        const bool shapeOnly = dataLen == 4;
        const uint64_t size = elements == 0 ? 0 : dataLen / elements;
        if (why.empty() && elements > 0x7FFFFFFFu) why = "dims are too large";
        if (why.empty() && !shapeOnly &&
            (elements == 0 || dataLen % elements != 0 || (size != 1 && size != 2 && size != 4))) {
            std::ostringstream text;
            text << dataLen << " bytes do not hold " << dims[0] << "x" << dims[1] << "x" << dims[2] << "x" << dims[3]
                 << " elements of 1, 2 or 4 bytes";
            why = text.str();
        }
        if (!why.empty()) return keep(g, std::move(n), why);
    }
    n.constant.elementSize = (elements > 0 && dataLen % elements == 0 && dataLen >= elements)
                                 ? static_cast<uint32_t>(dataLen / elements)
                                 : 1u;
    n.constant.data.reserve(dataLen);
    adviseHugePages(n.constant.data.data(), dataLen);
    n.constant.data.assign(data, data + dataLen);
    return keep(g, std::move(n), "");
}

int prepareGraph(State& s, Graph& g) {
    if (s.passThrough || g.unchecked) {
        g.prepared = true;
        return 0;
    }
    const Node* input = nullptr;
    const Node* output = nullptr;
    for (const Node& n : g.nodes) {
        if (!n.accepted) continue;  // refused nodes never joined the graph
        if (output != nullptr) {
            if (!n.isConst && n.op == ZEL_OP_OUTPUT) {
                return g.fail("prepare: more than one OUTPUT node (" + std::to_string(output->id) + " and " +
                              std::to_string(n.id) + ")");
            }
            return g.fail("prepare: the OUTPUT node " + std::to_string(output->id) + " is not the last node (node " +
                          std::to_string(n.id) + " follows)");
        }
        if (n.isConst) continue;
        if (n.op == ZEL_OP_INPUT) {
            if (input != nullptr) {
                return g.fail("prepare: more than one INPUT node (" + std::to_string(input->id) + " and " +
                              std::to_string(n.id) + ")");
            }
            input = &n;
            continue;
        }
        if (n.op == ZEL_OP_OUTPUT) {
            output = &n;
            continue;
        }
        const OpSpec* entry = findOp(n.op);
        if (entry == nullptr || entry->execute == nullptr) {
            return g.fail("prepare: node " + std::to_string(n.id) + ": cannot execute op " + std::to_string(n.op) +
                          " (" + opName(n.op) + ")");
        }
    }
    g.prepared = true;
    return 0;
}

}  // namespace store
}  // namespace zelsim
