// Appending component models to the parameter table.  Routine: NEWSTR.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "api/error_handler.h"
#include "varstruct/parameter_table.h"
#include "varstruct/structure_parameters.h"

namespace tolvan {

/// One component model as a term asks for it.
struct COMPONENT_REQUEST {
  std::string_view term = {};      // for messages
  std::string_view function = {};  // request function; empty: an identity, or the known matrix
  bool variance = false;           // without a function: with a variance of its own, which starts at g
  std::int64_t levels = 0;         // without the factors of fa() and rr()
  std::int64_t order = 0;          // its k; 0 when it has none
  std::int64_t factor = 0;         // factor row, 0 for none
  DEFAULT_BASE from = {};          // what default values are made from; `gamma` is the model's
  const std::vector<double>* init = nullptr;       // the user's values; null or empty: none
  const std::vector<double>* arguments = nullptr;  // of mtrn()
  const AINV_MTX* matrix = nullptr;                // the known matrix; null: none
};

/// NEWSTR: appends one component model to the structure rows and its parameters to the vector.
void NEWSTR(ERROR_HANDLER& eh, const COMPONENT_REQUEST& request, VARIANCE_MODEL& model,
            std::vector<STRUCTURE_ROW>& rows);

}  // namespace tolvan
