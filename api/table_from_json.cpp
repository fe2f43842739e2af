// A table back from its JSON form: OTT_SET_FROM_JPTR, CIT_SET_FROM_JPTR, ICIT_SET_FROM_JPTR,
// SLT_SET_FROM_JPTR, TFT_SET_FROM_JPTR, LITS_SET_FROM_JPTR.
//
// Counts are never believed before the values that they count are there, so that a forged document costs no
// more memory than its own length.
#include <algorithm>
#include <limits>

#include "api/table.h"
#include "base/json.h"
#include "base/text.h"

namespace tolvan {

namespace {

std::string where(const JsonNode& node)
{
  std::string path = json_path(node);
  return path.empty() ? "the document" : path;
}

std::string shown(const JsonNode& node)
{
  constexpr std::size_t longest = 60;
  if (node.is(JsonType::object)) return "an object";
  if (node.is(JsonType::array)) return "an array";
  if (node.is(JsonType::string) && node.text().size() > longest)
    return node.text().substr(0, longest) + "...";
  return json_text(node);
}

void raise(ERROR_HANDLER& eh, const JsonNode& node, std::string_view expected)
{
  eh.error(text("invalid value supplied for ", where(node), ", was expecting ", expected,
                ", supplied value = ", shown(node)),
           Ecode::invalid_json);
}

std::string_view words_of(JsonType type)
{
  switch (type) {
    case JsonType::object:
      return "an object";
    case JsonType::array:
      return "an array";
    case JsonType::logical:
      return "a logical";
    case JsonType::integer:
      return "an integer";
    case JsonType::real:
      return "a real";
    case JsonType::string:
      return "a string";
    case JsonType::null:
      break;
  }
  return "null";
}

// Reads the fields of one object.  After the first failure all readers give zero values.
class Fields {
 public:
  Fields(ERROR_HANDLER& eh, const JsonNode& node) : eh_(eh), node_(node)
  {
    if (!node.is(JsonType::object)) raise(eh, node, "an object");
  }
  const JsonNode* find(std::string_view key) const { return eh_.terminate() ? nullptr : node_.find(key); }
  const JsonNode* required(std::string_view key, JsonType type)
  {
    if (eh_.terminate()) return nullptr;
    const JsonNode* field = node_.find(key);
    if (field == nullptr) {
      eh_.error(text(key, " is required but was not found in ", where(node_)), Ecode::invalid_json);
      return nullptr;
    }
    const bool fits = field->is(type) || (type == JsonType::real && field->is(JsonType::integer));
    if (!fits) raise(eh_, *field, words_of(type));
    return fits ? field : nullptr;
  }
  std::string string(std::string_view key)
  {
    const JsonNode* field = required(key, JsonType::string);
    return field != nullptr ? field->text() : std::string();
  }
  double real(std::string_view key)
  {
    const JsonNode* field = required(key, JsonType::real);
    return field != nullptr ? field->number() : 0.0;
  }
  bool logical(std::string_view key)
  {
    const JsonNode* field = required(key, JsonType::logical);
    return field != nullptr && field->logical();
  }
  std::int64_t integer(std::string_view key, std::int64_t from = 0,
                       std::int64_t to = std::numeric_limits<std::int64_t>::max())
  {
    const JsonNode* field = required(key, JsonType::integer);
    if (field == nullptr) return from;
    const std::int64_t n = field->integer();
    if (n >= from && n <= to) return n;
    const bool open = to == std::numeric_limits<std::int64_t>::max();
    raise(eh_, *field,
          open ? text("an integer of at least ", from) : text("an integer from ", from, " to ", to));
    return from;
  }
  // A count that must agree with what was found.
  void count(std::string_view key, std::int64_t found)
  {
    const JsonNode* field = required(key, JsonType::integer);
    if (field != nullptr && field->integer() != found) raise(eh_, *field, text(found));
  }
  // A word of a type; "unknown" itself is one of them.
  template <class Type>
  Type word(std::string_view key, Type (*type_of)(std::string_view), std::string_view expected)
  {
    const JsonNode* field = required(key, JsonType::string);
    if (field == nullptr) return Type::unknown;
    const Type type = type_of(field->text());
    if (type == Type::unknown && !field->is_text("unknown")) raise(eh_, *field, expected);
    return type;
  }

 private:
  ERROR_HANDLER& eh_;
  const JsonNode& node_;
};

// Calls read(element) for each element of an array that should hold no plain numbers.
template <class Read>
void each_element(ERROR_HANDLER& eh, const JsonNode& array, std::string_view expected, const Read& read)
{
  if (!array.is(JsonType::array) || (array.packed() && array.number_count() > 0)) {
    raise(eh, array, expected);
    return;
  }
  for (const auto& element : array.children()) {
    read(*element);
    if (eh.terminate()) return;
  }
}

void read_strings(ERROR_HANDLER& eh, const JsonNode& array, std::vector<std::string>& out)
{
  each_element(eh, array, "an array of strings", [&](const JsonNode& element) {
    if (element.is(JsonType::string)) {
      out.push_back(element.text());
    } else {
      raise(eh, element, "a string");
    }
  });
}

void read_integers(ERROR_HANDLER& eh, const JsonNode& array, std::vector<std::int64_t>& out)
{
  if (array.packed()) {
    for (std::int64_t k = 0; k < array.number_count(); ++k) {
      if (!array.is_integer(k)) {
        raise(eh, array, "an array of integers");
        return;
      }
      out.push_back(array.integer(k));
    }
    return;
  }
  for (const auto& element : array.children()) {
    if (!element->is(JsonType::integer)) {
      raise(eh, *element, "an integer");
      return;
    }
    out.push_back(element->integer());
  }
}

// A null stands for a value that is no number.
void read_reals(ERROR_HANDLER& eh, const JsonNode& array, std::vector<double>& out)
{
  if (array.packed()) {
    for (std::int64_t k = 0; k < array.number_count(); ++k) out.push_back(array.number(k));
    return;
  }
  for (const auto& element : array.children()) {
    if (element->is(JsonType::null)) {
      out.push_back(std::numeric_limits<double>::quiet_NaN());
    } else if (element->is_number()) {
      out.push_back(element->number());
    } else {
      raise(eh, *element, "a number");
      return;
    }
  }
}

/// L_READ_VALUES: reads the values of one column into a new column of its store.
void L_READ_VALUES(ERROR_HANDLER& eh, OUTPUT_TABLE& table, const INDIVIDUAL_COLUMN_INFO& column,
                   const JsonNode& node)
{
  const Frame here{eh, __func__};
  Fields fields(eh, node);
  fields.count("nrows", table.nrows);
  const JsonNode* values = fields.required("values", JsonType::array);
  if (eh.terminate()) return;
  if (values->size() != table.nrows) {
    eh.error(text(where(*values), " holds ", values->size(), " values, was expecting ", table.nrows),
             Ecode::invalid_json);
    return;
  }
  if (column.type == ColumnType::real) {
    read_reals(eh, *values, table.real_col.emplace_back());
  } else if (column.type == ColumnType::integer) {
    read_integers(eh, *values, table.integer_col.emplace_back());
  } else {
    read_strings(eh, *values, table.string_col.emplace_back());
  }
}

}  // namespace

void ICIT_SET_FROM_JPTR(ERROR_HANDLER& eh, INDIVIDUAL_COLUMN_INFO& column, const JsonNode& node)
{
  const Frame here{eh, __func__};
  Fields fields(eh, node);
  INDIVIDUAL_COLUMN_INFO read;
  read.name = fields.string("name");
  read.type = fields.word("type", column_type_of, "one of: integer, real or string");
  read.justify = static_cast<Justify>(fields.integer("justify", 0, 3));
  read.cutoff_type = static_cast<CutoffType>(fields.integer("cutoff_type", 0, 4));
  read.cutoff_val = fields.real("cutoff_val");
  read.cutoff_label = fields.string("cutoff_label");
  read.display_missing = fields.logical("display_missing");
  read.heading = fields.string("heading");
  read.format = fields.string("format");
  if (eh.terminate()) return;
  if (read.type != ColumnType::integer && read.type != ColumnType::real && read.type != ColumnType::string) {
    raise(eh, *node.find("type"), "one of: integer, real or string");
    return;
  }
  column = std::move(read);
}

void CIT_SET_FROM_JPTR(ERROR_HANDLER& eh, COLUMN_INFO& info, const JsonNode& node)
{
  const Frame here{eh, __func__};
  Fields fields(eh, node);
  const JsonNode* columns = fields.required("columns", JsonType::array);
  if (eh.terminate()) return;
  COLUMN_INFO read;
  each_element(eh, *columns, "an array of objects", [&](const JsonNode& element) {
    INDIVIDUAL_COLUMN_INFO column;
    ICIT_SET_FROM_JPTR(eh, column, element);
    if (eh.terminate()) return;
    column.position = column.type == ColumnType::real      ? ++read.ncols_real
                      : column.type == ColumnType::integer ? ++read.ncols_integer
                                                           : ++read.ncols_string;
    read.columns.push_back(std::move(column));
  });
  fields.count("ncols", read.ncols());
  fields.count("ncols_real", read.ncols_real);
  fields.count("ncols_integer", read.ncols_integer);
  fields.count("ncols_string", read.ncols_string);
  if (!eh.terminate()) info = std::move(read);
}

void SLT_SET_FROM_JPTR(ERROR_HANDLER& eh, std::vector<SPANNING_LABEL>& labels, const JsonNode& node)
{
  const Frame here{eh, __func__};
  std::vector<SPANNING_LABEL> read;
  each_element(eh, node, "an array of objects", [&](const JsonNode& element) {
    Fields fields(eh, element);
    const std::int64_t from = fields.integer("from_col", 1);
    const std::int64_t to = fields.integer("to_col", from);
    read.push_back({from, to, fields.string("main_label")});
  });
  if (!eh.terminate()) labels = std::move(read);
}

void TFT_SET_FROM_JPTR(ERROR_HANDLER& eh, std::vector<TITLE_FOOTNOTE>& lines, const JsonNode& node)
{
  const Frame here{eh, __func__};
  std::vector<TITLE_FOOTNOTE> read;
  each_element(eh, node, "an array of objects", [&](const JsonNode& element) {
    Fields fields(eh, element);
    const TitleType type = fields.word("type", title_type_of,
                                       "one of: info, notice, note, continuation, warning, sed or unknown");
    read.push_back({type, fields.string("text")});
  });
  if (!eh.terminate()) lines = std::move(read);
}

void LITS_SET_FROM_JPTR(ERROR_HANDLER& eh, LINE_INSERTS& inserts, const JsonNode& node)
{
  const Frame here{eh, __func__};
  LINE_INSERTS read;
  each_element(eh, node, "an array of objects", [&](const JsonNode& element) {
    Fields fields(eh, element);
    LINE_INSERT insert{.lineno = fields.integer("lineno", 1), .text = {}};
    if (const JsonNode* lines = fields.required("text", JsonType::array)) {
      read_strings(eh, *lines, insert.text.elements);
    }
    read.inserts.push_back(std::move(insert));
  });
  if (eh.terminate()) return;
  std::stable_sort(read.inserts.begin(), read.inserts.end(),
                   [](const LINE_INSERT& a, const LINE_INSERT& b) { return a.lineno < b.lineno; });
  inserts = std::move(read);
}

void OTT_SET_FROM_JPTR(ERROR_HANDLER& eh, OUTPUT_TABLE& table, const JsonNode& node)
{
  const Frame here{eh, __func__};
  Fields fields(eh, node);
  OUTPUT_TABLE read;
  read.name = node.name;
  read.type =
      fields.word("type", table_type_of, "one of: table, sparse_mtx, packed_sym_mtx, full_mtx or unknown");
  read.nrows = fields.integer("nrows");
  read.transposed = fields.find("transposed") != nullptr && fields.logical("transposed");
  const JsonNode* info = fields.required("column_info", JsonType::object);
  if (eh.terminate()) return;
  CIT_SET_FROM_JPTR(eh, read.column_info, *info);
  if (eh.terminate()) return;

  // The stores of a table that was never filled do not exist: all three counts are 0 then.
  read.allocated =
      read.nrows > 0 || fields.integer("lrv") + fields.integer("liv") + fields.integer("lcv") > 0;
  fields.count("lrv", read.allocated ? read.column_info.ncols_real : 0);
  fields.count("liv", read.allocated ? read.column_info.ncols_integer : 0);
  fields.count("lcv", read.allocated ? read.column_info.ncols_string : 0);
  if (eh.terminate()) return;
  const auto& columns = info->find("columns")->children();
  for (std::int64_t k = 1; k <= read.ncols(); ++k) {
    const JsonNode& column = *columns[static_cast<std::size_t>(k - 1)];
    L_READ_VALUES(eh, read, read.column(k), column);
    if (eh.terminate()) return;
  }
  if (!read.allocated) {
    read.real_col.clear();
    read.integer_col.clear();
    read.string_col.clear();
  }
  read.alloc_nrows = read.nrows;

  if (const JsonNode* lines = fields.find("titles")) TFT_SET_FROM_JPTR(eh, read.titles, *lines);
  if (const JsonNode* labels = fields.find("spanning_labels"))
    SLT_SET_FROM_JPTR(eh, read.spanning_labels, *labels);
  if (const JsonNode* inserts = fields.find("line_inserts"))
    LITS_SET_FROM_JPTR(eh, read.line_inserts, *inserts);
  if (const JsonNode* lines = fields.find("footnotes")) TFT_SET_FROM_JPTR(eh, read.footnotes, *lines);
  if (!eh.terminate()) table = std::move(read);
}

}  // namespace tolvan
