# Simulator kernels, linked straight to zelsim_ops.
zel_add_gtest(simops_test
  SOURCES
    simops/accumulate_test.cpp
    simops/kernels_test.cpp
  LIBS zelsim_ops
  LABELS simops)
# The kernel-level tests reach the integer and reference forms directly.
target_include_directories(simops_test PRIVATE ${PROJECT_SOURCE_DIR}/sim/ops)
