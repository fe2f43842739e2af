// Joining, the Fortran edits (the expected fields are those of a Fortran 2003 compiler), ASCII helpers.
#include "base/text.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace tolvan {
namespace {

TEST(Text, JoinsItsParts)
{
  const std::string s = "s";
  EXPECT_EQ(
      text("a", s, std::string_view("v"), 'c', -1, std::size_t{2}, std::int64_t{1} << 40, 0.1, 3.0, 1e20),
      "asvc-1210995116277760.131e+20");
  EXPECT_EQ(text(std::nan(""), -std::numeric_limits<double>::infinity()), "NaN-Infinity");
  EXPECT_EQ(text(), "");
}

TEST(Text, FortranEdits)
{
  constexpr double inf = std::numeric_limits<double>::infinity();
  struct Case {
    double x;
    const char* format;
    const char* field;
  };
  const Case cases[] = {
      {3.14159, "F8.3", "   3.142"},
      {9.9996, "F8.3", "  10.000"},
      {0.5, "F4.0", "  0."},
      {1.5, "F4.0", "  2."},
      {-0.001, "F6.2", " -0.00"},
      {0.25, "F4.3", ".250"},
      {-0.25, "F4.2", "-.25"},
      {0.5, "F0.2", ".50"},
      {12.5, "F0.2", "12.50"},
      {0.0, "F0.0", "0."},
      {0.0, "F2.1", ".0"},
      {0.0, "F1.0", "*"},
      {12345.678, "F8.3", "********"},
      {1e20, "f25.1", "  100000000000000000000.0"},
      {0.0, "E12.4", "  0.0000E+00"},
      {-1234.5, "E12.4", " -0.1234E+04"},
      {9.99996, "e12.4", "  0.1000E+02"},
      {1e-100, "E12.4", "  0.1000E-99"},
      {1e-101, "E12.4", "  0.1000-100"},
      {1e100, "E12.4", "  0.1000+101"},
      {0.5, "E9.3", "0.500E+00"},
      {-0.5, "E9.3", "-.500E+00"},
      {-0.5, "E8.3", "********"},
      {1234.5, "D14.6", "  0.123450D+04"},
      {1234.5, "ES12.4", "  1.2345E+03"},
      {0.0, "ES10.2", "  0.00E+00"},
      {0.0, "G13.6", "  0.00000    "},
      {1.0, "G13.6", "  1.00000    "},
      {-123456.7, "G13.6", " -123457.    "},
      {999999.4, "G13.6", "  999999.    "},
      {999999.6, "G13.6", " 0.100000E+07"},
      {0.1, "G13.6", " 0.100000    "},
      {0.09999999, "G13.6", " 0.100000    "},
      {0.0999, "G13.6", " 0.999000E-01"},
      {-0.5, "G13.6", "-0.500000    "},
      {9.99996, "G12.4", "   10.00    "},
      {123.456, "G8.6", "****    "},
      {1e-300, "G15.8", " 0.10000000-299"},
      {NAN, "G13.6", "          NaN"},
      {NAN, "F2.0", "**"},
      {inf, "F12.3", "    Infinity"},
      {inf, "E7.1", "    Inf"},
      {-inf, "G8.2", "    -Inf"},
      {-inf, "F3.0", "***"},
      {2.5, "I4", "   3"},
      {-7.0, "I1", "*"},
      {0.1, "nonsense", "0.1"},
  };
  for (const Case& each : cases)
    EXPECT_EQ(edit(each.x, each.format), each.field) << each.x << " " << each.format;
  EXPECT_EQ(edit(std::int64_t{-12}, "I9"), "      -12");
  EXPECT_EQ(edit(std::int64_t{12}, "i0"), "12");
  EXPECT_EQ(edit(std::int64_t{1234}, "I3"), "***");
  EXPECT_EQ(edit(std::int64_t{12}, "G13.6"), "           12");
  EXPECT_EQ(edit(std::int64_t{12}, "F6.1"), "  12.0");
  EXPECT_EQ(edit_i(std::numeric_limits<std::int64_t>::min(), 20), "-9223372036854775808");
  EXPECT_EQ(edit_width("G13.6"), 13);
  EXPECT_EQ(edit_width("ES12.4"), 12);
  EXPECT_EQ(edit_width("A"), 0);
}

TEST(Text, AsciiHelpers)
{
  EXPECT_EQ(upper("aZ\xC3\xA9"), "AZ\xC3\xA9");
  EXPECT_EQ(lower("Az"), "az");
  EXPECT_EQ(trim(" \t a b \r\n"), "a b");
  EXPECT_EQ(rtrim(" a "), " a");
  EXPECT_EQ(trim("  "), "");
  EXPECT_TRUE(equal_nocase("Mu", "mU"));
  EXPECT_FALSE(equal_nocase("mu", "mu "));
  EXPECT_TRUE(starts_with_nocase("TABLE_X", "table_"));
  EXPECT_FALSE(starts_with_nocase("tab", "table"));
  EXPECT_EQ(split("a::b:", ':'), (std::vector<std::string>{"a", "", "b", ""}));
  EXPECT_EQ(split("", ':'), (std::vector<std::string>{""}));
  EXPECT_EQ(join({"a", "", "b"}, ", "), "a, , b");
}

TEST(Text, NumbersAreReadWholeOrNotAtAll)
{
  std::int64_t i = 5;
  for (const char* bad : {"", "+", "-", "+-1", "1.0", "1 ", " 1", "0x1", "9223372036854775808"}) {
    EXPECT_FALSE(read_integer(bad, i)) << bad;
  }
  EXPECT_EQ(i, 5);
  EXPECT_TRUE(read_integer("+12", i));
  EXPECT_EQ(i, 12);
  double x = 0.0;
  EXPECT_TRUE(read_real("-1.5e3", x));
  EXPECT_EQ(x, -1500.0);
  EXPECT_TRUE(read_real(".5", x));
  EXPECT_FALSE(read_real("1e", x));
  EXPECT_FALSE(read_real("", x));
}

}  // namespace
}  // namespace tolvan
