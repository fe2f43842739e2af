// Solving by iteration: the solver on small systems, and whole evaluations beside those that factorise.
#include "estimation/iterative_solver.h"

#include <filesystem>
#include <fstream>

#include "base/numbers.h"
#include "estimation/final_results.h"
#include "structure_models.h"

namespace tolvan {
namespace {

using namespace tolvan::test;

/// A symmetric matrix in the form of the solver.
struct System {
  COEFFICIENTS c;
  std::vector<double> reciprocal, b;
  EQUATION_STORE store;

  System(const Matrix& a, std::vector<double> right) : b(std::move(right))
  {
    c.n = static_cast<std::int64_t>(a.rows);
    c.start.push_back(0);
    for (std::size_t j = 0; j < a.rows; ++j) {
      for (std::size_t i = j; i < a.rows; ++i) {
        if (i != j && a(i, j) == 0.0) continue;
        c.row.push_back(static_cast<std::int32_t>(i));
        c.value.push_back(a(i, j));
      }
      c.start.push_back(static_cast<std::int64_t>(c.row.size()));
      reciprocal.push_back(a(j, j) != 0.0 ? 1.0 / a(j, j) : 0.0);
    }
    store.c = &c;
    store.reciprocal = reciprocal;
  }
};

/// W'W + I/4 of a random sparse W.
Matrix crossed(std::size_t n, unsigned seed)
{
  std::mt19937_64 gen(seed);
  Matrix w(3 * n, n);
  for (std::size_t r = 0; r < w.rows; ++r) {
    for (int k = 0; k < 3; ++k) w(r, gen() % n) += 1.0;
  }
  Matrix a = transpose(w) * w;
  for (std::size_t i = 0; i < n; ++i) a(i, i) += 0.25;
  return a;
}

std::string words(const ERROR_HANDLER& eh)
{
  std::string out;
  for (const ERROR_MESSAGE& m : eh.messages()) out += m.message.value_or("") + "\n";
  return out;
}

TEST(Solver, EveryMethodSolves)
{
  const std::pair<std::int64_t, const char*> methods[] = {
      {0, "solving mixed model equations by Gauss Seidel iteration\n"},
      {4, "solving mixed model equations by PCG iteration method\n"},
      {2, "solving mixed model equations by Gauss Seidel iteration, with relaxation factor  0.2\n"},
      {14, "solving mixed model equations by Gauss Seidel iteration, with relaxation factor  1.4\n"},
  };
  for (const std::size_t n : {1, 2, 3, 40}) {
    const Matrix a = crossed(n, 5);
    double log_determinant = 0.0;
    const Matrix inverse = tolvan_test::inverse_spd(a, log_determinant);
    std::vector<double> b(n);
    for (std::size_t i = 0; i < n; ++i) b[i] = std::sin(1.0 + static_cast<double>(i));
    for (const auto& [method, message] : methods) {
      SCOPED_TRACE(testing::Message() << n << " equations, method " << method);
      const System s(a, b);
      ERROR_HANDLER eh;
      std::vector<double> x;
      const SOLVER_REPORT report = K4MSLV(eh, s.store, s.b, x, method, most_rounds);
      EXPECT_EQ(report.end, SolverEnd::converged);
      EXPECT_LE(report.measure, -10.0);
      EXPECT_EQ(words(eh), message);
      for (std::size_t i = 0; i < n; ++i) {
        double exact = 0.0;
        for (std::size_t k = 0; k < n; ++k) exact += inverse(i, k) * b[k];
        EXPECT_NEAR(x[i], exact, method == 2 ? 1e-2 : 1e-3);  // the rule looks at the last step, which slow methods keep small
      }
    }
  }
}

// The first equation out of two, with nothing on its diagonal; all of them; nothing to find.
TEST(Solver, EquationsWithoutADiagonalStayZero)
{
  Matrix a(3, 3);
  a(1, 1) = 4.0;
  a(2, 2) = 3.0;
  a(1, 2) = a(2, 1) = 1.0;
  for (const std::int64_t method : {0, 4}) {
    const System s(a, {7.0, 1.0, 2.0});
    ERROR_HANDLER eh;
    std::vector<double> x;
    EXPECT_EQ(K4MSLV(eh, s.store, s.b, x, method, most_rounds).end, SolverEnd::converged);
    EXPECT_EQ(x[0], 0.0);
    EXPECT_NEAR(x[1], 1.0 / 11.0, 1e-4);
    EXPECT_NEAR(x[2], 7.0 / 11.0, 1e-4);

    const System none(Matrix(2, 2), {1.0, 1.0});
    ERROR_HANDLER silent;
    EXPECT_EQ(K4MSLV(silent, none.store, none.b, x, method, most_rounds).rounds, 0);
    EXPECT_EQ(x, std::vector<double>(2, 0.0));
    EXPECT_EQ(words(silent), "");

    const System nothing(a, {0.0, 0.0, 0.0});
    EXPECT_EQ(K4MSLV(eh, nothing.store, nothing.b, x, method, most_rounds).end, SolverEnd::converged);
    EXPECT_EQ(x, std::vector<double>(3, 0.0));
  }
}

TEST(Solver, FailureHasItsWords)
{
  Matrix indefinite(2, 2);
  indefinite(0, 0) = indefinite(1, 1) = 1.0;
  indefinite(0, 1) = indefinite(1, 0) = 3.0;
  const struct {
    Matrix a;
    std::int64_t method;
    const char* message;
  } failures[] = {
      {indefinite, 0, "convergence failure"},
      {indefinite, 4, "convergence failure"},
      {crossed(30, 2), 30, "convergence failure, try reducing the acceleration factor"},
  };
  for (const auto& failure : failures) {
    const System s(failure.a, std::vector<double>(failure.a.rows, 1.0));
    System tilted = s;
    tilted.store.c = &tilted.c;
    tilted.store.reciprocal = tilted.reciprocal;
    tilted.b[0] = -2.0;
    ERROR_HANDLER eh;
    std::vector<double> x;
    const SOLVER_REPORT report = K4MSLV(eh, tilted.store, tilted.b, x, failure.method, 100000);
    EXPECT_EQ(report.end, SolverEnd::diverged);
    EXPECT_TRUE(eh.terminate());
    EXPECT_EQ(eh.messages().back().message, failure.message);
    EXPECT_EQ(eh.messages().back().routine, "K4MSLV");
  }
}

TEST(Solver, StopsAtItsRoundsAndAtTheUsersWish)
{
  const System s(crossed(40, 5), std::vector<double>(40, 1.0));
  ERROR_HANDLER eh;
  std::vector<double> x;
  const SOLVER_REPORT report = K4MSLV(eh, s.store, s.b, x, 2, 7);
  EXPECT_EQ(report.end, SolverEnd::out_of_rounds);
  EXPECT_EQ(report.rounds, 7);
  EXPECT_FALSE(eh.terminate());

  std::ofstream("ABORTTLV.NOW").put('\n');
  EXPECT_EQ(K4MSLV(eh, s.store, s.b, x, 4, most_rounds).end, SolverEnd::aborted);
  EXPECT_FALSE(std::filesystem::exists("ABORTTLV.NOW"));
  EXPECT_EQ(eh.messages().back().ecode, Ecode::user_abort);
}

struct Evaluated {
  ERROR_HANDLER eh;
  FIT_WORK work;
  EVALUATION ev;
  FIT_STATE fit;
};

void evaluate(Built& b, std::int64_t mode, Evaluated& e)
{
  const FIT_MODEL in{b.options, b.variables, b.factors, b.terms, b.design, b.timing};
  e.work.aiopt(Ai::mode) = mode;
  VARIANCE_MODEL model = b.model;
  K4MITR(e.eh, in, 1, model, e.work, e.ev);
  for (std::size_t i = 0; i < model.parameters.size(); ++i) EXPECT_EQ(model.parameters[i].value, b.model.parameters[i].value);
  if (e.eh.terminate() || e.ev.fault > 0) return;
  K4MFIN(e.eh, in, model, e.work, e.ev, e.fit);
}

/// Whether G^-1 has rows that only bind others: C is indefinite then.
bool is_bound(const EVALUATION& ev)
{
  for (const FORMED_TERM& term : ev.formed.terms) {
    for (const auto& component : term.components) {
      if (!component->lagrangian().empty()) return true;
    }
  }
  return false;
}

/// A matrix that knows nothing of two of its five levels.
const AINV_MTX& two_unknown()
{
  static const AINV_MTX matrix = [] {
    AINV_MTX m;
    m.shape = Shape::dense;
    m.order = 5;
    m.absent = m.zero_rows = 2;
    m.values.assign(25, 0.0);
    for (std::size_t i = 0; i < 3; ++i) {
      for (std::size_t j = 0; j < 3; ++j) m.values[i + j * 5] = i == j ? 2.0 : 0.5;
    }
    m.log_determinant = -std::log(2.0 * (4.0 - 0.25) - 0.5 * (1.0 - 0.25) + 0.5 * (0.25 - 1.0));
    return m;
  }();
  return matrix;
}

const std::vector<Case> fixed_within = {
    {"genetic groups", {{{33, -1, 11, {0.8}, 1, 0, {}, 0, &grouped_animals()}}, {{0, 0, 6, {0.4}}}}, {{{0, 0, 60, {1.2}}}}, true},
    {"two traits of animals with groups",
     {{{25, 9, 2, {0.9, 0.3, 0.6}}, {33, -1, 11, {}, 1, 0, {}, 0, &grouped_animals()}}},
     {{{0, 0, 40, {}}, {25, 9, 2, {1.2, 0.4, 0.9}}}}, false, false, 3, 4},
    {"levels of which nothing is known", {{{33, -1, 5, {0.8}, 1, 0, {}, 0, &two_unknown()}, {1, 1, 3, {0.4}}}}, {{{0, 0, 60, {1.2}}}}},
    {"groups by levels of which nothing is known",
     {{{33, -1, 11, {0.8}, 1, 0, {}, 0, &grouped_animals()}, {33, -1, 5, {}, 1, 0, {}, 0, &two_unknown()}}}, {{{0, 0, 160, {1.2}}}}},
    {"a factor by animals with groups, no variances of their own",
     {{{31, 15, 7, {0.0, 0.0, 0.0, 0.8, 0.5, 0.9}, 1, 0, {}, 3}, {33, -1, 11, {}, 1, 0, {}, 0, &grouped_animals()}}},
     {{{0, 0, 80, {1.1}}}}},
    {"animals with groups by two factors, one level exact",
     {{{33, -1, 11, {}, 1, 0, {}, 0, &grouped_animals()}, {31, 15, 6, {0.3, 0.0, 0.4, 0.8, 0.5, 0.9, 0.0, 0.3, -0.2}, 2, 0, {}, 3}}},
     {{{0, 0, 80, {1.1}}}}, true},
    {"groups without records", {{{0, 0, 4, {0.4}, 1, 0, {}, 2}, {33, -1, 11, {}, 1, 0, {}, 0, &grouped_animals()}}}, {{{0, 0, 40, {1.2}}}}},
};

/// The equations left out as singular.
std::vector<std::int64_t> left_out(const Evaluated& e)
{
  std::vector<std::int64_t> out;
  const MIXED_EQUATIONS& q = e.work.equations;
  for (std::int64_t i = 0; i < q.n; ++i) {
    if (q.factor.reciprocal[static_cast<std::size_t>(q.position_of(i))] == 0.0) out.push_back(i);
  }
  return out;
}

TEST(Iterative, SolutionsAreThoseOfTheFactor)
{
  int by_products = 0;
  int by_rows = 0;
  std::vector<Case> all = cases;
  all.insert(all.end(), fixed_within.begin(), fixed_within.end());
  for (const Case& c : all) {
    for (const std::int64_t dense : {0, 1, -1}) {  // 1: mu is the one singular equation behind a sparse factor; -1: a random term is dense besides
      for (const std::int64_t mode : {4, 12, 17}) {
        SCOPED_TRACE(testing::Message() << c.name << ", dense " << dense << ", mode " << mode);
        Built b = build(c, 7);
        b.options(Slot::dense) = std::abs(dense);
        b.options(Slot::gdense) = dense < 0 ? 1 : 0;
        Evaluated direct, iterated;
        evaluate(b, 2, direct);
        ASSERT_FALSE(direct.eh.terminate()) << direct.eh.EH_PRINT_TEXT();
        evaluate(b, mode, iterated);
        if (is_bound(direct.ev) && mode != 4) {  // refused, not wrong
          EXPECT_EQ(iterated.eh.messages().back().ecode, Ecode::not_implemented);
          continue;
        }
        ASSERT_FALSE(iterated.eh.terminate()) << iterated.eh.EH_PRINT_TEXT();
        EXPECT_TRUE(iterated.ev.iterated);
        (iterated.work.equations.solving == Solving::by_products ? by_products : by_rows) += mode == 4 ? 1 : 0;
        EXPECT_EQ(iterated.ev.logl, 0.0);
        EXPECT_EQ(iterated.ev.nu, direct.ev.nu);
        EXPECT_EQ(iterated.ev.absorbed.singular, direct.ev.absorbed.singular);
        EXPECT_NEAR(iterated.ev.sigma2, direct.ev.sigma2, 1e-9 * direct.ev.sigma2);
        // With groups among sparse fixed effects either may be the one that is left out: then only what is fitted is comparable.
        const bool alike = dense == 0 || left_out(iterated) == left_out(direct);
        for (std::size_t e = 0; alike && e < direct.fit.solution.size(); ++e) {
          if (is_no_value(iterated.fit.solution[e])) continue;  // a multiplier in a product with two of them
          EXPECT_NEAR(iterated.fit.solution[e], direct.fit.solution[e], 2e-7 * (1.0 + std::fabs(direct.fit.solution[e]))) << e;
          EXPECT_TRUE(is_no_value(iterated.fit.se[e]));
        }
        for (std::size_t r = 0; r < direct.fit.fitted.size(); ++r) EXPECT_NEAR(iterated.fit.fitted[r], direct.fit.fitted[r], 2e-7 * 10.0);
      }
    }
  }
  EXPECT_GT(by_products, 3);  // both roads of conjugate gradients were taken
  EXPECT_GT(by_rows, 3);
}

}  // namespace
}  // namespace tolvan
