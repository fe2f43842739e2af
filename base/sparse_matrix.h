// A symmetric sparse matrix, lower triangle, in the forms in which it is built, handed out and used.
// Routines: SPMT_.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "api/error_handler.h"

namespace tolvan {

/// How the elements are held; each is held once.
enum class SparseKind : std::int64_t {
  sm_linked_list = 1,  // positions 1..order are the diagonal; from there each row is a chain in column order
  sm_sparse = 2,       // triples (row, column, value) by rows, columns rising
  sm_compressed = 3,   // by rows: columns rising, the diagonal last
  sm_compressed_reverse = 4,  // by columns: the diagonal first, rows rising
};
std::string_view sparse_kind_name(SparseKind kind);

/// Rows and columns count from 1 in the first two forms, from 0 in the compressed ones.  In every form the
/// diagonal is complete.
struct SPARSE_MTX_LLIST {
  SparseKind kind = SparseKind::sm_linked_list;
  std::int64_t order = 0;
  std::int64_t used = 0;  // elements
  std::vector<double> values;
  // Linked list and triples.
  std::vector<std::int64_t> row, column;
  std::vector<std::int64_t>
      next;  // linked list: the position of the next element of the row, from 1; 0 at its end
  // Compressed forms: row or column k is start[k] ... start[k + 1] - 1.
  std::vector<std::int64_t> start;
  std::vector<std::int32_t> index;
};

/// SPMT_RESERVE: gives the arrays of a form that a matrix of that order and number of elements needs, and
/// frees the others.
void SPMT_RESERVE(ERROR_HANDLER& eh, SPARSE_MTX_LLIST& matrix, SparseKind kind, std::int64_t order,
                  std::int64_t elements);

/// SPMT_CONVERT: brings a matrix into another form.  Towards the compressed forms and away from them each
/// step is linear in the elements.  A matrix whose arrays do not fit its form is an internal error, and stays
/// as it was.
void SPMT_CONVERT(ERROR_HANDLER& eh, SPARSE_MTX_LLIST& matrix, SparseKind kind);

/// SPMT_ADD: adds to an element that the pattern of a matrix compressed by rows has; i and j from 1, in any
/// order.
void SPMT_ADD(SPARSE_MTX_LLIST& matrix, std::int64_t i, std::int64_t j, double value);

/// The value of an element of a compressed matrix, 0 where none is stored; i and j from 1, in any order.
double sparse_element(const SPARSE_MTX_LLIST& matrix, std::int64_t i, std::int64_t j);

}  // namespace tolvan
