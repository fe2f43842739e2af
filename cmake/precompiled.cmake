# Headers of the standard library compiled once: a third off a first build.  Off where a compiler cache does more, since
# a cache can't tell two builds of a precompiled header apart.
if(CCACHE_PROGRAM)
  set(precompile OFF)
else()
  set(precompile ON)
endif()
option(TOLVAN_PRECOMPILE "compile the common headers once" ${precompile})

# GCC 12 warns of bounds inside its own strings (its bug 105651) once their header no longer counts as one of the system.
if(TOLVAN_PRECOMPILE AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  foreach(warning array-bounds restrict stringop-overflow)
    add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wno-${warning}>)
  endforeach()
endif()

# tolvan_precompile(TARGET FROM): the target takes the headers of FROM, the first target of its kind, which compiles them.
function(tolvan_precompile target from)
  if(NOT TOLVAN_PRECOMPILE)
    return()
  endif()
  if(target STREQUAL from)
    target_precompile_headers(${target} PRIVATE <algorithm> <array> <charconv> <cmath> <cstdint> <cstdio> <cstring>
      <filesystem> <fstream> <functional> <limits> <memory> <optional> <random> <span> <string> <string_view> <vector> ${ARGN})
  else()
    target_precompile_headers(${target} REUSE_FROM ${from})
  endif()
endfunction()
