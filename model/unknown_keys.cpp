// Keys that nothing reads, told so that a misspelt one is noticed: WARN_OF_UNKNOWN_KEYS.
#include <algorithm>
#include <span>

#include "base/text.h"
#include "model/expand_model.h"
#include "model/request_nodes.h"

namespace tolvan {

namespace {

constexpr std::int64_t most_told = 50;
constexpr int deepest = 200;  // terms nest no deeper once they are in standard form

constexpr std::string_view of_dataset[] = {"name",          "number_of_observations", "number_of_variables",
                                           "storage_order", "tags",                   "variables",
                                           "group"};
constexpr std::string_view of_data_file[] = {"name",   "type",   "skip",    "rskip",  "recode",    "rrec",     "print",
                                             "save",   "filter", "select",  "exclude", "format", "noscratch", "variables"};
constexpr std::string_view of_variable[] = {"name",
                                            "field_type",
                                            "factor_labels",
                                            "number_of_levels",
                                            "label_length",
                                            "factor_labels_indexed_from",
                                            "is_pedigree_factor",
                                            "sort",
                                            "code_levels_as",
                                            "user_column_number",
                                            "recode_factor_labels_from",
                                            "recode_factor_labels_because",
                                            "group",
                                            "transformations"};
constexpr std::string_view of_marker_file[] = {
    "name",   "file", "type", "skip", "header", "nokey", "cskip", "gidname",   "snpname",  "markers",   "range",     "ids",      "method", "gscale", "smode",
    "centre", "offset", "psd", "nsd", "precision", "save", "pev", "fbb", "fbboffset", "rtmethod", "mdfoffset", "hadamard", "giv", "ldet", "invert"};
constexpr std::string_view of_pedigree_file[] = {
    "name",  "file", "type",  "skip",   "cskip",   "repeat", "alpha", "uppercase", "long", "aif",  "giv", "make", "method", "group",
    "goffset", "dom", "xlinkr", "mgs", "inbred", "fgen", "bee", "self", "reduce", "sort", "trim"};
// A file of markers may stand in this list, too.
constexpr std::string_view of_grm_file[] = {"name",     "type",     "skip",   "dense", "psd",  "nsd",    "group", "savegiv",
                                            "nullsing", "nonull",   "add",    "ldet",  "invert", "precision", "giv"};
constexpr std::string_view of_vcm[] = {"term", "term_id", "values", "vcm_values"};
constexpr std::string_view of_initial_value[] = {"term", "value", "constraint"};
constexpr std::string_view of_part[] = {"terms"};
constexpr std::string_view of_term[] = {
    "term_name", "interaction",    "function",       "linked",     "structure", "terms", "drop",          "user_facing_factor_name",
    "values",    "ps_constraints", "eq_constraints", "subsection", "sing",  "initial_values", "coord",
    "use"};
constexpr std::string_view of_qualifiers[] = {"values",         "coord",      "use", "ps_constraints",
                                              "eq_constraints", "subsection", "sing"};
constexpr std::string_view of_function[] = {"name", "arguments", "already_processed"};
constexpr std::string_view of_argument[] = {"name", "value", "supplied", "drop_from_facname"};

struct Teller {
  ERROR_HANDLER& eh;
  std::int64_t told = 0;

  void keys(const JsonNode& object, std::span<const std::string_view> known, std::span<const std::string_view> more = {})
  {
    if (!object.is(JsonType::object)) return;
    for (const auto& child : object.children()) {
      if (std::find(known.begin(), known.end(), child->name) != known.end()) continue;
      if (std::find(more.begin(), more.end(), child->name) != more.end()) continue;
      if (++told <= most_told) eh.warning(text(json_path(*child), " is not a recognised key"));
    }
  }

  /// The objects under a key: one, or those of a list.
  template <class Visit>
  void each(const JsonNode* node, Visit visit)
  {
    if (node == nullptr) return;
    if (node->is(JsonType::object)) visit(*node);
    if (!node->is(JsonType::array)) return;
    for (const auto& entry : node->children())
      if (entry->is(JsonType::object)) visit(*entry);
  }

  void list(const JsonNode& parent, std::string_view key, std::span<const std::string_view> known)
  {
    each(parent.find(key), [&](const JsonNode& entry) { keys(entry, known); });
  }

  void term(const JsonNode& node, int depth)
  {
    if (depth > deepest) return;
    keys(node, of_term);
    for (const char* inner : {"interaction", "linked", "structure", "terms"})
      each(node.find(inner), [&](const JsonNode& each_term) { term(each_term, depth + 1); });
    list(node, "initial_values", of_qualifiers);
    const JsonNode* function = node.find("function");
    if (function == nullptr) return;
    keys(*function, of_function);
    each(function->find("arguments"), [&](const JsonNode& argument) {
      keys(argument, of_argument);
      if (const JsonNode* value = argument.find("value"); value != nullptr && value->is(JsonType::object))
        term(*value, depth + 1);
    });
  }

  void part(const JsonNode& node)
  {
    keys(node, of_part);
    each(node.find("terms"), [&](const JsonNode& each_term) { term(each_term, 0); });
  }
};

}  // namespace

void WARN_OF_UNKNOWN_KEYS(ERROR_HANDLER& eh, const JsonNode& root)
{
  const Frame here{eh, __func__};
  Teller teller{eh};
  teller.each(root.find("dataset"), [&](const JsonNode& dataset) {
    teller.keys(dataset, of_dataset);
    teller.list(dataset, "variables", of_variable);
  });
  teller.each(root.find("data_file"), [&](const JsonNode& file) {
    teller.keys(file, of_data_file);
    teller.list(file, "variables", of_variable);
  });
  teller.list(root, "variables", of_variable);
  teller.list(root, "marker_file", of_marker_file);
  teller.list(root, "pedigree_file", of_pedigree_file);
  teller.each(root.find("grm_file"), [&](const JsonNode& entry) { teller.keys(entry, of_grm_file, of_marker_file); });
  teller.list(root, "vcm", of_vcm);
  teller.list(root, "initial_values", of_initial_value);
  for (const JsonNode* model : models_of(root)) {
    teller.list(*model, "variables", of_variable);
    teller.list(*model, "initial_values", of_initial_value);
    for (const char* key : {"response", "fixed", "random", "sparse", "residual"})
      teller.each(model->find(key), [&](const JsonNode& part) { teller.part(part); });
  }
  if (teller.told > most_told)
    eh.warning(text(teller.told - most_told, " more keys of the request are not recognised"));
}

}  // namespace tolvan
