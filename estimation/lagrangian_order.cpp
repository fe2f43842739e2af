#include "estimation/lagrangian_order.h"

#include "estimation/direct_product.h"

namespace tolvan {

bool lagrangian_equations_in_order(const TERM_TABLE& terms, const VARIANCE_MODEL& model, const FORMED& formed, const MIXED_EQUATIONS& q)
{
  for (std::size_t t = 0; t < model.terms.size(); ++t) {
    if (model.terms[t].dropped) continue;
    const COMPONENTS& components = formed.terms[t].components;
    const std::int64_t first = first_equation(terms, model.terms[t]);
    for (std::size_t c = 0; c < components.size(); ++c) {
      if (components[c]->lagrangian().empty()) continue;
      const PRODUCT_BLOCK block = block_of(components, c);
      const std::int64_t n = components[c]->inverse().n;
      for (std::int64_t o = 0; o < block.outer; ++o) {
        for (const auto& [row, bound] : components[c]->lagrangian()) {
          for (std::int64_t i = 0; i < block.inner; ++i) {
            const auto position = [&](std::int64_t level) { return q.position_of(first + (o * n + level) * block.inner + i); };
            if (position(row) < position(bound)) return false;
          }
        }
      }
    }
  }
  return true;
}

}  // namespace tolvan
