// Starting values that are made and not looked up, and what terms say of their structure beside values.
#include <algorithm>
#include <cmath>

#include "api/plots_data.h"

namespace tolvan {
namespace {

/// LL' of the first row of a model, whose loadings stand behind its specifics.
std::vector<double> loadings_product(const VARIANCE_MODEL& m)
{
  const STRUCTURE_ROW& row = m.rows.front();
  const std::int64_t levels = row.size - row.order;
  std::vector<double> out;
  for (std::int64_t i = 0; i < levels; ++i) {
    for (std::int64_t j = 0; j <= i; ++j) {
      double sum = 0;
      for (std::int64_t f = 0; f < row.order; ++f) {
        const auto at = [&](std::int64_t level) {
          return m.parameters[static_cast<std::size_t>(row.first + levels + f * levels + level)].value;
        };
        sum += at(i) * at(j);
      }
      out.push_back(sum);
    }
  }
  return out;
}

TEST(ParameterTable, LoadingsOfTwoFactorsAreTurned)
{
  // Six levels and two factors, specifics first: the pattern that keeps factors apart, by positions in the
  // row.
  const double u = std::sqrt(wide(0.04f) * 0.05);
  const double plain[] = {0.0447213591,  0.0447213591,  0.00223606799,  0.00223606799,
                          0.0201246119,  -0.0335410198, -0.0156524759,  -0.0111803399,
                          -0.0201246119, 0.00670820396, -0.00223606799, 0.00670820396};
  EXPECT_NEAR(u, plain[0], 1e-10);
  for (const bool damped : {true, false}) {
    SetupRoad road;
    run(road, request_of(R"~("response":"y","random":"fa(geno,2):id(env)")~",
                         damped ? R"("aipenalty":20)" : R"("aipenalty":0)"));
    ASSERT_FALSE(road.eh.terminate()) << road.eh.EH_PRINT_TEXT();
    const VARIANCE_MODEL& m = road.model();
    ASSERT_EQ(m.count(), 19);
    EXPECT_EQ(m.rows.front().size, 8);
    const std::vector<double> product = loadings_product(m);
    std::size_t c = 0;
    for (std::size_t i = 0; i < 6; ++i) {
      for (std::size_t j = 0; j <= i; ++j)
        EXPECT_NEAR(product[c++], plain[i] * plain[j] + plain[6 + i] * plain[6 + j], 1e-11);
    }
    EXPECT_EQ(constraint_letters[static_cast<std::size_t>(m.parameters[12].constraint)], damped ? 'P' : 'F');
    EXPECT_EQ(m.parameters[12].value == 0.0, !damped);
    EXPECT_EQ(damped, has_message(road.eh,
                                  "the XFA term in fa(geno,2):id(env) appears to have more free parameters "
                                  "(18) than formally expected (17), ignoring any formal user constraints"));
    EXPECT_EQ(damped,
              has_message(road.eh, "set aipenalty to zero to avoid the Levenberg type damping modification"));
    EXPECT_EQ(!damped, has_message(road.eh,
                                   "since an aipenalty of zero has been specified, parameter constraints "
                                   "must be applied to avoid AI singularities"));
  }
}

// The factors of ante() give the default covariance matrix back within the band.
TEST(ParameterTable, AntedependenceStartsAtACovarianceMatrix)
{
  for (const int k : {1, 2, 3}) {
    SetupRoad road;
    run(road, request_of(text(R"~("response":"y","random":"ante(time,)~", k, R"~():id(subject)")~")));
    ASSERT_FALSE(road.eh.terminate()) << road.eh.EH_PRINT_TEXT();
    const auto p = [&](int i, int j) {
      return road.model().parameters[static_cast<std::size_t>(i * (i - 1) / 2 + j - 1)].value;
    };
    // V is built level by level from the regressions x_j = sum of -u_ij x_i + e_j.
    double v[5][5] = {};
    for (int j = 1; j <= 4; ++j) {
      for (int i = 1; i < j; ++i) {
        for (int m = std::max(1, j - k); m < j; ++m) v[j][i] -= p(j, m) * v[std::max(m, i)][std::min(m, i)];
        v[i][j] = v[j][i];
      }
      v[j][j] = 1.0 / p(j, j);
      for (int m = std::max(1, j - k); m < j; ++m) v[j][j] -= p(j, m) * v[j][m];
      for (int i = 1; i <= j; ++i) {
        if (j - i > k) continue;
        EXPECT_NEAR(v[j][i], i == j ? wide(0.05f) : wide(0.01f), 1e-12) << k << ' ' << j << ' ' << i;
      }
    }
  }
}

/// A random term that calls a variance function, with qualifiers beside it.
std::string call(const char* function, const char* factor, const char* more)
{
  return text(R"({"function":{"name":")", function, R"(","arguments":[{"name":")",
              function[0] == 'e' ? "x" : "variable_name", R"(","value":")", factor, R"("}]})", more, "}");
}

TEST(ParameterTable, QualifiersOfTerms)
{
  struct Case {
    const char* why;
    std::string random;
    std::vector<std::int64_t> segments;
    std::vector<double> coordinates;
    const char* message = "";
    bool stops = false;
    const char* residual = "";
  };
  const Case cases[] = {
      {"a series in pieces, where the site changes",
       call("ar1v", "subject", R"(,"subsection":"site")"),
       {3},
       {}},
      {"pieces of the residual",
       "\"geno\"",
       {2, 4},
       {},
       "",
       false,
       R"(,"residual":{"terms":[{"interaction":[{"function":{"name":"ar1","arguments":[{"name":"variable_name","value":"subject"}]}},"time"],"subsection":"env2"}]})"},
      {"no such term",
       call("ar1v", "subject", R"(,"subsection":"nobody")"),
       {},
       {},
       "the term nobody used when subsection for ar1v(subject) doe not exist in the model",
       true},
      {"pieces of a uniform correlation", call("corv", "subject", R"(,"subsection":"site")"), {3}, {}},
      {"no correlation",
       call("diag", "subject", R"(,"subsection":"site")"),
       {},
       {},
       "subsection (site) of diag(subject) without a correlation model",
       true},
      {"coordinates of the levels", call("expv", "row", R"(,"coord":[1,2.5,7])"), {}, {1, 2.5, 7}},
      {"too few coordinates",
       call("expv", "row", R"(,"coord":[1,2])"),
       {},
       {},
       "wrong number of coordinates specified for expv(row)",
       true},
      {"a missing coordinate",
       call("expv", "row", R"(,"coord":[1,2,-1e-37])"),
       {},
       {},
       "something went wrong whilst processing the coord information for expv(row)",
       true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.why);
    SetupRoad road;
    std::string model =
        text(R"("response":"y","fixed":"site+env","random":{"terms":[)", c.random, "]}", c.residual);
    std::vector<double> a = data_columns();
    if (*c.residual != '\0') {  // env: 1 for subjects 1 and 2, 2 for 3 and 4, 3 for 5 and 6
      for (std::size_t r = 0; r < records; ++r) a[r * 12 + 5] = static_cast<double>(r / 8 + 1);
      model.replace(model.find("env2"), 4, "env");
    }
    run(road, request_of(model), a);
    EXPECT_EQ(road.eh.terminate(), c.stops) << road.eh.EH_PRINT_TEXT();
    EXPECT_TRUE(*c.message == '\0' || has_message(road.eh, c.message));
    if (c.stops || road.eh.terminate()) continue;
    const STRUCTURE_ROW& row =
        *c.residual != '\0' ? road.model().residual.front() : road.model().rows.front();
    ASSERT_EQ(row.segments >= 0, !c.segments.empty());
    if (row.segments >= 0) {
      EXPECT_EQ(road.model().segments[static_cast<std::size_t>(row.segments)], c.segments);
    }
    ASSERT_EQ(row.coordinates >= 0, !c.coordinates.empty());
    if (row.coordinates >= 0) {
      EXPECT_EQ(road.model().coordinates[static_cast<std::size_t>(row.coordinates)].x, c.coordinates);
    }
  }
}

}  // namespace
}  // namespace tolvan
