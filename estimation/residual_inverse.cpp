// The inverse of the residual variance matrix over the analysis records, as sparse rows.
#include "estimation/residual_inverse.h"

#include <algorithm>
#include <cmath>

namespace tolvan {

void lay_out_residual(const DESIGN_MTX& design, const FORMED& formed, RESIDUAL_INVERSE& r)
{
  r = {};
  if (!design.weight.empty()) {
    r.root_weight.resize(design.weight.size());
    std::transform(design.weight.begin(), design.weight.end(), r.root_weight.begin(),
                   [](double w) { return std::sqrt(std::max(w, 0.0)); });
  }
  if (formed.scaled_identity() != 0.0) return;
  r.start.assign(1, 0);
  r.sections.reserve(formed.sections.size());
  for (const FORMED_SECTION& section : formed.sections) {
    PRODUCT_ROWS& rows = r.sections.emplace_back(section.components);
    rows.keep_zeros(true);
    for (std::int64_t a = 0; a < section.records; ++a) {
      rows.move_to(a);
      rows.each([&](std::int64_t b, double) { r.record.push_back(static_cast<std::int32_t>(section.first + b)); });
      r.start.push_back(static_cast<std::int64_t>(r.record.size()));
    }
  }
  r.value.resize(r.record.size());
}

void fill_residual(const FORMED& formed, RESIDUAL_INVERSE& r)
{
  if (r.empty()) return;
  std::size_t k = 0;
  for (std::size_t s = 0; s < formed.sections.size(); ++s) {
    const FORMED_SECTION& section = formed.sections[s];
    PRODUCT_ROWS& rows = r.sections[s];
    rows.refresh(section.components);
    const double by = 1.0 / section.scale;
    for (std::int64_t a = 0; a < section.records; ++a) {
      rows.move_to(a);
      if (r.root_weight.empty()) {
        rows.each([&](std::int64_t, double v) { r.value[k++] = by * v; });
        continue;
      }
      const double wa = by * r.root_weight[static_cast<std::size_t>(section.first + a)];
      rows.each([&](std::int64_t b, double v) { r.value[k++] = wa * r.root_weight[static_cast<std::size_t>(section.first + b)] * v; });
    }
  }
}

void multiply_residual_inverse(const RESIDUAL_INVERSE& r, const double* x, double* y)
{
  for (std::size_t i = 0; i + 1 < r.start.size(); ++i) {
    double sum = 0.0;
    for (auto k = static_cast<std::size_t>(r.start[i]); k < static_cast<std::size_t>(r.start[i + 1]); ++k) {
      sum += r.value[k] * x[static_cast<std::size_t>(r.record[k])];
    }
    y[i] = sum;
  }
}

}  // namespace tolvan
