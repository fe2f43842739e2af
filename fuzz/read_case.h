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

/// Lets the run begin with some inputs, besides what the folders of the command line hold.
inline int begin_with(const std::vector<std::string>& inputs, int* argc, char*** argv)
{
  // The fuzzer reads its arguments as long as it runs.
  static std::string option;
  static std::vector<char*> arguments;
  option = "-seed_inputs=";
  for (std::size_t k = 0; k < inputs.size(); ++k) {
    const std::string path = fuzz_path("seed" + std::to_string(k));
    std::ofstream(path, std::ios::binary) << inputs[k];
    option += (k > 0 ? "," : "") + path;
  }
  arguments.assign(*argv, *argv + *argc);
  arguments.push_back(option.data());
  arguments.push_back(nullptr);
  std::atexit([] {  // not after a fault: then the files are of use
    std::error_code ignored;
    const auto folder = std::filesystem::temp_directory_path();
    const std::string own = std::filesystem::path(fuzz_path("")).filename().string();
    for (const auto& entry : std::filesystem::directory_iterator(folder, ignored)) {
      if (entry.path().filename().string().starts_with(own)) std::filesystem::remove_all(entry.path(), ignored);
    }
  });
  *argc += 1;
  *argv = arguments.data();
  return 0;
}

/// Lets the run begin with the whole file of a case.
inline int begin_with_case(std::string_view name, int* argc, char*** argv)
{
  return begin_with({read_case(name).whole}, argc, argv);
}

/// Lets the run begin with the whole files of all cases, where the first byte of an input chooses among them.
template <class Cases>
int begin_with_all(const Cases& cases, int* argc, char*** argv)
{
  std::vector<std::string> inputs;
  for (const auto& one : cases) inputs.push_back(static_cast<char>(inputs.size()) + one.whole);
  return begin_with(inputs, argc, argv);
}

}  // namespace tolvan
