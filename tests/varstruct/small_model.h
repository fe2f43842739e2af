// Factor and term tables built by hand, for tests of the parameter table.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "base/json.h"
#include "model/term_table.h"
#include "support/checks.h"
#include "varstruct/starting_values.h"

namespace tolvan {

/// A component as a model may write it: "a", or a function on it with its starting values.
struct Component {
  std::string factor;
  std::int64_t levels;
  std::string function = {};
  std::vector<double> init = {};
};

/// A model with a response, the mean and random terms, in the layout of the model parser.
struct SMALL_MODEL {
  FACTOR_TABLE factors;
  TERM_TABLE terms;
  AINV_MTXS matrices;
  VARIANCE_MODEL model;
  FIT_OPTIONS options = FIT_OPTIONS_DEFAULTS();
  std::int64_t records = 24;

  SMALL_MODEL()
  {
    add_factor({.name = "y", .variable = 1, .levels = 1});
    add_factor({.name = "mu", .reserved = Reserved::mu, .is_factor = true, .levels = 1});
    add_factor({.name = "units", .reserved = Reserved::units, .is_factor = true, .levels = records});
    add_term(1, 0, Block::response, "y");
    add_term(2, 1, Block::fixed, "mu");
  }

  std::int64_t add_factor(FACTOR_ROW row)
  {
    factors.rows.push_back(std::move(row));
    return factors.count();
  }

  TERM_ROW& add_term(std::int64_t code, std::int64_t equations, Block block, std::string name)
  {
    TERM_ROW term;
    term.code = static_cast<std::int32_t>(code);
    term.equations = equations;
    term.first = terms.equations;
    term.block = block;
    term.name = std::move(name);
    terms.equations += equations;
    if (block == Block::fixed) terms.fixed_equations += equations;
    terms.rows.push_back(std::move(term));
    return terms.rows.back();
  }

  /// A random term of one or more components.
  TERM_ROW& random(const std::vector<Component>& components)
  {
    std::int64_t equations = 1, first = 0;
    std::string name;
    for (const Component& c : components) {
      FACTOR_ROW row{
          .name = c.factor, .is_factor = true, .levels = c.levels, .structure = c.function, .init = c.init};
      if (!c.function.empty()) row.name = c.function + "(" + c.factor + ")";
      if (!name.empty()) name += ":";
      name += row.name;
      equations *= c.levels;
      const std::int64_t at = add_factor(row);
      if (first == 0) first = at;
    }
    const auto n = static_cast<std::int64_t>(components.size());
    return add_term(n == 1 ? first : n * 10000 + first, equations, Block::random, name);
  }

  /// The residual of a model without a residual term, as it stands before the structures are set up.
  RESIDUAL_MODEL units_residual() const
  {
    RESIDUAL_MODEL residual;
    residual.is_default = true;
    residual.gamma = options(Slot::varscale) <= 0;
    residual.sections.push_back({.components = {{.factor = 3, .size = records}}, .records = records});
    return residual;
  }

  /// Structures and labels.
  void set_up(ERROR_HANDLER& eh, double variance = 4.0)
  {
    SETSTR(eh, options, factors, terms, matrices, {variance, -0.000919191}, units_residual(), model);
    if (!eh.terminate()) VARIABLE_TABLE_GUTS(eh, factors, terms, model);
  }

  DESIGN_MTX design() const
  {
    DESIGN_MTX d;
    d.start.assign(static_cast<std::size_t>(records) + 1, 0);
    return d;
  }
};

inline std::unique_ptr<JsonNode> json(std::string_view s)
{
  JsonError error;
  auto node = parse_json(s, error);
  EXPECT_TRUE(node != nullptr) << error.message << " in " << s;
  return node;
}

}  // namespace tolvan
