// Standardising the model of a request, part by part.  Used by the request's standardisation alone.
// Routines: API_EXPAND_, API_PROCESS_, API_HANDLE_, API_ADJUST_, API_DROP_DUPLICATE_TERMS.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "api/communication.h"
#include "api/error_handler.h"
#include "base/json.h"

namespace tolvan {

/// API_EXPAND_MODEL: brings every part of the model, or of each of several, into the standard form; present tells whether there is a
/// model.
void API_EXPAND_MODEL(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& root, bool& present);
/// API_EXPAND_MODEL_PART: gives one part, a formula or an object, its list of terms; a formula in "fixed" gets the intercept, a
/// list of terms is kept as it is.
void API_EXPAND_MODEL_PART(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& node,
                           std::string_view part);
/// API_EXPAND_MODEL_PARTS: standardises the functions of a part's terms and drops repeated terms.
void API_EXPAND_MODEL_PARTS(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& root,
                            JsonNode& node, std::string_view part);
/// API_EXPAND_FAMILY: brings the family into the form of a list of functions with named arguments.
void API_EXPAND_FAMILY(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& family);
/// API_HANDLE_FAMILY_ARGUMENTS: checks that all arguments of a family are named, each once.
void API_HANDLE_FAMILY_ARGUMENTS(ERROR_HANDLER& eh, JsonNode& function);

/// Where a term stands.
struct TermPlace {
  std::string_view part;
  bool in_function = false;
  bool in_interaction = false;
  std::int64_t depth = 0;
};

/// API_PROCESS_MODEL_FUNCTIONS: standardises the functions of a list of terms, within interactions and linked
/// lists too.
void API_PROCESS_MODEL_FUNCTIONS(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& root,
                                 JsonNode& list, TermPlace place);
/// API_PROCESS_MODEL_FUNCTION: standardises one term that holds a function.
void API_PROCESS_MODEL_FUNCTION(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& root,
                                JsonNode& term, TermPlace place);
/// API_ADJUST_FUNCTION: does what a function asks of the rest of the request (vm: its matrix; at, sat: level numbers; str: its
/// parts); true if it failed at a call within that has told its name.
bool API_ADJUST_FUNCTION(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& root,
                         JsonNode& term, const TermPlace& place);
/// API_ADJUST_VM: connects a factor to its matrix, which gets an entry among the matrix files, and has it follow the
/// matrix's labels.
void API_ADJUST_VM(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& root, JsonNode& term);
/// API_CHECK_DSUM: checks that the levels of dsum() are a vector, or a vector for each term of its sum.
void API_CHECK_DSUM(ERROR_HANDLER& eh, const COMMUNICATION& communication, const JsonNode& term);
/// API_EXPAND_DSUM: writes the sums over sections of a list out: each term in interaction with sat().
void API_EXPAND_DSUM(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& root, JsonNode& list,
                     std::string_view part);
/// API_ADJUST_TERMS: writes sums over sections out, takes offsets out of a list of terms and puts the variable in the place of
/// grp().
void API_ADJUST_TERMS(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& root, JsonNode& list,
                      std::string_view part);

/// The text of a term before its arguments are put in order: named arguments with their names.
std::string text_as_written(const COMMUNICATION& communication, const JsonNode& term);

/// API_DROP_DUPLICATE_TERMS: removes dropped and repeated terms of a part's list and tells which.
void API_DROP_DUPLICATE_TERMS(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& list,
                              std::string_view part);

/// WARN_OF_UNKNOWN_KEYS: tells the keys of datasets, data file, initial values and terms that nothing reads.
void WARN_OF_UNKNOWN_KEYS(ERROR_HANDLER& eh, const JsonNode& root);
/// API_EXPAND_DATASETS: gathers the datasets into one list and standardises their groups.
void API_EXPAND_DATASETS(ERROR_HANDLER& eh, JsonNode& root);
/// API_EXPAND_GROUPS: gives the groups of variables of a dataset their type, and their members names and column numbers.
void API_EXPAND_GROUPS(ERROR_HANDLER& eh, JsonNode& dataset);
/// API_EXPAND_WALD: turns the tests asked for into options.
void API_EXPAND_WALD(ERROR_HANDLER& eh, JsonNode& root, JsonNode& options);
/// API_EXPAND_NA_ACTION: turns the policy of missing values into options and the term mv.
void API_EXPAND_NA_ACTION(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& root,
                          JsonNode& options);
/// API_STANDARDISE_AND_EXPAND_PREDICT: gathers the predict statements into one list and expands their terms.
void API_STANDARDISE_AND_EXPAND_PREDICT(ERROR_HANDLER& eh, const COMMUNICATION& communication,
                                        JsonNode& root);

}  // namespace tolvan
