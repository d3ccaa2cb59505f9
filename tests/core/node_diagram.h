// Node chains as the simulator recorded them, one diagram line a node, so
// that expected chains read like a diagram:
//   "11 QuantizedConv2d_8x8to32 pad=1 [1:0 2:0 ...] -> [1x3x3x1*4 1x1x1x1*4 ...]"
//   "4 const 1x1x1x1 f32 127.5"
// Op nodes name their op ("ZEL_OP_" dropped; codes without a name print as
// the number), padding, input references and output records (dims * element
// size). Constants print their dims and their data in the view the expected
// line asks for after the dims: "f32", "i32", "u8", "shape" (one zero word)
// or anything else for "(N bytes)". Refused nodes start with "REFUSED ".
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "log_capture.h"
#include "zelsim/control.h"

namespace zeltest {

// Output records of a quantized value: the value, then its two range slots.
#define RANGES "1x1x1x1*4 1x1x1x1*4"

std::string diagram(const zelsim::RecordedNode& node, const std::string& expected);

// Compares the nodes of `graphId` with ids above `afterId` with `expected`,
// one line a node.
void expectChain(int graphId, const std::vector<std::string>& expected, uint32_t afterId = 0);

// True when every node appended to `graphId` was accepted.
bool allAccepted(int graphId);

// Error lines of `log` with their "<file>::<line> -- " prefix removed.
std::vector<std::string> errorTexts(const LogCapture& log);

}  // namespace zeltest
