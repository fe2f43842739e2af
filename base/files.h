// Files.  Failures come back as false with the system's own words in error(); nothing here adds messages.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tolvan {

bool file_exists(const std::string& path);
/// Bytes of a regular file; -1 if there is none.
std::int64_t file_size(const std::string& path);
/// When a file was last written, in nanoseconds of the system's clock; -1 if there is none.
std::int64_t file_time(const std::string& path);
void delete_quietly(const std::string& path);
/// Reads a whole file; false with the reason if it cannot be read.
bool read_file(const std::string& path, std::string& contents, std::string& error);
/// Writes a whole file by way of a neighbour, so that the old one stays until the new one is complete.
bool write_file(const std::string& path, std::string_view contents, std::string& error);

/// Writes a heading and a text on standard output.
void print_block(std::string_view heading, std::string_view body);

namespace detail {
struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
}  // namespace detail
using FileHandle = std::unique_ptr<std::FILE, detail::CloseFile>;

/// Lines or chunks of a file of any size.  Lines that are not UTF-8 are taken as Windows-1252 and come as UTF-8.
class FileReader {
 public:
  /// False, with error(), if the file cannot be opened.
  bool open(const std::string& path);
  /// Lines of more bytes are a fault: without a limit one line may take all memory.
  void limit_lines(std::size_t longest) { longest_line_ = longest; }
  /// Leaves lines that are not UTF-8 as they are.
  void keep_bytes() { keep_bytes_ = true; }
  std::int64_t first_converted() const { return first_converted_; }  // the first line that was not UTF-8; 0: none
  bool line_too_long() const { return line_too_long_; }  // that is the fault
  /// The next line without its end (LF or CR LF); false at the end of the file or after a fault, told by
  /// error(). The view holds until the next call.
  bool next_line(std::string_view& line);
  /// The next bytes, at most some hundred kilobytes.
  bool next_chunk(std::string_view& chunk);
  std::int64_t line_number() const { return line_number_; }  // of the last line read, from 1
  const std::string& error() const { return error_; }        // empty: no fault
  std::int64_t line_of_fault() const { return line_number_ + (line_too_long_ ? 0 : 1); }
  void close();

 private:
  bool fill();
  FileHandle file_;
  std::vector<char> buffer_;
  std::size_t begin_ = 0;  // unread bytes: buffer_[begin_] up to buffer_[end_]
  std::size_t end_ = 0;
  std::int64_t line_number_ = 0;
  std::size_t longest_line_ = static_cast<std::size_t>(-1);
  bool line_too_long_ = false;
  bool keep_bytes_ = false;
  bool high_bytes_ = false;  // met: lines have to be looked at
  std::int64_t first_converted_ = 0;
  std::string converted_;  // holds a line that was converted
  std::string error_;
};

/// A file that appears under its name only when it is complete: written beside it, as "<name>.part1", then renamed.
///
/// The neighbour is locked (flock) as long as it is written.  One that nobody holds was left by a process that was killed: the next
/// writer of the same name takes it over and removes further ones; it also takes over what that process had put aside by show().
class FileWriter {
 public:
  FileWriter() = default;
  ~FileWriter();  // without commit() nothing is left behind
  FileWriter(const FileWriter&) = delete;
  FileWriter& operator=(const FileWriter&) = delete;

  bool open(const std::string& path);
  /// After the first fault writing does nothing: it is enough to look at commit().
  bool write(std::string_view s);
  /// Shows what is written so far under the file's name, for one who follows it.  The earlier file waits beside it until
  /// commit() and comes back without; where files can not have two names the new one stays beside as ever.
  bool show();
  /// Puts the file in its place; false, with error(), if any step since open() failed.
  bool commit();
  const std::string& error() const { return error_; }

 private:
  bool fail();
  void abandon();
  void unlock();
  int lock_ = -1;  // a second descriptor of the file, which keeps it locked until it is in its place
  FileHandle file_;
  std::string path_;
  std::string beside_;  // the neighbour; empty where the path is no regular file and is written in place, and once shown
  std::string earlier_;  // where the earlier file waits; empty: none
  bool shown_ = false;
  std::string error_;
};

}  // namespace tolvan
