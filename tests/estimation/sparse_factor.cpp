// The sparse factor, its sweeps and its inverse against a plain dense twin.
#include <gtest/gtest.h>

#include <limits>

#include "base/lapack.h"
#include "sparse_matrices.h"

namespace tolvan::test {
namespace {

struct Solved {
  FACTOR factor;
  COEFFICIENTS c;
  ABSORBED absorbed;
};

void order_and_analyse(const PATTERN& pattern, FACTOR& factor)
{
  ERROR_HANDLER eh;
  std::vector<std::int32_t> order;
  REORDER_MATRIX(eh, pattern, 0, order);
  SYMBOLICABS2(eh, pattern, order, factor);
  ASSERT_FALSE(eh.terminate());
  ASSERT_TRUE(eh.stack().entries.empty());
}

void absorb(const PATTERN& pattern, const DENSE& dense, int threads, Solved& s)
{
  ERROR_HANDLER eh;
  order_and_analyse(pattern, s.factor);
  s.c = permute(dense, pattern, s.factor);
  ABSORB_CONTROL control;
  control.threads = threads;
  K4MXXAIL(eh, s.c, control, s.factor, s.absorbed);
  ASSERT_FALSE(eh.terminate());
}

// The dense matrix in elimination order.
DENSE permuted(const DENSE& a, const FACTOR& factor)
{
  DENSE b = a;
  for (std::int64_t j = 0; j < a.n; ++j) {
    for (std::int64_t i = 0; i < a.n; ++i) b(i, j) = a(factor.order[i], factor.order[j]);
  }
  return b;
}

double element_of_l(const FACTOR& factor, std::int64_t i, std::int64_t j)
{
  const SNODE& node = factor.nodes[factor.node_of[j]];
  for (std::int64_t r = j - node.first; r < node.rows; ++r) {
    if (factor.row_list[node.row_list + r] == i)
      return factor.panel[node.panel + r + (j - node.first) * node.rows];
  }
  return 0.0;
}

double largest(const std::vector<double>& a)
{
  double most = 0.0;
  for (const double x : a) most = std::max(most, std::abs(x));
  return most;
}

// Everything that is asked of one matrix.
void check(const PATTERN& pattern, Kind kind, unsigned seed)
{
  const DENSE dense = make_values(pattern, kind, seed);
  const std::int64_t n = dense.n;
  Solved s;
  absorb(pattern, dense, 1, s);
  FACTOR& factor = s.factor;
  const DENSE c = permuted(dense, factor);
  const TWIN twin = eliminate(c, 1e-8);
  EXPECT_EQ(s.absorbed.singular, twin.singular);
  EXPECT_EQ(s.absorbed.negative, twin.negative);
  if (kind == Kind::dependent) {
    EXPECT_EQ(s.absorbed.singular, parts_of(pattern));
  }
  EXPECT_NEAR(s.absorbed.log_determinant, twin.log_determinant, 1e-11 * static_cast<double>(n + 1));

  constexpr double eps = std::numeric_limits<double>::epsilon();
  const double scale = static_cast<double>(n + 1) * (largest(c.a) + 1.0) * eps;
  std::vector<double> l(static_cast<std::size_t>(n * n), 0.0), ldl(l);
  for (std::int64_t j = 0; j < n; ++j) {
    l[j + j * n] = 1.0;
    for (std::int64_t i = j + 1; i < n; ++i) l[i + j * n] = element_of_l(factor, i, j);
  }
  std::vector<double> scaled(l);
  for (std::int64_t j = 0; j < n; ++j) {
    const double d = factor.reciprocal[j] == 0.0 ? 0.0 : 1.0 / factor.reciprocal[j];
    for (std::int64_t i = 0; i < n; ++i) scaled[i + j * n] *= d;
  }
  dgemm('N', 'T', n, n, n, 1.0, scaled.data(), std::max<std::int64_t>(n, 1), l.data(),
        std::max<std::int64_t>(n, 1), 0.0, ldl.data(), std::max<std::int64_t>(n, 1));
  double residual = 0.0;
  for (std::int64_t k = 0; k < n * n; ++k) residual = std::max(residual, std::abs(ldl[k] - c.a[k]));
  EXPECT_LT(residual / scale, 30.0);

  // Right-hand sides that the solution reproduces: C x = b with b in the range of C.
  const std::int64_t columns = 39;
  std::vector<double> x(static_cast<std::size_t>(n * columns)), b(x.size(), 0.0), left(x.size(), 0.0);
  std::mt19937 random(seed);
  for (double& v : x) v = static_cast<double>(random() % 2000) / 1000.0 - 1.0;
  if (n > 0) dgemm('N', 'N', n, columns, n, 1.0, c.a.data(), n, x.data(), n, 0.0, b.data(), n);
  std::vector<double> solution = b, one(b.begin(), b.begin() + n);
  SMIFWD(factor, solution.data(), columns, 1);
  SMIBCK(factor, solution.data(), columns, 1);
  if (n > 0) dgemm('N', 'N', n, columns, n, 1.0, c.a.data(), n, solution.data(), n, 0.0, left.data(), n);
  double worst = 0.0;
  for (std::size_t k = 0; k < b.size(); ++k) worst = std::max(worst, std::abs(left[k] - b[k]));
  EXPECT_LT(worst / (scale * (1.0 + largest(solution))), 30.0);
  for (std::int64_t p = 0; p < n; ++p) {
    if (factor.reciprocal[p] == 0.0) {
      EXPECT_EQ(solution[p], 0.0);
    }
  }
  SMIFWD(factor, one.data(), 1, 1);
  SMIBCK(factor, one.data(), 1, 1);
  for (std::int64_t p = 0; p < n; ++p) EXPECT_NEAR(one[p], solution[p], 1e-10 * (1.0 + largest(solution)));

  // Every position that the panels hold, zeros of merged nodes included, is an element of the inverse.
  const DENSE z = invert(twin, n);
  ERROR_HANDLER eh;
  SMIREV(eh, factor, 1, {});
  ASSERT_TRUE(factor.holds_inverse);
  const double tolerance = 1e-11 * (1.0 + largest(z.a));
  std::int64_t held = 0;
  for (const SNODE& node : factor.nodes) {
    for (std::int32_t j = node.first; j <= node.last; ++j) {
      for (std::int64_t r = j - node.first; r < node.rows; ++r) {
        const std::int32_t i = factor.row_list[node.row_list + r];
        ASSERT_NEAR(factor.panel[node.panel + r + (j - node.first) * node.rows], z(i, j), tolerance)
            << i << ' ' << j;
        ASSERT_EQ(K4MXIJ(factor, j, i), factor.panel[node.panel + r + (j - node.first) * node.rows]);
        ++held;
      }
    }
  }
  EXPECT_EQ(held, factor.entries);
  std::vector<double> inverse;
  gather_inverse(factor, s.c, inverse, 2);
  ASSERT_EQ(inverse.size(), s.c.value.size());
  for (std::int64_t j = 0; j < n; ++j) {
    for (std::int64_t p = s.c.start[j]; p < s.c.start[j + 1]; ++p) {
      ASSERT_EQ(inverse[p], K4MXIJ(factor, s.c.row[p], j));
    }
  }
}

TEST(SparseFactor, AgreesWithTheDenseTwin)
{
  for (const std::int64_t n : {0, 1, 2, 3, 5, 79, 80, 81, 160, 500}) {
    for (const std::int64_t dense : {0, 1, 5, 90}) {
      for (const Shape shape : all_shapes) {
        const Kind kind = static_cast<Kind>((n + dense + static_cast<int>(shape)) % 4);
        SCOPED_TRACE(testing::Message() << "n " << n << " dense " << dense << " shape "
                                        << static_cast<int>(shape) << " kind " << static_cast<int>(kind));
        check(make_pattern(shape, n, dense, static_cast<unsigned>(n + 7 * dense)), kind, 11);
        if (testing::Test::HasFatalFailure()) return;
      }
    }
  }
}

TEST(SparseFactor, WideNodesAreCutAndTiled)
{
  check(make_pattern(Shape::random, 1300, 3, 4), Kind::singular, 6);
  for (const Kind kind : {Kind::indefinite, Kind::dependent}) check(make_pattern(Shape::crossed, 1000, 700, 3), kind, 5);
}

// Bits for 1, 2 and 4 threads, and for the same run twice.
TEST(SparseFactor, ThreadsAndRepetitionLeaveTheBitsAlone)
{
  struct Case {
    Shape shape;
    std::int64_t n, dense;
    Kind kind;
  };
  const Case cases[] = {{Shape::crossed, 2500, 40, Kind::indefinite},
                        {Shape::random, 2500, 40, Kind::dependent},
                        {Shape::block, 2500, 40, Kind::singular},
                        {Shape::apart, 2500, 40, Kind::dependent},
                        {Shape::crossed, 1600, 900, Kind::indefinite}};
  for (const auto& [shape, n, dense_equations, kind] : cases) {
    const PATTERN pattern = make_pattern(shape, n, dense_equations, 8);
    const DENSE dense = make_values(pattern, kind, 9);
    std::vector<double> first_factor, first_solution, first_inverse;
    double first_determinant = 0.0;
    for (const int threads : {1, 1, 2, 4}) {
      Solved s;
      absorb(pattern, dense, threads, s);
      std::vector<double> factor = s.factor.panel, b(static_cast<std::size_t>(n * 126));
      for (std::size_t k = 0; k < b.size(); ++k) b[k] = std::sin(static_cast<double>(k));
      std::int64_t done = 0;
      for (const std::int64_t columns : {1, 5, 40, 80}) {  // alone, one tile, two, more
        SMIFWD(s.factor, b.data() + done * n, columns, threads);
        SMIBCK(s.factor, b.data() + done * n, columns, threads);
        done += columns;
      }
      ERROR_HANDLER eh;
      SMIREV(eh, s.factor, threads, {});
      // The upper triangles of the squares are scratch before the inversion.
      for (const SNODE& node : s.factor.nodes) {
        for (std::int64_t j = 0; j < node.width(); ++j) {
          for (std::int64_t i = 0; i < j; ++i) factor[node.panel + i + j * node.rows] = 0.0;
        }
      }
      if (first_factor.empty()) {
        first_factor = factor;
        first_solution = b;
        first_inverse = s.factor.panel;
        first_determinant = s.absorbed.log_determinant;
      }
      EXPECT_EQ(factor, first_factor) << threads;
      EXPECT_EQ(b, first_solution) << threads;
      EXPECT_EQ(s.factor.panel, first_inverse) << threads;
      EXPECT_EQ(s.absorbed.log_determinant, first_determinant);
    }
  }
}

// Two equations [a b; b d] and more of no concern: the second pivot is d - b^2 / a.
DENSE with_small_pivot(const PATTERN& pattern, const FACTOR& factor, double pivot, double entry)
{
  DENSE c;
  c.n = pattern.n;
  c.a.assign(static_cast<std::size_t>(c.n * c.n), 0.0);
  for (std::int64_t i = 0; i < c.n; ++i) c(i, i) = 4.0;
  const auto at = [&](std::int64_t p, std::int64_t q) -> double& {
    return c(factor.order[p], factor.order[q]);
  };
  at(1, 0) = at(0, 1) = 4.0;
  at(1, 1) = 4.0 + pivot;
  at(2, 1) = at(1, 2) = entry;
  at(2, 2) = 1000.0;
  return c;
}

TEST(SparseFactor, PivotsAtTheTolerance)
{
  PATTERN pattern;
  pattern.n = 3;
  pattern.dense = 3;
  pattern.start = {0, 0, 0, 0};
  FACTOR factor;
  order_and_analyse(pattern, factor);
  struct Case {
    double pivot, entry, t0;
    bool standard;
    std::int64_t singular;
    std::size_t reported;
    bool accepted;
  };
  const double t = 4.0 * 0x1p-27;  // about 3e-8; sums with it are exact
  const Case cases[] = {
      {t, 0.0, 0.0, false, 0, 0, false},        // equal to the tolerance: t0 is chosen so below
      {0.0, 0.0, 0.0, false, 1, 0, false},      // a pivot of zero is singular with tolerance zero too
      {-2.0, 0.0, 1e-8, true, 0, 0, false},     // a negative pivot of size is kept
      {2e-8, 0.0, 1e-8, true, 1, 0, false},     // small without an entry: silent
      {2e-8, 1.0, 1e-8, true, 0, 1, true},      // small with a large entry: accepted once
      {2e-9, 1.0, 1e-8, true, 1, 1, false},     // below a tenth of the tolerance
      {2e-8, 1.0, 1e-8, false, 1, 1, false},    // the tolerance is not the default one
      {-2e-8, 1.0, 1e-8, true, 1, 1, false},    // small and negative
      {1e-10, 1.0, 1e-8, true, 1, 0, false},    // below a hundredth
      {2e-8, 0.0009, 1e-8, true, 1, 0, false},  // the entry is too small
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(testing::Message() << "pivot " << k.pivot << " entry " << k.entry << " t0 " << k.t0);
    const DENSE dense = with_small_pivot(pattern, factor, k.pivot, k.entry);
    const COEFFICIENTS c = permute(dense, pattern, factor);
    for (const int threads : {1, 2}) {
      ERROR_HANDLER eh;
      ABSORB_CONTROL control;
      control.t0 = k.pivot == t ? t / (4.0 + t) : k.t0;
      control.default_tolerance = k.standard;
      control.threads = threads;
      ABSORBED absorbed;
      K4MXXAIL(eh, c, control, factor, absorbed);
      EXPECT_EQ(absorbed.singular, k.singular);
      EXPECT_EQ(absorbed.negative, k.pivot < -1.0 || k.accepted ? 1 : 0);  // 1000 - 1 / 2e-8 comes after it
      ASSERT_EQ(absorbed.reported.size(), k.reported);
      if (k.reported == 0) continue;
      EXPECT_EQ(absorbed.reported[0].position, 1);
      EXPECT_NEAR(absorbed.reported[0].pivot, k.pivot, 1e-14);
      EXPECT_EQ(absorbed.reported[0].accepted, k.accepted);
      EXPECT_EQ(absorbed.tightened, k.accepted);
      EXPECT_DOUBLE_EQ(absorbed.t0, k.accepted ? 1e-9 : 1e-8);
    }
  }
}

// Effects of a positive definite variance matrix keep their pivots down to the rounding of their diagonal, and are not reported.
TEST(SparseFactor, PivotsOfDefiniteEquations)
{
  PATTERN pattern;
  pattern.n = pattern.dense = 3;
  pattern.start = {0, 0, 0, 0};
  FACTOR factor;
  order_and_analyse(pattern, factor);
  const std::vector<std::uint8_t> definite(3, 1);
  for (const auto& [pivot, singular] : std::vector<std::pair<double, std::int64_t>>{{0x1p-27, 0}, {0x1p-37, 0}, {0x1p-39, 1}, {0.0, 1}}) {
    for (const double t0 : {1e-6, 1e-8, 1e-9}) {
      SCOPED_TRACE(testing::Message() << "pivot " << pivot << " t0 " << t0);
      const COEFFICIENTS c = permute(with_small_pivot(pattern, factor, pivot, 1e-9), pattern, factor);
      ERROR_HANDLER eh;
      ABSORB_CONTROL control;
      control.t0 = t0;
      control.definite = definite;
      ABSORBED absorbed;
      K4MXXAIL(eh, c, control, factor, absorbed);
      EXPECT_EQ(absorbed.singular, singular);
      EXPECT_TRUE(absorbed.reported.empty());
      EXPECT_FALSE(absorbed.tightened);
      if (singular > 0) continue;
      EXPECT_NEAR(absorbed.log_determinant, std::log(4.0) + std::log(pivot) + std::log(1000.0), 1e-6);
    }
  }
}

// Many small pivots in many nodes: the first in order is accepted, whatever the threads do first.
TEST(SparseFactor, OneSmallPivotIsAcceptedWhateverTheThreads)
{
  const PATTERN pattern = make_pattern(Shape::random, 2000, 10, 2);
  FACTOR factor;
  order_and_analyse(pattern, factor);
  ASSERT_GT(factor.flops, 1e7);  // enough for more than one thread
  COEFFICIENTS c = permute(make_values(pattern, Kind::definite, 3), pattern, factor);
  for (std::int64_t p = 0; p < 400;
       p += 10) {  // half the tolerance where nothing is absorbed into the column
    c.value[c.start[p]] = 5e-9;
    for (std::int64_t q = c.start[p] + 1; q < c.start[p + 1]; ++q) c.value[q] = 1.0;
  }
  std::vector<ABSORBED> found(3);
  const int threads[] = {1, 2, 4};
  for (int k = 0; k < 3; ++k) {
    ERROR_HANDLER eh;
    ABSORB_CONTROL control;
    control.threads = threads[k];
    K4MXXAIL(eh, c, control, factor, found[k]);
    EXPECT_GE(found[k].reported.size(), 2u);
    EXPECT_EQ(std::count_if(found[k].reported.begin(), found[k].reported.end(),
                            [](const auto& r) { return r.accepted; }),
              1);
    ASSERT_EQ(found[k].reported.size(), found[0].reported.size());
    for (std::size_t r = 0; r < found[k].reported.size(); ++r) {
      EXPECT_EQ(found[k].reported[r].position, found[0].reported[r].position);
      EXPECT_EQ(found[k].reported[r].accepted, r == 0);
    }
    EXPECT_EQ(found[k].log_determinant, found[0].log_determinant);
  }
}

TEST(SparseFactor, FlaggedAndUndefinedEquations)
{
  const PATTERN pattern = make_pattern(Shape::random, 200, 5, 1);
  const DENSE dense = make_values(pattern, Kind::indefinite, 2);
  Solved s;
  absorb(pattern, dense, 1, s);
  ASSERT_GT(s.absorbed.negative, 0);
  // With flags a negative pivot is singular, and so is a flagged equation.
  std::vector<signed char> flags(200, 0);
  flags[17] = -1;
  ABSORB_CONTROL control;
  control.flags = flags;
  ERROR_HANDLER eh;
  ABSORBED absorbed;
  K4MXXAIL(eh, s.c, control, s.factor, absorbed);
  EXPECT_EQ(absorbed.negative, 0);
  EXPECT_GT(absorbed.singular, 1);
  EXPECT_EQ(s.factor.reciprocal[17], 0.0);

  s.c.value[s.c.start[3]] = std::nan("");
  K4MXXAIL(eh, s.c, {}, s.factor, absorbed);
  EXPECT_TRUE(std::isnan(absorbed.log_determinant));
  SMIREV(eh, s.factor, 2, {});
  EXPECT_FALSE(eh.terminate());
}

TEST(SparseFactor, RefusesElementsOffThePattern)
{
  const PATTERN pattern = make_pattern(Shape::apart, 50, 0, 1);
  Solved s;
  absorb(pattern, make_values(pattern, Kind::definite, 2), 1, s);
  for (const auto& node : s.factor.nodes) {
    if (node.last + 1 >= 50 || s.factor.node_of[49] == s.factor.node_of[node.last]) continue;
    if (s.factor.row_list[node.row_list + node.rows - 1] == 49) continue;
    s.c.row[s.c.start[node.last + 1] - 1] = 49;  // the last entry of the node's last column
    break;
  }
  ERROR_HANDLER eh;
  K4MXXAIL(eh, s.c, {}, s.factor, s.absorbed);
  EXPECT_TRUE(eh.terminate());
  EXPECT_EQ(eh.EH_LAST_MESSAGE(), "errors detected in sparse matrix");
}

TEST(SparseFactor, StopsWhenAsked)
{
  // Dense, so that the work takes longer than the 100 ms between two questions.
  const std::int64_t n = 3600;
  PATTERN pattern;
  pattern.n = pattern.dense = n;
  pattern.start.assign(n + 1, 0);
  FACTOR factor;
  order_and_analyse(pattern, factor);
  COEFFICIENTS c;
  c.n = n;
  c.start.push_back(0);
  for (std::int64_t j = 0; j < n; ++j) {
    for (std::int64_t i = j; i < n; ++i) {
      c.row.push_back(static_cast<std::int32_t>(i));
      c.value.push_back(i == j ? 2.0 * static_cast<double>(n) : 1.0);
    }
    c.start.push_back(static_cast<std::int64_t>(c.row.size()));
  }
  int times = 0;
  const CANCEL stop{[](void* data) { return ++*static_cast<int*>(data) > 0; }, &times};
  for (const int threads : {1, 2}) {
    times = 0;
    ERROR_HANDLER eh;
    ABSORB_CONTROL control;
    control.threads = threads;
    control.cancel = stop;
    ABSORBED absorbed;
    K4MXXAIL(eh, c, control, factor, absorbed);
    EXPECT_TRUE(absorbed.cancelled);
    EXPECT_EQ(times, 1);
    SMIREV(eh, factor, threads, stop);
    EXPECT_FALSE(factor.holds_inverse);
    EXPECT_EQ(times, 2);
    EXPECT_FALSE(eh.terminate());
  }
}

}  // namespace
}  // namespace tolvan::test
