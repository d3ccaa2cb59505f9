// Shared pieces of the lowering tests: node diagrams, the canonical
// one-operation graphs and a fixture that resets the simulator.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <ostream>
#include <memory>
#include <string>
#include <vector>

#include "log_capture.h"
#include "zel_model.h"
#include "zelhost/host_graph.h"
#include "zelsim/control.h"

namespace lowering {

using arv::nnhal::OperandType;
using arv::nnhal::OperationType;
using arv::nnhal::host::HostGraph;
using arv::nnhal::host::Lifetime;
using arv::nnhal::zel::ZelModel;

// One recorded node as a diagram line:
//   "11 QuantizedConv2d_8x8to32 pad=1 [1:0 2:0 ...] -> [1x3x3x1*4 1x1x1x1*4 ...]"
//   "4 const 1x1x1x1 f32 127.5"
// Op nodes name their op ("ZEL_OP_" dropped; codes without a name print as
// the number), padding, input references and output records (dims * element
// size). Constants print their dims and their data in the view that
// `expected` asks for after the dims: "f32", "i32", "u8", "shape" (one zero
// word) or anything else for "(N bytes)". Refused nodes start with
// "REFUSED ".
std::string diagram(const zelsim::RecordedNode& node, const std::string& expected);

// Compares the nodes of `graphId` with `expected`, one line a node.
void expectChain(int graphId, const std::vector<std::string>& expected);

// True when every node appended to `graphId` was accepted.
bool allAccepted(int graphId);

// Number of append_node plus append_const_node calls since the last reset.
int appendCalls();

// A graph of one quantized operation, built for both the support query and
// the lowering, with the node chain it lowers to when its quantized graph
// outputs go straight to the output node.
struct Canonical {
    std::string name;
    std::function<void(HostGraph&)> build;
    std::vector<std::string> chain;
};

// gtest prints a parameter by its name.
inline void PrintTo(const Canonical& c, std::ostream* os) { *os << c.name; }

// Every canonical graph: one or more per lowering-table row except
// TRANSPOSE_CONV_2D, which never lowers.
const std::vector<Canonical>& canonicalGraphs();

// Resets the simulator and captures the log for each test.
class LoweringTest : public ::testing::Test {
protected:
    void SetUp() override { zelsim::reset(); }

    // A model over `graph`; the test owns it.
    std::unique_ptr<ZelModel> build(HostGraph& graph) {
        return std::unique_ptr<ZelModel>(ZelModel::create(&graph));
    }

    // A model over `graph` with a fresh runtime graph and its input node,
    // ready for lowering functions to be called directly; `beforeInputs`
    // runs on the model before the input node is made.
    std::unique_ptr<ZelModel> attached(HostGraph& graph,
                                       const std::function<void(ZelModel&)>& beforeInputs = nullptr);

    // Error lines with their location stripped.
    std::vector<std::string> errorTexts() const;

    zeltest::LogCapture log;
};

}  // namespace lowering
