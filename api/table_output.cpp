// What an output ID gives as JSON: OTST_OUTPUT_JSON.
#include "api/table_store.h"
#include "base/text.h"

namespace tolvan {

namespace {

// A table, one of its parts, or a scalar, named by one or two parts; nothing if there is no such output.
// An unknown column raises its own message unless the ID is optional.
std::string output_of(ERROR_HANDLER& eh, const OUTPUT_TABLE_STORE& store, std::span<const std::string> parts,
                      TableValues values, bool optional, bool& found)
{
  found = false;
  if (parts.empty() || parts.size() > 2) return {};
  const OUTPUT_TABLE* table = store.find_table(parts[0]);
  if (table == nullptr) {
    const OUTPUT_SCALAR* scalar = store.find_scalar(parts[0]);
    if (scalar == nullptr || parts.size() > 1) return {};
    found = true;
    return OST_TO_JSTR(eh, *scalar);
  }
  found = true;
  if (parts.size() == 1) return OTT_TO_JSTR(eh, *table, values);
  if (equal_nocase(parts[1], "TITLES")) return OTT_TITLES_TO_JSTR(eh, *table);
  if (equal_nocase(parts[1], "FOOTNOTES")) return OTT_FOOTNOTES_TO_JSTR(eh, *table);
  if (optional && table->find_column(parts[1]) == 0) return {};
  return OTT_TABLE_COLUMN_TO_JSTR(eh, *table, parts[1], values);
}

}  // namespace

OUTPUT_ID split_output_id(std::string_view id)
{
  OUTPUT_ID out;
  constexpr std::string_view lead = "OPTIONAL";
  const auto first_end = id.find(':');
  if (equal_nocase(rtrim(id.substr(0, first_end)), lead)) {
    out.optional = true;
    id = first_end == std::string_view::npos ? std::string_view() : id.substr(first_end + 1);
  }
  out.full = rtrim(id);
  for (const std::string& part : split(id, ':')) out.parts.emplace_back(rtrim(part));
  return out;
}

std::string OTST_OUTPUT_JSON(ERROR_HANDLER& eh, const OUTPUT_TABLE_STORE& store, std::string_view id)
{
  const Frame here{eh, __func__};
  const OUTPUT_ID wanted = split_output_id(id);
  const bool full = equal_nocase(wanted.parts[0], "AVAILABLE_OUTPUT_FULL");
  const bool directory = equal_nocase(wanted.parts[0], "AVAILABLE_OUTPUT");
  const TableValues values = directory ? TableValues::left_out : TableValues::included;
  auto parts = std::span<const std::string>(wanted.parts);
  if (full || directory) {
    parts = parts.subspan(1);
    if (parts.empty()) return OTST_TO_JSTR(eh, store, values);
  }
  bool found = false;
  std::string document = output_of(eh, store, parts, values, wanted.optional, found);
  if (!found && !wanted.optional) {
    eh.error(text("the output information with ID ", wanted.full, " can not be output via JSON"));
  }
  return document;
}

}  // namespace tolvan
