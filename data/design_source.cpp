#include "data/design_source.h"

#include <cmath>

#include "base/text.h"

namespace tolvan {

namespace {

using Reads = DESIGN_SOURCE::Reads;

std::int32_t add(DESIGN_SOURCES& sources, DESIGN_SOURCE source)
{
  sources.list.push_back(std::move(source));
  return static_cast<std::int32_t>(sources.list.size()) - 1;
}

double argument(const FACTOR_ROW& factor, std::size_t k)
{
  return k < factor.arguments.size() ? factor.arguments[k] : 0.0;
}

/// Reads a source with levels as the numbers that stand for them.
std::int32_t as_numbers(DESIGN_SOURCES& sources, std::int64_t row, std::int32_t levels, std::vector<double> values)
{
  sources.level_values.push_back(std::move(values));
  return add(sources, {.reads = Reads::level_value,
                       .row = row,
                       .source = levels,
                       .values = &sources.level_values.back()});
}

/// True if the numbers of the levels are 1, 2, ...
bool counts_up(const std::vector<double>& values)
{
  for (std::size_t k = 0; k < values.size(); ++k)
    if (values[k] != static_cast<double>(k + 1)) return false;
  return true;
}

}  // namespace

void start_records(const DESIGN_SOURCES& sources, RECORD_STATE& state)
{
  state.counted.assign(sources.list.size(), 0);
  state.counter.assign(sources.list.size(), no_value);
  state.undefined_in.assign(sources.list.size(), 0);
  state.undefined = 0;
  state.above = -1;
}

void next_record(const DESIGN_SOURCES& sources, std::span<const double> data, std::int64_t record, RECORD_STATE& state)
{
  state.data = data;
  state.record = record;
  for (std::size_t k = 0; k < sources.list.size(); ++k) {
    const DESIGN_SOURCE& source = sources.list[k];
    if (source.reads != Reads::counter) continue;
    const double x = read_source(sources, source.source, state);
    const bool counts = !is_no_value(x) && (source.a == 0.0 ? x != 0.0 : x == source.a);
    state.counter[k] = counts ? static_cast<double>(++state.counted[k]) : no_value;
  }
}

double read_source(const DESIGN_SOURCES& sources, std::int32_t index, RECORD_STATE& state)
{
  const DESIGN_SOURCE& source = sources.list[static_cast<std::size_t>(index)];
  switch (source.reads) {
    case Reads::one:
      return 1.0;
    case Reads::column:
      return state.data[source.column];
    case Reads::level: {
      const double level = state.data[source.column];
      if (!(level > static_cast<double>(source.levels))) return level;
      state.above = index;
      state.above_level = level;
      return no_value;
    }
    case Reads::record_number:
      return static_cast<double>(state.record);
    case Reads::trait:
      return static_cast<double>(state.trait);
    case Reads::level_value: {
      const double level = read_source(sources, source.source, state);
      if (is_no_value(level) || level > static_cast<double>(source.values->size())) return no_value;
      return (*source.values)[static_cast<std::size_t>(level) - 1];
    }
    case Reads::place:
    case Reads::place_of_pair: {
      const double x = read_source(sources, source.source, state);
      if (is_no_value(x)) return no_value;
      const double y = source.second < 0 ? 0.0 : read_source(sources, source.second, state);
      if (source.second >= 0 && is_no_value(y)) return no_value;
      const std::int64_t place = source.distinct->find(x, y);
      return place == 0 ? no_value : static_cast<double>(place);
    }
    case Reads::counter:
      return state.counter[static_cast<std::size_t>(index)];
    case Reads::function: {
      const double x = read_source(sources, source.source, state);
      if (is_no_value(x)) return no_value;
      const double value = source.function(x, source.a, source.b);
      if (std::isfinite(value)) return value;
      std::int64_t& last = state.undefined_in[static_cast<std::size_t>(index)];
      if (last != state.record) ++state.undefined;
      last = state.record;
      return no_value;
    }
  }
  return no_value;
}

bool is_scalar(const FACTOR_TABLE& factors, std::int64_t row)
{
  const FACTOR_ROW& factor = factors.row(factors.original(row));
  return is_scalar(factor.design_kind()) && factor.reserved != Reserved::mv;
}

std::vector<double> numbers_of_levels(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors,
                                      std::int64_t row)
{
  const FACTOR_ROW& factor = factors.row(factors.original(row));
  const std::int64_t n = factor.levels;
  std::vector<double> numbers;
  numbers.reserve(static_cast<std::size_t>(n));
  const bool distinct = factor.basis != nullptr && factor.second == 0 && factor.basis->distinct.size() == n;
  for (std::int64_t l = 1; l <= n; ++l) {
    double number = static_cast<double>(l);
    if (distinct) {
      number = factor.basis->distinct.x(l);
    } else if (factor.design_kind() == DesignKind::none && factor.variable > 0) {
      if (!read_real(GET_LEVEL_NAME(eh, variables.row(factor.variable), l), number) || !std::isfinite(number)) break;
    }
    numbers.push_back(number);
  }
  if (std::ssize(numbers) == n) return numbers;
  numbers.clear();  // a label that is no number
  for (std::int64_t l = 1; l <= n; ++l) numbers.push_back(static_cast<double>(l));
  return numbers;
}

std::int32_t L_ADD_SOURCE(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors,
                          std::int64_t given_row, bool as_number, DESIGN_SOURCES& sources)
{
  const Frame here{eh, __func__};
  if (given_row < 1 || given_row > factors.count() || !is_scalar(factors, given_row)) {
    eh.internal(text("issue forming the design matrix (factor ", given_row, "), it has no single value"));
    return -1;
  }
  const std::int64_t row = factors.original(given_row);
  const FACTOR_ROW& factor = factors.row(row);
  DESIGN_SOURCE made{.row = row, .levels = factor.levels};
  const DesignKind kind = factor.design_kind();
  if (kind == DesignKind::none) {
    switch (factor.reserved) {
      case Reserved::units:
        return add(sources, {.reads = Reads::record_number, .row = row});
      case Reserved::trait:
        return add(sources, {.reads = Reads::trait, .row = row});
      case Reserved::mu:
        return add(sources, {.reads = Reads::one, .row = row});
      default:
        break;
    }
    if (factor.variable < 1 || factor.variable > variables.count()) {
      eh.internal(text("issue forming the design matrix (", factor.name, "), it is no variable of the data"));
      return -1;
    }
    made.reads = factor.is_factor ? Reads::level : Reads::column;
    made.column = static_cast<std::size_t>(factor.variable - 1);
    made.is_pedigree = variables.row(factor.variable).is_pedigree_factor;
    made.name = factor.shown();
    const std::int32_t plain = add(sources, made);
    if (!as_number || !factor.is_factor) return plain;
    std::vector<double> numbers = numbers_of_levels(eh, variables, factors, row);
    if (eh.terminate()) return -1;
    return counts_up(numbers) ? plain : as_numbers(sources, row, plain, std::move(numbers));
  }

  // The values that lin() and definitions give to the levels of their source.
  const bool gives_values = kind == DesignKind::lin && !factor.arguments.empty();
  const bool reads_numbers = kind != DesignKind::uni && !gives_values && kind != DesignKind::at && kind != DesignKind::at_sign;
  made.source = L_ADD_SOURCE(eh, variables, factors, factor.source, reads_numbers, sources);
  if (eh.terminate()) return -1;
  if (gives_values && std::ssize(factor.arguments) != factors.row(factor.source).levels) {
    eh.error(text("check definition for model term ", factor.shown()));
    eh.continuation(text(factor.arguments.size(), " values were given for the ", factors.row(factor.source).levels,
                         " levels of ", factors.row(factor.source).shown()));
    return -1;
  }
  switch (kind) {
    case DesignKind::lin:
      return gives_values ? as_numbers(sources, row, made.source, factor.arguments) : made.source;
    case DesignKind::fac:
    case DesignKind::dev:
      if (factor.basis == nullptr) {
        eh.internal(text("issue forming the design matrix (", factor.name, "), its values are not known"));
        return -1;
      }
      made.reads = Reads::place;
      made.distinct = &factor.basis->distinct;
      if (factor.second > 0) {
        made.reads = Reads::place_of_pair;
        made.second = L_ADD_SOURCE(eh, variables, factors, factor.second, true, sources);
        if (eh.terminate()) return -1;
      }
      break;
    case DesignKind::uni:
      made.reads = Reads::counter;
      made.a = argument(factor, 0);
      return add(sources, made);
    default:
      made.reads = Reads::function;
      made.function = covariate_function(kind);
      made.a = argument(factor, 0);
      made.b = argument(factor, 1);
      return add(sources, made);
  }
  const std::int32_t place = add(sources, made);
  if (!as_number || factor.second > 0) return place;
  return as_numbers(sources, row, place, numbers_of_levels(eh, variables, factors, row));
}

void columns_of_source(const DESIGN_SOURCES& sources, std::int32_t index, std::vector<std::size_t>& columns)
{
  const DESIGN_SOURCE& source = sources.list[static_cast<std::size_t>(index)];
  if (source.reads == Reads::counter) return;  // a record without a value has no level there, by intent
  if (source.reads == Reads::column || source.reads == Reads::level) columns.push_back(source.column);
  if (source.source >= 0) columns_of_source(sources, source.source, columns);
  if (source.second >= 0) columns_of_source(sources, source.second, columns);
}

}  // namespace tolvan
