// The tables of a fit: columns, headings and formats against the list of tables, and what the cells hold.
#include <fstream>
#include <map>

#include "base/json.h"
#include "base/text.h"
#include "reports/result_tables.h"
#include "reports/small_fit.h"
#include "support/checks.h"

namespace tolvan {
namespace {

/// All tables of the small fit.
struct Tables : testing::Test {
  SMALL_FIT f;
  ERROR_HANDLER eh;
  COMMUNICATION communication;
  OUTPUT_TABLE_STORE store;

  void trace()
  {
    const std::vector<ITERATION_ROW> rows = std::move(f.fit.trace);
    f.fit.trace.clear();
    for (const ITERATION_ROW& row : rows) {
      f.fit.trace.push_back(row);
      HANDLE_TRACE(eh, communication, f.fit, 20, nullptr, store);
    }
    FINISH_TRACE(eh, f.fit, store);
  }
  void expect_listed_columns(bool outliers);
  void report() { AIDRPT(eh, f.variables, f.factors, f.terms, f.design, f.model, f.fit, {}, store); }

  const OUTPUT_TABLE& table(std::string_view name)
  {
    const OUTPUT_TABLE* found = store.find_table(name);
    EXPECT_NE(found, nullptr) << name;
    return *found;
  }
  std::vector<double> reals(std::string_view name, std::string_view column)
  {
    const OUTPUT_TABLE& t = table(name);
    std::vector<double> out;
    for (std::int64_t i = 1; i <= t.nrows; ++i) out.push_back(t.real(i, t.find_column(column)));
    return out;
  }
  std::string texts(std::string_view name, std::string_view column)
  {
    const OUTPUT_TABLE& t = table(name);
    std::string out;
    for (std::int64_t i = 1; i <= t.nrows; ++i) out += t.string(i, t.find_column(column)) + "|";
    return out;
  }
  std::string footnotes()
  {
    std::string out;
    for (const TITLE_FOOTNOTE& line : table("TABLE_VARCOMP").footnotes) out += line.text + "\n";
    return out;
  }
};

TEST_F(Tables, HaveTheColumnsOfTheList)
{
  for (const bool outliers : {false, true}) expect_listed_columns(outliers);
}

void Tables::expect_listed_columns(bool outliers)
{
  SCOPED_TRACE(outliers ? "with outlier statistics" : "without");
  if (outliers) {
    f.fit.rinv_residual = f.fit.record_outlier = f.fit.residual;
    f.fit.ginv_effect = f.fit.effect_outlier = f.fit.solution;
  }
  trace();
  STORE_INITIAL_VALUES_TABLE(eh, f.model, store);
  report();
  ASSERT_TRUE(clean(eh));

  std::map<std::string, std::vector<std::vector<std::string>>> expected;  // rows of the list by table
  std::ifstream list(std::string(TOLVAN_TEST_DATA) + "/tables.tsv");
  ASSERT_TRUE(list.good());
  std::string line;
  while (std::getline(list, line)) {
    const std::vector<std::string> cells = split(line, '\t');
    // kind, name, table type, present, title, number, column, heading, format, column type, column present
    if (cells[0] != "table" || store.find_table(cells[1]) == nullptr) continue;
    if (cells[10] == "outlier statistics asked" && !outliers) continue;
    expected[cells[1]].push_back(cells);
  }
  EXPECT_EQ(expected.size(), static_cast<std::size_t>(store.ntables()));
  EXPECT_EQ(store.ntables(), 6);

  for (auto& [name, rows] : expected) {
    SCOPED_TRACE(name);
    const OUTPUT_TABLE& t = table(name);
    if (name == "TABLE_TRACE") {  // gammas_<n>: one a parameter
      const std::vector<std::string> pattern = rows.back();
      rows.pop_back();
      for (const char* number : {"1", "2"}) {
        rows.push_back(pattern);
        rows.back()[6] = rows.back()[7] = text("gammas_", number);
      }
    }
    EXPECT_EQ(text("ott_type_", table_type_name(t.type)), rows.front()[2]);
    EXPECT_EQ(t.titles.empty() ? "" : t.titles.front().text, rows.front()[4]);
    ASSERT_EQ(t.ncols(), static_cast<std::int64_t>(rows.size()));
    for (std::int64_t k = 1; k <= t.ncols(); ++k) {
      const std::vector<std::string>& row = rows[static_cast<std::size_t>(k - 1)];
      const INDIVIDUAL_COLUMN_INFO& column = t.column(k);
      EXPECT_EQ(column.name, row[6]);
      EXPECT_EQ(column.heading, row[7]) << column.name;
      EXPECT_EQ(column.format, row[8]) << column.name;
      EXPECT_EQ(column_type_name(column.type), row[9]) << column.name;
    }
  }
  // Every table prints, and survives a trip through JSON.
  for (const auto& t : store.tables) {
    std::string out;
    OTT_PRETTY_PRINT(eh, *t, out);
    EXPECT_GT(out.size(), 20u);
    const std::string json = OTT_TO_JSTR(eh, *t);
    JsonError fault;
    const auto tree = parse_json(json, fault);
    ASSERT_NE(tree, nullptr) << fault.message;
    OUTPUT_TABLE back;
    OTT_SET_FROM_JPTR(eh, back, *tree->children().front());
    EXPECT_EQ(OTT_TO_JSTR(eh, back), json);
  }
  EXPECT_TRUE(clean(eh));
}

TEST_F(Tables, TraceHasARowAnEvaluation)
{
  f.fit.trace[1].flag = '1';
  trace();
  EXPECT_TRUE(clean(eh));
  EXPECT_EQ(table("TABLE_TRACE").nrows, 3);
  EXPECT_EQ(table("TABLE_TRACE").alloc_nrows, 3);
  EXPECT_EQ(reals("TABLE_TRACE", "LOGL"), (std::vector<double>{-13.5, -13.0, -12.5}));
  EXPECT_EQ(reals("TABLE_TRACE", "DEVDF"), (std::vector<double>(3, no_value)));
  EXPECT_EQ(reals("TABLE_TRACE", "gammas_1"), (std::vector<double>{0.1, 0.2, 0.25}));
  EXPECT_EQ(texts("TABLE_TRACE", "FLG"), " |1| |");
  trace();  // the next fit of the same object starts anew
  EXPECT_EQ(table("TABLE_TRACE").nrows, 3);
  EXPECT_EQ(table("TABLE_TRACE").ncols(), 9);
}

TEST_F(Tables, TraceOutgrowsTheRoomItWasGiven)
{
  f.fit.trace.resize(1);
  const ITERATION_ROW row = f.fit.trace.front();
  HANDLE_TRACE(eh, communication, f.fit, -5, nullptr, store);
  for (int k = 0; k < 60; ++k) {
    f.fit.trace.push_back(row);
    HANDLE_TRACE(eh, communication, f.fit, -5, nullptr, store);
  }
  FINISH_TRACE(eh, f.fit, store);
  EXPECT_TRUE(clean(eh));
  EXPECT_EQ(table("TABLE_TRACE").nrows, 61);
  EXPECT_EQ(reals("TABLE_TRACE", "gammas_1").back(), 0.1);
}

TEST(Monitor, ReceivesTheRow)
{
  SMALL_FIT f;
  EXPECT_EQ(monitor_json(f.fit.trace[1]),
            "{\"moninfo_type\":\"trace\",\"iteration\":2,\"logl\":-13.0,\"sigma2\":5.0,\"df\":3,\"time\":0.5,"
            "\"conflb\":0.125,\"nconstrained\":0,\"flag\":\" \",\"gammas\":[0.2,1.0]}");
  f.fit.trace[1].logl = NAN;
  f.fit.trace[1].gammas.clear();
  EXPECT_NE(monitor_json(f.fit.trace[1]).find("\"logl\":null"), std::string::npos);
  EXPECT_NE(monitor_json(f.fit.trace[1]).find("\"gammas\":[]}"), std::string::npos);

  ERROR_HANDLER eh;
  OUTPUT_TABLE_STORE store;
  COMMUNICATION communication;
  communication.monitor = [](std::int32_t* result, const char*, std::int32_t) { *result = 3; };
  HANDLE_TRACE(eh, communication, f.fit, 20, nullptr, store);
  EXPECT_TRUE(has_message(eh, "User sent an abort code"));
  EXPECT_EQ(store.find_table("TABLE_TRACE")->nrows, 1);  // stored before the monitor is asked
}

TEST_F(Tables, ComponentsWithTheirErrors)
{
  f.fit.trace.push_back(f.fit.trace.back());  // a repeat of the last pass
  f.fit.trace.back().gammas = {0.3, 1.0};
  report();
  EXPECT_TRUE(clean(eh));
  EXPECT_EQ(texts("TABLE_VARCOMP", "LABEL"), "block;IDV_V|units;IDV_V|");
  EXPECT_EQ(reals("TABLE_VARCOMP", "GAMMA"), (std::vector<double>{0.25, 1.0}));
  EXPECT_EQ(reals("TABLE_VARCOMP", "SIGMA"), (std::vector<double>{1.0, 4.0}));
  EXPECT_EQ(reals("TABLE_VARCOMP", "SE"), (std::vector<double>{0.5, 2.0}));
  EXPECT_EQ(reals("TABLE_VARCOMP", "ZRATIO"), (std::vector<double>{2.0, 2.0}));
  EXPECT_EQ(table("TABLE_VARCOMP").integer(1, 6), 50);  // from 0.2 to 0.3
  EXPECT_EQ(table("TABLE_VARCOMP").integer(2, 6), 0);
  EXPECT_EQ(texts("TABLE_VARCOMP", "BOUND"), "P|P|");
  EXPECT_EQ(reals("TABLE_VARVAR", "VALUES"), (std::vector<double>{0.25, -0.5, 4.0}));
  EXPECT_EQ(table("TABLE_VARVAR").type, TableType::packed_sym_mtx);
}

TEST_F(Tables, ComponentsWithoutErrors)
{
  f.fit.covariance = {0.0, 0.0, 4.0};
  f.fit.bound = {'F', 'P'};
  f.fit.trace.resize(1);
  report();
  EXPECT_EQ(reals("TABLE_VARCOMP", "SE").front(), no_value);
  EXPECT_EQ(reals("TABLE_VARCOMP", "ZRATIO").front(), 0.0);
  EXPECT_EQ(texts("TABLE_VARCOMP", "BOUND"), "F|P|");
  EXPECT_EQ(table("TABLE_VARCOMP").integer(1, 6), 0);
  EXPECT_EQ(store.find_table("TABLE_VARVAR")->nrows, 3);
}

TEST_F(Tables, PercentChangeFitsItsWidth)
{
  f.fit.trace[1].gammas = {1e-9, 0.0};
  report();
  EXPECT_EQ(table("TABLE_VARCOMP").integer(1, 6), 999);
  EXPECT_EQ(table("TABLE_VARCOMP").integer(2, 6), 999);
  f.fit.trace[1].gammas = {1e9, 1.0};
  report();
  EXPECT_EQ(table("TABLE_VARCOMP").integer(1, 6), -100);
}

TEST_F(Tables, FootnotesApplyToTheComponents)
{
  const std::string codes =
      "code B - fixed at a boundary             F - fixed by user\n"
      "     ? - liable to change from P to B    P - positive definite\n"
      "     C - Constrained by user             U - unbounded \n"
      "     S - Singular Information matrix\n";
  const std::string singular = "S means there is no information in the data for this parameter\n";
  const std::string scaling =
      "very small components with Comp/SE ratios of zero sometimes indicate poor scaling\n"
      "consider rescaling the design matrix in such cases\n";
  const std::string confounded =
      "the first singularity may have occurred because block;IDV_V is confounded with the residual\n";
  report();
  EXPECT_EQ(footnotes(), codes);
  f.fit.first_singular_label = "block;IDV_V";
  report();
  EXPECT_EQ(footnotes(), codes);  // no S, no word of it
  f.fit.bound[0] = 'S';
  report();
  EXPECT_EQ(footnotes(), codes + singular + confounded);
  f.fit.covariance[0] = 1e6;  // 1.0 over 1000.0
  report();
  EXPECT_EQ(footnotes(), codes + singular + scaling + confounded);
  f.fit.bound[0] = 'P';
  report();
  EXPECT_EQ(footnotes(), codes + scaling);
  f.fit.sigma[0] = -1.0;  // a negative one is no matter of scale
  report();
  EXPECT_EQ(footnotes(), codes);
}

TEST_F(Tables, SolutionsOfAllTermsInOrder)
{
  report();
  EXPECT_TRUE(clean(eh));
  EXPECT_EQ(texts("TABLE_SLN", "LABEL"), "mu|x|block|block|m|m|mv_estimates|");
  const std::string levels = texts("TABLE_SLN", "LVL");
  EXPECT_NE(levels.find("|north|south|1|2|"), std::string::npos) << levels;
  EXPECT_EQ(reals("TABLE_SLN", "EFFECT"), f.fit.solution);
  EXPECT_EQ(reals("TABLE_SLN", "SE"), f.fit.se);
  f.fit.se.clear();
  report();
  EXPECT_EQ(reals("TABLE_SLN", "SE"), (std::vector<double>(7, no_value)));
  f.fit.solution.pop_back();
  report();
  EXPECT_TRUE(has_message(eh, "expected the second dimension of SOLN array to be at least 7, size = 6"));
}

TEST_F(Tables, FittedValuesInTheOrderOfTheData)
{
  f.design.record = {6, 1, 4, 5, 2};  // sorted for the fit
  report();
  EXPECT_TRUE(clean(eh));
  EXPECT_EQ(reals("TABLE_YHT", "YHAT"), (std::vector<double>{10.5, 8.0, no_value, 11.0, 12.0, 9.5}));
  EXPECT_EQ(reals("TABLE_YHT", "RESID"), (std::vector<double>{-0.5, 1.0, no_value, 0.0, no_value, 0.5}));
  EXPECT_EQ(reals("TABLE_YHT", "HAT"), (std::vector<double>{0.5, 0.125, no_value, 0.75, 1.0, 0.25}));
  f.fit.hat.clear();
  report();
  EXPECT_EQ(reals("TABLE_YHT", "HAT"), (std::vector<double>(6, no_value)));
  f.fit.residual.pop_back();
  report();
  EXPECT_TRUE(has_message(eh, "expected the second dimension of RESID array to be at least 5, size = 4"));
}

TEST_F(Tables, OnlyUsableResultsAreReported)
{
  f.fit.usable = false;
  report();
  STORE_FIT_SCALARS(eh, f.model, f.fit, store);
  EXPECT_EQ(store.ntables(), 0);
  EXPECT_EQ(store.nscalars(), 0);
  EXPECT_TRUE(clean(eh));
}

TEST_F(Tables, ScalarsOfTheFit)
{
  STORE_FIT_SCALARS(eh, f.model, f.fit, store);
  const auto real = [&](const char* name) { return store.find_scalar(name)->rval; };
  EXPECT_EQ(real("SCALAR_LOGLIK"), -12.5);
  EXPECT_EQ(real("SCALAR_SIGMA2"), 4.0);
  EXPECT_EQ(real("SCALAR_AIC"), 29.0);
  EXPECT_EQ(real("SCALAR_BIC"), 27.197);
  EXPECT_EQ(real("SCALAR_DETC"), 7.25);
  for (const auto& [name, value] : {std::pair{"SCALAR_DF", 3}, {"SCALAR_AIC_NPARAM", 2}}) {
    EXPECT_EQ(store.find_scalar(name)->type, ColumnType::integer);
    EXPECT_EQ(store.find_scalar(name)->ival, value);
  }
  f.model.profiled = f.model.gamma = false;  // its own variance stands for it
  f.fit.sigma[1] = 3.5;
  STORE_FIT_SCALARS(eh, f.model, f.fit, store);
  EXPECT_EQ(real("SCALAR_SIGMA2"), 3.5);
  f.model.residual_parameter = -1;  // several sections have none
  STORE_FIT_SCALARS(eh, f.model, f.fit, store);
  EXPECT_EQ(real("SCALAR_SIGMA2"), 1.0);
}

TEST_F(Tables, InitialValues)
{
  f.model.parameters[0].constraint = Constraint::U;
  STORE_INITIAL_VALUES_TABLE(eh, f.model, store);
  EXPECT_TRUE(clean(eh));
  EXPECT_EQ(texts("TABLE_INITVALS", "LABELS"), "block;IDV_V|units;IDV_V|");
  EXPECT_EQ(texts("TABLE_INITVALS", "FLAGS"), "U|P|");
  EXPECT_EQ(reals("TABLE_INITVALS", "VALUES"), (std::vector<double>{0.25, 1.0}));
  EXPECT_EQ(table("TABLE_INITVALS").integer(2, 1), 2);
  f.model.parameters[1].label = "block;IDV_V";
  STORE_INITIAL_VALUES_TABLE(eh, f.model, store);
  EXPECT_TRUE(has_message(eh, "duplicate variance component label: block;IDV_V"));
}

TEST(FinalStatus, FlagAndWords)
{
  struct Case {
    const char* status;
    std::int64_t given, flag;
    const char* message;
    std::int64_t call;  // status of the call
  };
  for (const Case& c : {
           Case{"LogL Converged; ", 0, 0, "LogL Converged; ", 0},
           Case{"Warning: LogL Converged; ; Parameters Not Converged", 0, 0,
                "Warning: LogL Converged; ; Parameters Not Converged", -3},
           Case{" Warning: LogL not converged", 2, 2, " Warning: LogL not converged", -3},
           Case{"Convergence failed", 2, 2, "Convergence failed", 0},
           Case{"Note: all is well", 0, 0, "Note: all is well", -1},
           Case{"notice : all is well", 0, 0, "notice : all is well", -2},
           Case{"Error: Forming Design Matrices", 1, 1, "Terminated early whilst forming design matrices", 0},
           Case{"Warning: Finished Preprocessing", 1, 1, "Terminated early whilst preprocessing", 0},
           Case{"JOB ABORTED by USER", 1, 1, "Terminated early", 0},
           Case{"", 1, 1, "Terminated early", 0},
       }) {
    ERROR_HANDLER eh;
    OUTPUT_TABLE_STORE store;
    WARNING(eh, c.status, c.given, store);
    EXPECT_EQ(store.find_scalar("SCALAR_CONVERGENCE_FLG")->ival, c.flag) << c.status;
    EXPECT_EQ(store.find_scalar("SCALAR_FINAL_MESSAGE")->sval, c.message);
    EXPECT_EQ(eh.EH_STATUS(), c.call) << c.status;
    EXPECT_FALSE(eh.terminate());
  }
}

}  // namespace
}  // namespace tolvan
