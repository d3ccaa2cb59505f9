# Installation and the CMake package: `cmake --install <build> --prefix P`
# puts the plug-in, the runtime simulator, the host log stand-in and the
# reference-host library in P/lib, zelrun in P/bin, the headers in
# P/include, and RavineAccZel{Config,ConfigVersion,Targets}.cmake in
# P/lib/cmake/RavineAccZel. Installed files find each other through RUNPATHs
# relative to their own folder, never through the build tree.
include(CMakePackageConfigHelpers)

set(ZEL_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/RavineAccZel)
file(RELATIVE_PATH ZEL_BIN_TO_LIB "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")

set(ZEL_INSTALL_TARGETS nnhal_headers ravine-acc-zel)
set_target_properties(nnhal_headers PROPERTIES EXPORT_NAME nnhal_headers)
set_target_properties(ravine-acc-zel PROPERTIES EXPORT_NAME plugin INSTALL_RPATH "$ORIGIN")
install(DIRECTORY include/arv/nnhal DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/arv)
install(FILES include/zel_kestrel_runtime.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

if(TARGET zel_hostlog)
  list(APPEND ZEL_INSTALL_TARGETS zel_hostlog)
  set_target_properties(zel_hostlog PROPERTIES EXPORT_NAME hostlog)
  install(FILES host/log/include/android/log.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zelhostlog/android)
endif()
if(TARGET zel_kestrel_runtime)
  list(APPEND ZEL_INSTALL_TARGETS zel_kestrel_runtime)
  set_target_properties(zel_kestrel_runtime PROPERTIES EXPORT_NAME zelsim)
  install(DIRECTORY sim/include/zelsim DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
endif()
if(TARGET zelhost)
  list(APPEND ZEL_INSTALL_TARGETS zelhost zelrun)
  set_target_properties(zelhost PROPERTIES EXPORT_NAME zelhost)
  set_target_properties(zelrun PROPERTIES INSTALL_RPATH "$ORIGIN/${ZEL_BIN_TO_LIB}")
  install(DIRECTORY host/include/zelhost DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
endif()

install(TARGETS ${ZEL_INSTALL_TARGETS} EXPORT RavineAccZelTargets
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(EXPORT RavineAccZelTargets NAMESPACE RavineAccZel:: DESTINATION ${ZEL_PACKAGE_DIR})

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/RavineAccZelConfig.cmake.in
  ${PROJECT_BINARY_DIR}/RavineAccZelConfig.cmake INSTALL_DESTINATION ${ZEL_PACKAGE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/RavineAccZelConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/RavineAccZelConfig.cmake ${PROJECT_BINARY_DIR}/RavineAccZelConfigVersion.cmake
        DESTINATION ${ZEL_PACKAGE_DIR})

# The same names inside a build that adds this project as a subdirectory.
add_library(RavineAccZel::nnhal_headers ALIAS nnhal_headers)
add_library(RavineAccZel::plugin ALIAS ravine-acc-zel)
foreach(pair zel_hostlog:hostlog zel_kestrel_runtime:zelsim zelhost:zelhost zelrun:zelrun)
  string(REPLACE ":" ";" pair "${pair}")
  list(GET pair 0 target)
  list(GET pair 1 name)
  if(TARGET ${target})
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "EXECUTABLE")
      add_executable(RavineAccZel::${name} ALIAS ${target})
    else()
      add_library(RavineAccZel::${name} ALIAS ${target})
    endif()
  endif()
endforeach()
