// How far the average information is from the expected one.
#include "estimation/expected_information.h"

#include <algorithm>
#include <cmath>

#include "estimation/residual_steps.h"

namespace tolvan {
namespace {

constexpr double most = 1000.0;  // of a ratio: beyond it the data have little to say

// Internal codes of models.
constexpr std::int64_t unstructured = 9;
constexpr std::int64_t cholesky = 11;
constexpr std::int64_t antedependence = 12;
constexpr std::int64_t factor_models[] = {10, 13, 15};

/// The degree of V in a parameter.
double degree(ParamRole role)
{
  if (role == ParamRole::variance || role == ParamRole::covariance) return 1.0;
  return role == ParamRole::loading ? 0.5 : 0.0;
}

/// How the parameters of a row take part.
enum class Share {
  none,   // not at all: the information of inverses and their factors is exact as it is
  whole,  // all by the ratio of the product: they make up for each other
  own     // variances by their own ratio
};

Share share_of(const STRUCTURE_ROW& row)
{
  if (row.model == cholesky || row.model == antedependence) return Share::none;
  const bool factors = std::find(std::begin(factor_models), std::end(factor_models), row.model) != std::end(factor_models);
  return row.model == unstructured || factors ? Share::whole : Share::own;
}

/// Whether a product has several variances or loadings that must find their sizes against each other.
bool has_several(const VARIANCE_MODEL& model, const STRUCTURE_ROW* row, std::int64_t rows)
{
  int sizes = 0;
  for (std::int64_t r = 0; r < rows; ++r) {
    for (std::int64_t i = row[r].first; i < row[r].first + row[r].parameters; ++i) {
      sizes += degree(model.parameters[static_cast<std::size_t>(i)].role) > 0.0 ? 1 : 0;
    }
  }
  return sizes > 1;
}

double ratio_of(double quadratic, double trace)
{
  return quadratic > 0.0 && trace > 0.0 ? std::clamp(quadratic / trace, 1.0 / most, most) : 1.0;
}

/// Calls use(i, parameter) for the active parameters of a stretch, the profiled residual variance left out.
template <class Use>
void each_active(const VARIANCE_MODEL& model, const INFORMATION& information, std::int64_t first, std::int64_t count, Use use)
{
  const auto& active = information.active;
  for (auto at = std::lower_bound(active.begin(), active.end(), first); at != active.end() && *at < first + count; ++at) {
    const std::int64_t i = at - active.begin();
    if (i != information.held_out) use(static_cast<std::size_t>(i), model.parameters[static_cast<std::size_t>(*at)]);
  }
}

/// The ratios of one product of rows; scale is a parameter beside them, -1 for none.
void judge(const VARIANCE_MODEL& model, const INFORMATION& information, const STRUCTURE_ROW* row, std::int64_t rows, std::int64_t scale,
           std::vector<double>& ratio)
{
  double quadratic = 0.0;
  double trace = 0.0;
  const auto trace_of = [&](std::size_t i) { return information.quadratic[i] - information.score[i]; };
  const auto add = [&](std::size_t i, const VARIANCE_PARAMETER& v) {
    const double by = degree(v.role) * v.value;
    quadratic += by * information.quadratic[i];
    trace += by * trace_of(i);
  };
  for (std::int64_t r = 0; r < rows; ++r) {
    if (share_of(row[r]) != Share::none) each_active(model, information, row[r].first, row[r].parameters, add);
  }
  if (scale >= 0) each_active(model, information, scale, 1, add);
  const double all = ratio_of(quadratic, trace);
  for (std::int64_t r = 0; r < rows; ++r) {
    const Share share = share_of(row[r]);
    if (share == Share::none) continue;
    each_active(model, information, row[r].first, row[r].parameters, [&](std::size_t i, const VARIANCE_PARAMETER& v) {
      const bool own = share == Share::own && v.role == ParamRole::variance;
      ratio[i] = own ? ratio_of(information.quadratic[i], trace_of(i)) : all;
    });
  }
}

}  // namespace

std::vector<double> data_ratios(const VARIANCE_MODEL& model, const INFORMATION& information)
{
  const auto k = static_cast<std::size_t>(information.count());
  std::vector<double> ratio(k, 1.0);
  if (information.quadratic.size() != k) return ratio;
  for (const TERM_STRUCTURE& structure : model.terms) {
    const STRUCTURE_ROW* rows = model.rows.data() + structure.first_row;
    if (!structure.dropped && has_several(model, rows, structure.rows)) judge(model, information, rows, structure.rows, -1, ratio);
  }
  for (const RESIDUAL_SECTION& section : model.sections) {
    judge(model, information, model.residual.data() + section.first_row, section.rows, section.scale, ratio);
  }
  const std::vector<std::uint8_t> of_residual = sizes_of_residual(model, information);
  for (std::size_t i = 0; i < k; ++i) {
    if (of_residual[i]) ratio[i] = 1.0;
  }
  return ratio;
}

void make_expected(const std::vector<double>& ratio, INFORMATION& information)
{
  std::vector<double> by(ratio.size());
  std::transform(ratio.begin(), ratio.end(), by.begin(), [](double r) { return 1.0 / std::sqrt(r); });
  for (std::int64_t i = 0; i < information.count(); ++i) {
    for (std::int64_t j = 0; j <= i; ++j) information.at(i, j) *= by[static_cast<std::size_t>(i)] * by[static_cast<std::size_t>(j)];
  }
}

}  // namespace tolvan
