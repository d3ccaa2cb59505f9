// Constant nodes: host constants, range constants and the filter and weight
// layouts the runtime wants (the small layouts are also in the lowering
// chains). Each node is compared as a diagram line.
#include "core_fixture.h"
#include "zel_test_peers.h"

namespace zelcore {
namespace {

using Constants = AttachedTest;

TEST_F(Constants, ConstantReadTwiceIsOneNode) {
    const uint32_t w = graph.addQuant8({2, 3}, 0.5f, 0, Lifetime::Constant, iota(6));
    start();
    EXPECT_EQ(Ref(1, 0), ref(model->getTensor(w)));
    EXPECT_EQ(Ref(1, 0), ref(model->getTensor(w)));
    EXPECT_EQ(Ref(1, 0), ref(model->addOperand(w)));
    EXPECT_EQ(1u, log.startingWith("Create const node, id: ").size());
    expectChain(graphId, {"1 const 1x1x2x3 u8 0 1 2 3 4 5"});
}

// A filter with every dimension distinct: [out, h, w, in] becomes
// [h, w, in, out], a new node on every call.
TEST_F(Constants, ConvolutionFilterBecomesHeightWidthInOut) {
    const std::vector<uint8_t> bytes = iota(8 * 3 * 3 * 4);
    const uint32_t f = graph.addQuant8({8, 3, 3, 4}, 0.5f, 0, Lifetime::Constant, bytes);
    start();
    EXPECT_EQ(Ref(1, 0), ref(model->createConvFilterTensor(f)));
    EXPECT_EQ(1u, log.count("NHWC --> HWCN"));
    const zelsim::RecordedNode n = recorded().at(0);
    EXPECT_EQ((std::vector<uint32_t>{3, 3, 4, 8}), std::vector<uint32_t>(n.dims, n.dims + 4));
    ASSERT_EQ(bytes.size(), n.data.size());
    for (uint32_t o = 0; o < 8; ++o)
        for (uint32_t hwi = 0; hwi < 36; ++hwi) ASSERT_EQ(bytes[o * 36 + hwi], n.data[hwi * 8 + o]) << o << "," << hwi;
    EXPECT_EQ(Ref(2, 0), ref(model->createConvFilterTensor(f)));
}

// Every transpose goes to the runtime through one buffer: a filter smaller
// than the one before it, then a weight of 4 MiB (a buffer aligned for huge
// pages), each arrives whole and transposed.
TEST_F(Constants, TransposesInARowEachArriveWhole) {
    const auto bytes = [](size_t n) {
        std::vector<uint8_t> data(n);
        for (size_t i = 0; i < n; ++i) data[i] = static_cast<uint8_t>(i * 131 + (i >> 8) * 7);
        return data;
    };
    struct Matrix {
        uint32_t index, rows, cols;
        std::vector<uint8_t> data;
    };
    std::vector<Matrix> matrices = {{0, 16, 36, bytes(16 * 36)}, {0, 3, 2, bytes(3 * 2)}, {0, 1024, 4096, {}}};
    matrices[2].data = bytes(1024 * 4096);
    matrices[0].index = graph.addQuant8({16, 3, 3, 4}, 0.5f, 0, Lifetime::Constant, matrices[0].data);
    matrices[1].index = graph.addQuant8({3, 1, 1, 2}, 0.5f, 0, Lifetime::Constant, matrices[1].data);
    matrices[2].index = graph.addQuant8({1024, 4096}, 0.5f, 0, Lifetime::Constant, matrices[2].data);
    start();
    model->createConvFilterTensor(matrices[0].index);
    model->createConvFilterTensor(matrices[1].index);
    model->createFullyConnectedWeightTensor(matrices[2].index);
    const std::vector<zelsim::RecordedNode> nodes = recorded();
    ASSERT_EQ(3u, nodes.size());
    for (size_t k = 0; k < 3; ++k) {
        const Matrix& m = matrices[k];
        ASSERT_EQ(m.data.size(), nodes[k].data.size()) << k;
        size_t wrong = 0;
        for (size_t r = 0; r < m.rows; ++r)
            for (size_t c = 0; c < m.cols; ++c) wrong += nodes[k].data[c * m.rows + r] != m.data[r * m.cols + c];
        EXPECT_EQ(0u, wrong) << k;
    }
}

// Quantized weights are remembered, float weights are not.
TEST_F(Constants, FullyConnectedWeightsAreTransposedAndQuantizedOnesKept) {
    const uint32_t w = graph.addQuant8({3, 2}, 0.5f, 0, Lifetime::Constant, iota(6));
    const uint32_t fw = graph.addFloatTensor({2, 1}, Lifetime::Constant, {1, 2});
    start();
    EXPECT_EQ(Ref(1, 0), ref(model->createFullyConnectedWeightTensor(w)));
    EXPECT_EQ(Ref(1, 0), ref(model->createFullyConnectedWeightTensor(w)));
    EXPECT_EQ(Ref(2, 0), ref(model->createFullyConnectedWeightTensor(fw)));
    EXPECT_EQ(Ref(3, 0), ref(model->createFullyConnectedWeightTensor(fw)));
    expectChain(graphId, {
                             "1 const 1x1x2x3 u8 0 2 4 1 3 5",
                             "2 const 1x1x1x2 f32 1 2",
                             "3 const 1x1x1x2 f32 1 2",
                         });
}

// Min and max of a quantized value and of an int32 bias (scale 0.25:
// [-2^29, 2^29]), each made once.
TEST_F(Constants, RangeConstantsAreMadeOnce) {
    const uint32_t q = graph.addQuant8({1, 2}, 0.5f, 128, Lifetime::Internal);
    const uint32_t bias = graph.addInt32Tensor({2}, 0.25f, {0, 0});
    start();
    for (uint32_t index : {q, bias, q, bias}) {
        model->getQuantizationMin(index);
        model->getQuantizationMax(index);
    }
    expectChain(graphId, {
                             "1 const 1x1x1x1 f32 -64",
                             "2 const 1x1x1x1 f32 63.5",
                             "3 const 1x1x1x1 f32 -5.36871e+08",
                             "4 const 1x1x1x1 f32 5.36871e+08",
                         });
    EXPECT_EQ(1u, log.count("Added quantization min node for operand: 0"));
}

TEST_F(Constants, MoreThanFourDimensionsAreRefused) {
    const uint32_t big = graph.addQuant8({1, 1, 1, 2, 2}, 0.5f, 0, Lifetime::Constant, iota(4));
    start();
    EXPECT_EQ(input{}, model->getTensor(big));
    const std::vector<std::string> errors = errorTexts();
    ASSERT_EQ(2u, errors.size());  // the alignment's own line, then the refusal
    EXPECT_EQ("failed 0ul != dimensions.size() (0 != 0): Rank must be at most 4", errors[1]);

    log.clear();
    EXPECT_EQ(input{}, model->createConvFilterTensor(big));
    EXPECT_EQ(input{}, model->createDepthwiseFilterTensor(big, 1));
    EXPECT_EQ(input{}, model->createFullyConnectedWeightTensor(big));
    EXPECT_EQ(3u, log.countContaining("failed 0ul != dims.size() (0 != 0): Need at most 4 dimensions"));
    EXPECT_TRUE(recorded().empty());
    EXPECT_EQ(0u, peer(*model).lastNodeId());
}

// A refused constant uses up its id and stays absent, so the next read
// tries again.
TEST_F(Constants, RefusedConstantsUseTheirIdAndAreRetried) {
    const uint32_t w = graph.addQuant8({2}, 0.5f, 0, Lifetime::Constant, {1, 2});
    const uint32_t q = graph.addQuant8({2}, 0.5f, 0, Lifetime::Internal);
    start();
    zelsim::failCall("append_const_node", 1, -1);
    EXPECT_EQ(input{}, model->createShape(1, 2, 2, 1));
    EXPECT_EQ(std::vector<std::string>{"Failed to create tensor"}, errorTexts());
    EXPECT_EQ(Ref(2, 0), ref(model->createShape(1, 2, 2, 1)));

    log.clear();
    zelsim::failCall("append_const_node", 1, -1);
    EXPECT_EQ(input{}, model->getTensor(w));
    const std::vector<std::string> expected = {
        "Failed to create tensor",
        "failed kestrel_zel_nn_input{} != operand.kestrel_input (kestrel_nn_input{.src_id: 0, .output_idx: 0} != "
        "kestrel_nn_input{.src_id: 0, .output_idx: 0}): Failed to add operand",
    };
    EXPECT_EQ(expected, errorTexts());
    EXPECT_EQ(Ref(4, 0), ref(model->getTensor(w)));

    zelsim::failCall("append_const_node", 1, -1);
    EXPECT_EQ(input{}, model->getQuantizationMin(q));
    EXPECT_EQ(Ref(6, 0), ref(model->getQuantizationMin(q)));
    expectChain(graphId, {"2 const 1x2x2x1 shape", "4 const 1x1x1x2 u8 1 2", "6 const 1x1x1x1 f32 0"});
}

}  // namespace
}  // namespace zelcore
