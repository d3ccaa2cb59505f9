#include "check_graph.h"

#include <algorithm>
#include <cstring>

namespace checktest {

using arv::nnhal::host::Lifetime;

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

std::string formName(Form form) {
    switch (form) {
        case Form::ImplicitSame:
            return "ImplicitSame";
        case Form::ImplicitValid:
            return "ImplicitValid";
        case Form::ExplicitSame:
            return "ExplicitSame";
        case Form::ExplicitValid:
            return "ExplicitValid";
    }
    return "";
}

namespace {

// Padding and strides of an 8x8 input under a 3x3 window with stride 2:
// SAME needs one extra column/row, which goes right/bottom.
void windowParams(OpGraph& g, Form form) {
    switch (form) {
        case Form::ImplicitSame:
        case Form::ImplicitValid:
            g.ins.push_back(g.scalar(form == Form::ImplicitSame ? 1 : 2));
            break;
        case Form::ExplicitSame:
        case Form::ExplicitValid: {
            const int32_t tail = form == Form::ExplicitSame ? 1 : 0;
            for (int32_t pad : {0, tail, 0, tail}) g.ins.push_back(g.scalar(pad));
            break;
        }
    }
    g.ins.push_back(g.scalar(2));
    g.ins.push_back(g.scalar(2));
}

bool same(Form form) {
    return form == Form::ImplicitSame || form == Form::ExplicitSame;
}

}  // namespace

std::vector<uint32_t> conv2d(OpGraph& g, Form form, int32_t act) {
    g.ins = {g.tensorInput({1, 8, 8, 3}), g.tensorConstant({4, 3, 3, 3}), g.biasConstant({4}, 0.25f)};
    windowParams(g, form);
    g.ins.push_back(g.scalar(act));
    g.outs = {g.tensorOutput({0, 0, 0, 0})};
    return same(form) ? std::vector<uint32_t>{1, 4, 4, 4} : std::vector<uint32_t>{1, 3, 3, 4};
}

std::vector<uint32_t> depthwiseConv2d(OpGraph& g, Form form, int32_t act) {
    g.ins = {g.tensorInput({1, 8, 8, 2}), g.tensorConstant({1, 3, 3, 4}), g.biasConstant({4}, 0.25f)};
    windowParams(g, form);
    g.ins.push_back(g.scalar(2));  // depth multiplier
    g.ins.push_back(g.scalar(act));
    g.outs = {g.tensorOutput({0, 0, 0, 0})};
    return same(form) ? std::vector<uint32_t>{1, 4, 4, 4} : std::vector<uint32_t>{1, 3, 3, 4};
}

std::vector<uint32_t> fullyConnected(OpGraph& g, int32_t act) {
    g.ins = {g.tensorInput({2, 6}), g.tensorConstant({3, 6}), g.biasConstant({3}, 0.25f), g.scalar(act)};
    g.outs = {g.tensorOutput({0, 0})};
    return {2, 3};
}

std::vector<uint32_t> elementWise(OpGraph& g, int32_t act) {
    g.ins = {g.tensorInput({1, 2, 2, 3}), g.tensorInput({1, 2, 2, 3}), g.scalar(act)};
    g.outs = {g.tensorOutput({0, 0, 0, 0})};
    return {1, 2, 2, 3};
}

std::vector<uint32_t> pool2d(OpGraph& g, Form form, int32_t act) {
    g.ins = {g.tensorInput({1, 8, 8, 3})};
    windowParams(g, form);
    g.ins.push_back(g.scalar(3));  // filter width
    g.ins.push_back(g.scalar(3));  // filter height
    g.ins.push_back(g.scalar(act));
    g.outs = {g.tensorOutput({0, 0, 0, 0})};
    return same(form) ? std::vector<uint32_t>{1, 4, 4, 3} : std::vector<uint32_t>{1, 3, 3, 3};
}

std::vector<uint32_t> activation(OpGraph& g) {
    g.ins = {g.tensorInput({1, 2, 2, 3})};
    if (g.type == OperationType::PRELU) g.ins.push_back(g.tensorConstant({3}));
    if (g.type == OperationType::SOFTMAX) g.ins.push_back(g.scalar(1));  // beta
    g.outs = {g.tensorOutput({0, 0, 0, 0})};
    return {1, 2, 2, 3};
}

std::vector<uint32_t> concatenation(OpGraph& g, int32_t axis) {
    std::vector<uint32_t> first = {1, 2, 2, 3};
    std::vector<uint32_t> second = first;
    std::vector<uint32_t> expected = first;
    if (axis >= 0 && axis < 4) {
        second[axis] = 5;
        expected[axis] += 5;
    }
    g.ins = {g.tensorInput(first), g.tensorInput(second), g.scalar(axis)};
    g.outs = {g.tensorOutput({0, 0, 0, 0})};
    return expected;
}

std::vector<uint32_t> reshape(OpGraph& g) {
    g.ins = {g.tensorInput({1, 2, 3, 4}), g.int32Tensor({2}, {-1, 6})};
    g.outs = {g.tensorOutput({0, 0})};
    return {4, 6};
}

std::vector<uint32_t> resizeBilinear(OpGraph& g) {
    g.ins = {g.tensorInput({1, 2, 2, 3}), g.scalar(4), g.scalar(5)};  // width 4, height 5
    g.outs = {g.tensorOutput({0, 0, 0, 0})};
    return {1, 5, 4, 3};
}

std::vector<uint32_t> canonical(OpGraph& g, Form form, int32_t act) {
    switch (g.type) {
        case OperationType::CONV_2D:
            return conv2d(g, form, act);
        case OperationType::DEPTHWISE_CONV_2D:
            return depthwiseConv2d(g, form, act);
        case OperationType::FULLY_CONNECTED:
            return fullyConnected(g, act);
        case OperationType::ADD:
        case OperationType::SUB:
        case OperationType::MUL:
            return elementWise(g, act);
        case OperationType::AVERAGE_POOL_2D:
        case OperationType::MAX_POOL_2D:
        case OperationType::L2_POOL_2D:
            return pool2d(g, form, act);
        case OperationType::CONCATENATION:
            return concatenation(g);
        case OperationType::RESHAPE:
            return reshape(g);
        case OperationType::RESIZE_BILINEAR:
            return resizeBilinear(g);
        default:
            return activation(g);
    }
}

std::string stripped(const std::string& line) {
    const std::string rest = zeltest::afterLocation(line);
    return rest.empty() ? line : rest;
}

std::vector<std::string> errorTexts(const zeltest::LogCapture& log) {
    std::vector<std::string> texts = log.errors();
    std::transform(texts.begin(), texts.end(), texts.begin(), stripped);
    return texts;
}

}  // namespace checktest
