// Effects of single markers: the weights that they give to a matrix, and how they are worked out after a fit.
// Routines: L_MARKER_EFFECTS, L_READ_MEF, L_RESWRITE.
#pragma once

#include <string>
#include <vector>

#include "api/error_handler.h"
#include "relmat/marker_files.h"

namespace tolvan {

/// L_MARKER_EFFECTS: u = D Z' alpha / k, alpha being G^-1 times the effects of the genotypes, so that Z u are these
/// (Stranden and Garrick 2009, J. Dairy Sci. 92, 2971-2975).
///   weights   the diagonal of D; empty: all 1
void L_MARKER_EFFECTS(ERROR_HANDLER& eh, const MARKER_KEYS& keys, const MARKER_DATA& data,
                      const std::vector<double>& weights, double divisor, const std::vector<double>& alpha,
                      std::vector<double>& effects);

/// Weights of the markers, mean 1, by a scaled inverse chi-square prior of their variances:
///     w = (nu S^2 + u^2) / (nu + 1) + offset,   S^2 = (nu - 2) / nu mean(u^2)
/// (Meuwissen, Hayes and Goddard 2001, Genetics 157, 1819-1829).
///   effects   NaN where none is known: such a marker weighs as much as the mean of the others
void fast_bayes_weights(double df, double offset, const std::vector<double>& effects, std::vector<double>& weights);

/// L_READ_MEF: the effects of an earlier run; a file that is not there gives none.
///   effects   one a regressor, NaN where the file has none
void L_READ_MEF(ERROR_HANDLER& eh, const std::string& root, const MARKER_DATA& data, std::vector<double>& effects);

/// L_RESWRITE: writes the effects of the markers and their weights, a line each, to root.mef.
void L_RESWRITE(ERROR_HANDLER& eh, const std::string& root, const MARKER_DATA& data,
                const std::vector<double>& effects, const std::vector<double>& weights);

}  // namespace tolvan
