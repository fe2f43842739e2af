// Requests with wrong types anywhere, and requests that are deep or long.
#include "model/standardised.h"
#include "model/term_table.h"

namespace tolvan {
namespace {

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
