// The stages of a run from the model to its results, for the table in run_stages.cpp.
#pragma once

#include "api/core_data.h"
#include "api/error_handler.h"

namespace tolvan::stages {

void parse_model(ERROR_HANDLER& eh, CORE_DATA& core);
void model_options(ERROR_HANDLER& eh, CORE_DATA& core);
void check_model(ERROR_HANDLER& eh, CORE_DATA& core);
void read_data(ERROR_HANDLER& eh, CORE_DATA& core);
void count_data(ERROR_HANDLER& eh, CORE_DATA& core);
void print_data_summary(ERROR_HANDLER& eh, CORE_DATA& core);
void check_conformity(ERROR_HANDLER& eh, CORE_DATA& core);
void reorder_terms(ERROR_HANDLER& eh, CORE_DATA& core);
void number_equations(ERROR_HANDLER& eh, CORE_DATA& core);
void residual_part(ERROR_HANDLER& eh, CORE_DATA& core);
void predict_setup(ERROR_HANDLER& eh, CORE_DATA& core);
void form_design(ERROR_HANDLER& eh, CORE_DATA& core);
void quadrature(ERROR_HANDLER& eh, CORE_DATA& core);
void form_parameters(ERROR_HANDLER& eh, CORE_DATA& core);
void adjust_parameters(ERROR_HANDLER& eh, CORE_DATA& core);
void print_initial_values(ERROR_HANDLER& eh, CORE_DATA& core);
void fit(ERROR_HANDLER& eh, CORE_DATA& core);
void cross_validation(ERROR_HANDLER& eh, CORE_DATA& core);
void variance_functions(ERROR_HANDLER& eh, CORE_DATA& core);

}  // namespace tolvan::stages
