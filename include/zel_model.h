// The model: translates one host graph into one runtime graph, prepares it
// and runs it. Holds the operand registry that support checks and lowering
// read and update.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "arv/nnhal/accelerator.h"
#include "zel_accelerator.h"
#include "zel_kestrel_runtime.h"
#include "zel_utils.h"

namespace arv {
namespace nnhal {
namespace zel {

using input = kestrel_zel_nn_input;
using output = kestrel_zel_nn_output;
using perfinfo = kestrel_zel_nn_perfinfo;

// Per-operand record of the model.
struct OperandInfo {
    OperandType type = OperandType::SCALAR_FP32;
    std::vector<uint32_t> dimensions;          // working dims (shape inference writes them)
    std::vector<uint32_t> originalDimensions;  // as the host declared them
    float scale = 0.0f;
    int32_t zeroPoint = 0;
    const uint8_t* data = nullptr;  // host memory, not owned
    uint32_t length = 0;
    uint32_t elementSize = 0;
    bool dequantizeOutput = true;
    input kestrel_input{};  // runtime node output carrying the value; {0,0} = absent
    input quantMin{};       // constant node with the range minimum
    input quantMax{};       // constant node with the range maximum
    kestrel_zel_nn_output output{};  // runtime output description
};

// Bytes per element of an operand type; 0 (and an error line) when unknown.
uint32_t getSize(OperandType type);
// `dims` left-padded with 1s to exactly N entries; empty (and an error line)
// when dims has more than N entries.
std::vector<uint32_t> getAlignedDimensions(const std::vector<uint32_t>& dims, uint32_t N);
// Runtime output record for dims (aligned to four) and an element size.
output make_kestrel_nn_output(const std::vector<uint32_t>& dims, uint32_t elementSize);

// Copy of `info` with the host operand's current dims and data.
OperandInfo getUpdatedOperand(IOperand* operand, const OperandInfo& info);

class ZelModel {
public:
    ZelModel();
    ~ZelModel();
    ZelModel(const ZelModel&) = delete;
    ZelModel& operator=(const ZelModel&) = delete;

    // --- build, prepare, execute -------------------------------------------
    // A filled model for `graph`, or null when the graph cannot be read.
    static ZelModel* create(IGraph* graph);
    bool initModel(IGraph* graph);
    bool prepare(ExecutionPerformance performance);
    bool execute(IGraph* graph);
    std::string getLog();
    std::string getGraph();

    // --- support query -----------------------------------------------------
    int getOperationSupportLevel(IOperation* operation);
    bool supportedParameters(IOperation* operation);

    // --- registry accessors ------------------------------------------------
    void clearModel();
    Shape getShape(uint32_t index);
    bool setShape(uint32_t index, const Shape& shape);
    bool isConstant(uint32_t index);
    const uint8_t* getPointer(uint32_t index);
    // First T of the operand's data; T{} when the operand holds fewer bytes.
    template <typename T>
    T getScalar(uint32_t index) {
        T value{};
        if (index < mOperands.size()) {
            const OperandInfo& operand = mOperands[index];
            if (operand.data != nullptr && operand.length >= sizeof(T)) {
                std::memcpy(&value, operand.data, sizeof(T));
            }
        }
        return value;
    }
    padding_type_enum getPadding(uint32_t index);
    zel_op_type_enum getFloatActivation(uint32_t index);
    zel_op_type_enum getQuantizedActivation(uint32_t index);
    std::vector<uint32_t> getDimensions(const OperandInfo& operand, bool original);
    std::vector<uint32_t> getOriginalDimensions(const OperandInfo& operand);
    uint32_t getNextNode();

    // True when `index` names an operand of the graph.
    bool isValidOperand(uint32_t index) const { return index < mOperands.size(); }
    // True when every index names an operand of the graph; otherwise one
    // error line naming the first bad index.
    bool validOperands(const std::vector<uint32_t>& indices, const char* what);
    // True when every scalar-typed operand in `indices` holds at least four
    // bytes of data; otherwise one error line.
    bool scalarsHaveData(const std::vector<uint32_t>& indices);

    // --- constant nodes ----------------------------------------------------
    input createTensorInternal(uint32_t batches, uint32_t height, uint32_t width, uint32_t depth,
                               const uint8_t* data, uint32_t length);
    input createShape(uint32_t batches, uint32_t height, uint32_t width, uint32_t depth);
    input addOperand(uint32_t index);
    const input& getTensor(uint32_t index);
    const input& getQuantizationMin(uint32_t index);
    const input& getQuantizationMax(uint32_t index);
    input createConvFilterTensor(uint32_t index);
    input createDepthwiseFilterTensor(uint32_t index, uint32_t depthMultiplier);
    input createFullyConnectedWeightTensor(uint32_t index);
    input createQuantizationValue(uint32_t index, int32_t value);

    // --- graph inputs and outputs ------------------------------------------
    bool addInputs();
    bool addOutputs();
    std::vector<output> getZelOutputs(const std::vector<uint32_t>& indices);
    bool registerZelInputs(const std::vector<uint32_t>& indices, uint32_t node);

    // --- node construction -------------------------------------------------
    bool verifyOperationInputs(const std::vector<input>& inputs);
    bool verifyOperationOutputs(const std::vector<output>& outputs);
    uint32_t addOperationInternal(zel_op_type_enum op, int32_t padding, const std::vector<input>& inputs,
                                  const std::vector<output>& outputs);
    bool addBasicOperation(zel_op_type_enum op, int32_t padding, const std::vector<input>& inputs,
                           const std::vector<uint32_t>& outs);
    // base -> bias add (skipped when biasInputs is empty) -> requantize ->
    // activation (skipped for ZEL_OP_Nop).
    bool addFusedQuant8Operation(zel_op_type_enum baseOp, int32_t padding, const std::vector<input>& baseInputs,
                                 zel_op_type_enum activation, const std::vector<input>& biasInputs,
                                 const std::vector<uint32_t>& outs);
    std::vector<input> setupActivationArgs(zel_op_type_enum activation);
    bool addQuant8OperationWithActivation(zel_op_type_enum op, int32_t padding, zel_op_type_enum activation,
                                          const std::vector<input>& inputs, const std::vector<uint32_t>& outs);
    bool addFloatOperationWithActivation(zel_op_type_enum op, int32_t padding, zel_op_type_enum activation,
                                         const std::vector<input>& inputs, const std::vector<uint32_t>& outs);
    bool addFusedFloatOperation(zel_op_type_enum baseOp, int32_t padding, const input& bias,
                                zel_op_type_enum activation, const std::vector<input>& inputs,
                                const std::vector<uint32_t>& outs);
    bool addSplitOperation(const std::vector<input>& inputs, const std::vector<uint32_t>& outs);

    // --- preparation steps -------------------------------------------------
    bool operationPreProcess();
    bool addBatchSeqConfig();
    bool addOperations();

    // --- state access ------------------------------------------------------
    uint32_t graphId() const { return mGraphId; }
    uint32_t lastNodeId() const { return mNodeId; }
    uint64_t votingToken() const { return mVotingToken; }
    const std::shared_ptr<NnLib>& nnLib() const { return mNnLib; }
    std::vector<OperandInfo>& operands() { return mOperands; }
    const std::vector<uint32_t>& graphInputs() const { return mInputs; }
    const std::vector<uint32_t>& graphOutputs() const { return mOutputs; }

private:
    uint32_t mGraphId;
    uint32_t mNodeId;
    bool mPrepared;
    int32_t mModelPrepareErrorCode;
    std::shared_ptr<NnLib> mNnLib;
    std::vector<OperandInfo> mOperands;
    std::vector<IOperation*> mOperations;
    std::vector<uint32_t> mInputs;
    std::vector<uint32_t> mOutputs;
    std::vector<IBuffer*> mBuffers;
    uint64_t mVotingToken;
    uint32_t mBatchSize;
};

// Byte and float transposes of a row-major rows x cols matrix.
std::vector<uint8_t> transpose(uint32_t rows, uint32_t cols, const uint8_t* data);
std::vector<float> transpose(uint32_t rows, uint32_t cols, const float* data);

}  // namespace zel
}  // namespace nnhal
}  // namespace arv

// Equality of runtime records (global, beside the records, so that every
// namespace finds them).
bool operator==(const kestrel_zel_nn_input& a, const kestrel_zel_nn_input& b);
bool operator!=(const kestrel_zel_nn_input& a, const kestrel_zel_nn_input& b);
bool operator==(const kestrel_zel_nn_output& a, const kestrel_zel_nn_output& b);
bool operator!=(const kestrel_zel_nn_output& a, const kestrel_zel_nn_output& b);
