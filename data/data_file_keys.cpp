#include "data/data_file_keys.h"

#include "base/text.h"
#include "data/label_text.h"
#include "data/request_values.h"
#include "model/request.h"

namespace tolvan {

namespace {

/// The kinds of files to write, by the number that asks for each.
constexpr std::array save_kinds = {FileKind::bin, FileKind::dbl, FileKind::srs,
                                   FileKind::dpr, FileKind::drs, FileKind::csv};

/// L_READ_TYPE: the kind of the file: by its type, or by its extension where that isn't given.
void L_READ_TYPE(ERROR_HANDLER& eh, const JsonNode& data_file, DATA_FILE_KEYS& keys)
{
  const Frame here{eh, __func__};
  if (const JsonNode* type = given_value(data_file, "type"); type != nullptr) {
    if (type->is_text("ft_csv")) {
      keys.kind = FileKind::csv;
    } else if (type->is_text("ft_text")) {
      keys.kind = FileKind::text;
    } else {
      REPORT_JSON_ERROR(eh, *type, {"ft_csv", "ft_text"});
    }
    return;
  }
  keys.kind = FileKind::text;
  const std::string name = lower(keys.name);
  for (const KIND_ROW& row : file_kinds) {
    if (row.extension.empty() || name.size() < row.extension.size()) continue;
    if (name.ends_with(row.extension)) keys.kind = row.kind;
  }
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

/// L_READ_SKIP: reads what stands in front of the data.  The file is read once, so that rskip, the skip of a
/// repeat read, stands in where there is no skip.
void L_READ_SKIP(ERROR_HANDLER& eh, const JsonNode& data_file, DATA_FILE_KEYS& keys)
{
  const Frame here{eh, __func__};
  const JsonNode* skip = given_value(data_file, "skip");
  const JsonNode* repeat = given_value(data_file, "rskip");
  if (asks_for_something(repeat)) {
    if (asks_for_something(skip)) {
      eh.warning(text("rskip of data_file is not used, ", keys.name, " is read once and skip is given"));
    } else {
      skip = repeat;
    }
  }
  if (skip == nullptr) return;
  if (skip->is(JsonType::integer) && skip->integer() >= 0) {
    keys.skip_lines = skip->integer();
  } else if (skip->is(JsonType::string)) {
    read_skip_text(skip->text(), keys);
  } else if (asks_for_something(skip)) {
    REPORT_JSON_ERROR(eh, *skip, {"a number of lines", "a text"});
  }
}

/// L_READ_SELECT_VALUE: reads the value of select or exclude.
void L_READ_SELECT_VALUE(ERROR_HANDLER& eh, const JsonNode& data_file, std::string_view key,
                         SELECT_VALUE& value)
{
  const Frame here{eh, __func__};
  const JsonNode* node = given_value(data_file, key);
  if (node == nullptr) return;
  if (node->is_number()) {
    value.number = node->number();
  } else if (node->is(JsonType::string)) {
    if (node->text().empty()) return;
    value.is_text = true;
    value.text = node->text();
  } else {
    REPORT_JSON_ERROR(eh, *node, {"a string", "a number"});
    return;
  }
  value.given = true;
}

/// L_READ_SELECTION: reads filter, select and exclude.  One of filter and the value must be a number: labels
/// are compared with a field of the file as it stands there, numbers also with a variable.
void L_READ_SELECTION(ERROR_HANDLER& eh, const JsonNode& data_file, DATA_FILE_KEYS& keys)
{
  const Frame here{eh, __func__};
  const JsonNode* filter = given_value(data_file, "filter");
  if (!asks_for_something(filter)) {
    for (const char* key : {"select", "exclude"}) {
      if (!asks_for_something(given_value(data_file, key))) continue;
      eh.error(text("the key ", key, " of data_file needs the key filter"));
      return;
    }
    return;
  }
  L_READ_SELECT_VALUE(eh, data_file, "select", keys.select);
  if (eh.terminate()) return;
  L_READ_SELECT_VALUE(eh, data_file, "exclude", keys.exclude);
  if (eh.terminate()) return;
  if (filter->is(JsonType::string)) {
    for (const auto& [key, value] :
         {std::pair{"select", &keys.select}, std::pair{"exclude", &keys.exclude}}) {
      if (!value->is_text) continue;
      eh.error(text("filter and ", key, " have been supplied as strings, only one can be a string"));
      return;
    }
    keys.filter_name = filter->text();
  } else if (filter->is(JsonType::integer) && filter->integer() > 0) {
    keys.filter_column = filter->integer();
  } else {
    REPORT_JSON_ERROR(eh, *filter, {"the name of a variable", "the number of a field"});
    return;
  }
  if (!keys.select.given && !keys.exclude.given) {
    eh.error("the key filter of data_file needs the key select or the key exclude");
  }
}

/// L_READ_COUNT: reads a whole number from 0 up.
void L_READ_COUNT(ERROR_HANDLER& eh, const JsonNode& data_file, std::string_view key, std::int64_t most,
                  std::string_view expected, std::int64_t& count)
{
  const Frame here{eh, __func__};
  const JsonNode* node = given_value(data_file, key);
  if (!asks_for_something(node)) return;
  if (!node->is(JsonType::integer) || node->integer() < 0 || (most > 0 && node->integer() > most)) {
    REPORT_JSON_ERROR(eh, *node, {expected});
    return;
  }
  count = node->integer();
}

/// L_READ_SWITCH: reads a logical value, also as 0 and 1.
void L_READ_SWITCH(ERROR_HANDLER& eh, const JsonNode& data_file, std::string_view key, bool& value)
{
  const Frame here{eh, __func__};
  const JsonNode* node = given_value(data_file, key);
  if (!asks_for_something(node)) return;
  const bool meant = node->is(JsonType::logical) || node->is_text(no_value_supplied) ||
                     (node->is(JsonType::integer) && node->integer() == 1);
  if (!meant) {
    REPORT_JSON_ERROR(eh, *node, {"true", "false"});
    return;
  }
  value = true;
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
  L_READ_TYPE(eh, data_file, keys);
  if (eh.terminate()) return;
  L_READ_SKIP(eh, data_file, keys);
  if (eh.terminate()) return;
  L_READ_COUNT(eh, data_file, "rrec", 0, "a number of records", keys.most_records);
  if (eh.terminate()) return;
  L_READ_SELECTION(eh, data_file, keys);
  if (eh.terminate()) return;
  L_READ_SWITCH(eh, data_file, "recode", keys.recode);
  if (eh.terminate()) return;
  L_READ_SWITCH(eh, data_file, "print", keys.print);
  if (eh.terminate()) return;
  std::int64_t save = 0;
  L_READ_COUNT(eh, data_file, "save", static_cast<std::int64_t>(save_kinds.size()),
               "a whole number from 0 to 6", save);
  if (eh.terminate()) return;
  if (save > 0) {
    keys.save = true;
    keys.save_kind = save_kinds[static_cast<std::size_t>(save - 1)];
  }
  if (const JsonNode* format = given_value(data_file, "format"); asks_for_something(format)) {
    if (!format->is(JsonType::string)) {
      REPORT_JSON_ERROR(eh, *format, {"a format list"});
      return;
    }
    if (kind_row(keys.kind).binary) {
      eh.error(text("the key format of data_file is not for the binary file ", keys.name));
      return;
    }
    keys.format = format->text();
  }
}

}  // namespace tolvan
