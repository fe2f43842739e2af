// Covariates from a file or a matrix, by the levels of a factor and by the values of a variate.
#include <filesystem>
#include <fstream>

#include "base/text.h"
#include "data/data_road.h"

namespace tolvan {
namespace {

/// A folder of the running test's own, since tests run side by side.
std::string scratch_folder()
{
  const std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();
  return (std::filesystem::temp_directory_path() / ("tolvan_covariates_" + name)).string();
}

/// Variables f (labels b, a, c, d), n (numbers 7 and 3), x, y of a matrix by rows.
struct Covariates {
  std::string folder = scratch_folder();
  std::string file = folder + "/marks.txt";
  DataRoad road;

  explicit Covariates(std::string_view contents, std::string_view definition, std::string_view term)
  {
    std::filesystem::create_directories(folder);
    std::ofstream(file) << contents;
    road.matrix("d", 4, 4, {1, 7, 2.5, 1, 2, 3, 1.5, 2, 3, 7, 2.5, 3, 4, 3, 9, 4});
    road.matrix("m", 3, 3, {7, 70, 71, 3, 30, 31, 5, 50, 51});
    road.form(text(R"({"dataset":[{"name":"d","storage_order":"so_row_major","number_of_observations":4,"variables":[
        {"name":"f","field_type":"vt_string_factor","factor_labels":["b","a","c","d"]},
        {"name":"n","field_type":"vt_integer_factor"},{"name":"x"},{"name":"y"}]},
        {"name":"m","storage_order":"so_row_major","number_of_observations":3,"variables":[{"name":"key"},{"name":"p"},{"name":"q"}]}],
        "model":{"response":"y","fixed":"mu","sparse":")",
                   term, R"("},"mbf":[)", definition, "]}"));
  }
  ~Covariates() { std::filesystem::remove_all(folder); }
};

std::string defined(std::string_view variable, std::string_view more)
{
  const std::string file = scratch_folder() + "/marks.txt";
  return text(R"({"name":"m1","variable":")", variable, R"(","file":")", file, "\"", more, "}");
}

/// The messages but for the one about opening the file.
std::string told(const ERROR_HANDLER& eh)
{
  std::string all = messages_text(eh);
  const std::size_t at = all.find("1/- reading ");
  if (at != std::string::npos) all.erase(at, all.find('\n', at) + 1 - at);
  return all;
}

TEST(FileCovariates, Rows)
{
  const std::string not_found = "3/- in 1 instances the key was not found in the file of covariates, which are treated as zero\n";
  struct Case {
    const char* contents;
    std::string definition;
    const char* term;
    const char* rows;
    std::string told;
  };
  const Case cases[] = {
      {"a 1 2\nb 3 0\nz 8 8\nc NA 5\n", defined("f", ""), "m1", "1:1 2:3 | 1\n1:1 2:1 3:2 | 2\n1:1 3:5 | 3\n1:1 | 4\n", not_found},
      {"key p q\n\"a\" 1 2\nb,3,0\n\nd 1 1\nc 2 5\n", defined("f", ""), "m1", "1:1 2:3 | 1\n1:1 2:1 3:2 | 2\n1:1 2:2 3:5 | 3\n1:1 2:1 3:1 | 4\n", ""},
      {"title\na 1 2\nb 3 4\nc 2 5\nd 1 1\n", defined("f", R"(,"skip":1,"columns":1)"), "x:m1", "1:1 2:7.5 | 1\n1:1 2:1.5 | 2\n1:1 2:5 | 3\n1:1 2:9 | 4\n", ""},
      {"3 1\n7 2\n3 9\n", defined("n", ""), "m1", "1:1 2:2 | 1\n1:1 2:1 | 2\n1:1 2:2 | 3\n1:1 2:1 | 4\n", "3/- duplicated data in MBF file dropped, KEY: 3\n"},
      {"9 1 1\n2.5 4 5\n1.50 6 7\n", defined("x", ""), "m1", "1:1 2:4 3:5 | 1\n1:1 2:6 3:7 | 2\n1:1 2:4 3:5 | 3\n1:1 2:1 3:1 | 4\n", ""},
      {"a 3 5\nb 1 2\na 1 4\nc 2 1\nd 2 1\n", defined("f", R"(,"sparse":true,"columns":3)"), "m1", "1:1 2:2 | 1\n1:1 2:4 4:5 | 2\n1:1 3:1 | 3\n1:1 3:1 | 4\n", ""},
      {"", R"({"name":"m1","variable":"n","dataset":"m"})", "m1", "1:1 2:70 3:71 | 1\n1:1 2:30 3:31 | 2\n1:1 2:70 3:71 | 3\n1:1 2:30 3:31 | 4\n", ""},
      {"a 1\nb 2\nc 3\nd 4\n", defined("f", "") + "," + defined("f", R"(,"skip":2)"), "m1", "1:1 2:2 | 1\n1:1 2:1 | 2\n1:1 2:3 | 3\n1:1 2:4 | 4\n", "3/- ignoring redefinition of m1\n"},
  };
  for (const Case& c : cases) {
    const Covariates made(c.contents, c.definition, c.term);
    EXPECT_EQ(made.road.design_rows(), c.rows) << c.contents;
    EXPECT_EQ(told(made.road.eh), c.told) << c.contents;
  }
}

TEST(FileCovariates, NamesComeFromTheHeaderOrTheMatrix)
{
  Covariates headed("key p q\na 1 2\nb 3 4\n", defined("f", ""), "m1");
  Covariates matrix("", R"({"name":"m1","variable":"n","dataset":"m"})", "m1");
  Covariates plain("a 1 2\n", defined("f", ""), "m1");
  for (auto [made, names] : {std::pair{&headed, "p q"}, std::pair{&matrix, "p q"}, std::pair{&plain, "1 2"}}) {
    DataRoad& road = made->road;
    const TERM_ROW& term = road.terms.rows.back();
    ASSERT_EQ(term.equations, 2);
    EXPECT_EQ(text(level_name(road.eh, road.variables, road.factors, term, 1), " ",
                   level_name(road.eh, road.variables, road.factors, term, 2)),
              names);
  }
}

TEST(FileCovariates, Complaints)
{
  struct Case {
    const char* contents;
    std::string definition;
    std::string message;
  };
  const Case cases[] = {
      {"a 1 2\nb 3\n", defined("f", ""), "has 2 fields, a key and 2 covariates were expected"},
      {"a 1 2\nb 3 w\n", defined("f", ""), "w in line 2 of "},
      {"q 1 2\n", defined("x", ""), "q in line 1 of "},
      {"a 4 5\n", defined("f", R"(,"sparse":true,"columns":3)"), "issue parsing !MBF !SPARSE input, column number 4 exceeds declared size (3) in row 1 (Key value a"},
      {"a 1 w\n", defined("f", R"(,"sparse":true,"columns":3)"), "key Values and cell values must be numeric"},
      {"a 1 1\n", defined("f", R"(,"sparse":true)"), "the number of columns of m1 has to be given for a sparse file"},
      {"", defined("f", ""), "holds no covariates"},
      {"", R"({"name":"m1","variable":"f","dataset":"none"})", "there is no dataset none"},
      {"", R"({"name":"m1","variable":"q","dataset":"m"})", "check definition for model term m1"},
  };
  for (const Case& c : cases) {
    const Covariates made(c.contents, c.definition, "m1");
    EXPECT_TRUE(made.road.eh.terminate());
    EXPECT_NE(messages_text(made.road.eh).find(c.message), std::string::npos) << c.contents << messages_text(made.road.eh);
  }
}

}  // namespace
}  // namespace tolvan
