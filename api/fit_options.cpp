// FIT_OPTIONS_DEFAULTS, UPDATE_OPTIONS_FROM_JPTR, REFUSE_UNBUILT_OPTIONS.
#include "api/fit_options.h"

#include <algorithm>
#include <cmath>
#include <thread>

#include "api/fit_options_table.h"
#include "api/fit_options_values.h"
#include "base/numbers.h"
#include "base/random.h"
#include "base/text.h"

namespace tolvan {
namespace {

constexpr std::int64_t all_stages = 99;
constexpr std::int64_t default_knots = 50;
constexpr std::int64_t default_predict_points = 21;
/// More threads than this are never started: a runtime that cannot start one ends the process.
constexpr std::int64_t most_threads = 16;

std::int64_t machine_threads()
{
  return std::max<std::int64_t>(1, std::thread::hardware_concurrency());
}

void read_file_option(ERROR_HANDLER& eh, const JsonNode& node, FileOption& option)
{
  if (node.is(JsonType::string)) {
    option.asked = !is_blank(node.text());
    if (node.text() != no_value_supplied && !is_blank(node.text())) option.file = node.text();
    return;
  }
  GET_VALUE_FROM_JPTR_INTEGER(eh, node, 1, option.value);
  if (eh.terminate()) return;
  option.asked = option.value > 0;
}

void read_missing_values(ERROR_HANDLER& eh, const JsonNode& node, std::int64_t& slot)
{
  std::string word;
  GET_VALUE_FROM_JPTR_STRING(eh, node, word);
  if (eh.terminate() || is_blank(word)) return;
  const auto trimmed = trim(word);
  slot = trimmed == "mv_fail" ? 0 : trimmed == "mv_remove" ? -1 : 1;
}

void read_y_missing_values(ERROR_HANDLER& eh, const JsonNode& node, std::int64_t& slot)
{
  std::string word;
  GET_VALUE_FROM_JPTR_STRING(eh, node, word);
  if (eh.terminate() || is_blank(word)) return;
  slot = trim(word) == "mv_fail" ? -1 : 0;
}

void read_process_stage(ERROR_HANDLER& eh, const JsonNode& node, std::int64_t& slot)
{
  if (node.is_text("preprocess"))
    slot = 1;
  else if (node.is_text("all"))
    slot = all_stages;
  else
    eh.error("invalid value supplied for option process_stage, was expecting one of: preprocess or all",
             Ecode::invalid_syntax);
}

FileOption& file_option(FIT_OPTIONS& options, std::string_view key)
{
  if (key == "continue") return options.continue_from;
  if (key == "final") return options.final_file;
  return key == "tsv" ? options.tsv : options.msv;
}

/// The names that a value holds, one or a list: texts but for numbers, truth values and what stands for no value.
std::vector<std::string> names_in(const JsonNode& node)
{
  std::vector<std::string> names;
  if (node.is(JsonType::array) && !node.packed()) {
    for (const auto& each : node.children()) {
      for (std::string& name : names_in(*each)) names.push_back(std::move(name));
    }
  } else if (node.is(JsonType::string)) {
    const std::string name(trim(node.text()));
    double number = 0.0;
    const bool truth = lower(name) == "true" || lower(name) == "false";
    if (!name.empty() && !truth && name != no_value_supplied && !read_real(name, number)) names.push_back(name);
  }
  return names;
}

/// L_CHECK_BLUP: complains of a mode that there is not.  Over-relaxation by a factor of 2 never converges.
void L_CHECK_BLUP(ERROR_HANDLER& eh, std::int64_t mode)
{
  const Frame here{eh, __func__};
  constexpr std::int64_t most = 19;
  if (mode <= most) return;
  eh.error(text("invalid value supplied, was expecting 0 (the variance parameters are estimated), 1 to 3 (solutions at the given "
                "ones), 4 (solutions by conjugate gradients) or 5 to ",
                most, " (solutions by Gauss-Seidel iteration with relaxation factor 0.5 to 1.9), supplied value = ", mode));
}

/// L_READ_OPTION: reads one option into its slot.
void L_READ_OPTION(ERROR_HANDLER& eh, const OptionRow& row, const JsonNode& node, FIT_OPTIONS& options)
{
  const Frame here{eh, __func__};
  const auto bare = static_cast<std::int64_t>(row.bare);
  bool flag = false;
  switch (row.reader) {
    case OptionReader::integer:
      GET_VALUE_FROM_JPTR_INTEGER(eh, node, bare, options(static_cast<Slot>(row.slot)));
      options.given[static_cast<std::size_t>(row.slot)] = true;
      if (row.key == "blup" && !eh.terminate()) L_CHECK_BLUP(eh, options(Slot::blup));
      break;
    case OptionReader::real:
      GET_VALUE_FROM_JPTR_REAL(eh, node, row.bare, options(static_cast<RealSlot>(row.slot)));
      break;
    case OptionReader::flag:
      GET_VALUE_FROM_JPTR_LOGICAL(eh, node, options(static_cast<Flag>(row.slot)));
      break;
    case OptionReader::flag_to_one:
      GET_VALUE_FROM_JPTR_LOGICAL(eh, node, flag);
      if (flag) options(static_cast<Slot>(row.slot)) = 1;
      options.given[static_cast<std::size_t>(row.slot)] = true;
      break;
    case OptionReader::file:
      read_file_option(eh, node, file_option(options, row.key));
      break;
    case OptionReader::em:
      GET_VALUE_FROM_JPTR_INTEGER(eh, node, 1, options(Slot::em_value));
      options(Slot::em_mode) = bare;
      break;
    case OptionReader::hold:
      GET_VALUE_FROM_JPTR_INTEGERS(eh, node, options.hold);
      break;
    case OptionReader::tolerance:
      GET_VALUE_FROM_JPTR_INTEGERS(eh, node, options.tolerance);
      if (options.tolerance.empty()) options.tolerance = {bare};
      if (options.tolerance.size() > 3) options.tolerance.resize(3);
      break;
    case OptionReader::missing_values:
      read_missing_values(eh, node, options(Slot::missing_values));
      break;
    case OptionReader::y_missing_values:
      read_y_missing_values(eh, node, options(Slot::y_missing_values));
      break;
    case OptionReader::process_stage:
      read_process_stage(eh, node, options(Slot::process_stage));
      break;
    case OptionReader::outfolder:
      GET_VALUE_FROM_JPTR_STRING(eh, node, options.outfolder);
      break;
    case OptionReader::cinv:
      options.inverse_table = asks(node);
      options.inverse_terms = names_in(node);
      break;
    case OptionReader::elsewhere:
      break;
  }
}

/// The steps behind the last key, in their order.
void settle(ERROR_HANDLER& eh, FIT_OPTIONS& options)
{
  if (options(Slot::aipenalty) == 0) options(Slot::aipenalty) = -1;
  if (options(Slot::knots) <= 2) options(Slot::knots) = default_knots;
  if (options(Slot::ppoints) == 0) options(Slot::ppoints) = default_predict_points;

  // The power has a real and an integer half; the one that is set fills the other.
  double& power = options(RealSlot::aiv);
  std::int64_t& whole_power = options(Slot::aiv_integer);
  if (power < 0.0 && whole_power == 0) whole_power = std::llround(std::max(power, -9.2e18));
  if (power == 0.0 && whole_power < 0) power = static_cast<double>(whole_power);

  if (options(Slot::slot_25) == 9) options(Slot::slot_25) = 1;
  if (options(Flag::testmode)) options(Slot::slot_31) = 15;
  if (options(Slot::impute) > 0) {
    eh.note(text("random number seed ", default_seeds[0], ", ", default_seeds[1], ", ", default_seeds[2], ", ",
                 default_seeds[3]));
  }
  if (options(Flag::design)) options(Slot::report) = 0;
  if (const std::int64_t form = options(Slot::txtform); form > 0) {
    for (const Slot each : {Slot::pvsform, Slot::slnform, Slot::tabform, Slot::yhtform}) {
      if (options(each) == 0) options(each) = form;
    }
  }

  std::int64_t& threads = options(Slot::maximum_number_of_threads);
  if (threads < 1) threads = machine_threads();
  threads = std::min(threads, std::max(machine_threads(), most_threads));
}

/// Whether an option asks for anything, by the value that its slot gets.
bool asks(const OptionRow& row, const JsonNode& node)
{
  if (row.reader != OptionReader::integer) return asks(node);
  ERROR_HANDLER unreadable;  // what can not be read is complained of by the reader
  std::int64_t value = 0;
  GET_VALUE_FROM_JPTR_INTEGER(unreadable, node, static_cast<std::int64_t>(row.bare), value);
  return unreadable.terminate() ? asks(node) : value != 0 && value != -1;
}

}  // namespace

FIT_OPTIONS FIT_OPTIONS_DEFAULTS()
{
  FIT_OPTIONS options;
  options(Slot::maxiterations) = 20;
  options(Slot::ddf) = -1;
  options(Slot::process_stage) = all_stages;
  options(Slot::maximum_number_of_threads) = machine_threads();
  options(Slot::aipenalty) = -1;
  options(Slot::knots) = default_knots;
  options(Slot::ppoints) = default_predict_points;
  options(RealSlot::step_size) = 1.0;
  options(RealSlot::arlimit) = 0.999;
  return options;
}

void UPDATE_OPTIONS_FROM_JPTR(ERROR_HANDLER& eh, const JsonNode* options, FIT_OPTIONS& fit_options)
{
  const Frame here{eh, __func__};
  fit_options = FIT_OPTIONS_DEFAULTS();
  if (options != nullptr) {
    if (!options->is(JsonType::object)) {
      eh.error("invalid value supplied for options, was expecting an object");
      return;
    }
    for (const auto& node : options->children()) {
      const OptionRow* row = find_option(node->name);
      if (row == nullptr) {
        eh.EH_ADD_MESSAGE({.text = text(json_path(*node), " is not a recognised key"),
                           .etype = Etype::warning,
                           .ecode = Ecode::not_implemented});
        continue;
      }
      L_READ_OPTION(eh, *row, *node, fit_options);
      if (eh.terminate()) {
        if (row->reader != OptionReader::process_stage)
          eh.error(text("invalid value supplied for option ", row->key));
        return;
      }
    }
  }
  settle(eh, fit_options);
}

void REFUSE_UNBUILT_OPTIONS(ERROR_HANDLER& eh, const JsonNode* options)
{
  const Frame here{eh, __func__};
  if (options == nullptr) return;
  for (const auto& node : options->children()) {
    const OptionRow* row = find_option(node->name);
    if (row == nullptr) continue;
    if (row->effect == OptionEffect::unbuilt && asks(*row, *node)) {
      eh.not_implemented(text("the option ", row->key, " is not implemented"));
    }
    // Under varscale 1 variances are absolute; what other values would mean is not settled.
    if (row->key == "varscale") {
      std::int64_t value = 0;
      GET_VALUE_FROM_JPTR_INTEGER(eh, *node, static_cast<std::int64_t>(row->bare), value);
      if (value != 0 && value != 1) eh.not_implemented("the option varscale is implemented for 0 and 1");
    }
  }
}

}  // namespace tolvan
