// Plug-in front end (accelerator, executor) and the runtime link: the
// loaded runtime library (NnLib), its process-wide owner (Controller) and
// the power voting thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "arv/nnhal/accelerator.h"
#include "zel_kestrel_runtime.h"

namespace arv {
namespace nnhal {
namespace zel {

class NnLib;
class ZelModel;

// File name of the runtime library opened with the dynamic loader.
constexpr const char* kZelRuntimeLibrary = "libzel_kestrel_runtime.so";
// The only runtime version the plug-in works with.
constexpr int kZelExpectedVersion = 0x20100;

// Background thread that turns the models' power votes into power-save
// level changes: up at once, down only after a grace period, and an up
// vote expires after a safety timeout.
class VotingThread {
public:
    enum VoteType : uint32_t { UP = 0, DOWN = 0x7FFFFFFF };

    using TimePoint = std::chrono::time_point<std::chrono::system_clock, std::chrono::microseconds>;

    struct Message {
        enum Type : uint32_t { UP_VOTE = 0, DOWN_VOTE = 1, DOWN_VOTE_TIMEOUT = 2, TOKEN_RELEASE = 3 };
        uint64_t token;
        Type type;
        TimePoint time;  // due time: the moment of queueing plus the delay
    };

    // Delays of the queue; the defaults are the production values. Tests
    // inject short ones.
    struct Delays {
        std::chrono::microseconds release{std::chrono::seconds(5)};   // DOWN_VOTE and TOKEN_RELEASE
        std::chrono::microseconds timeout{std::chrono::seconds(60)};  // DOWN_VOTE_TIMEOUT after an up vote
        // Clock of the due times; empty means the system clock. Tests inject
        // a manual clock to queue messages with equal due times.
        std::function<TimePoint()> clock;
    };

    explicit VotingThread(NnLib* lib);
    VotingThread(NnLib* lib, Delays delays);
    ~VotingThread();
    VotingThread(const VotingThread&) = delete;
    VotingThread& operator=(const VotingThread&) = delete;

    // New process-unique token (never 0) with no up votes.
    uint64_t generateVotingToken();
    // Queues the token's removal after the release delay; unknown tokens are ignored.
    void releaseVotingToken(uint64_t token);
    // Queues a vote; false (and an error line) for an invalid type.
    bool enqueueVote(uint64_t token, VoteType type);
    // Restarts the worker when no thread of execution is attached.
    void keepThreadAlive();
    // Asks the worker to stop at its next wake-up.
    void exit();

private:
    // Observed by tests (through the peer): up-vote count of `token` (-1
    // when unknown), live tokens, queued messages in all and of one type.
    friend class VotingThreadTestPeer;
    int64_t tokenCount(uint64_t token);
    size_t tokenTotal();
    size_t queueSize();
    size_t queuedCount(Message::Type type);

    void votingThreadFunc();
    void waitForVote();
    // Queues a message; true when it became the first one due, which is
    // when the caller must wake the worker (after unlocking).
    bool enqueueMessageLocked(uint64_t token, Message::Type type, std::chrono::microseconds delay);
    Message peekFirstMessage();
    void handleMessageLocked(Message& msg);
    void removeQueuedMessagesLocked(Message::Type type, std::function<bool(Message&)> predicate);
    void vote(VoteType type);
    // Sets a token's up-vote count and keeps mBusyTokens in step.
    void setCountLocked(std::unordered_map<uint64_t, uint64_t>::iterator entry, uint64_t count);
    void eraseTokenLocked(std::unordered_map<uint64_t, uint64_t>::iterator entry);

    // Pending messages by due time. Equal keys keep their queueing order (a
    // multimap inserts after its equals), so the front is always the message
    // to handle next: the earliest, and among equal due times the first
    // queued. A support query of a large graph queues one down vote per
    // operation, so the queue can hold thousands of messages; finding,
    // adding and removing one costs O(log n), never a scan of the queue.
    using Queue = std::multimap<TimePoint, Message>;
    Queue mQueue;
    // Where each token's pending DOWN_VOTE_TIMEOUT sits in mQueue. A token
    // has at most one: handling an up vote removes the old one before it
    // queues the next.
    std::unordered_map<uint64_t, Queue::iterator> mTimeouts;
    std::unique_ptr<std::thread> mThread;
    std::mutex mMutex;
    std::condition_variable mCondition;
    NnLib* mNnLib;
    bool mRunning;
    std::unordered_map<uint64_t, uint64_t> mTokens;
    // Number of entries of mTokens with a non-zero count: "every token is
    // idle" without visiting every token.
    size_t mBusyTokens = 0;
    Delays mDelays;
};

// The open runtime library and its entry points. Every wrapper answers -1
// when its entry point is not bound.
class NnLib {
public:
    NnLib();
    explicit NnLib(VotingThread::Delays delays);
    ~NnLib();
    NnLib(const NnLib&) = delete;
    NnLib& operator=(const NnLib&) = delete;

    // New binding with the library loaded (an empty table when loading
    // failed); empty only when loading threw.
    static std::shared_ptr<NnLib> makeNnLib();

    // Opens the library and binds the table; a bad configuration closes it again.
    void load();
    // One symbol lookup; null (and an error line) when missing.
    template <typename F>
    F loadFunction(const char* name);
    // Clears the table and closes the library.
    void resetFunctors();

    int config();
    int init(int* graph_id);
    int getlog(int graph_id, unsigned char* buf, unsigned int length);
    int snpprint(int graph_id, unsigned char* buf, unsigned int length);
    int set_debug_level(int graph_id, int level);
    int prepare(int graph_id);
    int append_node(int graph_id, unsigned int node_id, zel_op_type_enum operation, int padding,
                    const kestrel_zel_nn_input* inputs, unsigned int num_inputs, const kestrel_zel_nn_output* outputs,
                    unsigned int num_outputs);
    int append_const_node(int graph_id, unsigned int node_id, unsigned int batches, unsigned int height,
                          unsigned int width, unsigned int depth, const unsigned char* data, unsigned int data_len);
    int execute_new(int graph_id, const kestrel_zel_nn_tensordef* inputs, unsigned int num_inputs,
                    kestrel_zel_nn_tensordef* outputs, unsigned int num_outputs);
    int execute(int graph_id, unsigned int batches_in, unsigned int height_in, unsigned int width_in,
                unsigned int depth_in, const unsigned char* data_in, unsigned int data_len_in,
                unsigned int* batches_out, unsigned int* height_out, unsigned int* width_out, unsigned int* depth_out,
                unsigned char* data_out, unsigned int data_out_max, unsigned int* data_out_size);
    int teardown(int graph_id);
    int version(int* version);
    int set_config_params(int graph_id, kestrel_zel_nn_config_enum param, void* value);
    int set_powersave_level(unsigned int level);

    // True when the power-save entry point is bound (never, by design).
    bool hasPowersaveLevel() const { return mSetPowersaveLevel != nullptr; }

    void asyncVote(uint64_t token, VotingThread::VoteType type);
    uint64_t generateVotingToken();
    void releaseVotingToken(uint64_t token);

private:
    // Tests (through the peer) set the queue delays of the libraries made
    // from then on, see whether the library is open and the version entry
    // point bound, and watch the voting thread.
    friend class NnLibTestPeer;
    static void setNewLibraryDelays(const VotingThread::Delays& delays);
    bool isLoaded() const {
        std::shared_lock<std::shared_mutex> call(mCallMutex);
        return mHandle != nullptr;
    }
    bool hasVersion() const {
        std::shared_lock<std::shared_mutex> call(mCallMutex);
        return mVersion != nullptr;
    }

    using InitFn = int (*)(int*);
    using GetlogFn = int (*)(int, unsigned char*, unsigned int);
    using SetDebugLevelFn = int (*)(int, int);
    using PrepareFn = int (*)(int);
    using AppendNodeFn = int (*)(int, unsigned int, zel_op_type_enum, int, const kestrel_zel_nn_input*, unsigned int,
                                 const kestrel_zel_nn_output*, unsigned int);
    using AppendConstNodeFn = int (*)(int, unsigned int, unsigned int, unsigned int, unsigned int, unsigned int,
                                      const unsigned char*, unsigned int);
    using ExecuteNewFn = int (*)(int, const kestrel_zel_nn_tensordef*, unsigned int, kestrel_zel_nn_tensordef*,
                                 unsigned int);
    using ExecuteFn = int (*)(int, unsigned int, unsigned int, unsigned int, unsigned int, const unsigned char*,
                              unsigned int, unsigned int*, unsigned int*, unsigned int*, unsigned int*, unsigned char*,
                              unsigned int, unsigned int*);
    using TeardownFn = int (*)(int);
    using VersionFn = int (*)(int*);
    using SetPowersaveLevelFn = int (*)(unsigned int);
    using ConfigFn = int (*)();
    using SetConfigParamsFn = int (*)(int, kestrel_zel_nn_config_enum, void*);

    void* mHandle = nullptr;
    std::recursive_mutex mMutex;
    // Held shared by every runtime call and exclusively while the table is
    // cleared and the library closed: calls of models built before a reset
    // run concurrently with each other but never against a closing library.
    mutable std::shared_mutex mCallMutex;
    InitFn mInit = nullptr;
    GetlogFn mGetlog = nullptr;
    GetlogFn mSnpprint = nullptr;
    SetDebugLevelFn mSetDebugLevel = nullptr;
    PrepareFn mPrepare = nullptr;
    AppendNodeFn mAppendNode = nullptr;
    AppendConstNodeFn mAppendConstNode = nullptr;
    ExecuteNewFn mExecuteNew = nullptr;
    ExecuteFn mExecute = nullptr;
    TeardownFn mTeardown = nullptr;
    VersionFn mVersion = nullptr;
    SetPowersaveLevelFn mSetPowersaveLevel = nullptr;
    ConfigFn mConfig = nullptr;
    SetConfigParamsFn mSetConfigParams = nullptr;
    std::unique_ptr<VotingThread> mVotingThread;
};

// Process-wide owner of the runtime binding.
class Controller {
public:
    static Controller* getInstance();

    bool openNnLib();
    bool closeNnLib();
    bool resetNnLib();
    bool heartBeat();
    std::shared_ptr<NnLib> getNnLib();

private:
    Controller();
    ~Controller();
    Controller(const Controller&) = delete;
    Controller& operator=(const Controller&) = delete;

    std::shared_ptr<unsigned long long> mUnused;
    std::shared_ptr<NnLib> mNnLib;
    std::mutex mMutex;
};

// The host's graph executor: one prepared model per graph.
class ZelExecutor : public IGraphExecutor {
public:
    // A ready executor, or null when the graph cannot be modelled or prepared.
    static ZelExecutor* create(IGraph* graph, IExecutorContext* context);

    ~ZelExecutor() override = default;
    ExecuteResult execute() override;
    void release() override;

private:
    friend class ZelExecutorTestPeer;
    ZelExecutor(IGraph* graph);

    IGraph* mGraph;
    ZelModel* mModel;
    uint32_t mGraphId;
    ExecutionPerformance mPerformance;
};

// The plug-in's accelerator object.
class ZelAccelerator : public IAccelerator {
public:
    explicit ZelAccelerator(IAcceleratorContext* context) : mContext(context) {}
    ~ZelAccelerator() override = default;

    const char* getUniqueIdentifier() override;
    int getVersion() override;
    bool getCapability(AcceleratorCapability capability) override;
    void isGraphSupported(IGraph* graph, IGraphOperationSupportLevelQuery* query) override;
    CreateExecutorResult createGraphExecutor(IGraph* graph, IExecutorContext* context) override;
    void release() override;

    // The host context given to the factory (kept, not used).
    IAcceleratorContext* context() const { return mContext; }

private:
    static std::string mIdentifier;
    IAcceleratorContext* mContext;
};

}  // namespace zel
}  // namespace nnhal
}  // namespace arv

extern "C" arv::nnhal::IAccelerator* CreateAccelerator_zel(arv::nnhal::IAcceleratorContext* context);
