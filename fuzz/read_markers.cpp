// Files of markers: the first byte chooses the kind, the rest are the bytes of the file.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "relmat/damaged_markers.h"
#include "read_case.h"

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
  return tolvan::begin_with_all(tolvan::marker_cases(), argc, argv);
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t n)
{
  static const std::string folder = tolvan::fuzz_path("markers");
  if (n == 0) return 0;
  std::filesystem::create_directories(folder);
  const auto cases = tolvan::marker_cases();
  const std::string wrong =
      tolvan::read_marker_bytes(cases[bytes[0] % cases.size()], folder, {reinterpret_cast<const char*>(bytes) + 1, n - 1});
  if (wrong.empty()) return 0;
  std::fprintf(stderr, "%s\n", wrong.c_str());
  std::abort();
}
