// Shared fixture of the model tests: a fresh simulator and runtime binding
// per test, small builders for host graphs and readable views of the nodes
// the simulator recorded.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "log_capture.h"
#include "zel_accelerator.h"
#include "zel_model.h"
#include "zelhost/host_graph.h"
#include "zelsim/control.h"

namespace zelcore {

using arv::nnhal::OperandType;
using arv::nnhal::OperationType;
using arv::nnhal::host::HostGraph;
using arv::nnhal::host::Lifetime;
using arv::nnhal::zel::Controller;
using arv::nnhal::zel::input;
using arv::nnhal::zel::OperandInfo;
using arv::nnhal::zel::output;
using arv::nnhal::zel::ZelModel;

// {src_id, output_idx} pairs, for comparing reference lists at a glance.
using Ref = std::pair<uint32_t, uint32_t>;
using Refs = std::vector<Ref>;

inline Ref ref(const input& in) {
    return {in.src_id, in.output_idx};
}

inline Refs refs(const std::vector<kestrel_zel_nn_input>& list) {
    Refs out;
    for (const auto& in : list) out.push_back(ref(in));
    return out;
}

// Op code recorded for constant nodes.
constexpr int32_t kConst = -1;

// One expected node: id, op code (kConst for constants) and inputs.
struct NodeRow {
    uint32_t id;
    int32_t op;
    Refs inputs;
};

inline std::vector<uint8_t> floatBytes(float value) {
    std::vector<uint8_t> bytes(sizeof(float));
    std::memcpy(bytes.data(), &value, sizeof(float));
    return bytes;
}

inline float floatOf(const std::vector<uint8_t>& bytes) {
    float value = 0.0f;
    if (bytes.size() >= sizeof(float)) std::memcpy(&value, bytes.data(), sizeof(float));
    return value;
}

inline std::vector<uint8_t> iota(size_t n) {
    std::vector<uint8_t> bytes(n);
    for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>(i);
    return bytes;
}

// The record the model gives a quantized value's range.
inline output rangeRecord() {
    return arv::nnhal::zel::make_kestrel_nn_output({1, 1, 1, 1}, 4);
}

class CoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        zelsim::reset();
        Controller::getInstance()->resetNnLib();
        log.clear();
    }

    // A model over `graph`; fails the test when the graph is refused.
    std::unique_ptr<ZelModel> build(HostGraph& graph) {
        std::unique_ptr<ZelModel> model(ZelModel::create(&graph));
        EXPECT_NE(model, nullptr);
        return model;
    }

    // Gives the model a runtime graph for node-level work outside prepare.
    int attach(ZelModel& model) {
        int id = 0;
        EXPECT_EQ(0, model.nnLib()->init(&id));
        model.setGraphIdForTest(static_cast<uint32_t>(id));
        return id;
    }

    // Node `id` of runtime graph `graphId`, or a failure.
    zelsim::RecordedNode node(int graphId, uint32_t id) {
        for (const auto& n : zelsim::nodes(graphId)) {
            if (n.nodeId == id) return n;
        }
        ADD_FAILURE() << "no node " << id << " in graph " << graphId;
        return {};
    }

    // Every node recorded for `graphId` after node `afterId`, compared
    // row by row with `rows` (id, op, inputs) and all accepted.
    void expectNodes(int graphId, uint32_t afterId, const std::vector<NodeRow>& rows) {
        std::vector<zelsim::RecordedNode> seen;
        for (const auto& n : zelsim::nodes(graphId)) {
            if (n.nodeId > afterId) seen.push_back(n);
        }
        ASSERT_EQ(rows.size(), seen.size()) << "node count after " << afterId;
        for (size_t i = 0; i < rows.size(); ++i) {
            SCOPED_TRACE("node row " + std::to_string(i));
            EXPECT_EQ(rows[i].id, seen[i].nodeId);
            EXPECT_EQ(rows[i].op, seen[i].isConst ? kConst : seen[i].op);
            EXPECT_EQ(rows[i].inputs, refs(seen[i].inputs));
            EXPECT_TRUE(seen[i].accepted);
        }
    }

    // Error lines with the "<file>::<line> -- " prefix removed (lines
    // without one are kept whole).
    std::vector<std::string> errorTexts() const {
        std::vector<std::string> out;
        for (const auto& line : log.errors()) {
            const std::string rest = zeltest::afterLocation(line);
            out.push_back(rest.empty() ? line : rest);
        }
        return out;
    }

    // Checks the model's vote balance on its token. Votes are queued at
    // once; up votes are applied by the voting thread within moments while
    // down votes wait their grace period, so once `ups` up votes are
    // applied the queue holds one message per down vote plus the timeout
    // of the last up vote.
    void expectVotes(ZelModel& model, int64_t ups, size_t downs) {
        arv::nnhal::zel::VotingThread* thread = model.nnLib()->votingThread();
        const uint64_t token = model.votingToken();
        for (int i = 0; i < 5000 && thread->tokenCount(token) < ups; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_EQ(ups, thread->tokenCount(token));
        EXPECT_EQ(downs + (ups > 0 ? 1u : 0u), thread->queueSize());
    }

    zeltest::LogCapture log;
};

}  // namespace zelcore
