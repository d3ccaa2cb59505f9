#include "check_graph.h"

#include <algorithm>
#include <cstring>

namespace checktest {

using arv::nnhal::host::Lifetime;
using OT = OperationType;

namespace {

std::vector<uint8_t> int32Bytes(const std::vector<int32_t>& values) {
    std::vector<uint8_t> bytes(values.size() * sizeof(int32_t));
    if (!bytes.empty()) std::memcpy(bytes.data(), values.data(), bytes.size());
    return bytes;
}

uint32_t elementCount(const std::vector<uint32_t>& dims) {
    uint32_t n = 1;
    for (uint32_t d : dims) n *= d;
    return n;
}

}  // namespace

OpGraph::OpGraph(OperationType opType, OperandType elementType) : type(opType), tensorType(elementType) {}

uint32_t OpGraph::tensorInput(std::vector<uint32_t> dims, float scale, int32_t zeroPoint) {
    const uint32_t index = graph.addOperand(tensorType, std::move(dims), scale, zeroPoint, Lifetime::Input);
    mGraphInputs.push_back(index);
    return index;
}

uint32_t OpGraph::tensorConstant(std::vector<uint32_t> dims, float scale, int32_t zeroPoint) {
    const uint32_t bytes = elementCount(dims) * (tensorType == OperandType::TENSOR_QUANT8 ? 1 : 4);
    return graph.addOperand(tensorType, std::move(dims), scale, zeroPoint, Lifetime::Constant,
                            std::vector<uint8_t>(bytes, 0));
}

uint32_t OpGraph::tensorOutput(std::vector<uint32_t> dims, float scale, int32_t zeroPoint) {
    const uint32_t index = graph.addOperand(tensorType, std::move(dims), scale, zeroPoint, Lifetime::Output);
    mGraphOutputs.push_back(index);
    return index;
}

uint32_t OpGraph::biasConstant(std::vector<uint32_t> dims, float scale) {
    if (tensorType != OperandType::TENSOR_QUANT8) return tensorConstant(std::move(dims), 0.0f);
    const uint32_t n = elementCount(dims);
    return graph.addInt32Tensor(std::move(dims), scale, std::vector<int32_t>(n, 0));
}

uint32_t OpGraph::int32Tensor(std::vector<uint32_t> dims, const std::vector<int32_t>& values) {
    return graph.addInt32Tensor(std::move(dims), 0.0f, values);
}

uint32_t OpGraph::scalar(int32_t value) {
    return graph.addInt32(value);
}

uint32_t OpGraph::emptyScalar() {
    return graph.addOperand(OperandType::SCALAR_INT32, {}, 0.0f, 0, Lifetime::Constant, {});
}

void OpGraph::setScalar(uint32_t operand, int32_t value) {
    graph.operand(operand).mData = int32Bytes({value});
}

void OpGraph::setInt32s(uint32_t operand, const std::vector<int32_t>& values) {
    graph.operand(operand).mData = int32Bytes(values);
}

void OpGraph::setDims(uint32_t operand, std::vector<uint32_t> dims) {
    graph.operand(operand).mOriginalDims = dims;
    graph.operand(operand).mDims = std::move(dims);
}

void OpGraph::setType(uint32_t operand, OperandType elementType) {
    graph.operand(operand).mType = elementType;
}

void OpGraph::makeGraphInput(uint32_t operand) {
    graph.operand(operand).mLifetime = Lifetime::Input;
    mGraphInputs.push_back(operand);
}

ZelModel* OpGraph::model() {
    if (!mModel) {
        graph.addOperation(type, ins, outs);
        graph.setInputs(mGraphInputs);
        graph.setOutputs(mGraphOutputs);
        mModel.reset(ZelModel::create(&graph));
    }
    return mModel.get();
}

arv::nnhal::IOperation* OpGraph::operation() {
    model();
    return graph.getOperation(0);
}

namespace {

bool same(Form form) {
    return form == Form::ImplicitSame || form == Form::ExplicitSame;
}

// Padding and strides of an 8x8 input under a 3x3 window with stride 2:
// SAME needs one extra column/row, which goes right/bottom.
void windowParams(OpGraph& g, Form form) {
    if (form == Form::ImplicitSame || form == Form::ImplicitValid) {
        g.ins.push_back(g.scalar(same(form) ? 1 : 2));
    } else {
        const int32_t tail = same(form) ? 1 : 0;
        for (int32_t pad : {0, tail, 0, tail}) g.ins.push_back(g.scalar(pad));
    }
    g.ins.push_back(g.scalar(2));
    g.ins.push_back(g.scalar(2));
}

std::vector<uint32_t> window(OpGraph& g, Form form, int32_t act) {
    const bool pooling = g.type != OT::CONV_2D && g.type != OT::DEPTHWISE_CONV_2D;
    const uint32_t depth = g.type == OT::DEPTHWISE_CONV_2D ? 2 : 3;
    g.ins = {g.tensorInput({1, 8, 8, depth})};
    if (g.type == OT::CONV_2D) g.ins.push_back(g.tensorConstant({4, 3, 3, 3}));
    if (g.type == OT::DEPTHWISE_CONV_2D) g.ins.push_back(g.tensorConstant({1, 3, 3, 4}));
    if (!pooling) g.ins.push_back(g.biasConstant({4}, 0.25f));
    windowParams(g, form);
    if (g.type == OT::DEPTHWISE_CONV_2D) g.ins.push_back(g.scalar(2));   // depth multiplier
    if (pooling) g.ins.insert(g.ins.end(), {g.scalar(3), g.scalar(3)});  // filter width, height
    g.ins.push_back(g.scalar(act));
    g.outs = {g.tensorOutput({0, 0, 0, 0})};
    const uint32_t side = same(form) ? 4 : 3;
    return {1, side, side, pooling ? 3u : 4u};
}

}  // namespace

std::vector<uint32_t> canonical(OpGraph& g, Form form, int32_t act) {
    const std::vector<uint32_t> unknown4 = {0, 0, 0, 0};
    switch (g.type) {
        case OT::CONV_2D:
        case OT::DEPTHWISE_CONV_2D:
        case OT::AVERAGE_POOL_2D:
        case OT::MAX_POOL_2D:
        case OT::L2_POOL_2D: return window(g, form, act);
        case OT::FULLY_CONNECTED:
            g.ins = {g.tensorInput({2, 6}), g.tensorConstant({3, 6}), g.biasConstant({3}, 0.25f), g.scalar(act)};
            g.outs = {g.tensorOutput({0, 0})};
            return {2, 3};
        case OT::ADD:
        case OT::SUB:
        case OT::MUL:
            g.ins = {g.tensorInput({1, 2, 2, 3}), g.tensorInput({1, 2, 2, 3}), g.scalar(act)};
            g.outs = {g.tensorOutput(unknown4)};
            return {1, 2, 2, 3};
        case OT::CONCATENATION:
            g.ins = {g.tensorInput({1, 2, 2, 3}), g.tensorInput({1, 2, 2, 5}), g.scalar(3)};
            g.outs = {g.tensorOutput(unknown4)};
            return {1, 2, 2, 8};
        case OT::RESHAPE:
            g.ins = {g.tensorInput({1, 2, 3, 4}), g.int32Tensor({2}, {-1, 6})};
            g.outs = {g.tensorOutput({0, 0})};
            return {4, 6};
        case OT::RESIZE_BILINEAR:
            g.ins = {g.tensorInput({1, 2, 2, 3}), g.scalar(4), g.scalar(5)};  // width 4, height 5
            g.outs = {g.tensorOutput(unknown4)};
            return {1, 5, 4, 3};
        case OT::DEQUANTIZE:
            g.ins = {g.tensorInput({1, 2, 2, 3})};
            g.outs = {g.tensorOutput(unknown4)};
            g.setType(g.ins[0], OperandType::TENSOR_QUANT8);
            g.setType(g.outs[0], OperandType::TENSOR_FP32);
            return {1, 2, 2, 3};
        case OT::LOCAL_RESPONSE_NORMALIZATION:
            g.ins = {g.tensorInput({1, 2, 2, 3}), g.scalar(1), g.scalar(1), g.scalar(1), g.scalar(1)};
            g.outs = {g.tensorOutput(unknown4)};
            return {1, 2, 2, 3};
        case OT::SQUEEZE:
            g.ins = {g.tensorInput({1, 2, 1, 3}), g.int32Tensor({1}, {2})};
            g.outs = {g.tensorOutput({0, 0, 0})};
            return {1, 2, 3};
        case OT::PAD:
            g.ins = {g.tensorInput({1, 2, 2, 3}), g.int32Tensor({4, 2}, {0, 0, 1, 1, 2, 2, 0, 0})};
            g.outs = {g.tensorOutput({1, 4, 6, 3})};
            return {1, 4, 6, 3};
        case OT::TRANSPOSE:
            g.ins = {g.tensorInput({1, 2, 3, 4}), g.int32Tensor({4}, {0, 2, 1, 3})};
            g.outs = {g.tensorOutput({1, 3, 2, 4})};
            return {1, 3, 2, 4};
        case OT::SPACE_TO_DEPTH:
            g.ins = {g.tensorInput({1, 4, 4, 2}), g.scalar(2)};
            g.outs = {g.tensorOutput(unknown4)};
            return {1, 2, 2, 8};
        case OT::BATCH_TO_SPACE_ND:
            g.ins = {g.tensorInput({4, 2, 2, 3}), g.int32Tensor({2}, {2, 2})};
            g.outs = {g.tensorOutput(unknown4)};
            return {1, 4, 4, 3};
        case OT::SPACE_TO_BATCH_ND:
            g.ins = {g.tensorInput({1, 4, 4, 3}), g.int32Tensor({2}, {2, 2}), g.int32Tensor({2, 2}, {0, 0, 0, 0})};
            g.outs = {g.tensorOutput(unknown4)};
            return {4, 2, 2, 3};
        case OT::OEM_LSTM:
            g.ins = {g.tensorInput({1, 8}),
                     g.tensorInput({1, 4}),
                     g.tensorInput({1, 4}),
                     g.tensorConstant({16, 12}),
                     g.int32Tensor({16}, std::vector<int32_t>(16, 0)),
                     g.tensorInput({1, 8})};
            g.outs = {g.tensorOutput({1, 4}), g.tensorOutput({1, 8}), g.tensorOutput({1, 4}), g.tensorOutput({1, 8})};
            return {1, 4};  // not inferred: the declared shape stays
        case OT::OEM_SPLIT:
            g.ins = {g.scalar(3), g.tensorInput({1, 1, 1, 4}), g.scalar(2), g.scalar(0)};
            g.outs = {g.tensorOutput({1, 1, 1, 2}), g.tensorOutput({1, 1, 1, 2})};
            return {1, 1, 1, 2};
        default:  // activations: one input, two for PRELU (alpha) and SOFTMAX (beta)
            g.ins = {g.tensorInput({1, 2, 2, 3})};
            if (g.type == OT::PRELU) g.ins.push_back(g.tensorConstant({3}));
            if (g.type == OT::SOFTMAX) g.ins.push_back(g.scalar(1));
            g.outs = {g.tensorOutput(unknown4)};
            return {1, 2, 2, 3};
    }
}

std::vector<std::string> errorTexts(const zeltest::LogCapture& log) {
    std::vector<std::string> texts = log.errors();
    for (std::string& text : texts) {
        const std::string rest = zeltest::afterLocation(text);
        if (!rest.empty()) text = rest;
    }
    return texts;
}

}  // namespace checktest
