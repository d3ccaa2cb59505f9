/*
 * Accelerator runtime interface: records, enumerations and C entry points
 * of libzel_kestrel_runtime.so. Every record field is 32 bits wide except
 * the data pointer of the tensor definition; layouts are fixed by the
 * runtime and checked below for 32-bit Arm and for 64-bit hosts.
 */
#ifndef ZEL_KESTREL_RUNTIME_H
#define ZEL_KESTREL_RUNTIME_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Reference to one output of an earlier node; {0, 0} means "none". */
typedef struct kestrel_zel_nn_input {
    uint32_t src_id;
    uint32_t output_idx;
} kestrel_zel_nn_input;

/* Description of one node output. */
typedef struct kestrel_zel_nn_output {
    uint32_t rank;
    uint32_t max_sizes[8];
    uint32_t elementsize;
    int32_t zero_offset;
    float stepsize;
} kestrel_zel_nn_output;

/* One input or output buffer of an execution. */
typedef struct kestrel_zel_nn_tensordef {
    uint32_t batches;
    uint32_t height;
    uint32_t width;
    uint32_t depth;
    unsigned char* data;
    int32_t dataLen;
    uint32_t data_valid_len;
    uint32_t unused;
} kestrel_zel_nn_tensordef;

/* Per-node performance counters. */
typedef struct kestrel_zel_nn_perfinfo {
    uint32_t node_id;
    uint32_t executions;
    uint32_t counter_lo;
    uint32_t counter_hi;
} kestrel_zel_nn_perfinfo;

/* Node operations. Codes are fixed by the runtime. */
typedef enum zel_op_type_enum {
    ZEL_OP_INPUT = 0,
    ZEL_OP_OUTPUT = 1,
    ZEL_OP_Nop = 2,
    ZEL_OP_QuantizedConv2d_8x8to32 = 15,
    ZEL_OP_QuantizedMatMul_8x8to32 = 17,
    ZEL_OP_QuantizedRelu_8 = 21,
    ZEL_OP_QuantizedReluX_8 = 23,
    ZEL_OP_QuantizedMaxPool_8 = 25,
    ZEL_OP_QuantizedAvgPool_8 = 27,
    ZEL_OP_QuantizedConcat_8 = 31,
    ZEL_OP_Quantize = 39,
    ZEL_OP_Dequantize = 41,
    ZEL_OP_FloatSoftmax = 46,
    ZEL_OP_FloatConv2d = 47,
    ZEL_OP_FloatMatMul = 48,
    ZEL_OP_FloatRelu = 49,
    ZEL_OP_FloatReluX = 50,
    ZEL_OP_FloatAvgPool = 51,
    ZEL_OP_FloatL2Pool = 52,
    ZEL_OP_FloatMaxPool = 53,
    ZEL_OP_FloatConcat = 54,
    ZEL_OP_FloatLocalResponseNorm = 56,
    ZEL_OP_FloatBiasAdd = 58,
    ZEL_OP_FloatReshape = 59,
    ZEL_OP_QuantizedReshape = 60,
    ZEL_OP_FloatTanh = 61,
    ZEL_OP_FloatSigmoid = 62,
    ZEL_OP_FloatAdd = 66,
    ZEL_OP_FloatMul = 67,
    ZEL_OP_Requantize_32to8 = 70,
    ZEL_OP_FloatSub = 75,
    ZEL_OP_QuantizedActivation89 = 89, /* accepted as a fused activation; never emitted */
    ZEL_OP_QuantizedAdd_8p8to32 = 113,
    ZEL_OP_QuantizedSigmoid_8 = 115,
    ZEL_OP_QuantizedSoftmax_8 = 119,
    ZEL_OP_QuantizedSub_8p8to32 = 125,
    ZEL_OP_FloatPad = 131,
    ZEL_OP_FloatSpaceToBatchND = 132,
    ZEL_OP_FloatBatchToSpaceND = 133,
    ZEL_OP_QuantizedPad_8 = 134,
    ZEL_OP_FloatResizeBilinear = 135,
    ZEL_OP_QuantizedResizeBilinear_8 = 141,
    ZEL_OP_QuantizedDepthwiseConv2d_8x8to32 = 156,
    ZEL_OP_FloatDepthwiseConv2d = 158,
    ZEL_OP_QuantizedClamp_8 = 167,
    ZEL_OP_FloatClamp = 169,
    ZEL_OP_QuantizedBiasAdd_32p32to32 = 176,
    ZEL_OP_QuantizedSpaceToBatchND_8 = 208,
    ZEL_OP_QuantizedBatchToSpaceND_8 = 209,
    ZEL_OP_QuantizedSpaceToDepth_8 = 212,
    ZEL_OP_QuantizedSplit_8 = 220,
    ZEL_OP_FloatTranspose = 244,
    ZEL_OP_QuantizedLstm_8 = 274,
    ZEL_OP_QuantizedPRelu_8 = 353,
    ZEL_OP_LAST = 0x7fffffff
} zel_op_type_enum;

/* Padding of window operations. */
typedef enum padding_type_enum {
    ZEL_NN_PAD_NA = 0,
    ZEL_NN_PAD_SAME = 1,
    ZEL_NN_PAD_VALID = 2,
    ZEL_NN_PAD_MIRROR_REFLECT = 3,
    ZEL_NN_PAD_MIRROR_SYMMETRIC = 4,
    ZEL_NN_PAD_SAME_CAFFE = 5
} padding_type_enum;

/* Selector of kestrel_zel_nn_set_config_params. */
typedef enum kestrel_zel_nn_config_enum {
    ZEL_NN_CONFIG_DEFAULT = 0,
    ZEL_NN_CONFIG_LAST = 0x7fffffff
} kestrel_zel_nn_config_enum;

/* Entry points. Every function returns 0 on success. */
int kestrel_zel_nn_config(void);
int kestrel_zel_nn_version(int* version);
int kestrel_zel_nn_init(int* graph_id);
int kestrel_zel_nn_set_config_params(int graph_id, kestrel_zel_nn_config_enum param, void* value);
int kestrel_zel_nn_set_debug_level(int graph_id, int level);
int kestrel_zel_nn_getlog(int graph_id, unsigned char* buf, unsigned int length);
int kestrel_zel_nn_snpprint(int graph_id, unsigned char* buf, unsigned int length);
int kestrel_zel_nn_append_node(int graph_id, unsigned int node_id, zel_op_type_enum operation, int padding,
                               const kestrel_zel_nn_input* inputs, unsigned int num_inputs,
                               const kestrel_zel_nn_output* outputs, unsigned int num_outputs);
int kestrel_zel_nn_append_const_node(int graph_id, unsigned int node_id, unsigned int batches, unsigned int height,
                                     unsigned int width, unsigned int depth, const unsigned char* data,
                                     unsigned int data_len);
int kestrel_zel_nn_prepare(int graph_id);
int kestrel_zel_nn_execute_new(int graph_id, const kestrel_zel_nn_tensordef* inputs, unsigned int num_inputs,
                               kestrel_zel_nn_tensordef* outputs, unsigned int num_outputs);
int kestrel_zel_nn_execute(int graph_id, unsigned int batches_in, unsigned int height_in, unsigned int width_in,
                           unsigned int depth_in, const unsigned char* data_in, unsigned int data_len_in,
                           unsigned int* batches_out, unsigned int* height_out, unsigned int* width_out,
                           unsigned int* depth_out, unsigned char* data_out, unsigned int data_out_max,
                           unsigned int* data_out_size);
int kestrel_zel_nn_teardown(int graph_id);

#ifdef __cplusplus
} /* extern "C" */
#endif

#ifdef __cplusplus
#define ZEL_RT_STATIC_ASSERT static_assert
#else
#define ZEL_RT_STATIC_ASSERT _Static_assert
#endif

ZEL_RT_STATIC_ASSERT(sizeof(kestrel_zel_nn_input) == 8, "input record layout");
ZEL_RT_STATIC_ASSERT(offsetof(kestrel_zel_nn_input, output_idx) == 4, "input record layout");
ZEL_RT_STATIC_ASSERT(sizeof(kestrel_zel_nn_output) == 48, "output record layout");
ZEL_RT_STATIC_ASSERT(offsetof(kestrel_zel_nn_output, max_sizes) == 4, "output record layout");
ZEL_RT_STATIC_ASSERT(offsetof(kestrel_zel_nn_output, elementsize) == 36, "output record layout");
ZEL_RT_STATIC_ASSERT(offsetof(kestrel_zel_nn_output, zero_offset) == 40, "output record layout");
ZEL_RT_STATIC_ASSERT(offsetof(kestrel_zel_nn_output, stepsize) == 44, "output record layout");
ZEL_RT_STATIC_ASSERT(sizeof(kestrel_zel_nn_perfinfo) == 16, "perfinfo record layout");
ZEL_RT_STATIC_ASSERT(offsetof(kestrel_zel_nn_tensordef, data) == 16, "tensordef record layout");
#if UINTPTR_MAX == 0xffffffffu
/* 32-bit targets (the device): every field is one 32-bit word. */
ZEL_RT_STATIC_ASSERT(sizeof(kestrel_zel_nn_tensordef) == 32, "tensordef record layout (32-bit)");
ZEL_RT_STATIC_ASSERT(offsetof(kestrel_zel_nn_tensordef, dataLen) == 20, "tensordef record layout (32-bit)");
ZEL_RT_STATIC_ASSERT(offsetof(kestrel_zel_nn_tensordef, unused) == 28, "tensordef record layout (32-bit)");
#else
/* 64-bit hosts: the pointer is 8 bytes and the record is padded to 8. */
ZEL_RT_STATIC_ASSERT(sizeof(kestrel_zel_nn_tensordef) == 40, "tensordef record layout (64-bit)");
ZEL_RT_STATIC_ASSERT(offsetof(kestrel_zel_nn_tensordef, dataLen) == 24, "tensordef record layout (64-bit)");
ZEL_RT_STATIC_ASSERT(offsetof(kestrel_zel_nn_tensordef, unused) == 32, "tensordef record layout (64-bit)");
#endif

#endif /* ZEL_KESTREL_RUNTIME_H */
