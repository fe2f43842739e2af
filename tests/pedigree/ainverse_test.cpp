// The inverse against relationship matrices by definition, over random pedigrees of every breeding system.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>

#include "base/lapack.h"
#include "base/text.h"
#include "random_pedigrees.h"
#include "support/checks.h"

namespace tolvan_test {
namespace {

using ShareOf =
    std::function<Share(const Dense& a, const PEDIGREE& p, std::int64_t i, std::int64_t s, std::int64_t d)>;

struct System {
  const char* name;
  BREEDING_RULES rules;
  Draw draw;
  bool levels = false;
  ShareOf share;
};

double related(const Dense& a, std::int64_t s, std::int64_t d)
{
  return s > 0 && d > 0 ? a(s, d) : 0.0;
}

constexpr double rate = 0.3;   // of partial selfing
constexpr double path = 0.35;  // of a queen of drones

Share plain(const Dense& a, const PEDIGREE&, std::int64_t, std::int64_t s, std::int64_t d)
{
  return {0.5, 0.5, 1.0 + related(a, s, d) / 2.0};
}

/// Self-fertilised with the given rate where the second parent is not known, else outcrossed.
Share partly_selfed(const Dense& a, const PEDIGREE& p, std::int64_t i, std::int64_t s, std::int64_t d)
{
  if (s > 0 && d == 0) return {(1.0 + rate) / 2.0, (1.0 - rate) / 2.0, 1.0 + rate * a(s, s) / 2.0};
  return plain(a, p, i, s, d);
}

/// The second parent passes on a quarter through a dam that is not listed, or what its path says.
Share grandsire(const Dense& a, const PEDIGREE&, std::int64_t, std::int64_t s, std::int64_t d)
{
  return {0.5, 0.25, 1.0 + related(a, s, d) / 4.0};
}
Share queen(const Dense& a, const PEDIGREE&, std::int64_t, std::int64_t s, std::int64_t d)
{
  return {0.5, path, 1.0 + path * related(a, s, d)};
}

/// Inbreeding raised to a level below 1, or by so many generations of selfing.
Share with_levels(const Dense& a, const PEDIGREE& p, std::int64_t i, std::int64_t s, std::int64_t d)
{
  const double v = p.level[static_cast<std::size_t>(i - 1)];
  double F = related(a, s, d) / 2.0;
  if (v < 1.0) F = std::max(F, v);
  const double rounds = s == 0 && d == 0 ? std::min(std::floor(v), 10.0) : std::floor(v);
  for (int k = 0; k < static_cast<int>(rounds); ++k) F = (F + 1.0) / 2.0;
  return {0.5, 0.5, 1.0 + F};
}

/// X-linked: a male has the one copy of its dam, a female that of its sire and one of its dam's two.
Share x_linked(const Dense& a, const PEDIGREE& p, std::int64_t i, std::int64_t s, std::int64_t d)
{
  if (p.sex[static_cast<std::size_t>(i - 1)] == 0.0) return {0.0, 0.5, 0.5};
  return {1.0, 0.5, 1.0 + related(a, s, d)};
}

Share line(const Dense&, const PEDIGREE&, std::int64_t, std::int64_t, std::int64_t)
{
  return {0.5, 0.5, 2.0};
}

Share inbred_base(const Dense& a, const PEDIGREE& p, std::int64_t i, std::int64_t s, std::int64_t d)
{
  return s == 0 && d == 0 ? Share{0.5, 0.5, 1.2} : plain(a, p, i, s, d);
}

const System systems[] = {
    {"plain", {}, {}, false, plain},
    {"plain by the walk", {.by_sires = false}, {}, false, plain},
    {"selfing", {}, {.both_same = 0.15}, false, plain},
    {"selfing by the walk",
     {.full_sib_shortcut = false, .by_sires = false},
     {.both_same = 0.15},
     false,
     plain},
    {"narrow", {}, {.unknown = 0.02, .window = 12}, false, plain},
    {"inbred base", {.base_inbreeding = 0.2}, {.both_same = 0.1}, false, inbred_base},
    {"partial selfing", {.selfing = rate}, {.unknown = 0.35, .both_same = 0.05}, false, partly_selfed},
    {"grandsire", {.grandsire = true}, {}, false, grandsire},
    {"grandsire by its path", {.grandsire = true, .grandsire_path = 0.25}, {}, false, grandsire},
    {"queen of drones", {.grandsire = true, .grandsire_path = path}, {}, false, queen},
    {"levels", {}, {.both_same = 0.1}, true, with_levels},
    {"sex-linked", {}, {.unknown = 0.1, .sexes = true}, false, x_linked},
    {"inbred lines", {.inbred_lines = true}, {}, false, line},
    {"groups", {}, {.groups = 3}, false, plain},
    {"groups with selfing", {}, {.groups = 2, .both_same = 0.1}, false, plain},
    {"groups with a base", {.group_base = 0.7}, {.groups = 4}, false, plain},
    {"groups, partial selfing", {.selfing = rate}, {.groups = 2, .unknown = 0.4}, false, partly_selfed},
    {"groups, sex-linked", {.group_base = 1.5}, {.groups = 2, .sexes = true}, false, x_linked},
    {"groups, told when empty", {.group_base = -1.0}, {.groups = 4}, false, plain},
    {"groups, levels", {}, {.groups = 3, .both_same = 0.1}, true, with_levels},
    {"groups, grandsire", {.grandsire = true}, {.groups = 2}, false, grandsire},
    {"groups, inbred lines", {.inbred_lines = true, .group_base = 0.4}, {.groups = 3}, false, line},
};

/// What the groups' rows must hold: with Q, the share of each group in each row, the animals' rows meet them
/// in -A^-1 Q and the groups among themselves in Q'A^-1 Q, apart from what is put on the diagonal.
Dense group_shares(const PEDIGREE& p, const System& system, const Dense& a)
{
  Dense q(p.rows());
  for (std::int64_t g = 1; g <= p.groups; ++g) q(g, g) = 1.0;
  for (std::int64_t i = p.groups + 1; i <= p.rows(); ++i) {
    const std::int64_t s = p.male[static_cast<std::size_t>(i - 1)];
    const std::int64_t d = p.female[static_cast<std::size_t>(i - 1)];
    const Share share = system.share(a, p, i, s > p.groups ? s : 0, d > p.groups ? d : 0);
    for (std::int64_t g = 1; g <= p.groups; ++g)
      q(i, g) = share.c1 * (s > 0 ? q(s, g) : 0.0) + share.c2 * (d > 0 ? q(d, g) : 0.0);
  }
  return q;
}

double dense_logdet(const Dense& a, std::int64_t groups)
{
  const std::int64_t n = a.n - groups;
  std::vector<double> factor(static_cast<std::size_t>(n * n));
  for (std::int64_t i = 1; i <= n; ++i) {
    for (std::int64_t j = 1; j <= n; ++j)
      factor[static_cast<std::size_t>((j - 1) * n + i - 1)] = a(groups + i, groups + j);
  }
  EXPECT_EQ(dpotrf('L', n, factor.data(), n), 0);
  double sum = 0.0;
  for (std::int64_t k = 0; k < n; ++k) sum += 2.0 * std::log(factor[static_cast<std::size_t>(k * n + k)]);
  return sum;
}

void compare(const System& system, const PEDIGREE& p)
{
  ERROR_HANDLER eh;
  AINVERSE out;
  ASSERT_EQ(K4MAIG(eh, p, system.rules, out), p.rows());
  ASSERT_FALSE(eh.terminate()) << messages_text(eh);
  const Dense a = tabular(p, [&](const Dense& so_far, std::int64_t i, std::int64_t s, std::int64_t d) {
    return system.share(so_far, p, i, s, d);
  });
  const std::int64_t n = p.rows();
  const std::int64_t g = p.groups;
  Dense m(n);
  for (std::int64_t i = 1; i <= n; ++i) {
    for (std::int64_t j = 1; j <= i; ++j) m(i, j) = m(j, i) = sparse_element(out.matrix, i, j);
  }

  double worst = 0.0;
  for (std::int64_t i = g + 1; i <= n; ++i) {
    for (std::int64_t j = g + 1; j <= n; ++j) {
      double sum = i == j ? -1.0 : 0.0;
      for (std::int64_t k = g + 1; k <= n; ++k) sum += m(i, k) * a(k, j);
      worst = std::max(worst, std::abs(sum));
    }
  }
  EXPECT_LT(worst, 1e-10);

  const Dense q = group_shares(p, system, a);
  for (std::int64_t i = 1; i <= n && g > 0; ++i) {
    for (std::int64_t h = 1; h <= g; ++h) {
      double sum = 0.0;  // row i of (-A^-1, with -Q'A^-1 above) times Q
      for (std::int64_t k = g + 1; k <= n; ++k) sum -= m(i, k) * q(k, h);
      if (i == h) sum += std::max(system.rules.group_base, 0.0);
      // A group that no row descends from gets a 1 in place of nothing.
      const bool empty = i == h && sum == 0.0 && system.rules.group_base == 0.0;
      EXPECT_NEAR(m(i, h), empty ? 1.0 : sum, 1e-10);
    }
  }

  const bool sex = !p.sex.empty();
  for (std::int64_t i = g + 1; i <= n; ++i) {
    const double base = sex && p.sex[static_cast<std::size_t>(i - 1)] == 0.0 ? 0.5 : 1.0;
    EXPECT_NEAR(out.inbreeding[static_cast<std::size_t>(i - 1)], std::min(a(i, i) - base, 0.99999), 1e-12)
        << i;
  }
  const double constant =
      system.rules.group_base > 0.0 ? -static_cast<double>(g) * std::log(system.rules.group_base) : 0.0;
  EXPECT_NEAR(out.logdet, constant - dense_logdet(a, g), 1e-9 * static_cast<double>(n));
}

TEST(Ainverse, TimesTheRelationshipMatrixIsTheIdentity)
{
  std::mt19937 random(20261123);
  for (const System& system : systems) {
    for (int round = 0; round < 200; ++round) {
      Draw draw = system.draw;
      constexpr std::int64_t sizes[] = {2, 3, 5, 14, 40, 200};
      draw.rows = draw.groups + sizes[round < 180 ? round % 5 : 5];
      PEDIGREE p = random_pedigree(random, draw);
      if (system.levels) {
        for (std::int64_t i = 0; i < draw.rows; ++i) {
          // High levels stay with the base: F would come near to 1, where it is held.
          constexpr double levels[] = {0.0, 0.0, 0.4, 1.0, 2.0, 3.5, 12.0};
          const auto k = static_cast<std::size_t>(i);
          const bool base = p.male[k] <= p.groups && p.female[k] <= p.groups;
          p.level.push_back(levels[std::uniform_int_distribution<int>(0, base ? 6 : 4)(random)]);
        }
      }
      SCOPED_TRACE(text(system.name, ", round ", round));
      compare(system, p);
      if (testing::Test::HasFailure()) return;
    }
  }
}

// The two roads to inbreeding agree to rounding, also where the pedigree is too deep for exact binary
// fractions.
TEST(Ainverse, SiresAndTheWalkGiveTheSameInbreeding)
{
  std::mt19937 random(7);
  const Draw draws[] = {{.rows = 3000, .unknown = 0.1},
                        {.rows = 3000, .unknown = 0.02, .window = 60},
                        {.rows = 2000, .groups = 5, .unknown = 0.05, .both_same = 0.02, .window = 300}};
  for (const Draw& draw : draws) {
    const PEDIGREE p = random_pedigree(random, draw);
    for (const double base : {0.0, 0.3}) {
      ERROR_HANDLER eh;
      INBREEDING fast, slow;
      std::int64_t fault = 0;
      L_INBREEDING_BY_SIRES(eh, p, {.base_inbreeding = base}, fast);
      ASSERT_TRUE(L_INBREEDING_BY_WALK(eh, p, {.base_inbreeding = base}, slow, fault));
      EXPECT_TRUE(near(fast.F, slow.F, 1e-12, 1e-14));
      EXPECT_TRUE(near(fast.D, slow.D, 1e-12));
    }
  }
}

// Six animals with an inbred pair; F and the inverse as printed in Mrode (2014), Linear Models for the
// Prediction of Animal Breeding Values, 3rd ed., examples 2.1 to 2.3, to the three digits given there.
TEST(Ainverse, TextbookPedigree)
{
  PEDIGREE p;
  p.id = {0, 1, 2, 3, 4, 5};
  p.male = {0, 0, 1, 1, 4, 5};
  p.female = {0, 0, 2, 0, 3, 2};
  ERROR_HANDLER eh;
  AINVERSE out;
  ASSERT_EQ(K4MAIG(eh, p, {}, out), 6);
  EXPECT_TRUE(clean(eh));
  EXPECT_EQ(out.inbreeding, (std::vector<double>{0.0, 0.0, 0.0, 0.0, 0.125, 0.125}));
  const double printed[6][6] = {{1.833},
                                {0.5, 2.033},
                                {-1.0, -1.0, 2.5},
                                {-0.667, 0, 0.5, 1.833},
                                {0, 0.533, -1.0, -1.0, 2.533},
                                {0, -1.067, 0, 0, -1.067, 2.133}};
  for (std::int64_t i = 1; i <= 6; ++i) {
    for (std::int64_t j = 1; j <= i; ++j)
      EXPECT_NEAR(sparse_element(out.matrix, i, j), printed[i - 1][j - 1], 0.0005) << i << "," << j;
  }
  EXPECT_NEAR(out.logdet, -(2.0 * std::log(0.5) + std::log(0.75) + std::log(0.46875)), 1e-14);
}

/// Lines that are bred on: each generation mates the last in one way.
struct Regular {
  const char* name;
  std::vector<double> printed;  // F of one generation after the other
  PEDIGREE (*bred)(std::size_t generations);
};

void add(PEDIGREE& p, std::int32_t male, std::int32_t female, double sex = 0.0)
{
  p.id.push_back(static_cast<std::int32_t>(p.id.size()));
  p.male.push_back(male);
  p.female.push_back(female);
  p.sex.push_back(sex);
}

/// A brother and a sister from each pair; the last row is a female of the last generation.
PEDIGREE full_sibs(std::size_t generations)
{
  PEDIGREE p;
  add(p, 0, 0, 0.0);
  add(p, 0, 0, 1.0);
  for (std::size_t t = 0; t <= generations; ++t) {
    const auto last = static_cast<std::int32_t>(p.id.size());
    add(p, last - 1, last, 0.0);
    add(p, last - 1, last, 1.0);
  }
  return p;
}

/// One male on many females, all half sibs: each has one offspring, the first of them the next male.
PEDIGREE half_sibs(std::size_t generations)
{
  PEDIGREE p;
  std::size_t females = generations + 2;
  for (std::size_t k = 0; k <= females; ++k) add(p, 0, 0);
  for (std::size_t t = 0; t <= generations; ++t, --females) {
    const auto first = static_cast<std::int32_t>(p.id.size() - females);  // row of the male
    for (std::size_t k = 1; k <= females; ++k) add(p, first, first + static_cast<std::int32_t>(k));
  }
  return p;
}

PEDIGREE selfed(std::size_t generations)
{
  PEDIGREE p;
  add(p, 0, 0);
  for (std::size_t t = 1; t <= generations; ++t) add(p, static_cast<std::int32_t>(t), static_cast<std::int32_t>(t));
  return p;
}

// Inbreeding of regular systems to the three digits printed in Falconer & Mackay (1996), Introduction to Quantitative
// Genetics, 4th ed., table 5.1.  Of an X-linked locus brothers and sisters give females the same series (Wright 1933).
TEST(Ainverse, RegularSystemsOfInbreeding)
{
  const Regular systems_of_inbreeding[] = {
      {"selfing", {0.5, 0.75, 0.875, 0.938, 0.969, 0.984, 0.992}, selfed},
      {"full sibs", {0.25, 0.375, 0.5, 0.594, 0.672, 0.734, 0.785, 0.826, 0.859, 0.886}, full_sibs},
      {"half sibs", {0.125, 0.219, 0.305, 0.381, 0.449, 0.509, 0.563, 0.611, 0.654, 0.691}, half_sibs},
  };
  for (const Regular& each : systems_of_inbreeding) {
    for (std::size_t t = 1; t <= each.printed.size(); ++t) {
      SCOPED_TRACE(text(each.name, ", generation ", t));
      PEDIGREE p = each.bred(t);
      for (const bool x_linked : {false, true}) {
        if (x_linked && each.bred != full_sibs) continue;
        if (!x_linked) p.sex.clear();
        if (x_linked) p = each.bred(t);
        for (const bool by_sires : {true, false}) {
          ERROR_HANDLER eh;
          AINVERSE out;
          ASSERT_EQ(K4MAIG(eh, p, {.by_sires = by_sires}, out), p.rows());
          EXPECT_NEAR(out.inbreeding.back(), each.printed[t - 1], 0.0005 + 1e-12);
        }
      }
    }
  }
}

// Repeated selfing and brother-sister mating tend to full inbreeding, which is held short of 1.
TEST(Ainverse, InbreedingIsHeldBelowOne)
{
  PEDIGREE p;
  for (std::int32_t i = 0; i < 40; ++i) {
    p.id.push_back(i);
    p.male.push_back(i);
    p.female.push_back(i);
  }
  ERROR_HANDLER eh;
  AINVERSE out;
  ASSERT_EQ(K4MAIG(eh, p, {}, out), 40);
  EXPECT_EQ(out.inbreeding[5], 1.0 - std::pow(0.5, 5));
  EXPECT_EQ(out.inbreeding.back(), 0.99999);
  EXPECT_LE(sparse_element(out.matrix, 40, 40), 1.0 / 0.000005);
}

struct Fault {
  const char* name;
  PEDIGREE pedigree;
  BREEDING_RULES rules;
  std::int64_t last;
  const char* messages;
};

PEDIGREE with(std::vector<std::int32_t> male, std::vector<std::int32_t> female, std::vector<double> sex = {},
              std::int64_t groups = 0)
{
  PEDIGREE p;
  for (std::size_t k = 0; k < male.size(); ++k) p.id.push_back(static_cast<std::int32_t>(k));
  p.male = std::move(male);
  p.female = std::move(female);
  p.sex = std::move(sex);
  p.groups = groups;
  return p;
}

TEST(Ainverse, FaultsOfARow)
{
  const Fault faults[] = {
      {"order", with({0, 3, 0}, {0, 0, 0}), {}, 1, "!4/3 Pedigree not sorted properly, Use !SORT.\n"},
      {"sex code",
       with({0, 0, 1}, {0, 0, 2}, {0, 1, 2}),
       {},
       2,
       "!4/3 Invalid Sex Code in pedigree field 4.\n"},
      {"sex of a parent", with({0, 0, 2}, {0, 0, 1}, {0, 1, 0}), {}, 2, ""},
      {"selfed line",
       with({0, 1}, {0, 1}),
       {.inbred_lines = true},
       1,
       "!4/3 Selfing not allowed with inbred lines.\n"},
      {"empty group",
       with({0, 0, 1}, {0, 0, 1}, {}, 2),
       {},
       3,
       "3/- empty Genetic Group 2 generated a Constraint\n"},
      {"empty group, no base",
       with({0, 0, 1}, {0, 0, 1}, {}, 2),
       {.group_base = -1.0},
       3,
       "3/- empty Genetic Group 2\n"},
      {"a pair of groups", with({0, 0, 0, 3, 4}, {0, 0, 0, 0, 4}, {}, 2), {.group_base = 1.0}, 5, ""},
  };
  for (const Fault& fault : faults) {
    SCOPED_TRACE(fault.name);
    ERROR_HANDLER eh;
    AINVERSE out;
    EXPECT_EQ(K4MAIG(eh, fault.pedigree, fault.rules, out), fault.last);
    EXPECT_EQ(messages_text(eh), fault.messages);
  }
  ERROR_HANDLER missing;
  PEDIGREE nameless = with({0, 0, 1}, {0, 0, 1}, {}, 1);
  nameless.id[1] = -1;
  AINVERSE none;
  EXPECT_EQ(K4MAIG(missing, nameless, {}, none), 1);
  EXPECT_EQ(messages_text(missing), "!4/3 Missing id in pedigree.\n");
  // Of a pair of groups that one grandsire's inbred progeny alone links less than one direct progeny is counted.
  PEDIGREE grandsires = with({0, 0, 1}, {0, 0, 2}, {}, 2);
  grandsires.level = {0.0, 0.0, 0.4};
  ERROR_HANDLER few;
  EXPECT_EQ(K4MAIG(few, grandsires, {.grandsire = true}, none), 3);
  EXPECT_EQ(messages_text(few), "3/- possible error in genetic group pedigree, 0 direct progeny of groups 2 and 1\n");
  // Of a group pair that is linked by highly inbred progeny alone still one direct progeny is counted.
  PEDIGREE p = with({0, 0, 1, 1}, {0, 0, 2, 1}, {}, 2);
  p.level = {0.0, 0.0, 10.0, 0.0};
  ERROR_HANDLER eh;
  AINVERSE out;
  EXPECT_EQ(K4MAIG(eh, p, {}, out), 4);
  EXPECT_EQ(messages_text(eh), "");  // 4 x 0.25 / 1.999 rounds to 1
  EXPECT_NEAR(sparse_element(out.matrix, 2, 1), 0.25 / 1.9990234375, 1e-14);
}

// A caller that adds contributions by itself is told of a parent behind its offspring, and goes on without
// it.
TEST(Ainverse, ParentBehindItsOffspring)
{
  ERROR_HANDLER eh;
  SPARSE_MTX_LLIST m;
  SPMT_RESERVE(eh, m, SparseKind::sm_compressed, 3, 4);
  m.start = {0, 1, 3, 4};
  m.index = {0, 0, 1, 2};
  K4MLLIN(eh, 2, 3, 1, 0.5, 0.5, 2.0, m);
  K4MLLIN(eh, 2, 1, 3, 0.5, 0.5, 2.0, m);
  EXPECT_EQ(messages_text(eh),
            "3/- pedigree (DAM) sequence error (use !SORT qualifier), SIRE set to unknown: 2 3 1\n"
            "3/- pedigree (DAM) sequence error (use !SORT qualifier), DAM set to unknown: 2 1 3\n");
  EXPECT_EQ(m.values, (std::vector<double>{1.0, -2.0, 4.0, 0.0}));
}

}  // namespace
}  // namespace tolvan_test
