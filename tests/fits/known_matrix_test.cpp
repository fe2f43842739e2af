// Known matrices in whole fits: one model by every road that a relationship matrix can take into it.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "fits/host.h"

namespace {

using tolvan_test::dataset;
using tolvan_test::Host;

using Matrix = std::vector<double>;  // n x n, by columns

/// Records of n lines, the first `observed` of which have data.
struct Trial {
  int lines;
  std::vector<double> line, y;

  Trial(int n, int observed, unsigned seed) : lines(n)
  {
    std::mt19937 random(seed);
    std::normal_distribution<double> normal;
    std::vector<double> effect(static_cast<std::size_t>(observed));
    for (double& each : effect) each = normal(random);
    for (int k = 0; k < 3 * observed; ++k) {
      line.push_back(k % observed + 1);
      y.push_back(20.0 + effect[static_cast<std::size_t>(k % observed)] + normal(random));
    }
  }
  void hand_in(Host& host) const
  {
    std::vector<double> values = line;
    values.insert(values.end(), y.begin(), y.end());
    host.info("{\"dataset\":" + dataset("d", y.size(), {{"line", lines}, {"y", 0}}) + "}");
    host.matrix("d", values, static_cast<int>(y.size()), 2);
  }
};

struct Answer {
  double logl, line, sigma2;
};

Answer fit(const Trial& trial, const std::string& random, const std::string& more,
           const std::vector<double>& matrix = {}, int columns = 0)
{
  Host host;
  trial.hand_in(host);
  if (columns > 0) {
    const auto rows = matrix.size() / static_cast<std::size_t>(columns);
    host.info("{\"dataset\":{\"name\":\"k\",\"number_of_observations\":" + std::to_string(rows) +
              ",\"number_of_variables\":" + std::to_string(columns) +
              ",\"storage_order\":\"so_column_major\"}}");
    host.matrix("k", matrix, static_cast<int>(rows), columns);
  }
  EXPECT_LE(host.process("{\"model\":{\"response\":\"y\",\"random\":\"" + random +
                         "\"},\"options\":{\"extra\":6,\"maxiterations\":60}" + more + "}"),
            0)
      << host.errors();
  const std::vector<double> sigma = host.reals("TABLE_VARCOMP:SIGMA");
  EXPECT_EQ(sigma.size(), 2U);
  return sigma.size() == 2 ? Answer{host.real("SCALAR_LOGLIK"), sigma[0], sigma[1]} : Answer{};
}

void same(const Answer& a, const Answer& b, double tolerance)
{
  EXPECT_NEAR(a.logl, b.logl, tolerance * std::abs(b.logl));
  EXPECT_NEAR(a.line, b.line, 1e3 * tolerance * b.line);
  EXPECT_NEAR(a.sigma2, b.sigma2, 1e3 * tolerance * b.sigma2);
}

/// By Gauss and Jordan, for a positive definite matrix.
Matrix inverse_of(Matrix a, int n)
{
  Matrix b(a.size(), 0.0);
  const auto at = [n](int i, int j) { return static_cast<std::size_t>(i + j * n); };
  for (int k = 0; k < n; ++k) b[at(k, k)] = 1.0;
  for (int k = 0; k < n; ++k) {
    const double pivot = a[at(k, k)];
    for (int j = 0; j < n; ++j) {
      a[at(k, j)] /= pivot;
      b[at(k, j)] /= pivot;
    }
    for (int i = 0; i < n; ++i) {
      const double factor = a[at(i, k)];
      if (i == k || factor == 0.0) continue;
      for (int j = 0; j < n; ++j) {
        a[at(i, j)] -= factor * a[at(k, j)];
        b[at(i, j)] -= factor * b[at(k, j)];
      }
    }
  }
  return b;
}

/// The inverse of a random pedigree's relationship matrix, as three columns, from the object that makes it;
/// the file of the pedigree.
std::vector<double> pedigree_inverse(int n, std::string& file)
{
  std::mt19937 random(99);
  std::string id, male, female;
  for (int i = 1; i <= n; ++i) {
    const int s = i > 6 ? static_cast<int>(random() % static_cast<unsigned>((i - 1) / 2)) * 2 + 1 : 0;
    const int d = i > 6 ? static_cast<int>(random() % static_cast<unsigned>((i - 1) / 2)) * 2 + 2 : 0;
    id += (i > 1 ? "," : "") + std::to_string(i);
    male += (i > 1 ? "," : "") + std::to_string(s);
    female += (i > 1 ? "," : "") + std::to_string(d);
    file += std::to_string(i) + "," + std::to_string(s) + "," + std::to_string(d) + "\n";
  }
  Host host("AINV");
  host.info("{\"id\":[" + id + "],\"male\":[" + male + "],\"female\":[" + female + "]}");
  EXPECT_EQ(host.process(), 0) << host.errors();
  const std::vector<double> value = host.reals("TABLE_AINV_A:VALUES");
  std::vector<double> out;
  for (const char* column : {"TABLE_AINV_A:ROWID", "TABLE_AINV_A:COLID"}) {
    std::int32_t count = static_cast<std::int32_t>(value.size());
    std::vector<std::int32_t> integers(value.size());
    ctlv_output_integer(&host.status, &host.handle, column, 18, integers.data(), &count);
    out.insert(out.end(), integers.begin(), integers.end());
  }
  out.insert(out.end(), value.begin(), value.end());
  return out;
}

// A level without a row of the matrix is a fixed effect, which is told where it has data.
TEST(KnownMatrix, DataInEmptyRows)
{
  constexpr int n = 8;
  Matrix inverse(n * n, 0.0);
  for (int k = 0; k < n - 2; ++k) inverse[static_cast<std::size_t>(k * (n + 1))] = 1.0;
  const std::string words = "Unexpected data when GRM diagonal element is ZERO";
  for (const int observed : {6, 7, 8}) {
    const Trial trial(n, observed, 4);
    const auto run = [&](const std::string& fixed, const std::string& random, bool matrix, std::string& errors) {
      Host host;
      std::vector<double> values = trial.line;
      for (int level = 7; level <= 8; ++level) {
        for (const double line : trial.line) values.push_back(line == level ? 1.0 : 0.0);
      }
      values.insert(values.end(), trial.y.begin(), trial.y.end());
      host.info("{\"dataset\":" + dataset("d", trial.y.size(), {{"line", n}, {"seven", 0}, {"eight", 0}, {"y", 0}}) + "}");
      host.matrix("d", values, static_cast<int>(trial.y.size()), 4);
      if (matrix) {
        host.info(R"({"dataset":{"name":"k","number_of_observations":8,"number_of_variables":8,"storage_order":"so_column_major"}})");
        host.matrix("k", inverse, n, n);
      }
      host.process("{\"model\":{\"response\":\"y\",\"fixed\":\"" + fixed + "\",\"random\":\"" + random +
                   "\"},\"initial_values\":[{\"term\":\"" + random + "\",\"value\":0.5}],\"options\":{\"maxiterations\":1}}");
      errors = host.errors();
      return Answer{host.real("SCALAR_LOGLIK"), static_cast<double>(host.integer("SCALAR_DF")), 0.0};
    };
    std::string errors, unread;
    const Answer known = run("mu", "vm(line,k)", true, errors);
    EXPECT_EQ(errors.find(words) != std::string::npos, observed > n - 2) << observed << errors;
    const std::string levels = std::to_string(observed - 6) + " level(s) of vm(line,k";
    EXPECT_EQ(errors.find(levels) != std::string::npos, observed > n - 2) << errors;
    if (observed == 7) {  // the others are independent, so that one covariate for the level says the same
      const Answer covariate = run("mu+seven", "vm(line,k)", true, unread);
      EXPECT_NEAR(covariate.logl, known.logl, 1e-9);
      EXPECT_EQ(covariate.line, known.line);
    }
  }
}

TEST(KnownMatrix, EveryRoadGivesOneAnswer)
{
  constexpr int n = 60;
  const Trial trial(n, n, 3);
  std::string file;
  const std::vector<double> triples = pedigree_inverse(n, file);
  const std::size_t elements = triples.size() / 3;
  Matrix inverse(n * n, 0.0);
  for (std::size_t k = 0; k < elements; ++k) {
    const auto i = static_cast<std::size_t>(triples[k]) - 1;
    const auto j = static_cast<std::size_t>(triples[elements + k]) - 1;
    inverse[i + j * n] = inverse[j + i * n] = triples[2 * elements + k];
  }
  const Matrix a = inverse_of(inverse, n);
  const Answer by_triples = fit(trial, "vm(line,k)", "", triples, 3);
  EXPECT_GT(by_triples.line, 0.05);
  same(fit(trial, "vm(line,k)", "", inverse, n), by_triples, 1e-9);
  same(fit(trial, "vm(line,k,invert=true)", "", a, n), by_triples, 1e-8);
  same(fit(trial, "vm(line,k,singG=PSD,invert=true)", "", a, n), by_triples, 1e-8);

  // From files in the working folder, text and unformatted, the latter written on the way.
  std::string pattern = std::filesystem::temp_directory_path() / "tolvan_matrix_XXXXXX";
  ASSERT_NE(mkdtemp(pattern.data()), nullptr);
  const auto back = std::filesystem::current_path();
  std::filesystem::current_path(pattern);
  {
    std::ofstream giv("sparse.giv");
    std::ofstream grm("dense.grm");
    giv.precision(17);
    grm.precision(17);
    giv << "1 1 " << inverse[0] << "\n";
    for (std::size_t i = 0; i < n; ++i) {
      for (std::size_t j = 0; j <= i; ++j) {
        if (i > 0 && inverse[i + j * n] != 0.0)
          giv << i + 1 << ' ' << j + 1 << ' ' << inverse[i + j * n] << '\n';
        grm << a[i + j * n] << (j == i ? '\n' : ' ');
      }
    }
  }
  same(fit(trial, "vm(line,sparse.giv)", ",\"grm_file\":{\"name\":\"sparse.giv\",\"type\":\"ft_text\"}"),
       by_triples, 1e-9);
  same(fit(trial, "vm(line,dense.grm)",
           ",\"grm_file\":{\"name\":\"dense.grm\",\"type\":\"ft_text\",\"savegiv\":1}"),
       by_triples, 1e-8);
  same(fit(trial, "vm(line,dense.dgiv)", ",\"grm_file\":[{\"name\":\"dense.dgiv\",\"type\":\"ft_text\"}]"),
       by_triples, 1e-8);
  // The pedigree itself, in any order, under its name.
  std::ofstream("ped.csv") << file;
  std::ofstream("turned.csv") << file.substr(file.find("\n40,") + 1)
                              << file.substr(0, file.find("\n40,") + 1);
  same(fit(trial, "vm(line,ped.csv)", ",\"pedigree_file\":{\"name\":\"ped.csv\",\"type\":\"ft_csv\"}"),
       by_triples, 1e-9);
  std::string named = dataset("d", trial.y.size(), {{"line", 0}, {"y", 0}});
  named.replace(named.find("\"line\""), 6,
                R"("line","field_type":"vt_integer_factor","is_pedigree_factor":true)");
  Host host;
  std::vector<double> values = trial.line;
  values.insert(values.end(), trial.y.begin(), trial.y.end());
  host.info("{\"dataset\":" + named + R"(,"pedigree_file":{"name":"turned.csv","type":"ft_csv","sort":1}})");
  host.matrix("d", values, static_cast<int>(trial.y.size()), 2);
  EXPECT_LE(
      host.process(R"({"model":{"response":"y","random":"line"},"options":{"extra":6,"maxiterations":60}})"),
      0)
      << host.errors();
  same({host.real("SCALAR_LOGLIK"), host.reals("TABLE_VARCOMP:SIGMA")[0],
        host.reals("TABLE_VARCOMP:SIGMA")[1]},
       by_triples, 1e-9);
  std::filesystem::current_path(back);
  std::filesystem::remove_all(pattern);
}

// A singular matrix of lines, most of them without data: the likelihood is that of the observed lines alone.
TEST(KnownMatrix, SingularMatrixWithUnobservedLines)
{
  constexpr int n = 30;
  constexpr int rank = 12;
  std::mt19937 random(4);
  std::normal_distribution<double> normal;
  std::vector<double> x(n * rank);
  for (double& each : x) each = normal(random);
  const auto relationship = [&](int lines) {
    Matrix k(static_cast<std::size_t>(lines * lines), 0.0);
    for (int i = 0; i < lines; ++i) {
      for (int j = 0; j < lines; ++j) {
        for (int r = 0; r < rank; ++r)
          k[static_cast<std::size_t>(i + j * lines)] +=
              x[static_cast<std::size_t>(i * rank + r)] * x[static_cast<std::size_t>(j * rank + r)] / rank;
      }
    }
    return k;
  };
  for (const int observed : {8, 20}) {  // fewer and more than the rank
    SCOPED_TRACE(observed);
    const Answer alone = fit(Trial(observed, observed, 5), "vm(line,k,singG=PSD,invert=true)", "",
                             relationship(observed), observed);
    const Answer among =
        fit(Trial(n, observed, 5), "vm(line,k,singG=PSD,invert=true)", "", relationship(n), n);
    same(among, alone, 1e-7);
  }
}

TEST(KnownMatrix, LevelsMustFitTheMatrix)
{
  const Trial trial(5, 5, 6);
  const Matrix small{2.0, 0.0, 0.0, 2.0};
  Host host;
  trial.hand_in(host);
  host.info(R"({"dataset":{"name":"k","number_of_observations":2,"number_of_variables":2}})");
  host.matrix("k", small, 2, 2);
  EXPECT_EQ(host.process(R"x({"model":{"response":"y","random":"vm(line,k)"}})x"), 4);
  EXPECT_NE(host.errors().find("GRM structure is smaller than model factor for term vm(line,k)"),
            std::string::npos)
      << host.errors();
  Matrix large(49, 0.0);
  for (std::size_t k = 0; k < 7; ++k) large[8 * k] = 1.0;
  const Answer larger = fit(trial, "vm(line,k)", "", large, 7);
  same(larger, fit(trial, "idv(line)", ""), 1e-8);
}

}  // namespace
