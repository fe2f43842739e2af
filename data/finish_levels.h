// Levels of factors once all records are read: sorted, in the order of a matrix, counted.
// Routines: L_FINISH_LEVELS, REORDD.
#pragma once

#include <cstdint>
#include <vector>

#include "api/error_handler.h"
#include "data/data_store.h"
#include "data/level_coding.h"
#include "data/variable_table.h"

namespace tolvan {

/// New level numbers by old ones, both from 1; empty where they stay.
using LEVEL_MAP = std::vector<std::int64_t>;

/// REORDD: rewrites columns of the working data in one pass.
///   maps   one a column; it must know every level that the column holds
void REORDD(ERROR_HANDLER& eh, const std::vector<const LEVEL_MAP*>& maps, DATA_STORE& store);

/// L_FINISH_LEVELS: sorts levels where asked, puts factors that follow a matrix into the order of its labels,
/// completes level counts and labels, warns of more levels than were declared.
void L_FINISH_LEVELS(ERROR_HANDLER& eh, const LEVEL_CODING& coding, VARIABLE_TABLE& table, DATA_STORE& store);

}  // namespace tolvan
