// Matrices from files and datasets: what is read, what is told, and what damaged files come to.
#include "base/files.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "base/text.h"
#include "relmat/matrix_reading.h"

namespace tolvan_test {
namespace {

using namespace tolvan;

struct TextCase {
  const char* name;
  const char* contents;
  const char* keys;
  std::vector<double> lower;  // of the inverse, by rows; empty for a failure
  const char* messages;       // behind the first, which shows the beginning
};

TEST(MatrixFiles, TextFiles)
{
  const TextCase cases[] = {
      {"a.giv",
       "1 1 2.5\n2 1 -1\n\n2 2 3 /x\n3 3 1\n2 1 0\n",
       "",
       {2.5, -1, 3, 0, 0, 1},
       "1/- GIV matrix of order 3 has LogDet 1.8718\n"
       "1/- inverse G structure of 3 rows having 4 non zero cells read from a.giv\n"},
      {"b.giv", "1 1 2.5 0\n1\n 3*0.5 2\n", ",\"ldet\":-3.5", {}, ""},
      {"c.giv",
       "header !LDET 1\n!LDET -12.5\n!GRO 1\n2\n-1, 2\n0 -1 2\n",
       ",\"skip\":1",
       {2, -1, 2, 0, -1, 2},
       "1/- genetic fixed groups declared in GIV matrix: 1\n"},
      {"d.giv",
       "2 -1 0\n-1 2 -1\n0 -1 2\n",
       "",
       {2, -1, 2, 0, -1, 2},
       "1/- GIV matrix of order 3 has LogDet 1.3863\n"},
      {"e.giv",
       "2\n4\n0.5\n1\n",
       "",
       {2, 0, 4, 0, 0, 0.5, 0, 0, 0, 1},
       "1/- diagonal matrix of 4 rows read from e.giv\n9999/- values 0.5 ... 4\n1/- GIV matrix of order 4 "
       "has LogDet 1.3863\n"},
      {"f.grm",
       "2 1 1\n",
       "",
       {2.0 / 1.0 * 0.5, -1.0, 2.0},
       "1/- Min Mean Max of diag(f.grm) is 1.0000 1.5000 2.0000, Average Covariance: 1.0000, 0.0% of "
       "covariances are zero\n"
       "1/- Min Mean Max of diag(inverse(f.grm)) is 1.0000 1.5000 2.0000, Average Covariance: -1.0000, 0.0% "
       "of covariances are zero\n"},
      {"g.giv",
       "1 1 2.5\n3 3 1\n",
       "",
       {2.5, 0, 0, 0, 0, 1},
       "2/- 1 zero diagonals in inverse assumed to be NULL rows (rows with no corresponding data)\n"
       "1/- diagonal matrix of 3 rows read from g.giv\n9999/- values 0 ... 2.5\n1/- GIV matrix of order 3 "
       "has LogDet 0.9163\n"},
      {"h.giv",
       "1 1 1\n2 1 1\n2 2 -1\n",
       "",
       {1, 1, -1},
       "3/- sparse input: negative diagonal elements range from -1 to -1\n"
       "1/- GIV matrix of order 2 has LogDet 0.6931\n9999/- 1 negative pivots and 0 singularities\n"
       "3/- negative pivots may result in a non-positive definite AI matrix and poor convergence\n"
       "3/- GIV matrix not positive definite, it has 0 singular pivots and 1 negative pivots\n"
       "1/- inverse G structure of 2 rows having 3 non zero cells read from h.giv\n"},
      {"i.giv",
       "1 1 1\n2 1 -1\n2 2 1\n",
       "",
       {1, -1, 1},
       "1/- GIV matrix of order 2 has LogDet 0.0000\n9999/- 0 negative pivots and 1 singularities\n"
       "3/- GIV matrix not positive definite, it has 1 singular pivots and 0 negative pivots\n"
       "2/- Because of singularities in GIV matrix the number of fixed degrees of freedom incorporated into "
       "it has been set to 1\n"
       "1/- inverse G structure of 2 rows having 3 non zero cells read from i.giv\n"},
      // Faults, with their line or element.
      {"j.giv",
       "1 1 1\n1 2 1\n",
       "",
       {},
       "!4/3 sparse format of matrix looks incorrect for the 2 entry\n9999/3 on line 2 of j.giv\n"},
      {"k.giv",
       "1 1 1\n2 1 1\n2 1 1\n2 2 4\n",
       "",
       {},
       "!4/3 sparse format of matrix looks incorrect for the 3 entry\n9999/3 element (2,1) of the "
       "matrix from k.giv stands twice\n"},
      {"l.giv",
       "1 1 1\n2.5 1 1\n",
       "",
       {},
       "!4/3 sparse format of matrix looks incorrect for the 2 entry\n9999/3 on line 2 of l.giv\n"},
      {"v.giv",
       "1 1 1\n2 2 1\n33333333 3 1\n4 4 1\n",
       "",
       {},
       "!4/3 sparse format of matrix looks incorrect for the 3 entry\n9999/3 it is in row 33333333 of a matrix "
       "with 4 elements\n9999/3 file v.giv\n"},
      {"m.giv",
       "1 1 1\n2 2\n",
       "",
       {},
       "!4/2 unable to read from m.giv, attempting to read line 2\n9999/2 a row, a column and a value were "
       "expected\n"},
      {"n.grm",
       "1\n2 x\n",
       "",
       {},
       "!4/2 unable to read from n.grm, attempting to read line 2\n9999/2 a number was expected\n"},
      {"o.grm",
       "1 nan\n",
       "",
       {},
       "!4/2 unable to read from o.grm, attempting to read line 1\n9999/2 a value is not finite\n"},
      {"p.grm",
       "1 2\n3 4 5\n",
       "",
       {},
       "!4/2 error reading values from p.grm\n9999/2 5 values up to line 2 are neither a lower triangle nor "
       "a square matrix\n"},
      {"q.grm",
       "2 1\n0 2\n",
       "",
       {},
       "!4/3 the matrix from q.grm is not symmetric: element (2,1) is 1, element (1,2) is 0\n"},
      {"r.grm",
       "\n!LDET x\n1",
       "",
       {},
       "!4/2 unable to read from r.grm, attempting to read line 2\n9999/2 a number was expected behind "
       "!LDET\n"},
      {"s.giv",
       "1 1 1\n2 2 1\n",
       ",\"group\":3",
       {},
       "!4/3 the matrix from s.giv has fewer rows (2) than genetic groups (3)\n"},
      {"t.grm",
       "1\n2 1\n",
       "",
       {},
       "1/- Min Mean Max of diag(t.grm) is 1.0000 1.0000 1.0000, Average Covariance: 2.0000, 0.0% of "
       "covariances are zero\n"
       "3/- overlarge covariance X[2,1] = ABS(2) > SQRT(1 1)\n3/- 1 overlarge covariances detected\n"
       "!4/3 DPOTRF error = 2\n!4/3 the GRM matrix is not positive definite\n"
       "9999/3 use the positive semi definite or negative semi definite options to invoke a different "
       "inversion\n"},
      {"u.grm",
       "0\n2 -1\n0 0 1e-12",
       "",
       {},
       "1/- Min Mean Max of diag(u.grm) is -1.0000 -0.33333 0.10000E-11, Average Covariance: 0.66667, 66.7% "
       "of covariances are zero\n"
       "3/- zero diagonal in row 1 but non-zero element in column 2\n3/- negative diagonal in row 2, value = "
       "-1\n"
       "3/- |diagonal| < 1e-10 in row 3\n9999/- singularity check criterion value is 1e-10\n"
       "3/- this matrix has 1 negative, 1 near zero and 1 zero values on the diagonal\n"
       "2/- 1 zero diagonal elements in this matrix\n"
       "9999/- specify !NONULL with !ADD i  to add i*0.000001 to all diagonal elements\n"
       "3/- 1 negative diagonal elements in this matrix\n"
       "9999/- use !ADD 1000001 to incease all (non-zero) diagonal elements greater making all the negative "
       "values positive\n"
       "!4/3 DPOTRF error = 1\n!4/3 the GRM matrix is not positive definite\n"
       "9999/3 use the positive semi definite or negative semi definite options to invoke a different "
       "inversion\n"},
  };
  const TempFolder folder;
  const auto back = std::filesystem::current_path();
  std::filesystem::current_path(folder.path("."));
  for (const TextCase& each : cases) {
    SCOPED_TRACE(each.name);
    folder.file(each.name, each.contents);
    Reading reading;
    const AINV_MTX* m = reading.read(text("{\"name\":\"", each.name, "\"", each.keys, "}"));
    if (!each.lower.empty() || std::string_view(each.messages).find('!') != std::string_view::npos) {
      const std::string behind = reading.messages.substr(0, 7) == "1/- rea"
                                     ? reading.messages.substr(reading.messages.find('\n') + 1)
                                     : reading.messages;
      EXPECT_EQ(behind, each.messages);
    }
    if (each.lower.empty()) continue;
    ASSERT_NE(m, nullptr);
    std::size_t k = 0;
    for (std::int64_t i = 1; k < each.lower.size(); ++i) {
      for (std::int64_t j = 1; j <= i; ++j)
        EXPECT_NEAR(element(*m, i, j), each.lower[k++], 1e-14) << i << "," << j;
    }
  }
  // The words of the directives and of the first line.
  Reading c;
  EXPECT_EQ(c.read(R"({"name":"c.giv","skip":1})")->log_determinant, -12.5);
  EXPECT_EQ(c.store.matrices.back().groups, 1);
  EXPECT_EQ(c.messages.substr(0, c.messages.find('\n')), "1/- reading DENSE format GIV file beginning 2");
  Reading b;
  EXPECT_EQ(b.read(R"({"name":"b.giv","ldet":-3.5})"), nullptr) << "seven values are no triangle";
  Reading a;
  EXPECT_TRUE(a.read(R"({"name":"a"})") != nullptr) << a.messages;
  EXPECT_NE(a.messages.find("reading SPARSE format GIV file beginning: 1 1 2.5\n"), std::string::npos);
  EXPECT_NEAR(a.store.matrices.back().log_determinant, -std::log(6.5), 1e-14);
  Reading i;
  EXPECT_EQ(i.read(R"({"name":"i.giv"})")->counted(), 1);
  std::filesystem::current_path(back);
}

TEST(MatrixFiles, NamesAndKinds)
{
  const std::pair<const char*, const char*> cases[] = {
      {R"({"name":"x.txt"})",
       "!4/3 unexpected extension on file x.txt was expecting one of: giv, bgiv, sgiv, dgiv, grm, bgrm, "
       "sgrm, dgrm, mkr, mat or grr\n"},
      {R"({"name":"x.rgrm"})", "!4/3 was not expecting a .rgrm extension on x.rgrm\n"},
      {R"({"name":"x.mkr"})", "!4/2 failed to open GRR file x.mkr\n9999/2 No such file or directory\n"},
      {R"({"name":"/no/where/x"})",
       "!4/2 unable to open file /no/where/x\n9999/2 or find a matching giv or grm file\n"},
      {R"({"name":"/no/where/x.dgiv"})", "!4/2 unable to open file /no/where/x.dgiv\n"},
      {R"({"type":"ft_data"})", "!4/3 name is required but was not found in grm_file\n"},
      {R"({"name":"x","type":"ft_data"})", "!4/3 no data were supplied for dataset x\n"},
      {R"({"name":"x.giv","skip":-1})",
       "!4/3 invalid value supplied for grm_file.skip, was expecting one of: an integer of at least 0, "
       "supplied value = -1\n"},
      {R"([1])",
       "!4/3 invalid value supplied for grm_file, was expecting one of: an array of objects, supplied value "
       "= [1]\n"},
  };
  for (const auto& [entry, messages] : cases) {
    Reading reading;
    EXPECT_EQ(reading.read(entry), nullptr);
    EXPECT_EQ(reading.messages, messages) << entry;
  }
}

/// Records with their lengths, as Fortran writes them.
template <class T>
std::string records(const std::vector<std::vector<double>>& rows)
{
  std::string out;
  for (const auto& row : rows) {
    const auto bytes = static_cast<std::int32_t>(row.size() * sizeof(T));
    const std::string mark(reinterpret_cast<const char*>(&bytes), 4);
    out += mark;
    for (const double x : row) {
      const T value = static_cast<T>(x);
      out.append(reinterpret_cast<const char*>(&value), sizeof(T));
    }
    out += mark;
  }
  return out;
}

TEST(MatrixFiles, UnformattedFiles)
{
  const std::vector<std::vector<double>> dense{{4}, {1, 3}, {0.5, 0, 2}};
  const std::vector<std::vector<double>> sparse{{1, 1, 4},   {2, 1, 1}, {2, 2, 3},
                                                {3, 1, 0.5}, {3, 2, 0}, {3, 3, 2}};
  const TempFolder folder;
  const std::vector<double> lower{4, 1, 3, 0.5, 0, 2};
  const auto check = [&](const std::string& name, const std::string& contents) {
    SCOPED_TRACE(name);
    Reading reading;
    const AINV_MTX* m = reading.read(text("{\"name\":\"", folder.file(name, contents), "\"}"));
    ASSERT_NE(m, nullptr) << reading.messages;
    std::size_t k = 0;
    for (std::int64_t i = 1; i <= 3; ++i) {
      for (std::int64_t j = 1; j <= i; ++j) EXPECT_EQ(element(*m, i, j), lower[k++]);
    }
  };
  check("dense.dgiv", records<double>(dense));
  check("dense.bgiv", records<float>(dense));
  check("sparse.sgiv", records<float>(sparse));
  check("sparse.dgiv", records<double>(sparse));

  // The wrong precision.
  Reading wrong;
  wrong.read(text("{\"name\":\"", folder.file("wrong.dgiv", records<float>(dense)), "\"}"));
  EXPECT_TRUE(has_message(wrong.eh, "wrong.dgiv as Double precision binary file"));
}

TEST(MatrixFiles, RowBlocks)
{
  const TempFolder folder;
  std::string contents(4 * 24, '\0');
  const std::int64_t n = 3;
  std::memcpy(contents.data(), &n, 8);
  const double rows[] = {4, 0, 0, 1, 3, 0, 0.5, 0, 2};
  std::memcpy(contents.data() + 24, rows, sizeof rows);
  const std::string path = folder.file("m.rgrm", contents);
  ERROR_HANDLER eh;
  MATRIX_INPUT in;
  READ_MATRIX_FROM_RGRM_UNITNO(eh, path, 3, in);
  EXPECT_TRUE(clean(eh));
  EXPECT_EQ(in.values, (std::vector<double>{4, 1, 0.5, 1, 3, 0, 0.5, 0, 2}));
  READ_MATRIX_FROM_RGRM_UNITNO(eh, path, 4, in);
  EXPECT_EQ(messages_text(eh), text("!4/2 unexpected format in file ", path,
                                    ", expected 4 records, file claims to contain 3\n"));
}

TEST(MatrixFiles, Datasets)
{
  Reading triples;
  const double t[] = {1, 2, 2, 1, 1, 2, 2, -1, 2};
  UDST_ADD(triples.eh, triples.datasets, "t", t, 3, 3);
  const AINV_MTX* m = triples.read(R"({"name":"t","type":"ft_data"})");
  ASSERT_NE(m, nullptr) << triples.messages;
  EXPECT_EQ(element(*m, 2, 1), -1.0);
  EXPECT_NEAR(m->log_determinant, -std::log(3.0), 1e-14);

  // Three columns are elements unless `dense` says otherwise; a square matrix is taken as an inverse unless
  // `invert` does.
  const double square[] = {2, 1, 0, 1, 2, 0, 0, 0, 4};
  Reading dense;
  UDST_ADD(dense.eh, dense.datasets, "g", square, 3, 3);
  m = dense.read(
      R"({"name":"g","type":"ft_data","dense":1,"invert":true})",
      R"({"dataset":{"name":"g","number_of_observations":3,"variables":[{"name":"x"},{"name":"y"},{"name":"z"}]}})");
  ASSERT_NE(m, nullptr) << dense.messages;
  EXPECT_NEAR(element(*m, 2, 1), -1.0 / 3.0, 1e-15);
  EXPECT_NEAR(m->log_determinant, std::log(12.0), 1e-14);
  EXPECT_EQ(m->labels, (std::vector<std::string>{"x", "y", "z"}));
  EXPECT_EQ(dense.read(R"({"name":"g","type":"ft_data"})"), nullptr) << "the same name once more";
  EXPECT_TRUE(has_message(dense.eh, "the matrix g was supplied more than once"));

  const double bad[] = {2, 1, 0.5, 2};
  Reading asymmetric;
  UDST_ADD(asymmetric.eh, asymmetric.datasets, "g", bad, 2, 2);
  asymmetric.read(R"({"name":"g","type":"ft_data"})");
  EXPECT_EQ(asymmetric.messages,
            "!4/3 the matrix from g is not symmetric: element (2,1) is 1, element (1,2) is 0.5\n");
  Reading oblong;
  UDST_ADD(oblong.eh, oblong.datasets, "g", bad, 1, 4);
  oblong.read(R"({"name":"g","type":"ft_data"})");
  EXPECT_EQ(oblong.messages, "!4/3 the matrix from g is not square: it has 1 rows and 4 columns\n");
  const double missing[] = {2, std::nan(""), 0.5, 2};
  Reading unknown;
  UDST_ADD(unknown.eh, unknown.datasets, "g", missing, 2, 2);
  unknown.read(R"({"name":"g","type":"ft_data"})");
  EXPECT_EQ(unknown.messages, "!4/3 element (2,1) of the matrix from g is not finite\n");
}

}  // namespace
}  // namespace tolvan_test
