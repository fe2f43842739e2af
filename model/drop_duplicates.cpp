// Dropped and repeated terms: API_DROP_DUPLICATE_TERMS.
#include <unordered_map>
#include <unordered_set>

#include "base/text.h"
#include "model/expand_model.h"
#include "model/request_nodes.h"

namespace tolvan {

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
      stays[k] = false;
      if (const auto earlier = standing.find(names[k]); earlier != standing.end()) {
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
  if (gone.empty()) return;
  eh.note(part == "predict" ? std::string("duplicate terms were dropped from the predict statement")
                            : text("duplicate terms were dropped from the ", part, " part of the model"));
  eh.continuation(text("terms dropped: ", join(gone, ", ")));
  if (kept->size() == 0) {
    eh.error("should not have been able to remove all the terms");
    return;
  }
  list.replace_with(std::move(kept));
}

}  // namespace tolvan
