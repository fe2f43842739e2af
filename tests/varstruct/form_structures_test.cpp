// Formed products: sizes, log-determinants, faults.  The component models have a test of their own.
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
  K4MVSF(eh, m.options, m.terms, m.model, 1, out, fault);
  EXPECT_EQ(fault, expected_fault);
  EXPECT_TRUE(clean(eh));
  return out;
}

TEST(FormStructures, ProductsOfIdentitiesAreScaledIdentities)
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
  const std::vector<double> scales = {m.model.parameters[0].value, 2.5, 0.7 * 3.0};
  const std::vector<std::int64_t> sizes = {1, 5, 24};
  for (std::size_t i = 0; i < 3; ++i) {
    double inverse = 1.0;
    for (const auto& component : now.terms[i].components) inverse *= component->inverse().scale;
    EXPECT_EQ(now.terms[i].size, sizes[i]);
    EXPECT_TRUE(near(inverse * scales[i], 1.0, 1e-15));
    EXPECT_TRUE(near(now.terms[i].log_determinant, static_cast<double>(sizes[i]) * std::log(scales[i]), 1e-13, 1e-14));
  }
  EXPECT_TRUE(near(now.scaled_identity(), 1.0 / 1.7, 1e-15));
  EXPECT_TRUE(near(now.sections.front().log_determinant, static_cast<double>(m.records) * std::log(1.7), 1e-13));
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
  EXPECT_TRUE(formed(m).terms[0].components.empty());
  m.model.terms[0].dropped = false;
  a = -0.02;  // an unbounded component may be negative; the logarithm is that of its size
  const FORMED below = formed(m);
  EXPECT_TRUE(near(below.terms[0].log_determinant, 3 * std::log(0.02), 1e-14));
  EXPECT_EQ(below.terms[0].components.front()->negative(), 3);
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
