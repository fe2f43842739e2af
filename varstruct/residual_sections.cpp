// Reading the residual part of the model and checking it against the traits.
// Routines: NEW_GETRCOV, HAVE_RCOV, NOT_AUTOAR, SETRCOV.
#include "varstruct/residual_sections.h"

#include <algorithm>
#include <set>
#include <tuple>

#include "base/text.h"
#include "model/design_kinds.h"
#include "model/request.h"
#include "varstruct/distance_setup.h"
#include "varstruct/model_catalogue.h"

namespace tolvan {

namespace {

/// Models that can not be part of a residual: known matrices, and factors that are effects of their own.
constexpr std::string_view not_residual[] = {"vm", "ide", "ric", "nrm", "grm", "fa", "rr", "mthr"};

std::int64_t original(const FACTOR_TABLE& factors, std::int64_t row)
{
  while (row > 0 && factors.row(row).copy) row = factors.row(row).source;
  return row;
}

/// The row of the factor over the records.
std::int64_t units_row(const FACTOR_TABLE& factors)
{
  for (std::int64_t i = 1; i <= factors.count(); ++i) {
    if (factors.row(i).reserved == Reserved::units && factors.row(i).source == 0) return i;
  }
  return 0;
}

/// The form of a component: its qualifier, or 3 for a model that is made of variances.
enum class OwnVariance { none, one, by_level };
OwnVariance own_variance(const std::string& function)
{
  const MODEL_REQUEST asked = model_request(function);
  if (asked.model == nullptr) return OwnVariance::none;
  if (asked.qualifier == 1) return OwnVariance::one;
  const bool of_variances = asked.model->code >= 7 && asked.model->code != 14;
  return asked.qualifier == 2 || of_variances ? OwnVariance::by_level : OwnVariance::none;
}

/// L_READ_OPTION: the variable that an option names; 0 for none.
std::int64_t L_READ_OPTION(ERROR_HANDLER& eh, const JsonNode& request, const VARIABLE_TABLE& variables,
                           std::string_view key)
{
  const Frame here{eh, __func__};
  const JsonNode* options = request.find("options");
  const JsonNode* node = options != nullptr && options->is(JsonType::object) ? options->find(key) : nullptr;
  if (node == nullptr || node->is(JsonType::null)) return 0;
  if (!node->is(JsonType::string)) {
    REPORT_JSON_ERROR(eh, *node, {"the name of a factor"});
    return 0;
  }
  const std::int64_t row = variables.find(node->text());
  if (row == 0 || !variables.row(row).is_factor()) {
    eh.error(text("the option ", key, " names ", node->text(), ", which is not a factor of the data"));
    return 0;
  }
  return row;
}

/// L_READ_SECTION: one residual term.
void L_READ_SECTION(ERROR_HANDLER& eh, const FACTOR_TABLE& factors, const TERM_ROW& term,
                    RESIDUAL_TERM& section)
{
  const Frame here{eh, __func__};
  section.name = term.name;
  const auto [from, to] = term.components();
  for (std::int64_t i = from; i <= to; ++i) {
    const FACTOR_ROW& f = factors.row(i);
    const bool refused =
        std::find(std::begin(not_residual), std::end(not_residual), f.structure) != std::end(not_residual);
    const FACTOR_ROW& of = factors.row(original(factors, i));
    const bool reserved = of.reserved == Reserved::units || of.reserved == Reserved::trait;
    const bool sized = of.kind == static_cast<std::int64_t>(DesignKind::lnk);
    if (refused || (!reserved && !sized && data_row(factors, i) == 0)) {
      eh.error(text("unacceptable residual term: ", term.name));
      if (f.structure == "mthr" && !(to == from + 1 && i == to && is_units(factors, from) && is_trait(factors, to)))
        eh.continuation("For multinomial write \"residual units.mthr(Trait)\"");
      return;
    }
    section.components.push_back(
        {.factor = i, .function = f.structure == "id" ? std::string() : f.structure});
  }
  if (term.condition == 0) return;
  const FACTOR_ROW& condition = factors.row(term.condition);
  const FACTOR_ROW& of =
      factors.row(original(factors, condition.source > 0 ? condition.source : term.condition));
  const bool by_trait = of.reserved == Reserved::trait;
  if ((of.variable == 0 && !by_trait) || !of.is_factor || condition.arguments.empty()) {
    eh.error(text("unacceptable residual term: ", term.name));
    return;
  }
  section.condition = by_trait ? trait_condition : of.variable;
  section.level = static_cast<std::int64_t>(condition.arguments.front());
}

/// L_SPLIT_BY_OPTION: sections by the levels of the factor that the option `section` names.
void L_SPLIT_BY_OPTION(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, std::int64_t section,
                       RESIDUAL_MODEL& residual)
{
  const Frame here{eh, __func__};
  const std::int64_t levels = variables.row(section).levels;
  std::vector<RESIDUAL_TERM>& sections = residual.sections;
  const auto count = static_cast<std::int64_t>(sections.size());
  const bool conditional = sections.front().condition != 0;
  if (count == levels && conditional) return;
  if (count != 1 || conditional) {
    eh.error(text("!SECTION confusion: ", levels, " != ", count));
    return;
  }
  const RESIDUAL_TERM whole = sections.front();
  sections.assign(static_cast<std::size_t>(levels), whole);
  for (std::int64_t l = 1; l <= levels; ++l) {
    RESIDUAL_TERM& one = sections[static_cast<std::size_t>(l - 1)];
    one.condition = section;
    one.level = l;
    one.name =
        text("sat(", variables.row(section).name, ",", l, "):", whole.name.empty() ? "units" : whole.name);
  }
}

/// L_ORDER_SECTIONS: sorts the sections by the level of the one factor that tells them apart.
void L_ORDER_SECTIONS(ERROR_HANDLER& eh, RESIDUAL_MODEL& residual)
{
  const Frame here{eh, __func__};
  std::vector<RESIDUAL_TERM>& sections = residual.sections;
  if (sections.size() < 2) return;
  std::stable_sort(sections.begin(), sections.end(),
                   [](const RESIDUAL_TERM& a, const RESIDUAL_TERM& b) { return a.level < b.level; });
  for (std::size_t i = 0; i < sections.size(); ++i) {
    const bool rises = i == 0 || sections[i].level > sections[i - 1].level;
    if (sections[i].condition == 0 || sections[i].condition != sections[0].condition || !rises) {
      eh.error("failed to verify order of sections");
      return;
    }
  }
}

/// L_SETTLE_SCALE: ratios to one variance, or absolute values.
void L_SETTLE_SCALE(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const FACTOR_TABLE& factors,
                    const MODEL_INFO& info, RESIDUAL_MODEL& residual)
{
  const Frame here{eh, __func__};
  const bool sigma = options(Slot::varscale) > 0;
  const bool gamma_asked = !sigma && options.given[static_cast<std::size_t>(Slot::varscale)];
  const bool several = residual.sections.size() > 1 || info.traits() > 1;
  residual.gamma = !sigma;
  if (several && gamma_asked) {
    eh.error("gamma scale cannot be used when there are multiple error variances");
    return;
  }
  if (several) {
    residual.gamma = false;
    return;
  }
  bool one = false, by_level = false, given = false;
  for (const RESIDUAL_COMPONENT& component : residual.sections.front().components) {
    const OwnVariance own = own_variance(component.function);
    one = one || own == OwnVariance::one;
    by_level = by_level || own == OwnVariance::by_level;
    given = given || (own == OwnVariance::one && !factors.row(component.factor).init.empty());
  }
  if (one && !sigma && !given) {
    eh.warning("specify Sigma parameterization via the options, by setting varscale to 1.0");
  }
  if (one || by_level) residual.gamma = false;
}

}  // namespace

bool is_units(const FACTOR_TABLE& factors, std::int64_t row)
{
  return row > 0 && factors.row(original(factors, row)).reserved == Reserved::units;
}

bool is_trait(const FACTOR_TABLE& factors, std::int64_t row)
{
  return row > 0 && factors.row(original(factors, row)).reserved == Reserved::trait;
}

bool is_multivariate_residual(const FACTOR_TABLE& factors, const RESIDUAL_TERM& section)
{
  return section.components.size() == 2 && is_units(factors, section.components[0].factor) &&
         section.components[0].function.empty() && is_trait(factors, section.components[1].factor) &&
         section.components[1].function == "us";
}

void NOT_AUTOAR(ERROR_HANDLER& eh, const FACTOR_TABLE& factors, const MODEL_INFO& info,
                RESIDUAL_MODEL& residual)
{
  const Frame here{eh, __func__};
  residual.is_default = true;
  RESIDUAL_TERM section;
  section.components.push_back({.factor = units_row(factors)});
  if (info.traits() > 1) {
    section.components.push_back({.factor = info.trait, .function = "us"});
    eh.warning("assuming I x US variable structure for Residual");
  }
  residual.sections.push_back(std::move(section));
}

void NEW_GETRCOV(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const JsonNode& request,
                 const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors, const TERM_TABLE& terms,
                 const MODEL_INFO& info, RESIDUAL_MODEL& residual)
{
  const Frame here{eh, __func__};
  residual = {};
  for (std::size_t i = 0; i < terms.rows.size(); ++i) {
    const TERM_ROW& term = terms.rows[i];
    if (term.block != Block::residual || term.dropped) continue;
    RESIDUAL_TERM section{.term = static_cast<std::int64_t>(i)};
    L_READ_SECTION(eh, factors, term, section);
    if (eh.terminate()) return;
    residual.sections.push_back(std::move(section));
  }
  if (residual.sections.empty()) {
    NOT_AUTOAR(eh, factors, info, residual);
    if (eh.terminate()) return;
  }

  const std::int64_t section = L_READ_OPTION(eh, request, variables, "section");
  if (eh.terminate()) return;
  residual.rowfactor = L_READ_OPTION(eh, request, variables, "rowfactor");
  if (eh.terminate()) return;
  residual.columnfactor = L_READ_OPTION(eh, request, variables, "columnfactor");
  if (eh.terminate()) return;
  if (section > 0) L_SPLIT_BY_OPTION(eh, variables, section, residual);
  if (eh.terminate()) return;

  for (const RESIDUAL_TERM& one : residual.sections) {
    if (one.components.size() == residual.sections.front().components.size()) continue;
    eh.error(text("you may not mix 1-way and 2-way R structures: ", one.name, " is not permitted"));
    return;
  }
  L_ORDER_SECTIONS(eh, residual);
  if (eh.terminate()) return;
  L_SETTLE_SCALE(eh, options, factors, info, residual);
}

void HAVE_RCOV(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const VARIABLE_TABLE& variables,
               const FACTOR_TABLE& factors, const MODEL_INFO& info, const RESIDUAL_MODEL& residual)
{
  const Frame here{eh, __func__};
  const std::int64_t traits = info.traits();
  const RESIDUAL_TERM& first = residual.sections.front();
  const bool asmv = options(Slot::asmv) > 0;
  const bool asuv = options(Slot::asuv) > 0;
  const bool multivariate = is_multivariate_residual(factors, first);
  if (asmv && (residual.sections.size() != 1 || !multivariate)) {
    eh.error("the ASMV qualifier may only be used with a units.us() residual");
    return;
  }
  if (options(Slot::asmv) > 1 && options(Slot::asmv) != traits) {
    eh.error(text("the option asmv tells of ", options(Slot::asmv), " traits, the model has ", traits));
    return;
  }
  if (asuv && options(RealSlot::adjust) != 0.0) {
    eh.error(" You may not use ADJUST with ASUV");
    return;
  }
  if (traits > 1 && !multivariate && !asuv) {
    eh.error("ASUV must be set since the multivariate residual is not units.us(Trait)");
    return;
  }
  if (residual.is_default) return;

  std::set<std::tuple<std::int64_t, std::string>> told;  // once for each factor
  for (const RESIDUAL_TERM& section : residual.sections) {
    bool units = false, trait = false;
    for (const RESIDUAL_COMPONENT& component : section.components) {
      units = units || is_units(factors, component.factor);
      trait = trait || is_trait(factors, component.factor);
      const std::int64_t row = original(factors, component.factor);
      const FACTOR_ROW& f = factors.row(row);
      const bool labelled =
          f.variable > 0 && f.is_factor && f.kind == 0 && variables.row(f.variable).labels.size() > 0 &&
          variables.row(f.variable).type == FieldType::string_factor && !variables.row(f.variable).sort;
      if (labelled && !component.function.empty() && told.insert({row, "labels"}).second) {
        eh.warning(text(
            f.name,
            " is defined as a labelled factor, it may not sort the data correctly as labels are not sorted"));
      }
    }
    const bool first_units = is_units(factors, section.components.front().factor);
    if (section.components.size() == 2 && !first_units && (units || trait) &&
        told.insert({0, "order"}).second) {
      const std::string& word =
          units ? factors.row(units_row(factors)).shown() : factors.row(info.trait).shown();
      eh.warning(
          text("note when specifying the residual the interaction operator is not commutative if one or more "
               "of the "
               "terms includes the ",
               word, " keyword"));
    }
  }
}

void SETRCOV(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors,
             const RESIDUAL_MODEL& residual)
{
  const Frame here{eh, __func__};
  if (residual.rowfactor == 0 && residual.columnfactor == 0) return;
  for (const RESIDUAL_TERM& section : residual.sections) {
    // The factor that an option names is one of the components; in a product of two the last is the row by
    // custom.
    const auto levels_of = [&](const RESIDUAL_COMPONENT& component) {
      return factors.row(original(factors, component.factor)).levels;
    };
    const auto check = [&](std::int64_t variable, bool row) {
      if (variable == 0) return;
      for (const RESIDUAL_COMPONENT& component : section.components) {
        if (factors.row(original(factors, component.factor)).variable == variable) return;
      }
      const std::int64_t implied = levels_of(row ? section.components.back() : section.components.front());
      const std::int64_t named = variables.row(variable).levels;
      if (named != implied)
        eh.error(text(row ? "!ROWFAC" : "!COLFAC", " confusion: ", named, " != ", implied));
    };
    if (section.components.size() == 1) {
      // One dimension for a grid that has two.
      if (residual.rowfactor == 0 || residual.columnfactor == 0 || section.condition != 0) continue;
      const std::int64_t grid =
          variables.row(residual.rowfactor).levels * variables.row(residual.columnfactor).levels;
      const std::int64_t implied = levels_of(section.components.front());
      if (grid != implied) eh.error(text("R structures inconsistent: ", implied, " != ", grid));
    } else {
      check(residual.rowfactor, true);
      if (!eh.terminate()) check(residual.columnfactor, false);
    }
    if (eh.terminate()) return;
  }
}

}  // namespace tolvan
