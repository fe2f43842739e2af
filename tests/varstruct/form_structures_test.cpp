// Formed structures against dense matrices, their derivatives against central differences.
#include "varstruct/form_structures.h"

#include <cmath>

#include "varstruct/small_model.h"

namespace tolvan {
namespace {

FORMED formed(SMALL_MODEL& m, std::int64_t expected_fault = 0)
{
  ERROR_HANDLER eh;
  FORMED out;
  std::int64_t fault = -1;
  K4MVSF(eh, m.terms, m.model, 1, out, fault);
  EXPECT_EQ(fault, expected_fault);
  EXPECT_TRUE(clean(eh));
  return out;
}

/// ln|A| of a dense symmetric positive definite matrix by elimination.
double dense_logdet(std::vector<std::vector<double>> a)
{
  double sum = 0.0;
  for (std::size_t k = 0; k < a.size(); ++k) {
    sum += std::log(a[k][k]);
    for (std::size_t i = k + 1; i < a.size(); ++i) {
      for (std::size_t j = k + 1; j < a.size(); ++j) a[i][j] -= a[i][k] * a[k][j] / a[k][k];
    }
  }
  return sum;
}

TEST(FormStructures, AgreeWithDenseMatricesAndDifferences)
{
  ERROR_HANDLER eh;
  SMALL_MODEL m;
  m.options(Slot::varscale) = 1;
  m.random({{"a", 1}});
  m.random({{"b", 5, "idv", {2.5}}});
  m.random({{"a", 3, "idv", {0.7}}, {"b", 4, "id"}, {"c", 2, "idv", {3.0}}});
  m.set_up(eh);
  ASSERT_TRUE(clean(eh));
  m.model.parameters.back().value = 1.7;
  const FORMED now = formed(m);
  ASSERT_EQ(now.terms.size(), 3u);

  for (std::size_t i = 0; i < now.terms.size(); ++i) {
    const TERM_STRUCTURE& structure = m.model.terms[i];
    double scale = 1.0, inverse = 1.0;
    for (std::int64_t r = 0; r < structure.rows; ++r) {
      const STRUCTURE_ROW& row = m.model.rows[static_cast<std::size_t>(structure.first_row + r)];
      if (row.scale >= 0) scale *= m.model.parameters[static_cast<std::size_t>(row.scale)].value;
      inverse *= now.terms[i].rows[static_cast<std::size_t>(r)].inverse;
    }
    const auto n = static_cast<std::size_t>(now.terms[i].size);
    std::vector<std::vector<double>> dense(n, std::vector<double>(n, 0.0));
    for (std::size_t k = 0; k < n; ++k) dense[k][k] = scale;
    EXPECT_TRUE(near(scale * inverse, 1.0, 1e-15));
    EXPECT_TRUE(near(now.terms[i].log_determinant, dense_logdet(dense), 1e-13, 1e-14));
  }

  // dRi is minus the derivative of the inverse; the score part is that of the log-determinant.
  const auto compare = [&](const STRUCTURE_ROW& row, auto&& pick) {
    if (row.scale < 0) {
      EXPECT_TRUE(pick(now).derivative.empty());
      EXPECT_EQ(pick(now).log_determinant, 0.0);
      return;
    }
    double& g = m.model.parameters[static_cast<std::size_t>(row.scale)].value;
    const double kept = g, h = kept * 1e-5;
    g = kept + h;
    const FORMED above = formed(m);
    g = kept - h;
    const FORMED below = formed(m);
    g = kept;
    EXPECT_TRUE(
        near(pick(now).derivative.at(0), -(pick(above).inverse - pick(below).inverse) / (2 * h), 1e-8));
    EXPECT_TRUE(near(pick(now).score_part.at(0),
                     (pick(above).log_determinant - pick(below).log_determinant) / (2 * h), 1e-8));
  };
  for (std::size_t i = 0; i < now.terms.size(); ++i) {
    for (std::int64_t r = 0; r < m.model.terms[i].rows; ++r) {
      compare(m.model.rows[static_cast<std::size_t>(m.model.terms[i].first_row + r)],
              [i, r](const FORMED& f) -> const FORMED_ROW& {
                return f.terms[i].rows[static_cast<std::size_t>(r)];
              });
    }
  }
  compare(m.model.residual.front(), [](const FORMED& f) -> const FORMED_ROW& { return f.residual; });
}

TEST(FormStructures, ProfiledResidualIsTheIdentity)
{
  ERROR_HANDLER eh;
  SMALL_MODEL m;
  m.random({{"a", 3}});
  m.set_up(eh);
  const FORMED f = formed(m);
  EXPECT_EQ(f.residual.size, m.records);
  EXPECT_EQ(f.residual.inverse, 1.0);
  EXPECT_EQ(f.residual.log_determinant, 0.0);
  EXPECT_EQ(f.residual.score_part.at(0), static_cast<double>(m.records));
}

TEST(FormStructures, DroppedTermsAndFaults)
{
  ERROR_HANDLER eh;
  SMALL_MODEL m;
  m.options(Slot::varscale) = 1;
  m.random({{"a", 3}});
  m.random({{"b", 4}});
  m.set_up(eh);
  double& a = m.model.parameters[0].value;
  double& residual = m.model.parameters[2].value;
  a = 0.0;
  formed(m, 1000);
  m.model.terms[0].dropped = true;
  const FORMED without = formed(m);
  EXPECT_TRUE(without.terms[0].rows.empty());
  EXPECT_EQ(without.terms[0].log_determinant, 0.0);
  EXPECT_EQ(without.terms[0].size, 3);
  m.model.terms[0].dropped = false;
  a = -0.02;  // an unbounded component may be negative; the logarithm is that of its size
  EXPECT_TRUE(near(formed(m).terms[0].log_determinant, 3 * std::log(0.02), 1e-14));
  a = NAN;
  formed(m, 999);
  a = 0.1;
  residual = 0.0;
  formed(m, 280);
  residual = -1.0;
  formed(m, 2130);
}

}  // namespace
}  // namespace tolvan
