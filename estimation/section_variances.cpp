// Looks at the variances of residual sections around an evaluation.
#include "estimation/section_variances.h"

#include <cmath>
#include <string>

#include "base/text.h"

namespace tolvan {
namespace {

constexpr std::size_t several = 2;   // more sections than this have variances to compare
constexpr double floor_share = 10.0;
constexpr double too_small = 3.0;    // of y'Py / nu, which is 1 at the optimum
constexpr double too_large = 0.2;

/// The one variance that scales a section; -1 where it has none or several.
std::int64_t section_scale(const VARIANCE_MODEL& model, const RESIDUAL_SECTION& section)
{
  if (section.scale >= 0) return section.scale;
  std::int64_t scale = -1;
  for (std::int64_t r = section.first_row; r < section.first_row + section.rows; ++r) {
    const STRUCTURE_ROW& row = model.residual[static_cast<std::size_t>(r)];
    if (row.scale < 0) continue;
    if (scale >= 0) return -1;
    scale = row.scale;
  }
  return scale;
}

/// A number as F0.6 prints it: no blank and no zero before the point.
std::string edit_f0(double x)
{
  std::string out(trim(edit_f(x, 40, 6)));
  if (out.starts_with("0.")) out.erase(0, 1);
  if (out.starts_with("-0.")) out.erase(1, 1);
  return out;
}

}  // namespace

void raise_small_sections(ERROR_HANDLER& eh, const FIT_OPTIONS& options, VARIANCE_MODEL& model)
{
  if (options(Slot::s2limit) <= 0 || model.sections.size() <= several) return;
  double sum = 0.0;
  for (const RESIDUAL_SECTION& section : model.sections) {
    const std::int64_t scale = section_scale(model, section);
    if (scale < 0) return;
    sum += model.parameters[static_cast<std::size_t>(scale)].value;
  }
  const auto count = static_cast<double>(model.sections.size());
  const double least = sum / count / floor_share / count;
  for (std::size_t s = 0; s < model.sections.size(); ++s) {
    VARIANCE_PARAMETER& v = model.parameters[static_cast<std::size_t>(section_scale(model, model.sections[s]))];
    if (!(v.value < least) || !is_free(v.constraint)) continue;
    v.value = least;
    eh.note(text("small Residual variance in section ", s + 1, " fixed at ", edit_f0(least)));
  }
}

void judge_starting_variances(ERROR_HANDLER& eh, const VARIANCE_MODEL& model, const EVALUATION& ev)
{
  if (model.profiled || model.sections.size() <= several || ev.nu < 1) return;
  const double ratio = ev.quadratic / static_cast<double>(ev.nu);
  if (ratio <= too_small && ratio >= too_large) return;
  eh.warning(ratio > too_small ? "some initial variance parameters may be too small" : "some initial variance parameters may be too large");
  eh.continuation("if the job fails, scale up the data or improve the initial values");
}

}  // namespace tolvan
