#include "reliability_support.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <mutex>
#include <thread>

#include "zel_test_peers.h"
#include "zelsim/control.h"

namespace reltest {

namespace {

using TimePoint = std::chrono::time_point<std::chrono::system_clock, std::chrono::microseconds>;

// The frozen clock stands at a fixed, arbitrary point: due times never
// depend on the wall clock.
TimePoint frozenNow() {
    return TimePoint(std::chrono::microseconds(int64_t{1'000'000'000'000}));
}

}  // namespace

Accelerator::Accelerator() : mAccelerator(CreateAccelerator_zel(&mContext)) {}

Accelerator::~Accelerator() {
    if (mAccelerator != nullptr) mAccelerator->release();
}

void useFrozenVotingClock() {
    VotingThread::Delays delays;  // production delays, frozen clock
    delays.clock = &frozenNow;
    arv::nnhal::zel::NnLibTestPeer::setDelays(delays);
}

void useShortVotingDelays(std::chrono::microseconds release, std::chrono::microseconds timeout) {
    VotingThread::Delays delays;
    delays.release = release;
    delays.timeout = timeout;
    arv::nnhal::zel::NnLibTestPeer::setDelays(delays);
}

std::shared_ptr<NnLib> freshRuntime() {
    arv::nnhal::zel::Controller::getInstance()->resetNnLib();
    return currentRuntime();
}

std::shared_ptr<NnLib> currentRuntime() {
    return arv::nnhal::zel::Controller::getInstance()->getNnLib();
}

bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

int successfulTeardowns(int graphId) {
    int count = 0;
    for (const zelsim::RecordedCall& call : zelsim::calls()) {
        if (call.entry == "teardown" && call.graphId == graphId && call.result == 0) ++count;
    }
    return count;
}

arv::nnhal::host::LoadedModel loadDemoModel() {
    arv::nnhal::host::LoadedModel model;
    const std::string error = arv::nnhal::host::loadModelFile(ZEL_EXAMPLES_DIR "/demo_model.json", model);
    EXPECT_EQ(error, "");
    return model;
}

uint64_t residentKiB() {
    FILE* file = std::fopen("/proc/self/statm", "r");
    if (file == nullptr) return 0;
    unsigned long long size = 0;
    unsigned long long resident = 0;
    const int read = std::fscanf(file, "%llu %llu", &size, &resident);
    std::fclose(file);
    if (read != 2) return 0;
    return static_cast<uint64_t>(resident) * static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) / 1024u;
}

}  // namespace reltest
