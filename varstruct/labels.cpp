// The labels of the variance parameters.  Routine: VARIABLE_TABLE_GUTS.
//
// Hosts, files and requests name parameters by them, so they never depend on values.
#include "varstruct/labels.h"

#include <unordered_map>

#include "base/text.h"
#include "varstruct/model_catalogue.h"
#include "varstruct/starting_values.h"

namespace tolvan {

namespace {

/// The model's word in a label: its request name in upper case, with the v of a variance of its own.
std::string model_label(const STRUCTURE_ROW& row)
{
  const std::string_view functions = component_models[static_cast<std::size_t>(row.selector)].functions;
  return upper(functions.substr(0, functions.find(' '))) + (row.scale >= 0 ? "V" : "");
}

void label_row(const std::string& head, const STRUCTURE_ROW& row, VARIANCE_MODEL& model)
{
  for (std::int64_t k = 0; k < row.parameters; ++k) {
    VARIANCE_PARAMETER& p = model.parameters[static_cast<std::size_t>(row.first + k)];
    p.label = text(head, model_label(row), '_', parameter_label_letters[static_cast<std::size_t>(p.type)]);
  }
}

}  // namespace

std::string component_label(const FACTOR_ROW& factor)
{
  std::string_view shown = factor.shown();
  const std::string call = factor.structure + "(";
  if (factor.structure.empty() || !shown.starts_with(call)) return std::string(shown);
  shown.remove_prefix(call.size());
  std::int64_t depth = 0;
  for (std::size_t k = 0; k < shown.size(); ++k) {
    const char c = shown[k];
    if (depth == 0 && (c == ',' || c == ')')) return std::string(trim(shown.substr(0, k)));
    depth += c == '(' || c == '[' ? 1 : c == ')' || c == ']' ? -1 : 0;
  }
  return std::string(trim(shown));
}

std::string term_label(const FACTOR_TABLE& factors, const TERM_ROW& term)
{
  const auto [from, to] = term.components();
  bool named = false;
  for (std::int64_t i = from; i <= to; ++i) named = named || !factors.row(i).structure.empty();
  if (!named) return term.name;
  std::string label;
  for (std::int64_t i = from; i <= to; ++i) {
    if (i > from) label += ':';
    label += component_label(factors.row(i));
  }
  return label;
}

std::string units_label(const FACTOR_TABLE& factors)
{
  for (const FACTOR_ROW& f : factors.rows) {
    if (f.reserved == Reserved::units && f.source == 0) return f.shown();
  }
  return "units";
}

void VARIABLE_TABLE_GUTS(ERROR_HANDLER& eh, const FACTOR_TABLE& factors, const TERM_TABLE& terms,
                         VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  for (const TERM_STRUCTURE& structure : model.terms) {
    const std::string term = term_label(factors, terms.rows[static_cast<std::size_t>(structure.term)]);
    for (std::int64_t r = 0; r < structure.rows; ++r) {
      const STRUCTURE_ROW& row = model.rows[static_cast<std::size_t>(structure.first_row + r)];
      const bool several = structure.rows > 1 && row.factor > 0;
      label_row(text(term, ';', several ? component_label(factors.row(row.factor)) + "." : ""), row, model);
    }
  }
  for (const STRUCTURE_ROW& row : model.residual) label_row(units_label(factors) + ";", row, model);

  // Unique by construction; what is left over (a term given twice) is told apart by a number.
  std::unordered_map<std::string, std::int64_t> seen;
  for (VARIANCE_PARAMETER& p : model.parameters) {
    const std::string plain = p.label;
    while (seen.contains(p.label)) p.label = text(plain, '#', ++seen[plain]);
    seen.emplace(p.label, 1);
  }
}

}  // namespace tolvan
