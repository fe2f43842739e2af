// Formula text: rewriting a formula with brackets and shorthands into a flat, canonical sum of simple terms.
// The canonical text has no blanks but those that add terms; a dropped term follows the add symbol with its
// drop symbol: "a+b+-c", at the start "-c".  Routine: STANDARDISE_FORMULA_STRING.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "api/communication.h"
#include "api/error_handler.h"
#include "model/formula_scan.h"

namespace tolvan {

/// The result of an expansion that failed; the handler holds the cause.
inline constexpr std::string_view formula_error = "*** Error in formula ***";

/// Terms with their sign as first character; the add symbol is optional there.
using TERMLIST = std::vector<std::string>;

/// STANDARDISE_FORMULA_STRING: gives the canonical form of a formula; empty after a failure.
std::string STANDARDISE_FORMULA_STRING(ERROR_HANDLER& eh, const COMMUNICATION& communication,
                                       std::string_view text);

/// Distributes the operators over the bracketed groups of a formula and joins its terms in canonical form.
std::string expand_formula(ERROR_HANDLER& eh, const COMMUNICATION& communication, std::string_view text);
/// The same for one top-level term, or for one side of dsum() and str(); the result is a sum with plain
/// signs.
std::string expand_formula_term(ERROR_HANDLER& eh, const SYMBOLS& symbols, std::string_view term);

/// Splits at the signs outside brackets; a dropped term keeps its sign.  Quotes don't hide signs or brackets
/// here.
TERMLIST split_formula_terms(std::string_view text, const SYMBOLS& symbols);
/// Takes out brackets that change nothing; those of functions, and all within them, stay.
std::string remove_redundant_brackets(std::string_view text, const SYMBOLS& symbols);
/// What is wrong with the brackets of a text; empty when they balance.
std::string bracket_fault(std::string_view text);

/// A term whose factorial and nested shorthands, outside brackets, are written out; the sign goes to every
/// part.
///   fault   set to the message when a nested term hasn't two parts
TERMLIST expand_shorthands(std::string_view term, const SYMBOLS& symbols, std::string& fault);

}  // namespace tolvan
