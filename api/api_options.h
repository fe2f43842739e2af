// TLV_OPTIONS: the settings of a fit object that its documents may name, and the diagnostic prints they
// switch on. Routines: AOPT_FROM_JPTR, AOPT_TO_JSTR, AOT_CHECK_FOR_API_OPTIONS_FROM_JPTR,
// AOT_CHECK_FOR_API_OPTIONS_FROM_JSTR.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "api/error_handler.h"
#include "base/json.h"

namespace tolvan {

/// The bits of debug_level, each with the name under which it is asked for.
enum class DebugPrint : std::int64_t {
  standardised_json = 1 << 0,
  user_data = 1 << 1,
  model_structures = 1 << 2,
  einfo = 1 << 3,
  input_json = 1 << 4,
  all_output_full = 1 << 5,
  all_output_info = 1 << 6,
  intermediate_timings = 1 << 7,
  timings = 1 << 8,
  data_summary = 1 << 9,
};
/// A set that has the bit of a name in any case ("STANDARDISED_JSON", ...); false for an unknown name.
bool debug_print_named(std::int64_t debug_level, std::string_view name);

struct TLV_OPTIONS {
  bool clean_up_sa_files = true;
  std::int64_t debug_level = 0;
  std::string tmp_file_root = "TEMP_SOMETHING";
  std::int64_t data_memory = -1;  // bytes of data rows held in memory; -1: half of what the machine has left

  // What a document wrote itself, apart from the defaults.
  bool clean_up_asked = false;  // clean_up_sa_files was written, and true
  bool root_named = false;      // tmp_file_root was written

  bool prints(DebugPrint bit) const { return (debug_level & static_cast<std::int64_t>(bit)) != 0; }
};

/// AOPT_FROM_JPTR: takes up the three settings that stand in an object node, and removes them from it if
/// asked.
void AOPT_FROM_JPTR(ERROR_HANDLER& eh, JsonNode& node, bool remove, TLV_OPTIONS& options);
/// AOPT_TO_JSTR: the document {"options":{...}} of the settings.
std::string AOPT_TO_JSTR(ERROR_HANDLER& eh, const TLV_OPTIONS& options);
/// AOT_CHECK_FOR_API_OPTIONS_FROM_JPTR: takes up the settings of a document's api_options, which is removed,
/// and options, which stays; warns of anything else in api_options.  A value of the wrong kind changes
/// nothing.
void AOT_CHECK_FOR_API_OPTIONS_FROM_JPTR(ERROR_HANDLER& eh, JsonNode& root, TLV_OPTIONS& options);
/// AOT_CHECK_FOR_API_OPTIONS_FROM_JSTR: the same for a text, which must be a JSON object.
void AOT_CHECK_FOR_API_OPTIONS_FROM_JSTR(ERROR_HANDLER& eh, std::string_view json, TLV_OPTIONS& options);

}  // namespace tolvan
