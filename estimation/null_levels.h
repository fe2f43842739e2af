// Levels with data for which a known matrix has no variance.
#pragma once

#include "api/error_handler.h"
#include "estimation/equations.h"

namespace tolvan {

/// Warns of data in levels whose rows of a known matrix are empty: they are taken as fixed effects.
void warn_of_null_levels(ERROR_HANDLER& eh, const TERM_TABLE& terms, const VARIANCE_MODEL& model, const FORMED& formed,
                         const MIXED_EQUATIONS& equations);

}  // namespace tolvan
