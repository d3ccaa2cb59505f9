// Shared pieces of the lowering tests: the canonical one-operation graphs
// and a fixture that resets the simulator. Chains are compared as diagram
// lines (node_diagram.h).
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "log_capture.h"
#include "node_diagram.h"
#include "zel_model.h"
#include "zelhost/host_graph.h"
#include "zelsim/control.h"

namespace lowering {

using arv::nnhal::ExecutionPerformance;
using arv::nnhal::OperandType;
using arv::nnhal::OperationType;
using arv::nnhal::host::HostGraph;
using arv::nnhal::host::Lifetime;
using arv::nnhal::zel::ZelModel;
using zeltest::allAccepted;
using zeltest::expectChain;

constexpr ExecutionPerformance kSpeed = ExecutionPerformance::SUSTAINED_SPEED;

// Number of append_node plus append_const_node calls since the last reset.
inline int appendCalls() {
    return zelsim::callCount("append_node") + zelsim::callCount("append_const_node");
}

// `type` over `ins` into `outs`, with the graph's inputs and outputs.
void operation(HostGraph& g, OperationType type, const std::vector<uint32_t>& ins, const std::vector<uint32_t>& outs,
               const std::vector<uint32_t>& graphInputs);

// A graph of one quantized operation, built for both the support query and
// the lowering, with the node chain it lowers to when its quantized graph
// outputs go straight to the output node (empty: not written out).
struct Canonical {
    std::string name;
    std::function<void(HostGraph&)> build;
    std::vector<std::string> chain;
};

inline void PrintTo(const Canonical& c, std::ostream* os) {
    *os << c.name;
}

// One canonical graph per lowering-table row except TRANSPOSE_CONV_2D,
// which never lowers.
const std::vector<Canonical>& canonicalGraphs();
const Canonical& canonical(const std::string& name);

// Resets the simulator and captures the log for each test.
class LoweringTest : public ::testing::Test {
protected:
    void SetUp() override { zelsim::reset(); }

    std::unique_ptr<ZelModel> build(HostGraph& graph) { return std::unique_ptr<ZelModel>(ZelModel::create(&graph)); }

    // A model over `graph` with a fresh runtime graph and its input node,
    // ready for lowering functions to be called directly; `beforeInputs`
    // runs on the model before the input node is made.
    std::unique_ptr<ZelModel> attached(HostGraph& graph, const std::function<void(ZelModel&)>& beforeInputs = nullptr);

    std::vector<std::string> errorTexts() const { return zeltest::errorTexts(log); }

    zeltest::LogCapture log;
};

}  // namespace lowering
