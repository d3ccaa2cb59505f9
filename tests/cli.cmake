# Command-line cases: every folder under cli/ is one zelrun run, played by
# run_cli.py and compared with its expected.txt. Cross builds skip them, as
# zelrun is launched directly.
if(NOT CMAKE_CROSSCOMPILING)
  find_program(ZEL_PYTHON3 python3 REQUIRED)
  file(GLOB ZEL_CLI_CASES LIST_DIRECTORIES true ${CMAKE_CURRENT_SOURCE_DIR}/cli/*)
  foreach(dir ${ZEL_CLI_CASES})
    if(IS_DIRECTORY ${dir})
      get_filename_component(name ${dir} NAME)
      add_test(NAME cli.${name}
               COMMAND ${ZEL_PYTHON3} ${CMAKE_CURRENT_SOURCE_DIR}/cli/run_cli.py --zelrun $<TARGET_FILE:zelrun>
                       --models ${ZEL_CONFORMANCE_DIR} ${dir})
      set_tests_properties(cli.${name} PROPERTIES ENVIRONMENT "LD_LIBRARY_PATH=${ZEL_SIM_DIR}"
                           LABELS "frontend;cli" TIMEOUT 300)
    endif()
  endforeach()
endif()
