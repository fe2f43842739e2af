// One-way layouts with closed-form answers: the nine generated sets of the NIST StRD analysis-of-variance collection
// (Simon & Lesage 1989), whose data are 1, 7 and 13 leading digits away from their variation.
//
//     sigma2_e = MSW,  sigma2_a = (MSB - MSW) / J when positive                     (Searle, Casella & McCulloch 1992, 4.1)
#include <gtest/gtest.h>

#include <cmath>

#include "fits/host.h"

namespace {

using tolvan_test::dataset;
using tolvan_test::Host;

// Long enough that sums of squares of the stored doubles are exact to far more than eleven digits.
__extension__ typedef __float128 Exact;

struct Layout {
  std::vector<double> values;  // treatment, response by columns
  double within = 0.0, between = 0.0;
};

Layout layout(int treatments, int replicates, double offset)
{
  Layout out;
  std::vector<double> treatment;
  std::vector<double> y;
  for (int t = 0; t < treatments; ++t) {
    const double mean = t == 0 ? 0.4 : (t % 2 == 1 ? 0.3 : 0.5);
    for (int r = 0; r < replicates; ++r) {
      treatment.push_back(t + 1);
      const double deviation = r == 0 ? 0.0 : (r % 2 == 1 ? -0.1 : 0.1);
      y.push_back(offset + (mean + deviation));
    }
  }
  const auto n = static_cast<Exact>(y.size());
  Exact grand = 0;
  for (const double v : y) grand += static_cast<Exact>(v);
  grand /= n;
  Exact ssw = 0;
  Exact ssb = 0;
  for (int t = 0; t < treatments; ++t) {
    const auto* from = y.data() + static_cast<std::ptrdiff_t>(t) * replicates;
    Exact mean = 0;
    for (int r = 0; r < replicates; ++r) mean += static_cast<Exact>(from[r]);
    mean /= replicates;
    for (int r = 0; r < replicates; ++r) ssw += (static_cast<Exact>(from[r]) - mean) * (static_cast<Exact>(from[r]) - mean);
    ssb += replicates * (mean - grand) * (mean - grand);
  }
  const Exact msw = ssw / (n - treatments);
  const Exact msb = ssb / (treatments - 1);
  out.within = static_cast<double>(msw);
  out.between = static_cast<double>((msb - msw) / replicates);
  out.values = treatment;
  out.values.insert(out.values.end(), y.begin(), y.end());
  return out;
}

TEST(AnalysisOfVariance, ElevenDigitsAtEveryOffset)
{
  for (const int replicates : {21, 201, 2001}) {
    for (const double offset : {1.0, 1e6, 1e12}) {
      SCOPED_TRACE(testing::Message() << replicates << " replicates, offset " << offset);
      const Layout data = layout(9, replicates, offset);
      Host host;
      const auto n = static_cast<std::size_t>(9 * replicates);
      host.info("{\"dataset\":" + dataset("d", n, {{"treatment", 9}, {"y", 0}}) + "}");
      host.matrix("d", data.values, static_cast<int>(n), 2);
      ASSERT_LE(host.process(R"({"model":{"response":"y","random":"treatment"},"options":{"extra":8,"maxiterations":60}})"), 0)
          << host.errors();
      const std::vector<double> sigma = host.reals("TABLE_VARCOMP:SIGMA");
      ASSERT_EQ(sigma.size(), 2U);
      EXPECT_NEAR(sigma[0] / data.between, 1.0, 1e-11);
      EXPECT_NEAR(sigma[1] / data.within, 1.0, 1e-11);
      EXPECT_EQ(host.integer("SCALAR_CONVERGENCE_FLG"), 0);
    }
  }
}

}  // namespace
