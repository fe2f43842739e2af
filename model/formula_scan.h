// The smallest tools for reading formula text: symbols of the dialect, quotes, protected splitting,
// rewriting.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "api/communication.h"

namespace tolvan {

/// What the text layer holds at most; longer text is cut.
inline constexpr std::size_t formula_capacity = 10000;
inline constexpr std::size_t term_capacity = 2048;
inline constexpr std::size_t function_name_capacity = 32;

/// The operator symbols of one dialect, a character each.
struct SYMBOLS {
  char add, drop, interaction, factorial, nested;

  explicit SYMBOLS(const COMMUNICATION& communication);
  /// The blank separates terms and the dot is the interaction.
  bool blank_adds() const { return add == ' '; }
  bool is_sign(char c) const { return c == add || c == drop; }
  /// One of the four operators that bind two operands.
  bool is_operator(char c) const { return c == interaction || c == factorial || c == nested || c == '|'; }
};

/// Tells for each character of a text, fed in order, whether it is quoted; the quotes themselves count.
class QuoteScan {
 public:
  bool quoted(char c)
  {
    if (open_ != '\0') {
      if (c == open_) open_ = '\0';
      return true;
    }
    if (c == '\'' || c == '"') open_ = c;
    return open_ != '\0';
  }
  bool open() const { return open_ != '\0'; }

 private:
  char open_ = '\0';
};

/// A letter, a digit or "_"; bytes beyond ASCII are letters.  A dot is none.
bool is_name_character(char c);
/// True for a text in which the formula layer finds nothing to take apart: no sign, operator, bracket, quote or blank.
bool is_plain_text(const SYMBOLS& symbols, std::string_view s);
bool is_digit(char c);
bool is_opener(char c);
bool is_closer(char c);

/// The first bytes of a text, never half a character of UTF-8.
std::string_view cut(std::string_view s, std::size_t capacity);

/// Quoted characters of a text, one mark each.
std::vector<bool> quote_marks(std::string_view s);

/// Splits at a separator outside quotes and outside brackets of any kind; empty pieces are kept.
std::vector<std::string> split_protected(std::string_view s, char separator);
/// Position of the first (last) such character, npos if there is none.
std::size_t find_protected(std::string_view s, char wanted);
std::size_t find_last_protected(std::string_view s, char wanted);

/// Position of the bracket that closes the one at `from`, counting its kind only and outside quotes; npos if
/// none.
std::size_t find_partner(std::string_view s, std::size_t from);

/// One pass over the text outside quotes.
std::string rewrite(std::string_view s, std::string_view from, std::string_view to);
/// Every run of signs outside brackets becomes one sign: the drop if the run holds one (two drops don't make
/// an add), else the add.
std::string collapse_signs(std::string_view s, const SYMBOLS& symbols);
/// Puts the add symbol before every drop symbol outside brackets; within, a minus may belong to a number or a
/// name.
std::string mark_drops(std::string_view s, const SYMBOLS& symbols);

/// Blanks outside quotes vanish but for one between two operands and one after ")".
std::string remove_blanks(std::string_view s);
/// A run of blanks between two operands, outside function brackets, becomes "+"; other runs vanish.
std::string blank_to_plus(std::string_view s);
/// The same clean-up for the dialect in which the blank is the add symbol: blanks next to operators and
/// brackets vanish.
std::string single_blanks(std::string_view s, const SYMBOLS& symbols);

/// Reads a text that is a number as a whole; the exponent may follow e, E, d or D.
bool read_number(std::string_view s, double& out);
/// A whole text that is a number.
bool is_numeric(std::string_view s);
/// True for "name(...)" with the last character closing the first bracket.
bool is_call(std::string_view s);

}  // namespace tolvan
