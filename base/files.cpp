#include "base/files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "base/text.h"
#include "base/utf8.h"

namespace tolvan {

namespace {

constexpr std::size_t chunk_size = std::size_t{1} << 18;

std::string system_words(int code)
{
  return std::generic_category().message(code);
}

// A path with a NUL inside would name another file.
bool is_path(const std::string& path)
{
  if (!path.empty() && path.find('\0') == path.npos) return true;
  errno = path.empty() ? ENOENT : EINVAL;
  return false;
}

enum class Lock { taken, held, unknown };  // unknown: the file system has no locks

Lock try_lock(int descriptor)
{
  if (::flock(descriptor, LOCK_EX | LOCK_NB) == 0) return Lock::taken;
  return errno == EWOULDBLOCK ? Lock::held : Lock::unknown;
}

bool is_file_at(int descriptor, const std::string& path)
{
  struct stat open {}, there {};
  return ::fstat(descriptor, &open) == 0 && ::lstat(path.c_str(), &there) == 0 && S_ISREG(there.st_mode) &&
         open.st_dev == there.st_dev && open.st_ino == there.st_ino;
}

/// Opens and locks a file that nobody writes any more; -1 where that is not certain.
int take_over(const std::string& path)
{
  const int descriptor = ::open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (descriptor < 0) return -1;
  if (try_lock(descriptor) == Lock::taken && is_file_at(descriptor, path)) return descriptor;
  ::close(descriptor);
  return -1;
}

constexpr int most_neighbours = 1000;

/// A new file beside a path, locked, or one left by a process that is gone; -1, with errno, where that fails.
int open_neighbour(const std::string& path, std::string& beside)
{
  for (int k = 1; k <= most_neighbours; ++k) {
    beside = text(path, ".part", k);
    int descriptor = ::open(beside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (descriptor < 0 && errno != EEXIST) return -1;
    if (descriptor >= 0 && try_lock(descriptor) == Lock::held) {
      ::close(descriptor);  // another writer was quicker to take it for one that was left
      continue;
    }
    if (descriptor < 0) {
      descriptor = take_over(beside);
      if (descriptor < 0) continue;
      if (::ftruncate(descriptor, 0) != 0) {
        ::close(descriptor);
        continue;
      }
    }
    for (int more = k + 1; more <= most_neighbours; ++more) {
      const std::string further = text(path, ".part", more);
      if (file_size(further) < 0) break;
      const int left = take_over(further);
      if (left < 0) continue;
      ::unlink(further.c_str());
      ::close(left);
    }
    return descriptor;
  }
  errno = EEXIST;
  return -1;
}

}  // namespace

bool file_exists(const std::string& path)
{
  struct stat facts {};
  return is_path(path) && ::stat(path.c_str(), &facts) == 0;
}

std::int64_t file_size(const std::string& path)
{
  struct stat facts {};
  if (!is_path(path) || ::stat(path.c_str(), &facts) != 0 || !S_ISREG(facts.st_mode)) return -1;
  return facts.st_size;
}

std::int64_t file_time(const std::string& path)
{
  struct stat facts {};
  if (!is_path(path) || ::stat(path.c_str(), &facts) != 0) return -1;
  constexpr std::int64_t nanoseconds = 1000000000;
  return facts.st_mtim.tv_sec * nanoseconds + facts.st_mtim.tv_nsec;
}

void delete_quietly(const std::string& path)
{
  if (is_path(path)) ::unlink(path.c_str());
}

bool read_file(const std::string& path, std::string& contents, std::string& error)
{
  contents.clear();
  FileReader reader;
  std::string_view chunk;
  if (reader.open(path)) {
    if (const std::int64_t size = file_size(path); size > 0) contents.reserve(static_cast<std::size_t>(size));
    while (reader.next_chunk(chunk)) contents += chunk;
  }
  error = reader.error();
  return error.empty();
}

bool write_file(const std::string& path, std::string_view contents, std::string& error)
{
  FileWriter writer;
  const bool done = writer.open(path) && writer.write(contents) && writer.commit();
  error = writer.error();
  return done;
}

bool FileReader::open(const std::string& path)
{
  close();
  error_.clear();
  line_number_ = 0;
  line_too_long_ = false;
  high_bytes_ = false;
  first_converted_ = 0;
  buffer_.resize(chunk_size);
  if (is_path(path)) file_.reset(std::fopen(path.c_str(), "rbe"));
  if (!file_) {
    error_ = system_words(errno);
    return false;
  }
  std::setvbuf(file_.get(), nullptr, _IONBF, 0);  // the buffer is ours
  return true;
}

void FileReader::close()
{
  file_.reset();
  begin_ = end_ = 0;
}

// Adds to the unread bytes, which move to the front; the buffer doubles when one line fills it.
bool FileReader::fill()
{
  if (!file_) return false;
  if (begin_ > 0) {
    std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  if (end_ == buffer_.size()) buffer_.resize(2 * buffer_.size());
  errno = 0;
  const std::size_t got = std::fread(buffer_.data() + end_, 1, buffer_.size() - end_, file_.get());
  high_bytes_ = high_bytes_ || has_high_bytes({buffer_.data() + end_, got});
  end_ += got;
  if (got == 0 && std::ferror(file_.get()) != 0) error_ = system_words(errno != 0 ? errno : EIO);
  if (got == 0) file_.reset();
  return got > 0;
}

bool FileReader::next_line(std::string_view& line)
{
  std::size_t searched = 0;  // of the unread bytes
  while (true) {
    const char* start = buffer_.data() + begin_;
    const std::size_t unread = end_ - begin_;
    const void* found = unread > searched ? std::memchr(start + searched, '\n', unread - searched) : nullptr;
    if (found != nullptr) {
      const auto length = static_cast<std::size_t>(static_cast<const char*>(found) - start);
      line = {start, length};
      begin_ += length + 1;
      break;
    }
    searched = unread;
    if (unread <= longest_line_ && fill()) continue;
    if (!error_.empty() || unread == 0) return false;
    line = {buffer_.data() + begin_, unread};  // the last line has no end
    begin_ = end_;
    break;
  }
  ++line_number_;
  if (line.size() > longest_line_) {
    line_too_long_ = true;
    error_ = text("a line of more than ", longest_line_, " bytes");
    close();
    return false;
  }
  if (line.ends_with('\r')) line.remove_suffix(1);
  if (high_bytes_ && !keep_bytes_ && !is_utf8(line)) {
    converted_ = utf8_from_windows(line);
    line = converted_;
    if (first_converted_ == 0) first_converted_ = line_number_;
  }
  return true;
}

bool FileReader::next_chunk(std::string_view& chunk)
{
  if (begin_ == end_) {
    begin_ = end_ = 0;
    if (!fill()) return false;
  }
  chunk = {buffer_.data() + begin_, end_ - begin_};
  begin_ = end_;
  return true;
}

FileWriter::~FileWriter()
{
  abandon();
}

void FileWriter::abandon()
{
  file_.reset();
  if (!beside_.empty()) ::unlink(beside_.c_str());
  if (shown_ && earlier_.empty()) ::unlink(path_.c_str());
  if (shown_ && !earlier_.empty()) ::rename(earlier_.c_str(), path_.c_str());
  unlock();
  beside_.clear();
  earlier_.clear();
  shown_ = false;
}

void FileWriter::unlock()
{
  if (lock_ >= 0) ::close(lock_);
  lock_ = -1;
}

bool FileWriter::fail()
{
  const int code = errno != 0 ? errno : EIO;
  abandon();
  if (error_.empty()) error_ = system_words(code);
  return false;
}

bool FileWriter::open(const std::string& path)
{
  abandon();
  error_.clear();
  errno = 0;
  if (!is_path(path)) return fail();
  // A link stays a link: what it points at is replaced.  A device or pipe is written where it is.
  char* resolved = ::realpath(path.c_str(), nullptr);
  path_ = resolved != nullptr ? resolved : path;
  std::free(resolved);
  struct stat facts {};
  const bool in_place = ::stat(path_.c_str(), &facts) == 0 && !S_ISREG(facts.st_mode);
  int descriptor = -1;
  if (in_place) {
    descriptor = ::open(path_.c_str(), O_WRONLY | O_CLOEXEC);
  } else {
    std::string beside;
    descriptor = open_neighbour(path_, beside);
    if (descriptor >= 0) {
      beside_ = std::move(beside);
      lock_ = ::fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
    }
  }
  if (descriptor < 0) return fail();
  file_.reset(::fdopen(descriptor, "wb"));
  if (file_) return true;
  ::close(descriptor);
  return fail();
}

bool FileWriter::write(std::string_view s)
{
  if (!file_) return false;
  errno = 0;
  return std::fwrite(s.data(), 1, s.size(), file_.get()) == s.size() || fail();
}

bool FileWriter::show()
{
  if (!file_) return false;
  errno = 0;
  if (std::fflush(file_.get()) != 0) return fail();
  if (shown_ || beside_.empty()) return true;
  // Where an earlier file was put aside and nobody writes the one in its place, that is an incomplete one of a process that is gone.
  std::string earlier = path_ + ".earlier1";
  const int left = file_size(earlier) >= 0 ? take_over(path_) : -1;
  int linked = left >= 0 ? 0 : -1;
  for (int k = 1; k <= most_neighbours && linked != 0; ++k) {
    earlier = text(path_, ".earlier", k);
    linked = ::link(path_.c_str(), earlier.c_str());
    if (linked != 0 && errno != EEXIST) break;
  }
  if (linked != 0 && errno != ENOENT) return true;
  if (linked != 0) earlier.clear();  // there is none
  const bool renamed = ::rename(beside_.c_str(), path_.c_str()) == 0;
  const int code = errno;
  if (left >= 0) ::close(left);
  if (!renamed) {
    if (!earlier.empty() && left < 0) ::unlink(earlier.c_str());
    errno = code;
    return fail();
  }
  shown_ = true;
  earlier_ = std::move(earlier);
  beside_.clear();
  return true;
}

bool FileWriter::commit()
{
  if (!file_) return false;
  errno = 0;
  if (std::fclose(file_.release()) != 0) return fail();
  if (!beside_.empty() && ::rename(beside_.c_str(), path_.c_str()) != 0) return fail();
  if (!earlier_.empty()) ::unlink(earlier_.c_str());
  unlock();
  beside_.clear();
  earlier_.clear();
  shown_ = false;
  return true;
}

void print_block(std::string_view heading, std::string_view body)
{
  std::string out(heading);
  if (!out.empty()) out += '\n';
  out += body;
  if (!body.ends_with('\n')) out += '\n';
  std::fwrite(out.data(), 1, out.size(), stdout);
  std::fflush(stdout);
}

}  // namespace tolvan
