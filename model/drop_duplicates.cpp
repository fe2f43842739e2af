// Dropped and repeated terms: API_DROP_DUPLICATE_TERMS.
#include <unordered_map>
#include <unordered_set>

#include "base/text.h"
#include "model/expand_model.h"
#include "model/request_nodes.h"

namespace tolvan {

namespace {

/// True for a term with at() or sat(), which may stand for several terms: what it drops is seen once these are told apart.
bool may_stand_for_several(const JsonNode& term)
{
  if (const JsonNode* function = term.find("function")) {
    const std::string_view name = function_name(*function);
    if (name == "at" || name == "sat") return true;
    const JsonNode* arguments = function->find("arguments");
    if (arguments == nullptr || arguments->size() == 0) return false;
    const JsonNode* first = arguments->children().front()->find("value");
    return first != nullptr && may_stand_for_several(*first);
  }
  const JsonNode* factors = term.find("interaction");
  if (factors == nullptr) return false;
  for (const auto& factor : factors->children())
    if (may_stand_for_several(*factor)) return true;
  return false;
}

}  // namespace

void API_DROP_DUPLICATE_TERMS(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& list,
                              std::string_view part)
{
  const Frame here{eh, __func__};
  const std::size_t n = list.children().size();
  std::vector<std::string> names(n);
  std::vector<bool> stays(n, true);
  std::unordered_map<std::string_view, std::size_t> standing;  // the position of each term that stands
  for (std::size_t k = 0; k < n; ++k) {
    const JsonNode& term = *list.children()[k];
    names[k] = GET_FACNAME_FROM_JPTR(eh, communication, term);
    if (has_flag(term, "drop")) {
      const auto earlier = standing.find(names[k]);
      stays[k] = earlier == standing.end() && part != "predict" && may_stand_for_several(term);
      if (earlier != standing.end()) {
        stays[earlier->second] = false;
        standing.erase(earlier);
      }
    } else {
      stays[k] = standing.emplace(names[k], k).second;
    }
  }

  std::vector<std::string> gone;
  std::unordered_set<std::string_view> told;
  auto kept = std::make_unique<JsonNode>(JsonType::array);
  for (std::size_t k = 0; k < n; ++k) {
    if (stays[k]) {
      kept->add(list.children()[k]->clone());
    } else if (told.insert(names[k]).second) {
      gone.push_back(names[k]);
    }
  }
  if (gone.empty() && !standing.empty()) return;
  if (gone.empty()) {  // nothing but terms to drop
    eh.error("should not have been able to remove all the terms");
    return;
  }
  eh.note(part == "predict" ? std::string("duplicate terms were dropped from the predict statement")
                            : text("duplicate terms were dropped from the ", part, " part of the model"));
  eh.continuation(text("terms dropped: ", join(gone, ", ")));
  if (standing.empty()) {
    eh.error("should not have been able to remove all the terms");
    return;
  }
  list.replace_with(std::move(kept));
}

}  // namespace tolvan
