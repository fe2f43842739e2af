#include "data/format_list.h"

#include <string>

#include "base/text.h"

namespace tolvan {

namespace {

constexpr int deepest_list = 20;
constexpr std::size_t largest_number = 99999999;
constexpr std::size_t last_byte = std::size_t{1} << 30;  // positions in a line stay below
constexpr std::size_t most_steps = 10000000;             // without a field: no format of sense takes as many

struct Item {
  char edit = 'A';  // I F E G A: a field; X: skip; T: go to; /: next line; (: a list
  std::size_t repeat = 1;
  std::size_t width = 0;
  int decimals = 0;
  std::vector<Item> list{};
};

bool is_field(char edit)
{
  return edit == 'I' || edit == 'F' || edit == 'E' || edit == 'G' || edit == 'A';
}

/// A parser by recursive descent; fault tells the first thing that is wrong.
struct Parser {
  std::string text;  // upper case, no blanks
  std::size_t at = 0;
  std::string fault{};

  char next() const { return at < text.size() ? text[at] : '\0'; }
  bool fail(std::string_view what)
  {
    if (fault.empty()) fault = tolvan::text(what, " at \"", std::string_view(text).substr(at, 20), "\"");
    return false;
  }
  bool number(std::size_t& n)
  {
    if (next() < '0' || next() > '9') return false;
    for (n = 0; next() >= '0' && next() <= '9'; ++at) {
      n = 10 * n + static_cast<std::size_t>(next() - '0');
      if (n > largest_number) return fail("too large a number");
    }
    return true;
  }
  bool item(Item& out, int depth);
  /// Items up to a closing bracket or the end of the text.
  bool items(std::vector<Item>& list, int depth);
};

bool Parser::item(Item& out, int depth)
{
  std::size_t count = 0;
  const bool counted = number(count);
  if (!fault.empty()) return false;
  if (counted && count == 0) return fail("a count of 0");
  out.edit = next();
  switch (out.edit) {
    case '(':
      ++at;
      out.repeat = counted ? count : 1;
      if (depth >= deepest_list) return fail("too many brackets");
      if (!items(out.list, depth + 1)) return false;
      if (next() != ')') return fail("a bracket that is not closed");
      ++at;
      return true;
    case 'X':
      ++at;
      out.width = counted ? count : 1;
      return true;
    case '/':
      ++at;
      return !counted || fail("a count before /");
    case 'T':
      ++at;
      if (counted) return fail("a count before T");
      return (number(out.width) && out.width > 0) || fail("no position");
    default:
      break;
  }
  if (!is_field(out.edit)) return fail(out.edit == '\0' ? "the end" : "an unknown edit");
  ++at;
  out.repeat = counted ? count : 1;
  if (!number(out.width) || out.width == 0) return fail("no width");
  if (next() != '.') return true;
  ++at;
  std::size_t decimals = 0;
  if (out.edit == 'I' || out.edit == 'A' || !number(decimals) || decimals > 300)
    return fail("wrong decimals");
  out.decimals = static_cast<int>(decimals);
  return true;
}

bool Parser::items(std::vector<Item>& list, int depth)
{
  while (true) {
    if (!item(list.emplace_back(), depth)) return false;
    if (next() == ',') {
      ++at;
      continue;
    }
    // A slash needs no comma on either side.
    if (next() == '/' || (list.back().edit == '/' && next() != '\0' && next() != ')')) continue;
    return next() == '\0' || next() == ')' || fail("no comma");
  }
}

/// Walks over the items and writes the places of the fields down.
struct Walk {
  FORMAT_LIST& out;
  std::size_t wanted;
  std::size_t line = 0;
  std::size_t position = 0;
  std::size_t steps = 0;
  bool full = false;  // a field was met that nobody reads

  bool over() const { return full || steps > most_steps || position > last_byte; }
  void item(const Item& item)
  {
    for (std::size_t k = 0; k < item.repeat && !over(); ++k) {
      ++steps;
      if (item.edit == '(') {
        items(item.list, 0);
      } else if (item.edit == 'X') {
        position += item.width;
      } else if (item.edit == 'T') {
        position = item.width - 1;
      } else if (item.edit == '/') {
        ++line;
        position = 0;
      } else if (out.fields.size() == wanted) {
        full = true;
      } else {
        out.fields.push_back({line, position, item.width, item.edit, item.decimals});
        position += item.width;
        steps = 0;
      }
    }
  }
  void items(const std::vector<Item>& list, std::size_t from)
  {
    for (std::size_t k = from; k < list.size() && !over(); ++k) item(list[k]);
  }
};

/// Where reading goes on once the list is used up: at its last list in brackets, else at its start.
std::size_t reversion(const std::vector<Item>& list)
{
  for (std::size_t k = list.size(); k-- > 0;) {
    if (list[k].edit == '(') return k;
  }
  return 0;
}

/// The whole text in one pair of brackets, or without any, as one list.
bool parse(Parser& parser, std::vector<Item>& list)
{
  if (!parser.items(list, 0)) return false;
  if (parser.at < parser.text.size()) return parser.fail("a bracket too many");
  if (list.size() == 1 && list[0].edit == '(' && list[0].repeat == 1) {
    std::vector<Item> inner = std::move(list[0].list);
    list = std::move(inner);
  }
  return true;
}

}  // namespace

void AIDFMT(ERROR_HANDLER& eh, std::string_view format, std::size_t wanted, FORMAT_LIST& list)
{
  const Frame here{eh, __func__};
  Parser parser{upper(format)};
  std::erase_if(parser.text, [](char c) { return c == ' ' || c == '\t'; });
  std::vector<Item> items;
  list = {};
  if (!parse(parser, items)) {
    eh.error(text("error parsing the format: ", format));
    eh.continuation(parser.fault);
    return;
  }
  Walk walk{list, wanted};
  walk.items(items, 0);
  while (list.fields.size() < wanted && !walk.over()) {
    const std::size_t before = list.fields.size();
    ++walk.line;
    walk.position = 0;
    walk.items(items, reversion(items));
    if (list.fields.size() == before) break;  // it would go on for ever
  }
  list.lines = walk.line + 1;
  if (list.fields.size() == wanted && walk.steps <= most_steps && walk.position <= last_byte) return;
  eh.error(text("error parsing the format: ", format));
  eh.continuation(walk.over() ? std::string("it takes too many steps or too long a line")
                              : text("it has ", list.fields.size(), " fields, ", wanted, " are needed"));
}

}  // namespace tolvan
