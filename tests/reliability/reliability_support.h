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

// A host graph that answers like a broken host for chosen items and
// forwards everything else to the graph it wraps.
class BrokenHostGraph : public arv::nnhal::IGraph {
public:
    explicit BrokenHostGraph(arv::nnhal::IGraph& inner) : mInner(inner) {}
    uint32_t getOperandCount() const override { return mInner.getOperandCount(); }
    arv::nnhal::IOperand* getOperand(uint32_t index) const override {
        return index == mNullOperand ? nullptr : mInner.getOperand(index);
    }
    uint32_t getOperationCount() const override { return mInner.getOperationCount(); }
    arv::nnhal::IOperation* getOperation(uint32_t index) const override {
        // A host whose answers change between two calls.
        if (++mOperationCalls > mOperationsBeforeNull) return nullptr;
        return mInner.getOperation(index);
    }
    uint32_t getInputCount() const override { return mInner.getInputCount(); }
    uint32_t getInput(uint32_t position) const override { return mInner.getInput(position); }
    uint32_t getOutputCount() const override { return mInner.getOutputCount(); }
    uint32_t getOutput(uint32_t position) const override { return mInner.getOutput(position); }
    uint32_t getBufferCount() const override { return mInner.getBufferCount(); }
    arv::nnhal::BufferResult getBuffer(uint32_t index) const override {
        if (index == mNullBuffer) return {arv::nnhal::Status::SUCCESS, nullptr};
        return mInner.getBuffer(index);
    }

    // getOperand(index) answers null.
    uint32_t mNullOperand = UINT32_MAX;
    // getBuffer(index) answers success with a null buffer.
    uint32_t mNullBuffer = UINT32_MAX;
    // getOperation answers null from call number mOperationsBeforeNull + 1 on.
    uint32_t mOperationsBeforeNull = UINT32_MAX;

private:
    arv::nnhal::IGraph& mInner;
    mutable uint32_t mOperationCalls = 0;
};

}  // namespace reltest
