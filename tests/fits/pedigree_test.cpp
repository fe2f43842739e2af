// Pedigrees from files in whole fits, against the restricted likelihood of the dense variance matrix.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "fits/host.h"
#include "oracle/dense_reml.h"

namespace {

using tolvan_test::dataset;
using tolvan_test::dense_variance;
using tolvan_test::DenseVariance;
using tolvan_test::Host;
using tolvan_test::Matrix;

constexpr int groups = 2;  // 1 and 2; animals are 101, 102, ...

/// A made-up herd with records of its later animals, in families; parents are animals from 1 on, 0 for none.
struct Herd {
  static constexpr int n = 160;
  int sire[n + 1] = {}, dam[n + 1] = {};
  int group[n + 1][2] = {};  // the groups of missing parents
  std::vector<double> animal, mother, y;
  Matrix a{n, n}, d{n, n}, q{n, groups};  // additive, dominance, shares of the groups

  explicit Herd(bool with_groups)
  {
    std::mt19937 random(17);
    std::normal_distribution<double> normal;
    const auto below = [&](int m) { return static_cast<int>(random() % static_cast<unsigned>(m)); };
    for (int i = 1; i <= n; ++i) {
      for (int& each : group[i]) each = below(groups) + 1;
      if (i <= 12) continue;
      sire[i] = 2 * below((i - 1) / 2) + 1;
      dam[i] = 2 * below((i - 1) / 2) + 2;
      if (with_groups && below(4) == 0) dam[i] = 0;
      if (i > 20 && i % 4 != 0) {  // full sibs
        sire[i] = sire[i - 1];
        dam[i] = dam[i - 1];
      }
    }
    relate();
    std::vector<double> genetic(n + 1), maternal(n + 1);
    for (int i = 1; i <= n; ++i) {
      const auto parents = [&](const std::vector<double>& of) {
        return 0.5 * ((sire[i] > 0 ? of[static_cast<std::size_t>(sire[i])] : 0.0) +
                      (dam[i] > 0 ? of[static_cast<std::size_t>(dam[i])] : 0.0));
      };
      genetic[static_cast<std::size_t>(i)] = parents(genetic) + 1.2 * normal(random);
      maternal[static_cast<std::size_t>(i)] = parents(maternal) + 1.2 * normal(random);
    }
    double family = 0.0;
    for (int i = 21; i <= n; ++i) {
      if (i % 4 == 0) family = 0.9 * normal(random);
      const double own = family + 1.5 * normal(random);
      for (int k = 0; k < 3; ++k) {
        if (i % 5 == 0 || (dam[i] == 0)) continue;
        animal.push_back(i);
        mother.push_back(dam[i]);
        y.push_back(10.0 + genetic[static_cast<std::size_t>(i)] + maternal[static_cast<std::size_t>(dam[i])] + own +
                    0.7 * normal(random) + (with_groups ? 2.0 * q(static_cast<std::size_t>(i - 1), 0) : 0.0));
      }
    }
  }

  void relate()
  {
    const auto at = [](const Matrix& m, int i, int j) {
      return i > 0 && j > 0 ? m(static_cast<std::size_t>(i - 1), static_cast<std::size_t>(j - 1)) : 0.0;
    };
    for (int i = 1; i <= n; ++i) {
      const auto row = static_cast<std::size_t>(i - 1);
      for (int j = 1; j < i; ++j) {
        const auto column = static_cast<std::size_t>(j - 1);
        a(row, column) = a(column, row) = 0.5 * (at(a, sire[i], j) + at(a, dam[i], j));
        d(row, column) = d(column, row) =
            0.25 * (at(a, sire[i], sire[j]) * at(a, dam[i], dam[j]) + at(a, sire[i], dam[j]) * at(a, dam[i], sire[j]));
      }
      a(row, row) = 1.0 + 0.5 * at(a, sire[i], dam[i]);
      d(row, row) = 1.0;
      for (int side = 0; side < 2; ++side) {
        const int parent = side == 0 ? sire[i] : dam[i];
        for (std::size_t g = 0; g < groups; ++g) {
          q(row, g) += 0.5 * (parent > 0 ? q(static_cast<std::size_t>(parent - 1), g)
                                         : static_cast<double>(group[i][side] == static_cast<int>(g) + 1));
        }
      }
    }
  }

  /// The lines of a pedigree file, youngest first; groups, if they are told, ahead of all.
  std::string file(bool with_groups) const
  {
    std::string out = with_groups ? "1,0,0\n2,0,0\n" : "";
    const auto name = [&](int parent, int of_group) {
      return parent > 0 ? std::to_string(100 + parent) : with_groups ? std::to_string(of_group) : std::string("0");
    };
    for (int i = n; i >= 1; --i)
      out += std::to_string(100 + i) + "," + name(sire[i], group[i][0]) + "," + name(dam[i], group[i][1]) + "\n";
    return out;
  }

  /// Z K Z' of the records, by the animal or by its mother.
  Matrix covariance(const Matrix& k, bool by_mother) const
  {
    const std::vector<double>& who = by_mother ? mother : animal;
    Matrix v(y.size(), y.size());
    for (std::size_t i = 0; i < y.size(); ++i) {
      for (std::size_t j = 0; j < y.size(); ++j)
        v(i, j) = k(static_cast<std::size_t>(who[i]) - 1, static_cast<std::size_t>(who[j]) - 1);
    }
    return v;
  }
};

Matrix identity(std::size_t n)
{
  Matrix out(n, n);
  for (std::size_t k = 0; k < n; ++k) out(k, k) = 1.0;
  return out;
}

struct Fit {
  double logl = 0.0;
  std::vector<double> sigma;
  std::string messages;
};

/// Hands the records and the pedigree in.
void hand_in(Host& host, const Herd& herd, bool with_groups, const std::string& keys)
{
  std::ofstream("ped.csv") << herd.file(with_groups);
  std::filesystem::remove("ainverse.bin");
  std::string named = dataset("d", herd.y.size(), {{"animal", 0}, {"mother", 0}, {"y", 0}});
  for (const char* factor : {"\"animal\"", "\"mother\""})
    named.replace(named.find(factor), 8,
                  std::string(factor) + R"(,"field_type":"vt_integer_factor","is_pedigree_factor":true)");
  std::vector<double> values;
  for (const std::vector<double>* who : {&herd.animal, &herd.mother})
    for (const double each : *who) values.push_back(100.0 + each);
  values.insert(values.end(), herd.y.begin(), herd.y.end());
  host.info("{\"dataset\":" + named + R"(,"pedigree_file":{"name":"ped.csv","type":"ft_csv","sort":1)" + keys + "}}");
  host.matrix("d", values, static_cast<int>(herd.y.size()), 3);
}

/// One fit; the part of the model besides the response is "random" unless the words say otherwise.
Fit fit(const Herd& herd, bool with_groups, const std::string& terms, const std::string& keys,
        const std::string& part = "random")
{
  Host host;
  hand_in(host, herd, with_groups, keys);
  EXPECT_LE(host.process("{\"model\":{\"response\":\"y\",\"" + part + "\":\"" + terms +
                         R"("},"options":{"extra":8,"maxiterations":100}})"),
            0)
      << host.errors();
  return {host.real("SCALAR_LOGLIK"), host.reals("TABLE_VARCOMP:SIGMA"), host.errors()};
}

/// The fit has the likelihood of its variances under V = sum of sigma_t V_t, the residual's last.
DenseVariance has_the_likelihood(const Fit& fit, const Herd& herd, const Matrix& x, std::vector<Matrix> parts)
{
  parts.push_back(identity(herd.y.size()));
  EXPECT_EQ(fit.sigma.size(), parts.size());
  Matrix v(herd.y.size(), herd.y.size());
  for (std::size_t t = 0; t < parts.size() && t < fit.sigma.size(); ++t) {
    for (std::size_t k = 0; k < v.a.size(); ++k) v.a[k] += fit.sigma[t] * parts[t].a[k];
  }
  DenseVariance dense = dense_variance(x, herd.y, v, parts);
  EXPECT_NEAR(fit.logl, dense.logl, 1e-8 * std::abs(dense.logl));
  return dense;
}

/// It has, and no variance moves it up.
void is_the_maximum(const Fit& fit, const Herd& herd, const Matrix& x, std::vector<Matrix> parts)
{
  const DenseVariance dense = has_the_likelihood(fit, herd, x, parts);
  ASSERT_EQ(fit.sigma.size(), parts.size() + 1);
  for (std::size_t t = 0; t < fit.sigma.size(); ++t) {
    EXPECT_NEAR(dense.score[t] * fit.sigma[t], 0.0, 1e-4) << t;
    EXPECT_LT(dense.score[t], 1e-3) << t;  // of one at 0
  }
}

class PedigreeFits : public testing::Test {
 protected:
  void SetUp() override
  {
    std::string pattern = std::filesystem::temp_directory_path() / "tolvan_pedigree_XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    back_ = std::filesystem::current_path();
    std::filesystem::current_path(pattern);
  }
  void TearDown() override
  {
    const auto here = std::filesystem::current_path();
    std::filesystem::current_path(back_);
    std::filesystem::remove_all(here);
  }

 private:
  std::filesystem::path back_;
};

TEST_F(PedigreeFits, TermsThatShareOnePedigree)
{
  const Herd herd(false);
  Matrix mean(herd.y.size(), 1);
  for (double& each : mean.a) each = 1.0;
  const Matrix direct = herd.covariance(herd.a, false);
  const Matrix maternal = herd.covariance(herd.a, true);
  const Matrix own = herd.covariance(identity(Herd::n), false);
  const Matrix dominance = herd.covariance(herd.d, false);
  struct Case {
    std::string random;
    std::vector<Matrix> parts;
  };
  const Case cases[] = {
      {"animal", {direct}},
      {"animal+mother", {direct, maternal}},
      {"vm(animal,ped.csv)+ide(animal,ped.csv)", {direct, own}},
      {"ric(animal,ped.csv)+mother", {direct, own, maternal}},
      {"animal+vm(animal,Dominance)", {direct, dominance}},
      {"vm(animal,Dominance)+ide(animal,ped.csv)", {dominance, own}},
  };
  for (const Case& each : cases) {
    for (const char* reduce : {"", ",\"reduce\":true"}) {
      SCOPED_TRACE(each.random + reduce);
      const Fit answer = fit(herd, false, each.random, std::string(",\"dom\":2") + reduce);
      is_the_maximum(answer, herd, mean, each.parts);
      EXPECT_EQ(*reduce != '\0', answer.messages.find("individuals with data") != std::string::npos);
    }
  }
  // Direct and maternal effects correlated: a pedigree factor leaves its matrix to the structure that it shares.
  Matrix both(herd.y.size(), herd.y.size());
  for (std::size_t i = 0; i < herd.y.size(); ++i) {
    for (std::size_t j = 0; j < herd.y.size(); ++j) {
      const auto at = [&](double a, double b) { return herd.a(static_cast<std::size_t>(a) - 1, static_cast<std::size_t>(b) - 1); };
      both(i, j) = at(herd.animal[i], herd.mother[j]) + at(herd.mother[i], herd.animal[j]);
    }
  }
  const double apart = fit(herd, false, "animal+mother", "").logl;
  for (const std::string random : {"str(animal+mother,us(2):animal)", "str(animal+mother,us(2):vm(animal,ped.csv))"}) {
    SCOPED_TRACE(random);
    const Fit answer = fit(herd, false, random, "");
    EXPECT_GT(answer.logl, apart - 1e-6);  // the maternal variance ends near zero: no maximum inside
    has_the_likelihood(answer, herd, mean, {direct, both, maternal});
  }
  const Fit none = fit(herd, false, "mu", ",\"reduce\":true", "fixed");
  EXPECT_NE(none.messages.find("reducing the inverse relationship matrix would result in zero"), std::string::npos);
}

// Groups without a variance are fixed effects of their shares; with one, 1/b, they are random.
TEST_F(PedigreeFits, GeneticGroups)
{
  const Herd herd(true);
  Matrix mean(herd.y.size(), 1);
  Matrix fixed(herd.y.size(), groups);  // the shares sum to 1: the mean is among them
  for (std::size_t r = 0; r < herd.y.size(); ++r) {
    mean(r, 0) = 1.0;
    for (std::size_t g = 0; g < groups; ++g) fixed(r, g) = herd.q(static_cast<std::size_t>(herd.animal[r]) - 1, g);
  }
  const Matrix direct = herd.covariance(herd.a, false);
  Matrix with_groups = herd.a;
  for (std::size_t i = 0; i < Herd::n; ++i) {
    for (std::size_t j = 0; j < Herd::n; ++j) {
      for (std::size_t g = 0; g < groups; ++g) with_groups(i, j) += herd.q(i, g) * herd.q(j, g);
    }
  }
  for (const std::string reduce : {"", ",\"reduce\":true"}) {
    SCOPED_TRACE(reduce);
    is_the_maximum(fit(herd, true, "animal", ",\"group\":2" + reduce), herd, fixed, {direct});
    is_the_maximum(fit(herd, true, "animal", ",\"group\":2,\"goffset\":-1" + reduce), herd, fixed, {direct});
    is_the_maximum(fit(herd, true, "animal", ",\"group\":2,\"goffset\":1" + reduce), herd, mean,
                   {herd.covariance(with_groups, false)});
  }
  // Solved by iteration the same effects are fixed, and as many.
  for (const std::string key : {",\"group\":2", ",\"group\":2,\"reduce\":true", ",\"group\":2,\"goffset\":1"}) {
    SCOPED_TRACE(key);
    const auto solved = [&](int mode, std::vector<double>& sln, std::vector<double>& yhat) {
      Host host;
      hand_in(host, herd, true, key);
      host.process(R"({"model":{"response":"y","random":"animal"},"options":{"blup":)" + std::to_string(mode) + "}}");
      EXPECT_LE(host.status, 0) << host.errors();
      sln = host.reals("TABLE_SLN:EFFECT");
      yhat = host.reals("TABLE_YHT:YHAT");
      return host.integer("SCALAR_DF");
    };
    std::vector<double> effects, fitted, iterated, iterated_fitted;
    const auto df = solved(2, effects, fitted);
    EXPECT_GT(df, 0);
    for (const int mode : {4, 13}) {
      EXPECT_EQ(solved(mode, iterated, iterated_fitted), df);
      ASSERT_EQ(iterated.size(), effects.size());
      ASSERT_FALSE(fitted.empty());
      for (std::size_t e = 0; e < effects.size(); ++e) EXPECT_NEAR(iterated[e], effects[e], 1e-6) << e;
      for (std::size_t r = 0; r < fitted.size(); ++r) EXPECT_NEAR(iterated_fitted[r], fitted[r], 1e-6);
    }
  }
}

}  // namespace
