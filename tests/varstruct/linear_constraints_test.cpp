// Links between parameters: vcc_constraint and vcm, what they set and every message.
#include "varstruct/followers.h"
#include "varstruct/linear_constraints.h"

#include <algorithm>

#include "base/text.h"
#include "varstruct/small_model.h"

namespace tolvan {
namespace {

/// Parameters 1 to 4: diag(s); 5 to 8: diag(t); 9: block; 10: the residual.
struct Fixture {
  SMALL_MODEL m;
  std::unique_ptr<JsonNode> request;
  ERROR_HANDLER eh;

  explicit Fixture(std::string_view text, bool sigma = true) : request(json(text))
  {
    m.options(Slot::varscale) = sigma ? 1 : 0;
    m.random({{"s", 4, "diag", {1, 2, 3, 4}}});
    m.random({{"t", 4, "diag", {5, 6, 7, 8}}});
    m.random({{"block", 6}});
    m.set_up(eh);
    EXPECT_TRUE(clean(eh));
    m.model.parameters[8].value = m.model.parameters[8].start = 9;
    m.model.parameters[7].constraint = Constraint::F;
    HANDLE_VCM(eh, *request, m.factors, m.terms, m.model);
    if (!eh.terminate()) HANDLE_VCC_CONSTRAINTS(eh, *request, m.factors, m.terms, m.model);
    EXPECT_TRUE(eh.stack().entries.empty());
  }

  /// "follower=coefficient*master" of every follower, whose values are checked.
  std::string links() const
  {
    std::string out;
    for (std::size_t k = 0; k < m.model.parameters.size(); ++k) {
      const VARIANCE_PARAMETER& p = m.model.parameters[k];
      if (!follows(p)) continue;
      out += text(out.empty() ? "" : " ", k + 1, "=");
      double value = 0.0;
      std::string joined;
      for (const PARAMETER_SHARE& share : made_of(m.model, static_cast<std::int64_t>(k))) {
        joined += text(joined.empty() ? "" : "+", share.by, "*", share.of + 1);
        const VARIANCE_PARAMETER& master = m.model.parameters[static_cast<std::size_t>(share.of)];
        EXPECT_FALSE(follows(master));
        value += share.by * master.value;
      }
      out += joined;
      EXPECT_EQ(p.constraint, Constraint::C);
      EXPECT_EQ(p.value, value);
      EXPECT_EQ(p.start, p.value);
    }
    return out;
  }
};

TEST(LinearConstraints, LinkParameters)
{
  struct Case {
    const char* request;
    const char* links;
  };
  for (
      const Case& c : {
          Case{R"({"vcc_constraint":["1 3"]})", "3=1*1"},
          // sums: the first independent rows lead
          Case{R"({"vcm":[{"term_id":1,"values":[1,0]},{"term_id":2,"values":[0,1]},{"term_id":3,"values":[1,-2]}]})", "3=1*1+-2*2"},
          Case{R"({"vcm":[{"term_id":1,"values":[1,1]},{"term_id":2,"values":[1,2]},{"term_id":3,"values":[1,3]},{"term_id":4,"values":[2,2]}]})",
               "3=-1*1+2*2 4=2*1"},
          Case{R"({"vcm":[{"term_id":4,"values":[1,1]}]})", ""},
          // a leader that follows another one takes its sums along
          Case{R"({"vcm":[{"term_id":1,"values":[1,0]},{"term_id":2,"values":[0,1]},{"term_id":3,"values":[1,1]}],"vcc_constraint":["4 1*2"]})",
               "1=2*4 3=1*2+2*4"},
          Case{R"({"vcc_constraint":["1 3*0.5 4:-2"]})", "3=0.5*1 4=-2*1"},
          Case{R"({"vcc_constraint":["1*2, 3*0.5"]})", "3=0.25*1"},
          Case{R"({"vcc_constraint":["2-4"]})", "3=1*2 4=1*2"},
          Case{R"({"vcc_constraint":"5 1-3*0.5"})", "1=0.5*5 2=0.5*5 3=0.5*5"},
          Case{R"({"vcc_constraint":["block 1","2 3"]})", "1=1*9 3=1*2"},
          Case{R"({"vcc_constraint":["block;IDV_V t;DIAG_V_2*3"]})", "6=3*9"},
          Case{R"({"vcc_constraint":["1 2","5 1"]})", "1=1*5 2=1*5"},
          Case{R"({"vcc_constraint":["!OF 4 1 2","!OF -4 1 3"]})", "3=1*1 6=1*5"},
          Case{R"({"vcc_constraint":["1 5 !BL 3"]})", "5=1*1 6=1*2 7=1*3"},
          Case{R"({"vcc_constraint":["s t*0.5"]})", "5=0.5*1 6=0.5*2 7=0.5*3 8=0.5*4"},
          Case{R"({"vcc_constraint":["1 2 !DO 2 !BL 2"]})", "2=1*1 4=1*3"},
          Case{R"({"vcc_constraint":["1 5 !DO 3"]})", "5=1*1 6=1*2 7=1*3"},
          Case{R"({"model":{"vcc_constraint":["9 1"]}})", "1=1*9"},
          Case{R"({"vcc_constraint":[]})", ""},
          Case{
              R"({"vcm":[{"term":"s;DIAG_V_1","values":[1,0]},{"term_id":2,"values":[0,2]},{"term":"block","values":[0,1]},{"term_id":3,"values":[0.5,0]}]})",
              "3=0.5*1 9=0.5*2"},
          Case{R"({"vcm":{"term_id":1,"values":2}})", ""},
      }) {
    const Fixture f(c.request);
    EXPECT_FALSE(f.eh.terminate()) << c.request << f.eh.EH_PRINT_TEXT();
    EXPECT_EQ(f.links(), c.links) << c.request;
  }
  // A row of zeros fixes its parameter.
  const Fixture f(R"({"vcm":[{"term_id":1,"values":[1]},{"term_id":2,"values":[0]}]})");
  EXPECT_EQ(f.m.model.parameters[1].value, 0.0);
  EXPECT_EQ(f.m.model.parameters[1].constraint, Constraint::F);
  EXPECT_EQ(f.m.model.vcm.size(), 2u);
}

TEST(LinearConstraints, TellWhatIsWrong)
{
  struct Case {
    const char* request;
    std::vector<const char*> messages;
    bool sigma = true;
    Ecode code = Ecode::invalid_input;
  };
  const Case cases[] = {
      {R"({"vcc_constraint":["1 3","3 4"]})",
       {"fault in Gamma constraints for parameter 3, relationships must be defined relative to parameter 1"}},
      {R"({"vcc_constraint":["1 3*2","2 3"]})",
       {"in Variance Parameter Constraint for parameter 3 [    3.0000] and coefficient  [    1.0000], it is "
        "already linked to parameter 1 with coefficient     2.0000"}},
      {R"({"vcc_constraint":["1 1"]})", {"it is already linked to parameter 1 with coefficient     1.0000"}},
      {R"({"vcc_constraint":["0 1"]})",
       {"0 is invalid as the number of a variance parameter to be constrained"}},
      {R"({"vcc_constraint":["11 1"]})",
       {"11 is invalid as the number of a variance parameter to be constrained"}},
      {R"({"vcc_constraint":["1 12"]})",
       {"in Variance Parameter Constraint, parameter 12 is undefined",
        "defined parameter numbers are:", "parameter numbered 4 has value       4.0000"}},
      {R"({"vcc_constraint":["1 5-99"]})",
       {"99 is invalid as the number of a variance parameter to be constrained"}},
      {R"({"vcc_constraint":["4-2"]})",
       {"2 is invalid as the number of a variance parameter to be constrained"}},
      {R"({"vcc_constraint":["1 10"]})",
       {"10 is invalid as the number of a variance parameter to be constrained",
        "it is the residual variance"},
       false},
      {R"({"vcc_constraint":["block nobody"]})", {"constraint term nobody is not in the model"}},
      {R"({"vcc_constraint":["!OF 40 1 2"]})", {"VCC OFFSET too large!"}},
      {R"({"vcc_constraint":["!OF 4 1 2","7 3"]})",
       {"VCC parameter numbers adjusted 4 positions", "11 is invalid as the number"}},
      {R"({"vcc_constraint":["1 2 !DO"]})", {"issue reading vcc constraints"}},
      {R"({"vcc_constraint":["1 2 !XX 3"]})", {"issue reading vcc constraints"}},
      {R"({"vcc_constraint":["1 2*x"]})", {"issue reading vcc constraints"}},
      {R"({"vcc_constraint":["1*0 2"]})", {"issue reading vcc constraints"}},
      {R"({"vcc_constraint":["1 2 !DO 99"]})",
       {"99 is invalid as the number of a variance parameter to be constrained"}},
      {R"({"vcc_constraint":[1,2]})", {"issue reading vcc constraints"}},
      {R"({"vcc_constraint":{"a":1}})", {"issue reading vcc constraints"}},
      {R"({"vcm":[{"term_id":8,"values":[1]}]})",
       {"VCM constraint not permitted on variance parameter 8"}},  // fixed
      {R"({"vcm":[{"term_id":10,"values":[1]}]})",
       {"VCM constraint not permitted on variance parameter 10"},
       false},
      {R"({"vcm":[{"term_id":1,"values":[1]},{"term":"s;DIAG_V_1","values":[1]}]})",
       {"at least two sets of VCM information has been supplied for s;DIAG_V_1"}},
      {R"({"vcm":[{"term_id":1,"values":[1,0]},{"term_id":2,"values":[1]}]})",
       {"the same number of values should be supplied for each of the VCM entries",
        "1 values supplied for 2, expected 2"}},
      {R"({"vcm":[{"values":[1]}]})",
       {"was expecting either a name or ID number in each of the VCM entries"}},
      {R"({"vcm":[3]})", {"was expecting either a name or ID number in each of the VCM entries"}},
      {R"({"vcm":[{"term_id":11,"values":[1]}]})",
       {"invalid ID supplied for a VCM entry, value = 11, supplied values must be in the range [1,10]"}},
      {R"({"vcm":[{"term":"nobody","values":[1]}]})",
       {"VCM constraint was supplied for the term nobody, but it is not in the model"}},
      {R"({"vcm":[{"term":"s","values":[1]}]})",
       {"VCM constraint was supplied for the term s, but it is not in the model",
        "the term has 4 parameters"}},
      {R"({"vcm":[{"term_id":1,"values":["a"]}]})", {"a list of finite numbers"}},
      {R"({"vcm":[{"term_id":1,"values":[1,0]},{"term_id":2,"values":[0,1]},{"term_id":3,"values":[1,1]}],"vcc_constraint":["4 3"]})",
       {"it is already linked to parameter 1 with coefficient     1.0000"}},
  };
  for (const Case& c : cases) {
    const Fixture f(c.request, c.sigma);
    for (const char* message : c.messages) EXPECT_TRUE(has_message(f.eh, message)) << c.request;
    EXPECT_EQ(f.eh.EH_STATUS(), 4) << c.request;
    const auto& all = f.eh.messages();
    const auto stop =
        std::find_if(all.begin(), all.end(), [](const ERROR_MESSAGE& m) { return m.terminate; });
    ASSERT_NE(stop, all.end()) << c.request;
    EXPECT_EQ(stop->ecode, c.code) << c.request;
  }
}

}  // namespace
}  // namespace tolvan
