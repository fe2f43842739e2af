// Ranges that got where the likelihood is flat in them are sought anew among the points.  Routine: search_ranges.
#include "estimation/search_ranges.h"

#include <cmath>

#include "base/text.h"
#include "varstruct/lost_ranges.h"
#include "varstruct/parameter_files.h"

namespace tolvan {
namespace {

constexpr double worthwhile = 0.1;  // of LogL

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

}  // namespace tolvan
