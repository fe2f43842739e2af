// The catalogue of models, and the tables that random terms and the residual make.
#include "varstruct/structures.h"

#include <cmath>

#include "base/numbers.h"
#include "base/text.h"
#include "varstruct/model_catalogue.h"
#include "varstruct/small_model.h"

namespace tolvan {
namespace {

TEST(ModelCatalogue, FindsTheModelBehindAFunction)
{
  struct Case {
    const char* function;
    const char* name;  // empty: none
    std::int64_t qualifier, order;
  };
  for (const Case& c : {Case{"id", "IDEN", 0, 1},    Case{"idv", "IDEN", 1, 1},   Case{"idh", "IDEN", 2, 1},
                        Case{"ar1", "AR  ", 0, 1},   Case{"ar3h", "AR  ", 2, 3},  Case{"sar2v", "SAR ", 1, 2},
                        Case{"corgh", "CORG", 2, 1}, Case{"corbv", "CORB", 1, 1}, Case{"ilvv", "LVR ", 1, 1},
                        Case{"mtrnh", "MAT ", 2, 1}, Case{"sfa", "FA  ", 0, 1},   Case{"fa", "XFA ", 0, 1},
                        Case{"cholc", "CHOL", 0, 1}, Case{"ide", "NRM ", 0, 1},   Case{"usv", "", 0, 1},
                        Case{"ar4", "", 0, 1},       Case{"v", "", 0, 1},         Case{"", "", 0, 1},
                        Case{"lin", "", 0, 1},       Case{"AR1", "", 0, 1}}) {
    const MODEL_REQUEST found = model_request(c.function);
    EXPECT_EQ(found.model == nullptr ? "" : found.model->name, c.name) << c.function;
    EXPECT_EQ(found.qualifier, c.qualifier) << c.function;
    EXPECT_EQ(found.order, c.order) << c.function;
  }
}

TEST(ModelCatalogue, CountsParameters)
{
  struct Case {
    const char* function;
    std::int64_t levels, order, parameters;
  };
  for (const Case& c :
       {Case{"id", 7, 0, 0}, Case{"ar3", 7, 3, 3}, Case{"ar3", 7, 5, 3}, Case{"ma2", 7, 0, 1},
        Case{"arma", 7, 0, 2}, Case{"corb", 7, 0, 6}, Case{"corg", 7, 0, 21}, Case{"mtrn", 7, 4, 4},
        Case{"us", 3, 0, 6}, Case{"diag", 3, 0, 3}, Case{"sfa", 3, 5, 9}, Case{"facv", 6, 2, 18},
        Case{"fa", 6, 2, 12}, Case{"fa", 6, 0, 10}, Case{"chol", 4, 1, 10}}) {
    EXPECT_EQ(own_parameters(*model_request(c.function).model, c.levels, c.order), c.parameters)
        << c.function;
  }
}

/// One line a parameter: label, value, type letter, constraint letter.
std::string table(const VARIANCE_MODEL& model)
{
  std::string out;
  for (const VARIANCE_PARAMETER& p : model.parameters) {
    out += text(p.label, ' ', p.value, ' ', parameter_type_letters[static_cast<std::size_t>(p.type) - 1],
                constraint_letters[static_cast<std::size_t>(p.constraint)], '\n');
    EXPECT_EQ(p.start, p.value);
    EXPECT_EQ(p.role, ParamRole::variance);
  }
  return out;
}

TEST(Structures, MakeTheParameterTable)
{
  const double g = wide(0.1f), v = wide(0.9f);
  struct Case {
    const char* why;
    std::vector<std::vector<Component>> random;
    std::string gamma, sigma;         // the tables of both scales; the response's variance is 4
    std::vector<std::int64_t> sizes;  // of all rows
  };
  const Case cases[] = {
      {"no random term", {}, "units;IDV_V 1 VP\n", "units;IDV_V 4 VP\n", {}},
      {"plain terms and an interaction",
       {{{"block", 6}}, {{"block", 6}, {"wplot", 3}}},
       text("block;IDV_V ", g, " GP\nblock:wplot;IDV_V ", g, " GP\nunits;IDV_V 1 VP\n"),
       text("block;IDV_V ", g * 4, " VP\nblock:wplot;IDV_V ", g * 4, " VP\nunits;IDV_V 4 VP\n"),
       {6, 18}},
      {"named, with and without a start",
       {{{"a", 10, "idv"}}, {{"b", 8, "idv", {0.3}}}},
       text("a;IDV_V ", v * g, " GP\nb;IDV_V 0.3 GP\nunits;IDV_V 1 VP\n"),
       text("a;IDV_V ", v * (g * 4), " VP\nb;IDV_V 0.3 VP\nunits;IDV_V 4 VP\n"),
       {10, 8}},
      {"a product with one variance",
       {{{"a", 2, "idv"}, {"b", 3, "id"}, {"c", 4}}},
       text("a:b:c;a.IDV_V ", v * 0.05, " GP\nunits;IDV_V 1 VP\n"),
       text("a:b:c;a.IDV_V ", v * 0.2, " VP\nunits;IDV_V 4 VP\n"),
       {2, 3, 4}},
      {"the same term twice, told apart",
       {{{"a", 5}}, {{"a", 5, "idv"}}, {{"a", 5}}},
       text("a;IDV_V ", g, " GP\na;IDV_V#2 ", v * g, " GP\na;IDV_V#3 ", g, " GP\nunits;IDV_V 1 VP\n"),
       text("a;IDV_V ", g * 4, " VP\na;IDV_V#2 ", v * (g * 4), " VP\na;IDV_V#3 ", g * 4,
            " VP\nunits;IDV_V 4 VP\n"),
       {5, 5, 5}},
  };
  for (const Case& c : cases) {
    for (const bool sigma : {false, true}) {
      SCOPED_TRACE(text(c.why, sigma ? ", absolute" : ", ratios"));
      ERROR_HANDLER eh;
      SMALL_MODEL m;
      m.options(Slot::varscale) = sigma ? 1 : 0;
      for (const auto& term : c.random) m.random(term);
      m.set_up(eh);
      EXPECT_TRUE(clean(eh));
      EXPECT_EQ(table(m.model), sigma ? c.sigma : c.gamma);
      EXPECT_EQ(m.model.gamma, !sigma);
      EXPECT_EQ(m.model.profiled, !sigma);
      EXPECT_EQ(m.model.residual_parameter, m.model.count() - 1);
      EXPECT_EQ(m.model.residual.front().size, m.records);
      std::vector<std::int64_t> sizes;
      for (const STRUCTURE_ROW& row : m.model.rows) sizes.push_back(row.size);
      EXPECT_EQ(sizes, c.sizes);
      EXPECT_EQ(m.model.terms.size(), c.random.size());
      STRUCTURECHECK(eh, m.options, m.terms, m.design(), m.model);
      EXPECT_TRUE(clean(eh));
    }
  }
}

TEST(Structures, LeaveOutTermsThatHaveNone)
{
  ERROR_HANDLER eh;
  SMALL_MODEL m;
  m.random({{"a", 3}}).dropped = true;
  m.random({{"b", 4}});
  m.add_term(m.add_factor({.name = "s", .is_factor = true, .levels = 9}), 9, Block::sparse, "s");
  m.set_up(eh);
  EXPECT_TRUE(clean(eh));
  ASSERT_EQ(m.model.terms.size(), 1u);
  EXPECT_EQ(m.model.terms[0].term, 3);
  EXPECT_EQ(m.model.count(), 2);
}

TEST(Structures, TellWhatIsWrong)
{
  struct Case {
    std::vector<Component> term;
    const char* message;
    bool stops = true;
  };
  const Case cases[] = {
      {{{"x", 5, "zzz"}}, "Cannot PARSE zzz(x)"},
      {{{"x", 5, "idv", {0.1, 0.2}}},
       "unexpected number of initial values supplied for idv(x), number expected = 1, number supplied = 2"},
      {{{"x", 5, "id", {0.1}}}, "number expected = 0, number supplied = 1"},
      {{{"x", 3, "us", {1, 0, 1}}}, "number expected = 6, number supplied = 3"},
      {{{"x", 3, "ar1h", {0.5}}}, "number expected = 4, number supplied = 1"},
      {{{"x", 5, "idv", {HUGE_VAL}}}, "an initial value supplied for idv(x) is not a finite number"},
      {{{"x", 1, "cor"}}, "cor(x) is expected to have more than 1 level", false},
      {{{"x", 1, "us"}}, "change structure to id() or its argument to a factor", false},
      {{{"x", 3, "ar3v"}}, "check characteristics of ar3v(x), more levels expected", false},
      {{{"x", 9, "sph", {3.0, 0.8}}},
       "Kriging Model ISP does not have a smooth Likelihood function because of the range parameter",
       false},
      {{{"x", 9, "cirv", {3.0, 0.8, 1.0}}},
       "Kriging Model SPH does not have a smooth Likelihood function because of the range parameter",
       false},
      {{{"x", 3, "vm"}}, "GRM structure not defined for model term vm(x)"},
  };
  for (const Case& c : cases) {
    ERROR_HANDLER eh;
    SMALL_MODEL m;
    m.random(c.term);
    m.set_up(eh);
    EXPECT_TRUE(has_message(eh, c.message));
    EXPECT_EQ(has_message(eh, " Failed to form variance structure "), c.stops);
    EXPECT_EQ(eh.EH_STATUS(), c.stops ? 4 : -3) << c.message;
    EXPECT_TRUE(eh.stack().entries.empty());
  }
}

TEST(Structures, KnownMatricesFitTheirFactor)
{
  for (const std::int64_t order : {2, 3, 4}) {
    ERROR_HANDLER eh;
    SMALL_MODEL m;
    m.matrices.matrices.push_back({.name = "K", .order = order});
    m.random({{"x", 3, "vm"}});
    m.factors.rows.back().matrix = "K";
    m.set_up(eh);
    if (order == 3) {
      EXPECT_TRUE(clean(eh));
      ASSERT_EQ(m.model.rows.size(), 1u);
      EXPECT_EQ(m.model.rows[0].matrix, &m.matrices.matrices.front());
      EXPECT_EQ(m.model.parameters[0].label, "vm(x);GRM_V");
      EXPECT_EQ(m.model.parameters[0].value, wide(0.1f));
    } else {
      EXPECT_TRUE(has_message(eh, order < 3 ? "GRM structure is smaller than model factor for term vm(x)"
                                            : "GRM structure seems larger than model factor for term vm(x)"));
    }
  }
}

TEST(StructureCheck, CountsVarianceScales)
{
  struct Case {
    std::vector<Component> term;
    Constraint second;
    const char* message;
  };
  for (const Case& c : {Case{{{"a", 2, "idv"}, {"b", 3, "idv"}},
                             Constraint::P,
                             "G structure for idv(a):idv(b) has 2 variance scale parameters to estimate"},
                        Case{{{"a", 2, "id"}, {"b", 3, "id"}},
                             Constraint::P,
                             "G structure for id(a):id(b) has 0 variance scale parameters to estimate"},
                        Case{{{"a", 2, "idv"}, {"b", 3, "idv"}}, Constraint::F, ""}}) {
    ERROR_HANDLER eh;
    SMALL_MODEL m;
    m.random(c.term);
    m.set_up(eh);
    if (c.second != Constraint::P) m.model.parameters[1].constraint = c.second;
    STRUCTURECHECK(eh, m.options, m.terms, m.design(), m.model);
    if (*c.message == '\0') {
      EXPECT_TRUE(clean(eh));
      continue;
    }
    EXPECT_TRUE(has_message(eh, c.message));
    EXPECT_TRUE(
        has_message(eh,
                    "normally (only) one structure term includes a variance, maybe you should change the "
                    "parameterisation"));
    EXPECT_EQ(eh.EH_STATUS(), -3);
  }
}

TEST(StructureCheck, ComparesTheResidualWithTheData)
{
  ERROR_HANDLER eh;
  SMALL_MODEL m;
  m.set_up(eh);
  m.records = 23;
  STRUCTURECHECK(eh, m.options, m.terms, m.design(), m.model);
  EXPECT_TRUE(has_message(eh,
                          "R structure for 24 records does not match the data, probably due to an imbalance "
                          "caused by the removal of missing values"));
  EXPECT_TRUE(has_message(
      eh, "number of sections: 1, total size of sections: 24, number of rows in design matrix: 23"));
  EXPECT_TRUE(has_message(eh, "the model is invalid"));
  EXPECT_EQ(eh.EH_STATUS(), 4);
}

}  // namespace
}  // namespace tolvan
