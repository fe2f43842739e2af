// Which data are the primary ones.  Routine: GET_PRIMARY_DATA_DESCRIPTION.
#include <algorithm>

#include "base/text.h"
#include "data/read_data.h"
#include "data/request_values.h"
#include "model/request.h"

namespace tolvan {

namespace {

constexpr int deepest_term = 20;

/// The first plain name of a term node, as written there; empty if there is none.
std::string first_name(const JsonNode* node)
{
  for (int depth = 0; node != nullptr && depth < deepest_term; ++depth) {
    if (node->is(JsonType::string)) return node->text();
    if (node->is(JsonType::array)) {
      node = node->packed() || node->children().empty() ? nullptr : node->children().front().get();
      continue;
    }
    if (!node->is(JsonType::object)) return {};
    const JsonNode* inner = nullptr;
    for (const char* key : {"terms", "term_name", "interaction", "function", "arguments", "value"}) {
      if ((inner = given_value(*node, key)) != nullptr) break;
    }
    node = inner;
  }
  return {};
}

/// The first response of the (first) model of a request; empty where there is none yet to be found.
std::string response_name(const JsonNode& request)
{
  const JsonNode* model = given_value(request, "model");
  if (model != nullptr && model->is(JsonType::array)) {
    model = model->packed() || model->children().empty() ? nullptr : model->children().front().get();
  }
  return model == nullptr ? std::string{} : first_name(given_value(*model, "response"));
}

/// L_DESCRIBE_FILE: finds the variables of a data file, at the top level, in the model or with the file.
void L_DESCRIBE_FILE(ERROR_HANDLER& eh, JsonNode& request, PRIMARY_DATA& primary)
{
  const Frame here{eh, __func__};
  if (request.count("data_file") > 1) {
    eh.error("merging of data files not supported");
    return;
  }
  JsonNode* file = request.find("data_file");
  if (file->is(JsonType::array)) {
    const std::vector<JsonNode*> files = list_entries(*file);
    if (files.size() > 1) {
      eh.error("merging of data files not supported");
      return;
    }
    if (files.size() == 1) file = files.front();
  }
  if (!file->is(JsonType::object)) {
    REPORT_JSON_ERROR(eh, *file, {"an object that describes a data file"});
    return;
  }
  primary.data_file = file;
  const JsonNode* model = request.find("model");
  for (const JsonNode* place :
       {static_cast<const JsonNode*>(&request), model, static_cast<const JsonNode*>(file)}) {
    if (place == nullptr || given_value(*place, "variables") == nullptr) continue;
    primary.variables = place->find("variables");
    return;
  }
  REPORT_JSON_ERROR(eh, request, "variables");
}

/// Descriptions in the order in which their matrices came, behind them those without a matrix.
std::vector<const JsonNode*> in_order_of_store(std::vector<const JsonNode*> descriptions,
                                               const USER_DATASET_STORE& store)
{
  const auto place = [&store](const JsonNode* description) {
    const JsonNode* name = given_value(*description, "name");
    const USER_DATASET* data = store.find(name != nullptr ? name->text() : std::string());
    return std::find_if(store.datasets.begin(), store.datasets.end(),
                        [data](const USER_DATASET& d) { return &d == data; }) -
           store.datasets.begin();
  };
  std::stable_sort(descriptions.begin(), descriptions.end(),
                   [&place](const JsonNode* a, const JsonNode* b) { return place(a) < place(b); });
  return descriptions;
}

/// L_DESCRIBE_MATRIX: binds the first dataset that holds the response.
void L_DESCRIBE_MATRIX(ERROR_HANDLER& eh, const JsonNode& request, const USER_DATASET_STORE& store,
                       PRIMARY_DATA& primary)
{
  const Frame here{eh, __func__};
  const std::vector<const JsonNode*> descriptions = dataset_descriptions(eh, request);
  if (eh.terminate()) return;
  if (descriptions.empty()) {
    REPORT_JSON_ERROR(eh, request, "dataset");
    eh.continuation("the data of a model are described by dataset, or by data_file and variables");
    return;
  }
  const std::string response = response_name(request);
  const JsonNode* chosen = response.empty() ? descriptions.front() : nullptr;
  std::string chosen_name;
  for (const JsonNode* description : in_order_of_store(descriptions, store)) {
    USER_DATASET_INFO info;
    UDIT_FROM_JSON(eh, *description, info);
    if (eh.terminate()) return;
    bool holds = false;
    for (const std::string& variable : info.variables) holds = holds || variable == response;
    if (!holds) continue;
    if (chosen == nullptr) {
      chosen = description;
      chosen_name = info.name;
    } else if (!response.empty()) {
      warn_not_unique(eh, response, chosen_name, info.name);
      break;
    }
  }
  if (chosen == nullptr) {
    eh.error(text("the response variable, ", response, ", is unknown"));
    return;
  }
  UDST_BIND(eh, store, *chosen, primary.matrix);
  if (eh.terminate()) return;
  primary.variables = chosen->find("variables");
}

}  // namespace

void GET_PRIMARY_DATA_DESCRIPTION(ERROR_HANDLER& eh, JsonNode& request, const USER_DATASET_STORE& store,
                                  PRIMARY_DATA& primary)
{
  const Frame here{eh, __func__};
  primary = {};
  if (given_value(request, "data_file") != nullptr) {
    L_DESCRIBE_FILE(eh, request, primary);
  } else {
    L_DESCRIBE_MATRIX(eh, request, store, primary);
  }
}

}  // namespace tolvan
