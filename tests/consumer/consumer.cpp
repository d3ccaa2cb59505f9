// Loads the plug-in as a host does and adds two quantized 2x2 tensors on
// the runtime simulator. Prints "consumer: ok" and exits 0 when the outputs
// are the sums; otherwise says what went wrong and exits 1.
#include <cstdio>
#include <string>
#include <vector>

#include "zelhost/execution.h"
#include "zelhost/host_graph.h"
#include "zelhost/plugin_loader.h"

using namespace arv::nnhal;
using namespace arv::nnhal::host;

namespace {

int fail(const std::string& what) {
    std::fprintf(stderr, "consumer: %s\n", what.c_str());
    return 1;
}

}  // namespace

int main() {
    PluginLoader loader;
    const std::string error = loader.load(ZEL_PLUGIN, ZEL_RUNTIME);
    if (!error.empty()) return fail(error);
    IAccelerator* accelerator = loader.createAccelerator();
    if (accelerator == nullptr) return fail("no accelerator");

    // Scale 0.5 everywhere: stored values add as they are.
    HostGraph graph;
    const uint32_t a = graph.addQuant8({1, 2, 2, 1}, 0.5f, 0, Lifetime::Input);
    const uint32_t b = graph.addQuant8({1, 2, 2, 1}, 0.5f, 0, Lifetime::Input);
    const uint32_t none = graph.addInt32(0);
    const uint32_t sum = graph.addQuant8({1, 2, 2, 1}, 0.5f, 0, Lifetime::Output);
    graph.addOperation(OperationType::ADD, {a, b, none}, {sum});
    graph.setInputs({a, b});
    graph.setOutputs({sum});

    const std::vector<int> levels = querySupport(*accelerator, graph);
    if (!allSupported(levels)) return fail("ADD declined, level " + std::to_string(levels.empty() ? -1 : levels[0]));
    HostExecutorContext context;
    const CreateExecutorResult created = accelerator->createGraphExecutor(&graph, &context);
    if (created.status != Status::SUCCESS || created.executor == nullptr) {
        return fail("createGraphExecutor gave status " + std::to_string(static_cast<int>(created.status)));
    }
    IoBuffers buffers{{{1, 20, 100, 200}, {2, 30, 55, 50}}, {std::vector<uint8_t>(4, 0)}};
    const ExecuteResult executed = executeBound(graph, *created.executor, buffers);
    created.executor->release();
    accelerator->release();
    if (executed.status != Status::SUCCESS) {
        return fail("execute gave status " + std::to_string(static_cast<int>(executed.status)));
    }
    const std::vector<uint8_t> expected{3, 50, 155, 250};
    if (buffers.outputs[0] != expected) {
        return fail("outputs " + formatValues(ElementKind::Uint8, buffers.outputs[0], 4) + ", expected 3 50 155 250");
    }
    std::printf("consumer: ok (%s)\n", formatValues(ElementKind::Uint8, buffers.outputs[0], 4).c_str());
    return 0;
}
