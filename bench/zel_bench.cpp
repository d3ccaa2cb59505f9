// Time benchmarks of the plug-in against the simulator, Google Benchmark.
// Each figure is meant to be read against its neighbour measured in the
// same run (preparation against one memcpy of the constants, plug-in
// execution against a direct runtime call), never as an absolute time:
// the machines are shared and noisy.
//
// Benchmarks are named FIGURE/GRAPH (graph names: bench_support.h):
//   memcpy/G               one memcpy of all constant bytes of G
//   transpose/G            the plug-in's transposes of G's filters and weights
//                          alone, into a buffer written beforehand
//   runtime_copy/G         what the runtime does with each constant in
//                          pass-through mode: a fresh buffer and a copy
//   prepare_passthrough/G  createGraphExecutor, simulator only copying constants
//   prepare_validated/G    createGraphExecutor, simulator validating every node
//   support/G              isGraphSupported
//   execute_plugin/G       ZelExecutor::execute, simulator in pass-through
//   execute_direct/G       kestrel_zel_nn_execute_new with the same records
//   inference/G            ZelExecutor::execute with full simulator numerics
//
// Times: the benchmark thread's CPU time is the figure for preparation and
// copies. Support queries and executions also wait for the plug-in's power
// voting thread, so their iteration counts follow wall time and both times
// are reported.
//
// Extra flag (before or after the benchmark flags):
//   --zel_tiny   small graphs and single repetitions, for the smoke test
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench_support.h"
#include "zel_model.h"
#include "zelsim/control.h"

namespace {

using arv::nnhal::IGraphExecutor;
using arv::nnhal::Status;
using zelbench::HostGraph;

// Graphs are built once per process and shared by the benchmarks.
HostGraph& graphFor(const std::string& graphName) {
    static std::map<std::string, std::unique_ptr<HostGraph>> cache;
    std::unique_ptr<HostGraph>& slot = cache[graphName];
    if (!slot) slot = zelbench::makeGraph(graphName);
    return *slot;
}

// A clean simulator (no recorded calls piling up) and a fresh runtime link
// in the plug-in for every benchmark run, so that votes still queued by an
// earlier benchmark do not slow this one down.
void resetRuntime(bool passThrough) {
    zelbench::resetAccelerator();
    zelsim::reset();
    zelsim::setPassThrough(passThrough);
}

void describeGraph(benchmark::State& state, HostGraph& graph) {
    state.counters["operations"] = zelbench::operationCount(graph);
    state.counters["constant_bytes"] = static_cast<double>(zelbench::constantBytes(graph));
}

void memcpyConstants(benchmark::State& state, const std::string& graphName) {
    HostGraph& graph = graphFor(graphName);
    const size_t bytes = static_cast<size_t>(zelbench::constantBytes(graph));
    // Source: every constant laid end to end; destination written once
    // beforehand so that page faults stay out of the copy.
    std::vector<uint8_t> source;
    source.reserve(bytes);
    for (uint32_t i = 0; i < graph.getOperandCount(); ++i) {
        const auto& operand = graph.operand(i);
        if (operand.mLifetime == arv::nnhal::host::Lifetime::Constant) {
            source.insert(source.end(), operand.mData.begin(), operand.mData.end());
        }
    }
    std::vector<uint8_t> destination(bytes, 1);
    for (auto _ : state) {
        std::memcpy(destination.data(), source.data(), bytes);
        benchmark::DoNotOptimize(destination.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
    describeGraph(state, graph);
}

// Shapes the plug-in transposes: a convolution filter [O, H, W, I] becomes
// O rows of H*W*I, a fully connected weight [units, in] units rows of in.
struct Matrix {
    const uint8_t* data;
    uint32_t rows;
    uint32_t cols;
};

std::vector<Matrix> transposedMatrices(HostGraph& graph) {
    std::vector<Matrix> matrices;
    for (uint32_t i = 0; i < graph.getOperationCount(); ++i) {
        const auto& operation = graph.operation(i);
        const bool conv = operation.mType == arv::nnhal::OperationType::CONV_2D;
        if (!conv && operation.mType != arv::nnhal::OperationType::FULLY_CONNECTED) continue;
        const auto& weight = graph.operand(operation.mInputs.at(1));
        if (weight.mLifetime != arv::nnhal::host::Lifetime::Constant || weight.mDims.empty()) continue;
        uint32_t cols = 1;
        for (size_t d = 1; d < weight.mDims.size(); ++d) cols *= weight.mDims[d];
        matrices.push_back({weight.mData.data(), weight.mDims[0], cols});
    }
    return matrices;
}

void transposeWeights(benchmark::State& state, const std::string& graphName) {
    HostGraph& graph = graphFor(graphName);
    const std::vector<Matrix> matrices = transposedMatrices(graph);
    size_t largest = 0;
    uint64_t bytes = 0;
    for (const Matrix& m : matrices) {
        largest = std::max(largest, size_t(m.rows) * m.cols);
        bytes += uint64_t(m.rows) * m.cols;
    }
    std::vector<uint8_t> destination(largest, 1);
    for (auto _ : state) {
        for (const Matrix& m : matrices) {
            arv::nnhal::zel::transposeInto(m.rows, m.cols, m.data, destination.data());
            benchmark::ClobberMemory();
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
    describeGraph(state, graph);
}

void runtimeCopy(benchmark::State& state, const std::string& graphName) {
    HostGraph& graph = graphFor(graphName);
    std::vector<const std::vector<uint8_t>*> constants;
    for (uint32_t i = 0; i < graph.getOperandCount(); ++i) {
        const auto& operand = graph.operand(i);
        if (operand.mLifetime == arv::nnhal::host::Lifetime::Constant) constants.push_back(&operand.mData);
    }
    for (auto _ : state) {
        std::vector<std::vector<uint8_t>> kept;
        kept.reserve(constants.size());
        for (const std::vector<uint8_t>* data : constants) kept.emplace_back(data->begin(), data->end());
        benchmark::DoNotOptimize(kept.data());
        state.PauseTiming();
        kept.clear();
        state.ResumeTiming();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * zelbench::constantBytes(graph)));
    describeGraph(state, graph);
}

void prepareGraph(benchmark::State& state, const std::string& graphName, bool passThrough) {
    HostGraph& graph = graphFor(graphName);
    resetRuntime(passThrough);
    for (auto _ : state) {
        IGraphExecutor* executor = zelbench::prepare(graph);
        if (executor == nullptr) {
            state.SkipWithError("createGraphExecutor failed");
            break;
        }
        state.PauseTiming();
        executor->release();
        state.ResumeTiming();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * zelbench::constantBytes(graph)));
    describeGraph(state, graph);
}

void supportQuery(benchmark::State& state, const std::string& graphName) {
    HostGraph& graph = graphFor(graphName);
    resetRuntime(true);
    arv::nnhal::host::HostSupportQuery query(graph.getOperationCount());
    for (auto _ : state) {
        zelbench::accelerator()->isGraphSupported(&graph, &query);
    }
    int supported = 0;
    for (int level : query.levels()) supported += level == 0 ? 1 : 0;
    state.counters["supported"] = supported;
    describeGraph(state, graph);
}

// Executions on a graph prepared in pass-through mode: `direct` calls the
// runtime with the records the plug-in would build, skipping the plug-in.
void executeGraph(benchmark::State& state, const std::string& graphName, bool direct) {
    HostGraph& graph = graphFor(graphName);
    resetRuntime(true);
    IGraphExecutor* executor = zelbench::prepare(graph);
    if (executor == nullptr) {
        state.SkipWithError("createGraphExecutor failed");
        return;
    }
    {
        const int graphId = zelbench::runtimeGraphId(executor);
        zelbench::Bindings bindings(graph);
        auto& ins = bindings.inputs();
        auto& outs = bindings.outputs();
        for (auto _ : state) {
            const bool ok = direct ? kestrel_zel_nn_execute_new(graphId, ins.data(), static_cast<unsigned>(ins.size()),
                                                                outs.data(), static_cast<unsigned>(outs.size())) == 0
                                   : executor->execute().status == Status::SUCCESS;
            if (!ok) {
                state.SkipWithError("execution failed");
                break;
            }
        }
    }
    executor->release();
    describeGraph(state, graph);
}

// One inference with the simulator's full numerics.
void inference(benchmark::State& state, const std::string& graphName) {
    HostGraph& graph = graphFor(graphName);
    resetRuntime(false);
    IGraphExecutor* executor = zelbench::prepare(graph);
    if (executor == nullptr) {
        state.SkipWithError("createGraphExecutor failed");
        return;
    }
    {
        zelbench::Bindings bindings(graph);
        for (auto _ : state) {
            if (executor->execute().status != Status::SUCCESS) {
                state.SkipWithError("execution failed");
                break;
            }
        }
    }
    executor->release();
    const double macs = static_cast<double>(zelbench::macsOf(graphName));
    state.counters["macs"] = macs;
    state.counters["MAC/s"] =
        benchmark::Counter(macs * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    describeGraph(state, graph);
}

struct Sizes {
    std::string mobilenet;
    std::vector<std::string> chains;
    std::vector<std::string> wides;
};

void registerAll(const Sizes& sizes, bool tiny) {
    // Quick, repeated figures: repetitions interleave with their neighbours
    // when --benchmark_enable_random_interleaving=true is given.
    auto quick = [&](benchmark::internal::Benchmark* b, int repetitions) {
        b->Repetitions(tiny ? 1 : repetitions);
        if (!tiny) b->MinTime(0.1);
    };
    auto wall = [&](benchmark::internal::Benchmark* b, int repetitions) {
        quick(b, repetitions);
        b->UseRealTime();
    };
    const std::string& m = sizes.mobilenet;
    quick(benchmark::RegisterBenchmark(("memcpy/" + m).c_str(), memcpyConstants, m), 7);
    quick(benchmark::RegisterBenchmark(("transpose/" + m).c_str(), transposeWeights, m), 7);
    quick(benchmark::RegisterBenchmark(("runtime_copy/" + m).c_str(), runtimeCopy, m), 7);
    quick(benchmark::RegisterBenchmark(("prepare_passthrough/" + m).c_str(), prepareGraph, m, true), 7);
    quick(benchmark::RegisterBenchmark(("prepare_validated/" + m).c_str(), prepareGraph, m, false), 3);
    wall(benchmark::RegisterBenchmark(("support/" + m).c_str(), supportQuery, m), 5);
    wall(benchmark::RegisterBenchmark(("execute_plugin/" + m).c_str(), executeGraph, m, false), 5);
    wall(benchmark::RegisterBenchmark(("execute_direct/" + m).c_str(), executeGraph, m, true), 5);
    // Full numerics are slow: one inference per repetition.
    benchmark::RegisterBenchmark(("inference/" + m).c_str(), inference, m)->Iterations(1)->Repetitions(tiny ? 1 : 3);
    for (const std::string& c : sizes.chains) {
        quick(benchmark::RegisterBenchmark(("prepare_passthrough/" + c).c_str(), prepareGraph, c, true), 3);
        wall(benchmark::RegisterBenchmark(("support/" + c).c_str(), supportQuery, c), 3);
    }
    for (const std::string& w : sizes.wides) {
        quick(benchmark::RegisterBenchmark(("memcpy/" + w).c_str(), memcpyConstants, w), 3);
        quick(benchmark::RegisterBenchmark(("transpose/" + w).c_str(), transposeWeights, w), 3);
        quick(benchmark::RegisterBenchmark(("prepare_passthrough/" + w).c_str(), prepareGraph, w, true), 3);
        wall(benchmark::RegisterBenchmark(("support/" + w).c_str(), supportQuery, w), 3);
    }
}

}  // namespace

int main(int argc, char** argv) {
    bool tiny = false;
    std::vector<char*> args;
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "--zel_tiny") == 0) {
            tiny = true;
        } else {
            args.push_back(argv[i]);
        }
    }
    int count = static_cast<int>(args.size());
    benchmark::Initialize(&count, args.data());
    if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 1;

    Sizes sizes;
    if (tiny) {
        sizes = {"mobilenet:16", {"chain:10", "chain:100"}, {"wide:100K"}};
    } else {
        sizes = {
            "mobilenet", {"chain:10", "chain:100", "chain:1000", "chain:10000"}, {"wide:1M", "wide:10M", "wide:100M"}};
    }
    registerAll(sizes, tiny);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
