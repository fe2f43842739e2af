// One complete evaluation of the restricted likelihood.  Routine: K4MITR.
#include "estimation/evaluation.h"

#include <algorithm>
#include <cmath>

#include "base/text.h"
#include "estimation/absorb_equations.h"
#include "estimation/em_updates.h"
#include "estimation/iterative_mme.h"
#include "estimation/keep_followers.h"
#include "estimation/keep_rows.h"
#include "estimation/lagrangian_order.h"
#include "estimation/outliers.h"
#include "estimation/section_variances.h"
#include "estimation/supernode.h"
#include "varstruct/followers.h"
#include "varstruct/parameter_files.h"

namespace tolvan {
namespace {

constexpr int repeats_of_damping = 10;
constexpr std::int64_t structure_does_not_fit = 44;
constexpr std::int64_t not_positive_definite = 1008;  // fault of a variance matrix that has lost its definiteness

/// The list of parameters that take part, and the one held out of the update.
void list_active(VARIANCE_MODEL& model, EVALUATION& ev)
{
  INFORMATION& information = ev.information;
  information = {};
  std::vector<std::uint8_t> dropped(model.parameters.size(), 0);
  for (const TERM_STRUCTURE& structure : model.terms) {
    if (!structure.dropped) continue;
    for (std::int64_t r = structure.first_row; r < structure.first_row + structure.rows; ++r) {
      const STRUCTURE_ROW& row = model.rows[static_cast<std::size_t>(r)];
      for (std::int64_t i = row.first; i < row.first + row.parameters; ++i) dropped[static_cast<std::size_t>(i)] = 1;
    }
  }
  for (std::size_t i = 0; i < model.parameters.size(); ++i) {
    VARIANCE_PARAMETER& v = model.parameters[i];
    if (v.value == 0.0 && v.constraint == Constraint::none && !follows(v)) v.constraint = Constraint::C;  // a structural zero
    const bool residual = static_cast<std::int64_t>(i) == model.residual_parameter;
    if (residual && model.profiled) {
      information.held_out = information.count();
    } else if (dropped[i] || is_no_value(v.value)) {
      continue;
    } else if (!is_estimated(model, static_cast<std::int64_t>(i))) {
      continue;
    }
    information.active.push_back(static_cast<std::int64_t>(i));
    information.unit.push_back(residual && model.profiled ? ev.sigma2 : 1.0);
  }
  information.score.assign(information.active.size(), 0.0);
}

/// Natural units of the parameters: what would give a record as much variance as the residual has now.
void set_units(const VARIANCE_MODEL& model, const MIXED_EQUATIONS& q, EVALUATION& ev)
{
  double residual = q.mean_square_y;
  if (model.profiled) {
    residual = 1.0;
  } else if (model.residual_parameter >= 0) {
    residual = ev.evaluated[static_cast<std::size_t>(model.residual_parameter)];
  }
  std::vector<double> size(model.parameters.size(), 1.0);
  for (const TERM_STRUCTURE& structure : model.terms) {
    const double square = q.mean_square[static_cast<std::size_t>(structure.term)];
    if (!(square > 0.0)) continue;
    for (std::int64_t r = structure.first_row; r < structure.first_row + structure.rows; ++r) {
      const STRUCTURE_ROW& row = model.rows[static_cast<std::size_t>(r)];
      for (std::int64_t i = row.first; i < row.first + row.parameters; ++i) size[static_cast<std::size_t>(i)] = square;
    }
  }
  for (std::size_t i = 0; i < ev.information.active.size(); ++i) {
    if (static_cast<std::int64_t>(i) == ev.information.held_out) continue;
    const auto parameter = static_cast<std::size_t>(ev.information.active[i]);
    const ParamRole role = model.parameters[parameter].role;
    const double variance = residual / size[parameter];
    if (role == ParamRole::variance || role == ParamRole::covariance) ev.information.unit[i] = variance;
    if (role == ParamRole::loading) ev.information.unit[i] = std::sqrt(variance);
    // A precision goes towards infinity where its level is explained by others: its information is of the size of its own square.
    if (role == ParamRole::precision) ev.information.unit[i] = std::max(1.0 / variance, std::fabs(ev.evaluated[parameter]));
  }
}

/// L_DROP_SMALL: takes out terms whose variance is nothing.
void L_DROP_SMALL(ERROR_HANDLER& eh, const FIT_MODEL& in, std::int64_t iteration, VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  const bool asked = in.options(Flag::drop_small_variance);
  if (iteration != 1 && !asked) return;
  for (TERM_STRUCTURE& structure : model.terms) {
    if (structure.dropped) continue;
    bool drop = false;
    for (std::int64_t r = structure.first_row; r < structure.first_row + structure.rows; ++r) {
      const STRUCTURE_ROW& row = model.rows[static_cast<std::size_t>(r)];
      if (row.scale < 0) continue;
      const VARIANCE_PARAMETER& v = model.parameters[static_cast<std::size_t>(row.scale)];
      const bool zero = iteration == 1 && v.value == 0.0;
      const bool small = asked && is_free(v.constraint) && v.role == ParamRole::variance && v.value < 1e-5 && v.value < 0.066 * v.start;
      drop = drop || zero || small;
    }
    if (!drop) continue;
    structure.dropped = true;
    const TERM_ROW& term = in.terms.rows[static_cast<std::size_t>(structure.term)];
    eh.warning(text(term.name, " dropped from model at iteration ", iteration, " because variance is negligible"));
    if (term.equations == 1) eh.continuation("This could just be an issue of the scale of a variate.");
  }
}

/// The solutions and what follows from them; the effects of a constant where mu was left out; nu.
void solve(const FIT_MODEL& in, const VARIANCE_MODEL& model, int threads, FIT_WORK& work, EVALUATION& ev)
{
  const Timed timed{in.timing, "SMIFWD", "K4MITR"};
  MIXED_EQUATIONS& q = work.equations;
  const double ri = q.ri;
  const auto n = static_cast<std::size_t>(q.n);
  ev.solution.resize(n);
  std::transform(q.r0.begin(), q.r0.end(), ev.solution.begin(), [ri](double x) { return ri * x; });
  SMIFWD(q.factor, ev.solution.data(), 1, threads);
  SMIBCK(q.factor, ev.solution.data(), 1, threads);
  follow_solutions(in, model, q, ev);

  // mu was left out as singular: what was taken off the response goes to the effects that span it.
  ev.constant.clear();
  if (q.mu >= 0 && q.shift != 0.0 && q.factor.reciprocal[static_cast<std::size_t>(q.position_of(q.mu))] == 0.0) {
    // Solved twice: the second time for what the first left over, since the constant may be large against the effects.
    std::vector<double> left(n, 0.0);
    left[static_cast<std::size_t>(q.position_of(q.mu))] = 1.0;
    std::vector<double> step(left.size());
    EFFECTS_SCRATCH scratch;
    ev.constant.assign(left.size(), 0.0);
    for (int round = 0; round < 2; ++round) {
      multiply_residual_part(q, left.data(), step.data(), 1, threads);
      if (round > 0) add_random_part(in, model, q, ev, -1.0, ev.constant.data(), step.data(), scratch);
      SMIFWD(q.factor, step.data(), 1, threads);
      SMIBCK(q.factor, step.data(), 1, threads);
      for (std::size_t p = 0; p < left.size(); ++p) {
        ev.constant[p] += step[p];
        left[p] -= step[p];
      }
    }
  }
  ev.nu = degrees_of_freedom(in, model, q, ev);
}

/// The restricted log-likelihood without its constant (Patterson & Thompson 1971), with
/// L = log|C| + log|G| + log|R|:  profiled -0.5 (nu ln s2 + L + nu), s2 = y'Py / nu;  else -0.5 (L + y'Py).
void log_likelihood(const VARIANCE_MODEL& model, EVALUATION& ev)
{
  ev.log_det_c = ev.absorbed.log_determinant;
  const double l = ev.log_det_c + ev.log_det_g + ev.log_det_r;
  if (!model.profiled) {
    ev.sigma2 = 1.0;
    ev.logl = -0.5 * (l + ev.quadratic);
    return;
  }
  const auto nu = static_cast<double>(ev.nu);
  ev.sigma2 = ev.quadratic / nu;
  ev.logl = -0.5 * (nu * std::log(std::fabs(ev.sigma2)) + l + nu);
}

/// LogL where it is not formed: 0, with the residual variance at the given parameters.
void without_likelihood(const VARIANCE_MODEL& model, EVALUATION& ev)
{
  ev.logl = 0.0;
  ev.sigma2 = model.profiled && ev.nu > 0 ? ev.quadratic / static_cast<double>(ev.nu) : 1.0;
}

/// L_FORM: forms the structures and the equations, absorbs them and gives the log-likelihood.
void L_FORM(ERROR_HANDLER& eh, const FIT_MODEL& in, std::int64_t iteration, int threads, VARIANCE_MODEL& model, FIT_WORK& work,
            EVALUATION& ev)
{
  const Frame here{eh, __func__};
  MIXED_EQUATIONS& q = work.equations;
  ev.fault = 0;
  ev.evaluated = parameter_values(model);  // should they fail: forming may mend some of them
  {
    const Timed timed{in.timing, "K4MSSF", "K4MITR"};
    K4MVSF(eh, in.options, in.terms, model, iteration, ev.formed, ev.fault);
  }
  if (eh.terminate() || ev.fault > 0) return;
  if (q.n == 0 && in.terms.equations > 0) {  // the first evaluation: the structures' patterns are known now
    const Timed timed{in.timing, "REORDER_MATRIX"};
    q.solving = solving_of_mode(work.aiopt(Ai::mode));
    SETUP_EQUATIONS(eh, in.options, in.terms, in.design, model, ev.formed, q);
    if (eh.terminate()) {
      ev.fault = fault_of_memory(eh);
      return;
    }
    if (q.solving == Solving::by_factor && !lagrangian_equations_in_order(in.terms, model, ev.formed, q)) {
      eh.error("Lagrangian Equation order issue was not fixed");
      return;
    }
  }
  ev.evaluated = parameter_values(model);
  {
    const Timed timed{in.timing, "K4MXXS", "K4MITR"};
    K4MXXS(eh, ev.formed, threads, q);
  }
  if (q.ri * q.y0 <= 1e-10) {
    eh.EH_ADD_MESSAGE({.text = "There is no Variance: Job may fail.", .etype = Etype::warning, .unique = true});
  }
  {
    const Timed timed{in.timing, "K4MXXG", "K4MITR"};
    K4MXXG(eh, in.terms, model, ev.formed, threads, q, ev.log_det_g);
  }
  if (std::isnan(q.ri * q.y0)) eh.warning("no idea what this is supposed to be catching, xsmd(1) is NaN");  // sic
  ev.log_det_r = -q.log_weights;
  for (const FORMED_SECTION& section : ev.formed.sections) {
    // Records of weight zero are in the residual's size and not in the data.
    const bool simple = q.residual.empty() && section.records > 0;
    const double used = simple ? static_cast<double>(q.records) / static_cast<double>(section.records) : 1.0;
    ev.log_det_r += used * section.log_determinant;
  }
  if (q.solving != Solving::by_factor) {
    ITERATIVE_MME(eh, in, model, work.aiopt(Ai::mode), work, ev);
    if (eh.terminate() || ev.fault > 0 || ev.absorbed.cancelled) return;
    without_likelihood(model, ev);
    return;
  }
  L_ABSORB(eh, in, model, threads, work, ev);
  if (eh.terminate() || ev.absorbed.cancelled || ev.fault > 0) return;
  if (!is_positive_definite(in, model, q, ev)) {
    ev.fault = not_positive_definite;
    return;
  }
  solve(in, model, threads, work, ev);
  if (!std::isfinite(ev.absorbed.log_determinant) || !std::isfinite(ev.quadratic)) {
    ev.fault = 999;
    return;
  }
  // Nothing left to estimate a variance from: no degrees of freedom, or a sum of squares lost in its own rounding.
  if (ev.nu < 1 || !(ev.quadratic > 1e-26 * std::fabs(q.ri * q.y0))) {
    ev.fault = 2130;
    return;
  }
  if (work.aiopt(Ai::mode) == 1) {
    without_likelihood(model, ev);
  } else {
    log_likelihood(model, ev);
  }
}

/// Whether LogL fell so far that the evaluation is repeated nearer to the best parameters; moves them there.
bool damp_again(std::int64_t iteration, int repeats, double& second, VARIANCE_MODEL& model, FIT_WORK& work, const EVALUATION& ev)
{
  if (iteration < 2 || work.best.parameters.empty() || repeats >= repeats_of_damping) return false;
  const double p = static_cast<double>(model.parameters.size());
  const bool listed = repeats > 0;
  if (!(listed || work.best_logl < ev.logl + 2.0 * p + 10.0)) return false;
  if (!(second > ev.logl + 1.5)) return false;
  work.update.step *= 0.25;
  if (!(work.best_logl > ev.logl + 1.0)) return false;
  for (std::size_t i = 0; i < model.parameters.size(); ++i) {
    const double saved = work.best.parameters[i].value;
    double& value = model.parameters[i].value;
    if (value != saved) value = wide(0.9f) * saved + wide(0.1f) * value;
  }
  second = ev.logl + 11.0;
  return true;
}

/// Whether all variances may be multiplied by one factor.
bool variances_are_free(const VARIANCE_MODEL& model)
{
  return !model.profiled && std::all_of(model.parameters.begin(), model.parameters.end(), [](const VARIANCE_PARAMETER& v) {
    const bool unit_free = v.role == ParamRole::correlation || v.role == ParamRole::other;
    return unit_free || v.value == 0.0 || is_no_value(v.value) || is_free(v.constraint) || follows(v);
  });
}

}  // namespace

std::int64_t degrees_of_freedom(const FIT_MODEL& in, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& q, const EVALUATION& ev)
{
  const auto in_use = [&](std::int64_t e) { return q.factor.reciprocal[static_cast<std::size_t>(q.position_of(e))] != 0.0; };
  std::int64_t rank = 0;
  for (std::int64_t e = 0; e < q.n; ++e) rank += q.fixed[static_cast<std::size_t>(e)] && in_use(e) ? 1 : 0;
  for (std::size_t t = 0; t < model.terms.size(); ++t) {
    if (model.terms[t].dropped) continue;
    std::int64_t counted = 1;
    std::int64_t all = 1;
    for (const auto& component : ev.formed.terms[t].components) {
      counted *= component->counted();
      all *= component->inverse().n;
    }
    if (counted == all) continue;
    // Where the inverse of a structure is singular, what is in use beyond its dimensions works as fixed effects.
    const std::int64_t first = first_equation(in.terms, model.terms[t]);
    for (std::int64_t e = first; e < first + all; ++e) rank += in_use(e) ? 1 : 0;
    rank -= counted;
  }
  return q.records - rank;
}

void K4MITR(ERROR_HANDLER& eh, const FIT_MODEL& in, std::int64_t iteration, VARIANCE_MODEL& model, FIT_WORK& work, EVALUATION& ev)
{
  const Frame here{eh, __func__};
  const Timed timed{in.timing, "K4MITR"};
  MIXED_EQUATIONS& q = work.equations;
  const int threads = useful_threads(q.factor, static_cast<int>(std::max<std::int64_t>(1, work.aiopt(Ai::threads))));

  if (iteration == 1 && !links_are_alike(model)) {
    eh.error("Parameter constraints link parameters of different types!");
    ev.fault = structure_does_not_fit;
    return;
  }
  double second = work.best_logl;
  L_DROP_SMALL(eh, in, iteration, model);
  for (int repeats = 0;; ++repeats) {
    raise_small_sections(eh, in.options, model);
    L_FORM(eh, in, iteration, threads, model, work, ev);
    if (eh.terminate() || ev.fault > 0 || ev.absorbed.cancelled) return;
    if (!damp_again(iteration, repeats, second, model, work, ev)) break;
  }

  const std::int64_t mode = work.aiopt(Ai::mode);
  ev.information = {};
  ev.inverse_diagonal.clear();
  ev.outliers = {};
  if (mode == 1 || mode > last_mode_by_factor) return;
  if (mode == 0) {
    if (iteration == 1) {
      judge_starting_variances(eh, model, ev);
      K4MEMV(eh, in.options, model, ev.formed, work.em);
      list_definite(model, !work.em.chosen, work.update.definite);
    }
    list_active(model, ev);
    set_units(model, q, ev);
    {
      const Timed part{in.timing, "K4MWVG", "K4MITR"};
      K4MWVG(eh, in, model, q, ev, work.working);
    }
    if (eh.terminate()) return;
    {
      const Timed part{in.timing, "K4MWVR", "K4MITR"};
      K4MWVR(eh, model, q, ev, work.working);
    }
    if (eh.terminate()) return;
    K4MWVA(eh, in, q, work.working, threads, ev);
    if (eh.terminate()) return;
  }
  if (work.aiopt(Ai::outliers) > 1 && work.aiopt(Ai::final_pass) > 0) {
    K4MGIUA(eh, in, model, q, threads, ev);
    if (eh.terminate()) return;
  }
  {
    const Timed part{in.timing, "K4MSMI", "K4MITR"};
    SMIREV(eh, q.factor, threads, work.cancel);
    if (eh.terminate()) return;
    ev.inverse_diagonal.resize(static_cast<std::size_t>(q.n));
  }
  {
    std::vector<double>& inverse = work.inverse;
    gather_inverse(q.factor, q.c, inverse, threads);
    for (std::int64_t p = 0; p < q.n; ++p) {
      ev.inverse_diagonal[static_cast<std::size_t>(p)] = inverse[static_cast<std::size_t>(q.c.start[static_cast<std::size_t>(p)])];
    }
    if (mode > 0) return;
    K4MSCG(eh, in, model, q, inverse, threads, ev);
    K4MSCR(eh, in, model, q, inverse, threads, ev);
  }
  if (eh.terminate() || ev.fault > 0) return;
  {
    const Timed part{in.timing, "K4MUPD", "K4MITR"};
    fold_followers(model, ev.information);
    work.latest = {model.parameters, work.update, ev.information};
    K4MUPD(eh, iteration, iteration > 1 ? ev.logl - work.previous_logl : 0.0, ev.information, model, work.aiopt, work.update);
    if (!work.em.rows.empty()) K4MEMM(eh, in, q, ev, model, work.update, work.em);
  }
  keep_followers_inside(eh, ev.evaluated, iteration > 1 ? ev.logl - work.previous_logl : 0.0, model, work.aiopt, work.update);
  set_followers(model, false);
  work.aiopt(Ai::held_out) = ev.information.held_out + 1;
}

LIKELIHOOD likelihood_at(ERROR_HANDLER& eh, const FIT_MODEL& in, std::int64_t iteration, const std::vector<double>& values, VARIANCE_MODEL& model,
                         FIT_WORK& work, EVALUATION& ev)
{
  const std::vector<VARIANCE_PARAMETER> parameters = model.parameters;
  const std::vector<STRUCTURE_ROW> rows = model.rows, residual = model.residual;
  const double tolerance = work.tolerance;
  const bool default_tolerance = work.default_tolerance;
  for (std::size_t i = 0; i < values.size(); ++i) model.parameters[i].value = values[i];
  ERROR_HANDLER aside;
  const bool first = work.equations.n == 0;
  const int threads = useful_threads(work.equations.factor, static_cast<int>(std::max<std::int64_t>(1, work.aiopt(Ai::threads))));
  L_FORM(aside, in, iteration, threads, model, work, ev);
  LIKELIHOOD found;
  found.formed = !aside.terminate() && ev.fault == 0 && !ev.absorbed.cancelled;
  found.logl = ev.logl;
  if (found.formed && variances_are_free(model)) {
    const auto nu = static_cast<double>(ev.nu);
    found.factor = ev.quadratic / nu;
    found.logl = ev.logl - 0.5 * (nu * std::log(found.factor) + nu - ev.quadratic);
  }
  if (first && found.formed) eh.EH_ADD_ALL(aside);
  model.parameters = parameters;
  model.rows = rows;
  model.residual = residual;
  work.tolerance = tolerance;
  work.default_tolerance = default_tolerance;
  ev.fault = 0;
  return found;
}

void step_from_best(ERROR_HANDLER& eh, std::int64_t iteration, double gain, VARIANCE_MODEL& model, FIT_WORK& work)
{
  const Frame here{eh, __func__};
  for (std::size_t i = 0; i < model.parameters.size(); ++i) {
    // What was fixed since stays as it is: its row may have lost it.
    if (is_free(model.parameters[i].constraint) || !is_free(work.best.parameters[i].constraint) ||
        model.parameters[i].constraint == Constraint::B) {
      model.parameters[i] = work.best.parameters[i];
    }
  }
  const int shortening = work.update.shortening;
  const double step = work.update.step;
  const double saved_step = work.update.saved_step;
  SECANTS secants = std::move(work.update.secants);  // the step that was too long tells the most
  work.update = work.best.update;
  work.update.secants = std::move(secants);
  work.update.shortening = shortening;
  work.update.step = step;
  work.update.saved_step = saved_step;
  const std::vector<double> best = parameter_values(model);
  K4MUPD(eh, iteration, gain, work.best.information, model, work.aiopt, work.update);
  keep_followers_inside(eh, best, gain, model, work.aiopt, work.update);
  set_followers(model, false);
}

}  // namespace tolvan
