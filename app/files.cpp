#include "app/files.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

namespace tolvan::driver {

Problem read_file(const std::string& path, std::vector<char>& out)
{
  const auto refuse = [&](const char* why) {
    return Problem{Exit::bad_input, "unable to read " + path + ": " + why};
  };
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored)) return refuse("it is a folder");
  std::FILE* const in = path == "-" ? stdin : std::fopen(path.c_str(), "rb");
  if (!in) return refuse(std::strerror(errno));
  const auto close = [](std::FILE* f) {
    if (f != stdin) std::fclose(f);
  };
  const std::unique_ptr<std::FILE, decltype(close)> closing(in, close);
  constexpr std::size_t step = std::size_t{1} << 20;
  std::size_t used = 0;
  for (;;) {
    out.resize(used + step);
    const std::size_t got = std::fread(out.data() + used, 1, step, in);
    used += got;
    if (got < step) break;
  }
  out.resize(used);
  if (std::ferror(in)) return refuse(std::strerror(errno));
  return {};
}

std::string beside(const std::string& document, const std::string& name)
{
  const std::filesystem::path file(name);
  if (file.is_absolute() || document == "-") return name;
  return (std::filesystem::path(document).parent_path() / file).string();
}

}  // namespace tolvan::driver
