// zelrun: runs a model file (or a folder of them) through an accelerator
// plug-in the way the host framework does, and reports what happened.
#include <android/log.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iostream>
#include <map>
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
    "  --input FILE         raw bytes of one graph input, in order (repeatable)\n"
    "  --repeat N           execute N times and report latency\n"
    "  --dump-graph FILE    write the runtime graph as Graphviz DOT\n"
    "  --lenient            load graph-level oddities as they are (out-of-range indices ...)\n"
    "  --conformance DIR    run every .json file below DIR and classify each case\n"
    "  --version            print zelrun's version and the plug-in's build id\n"
    "exit codes: 0 ran (and matched), 1 failure, 2 usage, 3 declined, 4 mismatch\n";

struct Options {
    std::string model;
    std::string conformance;
    std::string plugin;
    std::string runtime;
    bool runtimeGiven = false;
    int logLevel = ANDROID_LOG_ERROR;  // lines below this priority are dropped; 99: none
    std::vector<std::string> inputs;
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
    if (!options.conformance.empty() &&
        (!options.inputs.empty() || !options.dumpGraph.empty() || options.repeat != 1)) {
        return usage("--input, --repeat and --dump-graph apply to a single model");
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

bool readFile(const std::string& path, std::vector<uint8_t>& bytes) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

bool writeFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary);
    out << text;
    return static_cast<bool>(out);
}

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
    if (!writeFile(path, dot)) {
        std::cerr << "zelrun: cannot write " << path << "\n";
        return false;
    }
    std::cout << "runtime graph written to " << path << "\n";
    return true;
}

// ---- one model --------------------------------------------------------------

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
    IoBuffers buffers = makeBuffers(model);
    if (!options.inputs.empty()) {
        if (options.inputs.size() != graph.getInputCount()) {
            std::cerr << "zelrun: " << options.inputs.size() << " --input file(s) given, the graph has "
                      << graph.getInputCount() << " input(s)\n";
            return kFailure;
        }
        for (size_t i = 0; i < options.inputs.size(); ++i) {
            std::vector<uint8_t> bytes;
            if (!readFile(options.inputs[i], bytes)) {
                std::cerr << "zelrun: cannot read " << options.inputs[i] << "\n";
                return kFailure;
            }
            const uint64_t wanted = operandByteSize(graph, graph.getInput(static_cast<uint32_t>(i)));
            if (bytes.size() != wanted) {
                std::cerr << "zelrun: " << options.inputs[i] << ": " << bytes.size() << " bytes, graph input " << i
                          << " takes " << wanted << "\n";
                return kFailure;
            }
            buffers.inputs[i] = std::move(bytes);
        }
    }

    std::cout << "model " << options.model;
    if (!model.name.empty()) std::cout << " (" << model.name << ")";
    std::cout << ": " << graph.getOperationCount() << " operation(s), " << graph.getInputCount() << " input(s), "
              << graph.getOutputCount() << " output(s)" << std::endl;

    error.clear();
    IAccelerator* accelerator = loader.createAccelerator(&error);
    if (accelerator == nullptr) {
        std::cerr << "zelrun: " << error << "\n";
        return kFailure;
    }
    const std::vector<int> levels = querySupport(*accelerator, graph);
    std::printf("  %-4s %-30s %s\n", "#", "operation", "support");
    for (uint32_t i = 0; i < levels.size(); ++i) {
        std::printf("  %-4u %-30s %s\n", i, operationName(static_cast<int32_t>(graph.operation(i).mType)).c_str(),
                    supportLevelName(levels[i]).c_str());
    }
    std::fflush(stdout);
    if (!allSupported(levels)) {
        std::cout << "declined: not every operation is supported\n";
        accelerator->release();
        return kDeclined;
    }

    HostExecutorContext context;
    const CreateExecutorResult created = accelerator->createGraphExecutor(&graph, &context);
    const bool ready = created.status == Status::SUCCESS && created.executor != nullptr;
    // Drawn also when the runtime refused the graph: the graph it was given
    // is what explains the refusal.
    const bool dumped = options.dumpGraph.empty() || dumpGraph(loader, options.dumpGraph);
    if (!ready) {
        std::cerr << "zelrun: createGraphExecutor returned status " << static_cast<int32_t>(created.status) << "\n";
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
    std::error_code ec;
    if (!fs::is_directory(options.conformance, ec)) {
        std::cerr << "zelrun: " << options.conformance << " is not a folder\n";
        return kFailure;
    }
    std::vector<fs::path> files;
    for (auto it = fs::recursive_directory_iterator(options.conformance, ec); !ec && it != fs::end(it);
         it.increment(ec)) {
        if (it->path().extension() == ".json" && it->is_regular_file(ec)) files.push_back(it->path());
    }
    if (ec) {
        std::cerr << "zelrun: cannot list " << options.conformance << ": " << ec.message() << "\n";
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
    for (const fs::path& file : files) {
        const CaseResult result = runCase(*accelerator, file.string());
        ++counts[result.result];
        const std::string name = file.lexically_relative(options.conformance).string();
        std::printf("%-8s %s%s%s\n", caseClassName(result.result), name.c_str(), result.reason.empty() ? "" : ": ",
                    result.reason.c_str());
        std::fflush(stdout);
    }
    accelerator->release();

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
