// Power voting thread. The queue runs on a manual clock, so due times are
// exact and nothing becomes due until a test moves the clock; the worker
// itself is real. The production delays (5 s release, 60 s timeout) are
// kept and only the clock is the test's.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "foundation_support.h"
#include "log_capture.h"
#include "zel_accelerator.h"
#include "zel_model.h"
#include "zel_test_peers.h"
#include "zelhost/host_graph.h"

namespace zel = arv::nnhal::zel;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;
using zel::NnLib;
using zel::VotingThread;

namespace {

using TimePoint = std::chrono::time_point<std::chrono::system_clock, microseconds>;

class ManualClock {
public:
    TimePoint now() const { return TimePoint(microseconds(mMicros.load())); }
    void advance(microseconds step) { mMicros += step.count(); }

private:
    std::atomic<int64_t> mMicros{int64_t{1000000000} * 1000000};
};

const std::string kPowerSaveFailure = "Kestrel failed to set power save level";

class Voting : public testing::Test {
protected:
    Voting() {
        VotingThread::Delays delays;  // production delays, test clock
        delays.clock = [this] { return mClock.now(); };
        mLib = std::make_unique<NnLib>(delays);
    }

    void TearDown() override {
        // Every applied vote ends in the power-save failure line.
        // (Any thread's votes: a test may replace the binding.)
        const auto debugs = mLog.debugs();
        size_t applied = 0;
        for (size_t i = 0; i < debugs.size(); ++i) {
            if (debugs[i].rfind("Voting ", 0) == 0 && debugs[i].rfind("Voting message", 0) != 0) {
                ++applied;
                ASSERT_LT(i + 1, debugs.size()) << debugs[i];
                EXPECT_EQ(debugs[i + 1], kPowerSaveFailure) << "after " << debugs[i];
            }
        }
        EXPECT_EQ(mLog.count(kPowerSaveFailure), applied);
    }

    VotingThread* thread() { return peer(mLib).votingThread(); }

    // "Voting <level> <address of the thread>".
    std::string voteLine(VotingThread::VoteType level) {
        std::ostringstream os;
        os << "Voting " << static_cast<uint32_t>(level) << " " << static_cast<const void*>(thread());
        return os.str();
    }
    size_t votes(VotingThread::VoteType level) { return mLog.count(voteLine(level)); }

    // Returns once every message due by now has been handled: an up vote of
    // a token that does not exist is due at once and handled after
    // everything due no later than it.
    void settle() {
        ++mMarkers;
        ASSERT_TRUE(peer(mLib).votingThread()->enqueueVote(UINT64_MAX - mMarkers, VotingThread::UP));
        ASSERT_TRUE(foundation::waitFor([&] { return mLog.count("Voting message not handled: 0") == mMarkers; }));
    }

    void advance(microseconds step) {
        mClock.advance(step);
        settle();
    }

    void voteAndSettle(uint64_t token, VotingThread::VoteType type) {
        mLib->asyncVote(token, type);
        settle();
    }

    ManualClock mClock;
    zeltest::LogCapture mLog;
    std::unique_ptr<NnLib> mLib;
    size_t mMarkers = 0;
};

TEST_F(Voting, DownVoteIsAppliedAfterTheReleaseDelay) {
    const uint64_t a = mLib->generateVotingToken();
    voteAndSettle(a, VotingThread::UP);
    mLib->asyncVote(a, VotingThread::DOWN);

    advance(seconds(5) - microseconds(1));
    EXPECT_EQ(peer(thread()).tokenCount(a), 1);
    EXPECT_EQ(votes(VotingThread::DOWN), 0u);

    advance(microseconds(1));
    EXPECT_EQ(peer(thread()).tokenCount(a), 0);
    EXPECT_EQ(votes(VotingThread::DOWN), 1u);
    // The pending timeout went with the last up vote.
    EXPECT_EQ(peer(thread()).queueSize(), 0u);
    EXPECT_EQ(peer(thread()).tokenTotal(), 1u);
}

TEST_F(Voting, PowerGoesDownOnlyWhenTheLastUpVoteIsGivenBack) {
    const uint64_t a = mLib->generateVotingToken();
    const uint64_t b = mLib->generateVotingToken();
    voteAndSettle(a, VotingThread::UP);
    voteAndSettle(b, VotingThread::UP);
    EXPECT_EQ(votes(VotingThread::UP), 1u) << "the second up vote is not applied again";
    EXPECT_EQ(peer(thread()).queueSize(), 2u);  // one pending timeout per token
    voteAndSettle(a, VotingThread::DOWN);
    advance(seconds(5));
    EXPECT_EQ(votes(VotingThread::DOWN), 0u);
    EXPECT_EQ(peer(thread()).tokenCount(a), 0);
    voteAndSettle(b, VotingThread::DOWN);
    advance(seconds(5));
    EXPECT_EQ(votes(VotingThread::DOWN), 1u);
    // And up again for the next piece of work.
    voteAndSettle(a, VotingThread::UP);
    EXPECT_EQ(votes(VotingThread::UP), 2u);
}

TEST_F(Voting, TimeoutErasesTheTokenAndVotesDown) {
    const uint64_t a = mLib->generateVotingToken();
    voteAndSettle(a, VotingThread::UP);

    advance(seconds(60) - microseconds(1));
    EXPECT_EQ(peer(thread()).tokenCount(a), 1);
    EXPECT_EQ(votes(VotingThread::DOWN), 0u);

    advance(microseconds(1));
    EXPECT_EQ(peer(thread()).tokenCount(a), -1);
    EXPECT_EQ(peer(thread()).tokenTotal(), 0u);
    EXPECT_EQ(votes(VotingThread::DOWN), 1u);

    // The late down vote of the timed-out token is only logged.
    mLib->asyncVote(a, VotingThread::DOWN);
    advance(seconds(5));
    EXPECT_EQ(mLog.count("Voting message not handled: 1"), 1u);
    EXPECT_EQ(votes(VotingThread::DOWN), 1u);

    // Releasing it now is ignored at once.
    mLib->releaseVotingToken(a);
    EXPECT_EQ(peer(thread()).queueSize(), 0u);
}

TEST_F(Voting, AnotherUpVoteRenewsTheTimeout) {
    const uint64_t a = mLib->generateVotingToken();
    voteAndSettle(a, VotingThread::UP);
    advance(seconds(30));
    voteAndSettle(a, VotingThread::UP);
    EXPECT_EQ(peer(thread()).queueSize(), 1u);  // the old timeout was replaced

    advance(seconds(30) + microseconds(1));
    EXPECT_EQ(peer(thread()).tokenCount(a), 2);
    advance(seconds(30));
    EXPECT_EQ(peer(thread()).tokenCount(a), -1);
    EXPECT_EQ(votes(VotingThread::UP), 1u);
    EXPECT_EQ(votes(VotingThread::DOWN), 1u);
}

// A support query of a large graph leaves one down vote per operation
// pending for the release delay. Thousands of them, all due at the same
// moment, are handled in their queueing order while each token keeps
// exactly one pending timeout.
TEST_F(Voting, ThousandsOfPendingVotesKeepOneTimeoutPerToken) {
    const uint64_t a = mLib->generateVotingToken();
    const uint64_t b = mLib->generateVotingToken();
    voteAndSettle(a, VotingThread::UP);
    for (int i = 0; i < 2000; ++i) {
        mLib->asyncVote(a, VotingThread::UP);
        mLib->asyncVote(a, VotingThread::DOWN);
    }
    voteAndSettle(b, VotingThread::UP);
    EXPECT_EQ(peer(thread()).tokenCount(a), 2001);
    EXPECT_EQ(peer(thread()).queuedCount(VotingThread::Message::DOWN_VOTE), 2000u);
    EXPECT_EQ(peer(thread()).queuedCount(VotingThread::Message::DOWN_VOTE_TIMEOUT), 2u);

    advance(seconds(5));
    EXPECT_EQ(peer(thread()).tokenCount(a), 1);
    EXPECT_EQ(peer(thread()).queueSize(), 2u);  // the two timeouts
    EXPECT_EQ(votes(VotingThread::UP), 1u);
    EXPECT_EQ(votes(VotingThread::DOWN), 0u);

    voteAndSettle(b, VotingThread::DOWN);
    advance(seconds(5));
    EXPECT_EQ(peer(thread()).queuedCount(VotingThread::Message::DOWN_VOTE_TIMEOUT), 1u)
        << "b's timeout went with its vote";
    EXPECT_EQ(votes(VotingThread::DOWN), 0u) << "a still holds a vote";
    voteAndSettle(a, VotingThread::DOWN);
    advance(seconds(5));
    EXPECT_EQ(votes(VotingThread::DOWN), 1u);
    EXPECT_EQ(peer(thread()).queueSize(), 0u);
}

TEST_F(Voting, InvalidVoteTypeIsRefusedWithOneErrorLine) {
    const uint64_t a = mLib->generateVotingToken();
    EXPECT_FALSE(thread()->enqueueVote(a, static_cast<VotingThread::VoteType>(5)));
    EXPECT_EQ(peer(thread()).queueSize(), 0u);
    EXPECT_THAT(mLog.errors(), testing::ElementsAre("Invalid vote type: 5"));

    // Through the binding the result is dropped, the line stays.
    mLib->asyncVote(a, static_cast<VotingThread::VoteType>(1));
    EXPECT_EQ(mLog.count("Invalid vote type: 1"), 1u);
    EXPECT_TRUE(thread()->enqueueVote(a, VotingThread::DOWN));
    EXPECT_TRUE(thread()->enqueueVote(a, VotingThread::UP));
}

// Two messages with the same due time: a release and a down vote of a token
// that holds one up vote, while another token keeps the power up. Handled in
// queueing order, release-then-down leaves an orphan down vote; down-then-
// release does not.
TEST_F(Voting, SameDueTimeReleaseThenDownIsHandledInQueueingOrder) {
    const uint64_t a = mLib->generateVotingToken();
    const uint64_t b = mLib->generateVotingToken();
    voteAndSettle(a, VotingThread::UP);
    voteAndSettle(b, VotingThread::UP);

    mLib->releaseVotingToken(a);
    mLib->asyncVote(a, VotingThread::DOWN);
    advance(seconds(5));
    EXPECT_EQ(peer(thread()).tokenCount(a), -1);
    EXPECT_EQ(mLog.count("Voting message not handled: 1"), 1u);
    EXPECT_EQ(votes(VotingThread::DOWN), 0u);
}

TEST_F(Voting, SameDueTimeDownThenReleaseIsHandledInQueueingOrder) {
    const uint64_t a = mLib->generateVotingToken();
    const uint64_t b = mLib->generateVotingToken();
    voteAndSettle(a, VotingThread::UP);
    voteAndSettle(b, VotingThread::UP);

    mLib->asyncVote(a, VotingThread::DOWN);
    mLib->releaseVotingToken(a);
    advance(seconds(5));
    EXPECT_EQ(peer(thread()).tokenCount(a), -1);
    EXPECT_EQ(mLog.count("Voting message not handled: 1"), 0u);
    EXPECT_EQ(votes(VotingThread::DOWN), 0u);
    // Only b's timeout is left.
    EXPECT_EQ(peer(thread()).queueSize(), 1u);
}

TEST_F(Voting, ReleasingAnIdleTokenErasesItLaterWithoutAVote) {
    const uint64_t a = mLib->generateVotingToken();
    mLib->releaseVotingToken(a);
    advance(seconds(5) - microseconds(1));
    EXPECT_EQ(peer(thread()).tokenCount(a), 0);
    advance(microseconds(1));
    EXPECT_EQ(peer(thread()).tokenCount(a), -1);
    EXPECT_TRUE(mLog.startingWith("Voting 0").empty());
    EXPECT_EQ(votes(VotingThread::DOWN), 0u);
    EXPECT_EQ(mLog.count(kPowerSaveFailure), 0u);
}

TEST_F(Voting, ReleasingAHoldingTokenVotesDownAndItsTimeoutIsLogged) {
    const uint64_t a = mLib->generateVotingToken();
    voteAndSettle(a, VotingThread::UP);
    mLib->releaseVotingToken(a);
    advance(seconds(5));
    EXPECT_EQ(peer(thread()).tokenCount(a), -1);
    EXPECT_EQ(votes(VotingThread::DOWN), 1u);
    advance(seconds(55));
    EXPECT_EQ(mLog.count("Token down vote timedout but already released : " + std::to_string(a)), 1u);
    EXPECT_EQ(votes(VotingThread::DOWN), 1u);
}

TEST_F(Voting, ReleaseAfterTheTimeoutIsLogged) {
    const uint64_t a = mLib->generateVotingToken();
    voteAndSettle(a, VotingThread::UP);
    advance(seconds(56));
    mLib->releaseVotingToken(a);  // due at 61 s, after the timeout
    advance(seconds(4));
    EXPECT_EQ(peer(thread()).tokenCount(a), -1);
    advance(seconds(1));
    EXPECT_EQ(mLog.count("Token released but already timed out: " + std::to_string(a)), 1u);
    EXPECT_EQ(votes(VotingThread::DOWN), 1u);
}

TEST_F(Voting, UnmatchedDownVoteWrapsTheCount) {
    const uint64_t a = mLib->generateVotingToken();
    const uint64_t b = mLib->generateVotingToken();
    mLib->asyncVote(a, VotingThread::DOWN);
    advance(seconds(5));
    // Still known, but no longer idle: b's up vote finds a busy set.
    EXPECT_EQ(peer(thread()).tokenTotal(), 2u);
    EXPECT_EQ(votes(VotingThread::DOWN), 0u);
    voteAndSettle(b, VotingThread::UP);
    EXPECT_EQ(votes(VotingThread::UP), 0u);
    EXPECT_EQ(peer(thread()).tokenCount(b), 1);
}

TEST_F(Voting, TokensAreUniqueAcrossBindings) {
    VotingThread::Delays delays;
    delays.clock = [this] { return mClock.now(); };
    NnLib other(delays);
    uint64_t last = 0;
    for (int i = 0; i < 4; ++i) {
        for (NnLib* lib : {mLib.get(), &other}) {
            const uint64_t token = lib->generateVotingToken();
            EXPECT_GT(token, last);
            last = token;
        }
    }
    EXPECT_EQ(peer(thread()).tokenTotal(), 4u);
    EXPECT_EQ(peer(peer(other).votingThread()).tokenTotal(), 4u);
}

TEST_F(Voting, WorkerStartsOnceAndSaysGoodbye) {
    const uint64_t a = mLib->generateVotingToken();
    voteAndSettle(a, VotingThread::UP);
    voteAndSettle(a, VotingThread::DOWN);
    EXPECT_EQ(mLog.count("Starting VotingThread ..."), 1u);
    EXPECT_EQ(mLog.count("Closing VotingThread ..."), 0u);
    mLib.reset();
    EXPECT_EQ(mLog.count("Closing VotingThread ..."), 1u);
    mLib = std::make_unique<NnLib>();  // for TearDown's checks
}

TEST_F(Voting, ExitStopsTheWorkerAndTheDestructorStillJoins) {
    peer(mLib).votingThread()->exit();
    const uint64_t a = mLib->generateVotingToken();
    mLib->asyncVote(a, VotingThread::UP);
    EXPECT_EQ(mLog.count("Closing VotingThread ..."), 1u);
    mLib.reset();
    EXPECT_EQ(mLog.count("Closing VotingThread ..."), 2u);
    mLib = std::make_unique<NnLib>();
}

// A support query votes the power up and down once per operation on the
// model's token: once the release delay has passed the token holds nothing.
TEST_F(Voting, SupportQueryPairsItsVotesPerOperation) {
    using namespace arv::nnhal;
    VotingThread::Delays delays;
    delays.clock = [this] { return mClock.now(); };
    zel::NnLibTestPeer::setDelays(delays);
    ASSERT_TRUE(zel::Controller::getInstance()->resetNnLib());
    std::shared_ptr<NnLib> lib = zel::Controller::getInstance()->getNnLib();
    host::HostGraph graph;
    const uint32_t in = graph.addQuant8({1, 2, 2, 1}, 0.5f, 0, host::Lifetime::Input);
    const uint32_t mid = graph.addQuant8({1, 2, 2, 1}, 0.5f, 0, host::Lifetime::Internal);
    const uint32_t out = graph.addQuant8({1, 2, 2, 1}, 0.5f, 0, host::Lifetime::Output);
    graph.addOperation(OperationType::RELU, {in}, {mid});
    graph.addOperation(OperationType::RELU6, {mid}, {out});
    graph.setInputs({in});
    graph.setOutputs({out});
    std::unique_ptr<zel::ZelModel> model(zel::ZelModel::create(&graph));
    ASSERT_TRUE(model && lib);
    for (uint32_t i = 0; i < 2; ++i) EXPECT_EQ(model->getOperationSupportLevel(graph.getOperation(i)), 0);
    VotingThread* worker = peer(lib).votingThread();
    const uint64_t token = zel::ZelModelTestPeer(model.get()).votingToken();
    EXPECT_TRUE(foundation::waitFor([&] { return peer(worker).tokenCount(token) == 2; }));
    mClock.advance(seconds(5));
    ASSERT_TRUE(worker->enqueueVote(UINT64_MAX, VotingThread::UP));  // wakes the worker
    EXPECT_TRUE(foundation::waitFor([&] { return peer(worker).tokenCount(token) == 0; }));
    model.reset();
    zel::NnLibTestPeer::setDelays(VotingThread::Delays());
    zel::Controller::getInstance()->resetNnLib();
}

// The production clock with a short injected delay: the release is not
// applied before its due time.
TEST(VotingSystemClock, ShortReleaseDelayIsHonoured) {
    zeltest::LogCapture log;
    VotingThread::Delays delays;
    delays.release = milliseconds(30);
    NnLib lib(delays);
    const uint64_t a = lib.generateVotingToken();
    lib.asyncVote(a, VotingThread::UP);
    ASSERT_TRUE(foundation::waitFor([&] { return peer(peer(lib).votingThread()).tokenCount(a) == 1; }));
    const auto cast = std::chrono::steady_clock::now();
    lib.asyncVote(a, VotingThread::DOWN);
    ASSERT_TRUE(foundation::waitFor([&] { return peer(peer(lib).votingThread()).tokenCount(a) == 0; }));
    EXPECT_GE(std::chrono::steady_clock::now() - cast, milliseconds(29));
    EXPECT_EQ(log.countContaining("Voting 2147483647 0x"), 1u);
    EXPECT_EQ(peer(peer(lib).votingThread()).queueSize(), 0u);
}

}  // namespace
