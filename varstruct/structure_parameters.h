// The parameters that one component model brings: types, roles, default values and what the user gives in
// their place. Plain functions.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "varstruct/model_catalogue.h"
#include "varstruct/parameter_table.h"

namespace tolvan {

/// What the default values of one row are made from.
struct DEFAULT_BASE {
  double base = 1.0;  // g: what a variance of the row starts from
  double unit = 1.0;  // the variance that ratios refer to: 1 under gamma
  bool gamma = true;  // scale parameters are marked G, else V
  const std::vector<double>* starting =
      nullptr;  // lower triangle of the traits' starting covariances, then a mark
};

/// The number of traits behind starting covariances.
std::int64_t trait_count(const std::vector<double>& starting);

/// The parameters of a model of n levels and order k, its own first, then `variances` of them (0, 1 or n),
/// with their default values.  n counts the factors of a model with extra effects.
std::vector<VARIANCE_PARAMETER> default_parameters(const COMPONENT_MODEL& model, std::int64_t n,
                                                   std::int64_t k, std::int64_t variances,
                                                   const DEFAULT_BASE& from);

/// Lays the user's starting values over the defaults.  As many as there are parameters stand for them in
/// order; a banded model also takes those inside its band; where `scalar` is set one value stands for all
/// correlations of a band, all loadings, or all variances of a triangular factor, the rest of which is then
/// zero.  False when the count fits none.
bool lay_values(const COMPONENT_MODEL& model, std::int64_t n, const std::vector<double>& given, bool scalar,
                std::vector<VARIANCE_PARAMETER>& parameters);

/// The arguments phi, nu, delta, alpha and lambda of mtrn(): phi is always estimated, the next three where
/// they are given, lambda never.
void lay_matern_arguments(const std::vector<double>& arguments, std::vector<VARIANCE_PARAMETER>& parameters);

/// Whether a row has a parameter that sets its scale: a variance of its own, or a model of variances.
bool holds_variance(const STRUCTURE_ROW& row);

}  // namespace tolvan
