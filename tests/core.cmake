# Model tests: registry, constant nodes, node construction, prepare and
# execute, node by node against the runtime simulator.
zel_add_gtest(core_model_test
  SOURCES
    core/node_diagram.cpp
    core/registry_test.cpp
    core/constants_test.cpp
    core/nodes_test.cpp
    core/prepare_test.cpp
    core/transpose_test.cpp
  LIBS zel_core zelhost zel_kestrel_runtime
  LABELS core)
target_include_directories(core_model_test PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/core)
