// The road from a request and its matrices to the design, as the stages of a run take it.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "api/communication.h"
#include "api/error_handler.h"
#include "api/fit_options.h"
#include "base/json.h"
#include "data/dataset.h"
#include "data/design_matrix.h"
#include "data/read_data.h"
#include "model/request.h"
#include "support/checks.h"

namespace tolvan {

inline constexpr double NA = no_value;

struct DataRoad {
  ERROR_HANDLER eh;
  COMMUNICATION communication;
  USER_DATASET_STORE datasets;
  std::unique_ptr<JsonNode> request;
  PRIMARY_DATA primary;
  VARIABLE_TABLE variables;
  DATA_STORE store;
  FIT_OPTIONS options = FIT_OPTIONS_DEFAULTS();
  FACTOR_TABLE factors;
  TERM_TABLE terms;
  MODEL_INFO info;
  DESIGN_MTX design;

  void matrix(std::string_view name, std::int64_t rows, std::int64_t columns,
              const std::vector<double>& values);
  /// From the request's text to the filled data store.
  bool read(std::string_view json);
  /// On to the design.
  bool form(std::string_view json);

  /// The rows of the store, a line each; missing values as NA.
  std::string rows() const;
  /// The design, a line each: "equation:value ..." counted from 1, then " | response".
  std::string design_rows() const;
  /// The labels of a variable's levels, joined by blanks.
  std::string labels(std::string_view variable);
};

}  // namespace tolvan
