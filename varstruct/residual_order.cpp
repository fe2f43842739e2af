// The place of every analysis record in the residual, and the design in that order.
// Routines: SORTRCOV, NOT_AUTOAR_MODEL_CHECKS.
#include <algorithm>
#include <limits>
#include <numeric>

#include "base/memory.h"
#include "base/numbers.h"
#include "base/text.h"
#include "varstruct/residual_levels.h"
#include "varstruct/residual_sections.h"

namespace tolvan {

namespace {

using Rows = std::vector<std::int64_t>;  // of the design, from 0

/// The level of a record in the factor that tells sections apart.
double level_of(const DATA_STORE& store, const DESIGN_MTX& design, std::int64_t condition, std::int64_t row)
{
  const auto r = static_cast<std::size_t>(row);
  if (condition == trait_condition) return static_cast<double>(design.trait_of(r));
  return store.row(design.record[r] - 1)[static_cast<std::size_t>(condition - 1)];
}

/// L_FIND_SECTIONS: the design rows of each section, in the order of the data.
void L_FIND_SECTIONS(ERROR_HANDLER& eh, const DATA_STORE& store, const DESIGN_MTX& design,
                     const RESIDUAL_MODEL& residual, std::vector<Rows>& rows)
{
  const Frame here{eh, __func__};
  const std::vector<RESIDUAL_TERM>& sections = residual.sections;
  rows.assign(sections.size(), {});
  std::int64_t outside = 0;
  for (std::int64_t r = 0; r < design.rows(); ++r) {
    std::size_t section = 0;
    if (sections.front().condition != 0) {
      const double level = level_of(store, design, sections.front().condition, r);
      // The sections rise with their levels.
      const auto found =
          std::lower_bound(sections.begin(), sections.end(), level,
                           [](const RESIDUAL_TERM& s, double l) { return static_cast<double>(s.level) < l; });
      if (is_no_value(level) || found == sections.end() || static_cast<double>(found->level) != level) {
        ++outside;
        continue;
      }
      section = static_cast<std::size_t>(found - sections.begin());
    }
    rows[section].push_back(r);
  }
  const auto filled = static_cast<std::int64_t>(
      std::count_if(rows.begin(), rows.end(), [](const Rows& s) { return !s.empty(); }));
  if (filled < static_cast<std::int64_t>(sections.size())) {
    eh.error("Fewer sections of data than expected");
    eh.continuation(text("Data does not have ", sections.size(), " sections"));
  } else if (outside > 0) {
    eh.error("R structures do not match records in data.");
    eh.continuation(text("number of sections: ", sections.size(), ", total size of sections: ",
                         design.rows() - outside, ", number of rows in design matrix: ", design.rows()));
  }
}

/// L_COMPLAIN: the complaint about a section whose product is not its records.
void L_COMPLAIN(ERROR_HANDLER& eh, const FACTOR_TABLE& factors, const MODEL_INFO& info,
                const RESIDUAL_MODEL& residual, std::size_t s, std::int64_t records, std::int64_t product,
                bool metric)
{
  const Frame here{eh, __func__};
  const RESIDUAL_TERM& section = residual.sections[s];
  const bool several = residual.sections.size() > 1;
  if (is_multivariate_residual(factors, section)) {
    if (!info.has_mv) {
      eh.error("include mv in the model if there are any missing values in the data");
    } else {
      eh.error("R structures do not match records in data.");
    }
    eh.continuation(residual.is_default
                        ? text("Error structures are the wrong size, they imply ", product,
                               " data cells, but the data has ", records)
                        : text("there are ", records, " data records but the residual model implies ",
                               product, " data records"));
    return;
  }
  if (metric && section.components.size() > 1) {
    // The other components tell how often each point should stand.
    for (const RESIDUAL_COMPONENT& component : section.components) {
      if (!is_metric(component.function)) continue;
      const std::int64_t repeats = product / std::max<std::int64_t>(component.size, 1);
      const std::int64_t expected = repeats > 0 ? records / repeats : 0;
      eh.error(text(component.size, " unique points but expected to find ", expected, " in the ", records,
                    " records assigned to this section, expected to find ", repeats, " repeats of ", expected,
                    " coordinates"));
      eh.continuation("failed while setting up the power model");
      return;
    }
  }
  if (section.components.size() == 2 && product > records) {
    eh.error("Spatial Layout is not rectangular grid");
    eh.continuation(text("layout error in section ", s + 1, ": ", product - records, " of its ", product,
                         " cells have no record"));
    eh.continuation("mv in the model keeps records whose response is missing, the options rowfactor and columnfactor add plots without a record");
    return;
  }
  if (several) {
    eh.error(text("layout error in section ", s + 1));
    eh.continuation(text("there are ", records, " data records but the residual model implies ", product,
                         " data records"));
  } else {
    eh.error(text("there are ", records, " data records but the residual model implies ", product,
                  " data records"));
  }
  eh.continuation("R structures do not match records in data.");
}

/// L_PLACE_SECTION: the place of each record of a section within it.
void L_PLACE_SECTION(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors,
                     const MODEL_INFO& info, const DATA_STORE& store, const DESIGN_MTX& design,
                     const Rows& rows, std::size_t s, RESIDUAL_MODEL& residual,
                     std::vector<std::int64_t>& place)
{
  const Frame here{eh, __func__};
  RESIDUAL_TERM& section = residual.sections[s];
  const auto records = static_cast<std::int64_t>(rows.size());
  place.assign(rows.size(), 0);
  const bool all_levels = residual.sections.size() == 1;
  const std::size_t n = section.components.size();
  const RESIDUAL_COMPONENT& first = section.components.front();
  if (n == 1 && is_units(factors, first.factor) && !is_metric(first.function) && info.traits() == 1) {
    section.components.front().size = records;  // in whatever order
    std::iota(place.begin(), place.end(), std::int64_t{0});
    return;
  }
  std::vector<LEVEL_PLAN> plans;
  for (const RESIDUAL_COMPONENT& component : section.components) plans.push_back(plan_of(factors, component));
  const auto metrics =
      std::count_if(plans.begin(), plans.end(), [](const LEVEL_PLAN& p) { return p.metric; });

  // What has no distances comes first: it leaves a number of points to the one component that has.
  std::vector<std::vector<std::int64_t>> level(n);
  std::int64_t product = 1;
  const auto find = [&](std::size_t c, std::int64_t points) {
    L_FIND_LEVELS(eh, variables, factors, store, design, rows, plans[c], points, all_levels,
                  section.components[c], level[c]);
    if (__builtin_mul_overflow(product, section.components[c].size, &product))
      product = std::numeric_limits<std::int64_t>::max();
  };
  for (std::size_t c = 0; c < n && !eh.terminate(); ++c) {
    if (!plans[c].metric) find(c, 0);
  }
  for (std::size_t c = 0; c < n && !eh.terminate(); ++c) {
    if (plans[c].metric)
      find(c, metrics == 1 && product > 0 && records % product == 0 ? records / product : 0);
  }
  if (eh.terminate()) return;
  std::int64_t duplicate = -1;
  if (product == records) {
    for (std::size_t c = 0; c < n; ++c) {
      for (std::size_t i = 0; i < place.size(); ++i)
        place[i] = place[i] * section.components[c].size + level[c][i];
    }
    std::vector<char> taken(rows.size(), 0);
    for (std::size_t i = 0; i < place.size() && duplicate < 0; ++i) {
      char& cell = taken[static_cast<std::size_t>(place[i])];
      if (cell != 0) duplicate = static_cast<std::int64_t>(i);
      cell = 1;
    }
    if (duplicate < 0) return;
    eh.error(section.components.size() == 2 ? std::string("Spatial Layout is not rectangular grid")
                                            : text("layout error in section ", s + 1));
    eh.continuation(text("data record ",
                         design.record[static_cast<std::size_t>(rows[static_cast<std::size_t>(duplicate)])],
                         " falls on a place that another record has"));
    eh.continuation("R structures do not match records in data.");
    return;
  }
  L_COMPLAIN(eh, factors, info, residual, s, records, product, metrics > 0);
}

/// L_PRESORTED: takes the records of a section as they stand, where no column of the data tells their levels.
void L_PRESORTED(ERROR_HANDLER& eh, const FACTOR_TABLE& factors, std::int64_t records, std::size_t s,
                 RESIDUAL_MODEL& residual)
{
  const Frame here{eh, __func__};
  RESIDUAL_TERM& section = residual.sections[s];
  std::int64_t product = 1;
  for (RESIDUAL_COMPONENT& component : section.components) {
    const FACTOR_ROW& factor = factors.row(component.factor);
    component.size = is_units(factors, component.factor) ? records : factor.levels;
    product *= component.size;
    if (!is_metric(component.function)) continue;
    component.coordinates.x = factor.dist;
    for (std::int64_t l = 1; factor.dist.empty() && l <= component.size; ++l) component.coordinates.x.push_back(static_cast<double>(l));
    if (std::ssize(component.coordinates.x) == component.size) continue;
    eh.error(text("wrong number of coordinates specified for ", factor.shown()));
    return;
  }
  if (!residual.presorted) {
    eh.warning("Data is assumed presorted to match R structure sections");
    eh.continuation(text("Assuming data is pre-sorted: ", section.name));
  }
  residual.presorted = true;
  if (product != records) {
    eh.error(text("there are ", records, " data records but the residual model implies ", product,
                  " data records"));
  }
}

template <class T>
void permute(std::vector<T>& a, const Rows& from)
{
  if (a.empty()) return;
  std::vector<T> moved;
  moved.reserve(a.size());
  for (const std::int64_t r : from) moved.push_back(a[static_cast<std::size_t>(r)]);
  a = std::move(moved);
}

/// L_REORDER: puts the rows of the design in a new order; from[k] is the row that comes to k.
void L_REORDER(ERROR_HANDLER& eh, const Rows& from, DESIGN_MTX& design)
{
  const Frame here{eh, __func__};
  const auto n = static_cast<std::size_t>(design.rows());
  std::vector<std::int64_t> start;
  std::vector<std::int32_t> equation;
  std::vector<double> value;
  if (!reserve(eh, start, design.rows() + 1) ||
      !reserve(eh, equation, static_cast<std::int64_t>(design.equation.size())) ||
      !reserve(eh, value, static_cast<std::int64_t>(design.value.size()))) {
    return;
  }
  start.push_back(0);
  for (const std::int64_t r : from) {
    const auto equations = design.equations(r);
    const auto values = design.values(r);
    equation.insert(equation.end(), equations.begin(), equations.end());
    value.insert(value.end(), values.begin(), values.end());
    start.push_back(static_cast<std::int64_t>(equation.size()));
  }
  design.start = std::move(start);
  design.equation = std::move(equation);
  design.value = std::move(value);
  permute(design.response, from);
  permute(design.offset, from);
  permute(design.weight, from);
  permute(design.record, from);
  permute(design.trait, from);
  if (design.mv.empty()) return;
  std::vector<std::int64_t> to(n);
  for (std::size_t k = 0; k < n; ++k) to[static_cast<std::size_t>(from[k])] = static_cast<std::int64_t>(k);
  for (std::int64_t& row : design.mv) row = to[static_cast<std::size_t>(row)];
}

}  // namespace

void SORTRCOV(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors,
              const MODEL_INFO& info, const DATA_STORE& store, RESIDUAL_MODEL& residual, DESIGN_MTX& design)
{
  const Frame here{eh, __func__};
  std::vector<Rows> rows;
  L_FIND_SECTIONS(eh, store, design, residual, rows);
  if (eh.terminate()) return;

  Rows from;
  if (!reserve(eh, from, design.rows())) return;
  std::vector<std::int64_t> place;
  for (std::size_t s = 0; s < residual.sections.size(); ++s) {
    RESIDUAL_TERM& section = residual.sections[s];
    section.first_record = static_cast<std::int64_t>(from.size());
    section.records = static_cast<std::int64_t>(rows[s].size());
    const bool known = std::all_of(section.components.begin(), section.components.end(),
                                   [&](const RESIDUAL_COMPONENT& c) { return plan_of(factors, c).known; });
    if (!known) {
      L_PRESORTED(eh, factors, section.records, s, residual);
      place.resize(rows[s].size());
      std::iota(place.begin(), place.end(), std::int64_t{0});
    } else {
      L_PLACE_SECTION(eh, variables, factors, info, store, design, rows[s], s, residual, place);
    }
    if (eh.terminate()) return;
    const std::size_t first = from.size();
    from.resize(first + place.size());
    for (std::size_t i = 0; i < place.size(); ++i)
      from[first + static_cast<std::size_t>(place[i])] = rows[s][i];
  }
  if (!std::is_sorted(from.begin(), from.end())) L_REORDER(eh, from, design);
}

void NOT_AUTOAR_MODEL_CHECKS(ERROR_HANDLER& eh, const FACTOR_TABLE& factors, const MODEL_INFO& info,
                             const DESIGN_MTX& design, const RESIDUAL_MODEL& residual,
                             const VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  const std::int64_t traits = info.traits();
  if (is_multivariate_residual(factors, residual.sections.front()) && residual.sections.size() == 1) {
    const std::int64_t found = model.residual.size() == 2 ? model.residual[1].size : 0;
    if (found != traits) {
      eh.error(text("when checking the R structures, expected the second dimension of error to have ", traits,
                    " not ", found, " levels"));
      return;
    }
  }
  std::int64_t total = 0;
  for (const RESIDUAL_SECTION& section : model.sections) {
    std::int64_t product = 1;
    for (std::int64_t r = section.first_row; r < section.first_row + section.rows; ++r) {
      product *= model.residual[static_cast<std::size_t>(r)].size;
    }
    if (product != section.records || section.first_record != total) {
      eh.internal("issue when running model checks on R structures");
      return;
    }
    total += section.records;
  }
  if (total != design.rows()) eh.internal("issue when running model checks on R structures");
}

}  // namespace tolvan
