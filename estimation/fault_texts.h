// The texts of the fit's fault codes.
#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <string_view>

namespace tolvan {

/// One row of the fault table: a text for the codes from `from` to `to`.  The first row that holds a code counts.
struct FAULT_TEXT {
  std::int64_t from, to;
  std::string_view text;
};

// clang-format off
inline constexpr std::array fault_table = {
    FAULT_TEXT{     1,      1, "Convergence Failed"},
    FAULT_TEXT{     2,      2, "Pedigree factor has wrong size"},
    FAULT_TEXT{     3,      3, "Negative Sum of Squares"},
    FAULT_TEXT{     4,      4, "Failed to process MYOWNGDG files"},
    FAULT_TEXT{     5,      5, "Inconsistent correlated factors"},
    FAULT_TEXT{     6,      6, "Insufficient workspace."},
    FAULT_TEXT{     9,      9, "Increase workspace or restructure the model"},
    FAULT_TEXT{    44,     44, "Variance structure does not match data"},
    FAULT_TEXT{     7,     50, "Failed ordering equations. Increase workspace"},
    FAULT_TEXT{    95,     95, "Insufficient submodels for !RBGIBBS"},
    FAULT_TEXT{    51,    100, "Prediction error"},
    FAULT_TEXT{   101,    110, "PROGRAMMING error"},
    FAULT_TEXT{   111,    129, "PROGRAMMING error K4MVRW (aigetr)"},
    FAULT_TEXT{   280,    280, "Residual Variance is Zero"},
    FAULT_TEXT{   130,    299, "PROGRAMMING error AIXDWX"},
    FAULT_TEXT{   315,    315, "Tolvan failed to form XFA factors (XXF)"},
    FAULT_TEXT{   333,    333, "Tolvan failed to build MME (XXG)"},
    FAULT_TEXT{   300,    399, "Tolvan failed while processing the Pedigree"},
    FAULT_TEXT{   400,    499, "Tolvan failed in AIABS: Increase memory?"},
    FAULT_TEXT{   500,    998, "Tolvan failed in ABSorption: Send job to Kelmoor"},
    FAULT_TEXT{   999,    999, "IEEE_NAN numeric processing error: send job to Kelmoor"},
    FAULT_TEXT{  1001,   1005, "Correlation structure is not positive definite"},
    FAULT_TEXT{  1006,   1025, "Variance structure is not positive definite"},
    FAULT_TEXT{  1026,   2000, "Failed absorbing C matrix"},
    FAULT_TEXT{  2130,   2130, "No or Negative residual variation"},
    FAULT_TEXT{  2001,   2999, "PROGRAM failed in AIDGGI"},
    FAULT_TEXT{  3015,   3015, "XFA structures can only be used cross I for now"},
    FAULT_TEXT{  3020,   3020, "Error on 3-way structure having a reduced rank XFA term"},
    FAULT_TEXT{  3123,   3123, "Failed forming G scores: GRM matrix size mismatch?"},
    FAULT_TEXT{  3000,   3900, "Failed forming G scores: Increase memory?"},
    FAULT_TEXT{  3901, 100000, "Failed forming R scores: Increase memory?"},
    FAULT_TEXT{100001, 200000, "Out of memory absorbing"},
    FAULT_TEXT{200001, 300000, "Invalid binary data"},
    FAULT_TEXT{300001, std::numeric_limits<std::int64_t>::max(), "Invalid Poisson data"},
};
// clang-format on

/// The text of a fault code.
constexpr std::string_view fault_text(std::int64_t code)
{
  for (const FAULT_TEXT& row : fault_table) {
    if (code >= row.from && code <= row.to) return row.text;
  }
  return "Convergence Failed";
}
static_assert(fault_text(2130) == "No or Negative residual variation" && fault_text(1000) == "Convergence Failed");

}  // namespace tolvan
