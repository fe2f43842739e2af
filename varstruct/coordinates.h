// The places of the levels of a distance model, from the records.  Routine: AIDPOW.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "api/error_handler.h"
#include "varstruct/parameter_table.h"

namespace tolvan {

/// Levels by place.
struct PLACES {
  COORDINATES at;                   // of each level
  std::vector<std::int64_t> level;  // of each record, from 0
};

/// AIDPOW: finds the places that the records of a section or term tell, and the level of each record.
///   x, y    of the records; y empty in one dimension
///   levels  of the row: as many as records, and each record is a level of its own, in their order, wherever
///   it lies; fewer, and
///           the levels are the distinct places sorted by x, then y, each of them in equally many records
/// Every failure is an error; who set the row up adds which one it was.
void AIDPOW(ERROR_HANDLER& eh, std::span<const double> x, std::span<const double> y, std::int64_t levels,
            PLACES& places);

}  // namespace tolvan
