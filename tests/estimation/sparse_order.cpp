// The ordering: a permutation with the dense equations last, its refusals, and its quality.
#include <gtest/gtest.h>

#include "base/lapack.h"
#include "sparse_matrices.h"

namespace tolvan::test {
namespace {

void expect_order(const PATTERN& pattern, const std::vector<std::int32_t>& order)
{
  ASSERT_EQ(static_cast<std::int64_t>(order.size()), pattern.n);
  std::vector<int> seen(order.size(), 0);
  for (const std::int32_t e : order) ++seen[static_cast<std::size_t>(e)];
  EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), pattern.n);
  for (std::int64_t p = pattern.n - pattern.dense; p < pattern.n; ++p) EXPECT_EQ(order[p], p);
}

// Entries of L, diagonal included, by the plain elimination of sets.
std::int64_t entries_of_l(const PATTERN& pattern, const std::vector<std::int32_t>& order)
{
  std::vector<std::int32_t> position(order.size());
  for (std::size_t p = 0; p < order.size(); ++p) position[order[p]] = static_cast<std::int32_t>(p);
  std::vector<std::set<std::int32_t>> below(order.size());
  for (std::int64_t j = 0; j < pattern.n; ++j) {
    for (std::int64_t p = pattern.start[j]; p < pattern.start[j + 1]; ++p) {
      const auto [low, high] = std::minmax(position[j], position[pattern.row[p]]);
      below[low].insert(high);
    }
    for (std::int64_t i = std::max(j + 1, pattern.n - pattern.dense);
         j >= pattern.n - pattern.dense && i < pattern.n; ++i) {
      below[j].insert(static_cast<std::int32_t>(i));
    }
  }
  std::int64_t entries = 0;
  for (auto& column : below) {
    entries += static_cast<std::int64_t>(column.size()) + 1;
    if (column.empty()) continue;
    const std::int32_t parent = *column.begin();
    below[parent].insert(std::next(column.begin()), column.end());
    column.clear();
  }
  return entries;
}

PATTERN square_grid(std::int64_t side)
{
  PATTERN grid;
  grid.n = side * side;
  grid.start.push_back(0);
  for (std::int64_t i = 0; i < grid.n; ++i) {
    if (i % side != side - 1) grid.row.push_back(static_cast<std::int32_t>(i + 1));
    if (i + side < grid.n) grid.row.push_back(static_cast<std::int32_t>(i + side));
    grid.start.push_back(static_cast<std::int64_t>(grid.row.size()));
  }
  return grid;
}

TEST(SparseOrder, IsAPermutationWithTheDenseEquationsLast)
{
  for (const std::int64_t n : {0, 1, 2, 3, 5, 79, 500, 1500}) {
    for (const std::int64_t dense : {0, 1, 5, 90}) {
      for (const Shape shape : all_shapes) {
        const PATTERN pattern = make_pattern(shape, n, dense, static_cast<unsigned>(n + dense));
        ERROR_HANDLER eh;
        std::vector<std::int32_t> order;
        K4MEORB(eh, pattern, order);
        ASSERT_FALSE(eh.terminate()) << n << ' ' << dense << ' ' << static_cast<int>(shape);
        expect_order(pattern, order);
        FACTOR factor;
        SYMBOLICABS2(eh, pattern, order, factor);
        ASSERT_FALSE(eh.terminate());
        expect_order(pattern, factor.order);
        EXPECT_GE(factor.entries, entries_of_l(pattern, order));

        PATTERN bound = pattern;
        const auto sparse = static_cast<std::int32_t>(std::max<std::int64_t>(n - dense, 0));
        for (std::int32_t i = 0; i < sparse / 3; ++i) bound.bound.emplace_back(sparse - 1 - i, i);
        K4MEORB(eh, bound, order);
        ASSERT_FALSE(eh.terminate()) << n << ' ' << dense << ' ' << static_cast<int>(shape);
        expect_order(bound, order);
      }
    }
  }
}

TEST(SparseOrder, KeepsTheOrderOrRefuses)
{
  const PATTERN pattern = make_pattern(Shape::arrow, 40, 2, 1);
  std::vector<std::int32_t> inner(40), order;
  std::iota(inner.begin(), inner.end(), 0);
  ERROR_HANDLER eh;
  REORDER_MATRIX(eh, pattern, -1, order);
  EXPECT_EQ(order, inner);
  REORDER_MATRIX(eh, pattern, 0, order);
  EXPECT_NE(order, inner);
  const PATTERN two = make_pattern(Shape::arrow, 40, 38, 1);
  REORDER_MATRIX(eh, two, 0, order);
  EXPECT_EQ(order, inner);
  EXPECT_EQ(eh.count(), 0);
  REORDER_MATRIX(eh, pattern, 7, order);
  ASSERT_EQ(eh.count(), 2);
  EXPECT_EQ(*eh.messages()[0].message, "METIS no longer available in K4MITR");
  EXPECT_EQ(*eh.messages()[1].message, "unexpected value for ISORT in K4MITR");
  EXPECT_TRUE(eh.terminate());
}

// Entries of L that amd_l_order of SuiteSparse 5.12 leads to on the same patterns; ours may exceed them by a
// tenth.
TEST(SparseOrder, FillsLittle)
{
  const auto entries = [](const PATTERN& pattern) {
    ERROR_HANDLER eh;
    std::vector<std::int32_t> order;
    K4MEORB(eh, pattern, order);
    return static_cast<double>(entries_of_l(pattern, order));
  };
  EXPECT_LT(entries(square_grid(40)), 1.1 * 20771);
  EXPECT_LT(entries(square_grid(80)), 1.1 * 120766);
  EXPECT_LT(entries(make_pattern(Shape::random, 1500, 0, 1500)), 1.1 * 176699);
  EXPECT_LT(entries(make_pattern(Shape::block, 3000, 0, 3000)), 1.1 * 20583);
  EXPECT_LT(entries(make_pattern(Shape::crossed, 3000, 0, 3000)), 1.1 * 137955);

  PATTERN tree;
  tree.n = 2000;
  std::vector<std::vector<std::int32_t>> children(2000);
  std::mt19937 random(4);
  for (std::int32_t i = 1; i < 2000; ++i) children[random() % static_cast<unsigned>(i)].push_back(i);
  tree.start.push_back(0);
  for (const auto& c : children) {
    tree.row.insert(tree.row.end(), c.begin(), c.end());
    tree.start.push_back(static_cast<std::int64_t>(tree.row.size()));
  }
  EXPECT_EQ(entries(tree), 2000 + 1999);
}

// Points of a grid, each with an equation that binds it to a common one: a pair is eliminated like one equation, so that the factor has
// four entries for each that the grid alone has, and the bound equations meet the common one.
TEST(SparseOrder, EliminatesBoundEquationsWithTheirOwn)
{
  const PATTERN grid = square_grid(30);
  PATTERN pairs;
  pairs.n = 2 * grid.n + 1;
  pairs.start.push_back(0);
  for (std::int32_t i = 0; i < grid.n; ++i) {
    for (std::int64_t p = grid.start[i]; p < grid.start[i + 1]; ++p) pairs.row.push_back(grid.row[p]);
    pairs.row.push_back(static_cast<std::int32_t>(grid.n) + i);
    pairs.start.push_back(static_cast<std::int64_t>(pairs.row.size()));
    pairs.bound.emplace_back(static_cast<std::int32_t>(grid.n) + i, i);
  }
  for (std::int64_t i = 0; i < grid.n; ++i) {
    pairs.row.push_back(static_cast<std::int32_t>(2 * grid.n));
    pairs.start.push_back(static_cast<std::int64_t>(pairs.row.size()));
  }
  pairs.start.push_back(static_cast<std::int64_t>(pairs.row.size()));

  ERROR_HANDLER eh;
  std::vector<std::int32_t> alone, together;
  K4MEORB(eh, grid, alone);
  K4MEORB(eh, pairs, together);
  ASSERT_FALSE(eh.terminate());
  expect_order(pairs, together);
  EXPECT_LE(static_cast<double>(entries_of_l(pairs, together)),
            1.05 * static_cast<double>(4 * entries_of_l(grid, alone) + 2 * grid.n + 1));
}

// The dense block with everything of a wide node is stored as panels: about the triangle, not the square.
TEST(SparseOrder, WideNodesTakeTheRoomOfTheirTriangle)
{
  PATTERN pattern;
  pattern.n = pattern.dense = 3000;
  pattern.start.assign(3001, 0);
  std::vector<std::int32_t> order(3000);
  std::iota(order.begin(), order.end(), 0);
  FACTOR factor;
  ERROR_HANDLER eh;
  SYMBOLICABS2(eh, pattern, order, factor);
  EXPECT_EQ(factor.entries, 3000 * 3001 / 2);
  EXPECT_LT(static_cast<double>(factor.panel_size), 1.06 * static_cast<double>(factor.entries));
}

}  // namespace
}  // namespace tolvan::test
