// Parents ahead of their progeny: SORTPED.
#include "base/text.h"
#include "pedigree/check_pedigree.h"
#include "pedigree/place_rows.h"

namespace tolvan {
namespace {

constexpr std::size_t longest_line = 79;
constexpr int most_lines = 3;

/// L_TELL_LOOPS: names the members of loops.
void L_TELL_LOOPS(ERROR_HANDLER& eh, const NAME_CODES& names, const PEDIGREE& p, const PLACEMENT& placement)
{
  const Frame here{eh, __func__};
  std::vector<std::int32_t> rows;
  L_FIND_LOOPS(eh, p, placement, rows);
  eh.error("Unable to sort pedigree so all parents are before their progeny.");
  for (const std::int32_t row : rows) {
    eh.continuation(
        text("Individual ", names.name(p.id[static_cast<std::size_t>(row)]), " comes before its parents."));
  }
}

/// L_TELL_MOVES: a note with the names of the rows that moved, as many as three lines take.
void L_TELL_MOVES(ERROR_HANDLER& eh, const NAME_CODES& names, const PEDIGREE& p,
                  const std::vector<std::int32_t>& moved)
{
  const Frame here{eh, __func__};
  eh.note("Some parents had to be moved to come before their progeny:");
  std::string line;
  int lines = 0;
  std::size_t told = 0;
  for (const std::int32_t row : moved) {
    const std::string name = names.name(p.id[static_cast<std::size_t>(row)]).substr(0, longest_line - 1);
    const bool fits = line.empty() || line.size() + 1 + name.size() + 1 <= longest_line;
    if (!fits) {
      eh.continuation(line);
      line.clear();
      if (++lines == most_lines) break;
    }
    line += (line.empty() ? "" : " ") + name;
    line += ++told < moved.size() ? "," : "";
  }
  if (!line.empty()) eh.continuation(line);
  if (told < moved.size()) eh.continuation(text("and  ", moved.size() - told, " others"));
}

}  // namespace

void SORTPED(ERROR_HANDLER& eh, const NAME_CODES& names, PEDIGREE& pedigree)
{
  const Frame here{eh, __func__};
  if (parents_first(pedigree)) return;
  PLACEMENT placement;
  L_PLACE_ROWS(eh, pedigree, placement);
  if (eh.terminate()) return;
  if (!placement.complete()) {
    L_TELL_LOOPS(eh, names, pedigree, placement);
    return;
  }
  L_TELL_MOVES(eh, names, pedigree, placement.moved);
  L_PERMUTE_ROWS(eh, placement.order, pedigree);
}

}  // namespace tolvan
