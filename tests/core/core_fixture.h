// Shared fixture of the model tests: a fresh simulator and runtime binding
// per test, small builders for host graphs and the recorded node chains.
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
#include "node_diagram.h"
#include "zel_accelerator.h"
#include "zel_model.h"
#include "zel_test_peers.h"
#include "zelhost/host_graph.h"
#include "zelsim/control.h"

namespace zelcore {

using arv::nnhal::OperandType;
using arv::nnhal::OperationType;
using arv::nnhal::host::HostGraph;
using arv::nnhal::host::Lifetime;
using arv::nnhal::zel::Controller;
using arv::nnhal::zel::input;
using arv::nnhal::zel::make_kestrel_nn_output;
using arv::nnhal::zel::OperandInfo;
using arv::nnhal::zel::output;
using arv::nnhal::zel::ZelModel;
using zeltest::expectChain;

// {src_id, output_idx}, for comparing references at a glance.
using Ref = std::pair<uint32_t, uint32_t>;

inline Ref ref(const input& in) {
    return {in.src_id, in.output_idx};
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
        EXPECT_EQ(0, peer(model).nnLib()->init(&id));
        peer(model).setGraphId(static_cast<uint32_t>(id));
        return id;
    }

    std::vector<std::string> errorTexts() const { return zeltest::errorTexts(log); }

    // Checks the model's vote balance on its token. Votes are queued at
    // once; up votes are applied by the voting thread within moments while
    // down votes wait their grace period, so once `ups` up votes are
    // applied the queue holds one message per down vote plus the timeout
    // of the last up vote.
    void expectVotes(ZelModel& model, int64_t ups, size_t downs) {
        arv::nnhal::zel::VotingThread* thread = peer(peer(model).nnLib()).votingThread();
        const uint64_t token = peer(model).votingToken();
        for (int i = 0; i < 5000 && peer(thread).tokenCount(token) < ups; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_EQ(ups, peer(thread).tokenCount(token));
        EXPECT_EQ(downs + (ups > 0 ? 1u : 0u), peer(thread).queueSize());
    }

    zeltest::LogCapture log;
};

// A model over `graph` attached to a runtime graph that records nodes
// without judging them, for calling the node builders one at a time.
class AttachedTest : public CoreTest {
protected:
    void start() {
        model = build(graph);
        ASSERT_NE(nullptr, model);
        graphId = attach(*model);
        zelsim::setPassThrough(true);
        log.clear();
    }

    std::vector<zelsim::RecordedNode> recorded() const { return zelsim::nodes(graphId); }

    HostGraph graph;
    std::unique_ptr<ZelModel> model;
    int graphId = 0;
};

}  // namespace zelcore
