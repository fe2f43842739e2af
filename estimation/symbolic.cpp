// SYMBOLICABS2: the symbolic factorisation, step by step.
#include "estimation/symbolic.h"

#include "base/memory.h"
#include "base/text.h"

namespace tolvan {

namespace {

// order[p] becomes order[step[p]]: what stood at position step[p] comes to p.
void follow(std::vector<std::int32_t>& order, const std::vector<std::int32_t>& step)
{
  std::vector<std::int32_t> result(order.size());
  for (std::size_t p = 0; p < order.size(); ++p) result[p] = order[step[p]];
  order.swap(result);
}

void set_up(const PATTERN& pattern, const std::vector<std::int32_t>& order, FACTOR& factor)
{
  factor.n = pattern.n;
  factor.dense = pattern.dense;
  factor.order = order;
  factor.holds_inverse = false;
  factor.panel.clear();

  LOWER_PATTERN lower;
  std::vector<std::int32_t> parent, step, count;
  permute_pattern(pattern, factor.order, lower);
  elimination_tree(lower, pattern.dense, parent);
  postorder(parent, step);
  follow(factor.order, step);
  permute_pattern(pattern, factor.order, lower);
  elimination_tree(lower, pattern.dense, parent);
  column_counts(lower, pattern.dense, parent, count);

  NODE_TREE tree;
  merge_nodes(parent, count, pattern.dense, tree, step);
  follow(factor.order, step);
  permute_pattern(pattern, factor.order, lower);
  form_panels(lower, tree, factor);

  factor.position.resize(factor.order.size());
  for (std::size_t p = 0; p < factor.order.size(); ++p)
    factor.position[factor.order[p]] = static_cast<std::int32_t>(p);
}

}  // namespace

void SYMBOLICABS2(ERROR_HANDLER& eh, const PATTERN& pattern, const std::vector<std::int32_t>& order,
                  FACTOR& factor)
{
  const Frame here{eh, __func__};
  if (!attempt([&] { set_up(pattern, order, factor); })) {
    eh.error("Failed ordering equations. Increase workspace", Ecode::alloc_fail);
    return;
  }
  std::int64_t bytes = 0;
  if (!multiply_sizes(factor.panel_size, sizeof(double), bytes) || bytes > machine_memory_bytes()) {
    eh.error(text("Out of memory absorbing: the factor of ", factor.n, " equations has ", factor.entries,
                  " elements"),
             Ecode::alloc_fail);
  }
}

}  // namespace tolvan
