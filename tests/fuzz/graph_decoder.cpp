#include "graph_decoder.h"

#include <algorithm>
#include <cstring>

#include "zel_accelerator.h"

namespace zelfuzz {

using arv::nnhal::OperandType;
using arv::nnhal::OperationType;
using arv::nnhal::host::HostGraph;
using arv::nnhal::host::Lifetime;

const std::vector<int32_t> kOperationCodes = {0,  1,  2, 3,  4,  9,  17, 19,    20,    21, 22,   23,  36,
                                              71, 91, 6, 14, 18, 25, 32, 34,    26,    29, 33,   28,  13,
                                              12, 37, 5, 8,  38, 70, 72, 20000, 20001, -1, 1000, 255, 16};
const std::vector<float> kScales = {0.5f, 0.25f, 1.0f, 0.0078125f, 0.0f, -1.0f, 0.1f, 2.0f};
const std::vector<int32_t> kZeroPoints = {0, 128, 255, 1, -1, 256, 127, 64};

namespace {

class Reader {
public:
    Reader(const uint8_t* data, size_t size) : mData(data), mSize(size) {}
    uint8_t u8() { return mPos < mSize ? mData[mPos++] : 0; }
    int32_t i32() {
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i) v |= uint32_t(u8()) << (8 * i);
        return static_cast<int32_t>(v);
    }

private:
    const uint8_t* mData;
    size_t mSize;
    size_t mPos = 0;
};

uint32_t elementBytes(OperandType type) {
    switch (type) {
        case OperandType::TENSOR_QUANT8:
        case OperandType::TENSOR_CUSTOM_BYTE: return 1;
        default: return 4;
    }
}

}  // namespace

std::unique_ptr<HostGraph> decodeGraph(const uint8_t* data, size_t size) {
    Reader r(data, size);
    auto graph = std::make_unique<HostGraph>();
    const uint32_t operandCount = 1 + r.u8() % 24;
    std::vector<uint32_t> inputs, outputs;
    for (uint32_t i = 0; i < operandCount; ++i) {
        const uint8_t t = r.u8();
        OperandType type = static_cast<OperandType>(t % 6);
        if (t >= 250) type = static_cast<OperandType>(t == 250 ? 10001 : r.i32());
        const uint32_t rank = r.u8() % 6;
        std::vector<uint32_t> dims(rank);
        for (auto& d : dims) d = r.u8() % 9;
        const uint8_t q = r.u8();
        const float scale = kScales[q % kScales.size()];
        const int32_t zeroPoint = kZeroPoints[(q >> 3) % kZeroPoints.size()];
        const Lifetime lifetime = static_cast<Lifetime>(r.u8() % 4);
        std::vector<uint8_t> bytes;
        if (lifetime == Lifetime::Constant) {
            uint64_t elements = 1;
            for (uint32_t d : dims) elements *= d;
            uint64_t length = std::min<uint64_t>(elements * elementBytes(type), 1 << 16);
            const uint8_t mode = r.u8() % 8;
            if (mode == 0) length = 0;
            if (mode == 1) length -= std::min<uint64_t>(length, 1 + r.u8() % 8);
            bytes.resize(static_cast<size_t>(length));
            for (auto& b : bytes) b = r.u8();
        }
        const uint32_t index = graph->addOperand(type, dims, scale, zeroPoint, lifetime, bytes);
        if (lifetime == Lifetime::Input) inputs.push_back(index);
        if (lifetime == Lifetime::Output) outputs.push_back(index);
    }
    const uint32_t operationCount = r.u8() % 6;
    for (uint32_t i = 0; i < operationCount; ++i) {
        const OperationType type = static_cast<OperationType>(kOperationCodes[r.u8() % kOperationCodes.size()]);
        std::vector<uint32_t> ins(r.u8() % 12), outs(r.u8() % 3);
        for (auto& v : ins) v = r.u8() % (operandCount + 2);
        for (auto& v : outs) v = r.u8() % (operandCount + 2);
        graph->addOperation(type, ins, outs);
    }
    if (r.u8() % 16 == 15) inputs.push_back(operandCount + r.u8() % 3);  // out of range on purpose
    graph->setInputs(inputs);
    graph->setOutputs(outputs);
    return graph;
}

Outcome exerciseGraph(HostGraph& graph) {
    // One accelerator for the whole process: releasing it would reload the
    // runtime on every input.
    static arv::nnhal::IAccelerator* accelerator = CreateAccelerator_zel(nullptr);
    arv::nnhal::host::HostSupportQuery query(graph.getOperationCount());
    accelerator->isGraphSupported(&graph, &query);
    Outcome outcome;
    outcome.levels = query.levels();
    arv::nnhal::host::HostExecutorContext context;
    const auto result = accelerator->createGraphExecutor(&graph, &context);
    outcome.created = result.status;
    if (result.executor == nullptr) return outcome;
    std::vector<std::vector<uint8_t>> buffers;
    auto bind = [&](uint32_t count, bool isInput) {
        for (uint32_t p = 0; p < count; ++p) {
            const uint32_t index = isInput ? graph.getInput(p) : graph.getOutput(p);
            uint64_t bytes = 4;
            if (index < graph.getOperandCount()) {
                auto& operand = graph.operand(index);
                bytes = elementBytes(operand.mType);
                for (uint32_t d : operand.mDims) bytes *= d;
            }
            buffers.emplace_back(static_cast<size_t>(std::min<uint64_t>(bytes, 1 << 20)));
            auto& buffer = buffers.back();
            if (isInput) {
                graph.bindInput(p, buffer.data(), static_cast<uint32_t>(buffer.size()));
            } else {
                graph.bindOutput(p, buffer.data(), static_cast<uint32_t>(buffer.size()));
            }
        }
    };
    buffers.reserve(graph.getInputCount() + graph.getOutputCount());
    bind(graph.getInputCount(), true);
    bind(graph.getOutputCount(), false);
    graph.setExecuting(true);
    result.executor->execute();
    graph.setExecuting(false);
    result.executor->release();
    return outcome;
}

namespace {

// The runtime takes a graph input or output as a tensor of rank 1 to 4
// with elements of a known type.
bool boundaryTensor(HostGraph& graph, uint32_t index) {
    if (index >= graph.getOperandCount()) return false;
    const auto& operand = graph.operand(index);
    switch (operand.mType) {
        case OperandType::TENSOR_FP32:
        case OperandType::TENSOR_INT32:
        case OperandType::TENSOR_QUANT8: break;
        default: return false;
    }
    return !operand.mDims.empty() && operand.mDims.size() <= 4;
}

// True when `alpha` is an 8-bit tensor that broadcasts into the shape of
// `input` (sizes aligned from the last, each alpha size 1 or the input's, no
// more dimensions than the input, at most 4).
bool broadcastsInto(HostGraph& graph, uint32_t input, uint32_t alpha) {
    if (input >= graph.getOperandCount() || alpha >= graph.getOperandCount()) return false;
    const auto& di = graph.operand(input).mDims;
    const auto& da = graph.operand(alpha).mDims;
    if (graph.operand(alpha).mType != OperandType::TENSOR_QUANT8) return false;
    if (di.size() > 4 || da.size() > di.size()) return false;
    for (size_t i = 1; i <= da.size(); ++i) {
        const uint32_t y = da[da.size() - i];
        if (y != 1 && y != di[di.size() - i]) return false;
    }
    return true;
}

// One of the known gaps between query and preparation (README, support
// section): shapes the per-operation query does not look at and that
// preparation refuses.
bool knownGap(HostGraph& graph) {
    if (graph.getOperationCount() == 0) return true;
    std::vector<bool> written(graph.getOperandCount(), false);
    for (uint32_t i = 0; i < graph.getOperationCount(); ++i) {
        const auto& operation = graph.operation(i);
        const bool pooling =
            operation.mType == OperationType::AVERAGE_POOL_2D || operation.mType == OperationType::MAX_POOL_2D;
        // A pooling operation with more than one output.
        if (pooling && operation.mOutputs.size() > 1) return true;
        // A PRELU whose alpha is not an 8-bit tensor broadcasting into its
        // input's shape (the output takes the input's shape): the alpha is
        // counted, not examined.
        if (operation.mType == OperationType::PRELU && operation.mInputs.size() == 2 &&
            !broadcastsInto(graph, operation.mInputs[0], operation.mInputs[1])) {
            return true;
        }
        // An operation reading a value that is neither a graph input nor a
        // constant and that no earlier operation writes.
        // An operand of the operation declared with a dimension of 0: a
        // batch of 0 (which the query accepts) or an output to be inferred
        // (which it does not look at).
        for (const auto* list : {&operation.mInputs, &operation.mOutputs}) {
            for (uint32_t index : *list) {
                if (index >= written.size()) continue;
                const auto& dims = graph.operand(index).mDims;
                if (std::find(dims.begin(), dims.end(), 0u) != dims.end()) return true;
            }
        }
        for (uint32_t in : operation.mInputs) {
            if (in >= written.size()) continue;
            const Lifetime lifetime = graph.operand(in).mLifetime;
            if (lifetime != Lifetime::Input && lifetime != Lifetime::Constant && !written[in]) return true;
        }
        // An operation writing a graph input, a constant, or a value another
        // operation writes.
        for (uint32_t out : operation.mOutputs) {
            if (out >= written.size()) continue;
            const Lifetime lifetime = graph.operand(out).mLifetime;
            if (lifetime == Lifetime::Input || lifetime == Lifetime::Constant || written[out]) return true;
            // An output of rank 0 (to be inferred).
            if (graph.operand(out).mDims.empty()) return true;
            written[out] = true;
        }
    }
    // A constant read as the weights or filter of an operation (input 1 of
    // CONV_2D, DEPTHWISE_CONV_2D, FULLY_CONNECTED) and also read elsewhere:
    // preparation rearranges it once, for the weights.
    std::vector<int> reads(graph.getOperandCount(), 0);
    std::vector<bool> weights(graph.getOperandCount(), false);
    for (uint32_t i = 0; i < graph.getOperationCount(); ++i) {
        const auto& operation = graph.operation(i);
        for (uint32_t in : operation.mInputs) {
            if (in < reads.size()) ++reads[in];
        }
        const bool weighted = operation.mType == OperationType::CONV_2D ||
                              operation.mType == OperationType::DEPTHWISE_CONV_2D ||
                              operation.mType == OperationType::FULLY_CONNECTED;
        if (weighted && operation.mInputs.size() > 1 && operation.mInputs[1] < weights.size()) {
            weights[operation.mInputs[1]] = true;
        }
    }
    for (uint32_t i = 0; i < graph.getOperandCount(); ++i) {
        if (weights[i] && reads[i] > 1) return true;
    }
    for (uint32_t i = 0; i < graph.getOperandCount(); ++i) {
        // An operand of a type outside the host framework's types.
        const auto& operand = graph.operand(i);
        const int32_t type = static_cast<int32_t>(operand.mType);
        if ((type < 0 || type > 5) && type != 10000 && type != 10001) return true;
        // A constant without all of its bytes, or of rank above 4: the query
        // cannot tell it from a value another operation writes.
        uint64_t bytes = elementBytes(operand.mType);
        for (uint32_t d : operand.mDims) bytes *= d;
        if (operand.mLifetime == Lifetime::Constant && (operand.mData.size() < bytes || operand.mDims.size() > 4)) {
            return true;
        }
    }
    for (uint32_t p = 0; p < graph.getInputCount(); ++p) {
        // A graph input that is no tensor of rank 1 to 4 (or names no operand).
        if (!boundaryTensor(graph, graph.getInput(p))) return true;
    }
    for (uint32_t p = 0; p < graph.getOutputCount(); ++p) {
        const uint32_t index = graph.getOutput(p);
        // A graph output that is no such tensor, or that no operation writes.
        if (!boundaryTensor(graph, index) || !written[index]) return true;
    }
    return false;
}

}  // namespace

std::string brokenPromise(HostGraph& graph, const Outcome& outcome) {
    if (outcome.created != arv::nnhal::Status::GENERAL_FAILURE) return "";
    for (int level : outcome.levels) {
        if (level != 0) return "";
    }
    if (knownGap(graph)) return "";
    return "every operation was reported supported, yet createGraphExecutor failed with status 1";
}

}  // namespace zelfuzz
