// Plays every scenario folder beside this file through the built plug-in
// library (loaded with dlopen by the host's plug-in loader, as zelrun does)
// on the runtime simulator, and compares what happened with the expected
// files of the folder. GOLDEN_UPDATE=1 rewrites the expected files. A
// folder with graph.txt instead of model.json makes the runtime calls it
// lists itself, on one runtime graph.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "loaded_plugin.h"
#include "log_capture.h"
#include "zelhost/execution.h"
#include "zelhost/model_file.h"
#include "zelhost/names.h"
#include "zelhost/plugin_loader.h"
#include "zelsim/control.h"
#include "zelsim/ops.h"

using namespace arv::nnhal;
using namespace arv::nnhal::host;

namespace {

bool readFile(const std::string& path, std::string& text) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream s;
    s << in.rdbuf();
    text = s.str();
    return true;
}

// The host calls a scenario pins: how often the operation count is asked
// between the support answers, and what the executor context is asked.
class HostTrace {
public:
    void add(const std::string& call) { mLine += (mLine.empty() ? "" : " ") + call; }
    void endStep(const std::string& step) {
        if (!mLine.empty()) mText += step + ": " + mLine + "\n";
        mLine.clear();
    }
    const std::string& text() const { return mText; }

private:
    std::string mLine, mText;
};

// Also answers like a broken host where the scenario's "host" object says:
// null for operand `null_operand` and for operation `null_operation`, and
// null operations from call `operations_before_null` + 1 of getOperation on;
// all of it from step `from_step` on when that is given.
class TracingGraph : public IGraph {
public:
    TracingGraph(IGraph& graph, HostTrace& trace, const nlohmann::json& broken)
        : mGraph(graph),
          mTrace(trace),
          mNullOperand(broken.value("null_operand", UINT32_MAX)),
          mNullOperation(broken.value("null_operation", UINT32_MAX)),
          mOperationsBeforeNull(broken.value("operations_before_null", UINT32_MAX)),
          mFromStep(broken.value("from_step", "")),
          mBroken(mFromStep.empty()) {}
    void startStep(const std::string& step) { mBroken = mBroken || step == mFromStep; }
    uint32_t getOperandCount() const override { return mGraph.getOperandCount(); }
    IOperand* getOperand(uint32_t index) const override {
        return mBroken && index == mNullOperand ? nullptr : mGraph.getOperand(index);
    }
    uint32_t getOperationCount() const override {
        mTrace.add("count");
        return mGraph.getOperationCount();
    }
    IOperation* getOperation(uint32_t index) const override {
        const bool broken = mBroken && (++mOperationCalls > mOperationsBeforeNull || index == mNullOperation);
        return broken ? nullptr : mGraph.getOperation(index);
    }
    uint32_t getInputCount() const override { return mGraph.getInputCount(); }
    uint32_t getInput(uint32_t position) const override { return mGraph.getInput(position); }
    uint32_t getOutputCount() const override { return mGraph.getOutputCount(); }
    uint32_t getOutput(uint32_t position) const override { return mGraph.getOutput(position); }
    uint32_t getBufferCount() const override { return mGraph.getBufferCount(); }
    BufferResult getBuffer(uint32_t index) const override { return mGraph.getBuffer(index); }

private:
    IGraph& mGraph;
    HostTrace& mTrace;
    const uint32_t mNullOperand, mNullOperation, mOperationsBeforeNull;
    const std::string mFromStep;
    bool mBroken;
    mutable uint32_t mOperationCalls = 0;
};

class TracingQuery : public IGraphOperationSupportLevelQuery {
public:
    explicit TracingQuery(HostTrace& trace) : mTrace(trace) {}
    void setOperationSupportLevel(uint32_t index, int level) override {
        mTrace.add("level(" + std::to_string(index) + ")=" + std::to_string(level));
        mLevels[index] = level;
    }
    std::map<uint32_t, int> mLevels;

private:
    HostTrace& mTrace;
};

class TracingContext : public IExecutorContext {
public:
    explicit TracingContext(HostTrace& trace) : mTrace(trace) {}
    ExecutionPerformance getExecutionPerformance(uint32_t query) const override {
        mTrace.add("performance(" + std::to_string(query) + ")");
        return ExecutionPerformance::SUSTAINED_SPEED;
    }

private:
    HostTrace& mTrace;
};

std::string bytesText(const std::vector<uint8_t>& bytes) {
    std::string out;
    for (uint8_t b : bytes) out += (out.empty() ? "" : " ") + std::to_string(b);
    return out;
}

// Log lines of the calling thread (the voting thread's lines depend on
// timing), located prefixes without their line numbers.
std::string logText(const std::vector<zeltest::LogLine>& lines) {
    static const std::regex located(R"(([A-Za-z0-9_./-]+\.(cpp|h))::[0-9]+ -- )");
    std::string out;
    for (const auto& line : lines) {
        out += (line.priority == 6 ? "E " : "D ") + line.tag + ": " +
               std::regex_replace(line.text, located, "$1::NNN -- ");
        out += "\n";
    }
    return out;
}

// Runtime-graph scenarios. graph.txt holds one call per line, written as
// the simulator's listing writes nodes:
//   node ID: OP [pad=P] [in=[SRC:IDX, ...]] [out=[TYPE BxHx..., ...]]
//   const ID: BxHxWxD (u8|i32|f32) VALUES... | TYPE fill V | bytes N | null N
//   prepare | passthrough on | passthrough off
// and comments from '#' on.
// OP is a ZEL_OP_ name (prefix optional) or a code; an output's type word
// gives its element size (u8, i16/u16, i32/f32, eN) and its dims its rank.
const std::regex kNodeLine(R"(node (\d+): (\w+)(?: pad=(-?\d+))?(?: in=\[([^\]]*)\])?(?: out=\[([^\]]*)\])?)");
const std::regex kConstLine(R"(const (\d+): (\d+)x(\d+)x(\d+)x(\d+) (?:(bytes|null) (\d+)|(u8|i32|f32) (fill )?(.+)))");
const std::regex kInputItem(R"( *(\d+):(\d+) *)");
const std::regex kOutputItem(R"( *(u8|[iu]16|[if]32|e(\d+)) (\d+(?:x\d+){0,7}) *)");

// Calls `item` with the match of every element of a comma-separated list;
// false when one does not match.
template <typename F>
bool forEachItem(const std::string& list, const std::regex& pattern, F item) {
    std::stringstream in(list);
    std::string part;
    std::smatch m;
    while (std::getline(in, part, ',')) {
        if (!std::regex_match(part, m, pattern)) return false;
        item(m);
    }
    return true;
}

int32_t opCode(const std::string& name) {
    if (name.find_first_not_of("0123456789") == std::string::npos) return std::stoi(name);
    const std::string bare = name.compare(0, 7, "ZEL_OP_") == 0 ? name.substr(7) : name;
    for (int32_t op = 0; op < 1000; ++op) {
        if (zelsim::findOp(op) != nullptr && bare == zelsim::findOp(op)->name) return op;
    }
    throw std::invalid_argument("unknown op name");
}

bool appendNode(int graph, const std::smatch& m, int* result) {
    std::vector<kestrel_zel_nn_input> inputs;
    std::vector<kestrel_zel_nn_output> outputs;
    const bool read = forEachItem(m[4], kInputItem,
                                  [&](const std::smatch& i) {
                                      inputs.push_back({uint32_t(std::stoul(i[1])), uint32_t(std::stoul(i[2]))});
                                  }) &&
                      forEachItem(m[5], kOutputItem, [&](const std::smatch& o) {
                          kestrel_zel_nn_output r{};
                          const std::string type = o[1];
                          r.elementsize = o[2].matched ? std::stoul(o[2]) : type == "u8" ? 1 : type[1] == '1' ? 2 : 4;
                          std::stringstream dims(o[3]);
                          for (std::string d; std::getline(dims, d, 'x');)
                              r.max_sizes[r.rank++] = uint32_t(std::stoul(d));
                          outputs.push_back(r);
                      });
    if (!read) return false;
    *result = kestrel_zel_nn_append_node(graph, std::stoul(m[1]), zel_op_type_enum(opCode(m[2])),
                                         m[3].matched ? std::stoi(m[3]) : 0, inputs.data(), inputs.size(),
                                         outputs.data(), outputs.size());
    return true;
}

bool appendConst(int graph, const std::smatch& m, int* result) {
    uint32_t dims[4];
    uint64_t count = 1;
    for (int i = 0; i < 4; ++i) count *= dims[i] = uint32_t(std::stoul(m[2 + i]));
    std::vector<uint8_t> bytes;
    if (m[6].matched) {
        bytes.resize(std::stoul(m[7]));
    } else {
        std::vector<double> values;
        std::stringstream in(m[10]);
        for (std::string word; in >> word;) values.push_back(std::stod(word));
        if (m[9].matched && values.size() == 1 && count <= (1u << 24)) values.assign(count, values[0]);
        if (values.size() != count) return false;
        const bool u8 = m[8] == "u8", f32 = m[8] == "f32";
        for (double v : values) {
            if (!f32 && (v != std::trunc(v) || v < (u8 ? 0.0 : INT32_MIN) || v > (u8 ? 255.0 : INT32_MAX)))
                return false;
            const int32_t i = f32 ? 0 : int32_t(v);
            const float f = float(v);
            const uint8_t* p = f32 ? reinterpret_cast<const uint8_t*>(&f) : reinterpret_cast<const uint8_t*>(&i);
            bytes.insert(bytes.end(), p, p + (u8 ? 1 : 4));  // little-endian, as the runtime reads them
        }
    }
    *result = kestrel_zel_nn_append_const_node(graph, std::stoul(m[1]), dims[0], dims[1], dims[2], dims[3],
                                               m[6] == "null" ? nullptr : bytes.data(), bytes.size());
    return true;
}

// Plays `text` (graph.txt) on one runtime graph: every call line with its
// result and, when it changed, getlog's text; then the graph's listing.
// Returns "" or the line it cannot read.
std::string playGraph(const std::string& path, const std::string& text, std::string* out) {
    int graph = 0;
    if (kestrel_zel_nn_init(&graph) != 0) return "init failed";
    std::stringstream in(text);
    std::string line, shownLog, error;
    for (int number = 1; error.empty() && std::getline(in, line); ++number) {
        line = line.substr(0, line.find('#'));  // comments
        line.erase(line.find_last_not_of(' ') + 1);
        if (line.empty()) continue;
        std::smatch m;
        int result = 0;
        bool read = true;
        try {
            if (std::regex_match(line, m, kNodeLine)) {
                read = appendNode(graph, m, &result);
            } else if (std::regex_match(line, m, kConstLine)) {
                read = appendConst(graph, m, &result);
            } else if (line == "prepare") {
                result = kestrel_zel_nn_prepare(graph);
            } else if (line == "passthrough on" || line == "passthrough off") {
                zelsim::setPassThrough(line == "passthrough on");
                *out += line + "\n";
                continue;
            } else {
                read = false;
            }
        } catch (const std::exception&) {  // a number out of range, an unknown op name
            read = false;
        }
        if (!read) {
            error = path + ":" + std::to_string(number) + ": cannot read '" + line + "'";
            break;
        }
        *out += line + "  -> " + std::to_string(result) + "\n";
        std::vector<unsigned char> buffer(4096, 0);
        kestrel_zel_nn_getlog(graph, buffer.data(), buffer.size() - 1);
        const std::string log(reinterpret_cast<const char*>(buffer.data()));
        if (log != shownLog) *out += "  getlog: " + log + "\n";
        shownLog = log;
    }
    *out += std::string("prepared: ") + (zelsim::graphPrepared(graph) ? "yes" : "no") + "\nlisting:\n" +
            zelsim::renderText(graph);
    kestrel_zel_nn_teardown(graph);
    return error;
}

struct Played {
    std::map<std::string, std::string> files;
    std::string error;  // the scenario itself is broken
};

Played play(const std::string& dir) {
    Played played;
    nlohmann::json scenario = nlohmann::json::object();
    std::string text;
    if (readFile(dir + "/scenario.json", text)) {
        scenario = nlohmann::json::parse(text, nullptr, false);
        if (scenario.is_discarded() || !scenario.is_object()) {
            played.error = dir + "/scenario.json: not a JSON object";
            return played;
        }
    }
    zelsim::reset();
    const std::string notesBefore = zelsim::notes();
    zelsim::armFaults(scenario.value("faults", ""));
    if (zelsim::notes() != notesBefore) {
        played.error = "faults: " + zelsim::notes().substr(notesBefore.size());
        return played;
    }
    if (readFile(dir + "/graph.txt", text)) {
        played.error = playGraph(dir + "/graph.txt", text, &played.files["runtime.txt"]);
        return played;
    }
    std::vector<std::string> steps = {"query", "create", "execute"};
    if (scenario.contains("steps")) steps = scenario["steps"].get<std::vector<std::string>>();
    LoadOptions options;
    options.checkIndices = !scenario.value("lenient", false);
    LoadedModel model;
    played.error = loadModelFile(dir + "/model.json", model, options);
    if (!played.error.empty()) return played;

    HostTrace trace;
    TracingGraph graph(*model.graph, trace, scenario.value("host", nlohmann::json::object()));
    TracingContext context(trace);
    std::string support, status, outputs;
    const std::thread::id self = std::this_thread::get_id();
    std::vector<zeltest::LogLine> lines;
    {
        zeltest::LogCapture log;
        IAccelerator* accelerator = zeltest::loadedPlugin().createAccelerator();
        if (accelerator == nullptr) {
            played.error = "no accelerator";
            return played;
        }
        IGraphExecutor* executor = nullptr;
        bool created = true;
        IoBuffers buffers = makeBuffers(model);
        int executions = 0;
        for (const std::string& step : steps) {
            graph.startStep(step);
            if (step == "query") {
                TracingQuery query(trace);
                accelerator->isGraphSupported(&graph, &query);
                for (uint32_t i = 0; i < model.graph->getOperationCount(); ++i) {
                    const auto it = query.mLevels.find(i);
                    support += std::to_string(i) + " " +
                               operationName(int32_t(model.graph->getOperation(i)->getType())) + ": " +
                               (it == query.mLevels.end() ? "no answer" : std::to_string(it->second)) + "\n";
                }
            } else if (step == "create") {
                if (executor != nullptr) executor->release();
                const CreateExecutorResult result = accelerator->createGraphExecutor(&graph, &context);
                executor = result.executor;
                created = result.status == Status::SUCCESS;
                status += "create: " + std::to_string(int32_t(result.status)) +
                          (executor != nullptr ? "" : " (no executor)") + "\n";
            } else if (step == "execute") {
                if (executor == nullptr || !created) continue;
                const ExecuteResult result = executeBound(*model.graph, *executor, buffers);
                ++executions;
                status += "execute: " + std::to_string(int32_t(result.status)) + "\n";
                for (size_t i = 0; i < buffers.outputs.size(); ++i)
                    outputs += "execution " + std::to_string(executions) + " output " + std::to_string(i) + ": " +
                               bytesText(buffers.outputs[i]) + "\n";
            } else if (step == "release") {
                if (executor != nullptr) executor->release();
                executor = nullptr;
                status += "release: " + std::to_string(zelsim::liveGraphs()) + " runtime graphs left\n";
            } else {
                played.error = "unknown step '" + step + "'";
            }
            trace.endStep(step);
        }
        if (executor != nullptr) executor->release();
        accelerator->release();
        for (const auto& line : log.lines())
            if (line.thread == self) lines.push_back(line);
    }
    std::string nodes;
    for (int id = 1; id <= zelsim::lastGraphId(); ++id)
        nodes += "graph " + std::to_string(id) + "\n" + zelsim::renderText(id);
    played.files = {{"support.txt", support}, {"log.txt", logText(lines)}, {"nodes.txt", nodes},
                    {"status.txt", status},   {"outputs.txt", outputs},    {"host.txt", trace.text()}};
    return played;
}

std::vector<std::string> scenarioNames() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(ZEL_GOLDEN_DIR))
        if (entry.is_directory()) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

class Golden : public ::testing::TestWithParam<std::string> {};

TEST_P(Golden, Scenario) {
    const std::string dir = std::string(ZEL_GOLDEN_DIR "/") + GetParam();
    const Played played = play(dir);
    ASSERT_EQ(played.error, "") << dir;
    const char* update = std::getenv("GOLDEN_UPDATE");
    if (update != nullptr && std::string(update) == "1") {
        for (const auto& file : played.files) std::ofstream(dir + "/" + file.first, std::ios::binary) << file.second;
        return;
    }
    for (const auto& file : played.files) {
        std::string expected;
        ASSERT_TRUE(readFile(dir + "/" + file.first, expected))
            << dir << " has no " << file.first
            << ": run GOLDEN_UPDATE=1 ctest -R golden and review the files it writes";
        EXPECT_EQ(expected, file.second) << GetParam() << "/" << file.first;
    }
}

INSTANTIATE_TEST_SUITE_P(Scenarios, Golden, ::testing::ValuesIn(scenarioNames()),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                             std::string name = info.param;
                             for (char& c : name)
                                 if (!isalnum(static_cast<unsigned char>(c))) c = '_';
                             return name;
                         });

}  // namespace
