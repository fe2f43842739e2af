// Variance parameters as linear functions of a few others.  Routine: HANDLE_VCM.
#include <algorithm>
#include <cmath>
#include <vector>

#include "base/text.h"
#include "model/request.h"
#include "varstruct/initial_values.h"
#include "varstruct/linear_constraints.h"

namespace tolvan {

namespace {

/// L_FIND_ENTRY: the parameter that one entry names, from 0; -1 with an error.
std::int64_t L_FIND_ENTRY(ERROR_HANDLER& eh, const JsonNode& entry, const FACTOR_TABLE& factors,
                          const TERM_TABLE& terms, VARIANCE_MODEL& model, std::string& shown)
{
  const Frame here{eh, __func__};
  const JsonNode* name = entry.find("term");
  const JsonNode* id = entry.find("term_id");
  if (name != nullptr && name->is(JsonType::string)) {
    shown = name->text();
    const std::int64_t found = find_parameter(factors, terms, model, shown);
    if (found >= 0) return found;
    eh.error(text("VCM constraint was supplied for the term ", shown, ", but it is not in the model"));
    const PARAMETER_RANGE range = find_structure(factors, terms, model, shown);
    if (range.count > 1)
      eh.continuation(text("the term has ", range.count, " parameters; each is named by its label"));
    return -1;
  }
  if (id == nullptr || !id->is(JsonType::integer)) {
    eh.error("was expecting either a name or ID number in each of the VCM entries");
    return -1;
  }
  shown = text(id->integer());
  if (id->integer() >= 1 && id->integer() <= model.count()) return id->integer() - 1;
  eh.error(text("invalid ID supplied for a VCM entry, value = ", id->integer(),
                ", supplied values must be in the range [1,", model.count(), "]"));
  return -1;
}

/// L_READ_ENTRY: one entry with its coefficients.
void L_READ_ENTRY(ERROR_HANDLER& eh, const JsonNode& entry, const FACTOR_TABLE& factors,
                  const TERM_TABLE& terms, VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  if (!entry.is(JsonType::object)) {
    eh.error("was expecting either a name or ID number in each of the VCM entries");
    return;
  }
  std::string shown;
  const std::int64_t parameter = L_FIND_ENTRY(eh, entry, factors, terms, model, shown);
  if (eh.terminate()) return;
  const bool twice = std::any_of(model.vcm.begin(), model.vcm.end(),
                                 [&](const VCM_ROW& r) { return r.parameter == parameter; });
  if (twice) {
    eh.error(text("at least two sets of VCM information has been supplied for ", shown));
    return;
  }
  const VARIANCE_PARAMETER& p = model.parameters[static_cast<std::size_t>(parameter)];
  const bool profiled = model.profiled && parameter == model.residual_parameter;
  if (profiled || p.master >= 0 || !is_free(p.constraint)) {
    eh.error(text("VCM constraint not permitted on variance parameter ", parameter + 1));
    return;
  }
  const JsonNode* values = entry.find("values");
  if (values == nullptr) values = entry.find("vcm_values");
  VCM_ROW row{.parameter = parameter};
  bool good = values != nullptr;
  if (good && values->is_number()) {
    row.coefficients.push_back(values->number());
  } else if (good && values->is(JsonType::array) && values->packed()) {
    for (std::int64_t k = 0; k < values->number_count(); ++k) row.coefficients.push_back(values->number(k));
  } else {
    good = false;
  }
  good = good && std::all_of(row.coefficients.begin(), row.coefficients.end(),
                             [](double x) { return std::isfinite(x); });
  if (!good) {
    REPORT_JSON_ERROR(eh, values != nullptr ? *values : entry, {"a list of finite numbers"});
    return;
  }
  if (!model.vcm.empty() && row.coefficients.size() != model.vcm.front().coefficients.size()) {
    eh.error("the same number of values should be supplied for each of the VCM entries");
    eh.continuation(text(row.coefficients.size(), " values supplied for ", shown, ", expected ",
                         model.vcm.front().coefficients.size()));
    return;
  }
  model.vcm.push_back(std::move(row));
}

/// L_LINK_ROWS: turns the rows into links.
void L_LINK_ROWS(ERROR_HANDLER& eh, VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  std::vector<std::ptrdiff_t> first(model.vcm.front().coefficients.size(),
                                    -1);  // the row that leads each column
  for (std::size_t r = 0; r < model.vcm.size(); ++r) {
    const VCM_ROW& row = model.vcm[r];
    const auto nonzero =
        std::count_if(row.coefficients.begin(), row.coefficients.end(), [](double x) { return x != 0.0; });
    VARIANCE_PARAMETER& p = model.parameters[static_cast<std::size_t>(row.parameter)];
    if (nonzero == 0) {
      p.value = p.start = 0.0;
      p.constraint = Constraint::F;
      continue;
    }
    if (nonzero > 1) {
      eh.not_implemented(
          text("a VCM constraint that makes ", p.label, " a sum of several parameters is not implemented"));
      return;
    }
    const auto at = static_cast<std::size_t>(
        std::find_if(row.coefficients.begin(), row.coefficients.end(), [](double x) { return x != 0.0; }) -
        row.coefficients.begin());
    if (first[at] < 0) {
      first[at] = static_cast<std::ptrdiff_t>(r);
      continue;
    }
    const VCM_ROW& lead = model.vcm[static_cast<std::size_t>(first[at])];
    link_parameter(model, row.parameter, lead.parameter, row.coefficients[at] / lead.coefficients[at]);
  }
  set_followers(model);
}

}  // namespace

void HANDLE_VCM(ERROR_HANDLER& eh, const JsonNode& request, const FACTOR_TABLE& factors,
                const TERM_TABLE& terms, VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  model.vcm.clear();
  const JsonNode* list = request.find("vcm");
  if (const JsonNode* m = request.find("model"); list == nullptr && m != nullptr) {
    if (m->is(JsonType::array) && !m->packed() && !m->children().empty()) m = m->children().front().get();
    list = m->find("vcm");
  }
  if (list == nullptr || list->is(JsonType::null)) return;
  if (list->is(JsonType::object)) {
    L_READ_ENTRY(eh, *list, factors, terms, model);
  } else if (list->is(JsonType::array) && !list->packed()) {
    for (const auto& entry : list->children()) {
      L_READ_ENTRY(eh, *entry, factors, terms, model);
      if (eh.terminate()) return;
    }
  } else {
    eh.error("was expecting either a name or ID number in each of the VCM entries");
  }
  if (eh.terminate() || model.vcm.empty()) return;
  L_LINK_ROWS(eh, model);
}

}  // namespace tolvan
