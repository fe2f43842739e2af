// Linear constraints between variance parameters.  Routines: HANDLE_VCM, HANDLE_VCC_CONSTRAINTS, AIVCC.
#pragma once

#include <string>

#include "api/error_handler.h"
#include "base/json.h"
#include "model/factor_table.h"
#include "model/term_table.h"
#include "varstruct/parameter_table.h"

namespace tolvan {

/// HANDLE_VCM: reads the list `vcm`: for each of some parameters the coefficients that give it from a few new
/// ones. Parameters that depend on the same one and on no other are linked; a row of zeros fixes its
/// parameter at zero.
void HANDLE_VCM(ERROR_HANDLER& eh, const JsonNode& request, const FACTOR_TABLE& factors,
                const TERM_TABLE& terms, VARIANCE_MODEL& model);

/// HANDLE_VCC_CONSTRAINTS: reads the list `vcc_constraint`, a line each for AIVCC, and gives followers their
/// values.
void HANDLE_VCC_CONSTRAINTS(ERROR_HANDLER& eh, const JsonNode& request, const FACTOR_TABLE& factors,
                            const TERM_TABLE& terms, VARIANCE_MODEL& model);

/// AIVCC: reads one line of constraints: parameters by number, by a range "5-8" or by name, each with a
/// coefficient joined by '*' or ':' where it has one.  All follow the first.
///   !OF k   adds k to every parameter number that follows, in later lines, too
///   !BL b   each item stands for b consecutive parameters; the k-th of every item belong together
///   !DO r   repeats the line r times, each time b parameters (1 without !BL) further on
///   offset  the sum of !OF so far
void AIVCC(ERROR_HANDLER& eh, const std::string& line, const FACTOR_TABLE& factors, const TERM_TABLE& terms,
           std::int64_t& offset, VARIANCE_MODEL& model);

}  // namespace tolvan
