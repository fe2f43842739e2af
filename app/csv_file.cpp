// Reading comma-separated text (RFC 4180, with the separators that spreadsheets use).
#include "app/csv_file.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>

#include "app/files.h"
#include "app/utf8.h"

namespace tolvan::driver {
namespace {

std::string_view trimmed(std::string_view s)
{
  const auto blank = [](char c) { return c == ' ' || c == '\t'; };
  while (!s.empty() && blank(s.front())) s.remove_prefix(1);
  while (!s.empty() && blank(s.back())) s.remove_suffix(1);
  return s;
}

/// Cuts the text into fields; quoted ones are unescaped in place, which only makes them shorter.
class Cutter {
 public:
  Cutter(char* from, char* to, char separator) : at_(from), end_(to), separator_(separator) {}

  bool done() const { return at_ == end_; }
  std::int64_t line() const { return line_; }

  bool blank_line()  // passes over it
  {
    char* p = at_;
    while (p != end_ && (*p == ' ' || *p == '\r' || (*p == '\t' && separator_ != '\t'))) ++p;
    if (p != end_ && *p != '\n') return false;
    at_ = p;
    end_of_line();
    return true;
  }

  /// The next field of the record; last tells that the record ends with it.  False: a quote is not closed.
  bool field(std::string_view& out, bool& last)
  {
    while (at_ != end_ && *at_ == ' ') ++at_;
    if (at_ != end_ && *at_ == '"') {
      if (!quoted(out)) return false;
      while (at_ != end_ && *at_ != separator_ && *at_ != '\n') ++at_;
    } else {
      char* from = at_;
      while (at_ != end_ && *at_ != separator_ && *at_ != '\n') ++at_;
      char* to = at_;
      if (to != from && to[-1] == '\r' && (at_ == end_ || *at_ == '\n')) --to;
      out = trimmed({from, static_cast<std::size_t>(to - from)});
    }
    last = at_ == end_ || *at_ == '\n';
    if (last) {
      end_of_line();
    } else {
      ++at_;
    }
    return true;
  }

 private:
  void end_of_line()
  {
    if (at_ != end_) ++at_;
    ++line_;
  }

  bool quoted(std::string_view& out)
  {
    char* const from = ++at_;
    char* to = from;
    for (;;) {
      if (at_ == end_) return false;
      if (*at_ == '\n') ++line_;
      if (*at_ == '"') {
        if (at_ + 1 == end_ || at_[1] != '"') break;
        ++at_;
      }
      *to++ = *at_++;
    }
    ++at_;
    out = {from, static_cast<std::size_t>(to - from)};
    return true;
  }

  char* at_;
  char* end_;
  char separator_;
  std::int64_t line_ = 1;
};

char separator_of(const std::vector<char>& text)
{
  const auto end = std::find(text.begin(), text.end(), '\n');
  for (const char c : {',', ';', '\t'})
    if (std::find(text.begin(), end, c) != end) return c;
  return ',';
}

}  // namespace

Problem read_csv(const std::string& path, CsvFile& out)
{
  out.path = path;
  if (Problem p = read_file(path, out.text)) return p;
  const auto at_line = [&](std::int64_t line, const std::string& what) {
    return Problem{Exit::bad_input, path + ", line " + std::to_string(line) + ": " + what};
  };
  if (!is_utf8({out.text.data(), out.text.size()})) {
    const std::string converted = utf8_from_windows({out.text.data(), out.text.size()});
    out.text.assign(converted.begin(), converted.end());
    out.converted = true;
  }
  char* from = out.text.data();
  char* const to = from + out.text.size();
  if (std::string_view(from, out.text.size()).starts_with("\xEF\xBB\xBF")) from += 3;  // the byte order mark
  out.separator = separator_of(out.text);

  Cutter cut(from, to, out.separator);
  const auto next = [&](auto&& take) -> Problem {
    const std::int64_t line = cut.line();
    for (bool last = false; !last;) {
      std::string_view field;
      if (!cut.field(field, last)) return at_line(line, "a quote is not closed");
      take(field);
    }
    return {};
  };
  while (!cut.done() && cut.blank_line()) {
  }
  if (cut.done()) return {Exit::bad_input, path + " is empty; a line of column names was expected"};
  if (Problem p = next([&](std::string_view f) { out.header.emplace_back(f); })) return p;

  const std::size_t width = out.header.size();
  while (!cut.done()) {
    if (cut.blank_line()) continue;
    const std::int64_t line = cut.line();
    if (Problem p = next([&](std::string_view f) { out.fields.push_back(f); })) return p;
    out.lines.push_back(line);
    const std::size_t found = out.fields.size() - (out.lines.size() - 1) * width;
    if (found != width) {
      return at_line(line, std::to_string(found) + " fields found, the header has " + std::to_string(width));
    }
  }
  if (out.lines.empty()) return {Exit::bad_input, path + " holds no record below its header"};
  return {};
}

bool is_missing(std::string_view field)
{
  return field.empty() || field == "NA" || field == "na" || field == "*" || field == ".";
}

std::optional<double> number_of(std::string_view field, char separator)
{
  std::string with_point;
  if (separator == ';' && field.find(',') != std::string_view::npos) {
    with_point = field;
    std::replace(with_point.begin(), with_point.end(), ',', '.');
    field = with_point;
  }
  if (field.size() > 1 && field.front() == '+' && field[1] != '-') field.remove_prefix(1);
  double x = 0.0;
  const auto [stop, error] = std::from_chars(field.data(), field.data() + field.size(), x);
  if (error == std::errc::invalid_argument || stop != field.data() + field.size()) return {};
  if (error == std::errc::result_out_of_range) x = std::strtod(std::string(field).c_str(), nullptr);
  if (!std::isfinite(x)) return {};
  return x;
}

}  // namespace tolvan::driver
