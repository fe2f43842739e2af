// Timers and their texts, and the files by which a user stops a run.
#include "reports/timing.h"

#include <filesystem>

#include "base/clock.h"
#include "base/text.h"
#include "reports/user_abort.h"
#include "support/checks.h"

namespace tolvan {
namespace {

TEST(Timing, AddsUpByName)
{
  TIMING_STORE store;
  TMG_STOP(store, "never begun", "here");
  EXPECT_TRUE(store.timers.empty());
  for (int k = 0; k < 3; ++k) {
    const Timed outer{store, "K4MITR"};
    const Timed inner{store, "K4MVSF", "K4MSSF"};
  }
  TMG_START(store, "K4MUPD");
  ASSERT_EQ(store.timers.size(), 3u);
  EXPECT_EQ(store.timers[0].calls, 3);
  EXPECT_EQ(store.timers[1].group, "K4MSSF");
  EXPECT_EQ(store.timers[1].inside, store.timers[1].total);  // all of it within K4MITR
  EXPECT_EQ(store.timers[0].inside, 0.0);
  EXPECT_GE(store.timers[0].total, store.timers[1].total);
  EXPECT_GE(store.timers[2].mark, 0.0);  // still running
  EXPECT_EQ(store.timers[2].calls, 0);
}

TEST(Timing, TableListsInOrderOfUseAndTheRest)
{
  TIMING_STORE store;
  store.begun_wall = wall_seconds() - 100.0;
  store.timers = {{.name = "READ_DATA_FILE", .total = 12.345, .calls = 1},
                  {.name = "K4MXXAIL", .group = "K4MITR", .total = 50.0, .calls = 7},
                  {.name = "K4MITR", .total = 60.0, .calls = 7},
                  {.name = "K4MUPD", .total = 5.0, .inside = 5.0, .calls = 7}};
  const std::vector<std::string> lines = split(TMG_TABLE(store, "END OF AIDATA_BODY"), '\n');
  ASSERT_EQ(lines.size(), 7u);
  EXPECT_EQ(lines[0], "END OF AIDATA_BODY");
  EXPECT_EQ(lines[1], "READ_DATA_FILE               12.35      1 calls)");
  EXPECT_EQ(lines[2], "K4MXXAIL                     50.00      7 calls)");
  EXPECT_EQ(lines[3], "K4MITR                       60.00      7 calls)");
  EXPECT_TRUE(lines[5].starts_with("Other                        27.6")) << lines[5];
  EXPECT_EQ(interval_line(store.timers[2], 8.5), "K4MITR Time (8.50) Running Total (60.00) 7 calls)");
}

TEST(Timing, ProcessLogCountsInSecondsThenMinutes)
{
  TIMING_STORE store;
  store.begun_wall = 10.0;
  store.last_wall = 20.0;
  store.begun_cpu = 1.0;
  store.last_cpu = 3.0;
  struct Case {
    const char* label;
    double cpu, wall;
    const char* line;
  };
  for (const Case& c : {
           Case{" Prediction completed", 3.04, 21.0, ""},
           Case{" Prediction completed", 3.25, 21.0,
                " >> >> Prediction complete: sec       0.25       2.25       11.00       1.00"},
           Case{" Iteration complete", 3.04, 21.0,
                " >> >> Iteration complete : sec       0.04       2.04       11.00       1.00"},
           Case{"Finished", 3.0, 6010.0,
                " >> >>Finished            : sec       0.00       2.00     6000.00    5990.00"},
           Case{"Finished", 123.0, 6610.0,
                " >> >>Finished            : min       2.00       2.03      110.00     109.83"},
           Case{"Finished", 3.0, 6e9 + 10.0,
                " >> >>Finished            : min       0.00       0.03   100000000.0099999999.83"},
       }) {
    EXPECT_EQ(process_log_line(store, c.label, c.cpu, c.wall), c.line);
  }
}

/// Works in a folder of its own: the marker files are looked for in the working folder.
struct UserAbort : testing::Test {
  TempFolder folder;
  std::filesystem::path before = std::filesystem::current_path();
  UserAbort() { std::filesystem::current_path(folder.path("")); }
  ~UserAbort() override { std::filesystem::current_path(before); }
  bool stands(const char* name) const { return std::filesystem::exists(folder.path(name)); }
};

TEST_F(UserAbort, LooksForTheMarkerFiles)
{
  ERROR_HANDLER eh;
  EXPECT_EQ(CHECK_FOR_USER_ABORT(eh), not_given);
  EXPECT_FALSE(abort_file_exists());
  EXPECT_TRUE(clean(eh));

  folder.file("FINALTLV.NOW", "");
  EXPECT_EQ(CHECK_FOR_USER_ABORT(eh), 9);
  EXPECT_FALSE(stands("FINALTLV.NOW"));
  EXPECT_FALSE(eh.terminate());
  EXPECT_EQ(messages_text(eh), "5/9 User sent a finish code\n");

  ERROR_HANDLER other;
  folder.file("FINALTLV.NOW", "");
  folder.file("ABORTTLV.NOW", "now");
  EXPECT_TRUE(abort_file_exists());
  EXPECT_EQ(CHECK_FOR_USER_ABORT(other), 8);
  EXPECT_FALSE(stands("ABORTTLV.NOW"));
  EXPECT_TRUE(stands("FINALTLV.NOW"));
  EXPECT_TRUE(other.terminate());
  EXPECT_EQ(messages_text(other), "!5/8 User sent an abort code\n");
}

TEST_F(UserAbort, TakesAMonitorsWishFirst)
{
  ERROR_HANDLER eh;
  folder.file("ABORTTLV.NOW", "");
  eh.warning("a warning");
  eh.EH_ADD_MESSAGE({.ecode = Ecode::user_finish});
  EXPECT_EQ(CHECK_FOR_USER_ABORT(eh), 9);
  EXPECT_EQ(eh.count(), 2);
  EXPECT_TRUE(stands("ABORTTLV.NOW"));
}

}  // namespace
}  // namespace tolvan
