// The object behind a handle for the inverse of a pedigree's relationship matrix.
// Routines: ALLOCATE_AINV_OBJECT, AINV_STORE_JSTR, AINV_CHECK, AINV_PROCESS.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "api/error_handler.h"
#include "api/table_store.h"

namespace tolvan {

struct AINV_OBJECT {
  ERROR_HANDLER errors;  // of the last call that left messages
  OUTPUT_TABLE_STORE tables;
  std::string document;  // the one request; a later one takes its place
};

/// ALLOCATE_AINV_OBJECT: makes an object without a request.
std::unique_ptr<AINV_OBJECT> ALLOCATE_AINV_OBJECT(ERROR_HANDLER& eh);
/// AINV_STORE_JSTR: keeps a request unread, in place of an earlier one.
void AINV_STORE_JSTR(ERROR_HANDLER& eh, AINV_OBJECT& object, std::string_view json);
/// AINV_CHECK: checks that a request was given.
void AINV_CHECK(ERROR_HANDLER& eh, const AINV_OBJECT& object);
/// AINV_PROCESS: forms the inverse of the pedigree's relationship matrix.  Not built yet.
void AINV_PROCESS(ERROR_HANDLER& eh, AINV_OBJECT& object);

}  // namespace tolvan
