// End to end through the built plug-in library: loaded with dlopen by the
// host's plug-in loader, driven through the host interfaces only, running
// on the runtime simulator (linked here for its control API; the plug-in's
// own dlopen of the runtime finds this same loaded copy).
#include <gtest/gtest.h>

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
void PrintTo(Status status, std::ostream* out) {
    *out << "status " << static_cast<int32_t>(status);
}
namespace host {
void PrintTo(CaseClass value, std::ostream* out) {
    *out << caseClassName(value);
}
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

// The convolution of the conformance set: known outputs for its own input
// and for an input of all 2s (real 1 everywhere: every output 4 + 1).
struct ConvModel {
    LoadedModel model;
    ConvModel() { EXPECT_EQ(loadModelFile(ZEL_CONFORMANCE_DIR "/quant8/conv_quant8.json", model), ""); }
    HostGraph& graph() { return *model.graph; }

    // Runs `executor` on `input` (the file's input by default); returns the
    // status and fills `output`.
    Status run(IGraphExecutor& executor, std::vector<uint8_t>& output, std::vector<uint8_t> input = {}) {
        IoBuffers buffers;
        buffers.inputs = {input.empty() ? model.inputData[0] : input};
        buffers.outputs = {std::vector<uint8_t>(4, 0)};
        const ExecuteResult result = executeBound(graph(), executor, buffers);
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
    EXPECT_FALSE(accelerator->getCapability(AcceleratorCapability::FLOAT32));
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
    EXPECT_EQ(log.count("In ZelAccelerator::isGraphSupported()"), 1u);
    EXPECT_EQ(log.count("Total number of operations: 3"), 1u);
    EXPECT_EQ(log.count("operation id: 2"), 1u);
    EXPECT_EQ(log.count("Out ZelAccelerator::isGraphSupported()"), 1u);
    EXPECT_EQ(log.count("In isZelAvailable()"), 0u) << "a query does not probe the runtime";
    EXPECT_EQ(zelsim::callCount("init"), 0) << "a support query builds no runtime graph";
}

TEST_F(PluginEndToEnd, ExecutesAConvolution) {
    ConvModel conv;
    Accelerator accelerator;
    ASSERT_EQ(querySupport(*accelerator, conv.graph()), std::vector<int>{0});
    HostExecutorContext context;
    const CreateExecutorResult created = accelerator->createGraphExecutor(&conv.graph(), &context);
    ASSERT_EQ(created.status, Status::SUCCESS);
    ASSERT_NE(created.executor, nullptr);
    EXPECT_TRUE(zelsim::graphPrepared(zelsim::lastGraphId()));

    std::vector<uint8_t> output;
    ASSERT_EQ(conv.run(*created.executor, output), Status::SUCCESS);
    EXPECT_EQ(output, (std::vector<uint8_t>{15, 15, 15, 15}));
    // A second run on other input data gives the new result, not a cached one.
    ASSERT_EQ(conv.run(*created.executor, output, std::vector<uint8_t>(9, 2)), Status::SUCCESS);
    EXPECT_EQ(output, (std::vector<uint8_t>{5, 5, 5, 5}));
    EXPECT_FALSE(conv.graph().executing());
    EXPECT_NE(conv.graph().getOperand(0)->getData().status, Status::SUCCESS) << "buffers unbound after the run";

    const int graphId = zelsim::lastGraphId();
    created.executor->release();
    EXPECT_FALSE(zelsim::graphExists(graphId)) << "releasing the executor tears its runtime graph down";
}

TEST_F(PluginEndToEnd, AcceleratorReleaseReloadsTheRuntimeUnderALivingExecutor) {
    ConvModel conv;
    Accelerator first;
    HostExecutorContext context;
    const CreateExecutorResult created = first->createGraphExecutor(&conv.graph(), &context);
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
    const CreateExecutorResult again = second->createGraphExecutor(&conv.graph(), &context);
    ASSERT_EQ(again.status, Status::SUCCESS);
    EXPECT_EQ(conv.run(*again.executor, output), Status::SUCCESS);
    again.executor->release();
}

// Classification of whole cases (pass, declined, refused, FAIL) is covered
// through zelrun; here the bundled demo model and the error cases.
TEST_F(PluginEndToEnd, CasesAreClassified) {
    Accelerator accelerator;
    CaseResult result = runCase(*accelerator, ZEL_EXAMPLES_DIR "/demo_model.json");
    EXPECT_EQ(result.result, CaseClass::Pass) << result.reason;
    zelsim::setVersion(kWrongVersion);
    result = runCase(*accelerator, ZEL_CONFORMANCE_DIR "/quant8/conv_quant8.json");
    EXPECT_EQ(result.result, CaseClass::Error);
    EXPECT_EQ(result.reason, "createGraphExecutor returned status 7");
    result = runCase(*accelerator, ZEL_CONFORMANCE_DIR "/no_such_case.json");
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
