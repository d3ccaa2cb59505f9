// Shared pieces of the reliability suites: the accelerator as a host holds
// it, the voting clock the suites drive, fresh runtimes, the demo model and
// a host graph decorator that answers like a broken host.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "arv/nnhal/accelerator.h"
#include "zel_accelerator.h"
#include "zelhost/execution.h"
#include "zelhost/host_graph.h"
#include "zelhost/model_file.h"

namespace reltest {

using arv::nnhal::zel::NnLib;
using arv::nnhal::zel::VotingThread;

// The accelerator object of one host, released at the end of the scope
// (which resets the runtime, as a host releasing its accelerator does).
class Accelerator {
public:
    Accelerator();
    ~Accelerator();
    Accelerator(const Accelerator&) = delete;
    Accelerator& operator=(const Accelerator&) = delete;
    arv::nnhal::IAccelerator* operator->() const { return mAccelerator; }
    arv::nnhal::IAccelerator& operator*() const { return *mAccelerator; }

private:
    arv::nnhal::host::HostAcceleratorContext mContext;
    arv::nnhal::IAccelerator* mAccelerator;
};

// Voting clock of the runtimes made from now on: frozen, so up votes are
// handled at once while down votes and token releases stay queued.
void useFrozenVotingClock();
// Short real delays for the runtimes made from now on (stress runs).
void useShortVotingDelays(std::chrono::microseconds release, std::chrono::microseconds timeout);

// Replaces the controller's runtime binding with a fresh one (new voting
// thread, empty token map) and returns it.
std::shared_ptr<NnLib> freshRuntime();
// The controller's current binding.
std::shared_ptr<NnLib> currentRuntime();

// Waits (bounded, generously) until `condition` holds; false if it never did.
bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit = std::chrono::seconds(20));

// Runtime calls seen by the simulator: successful teardowns of `graphId`.
int successfulTeardowns(int graphId);

// Loads examples/demo_model.json (fails the current test when it cannot).
arv::nnhal::host::LoadedModel loadDemoModel();

// Resident set size of this process in KiB, from /proc/self/statm.
uint64_t residentKiB();

}  // namespace reltest
