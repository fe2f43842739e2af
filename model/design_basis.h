// What the design of a derived factor row rests on that only the data tell: distinct values, knots, coefficients.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/value_index.h"

namespace tolvan {

/// Found once, after the data are read; shared by a factor row and its copies.  Each kind fills what it needs.
struct DESIGN_BASIS {
  VALUE_INDEX distinct;                  // fac, dev: the levels; mbf on a variate: its keys
  std::vector<double> points;            // lin: the number of each level; spl, bis: the knots, pol: the values, rising
  double centre = 0.0, half_range = 1.0; // pol, leg: x enters as (x - centre) / half_range, within -1 to 1
  std::int64_t columns = 0;              // equations
  std::vector<double> table;             // pol: the recursion; spl: values at the knots; mbf: a row a key; row-major
  std::vector<double> at_points;         // pol: a row of polynomials for each of the points; empty where the recursion does
  std::vector<double> curvature;         // spl: second derivatives at the knots, as table
  std::vector<std::int64_t> row_of_level;  // mbf on a factor: the row of its table for each level, from 1; 0 none
  std::vector<std::string> names;          // of the columns, where they have names; else empty
};

}  // namespace tolvan
