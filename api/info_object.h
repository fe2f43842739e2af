// The object behind an information handle.  It holds its error store and tells the version.
// Routines: ALLOCATE_INFO_OBJECT, INFO_OUTPUT_JSON.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "api/error_handler.h"

namespace tolvan {

struct INFO_OBJECT {
  ERROR_HANDLER errors;  // of the last call that left messages
};

/// ALLOCATE_INFO_OBJECT: makes an information object.
std::unique_ptr<INFO_OBJECT> ALLOCATE_INFO_OBJECT(ERROR_HANDLER& eh);
/// INFO_OUTPUT_JSON: the document of VERSION_INFORMATION or ERROR_INFORMATION.
std::string INFO_OUTPUT_JSON(ERROR_HANDLER& eh, const INFO_OBJECT& object, std::string_view id);
/// The version_information document.
std::string version_information();

}  // namespace tolvan
