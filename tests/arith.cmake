# Shape records, shape inference, the quantization arithmetic and the
# blocked transpose.
zel_add_gtest(zel_arith_tests
  SOURCES
    arith/shape_inference_test.cpp
    arith/layout_shape_test.cpp
    arith/quant_arith_test.cpp
    arith/transpose_test.cpp
  LIBS zel_core
  LABELS arith)

# Rules and lowerings no table routes, called directly on the simulator.
zel_add_gtest(zel_unrouted_test
  SOURCES arith/unrouted_test.cpp
  LIBS zel_core zelhost zel_kestrel_runtime
  LABELS arith)
