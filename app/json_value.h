// JSON as the driver needs it: a request is edited and handed on, an answer is looked into.  Numbers keep the
// text they were written with and objects keep the order and the repetition of their keys, so that what the
// driver does not touch reaches the engine as the user wrote it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tolvan::driver {

enum class JsonKind { null, boolean, number, string, array, object };

struct Json {
  JsonKind kind = JsonKind::null;
  std::string name;         // the key, inside an object
  std::string text;         // a number as written, a string without escapes, "true" or "false"
  std::vector<Json> items;  // of an array or an object

  bool is(JsonKind k) const { return kind == k; }
  const Json* find(std::string_view key) const;  // the first item of that key; null if there is none
  Json* find(std::string_view key);
  const Json* string_at(std::string_view key) const;  // as find, but null unless it is a string
  double number(double fallback = 0.0) const;
  std::int64_t integer(std::int64_t fallback = 0) const;
  bool truth() const { return kind == JsonKind::boolean && text == "true"; }

  Json& set(std::string key, Json value);  // replaces the first item of that key, or appends one
};

Json json_string(std::string text);
Json json_integer(std::int64_t value);
Json json_boolean(bool value);
Json json_array();
Json json_object();

/// The document of a text; nothing if it is no JSON or is nested deeper than 1000 levels.
std::optional<Json> read_json(std::string_view text);
/// The text of a value on one line, without its name.
std::string write_json(const Json& value);
/// The same over several lines: members of objects and arrays of more than scalars stand on lines of their own.
std::string indented_json(const Json& value);
/// A text in quotes, escaped.
std::string quoted(std::string_view text);

}  // namespace tolvan::driver
