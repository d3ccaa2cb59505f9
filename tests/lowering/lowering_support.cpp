#include "lowering_support.h"

#include <stdexcept>

#include "zel_kestrel_runtime.h"
#include "zel_test_peers.h"

namespace lowering {

void operation(HostGraph& g, OperationType type, const std::vector<uint32_t>& ins, const std::vector<uint32_t>& outs,
               const std::vector<uint32_t>& graphInputs) {
    g.addOperation(type, ins, outs);
    g.setInputs(graphInputs);
    g.setOutputs(outs);
}

const Canonical& canonical(const std::string& name) {
    for (const Canonical& c : canonicalGraphs()) {
        if (c.name == name) return c;
    }
    throw std::runtime_error("no canonical graph " + name);
}

std::unique_ptr<ZelModel> LoweringTest::attached(HostGraph& graph, const std::function<void(ZelModel&)>& beforeInputs) {
    std::unique_ptr<ZelModel> model = build(graph);
    if (!model) {
        ADD_FAILURE() << "the graph does not build";
        return model;
    }
    int id = 0;
    if (kestrel_zel_nn_init(&id) != 0 || id == 0) {
        ADD_FAILURE() << "the runtime gives no graph";
        return nullptr;
    }
    peer(*model).setGraphId(static_cast<uint32_t>(id));
    if (beforeInputs) beforeInputs(*model);
    EXPECT_TRUE(model->addInputs());
    return model;
}

}  // namespace lowering
