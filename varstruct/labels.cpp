// The labels of the variance parameters.  Routine: VARIABLE_TABLE_GUTS.
//
// Hosts, files and requests name parameters by them, so they never depend on values.
#include "varstruct/labels.h"

#include <algorithm>
#include <array>
#include <unordered_map>
#include <vector>

#include "base/text.h"
#include "model/design_kinds.h"
#include "varstruct/make_component.h"
#include "varstruct/model_catalogue.h"
#include "varstruct/starting_values.h"

namespace tolvan {

namespace {

constexpr std::int64_t iden = 0, xfa = 31;  // selectors

/// The number behind the word of a model that has factors or bands.
bool counts_in_name(std::int64_t code)
{
  return code == 10 || code == 11 || code == 12 || code == 13 || code == 15;
}

/// The model's word in a label: its request name in upper case, with the count of factors or bands.
std::string model_word(const FACTOR_TABLE& factors, const STRUCTURE_ROW& row)
{
  if (row.matrix != nullptr) return row.matrix->pedigree ? "NRM" : "GRM";
  const std::string structure = row.factor > 0 ? factors.row(row.factor).structure : std::string();
  const COMPONENT_MODEL* asked = model_request(structure).model;
  const COMPONENT_MODEL& model = component_models[static_cast<std::size_t>(row.selector)];
  const bool named =
      asked != nullptr && (asked->selector == row.selector || (structure == "rr" && row.selector == xfa));
  std::string word(model.functions.substr(0, model.functions.find(' ')));
  if (named) {
    word = structure;
  } else if (row.selector == iden && row.scale >= 0) {
    word = "idv";
  }
  if (word.empty()) word = rtrim(model.name);
  if (word.starts_with("mtrn")) word = "mat" + word.substr(4);
  if (counts_in_name(row.model)) word += text(row.order);
  return upper(word);
}

/// Indices of a row's own parameters, "_2_1" where the model has levels; its variances are left out.
std::vector<std::string> own_indices(const STRUCTURE_ROW& row, std::int64_t own)
{
  std::vector<std::string> out;
  const auto one = [&](std::int64_t i) { out.push_back(text('_', i)); };
  const auto two = [&](std::int64_t i, std::int64_t j) { out.push_back(text('_', i, '_', j)); };
  const auto loadings = [&](std::int64_t levels, std::int64_t count) {
    for (std::int64_t c = 0; c < count; ++c) two(c % levels + 1, c / levels + 1);
  };
  switch (row.model) {
    case 5:
      if (row.selector == 5) {
        for (std::int64_t b = 1; b <= own; ++b) one(b);
      } else if (row.selector == 6) {
        for (std::int64_t i = 2; i <= row.size; ++i) {
          for (std::int64_t j = 1; j < i; ++j) two(i, j);
        }
      }
      break;
    case 6:
      break;  // by letter
    case 7:
    case 8:
      for (std::int64_t i = 1; i <= own; ++i) one(i);
      break;
    case 9:
    case 11:
    case 12:
      for (std::int64_t i = 1; i <= row.size; ++i) {
        for (std::int64_t j = 1; j <= i; ++j) i == j&& row.model != 9 ? one(i) : two(i, j);
      }
      break;
    case 10:
    case 13:
      loadings(row.size, own - row.size);
      for (std::int64_t i = 1; i <= row.size; ++i) one(i);
      break;
    case 15: {
      const std::int64_t levels = own / (row.order + 1);
      for (std::int64_t i = 1; i <= levels; ++i) one(i);
      loadings(levels, own - levels);
      break;
    }
    default:
      for (std::int64_t i = 1; own > 1 && i <= own; ++i) one(i);
      break;
  }
  out.resize(static_cast<std::size_t>(own));
  return out;
}

/// Labels of one row: head, model, letter, index.
void label_row(const FACTOR_TABLE& factors, const std::string& head, const STRUCTURE_ROW& row,
               VARIANCE_MODEL& model)
{
  const std::string word = model_word(factors, row);
  std::vector<ParamType> types;
  for (std::int64_t k = 0; k < row.parameters; ++k)
    types.push_back(model.parameters[static_cast<std::size_t>(row.first + k)].type);
  std::vector<std::string> ends = row_label_ends(row, types);
  // Of a model with a variance a level that has one level: the count alone does not tell it from a single variance.
  const bool by_level = row.factor > 0 && model_request(factors.row(row.factor).structure).qualifier == 2;
  if (by_level && row_parameters(row).form == VarianceForm::one_variance)
    ends.back() = text('_', parameter_label_letters[static_cast<std::size_t>(types.back())], "_1");
  for (std::int64_t k = 0; k < row.parameters; ++k) {
    model.parameters[static_cast<std::size_t>(row.first + k)].label =
        text(head, word, ends[static_cast<std::size_t>(k)]);
  }
}

}  // namespace

std::vector<std::string> row_label_ends(const STRUCTURE_ROW& row, const std::vector<ParamType>& types)
{
  const ROW_PARAMETERS split = row_parameters(row);
  std::vector<std::string> indices = own_indices(row, split.own);
  for (std::int64_t i = split.own; i < row.parameters; ++i) {
    indices.push_back(split.form == VarianceForm::level_variances ? text('_', i - split.own + 1)
                                                                  : std::string());
  }
  std::array<std::int64_t, parameter_label_letters.size()>
      seen{};  // of the metric family, whose parameters go by letter
  std::vector<std::string> ends(types.size());
  for (std::size_t k = 0; k < ends.size(); ++k) {
    const char letter = parameter_label_letters[static_cast<std::size_t>(types[k])];
    std::string& index = indices[k];
    std::int64_t& count = seen[parameter_label_letters.find(letter)];
    if (row.model == 6 && index.empty() && ++count > 1) index = text('_', count);
    ends[k] = text('_', letter, index);
  }
  return ends;
}

std::string component_label(const FACTOR_ROW& factor)
{
  std::string_view shown = factor.shown();
  const std::string call = factor.structure + "(";
  const bool known_matrix =
      factor.structure == "vm" || factor.structure == "ide" || factor.structure == "nrm";
  if (factor.structure.empty() || known_matrix || !shown.starts_with(call)) return std::string(shown);
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

std::string structure_label(const FACTOR_TABLE& factors, const TERM_TABLE& terms, std::int64_t head)
{
  const TERM_ROW& term = terms.rows[static_cast<std::size_t>(head)];
  if (term.linked_head < 0) return term_label(factors, term);
  std::string label;
  for (std::size_t i = static_cast<std::size_t>(head); i < terms.rows.size(); ++i) {
    if (terms.rows[i].linked_head != head) continue;
    label += text(label.empty() ? "" : "+", terms.rows[i].name);
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

std::string section_label(const FACTOR_TABLE& factors, const TERM_TABLE& terms, const RESIDUAL_TERM& section)
{
  if (is_multivariate_residual(factors, section)) {
    return text(units_label(factors), ".us(", component_label(factors.row(section.components[1].factor)),
                ")");
  }
  std::string label;
  if (section.condition != 0) {
    const std::int64_t row =
        section.term >= 0 ? terms.rows[static_cast<std::size_t>(section.term)].condition : 0;
    label = row > 0 ? factors.row(row).shown() : section.name.substr(0, section.name.find(':'));
  }
  for (const RESIDUAL_COMPONENT& component : section.components) {
    if (!label.empty()) label += ':';
    label += component.factor > 0 ? component_label(factors.row(component.factor)) : "units";
  }
  return label;
}

void VARIABLE_TABLE_GUTS(ERROR_HANDLER& eh, const FACTOR_TABLE& factors, const TERM_TABLE& terms,
                         VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  // The component's name stands where a term has several of them; a component of linked terms may have none.
  const auto component = [&](std::int64_t rows, const STRUCTURE_ROW& row) {
    if (rows == 1 || row.factor == 0) return std::string();
    const FACTOR_ROW& factor = factors.row(row.factor);
    const bool sized = factor.kind == static_cast<std::int64_t>(DesignKind::lnk) && !factor.copy;
    return sized ? std::string() : component_label(factor) + ".";
  };
  for (const TERM_STRUCTURE& structure : model.terms) {
    const std::string term = structure_label(factors, terms, structure.term);
    const auto row_at = [&](std::int64_t r) -> const STRUCTURE_ROW& { return model.rows[static_cast<std::size_t>(structure.first_row + r)]; };
    std::int64_t components = 0;
    for (std::int64_t r = 0; r < structure.rows; ++r) components += row_at(r).doubling == 2 ? 0 : 1;
    for (std::int64_t r = 0; r < structure.rows; ++r) {
      const STRUCTURE_ROW& row = row_at(r);
      label_row(factors, text(term, ';', component(components, row)), row, model);
    }
  }
  for (const RESIDUAL_SECTION& section : model.sections) {
    const bool whole = section.label.starts_with(units_label(factors) + ".us(");
    for (std::int64_t r = 0; r < section.rows; ++r) {
      const STRUCTURE_ROW& row = model.residual[static_cast<std::size_t>(section.first_row + r)];
      label_row(factors, text(section.label, ';', whole ? "" : component(section.rows, row)), row, model);
    }
    if (section.scale >= 0)
      model.parameters[static_cast<std::size_t>(section.scale)].label = text(section.label, ";IDV_V");
  }

  // Unique by construction; what is left over (a term given twice) is told apart by a number.
  std::unordered_map<std::string, std::int64_t> seen;
  for (VARIANCE_PARAMETER& p : model.parameters) {
    const std::string plain = p.label;
    while (seen.contains(p.label)) p.label = text(plain, '#', ++seen[plain]);
    seen.emplace(p.label, 1);
  }
}

}  // namespace tolvan
