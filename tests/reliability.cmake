# Reliability: corpus replay and pseudo-random graphs through the plug-in.
zel_add_gtest(fuzz_replay_test
  SOURCES fuzz/replay_test.cpp fuzz/graph_decoder.cpp
  LIBS zel_core zelhost zel_kestrel_runtime
  LABELS reliability)
target_include_directories(fuzz_replay_test PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/fuzz)
target_compile_definitions(fuzz_replay_test PRIVATE ZEL_FUZZ_CORPUS="${CMAKE_CURRENT_SOURCE_DIR}/fuzz/corpus")
