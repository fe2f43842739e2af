// Requests and their standard form.
#include "model/request.h"

#include <gtest/gtest.h>

#include <random>

#include "base/text.h"
#include "model/term_table.h"
#include "support/checks.h"

namespace tolvan {
namespace {

struct Standardised {
  std::unique_ptr<JsonNode> root;
  ERROR_HANDLER eh;
  bool model = false;
};

void standardise(std::string_view request, Standardised& out)
{
  JsonError error;
  out.root = parse_json(request, error);
  ASSERT_TRUE(out.root) << error.message << " in " << request.substr(0, 200);
  API_STANDARDISE_AND_EXPAND_JSON(out.eh, COMMUNICATION(), out.root.get(), out.model);
  EXPECT_TRUE(out.eh.stack().entries.empty());
}

/// The standard form, or the messages of a request that is refused.
std::string result_of(std::string_view request)
{
  Standardised s;
  standardise(request, s);
  if (!s.eh.terminate()) return json_text(*s.root);
  std::string all;
  for (const ERROR_MESSAGE& m : s.eh.messages()) all += (all.empty() ? "" : " | ") + m.message.value_or("");
  return all;
}

std::string with_model(std::string_view parts)
{
  return text(R"j({"model":{"response":"y",)j", parts, "}}");
}

/// Of the model {"response":"y", parts}: one part of its standard form, or the messages.
std::string part_of(std::string_view parts, const char* part)
{
  Standardised s;
  standardise(with_model(parts), s);
  if (s.eh.terminate()) return result_of(with_model(parts));
  const JsonNode* node = json_walk(*s.root, text("model:", part));
  return node == nullptr ? "absent" : json_text(*node);
}

TEST(Request, SplitPlotInStandardForm)
{
  EXPECT_EQ(result_of(R"j({"dataset":{"name":"sp","number_of_observations":12,"variables":[{"name":"y"}]},
      "model":{"response":"y","fixed":"variety*nitro","random":"block/wplot","residual":"units"}})j"),
            R"j({"dataset":[{"name":"sp","number_of_observations":12,"variables":[{"name":"y"}]}],)j"
            R"j("model":{"response":{"terms":"y"},)j"
            R"j("fixed":{"terms":["mu","variety","nitro",{"interaction":["variety","nitro"]}]},)j"
            R"j("random":{"terms":["block",{"interaction":["block","wplot"]}]},)j"
            R"j("residual":{"terms":["units"]}}})j");
}

TEST(Request, KnownMatrixGetsItsEntry)
{
  const std::string standard = result_of(R"j({"model":{"response":"y","random":"vm(id, Gm)"}})j");
  EXPECT_EQ(
      standard,
      R"j({"model":{"response":{"terms":"y"},"random":{"terms":[{"function":{"name":"vm","arguments":[)j"
      R"j({"name":"variable_name","value":{"term_name":"id"}},{"name":"source","value":"Gm"},)j"
      R"j({"name":"singG","value":"PD","supplied":false},{"name":"invert","value":false,"supplied":false},)j"
      R"j({"name":"ldet","value":0.0,"supplied":false}],"already_processed":true},)j"
      R"j("user_facing_factor_name":"vm(id,Gm)"}]},"fixed":{"terms":["mu"]}},)j"
      R"j("grm_file":[{"name":"Gm","type":"ft_data","giv":"Gm.vm"}]})j");
  EXPECT_EQ(result_of(standard), standard);  // what is standard stays so

  EXPECT_TRUE(
      result_of(with_model(R"j("random":"vm(id,Gm,psd,ldet=2,invert=true)")j"))
          .ends_with(
              R"j("grm_file":[{"name":"Gm","type":"ft_data","giv":"Gm.vm","psd":true,"ldet":2.0,"invert":true}]})j"));
  EXPECT_TRUE(
      result_of(
          R"j({"grm_file":{"name":"Gm","type":"ft_csv"},"model":{"response":"y","random":"vm(id,Gm,ND)"}})j")
          .starts_with(R"j({"grm_file":[{"name":"Gm","type":"ft_csv","giv":"Gm.vm","nsd":true}],)j"));
  EXPECT_EQ(
      result_of(R"j({"grm_file":{"name":"Gm","type":"x"},"model":{"response":"y","random":"vm(id,Gm)"}})j"),
      "unexpected type in grm_file node, with name = Gm | in the function call vm(id,Gm)");
  EXPECT_EQ(part_of(R"j("random":"vm(id,Gm,xx)")j", "random"),
            "invalid value supplied for singG: xx, was expecting one of: PD, ND or PSD | in the function "
            "call vm(id,Gm,xx)");
}

TEST(Request, PartsOfTheModel)
{
  struct Case {
    const char* parts;
    const char* part;
    const char* expected;
  };
  const Case cases[] = {
      // the intercept
      {R"j("random":"a")j", "fixed", R"j({"terms":["mu"]})j"},
      {R"j("fixed":"a")j", "fixed", R"j({"terms":["mu","a"]})j"},
      {R"j("fixed":"a+mu")j", "fixed", R"j({"terms":["a","mu"]})j"},
      {R"j("fixed":"1+a")j", "fixed", R"j({"terms":["mu","a"]})j"},
      {R"j("fixed":"a-1")j", "fixed", R"j({"terms":["a"]})j"},
      {R"j("fixed":"-mu+a")j", "fixed", R"j({"terms":["a"]})j"},
      {R"j("fixed":"-1")j", "fixed",
       "duplicate terms were dropped from the fixed part of the model | terms dropped: mu | should not have "
       "been able to remove all the terms"},
      {R"j("random":"1")j", "random", "unexpected numeric value in model definition"},
      {R"j("fixed":"a+2")j", "fixed", "unexpected numeric value in model definition"},
      {R"j("fixed":"a-2")j", "fixed", "unexpected numeric value in model definition"},
      {R"j("random":"a-1")j", "random", "unexpected numeric value in model definition"},
      // terms written as a tree
      {R"j("fixed":{"terms":["a:b","c",1,{"term_name":"d"}]})j", "fixed",
       R"j({"terms":[{"interaction":["a","b"]},"c","mu","d"]})j"},
      {R"j("fixed":{"terms":"a*b"})j", "fixed", R"j({"terms":["mu","a","b",{"interaction":["a","b"]}]})j"},
      {R"j("fixed":["a","b"])j", "fixed", R"j({"terms":["mu","a","b"]})j"},
      {R"j("random":{"interaction":["a",{"interaction":["b","c"]}]})j", "random",
       R"j({"terms":[{"interaction":["a",{"interaction":["b","c"]}]}]})j"},
      {R"j("random":{"terms":[{"term_name":"a","values":[0.5]}]})j", "random",
       R"j({"terms":[{"term_name":"a","values":[0.5]}]})j"},
      {R"j("random":{"terms":["a",{"term_name":"a","drop":true},"b"]})j", "random", R"j({"terms":["b"]})j"},
      {R"j("random":null)j", "random", "absent"},
      {R"j("random":"")j", "random", "not expecting to get here with no terms | model.random names none"},
      {R"j("random":{"terms":[]})j", "random",
       "not expecting to get here with no terms | model.random names none"},
      {R"j("Fixed":"a")j", "fixed", "model.Fixed is not a recognised key"},
      {R"j("random":{"terms":[{"term_name":"a","drop":"yes"}]})j", "random",
       "invalid value supplied for model.random.terms[1].drop, was expecting one of: true or false, supplied "
       "value = yes"},
      {R"j("random":{"terms":[{"term_name":"a","interaction":["a","b"]}]})j", "random",
       "model.random.terms[1] has more than one form of a term: term_name, interaction"},
      {R"j("random":{"interaction":["a",{"term_name":"b","function":{"name":"idv","arguments":["b"]}}]})j",
       "random", "model.random.terms[1].interaction[2] has more than one form of a term: term_name, function"},
      {R"j("random":"idv(a,nan)")j", "random", "invalid argument to idv"},
      {R"j("random":"idv(a,1e400)")j", "random", "invalid argument to idv"},
      {R"j("random":"idv(a,-1e400)")j", "random", "invalid argument to idv"},
      {R"j("random":"idv(a,init=1e-400)")j", "random", "invalid argument to idv"},
      {R"j("random":"ar1(a,[0.1,inf])")j", "random", "invalid argument to ar1"},
      {R"j("random":{})j", "random", "terms is required but was not found in model.random"},
      {R"j("random":3)j", "random",
       "invalid value supplied for model.random, was expecting one of: a formula or an object with terms, "
       "supplied value = 3"},
      {R"j("random":{"terms":[true]})j", "random",
       "invalid value supplied for model.random.terms[1], was expecting one of: the name of a term, an "
       "interaction or a function, supplied value = true"},
      {R"j("random":{"terms":[{"interaction":[]}]})j", "random",
       "invalid value supplied for model.random.terms[1].interaction, was expecting one of: an array of "
       "terms, supplied value = []"},
      {R"j("random":{"terms":[{"interaction":["a",2.5]}]})j", "random",
       "invalid value supplied for model.random.terms[1].interaction[2], was expecting one of: the name of a "
       "term, an interaction or a function, supplied value = 2.5"},
      {R"j("random":"a","random":"b")j", "random", "the key random was supplied more than once in model"},
      // duplicates
      {R"j("random":"a+a")j", "random", R"j({"terms":["a"]})j"},
      {R"j("fixed":"a-a")j", "fixed", R"j({"terms":["mu"]})j"},
      {R"j("random":"a:b+b:a")j", "random",
       R"j({"terms":[{"interaction":["a","b"]},{"interaction":["b","a"]}]})j"},
      {R"j("random":"a-b")j", "random", R"j({"terms":["a"]})j"},
      {R"j("random":"a+b-a:c+a:c-b")j", "random", R"j({"terms":["a",{"interaction":["a","c"]}]})j"},
      {R"j("random":"idv(a)+idv( a )+b")j", "random",
       R"j({"terms":[{"function":{"name":"idv","arguments":[{"name":"variable_name","value":{"term_name":"a"}},{"name":"init","value":"NoValueSupplied","supplied":false}],"already_processed":true}},"b"]})j"},
      // functions
      {R"j("random":"ar1(x, init=[0.1])")j", "random",
       R"j({"terms":[{"function":{"name":"ar1","arguments":[{"name":"variable_name","value":{"term_name":"x"}},{"name":"init","value":[0.1]}],"already_processed":true}}]})j"},
      {R"j("random":"pol(t=3,variable_name=x)")j", "random",
       R"j({"terms":[{"function":{"name":"pol","arguments":[{"name":"variable_name","value":{"term_name":"x"}},{"name":"t","value":3}],"already_processed":true}}]})j"},
      {R"j("random":"us(leg(x,1)):id(s)")j", "random",
       R"j({"terms":[{"interaction":[{"function":{"name":"us","arguments":[{"name":"variable_name","value":{"function":{"name":"leg","arguments":[{"name":"variable_name","value":{"term_name":"x"}},{"name":"t","value":1}],"already_processed":true}}},{"name":"init","value":"NoValueSupplied","supplied":false}],"already_processed":true}},{"function":{"name":"id","arguments":[{"name":"variable_name","value":{"term_name":"s"}}],"already_processed":true}}]}]})j"},
      {R"j("random":"str(a+a:x,us(2):id(9))")j", "random",
       R"j({"terms":[{"linked":["a",{"interaction":["a","x"]}],"function":{"name":"str","arguments":[{"name":"form","value":"a+a:x"},{"name":"vmodel","value":"us(2):id(9)"}],"already_processed":true},)j"
       R"j("structure":[{"interaction":[{"function":{"name":"us","arguments":[{"name":"variable_name","value":2},{"name":"init","value":"NoValueSupplied","supplied":false}],"already_processed":true}},)j"
       R"j({"function":{"name":"id","arguments":[{"name":"variable_name","value":9}],"already_processed":true}}]}]}]})j"},
      {R"j("random":"exp(x,dist=[0,1.5])")j", "random",
       R"j({"terms":[{"function":{"name":"exp","arguments":[{"name":"x","value":{"term_name":"x"}},{"name":"init","value":"NoValueSupplied","supplied":false},{"name":"dist","value":[0,1.5],"drop_from_facname":true}],"already_processed":true}}]})j"},
      {R"j("residual":"dsum(a:b+c|site,levels=[[1,2],[3]])")j", "residual",
       R"j({"terms":[{"interaction":[{"function":{"name":"sat","arguments":[{"name":"variable_name","value":{"term_name":"site"}},{"name":"lvls","value":[1,2]}],"already_processed":true},"user_facing_factor_name":"sat(site,[1,2])"},"a","b"]},)j"
       R"j({"interaction":[{"function":{"name":"sat","arguments":[{"name":"variable_name","value":{"term_name":"site"}},{"name":"lvls","value":[3]}],"already_processed":true},"user_facing_factor_name":"sat(site,[3])"},"c"]}]})j"},
      {R"j("random":"AR1(x)")j", "random",
       "AR1 is not a recognised model function | model functions are all lower case! | in the function call AR1(x)"},
      {R"j("residual":"dsum(a-b|site)")j", "residual", "invalid argument to dsum"},
      {R"j("residual":"dsum(a|s):dsum(b|t)")j", "residual",
       "can only have one function in an interaction that expands to multiple terms"},
      {R"j("random":"str(a,us(2:id(9))")j", "random",
       "Invalid formula term: str(a,us(2:id(9)). | Error: Unclosed bracket \"(\" at position 4."},
      {R"j("random":"str(a,foo(2))")j", "random", "foo is not a recognised model function | in the function call foo(2)"},
      {R"j("fixed":"foo(x)")j", "fixed",
       "foo is not a recognised model function | in the function call foo(x)"},
      {R"j("fixed":"vm(a,b)")j", "fixed",
       "vm is not valid in the fixed part of the model | in the function call vm(a,b)"},
      {R"j("random":"offset(x)")j", "random",
       "offset is not valid in the random part of the model | in the function call offset(x)"},
      {R"j("fixed":"offset(x):a")j", "fixed",
       "offset can not be used as part of an interaction | in the function call offset(x)"},
      {R"j("fixed":"spl(offset(x))")j", "fixed",
       "offset can not be used as an argument to a function call | in the function call offset(x)"},
      {R"j("fixed":"spl(x,3,4)")j", "fixed",
       "3 arguments were supplied, but at most 2 where expected | in the function call spl(x,3,4)"},
      {R"j("fixed":"spl(a,b,c,q=1)")j", "fixed",
       "4 arguments were supplied, but at most 2 where expected | in the function call spl(a,b,c,q=1)"},
      {R"j("fixed":"spl(x,q=4)")j", "fixed",
       "q is not a valid argument name | in the function call spl(x,q=4)"},
      {R"j("fixed":"spl(k=1,k=4)")j", "fixed",
       "a duplicate value for k was supplied | in the function call spl(k=1,k=4)"},
      {R"j("fixed":"spl(x,variable_name=z)")j", "fixed",
       "variable_name was supplied as both a positional and named argument | in the function call "
       "spl(x,variable_name=z)"},
      {R"j("fixed":"spl(k=3,x)")j", "fixed",
       "all positional arguments must preceed all named arguments | in the function call spl(k=3,x)"},
      {R"j("fixed":"spl(k=3)")j", "fixed",
       "argument variable_name is required | in the function call spl(k=3)"},
      {R"j("fixed":"spl(x,k=3.5)")j", "fixed",
       "expected an integer scalar for argument \"k | in the function call spl(x,k=3.5)"},
      {R"j("fixed":"spl(x,[1,)")j", "fixed",
       "Invalid formula term: spl(x,[1,). | Error: Mismatched brackets: \"[\" at position 7 closed by \")\" "
       "at position 10."},
      {R"j("fixed":"spl(x,)")j", "fixed", "invalid argument to spl"},
      {R"j("fixed":"spl(x,'a)")j", "fixed", "invalid argument to spl"},
      // offsets, groups, levels
      {R"j("fixed":"a+offset(x)")j", "fixed", R"j({"terms":["mu","a"]})j"},
      {R"j("fixed":"offset(x)+offset(z)")j", "fixed",
       "multiple offsets have been supplied in the model, was only expecting one"},
      {R"j("fixed":"grp(x)+a:grp(z)")j", "fixed", R"j({"terms":["mu","x",{"interaction":["a","z"]}]})j"},
      {R"j("fixed":"at(a,'one'):x","variables":[{"name":"a","factor_labels":["none","one"]}])j", "fixed",
       R"j({"terms":["mu",{"interaction":[{"function":{"name":"at","arguments":[{"name":"variable_name","value":{"term_name":"a"}},{"name":"lvls","value":2}],"already_processed":true},"user_facing_factor_name":"at(a,one)"},"x"]}]})j"},
      {R"j("fixed":"at(a,two)","variables":[{"name":"a","factor_labels":["none","one"]}])j", "fixed",
       "two is not a valid level for variable a | in the function call at(a,two)"},
      {R"j("fixed":"at(a,3)","variables":[{"name":"a","number_of_levels":2}])j", "fixed",
       "expecting a value between 1 and 2 | in the function call at(a,3)"},
      {R"j("fixed":"at(a,[1.5])","variables":[{"name":"a"}])j", "fixed",
       "invalid factor level supplied, expected either an integer or string | in the function call "
       "at(a,[1.5])"},
      {R"j("fixed":"at(b,1)","variables":[{"name":"a"}])j", "fixed",
       "variable b is not in the supplied dataset | in the function call at(b,1)"},
      {R"j("residual":"dsum(a:b|site,levels=1)")j", "residual",
       "expected the levels argument to either be a vector or a vector of vectors | in the function call "
       "dsum(a:b,site,levels=1)"},
      {R"j("residual":"dsum(a:b+c|site,levels=[[1],[2],[3]])")j", "residual",
       "expected the number of elements in the levels argument to match the number of terms | number of terms: 2, "
       "number of elements in levels: 3 | in the function call dsum(a:b+c,site,levels=[[1],[2],[3]])"},
      // families
      {R"j("family":"binomial(link=logit)")j", "family",
       R"j([{"function":{"name":"binomial","arguments":[{"name":"link","value":"logit"}]}}])j"},
      {R"j("family":"poisson")j", "family", R"j([{"function":{"name":"poisson","arguments":[]}}])j"},
      {R"j("family":[{"name":"gamma","phi":2.5}])j", "family",
       R"j([{"function":{"name":"gamma","arguments":[{"name":"phi","value":2.5}]}}])j"},
      {R"j("family":"binomial(logit)")j", "family",
       "was expecting only named arguments in a family description"},
  };
  for (const Case& c : cases) EXPECT_EQ(part_of(c.parts, c.part), c.expected) << c.parts;
}

TEST(Request, ResponsesAndModels)
{
  EXPECT_EQ(result_of(R"j({"model":[{"response":"y1+y2"}]})j"),
            R"j({"model":{"response":{"terms":["y1","y2"]},"fixed":{"terms":["mu"]}}})j");
  EXPECT_EQ(result_of(R"j({"model":{"response":["y1",{"terms":["y2","y3"]}]}})j"),
            R"j({"model":{"response":[{"terms":"y1"},{"terms":["y2","y3"]}],"fixed":{"terms":["mu"]}}})j");
  EXPECT_EQ(result_of(R"j({"model":{"fixed":"a"}})j"), "response is required but was not found in model");
  EXPECT_EQ(result_of(R"j({"model":[{},{}]})j"), "more than one model in a request is not implemented yet");
  EXPECT_EQ(result_of(R"j({"model":"y"})j"),
            "invalid value supplied for model, was expecting one of: an object, supplied value = y");
  Standardised none;
  standardise(R"j({"wald":{"den_df":"numeric"}})j", none);
  EXPECT_FALSE(none.model);
  EXPECT_EQ(json_text(*none.root), R"j({"wald":{"den_df":"numeric"}})j");
  EXPECT_TRUE(clean(none.eh));
  EXPECT_EQ(result_of(R"j({"model":{"response":"-y"}})j"), "the response variable, y, can not be dropped");
  ERROR_HANDLER eh;
  bool model = true;
  API_STANDARDISE_AND_EXPAND_JSON(eh, COMMUNICATION(), nullptr, model);
  EXPECT_TRUE(has_message(eh, "JPTR is not associated"));
  EXPECT_EQ(eh.EH_STATUS(), 999);
}

TEST(Request, KeysThatNothingReadsAreTold)
{
  Standardised s;
  standardise(R"j({"dataset":{"name":"d","nobs":1,"variables":[{"name":"y","field_typ":"x"}]},
      "data_file":{"name":"f.csv","skipp":1},"variables":[{"nam":"y"}],
      "initial_values":[{"term":"a","val":1}],
      "model":{"response":"y","fixed":{"terms":["a"],"zzz":1},"weights":"a+b",
        "random":{"terms":[{"term_name":"b","value":1},{"interaction":["c",{"term_name":"d","q":1}]},
          {"function":{"name":"idv","arguments":[{"value":"e","x":1}],"y":2},"initial_values":{"vals":1}}]}}})j", s);
  const char* const keys[] = {"dataset[1].nobs", "dataset[1].variables[1].field_typ", "data_file.skipp",
                              "variables[1].nam", "initial_values[1].val", "model.fixed.zzz",
                              "model.random.terms[1].value", "model.random.terms[2].interaction[2].q",
                              "model.random.terms[3].initial_values.vals",
                              "model.random.terms[3].function.y"};
  std::vector<std::string> expected, told;
  for (const char* key : keys) expected.push_back(text(key, " is not a recognised key"));
  for (const ERROR_MESSAGE& m : s.eh.messages()) told.push_back(m.message.value_or(""));
  EXPECT_EQ(told, expected);
  EXPECT_FALSE(s.eh.terminate());
}

TEST(Request, DroppedTermsAreTold)
{
  Standardised s;
  standardise(with_model(R"j("random":"a+b+a+b+c-c")j"), s);
  ASSERT_EQ(s.eh.count(), 2);
  EXPECT_EQ(s.eh.messages()[0].message, "duplicate terms were dropped from the random part of the model");
  EXPECT_EQ(s.eh.messages()[1].message, "terms dropped: a, b, c");
  EXPECT_EQ(s.eh.EH_STATUS(), -1);
}

TEST(Request, ShorthandsBecomeOptions)
{
  struct Case {
    const char* keys;
    const char* options;
  };
  const Case cases[] = {
      {R"j("wald":{"den_df":"numeric"})j", R"j({"ddf":1})j"},
      {R"j("wald":{"den_df":"none","ss_type":"conditional"})j", R"j({"ddf":-1,"fcon":true})j"},
      {R"j("options":{"fcon":true,"ddf":1},"wald":{"den_df":"algebraic","ss_type":"incremental"})j",
       R"j({"ddf":2})j"},
      {R"j("wald":{"f_test":"a;b c;d"})j", R"j({"fown":"!FOWN a|b c|d"})j"},
      {R"j("na_action":{"x":"include","y":"fail"},"options":{"extra":5})j",
       R"j({"extra":5,"missing_values":"mv_include","y_missing_values":"mv_fail"})j"},
      {R"j("na_action":{"x":"omit","y":"omit"})j", R"j({"missing_values":"mv_remove"})j"},
      {R"j("options":{})j", "absent"},
      {R"j("options":null,"wald":null,"na_action":null)j", "absent"},
      {R"j("wald":{"den_df":"exact"})j",
       "invalid value supplied for wald.den_df, was expecting one of: none, numeric or algebraic, supplied "
       "value = exact"},
      {R"j("wald":{"ss_type":3})j",
       "invalid value supplied for wald.ss_type, was expecting one of: conditional or incremental, supplied "
       "value = 3"},
      {R"j("wald":"numeric")j",
       "invalid value supplied for wald, was expecting one of: an object, supplied value = numeric"},
      {R"j("na_action":{"y":"includ"})j",
       "invalid value supplied for na_action.y, was expecting one of: omit, include or fail, supplied value "
       "= includ"},
      {R"j("options":[1])j",
       "invalid value supplied for options, was expecting one of: an object, supplied value = [1]"},
      {R"j("wald":{"dendf":"numeric"})j", "wald.dendf is not a recognised key"},
      {R"j("na_action":{"X":"omit"})j", "na_action.X is not a recognised key"},
      {R"j("predict":{"classify":"a","onlyus":"b"})j", "predict[1].onlyus is not a recognised key"},
      {R"j("wald":{},"wald":{})j", "the key wald was supplied more than once in the request"},
  };
  for (const Case& c : cases) {
    Standardised s;
    standardise(text(R"j({"model":{"response":"y"},)j", c.keys, "}"), s);
    const JsonNode* options = s.root->find("options");
    const std::string found = s.eh.terminate()     ? s.eh.EH_LAST_MESSAGE()
                              : options == nullptr ? "absent"
                                                   : json_text(*options);
    EXPECT_EQ(found, c.options) << c.keys;
    if (!s.eh.terminate()) {
      EXPECT_EQ(s.root->find("wald"), nullptr);
      EXPECT_EQ(s.root->find("na_action"), nullptr);
    }
  }
  EXPECT_EQ(result_of(R"j({"model":{"response":"y"},"na_action":{"y":"include"}})j"),
            R"j({"model":{"response":{"terms":"y"},"fixed":{"terms":["mu"]},"sparse":{"terms":["mv"]}}})j");
  EXPECT_EQ(result_of(R"j({"model":{"response":"y","sparse":"mv"},"na_action":{"y":"include"}})j"),
            R"j({"model":{"response":{"terms":"y"},"sparse":{"terms":["mv"]},"fixed":{"terms":["mu"]}}})j");
}

TEST(Request, PredictStatements)
{
  struct Case {
    const char* keys;
    const char* predict;
  };
  const Case cases[] = {
      {R"j("predict":{"classify":"a"})j", R"j([{"classify":[{"term_name":"a"}]}])j"},
      {R"j("predict":[{"classify":"a:x","levels":{"x":0.5}}])j",
       R"j([{"classify":[{"term_name":"a"},{"term_name":"x","values":[0.5]}]}])j"},
      {R"j("predict":{"classify":["a:b"],"levels":[{"term_name":"b","values":["p","q"]}]},"predict":{"classify":"b"})j",
       R"j([{"classify":[{"term_name":"a"},{"term_name":"b","values":["p","q"]}]},{"classify":[{"term_name":"b"}]}])j"},
      {R"j("predict":{"classify":"a","ignore":"b+b:c","average":{"d":[0.2,0.8],"e":null},"present":["b","c"]})j",
       R"j([{"classify":[{"term_name":"a"}],"ignore":{"terms":["b",{"interaction":["b","c"]}]},)j"
       R"j("average":{"terms":[{"term_name":"d","values":[0.2,0.8]},{"term_name":"e"}]},"present":{"terms":["b","c"]}}])j"},
      {R"j("predict":{"classify":"a+b"})j",
       "was expecting only a single term, or an interaction for the predict classify"},
      {R"j("predict":{"classify":3})j", "was expecting either a string or a vector of strings for classify"},
      {R"j("predict":{"classify":"a","ignore":[1]})j",
       "was expecting either a string or a vector of strings for ignore"},
      {R"j("predict":{"classify":"a","average":["b",1]})j",
       "expected a factor name to be supplied for elements of average, supplied value: 1"},
      {R"j("predict":{"classify":"a","present":true})j",
       "expected either a factor name, an array of factor names or a dictionary, with the keys for present"},
      {R"j("predict":{"classify":"a","levels":{"b":1,"c":2}})j",
       "levels were supplied for terms not in the predict classify: b, c"},
      {R"j("predict":{"classify":"a","levels":[1]})j", "invalid type supplied for predict levels"},
      {R"j("predict":{"ignore":"a"})j", "classify is required but was not found in predict[1]"},
      {R"j("predict":["a"])j",
       "expected either a single predict node containing an array of objects or one or more predict nodes "
       "each containing a single object"},
  };
  for (const Case& c : cases) {
    Standardised s;
    standardise(text(R"j({"model":{"response":"y"},)j", c.keys, "}"), s);
    const JsonNode* predict = s.root->find("predict");
    EXPECT_EQ(s.eh.terminate() ? s.eh.EH_LAST_MESSAGE() : json_text(*predict), c.predict) << c.keys;
    if (s.eh.terminate()) continue;
    EXPECT_EQ(result_of(json_text(*s.root)), json_text(*s.root));  // what is standard stays so
  }
}

TEST(Request, DatasetsAreGathered)
{
  EXPECT_EQ(result_of(R"j({"dataset":{"name":"a"},"dataset":[{"name":"b"},{"name":"c"}]})j"),
            R"j({"dataset":[{"name":"a"},{"name":"b"},{"name":"c"}]})j");
  EXPECT_EQ(result_of(R"j({"dataset":[1,2]})j"),
            "invalid value supplied for dataset, was expecting one of: an object or an array of objects, "
            "supplied value = [1,2]");
}

// Every value of a whole request is replaced by every kind of wrong value, one after the other.
TEST(Request, WrongTypesAnywhereGiveMessagesNotCrashes)
{
  const std::string request =
      R"j({"dataset":[{"name":"d","variables":[{"name":"a","field_type":"vt_string_factor","factor_labels":["p","q"],"number_of_levels":2},{"name":"y"},{"name":"w"}],
      "group":{"name":"g","variables":["y",3]}},{"name":"G","variables":[{"name":"q"},{"name":"p"}]}],
    "options":{"extra":1},"wald":{"den_df":"numeric","f_test":"x"},"na_action":{"x":"omit","y":"include"},
    "grm_file":[{"name":"G","type":"ft_data"}],
    "predict":[{"classify":"a:b","levels":{"a":[1]},"ignore":["c"],"average":{"d":[1]},"present":["e"],"prwts":[1]}],
    "model":{"response":{"terms":["y"]},"fixed":{"terms":["a",{"term_name":"b","drop":true},{"interaction":["a",{"function":{"name":"at","arguments":[{"name":"variable_name","value":"a"},{"name":"lvls","value":["p",2]}]}}]}]},
      "random":{"terms":[{"function":{"name":"vm","arguments":[{"value":"a"},{"value":"G"},{"name":"invert","value":true}],"already_processed":true},"user_facing_factor_name":"vm"},
        {"linked":["a"],"function":{"name":"str","arguments":["a","us(2)"]}},{"function":{"name":"grp","arguments":[{"value":"a"}]}},{"function":{"name":"ric","arguments":["a","G"]}},
        {"function":{"name":"exp","arguments":[{"name":"x","value":"w"},{"name":"dist","value":[1,2]}]}},{"function":{"name":"fa","arguments":["a",1]}}]},
      "residual":{"terms":[{"function":{"name":"dsum","arguments":["id(units)+a","a",{"name":"levels","value":[[1],["q"]]}]}}]},
      "family":[{"function":{"name":"gaussian","arguments":[{"name":"link","value":"identity"}]}}],"weights":"w"}})j";
  const std::string wrong[] = {
      "null", "true",  "7",    "-1.5",   "\"\"", "\"a:b\"",         "\"f(x\"",
      "[]",   "[1,2]", "[[]]", "[null]", "{}",   R"j({"name":1})j", R"j({"function":{}})j"};
  JsonError error;
  const auto original = parse_json(request, error);
  ASSERT_TRUE(original) << error.message;
  std::vector<std::string> paths;
  const auto collect = [&](const auto& self, const JsonNode& node, const std::string& path) -> void {
    for (std::size_t k = 0; k < node.children().size(); ++k) {
      const JsonNode& child = *node.children()[k];
      const std::string below =
          path + (path.empty() ? "" : ":") + (child.name.empty() ? text(k + 1) : child.name);
      paths.push_back(below);
      self(self, child, below);
    }
  };
  collect(collect, *original, "");
  ASSERT_GT(paths.size(), 60u);
  VARIABLE_TABLE variables;
  for (const char* name : {"a", "b", "y", "w"}) {
    VARIABLE variable;
    variable.name = name;
    if (variable.name == "a") variable.type = FieldType::string_factor, variable.levels = 2;
    variables.rows.push_back(variable);
  }
  for (const std::string& path : paths) {
    for (const std::string& value : wrong) {
      Standardised s;
      s.root = original->clone();
      JsonNode* node = json_walk(*s.root, path);
      ASSERT_NE(node, nullptr) << path;
      node->replace_with(parse_json(value, error));
      API_STANDARDISE_AND_EXPAND_JSON(s.eh, COMMUNICATION(), s.root.get(), s.model);
      ASSERT_TRUE(s.eh.stack().entries.empty()) << path << " " << value;
      for (const ERROR_MESSAGE& m : s.eh.messages()) ASSERT_FALSE(m.message.value_or("").empty());
      if (s.eh.terminate() || !s.model) continue;
      FACTOR_TABLE factors;
      TERM_TABLE terms;
      MODEL_INFO info;
      NEW_PARSE_LINEAR_MODEL(s.eh, COMMUNICATION(), *s.root, variables, factors, terms, info);
      if (!s.eh.terminate()) COMPLETE_LINEAR_MODEL(s.eh, COMMUNICATION(), *s.root, variables, factors, terms, info);
      ASSERT_TRUE(s.eh.stack().entries.empty()) << path << " " << value;
    }
  }
}

TEST(Request, FactorsFollowTheLabelsOfTheirMatrix)
{
  struct Case {
    const char* variable;  // description of "id"
    const char* call;
    const char* expected;  // of the description, or the messages
  };
  const Case cases[] = {
      {R"j("field_type":"vt_string_factor","factor_labels":["b","a"])j", "vm(id,G)",
       R"j({"name":"id","field_type":"vt_string_factor","factor_labels":["b","a"],"code_levels_as":"vt_integer_factor_1_to_n","recode_factor_labels_from":"G","recode_factor_labels_because":"vm(id,G)","number_of_levels":4})j"},
      {R"j("field_type":"vt_string_factor","factor_labels":["a","b","c","d"])j", "vm(id,G)",
       R"j({"name":"id","field_type":"vt_string_factor","factor_labels":["a","b","c","d"]})j"},
      {R"j("field_type":"vt_integer_factor_1_to_n")j", "vm(id,G)", R"j({"name":"id","field_type":"vt_integer_factor_1_to_n"})j"},
      {R"j("field_type":"vt_integer_factor","number_of_levels":2)j", "ide(id,G)",
       R"j({"name":"id","field_type":"vt_integer_factor","number_of_levels":4,"code_levels_as":"vt_integer_factor_1_to_n","recode_factor_labels_from":"G","recode_factor_labels_because":"ide(id,G)"})j"},
      {R"j("field_type":"vt_integer_factor","number_of_levels":2)j", "vm(id,N)",
       R"j({"name":"id","field_type":"vt_integer_factor","number_of_levels":2})j"},
      {R"j("field_type":"vt_integer_factor","number_of_levels":2)j", "vm(id,S)",
       R"j({"name":"id","field_type":"vt_integer_factor","number_of_levels":2})j"},
      {R"j("field_type":"vt_string_factor")j", "vm(id,G)",
       "was expecting levels to be specified for id due to recoding needed in vm(id,G) | in the function call vm(id,G)"},
      {R"j("field_type":"vt_integer_factor","number_of_levels":5)j", "vm(id,G)",
       "5 levels were explicitly specified for id but this is greater than the number column labels supplied for the "
       "associated matrix (4 | in the function call vm(id,G)"},
      {R"j("field_type":"vt_string_factor","factor_labels":["b","a"])j", "vm(id,G)+ide(id,H)",
       "id is already flagged as needing recoding, and the levels are not the same | this is likely to be due to multiple "
       "inconsistent calls to the vm() function | in the function call ide(id,H)"},
      {R"j("field_type":"vt_string_factor","factor_labels":["b","a"])j", "ric(id,G)+ide(id,G)",
       R"j({"name":"id","field_type":"vt_string_factor","factor_labels":["b","a"],"code_levels_as":"vt_integer_factor_1_to_n","recode_factor_labels_from":"G","recode_factor_labels_because":"ric(id,G)","number_of_levels":4})j"},
  };
  for (const Case& c : cases) {
    Standardised s;
    standardise(text(R"j({"dataset":[{"name":"d","variables":[{"name":"id",)j", c.variable, R"j(}]},
        {"name":"G","variables":[{"name":"a"},{"name":"b"},{"name":"c"},{"name":"d"}]},{"name":"S","variables":[{"name":"r"},{"name":"c"},{"name":"x"}]},
        {"name":"H","variables":[{"name":"b"},{"name":"a"}]},{"name":"N","variables":[{"name":"1"},{"name":"2"}]}],
        "model":{"response":"y","random":")j", c.call, "\"}}"), s);
    std::string found;
    for (const ERROR_MESSAGE& m : s.eh.messages()) found += (found.empty() ? "" : " | ") + m.message.value_or("");
    if (!s.eh.terminate()) found = json_text(*json_walk(*s.root, "dataset:1:variables:1"));
    EXPECT_EQ(found, c.expected) << c.call;
  }
}

TEST(Request, GroupsOfVariables)
{
  struct Case {
    const char* groups;
    const char* expected;
  };
  const Case cases[] = {
      {R"j({"name":"g","variables":["x1","x2"]})j",
       R"j([{"name":"g","variables":[{"name":"x1","user_column_number":1},{"name":"x2","user_column_number":2}],"field_type":"vt_variate"}])j"},
      {R"j([{"name":"g","variables":[5,6]},{"name":"h","variables":["f1",4]}])j",
       R"j([{"name":"g","variables":[{"user_column_number":5},{"user_column_number":6}],"field_type":"vt_variate"},)j"
       R"j({"name":"h","variables":[{"name":"f1","user_column_number":3},{"name":"f2","user_column_number":4}],"field_type":"vt_integer_factor_1_to_n"}])j"},
      {R"j([{"name":"g","variables":["x1"]},{"name":"g","variables":["x2"]}])j", "the group identifier, g, is not unique"},
      {R"j({"name":"x1","variables":["x2"]})j", "the group identifier, x1, is not unique, it also appears as a variable name"},
      {R"j({"name":"g","variables":["x9"]})j",
       "invalid column name (x9) supplied for group g, a variable with that name could not be found"},
      {R"j({"name":"g","variables":[7]})j",
       "invalid column number (7) supplied for group g was expecting a value in the range [1, 6]"},
      {R"j([{"name":"g","variables":["x1"]},{"name":"h","variables":[1]}])j",
       "the value (x1, appears in at least one other group statement"},
      {R"j({"name":"g","variables":["f1","f3"]})j", "invalid column name (f3) supplied for group g, a variable with that name could not be found"},
      {R"j({"name":"g","variables":["f1","x1"]})j", "all variables used to define group g should have the same number of levels"},
      {R"j({"name":"g","variables":["x1",{"user_column_number":6}]})j",
       R"j([{"name":"g","variables":[{"name":"x1","user_column_number":1},{"user_column_number":6}],"field_type":"vt_variate"}])j"},
      {R"j({"name":"g","variables":[]})j",
       "invalid value supplied for dataset[1].group[1].variables, was expecting one of: an array of names and column "
       "numbers, supplied value = []"},
      {R"j({"variables":["x1"]})j", "name is required but was not found in dataset[1].group[1]"},
      {"7", "invalid value supplied for dataset[1].group, was expecting one of: an object or an array of objects, supplied value = 7"},
  };
  for (const Case& c : cases) {
    Standardised s;
    standardise(text(R"j({"dataset":{"name":"d","number_of_variables":6,"variables":[{"name":"x1"},{"name":"x2"},
        {"name":"f1","field_type":"vt_integer_factor_1_to_n","number_of_levels":3},
        {"name":"f2","field_type":"vt_integer_factor_1_to_n","number_of_levels":3}],"group":)j", c.groups, "}}"), s);
    std::string found;
    for (const ERROR_MESSAGE& m : s.eh.messages()) found += (found.empty() ? "" : " | ") + m.message.value_or("");
    if (!s.eh.terminate()) found = json_text(*json_walk(*s.root, "dataset:1:group"));
    EXPECT_EQ(found, c.expected) << c.groups;
  }
}

TEST(Request, DeepAndLongRequestsEndWithAMessage)
{
  std::string calls, tree, closing;
  for (int i = 0; i < 300; ++i) calls += "id(";
  EXPECT_NE(part_of(text("\"random\":\"", calls, "x", std::string(300, ')'), "\""), "random")
                .find("nested deeper than 50 levels"),
            std::string::npos);
  for (int i = 0; i < 400; ++i) tree += R"j({"interaction":[)j", closing += "]}";
  EXPECT_NE(part_of(text(R"j("random":{"terms":[)j", tree, "\"a\"", closing, "]}"), "random")
                .find("nested deeper than 50 levels"),
            std::string::npos);
  const std::string name(1000000, 'n');
  EXPECT_EQ(part_of(text(R"j("random":{"terms":[")j", name, "\"]}"), "random"),
            text(R"j({"terms":[")j", name, "\"]}"));
  std::string many = "\"t0\"";
  for (int i = 1; i < 200000; ++i) many += text(",\"t", i, '"');
  EXPECT_EQ(part_of(text(R"j("random":{"terms":[)j", many, "]}"), "random"),
            text(R"j({"terms":[)j", many, "]}"));
}

}  // namespace
}  // namespace tolvan
