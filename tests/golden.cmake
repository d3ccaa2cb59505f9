# Golden scenarios: every folder under golden/ played through the built
# plug-in on the simulator and compared with its expected files
# (GOLDEN_UPDATE=1 rewrites them).
zel_add_gtest(golden_test
  SOURCES golden/golden_test.cpp
  LIBS zelhost zel_kestrel_runtime ${CMAKE_DL_LIBS}
  LABELS golden)
target_compile_definitions(golden_test PRIVATE
  ZEL_PLUGIN_PATH="$<TARGET_FILE:ravine-acc-zel>"
  ZEL_RUNTIME_PATH="$<TARGET_FILE:zel_kestrel_runtime>"
  ZEL_GOLDEN_DIR="${CMAKE_CURRENT_SOURCE_DIR}/golden"
  # 64-bit directory offsets: a 32-bit readdir fails with EOVERFLOW on
  # large file systems (as under qemu-arm on a 64-bit host).
  _FILE_OFFSET_BITS=64)
add_dependencies(golden_test ravine-acc-zel)
