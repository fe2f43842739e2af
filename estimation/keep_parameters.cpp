// The parameters of accepted iterations.  Routine: KEEPGM_SAVE_AND_ADJUST.
#include "estimation/keep_parameters.h"

#include <algorithm>
#include <cmath>

#include "base/numbers.h"
#include "base/text.h"

namespace tolvan {
namespace {

constexpr std::size_t history_rows = 6;
constexpr double least_change = 0.05;     // of a parameter, relative: smaller ones are left to settle
constexpr double settling = 1e-6;         // of the last squared differences to those before: a correlation that settles
constexpr double worthwhile_gain = 0.1;   // of LogL over three iterations: an oscillation that gains is left alone
constexpr double step_cut = 0.4;
constexpr std::int64_t full_step = 1000;  // thousandths

/// Whether a parameter has gone up and down in the last three differences of its values, the next one included.
bool alternates(const std::vector<KEPT_ROW>& history, std::size_t i, double next)
{
  const std::size_t n = history.size();
  const double d1 = history[n - 2].values[i] - history[n - 3].values[i];
  const double d2 = history[n - 1].values[i] - history[n - 2].values[i];
  const double d3 = next - history[n - 1].values[i];
  return d1 * d2 < 0.0 && d2 * d3 < 0.0;
}

/// Whether the swings of a correlation die away by themselves.
bool settles(const std::vector<KEPT_ROW>& history, std::size_t i)
{
  const std::size_t n = history.size();
  const auto squared = [&](std::size_t from) {
    double sum = 0.0;
    for (std::size_t k = from; k < from + 2; ++k) {
      const double d = history[k + 1].values[i] - history[k].values[i];
      sum += d * d;
    }
    return sum;
  };
  return squared(n - 3) < settling * squared(n - 5);
}

}  // namespace

void KEEPGM_SAVE_AND_ADJUST(ERROR_HANDLER& eh, std::int64_t iteration, bool watch, const EVALUATION& ev, VARIANCE_MODEL& model,
                            FIT_WORK& work)
{
  const Frame here{eh, __func__};
  if (ev.logl > work.best_logl || work.best.parameters.empty()) work.best = work.latest;
  work.best_logl = std::max(work.best_logl, ev.logl);
  work.saved = model.parameters;
  for (std::size_t i = 0; i < work.saved.size(); ++i) work.saved[i].value = ev.evaluated[i];
  work.has_saved = true;
  if (!watch) return;

  std::vector<KEPT_ROW>& history = work.history;
  if (history.size() == history_rows) history.erase(history.begin());
  history.push_back({ev.evaluated, ev.logl, work.aiopt(Ai::step_thousandths)});
  const std::size_t n = history.size();
  if (n < history_rows || history[n - 1].step != full_step || history[n - 2].step != full_step) return;
  if (history[n - 1].logl - history[n - 4].logl > worthwhile_gain) return;

  bool reset = false;
  for (std::size_t i = 0; i < model.parameters.size(); ++i) {
    VARIANCE_PARAMETER& v = model.parameters[i];
    const double last = ev.evaluated[i];
    if (!is_free(v.constraint) || v.value == last || is_no_value(last)) continue;
    const double ratio = last / v.value;
    const double change = std::fabs((last - v.value) / (last + v.value));
    if (!(ratio < 0.0 || change > least_change)) continue;
    if (!alternates(history, i, v.value) || (v.type == ParamType::R && settles(history, i))) continue;
    const double mean = 0.5 * (last + v.value);
    eh.warning(text("oscillating parameter reset at iteration ", iteration, ", resetting ", v.label, " given ",
                    trim(edit_e(v.value, 12, 6)), " to ", trim(edit_e(mean, 12, 6))));
    v.value = mean;
    reset = true;
  }
  if (!reset) return;
  work.update.step *= step_cut;
  history.clear();
}

}  // namespace tolvan
