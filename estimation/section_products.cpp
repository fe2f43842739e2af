// Cross-products of the design within residual sections whose R is a scaled identity: they never change during a fit.
#include "estimation/section_products.h"

#include <algorithm>

#include "estimation/equations.h"
#include "estimation/share.h"

namespace tolvan {
namespace {

std::size_t at(const std::vector<std::int64_t>& start, std::size_t i) { return static_cast<std::size_t>(start[i]); }

constexpr std::int64_t least_gain = 2;  // products of records for one that is kept

}  // namespace

bool SECTION_PRODUCTS::all() const
{
  return !formed.empty() && std::all_of(formed.begin(), formed.end(), [](auto f) { return f != 0; });
}

void form_section_products(const DESIGN_MTX& design, const FORMED& formed, MIXED_EQUATIONS& q)
{
  SECTION_PRODUCTS& p = q.products;
  p = {};
  if (q.residual.empty() || q.solving != Solving::by_factor) return;
  std::vector<std::int32_t> section_of(q.y.size(), -1);  // of a record, where R is a scaled identity
  std::int64_t products = 0;
  for (std::size_t s = 0; s < formed.sections.size(); ++s) {
    const FORMED_SECTION& section = formed.sections[s];
    if (section.scaled_identity() == 0.0) continue;
    for (std::int64_t r = section.first; r < section.first + section.records; ++r) {
      const auto record = static_cast<std::size_t>(r);
      section_of[record] = static_cast<std::int32_t>(s);
      const std::int64_t effects = q.rows.start[record + 1] - q.rows.start[record];
      products += effects * (effects + 1) / 2;
    }
  }
  const auto most = static_cast<std::size_t>(products / least_gain);
  std::vector<double> work(static_cast<std::size_t>(q.n), 0.0);
  std::vector<std::uint8_t> seen(work.size(), 0);
  p.start.assign(1, 0);
  for (std::size_t j = 0; j < work.size() && most > 0; ++j) {
    const auto keep = [&](std::int32_t section) {  // what the records of one section have put together
      for (std::size_t k = at(q.c.start, j); k < at(q.c.start, j + 1); ++k) {
        const auto i = static_cast<std::size_t>(q.c.row[k]);
        if (!seen[i]) continue;
        p.elements.push_back({section, static_cast<std::int32_t>(k - at(q.c.start, j)), work[i]});
        seen[i] = 0;
        work[i] = 0.0;
      }
    };
    std::int32_t section = -1;
    for (std::size_t k = at(q.columns.start, j); k < at(q.columns.start, j + 1); ++k) {
      const auto r = static_cast<std::size_t>(q.columns.record[k]);
      if (section_of[r] != section && section >= 0) keep(section);
      section = section_of[r];
      if (section < 0) continue;
      const double w = design.weight.empty() ? 1.0 : std::max(design.weight[r], 0.0);
      const double wx = w * q.columns.value[k];
      for (std::size_t e = at(q.rows.start, r + 1); e-- > at(q.rows.start, r);) {
        const auto i = static_cast<std::size_t>(q.rows.record[e]);
        if (i < j) break;
        work[i] += wx * q.rows.value[e];
        seen[i] = 1;
      }
    }
    if (section >= 0) keep(section);
    p.start.push_back(static_cast<std::int64_t>(p.elements.size()));
    if (p.elements.size() > most) break;
  }
  if (most == 0 || p.elements.size() > most) {
    p = {};
    return;
  }
  p.formed.resize(formed.sections.size());
  for (std::size_t s = 0; s < p.formed.size(); ++s) p.formed[s] = formed.sections[s].scaled_identity() != 0.0 ? 1 : 0;
  p.of_record.resize(section_of.size());
  std::transform(section_of.begin(), section_of.end(), p.of_record.begin(), [](auto s) { return static_cast<std::uint8_t>(s >= 0); });
}

std::vector<double> traces_by_section(const MIXED_EQUATIONS& q, const std::vector<double>& inverse, int threads)
{
  const SECTION_PRODUCTS& p = q.products;
  std::vector<std::vector<double>> sums(static_cast<std::size_t>(sum_parts), std::vector<double>(p.formed.size(), 0.0));
  share_parts(threads, p.formed.empty() ? 0 : q.n, [&](std::int64_t part, std::int64_t begin, std::int64_t end, int) {
    std::vector<double>& own = sums[static_cast<std::size_t>(part)];
    for (auto j = static_cast<std::size_t>(begin); j < static_cast<std::size_t>(end); ++j) {
      const std::size_t from = at(q.c.start, j);
      for (std::size_t k = at(p.start, j); k < at(p.start, j + 1); ++k) {
        const SECTION_PRODUCTS::ELEMENT& e = p.elements[k];
        const double once = e.value * inverse[from + static_cast<std::size_t>(e.at)];
        own[static_cast<std::size_t>(e.section)] += e.at == 0 ? once : 2.0 * once;  // the diagonal stands first
      }
    }
  });
  for (std::size_t part = 1; part < sums.size(); ++part) {
    for (std::size_t s = 0; s < sums.front().size(); ++s) sums.front()[s] += sums[part][s];
  }
  return sums.front();
}

}  // namespace tolvan
