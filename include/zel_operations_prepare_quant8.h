// Lowering of 8-bit quantized operations into runtime nodes, and the
// lowering table.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <utility>
#include <vector>

#include "arv/nnhal/nnhal_types.h"

namespace arv {
namespace nnhal {
namespace zel {

class ZelModel;

// (operands in, operands out, model) -> the nodes were added.
using OperationPrepareFn =
    std::function<bool(const std::vector<uint32_t>& ins, const std::vector<uint32_t>& outs, ZelModel* model)>;
using OperationPrepareTable = std::map<std::pair<OperationType, OperandType>, OperationPrepareFn>;

// The lowering table: fifteen quant8 rows, built on first use, never changed.
const OperationPrepareTable& getOperationPrepareTable();

namespace quant8_asym {

using Ins = std::vector<uint32_t>;

bool add(const Ins& ins, const Ins& outs, ZelModel* model);
bool sub(const Ins& ins, const Ins& outs, ZelModel* model);
bool mul(const Ins& ins, const Ins& outs, ZelModel* model);
bool conv_2d(const Ins& ins, const Ins& outs, ZelModel* model);
bool depthwise_conv_2d(const Ins& ins, const Ins& outs, ZelModel* model);
bool fully_connected(const Ins& ins, const Ins& outs, ZelModel* model);
bool average_pool_2d(const Ins& ins, const Ins& outs, ZelModel* model);
bool max_pool_2d(const Ins& ins, const Ins& outs, ZelModel* model);
bool concatenation(const Ins& ins, const Ins& outs, ZelModel* model);
bool relu(const Ins& ins, const Ins& outs, ZelModel* model);
bool relu1(const Ins& ins, const Ins& outs, ZelModel* model);
bool relu6(const Ins& ins, const Ins& outs, ZelModel* model);
bool prelu(const Ins& ins, const Ins& outs, ZelModel* model);
bool logistic(const Ins& ins, const Ins& outs, ZelModel* model);
bool softmax(const Ins& ins, const Ins& outs, ZelModel* model);
bool reshape(const Ins& ins, const Ins& outs, ZelModel* model);
bool squeeze(const Ins& ins, const Ins& outs, ZelModel* model);
bool pad(const Ins& ins, const Ins& outs, ZelModel* model);
bool resize_bilinear(const Ins& ins, const Ins& outs, ZelModel* model);
bool batch_to_space_nd(const Ins& ins, const Ins& outs, ZelModel* model);
bool space_to_batch_nd(const Ins& ins, const Ins& outs, ZelModel* model);
bool space_to_depth(const Ins& ins, const Ins& outs, ZelModel* model);
bool oemLstm(const Ins& ins, const Ins& outs, ZelModel* model);
bool oemSplit(const Ins& ins, const Ins& outs, ZelModel* model);
bool transpose_conv_2d(const Ins& ins, const Ins& outs, ZelModel* model);

}  // namespace quant8_asym
}  // namespace zel
}  // namespace nnhal
}  // namespace arv
