// Model files: one graph in JSON with its input data, the outputs it is
// expected to produce and the tolerance they are compared with.
//
//   {"name": ..., "origin": ...,                      (optional strings)
//    "operands":   [{"type", "dims", "scale", "zeroPoint", "lifetime", "data"?,
//                    "channelQuant"?: {"channelDim", "scales"}}],
//    "operations": [{"type", "inputs", "outputs"}],
//    "inputs": [...], "outputs": [...],                (operand indices)
//    "inputData": [[...]], "expected": [[...]],         (optional, one array per graph input / output)
//    "tolerance": 1, "ignoredOutputs": [...]}           (optional)
//
// The loader never throws and never aborts: every problem is one message
// naming the file and the place, "model.json: operands[3].data: expected 4
// values, got 3". Element values are written as JSON numbers in every type
// (float16 too, stored as the nearest half); booleans also as true / false.
//
// Strict loading (the default) accepts only graphs a host could really
// build. Lenient loading (`checkIndices = false`) keeps the JSON checks but
// lets graph-level oddities through so that they reach the plug-in as they
// are: operand indices past the operand count in operations and in the
// graph's inputs and outputs, operand type codes outside the known set,
// data arrays whose length does not match the dimensions, constants without
// data and non-constants with data, and input / expected arrays whose count
// or length differs from the graph. Values that do not fit their element
// type (a quantized byte of 300) are refused in both modes, since they
// cannot be represented at all.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "zelhost/host_graph.h"

namespace arv {
namespace nnhal {
namespace host {

struct LoadOptions {
    // false: lenient loading, see above.
    bool checkIndices = true;
};

// How the values of one operand type are stored.
enum class ElementKind { Float32, Int32, Uint32, Uint8, Int8, Int16, Uint16, Float16, Bool8 };

// One operand type code of the numbering the host loads.
struct OperandTypeInfo {
    int32_t code;
    const char* name;  // the host's text, "TENSOR_FLOAT16"
    ElementKind kind;
    bool scalar;  // declared without dimensions
};
// The entry of `code`, or null for a code outside the numbering.
const OperandTypeInfo* findOperandType(int32_t code);

// Element kind of an operand type code. Codes without a defined kind (only
// reachable through lenient loading) are stored as 32-bit integers.
ElementKind elementKindOf(int32_t operandType);
// Bytes per element: 4, 2 or 1.
uint32_t elementSize(ElementKind kind);
// Element `index` of `bytes` (no alignment needed), as a double.
double readElement(ElementKind kind, const uint8_t* bytes, uint32_t index);

// IEEE half precision: the nearest half to `value`, ties to the even
// mantissa; values past the largest finite half become infinity, NaN stays
// NaN (quiet) and the sign of zero is kept.
uint16_t toHalf(double value);
double fromHalf(uint16_t bits);

struct LoadedModel {
    std::string source;  // file name used in messages
    std::string name;
    std::string origin;
    std::unique_ptr<HostGraph> graph;
    // Byte image of each graph input, in the element type of its operand.
    bool hasInputData = false;
    std::vector<std::vector<uint8_t>> inputData;
    // Expected values of each graph output.
    bool hasExpected = false;
    std::vector<std::vector<double>> expected;
    // Largest accepted absolute difference, in stored units.
    double tolerance = 0.0;
    // Output positions that are not compared.
    std::vector<uint32_t> ignoredOutputs;
};

// Parses `text`; `source` names it in messages. Returns "" on success,
// otherwise the message (and `model` is left without a graph).
std::string parseModel(const std::string& text, const std::string& source, LoadedModel& model,
                       const LoadOptions& options = LoadOptions());
// Reads and parses the file at `path` (named by `path` in messages).
std::string loadModelFile(const std::string& path, LoadedModel& model, const LoadOptions& options = LoadOptions());

// The whole file at `path` into `text`. Returns "" or the reason, naming the
// file: "<path>: cannot open file: Is a directory".
std::string readFile(const std::string& path, std::string& text);
// Creates or replaces the file at `path` with `size` bytes. Returns "" or
// "<path>: cannot write file: <reason>".
std::string writeFile(const std::string& path, const void* data, size_t size);

// Element count of an operand: product of its current dimensions, 1 for a
// scalar; 0 when the index is out of range.
uint64_t operandElementCount(const HostGraph& graph, uint32_t operandIndex);
// Byte size of a buffer for the operand (count times element size).
uint64_t operandByteSize(const HostGraph& graph, uint32_t operandIndex);

}  // namespace host
}  // namespace nnhal
}  // namespace arv
