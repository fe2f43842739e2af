// The places of the levels of a distance model, from the records.
#include "varstruct/coordinates.h"

#include <gtest/gtest.h>

#include <cmath>

#include "base/numbers.h"
#include "support/checks.h"

namespace tolvan {
namespace {

using Values = std::vector<double>;

TEST(Coordinates, PlacesAreSortedCountedAndNumbered)
{
  const double nan = std::nan("");
  struct {
    const char* name;
    Values x, y;
    std::int64_t levels;
    Values at_x, at_y;
    std::vector<std::int64_t> level;
    const char* error;
  } const table[] = {
      {"every record a level", {3, 1, 3}, {}, 3, {3, 1, 3}, {}, {0, 1, 2}, nullptr},
      {"on a line", {3, 1, 2, 1, 2, 3}, {}, 3, {1, 2, 3}, {}, {2, 0, 1, 0, 1, 2}, nullptr},
      {"in the plane",
       {1, 0, 0, 1, 0, 0},
       {5, 7, 6, 5, 6, 7},
       3,
       {0, 0, 1},
       {6, 7, 5},
       {2, 1, 0, 2, 0, 1},
       nullptr},
      {"too few",
       {3, 1, 1, 3},
       {},
       3,
       {},
       {},
       {},
       "2 unique points but expected to find 3 in the 4 records assigned to this section"},
      {"too many",
       {3, 1, 2, 4},
       {},
       2,
       {},
       {},
       {},
       "4 unique points but expected to find 2 in the 4 records assigned to this section"},
      {"unevenly repeated",
       {3, 1, 1, 1},
       {},
       2,
       {},
       {},
       {},
       "4 records assigned to this section, expected to find 2 repeats of 2 coordinates"},
      {"lost", {3, nan, 1, 1}, {}, 2, {}, {}, {}, "issue sorting X values for Spatial structure"},
      {"missing", {3, 1}, {no_value, 1}, 2, {}, {}, {}, "issue sorting X,Y values for Spatial structure"},
      {"no records",
       {},
       {},
       2,
       {},
       {},
       {},
       "0 unique points but expected to find 2 in the 0 records assigned to this section"},
  };
  for (const auto& t : table) {
    SCOPED_TRACE(t.name);
    ERROR_HANDLER eh;
    PLACES places;
    AIDPOW(eh, t.x, t.y, t.levels, places);
    EXPECT_TRUE(eh.stack().entries.empty());
    EXPECT_EQ(eh.EH_LAST_MESSAGE(), t.error == nullptr ? "" : t.error);
    if (t.error != nullptr) continue;
    EXPECT_EQ(places.at.x, t.at_x);
    EXPECT_EQ(places.at.y, t.at_y);
    EXPECT_EQ(places.level, t.level);
  }
}

}  // namespace
}  // namespace tolvan
