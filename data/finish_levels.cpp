#include "data/finish_levels.h"

#include <algorithm>
#include <numeric>

#include "base/text.h"
#include "data/label_text.h"

namespace tolvan {

namespace {

/// Puts the labels of a factor into rising order: of their bytes, or as numbers.
LEVEL_MAP sort_labels(VARIABLE& owner)
{
  const std::int64_t n = owner.labels.size();
  std::vector<std::int64_t> order(static_cast<std::size_t>(n));
  std::iota(order.begin(), order.end(), std::int64_t{1});
  if (owner.type == FieldType::integer_factor) {
    std::vector<std::int64_t> number(static_cast<std::size_t>(n) + 1);
    for (std::int64_t l = 1; l <= n; ++l) {
      number[static_cast<std::size_t>(l)] = whole_number(owner.labels.label(l)).value_or(0);
    }
    std::sort(order.begin(), order.end(), [&number](std::int64_t a, std::int64_t b) {
      return number[static_cast<std::size_t>(a)] < number[static_cast<std::size_t>(b)];
    });
  } else {
    std::sort(order.begin(), order.end(), [&owner](std::int64_t a, std::int64_t b) {
      return owner.labels.label(a) < owner.labels.label(b);
    });
  }
  LEVEL_TABLE sorted;
  LEVEL_MAP renumbered(static_cast<std::size_t>(n) + 1);
  for (const std::int64_t old : order) {
    renumbered[static_cast<std::size_t>(old)] = sorted.find_or_add(owner.labels.label(old));
  }
  owner.labels = std::move(sorted);
  return renumbered;
}

/// L_FOLLOW_MATRIX: gives a factor the labels of a matrix in the order of its columns.
LEVEL_MAP L_FOLLOW_MATRIX(ERROR_HANDLER& eh, VARIABLE& owner, std::int64_t highest)
{
  const Frame here{eh, __func__};
  LEVEL_TABLE followed;
  for (const std::string& label : owner.recode_labels) followed.find_or_add(label);
  const std::int64_t n = std::max(highest, owner.labels.size());
  owner.levels = n;
  LEVEL_MAP renumbered(static_cast<std::size_t>(n) + 1);
  for (std::int64_t level = 1; level <= n; ++level) {
    const std::string label = GET_LEVEL_NAME(eh, owner, level);
    if (eh.terminate()) return {};
    renumbered[static_cast<std::size_t>(level)] = followed.find(label);
    if (renumbered[static_cast<std::size_t>(level)] > 0) continue;
    eh.error(text("in the function call ", owner.recode_because, ", when refactoring ", owner.name, " ",
                  label, " not found in the factor levels associated with the supplied matrix"));
    return {};
  }
  owner.labels = std::move(followed);
  owner.labels_fixed = true;
  owner.levels = owner.labels.size();
  return renumbered;
}

/// L_RENUMBER_LEVELS: changes the order of levels where it is not the one in which they were met.
void L_RENUMBER_LEVELS(ERROR_HANDLER& eh, const LEVEL_CODING& coding,
                       const std::vector<std::int64_t>& highest, VARIABLE_TABLE& table, DATA_STORE& store)
{
  const Frame here{eh, __func__};
  std::vector<LEVEL_MAP> by_owner(coding.variables.size());
  bool any = false;
  for (std::int64_t i = 1; i <= table.count(); ++i) {
    const auto v = static_cast<std::size_t>(i - 1);
    const VARIABLE_CODING& coded = coding.variables[v];
    VARIABLE& variable = table.row(i);
    if (coded.owner != i) continue;
    if (!variable.recode_labels.empty()) {
      by_owner[v] = L_FOLLOW_MATRIX(eh, variable, highest[v]);
      if (eh.terminate()) return;
    } else if (variable.sort && !variable.labels_fixed &&
               (coded.by_number() || coded.coding == Coding::by_text)) {
      by_owner[v] = sort_labels(variable);
    }
    any = any || !by_owner[v].empty();
  }
  if (!any) return;
  std::vector<const LEVEL_MAP*> maps;
  for (const VARIABLE_CODING& coded : coding.variables) {
    maps.push_back(&by_owner[static_cast<std::size_t>(coded.owner - 1)]);
  }
  REORDD(eh, maps, store);
}

}  // namespace

void REORDD(ERROR_HANDLER& eh, const std::vector<const LEVEL_MAP*>& maps, DATA_STORE& store)
{
  const Frame here{eh, __func__};
  for (std::int64_t block = 0; block < store.blocks(); ++block) {
    const std::span<double> rows = DST_GET_BLOCK(eh, store, block);
    if (eh.terminate()) return;
    for (std::size_t v = 0; v < maps.size(); ++v) {
      const LEVEL_MAP& to = *maps[v];
      if (to.empty()) continue;
      for (std::size_t k = v; k < rows.size(); k += maps.size()) {
        if (!is_no_value(rows[k])) rows[k] = static_cast<double>(to[static_cast<std::size_t>(rows[k])]);
      }
    }
    DST_PUT_BLOCK(eh, store, block);
    if (eh.terminate()) return;
  }
}

void L_FINISH_LEVELS(ERROR_HANDLER& eh, const LEVEL_CODING& coding, VARIABLE_TABLE& table, DATA_STORE& store)
{
  const Frame here{eh, __func__};
  std::vector<std::int64_t> highest(coding.variables.size(), 0);  // by owner
  for (const VARIABLE_CODING& coded : coding.variables) {
    std::int64_t& h = highest[static_cast<std::size_t>(coded.owner - 1)];
    h = std::max(h, coded.highest);
  }
  L_RENUMBER_LEVELS(eh, coding, highest, table, store);
  if (eh.terminate()) return;

  for (std::int64_t i = 1; i <= table.count(); ++i) {
    const VARIABLE_CODING& coded = coding.variables[static_cast<std::size_t>(i - 1)];
    VARIABLE& variable = table.row(i);
    if (!variable.is_factor()) {
      variable.levels = 1;
      continue;
    }
    if (coded.owner != i) {  // owners come before those who share with them
      variable.labels = table.row(coded.owner).labels;
      variable.levels = table.row(coded.owner).levels;
      continue;
    }
    if (!variable.recode_labels.empty()) continue;
    const std::int64_t met = highest[static_cast<std::size_t>(i - 1)];
    const std::int64_t declared = variable.labels_fixed ? variable.levels : variable.declared_levels;
    variable.levels = declared > 0 ? declared : std::max(met, variable.labels.size());
    if (met > variable.levels) {
      eh.warning(text("the delared number of levels for ", variable.name,
                      " should be increased from ",  // sic
                      variable.levels, " to about ", met));
    }
  }
}

}  // namespace tolvan
