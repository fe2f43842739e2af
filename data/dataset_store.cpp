// The matrices of an object.  Routines: UDST_ADD, UDST_BIND, UDST_FIND_VAR, UDST_DUMP.
#include <algorithm>
#include <cmath>

#include "base/text.h"
#include "data/dataset.h"
#include "data/request_values.h"

namespace tolvan {

namespace {

std::string_view shown(const std::string& name)
{
  return name.empty() ? "none specified" : std::string_view(name);
}

/// L_CHECK_SIZE: complains of a matrix that is smaller than its description.
void L_CHECK_SIZE(ERROR_HANDLER& eh, const USER_DATASET_INFO& info, std::int64_t rows, std::int64_t columns)
{
  const Frame here{eh, __func__};
  if (rows >= info.number_of_observations && columns >= info.number_of_columns) return;
  eh.error(text("supplied data is too small, it is (", rows, " x ", columns, "), was expecting at least (",
                info.number_of_observations, " x ", info.number_of_columns, ")"));
  if (!info.name.empty()) eh.continuation(text("dataset ", info.name));
}

/// The column of a variable in a description, from 0, -1 for none; user_column_number moves it, and variables of
/// the number 0 take no place.
std::int64_t column_of(const JsonNode& dataset, const USER_DATASET_INFO& info, std::string_view name)
{
  if (info.variables.empty()) return -1;
  std::int64_t place = 0;
  for (const JsonNode* entry : list_entries(*dataset.find("variables"))) {
    const JsonNode* moved = given_value(*entry, "user_column_number");
    const bool in_none = moved != nullptr && moved->integer() == 0;
    if (given_value(*entry, "name")->text() == name) return moved == nullptr ? place : moved->integer() - 1;
    if (!in_none) ++place;
  }
  return -1;
}

}  // namespace

const USER_DATASET* USER_DATASET_STORE::find(std::string_view name) const
{
  for (const USER_DATASET& dataset : datasets) {
    if (dataset.name == name) return &dataset;
  }
  return nullptr;
}

void UDST_ADD(ERROR_HANDLER& eh, USER_DATASET_STORE& store, std::string_view name, const double* values,
              std::int64_t rows, std::int64_t columns)
{
  const Frame here{eh, __func__};
  USER_DATASET added;
  added.rows = rows;
  added.columns = columns;
  if (!name.empty() && name.front() == '{') {
    USER_DATASET_INFO info;
    UDIT_FROM_JSTR(eh, name, info);
    if (eh.terminate()) return;
    L_CHECK_SIZE(eh, info, rows, columns);
    if (eh.terminate()) return;
    added.name = info.name;
    added.document = name;
  } else {
    added.name = name;
  }
  std::int64_t size = 0;
  if (rows < 0 || columns < 0 || __builtin_mul_overflow(rows, columns, &size) ||
      (values == nullptr && size > 0)) {
    eh.error(text("invalid data supplied for dataset ", shown(added.name), ", it is (", rows, " x ", columns,
                  ")"));
    return;
  }
  added.values.assign(values, values + size);
  for (double& x : added.values) {
    if (std::isnan(x)) x = no_value;
  }
  for (USER_DATASET& dataset : store.datasets) {
    if (dataset.name == added.name) {
      dataset = std::move(added);
      return;
    }
  }
  store.datasets.push_back(std::move(added));
}

void UDST_BIND(ERROR_HANDLER& eh, const USER_DATASET_STORE& store, const JsonNode& dataset,
               DATASET_VIEW& view)
{
  const Frame here{eh, __func__};
  view = {};
  UDIT_FROM_JSON(eh, dataset, view.info);
  if (eh.terminate()) return;
  view.data = store.find(view.info.name);
  if (view.data == nullptr) {
    eh.error(text("no data were supplied for dataset ", shown(view.info.name)));
    std::string names;
    for (const USER_DATASET& data : store.datasets) names += text(names.empty() ? "" : ", ", shown(data.name));
    eh.continuation(names.empty() ? "no matrix was handed in" : text("matrices were handed in for ", names));
    return;
  }
  L_CHECK_SIZE(eh, view.info, view.data->rows, view.data->columns);
}

void UDST_FIND_VAR(ERROR_HANDLER& eh, const USER_DATASET_STORE& store, const JsonNode& request,
                   std::string_view name, DATASET_VIEW& view, std::int64_t& column)
{
  const Frame here{eh, __func__};
  column = -1;
  const std::vector<const JsonNode*> descriptions = dataset_descriptions(eh, request);
  if (eh.terminate()) return;
  std::string first;
  for (const USER_DATASET& data : store.datasets) {
    for (const JsonNode* description : descriptions) {
      const JsonNode* described = given_value(*description, "name");
      if ((described != nullptr ? described->text() : std::string{}) != data.name) continue;
      USER_DATASET_INFO info;
      UDIT_FROM_JSON(eh, *description, info);
      if (eh.terminate()) return;
      const std::int64_t found = column_of(*description, info, name);
      if (found < 0) continue;
      if (column >= 0) {
        warn_not_unique(eh, name, first, data.name);
        return;
      }
      UDST_BIND(eh, store, *description, view);
      if (eh.terminate()) return;
      column = found;
      first = data.name;
    }
  }
  if (column < 0) eh.error(text("the variable ", name, " is unknown"));
}

std::vector<const JsonNode*> dataset_descriptions(ERROR_HANDLER& eh, const JsonNode& request)
{
  std::vector<const JsonNode*> kept;
  if (!request.is(JsonType::object)) return kept;
  for (const auto& child : request.children()) {
    if (child->name != "dataset") continue;
    for (const JsonNode* entry : list_entries(*child)) {
      const JsonNode* name = given_value(*entry, "name");
      bool repeated = false;
      for (const JsonNode*& earlier : kept) {
        const JsonNode* known = given_value(*earlier, "name");
        if (name == nullptr || known == nullptr || name->text() != known->text()) continue;
        repeated = true;
        earlier = entry;
        eh.EH_ADD_MESSAGE({.text = "data information has been supplied multiple times, the previous "
                                   "information will be overwritten",
                           .etype = Etype::warning,
                           .unique = true});
      }
      if (!repeated) kept.push_back(entry);
    }
  }
  return kept;
}

void warn_not_unique(ERROR_HANDLER& eh, std::string_view variable, const std::string& used,
                     const std::string& other)
{
  eh.warning(text("the variable ", variable, " is not unique"));
  eh.continuation(text("it appears in datasets ", shown(used), " and ", shown(other)));
  eh.continuation(text("the variable from ", shown(used), " will be used"));
}

std::string UDST_DUMP(const USER_DATASET_STORE& store)
{
  std::string dump;
  for (const USER_DATASET& dataset : store.datasets) {
    dump += text("dataset: ", shown(dataset.name), ", ", dataset.rows, " x ", dataset.columns, "\n");
    const std::int64_t shown_values =
        std::min<std::int64_t>(10, static_cast<std::int64_t>(dataset.values.size()));
    dump += "  first values as handed in:";
    for (std::int64_t k = 0; k < shown_values; ++k) {
      dump += ' ';
      dump += real_text(dataset.values[static_cast<std::size_t>(k)]);
    }
    dump += '\n';
  }
  return dump;
}

}  // namespace tolvan
