#include "parallel.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

#include "zelsim/control.h"

namespace zelsim {
namespace parallel {

namespace {

// Default thread count: ZELSIM_THREADS when it is a positive number, else
// the number of cores.
unsigned defaultThreads() {
    if (const char* text = std::getenv("ZELSIM_THREADS")) {
        char* end = nullptr;
        const long value = std::strtol(text, &end, 10);
        if (end != text && *end == '\0' && value > 0) return static_cast<unsigned>(std::min<long>(value, 256));
    }
    return std::max(1u, std::thread::hardware_concurrency());
}

class Pool {
public:
    ~Pool() {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mStopping = true;
        }
        mWake.notify_all();
        for (std::thread& t : mWorkers) t.join();
    }

    unsigned threads() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mWanted;
    }
    void setThreads(unsigned count) {
        std::lock_guard<std::mutex> lock(mMutex);
        mWanted = count == 0 ? defaultThreads() : count;
    }

    void run(size_t count, size_t grain, const std::function<void(size_t, size_t)>& fn) {
        grain = std::max<size_t>(grain, 1);
        const size_t units = (count + grain - 1) / grain;
        std::unique_lock<std::mutex> busy(mBusy, std::try_to_lock);
        const unsigned wanted = threads();
        const size_t parts = std::min<size_t>(wanted, units);
        if (!busy.owns_lock() || parts <= 1) {
            if (count > 0) fn(0, count);
            return;
        }
        startWorkers(static_cast<unsigned>(parts - 1));
        // Range i covers units [i * units / parts, (i + 1) * units / parts).
        auto range = [&](size_t i, size_t* begin, size_t* end) {
            *begin = std::min(count, i * units / parts * grain);
            *end = std::min(count, (i + 1) * units / parts * grain);
        };
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mTask = [&](size_t i) {
                size_t b = 0, e = 0;
                range(i, &b, &e);
                if (b < e) fn(b, e);
            };
            mParts = parts;
            mNext = 1;
            mPending = parts - 1;
            ++mGeneration;
        }
        mWake.notify_all();
        size_t b = 0, e = 0;
        range(0, &b, &e);
        if (b < e) fn(b, e);
        std::unique_lock<std::mutex> lock(mMutex);
        mDone.wait(lock, [this] { return mPending == 0; });
        mTask = nullptr;
    }

private:
    void startWorkers(unsigned count) {
        std::lock_guard<std::mutex> lock(mMutex);
        while (mWorkers.size() < count) mWorkers.emplace_back([this] { work(); });
    }

    void work() {
        uint64_t seen = 0;
        std::unique_lock<std::mutex> lock(mMutex);
        for (;;) {
            mWake.wait(lock, [&] { return mStopping || (mGeneration != seen && mNext < mParts); });
            if (mStopping) return;
            const size_t part = mNext++;
            if (mNext >= mParts) seen = mGeneration;
            lock.unlock();
            mTask(part);
            lock.lock();
            if (--mPending == 0) mDone.notify_one();
        }
    }

    std::mutex mBusy;  // one parallelFor at a time; others run inline
    std::mutex mMutex;
    std::condition_variable mWake, mDone;
    std::vector<std::thread> mWorkers;
    std::function<void(size_t)> mTask;
    size_t mParts = 0, mNext = 0, mPending = 0;
    uint64_t mGeneration = 0;
    unsigned mWanted = defaultThreads();
    bool mStopping = false;
};

Pool& pool() {
    static Pool p;
    return p;
}

std::atomic<bool> gPortable{false};

}  // namespace

unsigned threadCount() {
    return pool().threads();
}

void parallelFor(size_t count, size_t grain, const std::function<void(size_t, size_t)>& fn) {
    pool().run(count, grain, fn);
}

bool portableKernels() {
#ifdef ZELSIM_LIBRARY_KERNELS
    return gPortable.load(std::memory_order_relaxed);
#else
    return true;
#endif
}

}  // namespace parallel

void setThreads(unsigned count) {
    parallel::pool().setThreads(count);
}

unsigned threads() {
    return parallel::threadCount();
}

void setPortableKernels(bool on) {
    parallel::gPortable.store(on, std::memory_order_relaxed);
}

bool hasLibraryKernels() {
#ifdef ZELSIM_LIBRARY_KERNELS
    return true;
#else
    return false;
#endif
}

}  // namespace zelsim
