// Binary files, saved data read back, and rectangles of reals.
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>

#include "base/files.h"
#include "data/file_road.h"
#include "data/save_data.h"
#include "data/text_buffer.h"

namespace tolvan {
namespace {

/// The folder that a test works in, left again at its end.
class WorkingFolder {
 public:
  explicit WorkingFolder(const TempFolder& folder) : before_(std::filesystem::current_path())
  {
    std::filesystem::current_path(folder.path(""));
  }
  ~WorkingFolder() { std::filesystem::current_path(before_); }
  WorkingFolder(const WorkingFolder&) = delete;

 private:
  std::filesystem::path before_;
};

template <class... Numbers>
std::string raw(Numbers... x)
{
  std::string out;
  (out.append(reinterpret_cast<const char*>(&x), sizeof x), ...);
  return out;
}

constexpr std::string_view two_variables =
    R"("variables":[{"name":"f","field_type":"vt_integer_factor"},{"name":"y"}])";

TEST(BinaryFile, Records)
{
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const std::uint32_t m8 = 8;
  const std::uint32_t m16 = 16;
  struct Row {
    std::string_view name, keys, rows, told;
    std::string bytes;
  };
  const Row table[] = {
      {"a.srs", "", "1 1.5\nNA NA\n2 -2\n", "a.srs as SINGLE PRECISION",
       raw(7.f, 1.5f, -1e-37f, -1e-37f, 3.f, -2.f)},
      {"a.BIN", "", "1 1.5\n", "a.BIN as BINARY SINGLE PRECISION", raw(m8, 7.f, 1.5f, m8)},
      {"a.drs", R"("skip":1)", "1 NA\nNA 0.1\n", "a.drs as DOUBLE PRECISION",
       raw(9., 9., 7., nan, no_value, 0.1)},
      {"a.dbl", "", "1 1e+300\n1 2\n", "a.dbl as BINARY DOUBLE PRECISION",
       raw(m16, 7., 1e300, m16, m16, 7., 2., m16)},
      {"a.dpr", R"("skip":1)", "1 2\n", "a.dpr as BINARY DOUBLE PRECISION",
       raw(std::uint32_t{3}, '1', '2', '3', std::uint32_t{3}, m16, 7., 2., m16)},
      {"a.drs", R"("rrec":1,"filter":2,"select":"2")", "1 2\n", "", raw(7., 2., 7., 2., 1.)},
      {"a.drs", "", "", "", ""},
  };
  for (const Row& row : table) {
    FileRoad road;
    road.file_name = row.name;
    ASSERT_TRUE(road.read_file(row.bytes, two_variables, row.keys)) << row.name << messages_text(road.eh);
    EXPECT_EQ(road.rows(), row.rows) << row.name;
    EXPECT_NE(road.all_told().find(text("1/- reading ", row.told)), std::string::npos) << road.all_told();
  }
  FileRoad labelled;
  labelled.file_name = "a.drs";
  ASSERT_TRUE(labelled.read_file(
      raw(2., 0., 1.), R"("variables":[{"name":"s","field_type":"vt_string_factor","factor_labels":["p","q"],
      "factor_labels_indexed_from":0,"user_column_number":3},{"name":"x","user_column_number":1}])",
      ""));
  EXPECT_EQ(labelled.rows(), "2 2\n");
  EXPECT_EQ(labelled.told(),
            "3/- the !A qualifier is ignored when reading binary data\n"
            "9999/- the numbers of s are taken as those of its labels\n");
}

TEST(BinaryFile, Complaints)
{
  const double infinite = std::numeric_limits<double>::infinity();
  const std::uint32_t m16 = 16;
  struct Row {
    std::string_view name, keys, told;
    std::string bytes;
  };
  const Row table[] = {
      {"a.drs", "",
       "the file a.drs ends within record 2\n9999/- it has 24 bytes, the record begins behind byte 16\n",
       raw(7., 1., 7.)},
      {"a.dbl", "", "the file a.dbl ends within record 2\n9999/- it has 26 bytes",
       raw(m16, 7., 1., m16, '\0', '\0')},
      {"a.dbl", "", "the file a.dbl ends within record 1\n9999/- it has 20 bytes", raw(m16, 7., 1.)},
      {"a.dbl", "",
       "the marks of record 1 of a.dbl differ\n9999/- they say 16 and 17 bytes, the record begins behind "
       "byte 4\n",
       raw(m16, 7., 1., std::uint32_t{17})},
      {"a.dbl", "", "record 1 of a.dbl can not be 15 bytes long\n", raw(std::uint32_t{15}, 7., 1., m16)},
      {"a.dbl", "", "record 1 of a.dbl can not be 4294967295 bytes long\n",
       raw(std::uint32_t{0xFFFFFFFFU}, 7.)},
      {"a.dbl", "",
       "error at field [2] of record 1\n9999/- of a.dbl, byte 13, the record has 1 numbers, 2 are needed\n",
       raw(std::uint32_t{8}, 7., std::uint32_t{8})},
      {"a.dbl", "", "record 2 of a.dbl has 3 numbers, the records before 2\n",
       raw(m16, 7., 1., m16, std::uint32_t{24}, 7., 1., 2., std::uint32_t{24})},
      {"a.drs", "",
       "error at field [1] of record 2\n9999/- of a.drs, byte 17, variable f: 2.5 is not a whole number\n"
       "!4/3 data input was aborted after reading 1 records\n",
       raw(7., 1., 2.5, 1.)},
      {"a.drs", "", "variable y: Infinity is not a finite number\n", raw(7., infinite)},
      {"a.bin", R"("skip":2)", "failed to find  2 header blocks in to skip in a.bin\n",
       raw(std::uint32_t{1}, 'x', std::uint32_t{1})},
      {"a.srs", R"("skip":2)", "unable to skip 2 lines in a.srs\n", raw(1.f, 2.f)},
      {"a.srs", R"("skip":"x")",
       "a text can not be skipped in the binary file a.srs, skip must be a number\n", raw(1.f, 2.f)},
      {"a.srs", R"("filter":1,"select":"x")", "records of a binary file can not be selected by the text x\n",
       raw(1.f, 2.f)},
  };
  for (const Row& row : table) {
    FileRoad road;
    road.file_name = row.name;
    EXPECT_FALSE(road.read_file(row.bytes, two_variables, row.keys)) << row.told;
    std::string told = road.told();
    for (std::size_t at; (at = told.find("9999/3 ")) != std::string::npos;) told.replace(at, 7, "9999/- ");
    EXPECT_NE(told.find(row.told), std::string::npos) << row.told << "\n" << told;
  }
}

TEST(SavedData, ReadBackTheSame)
{
  const std::string_view contents =
      "zeta,7,1.5,2,1/1/2000\n\"a \"\"b\"\", c\",3,NA,,NA\nNA,7,-1e-5,1,2/1/2000\n#4,NA,3,12,3/1/2000\n";
  const std::string_view described =
      R"("variables":[{"name":"s","field_type":"vt_string_factor","sort":true},
      {"name":"i","field_type":"vt_integer_factor"},{"name":"y","transformations":[{"name":"*","arguments":2}]},
      {"name":"n","field_type":"vt_integer_factor_1_to_n","factor_labels_indexed_from":1},
      {"name":"d","field_type":"vt_date"}])";
  // Binary kinds hold level numbers, text holds labels and numbers.
  const std::string_view coded =
      R"("variables":[{"name":"s","field_type":"vt_integer_factor_1_to_n"},
      {"name":"i","field_type":"vt_integer_factor_1_to_n"},{"name":"y"},
      {"name":"n","field_type":"vt_integer_factor_1_to_n"},{"name":"d"}])";
  const std::string_view labelled =
      R"("variables":[{"name":"s","field_type":"vt_string_factor","sort":true},
      {"name":"i","field_type":"vt_integer_factor"},{"name":"y"},
      {"name":"n","field_type":"vt_integer_factor_1_to_n"},{"name":"d"}])";
  const std::string_view rows = "3 1 3 2 36525\n2 2 NA NA NA\nNA 1 -2e-05 1 36526\n1 NA 6 12 36527\n";
  struct Row {
    int save;
    std::string_view name, keys;
  };
  const Row table[] = {{1, "tlvdata.bin", ""}, {2, "tlvdata.dbl", ""},
                       {3, "tlvdata.srs", ""}, {4, "tlvdata.dpr", ""},
                       {5, "tlvdata.drs", ""}, {6, "f.tvp", R"(,"type":"ft_csv","skip":1)"}};
  for (const Row& row : table) {
    FileRoad road;
    const WorkingFolder here(road.folder);
    const std::string keys = text(R"("type":"ft_csv","save":)", row.save);
    const std::string special = text("!SPECIALCHAR\n", contents);
    ASSERT_TRUE(road.read_file(special, described, keys)) << messages_text(road.eh);
    EXPECT_EQ(road.rows(), rows);
    EXPECT_TRUE(has_message(road.eh, text("transformed data will be written to ", row.name)));

    DataRoad back;
    ASSERT_TRUE(back.read(text(R"({"data_file":{"name":")", row.name, "\"", row.keys, "},",
                               row.save == 6 ? labelled : coded, "}")))
        << messages_text(back.eh);
    ASSERT_EQ(back.store.records(), road.store.records());
    for (std::int64_t r = 0; r < back.store.records(); ++r) {
      for (std::size_t v = 0; v < 5; ++v) {
        const double x = road.store.row(r)[v];
        const bool single = row.save == 1 || row.save == 3;
        EXPECT_EQ(back.store.row(r)[v],
                  single && !is_no_value(x) ? static_cast<double>(static_cast<float>(x)) : x)
            << row.name << " " << r << " " << v;
      }
    }
    if (row.save == 6) {
      EXPECT_EQ(back.labels("s"), road.labels("s"));
    }

    std::string before;
    std::string after;
    std::string error;
    ASSERT_TRUE(read_file(std::string(row.name), before, error));
    FileRoad again;  // a file that is there stays as it is
    ASSERT_TRUE(again.read_file("A,1,1,1,\n", described, keys));
    EXPECT_TRUE(has_message(again.eh, text("not writing the transformed data to file as the file ", row.name,
                                           " already exists")));
    ASSERT_TRUE(read_file(std::string(row.name), after, error));
    EXPECT_EQ(before, after);
  }
}

TEST(SavedData, SinglesHaveLimits)
{
  FileRoad road;
  const WorkingFolder here(road.folder);
  EXPECT_FALSE(road.read_file("1\n1e39\n", R"("variables":[{"name":"y"}])", R"("save":1)"));
  EXPECT_TRUE(has_message(road.eh, "the data can not be written to tlvdata.bin in single precision"));
  EXPECT_TRUE(has_message(road.eh, "record 2, variable y: 1e+39"));
  EXPECT_FALSE(file_exists("tlvdata.bin"));
}

TEST(TextBuffer, LinesAndReals)
{
  const TempFolder folder;
  ERROR_HANDLER eh;
  TEXT_BUFFER buffer;
  TB_READ_FROM_FILE(eh, folder.file("a.txt", "one\n\nthree\r\nfour"), buffer);
  EXPECT_TRUE(clean(eh));
  ASSERT_EQ(buffer.lines.size(), 4U);
  EXPECT_EQ(buffer.lines[2].text, "three");
  EXPECT_EQ(buffer.lines[3].number, 4);

  REAL_ARRAY array;
  READ_REAL_ARRAY_FROM_FILE(eh, folder.file("b.txt", "1 2,3\n\n\t-1e-3 NA\t. \n"), array);
  EXPECT_TRUE(clean(eh));
  EXPECT_EQ(array.rows, 2);
  EXPECT_EQ(array.columns, 3);
  EXPECT_EQ(array.values, (std::vector<double>{1, 2, 3, -1e-3, NA, NA}));
  READ_REAL_ARRAY_WITH_ROW_LABELS_FROM_FILE(eh, folder.file("c.txt", "a 1 2\n\"b c\" 3 4\n"), array);
  EXPECT_TRUE(clean(eh));
  EXPECT_EQ(array.columns, 2);
  EXPECT_EQ(array.labels, (std::vector<std::string>{"a", "b c"}));
  EXPECT_EQ(array.values, (std::vector<double>{1, 2, 3, 4}));

  struct Row {
    std::string_view contents, told;
  };
  const Row table[] = {
      {"1 2\n\n1 2 3\n", "number of words read in changed from 2 to 3 at line 3"},
      {"1 2\n1 x\n", "\"x\" is not a number at line 2 of "},
      {"1 inf\n", "\"inf\" is not a number at line 1 of "},
      {"1 \"2\n", "a quote is not closed at line 1 of "},
  };
  for (const Row& row : table) {
    ERROR_HANDLER faults;
    READ_REAL_ARRAY_FROM_FILE(faults, folder.file("d.txt", row.contents), array);
    EXPECT_TRUE(has_message(faults, row.told));
    EXPECT_TRUE(faults.terminate());
  }
  ERROR_HANDLER absent;
  READ_REAL_ARRAY_FROM_FILE(absent, folder.path("absent"), array);
  EXPECT_TRUE(has_message(absent, "unable to open data file: " + folder.path("absent")));
}

}  // namespace
}  // namespace tolvan
