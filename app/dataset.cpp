#include "app/dataset.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <map>
#include <set>
#include <unordered_map>

#include "app/column_kinds.h"
#include "tolvan/tolvan_api.h"

namespace tolvan::driver {
namespace {

/// The labels of a string factor and of those that share its levels, with their numbers.
struct Labels {
  std::vector<std::string> in_order;
  std::unordered_map<std::string, std::int64_t> number;  // counted from 1
  bool fixed = false;                                    // given by the document

  std::int64_t add(std::string_view label)
  {
    const auto [entry, is_new] =
        number.try_emplace(std::string(label), static_cast<std::int64_t>(number.size()) + 1);
    if (is_new) in_order.emplace_back(label);
    return entry->second;
  }
};

struct Variable {
  Json* entry = nullptr;
  std::string name;
  std::string kind;
  std::size_t column = 0;  // of the file
  std::string shared;      // the variable or group whose levels it shares; its own name else
};

struct Builder {
  const CsvFile& file;
  std::vector<Variable> variables;
  std::map<std::string, Labels> labels;  // by Variable::shared

  Problem refuse(std::string what) const { return {Exit::bad_input, file.path + ": " + std::move(what)}; }
  Problem refuse_field(std::int64_t record, const Variable& v, const std::string& what) const
  {
    const std::size_t r = static_cast<std::size_t>(record);
    return {Exit::bad_input, file.path + ", line " + std::to_string(file.lines[r]) + ", column " +
                                 file.header[v.column] + ": " + quoted(file.field(record, v.column)) + what};
  }

  Problem find_column(Variable& v) const
  {
    if (const Json* number = v.entry->find("user_column_number")) {
      const std::int64_t n = number->integer();
      if (n < 1 || n > static_cast<std::int64_t>(file.header.size())) {
        return refuse("there is no column " + write_json(*number) + " for the variable " + v.name);
      }
      v.column = static_cast<std::size_t>(n - 1);
      return {};
    }
    const auto found = std::find(file.header.begin(), file.header.end(), v.name);
    if (found == file.header.end()) {
      std::string names;
      for (const std::string& h : file.header) names += (names.empty() ? "" : ", ") + h;
      return refuse("there is no column for the variable " + v.name + "; the header has " + names);
    }
    if (std::find(found + 1, file.header.end(), v.name) != file.header.end()) {
      return refuse("more than one column is named " + v.name);
    }
    v.column = static_cast<std::size_t>(found - file.header.begin());
    return {};
  }

  Problem read_variables(Json& list)
  {
    for (Json& entry : list.items) {
      const Json* name = entry.string_at("name");
      if (!name) continue;  // the engine says what is wrong with it
      Variable v{.entry = &entry, .name = name->text, .kind = "vt_variate", .shared = name->text};
      if (const Json* kind = entry.string_at("field_type")) v.kind = kind->text;
      if (const Json* as = entry.string_at("code_levels_as")) v.shared = as->text;
      if (Problem p = find_column(v)) return p;
      variables.push_back(std::move(v));
    }
    return {};
  }

  /// Collects the labels of all string factors before any is coded: those that share levels share the
  /// numbering.
  void read_labels()
  {
    for (const Variable& v : variables) {
      if (v.kind != "vt_string_factor") continue;
      Labels& all = labels[v.shared];
      const Json* given = v.entry->find("factor_labels");
      if (!given || !given->is(JsonKind::array)) continue;
      all.fixed = true;
      for (const Json& label : given->items) all.add(label.text);
    }
    for (const Variable& v : variables) {
      if (v.kind != "vt_string_factor" || labels[v.shared].fixed) continue;
      for (std::int64_t r = 0; r < file.records(); ++r) {
        if (const auto field = file.field(r, v.column); !is_missing(field)) labels[v.shared].add(field);
      }
    }
    for (const Variable& v : variables) {
      const Json* sort = v.entry->find("sort");
      if (v.kind != "vt_string_factor" || !sort || !sort->truth() || labels[v.shared].fixed) continue;
      std::vector<std::string> sorted = labels[v.shared].in_order;
      std::sort(sorted.begin(), sorted.end());
      labels[v.shared] = {};
      for (const std::string& label : sorted) labels[v.shared].add(label);
    }
  }

  void write_labels()
  {
    for (const Variable& v : variables) {
      if (v.kind != "vt_string_factor" || labels[v.shared].fixed) continue;
      Json list = json_array();
      for (const std::string& label : labels[v.shared].in_order) list.items.push_back(json_string(label));
      v.entry->set("factor_labels", std::move(list));
    }
  }

  Problem value(std::int64_t record, const Variable& v, double& out) const
  {
    const std::string_view field = file.field(record, v.column);
    out = TOLVAN_MISSING;
    if (is_missing(field)) return {};
    if (v.kind == "vt_string_factor") {
      const Labels& known = labels.at(v.shared);
      const auto label = known.number.find(std::string(field));
      if (label == known.number.end()) return refuse_field(record, v, " is not among the factor_labels");
      const Json* from = v.entry->find("factor_labels_indexed_from");
      out = static_cast<double>(label->second + (from ? from->integer(1) - 1 : 0));
      return {};
    }
    const auto number = number_of(field, file.separator);
    if (!number) return refuse_field(record, v, " is not a number");
    out = *number;
    return {};
  }
};

/// The entry of a dataset's name; null if there is none.
Json* find_entry(Json& request, const std::string& name)
{
  Json* datasets = request.find("dataset");
  if (!datasets) return nullptr;
  const auto is_it = [&](const Json& entry) {
    const Json* own = entry.string_at("name");
    return own && own->text == name;
  };
  if (datasets->is(JsonKind::object)) return is_it(*datasets) ? datasets : nullptr;
  for (Json& entry : datasets->items)
    if (is_it(entry)) return &entry;
  return nullptr;
}

Json& append_entry(Json& request, Json entry)
{
  Json* datasets = request.find("dataset");
  if (!datasets) datasets = &request.set("dataset", json_array());
  if (!datasets->is(JsonKind::array)) {
    Json only = std::move(*datasets);
    only.name.clear();
    Json list = json_array();
    list.items.push_back(std::move(only));
    datasets = &request.set("dataset", std::move(list));
  }
  return datasets->items.emplace_back(std::move(entry));
}

Json entry_from_header(const std::string& name, const CsvFile& file, const Json& request,
                       std::string& narration)
{
  Json list = json_array();
  narration += "dataset " + name + " is taken from the header of " + file.path + "\n";
  for (const ColumnKind& column : guess_kinds(file, request)) {
    narration += "  " + (column.name.empty() ? "(no name)" : column.name) + ": " + column.why + "\n";
    if (!column.used) continue;
    Json variable = json_object();
    variable.set("name", json_string(column.name));
    variable.set("field_type", json_string(column.field_type));
    if (column.field_type == "vt_integer_factor") variable.set("sort", json_boolean(true));
    list.items.push_back(std::move(variable));
  }
  Json entry = json_object();
  entry.set("name", json_string(name));
  entry.set("variables", std::move(list));
  return entry;
}

}  // namespace

Problem add_dataset(const std::string& name, const CsvFile& file, Json& request, Matrix& out,
                    std::string& narration)
{
  Builder b{.file = file, .variables = {}, .labels = {}};
  if (file.records() > INT32_MAX) return b.refuse("more than 2147483647 records");
  if (file.converted) narration += file.path + " is not UTF-8, it is taken as Windows-1252\n";
  Json* entry = find_entry(request, name);
  if (!entry) entry = &append_entry(request, entry_from_header(name, file, request, narration));

  if (Json* variables = entry->find("variables"); variables && variables->is(JsonKind::array)) {
    if (Problem p = b.read_variables(*variables)) return p;
  } else {  // a plain matrix: all columns as they stand
    for (std::size_t c = 0; c < file.header.size(); ++c) {
      b.variables.push_back(
          {.entry = entry, .name = file.header[c], .kind = "vt_variate", .column = c, .shared = {}});
    }
    if (!entry->find("number_of_variables")) {
      entry->set("number_of_variables", json_integer(static_cast<std::int64_t>(file.header.size())));
    }
  }
  b.read_labels();

  if (!entry->find("number_of_observations"))
    entry->set("number_of_observations", json_integer(file.records()));
  if (!entry->find("storage_order")) entry->set("storage_order", json_string("so_column_major"));
  const Json* order = entry->string_at("storage_order");
  const bool by_rows = order && order->text == "so_row_major";

  const std::size_t rows = static_cast<std::size_t>(file.records());
  const std::size_t columns = b.variables.size();
  out.name = name;
  out.rows = static_cast<std::int32_t>(rows);
  out.columns = static_cast<std::int32_t>(columns);
  out.values.resize(rows * columns);
  for (std::size_t c = 0; c < columns; ++c) {
    for (std::size_t r = 0; r < rows; ++r) {
      double& x = out.values[by_rows ? r * columns + c : c * rows + r];
      if (Problem p = b.value(static_cast<std::int64_t>(r), b.variables[c], x)) return p;
    }
  }
  b.write_labels();
  return {};
}

}  // namespace tolvan::driver
