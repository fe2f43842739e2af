# How all code of the project is compiled.  Contraction is off: tests such as "equal to the tolerance is accepted"
# must not turn on the machine's fused multiply-add.
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wno-missing-field-initializers -ffp-contract=off)
add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>)
if(TOLVAN_WERROR)
  add_compile_options(-Werror)
endif()
if(TOLVAN_SANITIZE)
  # Lines for the reports, but no more debug information: it takes half the time of the build.
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer -g1)
  add_link_options(-fsanitize=address,undefined)
endif()
if(TOLVAN_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "TOLVAN_FUZZ needs clang: libFuzzer is part of it")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer
    -fsanitize-ignorelist=${CMAKE_SOURCE_DIR}/fuzz/not_ours.txt -Wno-error)
  add_link_options(-fsanitize=address,undefined)
endif()
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release)
endif()
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")
set(CMAKE_CXX_FLAGS_DEBUG "-O1 -g")
# The tests themselves are little worth optimising where the build takes longer than they do.
function(tolvan_compile_tests target)
  target_compile_options(${target} PRIVATE $<$<CONFIG:Debug>:-O0>)
endfunction()

# A second build of the same sources is quick where there is a compiler cache.
find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE_PROGRAM})
endif()
