// Variance parameters as linear functions of a few others.  Routine: HANDLE_VCM.
#include <algorithm>
#include <cmath>
#include <vector>

#include "base/text.h"
#include "model/request.h"
#include "varstruct/followers.h"
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
  if (profiled || follows(p) || !is_free(p.constraint)) {
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

/// A row of coefficients on its way through the elimination: what is left of it, and of which rows it is a sum.
struct REDUCED {
  std::vector<double> left;
  std::vector<double> shares;  // one a leading row
};

/// Takes the leading rows off a row: row = sum of shares times leading rows + what is left.
REDUCED reduce(const std::vector<double>& row, const std::vector<REDUCED>& leaders, const std::vector<std::size_t>& pivot)
{
  REDUCED out{row, std::vector<double>(leaders.size(), 0.0)};
  for (std::size_t r = 0; r < leaders.size(); ++r) {
    const REDUCED& leader = leaders[r];
    const double by = out.left[pivot[r]] / leader.left[pivot[r]];
    if (by == 0.0) continue;
    for (std::size_t c = 0; c < out.left.size(); ++c) out.left[c] -= by * leader.left[c];
    out.left[pivot[r]] = 0.0;
    // The leader itself is its row less its shares of those before it.
    out.shares[r] += by;
    for (std::size_t e = 0; e < r; ++e) out.shares[e] -= by * leader.shares[e];
  }
  return out;
}

/// L_LINK_ROWS: turns the rows into links.  The first rows that are linearly independent lead: the few new parameters are
/// functions of them, and so are the other rows.
void L_LINK_ROWS(ERROR_HANDLER& eh, VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  constexpr double rounding = 1e-12;
  std::vector<REDUCED> leaders;
  std::vector<std::size_t> pivot;  // of each leader: the column that it takes
  std::vector<std::int64_t> leading;
  for (const VCM_ROW& row : model.vcm) {
    double size = 0.0;
    for (const double x : row.coefficients) size = std::max(size, std::fabs(x));
    REDUCED reduced = reduce(row.coefficients, leaders, pivot);
    const auto largest = std::max_element(reduced.left.begin(), reduced.left.end(),
                                          [](double a, double b) { return std::fabs(a) < std::fabs(b); });
    VARIANCE_PARAMETER& p = model.parameters[static_cast<std::size_t>(row.parameter)];
    if (size > 0.0 && std::fabs(*largest) > rounding * size) {
      pivot.push_back(static_cast<std::size_t>(largest - reduced.left.begin()));
      leaders.push_back(std::move(reduced));
      leading.push_back(row.parameter);
      continue;
    }
    std::vector<PARAMETER_SHARE> shares;
    for (std::size_t r = 0; r < leading.size(); ++r) {
      if (std::fabs(reduced.shares[r]) > rounding) shares.push_back({leading[r], reduced.shares[r]});
    }
    if (shares.empty()) {  // all of its coefficients are zero
      p.value = p.start = 0.0;
      p.constraint = Constraint::F;
    } else {
      link_to_sum(model, row.parameter, shares);
    }
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
