// Relationship matrices of markers beside their plain definitions, products, inverses, effects.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "relmat/marker_columns.h"
#include "relmat/marker_effects.h"
#include "relmat/marker_tables.h"
#include "relmat/matrix_keys.h"

namespace tolvan_test {
namespace {

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
