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
    input kestrel_input{};           // runtime node output carrying the value; {0,0} = absent
    input quantMin{};                // constant node with the range minimum
    input quantMax{};                // constant node with the range maximum
    kestrel_zel_nn_output output{};  // runtime output description
};

// Runtime output record for dims (aligned to four) and an element size.
output make_kestrel_nn_output(const std::vector<uint32_t>& dims, uint32_t elementSize);

// Copy of `info` with the host operand's current dims (when it reports
// any) and its current data pointer and length.
OperandInfo getUpdatedOperand(IOperand* operand, const OperandInfo& info);
// The same into `updated`, whose vectors keep their storage when they are
// large enough: executions reuse one record.
void getUpdatedOperand(IOperand* operand, const OperandInfo& info, OperandInfo* updated);

class ZelModel {
public:
    ZelModel();
    ~ZelModel();
    ZelModel(const ZelModel&) = delete;
    ZelModel& operator=(const ZelModel&) = delete;

    // --- build, prepare, execute -------------------------------------------
    // A filled model for `graph`, or null when the graph cannot be read.
    // Never throws.
    static ZelModel* create(IGraph* graph);
    // Reads the host graph into the registry. Besides a null graph, an
    // unreadable buffer or operation, it refuses (one error line, false) a
    // null operand and any operation, graph-input or graph-output index
    // outside the operand count. Operands of rank > 4 are accepted here;
    // they are refused where a node is made of them.
    bool initModel(IGraph* graph);
    // Obtains a runtime graph, appends every node and prepares it. The
    // performance preference is not used. Never throws.
    bool prepare(ExecutionPerformance performance);
    // Runs the prepared graph on the host's current buffers. Never throws.
    bool execute(IGraph* graph);
    std::string getLog();
    std::string getGraph();
    // Runtime tensor record of an operand: dims aligned to four, the
    // operand's data and length. All zero (and the alignment's error line)
    // when it has more than 4 dims.
    kestrel_zel_nn_tensordef convertToTensordef(const OperandInfo& info);

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
    // error line naming the first bad index: "<what> <position> refers to
    // operand <index> outside the graph (<n> operands)" (`what` is e.g.
    // "Input" or "Output"; null reads "Operand").
    bool validOperands(const std::vector<uint32_t>& indices, const char* what);
    // True when every scalar-typed operand (types 0, 1, 2) in `indices`
    // holds at least four bytes of data; otherwise one error line "Scalar
    // operand <index> has no data". An index outside the graph is refused
    // as by validOperands.
    bool scalarsHaveData(const std::vector<uint32_t>& indices);

    // --- constant nodes ----------------------------------------------------
    input createTensorInternal(uint32_t batches, uint32_t height, uint32_t width, uint32_t depth, const uint8_t* data,
                               uint32_t length);
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
    // base -> bias add (skipped when biasInputs is empty: the requantize
    // node then reads the base node's three outputs) -> requantize to the
    // output operand's host range -> activation (skipped for ZEL_OP_Nop).
    // biasInputs, when given, is [bias value, bias min, bias max]; exactly
    // one output operand.
    bool addFusedQuant8Operation(zel_op_type_enum baseOp, int32_t padding, const std::vector<input>& baseInputs,
                                 zel_op_type_enum activation, const std::vector<input>& biasInputs,
                                 const std::vector<uint32_t>& outs);
    std::vector<input> setupActivationArgs(zel_op_type_enum activation);
    // One node, then an activation node on its three outputs unless the
    // activation is ZEL_OP_Nop; both carry the output records of `outs`.
    bool addQuant8OperationWithActivation(zel_op_type_enum op, int32_t padding, zel_op_type_enum activation,
                                          const std::vector<input>& inputs, const std::vector<uint32_t>& outs);
    // Float form: the activation node (skipped for ZEL_OP_Nop, as in the
    // quantized form) reads only the value output {base, 0}.
    bool addFloatOperationWithActivation(zel_op_type_enum op, int32_t padding, zel_op_type_enum activation,
                                         const std::vector<input>& inputs, const std::vector<uint32_t>& outs);
    // Exactly one output operand. Base node with one float record (dims of
    // the output, elementsize 4) -> ZEL_OP_FloatBiasAdd [{base,0}, bias]
    // unless bias is {0,0} -> activation [{prev,0}] + its constants unless
    // ZEL_OP_Nop; every node carries the same record.
    bool addFusedFloatOperation(zel_op_type_enum baseOp, int32_t padding, const input& bias,
                                zel_op_type_enum activation, const std::vector<input>& inputs,
                                const std::vector<uint32_t>& outs);
    // One ZEL_OP_QuantizedSplit_8 node whose outputs are the records of
    // `outs` (three slots per quantized operand), registered like
    // registerZelInputs. An output already registered is refused before
    // anything is appended.
    bool addSplitOperation(const std::vector<input>& inputs, const std::vector<uint32_t>& outs);

    // --- preparation steps -------------------------------------------------
    bool operationPreProcess();
    bool addBatchSeqConfig();
    // Lowers every operation through getOperationPrepareTable(); scalar
    // operands must hold data (scalarsHaveData) before a lowering runs.
    bool addOperations();

    // --- state access ------------------------------------------------------
    uint32_t graphId() const { return mGraphId; }
    std::vector<OperandInfo>& operands() { return mOperands; }

private:
    // Node-level tests (through the peer) append to a runtime graph
    // obtained outside prepare, set the batch size and read the state.
    friend class ZelModelTestPeer;

    // True when `index` names an operand; otherwise one error line.
    bool checkOperand(uint32_t index);
    // Constant node 1x1x1x1 holding one float.
    input createFloatConstant(float value);
    // Element size used for an operand's output records: its own
    // elementSize for custom-byte operands, getSize(type) otherwise.
    uint32_t outputElementSize(const OperandInfo& operand);
    // Filter or weight bytes transposed as rows x cols elements (floats for
    // TENSOR_FP32, bytes otherwise) into the model's transpose buffer,
    // valid until the next call; false (one error line) when the operand's
    // data does not hold exactly that many elements.
    bool transposedData(uint32_t index, uint64_t rows, uint64_t cols, const uint8_t** out);
    // Allocates the transpose buffer once for a preparation, as large as
    // the largest filter or weight the lowering will transpose.
    void reserveTransposeBuffer();
    // The custom-byte and leading-zero rules of getDimensions applied to
    // `count` dims in place.
    void adjustDimensions(const OperandInfo& operand, uint32_t* dims, size_t count) const;

    uint32_t mGraphId;
    uint32_t mNodeId;
    bool mPrepared;  // read by prepare; nothing sets it, so every prepare builds a new graph
    int32_t mModelPrepareErrorCode;
    std::shared_ptr<NnLib> mNnLib;
    std::vector<OperandInfo> mOperands;
    std::vector<IOperation*> mOperations;
    std::vector<uint32_t> mInputs;
    std::vector<uint32_t> mOutputs;
    std::vector<IBuffer*> mBuffers;
    uint64_t mVotingToken;
    uint32_t mBatchSize;
    // Kept from one execution to the next (see execute).
    OperandInfo mExecutionOperand;
    std::vector<kestrel_zel_nn_tensordef> mExecutionInputs;
    std::vector<kestrel_zel_nn_tensordef> mExecutionOutputs;
    // Transposed filters and weights on their way to the runtime; freed
    // when preparation ends.
    struct TransposeBufferDelete {
        bool huge;  // allocated aligned to a huge page
        void operator()(uint8_t* buffer) const;
    };
    std::unique_ptr<uint8_t[], TransposeBufferDelete> mTransposeBuffer;
    size_t mTransposeBufferSize = 0;
    // Replaces the transpose buffer by one of `bytes` (none for 0).
    void resizeTransposeBuffer(size_t bytes);
};

// Byte and float transposes of a row-major rows x cols matrix.
std::vector<uint8_t> transpose(uint32_t rows, uint32_t cols, const uint8_t* data);
// The byte transpose into `out`, which holds rows x cols bytes.
void transposeInto(uint32_t rows, uint32_t cols, const uint8_t* data, uint8_t* out);
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
