// A model of one row with its component, for tests that form it.
#pragma once

#include <memory>
#include <vector>

#include "varstruct/make_component.h"

namespace tolvan {

/// The row's parameters stand in the middle of the table: one before them and one behind are not its own.
struct ONE_ROW {
  VARIANCE_MODEL model;
  STRUCTURE_ROW row;
  std::unique_ptr<COMPONENT_MATRIX> component;
  ERROR_HANDLER eh;

  ONE_ROW(std::int64_t code, std::int64_t levels, std::int64_t order, const std::vector<double>& theta)
  {
    row = {.size = levels,
           .parameters = static_cast<std::int64_t>(theta.size()),
           .model = code,
           .first = 1,
           .order = order};
    model.parameters.resize(theta.size() + 2);
    for (std::size_t k = 0; k < theta.size(); ++k) model.parameters[k + 1].value = theta[k];
    component = make_component(row, model);
  }
  Formed form(std::int64_t iteration = 1, double bend = 0.0)
  {
    FORM_CONTEXT context{
        .eh = eh, .model = model, .row = row, .iteration = iteration, .ar_limit = 0.99, .bend = bend};
    return component->form(context);
  }
  std::vector<double> values() const
  {
    std::vector<double> out;
    for (std::int64_t k = 0; k < row.parameters; ++k)
      out.push_back(model.parameters[static_cast<std::size_t>(row.first + k)].value);
    return out;
  }
};

}  // namespace tolvan
