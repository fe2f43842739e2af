// The solutions and the fitted values.  Routines: TABLE_SLN, AIDRST.
#include "base/text.h"
#include <algorithm>
#include "reports/result_tables.h"

namespace tolvan {

void TABLE_SLN(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors,
               const TERM_TABLE& terms, const FIT_STATE& fit, OUTPUT_TABLE_STORE& store)
{
  const Frame here{eh, __func__};
  if (static_cast<std::int64_t>(fit.solution.size()) < terms.equations) {
    eh.internal(text("expected the second dimension of SOLN array to be at least ", terms.equations,
                     ", size = ", fit.solution.size()));
    return;
  }
  const std::int64_t id = OTST_REGISTER_TABLE(eh, store, "TABLE_SLN");
  if (eh.terminate()) return;
  OUTPUT_TABLE& t = store.table(id);
  OTT_ADD_COLUMN(eh, t,
                 {.type = ColumnType::string,
                  .name = "LABEL",
                  .heading = "Model_Term",
                  .format = "A",
                  .justify = Justify::left});
  OTT_ADD_COLUMN(eh, t,
                 {.type = ColumnType::string,
                  .name = "LVL",
                  .heading = "Level",
                  .format = "A",
                  .justify = Justify::left});
  OTT_ADD_COLUMN(eh, t, {.name = "EFFECT", .heading = "Effect", .format = "G12.4"});
  OTT_ADD_COLUMN(eh, t, {.name = "SE", .heading = "seEffect", .format = "G12.4"});
  const bool outliers = !fit.effect_outlier.empty();
  if (outliers) {
    OTT_ADD_COLUMN(eh, t, {.name = "GISE", .heading = "GiEffect", .format = "G12.4"});
    OTT_ADD_COLUMN(eh, t, {.name = "AOM", .heading = "AOMstat", .format = "G12.4"});
  }
  // Equations that only bind others are no effects.
  std::vector<std::uint8_t> binding(terms.rows.size(), 0);
  std::int64_t effects = 0;
  for (std::size_t i = 0; i < terms.rows.size(); ++i) {
    const TERM_ROW& term = terms.rows[i];
    if (term.block == Block::response || term.dropped) continue;
    const auto [from, to] = term.components();
    binding[i] = term.added > 0 ? 1 : 0;
    for (std::int64_t f = from; f >= 1 && f <= to && f <= factors.count(); ++f) binding[i] |= factors.row(f).binding_rows > 0 ? 1 : 0;
    effects += term.equations;
    for (std::int64_t k = 1; binding[i] && k <= term.equations; ++k) effects -= binds_a_level(factors, term, k) ? 1 : 0;
  }
  OTT_ALLOC_DATA_STORES(eh, t, effects);
  if (eh.terminate()) return;

  // The texts go into their stores at once: there may be millions of rows.
  std::vector<std::string>& label = t.string_col[0];
  std::vector<std::string>& level = t.string_col[1];
  std::size_t rows = 0;
  std::vector<double> effect, se, gi_effect, outlier;
  effect.reserve(static_cast<std::size_t>(terms.equations));
  se.reserve(static_cast<std::size_t>(terms.equations));
  for (const TERM_ROW& term : terms.rows) {
    if (term.block == Block::response || term.dropped) continue;
    for (std::int64_t k = 0; k < term.equations; ++k) {
      if (binding[static_cast<std::size_t>(&term - terms.rows.data())] && binds_a_level(factors, term, k + 1)) continue;
      const auto e = static_cast<std::size_t>(term.first + k);
      label[rows] = term.name;
      level[rows] = level_name(eh, variables, factors, term, k + 1);
      effect.push_back(fit.solution[e]);
      se.push_back(e < fit.se.size() ? fit.se[e] : no_value);
      if (outliers) {
        gi_effect.push_back(fit.ginv_effect[e]);
        outlier.push_back(fit.effect_outlier[e]);
      }
      ++rows;
    }
    if (eh.terminate()) return;
  }
  OTT_SET_COLUMN_REAL_WP(eh, t, 3, effect);
  OTT_SET_COLUMN_REAL_WP(eh, t, 4, se);
  if (!outliers) return;
  OTT_SET_COLUMN_REAL_WP(eh, t, 5, gi_effect);
  OTT_SET_COLUMN_REAL_WP(eh, t, 6, outlier);
}

void AIDRST(ERROR_HANDLER& eh, const DESIGN_MTX& design, const FIT_STATE& fit, OUTPUT_TABLE_STORE& store)
{
  const Frame here{eh, __func__};
  const auto analysed = design.record.size();
  if (fit.residual.size() < analysed || fit.fitted.size() < analysed) {
    eh.internal(text("expected the second dimension of RESID array to be at least ", analysed,
                     ", size = ", std::min(fit.residual.size(), fit.fitted.size())));
    return;
  }
  // With several traits a data record has a row for each of them.
  const std::size_t traits = design.trait.empty() ? 1 : static_cast<std::size_t>(*std::max_element(design.trait.begin(), design.trait.end()));
  const auto records = static_cast<std::size_t>(design.data_records) * traits;
  std::vector<std::int64_t> number(records);
  for (std::size_t r = 0; r < records; ++r) number[r] = static_cast<std::int64_t>(r / traits) + 1;
  std::vector<double> fitted(records, no_value), residual(records, no_value), hat(records, no_value);
  const bool outliers = !fit.record_outlier.empty();
  std::vector<double> rinv(outliers ? records : 0, no_value), outlier(outliers ? records : 0, no_value);
  for (std::size_t i = 0; i < analysed; ++i) {
    const std::int64_t record = design.record[i];
    if (record < 1 || record > design.data_records) {
      eh.internal(
          text("analysis record ", i + 1, " stands for data record ", record, ", there are ", design.data_records));
      return;
    }
    const auto r = static_cast<std::size_t>(record - 1) * traits + (traits > 1 ? static_cast<std::size_t>(design.trait[i] - 1) : 0);
    fitted[r] = fit.fitted[i];
    residual[r] = fit.residual[i];
    if (i < fit.hat.size()) hat[r] = fit.hat[i];
    if (outliers) {
      rinv[r] = fit.rinv_residual[i];
      outlier[r] = fit.record_outlier[i];
    }
  }

  const std::int64_t id = OTST_REGISTER_TABLE(eh, store, "TABLE_YHT");
  if (eh.terminate()) return;
  OUTPUT_TABLE& t = store.table(id);
  OTT_ADD_COLUMN(eh, t, {.type = ColumnType::integer, .name = "RECORD", .heading = "Record", .format = "I9"});
  OTT_ADD_COLUMN(eh, t, {.name = "YHAT", .heading = "Yhat", .format = "G12.5"});
  OTT_ADD_COLUMN(eh, t, {.name = "RESID", .heading = "Residual", .format = "G11.4"});
  OTT_ADD_COLUMN(eh, t, {.name = "HAT", .heading = "Hat", .format = "G11.4"});
  if (outliers) {
    OTT_ADD_COLUMN(eh, t, {.name = "RINV", .heading = "RinvRes", .format = "G11.4"});
    OTT_ADD_COLUMN(eh, t, {.name = "AOM", .heading = "AOMstat", .format = "G11.4"});
  }
  OTT_ALLOC_DATA_STORES(eh, t, static_cast<std::int64_t>(records));
  if (eh.terminate()) return;
  OTT_SET_COLUMN_INTEGER(eh, t, 1, number);
  OTT_SET_COLUMN_REAL_WP(eh, t, 2, fitted);
  OTT_SET_COLUMN_REAL_WP(eh, t, 3, residual);
  OTT_SET_COLUMN_REAL_WP(eh, t, 4, hat);
  if (!outliers) return;
  OTT_SET_COLUMN_REAL_WP(eh, t, 5, rinv);
  OTT_SET_COLUMN_REAL_WP(eh, t, 6, outlier);
}

}  // namespace tolvan
