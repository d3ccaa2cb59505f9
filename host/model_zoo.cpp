#include "zelhost/model_zoo.h"

#include <algorithm>
#include <vector>

namespace arv {
namespace nnhal {
namespace host {

namespace {

class Rng {
public:
    explicit Rng(uint32_t seed) : mState(seed == 0 ? 0x9e3779b9u : seed) {}
    uint32_t next() {
        mState ^= mState << 13;
        mState ^= mState >> 17;
        mState ^= mState << 5;
        return mState;
    }
    std::vector<uint8_t> bytes(size_t n) {
        std::vector<uint8_t> out(n);
        for (auto& b : out) b = static_cast<uint8_t>(next() >> 24);
        return out;
    }
    std::vector<int32_t> ints(size_t n, int32_t bound) {
        std::vector<int32_t> out(n);
        for (auto& v : out) v = static_cast<int32_t>(next() % (2u * bound + 1)) - bound;
        return out;
    }

private:
    uint32_t mState;
};

constexpr int32_t kPaddingSame = 1;
constexpr int32_t kPaddingValid = 2;
constexpr int32_t kRelu6 = 3;
constexpr float kInputScale = 0.0078125f;
constexpr float kWeightScale = 0.005f;
constexpr float kActivationScale = 6.0f / 255.0f;

// One layer description of the MobileNet body: depthwise stride and the
// pointwise output channels.
struct Block {
    uint32_t stride;
    uint32_t channels;
};
constexpr Block kBlocks[] = {{1, 64},  {2, 128}, {1, 128}, {2, 256}, {1, 256},  {2, 512}, {1, 512},
                             {1, 512}, {1, 512}, {1, 512}, {1, 512}, {2, 1024}, {1, 1024}};

uint32_t outSize(uint32_t in, uint32_t stride) {
    return (in + stride - 1) / stride;
}

struct Builder {
    HostGraph& g;
    Rng& rng;
    uint32_t pad = 0, s1 = 0, s2 = 0, relu6 = 0, none = 0, valid = 0;

    uint32_t activation(std::vector<uint32_t> dims, Lifetime lifetime = Lifetime::Internal) {
        return g.addQuant8(std::move(dims), kActivationScale, 0, lifetime);
    }
    uint32_t stride(uint32_t s) { return s == 1 ? s1 : s2; }

    uint32_t conv(uint32_t in, float inScale, uint32_t h, uint32_t w, uint32_t cin, uint32_t cout, uint32_t k,
                  uint32_t st, Lifetime outLifetime = Lifetime::Internal) {
        const uint32_t filter = g.addQuant8({cout, k, k, cin}, kWeightScale, 128, Lifetime::Constant,
                                            rng.bytes(size_t(cout) * k * k * cin));
        const uint32_t bias = g.addInt32Tensor({cout}, inScale * kWeightScale, rng.ints(cout, 2000));
        const uint32_t out = activation({1, outSize(h, st), outSize(w, st), cout}, outLifetime);
        g.addOperation(OperationType::CONV_2D, {in, filter, bias, pad, stride(st), stride(st), relu6}, {out});
        return out;
    }

    uint32_t depthwise(uint32_t in, uint32_t h, uint32_t w, uint32_t c, uint32_t st) {
        const uint32_t filter =
            g.addQuant8({1, 3, 3, c}, kWeightScale, 128, Lifetime::Constant, rng.bytes(size_t(9) * c));
        const uint32_t bias = g.addInt32Tensor({c}, kActivationScale * kWeightScale, rng.ints(c, 2000));
        const uint32_t multiplier = g.addInt32(1);
        const uint32_t out = activation({1, outSize(h, st), outSize(w, st), c});
        g.addOperation(OperationType::DEPTHWISE_CONV_2D,
                       {in, filter, bias, pad, stride(st), stride(st), multiplier, relu6}, {out});
        return out;
    }
};

}  // namespace

std::unique_ptr<HostGraph> makeMobileNet(const MobileNetOptions& options) {
    auto graph = std::make_unique<HostGraph>();
    Rng rng(options.seed);
    Builder b{*graph, rng};
    b.pad = graph->addInt32(kPaddingSame);
    b.valid = graph->addInt32(kPaddingValid);
    b.s1 = graph->addInt32(1);
    b.s2 = graph->addInt32(2);
    b.relu6 = graph->addInt32(kRelu6);
    b.none = graph->addInt32(0);

    uint32_t size = options.inputSize;
    const uint32_t input = graph->addQuant8({1, size, size, 3}, kInputScale, 128, Lifetime::Input);
    uint32_t x = b.conv(input, kInputScale, size, size, 3, 32, 3, 2);
    size = outSize(size, 2);
    uint32_t channels = 32;
    for (const Block& block : kBlocks) {
        x = b.depthwise(x, size, size, channels, block.stride);
        size = outSize(size, block.stride);
        x = b.conv(x, kActivationScale, size, size, channels, block.channels, 1, 1);
        channels = block.channels;
    }
    const uint32_t window = graph->addInt32(static_cast<int32_t>(size));
    const uint32_t pooled = b.activation({1, 1, 1, channels});
    graph->addOperation(OperationType::AVERAGE_POOL_2D, {x, b.valid, b.s1, b.s1, window, window, b.none}, {pooled});

    const uint32_t weights = graph->addQuant8({options.classes, channels}, kWeightScale, 128, Lifetime::Constant,
                                              rng.bytes(size_t(options.classes) * channels));
    const uint32_t bias =
        graph->addInt32Tensor({options.classes}, kActivationScale * kWeightScale, rng.ints(options.classes, 2000));
    const uint32_t logits = graph->addQuant8({1, options.classes}, 0.1f, 128, Lifetime::Output);
    graph->addOperation(OperationType::FULLY_CONNECTED, {pooled, weights, bias, b.none}, {logits});
    graph->setInputs({input});
    graph->setOutputs({logits});
    return graph;
}

uint64_t mobileNetMacs(const MobileNetOptions& options) {
    uint64_t size = outSize(options.inputSize, 2);
    uint64_t macs = size * size * 32 * 27;
    uint64_t channels = 32;
    for (const Block& block : kBlocks) {
        size = outSize(static_cast<uint32_t>(size), block.stride);
        macs += size * size * channels * 9;               // depthwise 3x3
        macs += size * size * channels * block.channels;  // pointwise
        channels = block.channels;
    }
    macs += size * size * channels;      // average pool
    macs += channels * options.classes;  // classifier
    return macs;
}

uint64_t mobileNetWeightBytes(const MobileNetOptions& options) {
    uint64_t bytes = 32 * 27;
    uint64_t channels = 32;
    for (const Block& block : kBlocks) {
        bytes += channels * 9 + channels * block.channels;
        channels = block.channels;
    }
    return bytes + channels * options.classes;
}

std::unique_ptr<HostGraph> makeElementwiseChain(uint32_t operations, uint32_t channels) {
    auto graph = std::make_unique<HostGraph>();
    Rng rng(7);
    const std::vector<uint32_t> dims = {1, 8, 8, channels};
    const float scale = 0.05f;
    const uint32_t none = graph->addInt32(0);
    const uint32_t addend = graph->addQuant8(dims, scale, 128, Lifetime::Constant, rng.bytes(64u * channels));
    const uint32_t input = graph->addQuant8(dims, scale, 128, Lifetime::Input);
    uint32_t x = input;
    for (uint32_t i = 0; i < operations; ++i) {
        const bool last = i + 1 == operations;
        const uint32_t out = graph->addQuant8(dims, scale, 128, last ? Lifetime::Output : Lifetime::Internal);
        if (i % 2 == 0) {
            graph->addOperation(OperationType::ADD, {x, addend, none}, {out});
        } else {
            graph->addOperation(OperationType::RELU, {x}, {out});
        }
        x = out;
    }
    graph->setInputs({input});
    graph->setOutputs({operations == 0 ? input : x});
    return graph;
}

std::unique_ptr<HostGraph> makeWideFullyConnected(uint64_t weightBytes) {
    auto graph = std::make_unique<HostGraph>();
    Rng rng(11);
    const uint32_t inputSize = 1024;
    const uint32_t units = static_cast<uint32_t>(std::max<uint64_t>(1, weightBytes / inputSize));
    const uint32_t none = graph->addInt32(0);
    const uint32_t input = graph->addQuant8({1, inputSize}, kInputScale, 128, Lifetime::Input);
    const uint32_t weights = graph->addQuant8({units, inputSize}, kWeightScale, 128, Lifetime::Constant,
                                              rng.bytes(size_t(units) * inputSize));
    const uint32_t bias = graph->addInt32Tensor({units}, kInputScale * kWeightScale, rng.ints(units, 2000));
    const uint32_t out = graph->addQuant8({1, units}, 0.5f, 128, Lifetime::Output);
    graph->addOperation(OperationType::FULLY_CONNECTED, {input, weights, bias, none}, {out});
    graph->setInputs({input});
    graph->setOutputs({out});
    return graph;
}

}  // namespace host
}  // namespace nnhal
}  // namespace arv
