// The table of stages and the stages that set a run up; the stages from the data on are in model_stages.cpp.
#include "api/run_stages.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "api/model_stages.h"
#include "api/stage_support.h"
#include "base/text.h"
#include "model/named_definitions.h"
#include "model/request.h"
#include "pedigree/pedigree_file.h"
#include "relmat/match_levels.h"
#include "relmat/matrix_keys.h"
#include "reports/result_tables.h"

namespace tolvan {

using namespace stages;

namespace {

/// The stage "read keys": the request must have a model.
void read_keys(ERROR_HANDLER& eh, CORE_DATA& core)
{
  const JsonNode* model = core.request.find("model");
  if (model == nullptr || model->is(JsonType::null)) REPORT_JSON_ERROR(eh, core.request, "model");
}

void primary_data_description(ERROR_HANDLER& eh, CORE_DATA& core)
{
  GET_PRIMARY_DATA_DESCRIPTION(eh, core.request, core.datasets, core.primary);
}

/// Matrices are registered where they are read.
void register_matrices(ERROR_HANDLER&, CORE_DATA&) {}

void title(ERROR_HANDLER&, CORE_DATA& core)
{
  core.title = text_under(core.request, "title");
  core.part_id = text_under(core.request, "part_id");
}

void core_data(ERROR_HANDLER& eh, CORE_DATA& core)
{
  CDT_INITIALISE(eh, core);
}

void options(ERROR_HANDLER& eh, CORE_DATA& core)
{
  const JsonNode* node = core.request.find("options");
  UPDATE_OPTIONS_FROM_JPTR(eh, node, core.options);
  if (eh.terminate()) return;
  REFUSE_UNBUILT_OPTIONS(eh, node);
}

void debug_prints(ERROR_HANDLER&, CORE_DATA& core)
{
  if (core.prints(DebugPrint::standardised_json))
    print_block("STANDARDISED JSON", json_text(core.request, 2));
  if (core.prints(DebugPrint::user_data)) print_block("USER SUPPLIED DATA", UDST_DUMP(core.datasets));
}

void variable_table(ERROR_HANDLER& eh, CORE_DATA& core)
{
  NEW_AIDTIN(eh, core.communication, core.primary.variables, core.variables);
  if (eh.terminate()) return;
  PROCESS_DATA_TRANSFORMATIONS_FROM_JPTR(eh, core.request.find("transformations"), 0, core.variables);
}

void report_files(ERROR_HANDLER& eh, CORE_DATA& core)
{
  if (!core.communication.OUTPUT_TO_FILE) return;
  AIOPEN(eh, "ASIS", core.file_root, core.options.outfolder, core.report_files);
  if (eh.terminate()) return;
  core.timing.process_log = core.options(Flag::logfile);
  core.parameter_files.in_use = true;
  core.parameter_files.base = core.report_files.stem;
}

/// The stage COMMENTS: the comments of a request, which go to the primary report.
void comments(ERROR_HANDLER&, CORE_DATA& core)
{
  const JsonNode* node = core.request.find("comments");
  if (node == nullptr || asks_for_nothing(*node)) return;
  const auto add = [&core](const std::string& lines) {
    for (const std::string& line : split(lines, '\n')) core.comments.push_back(line);
  };
  if (node->is(JsonType::array) && !node->packed()) {
    for (const auto& each : node->children()) add(scalar_text(*each));
  } else {
    add(scalar_text(*node));
  }
}

/// The stage AIPEDA: pedigree factors take the identities of the first pedigree as their levels.
void pedigrees(ERROR_HANDLER& eh, CORE_DATA& core)
{
  std::vector<FIT_PEDIGREE> found;
  AIPEDA(eh, core.request, found);
  if (eh.terminate()) return;
  for (std::size_t k = 0; k < found.size(); ++k) {
    FIT_PEDIGREE& each = found[k];
    if (k == 0) TAKE_PEDIGREE_LEVELS(eh, each.labels, core.variables);
    if (eh.terminate()) return;
    AINV_MTX* matrix = AMTXS_REGISTER_TO_AINV(eh, core.matrices, each.name, each.name, each.inverse.matrix,
                                              each.inverse.logdet, 0, each.labels);
    if (matrix == nullptr) return;
    matrix->pedigree = true;
    matrix->groups = each.pedigree.groups;
    matrix->absent = each.inverse.fixed_groups;
    matrix->inbreeding = std::move(each.inverse.inbreeding);
    matrix->reduce = each.reduce;
    for (DOMINANCE_MATRIX& more : each.dominance) {
      AMTXS_REGISTER_TO_AINV(eh, core.matrices, more.name, each.name, more.inverse, more.logdet, more.empty, more.labels);
      if (eh.terminate()) return;
    }
  }
}

void level_tables(ERROR_HANDLER& eh, CORE_DATA& core)
{
  INITFLL(eh, core.variables);
}

void relationship_files(ERROR_HANDLER& eh, CORE_DATA& core)
{
  HANDLE_GIV_GRM_MARKER_FILES(eh, core.request, core.datasets, core.matrices, core.genomic);
}

void term_support(ERROR_HANDLER& eh, CORE_DATA& core)
{
  HANDLE_SPLINE(eh, core.request, core.variables);
  if (eh.terminate()) return;
  HANDLE_CONTRAST_SUBGROUP_GROUP(eh, core.request, core.variables);
  if (eh.terminate()) return;
  READ_MARKER_COVARIATES(eh, core.request, core.covariates);
  if (eh.terminate()) return;
  for (const char* key : {"fam", "gindex", "pval"}) refuse_key(eh, core.request, key);
}

/// L_MACRO_NOTE: tells the value of one macro variable.
void L_MACRO_NOTE(ERROR_HANDLER& eh, std::int64_t number, const std::string& value)
{
  const Frame here{eh, __func__};
  eh.note(text("cycle ", number, " value is ", value));
}

void part_and_macros(ERROR_HANDLER& eh, CORE_DATA& core)
{
  if (const JsonNode* part = core.request.find("dopart"); part != nullptr && !asks_for_nothing(*part)) {
    eh.note(text("Part ", scalar_text(*part), " is active"));
  }
  const JsonNode* macros = core.request.find("macro_variables");
  if (macros == nullptr || asks_for_nothing(*macros)) return;
  if (macros->packed()) {
    for (std::int64_t k = 0; k < macros->number_count(); ++k) {
      L_MACRO_NOTE(eh, k + 1,
                   macros->is_integer(k) ? text(macros->integer(k)) : real_text(macros->number(k)));
    }
  } else if (macros->is(JsonType::array) || macros->is(JsonType::object)) {
    std::int64_t number = 0;
    for (const auto& each : macros->children()) L_MACRO_NOTE(eh, ++number, scalar_text(*each));
  } else {
    L_MACRO_NOTE(eh, 1, scalar_text(*macros));
  }
}

// clang-format off
constexpr std::array table = {
    //    name                            timed  preprocess
    Stage{"READ_KEYS",                    false, true,  read_keys},
    Stage{"GET_PRIMARY_DATA_DESCRIPTION", false, true,  primary_data_description},
    Stage{"AMTXS_REGISTER_TO_AINV",       false, true,  register_matrices},
    Stage{"TITLE",                        false, true,  title},
    Stage{"CDT_INITIALISE",               false, true,  core_data},
    Stage{"UPDATE_OPTIONS_FROM_JPTR",     false, true,  options},
    Stage{"DEBUG_PRINTS",                 false, true,  debug_prints},
    Stage{"NEW_AIDTIN",                   false, true,  variable_table},
    Stage{"AIOPEN",                       false, true,  report_files},
    Stage{"COMMENTS",                     false, true,  comments},
    Stage{"AIPEDA",                       true,  true,  pedigrees},
    Stage{"INITFLL",                      true,  true,  level_tables},
    Stage{"GIV_GRM",                      true,  true,  relationship_files},
    Stage{"TERM_SUPPORT",                 false, true,  term_support},
    Stage{"PART_AND_MACROS",              false, true,  part_and_macros},
    Stage{"MODEL_PARSE",                  true,  true,  parse_model},
    Stage{"MODEL_OPTIONS",                false, true,  model_options},
    Stage{"MODEL_CHECKS",                 false, true,  check_model},
    Stage{"READ_DATA_FILE",               true,  true,  read_data},
    Stage{"AIDSUM",                       true,  true,  count_data},
    Stage{"AIDDIS",                       false, true,  print_data_summary},
    Stage{"CHECK_AND_CONFORMITY",         false, true,  check_conformity},
    Stage{"REORDER_MODEL_TERMS",          true,  true,  reorder_terms},
    Stage{"MORE_AIDATA_SETUP",            false, true,  number_equations},
    Stage{"NEW_GETRCOV",                  false, true,  residual_part},
    Stage{"K4MPRS",                       true,  true,  predict_setup},
    Stage{"AIDSGN",                       true,  true,  form_design},
    Stage{"SETUP_QUADRATURE_POINTS",      false, false, quadrature},
    Stage{"BIG_CHUNK_OF_AIDATA",          true,  false, form_parameters},
    Stage{"POST_CHUNK",                   false, false, adjust_parameters},
    Stage{"TABLE_INITVALS",               false, false, print_initial_values},
    Stage{"AIWORK",                       false, false, fit},
    Stage{"CROSSVALC",                    false, true,  cross_validation},
    Stage{"NEW_HANDLE_VPREDICT",          false, true,  variance_functions},
};
// clang-format on
static_assert(table.size() == 34, "the whole run is stage 1 and the exit tail is stage 36");

}  // namespace

std::span<const Stage> run_stages()
{
  return table;
}

}  // namespace tolvan
