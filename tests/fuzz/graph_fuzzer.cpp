// libFuzzer entry point: every input becomes a host graph that goes through
// the support query, executor creation and one execution. A graph whose
// every operation was reported supported must get an executor (outside the
// known gaps); a failure there aborts as a finding. Faults armed through
// ZELSIM_FAULTS make failures expected, so the promise is not held then.
// ZEL_FUZZ_LOG=1 prints the plug-in's log lines (to read a finding).
#include <android/log.h>

#include <cstdio>
#include <cstdlib>

#include "graph_decoder.h"
#include "zelsim/control.h"

namespace {
void printLine(int, const char*, const char* text, void*) {
    std::fprintf(stderr, "%s\n", text);
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool faultsArmed = std::getenv("ZELSIM_FAULTS") != nullptr;
    static const bool logged =
        std::getenv("ZEL_FUZZ_LOG") != nullptr && zel_log_set_sink(printLine, nullptr) == nullptr;
    (void)logged;
    auto graph = zelfuzz::decodeGraph(data, size);
    const zelfuzz::Outcome outcome = zelfuzz::exerciseGraph(*graph);
    if (!faultsArmed) {
        const std::string broken = zelfuzz::brokenPromise(*graph, outcome);
        if (!broken.empty()) {
            std::fprintf(stderr, "finding: %s (runtime: %s)\n", broken.c_str(),
                         zelsim::lastError(zelsim::lastGraphId()).c_str());
            std::abort();
        }
    }
    return 0;
}
