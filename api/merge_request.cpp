// AOT_GET_FULL_JSTR: one request out of many documents.
#include <algorithm>
#include <array>

#include "api/fit_object.h"
#include "base/text.h"
#include "model/request.h"

namespace tolvan {
namespace {

constexpr std::size_t longest_excerpt = 120;  // of a text that does not parse, shown behind its message

/// How the values of a key that comes again are joined.
enum class Merge {
  once,      // may not come again
  settings,  // objects, child by child, a later value winning
  gathered,  // into one array
  repeated,  // each stays a node of its own
};
struct MergeRule {
  std::string_view key;
  Merge merge;
};
constexpr std::array merge_rules = {
    MergeRule{"options", Merge::settings},  MergeRule{"api_options", Merge::settings},
    MergeRule{"dataset", Merge::gathered},  MergeRule{"predict", Merge::repeated},
    MergeRule{"vpredict", Merge::gathered}, MergeRule{"pedigree_file", Merge::gathered},
    MergeRule{"grm_file", Merge::gathered}, MergeRule{"marker_file", Merge::gathered},
    MergeRule{"spline", Merge::gathered},   MergeRule{"mbf", Merge::gathered},
    MergeRule{"fam", Merge::gathered},      MergeRule{"gindex", Merge::gathered},
    MergeRule{"pval", Merge::gathered},     MergeRule{"contrast", Merge::gathered},
    MergeRule{"fown", Merge::gathered},     MergeRule{"initial_values", Merge::gathered},
    MergeRule{"vcm", Merge::gathered},      MergeRule{"vcc_constraint", Merge::gathered},
    MergeRule{"own", Merge::gathered},
};

Merge rule_of(std::string_view key)
{
  const auto rule = std::find_if(merge_rules.begin(), merge_rules.end(),
                                 [&](const MergeRule& each) { return each.key == key; });
  return rule == merge_rules.end() ? Merge::once : rule->merge;
}

/// A later setting takes the place of the earlier one of its key.
void merge_settings(JsonNode& into, const JsonNode& from)
{
  for (const auto& child : from.children()) {
    if (JsonNode* earlier = into.find(child->name))
      earlier->replace_with(child->clone());
    else
      into.add(child->clone());
  }
}

void append_element(JsonNode& array, const JsonNode& value)
{
  auto element = value.clone();
  element->name.clear();
  array.add(std::move(element));
}

/// Puts a value, or the elements of an array, behind what came under the same key before.
void gather(JsonNode& earlier, JsonNode& value)
{
  if (!earlier.is(JsonType::array)) {
    auto array = std::make_unique<JsonNode>(JsonType::array);
    append_element(*array, earlier);
    earlier.replace_with(std::move(array));
  }
  earlier.unpack();
  if (!value.is(JsonType::array)) {
    append_element(earlier, value);
    return;
  }
  value.unpack();
  for (const auto& each : value.children()) append_element(earlier, *each);
}

/// L_MERGE_DOCUMENT: parses a document and moves the children of its top object into the request.
void L_MERGE_DOCUMENT(ERROR_HANDLER& eh, std::string_view json, const std::string& label, JsonNode& request)
{
  const Frame here{eh, __func__};
  JsonError error;
  const auto document = parse_json(json, error);
  if (document == nullptr || !document->is(JsonType::object)) {
    eh.error(text("unable to read the ", trim(label), ": ",
                  document == nullptr ? error.message : "the JSON document is not an object"),
             Ecode::invalid_json);
    eh.continuation(text(json.substr(0, longest_excerpt), json.size() > longest_excerpt ? "..." : ""));
    return;
  }
  REPORT_DUPLICATED_JSON_KEYS(eh, *document);
  for (const MergeRule& rule : merge_rules) {
    if (rule.merge == Merge::settings) REPORT_IF_JSON_KEY_DUPLICATED(eh, *document, rule.key);
  }
  if (eh.terminate()) return;
  while (document->size() > 0) {
    auto child = document->detach(document->children().front().get());
    JsonNode* earlier = request.find(child->name);
    const Merge merge = rule_of(child->name);
    if (earlier == nullptr || merge == Merge::repeated) {
      request.add(std::move(child));
    } else if (merge == Merge::gathered) {
      gather(*earlier, *child);
    } else if (merge == Merge::settings && earlier->is(JsonType::object) && child->is(JsonType::object)) {
      merge_settings(*earlier, *child);
    } else {
      const std::string key = child->name;
      request.add(std::move(child));
      REPORT_IF_JSON_KEY_DUPLICATED(eh, request, key);
      if (eh.terminate()) return;
    }
  }
}

}  // namespace

std::unique_ptr<JsonNode> AOT_GET_FULL_JSTR(ERROR_HANDLER& eh, const TLV_OBJECT& object,
                                            std::string_view last)
{
  const Frame here{eh, __func__};
  auto request = std::make_unique<JsonNode>(JsonType::object);
  for (const USER_DATASET& each : object.datasets.datasets) {
    if (each.document.empty()) continue;
    L_MERGE_DOCUMENT(eh, each.document, text("JSON file for the ", each.name, " dataset"), *request);
    if (eh.terminate()) return nullptr;
  }
  for (std::int64_t k = 1; k <= object.documents.size(); ++k) {
    L_MERGE_DOCUMENT(eh, object.documents(k), text(k, " stored JSON file"), *request);
    if (eh.terminate()) return nullptr;
  }
  if (!is_blank(last)) L_MERGE_DOCUMENT(eh, last, "additional JSON file", *request);
  if (eh.terminate()) return nullptr;
  return request;
}

}  // namespace tolvan
