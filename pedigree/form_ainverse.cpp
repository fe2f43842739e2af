#include "pedigree/form_ainverse.h"

#include <algorithm>
#include <cmath>

#include "base/memory.h"
#include "base/text.h"

namespace tolvan {
namespace {

/// The parents of a row that its offspring's contributions reach, with their path coefficients: a coefficient
/// of 0 makes none.
struct PATHS {
  std::int64_t s = 0, d = 0;
  double c1 = 0.0, c2 = 0.0;
};

PATHS paths_of(const PEDIGREE& p, const BREEDING_RULES& rules, std::int64_t i)
{
  const auto k = static_cast<std::size_t>(i - 1);
  const auto [c1, c2] = parent_paths(p, rules, i);
  return {c1 != 0.0 ? p.male[k] : 0, c2 != 0.0 ? p.female[k] : 0, c1, c2};
}

/// L_PATTERN: lists the elements that the contributions reach, by rows: to each row its parents, and its
/// older mates.
void L_PATTERN(ERROR_HANDLER& eh, const PEDIGREE& p, const BREEDING_RULES& rules, SPARSE_MTX_LLIST& matrix)
{
  const Frame here{eh, __func__};
  const std::int64_t n = p.rows();
  const auto each_element = [&](auto&& work) {  // rows and columns from 0, off the diagonal
    for (std::int64_t i = p.groups + 1; i <= n; ++i) {
      const PATHS to = paths_of(p, rules, i);
      if (to.s > 0) work(i - 1, to.s - 1);
      if (to.d > 0 && to.d != to.s) work(i - 1, to.d - 1);
      if (to.s > 0 && to.d > 0 && to.s != to.d) work(std::max(to.s, to.d) - 1, std::min(to.s, to.d) - 1);
    }
  };
  // A counting sort by rows, then each short row by columns with repeats taken out.
  std::vector<std::int64_t> start;
  std::vector<std::int32_t> column;
  if (!assign(eh, start, n + 1)) return;
  each_element([&](std::int64_t row, std::int64_t) { ++start[static_cast<std::size_t>(row) + 1]; });
  for (std::size_t k = 1; k < start.size(); ++k) start[k] += start[k - 1];
  if (!assign(eh, column, start.back())) return;
  each_element([&](std::int64_t row, std::int64_t other) {
    column[static_cast<std::size_t>(start[static_cast<std::size_t>(row)]++)] =
        static_cast<std::int32_t>(other);
  });
  std::int64_t kept = 0;
  std::int64_t from = 0;
  for (std::size_t k = 0; k < static_cast<std::size_t>(n); ++k) {
    const auto first = column.begin() + from;
    from = start[k];  // has moved on to the end of its row
    const auto last = column.begin() + from;
    std::sort(first, last);
    const auto to = column.begin() + kept;
    kept += std::unique_copy(first, last, to) - to;
    start[k] = kept;
  }
  SPMT_RESERVE(eh, matrix, SparseKind::sm_compressed, n, kept + n);
  if (eh.terminate()) return;
  std::int64_t read = 0;
  std::int64_t write = 0;
  for (std::int64_t i = 0; i < n; ++i) {
    for (; read < start[static_cast<std::size_t>(i)]; ++read, ++write)
      matrix.index[static_cast<std::size_t>(write)] = column[static_cast<std::size_t>(read)];
    matrix.index[static_cast<std::size_t>(write++)] = static_cast<std::int32_t>(i);
    matrix.start[static_cast<std::size_t>(i) + 1] = write;
  }
}

/// L_TELL_GROUPS: groups without progeny, and pairs of groups with hardly any; gives how many groups are fixed
/// effects.
std::int64_t L_TELL_GROUPS(ERROR_HANDLER& eh, const BREEDING_RULES& rules, std::int64_t groups,
                           SPARSE_MTX_LLIST& matrix)
{
  const Frame here{eh, __func__};
  std::int64_t fixed = groups;
  for (std::int64_t g = 1; g <= groups; ++g) {
    if (sparse_element(matrix, g, g) != 0.0) continue;
    if (rules.group_base < 0.0) {
      eh.warning(text("empty Genetic Group ", g));
    } else {
      SPMT_ADD(matrix, g, g, 1.0);
      --fixed;
      eh.warning(text("empty Genetic Group ", g, " generated a Constraint"));
    }
  }
  for (std::int64_t a = 1; a <= groups; ++a) {
    const auto begin = static_cast<std::size_t>(matrix.start[static_cast<std::size_t>(a - 1)]);
    const auto diagonal = static_cast<std::size_t>(matrix.start[static_cast<std::size_t>(a)]) - 1;
    for (std::size_t at = begin; at < diagonal; ++at) {
      const std::int64_t count = std::llround(4.0 * matrix.values[at]);
      if (count < 1)
        eh.warning(text("possible error in genetic group pedigree, ", count, " direct progeny of groups ", a,
                        " and ", matrix.index[at] + 1));
    }
  }
  return fixed;
}

}  // namespace

void K4MLLIN(ERROR_HANDLER& eh, std::int64_t i, std::int64_t s, std::int64_t d, double c1, double c2,
             double w, SPARSE_MTX_LLIST& matrix)
{
  const Frame here{eh, __func__};
  constexpr const char* fault = "pedigree (DAM) sequence error (use !SORT qualifier), ";
  if (s > i) {
    eh.warning(text(fault, "SIRE set to unknown: ", i, " ", s, " ", d));
    s = 0;
  }
  if (d > i) {
    eh.warning(text(fault, "DAM set to unknown: ", i, " ", s, " ", d));
    d = 0;
  }
  SPMT_ADD(matrix, i, i, w);
  if (s > 0 && s == d) {
    SPMT_ADD(matrix, i, s, -(c1 + c2) * w);
    SPMT_ADD(matrix, s, s, (c1 + c2) * (c1 + c2) * w);
    return;
  }
  if (s > 0) {
    SPMT_ADD(matrix, i, s, -c1 * w);
    SPMT_ADD(matrix, s, s, c1 * c1 * w);
  }
  if (d > 0) {
    SPMT_ADD(matrix, i, d, -c2 * w);
    SPMT_ADD(matrix, d, d, c2 * c2 * w);
  }
  if (s > 0 && d > 0) SPMT_ADD(matrix, s, d, c1 * c2 * w);
}

std::int64_t K4MAIG(ERROR_HANDLER& eh, const PEDIGREE& pedigree, const BREEDING_RULES& rules, AINVERSE& out)
{
  const Frame here{eh, __func__};
  const std::int64_t n = pedigree.rows();
  const std::int64_t groups = pedigree.groups;
  for (std::int64_t i = groups + 1; i <= n; ++i) {
    const auto k = static_cast<std::size_t>(i - 1);
    const bool no_id = groups > 0 && pedigree.id[k] < 0;
    const bool out_of_order = std::max(pedigree.male[k], pedigree.female[k]) >= i;
    if (no_id) eh.error("Missing id in pedigree.");
    if (!no_id && out_of_order) eh.error("Pedigree not sorted properly, Use !SORT.");
    if (no_id || out_of_order) return i - 1;
  }
  INBREEDING f;
  if (rules.by_sires && is_plain(pedigree, rules)) {
    L_INBREEDING_BY_SIRES(eh, pedigree, rules, f);
    if (eh.terminate()) return n;
  } else {
    std::int64_t fault = 0;
    if (!L_INBREEDING_BY_WALK(eh, pedigree, rules, f, fault)) return fault > 0 ? fault - 1 : n;
  }
  L_PATTERN(eh, pedigree, rules, out.matrix);
  if (eh.terminate()) return n;

  // The sign in front of the groups' share is by convention: the same number in every fit of one pedigree.
  out.logdet = rules.group_base > 0.0 ? -static_cast<double>(groups) * std::log(rules.group_base) : 0.0;
  for (std::int64_t g = 1; g <= groups && rules.group_base > 0.0; ++g)
    SPMT_ADD(out.matrix, g, g, rules.group_base);
  for (std::int64_t i = groups + 1; i <= n; ++i) {
    const double D = f.D[static_cast<std::size_t>(i - 1)];
    const PATHS to = paths_of(pedigree, rules, i);
    out.logdet -= std::log(D);
    K4MLLIN(eh, i, to.s, to.d, to.c1, to.c2, 1.0 / D, out.matrix);
  }
  if (rules.group_base <= 0.0) out.fixed_groups = L_TELL_GROUPS(eh, rules, groups, out.matrix);
  out.inbreeding = std::move(f.F);
  out.variance = std::move(f.D);
  return n;
}

void CALC_AINVERSE(ERROR_HANDLER& eh, const PEDIGREE_COLUMNS& columns, const AINVERSE_CALL& call,
                   PEDIGREE& pedigree, AINVERSE& out)
{
  const Frame here{eh, __func__};
  if (call.selfing_set && call.inbreeding_set) {
    eh.error("Only one of selfing and inbreeding can be set.");
    return;
  }
  CHKPED(eh, columns, call.flags, pedigree);
  if (eh.terminate()) return;
  BREEDING_RULES rules;
  rules.grandsire = call.flags.grandsire;
  rules.selfing = call.selfing;
  rules.inbred_lines = call.inbreeding == 1.0;
  rules.base_inbreeding = rules.inbred_lines ? 0.0 : call.inbreeding;
  rules.group_base = call.group_offset;
  const std::int64_t last = K4MAIG(eh, pedigree, rules, out);
  if (last < pedigree.rows())
    eh.error(text("Fault for individual ", last + 1, " when calculating the inverse pedigree."));
}

}  // namespace tolvan
