#include "base/scratch_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace tolvan {

ScratchFile::ScratchFile(ScratchFile&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)), fault_(other.fault_), error_(std::move(other.error_))
{
}

ScratchFile& ScratchFile::operator=(ScratchFile&& other) noexcept
{
  if (this == &other) return *this;
  close();
  descriptor_ = std::exchange(other.descriptor_, -1);
  fault_ = other.fault_;
  error_ = std::move(other.error_);
  return *this;
}

bool ScratchFile::fail(int fault)
{
  fault_ = fault;
  error_ = std::strerror(fault);
  return false;
}

bool ScratchFile::open(const std::string& folder)
{
  close();
  std::string path = folder + "/tlvscratch.XXXXXX";
  descriptor_ = ::mkostemp(path.data(), O_CLOEXEC);
  if (descriptor_ < 0) return fail(errno);
  ::unlink(path.c_str());
  return true;
}

bool ScratchFile::write(std::int64_t offset, const void* from, std::int64_t bytes)
{
  const char* at = static_cast<const char*>(from);
  while (bytes > 0) {
    const ssize_t done = ::pwrite(descriptor_, at, static_cast<std::size_t>(bytes), offset);
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) return fail(done < 0 ? errno : ENOSPC);
    at += done;
    offset += done;
    bytes -= done;
  }
  return true;
}

bool ScratchFile::read(std::int64_t offset, void* to, std::int64_t bytes)
{
  char* at = static_cast<char*>(to);
  while (bytes > 0) {
    const ssize_t done = ::pread(descriptor_, at, static_cast<std::size_t>(bytes), offset);
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) return fail(done < 0 ? errno : EIO);
    at += done;
    offset += done;
    bytes -= done;
  }
  return true;
}

void ScratchFile::close()
{
  if (descriptor_ >= 0) ::close(descriptor_);
  descriptor_ = -1;
}

std::string temporary_folder()
{
  const char* given = std::getenv("TMPDIR");
  return given != nullptr && *given != '\0' ? given : "/tmp";
}

}  // namespace tolvan
