// Files of known matrices: the first byte chooses the kind, the rest are the bytes of the file.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "read_case.h"
#include "relmat/damaged_matrix.h"

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
  return tolvan::begin_with_all(tolvan::matrix_cases(), argc, argv);
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t n)
{
  static const std::string path = tolvan::fuzz_path("matrix");
  if (n == 0) return 0;
  const auto cases = tolvan::matrix_cases();
  const std::string wrong =
      tolvan::read_matrix_bytes(cases[bytes[0] % cases.size()], path, {reinterpret_cast<const char*>(bytes) + 1, n - 1});
  if (wrong.empty()) return 0;
  std::fprintf(stderr, "%s\n", wrong.c_str());
  std::abort();
}
