// Markers in whole fits: as a relationship matrix, as covariates, and what is told of them afterwards.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "fits/host.h"

namespace {

using tolvan_test::Host;

constexpr int lines = 24, markers = 60;

/// Lines with markers in a file, and records of theirs in another order than that of the file.
class MarkerFit : public testing::Test {
 protected:
  MarkerFit()
  {
    char name[] = "/tmp/tolvan_markers_XXXXXX";
    folder_ = mkdtemp(name);
    std::mt19937 random(11);
    std::normal_distribution<double> normal;
    x.resize(lines * markers);
    std::vector<double> effect(markers);
    for (double& u : effect) u = 0.15 * normal(random);
    for (int j = 0; j < markers; ++j) {
      for (int i = 0; i < lines; ++i) x[at(i, j)] = static_cast<double>(random() % 3);
    }
    x[at(3, 2)] = 0.0, x[at(4, 2)] = 2.0;
    std::string file = "id";
    for (int j = 0; j < markers; ++j) file += " m" + std::to_string(j + 1);
    for (int i = 0; i < lines; ++i) {
      file += "\n" + label(i);
      for (int j = 0; j < markers; ++j) file += " " + std::to_string(static_cast<int>(x[at(i, j)]));
    }
    std::ofstream(path("geno.mkr")) << file << "\n";
    for (int k = 0; k < 3 * (lines - 4); ++k) {  // four lines have no records
      const int i = (7 * k + 5) % (lines - 4);
      double value = 10.0 + normal(random);
      for (int j = 0; j < markers; ++j) value += effect[static_cast<std::size_t>(j)] * (x[at(i, j)] - 1.0);
      line.push_back(i);
      y.push_back(value);
    }
  }
  ~MarkerFit() override { std::filesystem::remove_all(folder_); }
  static std::size_t at(int i, int j) { return static_cast<std::size_t>(i * markers + j); }
  static std::string label(int i) { return "line" + std::to_string(100 - i); }
  std::string path(const std::string& name) const { return folder_ + "/" + name; }

  /// The records as a file of names, as codes of 1 to n, or as codes of labels in the order in which they are met.
  void hand_in(Host& host, char how) const
  {
    const std::string model_of = "{\"name\":\"y\"}]";
    if (how == 't') {
      std::ofstream out(path("y.txt"));
      out.precision(17);
      for (std::size_t k = 0; k < y.size(); ++k) out << label(line[k]) << " " << y[k] << "\n";
      out.close();
      host.info("{\"data_file\":{\"name\":\"" + path("y.txt") +
                "\",\"type\":\"ft_text\"},\"variables\":[{\"name\":\"id\",\"field_type\":\"vt_string_factor\"}," + model_of + "}");
      return;
    }
    std::vector<double> values;
    std::string labels;
    std::vector<int> met;
    for (const int i : line) {
      auto found = std::find(met.begin(), met.end(), i);
      if (found == met.end()) {
        labels += (met.empty() ? "\"" : ",\"") + label(i) + "\"";
        met.push_back(i);
        found = met.end() - 1;
      }
      values.push_back(how == 'n' ? i + 1.0 : static_cast<double>(found - met.begin() + 1));
    }
    values.insert(values.end(), y.begin(), y.end());
    const std::string type = how == 'n' ? "\"vt_integer_factor_1_to_n\",\"number_of_levels\":" + std::to_string(lines)
                                        : "\"vt_string_factor\",\"factor_labels\":[" + labels + "]";
    host.info("{\"dataset\":{\"name\":\"d\",\"number_of_observations\":" + std::to_string(y.size()) +
              ",\"storage_order\":\"so_column_major\",\"variables\":[{\"name\":\"id\",\"field_type\":" + type + "}," + model_of + "}}");
    host.matrix("d", values, static_cast<int>(y.size()), 2);
  }

  double fit(Host& host, char how, const std::string& random, const std::string& more)
  {
    hand_in(host, how);
    EXPECT_LE(host.process("{\"model\":{\"response\":\"y\",\"random\":\"" + random + "\"}," + more +
                           ",\"options\":{\"extra\":8,\"maxiterations\":60}}"),
              0)
        << host.errors();
    return host.real("SCALAR_LOGLIK");
  }

  /// Effects of a term by the names of its levels.
  static std::vector<double> by_line(Host& host, const std::string& table)
  {
    const std::vector<double> effects = host.reals(table + ":EFFECT");
    const std::string levels = host.json(table + ":LVL");
    std::vector<double> out(lines, -1e9);
    std::size_t from = levels.find("\"values\"");
    std::vector<std::string> names;
    for (std::size_t open = levels.find('[', from); open != std::string::npos;) {
      const std::size_t start = levels.find('"', open + 1);
      if (start == std::string::npos) break;
      const std::size_t end = levels.find('"', start + 1);
      names.push_back(levels.substr(start + 1, end - start - 1));
      open = levels[end + 1] == ',' ? end + 1 : std::string::npos;
    }
    EXPECT_EQ(names.size(), effects.size());
    for (std::size_t k = 0; k < names.size(); ++k) {
      for (int i = 0; i < lines; ++i) {
        if (names[k] == label(i)) out[static_cast<std::size_t>(i)] = effects[k];
      }
    }
    return out;
  }

  std::vector<double> x, y;
  std::vector<int> line;

 private:
  std::string folder_;
};

/// G = ZZ' / sum of 2p(1-p), by columns, with more on its diagonal.
std::vector<double> grm(const std::vector<double>& x, double more)
{
  std::vector<double> z = x, g(lines * lines);
  double divisor = 0.0;
  for (std::size_t j = 0; j < markers; ++j) {
    double mean = 0.0;
    for (std::size_t i = 0; i < lines; ++i) mean += x[i * markers + j] / lines;
    for (std::size_t i = 0; i < lines; ++i) z[i * markers + j] -= mean;
    divisor += mean * (1.0 - 0.5 * mean);
  }
  for (std::size_t i = 0; i < lines; ++i) {
    for (std::size_t k = 0; k < lines; ++k) {
      g[i + k * lines] = std::inner_product(&z[i * markers], &z[i * markers] + markers, &z[k * markers], 0.0) / divisor;
      if (i == k) g[i + k * lines] += more;
    }
  }
  return g;
}

TEST_F(MarkerFit, OneModelByAllRoads)
{
  Host handed;
  handed.info("{\"dataset\":{\"name\":\"G\",\"number_of_observations\":" + std::to_string(lines) +
              ",\"number_of_variables\":" + std::to_string(lines) + ",\"storage_order\":\"so_column_major\"}}");
  handed.matrix("G", grm(x, 0.01), lines, lines);
  const double expected = fit(handed, 'n', "vm(id,G,invert=true)", "\"title\":\"\"");
  ASSERT_NE(expected, 0.0);
  const std::string entry = "\"name\":\"G\",\"file\":\"" + path("geno.mkr") + "\",\"header\":true,\"mdfoffset\":0.01";
  std::vector<double> of_lines;
  for (const char how : {'n', 't', 'l'}) {
    Host host;
    EXPECT_NEAR(fit(host, how, "vm(id,G)", "\"marker_file\":{" + entry + ",\"pev\":true,\"rtmethod\":1,\"centre\":true}"), expected,
                1e-8 * std::abs(expected))
        << how;
    const bool named = how != 'n';
    EXPECT_EQ(host.errors().find("class names for factor \\\"id\\\" are initialized from the .grr file") != std::string::npos, named)
        << how;
    const std::vector<double> effects = host.reals("TABLE_GBLUP:EFFECT");
    ASSERT_EQ(effects.size(), static_cast<std::size_t>(lines)) << how;
    if (of_lines.empty()) of_lines = effects;
    for (std::size_t i = 0; i < lines; ++i) EXPECT_NEAR(effects[i], of_lines[i], 1e-6) << how << " " << i;
    if (named) {
      const std::vector<double> by_label = by_line(host, "TABLE_GBLUP");
      for (std::size_t i = 0; i < lines; ++i) EXPECT_EQ(by_label[i], effects[i]);
    }
    const std::vector<double> pev = host.reals("TABLE_GBLUP:PEV");
    const std::vector<double> se = host.reals("TABLE_SLN:SE");
    ASSERT_EQ(se.size(), pev.size() + 1);
    for (std::size_t i = 0; i < pev.size(); ++i) EXPECT_NEAR(pev[i], se[i + 1] * se[i + 1], 1e-12 * pev[i]);
  }
  // The singular matrix, as it is.
  Host singular, by_singular_markers;
  singular.info("{\"dataset\":{\"name\":\"G\",\"number_of_observations\":" + std::to_string(lines) +
                ",\"number_of_variables\":" + std::to_string(lines) + ",\"storage_order\":\"so_column_major\"}}");
  singular.matrix("G", grm(x, 0.0), lines, lines);
  const double of_singular = fit(singular, 'n', "vm(id,G,singG=PSD,invert=true)", "\"title\":\"\"");
  EXPECT_NEAR(fit(by_singular_markers, 't', "vm(id,G,singG=PSD)",
                  "\"marker_file\":[{\"name\":\"G\",\"header\":true,\"file\":\"" + path("geno.mkr") + "\"}]"),
              of_singular, 1e-8 * std::abs(of_singular));
  // What the file of effects holds is in the table.
  std::ifstream mef(path("geno.mef"));
  std::string name;
  double u = 0.0, w = 0.0;
  Host host;
  fit(host, 't', "vm(id,G)", "\"marker_file\":{" + entry + ",\"rtmethod\":1}");
  const std::vector<double> table = host.reals("TABLE_MARKER_EFFECTS:EFFECT");
  ASSERT_EQ(table.size(), static_cast<std::size_t>(markers));
  for (std::size_t j = 0; j < markers; ++j) {
    ASSERT_TRUE(mef >> name >> u >> w);
    EXPECT_EQ(name, "m" + std::to_string(j + 1));
    EXPECT_NEAR(u, table[j], 1e-6);
    EXPECT_EQ(w, 1.0);
  }
}

// A singular matrix: the effects of the markers still give those of the lines back.
TEST_F(MarkerFit, EffectsOfMarkers)
{
  for (const char* keys : {"\"psd\":true,\"rtmethod\":1", "\"fbb\":true,\"psd\":1", "\"fbb\":5,\"psd\":1", "\"centre\":1,\"rtmethod\":1"}) {
    Host host;
    fit(host, 't', "vm(id,G)", std::string("\"marker_file\":{\"name\":\"G\",\"pev\":1,\"file\":\"") + path("geno.mkr") + "\",\"header\":true," + keys + "}");
    const std::vector<double> u = host.reals("TABLE_MARKER_EFFECTS:EFFECT");
    const std::vector<double> effects = host.reals("TABLE_GBLUP:EFFECT");
    ASSERT_EQ(u.size(), static_cast<std::size_t>(markers)) << keys << host.errors();
    double largest = 0.0;
    for (std::size_t i = 0; i < lines; ++i) {
      double sum = 0.0;
      for (std::size_t j = 0; j < markers; ++j) {
        double centre = 1.0;
        if (std::string(keys).find("centre") == std::string::npos) {
          centre = 0.0;
          for (std::size_t k = 0; k < lines; ++k) centre += x[k * markers + j] / lines;
        }
        sum += u[j] * (x[i * markers + j] - centre);
      }
      EXPECT_NEAR(sum, effects[i], 1e-7) << keys << " " << i;
      largest = std::max(largest, std::abs(sum));
    }
    EXPECT_GT(largest, 0.05) << keys;
  }
}

// vm(id,G) + ide(id,G), and markers as covariates: the same as the same handed in.
TEST_F(MarkerFit, CovariatesAndIdentities)
{
  const std::string file = path("geno.mkr");
  Host by_file, by_dataset, with_ide, with_id;
  std::vector<double> table;
  for (int i = 0; i < lines; ++i) table.push_back(i + 1.0);
  for (int j = 0; j < 6; ++j) {
    for (int i = 0; i < lines; ++i) table.push_back(x[at(i, j)]);
  }
  by_dataset.info("{\"dataset\":{\"name\":\"k\",\"number_of_observations\":" + std::to_string(lines) +
                  ",\"number_of_variables\":7,\"storage_order\":\"so_column_major\"}}");
  by_dataset.matrix("k", table, lines, 7);
  const double expected =
      fit(by_dataset, 'n', "idv(snps)", "\"mbf\":{\"name\":\"snps\",\"variable\":\"id\",\"dataset\":\"k\"}");
  const double got = fit(by_file, 't', "idv(snps)",
                         "\"mbf\":{\"name\":\"snps\",\"variable\":\"id\",\"file\":\"" + file + "\"},\"marker_file\":{\"name\":\"" +
                             file + "\",\"header\":true,\"range\":[1,6]}");
  EXPECT_NEAR(got, expected, 1e-8 * std::abs(expected));
  EXPECT_EQ(by_file.errors().find("scaling factor"), std::string::npos) << "no matrix is formed";

  const std::string entry = "\"marker_file\":{\"name\":\"" + file + "\",\"header\":true,\"mdfoffset\":0.01}";
  const double identities = fit(with_ide, 't', "vm(id," + file + ") + ide(id," + file + ")", entry);
  // lines without records have no effect on LogL
  EXPECT_NEAR(identities, fit(with_id, 'l', "vm(id," + file + ") + idv(id)", entry), 1e-6);
}

TEST_F(MarkerFit, Refusals)
{
  struct Row {
    const char* random;
    const char* more;
    const char* told;
  };
  const Row rows[] = {
      {"vm(y,G)", "", "declare factor \\\"y\\\" !A with an appropriate size and Tolvan will impute class names from the .grr file"},
      {"vm(id,G)", ",\"ids\":[\"line100\",\"line99\",\"line98\"]", "not found in the factor levels associated with the supplied matrix"},
      {"vm(id,G)", "", "the GRM matrix is not positive definite"},
  };
  for (const Row& row : rows) {
    Host host;
    hand_in(host, 't');
    const bool singular = std::string(row.told).find("positive") != std::string::npos;
    EXPECT_GT(host.process(std::string("{\"model\":{\"response\":\"y\",\"random\":\"") + row.random +
                           "\"},\"marker_file\":{\"name\":\"G\",\"header\":1,\"file\":\"" + path("geno.mkr") + "\"" +
                           (singular ? "" : ",\"mdfoffset\":0.01") + row.more + "}}"),
              0);
    EXPECT_NE(host.errors().find(row.told), std::string::npos) << row.told << "\n" << host.errors();
  }
}

// A request without a model hands the matrix out.
TEST_F(MarkerFit, MatrixByItself)
{
  Host host;
  EXPECT_LE(host.process("{\"marker_file\":{\"name\":\"" + path("geno.mkr") + "\",\"header\":true,\"mdfoffset\":0.25}}"), 0) << host.errors();
  const std::vector<double> values = host.reals("TABLE_GRM:VALUES");
  const std::vector<double> expected = grm(x, 0.25);
  ASSERT_EQ(values.size(), static_cast<std::size_t>(lines * (lines + 1) / 2));
  std::size_t k = 0;
  for (std::size_t i = 0; i < lines; ++i) {
    for (std::size_t j = 0; j <= i; ++j) EXPECT_NEAR(values[k++], expected[i + j * lines], 1e-12);
  }
  EXPECT_EQ(host.integer("SCALAR_GRM_GENOTYPES"), lines);
  EXPECT_EQ(host.integer("SCALAR_GRM_MARKERS"), markers);
  EXPECT_NE(host.json("TABLE_GRM_UID").find("line77"), std::string::npos);
  Host fault;
  EXPECT_EQ(fault.process("{\"marker_file\":\"x.mkr\"}"), 4);
  EXPECT_EQ(fault.process("{\"marker_file\":{\"name\":\"/no/where.mkr\",\"markers\":2}}"), 4);
}

}  // namespace
