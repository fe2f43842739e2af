// The working data in memory and on the scratch file: the same rows, the same design, faults of the file.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <random>

#include "base/memory.h"
#include "base/text.h"
#include "data/data_road.h"
#include "data/finish_levels.h"
#include "support/failing_memory.h"

namespace tolvan {
namespace {

/// The value of row r and column v.
double value_at(std::int64_t r, std::int64_t v)
{
  return static_cast<double>(r) + 1e-3 * static_cast<double>(v);
}

DATA_STORE filled(ERROR_HANDLER& eh, std::int64_t width, std::int64_t rows, const STORE_RULES& rules = {})
{
  DATA_STORE store(width, rules);
  std::vector<double> row(static_cast<std::size_t>(width));
  for (std::int64_t r = 0; r < rows && !eh.terminate(); ++r) {
    for (std::int64_t v = 0; v < width; ++v) row[static_cast<std::size_t>(v)] = value_at(r, v);
    DST_WRITE_ROW(eh, store, row);
  }
  return store;
}

bool holds(const DATA_STORE& store, std::int64_t r)
{
  const auto row = store.row(r);
  bool same = true;
  for (std::int64_t v = 0; v < store.width(); ++v)
    same = same && row[static_cast<std::size_t>(v)] == value_at(r, v);
  return same;
}

TEST(DataStore, HoldsRowsInMemoryAndOnScratch)
{
  struct Row {
    std::int64_t width, rows, most_memory;
    bool on_scratch;
  };
  const Row table[] = {
      {3, 300000, -1, false},
      {200000, 5, -1, false},
      {1, 1, 0, true},
      {3, 2, 0, true},
      {3, 1000, 0, true},
      {7, 5000, 100000, true},
      {7, 5000, 300000, false},
      {2, 64, 1024, false},
      {2, 65, 1024, true},
      {200000, 6, 4000000, true},
      {1, 300000, 1 << 20, true},
      {4, 0, 0, false},
  };
  for (const Row& given : table) {
    SCOPED_TRACE(text(given.width, " x ", given.rows, " in ", given.most_memory));
    ERROR_HANDLER eh;
    DATA_STORE store = filled(eh, given.width, given.rows, {.most_memory = given.most_memory});
    ASSERT_TRUE(clean(eh));
    EXPECT_EQ(store.records(), given.rows);
    EXPECT_EQ(store.on_scratch(), given.on_scratch);
    std::int64_t wrong = 0;
    for (std::int64_t r = 0; r < given.rows; ++r) wrong += holds(store, r) ? 0 : 1;
    for (std::int64_t r = given.rows; r-- > 0;) wrong += holds(store, r) ? 0 : 1;
    std::mt19937 random(5);
    for (int k = 0; k < 200 && given.rows > 0; ++k) wrong += holds(store, random() % given.rows) ? 0 : 1;
    EXPECT_EQ(wrong, 0);

    // more rows may follow once rows were read; a move takes the file along
    std::vector<double> more(static_cast<std::size_t>(given.width));
    for (std::int64_t v = 0; v < given.width; ++v)
      more[static_cast<std::size_t>(v)] = value_at(given.rows, v);
    DST_WRITE_ROW(eh, store, more);
    const DATA_STORE moved = std::move(store);
    for (std::int64_t r = 0; r <= given.rows; ++r) wrong += holds(moved, r) ? 0 : 1;
    EXPECT_EQ(wrong, 0);
    DST_CHECK(eh, moved);
    EXPECT_TRUE(clean(eh));
  }
  ERROR_HANDLER eh;
  DATA_STORE store(2);
  DST_WRITE_ROW(eh, store, {});
  EXPECT_TRUE(eh.terminate());
}

TEST(DataStore, ChangesRowsByBlocks)
{
  for (const std::int64_t most : {std::int64_t{-1}, std::int64_t{0}, std::int64_t{2000}}) {
    ERROR_HANDLER eh;
    DATA_STORE store(2, {.most_memory = most});
    for (int r = 0; r < 1000; ++r) {
      const double row[] = {r % 7 == 0 ? no_value : 1.0 + r % 3, 0.5 * r};
      DST_WRITE_ROW(eh, store, row);
    }
    EXPECT_EQ(store.on_scratch(), most >= 0);
    const LEVEL_MAP to = {0, 3, 1, 2};
    const LEVEL_MAP none;
    REORDD(eh, {&to, &none}, store);
    ASSERT_TRUE(clean(eh));
    for (int r = 0; r < 1000; ++r) {
      const auto row = store.row(r);
      const double expected = r % 7 == 0 ? no_value : static_cast<double>(to[1 + r % 3]);
      ASSERT_EQ(row[0], expected) << r;
      ASSERT_EQ(row[1], 0.5 * r);
    }
  }
}

TEST(DataStore, ScratchGivesTheSameDesign)
{
  std::mt19937 random(11);
  std::string csv;
  const char* const names[] = {"kiwi", "apple", "plum", "fig", "NA"};
  for (int r = 0; r < 500; ++r) {
    csv += text(names[random() % 5], ",", 1990 + random() % 9, ",", r % 11 == 0 ? "NA" : text(random() % 100),
                ",", text(random() % 1000), "\n");
  }
  TempFolder folder;
  const std::string described =
      text(R"({"data_file":{"name":")", folder.file("a.csv", csv), R"(","type":"ft_csv"},"variables":[
      {"name":"f","field_type":"vt_string_factor","sort":true},
      {"name":"g","field_type":"vt_integer_factor","sort":true,"transformations":[{"M":1995}]},
      {"name":"x"},{"name":"y","transformations":[{"Dv":77},{"^":0.5}]},
      {"name":"w","user_column_number":0,"transformations":[{"+":"y"},{"ABS":[]}]},
      {"name":"z","user_column_number":0,"transformations":[{"+":"x"},{"*":"y"}]}],
      "mbf":{"name":"fruit","variable":"f","file":")",
           folder.file("fruit.txt", "apple 1 2\nplum 0 3\nkiwi 4 1\nfig 2 2\n"), R"("},)");
  for (const char* model : {
           R"("model":{"response":"y","fixed":"x+g","random":"f/g"},"options":{"missing_values":"mv_include"}})",
           // several traits, weights, rows of a file, functions that search all the records first
           R"j("model":{"response":["y","z"],"weights":"w","fixed":"trait+trait:pol(x,2)","random":"fac(g,f):trait+spl(x,6)",
              "sparse":"fruit+uni(g,2):x+mv"},"options":{"missing_values":"mv_include"}})j",
       }) {
    const std::string json = described + model;
    DataRoad plain;
    ASSERT_TRUE(plain.form(json)) << messages_text(plain.eh);
    EXPECT_FALSE(plain.store.on_scratch());
    for (const std::int64_t most : {0, 1000, 6000}) {
      DataRoad road;
      road.store = DATA_STORE(0, {.most_memory = most});
      ASSERT_TRUE(road.form(json)) << messages_text(road.eh);
      EXPECT_TRUE(road.store.on_scratch());
      EXPECT_EQ(road.rows(), plain.rows());
      EXPECT_EQ(road.design_rows(), plain.design_rows());
      EXPECT_EQ(road.design.weight, plain.design.weight);
      EXPECT_EQ(road.design.trait, plain.design.trait);
      EXPECT_EQ(road.design.mv, plain.design.mv);
      EXPECT_EQ(messages_text(road.eh), messages_text(plain.eh));
      EXPECT_EQ(road.labels("f"), "apple fig kiwi plum");
      DATA_SUMMARY one, other;
      AIDSUM(road.eh, road.variables, road.store, one);
      AIDSUM(plain.eh, plain.variables, plain.store, other);
      EXPECT_EQ(AIDDIS(road.eh, road.variables, one), AIDDIS(plain.eh, plain.variables, other));
    }
  }
}

TEST(DataStore, NoscratchTellsWhereRowsGo)
{
  TempFolder folder;
  std::string csv;
  for (int r = 0; r < 200; ++r) csv += text(r, "\n");
  const std::string path = folder.file("a.csv", csv);
  const auto read = [&path](std::string_view noscratch, DataRoad& road) {
    road.store = DATA_STORE(0, {.most_memory = 100});
    road.read(text(R"({"data_file":{"name":")", path, R"(","type":"ft_csv","noscratch":)", noscratch,
                   R"(},"variables":[{"name":"y"}]})"));
  };
  struct Row {
    std::string_view noscratch;
    bool on_scratch;
  };
  for (const Row& row :
       {Row{"0", true}, Row{"1", false}, Row{"2", true}, Row{"\"NoValueSupplied\"", false}}) {
    DataRoad road;
    read(row.noscratch, road);
    EXPECT_FALSE(road.eh.terminate()) << messages_text(road.eh);
    EXPECT_EQ(road.store.records(), 200);
    EXPECT_EQ(road.store.on_scratch(), row.on_scratch) << row.noscratch;
  }
  // in the current folder, where the temporary one can't be used
  ::setenv("TMPDIR", "/no/such/folder", 1);
  DataRoad current;
  read("2", current);
  EXPECT_EQ(current.store.records(), 200);
  DataRoad temporary;
  read("0", temporary);
  EXPECT_TRUE(has_message(temporary.eh, "error opening the scratch data file"));
  EXPECT_TRUE(has_message(temporary.eh, "/no/such/folder: No such file or directory"));
  EXPECT_EQ(temporary.eh.EH_STATUS(), 4);
  ::unsetenv("TMPDIR");
}

TEST(DataStore, FaultsOfTheFile)
{
  const STORE_RULES small{.most_memory = 0};
  {
    ERROR_HANDLER eh;
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    ::getrlimit(RLIMIT_FSIZE, &before);
    const rlimit tight{4096, before.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &tight);
    const DATA_STORE store = filled(eh, 1, 1000, small);
    ::setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, SIG_DFL);
    ASSERT_TRUE(eh.terminate());
    const std::string told = messages_text(eh);
    EXPECT_TRUE(told.starts_with("!4/2 can't write scratch file, unitno= ")) << told;
    EXPECT_NE(told.find(text(" iostat=", EFBIG, "\n")), std::string::npos);
    EXPECT_NE(told.find("513 records read. Check TEMP directory (e.g. /tmp) is not full (df -k;ls -lt /tmp)"),
              std::string::npos)
        << told;
    EXPECT_NE(told.find("try !NOSCRATCH     to hold data in core, or"), std::string::npos);
    EXPECT_NE(told.find("!NOSCRATCH 2   to put scratch file in current folder."), std::string::npos);
  }
  {
    ERROR_HANDLER eh;
    const int next = ::dup(0);  // the number that the scratch file will have
    ::close(next);
    const DATA_STORE store = filled(eh, 1, 1000, small);
    ASSERT_EQ(::ftruncate(next, 0), 0);
    EXPECT_TRUE(is_no_value(store.row(5)[0]));
    EXPECT_TRUE(holds(store, 999));  // the last rows were never written
    DST_CHECK(eh, store);
    EXPECT_TRUE(
        messages_text(eh).starts_with(text("!4/2 unable to read from the scratch data file ", next, "\n")));
    ERROR_HANDLER again;
    std::span<const double> row;
    EXPECT_FALSE(DST_READ_ROW(again, store, 7, row));
    EXPECT_TRUE(again.terminate());
  }
}

TEST(DataStore, ShortMemory)
{
  // One allocation after another fails: the rows are stored all the same, or the message says why not; that
  // of a text alone is left to the guard of the exports.
  struct Row {
    STORE_RULES rules;
    std::string_view expected;
  };
  const Row table[] = {
      {{.scratch = ScratchPlace::nowhere}, "insufficent memory to hold data and scratch file not available"},
      {{.scratch = ScratchPlace::temporary_folder, .most_memory = 0}, "reallocation error thrown in DST"},
  };
  const std::vector<double> row(1000, 1.0);
  for (const Row& given : table) {
    bool told = false;
    for (std::int64_t n = 0; n < 20; ++n) {
      ERROR_HANDLER eh;
      DATA_STORE store(1000, given.rules);
      {
        const FailingMemory failing(n, true);
        if (!attempt([&] { DST_WRITE_ROW(eh, store, row), DST_WRITE_ROW(eh, store, row); })) continue;
      }
      told = told || (eh.terminate() && has_message(eh, given.expected));
      EXPECT_TRUE(eh.terminate() || store.records() == 2);
    }
    EXPECT_TRUE(told) << given.expected;
  }
  // in place of memory, the scratch file
  bool spilt = false;
  for (std::int64_t n = 0; n < 20; ++n) {
    ERROR_HANDLER eh;
    DATA_STORE store(1000);
    {
      const FailingMemory failing(n, true);
      if (!attempt([&] { DST_WRITE_ROW(eh, store, row); })) continue;
    }
    EXPECT_EQ(eh.count(), 0);
    EXPECT_EQ(store.row(0)[999], 1.0);
    spilt = spilt || store.on_scratch();
  }
  EXPECT_TRUE(spilt);
}

}  // namespace
}  // namespace tolvan
