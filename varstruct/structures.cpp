// One component model in the parameter table.  Routine: NEWSTR.
#include "varstruct/structures.h"

#include <algorithm>
#include <cmath>

#include "base/text.h"
#include "varstruct/model_catalogue.h"

namespace tolvan {

namespace {

// Selectors of the catalogue that are treated apart.
constexpr std::int64_t iden = 0, sph = 15, cir = 22, mat = 23, rrnk = 30, xfa = 31, grm = 33;

/// What a request asks for, with its order made good.
struct ASKED {
  const COMPONENT_MODEL* model = nullptr;
  std::int64_t variances = 0;  // behind its own parameters
  bool by_level = false;       // they are of the levels, also where there is one level
  std::int64_t order = 1;
  std::int64_t size = 0;
  bool specifics_zero = false;  // rr()
};

bool one_of(std::string_view function, std::initializer_list<std::string_view> names)
{
  return std::find(names.begin(), names.end(), function) != names.end();
}

/// Functions whose starting value is a single number.
bool takes_one_value(std::string_view function)
{
  return one_of(function, {"corb", "corbv", "chol", "cholc", "ante", "sfa", "facv", "mtrnv", "mtrnh"});
}

/// L_READ_REQUEST: finds the model behind the function, its size and its order.
void L_READ_REQUEST(ERROR_HANDLER& eh, const COMPONENT_REQUEST& request, ASKED& asked)
{
  const Frame here{eh, __func__};
  asked.size = request.levels;
  if (request.function.empty()) {
    asked.model = &component_models[request.matrix != nullptr ? grm : iden];
    asked.variances = request.variance ? 1 : 0;
    return;
  }
  const MODEL_REQUEST found = model_request(request.function);
  if (found.model == nullptr) {
    eh.error(text("Cannot PARSE ", request.term));
    return;
  }
  asked.model = found.model;
  asked.by_level = found.qualifier == 2;
  asked.variances = asked.by_level ? asked.size : found.qualifier;
  asked.order = request.order > 0 ? request.order : found.order;
  if (asked.model->selector == rrnk) {
    asked.model = &component_models[xfa];
    asked.specifics_zero = true;
  }
  const auto given = request.init != nullptr ? static_cast<std::int64_t>(request.init->size()) : 0;
  if (asked.model->selector == mat) {
    asked.order = 5;
  } else if (asked.model->rule == ParameterRule::order_to_2 && asked.model->code == 6) {
    asked.order = given == asked.variances + 2 ? 2 : 1;  // a range, or a range and a sill
  } else if (asked.model->rule == ParameterRule::extended) {
    asked.order = std::clamp<std::int64_t>(asked.order, 1, std::max<std::int64_t>(asked.size, 1));
    asked.size += asked.order;
  }
}

/// L_CHECK_LEVELS: warns of a factor with fewer levels than its model is meant for.
void L_CHECK_LEVELS(ERROR_HANDLER& eh, const COMPONENT_REQUEST& request, const ASKED& asked)
{
  const Frame here{eh, __func__};
  const std::int64_t n = request.levels;
  if (n == 1 && asked.model->code > 1) {
    eh.warning(text(request.term, " is expected to have more than 1 level"));
    eh.continuation("change structure to id() or its argument to a factor");
    return;
  }
  // Series, bands and factors reach over `order` levels.
  const bool counts_back =
      asked.model->code == 1 || asked.model->code == 14 || asked.model->code == 2;  // series
  const bool banded =
      asked.model->rule == ParameterRule::bands || asked.model->code == 11 || asked.model->code == 12;
  const bool factors = asked.model->rule == ParameterRule::loadings_and_levels;
  if (n > 1 && (counts_back || banded || factors) && asked.order >= n) {
    eh.warning(text("check characteristics of ", request.term, ", more levels expected"));
  } else if (asked.model->rule == ParameterRule::extended && request.order > n) {
    eh.warning(text("check characteristics of ", request.term, ", more levels expected"));
  }
}

/// The count that a row keeps: correlations of a uniform, banded or general correlation, else the order.
std::int64_t row_order(const ASKED& asked)
{
  return asked.model->code == 5 ? own_parameters(*asked.model, asked.size, asked.order) : asked.order;
}

/// L_USER_VALUES: lays the user's values over the defaults.
void L_USER_VALUES(ERROR_HANDLER& eh, const COMPONENT_REQUEST& request, const ASKED& asked,
                   std::vector<VARIANCE_PARAMETER>& parameters)
{
  const Frame here{eh, __func__};
  const std::vector<double> none;
  const std::vector<double>& arguments = request.arguments != nullptr ? *request.arguments : none;
  std::vector<double> init = request.init != nullptr ? *request.init : none;
  const auto own = static_cast<std::size_t>(parameters.size()) - static_cast<std::size_t>(asked.variances);
  if (asked.model->selector == mat) {
    lay_matern_arguments(arguments, parameters);
    // What is said apart is of the variances: one for all of them, or one each.
    if (init.size() == 1) init.assign(static_cast<std::size_t>(asked.variances), init.front());
    if (!init.empty() && init.size() == static_cast<std::size_t>(asked.variances)) {
      std::vector<double> all;
      for (std::size_t i = 0; i < own; ++i) all.push_back(parameters[i].value);
      all.insert(all.end(), init.begin(), init.end());
      init = std::move(all);
    }
  }
  for (const double x : arguments) init.push_back(x);  // only to see that they are numbers
  const bool finite = std::all_of(init.begin(), init.end(), [](double x) { return std::isfinite(x); });
  init.resize(init.size() - arguments.size());
  if (!finite) {
    eh.error(text("an initial value supplied for ", request.term, " is not a finite number"));
    return;
  }
  const std::size_t supplied = request.init != nullptr ? request.init->size() : 0;
  if (lay_values(*asked.model, asked.size, init, takes_one_value(request.function), parameters)) return;
  eh.error(text("unexpected number of initial values supplied for ", request.term,
                ", number expected = ", parameters.size(), ", number supplied = ", supplied));
}

}  // namespace

void NEWSTR(ERROR_HANDLER& eh, const COMPONENT_REQUEST& request, VARIANCE_MODEL& model,
            std::vector<STRUCTURE_ROW>& rows)
{
  const Frame here{eh, __func__};
  ASKED asked;
  L_READ_REQUEST(eh, request, asked);
  if (eh.terminate()) return;
  L_CHECK_LEVELS(eh, request, asked);
  const bool triangle = asked.model->code == 11 || asked.model->code == 12;
  if (triangle || asked.model->rule == ParameterRule::loadings_and_levels) {
    asked.order = std::min(asked.order, std::max<std::int64_t>(asked.size - 1, 1));
  }

  DEFAULT_BASE from = request.from;
  from.gamma = model.gamma;
  std::vector<VARIANCE_PARAMETER> parameters =
      default_parameters(*asked.model, asked.size, asked.order, asked.variances, from);
  // The variance of a plain term is not reduced, as the one variance of a named model is.
  if ((request.function.empty() && request.variance) || (asked.by_level && asked.variances == 1))
    parameters.back().value = from.base;
  L_USER_VALUES(eh, request, asked, parameters);
  if (eh.terminate()) return;
  if (asked.specifics_zero) {
    for (VARIANCE_PARAMETER& p : parameters) {
      if (p.role != ParamRole::variance) continue;
      p.value = 0.0;
      p.constraint = Constraint::F;
    }
  }
  if (asked.model->code == 6 && asked.order == 2 && asked.model->selector == sph) {
    eh.warning(
        "Kriging Model ISP does not have a smooth Likelihood function because of the range parameter");  // sic
  } else if (asked.model->code == 6 && asked.order == 2 && asked.model->selector == cir) {
    eh.warning(
        "Kriging Model SPH does not have a smooth Likelihood function because of the range parameter");  // sic
  }

  STRUCTURE_ROW row;
  row.size = asked.size;
  // Without a variance of its own a level of rr() is bound to the factors by an equation more.
  if (asked.specifics_zero) row.size += asked.size - asked.order;
  row.parameters = static_cast<std::int64_t>(parameters.size());
  row.model = asked.model->selector == iden && asked.variances > 1 ? 8 : asked.model->code;
  row.first = model.count();
  row.order = row_order(asked);
  row.sub_code = asked.model->sub_code;
  row.selector = asked.model->selector;
  row.factor = request.factor;
  row.matrix = request.matrix;
  if (asked.variances == 1) row.scale = model.count() + row.parameters - 1;
  model.parameters.insert(model.parameters.end(), parameters.begin(), parameters.end());
  rows.push_back(row);
}

}  // namespace tolvan
