#include "zelhost/model_file.h"

#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <exception>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>

#include "zelhost/names.h"

namespace arv {
namespace nnhal {
namespace host {

using nlohmann::json;

ElementKind elementKindOf(int32_t operandType) {
    switch (operandType) {
        case 0:
        case 3: return ElementKind::Float32;
        case 2: return ElementKind::Uint32;
        case 5:
        case 10000:
        case 10001: return ElementKind::Uint8;
        default: return ElementKind::Int32;
    }
}

uint32_t elementSize(ElementKind kind) {
    return kind == ElementKind::Uint8 ? 1u : 4u;
}

double readElement(ElementKind kind, const uint8_t* bytes, uint32_t index) {
    switch (kind) {
        case ElementKind::Uint8: return bytes[index];
        case ElementKind::Float32: {
            float value;
            std::memcpy(&value, bytes + static_cast<size_t>(index) * 4u, sizeof value);
            return value;
        }
        case ElementKind::Uint32: {
            uint32_t value;
            std::memcpy(&value, bytes + static_cast<size_t>(index) * 4u, sizeof value);
            return value;
        }
        case ElementKind::Int32: break;
    }
    int32_t value;
    std::memcpy(&value, bytes + static_cast<size_t>(index) * 4u, sizeof value);
    return value;
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

bool isKnownOperandType(int64_t code) {
    return (code >= 0 && code <= 5) || code == 10000 || code == 10001;
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
        if (mStrict && !isKnownOperandType(type)) {
            return fail(dot(where, "type"), "unknown operand type " + std::to_string(type));
        }
        std::vector<uint32_t> dims;
        if (!readIndexList(*dimsField, dot(where, "dims"), dims)) return false;
        uint64_t count = 1;
        for (uint32_t d : dims) {
            count *= d;
            if (count > kMaxElements) return fail(dot(where, "dims"), "tensor too large");
        }
        if (mStrict && type >= 0 && type <= 2 && !dims.empty()) {
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
        graph.addOperand(static_cast<OperandType>(type), std::move(dims), static_cast<float>(scale),
                         static_cast<int32_t>(zeroPoint), lifetime, std::move(bytes));
        return true;
    }

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

std::string loadModelFile(const std::string& path, LoadedModel& model, const LoadOptions& options) {
    model = LoadedModel();
    model.source = path;
    std::string text;
    try {
        std::ifstream in(path, std::ios::binary);
        if (!in) return path + ": cannot open file: " + std::strerror(errno);
        std::ostringstream buffer;
        buffer << in.rdbuf();
        if (in.bad()) return path + ": cannot read file";
        text = buffer.str();
    } catch (const std::exception& e) {
        return path + ": cannot read file: " + e.what();
    }
    return parseModel(text, path, model, options);
}

}  // namespace host
}  // namespace nnhal
}  // namespace arv
