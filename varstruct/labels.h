// How terms and parameters are called.  Helpers of VARIABLE_TABLE_GUTS that readers of names share.
#pragma once

#include <string>
#include <vector>

#include "model/factor_table.h"
#include "model/term_table.h"
#include "varstruct/residual_sections.h"

namespace tolvan {

/// A component's factor without the variance function around it: "idv(a,0.3)" is "a".
std::string component_label(const FACTOR_ROW& factor);
/// The term's text in labels: its components' labels joined with ':'.
std::string term_label(const FACTOR_TABLE& factors, const TERM_ROW& term);
/// The text in labels of the structure of a term; that of linked terms joins them with '+'.
std::string structure_label(const FACTOR_TABLE& factors, const TERM_TABLE& terms, std::int64_t head);
/// The text in labels of a residual section: "sat(expt,2):row:col", "units.us(trait)".
std::string section_label(const FACTOR_TABLE& factors, const TERM_TABLE& terms, const RESIDUAL_TERM& section);
/// What the labels of a row's parameters end with, by their types: "_L_2_1", "_R", "_V".
///   types  one a parameter of the row
std::vector<std::string> row_label_ends(const STRUCTURE_ROW& row, const std::vector<ParamType>& types);
/// The name of the factor over the records, which is the residual's term.
std::string units_label(const FACTOR_TABLE& factors);

}  // namespace tolvan
