#include "api/process_call.h"

#include "api/guard.h"
#include "api/run_stages.h"
#include "api/stage_support.h"
#include "base/lapack.h"
#include "base/text.h"
#include "model/request.h"
#include "relmat/genomic_tables.h"
#include "reports/clean_up.h"
#include "reports/result_tables.h"

namespace tolvan {
namespace {

constexpr std::string_view whole_run = "AIDATA_BODY";

/// The words by which the final message knows where a run stopped.
std::string_view stopped_in(std::string_view stage)
{
  return stage == "AIDSGN" ? "Error: Forming Design Matrices" : "Error: Run stopped";
}

/// L_RUN_STAGES: runs the stages in order; stage is the one that ran last.
void L_RUN_STAGES(ERROR_HANDLER& eh, CORE_DATA& core, std::string_view& stage)
{
  const Frame here{eh, __func__};
  for (const Stage& each : run_stages()) {
    if (core.preprocess_only() && !each.in_preprocess) continue;
    stage = each.name;
    if (each.timed) TMG_START(core.timing, each.name);
    each.run(eh, core);
    if (each.timed) TMG_STOP(core.timing, each.name, whole_run);
    if (eh.terminate()) return;
  }
}

/// L_EXIT_TAIL: the end of every run, however it went: its final message, the report files, the timing table, the debug
/// prints.
///   messages  of the run
void L_EXIT_TAIL(ERROR_HANDLER& eh, const ERROR_HANDLER& messages, CORE_DATA& core, std::string_view stage)
{
  const Frame here{eh, __func__};
  if (messages.terminate())
    WARNING(eh, stopped_in(stage), 1, core.tables);
  else if (core.preprocess_only())
    WARNING(eh, "Warning: Finished Preprocessing", 1, core.tables);

  TMG_STOP(core.timing, whole_run, whole_run);
  TMG_LOG(core.timing, "Finished");
  WRITE_REPORT_FILES(eh, core.report(messages), core.report_files);
  if (core.prints(DebugPrint::timings)) stages::print_block("", TMG_TABLE(core.timing, "END OF AIDATA_BODY"));
  if (core.prints(DebugPrint::all_output_full)) {
    stages::print_block("ALL OUTPUT", OTST_TO_JSTR(eh, core.tables));
  } else if (core.prints(DebugPrint::all_output_info)) {
    stages::print_block("ALL OUTPUT", OTST_TO_JSTR(eh, core.tables, TableValues::left_out));
  }
}

/// L_CHOOSE_MODEL: where a request has several models, a copy with the one that this run fits, the first or that of the number
/// under dopart; null for a request with one model.
std::unique_ptr<JsonNode> L_CHOOSE_MODEL(ERROR_HANDLER& eh, const JsonNode& request)
{
  const Frame here{eh, __func__};
  const JsonNode* models = request.find("model");
  if (models == nullptr || !models->is(JsonType::array) || models->size() < 2) return nullptr;
  const JsonNode* part = request.find("dopart");
  std::int64_t chosen = 1;
  if (part == nullptr || stages::asks_for_nothing(*part)) {
    eh.warning(text("the request has ", models->size(), " models, the first is fitted"));
    eh.continuation("the key dopart gives the number of another");
  } else if (!read_integer(stages::scalar_text(*part), chosen) || chosen < 1 || chosen > models->size()) {
    REPORT_JSON_ERROR(eh, *part, {text("the number of a model, 1 to ", models->size())});
    return nullptr;
  }
  auto single = request.clone();
  JsonNode* model = single->find("model");
  model->replace_with(model->detach(model->children()[static_cast<std::size_t>(chosen - 1)].get()));
  return single;
}

}  // namespace

void AIDATA_BODY(ERROR_HANDLER& eh, CORE_DATA& core)
{
  const Frame here{eh, __func__};
  TMG_LOG(core.timing, "Tolvan Started");
  TMG_START(core.timing, whole_run, "RUN");  // a group of its own: it covers all others
  std::string_view stage;
  guarded(eh, [&] { L_RUN_STAGES(eh, core, stage); });

  // The tail works with a handler of its own: routines leave at once when theirs has terminated.
  ERROR_HANDLER tail;
  guarded(tail, [&] { L_EXIT_TAIL(tail, eh, core, stage); });
  eh.EH_ADD_ALL(tail);
}

void TLV_PROCESS(ERROR_HANDLER& eh, TLV_OBJECT& object, std::string_view json)
{
  const Frame here{eh, __func__};
  single_blas_thread();
  TLV_CHECK(eh, object);
  if (eh.terminate()) return;
  auto request = AOT_GET_FULL_JSTR(eh, object, json);
  if (eh.terminate()) return;
  object.request = std::move(request);
  bool models_present = false;
  API_STANDARDISE_AND_EXPAND_JSON(eh, object.communication, object.request.get(), models_present);
  if (eh.terminate()) return;
  AOT_CHECK_FOR_API_OPTIONS_FROM_JPTR(eh, *object.request, object.options);
  if (eh.terminate()) return;
  OTST_CLEAR(eh, object.tables);
  if (eh.terminate()) return;
  if (!models_present && object.request->find("marker_file") != nullptr)
    return FORM_GENOMIC_TABLES(eh, *object.request, object.tables);

  const std::unique_ptr<JsonNode> single = L_CHOOSE_MODEL(eh, *object.request);
  if (eh.terminate()) return;

  CORE_DATA core(single != nullptr ? *single : *object.request, object.options, object.communication, object.datasets, object.tables);
  AIDATA_BODY(eh, core);
  if (!object.options.clean_up_asked) return;
  CLEAN_TMP_FILES(eh, core.report_files.stem.empty() ? object.options.tmp_file_root : core.report_files.stem);
}

}  // namespace tolvan
