#include "zelhost/graph_dump.h"

#include <dlfcn.h>

#include <cctype>
#include <map>
#include <sstream>
#include <vector>

namespace arv {
namespace nnhal {
namespace host {

namespace {

// The simulator's C observation functions (zelsim/c_control.h).
constexpr const char kLastGraphIdSymbol[] = "zelsim_last_graph_id";
constexpr const char kRenderDotSymbol[] = "zelsim_render_dot";
constexpr const char kSnpprintSymbol[] = "kestrel_zel_nn_snpprint";
constexpr const char kGetlogSymbol[] = "kestrel_zel_nn_getlog";
constexpr const char kRuntimeFile[] = "libzel_kestrel_runtime.so";

using LastGraphIdFn = int (*)();
using RenderDotFn = int (*)(int, char*, unsigned);
using SnpprintFn = int (*)(int, unsigned char*, unsigned int);  // also getlog

constexpr unsigned kListingBytes = 1u << 20;
// Graph ids probed through snpprint when the runtime does not tell the last one.
constexpr int kProbeGap = 64;

std::string escape(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out;
}

bool listing(SnpprintFn snpprint, int graphId, std::string& text) {
    std::vector<unsigned char> buffer(kListingBytes, 0);
    if (snpprint(graphId, buffer.data(), kListingBytes) != 0) return false;
    buffer.back() = 0;
    text.assign(reinterpret_cast<const char*>(buffer.data()));
    return true;
}

}  // namespace

std::string listingToDot(const std::string& listing, const std::string& title) {
    std::ostringstream dot;
    dot << "digraph \"" << escape(title) << "\" {\n  rankdir=TB;\n  node [shape=box, fontname=\"monospace\"];\n";
    std::istringstream lines(listing);
    std::string line;
    std::vector<std::pair<unsigned long, std::string>> edges;  // target node, "src:idx"
    while (std::getline(lines, line)) {
        // An optional leading word ("node", "const"), then the node id.
        size_t pos = 0;
        while (pos < line.size() && (std::isspace(static_cast<unsigned char>(line[pos])) || line[pos] == '#')) ++pos;
        size_t wordEnd = pos;
        while (wordEnd < line.size() && std::isalpha(static_cast<unsigned char>(line[wordEnd]))) ++wordEnd;
        const std::string word = line.substr(pos, wordEnd - pos);
        pos = wordEnd;
        while (pos < line.size() && line[pos] == ' ') ++pos;
        if (pos >= line.size() || !std::isdigit(static_cast<unsigned char>(line[pos]))) continue;
        size_t end = pos;
        while (end < line.size() && std::isdigit(static_cast<unsigned char>(line[end]))) ++end;
        if (end - pos > 9) continue;
        const unsigned long id = std::stoul(line.substr(pos, end - pos));
        std::string rest = line.substr(end);
        while (!rest.empty() && (rest[0] == ':' || rest[0] == ' ')) rest.erase(0, 1);
        dot << "  n" << id << " [" << (word == "const" ? "shape=ellipse, fontsize=9, " : "") << "label=\""
            << (word.empty() ? "" : word + " ") << id << ": " << escape(rest) << "\"];\n";
        // References: "a:b" or "(a,b)" / "(a, b)" after the id.
        for (size_t i = 0; i < rest.size(); ++i) {
            if (!std::isdigit(static_cast<unsigned char>(rest[i])) ||
                (i > 0 && (std::isalnum(static_cast<unsigned char>(rest[i - 1])) || rest[i - 1] == '_'))) {
                continue;
            }
            size_t j = i;
            while (j < rest.size() && std::isdigit(static_cast<unsigned char>(rest[j]))) ++j;
            const bool paren = i > 0 && rest[i - 1] == '(';
            size_t k = j;
            if (paren && k < rest.size() && rest[k] == ',') {
                ++k;
                while (k < rest.size() && rest[k] == ' ') ++k;
            } else if (!paren && k < rest.size() && rest[k] == ':') {
                ++k;
            } else {
                i = j;
                continue;
            }
            size_t m = k;
            while (m < rest.size() && std::isdigit(static_cast<unsigned char>(rest[m]))) ++m;
            if (m == k || (paren && (m >= rest.size() || rest[m] != ')'))) {
                i = j;
                continue;
            }
            edges.emplace_back(id, rest.substr(i, j - i) + ":" + rest.substr(k, m - k));
            i = m;
        }
    }
    for (const auto& edge : edges) {
        const size_t colon = edge.second.find(':');
        dot << "  n" << edge.second.substr(0, colon) << " -> n" << edge.first << " [label=\""
            << edge.second.substr(colon + 1) << "\"];\n";
    }
    dot << "}\n";
    return dot.str();
}

std::string dumpLastRuntimeGraph(void* runtimeHandle, std::string& error) {
    void* handle = runtimeHandle;
    if (handle == nullptr) handle = dlopen(kRuntimeFile, RTLD_NOW | RTLD_NOLOAD);
    if (handle == nullptr) {
        error = std::string("runtime ") + kRuntimeFile + " is not loaded";
        return "";
    }
    auto lastGraphId = reinterpret_cast<LastGraphIdFn>(dlsym(handle, kLastGraphIdSymbol));
    auto renderDot = reinterpret_cast<RenderDotFn>(dlsym(handle, kRenderDotSymbol));
    auto snpprint = reinterpret_cast<SnpprintFn>(dlsym(handle, kSnpprintSymbol));
    std::string result;
    int graphId = lastGraphId != nullptr ? lastGraphId() : 0;
    if (graphId > 0 && renderDot != nullptr) {
        const int length = renderDot(graphId, nullptr, 0);
        if (length > 0) {
            std::vector<char> text(static_cast<size_t>(length) + 1);
            if (renderDot(graphId, text.data(), static_cast<unsigned>(text.size())) == length) {
                result.assign(text.data(), static_cast<size_t>(length));
            }
        }
    }
    if (result.empty() && snpprint != nullptr) {
        std::string text;
        if (graphId > 0 && listing(snpprint, graphId, text)) {
            result = listingToDot(text, "graph " + std::to_string(graphId));
        } else {
            // No way to ask for the last id: take the highest id that answers.
            int found = 0;
            std::string foundText;
            for (int id = 1; id - found <= kProbeGap; ++id) {
                if (listing(snpprint, id, text)) {
                    found = id;
                    foundText = text;
                }
            }
            if (found > 0) result = listingToDot(foundText, "graph " + std::to_string(found));
        }
    }
    if (runtimeHandle == nullptr) dlclose(handle);  // drops the reference NOLOAD took
    if (result.empty()) error = "the runtime has no graph to render";
    return result;
}

std::string lastRuntimeLog(void* runtimeHandle) {
    void* handle = runtimeHandle != nullptr ? runtimeHandle : dlopen(kRuntimeFile, RTLD_NOW | RTLD_NOLOAD);
    if (handle == nullptr) return "";
    auto lastGraphId = reinterpret_cast<LastGraphIdFn>(dlsym(handle, kLastGraphIdSymbol));
    auto getlog = reinterpret_cast<SnpprintFn>(dlsym(handle, kGetlogSymbol));
    std::string text;
    const int graphId = lastGraphId != nullptr ? lastGraphId() : 0;
    if (graphId > 0 && getlog != nullptr && !listing(getlog, graphId, text)) text.clear();
    if (runtimeHandle == nullptr) dlclose(handle);
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
    return text;
}

}  // namespace host
}  // namespace nnhal
}  // namespace arv
