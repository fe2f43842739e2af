// Pedigree files whole, cut short at each byte and changed at random.
#include "pedigree/damaged_pedigree.h"

#include "support/checks.h"
#include "support/damage_checks.h"

namespace tolvan {
namespace {

constexpr char letters[] = ",\t \"'#/\n\r*0\0\xff-!abcx12";

TEST(DamagedPedigree, HoldsOrIsTold)
{
  const TempFolder folder;
  const auto read = [&](const PEDIGREE_CASE& one, std::string_view bytes, bool& good) {
    return read_pedigree_bytes(one, folder.path("p.csv"), bytes, &good);
  };
  expect_cut_files_hold(pedigree_cases(), read);
  expect_changed_files_hold(pedigree_cases(), {letters, sizeof letters - 1}, 300, read);
}

}  // namespace
}  // namespace tolvan
