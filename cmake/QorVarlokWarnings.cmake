# Per-target compile settings: warnings, sanitizers. Applied with qorvarlok_target_defaults(<target>).
function(qorvarlok_target_defaults target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wno-missing-field-initializers)
  if(QORVARLOK_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

# Sanitizers must reach every object and every link, so they are set once here.
if(QORVARLOK_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
endif()
if(QORVARLOK_TSAN)
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
endif()
# Shared libraries leave nothing unresolved, except under the fuzzer's clang,
# whose sanitizer runtime lives in the executable alone.
set(QORVARLOK_NO_UNDEFINED -Wl,--no-undefined)
if(QORVARLOK_FUZZ)
  set(QORVARLOK_NO_UNDEFINED "")
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "QORVARLOK_FUZZ needs clang (CC=clang-14 CXX=clang++-14)")
  endif()
  # Coverage for libFuzzer in every object; the fuzz targets link the fuzzer itself.
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
                      -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
endif()
