// Synthetic quantized graphs for benchmarks, soak and fault-injection runs.
// Weights are deterministic pseudo-random bytes, so every run sees the same
// graph.
#pragma once

#include <cstdint>
#include <memory>

#include "zelhost/host_graph.h"

namespace arv {
namespace nnhal {
namespace host {

struct MobileNetOptions {
    uint32_t inputSize = 224;  // height and width of the input image
    uint32_t classes = 1001;   // units of the final fully connected layer
    uint32_t seed = 1;
};

// MobileNet-v1-shaped quantized graph (width 1.0): a 3x3 stride-2
// convolution, 13 depthwise + pointwise pairs, a global average pool and a
// fully connected classifier; SAME padding and RELU6 fused throughout.
// One graph input [1, size, size, 3] and one output [1, classes].
std::unique_ptr<HostGraph> makeMobileNet(const MobileNetOptions& options = {});

// Multiply-accumulates of one inference of makeMobileNet(options).
uint64_t mobileNetMacs(const MobileNetOptions& options = {});

// Bytes of constant weights (filters and FC weights, not biases) of
// makeMobileNet(options).
uint64_t mobileNetWeightBytes(const MobileNetOptions& options = {});

// A chain of `operations` quantized operations on a [1, 8, 8, channels]
// tensor, alternating ADD with a constant and RELU, for scaling runs.
std::unique_ptr<HostGraph> makeElementwiseChain(uint32_t operations, uint32_t channels = 8);

// One FULLY_CONNECTED layer whose weights hold about `weightBytes` bytes
// ([units, inputSize] with inputSize = 1024), for per-byte scaling runs.
std::unique_ptr<HostGraph> makeWideFullyConnected(uint64_t weightBytes);

}  // namespace host
}  // namespace nnhal
}  // namespace arv
