#include "zelhost/model_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <exception>
#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>

#include "zelhost/names.h"

namespace arv {
namespace nnhal {
namespace host {

using nlohmann::json;

namespace {

// clang-format off
const OperandTypeInfo kOperandTypes[] = {
    {0, "SCALAR_FP32", ElementKind::Float32, true},
    {1, "SCALAR_INT32", ElementKind::Int32, true},
    {2, "SCALAR_UNSIGNED_INT32", ElementKind::Uint32, true},
    {3, "TENSOR_FP32", ElementKind::Float32, false},
    {4, "TENSOR_INT32", ElementKind::Int32, false},
    {5, "TENSOR_QUANT8", ElementKind::Uint8, false},
    {6, "BOOL", ElementKind::Bool8, true},
    {7, "TENSOR_QUANT16_SYMM", ElementKind::Int16, false},
    {8, "TENSOR_FLOAT16", ElementKind::Float16, false},
    {9, "TENSOR_BOOL8", ElementKind::Bool8, false},
    {10, "FLOAT16", ElementKind::Float16, true},
    {11, "TENSOR_QUANT8_SYMM_PER_CHANNEL", ElementKind::Int8, false},
    {12, "TENSOR_QUANT16_ASYMM", ElementKind::Uint16, false},
    {13, "TENSOR_QUANT8_SYMM", ElementKind::Int8, false},
    {14, "TENSOR_QUANT8_ASYMM_SIGNED", ElementKind::Int8, false},
    {10000, "CUSTOM", ElementKind::Uint8, false},
    {10001, "TENSOR_CUSTOM_BYTE", ElementKind::Uint8, false},
};
// clang-format on

template <typename T>
T loadAt(const uint8_t* bytes, uint32_t index) {
    T value;
    std::memcpy(&value, bytes + static_cast<size_t>(index) * sizeof(T), sizeof value);
    return value;
}

}  // namespace

const OperandTypeInfo* findOperandType(int32_t code) {
    for (const OperandTypeInfo& entry : kOperandTypes) {
        if (entry.code == code) return &entry;
    }
    return nullptr;
}

ElementKind elementKindOf(int32_t operandType) {
    const OperandTypeInfo* info = findOperandType(operandType);
    return info != nullptr ? info->kind : ElementKind::Int32;
}

uint32_t elementSize(ElementKind kind) {
    switch (kind) {
        case ElementKind::Uint8:
        case ElementKind::Int8:
        case ElementKind::Bool8: return 1u;
        case ElementKind::Int16:
        case ElementKind::Uint16:
        case ElementKind::Float16: return 2u;
        case ElementKind::Float32:
        case ElementKind::Int32:
        case ElementKind::Uint32: break;
    }
    return 4u;
}

double readElement(ElementKind kind, const uint8_t* bytes, uint32_t index) {
    switch (kind) {
        case ElementKind::Uint8:
        case ElementKind::Bool8: return bytes[index];
        case ElementKind::Int8: return static_cast<int8_t>(bytes[index]);
        case ElementKind::Int16: return loadAt<int16_t>(bytes, index);
        case ElementKind::Uint16: return loadAt<uint16_t>(bytes, index);
        case ElementKind::Float16: return fromHalf(loadAt<uint16_t>(bytes, index));
        case ElementKind::Float32: return loadAt<float>(bytes, index);
        case ElementKind::Uint32: return loadAt<uint32_t>(bytes, index);
        case ElementKind::Int32: break;
    }
    return loadAt<int32_t>(bytes, index);
}

uint16_t toHalf(double value) {
    const uint16_t sign = std::signbit(value) ? 0x8000u : 0u;
    if (std::isnan(value)) return sign | 0x7E00u;
    const double magnitude = std::fabs(value);
    if (magnitude == 0.0) return sign;
    if (std::isinf(magnitude)) return sign | 0x7C00u;
    int exponent = 0;
    std::frexp(magnitude, &exponent);  // magnitude = m * 2^exponent, m in [0.5, 1)
    exponent -= 1;                     // magnitude = 1.f * 2^exponent
    // Both scalings are exact; nearbyint rounds ties to even.
    if (exponent < -14) {
        // Subnormal: a multiple of 2^-24. A count of 1024 is the smallest
        // normal, whose bits are the same number.
        const double count = std::nearbyint(std::ldexp(magnitude, 24));
        return sign | static_cast<uint16_t>(count);
    }
    double mantissa = std::nearbyint(std::ldexp(magnitude, 10 - exponent));  // 1024 .. 2048
    if (mantissa >= 2048.0) {
        mantissa = 1024.0;
        ++exponent;
    }
    if (exponent > 15) return sign | 0x7C00u;
    return sign | static_cast<uint16_t>(((exponent + 15) << 10) | (static_cast<uint32_t>(mantissa) - 1024u));
}

double fromHalf(uint16_t bits) {
    const double sign = (bits & 0x8000u) ? -1.0 : 1.0;
    const int exponent = (bits >> 10) & 0x1F;
    const uint32_t mantissa = bits & 0x3FFu;
    if (exponent == 0x1F) {
        return mantissa != 0 ? std::numeric_limits<double>::quiet_NaN()
                             : sign * std::numeric_limits<double>::infinity();
    }
    if (exponent == 0) return sign * std::ldexp(static_cast<double>(mantissa), -24);
    return sign * std::ldexp(static_cast<double>(mantissa + 1024u), exponent - 25);
}

uint64_t operandElementCount(const HostGraph& graph, uint32_t operandIndex) {
    const IOperand* operand = graph.getOperand(operandIndex);
    if (operand == nullptr) return 0;
    uint64_t count = 1;
    for (uint32_t d = 0; d < operand->getDimensionCount(); ++d) {
        count *= operand->getDimension(d);
        if (count > (uint64_t{1} << 40)) return uint64_t{1} << 40;  // far past anything allocatable
    }
    return count;
}

uint64_t operandByteSize(const HostGraph& graph, uint32_t operandIndex) {
    const IOperand* operand = graph.getOperand(operandIndex);
    if (operand == nullptr) return 0;
    return operandElementCount(graph, operandIndex) *
           elementSize(elementKindOf(static_cast<int32_t>(operand->getType())));
}

namespace {

// Largest element count a tensor of a model file may declare.
constexpr uint64_t kMaxElements = uint64_t{1} << 28;

std::string describe(const json& value) {
    if (value.is_number()) return value.dump();
    if (value.is_string()) return "a string";
    if (value.is_boolean()) return "a boolean";
    if (value.is_null()) return "null";
    if (value.is_array()) return "an array";
    return "an object";
}

std::string at(const std::string& where, size_t index) {
    return where + "[" + std::to_string(index) + "]";
}
std::string dot(const std::string& where, const char* key) {
    return where.empty() ? key : where + "." + key;
}

bool parseLifetime(const std::string& text, Lifetime& lifetime) {
    if (text == "input")
        lifetime = Lifetime::Input;
    else if (text == "output")
        lifetime = Lifetime::Output;
    else if (text == "constant")
        lifetime = Lifetime::Constant;
    else if (text == "internal")
        lifetime = Lifetime::Internal;
    else
        return false;
    return true;
}

struct ChannelQuant {
    uint32_t channelDim = 0;
    std::vector<float> scales;
};

class Parser {
public:
    Parser(std::string source, const LoadOptions& options)
        : mSource(std::move(source)), mStrict(options.checkIndices) {}

    const std::string& error() const { return mError; }

    bool fail(const std::string& where, const std::string& what) {
        if (mError.empty()) mError = mSource + ": " + (where.empty() ? "" : where + ": ") + what;
        return false;
    }

    bool parse(const json& root, LoadedModel& model) {
        if (!root.is_object()) return fail("", "expected a JSON object at the top, got " + describe(root));
        if (!readOptionalString(root, "name", model.name) || !readOptionalString(root, "origin", model.origin)) {
            return false;
        }
        auto graph = std::make_unique<HostGraph>();
        const json* operands = member(root, "", "operands", true);
        if (operands == nullptr || !expectArray(*operands, "operands")) return false;
        for (size_t i = 0; i < operands->size(); ++i) {
            if (!parseOperand((*operands)[i], at("operands", i), *graph)) return false;
        }
        const json* operations = member(root, "", "operations", true);
        if (operations == nullptr || !expectArray(*operations, "operations")) return false;
        for (size_t i = 0; i < operations->size(); ++i) {
            if (!parseOperation((*operations)[i], at("operations", i), *graph)) return false;
        }
        std::vector<uint32_t> inputs;
        std::vector<uint32_t> outputs;
        if (!readOperandList(root, "", "inputs", *graph, inputs) ||
            !readOperandList(root, "", "outputs", *graph, outputs)) {
            return false;
        }
        graph->setInputs(inputs);
        graph->setOutputs(outputs);

        if (const json* data = member(root, "", "inputData", false)) {
            model.hasInputData = true;
            if (!readValueArrays(*data, "inputData", "graph input", inputs, *graph, &model.inputData, nullptr))
                return false;
        }
        if (const json* expected = member(root, "", "expected", false)) {
            model.hasExpected = true;
            if (!readValueArrays(*expected, "expected", "graph output", outputs, *graph, nullptr, &model.expected)) {
                return false;
            }
        }
        if (const json* tolerance = member(root, "", "tolerance", false)) {
            double value = 0.0;
            if (!readNumber(*tolerance, "tolerance", value)) return false;
            if (!(value >= 0.0)) return fail("tolerance", "must not be negative, got " + tolerance->dump());
            model.tolerance = value;
        }
        if (const json* ignored = member(root, "", "ignoredOutputs", false)) {
            if (!readIndexList(*ignored, "ignoredOutputs", model.ignoredOutputs)) return false;
            for (size_t i = 0; mStrict && i < model.ignoredOutputs.size(); ++i) {
                if (model.ignoredOutputs[i] >= outputs.size()) {
                    return fail(at("ignoredOutputs", i), "output position " + std::to_string(model.ignoredOutputs[i]) +
                                                             " out of range (" + std::to_string(outputs.size()) +
                                                             " graph outputs)");
                }
            }
        }
        model.graph = std::move(graph);
        return true;
    }

private:
    const json* member(const json& object, const std::string& where, const char* key, bool required) {
        auto it = object.find(key);
        if (it == object.end()) {
            if (required) fail(where, std::string("missing field \"") + key + "\"");
            return nullptr;
        }
        return &*it;
    }

    bool expectArray(const json& value, const std::string& where) {
        if (value.is_array()) return true;
        return fail(where, "expected an array, got " + describe(value));
    }

    bool readOptionalString(const json& object, const char* key, std::string& out) {
        const json* value = member(object, "", key, false);
        if (value == nullptr) return true;
        if (!value->is_string()) return fail(key, "expected a string, got " + describe(*value));
        out = value->get<std::string>();
        return true;
    }

    bool readInteger(const json& value, const std::string& where, int64_t low, int64_t high, int64_t& out,
                     const std::string& rangeName = "") {
        if (!value.is_number_integer()) return fail(where, "expected an integer, got " + describe(value));
        if (value.is_number_unsigned()) {
            const uint64_t raw = value.get<uint64_t>();
            if (raw > static_cast<uint64_t>(high)) return outOfRange(where, value, low, high, rangeName);
            out = static_cast<int64_t>(raw);
        } else {
            out = value.get<int64_t>();
            if (out < low || out > high) return outOfRange(where, value, low, high, rangeName);
        }
        return true;
    }

    bool outOfRange(const std::string& where, const json& value, int64_t low, int64_t high, const std::string& name) {
        return fail(where, "value " + value.dump() + " out of range" + (name.empty() ? "" : " for " + name) + " (" +
                               std::to_string(low) + ".." + std::to_string(high) + ")");
    }

    bool readNumber(const json& value, const std::string& where, double& out) {
        if (!value.is_number()) return fail(where, "expected a number, got " + describe(value));
        out = value.get<double>();
        return true;
    }

    bool readIndexList(const json& value, const std::string& where, std::vector<uint32_t>& out) {
        if (!expectArray(value, where)) return false;
        out.clear();
        for (size_t i = 0; i < value.size(); ++i) {
            int64_t index = 0;
            if (!readInteger(value[i], at(where, i), 0, UINT32_MAX, index)) return false;
            out.push_back(static_cast<uint32_t>(index));
        }
        return true;
    }

    // An index list of operands, checked against the operand count when strict.
    bool readOperandIndices(const json& value, const std::string& where, const HostGraph& graph,
                            std::vector<uint32_t>& out) {
        if (!readIndexList(value, where, out)) return false;
        for (size_t i = 0; mStrict && i < out.size(); ++i) {
            if (out[i] >= graph.getOperandCount()) {
                return fail(at(where, i), "operand index " + std::to_string(out[i]) + " out of range (" +
                                              std::to_string(graph.getOperandCount()) + " operands)");
            }
        }
        return true;
    }

    bool readOperandList(const json& object, const std::string& where, const char* key, const HostGraph& graph,
                         std::vector<uint32_t>& out) {
        const json* value = member(object, where, key, true);
        return value != nullptr && readOperandIndices(*value, dot(where, key), graph, out);
    }

    // Appends the values of `array` to `bytes` in `kind`; `typeName` names the
    // element type in range messages.
    bool encodeValues(const json& array, const std::string& where, ElementKind kind, const std::string& typeName,
                      std::vector<uint8_t>& bytes, std::vector<double>* values) {
        for (size_t i = 0; i < array.size(); ++i) {
            const std::string place = at(where, i);
            const json& item = array[i];
            int64_t integer = 0;
            switch (kind) {
                case ElementKind::Uint8:
                    if (!readInteger(item, place, 0, 255, integer, typeName)) return false;
                    bytes.push_back(static_cast<uint8_t>(integer));
                    if (values) values->push_back(static_cast<double>(integer));
                    break;
                case ElementKind::Int8:
                    if (!readInteger(item, place, INT8_MIN, INT8_MAX, integer, typeName)) return false;
                    bytes.push_back(static_cast<uint8_t>(static_cast<int8_t>(integer)));
                    if (values) values->push_back(static_cast<double>(integer));
                    break;
                case ElementKind::Bool8:
                    if (item.is_boolean()) {
                        integer = item.get<bool>() ? 1 : 0;
                    } else if (item.is_number_integer() && (item == 0 || item == 1)) {
                        integer = item.get<int64_t>();
                    } else {
                        return fail(place, "expected true, false, 0 or 1 for " + typeName + ", got " + describe(item));
                    }
                    bytes.push_back(static_cast<uint8_t>(integer));
                    if (values) values->push_back(static_cast<double>(integer));
                    break;
                case ElementKind::Int16:
                    if (!readInteger(item, place, INT16_MIN, INT16_MAX, integer, typeName)) return false;
                    append(bytes, static_cast<int16_t>(integer));
                    if (values) values->push_back(static_cast<double>(integer));
                    break;
                case ElementKind::Uint16:
                    if (!readInteger(item, place, 0, UINT16_MAX, integer, typeName)) return false;
                    append(bytes, static_cast<uint16_t>(integer));
                    if (values) values->push_back(static_cast<double>(integer));
                    break;
                case ElementKind::Float16: {
                    double real = 0.0;
                    if (!readNumber(item, place, real)) return false;
                    const uint16_t half = toHalf(real);
                    if ((half & 0x7FFFu) == 0x7C00u)
                        return fail(place, "value " + item.dump() + " out of range for " + typeName);
                    append(bytes, half);
                    // Compared as stored, like every other element type.
                    if (values) values->push_back(fromHalf(half));
                    break;
                }
                case ElementKind::Int32:
                    if (!readInteger(item, place, INT32_MIN, INT32_MAX, integer, typeName)) return false;
                    append(bytes, static_cast<int32_t>(integer));
                    if (values) values->push_back(static_cast<double>(integer));
                    break;
                case ElementKind::Uint32:
                    if (!readInteger(item, place, 0, UINT32_MAX, integer, typeName)) return false;
                    append(bytes, static_cast<uint32_t>(integer));
                    if (values) values->push_back(static_cast<double>(integer));
                    break;
                case ElementKind::Float32: {
                    double real = 0.0;
                    if (!readNumber(item, place, real)) return false;
                    if (std::fabs(real) > FLT_MAX)
                        return fail(place, "value " + item.dump() + " out of range for " + typeName);
                    append(bytes, static_cast<float>(real));
                    if (values) values->push_back(real);
                    break;
                }
            }
        }
        return true;
    }

    template <typename T>
    static void append(std::vector<uint8_t>& bytes, T value) {
        uint8_t raw[sizeof(T)];
        std::memcpy(raw, &value, sizeof(T));
        bytes.insert(bytes.end(), raw, raw + sizeof(T));
    }

    bool parseOperand(const json& item, const std::string& where, HostGraph& graph) {
        if (!item.is_object()) return fail(where, "expected an object, got " + describe(item));
        const json* typeField = member(item, where, "type", true);
        const json* dimsField = typeField ? member(item, where, "dims", true) : nullptr;
        const json* scaleField = dimsField ? member(item, where, "scale", true) : nullptr;
        const json* zeroField = scaleField ? member(item, where, "zeroPoint", true) : nullptr;
        const json* lifetimeField = zeroField ? member(item, where, "lifetime", true) : nullptr;
        if (lifetimeField == nullptr) return false;

        int64_t type = 0;
        if (!readInteger(*typeField, dot(where, "type"), INT32_MIN, INT32_MAX, type)) return false;
        const OperandTypeInfo* info = findOperandType(static_cast<int32_t>(type));
        if (mStrict && info == nullptr) {
            return fail(dot(where, "type"), "unknown operand type " + std::to_string(type));
        }
        std::vector<uint32_t> dims;
        if (!readIndexList(*dimsField, dot(where, "dims"), dims)) return false;
        uint64_t count = 1;
        for (uint32_t d : dims) {
            count *= d;
            if (count > kMaxElements) return fail(dot(where, "dims"), "tensor too large");
        }
        if (mStrict && info != nullptr && info->scalar && !dims.empty()) {
            return fail(dot(where, "dims"), "a scalar has no dimensions, got " + dimsField->dump());
        }
        double scale = 0.0;
        if (!readNumber(*scaleField, dot(where, "scale"), scale)) return false;
        if (std::fabs(scale) > FLT_MAX)
            return fail(dot(where, "scale"), "value " + scaleField->dump() + " out of range");
        int64_t zeroPoint = 0;
        if (!readInteger(*zeroField, dot(where, "zeroPoint"), INT32_MIN, INT32_MAX, zeroPoint)) return false;
        if (!lifetimeField->is_string()) {
            return fail(dot(where, "lifetime"), "expected a string, got " + describe(*lifetimeField));
        }
        Lifetime lifetime = Lifetime::Internal;
        const std::string lifetimeText = lifetimeField->get<std::string>();
        if (!parseLifetime(lifetimeText, lifetime)) {
            return fail(dot(where, "lifetime"),
                        "unknown lifetime \"" + lifetimeText + "\" (expected input, output, constant or internal)");
        }

        const json* channelField = member(item, where, "channelQuant", false);
        ChannelQuant channel;
        if (channelField != nullptr && !parseChannelQuant(*channelField, dot(where, "channelQuant"), dims, channel)) {
            return false;
        }
        if (mStrict && type == kPerChannelType && channelField == nullptr) {
            return fail(where, "TENSOR_QUANT8_SYMM_PER_CHANNEL operand without \"channelQuant\"");
        }
        if (mStrict && type != kPerChannelType && channelField != nullptr) {
            return fail(dot(where, "channelQuant"), "only TENSOR_QUANT8_SYMM_PER_CHANNEL operands carry it");
        }
        std::vector<uint8_t> bytes;
        const json* data = member(item, where, "data", false);
        if (data != nullptr) {
            const std::string place = dot(where, "data");
            if (!expectArray(*data, place)) return false;
            if (mStrict && lifetime != Lifetime::Constant) return fail(place, "only constant operands carry data");
            if (mStrict && data->size() != count) {
                return fail(place,
                            "expected " + std::to_string(count) + " values, got " + std::to_string(data->size()));
            }
            const int32_t code = static_cast<int32_t>(type);
            if (!encodeValues(*data, place, elementKindOf(code), operandTypeName(code), bytes, nullptr)) return false;
        } else if (mStrict && lifetime == Lifetime::Constant) {
            return fail(where, "constant operand without \"data\"");
        }
        const uint32_t index =
            graph.addOperand(static_cast<OperandType>(type), std::move(dims), static_cast<float>(scale),
                             static_cast<int32_t>(zeroPoint), lifetime, std::move(bytes));
        if (channelField != nullptr) {
            HostOperand& operand = graph.operand(index);
            operand.mHasChannelQuant = true;
            operand.mChannelDim = channel.channelDim;
            operand.mChannelScales = std::move(channel.scales);
        }
        return true;
    }

    // {"channelDim": d, "scales": [...]}: one positive scale per entry of
    // dimension d (strict), any scales otherwise.
    bool parseChannelQuant(const json& value, const std::string& where, const std::vector<uint32_t>& dims,
                           ChannelQuant& out) {
        if (!value.is_object()) return fail(where, "expected an object, got " + describe(value));
        const json* dimField = member(value, where, "channelDim", true);
        const json* scalesField = dimField ? member(value, where, "scales", true) : nullptr;
        if (scalesField == nullptr) return false;
        int64_t channelDim = 0;
        if (!readInteger(*dimField, dot(where, "channelDim"), 0, UINT32_MAX, channelDim)) return false;
        if (mStrict && static_cast<uint64_t>(channelDim) >= dims.size()) {
            return fail(dot(where, "channelDim"), "dimension " + std::to_string(channelDim) + " out of range (rank " +
                                                      std::to_string(dims.size()) + ")");
        }
        const std::string place = dot(where, "scales");
        if (!expectArray(*scalesField, place)) return false;
        if (mStrict && scalesField->size() != dims[channelDim]) {
            return fail(place, "expected " + std::to_string(dims[channelDim]) + " scales (dimension " +
                                   std::to_string(channelDim) + "), got " + std::to_string(scalesField->size()));
        }
        out.channelDim = static_cast<uint32_t>(channelDim);
        for (size_t i = 0; i < scalesField->size(); ++i) {
            double scale = 0.0;
            if (!readNumber((*scalesField)[i], at(place, i), scale)) return false;
            if (!(scale > 0.0) || scale > FLT_MAX) {
                return fail(at(place, i), "a scale must be positive and finite, got " + (*scalesField)[i].dump());
            }
            out.scales.push_back(static_cast<float>(scale));
        }
        return true;
    }

    static constexpr int64_t kPerChannelType = 11;

    bool parseOperation(const json& item, const std::string& where, HostGraph& graph) {
        if (!item.is_object()) return fail(where, "expected an object, got " + describe(item));
        const json* typeField = member(item, where, "type", true);
        if (typeField == nullptr) return false;
        int64_t type = 0;
        if (!readInteger(*typeField, dot(where, "type"), INT32_MIN, INT32_MAX, type)) return false;
        std::vector<uint32_t> inputs;
        std::vector<uint32_t> outputs;
        if (!readOperandList(item, where, "inputs", graph, inputs) ||
            !readOperandList(item, where, "outputs", graph, outputs)) {
            return false;
        }
        graph.addOperation(static_cast<OperationType>(type), std::move(inputs), std::move(outputs));
        return true;
    }

    // inputData / expected: one array per graph input (output) position.
    bool readValueArrays(const json& value, const std::string& where, const char* what,
                         const std::vector<uint32_t>& positions, const HostGraph& graph,
                         std::vector<std::vector<uint8_t>>* bytesOut, std::vector<std::vector<double>>* valuesOut) {
        if (!expectArray(value, where)) return false;
        if (mStrict && value.size() != positions.size()) {
            return fail(where, "expected " + std::to_string(positions.size()) + " arrays (one per " + what + "), got " +
                                   std::to_string(value.size()));
        }
        for (size_t i = 0; i < value.size(); ++i) {
            const std::string place = at(where, i);
            if (!expectArray(value[i], place)) return false;
            // A position without an operand (lenient loading) takes any number.
            int32_t type = static_cast<int32_t>(OperandType::TENSOR_FP32);
            uint64_t count = value[i].size();
            if (i < positions.size() && positions[i] < graph.getOperandCount()) {
                type = static_cast<int32_t>(graph.getOperand(positions[i])->getType());
                count = operandElementCount(graph, positions[i]);
            }
            if (mStrict && value[i].size() != count) {
                return fail(place,
                            "expected " + std::to_string(count) + " values, got " + std::to_string(value[i].size()));
            }
            std::vector<uint8_t> bytes;
            std::vector<double> values;
            if (!encodeValues(value[i], place, elementKindOf(type), operandTypeName(type), bytes, &values))
                return false;
            if (bytesOut) bytesOut->push_back(std::move(bytes));
            if (valuesOut) valuesOut->push_back(std::move(values));
        }
        return true;
    }

    std::string mSource;
    bool mStrict;
    std::string mError;
};

// "[json.exception.parse_error.101] parse error at line 1, ..." -> "parse error at line 1, ..."
std::string withoutExceptionTag(const std::string& what) {
    if (!what.empty() && what[0] == '[') {
        const size_t end = what.find("] ");
        if (end != std::string::npos) return what.substr(end + 2);
    }
    return what;
}

}  // namespace

std::string parseModel(const std::string& text, const std::string& source, LoadedModel& model,
                       const LoadOptions& options) {
    model = LoadedModel();
    model.source = source;
    try {
        json root;
        try {
            root = json::parse(text);
        } catch (const json::parse_error& e) {
            return source + ": malformed JSON: " + withoutExceptionTag(e.what());
        }
        Parser parser(source, options);
        if (!parser.parse(root, model)) {
            LoadedModel empty;
            empty.source = source;
            model = std::move(empty);
            return parser.error();
        }
        return "";
    } catch (const std::exception& e) {
        model.graph.reset();
        return source + ": " + withoutExceptionTag(e.what());
    } catch (...) {
        model.graph.reset();
        return source + ": unexpected failure while loading";
    }
}

std::string readFile(const std::string& path, std::string& text) {
    text.clear();
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return path + ": cannot open file: " + std::strerror(errno);
    struct stat info {};
    if (::fstat(fd, &info) == 0 && S_ISDIR(info.st_mode)) {
        ::close(fd);
        return path + ": cannot open file: " + std::strerror(EISDIR);
    }
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n == 0) break;
        if (n < 0) {
            if (errno == EINTR) continue;
            const int error = errno;
            ::close(fd);
            return path + ": cannot read file: " + std::strerror(error);
        }
        text.append(buffer, static_cast<size_t>(n));
    }
    ::close(fd);
    return "";
}

std::string writeFile(const std::string& path, const void* data, size_t size) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) return path + ": cannot write file: " + std::strerror(errno);
    const char* bytes = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t n = ::write(fd, bytes, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            const int error = n < 0 ? errno : EIO;
            ::close(fd);
            return path + ": cannot write file: " + std::strerror(error);
        }
        bytes += n;
        size -= static_cast<size_t>(n);
    }
    if (::close(fd) != 0) return path + ": cannot write file: " + std::strerror(errno);
    return "";
}

std::string loadModelFile(const std::string& path, LoadedModel& model, const LoadOptions& options) {
    model = LoadedModel();
    model.source = path;
    std::string text;
    try {
        const std::string error = readFile(path, text);
        if (!error.empty()) return error;
    } catch (const std::exception& e) {
        return path + ": cannot read file: " + e.what();
    }
    return parseModel(text, path, model, options);
}

}  // namespace host
}  // namespace nnhal
}  // namespace arv
