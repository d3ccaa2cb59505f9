// The accelerator and the executor as classes, on the simulator: identity,
// support answers, executor creation and the execute paths with their log
// lines.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "foundation_support.h"
#include "log_capture.h"
#include "zel_accelerator.h"
#include "zel_utils.h"
#include "zelhost/execution.h"
#include "zelhost/host_graph.h"
#include "zelsim/control.h"

namespace zel = arv::nnhal::zel;
using arv::nnhal::AcceleratorCapability;
using arv::nnhal::CreateExecutorResult;
using arv::nnhal::ExecuteResult;
using arv::nnhal::ExecutionPerformance;
using arv::nnhal::IAccelerator;
using arv::nnhal::OperationType;
using arv::nnhal::Status;
using arv::nnhal::host::HostAcceleratorContext;
using arv::nnhal::host::HostExecutorContext;
using arv::nnhal::host::HostGraph;
using arv::nnhal::host::HostSupportQuery;
using arv::nnhal::host::IoBuffers;
using arv::nnhal::host::Lifetime;
using foundation::withoutWorkerLines;
using testing::ElementsAre;
using testing::IsEmpty;
using zel::Controller;
using zel::ZelAccelerator;
using zel::ZelExecutor;

namespace {

// One quantized RELU on [1, 2, 2, 1]: the smallest graph the runtime runs.
struct ReluGraph {
    HostGraph graph;
    ReluGraph() {
        const uint32_t in = graph.addQuant8({1, 2, 2, 1}, 0.5f, 10, Lifetime::Input);
        const uint32_t out = graph.addQuant8({1, 2, 2, 1}, 0.5f, 10, Lifetime::Output);
        graph.addOperation(OperationType::RELU, {in}, {out});
        graph.setInputs({in});
        graph.setOutputs({out});
    }
    ExecuteResult run(ZelExecutor& executor, std::vector<uint8_t>* output = nullptr) {
        IoBuffers buffers;
        buffers.inputs = {{0, 9, 10, 200}};
        buffers.outputs = {std::vector<uint8_t>(4, 0xEE)};
        const ExecuteResult result = arv::nnhal::host::executeBound(graph, executor, buffers);
        if (output != nullptr) *output = buffers.outputs[0];
        return result;
    }
};

class FrontEnd : public testing::Test {
protected:
    void SetUp() override {
        zelsim::reset();
        Controller::getInstance()->resetNnLib();
    }
    void TearDown() override {
        zelsim::reset();
        Controller::getInstance()->resetNnLib();
    }

    HostAcceleratorContext mContext;
    ZelAccelerator mAccelerator{&mContext};
};

// --- identity ------------------------------------------------------------------

struct CapabilityCase {
    int32_t value;
    bool supported;
};

class Capability : public FrontEnd, public testing::WithParamInterface<CapabilityCase> {};

TEST_P(Capability, OnlyTheQuantizedCapabilitiesAreClaimed) {
    EXPECT_EQ(mAccelerator.getCapability(static_cast<AcceleratorCapability>(GetParam().value)), GetParam().supported);
}

INSTANTIATE_TEST_SUITE_P(Values, Capability,
                         testing::Values(CapabilityCase{0, false}, CapabilityCase{1, false}, CapabilityCase{2, true},
                                         CapabilityCase{3, true}, CapabilityCase{4, false},
                                         CapabilityCase{5, false}, CapabilityCase{6, false},
                                         CapabilityCase{7, false}, CapabilityCase{1000, false},
                                         CapabilityCase{-1, false}, CapabilityCase{-2, false}),
                         [](const testing::TestParamInfo<CapabilityCase>& info) {
                             return (info.param.value < 0 ? "minus" : "v") +
                                    std::to_string(info.param.value < 0 ? -info.param.value : info.param.value);
                         });

TEST_F(FrontEnd, IdentifierIsOneStablePointer) {
    const char* first = mAccelerator.getUniqueIdentifier();
    EXPECT_STREQ(first, "zel");
    EXPECT_EQ(mAccelerator.getUniqueIdentifier(), first);
    ZelAccelerator other(nullptr);
    EXPECT_EQ(other.getUniqueIdentifier(), first);
    EXPECT_EQ(mAccelerator.getVersion(), 0);
}

TEST_F(FrontEnd, FactoryGivesAnAcceleratorWhoseReleaseReloadsTheRuntime) {
    zeltest::LogCapture log;
    IAccelerator* accelerator = CreateAccelerator_zel(&mContext);
    ASSERT_NE(accelerator, nullptr);
    EXPECT_STREQ(accelerator->getUniqueIdentifier(), "zel");
    EXPECT_THAT(withoutWorkerLines(log.texts()), IsEmpty());  // creation touches nothing
    std::shared_ptr<zel::NnLib> before = Controller::getInstance()->getNnLib();
    accelerator->release();
    EXPECT_EQ(log.count("NnLib reset !!!"), 1u);
    EXPECT_FALSE(before->isLoaded());
    EXPECT_NE(Controller::getInstance()->getNnLib(), before);
    EXPECT_TRUE(zel::isZelAvailable());
}

// --- support query -------------------------------------------------------------

TEST_F(FrontEnd, SupportQueryOfAnEmptyGraph) {
    HostGraph graph;
    HostSupportQuery query(0);
    zeltest::LogCapture log;
    mAccelerator.isGraphSupported(&graph, &query);
    EXPECT_EQ(query.calls(), 0u);
    const auto texts = withoutWorkerLines(log.texts());
    ASSERT_FALSE(texts.empty());
    EXPECT_EQ(texts.front(), "In ZelAccelerator::isGraphSupported()");
    EXPECT_EQ(log.count("Total number of operations: 0"), 1u);
    EXPECT_EQ(texts.back(), "Out ZelAccelerator::isGraphSupported()");
    EXPECT_EQ(log.startingWith("In isZelAvailable()").size(), 0u);
}

TEST_F(FrontEnd, SupportQueryReportsEveryOperation) {
    ReluGraph relu;
    const uint32_t in = relu.graph.getInput(0);
    const uint32_t out2 = relu.graph.addQuant8({1, 2, 2, 1}, 0.5f, 10, Lifetime::Internal);
    relu.graph.addOperation(OperationType::LSH_PROJECTION, {in}, {out2});
    HostSupportQuery query(2);
    zeltest::LogCapture log;
    mAccelerator.isGraphSupported(&relu.graph, &query);
    EXPECT_THAT(query.levels(), ElementsAre(0, 1));
    EXPECT_EQ(log.count("Total number of operations: 2"), 1u);
    EXPECT_EQ(log.count("operation id: 0"), 1u);
    EXPECT_EQ(log.count("operation id: 1"), 1u);
    EXPECT_EQ(log.count("Out ZelAccelerator::isGraphSupported()"), 1u);
}

TEST_F(FrontEnd, SupportQueryOfAnUnreadableGraphAnswersNothing) {
    ReluGraph relu;
    relu.graph.nullOperation(0);
    HostSupportQuery query(1);
    zeltest::LogCapture log;
    mAccelerator.isGraphSupported(&relu.graph, &query);
    EXPECT_EQ(query.calls(), 0u);
    EXPECT_EQ(log.count("In ZelAccelerator::isGraphSupported()"), 1u);
    EXPECT_EQ(log.startingWith("Total number of operations").size(), 0u);
    EXPECT_EQ(log.count("Out ZelAccelerator::isGraphSupported()"), 0u);
}

// --- executor creation -----------------------------------------------------------

TEST_F(FrontEnd, CreateGivesAPreparedExecutor) {
    ReluGraph relu;
    HostExecutorContext context(ExecutionPerformance::LOW_POWER);
    zeltest::LogCapture log;
    const CreateExecutorResult result = mAccelerator.createGraphExecutor(&relu.graph, &context);
    ASSERT_EQ(result.status, Status::SUCCESS);
    ASSERT_NE(result.executor, nullptr);
    auto* executor = static_cast<ZelExecutor*>(result.executor);
    EXPECT_EQ(executor->performance(), ExecutionPerformance::LOW_POWER);
    EXPECT_NE(executor->graphId(), 0u);
    EXPECT_EQ(static_cast<int>(executor->graphId()), zelsim::lastGraphId());
    EXPECT_TRUE(zelsim::graphPrepared(zelsim::lastGraphId()));
    EXPECT_EQ(log.count("In ZelExecutor::create()"), 1u);
    EXPECT_EQ(log.count("Out ZelExecutor::create()"), 1u);
    EXPECT_EQ(withoutWorkerLines(log.texts()).back(), "Out ZelAccelerator::createGraphExecutor()");

    // Release tears the runtime graph down.
    const int graphId = zelsim::lastGraphId();
    result.executor->release();
    EXPECT_FALSE(zelsim::graphExists(graphId));
}

TEST_F(FrontEnd, CreateWithoutContextUsesSustainedSpeed) {
    ReluGraph relu;
    ZelExecutor* executor = ZelExecutor::create(&relu.graph, nullptr);
    ASSERT_NE(executor, nullptr);
    EXPECT_EQ(executor->performance(), ExecutionPerformance::SUSTAINED_SPEED);
    executor->release();
}

TEST_F(FrontEnd, UnavailableRuntimeGivesStatusSevenWithoutAnExecutor) {
    zelsim::setVersion(0x20101);
    ReluGraph relu;
    zeltest::LogCapture log;
    const CreateExecutorResult result = mAccelerator.createGraphExecutor(&relu.graph, nullptr);
    EXPECT_EQ(result.status, Status::ACCELERATOR_UNAVAILABLE);
    EXPECT_EQ(result.executor, nullptr);
    EXPECT_EQ(log.count("In ZelExecutor::create()"), 0u);
    EXPECT_EQ(log.count("Out ZelAccelerator::createGraphExecutor()"), 0u);
    EXPECT_EQ(zelsim::callCount("init"), 0);
}

TEST_F(FrontEnd, RefusedGraphOnAHealthyRuntimeGivesStatusOne) {
    zelsim::failCall("prepare", 1, -1);
    ReluGraph relu;
    zeltest::LogCapture log;
    const CreateExecutorResult result = mAccelerator.createGraphExecutor(&relu.graph, nullptr);
    EXPECT_EQ(result.status, Status::GENERAL_FAILURE);
    EXPECT_EQ(result.executor, nullptr);
    EXPECT_EQ(log.count("Out ZelExecutor::create()"), 1u);
    EXPECT_EQ(log.count("In Controller::heartBeat()"), 2u);  // probed again after the failure
    EXPECT_EQ(withoutWorkerLines(log.texts()).back(), "Out ZelAccelerator::createGraphExecutor()");
}

TEST_F(FrontEnd, RuntimeLostDuringTheBuildGivesStatusSeven) {
    zelsim::failCall("prepare", 1, -1);
    zelsim::failCall("version", 2, -1);  // the second probe
    ReluGraph relu;
    zeltest::LogCapture log;
    const CreateExecutorResult result = mAccelerator.createGraphExecutor(&relu.graph, nullptr);
    EXPECT_EQ(result.status, Status::ACCELERATOR_UNAVAILABLE);
    EXPECT_EQ(result.executor, nullptr);
    EXPECT_EQ(log.count("Out ZelExecutor::create()"), 1u);
    EXPECT_EQ(log.count("Out ZelAccelerator::createGraphExecutor()"), 0u);
}

// --- execution -------------------------------------------------------------------------

class Execution : public FrontEnd {
protected:
    void SetUp() override {
        FrontEnd::SetUp();
        mExecutor = ZelExecutor::create(&mRelu.graph, nullptr);
        ASSERT_NE(mExecutor, nullptr);
    }
    void TearDown() override {
        if (mExecutor != nullptr) mExecutor->release();
        FrontEnd::TearDown();
    }

    // The executor's own lines, without the probe's and the model's.
    std::vector<std::string> executorLines(const zeltest::LogCapture& log) {
        std::vector<std::string> kept;
        for (const auto& text : log.texts()) {
            if (text.find("ZelExecutor::execute()") != std::string::npos ||
                text.rfind("model->execute(mGraph)", 0) == 0) {
                kept.push_back(text);
            }
        }
        return kept;
    }

    ReluGraph mRelu;
    ZelExecutor* mExecutor = nullptr;
};

TEST_F(Execution, SuccessWritesTheOutputs) {
    zeltest::LogCapture log;
    std::vector<uint8_t> output;
    const ExecuteResult result = mRelu.run(*mExecutor, &output);
    EXPECT_EQ(result.status, Status::SUCCESS);
    EXPECT_EQ(result.reserved, 0);
    // RELU at zero point 10: values below it clamp to it.
    EXPECT_THAT(output, ElementsAre(10, 10, 10, 200));
    EXPECT_THAT(executorLines(log), ElementsAre("In ZelExecutor::execute()", "model->execute(mGraph) finished.",
                                                "Out ZelExecutor::execute()"));
    EXPECT_THAT(log.errors(), IsEmpty());
}

TEST_F(Execution, RuntimeGoneBeforeTheCall) {
    zelsim::setVersion(0x20101);
    zeltest::LogCapture log;
    const ExecuteResult result = mRelu.run(*mExecutor);
    EXPECT_EQ(result.status, Status::ACCELERATOR_UNAVAILABLE);
    EXPECT_EQ(result.reserved, 0);
    EXPECT_THAT(executorLines(log), ElementsAre("In ZelExecutor::execute()"));
    EXPECT_EQ(zelsim::callCount("execute_new"), 0);
    EXPECT_THAT(log.errors(), IsEmpty());
}

TEST_F(Execution, FailureWithAHealthyRuntimeStillSaysFinished) {
    zelsim::failCall("execute_new", 1, -1);
    zeltest::LogCapture log;
    const ExecuteResult result = mRelu.run(*mExecutor);
    EXPECT_EQ(result.status, Status::GENERAL_FAILURE);
    EXPECT_EQ(result.reserved, 0);
    EXPECT_THAT(executorLines(log), ElementsAre("In ZelExecutor::execute()", "model->execute(mGraph) finished.",
                                                "Out ZelExecutor::execute()"));
    EXPECT_EQ(log.count("In Controller::heartBeat()"), 2u);
    // The executor keeps working.
    EXPECT_EQ(mRelu.run(*mExecutor).status, Status::SUCCESS);
}

TEST_F(Execution, RuntimeGoneAfterTheFailure) {
    zelsim::failCall("execute_new", 1, -1);
    zelsim::failCall("version", 2, -1);  // the probe after the failed execution
    zeltest::LogCapture log;
    const ExecuteResult result = mRelu.run(*mExecutor);
    EXPECT_EQ(result.status, Status::ACCELERATOR_UNAVAILABLE);
    EXPECT_EQ(result.reserved, 0);
    EXPECT_THAT(executorLines(log), ElementsAre("In ZelExecutor::execute()",
                                                "model->execute(mGraph) failed, error code: 7",
                                                "Out ZelExecutor::execute()"));
    EXPECT_EQ(log.count("model->execute(mGraph) failed, error code: 7"), 1u);
    const auto errors = log.errors();
    ASSERT_FALSE(errors.empty());
    EXPECT_EQ(errors.back(), "model->execute(mGraph) failed, error code: 7");
}

TEST_F(Execution, ExecutorBuiltBeforeAResetReportsFailure) {
    ASSERT_TRUE(Controller::getInstance()->resetNnLib());
    // The new binding is healthy; the executor's model still holds the old,
    // emptied one.
    EXPECT_EQ(mRelu.run(*mExecutor).status, Status::GENERAL_FAILURE);
}

}  // namespace
