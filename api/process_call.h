// The process call of a fit object.  Routines: TLV_PROCESS, AIDATA_BODY.
#pragma once

#include <string_view>

#include "api/core_data.h"
#include "api/error_handler.h"
#include "api/fit_object.h"

namespace tolvan {

/// TLV_PROCESS: runs one whole analysis on what the object was given and one more document, which may be
/// empty.
///
/// A request that cannot be merged or standardised leaves the results of an earlier run; after that they are
/// dropped.
void TLV_PROCESS(ERROR_HANDLER& eh, TLV_OBJECT& object, std::string_view json);

/// AIDATA_BODY: runs the stages until one terminates, then the exit tail.
void AIDATA_BODY(ERROR_HANDLER& eh, CORE_DATA& core);

}  // namespace tolvan
