// Reading the primary data.  Routine: READ_DATA_FILE.
#include "data/read_data.h"

#include "base/text.h"
#include "data/finish_levels.h"
#include "data/read_binary.h"
#include "data/read_matrix.h"
#include "data/read_text.h"
#include "data/request_values.h"
#include "data/save_data.h"
#include "model/request.h"

namespace tolvan {

namespace {

/// Pedigree factors hold rows of the pedigree in place of identities.
void take_coded_identities(LEVEL_CODING& coding)
{
  for (VARIABLE_CODING& coded : coding.variables) {
    if (coded.coding == Coding::by_identity) coded.coding = Coding::level_number;
  }
}

/// L_STORE_RULES: where rows go that find no room in memory, by the key noscratch of the data file.
void L_STORE_RULES(ERROR_HANDLER& eh, const PRIMARY_DATA& primary, STORE_RULES& rules)
{
  const Frame here{eh, __func__};
  if (primary.data_file == nullptr) return;
  const JsonNode* noscratch = given_value(*primary.data_file, "noscratch");
  if (noscratch == nullptr) return;
  const bool bare = noscratch->is_text(no_value_supplied);
  if (!bare && (!noscratch->is(JsonType::integer) || noscratch->integer() < 0 || noscratch->integer() > 2)) {
    REPORT_JSON_ERROR(eh, *noscratch, {"0", "1", "2"});
    return;
  }
  constexpr ScratchPlace places[] = {ScratchPlace::temporary_folder, ScratchPlace::nowhere,
                                     ScratchPlace::current_folder};
  rules.scratch = places[bare ? 1 : noscratch->integer()];
}

/// L_TELL_SELECTION: how many records the filter has left.
void L_TELL_SELECTION(ERROR_HANDLER& eh, const RECORD_INTAKE& intake)
{
  const Frame here{eh, __func__};
  const DATA_FILE_KEYS& keys = intake.keys;
  const std::int64_t offered = intake.records - intake.values.variables.transformations.dropped;
  const std::string by = keys.filter_column > 0 ? text("field ", keys.filter_column) : keys.filter_name;
  eh.note(text(intake.store.records(), " of ", offered, " records were kept by the filter on ", by));
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

  STORE_RULES rules = store.rules();
  L_STORE_RULES(eh, primary, rules);
  if (eh.terminate()) return;
  store = DATA_STORE(variables.count(), rules);
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
    if (keys.filters() && !eh.terminate()) L_TELL_SELECTION(eh, intake);
  } else {
    L_READ_MATRIX(eh, primary.matrix, variables, coding, store);
  }
  if (eh.terminate()) return;
  L_FINISH_LEVELS(eh, coding, variables, store);
  if (eh.terminate()) return;
  if (keys.save) L_SAVE_DATA(eh, keys, variables, store);
}

}  // namespace tolvan
