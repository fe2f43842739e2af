// JSON text of a tree.
#include <charconv>
#include <cmath>

#include "base/json.h"
#include "base/text.h"
#include "base/utf8.h"

namespace tolvan {

namespace {

// Labels may come from files in other encodings: what is not UTF-8 becomes the replacement character, so that
// the document stays one.
void write_string(std::string_view s, std::string& out)
{
  constexpr char hex[] = "0123456789abcdef";
  out += '"';
  std::size_t plain = 0;  // start of the run that is copied as it is
  const auto flush = [&](std::size_t end) { out.append(s, plain, end - plain); };
  for (std::size_t k = 0; k < s.size();) {
    const auto c = static_cast<unsigned char>(s[k]);
    if (c >= 0x20 && c < 0x80 && c != '"' && c != '\\') {
      ++k;
      continue;
    }
    if (c >= 0x80) {
      const std::size_t n = utf8_length(s.substr(k));
      if (n > 0) {
        k += n;
        continue;
      }
    }
    flush(k);
    // clang-format off
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\b': out += "\\b"; break;
      case '\f': out += "\\f"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20) {
          out += "\\u00";
          out += hex[c >> 4];
          out += hex[c & 15];
        } else {
          out += "\xEF\xBF\xBD";
        }
    }
    // clang-format on
    plain = ++k;
  }
  flush(s.size());
  out += '"';
}

void write_integer(std::int64_t value, std::string& out)
{
  char buffer[24];
  const auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
  out.append(buffer, end);
}

void write_real(double x, std::string& out)
{
  if (!std::isfinite(x)) {
    out += "null";
    return;
  }
  char buffer[40];
  const auto end = std::to_chars(buffer, buffer + sizeof buffer, x).ptr;
  const std::string_view digits(buffer, static_cast<std::size_t>(end - buffer));
  out += digits;
  if (digits.find_first_of(".e") == digits.npos) out += ".0";
}

void write_numbers(const JsonNode& node, int indent, std::string& out)
{
  out += '[';
  for (std::int64_t k = 0; k < node.number_count(); ++k) {
    if (k > 0) out += indent > 0 ? ", " : ",";
    if (node.is_integer(k)) {
      write_integer(node.integer(k), out);
    } else {
      write_real(node.number(k), out);
    }
  }
  out += ']';
}

}  // namespace

std::string real_text(double x)
{
  std::string out;
  write_real(x, out);
  return out;
}

std::string json_text(const JsonNode& root, int indent)
{
  struct Level {
    const JsonNode* node;
    std::size_t next;
  };
  std::string out;
  std::vector<Level> levels;
  const auto new_line = [&] {
    if (indent <= 0) return;
    out += '\n';
    out.append(levels.size() * static_cast<std::size_t>(indent), ' ');
  };
  // Writes a scalar or an array of numbers whole; of the others the opening bracket only.
  const auto begin = [&](const JsonNode& node) {
    // clang-format off
    switch (node.type()) {
      case JsonType::null: out += "null"; break;
      case JsonType::logical: out += node.logical() ? "true" : "false"; break;
      case JsonType::integer: write_integer(node.integer(), out); break;
      case JsonType::real: write_real(node.number(), out); break;
      case JsonType::string: write_string(node.text(), out); break;
      case JsonType::array:
      case JsonType::object:
        if (node.packed()) {
          write_numbers(node, indent, out);
        } else if (node.children().empty()) {
          out += node.is(JsonType::array) ? "[]" : "{}";
        } else {
          out += node.is(JsonType::array) ? '[' : '{';
          levels.push_back({&node, 0});
        }
    }
    // clang-format on
  };
  begin(root);
  while (!levels.empty()) {
    Level& top = levels.back();
    const auto& children = top.node->children();
    if (top.next == children.size()) {
      const char bracket = top.node->is(JsonType::array) ? ']' : '}';
      levels.pop_back();
      new_line();
      out += bracket;
      continue;
    }
    if (top.next > 0) out += ',';
    new_line();
    const JsonNode& child = *children[top.next++];
    if (top.node->is(JsonType::object)) {
      write_string(child.name, out);
      out += indent > 0 ? ": " : ":";
    }
    begin(child);
  }
  return out;
}

}  // namespace tolvan
