// Tables and scalars as JSON: OTT_ADD_TO_JPTR, OTT_TO_JSTR, OTT_ADD_TABLE_COLUMN_TO_JPTR,
// OTT_TABLE_COLUMN_TO_JSTR, OTT_ADD_TITLE_FOOTNOTES_TO_JPTR, OTT_TITLES_TO_JSTR, OTT_FOOTNOTES_TO_JSTR,
// OTST_ADD_TO_JPTR, OTST_TO_JSTR.
//
// One description of a table goes to either of two sinks: a tree, or text.  The text sink is there because a
// tree would cost a node for each string of a table of a million rows.
#include <algorithm>

#include "api/table_store.h"
#include "base/json.h"
#include "base/text.h"

namespace tolvan {

namespace {

class TreeSink {
 public:
  explicit TreeSink(JsonNode& root) : at_(&root) {}
  void open_object(std::string_view key) { at_ = &at_->add(std::string(key), JsonType::object); }
  void open_array(std::string_view key) { at_ = &at_->add(std::string(key), JsonType::array); }
  void close_object() { at_ = at_->parent(); }
  void close_array() { at_ = at_->parent(); }
  template <class Value>
  void value(std::string_view key, const Value& x)
  {
    at_->add_value(std::string(key), x);
  }
  template <class Number>
  void numbers(std::string_view key, std::span<const Number> values)
  {
    JsonNode& array = at_->add(std::string(key), JsonType::array);
    for (const Number x : values) array.append_number(x);
  }
  void texts(std::string_view key, std::span<const std::string> values)
  {
    JsonNode& array = at_->add(std::string(key), JsonType::array);
    for (const std::string& s : values) array.add_value("", s);
  }

 private:
  JsonNode* at_;
};

class TextSink {
 public:
  explicit TextSink(std::string& out) : out_(out) { out_ += '{'; }
  void finish() { out_ += '}'; }
  void open_object(std::string_view key) { open(key, '{'); }
  void open_array(std::string_view key) { open(key, '['); }
  void close_object() { close('}'); }
  void close_array() { close(']'); }
  template <class Value>
  void value(std::string_view key, const Value& x)
  {
    JsonNode scalar;
    scalar.set(x);
    scalar.name = key;
    node(scalar);
  }
  template <class Number>
  void numbers(std::string_view key, std::span<const Number> values)
  {
    JsonNode array(JsonType::array, std::string(key));
    for (const Number x : values) array.append_number(x);
    node(array);
  }
  void texts(std::string_view key, std::span<const std::string> values)
  {
    open(key, '[');
    for (const std::string& s : values) {
      begin("");
      put_string(s);
    }
    close(']');
  }
  void node(const JsonNode& whole)
  {
    begin(whole.name);
    out_ += json_text(whole);
  }

 private:
  void open(std::string_view key, char bracket)
  {
    begin(key);
    out_ += bracket;
    levels_ += bracket;
  }
  void close(char bracket)
  {
    out_ += bracket;
    levels_.pop_back();
  }
  // A comma after a sibling, and the key; elements of arrays have none.
  void begin(std::string_view key)
  {
    const char before = out_.back();  // no value ends with an opening bracket
    if (before != '{' && before != '[') out_ += ',';
    if (levels_.back() == '[') return;
    put_string(key);
    out_ += ':';
  }
  void put_string(std::string_view s)
  {
    const bool plain = std::all_of(
        s.begin(), s.end(), [](unsigned char c) { return c >= 0x20 && c < 0x80 && c != '"' && c != '\\'; });
    if (plain) {
      out_ += '"';
      out_ += s;
      out_ += '"';
    } else {
      JsonNode node;
      node.set(std::string(s));
      out_ += json_text(node);
    }
  }
  std::string& out_;
  std::string levels_ = "{";  // the brackets that are open
};

std::span<const std::string> in_use(const std::vector<std::string>& column, std::int64_t rows)
{
  return std::span(column).first(static_cast<std::size_t>(rows));
}

// What the column needs in a numeric read: a place a number, or the bytes of its texts joined.
std::int64_t column_size(const OUTPUT_TABLE& table, const INDIVIDUAL_COLUMN_INFO& column)
{
  if (column.type != ColumnType::string || table.nrows == 0) return table.nrows;
  std::int64_t bytes = table.nrows - 1;
  for (const auto& s : in_use(table.string_col[static_cast<std::size_t>(column.position - 1)], table.nrows)) {
    bytes += static_cast<std::int64_t>(s.size());
  }
  return bytes;
}

template <class Sink>
void write_column(const OUTPUT_TABLE& table, const INDIVIDUAL_COLUMN_INFO& column, std::string_view key,
                  TableValues values, Sink& sink)
{
  sink.open_object(key);
  sink.value("name", column.name);
  sink.value("type", std::string(column_type_name(column.type)));
  sink.value("justify", static_cast<std::int64_t>(column.justify));
  sink.value("cutoff_type", static_cast<std::int64_t>(column.cutoff_type));
  sink.value("cutoff_val", column.cutoff_val);
  sink.value("cutoff_label", column.cutoff_label);
  sink.value("display_missing", column.display_missing);
  sink.value("nrows", table.nrows);
  sink.value("size", column_size(table, column));
  sink.value("heading", column.heading);
  sink.value("format", column.format);
  if (values == TableValues::included) {
    const auto rows = static_cast<std::size_t>(table.nrows);
    const auto k = static_cast<std::size_t>(column.position - 1);
    if (rows == 0) {
      sink.texts("values", {});
    } else if (column.type == ColumnType::real) {
      sink.numbers("values", std::span(table.real_col[k]).first(rows));
    } else if (column.type == ColumnType::integer) {
      sink.numbers("values", std::span(table.integer_col[k]).first(rows));
    } else {
      sink.texts("values", in_use(table.string_col[k], table.nrows));
    }
  }
  sink.close_object();
}

template <class Sink>
void write_titles(std::span<const TITLE_FOOTNOTE> lines, std::string_view key, Sink& sink)
{
  sink.open_array(key);
  for (const TITLE_FOOTNOTE& line : lines) {
    sink.open_object("");
    sink.value("type", std::string(title_type_name(line.type)));
    sink.value("text", line.text);
    sink.close_object();
  }
  sink.close_array();
}

// False, with a message, if a column can not be read; nothing is written then.
template <class Sink>
bool write_table(ERROR_HANDLER& eh, const OUTPUT_TABLE& table, TableValues values, Sink& sink)
{
  const COLUMN_INFO& info = table.column_info;
  for (const INDIVIDUAL_COLUMN_INFO& column : info.columns) {
    if (!OTT_CHECK_COLUMN(eh, table, column)) return false;
  }
  sink.open_object(table.name);
  sink.value("lrv", table.lrv());
  sink.value("liv", table.liv());
  sink.value("lcv", table.lcv());
  sink.value("type", std::string(table_type_name(table.type)));
  sink.value("nrows", table.nrows);
  if (table.transposed) sink.value("transposed", true);
  sink.open_object("column_info");
  sink.value("ncols", info.ncols());
  sink.value("ncols_real", info.ncols_real);
  sink.value("ncols_integer", info.ncols_integer);
  sink.value("ncols_string", info.ncols_string);
  sink.open_array("columns");
  for (const INDIVIDUAL_COLUMN_INFO& column : info.columns) {
    write_column(table, column, "", values, sink);
  }
  sink.close_array();
  sink.close_object();
  if (!table.titles.empty()) write_titles(std::span(table.titles), "titles", sink);
  if (!table.spanning_labels.empty()) {
    sink.open_array("spanning_labels");
    for (const SPANNING_LABEL& label : table.spanning_labels) {
      sink.open_object("");
      sink.value("from_col", label.from_col);
      sink.value("to_col", label.to_col);
      sink.value("main_label", label.main_label);
      sink.close_object();
    }
    sink.close_array();
  }
  if (!table.line_inserts.inserts.empty()) {
    sink.open_array("line_inserts");
    for (const LINE_INSERT& insert : table.line_inserts.inserts) {
      sink.open_object("");
      sink.value("lineno", insert.lineno);
      sink.texts("text", insert.text.elements);
      sink.close_object();
    }
    sink.close_array();
  }
  if (!table.footnotes.empty()) write_titles(std::span(table.footnotes), "footnotes", sink);
  sink.close_object();
  return true;
}

// The document of what `write` puts into a text sink; empty if it gives false.
template <class Write>
std::string document(const Write& write)
{
  std::string out;
  TextSink sink(out);
  if (!write(sink)) return {};
  sink.finish();
  return out;
}

std::string titles_document(std::span<const TITLE_FOOTNOTE> lines, std::string_view key)
{
  return document([&](TextSink& sink) {
    write_titles(lines, key, sink);
    return true;
  });
}

}  // namespace

void OTT_ADD_TO_JPTR(ERROR_HANDLER& eh, const OUTPUT_TABLE& table, JsonNode& parent, TableValues values)
{
  const Frame here{eh, __func__};
  TreeSink sink(parent);
  write_table(eh, table, values, sink);
}

std::string OTT_TO_JSTR(ERROR_HANDLER& eh, const OUTPUT_TABLE& table, TableValues values,
                        std::string_view column)
{
  const Frame here{eh, __func__};
  if (!column.empty()) {
    if (table.find_column(column) == 0) {
      eh.error(text("unable to find ", column, " in table ", table.name));
      return {};
    }
    return OTT_TABLE_COLUMN_TO_JSTR(eh, table, column, values);
  }
  return document([&](TextSink& sink) { return write_table(eh, table, values, sink); });
}

void OTT_ADD_TABLE_COLUMN_TO_JPTR(ERROR_HANDLER& eh, const OUTPUT_TABLE& table, std::string_view column,
                                  JsonNode& parent, TableValues values)
{
  const Frame here{eh, __func__};
  const std::int64_t k = table.find_column(column);
  if (k == 0) {
    eh.error(text(column, " is an invalid column ID"));
    return;
  }
  if (!OTT_CHECK_COLUMN(eh, table, table.column(k))) return;
  TreeSink sink(parent);
  write_column(table, table.column(k), table.column(k).name, values, sink);
}

std::string OTT_TABLE_COLUMN_TO_JSTR(ERROR_HANDLER& eh, const OUTPUT_TABLE& table, std::string_view column,
                                     TableValues values)
{
  const Frame here{eh, __func__};
  const std::int64_t k = table.find_column(column);
  if (k == 0) {
    eh.error(text(column, " is an invalid column ID"));
    return {};
  }
  if (!OTT_CHECK_COLUMN(eh, table, table.column(k))) return {};
  return document([&](TextSink& sink) {
    write_column(table, table.column(k), table.column(k).name, values, sink);
    return true;
  });
}

void OTT_ADD_TITLE_FOOTNOTES_TO_JPTR(ERROR_HANDLER& eh, std::span<const TITLE_FOOTNOTE> lines,
                                     std::string_view key, JsonNode& parent)
{
  const Frame here{eh, __func__};
  TreeSink sink(parent);
  write_titles(lines, key, sink);
}

std::string OTT_TITLES_TO_JSTR(ERROR_HANDLER& eh, const OUTPUT_TABLE& table)
{
  const Frame here{eh, __func__};
  return titles_document(table.titles, "titles");
}

std::string OTT_FOOTNOTES_TO_JSTR(ERROR_HANDLER& eh, const OUTPUT_TABLE& table)
{
  const Frame here{eh, __func__};
  return titles_document(table.footnotes, "footnotes");
}

void OTST_ADD_TO_JPTR(ERROR_HANDLER& eh, const OUTPUT_TABLE_STORE& store, JsonNode& parent,
                      TableValues values)
{
  const Frame here{eh, __func__};
  for (const auto& table : store.tables) {
    TreeSink sink(parent);
    if (!write_table(eh, *table, values, sink)) return;
  }
  for (const auto& scalar : store.scalars) {
    if (!OST_ADD_TO_JPTR(eh, *scalar, parent)) return;
  }
}

std::string OTST_TO_JSTR(ERROR_HANDLER& eh, const OUTPUT_TABLE_STORE& store, TableValues values)
{
  const Frame here{eh, __func__};
  return document([&](TextSink& sink) {
    for (const auto& table : store.tables) {
      if (!write_table(eh, *table, values, sink)) return false;
    }
    JsonNode scalars(JsonType::object);
    for (const auto& scalar : store.scalars) {
      if (!OST_ADD_TO_JPTR(eh, *scalar, scalars)) return false;
    }
    for (const auto& scalar : scalars.children()) {
      if (values == TableValues::left_out) scalar->remove("value");
      sink.node(*scalar);
    }
    return true;
  });
}

}  // namespace tolvan
