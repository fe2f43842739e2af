// Numbers of a line as list-directed reading takes them.
#include "relmat/list_directed.h"

#include <gtest/gtest.h>

#include <string>

#include "base/text.h"

namespace tolvan_test {
namespace {

using namespace tolvan;

TEST(ListDirected, NumbersOfALine)
{
  const auto numbers = [](std::string_view line) {
    std::string out;
    ListReader reader(line);
    double x = 0.0;
    for (ListItem item = reader.next(x); item != ListItem::end; item = reader.next(x)) {
      out += item == ListItem::value ? text(x, ";") : item == ListItem::null ? "-;" : "?";
      if (item == ListItem::fault) break;
    }
    return out;
  };
  EXPECT_EQ(numbers(" 1 2.5,-3\t+4e1 "), "1;2.5;-3;40;");
  EXPECT_EQ(numbers("1.5D2 2d-1,1E0"), "150;0.2;1;");
  EXPECT_EQ(numbers("3*1.5 2 / 7"), "1.5;1.5;1.5;2;");
  EXPECT_EQ(numbers("1,,2 , 3"), "1;-;2;3;");
  EXPECT_EQ(numbers("2* 1"), "-;-;1;");
  EXPECT_EQ(numbers("1 x"), "1;?");
  EXPECT_EQ(numbers("1.5.2"), "?");
  EXPECT_EQ(numbers("0*3"), "?");
  EXPECT_EQ(numbers("+-3"), "?");
  EXPECT_EQ(numbers(""), "");
}

}  // namespace
}  // namespace tolvan_test
