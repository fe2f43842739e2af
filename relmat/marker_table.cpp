// Routine: L_FINISH_TABLE.
#include "relmat/marker_table.h"

#include <cmath>

#include "base/memory.h"
#include "relmat/marker_files.h"

namespace tolvan {
namespace {

/// L_PACK_CODES: turns a table of bytes into columns of codes.
///   by_marker   its lines are markers
void L_PACK_CODES(ERROR_HANDLER& eh, MARKER_TABLE& table, bool by_marker, MARKER_DATA& out)
{
  const Frame here{eh, __func__};
  const std::int64_t g = out.source_genotypes;
  const std::int64_t bytes = out.column_bytes();
  if (!assign(eh, out.codes, bytes * out.regressors)) return;
  const std::int64_t row_step = by_marker ? 1 : table.width();
  const std::int64_t column_step = by_marker ? table.width() : 1;
  const std::int8_t* const from = table.bytes().data();
  constexpr std::int64_t tile = 64;  // columns at a time, so that lines are read in pieces of a cache line
  for (std::int64_t first = 0; first < out.regressors; first += tile) {
    const std::int64_t last = std::min(first + tile, out.regressors);
    for (std::int64_t i = 0; i < g; ++i) {
      for (std::int64_t j = first; j < last; ++j) {
        const std::int8_t x = from[i * row_step + j * column_step];
        const unsigned code = x == 0 ? no_copy : x == 1 ? one_copy : x == 2 ? two_copies : missing_code;
        out.codes[static_cast<std::size_t>(j * bytes + i / 4)] |= static_cast<std::uint8_t>(code << (2 * (i % 4)));
      }
    }
  }
  std::vector<std::int8_t>().swap(table.bytes());
}

}  // namespace

void L_FINISH_TABLE(ERROR_HANDLER& eh, MARKER_TABLE& table, bool by_marker, bool declared_counts, MARKER_DATA& out)
{
  const Frame here{eh, __func__};
  out.source_genotypes = out.genotypes = by_marker ? table.width() : table.lines();
  out.regressors = by_marker ? table.lines() : table.width();
  out.coded = declared_counts ? table.may_hold_counts() : table.holds_counts();
  if (out.coded && table.in_bytes()) return L_PACK_CODES(eh, table, by_marker, out);
  if (table.in_bytes()) table.widen();
  out.values = std::move(table.numbers());
  out.row_step = by_marker ? 1 : table.width();
  out.column_step = by_marker ? table.width() : 1;
  if (!out.coded) return;
  for (double& x : out.values) {
    if (x < 0.0 || x > 2.0) x = std::nan("");
  }
}

}  // namespace tolvan
