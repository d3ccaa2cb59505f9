// Graphviz rendering of the runtime graph an executor built. The host
// interfaces do not show the executor's runtime graph id, so the dump asks
// the runtime library itself: the simulator build exports its observation
// API (last graph id, DOT rendering); any runtime offers snpprint, whose
// one-node-a-line text is turned into DOT here.
#pragma once

#include <string>

namespace arv {
namespace nnhal {
namespace host {

// DOT text of the most recently created runtime graph of the runtime loaded
// at `runtimeHandle` (null: the copy already loaded under the runtime's file
// name). Returns "" and sets `error` when nothing can be rendered.
std::string dumpLastRuntimeGraph(void* runtimeHandle, std::string& error);

// The runtime's log (getlog) for its most recently created graph, "" when
// there is none or the runtime cannot say which graph that is.
std::string lastRuntimeLog(void* runtimeHandle);

// Turns a one-node-a-line listing into DOT: every line that starts with a
// node id, optionally after one word ("node 11: ...", "const 2: ..."),
// becomes a box (an ellipse for "const") labelled with the line; references
// written "<id>:<output>" or "(<id>,<output>)" become edges from that node.
std::string listingToDot(const std::string& listing, const std::string& title);

}  // namespace host
}  // namespace nnhal
}  // namespace arv
