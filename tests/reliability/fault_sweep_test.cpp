// Injected runtime faults: every runtime call that building an executor
// makes is failed in turn, then execution faults and a runtime that goes
// away between calls. Each case must end with the right status, its
// runtime graph torn down exactly once, the model's power votes paired and
// its voting token given back.
//
// The voting clock is frozen: up votes are handled at once while down votes
// and token releases stay queued, so both can be counted after each case.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "log_capture.h"
#include "reliability_support.h"
#include "zel_test_peers.h"
#include "zelhost/model_zoo.h"
#include "zelsim/control.h"

using namespace arv::nnhal;
using namespace arv::nnhal::host;
using reltest::VotingThread;

namespace {

class FrozenVotingClock : public ::testing::Environment {
public:
    void SetUp() override { reltest::useFrozenVotingClock(); }
};
::testing::Environment* const kFrozenVotingClock = ::testing::AddGlobalTestEnvironment(new FrozenVotingClock);

constexpr int kFault = 5;  // the code a failed call returns
constexpr int kWrongVersion = 0x20101;

// Every runtime entry point that building an executor calls.
const std::vector<std::string> kBuildEntries = {
    "init", "set_config_params", "set_debug_level", "append_const_node", "append_node", "prepare"};

// Votes and tokens of the one model a case builds, read from a fresh
// runtime binding whose voting clock does not move.
class VoteLedger {
public:
    VoteLedger() : mLib(reltest::freshRuntime()), mVotes(peer(mLib).votingThread()) {
        // Tokens are handed out one after the other in the process: the
        // next model's is the one after this probe.
        mModelToken = mLib->generateVotingToken() + 1;
    }
    // Up votes the model holds (all up votes are handled without delay).
    int64_t ups() {
        EXPECT_TRUE(reltest::waitFor([this] { return peer(mVotes).queuedCount(VotingThread::Message::UP_VOTE) == 0; }));
        return peer(mVotes).tokenCount(mModelToken);
    }
    // Down votes queued (they wait for the frozen clock).
    size_t downs() { return peer(mVotes).queuedCount(VotingThread::Message::DOWN_VOTE); }
    size_t tokenReleases() { return peer(mVotes).queuedCount(VotingThread::Message::TOKEN_RELEASE); }

private:
    std::shared_ptr<reltest::NnLib> mLib;
    VotingThread* mVotes;
    uint64_t mModelToken = 0;
};

std::map<std::string, int> buildCallCounts() {
    std::map<std::string, int> counts;
    for (const std::string& entry : kBuildEntries) counts[entry] = zelsim::callCount(entry);
    return counts;
}

struct SweepTotals {
    int cases = 0;
    std::map<std::string, int> perEntry;
};

// Fails call `nth` of `entry` while an executor of `graph` is built.
// `runtimeDies`: the runtime also stops answering its version call right
// after the fault, so the accelerator must report it unavailable.
void buildWithFault(IAccelerator& accelerator, IGraph& graph, const std::string& entry, int nth, bool runtimeDies) {
    SCOPED_TRACE(entry + " call " + std::to_string(nth) + (runtimeDies ? ", runtime gone" : ""));
    zelsim::reset();
    VoteLedger votes;
    zelsim::failCall(entry, static_cast<unsigned>(nth), kFault);
    // The first version call is the probe before the build, the second the
    // one after a failed build.
    if (runtimeDies) zelsim::failCall("version", 2, kWrongVersion);

    zeltest::LogCapture logs;
    HostExecutorContext context;
    const CreateExecutorResult created = accelerator.createGraphExecutor(&graph, &context);
    EXPECT_EQ(static_cast<int>(created.status), runtimeDies ? 7 : 1);
    EXPECT_EQ(created.executor, nullptr);
    EXPECT_EQ(logs.count("Out ZelAccelerator::createGraphExecutor()"), runtimeDies ? 0u : 1u);

    // The fault ended the build: nothing was prepared after it.
    EXPECT_GE(zelsim::callCount(entry), nth);
    if (entry != "prepare") {
        EXPECT_EQ(zelsim::callCount("prepare"), 0);
    }

    // The runtime graph, when one was obtained, is torn down exactly once
    // (a second teardown of the same id is refused by the runtime).
    const int graphId = zelsim::lastGraphId();
    EXPECT_EQ(zelsim::liveGraphs(), 0);
    EXPECT_EQ(reltest::successfulTeardowns(graphId), graphId != 0 ? 1 : 0);

    // The diagnosis of the failure.
    const bool appending = entry == "append_const_node" || entry == "append_node";
    const size_t cleared = logs.count("Something went wrong. Clearing the model and aborting.");
    EXPECT_EQ(cleared, appending ? 1u : 0u);
    const std::map<std::string, std::string> diagnosis = {
        {"init", "failed 0 == mModelPrepareErrorCode (0 == 5): Zel could not allocate new graph"},
        {"set_config_params", "(0 == 5): mNnLib->set_config_params() failed"},
        {"set_debug_level", "(0 == 5): mNnLib->set_debug_level() failed"},
        {"prepare", "mNnLib->prepare() finished, error code: 5"},
    };
    if (diagnosis.count(entry) != 0) {
        EXPECT_EQ(logs.countContaining(diagnosis.at(entry)), 1u);
    }

    // Votes: one up vote once nodes were being appended, matched by one down
    // vote, plus the down vote of every clearing of the model (the failed
    // build's and the destructor's). The token is given back once.
    const int64_t ups = votes.ups();
    EXPECT_EQ(ups, appending || entry == "prepare" ? 1 : 0);
    EXPECT_EQ(votes.downs(), static_cast<size_t>(ups) + cleared + 1);
    EXPECT_EQ(votes.tokenReleases(), 1u);
}

SweepTotals sweep(IAccelerator& accelerator, IGraph& graph, bool runtimeDies) {
    // A clean build first: how many calls of each entry point it makes.
    zelsim::reset();
    HostExecutorContext context;
    const CreateExecutorResult clean = accelerator.createGraphExecutor(&graph, &context);
    EXPECT_EQ(clean.status, Status::SUCCESS);
    const std::map<std::string, int> counts = buildCallCounts();
    if (clean.executor != nullptr) clean.executor->release();

    SweepTotals totals;
    for (const auto& [entry, count] : counts) {
        EXPECT_GT(count, 0) << entry;
        for (int nth = 1; nth <= count; ++nth) {
            buildWithFault(accelerator, graph, entry, nth, runtimeDies);
            ++totals.cases;
            ++totals.perEntry[entry];
            if (::testing::Test::HasFailure()) return totals;  // one broken case is enough to read
        }
    }
    return totals;
}

void report(const char* what, const SweepTotals& totals) {
    std::string text = std::string(what) + ": " + std::to_string(totals.cases) + " cases (";
    for (const auto& [entry, count] : totals.perEntry) text += entry + " " + std::to_string(count) + ", ";
    text.resize(text.size() - 2);
    std::printf("%s)\n", text.c_str());
}

TEST(FaultSweep, EveryBuildCallOfTheDemoModelFails) {
    reltest::Accelerator accelerator;
    LoadedModel model = reltest::loadDemoModel();
    ASSERT_TRUE(model.graph);
    const SweepTotals totals = sweep(*accelerator, *model.graph, false);
    report("demo model", totals);
    EXPECT_GT(totals.perEntry.at("append_node"), 8);
}

TEST(FaultSweep, EveryBuildCallOfTheDemoModelFailsAndTheRuntimeDies) {
    reltest::Accelerator accelerator;
    LoadedModel model = reltest::loadDemoModel();
    ASSERT_TRUE(model.graph);
    const SweepTotals totals = sweep(*accelerator, *model.graph, true);
    report("demo model, runtime gone after the fault", totals);
    EXPECT_GT(totals.cases, 0);
}

TEST(FaultSweep, EveryBuildCallOfAMobileNetFails) {
    reltest::Accelerator accelerator;
    MobileNetOptions options;
    options.inputSize = 32;
    options.classes = 16;
    auto graph = makeMobileNet(options);
    const SweepTotals totals = sweep(*accelerator, *graph, false);
    report("MobileNet 32x32", totals);
    EXPECT_GT(totals.perEntry.at("append_node"), 100);
}

// --- execution ------------------------------------------------------------

// A prepared executor of the demo model and its expected outputs.
class ExecutionFaults : public ::testing::Test {
protected:
    void SetUp() override {
        zelsim::reset();
        mModel = reltest::loadDemoModel();
        ASSERT_TRUE(mModel.graph);
        mVotes = std::make_unique<VoteLedger>();
        HostExecutorContext context;
        const CreateExecutorResult created = mAccelerator->createGraphExecutor(mModel.graph.get(), &context);
        ASSERT_EQ(created.status, Status::SUCCESS);
        mExecutor = created.executor;
        mGraphId = zelsim::lastGraphId();
    }
    void TearDown() override {
        if (mExecutor != nullptr) mExecutor->release();
    }

    // Executes once; true when the outputs match the model's expected values.
    Status execute(bool* matched = nullptr) {
        IoBuffers buffers = makeBuffers(mModel);
        const Status status = executeBound(*mModel.graph, *mExecutor, buffers).status;
        if (matched != nullptr) *matched = compareOutputs(mModel, buffers.outputs).matched();
        return status;
    }

    void releaseExecutor() {
        mExecutor->release();
        mExecutor = nullptr;
    }

    reltest::Accelerator mAccelerator;
    LoadedModel mModel;
    std::unique_ptr<VoteLedger> mVotes;
    IGraphExecutor* mExecutor = nullptr;
    int mGraphId = 0;
};

TEST_F(ExecutionFaults, AFailedExecutionIsReportedAndTheNextOneRuns) {
    zeltest::LogCapture logs;
    zelsim::failCall("execute_new", 1, kFault);
    EXPECT_EQ(execute(), Status::GENERAL_FAILURE);
    EXPECT_EQ(logs.count("ZelModel::execute was UNSUCCESSFUL"), 1u);
    EXPECT_EQ(logs.count("model->execute(mGraph) finished."), 1u);
    bool matched = false;
    EXPECT_EQ(execute(&matched), Status::SUCCESS);
    EXPECT_TRUE(matched);

    // Prepare and two executions: three up votes, three down votes.
    EXPECT_EQ(mVotes->ups(), 3);
    EXPECT_EQ(mVotes->downs(), 3u);
    releaseExecutor();
    EXPECT_EQ(mVotes->downs(), 4u);  // the destructor's clearing
    EXPECT_EQ(mVotes->tokenReleases(), 1u);
    EXPECT_EQ(reltest::successfulTeardowns(mGraphId), 1);
    EXPECT_EQ(zelsim::liveGraphs(), 0);
}

TEST_F(ExecutionFaults, RuntimeGoneBeforeTheExecution) {
    zeltest::LogCapture logs;
    zelsim::failCall("version", 1, kWrongVersion);
    EXPECT_EQ(execute(), Status::ACCELERATOR_UNAVAILABLE);
    EXPECT_EQ(zelsim::callCount("execute_new"), 0);
    EXPECT_EQ(logs.count("Out ZelExecutor::execute()"), 0u);
    // Back again: the executor was not harmed.
    bool matched = false;
    EXPECT_EQ(execute(&matched), Status::SUCCESS);
    EXPECT_TRUE(matched);
    EXPECT_EQ(mVotes->ups(), 2);  // prepare and the one execution that ran
    EXPECT_EQ(mVotes->downs(), 2u);
}

TEST_F(ExecutionFaults, RuntimeGoneDuringTheExecution) {
    zeltest::LogCapture logs;
    zelsim::failCall("execute_new", 1, kFault);
    zelsim::failCall("version", 2, kWrongVersion);
    EXPECT_EQ(execute(), Status::ACCELERATOR_UNAVAILABLE);
    ASSERT_EQ(logs.errors().size(), 1u);
    EXPECT_EQ(logs.errors()[0], "model->execute(mGraph) failed, error code: 7");
    EXPECT_EQ(mVotes->ups(), 2);
    EXPECT_EQ(mVotes->downs(), 2u);
    releaseExecutor();
    EXPECT_EQ(reltest::successfulTeardowns(mGraphId), 1);
}

TEST_F(ExecutionFaults, RuntimeReloadedUnderALivingExecutor) {
    // The host releases another accelerator: the runtime is closed and
    // opened again. The executor's model keeps its old, now empty binding.
    const int before = zelsim::callCount("execute_new");
    reltest::freshRuntime();
    zeltest::LogCapture logs;
    EXPECT_EQ(execute(), Status::GENERAL_FAILURE);
    EXPECT_EQ(logs.count("ZelModel::execute was UNSUCCESSFUL"), 1u);
    EXPECT_EQ(zelsim::callCount("execute_new"), before);
    releaseExecutor();
    // Its teardown cannot reach the runtime through the empty binding; on a
    // device the closed runtime took its graphs with it.
    EXPECT_EQ(zelsim::callCount("teardown"), 0);
    zelsim::reset();
}

}  // namespace
