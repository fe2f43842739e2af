// Level numbers of factors.  Routines: L_PREPARE_LEVEL_CODING, L_FINISH_LEVELS.
#include "data/level_coding.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "base/text.h"
#include "data/label_text.h"

namespace tolvan {

namespace {

bool all_whole_numbers(const LEVEL_TABLE& labels)
{
  for (std::int64_t l = 1; l <= labels.size(); ++l) {
    if (!whole_number(labels.label(l))) return false;
  }
  return true;
}

Coding coding_of(const VARIABLE& variable, bool coded_labels)
{
  if (variable.is_pedigree_factor && variable.labels.size() > 0) return Coding::by_identity;
  switch (variable.type) {
    case FieldType::variate:
      return Coding::variate;
    case FieldType::integer_factor_1_to_n:
      return Coding::level_number;
    case FieldType::string_factor:
      if (!coded_labels) return Coding::by_text;
      return variable.labels_fixed ? Coding::label_number : Coding::by_number;
    case FieldType::integer_factor:
      // Declared labels that are no numbers can only be told by their position.
      return variable.labels_fixed && !all_whole_numbers(variable.labels) ? Coding::label_number
                                                                          : Coding::by_number;
  }
  return Coding::variate;
}

/// Whether levels are found by whole numbers, by the reader or after the transformations.
bool by_number(const VARIABLE_CODING& coded)
{
  return coded.coding == Coding::by_number || coded.after == Coding::by_number;
}

/// L_LEAVE_CODING: leaves a factor that transformations touch to be coded after them, so that they work on the
/// numbers of the data.  Texts are coded before, transformations then work on level numbers.
void L_LEAVE_CODING(ERROR_HANDLER& eh, const VARIABLE& owner, bool coded_labels, VARIABLE_CODING& coded)
{
  const Frame here{eh, __func__};
  const bool texts = coded.coding == Coding::by_text || (coded.coding == Coding::label_number && !coded_labels);
  if (!texts) {
    coded.after = coded.coding;
    coded.coding = Coding::variate;
  } else if (owner.sort && !owner.labels_fixed) {
    eh.error(text("the levels of ", owner.name, " can not be sorted, transformations use its level numbers"));
  }
}

/// The new number of each level (both from 1) once labels stand in rising order.
std::vector<std::int64_t> sort_labels(VARIABLE& owner)
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
  std::vector<std::int64_t> renumbered(static_cast<std::size_t>(n) + 1);
  for (const std::int64_t old : order) {
    renumbered[static_cast<std::size_t>(old)] = sorted.find_or_add(owner.labels.label(old));
  }
  owner.labels = std::move(sorted);
  return renumbered;
}

/// L_SORT_LEVELS: sorts the levels of factors that ask for it and rewrites their columns.
void L_SORT_LEVELS(ERROR_HANDLER& eh, const LEVEL_CODING& coding, VARIABLE_TABLE& table, DATA_STORE& store)
{
  const Frame here{eh, __func__};
  std::vector<std::vector<std::int64_t>> renumbered(coding.variables.size());  // by owner
  for (std::int64_t i = 1; i <= table.count(); ++i) {
    const VARIABLE_CODING& coded = coding.variables[static_cast<std::size_t>(i - 1)];
    VARIABLE& variable = table.row(i);
    if (coded.owner != i || !variable.sort || variable.labels_fixed) continue;
    if (!by_number(coded) && coded.coding != Coding::by_text) continue;
    renumbered[static_cast<std::size_t>(i - 1)] = sort_labels(variable);
  }
  for (std::size_t v = 0; v < coding.variables.size(); ++v) {
    const auto& to = renumbered[static_cast<std::size_t>(coding.variables[v].owner - 1)];
    if (to.empty()) continue;
    for (std::int64_t r = 0; r < store.records(); ++r) {
      double& x = store.row(r)[v];
      if (!is_no_value(x)) x = static_cast<double>(to[static_cast<std::size_t>(x)]);
    }
  }
}

}  // namespace

void L_PREPARE_LEVEL_CODING(ERROR_HANDLER& eh, const VARIABLE_TABLE& table, bool coded_labels,
                            LEVEL_CODING& coding)
{
  const Frame here{eh, __func__};
  const std::vector<std::int64_t> owners = level_owners(table);
  coding.variables.assign(table.rows.size(), {});
  coding.numbers.assign(table.rows.size(), {});
  coding.transformed.clear();
  const std::vector<bool> touched = table.transformations.touched(table.rows.size());
  for (std::size_t v = 0; v < table.rows.size(); ++v) {
    const VARIABLE& owner = table.row(owners[v]);
    VARIABLE_CODING& coded = coding.variables[v];
    coded.owner = owners[v];
    coded.coding = coding_of(owner, coded_labels);
    coded.shift = owner.indexed_from - 1;
    if (touched[v] && owner.is_factor()) {
      L_LEAVE_CODING(eh, owner, coded_labels, coded);
      if (eh.terminate()) return;
      coding.transformed.push_back(v);
    }
    if (!by_number(coded) || static_cast<std::size_t>(coded.owner - 1) != v) continue;
    for (std::int64_t l = 1; l <= owner.labels.size(); ++l) {
      if (const auto number = whole_number(owner.labels.label(l))) coding.numbers[v].emplace(*number, l);
    }
  }
}

std::int64_t level_of_number(VARIABLE_TABLE& table, LEVEL_CODING& coding, std::size_t variable,
                             std::int64_t number)
{
  VARIABLE_CODING& coded = coding.variables[variable];
  std::int64_t level = 0;
  if (by_number(coded)) {
    auto& known = coding.numbers[static_cast<std::size_t>(coded.owner - 1)];
    const auto [at, is_new] = known.try_emplace(number, 0);
    if (is_new) at->second = table.row(coded.owner).labels.find_or_add(text(number));
    level = at->second;
  } else if (coded.coding == Coding::by_identity) {
    auto& known = coding.numbers[static_cast<std::size_t>(coded.owner - 1)];
    const auto [at, is_new] = known.try_emplace(number, 0);
    if (is_new) at->second = table.row(coded.owner).labels.find(text(number));
    level = at->second;
  } else if (__builtin_sub_overflow(number, coded.shift, &level) || level < 1 || level > most_levels) {
    return 0;
  }
  coded.highest = std::max(coded.highest, level);
  return level;
}

std::int64_t level_of_value(VARIABLE_TABLE& table, LEVEL_CODING& coding, std::size_t variable, double x)
{
  if (x != std::floor(x) || std::abs(x) > largest_code) return 0;
  return level_of_number(table, coding, variable, static_cast<std::int64_t>(x));
}

std::string_view level_fault(const VARIABLE_CODING& coded, double x)
{
  if (coded.coding == Coding::by_identity) return " was not present in the pedigree";
  if (x != std::floor(x)) return " is not a whole number";
  if (std::abs(x) > largest_code || x - static_cast<double>(coded.shift) > static_cast<double>(most_levels)) {
    return " is too large for a level";
  }
  return " is below the first level";
}

std::int64_t level_of_text(VARIABLE_TABLE& table, LEVEL_CODING& coding, std::size_t variable,
                           std::string_view label)
{
  VARIABLE_CODING& coded = coding.variables[variable];
  const std::int64_t level = table.row(coded.owner).labels.find_or_add(label);
  coded.highest = std::max(coded.highest, level);
  return level;
}

void L_FINISH_LEVELS(ERROR_HANDLER& eh, const LEVEL_CODING& coding, VARIABLE_TABLE& table, DATA_STORE& store)
{
  const Frame here{eh, __func__};
  L_SORT_LEVELS(eh, coding, table, store);
  if (eh.terminate()) return;

  std::vector<std::int64_t> highest(coding.variables.size(), 0);  // by owner
  for (const VARIABLE_CODING& coded : coding.variables) {
    std::int64_t& h = highest[static_cast<std::size_t>(coded.owner - 1)];
    h = std::max(h, coded.highest);
  }
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
