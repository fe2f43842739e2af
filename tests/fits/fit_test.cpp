// Whole fits: a worked example step by step, two roads of the data, threads and invariances.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>

#include "fits/fit_data.h"

namespace {

using tolvan_test::crossed;
using tolvan_test::Data;
using tolvan_test::hand_in;
using tolvan_test::Host;
using tolvan_test::three_groups;

// Every number below was worked from the dense definitions (V, P, score and information), iteration by iteration.
TEST(Fit, OneWayExampleStepByStep)
{
  Host host;
  hand_in(host, three_groups);
  ASSERT_LE(host.process(R"({"model":{"response":"y","random":"group"}})"), 0) << host.errors();
  const std::vector<double> logl = host.reals("TABLE_TRACE:LOGL");
  const std::vector<double> gamma = host.reals("TABLE_TRACE:gammas_1");
  const std::vector<double> sigma2 = host.reals("TABLE_TRACE:SIGMA2");
  const double expected_logl[] = {-11.95636115, -9.89222659, -9.00884661, -8.89973247, -8.89369646};
  const double expected_gamma[] = {0.1, 1.58113883, 5.52188820, 8.78764733, 10.00013736};
  const double expected_sigma2[] = {13.36458330, 4.32752259, 2.24865596, 1.87467470, 1.79551028};
  ASSERT_EQ(logl.size(), 5U);
  for (std::size_t i = 0; i < 5; ++i) {
    EXPECT_NEAR(logl[i], expected_logl[i], 6e-9);
    EXPECT_NEAR(gamma[i], expected_gamma[i], 6e-9 + (i == 0 ? 2e-9 : 0.0));
    EXPECT_NEAR(sigma2[i], expected_sigma2[i], 6e-9);
  }
  EXPECT_NEAR(host.reals("TABLE_VARCOMP:SIGMA")[0], 17.95534946, 6e-8);
  EXPECT_NEAR(host.reals("TABLE_VARCOMP:SE")[0], 18.67397, 6e-6);
  EXPECT_NEAR(host.reals("TABLE_VARCOMP:SE")[1], 1.27097, 6e-6);
  EXPECT_NEAR(host.reals("TABLE_SLN:SE")[0], 2.50015247, 6e-8);
  EXPECT_NEAR(host.real("SCALAR_AIC"), 21.787393, 6e-7);
  EXPECT_NEAR(host.real("SCALAR_BIC"), 21.370912, 6e-7);
  EXPECT_EQ(host.integer("SCALAR_AIC_NPARAM"), 2);
  EXPECT_NE(host.json("SCALAR_FINAL_MESSAGE").find("Warning: LogL Converged; ; Parameters Not Converged"), std::string::npos)
      << host.json("SCALAR_FINAL_MESSAGE");
}

std::string read_text(const std::filesystem::path& path)
{
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

TEST(Fit, FileAndMatrixGiveTheSameBits)
{
  const std::filesystem::path folder = std::filesystem::path(TOLVAN_EXAMPLES) / "oats";
  std::ifstream csv(folder / "oats.csv");
  std::string line;
  std::getline(csv, line);
  std::vector<std::string> names;
  for (std::stringstream s(line); std::getline(s, line, ',');) names.push_back(line);
  std::map<std::string, std::map<std::string, int>> levels;
  Data data;
  data.columns.resize(names.size());
  while (std::getline(csv, line)) {
    std::stringstream s(line);
    std::string field;
    for (std::size_t k = 0; std::getline(s, field, ','); ++k) {
      if (names[k] == "yield" || names[k] == "y") {
        data.columns[k].push_back(std::stod(field));
      } else {
        auto& known = levels[names[k]];
        const auto found = known.emplace(field, static_cast<int>(known.size()) + 1).first;
        data.columns[k].push_back(found->second);
      }
    }
  }
  for (const std::string& name : names) data.variables.emplace_back(name, static_cast<int>(levels[name].size()));
  const std::string request = read_text(folder / "request.json");

  Host from_file;
  const auto here = std::filesystem::current_path();
  std::filesystem::current_path(folder);
  const int status = from_file.process(request);
  std::filesystem::current_path(here);
  ASSERT_LE(status, 0) << from_file.errors();

  Host from_matrix;
  hand_in(from_matrix, data);
  const std::string response = names.back();
  ASSERT_LE(from_matrix.process("{\"model\":{\"response\":\"" + response +
                                "\",\"fixed\":\"variety*nitro\",\"random\":\"block/variety\"},\"options\":{\"extra\":5}}"),
            0)
      << from_matrix.errors();
  for (const char* id : {"TABLE_TRACE:LOGL", "TABLE_VARCOMP:SIGMA", "TABLE_VARCOMP:SE", "TABLE_VARVAR", "TABLE_SLN:EFFECT",
                         "TABLE_SLN:SE", "TABLE_YHT:YHAT", "TABLE_YHT:HAT"}) {
    const auto a = from_file.reals(id);
    const auto b = from_matrix.reals(id);
    ASSERT_FALSE(a.empty()) << id;
    ASSERT_EQ(a.size(), b.size()) << id;
    EXPECT_EQ(std::memcmp(a.data(), b.data(), a.size() * sizeof(double)), 0) << id;
  }
}

TEST(Fit, ThreadsLeaveEveryBitAlone)
{
  const Data data = crossed(73400, 2971, 1127, 14, 1);
  std::vector<std::vector<double>> first;
  for (const int threads : {1, 2, 4}) {
    Host host;
    hand_in(host, data);
    ASSERT_LE(host.process("{\"model\":{\"response\":\"y\",\"fixed\":\"mu + service + lectage\",\"random\":\"s + d + dept\"},"
                           "\"options\":{\"maximum_number_of_threads\":" +
                           std::to_string(threads) + "}}"),
              0)
        << host.errors();
    std::vector<std::vector<double>> all;
    for (const char* id : {"TABLE_TRACE:LOGL", "TABLE_VARCOMP:SIGMA", "TABLE_VARCOMP:SE", "TABLE_VARVAR", "TABLE_SLN:EFFECT",
                           "TABLE_SLN:SE", "TABLE_YHT:YHAT", "TABLE_YHT:RESID", "TABLE_YHT:HAT"}) {
      all.push_back(host.reals(id));
      ASSERT_FALSE(all.back().empty()) << id;
    }
    if (first.empty()) {
      first = all;
      continue;
    }
    for (std::size_t k = 0; k < all.size(); ++k) {
      ASSERT_EQ(all[k].size(), first[k].size());
      EXPECT_EQ(std::memcmp(all[k].data(), first[k].data(), all[k].size() * sizeof(double)), 0) << threads << " threads, output " << k;
    }
  }
}

TEST(Fit, ScaleAndOrderOfTheRecordsAreImmaterial)
{
  const Data data = crossed(900, 60, 25, 5, 3);
  const std::string request =
      R"({"model":{"response":"y","fixed":"service + lectage","random":"s + d"},"options":{"extra":4,"maxiterations":60}})";
  const auto fit = [&](const Data& d, std::vector<double>& sigma, double& logl) {
    Host host;
    hand_in(host, d);
    ASSERT_LE(host.process(request), 0) << host.errors();
    sigma = host.reals("TABLE_VARCOMP:SIGMA");
    logl = host.real("SCALAR_LOGLIK");
  };
  std::vector<double> sigma;
  double logl = 0.0;
  fit(data, sigma, logl);

  Data shuffled = data;
  std::mt19937_64 gen(5);
  for (std::size_t r = data.records() - 1; r > 0; --r) {
    const std::size_t other = gen() % (r + 1);
    for (auto& c : shuffled.columns) std::swap(c[r], c[other]);
  }
  Data relabelled = data;
  for (double& level : relabelled.columns[0]) level = 61.0 - level;
  for (const Data* other : {&shuffled, &relabelled}) {
    std::vector<double> s;
    double l = 0.0;
    fit(*other, s, l);
    ASSERT_EQ(s.size(), sigma.size());
    EXPECT_NEAR(l, logl, 1e-8 * std::fabs(logl));
    for (std::size_t i = 0; i < sigma.size(); ++i) EXPECT_NEAR(s[i], sigma[i], 1e-8 * sigma[i]);
  }
  for (const double scale : {1e-6, 1e6}) {
    Data scaled = data;
    for (double& y : scaled.columns[5]) y *= scale;
    std::vector<double> s;
    double l = 0.0;
    fit(scaled, s, l);
    ASSERT_EQ(s.size(), sigma.size());
    for (std::size_t i = 0; i < sigma.size(); ++i) EXPECT_NEAR(s[i] / (scale * scale), sigma[i], 1e-8 * sigma[i]);
  }
}

TEST(Fit, BothParameterisationsMeetAtTheSameOptimum)
{
  const Data data = crossed(600, 40, 20, 4, 7);
  std::vector<double> sigma[2];
  std::vector<double> se[2];
  double logl[2];
  for (const int varscale : {0, 1}) {
    Host host;
    hand_in(host, data);
    ASSERT_LE(host.process("{\"model\":{\"response\":\"y\",\"fixed\":\"lectage\",\"random\":\"s + d\"},\"options\":{\"extra\":6,"
                           "\"maxiterations\":80,\"varscale\":" +
                           std::to_string(varscale) + "}}"),
              0)
        << host.errors();
    sigma[varscale] = host.reals("TABLE_VARCOMP:SIGMA");
    se[varscale] = host.reals("TABLE_VARCOMP:SE");
    logl[varscale] = host.real("SCALAR_LOGLIK");
    EXPECT_NEAR(host.real("SCALAR_SIGMA2"), sigma[varscale].back(), 1e-12 * sigma[varscale].back());
  }
  EXPECT_NEAR(logl[0], logl[1], 1e-8 * std::fabs(logl[0]));
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_NEAR(sigma[0][i], sigma[1][i], 1e-6 * sigma[0][i]);
    EXPECT_NEAR(se[0][i], se[1][i], 1e-5 * se[0][i]);
  }
}

TEST(Fit, AConstantIsGivenBackWhereverMuIs)
{
  // mu cannot be told from the levels of a sparse factor, which are eliminated before it: the constant goes to them.
  Data data = crossed(300, 20, 10, 2, 13);
  for (double& y : data.columns[5]) y += 1e6;
  for (double& x : data.columns[3]) x += 1e5;
  for (const char* model : {R"({"response":"y","fixed":"mu + service","sparse":"dept","random":"s"})",
                            R"({"response":"y","fixed":"mu + service + dept","random":"s"})"}) {
    Host host;
    hand_in(host, data);
    ASSERT_LE(host.process("{\"model\":" + std::string(model) + "}"), 0) << host.errors();
    const std::vector<double> effect = host.reals("TABLE_SLN:EFFECT");  // mu, service, then the levels
    const std::vector<double> yhat = host.reals("TABLE_YHT:YHAT");
    const std::size_t dept = std::strstr(model, "sparse") != nullptr ? effect.size() - 2 : 2;
    const std::size_t s = std::strstr(model, "sparse") != nullptr ? 2 : 4;
    for (std::size_t r = 0; r < data.records(); r += 37) {
      const double fitted = effect[0] + effect[1] * data.columns[3][r] + effect[dept + static_cast<std::size_t>(data.columns[2][r]) - 1] +
                            effect[s + static_cast<std::size_t>(data.columns[0][r]) - 1];
      EXPECT_NEAR(fitted, yhat[r], 1e-6);
    }
  }
}

// Balanced one-way layout: sigma_a = (MSB - MSW) / J may be negative, and is so when its constraint is U.
TEST(Fit, AnUnboundedVarianceMayBeNegative)
{
  for (const unsigned seed : {3U, 11U, 12U}) {
    std::mt19937_64 gen(seed);
    std::normal_distribution<double> normal;
    constexpr int groups = 8;
    constexpr int size = 4;
    Data data{{{"group", groups}, {"y", 0}}, {{}, {}}};
    double ssw = 0.0;
    std::vector<double> means;
    for (int g = 0; g < groups; ++g) {
      std::vector<double> y(size);
      double mean = 0.0;
      for (double& v : y) mean += (v = normal(gen)) / size;
      for (const double v : y) {
        const double moved = v - 0.8 * mean;  // groups more alike than chance
        data.columns[0].push_back(g + 1);
        data.columns[1].push_back(moved);
        ssw += (v - mean) * (v - mean);
      }
      means.push_back(0.2 * mean);
    }
    double grand = 0.0;
    for (const double m : means) grand += m / groups;
    double ssb = 0.0;
    for (const double m : means) ssb += size * (m - grand) * (m - grand);
    const double msw = ssw / (groups * (size - 1));
    const double between = (ssb / (groups - 1) - msw) / size;
    ASSERT_LT(between, 0.0);
    for (const int varscale : {0, 1}) {
      Host host;
      hand_in(host, data);
      ASSERT_LE(host.process("{\"model\":{\"response\":\"y\",\"random\":\"group\"},\"initial_values\":[{\"term\":\"group\",\"value\":0.1,"
                             "\"constraint\":\"U\"}],\"options\":{\"maxiterations\":100,\"extra\":5,\"varscale\":" +
                             std::to_string(varscale) + "}}"),
                0)
          << host.errors();
      const std::vector<double> sigma = host.reals("TABLE_VARCOMP:SIGMA");
      EXPECT_NEAR(sigma[0], between, 1e-6 * msw) << seed << " " << varscale;
      EXPECT_NEAR(sigma[1], msw, 1e-6 * msw) << seed << " " << varscale;
    }
  }
}

// The same data in other units, or with effects a million times the residual's spread, are the same fit.
TEST(Fit, LargeEffectsAndSmallUnitsLoseNothing)
{
  const Data data = crossed(300, 20, 10, 2, 29);
  const auto fit = [&](const std::vector<double>& y, const std::vector<double>& x, int varscale, const char* model, double* out) {
    Data d = data;
    d.columns[5] = y;
    d.columns[3] = x;
    Host host;
    hand_in(host, d);
    ASSERT_LE(host.process("{\"model\":" + std::string(model) + ",\"options\":{\"maxiterations\":60,\"extra\":4,\"varscale\":" +
                           std::to_string(varscale) + "}}"),
              0)
        << host.errors();
    const std::vector<double> sigma = host.reals("TABLE_VARCOMP:SIGMA");
    out[0] = sigma[0];
    out[1] = sigma[1];
    out[2] = host.real("SCALAR_DF");
  };
  const char* plain = R"({"response":"y","fixed":"mu + service","random":"s"})";
  const char* beside_sparse = R"({"response":"y","fixed":"mu + service","sparse":"dept","random":"s"})";
  const std::vector<double>& y = data.columns[5];
  std::vector<double> x = data.columns[3];
  std::mt19937_64 gen(31);
  std::normal_distribution<double> normal;
  for (double& v : x) v = normal(gen);
  for (const char* model : {plain, beside_sparse}) {
    double want[3];
    fit(y, x, 0, model, want);
    std::vector<double> steep = y;
    std::vector<double> far = x;
    for (std::size_t r = 0; r < y.size(); ++r) {
      steep[r] += 1e6 * x[r];
      far[r] += 1e6;
    }
    double got[3];
    fit(steep, x, 0, model, got);
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(got[k], want[k], 1e-7 * want[k]) << "steep " << k;
    fit(y, far, 0, model, got);
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(got[k], want[k], 1e-7 * want[k]) << "far " << k;
    std::vector<double> faint = x;
    for (double& v : faint) v *= 1e-5;
    fit(y, faint, 0, model, got);
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(got[k], want[k], 1e-7 * want[k]) << "faint " << k;
    for (const double unit : {1e-5, 1e5}) {
      std::vector<double> scaled = y;
      for (double& v : scaled) v *= unit;
      fit(scaled, x, 1, model, got);
      for (int k = 0; k < 2; ++k) EXPECT_NEAR(got[k] / (unit * unit), want[k], 1e-6 * want[k]) << "unit " << unit << " " << k;
      EXPECT_EQ(got[2], want[2]);
    }
  }
}

}  // namespace
