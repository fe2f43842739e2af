// The last steps of every record that was read from a file, of whatever kind.  Routine: TAKE_RECORD.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "api/error_handler.h"
#include "data/data_store.h"
#include "data/field_map.h"
#include "data/select_records.h"

namespace tolvan {

/// A file on its way into the store.
struct RECORD_INTAKE {
  const DATA_FILE_KEYS& keys;
  FIELD_VALUES values;
  DATA_STORE& store;
  FIELD_MAP fields{};
  SELECTION selection{};
  bool kept = true;           // what the field of the selection said of the record in hand
  std::vector<double> row{};  // the working row
  std::int64_t records = 0;   // read so far

  bool complete() const { return keys.most_records > 0 && records >= keys.most_records; }
};

/// L_PREPARE_INTAKE: lays out the working row, the map of the fields and the selection.
void L_PREPARE_INTAKE(ERROR_HANDLER& eh, RECORD_INTAKE& intake);

/// TAKE_RECORD: tells the first records where asked, runs the transformations, applies the selection and
/// writes the working row to the store.
///   source   the line it was read from; empty for a binary file
void TAKE_RECORD(ERROR_HANDLER& eh, RECORD_INTAKE& intake, std::string_view source);

}  // namespace tolvan
