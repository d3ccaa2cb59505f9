// libFuzzer entry point: every input becomes a host graph that goes through
// the support query, executor creation and one execution.
#include "graph_decoder.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto graph = zelfuzz::decodeGraph(data, size);
    zelfuzz::exerciseGraph(*graph);
    return 0;
}
