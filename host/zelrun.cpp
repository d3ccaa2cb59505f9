// zelrun: runs a model file (or a folder of them) through an accelerator
// plug-in the way the host framework does, and reports what happened.
#include <android/log.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "zelhost/build_id.h"
#include "zelhost/execution.h"
#include "zelhost/graph_dump.h"
#include "zelhost/model_file.h"
#include "zelhost/names.h"
#include "zelhost/plugin_loader.h"

using namespace arv::nnhal;
using namespace arv::nnhal::host;

namespace {

enum ExitCode { kRan = 0, kFailure = 1, kUsage = 2, kDeclined = 3, kMismatch = 4 };

const char kUsageText[] =
    "usage: zelrun [options] MODEL.json\n"
    "       zelrun [options] --conformance DIR\n"
    "       zelrun [--plugin PATH] --version\n"
    "options:\n"
    "  --plugin PATH        accelerator plug-in (default: the build's ravine-acc-zel.so)\n"
    "  --runtime PATH       runtime library loaded before the plug-in (default: the build's\n"
    "                       simulator; \"\" loads none and leaves it to the loader path)\n"
    "  --log off|error|debug  plug-in log lines on standard error (default error)\n"
    "  --input FILE         raw bytes of one graph input, in order (repeatable); the model's\n"
    "                       expected values are then not compared\n"
    "  --expected FILE      raw bytes one graph output should hold, in order (repeatable);\n"
    "                       compared within the model's tolerance\n"
    "  --output FILE        write the raw bytes of one graph output, in order (repeatable)\n"
    "  --repeat N           execute N times and report latency\n"
    "  --dump-graph FILE    write the runtime graph as Graphviz DOT\n"
    "  --json               print the support answers and the partition as one JSON object\n"
    "                       and stop (no execution)\n"
    "  --lenient            load graph-level oddities as they are (out-of-range indices ...)\n"
    "  --conformance DIR    run every .json file below DIR and classify each case\n"
    "  --version            print zelrun's version and the plug-in's build id\n"
    "  -h, --help           this text\n"
    "exit codes: 0 ran (and matched), 1 failure, 2 usage, 3 declined, 4 mismatch\n"
    "When an operation is declined, zelrun shows the partition a host would make: each run of\n"
    "consecutive supported operations on the accelerator, the others on the host's CPU.\n";

struct Options {
    std::string model;
    std::string conformance;
    std::string plugin;
    std::string runtime;
    bool runtimeGiven = false;
    int logLevel = ANDROID_LOG_ERROR;  // lines below this priority are dropped; 99: none
    std::vector<std::string> inputs;
    std::vector<std::string> expected;
    std::vector<std::string> outputs;
    bool json = false;
    unsigned repeat = 1;
    std::string dumpGraph;
    bool lenient = false;
    bool version = false;
};

// ---- log sink ---------------------------------------------------------------

int gLogLevel = ANDROID_LOG_ERROR;

void logSink(int priority, const char* tag, const char* text, void*) {
    if (priority < gLogLevel) return;
    const char letter = priority >= ANDROID_LOG_ERROR  ? 'E'
                        : priority == ANDROID_LOG_WARN ? 'W'
                        : priority == ANDROID_LOG_INFO ? 'I'
                                                       : 'D';
    std::fprintf(stderr, "%c %s: %s\n", letter, tag != nullptr ? tag : "", text != nullptr ? text : "");
}

// ---- default paths ----------------------------------------------------------

std::string executableDir() {
    std::error_code ec;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? std::string(".") : self.parent_path().string();
}

bool exists(const std::string& path) {
    std::error_code ec;
    return std::filesystem::exists(path, ec);
}

// The first of `relatives` (paths from this executable's folder) that
// exists, else the first one, which the loader's message then names.
std::string defaultPath(std::initializer_list<std::string> relatives) {
    const std::filesystem::path dir = executableDir();
    for (const std::string& relative : relatives) {
        const std::string path = (dir / relative).lexically_normal().string();
        if (exists(path)) return path;
    }
    return (dir / *relatives.begin()).lexically_normal().string();
}

// ---- argument parsing -------------------------------------------------------

bool parseUnsigned(const std::string& text, unsigned& value) {
    if (text.empty() || text.size() > 9 || !std::all_of(text.begin(), text.end(), ::isdigit)) return false;
    value = static_cast<unsigned>(std::stoul(text));
    return true;
}

int usage(const std::string& message) {
    if (!message.empty()) std::cerr << "zelrun: " << message << "\n";
    std::cerr << kUsageText;
    return kUsage;
}

// Returns -1 when the options are fine, else the exit code.
int parseArguments(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= argc) return false;
            out = argv[++i];
            return true;
        };
        std::string text;
        if (arg == "-h" || arg == "--help") {
            std::cout << kUsageText;
            return kRan;
        } else if (arg == "--plugin") {
            if (!value(options.plugin)) return usage("--plugin needs a path");
        } else if (arg == "--runtime") {
            if (!value(options.runtime)) return usage("--runtime needs a path");
            options.runtimeGiven = true;
        } else if (arg == "--log") {
            if (!value(text)) return usage("--log needs off, error or debug");
            if (text == "off")
                options.logLevel = 99;
            else if (text == "error")
                options.logLevel = ANDROID_LOG_ERROR;
            else if (text == "debug")
                options.logLevel = ANDROID_LOG_DEBUG;
            else
                return usage("--log takes off, error or debug, not \"" + text + "\"");
        } else if (arg == "--input") {
            if (!value(text)) return usage("--input needs a file");
            options.inputs.push_back(text);
        } else if (arg == "--expected") {
            if (!value(text)) return usage("--expected needs a file");
            options.expected.push_back(text);
        } else if (arg == "--output") {
            if (!value(text)) return usage("--output needs a file");
            options.outputs.push_back(text);
        } else if (arg == "--json") {
            options.json = true;
        } else if (arg == "--repeat") {
            if (!value(text) || !parseUnsigned(text, options.repeat) || options.repeat == 0) {
                return usage("--repeat needs a positive count");
            }
        } else if (arg == "--dump-graph") {
            if (!value(options.dumpGraph)) return usage("--dump-graph needs a file");
        } else if (arg == "--lenient") {
            options.lenient = true;
        } else if (arg == "--version") {
            options.version = true;
        } else if (arg == "--conformance") {
            if (!value(options.conformance)) return usage("--conformance needs a folder");
        } else if (!arg.empty() && arg[0] == '-') {
            return usage("unknown option " + arg);
        } else if (options.model.empty()) {
            options.model = arg;
        } else {
            return usage("more than one model file given");
        }
    }
    if (options.version) {
        if (!options.model.empty() || !options.conformance.empty()) return usage("--version takes no model");
    } else if (options.model.empty() == options.conformance.empty()) {
        return usage(options.model.empty() ? "no model file given" : "give a model file or --conformance, not both");
    }
    const bool runOptions = !options.inputs.empty() || !options.expected.empty() || !options.outputs.empty() ||
                            !options.dumpGraph.empty() || options.repeat != 1;
    if (!options.conformance.empty() && (runOptions || options.json)) {
        return usage("--input, --expected, --output, --repeat, --dump-graph and --json apply to a single model");
    }
    if (options.json && runOptions) {
        return usage(
            "--json answers the support query only; it takes no --input, --expected, --output, "
            "--repeat or --dump-graph");
    }
    // The build's layout (<build>/host/zelrun, <build>/lib, <build>/sim),
    // then the installed one (<prefix>/bin/zelrun, <prefix>/lib).
    if (options.plugin.empty()) {
        options.plugin = defaultPath({"../lib/ravine-acc-zel.so", ZEL_LIBDIR_FROM_BINDIR "/ravine-acc-zel.so"});
    }
    if (!options.runtimeGiven && ZEL_WITH_SIMULATOR) {
        options.runtime =
            defaultPath({"../sim/libzel_kestrel_runtime.so", ZEL_LIBDIR_FROM_BINDIR "/libzel_kestrel_runtime.so"});
    }
    return -1;
}

// ---- helpers ----------------------------------------------------------------

std::string dimsText(const IOperand& operand) {
    std::string text = "[";
    for (uint32_t d = 0; d < operand.getDimensionCount(); ++d) {
        if (d) text += ",";
        text += std::to_string(operand.getDimension(d));
    }
    return text + "]";
}

// The raw bytes of `path`, which must be `wanted` bytes long for `what`.
bool readRaw(const std::string& path, uint64_t wanted, const std::string& what, std::vector<uint8_t>& bytes) {
    std::string text;
    const std::string error = readFile(path, text);
    if (!error.empty()) {
        std::cerr << "zelrun: " << error << "\n";
        return false;
    }
    if (text.size() != wanted) {
        std::cerr << "zelrun: " << path << ": " << text.size() << " bytes, " << what << " takes " << wanted << "\n";
        return false;
    }
    bytes.assign(text.begin(), text.end());
    return true;
}

bool writeRaw(const std::string& path, const void* data, size_t size) {
    const std::string error = writeFile(path, data, size);
    if (error.empty()) return true;
    std::cerr << "zelrun: " << error << "\n";
    return false;
}

const char kUnavailable[] =
    "status 7: the accelerator is unavailable: the runtime library is missing or answers another version";

double milliseconds(std::chrono::steady_clock::duration duration) {
    return std::chrono::duration<double, std::milli>(duration).count();
}

// Progress on standard error for long runs on a terminal.
class Progress {
public:
    explicit Progress(unsigned total) : mTotal(total), mEnabled(total > 1 && isatty(STDERR_FILENO) == 1) {}
    void update(unsigned done, std::chrono::steady_clock::duration elapsed) {
        if (!mEnabled || (!mShown && elapsed < std::chrono::milliseconds(500))) return;
        mShown = true;
        const unsigned width = 30;
        const unsigned filled = static_cast<unsigned>(static_cast<uint64_t>(done) * width / mTotal);
        std::fprintf(stderr, "\r[%s%s] %u/%u", std::string(filled, '#').c_str(),
                     std::string(width - filled, '.').c_str(), done, mTotal);
        std::fflush(stderr);
    }
    ~Progress() {
        if (mShown) std::fprintf(stderr, "\r%s\r", std::string(50, ' ').c_str());
    }

private:
    unsigned mTotal;
    bool mEnabled;
    bool mShown = false;
};

// Writes the runtime graph last built as DOT; false (with a message) when
// it cannot.
bool dumpGraph(PluginLoader& loader, const std::string& path) {
    std::string error;
    const std::string dot = dumpLastRuntimeGraph(loader.runtimeHandle(), error);
    if (dot.empty()) {
        std::cerr << "zelrun: cannot dump the runtime graph: " << error << "\n";
        return false;
    }
    if (!writeRaw(path, dot.data(), dot.size())) return false;
    std::cout << "runtime graph written to " << path << "\n";
    return true;
}

// ---- support answers and partition ------------------------------------------

std::string percent(uint64_t part, uint64_t whole) {
    if (whole == 0) return "";
    char text[32];
    std::snprintf(text, sizeof text, " (%.1f%%)", 100.0 * static_cast<double>(part) / static_cast<double>(whole));
    return text;
}

void printPartition(const Partition& partition) {
    std::cout << "partition: " << partition.segments.size()
              << " segment(s); the accelerator runs each run of supported operations, the host's CPU the rest\n";
    for (const Segment& segment : partition.segments) {
        const std::string range = segment.first == segment.last ? "operation " + std::to_string(segment.first)
                                                                : "operations " + std::to_string(segment.first) + ".." +
                                                                      std::to_string(segment.last);
        std::printf("  %-11s %-18s %u operation(s), %llu MACs\n", segment.accelerator ? "accelerator" : "cpu",
                    range.c_str(), segment.last - segment.first + 1, static_cast<unsigned long long>(segment.macs));
    }
    std::printf("on the accelerator: %u of %u operations%s, %llu of %llu MACs%s\n", partition.acceleratorOperations,
                partition.operations, percent(partition.acceleratorOperations, partition.operations).c_str(),
                static_cast<unsigned long long>(partition.acceleratorMacs),
                static_cast<unsigned long long>(partition.macs),
                percent(partition.acceleratorMacs, partition.macs).c_str());
    std::fflush(stdout);
}

std::string supportJson(const Options& options, const LoadedModel& model, const std::vector<int>& levels,
                        const Partition& partition) {
    using json = nlohmann::ordered_json;  // keys in the order written here
    const HostGraph& graph = *model.graph;
    json operations = json::array();
    for (uint32_t i = 0; i < levels.size(); ++i) {
        const int32_t type = static_cast<int32_t>(graph.getOperation(i)->getType());
        operations.push_back({{"index", i},
                              {"type", type},
                              {"name", operationName(type)},
                              {"level", levels[i]},
                              {"support", supportLevelName(levels[i])},
                              {"macs", operationMacs(graph, i)}});
    }
    json segments = json::array();
    for (const Segment& segment : partition.segments) {
        segments.push_back({{"target", segment.accelerator ? "accelerator" : "cpu"},
                            {"first", segment.first},
                            {"last", segment.last},
                            {"operations", segment.last - segment.first + 1},
                            {"macs", segment.macs}});
    }
    const json root = {
        {"model", options.model},
        {"name", model.name},
        {"supported", allSupported(levels)},
        {"operations", operations},
        {"partition",
         {{"segments", segments},
          {"operations", {{"accelerator", partition.acceleratorOperations}, {"total", partition.operations}}},
          {"macs", {{"accelerator", partition.acceleratorMacs}, {"total", partition.macs}}}}}};
    return root.dump(2);
}

// ---- one model --------------------------------------------------------------

// Reads the --input files into `buffers` and the --expected files into the
// model's expected values; false (with a message) on the first problem.
bool readRunFiles(const Options& options, LoadedModel& model, IoBuffers& buffers) {
    HostGraph& graph = *model.graph;
    if (!options.inputs.empty() && options.inputs.size() != graph.getInputCount()) {
        std::cerr << "zelrun: " << options.inputs.size() << " --input file(s) given, the graph has "
                  << graph.getInputCount() << " input(s)\n";
        return false;
    }
    for (const auto& list :
         {std::make_pair("--expected", &options.expected), std::make_pair("--output", &options.outputs)}) {
        if (!list.second->empty() && list.second->size() != graph.getOutputCount()) {
            std::cerr << "zelrun: " << list.second->size() << " " << list.first << " file(s) given, the graph has "
                      << graph.getOutputCount() << " output(s)\n";
            return false;
        }
    }
    for (uint32_t i = 0; i < options.inputs.size(); ++i) {
        const uint64_t wanted = operandByteSize(graph, graph.getInput(i));
        if (!readRaw(options.inputs[i], wanted, "graph input " + std::to_string(i), buffers.inputs[i])) return false;
    }
    if (!options.expected.empty()) {
        // The files give every output; the model's own expected values and
        // ignored outputs belong to its input data.
        model.hasExpected = true;
        model.expected.assign(options.expected.size(), {});
        model.ignoredOutputs.clear();
        for (uint32_t i = 0; i < options.expected.size(); ++i) {
            const uint32_t operand = graph.getOutput(i);
            std::vector<uint8_t> bytes;
            if (!readRaw(options.expected[i], operandByteSize(graph, operand), "graph output " + std::to_string(i),
                         bytes)) {
                return false;
            }
            const IOperand* described = graph.getOperand(operand);
            const ElementKind kind = elementKindOf(described ? static_cast<int32_t>(described->getType()) : 0);
            for (uint32_t e = 0; e < bytes.size() / elementSize(kind); ++e) {
                model.expected[i].push_back(readElement(kind, bytes.data(), e));
            }
        }
    } else if (!options.inputs.empty()) {
        model.hasExpected = false;
    }
    return true;
}

int runModel(const Options& options, PluginLoader& loader) {
    LoadedModel model;
    LoadOptions loadOptions;
    loadOptions.checkIndices = !options.lenient;
    std::string error = loadModelFile(options.model, model, loadOptions);
    if (!error.empty()) {
        std::cerr << "zelrun: " << error << "\n";
        return kFailure;
    }
    HostGraph& graph = *model.graph;
    const bool modelExpected = model.hasExpected;
    IoBuffers buffers = makeBuffers(model);
    if (!readRunFiles(options, model, buffers)) return kFailure;

    error.clear();
    IAccelerator* accelerator = loader.createAccelerator(&error);
    if (accelerator == nullptr) {
        std::cerr << "zelrun: " << error << "\n";
        return kFailure;
    }
    const std::vector<int> levels = querySupport(*accelerator, graph);
    const Partition partition = partitionGraph(graph, levels);
    if (options.json) {
        accelerator->release();
        std::cout << supportJson(options, model, levels, partition) << std::endl;
        return allSupported(levels) ? kRan : kDeclined;
    }

    std::cout << "model " << options.model;
    if (!model.name.empty()) std::cout << " (" << model.name << ")";
    std::cout << ": " << graph.getOperationCount() << " operation(s), " << graph.getInputCount() << " input(s), "
              << graph.getOutputCount() << " output(s)" << std::endl;
    std::printf("  %-4s %-5s %-30s %s\n", "#", "code", "operation", "support");
    for (uint32_t i = 0; i < levels.size(); ++i) {
        const int32_t type = static_cast<int32_t>(graph.operation(i).mType);
        std::printf("  %-4u %-5d %-30s %s\n", i, type, operationName(type).c_str(),
                    supportLevelName(levels[i]).c_str());
    }
    std::fflush(stdout);
    if (!allSupported(levels)) {
        printPartition(partition);
        std::cout << "declined: not every operation is supported\n";
        accelerator->release();
        return kDeclined;
    }
    if (options.inputs.empty() && !model.hasInputData && graph.getInputCount() > 0) {
        std::cout << "no input data in the model and no --input: the run uses zeros\n";
    }

    HostExecutorContext context;
    const CreateExecutorResult created = accelerator->createGraphExecutor(&graph, &context);
    const bool ready = created.status == Status::SUCCESS && created.executor != nullptr;
    // Drawn also when the runtime refused the graph: the graph it was given
    // is what explains the refusal.
    const bool dumped = options.dumpGraph.empty() || dumpGraph(loader, options.dumpGraph);
    if (!ready) {
        std::cerr << "zelrun: createGraphExecutor returned status " << static_cast<int32_t>(created.status) << "\n";
        if (created.status == Status::ACCELERATOR_UNAVAILABLE) std::cerr << "zelrun: " << kUnavailable << "\n";
        const std::string runtimeLog = lastRuntimeLog(loader.runtimeHandle());
        if (!runtimeLog.empty()) std::cerr << "zelrun: the runtime's log: " << runtimeLog << "\n";
        if (created.executor != nullptr) created.executor->release();
        accelerator->release();
        return kFailure;
    }

    int code = kRan;
    std::vector<double> latencies;
    {
        Progress progress(options.repeat);
        const auto start = std::chrono::steady_clock::now();
        for (unsigned run = 0; run < options.repeat && code == kRan; ++run) {
            const auto before = std::chrono::steady_clock::now();
            const ExecuteResult result = executeBound(graph, *created.executor, buffers);
            const auto after = std::chrono::steady_clock::now();
            if (result.status != Status::SUCCESS) {
                std::cerr << "zelrun: execute returned status " << static_cast<int32_t>(result.status) << " (run "
                          << run + 1 << ")\n";
                if (result.status == Status::ACCELERATOR_UNAVAILABLE) std::cerr << "zelrun: " << kUnavailable << "\n";
                code = kFailure;
                break;
            }
            latencies.push_back(milliseconds(after - before));
            progress.update(run + 1, after - start);
        }
    }
    created.executor->release();
    accelerator->release();
    if (code != kRan && latencies.empty()) return code;

    for (uint32_t i = 0; i < buffers.outputs.size(); ++i) {
        const IOperand* operand = graph.getOperand(graph.getOutput(i));
        if (operand == nullptr) continue;
        const int32_t type = static_cast<int32_t>(operand->getType());
        std::cout << "output " << i << " (operand " << graph.getOutput(i) << ", " << operandTypeName(type) << " "
                  << dimsText(*operand) << "): " << formatValues(elementKindOf(type), buffers.outputs[i], 16) << "\n";
    }
    for (uint32_t i = 0; i < options.outputs.size(); ++i) {
        if (!writeRaw(options.outputs[i], buffers.outputs[i].data(), buffers.outputs[i].size())) return kFailure;
        std::cout << "output " << i << " written to " << options.outputs[i] << " (" << buffers.outputs[i].size()
                  << " bytes)\n";
    }
    if (latencies.size() > 1) {
        std::vector<double> sorted = latencies;
        std::sort(sorted.begin(), sorted.end());
        const size_t n = sorted.size();
        const double median = n % 2 ? sorted[n / 2] : (sorted[n / 2 - 1] + sorted[n / 2]) / 2.0;
        std::printf("latency over %zu runs: min %.3f ms, median %.3f ms, max %.3f ms\n", n, sorted.front(), median,
                    sorted.back());
    } else if (!latencies.empty()) {
        std::printf("latency: %.3f ms\n", latencies.front());
    }
    if (modelExpected && !model.hasExpected) {
        std::cout << "outputs not compared: the model's expected values belong to its own input data "
                     "(--expected FILE... gives values for these inputs)\n";
    }
    if (model.hasExpected) {
        const Comparison comparison = compareOutputs(model, buffers.outputs);
        if (!comparison.matched()) {
            std::cout << "MISMATCH: " << comparison.detail;
            if (comparison.mismatches > 1) std::cout << " (" << comparison.mismatches << " values outside tolerance)";
            std::cout << "\n";
            return code == kRan ? kMismatch : code;
        }
        std::cout << "outputs match the expected values (tolerance " << model.tolerance << ", largest difference "
                  << comparison.maxDifference << ")\n";
    }
    return code == kRan && !dumped ? kFailure : code;
}

// ---- conformance folder -----------------------------------------------------

int runConformance(const Options& options, PluginLoader& loader) {
    namespace fs = std::filesystem;
    struct stat info {};
    const int reason = ::stat(options.conformance.c_str(), &info) != 0 ? errno : S_ISDIR(info.st_mode) ? 0 : ENOTDIR;
    if (reason != 0) {
        std::cerr << "zelrun: " << options.conformance << ": not a folder: " << std::strerror(reason) << "\n";
        return kFailure;
    }
    std::error_code ec;
    std::vector<fs::path> files;
    for (auto it = fs::recursive_directory_iterator(options.conformance, ec); !ec && it != fs::end(it);
         it.increment(ec)) {
        if (it->path().extension() == ".json" && it->is_regular_file(ec)) files.push_back(it->path());
    }
    if (ec) {
        std::cerr << "zelrun: cannot list " << options.conformance << ": " << ec.message() << "\n";
        return kFailure;
    }
    if (files.empty()) {
        std::cerr << "zelrun: " << options.conformance << ": no model file (*.json) in the folder\n";
        return kFailure;
    }
    std::sort(files.begin(), files.end());

    std::string error;
    IAccelerator* accelerator = loader.createAccelerator(&error);
    if (accelerator == nullptr) {
        std::cerr << "zelrun: " << error << "\n";
        return kFailure;
    }
    const CaseClass order[] = {CaseClass::Pass, CaseClass::Declined, CaseClass::Refused, CaseClass::Fail,
                               CaseClass::Error};
    std::map<CaseClass, unsigned> counts;
    bool unavailable = false;
    for (const fs::path& file : files) {
        const CaseResult result = runCase(*accelerator, file.string());
        ++counts[result.result];
        unavailable = unavailable || result.unavailable;
        const std::string name = file.lexically_relative(options.conformance).string();
        std::printf("%-8s %s%s%s\n", caseClassName(result.result), name.c_str(), result.reason.empty() ? "" : ": ",
                    result.reason.c_str());
        std::fflush(stdout);
    }
    accelerator->release();
    if (unavailable) std::cerr << "zelrun: " << kUnavailable << "\n";

    for (CaseClass value : order) std::printf("%s: %u\n", caseClassName(value), counts[value]);
    const unsigned failed = counts[CaseClass::Fail] + counts[CaseClass::Error];
    std::printf("%u passed, %u failed\n", counts[CaseClass::Pass], failed);
    return failed == 0 ? kRan : kFailure;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    const int parsed = parseArguments(argc, argv, options);
    if (parsed >= 0) return parsed;

    gLogLevel = options.logLevel;
    zel_log_set_sink(logSink, nullptr);

    PluginLoader loader;
    if (options.version) {
        // The plug-in alone: it opens its runtime only when first used.
        std::cout << "zelrun " << ZEL_VERSION << "\n";
        const std::string error = loader.load(options.plugin);
        if (!error.empty()) {
            std::cerr << "zelrun: " << error << "\n";
            return kFailure;
        }
        const std::string id = loadedBuildId(loader.pluginHandle());
        std::cout << "plug-in " << options.plugin << ": build id " << (id.empty() ? "none" : id) << "\n";
        return kRan;
    }
    const std::string error = loader.load(options.plugin, options.runtime);
    if (!error.empty()) {
        std::cerr << "zelrun: " << error << "\n";
        return kFailure;
    }
    try {
        return options.conformance.empty() ? runModel(options, loader) : runConformance(options, loader);
    } catch (const std::exception& e) {
        std::cerr << "zelrun: " << e.what() << "\n";
        return kFailure;
    }
}
