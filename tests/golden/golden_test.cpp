// Plays every scenario folder beside this file through the built plug-in
// library (loaded with dlopen by the host's plug-in loader, as zelrun does)
// on the runtime simulator, and compares what happened with the expected
// files of the folder. GOLDEN_UPDATE=1 rewrites the expected files.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "zelhost/execution.h"
#include "zelhost/model_file.h"
#include "zelhost/names.h"
#include "zelhost/plugin_loader.h"
#include "zelsim/control.h"

using namespace arv::nnhal;
using namespace arv::nnhal::host;

namespace {

const char* const kExpectedFiles[] = {"support.txt", "log.txt", "nodes.txt", "status.txt", "outputs.txt", "host.txt"};

PluginLoader& plugin() {
    static PluginLoader* loader = [] {
        auto* created = new PluginLoader;
        const std::string error = created->load(ZEL_PLUGIN_PATH, ZEL_RUNTIME_PATH);
        if (!error.empty()) ADD_FAILURE() << error;
        return created;
    }();
    return *loader;
}

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
// null operations from call `operations_before_null` + 1 of getOperation on.
class TracingGraph : public IGraph {
public:
    TracingGraph(IGraph& graph, HostTrace& trace, const nlohmann::json& broken)
        : mGraph(graph),
          mTrace(trace),
          mNullOperand(broken.value("null_operand", UINT32_MAX)),
          mNullOperation(broken.value("null_operation", UINT32_MAX)),
          mOperationsBeforeNull(broken.value("operations_before_null", UINT32_MAX)) {}
    uint32_t getOperandCount() const override { return mGraph.getOperandCount(); }
    IOperand* getOperand(uint32_t index) const override {
        return index == mNullOperand ? nullptr : mGraph.getOperand(index);
    }
    uint32_t getOperationCount() const override {
        mTrace.add("count");
        return mGraph.getOperationCount();
    }
    IOperation* getOperation(uint32_t index) const override {
        const bool broken = ++mOperationCalls > mOperationsBeforeNull || index == mNullOperation;
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
    std::vector<std::string> steps = {"query", "create", "execute"};
    if (scenario.contains("steps")) steps = scenario["steps"].get<std::vector<std::string>>();
    LoadOptions options;
    options.checkIndices = !scenario.value("lenient", false);
    LoadedModel model;
    played.error = loadModelFile(dir + "/model.json", model, options);
    if (!played.error.empty()) return played;

    zelsim::reset();
    const std::string notesBefore = zelsim::notes();
    zelsim::armFaults(scenario.value("faults", ""));
    if (zelsim::notes() != notesBefore) {
        played.error = "faults: " + zelsim::notes().substr(notesBefore.size());
        return played;
    }

    HostTrace trace;
    TracingGraph graph(*model.graph, trace, scenario.value("host", nlohmann::json::object()));
    TracingContext context(trace);
    std::string support, status, outputs;
    const std::thread::id self = std::this_thread::get_id();
    std::vector<zeltest::LogLine> lines;
    {
        zeltest::LogCapture log;
        IAccelerator* accelerator = plugin().createAccelerator();
        if (accelerator == nullptr) {
            played.error = "no accelerator";
            return played;
        }
        IGraphExecutor* executor = nullptr;
        bool created = true;
        IoBuffers buffers = makeBuffers(model);
        int executions = 0;
        for (const std::string& step : steps) {
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

// First differing line of two texts, for the failure message.
std::string firstDifference(const std::string& expected, const std::string& actual) {
    std::istringstream e(expected), a(actual);
    std::string le, la;
    for (int n = 1;; ++n) {
        const bool he = static_cast<bool>(std::getline(e, le)), ha = static_cast<bool>(std::getline(a, la));
        if (!he && !ha) return "line endings differ";
        if (he != ha || le != la)
            return "line " + std::to_string(n) + ":\n  expected: " + (he ? le : "<end>") +
                   "\n  actual:   " + (ha ? la : "<end>");
    }
}

std::vector<std::string> scenarioNames() {
    std::vector<std::string> names;
    if (DIR* dir = opendir(ZEL_GOLDEN_DIR)) {
        while (dirent* entry = readdir(dir)) {
            const std::string name = entry->d_name;
            struct stat st {};
            if (name[0] != '.' && stat((std::string(ZEL_GOLDEN_DIR "/") + name).c_str(), &st) == 0 &&
                S_ISDIR(st.st_mode))
                names.push_back(name);
        }
        closedir(dir);
    }
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
    for (const char* name : kExpectedFiles) {
        std::string expected;
        ASSERT_TRUE(readFile(dir + "/" + name, expected))
            << dir << " has no " << name << ": run GOLDEN_UPDATE=1 ctest -R golden and review the files it writes";
        EXPECT_EQ(expected, played.files.at(name))
            << GetParam() << "/" << name << " differs at " << firstDifference(expected, played.files.at(name));
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
