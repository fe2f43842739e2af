// The labels of every model of variances in all its forms, alone, in products, of residuals and of factors with one level.
#include "api/plots_data.h"

namespace tolvan {
namespace {

/// A model and the ends of its own labels, apart by blanks.
struct Model {
  const char* name;  // of the plain form
  const char* more;  // arguments behind the factor
  const char* word;  // in labels, before the letter of the form
  const char* own;   // of a factor with three levels
  const char* one;   // of a factor with one level
};

// Along the levels of a factor; with the forms v and h.
constexpr Model of_levels[] = {
    {"ar1", "", "AR1", "R", "R"},
    {"ar2", "", "AR2", "R_1 R_2", "R_1 R_2"},
    {"ar3", "", "AR3", "R_1 R_2 R_3", "R_1 R_2 R_3"},
    {"sar", "", "SAR", "R", "R"},
    {"sar2", "", "SAR2", "R_1 R_2", "R_1 R_2"},
    {"ma1", "", "MA1", "R", "R"},
    {"ma2", "", "MA2", "R_1 R_2", "R_1 R_2"},
    {"arma", "", "ARMA", "R_1 R_2", "R_1 R_2"},
    {"cor", "", "COR", "R", "R"},
    {"corb", ",1", "CORB", "R_1 R_2", ""},
    {"corg", "", "CORG", "R_2_1 R_3_1 R_3_2", ""},
    {"exp", "", "EXP", "R", "R"},
    {"gau", "", "GAU", "R", "R"},
    {"lvr", "", "LVR", "V", "V"},
};

// By points in the plane, with the forms; what stands for the levels is the number of points.
constexpr Model of_points[] = {
    {"iexp", "", "IEXP", "R", ""},   {"igau", "", "IGAU", "R", ""},
    {"ieuc", "", "IEUC", "R", ""},   {"aexp", "", "AEXP", "R V", ""},
    {"agau", "", "AGAU", "R V", ""}, {"ilv", "", "ILV", "V", ""},
    {"sph", "", "SPH", "V", ""},     {"cir", "", "CIR", "V", ""},
    {"mtrn", "", "MAT", "p n d a U", ""},
};

// Made of variances: without forms.
constexpr Model of_variances[] = {
    {"idv", "", "IDV", "V", "V"},
    {"idh", "", "IDH", "V_1 V_2 V_3", "V_1"},
    {"diag", "", "DIAG", "V_1 V_2 V_3", "V_1"},
    {"us", "", "US", "V_1_1 C_2_1 V_2_2 C_3_1 C_3_2 V_3_3", "V_1_1"},
    {"chol", ",1", "CHOL1", "V_1 C_2_1 V_2 C_3_1 C_3_2 V_3", "V_1"},
    {"cholc", ",2", "CHOLC2", "V_1 C_2_1 V_2 C_3_1 C_3_2 V_3", "V_1"},
    {"ante", ",1", "ANTE1", "V_1 C_2_1 V_2 C_3_1 C_3_2 V_3", "V_1"},
    {"sfa", ",2", "SFA2", "R_1_1 R_2_1 R_3_1 R_1_2 R_2_2 R_3_2 V_1 V_2 V_3", "V_1"},
    {"facv", ",2", "FACV2", "L_1_1 L_2_1 L_3_1 L_1_2 L_2_2 L_3_2 V_1 V_2 V_3", "V_1"},
    {"fa", ",2", "FA2", "V_1 V_2 V_3 L_1_1 L_2_1 L_3_1 L_1_2 L_2_2 L_3_2", "V_1 L_1_1"},
    {"rr", ",2", "RR2", "V_1 V_2 V_3 L_1_1 L_2_1 L_3_1 L_1_2 L_2_2 L_3_2", "V_1 L_1_1"},
};

std::vector<std::string> ends_of(std::string_view list)
{
  std::vector<std::string> out;
  for (std::size_t at = 0; at < list.size();) {
    const std::size_t end = std::min(list.find(' ', at), list.size());
    out.emplace_back(list.substr(at, end - at));
    at = end + 1;
  }
  return out;
}

/// The labels of a model whose own ends are given, in one of its forms: "", "v", "h".
std::string labels(const std::string& head, std::string_view word, std::string_view own, std::string_view form, int levels)
{
  std::vector<std::string> ends = ends_of(own);
  // The one variance comes behind a range or a power that goes by the letter V, too.
  const bool second = std::find(ends.begin(), ends.end(), "V") != ends.end();
  if (form == "v") ends.emplace_back(second ? "V_2" : "V");
  for (int i = 1; form == "h" && i <= levels; ++i) ends.push_back(text("V_", i));
  std::string out;
  for (const std::string& end : ends) out += text(head, word, form == "v" ? "V" : form == "h" ? "H" : "", '_', end, '\n');
  return out;
}

/// The labels that the engine makes of a part of the model; those of the residual only where it is that part.
std::string found(std::string_view part, std::string_view term, bool one_level)
{
  std::vector<double> data = data_columns();
  std::string request = request_of(text(R"("response":"y",")", part, R"(":")", term, "\""), part == "residual" ? R"("varscale":1)" : "");
  if (one_level) {
    for (std::size_t k = 3; k < data.size(); k += 12) data[k] = 1.0;
    request.replace(request.find(R"("number_of_levels":3)"), 20, R"("number_of_levels":1)");
  }
  SetupRoad road;
  run(road, request, data);
  if (road.eh.terminate()) return road.eh.EH_PRINT_TEXT();
  std::string out;
  for (const VARIANCE_PARAMETER& p : road.model().parameters)
    if (part == "residual" || p.label != "units;IDV_V") out += p.label + '\n';
  return out;
}

TEST(ParameterLabels, EveryModelAndForm)
{
  constexpr std::string_view forms[] = {"", "v", "h"};
  for (const Model& m : of_levels) {
    for (const std::string_view form : forms) {
      const std::string call = text(m.name, form, "(row", m.more, ")");
      SCOPED_TRACE(call);
      EXPECT_EQ(found("random", call, false), labels("row;", m.word, m.own, form, 3));
      EXPECT_EQ(found("random", call + ":id(geno)", false), labels("row:geno;row.", m.word, m.own, form, 3));
      EXPECT_EQ(found("random", "at(site,2):id(geno):" + call, false), labels("at(site,2):geno:row;row.", m.word, m.own, form, 3));
      EXPECT_EQ(found("random", call + ":id(geno)", true), labels("row:geno;row.", m.word, m.one, form, 1));
      const std::string own = form.empty() ? "site:column:row;IDV_V\n" : "";
      EXPECT_EQ(found("residual", "id(site):id(column):" + call, false), labels("site:column:row;row.", m.word, m.own, form, 3) + own);
    }
  }
  for (const Model& m : of_points) {
    for (const std::string_view form : forms) {
      const std::string call = text(m.name, form, "(x,v)");
      SCOPED_TRACE(call);
      EXPECT_EQ(found("random", call, false), labels("x;", m.word, m.own, form, 24));
      EXPECT_EQ(found("random", "id(site):" + call, false), labels("site:x;x.", m.word, m.own, form, 24));
    }
  }
  for (const Model& m : of_variances) {
    const std::string call = text(m.name, "(row", m.more, ")");
    SCOPED_TRACE(call);
    EXPECT_EQ(found("random", call, false), labels("row;", m.word, m.own, "", 3));
    EXPECT_EQ(found("random", "id(geno):" + call, false), labels("geno:row;row.", m.word, m.own, "", 3));
    std::string word = m.word;  // there are no more factors or bands than a factor with one level has
    if (word.back() == '2') word.back() = '1';
    EXPECT_EQ(found("random", "id(geno):" + call, true), labels("geno:row;row.", word, m.one, "", 1));
  }
}

// A range and a sill, where two starting values say so; repeats are told apart.
TEST(ParameterLabels, SillsAndRepeats)
{
  EXPECT_EQ(found("random", "sph(x,v,[4,0.5])", false), "x;SPH_V\nx;SPH_V_2\n");
  EXPECT_EQ(found("random", "cirv(x,v,[4,0.5,1])", false), "x;CIRV_V\nx;CIRV_V_2\nx;CIRV_V_3\n");
  EXPECT_EQ(found("random", "idv(row)+idv(row,0.2)", false), "row;IDV_V\nrow;IDV_V#2\n");
}

}  // namespace
}  // namespace tolvan
