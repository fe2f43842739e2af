// The request for an inverse: CALL_AINVERSE_WITH_JPTR.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <utility>

#include "base/memory.h"
#include "base/text.h"
#include "model/request_nodes.h"
#include "pedigree/ainverse_object.h"
#include "pedigree/check_pedigree.h"
#include "pedigree/form_ainverse.h"

namespace tolvan {
namespace {

constexpr std::int64_t most_individuals =
    std::numeric_limits<std::int32_t>::max() / 4;  // of the codes of names and rows

/// The value of a key; null counts as absent.
JsonNode* given(const JsonNode& request, std::string_view key)
{
  JsonNode* node = request.find(key);
  return node != nullptr && !node->is(JsonType::null) ? node : nullptr;
}

/// The number of values: an array's elements, 1 for anything else.
std::int64_t count_of(const JsonNode& node)
{
  return node.is(JsonType::array) ? node.size() : 1;
}

/// L_CHECK_LENGTHS: what must be there, and as long as the individuals are many.
void L_CHECK_LENGTHS(ERROR_HANDLER& eh, const JsonNode& request)
{
  const Frame here{eh, __func__};
  constexpr std::pair<const char*, const char*> required[] = {
      {"id", "Individuals"}, {"male", "Male parents"}, {"female", "Female parents"}};
  for (const auto& [key, name] : required) {
    if (given(request, key) == nullptr) eh.error(text(name, " not found in JSON object."));
  }
  if (eh.terminate()) return;
  const std::int64_t n = count_of(*given(request, "id"));
  if (n < 2) eh.error("Too few individuals in the pedigree.");
  if (n > most_individuals)
    eh.error(text("Too many individuals in the pedigree: ", n, "."), Ecode::too_small);
  constexpr std::pair<const char*, const char*> lengths[] = {{"male", "male parents"},
                                                             {"female", "female parents"},
                                                             {"fgen", "selfing values"},
                                                             {"sex", "sex values"}};
  for (const auto& [key, name] : lengths) {
    const JsonNode* node = given(request, key);
    if (node != nullptr && count_of(*node) != n)
      eh.error(text("Number of ", name, " does not match the number of individuals."));
  }
}

/// L_ONE_NUMBER: the one number of a key that may also be an array of one; the value stays without the key.
/// Gives whether the key is there.
bool L_ONE_NUMBER(ERROR_HANDLER& eh, const JsonNode& request, std::string_view key, bool whole,
                  std::string_view complaint, double& value)
{
  const Frame here{eh, __func__};
  JsonNode* node = given(request, key);
  if (node == nullptr) return false;
  if (node->is(JsonType::array)) {
    if (node->size() != 1) {
      eh.error(text("There should be just one ", complaint, "."));
      return true;
    }
    node = &node->element(0);
  }
  const bool logical = whole && node->is(JsonType::logical);
  const double x = logical ? (node->logical() ? 1.0 : 0.0) : node->number();
  if ((!node->is_number() && !logical) || (whole && x != std::trunc(x))) {
    REPORT_JSON_ERROR(eh, *node, {whole ? "an integer" : "a real number"});
    return true;
  }
  value = x;
  return true;
}

/// L_SCALARS: the single values of the request and their rules.
void L_SCALARS(ERROR_HANDLER& eh, const JsonNode& request, AINVERSE_CALL& call)
{
  const Frame here{eh, __func__};
  const std::int64_t n = count_of(*given(request, "id"));
  double& parent_level = call.flags.parent_level;
  L_ONE_NUMBER(eh, request, "fgen2", false, "selfing value for parents", parent_level);
  if (parent_level < 0.0) eh.error("The selfing value for parents must not be negative.");
  double groups = 0.0;
  L_ONE_NUMBER(eh, request, "groups", true, "number of groups", groups);
  if (groups < 0.0) eh.error("The number of groups must not be negative.");
  if (groups >= static_cast<double>(n))
    eh.error("The number of groups must be less than the number of individuals.");
  L_ONE_NUMBER(eh, request, "groupoffset", false, "group offset value", call.group_offset);
  if (call.group_offset < 0.0 && call.group_offset != -1.0) eh.error("The groups offset must be -1 or >= 0.");
  call.selfing_set = L_ONE_NUMBER(eh, request, "selfing", false, "selfing value", call.selfing);
  if (!(call.selfing >= 0.0 && call.selfing <= 1.0))
    eh.error("The selfing value must be in the range (0, 1).");
  call.inbreeding_set =
      L_ONE_NUMBER(eh, request, "inbreed", false, "inbreeding value for parents", call.inbreeding);
  if (!(call.inbreeding >= 0.0 && call.inbreeding <= 1.0))
    eh.error("The inbreeding value for parents must be in the range (0, 1).");
  double grandsire = 0.0;
  L_ONE_NUMBER(eh, request, "mgs", true, "msg indicator", grandsire);  // sic
  call.flags.grandsire = grandsire != 0.0;
  if (const JsonNode* node = given(request, "psort")) {
    const bool number = node->is(JsonType::integer);
    if (!number && !node->is(JsonType::logical)) REPORT_JSON_ERROR(eh, *node, {"a logical"});
    call.flags.sort = number ? node->integer() != 0 : node->logical();
  }
  if (!eh.terminate()) call.flags.groups = static_cast<std::int64_t>(groups);
}

/// L_RANGE: reads the numbers of a key, which must lie in a range; none without the key.
void L_RANGE(ERROR_HANDLER& eh, JsonNode& request, std::string_view key, double highest,
             std::vector<double>& values)
{
  const Frame here{eh, __func__};
  const JsonNode* node = given(request, key);
  if (node == nullptr) return;
  const std::int64_t n = count_of(*node);
  if (!assign(eh, values, n)) return;
  for (std::int64_t k = 0; k < n; ++k) {
    if (node->is(JsonType::array) && node->packed()) {
      values[static_cast<std::size_t>(k)] = node->number(k);
      continue;
    }
    const JsonNode& each = node->is(JsonType::array) ? *node->children()[static_cast<std::size_t>(k)] : *node;
    if (!each.is_number()) {
      REPORT_JSON_ERROR(eh, each, {"a real number"});
      return;
    }
    values[static_cast<std::size_t>(k)] = each.number();
  }
  const auto [low, high] = std::minmax_element(values.begin(), values.end());
  if (*low < 0.0 || *high > highest) {
    eh.error(text("Was expecting the values supplied for ", key, " to be in the range (0, ",
                  static_cast<std::int64_t>(highest), "). Actual range was [", edit(*low, "F8.3"), ", ",
                  edit(*high, "F8.3"), "]"));
  }
  request.remove(key);
}

/// The texts for a missing name, with those that are numbers apart.
struct MISSING_NAMES {
  MISSING_TEXTS texts;
  std::int64_t number = 0;  // beside 0
};

/// The code of one number.
std::int32_t code_of(NAME_CODES& names, const MISSING_NAMES& missing, std::int64_t number)
{
  return number == 0 || number == missing.number ? PEDIGREE_COLUMNS::no_name : names.add(number);
}
std::int32_t code_of(NAME_CODES& names, const MISSING_NAMES& missing, std::string_view name)
{
  return missing.texts.contains(name) ? PEDIGREE_COLUMNS::no_name : names.add(name);
}
std::int32_t code_of(NAME_CODES& names, const MISSING_NAMES& missing, double x)
{
  constexpr double limit = 9.2e18;
  if (x == std::trunc(x) && std::abs(x) < limit) return code_of(names, missing, static_cast<std::int64_t>(x));
  char digits[40];
  std::snprintf(digits, sizeof digits, "%.15g", x);
  return code_of(names, missing, std::string_view(digits));
}

/// L_CODE_COLUMN: turns the names of a key into codes and takes them out of the request.
void L_CODE_COLUMN(ERROR_HANDLER& eh, JsonNode& request, std::string_view key, const MISSING_NAMES& missing,
                   NAME_CODES& names, std::vector<std::int32_t>& codes)
{
  const Frame here{eh, __func__};
  const JsonNode& node = *given(request, key);
  if (!node.is(JsonType::array)) {
    REPORT_JSON_ERROR(eh, node, {"an array of strings or numbers"});
    return;
  }
  const std::int64_t n = node.size();
  if (!assign(eh, codes, n)) return;
  const auto packed = [&] {
    for (std::int64_t k = 0; k < n; ++k) {
      codes[static_cast<std::size_t>(k)] = node.is_integer(k) ? code_of(names, missing, node.integer(k))
                                                              : code_of(names, missing, node.number(k));
    }
  };
  const auto single = [&] {
    for (std::size_t k = 0; k < codes.size(); ++k) {
      const JsonNode& each = *node.children()[k];
      if (each.is(JsonType::string)) {
        codes[k] = code_of(names, missing, std::string_view(each.text()));
      } else if (each.is(JsonType::integer)) {
        codes[k] = code_of(names, missing, each.integer());
      } else if (each.is(JsonType::real)) {
        codes[k] = code_of(names, missing, each.number());
      } else if (each.is(JsonType::null)) {
        codes[k] = PEDIGREE_COLUMNS::no_name;
      } else {
        REPORT_JSON_ERROR(eh, each, {"a string", "a number"});
        return;
      }
    }
  };
  if (!attempt([&] { node.packed() ? packed() : single(); })) return eh.out_of_memory();
  request.remove(key);
}

/// L_READ_COLUMNS: codes the three columns of names.
void L_READ_COLUMNS(ERROR_HANDLER& eh, JsonNode& request, PEDIGREE_COLUMNS& columns)
{
  const Frame here{eh, __func__};
  MISSING_NAMES missing;
  if (const JsonNode* mv = given(request, "mv")) {
    const std::string word = mv->is(JsonType::string) ? mv->text() : json_text(*mv);
    if (!mv->is(JsonType::string) && !mv->is_number()) return REPORT_JSON_ERROR(eh, *mv, {"a string"});
    missing.texts.add(word);
    std::int64_t number = 0;
    if (read_integer(trim(word), number) && text(number) == trim(word)) missing.number = number;
  }
  const JsonNode& id = *given(request, "id");
  if (id.packed()) {
    std::int64_t low = std::numeric_limits<std::int64_t>::max();
    std::int64_t high = std::numeric_limits<std::int64_t>::min();
    for (std::int64_t k = 0; k < id.number_count(); ++k) {
      if (!id.is_integer(k)) continue;
      low = std::min(low, id.integer(k));
      high = std::max(high, id.integer(k));
    }
    if (low <= high && !attempt([&] { columns.names.expect_numbers(low, high, id.number_count()); }))
      return eh.out_of_memory();
  }
  const std::pair<const char*, std::vector<std::int32_t>*> keys[] = {
      {"id", &columns.id}, {"male", &columns.male}, {"female", &columns.female}};
  for (const auto& [key, codes] : keys) {
    L_CODE_COLUMN(eh, request, key, missing, columns.names, *codes);
    if (eh.terminate()) return;
  }
  columns.names.close();
}

/// L_HAND_OUT: the result in the form in which it leaves; what it is made from is freed on the way.
void L_HAND_OUT(ERROR_HANDLER& eh, const NAME_CODES& names, PEDIGREE& pedigree, AINVERSE& inverse,
                TAINVERSE& out)
{
  const Frame here{eh, __func__};
  const std::int64_t n = pedigree.rows();
  std::vector<double>().swap(inverse.variance);
  SPMT_CONVERT(eh, inverse.matrix, SparseKind::sm_linked_list);
  if (eh.terminate()) return;
  out.matrix = std::move(inverse.matrix);
  out.inbreeding = std::move(inverse.inbreeding);
  out.logdet = inverse.logdet;
  out.gender = std::move(pedigree.sex);
  if (!assign(eh, out.pedigree[0], n)) return;
  for (std::int64_t k = 0; k < n; ++k) out.pedigree[0][static_cast<std::size_t>(k)] = k + 1;
  std::size_t column = 1;
  for (std::vector<std::int32_t>* parent : {&pedigree.male, &pedigree.female}) {
    if (!assign(eh, out.pedigree[column], n)) return;
    std::copy(parent->begin(), parent->end(), out.pedigree[column++].begin());
    std::vector<std::int32_t>().swap(*parent);
  }
  const bool room = attempt([&] {
    out.uid.elements.reserve(static_cast<std::size_t>(n));
    for (const std::int32_t each : pedigree.id) out.uid.elements.push_back(names.name(each));
  });
  if (!room) eh.out_of_memory();
}

}  // namespace

void CALL_AINVERSE_WITH_JPTR(ERROR_HANDLER& eh, JsonNode& request, TAINVERSE& out)
{
  const Frame here{eh, __func__};
  L_CHECK_LENGTHS(eh, request);
  if (eh.terminate()) return;
  AINVERSE_CALL call;
  L_SCALARS(eh, request, call);
  if (eh.terminate()) return;
  PEDIGREE_COLUMNS columns;
  constexpr double highest_sex = 1.0;
  constexpr double highest_fgen = 100.0;
  L_RANGE(eh, request, "sex", highest_sex, columns.sex);
  L_RANGE(eh, request, "fgen", highest_fgen, columns.level);
  if (eh.terminate()) return;
  if (columns.level.empty() && call.flags.parent_level > 0.0 &&
      !assign(eh, columns.level, count_of(*given(request, "id"))))
    return;
  L_READ_COLUMNS(eh, request, columns);
  if (eh.terminate()) return;

  PEDIGREE pedigree;
  AINVERSE inverse;
  CALC_AINVERSE(eh, columns, call, pedigree, inverse);
  if (eh.terminate()) return;
  for (std::vector<std::int32_t>* each : {&columns.id, &columns.male, &columns.female})
    std::vector<std::int32_t>().swap(*each);
  L_HAND_OUT(eh, columns.names, pedigree, inverse, out);
}

}  // namespace tolvan
