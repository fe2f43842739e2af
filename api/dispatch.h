// What each verb of the interface means for each kind of object.  Routines: XXX_, DUMP.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "api/communication.h"
#include "api/error_handler.h"
#include "api/handle.h"
#include "api/table_store.h"

namespace tolvan {

/// XXX_CHECK: checks what the object was given.
void XXX_CHECK(ERROR_HANDLER& eh, const DECODED_HANDLE& handle);
/// XXX_PROCESS: runs the object, with one more document for a fit.
void XXX_PROCESS(ERROR_HANDLER& eh, const DECODED_HANDLE& handle, std::string_view json);
/// XXX_INPUT_INFO: gives the object a document; a fit keeps all of them, an A-inverse object the last.
void XXX_INPUT_INFO(ERROR_HANDLER& eh, const DECODED_HANDLE& handle, std::string_view json);
/// XXX_INPUT_REAL_2D: gives the object the values of a dataset.
void XXX_INPUT_REAL_2D(ERROR_HANDLER& eh, const DECODED_HANDLE& handle, std::string_view name,
                       const double* values, std::int64_t rows, std::int64_t columns);
/// XXX_REGISTER_FUNCTION: gives the object a callback.
void XXX_REGISTER_FUNCTION(ERROR_HANDLER& eh, const DECODED_HANDLE& handle, MonitorFunction function,
                           std::string_view kind);
/// XXX_OUTPUT_JSON: the document of an output ID, empty if there is none.
std::string XXX_OUTPUT_JSON(ERROR_HANDLER& eh, const DECODED_HANDLE& handle, std::string_view id);
/// XXX_OUTPUT_TABLE_DATA: copies a table or a column into the caller's buffers.
void XXX_OUTPUT_TABLE_DATA(ERROR_HANDLER& eh, const DECODED_HANDLE& handle, std::string_view id,
                           const SQUASH_BUFFERS_I4B& buffers);
/// XXX_OUTPUT_SCALAR: copies a scalar into an integer.
void XXX_OUTPUT_SCALAR(ERROR_HANDLER& eh, const DECODED_HANDLE& handle, std::string_view id,
                       std::int32_t* value);
/// XXX_OUTPUT_SCALAR: copies a scalar into a real.
void XXX_OUTPUT_SCALAR(ERROR_HANDLER& eh, const DECODED_HANDLE& handle, std::string_view id, double* value);

/// DUMP: prints the object on standard output.
void DUMP(ERROR_HANDLER& eh, const DECODED_HANDLE& handle);
/// Prints a text that came in, long lines broken, if the object asks for it by its debug level.
void echo_input(const DECODED_HANDLE& handle, std::string_view text);

}  // namespace tolvan
