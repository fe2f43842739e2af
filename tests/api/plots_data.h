// A small data set with many layouts in it, for models that are set up and not fitted.
#pragma once

#include <cmath>
#include <string>
#include <string_view>
#include <vector>

#include "api/setup_road.h"
#include "base/numbers.h"
#include "base/text.h"

namespace tolvan {

inline constexpr std::int64_t records = 24;

/// 24 records: subject 6 x time 4, site 2 x row 3 x column 4, env 4 x geno 6, points (x, v), responses y, z.
inline std::vector<double> data_columns()
{
  std::vector<double> a;
  for (int k = 0; k < records; ++k) {
    const double y = std::sin(1.7 * k) + 0.1 * k, z = std::cos(2.3 * k) - 0.2 * y;
    for (const double v : {k / 4 + 1.0, k % 4 + 1.0, k / 12 + 1.0, k / 4 % 3 + 1.0, k % 4 + 1.0, k / 6 + 1.0,
                           k % 6 + 1.0, k * 0.5, (k * 7 % 24) * 0.25, 2.0 * (k % 4), y, z}) {
      a.push_back(v);
    }
  }
  return a;
}

inline std::string request_of(std::string_view model, std::string_view options = "",
                              std::string_view more = "")
{
  std::string variables;
  const auto factor = [&](const char* name, int levels) {
    variables += text(R"({"name":")", name,
                      R"(","field_type":"vt_integer_factor_1_to_n","number_of_levels":)", levels, "},");
  };
  factor("subject", 6), factor("time", 4), factor("site", 2), factor("row", 3), factor("column", 4),
      factor("env", 4), factor("geno", 6);
  for (const char* name : {"x", "v", "w", "y"})
    variables += text(R"({"name":")", name, R"(","field_type":"vt_variate"},)");
  variables += R"({"name":"z","field_type":"vt_variate"})";
  return text(
      R"({"dataset":[{"name":"d","number_of_observations":24,"storage_order":"so_row_major","variables":[)",
      variables, R"(]}],"model":{)", model, R"(},"options":{)", options, "}", more, "}");
}

inline void run(SetupRoad& road, const std::string& request, const std::vector<double>& a = data_columns())
{
  UDST_ADD(road.eh, road.datasets, "d", a.data(), std::ssize(a) / 12, 12);
  road.run(request);
}

}  // namespace tolvan
