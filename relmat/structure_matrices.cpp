#include "relmat/structure_matrices.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "base/text.h"

namespace tolvan {

AINV_MTX* AMTXS_EMPTY_POS(ERROR_HANDLER& eh, AINV_MTXS& store, std::string_view name)
{
  const Frame here{eh, __func__};
  if (store.find(name) != nullptr) {
    eh.error(text("the matrix ", name, " was supplied more than once"));
    return nullptr;
  }
  AINV_MTX& fresh = store.matrices.emplace_back();
  fresh.name = name;
  return &fresh;
}

AINV_MTX* AMTXS_REGISTER_TO_AINV(ERROR_HANDLER& eh, AINV_MTXS& store, std::string_view name,
                                 std::string_view pedigree, SPARSE_MTX_LLIST& matrix, double logdet,
                                 std::int64_t empty, std::vector<std::string>& labels)
{
  const Frame here{eh, __func__};
  SPMT_CONVERT(eh, matrix, SparseKind::sm_compressed_reverse);
  if (eh.terminate()) return nullptr;
  AINV_MTX* to = AMTXS_EMPTY_POS(eh, store, name);
  if (to == nullptr) return nullptr;
  to->origin = to->pedigree_of = pedigree;
  to->order = matrix.order;
  to->log_determinant = -logdet;
  to->absent = to->zero_rows = empty;
  to->labels = std::move(labels);
  to->values = std::move(matrix.values);
  to->start = std::move(matrix.start);
  to->row = std::move(matrix.index);
  AMTX_FINISH_OFF(eh, *to);
  return eh.terminate() ? nullptr : to;
}

void AMTX_FINISH_OFF(ERROR_HANDLER& eh, AINV_MTX& matrix)
{
  const Frame here{eh, __func__};
  const std::int64_t rows = matrix.order - matrix.lagrangian;
  const bool laid_out = matrix.shape != Shape::sparse || std::ssize(matrix.start) == matrix.order + 1;
  if (matrix.order < 1 || !laid_out || std::ssize(matrix.values) != matrix.inverse().stored() ||
      (!matrix.labels.empty() && std::ssize(matrix.labels) != rows)) {
    eh.internal(text("the arrays of matrix ", matrix.name, " do not fit its order ", matrix.order));
    return;
  }
  const bool finite =
      std::all_of(matrix.values.begin(), matrix.values.end(), [](double x) { return std::isfinite(x); });
  if (!finite || !std::isfinite(matrix.log_determinant))
    eh.error(text("the inverse of ", matrix.name, " has elements that are not finite"));
}

}  // namespace tolvan
