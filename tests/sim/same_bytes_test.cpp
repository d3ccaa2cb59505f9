// The simulator's outputs do not depend on how its numerics are computed:
// every thread count and both accumulation paths (library and portable
// loops) give the same bytes for the conformance vectors the plug-in takes,
// the demo model and the benchmarks' MobileNet with fixed input pixels.
//
// The expected checksums are data recorded from the simulator's earlier
// single-thread loops, before the library path and the thread pool existed;
// a change to any output byte shows up here.
#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "reliability_support.h"
#include "zelhost/execution.h"
#include "zelhost/model_zoo.h"
#include "zelsim/control.h"

using namespace arv::nnhal;
using namespace arv::nnhal::host;

namespace {

// Recorded from the earlier simulator (FNV-1a 64 over every output byte).
constexpr uint64_t kConformanceChecksum = 0xbcbd03f569d9665bull;
constexpr uint32_t kConformanceCasesRun = 91;
constexpr uint64_t kDemoChecksum = 0xc0174ec535bf356bull;
constexpr uint64_t kMobileNetChecksum = 0x3d6d1c9712889feull;

struct Digest {
    uint64_t value = 1469598103934665603ull;
    void add(const std::vector<uint8_t>& bytes) {
        for (uint8_t b : bytes) value = (value ^ b) * 1099511628211ull;
    }
};

std::vector<std::string> conformanceFiles() {
    std::vector<std::string> files;
    // ZEL_CONFORMANCE_DIR in the environment overrides the build's path
    // (a work tree kept elsewhere than beside the vectors).
    const char* root = std::getenv("ZEL_CONFORMANCE_DIR");
    const std::string dir = std::string(root != nullptr ? root : ZEL_CONFORMANCE_DIR) + "/quant8";
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            const std::string name = e->d_name;
            if (name.size() > 5 && name.compare(name.size() - 5, 5, ".json") == 0) files.push_back(dir + "/" + name);
        }
        closedir(d);
    }
    std::sort(files.begin(), files.end());
    return files;
}

// Runs `graph` once when the plug-in takes every operation and adds its
// outputs to `digest`; false otherwise.
bool runOnce(IAccelerator& accelerator, HostGraph& graph, IoBuffers& buffers, Digest& digest) {
    if (!allSupported(querySupport(accelerator, graph))) return false;
    HostExecutorContext context;
    const CreateExecutorResult created = accelerator.createGraphExecutor(&graph, &context);
    if (created.status != Status::SUCCESS || created.executor == nullptr) {
        if (created.executor != nullptr) created.executor->release();
        return false;
    }
    const ExecuteResult executed = executeBound(graph, *created.executor, buffers);
    created.executor->release();
    EXPECT_EQ(executed.status, Status::SUCCESS);
    for (const auto& out : buffers.outputs) digest.add(out);
    return executed.status == Status::SUCCESS;
}

struct Checksums {
    Digest conformance, demo, mobileNet;
    uint32_t conformanceRun = 0;
};

Checksums measure(const std::vector<LoadedModel>& cases, LoadedModel& demo, HostGraph& mobileNet) {
    reltest::Accelerator accelerator;
    Checksums sums;
    for (const LoadedModel& model : cases) {
        IoBuffers buffers = makeBuffers(model);
        if (runOnce(*accelerator, *model.graph, buffers, sums.conformance)) ++sums.conformanceRun;
    }
    IoBuffers demoBuffers = makeBuffers(demo);
    EXPECT_TRUE(runOnce(*accelerator, *demo.graph, demoBuffers, sums.demo));
    // The benchmarks' input pixels.
    IoBuffers mb;
    mb.inputs = {std::vector<uint8_t>(operandByteSize(mobileNet, mobileNet.getInput(0)))};
    for (size_t i = 0; i < mb.inputs[0].size(); ++i) mb.inputs[0][i] = static_cast<uint8_t>((i * 131u + 7u) >> 3);
    mb.outputs = {std::vector<uint8_t>(operandByteSize(mobileNet, mobileNet.getOutput(0)))};
    EXPECT_TRUE(runOnce(*accelerator, mobileNet, mb, sums.mobileNet));
    return sums;
}

TEST(SameBytes, EveryThreadCountAndPathGivesTheRecordedOutputs) {
    std::vector<LoadedModel> cases;
    for (const std::string& file : conformanceFiles()) {
        LoadedModel model;
        if (loadModelFile(file, model).empty()) cases.push_back(std::move(model));
    }
    ASSERT_GT(cases.size(), 100u);
    LoadedModel demo = reltest::loadDemoModel();
    ASSERT_TRUE(demo.graph);
    std::unique_ptr<HostGraph> mobileNet = makeMobileNet(MobileNetOptions());

    // ctest runs this with ZELSIM_THREADS=3: the pool takes its default
    // from there.
    if (const char* env = std::getenv("ZELSIM_THREADS")) {
        EXPECT_EQ(std::to_string(zelsim::threads()), env);
    }

    std::vector<bool> paths = {true};
    if (zelsim::hasLibraryKernels()) paths.push_back(false);
    for (bool portable : paths) {
        for (unsigned threads : {1u, 2u, 3u}) {
            SCOPED_TRACE((portable ? "portable loops, " : "library, ") + std::to_string(threads) + " thread(s)");
            zelsim::setPortableKernels(portable);
            zelsim::setThreads(threads);
            const Checksums sums = measure(cases, demo, *mobileNet);
            if (std::getenv("ZELSIM_PRINT_CHECKSUMS") != nullptr) {
                std::printf("conformance %#llx (%u cases) demo %#llx mobilenet %#llx\n",
                            static_cast<unsigned long long>(sums.conformance.value), sums.conformanceRun,
                            static_cast<unsigned long long>(sums.demo.value),
                            static_cast<unsigned long long>(sums.mobileNet.value));
            }
            EXPECT_EQ(sums.conformanceRun, kConformanceCasesRun);
            EXPECT_EQ(sums.conformance.value, kConformanceChecksum);
            EXPECT_EQ(sums.demo.value, kDemoChecksum);
            EXPECT_EQ(sums.mobileNet.value, kMobileNetChecksum);
        }
    }
    zelsim::setPortableKernels(false);
    zelsim::setThreads(0);
}

}  // namespace
