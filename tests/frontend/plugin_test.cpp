// End to end through the built plug-in library: loaded with dlopen by the
// host's plug-in loader, driven through the host interfaces only, running
// on the runtime simulator (linked here for its control API; the plug-in's
// own dlopen of the runtime finds this same loaded copy).
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "loaded_plugin.h"
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
}  // namespace nnhal
}  // namespace arv

using namespace arv::nnhal;
using namespace arv::nnhal::host;

namespace {

// An accelerator released at the end of the scope.
class Accelerator {
public:
    Accelerator() : mAccelerator(zeltest::loadedPlugin().createAccelerator()) {}
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
        ASSERT_NE(zeltest::loadedPlugin().pluginHandle(), nullptr);
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

// ---- loader errors --------------------------------------------------------------

// A library that loads but has no entry point is not kept loaded. What
// zelrun says for each failed load is a command-line case.
TEST(PluginLoaderErrors, RefusedLoadLeavesNothingLoaded) {
    PluginLoader loader;
    EXPECT_NE(loader.load(ZEL_RUNTIME_PATH, "").find("does not export CreateAccelerator_zel"), std::string::npos);
    EXPECT_EQ(loader.pluginHandle(), nullptr);
    std::string why;
    EXPECT_EQ(loader.createAccelerator(&why), nullptr);
    EXPECT_EQ(why, "no plug-in loaded");
}

}  // namespace
