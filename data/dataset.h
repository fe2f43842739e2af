// Data handed in as matrices: descriptions, blocks and their store.  Routines: UDIT_ (description), UDST_
// (store).
#pragma once

#include <cstdint>
#include <deque>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "api/error_handler.h"
#include "base/json.h"

namespace tolvan {

enum class StorageOrder { unknown, column_major, row_major };

/// The description of one dataset.
struct USER_DATASET_INFO {
  std::string name;
  std::int64_t number_of_observations = 0;
  std::int64_t number_of_variables = 0;
  std::int64_t number_of_columns = 0;  // that the matrix must have; transformations make variables behind them
  StorageOrder storage_order = StorageOrder::column_major;
  std::vector<std::string> tags;
  std::vector<std::string> variables;  // empty names where only number_of_variables was given
};

/// One matrix as it was handed in, with the document that came in place of its name, if one did.
struct USER_DATASET {
  std::string name;
  std::string document;   // JSON text with one dataset object; empty when a plain name was given
  std::int64_t rows = 0;  // as handed in
  std::int64_t columns = 0;
  std::vector<double> values;  // as handed in; NaN was turned into the missing value
};

/// The matrices of an object in the order in which they came; a repeated name replaces the earlier matrix.
struct USER_DATASET_STORE {
  std::deque<USER_DATASET> datasets;
  const USER_DATASET* find(std::string_view name) const;  // null when absent
};

/// A dataset seen through its description: value(i, j) of observation i and variable j, both from 0.
struct DATASET_VIEW {
  const USER_DATASET* data = nullptr;
  USER_DATASET_INFO info;
  double value(std::int64_t i, std::int64_t j) const
  {
    return info.storage_order == StorageOrder::row_major
               ? data->values[static_cast<std::size_t>(i * data->columns + j)]
               : data->values[static_cast<std::size_t>(j * data->rows + i)];
  }
};

/// UDIT_FROM_JSON: reads the description of one dataset object.
void UDIT_FROM_JSON(ERROR_HANDLER& eh, const JsonNode& dataset, USER_DATASET_INFO& info);
/// UDIT_FROM_JSTR: reads the description of a text that must hold exactly one dataset.
void UDIT_FROM_JSTR(ERROR_HANDLER& eh, std::string_view text, USER_DATASET_INFO& info);
/// UDST_ADD: copies a matrix into the store; name is a plain name or a document with one dataset object.
void UDST_ADD(ERROR_HANDLER& eh, USER_DATASET_STORE& store, std::string_view name, const double* values,
              std::int64_t rows, std::int64_t columns);
/// UDST_BIND: binds the matrix of a dataset object of the request to its description and checks its size.
void UDST_BIND(ERROR_HANDLER& eh, const USER_DATASET_STORE& store, const JsonNode& dataset,
               DATASET_VIEW& view);
/// UDST_FIND_VAR: the dataset and column (from 0) of a variable, datasets in the order of the store; warns
/// when several have it.
void UDST_FIND_VAR(ERROR_HANDLER& eh, const USER_DATASET_STORE& store, const JsonNode& request,
                   std::string_view name, DATASET_VIEW& view, std::int64_t& column);
/// The dataset objects of a request, an object or an array under its key; of two with one name the later
/// counts, with a warning.
std::vector<const JsonNode*> dataset_descriptions(ERROR_HANDLER& eh, const JsonNode& request);
/// The warning about a variable that two datasets hold.
void warn_not_unique(ERROR_HANDLER& eh, std::string_view variable, const std::string& used,
                     const std::string& other);
/// UDST_DUMP: a text that lists the datasets, for debugging.
std::string UDST_DUMP(const USER_DATASET_STORE& store);

}  // namespace tolvan
