// The user's values and constraints: what they set, and every message.
#include "varstruct/initial_values.h"

#include "base/text.h"
#include "varstruct/constraints.h"
#include "varstruct/small_model.h"

namespace tolvan {
namespace {

/// Terms block, block:wplot, a:b with two variances, and fixed x; the term nodes are those of the request.
struct Fixture {
  SMALL_MODEL m;
  std::unique_ptr<JsonNode> request;
  ERROR_HANDLER eh;

  explicit Fixture(std::string_view text, bool sigma = false) : request(json(text))
  {
    m.add_term(m.add_factor({.name = "x", .levels = 1}), 1, Block::fixed, "x");
    m.random({{"block", 6}});
    m.random({{"block", 6}, {"wplot", 3}});
    m.random({{"a", 2, "idv", {0.5}}, {"b", 3, "idv", {0.25}}});
    m.options(Slot::varscale) = sigma ? 1 : 0;
    m.set_up(eh);
    EXPECT_TRUE(clean(eh));
    // "nodes" holds a node a term, as the parser of the model would keep them.
    if (const JsonNode* nodes = request->find("nodes")) {
      for (const auto& node : nodes->children()) {
        for (TERM_ROW& term : m.terms.rows) {
          const std::string_view key = term.name == "idv(a):idv(b)" ? "product" : std::string_view(term.name);
          if (key == node->name) term.initial_values = node.get();
        }
      }
    }
    FORCE_GAMMA_INITIAL_VALUES(eh, *request, m.factors, m.terms, DATA_STORE(), m.design(), m.model);
    EXPECT_TRUE(eh.stack().entries.empty());
  }

  /// "value letter" a parameter.
  std::string table() const
  {
    std::string out;
    for (const VARIANCE_PARAMETER& p : m.model.parameters) {
      out += text(out.empty() ? "" : " ", p.value, constraint_letter(p.constraint));
    }
    return out;
  }
};

TEST(InitialValues, SetValuesAndConstraints)
{
  const std::string g = text(wide(0.1f));
  struct Case {
    const char* request;
    std::string expected;  // block, block:wplot, a, b, residual
    bool sigma = false;
  };
  const Case cases[] = {
      {R"({})", g + "P " + g + "P 0.5P 0.25P 1P"},
      {R"({"initial_values":[{"term":"block","value":0.5,"constraint":"F"},{"term":"block:wplot;IDV_V","value":2}]})",
       "0.5F 2P 0.5P 0.25P 1P"},
      {R"({"model":{"initial_values":{"term":"a:b;b.IDV_V","constraint":"U"}}})",
       g + "P " + g + "P 0.5P 0.25U 1P"},
      {R"({"initial_values":[{"term":"block","constraint":"Z"},{"term":"block","value":3}]})",
       "3Z " + g + "P 0.5P 0.25P 1P"},
      {R"({"initial_values":[{"term":"units","value":1.0,"constraint":"P"}]})",
       g + "P " + g + "P 0.5P 0.25P 1P"},
      {R"({"initial_values":[{"term":"units","value":9,"constraint":"F"},{"term":"block","value":2}]})",
       "2P " + text(wide(0.1f) * 4) + "P 0.5P 0.25P 9F", true},
      {R"({"initial_values":[{"term":"block","value":"NoValueSupplied"},{"term":"block:wplot","value":-1e-37}]})",
       g + "P " + g + "P 0.5P 0.25P 1P"},
      {R"({"nodes":{"block":{"term_name":"block","values":[0.7],"ps_constraints":"C"}}})",
       "0.7C " + g + "P 0.5P 0.25P 1P"},
      {R"({"nodes":{"block":{"values":0.7},"product":{"initial_values":{"values":[3,4],"ps_constraints":"FU",
          "eq_constraints":"AB","use":"NoValueSupplied"}}}})",
       "0.7P " + g + "P 3F 4U 1P"},
      {R"({"nodes":{"product":{"values":"NoValueSupplied","ps_constraints":"B","eq_constraints":"1:2"}}})",
       g + "P " + g + "P 0.5B 0.25B 1P"},
      {R"({"model":{"residual":{"terms":[{"term_name":"units","values":[5],"ps_constraints":"H"}]}}})",
       text(wide(0.1f) * 4, "P ", wide(0.1f) * 4, "P 0.5P 0.25P 5H"), true},
      {R"({"nodes":{"product":{"values":[-3,0],"ps_constraints":"UP"}}})", g + "P " + g + "P -3U 0P 1P"},
      {R"({"initial_values":[{"term":"block","value":0.5}],"nodes":{"block":{"values":[0.75]}}})",
       "0.75P " + g + "P 0.5P 0.25P 1P"},
      {R"({"nodes":{"product":{"eq_constraints":"AA","values":[0.75,0.5]}}})",
       g + "P " + g + "P 0.75P 0.75C 1P"},
      {R"({"nodes":{"block:wplot":{"use":"block"},"block":{"values":[0.75]}}})", "0.75P 0.75C 0.5P 0.25P 1P"},
  };
  for (const Case& c : cases) {
    const Fixture f(c.request, c.sigma);
    EXPECT_GE(f.eh.EH_STATUS(), -1) << c.request;  // a note at most
    EXPECT_FALSE(f.eh.terminate()) << c.request;
    EXPECT_EQ(f.table(), c.expected) << c.request;
    for (const VARIANCE_PARAMETER& p : f.m.model.parameters) EXPECT_EQ(p.start, p.value);
  }
}

TEST(InitialValues, TellWhatIsWrong)
{
  struct Case {
    const char* request;
    const char* message;
    Ecode code = Ecode::invalid_input;
  };
  const Case cases[] = {
      {R"({"initial_values":[{"term":"block","value":0.5},{"term":"block","value":0.25}]})",
       "at least two initial values have been supplied for block:   0.5000E+00 and   0.2500E+00"},
      {R"({"initial_values":[{"term":"block","constraint":"F"},{"term":"block;IDV_V","constraint":"U"}]})",
       "at least two constraints have been supplied for block;IDV_V: F and U"},
      {R"({"initial_values":[{"term":"plot","value":0.5}]})",
       "an initial value was supplied for the term plot, but it is not in the model"},
      {R"({"initial_values":[{"term":"a:b","value":0.5}]})",  // owns two
       "an initial value was supplied for the term a:b, but it is not in the model"},
      {R"({"initial_values":[{"term":"x","value":0.5}]})",
       "an initial value was supplied for the term x, but it is not in the model"},
      {R"({"initial_values":[{"term":"block","constraint":"f"}]})",
       "unexpected constraint code (f) supplied for term block"},
      {R"({"initial_values":[{"term":"block","constraint":"FF"}]})",
       "FF is not a valid value for a constraint code"},
      {R"({"initial_values":[{"term":"block","constraint":1}]})",
       "1 is not a valid value for a constraint code"},
      {R"({"initial_values":[{"value":1}]})", "term is required but was not found"},
      {R"({"initial_values":[{"term":4,"value":1}]})", "was expecting one of: the name of a term"},
      {R"({"initial_values":[{"term":"block","value":"2"}]})", "was expecting one of: a number"},
      {R"({"initial_values":[1,2]})", "was expecting one of: a list of objects"},
      {R"({"initial_values":["block"]})", "was expecting one of: an object with the keys"},
      {R"({"initial_values":[{"term":"units","value":2.0}]})",
       "If you are attempting to fit a residual using units, try using the sigma parameterization"},
      {R"({"initial_values":[{"term":"units","constraint":"F"}]})", "by setting varscale to 1.0"},
      {R"({"nodes":{"block":{"values":[1,2]}}})",
       "unexpected number of initial values supplied for block, number expected = 1, number supplied = 2"},
      {R"({"nodes":{"block":{"values":["1"]}}})", "was expecting one of: a list of numbers"},
      {R"({"nodes":{"block":{"initial_values":3}}})", "was expecting one of: an object"},
      {R"({"nodes":{"x":{"values":[1]}}})",
       "no structure vector set up for x, cannot apply variance structure qualifiers"},
      {R"({"nodes":{"product":{"eq_constraints":"A"}}})",
       "incorrect number of values supplied in  the equality constraints for idv(a):idv(b)"},
      {R"({"nodes":{"product":{"eq_constraints":"ab"}}})",
       "ab is not a valid string for supplying equality constraints for idv(a):idv(b)"},
      {R"({"nodes":{"product":{"ps_constraints":"PPP"}}})",
       "incorrect number of values supplied in  the parameter space constraints for idv(a):idv(b)"},
      {R"({"nodes":{"block":{"ps_constraints":"p"}}})",
       "p is not a valid string for supplying parameter space constraints for block"},
      {R"({"nodes":{"block":{"use":"nobody"}}})",
       "the term nobody used when setting error structure for block doe not exist in the model"},
      {R"({"nodes":{"block":{"use":"a:b"}}})",
       "unable to find which block of gamma values are associated with block"},
      {R"({"nodes":{"block":{"use":"units"}}})",
       "If you are attempting to fit a residual using block, try using the sigma parameterization"},
      {R"({"nodes":{"block":{"coord":[1,2,3]}}})", "No cordinates required for block"},
      {R"({"nodes":{"block":{"sing":3}}})",
       "invalid number of levels for SING option, was expecting an even number, observed = 3"},
      {R"({"nodes":{"block":{"sing":4,"subsection":"block"}}})", "sing of block, together with subsection, is not implemented",
       Ecode::not_implemented},
      {R"({"nodes":{"block":{"sing":"4"}}})", "was expecting one of: an integer"},
      {R"({"nodes":{"block":{"subsection":"nobody"}}})",
       "the term nobody used when subsection for block doe not exist in the model"},
      {R"({"nodes":{"block":{"subsection":"x"}}})",
       "the term x used when subsection for block doe not exist in the model"},
      {R"({"initial_values":[{"term":"block","value":-0.5}]})",
       "the initial value -0.5 of block;IDV_V is below zero: give a value above zero, or the constraint U"},
      {R"({"nodes":{"product":{"values":[1,-2],"ps_constraints":"UZ"}}})",
       "of a:b;b.IDV_V is below zero: give a value above zero, or the constraint U"},
      {R"({"initial_values":[{"term":"block","value":2e12,"constraint":"U"}]})",
       "of block;IDV_V is too large: against it the residual variance would be lost in rounding"},
      {R"({"model":[{"residual":{"terms":[{"term_name":"units","values":[5]}]}}]})",
       "If you are attempting to fit a residual using units, try using the sigma parameterization"},
  };
  for (const Case& c : cases) {
    const Fixture f(c.request);
    EXPECT_TRUE(has_message(f.eh, c.message)) << c.request;
    EXPECT_EQ(f.eh.EH_STATUS(), 4) << c.request;
    ASSERT_FALSE(f.eh.messages().empty());
    EXPECT_EQ(f.eh.messages().front().ecode, c.code) << c.request;
  }
}

TEST(Constraints, LettersHaveTheirCodes)
{
  EXPECT_EQ(constraint_of('P'), Constraint::P);
  EXPECT_EQ(constraint_of('.'), Constraint::none);
  EXPECT_EQ(constraint_of('H'), Constraint::H);
  EXPECT_FALSE(constraint_of('p'));
  EXPECT_FALSE(constraint_of('G'));
  ERROR_HANDLER eh;
  Constraint code = Constraint::F;
  GET_GMCSTR(eh, nullptr, code);
  EXPECT_TRUE(clean(eh));
  EXPECT_EQ(code, Constraint::P);
}

TEST(Constraints, EqualityGroups)
{
  using Groups = std::vector<std::int64_t>;
  struct Case {
    const char* letters;
    bool legal;
    Groups groups;
  };
  for (const Case& c :
       {Case{"1:4", true, {1, 2, 3, 4}}, Case{"AAB", true, {1, 1, 2}}, Case{"A:D", true, {1, 2, 3, 4}},
        Case{"0129", true, {0, 1, 2, 9}}, Case{"1:3:5", true, {1, 2, 3, 4, 5}}, Case{"2:2A", true, {2, 1}},
        Case{"AB CD", true, {1, 2}}, Case{"", true, {}}, Case{"8:C", false, {}}, Case{":3", false, {}},
        Case{"1:", false, {}}, Case{"1::3", false, {}}, Case{"3:1", false, {}}, Case{"a", false, {}},
        Case{"A-B", false, {}},
        Case{"J:Z", true, {10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26}}}) {
    Groups groups;
    EXPECT_EQ(read_equality_groups(c.letters, groups), c.legal) << c.letters;
    EXPECT_TRUE(!c.legal || groups == c.groups) << c.letters;
  }
}

}  // namespace
}  // namespace tolvan
