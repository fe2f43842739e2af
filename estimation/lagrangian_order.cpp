#include "estimation/lagrangian_order.h"

#include <algorithm>

#include "estimation/direct_product.h"

namespace tolvan {

std::vector<std::pair<std::int64_t, std::int64_t>> bound_equations(const TERM_TABLE& terms, const VARIANCE_MODEL& model, const FORMED& formed)
{
  std::vector<std::pair<std::int64_t, std::int64_t>> bound;
  for (std::size_t t = 0; t < model.terms.size(); ++t) {
    if (model.terms[t].dropped) continue;
    const COMPONENTS& components = formed.terms[t].components;
    const std::int64_t first = first_equation(terms, model.terms[t]);
    for (std::size_t c = 0; c < components.size(); ++c) {
      if (components[c]->lagrangian().empty()) continue;
      const PRODUCT_BLOCK block = block_of(components, c);
      const std::int64_t n = components[c]->inverse().n;
      for (std::int64_t o = 0; o < block.outer; ++o) {
        for (const auto& [row, level] : components[c]->lagrangian()) {
          for (std::int64_t i = 0; i < block.inner; ++i)
            bound.emplace_back(first + (o * n + row) * block.inner + i, first + (o * n + level) * block.inner + i);
        }
      }
    }
  }
  return bound;
}

bool lagrangian_equations_in_order(const TERM_TABLE& terms, const VARIANCE_MODEL& model, const FORMED& formed, const MIXED_EQUATIONS& q)
{
  const auto bound = bound_equations(terms, model, formed);
  return std::all_of(bound.begin(), bound.end(), [&](const auto& pair) { return q.position_of(pair.first) > q.position_of(pair.second); });
}

}  // namespace tolvan
