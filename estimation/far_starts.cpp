// Places so far from the optimum that steps do not lead back.  Routines: search_ranges, shrink_loadings.
#include "estimation/far_starts.h"

#include <algorithm>
#include <cmath>

#include "base/text.h"
#include "varstruct/lost_ranges.h"
#include "varstruct/parameter_files.h"

namespace tolvan {
namespace {

constexpr double worthwhile = 0.1;  // of LogL
constexpr double far_above = 30.0;  // of a level's variance over that of the responses
constexpr double share_left = 0.5;  // of the variance of the responses

/// The present values with all variances times the factor that the best likelihood asks for.
void multiply_variances(double factor, VARIANCE_MODEL& model)
{
  for (VARIANCE_PARAMETER& v : model.parameters) {
    if (v.role == ParamRole::variance || v.role == ParamRole::covariance) v.value *= factor;
    if (v.role == ParamRole::loading) v.value *= std::sqrt(factor);
    if (v.role == ParamRole::precision) v.value /= factor;
  }
}

/// Steps are judged by those before them; from a new place they begin anew.
void forget_steps(UPDATE_STATE& update)
{
  update.reference.clear();
  update.moved.clear();
  update.shortening = 0;
}

/// Makes the free loadings of a row smaller where a level has more than `far_above` of `unit`; whether there are such levels.
bool shrink_row(const VARIANCE_MODEL& model, const STRUCTURE_ROW& row, double unit, std::vector<double>& values)
{
  std::vector<std::size_t> loadings, specific;
  for (std::int64_t i = row.first; i < row.first + row.parameters; ++i) {
    const auto at = static_cast<std::size_t>(i);
    const ParamRole role = model.parameters[at].role;
    if (role == ParamRole::loading) loadings.push_back(at);
    if (role == ParamRole::variance) specific.push_back(at);
  }
  const std::size_t levels = specific.size();
  if (levels == 0 || loadings.empty() || loadings.size() % levels != 0) return false;
  bool found = false;
  for (std::size_t level = 0; level < levels; ++level) {
    double variance = 0.0;
    for (std::size_t l = level; l < loadings.size(); l += levels) variance += values[loadings[l]] * values[loadings[l]];
    if (!(variance > far_above * unit)) continue;
    found = true;
    const double by = std::sqrt(share_left * unit / variance);
    for (std::size_t l = level; l < loadings.size(); l += levels) {
      const VARIANCE_PARAMETER& v = model.parameters[loadings[l]];
      if (is_free(v.constraint) && v.master < 0 && v.sum < 0) values[loadings[l]] *= by;
    }
  }
  return found;
}

}  // namespace

bool search_ranges(ERROR_HANDLER& eh, const FIT_MODEL& in, std::int64_t iteration, const std::vector<double>& start, bool failed,
                   VARIANCE_MODEL& model, FIT_WORK& work, EVALUATION& ev)
{
  const Frame here{eh, __func__};
  std::vector<double> values = parameter_values(model);
  std::vector<LOST_RANGE> lost = failed ? lost_ranges(model, values, true) : lost_ranges(model, start, false);
  // From a place about which nothing is known a step leads anywhere: what it did to the other parameters of the row is undone.
  for (const LOST_RANGE& range : lost) {
    for (std::int64_t i = range.first; i < range.first + range.own; ++i) values[static_cast<std::size_t>(i)] = start[static_cast<std::size_t>(i)];
  }
  if (lost.empty()) lost = lost_ranges(model, values, false);
  if (lost.empty()) return false;

  LIKELIHOOD best;
  if (!failed) best = likelihood_at(eh, in, iteration, values, model, work, ev);
  bool moved = false;
  for (const LOST_RANGE& range : lost) {
    const auto at = static_cast<std::size_t>(range.parameter);
    const double lost_at = values[at];
    for (const double other : range.others) {
      std::vector<double> trial = values;
      trial[at] = other;
      const LIKELIHOOD found = likelihood_at(eh, in, iteration, trial, model, work, ev);
      if (!found.formed || (best.formed && found.logl < best.logl + worthwhile)) continue;
      best = found;
      values = std::move(trial);
    }
    if (values[at] == lost_at) continue;
    moved = true;
    const std::string& label = model.parameters[at].label;
    const std::string was(trim(edit_g(lost_at, 12, 4))), is(trim(edit_g(values[at], 12, 4)));
    if (range.why == Lost::failed) {
      eh.note(text(label, " moved from ", was, ", where the matrix could not be inverted, to ", is));
    } else {
      eh.note(text(label, " moved from ", was, ", where all points are ", range.why == Lost::all_alike ? "alike" : "unlike",
                   " and the data say little about it, to ", is));
    }
  }
  if (!moved) return false;
  for (std::size_t i = 0; i < values.size(); ++i) model.parameters[i].value = values[i];
  if (best.factor != 1.0) multiply_variances(best.factor, model);
  forget_steps(work.update);
  return true;
}

bool shrink_loadings(ERROR_HANDLER& eh, const FIT_MODEL& in, std::int64_t iteration, const std::vector<double>& start, VARIANCE_MODEL& model,
                     FIT_WORK& work, EVALUATION& ev)
{
  const Frame here{eh, __func__};
  const double responses = work.equations.mean_square_y / (model.profiled ? ev.sigma2 : 1.0);
  std::vector<double> values = start;
  std::vector<std::string> labels;
  for (const TERM_STRUCTURE& structure : model.terms) {
    if (structure.dropped) continue;
    const double unit = responses / work.equations.mean_square[static_cast<std::size_t>(structure.term)];
    for (std::int64_t r = structure.first_row; r < structure.first_row + structure.rows; ++r) {
      const STRUCTURE_ROW& row = model.rows[static_cast<std::size_t>(r)];
      if (shrink_row(model, row, unit, values)) labels.push_back(model.parameters[static_cast<std::size_t>(row.first)].label);
    }
  }
  if (labels.empty()) return false;
  const LIKELIHOOD present = likelihood_at(eh, in, iteration, parameter_values(model), model, work, ev);
  const LIKELIHOOD smaller = likelihood_at(eh, in, iteration, values, model, work, ev);
  if (!smaller.formed || (present.formed && smaller.logl < present.logl + worthwhile)) return false;
  for (std::size_t i = 0; i < values.size(); ++i) model.parameters[i].value = values[i];
  forget_steps(work.update);
  for (const std::string& label : labels) {
    eh.note(text("starting loadings of ", std::string_view(label).substr(0, label.rfind(';')),
                 " gave levels far more variance than the responses have, and were made smaller"));
  }
  return true;
}

}  // namespace tolvan
