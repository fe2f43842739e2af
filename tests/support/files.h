// Files in tests: read whole, changed in one place, and a device that takes only so many bytes.  Needs nothing of the engine.
#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>

namespace tolvan_test {

/// The bytes of a file; empty where there is none.
inline std::string read_whole(const std::string& path)
{
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

inline void write_whole(const std::string& path, std::string_view contents)
{
  std::ofstream(path, std::ios::binary) << contents;
}

/// A text with the first `from` replaced, which must be there.
inline std::string changed(std::string s, std::string_view from, std::string_view to)
{
  const std::size_t at = s.find(from);
  EXPECT_NE(at, std::string::npos) << from;
  return at == std::string::npos ? s : s.replace(at, from.size(), to);
}

/// As long as it lives, writing a file beyond so many bytes fails as on a full device.
class SmallDevice {
 public:
  explicit SmallDevice(rlim_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN))
  {
    getrlimit(RLIMIT_FSIZE, &had_);
    struct rlimit small = had_;
    small.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &small);
  }
  ~SmallDevice()
  {
    setrlimit(RLIMIT_FSIZE, &had_);
    std::signal(SIGXFSZ, handler_);
  }
  SmallDevice(const SmallDevice&) = delete;
  SmallDevice& operator=(const SmallDevice&) = delete;

 private:
  struct rlimit had_ {};
  void (*handler_)(int);
};

}  // namespace tolvan_test
