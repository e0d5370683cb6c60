# GoogleTest from Debian's source package, built for whichever target this is.
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
set(gtest_force_shared_crt ON CACHE BOOL "" FORCE)
add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)

# sw_test(name sources... [LABELS l...]): one test executable, registered as one CTest test. Each Wine
# start costs seconds, so a module's cases share one executable on both targets.
function(sw_test name)
  cmake_parse_arguments(T "" "" "LABELS;LINK" ${ARGN})
  add_executable(${name} ${T_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE ${T_LINK} GTest::gtest GTest::gtest_main)
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests)
  # Where the tree is, for tests that run its scripts: __FILE__ is relative to the build folder, and a
  # test run from anywhere else would not find them.
  target_compile_definitions(${name} PRIVATE SW_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
  sw_warnings(${name})
  # Through a runner that also fails a run of no test; the emulator (Wine) is named here because CTest
  # only puts it in front of a command that is itself a target.
  add_test(NAME ${name} COMMAND bash ${CMAKE_SOURCE_DIR}/cmake/gtest-run.sh ${CMAKE_CROSSCOMPILING_EMULATOR}
                                $<TARGET_FILE:${name}>)
  set(_env "SW_SOURCE_DIR=${CMAKE_SOURCE_DIR}")
  if(SW_SANITIZE)
    list(APPEND _env "LSAN_OPTIONS=suppressions=${CMAKE_SOURCE_DIR}/cmake/lsan.supp:print_suppressions=0")
  endif()
  if(CMAKE_CROSSCOMPILING_EMULATOR)
    # Wine writes a Windows name on the Linux side in the character set of the locale it runs under; a
    # bare machine's C locale has no character outside ASCII, so a test that makes such a name would fail
    # there only. The tests run under one UTF-8 locale on every machine.
    list(APPEND _env "LC_ALL=C.UTF-8")
  endif()
  set_tests_properties(${name} PROPERTIES ENVIRONMENT "${_env}")
  if(T_LABELS)
    set_tests_properties(${name} PROPERTIES LABELS "${T_LABELS}")
  endif()
endfunction()
