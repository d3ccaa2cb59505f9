// MobileNet inference throughput side by side, in multiply-accumulates per
// second of wall time, each with 1 and 2 threads:
//   sim/...      the whole graph through the plug-in on the simulator
//   xnnpack/...  the same convolution stack (the first convolution and the
//                13 depthwise + pointwise pairs, 8-bit, RELU6 fused)
//                through XNNPACK's operators: the peer a user would pick
//                for 8-bit inference on a CPU
//   gemm/...     the GEMM-shaped layers alone (the first convolution as
//                window rows, the pointwise layers, the classifier) through
//                oneDNN's u8 x s8 -> s32 GEMM: the floor of what any
//                implementation of these layers spends
// Arguments: --zel_size=N runs an NxN input instead of 224; --zel_tiny
// runs each figure once, briefly (smoke runs).
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "bench_support.h"
#include "zelhost/model_zoo.h"
#include "zelsim/control.h"

#ifdef ZEL_BENCH_XNNPACK
#include <pthreadpool.h>
#include <xnnpack.h>
#endif
#ifdef ZEL_BENCH_ONEDNN
#include <omp.h>

#include "oneapi/dnnl/dnnl.h"
#endif

namespace {

using arv::nnhal::IGraphExecutor;
using arv::nnhal::Status;
using arv::nnhal::host::HostGraph;

uint32_t gSize = 224;

// One layer of the convolution stack.
struct Layer {
    uint32_t inSize, inChannels, outChannels, kernel, stride;
    bool depthwise;
    uint32_t outSize() const { return (inSize + stride - 1) / stride; }
    uint64_t macs() const {
        const uint64_t pixels = uint64_t(outSize()) * outSize();
        return depthwise ? pixels * outChannels * kernel * kernel : pixels * outChannels * inChannels * kernel * kernel;
    }
};

std::vector<Layer> mobileNetStack(uint32_t size) {
    const uint32_t blocks[][2] = {{1, 64},  {2, 128}, {1, 128}, {2, 256}, {1, 256},  {2, 512}, {1, 512},
                                  {1, 512}, {1, 512}, {1, 512}, {1, 512}, {2, 1024}, {1, 1024}};
    std::vector<Layer> layers;
    layers.push_back({size, 3, 32, 3, 2, false});
    size = layers.back().outSize();
    uint32_t channels = 32;
    for (const auto& b : blocks) {
        layers.push_back({size, channels, channels, 3, b[0], true});
        size = layers.back().outSize();
        layers.push_back({size, channels, b[1], 1, 1, false});
        channels = b[1];
    }
    return layers;
}

std::vector<uint8_t> randomBytes(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<uint8_t> v(n);
    for (auto& b : v) b = static_cast<uint8_t>(rng() >> 24);
    return v;
}

void simInference(benchmark::State& state) {
    const std::string name = "mobilenet:" + std::to_string(gSize);
    std::unique_ptr<HostGraph> graph = zelbench::makeGraph(name);
    zelbench::resetAccelerator();
    zelsim::reset();
    zelsim::setThreads(static_cast<unsigned>(state.range(0)));
    IGraphExecutor* executor = zelbench::prepare(*graph);
    if (executor == nullptr) {
        state.SkipWithError("createGraphExecutor failed");
        return;
    }
    {
        zelbench::Bindings bindings(*graph);
        for (auto _ : state) {
            if (executor->execute().status != Status::SUCCESS) {
                state.SkipWithError("execution failed");
                break;
            }
        }
    }
    executor->release();
    zelsim::setThreads(0);
    const double macs = static_cast<double>(zelbench::macsOf(name));
    state.counters["MAC/s"] = benchmark::Counter(macs * state.iterations(), benchmark::Counter::kIsRate);
}

#ifdef ZEL_BENCH_XNNPACK
// SAME padding of one axis: total max(0, (out - 1) * stride + k - in), the
// odd pixel after.
void samePadding(const Layer& l, uint32_t* before, uint32_t* after) {
    const int64_t total = std::max<int64_t>(0, int64_t(l.outSize() - 1) * l.stride + l.kernel - l.inSize);
    *before = static_cast<uint32_t>(total / 2);
    *after = static_cast<uint32_t>(total - total / 2);
}

void xnnpackStack(benchmark::State& state) {
    if (xnn_initialize(nullptr) != xnn_status_success) {
        state.SkipWithError("xnn_initialize failed");
        return;
    }
    const std::vector<Layer> layers = mobileNetStack(gSize);
    pthreadpool_t pool = pthreadpool_create(static_cast<size_t>(state.range(0)));
    std::vector<xnn_operator_t> ops;
    std::vector<std::vector<uint8_t>> weights, buffers;
    std::vector<std::vector<int32_t>> biases;
    buffers.push_back(randomBytes(size_t(gSize) * gSize * 3, 1));
    uint64_t macs = 0;
    const float activationScale = 6.0f / 255.0f;
    for (size_t i = 0; i < layers.size(); ++i) {
        const Layer& l = layers[i];
        macs += l.macs();
        const uint32_t groups = l.depthwise ? l.inChannels : 1;
        const size_t groupIn = l.depthwise ? 1 : l.inChannels;
        const size_t groupOut = l.depthwise ? 1 : l.outChannels;
        weights.push_back(randomBytes(size_t(l.outChannels) * l.kernel * l.kernel * groupIn, 2 + uint32_t(i)));
        biases.emplace_back(l.outChannels, 100);
        buffers.emplace_back(size_t(l.outSize()) * l.outSize() * l.outChannels);
        uint32_t top = 0, bottom = 0;
        samePadding(l, &top, &bottom);
        xnn_operator_t op = nullptr;
        const float inScale = i == 0 ? 0.0078125f : activationScale;
        const uint8_t inZero = i == 0 ? 128 : 0;
        if (xnn_create_convolution2d_nhwc_qu8(top, bottom, bottom, top, l.kernel, l.kernel, l.stride, l.stride, 1, 1,
                                              groups, groupIn, groupOut, l.inChannels, l.outChannels, inZero, inScale,
                                              128, 0.005f, weights.back().data(), biases.back().data(), 0,
                                              activationScale, 0, 255, 0, &op) != xnn_status_success ||
            xnn_setup_convolution2d_nhwc_qu8(op, 1, l.inSize, l.inSize, buffers[i].data(), buffers[i + 1].data(),
                                             pool) != xnn_status_success) {
            state.SkipWithError("an XNNPACK convolution could not be made");
            break;
        }
        ops.push_back(op);
    }
    if (ops.size() == layers.size()) {
        for (auto _ : state) {
            for (xnn_operator_t op : ops) xnn_run_operator(op, pool);
        }
    }
    for (xnn_operator_t op : ops) xnn_delete_operator(op);
    pthreadpool_destroy(pool);
    state.counters["MAC/s"] =
        benchmark::Counter(static_cast<double>(macs) * state.iterations(), benchmark::Counter::kIsRate);
}
#endif

#ifdef ZEL_BENCH_ONEDNN
void gemmFloor(benchmark::State& state) {
    omp_set_num_threads(static_cast<int>(state.range(0)));
    struct Gemm {
        uint32_t m, n, k;
        std::vector<uint8_t> a;
        std::vector<int8_t> b;
        std::vector<int32_t> c;
    };
    std::vector<Gemm> gemms;
    uint64_t macs = 0;
    auto add = [&](uint32_t m, uint32_t n, uint32_t k) {
        Gemm g{m, n, k, randomBytes(size_t(m) * k, m + n), {}, std::vector<int32_t>(size_t(m) * n)};
        const std::vector<uint8_t> b = randomBytes(size_t(k) * n, k);
        g.b.assign(b.begin(), b.end());
        gemms.push_back(std::move(g));
        macs += uint64_t(m) * n * k;
    };
    uint32_t channels = 0;
    for (const Layer& l : mobileNetStack(gSize)) {
        if (!l.depthwise) add(l.outSize() * l.outSize(), l.outChannels, l.inChannels * l.kernel * l.kernel);
        channels = l.outChannels;
    }
    add(1, 1001, channels);  // classifier
    const int32_t noOffset = 0;
    for (auto _ : state) {
        for (Gemm& g : gemms) {
            dnnl_gemm_u8s8s32('N', 'N', 'F', g.m, g.n, g.k, 1.0f, g.a.data(), g.k, 128, g.b.data(), g.n, 0, 0.0f,
                              g.c.data(), g.n, &noOffset);
        }
    }
    state.counters["MAC/s"] =
        benchmark::Counter(static_cast<double>(macs) * state.iterations(), benchmark::Counter::kIsRate);
}
#endif

}  // namespace

int main(int argc, char** argv) {
    std::vector<char*> args;
    bool tiny = false;
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "--zel_tiny") == 0) {
            tiny = true;
        } else if (std::strncmp(argv[i], "--zel_size=", 11) == 0) {
            gSize = static_cast<uint32_t>(std::strtoul(argv[i] + 11, nullptr, 10));
        } else {
            args.push_back(argv[i]);
        }
    }
    int count = static_cast<int>(args.size());
    benchmark::Initialize(&count, args.data());
    if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 1;
    auto shape = [tiny](benchmark::internal::Benchmark* b) {
        // Wall time for the rate; CPU time of every thread of the process
        // beside it, which the machine's other load disturbs far less.
        b->ArgName("threads")->Arg(1)->Arg(2)->UseRealTime()->MeasureProcessCPUTime();
        if (tiny) {
            b->Iterations(1);
        } else {
            b->MinTime(0.5)->Repetitions(5)->ReportAggregatesOnly(true);
        }
    };
    shape(benchmark::RegisterBenchmark("sim/mobilenet", simInference));
#ifdef ZEL_BENCH_XNNPACK
    shape(benchmark::RegisterBenchmark("xnnpack/mobilenet_convs", xnnpackStack));
#endif
#ifdef ZEL_BENCH_ONEDNN
    shape(benchmark::RegisterBenchmark("gemm/mobilenet_gemm_layers", gemmFloor));
#endif
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
