// Groups of variables under one name.  Routines: ADD_GROUPS, CHECK_GROUPS.
#pragma once

#include "api/communication.h"
#include "api/error_handler.h"
#include "base/json.h"
#include "data/variable_table.h"

namespace tolvan {

/// ADD_GROUPS: takes the group statements of a dataset over: members by name or, where no variable describes
/// them, by their column, which then becomes a variable.
///   groups   one statement or a list of them, in the standard form or as users write it; null for none
void ADD_GROUPS(ERROR_HANDLER& eh, const JsonNode* groups, const COMMUNICATION& communication,
                VARIABLE_TABLE& table);

/// CHECK_GROUPS: checks that the members of each group are of one type with one number of levels, and has
/// those of a group of factors share their levels.
void CHECK_GROUPS(ERROR_HANDLER& eh, VARIABLE_TABLE& table);

}  // namespace tolvan
