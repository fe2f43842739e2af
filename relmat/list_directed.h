// Numbers of a line as list-directed reading takes them: between blanks, tabs and commas; r*x repeats, "/"
// ends, D is an exponent.
#pragma once

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <string_view>

namespace tolvan {

enum class ListItem { value, null, end, fault };

/// The numbers of one line, one after the other.
class ListReader {
 public:
  explicit ListReader(std::string_view line) : at_(line.data()), end_(line.data() + line.size()) {}

  /// The next number; null for a place between commas, end behind the last or at a slash, fault for what is
  /// no number.
  ListItem next(double& x)
  {
    if (repeats_ > 0) {
      --repeats_;
      x = repeated_;
      return item_;
    }
    skip_blanks();
    if (at_ == end_ || *at_ == '/') return ListItem::end;
    if (*at_ == ',') {
      ++at_;
      return ListItem::null;
    }
    item_ = read_item(x);
    skip_blanks();
    if (at_ != end_ && *at_ == ',') ++at_;
    return item_;
  }

 private:
  static bool ends_item(char c) { return c == ' ' || c == '\t' || c == ',' || c == '/' || c == '\r'; }
  void skip_blanks()
  {
    while (at_ != end_ && (*at_ == ' ' || *at_ == '\t' || *at_ == '\r')) ++at_;
  }

  ListItem read_item(double& x)
  {
    if (!read_number(x)) return ListItem::fault;
    if (at_ == end_ || *at_ != '*') return at_ == end_ || ends_item(*at_) ? ListItem::value : ListItem::fault;
    constexpr double most = 1e7;
    if (!(x >= 1.0 && x <= most && x == std::trunc(x))) return ListItem::fault;
    repeats_ = static_cast<std::int64_t>(x) - 1;
    ++at_;
    if (at_ == end_ || ends_item(*at_)) return ListItem::null;
    if (!read_number(x) || !(at_ == end_ || ends_item(*at_))) return ListItem::fault;
    repeated_ = x;
    return ListItem::value;
  }

  bool read_number(double& x)
  {
    const char* start = at_;
    if (*start == '+' && start + 1 != end_ && start[1] != '-') ++start;
    auto read = std::from_chars(start, end_, x);
    if (read.ec != std::errc{}) return false;
    const char* stop = read.ptr;
    if (stop != end_ && (*stop == 'd' || *stop == 'D')) {  // rare: by way of a copy with E in its place
      char copy[64];
      const char* last = stop + 1;
      while (last != end_ && !ends_item(*last)) ++last;
      const auto length = static_cast<std::size_t>(last - start);
      if (length >= sizeof copy) return false;
      std::copy(start, last, copy);
      copy[stop - start] = 'e';
      read = std::from_chars(copy, copy + length, x);
      if (read.ec != std::errc{}) return false;
      stop = start + (read.ptr - copy);
    }
    at_ = stop;
    return true;
  }

  const char* at_;
  const char* end_;
  std::int64_t repeats_ = 0;
  double repeated_ = 0.0;
  ListItem item_ = ListItem::value;
};

}  // namespace tolvan
