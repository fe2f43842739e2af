// What a request says of its pedigrees, and the road from there to their inverses: AIPEDA.
#include <algorithm>
#include <cmath>

#include "base/memory.h"
#include "base/text.h"
#include "data/entry_values.h"
#include "data/request_values.h"
#include "model/request.h"
#include "pedigree/pedigree_file.h"

namespace tolvan {
namespace {

/// A switch of a pedigree: a text without anything in it is on, too.
bool switched_on(const JsonNode& entry, std::string_view key)
{
  return is_on(entry, key, true);
}

/// L_READ_SOURCE: the file and how it is laid out.
void L_READ_SOURCE(ERROR_HANDLER& eh, const JsonNode& entry, PEDIGREE_KEYS& keys)
{
  const Frame here{eh, __func__};
  const JsonNode* name = given_value(entry, "name");
  if (name == nullptr) return REPORT_JSON_ERROR(eh, entry, "name");
  if (!name->is(JsonType::string) || is_blank(name->text()))
    return REPORT_JSON_ERROR(eh, *name, {"the name of a file"});
  keys.name = keys.path = name->text();
  if (const std::string file = L_TEXT_UNDER(eh, entry, "file"); !is_blank(file)) keys.path = file;
  const JsonNode* type = given_value(entry, "type");
  keys.comma_separated = type != nullptr && type->is_text("ft_csv");
  if (!keys.comma_separated && (type == nullptr || !type->is_text("ft_text"))) {
    eh.error("expected either a text or csv file for the pedigree");
    return;
  }
  keys.skip = L_COUNT_UNDER(eh, entry, "skip");
  keys.skip_fields = L_COUNT_UNDER(eh, entry, "cskip");
  keys.repeat = switched_on(entry, "repeat");
  keys.alpha = L_COUNT_UNDER(eh, entry, "alpha") > 0;
  keys.upper_case = switched_on(entry, "uppercase");
  keys.sort = switched_on(entry, "sort");
  if (const JsonNode* trim_by = given_value(entry, "trim")) {
    if (!trim_by->is(JsonType::string)) return REPORT_JSON_ERROR(eh, *trim_by, {"the name of a data file"});
    keys.trim = trim_by->text();
  }
}

/// L_AIPEDA_SETUP_PEDIGREE_INFO: the breeding system, with a note of what is out of the ordinary.
void L_AIPEDA_SETUP_PEDIGREE_INFO(ERROR_HANDLER& eh, const JsonNode& entry, PEDIGREE_KEYS& keys)
{
  const Frame here{eh, __func__};
  keys.method = L_COUNT_UNDER(eh, entry, "method");
  keys.groups = L_COUNT_UNDER(eh, entry, "group");
  keys.group_offset = L_NUMBER_UNDER(eh, entry, "goffset", false, -1.0).value_or(0.0);
  if (keys.group_offset < 0.0 && keys.group_offset != -1.0) eh.error("The groups offset must be -1 or >= 0.");
  keys.sex_linked = switched_on(entry, "xlinkr");
  keys.grandsire = switched_on(entry, "mgs");
  keys.inbred = switched_on(entry, "inbred");
  keys.level = L_NUMBER_UNDER(eh, entry, "fgen", false, 0.0, highest_level);
  if (keys.inbred && !keys.level) keys.level = 1.0;
  if (keys.inbred && *keys.level > 1.0) eh.error(text("the inbreeding of base lines can not be ", *keys.level));
  keys.bee = L_NUMBER_UNDER(eh, entry, "bee", false, 0.0, 1.0).value_or(0.0);
  keys.selfing = L_NUMBER_UNDER(eh, entry, "self", false, 0.0, 1.0).value_or(0.0);
  if (eh.terminate()) return;
  if (keys.sex_linked) {
    eh.note(
        "for creating the sex linked inverse relationship matrix,the first parent is assumed XY and the "
        "second assumed XX");
  }
  if (keys.inbred) eh.note(text("inbred base lines: Inbreeding coefficent ", *keys.level));  // sic
  if (keys.bee > 0.0) {
    eh.note(
        text("Bee breeding path coefficent ", keys.bee, ", second parent is mother queen of drone"));  // sic
  }
  if (keys.selfing > 0.0) eh.note(text("Open pollinated selfing proportion ", keys.selfing));
}

/// L_READ_OUTPUTS: the files to write, and what can not be had.
void L_READ_OUTPUTS(ERROR_HANDLER& eh, const JsonNode& entry, PEDIGREE_KEYS& keys)
{
  const Frame here{eh, __func__};
  keys.write_diagonal = switched_on(entry, "aif");
  if (const JsonNode* node = given_value(entry, "giv")) {
    const std::int64_t value = node->is(JsonType::logical) ? (node->logical() ? 1 : 0) : node->integer();
    const bool integer = node->is(JsonType::logical) || node->is(JsonType::integer);
    if (!integer || value < 0 || value > 2) {
      eh.error(text("expected a value of 0, 1, or 2 for, supplied value = ",
                    node->is(JsonType::string) ? node->text() : json_text(*node)));
      return;
    }
    keys.write_giv = value;
  }
  constexpr std::int64_t most_dominance = 2;
  keys.dominance = L_CODE_UNDER(eh, entry, "dom", 0, most_dominance, 0);
  if (keys.dominance > 0 && !eh.terminate()) {
    const BREEDING_RULES rules = breeding_rules(keys);
    if (keys.sex_linked || keys.levels() || rules.grandsire || rules.selfing > 0.0 || rules.inbred_lines ||
        rules.base_inbreeding > 0.0)
      eh.not_implemented("dominance matrices (dom) are implemented for plain pedigrees alone");
  }
  if (!switched_on(entry, "reduce")) return;
  constexpr std::int64_t verbyla = 3;
  keys.reduce = keys.method != verbyla;
  if (keys.reduce) return;
  eh.note(
      "reducing the inverse relationship matrix not implemented forthe Verbyla method. No reduction will "
      "therefore be done");
}

/// L_READ_AND_SORT: the pedigree of a file, or as an earlier run left it, with its inverse.
void L_READ_AND_SORT(ERROR_HANDLER& eh, const PEDIGREE_KEYS& keys, FIT_PEDIGREE& out)
{
  const Frame here{eh, __func__};
  const bool kept = keys.sort || !keys.trim.empty();
  std::vector<double> inbreeding;
  if (kept && L_AIPEDA_READ_PEDIGREE_INFO_FROM_FILE(eh, keys, out.pedigree, out.labels, inbreeding)) {
    AIPEDM(eh, keys, out.pedigree, out.inverse);
    if (eh.terminate() || out.inverse.inbreeding == inbreeding) return;
    out.inverse = {};  // what was kept is not what it was made from
    out.pedigree = {};
    out.labels.clear();
  }
  if (eh.terminate()) return;
  {
    PEDIGREE_LINES lines;
    L_READ_PEDIGREE_LINES(eh, keys, lines);
    if (eh.terminate()) return;
    AIPSRT(eh, keys, lines, out.pedigree);
    if (eh.terminate()) return;
    const bool room = attempt([&] {
      out.labels.reserve(out.pedigree.id.size());
      for (const std::int32_t each : out.pedigree.id) out.labels.push_back(lines.names.name(each));
    });
    if (!room) return eh.out_of_memory();
  }
  AIPEDM(eh, keys, out.pedigree, out.inverse);
  if (eh.terminate()) return;
  if (keys.sort) L_WRITE_SORTED_PEDIGREE(eh, keys, out.pedigree, out.labels);
  if (kept && !eh.terminate())
    L_AIPEDA_WRITE_PEDIGREE_INFO_TO_FILE(eh, keys, out.pedigree, out.labels, out.inverse.inbreeding);
}

/// L_PEDIGREE: reads one pedigree and forms its inverse.
void L_PEDIGREE(ERROR_HANDLER& eh, const JsonNode& entry, FIT_PEDIGREE& out)
{
  const Frame here{eh, __func__};
  PEDIGREE_KEYS keys;
  L_READ_SOURCE(eh, entry, keys);
  if (eh.terminate()) return;
  L_AIPEDA_SETUP_PEDIGREE_INFO(eh, entry, keys);
  if (eh.terminate()) return;
  L_READ_OUTPUTS(eh, entry, keys);
  if (eh.terminate()) return;
  out.name = keys.name;
  out.reduce = keys.reduce;
  L_READ_AND_SORT(eh, keys, out);
  if (eh.terminate()) return;
  L_PEDSTRUCT(eh, out.pedigree);
  if (keys.dominance > 0 && !eh.terminate())
    K4MVODPED(eh, out.pedigree, out.labels, keys.dominance > 1, out.dominance);
  if (keys.write_diagonal && !eh.terminate()) L_AIPEDA_WRITE_DIAGONAL_AINVERSE(eh, keys, out);
  if (keys.write_giv > 0 && !eh.terminate()) L_AIPEDA_WRITE_GIV(eh, keys, out);
}

}  // namespace

BREEDING_RULES breeding_rules(const PEDIGREE_KEYS& keys)
{
  BREEDING_RULES rules;
  rules.grandsire = keys.grandsire || keys.bee > 0.0;
  rules.grandsire_path = keys.bee;
  rules.selfing = keys.selfing;
  rules.inbred_lines = keys.inbred && keys.level == 1.0;
  rules.base_inbreeding = keys.inbred && !rules.inbred_lines ? keys.level.value_or(0.0) : 0.0;
  rules.group_base = keys.group_offset;
  return rules;
}

void AIPEDA(ERROR_HANDLER& eh, const JsonNode& request, std::vector<FIT_PEDIGREE>& out)
{
  const Frame here{eh, __func__};
  const JsonNode* list = given_value(request, "pedigree_file");
  if (list == nullptr) return;
  if (list->is(JsonType::object)) return L_PEDIGREE(eh, *list, out.emplace_back());
  if (!list->is(JsonType::array) || (list->packed() && list->size() > 0)) {
    return REPORT_JSON_ERROR(eh, *list, {"an object", "an array of objects"});
  }
  for (const auto& entry : list->children()) {
    if (!entry->is(JsonType::object))
      return REPORT_JSON_ERROR(eh, *entry, {"an object that describes a pedigree"});
    L_PEDIGREE(eh, *entry, out.emplace_back());
    if (eh.terminate()) return;
  }
}

}  // namespace tolvan
