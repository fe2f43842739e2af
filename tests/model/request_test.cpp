// Models of requests and their standard form.
#include "model/standardised.h"

namespace tolvan {
namespace {

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
      {R"j("random":"1")j", "random", "unexpected numeric value in model definition | in the formula 1"},
      {R"j("fixed":"a+2")j", "fixed", "unexpected numeric value in model definition | in the formula a+2"},
      {R"j("fixed":"a-2")j", "fixed", "unexpected numeric value in model definition | in the formula a-2"},
      {R"j("random":"a-1")j", "random", "unexpected numeric value in model definition | in the formula a-1"},
      // terms written as a tree
      {R"j("fixed":{"terms":["a:b","c",1,{"term_name":"d"}]})j", "fixed",
       R"j({"terms":[{"interaction":["a","b"]},"c","mu","d"]})j"},
      {R"j("fixed":{"terms":["a"]})j", "fixed", R"j({"terms":["a"]})j"},  // as in the standard form of a-1 that comes back
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
      {R"j("random":"idv(a,nan)")j", "random", "invalid argument to idv | in the formula idv(a,nan)"},
      {R"j("random":"idv(a,1e400)")j", "random", "invalid argument to idv | in the formula idv(a,1e400)"},
      {R"j("random":"idv(a,-1e400)")j", "random", "invalid argument to idv | in the formula idv(a,-1e400)"},
      {R"j("random":"idv(a,init=1e-400)")j", "random", "invalid argument to idv | in the formula idv(a,init=1e-400)"},
      {R"j("random":"ar1(a,[0.1,inf])")j", "random", "invalid argument to ar1 | in the formula ar1(a,[0.1,inf])"},
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
      {R"j("random":"iexp(fac(x,z),init=[0.1])")j", "random",
       R"j({"terms":[{"function":{"name":"iexp","arguments":[{"name":"x","value":{"function":{"name":"fac","arguments":[{"name":"x","value":{"term_name":"x"}},{"name":"y","value":{"term_name":"z"}}],"already_processed":true}}},)j"
       R"j({"name":"y","value":"NoValueSupplied","supplied":false},{"name":"init","value":[0.1]}],"already_processed":true}}]})j"},
      {R"j("random":"iexp(x)")j", "random", "argument y is required | in the function call iexp(x)"},
      {R"j("random":{"terms":[{"function":{"name":"lin","arguments":["9 a"]}}]})j", "random",
       "an invalid variable name was supplied for argument \"variable_name | in the function call lin(9 a)"},
      {R"j("random":{"terms":[{"function":{"name":"vm","arguments":["a","G",{"name":"invert","value":{"term_name":"b"}}]}}]})j", "random",
       "expected a logical scalar for argument \"invert | in the function call vm(a,G,invert=b)"},
      {R"j("random":{"terms":[{"function":{"name":"vm","arguments":["a","G",{"name":"ldet","value":{"term_name":"b"}}]}}]})j", "random",
       "invalid ldet argument supplied, was expecting a numeric value | in the function call vm(a,G,ldet=b)"},
      {R"j("random":{"terms":[{"interaction":["a",{"term_name":"b","drop":true}]}]})j", "random",
       "model.random.terms[1].interaction[2] is part of a term, it can not be dropped by itself"},
      {R"j("random":"str(vmodel=id(9),form=a)")j", "random",
       R"j({"terms":[{"linked":["a"],"function":{"name":"str","arguments":[{"name":"form","value":"a"},{"name":"vmodel","value":"id(9)"}],"already_processed":true},)j"
       R"j("structure":[{"function":{"name":"id","arguments":[{"name":"variable_name","value":9}],"already_processed":true}}]}]})j"},
      {R"j("random":{"terms":[{"linked":["a"],"structure":[{"function":{"name":"id","arguments":[9]}}]}]})j", "random",
       R"j({"terms":[{"linked":["a"],"structure":[{"function":{"name":"id","arguments":[{"name":"variable_name","value":9}],"already_processed":true}}]}]})j"},
      {R"j("random":{"terms":[{"linked":["a"],"structure":7}]})j", "random",
       "invalid value supplied for model.random.terms[1].structure, was expecting one of: an array of terms, supplied value = 7"},
      {R"j("random":"AR1(x)")j", "random",
       "AR1 is not a recognised model function | model functions are all lower case! | in the function call AR1(x)"},
      {R"j("residual":"dsum(a-b|site)")j", "residual",
       "invalid argument to dsum | in the function call dsum(a-b,site)"},
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
      {R"j("fixed":"spl(x,)")j", "fixed", "invalid argument to spl | in the formula spl(x,)"},
      {R"j("fixed":"spl(x,'a)")j", "fixed", "invalid argument to spl | in the formula spl(x,'a)"},
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
  // Several models: each for itself, with what the request asks of all of them.
  EXPECT_EQ(result_of(R"j({"model":[{"response":"y","fixed":"a+offset(x)"},{"response":"z","fixed":"offset(w)","sparse":"b"}],"na_action":{"y":"include"}})j"),
            R"j({"model":[{"response":{"terms":"y"},"fixed":{"terms":["mu","a"]},"offset":{"function":{"name":"offset","arguments":[)j"
            R"j({"name":"variable_name","value":{"term_name":"x"}}],"already_processed":true}},"sparse":{"terms":["mv"]}},)j"
            R"j({"response":{"terms":"z"},"fixed":{"terms":["mu"]},"sparse":{"terms":["b","mv"]},"offset":{"function":{"name":"offset",)j"
            R"j("arguments":[{"name":"variable_name","value":{"term_name":"w"}}],"already_processed":true}}}]})j");
  EXPECT_EQ(result_of(R"j({"model":[{"response":"y"},{"fixed":"a"}]})j"), "response is required but was not found in model[2]");
  EXPECT_EQ(result_of(R"j({"model":[{"response":"y"},7]})j"),
            "invalid value supplied for model[2], was expecting one of: an object, supplied value = 7");
  EXPECT_EQ(result_of(R"j({"model":[]})j"), "invalid value supplied for model, was expecting one of: an object, supplied value = []");
  EXPECT_EQ(result_of(R"j({"model":{"response":"at(a,2)+y"}})j"),
            R"j({"model":{"response":{"terms":[{"function":{"name":"at","arguments":[{"name":"variable_name","value":{"term_name":"a"}},)j"
            R"j({"name":"lvls","value":2}],"already_processed":true},"user_facing_factor_name":"at(a,2)"},"y"]},"fixed":{"terms":["mu"]}}})j");
  EXPECT_EQ(result_of(R"j({"model":{"response":"sat(a,2)"}})j"),
            "sat is not valid in the response part of the model | in the function call sat(a,2)");
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

TEST(Request, DroppedTermsAreTold)
{
  Standardised s;
  standardise(with_model(R"j("random":"a+b+a+b+c-c")j"), s);
  ASSERT_EQ(s.eh.count(), 2);
  EXPECT_EQ(s.eh.messages()[0].message, "duplicate terms were dropped from the random part of the model");
  EXPECT_EQ(s.eh.messages()[1].message, "terms dropped: a, b, c");
  EXPECT_EQ(s.eh.EH_STATUS(), -1);
}

}  // namespace
}  // namespace tolvan
