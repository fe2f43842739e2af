// Factor models with specific variances of zero.  Routines: CHECK_FACTOR_PRODUCTS, BIND_ZERO_SPECIFICS.
#include "varstruct/zero_specifics.h"

#include <algorithm>
#include <limits>
#include <vector>

#include "base/text.h"
#include "varstruct/extended_factors.h"
#include "varstruct/followers.h"

namespace tolvan {

namespace {

constexpr std::int64_t xfa = 15;  // model code

/// The specific variances of a row that are zero and stay so.
std::int64_t zero_specifics(const STRUCTURE_ROW& row, const VARIANCE_MODEL& model)
{
  const EXTENDED_LAYOUT layout = extended_layout(row, model);
  std::int64_t count = 0;
  for (std::int64_t i = row.first; i < row.first + layout.levels; ++i) {
    if (model.parameters[static_cast<std::size_t>(i)].value == 0.0 && !is_estimated(model, i)) ++count;
  }
  return count;
}

/// What is added to one component of a term, with the equations before and behind one of its levels; or, without levels, to the
/// end of a term.
struct ADDITION {
  std::int64_t levels = 0;  // of the component, before; 0: all behind the equations of the term
  std::int64_t more = 0;
  std::int64_t inner = 1;   // equations of the components behind it
};

/// The new place of an equation within its term.
std::int64_t moved(const ADDITION& a, std::int64_t equation)
{
  if (a.more == 0 || a.levels == 0) return equation;
  const std::int64_t outer = equation / (a.levels * a.inner);
  return equation + outer * a.more * a.inner;
}

/// L_RENUMBER: adds to components of terms, and numbers all equations anew.
void L_RENUMBER(ERROR_HANDLER& eh, const std::vector<ADDITION>& additions, TERM_TABLE& terms, DESIGN_MTX& design)
{
  const Frame here{eh, __func__};
  const TERM_TABLE old = terms;
  terms.equations = 0;
  for (std::size_t t = 0; t < terms.rows.size(); ++t) {
    TERM_ROW& term = terms.rows[t];
    if (term.joins) continue;
    const ADDITION& a = additions[t];
    term.first = terms.equations;
    const std::int64_t added = a.levels == 0 ? a.more * a.inner : term.equations / a.levels * a.more;
    term.equations += added;
    if (a.levels == 0) term.added += added;
    terms.equations += term.equations;
  }
  constexpr std::int64_t most_equations = std::numeric_limits<std::int32_t>::max();
  if (terms.equations > most_equations) {
    eh.error(text("the model has too many equations, at most ", most_equations, " are possible"));
    return;
  }
  std::vector<std::size_t> own;  // terms with equations, rising
  for (std::size_t t = 0; t < old.rows.size(); ++t) {
    if (!old.rows[t].joins && old.rows[t].equations > 0) own.push_back(t);
  }
  for (std::size_t t = 0; t < terms.rows.size(); ++t) {
    if (!terms.rows[t].joins) continue;
    for (const std::size_t o : own) {  // the term whose equations it uses
      if (old.rows[o].first == old.rows[t].first) terms.rows[t].first = terms.rows[o].first;
    }
  }
  for (std::int32_t& equation : design.equation) {
    const auto behind = std::upper_bound(own.begin(), own.end(), static_cast<std::int64_t>(equation),
                                         [&](std::int64_t e, std::size_t t) { return e < old.rows[t].first; });
    const std::size_t t = *(behind - 1);
    equation = static_cast<std::int32_t>(terms.rows[t].first + moved(additions[t], equation - old.rows[t].first));
  }
}

}  // namespace

void CHECK_FACTOR_PRODUCTS(ERROR_HANDLER& eh, const TERM_TABLE& terms, const VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  for (const TERM_STRUCTURE& structure : model.terms) {
    const std::string& name = terms.rows[static_cast<std::size_t>(structure.term)].name;
    const auto complain = [&](const char* words) {
      eh.error(words);
      eh.continuation(name);
    };
    const auto row = [&](std::int64_t r) -> const STRUCTURE_ROW& {
      return model.rows[static_cast<std::size_t>(structure.first_row + r)];
    };
    bool factors = false;
    for (std::int64_t r = 0; r < structure.rows; ++r) {
      if (row(r).model != xfa) continue;
      factors = true;
      const bool inside = r > 0 && r + 1 < structure.rows;
      if (inside && zero_specifics(row(r), model) == 0) return complain("XFA component MUST be first or last in a 3 way structure");
    }
    for (std::int64_t r = 0; factors && structure.rows > 2 && r + 1 < structure.rows; ++r) {
      if (row(r).matrix != nullptr) return complain("NRM/GRM term must be last in XFA.S.GRM structure");
    }
  }
}

void BIND_ZERO_SPECIFICS(ERROR_HANDLER& eh, FACTOR_TABLE& factors, TERM_TABLE& terms, DESIGN_MTX& design, VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  std::vector<ADDITION> additions(terms.rows.size());
  bool any = false;
  for (const TERM_STRUCTURE& structure : model.terms) {
    const TERM_ROW& term = terms.rows[static_cast<std::size_t>(structure.term)];
    const bool linked = term.linked_head >= 0;
    for (std::int64_t r = structure.first_row; r < structure.first_row + structure.rows; ++r) {
      STRUCTURE_ROW& row = model.rows[static_cast<std::size_t>(r)];
      if (row.model != xfa || row.factor == 0) continue;
      const EXTENDED_LAYOUT layout = extended_layout(row, model);
      const std::int64_t bound = std::max<std::int64_t>(zero_specifics(row, model) - layout.lagrangian(), 0);
      std::int64_t inner = 1;
      for (std::int64_t i = r + 1; i < structure.first_row + structure.rows; ++i) inner *= model.rows[static_cast<std::size_t>(i)].size;
      FACTOR_ROW& factor = factors.row(row.factor);
      // Linked terms have equations for the levels alone.
      const std::int64_t more = linked ? layout.size() + bound - layout.levels : bound;
      if (more == 0) continue;
      row.size += bound;
      factor.binding_rows += linked ? layout.lagrangian() + bound : bound;
      factor.levels += more;
      any = true;
      if (!linked) {
        additions[static_cast<std::size_t>(structure.term)] = {.levels = row.size - bound, .more = more, .inner = inner};
        continue;
      }
      if (r != structure.first_row) {
        eh.not_implemented(text("fa() and rr() behind another component of a structure that terms share (", term.name,
                                ") are not implemented"));
        return;
      }
      std::size_t last = static_cast<std::size_t>(structure.term);  // of the group, with equations
      for (std::size_t t = last; t < terms.rows.size(); ++t) {
        if (terms.rows[t].linked_head == term.linked_head && !terms.rows[t].joins) last = t;
      }
      additions[last] = {.levels = 0, .more = more, .inner = inner};
    }
  }
  if (any) L_RENUMBER(eh, additions, terms, design);
}

}  // namespace tolvan
