// What is told at the end of a fit.
#include "estimation/closing_notes.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "base/numbers.h"
#include "base/text.h"
#include "estimation/convergence.h"
#include "estimation/em_updates.h"
#include "estimation/fault_texts.h"
#include "varstruct/lost_ranges.h"

namespace tolvan {
namespace {

constexpr double settled_move = 0.01;        // relative, of a parameter
constexpr double last_rise = 1.4, last_fall = 1.3;  // of LogL in the last iteration: worth telling where it has not converged
constexpr std::size_t most_named = 5;        // parameters without information
constexpr std::int64_t factor_effects = 15;  // internal code of factor models with equations of their own

/// Whether a pedigree with genetic groups has singular equations.
bool groups_are_singular(const FIT_MODEL& in, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& q)
{
  for (const TERM_STRUCTURE& structure : model.terms) {
    const auto rows = model.rows.begin() + structure.first_row;
    const bool groups = std::any_of(rows, rows + structure.rows,
                                    [](const STRUCTURE_ROW& row) { return row.matrix != nullptr && row.matrix->groups > 0; });
    if (!groups || structure.dropped) continue;
    const std::int64_t first = first_equation(in.terms, structure);
    for (std::int64_t e = first; e < first + structure_size(model, structure); ++e) {
      if (q.factor.reciprocal[static_cast<std::size_t>(q.position_of(e))] == 0.0) return true;
    }
  }
  return false;
}

/// Tells of unstructured matrices that ended at the edge of their space.
void note_edges(ERROR_HANDLER& eh, const VARIANCE_MODEL& model, const FIT_WORK& work, const FIT_STATE& fit)
{
  for (const DEFINITE_ROW& row : work.update.definite) {
    if (row.form != DefiniteForm::covariances) continue;
    const auto from = static_cast<std::size_t>(row.first);
    const auto to = from + static_cast<std::size_t>(row.levels * (row.levels + 1) / 2);
    if (to > fit.evaluated.size()) continue;
    const auto values = fit.evaluated.begin();
    if (!at_edge(row.levels, {values + static_cast<std::ptrdiff_t>(from), values + static_cast<std::ptrdiff_t>(to)})) continue;
    const std::string& label = model.parameters[from].label;
    eh.note(text("the matrix ", std::string_view(label).substr(0, label.rfind("_V")), " ended at the edge of its space"));
    eh.continuation("some combination of its levels has next to no variance: correlations of 1, or fewer factors than levels");
    eh.continuation("standard errors of its elements are too small; fa() or rr() say the same with fewer parameters");
  }
}

bool has_factor_effects(const VARIANCE_MODEL& model)
{
  return std::any_of(model.rows.begin(), model.rows.end(), [](const STRUCTURE_ROW& row) { return row.model == factor_effects; });
}

/// Tells how far LogL still moved in the last iteration of a fit that has not converged.
void note_last_change(ERROR_HANDLER& eh, const FIT_STATE& fit)
{
  if (fit.end != FitEnd::not_converged || fit.trace.size() < 2) return;
  const ITERATION_ROW& last = fit.trace.back();
  const ITERATION_ROW& before = fit.trace[fit.trace.size() - 2];
  if (is_no_value(last.logl) || is_no_value(before.logl)) return;
  const double change = last.logl - before.logl;
  if (change <= last_rise && change >= -last_fall) return;
  eh.note(text("iteration ", before.iteration, " had LogL ", trim(edit_f(before.logl, 18, 2)),
               ", twice its difference to the last one is ", trim(edit_f(2.0 * change, 18, 2))));
}

}  // namespace

void judge_status(ERROR_HANDLER& eh, const VARIANCE_MODEL& model, const FIT_WORK& work, const EVALUATION& ev, bool one_pass,
                  FIT_STATE& fit)
{
  const Frame here{eh, __func__};
  if (fit.usable && work.has_saved && work.best_logl - 0.1 > ev.logl) {
    eh.warning(text("it appears we may have finished at a local maximum LogL, rather than at the true maximum since an interim "
                    "LogL was ",
                    edit_f(work.best_logl - ev.logl, 18, 2), " better, adjust the step size or use SLOW"));
    fit.status += "; Possibly a local maxima";
  }
  const bool settled = fit.end != FitEnd::converged || parameters_settled(model, work.update, ev, settled_move);
  if (!settled) fit.status = text("Warning: ", fit.status, "; Parameters Not Converged");
  if (one_pass && fit.status.find("performed") != std::string::npos && work.aiopt(Ai::restrained) == 0) {
    fit.status += " Parameters unchanged after one iteration.";
  }
}

void note_criteria(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, const FIT_WORK& work, const FIT_STATE& fit)
{
  const Frame here{eh, __func__};
  const EM_STATE& em = work.em;
  if (groups_are_singular(in, model, work.equations)) {
    eh.note("the reported LogL may be incorrectly calculated if Genetic groups are not properly defined so that singularities "
            "appear among the genetic effects");
  }
  if (in.options(Slot::ailoadings) != 0 && has_factor_effects(model)) eh.note("XFA model; all loadings now updated each iteration.");
  if (model.modified > 0) {
    eh.note(text("US structures were modified ", model.modified, " times to make them positive definite"));
  }
  note_edges(eh, model, work, fit);
  note_last_change(eh, fit);
  for (const std::int64_t range : ranges_with_kinks(model)) {
    eh.note(text("LogL may have several tops along ", model.parameters[static_cast<std::size_t>(range)].label,
                 ": other starting values may lead to a higher one"));
  }
  if (em.used > 0) {
    eh.note(em.expanded ? text("used ", em_description(em), " you could try negative definite US or XFA instead")
                        : text("used !EMFLAG ", em.asked, " ", em_description(em),
                               " you could try !GU (negative definite US) or use XFA instead"));
  }
  if (fit.negative > 0) {
    eh.note(text("the singularity count includes ", fit.negative, " equation(s) with negative pivot(s)"));
  }
  const int width = std::fabs(fit.aic) > 1000000.0 ? 16 : 10;
  eh.note(text("Akaike Information Criterion ", edit_f(fit.aic, width, 2), " (assuming ", fit.parameters_estimated, " parameters)."));
  eh.note(text("Bayesian Information Criterion ", edit_f(fit.bic, width, 2), " (assuming ", fit.df, " degrees of freedom)."));
}

void name_singular(ERROR_HANDLER& eh, const UPDATE_STATE& update)
{
  const std::size_t named = std::min(update.singular.size(), most_named);
  for (std::size_t i = 0; i < named; ++i) {
    const SINGULAR_PARAMETER& p = update.singular[i];
    if (p.silent) {
      eh.continuation(text("the data say nothing about ", p.label));
      continue;
    }
    std::string others;
    for (const std::string& label : p.made_of) others += (others.empty() ? "" : " and ") + label;
    if (others.empty()) others = "the other parameters";
    eh.continuation(text("the data do not tell ", p.label, " from ", others, p.made_of.size() == 1 ? "" : " together"));
  }
  if (update.singular.size() > named) eh.continuation(text("and ", update.singular.size() - named, " more"));
}

void tell_failure(ERROR_HANDLER& eh, const FIT_STATE& fit, const UPDATE_STATE& update, std::int64_t singular)
{
  const Frame here{eh, __func__};
  const auto begin = [&eh](const char* words) {
    if (eh.terminate()) {
      eh.warning(words);  // what ended the run stays its last error
    } else {
      eh.error(words);
    }
  };
  if (fit.fault < 0) {
    begin("iteration aborted because of singularities in AI matrix");
    eh.continuation(text(singular, " singularities appeared in Average Information matrix, this could be a problem of scale or a "
                                   "problem with the model"));
    name_singular(eh, update);
    eh.continuation(
        "it is preferable to revise the model to remove the singularity, you can specify !AISING to force the job to continue");
    return;
  }
  begin(fit.usable ? "the estimation was ABORTED because a fault occurred"
                   : "the estimation was ABORTED because a fault occurred, no further output possible");
  eh.continuation(text("likelihood evaluation failed with fault ", fit.fault, " ", fault_text(fit.fault)));
  if (fit.usable) {
    eh.continuation(
        "the standard errors of variance components, solutions, derived quantities and other results are probably partly wrong, "
        "but are output to help you locate possible problems");
  }
}

}  // namespace tolvan
