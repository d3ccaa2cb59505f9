// Table of every node op code the simulator knows: name, validation and
// (where the simulator computes it) the kernel.
#include <string>
#include <vector>

#include "zelsim/ops.h"

namespace zelsim {
namespace {

std::string acceptAll(const NodeDesc&, const std::vector<InputInfo>&) { return ""; }

struct Entry {
    int32_t op;
    OpSpec spec;
};

const Entry kTable[] = {
    {0, {"INPUT", acceptAll, nullptr}},
    {1, {"OUTPUT", acceptAll, nullptr}},
    {15, {"QuantizedConv2d_8x8to32", acceptAll, nullptr}},
    {17, {"QuantizedMatMul_8x8to32", acceptAll, nullptr}},
    {21, {"QuantizedRelu_8", acceptAll, nullptr}},
    {23, {"QuantizedReluX_8", acceptAll, nullptr}},
    {25, {"QuantizedMaxPool_8", acceptAll, nullptr}},
    {27, {"QuantizedAvgPool_8", acceptAll, nullptr}},
    {31, {"QuantizedConcat_8", acceptAll, nullptr}},
    {39, {"Quantize", acceptAll, nullptr}},
    {41, {"Dequantize", acceptAll, nullptr}},
    {46, {"FloatSoftmax", acceptAll, nullptr}},
    {47, {"FloatConv2d", acceptAll, nullptr}},
    {48, {"FloatMatMul", acceptAll, nullptr}},
    {49, {"FloatRelu", acceptAll, nullptr}},
    {50, {"FloatReluX", acceptAll, nullptr}},
    {51, {"FloatAvgPool", acceptAll, nullptr}},
    {52, {"FloatL2Pool", acceptAll, nullptr}},
    {53, {"FloatMaxPool", acceptAll, nullptr}},
    {54, {"FloatConcat", acceptAll, nullptr}},
    {56, {"FloatLocalResponseNorm", acceptAll, nullptr}},
    {58, {"FloatBiasAdd", acceptAll, nullptr}},
    {59, {"FloatReshape", acceptAll, nullptr}},
    {60, {"QuantizedReshape", acceptAll, nullptr}},
    {61, {"FloatTanh", acceptAll, nullptr}},
    {62, {"FloatSigmoid", acceptAll, nullptr}},
    {66, {"FloatAdd", acceptAll, nullptr}},
    {67, {"FloatMul", acceptAll, nullptr}},
    {70, {"Requantize_32to8", acceptAll, nullptr}},
    {75, {"FloatSub", acceptAll, nullptr}},
    {113, {"QuantizedAdd_8p8to32", acceptAll, nullptr}},
    {115, {"QuantizedSigmoid_8", acceptAll, nullptr}},
    {119, {"QuantizedSoftmax_8", acceptAll, nullptr}},
    {125, {"QuantizedSub_8p8to32", acceptAll, nullptr}},
    {131, {"FloatPad", acceptAll, nullptr}},
    {132, {"FloatSpaceToBatchND", acceptAll, nullptr}},
    {133, {"FloatBatchToSpaceND", acceptAll, nullptr}},
    {134, {"QuantizedPad_8", acceptAll, nullptr}},
    {135, {"FloatResizeBilinear", acceptAll, nullptr}},
    {141, {"QuantizedResizeBilinear_8", acceptAll, nullptr}},
    {156, {"QuantizedDepthwiseConv2d_8x8to32", acceptAll, nullptr}},
    {158, {"FloatDepthwiseConv2d", acceptAll, nullptr}},
    {167, {"QuantizedClamp_8", acceptAll, nullptr}},
    {169, {"FloatClamp", acceptAll, nullptr}},
    {176, {"QuantizedBiasAdd_32p32to32", acceptAll, nullptr}},
    {208, {"QuantizedSpaceToBatchND_8", acceptAll, nullptr}},
    {209, {"QuantizedBatchToSpaceND_8", acceptAll, nullptr}},
    {212, {"QuantizedSpaceToDepth_8", acceptAll, nullptr}},
    {220, {"QuantizedSplit_8", acceptAll, nullptr}},
    {244, {"FloatTranspose", acceptAll, nullptr}},
    {274, {"QuantizedLstm_8", acceptAll, nullptr}},
    {353, {"QuantizedPRelu_8", acceptAll, nullptr}},
};

}  // namespace

const OpSpec* findOp(int32_t op) {
    for (const Entry& e : kTable) {
        if (e.op == op) return &e.spec;
    }
    return nullptr;
}

}  // namespace zelsim
