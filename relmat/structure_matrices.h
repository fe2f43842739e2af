// Known matrices between the levels of a factor: relationship and other matrices from outside, held as inverses.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "base/symmetric.h"

namespace tolvan {

/// One known matrix, ready for the equations.  The arrays are owned here; inverse() sees them.
struct AINV_MTX {
  std::string name;
  std::string origin;                // file or dataset it came from, for messages
  std::int64_t order = 0;            // rows of the inverse, Lagrangian rows included
  std::int64_t lagrangian = 0;       // rows added for a singular matrix; they are the last
  std::vector<std::int64_t> bound;   // the row (from 0) that each Lagrangian row binds
  std::int64_t groups = 0;           // genetic groups among the first rows
  double log_determinant = 0.0;      // log|G|
  bool pedigree = false;             // made from a pedigree (NRM), else a matrix from outside (GRM)
  std::vector<std::string> labels;   // of the rows; empty: row numbers are the levels
  std::vector<double> inbreeding;    // of a pedigree's rows, else empty
  Shape shape = Shape::sparse;       // sparse or dense
  std::vector<double> values;        // as SYMMETRIC lays them out
  std::vector<std::int64_t> start;
  std::vector<std::int32_t> row;

  SYMMETRIC inverse() const { return {shape, order, 0, 1.0, values.data(), start.data(), row.data()}; }
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

}  // namespace tolvan
