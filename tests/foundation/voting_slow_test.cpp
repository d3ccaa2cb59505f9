// The one real-time check of the voting thread: production delays on the
// system clock. A release is applied no earlier than five seconds after it
// was cast.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>

#include "foundation_support.h"
#include "log_capture.h"
#include "zel_accelerator.h"
#include "zel_test_peers.h"

namespace zel = arv::nnhal::zel;

namespace {

TEST(VotingRealTime, DownVoteTakesEffectAfterFiveSeconds) {
    zeltest::LogCapture log;
    zel::NnLib lib;
    const uint64_t token = lib.generateVotingToken();
    lib.asyncVote(token, zel::VotingThread::UP);
    ASSERT_TRUE(foundation::waitFor([&] { return peer(peer(lib).votingThread()).tokenCount(token) == 1; }));
    EXPECT_EQ(log.countContaining("Voting 0 0x"), 1u);

    const auto cast = std::chrono::steady_clock::now();
    lib.asyncVote(token, zel::VotingThread::DOWN);
    ASSERT_TRUE(foundation::waitFor([&] { return log.countContaining("Voting 2147483647 0x") == 1; },
                                    std::chrono::seconds(60)));
    EXPECT_GE(std::chrono::steady_clock::now() - cast, std::chrono::milliseconds(4900));
    EXPECT_EQ(peer(peer(lib).votingThread()).tokenCount(token), 0);
    // The 60 s timeout went with the last up vote.
    EXPECT_EQ(peer(peer(lib).votingThread()).queueSize(), 0u);
    EXPECT_EQ(log.count("Kestrel failed to set power save level"), 2u);
}

}  // namespace
