// The request tree: JSON with keys in order and repeated keys kept, integers and reals apart, numbers packed.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace tolvan {

/// Value types; the numbers are those of the request standard.
enum class JsonType { null = 0, object = 2, array = 3, logical = 4, integer = 5, real = 6, string = 7 };

/// One value with its key.  Children keep their addresses while siblings come and go.
///
/// An array that holds numbers alone is packed: its elements are read through number_count(), is_integer(k),
/// number(k) and integer(k), not through children().  Every reader must therefore ask packed() first;
/// element(k), which unpacks on demand, is the convenient slow road for short arrays.  The number readers
/// also serve an unpacked array.  An empty array is never packed when read.
class JsonNode {
 public:
  using Children = std::vector<std::unique_ptr<JsonNode>>;

  explicit JsonNode(JsonType type = JsonType::null, std::string key = {});
  JsonNode(const JsonNode& other);  // a deep copy without parent
  JsonNode(JsonNode&& other) noexcept;
  JsonNode& operator=(const JsonNode&) = delete;
  JsonNode& operator=(JsonNode&&) = delete;
  ~JsonNode();

  std::string name;  // the key inside an object, empty inside an array

  JsonType type() const { return type_; }
  bool is(JsonType t) const { return type_ == t; }
  bool is_number() const { return type_ == JsonType::integer || type_ == JsonType::real; }
  bool is_text(std::string_view s) const { return type_ == JsonType::string && text() == s; }
  JsonNode* parent() const { return parent_; }

  // Scalars.  A reader of the wrong type gives 0, false or the empty text.
  bool logical() const { return type_ == JsonType::logical && std::get<0>(value_) != 0; }
  std::int64_t integer() const { return type_ == JsonType::integer ? std::get<0>(value_) : 0; }
  double number() const;  // of an integer or a real
  const std::string& text() const;

  void set_null();
  void set(bool value);
  void set(std::int64_t value);
  void set(double value);
  void set(std::string value);
  void set(const char* value) { set(std::string(value)); }
  void set_object();  // empty
  void set_array();   // empty

  // Objects and unpacked arrays.  A child added to a packed array unpacks it, added to a scalar makes an
  // object.
  const Children& children() const;
  std::int64_t size() const;                       // children, or packed numbers
  JsonNode* find(std::string_view key) const;      // first child of that key; null if none
  std::int64_t count(std::string_view key) const;  // children of that key
  JsonNode& add(std::string key, JsonType type);   // appends a child ("" inside an array)
  JsonNode& add(std::unique_ptr<JsonNode> child);  // takes it over
  JsonNode& insert(std::int64_t position, std::unique_ptr<JsonNode> child);  // before the child of that index
  template <class Value>
  JsonNode& add_value(std::string key, Value value)
  {
    JsonNode& node = add(std::move(key), JsonType::null);
    node.set(std::move(value));
    return node;
  }
  std::unique_ptr<JsonNode> detach(JsonNode* child);       // takes a child out; null if it is none
  std::unique_ptr<JsonNode> remove(std::string_view key);  // detaches the first child of that key
  std::int64_t index_of(const JsonNode* child) const;      // -1 if it is none
  void replace_with(std::unique_ptr<JsonNode> other);  // takes over value and children, keeps key and parent
  std::unique_ptr<JsonNode> clone() const { return std::make_unique<JsonNode>(*this); }

  // Packed arrays.
  bool packed() const { return value_.index() == 4; }
  std::int64_t number_count() const;
  bool is_integer(std::int64_t k) const;
  double number(std::int64_t k) const;
  std::int64_t integer(std::int64_t k) const;
  void append_number(std::int64_t value);  // the node must be an array that is empty or packed
  void append_number(double value);
  JsonNode& element(std::int64_t k);  // unpacks the array if need be
  void unpack();
  void reserve_numbers(std::int64_t n);  // of an empty array: room for n numbers, packed

 private:
  friend class JsonBuilder;
  struct Numbers;  // a packed array
  void clear_value();
  void own_children();
  Children& make_children();
  Children* own();
  Numbers* numbers() const;

  JsonType type_;
  JsonNode* parent_ = nullptr;
  // One place for whatever the type holds, since requests come with millions of nodes: logical and integer,
  // real, string, children of an object or array, numbers of a packed array.
  std::variant<std::int64_t, double, std::string, Children, std::unique_ptr<Numbers>> value_;
};

/// What went wrong while reading a text; position counts bytes from 1.
struct JsonError {
  std::string message;  // empty: nothing
  std::int64_t position = 0;
  explicit operator bool() const { return !message.empty(); }
};

/// Reads a whole JSON document.  Null on failure, with the error filled.  Depth is limited to 1000 levels.
std::unique_ptr<JsonNode> parse_json(std::string_view text, JsonError& error);
/// The text of a node's value, without its key; indent 0 writes one line.
std::string json_text(const JsonNode& node, int indent = 0);
/// The dotted path of a node from below the root ("model.random.terms[2]"), for messages.
std::string json_path(const JsonNode& node);
/// Case-free walk by keys separated with ':'; an array element goes by its number from 1.  Null if absent.
JsonNode* json_walk(JsonNode& root, std::string_view path);
/// The shortest text that reads back to the same double, with a point or an exponent; "null" if not finite.
std::string real_text(double x);

}  // namespace tolvan
