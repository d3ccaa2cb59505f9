// Lowering of 8-bit quantized operations into runtime nodes, and the
// lowering table.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "arv/nnhal/nnhal_types.h"
#include "zel_kestrel_runtime.h"
#include "zel_utils.h"

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

// Steps and records both lowering families (quant8, float32) share.
namespace lowering {

using Ins = std::vector<uint32_t>;
using Inputs = std::vector<kestrel_zel_nn_input>;

// Padding and strides of a window operation (convolutions and pools).
struct Window {
    padding_type_enum padding = ZEL_NN_PAD_NA;
    int32_t strideWidth = 0;
    int32_t strideHeight = 0;
    int32_t filterWidth = 0;
    int32_t filterHeight = 0;
};

int32_t scalar(ZelModel* model, uint32_t index);
// The runtime's axis (of its four dimensions, the host's shorter shapes
// right-aligned) for `axis` of a host operand of `rank`; false when the
// axis is outside that rank or the rank above 4.
bool toRuntimeAxis(int32_t axis, size_t rank, int32_t* runtimeAxis);
// One 4-byte float constant of shape 1x1x1x1.
kestrel_zel_nn_input floatConstant(ZelModel* model, float value);
// An int32 constant of the given dims holding `values`.
kestrel_zel_nn_input int32Constant(ZelModel* model, uint32_t batches, uint32_t height, uint32_t width, uint32_t depth,
                                   const std::vector<int32_t>& values);
// The stride record 1 x stride_h x stride_w x 1.
kestrel_zel_nn_input strideShape(ZelModel* model, const Window& w);

// The steps that log, for one family: their located lines name the
// family's source file.
class Steps {
public:
    explicit constexpr Steps(const char* source, int line = 0) : mSource(source), mLine(line) {}
    // The same steps, their located lines giving `line` of the source file
    // (the line of the lowering that runs them) instead of their own.
    constexpr Steps at(int line) const { return Steps(mSource, line); }

    // Count checks and operand guards shared by every function. The output
    // count line prints the actual count on the left, as this plug-in always
    // has: "failed 1 == outs.size() (2 == 1): Need 1 output for ...".
    bool checkFrame(ZelModel* model, const Ins& ins, bool inputsOk, const std::string& inputsText, const Ins& outs,
                    uint32_t outputsNeeded, const std::string& outputsText) const;
    // checkFrame for one output, texts "Need <need> for <name>" and
    // "Need 1 output for <name>".
    bool checkNamed(ZelModel* model, const Ins& ins, bool inputsOk, const std::string& need, const Ins& outs,
                    const std::string& name) const;
    // Reads the padding and strides starting at ins[at] (the padding code in
    // the implicit form, the left padding in the explicit one). Pools carry
    // the window size as two scalars after the strides; convolutions take it
    // from the filter operand ins[1] (dimensions 2 and 1, NHWC).
    bool parseWindow(ZelModel* model, const Ins& ins, bool explicitForm, uint32_t at, bool poolWindow, Window* w) const;
    // Explicit paddings that are neither same nor valid padding cannot be run.
    bool knownPadding(padding_type_enum pad) const;

private:
    ::zel_detail::Source source() const { return {mSource, mLine}; }

    const char* mSource;  // file named by the located lines
    int mLine;            // line named by the located lines; 0: the step's own
};

}  // namespace lowering

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
