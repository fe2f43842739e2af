// A file for data that find no room in memory: it has no name and is gone when it is closed.
#pragma once

#include <cstdint>
#include <string>

namespace tolvan {

class ScratchFile {
 public:
  ScratchFile() = default;
  ~ScratchFile() { close(); }
  ScratchFile(ScratchFile&& other) noexcept;
  ScratchFile& operator=(ScratchFile&& other) noexcept;
  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;

  /// Makes the file in a folder; false, with error(), if that is not possible.
  bool open(const std::string& folder);
  bool is_open() const { return descriptor_ >= 0; }
  /// Writes or reads bytes at an offset; false, with error(), unless all of them went through.
  bool write(std::int64_t offset, const void* from, std::int64_t bytes);
  bool read(std::int64_t offset, void* to, std::int64_t bytes);
  int unit() const { return descriptor_; }             // the system's number of the file
  int fault() const { return fault_; }                 // the system's number of the last fault
  const std::string& error() const { return error_; }  // and its words
  void close();

 private:
  bool fail(int fault);
  int descriptor_ = -1;
  int fault_ = 0;
  std::string error_;
};

/// The folder for temporary files: the environment's TMPDIR, /tmp where that is not set.
std::string temporary_folder();

}  // namespace tolvan
