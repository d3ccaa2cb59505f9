// Display names used by the host tools. The host keeps its own tables: it
// never links the plug-in, and it names every operation code of the
// numbering, also those the plug-in has no text for.
#pragma once

#include <cstdint>
#include <string>

namespace arv {
namespace nnhal {
namespace host {

// "CONV_2D" for 3, "OEM_SPLIT" for 20001; "OPERATION_<n>" for a code
// outside the numbering.
std::string operationName(int32_t code);
// "TENSOR_QUANT8" for 5; "OPERAND_TYPE_<n>" for an unknown code.
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
