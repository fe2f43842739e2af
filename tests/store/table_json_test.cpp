// Tables as JSON: the order of keys, the way back, the two ways out that must agree, and documents that are
// no tables.
#include <limits>
#include <random>

#include "api/table_store.h"
#include "base/json.h"
#include "table_samples.h"

namespace tolvan {
namespace {

std::unique_ptr<JsonNode> parsed(std::string_view text)
{
  JsonError fault;
  auto tree = parse_json(text, fault);
  EXPECT_TRUE(tree != nullptr) << fault.message << " in " << text;
  return tree;
}

std::string keys_of(const JsonNode& node)
{
  std::string keys;
  for (const auto& child : node.children()) keys += child->name + " ";
  return keys;
}

OUTPUT_TABLE read_back(const JsonNode& node)
{
  ERROR_HANDLER eh;
  OUTPUT_TABLE back;
  OTT_SET_FROM_JPTR(eh, back, node);
  EXPECT_EQ(eh.count(), 0) << eh.EH_LAST_MESSAGE();
  return back;
}

std::vector<OUTPUT_TABLE> all_samples()
{
  ERROR_HANDLER eh;
  std::vector<OUTPUT_TABLE> tables{rich_table(), packed_table(4), packed_table(0), sparse_table()};
  OUTPUT_TABLE bare;
  bare.name = "TABLE_BARE";
  bare.type = TableType::unknown;
  tables.push_back(bare);
  OUTPUT_TABLE never_filled = rich_table();  // columns without stores
  never_filled = {};
  never_filled.name = "TABLE_NEVER";
  OTT_ADD_COLUMN(eh, never_filled, {.type = ColumnType::string, .name = "", .heading = "nameless"});
  OTT_ADD_COLUMN(eh, never_filled, {.type = ColumnType::real, .name = "X", .cutoff = ">=3"});
  tables.push_back(never_filled);
  OTT_ALLOC_DATA_STORES(eh, never_filled, 5);  // stores without rows
  tables.push_back(never_filled);
  OUTPUT_TABLE odd = rich_table();
  odd.transposed = true;
  odd.type = TableType::full_mtx;
  odd.real_col[0][0] = std::numeric_limits<double>::quiet_NaN();
  odd.real_col[0][1] = -0.0;
  odd.real_col[1][0] = 5e-324;
  odd.real_col[1][1] = 1.7976931348623157e308;
  odd.integer_col[0][0] = std::numeric_limits<std::int64_t>::min();
  odd.string_col[0][0] = std::string("tab\t\"quote\" \\ nul \0 del \x7f", 24);
  tables.push_back(odd);
  EXPECT_EQ(eh.count(), 0);
  return tables;
}

TEST(TableJson, ComesBackTheSame)
{
  for (const OUTPUT_TABLE& t : all_samples()) {
    ERROR_HANDLER eh;
    JsonNode top(JsonType::object);
    OTT_ADD_TO_JPTR(eh, t, top);
    ASSERT_EQ(top.size(), 1);
    const OUTPUT_TABLE from_tree = read_back(*top.children().front());
    EXPECT_TRUE(same_table(t, from_tree)) << t.name;
    EXPECT_EQ(from_tree.lrv(), t.lrv()) << t.name;
    EXPECT_EQ(from_tree.liv(), t.liv()) << t.name;
    EXPECT_EQ(from_tree.lcv(), t.lcv()) << t.name;
    EXPECT_EQ(from_tree.allocated, t.lrv() + t.liv() + t.lcv() > 0) << t.name;

    // Through the text, and the text itself is what the tree gives.
    const std::string document = OTT_TO_JSTR(eh, t);
    EXPECT_EQ(document, json_text(top));
    const auto tree = parsed(document);
    EXPECT_TRUE(same_table(t, read_back(*tree->children().front()))) << t.name;
    EXPECT_EQ(OTT_TO_JSTR(eh, t, TableValues::left_out).find("\"values\""), std::string::npos);
    EXPECT_EQ(eh.count(), 0);
  }
}

TEST(TableJson, KeysStandInTheirOrder)
{
  ERROR_HANDLER eh;
  const auto tree = parsed(OTT_TO_JSTR(eh, rich_table()));
  const JsonNode& table = *tree->find("TABLE_RICH");
  EXPECT_EQ(keys_of(table),
            "lrv liv lcv type nrows column_info titles spanning_labels line_inserts footnotes ");
  const JsonNode& info = *table.find("column_info");
  EXPECT_EQ(keys_of(info), "ncols ncols_real ncols_integer ncols_string columns ");
  const JsonNode& column = *info.find("columns")->children()[3];
  EXPECT_EQ(keys_of(column),
            "name type justify cutoff_type cutoff_val cutoff_label display_missing nrows size heading format "
            "values ");
  // A cut-off changes print alone, and a missing value is its mark.
  EXPECT_EQ(json_text(*column.find("values")), "[1e-09,0.272,-1e-37,-1e-37]");
  EXPECT_EQ(json_text(*column.find("cutoff_type")), "2");
  EXPECT_EQ(json_text(*column.find("justify")), "2");
  EXPECT_EQ(json_text(*table.find("footnotes")),
            R"([{"type":"note","text":"a footnote"},{"type":"warning","text":"careful"}])");
  EXPECT_EQ(json_text(*table.find("line_inserts")),
            R"([{"lineno":3,"text":["below a block","and more"]},{"lineno":5,"text":["the end"]}])");
  EXPECT_EQ(json_text(*table.find("spanning_labels")),
            R"([{"from_col":3,"to_col":4,"main_label":"Wald test"}])");

  // A table without rows lists its columns all the same.
  const auto empty = parsed(OTT_TO_JSTR(eh, packed_table(0)));
  EXPECT_EQ(empty->find("TABLE_VARVAR")->find("column_info")->find("columns")->size(), 1);
}

TEST(TableJson, OneColumnAndTitlesAloneAreDocuments)
{
  ERROR_HANDLER eh;
  const OUTPUT_TABLE t = rich_table();
  const auto column = parsed(OTT_TABLE_COLUMN_TO_JSTR(eh, t, "df"));
  EXPECT_EQ(keys_of(*column), "DF ");
  EXPECT_EQ(json_text(*column->find("DF")->find("values")), "[1,2,-987654,-987654]");
  EXPECT_EQ(OTT_TO_JSTR(eh, t, TableValues::included, "DF"), OTT_TABLE_COLUMN_TO_JSTR(eh, t, "DF"));
  JsonNode node(JsonType::object);
  OTT_ADD_TABLE_COLUMN_TO_JPTR(eh, t, "DF", node);
  EXPECT_EQ(json_text(node), OTT_TABLE_COLUMN_TO_JSTR(eh, t, "DF"));
  EXPECT_EQ(OTT_FOOTNOTES_TO_JSTR(eh, packed_table(1)), R"({"footnotes":[]})");
  EXPECT_EQ(keys_of(*parsed(OTT_TITLES_TO_JSTR(eh, t))), "titles ");
  EXPECT_EQ(eh.count(), 0);

  EXPECT_EQ(OTT_TABLE_COLUMN_TO_JSTR(eh, t, "NONE"), "");
  EXPECT_EQ(only_message(eh, Etype::error, Ecode::invalid_input), "NONE is an invalid column ID");
  ERROR_HANDLER other;
  EXPECT_EQ(OTT_TO_JSTR(other, t, TableValues::included, "NONE"), "");
  EXPECT_EQ(only_message(other, Etype::error, Ecode::invalid_input),
            "unable to find NONE in table TABLE_RICH");
}

// Records whose stores were tampered with: a message, nothing written, nothing read out of bounds.
TEST(TableJson, BrokenStoresAreReported)
{
  const auto message = [](auto&& damage) {
    OUTPUT_TABLE t = rich_table();
    damage(t);
    ERROR_HANDLER eh;
    JsonNode top(JsonType::object);
    OTT_ADD_TO_JPTR(eh, t, top);
    EXPECT_EQ(top.size(), 0);
    EXPECT_EQ(eh.count(), 1);
    ERROR_HANDLER again;
    EXPECT_EQ(OTT_TO_JSTR(again, t), "");
    return only_message(again, Etype::internal, eh.messages().front().ecode);
  };
  EXPECT_EQ(message([](auto& t) { t.string_col.clear(); }), "pos = 1, but string_col is not allocated");
  EXPECT_EQ(message([](auto& t) { t.string_col[1].resize(2); }), "pos = 19, but size(string_col) = 18");
  EXPECT_EQ(message([](auto& t) { t.string_col.resize(1); }), "pos = 17, but size(string_col) = 16");
  EXPECT_EQ(message([](auto& t) { t.real_col.clear(); }), "column F has not been populated correctly");
  EXPECT_EQ(message([](auto& t) { t.integer_col[1].clear(); }), "column PC has not been populated correctly");
  EXPECT_EQ(message([](auto& t) { t.column_info.columns[2].position = 9; }),
            "column F has not been populated correctly");
  EXPECT_EQ(message([](auto& t) { t.column_info.columns[0].type = ColumnType::json; }),
            "unexpected column type: 5");
}

// Each edit of a good document, with the words of its message; the target stays as it was.
TEST(TableJson, DocumentsThatAreNoTablesAreRefused)
{
  struct Case {
    std::string_view from, to, message;
  };
  const Case cases[] = {
      {R"("nrows":3,"column_info")", R"("column_info")",
       "nrows is required but was not found in TABLE_AINV_A"},
      {R"("nrows":3,"column_info")", R"("nrows":"3","column_info")",
       "invalid value supplied for TABLE_AINV_A.nrows, was expecting an integer, supplied value = \"3\""},
      {R"("nrows":3,"column_info")", R"("nrows":-3,"column_info")",
       "invalid value supplied for TABLE_AINV_A.nrows, was expecting an integer of at least 0, supplied "
       "value = -3"},
      {R"("nrows":3,"column_info")", R"("nrows":9000000000000000000,"column_info")",
       "invalid value supplied for TABLE_AINV_A.column_info.columns[1].nrows, was expecting "
       "9000000000000000000, "
       "supplied value = 3"},
      {R"("sparse_mtx")", R"("dense")",
       "invalid value supplied for TABLE_AINV_A.type, was expecting one of: table, sparse_mtx, "
       "packed_sym_mtx, "
       "full_mtx or unknown, supplied value = \"dense\""},
      {R"("lrv":1)", R"("lrv":7)",
       "invalid value supplied for TABLE_AINV_A.lrv, was expecting 1, supplied value = 7"},
      {R"("liv":3)", R"("liv":true)",
       "invalid value supplied for TABLE_AINV_A.liv, was expecting an integer, supplied value = true"},
      {R"("ncols":4)", R"("ncols":5)",
       "invalid value supplied for TABLE_AINV_A.column_info.ncols, was expecting 4, supplied value = 5"},
      {R"("ncols_integer":3)", R"("ncols_integer":2)",
       "invalid value supplied for TABLE_AINV_A.column_info.ncols_integer, was expecting 3, supplied value = "
       "2"},
      {R"("column_info":{)", R"("column_info":[],"x":{)",
       "invalid value supplied for TABLE_AINV_A.column_info, was expecting an object, supplied value = an "
       "array"},
      {R"("columns":[)", R"("columns":[1,)",
       "invalid value supplied for TABLE_AINV_A.column_info.columns[1], was expecting an object, supplied "
       "value = 1"},
      {R"("columns":[)", R"("columns":[1,2],"old":[)",
       "invalid value supplied for TABLE_AINV_A.column_info.columns, was expecting an array of objects, "
       "supplied value = an array"},
      {R"("type":"real")", R"("type":"json")",
       "invalid value supplied for TABLE_AINV_A.column_info.columns[3].type, was expecting one of: integer, "
       "real or "
       "string, supplied value = \"json\""},
      {R"("name":"COLID",)", "", "name is required but was not found in TABLE_AINV_A.column_info.columns[2]"},
      {R"("justify":2)", R"("justify":4)",
       "invalid value supplied for TABLE_AINV_A.column_info.columns[1].justify, was expecting an integer "
       "from 0 to 3, "
       "supplied value = 4"},
      {R"("display_missing":true)", R"("display_missing":1)",
       "invalid value supplied for TABLE_AINV_A.column_info.columns[1].display_missing, was expecting a "
       "logical, "
       "supplied value = 1"},
      {R"("values":[1,2,2])", R"("values":[1,2])",
       "TABLE_AINV_A.column_info.columns[1].values holds 2 values, was expecting 3"},
      {R"("values":[1,2,2])", R"("values":[1,2,2.5])",
       "invalid value supplied for TABLE_AINV_A.column_info.columns[1].values, was expecting an array of "
       "integers, "
       "supplied value = an array"},
      {R"("values":[1,2,2])", R"("values":[1,2,null])",
       "invalid value supplied for TABLE_AINV_A.column_info.columns[1].values[3], was expecting an integer, "
       "supplied value = null"},
      {R"("values":[1,2,2])", R"("valuez":[1,2,2])",
       "values is required but was not found in TABLE_AINV_A.column_info.columns[1]"},
      {R"([1.0,-0.5,1.25])", R"([1.0,"x",1.25])",
       "invalid value supplied for TABLE_AINV_A.column_info.columns[3].values[2], was expecting a number, "
       "supplied value = \"x\""},
      {R"("titles":[)", R"("titles":["a",)",
       "invalid value supplied for TABLE_AINV_A.titles[1], was expecting an object, supplied value = \"a\""},
      {R"("type":"info")", R"("type":"")",
       "invalid value supplied for TABLE_AINV_A.titles[1].type, was expecting one of: info, notice, note, "
       "continuation, warning, sed or unknown, supplied value = \"\""},
      {R"("from_col":1)", R"("from_col":3)",
       "invalid value supplied for TABLE_AINV_A.spanning_labels[1].to_col, was expecting an integer of at "
       "least 3, "
       "supplied value = 2"},
      {R"("lineno":2)", R"("lineno":0)",
       "invalid value supplied for TABLE_AINV_A.line_inserts[1].lineno, was expecting an integer of at least "
       "1, "
       "supplied value = 0"},
      {R"("text":["between"])", R"("text":[{}])",
       "invalid value supplied for TABLE_AINV_A.line_inserts[1].text[1], was expecting a string, "
       "supplied value = an object"},
      {R"("footnotes":[)", R"("footnotes":{},"old":[)",
       "invalid value supplied for TABLE_AINV_A.footnotes, was expecting an array of objects, "
       "supplied value = an object"},
  };
  ERROR_HANDLER builder;
  OUTPUT_TABLE good = sparse_table();
  OTT_ADD_TITLE(builder, good, "title");
  OTT_ADD_FOOTNOTE(builder, good, "foot");
  OTT_ADD_SPANNING_LABEL(builder, good, 1, 2, "IDs");
  OTT_INSERT_TEXT(builder, good, "between", 2);
  const std::string document = OTT_TO_JSTR(builder, good);
  for (const Case& c : cases) {
    std::string bad = document;
    const auto at = bad.find(c.from);
    ASSERT_NE(at, std::string::npos) << c.from << " in " << document;
    bad.replace(at, c.from.size(), c.to);
    const auto tree = parsed(bad);
    ERROR_HANDLER eh;
    OUTPUT_TABLE target = packed_table(2);
    OTT_SET_FROM_JPTR(eh, target, *tree->children().front());
    EXPECT_EQ(only_message(eh, Etype::error, Ecode::invalid_json), c.message);
    EXPECT_TRUE(same_table(target, packed_table(2)));
  }
  for (const char* text : {"null", "[]", "[1,2]", "\"x\"", "17", "true"}) {
    ERROR_HANDLER eh;
    OUTPUT_TABLE target;
    OTT_SET_FROM_JPTR(eh, target, *parsed(text));
    EXPECT_NE(only_message(eh, Etype::error, Ecode::invalid_json).find("was expecting an object"),
              std::string::npos);
  }
}

// Values swapped, cut and retyped at random: read or refused, never more.
TEST(TableJson, SurvivesMutatedDocuments)
{
  ERROR_HANDLER builder;
  const std::string document = OTT_TO_JSTR(builder, rich_table());
  const std::string_view pieces[] = {"0", "-1", "1e400", "[]", "{}", "\"\"", "null", "9223372036854775807",
                                     ",", "]",  "x"};
  std::mt19937 random(20240611);
  int read = 0;
  int refused = 0;
  for (int round = 0; round < 4000; ++round) {
    std::string text = document;
    for (unsigned edits = random() % 3 + 1; edits > 0; --edits) {
      const std::size_t at = random() % text.size();
      const std::string_view piece = pieces[random() % std::size(pieces)];
      // Half of the edits replace a whole value, so that many documents still parse.
      const auto colon = text.find(':', at);
      const auto end = colon == text.npos ? colon : text.find_first_of(",}]", colon);
      if (random() % 2 == 0 && end != text.npos) {
        text.replace(colon + 1, end - colon - 1, piece);
      } else {
        text.replace(at, random() % 4, piece);
      }
    }
    JsonError fault;
    const auto tree = parse_json(text, fault);
    if (tree == nullptr || tree->children().empty()) continue;
    ERROR_HANDLER eh;
    OUTPUT_TABLE t;
    OTT_SET_FROM_JPTR(eh, t, *tree->children().front());
    EXPECT_EQ(eh.terminate(), eh.count() > 0);
    (eh.terminate() ? refused : read) += 1;
    if (eh.terminate()) continue;
    std::string out;
    OTT_PRETTY_PRINT(eh, t, out, 40);
    EXPECT_EQ(eh.count(), 0) << eh.EH_LAST_MESSAGE();
    EXPECT_TRUE(same_table(t, read_back(*parsed(OTT_TO_JSTR(eh, t))->children().front())));
  }
  EXPECT_GT(read, 20);
  EXPECT_GT(refused, 200);
}

}  // namespace
}  // namespace tolvan
