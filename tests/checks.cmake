# Support checking: the quant8 and float32 checks, the support table and the
# model's support query, over one-operation host graphs.
zel_add_gtest(checks_test
  SOURCES checks/check_graph.cpp checks/check_rules_test.cpp checks/support_query_test.cpp
  LIBS zel_core zelhost
  LABELS checks)
target_include_directories(checks_test PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/checks)
# Located lines are checked against the sources they name.
target_compile_definitions(checks_test PRIVATE ZEL_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
