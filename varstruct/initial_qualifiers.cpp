// What a term says about its structure beside values: use, coord, sing, subsection.  Routine:
// APPLY_QUALIFIERS.
#include <algorithm>
#include <cmath>
#include <span>

#include "base/numbers.h"
#include "base/text.h"
#include "varstruct/distance_setup.h"
#include "varstruct/followers.h"
#include "varstruct/initial_values.h"
#include "varstruct/labels.h"

namespace tolvan {

namespace {

constexpr std::int64_t metric = 6;                        // model code
constexpr std::int64_t correlations[] = {1, 2, 3, 5, 6, 14};  // of the models that can be cut into pieces

/// The first row of a structure whose model is one of some; null for none.
STRUCTURE_ROW* row_of(const PARAMETER_RANGE& range, std::span<const std::int64_t> codes)
{
  for (std::int64_t r = range.first_row; r < range.first_row + range.row_count; ++r) {
    STRUCTURE_ROW& row = (*range.rows)[static_cast<std::size_t>(r)];
    if (std::find(codes.begin(), codes.end(), row.model) != codes.end()) return &row;
  }
  return nullptr;
}

/// L_USE: equates the parameters of a structure with those of another one.
void L_USE(ERROR_HANDLER& eh, const QUALIFIER_DATA& data, const std::string& other, const std::string& term,
           const PARAMETER_RANGE& range, VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  const PARAMETER_RANGE source = find_structure(data.factors, data.terms, model, other);
  if (source.rows == nullptr) {
    eh.error(text("the term ", other, " used when setting error structure for ", term,
                  " doe not exist in the model"));  // sic
    return;
  }
  bool same = source.count == range.count && source.row_count == range.row_count;
  for (std::int64_t r = 0; same && r < range.row_count; ++r) {
    const STRUCTURE_ROW& a = (*range.rows)[static_cast<std::size_t>(range.first_row + r)];
    const STRUCTURE_ROW& b = (*source.rows)[static_cast<std::size_t>(source.first_row + r)];
    same = a.model == b.model && a.sub_code == b.sub_code && a.parameters == b.parameters;
  }
  if (!same || source.first == range.first) {
    eh.error(text("unable to find which block of gamma values are associated with ", term));
    eh.continuation(text("its structure is not that of ", other));
    return;
  }
  for (std::int64_t k = 0; k < range.count; ++k) {
    if (model.profiled &&
        (range.first + k == model.residual_parameter || source.first + k == model.residual_parameter)) {
      REFUSE_PROFILED_RESIDUAL(eh, term);
      return;
    }
    link_parameter(model, range.first + k, source.first + k, 1.0);
  }
  eh.note(text("variance structure for ", term, " equated to ", other, " in ",
               range.section >= 0 ? "residual" : "random"));
}

/// L_COORD: the coordinates of the levels: x of all, then y of all in two dimensions.
void L_COORD(ERROR_HANDLER& eh, const QUALIFIER_DATA& data, const std::vector<double>& coord,
             const std::string& term, const PARAMETER_RANGE& range, VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  STRUCTURE_ROW* row = row_of(range, {&metric, 1});
  if (row == nullptr) {
    eh.error(text("No cordinates required for ", term));  // sic
    return;
  }
  const auto n = static_cast<std::size_t>(row->size);
  const bool two = row->factor > 0 && data.factors.row(row->factor).second > 0;
  const bool fits = coord.size() == 2 * n || (!two && coord.size() == n);
  if (!fits) {
    eh.error(text("wrong number of coordinates specified for ", term));
    eh.continuation(text("number expected = ", two ? 2 * n : n, ", number supplied = ", coord.size()));
    return;
  }
  if (std::any_of(coord.begin(), coord.end(), [](double x) { return is_no_value(x); })) {
    eh.error(text("something went wrong whilst processing the coord information for ", term));
    return;
  }
  if (row->coordinates < 0) {
    row->coordinates = static_cast<std::int64_t>(model.coordinates.size());
    model.coordinates.emplace_back();
  }
  COORDINATES& at = model.coordinates[static_cast<std::size_t>(row->coordinates)];
  const auto half = coord.begin() + static_cast<std::ptrdiff_t>(n);
  at.x.assign(coord.begin(), half);
  at.y.assign(half, coord.end());
}

/// L_SUBSECTION: cuts a series, or another correlation model, into independent pieces where the level of another factor changes.
void L_SUBSECTION(ERROR_HANDLER& eh, const QUALIFIER_DATA& data, const std::string& name,
                  const std::string& term, const PARAMETER_RANGE& range, VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  std::int64_t variable = 0;
  for (const TERM_ROW& t : data.terms.rows) {
    if (t.block == Block::response || t.block == Block::residual || t.name != name) continue;
    const auto [from, to] = t.components();
    const std::int64_t row = from == to ? data_row(data.factors, from) : 0;
    if (row > 0) variable = data.factors.row(row).variable;
  }
  if (variable == 0) {
    eh.error(
        text("the term ", name, " used when subsection for ", term, " doe not exist in the model"));  // sic
    return;
  }
  STRUCTURE_ROW* row = row_of(range, correlations);
  if (row == nullptr) {
    eh.not_implemented(
        text("subsection (", name, ") of ", term, " without a correlation model is not implemented"));
    return;
  }
  const auto column = static_cast<std::size_t>(variable - 1);
  std::vector<double> value(static_cast<std::size_t>(row->size),
                            no_value);  // of each level, from its first record
  const auto meet = [&](std::int64_t level, double x) {
    if (level < 0 || level >= row->size || is_no_value(x)) return;
    double& known = value[static_cast<std::size_t>(level)];
    if (is_no_value(known)) known = x;
  };
  if (range.section >= 0) {
    const RESIDUAL_SECTION& section = model.sections[static_cast<std::size_t>(range.section)];
    std::int64_t inner = 1;  // records between two levels
    for (std::int64_t r = section.first_row + section.rows; r-- > section.first_row;) {
      const STRUCTURE_ROW& other = model.residual[static_cast<std::size_t>(r)];
      if (&other == row) break;
      inner *= other.size;
    }
    for (std::int64_t r = 0; r < section.records; ++r) {
      const std::int64_t record = data.design.record[static_cast<std::size_t>(section.first_record + r)];
      meet(r / inner % row->size, data.store.row(record - 1)[column]);
    }
  } else {
    const std::int64_t own = row->factor > 0 ? data_row(data.factors, row->factor) : 0;
    if (own == 0 || !data.factors.row(own).is_factor) {
      eh.not_implemented(text("subsection (", name, ") of ", term,
                              ", whose levels are not those of a factor, is not implemented"));
      return;
    }
    const auto levels = static_cast<std::size_t>(data.factors.row(own).variable - 1);
    for (std::int64_t r = 0; r < data.store.records(); ++r) {
      const auto record = data.store.row(r);
      if (!is_no_value(record[levels])) meet(static_cast<std::int64_t>(record[levels]) - 1, record[column]);
    }
  }
  std::vector<std::int64_t> starts;
  double last = value.empty() ? no_value : value.front();
  for (std::size_t k = 1; k < value.size(); ++k) {
    if (is_no_value(value[k]) || value[k] == last) continue;  // a level without records goes on
    if (!is_no_value(last)) starts.push_back(static_cast<std::int64_t>(k));
    last = value[k];
  }
  if (starts.empty()) return;
  row->segments = static_cast<std::int64_t>(model.segments.size());
  model.segments.push_back(std::move(starts));
}

}  // namespace

PARAMETER_RANGE parameters_of(VARIANCE_MODEL& model, const TERM_STRUCTURE& structure)
{
  PARAMETER_RANGE range{.rows = &model.rows, .first_row = structure.first_row, .row_count = structure.rows};
  for (std::int64_t r = structure.first_row; r < structure.first_row + structure.rows; ++r) {
    const STRUCTURE_ROW& row = model.rows[static_cast<std::size_t>(r)];
    if (r == structure.first_row) range.first = row.first;
    range.count += row.parameters;
  }
  return range;
}

PARAMETER_RANGE parameters_of(VARIANCE_MODEL& model, const RESIDUAL_SECTION& section)
{
  const TERM_STRUCTURE rows{.first_row = section.first_row, .rows = section.rows};
  PARAMETER_RANGE range{.rows = &model.residual,
                        .first_row = section.first_row,
                        .row_count = section.rows,
                        .scale = section.scale};
  range.section = &section - model.sections.data();
  for (std::int64_t r = rows.first_row; r < rows.first_row + rows.rows; ++r) {
    const STRUCTURE_ROW& row = model.residual[static_cast<std::size_t>(r)];
    if (r == rows.first_row) range.first = row.first;
    range.count += row.parameters;
  }
  if (section.scale >= 0) {
    if (range.count == 0) range.first = section.scale;
    ++range.count;
  }
  return range;
}

PARAMETER_RANGE find_structure(const FACTOR_TABLE& factors, const TERM_TABLE& terms, VARIANCE_MODEL& model,
                               std::string_view name)
{
  for (const TERM_STRUCTURE& structure : model.terms) {
    const TERM_ROW& term = terms.rows[static_cast<std::size_t>(structure.term)];
    if (term.name == name || structure_label(factors, terms, structure.term) == name)
      return parameters_of(model, structure);
  }
  for (const RESIDUAL_SECTION& section : model.sections) {
    if (section.label == name || (!section.name.empty() && section.name == name))
      return parameters_of(model, section);
  }
  return {};
}

void APPLY_QUALIFIERS(ERROR_HANDLER& eh, const QUALIFIER_DATA& data, const IVALUE_DATA& given,
                      const std::string& term, const PARAMETER_RANGE& range, VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  if (range.rows == nullptr || range.row_count == 0) {
    eh.error(text("unable to find which block of struc values are associated with ", term));
    return;
  }
  if (!given.use.empty()) L_USE(eh, data, given.use, term, range, model);
  if (eh.terminate()) return;
  if (!given.coord.empty()) L_COORD(eh, data, given.coord, term, range, model);
  if (eh.terminate()) return;
  if (given.sing % 2 != 0) {
    eh.error(text("invalid number of levels for SING option, was expecting an even number, observed = ",
                  given.sing));
  } else if (given.sing != 0 && (range.section >= 0 || !given.subsection.empty())) {
    eh.not_implemented(text("sing of ", term, range.section >= 0 ? ", in the residual," : ", together with subsection,", " is not implemented"));
  }
  if (eh.terminate()) return;
  if (!given.subsection.empty()) L_SUBSECTION(eh, data, given.subsection, term, range, model);
}

}  // namespace tolvan
