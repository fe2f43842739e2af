// What design functions need of the data as a whole: distinct values, ranges, knots, counts.  Routine: FORM_DESIGN_BASES.
#include <algorithm>
#include <cmath>
#include <memory>

#include "base/memory.h"
#include "base/text.h"
#include "data/design_matrix.h"
#include "data/design_source.h"
#include "data/file_covariates.h"
#include "data/polynomial_basis.h"
#include "data/spline_basis.h"

namespace tolvan {

namespace {

/// What one pass over the records gathers for a factor row.
struct Gatherer {
  std::int64_t row = 0;
  std::int32_t source = -1, second = -1;
  bool wants_distinct = false;
  std::int64_t most_distinct = 0;  // more are not kept; 0: no limit
  std::int64_t present = 0;        // values; of uni, its highest level
  double least = 0.0, most = 0.0;
  std::shared_ptr<DESIGN_BASIS> basis = std::make_shared<DESIGN_BASIS>();

  bool overflown() const { return most_distinct > 0 && basis->distinct.size() > most_distinct; }
  void take(double x, double y)
  {
    least = present == 0 ? x : std::min(least, x);
    most = present == 0 ? x : std::max(most, x);
    ++present;
    if (wants_distinct && !overflown()) basis->distinct.add(x, y);
  }
};

double argument(const FACTOR_ROW& factor, std::size_t k)
{
  return k < factor.arguments.size() ? factor.arguments[k] : 0.0;
}

bool needs_basis(DesignKind kind)
{
  switch (kind) {
    case DesignKind::con:
    case DesignKind::spl:
    case DesignKind::fac:
    case DesignKind::dev:
    case DesignKind::pol:
    case DesignKind::leg:
    case DesignKind::bis:
    case DesignKind::uni:
    case DesignKind::mbf:
      return true;
    default:
      return false;
  }
}

/// True if everything that a row reads is known.
bool is_ready(const FACTOR_TABLE& factors, std::int64_t row)
{
  if (row == 0) return true;
  const FACTOR_ROW& factor = factors.row(factors.original(row));
  if (needs_basis(factor.design_kind()) && factor.basis == nullptr) return false;
  return is_ready(factors, factor.source) && is_ready(factors, factor.kind != 0 ? factor.second : 0);
}

/// L_TOO_FEW_VALUES: the complaint about a function that its data can't determine.
void L_TOO_FEW_VALUES(ERROR_HANDLER& eh, const FACTOR_TABLE& factors, const FACTOR_ROW& factor, std::int64_t needed,
                      std::int64_t present)
{
  const Frame here{eh, __func__};
  eh.error(text(factor.shown(), " needs at least ", needed, " distinct values of ", factors.row(factor.source).shown(), ", ",
                present, present == 1 ? " is" : " are", " present"));
}

/// L_START: what to gather for a row.
void L_START(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors,
             Gatherer& gather, DESIGN_SOURCES& sources)
{
  const Frame here{eh, __func__};
  const FACTOR_ROW& factor = factors.row(gather.row);
  const DesignKind kind = factor.design_kind();
  if (kind == DesignKind::uni) {
    // Its own source counts the records.
    gather.source = L_ADD_SOURCE(eh, variables, factors, gather.row, false, sources);
    return;
  }
  if (kind == DesignKind::con || kind == DesignKind::mbf) return;
  gather.source = L_ADD_SOURCE(eh, variables, factors, factor.source, true, sources);
  if (eh.terminate()) return;
  if (kind == DesignKind::fac && factor.second > 0) {
    gather.second = L_ADD_SOURCE(eh, variables, factors, factor.second, true, sources);
    if (eh.terminate()) return;
  }
  gather.wants_distinct = kind != DesignKind::bis;
  if (kind == DesignKind::spl) {
    const auto k = static_cast<std::int64_t>(argument(factor, 0));
    gather.wants_distinct = factor.arguments.size() < 2;
    gather.most_distinct = k == 0 ? options(Slot::knots) : k;
  }
  if (kind == DesignKind::leg) gather.most_distinct = 1;  // whether there are two is all that matters
}

/// L_MAKE_TABLES: does work that takes a number of tables of doubles, if the machine has the memory.
template <class Work>
void L_MAKE_TABLES(ERROR_HANDLER& eh, std::int64_t tables, std::int64_t rows, std::int64_t columns, Work&& work)
{
  const Frame here{eh, __func__};
  std::int64_t bytes = 0;
  if (!multiply_sizes(rows, columns, bytes) ||
      !multiply_sizes(bytes, tables * static_cast<std::int64_t>(sizeof(double)), bytes)) {
    eh.out_of_memory();
  } else if (bytes > machine_memory_bytes() || !attempt(work)) {
    eh.out_of_memory(bytes);
  }
}

/// L_FINISH_SPLINE: the knots of a spline and its design there.
void L_FINISH_SPLINE(ERROR_HANDLER& eh, const FACTOR_TABLE& factors, const FACTOR_ROW& factor, Gatherer& gather)
{
  const Frame here{eh, __func__};
  DESIGN_BASIS& basis = *gather.basis;
  if (factor.arguments.size() > 1) {
    basis.points.assign(factor.arguments.begin() + 1, factor.arguments.end());
    std::sort(basis.points.begin(), basis.points.end());
    basis.points.erase(std::unique(basis.points.begin(), basis.points.end()), basis.points.end());
    if (basis.points.size() < 3) {
      eh.error(text(factor.shown(), " needs at least 3 different knots, ", basis.points.size(), " were given"));
      return;
    }
  } else if (gather.overflown()) {
    if (gather.most_distinct < 3) {
      eh.error(text(factor.shown(), " needs at least 3 knots, ", gather.most_distinct, " were asked for"));
      return;
    }
    basis.points = equally_spaced(gather.least, gather.most, gather.most_distinct);
  } else {
    basis.points = basis.distinct.values();
    if (basis.points.size() < 3) {
      L_TOO_FEW_VALUES(eh, factors, factor, 3, std::ssize(basis.points));
      return;
    }
  }
  const std::int64_t knots = std::ssize(basis.points);
  L_MAKE_TABLES(eh, 2, knots, knots, [&] { spline_basis(basis); });
  basis.distinct.clear();
}

/// L_NAME_LEVELS: labels for the distinct levels of a factor whose own labels are no numbers.
void L_NAME_LEVELS(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors, const FACTOR_ROW& factor,
                   DESIGN_BASIS& basis)
{
  const Frame here{eh, __func__};
  const FACTOR_ROW& source = factors.row(factors.original(factor.source));
  if (!source.is_factor || source.design_kind() != DesignKind::none || source.variable == 0 || factor.second > 0) return;
  const VARIABLE& variable = variables.row(source.variable);
  double number = 0.0;
  std::int64_t l = 1;
  while (l <= source.levels && read_real(GET_LEVEL_NAME(eh, variable, l), number) && !eh.terminate()) ++l;
  if (l > source.levels || eh.terminate()) return;  // the values are the labels
  for (l = 1; l <= basis.distinct.size(); ++l)
    basis.names.push_back(GET_LEVEL_NAME(eh, variable, static_cast<std::int64_t>(basis.distinct.x(l))));
}

/// L_FINISH: the basis of a row from what was gathered.
void L_FINISH(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors, Gatherer& gather)
{
  const Frame here{eh, __func__};
  const FACTOR_ROW& factor = factors.row(gather.row);
  DESIGN_BASIS& basis = *gather.basis;
  basis.distinct.sort();
  basis.columns = factor.levels;
  switch (factor.design_kind()) {
    case DesignKind::con:
      basis.columns = factors.row(factor.source).levels - 1;
      if (basis.columns < 1) L_TOO_FEW_VALUES(eh, factors, factor, 2, basis.columns + 1);
      return;
    case DesignKind::spl:
      L_FINISH_SPLINE(eh, factors, factor, gather);
      return;
    case DesignKind::fac:
    case DesignKind::dev:
      basis.columns = basis.distinct.size();
      L_NAME_LEVELS(eh, variables, factors, factor, basis);
      return;
    case DesignKind::pol:
    case DesignKind::leg: {
      const DegreeRange range = degree_range(static_cast<std::int64_t>(argument(factor, 0)));
      const bool is_pol = factor.design_kind() == DesignKind::pol;
      const std::int64_t degree = range.first + range.columns - 1;
      const std::int64_t needed = is_pol ? degree + 1 : 2;
      basis.columns = range.columns;
      if (basis.distinct.size() < std::max<std::int64_t>(needed, 1)) {
        L_TOO_FEW_VALUES(eh, factors, factor, needed, basis.distinct.size());
        return;
      }
      scale_to_unit_range(gather.least, gather.most, basis);
      if (basis.half_range == 0.0) basis.half_range = 1.0;  // degree 0 alone
      if (is_pol) {
        L_MAKE_TABLES(eh, 2, basis.distinct.size(), degree + 1,
                      [&] { orthogonal_recursion(basis.distinct.values(), degree, basis); });
      }
      basis.distinct.clear();
      return;
    }
    case DesignKind::bis: {
      const auto knots = static_cast<std::int64_t>(argument(factor, 0));
      if (knots < 2 || !(gather.least < gather.most)) {
        L_TOO_FEW_VALUES(eh, factors, factor, 2, gather.present > 0 ? 1 : 0);
        return;
      }
      basis.points = equally_spaced(gather.least, gather.most, knots);
      basis.columns = knots;
      return;
    }
    case DesignKind::uni: {
      const auto declared = static_cast<std::int64_t>(argument(factor, 1));
      const std::int64_t present = gather.present > 0 ? static_cast<std::int64_t>(gather.most) : 0;
      basis.columns = declared > 0 ? declared : present;
      if (declared > 0 && present > declared) {
        eh.error(text("inconsistent number of levels declared for ", factor.shown(), ", ", declared,
                      " levels declared but ", present, " are present"));
      }
      return;
    }
    default:
      return;
  }
}

}  // namespace

void FORM_DESIGN_BASES(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const JsonNode& request,
                       const USER_DATASET_STORE& datasets, const COVARIATE_TABLES& tables, const VARIABLE_TABLE& variables,
                       const DATA_STORE& store, FACTOR_TABLE& factors)
{
  const Frame here{eh, __func__};
  for (;;) {
    // Functions of functions wait until the inner ones are known.
    SET_FACTOR_LEVELS(eh, variables, store.records(), 0, factors);
    DESIGN_SOURCES sources;
    std::vector<Gatherer> gatherers;
    for (std::int64_t row = 1; row <= factors.count(); ++row) {
      const FACTOR_ROW& factor = factors.row(row);
      if (factor.copy || !needs_basis(factor.design_kind()) || factor.basis != nullptr) continue;
      if (!is_ready(factors, factor.source) || !is_ready(factors, factor.second)) continue;
      Gatherer gather{.row = row};
      L_START(eh, options, variables, factors, gather, sources);
      if (eh.terminate()) return;
      gatherers.push_back(std::move(gather));
    }
    if (gatherers.empty()) return;

    RECORD_STATE state;
    start_records(sources, state);
    const bool reads = std::any_of(gatherers.begin(), gatherers.end(), [](const Gatherer& g) { return g.source >= 0; });
    for (std::int64_t r = 0; reads && r < store.records(); ++r) {
      next_record(sources, store.row(r), r + 1, state);
      for (Gatherer& gather : gatherers) {
        if (gather.source < 0) continue;
        const double x = read_source(sources, gather.source, state);
        const double y = gather.second < 0 ? 0.0 : read_source(sources, gather.second, state);
        if (is_no_value(x) || (gather.second >= 0 && is_no_value(y))) continue;
        gather.take(x, y);
      }
    }
    DST_CHECK(eh, store);
    if (eh.terminate()) return;
    for (Gatherer& gather : gatherers) {
      L_FINISH(eh, variables, factors, gather);
      if (eh.terminate()) return;
      FACTOR_ROW& factor = factors.row(gather.row);
      if (factor.design_kind() == DesignKind::mbf) {
        READ_FILE_COVARIATES(eh, request, datasets, tables, variables, factors, gather.row, *gather.basis);
        if (eh.terminate()) return;
      }
      factor.basis = std::move(gather.basis);
    }
  }
}

}  // namespace tolvan
