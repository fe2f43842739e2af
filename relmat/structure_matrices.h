// Known matrices between the levels of a factor: relationship and other matrices from outside, held as
// inverses. Routines: AMTXS_, AMTX_FINISH_OFF.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "api/error_handler.h"
#include "base/sparse_matrix.h"
#include "base/symmetric.h"

namespace tolvan {

/// One known matrix, ready for the equations.  The arrays are owned here; inverse() sees them.
///
/// A term with this structure has `order` effects, the added rows among them.  All of inverse() is scaled by
/// 1 / variance, and log|G| of the term is log_determinant + counted() ln(variance).
struct AINV_MTX {
  std::string name;
  std::string origin;               // file or dataset it came from, for messages
  std::int64_t order = 0;           // rows of the inverse, Lagrangian rows included
  std::int64_t lagrangian = 0;      // rows added for a singular matrix; they are the last
  std::vector<std::int64_t> bound;  // the row (from 0) that each Lagrangian row binds
  std::int64_t groups = 0;          // genetic groups among the first rows
  double log_determinant = 0.0;     // log|G|
  std::string pedigree_of;          // the pedigree that it was made from; empty: it came from outside
  bool pedigree = false;            // that is its relationship matrix (NRM), else a matrix from outside (GRM)
  bool reduce = false;              // to the rows of individuals with data, once they are read
  bool markers = false;             // made from markers
  std::vector<std::string> labels;  // of the rows but for the added ones; empty: row numbers are the levels
  std::vector<double> inbreeding;   // of a pedigree's rows, else empty
  Shape shape = Shape::sparse;      // sparse, dense or diagonal
  std::vector<double> values;       // as SYMMETRIC lays them out
  std::vector<std::int64_t> start;
  std::vector<std::int32_t> row;
  std::int64_t absent = 0;  // dimensions in which nothing is known: empty rows, pivots of a singular inverse
  std::int64_t singular_pivots = 0;  // met on the way
  std::int64_t negative_pivots = 0;
  std::int64_t zero_rows = 0;  // rows without any element, for levels without data

  SYMMETRIC inverse() const { return {shape, order, 0, 1.0, values.data(), start.data(), row.data()}; }
  /// The dimensions that count in log|G|.
  std::int64_t counted() const { return order - absent; }
};

/// The known matrices of a run; addresses stay.
struct AINV_MTXS {
  std::deque<AINV_MTX> matrices;
  /// The matrix of a name, null when there is none.
  const AINV_MTX* find(std::string_view name) const
  {
    for (const AINV_MTX& m : matrices) {
      if (m.name == name) return &m;
    }
    return nullptr;
  }
};

/// AMTXS_EMPTY_POS: a new matrix of a name; a second one of the same name is an error, and null.
AINV_MTX* AMTXS_EMPTY_POS(ERROR_HANDLER& eh, AINV_MTXS& store, std::string_view name);
/// AMTXS_REGISTER_TO_AINV: takes an inverse that was made from a pedigree over; the matrix in the store, null
/// for a failure.
///   pedigree  its name
///   matrix    in any form; it is used up, as are the labels
///   logdet    of the matrix, log|A^-1|
///   empty     its first rows, so many, that have no element
AINV_MTX* AMTXS_REGISTER_TO_AINV(ERROR_HANDLER& eh, AINV_MTXS& store, std::string_view name,
                                 std::string_view pedigree, SPARSE_MTX_LLIST& matrix, double logdet,
                                 std::int64_t empty, std::vector<std::string>& labels);
/// AMTX_FINISH_OFF: completes a matrix: its sizes must agree and its values be finite.
void AMTX_FINISH_OFF(ERROR_HANDLER& eh, AINV_MTX& matrix);

}  // namespace tolvan
