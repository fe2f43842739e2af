// Routine: FORM_GENOMIC_TABLES.
#include "relmat/genomic_tables.h"

#include "api/fill_table.h"
#include "base/memory.h"
#include "base/packed.h"
#include "base/text.h"
#include "model/request.h"
#include "relmat/examine_matrix.h"
#include "relmat/genomic_matrix.h"

namespace tolvan {
namespace {

/// The lower triangle by rows, in place: an element moves only towards the beginning.
void pack_in_place(std::int64_t n, std::vector<double>& a)
{
  double* to = a.data();
  for (std::int64_t i = 0; i < n; ++i) {
    const double* row = a.data() + i * n;  // column i of a symmetric matrix
    for (std::int64_t j = 0; j <= i; ++j) *to++ = row[j];
  }
  a.resize(static_cast<std::size_t>(packed_size(n)));
}

}  // namespace

void FORM_GENOMIC_TABLES(ERROR_HANDLER& eh, const JsonNode& request, OUTPUT_TABLE_STORE& tables)
{
  const Frame here{eh, __func__};
  const JsonNode* entry = request.find("marker_file");
  if (entry->is(JsonType::array) && !entry->packed() && entry->size() > 0) entry = entry->children().back().get();
  if (!entry->is(JsonType::object)) return REPORT_JSON_ERROR(eh, *entry, {"an object that describes a matrix"});
  GENOMIC_MODEL model;
  MATRIX_INPUT matrix;
  GET_GENOMIC_MATRIX(eh, *entry, request, model, matrix);
  if (eh.terminate()) return;
  L_SUMMARY(eh, model.keys.name, matrix.values.data(), matrix.order, matrix.order);
  if ((model.keys.save & 1) != 0) L_SAVE_GRM(eh, matrix);
  if (eh.terminate()) return;

  const std::int64_t n = matrix.order;
  const bool room = attempt([&] {
    for (std::int64_t k = 1; k <= n && std::ssize(matrix.labels) < n; ++k) matrix.labels.push_back(text(k));
  });
  if (!room) return eh.out_of_memory();
  pack_in_place(n, matrix.values);
  OUTPUT_TABLE& grm = register_table(
      eh, tables, "TABLE_GRM", {{.type = ColumnType::real, .name = "VALUES", .heading = "VALUES", .format = "G15.6"}});
  take(grm, grm.real_col, 0, matrix.values);
  OUTPUT_TABLE& uid =
      register_table(eh, tables, "TABLE_GRM_UID",
                     {{.type = ColumnType::string, .name = "UID", .heading = "UID", .justify = Justify::left}});
  take(uid, uid.string_col, 0, matrix.labels);
  OTST_SAVE_SCALAR_INTEGER(eh, tables, "SCALAR_GRM_GENOTYPES", n);
  OTST_SAVE_SCALAR_INTEGER(eh, tables, "SCALAR_GRM_MARKERS", model.data.regressors);
  OTST_SAVE_SCALAR_INTEGER(eh, tables, "SCALAR_GRM_USED", model.summary.used);
  OTST_SAVE_SCALAR_INTEGER(eh, tables, "SCALAR_GRM_MISSING", model.summary.missing);
  OTST_SAVE_SCALAR_REAL_WP(eh, tables, "SCALAR_GRM_SCALE", model.summary.divisor);
}

}  // namespace tolvan
