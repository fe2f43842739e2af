// What an entry of grm_file asks for, and the kinds of matrix files.  Routines: HANDLE_GIV_GRM_MARKER_FILES,
// GETGIV, READ_MARKER_COVARIATES.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "api/error_handler.h"
#include "base/json.h"
#include "data/dataset.h"
#include "data/file_covariates.h"
#include "relmat/genomic_matrix.h"
#include "relmat/matrix_input.h"
#include "relmat/structure_matrices.h"

namespace tolvan {

struct MATRIX_KEYS {
  std::string name;            // of the matrix, which model terms use
  std::string path;            // of the file, the name unless `file` tells another
  std::string type;            // "ft_data" for a dataset, else a file
  std::int64_t skip = 0;       // lines at the head of a text file
  bool dense = false;          // three columns of a dataset are no elements; an inverse is stored dense
  bool psd = false;            // may be singular: Lagrangian rows
  bool nsd = false;            // may have negative pivots
  std::int64_t groups = 0;     // genetic groups at the head of the matrix
  bool save = false;           // writes the inverse to a file
  bool null_singular = false;  // singular rows become rows of zeros
  bool no_null = false;        // zero rows are singular ones
  std::int64_t add = 0;        // millionths to add to the diagonal
  std::optional<double> log_determinant;
  bool invert = false;         // a dataset, or a file of an inverse's kind, holds the matrix itself
  std::int64_t precision = 0;  // see singularity_criterion
};

/// A kind of file by its extension.
struct MATRIX_KIND {
  std::string_view extension;
  bool inverse;
  Coding_of_file coding;
  std::string_view name() const { return inverse ? "GIV" : "GRM"; }
};

/// HANDLE_GIV_GRM_MARKER_FILES: reads the matrices of a request into the store.
///   request    its grm_file and marker_file: an entry or an array of them.  Markers that are covariates, by mbf, and
///              that no term takes as a matrix are left alone
///   genomic    what is to be known of the markers after the fit
void HANDLE_GIV_GRM_MARKER_FILES(ERROR_HANDLER& eh, const JsonNode& request,
                                 const USER_DATASET_STORE& datasets, AINV_MTXS& store, GENOMIC_MODELS& genomic);

/// GETGIV: reads one matrix, as an inverse or to be inverted; of markers it is formed.
void GETGIV(ERROR_HANDLER& eh, const JsonNode& entry, const JsonNode& request,
            const USER_DATASET_STORE& datasets, AINV_MTXS& store, GENOMIC_MODELS& genomic);

/// READ_MARKER_COVARIATES: reads the files of mbf definitions that are files of markers.
void READ_MARKER_COVARIATES(ERROR_HANDLER& eh, const JsonNode& request, COVARIATE_TABLES& tables);

/// L_GETGIV_ALREADY_INVERSE: completes a matrix that is an inverse: its zero rows, its shape, its log
/// determinant.
void L_GETGIV_ALREADY_INVERSE(ERROR_HANDLER& eh, const MATRIX_KEYS& keys, MATRIX_INPUT& in, AINV_MTX& out);
/// L_GETGIV_INVERT: completes a matrix by inverting it, by the rule that the keys choose.
void L_GETGIV_INVERT(ERROR_HANDLER& eh, const MATRIX_KEYS& keys, MATRIX_INPUT& in, AINV_MTX& out);

/// A sparse or diagonal matrix written out dense.
void make_dense(ERROR_HANDLER& eh, MATRIX_INPUT& matrix);

}  // namespace tolvan
