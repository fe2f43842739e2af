#include "data/save_data.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>

#include "base/files.h"
#include "base/open_file.h"
#include "base/text.h"

namespace tolvan {

namespace {

template <class Number>
void append_bytes(std::string& out, Number x)
{
  char bytes[sizeof x];
  std::memcpy(bytes, &x, sizeof x);
  out.append(bytes, sizeof bytes);
}

/// A row as numbers, between marks of its length where the kind has them.
void binary_row(const KIND_ROW& kind, std::span<const double> row, std::string& out)
{
  const auto length = static_cast<std::uint32_t>(row.size() * static_cast<std::size_t>(kind.bytes));
  if (kind.marked) append_bytes(out, length);
  for (const double x : row) {
    if (kind.bytes == 4) {
      append_bytes(out, static_cast<float>(x));
    } else {
      append_bytes(out, x);
    }
  }
  if (kind.marked) append_bytes(out, length);
}

/// The first value of a row that is too large for a single, or a level that would not be kept exactly; the
/// width of the row where there is none.
std::size_t first_too_large(const VARIABLE_TABLE& variables, std::span<const double> row)
{
  constexpr double largest_level = 16777216.0;  // 2^24: whole numbers are exact up to here
  std::size_t v = 0;
  while (v < row.size() && std::isfinite(static_cast<float>(row[v])) &&
         !(variables.rows[v].is_factor() && row[v] > largest_level)) {
    ++v;
  }
  return v;
}

/// A label as a field: in quotes where it would not be read back as it stands.
void append_label(std::string& out, std::string_view label)
{
  const bool plain = !label.empty() && label.find_first_of(",;\" \t#&!") == std::string_view::npos;
  if (plain) {
    out += label;
    return;
  }
  out += '"';
  for (const char c : label) {
    if (c == '"') out += '"';
    out += c;
  }
  out += '"';
}

void append_value(std::string& out, const VARIABLE& variable, double x)
{
  if (is_no_value(x)) {
    out += "NA";
  } else if (!variable.is_factor()) {
    append(out, x);
  } else if (const auto level = static_cast<std::int64_t>(x); level <= variable.labels.size()) {
    append_label(out, variable.labels.label(level));
  } else {
    append(out, level + variable.indexed_from - 1);
  }
}

void text_row(const VARIABLE_TABLE& variables, std::span<const double> row, std::string& out)
{
  for (std::size_t v = 0; v < row.size(); ++v) {
    if (v > 0) out += ',';
    append_value(out, variables.rows[v], row[v]);
  }
  out += '\n';
}

std::string name_line(const VARIABLE_TABLE& variables)
{
  std::string out;
  for (const VARIABLE& variable : variables.rows) {
    if (!out.empty()) out += ',';
    append_label(out, variable.name);
  }
  return out + "\n";
}

}  // namespace

std::string saved_file_name(const DATA_FILE_KEYS& keys)
{
  const std::string_view name = kind_row(keys.save_kind).saved_as;
  if (!name.starts_with('.')) return std::string(name);
  return std::filesystem::path(keys.name).stem().string() + std::string(name);
}

void L_SAVE_DATA(ERROR_HANDLER& eh, const DATA_FILE_KEYS& keys, const VARIABLE_TABLE& variables,
                 const DATA_STORE& store)
{
  const Frame here{eh, __func__};
  const std::string name = saved_file_name(keys);
  if (file_exists(name)) {
    eh.warning(text("not writing the transformed data to file as the file ", name, " already exists"));
    return;
  }
  const KIND_ROW& kind = kind_row(keys.save_kind);
  FileWriter file;
  if (!OPEN_AND_CHECK_FILE(eh, name, file)) return;
  eh.note(text("transformed data will be written to ", name));
  if (!kind.binary) file.write(name_line(variables));
  std::string out;
  std::span<const double> row;
  for (std::int64_t r = 0; r < store.records(); ++r) {
    if (!DST_READ_ROW(eh, store, r, row)) return;
    out.clear();
    const std::size_t v = kind.bytes == 4 ? first_too_large(variables, row) : row.size();
    if (v < row.size()) {
      eh.error(text("the data can not be written to ", name, " in single precision"));
      eh.continuation(text("record ", r + 1, ", variable ", variables.rows[v].name, ": ", row[v]));
      return;
    }
    if (kind.binary) {
      binary_row(kind, row, out);
    } else {
      text_row(variables, row, out);
    }
    file.write(out);
  }
  if (file.commit()) return;
  eh.error(text("unable to write the transformed data to ", name), Ecode::io_error);
  eh.continuation(file.error());
}

}  // namespace tolvan
