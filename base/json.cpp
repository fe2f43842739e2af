// The request tree.  A parsed tree is at most 1000 levels deep, one built by hand may be deeper: nothing here
// recurses.
#include "base/json.h"

#include <algorithm>
#include <bit>

#include "base/text.h"

namespace tolvan {

// Eight bytes a number: an integer's or a real's bits.  A bit a number tells them apart once both occur.
struct JsonNode::Numbers {
  std::vector<std::uint64_t> bits;
  std::vector<bool> integer;  // empty unless mixed
  bool mixed = false;
  bool all_integer = true;  // the kind of all numbers while not mixed

  void append(std::uint64_t value, bool is_integer)
  {
    if (bits.empty()) all_integer = is_integer;
    if (!mixed && is_integer != all_integer) {
      integer.reserve(bits.capacity());
      integer.assign(bits.size(), all_integer);
      mixed = true;
    }
    bits.push_back(value);
    if (mixed) integer.push_back(is_integer);
  }
  bool is_integer(std::size_t k) const { return mixed ? integer[k] : all_integer; }
  double real(std::size_t k) const
  {
    return is_integer(k) ? static_cast<double>(std::bit_cast<std::int64_t>(bits[k]))
                         : std::bit_cast<double>(bits[k]);
  }
};

namespace {

const std::string empty_text;
const JsonNode::Children no_children;

}  // namespace

JsonNode::JsonNode(JsonType type, std::string key) : name(std::move(key)), type_(type)
{
  if (type == JsonType::real) value_ = 0.0;
  if (type == JsonType::string) value_ = std::string();
  if (type == JsonType::object || type == JsonType::array) value_ = Children();
}

JsonNode::JsonNode(const JsonNode& other) : name(other.name), type_(JsonType::null)
{
  // Walk both trees in step; a level of the walk is the pair of nodes and the next child to copy.
  struct Level {
    const JsonNode* from;
    JsonNode* to;
    std::size_t next;
  };
  const auto copy_value = [](const JsonNode& from, JsonNode& to) {
    to.type_ = from.type_;
    if (const auto* i = std::get_if<std::int64_t>(&from.value_)) to.value_ = *i;
    if (const auto* x = std::get_if<double>(&from.value_)) to.value_ = *x;
    if (const auto* s = std::get_if<std::string>(&from.value_)) to.value_ = *s;
    if (const auto* numbers = from.numbers()) to.value_ = std::make_unique<Numbers>(*numbers);
    if (from.value_.index() == 3) {
      Children children;
      children.reserve(from.children().size());
      to.value_ = std::move(children);
    }
  };
  std::vector<Level> levels;
  copy_value(other, *this);
  levels.push_back({&other, this, 0});
  while (!levels.empty()) {
    Level& top = levels.back();
    if (top.next == top.from->children().size()) {
      levels.pop_back();
      continue;
    }
    const JsonNode& from = *top.from->children()[top.next++];
    auto copy = std::make_unique<JsonNode>(JsonType::null, from.name);
    copy_value(from, *copy);
    copy->parent_ = top.to;
    JsonNode* to = copy.get();
    top.to->own()->push_back(std::move(copy));
    if (!from.children().empty()) levels.push_back({&from, to, 0});
  }
}

JsonNode::JsonNode(JsonNode&& other) noexcept
    : name(std::move(other.name)), type_(other.type_), value_(std::move(other.value_))
{
  own_children();
  other.type_ = JsonType::null;
  other.value_ = std::int64_t{0};
}

JsonNode::~JsonNode()
{
  clear_value();
}

// Takes the tree below this node apart from its leaves, going down and up by the parent pointers: no
// recursion and no memory of its own, however deep and wide the tree.
void JsonNode::clear_value()
{
  JsonNode* node = this;
  while (true) {
    Children* children = node->own();
    if (children != nullptr && !children->empty()) {
      JsonNode* last = children->back().get();
      if (last == nullptr || last->children().empty()) {
        children->pop_back();
      } else {
        node = last;
      }
    } else if (node == this) {
      break;
    } else {
      node = node->parent_;
    }
  }
  type_ = JsonType::null;
  value_ = std::int64_t{0};
}

void JsonNode::own_children()
{
  if (Children* children = own()) {
    for (auto& child : *children) child->parent_ = this;
  }
}

JsonNode::Children* JsonNode::own()
{
  return std::get_if<Children>(&value_);
}

JsonNode::Numbers* JsonNode::numbers() const
{
  const auto* numbers = std::get_if<std::unique_ptr<Numbers>>(&value_);
  return numbers != nullptr ? numbers->get() : nullptr;
}

// The children, ready to take another: a packed array is unpacked, a scalar becomes an empty object.
JsonNode::Children& JsonNode::make_children()
{
  if (packed()) unpack();
  if (own() == nullptr) set_object();
  return *own();
}

double JsonNode::number() const
{
  if (type_ == JsonType::real) return std::get<double>(value_);
  return static_cast<double>(integer());
}

const std::string& JsonNode::text() const
{
  const auto* text = std::get_if<std::string>(&value_);
  return text != nullptr ? *text : empty_text;
}

void JsonNode::set_null()
{
  clear_value();
}

void JsonNode::set(bool value)
{
  clear_value();
  type_ = JsonType::logical;
  value_ = std::int64_t{value};
}

void JsonNode::set(std::int64_t value)
{
  clear_value();
  type_ = JsonType::integer;
  value_ = value;
}

void JsonNode::set(double value)
{
  clear_value();
  type_ = JsonType::real;
  value_ = value;
}

void JsonNode::set(std::string value)
{
  clear_value();
  type_ = JsonType::string;
  value_ = std::move(value);
}

void JsonNode::set_object()
{
  clear_value();
  type_ = JsonType::object;
  value_ = Children();
}

void JsonNode::set_array()
{
  clear_value();
  type_ = JsonType::array;
  value_ = Children();
}

const JsonNode::Children& JsonNode::children() const
{
  const auto* children = std::get_if<Children>(&value_);
  return children != nullptr ? *children : no_children;
}

std::int64_t JsonNode::size() const
{
  return packed() ? number_count() : static_cast<std::int64_t>(children().size());
}

JsonNode* JsonNode::find(std::string_view key) const
{
  if (type_ != JsonType::object) return nullptr;
  for (const auto& child : children()) {
    if (child->name == key) return child.get();
  }
  return nullptr;
}

std::int64_t JsonNode::count(std::string_view key) const
{
  if (type_ != JsonType::object) return 0;
  return std::count_if(children().begin(), children().end(),
                       [&](const auto& child) { return child->name == key; });
}

JsonNode& JsonNode::add(std::string key, JsonType type)
{
  return add(std::make_unique<JsonNode>(type, std::move(key)));
}

JsonNode& JsonNode::add(std::unique_ptr<JsonNode> child)
{
  Children& children = make_children();
  children.push_back(std::move(child));
  children.back()->parent_ = this;
  return *children.back();
}

JsonNode& JsonNode::insert(std::int64_t position, std::unique_ptr<JsonNode> child)
{
  Children& children = make_children();
  position = std::clamp<std::int64_t>(position, 0, static_cast<std::int64_t>(children.size()));
  const auto place = children.insert(children.begin() + position, std::move(child));
  (*place)->parent_ = this;
  return **place;
}

std::unique_ptr<JsonNode> JsonNode::detach(JsonNode* child)
{
  const std::int64_t k = index_of(child);
  if (k < 0) return nullptr;
  Children& children = *own();
  std::unique_ptr<JsonNode> taken = std::move(children[static_cast<std::size_t>(k)]);
  children.erase(children.begin() + k);
  taken->parent_ = nullptr;
  return taken;
}

std::unique_ptr<JsonNode> JsonNode::remove(std::string_view key)
{
  return detach(find(key));
}

std::int64_t JsonNode::index_of(const JsonNode* child) const
{
  const auto place = std::find_if(children().begin(), children().end(),
                                  [&](const auto& each) { return each.get() == child; });
  return place != children().end() && child != nullptr ? place - children().begin() : -1;
}

void JsonNode::replace_with(std::unique_ptr<JsonNode> other)
{
  std::swap(type_, other->type_);
  std::swap(value_, other->value_);
  own_children();
  other->own_children();
}

std::int64_t JsonNode::number_count() const
{
  const Numbers* held = numbers();
  return held != nullptr ? static_cast<std::int64_t>(held->bits.size()) : 0;
}

// The element readers also answer for an unpacked array; a number that is absent reads as 0.
bool JsonNode::is_integer(std::int64_t k) const
{
  if (k < 0 || k >= size()) return false;
  const auto at = static_cast<std::size_t>(k);
  return packed() ? numbers()->is_integer(at) : children()[at]->is(JsonType::integer);
}

double JsonNode::number(std::int64_t k) const
{
  if (k < 0 || k >= size()) return 0.0;
  const auto at = static_cast<std::size_t>(k);
  return packed() ? numbers()->real(at) : children()[at]->number();
}

std::int64_t JsonNode::integer(std::int64_t k) const
{
  if (!is_integer(k)) return 0;
  const auto at = static_cast<std::size_t>(k);
  return packed() ? std::bit_cast<std::int64_t>(numbers()->bits[at]) : children()[at]->integer();
}

void JsonNode::append_number(std::int64_t value)
{
  if (!packed()) {
    if (type_ != JsonType::array || !children().empty()) {
      add_value({}, value);
      return;
    }
    value_ = std::make_unique<Numbers>();
  }
  numbers()->append(std::bit_cast<std::uint64_t>(value), true);
}

void JsonNode::append_number(double value)
{
  if (!packed()) {
    if (type_ != JsonType::array || !children().empty()) {
      add_value({}, value);
      return;
    }
    value_ = std::make_unique<Numbers>();
  }
  numbers()->append(std::bit_cast<std::uint64_t>(value), false);
}

JsonNode& JsonNode::element(std::int64_t k)
{
  unpack();
  return *children()[static_cast<std::size_t>(k)];
}

void JsonNode::unpack()
{
  if (!packed()) return;
  Children children;
  children.reserve(static_cast<std::size_t>(number_count()));
  for (std::int64_t k = 0; k < number_count(); ++k) {
    children.push_back(std::make_unique<JsonNode>());
    if (is_integer(k)) {
      children.back()->set(integer(k));
    } else {
      children.back()->set(number(k));
    }
  }
  value_ = std::move(children);
  own_children();
}

void JsonNode::reserve_numbers(std::int64_t n)
{
  if (type_ != JsonType::array || size() != 0) return;
  auto held = std::make_unique<Numbers>();
  held->bits.reserve(static_cast<std::size_t>(n));
  value_ = std::move(held);
}

std::string json_path(const JsonNode& node)
{
  std::vector<const JsonNode*> trail;
  for (const JsonNode* at = &node; at->parent() != nullptr; at = at->parent()) trail.push_back(at);
  std::string path;
  for (auto at = trail.rbegin(); at != trail.rend(); ++at) {
    const JsonNode& parent = *(*at)->parent();
    if (parent.is(JsonType::array)) {
      path += text("[", parent.index_of(*at) + 1, "]");
    } else {
      if (!path.empty()) path += '.';
      path += (*at)->name;
    }
  }
  return path;
}

JsonNode* json_walk(JsonNode& root, std::string_view path)
{
  JsonNode* node = &root;
  if (rtrim(path).empty()) return node;
  for (const std::string& part : split(path, ':')) {
    const std::string_view key = rtrim(part);
    if (node->is(JsonType::array)) {
      std::int64_t k = 0;
      if (!read_integer(key, k) || k < 1 || k > node->size()) return nullptr;
      node = &node->element(k - 1);
      continue;
    }
    const auto& children = node->children();
    const auto place = std::find_if(children.begin(), children.end(),
                                    [&](const auto& child) { return equal_nocase(child->name, key); });
    if (place == children.end()) return nullptr;
    node = place->get();
  }
  return node;
}

}  // namespace tolvan
