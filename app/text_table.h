// Tables of aligned columns for the eye.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tolvan::driver {

struct TextColumn {
  std::string heading;
  bool right = true;  // justified: numbers right, labels left
  std::vector<std::string> cells;
};

/// The lines of a table: the headings, then the rows, two blanks between columns.
std::string text_table(const std::vector<TextColumn>& columns);

/// Numbers of one column with as many decimals for all: six digits for the largest, and at least three for
/// the smallest as long as that stays readable.  Missing values are left blank.
std::vector<std::string> number_cells(const std::vector<double>& values);
/// Parameters with their codes: what is left of one at its boundary (B) has no say in the decimals.
std::vector<std::string> number_cells(const std::vector<double>& values, const std::vector<std::string>& codes);
std::vector<std::string> number_cells(const std::vector<double>& values, int decimals);
std::vector<std::string> number_cells(const std::vector<std::int32_t>& values);
/// As number_cells, but a standard error that does not exist (0) is a dash.
std::vector<std::string> error_cells(const std::vector<double>& values);
std::string number_cell(double value, int decimals);
/// A number by itself, to six digits.
std::string general_cell(double value);

}  // namespace tolvan::driver
