// Reference host: an in-memory graph that implements the host interfaces,
// with a small builder API. Graph input and output operands report no data
// while the graph is built and queried, and their bound buffers while an
// execution is under way, as an executing host does.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "arv/nnhal/accelerator.h"
#include "arv/nnhal/graph.h"

namespace arv {
namespace nnhal {
namespace host {

enum class Lifetime { Input, Output, Constant, Internal };

class HostGraph;

class HostOperand : public IOperand {
public:
    OperandType getType() const override { return mType; }
    uint32_t getDimensionCount() const override { return static_cast<uint32_t>(mDims.size()); }
    uint32_t getDimension(uint32_t index) const override { return index < mDims.size() ? mDims[index] : 0; }
    uint32_t getOriginalDimension(uint32_t index) const override {
        return index < mOriginalDims.size() ? mOriginalDims[index] : 0;
    }
    DataResult getData() const override;
    QuantParamsResult getQuantizationParams() const override;

    // Builder-side state, public for tests and loaders.
    OperandType mType = OperandType::TENSOR_FP32;
    std::vector<uint32_t> mDims;          // current dims (may change between executions)
    std::vector<uint32_t> mOriginalDims;  // dims declared at build
    float mScale = 0.0f;
    int32_t mZeroPoint = 0;
    bool mHasQuantization = false;
    // Per-channel quantization (TENSOR_QUANT8_SYMM_PER_CHANNEL): real =
    // mChannelScales[c] * q along dimension mChannelDim. The host interfaces
    // have no call for it, so a plug-in sees only the type.
    bool mHasChannelQuant = false;
    uint32_t mChannelDim = 0;
    std::vector<float> mChannelScales;
    Lifetime mLifetime = Lifetime::Internal;
    std::vector<uint8_t> mData;  // constant bytes (owned)
    bool mHasData = false;       // a constant may also be declared without data
    // Buffer bound for the current execution (graph inputs and outputs).
    uint8_t* mBound = nullptr;
    uint32_t mBoundLength = 0;
    const HostGraph* mGraph = nullptr;
};

class HostOperation : public IOperation {
public:
    OperationType getType() const override { return mType; }
    uint32_t getNumInputs() const override { return static_cast<uint32_t>(mInputs.size()); }
    uint32_t getInput(uint32_t index) const override { return index < mInputs.size() ? mInputs[index] : UINT32_MAX; }
    uint32_t getNumOutputs() const override { return static_cast<uint32_t>(mOutputs.size()); }
    uint32_t getOutput(uint32_t index) const override { return index < mOutputs.size() ? mOutputs[index] : UINT32_MAX; }

    OperationType mType = OperationType::ADD;
    std::vector<uint32_t> mInputs;
    std::vector<uint32_t> mOutputs;
};

class HostBuffer : public IBuffer {
public:
    const uint8_t* getData() const override { return mBytes.empty() ? nullptr : mBytes.data(); }
    uint32_t getSize() const override { return static_cast<uint32_t>(mBytes.size()); }
    std::vector<uint8_t> mBytes;
};

class HostGraph : public IGraph {
public:
    HostGraph() = default;
    HostGraph(const HostGraph&) = delete;
    HostGraph& operator=(const HostGraph&) = delete;

    // --- IGraph -------------------------------------------------------------
    uint32_t getOperandCount() const override { return static_cast<uint32_t>(mOperands.size()); }
    IOperand* getOperand(uint32_t index) const override;
    uint32_t getOperationCount() const override { return static_cast<uint32_t>(mOperations.size()); }
    IOperation* getOperation(uint32_t index) const override;
    uint32_t getInputCount() const override { return static_cast<uint32_t>(mInputs.size()); }
    uint32_t getInput(uint32_t position) const override {
        return position < mInputs.size() ? mInputs[position] : UINT32_MAX;
    }
    uint32_t getOutputCount() const override { return static_cast<uint32_t>(mOutputs.size()); }
    uint32_t getOutput(uint32_t position) const override {
        return position < mOutputs.size() ? mOutputs[position] : UINT32_MAX;
    }
    uint32_t getBufferCount() const override { return static_cast<uint32_t>(mBuffers.size()); }
    BufferResult getBuffer(uint32_t index) const override;

    // --- builder ------------------------------------------------------------
    // Adds an operand and returns its index. `data` is copied; a Constant
    // without data (empty vector) reports no data.
    uint32_t addOperand(OperandType type, std::vector<uint32_t> dims, float scale = 0.0f, int32_t zeroPoint = 0,
                        Lifetime lifetime = Lifetime::Internal, std::vector<uint8_t> data = {});
    // Quantized tensor (type 5) with quantization parameters.
    uint32_t addQuant8(std::vector<uint32_t> dims, float scale, int32_t zeroPoint, Lifetime lifetime,
                       std::vector<uint8_t> data = {});
    // Constant int32 tensor (type 4) with a scale (biases).
    uint32_t addInt32Tensor(std::vector<uint32_t> dims, float scale, const std::vector<int32_t>& values);
    // Constant float tensor (type 3), or a non-constant one when values is empty.
    uint32_t addFloatTensor(std::vector<uint32_t> dims, Lifetime lifetime, const std::vector<float>& values = {});
    // Constant scalars.
    uint32_t addInt32(int32_t value);
    uint32_t addFloat(float value);
    // Adds an operation and returns its index.
    uint32_t addOperation(OperationType type, std::vector<uint32_t> inputs, std::vector<uint32_t> outputs);
    // Graph inputs and outputs (operand indices, in order).
    void setInputs(std::vector<uint32_t> inputs) { mInputs = std::move(inputs); }
    void setOutputs(std::vector<uint32_t> outputs) { mOutputs = std::move(outputs); }
    // Adds a host buffer.
    uint32_t addBuffer(std::vector<uint8_t> bytes);

    // --- execution binding ---------------------------------------------------
    // Binds the buffer of graph input / output `position` for the next
    // execution. The memory stays the caller's.
    void bindInput(uint32_t position, void* data, uint32_t length);
    void bindOutput(uint32_t position, void* data, uint32_t length);
    // While executing, bound graph inputs and outputs report their buffers.
    void setExecuting(bool executing) { mExecuting = executing; }
    bool executing() const { return mExecuting; }

    // --- fault injection for tests -------------------------------------------
    // getBuffer(index) answers with a failure status.
    void failBuffer(uint32_t index) { mFailBuffer = index; }
    // getOperation(index) answers null.
    void nullOperation(uint32_t index) { mNullOperation = index; }

    HostOperand& operand(uint32_t index) { return *mOperands.at(index); }
    HostOperation& operation(uint32_t index) { return *mOperations.at(index); }

private:
    std::vector<std::unique_ptr<HostOperand>> mOperands;
    std::vector<std::unique_ptr<HostOperation>> mOperations;
    std::vector<std::unique_ptr<HostBuffer>> mBuffers;
    std::vector<uint32_t> mInputs;
    std::vector<uint32_t> mOutputs;
    bool mExecuting = false;
    uint32_t mFailBuffer = UINT32_MAX;
    uint32_t mNullOperation = UINT32_MAX;
};

// Collects support levels, one per operation index (-1: never reported).
class HostSupportQuery : public IGraphOperationSupportLevelQuery {
public:
    explicit HostSupportQuery(uint32_t operationCount) : mLevels(operationCount, -1) {}
    void setOperationSupportLevel(uint32_t index, int level) override;
    const std::vector<int>& levels() const { return mLevels; }
    uint32_t calls() const { return mCalls; }

private:
    std::vector<int> mLevels;
    uint32_t mCalls = 0;
};

class HostExecutorContext : public IExecutorContext {
public:
    explicit HostExecutorContext(ExecutionPerformance performance = ExecutionPerformance::SUSTAINED_SPEED)
        : mPerformance(performance) {}
    ExecutionPerformance getExecutionPerformance(uint32_t) const override { return mPerformance; }

private:
    ExecutionPerformance mPerformance;
};

class HostAcceleratorContext : public IAcceleratorContext {};

}  // namespace host
}  // namespace nnhal
}  // namespace arv
