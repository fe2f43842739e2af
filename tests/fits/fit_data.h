// Data that several tests of whole fits hand in.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "fits/host.h"

namespace tolvan_test {

struct Data {
  std::vector<std::pair<std::string, int>> variables;
  std::vector<std::vector<double>> columns;
  std::size_t records() const { return columns.front().size(); }
};

inline void hand_in(Host& host, const Data& data)
{
  host.info("{\"dataset\":" + dataset("d", data.records(), data.variables) + "}");
  std::vector<double> values;
  for (const auto& c : data.columns) values.insert(values.end(), c.begin(), c.end());
  host.matrix("d", values, static_cast<int>(data.records()), static_cast<int>(data.columns.size()));
}

inline const Data three_groups{{{"group", 3}, {"y", 0}}, {{1, 1, 1, 2, 2, 3, 3}, {10, 12, 9, 15, 14, 20, 18}}};

/// Students by teachers by departments, with most courses in the home department.
inline Data crossed(std::size_t records, int students, int teachers, int departments, unsigned seed)
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

}  // namespace tolvan_test
