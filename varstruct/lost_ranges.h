// Ranges of models with distances about which the points tell nothing.
#pragma once

#include <cstdint>
#include <vector>

#include "varstruct/parameter_table.h"

namespace tolvan {

/// Why other values of a range are wanted.
enum class Lost {
  none_alike,  // all correlations between points are next to zero: the likelihood is flat in the range
  all_alike,   // next to one
  failed       // the matrix could not be inverted
};

struct LOST_RANGE {
  std::int64_t parameter = 0;   // in VARIANCE_MODEL::parameters
  std::int64_t first = 0, own = 0;  // the parameters of its row without variances
  Lost why = Lost::none_alike;
  std::vector<double> others;   // values at which correlations fall to about a half within the points, short ranges first
};

/// The lost ranges among the parameters that may move or were found dependent, judged at `values`, one a parameter.
///   failed  the structures could not be formed: all ranges are given, and the smoothness of mtrn()
std::vector<LOST_RANGE> lost_ranges(const VARIANCE_MODEL& model, const std::vector<double>& values, bool failed);

/// The ranges that may move and along which the likelihood has kinks, since correlations end at them: spherical, circular, linear.
std::vector<std::int64_t> ranges_with_kinks(const VARIANCE_MODEL& model);

}  // namespace tolvan
