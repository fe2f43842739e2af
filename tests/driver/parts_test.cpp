// The driver's own parts: JSON that is edited and handed on, CSV files, datasets made of them, numbers in
// tables.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "app/csv_file.h"
#include "app/dataset.h"
#include "app/files.h"
#include "app/json_value.h"
#include "app/text_table.h"
#include "tolvan/tolvan_api.h"

using namespace tolvan::driver;

namespace {

/// A file of a given text, for as long as it is needed.
class TemporaryFile {
 public:
  explicit TemporaryFile(const std::string& text)
      : path_(std::filesystem::temp_directory_path() /
              ("tolvan_parts_" + std::to_string(getpid()) + "_" + std::to_string(counter_++) + ".csv"))
  {
    std::ofstream(path_, std::ios::binary) << text;
  }
  ~TemporaryFile() { std::filesystem::remove(path_); }
  std::string path() const { return path_.string(); }

 private:
  std::filesystem::path path_;
  static inline int counter_ = 0;
};

CsvFile csv(const std::string& text)
{
  const TemporaryFile file(text);
  CsvFile out;
  const Problem problem = read_csv(file.path(), out);
  EXPECT_EQ(problem.text, "");
  return out;
}

std::string csv_problem(const std::string& text)
{
  const TemporaryFile file(text);
  CsvFile out;
  const std::string what = read_csv(file.path(), out).text;
  return what.substr(what.find(".csv") + 4);
}

struct Built {
  Json request;
  Matrix matrix;
  std::string narration;
  std::string problem;
  std::string variables() const
  {
    return write_json(*request.find("dataset")->items.front().find("variables"));
  }
};

Built build(const std::string& text, const std::string& request)
{
  Built b{.request = *read_json(request), .matrix = {}, .narration = {}, .problem = {}};
  b.problem = add_dataset("trial", csv(text), b.request, b.matrix, b.narration).text;
  b.problem.erase(0, b.problem.find(".csv") == std::string::npos ? 0 : b.problem.find(".csv") + 4);
  return b;
}

std::string request_of(const std::string& variables)
{
  return R"({"dataset":[{"name":"trial","variables":[)" + variables + "]}]}";
}

TEST(DriverJson, HandsOnWhatItDoesNotTouch)
{
  for (const char* text : {R"({"b":1.0,"a":1,"a":[1e-37,-0.0,12345678901234567890],"":{}})",
                           R"([null,true,"\u0001"])", R"("gr\u00fcn \ud83c\udf31 \" \\ \n")", "[]"}) {
    const auto once = read_json(text);
    ASSERT_TRUE(once) << text;
    const auto twice = read_json(write_json(*once));
    ASSERT_TRUE(twice) << text;
    EXPECT_EQ(write_json(*once), write_json(*twice));
  }
  EXPECT_EQ(write_json(*read_json(R"( { "a" : 1.50 , "a" : 1E+5 } )")), R"({"a":1.50,"a":1E+5})");
  EXPECT_EQ(read_json(R"("gr\u00fcn \ud83c\udf31")")->text, "gr\xC3\xBCn \xF0\x9F\x8C\xB1");
}

TEST(DriverJson, RefusesWhatIsNoJson)
{
  for (const char* text : {"", "{", "[1,]", "{\"a\"}", "{\"a\":}", "01", "1.", ".5", "+1", "nul", "\"a",
                           "\"\\x\"", "\"\\ud800\"", "\"\t\"", "[1] 2", "{a:1}"}) {
    EXPECT_FALSE(read_json(text)) << text;
  }
  EXPECT_TRUE(read_json(std::string(900, '[') + std::string(900, ']')));
  EXPECT_FALSE(read_json(std::string(1000000, '[')));
}

TEST(DriverCsv, CutsFieldsAsSpreadsheetsWriteThem)
{
  const CsvFile f =
      csv("\xEF\xBB\xBF\"name, full\",x , y\r\n\r\n\"a \"\"b\"\"\",1,\r\n  c d ,\"2\n3\",NA\n,,4");
  ASSERT_EQ(f.header, (std::vector<std::string>{"name, full", "x", "y"}));
  ASSERT_EQ(f.records(), 3);
  EXPECT_EQ(f.field(0, 0), "a \"b\"");
  EXPECT_EQ(f.field(0, 2), "");
  EXPECT_EQ(f.field(1, 0), "c d");
  EXPECT_EQ(f.field(1, 1), "2\n3");
  EXPECT_EQ(f.field(2, 2), "4");
  EXPECT_EQ(f.lines, (std::vector<std::int64_t>{3, 4, 6}));

  const CsvFile decimal_comma = csv("a;b\n1,5;2\n");
  EXPECT_EQ(decimal_comma.separator, ';');
  EXPECT_EQ(number_of(decimal_comma.field(0, 0), ';'), 1.5);
  EXPECT_EQ(csv("a\tb\n1\t2\n").header.size(), 2u);
  EXPECT_EQ(csv("only\n1\n2\n").records(), 2);
}

TEST(DriverCsv, SaysWhereAFileIsWrong)
{
  EXPECT_EQ(csv_problem("a,b\n1,2\n3\n"), ", line 3: 1 fields found, the header has 2");
  EXPECT_EQ(csv_problem("a,b\n1,\"2\n"), ", line 2: a quote is not closed");
  EXPECT_EQ(csv_problem(""), " is empty; a line of column names was expected");
  EXPECT_EQ(csv_problem("a,b\n\n"), " holds no record below its header");
  CsvFile out;
  EXPECT_EQ(read_csv("/no/such/file.csv", out).text,
            "unable to read /no/such/file.csv: No such file or directory");
}

TEST(DriverCsv, TakesNumbersWholeAndFinite)
{
  EXPECT_EQ(number_of("-1e-37", ','), TOLVAN_MISSING);
  EXPECT_EQ(number_of("+.5", ','), 0.5);
  EXPECT_EQ(number_of("1e-400", ','), 0.0);
  for (const char* text : {"", "1x", "x", "1e999", "nan", "inf", "1,5", "0x10", "+-1", "- 1"}) {
    EXPECT_FALSE(number_of(text, ',')) << text;
  }
}

TEST(DriverDataset, CodesLabelsAsTheDocumentListsThem)
{
  const Built b =
      build("y,g\n1.5,b\nNA,a\n2.5,.\n", request_of(R"({"name":"g","field_type":"vt_string_factor",)"
                                                    R"("factor_labels":["a","b","c"]},{"name":"y"})"));
  EXPECT_EQ(b.problem, "");
  EXPECT_EQ(b.matrix.values, (std::vector<double>{2, 1, TOLVAN_MISSING, 1.5, TOLVAN_MISSING, 2.5}));
  const Json& entry = b.request.find("dataset")->items.front();
  EXPECT_EQ(entry.find("number_of_observations")->integer(), 3);
  EXPECT_EQ(entry.find("storage_order")->text, "so_column_major");

  const Built from_zero = build(
      "g\nb\na\n", request_of(R"({"name":"g","field_type":"vt_string_factor","factor_labels":["a","b"],)"
                              R"("factor_labels_indexed_from":0})"));
  EXPECT_EQ(from_zero.matrix.values, (std::vector<double>{1, 0}));
}

TEST(DriverDataset, NumbersLabelsByFirstAppearanceSortedOrShared)
{
  const std::string data = "g,h\nc,a\na,d\nc,c\n";
  const Built first = build(data, request_of(R"({"name":"g","field_type":"vt_string_factor"})"));
  EXPECT_EQ(first.matrix.values, (std::vector<double>{1, 2, 1}));
  EXPECT_NE(first.variables().find(R"("factor_labels":["c","a"])"), std::string::npos);

  const Built sorted = build(data, request_of(R"({"name":"g","field_type":"vt_string_factor","sort":true})"));
  EXPECT_EQ(sorted.matrix.values, (std::vector<double>{2, 1, 2}));

  const Built shared =
      build(data, request_of(R"({"name":"g","field_type":"vt_string_factor"},)"
                             R"({"name":"h","field_type":"vt_string_factor","code_levels_as":"g"})"));
  EXPECT_EQ(shared.matrix.values, (std::vector<double>{1, 2, 1, 2, 3, 1}));
  const std::string labels = R"("factor_labels":["c","a","d"])";
  EXPECT_NE(shared.variables().find(labels), shared.variables().rfind(labels));
}

TEST(DriverDataset, ObeysStorageOrderAndColumnNumbers)
{
  const Built b = build("a,b,c\n1,2,3\n4,5,6\n",
                        R"({"dataset":{"name":"trial","storage_order":"so_row_major","variables":[)"
                        R"({"name":"z","user_column_number":3},{"name":"a"}]}})");
  EXPECT_EQ(b.matrix.values, (std::vector<double>{3, 1, 6, 4}));
  const Built matrix = build("1r,2c\n1,2\n", R"({"dataset":{"name":"trial"}})");
  EXPECT_EQ(matrix.matrix.values, (std::vector<double>{1, 2}));
  EXPECT_EQ(matrix.request.find("dataset")->find("number_of_variables")->integer(), 2);
}

TEST(DriverDataset, MakesAnEntryFromTheHeader)
{
  const std::string data = "\"\",block,day,variety,y,yield.kg\n1,2,1,A,5,1\n2,1,2,NA,NA,1\n3,2,3,B,6,1\n";
  const Built b = build(data, R"({"dataset":{"name":"other"},"model":{"response":"y","fixed":"day",)"
                              R"--("random":"block+pol(day,-1):id(block)"}})--");
  EXPECT_EQ(b.problem, "");
  const Json& entry = b.request.find("dataset")->items.back();
  EXPECT_EQ(b.request.find("dataset")->items.size(), 2u);
  EXPECT_EQ(write_json(*entry.find("variables")),
            R"([{"name":"block","field_type":"vt_integer_factor","sort":true},)"
            R"({"name":"day","field_type":"vt_variate"},)"
            R"({"name":"variety","field_type":"vt_string_factor","factor_labels":["A","B"]},)"
            R"({"name":"y","field_type":"vt_variate"}])");
  EXPECT_NE(b.narration.find("yield.kg: left out"), std::string::npos);
}

TEST(DriverDataset, SaysWhichFieldIsWrong)
{
  EXPECT_EQ(build("y\n1\nx\n", request_of(R"({"name":"y"})")).problem,
            R"(, line 3, column y: "x" is not a number)");
  EXPECT_EQ(
      build("g\na\n", request_of(R"({"name":"g","field_type":"vt_string_factor","factor_labels":["b"]})"))
          .problem,
      R"(, line 2, column g: "a" is not among the factor_labels)");
  EXPECT_EQ(build("a,b\n1,2\n", request_of(R"({"name":"c"})")).problem,
            ": there is no column for the variable c; the header has a, b");
  EXPECT_EQ(build("a,a\n1,2\n", request_of(R"({"name":"a"})")).problem, ": more than one column is named a");
  EXPECT_EQ(build("a\n1\n", request_of(R"({"name":"b","user_column_number":2})")).problem,
            ": there is no column 2 for the variable b");
}

TEST(DriverTables, ChooseDecimalsForAColumn)
{
  using Cells = std::vector<std::string>;
  EXPECT_EQ(number_cells(std::vector{214.477083127, 67.8755289, 0.0}), (Cells{"214.477", "67.876", "0.000"}));
  EXPECT_EQ(number_cells(std::vector{0.00012345, 1.5}), (Cells{"0.000123", "1.500000"}));
  EXPECT_EQ(number_cells(std::vector{1e12, 1e-12, TOLVAN_MISSING}), (Cells{"1e+12", "1e-12", ""}));
  EXPECT_EQ(number_cells(std::vector{-0.0004}, 2), (Cells{"0.00"}));
  EXPECT_EQ(error_cells({1.0, 0.0}), (Cells{"1.00000", "-"}));
  EXPECT_EQ(text_table({{.heading = "Term", .right = false, .cells = {"gr\xC3\xBCn", "a"}},
                        {.heading = "N", .cells = {"1", "22"}}}),
            "  Term   N\n  gr\xC3\xBCn   1\n  a     22\n");
}

TEST(DriverFiles, AreNamedAsSeenFromTheRequest)
{
  EXPECT_EQ(beside("folder/request.json", "a.csv"), "folder/a.csv");
  EXPECT_EQ(beside("request.json", "a.csv"), "a.csv");
  EXPECT_EQ(beside("folder/request.json", "/data/a.csv"), "/data/a.csv");
  EXPECT_EQ(beside("-", "a.csv"), "a.csv");
}

}  // namespace
