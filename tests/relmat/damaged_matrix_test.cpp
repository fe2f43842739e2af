// Files of matrices of every kind, whole, cut short at each byte and changed at random.
#include "relmat/damaged_matrix.h"

#include "support/checks.h"
#include "support/damage_checks.h"

namespace tolvan {
namespace {

constexpr char letters[] = " ,/*!\n\t.-+0123456789eEdDnN\0\x80\xFF";

TEST(DamagedMatrix, HoldsOrIsTold)
{
  const TempFolder folder;
  const auto read = [&](const MATRIX_CASE& one, std::string_view bytes, bool& good) {
    return read_matrix_bytes(one, folder.path(one.name), bytes, &good);
  };
  expect_cut_files_hold(matrix_cases(), read);
  expect_changed_files_hold(matrix_cases(), {letters, sizeof letters - 1}, 500, read);
}

}  // namespace
}  // namespace tolvan
