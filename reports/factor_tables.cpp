// The matrices of structures with several variances, and the design.  Routines: MATPRT, STORE_DESIGN_MTX_TABLE.
#include <algorithm>
#include <array>
#include <cmath>

#include "base/lapack.h"
#include "base/text.h"
#include "reports/result_tables.h"
#include "varstruct/component_matrix.h"
#include "varstruct/extended_factors.h"
#include "varstruct/make_component.h"
#include "varstruct/parameter_lines.h"
#include "varstruct/structure_parameters.h"

namespace tolvan {

namespace {

constexpr std::int64_t most_levels = 1000;  // of a matrix that anybody would read
constexpr std::int64_t corr = 5, corg = 6, xfa = 15;
constexpr std::array<std::int64_t, 6> matrix_models = {9, 10, 11, 12, 13, xfa};  // US, FA, CHOL, ANTE, FACV, XFA

bool has_matrix(const STRUCTURE_ROW& row)
{
  if (row.model == corr) return row.selector == corg;
  return std::find(matrix_models.begin(), matrix_models.end(), row.model) != matrix_models.end();
}

/// "TABLE_X", "TABLE_X_2", ...
std::string numbered(std::string_view name, std::int64_t k)
{
  return k == 1 ? std::string(name) : text(name, '_', k);
}

/// The covariance matrix of a row on the reported scale, by columns; empty where it can not be formed.
std::vector<double> row_covariance(const VARIANCE_MODEL& model, const STRUCTURE_ROW& given, const FIT_STATE& fit, std::int64_t& m)
{
  VARIANCE_MODEL copy = model;  // forming may write parameters back
  STRUCTURE_ROW row = given;
  for (std::size_t i = 0; i < copy.parameters.size() && i < fit.evaluated.size(); ++i) copy.parameters[i].value = fit.evaluated[i];
  m = row.model == xfa ? extended_layout(row, copy).levels : row.size;
  if (m < 2 || m > most_levels || row.size > 2 * most_levels) return {};
  const std::unique_ptr<COMPONENT_MATRIX> component = make_component(row, copy);
  if (component == nullptr) return {};
  ERROR_HANDLER own;
  FORM_CONTEXT context{own, copy, row, 2, 0.999, 0.0};
  if (component->form(context) != Formed::done || own.terminate()) return {};
  const auto n = static_cast<std::size_t>(row.size), levels = static_cast<std::size_t>(m);
  std::vector<double> whole(n * n), out(levels * levels);
  component->covariance(whole.data());
  const double scale = model.profiled && holds_variance(given) ? fit.sigma2 : 1.0;
  for (std::size_t j = 0; j < levels; ++j) {
    for (std::size_t i = 0; i < levels; ++i) out[i + j * levels] = scale * whole[i + j * n];
  }
  return out;
}

/// L_STORE_EIGENVALUES: the eigenvalues of a covariance matrix, descending, with their share of its trace.
void L_STORE_EIGENVALUES(ERROR_HANDLER& eh, std::vector<double> matrix, std::int64_t n, const std::string& name, std::int64_t number,
                         OUTPUT_TABLE_STORE& store)
{
  const Frame here{eh, __func__};
  std::vector<double> w(static_cast<std::size_t>(n)), work;
  std::vector<std::int32_t> iwork;
  if (dsyevd('N', 'L', n, matrix.data(), n, w.data(), work, iwork) != 0) return;
  std::reverse(w.begin(), w.end());
  double trace = 0.0;
  for (const double each : w) trace += each;
  std::vector<double> percent;
  for (const double each : w) percent.push_back(trace != 0.0 ? 100.0 * each / trace : 0.0);
  const std::int64_t id = OTST_REGISTER_TABLE(eh, store, numbered("TABLE_FACTOR_EIGEN", number));
  if (eh.terminate()) return;
  OUTPUT_TABLE& t = store.table(id);
  OTT_ADD_TITLE(eh, t, text("Eigenvalues of ", name));
  OTT_ADD_COLUMN(eh, t, {.name = "VALUES", .heading = "Eigenvalue", .format = "G12.4"});
  OTT_ADD_COLUMN(eh, t, {.name = "PERCENT", .heading = "%", .format = "F7.2"});
  OTT_ALLOC_DATA_STORES(eh, t, n);
  if (eh.terminate()) return;
  OTT_SET_COLUMN_REAL_WP(eh, t, 1, w);
  OTT_SET_COLUMN_REAL_WP(eh, t, 2, percent);
}

}  // namespace

void MATPRT(ERROR_HANDLER& eh, const VARIANCE_MODEL& model, const FIT_STATE& fit, OUTPUT_TABLE_STORE& store)
{
  const Frame here{eh, __func__};
  std::int64_t number = 0;
  for (const FILE_ROW& row : file_rows(model)) {
    if (row.row == nullptr || !has_matrix(*row.row)) continue;
    std::int64_t n = 0;
    const std::vector<double> matrix = row_covariance(model, *row.row, fit, n);
    if (matrix.empty()) continue;
    const std::int64_t id = OTST_REGISTER_TABLE(eh, store, numbered("TABLE_FACTOR_COVCOR", ++number), TableType::full_mtx);
    if (eh.terminate()) return;
    OUTPUT_TABLE& t = store.table(id);
    OTT_ADD_TITLE(eh, t, text("Covariance/Variance/Correlation Matrix ", row.name));
    for (std::int64_t j = 1; j <= n; ++j) OTT_ADD_COLUMN(eh, t, {.name = text("COLUMN_", j), .heading = "COLUMN", .format = "G12.4"});
    OTT_ALLOC_DATA_STORES(eh, t, n);
    if (eh.terminate()) return;
    const auto v = [&](std::int64_t i, std::int64_t j) { return matrix[static_cast<std::size_t>(i + j * n)]; };
    std::vector<double> column(static_cast<std::size_t>(n));
    for (std::int64_t j = 0; j < n; ++j) {
      for (std::int64_t i = 0; i < n; ++i) {
        const double size = v(i, i) * v(j, j);
        const double correlation = size > 0.0 ? v(i, j) / std::sqrt(size) : no_value;
        column[static_cast<std::size_t>(i)] = i < j ? correlation : v(i, j);
      }
      OTT_SET_COLUMN_REAL_WP(eh, t, j + 1, column);
    }
    L_STORE_EIGENVALUES(eh, matrix, n, row.name, number, store);
    if (eh.terminate()) return;
  }
}

void STORE_DESIGN_MTX_TABLE(ERROR_HANDLER& eh, const DESIGN_MTX& design, OUTPUT_TABLE_STORE& store)
{
  const Frame here{eh, __func__};
  const std::int64_t id = OTST_REGISTER_TABLE(eh, store, "TABLE_DESIGN_MTX", TableType::sparse_mtx);
  if (eh.terminate()) return;
  OUTPUT_TABLE& t = store.table(id);
  OTT_ADD_COLUMN(eh, t, {.name = "VALUES", .heading = "VALUES", .format = "G14.6"});
  OTT_ADD_COLUMN(eh, t, {.type = ColumnType::integer, .name = "ROWID", .heading = "ROWID", .format = "I9"});
  OTT_ADD_COLUMN(eh, t, {.type = ColumnType::integer, .name = "COLID", .heading = "COLID", .format = "I9"});
  OTT_ALLOC_DATA_STORES(eh, t, static_cast<std::int64_t>(design.value.size()));
  if (eh.terminate()) return;
  // Rows in the order of the data: those of a record, one a trait, follow each other.
  std::int32_t traits = 1;
  for (const std::int32_t trait : design.trait) traits = std::max(traits, trait);
  std::vector<std::pair<std::int64_t, std::int64_t>> rows;
  rows.reserve(static_cast<std::size_t>(design.rows()));
  for (std::int64_t r = 0; r < design.rows(); ++r) {
    const auto i = static_cast<std::size_t>(r);
    const std::int64_t own = design.trait.empty() ? 1 : design.trait[i];
    rows.emplace_back((design.record[i] - 1) * traits + own, r);
  }
  std::sort(rows.begin(), rows.end());
  std::vector<std::int64_t> row_id, column_id;
  std::vector<double> value;
  row_id.reserve(design.value.size());
  column_id.reserve(design.value.size());
  value.reserve(design.value.size());
  for (const auto& [number, r] : rows) {
    const auto equations = design.equations(r);
    const auto values = design.values(r);
    for (std::size_t k = 0; k < equations.size(); ++k) {
      row_id.push_back(number);
      column_id.push_back(equations[k] + 1);
      value.push_back(values[k]);
    }
  }
  OTT_SET_COLUMN_REAL_WP(eh, t, 1, value);
  OTT_SET_COLUMN_INTEGER(eh, t, 2, row_id);
  OTT_SET_COLUMN_INTEGER(eh, t, 3, column_id);
}

}  // namespace tolvan
