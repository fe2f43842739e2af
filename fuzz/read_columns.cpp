// Data files read by a format.
#include "read_case.h"

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
  return tolvan::begin_with_case("columns", argc, argv);
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t n)
{
  return tolvan::read_as_case("columns", bytes, n);
}
