// Files of every kind, whole, cut short at each byte and changed at random.
#include "data/damaged_file.h"

#include "support/checks.h"
#include "support/damage_checks.h"

namespace tolvan {
namespace {

constexpr char letters[] =
    ",;\"#&!\n\r\t \0\x80\xFF"
    "0e.-+NA*/:$";

TEST(DamagedFile, HoldsOrIsTold)
{
  const TempFolder folder;
  const auto read = [&](const READ_CASE& one, std::string_view bytes, bool& good) {
    std::int64_t records = 0;
    const std::string wrong = read_bytes(one, folder.path(one.name), bytes, &records);
    good = records >= 0;
    return wrong;
  };
  expect_cut_files_hold(read_cases(), read);
  expect_changed_files_hold(read_cases(), {letters, sizeof letters - 1}, 1500, read);
  for (const READ_CASE& one : read_cases()) {
    std::int64_t records = 0;
    EXPECT_EQ(read_bytes(one, folder.path(one.name), one.whole, &records), "") << one.name;
    EXPECT_EQ(records, one.records) << one.name;
  }
}

}  // namespace
}  // namespace tolvan
