// The description of a data file in the request.  Routine: L_READ_DATA_FILE_KEYS.
#pragma once

#include <cstdint>
#include <string>

#include "api/error_handler.h"
#include "base/json.h"

namespace tolvan {

struct DATA_FILE_KEYS {
  std::string name;
  std::int64_t skip_lines = 0;
  std::string skip_text;           // skip all lines up to one that holds it; empty: none
  std::int64_t skip_instance = 1;  // and this is the one
  std::int64_t most_records = 0;   // 0: all
};

/// L_READ_DATA_FILE_KEYS: reads the keys of data_file; code 4 for those that ask for what isn't built.
void L_READ_DATA_FILE_KEYS(ERROR_HANDLER& eh, const JsonNode& data_file, DATA_FILE_KEYS& keys);

}  // namespace tolvan
