#include "base/sparse_matrix.h"

#include <algorithm>
#include <utility>

#include "base/memory.h"

namespace tolvan {
namespace {

/// The place of an element of a compressed matrix, -1 where none is stored.  A column of the reversed form is
/// a row of the other.
std::int64_t place_of(const SPARSE_MTX_LLIST& a, std::int64_t i, std::int64_t j)
{
  if ((i < j) == (a.kind == SparseKind::sm_compressed)) std::swap(i, j);
  const auto from = a.index.begin() + a.start[static_cast<std::size_t>(i - 1)];
  const auto to = a.index.begin() + a.start[static_cast<std::size_t>(i)];
  const auto at = std::lower_bound(from, to, static_cast<std::int32_t>(j - 1));
  return at != to && *at == j - 1 ? at - a.index.begin() : -1;
}

void not_as_expected(ERROR_HANDLER& eh)
{
  eh.internal("sparse matrix linked list not set up as expected");
}

/// L_LIST_TO_ROWS: compresses a linked list by following the chain of each row.
void L_LIST_TO_ROWS(ERROR_HANDLER& eh, SPARSE_MTX_LLIST& a)
{
  const Frame here{eh, __func__};
  SPARSE_MTX_LLIST out;
  SPMT_RESERVE(eh, out, SparseKind::sm_compressed, a.order, a.used);
  if (eh.terminate()) return;
  std::int64_t p = 0;
  for (std::int64_t i = 1; i <= a.order; ++i) {
    std::int64_t last = 0;
    for (std::int64_t at = a.next[static_cast<std::size_t>(i - 1)]; at != 0;
         at = a.next[static_cast<std::size_t>(at - 1)]) {
      const bool inside = at > a.order && at <= a.used && p < a.used;
      const std::int64_t j = inside ? a.column[static_cast<std::size_t>(at - 1)] : 0;
      if (j <= last || j >= i) return not_as_expected(eh);
      out.index[static_cast<std::size_t>(p)] = static_cast<std::int32_t>(j - 1);
      out.values[static_cast<std::size_t>(p++)] = a.values[static_cast<std::size_t>(at - 1)];
      last = j;
    }
    if (p >= a.used) return not_as_expected(eh);
    out.index[static_cast<std::size_t>(p)] = static_cast<std::int32_t>(i - 1);
    out.values[static_cast<std::size_t>(p++)] = a.values[static_cast<std::size_t>(i - 1)];
    out.start[static_cast<std::size_t>(i)] = p;
  }
  if (p != a.used) return not_as_expected(eh);
  a = std::move(out);
}

/// L_TRIPLES_TO_ROWS: compresses triples that stand by rows.
void L_TRIPLES_TO_ROWS(ERROR_HANDLER& eh, SPARSE_MTX_LLIST& a)
{
  const Frame here{eh, __func__};
  std::int64_t row = 0;
  std::int64_t column = 0;
  for (std::size_t p = 0; p < static_cast<std::size_t>(a.used); ++p) {
    const bool next_row = a.row[p] == row + 1 && column == row;
    const bool next_column = a.row[p] == row && a.column[p] > column;
    if (!(next_row || next_column) || a.column[p] < 1 || a.column[p] > a.row[p]) return not_as_expected(eh);
    row = a.row[p];
    column = a.column[p];
  }
  if (row != a.order || column != row) return not_as_expected(eh);
  SPARSE_MTX_LLIST out;
  SPMT_RESERVE(eh, out, SparseKind::sm_compressed, a.order, a.used);
  if (eh.terminate()) return;
  for (std::size_t p = 0; p < static_cast<std::size_t>(a.used); ++p) {
    out.index[p] = static_cast<std::int32_t>(a.column[p] - 1);
    out.start[static_cast<std::size_t>(a.row[p])] = static_cast<std::int64_t>(p) + 1;
  }
  out.values = std::move(a.values);
  a = std::move(out);
}

/// L_TRANSPOSE: turns rows into columns or back.  Read in rising order, the other side comes out in rising
/// order.
void L_TRANSPOSE(ERROR_HANDLER& eh, SPARSE_MTX_LLIST& a)
{
  const Frame here{eh, __func__};
  const SparseKind kind =
      a.kind == SparseKind::sm_compressed ? SparseKind::sm_compressed_reverse : SparseKind::sm_compressed;
  SPARSE_MTX_LLIST out;
  SPMT_RESERVE(eh, out, kind, a.order, a.used);
  if (eh.terminate()) return;
  for (std::size_t p = 0; p < static_cast<std::size_t>(a.used); ++p)
    ++out.start[static_cast<std::size_t>(a.index[p]) + 1];
  for (std::size_t k = 0; k < static_cast<std::size_t>(a.order); ++k) out.start[k + 1] += out.start[k];
  std::vector<std::int64_t> to;
  if (!assign(eh, to, a.order)) return;
  std::copy(out.start.begin(), out.start.end() - 1, to.begin());
  for (std::size_t k = 0; k < static_cast<std::size_t>(a.order); ++k) {
    for (auto p = static_cast<std::size_t>(a.start[k]); p < static_cast<std::size_t>(a.start[k + 1]); ++p) {
      const auto q = static_cast<std::size_t>(to[static_cast<std::size_t>(a.index[p])]++);
      out.index[q] = static_cast<std::int32_t>(k);
      out.values[q] = a.values[p];
    }
  }
  a = std::move(out);
}

/// L_ROWS_TO_TRIPLES: writes out the row of every element.
void L_ROWS_TO_TRIPLES(ERROR_HANDLER& eh, SPARSE_MTX_LLIST& a)
{
  const Frame here{eh, __func__};
  SPARSE_MTX_LLIST out;
  out.values = std::move(a.values);
  SPMT_RESERVE(eh, out, SparseKind::sm_sparse, a.order, a.used);
  if (eh.terminate()) {
    a.values = std::move(out.values);
    return;
  }
  for (std::size_t i = 0; i < static_cast<std::size_t>(a.order); ++i) {
    for (auto p = static_cast<std::size_t>(a.start[i]); p < static_cast<std::size_t>(a.start[i + 1]); ++p) {
      out.row[p] = static_cast<std::int64_t>(i) + 1;
      out.column[p] = a.index[p] + 1;
    }
  }
  a = std::move(out);
}

/// L_ROWS_TO_LIST: puts the diagonal first and chains the rest of each row.
void L_ROWS_TO_LIST(ERROR_HANDLER& eh, SPARSE_MTX_LLIST& a)
{
  const Frame here{eh, __func__};
  SPARSE_MTX_LLIST out;
  SPMT_RESERVE(eh, out, SparseKind::sm_linked_list, a.order, a.used);
  if (eh.terminate()) return;
  auto free = static_cast<std::size_t>(a.order);
  for (std::size_t i = 0; i < static_cast<std::size_t>(a.order); ++i) {
    const auto last = static_cast<std::size_t>(a.start[i + 1]) - 1;
    std::size_t tail = i;
    for (auto p = static_cast<std::size_t>(a.start[i]); p < last; ++p) {
      out.next[tail] = static_cast<std::int64_t>(free) + 1;
      out.row[free] = static_cast<std::int64_t>(i) + 1;
      out.column[free] = a.index[p] + 1;
      out.values[free] = a.values[p];
      tail = free++;
    }
    out.row[i] = out.column[i] = static_cast<std::int64_t>(i) + 1;
    out.values[i] = a.values[last];
  }
  a = std::move(out);
}

template <class T>
void release(std::vector<T>& a)
{
  std::vector<T>().swap(a);
}

}  // namespace

std::string_view sparse_kind_name(SparseKind kind)
{
  switch (kind) {
    case SparseKind::sm_linked_list:
      return "sm_linked_list";
    case SparseKind::sm_sparse:
      return "sm_sparse";
    case SparseKind::sm_compressed:
      return "sm_compressed";
    case SparseKind::sm_compressed_reverse:
      return "sm_compressed_reverse";
  }
  return "unknown";
}

void SPMT_RESERVE(ERROR_HANDLER& eh, SPARSE_MTX_LLIST& matrix, SparseKind kind, std::int64_t order,
                  std::int64_t elements)
{
  const Frame here{eh, __func__};
  matrix.kind = kind;
  matrix.order = order;
  matrix.used = elements;
  const bool compressed = kind == SparseKind::sm_compressed || kind == SparseKind::sm_compressed_reverse;
  const bool list = kind == SparseKind::sm_linked_list;
  for (std::vector<std::int64_t>* each : {&matrix.row, &matrix.column}) {
    if (compressed) release(*each);
    if (!compressed && !resize(eh, *each, elements)) return;
  }
  if (list && !resize(eh, matrix.next, elements)) return;
  if (!list) release(matrix.next);
  if (compressed) {
    if (!assign(eh, matrix.start, order + 1) || !resize(eh, matrix.index, elements)) return;
  } else {
    release(matrix.start);
    release(matrix.index);
  }
  resize(eh, matrix.values, elements);
}

void SPMT_CONVERT(ERROR_HANDLER& eh, SPARSE_MTX_LLIST& matrix, SparseKind kind)
{
  const Frame here{eh, __func__};
  if (matrix.kind == kind) return;
  if (matrix.kind == SparseKind::sm_linked_list) L_LIST_TO_ROWS(eh, matrix);
  if (matrix.kind == SparseKind::sm_sparse && !eh.terminate()) L_TRIPLES_TO_ROWS(eh, matrix);
  if (matrix.kind == SparseKind::sm_compressed_reverse && !eh.terminate()) L_TRANSPOSE(eh, matrix);
  if (eh.terminate() || matrix.kind == kind) return;
  if (kind == SparseKind::sm_linked_list) L_ROWS_TO_LIST(eh, matrix);
  if (kind == SparseKind::sm_sparse) L_ROWS_TO_TRIPLES(eh, matrix);
  if (kind == SparseKind::sm_compressed_reverse) L_TRANSPOSE(eh, matrix);
}

void SPMT_ADD(SPARSE_MTX_LLIST& matrix, std::int64_t i, std::int64_t j, double value)
{
  matrix.values[static_cast<std::size_t>(place_of(matrix, i, j))] += value;
}

double sparse_element(const SPARSE_MTX_LLIST& matrix, std::int64_t i, std::int64_t j)
{
  const std::int64_t at = place_of(matrix, i, j);
  return at < 0 ? 0.0 : matrix.values[static_cast<std::size_t>(at)];
}

}  // namespace tolvan
