// Files of markers of every kind, whole, cut short at each byte and changed at random.
#include "relmat/damaged_markers.h"

#include "support/checks.h"
#include "support/damage_checks.h"

namespace tolvan {
namespace {

TEST(DamagedMarkers, HoldsOrIsTold)
{
  const TempFolder folder;
  const auto read = [&](const MARKER_CASE& one, std::string_view bytes, bool& good) {
    return read_marker_bytes(one, folder.path("."), bytes, &good);
  };
  expect_cut_files_hold(marker_cases(), read);
  expect_changed_files_hold(marker_cases(), ",\" \n\t/0129.-eNAx*!\r", 600, read);
}

}  // namespace
}  // namespace tolvan
