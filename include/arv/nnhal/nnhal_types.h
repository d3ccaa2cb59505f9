// Host framework enumerations and small result records shared by every
// interface of the accelerator plug-in ABI. The numeric values are part of
// the ABI: the host and every plug-in agree on them byte for byte.
#pragma once

#include <cstdint>

namespace arv {
namespace nnhal {

// Operation codes, in the Android NN numbering, plus two vendor operations.
enum class OperationType : int32_t {
    ADD = 0,
    AVERAGE_POOL_2D = 1,
    CONCATENATION = 2,
    CONV_2D = 3,
    DEPTHWISE_CONV_2D = 4,
    DEPTH_TO_SPACE = 5,
    DEQUANTIZE = 6,
    EMBEDDING_LOOKUP = 7,
    FLOOR = 8,
    FULLY_CONNECTED = 9,
    HASHTABLE_LOOKUP = 10,
    L2_NORMALIZATION = 11,
    L2_POOL_2D = 12,
    LOCAL_RESPONSE_NORMALIZATION = 13,
    LOGISTIC = 14,
    LSH_PROJECTION = 15,
    LSTM = 16,
    MAX_POOL_2D = 17,
    MUL = 18,
    RELU = 19,
    RELU1 = 20,
    RELU6 = 21,
    RESHAPE = 22,
    RESIZE_BILINEAR = 23,
    RNN = 24,
    SOFTMAX = 25,
    SPACE_TO_DEPTH = 26,
    SVDF = 27,
    TANH = 28,
    BATCH_TO_SPACE_ND = 29,
    DIV = 30,
    MEAN = 31,
    PAD = 32,
    SPACE_TO_BATCH_ND = 33,
    SQUEEZE = 34,
    STRIDED_SLICE = 35,
    SUB = 36,
    TRANSPOSE = 37,
    PRELU = 71,
    TRANSPOSE_CONV_2D = 91,
    OEM_LSTM = 20000,
    OEM_SPLIT = 20001,
};

// Operand element types.
enum class OperandType : int32_t {
    SCALAR_FP32 = 0,
    SCALAR_INT32 = 1,
    SCALAR_UNSIGNED_INT32 = 2,
    TENSOR_FP32 = 3,
    TENSOR_INT32 = 4,
    TENSOR_QUANT8 = 5,  // 8-bit asymmetric: real = scale * (q - zeroPoint)
    CUSTOM = 10000,
    TENSOR_CUSTOM_BYTE = 10001,
};

// Fused activation codes carried by scalar operands.
enum class ActivationFunc : int32_t {
    NONE = 0,
    RELU = 1,
    RELU1 = 2,
    RELU6 = 3,
};

// Status codes returned to the host.
enum class Status : int32_t {
    SUCCESS = 0,
    GENERAL_FAILURE = 1,
    INVALID_ARGUMENT = 2,
    OUT_OF_MEMORY = 3,
    UNEXPECTED_NULL = 4,
    BAD_STATE = 5,
    BAD_DATA = 6,
    ACCELERATOR_UNAVAILABLE = 7,
};

// What an accelerator can be asked to have.
enum class AcceleratorCapability : int32_t {
    DYNAMIC_SHAPES = 0,
    RELAXED_FLOAT = 1,
    QUANT8_ASYMM = 2,
    QUANT8_ASYMM_VENDOR = 3,
    FLOAT32 = 4,
};

// The caller's execution preference.
enum class ExecutionPerformance : int32_t {
    LOW_POWER = 0,
    FAST_SINGLE_ANSWER = 1,
    SUSTAINED_SPEED = 2,
};

class IGraphExecutor;
class IBuffer;

// Result of IAccelerator::createGraphExecutor: executor is non-null only
// when status is SUCCESS.
struct CreateExecutorResult {
    Status status;
    IGraphExecutor* executor;
};

// Result of IGraphExecutor::execute; reserved is always 0.
struct ExecuteResult {
    Status status;
    int32_t reserved;
};

// Result of IGraph::getBuffer; status != SUCCESS means no buffer.
struct BufferResult {
    Status status;
    IBuffer* buffer;
};

// Result of IOperand::getData; status != SUCCESS means the operand holds no
// data right now (graph inputs/outputs outside an execution, intermediates).
struct DataResult {
    Status status;
    const uint8_t* data;
    uint32_t length;
};

// Quantization parameters of one operand.
class QuantizationParams {
public:
    QuantizationParams() = default;
    QuantizationParams(float scale, int32_t zeroPoint) : mScale(scale), mZeroPoint(zeroPoint) {}
    float getScale() const { return mScale; }
    int32_t getZeroPoint() const { return mZeroPoint; }

private:
    float mScale = 0.0f;
    int32_t mZeroPoint = 0;
};

// Result of IOperand::getQuantizationParams; params is only meaningful when
// status is SUCCESS.
struct QuantParamsResult {
    Status status;
    QuantizationParams params;
};

}  // namespace nnhal
}  // namespace arv
