// Labels, starting values, types and constraints of the structures of whole models.
#include <cmath>

#include "api/plots_data.h"
#include "base/numbers.h"
#include "base/text.h"

namespace tolvan {
namespace {

/// 0.9 times the covariance of two of the responses with divisor n, as the starts are made from it.
double starting(int i, int j)
{
  const std::vector<double> a = data_columns();
  double mi = 0, mj = 0, s = 0;
  for (int k = 0; k < records; ++k)
    mi += a[static_cast<std::size_t>(12 * k + 10 + i)] / records,
        mj += a[static_cast<std::size_t>(12 * k + 10 + j)] / records;
  for (int k = 0; k < records; ++k)
    s += (a[static_cast<std::size_t>(12 * k + 10 + i)] - mi) *
         (a[static_cast<std::size_t>(12 * k + 10 + j)] - mj) / records;
  return s * (i == j ? wide(0.9f) : wide(0.9f) * wide(0.9f));
}

/// "label type constraint value" of every parameter.
struct Expected {
  std::string label;
  std::string letters;  // type and constraint
  double value;
};
using Table = std::vector<Expected>;

std::string show(const VARIANCE_PARAMETER& p)
{
  return text(p.label, ' ', parameter_type_letters[static_cast<std::size_t>(p.type) - 1],
              constraint_letters[static_cast<std::size_t>(p.constraint)], ' ', p.value, '\n');
}

void expect_table(const SetupRoad& road, const Table& expected)
{
  std::string all;
  for (const VARIANCE_PARAMETER& p : road.model().parameters) all += show(p);
  ASSERT_EQ(road.model().parameters.size(), expected.size()) << all;
  for (std::size_t i = 0; i < expected.size(); ++i) {
    const VARIANCE_PARAMETER& p = road.model().parameters[i];
    EXPECT_EQ(p.label, expected[i].label) << all;
    EXPECT_EQ(text(parameter_type_letters[static_cast<std::size_t>(p.type) - 1],
                   constraint_letters[static_cast<std::size_t>(p.constraint)]),
              expected[i].letters)
        << p.label;
    EXPECT_NEAR(p.value, expected[i].value, 1e-9 * std::fabs(expected[i].value) + 1e-15) << p.label;
    EXPECT_EQ(p.value, p.start) << p.label;
  }
}

/// One label a level: "head_1", "head_2", ...
void add(Table& t, const std::string& head, int count, const char* letters, double value)
{
  for (int i = 1; i <= count; ++i) t.push_back({text(head, i), letters, value});
}

// The random part under ratios; the residual is units with its variance of 1.
TEST(ParameterTable, RandomTerms)
{
  const double s = wide(0.1f), c = wide(0.3f), g = 0.05, u = std::sqrt(wide(0.04f) * g);
  struct Case {
    const char* random;
    Table expected;
  };
  std::vector<Case> cases = {
      {"block", {}},  // replaced below: no such variable
      {"geno+env:geno", {{"geno;IDV_V", "GP", s}, {"env:geno;IDV_V", "GP", s}}},
      {"idv(geno)", {{"geno;IDV_V", "GP", wide(0.9f) * s}}},
      {"idv(geno,0.8)+env", {{"geno;IDV_V", "GP", 0.8}, {"env;IDV_V", "GP", s}}},
      {"ar1v(time)", {{"time;AR1V_R", "RP", s}, {"time;AR1V_V", "GP", wide(0.9f) * s}}},
      {"ar1(time):idv(subject)",
       {{"time:subject;time.AR1_R", "RP", s}, {"time:subject;subject.IDV_V", "GP", wide(0.9f) * g}}},
      {"corv(env):id(geno)",
       {{"env:geno;env.CORV_R", "RP", c}, {"env:geno;env.CORV_V", "GP", wide(0.9f) * g}}},
      {"corh(env):id(geno)",
       {{"env:geno;env.CORH_R", "RP", c},
        {"env:geno;env.CORH_V_1", "GP", g},
        {"env:geno;env.CORH_V_2", "GP", g},
        {"env:geno;env.CORH_V_3", "GP", g},
        {"env:geno;env.CORH_V_4", "GP", g}}},
      {"sfa(site,1):id(geno)",
       {{"site:geno;site.SFA1_R_1_1", "RP", c},
        {"site:geno;site.SFA1_R_2_1", "RP", c},
        {"site:geno;site.SFA1_V_1", "GP", g},
        {"site:geno;site.SFA1_V_2", "GP", g}}},
      {"facv(site,1):id(geno)",
       {{"site:geno;site.FACV1_L_1_1", "LP", u},
        {"site:geno;site.FACV1_L_2_1", "LP", u},
        {"site:geno;site.FACV1_V_1", "GP", 0.1 * g},
        {"site:geno;site.FACV1_V_2", "GP", 0.1 * g}}},
      {"fa(site,1):id(geno)",
       {{"site:geno;site.FA1_V_1", "GP", 0.1 * g},
        {"site:geno;site.FA1_V_2", "GP", 0.1 * g},
        {"site:geno;site.FA1_L_1_1", "LP", u},
        {"site:geno;site.FA1_L_2_1", "LP", u}}},
      {"rr(site,1):id(geno)",
       {{"site:geno;site.RR1_V_1", "GF", 0},
        {"site:geno;site.RR1_V_2", "GF", 0},
        {"site:geno;site.RR1_L_1_1", "LP", u},
        {"site:geno;site.RR1_L_2_1", "LP", u}}},
      {"us(site):id(geno)",
       {{"site:geno;site.US_V_1_1", "GP", wide(0.05f)},
        {"site:geno;site.US_C_2_1", "CP", wide(0.01f)},
        {"site:geno;site.US_V_2_2", "GP", wide(0.05f)}}},
      {"us(site,init=[2,-0.5,3]):geno",
       {{"site:geno;site.US_V_1_1", "GP", 2},
        {"site:geno;site.US_C_2_1", "CP", -0.5},
        {"site:geno;site.US_V_2_2", "GP", 3}}},
      {"chol(row,1):id(geno)",
       {{"row:geno;row.CHOL1_V_1", "GP", wide(0.3f) * std::sqrt(g)},
        {"row:geno;row.CHOL1_C_2_1", "CP", wide(0.2f) * std::sqrt(g)},
        {"row:geno;row.CHOL1_V_2", "GP", wide(0.3f) * std::sqrt(g)},
        {"row:geno;row.CHOL1_C_3_1", "CF", 0},
        {"row:geno;row.CHOL1_C_3_2", "CP", wide(0.2f) * std::sqrt(g)},
        {"row:geno;row.CHOL1_V_3", "GP", wide(0.3f) * std::sqrt(g)}}},
      {"chol(site,1,2.5)",
       {{"site;CHOL1_V_1", "GP", 2.5}, {"site;CHOL1_C_2_1", "CP", 0}, {"site;CHOL1_V_2", "GP", 2.5}}},
      {"at(site,2):ar1v(row)",
       {{"at(site,2):row;AR1V_R", "RP", s}, {"at(site,2):row;AR1V_V", "GP", wide(0.9f) * s}}},
      {"at(site,2):geno", {{"at(site,2):geno;IDV_V", "GP", s}}},
      {"expv(x)", {{"x;EXPV_R", "RP", s}, {"x;EXPV_V", "GP", wide(0.9f) * s}}},
      {"sphv(x,v,init=[4,2])", {{"x;SPHV_V", "GP", 4}, {"x;SPHV_V_2", "GP", 2}}},
      {"corbv(row,1,0.25)",
       {{"row;CORBV_R_1", "RP", 0.25}, {"row;CORBV_R_2", "RF", 0}, {"row;CORBV_V", "GP", wide(0.9f) * s}}},
      {"mtrnv(x,v,phi=3,nu=1.5)",
       {{"x;MATV_p", "pP", 3},
        {"x;MATV_n", "nP", 1.5},
        {"x;MATV_d", "dF", 1},
        {"x;MATV_a", "aF", 0},
        {"x;MATV_U", "uF", 2},
        {"x;MATV_V", "GP", wide(0.9f) * s}}},
      {"str(subject+subject:w,us(2):id(6))",
       {{"subject+subject:w;US_V_1_1", "GP", wide(0.05f)},
        {"subject+subject:w;US_C_2_1", "CP", wide(0.01f)},
        {"subject+subject:w;US_V_2_2", "GP", wide(0.05f)}}},
  };
  cases.erase(cases.begin());
  {
    Case many{"diag(env):id(geno)", {}};
    add(many.expected, "env:geno;env.DIAG_V_", 4, "GP", wide(0.2f) * g);
    cases.push_back(many);
    Case idh{"idh(env):id(geno)", {}};
    add(idh.expected, "env:geno;env.IDH_V_", 4, "GP", g);
    cases.push_back(idh);
    Case series{"ar2h(row)", {{"row;AR2H_R_1", "RP", s}, {"row;AR2H_R_2", "RP", s}}};
    add(series.expected, "row;AR2H_V_", 3, "GP", s);
    cases.push_back(series);
  }
  for (const Case& each : cases) {
    SCOPED_TRACE(each.random);
    SetupRoad road;
    run(road, request_of(text(R"("response":"y","random":")", each.random, "\"")));
    EXPECT_FALSE(road.eh.terminate()) << road.eh.EH_PRINT_TEXT();
    if (road.eh.terminate()) continue;
    Table expected = each.expected;
    expected.push_back({"units;IDV_V", "VP", 1.0});
    expect_table(road, expected);
    EXPECT_TRUE(road.model().gamma && road.model().profiled);
    EXPECT_EQ(road.model().residual_parameter, road.model().count() - 1);
  }
}

// The residual: its parameters behind those of geno, on ratios unless it has a variance of its own.
TEST(ParameterTable, Residuals)
{
  const double s = wide(0.1f), c = wide(0.3f), v = starting(0, 0);
  struct Case {
    const char* residual;
    bool gamma;
    Table expected;
    std::vector<std::int64_t> sizes;
    std::int64_t sections = 1;
    const char* warning = "";
  };
  const std::string t = "subject:time;time.";
  const Expected own{"subject:time;IDV_V", "VP", 1.0};
  std::vector<Case> cases = {
      {"units", true, {{"units;IDV_V", "VP", 1.0}}, {24}},
      {"ar1(column):id(subject)", true, {}, {}},  // replaced below: the records are no such grid
      {"id(subject):ar1(time)", true, {{t + "AR1_R", "RP", s}, own}, {6, 4}},
      {"id(subject):ar1(time,0.45)", true, {{t + "AR1_R", "RP", 0.45}, own}, {6, 4}},
      {"id(subject):sar2(time,init=[-0.4,0.5])",
       true,
       {{t + "SAR2_R_1", "RP", -0.4}, {t + "SAR2_R_2", "RP", 0.5}, own},
       {6, 4}},
      {"id(subject):arma(time)", true, {{t + "ARMA_R_1", "RP", s}, {t + "ARMA_R_2", "RP", s}, own}, {6, 4}},
      {"id(subject):cor(time)", true, {{t + "COR_R", "RP", c}, own}, {6, 4}},
      {"id(subject):corb(time,2)",
       true,
       {{t + "CORB_R_1", "RP", c}, {t + "CORB_R_2", "RP", c}, {t + "CORB_R_3", "RF", 0}, own},
       {6, 4}},
      {"id(subject):corg(time)",
       true,
       {{t + "CORG_R_2_1", "RP", c},
        {t + "CORG_R_3_1", "RP", c},
        {t + "CORG_R_3_2", "RP", c},
        {t + "CORG_R_4_1", "RP", c},
        {t + "CORG_R_4_2", "RP", c},
        {t + "CORG_R_4_3", "RP", c},
        own},
       {6, 4}},
      {"id(subject):exp(time,dist=[0,1.2,2,3.1])", true, {{t + "EXP_R", "RP", s}, own}, {6, 4}},
      {"id(subject):lvr(time,init=[2.7],dist=[0,1.2,2,3.1])", true, {{t + "LVR_V", "GP", 2.7}, own}, {6, 4}},
      {"id(subject):exp(w)", true, {{"subject:w;w.EXP_R", "RP", s}, {"subject:w;IDV_V", "VP", 1.0}}, {6, 4}},
      {"iexp(x,v)", true, {{"x;IEXP_R", "RP", s}, {"x;IDV_V", "VP", 1.0}}, {24}},
      {"aexp(x,v)", true, {{"x;AEXP_R", "RP", s}, {"x;AEXP_V", "GP", s}, {"x;IDV_V", "VP", 1.0}}, {24}},
      {"id(subject):ar1v(time)",
       false,
       {{t + "AR1V_R", "RP", s}, {t + "AR1V_V", "VP", wide(0.9f) * v}},
       {6, 4},
       1,
       "specify Sigma parameterization via the options, by setting varscale to 1.0"},
      {"id(subject):ar1v(time,init=[0.5,3])",
       false,
       {{t + "AR1V_R", "RP", 0.5}, {t + "AR1V_V", "VP", 3}},
       {6, 4}},
      {"site:row:ar1(column)",
       true,
       {{"site:row:column;column.AR1_R", "RP", s}, {"site:row:column;IDV_V", "VP", 1.0}},
       {2, 3, 4}},
      {"dsum(idv(units)|site)",
       false,
       {{"sat(site,1):units;IDV_V", "VP", wide(0.9f) * v}, {"sat(site,2):units;IDV_V", "VP", wide(0.9f) * v}},
       {12, 12},
       2},
      {"dsum(units|site)",
       false,
       {{"sat(site,1):units;IDV_V", "VP", v}, {"sat(site,2):units;IDV_V", "VP", v}},
       {12, 12},
       2},
      {"dsum(ar1v(column):ar1(row)|site)",
       false,
       {{"sat(site,1):column:row;column.AR1V_R", "RP", s},
        {"sat(site,1):column:row;column.AR1V_V", "VP", wide(0.9f) * v},
        {"sat(site,1):column:row;row.AR1_R", "RP", s},
        {"sat(site,2):column:row;column.AR1V_R", "RP", s},
        {"sat(site,2):column:row;column.AR1V_V", "VP", wide(0.9f) * v},
        {"sat(site,2):column:row;row.AR1_R", "RP", s}},
       {4, 3, 4, 3},
       2},
      {"dsum(ar1(column):ar1(row)|site)",
       false,
       {{"sat(site,1):column:row;column.AR1_R", "RP", s},
        {"sat(site,1):column:row;row.AR1_R", "RP", s},
        {"sat(site,1):column:row;IDV_V", "VP", v},
        {"sat(site,2):column:row;column.AR1_R", "RP", s},
        {"sat(site,2):column:row;row.AR1_R", "RP", s},
        {"sat(site,2):column:row;IDV_V", "VP", v}},
       {4, 3, 4, 3},
       2},
  };
  cases.erase(cases.begin() + 1);
  {
    Case h{"id(subject):idh(time)", false, {}, {6, 4}};
    add(h.expected, t + "IDH_V_", 4, "VP", v);
    cases.push_back(h);
    Case diag{"id(subject):diag(time)", false, {}, {6, 4}};
    add(diag.expected, t + "DIAG_V_", 4, "VP", wide(0.2f) * v);
    cases.push_back(diag);
    Case corh{"id(subject):corh(time)", false, {{t + "COR" + "H_R", "RP", c}}, {6, 4}};
    add(corh.expected, t + "CORH_V_", 4, "VP", v);
    cases.push_back(corh);
    Case us{"id(subject):us(time)", false, {}, {6, 4}};
    for (int i = 1; i <= 4; ++i) {
      for (int j = 1; j <= i; ++j) {
        us.expected.push_back({text(t, "US_", i == j ? 'V' : 'C', '_', i, '_', j), i == j ? "VP" : "CP",
                               (i == j ? wide(0.05f) : wide(0.01f)) * v});
      }
    }
    cases.push_back(us);
  }
  for (const Case& each : cases) {
    SCOPED_TRACE(each.residual);
    SetupRoad road;
    run(road, request_of(text(R"("response":"y","random":"geno","residual":")", each.residual, "\"")));
    EXPECT_FALSE(road.eh.terminate()) << road.eh.EH_PRINT_TEXT();
    if (road.eh.terminate()) continue;
    Table expected{{"geno;IDV_V", each.gamma ? "GP" : "VP", s * (each.gamma ? 1.0 : v)}};
    expected.insert(expected.end(), each.expected.begin(), each.expected.end());
    expect_table(road, expected);
    const VARIANCE_MODEL& m = road.model();
    EXPECT_EQ(m.gamma, each.gamma);
    EXPECT_EQ(m.profiled, each.gamma);
    std::vector<std::int64_t> sizes;
    for (const STRUCTURE_ROW& row : m.residual) sizes.push_back(row.size);
    EXPECT_EQ(sizes, each.sizes);
    EXPECT_EQ(std::ssize(m.sections), each.sections);
    EXPECT_EQ(*each.warning == '\0', road.eh.messages().empty()) << road.eh.EH_PRINT_TEXT();
    EXPECT_TRUE(*each.warning == '\0' || has_message(road.eh, each.warning));
  }
}

TEST(ParameterTable, SeveralTraits)
{
  // Where the levels are the traits, half of their covariances each; of a plain term and of no residual,
  // other shares.
  struct Case {
    const char* random;
    const char* residual;
    const char* head;
    double share, residual_share;
  };
  const double v[3] = {starting(0, 0), starting(0, 1), starting(1, 1)};
  for (const Case& c :
       {Case{"us(trait):id(geno)", R"~(,"residual":"units:us(trait)")~", "trait:geno;trait.US", 0.5, 0.5},
        Case{"us(trait):id(geno)", R"~(,"residual":"id(units):us(trait)")~", "trait:geno;trait.US", 0.5, 0.5},
        Case{"trait:geno", "", "trait:geno;trait.US", wide(0.033f), wide(0.33f)}}) {
    SCOPED_TRACE(text(c.random, c.residual));
    SetupRoad road;
    run(road, request_of(text(R"("response":"y+z","fixed":"trait","random":")", c.random, "\"", c.residual)));
    EXPECT_FALSE(road.eh.terminate()) << road.eh.EH_PRINT_TEXT();
    if (road.eh.terminate()) continue;
    Table expected;
    for (const auto& [head, share] : {std::pair{std::string(c.head), c.share},
                                      std::pair{std::string("units.us(trait);US"), c.residual_share}}) {
      expected.push_back({head + "_V_1_1", "VP", share * v[0]});
      expected.push_back({head + "_C_2_1", "CP", share * v[1]});
      expected.push_back({head + "_V_2_2", "VP", share * v[2]});
    }
    expect_table(road, expected);
    const VARIANCE_MODEL& m = road.model();
    ASSERT_EQ(m.residual.size(), 2u);
    EXPECT_EQ(m.residual[0].size, records);
    EXPECT_EQ(m.residual[1].size, 2);
    EXPECT_EQ(m.residual_parameter, -1);
    EXPECT_EQ(*c.residual == '\0', has_message(road.eh, "assuming I x US variable structure for Residual"));
    EXPECT_EQ(*c.residual == '\0', has_message(road.eh, "adding Variance parameter for trait:geno"));
  }
}

}  // namespace
}  // namespace tolvan
