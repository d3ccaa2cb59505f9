// End to end through the built plug-in library: loaded with dlopen by the
// host's plug-in loader, driven through the host interfaces only, running
// on the runtime simulator (linked here for its control API; the plug-in's
// own dlopen of the runtime finds this same loaded copy).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include "log_capture.h"
#include "zelhost/execution.h"
#include "zelhost/model_file.h"
#include "zelhost/plugin_loader.h"
#include "zelsim/control.h"

namespace arv {
namespace nnhal {
// Status values print as numbers in failure messages.
void PrintTo(Status status, std::ostream* out) { *out << "status " << static_cast<int32_t>(status); }
namespace host {
void PrintTo(CaseClass value, std::ostream* out) { *out << caseClassName(value); }
}  // namespace host
}  // namespace nnhal
}  // namespace arv

using namespace arv::nnhal;
using namespace arv::nnhal::host;

namespace {

constexpr int kWrongVersion = 0x20101;

// One loader for the whole program: the plug-in stays loaded, as in a host.
PluginLoader& plugin() {
    static PluginLoader* loader = [] {
        auto* created = new PluginLoader;
        const std::string error = created->load(ZEL_PLUGIN_PATH, ZEL_RUNTIME_PATH);
        EXPECT_EQ(error, "");
        return created;
    }();
    return *loader;
}

// An accelerator released at the end of the scope.
class Accelerator {
public:
    Accelerator() : mAccelerator(plugin().createAccelerator()) {}
    ~Accelerator() {
        if (mAccelerator) mAccelerator->release();
    }
    IAccelerator* operator->() const { return mAccelerator; }
    IAccelerator& operator*() const { return *mAccelerator; }
    IAccelerator* get() const { return mAccelerator; }
    // release() now (the reload under test), instead of at the end.
    void releaseNow() {
        mAccelerator->release();
        mAccelerator = nullptr;
    }

private:
    IAccelerator* mAccelerator;
};

double roundHalfAway(double value) { return value < 0 ? -std::floor(-value + 0.5) : std::floor(value + 0.5); }

// A 2x2 VALID convolution with two output channels and a fused RELU, and its
// expected output computed here from the real values.
struct SmallConv {
    std::unique_ptr<HostGraph> graph = std::make_unique<HostGraph>();
    std::vector<uint8_t> input;
    std::vector<uint8_t> expected;

    static constexpr float kInScale = 0.5f, kFilterScale = 0.25f, kOutScale = 0.5f;
    static constexpr int32_t kInZero = 10, kFilterZero = 100, kOutZero = 20;

    SmallConv() {
        for (int i = 0; i < 18; ++i) input.push_back(static_cast<uint8_t>((i * 7) % 41));
        std::vector<uint8_t> filter;  // [out 2, h 2, w 2, in 2]
        for (int i = 0; i < 16; ++i) filter.push_back(static_cast<uint8_t>(96 + (i * 5) % 9));
        const std::vector<int32_t> bias = {8, -16};  // scale kInScale * kFilterScale

        HostGraph& g = *graph;
        const uint32_t in = g.addQuant8({1, 3, 3, 2}, kInScale, kInZero, Lifetime::Input);
        const uint32_t w = g.addQuant8({2, 2, 2, 2}, kFilterScale, kFilterZero, Lifetime::Constant, filter);
        const uint32_t b = g.addInt32Tensor({2}, kInScale * kFilterScale, bias);
        const uint32_t valid = g.addInt32(2);
        const uint32_t one = g.addInt32(1);
        const uint32_t relu = g.addInt32(1);
        const uint32_t out = g.addQuant8({1, 2, 2, 2}, kOutScale, kOutZero, Lifetime::Output);
        g.addOperation(OperationType::CONV_2D, {in, w, b, valid, one, one, relu}, {out});
        g.setInputs({in});
        g.setOutputs({out});

        for (int y = 0; y < 2; ++y) {
            for (int x = 0; x < 2; ++x) {
                for (int o = 0; o < 2; ++o) {
                    double sum = bias[o] * double(kInScale) * kFilterScale;
                    for (int ky = 0; ky < 2; ++ky) {
                        for (int kx = 0; kx < 2; ++kx) {
                            for (int c = 0; c < 2; ++c) {
                                const double real_in = kInScale * (input[((y + ky) * 3 + (x + kx)) * 2 + c] - kInZero);
                                const double real_w = kFilterScale * (filter[((o * 2 + ky) * 2 + kx) * 2 + c] - kFilterZero);
                                sum += real_in * real_w;
                            }
                        }
                    }
                    const double q = roundHalfAway(std::max(sum, 0.0) / kOutScale) + kOutZero;
                    expected.push_back(static_cast<uint8_t>(std::min(255.0, std::max(0.0, q))));
                }
            }
        }
    }

    // Runs `executor` on the graph; returns the status and fills `output`.
    Status run(IGraphExecutor& executor, std::vector<uint8_t>& output) {
        IoBuffers buffers;
        buffers.inputs = {input};
        buffers.outputs = {std::vector<uint8_t>(8, 0)};
        const ExecuteResult result = executeBound(*graph, executor, buffers);
        EXPECT_EQ(result.reserved, 0);
        output = buffers.outputs[0];
        return result.status;
    }
};

class PluginEndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(plugin().pluginHandle(), nullptr);
        zelsim::reset();
    }
    void TearDown() override { zelsim::reset(); }
};

TEST_F(PluginEndToEnd, IdentityAndCapabilities) {
    Accelerator accelerator;
    ASSERT_NE(accelerator.get(), nullptr);
    const char* first = accelerator->getUniqueIdentifier();
    EXPECT_STREQ(first, "zel");
    EXPECT_EQ(accelerator->getUniqueIdentifier(), first);
    Accelerator other;
    EXPECT_EQ(other->getUniqueIdentifier(), first) << "one identifier for the whole process";
    EXPECT_EQ(accelerator->getVersion(), 0);
    EXPECT_TRUE(accelerator->getCapability(AcceleratorCapability::QUANT8_ASYMM));
    EXPECT_TRUE(accelerator->getCapability(AcceleratorCapability::QUANT8_ASYMM_VENDOR));
    EXPECT_FALSE(accelerator->getCapability(AcceleratorCapability::FLOAT32));
    EXPECT_FALSE(accelerator->getCapability(AcceleratorCapability::DYNAMIC_SHAPES));
}

TEST_F(PluginEndToEnd, SupportLevelsOfAMixedGraph) {
    HostGraph g;
    const uint32_t in = g.addQuant8({1, 4, 4, 1}, 0.5f, 0, Lifetime::Input);
    const uint32_t w = g.addQuant8({1, 2, 2, 1}, 0.5f, 0, Lifetime::Constant, {2, 2, 2, 2});
    const uint32_t b = g.addInt32Tensor({1}, 0.25f, {4});
    const uint32_t valid = g.addInt32(2);
    const uint32_t one = g.addInt32(1);
    const uint32_t none = g.addInt32(0);
    const uint32_t convOut = g.addQuant8({1, 3, 3, 1}, 1.0f, 0, Lifetime::Output);
    g.addOperation(OperationType::CONV_2D, {in, w, b, valid, one, one, none}, {convOut});

    const uint32_t f0 = g.addFloatTensor({2}, Lifetime::Input);
    const uint32_t f1 = g.addFloatTensor({2}, Lifetime::Input);
    const uint32_t fOut = g.addFloatTensor({2}, Lifetime::Output);
    g.addOperation(OperationType::ADD, {f0, f1, none}, {fOut});

    const uint32_t shape = g.addInt32Tensor({4}, 0.0f, {1, 5, 5, 1});
    const uint32_t tOut = g.addQuant8({1, 5, 5, 1}, 1.0f, 0, Lifetime::Output);
    g.addOperation(OperationType::TRANSPOSE_CONV_2D, {in, w, b, shape, valid, one, one, none, none}, {tOut});
    g.setInputs({in, f0, f1});
    g.setOutputs({convOut, fOut, tOut});

    Accelerator accelerator;
    zeltest::LogCapture log;
    EXPECT_EQ(querySupport(*accelerator, g), (std::vector<int>{0, 1, 1}));
    EXPECT_EQ(log.count("{ADD, TENSOR_FP32} is not supported."), 1u);
    EXPECT_EQ(zelsim::callCount("init"), 0) << "a support query builds no runtime graph";
}

TEST_F(PluginEndToEnd, ExecutesASmallConvolution) {
    SmallConv conv;
    Accelerator accelerator;
    ASSERT_EQ(querySupport(*accelerator, *conv.graph), std::vector<int>{0});
    HostExecutorContext context;
    const CreateExecutorResult created = accelerator->createGraphExecutor(conv.graph.get(), &context);
    ASSERT_EQ(created.status, Status::SUCCESS);
    ASSERT_NE(created.executor, nullptr);
    EXPECT_TRUE(zelsim::graphPrepared(zelsim::lastGraphId()));

    std::vector<uint8_t> output;
    ASSERT_EQ(conv.run(*created.executor, output), Status::SUCCESS);
    ASSERT_EQ(output.size(), conv.expected.size());
    for (size_t i = 0; i < output.size(); ++i) {
        EXPECT_NEAR(output[i], conv.expected[i], 1) << "element " << i;
    }
    // A second run on other input data gives the new result, not a cached one.
    conv.input.assign(conv.input.size(), SmallConv::kInZero);
    ASSERT_EQ(conv.run(*created.executor, output), Status::SUCCESS);
    // Real input 0: each output is RELU of its channel's bias, 1.0 and -2.0.
    EXPECT_EQ(output, (std::vector<uint8_t>{22, 20, 22, 20, 22, 20, 22, 20}));
    EXPECT_FALSE(conv.graph->executing());
    EXPECT_NE(conv.graph->getOperand(0)->getData().status, Status::SUCCESS) << "buffers unbound after the run";

    const int graphId = zelsim::lastGraphId();
    created.executor->release();
    EXPECT_FALSE(zelsim::graphExists(graphId)) << "releasing the executor tears its runtime graph down";
}

TEST_F(PluginEndToEnd, WrongRuntimeVersionIsUnavailable) {
    SmallConv conv;
    Accelerator accelerator;
    zelsim::setVersion(kWrongVersion);
    zeltest::LogCapture log;
    const CreateExecutorResult created = accelerator->createGraphExecutor(conv.graph.get(), nullptr);
    EXPECT_EQ(created.status, Status::ACCELERATOR_UNAVAILABLE);
    EXPECT_EQ(created.executor, nullptr);
    EXPECT_EQ(log.count("In ZelAccelerator::createGraphExecutor()"), 1u);
    EXPECT_EQ(log.count("In ZelExecutor::create()"), 0u);
    EXPECT_EQ(log.count("Out ZelAccelerator::createGraphExecutor()"), 0u);
    EXPECT_EQ(zelsim::callCount("init"), 0);
}

TEST_F(PluginEndToEnd, PreparationFailureOnAHealthyRuntimeIsStatusOne) {
    SmallConv conv;
    Accelerator accelerator;
    zelsim::failCall("prepare", 1, -1);
    zeltest::LogCapture log;
    const CreateExecutorResult created = accelerator->createGraphExecutor(conv.graph.get(), nullptr);
    EXPECT_EQ(created.status, Status::GENERAL_FAILURE);
    EXPECT_EQ(created.executor, nullptr);
    EXPECT_EQ(log.count("Out ZelExecutor::create()"), 1u);
    EXPECT_EQ(log.count("Out ZelAccelerator::createGraphExecutor()"), 1u);
    EXPECT_EQ(zelsim::liveGraphs(), 0) << "the failed graph is torn down";
}

class ExecuteFaults : public PluginEndToEnd {
protected:
    void SetUp() override {
        PluginEndToEnd::SetUp();
        HostExecutorContext context;
        const CreateExecutorResult created = mAccelerator->createGraphExecutor(mConv.graph.get(), &context);
        ASSERT_EQ(created.status, Status::SUCCESS);
        mExecutor = created.executor;
    }
    void TearDown() override {
        if (mExecutor) mExecutor->release();
        PluginEndToEnd::TearDown();
    }
    SmallConv mConv;
    Accelerator mAccelerator;
    IGraphExecutor* mExecutor = nullptr;
    std::vector<uint8_t> mOutput;
};

TEST_F(ExecuteFaults, RuntimeGoneBeforeTheCall) {
    zelsim::setVersion(kWrongVersion);
    zeltest::LogCapture log;
    EXPECT_EQ(mConv.run(*mExecutor, mOutput), Status::ACCELERATOR_UNAVAILABLE);
    EXPECT_EQ(log.count("In ZelExecutor::execute()"), 1u);
    EXPECT_EQ(log.count("Out ZelExecutor::execute()"), 0u);
    EXPECT_EQ(log.errors(), std::vector<std::string>{});
    EXPECT_EQ(zelsim::callCount("execute_new"), 0);
}

TEST_F(ExecuteFaults, RuntimeGoneDuringTheCall) {
    zelsim::failCall("execute_new", 1, -1);
    zelsim::failCall("version", 2, -1);  // the probe after the failed execution
    zeltest::LogCapture log;
    EXPECT_EQ(mConv.run(*mExecutor, mOutput), Status::ACCELERATOR_UNAVAILABLE);
    ASSERT_EQ(log.errors().size(), 1u);
    const std::string error = log.errors().front();
    const std::string ending = "model->execute(mGraph) failed, error code: 7";
    EXPECT_EQ(error.substr(error.size() - std::min(error.size(), ending.size())), ending) << error;
    EXPECT_EQ(log.count("model->execute(mGraph) finished."), 0u);
    EXPECT_EQ(log.count("Out ZelExecutor::execute()"), 1u);
}

TEST_F(ExecuteFaults, FailureOnAHealthyRuntimeIsStatusOne) {
    zelsim::failCall("execute_new", 1, -1);
    zeltest::LogCapture log;
    EXPECT_EQ(mConv.run(*mExecutor, mOutput), Status::GENERAL_FAILURE);
    EXPECT_EQ(log.count("model->execute(mGraph) finished."), 1u);
    EXPECT_EQ(log.count("Out ZelExecutor::execute()"), 1u);
    // The executor stays usable.
    EXPECT_EQ(mConv.run(*mExecutor, mOutput), Status::SUCCESS);
}

TEST_F(PluginEndToEnd, AcceleratorReleaseReloadsTheRuntimeUnderALivingExecutor) {
    SmallConv conv;
    Accelerator first;
    HostExecutorContext context;
    const CreateExecutorResult created = first->createGraphExecutor(conv.graph.get(), &context);
    ASSERT_EQ(created.status, Status::SUCCESS);
    const int configCalls = zelsim::callCount("config");
    first.releaseNow();
    EXPECT_EQ(zelsim::callCount("config"), configCalls + 1) << "the runtime was opened and configured again";

    // The old executor keeps its emptied binding: a failure, never a crash.
    std::vector<uint8_t> output;
    const Status status = conv.run(*created.executor, output);
    EXPECT_TRUE(status == Status::GENERAL_FAILURE || status == Status::ACCELERATOR_UNAVAILABLE)
        << static_cast<int>(status);
    created.executor->release();

    // A new accelerator works on the reloaded runtime.
    Accelerator second;
    const CreateExecutorResult again = second->createGraphExecutor(conv.graph.get(), &context);
    ASSERT_EQ(again.status, Status::SUCCESS);
    EXPECT_EQ(conv.run(*again.executor, output), Status::SUCCESS);
    again.executor->release();
}

TEST_F(PluginEndToEnd, BundledDemoModelPasses) {
    Accelerator accelerator;
    const CaseResult result = runCase(*accelerator, ZEL_EXAMPLES_DIR "/demo_model.json");
    EXPECT_EQ(result.result, CaseClass::Pass) << result.reason;
}

TEST_F(PluginEndToEnd, ConformanceCasesAreClassified) {
    Accelerator accelerator;
    const std::string dir = ZEL_CONFORMANCE_DIR;
    CaseResult result = runCase(*accelerator, dir + "/quant8/conv_quant8.json");
    EXPECT_EQ(result.result, CaseClass::Pass) << result.reason;
    result = runCase(*accelerator, dir + "/float32/add.json");
    EXPECT_EQ(result.result, CaseClass::Declined);
    EXPECT_EQ(result.reason, "operation 0 ADD: not supported");
    zelsim::failCall("prepare", 1, -1);
    result = runCase(*accelerator, dir + "/quant8/conv_quant8.json");
    EXPECT_EQ(result.result, CaseClass::Refused) << result.reason;
    zelsim::setVersion(kWrongVersion);
    result = runCase(*accelerator, dir + "/quant8/conv_quant8.json");
    EXPECT_EQ(result.result, CaseClass::Error);
    EXPECT_EQ(result.reason, "createGraphExecutor returned status 7");
    result = runCase(*accelerator, dir + "/no_such_case.json");
    EXPECT_EQ(result.result, CaseClass::Error);
}

// ---- loader errors --------------------------------------------------------------

TEST(PluginLoaderErrors, MissingLibrary) {
    PluginLoader loader;
    const std::string error = loader.load("/nonexistent/ravine-acc-zel.so");
    EXPECT_EQ(error.rfind("cannot load plug-in /nonexistent/ravine-acc-zel.so: ", 0), 0u) << error;
    std::string why;
    EXPECT_EQ(loader.createAccelerator(&why), nullptr);
    EXPECT_EQ(why, "no plug-in loaded");
}

TEST(PluginLoaderErrors, MissingRuntime) {
    PluginLoader loader;
    const std::string error = loader.load(ZEL_PLUGIN_PATH, "/nonexistent/libzel_kestrel_runtime.so");
    EXPECT_EQ(error.rfind("cannot load runtime /nonexistent/libzel_kestrel_runtime.so: ", 0), 0u) << error;
    EXPECT_EQ(loader.pluginHandle(), nullptr);
}

TEST(PluginLoaderErrors, LibraryWithoutTheFactory) {
    PluginLoader loader;
    const std::string error = loader.load(ZEL_RUNTIME_PATH);
    EXPECT_NE(error.find("does not export CreateAccelerator_zel"), std::string::npos) << error;
    EXPECT_EQ(loader.pluginHandle(), nullptr);
}

}  // namespace
