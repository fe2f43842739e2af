#include "data/design_missing.h"

#include "base/text.h"

namespace tolvan {

namespace {

/// The name of the family in the standard form, "gaussian" where none is given.
std::string family_name(const JsonNode* family)
{
  for (int depth = 0; family != nullptr && depth < 4; ++depth) {
    if (family->is(JsonType::string)) return family->text();
    if (family->is(JsonType::array)) {
      family = family->packed() || family->children().empty() ? nullptr : family->children().front().get();
      continue;
    }
    const JsonNode* inner = family->find("function");
    family = inner != nullptr ? inner : family->find("name");
  }
  return "gaussian";
}

/// The lines that follow when some or all of the records concerned have no response either, and which variables those are.
void tell_the_rest(ERROR_HANDLER& eh, const MISSING_COUNTS& counts)
{
  if (counts.design_without_y > 0) {
    eh.continuation(counts.design_values > 0
                        ? "not counting instances where the response (Y) was also missing"
                        : "they were all associated with missing values in the response variable");
  }
  eh.continuation(text("missing values by variable: ", counts.variables));
}

std::string count_line(const MISSING_COUNTS& counts)
{
  return text(counts.design_values > 0 ? counts.design_values : counts.design_without_y,
              " missing value(s) detected in the design variables:");
}

}  // namespace

MissingTreatment missing_treatment(const FIT_OPTIONS& options)
{
  const std::int64_t slot = options(Slot::missing_values);
  return slot > 0 ? MissingTreatment::include : slot < 0 ? MissingTreatment::remove : MissingTreatment::fail;
}

void MISSING_VALUES::close_record(MISSING_COUNTS& counts)
{
  for (const std::size_t column : columns_) {
    const bool with_y = met_[column] == Met::with_y;
    ++(with_y ? counts.design_values : counts.design_without_y);
    ++(with_y ? with_y_ : without_y_)[column];
    met_[column] = Met::no;
  }
  columns_.clear();
}

void MISSING_VALUES::name_variables(const VARIABLE_TABLE& variables, MISSING_COUNTS& counts) const
{
  constexpr int most_named = 20;
  const std::vector<std::int64_t>& found = counts.design_values > 0 ? with_y_ : without_y_;
  int named = 0;
  for (std::size_t v = 0; v < found.size(); ++v) {
    if (found[v] == 0) continue;
    if (++named <= most_named) counts.variables += text(named > 1 ? ", " : "", variables.rows[v].name, " ", found[v]);
  }
  if (named > most_named) counts.variables += text(" and ", named - most_named, " more variables");
}

RecordFate fate_of_record(bool response_missing, bool missing, bool has_mv, MISSING_COUNTS& counts)
{
  if (response_missing) ++counts.responses;
  // A record that its response drops anyway is counted there.
  if (missing && counts.treatment == MissingTreatment::remove && (!response_missing || has_mv)) {
    ++counts.removed;
    return RecordFate::dropped;
  }
  const bool annulled = missing && counts.treatment == MissingTreatment::fail;
  if (!response_missing && !annulled) return RecordFate::kept;
  if (has_mv) return RecordFate::estimated;
  ++counts.dropped;
  return RecordFate::dropped;
}

void REPORT_MISSING_VALUES(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const MODEL_INFO& info,
                           const MISSING_COUNTS& counts)
{
  const Frame here{eh, __func__};
  if (counts.responses > 0 && options(Slot::y_missing_values) < 0) {
    eh.error(text(counts.responses, " missing value(s) detected in the response variable"));
    eh.continuation("the option y_missing_values does not allow them");
    return;
  }
  if (counts.dropped > 0) {
    eh.note(text(counts.dropped, " analysis records were dropped because the response variable was missing"));
  }
  if (counts.uneven) {
    eh.warning("dropped records were not evenly distributed across the traits");
    eh.continuation(
        "this will miss-align the residuals to any multivariate R structure that might be fitted [");  // sic
    eh.continuation(
        "include the model term \"mv\" to restore the balance by estimating these missing values]");
  }
  if (counts.design_values + counts.design_without_y == 0) return;
  switch (counts.treatment) {
    case MissingTreatment::include:
      eh.note(count_line(counts));
      eh.continuation(
          "they were treated as zeros, this may be reasonable if all covariates involved are centred");
      tell_the_rest(eh, counts);
      return;
    case MissingTreatment::remove:
      if (const std::string family = family_name(info.family); family != "gaussian" && family != "normal") {
        eh.error("the option to remove missing values may not be used with GL(M)M models");
        return;
      }
      if (counts.removed > 0) {
        eh.notice(
            text(counts.removed, " records were dropped because of missing values in design variables"));
        eh.continuation("the analysis records involved have been excluded from analysis");
      } else {
        eh.note(count_line(counts));
      }
      tell_the_rest(eh, counts);
      if (counts.removed > 0 && info.traits() > 1) {
        eh.warning(
            "it is not safe to remove missing values with a multivariate analysis because the residual structure "
            "(units.Traits) may be destroyed");
        eh.continuation("whole data records should be deleted instead");
      }
      return;
    case MissingTreatment::fail:
      eh.note(count_line(counts));
      if (counts.design_values > 0) {
        eh.warning(
            "the analysis records involved have been annulled by converting the response (Y) to a missing "
            "value.");
        eh.continuation(
            "you should set the missing value options if you wish missing values handled differently");
        eh.continuation("full records with missing values in the design variables should be dropped");
      }
      tell_the_rest(eh, counts);
      return;
  }
}

}  // namespace tolvan
