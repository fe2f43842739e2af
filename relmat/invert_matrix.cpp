// Matrices that have to be inverted.  Routine: L_GETGIV_INVERT.
#include <algorithm>
#include <cmath>

#include "base/text.h"
#include "relmat/examine_matrix.h"
#include "relmat/invert_dense.h"
#include "relmat/lagrangian_rows.h"
#include "relmat/matrix_keys.h"

namespace tolvan {
namespace {

constexpr double million = 1e6;
constexpr std::int64_t many_negatives = 10;  // diagonals of an inverse

double& diagonal(MATRIX_INPUT& m, std::int64_t k)
{
  return m.values[static_cast<std::size_t>(k + k * m.order)];
}

/// L_ADD_TO_DIAGONAL: adds what the key asks for.
void L_ADD_TO_DIAGONAL(ERROR_HANDLER& eh, const MATRIX_KEYS& keys, MATRIX_INPUT& in)
{
  const Frame here{eh, __func__};
  if (keys.add == 0) return;
  const double more = static_cast<double>(keys.add) / million;
  for (std::int64_t k = 0; k < in.order; ++k) {
    if (keys.no_null || diagonal(in, k) != 0.0) diagonal(in, k) += more;
  }
  eh.note(keys.no_null
              ? text("with !NONULL has instructed Tolvan to add ", more,
                     " to all diagonal elements hoping to make the matrix positive (semi) definite")
              : text("!ADD ", keys.add, " has instructed Tolvan to add ", more,
                     " to non-zero diagonal elements hoping to make the matrix positive (semi) definite"));
}

/// L_TELL_DIAGONAL: zero and negative diagonals that stay, with what could be done.
void L_TELL_DIAGONAL(ERROR_HANDLER& eh, const MATRIX_KEYS& keys, const DIAGONAL_COUNTS& counts)
{
  const Frame here{eh, __func__};
  if (counts.zero > 0) {
    eh.notice(text(counts.zero, " zero diagonal elements in this matrix"));
    if (!keys.no_null)
      eh.continuation("specify !NONULL with !ADD i  to add i*0.000001 to all diagonal elements");
  }
  if (counts.negative > 0) {
    const auto enough = static_cast<std::int64_t>(-counts.lowest * million) + 1;
    eh.warning(text(counts.negative, " negative diagonal elements in this matrix"));
    eh.continuation(text("use !ADD ", enough,
                         " to incease all (non-zero) diagonal elements greater making all the negative "
                         "values positive"));  // sic
  }
}

/// L_INVERT_BY_RULE: inverts in place, by the routine that the keys and the zero rows choose.
void L_INVERT_BY_RULE(ERROR_HANDLER& eh, const MATRIX_KEYS& keys, std::int64_t zero_rows, MATRIX_INPUT& in,
                      AINV_MTX& out)
{
  const Frame here{eh, __func__};
  const std::int64_t n = in.order;
  const bool singular = keys.psd || keys.nsd;
  if (!singular && zero_rows == 0) {
    SMILM(eh, n, in.values.data(), keys.precision, out.log_determinant);
    if (!eh.terminate()) return;
    eh.error("the GRM matrix is not positive definite");
    eh.continuation(
        "use the positive semi definite or negative semi definite options to invoke a different inversion");
    return;
  }
  PIVOTS pivots;
  if (singular && !keys.null_singular) {
    eh.note(
        "the GRM is being inverted using a 'Singular G' routine which accommodates zero rows and "
        "singularities by adding "
        "Lagrangian rows to the inverse");
    K4MSMISG(eh, n, in.values, keys.precision, keys.no_null, pivots, out.bound);
    out.lagrangian = std::ssize(out.bound);
    out.absent = keys.no_null ? 0 : pivots.zero_rows;
  } else {
    eh.note("the default inversion routine generates a generalized inverse where the zero rows ...");
    SMIDENSE(eh, n, in.values.data(), keys.precision, pivots);
    out.absent = pivots.singular + pivots.zero_rows;
  }
  out.order = n + out.lagrangian;
  out.log_determinant = pivots.log_determinant;
  out.singular_pivots = pivots.singular;
  out.negative_pivots = pivots.negative;
  out.zero_rows = pivots.zero_rows;
}

/// L_TELL_INVERSE: the summary of the inverse and its odd diagonals; those of rows that a Lagrangian row
/// binds are 0 by right.
void L_TELL_INVERSE(ERROR_HANDLER& eh, const AINV_MTX& out, std::int64_t n)
{
  const Frame here{eh, __func__};
  L_SUMMARY(eh, text("inverse(", out.name, ")"), out.values.data(), n, out.order);
  std::int64_t zero = -out.lagrangian;
  std::int64_t negative = 0;
  for (std::int64_t k = 0; k < n; ++k) {
    const double d = out.values[static_cast<std::size_t>(k + k * out.order)];
    zero += d == 0.0 ? 1 : 0;
    negative += d < 0.0 ? 1 : 0;
  }
  if (zero + negative == 0) return;
  eh.warning(
      text(zero, " zero and ", negative, " negative diagonal elements have been detected in this inverse"));
  if (negative == 0) return;
  eh.continuation(
      "negative elements may have arisen because of rounding errors, in rows that should have been declared "
      "singular, use "
      "!ADD or !PREC to coarsen the SINGULARITY criterion");
  if (negative > many_negatives) {
    eh.continuation(
        "if the number of negative diagonals in the inverse is large, try !ADD i to increase the diagonal to "
        "reduce the "
        "n...");
  }
}

}  // namespace

void L_GETGIV_INVERT(ERROR_HANDLER& eh, const MATRIX_KEYS& keys, MATRIX_INPUT& in, AINV_MTX& out)
{
  const Frame here{eh, __func__};
  if (in.order < 1) {
    eh.error(text("error reading values from ", in.origin), Ecode::io_error);
    return;
  }
  make_dense(eh, in);
  if (eh.terminate()) return;
  L_SUMMARY(eh, out.name, in.values.data(), in.order, in.order);
  L_ADD_TO_DIAGONAL(eh, keys, in);
  const DIAGONAL_COUNTS counts = L_EXAMINE(eh, in, singularity_criterion(keys.precision));
  if (eh.terminate()) return;
  if (counts.zero_rows > 0)
    eh.note(text("this ", out.name, " matrix contains ", counts.zero_rows, " zero rows"));
  L_TELL_DIAGONAL(eh, keys, counts);

  out.shape = Shape::dense;
  out.order = in.order;
  L_INVERT_BY_RULE(eh, keys, counts.zero_rows, in, out);
  if (eh.terminate()) return;
  out.values = std::move(in.values);
  L_TELL_INVERSE(eh, out, in.order);
  L_STRENGTHEN(eh, out);
  constexpr double same = 1e-6;
  if (in.log_determinant &&
      std::abs(*in.log_determinant - out.log_determinant) > same * (1.0 + std::abs(out.log_determinant)))
    eh.notice(text("supplied Log|GRM| (", *in.log_determinant, ") replaced by calculated value ",
                   out.log_determinant));
}

}  // namespace tolvan
