// What requests hold beside the model: datasets, shorthands for options, predict statements, keys that nothing reads.
#include "model/standardised.h"

namespace tolvan {
namespace {

TEST(Request, KeysThatNothingReadsAreTold)
{
  Standardised s;
  standardise(R"j({"dataset":{"name":"d","nobs":1,"variables":[{"name":"y","field_typ":"x"}]},
      "data_file":{"name":"f.csv","skipp":1},"variables":[{"nam":"y"}],
      "pedigree_file":{"name":"p.csv","selff":0.3},"grm_file":[{"name":"G.grm","centre":true,"prec":5}],
      "vcm":[{"term":"a","values":[1],"id":1}],"initial_values":[{"term":"a","val":1}],
      "model":{"response":"y","fixed":{"terms":["a"],"zzz":1},"weights":"a+b",
        "random":{"terms":[{"term_name":"b","value":1},{"interaction":["c",{"term_name":"d","q":1}]},
          {"function":{"name":"idv","arguments":[{"value":"e","x":1}],"y":2},"initial_values":{"vals":1}}]}}})j", s);
  const char* const keys[] = {"dataset[1].nobs", "dataset[1].variables[1].field_typ", "data_file.skipp",
                              "variables[1].nam", "pedigree_file.selff", "grm_file[1].prec", "vcm[1].id", "initial_values[1].val", "model.fixed.zzz",
                              "model.random.terms[1].value", "model.random.terms[2].interaction[2].q",
                              "model.random.terms[3].initial_values.vals",
                              "model.random.terms[3].function.y"};
  std::vector<std::string> expected, told;
  for (const char* key : keys) expected.push_back(text(key, " is not a recognised key"));
  for (const ERROR_MESSAGE& m : s.eh.messages()) told.push_back(m.message.value_or(""));
  EXPECT_EQ(told, expected);
  EXPECT_FALSE(s.eh.terminate());
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

}  // namespace
}  // namespace tolvan
