// The accelerator and the executor as classes, on the simulator: support
// answers, executor creation and the execute paths with their statuses and
// log lines. Identity and the built library are covered through dlopen in
// tests/frontend.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "foundation_support.h"
#include "log_capture.h"
#include "zel_accelerator.h"
#include "zel_test_peers.h"
#include "zel_utils.h"
#include "zelhost/execution.h"
#include "zelhost/host_graph.h"
#include "zelsim/control.h"

namespace zel = arv::nnhal::zel;
using arv::nnhal::AcceleratorCapability;
using arv::nnhal::CreateExecutorResult;
using arv::nnhal::ExecuteResult;
using arv::nnhal::ExecutionPerformance;
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

// Simulator faults of one case: the nth call of an entry point fails.
struct Fault {
    const char* entry;
    unsigned nth;
};
const int kWrongVersion = 0x20101;

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
    static void inject(const std::vector<Fault>& faults, bool wrongVersion) {
        for (const Fault& f : faults) zelsim::failCall(f.entry, f.nth, -1);
        if (wrongVersion) zelsim::setVersion(kWrongVersion);
    }

    HostAcceleratorContext mContext;
    ZelAccelerator mAccelerator{&mContext};
};

TEST_F(FrontEnd, OnlyTheQuantizedCapabilitiesAreClaimed) {
    for (int32_t value : {-1, 0, 1, 2, 3, 4, 7, 1000}) {
        EXPECT_EQ(mAccelerator.getCapability(static_cast<AcceleratorCapability>(value)), value == 2 || value == 3)
            << value;
    }
}

// --- support query -------------------------------------------------------------

TEST_F(FrontEnd, SupportQueryOfAnEmptyGraph) {
    HostGraph graph;
    HostSupportQuery query(0);
    zeltest::LogCapture log;
    mAccelerator.isGraphSupported(&graph, &query);
    EXPECT_EQ(query.calls(), 0u);
    EXPECT_EQ(log.count("Total number of operations: 0"), 1u);
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

TEST_F(FrontEnd, CreateGivesAPreparedExecutorThatReleaseTearsDown) {
    ReluGraph relu;
    HostExecutorContext context(ExecutionPerformance::LOW_POWER);
    zeltest::LogCapture log;
    const CreateExecutorResult result = mAccelerator.createGraphExecutor(&relu.graph, &context);
    ASSERT_EQ(result.status, Status::SUCCESS);
    ASSERT_NE(result.executor, nullptr);
    auto* executor = static_cast<ZelExecutor*>(result.executor);
    EXPECT_EQ(peer(executor).performance(), ExecutionPerformance::LOW_POWER);
    const int graphId = zelsim::lastGraphId();
    EXPECT_EQ(static_cast<int>(peer(executor).graphId()), graphId);
    EXPECT_TRUE(zelsim::graphPrepared(graphId));
    EXPECT_EQ(withoutWorkerLines(log.texts()).back(), "Out ZelAccelerator::createGraphExecutor()");
    result.executor->release();
    EXPECT_FALSE(zelsim::graphExists(graphId));

    ZelExecutor* noContext = ZelExecutor::create(&relu.graph, nullptr);
    ASSERT_NE(noContext, nullptr);
    EXPECT_EQ(peer(noContext).performance(), ExecutionPerformance::SUSTAINED_SPEED);
    noContext->release();
}

struct CreateCase {
    const char* name;
    std::vector<Fault> faults;
    bool wrongVersion;
    Status status;
    size_t executorCreates;  // "Out ZelExecutor::create()" lines
    bool outLine;            // "Out ZelAccelerator::createGraphExecutor()" logged
};

class CreateFailure : public FrontEnd, public testing::WithParamInterface<CreateCase> {};

TEST_P(CreateFailure, GivesItsStatusWithoutAnExecutor) {
    const CreateCase& c = GetParam();
    inject(c.faults, c.wrongVersion);
    ReluGraph relu;
    zeltest::LogCapture log;
    const CreateExecutorResult result = mAccelerator.createGraphExecutor(&relu.graph, nullptr);
    EXPECT_EQ(result.status, c.status);
    EXPECT_EQ(result.executor, nullptr);
    EXPECT_EQ(log.count("Out ZelExecutor::create()"), c.executorCreates);
    EXPECT_EQ(log.count("Out ZelAccelerator::createGraphExecutor()"), c.outLine ? 1u : 0u);
    EXPECT_EQ(log.count("In Controller::heartBeat()"), c.executorCreates + 1) << "probed again after a failure";
    EXPECT_EQ(zelsim::callCount("init") > 0, c.executorCreates > 0);
    EXPECT_EQ(zelsim::liveGraphs(), 0) << "a failed graph is torn down";
}

INSTANTIATE_TEST_SUITE_P(Faults, CreateFailure,
                         testing::Values(
                             // Unavailable before the build: nothing reaches the runtime.
                             CreateCase{"RuntimeUnavailable", {}, true, Status::ACCELERATOR_UNAVAILABLE, 0, false},
                             // Refused on a healthy runtime (probed again after the failure).
                             CreateCase{"PrepareRefused", {{"prepare", 1}}, false, Status::GENERAL_FAILURE, 1, true},
                             CreateCase{"RuntimeLostDuringTheBuild",
                                        {{"prepare", 1}, {"version", 2}},
                                        false,
                                        Status::ACCELERATOR_UNAVAILABLE,
                                        1,
                                        false}),
                         [](const testing::TestParamInfo<CreateCase>& info) { return std::string(info.param.name); });

// --- execution -------------------------------------------------------------------------

struct ExecuteCase {
    const char* name;
    std::vector<Fault> faults;
    bool wrongVersion;
    Status status;
    std::vector<std::string> lines;  // the executor's own lines
};

class WithExecutor : public FrontEnd {
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

    ReluGraph mRelu;
    ZelExecutor* mExecutor = nullptr;
};

class Execution : public WithExecutor, public testing::WithParamInterface<ExecuteCase> {};

TEST_P(Execution, ReportsItsStatusAndLines) {
    const ExecuteCase& c = GetParam();
    inject(c.faults, c.wrongVersion);
    zeltest::LogCapture log;
    std::vector<uint8_t> output;
    const ExecuteResult result = mRelu.run(*mExecutor, &output);
    EXPECT_EQ(result.status, c.status);
    EXPECT_EQ(result.reserved, 0);
    std::vector<std::string> lines;
    for (const auto& text : log.texts()) {
        if (text.find("ZelExecutor::execute()") != std::string::npos || text.rfind("model->execute(mGraph)", 0) == 0) {
            lines.push_back(text);
        }
    }
    EXPECT_EQ(lines, c.lines);
    const bool failed = c.lines.size() > 1 && c.lines[1] != "model->execute(mGraph) finished.";
    EXPECT_EQ(log.errors(), failed ? std::vector<std::string>{c.lines[1]} : std::vector<std::string>{});
    if (c.status == Status::SUCCESS) {
        EXPECT_THAT(output, ElementsAre(10, 10, 10, 200)) << "RELU at zero point 10";
    }
    if (c.status == Status::GENERAL_FAILURE) {
        EXPECT_EQ(mRelu.run(*mExecutor).status, Status::SUCCESS) << "the executor keeps working";
    }
}

const std::vector<std::string> kFinished = {"In ZelExecutor::execute()", "model->execute(mGraph) finished.",
                                            "Out ZelExecutor::execute()"};

INSTANTIATE_TEST_SUITE_P(
    Faults, Execution,
    testing::Values(
        ExecuteCase{"Success", {}, false, Status::SUCCESS, kFinished},
        ExecuteCase{
            "RuntimeGoneBeforeTheCall", {}, true, Status::ACCELERATOR_UNAVAILABLE, {"In ZelExecutor::execute()"}},
        // A failure on a healthy runtime still says "finished".
        ExecuteCase{"FailureOnAHealthyRuntime", {{"execute_new", 1}}, false, Status::GENERAL_FAILURE, kFinished},
        ExecuteCase{"RuntimeGoneAfterTheFailure",
                    {{"execute_new", 1}, {"version", 2}},
                    false,
                    Status::ACCELERATOR_UNAVAILABLE,
                    {"In ZelExecutor::execute()", "model->execute(mGraph) failed, error code: 7",
                     "Out ZelExecutor::execute()"}}),
    [](const testing::TestParamInfo<ExecuteCase>& info) { return std::string(info.param.name); });

TEST_F(WithExecutor, ExecutorBuiltBeforeAResetReportsFailure) {
    ASSERT_TRUE(Controller::getInstance()->resetNnLib());
    // The new binding is healthy; the executor's model still holds the old,
    // emptied one.
    EXPECT_EQ(mRelu.run(*mExecutor).status, Status::GENERAL_FAILURE);
}

}  // namespace
