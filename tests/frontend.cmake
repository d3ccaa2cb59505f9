# Front end seen from a host: the model-file loader, the built plug-in
# loaded with dlopen, zelrun, and the conformance run.
set(ZEL_FRONTEND_DEFINITIONS
  ZEL_PLUGIN_PATH="$<TARGET_FILE:ravine-acc-zel>"
  ZEL_RUNTIME_PATH="$<TARGET_FILE:zel_kestrel_runtime>"
  ZEL_EXAMPLES_DIR="${PROJECT_SOURCE_DIR}/examples"
  ZEL_FRONTEND_DATA_DIR="${CMAKE_CURRENT_SOURCE_DIR}/frontend"
  ZEL_CONFORMANCE_DIR="${ZEL_CONFORMANCE_DIR}"
  ZEL_CROSSCOMPILING=$<BOOL:${CMAKE_CROSSCOMPILING}>)

zel_add_gtest(frontend_model_file_test
  SOURCES frontend/model_file_test.cpp frontend/graph_dump_test.cpp
  LIBS zelhost
  LABELS frontend)
target_compile_definitions(frontend_model_file_test PRIVATE ${ZEL_FRONTEND_DEFINITIONS})

# Links the simulator for its control API, never the plug-in itself.
zel_add_gtest(frontend_plugin_test
  SOURCES frontend/plugin_test.cpp
  LIBS zelhost zel_kestrel_runtime ${CMAKE_DL_LIBS}
  LABELS frontend)
target_compile_definitions(frontend_plugin_test PRIVATE ${ZEL_FRONTEND_DEFINITIONS})
add_dependencies(frontend_plugin_test ravine-acc-zel)

add_test(NAME conformance COMMAND zelrun --log off --conformance ${ZEL_CONFORMANCE_DIR})
set_tests_properties(conformance PROPERTIES
  ENVIRONMENT "LD_LIBRARY_PATH=${ZEL_SIM_DIR}" LABELS "frontend;conformance" TIMEOUT 600)

# Graphs with the operand types past 5 (layout flags, half floats, signed and
# per-channel quantization, booleans, 16-bit boxes): each loads, reaches the
# plug-in and comes back declined, never ERROR.
add_test(NAME conformance_extended
  COMMAND zelrun --log off --conformance ${PROJECT_SOURCE_DIR}/tests/conformance/extended)
set_tests_properties(conformance_extended PROPERTIES
  ENVIRONMENT "LD_LIBRARY_PATH=${ZEL_SIM_DIR}" LABELS "frontend;conformance"
  PASS_REGULAR_EXPRESSION "\nFAIL: 0\nERROR: 0\n[0-9]+ passed, 0 failed\n")

# What the built libraries show a loader: exports, RTTI, and in hardened
# (Release) builds full RELRO. readelf reads the cross builds' files too.
find_program(ZEL_PYTHON3 python3 REQUIRED)
if(CMAKE_READELF)
  set(ZEL_READELF ${CMAKE_READELF})
else()
  find_program(ZEL_READELF readelf REQUIRED)
endif()
set(ZEL_ELF_HARDENED "")
if(CMAKE_BUILD_TYPE STREQUAL "Release")
  set(ZEL_ELF_HARDENED --hardened)
endif()
add_test(NAME elf_exports_and_hardening
         COMMAND ${ZEL_PYTHON3} ${CMAKE_CURRENT_SOURCE_DIR}/elf/check_elf.py --readelf ${ZEL_READELF}
                 --plugin $<TARGET_FILE:ravine-acc-zel> --simulator $<TARGET_FILE:zel_kestrel_runtime>
                 --zelrun $<TARGET_FILE:zelrun> "--emulator=$<JOIN:${CMAKE_CROSSCOMPILING_EMULATOR}, >"
                 ${ZEL_ELF_HARDENED})
set_tests_properties(elf_exports_and_hardening PROPERTIES LABELS frontend TIMEOUT 60)
