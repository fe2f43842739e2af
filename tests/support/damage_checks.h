// What is asked of every reader of files: each of its cases is read whole, cut short at each byte, and changed at
// random.  A case has a name and the bytes of a whole file.
#pragma once

#include <gtest/gtest.h>

#include <span>
#include <string>
#include <string_view>

#include "support/damage.h"

namespace tolvan {

/// Whole files are read, and each of their beginnings is read or told.
///   read   (case, bytes, whether they were read): what does not hold, empty where all does
template <class Case, class Read>
void expect_cut_files_hold(std::span<const Case> cases, Read&& read)
{
  for (const Case& one : cases) {
    bool good = false;
    EXPECT_EQ(read(one, one.whole, good), "") << one.name;
    EXPECT_TRUE(good) << one.name;
    for (std::size_t n = 0; n < one.whole.size(); ++n)
      ASSERT_EQ(read(one, std::string_view(one.whole).substr(0, n), good), "") << one.name << " " << n;
  }
}

/// Files changed at random are read or told, some of each: else nothing behind the first complaint was tried.
template <class Case, class Read>
void expect_changed_files_hold(std::span<const Case> cases, std::string_view letters, int rounds, Read&& read)
{
  std::mt19937 random(20261123);
  const int few = rounds / 150;
  for (const Case& one : cases) {
    int read_well = 0;
    for (int round = 0; round < rounds; ++round) {
      const std::string bytes = changed_at_random(one.whole, letters, random);
      bool good = false;
      ASSERT_EQ(read(one, bytes, good), "") << one.name << " round " << round << "\n" << bytes;
      read_well += good ? 1 : 0;
    }
    EXPECT_GT(read_well, few) << one.name;
    EXPECT_LT(read_well, rounds - few) << one.name;
  }
}

}  // namespace tolvan
