// One-operation host graphs for the support-check tests: a builder over
// HostGraph, the model built from it, and the canonical form of every
// operation in the support table.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "log_capture.h"
#include "zel_model.h"
#include "zel_operations_check_quant8.h"
#include "zelhost/host_graph.h"

namespace checktest {

using arv::nnhal::OperandType;
using arv::nnhal::OperationType;
using arv::nnhal::host::HostGraph;
using arv::nnhal::zel::OperationCheckFn;
using arv::nnhal::zel::ZelModel;

// A graph that holds exactly one operation. Operands are added through the
// helpers; `ins` and `outs` are the operation's lists, free to edit until
// model() adds the operation and reads the graph.
class OpGraph {
public:
    explicit OpGraph(OperationType type, OperandType tensorType = OperandType::TENSOR_QUANT8);

    // A tensor of the graph's element type fed by the host at execution.
    uint32_t tensorInput(std::vector<uint32_t> dims, float scale = 0.5f, int32_t zeroPoint = 0);
    // A constant tensor of the graph's element type (zero bytes).
    uint32_t tensorConstant(std::vector<uint32_t> dims, float scale = 0.5f, int32_t zeroPoint = 0);
    // A graph output of the graph's element type.
    uint32_t tensorOutput(std::vector<uint32_t> dims, float scale = 0.5f, int32_t zeroPoint = 0);
    // The bias of a convolution: int32 for quant8 graphs, float otherwise.
    uint32_t biasConstant(std::vector<uint32_t> dims, float scale);
    uint32_t int32Tensor(std::vector<uint32_t> dims, const std::vector<int32_t>& values);
    uint32_t scalar(int32_t value);
    // An int32 scalar declared constant but without data.
    uint32_t emptyScalar();

    void setScalar(uint32_t operand, int32_t value);
    // Replaces an operand's data with int32 values (its dims stay).
    void setInt32s(uint32_t operand, const std::vector<int32_t>& values);
    void setDims(uint32_t operand, std::vector<uint32_t> dims);
    // Turns a constant into a graph input: not constant, no data while queried.
    void makeGraphInput(uint32_t operand);

    // The model over the graph, built on the first call.
    ZelModel* model();
    arv::nnhal::IOperation* operation();
    std::vector<uint32_t> dims(uint32_t operand) { return model()->getShape(operand).dimensions; }

    OperationType type;
    OperandType tensorType;
    std::vector<uint32_t> ins;
    std::vector<uint32_t> outs;
    HostGraph graph;

private:
    std::vector<uint32_t> mGraphInputs;
    std::vector<uint32_t> mGraphOutputs;
    std::unique_ptr<ZelModel> mModel;
};

// Window forms of the convolution and pooling operations.
enum class Form { ImplicitSame, ImplicitValid, ExplicitSame, ExplicitValid };
std::string formName(Form form);

// Canonical operations; each fills g.ins/g.outs and returns the output
// dimensions the check must infer. `act` is the fused activation code.
std::vector<uint32_t> conv2d(OpGraph& g, Form form, int32_t act = 0);
std::vector<uint32_t> depthwiseConv2d(OpGraph& g, Form form, int32_t act = 0);
std::vector<uint32_t> fullyConnected(OpGraph& g, int32_t act = 0);
std::vector<uint32_t> elementWise(OpGraph& g, int32_t act = 0);
std::vector<uint32_t> pool2d(OpGraph& g, Form form, int32_t act = 0);
std::vector<uint32_t> activation(OpGraph& g);  // one or two inputs by type
std::vector<uint32_t> concatenation(OpGraph& g, int32_t axis = 3);
std::vector<uint32_t> reshape(OpGraph& g);
std::vector<uint32_t> resizeBilinear(OpGraph& g);

// Builds the canonical form of `type` (for window operations `form`).
std::vector<uint32_t> canonical(OpGraph& g, Form form = Form::ImplicitSame, int32_t act = 0);

// An error line without its "<file>::<line> -- " prefix (kept whole when
// it has none, as the shape-inference lines).
std::string stripped(const std::string& line);
// Every error line of the capture, stripped.
std::vector<std::string> errorTexts(const zeltest::LogCapture& log);

}  // namespace checktest
