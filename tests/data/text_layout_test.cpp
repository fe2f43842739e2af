// Layouts of text besides commas: free format, directives, fixed columns, dates and times, selection, echo.
#include <array>

#include "data/file_road.h"
#include "data/format_list.h"
#include "data/text_lines.h"

namespace tolvan {
namespace {

constexpr std::string_view blanks =
    "1/- Embedded blanks in data fields are converted to UNDERSCORE\n"
    "9999/- the first is \"New York\" of variable gen\n";

TEST(FreeFormat, Fields)
{
  struct Row {
    std::string_view contents, rows, labels, told = "";
  };
  const Row table[] = {
      {"A 1 5\nB 2 6", "1 1 5\n2 2 6\n", "A B"},
      {"  A\t1   5  \r\n\n B , 2,6 surplus fields\n", "1 1 5\n2 2 6\n", "A B"},
      {"A,NA,na\n* . ,\n7\n, , .5\n", "1 NA NA\nNA NA 7\nNA NA 0.5\n", "A"},
      {"\"New York\" 1 5\n\"a,\"\"b\"\"\",2,\"6\"\n", "1 1 5\n2 2 6\n", "New_York a,\"b\"", blanks},
      {"A 1 &\n5\nB &\n&\n 2 , \n6\n", "1 1 5\n2 2 6\n", "A B"},
      {"A 1 ,\n\nB 2 6\n", "1 1 NA\n2 2 6\n", "A B"},
      {"A;1 1 1d1\nA;1 +1 -1e-1\n", "1 1 10\n1 1 -0.1\n", "A;1"},
      {"A 1 5 # remark\n!SPECIALCHAR\n#7 2 6\n", "1 1 5\n2 2 6\n", "A #7",
       "1/- # is honoured as a special white-out character in data file\n"
       "9999/- Use !SPECIALCHAR to treat # as normal character in data file\n"
       "1/- # is treated as a normal alpha character in data file\n"},
      {"A 1 5\n!ass short text $x\n!ASSIGN more !< over\n lines !>\nB$ 2 6\n!JOB\nC", "1 1 5\n2 2 6\n",
       "A B$"},
      {"inclusion 1 5\nIn 2 6\n", "1 1 5\n2 2 6\n", "inclusion In"},
  };
  for (const Row& row : table) {
    FileRoad road;
    road.file_name = "f.txt";
    EXPECT_TRUE(road.read_file(row.contents, three_variables, "")) << row.contents << messages_text(road.eh);
    EXPECT_EQ(road.rows(), row.rows) << row.contents;
    EXPECT_EQ(road.labels("gen"), row.labels) << row.contents;
    EXPECT_EQ(road.told(), row.told) << row.contents;
  }
}

TEST(FreeFormat, Complaints)
{
  struct Row {
    std::string contents;
    std::string_view told;
  };
  const Row table[] = {
      {"A 1 5\nB 2\n",
       "!4/3 error at field [3] of record 2 [line 2\n9999/- of f.txt, variable yield: the line has too few "
       "fields"},
      {"A 1 5\nB 2 \"6\n", "9999/- at record 2, line 2 of f.txt\n"},
      {std::string("A 1 5\nB\0 2 6\n", 13),
       "!4/3 unexpected NUL character at character 2 of record 2, line 2 of f.txt\n"},
      {"A 1 5\n!INCLUDE absent.txt\n",
       "!4/2 failed to open !INCLUDE file absent.txt\n9999/- No such file or directory, at record 2, line 2 "
       "of"},
      {"include .\n",
       "!4/2 failed to open !INCLUDE file .\n9999/- it is a folder, at record 1, line 1 of f.txt"},
      {"!ASSIGN muchtoolong x\n",
       "!4/3 !ASSIGN string names are restricted to 8 characters\n9999/- use \"muchtool\" rather than "
       "\"muchtoolong\"\n"},
      {"!ASSIGN a !< b\nc\n",
       "!4/3 in Extended !ASSIGN tag !< ... !>, failed to detect closing !>\n9999/- at record 1, line 1 of"},
      {"!ASSIGN v 12\nA 1 $v\n",
       "!4/3 did not expect to be doing macro expansion in gtline\n9999/- $v at record 1, line 2 of f.txt\n"},
      {"!IF x\n", "!4/3 do not expect to be processing the !IF directive in gtline\n"},
      {" !vpredict\n", "!4/3 not expecting to have to handle VPREDICT in gtline\n"},
      {"!?\n", "!4/3 not expecting to hit the !? directive in GTLINE\n"},
      {"!cycle 1\n", "!4/3 was not expecting to get to the !CYCLE code in GTLINE anymore\n"},
      {"A 1 " + std::string(9000, '0') + " &\n" + std::string(2000, '1') + "\n",
       "!4/3 joined lines limited to 10000 characters\n9999/- at record 1, line 1 of f.txt\n"},
  };
  for (const Row& row : table) {
    FileRoad road;
    road.file_name = "f.txt";
    EXPECT_FALSE(road.read_file(row.contents, three_variables, R"("type":"ft_text")")) << row.contents;
    std::string told = road.told();
    for (std::size_t at; (at = told.find("9999/3 ")) != std::string::npos;) told.replace(at, 7, "9999/- ");
    for (std::size_t at; (at = told.find("9999/2 ")) != std::string::npos;) told.replace(at, 7, "9999/- ");
    EXPECT_NE(told.find(row.told), std::string::npos) << row.contents.substr(0, 80) << "\n" << told;
  }
}

TEST(FreeFormat, IncludedFiles)
{
  const TempFolder other;
  const std::string inner = other.file("inner.txt",
                                       "\xEF\xBB\xBF"
                                       "B 2 6\n\nC 3 7");
  const std::string middle = other.file("middle.txt", text("!INC ", inner, "\nD 4 x\n"));
  FileRoad road;
  EXPECT_FALSE(
      road.read_file(text("A 1 5\nInclude ", middle, "\nE 5 9\n"), three_variables, R"("type":"ft_text")"));
  EXPECT_TRUE(has_message(road.eh, "error at field [3] of record 4 [line 2"));
  EXPECT_TRUE(has_message(road.eh, text("of ", middle, ", variable yield: \"x\" is not a number")));
  other.file("middle.txt", text("!INCLUDE ", inner, "\nD 4 8\n"));
  FileRoad mended;
  ASSERT_TRUE(
      mended.read_file(text("A 1 5\nInclude ", middle, "\nE 5 9\n"), three_variables, R"("type":"ft_text")"));
  EXPECT_EQ(mended.rows(), "1 1 5\n2 2 6\n3 3 7\n4 4 8\n5 5 9\n");

  const std::string round = other.file("round.txt", text("A 1 5\n!INCLUDE ", other.path("round.txt"), "\n"));
  DataRoad endless;
  EXPECT_FALSE(endless.read(text(R"({"data_file":{"name":")", round, "\"},", three_variables, "}")));
  EXPECT_TRUE(has_message(endless.eh, "files include each other 20 deep, at record 21, line 2 of"));
}

TEST(FreeFormat, LinesHaveALimit)
{
  const TempFolder folder;
  ERROR_HANDLER eh;
  DATA_FILE_KEYS keys;
  keys.name = folder.file("f.txt", "1 2\n" + std::string(300000, '1') + "\n");
  DATA_LINES lines;
  L_OPEN_DATA_FILE(eh, keys, lines);
  lines.sources.back().file.limit_lines(1000);
  lines.record = 1;
  EXPECT_TRUE(GTLINE(eh, lines));
  lines.record = 2;
  EXPECT_FALSE(GTLINE(eh, lines));
  EXPECT_TRUE(has_message(eh, text("maximum record length [67108864 exceeded when reading ", keys.name)));
  EXPECT_TRUE(has_message(eh, text("at record 2, line 2 of ", keys.name)));
}

/// The fields of a format as "line:start+width edit.decimals", both from 0; the messages if there is a fault.
std::string places(std::string_view format, std::size_t wanted)
{
  ERROR_HANDLER eh;
  FORMAT_LIST list;
  AIDFMT(eh, format, wanted, list);
  if (eh.terminate()) return messages_text(eh);
  std::string out;
  for (const FORMAT_FIELD& field : list.fields) {
    out += text(field.line, ":", field.start, "+", field.width, field.edit);
    if (field.decimals > 0) out += text(".", field.decimals);
    out += ' ';
  }
  return out + text("of ", list.lines);
}

TEST(Format, Places)
{
  struct Row {
    std::string_view format;
    std::size_t wanted;
    std::string_view places;
  };
  const Row table[] = {
      {"(I3,F5.2,A4)", 3, "0:0+3I 0:3+5F.2 0:8+4A of 1"},
      {"2i3, 2x, f4", 3, "0:0+3I 0:3+3I 0:8+4F of 1"},
      {"(A2,T10,G6.1,T4,E5.0)", 3, "0:0+2A 0:9+6G.1 0:3+5E of 1"},
      {"(A2/I3)", 2, "0:0+2A 1:0+3I of 2"},
      {"(2(I2,X),A1)", 3, "0:0+2I 0:3+2I 0:6+1A of 1"},
      {"(A4,2(F3,1X))", 5, "0:0+4A 0:4+3F 0:8+3F 1:0+3F 1:4+3F of 2"},  // goes on with the last list
      {"(I1,I2)", 4, "0:0+1I 0:1+2I 1:0+1I 1:1+2I of 2"},               // with the whole list
      {"(I1,/)", 1, "0:0+1I of 2"},                                     // a line to be stepped over
      {"(I1)", 0, "of 1"},
      {"( 3 ( I 1 , 2 ( A 1 ) ) )", 7, "0:0+1I 0:1+1A 0:2+1A 0:3+1I 0:4+1A 0:5+1A 0:6+1I of 1"},
  };
  for (const Row& row : table) EXPECT_EQ(places(row.format, row.wanted), row.places) << row.format;

  const std::array<std::array<std::string_view, 2>, 14> faults = {{
      {"(I3", "a bracket that is not closed at \"\""},
      {"I3)", "a bracket too many at \")\""},
      {"(Q3)", "an unknown edit at \"Q3)\""},
      {"(I)", "no width at \")\""},
      {"(F0.2)", "no width at \".2)\""},
      {"(0I3)", "a count of 0 at \"I3)\""},
      {"(I3.2)", "wrong decimals at \"2)\""},
      {"(F5.)", "wrong decimals at \")\""},
      {"(I3 I4)", "no comma at \"I4)\""},
      {"(2T4,I3)", "a count before T at \"4,I3)\""},
      {"(I999999999)", "too large a number"},
      {"(3X)", "it has 0 fields, 1 are needed"},
      {"(99999999(99999999(X)))", "it takes too many steps or too long a line"},
      {"", "the end at \"\""},
  }};
  for (const auto& [format, fault] : faults) {
    const std::string told = places(format, 1);
    EXPECT_TRUE(told.starts_with(text("!4/3 error parsing the format: ", format, "\n"))) << told;
    EXPECT_NE(told.find(fault), std::string::npos) << format << told;
  }
}

TEST(Format, Records)
{
  struct Row {
    std::string_view format, contents, rows, told = "";
  };
  const Row table[] = {
      {"(A3,I2,F6.2)", "A  01  1234\nB b 2 12.34\n#\n*  NA     .\nC\n",
       "1 1 12.34\n2 2 12.34\nNA NA NA\n3 NA NA\n",
       "1/- Embedded blanks in data fields are converted to UNDERSCORE\n"
       "9999/- the first is \"B b\" of variable gen\n"
       "1/- # is honoured as a special white-out character in data file\n"
       "9999/- Use !SPECIALCHAR to treat # as normal character in data file\n"},
      {"(A3,I2,F3.0)", "\xE9t\xE9 1 5\nA   2 6\n", "1 1 5\n2 2 6\n"},  // columns are bytes of the file
      {"(A1,I1,E7.3)", "A1-12.5e2\nA1  125e1\nA1  125+1\n", "1 1 -1250\n1 1 1.25\n",
       "\"125+1\" is not a number"},
      {"(A1/I2/F4.1)", "A\n 1\n  55\n\nB\n 2 &\n\n", "1 1 5.5\n2 2 NA\n"},
      {"(A1/I2/F4.1)", "A\n 1\n  55\nB\n 2\n", "", "of f.csv, variable yield: the line has too few fields"},
      {"(A1,2G3,/)", "A  1  2\nnot read\nB  3  4", "1 1 2\n2 2 4\n"},
      {"(A1,I2,F3)", "A 11 2\n", "", "\"1 2\" is not a number"},
  };
  for (const Row& row : table) {
    FileRoad road;
    const bool done = road.read_file(row.contents, three_variables, text(R"("format":")", row.format, "\""));
    if (row.told.empty() || row.told.starts_with("1/-")) {
      EXPECT_TRUE(done) << row.contents << messages_text(road.eh);
      EXPECT_EQ(road.told(), row.told);
      const std::string levels = road.rows();
      EXPECT_EQ(levels, row.rows) << row.contents;
    } else {
      EXPECT_FALSE(done) << row.contents;
      EXPECT_NE(road.told().find(row.told), std::string::npos) << road.told();
    }
  }
}

TEST(DatesAndTimes, Values)
{
  struct Row {
    std::string_view texts;   // a line each
    std::string_view values;  // days; by Python's datetime
    std::string_view form;
  };
  const Row table[] = {
      {"1/1/1900\n28-2-1900\n1/3/1900", "1\n59\n60\n", "DD"},  // 1900 is no leap year
      {"12/3/2020\n12/Mar/20\n13-mar-2020\nNA\n", "43901\n43901\n43902\nNA\n", "DD"},
      {"3/13/2020\n12/3/2020\nDEC-3-2020", "43902\n44167\n44167\n", "MM"},
      {"Mar-12-2020\n12-3-20", "43901\n44167\n", "MM"},
      {"2000-01-01\n2000/Feb/29\n2099-12-31", "36525\n36584\n73049\n", "CCYY"},
      {"31/12/32\n1/1/33\n12/3/110", "48578\n12054\n40248\n", "DD"},
  };
  for (const Row& row : table) {
    FileRoad road;
    ASSERT_TRUE(road.read_file(row.texts, R"("variables":[{"name":"d","field_type":"vt_date"}])",
                               R"("type":"ft_csv")"))
        << row.texts << messages_text(road.eh);
    EXPECT_EQ(road.rows(), row.values) << row.texts;
    EXPECT_TRUE(has_message(road.eh, text("Using DATE format ", row.form, "...")));
  }
  FileRoad times;
  ASSERT_TRUE(times.read_file("0:0\n23:59:59\n 7:05 ,\n*\n",
                              R"("variables":[{"name":"t","field_type":"vt_time"}])", R"("type":"ft_csv")"));
  EXPECT_EQ(times.rows(), "0\n86399\n25500\nNA\n");
}

TEST(DatesAndTimes, Complaints)
{
  struct Row {
    std::string_view type, texts, wrong;
  };
  const Row table[] = {
      {"vt_date", "29/2/1900", "29/2/1900"},
      {"vt_date", "1/1/1899", "1/1/1899"},
      {"vt_date", "1/1/200", "1/1/200"},
      {"vt_date", "31/4/2000", "31/4/2000"},
      {"vt_date", "13/13/13", "13/13/13"},
      {"vt_date", "1/2", "1/2"},
      {"vt_date", "1/2/3/4", "1/2/3/4"},
      {"vt_date", "1//2000", "1//2000"},
      {"vt_date", "1/Mai/2000", "1/Mai/2000"},
      {"vt_date", "-1/2/2000", "-1/2/2000"},
      {"vt_date", "43901", "43901"},
      {"vt_date", "1/1/2000\n2000-01-01", "2000-01-01"},
      {"vt_date", "1/13/2000\n13/1/2000", "13/1/2000"},
      {"vt_date", "2000-1-1\n99-1-1", "99-1-1"},
      {"vt_time", "24:00", "24:00"},
      {"vt_time", "1:60", "1:60"},
      {"vt_time", "1:00:60", "1:00:60"},
      {"vt_time", "1", "1"},
      {"vt_time", "1:2:3:4", "1:2:3:4"},
      {"vt_time", "-1:00", "-1:00"},
  };
  for (const Row& row : table) {
    FileRoad road;
    EXPECT_FALSE(road.read_file(row.texts,
                                text(R"("variables":[{"name":"d","field_type":")", row.type, "\"}]"),
                                R"("type":"ft_csv")"))
        << row.texts;
    const std::size_t record = row.texts.find('\n') == std::string_view::npos ? 1 : 2;
    EXPECT_TRUE(road.told().find(text("!4/3 Invalid ", row.type == "vt_date" ? "DATE" : "TIME", " string ",
                                      row.wrong, "\n!4/3 error parsing !DATE (!TIME) field 1 of record ",
                                      record, "\n!4/3 error at field [1] of record ", record, " [line ",
                                      record, "\n9999/3 of f.csv, variable d: ")) != std::string::npos)
        << road.told();
  }
}

TEST(Selection, KeepsAndDrops)
{
  // gen: text; rep: numbers by first appearance, 7 before 3; yield; a column that no variable reads.
  const std::string_view contents = "A,7,1,x\nB,3,2,y\nNA,7,NA,x\nC,NA,3,5.0\nB,3,2.0,y\n";
  struct Row {
    std::string_view keys, rows;
  };
  const Row table[] = {
      {R"("filter":"yield","select":2)", "2 2 2\n2 2 2\n"},
      {R"("filter":"yield","exclude":2)", "1 1 1\nNA 1 NA\n3 NA 3\n"},
      {R"("filter":"yield","exclude":2,"select":1)", "1 1 1\n"},
      {R"("filter":"rep","select":7)", "1 1 1\nNA 1 NA\n"},  // the number of the data, not the level
      {R"("filter":"rep","exclude":3)", "1 1 1\nNA 1 NA\n3 NA 3\n"},
      {R"("filter":"gen","select":0)", ""},
      {R"("filter":1,"select":"B")", "2 2 2\n2 2 2\n"},
      {R"("filter":1,"select":"NA")", "NA 1 NA\n"},
      {R"("filter":2,"exclude":7)", "2 2 2\n3 NA 3\n2 2 2\n"},
      {R"("filter":4,"exclude":"x")", "2 2 2\n3 NA 3\n2 2 2\n"},
      {R"("filter":4,"select":5)", "3 NA 3\n"},
      {R"("filter":3,"select":"2")", "2 2 2\n"},  // the text as it stands
      {R"("filter":4,"select":"x","rrec":2)", "1 1 1\n"},
      {R"("filter":-1,"rrec":1)", "1 1 1\n"},
      {R"("rskip":4)", "1 1 2\n"},
      {R"("rskip":"NA")", "1 NA 3\n2 1 2\n"},
      {R"("skip":1,"rskip":3,"rrec":1)", "1 1 2\n"},
  };
  for (const Row& row : table) {
    FileRoad road;
    ASSERT_TRUE(road.read_file(contents, three_variables, row.keys)) << row.keys << messages_text(road.eh);
    EXPECT_EQ(road.rows(), row.rows) << row.keys;
  }
  FileRoad short_line;
  EXPECT_FALSE(short_line.read_file("A,1,2\n", three_variables, R"("filter":5,"select":1)"));
  EXPECT_TRUE(has_message(short_line.eh, "the filter: the record has too few fields"));
  FileRoad transformed;  // the selection sees what transformations make
  ASSERT_TRUE(transformed.read_file(
      "1\n2\n3\n", R"("variables":[{"name":"x","transformations":[{"name":"*","arguments":10}]}])",
      R"("filter":"x","select":20)"));
  EXPECT_EQ(transformed.rows(), "20\n");
  EXPECT_TRUE(has_message(transformed.eh, "1 of 3 records were kept by the filter on x"));
}

TEST(Selection, LabelsWithBlanks)
{
  for (const std::string_view label : {"New York", "New_York"}) {
    FileRoad road;
    ASSERT_TRUE(road.read_file("New York,1,5\nNew Yorks,1,6\n", three_variables,
                               text(R"("filter":1,"select":")", label, "\"")));
    EXPECT_EQ(road.rows(), "1 1 5\n") << label;
  }
}

/// Reads records of a pedigree factor and a variate, the identities of the pedigree being given.
bool read_identities(FileRoad& road, std::string_view name, std::string_view contents, std::string_view keys)
{
  const std::string path = road.folder.file(name, contents);
  JsonError failure;
  road.request = parse_json(text(R"({"data_file":{"name":")", path, "\"", keys, "}}"), failure);
  road.primary.data_file = road.request->find("data_file");
  road.variables.rows.resize(2);
  VARIABLE& animal = road.variables.rows[0];
  animal.name = "animal";
  animal.type = FieldType::string_factor;
  animal.is_pedigree_factor = animal.labels_fixed = true;
  for (const char* identity : {"s1", "7", "d1"}) animal.labels.find_or_add(identity);
  animal.levels = 3;
  animal.column = 1;
  road.variables.rows[1].name = "y";
  road.variables.rows[1].column = 2;
  READ_DATA_FILE(road.eh, road.primary, road.variables, road.store);
  return !road.eh.terminate();
}

TEST(PedigreeFactors, IdentitiesAreLookedUp)
{
  FileRoad names;
  ASSERT_TRUE(read_identities(names, "f.csv", "d1,1\n007,2\nNA,3\n7,4\ns1 ,5\n", ""))
      << messages_text(names.eh);
  EXPECT_EQ(names.rows(), "3 1\n2 2\nNA 3\n2 4\n1 5\n");
  EXPECT_EQ(names.variables.rows[0].levels, 3);

  FileRoad absent;
  EXPECT_FALSE(read_identities(absent, "f.csv", "d1,1\nd2,2\n", ""));
  EXPECT_EQ(absent.told().substr(0, 150),
            "!4/3 d2 was not present in the pedigree\n"
            "9999/3 this identifier label for animal does not appear to be in the Pedigree file\n"
            "!4/3 error at field [1] of ");

  FileRoad coded;  // rows of the pedigree in place of identities
  ASSERT_TRUE(read_identities(coded, "f.csv", "3,1\n1,2\n", R"(,"recode":true)"));
  EXPECT_EQ(coded.rows(), "3 1\n1 2\n");

  const double numbers[] = {7.0, 1.5, 9.0, 2.5};
  const std::string bytes(reinterpret_cast<const char*>(numbers), sizeof numbers);
  FileRoad binary;
  EXPECT_FALSE(read_identities(binary, "f.drs", bytes, ""));
  EXPECT_TRUE(has_message(binary.eh, "byte 17, variable animal: 9 was not present in the pedigree"));
}

TEST(Selection, FirstRecordsAreTold)
{
  std::string contents;
  for (int k = 1; k <= 12; ++k) contents += text("g", k, ",", k, ",NA\n");
  FileRoad road;
  ASSERT_TRUE(road.read_file(contents, three_variables, R"("print":true)"));
  EXPECT_TRUE(has_message(road.eh, "record 10 of " + road.folder.path("f.csv") + ": g10,10,NA"));
  EXPECT_TRUE(has_message(road.eh, "read as 10 10 NA"));
  EXPECT_FALSE(has_message(road.eh, "record 11 of "));
}

}  // namespace
}  // namespace tolvan
