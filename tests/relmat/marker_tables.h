// Marker tables by the book, the files that hold them, and the matrices by their definitions.
#pragma once

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "base/text.h"
#include "relmat/genomic_matrix.h"
#include "support/checks.h"

namespace tolvan_test {

using namespace tolvan;

/// Markers by the book: a row a genotype, NaN missing.
struct Table {
  std::size_t g, r;
  std::vector<double> x;
  double& at(std::size_t i, std::size_t j) { return x[i * r + j]; }
  double at(std::size_t i, std::size_t j) const { return x[i * r + j]; }
};

inline Table random_counts(std::size_t g, std::size_t r, unsigned seed, double missing = 0.1)
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

inline std::string label(std::size_t i) { return text("g", i + 1); }
inline std::string marker(std::size_t j) { return text("m", j + 1); }

/// The table as text with a header.
inline std::string as_text(const Table& t)
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
inline std::string as_bed(const TempFolder& folder, const std::string& root, const Table& t)
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
inline std::vector<double> plain_z(const Table& t, const Form& form, bool counts, double& divisor)
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

inline std::vector<double> plain_grm(const Table& t, const Form& form, bool counts, const std::vector<double>& weights = {})
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

}  // namespace tolvan_test
