# Lowering: the lowering table and the quant8/float32 lowering functions,
# run through the model against the runtime simulator.
zel_add_gtest(lowering_test
  SOURCES
    core/node_diagram.cpp
    lowering/lowering_support.cpp
    lowering/canonical_graphs.cpp
    lowering/chain_test.cpp
    lowering/direct_test.cpp
    lowering/failure_test.cpp
  LIBS zel_core zelhost zel_kestrel_runtime
  LABELS lowering)
target_include_directories(lowering_test PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/lowering ${CMAKE_CURRENT_SOURCE_DIR}/core)
