// Support checks for float32 operations. None of them is registered in the
// support table; they are kept complete beside the quant8 family.
#pragma once

#include <cstdint>
#include <vector>

#include "arv/nnhal/nnhal_types.h"

namespace arv {
namespace nnhal {
namespace zel {

class ZelModel;

namespace float32_check {

using Ins = std::vector<uint32_t>;

// The shared sub-checks the per-operation checks forward to.
bool elementWiseOpCheck(const Ins& ins, const Ins& outs, ZelModel* model, OperationType type);
bool pool(const Ins& ins, const Ins& outs, ZelModel* model, OperationType type);
bool activation(const Ins& ins, const Ins& outs, ZelModel* model, uint32_t numInputs, OperationType type);

bool add(const Ins& ins, const Ins& outs, ZelModel* model);
bool mul(const Ins& ins, const Ins& outs, ZelModel* model);
bool sub(const Ins& ins, const Ins& outs, ZelModel* model);
bool average_pool_2d(const Ins& ins, const Ins& outs, ZelModel* model);
bool l2_pool_2d(const Ins& ins, const Ins& outs, ZelModel* model);
bool max_pool_2d(const Ins& ins, const Ins& outs, ZelModel* model);
bool logistic(const Ins& ins, const Ins& outs, ZelModel* model);
bool relu(const Ins& ins, const Ins& outs, ZelModel* model);
bool relu1(const Ins& ins, const Ins& outs, ZelModel* model);
bool relu6(const Ins& ins, const Ins& outs, ZelModel* model);
bool softmax(const Ins& ins, const Ins& outs, ZelModel* model);
bool tanh(const Ins& ins, const Ins& outs, ZelModel* model);
bool conv_2d(const Ins& ins, const Ins& outs, ZelModel* model);
bool depthwise_conv_2d(const Ins& ins, const Ins& outs, ZelModel* model);
bool fully_connected(const Ins& ins, const Ins& outs, ZelModel* model);
bool concatenation(const Ins& ins, const Ins& outs, ZelModel* model);
bool dequantize(const Ins& ins, const Ins& outs, ZelModel* model);
bool local_response_normalization(const Ins& ins, const Ins& outs, ZelModel* model);
bool squeeze(const Ins& ins, const Ins& outs, ZelModel* model);
bool pad(const Ins& ins, const Ins& outs, ZelModel* model);
bool transposeCheck(const Ins& ins, const Ins& outs, ZelModel* model);
bool space_to_depth(const Ins& ins, const Ins& outs, ZelModel* model);
bool reshape(const Ins& ins, const Ins& outs, ZelModel* model);
bool resize_bilinear(const Ins& ins, const Ins& outs, ZelModel* model);
bool batch_to_space_nd(const Ins& ins, const Ins& outs, ZelModel* model);
bool space_to_batch_nd(const Ins& ins, const Ins& outs, ZelModel* model);
bool oemLstmCheck(const Ins& ins, const Ins& outs, ZelModel* model);
bool oemSplitCheck(const Ins& ins, const Ins& outs, ZelModel* model);

}  // namespace float32_check
}  // namespace zel
}  // namespace nnhal
}  // namespace arv
