#include "zelhost/names.h"

#include "zel_operation_names.h"
#include "zelhost/model_file.h"

namespace arv {
namespace nnhal {
namespace host {

namespace {

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
    const char* name = zel::findOperationName(code);
    return name != nullptr ? name : "UNKNOWN_OPERATION_TYPE";
}

std::string operandTypeName(int32_t code) {
    const OperandTypeInfo* info = findOperandType(code);
    return info != nullptr ? info->name : "OPERAND_TYPE_" + std::to_string(code);
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
