// The simulator's process-wide store and its control API.
#include "store.h"

#include <cerrno>
#include <cstdlib>
#include <sstream>

namespace zelsim {
namespace store {
namespace {

const char* const kEntries[] = {"config",      "version",  "init",    "set_config_params", "set_debug_level",
                                "getlog",      "snpprint", "prepare", "append_node",       "append_const_node",
                                "execute_new", "execute",  "teardown"};

bool knownEntry(const std::string& entry) {
    for (const char* e : kEntries) {
        if (entry == e) return true;
    }
    return false;
}

std::string trim(const std::string& text) {
    const auto begin = text.find_first_not_of(" \t");
    if (begin == std::string::npos) return "";
    const auto end = text.find_last_not_of(" \t");
    return text.substr(begin, end - begin + 1);
}

// Parses a whole signed 32-bit number (decimal, 0x hex or 0 octal).
bool parseInt(const std::string& text, int64_t lo, int64_t hi, int64_t* value) {
    if (text.empty()) return false;
    errno = 0;
    char* end = nullptr;
    const long long v = std::strtoll(text.c_str(), &end, 0);
    if (errno != 0 || end == nullptr || *end != '\0' || v < lo || v > hi) return false;
    *value = static_cast<int64_t>(v);
    return true;
}

// Parses one "entry:nth:code" item; "" on success, otherwise the reason.
std::string armOne(State& s, const std::string& item) {
    std::vector<std::string> fields;
    std::stringstream in(item);
    std::string field;
    while (std::getline(in, field, ':')) fields.push_back(trim(field));
    if (fields.size() != 3) return "expected entry:nth:code";
    const std::string entry = entryName(fields[0]);
    if (!knownEntry(entry)) return "unknown entry point '" + fields[0] + "'";
    int64_t nth = 0;
    if (!parseInt(fields[1], 1, INT32_MAX, &nth)) return "bad call number '" + fields[1] + "'";
    int64_t code = 0;  // 0x80000000 to 0xFFFFFFFF wrap to negative codes
    if (!parseInt(fields[2], INT32_MIN, UINT32_MAX, &code)) return "bad code '" + fields[2] + "'";
    s.faults.push_back({entry, s.callCounts[entry] + static_cast<uint64_t>(nth),
                        static_cast<int>(static_cast<int32_t>(static_cast<uint32_t>(code)))});
    return "";
}

RecordedNode toRecorded(int graphId, const Node& n) {
    RecordedNode r;
    r.graphId = graphId;
    r.nodeId = n.id;
    r.isConst = n.isConst;
    r.op = n.op;
    r.padding = n.padding;
    r.inputs = n.inputs;
    r.outputs = n.outputs;
    for (int i = 0; i < 4; ++i) r.dims[i] = n.isConst ? n.constant.dims[i] : 0;
    if (n.isConst) r.data = n.constant.data;
    r.accepted = n.accepted;
    return r;
}

// A live graph, or a torn-down one still remembered; null when neither.
const Graph* findAny(State& s, int graphId) {
    if (const Graph* g = s.graph(graphId)) return g;
    for (auto it = s.retired.rbegin(); it != s.retired.rend(); ++it) {
        if ((*it)->id == graphId) return it->get();
    }
    return nullptr;
}

}  // namespace

const Node* Graph::accepted(uint32_t nodeId) const {
    const auto it = acceptedAt.find(nodeId);
    return it == acceptedAt.end() ? nullptr : &nodes[it->second];
}

int Graph::fail(const std::string& text) {
    lastError = text;
    return kFailure;
}

Graph* State::graph(int graphId) {
    const auto it = graphs.find(graphId);
    return it == graphs.end() ? nullptr : it->second.get();
}

bool State::takeFault(const std::string& entry, int graphId, int* code) {
    const uint64_t count = ++callCounts[entry];
    for (auto it = faults.begin(); it != faults.end(); ++it) {
        if (it->entry == entry && it->callNumber == count) {
            *code = it->code;
            faults.erase(it);
            if (Graph* g = graph(graphId)) {
                g->lastError = "injected fault: call " + std::to_string(count) + " of " + entry + " returns " +
                               std::to_string(*code);
            }
            return true;
        }
    }
    return false;
}

int State::record(const char* entry, int graphId, int result) {
    if (calls.size() < kMaxRecordedCalls) calls.push_back({entry, graphId, result});
    return result;
}

void State::retire(std::unique_ptr<Graph> g) {
    if (g->constBytes > kRetiredBytes) {
        // Too big to keep: the structure stays, the bytes go.
        for (Node& n : g->nodes) std::vector<uint8_t>().swap(n.constant.data);
        g->constBytes = 0;
    }
    retiredBytes += g->constBytes;
    std::vector<std::vector<uint8_t>>().swap(g->spareBuffers);
    retired.push_back(std::move(g));
    while (retired.size() > kRetiredGraphs || retiredBytes > kRetiredBytes) {
        retiredBytes -= retired.front()->constBytes;
        retired.pop_front();
    }
}

void State::clear() {
    graphs.clear();
    retired.clear();
    retiredBytes = 0;
    nextGraphId = 1;
    lastGraphId = 0;
    calls.clear();
    callCounts.clear();
    faults.clear();
    version = 0x20100;
    versionResult = 0;
    configResult = 0;
    passThrough = false;
}

// A plain static: the plug-in closes and reopens the runtime, and each
// close must give every byte back.
State& state() {
    static State s;
    static const bool armed = [] {
        armFaults(s, std::getenv("ZELSIM_FAULTS"));
        return true;
    }();
    (void)armed;
    return s;
}

namespace {
// Reads ZELSIM_FAULTS when the library loads, before any entry point runs.
__attribute__((constructor)) void loadState() {
    state();
}
}  // namespace

std::string opName(int32_t op) {
    static const std::string prefix = "ZEL_OP_";
    const OpSpec* entry = findOp(op);
    if (entry != nullptr && entry->name != nullptr) {
        const std::string name = entry->name;
        return name.compare(0, prefix.size(), prefix) == 0 ? name : prefix + name;
    }
    if (op == ZEL_OP_INPUT) return "ZEL_OP_INPUT";
    if (op == ZEL_OP_OUTPUT) return "ZEL_OP_OUTPUT";
    return "op " + std::to_string(op);
}

std::string entryName(const std::string& entry) {
    static const std::string prefix = "kestrel_zel_nn_";
    return entry.compare(0, prefix.size(), prefix) == 0 ? entry.substr(prefix.size()) : entry;
}

void armFaults(State& s, const char* text) {
    if (text == nullptr) return;
    std::stringstream in(text);
    std::string item;
    while (std::getline(in, item, ',')) {
        item = trim(item);
        if (item.empty()) continue;
        const std::string reason = armOne(s, item);
        if (!reason.empty()) s.notes += "ZELSIM_FAULTS: ignored '" + item + "': " + reason + "\n";
    }
}

uint64_t recordElements(const kestrel_zel_nn_output& record) {
    uint64_t n = 1;
    for (int i = 0; i < 4; ++i) n *= record.max_sizes[i];
    return n;
}

}  // namespace store

using store::state;

void reset() {
    auto& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.clear();
}

std::vector<RecordedCall> calls() {
    auto& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.calls;
}

int callCount(const std::string& entry) {
    auto& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    const auto it = s.callCounts.find(store::entryName(entry));
    return it == s.callCounts.end() ? 0 : static_cast<int>(it->second);
}

std::vector<RecordedNode> nodes(int graphId) {
    auto& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    std::vector<RecordedNode> out;
    if (const store::Graph* g = store::findAny(s, graphId)) {
        for (const auto& n : g->nodes) out.push_back(store::toRecorded(graphId, n));
    }
    return out;
}

int lastGraphId() {
    auto& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.lastGraphId;
}

bool graphExists(int graphId) {
    auto& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.graph(graphId) != nullptr;
}

bool graphPrepared(int graphId) {
    auto& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    const store::Graph* g = s.graph(graphId);
    return g != nullptr && g->prepared;
}

int liveGraphs() {
    auto& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return static_cast<int>(s.graphs.size());
}

std::string lastError(int graphId) {
    auto& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    const store::Graph* g = store::findAny(s, graphId);
    return g == nullptr ? std::string() : g->lastError;
}

std::string notes() {
    auto& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.notes;
}

void armFaults(const std::string& text) {
    auto& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    store::armFaults(s, text.c_str());
}

void failCall(const std::string& entry, unsigned nth, int code) {
    auto& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    const std::string name = store::entryName(entry);
    if (!store::knownEntry(name) || nth == 0) {
        s.notes += "failCall: ignored '" + entry + "' call " + std::to_string(nth) + "\n";
        return;
    }
    s.faults.push_back({name, s.callCounts[name] + nth, code});
}

void setVersion(int version, int result) {
    auto& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.version = version;
    s.versionResult = result;
}

void setConfigResult(int result) {
    auto& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.configResult = result;
}

void setPassThrough(bool on) {
    auto& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.passThrough = on;
}

std::string renderText(int graphId) {
    auto& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    const store::Graph* g = store::findAny(s, graphId);
    return g == nullptr ? std::string() : store::renderText(*g);
}

std::string renderDot(int graphId) {
    auto& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    const store::Graph* g = store::findAny(s, graphId);
    return g == nullptr ? std::string() : store::renderDot(*g);
}

}  // namespace zelsim
