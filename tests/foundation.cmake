# Diagnostics text, runtime binding, controller, voting thread and the
# plug-in front end.
set(ZEL_FOUNDATION_EMPTY_LIBDIR ${PROJECT_BINARY_DIR}/foundation-empty-libdir)
file(MAKE_DIRECTORY ${ZEL_FOUNDATION_EMPTY_LIBDIR})

zel_add_gtest(foundation_text_test
  SOURCES foundation/text_test.cpp
  LIBS zel_core)

zel_add_gtest(foundation_binding_test
  SOURCES foundation/binding_test.cpp
  LIBS zel_core zel_kestrel_runtime)

# One source, two unusable runtimes; the later LD_LIBRARY_PATH entry wins
# over the simulator directory.
zel_add_gtest(foundation_nolib_test
  SOURCES foundation/unusable_runtime_test.cpp
  LIBS zel_core zelhost
  ENV LD_LIBRARY_PATH=${ZEL_FOUNDATION_EMPTY_LIBDIR})
target_compile_definitions(foundation_nolib_test PRIVATE ZEL_MISSING_RUNTIME=1)

zel_add_gtest(foundation_noconfig_test
  SOURCES foundation/unusable_runtime_test.cpp
  LIBS zel_core zelhost
  ENV LD_LIBRARY_PATH=${PROJECT_BINARY_DIR}/sim-noconfig)
target_compile_definitions(foundation_noconfig_test PRIVATE ZEL_MISSING_RUNTIME=0)

zel_add_gtest(foundation_voting_test
  SOURCES foundation/voting_test.cpp
  LIBS zel_core zelhost)

# The one real-time check: production delays on the system clock.
zel_add_gtest(foundation_voting_slow_test
  SOURCES foundation/voting_slow_test.cpp
  LIBS zel_core
  LABELS slow)

if(TARGET zel_kestrel_runtime_noconfig)
  add_dependencies(foundation_noconfig_test zel_kestrel_runtime_noconfig)
endif()
