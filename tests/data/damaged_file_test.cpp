// Files of every kind, cut short at each byte and changed at random.
#include "data/damaged_file.h"

#include <random>

#include "base/text.h"
#include "support/checks.h"

namespace tolvan {
namespace {

std::string file_for(const TempFolder& folder, const READ_CASE& one)
{
  return folder.file(one.name, one.whole);
}

TEST(DamagedFile, WholeFilesAreRead)
{
  const TempFolder folder;
  for (const READ_CASE& one : read_cases()) {
    std::int64_t records = 0;
    EXPECT_EQ(read_bytes(one, file_for(folder, one), one.whole, &records), "") << one.name;
    EXPECT_EQ(records, one.records) << one.name;
  }
}

TEST(DamagedFile, CutAtEveryByte)
{
  const TempFolder folder;
  for (const READ_CASE& one : read_cases()) {
    const std::string path = file_for(folder, one);
    for (std::size_t n = 0; n <= one.whole.size(); ++n)
      ASSERT_EQ(read_bytes(one, path, std::string_view(one.whole).substr(0, n)), "") << one.name << " " << n;
  }
}

/// One change: a byte of meaning, any byte, a few bytes out, a byte in, a piece doubled.
void damage(std::mt19937& random, std::string& bytes)
{
  constexpr std::string_view spice =
      ",;\"#&!\n\r\t \0\x80\xFF"
      "0e.-+NA*/:$";
  if (bytes.empty()) bytes = "x";
  const std::size_t at = random() % bytes.size();
  switch (random() % 5) {
    case 0:
      bytes[at] = spice[random() % spice.size()];
      break;
    case 1:
      bytes.erase(at, random() % 4 + 1);
      break;
    case 2:
      bytes.insert(at, 1, spice[random() % spice.size()]);
      break;
    case 3:
      bytes.insert(random() % bytes.size(), bytes.substr(at, random() % 30));
      break;
    default:
      bytes[at] = static_cast<char>(random() % 256);
      break;
  }
}

TEST(DamagedFile, ChangedAtRandom)
{
  const TempFolder folder;
  std::mt19937 random(20240611);
  for (const READ_CASE& one : read_cases()) {
    const std::string path = file_for(folder, one);
    int good = 0;
    for (int round = 0; round < 1500; ++round) {
      std::string bytes = one.whole;
      for (int k = static_cast<int>(random() % 6); k >= 0; --k) damage(random, bytes);
      std::int64_t records = 0;
      ASSERT_EQ(read_bytes(one, path, bytes, &records), "") << one.name << " round " << round;
      good += records >= 0 ? 1 : 0;
    }
    EXPECT_GT(good, 10) << one.name;  // else nothing behind the first complaint was tried
    EXPECT_LT(good, 1490) << one.name;
  }
}

}  // namespace
}  // namespace tolvan
