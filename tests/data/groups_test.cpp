// Groups of variables, factors that follow the labels of a matrix, and levels shared with a group.
#include "base/text.h"
#include "data/data_road.h"
#include "data/variable_groups.h"

namespace tolvan {
namespace {

/// A variable table from the text of a dataset object, with the messages.
struct Table {
  ERROR_HANDLER eh;
  COMMUNICATION communication;
  std::unique_ptr<JsonNode> root;
  VARIABLE_TABLE table;

  explicit Table(std::string_view dataset)
  {
    JsonError failure;
    root = parse_json(text(R"({"dataset":[)", dataset, "]}"), failure);
    JsonNode* entry = root->find("dataset")->children().front().get();
    NEW_AIDTIN(eh, communication, entry->find("variables"), table);
    if (!eh.terminate()) INITFLL(eh, table);
  }
  /// "name:column(group)" of every variable; the messages where there are any.
  std::string shown() const
  {
    if (eh.count() > 0) return messages_text(eh);
    std::string out;
    for (const VARIABLE& v : table.rows) {
      out += text(out.empty() ? "" : " ", v.name, ":", v.column, v.group.empty() ? "" : "(" + v.group + ")");
    }
    return out;
  }
};

TEST(Groups, MembersByNameAndColumn)
{
  struct Row {
    std::string_view variables, groups, expected;
  };
  const std::string_view plain = R"({"name":"y"},{"name":"a"},{"name":"b"})";
  const std::string_view factors =
      R"({"name":"p","field_type":"vt_integer_factor","factor_labels":[1,2]},)"
      R"({"name":"q","field_type":"vt_integer_factor","factor_labels":[1,2]},)"
      R"({"name":"r","field_type":"vt_integer_factor","number_of_levels":3},{"name":"s"})";
  // clang-format off
  const Row table[] = {
    {plain, R"({"name":"g","variables":["a","b"]})", "y:1 a:2(g) b:3(g)"},
    {plain, R"([{"name":"g","variables":["b"]},{"name":"h","variables":[2]}])", "y:1 a:2(h) b:3(g)"},
    {plain, R"({"name":"g","variables":[5,3,4]})", "y:1 a:2 b:3(g) g_5:5(g) g_4:4(g)"},
    {plain, R"([{"name":"g","variables":[{"name":"a","user_column_number":2},{"user_column_number":4}],"field_type":"vt_variate"}])", "y:1 a:2(g) b:3 g_4:4(g)"},
    {R"({"name":"y"},{"name":"g_4"})", R"({"name":"g","variables":[4]})", "y:1 g_4:2 g_4_1:4(g)"},
    {R"({"name":"y"},{"name":"a","group":"g"},{"name":"b","group":"g"})", "null", "y:1 a:2(g) b:3(g)"},
    {factors, R"({"name":"g","variables":["p","q"]})", "p:1(g) q:2(g) r:3 s:4"},
    {factors, R"({"name":"g","variables":["p","r"]})", "!4/3 all variables used to define group g should have the same number of levels\n"},
    {factors, R"({"name":"g","variables":["p","s"]})", "!4/3 all variables used to define group g should be of the same type (i.e. all variates or all factors)\n"},
    {plain, R"({"name":"a","variables":["b"]})", "!4/3 the group identifier, a, is not unique, it also appears as a variable name\n"},
    {plain, R"({"name":"g","variables":["c"]})", "!4/3 invalid column name (c) supplied for group g, a variable with that name could not be found\n"},
    {plain, R"([{"name":"g","variables":["a"]},{"name":"h","variables":[2]}])", "!4/3 the value (a, appears in at least one other group statement\n"},
    {plain, R"({"name":"g:h","variables":["a"]})", "!4/3 g:h is invalid, variable names must not contain any of the following symbols: .*:/!#$|()\n"},
    {plain, R"({"name":"g"})", "!4/3 variables is required but was not found in dataset[1].group\n"},
  };
  // clang-format on
  for (const Row& row : table) {
    EXPECT_EQ(
        Table(text(R"({"name":"d","variables":[)", row.variables, R"(],"group":)", row.groups, "}")).shown(),
        row.expected)
        << row.groups;
  }
}

TEST(Groups, FactorsShareLevelsAndOthersMayFollow)
{
  DataRoad road;
  road.matrix("d", 3, 4, {11, 12, 11, /**/ 13, 11, 14, /**/ 12, 15, 12, /**/ 11, 11, 11});
  ASSERT_TRUE(road.read(R"({"dataset":{"name":"d","number_of_observations":3,"variables":[
      {"name":"a","field_type":"vt_integer_factor","group":"g"},
      {"name":"b","field_type":"vt_integer_factor","group":"g"},
      {"name":"c","field_type":"vt_integer_factor","code_levels_as":"g"},
      {"name":"o","field_type":"vt_integer_factor"}]}})"))
      << messages_text(road.eh);
  EXPECT_EQ(road.rows(), "1 2 3 1\n3 1 4 1\n1 5 3 1\n");
  EXPECT_EQ(road.labels("c"), "11 13 12 15 14");
  EXPECT_EQ(road.labels("o"), "11");
}

TEST(Groups, FactorsFollowTheLabelsOfAMatrix)
{
  const std::string matrix =
      R"({"name":"G","number_of_observations":4,"variables":[{"name":"c"},{"name":"a"},{"name":"7"},{"name":"b"}]})";
  const std::string recoding =
      R"("code_levels_as":"vt_integer_factor_1_to_n","recode_factor_labels_from":"G",)"
      R"j("recode_factor_labels_because":"vm(f,G)","number_of_levels":4)j";
  const auto coded = [&](std::string_view keys, const std::vector<double>& codes) {
    DataRoad road;
    road.matrix("d", static_cast<std::int64_t>(codes.size()), 1, codes);
    road.read(text(R"({"dataset":[{"name":"d","number_of_observations":)", codes.size(),
                   R"(,"variables":[{"name":"f",)", recoding, ",", keys, "}]},", matrix, "]}"));
    if (road.eh.count() > 0) return messages_text(road.eh);
    std::string out = road.rows();
    for (char& c : out) c = c == '\n' ? ' ' : c;
    return text(out, "| ", road.labels("f"));
  };
  EXPECT_EQ(coded(R"("field_type":"vt_string_factor","factor_labels":["a","b","c"])", {1, 3, NA, 2, 1}),
            "2 1 NA 4 2 | c a 7 b");
  EXPECT_EQ(
      coded(
          R"("field_type":"vt_integer_factor_1_to_n","factor_labels":["b","c"],"factor_labels_indexed_from":0)",
          {0, 1}),
      "4 1 | c a 7 b");
  EXPECT_EQ(coded(R"("field_type":"vt_integer_factor")", {7, 7}), "3 3 | c a 7 b");
  const std::string_view missed =
      "!4/3 in the function call vm(f,G), when refactoring f z not found in the factor levels associated "
      "with the "
      "supplied matrix\n";
  EXPECT_EQ(coded(R"("field_type":"vt_string_factor","factor_labels":["a","z"])", {1, 1}), missed);

  TempFolder folder;
  const auto from_file = [&](std::string_view csv) {
    DataRoad road;
    road.read(text(R"({"data_file":{"name":")", folder.file("f.csv", csv),
                   R"(","type":"ft_csv"},"variables":[{"name":"f",)", R"("field_type":"vt_string_factor",)",
                   recoding, R"(},{"name":"y"}],"dataset":)", matrix, "}"));
    return road.eh.terminate() ? messages_text(road.eh) : road.rows() + road.labels("f");
  };
  EXPECT_EQ(from_file("b,1\n7,2\nb,3\nNA,4\n"), "4 1\n3 2\n4 3\nNA 4\nc a 7 b");
  EXPECT_TRUE(from_file("b,1\nz,2\n").ends_with(missed));

  EXPECT_EQ(
      Table(
          R"({"name":"d","variables":[{"name":"f","field_type":"vt_string_factor","recode_factor_labels_from":"H"}]})")
          .shown(),
      "!4/3 invalid value supplied for dataset[1].variables[1].recode_factor_labels_from, was expecting one "
      "of: the "
      "name of a dataset with variables, supplied value = H\n");
  EXPECT_EQ(Table(R"({"name":"d","variables":[{"name":"f","recode_factor_labels_from":"d"}]})").shown(),
            "!4/3 the levels of f can not follow those of d, it is a variate\n");
  EXPECT_EQ(
      Table(
          R"({"name":"d","variables":[{"name":"f","field_type":"vt_string_factor","is_pedigree_factor":true}]})")
          .shown(),
      "3/- variable f is marked as a pedigree factor, but the request has no pedigree_file\n");
}

TEST(Groups, ReachTheDesign)
{
  // the markers have no description but their columns
  DataRoad road;
  road.matrix("d", 3, 5, {5, 6, 7, /**/ 1, 2, 1, /**/ -1, 0, 1, /**/ 1, 1, 0, /**/ 0.5, 2, NA});
  ASSERT_TRUE(
      road.form(R"j({"dataset":{"name":"d","number_of_observations":3,"number_of_variables":5,"variables":[
      {"name":"y"},{"name":"a","field_type":"vt_integer_factor_1_to_n","number_of_levels":2}],
      "group":{"name":"markers","variables":[3,4,5]}},
      "model":{"response":"y","fixed":"a","random":"vect(markers)"},"options":{"missing_values":"mv_include"}})j"))
      << messages_text(road.eh);
  EXPECT_EQ(road.design_rows(), "1:1 2:1 4:-1 5:1 6:0.5 | 5\n1:1 3:1 5:1 6:2 | 6\n1:1 2:1 4:1 | 7\n");
}

TEST(Groups, CallsOfAMatrixMakeFactorsFollowIt)
{
  DataRoad road;
  road.matrix("d", 4, 2, {1, 2, 3, 1, /**/ 5, 6, 7, 8});
  road.matrix("G", 4, 4, {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1});
  ASSERT_TRUE(road.read(R"j({"dataset":[{"name":"d","number_of_observations":4,"variables":[
      {"name":"id","field_type":"vt_string_factor","factor_labels":["b","c","a"]},{"name":"y"}]},
      {"name":"G","number_of_observations":4,"variables":[{"name":"d"},{"name":"a"},{"name":"b"},{"name":"c"}]}],
      "model":{"response":"y","random":"vm(id,G)"}})j"))
      << messages_text(road.eh);
  EXPECT_EQ(road.rows(), "3 5\n4 6\n2 7\n3 8\n");
  EXPECT_EQ(road.labels("id"), "d a b c");
}

}  // namespace
}  // namespace tolvan
