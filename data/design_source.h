// From a data record to the number or the level that a factor row has in it.  Routine: L_ADD_SOURCE.
#pragma once

#include <cstdint>
#include <deque>
#include <span>
#include <string>
#include <vector>

#include "api/error_handler.h"
#include "data/covariate_functions.h"
#include "data/variable_table.h"
#include "model/factor_table.h"

namespace tolvan {

/// One step of the way.  Sources come before those who read them.
struct DESIGN_SOURCE {
  enum class Reads {
    one,            // 1
    column,         // of the data store
    level,          // of the data store, a level that may not exceed the declared ones
    record_number,  // from 1
    trait,          // from 1
    level_value,    // the number that stands for the level of another source
    place,          // the place of another source among the distinct values
    place_of_pair,  // the same of two
    counter,        // the number of records so far in which another source has a given value
    function,       // a function of another source
  };
  Reads reads = Reads::one;
  std::int64_t row = 0;                     // of the factor table
  std::size_t column = 0;
  std::int32_t source = -1, second = -1;    // other sources
  std::int64_t levels = 0;                  // declared
  bool is_pedigree = false;                 // of the level read
  std::string name = {};
  const std::vector<double>* values = nullptr;
  const VALUE_INDEX* distinct = nullptr;
  CovariateFunction function = nullptr;
  double a = 0.0, b = 0.0;                  // its arguments; of a counter, a is the value counted, 0 for any but 0
};

struct DESIGN_SOURCES {
  std::vector<DESIGN_SOURCE> list;
  std::deque<std::vector<double>> level_values;  // owns what level_value reads
};

/// A record as the sources see it, with what must be remembered between records.
struct RECORD_STATE {
  std::span<const double> data = {};
  std::int64_t record = 0, trait = 1;   // from 1
  std::vector<std::int64_t> counted;    // by source: records counted so far
  std::vector<double> counter;          // by source: the level of this record; no_value where it has none
  std::vector<std::int64_t> undefined_in;  // by source: the last record in which its function was undefined
  std::int64_t undefined = 0;           // cases in which a function was undefined
  std::int32_t above = -1;              // the source with a level above the declared ones; -1: none
  double above_level = 0.0;
};

/// Prepares a state for a list of sources, before the first record.
void start_records(const DESIGN_SOURCES& sources, RECORD_STATE& state);
/// Takes the next data record up.
void next_record(const DESIGN_SOURCES& sources, std::span<const double> data, std::int64_t record, RECORD_STATE& state);
/// The value of a source in the record: a level or a number; no_value where it is missing.
double read_source(const DESIGN_SOURCES& sources, std::int32_t source, RECORD_STATE& state);

/// True if one number or one level says all of a row's design in a record: no basis of several functions, no group.
bool is_scalar(const FACTOR_TABLE& factors, std::int64_t row);
/// The numbers that stand for the levels of a factor row: its labels if all are numbers, else 1, 2, ...
std::vector<double> numbers_of_levels(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors,
                                      std::int64_t row);

/// L_ADD_SOURCE: the source of a scalar factor row; -1 with an error if it has none.
///   as_number   a row with levels is read as the numbers of its levels
std::int32_t L_ADD_SOURCE(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors,
                          std::int64_t row, bool as_number, DESIGN_SOURCES& sources);

/// The columns of the data store that a source rests on, added to a list; those whose missing values mean nothing left out.
void columns_of_source(const DESIGN_SOURCES& sources, std::int32_t source, std::vector<std::size_t>& columns);

}  // namespace tolvan
