// The store: names, scalars, numeric reads with their size queries, and output IDs as JSON.
#include "api/table_store.h"

#include <cstring>
#include <limits>

#include "base/json.h"
#include "table_samples.h"

namespace tolvan {
namespace {

OUTPUT_TABLE_STORE sample_store()
{
  ERROR_HANDLER eh;
  OUTPUT_TABLE_STORE store;
  for (OUTPUT_TABLE t : {rich_table(), packed_table(2)}) {
    const auto index = OTST_REGISTER_TABLE(eh, store, t.name, t.type);
    store.table(index) = std::move(t);
  }
  OTST_SAVE_SCALAR_REAL_WP(eh, store, "SCALAR_LOGLIK", -209.5);
  OTST_SAVE_SCALAR_INTEGER(eh, store, "SCALAR_DF", 60);
  OTST_SAVE_SCALAR_STRING(eh, store, "SCALAR_FINAL_MESSAGE", "LogL \"Converged\"");
  OTST_SAVE_JSON(eh, store, "SCALAR_INFO", R"({"a":[1,2.5],"b":null})");
  EXPECT_EQ(eh.count(), 0);
  return store;
}

TEST(TableStore, NamesAreUniqueAndFoundInAnyCase)
{
  ERROR_HANDLER eh;
  OUTPUT_TABLE_STORE store = sample_store();
  const OUTPUT_TABLE* rich = store.find_table("table_rich  ");
  ASSERT_NE(rich, nullptr);
  EXPECT_EQ(store.find_table("TABLE_RIC"), nullptr);
  // A known name starts afresh in its place, so that pointers to it hold.
  EXPECT_EQ(OTST_REGISTER_TABLE(eh, store, "Table_Rich ", TableType::full_mtx), 1);
  EXPECT_EQ(store.ntables(), 2);
  EXPECT_EQ(store.find_table("TABLE_RICH"), rich);
  EXPECT_EQ(rich->ncols(), 0);
  EXPECT_EQ(rich->name, "TABLE_RICH");
  // A scalar may change its type.
  OTST_SAVE_SCALAR_STRING(eh, store, "scalar_df", "sixty");
  EXPECT_EQ(store.nscalars(), 4);
  EXPECT_EQ(store.find_scalar("SCALAR_DF")->type, ColumnType::string);
  OTST_CLEAR(eh, store);
  EXPECT_EQ(store.ntables() + store.nscalars(), 0);
  EXPECT_EQ(OTST_TO_JSTR(eh, store), "{}");
  EXPECT_EQ(eh.count(), 0);
  OTST_SAVE_JSON(eh, store, "SCALAR_INFO", "{\"a\":");
  EXPECT_EQ(store.nscalars(), 0);
  EXPECT_EQ(
      only_message(eh, Etype::error, Ecode::invalid_json).find("the JSON text to be saved as SCALAR_INFO"),
      0U);
}

struct Buffers {
  std::vector<double> reals = std::vector<double>(20, 99.0);
  std::vector<std::int32_t> integers = std::vector<std::int32_t>(20, 99);
  std::string text = std::string(100, '#');
  std::int32_t nr, ni, nt;
  Buffers(std::int32_t r, std::int32_t i, std::int32_t t) : nr(r), ni(i), nt(t) {}
  void read(ERROR_HANDLER& eh, const OUTPUT_TABLE_STORE& store, std::string_view id)
  {
    OTST_SQUASH_TABLE_DATA_I4B(eh, store, id,
                               {.reals = reals.data(),
                                .real_count = &nr,
                                .integers = integers.data(),
                                .integer_count = &ni,
                                .text = text.data(),
                                .text_length = &nt});
  }
  bool untouched() const { return reals[0] == 99.0 && integers[0] == 99 && text[0] == '#'; }
};

constexpr std::string_view rich_text = "mu variety nitro:vari\xC3\xA9t\xC3\xA9 last A  * ";

TEST(TableStore, NumericReadCopiesColumnAfterColumnOrNothing)
{
  const OUTPUT_TABLE_STORE store = sample_store();
  const auto m = static_cast<std::int32_t>(rich_text.size());
  for (const auto& [r, i, t] : {std::tuple{0, 0, 0}, {7, 8, m}, {8, 7, m}, {8, 8, m - 1}, {-5, 8, m}}) {
    ERROR_HANDLER eh;
    Buffers b(r, i, t);
    b.read(eh, store, "TABLE_RICH");
    EXPECT_EQ(eh.EH_STATUS(), 0);
    EXPECT_EQ(std::tuple(b.nr, b.ni, b.nt), std::tuple(8, 8, m));
    EXPECT_TRUE(b.untouched()) << r << " " << i << " " << t;
  }
  ERROR_HANDLER eh;
  Buffers b(8, 9, m + 1);
  b.read(eh, store, "table_rich ");
  EXPECT_EQ(std::vector<double>(b.reals.begin(), b.reals.begin() + 9),
            (std::vector<double>{245.136, 1.5, no_value, no_value, 1e-9, 0.272, no_value, no_value, 99.0}));
  EXPECT_EQ(std::vector<std::int32_t>(b.integers.begin(), b.integers.begin() + 9),
            (std::vector<std::int32_t>{1, 2, -987654, -987654, 3, -987654, -12, -987654, 99}));
  EXPECT_EQ(std::string_view(b.text.c_str()), rich_text);
  EXPECT_EQ(b.text[m], '\0');
  EXPECT_EQ(b.text[m + 1], '#');

  // Exactly the text's length: the last byte gives way to the NUL.
  Buffers exact(8, 8, m);
  exact.read(eh, store, "TABLE_RICH");
  EXPECT_EQ(std::string_view(exact.text.c_str()), rich_text.substr(0, rich_text.size() - 1));
  EXPECT_EQ(exact.text[m], '#');

  // One column; buffers that are absent have no say.
  std::vector<double> reals(4);
  std::int32_t nr = 4;
  std::int32_t nt = 0;
  OTST_SQUASH_TABLE_DATA_I4B(eh, store, "TABLE_RICH:P",
                             {.reals = reals.data(), .real_count = &nr, .text_length = &nt});
  EXPECT_EQ(reals, (std::vector<double>{1e-9, 0.272, no_value, no_value}));
  EXPECT_EQ(nt, 0);
  nr = 8;
  reals.resize(8);
  OTST_SQUASH_TABLE_DATA_I4B(eh, store, "TABLE_RICH",
                             {.reals = reals.data(), .real_count = &nr, .text_length = &nt});
  EXPECT_EQ(reals[7], no_value);
  EXPECT_EQ(nt, m);
  std::int32_t ni = 0;
  OTST_SQUASH_TABLE_DATA_I4B(eh, store, "TABLE_RICH:PCH", {.integers = nullptr, .integer_count = &ni});
  EXPECT_EQ(ni, 4);
  EXPECT_EQ(eh.count(), 0);
}

TEST(TableStore, IntegersSaturateIn32BitsOnly)
{
  ERROR_HANDLER eh;
  OUTPUT_TABLE_STORE store;
  OUTPUT_TABLE& t = store.table(OTST_REGISTER_TABLE(eh, store, "TABLE_BIG"));
  OTT_ADD_COLUMN(eh, t, {.type = ColumnType::integer, .name = "N"});
  const std::vector<std::int64_t> values{std::int64_t{1} << 40, -(std::int64_t{1} << 40), 2147483647, -7};
  OTT_ALLOC_DATA_STORES(eh, t, 4);
  OTT_SET_COLUMN_INTEGER(eh, t, 1, values);
  std::vector<std::int32_t> narrow(4);
  std::vector<std::int64_t> wide(4);
  std::int32_t n = 4;
  OTST_SQUASH_TABLE_DATA_I4B(eh, store, "TABLE_BIG", {.integers = narrow.data(), .integer_count = &n});
  OTST_SQUASH_TABLE_DATA_I8B(eh, store, "TABLE_BIG", {.integers = wide.data(), .integer_count = &n});
  EXPECT_EQ(narrow, (std::vector<std::int32_t>{std::numeric_limits<std::int32_t>::max(),
                                               std::numeric_limits<std::int32_t>::min(), 2147483647, -7}));
  EXPECT_EQ(wide, values);
  OTST_SAVE_SCALAR_INTEGER(eh, store, "SCALAR_BIG", std::int64_t{1} << 40);
  std::int32_t big = 0;
  OTST_OUTPUT_SCALAR(eh, store, "SCALAR_BIG", &big);
  EXPECT_EQ(big, std::numeric_limits<std::int32_t>::max());
  EXPECT_EQ(eh.count(), 0);
}

TEST(TableStore, NumericReadsOfWhatIsNotThere)
{
  const OUTPUT_TABLE_STORE store = sample_store();
  for (const std::string id :
       {"TABLE_NONE", "TABLE_RICH:NONE", "TABLE_RICH:P:P", "TABLE_RICH:TITLES", "SCALAR_DF", ""}) {
    ERROR_HANDLER eh;
    Buffers b(20, 20, 100);
    b.read(eh, store, id);
    EXPECT_EQ(only_message(eh, Etype::error, Ecode::invalid_input),
              "the output information with ID " + id + " does not exist");
    EXPECT_TRUE(b.untouched());
    EXPECT_EQ(b.nr + b.ni + b.nt, 0);
    ERROR_HANDLER quiet;
    b.read(quiet, store, "optional:" + id);
    EXPECT_EQ(quiet.count(), 0);
  }
  ERROR_HANDLER eh;
  double x = 0.0;
  std::int32_t n = 0;
  OTST_OUTPUT_SCALAR(eh, store, "scalar_loglik ", &x);
  OTST_OUTPUT_SCALAR(eh, store, "SCALAR_DF", &n);
  OTST_OUTPUT_SCALAR(eh, store, "OPTIONAL:SCALAR_NONE", &n);
  EXPECT_EQ(x, -209.5);
  EXPECT_EQ(n, 60);
  EXPECT_EQ(eh.count(), 0);
  const auto scalar_message = [&](std::string_view id, auto value) {
    ERROR_HANDLER mine;
    OTST_OUTPUT_SCALAR(mine, store, id, &value);
    return only_message(mine, Etype::error, Ecode::invalid_input);
  };
  const std::string wrong = " can not be output via this call due to its type";
  EXPECT_EQ(scalar_message("SCALAR_NONE", 0.0), "the output information with ID SCALAR_NONE does not exist");
  EXPECT_EQ(scalar_message("TABLE_RICH", 0.0), "the output information with ID TABLE_RICH does not exist");
  EXPECT_EQ(scalar_message("SCALAR_DF", 0.0), "the output information with ID SCALAR_DF" + wrong);
  EXPECT_EQ(scalar_message("SCALAR_LOGLIK", 0), "the output information with ID SCALAR_LOGLIK" + wrong);
  EXPECT_EQ(scalar_message("SCALAR_FINAL_MESSAGE", 0),
            "the output information with ID SCALAR_FINAL_MESSAGE" + wrong);
}

TEST(TableStore, OutputIdsGiveTheirDocuments)
{
  const OUTPUT_TABLE_STORE store = sample_store();
  const auto output = [&](std::string_view id) {
    ERROR_HANDLER eh;
    std::string document = OTST_OUTPUT_JSON(eh, store, id);
    EXPECT_EQ(eh.count(), 0) << eh.EH_LAST_MESSAGE();
    return document;
  };
  ERROR_HANDLER eh;
  const OUTPUT_TABLE& rich = *store.find_table("TABLE_RICH");
  EXPECT_EQ(output("TABLE_RICH"), OTT_TO_JSTR(eh, rich));
  EXPECT_EQ(output("optional:table_rich :footnotes "), OTT_FOOTNOTES_TO_JSTR(eh, rich));
  EXPECT_EQ(output("TABLE_RICH:TITLES"), OTT_TITLES_TO_JSTR(eh, rich));
  EXPECT_EQ(output("TABLE_RICH:PCH"), OTT_TABLE_COLUMN_TO_JSTR(eh, rich, "PC"));
  EXPECT_EQ(output("SCALAR_LOGLIK"), R"({"SCALAR_LOGLIK":{"type":"real","value":-209.5}})");
  EXPECT_EQ(output("SCALAR_DF"), R"({"SCALAR_DF":{"type":"integer","value":60}})");
  EXPECT_EQ(output("SCALAR_FINAL_MESSAGE"),
            R"({"SCALAR_FINAL_MESSAGE":{"type":"string","value":"LogL \"Converged\""}})");
  EXPECT_EQ(output("SCALAR_INFO"), R"({"SCALAR_INFO":{"type":"json","value":{"a":[1,2.5],"b":null}}})");
  EXPECT_EQ(output("AVAILABLE_OUTPUT_FULL"), OTST_TO_JSTR(eh, store));
  EXPECT_EQ(output("available_output"), OTST_TO_JSTR(eh, store, TableValues::left_out));
  EXPECT_NE(output("AVAILABLE_OUTPUT").find(R"("SCALAR_DF":{"type":"integer"})"), std::string::npos);
  EXPECT_EQ(output("AVAILABLE_OUTPUT").find("-209.5"), std::string::npos);
  EXPECT_EQ(output("AVAILABLE_OUTPUT:TABLE_RICH"), OTT_TO_JSTR(eh, rich, TableValues::left_out));
  EXPECT_EQ(output("AVAILABLE_OUTPUT:TABLE_RICH:P"),
            OTT_TABLE_COLUMN_TO_JSTR(eh, rich, "P", TableValues::left_out));
  EXPECT_EQ(output("AVAILABLE_OUTPUT_FULL:TABLE_RICH:P"), OTT_TABLE_COLUMN_TO_JSTR(eh, rich, "P"));
  for (const char* absent : {"OPTIONAL:TABLE_NONE", "OPTIONAL:TABLE_RICH:NONE", "OPTIONAL",
                             "OPTIONAL:A:B:C:D", "optional:AVAILABLE_OUTPUT:NONE"}) {
    EXPECT_EQ(output(absent), "") << absent;
  }

  // The whole store: tables first, then scalars; the same by tree.
  JsonNode top(JsonType::object);
  OTST_ADD_TO_JPTR(eh, store, top);
  EXPECT_EQ(json_text(top), OTST_TO_JSTR(eh, store));
  EXPECT_EQ(top.children()[1]->name, "TABLE_VARVAR");
  EXPECT_EQ(top.children()[2]->name, "SCALAR_LOGLIK");

  for (const std::string id : {"TABLE_NONE", "", ":", "TABLE_RICH:P:P", "SCALAR_DF:X",
                               "AVAILABLE_OUTPUT:NONE", "TABLE_RICH:OPTIONAL:P", "X:OPTIONAL"}) {
    ERROR_HANDLER mine;
    EXPECT_EQ(OTST_OUTPUT_JSON(mine, store, id), "");
    EXPECT_EQ(only_message(mine, Etype::error, Ecode::invalid_input),
              "the output information with ID " + id + " can not be output via JSON");
  }
  ERROR_HANDLER mine;
  EXPECT_EQ(OTST_OUTPUT_JSON(mine, store, "TABLE_RICH:NONE"), "");
  EXPECT_EQ(only_message(mine, Etype::error, Ecode::invalid_input), "NONE is an invalid column ID");
}

TEST(TableStore, AScalarWithoutValueIsReported)
{
  ERROR_HANDLER eh;
  OUTPUT_TABLE_STORE store;
  EXPECT_EQ(OTST_REGISTER_SCALAR(eh, store, "SCALAR_X"), 1);
  EXPECT_EQ(OTST_TO_JSTR(eh, store), "");
  EXPECT_EQ(only_message(eh, Etype::internal, eh.messages().front().ecode), "unexpected scalar type: 0");
}

}  // namespace
}  // namespace tolvan
