// Comma-separated files: fields, levels, complaints, damaged files.
#include <filesystem>
#include <fstream>
#include <random>

#include "base/text.h"
#include "data/data_road.h"

namespace tolvan {
namespace {

constexpr std::string_view three_variables = R"("variables":[{"name":"gen","field_type":"vt_string_factor"},
    {"name":"rep","field_type":"vt_integer_factor"},{"name":"yield"}])";

/// A file in a folder of its own, read by a request of the given parts.
struct FileRoad : DataRoad {
  TempFolder folder;
  bool read_file(std::string_view contents, std::string_view described = three_variables,
                 std::string_view keys = R"("type":"ft_csv","skip":1)")
  {
    const std::string path = folder.file("f.csv", contents);
    return read(text(R"({"data_file":{"name":")", path, "\",", keys, "},", described, "}"));
  }
  /// The messages without the folder's name and without the note about the file that is read.
  std::string told() const
  {
    std::string all = messages_text(eh);
    const std::string folder_name = folder.path("");
    for (std::size_t at; (at = all.find(folder_name)) != std::string::npos;)
      all.erase(at, folder_name.size());
    const std::string note = "1/- reading f.csv as FREE FORMAT skipping ";
    if (const std::size_t at = all.find(note); at != std::string::npos)
      all.erase(at, all.find('\n', at) + 1 - at);
    return all;
  }
};

TEST(ReadText, RoadToTheDesign)
{
  FileRoad road;
  const std::string path = road.folder.file("f.csv", "gen,rep,yield\nA,1,5.2\nB,1,NA\nA,2,6.1\nB,2,5.7\n");
  const std::string json =
      text(R"({"data_file":{"name":")", path, R"(","type":"ft_csv","skip":1},)", three_variables,
           R"(,"model":{"response":"yield","fixed":"gen","random":"rep"})");
  ASSERT_TRUE(road.form(json + "}")) << messages_text(road.eh);
  EXPECT_EQ(road.rows(), "1 1 5.2\n2 1 NA\n1 2 6.1\n2 2 5.7\n");
  EXPECT_EQ(road.labels("gen"), "A B");
  EXPECT_EQ(road.design_rows(), "1:1 2:1 4:1 | 5.2\n1:1 2:1 5:1 | 6.1\n1:1 3:1 5:1 | 5.7\n");
  EXPECT_EQ(road.design.record, (std::vector<std::int64_t>{1, 3, 4}));
  EXPECT_EQ(road.told(), "1/- 1 analysis records were dropped because the response variable was missing\n");

  DataRoad estimated;
  ASSERT_TRUE(estimated.form(json + R"(,"na_action":{"y":"include"}})")) << messages_text(estimated.eh);
  EXPECT_EQ(estimated.design_rows(),
            "1:1 2:1 4:1 | 5.2\n1:1 3:1 4:1 6:-1 | 0\n1:1 2:1 5:1 | 6.1\n1:1 3:1 5:1 | 5.7\n");
  EXPECT_EQ(estimated.design.mv, (std::vector<std::int64_t>{1}));
  EXPECT_EQ(estimated.terms.rows.back().equations, 1);
  EXPECT_EQ(estimated.terms.equations, 6);
}

TEST(ReadText, Fields)
{
  struct Row {
    std::string_view contents;  // behind a header line
    std::string_view rows;
    std::string_view labels;  // of gen
    std::string_view told = "";
  };
  const std::string_view blanks = "1/- Embedded blanks in data fields are converted to UNDERSCORE\n";
  const std::string_view remarks =
      "1/- # is honoured as a special white-out character in data file\n"
      "9999/- Use !SPECIALCHAR to treat # as normal character in data file\n";
  const Row table[] = {
      {"A,1,5\nB,2,6", "1 1 5\n2 2 6\n", "A B"},  // no end of the last line
      {"A,1,5\r\nB,2,6\r\n", "1 1 5\n2 2 6\n", "A B"},
      {"\n A , 1 ,\t5 \n\n  \nB,2,6,\n", "1 1 5\n2 2 6\n", "A B"},  // blanks around, blank lines
      {"A,NA,na\n*,.,\n,,\nNa,1,2\n", "1 NA NA\nNA NA NA\nNA NA NA\n2 1 2\n", "A Na"},
      {"A,1,-.5e1\nA,+1,+5.\nA,1.0,1d2\nA,1,1e-400\n", "1 1 -5\n1 1 5\n1 1 100\n1 1 0\n", "A"},
      {"\"A,1\",1,5\n\"say \"\"B\"\"\",2,\"6\"\n\"\",1,7\n", "1 1 5\n2 2 6\nNA 1 7\n", "A,1 say_\"B\"",
       blanks},
      {"New York,1,5\n\"New  York\",1,5\n", "1 1 5\n2 1 5\n", "New_York New__York", blanks},
      {"A,1,5 # remark\n# a whole line\n\"B#\",1,6\n", "1 1 5\n2 1 6\n", "A B#", remarks},
      {"!SPECIALCHAR\nA#1,1,5\n", "1 1 5\n", "A#1",
       "1/- # is treated as a normal alpha character in data file\n"},
      {"A,1,&\n5\nB,2,6\n!STOP\nC,3\n", "1 1 5\n2 2 6\n", "A B"},
      {"A;1;1,5\nB;2;-,5\nA;1;2\n", "1 1 1.5\n2 2 -0.5\n1 1 2\n", "A B",
       "1/- CSV file appears to be \";\" delimited by: 1,5, treated as DSV with , interpreted as .\n"},
      {"A;1;\nB,C;2;3,0\n", "1 1 NA\n2 2 3\n", "A B,C",
       "1/- CSV file appears to be \";\" delimited by: A, treated as DSV with , interpreted as .\n"},
      {"A;B,1,5\n", "1 1 5\n", "A;B"},
      {"A,1,5,surplus,\"open\n", "1 1 5\n", "A"},
      {"\xC3\xA9t\xC3\xA9,1,5\n", "1 1 5\n", "\xC3\xA9t\xC3\xA9"},
  };
  for (const Row& row : table) {
    FileRoad road;
    EXPECT_TRUE(road.read_file(text("gen,rep,yield\n", row.contents)))
        << row.contents << messages_text(road.eh);
    EXPECT_EQ(road.rows(), row.rows) << row.contents;
    EXPECT_EQ(road.labels("gen"), row.labels) << row.contents;
    EXPECT_EQ(road.told(), row.told) << row.contents;
  }
}

TEST(ReadText, LevelsAndColumns)
{
  FileRoad declared;  // labels of numbers and of words, one of them with a blank; sorted; cut
  ASSERT_TRUE(declared.read_file(
      "3,b c,zeta-long,9\n1,a,alpha,10\n02,b c,zeta-lost,9\n",
      R"("variables":[{"name":"n","field_type":"vt_integer_factor","factor_labels":["1","2","3"]},
        {"name":"w","field_type":"vt_integer_factor","factor_labels":["a","b c"]},
        {"name":"s","field_type":"vt_string_factor","sort":true,"label_length":6},
        {"name":"i","field_type":"vt_integer_factor","sort":true}])",
      R"("type":"ft_csv")"));
  EXPECT_EQ(declared.rows(), "3 2 2 1\n1 1 1 2\n2 2 2 1\n");
  EXPECT_EQ(declared.labels("s"), "alpha zeta-l");
  EXPECT_EQ(declared.labels("i"), "9 10");
  EXPECT_EQ(declared.told(),
            "1/- Truncating label \"zeta-long. Reset label length with !LL\n"
            "1/- Truncating label \"zeta-lost. Reset label length with !LL\n");
  EXPECT_EQ(declared.variables.longest_label, 6);

  FileRoad numbered;  // by column; one column as factor and as covariate; gaps
  ASSERT_TRUE(numbered.read_file("9,1.5,x,2\n8,\"1,5\",y,4\n7,2,z,4\n",
                                 R"("variables":[{"name":"b","user_column_number":4},
        {"name":"g","field_type":"vt_integer_factor","user_column_number":4},{"name":"a","user_column_number":1}])",
                                 R"("type":"ft_csv")"));
  EXPECT_EQ(numbered.rows(), "2 1 9\n4 2 8\n4 2 7\n");

  FileRoad unknown;  // a label that was not declared
  ASSERT_TRUE(unknown.read_file(
      "p\nr\n", R"("variables":[{"name":"s","field_type":"vt_string_factor","factor_labels":["p","q"]}])",
      R"("type":"ft_csv")"));
  EXPECT_EQ(unknown.rows(), "1\n3\n");
  EXPECT_EQ(unknown.told(), "3/- the delared number of levels for s should be increased from 2 to about 3\n");
}

TEST(ReadText, Skipping)
{
  struct Row {
    std::string_view keys;
    std::string_view rows;
    std::string_view told;
  };
  const std::string_view contents = "\xEF\xBB\xBFtitle\ndata\n1\ndata\n2\n";
  const Row table[] = {
      {R"("skip":2)", "", "!4/3 error at field [1] of record 2 [line 4\n"},
      {R"("skip":4)", "2\n", "1/- reading f.csv as FREE FORMAT skipping 4 lines\n"},
      {R"("skip":9)", "", "!4/3 unable to skip 9 lines in f.csv\n"},
      {R"("skip":"title:1")", "", "!4/3 error at field [1] of record 1 [line 2\n"},
      {R"("skip":"dat:2")", "2\n",
       "1/- reading f.csv as FREE FORMAT skipping 0 lines\n9999/- and all lines up to and including 2 "
       "instance of \"dat\n"},
      {R"("skip":"none")", "", "!4/3 failed to find  none\n"},
      {R"("skip":-2)", "",
       "!4/3 invalid value supplied for data_file.skip, was expecting one of: a number of lines or a text, "
       "supplied value = -2\n"},
      {R"("skip":2,"rrec":1)", "1\n", ""},
  };
  for (const Row& row : table) {
    FileRoad road;
    const bool done =
        road.read_file(contents, R"("variables":[{"name":"x"}])", text(R"("type":"ft_csv",)", row.keys));
    EXPECT_EQ(done, !row.rows.empty()) << row.keys;
    if (done) {
      EXPECT_EQ(road.rows(), row.rows);
    }
    std::string all = messages_text(road.eh);
    const std::string folder = road.folder.path("");
    for (std::size_t at; (at = all.find(folder)) != std::string::npos;) all.erase(at, folder.size());
    EXPECT_NE(all.find(row.told), std::string::npos) << row.keys << all;
  }
}

TEST(ReadText, Complaints)
{
  struct Row {
    std::string_view contents;  // behind a header line
    std::string_view told;
  };
  const Row table[] = {
      {"A,1,5\nB,2,six\nC,3,7\nD,4,8\n",
       "!4/3 error at field [3] of record 2 [line 3\n"
       "9999/3 variable yield: \"six\" is not a number\n"
       "9999/3 Maybe you want !A !L qualifiers for this factor: yield\n"
       "9999/3 values read before read error:\n"
       "9999/3  2 2\n"
       "9999/3 context of read error: B,2,six\n"
       "9999/3 next data line beings: C,3,7\n"
       "!4/3 data input was aborted after reading 1 records, 2 lines remain in the data file\n"},
      {"gen,rep,yield\n",
       "!4/3 error at field [2] of record 1 [line 2\n"
       "9999/3 variable rep: \"rep\" is not a level, levels are whole numbers from 1\n"
       "9999/3 Maybe you want !A !L qualifiers for this factor: rep\n"
       "9999/3 since this is the first data record you may need to skip some header lines\n"
       "9999/3 values read before read error:\n"
       "9999/3  1\n"
       "9999/3 context of read error: gen,rep,yield\n"
       "!4/3 data input was aborted after reading 0 records, 0 lines remain in the data file\n"},
      {"A,1\n", "9999/3 variable yield: the line has too few fields\n"},
      {"A\n",
       "!4/3 line [A ...] does not have CSV structure as expected\n9999/- at line 2 of f.csv, 3 fields are "
       "needed\n"},
      {"A,1.5,1\n", "9999/3 variable rep: \"1.5\" is not a level"},
      {"A,1e30,1\n", "9999/3 variable rep: \"1e30\" is not a level"},
      {"A,1,1.5.2\n", "9999/3 variable yield: \"1.5.2\" is not a number\n"},
      {"A,1,1 2\n", "9999/3 variable yield: \"1 2\" is not a number\n"},
      {"A,1,1e\n", "9999/3 variable yield: \"1e\" is not a number\n"},
      {"A,1,inf\n", "9999/3 variable yield: \"inf\" is not a finite number\n"},
      {"A,1,5\nA,1,-Infinity\n",
       "!4/3 error at field [3] of record 2 [line 3\n9999/3 variable yield: \"-Infinity\" is not a finite "
       "number\n"},
      {"A,1,nan\n", "9999/3 variable yield: \"nan\" is not a finite number\n"},
      {"A,1,1e999\n", "9999/3 variable yield: \"1e999\" is not a finite number\n"},
      {"A,1,0.001e312\n", "9999/3 variable yield: \"0.001e312\" is not a finite number\n"},
      {"A,1,-1d999999999999999999999\n", "is not a finite number\n"},
      {"A,1,\"5\n",
       "!4/3 unexpected LineFeed character in character string\n9999/3 at character 7 of line 2\n"
       "9999/3 you probably need to convert the file from Unix ASCII to PC ASCII format\n"},
      {"A,1,5\n!CALL x\n", "!4/3 no longer supporting the !CALL directive\n9999/3 at line 3 of f.csv\n"},
      {"!include x\n", "!4/4 the directive !INCLUDE in a data file is not implemented\n"},
      {" !what\n", "!4/3 unrecognised qualifier at character 2\n"},
  };
  for (const Row& row : table) {
    FileRoad road;
    EXPECT_FALSE(road.read_file(text("gen,rep,yield\n", row.contents))) << row.contents;
    std::string told = road.told();
    for (std::size_t at; (at = told.find("9999/- ")) != std::string::npos;) told.replace(at, 7, "9999/3 ");
    std::string expected(row.told);
    for (std::size_t at; (at = expected.find("9999/- ")) != std::string::npos;)
      expected.replace(at, 7, "9999/3 ");
    EXPECT_NE(told.find(expected), std::string::npos) << row.contents << "\n" << told;
  }
  FileRoad large;
  EXPECT_FALSE(large.read_file(
      "3000000000,1\n", R"("variables":[{"name":"f","field_type":"vt_integer_factor_1_to_n"},{"name":"y"}])",
      R"("type":"ft_csv")"));
  EXPECT_TRUE(has_message(large.eh,
                          "increase the number of levels declared for factor f and any other large factors"));
  FileRoad zero;
  EXPECT_FALSE(zero.read_file(
      "1,1\n0,1\n", R"("variables":[{"name":"f","field_type":"vt_integer_factor_1_to_n"},{"name":"y"}])",
      R"("type":"ft_csv")"));
  EXPECT_TRUE(has_message(zero.eh, "variable f: \"0\" is not a level, levels are whole numbers from 1"));
}

TEST(ReadText, KeysOfTheFile)
{
  struct Row {
    std::string_view file;
    std::string_view expected;
  };
  const Row table[] = {
      {R"({"type":"ft_csv"})", "!4/3 name is required but was not found in data_file\n"},
      {R"({"name":"absent.csv"})", "!4/2 unable to open file absent.csv\n"},
      {R"({"name":".","type":"ft_csv"})", "!4/2 unable to open file .\n"},
      {R"({"name":"a.csv","type":"ft_text"})", "!4/4 data_file type ft_text is not implemented\n"},
      {R"({"name":"a.csv","type":"ft_xls"})",
       "!4/3 invalid value supplied for data_file.type, was expecting one of: ft_csv or ft_text, supplied "
       "value = ft_xls\n"},
      {R"({"name":"a.txt"})", "!4/4 data_file type ft_text, taken for a.txt, is not implemented\n"},
      {R"({"name":"a.BIN"})", "!4/4 reading the binary data file a.BIN is not implemented\n"},
      {R"({"name":"a.csv","save":2})", "!4/4 the key save of data_file is not implemented\n"},
      {R"({"name":"a.csv","filter":"x","select":1})",
       "!4/4 the key filter of data_file is not implemented\n"},
      {R"({"name":"a.csv","exclude":"x"})", "!4/4 the key exclude of data_file is not implemented\n"},
      {R"x({"name":"a.csv","format":"(F8.2)"})x", "!4/4 the key format of data_file is not implemented\n"},
      {R"({"name":"a.csv","recode":true})", "!4/4 the key recode of data_file is not implemented\n"},
      {R"({"name":"a.csv","rskip":1})", "!4/4 the key rskip of data_file is not implemented\n"},
      {R"({"name":"a.csv","noscratch":2})", "!4/4 the key noscratch of data_file is not implemented\n"},
      {R"({"name":"absent.csv","save":0,"recode":false,"rskip":-1,"noscratch":1,"format":"","print":null})",
       "!4/2 unable to open file absent.csv\n"},
      {R"([{"name":"a.csv"},{"name":"b.csv"}])", "!4/3 merging of data files not supported\n"},
  };
  for (const Row& row : table) {
    DataRoad road;
    EXPECT_FALSE(road.read(text(R"({"data_file":)", row.file, R"(,"variables":[{"name":"x"}]})")))
        << row.file;
    EXPECT_EQ(messages_text(road.eh).substr(0, row.expected.size()), row.expected);
  }
  DataRoad bare;
  EXPECT_FALSE(bare.read(R"({"data_file":{"name":"a.csv"}})"));
  EXPECT_EQ(messages_text(bare.eh), "!4/3 variables is required but was not found in the request\n");
}

TEST(ReadText, LongLines)
{
  std::string line;
  std::string variables = R"("variables":[)";
  for (int k = 1; k <= 3000; ++k) {
    line += text(k > 1 ? "," : "", std::string(200, '0'), k);
    variables += text(k > 1 ? "," : "", R"({"name":"v)", k, R"("})");
  }
  FileRoad road;
  ASSERT_TRUE(road.read_file(line + "\n" + line, variables + "]", R"("type":"ft_csv")"))
      << messages_text(road.eh);
  EXPECT_EQ(road.store.records(), 2);
  EXPECT_EQ(road.store.row(1)[2999], 3000.0);
}

constexpr std::string_view whole_file =
    "A,1,5.25\n\"B c\",2,-1e3\n  ,NA,.5\nLong label,3,*\n\"q\"\"q\",1,7\r\nA,2,\nA,1,6 # x\n";

/// Reads damaged contents: the outcome is rows or a terminating message, never anything else.
///   path   a file that is written over in place: making a file anew can take milliseconds
void read_damaged(const std::string& path, const std::string& contents)
{
  std::fstream(path, std::ios::in | std::ios::out | std::ios::binary) << contents;
  std::filesystem::resize_file(path, contents.size());
  DataRoad road;
  const bool done = road.read(text(R"({"data_file":{"name":")", path, "\"},", three_variables, "}"));
  EXPECT_EQ(done, !road.eh.terminate());
  EXPECT_TRUE(road.eh.stack().entries.empty());
  if (!done) return;
  const std::int64_t levels = road.variables.row(1).levels;
  for (std::int64_t r = 0; r < road.store.records(); ++r) {
    const double level = road.store.row(r)[0];
    EXPECT_TRUE(is_no_value(level) || (level >= 1 && level <= static_cast<double>(levels)));
    EXPECT_TRUE(std::isfinite(road.store.row(r)[2]));
  }
}

TEST(ReadText, CutAtEveryByte)
{
  const TempFolder folder;
  const std::string path = folder.file("damaged.csv", whole_file);
  for (std::size_t n = 0; n <= whole_file.size(); ++n)
    read_damaged(path, std::string(whole_file.substr(0, n)));
}

TEST(ReadText, MutatedBytes)
{
  const TempFolder folder;
  const std::string path = folder.file("damaged.csv", whole_file);
  std::mt19937 random(20240611);
  constexpr std::string_view spice =
      ",;\"#&!\n\r\t \0\x80\xFF"
      "0e.-+NA*";
  for (int round = 0; round < 3000; ++round) {
    std::string contents(whole_file);
    for (int k = static_cast<int>(random() % 6); k >= 0; --k) {
      const std::size_t at = random() % contents.size();
      switch (random() % 4) {
        case 0:
          contents[at] = spice[random() % spice.size()];
          break;
        case 1:
          contents.erase(at, random() % 4 + 1);
          break;
        case 2:
          contents.insert(at, 1, spice[random() % spice.size()]);
          break;
        default:
          contents[at] = static_cast<char>(random() % 256);
          break;
      }
      if (contents.empty()) contents = "x";
    }
    read_damaged(path, contents);
  }
}

}  // namespace
}  // namespace tolvan
