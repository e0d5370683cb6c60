# Helpers shared by the module, test, fuzz and benchmark lists.

# Product code has no exceptions and no RTTI; tests keep both, which GoogleTest likes.
set(SW_PRODUCT_FLAGS -fno-exceptions -fno-rtti)

set(SW_WARN_FLAGS -Wall -Wextra -Wno-unused-parameter -Wno-missing-field-initializers)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  list(APPEND SW_WARN_FLAGS -Wno-format -Wno-stringop-overflow -Wno-array-bounds)
endif()
if(SW_WERROR)
  list(APPEND SW_WARN_FLAGS -Werror)
endif()

if(SW_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

# Fuzzing: every library is instrumented for coverage and the sanitizers; only the targets link libFuzzer.
# No sanitizer recovers: UndefinedBehaviorSanitizer's default prints a report and carries on, and a run
# that only printed would pass.
if(SW_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined -fno-sanitize-recover=all)
endif()

if(WIN32)
  add_compile_definitions(UNICODE _UNICODE WIN32_LEAN_AND_MEAN NOMINMAX _WIN32_WINNT=0x0A00)
  add_link_options(-static -static-libgcc -static-libstdc++)
endif()

function(sw_warnings target)
  target_compile_options(${target} PRIVATE ${SW_WARN_FLAGS})
endfunction()

