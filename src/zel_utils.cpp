// Logging and the text renderings of the host enumerations and the runtime
// records. The shape and quantization arithmetic lives in zel_utils_arith.cpp.
#include "zel_utils.h"

#include <android/log.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "zel_accelerator.h"

// ---------------------------------------------------------------------------
// Logging. The log's own result is of no interest to the callers.

void handle_debug_info(const std::string& msg) {
    __android_log_print(ANDROID_LOG_DEBUG, kZelLogTag, "%s", msg.c_str());
}

void handle_error_info(const std::string& msg) {
    __android_log_print(ANDROID_LOG_ERROR, kZelLogTag, "%s", msg.c_str());
}

std::ostream& operator<<(std::ostream& os, const kestrel_zel_nn_input& in) {
    return os << arv::nnhal::zel::toString(in);
}

std::ostream& operator<<(std::ostream& os, const kestrel_zel_nn_output& out) {
    return os << arv::nnhal::zel::toString(out);
}

namespace arv {
namespace nnhal {
namespace zel {

namespace {

struct NamedValue {
    int32_t value;
    const char* name;
};

// Host operation names; every code missing here is an unknown operation.
constexpr NamedValue kOperationNames[] = {
    {0, "ADD"},
    {1, "AVERAGE_POOL_2D"},
    {2, "CONCATENATION"},
    {3, "CONV_2D"},
    {4, "DEPTHWISE_CONV_2D"},
    {5, "DEPTH_TO_SPACE"},
    {6, "DEQUANTIZE"},
    {7, "EMBEDDING_LOOKUP"},
    {8, "FLOOR"},
    {9, "FULLY_CONNECTED"},
    {10, "HASHTABLE_LOOKUP"},
    {11, "L2_NORMALIZATION"},
    {12, "L2_POOL_2D"},
    {13, "LOCAL_RESPONSE_NORMALIZATION"},
    {14, "LOGISTIC"},
    {15, "LSH_PROJECTION"},
    {16, "LSTM"},
    {17, "MAX_POOL_2D"},
    {18, "MUL"},
    {19, "RELU"},
    {20, "RELU1"},
    {21, "RELU6"},
    {22, "RESHAPE"},
    {23, "RESIZE_BILINEAR"},
    {24, "RNN"},
    {25, "SOFTMAX"},
    {26, "SPACE_TO_DEPTH"},
    {27, "SVDF"},
    {28, "TANH"},
    {29, "BATCH_TO_SPACE_ND"},
    {30, "DIV"},
    {31, "MEAN"},
    {32, "PAD"},
    {33, "SPACE_TO_BATCH_ND"},
    {34, "SQUEEZE"},
    {35, "STRIDED_SLICE"},
    {36, "SUB"},
    {37, "TRANSPOSE"},
    {71, "PRELU"},
    {20000, "OEM_LSTM"},
    {20001, "OEM_SPLIT"},
};

constexpr NamedValue kOperandNames[] = {
    {0, "SCALAR_FP32"},
    {1, "SCALAR_INT32"},
    {2, "SCALAR_UNSIGNED_INT32"},
    {3, "TENSOR_FP32"},
    {4, "TENSOR_INT32"},
    {5, "TENSOR_QUANT8"},
    {10000, "CUSTOM"},
    {10001, "TENSOR_CUSTOM_BYTE"},
};

// Only the runtime operations the plug-in emits have a name; the others
// print as their number.
constexpr NamedValue kZelOpNames[] = {
    {0, "ZEL_OP_INPUT"},
    {1, "ZEL_OP_OUTPUT"},
    {2, "ZEL_OP_Nop"},
    {15, "ZEL_OP_QuantizedConv2d_8x8to32"},
    {17, "ZEL_OP_QuantizedMatMul_8x8to32"},
    {21, "ZEL_OP_QuantizedRelu_8"},
    {23, "ZEL_OP_QuantizedReluX_8"},
    {25, "ZEL_OP_QuantizedMaxPool_8"},
    {27, "ZEL_OP_QuantizedAvgPool_8"},
    {31, "ZEL_OP_QuantizedConcat_8"},
    {39, "ZEL_OP_Quantize"},
    {41, "ZEL_OP_Dequantize"},
    {60, "ZEL_OP_QuantizedReshape"},
    {70, "ZEL_OP_Requantize_32to8"},
    {113, "ZEL_OP_QuantizedAdd_8p8to32"},
    {156, "ZEL_OP_QuantizedDepthwiseConv2d_8x8to32"},
    {167, "ZEL_OP_QuantizedClamp_8"},
    {176, "ZEL_OP_QuantizedBiasAdd_32p32to32"},
};

// Indexed by the padding value.
constexpr const char* kPaddingNames[] = {
    "NN_PAD_NA",
    "NN_PAD_SAME",
    "NN_PAD_VALID",
    "NN_PAD_MIRROR_REFLECT",
    "NN_PAD_MIRROR_SYMMETRIC",
    "NN_PAD_SAME_CAFFE",
};

template <size_t N>
const char* findName(const NamedValue (&table)[N], int32_t value) {
    for (const NamedValue& entry : table) {
        if (entry.value == value) return entry.name;
    }
    return nullptr;
}

}  // namespace

std::string toString(OperationType type) {
    const char* name = findName(kOperationNames, static_cast<int32_t>(type));
    return name != nullptr ? name : "UNKNOWN_OPERATION_TYPE";
}

std::string toString(OperandType type) {
    const char* name = findName(kOperandNames, static_cast<int32_t>(type));
    return name != nullptr ? name : "UNKNOWN_OPERAND_TYPE";
}

// The two runtime enumerations may carry numbers outside their enumerators
// (a runtime answer, a corrupt record); their bits are read as they are.
static_assert(sizeof(zel_op_type_enum) == sizeof(int32_t), "zel_op_type_enum is one 32-bit word");
static_assert(sizeof(padding_type_enum) == sizeof(uint32_t), "padding_type_enum is one 32-bit word");

std::string toString(zel_op_type_enum op) {
    int32_t value = 0;
    std::memcpy(&value, &op, sizeof(value));
    const char* name = findName(kZelOpNames, value);
    return name != nullptr ? std::string(name) : std::to_string(value);
}

std::string toString(padding_type_enum padding) {
    uint32_t index = 0;
    std::memcpy(&index, &padding, sizeof(index));
    if (index >= sizeof(kPaddingNames) / sizeof(kPaddingNames[0])) return "<invalid kestrel_nn_padding_type>";
    return kPaddingNames[index];
}

std::string toString(unsigned int value) { return std::to_string(value); }

std::string toString(int value) { return std::to_string(value); }

std::string toString(float value) { return std::to_string(value); }

std::string toString(const kestrel_zel_nn_input& in) {
    return "kestrel_nn_input{.src_id: " + std::to_string(in.src_id) +
           ", .output_idx: " + std::to_string(in.output_idx) + "}";
}

std::string toString(const kestrel_zel_nn_output& out) {
    // All eight sizes, whatever the rank.
    return "kestrel_nn_output{.rank: " + std::to_string(out.rank) +
           ", .max_sizes: " + toString(out.max_sizes, 8) +
           ", .elementsize: " + std::to_string(out.elementsize) +
           ", .zero_offset: " + std::to_string(out.zero_offset) +
           ", .stepsize: " + std::to_string(out.stepsize) + "}";
}

std::string toString(const kestrel_zel_nn_tensordef& def) {
    const uintptr_t address = reinterpret_cast<uintptr_t>(def.data);
    return "kestrel_nn_tensordef{.batches: " + std::to_string(def.batches) +
           ", .height: " + std::to_string(def.height) +
           ", .width: " + std::to_string(def.width) +
           ", .depth: " + std::to_string(def.depth) +
           ", .data: " + std::to_string(address) +
           ", .dataLen: " + std::to_string(def.dataLen) +
           ", .data_valid_len: " + std::to_string(def.data_valid_len) +
           ", .unused: " + std::to_string(def.unused) + "}";
}

std::string toString(const kestrel_zel_nn_perfinfo& info) {
    return "kestrel_nn_perfinfo{.node_id: " + std::to_string(info.node_id) +
           ", .executions: " + std::to_string(info.executions) +
           ", .counter_lo: " + std::to_string(info.counter_lo) +
           ", .counter_hi: " + std::to_string(info.counter_hi) + "}";
}

std::string toString(const Shape& shape) {
    const uint32_t count = static_cast<uint32_t>(shape.dimensions.size());
    return "Shape{.type: " + toString(shape.type) +
           ", .dimensions: " + toString(shape.dimensions.data(), count) +
           ", .scale: " + std::to_string(shape.scale) +
           ", .zeroPoint: " + std::to_string(shape.offset) + "}";
}

// ---------------------------------------------------------------------------

bool isZelAvailable() {
    handle_debug_info("In isZelAvailable()");
    const bool available = Controller::getInstance()->heartBeat();
    handle_debug_info("Out isZelAvailable()");
    return available;
}

}  // namespace zel
}  // namespace nnhal
}  // namespace arv
