// The table of makers, by model code.
#include "varstruct/make_component.h"

#include <algorithm>
#include <array>

#include "varstruct/identity_matrix.h"
#include "varstruct/known_matrix.h"
#include "varstruct/model_catalogue.h"

namespace tolvan {

namespace {

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

// A model without a row here is refused by whoever asks.
constexpr std::array makers = {
    MAKER{-2, plain<KNOWN_MATRIX>},
    MAKER{-1, plain<KNOWN_MATRIX>},
    MAKER{0, plain<IDENTITY_MATRIX>},
};

}  // namespace

ROW_PARAMETERS row_parameters(const STRUCTURE_ROW& row)
{
  ROW_PARAMETERS out;
  const auto selectors = static_cast<std::int64_t>(component_models.size());
  if (row.model > 0 && row.selector >= 0 && row.selector < selectors)
    out.own = own_parameters(component_models[static_cast<std::size_t>(row.selector)], row.size, row.order);
  const std::int64_t variances = row.parameters - out.own;
  out.form = variances == 0   ? VarianceForm::plain
             : variances == 1 ? VarianceForm::one_variance
                              : VarianceForm::level_variances;
  out.fit = variances == 0 || variances == 1 || variances == row.size;
  return out;
}

Component make_component(const STRUCTURE_ROW& row, const VARIANCE_MODEL& model)
{
  const auto* maker = std::find_if(makers.begin(), makers.end(), [&](const MAKER& m) { return m.code == row.model; });
  return maker == makers.end() ? nullptr : maker->make(row, model);
}

}  // namespace tolvan
