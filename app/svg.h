// Figures as SVG text, to stand within a page.  Plain functions.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tolvan::driver {

struct Axes {
  std::string title, x, y;
};

/// Points joined by lines, a colour a series, with names below; series of other lengths than x are left out.
std::string line_figure(const Axes& axes, const std::vector<double>& x, const std::vector<std::vector<double>>& series,
                        const std::vector<std::string>& names = {});
/// A line y = a + b x among points.
struct Through {
  bool drawn = false;
  double a = 0.0, b = 0.0;
};
std::string scatter_figure(const Axes& axes, const std::vector<double>& x, const std::vector<double>& y, Through line);
std::string histogram_figure(const Axes& axes, const std::vector<double>& values);
/// A field of rows by columns, row after row, counted from `first`; not a number for an empty cell.
std::string heat_map_figure(const Axes& axes, const std::vector<double>& cells, std::int64_t rows, std::int64_t columns,
                            double first = 1.0);

/// A text with the signs that HTML reserves written out; control characters are left out.
std::string escaped(std::string_view text);
/// The standard normal quantile of a probability inside (0, 1).
double normal_quantile(double p);

}  // namespace tolvan::driver
