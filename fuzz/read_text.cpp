// Data files of free-format text.
#include "read_case.h"

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
  return tolvan::begin_with_case("text", argc, argv);
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t n)
{
  return tolvan::read_as_case("text", bytes, n);
}
