// Files of matrices of every kind, cut short at each byte and changed at random.
#include "relmat/damaged_matrix.h"

#include <random>

#include "base/text.h"
#include "support/checks.h"

namespace tolvan {
namespace {

TEST(DamagedMatrix, WholeFilesAreRead)
{
  const TempFolder folder;
  for (const MATRIX_CASE& one : matrix_cases()) {
    bool good = false;
    EXPECT_EQ(read_matrix_bytes(one, folder.path(one.name), one.whole, &good), "") << one.name;
    EXPECT_TRUE(good) << one.name;
  }
}

TEST(DamagedMatrix, CutAtEveryByte)
{
  const TempFolder folder;
  for (const MATRIX_CASE& one : matrix_cases()) {
    for (std::size_t n = 0; n <= one.whole.size(); ++n)
      ASSERT_EQ(read_matrix_bytes(one, folder.path(one.name), std::string_view(one.whole).substr(0, n)), "") << one.name << " " << n;
  }
}

TEST(DamagedMatrix, ChangedAtRandom)
{
  const TempFolder folder;
  std::mt19937 random(20261123);
  constexpr char letters[] = " ,/*!\n\t.-+0123456789eEdDnN\0\x80\xFF";
  const std::string_view spice(letters, sizeof letters - 1);
  for (const MATRIX_CASE& one : matrix_cases()) {
    int good = 0;
    for (int round = 0; round < 400; ++round) {
      std::string bytes = one.whole;
      for (auto k = random() % 4 + 1; k > 0; --k) {
        const std::size_t at = random() % bytes.size();
        switch (random() % 4) {
          case 0: bytes[at] = spice[random() % spice.size()]; break;
          case 1: bytes.insert(at, 1, spice[random() % spice.size()]); break;
          case 2: bytes.erase(at, random() % 3 + 1); break;
          default: bytes[at] = static_cast<char>(random()); break;
        }
        if (bytes.empty()) bytes = "1";
      }
      bool sound = false;
      ASSERT_EQ(read_matrix_bytes(one, folder.path(one.name), bytes, &sound), "") << one.name << " round " << round;
      good += sound ? 1 : 0;
    }
    EXPECT_GT(good, 3) << one.name;  // else nothing behind the first complaint was tried
    EXPECT_LT(good, 397) << one.name;
  }
}

}  // namespace
}  // namespace tolvan
