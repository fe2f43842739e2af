// Pedigree files cut short at each byte and changed at random.
#include "pedigree/damaged_pedigree.h"

#include <random>

#include "base/text.h"
#include "support/checks.h"

namespace tolvan {
namespace {

TEST(DamagedPedigree, WholeFilesAreRead)
{
  const TempFolder folder;
  for (const PEDIGREE_CASE& one : pedigree_cases()) {
    bool good = false;
    EXPECT_EQ(read_pedigree_bytes(one, folder.path("p.csv"), one.whole, &good), "") << one.name;
    EXPECT_TRUE(good) << one.name;
  }
}

TEST(DamagedPedigree, CutAtEveryByte)
{
  const TempFolder folder;
  for (const PEDIGREE_CASE& one : pedigree_cases()) {
    for (std::size_t n = 0; n <= one.whole.size(); ++n)
      ASSERT_EQ(read_pedigree_bytes(one, folder.path("p.csv"), std::string_view(one.whole).substr(0, n)), "") << one.name << " " << n;
  }
}

TEST(DamagedPedigree, ChangedAtRandom)
{
  const TempFolder folder;
  std::mt19937 random(8);
  constexpr char letters[] = ",\t \"'#/\n\r*0\0\xff-!abcx12";
  const std::string_view spice(letters, sizeof letters - 1);
  for (const PEDIGREE_CASE& one : pedigree_cases()) {
    int good = 0;
    for (int round = 0; round < 250; ++round) {
      std::string bytes = one.whole;
      for (auto k = random() % 4 + 1; k > 0; --k) {
        const std::size_t at = random() % bytes.size();
        switch (random() % 4) {
          case 0: bytes[at] = spice[random() % spice.size()]; break;
          case 1: bytes.insert(at, 1, spice[random() % spice.size()]); break;
          case 2: bytes.erase(at, random() % 3 + 1); break;
          default: bytes.insert(at, bytes.substr(random() % bytes.size(), 12)); break;
        }
        if (bytes.empty()) bytes = "a";
      }
      bool sound = false;
      ASSERT_EQ(read_pedigree_bytes(one, folder.path("p.csv"), bytes, &sound), "") << one.name << " round " << round;
      good += sound ? 1 : 0;
    }
    EXPECT_GT(good, 3) << one.name;  // else nothing behind the first complaint was tried
    EXPECT_LT(good, 247) << one.name;
  }
}

}  // namespace
}  // namespace tolvan
