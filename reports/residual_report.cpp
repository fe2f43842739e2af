// The residual statistics of a fit.  Routine: WRITE_RESIDUAL_REPORT.
#include <algorithm>
#include <cmath>

#include "base/text.h"
#include "reports/report_files.h"

namespace tolvan {

namespace {

constexpr double stands_out = 3.5;  // of a residual over its standard deviation

/// The moments of the residuals that are there.
struct MOMENTS {
  std::int64_t count = 0;
  double mean = 0.0, minimum = 0.0, maximum = 0.0, variance = 0.0, skewness = 0.0, kurtosis = 0.0;
};

/// Moments about the mean: variance with divisor n - 1; skewness m3 / m2^1.5 and kurtosis m4 / m2^2, which is 3 for normal
/// residuals.
MOMENTS moments_of(const std::vector<double>& x)
{
  MOMENTS m;
  m.count = static_cast<std::int64_t>(x.size());
  if (x.empty()) return m;
  const auto n = static_cast<double>(m.count);
  for (const double e : x) m.mean += e / n;
  double m2 = 0.0, m3 = 0.0, m4 = 0.0;
  for (const double e : x) {
    const double d = e - m.mean;
    m2 += d * d / n;
    m3 += d * d * d / n;
    m4 += d * d * d * d / n;
  }
  m.minimum = *std::min_element(x.begin(), x.end());
  m.maximum = *std::max_element(x.begin(), x.end());
  if (std::fabs(m.mean) < 1e-10 * std::max(m.maximum, -m.minimum)) m.mean = 0.0;  // what rounding leaves of nothing
  if (m.count > 1) m.variance = m2 * n / (n - 1.0);
  if (m2 > 0.0) {
    m.skewness = m3 / std::pow(m2, 1.5);
    m.kurtosis = m4 / (m2 * m2);
  }
  return m;
}

/// Columns of the table of fitted values.
struct FITTED_COLUMNS {
  const OUTPUT_TABLE& t;
  std::int64_t record = t.find_column("RECORD"), fitted = t.find_column("YHAT"), residual = t.find_column("RESID"),
               statistic = t.find_column("AOM");
};

/// The statistics of some rows of the table of fitted values, and those that stand out of them.
std::string statistics_text(const FITTED_COLUMNS& columns, const std::vector<std::int64_t>& rows)
{
  const OUTPUT_TABLE& t = columns.t;
  std::vector<double> x;
  for (const std::int64_t r : rows) {
    if (!is_no_value(t.real(r, columns.residual))) x.push_back(t.real(r, columns.residual));
  }
  const MOMENTS m = moments_of(x);
  const auto cell = [](double value) {  // justified under its heading
    const std::string digits(trim(edit_g(value, 13, 5)));
    return std::string(13 - std::min<std::size_t>(13, digits.size()), ' ') + digits;
  };
  std::string out = text("     Count         Mean      Minimum      Maximum     Variance     Skewness     Kurtosis\n", edit_i(m.count, 10),
                         cell(m.mean), cell(m.minimum), cell(m.maximum), cell(m.variance), edit_f(m.skewness, 13, 4),
                         edit_f(m.kurtosis, 13, 4), '\n');
  const double sd = std::sqrt(m.variance);
  bool headed = false;
  for (const std::int64_t r : rows) {
    const double e = t.real(r, columns.residual);
    if (is_no_value(e)) continue;
    const double measure = columns.statistic > 0 ? t.real(r, columns.statistic) : sd > 0.0 ? (e - m.mean) / sd : 0.0;
    if (is_no_value(measure) || std::fabs(measure) <= stands_out) continue;
    if (!headed) out += " Records whose residual stands out\n    Record         Yhat     Residual    Statistic\n";
    headed = true;
    out += text(edit_i(t.integer(r, columns.record), 10), cell(t.real(r, columns.fitted)), cell(e),
                edit_f(measure, 13, 2), '\n');
  }
  return headed ? out : out + " No residual stands out.\n";
}

}  // namespace

void WRITE_RESIDUAL_REPORT(const DESIGN_MTX& design, const VARIANCE_MODEL& model, const std::vector<std::string>& responses,
                           const OUTPUT_TABLE_STORE& store, FileWriter& file)
{
  const OUTPUT_TABLE* t = store.find_table("TABLE_YHT");
  if (t == nullptr) return;
  const FITTED_COLUMNS columns{*t};
  // With several traits a record has a row of the table for each, one after the other.
  const std::int64_t traits = design.trait.empty() ? 1 : *std::max_element(design.trait.begin(), design.trait.end());
  for (std::size_t s = 0; s < model.sections.size(); ++s) {
    const RESIDUAL_SECTION& section = model.sections[s];
    std::vector<std::vector<std::int64_t>> rows(static_cast<std::size_t>(traits));
    const std::int64_t end = std::min(section.first_record + section.records, design.rows());
    for (std::int64_t i = section.first_record; i < end; ++i) {
      const auto r = static_cast<std::size_t>(i);
      const std::int64_t own = design.trait.empty() ? 1 : design.trait[r];
      rows[static_cast<std::size_t>(own - 1)].push_back((design.record[r] - 1) * traits + own);
    }
    if (model.sections.size() > 1) file.write(text(" Section ", s + 1, ": ", section.name.empty() ? section.label : section.name, '\n'));
    for (std::size_t own = 0; own < rows.size(); ++own) {
      if (rows[own].empty()) continue;
      std::sort(rows[own].begin(), rows[own].end());
      if (traits > 1) file.write(text(" Trait ", own + 1, own < responses.size() ? ": " + responses[own] : "", '\n'));
      file.write(statistics_text(columns, rows[own]));
    }
  }
}

}  // namespace tolvan
