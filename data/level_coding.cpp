// Level numbers of factors.  Routine: L_PREPARE_LEVEL_CODING.
#include "data/level_coding.h"

#include <algorithm>
#include <cmath>

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

/// L_LEAVE_CODING: leaves a factor that transformations touch to be coded after them, so that they work on the
/// numbers of the data.  Texts are coded before, transformations then work on level numbers.
void L_LEAVE_CODING(ERROR_HANDLER& eh, const VARIABLE& owner, bool coded_labels, VARIABLE_CODING& coded)
{
  const Frame here{eh, __func__};
  const bool texts = coded.coding == Coding::by_text || coded.coding == Coding::by_identity || (coded.coding == Coding::label_number && !coded_labels);
  if (!texts) {
    coded.after = coded.coding;
    coded.coding = Coding::variate;
  } else if (owner.sort && !owner.labels_fixed) {
    eh.error(text("the levels of ", owner.name, " can not be sorted, transformations use its level numbers"));
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
    if (!coded.by_number() || static_cast<std::size_t>(coded.owner - 1) != v) continue;
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
  if (coded.by_number()) {
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

}  // namespace tolvan
