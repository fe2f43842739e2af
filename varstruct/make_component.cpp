// The table of makers, by model code.
#include "varstruct/make_component.h"

#include <algorithm>
#include <array>
#include <utility>

#include "varstruct/correlation_models.h"
#include "varstruct/covariance_models.h"
#include "varstruct/identity_matrix.h"
#include "varstruct/known_matrix.h"
#include "varstruct/model_catalogue.h"
#include "varstruct/scaled_matrix.h"

namespace tolvan {

namespace {

constexpr std::int64_t extended_code = 15;

using Component = std::unique_ptr<COMPONENT_MATRIX>;

struct MAKER {
  std::int64_t code;  // model code
  Component (*make)(const STRUCTURE_ROW&, const VARIANCE_MODEL&);
};

/// A class that reads all it needs from the row when it is formed.
template <class Model>
Component plain(const STRUCTURE_ROW&, const VARIANCE_MODEL&)
{
  return std::make_unique<Model>();
}

/// A correlation model in the form of its row.
template <CorrelationMaker make_core>
Component in_its_form(const STRUCTURE_ROW& row, const VARIANCE_MODEL& model)
{
  const ROW_PARAMETERS parameters = row_parameters(row);
  Component core = parameters.fit ? make_core(row, model) : nullptr;
  if (core == nullptr || parameters.form == VarianceForm::plain) return core;
  return parameters.form == VarianceForm::one_variance
             ? with_one_variance(std::move(core), parameters.own)
             : with_level_variances(std::move(core), parameters.own);
}

// A model without a row here is refused by whoever asks.
constexpr std::array makers = {
    MAKER{-2, plain<KNOWN_MATRIX>},
    MAKER{-1, plain<KNOWN_MATRIX>},
    MAKER{0, plain<IDENTITY_MATRIX>},
    MAKER{1, in_its_form<make_autoregressive>},   // AR
    MAKER{2, in_its_form<make_moving_average>},   // MA
    MAKER{3, in_its_form<make_moving_average>},   // ARMA
    MAKER{5, in_its_form<make_correlation>},      // CORU, CORB, CORG
    MAKER{6, in_its_form<make_metric>},           // by distance
    MAKER{7, make_own},                           // OWN
    MAKER{8, make_diagonal},                      // DIAG
    MAKER{9, make_unstructured},                  // US
    MAKER{10, make_factor_analytic},              // FA
    MAKER{11, make_cholesky},                     // CHOL
    MAKER{12, make_antedependence},               // ANTE
    MAKER{13, make_factor_analytic},              // FACV
    MAKER{14, in_its_form<make_autoregressive>},  // SAR
    MAKER{15, make_extended_factors},             // XFA
};

}  // namespace

ROW_PARAMETERS row_parameters(const STRUCTURE_ROW& row)
{
  ROW_PARAMETERS out;
  if (row.model == 15) {  // XFA has no other form; its size counts equations beside the levels
    out.own = row.parameters;
    out.fit = row.order > 0 && row.parameters % (row.order + 1) == 0;
    return out;
  }
  const auto selectors = static_cast<std::int64_t>(component_models.size());
  if (row.model > 0 && row.selector >= 0 && row.selector < selectors)
    out.own = own_parameters(component_models[static_cast<std::size_t>(row.selector)], row.size, row.order);
  // All parameters of a factor model with extra effects are its own, whatever rows bind its levels.
  if (row.model == extended_code) out.own = row.parameters;
  const std::int64_t variances = row.parameters - out.own;
  out.form = variances == 0   ? VarianceForm::plain
             : variances == 1 ? VarianceForm::one_variance
                              : VarianceForm::level_variances;
  out.fit = variances == 0 || variances == 1 || variances == row.size;
  return out;
}

Component make_component(const STRUCTURE_ROW& row, const VARIANCE_MODEL& model)
{
  const auto* maker =
      std::find_if(makers.begin(), makers.end(), [&](const MAKER& m) { return m.code == row.model; });
  return maker == makers.end() ? nullptr : maker->make(row, model);
}

}  // namespace tolvan
