// What the parameter files share: letters, edits of numbers, the rows of the structure table by name.
// Plain helpers of the routines of parameter_files.h.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "varstruct/parameter_table.h"

namespace tolvan {

/// Types, then constraints: the letter of a type is at its code, that of a constraint at 12 + code mod 10.
/// In the tables the eighth constraint letter is a blank, and codes 6 and 7 share the letters of 7 and 8.
inline constexpr std::string_view rsv_letters = "VGRCPLurpndaPZUFCSBH";
inline constexpr std::string_view tsv_letters = "VGRCPLurpndaPZUFCBH ";
/// The letters of constraints that a user may write into a table.
inline constexpr std::string_view editable_letters = "PZUFCB";
inline constexpr double implausible = 1000000000.0;  // larger values end the reading

inline char type_letter(ParamType type) { return rsv_letters[static_cast<std::size_t>(type) - 1]; }
/// The letter of a constraint; what has none is free, P.
inline char file_letter(std::string_view letters, Constraint code)
{
  const std::int64_t position = 12 + static_cast<std::int64_t>(code) % 10;
  return code == Constraint::none ? 'P' : letters[static_cast<std::size_t>(position) - 1];
}

/// 16 wide with 8 decimals; where these would lose digits, with an exponent.
std::string edit_value(double x);
/// A finite number with blanks around it.
bool read_value(std::string_view field, double& x);
bool read_count(std::string_view field, std::int64_t& n);
/// A parameter's number in a field of four; larger ones take the room they need.
std::string edit_number(std::int64_t n);
/// F8.4; where that would lose digits, the shortest text that reads back.
std::string edit_coefficient(double x);

/// A row of the structure table, of the random terms first, or the variance behind the rows of a section.
struct FILE_ROW {
  const STRUCTURE_ROW* row = nullptr;  // null: the variance of a section
  std::string name;                    // what the labels of its parameters share: "gen:site;site.FA2"
  std::int64_t first = 0, parameters = 0;
  bool variance = false;               // the plain variance of a residual section
};
/// All rows that own parameters, in the order of their parameters.
std::vector<FILE_ROW> file_rows(const VARIANCE_MODEL& model);
/// Lines of a text, without their ends; whole is false when the last one has no end, and is then left out.
std::vector<std::string_view> whole_lines(std::string_view contents, bool& whole);

}  // namespace tolvan
