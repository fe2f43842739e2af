// Relationship matrices of markers.  Routines: L_FORM_GRM, L_TELL_MARKERS, L_HADAMARD, GET_GENOMIC_MATRIX, GBLUPGIV,
// L_SAVE_GRM, L_SAVEGRMINVERSE.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "api/error_handler.h"
#include "base/json.h"
#include "relmat/marker_files.h"
#include "relmat/matrix_input.h"
#include "relmat/structure_matrices.h"

namespace tolvan {

/// What forming a matrix tells of the markers.
struct GENOMIC_SUMMARY {
  std::int64_t missing = 0;
  double low = 0.0, high = 0.0;             // of the regressors
  double lowest_mean = 0.0, highest_mean = 0.0, average_mean = 0.0;
  std::vector<double> first_means;
  double sigma = 0.0, sigma_squares = 0.0;  // of 2p(1 - p) and of its squares
  std::int64_t used = 0;                    // columns that are not left out
  double divisor = 0.0;
};

/// A marker entry of a run, kept for what is worked out after the fit.
struct GENOMIC_MODEL {
  MARKER_KEYS keys;
  MARKER_DATA data;
  std::vector<double> weights;  // of the regressors, mean 1; empty: all 1
  GENOMIC_SUMMARY summary;
};
struct GENOMIC_MODELS {
  std::deque<GENOMIC_MODEL> models;
  const GENOMIC_MODEL* find(std::string_view name) const
  {
    for (const GENOMIC_MODEL& m : models) {
      if (m.keys.name == name) return &m;
    }
    return nullptr;
  }
};

/// L_FORM_GRM: G = Z diag(w) Z' / k, block of columns by block of columns.
///
///   method 1   Z = M - 2p, k = sum of 2p(1-p)      (VanRaden 2008, J. Dairy Sci. 91, 4414-4423)
///   method 2   the columns of Z divided by the root of 2p(1-p), those without variation left out; k their count
///   method 3   Z = -2q^2, 2pq, -2p^2 for 2, 1, 0 copies, k = sum of (2p(1-p))^2
///                                                  (Vitezica, Varona and Legarra 2013, Genetics 195, 1223-1230)
/// Where the regressors are no counts of an allele their variance stands for 2p(1-p).  The keys may replace centre,
/// scale and k.
///   g   order genotypes, both triangles
void L_FORM_GRM(ERROR_HANDLER& eh, const MARKER_KEYS& keys, const MARKER_DATA& data,
                const std::vector<double>& weights, std::vector<double>& g, GENOMIC_SUMMARY& summary);

/// L_TELL_MARKERS: notes on missing values, means, centres and scale.
void L_TELL_MARKERS(ERROR_HANDLER& eh, const MARKER_KEYS& keys, const MARKER_DATA& data,
                    const GENOMIC_SUMMARY& summary);

/// L_HADAMARD: multiplies a matrix by another of the same order and labels, element by element.
void L_HADAMARD(ERROR_HANDLER& eh, const MATRIX_INPUT& by, MATRIX_INPUT& matrix);

/// GET_GENOMIC_MATRIX: the relationship matrix of an entry of marker_file.
///   request   whose other entries it may name
void GET_GENOMIC_MATRIX(ERROR_HANDLER& eh, const JsonNode& entry, const JsonNode& request, GENOMIC_MODEL& model,
                        MATRIX_INPUT& matrix);

/// GBLUPGIV: inverts the relationship matrix of markers and completes it for the equations.
void GBLUPGIV(ERROR_HANDLER& eh, const GENOMIC_MODEL& model, MATRIX_INPUT& matrix, AINV_MTX& out);

/// L_SAVE_GRM: writes a dense matrix to a .dgrm file beside its source; it stays as it is.
void L_SAVE_GRM(ERROR_HANDLER& eh, MATRIX_INPUT& matrix);
/// L_SAVEGRMINVERSE: writes the inverse to a .dgiv file beside the markers.
void L_SAVEGRMINVERSE(ERROR_HANDLER& eh, const AINV_MTX& inverse);

}  // namespace tolvan
