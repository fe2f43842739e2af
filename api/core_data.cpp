#include "api/core_data.h"

#include <array>

#include "base/text.h"

namespace tolvan {
namespace {

constexpr std::int64_t run_mode_api = 2;

bool option_asks(const JsonNode& node)
{
  switch (node.type()) {
    case JsonType::logical:
      return node.logical();
    case JsonType::integer:
      return node.integer() > 0;
    case JsonType::string:
      return !is_blank(node.text());
    default:
      return false;
  }
}

}  // namespace

std::string run_mode_name(std::int64_t mode)
{
  switch (mode) {
    case 0:
      return "<UNKNOWN>";
    case 1:
      return "stand alone";
    case run_mode_api:
      return "API";
    case 3:
      return "python";
    default:
      return text(" (<INVALID>", mode, ")");
  }
}

std::string key_that_asks_for_files(const CORE_DATA& core)
{
  // A root whose files are deleted after the run asks for none that anybody could see.
  if (core.api_options.root_named && !core.api_options.clean_up_asked) return "tmp_file_root";
  const JsonNode* options = core.request.find("options");
  if (options == nullptr || !options->is(JsonType::object)) return {};
  constexpr std::array<const char*, 7> keys = {"outfolder", "continue", "final", "tsv", "msv", "logfile", "cmat"};
  for (const char* key : keys) {
    const JsonNode* node = options->find(key);
    if (node != nullptr && option_asks(*node)) return key;
  }
  return {};
}

void CDT_INITIALISE(ERROR_HANDLER& eh, CORE_DATA& core)
{
  const Frame here{eh, __func__};
  core.communication.run_mode = run_mode_api;
  core.communication.OUTPUT_TO_FILE = !key_that_asks_for_files(core).empty();
  core.file_root = core.api_options.tmp_file_root;
  core.timing.intermediate = core.prints(DebugPrint::intermediate_timings);
}

}  // namespace tolvan
