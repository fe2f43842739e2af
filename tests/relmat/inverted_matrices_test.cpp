// Matrices that are inverted as they are read: the rules that their keys choose, and what is told of the inverse.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/text.h"
#include "relmat/matrix_reading.h"

namespace tolvan_test {
namespace {

TEST(InvertedMatrices, KeysOfAnInversion)
{
  // Rank 2 of 4, row 3 empty.
  const double k[] = {2, 1, 0, 3, 1, 1, 0, 2, 0, 0, 0, 0, 3, 2, 0, 5};
  const auto read = [&](Reading& reading, const std::string& keys) {
    UDST_ADD(reading.eh, reading.datasets, "k", k, 4, 4);
    return reading.read(text(R"({"name":"k","type":"ft_data","invert":true)", keys, "}"));
  };
  Reading plain;
  const AINV_MTX* m = read(plain, "");
  ASSERT_NE(m, nullptr) << plain.messages;
  EXPECT_TRUE(has_message(plain.eh, "this k matrix contains 1 zero rows"));
  EXPECT_TRUE(has_message(
      plain.eh, "the default inversion routine generates a generalized inverse where the zero rows ..."));
  EXPECT_EQ(m->counted(), 2);
  EXPECT_EQ(m->lagrangian, 0);

  Reading psd;
  m = read(psd, R"(,"psd":"yes")");
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->order, 5);
  EXPECT_EQ(m->lagrangian, 1);
  EXPECT_EQ(m->counted(), 4);  // without the empty row
  EXPECT_EQ(m->zero_rows, 1);

  Reading bound;
  m = read(bound, R"(,"psd":1,"nonull":1)");
  EXPECT_EQ(m->order, 6);
  EXPECT_EQ(m->counted(), 6);
  Reading null;
  EXPECT_EQ(read(null, R"(,"psd":true,"nullsing":1)")->counted(), 2);

  Reading added;
  m = read(added, R"(,"add":5,"nonull":1,"savegiv":0)");
  ASSERT_NE(m, nullptr) << added.messages;
  EXPECT_TRUE(
      has_message(added.eh, "with !NONULL has instructed Tolvan to add 5e-06 to all diagonal elements"));
  EXPECT_NEAR(element(*m, 3, 3), 1.0 / 0.000005, 1e-4);
  Reading some;
  m = read(some, R"(,"add":5,"ldet":3)");
  EXPECT_TRUE(
      has_message(some.eh, "!ADD 5 has instructed Tolvan to add 5e-06 to non-zero diagonal elements"));
  EXPECT_TRUE(has_message(some.eh, "supplied Log|GRM| (3) replaced by calculated value "));
  EXPECT_EQ(m->absent, 1);
}

// What is written comes back, sparse and dense, augmented or not.
TEST(InvertedMatrices, InversesComeBackFromTheirFile)
{
  const TempFolder folder;
  std::string contents;
  for (int i = 1; i <= 60; ++i) {
    contents += text(i, " ", i, " ", 2.0 + 0.01 * i, "\n");
    if (i > 1) contents += text(i, " ", i - 1, " -0.5\n");
  }
  const auto both = [&](const std::string& file, const std::string& keys) {
    Reading first;
    const AINV_MTX* m = first.read(text("{\"name\":\"", file, "\",\"savegiv\":1", keys, "}"));
    ASSERT_NE(m, nullptr) << first.messages;
    const std::string written = file.substr(0, file.find_last_of('.')) + ".dgiv";
    EXPECT_TRUE(has_message(first.eh, text("G Inverse written to ", written)));
    Reading second;
    const AINV_MTX* again = second.read(text("{\"name\":\"", written, "\"}"));
    ASSERT_NE(again, nullptr) << second.messages;
    ASSERT_EQ(again->order, m->order);
    EXPECT_EQ(again->lagrangian, m->lagrangian);
    EXPECT_NEAR(again->log_determinant, m->log_determinant, 1e-7);
    for (std::int64_t i = 1; i <= m->order; ++i) {
      for (std::int64_t j = 1; j <= i; ++j) ASSERT_EQ(element(*again, i, j), element(*m, i, j));
    }
  };
  both(folder.file("band.giv", "1 1 1e0\n" + contents.substr(contents.find('\n') + 1)), "");
  both(folder.file("full.grm", "2\n1 2\n1 1 2\n"), "");
  both(folder.file("short.grm", "1\n1 1\n0.5 0.5 1\n1.5 1.5 1.5 3\n"), ",\"psd\":1");
}

/// A diagonal matrix as a dataset of n columns.
std::vector<double> diagonal_matrix(const std::vector<double>& d)
{
  std::vector<double> a(d.size() * d.size(), 0.0);
  for (std::size_t k = 0; k < d.size(); ++k) a[k * d.size() + k] = d[k];
  return a;
}

TEST(InvertedMatrices, OddDiagonalsAreTold)
{
  std::vector<double> d(12, -2.0);
  d[3] = 0.0;
  const std::vector<double> a = diagonal_matrix(d);
  Reading negative;
  UDST_ADD(negative.eh, negative.datasets, "k", a.data(), 12, 12);
  ASSERT_NE(negative.read(R"({"name":"k","type":"ft_data","invert":true})"), nullptr) << negative.messages;
  for (const char* words :
       {"this k matrix contains 1 zero rows", "with singularity criterion 1e-10, 0 Singular and 11 negative",
        "1 zero and 11 negative diagonal elements have been detected in this inverse",
        "negative elements may have arisen because of rounding errors, in rows that should have been declared singular, use "
        "!ADD or !PREC to coarsen the SINGULARITY criterion",
        "if the number of negative diagonals in the inverse is large, try !ADD i to increase the diagonal to reduce the n..."})
    EXPECT_TRUE(has_message(negative.eh, words));

  // Negative definite by nsd: all pivots are negative, none is singular.
  Reading nsd;
  const std::vector<double> definite = diagonal_matrix(std::vector<double>(5, -2.0));
  UDST_ADD(nsd.eh, nsd.datasets, "k", definite.data(), 5, 5);
  const AINV_MTX* m = nsd.read(R"({"name":"k","type":"ft_data","invert":true,"nsd":true})");
  ASSERT_NE(m, nullptr) << nsd.messages;
  EXPECT_EQ(m->order, 5);
  EXPECT_EQ(m->negative_pivots, 5);
  EXPECT_EQ(m->singular_pivots, 0);
  EXPECT_EQ(element(*m, 2, 2), -0.5);

  Reading psd;
  const double k[] = {2, 2, 0, 2, 2, 0, 0, 0, 0};
  UDST_ADD(psd.eh, psd.datasets, "k", k, 3, 3);
  ASSERT_NE(psd.read(R"({"name":"k","type":"ft_data","invert":true,"psd":true,"dense":1})"), nullptr) << psd.messages;
  EXPECT_EQ(psd.messages.substr(psd.messages.find("1/- the GRM is")),
            "1/- the GRM is being inverted using a 'Singular G' routine which accommodates zero rows and singularities by "
            "adding Lagrangian rows to the inverse\n"
            "1/- 1 singularities and 0 negative pivots found inverting the GRM matrix, the inverse matrix has been augmented "
            "to order 4\n9999/- includes the 1 empty rows\n9999/- singularity declared when |pivot| < 1e-10\n"
            "1/- Min Mean Max of diag(inverse(k)) is 0.0000 0.16667 0.50000, Average Covariance: 0.0000, 100.0% of "
            "covariances are zero\n3/- 1 zero and 0 negative diagonal elements have been detected in this inverse\n");
}

// A matrix that only rounding keeps from being singular has to be declared so.
TEST(InvertedMatrices, SingularByRounding)
{
  const TempFolder folder;
  const std::string path = folder.file("k.grm", "2\n1 3\n2 1 2.000000000000008\n");
  Reading plain;
  EXPECT_EQ(plain.read(text("{\"name\":\"", path, "\"}")), nullptr);
  EXPECT_TRUE(has_message(plain.eh, "the matrix is singular in row 3"));
  EXPECT_TRUE(has_message(plain.eh, "the GRM matrix is not positive definite"));
  Reading psd;
  const AINV_MTX* m = psd.read(text("{\"name\":\"", path, "\",\"psd\":1}"));
  ASSERT_NE(m, nullptr) << psd.messages;
  EXPECT_EQ(m->lagrangian, 1);
}

TEST(InvertedMatrices, InversesThatAreOutOfTheOrdinary)
{
  const TempFolder folder;
  // In the format of a sparse inverse, but without zeros.
  std::string full = "1 1 60\n";
  for (int i = 2; i <= 60; ++i) {
    for (int j = 1; j <= i; ++j) full += text(i, " ", j, i == j ? " 60\n" : " 1\n");
  }
  Reading dense;
  const AINV_MTX* m = dense.read(text("{\"name\":\"", folder.file("f.giv", full), "\"}"));
  ASSERT_NE(m, nullptr) << dense.messages;
  EXPECT_EQ(m->shape, Shape::dense);
  EXPECT_TRUE(has_message(dense.eh, "was in a format designed for a SPARSE inverse but is evidently DENSE"));

  // One group, which a Lagrangian row at the end binds to 0.
  Reading bound;
  m = bound.read(text("{\"name\":\"", folder.file("g.giv", "!GROUP 1\n1 1 0.5\n2 1 -0.5\n2 2 1\n3 1 1\n3 3 0\n"), "\"}"));
  ASSERT_NE(m, nullptr) << bound.messages;
  EXPECT_TRUE(has_message(bound.eh, "1 zero diagonals in inverse assumed to include Lagrangian rows"));
  EXPECT_EQ(m->lagrangian, 1);

  ERROR_HANDLER eh;
  USER_DATASET_STORE datasets;
  const double two_columns[] = {1, 1, 1, 1};
  UDST_ADD(eh, datasets, "t", two_columns, 2, 2);
  DATASET_VIEW view;
  view.data = datasets.find("t");
  MATRIX_INPUT in;
  L_COPY_SPARSE_FROM_UDSTORE(eh, view, in);
  EXPECT_TRUE(has_message(eh, "was expecting 3 columns holding the row indices, the column indices and the values (in that "
                              "order), number of columns supplied i was 2"));
}

}  // namespace
}  // namespace tolvan_test
