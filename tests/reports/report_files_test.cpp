// Opening, adding to and filling report files; the texts of the reports.
#include "reports/report_files.h"

#include <cmath>
#include <fstream>
#include <sstream>

#include "base/text.h"
#include "reports/result_tables.h"
#include "reports/small_fit.h"
#include "support/checks.h"

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
  std::vector<std::string> comments = {"one", "two"};

  RUN_REPORT run() const { return {title, comments, eh, options, f.variables, summary, f.terms, f.model, f.fit, store, timing, order}; }
  std::string read(const std::string& name) const
  {
    std::ifstream in(folder.path(name), std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
  }
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
  AIDRPT(eh, f.variables, f.factors, f.terms, f.design, f.model, f.fit, store);
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
  AIDRPT(eh, f.variables, f.factors, f.terms, f.design, f.model, f.fit, store);
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

TEST_F(Reports, ResidualsWithTheirMoments)
{
  // 1, 2, 3, 4, 10: mean 4, m2 = 10, m3 = 36, m4 = 278.8.
  const std::int64_t id = OTST_REGISTER_TABLE(eh, store, "TABLE_YHT");
  OUTPUT_TABLE& t = store.table(id);
  OTT_ADD_COLUMN(eh, t, {.type = ColumnType::integer, .name = "RECORD"});
  OTT_ADD_COLUMN(eh, t, {.name = "YHAT"});
  OTT_ADD_COLUMN(eh, t, {.name = "RESID"});
  std::int64_t record = 0;
  for (const double e : {1.0, 2.0, no_value, 3.0, 4.0, 10.0}) {
    OTT_NEXT_ROW(eh, t);
    OTT_SET_INTEGER_VALUES(eh, t, {++record});
    OTT_SET_REAL_VALUES(eh, t, {5.0, e});
  }
  FileWriter file;
  ASSERT_TRUE(file.open(folder.path("x.res")));
  WRITE_RESIDUAL_REPORT(store, file);
  ASSERT_TRUE(file.commit());
  const std::vector<std::string> lines = split(read("x.res"), '\n');
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ(lines[1], text(edit_i(5, 10), edit_g(4.0, 13, 5), edit_g(1.0, 13, 5), edit_g(10.0, 13, 5), edit_g(12.5, 13, 5),
                           edit_f(36.0 / std::pow(10.0, 1.5), 13, 4), edit_f(2.788, 13, 4)));
  EXPECT_EQ(lines[2], " No residual stands out.");
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
