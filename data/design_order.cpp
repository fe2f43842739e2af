// The order of the analysis records.  Routine: L_SORT_BY_TRAIT.
#include <numeric>

#include "base/memory.h"
#include "data/design_matrix.h"

namespace tolvan {

namespace {

/// The elements of a list in a new order; an empty list stays empty.
template <class T>
void reorder(ERROR_HANDLER& eh, const std::vector<std::int64_t>& order, std::vector<T>& list)
{
  if (list.empty()) return;
  std::vector<T> sorted;
  if (!reserve(eh, sorted, std::ssize(order))) return;
  for (const std::int64_t i : order) sorted.push_back(list[static_cast<std::size_t>(i)]);
  list.swap(sorted);
}

}  // namespace

void L_SORT_BY_TRAIT(ERROR_HANDLER& eh, std::int64_t traits, std::int64_t mv, DESIGN_MTX& design)
{
  const Frame here{eh, __func__};
  const std::int64_t rows = design.rows();
  // Counting sort: at[t] is where the next row of trait t + 1 goes.
  std::vector<std::int64_t> at(static_cast<std::size_t>(traits) + 1, 0), order;
  if (!resize(eh, order, rows)) return;
  for (const std::int32_t t : design.trait) ++at[static_cast<std::size_t>(t)];
  std::partial_sum(at.begin(), at.end(), at.begin());
  for (std::int64_t i = 0; i < rows; ++i) {
    const auto t = static_cast<std::size_t>(design.trait[static_cast<std::size_t>(i)]);
    order[static_cast<std::size_t>(at[t - 1]++)] = i;
  }

  DESIGN_MTX sorted;
  if (!reserve(eh, sorted.start, rows + 1) || !reserve(eh, sorted.equation, std::ssize(design.equation)) ||
      !reserve(eh, sorted.value, std::ssize(design.value))) {
    return;
  }
  design.mv.clear();
  for (const std::int64_t i : order) {
    DMT_ADD_ROWS(eh, sorted, design.equations(i), design.values(i));
    // An mv equation is the last of its row.
    if (mv < 0 || sorted.equation.empty() || sorted.start.end()[-1] == sorted.start.end()[-2] || sorted.equation.back() < mv)
      continue;
    sorted.equation.back() = static_cast<std::int32_t>(mv + std::ssize(design.mv));
    design.mv.push_back(sorted.rows() - 1);
  }
  design.start.swap(sorted.start);
  design.equation.swap(sorted.equation);
  design.value.swap(sorted.value);
  reorder(eh, order, design.response);
  reorder(eh, order, design.offset);
  reorder(eh, order, design.weight);
  reorder(eh, order, design.record);
  reorder(eh, order, design.trait);
}

}  // namespace tolvan
