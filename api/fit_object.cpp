// The life and the inputs of a fit object, and what it answers; the merging is in merge_request.cpp.
#include "api/fit_object.h"

#include "base/text.h"

namespace tolvan {
namespace {

bool is_part(const OUTPUT_ID& id, std::string_view name)
{
  return equal_nocase(rtrim(id.parts[0]), name);
}

std::string no_such_output(ERROR_HANDLER& eh, const OUTPUT_ID& id)
{
  if (!id.optional) eh.error(text("the output information with ID ", id.full, " can not be output via JSON"));
  return {};
}

/// What every object with tables answers.
std::string errors_or_tables(ERROR_HANDLER& eh, const ERROR_HANDLER& errors, const OUTPUT_TABLE_STORE& tables,
                             std::string_view id)
{
  const OUTPUT_ID asked = split_output_id(id);
  if (!is_part(asked, "ERROR_INFORMATION")) return OTST_OUTPUT_JSON(eh, tables, id);
  return asked.parts.size() == 1 ? errors.EH_TO_JSTR() : no_such_output(eh, asked);
}

}  // namespace

std::unique_ptr<TLV_OBJECT> ALLOCATE_TLV_OBJECT(ERROR_HANDLER& eh)
{
  const Frame here{eh, __func__};
  return std::make_unique<TLV_OBJECT>();
}

void TLV_MT_STORE_JSTR(ERROR_HANDLER& eh, TLV_OBJECT& object, std::string_view json)
{
  const Frame here{eh, __func__};
  SAT_ADD_STRING(eh, object.documents, json);
}

void TLV_CHECK(ERROR_HANDLER& eh, const TLV_OBJECT&)
{
  const Frame here{eh, __func__};
}

void AOT_REGISTER_FUNCTION(ERROR_HANDLER& eh, TLV_OBJECT& object, MonitorFunction function,
                           std::string_view kind)
{
  const Frame here{eh, __func__};
  CT_REGISTER_FUNCTION(eh, object.communication, function, kind);
}

std::string AOT_GET_INFO_FROM_JSON(ERROR_HANDLER& eh, JsonNode& request, const OUTPUT_ID& id)
{
  const Frame here{eh, __func__};
  if (!is_part(id, "INPUT_JSON") && !is_part(id, "STANDARDISED_JSON")) {
    eh.internal(
        text("only expected to get here when looking for INPUT_JSON, what we are looking for is ", id.full));
    return {};
  }
  JsonNode* node = &request;
  for (std::size_t k = 1; node != nullptr && k < id.parts.size(); ++k)
    node = json_walk(*node, rtrim(id.parts[k]));
  if (node == nullptr) return no_such_output(eh, id);
  return json_text(*node);
}

std::string AOT_OUTPUT_JSON(ERROR_HANDLER& eh, const ERROR_HANDLER& errors, const OUTPUT_TABLE_STORE& tables,
                            std::string_view id)
{
  const Frame here{eh, __func__};
  return errors_or_tables(eh, errors, tables, id);
}

std::string AOT_OUTPUT_JSON(ERROR_HANDLER& eh, const TLV_OBJECT& object, std::string_view id)
{
  const Frame here{eh, __func__};
  const OUTPUT_ID asked = split_output_id(id);
  if (is_part(asked, "CURRENT_OPTIONS")) {
    return asked.parts.size() == 1 ? AOPT_TO_JSTR(eh, object.options) : no_such_output(eh, asked);
  }
  if (!is_part(asked, "INPUT_JSON") && !is_part(asked, "STANDARDISED_JSON")) {
    return errors_or_tables(eh, object.errors, object.tables, id);
  }
  if (object.request != nullptr) return AOT_GET_INFO_FROM_JSON(eh, *object.request, asked);
  const auto merged = AOT_GET_FULL_JSTR(eh, object, "");
  if (eh.terminate()) return {};
  return AOT_GET_INFO_FROM_JSON(eh, *merged, asked);
}

std::string fit_object_text(const TLV_OBJECT& object)
{
  ERROR_HANDLER eh;
  std::string out = text("TLV_OBJECT\n", "options: ", AOPT_TO_JSTR(eh, object.options), "\n",
                         "documents: ", object.documents.size(), "\n");
  for (const std::string& each : object.documents.elements) out += text("  ", each, "\n");
  out += text("monitor: ", object.communication.monitor == nullptr ? "none" : "registered", "\n");
  out += UDST_DUMP(object.datasets);
  if (!out.ends_with('\n')) out += '\n';
  out += text("output: ", OTST_TO_JSTR(eh, object.tables, TableValues::left_out), "\n");
  out += text("request: ", object.request == nullptr ? "none" : json_text(*object.request), "\n");
  out += object.errors.EH_PRINT_TEXT(true, true, true);
  return out;
}

}  // namespace tolvan
