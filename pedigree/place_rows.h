// Rows behind those of their parents: the order, the rows on loops, the renumbering.
// Routines: L_PLACE_ROWS, L_FIND_LOOPS, L_PERMUTE_ROWS.
#pragma once

#include <cstdint>
#include <vector>

#include "api/error_handler.h"
#include "pedigree/check_pedigree.h"

namespace tolvan {

/// An order of the rows, from 0.
struct PLACEMENT {
  std::vector<std::int32_t> order;  // the rows that could be placed
  std::vector<std::int32_t> moved;  // those that had to wait for a parent, in the order of the input
  std::vector<bool> placed;
  bool complete() const { return order.size() == placed.size(); }
};

/// Whether every row stands behind its parents.
bool parents_first(const PEDIGREE& pedigree);

/// L_PLACE_ROWS: lists the rows so that each follows its parents: a row that waits is placed as soon as the
/// last of them is, and its own progeny directly behind it.  Linear in the rows; only what is on a loop or
/// descends from one is left out.
void L_PLACE_ROWS(ERROR_HANDLER& eh, const PEDIGREE& pedigree, PLACEMENT& out);

/// L_FIND_LOOPS: of the rows that could not be placed those that do not merely descend from a loop.
void L_FIND_LOOPS(ERROR_HANDLER& eh, const PEDIGREE& pedigree, const PLACEMENT& placement,
                  std::vector<std::int32_t>& rows);

/// L_PERMUTE_ROWS: brings the rows into an order of all of them and renumbers the parents.
void L_PERMUTE_ROWS(ERROR_HANDLER& eh, const std::vector<std::int32_t>& order, PEDIGREE& pedigree);

}  // namespace tolvan
