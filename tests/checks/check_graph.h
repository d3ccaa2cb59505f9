// One-operation host graphs for the support-check tests: a builder over
// HostGraph, the model built from it, and the canonical form of every
// checked operation.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "log_capture.h"
#include "zel_model.h"
#include "zelhost/host_graph.h"

namespace checktest {

using arv::nnhal::OperandType;
using arv::nnhal::OperationType;
using arv::nnhal::host::HostGraph;
using arv::nnhal::zel::ZelModel;

// A graph that holds exactly one operation. `ins` and `outs` are the
// operation's lists, free to edit until model() adds the operation.
class OpGraph {
public:
    explicit OpGraph(OperationType type, OperandType tensorType = OperandType::TENSOR_QUANT8);

    // Tensors of the graph's element type: fed by the host, constant (zero
    // bytes), or a graph output.
    uint32_t tensorInput(std::vector<uint32_t> dims, float scale = 0.5f, int32_t zeroPoint = 0);
    uint32_t tensorConstant(std::vector<uint32_t> dims, float scale = 0.5f, int32_t zeroPoint = 0);
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
    void setType(uint32_t operand, OperandType type);
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

// Builds the canonical form of g.type (window operations in `form`, `act`
// the fused activation code where there is one) and returns the output
// dimensions the check must infer.
std::vector<uint32_t> canonical(OpGraph& g, Form form = Form::ImplicitSame, int32_t act = 0);

// Every error line of the capture without its "<file>::<line> -- " prefix
// (lines without one, as the shape-inference lines, stay whole).
std::vector<std::string> errorTexts(const zeltest::LogCapture& log);

}  // namespace checktest
