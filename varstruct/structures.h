// Appending structures to the parameter table.  Routines: NEWSTR, NEW_GETRCOV.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "api/communication.h"
#include "api/error_handler.h"
#include "model/term_table.h"
#include "varstruct/parameter_table.h"

namespace tolvan {

/// One component model as a term asks for it.
struct COMPONENT_REQUEST {
  std::string_view term = {};      // for messages
  std::string_view function = {};  // request function; empty: a plain term, which has a variance of its own
  std::int64_t levels = 0;
  std::int64_t factor = 0;                    // factor row, 0 for none
  double base = 0.0;                          // the value that the defaults are made from
  const std::vector<double>* init = nullptr;  // the user's values; null or empty: none
};

/// NEWSTR: appends one component model to the structure rows and its parameters to the vector.
void NEWSTR(ERROR_HANDLER& eh, const COMPONENT_REQUEST& request, VARIANCE_MODEL& model,
            std::vector<STRUCTURE_ROW>& rows);

/// NEW_GETRCOV: reads the residual part of the model and refuses what is not an identity over the records.
void NEW_GETRCOV(ERROR_HANDLER& eh, const COMMUNICATION& communication, const MODEL_INFO& info);

}  // namespace tolvan
