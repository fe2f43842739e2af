// REORDER_MATRIX decides whether to order the sparse equations, K4MEORB orders them.
#include "estimation/order_equations.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "base/memory.h"
#include "estimation/quotient_graph.h"

namespace tolvan {

namespace {

// An equation joined to so many others would only slow the elimination down: it goes to the end at once.
std::int32_t nearly_dense(std::int32_t n)
{
  return static_cast<std::int32_t>(std::max(16.0, 10.0 * std::sqrt(n)));
}

}  // namespace

void REORDER_MATRIX(ERROR_HANDLER& eh, const PATTERN& pattern, std::int64_t isort,
                    std::vector<std::int32_t>& order)
{
  const Frame here{eh, __func__};
  if (isort >= 7) {
    eh.error("METIS no longer available in K4MITR");
    eh.error("unexpected value for ISORT in K4MITR");
    return;
  }
  if (isort < 0 || pattern.n <= pattern.dense + 2) {
    if (!resize(eh, order, pattern.n)) return;
    std::iota(order.begin(), order.end(), 0);
    return;
  }
  K4MEORB(eh, pattern, order);
}

void K4MEAB(ERROR_HANDLER& eh)
{
  const Frame here{eh, __func__};
  eh.error("equation ordering aborted", Ecode::alloc_fail);
  eh.continuation("Failed ordering equations. Increase workspace");
}

void K4MEORB(ERROR_HANDLER& eh, const PATTERN& pattern, std::vector<std::int32_t>& order)
{
  const Frame here{eh, __func__};
  const auto n = static_cast<std::int32_t>(pattern.n - pattern.dense);
  if (!assign(eh, order, pattern.n, -1)) return;

  QUOTIENT_GRAPH g;
  if (!attempt([&] { build_graph(n, pattern, g); })) {
    K4MEAB(eh);
    return;
  }
  std::vector<std::int32_t> last;
  const std::int32_t limit = nearly_dense(n);
  for (std::int32_t i = 0; i < n; ++i) {
    if (g.weight[i] > 0 && g.degree[i] > limit) last.push_back(i);
  }
  std::stable_sort(last.begin(), last.end(), [&](auto a, auto b) { return g.degree[a] < g.degree[b]; });
  std::vector<std::int32_t> run;  // places of each of these
  for (const std::int32_t i : last) {
    run.push_back(g.weight[i]);
    set_aside(g, i);
  }

  // Each element takes a run of places as long as its weight; what it took up fills the run, itself last.
  std::vector<std::int32_t> place(static_cast<std::size_t>(n), -1);
  std::int32_t placed = 0;
  while (g.eliminated < n) {
    const std::int32_t e = eliminate_least(g);
    if (e < 0) {
      eh.internal("infinite loop in k4meorb");
      return;
    }
    place[e] = placed;
    placed += g.weight[e];
  }
  for (std::size_t k = 0; k < last.size(); ++k) {
    place[last[k]] = placed;
    placed += run[k];
  }
  for (std::int32_t i = 0; i < n; ++i) {
    std::int32_t root = i;
    while (g.taken_by[root] >= 0) root = g.taken_by[root];
    for (std::int32_t k = i; k != root;) {  // later walks end here at once
      const std::int32_t up = g.taken_by[k];
      g.taken_by[k] = root;
      k = up;
    }
    if (place[root] >= 0 && root != i) order[place[root]++] = i;
  }
  for (std::int32_t i = 0; i < n; ++i) {
    if (g.taken_by[i] < 0 && place[i] >= 0) order[place[i]] = i;
  }
  if (placed != n || std::count(order.begin(), order.begin() + n, -1) > 0) {
    eh.internal("something went wrong reordering the matrix");
    return;
  }
  std::iota(order.begin() + n, order.end(), n);
}

}  // namespace tolvan
