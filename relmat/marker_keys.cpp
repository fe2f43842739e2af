// Entries of marker_file.  Routine: L_READ_MARKER_KEYS.
#include "relmat/marker_keys.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "base/text.h"
#include "data/request_values.h"
#include "model/request.h"
#include "data/entry_values.h"

namespace tolvan {
namespace {

constexpr std::array marker_extensions = {"mkr", "mat", "grr", "bed"};

/// L_READ_FILES: the names of the files of an entry: its own, or one or several under `file`.
void L_READ_FILES(ERROR_HANDLER& eh, const JsonNode& entry, MARKER_KEYS& keys)
{
  const Frame here{eh, __func__};
  const JsonNode* node = given_value(entry, "file");
  keys.files.clear();
  if (node == nullptr) return keys.files.push_back(keys.name);
  bool sound = node->is(JsonType::string) || (node->is(JsonType::array) && !node->packed() && node->size() > 0);
  if (node->is(JsonType::string)) keys.files.push_back(node->text());
  for (std::int64_t k = 0; sound && node->is(JsonType::array) && k < node->size(); ++k) {
    const JsonNode& each = *node->children()[static_cast<std::size_t>(k)];
    sound = each.is(JsonType::string);
    if (sound) keys.files.push_back(each.text());
  }
  for (const std::string& each : keys.files) sound = sound && !is_blank(each);
  if (!sound) REPORT_JSON_ERROR(eh, *node, {"a string", "an array of strings"});
}

/// L_READ_IDS: the genotypes to use, texts or whole numbers.
void L_READ_IDS(ERROR_HANDLER& eh, const JsonNode& entry, MARKER_KEYS& keys)
{
  const Frame here{eh, __func__};
  const JsonNode* node = given_value(entry, "ids");
  if (node == nullptr) return;
  bool sound = node->is(JsonType::array);
  for (std::int64_t k = 0; sound && node->packed() && k < node->number_count(); ++k) {
    sound = node->is_integer(k);
    if (sound) keys.ids.push_back(text(node->integer(k)));
  }
  for (std::int64_t k = 0; sound && !node->packed() && k < node->size(); ++k) {
    const JsonNode& id = *node->children()[static_cast<std::size_t>(k)];
    sound = id.is(JsonType::string) || id.is(JsonType::integer);
    if (sound) keys.ids.push_back(id.is(JsonType::string) ? id.text() : text(id.integer()));
  }
  if (!sound || keys.ids.empty()) REPORT_JSON_ERROR(eh, *node, {"an array of strings"});
}

/// L_READ_RANGE: the first and the last regressor to use.
void L_READ_RANGE(ERROR_HANDLER& eh, const JsonNode& entry, MARKER_KEYS& keys)
{
  const Frame here{eh, __func__};
  const JsonNode* node = given_value(entry, "range");
  if (node == nullptr) return;
  const bool pair = node->packed() && node->number_count() == 2 && node->is_integer(0) && node->is_integer(1);
  if (!pair || node->integer(0) < 1 || node->integer(1) < node->integer(0)) {
    REPORT_JSON_ERROR(eh, *node, {"an array of 2 integers, the first and the last regressor"});
    return;
  }
  keys.from = node->integer(0);
  keys.to = node->integer(1);
}

/// L_READ_CENTRING: true for the means of the columns, false for nothing, a number for itself.
void L_READ_CENTRING(ERROR_HANDLER& eh, const JsonNode& entry, MARKER_KEYS& keys)
{
  const Frame here{eh, __func__};
  const JsonNode* node = given_value(entry, "centre");
  if (node == nullptr) return;
  if (node->is(JsonType::logical)) {
    keys.centring = node->logical() ? Centring::means : Centring::none;
  } else if (node->is_number() && std::isfinite(node->number())) {
    keys.centring = Centring::value;
    keys.centre = node->number();
  } else {
    REPORT_JSON_ERROR(eh, *node, {"a real number", "a logical"});
  }
}

/// L_READ_FAST_BAYES: the form is on for true, and for a number, which is the degrees of freedom of its prior.
void L_READ_FAST_BAYES(ERROR_HANDLER& eh, const JsonNode& entry, MARKER_KEYS& keys)
{
  const Frame here{eh, __func__};
  keys.bayes_offset = L_NUMBER_UNDER(eh, entry, "fbboffset", false, 0.0).value_or(0.0);
  const JsonNode* node = given_value(entry, "fbb");
  if (node == nullptr || eh.terminate()) return;
  constexpr double least_df = 2.0;  // the variance of the prior exists above
  if (node->is_number()) {
    keys.fast_bayes = node->number() != 0.0;
    keys.bayes_df = node->number();
    if (keys.fast_bayes && !(keys.bayes_df > least_df && std::isfinite(keys.bayes_df)))
      REPORT_JSON_ERROR(eh, *node, {"a logical", "degrees of freedom above 2"});
  } else {
    keys.fast_bayes = is_on(entry, "fbb");
  }
}

}  // namespace

bool is_marker_file(std::string_view path)
{
  const std::string extension = extension_of(path);
  return std::find(marker_extensions.begin(), marker_extensions.end(), extension) != marker_extensions.end();
}

bool is_unformatted(std::string_view extension)
{
  return extension == "bgrm" || extension == "sgrm" || extension == "dgrm";
}

void L_READ_MARKER_KEYS(ERROR_HANDLER& eh, const JsonNode& entry, MARKER_KEYS& keys)
{
  const Frame here{eh, __func__};
  const JsonNode* name = given_value(entry, "name");
  if (name == nullptr) return REPORT_JSON_ERROR(eh, entry, "name");
  if (!name->is(JsonType::string) || is_blank(name->text()))
    return REPORT_JSON_ERROR(eh, *name, {"the name of a file"});
  keys.name = name->text();
  L_READ_FILES(eh, entry, keys);
  keys.markers = L_COUNT_UNDER(eh, entry, "markers");
  keys.header = is_on(entry, "header");
  keys.no_label = is_on(entry, "nokey");
  keys.columns_to_skip = L_COUNT_UNDER(eh, entry, "cskip");
  keys.genotype_column = L_TEXT_UNDER(eh, entry, "gidname");
  keys.marker_column = L_TEXT_UNDER(eh, entry, "snpname");
  keys.lines_to_skip = L_COUNT_UNDER(eh, entry, "skip");
  L_READ_IDS(eh, entry, keys);
  L_READ_RANGE(eh, entry, keys);
  keys.method = static_cast<RelationshipMethod>(L_CODE_UNDER(eh, entry, "method", 1, 3, 1));
  keys.divisor = L_NUMBER_UNDER(eh, entry, "gscale", false, 0.0).value_or(0.0);
  keys.scale_mode = L_CODE_UNDER(eh, entry, "smode", 0, 2, 0);
  L_READ_CENTRING(eh, entry, keys);
  keys.offset = L_NUMBER_UNDER(eh, entry, "offset", false).value_or(0.0);
  keys.diagonal_offset = L_NUMBER_UNDER(eh, entry, "mdfoffset", false).value_or(0.0);
  keys.hadamard = L_TEXT_UNDER(eh, entry, "hadamard");
  keys.psd = is_on(entry, "psd");
  keys.nsd = is_on(entry, "nsd");
  keys.precision = L_COUNT_UNDER(eh, entry, "precision", true);
  keys.save = L_CODE_UNDER(eh, entry, "save", 0, 3, 0);
  L_READ_FAST_BAYES(eh, entry, keys);
  keys.effects = L_CODE_UNDER(eh, entry, "rtmethod", 0, 1, 0) == 1 || keys.fast_bayes;
  keys.pev = is_on(entry, "pev");
  if (!keys.genotype_column.empty() || !keys.marker_column.empty()) keys.header = true;
  if (keys.to > 0 && keys.files.size() > 1)
    eh.error(text("a range of regressors can not be chosen among those of several files, as those of ", keys.name));
}

}  // namespace tolvan
