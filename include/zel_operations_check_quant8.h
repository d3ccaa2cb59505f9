// Support checks for 8-bit quantized operations, and the support table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <utility>
#include <vector>

#include "arv/nnhal/nnhal_types.h"
#include "zel_kestrel_runtime.h"
#include "zel_utils.h"

namespace arv {
namespace nnhal {
namespace zel {

class ZelModel;

// (operands in, operands out, model) -> the operation can run.
using OperationCheckFn =
    std::function<bool(const std::vector<uint32_t>& ins, const std::vector<uint32_t>& outs, ZelModel* model)>;
using OperationCheckTable = std::map<std::pair<OperationType, OperandType>, OperationCheckFn>;

// The support table: fifteen quant8 rows, built on first use, never changed.
const OperationCheckTable& getOperationCheckTable();

struct Shape;

// The check rules behind both families' check functions (an implementation
// detail: callers use the functions of quant8_asym_check and float32_check),
// written once for the quant8 and the float32 family. One
// object per family: its located lines name the family's source file, and
// the quantized family adds the rules of the quantized runtime (fusable
// activation, channel-axis concatenation, constant transpose indexes).
class CheckRules {
public:
    using Ins = std::vector<uint32_t>;

    constexpr CheckRules(const char* source, bool quantized) : mSource(source), mQuantized(quantized), mLine(0) {}
    // The same rules, their located lines giving `line` of the source file
    // (the line of the forward that runs them) instead of their own.
    constexpr CheckRules at(int line) const { return CheckRules(mSource, mQuantized, line); }

    bool elementWise(const Ins& ins, const Ins& outs, ZelModel* model, OperationType type) const;
    bool pool(const Ins& ins, const Ins& outs, ZelModel* model, OperationType type) const;
    bool activation(const Ins& ins, const Ins& outs, ZelModel* model, uint32_t numInputs, OperationType type) const;
    // conv_2d and depthwise_conv_2d; `implicitCount` is the input count of
    // the implicit form (the explicit form has three more).
    bool convolution(const Ins& ins, const Ins& outs, ZelModel* model, OperationType type, size_t implicitCount) const;
    bool fullyConnected(const Ins& ins, const Ins& outs, ZelModel* model) const;
    bool concatenation(const Ins& ins, const Ins& outs, ZelModel* model) const;
    bool reshape(const Ins& ins, const Ins& outs, ZelModel* model) const;
    bool resizeBilinear(const Ins& ins, const Ins& outs, ZelModel* model) const;
    bool dequantize(const Ins& ins, const Ins& outs, ZelModel* model) const;
    bool localResponseNormalization(const Ins& ins, const Ins& outs, ZelModel* model) const;
    bool squeeze(const Ins& ins, const Ins& outs, ZelModel* model) const;
    bool pad(const Ins& ins, const Ins& outs, ZelModel* model) const;
    bool transpose(const Ins& ins, const Ins& outs, ZelModel* model) const;
    bool spaceToDepth(const Ins& ins, const Ins& outs, ZelModel* model) const;
    bool batchToSpace(const Ins& ins, const Ins& outs, ZelModel* model) const;
    bool spaceToBatch(const Ins& ins, const Ins& outs, ZelModel* model) const;
    bool oemLstm(const Ins& ins, const Ins& outs, ZelModel* model) const;
    bool oemSplit(const Ins& ins, const Ins& outs, ZelModel* model) const;

private:
    bool operandsReadable(const Ins& ins, const Ins& outs, ZelModel* model, OperationType type) const;
    bool int32Parameters(ZelModel* model, const Ins& ins, size_t first, size_t end, OperationType type) const;
    bool copyInt32Data(ZelModel* model, uint32_t index, OperationType type, std::vector<int32_t>* values) const;
    bool activationFusable(ZelModel* model, uint32_t index) const;
    bool storeShape(bool inferred, ZelModel* model, uint32_t out, const Shape& output, const Ins& ins) const;
    bool storeOnly(ZelModel* model, uint32_t out, const Shape& output) const;
    struct SpaceBatch;
    bool readSpaceBatch(const Ins& ins, const Ins& outs, ZelModel* model, OperationType type, size_t inputCount,
                        SpaceBatch* operands) const;

    constexpr CheckRules(const char* source, bool quantized, int line)
        : mSource(source), mQuantized(quantized), mLine(line) {}
    ::zel_detail::Source source() const { return {mSource, mLine}; }

    const char* mSource;  // file named by the located lines
    bool mQuantized;
    int mLine;  // line named by the located lines; 0: the rule's own
};

namespace quant8_asym_check {

using Ins = std::vector<uint32_t>;

// The shared sub-checks the per-operation checks forward to.
bool elementWiseOpCheck(const Ins& ins, const Ins& outs, ZelModel* model, OperationType type);
bool pool(const Ins& ins, const Ins& outs, ZelModel* model, OperationType type);
bool activation(const Ins& ins, const Ins& outs, ZelModel* model, uint32_t numInputs, OperationType type);

// True for the fused activation node codes the accelerator can fuse.
bool fusedActivationCheck(zel_op_type_enum code);

bool add(const Ins& ins, const Ins& outs, ZelModel* model);
bool sub(const Ins& ins, const Ins& outs, ZelModel* model);
bool mul(const Ins& ins, const Ins& outs, ZelModel* model);
bool average_pool_2d(const Ins& ins, const Ins& outs, ZelModel* model);
bool l2_pool_2d(const Ins& ins, const Ins& outs, ZelModel* model);
bool max_pool_2d(const Ins& ins, const Ins& outs, ZelModel* model);
bool logistic(const Ins& ins, const Ins& outs, ZelModel* model);
bool relu(const Ins& ins, const Ins& outs, ZelModel* model);
bool relu1(const Ins& ins, const Ins& outs, ZelModel* model);
bool relu6(const Ins& ins, const Ins& outs, ZelModel* model);
bool prelu(const Ins& ins, const Ins& outs, ZelModel* model);
bool softmax(const Ins& ins, const Ins& outs, ZelModel* model);
bool tanh(const Ins& ins, const Ins& outs, ZelModel* model);
bool concatenation(const Ins& ins, const Ins& outs, ZelModel* model);
bool conv_2d(const Ins& ins, const Ins& outs, ZelModel* model);
bool depthwise_conv_2d(const Ins& ins, const Ins& outs, ZelModel* model);
bool fully_connected(const Ins& ins, const Ins& outs, ZelModel* model);
bool reshape(const Ins& ins, const Ins& outs, ZelModel* model);
bool resize_bilinear(const Ins& ins, const Ins& outs, ZelModel* model);
bool transpose_conv_2d(const Ins& ins, const Ins& outs, ZelModel* model);
bool dequantize(const Ins& ins, const Ins& outs, ZelModel* model);
bool local_response_normalization(const Ins& ins, const Ins& outs, ZelModel* model);
bool squeeze(const Ins& ins, const Ins& outs, ZelModel* model);
bool pad(const Ins& ins, const Ins& outs, ZelModel* model);
bool transposeCheck(const Ins& ins, const Ins& outs, ZelModel* model);
bool space_to_depth(const Ins& ins, const Ins& outs, ZelModel* model);
bool batch_to_space_nd(const Ins& ins, const Ins& outs, ZelModel* model);
bool space_to_batch_nd(const Ins& ins, const Ins& outs, ZelModel* model);
bool oemLstmCheck(const Ins& ins, const Ins& outs, ZelModel* model);
bool oemSplitCheck(const Ins& ins, const Ins& outs, ZelModel* model);

}  // namespace quant8_asym_check
}  // namespace zel
}  // namespace nnhal
}  // namespace arv
