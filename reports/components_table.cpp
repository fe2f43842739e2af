// The variance components and their sampling variances.  Routines: CHUNK_OF_AIDRPT,
// STORE_INITIAL_VALUES_TABLE.
#include <algorithm>
#include <array>
#include <cmath>
#include <unordered_set>

#include "base/text.h"
#include "reports/result_tables.h"

namespace tolvan {

namespace {

constexpr std::array code_footnotes = {
    "code B - fixed at a boundary             F - fixed by user",
    "     ? - liable to change from P to B    P - positive definite",
    "     C - Constrained by user             U - unbounded ",
    "     S - Singular Information matrix",
};
constexpr double prints_as_zero = 0.005;  // a Sigma/SE below it prints as 0.00

std::string code_letter(const VARIANCE_MODEL& model, const FIT_STATE& fit, std::size_t i)
{
  if (i < fit.bound.size()) return std::string(1, fit.bound[i]);
  return std::string(1, constraint_letters[static_cast<std::size_t>(model.parameters[i].constraint)]);
}

/// The standard error of a parameter; the missing mark for one that was not estimated.
double standard_error(const FIT_STATE& fit, std::size_t i)
{
  const std::size_t at = i * (i + 1) / 2 + i;
  if (at >= fit.covariance.size()) return no_value;
  const double variance = fit.covariance[at];
  return variance > 0.0 && std::isfinite(variance) ? std::sqrt(variance) : no_value;
}

/// The change of a parameter in the last step, in percent of what it was: from the pass before, the last of
/// its repeats, to the last pass.
std::int64_t percent_change(const FIT_STATE& fit, std::size_t i)
{
  constexpr double widest = 999.0;  // of I4, with a sign
  if (fit.trace.empty()) return 0;
  const ITERATION_ROW& last = fit.trace.back();
  const auto before = std::find_if(fit.trace.rbegin(), fit.trace.rend(),
                                   [&](const ITERATION_ROW& row) { return row.iteration < last.iteration; });
  if (before == fit.trace.rend() || i >= before->gammas.size() || i >= last.gammas.size()) return 0;
  const double was = before->gammas[i], is = last.gammas[i];
  if (was == is) return 0;
  const double change = was == 0.0 ? widest : 100.0 * (is - was) / std::fabs(was);
  return std::isfinite(change) ? std::lround(std::clamp(change, -widest, widest)) : 0;
}

/// L_ADD_VARCOMP_FOOTNOTES: the lines below the components: the codes, then what applies to these.
void L_ADD_VARCOMP_FOOTNOTES(ERROR_HANDLER& eh, const FIT_STATE& fit, bool singular, bool scaling,
                             OUTPUT_TABLE& t)
{
  const Frame here{eh, __func__};
  if (fit.imputations > 0) OTT_ADD_FOOTNOTE(eh, t, "The components reported above are the RBG averages");
  for (const char* line : code_footnotes) OTT_ADD_FOOTNOTE(eh, t, line);
  if (singular) OTT_ADD_FOOTNOTE(eh, t, "S means there is no information in the data for this parameter");
  if (scaling) {
    OTT_ADD_FOOTNOTE(eh, t,
                     "very small components with Comp/SE ratios of zero sometimes indicate poor scaling");
    OTT_ADD_FOOTNOTE(eh, t, "consider rescaling the design matrix in such cases");
  }
  if (singular && !fit.first_singular_label.empty()) {
    OTT_ADD_FOOTNOTE(eh, t,
                     text("the first singularity may have occurred because ", fit.first_singular_label,
                          " is confounded with the residual"));
  }
}

}  // namespace

void STORE_INITIAL_VALUES_TABLE(ERROR_HANDLER& eh, const VARIANCE_MODEL& model, OUTPUT_TABLE_STORE& store)
{
  const Frame here{eh, __func__};
  std::unordered_set<std::string_view> labels;
  for (const VARIANCE_PARAMETER& p : model.parameters) {
    if (labels.insert(p.label).second) continue;
    eh.error(text("duplicate variance component label: ", p.label));
    return;
  }
  const std::int64_t id = OTST_REGISTER_TABLE(eh, store, "TABLE_INITVALS");
  if (eh.terminate()) return;
  OUTPUT_TABLE& t = store.table(id);
  OTT_ADD_COLUMN(eh, t, {.type = ColumnType::integer, .name = "IDS", .heading = "IDS", .format = "I6"});
  OTT_ADD_COLUMN(eh, t,
                 {.type = ColumnType::string,
                  .name = "LABELS",
                  .heading = "Label",
                  .format = "A",
                  .justify = Justify::left});
  OTT_ADD_COLUMN(eh, t, {.name = "VALUES", .heading = "Value", .format = "G14.6"});
  OTT_ADD_COLUMN(eh, t, {.type = ColumnType::string, .name = "FLAGS", .heading = "Con_Flg", .format = "A4"});
  OTT_ALLOC_DATA_STORES(eh, t, model.count());
  if (eh.terminate()) return;
  std::int64_t number = 0;
  for (const VARIANCE_PARAMETER& p : model.parameters) {
    OTT_NEXT_ROW(eh, t);
    OTT_SET_INTEGER_VALUES(eh, t, {++number});
    OTT_SET_STRING_VALUES(eh, t,
                          {p.label, constraint_letters.substr(static_cast<std::size_t>(p.constraint), 1)});
    OTT_SET_REAL_VALUES(eh, t, {p.value});
    if (eh.terminate()) return;
  }
}

void CHUNK_OF_AIDRPT(ERROR_HANDLER& eh, const VARIANCE_MODEL& model, const FIT_STATE& fit,
                     OUTPUT_TABLE_STORE& store)
{
  const Frame here{eh, __func__};
  const std::int64_t id = OTST_REGISTER_TABLE(eh, store, "TABLE_VARCOMP");
  if (eh.terminate()) return;
  OUTPUT_TABLE& t = store.table(id);
  OTT_ADD_COLUMN(eh, t,
                 {.type = ColumnType::string,
                  .name = "LABEL",
                  .heading = "Model_Term",
                  .format = "A",
                  .justify = Justify::left});
  OTT_ADD_COLUMN(eh, t, {.name = "GAMMA", .heading = "Gamma", .format = "G14.6"});
  OTT_ADD_COLUMN(eh, t, {.name = "SIGMA", .heading = "Sigma", .format = "G14.6"});
  OTT_ADD_COLUMN(eh, t, {.name = "SE", .heading = "SE", .format = "G14.6"});
  OTT_ADD_COLUMN(eh, t, {.name = "ZRATIO", .heading = "Sigma/SE", .format = "F7.2"});
  OTT_ADD_COLUMN(eh, t, {.type = ColumnType::integer, .name = "PC", .heading = "%", .format = "I4"});
  OTT_ADD_COLUMN(eh, t, {.type = ColumnType::string, .name = "BOUND", .heading = "C", .format = "A4"});
  OTT_ALLOC_DATA_STORES(eh, t, model.count());
  if (eh.terminate()) return;

  bool singular = false, scaling = false;
  for (std::size_t i = 0; i < model.parameters.size(); ++i) {
    const double gamma = i < fit.evaluated.size() ? fit.evaluated[i] : no_value;
    const double sigma = i < fit.sigma.size() ? fit.sigma[i] : no_value;
    const double se = standard_error(fit, i);
    const double ratio = is_no_value(se) || is_no_value(sigma) ? 0.0 : sigma / se;
    const std::string code = code_letter(model, fit, i);
    singular = singular || code == "S";
    scaling = scaling || (!is_no_value(se) && sigma > 0.0 && std::fabs(ratio) < prints_as_zero);
    OTT_NEXT_ROW(eh, t);
    OTT_SET_STRING_VALUES(eh, t, {model.parameters[i].label, code});
    OTT_SET_REAL_VALUES(eh, t, {gamma, sigma, se, ratio});
    OTT_SET_INTEGER_VALUES(eh, t, {percent_change(fit, i)});
    if (eh.terminate()) return;
  }
  L_ADD_VARCOMP_FOOTNOTES(eh, fit, singular, scaling, t);
  if (eh.terminate()) return;

  const auto n = static_cast<std::size_t>(model.count());
  if (fit.covariance.size() != n * (n + 1) / 2) return;  // a fit that failed before it had the information
  const std::int64_t variances = OTST_REGISTER_TABLE(eh, store, "TABLE_VARVAR", TableType::packed_sym_mtx);
  if (eh.terminate()) return;
  OUTPUT_TABLE& v = store.table(variances);
  OTT_ADD_COLUMN(eh, v, {.name = "VALUES", .heading = "SED(PV)", .format = "g14.6"});
  OTT_ADD_TITLE(eh, v, "Variance of Variance components ");
  OTT_ALLOC_DATA_STORES(eh, v, static_cast<std::int64_t>(fit.covariance.size()));
  if (eh.terminate()) return;
  OTT_SET_COLUMN_REAL_WP(eh, v, 1, fit.covariance);
}

}  // namespace tolvan
