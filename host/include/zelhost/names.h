// Display names used by the host tools. Operation names come from the
// table the plug-in's diagnostics use, so a listing and the plug-in's log
// lines name an operation alike; the host never links the plug-in itself.
#pragma once

#include <cstdint>
#include <string>

namespace arv {
namespace nnhal {
namespace host {

// "CONV_2D" for 3, "OEM_SPLIT" for 20001; "UNKNOWN_OPERATION_TYPE" for a
// code without a text (TRANSPOSE_CONV_2D among them), as the plug-in logs it.
std::string operationName(int32_t code);
// "TENSOR_QUANT8" for 5, "TENSOR_FLOAT16" for 8; "OPERAND_TYPE_<n>" for a
// code outside the numbering.
std::string operandTypeName(int32_t code);
// Runtime node operation: "QuantizedConv2d_8x8to32" for 15 (the enumerator
// without its ZEL_OP_ prefix); "op<n>" for a code without a name.
std::string runtimeOpName(int32_t code);
// Support level as a phrase: 0 "supported", 1 "not supported", 2
// "parameters not supported", -1 "no answer", others "level <n>".
std::string supportLevelName(int level);

}  // namespace host
}  // namespace nnhal
}  // namespace arv
