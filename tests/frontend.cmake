# Front end seen from a host: the model-file loader, the built plug-in
# loaded with dlopen, zelrun, and the conformance run.
set(ZEL_FRONTEND_DEFINITIONS
  ZEL_PLUGIN_PATH="$<TARGET_FILE:ravine-acc-zel>"
  ZEL_RUNTIME_PATH="$<TARGET_FILE:zel_kestrel_runtime>"
  ZEL_ZELRUN_PATH="$<TARGET_FILE:zelrun>"
  ZEL_EXAMPLES_DIR="${CMAKE_SOURCE_DIR}/examples"
  ZEL_CONFORMANCE_DIR="${ZEL_CONFORMANCE_DIR}"
  ZEL_CROSSCOMPILING=$<BOOL:${CMAKE_CROSSCOMPILING}>)

zel_add_gtest(frontend_model_file_test
  SOURCES frontend/model_file_test.cpp frontend/graph_dump_test.cpp
  LIBS zelhost
  LABELS frontend)
target_compile_definitions(frontend_model_file_test PRIVATE ${ZEL_FRONTEND_DEFINITIONS})

# Links the simulator for its control API, never the plug-in itself.
zel_add_gtest(frontend_plugin_test
  SOURCES frontend/plugin_test.cpp frontend/exports_test.cpp
  LIBS zelhost zel_kestrel_runtime ${CMAKE_DL_LIBS}
  LABELS frontend)
target_compile_definitions(frontend_plugin_test PRIVATE ${ZEL_FRONTEND_DEFINITIONS})
add_dependencies(frontend_plugin_test ravine-acc-zel)

zel_add_gtest(frontend_zelrun_test
  SOURCES frontend/zelrun_test.cpp
  LABELS frontend)
target_compile_definitions(frontend_zelrun_test PRIVATE ${ZEL_FRONTEND_DEFINITIONS})
add_dependencies(frontend_zelrun_test zelrun ravine-acc-zel zel_kestrel_runtime)

add_test(NAME conformance COMMAND zelrun --log off --conformance ${ZEL_CONFORMANCE_DIR})
set_tests_properties(conformance PROPERTIES
  ENVIRONMENT "LD_LIBRARY_PATH=${ZEL_SIM_DIR}" LABELS "frontend;conformance" TIMEOUT 600)
