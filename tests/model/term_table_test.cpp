// From a standard request to the factor and term tables.
#include "model/term_table.h"

#include <gtest/gtest.h>

#include "base/text.h"
#include "model/find_terms.h"
#include "model/request.h"
#include "support/checks.h"

namespace tolvan {
namespace {

/// A request read into its tables; the data are told by the variables' level counts.
struct Parsed {
  std::unique_ptr<JsonNode> root;
  VARIABLE_TABLE variables;
  FACTOR_TABLE factors;
  TERM_TABLE terms;
  MODEL_INFO info;
  ERROR_HANDLER eh;
};

VARIABLE variable(std::string name, std::int64_t levels, const std::vector<std::string>& labels = {})
{
  VARIABLE v;
  v.name = std::move(name);
  v.levels = levels;
  v.type = levels == 0      ? FieldType::variate
           : labels.empty() ? FieldType::integer_factor_1_to_n
                            : FieldType::string_factor;
  for (const std::string& label : labels) v.labels.find_or_add(label);
  return v;
}

void parse_request(std::string_view request, std::vector<VARIABLE> variables, Parsed& out, std::int64_t records = 12,
                   std::int64_t missing = 0)
{
  JsonError error;
  out.root = parse_json(request, error);
  ASSERT_TRUE(out.root) << error.message << " in " << request;
  out.variables.rows = std::move(variables);
  bool present = false;
  const COMMUNICATION communication;
  API_STANDARDISE_AND_EXPAND_JSON(out.eh, communication, out.root.get(), present);
  if (!out.eh.terminate())
    NEW_PARSE_LINEAR_MODEL(out.eh, communication, *out.root, out.variables, out.factors, out.terms, out.info);
  if (!out.eh.terminate())
    COMPLETE_LINEAR_MODEL(out.eh, communication, *out.root, out.variables, out.factors, out.terms, out.info);
  if (!out.eh.terminate())
    SET_TERM_EQUATIONS(out.eh, out.variables, records, missing, out.factors, out.terms);
  EXPECT_TRUE(out.eh.stack().entries.empty());
}

void parse(std::string_view model, std::vector<VARIABLE> variables, Parsed& out, std::int64_t records = 12,
           std::int64_t missing = 0)
{
  parse_request(text(R"j({"model":)j", model, "}"), std::move(variables), out, records, missing);
}

std::vector<VARIABLE> split_plot()
{
  return {variable("block", 2), variable("wplot", 3), variable("variety", 3, {"gold", "marv", "vict"}),
          variable("nitro", 2), variable("y", 0),     variable("x", 0)};
}

/// "name levels<source" for each factor row.
std::string factor_text(const FACTOR_TABLE& factors)
{
  std::string out;
  for (const FACTOR_ROW& f : factors.rows)
    out += text(out.empty() ? "" : " ", f.shown(), " ", f.levels, f.source > 0 ? text("<", f.source) : "");
  return out;
}

/// "name code equations@first block" for each term; blocks y, f, r, s, e.
std::string term_text(const TERM_TABLE& terms)
{
  std::string out;
  for (const TERM_ROW& t : terms.rows)
    out += text(out.empty() ? "" : ", ", t.name, " ", t.code, " ", t.equations, "@", t.first, " ",
                "yfrse"[static_cast<int>(t.block)]);
  return out;
}

TEST(TermTable, SplitPlot)
{
  Parsed p;
  parse(R"j({"response":"y","fixed":"variety*nitro","random":"block/wplot","residual":"units"})j",
        split_plot(), p);
  ASSERT_TRUE(clean(p.eh));
  EXPECT_EQ(
      factor_text(p.factors),
      "block 2 wplot 3 variety 3 nitro 2 y 1 x 1 mu 1 units 12 variety 3<3 nitro 2<4 block 2<1 wplot 3<2");
  EXPECT_EQ(term_text(p.terms),
            "y 5 0@0 y, mu 7 1@0 f, variety 3 3@1 f, nitro 4 2@4 f, variety:nitro 20009 6@6 f, block 1 2@12 "
            "r, block:wplot 20011 6@14 r, units 8 0@20 e");
  EXPECT_EQ(p.terms.equations, 20);
  EXPECT_EQ(p.terms.fixed_equations, 12);
  EXPECT_EQ(p.info.responses, std::vector<std::int64_t>{5});
  ASSERT_NE(p.info.residual, nullptr);
  EXPECT_EQ(p.terms.rows[4].components(), std::pair(std::int64_t{9}, std::int64_t{10}));
  for (const FACTOR_ROW& f : p.factors.rows)
    EXPECT_EQ(f.variable, f.reserved != Reserved::none ? 0 : p.variables.find(f.name)) << f.name;

  const auto level = [&](std::size_t term, std::int64_t k) {
    return level_name(p.eh, p.variables, p.factors, p.terms.rows[term], k);
  };
  EXPECT_EQ(level(1, 1), "1");       // mu
  EXPECT_EQ(level(2, 3), "vict");    // variety
  EXPECT_EQ(level(4, 4), "marv.2");  // variety:nitro, the last factor fastest
  EXPECT_EQ(level(6, 6), "2.3");     // block:wplot
  EXPECT_TRUE(CHECK_FOR_INTERACTION_NO_MAIN(p.factors, p.terms) == std::vector<std::int64_t>{7});
}

TEST(TermTable, MissingResponsesAreALastTerm)
{
  Parsed p;
  parse(R"j({"response":"yield","fixed":"gen","random":"rep","sparse":"mv"})j",
        {variable("gen", 2, {"A", "B"}), variable("rep", 2, {"1", "2"}), variable("yield", 0)}, p, 4, 1);
  ASSERT_TRUE(clean(p.eh));
  EXPECT_EQ(factor_text(p.factors), "gen 2 rep 2 yield 1 mu 1 units 4 mv 1");
  EXPECT_EQ(term_text(p.terms), "yield 3 0@0 y, mu 4 1@0 f, gen 1 2@1 f, rep 2 2@3 r, mv_estimates 6 1@5 s");
  EXPECT_TRUE(p.terms.rows.back().is_mv);
  EXPECT_TRUE(p.info.has_mv);
}

TEST(TermTable, StructuresStandOnCopies)
{
  Parsed p;
  parse(R"j({"response":"y","random":"idv(block,0.8)+id(nitro)+idv(wplot,init=[0.3]):id(units)+units"})j",
        split_plot(), p);
  ASSERT_TRUE(clean(p.eh));
  EXPECT_EQ(term_text(p.terms),
            "y 5 0@0 y, mu 7 1@0 f, idv(block,0.8) 10009 2@1 r, id(nitro) 10010 2@3 r, "
            "idv(wplot,[0.3]):id(units) 20011 36@5 r, units 8 12@41 r");
  EXPECT_EQ(p.factors.row(9).structure, "idv");
  EXPECT_EQ(p.factors.row(9).init, std::vector<double>{0.8});
  EXPECT_EQ(p.factors.row(9).variable, 1);
  EXPECT_EQ(p.factors.row(10).structure, "id");
  EXPECT_EQ(p.factors.row(11).init, std::vector<double>{0.3});
  EXPECT_EQ(p.factors.row(12).reserved, Reserved::units);
  EXPECT_EQ(level_name(p.eh, p.variables, p.factors, p.terms.rows[4], 13), "2.1");
}

TEST(TermTable, CovariatesInteractWithFactors)
{
  Parsed p;
  parse(
      R"j({"response":"y","fixed":"x+variety+variety:x+x:mu","weights":"x","random":{"terms":[{"term_name":"block","values":[2]}]}})j",
      split_plot(), p);
  ASSERT_TRUE(clean(p.eh));
  EXPECT_EQ(term_text(p.terms),
            "y 5 0@0 y, mu 7 1@0 f, x 6 1@1 f, variety 3 3@2 f, variety:x 20009 3@5 f, x:mu 20011 1@8 f, "
            "block 1 2@9 r");
  EXPECT_EQ(level_name(p.eh, p.variables, p.factors, p.terms.rows[4], 2), "marv");
  EXPECT_EQ(level_name(p.eh, p.variables, p.factors, p.terms.rows[5], 1), "1");
  EXPECT_EQ(p.info.weights, 6);
  ASSERT_NE(p.terms.rows[6].initial_values, nullptr);
  EXPECT_NE(p.terms.rows[6].initial_values->find("values"), nullptr);
  EXPECT_TRUE(CHECK_FOR_INTERACTION_NO_MAIN(p.factors, p.terms).empty());
}

TEST(TermTable, RefusalsNameTheirTerm)
{
  struct Case {
    const char* model;
    Ecode code;
    const char* message;
  };
  const Ecode bad = Ecode::invalid_input, later = Ecode::not_implemented;
  const Case cases[] = {
      {R"j({"response":"z"})j", bad, "the response variable, z, is unknown"},
      {R"j({"response":"mu"})j", bad, "the response variable, mu, is unknown"},
      {R"j({"response":"y","family":["gaussian","gaussian"]})j", bad,
       "1 response variables were supplied, but 2 distributions"},
      {R"j({"response":"at(block)"})j", bad, "Unrecognised argument in at(block)"},
      {R"j({"response":"at(mu,1)"})j", bad, "the response variable, at(mu,1), is unknown"},
      {R"j({"response":"at(block,1):y"})j", bad, "the response variable, at(block,1):y, is unknown"},
      {R"j({"response":"at(block,1)+at(block,1)"})j", bad, "the response variable, at(block,1), was supplied more than once"},
      {R"j({"response":"variety","family":"binomial"})j", bad, "variety has too many levels."},
      {R"j({"response":"y","fixed":"zz"})j", bad, "unknown term (zz) in the model"},
      {R"j({"response":"y","fixed":"a.b"})j", bad, "a.b is not a valid variable name"},
      {R"j({"response":"y","random":"block:zz"})j", bad, "unknown term (zz) in the model"},
      {R"j({"response":"y","random":"idv(zz)"})j", bad, "unknown term (zz) in the model"},
      {R"j({"response":"y","random":"mv:block"})j", bad,
       "mv can not be used as part of an interaction or as an argument to a function call"},
      {R"j({"response":"y","fixed":"spl(x,2)"})j", bad, "invalid argument for spl(x,2)"},
      {R"j({"response":"y","fixed":"block:pol(pol(x,1),2)"})j", bad, "invalid argument for pol(pol(x,1),2)"},
      {R"j({"response":"y","fixed":"con(x)"})j", bad, "invalid argument for con(x)"},
      {R"j({"response":"y","fixed":"leg(mu,2)"})j", bad, "invalid argument for leg(mu,2)"},
      {R"j({"response":"y","fixed":"leg(x,1001)"})j", bad, "invalid argument for leg(x,1001)"},
      {R"j({"response":"y","fixed":"zero(0)"})j", bad, "invalid argument for zero(0)"},
      {R"j({"response":"y","fixed":"vect(zz)"})j", bad, "you need to predefine zz"},
      {R"j({"response":"y","fixed":"fac(x,zz)"})j", bad, "unknown term (zz) in the model"},
      {R"j({"response":"y","weights":"w"})j", bad, "the weight variable, w, is unknown"},
      {R"j({"response":"y","weights":"block"})j", bad, "the weight variable, block, is not a variate"},
      {R"j({"response":"y","weights":3})j", bad,
       "invalid value supplied for model.weights, was expecting one of: the name of a variable, supplied "
       "value = 3"},
      {R"j({"response":"y","family":"binomal"})j", bad, "binomal is not a recogised family name"},
      {R"j({"response":"y","family":"poisson(link=log)"})j", later,
       "the family poisson with the link log is not implemented yet"},
      {R"j({"response":"y","family":"gaussian(link=log)"})j", later,
       "the family gaussian with the link log is not implemented yet"},
      {R"j({"response":"y","family":"gaussian(dispersion=2)"})j", later,
       "the argument dispersion of the family gaussian is not implemented yet"},
      {R"j({"response":"y","fixed":{"terms":["mu",{"interaction":["block",{"interaction":["zz","x"]}]}]}})j",
       bad, "unknown term (zz) in the model"},
  };
  for (const Case& c : cases) {
    Parsed p;
    parse(c.model, split_plot(), p);
    EXPECT_TRUE(p.eh.terminate()) << c.model;
    const ERROR_MESSAGE* found = nullptr;
    for (const ERROR_MESSAGE& m : p.eh.messages())
      if (m.etype == Etype::error) found = &m;
    ASSERT_NE(found, nullptr) << c.model;
    EXPECT_EQ(found->message, c.message) << c.model;
    EXPECT_EQ(found->ecode, c.code) << c.model;
  }
}

TEST(TermTable, TermsAndFactorsAreFoundByWhatARequestCallsThem)
{
  Parsed p;
  parse(R"j({"response":"y","fixed":"variety*nitro+at(nitro):x","random":"idv(block,0.8)+block:wplot+ric(wplot,G)","sparse":"mv",
             "residual":"idv(units)"})j",
        split_plot(), p);
  ASSERT_TRUE(clean(p.eh));
  struct Case {
    const char* asked;
    const char* found;  // rows, or "! " and the message
  };
  const Case terms[] = {
      {R"j(["mu"])j", "1"},
      {R"j(["variety",{"interaction":["variety","nitro"]}])j", "2 4"},
      {R"j({"terms":[{"interaction":["nitro","variety"]},"variety:nitro","mv"]})j", "4 12"},
      {R"j([{"function":{"name":"idv","arguments":[{"name":"variable_name","value":"block"},{"name":"init","value":0.8}]}}])j", "7"},
      {R"j(["at(nitro,2):x"])j", "6"},
      {R"j([{"interaction":[{"function":{"name":"at","arguments":[{"name":"variable_name","value":"nitro"}]}},"x"]}])j", "5 6"},
      {R"j([{"user_facing_factor_name":"ric(wplot,G)"}])j", "9 10"},
      {R"j(["ide(wplot,G)"])j", "10"},
      {R"j([])j", ""},
      {R"j(["y"])j", "! y is unknown"},
      {R"j(["idv(units)"])j", "! idv(units) is unknown"},
      {R"j(["block:nitro"])j", "! block:nitro is unknown"},
      {R"j([7])j", "! invalid term supplied"},
      {R"j([[]])j", "! invalid term supplied"},
      {R"j("mu")j", "! invalid term supplied"},
      {R"j({})j", "! invalid term supplied"},
  };
  JsonError error;
  for (const Case& c : terms) {
    ERROR_HANDLER eh;
    const auto node = parse_json(c.asked, error);
    ASSERT_TRUE(node) << c.asked;
    std::string found;
    for (const std::int64_t row : GET_TERM_IDS_FROM_FORMULA_JPTR(eh, COMMUNICATION(), p.terms, *node))
      found += text(found.empty() ? "" : " ", row);
    EXPECT_EQ(eh.terminate() ? "! " + eh.EH_LAST_MESSAGE() : found, c.found) << c.asked;
  }
  const Case factors[] = {
      {R"j("variety")j", "3"}, {R"j(3)j", "3"}, {R"j({"term_name":"units"})j", "8"}, {R"j("at(nitro,1)")j", "12"},
      {R"j("z")j", "! unable to find a factor called z"}, {R"j(0)j", "! unable to find a factor called 0"},
      {R"j(2.5)j", "! unable to read value"}, {R"j(true)j", "! unable to read value"},
  };
  for (const Case& c : factors) {
    ERROR_HANDLER eh;
    const auto node = parse_json(c.asked, error);
    const std::int64_t row = GET_FACTOR_ID_FROM_JPTR(eh, COMMUNICATION(), p.factors, *node);
    EXPECT_EQ(eh.terminate() ? "! " + eh.EH_LAST_MESSAGE() : text(row), c.found) << c.asked;
  }
}

TEST(TermTable, FactorsMayBeResponses)
{
  Parsed p;
  parse(R"j({"response":"nitro","family":"gaussian(link=identity)"})j", split_plot(), p);
  EXPECT_FALSE(p.eh.terminate());
  EXPECT_TRUE(has_message(p.eh, "the response variable is typically a variate."));
  EXPECT_EQ(p.eh.EH_STATUS(), -1);
}

TEST(TermTable, WhatIsTakenForGrantedIsTold)
{
  struct Case {
    const char* model;
    const char* message;
  };
  const Case cases[] = {
      {R"j("response":"y","fixed":"x+zero"},"contrast":[{"name":"x","variable":"block","values":[1,2]}])j",
       "ambiguous model term \"x\" is taken as \"variable x\" and not \"contrast x\""},
      {R"j("response":"y","fixed":"zero"})j",
       "zero is assumed to have 1 levels. If more, specify the factor levels when defining the variables"},
      {R"j("response":"y","fixed":"ma1(block)"})j", "Design function ma1(.) is now treated as a Variance Function"},
      {R"j("response":"y","sparse":"us(block):x"})j", "a variance structure has no effect on a fixed term"},
      {R"j("response":"nitro"})j", "the response variable is typically a variate."},
  };
  for (const Case& c : cases) {
    Parsed p;
    parse_request(text(R"j({"model":{)j", c.model, "}"), split_plot(), p);
    EXPECT_FALSE(p.eh.terminate()) << c.model;
    EXPECT_TRUE(has_message(p.eh, c.message)) << c.model;
  }
}

TEST(TermTable, TooManyEquationsAndFactorsAreTold)
{
  Parsed big;
  parse(R"j({"response":"y","random":"a:b:c"})j",
        {variable("y", 0), variable("a", 1 << 30), variable("b", 1 << 30), variable("c", 1 << 30)}, big);
  EXPECT_TRUE(has_message(big.eh, "the model has too many equations"));
  std::string terms;
  for (int k = 0; k < 6000; ++k) terms += text(k > 0 ? "," : "", R"j({"interaction":["a","v)j", k, "\"]}");
  std::vector<VARIABLE> variables{variable("y", 0), variable("a", 2)};
  for (int k = 0; k < 6000; ++k) variables.push_back(variable(text("v", k), 2));
  Parsed many;
  parse(text(R"j({"response":"y","random":{"terms":[)j", terms, "]}}"), std::move(variables), many);
  EXPECT_TRUE(has_message(many.eh, "too many factors"));
}

}  // namespace
}  // namespace tolvan
