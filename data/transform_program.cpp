// Compiling transformations.  Routines: PROCESS_DATA_TRANSFORMATIONS_FROM_JPTR,
// L_PROCESS_MATHS_TRANSFORMATIONS, PROCESS_FUNCTION_TRANSFORMATIONS, PROCESS_MISS_DROP_TRANSFORMATIONS,
// L_GET_TRANS_VALUE, L_GET_TRANS_ARRAY.
#include "data/transform_program.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "base/numbers.h"
#include "base/text.h"
#include "data/request_values.h"
#include "data/variable_table.h"
#include "model/request.h"

namespace tolvan {

namespace {

using Arguments = TransformArguments;

/// One argument as it was written.
struct Argument {
  enum class Kind { number, missing_mark, word, other };
  Kind kind = Kind::other;
  double number = no_value;
  std::string written;
};

/// One transformation of a list, taken apart.
struct Item {
  std::string name;
  std::vector<Argument> arguments;
  std::int64_t source = 0;  // rows of the variable table
  std::int64_t target = 0;
  std::string variable;  // named in messages

  /// "the transformation <t> for variable <v>"
  std::string place() const { return text("the transformation ", name, " for variable ", variable); }
};

bool is_missing_mark(std::string_view word)
{
  return word == "*" || word == "." || word == "NA" || word == "na";
}

Argument argument_of_number(double x, std::string written)
{
  return {.kind = Argument::Kind::number, .number = x, .written = std::move(written)};
}

Argument argument_of(const JsonNode& node)
{
  if (node.is_number()) return argument_of_number(node.number(), json_text(node));
  if (!node.is(JsonType::string)) return {.written = json_text(node)};
  if (double x = 0.0; read_real(trim(node.text()), x)) return argument_of_number(x, node.text());
  return {.kind = is_missing_mark(node.text()) ? Argument::Kind::missing_mark : Argument::Kind::word,
          .written = node.text()};
}

std::vector<Argument> arguments_of(const JsonNode* node)
{
  std::vector<Argument> out;
  if (node == nullptr || node->is(JsonType::null) || node->is_text(no_value_supplied)) return out;
  if (!node->is(JsonType::array)) {
    out.push_back(argument_of(*node));
  } else if (node->packed()) {
    for (std::int64_t k = 0; k < node->number_count(); ++k) {
      const double x = node->number(k);
      out.push_back(argument_of_number(x, node->is_integer(k) ? text(node->integer(k)) : real_text(x)));
    }
  } else {
    for (const auto& each : node->children()) out.push_back(argument_of(*each));
  }
  return out;
}

bool is_target_key(std::string_view key)
{
  return key == "TARGET" || key == "target";
}

/// L_READ_ITEM: takes {"name": n, "arguments": a} or {n: a} apart, either with a TARGET.
void L_READ_ITEM(ERROR_HANDLER& eh, const JsonNode& node, std::int64_t variable, const VARIABLE_TABLE& table,
                 Item& item)
{
  const Frame here{eh, __func__};
  if (!node.is(JsonType::object)) {
    REPORT_JSON_ERROR(eh, node, {"an object that describes a transformation"});
    return;
  }
  const JsonNode* arguments = nullptr;
  if (const JsonNode* name = given_value(node, "name"); name != nullptr) {
    if (!name->is(JsonType::string)) {
      REPORT_JSON_ERROR(eh, *name, {"a string"});
      return;
    }
    item.name = name->text();
    for (const auto& child : node.children()) {
      if (child->name == "name" || is_target_key(child->name)) continue;
      if (child->name != "arguments" && child->name != "argument" && child->name != "value") {
        eh.warning(text(json_path(*child), " is not a recognised key"));
      } else {
        arguments = child.get();
      }
    }
  } else {
    for (const auto& child : node.children()) {
      if (is_target_key(child->name)) continue;
      if (arguments != nullptr) {
        REPORT_JSON_ERROR(eh, node, "name");
        return;
      }
      item.name = child->name;
      arguments = child.get();
    }
    if (arguments == nullptr) {
      REPORT_JSON_ERROR(eh, node, "name");
      return;
    }
  }
  item.arguments = arguments_of(arguments);

  const JsonNode* target = transformation_target(node);
  if (target == nullptr && variable == 0) {
    REPORT_JSON_ERROR(eh, node, "TARGET");
    return;
  }
  if (target != nullptr && !target->is(JsonType::string)) {
    REPORT_JSON_ERROR(eh, *target, {"the name of a variable"});
    return;
  }
  item.target = target == nullptr ? variable : table.find(target->text());
  item.source = variable == 0 ? item.target : variable;
  item.variable = variable == 0 ? target->text() : table.row(variable).name;
  if (item.target == 0) {
    eh.error(text("expected a variable name in ", item.place()));
    eh.continuation(text("TARGET is ", target->text(), ", which is no variable"));
  }
}

/// L_GET_TRANS_VALUE: the one number that a transformation takes, with its default where it has one.
double L_GET_TRANS_VALUE(ERROR_HANDLER& eh, const Item& item, const TRANSFORM_ENTRY& entry)
{
  const Frame here{eh, __func__};
  if (item.arguments.size() > 1) {
    eh.error(text("was expecting at most one argument for ", item.place()));
    return no_value;
  }
  if (item.arguments.empty()) {
    if (entry.arguments == Arguments::optional_value) return entry.otherwise;
    eh.error(text("no argument supplied for ", item.place()));
    return no_value;
  }
  const Argument& given = item.arguments.front();
  if (given.kind == Argument::Kind::number) return given.number;
  if (entry.family == TransformFamily::miss_drop) {
    if (given.kind == Argument::Kind::missing_mark && entry.arguments == Arguments::value_or_missing)
      return no_value;
    eh.error(text("expected a numeric value in ", item.place()));
  } else if (given.kind == Argument::Kind::other) {
    eh.error(text("invalid value (", given.written, ") supplied as an argument for ", item.place(),
                  ", was expecting a numeric value"));
  } else {
    eh.error(text("unknown string (", given.written));  // sic
    eh.continuation(text("supplied as an argument for ", item.place()));
  }
  return no_value;
}

/// L_GET_TRANS_ARRAY: puts the list that a transformation takes into the store of values.
void L_GET_TRANS_ARRAY(ERROR_HANDLER& eh, const Item& item, const TRANSFORM_ENTRY& entry,
                       TRANSFORM_STEP& step, std::vector<double>& values)
{
  const Frame here{eh, __func__};
  const std::size_t n = item.arguments.size();
  std::size_t expected = n;
  if (entry.arguments == Arguments::none) expected = 0;
  if (entry.arguments == Arguments::two_values) expected = 2;
  if (entry.arguments == Arguments::pairs) expected = n + n % 2;
  if (n == 0 && entry.arguments != Arguments::none) {
    eh.error(text("no arguments supplied for ", item.place()));
    return;
  }
  if (n != expected) {
    eh.error(text(n, " arguments supplied for ", item.place(), ", was expecting ", expected));
    return;
  }
  step.first_value = values.size();
  step.value_count = n;
  for (std::size_t i = 0; i < n; ++i) {
    const Argument& given = item.arguments[i];
    const bool marked = given.kind == Argument::Kind::missing_mark && entry.arguments == Arguments::pairs;
    if (given.kind != Argument::Kind::number && !marked) {
      eh.error(text("invalid value (", given.written, ") supplied as argument ", i + 1, " for ", item.place(),
                    ", was expecting a numeric value"));
      return;
    }
    if (entry.arguments == Arguments::rising_values && i > 0 && !(given.number > values.back())) {
      eh.error(text("values supplied to transformation ", item.name, " must be strictly increasing"));
      eh.continuation(text("for variable ", item.variable, ", ", given.written, " follows ", item.arguments[i - 1].written));
      return;
    }
    values.push_back(given.number);
  }
}

/// The row of a variable by name, or of "V<n>", column n of the working row; 0 for none.
std::int64_t operand_row(const VARIABLE_TABLE& table, const std::string& word)
{
  const std::int64_t row = table.find(word);
  if (row != 0 || word.size() < 2 || (word[0] != 'V' && word[0] != 'v')) return row;
  std::int64_t column = 0;
  if (!read_integer(std::string_view(word).substr(1), column) || column < 1 || column > table.count())
    return 0;
  return column;
}

/// L_PROCESS_MATHS_TRANSFORMATIONS: arithmetic and comparisons with a number or a variable; false for others.
bool L_PROCESS_MATHS_TRANSFORMATIONS(ERROR_HANDLER& eh, const Item& item, const TRANSFORM_ENTRY& entry,
                                     TRANSFORM_STEP& step, const VARIABLE_TABLE& table)
{
  const Frame here{eh, __func__};
  if (entry.family != TransformFamily::maths) return false;
  if (item.arguments.size() == 1 && item.arguments.front().kind != Argument::Kind::number) {
    const Argument& given = item.arguments.front();
    if (given.kind == Argument::Kind::other) {
      eh.error(text("expected either a numeric value or variable name in ", item.place()));
      return true;
    }
    const std::int64_t row = operand_row(table, given.written);
    if (row == 0) {
      eh.error(text("expected a variable name in ", item.place()));
      eh.continuation(text(given.written, " is no variable"));
      return true;
    }
    step.operand = static_cast<std::size_t>(row - 1);
    return true;
  }
  step.number = L_GET_TRANS_VALUE(eh, item, entry);
  return true;
}

/// L_SEED_OF: the whole number that a generator is seeded with.
void L_SEED_OF(ERROR_HANDLER& eh, const Item& item, double given, std::mt19937_64& random)
{
  const Frame here{eh, __func__};
  constexpr double largest = 9007199254740992.0;  // 2^53
  if (given != std::floor(given) || std::abs(given) > largest) {
    eh.error(text("invalid value (", item.arguments.front().written, ") supplied as an argument for ",
                  item.place(), ", was expecting a whole number"));
    return;
  }
  random.seed(static_cast<std::uint64_t>(static_cast<std::int64_t>(given)));
}

/// PROCESS_FUNCTION_TRANSFORMATIONS: functions of one value with numbers as arguments; false for others.
bool PROCESS_FUNCTION_TRANSFORMATIONS(ERROR_HANDLER& eh, const Item& item, const TRANSFORM_ENTRY& entry,
                                      TRANSFORM_STEP& step, TRANSFORM_PROGRAM& program)
{
  const Frame here{eh, __func__};
  if (entry.family != TransformFamily::function) return false;
  if (entry.arguments != Arguments::value && entry.arguments != Arguments::optional_value) {
    L_GET_TRANS_ARRAY(eh, item, entry, step, program.values);
    return true;
  }
  step.number = L_GET_TRANS_VALUE(eh, item, entry);
  if (eh.terminate()) return true;
  if (entry.code == TransformCode::none) L_SEED_OF(eh, item, step.number, program.random);
  const bool bad_variance = entry.code == TransformCode::normal && step.number < 0.0;
  const bool bad_marker = entry.code == TransformCode::dominance && step.number != 1.0 && step.number != 2.0;
  if (bad_variance || bad_marker) {
    eh.error(text(
        "invalid value (", item.arguments.front().written, ") supplied as an argument for ", item.place(),
        bad_variance ? ", was expecting a variance" : ", was expecting the highest marker code, 1 or 2"));
  }
  return true;
}

/// PROCESS_MISS_DROP_TRANSFORMATIONS: the forms that drop records or make values missing; false for others.
bool PROCESS_MISS_DROP_TRANSFORMATIONS(ERROR_HANDLER& eh, const Item& item, const TRANSFORM_ENTRY& entry,
                                       TRANSFORM_STEP& step, TRANSFORM_PROGRAM& program)
{
  const Frame here{eh, __func__};
  if (entry.family != TransformFamily::miss_drop) return false;
  step.number = L_GET_TRANS_VALUE(eh, item, entry);
  if (eh.terminate() || entry.code != TransformCode::drop_equal_or_missing) return true;
  if (is_no_value(step.number)) {
    step.code = TransformCode::drop_missing;
  } else if (!program.drop_forms_told) {
    eh.note("use the \"D *\" directive to discard ONLY records containing the missing value and");
    eh.continuation(
        "the \"Dv c\" directive to discard records containing c but retain those with missing values");
    program.drop_forms_told = true;
  }
  return true;
}

/// L_COMPILE_ITEM: adds the step of one transformation to the program.
void L_COMPILE_ITEM(ERROR_HANDLER& eh, const JsonNode& node, std::int64_t variable, VARIABLE_TABLE& table)
{
  const Frame here{eh, __func__};
  Item item;
  L_READ_ITEM(eh, node, variable, table, item);
  if (eh.terminate()) return;
  const TRANSFORM_ENTRY* entry = find_transformation(item.name);
  if (entry == nullptr) {
    eh.error(text("an unknown transformation (", item.name, ") was specified for variable ", item.variable));
    return;
  }
  TRANSFORM_PROGRAM& program = table.transformations;
  TRANSFORM_STEP step{.code = entry->code,
                      .source = static_cast<std::size_t>(item.source - 1),
                      .target = static_cast<std::size_t>(item.target - 1),
                      .name = entry->name};
  if (!L_PROCESS_MATHS_TRANSFORMATIONS(eh, item, *entry, step, table) &&
      !PROCESS_FUNCTION_TRANSFORMATIONS(eh, item, *entry, step, program)) {
    PROCESS_MISS_DROP_TRANSFORMATIONS(eh, item, *entry, step, program);
  }
  if (eh.terminate() || step.code == TransformCode::none) return;
  program.steps.push_back(step);
}

}  // namespace

std::vector<bool> TRANSFORM_PROGRAM::written(std::size_t n) const
{
  std::vector<bool> mask(n, false);
  for (const TRANSFORM_STEP& step : steps) {
    if (!drops_records(step.code)) mask[step.target] = true;
  }
  return mask;
}

std::vector<bool> TRANSFORM_PROGRAM::written_first(std::size_t n) const
{
  std::vector<bool> mask(n, false);
  std::vector<bool> read(n, false);
  for (const TRANSFORM_STEP& step : steps) {
    read[step.source] = true;
    if (step.operand != TRANSFORM_STEP::no_column) read[step.operand] = true;
    if (!drops_records(step.code) && !read[step.target]) mask[step.target] = true;
  }
  return mask;
}

std::vector<bool> TRANSFORM_PROGRAM::touched(std::size_t n) const
{
  std::vector<bool> mask = written(n);
  for (const TRANSFORM_STEP& step : steps) {
    mask[step.source] = true;
    if (step.operand != TRANSFORM_STEP::no_column) mask[step.operand] = true;
  }
  return mask;
}

const JsonNode* transformation_target(const JsonNode& item)
{
  const JsonNode* target = given_value(item, "TARGET");
  return target != nullptr ? target : given_value(item, "target");
}

void PROCESS_DATA_TRANSFORMATIONS_FROM_JPTR(ERROR_HANDLER& eh, JsonNode* list, std::int64_t variable,
                                            VARIABLE_TABLE& table)
{
  const Frame here{eh, __func__};
  if (list == nullptr || list->is(JsonType::null)) return;
  if (list->packed() && list->size() > 0) {
    REPORT_JSON_ERROR(eh, *list, {"an array of objects that describe transformations"});
    return;
  }
  for (const JsonNode* item : list_entries(*list)) {
    L_COMPILE_ITEM(eh, *item, variable, table);
    if (eh.terminate()) return;
  }
}

}  // namespace tolvan
