# Reliability: corpus replay and pseudo-random graphs through the plug-in.
zel_add_gtest(fuzz_replay_test
  SOURCES fuzz/replay_test.cpp fuzz/graph_decoder.cpp
  LIBS zel_core zelhost zel_kestrel_runtime
  LABELS reliability)
target_include_directories(fuzz_replay_test PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/fuzz)
# 64-bit directory offsets: 32-bit readdir fails with EOVERFLOW on large
# file systems (as under qemu-arm on a 64-bit host).
target_compile_definitions(fuzz_replay_test PRIVATE ZEL_FUZZ_CORPUS="${CMAKE_CURRENT_SOURCE_DIR}/fuzz/corpus"
                           _FILE_OFFSET_BITS=64)

# Injected runtime faults, concurrency stress and soak,
# all through the accelerator as a host drives it, on the simulator.
add_library(zel_reliability_support STATIC reliability/reliability_support.cpp)
target_link_libraries(zel_reliability_support PUBLIC zel_core zelhost zel_kestrel_runtime zel_test_support gtest)
target_compile_definitions(zel_reliability_support PUBLIC ZEL_EXAMPLES_DIR="${PROJECT_SOURCE_DIR}/examples")

zel_add_gtest(reliability_fault_test
  SOURCES reliability/fault_sweep_test.cpp
  LIBS zel_reliability_support
  LABELS reliability)

zel_add_gtest(reliability_stress_test
  SOURCES reliability/stress_test.cpp
  LIBS zel_reliability_support
  LABELS "reliability;stress")

# Ten thousand cycles: about a minute in a debug build.
zel_add_gtest(reliability_soak_test
  SOURCES reliability/soak_test.cpp
  LIBS zel_reliability_support
  LABELS "reliability;slow")

# Documentation kept in step with the code.
zel_add_gtest(support_matrix_test
  SOURCES docs/support_matrix_test.cpp
  LIBS zel_core
  LABELS docs)
target_compile_definitions(support_matrix_test PRIVATE ZEL_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
