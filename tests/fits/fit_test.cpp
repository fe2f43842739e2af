// Whole fits: a worked example step by step, two roads of the data, threads, invariances, and how a fit can end.
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

#include "fits/host.h"

namespace {

using tolvan_test::dataset;
using tolvan_test::Host;

struct Data {
  std::vector<std::pair<std::string, int>> variables;
  std::vector<std::vector<double>> columns;
  std::size_t records() const { return columns.front().size(); }
};

void hand_in(Host& host, const Data& data)
{
  host.info("{\"dataset\":" + dataset("d", data.records(), data.variables) + "}");
  std::vector<double> values;
  for (const auto& c : data.columns) values.insert(values.end(), c.begin(), c.end());
  host.matrix("d", values, static_cast<int>(data.records()), static_cast<int>(data.columns.size()));
}

const Data three_groups{{{"group", 3}, {"y", 0}}, {{1, 1, 1, 2, 2, 3, 3}, {10, 12, 9, 15, 14, 20, 18}}};

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

/// Students by teachers by departments, with most courses in the home department.
Data crossed(std::size_t records, int students, int teachers, int departments, unsigned seed)
{
  std::mt19937_64 gen(seed);
  std::normal_distribution<double> normal;
  const auto pick = [&](int n) { return static_cast<int>(gen() % static_cast<unsigned>(n)); };
  std::vector<double> us(static_cast<std::size_t>(students));
  std::vector<double> ut(static_cast<std::size_t>(teachers));
  std::vector<int> home(us.size());
  for (double& u : us) u = 0.33 * normal(gen);
  for (double& u : ut) u = 0.5 * normal(gen);
  for (int& h : home) h = pick(departments);
  Data data{{{"s", students}, {"d", teachers}, {"dept", departments}, {"service", 0}, {"lectage", 6}, {"y", 0}}, {}};
  data.columns.resize(6);
  for (std::size_t r = 0; r < records; ++r) {
    const int s = static_cast<int>(r * us.size() / records);
    int t = pick(teachers);
    if (gen() % 100 < 85) t = t / departments * departments + home[static_cast<std::size_t>(s)];
    if (t >= teachers) t = pick(teachers);
    const int service = pick(2);
    const int age = pick(6);
    const double y = 3.2 - 0.07 * service - 0.03 * age + us[static_cast<std::size_t>(s)] + ut[static_cast<std::size_t>(t)] +
                     1.17 * normal(gen);
    const double row[] = {s + 1.0, t + 1.0, t % departments + 1.0, double(service), age + 1.0, y};
    for (std::size_t k = 0; k < 6; ++k) data.columns[k].push_back(row[k]);
  }
  return data;
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

extern "C" void finish_at_once(std::int32_t* result, const char*, std::int32_t) { *result = -1; }
extern "C" void abort_at_once(std::int32_t* result, const char*, std::int32_t) { *result = 7; }

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

TEST(Fit, EndsAsTheUserWishes)
{
  const Data data = crossed(300, 20, 10, 2, 17);
  const std::string request = R"({"model":{"response":"y","random":"s + d"},"options":{"extra":30,"maxiterations":60}})";
  {
    Host host;
    hand_in(host, data);
    host.monitor(finish_at_once);
    EXPECT_LT(host.process(request), 0) << host.errors();
    EXPECT_LE(host.reals("TABLE_TRACE:LOGL").size(), 4U);
    EXPECT_FALSE(host.reals("TABLE_VARCOMP:SIGMA").empty());
    EXPECT_NE(host.json("SCALAR_FINAL_MESSAGE").find("JOB INTERUPTED by USER"), std::string::npos);
    const std::string errors = host.errors();
    const std::string words = "User sent a finish code, code = -1";
    ASSERT_NE(errors.find(words), std::string::npos);
    EXPECT_EQ(errors.find(words, errors.find(words) + 1), std::string::npos) << "the finish code is held once";
  }
  {
    Host host;
    hand_in(host, data);
    host.monitor(abort_at_once);
    EXPECT_EQ(host.process(request), 5);
    EXPECT_NE(host.errors().find("User sent an abort code, code = 7"), std::string::npos);
    EXPECT_EQ(host.reals("TABLE_TRACE:LOGL").size(), 1U);
    EXPECT_EQ(host.integer("SCALAR_CONVERGENCE_FLG"), 1);
  }
  const auto folder = std::filesystem::temp_directory_path() / ("tolvan_markers_" + std::to_string(std::random_device{}()));
  std::filesystem::create_directory(folder);
  const auto here = std::filesystem::current_path();
  std::filesystem::current_path(folder);
  {
    std::ofstream("FINALTLV.NOW") << "";
    Host host;
    hand_in(host, data);
    EXPECT_LT(host.process(request), 0) << host.errors();
    EXPECT_FALSE(std::filesystem::exists("FINALTLV.NOW"));
    EXPECT_LE(host.reals("TABLE_TRACE:LOGL").size(), 4U);
    EXPECT_FALSE(host.reals("TABLE_SLN:EFFECT").empty());
  }
  {
    std::ofstream("ABORTTLV.NOW") << "";
    Host host;
    hand_in(host, data);
    EXPECT_GT(host.process(request), 0);
    EXPECT_FALSE(std::filesystem::exists("ABORTTLV.NOW"));
  }
  std::filesystem::current_path(here);
  std::filesystem::remove_all(folder);
}

TEST(Fit, HardModelsEndWithTheirWords)
{
  struct Case {
    const char* what;
    std::string request;
    std::vector<double> y;
    bool fails;
    const char* words;
  };
  const std::string model = R"({"model":{"response":"y","random":"group"})";
  const std::vector<double> y = three_groups.columns[1];
  const Case cases[] = {
      {"no iteration", model + R"(,"options":{"maxiterations":0}})", y, true,
       "model not processed because maximum number of iterations was set to 0"},
      {"one iteration", model + R"(,"options":{"maxiterations":1}})", y, false, " Warning: LogL not converged"},
      {"a constant response", model + "}", std::vector<double>(7, 4.0), true, "No or Negative residual variation"},
      {"a saturated model", R"({"model":{"response":"y","fixed":"units"}})", y, true, ""},
      {"a term that is the residual again", R"({"model":{"response":"y","random":"group + units"}})", y, true,
       "singularities appeared in Average Information matrix"},
      {"a singularity that is let go, to the limit",
       R"({"model":{"response":"y","random":"group + units"},"options":{"aisingularities":1,"maxiterations":3}})", y, false,
       "Warning: iteration aborted because of singularities in AI matrix"},
      {"a zero start", model + R"(,"initial_values":[{"term":"group","value":0.0,"constraint":"P"}]})", y, false,
       "group dropped from model at iteration 1 because variance is negligible"},
      {"all responses missing", model + "}", std::vector<double>(7, -1e-37), true, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Data data = three_groups;
    data.columns[1] = c.y;
    Host host;
    hand_in(host, data);
    const int status = host.process(c.request);
    const std::string words = host.errors() + host.json("OPTIONAL:SCALAR_FINAL_MESSAGE");
    EXPECT_EQ(status > 0, c.fails) << status << " " << words;
    EXPECT_NE(words.find(c.words), std::string::npos) << words;
  }
}

// The likelihood does not depend on terms that no record has a design for; their variance stays where it starts.
TEST(Fit, TermsWithoutADesignChangeNothing)
{
  const auto run = [](Host& host, const std::string& random) {
    hand_in(host, {{{"group", 3}, {"f", 3}, {"y", 0}},
                   {{1, 1, 1, 2, 2, 3, 3}, {1, 2, 1, 2, 1, 2, 1}, {10, 12, 9, 15, 14, 20, 18}}});
    return host.process(R"({"model":{"response":"y","random":")" + random + R"("},"options":{"extra":5,"maxiterations":50}})");
  };
  Host alone;
  ASSERT_LE(run(alone, "group"), 0) << alone.errors();
  for (const char* term : {"zero(4)", "f:zero(2)", "idv(zero(3))", "at(f,3):f", "diag(f):zero(2)"}) {
    Host host;
    ASSERT_LE(run(host, std::string("group+") + term), 0) << term << host.errors();
    EXPECT_NEAR(host.real("SCALAR_LOGLIK"), alone.real("SCALAR_LOGLIK"), 1e-10) << term;
    const std::vector<double> sigma = host.reals("TABLE_VARCOMP:SIGMA");
    EXPECT_NEAR(sigma.front(), alone.reals("TABLE_VARCOMP:SIGMA").front(), 1e-8) << term;
    EXPECT_NEAR(sigma.back(), alone.reals("TABLE_VARCOMP:SIGMA").back(), 1e-8) << term;
  }
}

TEST(Fit, ReportsRelativeToABaseWhenLogLIsLarge)
{
  Data data = crossed(20000, 200, 50, 5, 23);
  for (double& y : data.columns[5]) y *= 2000.0;
  Host host;
  hand_in(host, data);
  ASSERT_LE(host.process(R"({"model":{"response":"y","random":"s"}})"), 0) << host.errors();
  EXPECT_NE(host.errors().find("LogL values are reported relative to a base of"), std::string::npos) << host.errors();
  const double logl = host.real("SCALAR_LOGLIK");
  EXPECT_LT(std::fabs(logl), 120000.0);
  EXPECT_NEAR(host.reals("TABLE_TRACE:LOGL").back(), logl, 1e-6);
  const double full = 0.5 * (2.0 * host.integer("SCALAR_AIC_NPARAM") - host.real("SCALAR_AIC"));
  EXPECT_NEAR(std::fmod(full - logl, 100000.0), 0.0, 1e-6);

  // Starting variances far too small: the base changes on the way, and the whole trace is told on the last one.
  Host far;
  hand_in(far, data);
  ASSERT_LE(far.process(R"({"model":{"response":"y","random":"s"},"options":{"varscale":1,"maxiterations":60},
    "initial_values":[{"term":"units","value":100.0}]})"), 0) << far.errors();
  const std::vector<double> trace = far.reals("TABLE_TRACE:LOGL");
  ASSERT_GT(trace.size(), 5U);
  EXPECT_GT(trace.back() - trace.front(), 1e6);
  for (std::size_t k = 1; k < trace.size(); ++k) EXPECT_GT(trace[k], trace[k - 1] - 0.01) << k;
  EXPECT_NEAR(trace.back(), far.real("SCALAR_LOGLIK"), 1e-6);
}

// Equations of a term that was taken out are no singularities of the design.
TEST(Fit, DroppedTermsAreNoSingularities)
{
  for (const auto& [fixed, count] : {std::pair{"mu", 0}, std::pair{"mu + group", 1}}) {
    Host host;
    hand_in(host, {{{"group", 3}, {"f", 3}, {"y", 0}}, {{1, 1, 1, 2, 2, 3, 3}, {1, 2, 1, 2, 1, 2, 3}, {10, 12, 9, 15, 14, 20, 18}}});
    host.process(std::string(R"({"model":{"response":"y","fixed":")") + fixed +
                 R"(","random":"f"},"initial_values":[{"term":"f","value":0.0}]})");
    const std::string told = host.errors();
    EXPECT_NE(told.find("f dropped from model at iteration 1"), std::string::npos) << told;
    EXPECT_EQ(told.find("singularties detected") != std::string::npos, count > 0) << told;
    if (count > 0) {
      EXPECT_NE(told.find("1 singularties detected (tolerance: 0.10E-07)"), std::string::npos) << told;
    }
  }
}

}  // namespace
