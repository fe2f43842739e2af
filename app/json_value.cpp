// Reading and writing JSON (RFC 8259).  Nesting is limited, so the recursion is.
#include "app/json_value.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "app/utf8.h"

namespace tolvan::driver {
namespace {

constexpr int deepest = 1000;

class Reader {
 public:
  explicit Reader(std::string_view text) : at_(text.data()), end_(text.data() + text.size()) {}

  bool document(Json& out)
  {
    if (!value(out, 0)) return false;
    blanks();
    return at_ == end_;
  }

 private:
  void blanks()
  {
    while (at_ != end_ && (*at_ == ' ' || *at_ == '\t' || *at_ == '\n' || *at_ == '\r')) ++at_;
  }

  bool take(char c)
  {
    blanks();
    if (at_ == end_ || *at_ != c) return false;
    ++at_;
    return true;
  }

  bool word(std::string_view w)
  {
    if (std::string_view(at_, static_cast<std::size_t>(end_ - at_)).substr(0, w.size()) != w) return false;
    at_ += w.size();
    return true;
  }

  bool value(Json& out, int depth)
  {
    if (depth > deepest) return false;
    blanks();
    if (at_ == end_) return false;
    switch (*at_) {
      case '{':
        return items(out, JsonKind::object, '}', depth);
      case '[':
        return items(out, JsonKind::array, ']', depth);
      case '"':
        out.kind = JsonKind::string;
        return string(out.text);
      case 't':
        out.kind = JsonKind::boolean;
        out.text = "true";
        return word("true");
      case 'f':
        out.kind = JsonKind::boolean;
        out.text = "false";
        return word("false");
      case 'n':
        return word("null");
      default:
        return number(out);
    }
  }

  bool items(Json& out, JsonKind kind, char closing, int depth)
  {
    out.kind = kind;
    ++at_;
    if (take(closing)) return true;
    do {
      Json& item = out.items.emplace_back();
      if (kind == JsonKind::object) {
        blanks();
        if (at_ == end_ || *at_ != '"' || !string(item.name) || !take(':')) return false;
      }
      if (!value(item, depth + 1)) return false;
    } while (take(','));
    return take(closing);
  }

  bool digits()
  {
    const char* from = at_;
    while (at_ != end_ && *at_ >= '0' && *at_ <= '9') ++at_;
    return at_ != from;
  }

  bool number(Json& out)
  {
    const char* from = at_;
    if (at_ != end_ && *at_ == '-') ++at_;
    const bool zero = at_ != end_ && *at_ == '0';
    const char* whole = at_;
    if (!digits() || (zero && at_ - whole > 1)) return false;
    if (at_ != end_ && *at_ == '.') {
      ++at_;
      if (!digits()) return false;
    }
    if (at_ != end_ && (*at_ == 'e' || *at_ == 'E')) {
      ++at_;
      if (at_ != end_ && (*at_ == '+' || *at_ == '-')) ++at_;
      if (!digits()) return false;
    }
    out.kind = JsonKind::number;
    out.text.assign(from, at_);
    return true;
  }

  bool four_hex(unsigned& code)
  {
    if (end_ - at_ < 4) return false;
    const auto [stop, error] = std::from_chars(at_, at_ + 4, code, 16);
    if (error != std::errc{} || stop != at_ + 4) return false;
    at_ += 4;
    return true;
  }

  bool escape(std::string& out)
  {
    if (at_ == end_) return false;
    const char c = *at_++;
    switch (c) {
      case '"':
      case '\\':
      case '/':
        out += c;
        return true;
      case 'b':
        out += '\b';
        return true;
      case 'f':
        out += '\f';
        return true;
      case 'n':
        out += '\n';
        return true;
      case 'r':
        out += '\r';
        return true;
      case 't':
        out += '\t';
        return true;
      case 'u':
        break;
      default:
        return false;
    }
    unsigned code = 0;
    if (!four_hex(code)) return false;
    if (code >= 0xD800 && code < 0xDC00) {  // the first half of a pair
      unsigned second = 0;
      if (!word("\\u") || !four_hex(second) || second < 0xDC00 || second > 0xDFFF) return false;
      code = 0x10000 + ((code - 0xD800) << 10) + (second - 0xDC00);
    } else if (code >= 0xDC00 && code < 0xE000) {
      return false;
    }
    append_utf8(out, code);
    return true;
  }

  bool string(std::string& out)
  {
    ++at_;
    while (at_ != end_) {
      const char c = *at_++;
      if (c == '"') return true;
      if (static_cast<unsigned char>(c) < 0x20) return false;
      if (c != '\\') {
        out += c;
      } else if (!escape(out)) {
        return false;
      }
    }
    return false;
  }

  const char* at_;
  const char* end_;
};

void write(const Json& value, std::string& out)
{
  switch (value.kind) {
    case JsonKind::null:
      out += "null";
      return;
    case JsonKind::boolean:
    case JsonKind::number:
      out += value.text;
      return;
    case JsonKind::string:
      out += quoted(value.text);
      return;
    case JsonKind::array:
    case JsonKind::object:
      break;
  }
  const bool object = value.is(JsonKind::object);
  out += object ? '{' : '[';
  bool first = true;
  for (const Json& item : value.items) {
    if (!first) out += ',';
    first = false;
    if (object) out += quoted(item.name) + ":";
    write(item, out);
  }
  out += object ? '}' : ']';
}

bool is_flat(const Json& value)
{
  return value.items.empty() || (value.is(JsonKind::array) && std::none_of(value.items.begin(), value.items.end(),
                                                                           [](const Json& item) { return !item.items.empty(); }));
}

/// A value on one line with blanks; nothing where that takes more than some characters.
std::optional<std::string> short_form(const Json& value, std::size_t most)
{
  if (value.items.size() > most) return {};
  const bool object = value.is(JsonKind::object);
  if (!object && !value.is(JsonKind::array)) return write_json(value);
  std::string out(1, object ? '{' : '[');
  for (const Json& item : value.items) {
    const auto inner = short_form(item, most);
    if (!inner) return {};
    out += (out.size() > 1 ? ", " : "") + (object ? quoted(item.name) + ": " : "") + *inner;
    if (out.size() > most) return {};
  }
  return out += object ? '}' : ']';
}

void write_indented(const Json& value, std::size_t indent, std::string& out)
{
  constexpr std::size_t widest = 100;
  const auto line = short_form(value, widest - std::min(indent, widest / 2));
  if (line) out += *line;
  if (line) return;
  if (is_flat(value)) {
    write(value, out);
    return;
  }
  const bool object = value.is(JsonKind::object);
  out += object ? "{\n" : "[\n";
  bool first = true;
  for (const Json& item : value.items) {
    if (!first) out += ",\n";
    first = false;
    out.append(indent + 2, ' ');
    if (object) out += quoted(item.name) + ": ";
    write_indented(item, indent + 2, out);
  }
  out += '\n';
  out.append(indent, ' ');
  out += object ? '}' : ']';
}

}  // namespace

const Json* Json::find(std::string_view key) const
{
  if (kind != JsonKind::object) return nullptr;
  for (const Json& item : items)
    if (item.name == key) return &item;
  return nullptr;
}

Json* Json::find(std::string_view key)
{
  return const_cast<Json*>(std::as_const(*this).find(key));
}

const Json* Json::string_at(std::string_view key) const
{
  const Json* item = find(key);
  return item && item->is(JsonKind::string) ? item : nullptr;
}

double Json::number(double fallback) const
{
  double x = fallback;
  if (kind == JsonKind::number) std::from_chars(text.data(), text.data() + text.size(), x);
  return x;
}

std::int64_t Json::integer(std::int64_t fallback) const
{
  std::int64_t i = fallback;
  if (kind != JsonKind::number) return fallback;
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), i);
  return error == std::errc{} && stop == text.data() + text.size() ? i : fallback;
}

Json& Json::set(std::string key, Json value)
{
  value.name = std::move(key);
  if (Json* old = find(value.name)) return *old = std::move(value);
  return items.emplace_back(std::move(value));
}

namespace {
Json made(JsonKind kind, std::string text = {})
{
  Json value;
  value.kind = kind;
  value.text = std::move(text);
  return value;
}
}  // namespace

Json json_string(std::string text)
{
  return made(JsonKind::string, std::move(text));
}
Json json_integer(std::int64_t value)
{
  return made(JsonKind::number, std::to_string(value));
}
Json json_boolean(bool value)
{
  return made(JsonKind::boolean, value ? "true" : "false");
}
Json json_array()
{
  return made(JsonKind::array);
}
Json json_object()
{
  return made(JsonKind::object);
}

std::optional<Json> read_json(std::string_view text)
{
  std::optional<Json> document{std::in_place};
  if (!Reader(text).document(*document)) document.reset();
  return document;
}

std::string write_json(const Json& value)
{
  std::string out;
  write(value, out);
  return out;
}

std::string indented_json(const Json& value)
{
  std::string out;
  write_indented(value, 0, out);
  return out;
}

std::string quoted(std::string_view text)
{
  constexpr std::string_view hex = "0123456789abcdef";
  std::string out = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      out += "\\u00";
      out += hex[static_cast<unsigned char>(c) >> 4];
      out += hex[static_cast<unsigned char>(c) & 15];
    } else {
      out += c;
    }
  }
  return out += '"';
}

}  // namespace tolvan::driver
