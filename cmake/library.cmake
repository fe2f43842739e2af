# tolvan_choose_blas_core(TARGET): answers the BLAS's question for its kernels by what the processor can do.
function(tolvan_choose_blas_core target)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
    target_sources(${target} PRIVATE ${CMAKE_SOURCE_DIR}/base/blas_core.cpp)
    target_link_options(${target} PRIVATE LINKER:--wrap=getenv)
  endif()
endfunction()

# The shared library: the subsystems behind exactly fourteen exported symbols.
if(EXISTS ${CMAKE_SOURCE_DIR}/api/exports.cpp)
  add_library(tolvan_api SHARED api/exports.cpp)
  tolvan_choose_blas_core(tolvan_api)
  target_link_libraries(tolvan_api PRIVATE tolvan_api_parts)
  target_include_directories(tolvan_api PUBLIC
    $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  # nodelete: unloading the library would crash in the idle workers of its BLAS.
  target_link_options(tolvan_api PRIVATE LINKER:--exclude-libs,ALL
    LINKER:--version-script=${CMAKE_SOURCE_DIR}/cmake/exports.map LINKER:-z,nodelete)
  if(NOT TOLVAN_SANITIZE)
    target_link_options(tolvan_api PRIVATE LINKER:-z,defs)
  endif()
  set_target_properties(tolvan_api PROPERTIES LINK_DEPENDS ${CMAKE_SOURCE_DIR}/cmake/exports.map)
endif()
