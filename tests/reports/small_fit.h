// A fit of one random term with made-up results, for tests of its tables.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "data/design_matrix.h"
#include "data/variable_table.h"
#include "estimation/fit_state.h"
#include "model/term_table.h"
#include "varstruct/parameter_table.h"

namespace tolvan {

/// mu, x fixed; block random; m sparse; mv.  Six data records: the third was dropped, the fifth is estimated.
struct SMALL_FIT {
  VARIABLE_TABLE variables;
  FACTOR_TABLE factors;
  TERM_TABLE terms;
  DESIGN_MTX design;
  VARIANCE_MODEL model;
  FIT_STATE fit;

  SMALL_FIT()
  {
    VARIABLE block;
    block.name = "block";
    block.type = FieldType::string_factor;
    block.levels = 2;
    block.labels.find_or_add("north");
    block.labels.find_or_add("south");
    VARIABLE m;
    m.name = "m";
    m.type = FieldType::integer_factor_1_to_n;
    m.levels = 2;
    VARIABLE x, y;
    x.name = "x";
    y.name = "y";
    variables.rows = {block, m, x, y};
    factors.rows = {
        {.name = "block", .variable = 1, .is_factor = true, .levels = 2},
        {.name = "m", .variable = 2, .is_factor = true, .levels = 2},
        {.name = "x", .variable = 3, .levels = 1},
        {.name = "y", .variable = 4, .levels = 1},
        {.name = "mu", .reserved = Reserved::mu, .levels = 1},
        {.name = "units", .reserved = Reserved::units, .is_factor = true, .levels = 5},
        {.name = "mv", .reserved = Reserved::mv, .is_factor = true, .levels = 1},
    };
    add_term(4, 0, Block::response, "y");
    add_term(5, 1, Block::fixed, "mu");
    add_term(3, 1, Block::fixed, "x");
    add_term(1, 2, Block::random, "block");
    add_term(2, 2, Block::sparse, "m");
    add_term(7, 1, Block::sparse, "mv_estimates");
    terms.rows.back().is_mv = true;

    design.record = {1, 2, 4, 5, 6};
    design.data_records = 6;
    design.mv = {3};

    VARIANCE_PARAMETER b, e;
    b.label = "block;IDV_V";
    b.value = 0.25;
    e.label = "units;IDV_V";
    e.value = 1.0;
    e.type = ParamType::V;
    model.parameters = {b, e};
    model.residual_parameter = 1;
    model.residual.resize(1);

    fit.usable = true;
    fit.end = FitEnd::converged;
    fit.logl = -12.5;
    fit.sigma2 = 4.0;
    fit.df = 3;
    fit.log_det_c = 7.25;
    fit.evaluated = {0.25, 1.0};
    fit.sigma = {1.0, 4.0};
    fit.covariance = {0.25, -0.5, 4.0};
    fit.bound = {'P', 'P'};
    fit.parameters_estimated = 2;
    fit.aic = 29.0;
    fit.bic = 27.197;
    fit.solution = {10.0, 2.0, -1.0, 1.0, 0.5, 0.0, 11.5};
    fit.se = {1.0, 0.5, 0.75, 0.75, 0.25, 0.0, 2.5};
    fit.fitted = {9.5, 10.5, 11.0, 12.0, 8.0};
    fit.residual = {0.5, -0.5, 0.0, -1e-37, 1.0};
    fit.hat = {0.25, 0.5, 0.75, 1.0, 0.125};
    for (const double g : {0.1, 0.2, 0.25}) {
      ITERATION_ROW row;
      row.iteration = static_cast<std::int64_t>(fit.trace.size()) + 1;
      row.logl = -14.0 + static_cast<double>(row.iteration) * 0.5;
      row.sigma2 = 5.0;
      row.df = 3;
      row.seconds = 0.5;
      row.largest_change = 0.125;
      row.gammas = {g, 1.0};
      fit.trace.push_back(row);
    }
  }

  void add_term(std::int32_t code, std::int64_t equations, Block block, std::string name)
  {
    TERM_ROW term;
    term.code = code;
    term.equations = equations;
    term.first = terms.equations;
    term.block = block;
    term.name = std::move(name);
    terms.equations += equations;
    terms.rows.push_back(term);
  }
};

}  // namespace tolvan
