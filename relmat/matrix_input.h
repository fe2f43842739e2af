// A matrix as it comes in, from a file or a dataset, before it is examined.
// Routines: L_READ_TEXT_MATRIX, L_READ_BINARY_MATRIX, READ_MATRIX_FROM_RGRM_UNITNO,
// L_COPY_SPARSE_FROM_UDSTORE, L_COPY_DENSE_FROM_UDSTORE, L_TAKE_ELEMENT, L_SAVEMAT.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "api/error_handler.h"
#include "data/dataset.h"

namespace tolvan {

struct AINV_MTX;

enum class MatrixForm { dense, sparse, diagonal };

/// A symmetric matrix as it was read.
struct MATRIX_INPUT {
  std::string origin;  // file or dataset, for messages
  MatrixForm form = MatrixForm::dense;
  std::int64_t order = 0;
  std::vector<double>
      values;  // dense: order x order, both triangles; sparse: of each element; diagonal: the diagonal
  std::vector<std::int32_t> row,
      column;  // sparse: of each element, from 1, row at least column, in the order of the source; no zeros
  std::int64_t highest_entry = 0;         // sparse: the number of the element that told the order
  std::vector<std::string> labels;        // of the rows, or none
  std::optional<double> log_determinant;  // told by the source
  std::int64_t groups = 0;
  bool may_grow = false;  // where it is singular its inverse will have more rows
};

/// How the numbers of a file are coded.
enum class Coding_of_file { text, single_precision, double_precision };

/// L_READ_TEXT_MATRIX: reads a text file: directives, then elements or a lower triangle by rows.
///
/// The first line of data tells which: exactly three numbers of which the first two are 1 are an element.
/// Otherwise numbers run on over the lines as a lower triangle by rows; a square matrix with a line a row,
/// and a diagonal with a number a line, are seen too.
///   kind   "GIV" or "GRM", for messages
///   skip   lines that may be anything; directives in them are obeyed
void L_READ_TEXT_MATRIX(ERROR_HANDLER& eh, const std::string& path, std::string_view kind, std::int64_t skip,
                        MATRIX_INPUT& out);

/// L_READ_BINARY_MATRIX: reads unformatted records with their length before and behind, 4 bytes each, in the
/// machine's byte order: an element a record (row, column, value), beginning with 1, 1, or a row of the lower
/// triangle a record.
void L_READ_BINARY_MATRIX(ERROR_HANDLER& eh, const std::string& path, Coding_of_file coding,
                          MATRIX_INPUT& out);

/// READ_MATRIX_FROM_RGRM_UNITNO: reads a file of row blocks: records of 8 n bytes, the first with the number
/// of rows (64 bits), then for each row its elements up to the diagonal.
void READ_MATRIX_FROM_RGRM_UNITNO(ERROR_HANDLER& eh, const std::string& path, std::int64_t n,
                                  MATRIX_INPUT& out);

/// L_COPY_SPARSE_FROM_UDSTORE: takes elements from the three columns of a dataset.
void L_COPY_SPARSE_FROM_UDSTORE(ERROR_HANDLER& eh, const DATASET_VIEW& data, MATRIX_INPUT& out);
/// L_COPY_DENSE_FROM_UDSTORE: takes a square matrix from a dataset, and its labels from the names of the
/// variables unless they count.
void L_COPY_DENSE_FROM_UDSTORE(ERROR_HANDLER& eh, const DATASET_VIEW& data, MATRIX_INPUT& out);

/// L_SAVEMAT: writes a matrix in double numbers to a file beside its source.
///   extension   of the file: a matrix under any other than that of an inverse is no inverse
void L_SAVEMAT(ERROR_HANDLER& eh, const AINV_MTX& matrix, std::string_view extension = ".dgiv");

/// L_TAKE_ELEMENT: adds an element of a lower triangle that was read as three numbers, unless it is 0; false,
/// with a message, for what is none.
///   number  counts the elements, for the message
bool L_TAKE_ELEMENT(ERROR_HANDLER& eh, double row, double column, double value, std::int64_t number,
                    MATRIX_INPUT& out);
/// Whether the order that the elements told is in keeping with their number; else the message tells the element.
bool order_is_sound(ERROR_HANDLER& eh, const MATRIX_INPUT& matrix);
/// Reserves a dense matrix of an order if the machine has room for it; tells the memory of a large one ahead of taking
/// it.
///   may_grow   its order may double in place: further room is reserved as far as the machine has it, which costs
///              nothing before it is used, and spares a second copy then
bool room_for_dense(ERROR_HANDLER& eh, std::int64_t order, bool may_grow, std::vector<double>& a);
/// Tells an asymmetric pair of elements of a square matrix, and one that is not finite, and makes the pairs
/// agree exactly.
void check_square(ERROR_HANDLER& eh, MATRIX_INPUT& matrix);

}  // namespace tolvan
