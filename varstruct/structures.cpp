// One structure a random term, and the residual's.  Routines: SETSTR, NEWSTR.
#include "varstruct/structures.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "base/numbers.h"
#include "base/text.h"
#include "varstruct/model_catalogue.h"
#include "varstruct/starting_values.h"

namespace tolvan {

namespace {

constexpr double random_base = wide(0.1f);  // a plain random term
constexpr double product_base = 0.05;       // a component of a product of named models
constexpr double residual_base = 1.0;
constexpr double single_variance = wide(0.9f);  // of the base, for the one variance of a v form

/// Factors whose levels are joined by a matrix from outside; an identity would be wrong for them.
/// Positions in the list of design functions: giv, xfa, lnk, grm, grr.
constexpr std::array<std::int64_t, 5> kinds_with_matrix = {9, 12, 15, 28, 39};

/// L_SETSTR_TERM: sets up the structure of one random term.
void L_SETSTR_TERM(ERROR_HANDLER& eh, const FACTOR_TABLE& factors, const TERM_ROW& term, double scale,
                   VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  const auto [from, to] = term.components();
  bool named = false;
  for (std::int64_t i = from; i <= to; ++i) {
    const FACTOR_ROW& f = factors.row(i);
    named = named || !f.structure.empty();
    if (std::find(kinds_with_matrix.begin(), kinds_with_matrix.end(), f.kind) != kinds_with_matrix.end()) {
      eh.not_implemented(
          text("the variance structure of ", f.shown(), " in ", term.name, " is not implemented"));
      return;
    }
  }

  if (from == to || !named) {  // one row: a plain term or interaction, or a single named model
    const FACTOR_ROW& f = factors.row(from);
    NEWSTR(eh,
           {.term = term.name,
            .function = f.structure,
            .levels = term.equations,
            .factor = from == to ? from : 0,
            .base = random_base * scale,
            .init = &f.init},
           model, model.rows);
    return;
  }
  for (std::int64_t i = from; i <= to; ++i) {
    const FACTOR_ROW& f = factors.row(i);
    // In a product of named models one without a name is an identity; the variance stands on another.
    NEWSTR(eh,
           {.term = term.name,
            .function = f.structure.empty() ? std::string_view("id") : std::string_view(f.structure),
            .levels = f.levels,
            .factor = i,
            .base = product_base * scale,
            .init = &f.init},
           model, model.rows);
    if (eh.terminate()) return;
  }
}

}  // namespace

void NEWSTR(ERROR_HANDLER& eh, const COMPONENT_REQUEST& request, VARIANCE_MODEL& model,
            std::vector<STRUCTURE_ROW>& rows)
{
  const Frame here{eh, __func__};
  const bool plain = request.function.empty();
  const MODEL_REQUEST asked = plain ? MODEL_REQUEST{.model = &component_models.front(), .qualifier = 1}
                                    : model_request(request.function);
  if (asked.model == nullptr) {
    eh.error(text("Cannot PARSE ", request.term));
    return;
  }
  if (!asked.model->built || asked.qualifier > 1) {
    eh.not_implemented(
        text("the variance model ", request.function, " in ", request.term, " is not implemented"));
    return;
  }

  STRUCTURE_ROW row;
  row.size = request.levels;
  row.parameters = own_parameters(*asked.model, request.levels, asked.order) + asked.qualifier;
  row.model = asked.model->code;
  row.first = model.count();
  row.sub_code = asked.model->sub_code;
  row.selector = asked.model->selector;
  row.factor = request.factor;

  const std::vector<double> none;
  const std::vector<double>& init = request.init ? *request.init : none;
  if (!init.empty() && static_cast<std::int64_t>(init.size()) != row.parameters) {
    eh.error(text("unexpected number of initial values supplied for ", request.term,
                  ", number expected = ", row.parameters, ", number supplied = ", init.size()));
    return;
  }
  for (const double x : init) {
    if (std::isfinite(x)) continue;
    eh.error(text("an initial value supplied for ", request.term, " is not a finite number"));
    return;
  }

  if (asked.qualifier == 1) {
    VARIANCE_PARAMETER p;
    p.value = !init.empty() && !is_no_value(init.back()) ? init.back()
              : plain                                    ? request.base
                                                         : single_variance * request.base;
    p.type = model.gamma ? ParamType::G : ParamType::V;
    row.scale = model.count();
    model.parameters.push_back(std::move(p));
  }
  rows.push_back(row);
}

void SETSTR(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const FACTOR_TABLE& factors,
            const TERM_TABLE& terms, const std::vector<double>& starting, std::int64_t records,
            VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  model = {};
  model.gamma = options(Slot::varscale) <= 0;
  model.profiled = model.gamma;
  if (starting.empty()) {
    eh.internal("starting variances are needed before the structures are set up");
    return;
  }
  // Ratios need no unit; absolute values start at shares of the response's variance.
  const double scale = model.gamma ? 1.0 : starting.front();

  for (std::size_t i = 0; i < terms.rows.size(); ++i) {
    const TERM_ROW& term = terms.rows[i];
    if (term.block != Block::random || term.dropped || term.is_mv || term.joins) continue;
    TERM_STRUCTURE structure;
    structure.term = static_cast<std::int64_t>(i);
    structure.first_row = static_cast<std::int64_t>(model.rows.size());
    L_SETSTR_TERM(eh, factors, term, scale, model);
    if (eh.terminate()) {
      eh.continuation(text(" Failed to form variance structure ", term.name));
      return;
    }
    structure.rows = static_cast<std::int64_t>(model.rows.size()) - structure.first_row;
    model.terms.push_back(structure);
  }

  NEWSTR(eh, {.term = "units", .levels = records, .base = residual_base * scale}, model, model.residual);
  if (eh.terminate()) return;
  model.residual_parameter = model.count() - 1;
  model.sections.push_back({.rows = 1, .records = records});
  model.parameters.back().type = ParamType::V;
  for (VARIANCE_PARAMETER& p : model.parameters) p.start = p.value;
}

}  // namespace tolvan
