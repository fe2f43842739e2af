// One structure a random term, and the residual's.  Routine: SETSTR.
#include <algorithm>

#include "base/numbers.h"
#include "base/text.h"
#include "varstruct/initial_values.h"
#include "varstruct/labels.h"
#include "varstruct/model_catalogue.h"
#include "varstruct/starting_values.h"
#include "varstruct/structures.h"

namespace tolvan {

namespace {

constexpr double random_base = wide(0.1f);    // a plain random term
constexpr double product_base = 0.05;         // a component of a product of named models
constexpr double trait_share = wide(0.033f);  // of the starting covariances, for a plain term over the traits
constexpr double default_share = wide(0.33f);  // the same, for the residual of a model that has none
constexpr double residual_base = 1.0;

/// What the structures of a run are set up from.
struct SETUP {
  const FACTOR_TABLE& factors;
  const TERM_TABLE& terms;
  const AINV_MTXS& matrices;
  const std::vector<double>& starting;
  double unit;  // of absolute values; 1 for ratios
  std::int64_t traits;
};

/// One component of a random term that takes a row.
struct PART {
  std::int64_t factor = 0;
  std::string_view function = {};    // empty: no named model
  const AINV_MTX* matrix = nullptr;  // a known matrix
  bool scaled = false;               // by itself it has a variance: a known matrix, or ide()
};

/// The levels that data can have: without the factors of fa() and rr(), and the equations that bind levels of
/// rr().
std::int64_t levels_of_data(const FACTOR_TABLE& factors, const FACTOR_ROW& f)
{
  if ((f.structure != "fa" && f.structure != "rr") || f.kind == kind_linked) return f.levels;
  if (f.copy) return factors.row(f.source).levels;
  return (f.levels - f.order) / (f.structure == "rr" ? 2 : 1);
}

/// Whether a named model brings a variance.
bool brings_variance(std::string_view function)
{
  const MODEL_REQUEST asked = model_request(function);
  return asked.model != nullptr &&
         (asked.qualifier > 0 || (asked.model->code >= 7 && asked.model->code != 14) ||
          asked.model->rule == ParameterRule::extended || function == "rr");
}

/// L_FIND_MATRIX: the known matrix that a component names.
const AINV_MTX* L_FIND_MATRIX(ERROR_HANDLER& eh, const SETUP& setup, const FACTOR_ROW& f,
                              std::string_view term)
{
  const Frame here{eh, __func__};
  const AINV_MTX* found = f.matrix.empty() ? nullptr : setup.matrices.find(f.matrix);
  if (found == nullptr && f.structure == "nrm") {
    for (const AINV_MTX& m : setup.matrices.matrices) {
      if (found == nullptr && m.pedigree) found = &m;
    }
  }
  if (found == nullptr) {
    eh.error(text("GRM structure not defined for model term ", term));
  } else if (found->order < f.levels) {
    eh.error(text("GRM structure is smaller than model factor for term ", term));
    eh.continuation(
        text("the matrix ", found->name, " has ", found->order, " rows, the factor ", f.levels, " levels"));
  } else if (found->order > f.levels) {
    eh.error(text("GRM structure seems larger than model factor for term ", term));
    eh.continuation(
        text("the matrix ", found->name, " has ", found->order, " rows, the factor ", f.levels, " levels"));
  }
  return found;
}

/// L_FIND_PARTS: the components of a term that take a row.  One of one level without a model only chooses
/// records or is a covariate; where no other is left it stays.
void L_FIND_PARTS(ERROR_HANDLER& eh, const SETUP& setup, const TERM_ROW& term, std::vector<PART>& parts)
{
  const Frame here{eh, __func__};
  const auto [from, to] = term.structure();
  for (std::int64_t i = from; i <= to; ++i) {
    const FACTOR_ROW& f = setup.factors.row(i);
    PART part{.factor = i, .function = f.structure};
    if (f.structure == "vm" || f.structure == "nrm" || f.structure == "grm") {
      part.function = {};
      part.scaled = true;
      part.matrix = L_FIND_MATRIX(eh, setup, f, term.name);
      if (eh.terminate()) return;
    } else if (f.structure == "ide") {
      part.function = {};
      part.scaled = true;
    } else if (f.structure.empty() && f.levels == 1 && from < to) {
      continue;
    }
    parts.push_back(part);
  }
  if (parts.empty()) parts.push_back({.factor = to});
}

/// L_TRAIT_BLOCK: the unstructured matrix between the traits that a plain term over them has.
void L_TRAIT_BLOCK(ERROR_HANDLER& eh, const SETUP& setup, const TERM_ROW& term, std::int64_t factor,
                   double share, VARIANCE_MODEL& model, std::vector<STRUCTURE_ROW>& rows)
{
  const Frame here{eh, __func__};
  std::vector<double> values;
  for (std::size_t i = 0; i + 1 < setup.starting.size(); ++i) values.push_back(share * setup.starting[i]);
  NEWSTR(eh,
         {.term = term.name,
          .function = "us",
          .levels = setup.traits,
          .factor = factor,
          .from = {.unit = setup.unit, .starting = &setup.starting},
          .init = &values},
         model, rows);
}

/// L_SETSTR_PLAIN: a term that names no model.
void L_SETSTR_PLAIN(ERROR_HANDLER& eh, const SETUP& setup, const TERM_ROW& term, std::int64_t equations,
                    const std::vector<PART>& parts, VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  const DEFAULT_BASE from{.base = random_base * setup.unit, .unit = setup.unit, .starting = &setup.starting};
  const FACTOR_ROW& first = setup.factors.row(parts.front().factor);
  bool over_traits =
      parts.size() > 1 && setup.traits > 1 && first.reserved == Reserved::trait && equations > setup.traits;
  if (over_traits) {
    eh.note(text("adding Variance parameter for ", term.name));
    L_TRAIT_BLOCK(eh, setup, term, parts.front().factor, trait_share, model, model.rows);
    if (eh.terminate()) return;
  }
  const std::size_t begin = over_traits ? 1 : 0;
  const bool known =
      std::any_of(parts.begin(), parts.end(), [](const PART& p) { return p.matrix != nullptr; });
  if (!known) {  // one identity over all that is left
    const bool single = parts.size() - begin == 1;
    const std::int64_t rest = over_traits ? equations / setup.traits : equations;
    const FACTOR_ROW& f = setup.factors.row(parts[begin].factor);
    NEWSTR(eh,
           {.term = term.name,
            .variance = !over_traits,
            .levels = rest,
            .factor = single ? parts[begin].factor : 0,
            .from = from,
            .init = single && parts[begin].scaled ? &f.init : nullptr},
           model, model.rows);
    return;
  }
  bool variance = !over_traits;
  for (std::size_t k = begin; k < parts.size(); ++k) {
    const FACTOR_ROW& f = setup.factors.row(parts[k].factor);
    const bool here_variance = variance && parts[k].matrix != nullptr;
    NEWSTR(eh,
           {.term = term.name,
            .variance = here_variance,
            .levels = f.levels,
            .factor = parts[k].factor,
            .from = from,
            .init = here_variance ? &f.init : nullptr,
            .matrix = parts[k].matrix},
           model, model.rows);
    if (eh.terminate()) return;
    if (here_variance) variance = false;
  }
}

/// L_FIND_HALVED: the component whose levels are two halves that share one matrix (sing): the one that says so, or the one of so
/// many levels where the term does; -1 for none.
std::int64_t L_FIND_HALVED(ERROR_HANDLER& eh, const SETUP& setup, const TERM_ROW& term, const std::vector<PART>& parts)
{
  const Frame here{eh, __func__};
  if (term.initial_values == nullptr) return -1;
  IVALUE_DATA whole;
  SAVE_INITIAL_VALUES(eh, *term.initial_values, whole);
  if (eh.terminate()) return -1;
  std::vector<TERM_PART> said;
  TERM_PARTS(eh, term, said);
  if (eh.terminate()) return -1;
  std::int64_t levels = whole.sing, factor = 0;
  for (const TERM_PART& part : said) {
    if (part.data.sing == 0) continue;
    levels = part.data.sing;
    factor = part.factor;
  }
  if (levels == 0 || levels % 2 != 0) return -1;  // an odd number is told with the other qualifiers
  for (std::size_t k = 0; k < parts.size(); ++k) {
    const PART& part = parts[k];
    const MODEL_REQUEST asked = model_request(part.function);
    if (asked.model == nullptr || (factor > 0 && part.factor != factor)) continue;
    if (levels_of_data(setup.factors, setup.factors.row(part.factor)) != levels) continue;
    const bool by_level = asked.model->code == 6 || asked.model->code == 7 || part.matrix != nullptr || part.function == "fa" || part.function == "rr";
    if (!by_level) return static_cast<std::int64_t>(k);
    eh.not_implemented(text("sing of ", term.name, ", whose model is ", part.function, "(), is not implemented"));
    return -1;
  }
  eh.error(text("SING tells of ", levels, " levels, but no component of ", term.name, " with a variance model has as many"));
  return -1;
}

/// L_SETSTR_TERM: sets up the structure of one random term.
void L_SETSTR_TERM(ERROR_HANDLER& eh, const SETUP& setup, const TERM_ROW& term, std::int64_t equations,
                   VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  std::vector<PART> parts;
  L_FIND_PARTS(eh, setup, term, parts);
  if (eh.terminate()) return;
  const bool named =
      std::any_of(parts.begin(), parts.end(), [](const PART& p) { return !p.function.empty(); });
  if (!named) {
    L_SETSTR_PLAIN(eh, setup, term, equations, parts, model);
    return;
  }
  const double base = parts.size() == 1 ? random_base : product_base;
  const DEFAULT_BASE from{.base = base * setup.unit, .unit = setup.unit, .starting = &setup.starting};
  // What has a variance by itself keeps it where no other component brings one.
  bool variance =
      std::none_of(parts.begin(), parts.end(), [](const PART& p) { return brings_variance(p.function); });
  const std::int64_t halved = L_FIND_HALVED(eh, setup, term, parts);
  if (eh.terminate()) return;
  for (const PART& part : parts) {
    const FACTOR_ROW& f = setup.factors.row(part.factor);
    const bool keeps = variance && part.scaled;
    const bool takes_values = !part.function.empty() || keeps;
    const bool halves = &part - parts.data() == halved;
    if (halves) {  // an identity over the two halves times the matrix of one
      NEWSTR(eh, {.term = term.name, .function = "id", .levels = 2, .from = from}, model, model.rows);
      if (eh.terminate()) return;
      model.rows.back().doubling = 2;
    }
    NEWSTR(eh,
           {.term = term.name,
            .function = part.function.empty() && !part.scaled ? std::string_view("id") : part.function,
            .variance = keeps,
            .levels = levels_of_data(setup.factors, f) / (halves ? 2 : 1),
            .order = f.order,
            .factor = part.factor,
            .from = from,
            .init = takes_values ? &f.init : nullptr,
            .arguments = &f.arguments,
            .matrix = part.matrix},
           model, model.rows);
    if (eh.terminate()) return;
    if (keeps) variance = false;
  }
}

/// L_SETSTR_SECTION: sets up the structure of one residual section.
void L_SETSTR_SECTION(ERROR_HANDLER& eh, const SETUP& setup, const RESIDUAL_MODEL& residual,
                      const RESIDUAL_TERM& section, VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  const DEFAULT_BASE from{
      .base = residual_base * setup.unit, .unit = setup.unit, .starting = &setup.starting};
  const std::string name = section.name.empty() ? "units" : section.name;
  RESIDUAL_SECTION out{.first_row = static_cast<std::int64_t>(model.residual.size()),
                       .rows = static_cast<std::int64_t>(section.components.size()),
                       .first_record = section.first_record,
                       .records = section.records,
                       .term = section.term,
                       .name = section.name,
                       .label = section_label(setup.factors, setup.terms, section)};
  const bool has_variance =
      std::any_of(section.components.begin(), section.components.end(),
                  [](const RESIDUAL_COMPONENT& c) { return brings_variance(c.function); });
  const bool own_in_row =
      !has_variance && section.components.size() == 1 && section.components.front().function.empty();
  std::vector<double> shared;  // of the default residual of several traits
  for (const RESIDUAL_COMPONENT& component : section.components) {
    const FACTOR_ROW* f = component.factor > 0 ? &setup.factors.row(component.factor) : nullptr;
    const std::vector<double>* init = f != nullptr && !component.function.empty() ? &f->init : nullptr;
    if (residual.is_default && component.function == "us") {
      for (std::size_t i = 0; i + 1 < setup.starting.size(); ++i)
        shared.push_back(default_share * setup.starting[i]);
      init = &shared;
    }
    NEWSTR(eh,
           {.term = name,
            .function = component.function.empty() && !own_in_row ? std::string_view("id")
                                                                  : std::string_view(component.function),
            .variance = own_in_row,
            .levels = component.size,
            .order = f != nullptr ? f->order : 0,
            .factor = component.factor,
            .from = from,
            .init = init,
            .arguments = f != nullptr ? &f->arguments : nullptr},
           model, model.residual);
    if (eh.terminate()) return;
    if (component.coordinates.x.empty()) continue;
    model.residual.back().coordinates = static_cast<std::int64_t>(model.coordinates.size());
    model.coordinates.push_back(component.coordinates);
  }
  if (!has_variance && !own_in_row) {  // a product of correlations: its variance stands behind the rows
    VARIANCE_PARAMETER p;
    p.value = from.base;
    out.scale = model.count();
    model.parameters.push_back(std::move(p));
  }
  model.sections.push_back(std::move(out));
}

/// L_FIX_SHORT: fixes the correlations of dimensions that are too short to estimate them (option idlimit).
void L_FIX_SHORT(ERROR_HANDLER& eh, const FIT_OPTIONS& options, VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  const std::int64_t limit = options(Slot::idlimit);
  if (limit <= 0) return;
  for (const RESIDUAL_SECTION& section : model.sections) {
    for (std::int64_t r = section.first_row; r < section.first_row + section.rows && section.rows > 1; ++r) {
      const STRUCTURE_ROW& row = model.residual[static_cast<std::size_t>(r)];
      bool fixed = false;
      for (std::int64_t i = row.first; i < row.first + row.parameters && row.size <= limit; ++i) {
        VARIANCE_PARAMETER& p = model.parameters[static_cast<std::size_t>(i)];
        if (p.type != ParamType::R) continue;
        p.constraint = Constraint::F;
        fixed = true;
      }
      if (fixed) eh.warning("Short spatial dimension structure parameter fixed (!IDLIM)");
    }
  }
}

/// The one variance of the whole residual: behind the rows, or the last parameter of one of them; -1 where
/// there is not exactly one.
std::int64_t residual_variance(const VARIANCE_MODEL& model)
{
  if (model.sections.size() != 1) return -1;
  std::int64_t found = model.sections.front().scale;
  std::int64_t count = found >= 0 ? 1 : 0;
  for (const STRUCTURE_ROW& row : model.residual) {
    if (!holds_variance(row)) continue;
    ++count;
    found = row.scale;
  }
  return count == 1 ? found : -1;
}

}  // namespace

void SETSTR(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const FACTOR_TABLE& factors,
            const TERM_TABLE& terms, const AINV_MTXS& matrices, const std::vector<double>& starting,
            const RESIDUAL_MODEL& residual, VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  model = {};
  model.gamma = residual.gamma;
  model.profiled = residual.gamma;
  if (starting.empty()) {
    eh.internal("starting variances are needed before the structures are set up");
    return;
  }
  // Ratios need no unit; absolute values start at shares of the response's variance.
  const SETUP setup{.factors = factors,
                    .terms = terms,
                    .matrices = matrices,
                    .starting = starting,
                    .unit = model.gamma ? 1.0 : starting.front(),
                    .traits = trait_count(starting)};

  for (std::size_t i = 0; i < terms.rows.size(); ++i) {
    const TERM_ROW& term = terms.rows[i];
    if (term.block != Block::random || term.dropped || term.is_mv || term.joins) continue;
    const auto index = static_cast<std::int64_t>(i);
    if (term.linked_head >= 0 && term.linked_head != index) continue;  // it shares the structure of its head
    TERM_STRUCTURE structure;
    structure.term = index;
    structure.first_row = static_cast<std::int64_t>(model.rows.size());
    L_SETSTR_TERM(eh, setup, term, structure_equations(terms, index), model);
    if (eh.terminate()) {
      eh.continuation(text(" Failed to form variance structure ", term.name));
      return;
    }
    structure.rows = static_cast<std::int64_t>(model.rows.size()) - structure.first_row;
    model.terms.push_back(structure);
  }

  for (const RESIDUAL_TERM& section : residual.sections) {
    L_SETSTR_SECTION(eh, setup, residual, section, model);
    if (eh.terminate()) {
      eh.continuation(
          text(" Failed to form variance structure ", section.name.empty() ? "units" : section.name));
      return;
    }
  }
  model.residual_parameter = residual_variance(model);
  if (model.residual_parameter >= 0) {
    model.parameters[static_cast<std::size_t>(model.residual_parameter)].type = ParamType::V;
  } else {
    model.profiled = false;
  }
  for (const RESIDUAL_SECTION& section : model.sections) {
    if (section.scale >= 0) model.parameters[static_cast<std::size_t>(section.scale)].type = ParamType::V;
  }
  L_FIX_SHORT(eh, options, model);
  for (VARIANCE_PARAMETER& p : model.parameters) p.start = p.value;
}

std::int64_t structure_equations(const TERM_TABLE& terms, std::int64_t head)
{
  std::int64_t equations = terms.rows[static_cast<std::size_t>(head)].equations;
  for (std::size_t i = static_cast<std::size_t>(head) + 1; i < terms.rows.size(); ++i) {
    if (terms.rows[i].linked_head == head) equations += terms.rows[i].equations;
  }
  return equations;
}

}  // namespace tolvan
