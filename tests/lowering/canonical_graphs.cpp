// One small quantized graph per lowering-table row, and for one graph of
// each lowering family the node chain it lowers to (graph outputs going
// straight to the output node). Rows sharing a lowering path (explicit and
// implicit padding of the convolutions, the fused activations, the three
// activations, add and sub) have their chain written once across the set.
//
// Ranges: scale 0.5 / zero point 0 is [0, 127.5]; scale 0.5 / zero point
// 128 is [-64, 63.5]; an int32 bias of scale 0.25 is [-2^29, 2^29].
#include "lowering_support.h"

namespace lowering {

namespace {

#define IN_RANGE "const 1x1x1x1 f32 0"
#define IN_RANGE_MAX "const 1x1x1x1 f32 127.5"
#define BIAS_MIN "const 1x1x1x1 f32 -5.36871e+08"
#define BIAS_MAX "const 1x1x1x1 f32 5.36871e+08"
#define OUT_MIN "const 1x1x1x1 f32 0"
#define OUT_MAX "const 1x1x1x1 f32 255"

const std::vector<uint8_t> kEight = {1, 2, 3, 4, 5, 6, 7, 8};

// in0 op in1 -> out, both [1,2,2,1] graph inputs.
void elementWise(HostGraph& g, OperationType type, int32_t activation) {
    const uint32_t a = g.addQuant8({1, 2, 2, 1}, 0.5f, 0, Lifetime::Input);
    const uint32_t b = g.addQuant8({1, 2, 2, 1}, 0.5f, 0, Lifetime::Input);
    const uint32_t act = g.addInt32(activation);
    operation(g, type, {a, b, act}, {g.addQuant8({1, 2, 2, 1}, 1.0f, 0, Lifetime::Output)}, {a, b});
}

// A one-input activation on [1,2,2,1] of range [-64, 63.5].
void activation(HostGraph& g, OperationType type) {
    const uint32_t in = g.addQuant8({1, 2, 2, 1}, 0.5f, 128, Lifetime::Input);
    operation(g, type, {in}, {g.addQuant8({1, 2, 2, 1}, 0.5f, 128, Lifetime::Output)}, {in});
}

std::vector<Canonical> makeGraphs() {
    std::vector<Canonical> graphs;

    graphs.push_back({"add_relu", [](HostGraph& g) { elementWise(g, OperationType::ADD, 1); }, {}});

    graphs.push_back({"sub_relu1",
                      [](HostGraph& g) { elementWise(g, OperationType::SUB, 2); },
                      {
                          "1 INPUT pad=0 [] -> [1x2x2x1*1 1x2x2x1*1]",
                          "2 " IN_RANGE,
                          "3 " IN_RANGE_MAX,
                          "4 " IN_RANGE,
                          "5 " IN_RANGE_MAX,
                          "6 125 pad=0 [1:0 1:1 2:0 3:0 4:0 5:0] -> [1x2x2x1*4 " RANGES "]",
                          "7 " OUT_MIN,
                          "8 " OUT_MAX,
                          "9 Requantize_32to8 pad=0 [6:0 6:1 6:2 7:0 8:0] -> [1x2x2x1*1 " RANGES "]",
                          "10 const 1x1x1x1 f32 -1",
                          "11 const 1x1x1x1 f32 1",
                          "12 QuantizedClamp_8 pad=0 [9:0 9:1 9:2 10:0 11:0] -> [1x2x2x1*1 " RANGES "]",
                          "13 OUTPUT pad=0 [12:0] -> []",
                      }});

    // Implicit SAME padding, stride w 2 / h 1, two output channels, RELU6.
    graphs.push_back(
        {"conv_implicit_relu6",
         [](HostGraph& g) {
             const uint32_t in = g.addQuant8({1, 3, 3, 1}, 0.5f, 0, Lifetime::Input);
             const uint32_t filter = g.addQuant8({2, 2, 2, 1}, 0.5f, 0, Lifetime::Constant, kEight);
             const uint32_t bias = g.addInt32Tensor({2}, 0.25f, {4, 8});
             const std::vector<uint32_t> scalars = {g.addInt32(1), g.addInt32(2), g.addInt32(1), g.addInt32(3)};
             operation(g, OperationType::CONV_2D, {in, filter, bias, scalars[0], scalars[1], scalars[2], scalars[3]},
                       {g.addQuant8({1, 3, 2, 2}, 1.0f, 0, Lifetime::Output)}, {in});
         },
         {
             "1 INPUT pad=0 [] -> [1x3x3x1*1]",
             "2 const 2x2x1x2 u8 1 5 2 6 3 7 4 8",
             "3 const 1x1x1x2 i32 4 8",
             "4 " IN_RANGE,
             "5 " IN_RANGE_MAX,
             "6 " IN_RANGE,
             "7 " IN_RANGE_MAX,
             "8 " BIAS_MIN,
             "9 " BIAS_MAX,
             "10 const 1x1x2x1 shape",
             "11 QuantizedConv2d_8x8to32 pad=1 [1:0 2:0 4:0 5:0 6:0 7:0 10:0] -> [1x3x2x2*4 " RANGES "]",
             "12 QuantizedBiasAdd_32p32to32 pad=0 [11:0 3:0 11:1 11:2 8:0 9:0] -> [1x3x2x2*4 " RANGES "]",
             "13 " OUT_MIN,
             "14 " OUT_MAX,
             "15 Requantize_32to8 pad=0 [12:0 12:1 12:2 13:0 14:0] -> [1x3x2x2*1 " RANGES "]",
             "16 const 1x1x1x1 f32 6",
             "17 QuantizedReluX_8 pad=0 [15:0 15:1 15:2 16:0] -> [1x3x2x2*1 " RANGES "]",
             "18 OUTPUT pad=0 [17:0] -> []",
         }});

    // Explicit paddings 0/1/0/1 match SAME; depth multiplier 2. The filter
    // is made after the range nodes and keeps its bytes.
    graphs.push_back(
        {"depthwise_explicit_same",
         [](HostGraph& g) {
             const uint32_t in = g.addQuant8({1, 3, 3, 1}, 0.5f, 0, Lifetime::Input);
             const uint32_t filter = g.addQuant8({1, 2, 2, 2}, 0.5f, 0, Lifetime::Constant, kEight);
             const uint32_t bias = g.addInt32Tensor({2}, 0.25f, {4, 8});
             const uint32_t zero = g.addInt32(0);
             const uint32_t one = g.addInt32(1);
             const uint32_t two = g.addInt32(2);
             operation(g, OperationType::DEPTHWISE_CONV_2D,
                       {in, filter, bias, zero, one, zero, one, one, one, two, zero},
                       {g.addQuant8({1, 3, 3, 2}, 1.0f, 0, Lifetime::Output)}, {in});
         },
         {
             "1 INPUT pad=0 [] -> [1x3x3x1*1]",
             "2 const 1x1x1x2 i32 4 8",
             "3 " IN_RANGE,
             "4 " IN_RANGE_MAX,
             "5 " IN_RANGE,
             "6 " IN_RANGE_MAX,
             "7 " BIAS_MIN,
             "8 " BIAS_MAX,
             "9 const 2x2x1x2 u8 1 2 3 4 5 6 7 8",
             "10 const 1x1x1x1 shape",
             "11 QuantizedDepthwiseConv2d_8x8to32 pad=1 [1:0 9:0 3:0 4:0 5:0 6:0 10:0] -> [1x3x3x2*4 " RANGES "]",
             "12 QuantizedBiasAdd_32p32to32 pad=0 [11:0 2:0 11:1 11:2 7:0 8:0] -> [1x3x3x2*4 " RANGES "]",
             "13 " OUT_MIN,
             "14 " OUT_MAX,
             "15 Requantize_32to8 pad=0 [12:0 12:1 12:2 13:0 14:0] -> [1x3x3x2*1 " RANGES "]",
             "16 OUTPUT pad=0 [15:0] -> []",
         }});

    // Weights [2 units, 4 inputs] become the 4x2 transpose.
    graphs.push_back({"fully_connected_relu6",
                      [](HostGraph& g) {
                          const uint32_t in = g.addQuant8({1, 4}, 0.5f, 0, Lifetime::Input);
                          const uint32_t weights = g.addQuant8({2, 4}, 0.5f, 0, Lifetime::Constant, kEight);
                          const uint32_t bias = g.addInt32Tensor({2}, 0.25f, {4, 8});
                          const uint32_t act = g.addInt32(3);
                          operation(g, OperationType::FULLY_CONNECTED, {in, weights, bias, act},
                                    {g.addQuant8({1, 2}, 1.0f, 0, Lifetime::Output)}, {in});
                      },
                      {
                          "1 INPUT pad=0 [] -> [1x1x1x4*1]",
                          "2 const 1x1x4x2 u8 1 5 2 6 3 7 4 8",
                          "3 const 1x1x1x2 i32 4 8",
                          "4 " IN_RANGE,
                          "5 " IN_RANGE_MAX,
                          "6 " IN_RANGE,
                          "7 " IN_RANGE_MAX,
                          "8 " BIAS_MIN,
                          "9 " BIAS_MAX,
                          "10 QuantizedMatMul_8x8to32 pad=0 [1:0 2:0 4:0 5:0 6:0 7:0] -> [1x1x1x2*4 " RANGES "]",
                          "11 QuantizedBiasAdd_32p32to32 pad=0 [10:0 3:0 10:1 10:2 8:0 9:0] -> [1x1x1x2*4 " RANGES "]",
                          "12 " OUT_MIN,
                          "13 " OUT_MAX,
                          "14 Requantize_32to8 pad=0 [11:0 11:1 11:2 12:0 13:0] -> [1x1x1x2*1 " RANGES "]",
                          "15 const 1x1x1x1 f32 6",
                          "16 QuantizedReluX_8 pad=0 [14:0 14:1 14:2 15:0] -> [1x1x1x2*1 " RANGES "]",
                          "17 OUTPUT pad=0 [16:0] -> []",
                      }});

    // Implicit VALID, stride w 2 / h 1, window 2x2: window (1,2,2,1),
    // stride (1,1,2,1).
    graphs.push_back({"average_pool_implicit",
                      [](HostGraph& g) {
                          const uint32_t in = g.addQuant8({1, 4, 4, 1}, 0.5f, 0, Lifetime::Input);
                          const uint32_t two = g.addInt32(2);
                          const uint32_t one = g.addInt32(1);
                          const uint32_t act = g.addInt32(0);
                          operation(g, OperationType::AVERAGE_POOL_2D, {in, two, two, one, two, two, act},
                                    {g.addQuant8({1, 3, 2, 1}, 0.5f, 0, Lifetime::Output)}, {in});
                      },
                      {
                          "1 INPUT pad=0 [] -> [1x4x4x1*1]",
                          "2 " IN_RANGE,
                          "3 " IN_RANGE_MAX,
                          "4 const 1x2x2x1 shape",
                          "5 const 1x1x2x1 shape",
                          "6 QuantizedAvgPool_8 pad=2 [1:0 2:0 3:0 4:0 5:0] -> [1x3x2x1*1 " RANGES "]",
                          "7 OUTPUT pad=0 [6:0] -> []",
                      }});

    // Explicit 0/1/0/1 (SAME), stride 1, window 2x2, RELU after the pool.
    graphs.push_back({"max_pool_explicit_relu",
                      [](HostGraph& g) {
                          const uint32_t in = g.addQuant8({1, 3, 3, 1}, 0.5f, 0, Lifetime::Input);
                          const uint32_t zero = g.addInt32(0);
                          const uint32_t one = g.addInt32(1);
                          const uint32_t two = g.addInt32(2);
                          operation(g, OperationType::MAX_POOL_2D, {in, zero, one, zero, one, one, one, two, two, one},
                                    {g.addQuant8({1, 3, 3, 1}, 0.5f, 0, Lifetime::Output)}, {in});
                      },
                      {
                          "1 INPUT pad=0 [] -> [1x3x3x1*1]",
                          "2 " IN_RANGE,
                          "3 " IN_RANGE_MAX,
                          "4 const 1x2x2x1 shape",
                          "5 const 1x1x1x1 shape",
                          "6 QuantizedMaxPool_8 pad=1 [1:0 2:0 3:0 4:0 5:0] -> [1x3x3x1*1 " RANGES "]",
                          "7 QuantizedRelu_8 pad=0 [6:0 6:1 6:2] -> [1x3x3x1*1 " RANGES "]",
                          "8 OUTPUT pad=0 [7:0] -> []",
                      }});

    // Node inputs: dimension, values, minimums, maximums.
    graphs.push_back({"concatenation",
                      [](HostGraph& g) {
                          const uint32_t a = g.addQuant8({1, 2, 2, 1}, 0.5f, 0, Lifetime::Input);
                          const uint32_t b = g.addQuant8({1, 2, 2, 2}, 0.5f, 0, Lifetime::Input);
                          const uint32_t axis = g.addInt32(3);
                          operation(g, OperationType::CONCATENATION, {a, b, axis},
                                    {g.addQuant8({1, 2, 2, 3}, 0.5f, 0, Lifetime::Output)}, {a, b});
                      },
                      {
                          "1 INPUT pad=0 [] -> [1x2x2x1*1 1x2x2x2*1]",
                          "2 " IN_RANGE,
                          "3 " IN_RANGE_MAX,
                          "4 " IN_RANGE,
                          "5 " IN_RANGE_MAX,
                          "6 const 1x1x1x1 i32 3",
                          "7 QuantizedConcat_8 pad=0 [6:0 1:0 1:1 2:0 4:0 3:0 5:0] -> [1x2x2x3*1 " RANGES "]",
                          "8 OUTPUT pad=0 [7:0] -> []",
                      }});

    graphs.push_back({"relu", [](HostGraph& g) { activation(g, OperationType::RELU); }, {}});

    graphs.push_back({"relu1",
                      [](HostGraph& g) { activation(g, OperationType::RELU1); },
                      {
                          "1 INPUT pad=0 [] -> [1x2x2x1*1]",
                          "2 const 1x1x1x1 f32 -64",
                          "3 const 1x1x1x1 f32 63.5",
                          "4 const 1x1x1x1 f32 -1",
                          "5 const 1x1x1x1 f32 1",
                          "6 QuantizedClamp_8 pad=0 [1:0 2:0 3:0 4:0 5:0] -> [1x2x2x1*1 " RANGES "]",
                          "7 OUTPUT pad=0 [6:0] -> []",
                      }});

    graphs.push_back({"relu6", [](HostGraph& g) { activation(g, OperationType::RELU6); }, {}});

    graphs.push_back(
        {"prelu",
         [](HostGraph& g) {
             const uint32_t in = g.addQuant8({1, 2, 2, 1}, 0.5f, 128, Lifetime::Input);
             const uint32_t alpha = g.addQuant8({1, 2, 2, 1}, 0.25f, 128, Lifetime::Constant, {1, 2, 3, 4});
             operation(g, OperationType::PRELU, {in, alpha}, {g.addQuant8({1, 2, 2, 1}, 0.5f, 128, Lifetime::Output)},
                       {in});
         },
         {
             "1 INPUT pad=0 [] -> [1x2x2x1*1]",
             "2 const 1x2x2x1 u8 1 2 3 4",
             "3 const 1x1x1x1 f32 -64",
             "4 const 1x1x1x1 f32 63.5",
             "5 const 1x1x1x1 f32 -32",
             "6 const 1x1x1x1 f32 31.75",
             "7 353 pad=0 [1:0 2:0 3:0 4:0 5:0 6:0] -> [1x2x2x1*1 " RANGES "]",
             "8 OUTPUT pad=0 [7:0] -> []",
         }});

    graphs.push_back(
        {"reshape",
         [](HostGraph& g) {
             const uint32_t in = g.addQuant8({1, 2, 2, 1}, 0.5f, 0, Lifetime::Input);
             const uint32_t shape = g.addInt32Tensor({2}, 0.0f, {1, 4});
             operation(g, OperationType::RESHAPE, {in, shape}, {g.addQuant8({1, 4}, 0.5f, 0, Lifetime::Output)}, {in});
         },
         {
             "1 INPUT pad=0 [] -> [1x2x2x1*1]",
             "2 const 1x1x1x2 i32 1 4",
             "3 " IN_RANGE,
             "4 " IN_RANGE_MAX,
             "5 QuantizedReshape pad=0 [1:0 2:0 3:0 4:0] -> [1x1x1x4*1 " RANGES "]",
             "6 OUTPUT pad=0 [5:0] -> []",
         }});

    // Host order width 3, height 4; the size constant holds {height, width}.
    graphs.push_back({"resize_bilinear",
                      [](HostGraph& g) {
                          const uint32_t in = g.addQuant8({1, 2, 2, 1}, 0.5f, 0, Lifetime::Input);
                          const std::vector<uint32_t> size = {g.addInt32(3), g.addInt32(4)};
                          operation(g, OperationType::RESIZE_BILINEAR, {in, size[0], size[1]},
                                    {g.addQuant8({1, 4, 3, 1}, 0.5f, 0, Lifetime::Output)}, {in});
                      },
                      {
                          "1 INPUT pad=0 [] -> [1x2x2x1*1]",
                          "2 const 1x1x1x2 i32 4 3",
                          "3 " IN_RANGE,
                          "4 " IN_RANGE_MAX,
                          "5 141 pad=0 [1:0 2:0 3:0 4:0] -> [1x4x3x1*1 " RANGES "]",
                          "6 OUTPUT pad=0 [5:0] -> []",
                      }});

    return graphs;
}

}  // namespace

const std::vector<Canonical>& canonicalGraphs() {
    static const std::vector<Canonical> graphs = makeGraphs();
    return graphs;
}

}  // namespace lowering
