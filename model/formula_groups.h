// Calls and groups of one formula term on its way to a flat sum.  Used by the expansion of formulas alone.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "model/formula_text.h"

namespace tolvan {

/// The terms as one sum; the first loses a leading add symbol.
std::string joined_terms(const TERMLIST& terms, const SYMBOLS& symbols);

class TermListBuilder;

/// One term on its way, with the lists that its placeholders stand for.
///
/// Calls and groups are lifted out of the text one after another: a placeholder "_B<n>_" takes their place,
/// and the bracket map holds the list of terms that it stands for.  What is left is a plain row of operands
/// and operators, in which each operator next to a placeholder is replaced by the list of the products.
class FormulaExpansion {
 public:
  /// The placeholders are numbered beyond any that the text itself may look like.
  FormulaExpansion(const SYMBOLS& symbols, std::string_view text);

  void lift_calls(std::string& text);
  void lift_groups(std::string& text);
  void sign_placeholders(std::string& text);
  void distribute(std::string& text);
  void substitute(std::string& text) const;

 private:
  std::string store(TERMLIST terms);
  const TERMLIST* find(std::string_view placeholder) const;
  TERMLIST group_terms(std::string_view contents);
  void flatten(std::string term, TermListBuilder& out);
  TERMLIST operand(std::string_view text, char op) const;
  bool distribute_once(std::string& text);
  std::size_t placeholder_end(std::string_view text, std::size_t from) const;

  const SYMBOLS& s_;
  std::vector<TERMLIST> map_;
  std::int64_t first_ = 0, next_ = 0;
};

}  // namespace tolvan
