// Helpers shared by the runtime-link tests.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "zel_accelerator.h"

namespace foundation {

using arv::nnhal::zel::NnLib;

// Result of every wrapper of `lib`, by wrapper name. Only for a binding
// whose table may be empty: the arguments are placeholders.
inline std::vector<std::pair<std::string, int>> callEveryWrapper(NnLib& lib) {
    int graphId = 0;
    int version = 0;
    unsigned char buffer[8] = {};
    unsigned int u = 0;
    kestrel_zel_nn_input in{};
    kestrel_zel_nn_output out{};
    kestrel_zel_nn_tensordef def{};
    return {
        {"config", lib.config()},
        {"init", lib.init(&graphId)},
        {"getlog", lib.getlog(1, buffer, sizeof(buffer))},
        {"snpprint", lib.snpprint(1, buffer, sizeof(buffer))},
        {"set_debug_level", lib.set_debug_level(1, 0)},
        {"prepare", lib.prepare(1)},
        {"append_node", lib.append_node(1, 1, ZEL_OP_INPUT, 0, &in, 0, &out, 1)},
        {"append_const_node", lib.append_const_node(1, 2, 1, 1, 1, 1, buffer, 1)},
        {"execute_new", lib.execute_new(1, &def, 1, &def, 1)},
        {"execute", lib.execute(1, 1, 1, 1, 1, buffer, 1, &u, &u, &u, &u, buffer, 1, &u)},
        {"teardown", lib.teardown(1)},
        {"version", lib.version(&version)},
        {"set_config_params", lib.set_config_params(1, ZEL_NN_CONFIG_DEFAULT, nullptr)},
        {"set_powersave_level", lib.set_powersave_level(0)},
    };
}

// Expects -1 from every wrapper of an unbound table.
inline void expectEveryWrapperFails(NnLib& lib) {
    const auto results = callEveryWrapper(lib);
    EXPECT_EQ(results.size(), 14u);
    for (const auto& result : results) EXPECT_EQ(result.second, -1) << result.first;
}

// Polls `condition` until it holds or `limit` passes; true when it held.
inline bool waitFor(const std::function<bool()>& condition,
                    std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// True for the lines the voting worker writes on its own thread, at its
// own pace: start, stop and applied votes.
inline bool isWorkerLine(const std::string& text) {
    return text == "Starting VotingThread ..." || text == "Closing VotingThread ..." ||
           text == "Kestrel failed to set power save level" ||
           (text.rfind("Voting ", 0) == 0 && text.rfind("Voting message", 0) != 0);
}

// `texts` without the voting worker's lines.
inline std::vector<std::string> withoutWorkerLines(const std::vector<std::string>& texts) {
    std::vector<std::string> kept;
    for (const auto& text : texts) {
        if (!isWorkerLine(text)) kept.push_back(text);
    }
    return kept;
}

}  // namespace foundation
