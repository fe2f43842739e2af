// Reading the options of a request: every key with its value when bare, the kinds of values, the steps behind
// the last key, and what is refused.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "api/fit_options_table.h"
#include "base/text.h"
#include "support/checks.h"

namespace tolvan {
namespace {

struct Read {
  ERROR_HANDLER eh;
  FIT_OPTIONS options;
};

void read(std::string_view object, Read& out)
{
  JsonError error;
  const auto root = parse_json(text("{\"options\":", object, "}"), error);
  ASSERT_TRUE(root) << error.message << " in " << object;
  UPDATE_OPTIONS_FROM_JPTR(out.eh, root->find("options"), out.options);
  EXPECT_TRUE(out.eh.stack().entries.empty());
}

std::string refusals(std::string_view object)
{
  JsonError error;
  const auto root = parse_json(object, error);
  ERROR_HANDLER eh;
  if (root) REFUSE_UNBUILT_OPTIONS(eh, root.get());
  return messages_text(eh);
}

TEST(Options, EveryKeyOfTheListIsReadAndHasItsBareValue)
{
  std::ifstream list(std::string(TOLVAN_TEST_DATA) + "/options.tsv");
  ASSERT_TRUE(list);
  std::string line;
  std::getline(list, line);
  int rows = 0;
  while (std::getline(list, line)) {
    const auto fields = split(line, '\t');
    ASSERT_EQ(fields.size(), 3u) << line;
    const std::string& key = fields[0];
    SCOPED_TRACE(key);
    const OptionRow* row = find_option(key);
    ASSERT_NE(row, nullptr);
    ++rows;
    Read got;
    if (row->reader != OptionReader::process_stage) read(text("{\"", key, "\":\"NoValueSupplied\"}"), got);
    EXPECT_FALSE(got.eh.terminate()) << messages_text(got.eh);
    if (row->reader == OptionReader::integer) {
      EXPECT_EQ(text(got.options(static_cast<Slot>(row->slot))), fields[2]);
    } else if (row->reader == OptionReader::real) {
      double bare = 0.0;
      EXPECT_TRUE(read_real(fields[2], bare));
      EXPECT_EQ(got.options(static_cast<RealSlot>(row->slot)), bare);
    } else if (row->reader == OptionReader::flag) {
      EXPECT_TRUE(got.options(static_cast<Flag>(row->slot)));
    } else if (row->reader == OptionReader::flag_to_one) {
      EXPECT_EQ(got.options(static_cast<Slot>(row->slot)), 1);
    }
  }
  // The list and two keys that other parts of a request write.
  EXPECT_EQ(static_cast<std::size_t>(rows) + 2, option_table.size());
}

TEST(Options, ValuesOfEveryKind)
{
  struct Row {
    const char* value;
    std::int64_t integer;
  };
  for (const Row& row :
       {Row{"true", 1}, Row{"false", 0}, Row{"7", 7}, Row{"2.5", 3}, Row{"-2.5", -3}, Row{"2.4", 2},
        Row{"\" +12 \"", 12}, Row{"\"-3\"", -3}, Row{"[9]", 9}, Row{"[2.6]", 3}, Row{"[[\"4\"]]", 4},
        Row{"\"NoValueSupplied\"", 15}, Row{"[\"NoValueSupplied\"]", 15}}) {
    Read got;
    read(text("{\"display\":", row.value, "}"), got);
    EXPECT_TRUE(clean(got.eh)) << row.value;
    EXPECT_EQ(got.options(Slot::display), row.integer) << row.value;
  }
  for (const char* value : {"null", "{}", "[]", "[1,2]", "\"3.0\"", "\"\"", "\"1 2\"", "\"novaluesupplied\"",
                            "1e300", "\"99999999999999999999\""}) {
    Read got;
    read(text("{\"display\":", value, ",\"unheard\":1,\"brief\":4}"), got);
    EXPECT_EQ(messages_text(got.eh),
              text("!4/3 invalid value supplied, was expecting an integer scalar, supplied value = ",
                   std::string_view(value) == "1e300" ? "1e+300" : value,
                   "\n!4/3 invalid value supplied for option display\n"))
        << value;
    EXPECT_EQ(got.options(Slot::brief), 0) << "keys behind a bad value are not read";
  }
  Read reals;
  read(R"({"arlimit":1,"yss":"2.5e1","scale":[0.25],"adjust":true})", reals);
  EXPECT_EQ(reals.options(RealSlot::arlimit), 1.0);
  EXPECT_EQ(reals.options(RealSlot::yss), 25.0);
  EXPECT_EQ(reals.options(RealSlot::scale), 0.25);
  EXPECT_EQ(reals.options(RealSlot::adjust), 1.0);
  for (const char* bad :
       {R"({"step_size":"fast"})", R"({"step_size":[1,2]})", R"({"vrb":1})", R"({"fcon":"yes"})",
        R"({"hold":["x"]})", R"({"missing_values":3})", R"({"continue":{}})"}) {
    Read got;
    read(bad, got);
    EXPECT_TRUE(got.eh.terminate()) << bad;
    EXPECT_TRUE(has_message(got.eh, "invalid value supplied for option")) << bad;
  }
}

TEST(Options, OwnReaders)
{
  Read got;
  read(
      R"({"continue":"run7.rsv","final":"NoValueSupplied","tsv":2,"msv":false,"hold":[3,5.0],"tolerance":[1,2,3,4],)"
      R"("pxem":4,"missing_values":"mv_remove","y_missing_values":"mv_fail","process_stage":"preprocess",)"
      R"("xml":{"a":1},"kcv":[1,2],"tau":null})",
      got);
  EXPECT_TRUE(clean(got.eh));
  EXPECT_EQ(got.options.continue_from.file, "run7.rsv");
  EXPECT_TRUE(got.options.final_file.asked);
  EXPECT_EQ(got.options.final_file.file, "*DEFAULT*");
  EXPECT_EQ(got.options.tsv.value, 2);
  EXPECT_FALSE(got.options.msv.asked);
  EXPECT_EQ(got.options.hold, (std::vector<std::int64_t>{3, 5}));
  EXPECT_EQ(got.options.tolerance, (std::vector<std::int64_t>{1, 2, 3}));
  EXPECT_EQ(got.options(Slot::em_mode), 2);
  EXPECT_EQ(got.options(Slot::em_value), 4);
  EXPECT_EQ(got.options(Slot::missing_values), -1);
  EXPECT_EQ(got.options(Slot::y_missing_values), -1);
  EXPECT_EQ(got.options(Slot::process_stage), 1);

  for (const auto& [word, slot] : {std::pair{"mv_include", 1}, {"mv_fail", 0}, {"whatever", 1}, {"  ", 0}}) {
    Read missing;
    read(text("{\"missing_values\":\"", word, "\"}"), missing);
    EXPECT_EQ(missing.options(Slot::missing_values), slot) << word;
  }
  for (const char* bare : {"\"NoValueSupplied\"", "[]"}) {
    Read tolerance;
    read(text("{\"tolerance\":", bare, "}"), tolerance);
    EXPECT_EQ(tolerance.options.tolerance, std::vector<std::int64_t>{2});
  }
  Read stage;
  read(R"({"process_stage":"fit"})", stage);
  EXPECT_EQ(
      messages_text(stage.eh),
      "!4/6 invalid value supplied for option process_stage, was expecting one of: preprocess or all\n");
}

TEST(Options, StepsBehindTheLastKey)
{
  struct Row {
    const char* object;
    Slot slot;
    std::int64_t value;
  };
  for (const Row& row :
       {Row{R"({"aipenalty":0})", Slot::aipenalty, -1}, Row{R"({"aipenalty":5})", Slot::aipenalty, 5},
        Row{R"({})", Slot::aipenalty, -1}, Row{R"({"knots":2})", Slot::knots, 50},
        Row{R"({"knots":3})", Slot::knots, 3}, Row{R"({"ppoints":0})", Slot::ppoints, 21},
        Row{R"({"aiv":-2.4})", Slot::aiv_integer, -2}, Row{R"({"aiv":2.4})", Slot::aiv_integer, 0},
        Row{R"({"testmode":true})", Slot::slot_31, 15}, Row{R"({"testmode":false})", Slot::slot_31, 0},
        Row{R"({"design":true,"report":4})", Slot::report, 0}, Row{R"({"txtform":3})", Slot::yhtform, 3},
        Row{R"({"txtform":3,"slnform":2})", Slot::slnform, 2}, Row{R"({"txtform":-3})", Slot::yhtform, 0},
        Row{R"({})", Slot::maxiterations, 20},
        Row{R"({"maximum_number_of_threads":3})", Slot::maximum_number_of_threads, 3}}) {
    Read got;
    read(row.object, got);
    EXPECT_EQ(got.options(row.slot), row.value) << row.object;
  }
  for (const char* absurd : {"0", "-4", "1000000000"}) {
    Read got;
    read(text("{\"maximum_number_of_threads\":", absurd, "}"), got);
    EXPECT_GE(got.options(Slot::maximum_number_of_threads), 1);
    EXPECT_LE(got.options(Slot::maximum_number_of_threads), 1024);
  }
  Read seeds;
  read(R"({"impute":2})", seeds);
  EXPECT_TRUE(has_message(seeds.eh, "random number seed "));
  EXPECT_EQ(seeds.eh.EH_STATUS(), -1);
}

TEST(Options, UnknownKeysWarnAndTheLoopGoesOn)
{
  Read got;
  read(R"({"Brief":1,"unheard":{"of":2},"brief":3})", got);
  EXPECT_EQ(messages_text(got.eh),
            "3/4 options.Brief is not a recognised key\n3/4 options.unheard is not a recognised key\n");
  EXPECT_EQ(got.options(Slot::brief), 3);
  Read list;
  read("[1]", list);
  EXPECT_TRUE(list.eh.terminate());
}

// Whatever asks for an effect that is not built is refused by name; 0, -1 and false ask for nothing.
TEST(Options, UnbuiltEffectsAreRefusedByName)
{
  for (const OptionRow& row : option_table) {
    const std::string expected =
        row.effect == OptionEffect::unbuilt ? text("!4/4 the option ", row.key, " is not implemented\n") : "";
    EXPECT_EQ(refusals(text("{\"", row.key, "\":1}")), expected) << row.key;
    EXPECT_EQ(refusals(text("{\"", row.key, "\":\"NoValueSupplied\"}")), expected) << row.key;
    for (const char* nothing : {"0", "false", "\"0\""}) {
      EXPECT_EQ(refusals(text("{\"", row.key, "\":", nothing, "}")), "") << row.key << " " << nothing;
    }
  }
  EXPECT_EQ(refusals(R"({"blup":-1,"kcv":[],"hold":[],"outfolder":"","continue":false})"), "");
}

}  // namespace
}  // namespace tolvan
