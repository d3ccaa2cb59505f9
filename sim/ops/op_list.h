// Validation and execution functions of every node family; op_table.cpp
// binds them to op codes.
#pragma once

#include <string>
#include <vector>

#include "zelsim/ops.h"

namespace zelsim {
namespace detail {

#define ZELSIM_DECLARE_VALIDATE(fn) std::string fn(const NodeDesc& node, const std::vector<InputInfo>& inputs)
#define ZELSIM_DECLARE_EXECUTE(fn)                                                                        \
    bool fn(const NodeDesc& node, const std::vector<const Tensor*>& inputs, std::vector<Tensor>& outputs, \
            std::string* error)

// ops_accumulate.cpp: 8x8->32 products, bias, requantization, add/sub.
ZELSIM_DECLARE_VALIDATE(validateConv);
ZELSIM_DECLARE_EXECUTE(executeConv);
ZELSIM_DECLARE_VALIDATE(validateDepthwise);
ZELSIM_DECLARE_EXECUTE(executeDepthwise);
ZELSIM_DECLARE_VALIDATE(validateMatMul);
ZELSIM_DECLARE_EXECUTE(executeMatMul);
ZELSIM_DECLARE_VALIDATE(validateBiasAdd);
ZELSIM_DECLARE_EXECUTE(executeBiasAdd);
ZELSIM_DECLARE_VALIDATE(validateRequantize);
ZELSIM_DECLARE_EXECUTE(executeRequantize);
ZELSIM_DECLARE_VALIDATE(validateAdd);
ZELSIM_DECLARE_EXECUTE(executeAdd);
ZELSIM_DECLARE_VALIDATE(validateSub);
ZELSIM_DECLARE_EXECUTE(executeSub);

// ops_elementwise.cpp: activations, PReLU, quantize, dequantize.
ZELSIM_DECLARE_VALIDATE(validateRelu);
ZELSIM_DECLARE_EXECUTE(executeRelu);
ZELSIM_DECLARE_VALIDATE(validateReluX);
ZELSIM_DECLARE_EXECUTE(executeReluX);
ZELSIM_DECLARE_VALIDATE(validateClamp);
ZELSIM_DECLARE_EXECUTE(executeClamp);
ZELSIM_DECLARE_VALIDATE(validatePRelu);
ZELSIM_DECLARE_EXECUTE(executePRelu);
ZELSIM_DECLARE_VALIDATE(validateQuantize);
ZELSIM_DECLARE_EXECUTE(executeQuantize);
ZELSIM_DECLARE_VALIDATE(validateDequantize);
ZELSIM_DECLARE_EXECUTE(executeDequantize);

// ops_window.cpp: pooling.
ZELSIM_DECLARE_VALIDATE(validateMaxPool);
ZELSIM_DECLARE_EXECUTE(executeMaxPool);
ZELSIM_DECLARE_VALIDATE(validateAvgPool);
ZELSIM_DECLARE_EXECUTE(executeAvgPool);

// ops_layout.cpp: concat, reshape, resize.
ZELSIM_DECLARE_VALIDATE(validateConcat);
ZELSIM_DECLARE_EXECUTE(executeConcat);
ZELSIM_DECLARE_VALIDATE(validateReshape);
ZELSIM_DECLARE_EXECUTE(executeReshape);
ZELSIM_DECLARE_VALIDATE(validateResizeBilinear);
ZELSIM_DECLARE_EXECUTE(executeResizeBilinear);

// ops_structural.cpp: graph ends, quantized nodes the simulator only
// checks, and the float nodes.
ZELSIM_DECLARE_VALIDATE(validateInput);
ZELSIM_DECLARE_VALIDATE(validateOutput);
ZELSIM_DECLARE_VALIDATE(validateSigmoid);
ZELSIM_DECLARE_VALIDATE(validateSoftmax);
ZELSIM_DECLARE_VALIDATE(validatePad);
ZELSIM_DECLARE_VALIDATE(validateSpaceToBatch);
ZELSIM_DECLARE_VALIDATE(validateBatchToSpace);
ZELSIM_DECLARE_VALIDATE(validateSpaceToDepth);
ZELSIM_DECLARE_VALIDATE(validateSplit);
ZELSIM_DECLARE_VALIDATE(validateLstm);
// Float nodes share one structural check keyed by op code.
ZELSIM_DECLARE_VALIDATE(validateFloat);

#undef ZELSIM_DECLARE_VALIDATE
#undef ZELSIM_DECLARE_EXECUTE

}  // namespace detail
}  // namespace zelsim
