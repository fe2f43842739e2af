#include "data/select_records.h"

#include <algorithm>
#include <cmath>

#include "base/text.h"
#include "data/label_text.h"

namespace tolvan {

namespace {

template <class Equals>
bool stays(const SELECTION& selection, Equals&& equals)
{
  return (!selection.select.given || equals(selection.select)) &&
         (!selection.exclude.given || !equals(selection.exclude));
}

/// Whether a field is a label, with its blanks or with the underscores that stand for them.
bool is_label(std::string_view field, std::string_view label)
{
  return std::equal(field.begin(), field.end(), label.begin(), label.end(),
                    [](char a, char b) { return a == b || ((a == ' ' || a == '\t') && b == '_'); });
}

/// A number as a label spells it: 3, not 3.0.
std::string label_of(double x)
{
  return x == std::floor(x) && std::abs(x) <= largest_code ? text(static_cast<std::int64_t>(x)) : text(x);
}

/// The level of a factor that stands for a number of the data, 0 where it is not met yet.
std::int64_t level_of(double number, const VARIABLE_CODING& coded, const VARIABLE& owner)
{
  const Coding coding = coded.coding == Coding::variate ? coded.after : coded.coding;
  const bool by_label =
      coding == Coding::by_number || coding == Coding::by_text || coding == Coding::by_identity;
  if (by_label) return owner.labels.find(label_of(number));
  if (number != std::floor(number) || std::abs(number) > largest_code) return 0;
  return static_cast<std::int64_t>(number) - coded.shift;
}

}  // namespace

void L_PREPARE_SELECTION(ERROR_HANDLER& eh, const DATA_FILE_KEYS& keys, const VARIABLE_TABLE& variables,
                         SELECTION& selection)
{
  const Frame here{eh, __func__};
  selection = {};
  if (!keys.filters()) return;
  selection.select = keys.select;
  selection.exclude = keys.exclude;
  if (keys.filter_column > 0) {
    constexpr std::int64_t most_fields = 10000000;
    if (keys.filter_column > most_fields) {
      eh.error(text("the filter can not be field ", keys.filter_column, " of a data file"));
      return;
    }
    selection.field = static_cast<std::size_t>(keys.filter_column - 1);
    return;
  }
  const std::int64_t row = variables.find(keys.filter_name);
  if (row == 0) {
    eh.error(text("the variable ", keys.filter_name, " of the filter is unknown"));
    return;
  }
  selection.variable = static_cast<std::size_t>(row - 1);
}

bool selected(const SELECTION& selection, FIELD_VALUES& values, std::string_view field)
{
  return stays(selection, [&](const SELECT_VALUE& value) {
    if (value.is_text) return is_label(field, value.text);
    double x = 0.0;
    return !is_missing_text(field) && read_number(values, field, 0, x) == READ_FAULT::Kind::none &&
           x == value.number;
  });
}

bool selected(const SELECTION& selection, double x)
{
  return stays(selection, [x](const SELECT_VALUE& value) { return !is_no_value(x) && x == value.number; });
}

bool selected(SELECTION& selection, const VARIABLE_TABLE& variables, const LEVEL_CODING& coding, double x)
{
  const VARIABLE_CODING& coded = coding.variables[selection.variable];
  const VARIABLE& owner = variables.row(coded.owner);
  if (!owner.is_factor()) return selected(selection, x);
  return stays(selection, [&](const SELECT_VALUE& value) {
    std::int64_t& level = &value == &selection.select ? selection.select_level : selection.exclude_level;
    if (level == 0) level = level_of(value.number, coded, owner);
    return level != 0 && x == static_cast<double>(level);
  });
}

}  // namespace tolvan
