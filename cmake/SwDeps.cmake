# bzip2 and PCRE2. On Linux they come from Debian's -dev packages; for Windows they are cross-built from
# Debian's source packages into the build folder by scripts/win-deps.sh, run here at configure time.
add_library(sw_deps INTERFACE)
if(WIN32)
  set(SW_DEPS_DIR ${CMAKE_BINARY_DIR}/deps)
  if(NOT EXISTS ${SW_DEPS_DIR}/lib/libbz2.a OR NOT EXISTS ${SW_DEPS_DIR}/lib/libpcre2-8.a)
    message(STATUS "building bzip2 and PCRE2 for Windows into ${SW_DEPS_DIR}")
    execute_process(COMMAND bash ${CMAKE_SOURCE_DIR}/scripts/win-deps.sh ${SW_DEPS_DIR}
                    RESULT_VARIABLE _rc)
    if(NOT _rc EQUAL 0)
      message(FATAL_ERROR "scripts/win-deps.sh failed (${_rc})")
    endif()
  endif()
  target_include_directories(sw_deps INTERFACE ${SW_DEPS_DIR}/include)
  target_compile_definitions(sw_deps INTERFACE PCRE2_STATIC PCRE2_CODE_UNIT_WIDTH=8)
  target_link_libraries(sw_deps INTERFACE ${SW_DEPS_DIR}/lib/libpcre2-8.a ${SW_DEPS_DIR}/lib/libbz2.a
                        ole32 shell32 user32 advapi32 comctl32 ws2_32)
else()
  find_library(SW_BZ2 bz2 REQUIRED)
  find_library(SW_PCRE2 pcre2-8 REQUIRED)
  find_path(SW_PCRE2_INC pcre2.h REQUIRED)
  target_compile_definitions(sw_deps INTERFACE PCRE2_CODE_UNIT_WIDTH=8)
  target_link_libraries(sw_deps INTERFACE ${SW_PCRE2} ${SW_BZ2} pthread)
endif()
