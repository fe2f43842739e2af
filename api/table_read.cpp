// Results as typed arrays and numbers: OTST_SQUASH_TABLE_DATA_I4B, OTST_SQUASH_TABLE_DATA_I8B,
// OTT_SQUASH_TABLE_DATA_I4B, OTT_SQUASH_TABLE_DATA_I8B, OTST_OUTPUT_SCALAR.
#include <algorithm>
#include <cstring>
#include <limits>

#include "api/table_store.h"
#include "base/text.h"

namespace tolvan {

namespace {

template <class Integer>
Integer narrow(std::int64_t n)
{
  return static_cast<Integer>(
      std::clamp<std::int64_t>(n, std::numeric_limits<Integer>::min(), std::numeric_limits<Integer>::max()));
}

struct Needs {
  std::int64_t reals = 0;
  std::int64_t integers = 0;
  std::int64_t text = 0;  // bytes of the joined text, no NUL
};

// Calls visit(column) for each column that is asked for; 0 asks for all.
template <class Visit>
void each_column(const OUTPUT_TABLE& table, std::int64_t column, const Visit& visit)
{
  for (std::int64_t k = 1; k <= table.ncols(); ++k) {
    if (column == 0 || column == k) visit(k);
  }
}

template <class T>
std::span<const T> rows_of(const OUTPUT_TABLE& table, const std::vector<std::vector<T>>& store,
                           std::int64_t k)
{
  if (table.nrows == 0) return {};
  return std::span<const T>(store[static_cast<std::size_t>(table.column(k).position - 1)])
      .first(static_cast<std::size_t>(table.nrows));
}

Needs needs_of(const OUTPUT_TABLE& table, std::int64_t column)
{
  Needs needs;
  std::int64_t texts = 0;
  each_column(table, column, [&](std::int64_t k) {
    switch (table.column(k).type) {
      case ColumnType::real:
        needs.reals += table.nrows;
        break;
      case ColumnType::integer:
        needs.integers += table.nrows;
        break;
      default:
        for (const std::string& s : rows_of(table, table.string_col, k)) {
          needs.text += static_cast<std::int64_t>(s.size());
          ++texts;
        }
    }
  });
  needs.text += std::max<std::int64_t>(texts - 1, 0);
  return needs;
}

// The capacity test of one buffer, and the count that goes back.
bool fits(const void* buffer, std::int32_t* count, std::int64_t need)
{
  if (count == nullptr) return true;
  const std::int64_t capacity = *count;
  *count = narrow<std::int32_t>(need);
  return buffer == nullptr || capacity >= need;
}

void copy_text(const OUTPUT_TABLE& table, std::int64_t column, char* out)
{
  bool first = true;
  each_column(table, column, [&](std::int64_t k) {
    if (table.column(k).type != ColumnType::string) return;
    for (const std::string& s : rows_of(table, table.string_col, k)) {
      if (!first) *out++ = text_separator;
      first = false;
      out = std::copy(s.begin(), s.end(), out);
    }
  });
}

template <class Integer>
void squash_table(ERROR_HANDLER& eh, const OUTPUT_TABLE& table, std::int64_t column,
                  const SQUASH_BUFFERS<Integer>& buffers)
{
  // Check.
  bool complete = true;
  each_column(table, column,
              [&](std::int64_t k) { complete = complete && OTT_CHECK_COLUMN(eh, table, table.column(k)); });
  if (!complete) return;

  // Tell the needs; all three counts are written even if the first buffer is too small.
  const Needs needs = needs_of(table, column);
  const std::int64_t text_room = buffers.text_length != nullptr ? *buffers.text_length : 0;
  bool all_fit = fits(buffers.reals, buffers.real_count, needs.reals);
  all_fit &= fits(buffers.integers, buffers.integer_count, needs.integers);
  all_fit &= fits(buffers.text, buffers.text_length, needs.text);
  if (!all_fit) return;

  // Copy.
  if (buffers.reals != nullptr && buffers.real_count != nullptr) {
    double* out = buffers.reals;
    each_column(table, column, [&](std::int64_t k) {
      if (table.column(k).type != ColumnType::real) return;
      const auto values = rows_of(table, table.real_col, k);
      out = std::copy(values.begin(), values.end(), out);
    });
  }
  if (buffers.integers != nullptr && buffers.integer_count != nullptr) {
    Integer* out = buffers.integers;
    each_column(table, column, [&](std::int64_t k) {
      if (table.column(k).type != ColumnType::integer) return;
      const auto values = rows_of(table, table.integer_col, k);
      out = std::transform(values.begin(), values.end(), out, narrow<Integer>);
    });
  }
  if (buffers.text != nullptr && buffers.text_length != nullptr && needs.text > 0) {
    copy_text(table, column, buffers.text);
    buffers.text[text_room > needs.text ? needs.text : needs.text - 1] = '\0';
  }
}

template <class Integer>
void squash_by_id(ERROR_HANDLER& eh, const OUTPUT_TABLE_STORE& store, std::string_view id,
                  const SQUASH_BUFFERS<Integer>& buffers)
{
  const OUTPUT_ID wanted = split_output_id(id);
  const OUTPUT_TABLE* table = store.find_table(wanted.parts.front());
  std::int64_t column = 0;
  if (table != nullptr && wanted.parts.size() > 1) column = table->find_column(wanted.parts[1]);
  const bool found =
      table != nullptr && (wanted.parts.size() == 1 || (wanted.parts.size() == 2 && column > 0));
  if (found) {
    squash_table(eh, *table, column, buffers);
    return;
  }
  for (std::int32_t* count : {buffers.real_count, buffers.integer_count, buffers.text_length}) {
    if (count != nullptr) *count = 0;
  }
  if (!wanted.optional) eh.error(text("the output information with ID ", wanted.full, " does not exist"));
}

template <class Value>
void output_scalar(ERROR_HANDLER& eh, const OUTPUT_TABLE_STORE& store, std::string_view id, Value* value)
{
  constexpr bool wants_real = std::is_same_v<Value, double>;
  const OUTPUT_ID wanted = split_output_id(id);
  const OUTPUT_SCALAR* scalar = wanted.parts.size() == 1 ? store.find_scalar(wanted.parts.front()) : nullptr;
  if (scalar == nullptr) {
    if (!wanted.optional) eh.error(text("the output information with ID ", wanted.full, " does not exist"));
    return;
  }
  if (scalar->type != (wants_real ? ColumnType::real : ColumnType::integer)) {
    eh.error(text("the output information with ID ", wanted.full,
                  " can not be output via this call due to its type"));
    return;
  }
  if (value == nullptr) return;
  if constexpr (wants_real) {
    *value = scalar->rval;
  } else {
    *value = narrow<Value>(scalar->ival);
  }
}

}  // namespace

void OTT_SQUASH_TABLE_DATA_I4B(ERROR_HANDLER& eh, const OUTPUT_TABLE& table, std::int64_t column,
                               const SQUASH_BUFFERS_I4B& buffers)
{
  const Frame here{eh, __func__};
  squash_table(eh, table, column, buffers);
}

void OTT_SQUASH_TABLE_DATA_I8B(ERROR_HANDLER& eh, const OUTPUT_TABLE& table, std::int64_t column,
                               const SQUASH_BUFFERS_I8B& buffers)
{
  const Frame here{eh, __func__};
  squash_table(eh, table, column, buffers);
}

void OTST_SQUASH_TABLE_DATA_I4B(ERROR_HANDLER& eh, const OUTPUT_TABLE_STORE& store, std::string_view id,
                                const SQUASH_BUFFERS_I4B& buffers)
{
  const Frame here{eh, __func__};
  squash_by_id(eh, store, id, buffers);
}

void OTST_SQUASH_TABLE_DATA_I8B(ERROR_HANDLER& eh, const OUTPUT_TABLE_STORE& store, std::string_view id,
                                const SQUASH_BUFFERS_I8B& buffers)
{
  const Frame here{eh, __func__};
  squash_by_id(eh, store, id, buffers);
}

void OTST_OUTPUT_SCALAR(ERROR_HANDLER& eh, const OUTPUT_TABLE_STORE& store, std::string_view id,
                        std::int32_t* value)
{
  const Frame here{eh, __func__};
  output_scalar(eh, store, id, value);
}

void OTST_OUTPUT_SCALAR(ERROR_HANDLER& eh, const OUTPUT_TABLE_STORE& store, std::string_view id,
                        double* value)
{
  const Frame here{eh, __func__};
  output_scalar(eh, store, id, value);
}

}  // namespace tolvan
