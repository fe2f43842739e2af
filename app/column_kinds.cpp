#include "app/column_kinds.h"

#include <array>
#include <cctype>
#include <cmath>
#include <set>

namespace tolvan::driver {
namespace {

/// Functions whose argument is a covariate, whatever part of the model they stand in.
constexpr std::array covariate_functions = {"pol", "leg", "spl", "dev", "lin", "pow"};

bool is_name_character(char c)
{
  return std::isalnum(static_cast<unsigned char>(c)) || c == '_';
}

/// Gathers the names that a formula uses as factors: all but the functions themselves and what stands inside
/// a function of a covariate.
void factors_of_formula(const std::string& formula, std::set<std::string>& out)
{
  std::vector<bool> inside_covariate{false};  // one entry an open bracket
  bool next_is_covariate = false;
  for (std::size_t i = 0; i < formula.size();) {
    if (is_name_character(formula[i])) {
      std::size_t j = i;
      while (j < formula.size() && is_name_character(formula[j])) ++j;
      const std::string word = formula.substr(i, j - i);
      while (j < formula.size() && formula[j] == ' ') ++j;
      if (j < formula.size() && formula[j] == '(') {
        for (const char* f : covariate_functions) next_is_covariate = next_is_covariate || word == f;
      } else if (!inside_covariate.back()) {
        out.insert(word);
      }
      i = j;
      continue;
    }
    if (formula[i] == '(') {
      inside_covariate.push_back(inside_covariate.back() || next_is_covariate);
      next_is_covariate = false;
    } else if (formula[i] == ')' && inside_covariate.size() > 1) {
      inside_covariate.pop_back();
    }
    ++i;
  }
}

/// The same for a part of the model that is given as a tree of terms.
void factors_of_part(const Json& part, std::set<std::string>& out)
{
  if (part.is(JsonKind::string)) factors_of_formula(part.text, out);
  if (part.is(JsonKind::object)) {
    if (const Json* function = part.string_at("name")) {
      for (const char* f : covariate_functions)
        if (function->text == f) return;
    }
  }
  for (const Json& item : part.items) factors_of_part(item, out);
}

/// The names that some parts of the model use, of all models where the request has several.
std::set<std::string> names_in_model(const Json& request, std::initializer_list<const char*> parts)
{
  std::set<std::string> names;
  const Json* model = request.find("model");
  if (!model) return names;
  const auto read = [&](const Json& each) {
    for (const char* part : parts)
      if (const Json* terms = each.find(part)) factors_of_part(*terms, names);
  };
  if (!model->is(JsonKind::array)) read(*model);
  if (model->is(JsonKind::array))
    for (const Json& each : model->items) read(each);
  return names;
}

const char* name_trouble(const CsvFile& file, const std::string& name)
{
  if (name.empty()) return "left out, it has no name";
  if (name.size() > 31) return "left out, its name is longer than 31 characters";
  if (!std::isalpha(static_cast<unsigned char>(name.front())))
    return "left out, its name begins with no letter";
  for (const char c : name) {
    const bool letter = is_name_character(c) || static_cast<unsigned char>(c) >= 0x80;
    if (!letter) return "left out, a formula can not hold its name";
  }
  for (const char* reserved : {"mu", "mv", "units", "trait"})
    if (name == reserved) return "left out, its name is a reserved word";
  int times = 0;
  for (const std::string& other : file.header) times += other == name;
  return times > 1 ? "left out, its name stands twice in the header" : nullptr;
}

}  // namespace

std::vector<ColumnKind> guess_kinds(const CsvFile& file, const Json& request)
{
  const std::set<std::string> factors = names_in_model(request, {"random", "residual"});
  const std::set<std::string> measured = names_in_model(request, {"response", "weights"});
  std::vector<ColumnKind> kinds;
  for (std::size_t c = 0; c < file.header.size(); ++c) {
    ColumnKind& kind = kinds.emplace_back();
    kind.name = file.header[c];
    if (const char* trouble = name_trouble(file, kind.name)) {
      kind.used = false;
      kind.why = trouble;
      continue;
    }
    if (measured.contains(kind.name)) {  // text in it is an error, which is found when it is read
      kind.field_type = "vt_variate";
      kind.why = "variate";
      continue;
    }
    bool numbers = true;
    bool whole = true;
    for (std::int64_t r = 0; r < file.records() && numbers; ++r) {
      const std::string_view field = file.field(r, c);
      if (is_missing(field)) continue;
      const auto x = number_of(field, file.separator);
      numbers = x.has_value();
      whole = whole && numbers && *x == std::trunc(*x);
    }
    if (!numbers) {
      kind.field_type = "vt_string_factor";
      kind.why = "factor";
    } else if (whole && factors.contains(kind.name)) {
      kind.field_type = "vt_integer_factor";
      kind.why = "factor of whole numbers";
    } else {
      kind.field_type = "vt_variate";
      kind.why = "variate";
    }
  }
  return kinds;
}

}  // namespace tolvan::driver
