// Markers: relationship matrices beside their plain definitions, files of every kind and what they are told of.
#include "relmat/marker_files.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "base/text.h"
#include "relmat/damaged_markers.h"
#include "relmat/marker_columns.h"
#include "relmat/marker_effects.h"
#include "relmat/matrix_keys.h"
#include "base/files.h"
#include "support/checks.h"

namespace tolvan_test {
namespace {

using namespace tolvan;

/// Markers by the book: a row a genotype, NaN missing.
struct Table {
  std::size_t g, r;
  std::vector<double> x;
  double& at(std::size_t i, std::size_t j) { return x[i * r + j]; }
  double at(std::size_t i, std::size_t j) const { return x[i * r + j]; }
};

Table random_counts(std::size_t g, std::size_t r, unsigned seed, double missing = 0.1)
{
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> uniform;
  Table t{g, r, std::vector<double>(g * r)};
  for (std::size_t j = 0; j < r; ++j) {
    const double p = 0.1 + 0.8 * uniform(random);
    for (std::size_t i = 0; i < g; ++i) {
      const double count = (uniform(random) < p ? 1.0 : 0.0) + (uniform(random) < p ? 1.0 : 0.0);
      t.at(i, j) = uniform(random) < missing ? std::nan("") : count;
    }
  }
  if (r > 3) {  // one that does not vary, one without any value
    for (std::size_t i = 0; i < g; ++i) t.at(i, 1) = 1.0, t.at(i, 2) = std::nan("");
    t.at(0, 0) = 2.0;  // at least one of these
  }
  return t;
}

std::string label(std::size_t i) { return text("g", i + 1); }
std::string marker(std::size_t j) { return text("m", j + 1); }

/// The table as text with a header.
std::string as_text(const Table& t)
{
  std::string out = "id";
  for (std::size_t j = 0; j < t.r; ++j) out += text(" ", marker(j));
  for (std::size_t i = 0; i < t.g; ++i) {
    out += text("\n", label(i));
    for (std::size_t j = 0; j < t.r; ++j) out += std::isnan(t.at(i, j)) ? std::string(" NA") : text(" ", t.at(i, j));
  }
  return out + "\n";
}

/// The table as .bed, .bim and .fam; the path of the first.
std::string as_bed(const TempFolder& folder, const std::string& root, const Table& t)
{
  std::string bed("\x6c\x1b\x01", 3), bim, fam;
  for (std::size_t j = 0; j < t.r; ++j) {
    std::string column((t.g + 3) / 4, '\0');
    for (std::size_t i = 0; i < t.g; ++i) {
      const double x = t.at(i, j);
      const unsigned code = std::isnan(x) ? 1U : x == 2.0 ? 0U : x == 1.0 ? 2U : 3U;
      column[i / 4] = static_cast<char>(static_cast<unsigned char>(column[i / 4]) | (code << (2 * (i % 4))));
    }
    bed += column;
    bim += text("1 ", marker(j), " 0 ", j + 1, " A G\n");
  }
  for (std::size_t i = 0; i < t.g; ++i) fam += text("f ", label(i), " 0 0 0 -9\n");
  folder.file(root + ".bim", bim);
  folder.file(root + ".fam", fam);
  return folder.file(root + ".bed", bed);
}

/// The table as unformatted records.
template <class Number>
std::string as_records(const Table& t)
{
  std::string out;
  const auto add = [&out](const auto& x) { out.append(reinterpret_cast<const char*>(&x), sizeof x); };
  for (std::size_t i = 0; i < t.g; ++i) {
    const auto bytes = static_cast<std::int32_t>(t.r * sizeof(Number));
    add(bytes);
    for (std::size_t j = 0; j < t.r; ++j) add(static_cast<Number>(t.at(i, j)));
    add(bytes);
  }
  return out;
}

/// How a matrix is asked for, and the same for the definition.
struct Form {
  const char* keys;
  int method = 1;      // of the definition
  int scale_mode = 0;
  double divisor = 0.0;
  char centring = 'm';  // means, by value, none, or as the method has it
  double value = 0.0, offset = 0.0;
};

/// Z by its definition, with what it is divided by.
std::vector<double> plain_z(const Table& t, const Form& form, bool counts, double& divisor)
{
  std::vector<double> z(t.g * t.r);
  divisor = 0.0;
  for (std::size_t j = 0; j < t.r; ++j) {
    double sum = 0.0, known = 0.0;
    for (std::size_t i = 0; i < t.g; ++i) {
      if (std::isnan(t.at(i, j))) continue;
      sum += t.at(i, j);
      known += 1.0;
    }
    if (known == 0.0) continue;
    const double p = 0.5 * sum / known;
    std::vector<double> w(t.g);
    double w_mean = 0.0;
    for (std::size_t i = 0; i < t.g; ++i) {
      const double x = t.at(i, j);
      w[i] = x;
      if (form.method == 3) w[i] = x == 2.0 ? -2.0 * (1.0 - p) * (1.0 - p) : x == 1.0 ? 2.0 * p * (1.0 - p) : x == 0.0 ? -2.0 * p * p : x;
      if (!std::isnan(x)) w_mean += w[i] / known;
    }
    double variance = 0.0;
    for (double& x : w) {
      if (std::isnan(x)) x = w_mean;
      variance += (x - w_mean) * (x - w_mean) / static_cast<double>(t.g);
    }
    const double expected = counts ? 2.0 * p * (1.0 - p) : variance;
    const double centre = (form.centring == 'm' ? w_mean : form.centring == 'v' ? form.value : 0.0) + form.offset;
    double scale = 1.0;
    if (form.scale_mode == 2) {
      scale = variance > 1e-20 ? 1.0 / std::sqrt(variance) : 0.0;
    } else if (form.method == 2) {
      scale = expected > 1e-20 ? 1.0 / std::sqrt(expected) : 0.0;
    }
    for (std::size_t i = 0; i < t.g; ++i) z[i * t.r + j] = scale * (w[i] - centre);
    if (scale == 0.0) continue;
    divisor += form.scale_mode != 0 || form.method == 2 ? 1.0 : form.method == 3 ? expected * expected : expected;
  }
  if (form.divisor > 0.0) divisor = form.divisor;
  return z;
}

std::vector<double> plain_grm(const Table& t, const Form& form, bool counts, const std::vector<double>& weights = {})
{
  double divisor = 0.0;
  const std::vector<double> z = plain_z(t, form, counts, divisor);
  std::vector<double> g(t.g * t.g);
  for (std::size_t i = 0; i < t.g; ++i) {
    for (std::size_t k = 0; k < t.g; ++k) {
      double sum = 0.0;
      for (std::size_t j = 0; j < t.r; ++j) sum += z[i * t.r + j] * z[k * t.r + j] * (weights.empty() ? 1.0 : weights[j]);
      g[i + k * t.g] = sum / divisor;
    }
  }
  return g;
}

/// The matrix of an entry, and what is told of it.
struct Made {
  ERROR_HANDLER eh;
  GENOMIC_MODEL model;
  MATRIX_INPUT matrix;
  std::string messages;

  bool get(const std::string& path, const std::string& keys = "", const std::string& request = "{}")
  {
    JsonError error;
    const auto root = parse_json(request, error);
    EXPECT_NE(root, nullptr) << request;
    const auto entry = parse_json(text("{\"name\":\"", path, "\"", keys.empty() ? "" : ",", keys, "}"), error);
    EXPECT_NE(entry, nullptr) << keys;
    GET_GENOMIC_MATRIX(eh, *entry, *root, model, matrix);
    EXPECT_TRUE(eh.stack().entries.empty());
    messages = messages_text(eh);
    return !eh.terminate();
  }
};

constexpr Form forms[] = {
    {""},
    {R"("method":2)", 2},
    {R"("method":3)", 3, 0, 0.0, '0'},
    {R"("smode":1)", 1, 1},
    {R"("smode":2)", 1, 2},
    {R"("method":2,"smode":1)", 2, 1},
    {R"("method":3,"smode":2,"centre":true)", 3, 2, 0.0, 'm'},
    {R"("gscale":7.5,"centre":true)", 1, 0, 7.5},
    {R"("centre":1)", 1, 0, 0.0, 'v', 1.0},
    {R"("centre":false)", 1, 0, 0.0, '0'},
    {R"("centre":0.9,"offset":-0.25,"smode":1)", 1, 1, 0.0, 'v', 0.9, -0.25},
    {R"("method":2,"offset":0.5)", 2, 0, 0.0, 'm', 0.0, 0.5},
};

TEST(Markers, MatricesAreTheirDefinitions)
{
  const TempFolder folder;
  // Ends of a byte, of a word of codes, and of a block of columns.
  const std::pair<std::size_t, std::size_t> sizes[] = {{2, 5}, {3, 4}, {5, 2100}, {33, 40}, {64, 30}, {67, 300}};
  for (const auto& [g, r] : sizes) {
    const Table t = random_counts(g, r, static_cast<unsigned>(g));
    const std::string text_file = folder.file("counts.grr", as_text(t));
    const std::string bed_file = as_bed(folder, "counts", t);
    Table reals = t;
    std::mt19937 random(3);
    for (double& x : reals.x) x += std::isnan(x) ? 0.0 : 0.01 * static_cast<double>(random() % 100);
    const std::string real_file = folder.file("reals.grr", as_text(reals));
    for (const Form& form : forms) {
      SCOPED_TRACE(text(g, " x ", r, " ", form.keys));
      for (const std::string& path : {text_file, bed_file}) {
        Made made;
        ASSERT_TRUE(made.get(path, form.keys)) << made.messages;
        EXPECT_TRUE(made.model.data.coded);
        EXPECT_FALSE(made.model.data.in_numbers());
        EXPECT_TRUE(near(made.matrix.values, plain_grm(t, form, true), 1e-10, 1e-12)) << path;
        EXPECT_EQ(made.matrix.labels.back(), label(g - 1));
        EXPECT_EQ(made.model.data.name(static_cast<std::int64_t>(r) - 1), marker(r - 1));
      }
      Made made;
      if (form.method == 3) {
        EXPECT_FALSE(made.get(real_file, form.keys));
        EXPECT_TRUE(has_message(made.eh, "dominance needs markers coded 0, 1 and 2"));
      } else {
        ASSERT_TRUE(made.get(real_file, form.keys)) << made.messages;
        EXPECT_FALSE(made.model.data.coded);
        EXPECT_TRUE(near(made.matrix.values, plain_grm(reals, form, false), 1e-9, 1e-11));
      }
    }
  }
}

// Counts that are estimated, between 0 and 2, are still counts in a file of markers.
TEST(Markers, CountsBetween)
{
  const TempFolder folder;
  Table t = random_counts(9, 14, 5);
  t.at(3, 4) = 0.37;
  t.at(5, 0) = 1.9;
  const std::string path = folder.file("m.mkr", as_text(t));
  Made made;
  ASSERT_TRUE(made.get(path, R"("header":true)")) << made.messages;
  EXPECT_TRUE(made.model.data.coded);
  EXPECT_TRUE(near(made.matrix.values, plain_grm(t, forms[0], true), 1e-10, 1e-12));
}

// Codes -1, 0, 1 are no counts, and neither is -1 missing in them nor 9 among other numbers.
TEST(Markers, WhatIsMissing)
{
  struct Row {
    const char* file;
    const char* values;
    long missing;
    bool coded;
  };
  const Row rows[] = {
      {"a.grr", "0 1 2 -1 9 NA", 3, true},   {"b.grr", "0 1 -1 1 0 1", 0, false}, {"c.grr", "0 1 2 -1 9 3", 0, false},
      {"d.mkr", "0 1 2 -1 9 3", 3, true},    {"e.mkr", "0 1 -1 -1 0 1", 0, false}, {"f.mkr", "0 1.5 2 -1 9 5", 3, true},
      {"g.grr", "0 1.5 2 -1 9 *", 1, false}, {"h.mat", "0 1 1 9 . na", 3, true},
  };
  const TempFolder folder;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.file);
    Made made;
    ASSERT_TRUE(made.get(folder.file(row.file, text("id 1 2 3 4 5 6\na ", row.values, "\nb 1 0 1 1 1 1\nc 0 1 0 0 0 0\n")),
                         R"("header":true)"))
        << made.messages;
    EXPECT_EQ(made.model.data.coded, row.coded);
    EXPECT_EQ(made.model.summary.missing, row.missing);
    const std::string words = text(row.missing, " missing Regressor values (");
    EXPECT_EQ(made.messages.find(words) != std::string::npos, row.missing > 0) << made.messages;
  }
}

// Genotypes and regressors chosen, from every form in which a table can be held.
TEST(Markers, IdsAndRange)
{
  const TempFolder folder;
  const Table t = random_counts(11, 23, 8);
  const std::vector<std::size_t> rows = {7, 0, 10, 3, 4};
  Table chosen{rows.size(), 15, {}};
  for (const std::size_t i : rows) {
    for (std::size_t j = 4; j < 19; ++j) chosen.x.push_back(t.at(i, j));
  }
  Table reals = t, chosen_reals = chosen;
  for (double& x : reals.x) x *= 1.5;
  for (double& x : chosen_reals.x) x *= 1.5;
  const std::string keys = R"("ids":["g8","g1","g11","g4","g5"],"range":[5,19])";
  const std::string counts = folder.file("c.grr", as_text(t));
  for (const std::string& path : {counts, as_bed(folder, "c", t)}) {
    Made made;
    ASSERT_TRUE(made.get(path, keys)) << made.messages;
    EXPECT_TRUE(near(made.matrix.values, plain_grm(chosen, forms[0], true), 1e-10, 1e-12)) << path;
    EXPECT_EQ(made.matrix.labels, (std::vector<std::string>{"g8", "g1", "g11", "g4", "g5"}));
    EXPECT_EQ(made.model.data.name(0), "m5");
    EXPECT_EQ(made.model.data.name(14), "m19");
    std::vector<double> values;
    L_FILL_COVARIATES(made.eh, made.model.data, values);
    ASSERT_EQ(values.size(), chosen.x.size());
    for (std::size_t k = 0; k < values.size(); ++k) {
      EXPECT_TRUE(std::isnan(chosen.x[k]) || values[k] == chosen.x[k]) << path << " " << k;
    }
  }
  Made made;
  ASSERT_TRUE(made.get(folder.file("r.mat", as_text(reals)), keys + R"(,"header":1)")) << made.messages;
  EXPECT_TRUE(near(made.matrix.values, plain_grm(chosen_reals, forms[0], false), 1e-10, 1e-12));
}

// One table, written in all ways.
TEST(Markers, FormsOfText)
{
  const TempFolder folder;
  const Table t = random_counts(6, 8, 21);
  const auto cell = [&](std::size_t i, std::size_t j, const char* none) {
    return std::isnan(t.at(i, j)) ? std::string(none) : text(t.at(i, j));
  };
  std::string turned = "chr,snp,pos", by_cell = "snp value id\n", no_labels, commas = "id,sex,8\n", numbered = "8\n";
  for (std::size_t i = 0; i < t.g; ++i) turned += "," + label(i);
  for (std::size_t j = 0; j < t.r; ++j) {
    turned += text("\n1,", marker(j), ",", j);
    for (std::size_t i = 0; i < t.g; ++i) turned += "," + cell(i, j, "");
  }
  turned += "\n";
  for (std::size_t i = 0; i < t.g; ++i) {
    for (std::size_t j = 0; j < t.r; ++j) {
      if (!std::isnan(t.at(i, j)) || j == 2) by_cell += text(marker(j), "\t", cell(i, j, "."), " ", label(i), "\n");
      no_labels += cell(i, j, "*") + (j + 1 < t.r ? "\t" : "\r\n");
    }
    commas += text("\"", label(i), "\",1");
    for (std::size_t j = 0; j < t.r; ++j) commas += text(" , ", cell(i, j, ""));
    commas += "\n";
    numbered += label(i);
    for (std::size_t j = 0; j < t.r; ++j) numbered += text("  ", cell(i, j, "9"));
    numbered += "\n";
  }
  const std::vector<double> expected = plain_grm(t, forms[0], true);
  const std::pair<std::string, const char*> files[] = {
      {folder.file("turned.mkr", turned), R"("snpname":"snp","cskip":2)"},
      {folder.file("cells.mkr", by_cell), R"("snpname":"snp","gidname":"id")"},
      {folder.file("bare.mat", no_labels), R"("nokey":true,"markers":8)"},
      {folder.file("commas.mkr", commas), R"("cskip":1,"header":true,"gidname":"id")"},
      {folder.file("numbered.grr", numbered), ""},
      {folder.file("m.bgrm", as_records<float>(t)), R"("markers":8)"},
      {folder.file("m.dgrm", as_records<double>(t)), R"("markers":8)"},
  };
  for (const auto& [path, keys] : files) {
    SCOPED_TRACE(path);
    Made made;
    ASSERT_TRUE(made.get(path, keys)) << made.messages;
    EXPECT_TRUE(near(made.matrix.values, expected, 1e-10, 1e-12));
    EXPECT_EQ(made.matrix.labels.empty(), path.ends_with("bare.mat") || path.ends_with("grm"));
    EXPECT_TRUE(made.matrix.labels.empty() || made.matrix.labels[3] == label(3));
  }
}

TEST(Markers, Messages)
{
  struct Row {
    const char* name;
    const char* contents;
    const char* keys;
    const char* told;
  };
  const Row rows[] = {
      {"a.grr", "id x y\na 0 1\nb 2 NA\nc 1 1\n", "",
       "1/- GRR Header line begins: id x y\n1/- the header line indicates there are 2 regressors in the file\n"
       "1/- using the 2 regressors that appear to be in the file\n1/- marker data [0/1/2] for 2 markers read from a.grr\n"
       "1/- 1 missing Regressor values (16.67%) replaced by column average\n1/- Marker Means\n9999/- 1.0000 1.0000\n"
       "1/- regressor values ranged 0.0000 to 2.0000, regressor Means ranged 1.0000 to 1.0000\n"
       "1/- regressors centered at their means\n1/- Sigma (2p(1-p)) is 1.0000\n9999/- Sigma (2p(1-p))^2 is 0.50000\n"
       "1/- GRM matrix scaling factor is 1.0000\n"},
      {"b.mat", "a 0.5 1 7\nb 2.5 3 7\n", R"("markers":2,"centre":3)",
       "1/- using the 2 regressors that appear to be in the file\n3/- 2 records had extra fields\n"
       "1/- data for 2 genotypes and 2 regressors read from b.mat\n1/- Marker Means\n9999/- 1.5000 2.0000\n"
       "1/- regressor values ranged 0.50000 to 3.0000, regressor Means ranged 1.5000 to 2.0000\n"
       "1/- regressors centered at 3.0000\n1/- not centered near the regressor means\n"
       "1/- GRM matrix scaling factor is 2.0000\n"},
      {"c.grr", "1000\na 0 1 2\nb 1 1 0\n", "",
       "1/- GRR Header line begins: 1000\n1/- the header line indicates there are 1000 regressors in the file\n"
       "1/- using the 3 regressors that appear to be in the file\n"},
      {"d.grr", "id x y z\na 0 1 2\nb 1 1 0\n", R"("markers":2)",
       "1/- GRR Header line begins: id x y z\n1/- the header line indicates there are 3 regressors in the file\n"
       "1/- using the first 2 of the regressors that appear to be in the file\n1/- marker data [0/1/2] for 2 markers"},
      {"e.mkr", "a 0 1\n", "", "!4/3 please indicate the expected number of regressors (markers)\n"},
      {"f.grr", "id x y // from the north\na 0 1\n", "",
       "1/- GRR Header line begins: id x y // from the north\n"
       "!4/3 problem parsing \"// from the north\", move this text onto a seperate line\n"},
      {"g.grr", "id \"x y\na 0 1\n", "",
       "1/- GRR Header line begins: id \"x y\n!4/3 failed to parse GRR Label Line: id \"x y\n9999/3 a quote is not closed\n"},
      {"h.grr", "id x y\na 0 1\nb 1\n", "", "!4/2 unable to read from h.grr, attempting to read line 3\n9999/2 2 values were expected, 1 found\n"},
      {"i.grr", "id x y\na 0 1\n\n// that\nb 1 1.2.3\n", "",
       "!4/2 unable to read from i.grr, attempting to read line 5\n9999/2 1.2.3 is no number\n"},
      {"j.mkr", "a 0 nan\n", R"("markers":2)", "!4/2 unable to read from j.mkr, attempting to read line 1\n9999/2 a value is not finite\n"},
      {"k.mkr", "a 0 1\nb 1 1\na 2 0\n", R"("markers":2)", "!4/3 the genotype a stands twice in k.mkr, on lines 1 and 3\n"},
      {"l.mkr", "a 0 2\nb 0 2\n", R"("markers":2)", "!4/3 the GRM matrix scaling factor is 0, no regressor of l.mkr varies\n"},
      {"m.mkr", "a 0 1\nb 1 1\n", R"("markers":2,"ids":["b","z"])", "!4/3 the genotype z of ids is not in m.mkr\n"},
      {"n.mkr", "a 0 1\nb 1 1\n", R"("markers":2,"ids":["b","b"])", "!4/3 the genotype b stands twice in ids\n"},
      {"o.mkr", "a 0 1\nb 1 1\n", R"("markers":2,"range":[2,3])", "!4/3 the range 2 to 3 is beyond the 2 regressors of o.mkr\n"},
      {"p.mkr", "0 1\n1 1\n", R"("markers":2,"nokey":1,"ids":["b"])", "!4/3 the genotypes of p.mkr have no labels, so that ids can not choose among them\n"},
      {"q.mkr", "", R"("markers":2)", "!4/2 unable to read from q.mkr, attempting to read line 1\n9999/2 the file has no data\n"},
      {"r.mkr", "id snp v\na x 1\nb x 0\na x 2\n", R"("snpname":"snp","gidname":"id")",
       "!4/2 unable to read from r.mkr, attempting to read line 4\n9999/2 marker x of genotype a stands twice\n"},
      {"s.mkr", "a 0 1\n", R"("method":4)",
       "!4/3 invalid value supplied for method, was expecting one of: an integer from 1 to 3, supplied value = 4\n"},
      {"t.mkr", "a 0 1\n", R"("range":[2])",
       "!4/3 invalid value supplied for range, was expecting one of: an array of 2 integers, the first and the last regressor, supplied value = [2]\n"},
      {"u.mkr", "a 0 1\n", R"("fbb":1.5)",
       "!4/3 invalid value supplied for fbb, was expecting one of: a logical or degrees of freedom above 2, supplied value = 1.5\n"},
      {"v.mat", "a 1e300 0\nb 1 2\n", R"("markers":2)", "!4/3 the regressors of v.mat are too large, their squares are not finite\n"},
      {"none.mkr", nullptr, "", "!4/2 failed to open GRR file none.mkr\n9999/2 No such file or directory\n"},
      {"none", nullptr, "", "!4/2 failed to open GRR file none\n9999/2 No such file or directory\n"},
      {"none.bed", nullptr, "", "!4/2 failed to open GRR file none.fam\n9999/2 No such file or directory\n"},
  };
  const TempFolder folder;
  const auto back = std::filesystem::current_path();
  std::filesystem::current_path(folder.path("."));
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    if (row.contents != nullptr) folder.file(row.name, row.contents);
    Made made;
    made.get(row.name, row.keys);
    EXPECT_NE(made.messages.find(row.told), std::string::npos) << made.messages;
  }
  std::filesystem::current_path(back);
}

TEST(Markers, FaultsOfBedFiles)
{
  const TempFolder folder;
  const Table t = random_counts(6, 5, 2);
  const std::string path = as_bed(folder, "m", t);
  std::string whole, error;
  ASSERT_TRUE(read_file(path, whole, error));
  const auto told = [&](std::string bytes, std::string_view words) {
    folder.file("m.bed", bytes);
    Made made;
    EXPECT_FALSE(made.get(path));
    EXPECT_TRUE(has_message(made.eh, words));
    EXPECT_TRUE(has_message(made.eh, path));
  };
  for (std::size_t n = 0; n < whole.size(); ++n)
    told(whole.substr(0, n), n < 3 ? "its first bytes are not those of a .bed file" : text("it has ", n, " bytes"));
  told(whole + "x", "6 individuals in .fam and 5 markers in .bim need 13");
  told("\x6c\x1b" + std::string(1, '\0') + whole.substr(3), "they are in the order of the individuals");
  told("x" + whole.substr(1), "its first bytes are not those of a .bed file");
  folder.file("m.bed", whole);
  folder.file("m.fam", "f a\nf b\nf\n");
  Made made;
  EXPECT_FALSE(made.get(path));
  EXPECT_EQ(made.messages, text("!4/2 unable to read from ", folder.path("m.fam"),
                                ", attempting to read line 3\n9999/2 2 fields were expected, 1 found\n"));
}

TEST(Markers, CutAtEveryByte)
{
  const TempFolder folder;
  for (const MARKER_CASE& one : marker_cases()) {
    bool good = false;
    EXPECT_EQ(read_marker_bytes(one, folder.path("."), one.whole, &good), "") << one.name;
    EXPECT_TRUE(good) << one.name;
    for (std::size_t n = 0; n < one.whole.size(); ++n)
      ASSERT_EQ(read_marker_bytes(one, folder.path("."), std::string_view(one.whole).substr(0, n)), "") << one.name << " " << n;
  }
}

TEST(Markers, ChangedAtRandom)
{
  constexpr std::string_view spice = ",\" \n\t/0129.-eNAx*!\r";
  const TempFolder folder;
  std::mt19937 random(20240612);
  for (const MARKER_CASE& one : marker_cases()) {
    int sound = 0;
    for (int round = 0; round < 600; ++round) {
      std::string bytes = one.whole;
      for (auto k = random() % 4 + 1; k > 0 && !bytes.empty(); --k) {
        const std::size_t at = random() % bytes.size();
        switch (random() % 4) {
          case 0: bytes[at] = spice[random() % spice.size()]; break;
          case 1: bytes.erase(at, random() % 4 + 1); break;
          case 2: bytes.insert(at, 1, spice[random() % spice.size()]); break;
          default: bytes[at] = static_cast<char>(random() % 256); break;
        }
      }
      bool good = false;
      ASSERT_EQ(read_marker_bytes(one, folder.path("."), bytes, &good), "") << one.name << " round " << round << "\n" << bytes;
      sound += good ? 1 : 0;
    }
    EXPECT_GT(sound, 5) << one.name;
    EXPECT_LT(sound, 595) << one.name;
  }
}

// Z u gives the effects of the genotypes back; u is D Z' G^-1 g / k.
TEST(Markers, EffectsGiveTheGenotypesBack)
{
  const TempFolder folder;
  const Table t = random_counts(7, 40, 17);
  const std::string path = as_bed(folder, "m", t);
  std::mt19937 random(4);
  std::normal_distribution<double> normal;
  std::string mef;
  std::vector<double> earlier;
  for (std::size_t j = 0; j < t.r; ++j) {
    earlier.push_back(normal(random));
    mef += text(marker(j), " ", earlier.back(), " 1\n");
  }
  for (const bool weighted : {false, true}) {
    for (const char* keys : {R"("rtmethod":1,"centre":1)", R"("fbb":6,"fbboffset":0.25,"method":2,"centre":1)"}) {
      SCOPED_TRACE(keys);
      const bool bayes = std::string_view(keys).find("fbb") != std::string_view::npos;
      if (weighted) folder.file("m.mef", mef);
      Made made;
      ASSERT_TRUE(made.get(path, keys)) << made.messages;
      EXPECT_EQ(made.model.weights.empty(), !(bayes && weighted));
      EXPECT_EQ(made.messages.find("FBA Weights initialized from previous .mef file") != std::string::npos, bayes && weighted);
      std::vector<double> w(t.r, 1.0);
      if (bayes && weighted) {
        double s2 = 0.0, mean = 0.0;
        for (const double u : earlier) s2 += 4.0 / 6.0 * u * u / static_cast<double>(t.r);
        for (std::size_t j = 0; j < t.r; ++j) w[j] = (6.0 * s2 + earlier[j] * earlier[j]) / 7.0 + 0.25;
        for (const double each : w) mean += each / static_cast<double>(t.r);
        for (double& each : w) each /= mean;
        EXPECT_TRUE(near(made.model.weights, w, 1e-12));
      }
      const Form form{"", bayes ? 2 : 1, 0, 0.0, 'v', 1.0};
      const std::vector<double> g = plain_grm(t, form, true, w);
      EXPECT_TRUE(near(made.matrix.values, g, 1e-10, 1e-12));
      // alpha at will, G alpha the effects that belong to it
      std::vector<double> alpha(t.g), effects, back(t.g), expected(t.g);
      for (double& a : alpha) a = normal(random);
      L_MARKER_EFFECTS(made.eh, made.model.keys, made.model.data, made.model.weights, made.model.summary.divisor, alpha, effects);
      double divisor = 0.0;
      const std::vector<double> z = plain_z(t, form, true, divisor);
      for (std::size_t i = 0; i < t.g; ++i) {
        for (std::size_t j = 0; j < t.r; ++j) back[i] += z[i * t.r + j] * effects[j];
        for (std::size_t k = 0; k < t.g; ++k) expected[i] += g[i + k * t.g] * alpha[k];
      }
      EXPECT_TRUE(near(back, expected, 1e-10, 1e-10));
      // They come back from their file.
      L_RESWRITE(made.eh, folder.path("again"), made.model.data, effects, made.model.weights);
      std::vector<double> again;
      L_READ_MEF(made.eh, folder.path("again"), made.model.data, again);
      EXPECT_EQ(again, effects);
    }
  }
  // A file with some of them, and a damaged one.
  for (const char* contents : {"m1 0.5 1\nm3 0.25 1\nother 3 1\n", "m1 0.5 1\nm3 x 1\n", "m1 0.5\n"}) {
    folder.file("m.mef", contents);
    Made made;
    ASSERT_TRUE(made.get(path, R"("fbb":true,"method":3,"hadamard":"y")")) << made.messages;
    EXPECT_TRUE(has_message(made.eh, text("Issue readingFBA Weights from previous .mef file: ", folder.path("m"),
                                          ".mef, weights may have been partially initialized")));
    EXPECT_TRUE(has_message(made.eh, "!DOM and !EPI qualifiers are ignored with \"Fast Bayes\" option"));
    EXPECT_EQ(made.model.weights.back(), 1.0);
  }
}

TEST(Markers, Products)
{
  const TempFolder folder;
  const Table t = random_counts(8, 30, 12);
  const std::string path = as_bed(folder, "m", t);
  const std::string request =
      text(R"({"marker_file":[{"name":"D","file":")", path, R"(","method":3},{"name":"few","file":")", path,
           R"(","ids":["g1","g2"]},{"name":"P","file":")", path, R"(","hadamard":"D"}]})");
  const std::vector<double> additive = plain_grm(t, forms[0], true);
  const std::vector<double> dominance = plain_grm(t, forms[2], true);
  const auto product = [](std::vector<double> a, const std::vector<double>& b) {
    for (std::size_t k = 0; k < a.size(); ++k) a[k] *= b[k];
    return a;
  };
  Made own, other;
  ASSERT_TRUE(own.get(path, text(R"("hadamard":")", path, R"(","mdfoffset":0.5)"), request)) << own.messages;
  std::vector<double> expected = product(additive, additive);
  for (std::size_t i = 0; i < t.g; ++i) expected[i + i * t.g] += 0.5;
  EXPECT_TRUE(near(own.matrix.values, expected, 1e-10, 1e-12));
  ASSERT_TRUE(other.get(path, R"("hadamard":"D")", request)) << other.messages;
  EXPECT_TRUE(near(other.matrix.values, product(additive, dominance), 1e-10, 1e-12));
  const std::pair<const char*, const char*> faults[] = {
      {R"("hadamard":"few")", "they have 8 and 2 rows"},
      {R"("hadamard":"none")", "there is no marker_file entry none"},
      {R"("hadamard":"P")", "is a product itself"},
      {R"("hadamard":"few","ids":["g2","g1"])", "their labels are not the same in the same order"},
      {R"("hadamard":"D","rtmethod":1)", "can not be worked out"},
  };
  for (const auto& [keys, words] : faults) {
    Made made;
    EXPECT_FALSE(made.get(path, keys, request)) << keys;
    EXPECT_TRUE(has_message(made.eh, words));
  }
}

// The inverse of an entry, by either list; what is saved reads back as the same.
TEST(Markers, InvertedAndSaved)
{
  const TempFolder folder;
  const Table t = random_counts(9, 40, 31);
  const std::string path = folder.file("m.mkr", as_text(t));
  const std::string name = path.substr(path.rfind('/') + 1);
  const auto handled = [&](const std::string& request, AINV_MTXS& store) {
    JsonError error;
    const auto root = parse_json(request, error);
    EXPECT_NE(root, nullptr) << request;
    ERROR_HANDLER eh;
    USER_DATASET_STORE datasets;
    GENOMIC_MODELS genomic;
    HANDLE_GIV_GRM_MARKER_FILES(eh, *root, datasets, store, genomic);
    EXPECT_TRUE(eh.stack().entries.empty());
    return messages_text(eh);
  };
  AINV_MTXS by_markers, by_grm, by_saved;
  const std::string keys = text(R"({"name":")", path, R"(","header":1,"mdfoffset":0.05,"save":3})");
  const std::string told = handled("{\"marker_file\":" + keys + "}", by_markers);
  EXPECT_NE(told.find("G written to " + folder.path("m.dgrm")), std::string::npos) << told;
  handled("{\"grm_file\":[" + keys + "]}", by_grm);
  handled(text(R"({"grm_file":[{"name":")", folder.path("m.dgrm"), R"("},{"name":")", folder.path("m.dgiv"), R"("}]})"), by_saved);
  ASSERT_EQ(by_markers.matrices.size(), 1U) << told;
  ASSERT_EQ(by_grm.matrices.size(), 1U);
  ASSERT_EQ(by_saved.matrices.size(), 2U);
  const AINV_MTX& m = by_markers.matrices[0];
  EXPECT_TRUE(m.markers);
  EXPECT_EQ(m.labels.size(), t.g);
  EXPECT_EQ(m.values, by_grm.matrices[0].values);
  EXPECT_TRUE(near(m.values, by_saved.matrices[0].values, 1e-12, 1e-12));
  EXPECT_NEAR(m.log_determinant, by_saved.matrices[1].log_determinant, 1e-9);
  // Centred at its own means it is singular: without psd that is told, with it a row is added.
  AINV_MTXS singular, bound;
  EXPECT_NE(handled(text(R"({"marker_file":{"name":")", path, R"(","header":1,"centre":true,"ids":["g1","g2","g3"]}})"), singular)
                .find("the GRM matrix is not positive definite"),
            std::string::npos);
  handled(text(R"({"marker_file":{"name":")", path, R"(","header":1,"psd":1,"centre":0,"range":[5,8]}})"), bound);
  ASSERT_EQ(bound.matrices.size(), 1U);
  EXPECT_EQ(bound.matrices[0].lagrangian, 5);  // rank 4 of 9
}

}  // namespace
}  // namespace tolvan_test
