#include "bench_patterns.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <vector>

namespace tolvan::bench {

namespace {

using std::int64_t;

/// Integer columns of a CSV file by name; what is no integer is cut.
struct CSV {
  std::map<std::string, std::vector<int64_t>> columns;
  int64_t rows = 0;
  const std::vector<int64_t>& operator[](const char* name) { return columns[name]; }
  int64_t levels(const char* name) { return *std::max_element(columns[name].begin(), columns[name].end()); }
};

bool read_csv(const std::string& path, CSV& csv)
{
  std::ifstream file(path);
  std::string line, field;
  if (!std::getline(file, line)) return false;
  std::vector<std::vector<int64_t>*> order;
  for (std::istringstream names(line); std::getline(names, field, ',');) order.push_back(&csv.columns[field]);
  while (std::getline(file, line)) {
    std::istringstream fields(line);
    for (auto* column : order) {
      std::getline(fields, field, ',');
      column->push_back(std::atoll(field.c_str()));
    }
    ++csv.rows;
  }
  return true;
}

/// Collects pairs of equations; keeps each once.
class Pairs {
 public:
  void join(int64_t a, int64_t b)
  {
    if (a == b) return;
    pairs_.push_back(static_cast<std::uint64_t>(std::min(a, b)) << 32 |
                     static_cast<std::uint64_t>(std::max(a, b)));
    if (pairs_.size() >= limit_) tidy();
  }
  void join_all(const std::vector<int64_t>& a, const std::vector<int64_t>& b)
  {
    for (const int64_t i : a) {
      for (const int64_t j : b) join(i, j);
    }
  }
  void form(int64_t n, int64_t dense, PATTERN& pattern)
  {
    tidy();
    pattern.n = n;
    pattern.dense = dense;
    pattern.start.assign(static_cast<std::size_t>(n) + 1, 0);
    pattern.row.clear();
    std::size_t k = 0;
    for (int64_t j = 0; j < n; ++j) {
      for (; k < pairs_.size() && static_cast<int64_t>(pairs_[k] >> 32) == j; ++k) {
        pattern.row.push_back(static_cast<std::int32_t>(pairs_[k] & 0xffffffff));
      }
      pattern.start[j + 1] = static_cast<int64_t>(pattern.row.size());
    }
  }

 private:
  void tidy()
  {
    std::sort(pairs_.begin(), pairs_.end());
    pairs_.erase(std::unique(pairs_.begin(), pairs_.end()), pairs_.end());
    limit_ = std::max<std::size_t>(2 * pairs_.size(), 1 << 22);
  }
  std::vector<std::uint64_t> pairs_;
  std::size_t limit_ = 1 << 22;
};

/// The equations of each record: factors one after the other, then the dense ones.
struct Design {
  int64_t equations = 0;
  std::vector<std::vector<int64_t>> records;
  void factor(const std::vector<int64_t>& level, int64_t levels)
  {
    records.resize(level.size());
    for (std::size_t r = 0; r < level.size(); ++r) records[r].push_back(equations + level[r] - 1);
    equations += levels;
  }
};

void join_field(CSV& csv, const Design& design, Pairs& pairs)  // neighbours of an autoregressive field, 3 x 3
{
  const int64_t columns = csv.levels("col"), plots = csv.levels("row") * columns;
  for (int64_t r = 0; r < csv.rows; ++r) {
    const int64_t trial = r / plots, row = r % plots / columns, column = r % columns;
    for (int64_t i = row; i <= row + 1 && i * columns < plots; ++i) {
      for (int64_t j = std::max<int64_t>(column - 1, 0); j <= std::min(column + 1, columns - 1); ++j) {
        pairs.join_all(design.records[r], design.records[trial * plots + i * columns + j]);
      }
    }
  }
}

}  // namespace

bool read_pattern(const std::string& workload, const std::string& folder, PATTERN& pattern)
{
  CSV csv;
  if (!read_csv(folder + "/data.csv", csv)) return false;
  Design design;
  Pairs pairs;
  const std::vector<int64_t> ones(static_cast<std::size_t>(csv.rows), 1);
  bool field = false;
  if (workload == "crossed") {
    for (const char* name : {"s", "d", "dept"}) design.factor(csv[name], csv.levels(name));
  } else if (workload == "glmm") {
    for (const char* name : {"herd", "inspector"}) design.factor(csv[name], csv.levels(name));
  } else if (workload == "animal") {
    CSV pedigree;
    if (!read_csv(folder + "/pedigree.csv", pedigree)) return false;
    for (const char* name : {"animal", "cg"}) design.factor(csv[name], csv.levels(name));
    for (int64_t a = 0; a < pedigree.rows; ++a) {
      const int64_t sire = pedigree["sire"][a] - 1, dam = pedigree["dam"][a] - 1;
      if (sire >= 0) pairs.join(a, sire);
      if (dam >= 0) pairs.join(a, dam);
      if (sire >= 0 && dam >= 0) pairs.join(sire, dam);
    }
  } else if (workload == "ar1" || workload == "ar1-nugget") {
    field = true;
    const int64_t varieties = csv.levels("variety"), trials = csv.levels("trial");
    design.factor(csv["variety"], varieties);
    std::vector<int64_t> level(ones), plot(ones);
    for (int64_t r = 0; r < csv.rows; ++r) {
      level[r] = (csv["trial"][r] - 1) * varieties + csv["variety"][r];
      plot[r] = r + 1;
    }
    if (trials > 1) design.factor(level, trials * varieties);
    if (workload == "ar1-nugget") design.factor(plot, csv.rows);
  } else if (workload == "met") {
    // Environment effects of each variety with two factor scores.
    const int64_t environments = csv.levels("env"), varieties = csv.levels("variety"),
                  size = environments + 2;
    std::vector<int64_t> level(ones);
    for (int64_t r = 0; r < csv.rows; ++r) level[r] = (csv["variety"][r] - 1) * size + csv["env"][r];
    design.factor(level, varieties * size);
    for (int64_t v = 0; v < varieties; ++v) {
      for (int64_t e = 0; e <= environments; ++e) {
        for (int64_t f = environments; f < size; ++f) pairs.join(v * size + e, v * size + f);
      }
    }
  } else if (workload == "grm") {
    const int64_t genotypes = csv.levels("geno");
    design.factor(csv["geno"], genotypes);
    for (int64_t a = 0; a < genotypes; ++a) {
      for (int64_t b = 0; b < a; ++b) pairs.join(a, b);
    }
  } else {
    return false;
  }

  const int64_t sparse = design.equations;
  design.factor(ones, 1);
  if (workload == "crossed") {
    design.factor(ones, 1);
    design.factor(csv["lectage"], csv.levels("lectage"));
  } else if (workload == "glmm") {
    design.factor(ones, 1);
  } else if (workload == "animal") {
    for (const char* name : {"sex", "gen"}) design.factor(csv[name], csv.levels(name));
  } else if (workload == "met") {
    std::vector<int64_t> level(ones);
    for (int64_t r = 0; r < csv.rows; ++r)
      level[r] = (csv["env"][r] - 1) * csv.levels("block") + csv["block"][r];
    design.factor(csv["env"], csv.levels("env"));
    design.factor(level, csv.levels("env") * csv.levels("block"));
  } else if (workload == "grm") {
    design.factor(csv["rep"], csv.levels("rep"));
  } else if (csv.levels("trial") > 1) {
    design.factor(csv["trial"], csv.levels("trial"));
  }
  for (const auto& record : design.records) pairs.join_all(record, record);
  if (field) join_field(csv, design, pairs);
  pairs.form(design.equations, design.equations - sparse, pattern);
  return true;
}

}  // namespace tolvan::bench
