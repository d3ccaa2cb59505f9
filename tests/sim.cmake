# Runtime simulator: graph store, entry points, validation, faults.
zel_add_gtest(sim_test
  SOURCES sim/store_test.cpp sim/faults_test.cpp
  LIBS zel_kestrel_runtime
  LABELS sim)

zel_add_gtest(sim_faults_env_test
  SOURCES sim/faults_env_test.cpp
  LIBS zel_kestrel_runtime
  ENV "ZELSIM_FAULTS=append_node:3:-5, version:1:0x20101,config:2:1,bogus,init:x:1,teardown:1:-2:3"
  LABELS sim)

zel_add_gtest(sim_builds_test
  SOURCES sim/noconfig_test.cpp
  LIBS ${CMAKE_DL_LIBS}
  LABELS sim)
target_compile_definitions(sim_builds_test PRIVATE
  ZELSIM_FULL_PATH="$<TARGET_FILE:zel_kestrel_runtime>"
  ZELSIM_NOCONFIG_PATH="$<TARGET_FILE:zel_kestrel_runtime_noconfig>")
add_dependencies(sim_builds_test zel_kestrel_runtime zel_kestrel_runtime_noconfig)

# Same output bytes for every thread count and accumulation path, checked
# against checksums recorded from the earlier simulator.
zel_add_gtest(sim_same_bytes_test
  SOURCES sim/same_bytes_test.cpp
  LIBS zel_reliability_support
  ENV "ZELSIM_THREADS=3"
  LABELS sim)
target_include_directories(sim_same_bytes_test PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/reliability)
# 64-bit directory offsets: 32-bit readdir fails with EOVERFLOW on large
# file systems (as under qemu-arm).
target_compile_definitions(sim_same_bytes_test PRIVATE ZEL_CONFORMANCE_DIR="${ZEL_CONFORMANCE_DIR}"
                           _FILE_OFFSET_BITS=64)
