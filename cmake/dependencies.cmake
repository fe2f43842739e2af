# What the engine calls and does not write itself; docs/dependencies.md says why each.
find_package(Threads REQUIRED)
find_package(OpenMP REQUIRED)
find_path(RAPIDJSON_INCLUDE rapidjson/reader.h REQUIRED)
find_path(BOOST_MATH_INCLUDE boost/math/distributions/fisher_f.hpp REQUIRED)
# A private copy of the pthread variant of OpenBLAS: the serial variant is not safe under our threads, the shared
# ones share their name with whatever the host has loaded.
find_library(OPENBLAS_ARCHIVE NAMES libopenblas.a
  PATHS /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/openblas-pthread NO_DEFAULT_PATH REQUIRED)
find_library(GFORTRAN_LIBRARY NAMES gfortran
  PATHS /usr/lib/gcc/${CMAKE_LIBRARY_ARCHITECTURE}/12 /usr/lib/gcc/${CMAKE_LIBRARY_ARCHITECTURE}/13
        /usr/lib/gcc/${CMAKE_LIBRARY_ARCHITECTURE}/14 REQUIRED)
add_library(tolvan_blas INTERFACE)
target_link_libraries(tolvan_blas INTERFACE ${OPENBLAS_ARCHIVE} ${GFORTRAN_LIBRARY} OpenMP::OpenMP_CXX Threads::Threads m)
