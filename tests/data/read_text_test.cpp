// Text files: fields, levels, directives, complaints, keys.
#include "base/text.h"
#include "data/file_road.h"

namespace tolvan {
namespace {

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
    std::string told = "";
  };
  const std::string blanks = "1/- Embedded blanks in data fields are converted to UNDERSCORE\n9999/- the first is \"";
  const std::string remarks =
      "1/- # is honoured as a special white-out character in data file\n"
      "9999/- Use !SPECIALCHAR to treat # as normal character in data file\n";
  const Row table[] = {
      {"A,1,5\nB,2,6", "1 1 5\n2 2 6\n", "A B"},  // no end of the last line
      {"A,1,5\r\nB,2,6\r\n", "1 1 5\n2 2 6\n", "A B"},
      {"\n A , 1 ,\t5 \n\n  \nB,2,6,\n", "1 1 5\n2 2 6\n", "A B"},  // blanks around, blank lines
      {"A,NA,na\n*,.,\n,,\nNa,1,2\n", "1 NA NA\nNA NA NA\nNA NA NA\n2 1 2\n", "A Na"},
      {"A,1,-.5e1\nA,+1,+5.\nA,1.0,1d2\nA,1,1e-400\n", "1 1 -5\n1 1 5\n1 1 100\n1 1 0\n", "A"},
      {"\"A,1\",1,5\n\"say \"\"B\"\"\",2,\"6\"\n\"\",1,7\n", "1 1 5\n2 2 6\nNA 1 7\n", "A,1 say_\"B\"",
       blanks + "say \"B\"\" of variable gen\n"},
      {"New York,1,5\n\"New  York\",1,5\n", "1 1 5\n2 1 5\n", "New_York New__York",
       blanks + "New York\" of variable gen\n"},
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
      {"A,1,5\n\xE9t\xE9,1,5\n\xC3\xA9t\xC3\xA9,1,6\n\xE8,1,7\n", "1 1 5\n2 1 5\n2 1 6\n3 1 7\n",
       "A \xC3\xA9t\xC3\xA9 \xC3\xA8",
       "1/- line 3 of f.csv is not UTF-8, it is taken as Windows-1252\n9999/- and so are others that are not\n"},
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
            "9999/- of variable s, its label_length is 6\n"
            "1/- Truncating label \"zeta-lost. Reset label length with !LL\n"
            "9999/- of variable s, its label_length is 6\n");
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
      {R"("skip":"none")", "", "!4/3 failed to find  none\n9999/3 in the 5 lines of f.csv\n"},
      {R"("skip":"data:3")", "", "!4/3 failed to find  data\n9999/3 in the 5 lines of f.csv, instance 3 of 2\n"},
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
       "9999/3 of f.csv, variable yield: \"six\" is not a number\n"
       "9999/3 Maybe you want !A !L qualifiers for this factor: yield\n"
       "9999/3 values read before read error:\n"
       "9999/3  2 2\n"
       "9999/3 context of read error: B,2,six\n"
       "9999/3 next data line beings: C,3,7\n"
       "!4/3 data input was aborted after reading 1 records, 2 lines remain in the data file\n"},
      {"gen,rep,yield\n",
       "!4/3 error at field [2] of record 1 [line 2\n"
       "9999/3 of f.csv, variable rep: \"rep\" is not a level, levels are whole numbers\n"
       "9999/3 Maybe you want !A !L qualifiers for this factor: rep\n"
       "9999/3 since this is the first data record you may need to skip some header lines\n"
       "9999/3 values read before read error:\n"
       "9999/3  1\n"
       "9999/3 context of read error: gen,rep,yield\n"
       "!4/3 data input was aborted after reading 0 records, 0 lines remain in the data file\n"},
      {"A,1\n", "9999/3 of f.csv, variable yield: the line has too few fields\n"},
      {"A\n",
       "!4/3 line [A ...] does not have CSV structure as expected\n9999/- at record 1, line 2 of f.csv, 3 "
       "fields are "
       "needed\n"},
      {"A,1.5,1\n", ", variable rep: \"1.5\" is not a level"},
      {"A,1e30,1\n", ", variable rep: \"1e30\" is not a level"},
      {"A,1,1.5.2\n", ", variable yield: \"1.5.2\" is not a number\n"},
      {"A,1,1 2\n", ", variable yield: \"1 2\" is not a number\n"},
      {"A,1,1e\n", ", variable yield: \"1e\" is not a number\n"},
      {"A,1,inf\n", ", variable yield: \"inf\" is not a finite number\n"},
      {"A,1,5\nA,1,-Infinity\n",
       "!4/3 error at field [3] of record 2 [line 3\n9999/3 of f.csv, variable yield: \"-Infinity\" is not a "
       "finite "
       "number\n"},
      {"A,1,nan\n", ", variable yield: \"nan\" is not a finite number\n9999/3 a missing value is NA, na, * or .\n"},
      {"A,N/A,1\n", "9999/3 a missing value is NA, na, * or .\n"},
      {"A,1,5\rB,2,6\r", "9999/3 the line holds a carriage return; lines must end in line feeds\n"},
      {"A,1,1e999\n", ", variable yield: \"1e999\" is not a finite number\n"},
      {"A,1,0.001e312\n", ", variable yield: \"0.001e312\" is not a finite number\n"},
      {"A,1,-1d999999999999999999999\n", "is not a finite number\n"},
      {"A,1,\"5\n",
       "!4/3 unexpected LineFeed character in character string\n9999/3 at character 7 of line 2\n"
       "9999/3 you probably need to convert the file from Unix ASCII to PC ASCII format\n"
       "9999/3 at record 1, line 2 of f.csv\n"},
      {"A,1,5\n!CALL x\n",
       "!4/3 no longer supporting the !CALL directive\n9999/3 at record 2, line 3 of f.csv\n"},
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
      {R"({"name":"a.csv","type":"ft_xls"})",
       "!4/3 invalid value supplied for data_file.type, was expecting one of: ft_csv or ft_text, supplied "
       "value = ft_xls\n"},
      {R"({"name":"a.csv","save":7})",
       "!4/3 invalid value supplied for data_file.save, was expecting one of: a whole number from 0 to 6"},
      {R"({"name":"a.csv","recode":"perhaps"})",
       "!4/3 invalid value supplied for data_file.recode, was expecting one of: true or false"},
      {R"({"name":"a.csv","filter":"x","select":"1"})",
       "!4/3 filter and select have been supplied as strings, only one can be a string\n"},
      {R"({"name":"a.csv","filter":"x","select":1,"exclude":"A"})",
       "!4/3 filter and exclude have been supplied as strings, only one can be a string\n"},
      {R"({"name":"a.csv","exclude":"x"})", "!4/3 the key exclude of data_file needs the key filter\n"},
      {R"({"name":"a.csv","filter":"x"})",
       "!4/3 the key filter of data_file needs the key select or the key exclude\n"},
      {R"({"name":"a.csv","filter":"z","select":0})", "!4/3 the variable z of the filter is unknown\n"},
      {R"({"name":"a.csv","filter":2.5,"select":0})",
       "!4/3 invalid value supplied for data_file.filter, was expecting one of: the name of a variable or "
       "the "
       "number of a field, supplied value = 2.5\n"},
      {R"({"name":"a.csv","filter":1,"select":[1]})",
       "!4/3 invalid value supplied for data_file.select, was expecting one of: a string or a number"},
      {R"x({"name":"a.bin","format":"(F8.2)"})x",
       "!4/3 the key format of data_file is not for the binary file a.bin\n"},
      {R"({"name":"a.csv","noscratch":3})",
       "!4/3 invalid value supplied for data_file.noscratch, was expecting one of: 0, 1 or 2, supplied value = 3\n"},
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

}  // namespace
}  // namespace tolvan
