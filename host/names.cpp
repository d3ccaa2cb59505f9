#include "zelhost/names.h"

#include <iterator>

namespace arv {
namespace nnhal {
namespace host {

namespace {

// Operation codes 0 to 94 of the numbering, in order.
// clang-format off
const char* const kOperationNames[] = {
    "ADD", "AVERAGE_POOL_2D", "CONCATENATION", "CONV_2D", "DEPTHWISE_CONV_2D", "DEPTH_TO_SPACE", "DEQUANTIZE",
    "EMBEDDING_LOOKUP", "FLOOR", "FULLY_CONNECTED", "HASHTABLE_LOOKUP", "L2_NORMALIZATION", "L2_POOL_2D",
    "LOCAL_RESPONSE_NORMALIZATION", "LOGISTIC", "LSH_PROJECTION", "LSTM", "MAX_POOL_2D", "MUL", "RELU", "RELU1",
    "RELU6", "RESHAPE", "RESIZE_BILINEAR", "RNN", "SOFTMAX", "SPACE_TO_DEPTH", "SVDF", "TANH", "BATCH_TO_SPACE_ND",
    "DIV", "MEAN", "PAD", "SPACE_TO_BATCH_ND", "SQUEEZE", "STRIDED_SLICE", "SUB", "TRANSPOSE", "ABS", "ARGMAX",
    "ARGMIN", "AXIS_ALIGNED_BBOX_TRANSFORM", "BIDIRECTIONAL_SEQUENCE_LSTM", "BIDIRECTIONAL_SEQUENCE_RNN",
    "BOX_WITH_NMS_LIMIT", "CAST", "CHANNEL_SHUFFLE", "DETECTION_POSTPROCESSING", "EQUAL", "EXP", "EXPAND_DIMS",
    "GATHER", "GENERATE_PROPOSALS", "GREATER", "GREATER_EQUAL", "GROUPED_CONV_2D", "HEATMAP_MAX_KEYPOINT",
    "INSTANCE_NORMALIZATION", "LESS", "LESS_EQUAL", "LOG", "LOGICAL_AND", "LOGICAL_NOT", "LOGICAL_OR",
    "LOG_SOFTMAX", "MAXIMUM", "MINIMUM", "NEG", "NOT_EQUAL", "PAD_V2", "POW", "PRELU", "QUANTIZE",
    "QUANTIZED_16BIT_LSTM", "RANDOM_MULTINOMIAL", "REDUCE_ALL", "REDUCE_ANY", "REDUCE_MAX", "REDUCE_MIN",
    "REDUCE_PROD", "REDUCE_SUM", "ROI_ALIGN", "ROI_POOLING", "RSQRT", "SELECT", "SIN", "SLICE", "SPLIT", "SQRT",
    "TILE", "TOPK_V2", "TRANSPOSE_CONV_2D", "UNIDIRECTIONAL_SEQUENCE_LSTM", "UNIDIRECTIONAL_SEQUENCE_RNN",
    "RESIZE_NEAREST_NEIGHBOR",
};
// clang-format on

struct CodeName {
    int32_t code;
    const char* name;
};

const CodeName kRuntimeOps[] = {
    {0, "INPUT"},
    {1, "OUTPUT"},
    {2, "Nop"},
    {15, "QuantizedConv2d_8x8to32"},
    {17, "QuantizedMatMul_8x8to32"},
    {21, "QuantizedRelu_8"},
    {23, "QuantizedReluX_8"},
    {25, "QuantizedMaxPool_8"},
    {27, "QuantizedAvgPool_8"},
    {31, "QuantizedConcat_8"},
    {39, "Quantize"},
    {41, "Dequantize"},
    {46, "FloatSoftmax"},
    {47, "FloatConv2d"},
    {48, "FloatMatMul"},
    {49, "FloatRelu"},
    {50, "FloatReluX"},
    {51, "FloatAvgPool"},
    {52, "FloatL2Pool"},
    {53, "FloatMaxPool"},
    {54, "FloatConcat"},
    {56, "FloatLocalResponseNorm"},
    {58, "FloatBiasAdd"},
    {59, "FloatReshape"},
    {60, "QuantizedReshape"},
    {61, "FloatTanh"},
    {62, "FloatSigmoid"},
    {66, "FloatAdd"},
    {67, "FloatMul"},
    {70, "Requantize_32to8"},
    {75, "FloatSub"},
    {89, "QuantizedActivation89"},
    {113, "QuantizedAdd_8p8to32"},
    {115, "QuantizedSigmoid_8"},
    {119, "QuantizedSoftmax_8"},
    {125, "QuantizedSub_8p8to32"},
    {131, "FloatPad"},
    {132, "FloatSpaceToBatchND"},
    {133, "FloatBatchToSpaceND"},
    {134, "QuantizedPad_8"},
    {135, "FloatResizeBilinear"},
    {141, "QuantizedResizeBilinear_8"},
    {156, "QuantizedDepthwiseConv2d_8x8to32"},
    {158, "FloatDepthwiseConv2d"},
    {167, "QuantizedClamp_8"},
    {169, "FloatClamp"},
    {176, "QuantizedBiasAdd_32p32to32"},
    {208, "QuantizedSpaceToBatchND_8"},
    {209, "QuantizedBatchToSpaceND_8"},
    {212, "QuantizedSpaceToDepth_8"},
    {220, "QuantizedSplit_8"},
    {244, "FloatTranspose"},
    {274, "QuantizedLstm_8"},
    {353, "QuantizedPRelu_8"},
};

}  // namespace

std::string operationName(int32_t code) {
    if (code >= 0 && code < static_cast<int32_t>(std::size(kOperationNames))) return kOperationNames[code];
    if (code == 20000) return "OEM_LSTM";
    if (code == 20001) return "OEM_SPLIT";
    return "OPERATION_" + std::to_string(code);
}

std::string operandTypeName(int32_t code) {
    switch (code) {
        case 0: return "SCALAR_FP32";
        case 1: return "SCALAR_INT32";
        case 2: return "SCALAR_UNSIGNED_INT32";
        case 3: return "TENSOR_FP32";
        case 4: return "TENSOR_INT32";
        case 5: return "TENSOR_QUANT8";
        case 10000: return "CUSTOM";
        case 10001: return "TENSOR_CUSTOM_BYTE";
        default: return "OPERAND_TYPE_" + std::to_string(code);
    }
}

std::string runtimeOpName(int32_t code) {
    for (const CodeName& entry : kRuntimeOps) {
        if (entry.code == code) return entry.name;
    }
    return "op" + std::to_string(code);
}

std::string supportLevelName(int level) {
    switch (level) {
        case 0: return "supported";
        case 1: return "not supported";
        case 2: return "parameters not supported";
        case -1: return "no answer";
        default: return "level " + std::to_string(level);
    }
}

}  // namespace host
}  // namespace nnhal
}  // namespace arv
