# Runtime simulator: graph store, entry points, validation, faults.
zel_add_gtest(sim_test
  SOURCES sim/store_test.cpp sim/faults_test.cpp sim/validate_test.cpp
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
