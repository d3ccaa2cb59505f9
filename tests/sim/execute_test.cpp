// execute_new: buffer checks, the INPUT/OUTPUT copies, constants as graph
// outputs and pass-through mode. Kernels run through the store in the
// model tests (core_model_test) and node by node in simops_test.
#include <gtest/gtest.h>

#include <functional>

#include "sim_test_util.h"

namespace {

using simtest::rec;
using simtest::tensor;

// 1 INPUT [u8 1x1x2x3, f32 1x1x1x2]   2 const 1x1x1x2 (two floats)
// 3 OUTPUT [{1,1}, {2,0}, {1,0}]
class ExecuteTest : public simtest::SimTest {
public:
    void SetUp() override {
        SimTest::SetUp();
        g = std::make_unique<simtest::Graph>();
        ASSERT_EQ(0, g->node(1, ZEL_OP_INPUT, {}, {rec(1, 1, 2, 3, 1), rec(1, 1, 1, 2, 4)}));
        ASSERT_EQ(0, g->constant(2, 1, 1, 1, 2, kConstBytes));
        ASSERT_EQ(0, g->node(3, ZEL_OP_OUTPUT, {{1, 1}, {2, 0}, {1, 0}}, {}));
        ASSERT_EQ(0, g->prepare());
        in = {tensor(1, 1, 2, 3, bytes, 6), tensor(1, 1, 1, 2, floats, 8)};
        out = {tensor(1, 1, 1, 2, outFloats, 8), tensor(1, 1, 1, 2, outConst, 8), tensor(1, 1, 2, 3, outBytes, 6)};
    }
    void TearDown() override {
        g.reset();
        SimTest::TearDown();
    }
    int run() {
        return kestrel_zel_nn_execute_new(g->id(), in.data(), static_cast<unsigned>(in.size()), out.data(),
                                          static_cast<unsigned>(out.size()));
    }

    const std::vector<uint8_t> kConstBytes = {1, 2, 3, 4, 5, 6, 7, 8};
    std::unique_ptr<simtest::Graph> g;
    uint8_t bytes[6] = {10, 20, 30, 40, 50, 60};
    float floats[2] = {1.5f, -2.0f};
    float outFloats[2] = {0, 0};
    uint8_t outConst[8] = {};
    uint8_t outBytes[8] = {};
    std::vector<kestrel_zel_nn_tensordef> in;
    std::vector<kestrel_zel_nn_tensordef> out;
};

TEST_F(ExecuteTest, InputsAndConstantsReachTheOutputs) {
    out[2].dataLen = 8;  // larger than needed is fine
    ASSERT_EQ(0, run()) << g->log();
    EXPECT_EQ(1.5f, outFloats[0]);
    EXPECT_EQ(-2.0f, outFloats[1]);
    EXPECT_EQ(kConstBytes, std::vector<uint8_t>(outConst, outConst + 8));
    EXPECT_EQ((std::vector<uint8_t>{10, 20, 30, 40, 50, 60, 0, 0}), std::vector<uint8_t>(outBytes, outBytes + 8));
    EXPECT_EQ(8u, out[0].data_valid_len);
    EXPECT_EQ(8u, out[1].data_valid_len);
    EXPECT_EQ(6u, out[2].data_valid_len);
}

struct SizeCase {
    const char* name;
    std::function<void(ExecuteTest&)> breakIt;
    const char* error;
};

class ExecuteSizeTest : public ExecuteTest, public ::testing::WithParamInterface<SizeCase> {};

const SizeCase kSizeCases[] = {
    {"TooFewInputs", [](ExecuteTest& t) { t.in.pop_back(); }, "execute: 1 input buffer(s) for 2 graph input(s)"},
    {"InputDims", [](ExecuteTest& t) { t.in[0].width = 3, t.in[0].depth = 2; },
     "execute: input 0 is 1x1x3x2, the graph expects 1x1x2x3"},
    {"InputNegativeLength", [](ExecuteTest& t) { t.in[0].dataLen = -6; },
     "execute: input 0 holds -6 bytes, the graph expects 6"},
    {"InputNoData", [](ExecuteTest& t) { t.in[0].data = nullptr; }, "execute: input 0 has no data"},
    {"OutputTooSmall", [](ExecuteTest& t) { t.out[1].dataLen = 7; },
     "execute: output 1 buffer holds 7 bytes, 8 needed"},
};

TEST_P(ExecuteSizeTest, RefusedBeforeAnythingRuns) {
    GetParam().breakIt(*this);
    EXPECT_NE(0, run());
    EXPECT_EQ(GetParam().error, g->log());
    EXPECT_EQ(0.0f, outFloats[0]);  // nothing written
    EXPECT_EQ(0u, outBytes[0]);
}

INSTANTIATE_TEST_SUITE_P(Buffers, ExecuteSizeTest, ::testing::ValuesIn(kSizeCases),
                         [](const ::testing::TestParamInfo<SizeCase>& info) { return info.param.name; });

TEST_F(ExecuteTest, NullListsAndUnpreparedGraphsAreRefused) {
    EXPECT_NE(0, kestrel_zel_nn_execute_new(g->id(), nullptr, 2, out.data(), 3));
    EXPECT_NE(0, kestrel_zel_nn_execute_new(g->id(), in.data(), 2, nullptr, 3));
    simtest::Graph fresh;
    EXPECT_NE(0, kestrel_zel_nn_execute_new(fresh.id(), nullptr, 0, nullptr, 0));
    EXPECT_EQ("execute: graph " + std::to_string(fresh.id()) + " is not prepared", fresh.log());
    EXPECT_EQ(0, fresh.prepare());
    EXPECT_EQ(0, kestrel_zel_nn_execute_new(fresh.id(), nullptr, 0, nullptr, 0));  // nothing to do
}

TEST_F(ExecuteTest, PassThroughChecksSizesOnly) {
    zelsim::setPassThrough(true);
    out[0].data_valid_len = 0;
    EXPECT_EQ(0, run());
    EXPECT_EQ(0.0f, outFloats[0]);  // outputs untouched
    EXPECT_EQ(0u, out[0].data_valid_len);
    in[1].dataLen = 4;
    EXPECT_NE(0, run());
}

// The single-tensor form writes back the output's dims.
TEST_F(ExecuteTest, SingleTensorExecute) {
    simtest::Graph one;
    ASSERT_EQ(0, one.node(1, ZEL_OP_INPUT, {}, {rec(1, 2, 1, 2, 1)}));
    ASSERT_EQ(0, one.node(2, ZEL_OP_OUTPUT, {{1, 0}}, {}));
    ASSERT_EQ(0, one.prepare());
    const uint8_t data[4] = {9, 8, 7, 6};
    uint8_t result[6] = {};
    unsigned b = 0, h = 0, w = 0, d = 0, size = 0;
    ASSERT_EQ(0, kestrel_zel_nn_execute(one.id(), 1, 2, 1, 2, data, 4, &b, &h, &w, &d, result, 6, &size));
    EXPECT_EQ((std::vector<unsigned>{1, 2, 1, 2, 4}), (std::vector<unsigned>{b, h, w, d, size}));
    EXPECT_EQ((std::vector<uint8_t>{9, 8, 7, 6, 0, 0}), std::vector<uint8_t>(result, result + 6));
    EXPECT_NE(0, kestrel_zel_nn_execute(one.id(), 1, 2, 1, 2, data, 4, &b, &h, &w, &d, result, 3, &size));
}

}  // namespace
