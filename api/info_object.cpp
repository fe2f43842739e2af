#include "api/info_object.h"

#include "api/table_store.h"
#include "api/version.h"
#include "base/json.h"
#include "base/text.h"

namespace tolvan {

std::unique_ptr<INFO_OBJECT> ALLOCATE_INFO_OBJECT(ERROR_HANDLER& eh)
{
  const Frame here{eh, __func__};
  return std::make_unique<INFO_OBJECT>();
}

std::string version_information()
{
  JsonNode root(JsonType::object);
  JsonNode& version = root.add("version_information", JsonType::object);
  JsonNode& number = version.add("number", JsonType::object);
  number.add_value("major", version_major);
  number.add_value("minor", version_minor);
  number.add_value("patch", version_patch);
  number.add_value("build", version_build);
  version.add_value("tagstr", version_tag);
  version.add_value("product_name", "tolvan_p");
  const build_date date = date_of_build();
  version.add_value("year", date.year);
  version.add_value("month", date.month);
  version.add_value("day", date.day);
  return json_text(root);
}

std::string INFO_OUTPUT_JSON(ERROR_HANDLER& eh, const INFO_OBJECT& object, std::string_view id)
{
  const Frame here{eh, __func__};
  const OUTPUT_ID asked = split_output_id(id);
  if (asked.parts.size() == 1 && equal_nocase(asked.parts[0], "VERSION_INFORMATION"))
    return version_information();
  if (asked.parts.size() == 1 && equal_nocase(asked.parts[0], "ERROR_INFORMATION"))
    return object.errors.EH_TO_JSTR();
  if (!asked.optional) {
    eh.error(text("the output information with ID ", asked.full, " can not be output via JSON"));
  }
  return {};
}

}  // namespace tolvan
