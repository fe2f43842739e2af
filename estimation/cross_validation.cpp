#include "estimation/cross_validation.h"

#include <algorithm>
#include <cmath>

#include "api/fit_options_values.h"
#include "base/clock.h"
#include "base/random.h"
#include "base/text.h"
#include "estimation/final_results.h"
#include "estimation/missing_responses.h"

namespace tolvan {
namespace {

constexpr std::int64_t usual_folds = 10;

/// A random term and what its levels are dealt by.
struct VALIDATED {
  std::size_t term = 0;          // in the term table
  std::int64_t component = -1;   // whose levels are dealt, from 0 in the term; -1: those of the term itself
  std::string name;
};

/// Whether a row of the factor table, or one that it derives from, has this name: "ar1v(place)" is place, too.
bool is_called(const FACTOR_TABLE& factors, std::int64_t row, const std::string& name)
{
  for (; row >= 1 && row <= factors.count(); row = factors.row(row).source) {
    if (factors.row(row).name == name || factors.row(row).user_facing_name == name) return true;
  }
  return false;
}

/// L_FIND_TERM: what the request names, or the first random term.
bool L_FIND_TERM(ERROR_HANDLER& eh, const KCV_REQUEST& request, const FACTOR_TABLE& factors, const TERM_TABLE& terms, VALIDATED& found)
{
  const Frame here{eh, __func__};
  const auto usable = [](const TERM_ROW& term) { return term.block == Block::random && !term.dropped && !term.joins && term.equations > 0; };
  for (std::size_t t = 0; t < terms.rows.size(); ++t) {
    if (!usable(terms.rows[t]) || (!request.factor.empty() && terms.rows[t].name != request.factor)) continue;
    found = {t, -1, terms.rows[t].name};
    return true;
  }
  for (std::size_t t = 0; t < terms.rows.size(); ++t) {
    const auto [from, to] = terms.rows[t].components();
    for (std::int64_t f = from; usable(terms.rows[t]) && f >= 1 && f <= to && f <= factors.count(); ++f) {
      if (!is_called(factors, f, request.factor)) continue;
      found = {t, from == to ? -1 : f - from, from == to ? terms.rows[t].name : text(request.factor, " in ", terms.rows[t].name)};
      return true;
    }
  }
  if (request.factor.empty())
    eh.error("the option kcv needs a random term, the model has none");
  else
    eh.error(text("the option kcv names ", request.factor, ", which is neither a random term nor a factor of one"));
  return false;
}

/// The levels of a term: which are dealt, and to which fold.
struct DEALT {
  std::vector<std::int64_t> group;  // by level from 0: what is dealt, from 0; -1 for an equation that is no effect
  std::vector<std::int64_t> fold;   // by group; -1: without data, in none
};

/// Deals the groups that have a known response, in random order, to the folds in turn.
DEALT deal(const FACTOR_TABLE& factors, const TERM_ROW& term, const VALIDATED& of, const DESIGN_MTX& design,
           const std::vector<std::uint8_t>& known, std::int64_t folds, WICHMANN_HILL random)
{
  DEALT out;
  out.group.resize(static_cast<std::size_t>(term.equations));
  std::int64_t groups = 0;
  for (std::int64_t k = 0; k < term.equations; ++k) {
    std::int64_t group = of.component < 0 ? k : component_levels(factors, term, k + 1)[static_cast<std::size_t>(of.component)] - 1;
    if (binds_a_level(factors, term, k + 1)) group = -1;
    out.group[static_cast<std::size_t>(k)] = group;
    groups = std::max(groups, group + 1);
  }
  out.fold.assign(static_cast<std::size_t>(groups), -1);
  std::vector<std::uint8_t> met(out.fold.size(), 0);
  for (std::int64_t row = 0; row < design.rows(); ++row) {
    if (!known[static_cast<std::size_t>(row)]) continue;
    const auto equations = design.equations(row);
    for (std::size_t e = 0; e < equations.size(); ++e) {
      const std::int64_t k = equations[e] - term.first;
      if (k < 0 || k >= term.equations || design.values(row)[e] == 0.0) continue;
      const std::int64_t group = out.group[static_cast<std::size_t>(k)];
      if (group >= 0) met[static_cast<std::size_t>(group)] = 1;
    }
  }
  std::vector<std::size_t> order;
  for (std::size_t g = 0; g < met.size(); ++g) {
    if (met[g]) order.push_back(g);
  }
  for (std::size_t i = order.size(); i > 1; --i) std::swap(order[i - 1], order[static_cast<std::size_t>(random.below(static_cast<std::int64_t>(i)))]);
  for (std::size_t i = 0; i < order.size(); ++i) out.fold[order[i]] = static_cast<std::int64_t>(i) % folds;
  return out;
}

/// Rows of the design with a known response that a fold has part in.
std::vector<std::int64_t> rows_of_fold(const TERM_ROW& term, const DESIGN_MTX& design, const std::vector<std::uint8_t>& known,
                                       const DEALT& dealt, std::int64_t fold)
{
  std::vector<std::int64_t> rows;
  for (std::int64_t row = 0; row < design.rows(); ++row) {
    if (!known[static_cast<std::size_t>(row)]) continue;
    const auto equations = design.equations(row);
    bool part = false;
    for (std::size_t e = 0; e < equations.size() && !part; ++e) {
      const std::int64_t k = equations[e] - term.first;
      if (k < 0 || k >= term.equations || design.values(row)[e] == 0.0) continue;
      const std::int64_t group = dealt.group[static_cast<std::size_t>(k)];
      part = group >= 0 && dealt.fold[static_cast<std::size_t>(group)] == fold;
    }
    if (part) rows.push_back(row);
  }
  return rows;
}

/// L_PREDICT: the effects at the final parameters without the responses of these rows; false, with a warning, where that fails.
bool L_PREDICT(ERROR_HANDLER& eh, const FIT_CALL& call, const FIT_STATE& fit, const std::vector<std::int64_t>& rows,
               std::int64_t fold, std::vector<double>& effects)
{
  const Frame here{eh, __func__};
  const CHANGED_DESIGN changed = with_responses_missing(call.terms, call.design, rows);
  const FIT_MODEL in{call.options, call.variables, call.factors, changed.terms, changed.design, call.timing};
  VARIANCE_MODEL model = at_final_values(call.model, fit);
  FIT_WORK work;
  work.aiopt(Ai::mode) = 1;
  work.aiopt(Ai::threads) = std::clamp<std::int64_t>(call.options(Slot::maximum_number_of_threads), 1, processor_threads());
  work.tolerance = fit.tolerance;
  work.default_tolerance = fit.tolerance == 1e-8;
  EVALUATION ev;
  FIT_STATE state;
  ERROR_HANDLER own;
  constexpr std::int64_t no_first_pass = 2;
  K4MITR(own, in, no_first_pass, model, work, ev);
  if (!own.terminate() && ev.fault == 0) K4MFIN(own, in, model, work, ev, state);
  if (own.terminate()) {
    eh.EH_ADD_ALL(own);
    return false;
  }
  if (ev.fault > 0) {
    eh.warning(text("fold ", fold + 1, " of the cross-validation leaves too little of the data, its effects are not predicted"));
    return false;
  }
  effects = std::move(state.solution);
  return true;
}

/// The correlation of Pearson; the missing mark where one of the two does not vary.
double correlation(const std::vector<double>& x, const std::vector<double>& y)
{
  const auto n = static_cast<double>(x.size());
  double mx = 0.0, my = 0.0, xx = 0.0, yy = 0.0, xy = 0.0, largest = 0.0;
  for (std::size_t i = 0; i < x.size(); ++i) {
    mx += x[i] / n;
    my += y[i] / n;
    largest = std::max(largest, std::fabs(y[i]));
  }
  for (std::size_t i = 0; i < x.size(); ++i) {
    xx += (x[i] - mx) * (x[i] - mx);
    yy += (y[i] - my) * (y[i] - my);
    xy += (x[i] - mx) * (y[i] - my);
  }
  const double nothing = n * 1e-20 * largest * largest;  // effects of unrelated levels are predicted as 0, but for rounding
  return xx > nothing && yy > nothing ? xy / std::sqrt(xx * yy) : no_value;
}

NewColumn text_column(const char* name)
{
  return {.type = ColumnType::string, .name = name, .heading = name, .format = "A", .justify = Justify::left};
}

/// L_STORE: registers TABLE_KCV.
///   predicted   by level of the term; missing mark for levels in no fold
void L_STORE(ERROR_HANDLER& eh, const VALIDATED& of, const FIT_CALL& call, const FIT_STATE& fit, const std::vector<double>& predicted)
{
  const Frame here{eh, __func__};
  const TERM_ROW& term = call.terms.rows[of.term];
  const std::int64_t from = term.components().first;
  std::vector<std::string> first, second;
  std::vector<double> cv, standard;
  for (std::int64_t k = 0; k < term.equations; ++k) {
    if (is_no_value(predicted[static_cast<std::size_t>(k)])) continue;
    const std::vector<std::int64_t> levels = component_levels(call.factors, term, k + 1);
    std::string dealt, rest;  // the component whose levels are dealt, or the first; the others
    for (std::size_t c = 0; c < levels.size(); ++c) {
      const std::string name = component_level_name(eh, call.variables, call.factors, from + static_cast<std::int64_t>(c), levels[c]);
      const bool own = of.component < 0 ? dealt.empty() : static_cast<std::int64_t>(c) == of.component;
      std::string& to = own ? dealt : rest;
      if (!name.empty()) to += to.empty() ? name : text('.', name);
    }
    first.push_back(dealt.empty() ? text(k + 1) : dealt);
    second.push_back(rest);
    cv.push_back(predicted[static_cast<std::size_t>(k)]);
    standard.push_back(fit.solution[static_cast<std::size_t>(term.first + k)]);
  }
  const double r = correlation(cv, standard);
  const std::int64_t id = OTST_REGISTER_TABLE(eh, call.tables, "TABLE_KCV");
  if (eh.terminate()) return;
  OUTPUT_TABLE& t = call.tables.table(id);
  OTT_ADD_TITLE(eh, t, text("k-fold Cross Validation for ", of.name, ", correlation: ", is_no_value(r) ? "     NA" : edit_f(r, 7, 4),
                            " based on ", cv.size(), " predicted values"));
  OTT_ADD_COLUMN(eh, t, text_column("FACTOR1"));
  OTT_ADD_COLUMN(eh, t, text_column("FACTOR2"));
  OTT_ADD_COLUMN(eh, t, {.name = "CVEFFECT", .heading = "CVeffect", .format = "f12.4"});
  OTT_ADD_COLUMN(eh, t, {.name = "STNDEFFECT", .heading = "StndEffect", .format = "f12.4"});
  OTT_ALLOC_DATA_STORES(eh, t, std::ssize(cv));
  if (eh.terminate()) return;
  OTT_SET_COLUMN_STRING(eh, t, 1, first);
  OTT_SET_COLUMN_STRING(eh, t, 2, second);
  OTT_SET_COLUMN_REAL_WP(eh, t, 3, cv);
  OTT_SET_COLUMN_REAL_WP(eh, t, 4, standard);
  if (is_no_value(r) && !cv.empty()) {
    eh.warning(text("cross-validation of ", of.name, " has no correlation: its levels are not related, so that nothing predicts one from others"));
  }
}

}  // namespace

void GET_KCV(ERROR_HANDLER& eh, const JsonNode* options, KCV_REQUEST& request)
{
  const Frame here{eh, __func__};
  request = {};
  const JsonNode* node = options == nullptr ? nullptr : options->find("kcv");
  if (node == nullptr || !asks(*node)) return;
  request.folds = usual_folds;
  const JsonNode* folds = node;
  if (node->is(JsonType::object)) {
    folds = node->find("folds");
    if (const JsonNode* factor = node->find("factor")) GET_VALUE_FROM_JPTR_STRING(eh, *factor, request.factor);
    if (const JsonNode* seed = node->find("seed")) {
      request.has_seed = true;
      GET_VALUE_FROM_JPTR_INTEGER(eh, *seed, 1, request.seed);
    }
  }
  if (folds != nullptr && !eh.terminate() && !folds->is(JsonType::logical)) GET_VALUE_FROM_JPTR_INTEGER(eh, *folds, usual_folds, request.folds);
  if (eh.terminate()) {
    eh.error("invalid value supplied for option kcv");
    return;
  }
  request.factor = std::string(trim(request.factor));
  if (request.folds < 2) eh.error(text("the option kcv asks for ", request.folds, " folds, it needs 2 at least"));
}

void CROSSVALC(ERROR_HANDLER& eh, const KCV_REQUEST& request, const FIT_CALL& call, const FIT_STATE& fit)
{
  const Frame here{eh, __func__};
  if (request.folds == 0 || !fit.usable) return;
  VALIDATED of;
  if (!L_FIND_TERM(eh, request, call.factors, call.terms, of)) return;
  const TERM_ROW& term = call.terms.rows[of.term];
  const std::vector<std::uint8_t> known = known_responses(call.design);
  const DEALT dealt = deal(call.factors, term, of, call.design, known, request.folds,
                           request.has_seed ? WICHMANN_HILL(request.seed) : WICHMANN_HILL(default_seeds));
  std::int64_t folds = 0;
  for (const std::int64_t fold : dealt.fold) folds = std::max(folds, fold + 1);
  if (folds < request.folds) eh.note(text("cross-validation of ", of.name, " has a fold for each of its ", folds, " levels with data"));

  std::vector<double> predicted(static_cast<std::size_t>(term.equations), no_value);
  for (std::int64_t fold = 0; fold < folds; ++fold) {
    std::vector<double> effects;
    const bool done = L_PREDICT(eh, call, fit, rows_of_fold(term, call.design, known, dealt, fold), fold, effects);
    if (eh.terminate()) return;
    for (std::size_t k = 0; done && k < predicted.size(); ++k) {
      const std::int64_t group = dealt.group[k];
      if (group < 0 || dealt.fold[static_cast<std::size_t>(group)] != fold) continue;
      predicted[k] = effects[static_cast<std::size_t>(term.first) + k];
    }
  }
  L_STORE(eh, of, call, fit, predicted);
}

}  // namespace tolvan
