#include "data/design_row.h"

#include <algorithm>
#include <cmath>

#include "base/text.h"
#include "data/polynomial_basis.h"
#include "data/spline_basis.h"

namespace tolvan {

namespace {

using Shape = DESIGN_COMPONENT::Shape;
using Pair = DESIGN_ROW::Pair;

/// L_LEVEL_ABOVE: the complaint about a level beyond the declared ones.
void L_LEVEL_ABOVE(ERROR_HANDLER& eh, const DESIGN_PLAN& plan, const DESIGN_TERM& term, std::int64_t records,
                   const RECORD_STATE& state)
{
  const Frame here{eh, __func__};
  const DESIGN_SOURCE& source = plan.sources.list[static_cast<std::size_t>(state.above)];
  const auto level = static_cast<std::int64_t>(state.above_level);
  if (source.is_pedigree) {
    eh.error(text("recoded pedigree identifier ", level, " in data record ", state.record, " exceeds maximum (",
                  source.levels, "), model term ", term.name));
    return;
  }
  eh.error(text("misspecification of model term ", term.name, ", actual number of levels exceeds the number declared [",
                source.levels, "], after processing ", state.record, " of ", records, " records"));
  eh.continuation(text("level ", level, " of ", source.name, " in data record ", state.record));
}

/// Levels in rising order, those that several members share once with their sum.
void merge(std::vector<Pair>& pairs, std::size_t from)
{
  const auto first = pairs.begin() + static_cast<std::ptrdiff_t>(from);
  std::sort(first, pairs.end(), [](const Pair& a, const Pair& b) { return a.place < b.place; });
  auto last = first;
  for (auto next = first; next != pairs.end(); ++next) {
    if (last != first && (last - 1)->place == next->place) {
      (last - 1)->value += next->value;
    } else {
      *last++ = *next;
    }
  }
  pairs.erase(last, pairs.end());
}

/// The pairs of a component with several; none where its value is missing.
void pairs_of(const DESIGN_PLAN& plan, const DESIGN_COMPONENT& component, DESIGN_ROW& row)
{
  std::vector<Pair>& part = row.part;
  part.clear();
  const auto put = [&](std::int64_t place, double value) {
    if (value != 0.0) part.push_back({place, value});
  };
  if (component.shape == Shape::nothing) return;
  if (component.shape == Shape::side_by_side || component.shape == Shape::overlaid) {
    for (std::size_t k = 0; k < component.members.size(); ++k) {
      const double x = read_source(plan.sources, component.members[k], row.state);
      if (is_no_value(x)) continue;
      if (component.shape == Shape::side_by_side) {
        put(static_cast<std::int64_t>(k), x);
      } else {
        put(static_cast<std::int64_t>(x) - 1, 1.0);
      }
    }
    if (component.shape == Shape::overlaid) merge(part, 0);
    return;
  }

  const double x = read_source(plan.sources, component.source, row.state);
  if (is_no_value(x)) return;
  if (component.shape == Shape::contrast) {
    const auto level = static_cast<std::int64_t>(x) - 1;
    if (level < component.levels) {
      put(level, 1.0);
    } else {
      for (std::int64_t l = 0; l < component.levels; ++l) put(l, -1.0);
    }
    return;
  }
  if (component.shape == Shape::file_row) {
    const DESIGN_BASIS& basis = *component.basis;
    const std::int64_t key = component.by_level ? basis.row_of_level[static_cast<std::size_t>(x) - 1] : basis.distinct.find(x);
    if (key == 0) {
      ++row.unknown_keys;
      return;
    }
    const double* values = basis.table.data() + (key - 1) * basis.columns;
    for (std::int64_t j = 0; j < basis.columns; ++j) put(j, values[j]);
    return;
  }

  const bool by_degree = component.shape == Shape::polynomial || component.shape == Shape::legendre;
  const std::span<double> z(row.basis.data(), static_cast<std::size_t>(by_degree ? component.degrees : component.levels));
  switch (component.shape) {
    case Shape::polynomial:
      orthogonal_polynomials(*component.basis, x, z);
      break;
    case Shape::legendre:
      legendre_polynomials(*component.basis, x, z);
      break;
    case Shape::spline:
      AIXSPL(*component.basis, x, z);
      break;
    default:
      BISQUBASISFUN(*component.basis, x, z);
  }
  const std::int64_t first = by_degree ? component.first_degree : 0;
  for (std::int64_t j = first; j < std::ssize(z); ++j) put(j - first, z[static_cast<std::size_t>(j)]);
}

/// Multiplies the pairs of the components so far with those of the next.
void multiply_in(const DESIGN_PLAN& plan, const DESIGN_COMPONENT& component, DESIGN_ROW& row)
{
  if (component.shape == Shape::value || component.shape == Shape::level) {
    const double x = read_source(plan.sources, component.source, row.state);
    if (is_no_value(x) || (component.shape == Shape::value && x == 0.0)) {
      row.pairs.clear();
      return;
    }
    const bool is_level = component.shape == Shape::level;
    const std::int64_t place = is_level ? static_cast<std::int64_t>(x) - 1 : 0;
    const double factor = (is_level ? 1.0 : x) * component.times;
    for (Pair& pair : row.pairs) pair = {pair.place * component.levels + place, pair.value * factor};
    return;
  }
  pairs_of(plan, component, row);
  row.spread.clear();
  for (const Pair& slow : row.pairs)
    for (const Pair& fast : row.part)
      row.spread.push_back({slow.place * component.levels + fast.place, slow.value * fast.value * component.times});
  row.pairs.swap(row.spread);
}

/// Brings the equations of a term and of those that joined it into rising order.
void merge_joined(std::size_t from, DESIGN_ROW& row)
{
  row.part.clear();
  for (std::size_t k = from; k < row.equation.size(); ++k) row.part.push_back({row.equation[k], row.value[k]});
  merge(row.part, 0);
  row.equation.resize(from);
  row.value.resize(from);
  for (const Pair& pair : row.part) {
    if (pair.value == 0.0) continue;
    row.equation.push_back(static_cast<std::int32_t>(pair.place));
    row.value.push_back(pair.value);
  }
}

}  // namespace

void start_rows(const DESIGN_PLAN& plan, DESIGN_ROW& row)
{
  start_records(plan.sources, row.state);
  std::int64_t widest = 1;
  for (const DESIGN_TERM& term : plan.terms)
    for (const DESIGN_COMPONENT& component : term.components) widest = std::max(widest, component.most);
  row.basis.assign(static_cast<std::size_t>(widest), 0.0);
  row.unknown_keys = 0;
}

void L_FORM_ROW(ERROR_HANDLER& eh, const DESIGN_PLAN& plan, std::int64_t records, DESIGN_ROW& row)
{
  const Frame here{eh, __func__};
  row.equation.clear();
  row.value.clear();
  std::size_t own = 0;  // where the pairs of the last term that joins no other begin
  for (const DESIGN_TERM& term : plan.terms) {
    row.pairs.assign(1, {0, 1.0});
    for (const DESIGN_COMPONENT& component : term.components) {
      multiply_in(plan, component, row);
      if (row.pairs.empty()) break;
    }
    if (row.state.above >= 0) {
      L_LEVEL_ABOVE(eh, plan, term, records, row.state);
      return;
    }
    if (!term.joins) own = row.equation.size();
    for (const Pair& pair : row.pairs) {
      if (!std::isfinite(pair.value)) {
        eh.error(text("the value of model term ", term.name, " is too large in data record ", row.state.record));
        return;
      }
      if (pair.value == 0.0) continue;
      row.equation.push_back(static_cast<std::int32_t>(term.first + pair.place));
      row.value.push_back(pair.value);
    }
    if (term.joins && !row.pairs.empty()) merge_joined(own, row);
  }
}

}  // namespace tolvan
