// Opening, adding to and filling report files; the texts of the reports.
#include "reports/report_files.h"

#include <cmath>

#include "base/text.h"
#include "reports/result_tables.h"
#include "reports/small_fit.h"
#include "support/checks.h"
#include "support/files.h"

namespace tolvan {
namespace {

struct Reports : testing::Test {
  TempFolder folder;
  SMALL_FIT f;
  ERROR_HANDLER eh;
  OUTPUT_TABLE_STORE store;
  FIT_OPTIONS options = FIT_OPTIONS_DEFAULTS();
  DATA_SUMMARY summary;
  TIMING_STORE timing;
  SAVED_ORDER order;
  std::string title = "A title";
  std::vector<std::string> comments = {"one", "two"}, responses = {"y"};

  RUN_REPORT run() const { return {title, comments, responses, eh, options, f.variables, summary, f.terms, f.design, f.model, f.fit, store, timing, order}; }
  std::string read(const std::string& name) const { return tolvan_test::read_whole(folder.path(name)); }
  void write(std::string_view mode)
  {
    REPORT_FILES files;
    AIOPEN(eh, mode, "r", folder.path(""), files);
    ASSERT_TRUE(clean(eh));
    WRITE_REPORT_FILES(eh, run(), files);
  }
};

TEST_F(Reports, AppendAddsToWhatStands)
{
  AIDRPT(eh, f.variables, f.factors, f.terms, f.design, f.model, f.fit, {}, store);
  write("ASIS");
  const std::string report = read("r.tlv"), residuals = read("r.res"), variances = read("r.vvp");
  EXPECT_NE(report.find(" A title\n one\n two\n"), std::string::npos) << report;
  EXPECT_EQ(variances, "Variance of Variance components \n  0.25000000     -0.50000000       4.0000000    \n");
  EXPECT_EQ(read("r.veo"), "");  // without an order there is no file
  title = "Another title";
  write("APPEND");
  EXPECT_TRUE(read("r.tlv").starts_with(report));
  EXPECT_NE(read("r.tlv").find(" Another title\n"), std::string::npos);
  EXPECT_EQ(read("r.res"), residuals + residuals);
  EXPECT_EQ(read("r.vvp"), variances + variances);
  write("ASIS");
  EXPECT_EQ(read("r.tlv").find(" A title\n"), std::string::npos);
  EXPECT_EQ(read("r.vvp"), variances);
}

TEST_F(Reports, FilesAppearWhenTheRunEnds)
{
  folder.file("r.tlv", "earlier\n");
  {
    REPORT_FILES files;
    AIOPEN(eh, "ASIS", "r", folder.path(""), files);
    EXPECT_TRUE(files.in_use);
    EXPECT_EQ(read("r.tlv"), "earlier\n");
  }  // a run that breaks off leaves nothing
  EXPECT_EQ(read("r.tlv"), "earlier\n");
  EXPECT_EQ(read("r.res"), "");
  REPORT_FILES files;
  AIOPEN(eh, "ASIS", "r", folder.path("r.tlv"), files);  // a file is no folder
  EXPECT_TRUE(eh.terminate());
  EXPECT_FALSE(files.in_use);
  EXPECT_TRUE(has_message(eh, "unable to open file "));
}

TEST_F(Reports, FormsOfTheTables)
{
  AIDRPT(eh, f.variables, f.factors, f.terms, f.design, f.model, f.fit, {}, store);
  f.variables.rows[0].labels = {};
  for (const auto& [form, first] :
       {std::pair{0, "Model_Term"}, {1, "Model_Term\tLevel\tEffect\tseEffect\nmu\t1\t10.000000\t1.0000000\n"},
        {2, "Model_Term,Level,Effect,seEffect\nmu,1,10.000000,1.0000000\n"}}) {
    options(Slot::slnform) = form;
    options(Slot::yhtform) = -1;
    write("ASIS");
    EXPECT_TRUE(read("r.sln").starts_with(first)) << form << read("r.sln");
    EXPECT_EQ(read("r.yht"), "");
  }
  options(Slot::yhtform) = 2;
  write("ASIS");
  EXPECT_NE(read("r.yht").find("\n3,NA,NA,NA\n"), std::string::npos) << read("r.yht");
}

TEST_F(Reports, FitsCanBeFollowed)
{
  folder.file("r.tlv", "earlier\n");
  COMMUNICATION communication;
  const std::vector<ITERATION_ROW> rows = std::move(f.fit.trace);
  f.fit.trace.clear();
  {
    REPORT_FILES files;
    AIOPEN(eh, "ASIS", "r", folder.path(""), files);
    eh.note("told before the fit");
    begin_primary_report(run(), files);
    EXPECT_NE(read("r.tlv").find("told before the fit"), std::string::npos);
    EXPECT_TRUE(read("r.tlv").ends_with("Iterations\n----------\n"));
    for (const ITERATION_ROW& row : rows) {
      f.fit.trace.push_back(row);
      HANDLE_TRACE(eh, communication, f.fit, 20, &files.tlv, store);
      EXPECT_TRUE(read("r.tlv").ends_with(iteration_line(row))) << row.iteration;
    }
    EXPECT_EQ(read("r.tlv.earlier1"), "earlier\n");
    eh.note("told by the fit");
    WRITE_REPORT_FILES(eh, run(), files);
  }
  const std::string report = read("r.tlv");
  EXPECT_EQ(read("r.tlv.earlier1"), "");
  std::size_t at = 0;
  for (const std::string& words : {std::string("told before the fit"), iteration_line(rows[0]), iteration_line(rows[2]),
                                   std::string(" Final parameter values:"), std::string("Messages of the fit"),
                                   std::string("told by the fit"), std::string("Results"), std::string("END OF AIDATA_BODY")}) {
    const std::size_t found = report.find(words, at);
    ASSERT_NE(found, std::string::npos) << words << report;
    at = found + words.size();
  }
  EXPECT_EQ(report.find("told before the fit", report.find("told before the fit") + 1), std::string::npos);
}

TEST_F(Reports, FollowedReportsAreWholeOrNotAtAll)
{
  // A run that breaks off, and one whose device fills while it iterates.
  for (const bool full : {false, true}) {
    folder.file("r.tlv", "earlier\n");
    ERROR_HANDLER own;
    {
      REPORT_FILES files;
      AIOPEN(own, "ASIS", "r", folder.path(""), files);
      begin_primary_report(run(), files);
      EXPECT_NE(read("r.tlv"), "earlier\n");
      if (full) {
        const tolvan_test::SmallDevice device(read("r.tlv").size() + 100);
        COMMUNICATION communication;
        for (int k = 0; k < 5; ++k) HANDLE_TRACE(own, communication, f.fit, 20, &files.tlv, store);
        WRITE_REPORT_FILES(own, run(), files);
      }
    }
    EXPECT_EQ(read("r.tlv"), "earlier\n") << full;
    EXPECT_EQ(read("r.tlv.earlier1") + read("r.tlv.part1"), "");
    EXPECT_EQ(own.terminate(), full);
    if (full) {
      EXPECT_TRUE(has_message(own, "unable to write file "));
    }
  }
}

TEST_F(Reports, ResidualsWithTheirMoments)
{
  // Two traits of seven records; the records of two sections, the last two being the second.
  // First section, second trait: 1, 2, 3, 4, 10: mean 4, m2 = 10, m3 = 36, m4 = 278.8.
  const std::int64_t id = OTST_REGISTER_TABLE(eh, store, "TABLE_YHT");
  OUTPUT_TABLE& t = store.table(id);
  OTT_ADD_COLUMN(eh, t, {.type = ColumnType::integer, .name = "RECORD"});
  OTT_ADD_COLUMN(eh, t, {.name = "YHAT"});
  OTT_ADD_COLUMN(eh, t, {.name = "RESID"});
  DESIGN_MTX design;
  VARIANCE_MODEL model;
  std::int64_t record = 0;
  for (const double e : {1.0, 2.0, no_value, 3.0, 4.0, 10.0, 0.5, 0.75}) {
    ++record;
    for (const std::int32_t trait : {1, 2}) {
      OTT_NEXT_ROW(eh, t);
      OTT_SET_INTEGER_VALUES(eh, t, {record});
      OTT_SET_REAL_VALUES(eh, t, {5.0, trait == 1 ? 100.0 : e});
      design.record.push_back(record);
      design.trait.push_back(trait);
      design.start.push_back(0);
    }
  }
  model.sections = {{.first_record = 0, .records = 12, .label = "first"}, {.first_record = 12, .records = 4, .label = "second"}};
  FileWriter file;
  ASSERT_TRUE(file.open(folder.path("x.res")));
  WRITE_RESIDUAL_REPORT(design, model, {"grain", "straw"}, store, file);
  ASSERT_TRUE(file.commit());
  const std::vector<std::string> lines = split(read("x.res"), '\n');
  ASSERT_GE(lines.size(), 18u);
  EXPECT_EQ(lines[0], " Section 1: first");
  EXPECT_EQ(lines[5], " Trait 2: straw");
  EXPECT_EQ(lines[7], text(edit_i(5, 10), "       4.0000       1.0000       10.000       12.500", edit_f(36.0 / std::pow(10.0, 1.5), 13, 4),
                           edit_f(2.788, 13, 4)));
  EXPECT_EQ(lines[8], " No residual stands out.");
  EXPECT_EQ(lines[9], " Section 2: second");
  EXPECT_EQ(lines[16].substr(0, 36), text(edit_i(2, 10), "      0.62500      0.50000"));
}

TEST_F(Reports, ModelListing)
{
  const std::string listing = PRTERRTXT(f.terms, f.model);
  EXPECT_TRUE(listing.starts_with(" Currently defined structures, COLS and LEVELS\n"));
  EXPECT_NE(listing.find(" Model specification:  TERM LEVELS GAMMAS\n"), std::string::npos);
  EXPECT_NE(PRTERRTXT(f.terms, {}).find("Model specification: GAMMAS is not allocated\n"), std::string::npos);
  EXPECT_EQ(final_values_text(f.model, f.fit), " Final parameter values:\n  0.25000000       1.0000000    \n");
  EXPECT_EQ(final_values_text(f.model, {}), "Final parameter values: GAMMAS is not allocated\n");
}

}  // namespace
}  // namespace tolvan
