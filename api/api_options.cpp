#include "api/api_options.h"

#include <array>

#include "api/fit_options_values.h"
#include "base/text.h"

namespace tolvan {
namespace {

struct DebugName {
  std::string_view name;
  DebugPrint bit;
};
constexpr std::array debug_names = {
    DebugName{"STANDARDISED_JSON", DebugPrint::standardised_json},
    DebugName{"USER_DATA", DebugPrint::user_data},
    DebugName{"MODEL_STRUCTURES", DebugPrint::model_structures},
    DebugName{"EINFO", DebugPrint::einfo},
    DebugName{"INPUT_JSON", DebugPrint::input_json},
    DebugName{"ALL_OUTPUT_FULL", DebugPrint::all_output_full},
    DebugName{"ALL_OUTPUT_INFO", DebugPrint::all_output_info},
    DebugName{"INTERMEDIATE_TIMINGS", DebugPrint::intermediate_timings},
    DebugName{"TIMINGS", DebugPrint::timings},
    DebugName{"DATA_SUMMARY", DebugPrint::data_summary},
};

/// L_READ_SETTING: reads one child of an options object; false if it is none of the three settings.
bool L_READ_SETTING(ERROR_HANDLER& eh, const JsonNode& node, TLV_OPTIONS& options)
{
  const Frame here{eh, __func__};
  if (node.name == "clean_up_sa_files") {
    GET_VALUE_FROM_JPTR_LOGICAL(eh, node, options.clean_up_sa_files);
    options.clean_up_asked = options.clean_up_sa_files;
  } else if (node.name == "debug_level") {
    GET_VALUE_FROM_JPTR_INTEGER(eh, node, 1023, options.debug_level);
  } else if (node.name == "tmp_file_root") {
    GET_VALUE_FROM_JPTR_STRING(eh, node, options.tmp_file_root);
    options.root_named = true;
  } else {
    return false;
  }
  if (eh.terminate()) eh.error(text("invalid value supplied for option ", node.name));
  return true;
}

}  // namespace

bool debug_print_named(std::int64_t debug_level, std::string_view name)
{
  const std::string wanted = upper(rtrim(name));
  for (const DebugName& each : debug_names) {
    if (each.name == wanted) return (debug_level & static_cast<std::int64_t>(each.bit)) != 0;
  }
  return false;
}

void AOPT_FROM_JPTR(ERROR_HANDLER& eh, JsonNode& node, bool remove, TLV_OPTIONS& options)
{
  const Frame here{eh, __func__};
  if (!node.is(JsonType::object)) {
    eh.error(text("invalid value supplied for ", json_path(node), ", was expecting an object"));
    return;
  }
  for (std::size_t k = 0; k < node.children().size();) {
    JsonNode* child = node.children()[k].get();
    const bool read = L_READ_SETTING(eh, *child, options);
    if (eh.terminate()) return;
    if (read && remove)
      node.detach(child);
    else
      ++k;
  }
}

std::string AOPT_TO_JSTR(ERROR_HANDLER& eh, const TLV_OPTIONS& options)
{
  const Frame here{eh, __func__};
  JsonNode root(JsonType::object);
  JsonNode& node = root.add("options", JsonType::object);
  node.add_value("clean_up_sa_files", options.clean_up_sa_files);
  node.add_value("debug_level", options.debug_level);
  node.add_value("tmp_file_root", options.tmp_file_root);
  return json_text(root);
}

void AOT_CHECK_FOR_API_OPTIONS_FROM_JPTR(ERROR_HANDLER& eh, JsonNode& root, TLV_OPTIONS& options)
{
  const Frame here{eh, __func__};
  TLV_OPTIONS taken = options;
  while (JsonNode* api = root.find("api_options")) {
    AOPT_FROM_JPTR(eh, *api, true, taken);
    if (eh.terminate()) return;
    for (const auto& left : api->children()) {
      eh.EH_ADD_MESSAGE({.text = text(json_path(*left), " is not a recognised key"),
                         .etype = Etype::warning,
                         .ecode = Ecode::invalid_input});
    }
    root.detach(api);
  }
  for (const auto& each : root.children()) {
    if (each->name != "options") continue;
    AOPT_FROM_JPTR(eh, *each, false, taken);
    if (eh.terminate()) return;
  }
  options = std::move(taken);
}

void AOT_CHECK_FOR_API_OPTIONS_FROM_JSTR(ERROR_HANDLER& eh, std::string_view json, TLV_OPTIONS& options)
{
  const Frame here{eh, __func__};
  JsonError error;
  const auto root = parse_json(json, error);
  if (root == nullptr) {
    eh.error(error.message, Ecode::invalid_json);
    return;
  }
  if (!root->is(JsonType::object)) {
    eh.error("the JSON document is not an object", Ecode::invalid_json);
    return;
  }
  AOT_CHECK_FOR_API_OPTIONS_FROM_JPTR(eh, *root, options);
}

}  // namespace tolvan
