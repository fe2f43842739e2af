// Linear constraints by parameter number.  Routines: HANDLE_VCC_CONSTRAINTS, AIVCC.
#include "varstruct/followers.h"
#include "varstruct/linear_constraints.h"

#include <charconv>
#include <cmath>
#include <vector>

#include "base/text.h"
#include "varstruct/initial_values.h"

namespace tolvan {

namespace {

/// One parameter, or the first of a block, with its coefficient.
struct ITEM {
  std::int64_t number = 0;  // from 1
  double coefficient = 1.0;
};

/// A line in parts.
struct LINE {
  std::vector<ITEM> items;
  std::int64_t repeats = 1, block = 1;
};

bool read_whole(std::string_view s, std::int64_t& out)
{
  const auto [end, error] = std::from_chars(s.data(), s.data() + s.size(), out);
  return error == std::errc{} && end == s.data() + s.size();
}

/// The words of a line: blanks and commas part them outside brackets.
std::vector<std::string> words_of(std::string_view line)
{
  std::vector<std::string> words;
  std::string word;
  int depth = 0;
  for (const char c : line) {
    depth += c == '(' || c == '[' ? 1 : c == ')' || c == ']' ? -1 : 0;
    if (depth <= 0 && (c == ' ' || c == ',' || c == '\t')) {
      if (!word.empty()) words.push_back(std::move(word));
      word.clear();
    } else {
      word += c;
    }
  }
  if (!word.empty()) words.push_back(std::move(word));
  return words;
}

/// L_UNREADABLE: the complaint about a line that can not be read.
void L_UNREADABLE(ERROR_HANDLER& eh, const std::string& line)
{
  const Frame here{eh, __func__};
  eh.error("issue reading vcc constraints");
  eh.continuation(line);
}

/// L_READ_ITEM: a number, a range or a name, with its coefficient.
void L_READ_ITEM(ERROR_HANDLER& eh, const std::string& line, const std::string& word,
                 const FACTOR_TABLE& factors, const TERM_TABLE& terms, std::int64_t offset,
                 VARIANCE_MODEL& model, LINE& out)
{
  const Frame here{eh, __func__};
  std::string_view name = word;
  double coefficient = 1.0;
  if (const std::size_t joint = word.find_first_of("*:"); joint != std::string::npos) {
    name = std::string_view(word).substr(0, joint);
    if (!read_real(std::string_view(word).substr(joint + 1), coefficient) || !std::isfinite(coefficient)) {
      L_UNREADABLE(eh, line);
      return;
    }
  }
  std::int64_t first = 0, last = 0;
  const std::size_t dash = name.find('-', 1);
  if (read_whole(name, first)) {
    out.items.push_back({first + offset, coefficient});
    return;
  }
  if (dash != std::string_view::npos && read_whole(name.substr(0, dash), first) &&
      read_whole(name.substr(dash + 1), last)) {
    if (last < first || last - first >= model.count()) {
      eh.error(text(last, " is invalid as the number of a variance parameter to be constrained"));
      return;
    }
    for (std::int64_t n = first; n <= last; ++n) out.items.push_back({n + offset, coefficient});
    return;
  }
  const std::int64_t found = find_parameter(factors, terms, model, name);
  const PARAMETER_RANGE range = found >= 0 ? PARAMETER_RANGE{} : find_structure(factors, terms, model, name);
  if (found < 0 && range.count == 0) {
    eh.error(text("constraint term ", name, " is not in the model"));
    return;
  }
  if (range.count > 1) out.block = std::max(out.block, range.count);  // all parameters of the term
  out.items.push_back({(found >= 0 ? found : range.first) + 1, coefficient});
}

/// L_READ_LINE: the items and qualifiers of a line.
void L_READ_LINE(ERROR_HANDLER& eh, const std::string& line, const FACTOR_TABLE& factors,
                 const TERM_TABLE& terms, std::int64_t& offset, VARIANCE_MODEL& model, LINE& out)
{
  const Frame here{eh, __func__};
  const std::vector<std::string> words = words_of(line);
  for (std::size_t k = 0; k < words.size(); ++k) {
    if (words[k].front() != '!') {
      L_READ_ITEM(eh, line, words[k], factors, terms, offset, model, out);
      if (eh.terminate()) return;
      continue;
    }
    const std::string kind = upper(words[k].substr(0, 3));
    std::int64_t value = 0;
    const bool known = kind == "!DO" || kind == "!BL" || kind == "!OF";
    if (!known || k + 1 == words.size() || !read_whole(words[k + 1], value) || (kind != "!OF" && value < 1)) {
      L_UNREADABLE(eh, line);
      return;
    }
    ++k;
    if (kind == "!OF") {
      if (std::abs(value) >= model.count() || std::abs(offset + value) >= model.count()) {
        eh.error("VCC OFFSET too large!");
        return;
      }
      offset += value;
      eh.note(text("VCC parameter numbers adjusted ", offset, " positions"));
    } else if (value > model.count()) {
      eh.error(text(value, " is invalid as the number of a variance parameter to be constrained"));
      return;
    } else {
      (kind == "!DO" ? out.repeats : out.block) = value;
    }
  }
}

/// L_CHECK_NUMBER: complains of a number that is none of the parameters.
void L_CHECK_NUMBER(ERROR_HANDLER& eh, std::int64_t number, bool master, const VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  const bool profiled = model.profiled && number == model.residual_parameter + 1;
  if (number >= 1 && number <= model.count() && !profiled) return;
  if (number < 1 || master || profiled) {
    eh.error(text(number, " is invalid as the number of a variance parameter to be constrained"));
    if (profiled) {
      eh.continuation("it is the residual variance, to which the others are ratios");
      eh.continuation("try using the sigma parameterization by setting varscale to 1.0");
    }
    return;
  }
  eh.error(text("in Variance Parameter Constraint, parameter ", number, " is undefined"));
  eh.continuation("defined parameter numbers are:");
  for (std::int64_t n = 1; n <= model.count(); ++n) {
    eh.continuation(text("parameter numbered ", n, " has value ",
                         edit_f(model.parameters[static_cast<std::size_t>(n - 1)].value, 12, 4)));
  }
}

/// L_LINK_GROUP: lets all parameters of a group follow the first.
void L_LINK_GROUP(ERROR_HANDLER& eh, const std::vector<ITEM>& items, std::int64_t step, VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  const std::int64_t master = items.front().number + step;
  L_CHECK_NUMBER(eh, master, true, model);
  if (eh.terminate()) return;
  if (follows(model.parameters[static_cast<std::size_t>(master - 1)])) {
    eh.error(text("fault in Gamma constraints for parameter ", master,
                  ", relationships must be defined relative to parameter ", made_of(model, master - 1).front().of + 1));
    return;
  }
  for (std::size_t k = 1; k < items.size(); ++k) {
    const std::int64_t number = items[k].number + step;
    const double coefficient = items[k].coefficient / items.front().coefficient;
    L_CHECK_NUMBER(eh, number, false, model);
    if (eh.terminate()) return;
    const VARIANCE_PARAMETER& p = model.parameters[static_cast<std::size_t>(number - 1)];
    if (follows(p) || number == master) {
      const PARAMETER_SHARE known = follows(p) ? made_of(model, number - 1).front() : PARAMETER_SHARE{master - 1, 1.0};
      eh.error(text("in Variance Parameter Constraint for parameter ", number, " [", edit_f(p.value, 10, 4),
                    "] and coefficient  [", edit_f(coefficient, 10, 4),
                    "], it is already linked to parameter ", known.of + 1, " with coefficient ", edit_f(known.by, 10, 4)));
      return;
    }
    link_parameter(model, number - 1, master - 1, coefficient);
  }
}

/// The lines of the request; null when there are none.
const JsonNode* constraint_lines(const JsonNode& request)
{
  const JsonNode* list = request.find("vcc_constraint");
  if (const JsonNode* m = request.find("model"); list == nullptr && m != nullptr) {
    if (m->is(JsonType::array) && !m->packed() && !m->children().empty()) m = m->children().front().get();
    list = m->find("vcc_constraint");
  }
  return list == nullptr || list->is(JsonType::null) ? nullptr : list;
}

}  // namespace

void AIVCC(ERROR_HANDLER& eh, const std::string& line, const FACTOR_TABLE& factors, const TERM_TABLE& terms,
           std::int64_t& offset, VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  LINE read;
  L_READ_LINE(eh, line, factors, terms, offset, model, read);
  if (eh.terminate() || read.items.empty()) return;
  if (read.items.front().coefficient == 0.0) {
    L_UNREADABLE(eh, line);
    return;
  }
  // A block by itself says that its parameters belong together one by one; repeats move on by whole blocks.
  for (std::int64_t r = 0; r < read.repeats; ++r) {
    const std::int64_t within = read.repeats > 1 ? 1 : read.block;
    for (std::int64_t b = 0; b < within; ++b) {
      L_LINK_GROUP(eh, read.items, r * read.block + b, model);
      if (eh.terminate()) return;
    }
  }
}

void HANDLE_VCC_CONSTRAINTS(ERROR_HANDLER& eh, const JsonNode& request, const FACTOR_TABLE& factors,
                            const TERM_TABLE& terms, VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  const JsonNode* list = constraint_lines(request);
  if (list == nullptr) return;
  std::vector<std::string> lines;
  bool good = list->is(JsonType::string) || (list->is(JsonType::array) && !list->packed());
  if (list->is(JsonType::string)) lines.push_back(list->text());
  if (list->is(JsonType::array) && good) {
    for (const auto& entry : list->children()) {
      good = good && entry->is(JsonType::string);
      if (good) lines.push_back(entry->text());
    }
  }
  if (!good) {
    eh.error("issue reading vcc constraints");
    return;
  }
  if (lines.empty()) return;
  eh.note("for setting !VCC constraints, use the variance parameter numbers given in .tsv file");
  std::int64_t offset = 0;
  for (const std::string& line : lines) {
    AIVCC(eh, line, factors, terms, offset, model);
    if (eh.terminate()) return;
  }
  set_followers(model);
}

}  // namespace tolvan
