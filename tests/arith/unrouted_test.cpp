// Rules and lowerings that the support and lowering tables do not route, so
// that no host graph reaches them: called directly on a model of a small
// graph (the lowerings on a fresh runtime graph of the simulator).
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "log_capture.h"
#include "zel_model.h"
#include "zel_operations_check_quant8.h"
#include "zel_operations_prepare_float32.h"
#include "zel_operations_prepare_quant8.h"
#include "zel_test_peers.h"
#include "zelhost/host_graph.h"
#include "zelsim/control.h"

namespace {

using namespace arv::nnhal;
using host::HostGraph;
using host::Lifetime;
using zel::ZelModel;

class Unrouted : public ::testing::Test {
protected:
    void SetUp() override { zelsim::reset(); }
    void TearDown() override { zelsim::reset(); }

    // The model of `g`; with `attach`, also a runtime graph and its input node.
    ZelModel* model(bool attach = false) {
        mModel.reset(ZelModel::create(&g));
        if (!mModel || !attach) return mModel.get();
        int id = 0;
        EXPECT_EQ(kestrel_zel_nn_init(&id), 0);
        zel::ZelModelTestPeer(mModel.get()).setGraphId(static_cast<uint32_t>(id));
        EXPECT_TRUE(mModel->addInputs());
        return mModel.get();
    }
    // Runtime nodes appended to the model's graph.
    std::vector<zelsim::RecordedNode> nodes() { return zelsim::nodes(static_cast<int>(mModel->graphId())); }
    uint32_t q8(std::vector<uint32_t> dims, Lifetime lifetime) {
        return g.addOperand(OperandType::TENSOR_QUANT8, std::move(dims), 0.5f, 0, lifetime);
    }
    uint32_t f32(std::vector<uint32_t> dims, Lifetime lifetime) { return g.addFloatTensor(std::move(dims), lifetime); }
    void io(const std::vector<uint32_t>& in, const std::vector<uint32_t>& out) {
        g.setInputs(in);
        g.setOutputs(out);
    }

    HostGraph g;
    zeltest::LogCapture log;
    std::unique_ptr<ZelModel> mModel;
};

TEST_F(Unrouted, QuantizedChecks) {
    const uint32_t in = q8({1, 2, 1, 1}, Lifetime::Input);
    const uint32_t out = q8({2}, Lifetime::Output);
    const uint32_t bias = g.addInt32Tensor({1}, 0.0f, {1});
    io({in}, {out});
    ZelModel* m = model();
    ASSERT_NE(m, nullptr);
    // Without a list every dimension of size 1 goes.
    EXPECT_TRUE(zel::quant8_asym_check::squeeze({in}, {out}, m));
    EXPECT_EQ(m->getShape(out).dimensions, (std::vector<uint32_t>{2}));
    EXPECT_TRUE(log.errors().empty());

    EXPECT_FALSE(zel::quant8_asym_check::relu({99}, {out}, m));
    EXPECT_FALSE(zel::quant8_asym_check::pad({in}, {out}, m));
    EXPECT_FALSE(zel::quant8_asym_check::oemLstmCheck({in, in, in, in, in, in}, {out, out, out}, m));
    EXPECT_FALSE(zel::quant8_asym_check::oemLstmCheck({in, in, in, in, bias, in}, {out, out, out, out}, m));
    const auto errors = log.errors();
    ASSERT_EQ(errors.size(), 4u);
    EXPECT_EQ(zeltest::afterLocation(errors[0]), "Input 0 of RELU names operand 99, which is outside the graph");
    EXPECT_EQ(zeltest::afterLocation(errors[1]), "failed 2 == ins.size() (2 == 1): Need 2 inputs for PAD");
    EXPECT_EQ(zeltest::afterLocation(errors[2]), "failed 4 == outs.size() (4 == 3): Need 4 outputs for OEM LSTM");
    EXPECT_EQ(zeltest::afterLocation(errors[3]), "OEM LSTM requires weight to be constant data");
}

TEST_F(Unrouted, QuantizedBatchToSpaceNeedsRankThree) {
    const uint32_t in = q8({4, 2}, Lifetime::Input);
    const uint32_t block = g.addInt32Tensor({2}, 0.0f, {2, 2});
    const uint32_t out = q8({1, 8}, Lifetime::Output);
    io({in}, {out});
    ZelModel* m = model(true);
    ASSERT_NE(m, nullptr);
    EXPECT_FALSE(zel::quant8_asym::batch_to_space_nd({in, block}, {out}, m));
    ASSERT_EQ(log.errors().size(), 1u);
    EXPECT_EQ(zeltest::afterLocation(log.errors()[0]),
              "Need an input of rank 3 or 4 for quant8_asym::batch_to_space_nd, got rank 2");
}

TEST_F(Unrouted, QuantizedTransposeAndSpaceToBatchAcceptTheirValidForms) {
    const uint32_t in = q8({1, 4, 2, 1}, Lifetime::Input);
    const uint32_t perm = g.addInt32Tensor({4}, 0.0f, {0, 2, 1, 3});
    const uint32_t transposed = q8({1, 2, 4, 1}, Lifetime::Output);
    const uint32_t block = g.addInt32Tensor({2}, 0.0f, {2, 1});
    const uint32_t paddings = g.addInt32Tensor({2, 2}, 0.0f, {0, 0, 0, 0});
    const uint32_t batched = q8({0, 0, 0, 0}, Lifetime::Output);
    io({in}, {transposed, batched});
    ZelModel* m = model();
    ASSERT_NE(m, nullptr);
    EXPECT_TRUE(zel::quant8_asym_check::transposeCheck({in, perm}, {transposed}, m));
    EXPECT_TRUE(zel::quant8_asym_check::space_to_batch_nd({in, block, paddings}, {batched}, m));
    // A 2x1 block: twice the batches, half the height, the same width.
    EXPECT_EQ(m->getShape(batched).dimensions, (std::vector<uint32_t>{2, 2, 2, 1}));
    EXPECT_TRUE(log.errors().empty());
}

TEST_F(Unrouted, QuantizedVendorSplitLowersOnItsAxis) {
    const uint32_t in = q8({1, 4}, Lifetime::Input);
    const uint32_t axis = g.addInt32(1), parts = g.addInt32(2);
    const uint32_t a = q8({1, 2}, Lifetime::Output), b = q8({1, 2}, Lifetime::Output);
    io({in}, {a, b});
    ZelModel* m = model(true);
    ASSERT_NE(m, nullptr);
    EXPECT_TRUE(zel::quant8_asym::oemSplit({axis, in, parts, axis}, {a, b}, m));
    EXPECT_TRUE(log.errors().empty());
}

// Explicit forms: 0/1/0/1 around a 3x3 input with a 2x2 window is same padding.
TEST_F(Unrouted, FloatPoolAndDepthwiseInTheExplicitForm) {
    const uint32_t in = f32({1, 3, 3, 1}, Lifetime::Input);
    const uint32_t zero = g.addInt32(0), one = g.addInt32(1), two = g.addInt32(2), relu6 = g.addInt32(3);
    const uint32_t pooled = f32({1, 3, 3, 1}, Lifetime::Output);
    const uint32_t filter = g.addFloatTensor({1, 2, 2, 2}, Lifetime::Constant, {1, 2, 3, 4, 5, 6, 7, 8});
    const uint32_t bias = g.addFloatTensor({2}, Lifetime::Constant, {0.5f, 1.0f});
    const uint32_t deep = f32({1, 3, 3, 2}, Lifetime::Output);
    const uint32_t resized = f32({1, 2, 2, 1}, Lifetime::Output);
    io({in}, {pooled, deep, resized});
    ZelModel* m = model(true);
    ASSERT_NE(m, nullptr);
    EXPECT_TRUE(zel::float32::max_pool_2d({in, zero, one, zero, one, one, one, two, two, zero}, {pooled}, m));
    EXPECT_TRUE(
        zel::float32::depthwise_conv_2d({in, filter, bias, zero, one, zero, one, one, one, two, relu6}, {deep}, m));
    EXPECT_TRUE(zel::float32::resize_bilinear({in, two, two}, {resized}, m));
    std::vector<int32_t> pads;
    float bound = 0.0f;
    for (const auto& node : nodes()) {
        if (!node.isConst && node.op > 1) pads.push_back(node.padding);
        if (node.isConst && node.data.size() == sizeof(float)) std::memcpy(&bound, node.data.data(), sizeof bound);
    }
    // Pool, depthwise (same padding), bias, the RELU6 and the resize (no padding).
    EXPECT_EQ(pads, (std::vector<int32_t>{ZEL_NN_PAD_SAME, ZEL_NN_PAD_SAME, 0, 0, 0}));
    EXPECT_EQ(bound, 6.0f) << "the RELU6 bound is the last one-float constant";
    EXPECT_TRUE(log.errors().empty());
}

// The axis constant counts from the end of a 4-D record: axis 1 of 2-D is 3.
TEST_F(Unrouted, FloatConcatenationAxis) {
    const uint32_t a = f32({2, 3}, Lifetime::Input);
    const uint32_t b = f32({2, 1}, Lifetime::Input);
    const uint32_t axis = g.addInt32(1);
    const uint32_t out = f32({2, 4}, Lifetime::Output);
    io({a, b}, {out});
    ZelModel* m = model(true);
    ASSERT_NE(m, nullptr);
    EXPECT_TRUE(zel::float32::concatenation({a, b, axis}, {out}, m));
    const auto all = nodes();
    ASSERT_GE(all.size(), 2u);
    ASSERT_TRUE(all[1].isConst);
    int32_t value = 0;
    ASSERT_EQ(all[1].data.size(), sizeof value);
    std::memcpy(&value, all[1].data.data(), sizeof value);
    EXPECT_EQ(value, 3);
}

}  // namespace
