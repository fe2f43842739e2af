// Starting variances against their definition, with every warning.
#include "varstruct/starting_values.h"

#include <cmath>
#include <random>

#include "base/numbers.h"
#include "support/checks.h"

namespace tolvan {
namespace {

/// (SS - sum1 sum2 / m) / m in extended precision.
double by_definition(const std::vector<double>& a, const std::vector<double>& b)
{
  long double products = 0, sum_a = 0, sum_b = 0, m = 0;
  for (std::size_t k = 0; k < a.size(); ++k) {
    if (is_no_value(a[k]) || is_no_value(b[k])) continue;
    products += static_cast<long double>(a[k]) * b[k];
    sum_a += a[k];
    sum_b += b[k];
    m += 1;
  }
  return m > 0 ? static_cast<double>((products - sum_a * sum_b / m) / m) : 0.0;
}

TEST(StartingValues, AreTheSharesOfTheCovariances)
{
  std::mt19937 random(7);
  std::normal_distribution<double> normal(20.0, 3.0);
  std::vector<std::vector<double>> traits(3, std::vector<double>(60));
  for (auto& trait : traits) {
    for (double& y : trait) y = normal(random);
  }
  for (std::size_t k = 0; k < 60; k += 7) traits[k % 3][k] = no_value;

  struct Fractions {
    double a, b, used_a, used_b;
  };
  const double nine = wide(0.9f);
  for (const Fractions& f : {Fractions{0.0, 0.0, nine, nine * nine}, Fractions{1.2, 0.05, nine, nine * nine},
                             Fractions{0.6, 0.7, 0.6, nine * 0.6}, Fractions{0.5, 0.1, 0.5, 0.1},
                             Fractions{1.0, 1.0, 1.0, 1.0}, Fractions{0.499, 0.3, nine, 0.3}}) {
    ERROR_HANDLER eh;
    std::vector<double> starting;
    STARTE(eh, f.a, f.b, traits, {"p", "q", "r"}, starting);
    EXPECT_TRUE(clean(eh));
    ASSERT_EQ(starting.size(), 7u);
    EXPECT_EQ(starting.back(), -0.000919191);
    std::size_t at = 0;
    for (std::size_t i = 0; i < 3; ++i) {
      for (std::size_t j = 0; j <= i; ++j, ++at) {
        EXPECT_TRUE(
            near(starting[at], by_definition(traits[i], traits[j]) * (i == j ? f.used_a : f.used_b), 1e-12));
      }
    }
  }
}

TEST(StartingValues, KeepTheirDigitsAtALargeMean)
{
  ERROR_HANDLER eh;
  std::vector<double> starting;
  STARTE(eh, 1.0, 0.0, {{1e9 + 1, 1e9 + 2, no_value, 1e9 + 3, 1e9 + 6}}, {"y"}, starting);
  EXPECT_TRUE(clean(eh));
  EXPECT_EQ(starting.front(), 3.5);
}

TEST(StartingValues, WarnOfWhatMayFail)
{
  std::vector<double> many(300, no_value);
  many[3] = 1.0;
  many[200] = 4.0;
  std::vector<double> plain(300), nearly(300);
  for (std::size_t k = 0; k < 300; ++k) nearly[k] = (plain[k] = std::sin(static_cast<double>(k))) + 0.1;
  struct Case {
    std::vector<std::vector<double>> traits;
    const char* message;
    bool stops;
  };
  const Case cases[] = {
      {{std::vector<double>(5, no_value)}, "all data is missing for trait first", true},
      {{many}, "for trait first only 2 records have data", false},
      {{{3.0, 3.0, 3.0}}, "variance of first is     0.00000    , the analysis is likely to fail", false},
      {{plain, nearly}, "variance of first adjusted for other traits is  ", false},
  };
  for (const Case& c : cases) {
    ERROR_HANDLER eh;
    std::vector<double> starting;
    STARTE(eh, 0.0, 0.0, c.traits, {"first", "second"}, starting);
    EXPECT_TRUE(has_message(eh, c.message));
    EXPECT_EQ(eh.terminate(), c.stops);
    EXPECT_EQ(eh.EH_STATUS(), c.stops ? 4 : -3);
    EXPECT_TRUE(eh.stack().entries.empty());
  }
  ERROR_HANDLER eh;
  std::vector<double> starting;
  STARTE(eh, 0.0, 0.0, {{3.0, 3.0, 3.0}}, {"flat"}, starting);
  EXPECT_EQ(starting.front(), 1e-5);
}

}  // namespace
}  // namespace tolvan
