// What a factorised node takes from the nodes further up, block by block: A -= L D L'.
#include <algorithm>

#include "base/lapack.h"
#include "estimation/supernode.h"

namespace tolvan {

namespace {

using std::int32_t;
using std::int64_t;

// The places of the source's rows begin .. end - 1 in the target.
void find_places(const ROW_PLACES& places, const int32_t* row, int64_t begin, int64_t end, int32_t* out)
{
  if (places.map != nullptr) {
    for (int64_t r = begin; r < end; ++r) out[r - begin] = places.map[row[r]];
  } else {
    for (int64_t r = begin; r < end; ++r) out[r - begin] = row[r] - places.first;
  }
}

// target(rows, c) -= sum over `Columns` columns of L(rows) D L(c).
template <int Columns>
void subtract_columns(const double* l, int64_t ld, const double* ld_of_c, int64_t from, int64_t to,
                      const ROW_PLACES& places, const int32_t* row, double* target)
{
  const auto value = [&](int64_t r) {
    double sum = l[r] * ld_of_c[0];
    for (int k = 1; k < Columns; ++k) sum += l[r + k * ld] * ld_of_c[k];
    return sum;
  };
  if (places.map != nullptr) {
    for (int64_t r = from; r < to; ++r) target[places.map[row[r]]] -= value(r);
  } else {
    for (int64_t r = from; r < to; ++r) target[row[r] - places.first] -= value(r);
  }
}

// The source's rows, from the block's first one on, that stand in the rows begin .. end - 1 of the target.
struct ROW_RANGE {
  int64_t from, to;
};
ROW_RANGE rows_within(const FACTOR& factor, const SBLOCK& block, int64_t begin, int64_t end)
{
  const SNODE& source = factor.nodes[block.source];
  const SNODE& node = factor.nodes[block.target];
  const int32_t* row = factor.row_list.data() + source.row_list;
  const int32_t* target_row = factor.row_list.data() + node.row_list;
  ROW_RANGE range{block.begin, source.rows};
  if (begin > 0) range.from = std::lower_bound(row + range.from, row + range.to, target_row[begin]) - row;
  if (end < node.rows) range.to = std::lower_bound(row + range.from, row + range.to, target_row[end]) - row;
  return range;
}

}  // namespace

void update_plain(const FACTOR& factor, const SBLOCK& block, const ROW_PLACES& places, double* target,
                  int64_t begin, int64_t end)
{
  const auto [from, to] = rows_within(factor, block, begin, end);
  if (from == to) return;
  const SNODE& source = factor.nodes[block.source];
  const SNODE& node = factor.nodes[block.target];
  const int32_t* row = factor.row_list.data() + source.row_list;
  const double* l = factor.panel.data() + source.panel;
  const int64_t ld = source.rows;
  const int32_t width = source.width();
  for (int32_t c = block.begin; c < block.end; ++c) {
    double* column = target + (row[c] - node.first) * node.rows;
    for (int32_t k = 0; k < width; k += 4) {
      const int32_t take = std::min(width - k, 4);
      const double* lk = l + k * ld;
      double scaled[4];
      for (int32_t i = 0; i < take; ++i) scaled[i] = lk[c + i * ld] * lk[k + i + i * ld];
      switch (take) {
        case 1:
          subtract_columns<1>(lk, ld, scaled, std::max<int64_t>(c, from), to, places, row, column);
          break;
        case 2:
          subtract_columns<2>(lk, ld, scaled, std::max<int64_t>(c, from), to, places, row, column);
          break;
        case 3:
          subtract_columns<3>(lk, ld, scaled, std::max<int64_t>(c, from), to, places, row, column);
          break;
        default:
          subtract_columns<4>(lk, ld, scaled, std::max<int64_t>(c, from), to, places, row, column);
      }
    }
  }
}

void scale_columns(const FACTOR& factor, const SBLOCK& block, NODE_WORK& work)
{
  const SNODE& source = factor.nodes[block.source];
  const double* l = factor.panel.data() + source.panel;
  const int64_t ld = source.rows, columns = block.end - block.begin;
  for (int64_t k = 0; k < source.width(); ++k) {
    const double d = l[k + k * ld];
    const double* from_l = l + block.begin + k * ld;
    double* scaled = work.scaled.data() + k * columns;
#pragma omp simd
    for (int64_t c = 0; c < columns; ++c) scaled[c] = from_l[c] * d;
  }
}

void update_blocked(const FACTOR& factor, const SBLOCK& block, const ROW_PLACES& places, double* target,
                    int64_t begin, int64_t end, NODE_WORK& work)
{
  const SNODE& source = factor.nodes[block.source];
  const SNODE& node = factor.nodes[block.target];
  const int32_t* row = factor.row_list.data() + source.row_list;
  const double* l = factor.panel.data() + source.panel;
  const int64_t ld = source.rows;
  const int64_t width = source.width(), columns = block.end - block.begin;

  const auto [from, to] = rows_within(factor, block, begin, end);
  const int64_t rows = to - from;
  if (rows == 0) return;

  const int64_t first_place = places(row[from]), first_column = row[block.begin] - node.first;
  if (places(row[to - 1]) - first_place == rows - 1 && row[block.end - 1] - row[block.begin] == columns - 1) {
    double* at = target + first_place + first_column * node.rows;
    const int64_t corner = std::clamp<int64_t>(block.end, from, to);  // above it the lower triangle alone is wanted
    for (int64_t c = 0; from < corner && c < columns; c += triangle_columns) {
      const int64_t r = std::max(from, block.begin + c), run = std::min(triangle_columns, columns - c);
      if (r >= corner) break;
      dgemm('N', 'T', corner - r, run, width, -1.0, l + r, ld, work.scaled.data() + c, columns, 1.0,
            at + (r - from) + c * node.rows, node.rows);
    }
    if (corner < to) {
      dgemm('N', 'T', to - corner, columns, width, -1.0, l + corner, ld, work.scaled.data(), columns, 1.0, at + (corner - from),
            node.rows);
    }
    return;
  }
  dgemm('N', 'T', rows, columns, width, 1.0, l + from, ld, work.scaled.data(), columns, 0.0,
        work.product.data(), rows);
  find_places(places, row, from, to, work.places.data());
  const int32_t* place = work.places.data();
  for (int64_t c = 0; c < columns; ++c) {
    double* column = target + (row[block.begin + c] - node.first) * node.rows;
    const double* product = work.product.data() + c * rows;
    for (int64_t r = std::max<int64_t>(0, block.begin + c - from); r < rows; ++r)
      column[place[r]] -= product[r];
  }
}

}  // namespace tolvan
