// The stages of a run from the model to its results.
#include "api/model_stages.h"

#include "api/stage_support.h"
#include "base/text.h"
#include "data/transform_record.h"
#include "estimation/fit_driver.h"
#include "model/request.h"
#include "reports/check_tables.h"
#include "relmat/match_levels.h"
#include "relmat/reduce_inverse.h"
#include "reports/result_tables.h"
#include "varstruct/distance_setup.h"
#include "varstruct/linear_constraints.h"
#include "varstruct/own_program.h"
#include "varstruct/starting_values.h"
#include "varstruct/zero_specifics.h"

namespace tolvan::stages {
namespace {

/// The responses beside the offset, by trait in the order of the records, with missing marks where mv estimates them.
std::vector<std::vector<double>> observed_responses(const DESIGN_MTX& design, std::size_t traits)
{
  std::vector<double> response = design.response;
  for (std::size_t r = 0; r < response.size(); ++r) response[r] = design.beside_offset(r);
  for (const std::int64_t row : design.mv) response[static_cast<std::size_t>(row)] = no_value;
  if (traits == 1) return {std::move(response)};
  // A trait's values stand at the units, so that those of one unit meet.
  const std::int64_t units = design.stacked > 0 ? (design.data_records - 1) / design.stacked + 1 : design.data_records;
  std::vector<std::vector<double>> out(traits, std::vector<double>(static_cast<std::size_t>(units), no_value));
  for (std::size_t r = 0; r < response.size(); ++r) {
    out[static_cast<std::size_t>(design.trait_of(r) - 1)][static_cast<std::size_t>(design.unit_of(r) - 1)] = response[r];
  }
  return out;
}

/// A family other than the normal one, by name; empty for none.
std::string other_family(const JsonNode* family)
{
  while (family != nullptr && family->is(JsonType::array)) {
    if (family->packed() || family->size() == 0) return {};
    family = family->children().front().get();
  }
  if (family == nullptr) return {};
  if (family->is(JsonType::object)) {
    const JsonNode* inner = family->find("function");
    const JsonNode* name = (inner != nullptr ? inner : family)->find("name");
    if (name == nullptr) return {};
    family = name;
  }
  if (!family->is(JsonType::string)) return {};
  const std::string name = lower(trim(family->text()));
  return name == "gaussian" || name == "normal" ? std::string() : name;
}

}  // namespace

void parse_model(ERROR_HANDLER& eh, CORE_DATA& core)
{
  NEW_PARSE_LINEAR_MODEL(eh, core.communication, core.request, core.variables, core.factors, core.terms,
                         core.model_info);
  if (eh.terminate()) return;
  for (const std::int64_t row : core.model_info.responses) core.responses.push_back(core.factors.row(row).shown());
  core.parameter_files.response = join(core.responses, " ");
  if (!eh.terminate()) NAME_PEDIGREE_FACTORS(eh, core.matrices, core.factors, core.variables);
  if (!eh.terminate()) NAME_MARKER_FACTORS(eh, core.matrices, core.factors, core.variables);
}

void model_options(ERROR_HANDLER& eh, CORE_DATA& core)
{
  refuse_key(eh, core.request, "fown");
  if (!eh.terminate()) GET_KCV(eh, core.request.find("options"), core.cross_validation);
}

void check_model(ERROR_HANDLER&, CORE_DATA& core)
{
  CHECK_FOR_INTERACTION_NO_MAIN(core.factors, core.terms);
}

void read_data(ERROR_HANDLER& eh, CORE_DATA& core)
{
  core.data = DATA_STORE(0, {.most_memory = core.api_options.data_memory});
  READ_DATA_FILE(eh, core.primary, core.variables, core.data);
  if (eh.terminate()) return;
  CHECKTRN(eh, core.variables);
  if (core.data.records() == 0) eh.error("no data records retained; analysis aborted");
  if (core.data.records() == 1) eh.error("only one data record retained; analysis aborted");
  if (eh.terminate()) return;
  COMPLETE_LINEAR_MODEL(eh, core.communication, core.request, core.variables, core.factors, core.terms, core.model_info);
  if (eh.terminate()) return;
  if (REDUCE_PEDIGREES(eh, core.matrices, core.factors, core.variables, core.data) && !eh.terminate()) {
    core.model_info.waits_for_levels = true;  // levels that the model names may have other numbers now
    COMPLETE_LINEAR_MODEL(eh, core.communication, core.request, core.variables, core.factors, core.terms, core.model_info);
  }
  if (eh.terminate()) return;
  MATCH_MATRIX_LEVELS(eh, core.matrices, core.variables, core.factors);
  if (eh.terminate()) return;
  COMPLETE_SPATIAL_GRID(eh, core.options, core.request, core.variables, core.factors, core.terms, core.model_info, core.data);
}

void count_data(ERROR_HANDLER& eh, CORE_DATA& core)
{
  AIDSUM(eh, core.variables, core.data, core.summary);
  if (eh.terminate()) return;
  for (const std::int64_t row : core.model_info.responses) {
    const bool of_data = row >= 1 && row <= core.factors.count();
    ADJUST_DATA_SUMMARY(eh, core.variables, core.summary, of_data ? core.factors.row(row).variable : 0);
  }
  if (!core.preprocess_only()) return;
  STORE_DATA_SUMMARY_TABLES(eh, core.variables, core.summary, core.data.records() - core.data.filled(), core.tables);
}

void print_data_summary(ERROR_HANDLER& eh, CORE_DATA& core)
{
  if (core.prints(DebugPrint::data_summary)) {
    print_block("DATA SUMMARY", AIDDIS(eh, core.variables, core.summary));
  }
}

void check_conformity(ERROR_HANDLER& eh, CORE_DATA& core)
{
  FORM_DESIGN_BASES(eh, core.options, core.request, core.datasets, core.covariates, core.variables, core.data,
                    core.factors);
  if (eh.terminate()) return;
  CHECK_AND_CONFORMITY(eh, core.variables, core.data.records(), core.factors, core.terms);
}

/// Terms keep the order of the model; equations are ordered once the design stands.
void reorder_terms(ERROR_HANDLER&, CORE_DATA&) {}

void number_equations(ERROR_HANDLER& eh, CORE_DATA& core)
{
  // The equations of mv, last of all, are counted when the design is formed.
  SET_TERM_EQUATIONS(eh, core.variables, core.data.records(), 0, core.factors, core.terms);
}

void residual_part(ERROR_HANDLER& eh, CORE_DATA& core)
{
  NEW_GETRCOV(eh, core.options, core.request, core.variables, core.factors, core.terms, core.model_info, core.residual);
  if (eh.terminate()) return;
  HAVE_RCOV(eh, core.options, core.variables, core.factors, core.model_info, core.residual);
  if (eh.terminate()) return;
  SETRCOV(eh, core.variables, core.factors, core.residual);
}

void predict_setup(ERROR_HANDLER& eh, CORE_DATA& core)
{
  for (const char* key : {"predict", "tpredict", "tabulate"}) refuse_key(eh, core.request, key);
}

void form_design(ERROR_HANDLER& eh, CORE_DATA& core)
{
  AIDSGN(eh, core.options, core.variables, core.data, core.factors, core.terms, core.model_info, core.design);
  if (eh.terminate()) return;
  DST_CHECK(eh, core.data);
  if (eh.terminate()) return;
  SORTRCOV(eh, core.variables, core.factors, core.model_info, core.data, core.residual, core.design);
  if (eh.terminate()) return;
  if (core.options(Flag::design)) STORE_DESIGN_MTX_TABLE(eh, core.design, core.tables);
  if (eh.terminate() || !core.preprocess_only()) return;
  STORE_TERMS_TABLE(eh, core.terms, core.design, core.tables);
}

void quadrature(ERROR_HANDLER& eh, CORE_DATA& core)
{
  const std::string family = other_family(core.model_info.family);
  if (!family.empty()) eh.not_implemented(text("the family ", family, " is not implemented"));
}

namespace {

/// The variance of each term, or the first parameter of its structure; 0 for terms without one.
std::vector<double> gammas_of_terms(const TERM_TABLE& terms, const VARIANCE_MODEL& model)
{
  std::vector<double> gammas(terms.rows.size(), 0.0);
  for (const TERM_STRUCTURE& structure : model.terms) {
    for (std::int64_t r = structure.first_row + structure.rows - 1; r >= structure.first_row; --r) {
      const STRUCTURE_ROW& row = model.rows[static_cast<std::size_t>(r)];
      const std::int64_t at = row.scale >= 0 ? row.scale : row.parameters > 0 ? row.first : -1;
      if (at >= 0) gammas[static_cast<std::size_t>(structure.term)] = model.parameters[static_cast<std::size_t>(at)].value;
    }
  }
  return gammas;
}

}  // namespace

void form_parameters(ERROR_HANDLER& eh, CORE_DATA& core)
{
  std::vector<std::string> names;
  for (const std::int64_t row : core.model_info.responses) names.push_back(core.factors.row(row).shown());
  for (std::int64_t t = 2; t <= core.model_info.stacked; ++t) names.push_back(names.front());
  std::vector<double> starting;
  STARTE(eh, 0.0, 0.0, observed_responses(core.design, names.size()), names, starting);
  if (eh.terminate()) return;
  SETSTR(eh, core.options, core.factors, core.terms, core.matrices, starting, core.residual, core.variances);
  if (eh.terminate()) return;
  SETUP_OWN_PROGRAMS(eh, core.request, core.factors, core.terms, core.variances);
  if (eh.terminate()) return;
  SETUP_POWER_STRUCTURES(eh, core.variables, core.factors, core.terms, core.data, core.variances);
  if (eh.terminate()) return;
  NOT_AUTOAR_MODEL_CHECKS(eh, core.factors, core.model_info, core.design, core.residual, core.variances);
  if (eh.terminate()) return;
  VARIABLE_TABLE_GUTS(eh, core.factors, core.terms, core.variances);
  if (eh.terminate()) return;
  FORCE_GAMMA_INITIAL_VALUES(eh, core.request, core.factors, core.terms, core.data, core.design, core.variances);
  if (eh.terminate()) return;
  MORE_AIDATA_SETUP(eh, core.factors, core.terms, core.design, gammas_of_terms(core.terms, core.variances));
}

void adjust_parameters(ERROR_HANDLER& eh, CORE_DATA& core)
{
  HANDLE_VCM(eh, core.request, core.factors, core.terms, core.variances);
  if (eh.terminate()) return;
  HANDLE_VCC_CONSTRAINTS(eh, core.request, core.factors, core.terms, core.variances);
  if (eh.terminate()) return;
  HANDLE_RSV_FILE(eh, core.options, core.terms, core.parameter_files, core.variances);
  if (eh.terminate()) return;
  HOLD_PARAMETERS(eh, core.options, core.variances);
  if (eh.terminate()) return;
  CHECK_FACTOR_PRODUCTS(eh, core.terms, core.variances);
  if (eh.terminate()) return;
  BIND_ZERO_SPECIFICS(eh, core.factors, core.terms, core.design, core.variances);
  if (eh.terminate()) return;
  FIX_NULL_STRUCTURES(eh, core.terms, core.design, core.variances);
  if (eh.terminate()) return;
  STRUCTURECHECK(eh, core.options, core.terms, core.design, core.variances);
  if (eh.terminate()) return;
  STORE_INITIAL_VALUES_TABLE(eh, core.variances, core.tables);
}

void print_initial_values(ERROR_HANDLER& eh, CORE_DATA& core)
{
  const OUTPUT_TABLE* table = core.tables.find_table("TABLE_INITVALS");
  if (table == nullptr || !core.prints(DebugPrint::model_structures)) return;
  std::string printed;
  OTT_PRETTY_PRINT(eh, *table, printed);
  print_block("JUST PRIOR TO AIWORK", printed);
}

namespace {

FIT_CALL fit_call(CORE_DATA& core)
{
  return {.options = core.options,
          .communication = core.communication,
          .variables = core.variables,
          .factors = core.factors,
          .terms = core.terms,
          .design = core.design,
          .model = core.variances,
          .timing = core.timing,
          .tables = core.tables,
          .files = &core.parameter_files,
          .genomic = {&core.genomic, &core.matrices},
          .report = core.report_files.in_use ? &core.report_files.tlv : nullptr};
}

}  // namespace

/// The hand-over to the fit driver.
void fit(ERROR_HANDLER& eh, CORE_DATA& core)
{
  FIT_CALL call = fit_call(core);
  begin_primary_report(core.report(eh), core.report_files);
  AIWORK(eh, call, core.fit);
}

void cross_validation(ERROR_HANDLER& eh, CORE_DATA& core)
{
  CROSSVALC(eh, core.cross_validation, fit_call(core), core.fit);
}

void variance_functions(ERROR_HANDLER& eh, CORE_DATA& core)
{
  refuse_key(eh, core.request, "vpredict");
}

}  // namespace tolvan::stages
