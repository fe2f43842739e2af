// Reading the primary data.  Routine: READ_DATA_FILE.
#include "data/read_data.h"

#include "data/level_coding.h"
#include "data/read_matrix.h"
#include "data/read_text.h"

namespace tolvan {

void READ_DATA_FILE(ERROR_HANDLER& eh, const PRIMARY_DATA& primary, VARIABLE_TABLE& variables,
                    DATA_STORE& store)
{
  const Frame here{eh, __func__};
  if (primary.data_file == nullptr && primary.matrix.data == nullptr) {
    eh.internal("no primary data were found before the data are read");
    return;
  }
  store = DATA_STORE(variables.count());
  LEVEL_CODING coding;
  const bool coded_labels = primary.data_file == nullptr;
  L_PREPARE_LEVEL_CODING(eh, variables, coded_labels, coding);
  if (eh.terminate()) return;
  if (primary.data_file != nullptr) {
    L_READ_TEXT_FILE(eh, *primary.data_file, variables, coding, store);
  } else {
    L_READ_MATRIX(eh, primary.matrix, variables, coding, store);
  }
  if (eh.terminate()) return;
  L_FINISH_LEVELS(eh, coding, variables, store);
}

}  // namespace tolvan
