// The plug-in's front end (factory, accelerator, executor) and the runtime
// link: the dlopen'ed runtime library, its process-wide owner and the power
// voting thread.
#include "zel_accelerator.h"

#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <exception>
#include <limits>
#include <sstream>

#include "zel_model.h"
#include "zel_utils.h"

namespace arv {
namespace nnhal {
namespace zel {

namespace {

// Tokens are unique in the process, whatever VotingThread hands them out.
std::atomic<uint64_t> gVotingTokenCounter{0};

using TimePoint = VotingThread::TimePoint;

TimePoint systemNow() {
    return std::chrono::time_point_cast<std::chrono::microseconds>(std::chrono::system_clock::now());
}

// How long a worker driven by an injected clock sleeps before it looks at
// that clock again.
constexpr std::chrono::milliseconds kInjectedClockPoll{1};

// Text of the loader's last error, "" when it has none.
std::string loaderError() {
    const char* text = dlerror();
    return text != nullptr ? std::string(text) : std::string();
}

}  // namespace

// ===========================================================================
// VotingThread

VotingThread::VotingThread(NnLib* lib) : VotingThread(lib, Delays{}) {}

VotingThread::VotingThread(NnLib* lib, Delays delays)
    : mNnLib(lib),
      // Running from the start: an exit() that comes before the worker has
      // been scheduled must not be lost, or the destructor would wait forever.
      mRunning(true),
      mDelays(delays) {
    mTokens.max_load_factor(1.0f);
    mThread = std::make_unique<std::thread>(&VotingThread::votingThreadFunc, this);
}

VotingThread::~VotingThread() {
    exit();
    if (mThread && mThread->joinable()) mThread->join();
}

uint64_t VotingThread::generateVotingToken() {
    std::lock_guard<std::mutex> lock(mMutex);
    const uint64_t token = ++gVotingTokenCounter;
    mTokens[token] = 0;
    return token;
}

void VotingThread::releaseVotingToken(uint64_t token) {
    bool wake = false;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mTokens.find(token) == mTokens.end()) return;
        wake = enqueueMessageLocked(token, Message::TOKEN_RELEASE, mDelays.release);
    }
    if (wake) mCondition.notify_all();
}

bool VotingThread::enqueueVote(uint64_t token, VoteType type) {
    bool wake = false;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        switch (type) {
            case UP: wake = enqueueMessageLocked(token, Message::UP_VOTE, std::chrono::microseconds(0)); break;
            case DOWN: wake = enqueueMessageLocked(token, Message::DOWN_VOTE, mDelays.release); break;
            default:
                handle_error_info("Invalid vote type: " + std::to_string(static_cast<uint32_t>(type)));
                return false;
        }
    }
    // Woken after the lock is given back, so that the worker does not wake
    // only to block on the mutex this thread still holds.
    if (wake) mCondition.notify_all();
    return true;
}

void VotingThread::keepThreadAlive() {
    if (mThread && mThread->get_id() != std::thread::id()) return;
    mThread = std::make_unique<std::thread>(&VotingThread::votingThreadFunc, this);
}

void VotingThread::exit() {
    std::lock_guard<std::mutex> lock(mMutex);
    handle_debug_info("Closing VotingThread ...");
    mRunning = false;
    mCondition.notify_all();
}

int64_t VotingThread::tokenCount(uint64_t token) {
    std::lock_guard<std::mutex> lock(mMutex);
    const auto it = mTokens.find(token);
    if (it == mTokens.end()) return -1;
    return static_cast<int64_t>(it->second);
}

size_t VotingThread::tokenTotal() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mTokens.size();
}

size_t VotingThread::queueSize() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mQueue.size();
}

size_t VotingThread::queuedCount(Message::Type type) {
    std::lock_guard<std::mutex> lock(mMutex);
    return static_cast<size_t>(std::count_if(
        mQueue.begin(), mQueue.end(), [type](const Queue::value_type& queued) { return queued.second.type == type; }));
}

void VotingThread::votingThreadFunc() {
    handle_debug_info("Starting VotingThread ...");
    waitForVote();
}

void VotingThread::waitForVote() {
    std::unique_lock<std::mutex> lock(mMutex);
    while (mRunning) {
        if (mQueue.empty()) {
            mCondition.wait(lock);
            continue;
        }
        const Message first = peekFirstMessage();
        if (!mDelays.clock) {
            if (std::chrono::system_clock::now() < first.time) {
                mCondition.wait_until(lock, first.time);
                continue;
            }
        } else if (mDelays.clock() < first.time) {
            mCondition.wait_for(lock, kInjectedClockPoll);
            continue;
        }
        // The front is the message just peeked; the others keep their order.
        if (first.type == Message::DOWN_VOTE_TIMEOUT) {
            const auto indexed = mTimeouts.find(first.token);
            if (indexed != mTimeouts.end() && indexed->second == mQueue.begin()) mTimeouts.erase(indexed);
        }
        mQueue.erase(mQueue.begin());
        Message handled = first;
        try {
            handleMessageLocked(handled);
        } catch (const std::exception&) {
            // Out of memory while handling one message: drop it and go on.
        }
    }
}

bool VotingThread::enqueueMessageLocked(uint64_t token, Message::Type type, std::chrono::microseconds delay) {
    const TimePoint now = mDelays.clock ? mDelays.clock() : systemNow();
    const TimePoint due = now + delay;
    const Queue::iterator queued = mQueue.emplace(due, Message{token, type, due});
    if (type == Message::DOWN_VOTE_TIMEOUT) mTimeouts[token] = queued;
    // The worker sleeps until the front message falls due; only a new front
    // changes that moment. A message queued behind it is found in time
    // without waking the worker.
    return queued == mQueue.begin();
}

VotingThread::Message VotingThread::peekFirstMessage() {
    return mQueue.begin()->second;
}

void VotingThread::setCountLocked(std::unordered_map<uint64_t, uint64_t>::iterator entry, uint64_t count) {
    if (entry->second == 0 && count != 0) ++mBusyTokens;
    if (entry->second != 0 && count == 0) --mBusyTokens;
    entry->second = count;
}

void VotingThread::eraseTokenLocked(std::unordered_map<uint64_t, uint64_t>::iterator entry) {
    setCountLocked(entry, 0);
    mTokens.erase(entry);
}

void VotingThread::handleMessageLocked(Message& msg) {
    auto it = mTokens.find(msg.token);
    if (it == mTokens.end()) {
        switch (msg.type) {
            case Message::TOKEN_RELEASE:
                handle_debug_info("Token released but already timed out: " + std::to_string(msg.token));
                break;
            case Message::DOWN_VOTE_TIMEOUT:
                handle_debug_info("Token down vote timedout but already released : " + std::to_string(msg.token));
                break;
            default:
                handle_debug_info("Voting message not handled: " + std::to_string(static_cast<uint32_t>(msg.type)));
                break;
        }
        return;
    }

    const uint64_t token = msg.token;
    auto sameToken = [token](Message& queued) { return queued.token == token; };

    switch (msg.type) {
        case Message::UP_VOTE:
            if (mBusyTokens == 0) vote(UP);
            setCountLocked(it, it->second + 1);
            removeQueuedMessagesLocked(Message::DOWN_VOTE_TIMEOUT, sameToken);
            enqueueMessageLocked(token, Message::DOWN_VOTE_TIMEOUT, mDelays.timeout);
            break;
        case Message::DOWN_VOTE:
            // No check against 0 on purpose: an unmatched down vote wraps
            // (written out, so that the integer checks see no overflow).
            setCountLocked(it, it->second == 0 ? std::numeric_limits<decltype(it->second)>::max() : it->second - 1);
            if (mBusyTokens == 0) vote(DOWN);
            if (it->second == 0) removeQueuedMessagesLocked(Message::DOWN_VOTE_TIMEOUT, sameToken);
            break;
        case Message::DOWN_VOTE_TIMEOUT:
        case Message::TOKEN_RELEASE: {
            const uint64_t held = it->second;
            eraseTokenLocked(it);
            if (held != 0 && mBusyTokens == 0) vote(DOWN);
            break;
        }
    }
}

void VotingThread::removeQueuedMessagesLocked(Message::Type type, std::function<bool(Message&)> predicate) {
    if (type == Message::DOWN_VOTE_TIMEOUT) {
        // Only the timeouts are visited: one per token that holds votes.
        for (auto entry = mTimeouts.begin(); entry != mTimeouts.end();) {
            if (predicate(entry->second->second)) {
                mQueue.erase(entry->second);
                entry = mTimeouts.erase(entry);
            } else {
                ++entry;
            }
        }
        return;
    }
    for (auto queued = mQueue.begin(); queued != mQueue.end();) {
        queued = queued->second.type == type && predicate(queued->second) ? mQueue.erase(queued) : std::next(queued);
    }
}

void VotingThread::vote(VoteType type) {
    std::ostringstream os;
    os << "Voting " << static_cast<uint32_t>(type) << " " << static_cast<const void*>(this);
    handle_debug_info(os.str());
    int rc = -1;
    if (mNnLib != nullptr && mNnLib->hasPowersaveLevel()) rc = mNnLib->set_powersave_level(type);
    if (rc != 0) handle_debug_info("Kestrel failed to set power save level");
}

// ===========================================================================
// NnLib

NnLib::NnLib() : mVotingThread(std::make_unique<VotingThread>(this)) {}

NnLib::NnLib(VotingThread::Delays delays) : mVotingThread(std::make_unique<VotingThread>(this, delays)) {}

// The library is not closed here: closing is the controller's business.
NnLib::~NnLib() = default;

namespace {
// Set only by tests, through NnLib::setNewLibraryDelays.
std::mutex gTestDelaysMutex;
std::unique_ptr<VotingThread::Delays> gTestDelays;
}  // namespace

void NnLib::setNewLibraryDelays(const VotingThread::Delays& delays) {
    std::lock_guard<std::mutex> lock(gTestDelaysMutex);
    gTestDelays = std::make_unique<VotingThread::Delays>(delays);
}

std::shared_ptr<NnLib> NnLib::makeNnLib() {
    try {
        std::unique_ptr<VotingThread::Delays> delays;
        {
            std::lock_guard<std::mutex> lock(gTestDelaysMutex);
            if (gTestDelays) delays = std::make_unique<VotingThread::Delays>(*gTestDelays);
        }
        std::shared_ptr<NnLib> lib(delays ? new NnLib(*delays) : new NnLib);
        lib->load();
        return lib;
    } catch (...) {
        return std::shared_ptr<NnLib>();
    }
}

void NnLib::load() {
    mHandle = dlopen(kZelRuntimeLibrary, RTLD_LAZY);
    if (mHandle == nullptr) {
        handle_error_info(std::string("Failed to load ") + kZelRuntimeLibrary + ", error string: " + loaderError());
        return;
    }

    mInit = loadFunction<InitFn>("kestrel_zel_nn_init");
    mGetlog = loadFunction<GetlogFn>("kestrel_zel_nn_getlog");
    mSnpprint = loadFunction<GetlogFn>("kestrel_zel_nn_snpprint");
    mSetDebugLevel = loadFunction<SetDebugLevelFn>("kestrel_zel_nn_set_debug_level");
    mPrepare = loadFunction<PrepareFn>("kestrel_zel_nn_prepare");
    mAppendNode = loadFunction<AppendNodeFn>("kestrel_zel_nn_append_node");
    mAppendConstNode = loadFunction<AppendConstNodeFn>("kestrel_zel_nn_append_const_node");
    mExecuteNew = loadFunction<ExecuteNewFn>("kestrel_zel_nn_execute_new");
    mExecute = loadFunction<ExecuteFn>("kestrel_zel_nn_execute");
    mTeardown = loadFunction<TeardownFn>("kestrel_zel_nn_teardown");
    mVersion = loadFunction<VersionFn>("kestrel_zel_nn_version");
    mConfig = loadFunction<ConfigFn>("kestrel_zel_nn_config");
    mSetConfigParams = loadFunction<SetConfigParamsFn>("kestrel_zel_nn_set_config_params");
    // The power-save entry is never looked up: its slot stays empty.

    // A runtime that cannot be configured is closed again at once.
    if (mConfig == nullptr || mConfig() != 0) resetFunctors();
}

template <typename F>
F NnLib::loadFunction(const char* name) {
    if (name == nullptr) {
        handle_error_info("loadFunction -- attempt to load funtion with NULL name");
        return nullptr;
    }
    // Without a handle dlsym would search the whole process; refuse instead.
    void* symbol = mHandle != nullptr ? dlsym(mHandle, name) : nullptr;
    if (symbol == nullptr) {
        handle_error_info(std::string("loadFunction -- failed to load function ") + name);
        return nullptr;
    }
    return reinterpret_cast<F>(symbol);
}

// Raw lookups, for tools and tests that probe the library.
template void* NnLib::loadFunction<void*>(const char* name);

void NnLib::resetFunctors() {
    std::lock_guard<std::recursive_mutex> lock(mMutex);
    // Waits for the calls under way: the library is never closed under one.
    std::unique_lock<std::shared_mutex> calls(mCallMutex);
    mInit = nullptr;
    mGetlog = nullptr;
    mSnpprint = nullptr;
    mSetDebugLevel = nullptr;
    mPrepare = nullptr;
    mAppendNode = nullptr;
    mAppendConstNode = nullptr;
    mExecuteNew = nullptr;
    mExecute = nullptr;
    mTeardown = nullptr;
    mVersion = nullptr;
    mConfig = nullptr;
    mSetConfigParams = nullptr;
    if (mHandle != nullptr) {
        if (dlclose(mHandle) != 0) {
            handle_error_info(std::string("Failed to close ") + kZelRuntimeLibrary +
                              " library, error string: " + loaderError());
        }
        mHandle = nullptr;
    }
}

int NnLib::config() {
    std::shared_lock<std::shared_mutex> call(mCallMutex);
    return mConfig != nullptr ? mConfig() : -1;
}

int NnLib::init(int* graph_id) {
    std::shared_lock<std::shared_mutex> call(mCallMutex);
    return mInit != nullptr ? mInit(graph_id) : -1;
}

int NnLib::getlog(int graph_id, unsigned char* buf, unsigned int length) {
    std::shared_lock<std::shared_mutex> call(mCallMutex);
    return mGetlog != nullptr ? mGetlog(graph_id, buf, length) : -1;
}

int NnLib::snpprint(int graph_id, unsigned char* buf, unsigned int length) {
    std::shared_lock<std::shared_mutex> call(mCallMutex);
    return mSnpprint != nullptr ? mSnpprint(graph_id, buf, length) : -1;
}

int NnLib::set_debug_level(int graph_id, int level) {
    std::shared_lock<std::shared_mutex> call(mCallMutex);
    return mSetDebugLevel != nullptr ? mSetDebugLevel(graph_id, level) : -1;
}

int NnLib::prepare(int graph_id) {
    std::shared_lock<std::shared_mutex> call(mCallMutex);
    return mPrepare != nullptr ? mPrepare(graph_id) : -1;
}

int NnLib::append_node(int graph_id, unsigned int node_id, zel_op_type_enum operation, int padding,
                       const kestrel_zel_nn_input* inputs, unsigned int num_inputs,
                       const kestrel_zel_nn_output* outputs, unsigned int num_outputs) {
    std::shared_lock<std::shared_mutex> call(mCallMutex);
    if (mAppendNode == nullptr) return -1;
    return mAppendNode(graph_id, node_id, operation, padding, inputs, num_inputs, outputs, num_outputs);
}

int NnLib::append_const_node(int graph_id, unsigned int node_id, unsigned int batches, unsigned int height,
                             unsigned int width, unsigned int depth, const unsigned char* data, unsigned int data_len) {
    std::shared_lock<std::shared_mutex> call(mCallMutex);
    if (mAppendConstNode == nullptr) return -1;
    return mAppendConstNode(graph_id, node_id, batches, height, width, depth, data, data_len);
}

int NnLib::execute_new(int graph_id, const kestrel_zel_nn_tensordef* inputs, unsigned int num_inputs,
                       kestrel_zel_nn_tensordef* outputs, unsigned int num_outputs) {
    std::shared_lock<std::shared_mutex> call(mCallMutex);
    if (mExecuteNew == nullptr) return -1;
    return mExecuteNew(graph_id, inputs, num_inputs, outputs, num_outputs);
}

int NnLib::execute(int graph_id, unsigned int batches_in, unsigned int height_in, unsigned int width_in,
                   unsigned int depth_in, const unsigned char* data_in, unsigned int data_len_in,
                   unsigned int* batches_out, unsigned int* height_out, unsigned int* width_out,
                   unsigned int* depth_out, unsigned char* data_out, unsigned int data_out_max,
                   unsigned int* data_out_size) {
    std::shared_lock<std::shared_mutex> call(mCallMutex);
    if (mExecute == nullptr) return -1;
    return mExecute(graph_id, batches_in, height_in, width_in, depth_in, data_in, data_len_in, batches_out, height_out,
                    width_out, depth_out, data_out, data_out_max, data_out_size);
}

int NnLib::teardown(int graph_id) {
    std::shared_lock<std::shared_mutex> call(mCallMutex);
    return mTeardown != nullptr ? mTeardown(graph_id) : -1;
}

int NnLib::version(int* version) {
    std::shared_lock<std::shared_mutex> call(mCallMutex);
    return mVersion != nullptr ? mVersion(version) : -1;
}

int NnLib::set_config_params(int graph_id, kestrel_zel_nn_config_enum param, void* value) {
    std::shared_lock<std::shared_mutex> call(mCallMutex);
    return mSetConfigParams != nullptr ? mSetConfigParams(graph_id, param, value) : -1;
}

int NnLib::set_powersave_level(unsigned int level) {
    std::shared_lock<std::shared_mutex> call(mCallMutex);
    return mSetPowersaveLevel != nullptr ? mSetPowersaveLevel(level) : -1;
}

void NnLib::asyncVote(uint64_t token, VotingThread::VoteType type) {
    mVotingThread->keepThreadAlive();
    mVotingThread->enqueueVote(token, type);
}

uint64_t NnLib::generateVotingToken() {
    return mVotingThread->generateVotingToken();
}

void NnLib::releaseVotingToken(uint64_t token) {
    mVotingThread->releaseVotingToken(token);
}

// ===========================================================================
// Controller

Controller* Controller::getInstance() {
    static Controller instance;
    return &instance;
}

Controller::Controller() {
    openNnLib();
}

Controller::~Controller() {
    closeNnLib();
}

bool Controller::openNnLib() {
    if (mNnLib) mNnLib->resetFunctors();
    mNnLib = NnLib::makeNnLib();
    if (!mNnLib) return false;
    if (mNnLib->hasPowersaveLevel()) mNnLib->set_powersave_level(VotingThread::DOWN);
    return true;
}

bool Controller::closeNnLib() {
    handle_debug_info("Closing NnLib()...");
    if (!mNnLib) return true;
    mNnLib->resetFunctors();
    mNnLib.reset();
    return true;
}

bool Controller::resetNnLib() {
    std::lock_guard<std::mutex> lock(mMutex);
    handle_debug_info("NnLib reset !!!");
    closeNnLib();
    return openNnLib();
}

bool Controller::heartBeat() {
    handle_debug_info("In Controller::heartBeat()");
    // A copy taken under the lock: a host may release an accelerator (and
    // so replace the binding) while another of its threads probes.
    std::shared_ptr<NnLib> lib;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        lib = mNnLib;
    }
    bool result = false;
    if (lib) {
        int version = 0;
        // The wrapper answers -1 when the entry is not bound.
        const int rc = lib->version(&version);
        const bool hasError = rc != 0 || version != kZelExpectedVersion;
        char text[64];
        std::snprintf(text, sizeof text, "ZEL version: %x, has error: %s", static_cast<unsigned>(version),
                      hasError ? "Yes" : "No");
        handle_debug_info(text);
        result = !hasError;
    }
    handle_debug_info("Out Controller::heartBeat()");
    return result;
}

std::shared_ptr<NnLib> Controller::getNnLib() {
    std::lock_guard<std::mutex> lock(mMutex);
    handle_debug_info("Controller::getNnLib()");
    return mNnLib;
}

// ===========================================================================
// ZelExecutor

ZelExecutor::ZelExecutor(IGraph* graph)
    : mGraph(graph), mModel(nullptr), mGraphId(0), mPerformance(ExecutionPerformance::SUSTAINED_SPEED) {}

ZelExecutor* ZelExecutor::create(IGraph* graph, IExecutorContext* context) {
    ZelExecutor* executor = nullptr;
    try {
        handle_debug_info("In ZelExecutor::create()");
        executor = new ZelExecutor(graph);
        executor->mModel = ZelModel::create(graph);
        if (executor->mModel == nullptr) {
            executor->release();
            executor = nullptr;
        } else {
            executor->mPerformance = ExecutionPerformance::SUSTAINED_SPEED;
            if (context != nullptr) executor->mPerformance = context->getExecutionPerformance(0);
            if (executor->mModel->prepare(executor->mPerformance)) {
                executor->mGraphId = executor->mModel->graphId();
            } else {
                executor->release();
                executor = nullptr;
            }
        }
    } catch (...) {
        if (executor != nullptr) executor->release();
        executor = nullptr;
    }
    try {
        handle_debug_info("Out ZelExecutor::create()");
    } catch (...) {
    }
    return executor;
}

ExecuteResult ZelExecutor::execute() {
    try {
        handle_debug_info("In ZelExecutor::execute()");
        ExecuteResult result{Status::SUCCESS, 0};
        if (!isZelAvailable()) return ExecuteResult{Status::ACCELERATOR_UNAVAILABLE, 0};

        const bool ok = mModel != nullptr && mModel->execute(mGraph);
        result.status = ok ? Status::SUCCESS : Status::GENERAL_FAILURE;
        if (!ok && !isZelAvailable()) {
            // The runtime went away during the execution.
            result.status = Status::ACCELERATOR_UNAVAILABLE;
            handle_error_info("model->execute(mGraph) failed, error code: " +
                              std::to_string(static_cast<int32_t>(result.status)));
            handle_debug_info("Out ZelExecutor::execute()");
            return result;
        }
        // Also logged after a failure with a healthy runtime; kept as is.
        handle_debug_info("model->execute(mGraph) finished.");
        handle_debug_info("Out ZelExecutor::execute()");
        return result;
    } catch (...) {
        return ExecuteResult{Status::GENERAL_FAILURE, 0};
    }
}

void ZelExecutor::release() {
    mGraph = nullptr;
    if (mModel != nullptr) {
        delete mModel;
        mModel = nullptr;
    }
    delete this;
}

// ===========================================================================
// ZelAccelerator

std::string ZelAccelerator::mIdentifier = "zel";

const char* ZelAccelerator::getUniqueIdentifier() {
    return mIdentifier.c_str();
}

int ZelAccelerator::getVersion() {
    return 0;
}

bool ZelAccelerator::getCapability(AcceleratorCapability capability) {
    return (static_cast<int32_t>(capability) & ~1) == 2;
}

void ZelAccelerator::isGraphSupported(IGraph* graph, IGraphOperationSupportLevelQuery* query) {
    ZelModel* model = nullptr;
    try {
        handle_debug_info("In ZelAccelerator::isGraphSupported()");
        model = ZelModel::create(graph);
        if (model == nullptr) return;
        handle_debug_info("Total number of operations: " + std::to_string(graph->getOperationCount()));
        for (uint32_t i = 0; i < graph->getOperationCount(); ++i) {
            handle_debug_info("operation id: " + std::to_string(i));
            const int level = model->getOperationSupportLevel(graph->getOperation(i));
            if (query != nullptr) query->setOperationSupportLevel(i, level);
        }
        delete model;
        model = nullptr;
        handle_debug_info("Out ZelAccelerator::isGraphSupported()");
    } catch (...) {
        delete model;
    }
}

CreateExecutorResult ZelAccelerator::createGraphExecutor(IGraph* graph, IExecutorContext* context) {
    ZelExecutor* executor = nullptr;
    try {
        handle_debug_info("In ZelAccelerator::createGraphExecutor()");
        if (!isZelAvailable()) return CreateExecutorResult{Status::ACCELERATOR_UNAVAILABLE, nullptr};

        executor = ZelExecutor::create(graph, context);
        // A second probe tells a runtime that died during the build apart
        // from a graph that the runtime refused.
        if (executor == nullptr && !isZelAvailable()) {
            return CreateExecutorResult{Status::ACCELERATOR_UNAVAILABLE, nullptr};
        }
        const CreateExecutorResult result = executor == nullptr ? CreateExecutorResult{Status::GENERAL_FAILURE, nullptr}
                                                                : CreateExecutorResult{Status::SUCCESS, executor};
        handle_debug_info("Out ZelAccelerator::createGraphExecutor()");
        return result;
    } catch (...) {
        if (executor != nullptr) executor->release();
        return CreateExecutorResult{Status::GENERAL_FAILURE, nullptr};
    }
}

void ZelAccelerator::release() {
    try {
        Controller::getInstance()->resetNnLib();
    } catch (...) {
    }
    mContext = nullptr;  // the host's, not ours: only forgotten
    delete this;
}

}  // namespace zel
}  // namespace nnhal
}  // namespace arv

extern "C" __attribute__((visibility("default"))) arv::nnhal::IAccelerator* CreateAccelerator_zel(
    arv::nnhal::IAcceleratorContext* context) {
    try {
        return new arv::nnhal::zel::ZelAccelerator(context);
    } catch (...) {
        return nullptr;
    }
}
