// The object behind a handle for the inverse of a pedigree's relationship matrix.
// Routines: ALLOCATE_AINV_OBJECT, AINV_STORE_JSTR, AINV_CHECK, AINV_PROCESS, CALL_AINVERSE_WITH_JSON,
// CALL_AINVERSE_WITH_JPTR, AINVT_POPULATE_TABLE_STORE.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "api/error_handler.h"
#include "api/string_array.h"
#include "api/table_store.h"
#include "base/json.h"
#include "base/sparse_matrix.h"

namespace tolvan {

struct AINV_OBJECT {
  ERROR_HANDLER errors;  // of the last call that left messages
  OUTPUT_TABLE_STORE tables;
  std::string document;  // the one request; a later one takes its place
};

/// An inverse as it is handed out; rows in the sorted order.
struct TAINVERSE {
  STRING_ARRAY uid;  // names of the rows
  std::array<std::vector<std::int64_t>, 3>
      pedigree;  // offspring, male parent, female parent: rows from 1, 0 missing
  std::vector<double> inbreeding;
  std::vector<double> gender;  // 0 male, 1 female; empty: not given
  SPARSE_MTX_LLIST matrix;     // as a linked list
  double logdet = 0.0;         // of the matrix
  bool inverted = true;
};

/// ALLOCATE_AINV_OBJECT: makes an object without a request.
std::unique_ptr<AINV_OBJECT> ALLOCATE_AINV_OBJECT(ERROR_HANDLER& eh);
/// AINV_STORE_JSTR: keeps a request unread, in place of an earlier one.
void AINV_STORE_JSTR(ERROR_HANDLER& eh, AINV_OBJECT& object, std::string_view json);
/// AINV_CHECK: checks that a request was given.
void AINV_CHECK(ERROR_HANDLER& eh, const AINV_OBJECT& object);
/// AINV_PROCESS: forms the inverse of the pedigree that the request holds, and leaves its tables and scalars.
void AINV_PROCESS(ERROR_HANDLER& eh, AINV_OBJECT& object);

/// CALL_AINVERSE_WITH_JSON: forms the inverse of the pedigree in a JSON text.
///   debug   the request's debug bits, read ahead of all else
void CALL_AINVERSE_WITH_JSON(ERROR_HANDLER& eh, std::string_view json, std::int64_t& debug, TAINVERSE& out);
/// CALL_AINVERSE_WITH_JPTR: forms the inverse of the pedigree in a request, from which the long arrays are
/// removed as they are read.
void CALL_AINVERSE_WITH_JPTR(ERROR_HANDLER& eh, JsonNode& request, TAINVERSE& out);
/// AINVT_POPULATE_TABLE_STORE: moves a result into tables and scalars.
void AINVT_POPULATE_TABLE_STORE(ERROR_HANDLER& eh, TAINVERSE& result, OUTPUT_TABLE_STORE& tables);

}  // namespace tolvan
