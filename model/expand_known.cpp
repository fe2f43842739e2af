// Known matrices named in terms: their entries among the matrix files, and factors that must follow their labels.
// Routine: API_ADJUST_VM.
#include <algorithm>

#include "base/text.h"
#include "model/expand_model.h"
#include "model/function_catalogue.h"
#include "model/request_nodes.h"

namespace tolvan {

namespace {

/// L_FIND_MATRIX_ENTRY: the entry of grm_file for a matrix, added when there is none.
JsonNode* L_FIND_MATRIX_ENTRY(ERROR_HANDLER& eh, JsonNode& root, const std::string& source)
{
  const Frame here{eh, __func__};
  JsonNode* list = root.find("grm_file");
  if (list == nullptr) list = &root.add("grm_file", JsonType::array);
  if (list->is(JsonType::object)) {
    std::unique_ptr<JsonNode> entry = list->clone();
    entry->name.clear();
    list->set_array();
    list->add(std::move(entry));
  }
  if (!list->is(JsonType::array) || (list->packed() && list->number_count() > 0)) {
    REPORT_JSON_ERROR(eh, *list, {"an object", "an array of objects"});
    return nullptr;
  }
  for (const auto& entry : list->children()) {
    const JsonNode* name = entry->find("name");
    if (name == nullptr || !name->is_text(source)) continue;
    if (const JsonNode* type = entry->find("type")) {
      const bool known = type->is_text("ft_data") || type->is_text("ft_csv") || type->is_text("ft_text");
      if (!known) {
        eh.error(text("unexpected type in grm_file node, with name = ", source));
        return nullptr;
      }
    }
    return entry.get();
  }
  JsonNode& entry = list->add("", JsonType::object);
  entry.add_value("name", source);
  entry.add_value("type", "ft_data");
  return &entry;
}

template <class Value>
void set_key(JsonNode& object, std::string_view key, Value value)
{
  if (JsonNode* node = object.find(key)) {
    node->set(std::move(value));
  } else {
    object.add_value(std::string(key), std::move(value));
  }
}

/// Calls a visitor for each description of a variable; in_file tells whether its data come from a file.
template <class Visit>
void each_variable(JsonNode& root, Visit visit)
{
  const auto look_in = [&](JsonNode* owner, bool in_file) {
    JsonNode* variables = owner == nullptr ? nullptr : owner->find("variables");
    if (variables == nullptr || !variables->is(JsonType::array)) return;
    for (const auto& variable : variables->children()) visit(*variable, in_file);
  };
  look_in(&root, true);
  for (JsonNode* model : models_of(root)) look_in(model, true);
  look_in(root.find("data_file"), true);
  if (JsonNode* datasets = root.find("dataset"); datasets != nullptr && datasets->is(JsonType::array))
    for (const auto& dataset : datasets->children()) look_in(dataset.get(), false);
}

/// The labels of a matrix that is handed in: the names of the columns of a dense one, none where they merely count.
std::vector<std::string> labels_of_matrix(const JsonNode& root, const std::string& source)
{
  std::vector<std::string> labels;
  const JsonNode* datasets = root.find("dataset");
  if (datasets == nullptr || !datasets->is(JsonType::array)) return labels;
  for (const auto& dataset : datasets->children()) {
    const JsonNode* name = dataset->find("name");
    const JsonNode* variables = dataset->find("variables");
    if (name == nullptr || !name->is_text(source) || variables == nullptr || variables->size() == 3) continue;
    bool counts = true;
    for (const auto& variable : variables->children()) {
      const JsonNode* label = variable->find("name");
      labels.push_back(label != nullptr && label->is(JsonType::string) ? label->text() : std::string());
      counts = counts && labels.back() == text(labels.size());
    }
    if (counts) labels.clear();
    break;
  }
  return labels;
}

std::vector<std::string> labels_of_factor(const JsonNode& variable)
{
  std::vector<std::string> labels;
  const JsonNode* given = variable.find("factor_labels");
  if (given == nullptr || !given->is(JsonType::array) || given->packed()) return labels;
  for (const auto& label : given->children()) labels.push_back(label->is(JsonType::string) ? label->text() : std::string());
  return labels;
}

/// L_FLAG_FACTOR_FOR_RECODING: marks a factor whose levels have to follow the labels of a matrix.
///   in_file   labels may still come from the data file
///   shown     the call that asks for it
void L_FLAG_FACTOR_FOR_RECODING(ERROR_HANDLER& eh, const JsonNode& root, JsonNode& variable, bool in_file,
                                const std::string& source, const std::vector<std::string>& labels,
                                const std::string& shown)
{
  const Frame here{eh, __func__};
  const JsonNode* type = variable.find("field_type");
  const std::string& name = variable.find("name")->text();
  if (type == nullptr || type->is_text("vt_variate")) return;  // no factor: the term is refused
  if (const JsonNode* before = variable.find("recode_factor_labels_from"); before != nullptr && before->is(JsonType::string)) {
    if (before->is_text(source) || labels_of_matrix(root, before->text()) == labels) return;
    eh.error(text(name, " is already flagged as needing recoding, and the levels are not the same"));
    eh.continuation("this is likely to be due to multiple inconsistent calls to the vm() function");
    return;
  }
  const std::vector<std::string> own = labels_of_factor(variable);
  const JsonNode* declared = variable.find("number_of_levels");
  const std::int64_t count = std::max(std::ssize(own), declared != nullptr && declared->is(JsonType::integer)
                                                           ? declared->integer()
                                                           : std::int64_t{0});
  if (count > std::ssize(labels)) {
    eh.error(text(count, " levels were explicitly specified for ", name,
                  " but this is greater than the number column labels supplied for the associated matrix (",  // sic
                  labels.size()));
    return;
  }
  if (own == labels) return;
  if (own.empty() && type->is_text("vt_integer_factor_1_to_n")) return;  // its levels are rows of the matrix
  if (own.empty() && !in_file && type->is_text("vt_string_factor")) {
    eh.error(text("was expecting levels to be specified for ", name, " due to recoding needed in ", shown));
    return;
  }
  set_key(variable, "code_levels_as", std::string("vt_integer_factor_1_to_n"));
  set_key(variable, "recode_factor_labels_from", source);
  set_key(variable, "recode_factor_labels_because", shown);
  set_key(variable, "number_of_levels", std::ssize(labels));
}

/// L_FOLLOW_LABELS: has the factor of a call follow the labels of its matrix, where it has any.
void L_FOLLOW_LABELS(ERROR_HANDLER& eh, JsonNode& root, const JsonNode& function, const std::string& source,
                     const std::string& shown)
{
  const Frame here{eh, __func__};
  const std::string name(plain_name(*find_argument(function, "variable_name")->find("value")));
  const std::vector<std::string> labels = labels_of_matrix(root, source);
  if (name.empty() || labels.empty()) return;
  bool found = false;
  each_variable(root, [&](JsonNode& variable, bool in_file) {
    const JsonNode* own = variable.find("name");
    if (found || own == nullptr || !own->is_text(name)) return;
    found = true;
    L_FLAG_FACTOR_FOR_RECODING(eh, root, variable, in_file, source, labels, shown);
  });
}

/// The matrices of dominance that a pedigree brings along (its key `dom`), and those that it might.
constexpr std::string_view dominance_matrices[] = {"Dominance", "BetFamInv", "DomWIfam"};
constexpr std::string_view unbuilt_matrices[] = {"Genetic_Di", "Genetic_E", "Cov_AD", "H_Dominance"};

/// Whether a source is the name of a pedigree, or of a matrix that it brings along: one without an entry of its own.
bool names_a_pedigree(const JsonNode& root, const std::string& source)
{
  const JsonNode* list = root.find("pedigree_file");
  if (list == nullptr) return false;
  const bool of_dominance = std::find(std::begin(dominance_matrices), std::end(dominance_matrices), source) !=
                            std::end(dominance_matrices);
  const auto is_it = [&](const JsonNode& entry) {
    const JsonNode* name = entry.find("name");
    if (name != nullptr && name->is_text(source)) return true;
    const JsonNode* dom = entry.find("dom");
    return of_dominance && dom != nullptr && (dom->is(JsonType::integer) ? dom->integer() > 0 : !dom->is(JsonType::null));
  };
  if (!list->is(JsonType::array)) return is_it(*list);
  return std::any_of(list->children().begin(), list->children().end(), [&](const auto& entry) { return is_it(*entry); });
}

/// The entry of marker_file of a name, null if there is none.
JsonNode* marker_entry(JsonNode& root, const std::string& source)
{
  JsonNode* list = root.find("marker_file");
  if (list == nullptr) return nullptr;
  const auto is_it = [&](const JsonNode& entry) {
    const JsonNode* name = entry.find("name");
    return name != nullptr && name->is_text(source);
  };
  if (!list->is(JsonType::array)) return is_it(*list) ? list : nullptr;
  const auto found =
      std::find_if(list->children().begin(), list->children().end(), [&](const auto& entry) { return is_it(*entry); });
  return found == list->children().end() ? nullptr : found->get();
}

/// L_ADD_MATRIX_ENTRY: what the arguments of vm() and ric() tell of their matrix goes to its entry.
void L_ADD_MATRIX_ENTRY(ERROR_HANDLER& eh, JsonNode& root, const JsonNode& function, const std::string& matrix)
{
  const Frame here{eh, __func__};
  const std::string kind = find_argument(function, "singG")->find("value")->text();
  if (!equal_nocase(kind, "PD") && !equal_nocase(kind, "ND") && !equal_nocase(kind, "PSD")) {
    eh.error(text("invalid value supplied for singG: ", kind, ", was expecting one of: PD, ND or PSD"));
    return;
  }
  if (names_a_pedigree(root, matrix)) return;
  if (root.find("pedigree_file") != nullptr &&
      std::find(std::begin(unbuilt_matrices), std::end(unbuilt_matrices), matrix) != std::end(unbuilt_matrices)) {
    eh.not_implemented(text("the matrix ", matrix, " of a pedigree with dominance is not implemented"));
    return;
  }
  JsonNode* entry = marker_entry(root, matrix);
  if (entry == nullptr) entry = L_FIND_MATRIX_ENTRY(eh, root, matrix);
  if (eh.terminate()) return;
  set_key(*entry, "giv", text(matrix, ".vm"));
  if (equal_nocase(kind, "ND")) set_key(*entry, "nsd", true);
  if (equal_nocase(kind, "PSD")) set_key(*entry, "psd", true);
  if (double value = 0.0; supplied_value(function, "ldet") != nullptr) {
    GET_FUNCTION_ARGUMENT_FROM_JPTR(eh, function, "ldet", value);
    if (eh.terminate()) return;
    set_key(*entry, "ldet", value);
  }
  if (const JsonNode* invert = supplied_value(function, "invert")) set_key(*entry, "invert", invert->logical());
}

}  // namespace

void API_ADJUST_VM(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& root, JsonNode& term)
{
  const Frame here{eh, __func__};
  JsonNode& function = *term.find("function");
  if (function.find("arguments")->size() < 2) {
    eh.error("was expecting at least two arguments");
    return;
  }
  const std::string shown = GET_FACNAME_FROM_JPTR(eh, communication, term);
  const JsonNode* source = find_argument(function, "source")->find("value");
  if (!source->is(JsonType::string)) {
    REPORT_JSON_ERROR(eh, *source, {"the name of a matrix"});
    return;
  }
  const std::string matrix = source->text();
  if (function_name(function) != "ide") L_ADD_MATRIX_ENTRY(eh, root, function, matrix);
  if (eh.terminate()) return;
  L_FOLLOW_LABELS(eh, root, function, matrix, shown);
  if (eh.terminate()) return;
  set_key(term, "user_facing_factor_name", shown);
}

}  // namespace tolvan
