// The object and its process call; the request is read in ainverse_request.cpp.
#include "pedigree/ainverse_object.h"

#include <algorithm>
#include <utility>

#include "api/api_options.h"
#include "api/fill_table.h"
#include "api/fit_options_values.h"
#include "base/files.h"
#include "base/text.h"

namespace tolvan {
namespace {

bool prints(std::int64_t debug, DebugPrint bit)
{
  return (debug & static_cast<std::int64_t>(bit)) != 0;
}

}  // namespace

std::unique_ptr<AINV_OBJECT> ALLOCATE_AINV_OBJECT(ERROR_HANDLER& eh)
{
  const Frame here{eh, __func__};
  return std::make_unique<AINV_OBJECT>();
}

void AINV_STORE_JSTR(ERROR_HANDLER& eh, AINV_OBJECT& object, std::string_view json)
{
  const Frame here{eh, __func__};
  object.document = json;
}

void AINV_CHECK(ERROR_HANDLER& eh, const AINV_OBJECT& object)
{
  const Frame here{eh, __func__};
  if (is_blank(object.document)) eh.error("no information on the pedigree has been supplied");
}

void AINV_PROCESS(ERROR_HANDLER& eh, AINV_OBJECT& object)
{
  const Frame here{eh, __func__};
  OTST_CLEAR(eh, object.tables);
  AINV_CHECK(eh, object);
  if (eh.terminate()) return;
  std::int64_t debug = 0;
  TAINVERSE result;
  CALL_AINVERSE_WITH_JSON(eh, object.document, debug, result);
  if (!eh.terminate()) AINVT_POPULATE_TABLE_STORE(eh, result, object.tables);
  if (prints(debug, DebugPrint::all_output_full)) {
    print_block("ALL OUTPUT", OTST_TO_JSTR(eh, object.tables));
  } else if (prints(debug, DebugPrint::all_output_info)) {
    print_block("ALL OUTPUT", OTST_TO_JSTR(eh, object.tables, TableValues::left_out));
  }
}

void CALL_AINVERSE_WITH_JSON(ERROR_HANDLER& eh, std::string_view json, std::int64_t& debug, TAINVERSE& out)
{
  const Frame here{eh, __func__};
  JsonError error;
  const auto request = parse_json(json, error);
  if (request == nullptr || !request->is(JsonType::object)) {
    eh.error(request == nullptr ? error.message : "the JSON document is not an object", Ecode::invalid_json);
    return;
  }
  if (const JsonNode* node = request->find("debug"); node != nullptr && !node->is(JsonType::null)) {
    constexpr std::int64_t all_bits = 1023;
    GET_VALUE_FROM_JPTR_INTEGER(eh, *node, all_bits, debug);
    if (eh.terminate()) return;
  }
  if (prints(debug, DebugPrint::input_json)) print_block("INPUT JSON", json);
  CALL_AINVERSE_WITH_JPTR(eh, *request, out);
}

void AINVT_POPULATE_TABLE_STORE(ERROR_HANDLER& eh, TAINVERSE& result, OUTPUT_TABLE_STORE& tables)
{
  const Frame here{eh, __func__};
  constexpr ColumnType integer = ColumnType::integer;
  constexpr ColumnType real = ColumnType::real;
  if (!result.inbreeding.empty()) {
    OUTPUT_TABLE& t =
        register_table(eh, tables, "TABLE_AINV_INBREEDING",
                       {{.type = real, .name = "VALUES", .heading = "INBREEDING", .format = "F12.6"}});
    take(t, t.real_col, 0, result.inbreeding);
  }
  if (!result.gender.empty()) {
    OUTPUT_TABLE& t =
        register_table(eh, tables, "TABLE_AINV_GENDER",
                       {{.type = real, .name = "VALUES", .heading = "GENDER", .format = "F8.0"}});
    take(t, t.real_col, 0, result.gender);
  }
  OUTPUT_TABLE& pedigree =
      register_table(eh, tables, "TABLE_AINV_PEDIGREE",
                     {{.type = integer, .name = "OFFSPRING", .heading = "OFFSPRING", .format = "I10"},
                      {.type = integer, .name = "MALE", .heading = "MALE", .format = "I10"},
                      {.type = integer, .name = "FEMALE", .heading = "FEMALE", .format = "I10"}});
  for (std::size_t k = 0; k < result.pedigree.size(); ++k)
    take(pedigree, pedigree.integer_col, k, result.pedigree[k]);
  OUTPUT_TABLE& uid = register_table(
      eh, tables, "TABLE_AINV_UID",
      {{.type = ColumnType::string, .name = "UID", .heading = "UID", .justify = Justify::left}});
  take(uid, uid.string_col, 0, result.uid.elements);
  OTST_SAVE_SCALAR_REAL_WP(eh, tables, "SCALAR_LOGDET", result.logdet);
  OTST_SAVE_SCALAR_INTEGER(eh, tables, "SCALAR_INVERTED", result.inverted ? 1 : 0);

  const SparseKind kind = result.matrix.kind;
  if (kind != SparseKind::sm_linked_list && kind != SparseKind::sm_sparse) {
    eh.internal(
        text("was expecting SMTX to have a type of sm_linked_list or sm_sparse in the ainverse type, type = ",
             sparse_kind_name(kind)));
    return;
  }
  if (kind == SparseKind::sm_sparse) {  // the same positions as in a list
    SPMT_CONVERT(eh, result.matrix, SparseKind::sm_linked_list);
    if (eh.terminate()) return;
  }
  OUTPUT_TABLE& matrix =
      register_table(eh, tables, "TABLE_AINV_A",
                     {{.type = integer, .name = "ROWID", .heading = "ROWID", .format = "I10"},
                      {.type = integer, .name = "COLID", .heading = "COLID", .format = "I10"},
                      {.type = real, .name = "VALUES", .heading = "VALUES", .format = "G15.6"},
                      {.type = integer, .name = "NXT_LOC", .heading = "NXT_LOC", .format = "I10"}},
                     TableType::sparse_mtx);
  take(matrix, matrix.integer_col, 0, result.matrix.row);
  take(matrix, matrix.integer_col, 1, result.matrix.column);
  take(matrix, matrix.integer_col, 2, result.matrix.next);
  take(matrix, matrix.real_col, 0, result.matrix.values);
}

}  // namespace tolvan
