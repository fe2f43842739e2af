// A CSV file as a dataset of a request: its columns become a matrix of doubles, its labels go into the
// document.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "app/csv_file.h"
#include "app/json_value.h"
#include "app/problem.h"

namespace tolvan::driver {

struct Matrix {
  std::string name;
  std::vector<double> values;  // in the storage order that the document tells
  std::int32_t rows = 0;
  std::int32_t columns = 0;
};

/// Makes the matrix of the dataset of a name.  The document's `dataset` entry of that name says which columns
/// are wanted (by header name, or by user_column_number) and of which kind they are; without an entry one is
/// made from the header.  Labels of string factors are numbered as factor_labels lists them, else as they
/// first appear, and then added to the entry.
///   narration   gains a line for each choice that was made for the user
Problem add_dataset(const std::string& name, const CsvFile& file, Json& request, Matrix& out,
                    std::string& narration);

}  // namespace tolvan::driver
