// A symmetric matrix in one of the shapes that variance structures have, as a view.  Plain records; no routines.
#pragma once

#include <cstdint>

namespace tolvan {

enum class Shape { identity, diagonal, banded, dense, sparse };

/// A symmetric n x n matrix whose values somebody else keeps.  Element (i, j) is scale times the stored value.
///   identity  nothing is stored: every diagonal element is scale
///   diagonal  values[i], n of them
///   banded    values[d * n + j] is the element (j + d, j), d from 0 to bandwidth; the last d of a stretch are unused and 0
///   dense     values[i + j * n], both triangles
///   sparse    lower triangle by columns: rows row[start[j]] ... row[start[j + 1] - 1] of column j, rising, the diagonal first
struct SYMMETRIC {
  Shape shape = Shape::identity;
  std::int64_t n = 0;
  std::int64_t bandwidth = 0;
  double scale = 1.0;
  const double* values = nullptr;
  const std::int64_t* start = nullptr;
  const std::int32_t* row = nullptr;

  /// The length of an array laid out like the values: 1 for an identity.
  std::int64_t stored() const
  {
    switch (shape) {
      case Shape::identity: return 1;
      case Shape::diagonal: return n;
      case Shape::banded: return (bandwidth + 1) * n;
      case Shape::dense: return n * n;
      case Shape::sparse: return start[n];
    }
    return 0;
  }
};

}  // namespace tolvan
