// A file that is written from its beginning to its end.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

namespace tolvan::driver {

/// False where the file can not be opened; faults of writing are told by close().
class OutFile {
 public:
  explicit OutFile(const std::string& path) : file_(std::fopen(path.c_str(), "wbe")) {}
  explicit operator bool() const { return file_ != nullptr; }
  void put(std::string_view text) { std::fwrite(text.data(), 1, text.size(), file_.get()); }
  bool close()
  {
    const bool sound = file_ != nullptr && std::ferror(file_.get()) == 0;
    return std::fclose(file_.release()) == 0 && sound;
  }

 private:
  struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };
  std::unique_ptr<std::FILE, Close> file_;
};

}  // namespace tolvan::driver
