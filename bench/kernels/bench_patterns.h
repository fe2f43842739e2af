// The patterns of C that the bench workloads lead to, from their data files.
#pragma once

#include <string>

#include "estimation/coefficients.h"

namespace tolvan::bench {

/// workload: crossed, glmm, animal, ar1, ar1-nugget or met; folder: where data.csv (and pedigree.csv) are.
/// False if the workload is unknown or a file cannot be read.
bool read_pattern(const std::string& workload, const std::string& folder, PATTERN& pattern);

}  // namespace tolvan::bench
