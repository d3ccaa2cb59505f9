// What tests and benchmarks observe and set inside the plug-in's classes,
// through peers those classes befriend, so that the classes themselves
// carry no public members for tests. peer(x) wraps an object in its peer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "zel_accelerator.h"
#include "zel_model.h"

namespace arv {
namespace nnhal {
namespace zel {

class VotingThreadTestPeer {
public:
    explicit VotingThreadTestPeer(VotingThread* thread) : mThread(thread) {}
    // Up-vote count of `token`, or -1 when unknown.
    int64_t tokenCount(uint64_t token) const { return mThread->tokenCount(token); }
    // Number of live tokens.
    size_t tokenTotal() const { return mThread->tokenTotal(); }
    // Number of queued messages, in all and of one type.
    size_t queueSize() const { return mThread->queueSize(); }
    size_t queuedCount(VotingThread::Message::Type type) const { return mThread->queuedCount(type); }

private:
    VotingThread* mThread;
};

class NnLibTestPeer {
public:
    explicit NnLibTestPeer(NnLib* lib) : mLib(lib) {}
    // Queue delays (and clock) of the voting thread of every NnLib that
    // makeNnLib creates from now on.
    static void setDelays(const VotingThread::Delays& delays) { NnLib::setNewLibraryDelays(delays); }
    bool isLoaded() const { return mLib->isLoaded(); }
    bool hasVersion() const { return mLib->hasVersion(); }
    VotingThread* votingThread() const { return mLib->mVotingThread.get(); }

private:
    NnLib* mLib;
};

class ZelModelTestPeer {
public:
    explicit ZelModelTestPeer(ZelModel* model) : mModel(model) {}
    // Node-level tests append to a runtime graph obtained outside prepare.
    void setGraphId(uint32_t graphId) const { mModel->mGraphId = graphId; }
    void setBatchSize(uint32_t batchSize) const { mModel->mBatchSize = batchSize; }
    uint32_t lastNodeId() const { return mModel->mNodeId; }
    uint64_t votingToken() const { return mModel->mVotingToken; }
    const std::shared_ptr<NnLib>& nnLib() const { return mModel->mNnLib; }
    const std::vector<uint32_t>& graphInputs() const { return mModel->mInputs; }
    const std::vector<uint32_t>& graphOutputs() const { return mModel->mOutputs; }

private:
    ZelModel* mModel;
};

class ZelExecutorTestPeer {
public:
    explicit ZelExecutorTestPeer(const ZelExecutor* executor) : mExecutor(executor) {}
    uint32_t graphId() const { return mExecutor->mGraphId; }
    ExecutionPerformance performance() const { return mExecutor->mPerformance; }

private:
    const ZelExecutor* mExecutor;
};

inline VotingThreadTestPeer peer(VotingThread* thread) {
    return VotingThreadTestPeer(thread);
}
inline NnLibTestPeer peer(NnLib* lib) {
    return NnLibTestPeer(lib);
}
inline NnLibTestPeer peer(NnLib& lib) {
    return NnLibTestPeer(&lib);
}
inline NnLibTestPeer peer(const std::shared_ptr<NnLib>& lib) {
    return NnLibTestPeer(lib.get());
}
inline NnLibTestPeer peer(const std::unique_ptr<NnLib>& lib) {
    return NnLibTestPeer(lib.get());
}
inline ZelModelTestPeer peer(ZelModel& model) {
    return ZelModelTestPeer(&model);
}
inline ZelExecutorTestPeer peer(const ZelExecutor* executor) {
    return ZelExecutorTestPeer(executor);
}

}  // namespace zel
}  // namespace nnhal
}  // namespace arv
