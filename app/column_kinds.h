// What the columns of a CSV file are, when nobody said so.
#pragma once

#include <string>
#include <vector>

#include "app/csv_file.h"
#include "app/json_value.h"

namespace tolvan::driver {

struct ColumnKind {
  std::string name;
  bool used = true;        // false: the engine could not take the name, and no formula can mean the column
  std::string field_type;  // vt_variate, vt_string_factor or vt_integer_factor
  std::string why;         // for the user
};

/// Text makes a string factor, numbers make a variate; but whole numbers that the model uses as a random or
/// residual effect count levels (block 1, 2, 3), and make an integer factor.
std::vector<ColumnKind> guess_kinds(const CsvFile& file, const Json& request);

}  // namespace tolvan::driver
