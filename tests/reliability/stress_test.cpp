// Concurrency stress: several host threads build, run and release executors
// while another thread keeps releasing accelerators, which closes and
// reopens the runtime under them. Bounded by work, not by time. Meant to be
// run under ThreadSanitizer as well.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "reliability_support.h"
#include "zel_test_peers.h"
#include "zelsim/control.h"

using namespace arv::nnhal;
using namespace arv::nnhal::host;

namespace {

class ShortVotingDelays : public ::testing::Environment {
public:
    // Releases and timeouts happen many times during a run.
    void SetUp() override {
        reltest::useShortVotingDelays(std::chrono::microseconds(300), std::chrono::milliseconds(5));
    }
};
::testing::Environment* const kShortVotingDelays = ::testing::AddGlobalTestEnvironment(new ShortVotingDelays);

constexpr int kWorkers = 3;
constexpr int kIterations = 25;
constexpr int kExecutionsPerExecutor = 2;

// What the threads saw, merged.
struct Tally {
    std::mutex mutex;
    std::multiset<int> createStatuses;
    std::multiset<int> executeStatuses;
    int wrongOutputs = 0;
    int wrongLevels = 0;

    void add(std::multiset<int>& into, int status) {
        std::lock_guard<std::mutex> lock(mutex);
        into.insert(status);
    }
};

// Runs `iterations` create / execute / release cycles; `progress` counts
// the calls made, for the thread that resets the runtime.
void worker(IAccelerator& accelerator, Tally& tally, int iterations, std::atomic<int>& progress) {
    LoadedModel model = reltest::loadDemoModel();
    if (!model.graph) return;
    HostGraph& graph = *model.graph;
    HostExecutorContext context;
    for (int i = 0; i < iterations; ++i) {
        // The support query builds a model but never touches the runtime.
        if (i % 5 == 0 && !allSupported(querySupport(accelerator, graph))) {
            std::lock_guard<std::mutex> lock(tally.mutex);
            ++tally.wrongLevels;
        }
        const CreateExecutorResult created = accelerator.createGraphExecutor(&graph, &context);
        ++progress;
        tally.add(tally.createStatuses, static_cast<int>(created.status));
        if (created.executor == nullptr) continue;
        for (int e = 0; e < kExecutionsPerExecutor; ++e) {
            IoBuffers buffers = makeBuffers(model);
            const Status status = executeBound(graph, *created.executor, buffers).status;
            ++progress;
            tally.add(tally.executeStatuses, static_cast<int>(status));
            // Whenever an execution succeeds, its results are right.
            if (status == Status::SUCCESS && !compareOutputs(model, buffers.outputs).matched()) {
                std::lock_guard<std::mutex> lock(tally.mutex);
                ++tally.wrongOutputs;
            }
        }
        created.executor->release();
    }
}

bool onlyKnownStatuses(const std::multiset<int>& statuses) {
    for (int status : statuses) {
        if (status != 0 && status != 1 && status != 7) return false;
    }
    return true;
}

TEST(ConcurrencyStress, ExecutorsSurviveRuntimeResets) {
    zelsim::reset();
    reltest::freshRuntime();
    HostAcceleratorContext acceleratorContext;
    IAccelerator* accelerator = CreateAccelerator_zel(&acceleratorContext);
    ASSERT_NE(accelerator, nullptr);

    Tally tally;
    std::atomic<int> running{kWorkers};
    std::atomic<int> progress{0};
    std::atomic<int> resets{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kWorkers; ++t) {
        threads.emplace_back([&] {
            worker(*accelerator, tally, kIterations, progress);
            --running;
        });
    }
    // Another host component releasing its accelerators: each release
    // closes and reopens the runtime. Paced by the workers' progress (a few
    // calls between two resets), whatever the speed of the build.
    std::thread resetter([&] {
        HostAcceleratorContext context;
        int seen = 0;
        while (running.load() > 0) {
            if (progress.load() - seen < 2) {
                std::this_thread::yield();
                continue;
            }
            seen = progress.load();
            IAccelerator* other = CreateAccelerator_zel(&context);
            if (other == nullptr) break;
            other->release();
            ++resets;
        }
    });
    for (auto& thread : threads) thread.join();
    resetter.join();

    std::printf("%d resets; createGraphExecutor: %zu x 0, %zu x 1, %zu x 7; execute: %zu x 0, %zu x 1, %zu x 7\n",
                resets.load(), tally.createStatuses.count(0), tally.createStatuses.count(1),
                tally.createStatuses.count(7), tally.executeStatuses.count(0), tally.executeStatuses.count(1),
                tally.executeStatuses.count(7));
    EXPECT_EQ(tally.createStatuses.size(), static_cast<size_t>(kWorkers * kIterations));
    EXPECT_TRUE(onlyKnownStatuses(tally.createStatuses));
    EXPECT_TRUE(onlyKnownStatuses(tally.executeStatuses));
    EXPECT_GT(resets.load(), 0);
    EXPECT_EQ(tally.wrongOutputs, 0);
    EXPECT_EQ(tally.wrongLevels, 0);

    // Once the resets stop, every thread builds and runs again. A fresh
    // runtime whose up votes do not time out during the check.
    reltest::useShortVotingDelays(std::chrono::microseconds(300), std::chrono::seconds(60));
    std::shared_ptr<reltest::NnLib> lib = reltest::freshRuntime();
    reltest::VotingThread* votes = peer(lib).votingThread();
    // Graphs of models whose runtime was closed under them stay in the
    // simulator: their teardown found the closed binding (on a device the
    // closed runtime took them with it). Only the graphs from here on count.
    const int orphaned = zelsim::liveGraphs();
    const uint64_t firstToken = lib->generateVotingToken();
    std::mutex heldMutex;
    std::vector<IGraphExecutor*> held;
    std::vector<LoadedModel> models(kWorkers);
    std::vector<std::thread> calm;
    Tally after;
    for (int t = 0; t < kWorkers; ++t) {
        calm.emplace_back([&, t] {
            models[t] = reltest::loadDemoModel();
            HostExecutorContext context;
            const CreateExecutorResult created = accelerator->createGraphExecutor(models[t].graph.get(), &context);
            after.add(after.createStatuses, static_cast<int>(created.status));
            if (created.executor == nullptr) return;
            for (int e = 0; e < kExecutionsPerExecutor; ++e) {
                IoBuffers buffers = makeBuffers(models[t]);
                after.add(after.executeStatuses,
                          static_cast<int>(executeBound(*models[t].graph, *created.executor, buffers).status));
                if (!compareOutputs(models[t], buffers.outputs).matched()) {
                    std::lock_guard<std::mutex> lock(after.mutex);
                    ++after.wrongOutputs;
                }
            }
            std::lock_guard<std::mutex> lock(heldMutex);
            held.push_back(created.executor);
        });
    }
    for (auto& thread : calm) thread.join();
    const uint64_t lastToken = lib->generateVotingToken();
    EXPECT_EQ(after.createStatuses.count(0), static_cast<size_t>(kWorkers));
    EXPECT_EQ(after.executeStatuses.count(0), static_cast<size_t>(kWorkers * kExecutionsPerExecutor));
    EXPECT_EQ(after.wrongOutputs, 0);

    // The token map, once every vote cast so far is handled: one token per
    // living executor, none of them holding an up vote.
    EXPECT_TRUE(reltest::waitFor([votes] {
        return peer(votes).queuedCount(reltest::VotingThread::Message::UP_VOTE) == 0 &&
               peer(votes).queuedCount(reltest::VotingThread::Message::DOWN_VOTE) == 0;
    }));
    int living = 0;
    for (uint64_t token = firstToken + 1; token < lastToken; ++token) {
        const int64_t count = peer(votes).tokenCount(token);
        if (count < 0) continue;
        ++living;
        EXPECT_EQ(count, 0) << "token " << token;
    }
    EXPECT_EQ(living, kWorkers);
    EXPECT_EQ(peer(votes).tokenTotal(), static_cast<size_t>(kWorkers) + 2);  // and the two probes

    // Released, every token is given back.
    for (IGraphExecutor* executor : held) executor->release();
    lib->releaseVotingToken(firstToken);
    lib->releaseVotingToken(lastToken);
    EXPECT_TRUE(reltest::waitFor([votes] { return peer(votes).queueSize() == 0; }));
    EXPECT_EQ(peer(votes).tokenTotal(), 0u);
    EXPECT_EQ(zelsim::liveGraphs(), orphaned);
    accelerator->release();
    zelsim::reset();
}

}  // namespace
