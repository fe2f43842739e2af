// Inbreeding by the ancestors' walk, with the variances of all breeding systems.  Routine:
// L_INBREEDING_BY_WALK.
#include "pedigree/inbreeding.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "base/memory.h"

namespace tolvan {
namespace {

constexpr double least_grandsire_path = 0.25;
constexpr std::int64_t generations = 10;

/// 2^-k, k from 1 to 10: what is left of the heterozygosity after k generations of selfing.
constexpr std::array<double, generations> generation_table = [] {
  std::array<double, generations> t{};
  double x = 1.0;
  for (double& each : t) each = x *= 0.5;
  return t;
}();
static_assert(generation_table.back() == 0.0009765625);

/// The work of one pedigree: F and D of the rows so far, the walk's row of T.
class Walk {
 public:
  Walk(const PEDIGREE& p, const BREEDING_RULES& rules, INBREEDING& out)
      : p_(p), rules_(rules), F(out.F), D(out.D)
  {
  }

  /// F and D of row i, from 1; false for a fault.
  bool individual(ERROR_HANDLER& eh, std::int64_t i);
  std::vector<double> L;                // by row, zero between walks
  std::vector<std::int32_t> ancestors;  // a heap of the rows in hand, the youngest on top

 private:
  double f(std::int64_t row) const { return row > p_.groups ? F[static_cast<std::size_t>(row - 1)] : -1.0; }
  double& d(std::int64_t row) { return D[static_cast<std::size_t>(row - 1)]; }
  int sex(std::int64_t row) const { return p_.sex[static_cast<std::size_t>(row - 1)] == 0.0 ? 1 : 2; }
  double level(std::int64_t i) const
  {
    return p_.level.empty() ? 0.0 : p_.level[static_cast<std::size_t>(i - 1)];
  }
  double level_inbreeding(double f0, double v) const;
  bool sex_linked(ERROR_HANDLER& eh, std::int64_t i, std::int64_t s, std::int64_t dam);
  bool inbred_line(ERROR_HANDLER& eh, std::int64_t i, std::int64_t s, std::int64_t dam);
  bool full_sib_of_last(std::int64_t i) const;
  double walk(std::int64_t i, double start);

  const PEDIGREE& p_;
  const BREEDING_RULES& rules_;
  std::vector<double>&F, &D;
  double f0_ = 0.0;          // of the row before, ahead of its level
  std::int64_t f0_row_ = 0;  // the row that f0_ belongs to
};

/// The inbreeding f0 taken up to a level v: v itself below 1, else so many rounds of selfing.
double Walk::level_inbreeding(double f0, double v) const
{
  if (v <= 0.0) return f0;
  if (v < 1.0) return std::max(f0, v);
  for (auto k = static_cast<std::int64_t>(v); k > 0; --k) f0 = (f0 + 1.0) / 2.0;
  return f0;
}

bool Walk::full_sib_of_last(std::int64_t i) const
{
  if (!rules_.full_sib_shortcut || i < 2 || f0_row_ != i - 1) return false;
  const auto k = static_cast<std::size_t>(i - 1);
  return p_.male[k] == p_.male[k - 1] && p_.female[k] == p_.female[k - 1] &&
         (p_.sex.empty() || sex(i) == sex(i - 1));
}

/// start + a(i,i) = start + sum over i and its ancestors j of L_j^2 D_j.
double Walk::walk(std::int64_t i, double start)
{
  double sum = start;
  L[static_cast<std::size_t>(i - 1)] = 1.0;
  ancestors.assign(1, static_cast<std::int32_t>(i));
  while (!ancestors.empty()) {
    const std::int64_t j = ancestors.front();
    std::pop_heap(ancestors.begin(), ancestors.end());
    ancestors.pop_back();
    const auto at = static_cast<std::size_t>(j - 1);
    const double a = L[at];
    L[at] = 0.0;
    sum += a * a * D[at];
    const auto [c1, c2] = parent_paths(p_, rules_, j);
    const std::pair<std::int64_t, double> parents[2] = {{p_.male[at], c1 * a}, {p_.female[at], c2 * a}};
    for (const auto& [parent, share] : parents) {
      if (parent <= p_.groups || share == 0.0) continue;
      double& l = L[static_cast<std::size_t>(parent - 1)];
      if (l == 0.0) {
        ancestors.push_back(static_cast<std::int32_t>(parent));
        std::push_heap(ancestors.begin(), ancestors.end());
      }
      l += share;
    }
  }
  return sum;
}

/// An X-linked locus: a male has one copy, from its dam (Fernando & Grossman 1990, Theor. Appl. Genet. 80,
/// 75-80).
bool Walk::sex_linked(ERROR_HANDLER& eh, std::int64_t i, std::int64_t s, std::int64_t dam)
{
  const auto k = static_cast<std::size_t>(i - 1);
  if (p_.sex[k] != 0.0 && p_.sex[k] != 1.0) {
    eh.error("Invalid Sex Code in pedigree field 4.");
    return false;
  }
  const bool female = sex(i) == 2;
  if ((s > 0 && sex(s) != 1) || (dam > 0 && sex(dam) != 2)) return false;
  F[k] = 0.0;
  if (s == 0 && dam == 0) {
    D[k] = female ? 1.0 : 0.5;
  } else if (dam == 0) {
    D[k] = 0.5;
  } else if (s == 0 && female) {
    D[k] = (3.0 - f(dam)) / 4.0;
  } else {
    D[k] = (1.0 - f(dam)) / 4.0;
  }
  if (s > 0 && dam > 0) {
    F[k] = full_sib_of_last(i) ? f0_ : walk(i, female ? -1.0 : -0.5);
    f0_ = F[k];
    f0_row_ = i;
  }
  return true;
}

/// A cross of two fully inbred lines, inbred in its turn: D = 1 - kinship of the parents.
bool Walk::inbred_line(ERROR_HANDLER& eh, std::int64_t i, std::int64_t s, std::int64_t dam)
{
  const auto k = static_cast<std::size_t>(i - 1);
  F[k] = 1.0;
  if (s > 0 && s == dam) {
    eh.error("Selfing not allowed with inbred lines.");
    return false;
  }
  if (s == 0 && dam == 0) {
    D[k] = 2.0;
  } else if (s == 0 || dam == 0) {
    D[k] = 1.5;
  } else {
    D[k] = 0.0;
    if (!full_sib_of_last(i)) f0_ = walk(i, -1.0);  // (a_ss + a_dd + 2 a_sd) / 4 - 1 with a_ss = a_dd = 2
    f0_row_ = i;
    D[k] = 1.0 - f0_;
  }
  return true;
}

bool Walk::individual(ERROR_HANDLER& eh, std::int64_t i)
{
  const auto k = static_cast<std::size_t>(i - 1);
  // A genetic group as a parent is one that is not known.
  const std::int64_t s = p_.male[k] > p_.groups ? p_.male[k] : 0;
  const std::int64_t dam = p_.female[k] > p_.groups ? p_.female[k] : 0;
  const double v = level(i);
  if (rules_.inbred_lines) {
    if (!inbred_line(eh, i, s, dam)) return false;
  } else if (!p_.sex.empty()) {
    if (!sex_linked(eh, i, s, dam)) return false;
  } else if (s == 0 && dam == 0) {
    F[k] = rules_.base_inbreeding;
    if (v > 0.0)
      F[k] = v < 1.0 ? v
                     : 1.0 - generation_table[static_cast<std::size_t>(std::min<double>(v, generations)) - 1];
    D[k] = F[k] + 1.0;
  } else {
    double f0 = 0.0;
    if (rules_.selfing > 0.0 && dam == 0) {
      const double rate = rules_.selfing;
      f0 = (f(s) + 1.0) * rate / 2.0;
      D[k] = 1.0 - (f(s) + 1.0) * (rate * rate + 1.0) / 4.0;
    } else if (rules_.grandsire && rules_.grandsire_path > 0.0) {
      const double m = parent_paths(p_, rules_, i).second;
      D[k] = 1.0 - (f(s) + 1.0) / 4.0 - (f(dam) + 1.0) * m * m;
    } else if (rules_.grandsire) {
      D[k] = (11.0 - 4.0 * f(s) - f(dam)) / 16.0;
    } else {
      D[k] = 0.5 - (f(s) + f(dam)) / 4.0;
    }
    if (s > 0 && s == dam && !rules_.grandsire) {
      f0 = (1.0 + f(s)) / 2.0;
    } else if (s > 0 && dam > 0) {
      f0 = full_sib_of_last(i) ? f0_ : walk(i, -1.0);
      f0_ = f0;
      f0_row_ = i;
    }
    F[k] = level_inbreeding(f0, v);
    D[k] += F[k] - f0;
  }
  D[k] = std::max(D[k], least_variance);
  F[k] = std::min(F[k], highest_inbreeding);
  return true;
}

}  // namespace

std::pair<double, double> parent_paths(const PEDIGREE& pedigree, const BREEDING_RULES& rules,
                                       std::int64_t row)
{
  const auto k = static_cast<std::size_t>(row - 1);
  if (rules.inbred_lines) return {0.5, 0.5};
  if (!pedigree.sex.empty()) return pedigree.sex[k] == 0.0 ? std::pair{0.0, 0.5} : std::pair{1.0, 0.5};
  if (rules.selfing > 0.0 && pedigree.female[k] <= pedigree.groups && pedigree.male[k] > pedigree.groups)
    return {(1.0 + rules.selfing) / 2.0, (1.0 - rules.selfing) / 2.0};
  if (rules.grandsire) return {0.5, std::max(rules.grandsire_path, least_grandsire_path)};
  return {0.5, 0.5};
}

bool is_plain(const PEDIGREE& pedigree, const BREEDING_RULES& rules)
{
  return pedigree.sex.empty() && pedigree.level.empty() && !rules.grandsire && rules.selfing <= 0.0 &&
         !rules.inbred_lines;
}

bool L_INBREEDING_BY_WALK(ERROR_HANDLER& eh, const PEDIGREE& pedigree, const BREEDING_RULES& rules,
                          INBREEDING& out, std::int64_t& fault)
{
  const Frame here{eh, __func__};
  const std::int64_t n = pedigree.rows();
  Walk walk(pedigree, rules, out);
  fault = 0;
  if (!assign(eh, out.F, n) || !assign(eh, out.D, n) || !assign(eh, walk.L, n)) return false;
  const bool room = attempt([&] {
    for (std::int64_t i = pedigree.groups + 1; i <= n && fault == 0; ++i) {
      if (!walk.individual(eh, i)) fault = i;
    }
  });
  if (!room) eh.out_of_memory();
  return room && fault == 0;
}

}  // namespace tolvan
