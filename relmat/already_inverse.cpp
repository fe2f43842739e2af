// Matrices that come as inverses.  Routine: L_GETGIV_ALREADY_INVERSE.
#include <algorithm>
#include <cmath>

#include "base/memory.h"
#include "base/packed.h"
#include "base/text.h"
#include "relmat/examine_matrix.h"
#include "relmat/lagrangian_rows.h"
#include "relmat/log_determinant.h"
#include "relmat/matrix_keys.h"

namespace tolvan {
namespace {

constexpr std::int64_t least_dense_order = 50;  // below it the storage makes no difference

/// L_COMPRESS: sorts the elements into columns with rows rising, the diagonal first, whether or not it is
/// there.
void L_COMPRESS(ERROR_HANDLER& eh, const MATRIX_INPUT& in, AINV_MTX& out)
{
  const Frame here{eh, __func__};
  const auto n = static_cast<std::size_t>(in.order);
  const std::size_t elements = in.values.size();
  std::vector<std::int64_t> row_start;
  std::vector<std::int64_t> by_row;
  if (!assign(eh, row_start, in.order + 1) || !assign(eh, by_row, std::ssize(in.values)) ||
      !assign(eh, out.start, in.order + 1))
    return;
  for (std::size_t k = 0; k < elements; ++k) {
    ++row_start[static_cast<std::size_t>(in.row[k])];
    if (in.row[k] != in.column[k]) ++out.start[static_cast<std::size_t>(in.column[k])];
  }
  for (std::size_t k = 1; k <= n; ++k) {
    row_start[k] += row_start[k - 1];
    out.start[k] += out.start[k - 1] + 1;
  }
  for (std::size_t k = 0; k < elements; ++k) {
    by_row[static_cast<std::size_t>(row_start[static_cast<std::size_t>(in.row[k] - 1)]++)] =
        static_cast<std::int64_t>(k);
  }
  if (!assign(eh, out.values, out.start[n]) || !assign(eh, out.row, out.start[n])) return;
  std::vector<std::int64_t> to;
  if (!assign(eh, to, in.order)) return;
  std::copy(out.start.begin(), out.start.end() - 1, to.begin());
  for (std::size_t j = 0; j < n; ++j)
    out.row[static_cast<std::size_t>(to[j]++)] = static_cast<std::int32_t>(j);
  for (const std::int64_t place : by_row) {
    const auto k = static_cast<std::size_t>(place);
    const auto j = static_cast<std::size_t>(in.column[k] - 1);
    const std::int32_t i = in.row[k] - 1;
    auto at = static_cast<std::size_t>(in.row[k] == in.column[k] ? out.start[j] : to[j]);
    const bool twice = in.row[k] == in.column[k] ? out.values[at] != 0.0 : out.row[at - 1] == i;
    if (twice) {
      eh.error(text("sparse format of matrix looks incorrect for the ", place + 1, " entry"));
      eh.continuation(text("element (", in.row[k], ",", in.column[k], ") of the matrix from ", in.origin, " stands twice"));
      return;
    }
    if (in.row[k] != in.column[k]) ++to[j];
    out.row[at] = i;
    out.values[at] = in.values[k];
  }
}

/// L_CHECK_DIAGONAL: what zero and odd diagonals of an inverse mean.
void L_CHECK_DIAGONAL(ERROR_HANDLER& eh, const MATRIX_KEYS& keys, const MATRIX_INPUT& in, AINV_MTX& out)
{
  const Frame here{eh, __func__};
  ERROR_HANDLER unheard;  // rows of an inverse may be what those of a covariance matrix may not: only the
                          // counts are of use
  const double criterion = singularity_criterion(keys.precision);
  const DIAGONAL_COUNTS counts = L_EXAMINE(unheard, in, criterion);
  if (unheard.terminate()) return eh.EH_ADD_ALL(unheard);
  out.zero_rows = counts.zero_rows;
  out.absent = counts.zero_rows;
  if (counts.zero > 0) {
    eh.notice(
        in.groups > 0
            ? text(counts.zero, " zero diagonals in inverse assumed to include Lagrangian rows")
            : text(counts.zero,
                   " zero diagonals in inverse assumed to be NULL rows (rows with no corresponding data)"));
  }
  if (counts.negative > 0) {
    eh.warning(text("sparse input: negative diagonal elements range from ", counts.lowest, " to ",
                    counts.highest_negative));
  }
  if (counts.near_zero == 0) return;
  for (const ERROR_MESSAGE& each : unheard.messages()) {
    if (each.message && each.message->starts_with("|diagonal|")) eh.warning(*each.message);
  }
  eh.continuation(text("singularity check criterion value is ", criterion));
}

/// L_LOG_DETERMINANT: works out log|G| from the inverse, unless it was supplied.
void L_LOG_DETERMINANT(ERROR_HANDLER& eh, const MATRIX_KEYS& keys, const MATRIX_INPUT& in, AINV_MTX& out)
{
  const Frame here{eh, __func__};
  if (in.log_determinant) {
    out.log_determinant = *in.log_determinant;
    return;
  }
  PIVOTS pivots;
  K4MLD7(eh, out.inverse(), out.values.data(), keys.precision, in.groups, pivots);
  if (eh.terminate()) return;
  out.log_determinant = -pivots.log_determinant;
  out.singular_pivots = pivots.singular;
  out.negative_pivots = pivots.negative;
  out.absent += pivots.singular;
  const std::int64_t unexpected = std::max<std::int64_t>(pivots.negative - out.lagrangian, 0);
  if (pivots.singular + unexpected > 0) {
    eh.warning(text("GIV matrix not positive definite, it has ", pivots.singular, " singular pivots and ",
                    pivots.negative, " negative pivots"));
  }
  if (pivots.singular > 0) {
    eh.notice(
        text("Because of singularities in GIV matrix the number of fixed degrees of freedom incorporated "
             "into it has been "
             "set to ",
             pivots.singular));
  }
}

/// L_GETGIV_CREATE_INVERSE_DENSE: takes a dense inverse over.
void L_GETGIV_CREATE_INVERSE_DENSE(ERROR_HANDLER& eh, const MATRIX_KEYS& keys, MATRIX_INPUT& in,
                                   AINV_MTX& out)
{
  const Frame here{eh, __func__};
  out.shape = Shape::dense;
  L_CHECK_DIAGONAL(eh, keys, in, out);
  if (eh.terminate()) return;
  out.values = std::move(in.values);
  L_FIND_LAGRANGIAN_ROWS(eh, out);
  if (eh.terminate()) return;
  L_LOG_DETERMINANT(eh, keys, in, out);
  if (!eh.terminate()) L_STRENGTHEN(eh, out);
}

/// L_GETGIV_ALREADY_INVERSE_SPARSE: takes a sparse inverse over; one without elements off the diagonal
/// becomes diagonal.
void L_GETGIV_ALREADY_INVERSE_SPARSE(ERROR_HANDLER& eh, const MATRIX_KEYS& keys, MATRIX_INPUT& in,
                                     AINV_MTX& out)
{
  const Frame here{eh, __func__};
  L_CHECK_DIAGONAL(eh, keys, in, out);
  if (eh.terminate()) return;
  std::int64_t cells = 0;
  if (in.form == MatrixForm::sparse) {
    L_COMPRESS(eh, in, out);
    if (eh.terminate()) return;
    std::vector<std::int32_t>().swap(in.row);
    std::vector<std::int32_t>().swap(in.column);
    cells = std::ssize(in.values);
  } else {
    out.values = std::move(in.values);
  }
  if (in.form == MatrixForm::diagonal || std::ssize(out.values) == in.order) {
    out.shape = Shape::diagonal;
    out.start.clear();
    out.row.clear();
    const auto [low, high] = std::minmax_element(out.values.begin(), out.values.end());
    eh.note(text("diagonal matrix of ", in.order, " rows read from ", in.origin));
    eh.continuation(text("values ", *low, " ... ", *high));
  }
  L_FIND_LAGRANGIAN_ROWS(eh, out);
  if (eh.terminate()) return;
  L_LOG_DETERMINANT(eh, keys, in, out);
  if (eh.terminate() || out.shape == Shape::diagonal) return;
  eh.note(text("inverse G structure of ", in.order, " rows having ", cells, " non zero cells read from ",
               in.origin));
}

}  // namespace

void L_GETGIV_ALREADY_INVERSE(ERROR_HANDLER& eh, const MATRIX_KEYS& keys, MATRIX_INPUT& in, AINV_MTX& out)
{
  const Frame here{eh, __func__};
  out.order = in.order;
  if (in.order < 1) {
    eh.error(text("error reading values from ", in.origin), Ecode::io_error);
    return;
  }
  const bool evident = in.form == MatrixForm::sparse && in.order >= least_dense_order &&
                       2 * std::ssize(in.values) > packed_size(in.order);
  if (evident) {
    eh.notice(text("the matrix read from ", in.origin,
                   " was in a format designed for a SPARSE inverse but is evidently DENSE"));
  }
  if (evident || keys.dense) make_dense(eh, in);
  if (eh.terminate()) return;
  if (in.form == MatrixForm::dense) {
    L_GETGIV_CREATE_INVERSE_DENSE(eh, keys, in, out);
  } else {
    L_GETGIV_ALREADY_INVERSE_SPARSE(eh, keys, in, out);
  }
}

}  // namespace tolvan
