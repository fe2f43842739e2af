#include "data/data_file_keys.h"

#include <algorithm>
#include <array>

#include "base/text.h"
#include "data/request_values.h"
#include "model/request.h"

namespace tolvan {

namespace {

constexpr std::array keys_not_built = {"rskip",  "recode", "print",   "save",
                                       "filter", "select", "exclude", "format"};
constexpr std::array binary_extensions = {".bin", ".srs", ".dbl", ".drs", ".dpr"};

bool has_extension(const std::string& name, std::string_view extension)
{
  return name.size() >= extension.size() && lower(name).ends_with(extension);
}

/// L_READ_TYPE: the file type, told by the extension where it isn't given; only ft_csv is read.
void L_READ_TYPE(ERROR_HANDLER& eh, const JsonNode& data_file, const std::string& name)
{
  const Frame here{eh, __func__};
  const JsonNode* type = given_value(data_file, "type");
  if (type == nullptr) {
    const bool binary = std::any_of(binary_extensions.begin(), binary_extensions.end(),
                                    [&name](const char* e) { return has_extension(name, e); });
    if (binary) {
      eh.not_implemented(text("reading the binary data file ", name, " is not implemented"));
    } else if (!has_extension(name, ".csv")) {
      eh.not_implemented(text("data_file type ft_text, taken for ", name, ", is not implemented"));
    }
    return;
  }
  if (type->is_text("ft_csv")) return;
  if (type->is_text("ft_text")) {
    eh.not_implemented("data_file type ft_text is not implemented");
    return;
  }
  REPORT_JSON_ERROR(eh, *type, {"ft_csv", "ft_text"});
}

/// Splits "text:k" into the text and the number of the instance meant.
void read_skip_text(const std::string& given, DATA_FILE_KEYS& keys)
{
  keys.skip_text = given;
  const std::size_t colon = given.rfind(':');
  if (colon == std::string::npos || colon == 0) return;
  std::int64_t instance = 0;
  if (read_integer(given.substr(colon + 1), instance) && instance > 0) {
    keys.skip_text = given.substr(0, colon);
    keys.skip_instance = instance;
  }
}

}  // namespace

void L_READ_DATA_FILE_KEYS(ERROR_HANDLER& eh, const JsonNode& data_file, DATA_FILE_KEYS& keys)
{
  const Frame here{eh, __func__};
  const JsonNode* name = given_value(data_file, "name");
  if (name == nullptr) {
    REPORT_JSON_ERROR(eh, data_file, "name");
    return;
  }
  if (!name->is(JsonType::string) || name->text().empty()) {
    REPORT_JSON_ERROR(eh, *name, {"the name of a file"});
    return;
  }
  keys.name = name->text();
  L_READ_TYPE(eh, data_file, keys.name);
  if (eh.terminate()) return;
  for (const char* key : keys_not_built) {
    if (!asks_for_something(given_value(data_file, key))) continue;
    eh.not_implemented(text("the key ", key, " of data_file is not implemented"));
    return;
  }
  if (const JsonNode* skip = given_value(data_file, "skip"); skip != nullptr) {
    if (skip->is(JsonType::integer) && skip->integer() >= 0) {
      keys.skip_lines = skip->integer();
    } else if (skip->is(JsonType::string)) {
      read_skip_text(skip->text(), keys);
    } else if (asks_for_something(skip)) {
      REPORT_JSON_ERROR(eh, *skip, {"a number of lines", "a text"});
      return;
    }
  }
  if (const JsonNode* most = given_value(data_file, "rrec"); asks_for_something(most)) {
    if (!most->is(JsonType::integer) || most->integer() < 0) {
      REPORT_JSON_ERROR(eh, *most, {"a number of records"});
      return;
    }
    keys.most_records = most->integer();
  }
  // 1 asks for data in memory, which is how they are held.
  if (const JsonNode* noscratch = given_value(data_file, "noscratch");
      asks_for_something(noscratch) && noscratch->integer() != 1) {
    eh.not_implemented("the key noscratch of data_file is not implemented");
  }
}

}  // namespace tolvan
