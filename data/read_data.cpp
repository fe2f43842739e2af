// Reading the primary data.  Routine: READ_DATA_FILE.
#include "data/read_data.h"

#include "data/level_coding.h"
#include "data/read_binary.h"
#include "data/read_matrix.h"
#include "data/read_text.h"
#include "data/save_data.h"

namespace tolvan {

namespace {

/// Pedigree factors hold rows of the pedigree in place of identities.
void take_coded_identities(LEVEL_CODING& coding)
{
  for (VARIABLE_CODING& coded : coding.variables) {
    if (coded.coding == Coding::by_identity) coded.coding = Coding::level_number;
  }
}

}  // namespace

void READ_DATA_FILE(ERROR_HANDLER& eh, const PRIMARY_DATA& primary, VARIABLE_TABLE& variables,
                    DATA_STORE& store)
{
  const Frame here{eh, __func__};
  if (primary.data_file == nullptr && primary.matrix.data == nullptr) {
    eh.internal("no primary data were found before the data are read");
    return;
  }
  DATA_FILE_KEYS keys;
  if (primary.data_file != nullptr) L_READ_DATA_FILE_KEYS(eh, *primary.data_file, keys);
  if (eh.terminate()) return;
  const bool binary = primary.data_file != nullptr && kind_row(keys.kind).binary;

  store = DATA_STORE(variables.count());
  LEVEL_CODING coding;
  const bool coded_labels = primary.data_file == nullptr || binary;
  L_PREPARE_LEVEL_CODING(eh, variables, coded_labels, coding);
  if (eh.terminate()) return;
  if (keys.recode) take_coded_identities(coding);
  if (primary.data_file != nullptr) {
    RECORD_INTAKE intake{.keys = keys, .values = {.variables = variables, .coding = coding}, .store = store};
    L_PREPARE_INTAKE(eh, intake);
    if (eh.terminate()) return;
    if (binary) {
      L_READ_BINARY_FILE(eh, intake);
    } else {
      L_READ_TEXT_FILE(eh, intake);
    }
  } else {
    L_READ_MATRIX(eh, primary.matrix, variables, coding, store);
  }
  if (eh.terminate()) return;
  L_FINISH_LEVELS(eh, coding, variables, store);
  if (eh.terminate()) return;
  if (keys.save) L_SAVE_DATA(eh, keys, variables, store);
}

}  // namespace tolvan
