// Coding of data values to level numbers while the data are read, common to matrices and files.
// Routine: L_PREPARE_LEVEL_CODING.
#pragma once

#include <cstdint>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "api/error_handler.h"
#include "data/variable_table.h"

namespace tolvan {

/// How the values of a variable become numbers of the working row.
enum class Coding {
  variate,       // as it is
  level_number,  // the value, shifted by indexed_from, is the level
  label_number,  // the same, the labels being declared
  by_number,     // looked up as a whole number, added when new
  by_text,       // looked up as a text, added when new
  by_identity,   // looked up as a text or its number, never added: identities of a pedigree
};

/// One variable's coding.  Variables that share levels point at the same owner.
struct VARIABLE_CODING {
  Coding coding = Coding::variate;  // by the reader of the data
  Coding after = Coding::variate;   // of its number once the transformations have run; variate: nothing is left
  std::int64_t owner = 0;    // row of the variable whose label table is used
  std::int64_t shift = 0;    // level = value - shift
  std::int64_t highest = 0;  // highest level met

  /// Whether levels are found by whole numbers, by the reader or after the transformations.
  bool by_number() const { return coding == Coding::by_number || after == Coding::by_number; }
};

struct LEVEL_CODING {
  std::vector<VARIABLE_CODING> variables;  // in table order
  // The level of each whole number met, by owner: saves the detour over its text.
  std::vector<std::unordered_map<std::int64_t, std::int64_t>> numbers;
  std::vector<std::size_t> transformed;  // factors that transformations touch
};

/// Highest level number that any factor may have.
inline constexpr std::int64_t most_levels = 2147483647;
/// Whole numbers up to 2^53 are exact in a double.
inline constexpr double largest_code = 9007199254740992.0;

/// L_PREPARE_LEVEL_CODING: decides how each variable is coded.
///   coded_labels   string factors come as label numbers (a matrix) and not as texts (a file)
void L_PREPARE_LEVEL_CODING(ERROR_HANDLER& eh, const VARIABLE_TABLE& table, bool coded_labels,
                            LEVEL_CODING& coding);

/// The level of a whole number under level_number, label_number, by_number and by_identity; 0 if it can't be
/// one.
std::int64_t level_of_number(VARIABLE_TABLE& table, LEVEL_CODING& coding, std::size_t variable,
                             std::int64_t number);
/// The same for a double; 0 also for one that is not whole.
std::int64_t level_of_value(VARIABLE_TABLE& table, LEVEL_CODING& coding, std::size_t variable, double x);
/// What is wrong with a value for which level_of_value gives 0, to follow the value in a message.
std::string_view level_fault(const VARIABLE_CODING& coded, double x);
/// The level of a label under by_text, added when it is new.
std::int64_t level_of_text(VARIABLE_TABLE& table, LEVEL_CODING& coding, std::size_t variable,
                           std::string_view label);

}  // namespace tolvan
