// The data summary.  Routines: AIDSUM, AIDDIS, ADJUST_DATA_SUMMARY.
#include <algorithm>

#include "base/files.h"
#include "base/text.h"
#include "data/read_data.h"

namespace tolvan {

namespace {

/// Levels are counted one by one up to this number, or eight times the records where that is more: a code of
/// 1e9 in the data must not cost gigabytes.
constexpr std::int64_t counted_levels = 1000000;

void count_value(double x, bool is_factor, VARIABLE_SUMMARY& s)
{
  ++s.records;
  if (is_no_value(x)) {
    ++s.missing;
    return;
  }
  if (x == 0.0) ++s.zeros;
  if (is_factor) {
    const auto level = static_cast<std::size_t>(x);
    if (level < 1) return;
    if (level <= s.level_counts.size()) ++s.level_counts[level - 1];
    return;
  }
  const std::int64_t present = s.records - s.missing;
  s.minimum = present == 1 ? x : std::min(s.minimum, x);
  s.maximum = present == 1 ? x : std::max(s.maximum, x);
  s.mean += (x - s.mean) / static_cast<double>(present);
}

}  // namespace

void AIDSUM(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const DATA_STORE& store,
            DATA_SUMMARY& summary)
{
  const Frame here{eh, __func__};
  summary.assign(variables.rows.size(), {});
  const std::int64_t most = std::max(counted_levels, 8 * store.records());
  for (std::size_t v = 0; v < summary.size(); ++v) {
    const VARIABLE& variable = variables.rows[v];
    if (variable.is_factor() && variable.levels <= most) {
      summary[v].level_counts.assign(static_cast<std::size_t>(variable.levels), 0);
    }
  }
  for (std::int64_t r = 0; r < store.records() - store.filled(); ++r) {
    std::span<const double> row;
    if (!DST_READ_ROW(eh, store, r, row)) return;
    for (std::size_t v = 0; v < summary.size(); ++v)
      count_value(row[v], variables.rows[v].is_factor(), summary[v]);
  }
}

std::string AIDDIS(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const DATA_SUMMARY& summary, std::size_t most_levels)
{
  const Frame here{eh, __func__};
  std::string lines =
      " Variable                          Records   Missing     Zeros         Mean      Minimum      "
      "Maximum\n";
  for (std::size_t v = 0; v < summary.size(); ++v) {
    const VARIABLE_SUMMARY& s = summary[v];
    std::string name = variables.rows[v].name;
    name.resize(std::max<std::size_t>(name.size(), 31), ' ');
    lines += text(" ", name, edit_i(s.records, 10), edit_i(s.missing, 10), edit_i(s.zeros, 10));
    if (variables.rows[v].is_factor()) {
      lines += text("  ", variables.rows[v].levels, " levels");
    } else if (s.records > s.missing) {
      lines += text(edit_g(s.mean, 13, 5), edit_g(s.minimum, 13, 5), edit_g(s.maximum, 13, 5));
    }
    lines += '\n';
  }
  for (std::size_t v = 0; v < summary.size(); ++v) {
    const VARIABLE& variable = variables.rows[v];
    if (!variable.is_factor() || summary[v].level_counts.empty() || summary[v].level_counts.size() > most_levels) continue;
    lines += text("\n ", variable.name, "\n Level                                Count\n");
    for (std::size_t l = 0; l < summary[v].level_counts.size(); ++l) {
      std::string label = GET_LEVEL_NAME(eh, variable, static_cast<std::int64_t>(l) + 1);
      if (eh.terminate()) return lines;
      label.resize(std::max<std::size_t>(label.size(), 31), ' ');
      lines += text(" ", label, edit_i(summary[v].level_counts[l], 11), "\n");
    }
  }
  return lines;
}

void WRITE_DATA_SUMMARY(ERROR_HANDLER& eh, const std::string& path, const VARIABLE_TABLE& variables,
                        const DATA_SUMMARY& summary)
{
  const Frame here{eh, __func__};
  const std::string lines = AIDDIS(eh, variables, summary);
  if (eh.terminate()) return;
  std::string error;
  if (write_file(path, lines, error)) return;
  eh.error(text("unable to open file ", path), Ecode::io_error);
  eh.continuation(error);
}

void ADJUST_DATA_SUMMARY(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const DATA_SUMMARY& summary,
                         std::int64_t response)
{
  const Frame here{eh, __func__};
  if (response < 1 || response > static_cast<std::int64_t>(summary.size())) return;
  const VARIABLE_SUMMARY& s = summary[static_cast<std::size_t>(response - 1)];
  if (variables.row(response).is_factor()) {
    const auto present =
        std::count_if(s.level_counts.begin(), s.level_counts.end(), [](std::int64_t n) { return n > 0; });
    if (present == 1) eh.warning("no variation in the response variable");
  } else if (s.records - s.missing > 1 && s.minimum == s.maximum) {
    eh.warning("no variation in the response variable");
  }
}

}  // namespace tolvan
