#include "zelhost/host_graph.h"

#include <cstring>

namespace arv {
namespace nnhal {
namespace host {

namespace {
template <typename T>
std::vector<uint8_t> toBytes(const std::vector<T>& values) {
    std::vector<uint8_t> bytes(values.size() * sizeof(T));
    if (!bytes.empty()) std::memcpy(bytes.data(), values.data(), bytes.size());
    return bytes;
}
}  // namespace

DataResult HostOperand::getData() const {
    const bool boundKind = mLifetime == Lifetime::Input || mLifetime == Lifetime::Output;
    if (boundKind) {
        if (mGraph != nullptr && mGraph->executing() && mBound != nullptr) {
            return {Status::SUCCESS, mBound, mBoundLength};
        }
        return {Status::BAD_STATE, nullptr, 0};
    }
    if (mLifetime == Lifetime::Constant && mHasData) {
        return {Status::SUCCESS, mData.empty() ? nullptr : mData.data(), static_cast<uint32_t>(mData.size())};
    }
    return {Status::BAD_DATA, nullptr, 0};
}

QuantParamsResult HostOperand::getQuantizationParams() const {
    if (!mHasQuantization) return {Status::BAD_DATA, QuantizationParams()};
    return {Status::SUCCESS, QuantizationParams(mScale, mZeroPoint)};
}

IOperand* HostGraph::getOperand(uint32_t index) const {
    return index < mOperands.size() ? mOperands[index].get() : nullptr;
}

IOperation* HostGraph::getOperation(uint32_t index) const {
    if (index == mNullOperation || index >= mOperations.size()) return nullptr;
    return mOperations[index].get();
}

BufferResult HostGraph::getBuffer(uint32_t index) const {
    if (index == mFailBuffer || index >= mBuffers.size()) return {Status::BAD_DATA, nullptr};
    return {Status::SUCCESS, mBuffers[index].get()};
}

uint32_t HostGraph::addOperand(OperandType type, std::vector<uint32_t> dims, float scale, int32_t zeroPoint,
                               Lifetime lifetime, std::vector<uint8_t> data) {
    auto operand = std::make_unique<HostOperand>();
    operand->mType = type;
    operand->mOriginalDims = dims;
    operand->mDims = std::move(dims);
    operand->mScale = scale;
    operand->mZeroPoint = zeroPoint;
    // Tensors quantized with one scale and zero point: TENSOR_INT32 (4),
    // TENSOR_QUANT8 (5), the 16-bit (7, 12) and signed 8-bit (13, 14) forms
    // and the vendor byte tensor; any other operand only when it is given one.
    const int32_t code = static_cast<int32_t>(type);
    const bool quantizedType = code == 4 || code == 5 || code == 7 || code == 12 || code == 13 || code == 14 ||
                               type == OperandType::TENSOR_CUSTOM_BYTE;
    operand->mHasQuantization = quantizedType || scale != 0.0f || zeroPoint != 0;
    operand->mLifetime = lifetime;
    operand->mHasData = lifetime == Lifetime::Constant && !data.empty();
    operand->mData = std::move(data);
    operand->mGraph = this;
    mOperands.push_back(std::move(operand));
    return static_cast<uint32_t>(mOperands.size() - 1);
}

uint32_t HostGraph::addQuant8(std::vector<uint32_t> dims, float scale, int32_t zeroPoint, Lifetime lifetime,
                              std::vector<uint8_t> data) {
    return addOperand(OperandType::TENSOR_QUANT8, std::move(dims), scale, zeroPoint, lifetime, std::move(data));
}

uint32_t HostGraph::addInt32Tensor(std::vector<uint32_t> dims, float scale, const std::vector<int32_t>& values) {
    return addOperand(OperandType::TENSOR_INT32, std::move(dims), scale, 0, Lifetime::Constant, toBytes(values));
}

uint32_t HostGraph::addFloatTensor(std::vector<uint32_t> dims, Lifetime lifetime, const std::vector<float>& values) {
    return addOperand(OperandType::TENSOR_FP32, std::move(dims), 0.0f, 0, lifetime, toBytes(values));
}

uint32_t HostGraph::addInt32(int32_t value) {
    return addOperand(OperandType::SCALAR_INT32, {}, 0.0f, 0, Lifetime::Constant, toBytes(std::vector<int32_t>{value}));
}

uint32_t HostGraph::addFloat(float value) {
    return addOperand(OperandType::SCALAR_FP32, {}, 0.0f, 0, Lifetime::Constant, toBytes(std::vector<float>{value}));
}

uint32_t HostGraph::addOperation(OperationType type, std::vector<uint32_t> inputs, std::vector<uint32_t> outputs) {
    auto operation = std::make_unique<HostOperation>();
    operation->mType = type;
    operation->mInputs = std::move(inputs);
    operation->mOutputs = std::move(outputs);
    mOperations.push_back(std::move(operation));
    return static_cast<uint32_t>(mOperations.size() - 1);
}

uint32_t HostGraph::addBuffer(std::vector<uint8_t> bytes) {
    auto buffer = std::make_unique<HostBuffer>();
    buffer->mBytes = std::move(bytes);
    mBuffers.push_back(std::move(buffer));
    return static_cast<uint32_t>(mBuffers.size() - 1);
}

void HostGraph::bindInput(uint32_t position, void* data, uint32_t length) {
    if (position >= mInputs.size() || mInputs[position] >= mOperands.size()) return;
    HostOperand& op = *mOperands[mInputs[position]];
    op.mBound = static_cast<uint8_t*>(data);
    op.mBoundLength = length;
}

void HostGraph::bindOutput(uint32_t position, void* data, uint32_t length) {
    if (position >= mOutputs.size() || mOutputs[position] >= mOperands.size()) return;
    HostOperand& op = *mOperands[mOutputs[position]];
    op.mBound = static_cast<uint8_t*>(data);
    op.mBoundLength = length;
}

void HostSupportQuery::setOperationSupportLevel(uint32_t index, int level) {
    ++mCalls;
    if (index < mLevels.size()) mLevels[index] = level;
}

}  // namespace host
}  // namespace nnhal
}  // namespace arv
