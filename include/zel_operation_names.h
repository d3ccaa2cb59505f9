// Texts of the host's operation types, shared by the plug-in's diagnostics
// and the reference host's tools so that both name every code alike. A code
// missing here is an unknown operation ("UNKNOWN_OPERATION_TYPE").
#pragma once

#include <cstdint>

namespace arv {
namespace nnhal {
namespace zel {

struct OperationName {
    int32_t value;
    const char* name;
};

inline constexpr OperationName kOperationNames[] = {
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

// The text of operation type `value`, or null when it has none.
inline const char* findOperationName(int32_t value) {
    for (const OperationName& entry : kOperationNames) {
        if (entry.value == value) return entry.name;
    }
    return nullptr;
}

}  // namespace zel
}  // namespace nnhal
}  // namespace arv
