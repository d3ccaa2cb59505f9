// Text (snpprint) and Graphviz renderings of a graph.
#include <sstream>

#include "store.h"

namespace zelsim {
namespace store {
namespace {

std::string sizesText(const kestrel_zel_nn_output& r) {
    if (r.rank == 0) return "-";
    std::string text;
    for (uint32_t i = 0; i < r.rank && i < 8; ++i) {
        if (i > 0) text += "x";
        text += std::to_string(r.max_sizes[i]);
    }
    return text;
}

// Records carry only a byte width; ops whose name ends in "to32" produce a
// 32-bit integer value in output 0, every other 4-byte output is a float.
std::string typeText(const Node& n, size_t index) {
    const uint32_t size = n.outputs[index].elementsize;
    if (size == 1) return "u8";
    if (size == 2) return "u16";
    if (size == 4) {
        const std::string name = opName(n.op);
        const bool wide = name.size() >= 4 && name.compare(name.size() - 4, 4, "to32") == 0;
        return wide && index == 0 ? "i32" : "f32";
    }
    return "e" + std::to_string(size);
}

std::string outputText(const Node& n, size_t index) {
    return typeText(n, index) + " " + sizesText(n.outputs[index]);
}

std::string constDims(const Node& n) {
    const uint32_t* d = n.constant.dims;
    return std::to_string(d[0]) + "x" + std::to_string(d[1]) + "x" + std::to_string(d[2]) + "x" + std::to_string(d[3]);
}

// Escapes a text for a double-quoted DOT string.
std::string dotQuoted(const std::string& text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '\n') {
            out += "\\n";
            continue;
        }
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + "\"";
}

// DOT name of the node at `index`; refused nodes get names of their own,
// as their ids may repeat.
std::string dotName(const Graph& g, size_t index) {
    const Node& n = g.nodes[index];
    return n.accepted ? "n" + std::to_string(n.id) : "refused" + std::to_string(index);
}

}  // namespace

std::string renderText(const Graph& g) {
    std::ostringstream out;
    for (const Node& n : g.nodes) {
        if (n.isConst) {
            out << "const " << n.id << ": " << constDims(n) << " " << n.constant.data.size() << " bytes";
        } else {
            out << "node " << n.id << ": " << opName(n.op) << " (" << n.op << ") pad=" << n.padding << " in=[";
            for (size_t i = 0; i < n.inputs.size(); ++i) {
                out << (i > 0 ? ", " : "") << n.inputs[i].src_id << ":" << n.inputs[i].output_idx;
            }
            out << "] out=[";
            for (size_t i = 0; i < n.outputs.size(); ++i) out << (i > 0 ? ", " : "") << outputText(n, i);
            out << "]";
        }
        if (!n.accepted) out << " refused";
        out << "\n";
    }
    return out.str();
}

std::string renderDot(const Graph& g) {
    std::ostringstream out;
    out << "digraph graph_" << g.id << " {\n";
    out << "  rankdir=TB;\n  node [fontname=\"monospace\"];\n";
    for (size_t index = 0; index < g.nodes.size(); ++index) {
        const Node& n = g.nodes[index];
        const std::string style = n.accepted ? "" : ", style=dashed, color=red";
        out << "  " << dotName(g, index);
        if (n.isConst) {
            out << " [shape=ellipse, fontsize=9, label="
                << dotQuoted("const " + std::to_string(n.id) + "\n" + constDims(n)) << style << "];\n";
            continue;
        }
        std::string label = std::to_string(n.id) + ": " + opName(n.op);
        for (size_t i = 0; i < n.outputs.size(); ++i) label += "\n" + std::to_string(i) + ": " + outputText(n, i);
        out << " [shape=box, label=" << dotQuoted(label) << style << "];\n";
    }
    for (size_t index = 0; index < g.nodes.size(); ++index) {
        for (const auto& in : g.nodes[index].inputs) {
            if (g.accepted(in.src_id) == nullptr) continue;  // only refused nodes have such inputs
            out << "  n" << in.src_id << " -> " << dotName(g, index) << " [label=\"" << in.output_idx << "\"];\n";
        }
    }
    out << "}\n";
    return out.str();
}

}  // namespace store
}  // namespace zelsim
