// Instruction-count driver: sets one scenario up, runs its action once to
// warm up, then runs it K times with callgrind instrumenting, so that setup
// and first-call costs stay out of the count. Run it as
//   valgrind --tool=callgrind --instr-atstart=no --collect-atstart=yes
//            --separate-threads=yes zel_bench_count SCENARIO GRAPH K
// and divide the instructions by K. Thread 1 is the calling thread (its
// collection is switched off around release() and while waiting); the
// other threads are the plug-in's power voting thread, counted for as long
// as instrumentation is on: after the K actions the driver waits until the
// votes the actions cast have fallen due and the voting thread's queue
// stops changing, so the work the actions queued is in the count. It waits
// the same way after the warm-up, so every count starts with a quiet
// queue. Without valgrind the client requests do nothing, nothing waits and
// the program is a quick functional check.
//
// Scenarios (the runtime is the simulator, linked into this program):
//   support           isGraphSupported on GRAPH
//   prepare           createGraphExecutor, simulator in pass-through mode
//                     (release() is run with collection off)
//   prepare-validated createGraphExecutor, simulator validating every node
//   execute           ZelExecutor::execute on GRAPH prepared in pass-through
//   execute-direct    kestrel_zel_nn_execute_new with the same tensor
//                     records, straight into the runtime
//   version-direct    kestrel_zel_nn_version straight into the runtime (the
//                     runtime's part of the plug-in's health probe)
//
// Prints one line: scenario=... graph=... k=... operations=... bytes=...
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

#include "bench_support.h"
#include "zel_accelerator.h"
#include "zel_test_peers.h"
#include "zelsim/control.h"

#if defined(ZEL_HAVE_CALLGRIND_H)
#include <valgrind/callgrind.h>
#else
#define CALLGRIND_START_INSTRUMENTATION
#define CALLGRIND_STOP_INSTRUMENTATION
#define CALLGRIND_TOGGLE_COLLECT
#define RUNNING_ON_VALGRIND 0
#endif

namespace {

using arv::nnhal::IGraphExecutor;
using arv::nnhal::Status;
using zelbench::HostGraph;

int usage() {
    std::fprintf(stderr,
                 "usage: zel_bench_count SCENARIO GRAPH K\n"
                 "  SCENARIO: support | prepare | prepare-validated | execute | execute-direct | version-direct\n"
                 "  GRAPH:    mobilenet[:SIZE] | chain:N | wide:BYTES\n");
    return 2;
}

// Under valgrind, gives the voting thread time to handle what the actions
// queued: down votes and token releases fall due 5 s after they are cast,
// so it waits 5.5 s, then until the queue has kept its size for 200 ms
// (at most a minute more).
void settle() {
    if (!RUNNING_ON_VALGRIND) return;
    auto lib = arv::nnhal::zel::Controller::getInstance()->getNnLib();
    if (!lib || peer(lib).votingThread() == nullptr) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(5500));
    size_t last = peer(peer(lib).votingThread()).queueSize();
    int stable = 0;
    for (int polls = 0; polls < 3000 && stable < 10; ++polls) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        const size_t now = peer(peer(lib).votingThread()).queueSize();
        stable = now == last ? stable + 1 : 0;
        last = now;
    }
}

// Runs `action` once uncounted, then K times counted. `uncounted` (may be
// empty) runs after each action with the calling thread's collection off.
void measure(unsigned k, const std::function<bool()>& action, const std::function<void()>& uncounted) {
    if (!action()) std::exit(1);
    if (uncounted) uncounted();
    settle();
    CALLGRIND_START_INSTRUMENTATION;
    for (unsigned i = 0; i < k; ++i) {
        const bool ok = action();
        if (uncounted) {
            CALLGRIND_TOGGLE_COLLECT;
            uncounted();
            CALLGRIND_TOGGLE_COLLECT;
        }
        if (!ok) {
            std::fprintf(stderr, "action %u failed\n", i);
            std::exit(1);
        }
    }
    CALLGRIND_TOGGLE_COLLECT;
    settle();
    CALLGRIND_TOGGLE_COLLECT;
    CALLGRIND_STOP_INSTRUMENTATION;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) return usage();
    const std::string scenario = argv[1];
    const std::string graphName = argv[2];
    const unsigned k = static_cast<unsigned>(std::strtoul(argv[3], nullptr, 10));
    if (k == 0) return usage();
    std::unique_ptr<HostGraph> graph = zelbench::makeGraph(graphName);
    if (!graph) return usage();

    zelsim::reset();
    zelsim::setPassThrough(scenario != "prepare-validated");
    IGraphExecutor* last = nullptr;

    if (scenario == "support") {
        arv::nnhal::host::HostSupportQuery query(graph->getOperationCount());
        measure(k,
                [&] {
                    zelbench::accelerator()->isGraphSupported(graph.get(), &query);
                    return query.calls() > 0 || graph->getOperationCount() == 0;
                },
                {});
    } else if (scenario == "prepare" || scenario == "prepare-validated") {
        measure(
            k,
            [&] {
                last = zelbench::prepare(*graph);
                return last != nullptr;
            },
            [&] {
                if (last != nullptr) last->release();
                last = nullptr;
            });
    } else if (scenario == "execute" || scenario == "execute-direct" || scenario == "version-direct") {
        IGraphExecutor* executor = zelbench::prepare(*graph);
        if (executor == nullptr) return 1;
        const int graphId = zelbench::runtimeGraphId(executor);
        zelbench::Bindings bindings(*graph);
        auto& ins = bindings.inputs();
        auto& outs = bindings.outputs();
        if (scenario == "execute") {
            measure(k, [&] { return executor->execute().status == Status::SUCCESS; }, {});
        } else if (scenario == "execute-direct") {
            measure(k,
                    [&] {
                        return kestrel_zel_nn_execute_new(graphId, ins.data(), static_cast<unsigned>(ins.size()),
                                                          outs.data(), static_cast<unsigned>(outs.size())) == 0;
                    },
                    {});
        } else {
            measure(k,
                    [&] {
                        int version = 0;
                        return kestrel_zel_nn_version(&version) == 0 && version != 0;
                    },
                    {});
        }
        executor->release();
    } else {
        return usage();
    }

    std::printf("scenario=%s graph=%s k=%u operations=%u bytes=%llu\n", scenario.c_str(), graphName.c_str(), k,
                zelbench::operationCount(*graph), static_cast<unsigned long long>(zelbench::constantBytes(*graph)));
    return 0;
}
