// Pedigree files: the first byte chooses the keys, the rest are the bytes of the file.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "pedigree/damaged_pedigree.h"
#include "read_case.h"

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
  return tolvan::begin_with_all(tolvan::pedigree_cases(), argc, argv);
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t n)
{
  static const std::string path = tolvan::fuzz_path("pedigree.csv");
  if (n == 0) return 0;
  const auto cases = tolvan::pedigree_cases();
  const std::string wrong =
      tolvan::read_pedigree_bytes(cases[bytes[0] % cases.size()], path, {reinterpret_cast<const char*>(bytes) + 1, n - 1});
  if (wrong.empty()) return 0;
  std::fprintf(stderr, "%s\n", wrong.c_str());
  std::abort();
}
