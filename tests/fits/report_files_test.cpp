// Files of whole fits: what a run writes, what a later one takes up, what happens where no file can be written.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "fits/host.h"
#include "support/files.h"

namespace {

namespace fs = std::filesystem;
using tolvan_test::changed;
using tolvan_test::dataset;
using tolvan_test::Host;
constexpr auto read = tolvan_test::read_whole;

constexpr const char* model = R"({"response":"y","fixed":"mu+x","random":"site:us(trial)+line"})";

/// Works in a folder of its own.
struct ReportFiles : testing::Test {
  fs::path before = fs::current_path();
  fs::path folder;

  void SetUp() override
  {
    std::string pattern = (fs::temp_directory_path() / "tolvan_files_XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    folder = pattern;
    fs::current_path(folder);
  }
  ~ReportFiles() override
  {
    fs::current_path(before);
    fs::remove_all(folder);
  }

  static void hand_in(Host& host)
  {
    constexpr int n = 240, sites = 12, trials = 2, lines = 20;
    std::mt19937 random(7);
    std::normal_distribution<double> normal;
    std::vector<double> u(sites * trials), g(lines);
    for (int s = 0; s < sites; ++s) {
      const double shared = normal(random);
      for (int t = 0; t < trials; ++t) u[static_cast<std::size_t>(s * trials + t)] = shared + 0.5 * normal(random);
    }
    for (double& each : g) each = 0.7 * normal(random);
    std::vector<double> values(5 * n);
    for (std::size_t k = 0; k < n; ++k) {
      const std::size_t s = k % sites, t = (k / sites) % trials, l = (k * 7) % lines;
      values[k] = static_cast<double>(s + 1);
      values[n + k] = static_cast<double>(t + 1);
      values[2 * n + k] = static_cast<double>(l + 1);
      values[3 * n + k] = static_cast<double>(k % 5);
      values[4 * n + k] = 10.0 + 0.3 * static_cast<double>(k % 5) + u[s * trials + t] + g[l] + normal(random);
    }
    host.info("{\"dataset\":" + dataset("d", n, {{"site", sites}, {"trial", trials}, {"line", lines}, {"x", 0}, {"y", 0}}) + "}");
    host.matrix("d", values, n, 5);
  }
  /// A fit with these options; its messages.
  std::string fit(Host& host, const std::string& options, const std::string& more = "")
  {
    hand_in(host);
    host.process(std::string("{\"model\":") + model + ",\"options\":{" + options + "}" + more + "}");
    const int status = host.status;
    std::string told = host.errors();
    host.status = status;
    return told;
  }
  std::size_t files() const
  {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(folder), fs::directory_iterator()));
  }
};

TEST_F(ReportFiles, NoneUnlessAskedFor)
{
  Host host;
  fit(host, "");
  EXPECT_LE(host.status, 0);
  EXPECT_EQ(files(), 0U);
}

TEST_F(ReportFiles, TheFamily)
{
  fs::create_directory("out");
  Host host;
  const std::string told = fit(host, R"("outfolder":"out","tmp_file_root":"r","logfile":true)",
                               R"(,"title":"A trial of lines","comments":["first remark","second remark"])");
  ASSERT_LE(host.status, 0) << told;
  for (const char* name : {"tlv", "res", "vvp", "veo", "sln", "yht", "rsv", "tsv", "tvs", "log"}) {
    EXPECT_GT(fs::file_size(folder / "out" / (std::string("r.") + name)), 20U) << name;
  }
  EXPECT_FALSE(fs::exists("out/r.msv"));
  EXPECT_FALSE(fs::exists("out/r.aov"));
  const std::string report = read("out/r.tlv");
  std::size_t at = 0;
  for (const char* words :
       {" A trial of lines\n", " first remark\n second remark\n", "Data", " Variable ", "Model",
        " Currently defined structures, COLS and LEVELS\n", " Model specification:  TERM LEVELS GAMMAS\n", " SECTIONS", "Iterations",
        "Messages of the fit", "Note: ", "LogL Converged", "Model_Term", "code B - fixed at a boundary", "Akaike", "END OF AIDATA_BODY", "Other"}) {
    const std::size_t found = report.find(words, at);
    EXPECT_NE(found, std::string::npos) << words;
    if (found != std::string::npos) at = found;
  }
  EXPECT_TRUE(read("out/r.res").starts_with(" === === === === Residual statistics for out/r.tlv === === === ===\n"));
  const std::string log = read("out/r.log");
  EXPECT_TRUE(log.starts_with(" >> >>      Tolvan Process        CPU_time     SumCPU        Clock   SumClock\n")) << log;
  EXPECT_NE(log.find(" >> >> Iteration complete : sec"), std::string::npos);
  EXPECT_NE(log.find(" >> >>Finished            : sec"), std::string::npos);
  EXPECT_NE(read("out/r.sln").find("mu "), std::string::npos);

  // The tables between separators.
  Host other;
  fit(other, R"("outfolder":"out","tmp_file_root":"s","txtform":2,"yhtform":1,"vrb":true)");
  EXPECT_TRUE(read("out/s.sln").starts_with("Model_Term,Level,Effect,seEffect\nmu,1,"));
  EXPECT_TRUE(read("out/s.yht").starts_with("Record\tYhat\tResidual\tHat\n1\t"));
  EXPECT_FALSE(fs::exists("out/s.log"));
  const std::string dump = read("out/s.vrb");
  EXPECT_TRUE(dump.starts_with("equations\tNEQ\t")) << dump;
  EXPECT_NE(dump.find("\nequations\tNEQD\t2\nscalar\tSCALAR_LOGLIK\t"), std::string::npos);
  EXPECT_NE(dump.find("\ncomponent\tline;IDV_V\t"), std::string::npos);
  EXPECT_NE(dump.find("\neffect\tmu\t1\t"), std::string::npos);
  EXPECT_FALSE(fs::exists("out/r.vrb"));
}

TEST_F(ReportFiles, RestartReachesTheSameOptimum)
{
  Host whole;
  fit(whole, R"("tmp_file_root":"whole")");
  const double best = whole.real("SCALAR_LOGLIK");
  const std::vector<double> gammas = whole.reals("TABLE_VARCOMP:GAMMA");
  const double start = whole.reals("TABLE_TRACE:LOGL").front();
  for (const int k : {1, 2, 4}) {
    Host first;
    fit(first, "\"tmp_file_root\":\"part\",\"maxiterations\":" + std::to_string(k));
    for (const char* options : {R"("tmp_file_root":"part","continue":"NoValueSupplied")", R"("tmp_file_root":"next","continue":"part.rsv")",
                                R"("tmp_file_root":"next","continue":"part.tsv")", R"("tmp_file_root":"next","tsv":"part.tsv")"}) {
      const std::string rsv = read("part.rsv"), tsv = read("part.tsv");
      Host second;
      const std::string told = fit(second, options);
      EXPECT_LE(second.status, 0) << told;
      EXPECT_NE(told.find("restart values taken from part."), std::string::npos) << told;
      EXPECT_NEAR(second.real("SCALAR_LOGLIK"), best, 1e-6) << k << options;
      EXPECT_GT(second.reals("TABLE_TRACE:LOGL").front(), start + (k == 1 ? -1e-4 : 0.01));  // the last values evaluated
      const std::vector<double> again = second.reals("TABLE_VARCOMP:GAMMA");
      ASSERT_EQ(again.size(), gammas.size());
      for (std::size_t i = 0; i < gammas.size(); ++i) EXPECT_NEAR(again[i], gammas[i], 1e-3 * std::fabs(gammas[i])) << k;
      std::ofstream("part.rsv") << rsv;
      std::ofstream("part.tsv") << tsv;
    }
  }
  // The equation order of the earlier run, and one evaluation of its parameters.
  Host last;
  const std::string told = fit(last, R"("tmp_file_root":"whole","final":"whole.rsv")");
  EXPECT_NE(told.find("Equation order retrieved from .veo file."), std::string::npos) << told;
  EXPECT_EQ(last.reals("TABLE_TRACE:LOGL").size(), 1U);
  EXPECT_NEAR(last.real("SCALAR_LOGLIK"), best, 1e-6);
  EXPECT_NE(last.json("SCALAR_FINAL_MESSAGE").find("Warning: Only one iteration performed Parameters unchanged after one iteration."),
            std::string::npos);
  EXPECT_EQ(last.integer("SCALAR_CONVERGENCE_FLG"), 2);
}

TEST_F(ReportFiles, ElementsOfInverseOfChosenTerms)
{
  Host whole;
  fit(whole, R"("cinv":true)");
  const std::vector<int> rows = whole.integers("TABLE_CINV:ROWID"), columns = whole.integers("TABLE_CINV:COLID");
  const std::vector<double> values = whole.reals("TABLE_CINV:VALUES");
  const std::vector<int> first = whole.integers("TABLE_CINV_INFO:START"), last = whole.integers("TABLE_CINV_INFO:END");
  ASSERT_EQ(first.size(), 4U);  // mu, x, site by trial, line

  struct Case {
    const char* asked;
    std::vector<std::size_t> terms;
    const char* words;
  };
  for (const Case& c : {Case{R"("line")", {3}, "line portion of C-Inverse written to file"},
                        Case{R"(["line","x"])", {1, 3}, "x portion of C-Inverse written to file"},
                        Case{R"("random")", {2, 3}, "all random terms portion of C-Inverse written to file"},
                        Case{R"("plot")", {}, "the term plot is not in the sparse model, so unable to output the associated part of C-Inverse"}}) {
    SCOPED_TRACE(c.asked);
    Host host;
    const std::string told = fit(host, std::string(R"("tmp_file_root":"r","cinv":)") + c.asked);
    EXPECT_NE(told.find(c.words), std::string::npos) << told;
    const auto chosen = [&](int equation) {
      return std::any_of(c.terms.begin(), c.terms.end(), [&](std::size_t t) { return first[t] <= equation && equation <= last[t]; });
    };
    std::vector<int> wanted_rows;
    std::vector<double> wanted;
    for (std::size_t k = 0; k < rows.size(); ++k) {
      if (!chosen(rows[k]) || !chosen(columns[k])) continue;
      wanted_rows.push_back(rows[k]);
      wanted.push_back(values[k]);
    }
    EXPECT_EQ(host.integers("TABLE_CINV:ROWID"), wanted_rows);
    EXPECT_EQ(host.reals("TABLE_CINV:VALUES"), wanted);
    const std::string file = read("r.cii");
    EXPECT_EQ(std::count(file.begin() + static_cast<std::ptrdiff_t>(std::min(file.find("ROWID"), file.size())), file.end(), '\n'),
              std::ssize(wanted) + 1);
    fs::remove("r.cii");
  }
}

TEST_F(ReportFiles, EditedTablesAreFollowed)
{
  Host first;
  fit(first, R"("tmp_file_root":"r")");
  const std::vector<double> gammas = first.reals("TABLE_VARCOMP:GAMMA");
  const std::string table = read("r.tsv");
  const std::size_t row = table.find("\"line;IDV_V");
  ASSERT_NE(row, std::string::npos) << table;
  // A value of its own and the letter F.
  std::string edited = table;
  const std::size_t letter = edited.find(", P,", row);
  edited.replace(letter, 22, ", F,       0.75000000,");
  std::ofstream("r.tsv") << edited;
  Host second;
  const std::string told = fit(second, R"("tmp_file_root":"r","tsv":"NoValueSupplied")");
  EXPECT_NE(told.find("restart values taken from r.tsv and 1 parameter constraint codes were changed"), std::string::npos) << told;
  const std::string printed = second.json("TABLE_VARCOMP:BOUND");
  EXPECT_NE(printed.find("\"F\""), std::string::npos) << printed;
  const std::vector<double> held = second.reals("TABLE_VARCOMP:GAMMA");
  EXPECT_EQ(held[held.size() - 2], 0.75);
  EXPECT_LT(second.real("SCALAR_LOGLIK"), first.real("SCALAR_LOGLIK"));

  EXPECT_EQ(second.reals("TABLE_TRACE:gammas_4").front(), 0.75);  // where the fit began

  // A value that stands in the file of values between runs: the fit begins there.
  const std::string values = read("r.rsv");
  std::string other = values;
  other.replace(other.find(", G, ", other.find("line;IDV")) + 8, 16, "      0.62500000");
  std::ofstream("r.rsv") << other;
  Host begun;
  const std::string begun_at = fit(begun, R"("tmp_file_root":"r","continue":"NoValueSupplied")");
  EXPECT_NE(begun_at.find("restart values taken from r.rsv"), std::string::npos) << begun_at;
  EXPECT_EQ(begun.reals("TABLE_TRACE:gammas_4").front(), 0.625);
  EXPECT_NE(begun.json("TABLE_INITVALS:VALUES").find("0.625"), std::string::npos);

  // The same through the option hold, and refusals that end no run.
  std::ofstream("r.tsv") << changed(edited, ", F,", ", P,");
  Host third;
  fit(third, R"("tmp_file_root":"r","tsv":"NoValueSupplied","hold":[)" + std::to_string(held.size() - 1) + "]");
  EXPECT_NEAR(third.real("SCALAR_LOGLIK"), second.real("SCALAR_LOGLIK"), 1e-6);
  std::ofstream("r.tsv") << changed(table, "Response y", "Response z");
  Host fourth;
  EXPECT_NE(fit(fourth, R"("tmp_file_root":"r","tsv":"NoValueSupplied")").find("it pertains to z rather than y"), std::string::npos);
  EXPECT_NEAR(fourth.real("SCALAR_LOGLIK"), first.real("SCALAR_LOGLIK"), 1e-6);
}

TEST_F(ReportFiles, FaultsOfTheFileSystem)
{
  Host missing;
  std::string told = fit(missing, R"("outfolder":"missing","tmp_file_root":"r")");
  EXPECT_EQ(missing.status, 4);
  EXPECT_NE(told.find("unable to open file missing/r.tlv"), std::string::npos) << told;
  EXPECT_NE(missing.json("SCALAR_FINAL_MESSAGE").find("Terminated early"), std::string::npos);
  Host lost;
  told = fit(lost, R"("tmp_file_root":"r","continue":"lost.rsv")");
  EXPECT_EQ(lost.status, 4);
  EXPECT_NE(told.find("failed to find lost.rsv"), std::string::npos);

  fs::remove_all("r.tlv");
  std::ofstream("r.tlv") << "an earlier report\n";
  Host host;
  hand_in(host);
  {
    const tolvan_test::SmallDevice device(2500);
    host.process(std::string("{\"model\":") + model + R"(,"options":{"tmp_file_root":"r"}})");
  }
  EXPECT_EQ(host.status, 4);
  told = host.errors();
  EXPECT_NE(told.find("unable to write file r.tlv"), std::string::npos) << told;
  EXPECT_NE(told.find("unable to write file r.yht"), std::string::npos) << told;
  EXPECT_EQ(read("r.tlv"), "an earlier report\n");
  EXPECT_NE(host.real("SCALAR_LOGLIK"), 0.0);  // the results are there

  // A device that takes next to nothing: every file is told, the fit is kept.
  Host full;
  hand_in(full);
  {
    const tolvan_test::SmallDevice device(100);
    full.process(std::string("{\"model\":") + model + R"(,"options":{"tmp_file_root":"f"}})");
  }
  EXPECT_EQ(full.status, 4);
  EXPECT_EQ(full.integer("SCALAR_CONVERGENCE_FLG"), 0);
  EXPECT_EQ(full.reals("TABLE_SLN:EFFECT"), host.reals("TABLE_SLN:EFFECT"));
  told = full.errors();
  for (const char* name : {"f.tlv", "f.tvs", "f.sln", "f.yht", "f.rsv"}) EXPECT_NE(told.find(name), std::string::npos) << name << told;
  for (const auto& entry : fs::directory_iterator(folder)) EXPECT_EQ(entry.path().string().find(".part"), std::string::npos) << entry;
}

TEST_F(ReportFiles, FailedRunsReportWhatTheyHave)
{
  Host host;
  hand_in(host);
  host.process(R"js({"model":{"response":"y","fixed":"mu","random":"idv(line,-5)"},"options":{"tmp_file_root":"r"}})js");
  EXPECT_GT(host.status, 0);
  const std::string report = read("r.tlv");
  EXPECT_NE(report.find("Error: "), std::string::npos) << report;
  EXPECT_NE(report.find(" Terminated early"), std::string::npos) << report;
  EXPECT_NE(report.find("END OF AIDATA_BODY"), std::string::npos);
}

TEST_F(ReportFiles, CleanUpLeavesTheUsersTable)
{
  Host host;
  fit(host, R"("tmp_file_root":"r","msv":"NoValueSupplied","clean_up_sa_files":true)");
  EXPECT_LE(host.status, 0);
  EXPECT_TRUE(fs::exists("r.msv"));
  for (const char* name : {"r.tlv", "r.rsv", "r.sln", "r.veo", "r.tvs"}) EXPECT_FALSE(fs::exists(name)) << name;
}

}  // namespace
