#include "pedigree/dominance.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <unordered_map>

#include "base/lapack.h"
#include "base/memory.h"
#include "base/text.h"
#include "pedigree/inbreeding.h"
#include "pedigree/place_rows.h"

namespace tolvan {
namespace {

/// A pair of parents (their places among all parents) and its progeny.
struct FAMILY {
  std::int32_t s = 0, d = 0;
  std::vector<std::int32_t> progeny;  // rows of the pedigree, from 0, rising
};

/// An element of a row of A that is not 0.
struct RELATIVE {
  std::int32_t parent;
  double a;
};

/// Who has progeny from two known parents, in which pairs, and how the parents are related.
struct FAMILIES {
  std::vector<FAMILY> pairs;               // by their first progeny
  std::vector<std::int32_t> family_of;     // of each row of the pedigree, -1 for none
  std::vector<std::int32_t> parents;       // rows of the pedigree, from 0, by place
  std::vector<std::vector<std::int32_t>> pairs_of;  // of each parent
  std::vector<std::vector<RELATIVE>> related;       // of each parent: the parents it is related to, itself too
};

/// L_FIND_FAMILIES: finds the pairs of parents; (s, d) and (d, s) are one.
void L_FIND_FAMILIES(ERROR_HANDLER& eh, const PEDIGREE& p, FAMILIES& f)
{
  const Frame here{eh, __func__};
  const bool room = attempt([&] {
    std::vector<std::int32_t> place(p.id.size(), -1);
    std::unordered_map<std::int64_t, std::int32_t> known;
    f.family_of.assign(p.id.size(), -1);
    const auto place_of = [&](std::int32_t row) {
      std::int32_t& at = place[static_cast<std::size_t>(row - 1)];
      if (at < 0) {
        at = static_cast<std::int32_t>(f.parents.size());
        f.parents.push_back(row - 1);
      }
      return at;
    };
    for (std::size_t k = static_cast<std::size_t>(p.groups); k < p.id.size(); ++k) {
      if (p.male[k] <= p.groups || p.female[k] <= p.groups) continue;
      const auto [low, high] = std::minmax(p.male[k], p.female[k]);
      const auto fresh = static_cast<std::int32_t>(f.pairs.size());
      const auto [found, is_new] = known.try_emplace(low * p.rows() + high, fresh);
      if (is_new) {
        const std::int32_t s = place_of(p.male[k]);
        f.pairs.push_back({.s = s, .d = place_of(p.female[k]), .progeny = {}});
      }
      f.pairs[static_cast<std::size_t>(found->second)].progeny.push_back(static_cast<std::int32_t>(k));
      f.family_of[k] = found->second;
    }
    f.pairs_of.resize(f.parents.size());
    for (std::size_t k = 0; k < f.pairs.size(); ++k) {
      f.pairs_of[static_cast<std::size_t>(f.pairs[k].s)].push_back(static_cast<std::int32_t>(k));
      if (f.pairs[k].d != f.pairs[k].s)
        f.pairs_of[static_cast<std::size_t>(f.pairs[k].d)].push_back(static_cast<std::int32_t>(k));
    }
  });
  if (!room) eh.out_of_memory();
}

/// L_RELATE_PARENTS: the rows of A = T D T' of the parents: v = D T' e from the parent up, then T v from the
/// oldest down (Colleau 2002, Genet. Sel. Evol. 34, 409-421).
void L_RELATE_PARENTS(ERROR_HANDLER& eh, const PEDIGREE& p, FAMILIES& f)
{
  const Frame here{eh, __func__};
  INBREEDING within;
  L_INBREEDING_BY_SIRES(eh, p, {}, within);
  if (eh.terminate() || f.parents.empty()) return;
  const auto last = static_cast<std::size_t>(*std::max_element(f.parents.begin(), f.parents.end()));
  const auto groups = static_cast<std::size_t>(p.groups);
  std::vector<double> v;
  if (!assign(eh, v, static_cast<std::int64_t>(last) + 1)) return;
  const auto each_parent = [&](std::size_t row, auto&& work) {
    for (const std::int32_t parent : {p.male[row], p.female[row]}) {
      if (parent > p.groups) work(v[static_cast<std::size_t>(parent - 1)]);
    }
  };
  const bool room = attempt([&] {
    f.related.resize(f.parents.size());
    for (std::size_t k = 0; k < f.parents.size(); ++k) {
      std::fill(v.begin(), v.end(), 0.0);
      const auto own = static_cast<std::size_t>(f.parents[k]);
      v[own] = 1.0;
      for (std::size_t row = own + 1; row-- > groups;) {
        if (v[row] == 0.0) continue;
        const double half = 0.5 * v[row];
        each_parent(row, [&](double& of_parent) { of_parent += half; });
        v[row] *= within.D[row];
      }
      for (std::size_t row = groups; row <= last; ++row)
        each_parent(row, [&](double of_parent) { v[row] += 0.5 * of_parent; });
      for (std::size_t other = 0; other < f.parents.size(); ++other) {
        const double a = v[static_cast<std::size_t>(f.parents[other])];
        if (a != 0.0) f.related[k].push_back({static_cast<std::int32_t>(other), a});
      }
    }
  });
  if (!room) eh.out_of_memory();
}

/// The elements of B of one pair with others, from the rows of A of its two parents.
class PairRow {
 public:
  explicit PairRow(const FAMILIES& f) : f_(f), s_(f.parents.size(), 0.0), d_(f.parents.size(), 0.0) {}
  void take(const FAMILY& pair)
  {
    clear(s_, held_s_);
    clear(d_, held_d_);
    held_s_ = pair.s;
    held_d_ = pair.d;
    for (const RELATIVE& each : relatives(pair.s)) s_[static_cast<std::size_t>(each.parent)] = each.a;
    for (const RELATIVE& each : relatives(pair.d)) d_[static_cast<std::size_t>(each.parent)] = each.a;
  }
  double with(const FAMILY& other) const
  {
    const auto s = static_cast<std::size_t>(other.s);
    const auto d = static_cast<std::size_t>(other.d);
    return 0.25 * (s_[s] * d_[d] + s_[d] * d_[s]);
  }

 private:
  const std::vector<RELATIVE>& relatives(std::int32_t parent) const
  {
    return f_.related[static_cast<std::size_t>(parent)];
  }
  void clear(std::vector<double>& row, std::int32_t held)
  {
    if (held < 0) return;
    for (const RELATIVE& each : relatives(held)) row[static_cast<std::size_t>(each.parent)] = 0.0;
  }
  const FAMILIES& f_;
  std::vector<double> s_, d_;
  std::int32_t held_s_ = -1, held_d_ = -1;
};

/// L_JOIN_PAIRS: lists the pairs by blocks within which they are related.
void L_JOIN_PAIRS(ERROR_HANDLER& eh, const FAMILIES& f, std::vector<std::vector<std::int32_t>>& blocks)
{
  const Frame here{eh, __func__};
  const bool room = attempt([&] {
    std::vector<std::int32_t> root(f.pairs.size());
    std::iota(root.begin(), root.end(), 0);
    const auto find = [&](std::int32_t k) {
      while (root[static_cast<std::size_t>(k)] != k) {
        std::int32_t& up = root[static_cast<std::size_t>(k)];
        k = up = root[static_cast<std::size_t>(up)];
      }
      return k;
    };
    PairRow row(f);
    for (std::size_t k = 0; k < f.pairs.size(); ++k) {
      row.take(f.pairs[k]);
      // A pair that is related to this one has a parent that is related to its first parent.
      for (const RELATIVE& each : f.related[static_cast<std::size_t>(f.pairs[k].s)]) {
        for (const std::int32_t other : f.pairs_of[static_cast<std::size_t>(each.parent)]) {
          const std::int32_t a = find(static_cast<std::int32_t>(k));
          const std::int32_t b = find(other);
          if (a != b && row.with(f.pairs[static_cast<std::size_t>(other)]) != 0.0)
            root[static_cast<std::size_t>(std::max(a, b))] = std::min(a, b);
        }
      }
    }
    std::vector<std::int32_t> block_of(f.pairs.size(), -1);
    for (std::size_t k = 0; k < f.pairs.size(); ++k) {
      std::int32_t& block = block_of[static_cast<std::size_t>(find(static_cast<std::int32_t>(k)))];
      if (block < 0) {
        block = static_cast<std::int32_t>(blocks.size());
        blocks.emplace_back();
      }
      blocks[static_cast<std::size_t>(block)].push_back(static_cast<std::int32_t>(k));
    }
  });
  if (!room) eh.out_of_memory();
}

/// The inverse of a positive definite matrix in its lower triangle, and ln of its determinant; false where it
/// is not.
bool invert(std::vector<double>& a, std::int64_t n, double& logdet)
{
  if (dpotrf('L', n, a.data(), n) != 0) return false;
  for (std::int64_t k = 0; k < n; ++k) logdet += 2.0 * std::log(a[static_cast<std::size_t>(k * n + k)]);
  return dpotri('L', n, a.data(), n) == 0;
}

/// Rows of blocks that are dense in themselves, as a matrix compressed by rows.
struct BLOCK_ROWS {
  std::vector<std::int32_t> place;  // of each row within its block, from 0; -1: the row is empty
  std::vector<std::int32_t> block;
  std::vector<std::vector<std::int32_t>> members;  // of each block, rows rising
};

/// L_LAY_OUT: gives a matrix its pattern: each row with all older ones of its block.
void L_LAY_OUT(ERROR_HANDLER& eh, const BLOCK_ROWS& rows, SPARSE_MTX_LLIST& matrix)
{
  const Frame here{eh, __func__};
  const std::int64_t n = std::ssize(rows.place);
  std::int64_t elements = 0;
  for (const std::int32_t place : rows.place) elements += std::max(place, 0) + 1;
  SPMT_RESERVE(eh, matrix, SparseKind::sm_compressed, n, elements);
  if (eh.terminate()) return;
  std::size_t at = 0;
  for (std::size_t k = 0; k < rows.place.size(); ++k) {
    for (std::int32_t q = 0; q < rows.place[k]; ++q)
      matrix.index[at++] =
          rows.members[static_cast<std::size_t>(rows.block[k])][static_cast<std::size_t>(q)];
    matrix.index[at++] = static_cast<std::int32_t>(k);
    matrix.start[k + 1] = static_cast<std::int64_t>(at);
  }
}

/// The place of an element within a row of its block.
double& element(SPARSE_MTX_LLIST& m, const BLOCK_ROWS& rows, std::size_t row, std::size_t column)
{
  return m.values[static_cast<std::size_t>(m.start[row] + rows.place[column])];
}

/// The matrices while they are formed, and what they are formed of.
struct DOMINANCE {
  const PEDIGREE& p;
  const std::vector<std::string>& labels;
  FAMILIES f;
  std::vector<std::vector<std::int32_t>> blocks;  // of pairs
  BLOCK_ROWS rows, pairs;
  SPARSE_MTX_LLIST inverse, between, within;
  double logdet = 0.0, between_logdet = 0.0, within_logdet = 0.0;  // of the inverses
};

/// L_LAY_OUT_BLOCKS: the blocks of the pedigree's rows, one for each of pairs and one for each row without
/// two known parents, and the patterns of all matrices.
void L_LAY_OUT_BLOCKS(ERROR_HANDLER& eh, DOMINANCE& d, bool parts)
{
  const Frame here{eh, __func__};
  const bool room = attempt([&] {
    BLOCK_ROWS single;
    const auto put = [](BLOCK_ROWS& rows, std::size_t row, std::size_t block) {
      if (rows.members.size() <= block) rows.members.resize(block + 1);
      rows.place[row] = static_cast<std::int32_t>(rows.members[block].size());
      rows.block[row] = static_cast<std::int32_t>(block);
      rows.members[block].push_back(static_cast<std::int32_t>(row));
    };
    d.pairs.place.assign(d.f.pairs.size(), -1);
    d.pairs.block.assign(d.f.pairs.size(), -1);
    for (std::size_t b = 0; b < d.blocks.size(); ++b) {
      for (const std::int32_t pair : d.blocks[b]) put(d.pairs, static_cast<std::size_t>(pair), b);
    }
    for (BLOCK_ROWS* rows : {&d.rows, &single}) {
      rows->place.assign(d.p.id.size(), -1);
      rows->block.assign(d.p.id.size(), -1);
    }
    std::size_t more = d.blocks.size();
    for (std::size_t k = static_cast<std::size_t>(d.p.groups); k < d.p.id.size(); ++k) {
      const std::int32_t family = d.f.family_of[k];
      put(d.rows, k, family < 0 ? more++ : static_cast<std::size_t>(d.pairs.block[static_cast<std::size_t>(family)]));
      single.place[k] = 0;
    }
    L_LAY_OUT(eh, d.rows, d.inverse);
    if (!parts || eh.terminate()) return;
    L_LAY_OUT(eh, d.pairs, d.between);
    if (!eh.terminate()) L_LAY_OUT(eh, single, d.within);
  });
  if (!room) eh.out_of_memory();
}

/// L_FORM_BLOCK: the inverse for the progeny of related pairs.
///
/// With R = diag(r_f), r_f = 1 - B_ff, n_f the progeny of a pair and Q = (B + diag(r_f / n_f))^-1 it is
///     delta_ij / r_f - delta_fg / (n_f r_f) + Q_fg / (n_f n_g)   for i of f and j of g,
///     log|D| = sum n_f ln r_f + sum ln(n_f / r_f) - log|Q|       (the lemma of Woodbury).
void L_FORM_BLOCK(ERROR_HANDLER& eh, DOMINANCE& d, const std::vector<std::int32_t>& pairs, bool parts,
                  PairRow& row)
{
  const Frame here{eh, __func__};
  const std::int64_t n = std::ssize(pairs);
  std::vector<double> b, q;
  std::int64_t size = 0;
  if (!multiply_sizes(n, n, size)) return eh.out_of_memory();
  if (!assign(eh, b, size)) return;
  const auto family = [&](std::int64_t k) -> const FAMILY& {
    return d.f.pairs[static_cast<std::size_t>(pairs[static_cast<std::size_t>(k)])];
  };
  for (std::int64_t j = 0; j < n; ++j) {
    row.take(family(j));
    for (std::int64_t i = j; i < n; ++i) b[static_cast<std::size_t>(i + j * n)] = row.with(family(i));
  }
  if (!reserve(eh, q, size)) return;
  q = b;
  for (std::int64_t k = 0; k < n; ++k) {
    const double rest = 1.0 - b[static_cast<std::size_t>(k + k * n)];
    if (!(rest >= least_variance)) {
      const auto first = static_cast<std::size_t>(family(k).progeny.front());
      eh.error(text("individual ", d.labels[first], " and its full sibs have parents too inbred for dominance relationships"));
      return;
    }
    const auto progeny = static_cast<double>(family(k).progeny.size());
    q[static_cast<std::size_t>(k + k * n)] += rest / progeny;
    d.logdet -= (progeny - 1.0) * std::log(rest) + std::log(progeny);
    d.within_logdet -= progeny * std::log(rest);
  }
  double logdet = 0.0;
  if (!invert(q, n, logdet)) return eh.error("the dominance relationships are no covariance matrix");
  d.logdet -= logdet;
  for (std::int64_t j = 0; j < n; ++j) {
    const double rest = 1.0 - b[static_cast<std::size_t>(j + j * n)];
    const auto nj = static_cast<double>(family(j).progeny.size());
    for (std::int64_t i = j; i < n; ++i) {
      const double shared = q[static_cast<std::size_t>(i + j * n)] / (nj * static_cast<double>(family(i).progeny.size())) -
                            (i == j ? 1.0 / (nj * rest) : 0.0);
      for (const std::int32_t u : family(i).progeny) {
        for (const std::int32_t w : family(j).progeny) {
          const auto [low, high] = std::minmax(u, w);
          element(d.inverse, d.rows, static_cast<std::size_t>(high), static_cast<std::size_t>(low)) =
              shared + (u == w ? 1.0 / rest : 0.0);
        }
      }
    }
    if (!parts) continue;
    for (const std::int32_t u : family(j).progeny)
      d.within.values[static_cast<std::size_t>(d.within.start[static_cast<std::size_t>(u)])] = 1.0 / rest;
  }
  if (!parts) return;
  logdet = 0.0;
  if (!invert(b, n, logdet)) return eh.error("the dominance relationships are no covariance matrix");
  d.between_logdet -= logdet;
  for (std::int64_t j = 0; j < n; ++j) {
    for (std::int64_t i = j; i < n; ++i)
      element(d.between, d.pairs, static_cast<std::size_t>(pairs[static_cast<std::size_t>(i)]),
              static_cast<std::size_t>(pairs[static_cast<std::size_t>(j)])) =
          b[static_cast<std::size_t>(i + j * n)];
  }
}

}  // namespace

void K4MVODPED(ERROR_HANDLER& eh, const PEDIGREE& pedigree, const std::vector<std::string>& labels,
               bool parts, std::vector<DOMINANCE_MATRIX>& out)
{
  const Frame here{eh, __func__};
  if (!parents_first(pedigree)) return eh.error("Pedigree order error");
  DOMINANCE d{pedigree, labels, {}, {}, {}, {}, {}, {}, {}};
  L_FIND_FAMILIES(eh, pedigree, d.f);
  if (eh.terminate()) return;
  L_RELATE_PARENTS(eh, pedigree, d.f);
  if (eh.terminate()) return;
  L_JOIN_PAIRS(eh, d.f, d.blocks);
  if (eh.terminate()) return;
  L_LAY_OUT_BLOCKS(eh, d, parts);
  if (eh.terminate()) return;
  for (std::size_t k = static_cast<std::size_t>(pedigree.groups); k < pedigree.id.size(); ++k) {
    if (d.f.family_of[k] >= 0) continue;
    d.inverse.values[static_cast<std::size_t>(d.inverse.start[k])] = 1.0;
    if (parts) d.within.values[static_cast<std::size_t>(d.within.start[k])] = 1.0;
  }
  const bool room = attempt([&] {
    PairRow row(d.f);
    for (const std::vector<std::int32_t>& block : d.blocks) {
      L_FORM_BLOCK(eh, d, block, parts, row);
      if (eh.terminate()) return;
    }
    out.push_back({"Dominance", std::move(d.inverse), d.logdet, pedigree.groups, labels});
    if (!parts || d.f.pairs.empty()) return;
    std::vector<std::string> pair_labels;
    const auto label = [&](std::int32_t parent) -> const std::string& {
      return labels[static_cast<std::size_t>(d.f.parents[static_cast<std::size_t>(parent)])];
    };
    for (const FAMILY& pair : d.f.pairs) pair_labels.push_back(text(label(pair.s), ":", label(pair.d)));
    out.push_back({"BetFamInv", std::move(d.between), d.between_logdet, 0, std::move(pair_labels)});
    out.push_back({"DomWIfam", std::move(d.within), d.within_logdet, pedigree.groups, labels});
  });
  if (!room) return eh.out_of_memory();
  if (eh.terminate()) return;
  eh.note(text("dominance relationships of the progeny of ", d.f.pairs.size(), " pairs of parents, in ", d.blocks.size(),
               " unrelated blocks"));
}

}  // namespace tolvan
