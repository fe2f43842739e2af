// What the readers of data files share: a file to be written over, and an end with words where something does
// not hold.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "data/damaged_file.h"

namespace tolvan {

/// A path of this process, the same at each call.
inline std::string fuzz_path(std::string_view name)
{
  return (std::filesystem::temp_directory_path() /
          ("tolvan_fuzz_" + std::to_string(::getpid()) + "_" + std::string(name)))
      .string();
}

/// Reads bytes as the case of a name.
inline int read_as_case(std::string_view name, const unsigned char* bytes, std::size_t n)
{
  const READ_CASE& as = read_case(name);
  const std::string wrong = read_bytes(as, fuzz_path(as.name), {reinterpret_cast<const char*>(bytes), n});
  if (wrong.empty()) return 0;
  std::fprintf(stderr, "%s\n", wrong.c_str());
  std::abort();
}

/// Lets the run begin with the whole file of a case, besides what the folders of the command line hold.
inline int begin_with_case(std::string_view name, int* argc, char*** argv)
{
  const READ_CASE& as = read_case(name);
  const std::string seed = fuzz_path("seed");
  std::ofstream(seed, std::ios::binary) << as.whole;
  // The fuzzer reads its arguments as long as it runs: they are never given back.
  auto* option = new std::string("-seed_inputs=" + seed);
  auto* arguments = new std::vector<char*>(*argv, *argv + *argc);
  arguments->push_back(option->data());
  arguments->push_back(nullptr);
  std::atexit([] {  // not after a fault: then the file is of use
    for (const READ_CASE& one : read_cases()) std::filesystem::remove(fuzz_path(one.name));
    std::filesystem::remove(fuzz_path("seed"));
  });
  *argc += 1;
  *argv = arguments->data();
  return 0;
}

}  // namespace tolvan
