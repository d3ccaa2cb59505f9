// The lowering functions outside the table (the other quant8 functions and
// the float32 ones), called directly on a model attached to a fresh runtime
// graph; the simulator checks every node as it is appended (float nodes
// structurally). One row per lowering path: functions that share a helper
// (the float unary ops, the two-operand ops, the pools) have one row.
#include <algorithm>

#include "lowering_support.h"
#include "zel_operations_prepare_float32.h"
#include "zel_operations_prepare_quant8.h"
#include "zel_test_peers.h"

namespace lowering {
namespace {

namespace q8 = arv::nnhal::zel::quant8_asym;
namespace f32 = arv::nnhal::zel::float32;

using LowerFn = bool (*)(const std::vector<uint32_t>&, const std::vector<uint32_t>&, ZelModel*);

struct Op {
    std::vector<uint32_t> ins;
    std::vector<uint32_t> outs;
};

struct DirectCase {
    std::string label;
    LowerFn fn;
    std::function<Op(HostGraph&)> build;
    std::vector<std::string> chain;  // after the input node (id 1)
};

void PrintTo(const DirectCase& c, std::ostream* os) {
    *os << c.label;
}

// Quantized graph values of range [-64, 63.5], float graph values.
uint32_t q8In(HostGraph& g, std::vector<uint32_t> dims) {
    return g.addQuant8(dims, 0.5f, 128, Lifetime::Input);
}
uint32_t q8Out(HostGraph& g, std::vector<uint32_t> dims) {
    return g.addQuant8(dims, 0.5f, 128, Lifetime::Output);
}
uint32_t f32In(HostGraph& g, std::vector<uint32_t> dims) {
    return g.addFloatTensor(dims, Lifetime::Input);
}
uint32_t f32Out(HostGraph& g, std::vector<uint32_t> dims) {
    return g.addFloatTensor(dims, Lifetime::Output);
}

// One data input `in`, the given extra operands, one output.
Op unaryOp(HostGraph& g, uint32_t in, std::vector<uint32_t> extra, uint32_t out) {
    g.setInputs({in});
    g.setOutputs({out});
    Op op{{in}, {out}};
    op.ins.insert(op.ins.end(), extra.begin(), extra.end());
    return op;
}

std::vector<DirectCase> quant8Cases() {
    return {
        // The product keeps the matrix-product code; the second operand is a
        // constant [1,1,2,2] so that the node is a valid matrix product.
        {"mul",
         q8::mul,
         [](HostGraph& g) {
             const uint32_t a = q8In(g, {1, 1, 1, 2});
             const uint32_t b = g.addQuant8({1, 1, 2, 2}, 0.25f, 128, Lifetime::Constant, {1, 2, 3, 4});
             const uint32_t act = g.addInt32(0);
             return unaryOp(g, a, {b, act}, g.addQuant8({1, 1, 1, 2}, 1.0f, 128, Lifetime::Output));
         },
         {
             "2 const 1x1x2x2 u8 1 2 3 4",
             "3 const 1x1x1x1 f32 -64",
             "4 const 1x1x1x1 f32 63.5",
             "5 const 1x1x1x1 f32 -32",
             "6 const 1x1x1x1 f32 31.75",
             "7 QuantizedMatMul_8x8to32 pad=0 [1:0 2:0 3:0 4:0 5:0 6:0] -> [1x1x1x2*4 " RANGES "]",
             "8 const 1x1x1x1 f32 -128",
             "9 const 1x1x1x1 f32 127",
             "10 Requantize_32to8 pad=0 [7:0 7:1 7:2 8:0 9:0] -> [1x1x1x2*1 " RANGES "]",
         }},
        // Upper bound: 0.5 * (256 - 128).
        {"logistic",
         q8::logistic,
         [](HostGraph& g) {
             return unaryOp(g, q8In(g, {1, 2, 2, 1}), {}, q8Out(g, {1, 2, 2, 1}));
         },
         {
             "2 const 1x1x1x1 f32 -64",
             "3 const 1x1x1x1 f32 64",
             "4 115 pad=0 [1:0 2:0 3:0] -> [1x2x2x1*1 " RANGES "]",
         }},
        {"softmax",
         q8::softmax,
         [](HostGraph& g) {
             const uint32_t in = q8In(g, {1, 2, 2, 1});
             const uint32_t beta = g.addFloat(0.5f);
             return unaryOp(g, in, {beta}, q8Out(g, {1, 2, 2, 1}));
         },
         {
             "2 const 1x1x1x1 f32 0.5",
             "3 const 1x1x1x1 f32 -64",
             "4 const 1x1x1x1 f32 63.5",
             "5 119 pad=0 [1:0 2:0 3:0 4:0] -> [1x2x2x1*1 " RANGES "]",
         }},
        // The new shape is the output's: [1, 2, 2].
        {"squeeze",
         q8::squeeze,
         [](HostGraph& g) {
             const uint32_t in = q8In(g, {1, 2, 1, 2});
             const uint32_t axes = g.addInt32Tensor({1}, 0.0f, {2});
             return unaryOp(g, in, {axes}, q8Out(g, {1, 2, 2}));
         },
         {
             "2 const 1x1x1x3 i32 1 2 2",
             "3 const 1x1x1x1 f32 -64",
             "4 const 1x1x1x1 f32 63.5",
             "5 QuantizedReshape pad=0 [1:0 2:0 3:0 4:0] -> [1x1x2x2*1 " RANGES "]",
         }},
        // All-zero crops of 1x1x(rank-2)x2.
        {"batch_to_space_nd",
         q8::batch_to_space_nd,
         [](HostGraph& g) {
             const uint32_t in = q8In(g, {4, 1, 1, 1});
             const uint32_t block = g.addInt32Tensor({2}, 0.0f, {2, 2});
             return unaryOp(g, in, {block}, q8Out(g, {1, 2, 2, 1}));
         },
         {
             "2 const 1x1x1x1 f32 -64",
             "3 const 1x1x1x1 f32 63.5",
             "4 const 1x1x1x2 i32 2 2",
             "5 const 1x1x2x2 i32 0 0 0 0",
             "6 209 pad=0 [1:0 2:0 3:0 4:0 5:0] -> [1x2x2x1*1 " RANGES "]",
         }},
        {"space_to_depth",
         q8::space_to_depth,
         [](HostGraph& g) {
             const uint32_t in = q8In(g, {1, 2, 2, 1});
             const uint32_t block = g.addInt32(2);
             return unaryOp(g, in, {block}, q8Out(g, {1, 1, 1, 4}));
         },
         {
             "2 const 1x1x1x1 i32 2",
             "3 const 1x1x1x1 f32 -64",
             "4 const 1x1x1x1 f32 63.5",
             "5 212 pad=0 [1:0 2:0 3:0 4:0] -> [1x1x1x4*1 " RANGES "]",
         }},
        // ins: split dimension, data, number of outputs, unused.
        {"oem_split",
         q8::oemSplit,
         [](HostGraph& g) {
             const uint32_t axis = g.addInt32(3);
             const uint32_t data = q8In(g, {1, 2, 2, 4});
             const uint32_t count = g.addInt32(2);
             const uint32_t unused = g.addInt32(0);
             const uint32_t a = q8Out(g, {1, 2, 2, 2});
             const uint32_t b = q8Out(g, {1, 2, 2, 2});
             g.setInputs({data});
             g.setOutputs({a, b});
             return Op{{axis, data, count, unused}, {a, b}};
         },
         {
             "2 const 1x1x1x1 i32 3",
             "3 const 1x1x1x1 f32 -64",
             "4 const 1x1x1x1 f32 63.5",
             "5 220 pad=0 [2:0 1:0 3:0 4:0] -> [1x2x2x2*1 " RANGES " 1x2x2x2*1 " RANGES "]",
         }},
    };
}

std::vector<DirectCase> floatCases() {
    const auto elementWise = [](int32_t activation) {
        return [activation](HostGraph& g) {
            const uint32_t a = f32In(g, {1, 2, 2, 1});
            const uint32_t b = f32In(g, {1, 2, 2, 1});
            const uint32_t act = g.addInt32(activation);
            const uint32_t out = f32Out(g, {1, 2, 2, 1});
            g.setInputs({a, b});
            g.setOutputs({out});
            return Op{{a, b, act}, {out}};
        };
    };
    const auto unary = [](HostGraph& g) { return unaryOp(g, f32In(g, {1, 2, 2, 1}), {}, f32Out(g, {1, 2, 2, 1})); };
    // `in` with one int32 tensor operand.
    const auto withTensor = [](std::vector<uint32_t> in, std::vector<uint32_t> dims, std::vector<int32_t> values,
                               std::vector<uint32_t> out) {
        return [=](HostGraph& g) {
            const uint32_t input = f32In(g, in);
            const uint32_t tensor = g.addInt32Tensor(dims, 0.0f, values);
            return unaryOp(g, input, {tensor}, f32Out(g, out));
        };
    };
    const std::vector<float> eight = {1, 2, 3, 4, 5, 6, 7, 8};

    return {
        {"mul_relu1",
         f32::mul,
         elementWise(2),
         {
             "2 67 pad=0 [1:0 1:1] -> [1x2x2x1*4]",
             "3 const 1x1x1x1 f32 -1",
             "4 const 1x1x1x1 f32 1",
             "5 169 pad=0 [2:0 3:0 4:0] -> [1x2x2x1*4]",
         }},
        // in [1,4,4,1], implicit VALID, stride w 2 / h 1, window 2x2. The
        // activation's constant is made before the pool node.
        {"l2_pool_relu6",
         f32::l2_pool_2d,
         [](HostGraph& g) {
             const uint32_t in = f32In(g, {1, 4, 4, 1});
             const uint32_t two = g.addInt32(2);
             const uint32_t one = g.addInt32(1);
             const uint32_t act = g.addInt32(3);
             return unaryOp(g, in, {two, two, one, two, two, act}, f32Out(g, {1, 3, 2, 1}));
         },
         {
             "2 const 1x2x2x1 shape",
             "3 const 1x1x2x1 shape",
             "4 const 1x1x1x1 f32 6",
             "5 52 pad=2 [1:0 2:0 3:0] -> [1x3x2x1*4]",
             "6 50 pad=0 [5:0 4:0] -> [1x3x2x1*4]",
         }},
        // Explicit 0/1/0/1 is SAME.
        {"max_pool_explicit_relu",
         f32::max_pool_2d,
         [](HostGraph& g) {
             const uint32_t in = f32In(g, {1, 3, 3, 1});
             const uint32_t zero = g.addInt32(0);
             const uint32_t one = g.addInt32(1);
             const uint32_t two = g.addInt32(2);
             return unaryOp(g, in, {zero, one, zero, one, one, one, two, two, one}, f32Out(g, {1, 3, 3, 1}));
         },
         {
             "2 const 1x2x2x1 shape",
             "3 const 1x1x1x1 shape",
             "4 53 pad=1 [1:0 2:0 3:0] -> [1x3x3x1*4]",
             "5 49 pad=0 [4:0] -> [1x3x3x1*4]",
         }},
        {"conv_implicit_relu6",
         f32::conv_2d,
         [eight](HostGraph& g) {
             const uint32_t in = f32In(g, {1, 3, 3, 1});
             const uint32_t filter = g.addFloatTensor({2, 2, 2, 1}, Lifetime::Constant, eight);
             const uint32_t bias = g.addFloatTensor({2}, Lifetime::Constant, {0.5f, 1.0f});
             const uint32_t same = g.addInt32(1);
             const uint32_t two = g.addInt32(2);
             const uint32_t one = g.addInt32(1);
             const uint32_t act = g.addInt32(3);
             return unaryOp(g, in, {filter, bias, same, two, one, act}, f32Out(g, {1, 3, 2, 2}));
         },
         {
             "2 const 2x2x1x2 f32 1 5 2 6 3 7 4 8",
             "3 const 1x1x1x2 f32 0.5 1",
             "4 const 1x1x2x1 shape",
             "5 47 pad=1 [1:0 2:0 4:0] -> [1x3x2x2*4]",
             "6 58 pad=0 [5:0 3:0] -> [1x3x2x2*4]",
             "7 const 1x1x1x1 f32 6",
             "8 50 pad=0 [6:0 7:0] -> [1x3x2x2*4]",
         }},
        // Explicit SAME, multiplier 2: the filter keeps its bytes.
        {"depthwise_explicit",
         f32::depthwise_conv_2d,
         [eight](HostGraph& g) {
             const uint32_t in = f32In(g, {1, 3, 3, 1});
             const uint32_t filter = g.addFloatTensor({1, 2, 2, 2}, Lifetime::Constant, eight);
             const uint32_t bias = g.addFloatTensor({2}, Lifetime::Constant, {0.5f, 1.0f});
             const uint32_t zero = g.addInt32(0);
             const uint32_t one = g.addInt32(1);
             const uint32_t two = g.addInt32(2);
             return unaryOp(g, in, {filter, bias, zero, one, zero, one, one, one, two, zero}, f32Out(g, {1, 3, 3, 2}));
         },
         {
             "2 const 1x1x1x2 f32 0.5 1",
             "3 const 2x2x1x2 f32 1 2 3 4 5 6 7 8",
             "4 const 1x1x1x1 shape",
             "5 158 pad=1 [1:0 3:0 4:0] -> [1x3x3x2*4]",
             "6 58 pad=0 [5:0 2:0] -> [1x3x3x2*4]",
         }},
        {"concatenation",
         f32::concatenation,
         [](HostGraph& g) {
             const uint32_t a = f32In(g, {2, 3});
             const uint32_t b = f32In(g, {2, 1});
             const uint32_t axis = g.addInt32(1);
             const uint32_t out = f32Out(g, {2, 4});
             g.setInputs({a, b});
             g.setOutputs({out});
             return Op{{a, b, axis}, {out}};
         },
         {"2 const 1x1x1x1 i32 3", "3 54 pad=0 [2:0 1:0 1:1] -> [1x1x2x4*4]"}},
        {"local_response_normalization",
         f32::local_response_normalization,
         [](HostGraph& g) {
             const uint32_t in = f32In(g, {1, 2, 2, 4});
             const std::vector<uint32_t> args = {g.addInt32(2), g.addFloat(1.0f), g.addFloat(0.5f), g.addFloat(0.75f)};
             return unaryOp(g, in, args, f32Out(g, {1, 2, 2, 4}));
         },
         {
             "2 const 1x1x1x5 shape",
             "3 const 1x1x1x1 f32 1",
             "4 const 1x1x1x1 f32 0.5",
             "5 const 1x1x1x1 f32 0.75",
             "6 56 pad=0 [1:0 2:0 3:0 4:0 5:0] -> [1x2x2x4*4]",
         }},
        {"relu1",
         f32::relu1,
         unary,
         {"2 const 1x1x1x1 f32 -1", "3 const 1x1x1x1 f32 1", "4 169 pad=0 [1:0 2:0 3:0] -> [1x2x2x1*4]"}},
        {"transpose",
         f32::transpose,
         withTensor({1, 2, 3, 1}, {4}, {0, 2, 1, 3}, {1, 3, 2, 1}),
         {"2 const 1x1x1x4 i32 0 2 1 3", "3 244 pad=0 [1:0 2:0] -> [1x3x2x1*4]"}},
        {"squeeze",
         f32::squeeze,
         withTensor({1, 2, 1, 2}, {1}, {2}, {1, 2, 2}),
         {"2 const 1x1x1x3 i32 1 2 2", "3 59 pad=0 [1:0 2:0] -> [1x1x2x2*4]"}},
    };
}

const DirectCase& quant8Case(const std::string& label) {
    static const std::vector<DirectCase> cases = quant8Cases();
    return *std::find_if(cases.begin(), cases.end(), [&](const DirectCase& c) { return c.label == label; });
}

class DirectTest : public LoweringTest, public ::testing::WithParamInterface<DirectCase> {};

TEST_P(DirectTest, AppendsTheExpectedNodes) {
    HostGraph graph;
    const Op op = GetParam().build(graph);
    auto model = attached(graph);
    ASSERT_TRUE(model);
    const int id = static_cast<int>(model->graphId());
    ASSERT_EQ(1u, zelsim::nodes(id).size());

    ASSERT_TRUE(GetParam().fn(op.ins, op.outs, model.get())) << zelsim::lastError(id);
    expectChain(id, GetParam().chain, 1);
    EXPECT_TRUE(allAccepted(id));
    EXPECT_EQ(std::vector<std::string>{}, errorTexts());
    // Every output of the operation now names the last node.
    for (uint32_t out : op.outs) EXPECT_EQ(peer(*model).lastNodeId(), model->operands()[out].kestrel_input.src_id);
}

INSTANTIATE_TEST_SUITE_P(Quant8, DirectTest, ::testing::ValuesIn(quant8Cases()),
                         [](const ::testing::TestParamInfo<DirectCase>& info) { return info.param.label; });
INSTANTIATE_TEST_SUITE_P(Float32, DirectTest, ::testing::ValuesIn(floatCases()),
                         [](const ::testing::TestParamInfo<DirectCase>& info) { return info.param.label; });

// The runtime's softmax range is its own: its output skips the range
// fix-up at the output node.
TEST_F(LoweringTest, QuantizedSoftmaxOutputIsNotDequantized) {
    HostGraph graph;
    const Op op = quant8Case("softmax").build(graph);
    auto model = attached(graph);
    ASSERT_TRUE(model);
    ASSERT_TRUE(model->operands()[op.outs[0]].dequantizeOutput);
    ASSERT_TRUE(q8::softmax(op.ins, op.outs, model.get()));
    EXPECT_FALSE(model->operands()[op.outs[0]].dequantizeOutput);
}

// Fourteen inputs: data, weights in the runtime's layout, the ranges of the
// previous activation (q 0 and 255), of the weights and bias, and of the
// 16-bit state (q -32768 and 32768).
TEST_F(LoweringTest, OemLstmWiresFourteenInputs) {
    HostGraph graph;
    const float step = 1.0f / 128;
    const uint32_t input = graph.addQuant8({1, 2}, step, 128, Lifetime::Input);
    const uint32_t previous = graph.addQuant8({1, 2}, step, 128, Lifetime::Input);
    const uint32_t concat = graph.addQuant8({1, 4}, step, 128, Lifetime::Input);
    const uint32_t weights = graph.addQuant8({8, 4}, 0.5f, 128, Lifetime::Constant, std::vector<uint8_t>(32, 130));
    const uint32_t bias = graph.addInt32Tensor({8}, 0.5f / 128, std::vector<int32_t>(8, 0));
    const uint32_t state = graph.addOperand(OperandType::TENSOR_CUSTOM_BYTE, {1, 4}, 1.0f / 2048, 0, Lifetime::Input);
    const std::vector<uint32_t> outs = {
        graph.addQuant8({1, 2}, step, 128, Lifetime::Output),
        graph.addOperand(OperandType::TENSOR_CUSTOM_BYTE, {1, 4}, 1.0f / 2048, 0, Lifetime::Output),
        graph.addQuant8({1, 4}, step, 128, Lifetime::Output),
        graph.addOperand(OperandType::TENSOR_CUSTOM_BYTE, {1, 16}, 1.0f / 4096, 0, Lifetime::Output),
    };
    const std::vector<uint32_t> ins = {input, previous, concat, weights, bias, state};
    graph.addOperation(OperationType::OEM_LSTM, ins, outs);
    graph.setInputs({input, previous, concat, state});
    graph.setOutputs(outs);
    // 16-bit custom operands count elements, not bytes, once preprocessed.
    auto model = attached(graph, [](ZelModel& m) { EXPECT_TRUE(m.operationPreProcess()); });
    ASSERT_TRUE(model);
    const int id = static_cast<int>(model->graphId());

    ASSERT_TRUE(q8::oemLstm(ins, outs, model.get())) << zelsim::lastError(id);
    expectChain(id, {
                        "1 INPUT pad=0 [] -> [1x1x1x2*1 1x1x1x2*1 1x1x1x4*1 1x1x1x2*2]",
                        "2 const 1x1x4x8 (32 bytes)",
                        "3 const 1x1x1x8 i32 0 0 0 0 0 0 0 0",
                        "4 const 1x1x1x1 f32 -1",
                        "5 const 1x1x1x1 f32 0.992188",
                        "6 const 1x1x1x1 f32 -64",
                        "7 const 1x1x1x1 f32 63.5",
                        "8 const 1x1x1x1 f32 -8.38861e+06",
                        "9 const 1x1x1x1 f32 8.38861e+06",
                        "10 const 1x1x1x1 f32 -16",
                        "11 const 1x1x1x1 f32 16",
                        "12 274 pad=0 [1:0 1:1 1:2 2:0 3:0 1:3 4:0 5:0 6:0 7:0 8:0 9:0 10:0 11:0] -> "
                        "[1x1x1x2*1 " RANGES " 1x1x1x2*2 " RANGES " 1x1x1x4*1 " RANGES " 1x1x1x8*2 " RANGES "]",
                    });
    EXPECT_TRUE(allAccepted(id));
}

TEST_F(LoweringTest, OemSplitNeedsAsManyOutputsAsItsCount) {
    HostGraph graph;
    const Op op = quant8Case("oem_split").build(graph);
    graph.operand(op.ins[2]).mData = {3, 0, 0, 0};  // a count of 3 for two outputs
    auto model = attached(graph);
    ASSERT_TRUE(model);
    log.clear();
    EXPECT_FALSE(q8::oemSplit(op.ins, op.outs, model.get()));
    EXPECT_EQ(std::vector<std::string>{"failed (size_t)model->getScalar<int32_t>(ins[2]) == outs.size() (3 == 2): "
                                       "Number of outputs is incorrect"},
              errorTexts());
    EXPECT_EQ(1u, zelsim::nodes(static_cast<int>(model->graphId())).size());
}

}  // namespace
}  // namespace lowering
