// Support checks for float32 operations. None of them is in the support
// table: the accelerator is offered quantized graphs only, and these checks
// are kept complete beside the quant8 family for when float rows are added.
//
// They run the quant8 family's rules (CheckRules, one implementation for
// both) in the same order, without the rules of the quantized runtime: a
// float node takes any activation and any concatenation axis, and may take
// its transpose indexes at run time. Their located lines name this file.
#include "zel_operations_check_float32.h"

#include "zel_operations_check_quant8.h"

namespace arv {
namespace nnhal {
namespace zel {
namespace float32_check {

constexpr CheckRules kFloat32Rules(__FILE__, false);

bool elementWiseOpCheck(const Ins& ins, const Ins& outs, ZelModel* model, OperationType type) {
    return kFloat32Rules.at(__LINE__).elementWise(ins, outs, model, type);
}

bool pool(const Ins& ins, const Ins& outs, ZelModel* model, OperationType type) {
    return kFloat32Rules.at(__LINE__).pool(ins, outs, model, type);
}

bool activation(const Ins& ins, const Ins& outs, ZelModel* model, uint32_t numInputs, OperationType type) {
    return kFloat32Rules.at(__LINE__).activation(ins, outs, model, numInputs, type);
}

bool add(const Ins& ins, const Ins& outs, ZelModel* model) {
    return elementWiseOpCheck(ins, outs, model, OperationType::ADD);
}

bool sub(const Ins& ins, const Ins& outs, ZelModel* model) {
    return elementWiseOpCheck(ins, outs, model, OperationType::SUB);
}

bool mul(const Ins& ins, const Ins& outs, ZelModel* model) {
    return elementWiseOpCheck(ins, outs, model, OperationType::MUL);
}

bool average_pool_2d(const Ins& ins, const Ins& outs, ZelModel* model) {
    return pool(ins, outs, model, OperationType::AVERAGE_POOL_2D);
}

bool l2_pool_2d(const Ins& ins, const Ins& outs, ZelModel* model) {
    return pool(ins, outs, model, OperationType::L2_POOL_2D);
}

bool max_pool_2d(const Ins& ins, const Ins& outs, ZelModel* model) {
    return pool(ins, outs, model, OperationType::MAX_POOL_2D);
}

bool logistic(const Ins& ins, const Ins& outs, ZelModel* model) {
    return activation(ins, outs, model, 1, OperationType::LOGISTIC);
}

bool relu(const Ins& ins, const Ins& outs, ZelModel* model) {
    return activation(ins, outs, model, 1, OperationType::RELU);
}

bool relu1(const Ins& ins, const Ins& outs, ZelModel* model) {
    return activation(ins, outs, model, 1, OperationType::RELU1);
}

bool relu6(const Ins& ins, const Ins& outs, ZelModel* model) {
    return activation(ins, outs, model, 1, OperationType::RELU6);
}

bool softmax(const Ins& ins, const Ins& outs, ZelModel* model) {
    return activation(ins, outs, model, 2, OperationType::SOFTMAX);
}

bool tanh(const Ins& ins, const Ins& outs, ZelModel* model) {
    return activation(ins, outs, model, 1, OperationType::TANH);
}

bool concatenation(const Ins& ins, const Ins& outs, ZelModel* model) {
    return kFloat32Rules.at(__LINE__).concatenation(ins, outs, model);
}

bool conv_2d(const Ins& ins, const Ins& outs, ZelModel* model) {
    return kFloat32Rules.at(__LINE__).convolution(ins, outs, model, OperationType::CONV_2D, 7);
}

bool depthwise_conv_2d(const Ins& ins, const Ins& outs, ZelModel* model) {
    // The depth multiplier (ins[6] or ins[9]) is not examined here.
    return kFloat32Rules.at(__LINE__).convolution(ins, outs, model, OperationType::DEPTHWISE_CONV_2D, 8);
}

bool fully_connected(const Ins& ins, const Ins& outs, ZelModel* model) {
    return kFloat32Rules.at(__LINE__).fullyConnected(ins, outs, model);
}

bool reshape(const Ins& ins, const Ins& outs, ZelModel* model) {
    return kFloat32Rules.at(__LINE__).reshape(ins, outs, model);
}

bool resize_bilinear(const Ins& ins, const Ins& outs, ZelModel* model) {
    return kFloat32Rules.at(__LINE__).resizeBilinear(ins, outs, model);
}

bool dequantize(const Ins& ins, const Ins& outs, ZelModel* model) {
    return kFloat32Rules.at(__LINE__).dequantize(ins, outs, model);
}

bool local_response_normalization(const Ins& ins, const Ins& outs, ZelModel* model) {
    return kFloat32Rules.at(__LINE__).localResponseNormalization(ins, outs, model);
}

bool squeeze(const Ins& ins, const Ins& outs, ZelModel* model) {
    return kFloat32Rules.at(__LINE__).squeeze(ins, outs, model);
}

bool pad(const Ins& ins, const Ins& outs, ZelModel* model) {
    return kFloat32Rules.at(__LINE__).pad(ins, outs, model);
}

bool transposeCheck(const Ins& ins, const Ins& outs, ZelModel* model) {
    return kFloat32Rules.at(__LINE__).transpose(ins, outs, model);
}

bool space_to_depth(const Ins& ins, const Ins& outs, ZelModel* model) {
    return kFloat32Rules.at(__LINE__).spaceToDepth(ins, outs, model);
}

bool batch_to_space_nd(const Ins& ins, const Ins& outs, ZelModel* model) {
    return kFloat32Rules.at(__LINE__).batchToSpace(ins, outs, model);
}

bool space_to_batch_nd(const Ins& ins, const Ins& outs, ZelModel* model) {
    return kFloat32Rules.at(__LINE__).spaceToBatch(ins, outs, model);
}

bool oemLstmCheck(const Ins& ins, const Ins& outs, ZelModel* model) {
    return kFloat32Rules.at(__LINE__).oemLstm(ins, outs, model);
}

bool oemSplitCheck(const Ins& ins, const Ins& outs, ZelModel* model) {
    return kFloat32Rules.at(__LINE__).oemSplit(ins, outs, model);
}

}  // namespace float32_check
}  // namespace zel
}  // namespace nnhal
}  // namespace arv
