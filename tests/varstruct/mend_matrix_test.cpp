// What keeps covariance models in their space: mending of matrices that are not positive definite, bounds,
// step-downs, with their messages.
#include "varstruct/mend_matrix.h"

#include "base/lapack.h"
#include "base/packed.h"
#include "base/text.h"
#include "support/checks.h"
#include "varstruct/covariance_models.h"
#include "varstruct/dense_reference.h"
#include "varstruct/extended_factors.h"
#include "varstruct/one_row.h"

namespace tolvan {
namespace {

Dense from_packed(const Vector& theta, std::int64_t n)
{
  Dense v(n, n);
  const PackedSymmetric<const double> packed{theta};
  for (std::int64_t i = 0; i < n; ++i)
    for (std::int64_t j = 0; j < n; ++j) v(i, j) = packed(i + 1, j + 1);
  return v;
}

Vector to_packed(const Dense& v)
{
  Vector out;
  for (std::int64_t i = 0; i < v.rows; ++i)
    for (std::int64_t j = 0; j <= i; ++j) out.push_back(v(i, j));
  return out;
}

/// Ascending.
Vector eigenvalues(Dense a)
{
  Vector e(static_cast<std::size_t>(a.rows)), work;
  std::vector<std::int32_t> iwork;
  EXPECT_EQ(dsyevd('N', 'L', a.rows, a.a.data(), a.rows, e.data(), work, iwork), 0);
  return e;
}

/// The matrix over the standard deviations of another one.
Dense scaled_by(Dense v, const Dense& of)
{
  for (std::int64_t i = 0; i < v.rows; ++i)
    for (std::int64_t j = 0; j < v.rows; ++j) v(i, j) /= std::sqrt(of(i, i) * of(j, j));
  return v;
}

/// A covariance matrix with one correlation beyond 1.
Dense broken(Dice& dice, std::int64_t n)
{
  Dense b(n, 2 * n);
  b.a = dice.vector(2 * n * n);
  Dense v = b * transposed(b);
  v(n - 1, 0) = v(0, n - 1) = dice.uniform(1.05, 1.8) * std::sqrt(v(0, 0) * v(n - 1, n - 1));
  return v;
}

TEST(MendMatrix, WeakensTheLevelThatTheOthersExplainTooWell)
{
  Dice dice(11);
  for (std::int64_t n = 3; n <= 8; ++n) {  // the shares of two levels are equal
    const Dense v = broken(dice, n);
    const Dense inverse = inverted(v).inverse;
    std::vector<std::pair<double, std::int64_t>> shares;  // u, level
    for (std::int64_t i = 0; i < n; ++i) shares.emplace_back(1.0 / inverse(i, i) / v(i, i), i);
    std::sort(shares.begin(), shares.end());
    ERROR_HANDLER eh;
    std::vector<std::int64_t> marked;
    std::int64_t faults = 0;
    for (const auto& [u, level] : shares) {  // each call takes the next one
      Vector packed = to_packed(v);
      Mended status = Mended::refused;
      K4MVUS(eh, packed, n, faults, marked, 0, 0.0, 0.0, status);
      ASSERT_EQ(status, Mended::yes);
      ASSERT_EQ(marked.back(), level);
      const double f = std::clamp(0.9900000095367432 / (std::fabs(u) + 1.0), 0.05, 0.95);
      Dense expected = v;
      for (std::int64_t j = 0; j < n; ++j) {
        if (j != level) expected(level, j) = expected(j, level) = f * v(level, j);
      }
      EXPECT_TRUE(near(packed, to_packed(expected), 1e-12));
    }
    EXPECT_EQ(faults, n);
    Vector packed = to_packed(v);
    Mended status = Mended::yes;
    K4MVUS(eh, packed, n, faults, marked, 0, 0.0, 0.0, status);
    EXPECT_EQ(status, Mended::refused);  // no level is left

    // A cell names both of its rows.
    const std::int64_t cell = packed_size(n);
    K4MVUS(eh, packed, n, faults, marked, cell - 1, 0.5, 0.0, status);
    EXPECT_EQ(status, Mended::yes);
    const Dense halved = from_packed(packed, n);
    EXPECT_EQ(halved(n - 1, n - 1), v(n - 1, n - 1));
    if (n > 2) {
      EXPECT_EQ(halved(n - 1, 0), 0.5 * v(n - 1, 0));
      EXPECT_EQ(halved(n - 2, 0), 0.5 * v(n - 2, 0));
    }
    EXPECT_TRUE(clean(eh));
  }
}

TEST(MendMatrix, BendsEigenvaluesAndKeepsTheTrace)
{
  Dice dice(12);
  for (const std::int64_t n : {2, 3, 6, 20}) {
    for (const double bend : {0.3, 0.9, -0.9, 0.999, 5.0}) {
      const Dense v = broken(dice, n);
      Vector packed = to_packed(v);
      ERROR_HANDLER eh;
      std::int64_t status = -77;
      K4MVPD(eh, packed, n, bend, 1, status);
      EXPECT_EQ(status, 1);
      const Dense bent = scaled_by(from_packed(packed, n), v);
      const Vector before = eigenvalues(scaled_by(v, v)), after = eigenvalues(bent);
      const double b = std::min(std::fabs(bend), 0.999);
      EXPECT_NEAR(after.front(), 1.0 - b, 1e-12);  // the mean of the correlations' eigenvalues is 1
      for (std::size_t i = 0; i < after.size(); ++i)
        EXPECT_NEAR(after[i], (before[i] - 1.0) * b / (1.0 - before[0]) + 1.0,
                    1e-12 * static_cast<double>(n));
      double trace = 0.0;
      for (std::int64_t i = 0; i < n; ++i) trace += bent(i, i);
      EXPECT_NEAR(trace, static_cast<double>(n), 1e-12 * static_cast<double>(n));

      Vector again = to_packed(v);
      K4MVPD(eh, again, n, bend, 3, status);  // only asked
      EXPECT_EQ(status, 3);
      EXPECT_EQ(again, to_packed(v));
      const Vector good = packed;
      K4MVPD(eh, packed, n, bend, 1, status);  // what it made needs no more
      EXPECT_EQ(status, 0);
      EXPECT_EQ(packed, good);
      again.front() = 0.9e-8;
      status = -77;
      K4MVPD(eh, again, n, bend, 1, status);  // no scale to go by
      EXPECT_EQ(status, -77);
      EXPECT_TRUE(clean(eh));
    }
  }
}

constexpr std::int64_t us = 9;

/// Pairs of levels with covariance c and variances 1, no covariance else.
Vector pairs(std::int64_t count, double c)
{
  Dense v = identity(2 * count);
  for (std::int64_t i = 0; i < count; ++i) v(2 * i + 1, 2 * i) = v(2 * i, 2 * i + 1) = c;
  return to_packed(v);
}

struct BROKEN_CASE {
  const char* name;
  Vector accepted;  // formed before; empty: none
  Vector proposed;
  std::vector<std::size_t> fixed;
  double bend;
  Formed answer;
  Vector expected;  // empty: only positive definite
  const char* words;
};

TEST(MendMatrix, UnstructuredMatricesAreMadeSoundByTheMildestWay)
{
  constexpr double f = 5e-5;  // the floor of eigenvalues
  const double nearly_one = (2.2 - f) / (2.2 + f),
               weaker = 0.9900000095367432 / 2.25 * 1.2;  // u = -0.8 / 0.64
  const char* words = "Modified NPD matrix in structure site:gen begins: ";
  constexpr Formed done = Formed::done, failed = Formed::in_handler;
  // clang-format off
  const std::vector<BROKEN_CASE> cases = {
      {"one fault",              {},              {1, 1.2, 1},             {},        0, done, {1, nearly_one, 1}, words},
      {"on other scales",        {},              {4, 7.2, 9},             {},        0, done, {4, 6 * nearly_one, 9}, words},
      {"a correlation of 1",     {},              {4, 6, 9},               {},        0, done, {}, "US matrix is not positive definite!"},
      {"three faults",           {},              pairs(3, 1.3),           {},        0, done, {}, words},
      {"huge covariances",       {},              pairs(4, 1e9),           {},        0, done, {}, words},
      {"bent",                   {},              pairs(4, 1e9),           {},        1, done, {}, words},
      {"half way back",          {2, 0.5, 1},     {2, 0.5, -0.5},          {},        0, done, {2, 0.5, 0.25}, "NonPosDef US matrix modified at iteration 17"},
      {"weakened beside a zero", {},              {1, 0, 1, 1.2, 0.6, 1},  {1, 4},    0, done, {1, 0, 1, weaker, 0.6, 1}, words},
      {"a negative variance",    {},              {-0.5},                  {},        0, done, {0.0010000000474974513}, words},
      {"a zero variance",        {},              {2, 0.5, 0},             {},        0, done, {}, words},
      {"a fixed covariance",     {},              {1, 1.2, 1, 0.3, 0.1, 2}, {1},      0, done, {}, words},
      {"nothing can be changed", {},              {1, 1.2, 1},             {0, 1, 2}, 1, failed, {}, "US matrix is not positive definite!"},
      {"beyond mending",         {},              {-1, 1e9, -1},           {},        0, failed, {}, "US matrix is not positive definite!"},
  };
  // clang-format on
  for (const BROKEN_CASE& c : cases) {
    SCOPED_TRACE(c.name);
    std::int64_t n = 1;
    while (packed_size(n) < static_cast<std::int64_t>(c.proposed.size())) ++n;
    ONE_ROW run(us, n, 1, c.accepted.empty() ? c.proposed : c.accepted);
    run.model.parameters[1].label = "site:gen;site.US_V_1_1";
    if (!c.accepted.empty()) {
      ASSERT_EQ(run.form(16, c.bend), Formed::done);
      EXPECT_TRUE(clean(run.eh));
    }
    for (std::size_t k = 0; k < c.proposed.size(); ++k) run.model.parameters[k + 1].value = c.proposed[k];
    for (const std::size_t k : c.fixed) run.model.parameters[k + 1].constraint = Constraint::F;
    EXPECT_EQ(run.form(17, c.bend), c.answer);
    EXPECT_FALSE(run.eh.terminate());
    EXPECT_TRUE(has_message(run.eh, c.words));
    const Vector mended = run.values();
    for (const std::size_t k : c.fixed) EXPECT_EQ(mended[k], c.proposed[k]);
    EXPECT_EQ(run.model.modified, c.answer == Formed::done ? 1 : 0);
    if (c.answer != Formed::done) {
      EXPECT_EQ(mended, c.proposed);
      continue;
    }
    if (!c.expected.empty()) {
      EXPECT_TRUE(near(mended, c.expected, 1e-14));
    }
    EXPECT_GT(eigenvalues(from_packed(mended, n)).front(), 0.0);
    const Dense v = from_packed(mended, n);
    EXPECT_LE(norm(plus(v * expanded(run.component->inverse(), run.component->inverse().values), identity(n),
                        -1.0)),
              1e-8);
    // What was mended is good the next time, and the message came once.
    const auto told = run.eh.count();
    EXPECT_EQ(run.form(18, c.bend), Formed::done);
    EXPECT_EQ(run.eh.count(), told);
    EXPECT_EQ(run.values(), mended);
  }
}

TEST(MendMatrix, RaisesEigenvaluesAndKeepsTheVariances)
{
  Dice dice(14);
  for (const std::int64_t n : {2, 5, 20}) {
    for (const double least : {1e-5, 1e-2, 0.5}) {
      const Dense v = broken(dice, n);
      Vector packed = to_packed(v);
      ERROR_HANDLER eh;
      ASSERT_TRUE(floor_eigenvalues(eh, packed, n, least));
      const Dense mended = from_packed(packed, n);
      for (std::int64_t i = 0; i < n; ++i) EXPECT_EQ(mended(i, i), v(i, i));
      // raised by so much, less the scaling back of levels that were raised
      const double lowest = eigenvalues(scaled_by(mended, v)).front();
      EXPECT_LE(lowest, least * (1.0 + 1e-8));
      EXPECT_GE(lowest, 0.5 * least);
    }
  }
  Vector none{1.0, 0.5, 0.0};
  ERROR_HANDLER eh;
  EXPECT_FALSE(floor_eigenvalues(eh, none, 2, 1e-3));
  EXPECT_EQ(none, (Vector{1.0, 0.5, 0.0}));
  EXPECT_TRUE(clean(eh));
}

TEST(MendMatrix, FollowersFollowTheirMasterThroughAMend)
{
  ONE_ROW run(us, 2, 1, {1.0, 1.2, 1.0});
  run.model.parameters[3].master = 2;  // the second variance is half of the covariance
  run.model.parameters[3].coefficient = 0.5;
  run.model.parameters[3].constraint = Constraint::C;
  ASSERT_EQ(run.form(), Formed::done);
  const Vector v = run.values();
  EXPECT_EQ(v[2], 0.5 * v[1]);
  EXPECT_LT(v[1], 0.5);
}

constexpr std::int64_t diag = 8;

TEST(DiagonalModel, ElementsAtTheirBoundaryGoToZeroWhenTheyFallFast)
{
  struct CASE {
    double previous, present;
    Constraint constraint;
    bool dropped;
  };
  for (const CASE& c : std::vector<CASE>{{1.0, 0.09, Constraint::B, true},
                                         {1.0, 0.1, Constraint::B, false},  // 10 times is not over 10 times
                                         {1.0, 0.01, Constraint::P, false},
                                         {1.0, -0.01, Constraint::B, false},
                                         {0.05, 0.09, Constraint::B, false}}) {
    ONE_ROW run(diag, 2, 1, {c.previous, 3.0});
    ASSERT_EQ(run.form(4), Formed::done);
    run.model.parameters[1].value = c.present;
    run.model.parameters[1].constraint = c.constraint;
    ASSERT_EQ(run.form(5), Formed::done);
    EXPECT_EQ(run.values()[0], c.dropped ? 0.0 : c.present);
    if (!c.dropped) {
      EXPECT_TRUE(clean(run.eh));
      EXPECT_EQ(run.component->negative(), c.present < 0.0 ? 1 : 0);
      continue;
    }
    EXPECT_TRUE(has_message(run.eh, "Element of DIAG structure set to 0.0 at iteration 5"));
    // The level is gone: R has 0, no derivative, and the inverse outweighs everything without leaving a trace
    // in the sum of log|C| and log|R|.
    const SYMMETRIC& inverse = run.component->inverse();
    EXPECT_EQ(inverse.values[0], gone_level);
    EXPECT_NEAR(run.component->log_determinant() + std::log(inverse.values[0] + 1e9), std::log(3.0), 1e-12);
    EXPECT_EQ(run.component->score_part(), (Vector{0.0, 1.0 / 3.0}));
    const Vector s{1.0, 1.0};
    Vector out(2, 0.0), r(4, 1.0), y(2, 1.0);
    run.component->contract(s.data(), out.data());
    EXPECT_EQ(out[0], 0.0);
    run.component->covariance(r.data());
    EXPECT_EQ(r[0], 0.0);
    run.component->working(0, s.data(), y.data(), 1, 1);
    EXPECT_EQ(y, (Vector{0.0, 0.0}));
  }
  // A zero that the user gave, free to begin with, is out of the update.
  ONE_ROW run(diag, 2, 1, {0.0, 3.0});
  ASSERT_EQ(run.form(), Formed::done);
  EXPECT_EQ(run.model.parameters[1].constraint, Constraint::B);
}

struct BOUND_CASE {
  const char* name;
  std::int64_t model, levels, order, iteration;
  Vector given;
  Formed answer;
  Vector expected;
  const char* words;  // null: no message
};

TEST(FactorModels, KeepTheirParametersInTheirSpace)
{
  const double limit = std::sqrt(0.9990000128746033);
  const std::vector<BOUND_CASE> cases = {
      {"loadings of FA beyond 1",
       10,
       2,
       1,
       1,
       {1.5, 0.5, 2.0, 3.0},
       Formed::done,
       {limit, 0.5, 2.0, 3.0},
       nullptr},
      {"two factors share the limit",
       10,
       3,
       2,
       1,
       {0.9, 0.1, 0.1, 1.2, 0.1, 0.1, 1.0, 1.0, 1.0},
       Formed::done,
       {0.6 * limit, 0.1, 0.1, 0.8 * limit, 0.1, 0.1, 1.0, 1.0, 1.0},
       nullptr},
      {"a variance of FA that is none",
       10,
       2,
       1,
       1,
       {0.5, 0.5, 0.0, 3.0},
       Formed::done,
       {0.5, 0.5, 1e-18, 3.0},
       nullptr},
      {"FA of one level", 10, 1, 1, 1, {0.5, 3.0}, Formed::again, {3.0}, nullptr},
      {"FACV of one level", 13, 1, 1, 1, {0.5, 3.0}, Formed::again, {3.0}, nullptr},
      {"specifics of FACV",
       13,
       2,
       1,
       1,
       {2.0, 0.1, 0.0, -1.0},
       Formed::done,
       {2.0, 0.1, 1e-8, 1e-10},
       nullptr},
      {"a D of CHOL", 11, 2, 1, 1, {2.0, 0.3, -1.0}, Formed::done, {2.0, 0.3, 1e-6}, nullptr},
      {"a small but sound D of CHOL", 11, 2, 1, 1, {2.0, 0.3, 1e-9}, Formed::done, {2.0, 0.3, 1e-9}, nullptr},
      {"an L of CHOL that drowns D",
       11,
       2,
       1,
       123,
       {1.0, 7e7, 1.0},
       Formed::done,
       {},
       "Rescale initial matrix for ANTE to make it PD"},
      {"the same too late", 11, 2, 1, 124, {1.0, 1e9, 1.0}, Formed::in_handler, {1.0, 1e9, 1.0}, nullptr},
      {"D of ANTE too far apart", 12, 2, 1, 1, {1e7, 0.3, 1.0}, Formed::done, {1e7, 0.3, 10.0}, nullptr},
      {"U of ANTE too large", 12, 2, 1, 1, {1.0, -3e5, 1.0}, Formed::done, {1.0, -1e5, 1.0}, nullptr},
      {"ANTE without a D",
       12,
       2,
       1,
       124,
       {0.0, 0.3, 0.0},
       Formed::in_handler,
       {0.0, 0.3, 0.0},
       "failed to invert UDU' structure  (leading minor order=1)"},
      {"the specifics of XFA",
       15,
       3,
       1,
       1,
       {0.5, -1.0, 2.0, 0.1},
       Formed::done,
       {0.5, 1e-9, 2.0, 0.1},
       nullptr},
  };
  for (const BOUND_CASE& c : cases) {
    SCOPED_TRACE(c.name);
    ONE_ROW run(c.model, c.levels, c.order, c.given);
    EXPECT_EQ(run.form(c.iteration), c.answer);
    if (!c.expected.empty()) {
      EXPECT_TRUE(near(run.values(), c.expected, 1e-7));
    }
    if (c.words != nullptr) {
      EXPECT_TRUE(has_message(run.eh, c.words));
    } else {
      EXPECT_TRUE(clean(run.eh));
    }
    EXPECT_FALSE(run.eh.terminate());
    if (c.answer != Formed::again) continue;
    // What is left is the variance alone; the loading stays in the table, fixed at 0.
    EXPECT_EQ(run.model.parameters[1].value, 0.0);
    EXPECT_EQ(run.model.parameters[1].constraint, Constraint::F);
    run.component = make_component(run.row, run.model);
    ASSERT_EQ(run.form(), Formed::done);
    EXPECT_NEAR(run.component->log_determinant(), std::log(3.0), 1e-14);
  }
}

// A level that the others explain all but wholly: its own variance is held at 1e-5 of its whole one, and fixed when it comes back a
// third time.
TEST(FactorModels, TriangularFactorsKeepLevelsApart)
{
  for (const bool cholesky : {true, false}) {
    SCOPED_TRACE(cholesky ? "CHOL" : "ANTE");
    const Vector sound = cholesky ? Vector{2.0, 0.7, 1.0, 0.4, 3.0, 1.5} : Vector{0.5, -0.7, 1.0, -0.4, 0.3, 1.5};
    ONE_ROW run(cholesky ? 11 : 12, 3, 2, sound);
    ASSERT_EQ(run.form(1), Formed::done);
    EXPECT_EQ(run.values(), sound);
    for (int time = 1; time <= 4; ++time) {
      SCOPED_TRACE(time);
      run.model.parameters[3].value = cholesky ? 1e-12 : 1e9;  // D of the second level
      run.model.parameters[5].value = cholesky ? 30.0 : 0.3;   // L of the third by the second
      ASSERT_EQ(run.form(1 + time), Formed::done);
      Dense v(3, 3);
      run.component->covariance(v.a.data());
      const double d = run.model.parameters[3].value;
      EXPECT_NEAR(cholesky ? d : 1.0 / d, 1e-5 * v(1, 1), 1e-12);
      const bool fixed = time >= 3;
      EXPECT_EQ(run.model.parameters[3].constraint, fixed ? Constraint::B : Constraint::P);
      if (!cholesky) continue;
      // An element that means next to nothing any more is no larger than the standard deviations allow.
      const double whole = 0.4 * 0.4 * 2.0 + 1.5;
      EXPECT_NEAR(run.model.parameters[5].value, std::sqrt(whole / v(1, 1)), 1e-12);
      EXPECT_EQ(run.model.parameters[5].constraint, fixed ? Constraint::B : Constraint::P);
      run.model.parameters[5].constraint = Constraint::P;
    }
    EXPECT_TRUE(clean(run.eh));
  }
}

TEST(FactorModels, StartFromACovarianceMatrix)
{
  Dice dice(13);
  for (const std::int64_t n : {1, 2, 5, 9}) {
    Dense b(n, n + 2);
    b.a = dice.vector(n * (n + 2));
    const Dense v = b * transposed(b);
    for (const std::int64_t order : {std::int64_t{1}, std::int64_t{2}, n - 1}) {
      SCOPED_TRACE(text("levels ", n, " order ", order));
      Vector factors = to_packed(v);
      ASSERT_TRUE(antedependence_from_covariance(n, order, factors));
      ONE_ROW run(12, n, order, factors);
      ASSERT_EQ(run.form(), Formed::done);
      Dense r(n, n);
      run.component->covariance(r.a.data());
      // variances and the covariances within the order are kept
      for (std::int64_t i = 0; i < n; ++i)
        for (std::int64_t j = std::max<std::int64_t>(0, i - order); j <= i; ++j)
          EXPECT_NEAR(r(i, j), v(i, j), 1e-9 * norm(v));
    }
    for (const std::int64_t k : {std::int64_t{1}, std::min<std::int64_t>(n, 3)}) {
      ERROR_HANDLER eh;
      Vector psi(static_cast<std::size_t>(n)), l(static_cast<std::size_t>(n * k));
      ASSERT_TRUE(US2XFA(eh, to_packed(v), n, k, psi, l));
      const Vector e = eigenvalues(scaled_by(v, v));
      for (std::int64_t j = 0; j < k; ++j) {
        // each factor has the length of its eigenvalue less 1, or 0.05, on the scale of the correlations
        double length = 0.0;
        for (std::int64_t i = 0; i < n; ++i) {
          const double x = l[static_cast<std::size_t>(i + j * n)];
          length += x * x / v(i, i);
        }
        EXPECT_NEAR(length, std::max(e[static_cast<std::size_t>(n - 1 - j)] - 1.0, 0.05), 1e-10);
      }
      for (std::int64_t i = 0; i < n; ++i) {
        double sum = 0.0;
        for (std::int64_t j = 0; j < k; ++j)
          sum += l[static_cast<std::size_t>(i + j * n)] * l[static_cast<std::size_t>(i + j * n)];
        EXPECT_NEAR(psi[static_cast<std::size_t>(i)], std::max(v(i, i) - sum, 0.05 * v(i, i)), 1e-12);
      }
      EXPECT_TRUE(clean(eh));
    }
  }
  Vector bad{1.0, 2.0, 1.0};
  EXPECT_FALSE(antedependence_from_covariance(2, 1, bad));
  EXPECT_EQ(bad, (Vector{1.0, 2.0, 1.0}));
}

}  // namespace
}  // namespace tolvan
