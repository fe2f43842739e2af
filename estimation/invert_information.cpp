// The inverse of the average-information matrix.  Routine: K4MAII.
#include <algorithm>
#include <cmath>

#include "base/lapack.h"
#include "base/text.h"
#include "estimation/newton_step.h"
#include "estimation/update_parameters.h"
#include "varstruct/followers.h"

namespace tolvan {
namespace {

constexpr double dependent_from = 0.999999999;  // squared correlation of two linearly dependent parameters
constexpr double dependent_to = 1.000000001;
constexpr double least_part = 0.05;             // squared, of a parameter in another one's information, for it to be named
constexpr std::size_t most_together = 3;
constexpr std::int64_t many = 48;  // parameters from which the work is done by blocks

std::size_t at(std::int64_t i, std::int64_t j) { return static_cast<std::size_t>(i * (i + 1) / 2 + j); }

/// The lower triangle of a packed matrix, scaled by the roots of its diagonal, as a full one by columns.
std::vector<double> unpack_scaled(const std::vector<double>& packed, std::int64_t k, std::vector<double>& root)
{
  std::vector<double> full(static_cast<std::size_t>(k * k), 0.0);
  root.resize(static_cast<std::size_t>(k));
  for (std::int64_t i = 0; i < k; ++i) {
    const double a = packed[at(i, i)];
    root[static_cast<std::size_t>(i)] = a > 0.0 ? std::sqrt(a) : 1.0;
    for (std::int64_t j = 0; j <= i; ++j) {
      full[static_cast<std::size_t>(i + j * k)] =
          packed[at(i, j)] / (root[static_cast<std::size_t>(i)] * root[static_cast<std::size_t>(j)]);
    }
  }
  return full;
}

/// The Cholesky factor of many parameters by blocks, where every pivot is well above its tolerance; false leaves l as it was.
bool factorise_blocked(const std::vector<std::uint8_t>& used, std::vector<double>& l)
{
  const auto k = static_cast<std::int64_t>(used.size());
  if (k < many || std::find(used.begin(), used.end(), std::uint8_t{0}) != used.end()) return false;
  std::vector<double> root;
  std::vector<double> full = unpack_scaled(l, k, root);
  if (dpotrf('L', k, full.data(), k) != 0) return false;
  for (std::int64_t i = 0; i < k; ++i) {
    const double pivot = full[static_cast<std::size_t>(i + i * k)];
    if (pivot * pivot < 1e-8) return false;
  }
  for (std::int64_t i = 0; i < k; ++i) {
    for (std::int64_t j = 0; j <= i; ++j) l[at(i, j)] = full[static_cast<std::size_t>(i + j * k)] * root[static_cast<std::size_t>(i)];
  }
  return true;
}

/// The inverse of many parameters by blocks, from the packed factor.
void invert_blocked(const std::vector<double>& l, std::int64_t k, std::vector<double>& inverse)
{
  std::vector<double> full(static_cast<std::size_t>(k * k), 0.0);
  for (std::int64_t i = 0; i < k; ++i) {
    for (std::int64_t j = 0; j <= i; ++j) full[static_cast<std::size_t>(i + j * k)] = l[at(i, j)];
  }
  dpotri('L', k, full.data(), k);
  inverse.resize(static_cast<std::size_t>(k * (k + 1) / 2));
  for (std::int64_t i = 0; i < k; ++i) {
    for (std::int64_t j = 0; j <= i; ++j) inverse[at(i, j)] = full[static_cast<std::size_t>(i + j * k)];
  }
}

/// Cholesky LL' of the rows in use, in place; a row whose pivot falls below its tolerance leaves the set.
void factorise(const std::vector<double>& tolerance, std::vector<std::uint8_t>& used, std::vector<double>& l,
               std::vector<std::int64_t>& lost)
{
  const auto k = static_cast<std::int64_t>(used.size());
  if (factorise_blocked(used, l)) return;
  for (std::int64_t i = 0; i < k; ++i) {
    const auto row = static_cast<std::size_t>(i);
    if (!used[row]) continue;
    for (std::int64_t j = 0; j <= i; ++j) {
      if (!used[static_cast<std::size_t>(j)]) continue;
      double sum = l[at(i, j)];
      for (std::int64_t m = 0; m < j; ++m) {
        if (used[static_cast<std::size_t>(m)]) sum -= l[at(i, m)] * l[at(j, m)];
      }
      if (j < i) {
        l[at(i, j)] = sum / l[at(j, j)];
      } else if (sum > tolerance[row]) {
        l[at(i, i)] = std::sqrt(sum);
      } else {
        used[row] = 0;
        lost.push_back(i);
      }
    }
  }
}

/// The parameter in use, besides i, whose information is the most like that of i; -1 for none.
std::int64_t most_alike(const INFORMATION& information, const std::vector<std::uint8_t>& used, std::int64_t i)
{
  std::int64_t best = -1;
  double largest = 0.0;
  for (std::int64_t j = 0; j < information.count(); ++j) {
    if (j == i || !used[static_cast<std::size_t>(j)]) continue;
    const double r2 = information.at(i, j) * information.at(i, j) / (information.at(i, i) * information.at(j, j));
    if (r2 <= largest) continue;
    largest = r2;
    best = j;
  }
  return best;
}

/// The few parameters in use that make up the information of parameter i together, as far as they have a part worth naming; empty
/// where they are many.
std::vector<std::int64_t> makes_up(const INFORMATION& information, std::vector<std::uint8_t> used, std::int64_t i)
{
  const auto k = static_cast<std::size_t>(information.count());
  INFORMATION column = information;
  for (std::size_t j = 0; j < k; ++j) column.score[j] = information.at(static_cast<std::int64_t>(j), i);
  used[static_cast<std::size_t>(i)] = 0;
  std::vector<double> share(k, 0.0);
  solve_step(column, used, share, share);
  std::vector<std::int64_t> found;
  for (std::size_t j = 0; j < k; ++j) {
    const auto at_j = static_cast<std::int64_t>(j);
    if (used[j] && share[j] * share[j] * information.at(at_j, at_j) > least_part * information.at(i, i)) found.push_back(at_j);
  }
  if (found.size() > most_together) found.clear();
  return found;
}

/// Inverse from the factor: columns of the identity through both triangles.
void invert(const std::vector<std::uint8_t>& used, const std::vector<double>& l, std::vector<double>& inverse)
{
  const auto k = static_cast<std::int64_t>(used.size());
  if (k >= many && std::find(used.begin(), used.end(), std::uint8_t{0}) == used.end()) {
    invert_blocked(l, k, inverse);
    return;
  }
  inverse.assign(static_cast<std::size_t>(k * (k + 1) / 2), 0.0);
  std::vector<double> x(static_cast<std::size_t>(k));
  for (std::int64_t c = 0; c < k; ++c) {
    if (!used[static_cast<std::size_t>(c)]) continue;
    std::fill(x.begin(), x.end(), 0.0);
    for (std::int64_t i = c; i < k; ++i) {
      if (!used[static_cast<std::size_t>(i)]) continue;
      double sum = i == c ? 1.0 : 0.0;
      for (std::int64_t m = c; m < i; ++m) {
        if (used[static_cast<std::size_t>(m)]) sum -= l[at(i, m)] * x[static_cast<std::size_t>(m)];
      }
      x[static_cast<std::size_t>(i)] = sum / l[at(i, i)];
    }
    for (std::int64_t i = k - 1; i >= c; --i) {
      if (!used[static_cast<std::size_t>(i)]) continue;
      double sum = x[static_cast<std::size_t>(i)];
      for (std::int64_t m = i + 1; m < k; ++m) {
        if (used[static_cast<std::size_t>(m)]) sum -= l[at(m, i)] * x[static_cast<std::size_t>(m)];
      }
      x[static_cast<std::size_t>(i)] = sum / l[at(i, i)];
      inverse[at(i, c)] = x[static_cast<std::size_t>(i)];
    }
  }
}

}  // namespace

INFORMATION in_units(INFORMATION information)
{
  for (std::int64_t i = 0; i < information.count(); ++i) {
    const double unit = information.unit[static_cast<std::size_t>(i)];
    information.score[static_cast<std::size_t>(i)] *= unit;
    if (!information.quadratic.empty()) information.quadratic[static_cast<std::size_t>(i)] *= unit;
    for (std::int64_t j = 0; j <= i; ++j) information.at(i, j) *= unit * information.unit[static_cast<std::size_t>(j)];
  }
  return information;
}

void fold_followers(const VARIANCE_MODEL& model, INFORMATION& information)
{
  const auto k = static_cast<std::size_t>(information.count());
  const auto parameter = [&](std::size_t i) -> const VARIANCE_PARAMETER& {
    return model.parameters[static_cast<std::size_t>(information.active[i])];
  };
  INFORMATION kept;
  std::vector<std::vector<PARAMETER_SHARE>> shares(k);  // of each parameter: places among the kept ones
  for (std::size_t i = 0; i < k; ++i) {
    if (follows(parameter(i))) continue;
    if (static_cast<std::int64_t>(i) == information.held_out) kept.held_out = kept.count();
    kept.active.push_back(information.active[i]);
    kept.unit.push_back(information.unit[i]);
  }
  if (kept.active.size() == k) return;
  for (std::size_t i = 0; i < k; ++i) {
    for (const PARAMETER_SHARE& share : made_of(model, information.active[i])) {
      const auto place = std::lower_bound(kept.active.begin(), kept.active.end(), share.of);
      if (place != kept.active.end() && *place == share.of) shares[i].push_back({place - kept.active.begin(), share.by});
    }
  }
  kept.score.assign(kept.active.size(), 0.0);
  kept.quadratic.assign(information.quadratic.empty() ? 0 : kept.active.size(), 0.0);
  kept.ai.assign(kept.active.size() * (kept.active.size() + 1) / 2, 0.0);
  for (std::size_t i = 0; i < k; ++i) {
    for (const PARAMETER_SHARE& a : shares[i]) {
      kept.score[static_cast<std::size_t>(a.of)] += a.by * information.score[i];
      if (!kept.quadratic.empty()) kept.quadratic[static_cast<std::size_t>(a.of)] += a.by * information.quadratic[i];
      for (std::size_t j = 0; j < k; ++j) {  // both triangles, each kept pair once
        for (const PARAMETER_SHARE& b : shares[j]) {
          if (b.of <= a.of)
            kept.ai[at(a.of, b.of)] += a.by * b.by * information.at(static_cast<std::int64_t>(i), static_cast<std::int64_t>(j));
        }
      }
    }
  }
  information = std::move(kept);
}

void K4MAII(ERROR_HANDLER& eh, bool update, std::int64_t iteration, INFORMATION& information, VARIANCE_MODEL& model, AIOPT& aiopt,
            UPDATE_STATE& state, std::vector<double>& covariance, std::vector<std::uint8_t>& used)
{
  const Frame here{eh, __func__};
  const std::int64_t k = information.count();
  const auto label_of = [&](std::int64_t i) -> const std::string& {
    return model.parameters[static_cast<std::size_t>(information.active[static_cast<std::size_t>(i)])].label;
  };
  if (update) state.singular.clear();
  used.assign(static_cast<std::size_t>(k), 1);
  std::vector<double> tolerance(static_cast<std::size_t>(k));

  // A parameter without information leaves the step.  The residual's own variance is never the one to blame: a parameter
  // that cannot be told from it gives way instead.
  std::vector<std::int64_t> silent, confounded;
  const auto leave_out = [&](std::int64_t i, bool dependent) {
    used[static_cast<std::size_t>(i)] = 0;
    VARIANCE_PARAMETER& parameter = model.parameters[static_cast<std::size_t>(information.active[static_cast<std::size_t>(i)])];
    if (!update || !is_free(parameter.constraint)) return;
    ++aiopt(Ai::ai_singularities);
    (dependent ? confounded : silent).push_back(i);
    if (dependent) parameter.constraint = Constraint::S;
  };

  for (std::int64_t i = 0; i < k; ++i) {
    double& a = information.at(i, i);
    tolerance[static_cast<std::size_t>(i)] = (std::fabs(a) + 1e-9) * 1e-9;
    if (!(a >= 1e-18)) {
      leave_out(i, false);
      continue;
    }
    for (std::int64_t j = 0; j < i && used[static_cast<std::size_t>(i)]; ++j) {
      if (!used[static_cast<std::size_t>(j)]) continue;
      const double r2 = information.at(i, j) * information.at(i, j) / (information.at(j, j) * a);
      if (r2 <= dependent_from) continue;
      if (r2 <= dependent_to) {
        const bool residual = model.residual_parameter == information.active[static_cast<std::size_t>(i)];
        leave_out(residual ? j : i, true);
      } else {
        eh.warning(iteration < 2000
                       ? text("AI matrix negative definite, diagonal has been increased at iteration ", iteration)
                       : std::string("AI matrix negative definite, diagonal has been increased whilst calculating the "
                                     "Kenward statistics"));
        a *= 1.0001 * r2;  // the smallest increase that makes the pair positive definite, with a margin
      }
    }
  }
  std::vector<double> l = information.ai;
  std::vector<std::int64_t> lost;
  const std::vector<std::uint8_t> before = used;
  factorise(tolerance, used, l, lost);
  const auto residual = std::find_if(lost.begin(), lost.end(), [&](std::int64_t i) {
    return information.active[static_cast<std::size_t>(i)] == model.residual_parameter;
  });
  if (residual != lost.end()) {
    const std::int64_t other = most_alike(information, before, *residual);
    if (other >= 0) {
      used = before;
      used[static_cast<std::size_t>(other)] = 0;
      l = information.ai;
      lost.clear();
      factorise(tolerance, used, l, lost);
      lost.push_back(other);
    }
  }
  for (const std::int64_t i : lost) leave_out(i, true);
  for (const std::int64_t i : silent) state.singular.push_back({.label = label_of(i), .silent = true});
  for (const std::int64_t i : confounded) {
    SINGULAR_PARAMETER told{.label = label_of(i)};
    bool with_residual = false;
    for (const std::int64_t j : makes_up(information, used, i)) {
      told.made_of.push_back(label_of(j));
      with_residual = with_residual || information.active[static_cast<std::size_t>(j)] == model.residual_parameter;
    }
    if (state.first_singular.empty() && (with_residual || told.made_of.empty())) state.first_singular = told.label;
    state.singular.push_back(std::move(told));
  }

  // A correlation about which the data say next to nothing beside its score is held.  Both are what is left once the parameters
  // before it are eliminated: the score of theta in ARMA(1,1), say, is large while phi is far off, and all phi's.
  // Far from the optimum it only sits this step out: where another variance is far too large nothing is known about it, yet.
  std::vector<double> z(static_cast<std::size_t>(k), 0.0);  // the scores through the factor
  std::vector<std::size_t> sit_out;
  for (std::int64_t i = 0; update && i < k; ++i) {
    if (!used[static_cast<std::size_t>(i)]) continue;
    double left = information.score[static_cast<std::size_t>(i)];
    for (std::int64_t m = 0; m < i; ++m) {
      if (used[static_cast<std::size_t>(m)]) left -= l[at(i, m)] * z[static_cast<std::size_t>(m)];
    }
    z[static_cast<std::size_t>(i)] = left / l[at(i, i)];
    VARIANCE_PARAMETER& parameter = model.parameters[static_cast<std::size_t>(information.active[static_cast<std::size_t>(i)])];
    const double pivot = l[at(i, i)] * l[at(i, i)];
    if (parameter.type == ParamType::R && pivot < wide(0.01f) * std::fabs(left)) {
      if (!state.may_fix) {
        sit_out.push_back(static_cast<std::size_t>(i));
        continue;
      }
      // A step taken back lets it go, and it may be fixed again.
      const std::int64_t p = information.active[static_cast<std::size_t>(i)];
      if (std::find(state.told.begin(), state.told.end(), p) == state.told.end()) {
        eh.warning("Correlation parameter fixed; little information");
        eh.continuation(parameter.label);
        state.told.push_back(p);
      }
      parameter.constraint = Constraint::F;
    }
  }
  invert(used, l, covariance);
  for (const std::size_t i : sit_out) used[i] = 0;
}

}  // namespace tolvan
