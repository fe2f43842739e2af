// C-inverse as a table.  Routine: AIRCINV.
#include <algorithm>

#include "base/text.h"
#include "estimation/final_results.h"

namespace tolvan {
namespace {

/// One element by its equations, counted from 1 in model order.
struct ELEMENT {
  std::int64_t row, column;
  double value;
};

bool in_equations(const TERM_ROW& term) { return has_equations(term) && term.equations > 0 && !term.dropped; }

/// L_CHOOSE: the equations of the terms chosen, and what is told of them.
std::vector<std::uint8_t> L_CHOOSE(ERROR_HANDLER& eh, const TERM_TABLE& terms, std::int64_t equations,
                                   const std::vector<std::string>& chosen, bool to_file)
{
  const Frame here{eh, __func__};
  std::vector<std::uint8_t> in_use(static_cast<std::size_t>(equations), chosen.empty() ? 1 : 0);
  for (const std::string& name : chosen) {
    bool found = false;
    const bool all_random = lower(name) == "random";
    for (const TERM_ROW& term : terms.rows) {
      const bool wanted = in_equations(term) && (all_random ? term.block == Block::random : term.name == name);
      if (!wanted) continue;
      found = true;
      std::fill_n(in_use.begin() + term.first, term.equations, std::uint8_t{1});
    }
    if (!found) {
      eh.warning(text("the term ", name, " is not in the sparse model, so unable to output the associated part of C-Inverse"));
    } else if (to_file) {
      eh.note(all_random ? std::string("all random terms portion of C-Inverse written to file")
                         : text(name, " portion of C-Inverse written to file"));
    }
  }
  return in_use;
}

/// L_STORE_TERMS: first and last equation of every term chosen.
void L_STORE_TERMS(ERROR_HANDLER& eh, const TERM_TABLE& terms, const std::vector<std::uint8_t>& in_use, OUTPUT_TABLE_STORE& store)
{
  const Frame here{eh, __func__};
  const std::int64_t id = OTST_REGISTER_TABLE(eh, store, "TABLE_CINV_INFO");
  if (eh.terminate()) return;
  OUTPUT_TABLE& t = store.table(id);
  OTT_ADD_COLUMN(eh, t, {.type = ColumnType::integer, .name = "START", .heading = "START", .format = "I9"});
  OTT_ADD_COLUMN(eh, t, {.type = ColumnType::integer, .name = "END", .heading = "END", .format = "I9"});
  OTT_ADD_COLUMN(eh, t,
                 {.type = ColumnType::string, .name = "LABELS", .heading = "LABELS", .format = "A", .justify = Justify::left});
  OTT_ADD_COLUMN(eh, t, {.type = ColumnType::integer, .name = "IDS", .heading = "IDS", .format = "I9"});
  std::int64_t number = 0;
  for (const TERM_ROW& term : terms.rows) {
    if (!in_equations(term)) continue;
    ++number;
    if (!in_use[static_cast<std::size_t>(term.first)]) continue;
    OTT_NEXT_ROW(eh, t);
    OTT_SET_INTEGER_VALUES(eh, t, {term.first + 1, term.first + term.equations, number});
    OTT_SET_STRING_VALUES(eh, t, {term.name});
    if (eh.terminate()) return;
  }
}

}  // namespace

void AIRCINV(ERROR_HANDLER& eh, const TERM_TABLE& terms, const MIXED_EQUATIONS& q, int threads, const std::vector<std::string>& chosen,
             bool to_file, OUTPUT_TABLE_STORE& store)
{
  const Frame here{eh, __func__};
  if (!q.factor.holds_inverse) {
    eh.warning("C-inverse is not formed where the equations are solved by iteration");
    return;
  }
  const std::vector<std::uint8_t> in_use = L_CHOOSE(eh, terms, q.n, chosen, to_file);
  std::vector<double> inverse;
  gather_inverse(q.factor, q.c, inverse, threads);
  std::vector<std::int64_t> equation(static_cast<std::size_t>(q.n));
  for (std::int64_t e = 0; e < q.n; ++e) equation[static_cast<std::size_t>(q.position_of(e))] = e + 1;
  std::vector<ELEMENT> elements;
  if (chosen.empty()) elements.reserve(inverse.size());
  for (std::size_t p = 0; p < static_cast<std::size_t>(q.n); ++p) {
    for (auto k = static_cast<std::size_t>(q.c.start[p]); k < static_cast<std::size_t>(q.c.start[p + 1]); ++k) {
      const std::int64_t a = equation[static_cast<std::size_t>(q.c.row[k])], b = equation[p];
      if (!in_use[static_cast<std::size_t>(a - 1)] || !in_use[static_cast<std::size_t>(b - 1)]) continue;
      elements.push_back({std::max(a, b), std::min(a, b), inverse[k]});
    }
  }
  std::sort(elements.begin(), elements.end(),
            [](const ELEMENT& a, const ELEMENT& b) { return a.row != b.row ? a.row < b.row : a.column < b.column; });

  L_STORE_TERMS(eh, terms, in_use, store);
  if (eh.terminate()) return;
  const std::int64_t id = OTST_REGISTER_TABLE(eh, store, "TABLE_CINV", TableType::sparse_mtx);
  if (eh.terminate()) return;
  OUTPUT_TABLE& t = store.table(id);
  OTT_ADD_COLUMN(eh, t, {.type = ColumnType::integer, .name = "ROWID", .heading = "ROWID", .format = "I9"});
  OTT_ADD_COLUMN(eh, t, {.type = ColumnType::integer, .name = "COLID", .heading = "COLID", .format = "I9"});
  OTT_ADD_COLUMN(eh, t, {.name = "VALUES", .heading = "VALUES", .format = "g18.9"});
  OTT_ALLOC_DATA_STORES(eh, t, static_cast<std::int64_t>(elements.size()));
  if (eh.terminate()) return;
  std::vector<std::int64_t> rows, columns;
  std::vector<double> values;
  for (const ELEMENT& element : elements) {
    rows.push_back(element.row);
    columns.push_back(element.column);
    values.push_back(element.value);
  }
  OTT_SET_COLUMN_INTEGER(eh, t, 1, rows);
  OTT_SET_COLUMN_INTEGER(eh, t, 2, columns);
  OTT_SET_COLUMN_REAL_WP(eh, t, 3, values);
}

}  // namespace tolvan
