#include "bench_support.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "zel_accelerator.h"
#include "zel_test_peers.h"
#include "zelhost/model_zoo.h"

namespace zelbench {

using arv::nnhal::host::HostOperand;
using arv::nnhal::host::Lifetime;

namespace {

// Whole unsigned number; false when `text` is anything else.
bool parseCount(const std::string& text, uint64_t* value) {
    if (text.empty() || text[0] < '0' || text[0] > '9') return false;
    errno = 0;
    char* end = nullptr;
    const unsigned long long v = std::strtoull(text.c_str(), &end, 10);
    if (errno != 0 || end == nullptr || *end != '\0') return false;
    *value = v;
    return true;
}

uint32_t elementBytes(arv::nnhal::OperandType type) {
    switch (type) {
        case arv::nnhal::OperandType::TENSOR_FP32:
        case arv::nnhal::OperandType::TENSOR_INT32:
        case arv::nnhal::OperandType::SCALAR_FP32:
        case arv::nnhal::OperandType::SCALAR_INT32:
        case arv::nnhal::OperandType::SCALAR_UNSIGNED_INT32: return 4;
        default: return 1;
    }
}

// Runtime record of a bound buffer: dims left-padded with 1s to four.
kestrel_zel_nn_tensordef describe(const HostOperand& operand, uint8_t* data, uint32_t length) {
    std::vector<uint32_t> dims = operand.mDims;
    while (dims.size() < 4) dims.insert(dims.begin(), 1u);
    kestrel_zel_nn_tensordef def{};
    def.batches = dims[0];
    def.height = dims[1];
    def.width = dims[2];
    def.depth = dims[3];
    def.data = data;
    def.dataLen = static_cast<int32_t>(length);
    def.data_valid_len = length;
    return def;
}

}  // namespace

std::unique_ptr<HostGraph> makeGraph(const std::string& graphName) {
    const auto colon = graphName.find(':');
    const std::string kind = graphName.substr(0, colon);
    const std::string arg = colon == std::string::npos ? std::string() : graphName.substr(colon + 1);
    uint64_t n = 0;
    if (kind == "mobilenet") {
        arv::nnhal::host::MobileNetOptions options;
        if (!arg.empty()) {
            if (!parseCount(arg, &n) || n == 0 || n > 4096) {
                std::fprintf(stderr, "bad MobileNet input size in '%s'\n", graphName.c_str());
                return nullptr;
            }
            options.inputSize = static_cast<uint32_t>(n);
        }
        return arv::nnhal::host::makeMobileNet(options);
    }
    if (kind == "chain" && parseCount(arg, &n) && n > 0 && n <= 1000000) {
        return arv::nnhal::host::makeElementwiseChain(static_cast<uint32_t>(n));
    }
    if (kind == "wide") {
        const uint64_t bytes = parseBytes(arg);
        if (bytes > 0 && bytes <= (uint64_t(1) << 31)) return arv::nnhal::host::makeWideFullyConnected(bytes);
    }
    std::fprintf(stderr, "unknown graph '%s' (mobilenet[:SIZE], chain:N, wide:BYTES)\n", graphName.c_str());
    return nullptr;
}

uint32_t operationCount(const HostGraph& graph) {
    return graph.getOperationCount();
}

uint64_t constantBytes(HostGraph& graph) {
    uint64_t total = 0;
    for (uint32_t i = 0; i < graph.getOperandCount(); ++i) {
        const HostOperand& operand = graph.operand(i);
        if (operand.mLifetime == Lifetime::Constant) total += operand.mData.size();
    }
    return total;
}

uint64_t largestConstant(HostGraph& graph) {
    uint64_t largest = 0;
    for (uint32_t i = 0; i < graph.getOperandCount(); ++i) {
        const HostOperand& operand = graph.operand(i);
        if (operand.mLifetime == Lifetime::Constant) largest = std::max<uint64_t>(largest, operand.mData.size());
    }
    return largest;
}

uint64_t macsOf(const std::string& graphName) {
    if (graphName.rfind("mobilenet", 0) != 0) return 0;
    arv::nnhal::host::MobileNetOptions options;
    const auto colon = graphName.find(':');
    uint64_t n = 0;
    if (colon != std::string::npos && parseCount(graphName.substr(colon + 1), &n)) {
        options.inputSize = static_cast<uint32_t>(n);
    }
    return arv::nnhal::host::mobileNetMacs(options);
}

namespace {
arv::nnhal::IAccelerator* gAccelerator = nullptr;
}  // namespace

arv::nnhal::IAccelerator* accelerator() {
    static arv::nnhal::host::HostAcceleratorContext context;
    if (gAccelerator == nullptr) gAccelerator = CreateAccelerator_zel(&context);
    return gAccelerator;
}

void resetAccelerator() {
    if (gAccelerator != nullptr) gAccelerator->release();
    gAccelerator = nullptr;
}

arv::nnhal::IGraphExecutor* prepare(HostGraph& graph) {
    static arv::nnhal::host::HostExecutorContext context;
    const arv::nnhal::CreateExecutorResult result = accelerator()->createGraphExecutor(&graph, &context);
    if (result.status != arv::nnhal::Status::SUCCESS || result.executor == nullptr) {
        std::fprintf(stderr, "createGraphExecutor failed with status %d\n", static_cast<int>(result.status));
        return nullptr;
    }
    return result.executor;
}

int runtimeGraphId(arv::nnhal::IGraphExecutor* executor) {
    // Every executor the plug-in hands out is its own ZelExecutor.
    return static_cast<int>(peer(static_cast<arv::nnhal::zel::ZelExecutor*>(executor)).graphId());
}

Bindings::Bindings(HostGraph& graph) : mGraph(graph) {
    const uint32_t inputs = graph.getInputCount();
    const uint32_t outputs = graph.getOutputCount();
    mBuffers.resize(inputs + outputs);
    for (uint32_t p = 0; p < inputs + outputs; ++p) {
        const bool isInput = p < inputs;
        const uint32_t position = isInput ? p : p - inputs;
        HostOperand& operand = graph.operand(isInput ? graph.getInput(position) : graph.getOutput(position));
        uint64_t bytes = elementBytes(operand.mType);
        for (uint32_t d : operand.mDims) bytes *= d;
        std::vector<uint8_t>& buffer = mBuffers[p];
        buffer.resize(static_cast<size_t>(bytes));
        // Deterministic input pixels; outputs start zeroed.
        if (isInput) {
            for (size_t i = 0; i < buffer.size(); ++i) buffer[i] = static_cast<uint8_t>((i * 131u + 7u) >> 3);
        }
        const uint32_t length = static_cast<uint32_t>(buffer.size());
        if (isInput) {
            graph.bindInput(position, buffer.data(), length);
            mInputDefs.push_back(describe(operand, buffer.data(), length));
        } else {
            graph.bindOutput(position, buffer.data(), length);
            mOutputDefs.push_back(describe(operand, buffer.data(), length));
        }
    }
    graph.setExecuting(true);
}

Bindings::~Bindings() {
    mGraph.setExecuting(false);
    for (uint32_t p = 0; p < mGraph.getInputCount(); ++p) mGraph.bindInput(p, nullptr, 0);
    for (uint32_t p = 0; p < mGraph.getOutputCount(); ++p) mGraph.bindOutput(p, nullptr, 0);
}

uint64_t parseBytes(const std::string& text) {
    if (text.empty()) return 0;
    uint64_t scale = 1;
    std::string digits = text;
    switch (text.back()) {
        case 'K': scale = 1000; break;
        case 'M': scale = 1000 * 1000; break;
        case 'G': scale = 1000 * 1000 * 1000; break;
        default: break;
    }
    if (scale != 1) digits.pop_back();
    uint64_t value = 0;
    if (!parseCount(digits, &value)) return 0;
    return value * scale;
}

}  // namespace zelbench
