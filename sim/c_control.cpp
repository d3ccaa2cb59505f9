#include "zelsim/c_control.h"

#include <climits>
#include <cstring>
#include <string>

#include "zelsim/control.h"

int zelsim_last_graph_id(void) {
    return zelsim::lastGraphId();
}

int zelsim_render_dot(int graph_id, char* buffer, unsigned length) {
    const std::string dot = zelsim::renderDot(graph_id);
    if (dot.empty() || dot.size() > INT_MAX) return -1;
    if (buffer != nullptr && length > 0) {
        const size_t copied = dot.size() < length ? dot.size() : length - 1;
        std::memcpy(buffer, dot.data(), copied);
        buffer[copied] = '\0';
    }
    return static_cast<int>(dot.size());
}
