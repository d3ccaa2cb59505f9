#include "node_diagram.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <sstream>

#include "zel_utils.h"

namespace zeltest {

namespace {

std::string dims(const uint32_t* d, uint32_t count) {
    std::string s;
    for (uint32_t i = 0; i < count; ++i) s += (i ? "x" : "") + std::to_string(d[i]);
    return s;
}

std::string opName(int32_t op) {
    std::string name = arv::nnhal::zel::toString(static_cast<zel_op_type_enum>(op));
    return name.rfind("ZEL_OP_", 0) == 0 ? name.substr(7) : name;
}

// The word after the dims of an expected constant line ("" when none).
std::string requestedView(const std::string& expected) {
    std::istringstream in(expected);
    std::string id, kind, shape, view;
    in >> id >> kind >> shape >> view;
    return kind == "const" ? view : "";
}

template <typename T>
std::string values(const std::vector<uint8_t>& data) {
    std::ostringstream os;
    for (size_t at = 0; at + sizeof(T) <= data.size(); at += sizeof(T)) {
        T value;
        std::memcpy(&value, data.data() + at, sizeof(T));
        os << ' ' << +value;
    }
    return os.str();
}

std::string constData(const std::vector<uint8_t>& data, const std::string& view) {
    if (view == "f32" && data.size() % 4 == 0) return "f32" + values<float>(data);
    if (view == "i32" && data.size() % 4 == 0) return "i32" + values<int32_t>(data);
    if (view == "u8") return "u8" + values<uint8_t>(data);
    if (view == "shape" && data == std::vector<uint8_t>(4, 0)) return "shape";
    return "(" + std::to_string(data.size()) + " bytes)";
}

}  // namespace

std::string diagram(const zelsim::RecordedNode& node, const std::string& expected) {
    std::ostringstream os;
    if (!node.accepted) os << "REFUSED ";
    os << node.nodeId << ' ';
    if (node.isConst) {
        os << "const " << dims(node.dims, 4) << ' ' << constData(node.data, requestedView(expected));
        return os.str();
    }
    os << opName(node.op) << " pad=" << node.padding << " [";
    for (size_t i = 0; i < node.inputs.size(); ++i) {
        os << (i ? " " : "") << node.inputs[i].src_id << ':' << node.inputs[i].output_idx;
    }
    os << "] -> [";
    for (size_t i = 0; i < node.outputs.size(); ++i) {
        const kestrel_zel_nn_output& r = node.outputs[i];
        os << (i ? " " : "") << dims(r.max_sizes, r.rank < 8 ? r.rank : 8) << '*' << r.elementsize;
    }
    os << ']';
    return os.str();
}

void expectChain(int graphId, const std::vector<std::string>& expected, uint32_t afterId) {
    std::vector<zelsim::RecordedNode> nodes;
    for (const zelsim::RecordedNode& node : zelsim::nodes(graphId)) {
        if (node.nodeId > afterId) nodes.push_back(node);
    }
    const size_t shared = std::min(nodes.size(), expected.size());
    for (size_t i = 0; i < shared; ++i) {
        EXPECT_EQ(expected[i], diagram(nodes[i], expected[i])) << "node at position " << i;
    }
    for (size_t i = shared; i < nodes.size(); ++i) ADD_FAILURE() << "unexpected node " << diagram(nodes[i], "");
    for (size_t i = shared; i < expected.size(); ++i) ADD_FAILURE() << "missing node " << expected[i];
}

bool allAccepted(int graphId) {
    for (const zelsim::RecordedNode& node : zelsim::nodes(graphId)) {
        if (!node.accepted) {
            ADD_FAILURE() << "refused: " << diagram(node, "") << " (" << zelsim::lastError(graphId) << ")";
            return false;
        }
    }
    return true;
}

std::vector<std::string> errorTexts(const LogCapture& log) {
    std::vector<std::string> texts;
    for (const std::string& line : log.errors()) {
        const std::string text = afterLocation(line);
        texts.push_back(text.empty() ? line : text);
    }
    return texts;
}

}  // namespace zeltest
