// Random pedigrees and the relationship matrices of their breeding systems by definition: dense, row by row.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

#include "pedigree/form_ainverse.h"

namespace tolvan_test {

using namespace tolvan;

/// A dense square matrix, rows and columns from 1.
struct Dense {
  explicit Dense(std::int64_t order) : n(order), a(static_cast<std::size_t>(order * order), 0.0) {}
  double& operator()(std::int64_t i, std::int64_t j)
  {
    return a[static_cast<std::size_t>((i - 1) * n + j - 1)];
  }
  double operator()(std::int64_t i, std::int64_t j) const
  {
    return a[static_cast<std::size_t>((i - 1) * n + j - 1)];
  }
  std::int64_t n;
  std::vector<double> a;
};

/// How the parents of a random pedigree are drawn.
struct Draw {
  std::int64_t rows = 20;
  std::int64_t groups = 0;     // every missing parent is one of them
  double unknown = 0.25;       // of each parent
  double both_same = 0.0;      // selfing by a parent on both sides
  double full_sib = 0.2;       // the parents of the row before once more
  bool sexes = false;          // males and females, parents of the right one
  std::int64_t window = 1000;  // parents are among that many rows before
};

inline PEDIGREE random_pedigree(std::mt19937& random, const Draw& draw)
{
  const auto chance = [&](double p) { return std::uniform_real_distribution<double>(0.0, 1.0)(random) < p; };
  PEDIGREE p;
  p.groups = draw.groups;
  for (std::int64_t i = 1; i <= draw.rows; ++i) {
    p.id.push_back(static_cast<std::int32_t>(i - 1));
    if (draw.sexes) p.sex.push_back(chance(0.5) ? 0.0 : 1.0);
    std::int32_t parent[2] = {0, 0};
    if (i > draw.groups) {
      for (int side = 0; side < 2; ++side) {
        const std::int64_t low = std::max(draw.groups + 1, i - draw.window);
        if (i > low && !chance(draw.unknown)) {
          const auto pick =
              static_cast<std::int32_t>(std::uniform_int_distribution<std::int64_t>(low, i - 1)(random));
          if (!draw.sexes || p.sex[static_cast<std::size_t>(pick - 1)] == side) parent[side] = pick;
        }
        if (parent[side] == 0 && draw.groups > 0)
          parent[side] =
              static_cast<std::int32_t>(std::uniform_int_distribution<std::int64_t>(1, draw.groups)(random));
      }
      if (chance(draw.both_same)) parent[1] = parent[0];
      if (!draw.sexes && parent[0] == parent[1] && draw.both_same == 0.0 && parent[0] > draw.groups)
        parent[1] = draw.groups > 0;
      if (i > draw.groups + 1 && chance(draw.full_sib)) {
        parent[0] = p.male.back();
        parent[1] = p.female.back();
      }
    }
    p.male.push_back(parent[0]);
    p.female.push_back(parent[1]);
  }
  return p;
}

/// What one row takes from its parents, and its own relationship: all that tells breeding systems apart.
struct Share {
  double c1 = 0.5, c2 = 0.5;
  double own = 1.0;  // a(i, i)
};

/// A by definition: a(i, j) = c1 a(s, j) + c2 a(d, j) for j before i.  Groups and missing parents are
/// unrelated to all and are left out: row and column g + k is individual k.
template <class ShareOf>
Dense tabular(const PEDIGREE& p, ShareOf&& share_of)
{
  Dense a(p.rows());
  for (std::int64_t i = p.groups + 1; i <= p.rows(); ++i) {
    const std::int64_t s =
        p.male[static_cast<std::size_t>(i - 1)] > p.groups ? p.male[static_cast<std::size_t>(i - 1)] : 0;
    const std::int64_t d =
        p.female[static_cast<std::size_t>(i - 1)] > p.groups ? p.female[static_cast<std::size_t>(i - 1)] : 0;
    const Share share = share_of(a, i, s, d);
    for (std::int64_t j = 1; j < i; ++j) {
      const double x = (s > 0 ? share.c1 * a(s, j) : 0.0) + (d > 0 ? share.c2 * a(d, j) : 0.0);
      a(i, j) = a(j, i) = x;
    }
    a(i, i) = share.own;
  }
  return a;
}

}  // namespace tolvan_test
