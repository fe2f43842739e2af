// The index of distinct values: against a sorted map, with every kind of zero and growth.
#include <map>
#include <random>

#include <gtest/gtest.h>

#include "base/value_index.h"

namespace tolvan {
namespace {

TEST(ValueIndex, AgreesWithASortedMap)
{
  std::mt19937 random(7);
  for (const int values : {1, 2, 31, 33, 64, 1000, 20000}) {
    for (const bool pairs : {false, true}) {
      VALUE_INDEX index;
      std::map<std::pair<double, double>, std::int64_t> reference;
      for (int k = 0; k < 3 * values; ++k) {
        const double x = static_cast<double>(random() % static_cast<unsigned>(values)) / 8.0 - 3.0;
        const double y = pairs ? static_cast<double>(random() % 5U) - 2.0 : 0.0;
        index.add(x, y);
        reference[{x, y}] = 0;
      }
      std::int64_t place = 0;
      for (auto& [key, at] : reference) at = ++place;
      index.sort();
      ASSERT_EQ(index.size(), place);
      for (const auto& [key, at] : reference) {
        ASSERT_EQ(index.find(key.first, key.second), at);
        ASSERT_EQ(index.x(at), key.first);
        ASSERT_EQ(index.y(at), key.second);
      }
      EXPECT_EQ(index.find(1e9, 0.0), 0);
      EXPECT_EQ(index.find(-3.0, 77.0), 0);
    }
  }
}

TEST(ValueIndex, ZerosAndOrder)
{
  VALUE_INDEX index;
  EXPECT_EQ(index.find(0.0), 0);
  index.add(4.0);
  index.add(-0.0);
  index.add(0.0);
  EXPECT_EQ(index.size(), 2);
  EXPECT_EQ(index.find(4.0), 1);  // the order of adding
  index.sort();
  EXPECT_EQ(index.find(0.0), 1);
  EXPECT_EQ(index.find(-0.0), 1);
  EXPECT_EQ(index.find(4.0), 2);
  index.clear();
  EXPECT_EQ(index.find(4.0), 0);
  index.sort();
  EXPECT_EQ(index.size(), 0);
}

}  // namespace
}  // namespace tolvan
