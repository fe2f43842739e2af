// The design of every model function through requests: against formulas written out by record, with names of levels,
// missing values and complaints.
#include <cmath>
#include <functional>
#include <random>

#include "base/text.h"
#include "data/data_road.h"
#include "data/polynomial_basis.h"
#include "data/spline_basis.h"

namespace tolvan {
namespace {

using Row = std::vector<double>;

/// f: 3 levels; g: 2; h, k: labelled, h by numbers; x, z: variates; v1, v2: group v; w1, w2: factors of 3 levels, group w.
constexpr std::string_view variables = R"([
  {"name":"f","field_type":"vt_integer_factor_1_to_n","number_of_levels":3},
  {"name":"g","field_type":"vt_integer_factor_1_to_n","number_of_levels":2},
  {"name":"h","field_type":"vt_string_factor","factor_labels":["30","10","20"]},
  {"name":"k","field_type":"vt_string_factor","factor_labels":["red","green","blue"]},
  {"name":"x"},{"name":"z"},{"name":"v1","group":"v"},{"name":"v2","group":"v"},
  {"name":"w1","field_type":"vt_integer_factor_1_to_n","number_of_levels":3,"group":"w"},
  {"name":"w2","field_type":"vt_integer_factor_1_to_n","number_of_levels":3,"group":"w"},{"name":"y"}])";
enum { f, g, h, k, x, z, v1, v2, w1, w2, y, width };
constexpr double h_labels[] = {30, 10, 20};

std::vector<Row> simulated(std::size_t records, unsigned seed)
{
  std::mt19937 random(seed);
  const auto level = [&](unsigned n) { return static_cast<double>(random() % n + 1U); };
  std::vector<Row> data;
  for (std::size_t r = 0; r < records; ++r) {
    data.push_back({level(3), level(2), level(3), level(3), level(7) / 2.0 - 1.0, level(4) - 2.0, level(9) - 5.0, level(9), level(3),
                    level(3), level(100)});
  }
  return data;
}

bool form(DataRoad& road, const std::vector<Row>& data, std::string_view model, std::string_view more = "")
{
  std::vector<double> values;
  for (const Row& row : data) values.insert(values.end(), row.begin(), row.end());
  const auto records = static_cast<std::int64_t>(data.size());
  road.matrix("d", records, width, values);
  return road.form(text(R"({"dataset":{"name":"d","storage_order":"so_row_major","number_of_observations":)", records,
                        R"(,"variables":)", variables, R"(},"model":{"response":"y",)", model, "}", more, "}"));
}

/// The design of a record over the equations from `first` on, dense.
Row dense_row(const DataRoad& road, std::int64_t record, std::int64_t first = 1)
{
  Row dense(static_cast<std::size_t>(road.terms.equations - first), 0.0);
  const auto equations = road.design.equations(record);
  for (std::size_t e = 0; e < equations.size(); ++e) {
    if (e > 0) {
      EXPECT_LT(equations[e - 1], equations[e]);
    }
    EXPECT_NE(road.design.values(record)[e], 0.0);
    if (equations[e] >= first) dense[static_cast<std::size_t>(equations[e] - first)] = road.design.values(record)[e];
  }
  return dense;
}

/// The direct product of two rows, the first the slow one.
Row operator*(const Row& a, const Row& b)
{
  Row out;
  for (const double p : a)
    for (const double q : b) out.push_back(p * q);
  return out;
}

Row unit(std::size_t n, double level)
{
  Row out(n, 0.0);
  if (!is_no_value(level)) out[static_cast<std::size_t>(level) - 1] = 1.0;
  return out;
}

/// The place of a value among the distinct ones of all records.
Row place(const std::vector<Row>& data, const Row& record, const std::function<Row(const Row&)>& key)
{
  std::vector<Row> keys;
  for (const Row& r : data) keys.push_back(key(r));
  std::sort(keys.begin(), keys.end());
  keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
  const auto at = std::lower_bound(keys.begin(), keys.end(), key(record)) - keys.begin();
  return unit(keys.size(), static_cast<double>(at) + 1.0);
}

std::vector<double> distinct(const std::vector<Row>& data, const std::function<double(const Row&)>& key)
{
  std::vector<double> values;
  for (const Row& r : data) values.push_back(key(r));
  std::sort(values.begin(), values.end());
  values.erase(std::unique(values.begin(), values.end()), values.end());
  return values;
}

double x_of(const Row& r)
{
  return r[x];
}

Row spline_row(const std::vector<double>& knots, double value)
{
  DESIGN_BASIS basis;
  basis.points = knots;
  spline_basis(basis);
  Row out(knots.size() - 2);
  AIXSPL(basis, value, out);
  return out;
}

Row pol_row(const std::vector<double>& points, std::size_t degree, double value)
{
  DESIGN_BASIS basis;
  scale_to_unit_range(points.front(), points.back(), basis);
  orthogonal_recursion(points, static_cast<std::int64_t>(degree), basis);
  Row out(degree + 1);
  orthogonal_polynomials(basis, value, out);
  return out;
}

TEST(DesignFunctions, AgainstTheirFormulas)
{
  const std::vector<Row> data = simulated(60, 5);
  const auto counts = [&](const std::function<bool(const Row&)>& counted) {
    return static_cast<std::size_t>(std::count_if(data.begin(), data.end(), counted));
  };
  const auto number = [&](const Row& r, const std::function<bool(const Row&)>& counted) {  // of a record among those counted
    if (!counted(r)) return no_value;
    std::int64_t n = 0;
    for (const Row* p = data.data(); p <= &r; ++p) n += counted(*p) ? 1 : 0;
    return static_cast<double>(n);
  };
  const auto contrast = [](std::size_t n, double level) {
    if (level == static_cast<double>(n)) return Row(n - 1, -1.0);
    return unit(n - 1, level);
  };
  const auto legendre = [](double value) {  // on -0.5 to 2.5
    const double u = (value - 1.0) / 1.5;
    return Row{std::sqrt(0.5), std::sqrt(1.5) * u, std::sqrt(2.5) * (3 * u * u - 1) / 2};
  };
  const auto tail = [](Row row) { return Row(row.begin() + 1, row.end()); };
  const std::vector<double> xs = distinct(data, x_of);
  ASSERT_EQ(xs.front(), -0.5);
  ASSERT_EQ(xs.back(), 2.5);
  const auto f_is_2 = [](const Row& r) { return r[f] == 2; };
  const auto z_is_not_0 = [](const Row& r) { return r[z] != 0; };

  struct Case {
    const char* terms;
    std::function<Row(const Row&)> design;
  };
  const Case cases[] = {
      {"lin(f)", [](const Row& r) { return Row{r[f]}; }},
      {"lin(x)", [](const Row& r) { return Row{r[x]}; }},
      {"lin(h)", [](const Row& r) { return Row{h_labels[static_cast<int>(r[h]) - 1]}; }},
      {"lin(k)", [](const Row& r) { return Row{r[k]}; }},
      {"con(f)", [&](const Row& r) { return contrast(3, r[f]); }},
      {"con(f):con(g)", [&](const Row& r) { return contrast(3, r[f]) * contrast(2, r[g]); }},
      {"g:con(f):x", [&](const Row& r) { return unit(2, r[g]) * contrast(3, r[f]) * Row{r[x]}; }},
      {"pow(x,2)", [](const Row& r) { return Row{r[x] * r[x]}; }},
      {"pow(x,-1.5,4)", [](const Row& r) { return Row{std::pow(r[x] + 4, -1.5)}; }},
      {"pow(h,0.5)", [](const Row& r) { return Row{std::sqrt(h_labels[static_cast<int>(r[h]) - 1])}; }},
      {"fac(x)", [&](const Row& r) { return place(data, r, [](const Row& q) { return Row{q[x]}; }); }},
      {"fac(x,z)", [&](const Row& r) { return place(data, r, [](const Row& q) { return Row{q[x], q[z]}; }); }},
      {"fac(f,g)", [&](const Row& r) { return place(data, r, [](const Row& q) { return Row{q[f], q[g]}; }); }},
      {"dev(h)", [&](const Row& r) { return place(data, r, [](const Row& q) { return Row{h_labels[static_cast<int>(q[h]) - 1]}; }); }},
      {"fac(pow(z,2))", [&](const Row& r) { return place(data, r, [](const Row& q) { return Row{q[z] * q[z]}; }); }},
      {"con(fac(z))", [&](const Row& r) { return contrast(4, r[z] + 2); }},
      {"at(f,2)", [](const Row& r) { return Row{r[f] == 2 ? 1.0 : 0.0}; }},
      {"at(k,\"blue\"):x", [](const Row& r) { return Row{r[k] == 3 ? r[x] : 0.0}; }},
      {"at(f,[1,3]):g", [](const Row& r) { return Row{r[f] == 1 ? 1.0 : 0.0, r[f] == 3 ? 1.0 : 0.0} * unit(2, r[g]); }},
      {"at(f):lin(h)", [](const Row& r) { return unit(3, r[f]) * Row{h_labels[static_cast<int>(r[h]) - 1]}; }},
      {"uni(f,2)", [&](const Row& r) { return unit(counts(f_is_2), number(r, f_is_2)); }},
      {"uni(z)", [&](const Row& r) { return unit(counts(z_is_not_0), number(r, z_is_not_0)); }},
      {"uni(f,2,50):g", [&](const Row& r) { return unit(50, number(r, f_is_2)) * unit(2, r[g]); }},
      {"zero(3)+x", [](const Row& r) { return Row{0, 0, 0, r[x]}; }},
      {"w1+and(w2)", [](const Row& r) { Row out = unit(3, r[w1]); out[static_cast<std::size_t>(r[w2]) - 1] += 1; return out; }},
      {"w1:x+and(w2,-0.5):x+g", [](const Row& r) {
         Row out = unit(3, r[w1]) * Row{r[x]};
         out[static_cast<std::size_t>(r[w2]) - 1] -= 0.5 * r[x];
         const Row last = unit(2, r[g]);
         out.insert(out.end(), last.begin(), last.end());
         return out;
       }},
      {"pol(x,1)+and(pol(z,1),2)", [&](const Row& r) {
         Row out = pol_row(xs, 1, r[x]);
         const Row added = pol_row(distinct(data, [](const Row& q) { return q[z]; }), 1, r[z]);
         for (std::size_t j = 0; j < 2; ++j) out[j] += 2 * added[j];
         return out;
       }},
      {"vect(v)", [](const Row& r) { return Row{r[v1], r[v2]}; }},
      {"grp(v)", [](const Row& r) { return Row{r[v1], r[v2]}; }},
      {"grp(w)", [](const Row& r) { Row out = unit(3, r[w1]); out[static_cast<std::size_t>(r[w2]) - 1] += 1; return out; }},
      {"str(f+f:x,us(2):id(f))", [](const Row& r) {
         Row out = unit(3, r[f]);
         const Row slopes = unit(3, r[f]) * Row{r[x]};
         out.insert(out.end(), slopes.begin(), slopes.end());
         return out;
       }},
      {"str(w1+and(w2)+zero(3),diag(2):id(3))", [](const Row& r) {
         Row out = unit(3, r[w1]);
         out[static_cast<std::size_t>(r[w2]) - 1] += 1;
         out.resize(6, 0.0);
         return out;
       }},
      {"units:x", [&](const Row& r) { return unit(data.size(), static_cast<double>(&r - data.data()) + 1.0) * Row{r[x]}; }},
      {"f:v", [](const Row& r) { return unit(3, r[f]) * Row{r[v1], r[v2]}; }},
      {"w", [](const Row& r) { Row out = unit(3, r[w1]); out[static_cast<std::size_t>(r[w2]) - 1] += 1; return out; }},
      {"w:g", [](const Row& r) { Row out = unit(3, r[w1]); out[static_cast<std::size_t>(r[w2]) - 1] += 1; return out * unit(2, r[g]); }},
      {"pol(x,3)", [&](const Row& r) { return pol_row(xs, 3, r[x]); }},
      {"pol(x,-2):f", [&](const Row& r) { return tail(pol_row(xs, 2, r[x])) * unit(3, r[f]); }},
      {"pol(x,0)", [&](const Row&) { return Row{1.0 / std::sqrt(static_cast<double>(xs.size()))}; }},
      {"pol(h)", [&](const Row& r) { return pol_row({10, 20, 30}, 1, h_labels[static_cast<int>(r[h]) - 1]); }},
      {"leg(x,2)", [&](const Row& r) { return legendre(r[x]); }},
      {"f:leg(x,-2)", [&](const Row& r) { return unit(3, r[f]) * tail(legendre(r[x])); }},
      {"spl(x)", [&](const Row& r) { return spline_row(xs, r[x]); }},
      {"spl(x,7)", [&](const Row& r) { return spline_row(xs, r[x]); }},
      {"spl(x,5)", [&](const Row& r) { return spline_row(equally_spaced(-0.5, 2.5, 5), r[x]); }},
      {"spl(z)", [&](const Row& r) { return spline_row({-1, 0, 5}, r[z]); }},
      {"f:spl(x,4)", [&](const Row& r) { return unit(3, r[f]) * spline_row(equally_spaced(-0.5, 2.5, 4), r[x]); }},
      {"slope:g", [](const Row& r) { return Row{std::vector<double>{-3, 1, 2}[static_cast<std::size_t>(r[f]) - 1]} * unit(2, r[g]); }},
      {"lin(units)", [&](const Row& r) { return Row{static_cast<double>(&r - data.data()) + 1.0}; }},
  };
  const std::string more = R"(,"spline":[{"variable":"z","points":[5,0,-1]}],"contrast":{"name":"slope","variable":"f","values":[-3,1,2]})";
  for (const Case& c : cases) {
    DataRoad road;
    std::string escaped;
    for (const char* p = c.terms; *p != '\0'; ++p) escaped += *p == '"' ? std::string("\\\"") : std::string(1, *p);
    const char* part = escaped.starts_with("str(") ? "random" : "sparse";
    ASSERT_TRUE(form(road, data, text(R"("fixed":"mu",")", part, R"(":")", escaped, "\""), more))
        << c.terms << '\n' << messages_text(road.eh);
    ASSERT_EQ(road.design.rows(), std::ssize(data)) << c.terms;
    for (std::size_t r = 0; r < data.size(); ++r) {
      const Row expected = c.design(data[r]);
      const Row found = dense_row(road, static_cast<std::int64_t>(r));
      ASSERT_EQ(found.size(), expected.size()) << c.terms;
      for (std::size_t j = 0; j < expected.size(); ++j) ASSERT_NEAR(found[j], expected[j], 1e-12) << c.terms << " record " << r + 1;
    }
  }
}

TEST(DesignFunctions, KnotsFromTheOption)
{
  const std::vector<Row> data = simulated(40, 9);
  const std::vector<double> xs = distinct(data, x_of);
  struct Case {
    const char* more;
    std::vector<double> knots;
  };
  const Case cases[] = {
      {R"(,"options":{"knots":4})", equally_spaced(xs.front(), xs.back(), 4)},
      {R"(,"options":{"knot_points":[0,1,3,1]})", {0, 1, 3}},
      {R"(,"options":{"knot_points":[{"variable":"z","points":[1,2,3]},{"variable":"x","points":[0,1,2,3]}]})", {0, 1, 2, 3}},
      {R"(,"options":{"knot_points":{"variable":"z","points":[1,2,3]}})", xs},
  };
  for (const Case& c : cases) {
    DataRoad road;
    ASSERT_TRUE(form(road, data, R"j("fixed":"mu","random":"spl(x)")j", c.more)) << c.more << messages_text(road.eh);
    for (std::size_t r = 0; r < data.size(); ++r) {
      const Row expected = spline_row(c.knots, data[r][x]), found = dense_row(road, static_cast<std::int64_t>(r));
      ASSERT_EQ(found.size(), expected.size()) << c.more;
      for (std::size_t j = 0; j < expected.size(); ++j) ASSERT_NEAR(found[j], expected[j], 1e-12) << c.more;
    }
  }
}

TEST(DesignFunctions, NamesOfLevels)
{
  const std::vector<Row> data{{1, 1, 2, 1, 0.5, 1, 1, 2, 1, 2, 1}, {2, 2, 1, 3, 1.5, 1, 1, 2, 1, 2, 2}, {3, 1, 3, 2, 2.5, 2, 1, 2, 3, 2, 3},
                              {3, 2, 3, 2, 4, 2, 1, 2, 3, 2, 5}};
  struct Case {
    const char* term;
    const char* names;
  };
  const Case cases[] = {
      {"fac(x)", "0.5 1.5 2.5 4"},
      {"fac(x,z)", "0.5,1 1.5,1 2.5,2 4,2"},
      {"fac(k)", "red green blue"},
      {"dev(h)", "10 20 30"},
      {"con(k)", "red green"},
      {"pol(x,2)", "order0 order1 order2"},
      {"leg(x,-2):g", "order1.1 order1.2 order2.1 order2.2"},
      {"spl(x)", "1.5 2.5"},
      {"v", "v1 v2"},
      {"w", "1 2 3"},
      {"zero(2)", "1 2"},
      {"uni(f,3)", "1 2"},
      {"lin(x)", "1"},
      {"k:lin(x)", "red green blue"},
  };
  for (const Case& c : cases) {
    DataRoad road;
    ASSERT_TRUE(form(road, data, text(R"("fixed":"mu","sparse":")", c.term, "\""))) << c.term << messages_text(road.eh);
    const TERM_ROW& term = road.terms.rows.back();
    std::string names;
    for (std::int64_t l = 1; l <= term.equations; ++l)
      names += (l > 1 ? " " : "") + level_name(road.eh, road.variables, road.factors, term, l);
    EXPECT_EQ(names, c.names) << c.term;
  }
}

TEST(DesignFunctions, MissingValues)
{
  const double NA_ = no_value;
  // Record 1: all there. 2: x missing at f = 1. 3: x missing at f = 2. 4: f missing. 5: x such that (x - 2)^0.5 is not.
  const std::vector<Row> data{{2, 1, 1, 1, 3, 1, 1, 1, 1, 1, 1}, {1, 1, 1, 1, NA_, 1, 1, 1, 1, 1, 2}, {2, 1, 1, 1, NA_, 1, 1, 1, 1, 1, 3},
                              {NA_, 1, 1, 1, 6, 1, 1, 1, 1, 1, 4}, {2, 1, 1, 1, 1, 1, 1, 1, 1, 1, 5}};
  const auto told = [](std::int64_t n) { return text(n, " missing value(s) detected in the design variables:"); };
  struct Case {
    const char* terms;
    std::string message;  // empty: none
    const char* rows;
  };
  const Case cases[] = {
      // What lacks where the condition does not hold is not missed.
      {"at(f,2):x", told(2), "1:1 2:3 | 1\n1:1 | 2\n1:1 | 3\n1:1 | 4\n1:1 2:1 | 5\n"},
      {"x:at(f,2)", told(2), "1:1 2:3 | 1\n1:1 | 2\n1:1 | 3\n1:1 | 4\n1:1 2:1 | 5\n"},
      {"f:x", told(3), "1:1 3:3 | 1\n1:1 | 2\n1:1 | 3\n1:1 | 4\n1:1 3:1 | 5\n"},
      {"pow(x,0.5,-2)", "in 1 instances the pow() terms have generated missing values which are treated as zero",
       "1:1 2:1 | 1\n1:1 | 2\n1:1 | 3\n1:1 2:2 | 4\n1:1 | 5\n"},
      {"fac(x)", told(2), "1:1 3:1 | 1\n1:1 | 2\n1:1 | 3\n1:1 4:1 | 4\n1:1 2:1 | 5\n"},
      {"uni(x)", "", "1:1 2:1 | 1\n1:1 | 2\n1:1 | 3\n1:1 3:1 | 4\n1:1 4:1 | 5\n"},
  };
  for (const Case& c : cases) {
    DataRoad road;
    ASSERT_TRUE(form(road, data, text(R"("fixed":"mu","sparse":")", c.terms, "\""), R"(,"na_action":{"x":"include"})"))
        << c.terms << messages_text(road.eh);
    EXPECT_EQ(road.design_rows(), c.rows) << c.terms;
    if (c.message.empty()) {
      EXPECT_EQ(messages_text(road.eh), "") << c.terms;
    } else {
      EXPECT_TRUE(has_message(road.eh, c.message)) << c.terms << messages_text(road.eh);
    }
  }
}

TEST(DesignFunctions, Complaints)
{
  const std::vector<Row> data{{2, 1, 1, 1, 3, 1, 1, 1, 1, 1, 1}, {1, 1, 1, 1, 2, 1, 1, 1, 1, 1, 2}, {2, 1, 1, 1, 2, 1, 1, 1, 1, 1, 3}};
  struct Case {
    const char* model;
    const char* message;
  };
  const Case cases[] = {
      {R"j("fixed":"pol(x,2)")j", "pol(x,2) needs at least 3 distinct values of x, 2 are present"},
      {R"j("fixed":"leg(z,1)")j", "leg(z,1) needs at least 2 distinct values of z, 1 is present"},
      {R"j("random":"spl(x)")j", "spl(x) needs at least 3 distinct values of x, 2 are present"},
      {R"j("random":"uni(f,2,1)")j", "inconsistent number of levels declared for uni(f,2,1), 1 levels declared but 2 are present"},
      {R"j("random":"and(f)")j", "invalid model term: and(f)"},
      {R"j("fixed":"f","random":"and(f)")j", "invalid model term: and(f)"},
      {R"j("fixed":"short")j", "check definition for model term short"},
      {R"j("fixed":"nowhere")j", "check definition for model term nowhere"},
  };
  for (const Case& c : cases) {
    DataRoad road;
    EXPECT_FALSE(form(road, data, c.model, R"(,"contrast":[{"name":"short","variable":"f","values":[1,2]},{"name":"nowhere","variable":"q","values":[1]}])"));
    EXPECT_TRUE(has_message(road.eh, c.message)) << c.model << messages_text(road.eh);
  }
}

TEST(DesignFunctions, FactorsJoinedAgree)
{
  const std::vector<Row> data = simulated(20, 3);
  DataRoad same;
  ASSERT_TRUE(form(same, data, R"j("fixed":"w1+and(w2)")j"));
  EXPECT_EQ(messages_text(same.eh), "1/- it is assumed that w1 and w2 have the same levels in the same order\n");
  DataRoad different;
  ASSERT_TRUE(form(different, data, R"j("random":"g+and(f)+f")j"));
  EXPECT_EQ(messages_text(different.eh),
            "3/- g and f have different sizes [2 3\n"
            "9999/- they should be the same size with levels in the same order, both have been reset\n");
  EXPECT_EQ(different.terms.equations, 1 + 3 + 3);
  for (std::size_t r = 0; r < data.size(); ++r) {
    Row expected = unit(3, data[r][g]);
    expected[static_cast<std::size_t>(data[r][f]) - 1] += 1.0;
    const Row last = unit(3, data[r][f]);
    expected.insert(expected.end(), last.begin(), last.end());
    EXPECT_EQ(dense_row(different, static_cast<std::int64_t>(r)), expected);
  }
  DataRoad unlike;
  EXPECT_FALSE(form(unlike, data, R"j("random":"f:g+and(f)")j"));
}

TEST(DesignFunctions, NullTerms)
{
  std::vector<Row> data = simulated(10, 8);
  for (Row& row : data) row[z] = 0.0;
  DataRoad road;
  ASSERT_TRUE(form(road, data, R"j("fixed":"f","random":"g:z+zero(2)+f:z")j", R"j(,"na_action":{"x":"include"})j"));
  ERROR_HANDLER eh;
  const std::vector<double> gammas{0, 0, 0, 0.5, 0.1, 0};  // y, mu, f, g:z, zero(2), f:z
  MORE_AIDATA_SETUP(eh, road.factors, road.terms, road.design, gammas);
  EXPECT_EQ(messages_text(eh),
            "3/- g:z is null model term, with a non zero gamma, gamma = 0.5\n"
            "9999/- no record has any of its equations\n");
}

TEST(DesignFunctions, FactorsOfAStructureHaveNoDesign)
{
  const std::vector<Row> data = simulated(15, 2);
  // Three levels and two factors; rr() binds every level to the factors by an equation more.
  for (const auto& [structure, levels] : {std::pair{"fa", 5}, std::pair{"rr", 8}}) {
    DataRoad road;
    ASSERT_TRUE(form(road, data, text(R"j("random":")j", structure, R"j((f,2):g")j"))) << messages_text(road.eh);
    EXPECT_EQ(road.terms.equations, 1 + levels * 2);
    for (std::size_t r = 0; r < data.size(); ++r)
      EXPECT_EQ(dense_row(road, static_cast<std::int64_t>(r)), unit(levels, data[r][f]) * unit(2, data[r][g]));
    EXPECT_EQ(level_name(road.eh, road.variables, road.factors, road.terms.rows.back(), 10), "factor2.2");
  }
}

}  // namespace
}  // namespace tolvan
