// Runs: the order of their stages, and what each stage says to a request that needs more than is built.
#include <gtest/gtest.h>

#include "api/process_call.h"
#include "api/run_stages.h"
#include "base/text.h"
#include "support/checks.h"

namespace tolvan {
namespace {

constexpr const char* description =
    R"({"dataset":{"name":"d","number_of_observations":8,"storage_order":"so_row_major","variables":[{"name":"a",)"
    R"("field_type":"vt_integer_factor_1_to_n","number_of_levels":4},{"name":"x"},{"name":"y"}]}})";

class Trial {
 public:
  Trial()
  {
    object.documents.elements = {description};
    const double values[24] = {1, 1, 3.1, 1, 2, 4.0, 2, 1, 5.2, 2, 2, 4.9,
                               3, 1, 2.2, 3, 2, 3.0, 4, 1, 6.0, 4, 2, 5.5};
    ERROR_HANDLER eh;
    UDST_ADD(eh, object.datasets, "d", values, 8, 3);
    EXPECT_TRUE(clean(eh));
  }
  std::string process(std::string_view json)
  {
    ERROR_HANDLER eh;
    TLV_PROCESS(eh, object, json);
    EXPECT_TRUE(eh.stack().entries.empty());
    status = eh.EH_STATUS();
    return messages_text(eh);
  }
  std::string final_message() const
  {
    const OUTPUT_SCALAR* scalar = object.tables.find_scalar("SCALAR_FINAL_MESSAGE");
    return scalar == nullptr ? "" : scalar->sval;
  }
  TLV_OBJECT object;
  std::int64_t status = 0;
};

TEST(Stages, StandInTheirOrder)
{
  const char* const expected[] = {"READ_KEYS",
                                  "GET_PRIMARY_DATA_DESCRIPTION",
                                  "AMTXS_REGISTER_TO_AINV",
                                  "TITLE",
                                  "CDT_INITIALISE",
                                  "UPDATE_OPTIONS_FROM_JPTR",
                                  "DEBUG_PRINTS",
                                  "NEW_AIDTIN",
                                  "AIOPEN",
                                  "COMMENTS",
                                  "AIPEDA*",
                                  "INITFLL*",
                                  "GIV_GRM*",
                                  "TERM_SUPPORT",
                                  "PART_AND_MACROS",
                                  "MODEL_PARSE*",
                                  "MODEL_OPTIONS",
                                  "MODEL_CHECKS",
                                  "READ_DATA_FILE*",
                                  "AIDSUM*",
                                  "AIDDIS",
                                  "CHECK_AND_CONFORMITY",
                                  "REORDER_MODEL_TERMS*",
                                  "MORE_AIDATA_SETUP",
                                  "NEW_GETRCOV",
                                  "K4MPRS*",
                                  "AIDSGN*",
                                  "SETUP_QUADRATURE_POINTS",
                                  "BIG_CHUNK_OF_AIDATA*",
                                  "POST_CHUNK",
                                  "TABLE_INITVALS",
                                  "AIWORK",
                                  "CROSSVALC",
                                  "NEW_HANDLE_VPREDICT"};
  std::size_t k = 0;
  for (const Stage& stage : run_stages()) {
    ASSERT_LT(k, std::size(expected));
    EXPECT_EQ(text(stage.name, stage.timed ? "*" : ""), expected[k++]);
    const std::size_t number = k + 1;  // the whole run is number 1
    EXPECT_EQ(stage.in_preprocess, number < 29 || number > 33) << stage.name;
  }
  EXPECT_EQ(k, std::size(expected));
}

TEST(Stages, RefuseWhatIsNotBuiltByName)
{
  struct Row {
    const char* part;  // of the request, beside the model
    const char* told;
  };
  const Row rows[] = {
      {R"("fam":{"name":"s"})", "the key fam is not implemented"},
      {R"("gindex":{"name":"s"})", "the key gindex is not implemented"},
      {R"("pval":{"name":"s"})", "the key pval is not implemented"},
      {R"("fown":{"name":"s"})", "the key fown is not implemented"},
      {R"("predict":{"classify":"a"})", "the key predict is not implemented"},
      {R"("tpredict":"a")", "the key tpredict is not implemented"},
      {R"("tabulate":"a")", "the key tabulate is not implemented"},
      {R"("vpredict":"h2 1")", "the key vpredict is not implemented"},
      {R"("wald":{"den_df":"numeric"})", "the option ddf is not implemented"},
      {R"("wald":{"ss_type":"conditional"})", "the option fcon is not implemented"},
      {R"("wald":{"f_test":"a;x"})", "the option fown is not implemented"},
  };
  for (const Row& row : rows) {
    Trial run;
    const std::string told = run.process(text(R"({"model":{"response":"y","random":"a"},)", row.part, "}"));
    EXPECT_EQ(run.status, 4) << row.part;
    EXPECT_NE(told.find(text("!4/4 ", row.told)), std::string::npos) << row.part << ": " << told;
    EXPECT_NE(run.final_message(), "") << row.part;
  }
  Trial run;
  const std::string told = run.process(R"({"model":{"response":"y","family":"binomial"}})");
  EXPECT_NE(told.find("!4/4 "), std::string::npos) << told;
}

TEST(Stages, PassWhatAsksForNothing)
{
  Trial run;
  run.process(
      R"({"model":[{"response":"y","random":"a","residual":"units","family":"gaussian"}],"vpredict":[],"spline":[],)"
      R"("wald":{"den_df":"none","ss_type":"incremental"},"options":{"process_stage":"preprocess","blup":0}})");
  EXPECT_LE(run.status, 0);
}

TEST(Stages, PartAndMacrosAreTold)
{
  Trial run;
  const std::string told = run.process(R"({"model":{"response":"y"},"dopart":3,"macro_variables":[7,2.5],)"
                                       R"("options":{"process_stage":"preprocess"}})");
  EXPECT_NE(told.find("1/- Part 3 is active\n1/- cycle 1 value is 7\n1/- cycle 2 value is 2.5\n"),
            std::string::npos)
      << told;
  EXPECT_EQ(run.status, -1);
}

TEST(Stages, ExitTailTellsWhereARunStopped)
{
  Trial run;
  EXPECT_NE(run.process("{}").find("model is required but was not found in"), std::string::npos);
  EXPECT_EQ(run.final_message(), "Terminated early");
  run.process(R"({"model":{"response":"y","random":"a"},"options":{"process_stage":"preprocess"}})");
  EXPECT_EQ(run.final_message(), "Terminated early whilst preprocessing");
  EXPECT_EQ(run.object.tables.find_table("TABLE_INITVALS"), nullptr);

  // Whole records go for want of a response: the design has nothing to stand on.
  Trial empty;
  const double missing[3] = {1, 1, no_value};
  std::vector<double> values;
  for (int k = 0; k < 8; ++k) values.insert(values.end(), missing, missing + 3);
  ERROR_HANDLER eh;
  UDST_ADD(eh, empty.object.datasets, "d", values.data(), 8, 3);
  empty.process(R"({"model":{"response":"y","random":"a"}})");
  EXPECT_EQ(empty.status, 4);
  EXPECT_EQ(empty.final_message(), "Terminated early whilst forming design matrices");
}

TEST(Stages, OneRecordIsNoAnalysis)
{
  TLV_OBJECT object;
  object.documents.elements = {
      R"({"dataset":{"name":"d","number_of_observations":1,"variables":[{"name":"y"}]}})"};
  const double value = 4.0;
  ERROR_HANDLER eh;
  UDST_ADD(eh, object.datasets, "d", &value, 1, 1);
  TLV_PROCESS(eh, object, R"({"model":{"response":"y"}})");
  EXPECT_TRUE(has_message(eh, "only one data record retained; analysis aborted"));
}

TEST(Runs, DataOnScratchGiveTheSameFit)
{
  constexpr std::string_view request =
      R"({"model":{"response":"y","fixed":"x","random":"a"},"transformations":[{"name":"^","arguments":2,"TARGET":"x"}]})";
  std::string in_memory, told_in_memory;
  for (const std::int64_t memory : {-1, 0, 100}) {
    Trial trial;
    trial.object.options.data_memory = memory;
    const std::string told = trial.process(request);
    EXPECT_TRUE(told.starts_with("1/- a transformation is overwriting input variable x\n")) << told;
    ERROR_HANDLER eh;
    const std::string tables = OTST_TO_JSTR(eh, trial.object.tables);
    if (memory < 0) {
      in_memory = tables;
      told_in_memory = told;
    }
    EXPECT_EQ(told, told_in_memory) << memory;
    EXPECT_EQ(tables, in_memory) << memory;
    EXPECT_NE(trial.object.tables.find_table("TABLE_SLN"), nullptr);
  }
}

}  // namespace
}  // namespace tolvan
