// Host-side graph interfaces. The host owns every object behind these
// interfaces; a plug-in only borrows them for the duration of a call (or,
// for an executor, until it is released). Virtual slot order is ABI: never
// reorder, insert or remove a declaration.
#pragma once

#include <cstdint>

#include "arv/nnhal/nnhal_types.h"

namespace arv {
namespace nnhal {

// A block of memory the host hands to a graph (for example a pool that
// constant operands point into).
class IBuffer {
public:
    virtual ~IBuffer() = default;
    // Start of the buffer's bytes; may be null for an empty buffer.
    virtual const uint8_t* getData() const = 0;
    // Size of the buffer in bytes.
    virtual uint32_t getSize() const = 0;
};

// One operand (tensor or scalar) of a graph.
class IOperand {
public:
    virtual ~IOperand() = default;
    // Element type of the operand.
    virtual OperandType getType() const = 0;
    // Rank; 0 for scalars.
    virtual uint32_t getDimensionCount() const = 0;
    // Current size of dimension `index` (0 when out of range).
    virtual uint32_t getDimension(uint32_t index) const = 0;
    // Size of dimension `index` as declared when the graph was built.
    virtual uint32_t getOriginalDimension(uint32_t index) const = 0;
    // Constant data, or during an execution the bound buffer of a graph
    // input or output. Non-zero status: no data.
    virtual DataResult getData() const = 0;
    // Quantization parameters. Non-zero status: the operand has none.
    virtual QuantParamsResult getQuantizationParams() const = 0;
};

// One operation of a graph; inputs and outputs are operand indices.
class IOperation {
public:
    virtual ~IOperation() = default;
    virtual OperationType getType() const = 0;
    virtual uint32_t getNumInputs() const = 0;
    // Operand index of input `index`; UINT32_MAX when out of range.
    virtual uint32_t getInput(uint32_t index) const = 0;
    virtual uint32_t getNumOutputs() const = 0;
    // Operand index of output `index`; UINT32_MAX when out of range.
    virtual uint32_t getOutput(uint32_t index) const = 0;
};

// A whole graph: operands, operations in topological order, graph inputs
// and outputs (as operand indices) and buffers.
class IGraph {
public:
    virtual ~IGraph() = default;
    virtual uint32_t getOperandCount() const = 0;
    // Operand at `index`; null when out of range.
    virtual IOperand* getOperand(uint32_t index) const = 0;
    virtual uint32_t getOperationCount() const = 0;
    // Operation at `index`; null on failure.
    virtual IOperation* getOperation(uint32_t index) const = 0;
    virtual uint32_t getInputCount() const = 0;
    // Operand index of graph input `position`.
    virtual uint32_t getInput(uint32_t position) const = 0;
    virtual uint32_t getOutputCount() const = 0;
    // Operand index of graph output `position`.
    virtual uint32_t getOutput(uint32_t position) const = 0;
    virtual uint32_t getBufferCount() const = 0;
    // Buffer at `index`, together with a status (non-zero: failure).
    virtual BufferResult getBuffer(uint32_t index) const = 0;
};

}  // namespace nnhal
}  // namespace arv
