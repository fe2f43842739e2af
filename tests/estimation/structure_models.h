// Small models of every kind of structure, in the engine's tables and as dense matrices.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "estimation/evaluation.h"
#include "oracle/dense_reml.h"
#include "relmat/invert_dense.h"
#include "relmat/lagrangian_rows.h"
#include "relmat/structure_matrices.h"

namespace tolvan::test {

using tolvan_test::Matrix;

/// One component: its codes, its levels and its parameters.
struct Part {
  std::int64_t selector, code, levels;
  std::vector<double> values;
  std::int64_t order = 1;
  std::int64_t sub_code = 0;
  std::vector<double> x = {};  // coordinates of a metric model
  std::int64_t with_data = 0;  // the first so many levels have data; 0: all
  const AINV_MTX* matrix = nullptr;
  std::vector<double> y = {};  // the second dimension of a metric model
};

/// A model: random products, and the residual by sections; extra_scale adds a variance outside each section's rows.
struct Case {
  const char* name;
  std::vector<std::vector<Part>> random;
  std::vector<std::vector<Part>> residual;
  bool weights = false;
  bool extra_scale = false;
  int fixed_levels = 3;
  int missing = 0;
  bool gamma = false;  // variances as ratios to a profiled one, the last parameter
};

struct Built {
  TERM_TABLE terms;
  FACTOR_TABLE factors;
  VARIABLE_TABLE variables;
  DESIGN_MTX design;
  VARIANCE_MODEL model;
  FIT_OPTIONS options;
  TIMING_STORE timing;
  Matrix x;
  std::vector<Matrix> z;
};

inline STRUCTURE_ROW row_of(const Part& part, Built& b)
{
  STRUCTURE_ROW row;
  row.size = part.levels;
  row.parameters = static_cast<std::int64_t>(part.values.size());
  row.model = part.code;
  row.selector = part.selector;
  row.order = part.order;
  row.sub_code = part.sub_code;
  row.first = b.model.count();
  row.matrix = part.matrix;
  if (!part.x.empty()) {
    row.coordinates = static_cast<std::int64_t>(b.model.coordinates.size());
    b.model.coordinates.push_back({part.x, part.y});
  }
  for (const double v : part.values) {
    // A zero is a structural one and stays.
    b.model.parameters.push_back({.value = v,
                                  .start = v,
                                  .constraint = v == 0.0 ? Constraint::F : Constraint::P,
                                  .label = "p" + std::to_string(b.model.count())});
  }
  return row;
}

inline Built build(const Case& c, unsigned seed)
{
  std::mt19937_64 gen(seed);
  std::normal_distribution<double> normal;
  Built b;
  b.model.gamma = b.model.profiled = c.gamma;
  b.options(RealSlot::arlimit) = 0.95;
  std::int64_t next = 0;
  const auto term = [&](std::string name, std::int64_t equations, Block block) {
    TERM_ROW row;
    row.code = static_cast<std::int32_t>(b.terms.rows.size() + 1);
    row.equations = equations;
    row.first = next;
    row.block = block;
    row.name = std::move(name);
    next += equations;
    b.terms.rows.push_back(row);
  };
  term("mu", 1, Block::fixed);
  term("f", c.fixed_levels, Block::fixed);
  b.terms.fixed_equations = next;
  for (const auto& product : c.random) {
    TERM_STRUCTURE structure;
    structure.term = static_cast<std::int64_t>(b.terms.rows.size());
    structure.first_row = static_cast<std::int64_t>(b.model.rows.size());
    structure.rows = static_cast<std::int64_t>(product.size());
    std::int64_t size = 1;
    for (const Part& part : product) {
      b.model.rows.push_back(row_of(part, b));
      size *= part.levels;
    }
    b.model.terms.push_back(structure);
    term("r", size, Block::random);
  }
  std::int64_t records = 0;
  for (const auto& product : c.residual) {
    RESIDUAL_SECTION section;
    section.first_row = static_cast<std::int64_t>(b.model.residual.size());
    section.rows = static_cast<std::int64_t>(product.size());
    section.first_record = records;
    section.records = 1;
    for (const Part& part : product) {
      b.model.residual.push_back(row_of(part, b));
      section.records *= part.levels;
    }
    if (c.extra_scale) {
      section.scale = b.model.count();
      const double v = 1.4 + 0.3 * static_cast<double>(b.model.sections.size());
      b.model.parameters.push_back({.value = v, .start = v, .label = "scale"});
      if (c.residual.size() == 1) b.model.residual_parameter = section.scale;
    }
    records += section.records;
    b.model.sections.push_back(section);
  }
  if (c.residual.size() == 1 && b.model.residual_parameter < 0) {
    for (const STRUCTURE_ROW& row : b.model.residual) {
      if (row.model == 0 && row.parameters == 1) b.model.residual_parameter = row.first;
    }
  }
  if (c.missing > 0) {
    term("mv_estimates", c.missing, Block::sparse);
    b.terms.rows.back().is_mv = true;
  }
  b.terms.equations = next;

  const auto n = static_cast<std::size_t>(records);
  const std::size_t fixed = static_cast<std::size_t>(1 + c.fixed_levels);
  b.x = Matrix(n, fixed + static_cast<std::size_t>(c.missing));
  for (std::size_t t = 0; t < c.random.size(); ++t) b.z.emplace_back(n, static_cast<std::size_t>(b.terms.rows[2 + t].equations));
  std::int64_t missing = 0;
  for (std::size_t r = 0; r < n; ++r) {
    const auto put = [&](std::int64_t equation, double value) {
      b.design.equation.push_back(static_cast<std::int32_t>(equation));
      b.design.value.push_back(value);
    };
    put(0, 1.0);
    b.x(r, 0) = 1.0;
    const auto level = static_cast<std::int64_t>(gen() % static_cast<unsigned>(c.fixed_levels));
    put(1 + level, 1.0);
    b.x(r, static_cast<std::size_t>(1 + level)) = 1.0;
    double y = 5.0 + 0.4 * static_cast<double>(level) + 1.3 * normal(gen);
    for (std::size_t t = 0; t < c.random.size(); ++t) {
      const TERM_ROW& row = b.terms.rows[2 + t];
      // A level of every component, slowest first; extra effects of a factor model have no data.
      std::int64_t at = 0;
      for (const Part& part : c.random[t]) {
        const std::int64_t levels = part.with_data > 0 ? part.with_data : part.levels;
        at = at * part.levels + static_cast<std::int64_t>(gen() % static_cast<unsigned>(levels));
      }
      const double value = t % 2 == 0 ? 1.0 : 0.5 + 0.1 * static_cast<double>(r % 7);
      put(row.first + at, value);
      b.z[t](r, static_cast<std::size_t>(at)) = value;
      y += value * std::sin(1.7 * static_cast<double>(at));
    }
    if (missing < c.missing && r % 5 == 3) {
      put(b.terms.rows.back().first + missing, -1.0);
      b.x(r, fixed + static_cast<std::size_t>(missing)) = -1.0;
      b.design.mv.push_back(static_cast<std::int64_t>(r));
      ++missing;
      y = 0.0;
    }
    b.design.start.push_back(static_cast<std::int64_t>(b.design.equation.size()));
    b.design.record.push_back(static_cast<std::int64_t>(r) + 1);
    b.design.response.push_back(y);
    const double w = 0.5 + static_cast<double>(gen() % 100) / 50.0;
    if (c.weights) b.design.weight.push_back(w);
  }
  b.design.data_records = records;
  return b;
}

/// The direct product of the components' covariances.
inline Matrix product_of(const COMPONENTS& components)
{
  Matrix product(1, 1);
  product(0, 0) = 1.0;
  for (const auto& component : components) {
    const auto n = static_cast<std::size_t>(component->inverse().n);
    std::vector<double> r(n * n);
    component->covariance(r.data());
    Matrix larger(product.rows * n, product.rows * n);
    for (std::size_t i = 0; i < larger.rows; ++i) {
      for (std::size_t j = 0; j < larger.rows; ++j) larger(i, j) = product(i / n, j / n) * r[i % n + (j % n) * n];
    }
    product = larger;
  }
  return product;
}

/// V at given parameter values.
inline Matrix variance_of(const Built& b, VARIANCE_MODEL model)
{
  ERROR_HANDLER eh;
  FORMED formed;
  std::int64_t fault = 0;
  K4MVSF(eh, b.options, b.terms, model, 1, formed, fault);
  EXPECT_EQ(fault, 0) << eh.EH_PRINT_TEXT();
  const std::size_t n = b.x.rows;
  Matrix v(n, n);
  for (std::size_t t = 0; t < b.z.size(); ++t) {
    const Matrix zgz = b.z[t] * product_of(formed.terms[t].components) * transpose(b.z[t]);
    for (std::size_t k = 0; k < v.a.size(); ++k) v.a[k] += zgz.a[k];
  }
  for (const FORMED_SECTION& section : formed.sections) {
    const Matrix r = product_of(section.components);
    const auto from = static_cast<std::size_t>(section.first);
    for (std::size_t i = 0; i < r.rows; ++i) {
      for (std::size_t j = 0; j < r.rows; ++j) {
        const double w = b.design.weight.empty() ? 1.0 : std::sqrt(b.design.weight[from + i] * b.design.weight[from + j]);
        v(from + i, from + j) += section.scale * r(i, j) / w;
      }
    }
  }
  return v;
}

/// The inverse relationship matrix of nine animals (Henderson 1976), inbreeding left out: two founders, their line, an outsider.
inline const AINV_MTX& nine_animals()
{
  static const AINV_MTX matrix = [] {
    const std::vector<std::pair<int, int>> parents{{-1, -1}, {-1, -1}, {0, 1}, {0, 1}, {2, -1}, {2, 3}, {-1, -1}, {5, 6}, {5, 6}};
    const std::size_t n = parents.size();
    Matrix a(n, n);
    AINV_MTX m;
    for (std::size_t i = 0; i < n; ++i) {
      const auto [sire, dam] = parents[i];
      const double d = 1.0 - (sire >= 0 ? 0.25 : 0.0) - (dam >= 0 ? 0.25 : 0.0);
      m.log_determinant += std::log(d);
      std::vector<std::pair<int, double>> line{{static_cast<int>(i), 1.0}};
      if (sire >= 0) line.emplace_back(sire, -0.5);
      if (dam >= 0) line.emplace_back(dam, -0.5);
      for (const auto& [r, x] : line) {
        for (const auto& [c, z] : line) a(static_cast<std::size_t>(r), static_cast<std::size_t>(c)) += x * z / d;
      }
    }
    m.order = static_cast<std::int64_t>(n);
    m.pedigree = true;
    m.start.push_back(0);
    for (std::size_t j = 0; j < n; ++j) {
      for (std::size_t i = j; i < n; ++i) {
        if (a(i, j) == 0.0) continue;
        m.row.push_back(static_cast<std::int32_t>(i));
        m.values.push_back(a(i, j));
      }
      m.start.push_back(static_cast<std::int64_t>(m.row.size()));
    }
    return m;
  }();
  return matrix;
}

/// The inverse relationship matrix of nine animals whose unknown parents are in two fixed groups, the first levels (Quaas 1988).
inline const AINV_MTX& grouped_animals()
{
  static const AINV_MTX matrix = [] {
    const std::vector<std::pair<int, int>> parents{{0, 0}, {0, 1}, {2, 3}, {2, 3}, {4, 1}, {4, 5}, {1, 1}, {7, 8}, {7, 8}};
    const std::size_t n = parents.size() + 2;
    Matrix a(n, n);
    AINV_MTX m;
    for (std::size_t i = 2; i < n; ++i) {
      const auto [sire, dam] = parents[i - 2];
      const double d = 1.0 - (sire >= 2 ? 0.25 : 0.0) - (dam >= 2 ? 0.25 : 0.0);
      m.log_determinant += std::log(d);
      const std::pair<int, double> line[] = {{static_cast<int>(i), 1.0}, {sire, -0.5}, {dam, -0.5}};
      for (const auto& [r, x] : line) {
        for (const auto& [c, z] : line) a(static_cast<std::size_t>(r), static_cast<std::size_t>(c)) += x * z / d;
      }
    }
    m.order = static_cast<std::int64_t>(n);
    m.groups = m.absent = 2;
    m.pedigree = true;
    m.start.push_back(0);
    for (std::size_t j = 0; j < n; ++j) {
      for (std::size_t i = j; i < n; ++i) {
        if (i != j && a(i, j) == 0.0) continue;
        m.row.push_back(static_cast<std::int32_t>(i));
        m.values.push_back(a(i, j));
      }
      m.start.push_back(static_cast<std::int64_t>(m.row.size()));
    }
    return m;
  }();
  return matrix;
}

/// The inverse of a covariance matrix of six levels and rank four, with two Lagrangian rows; mixed: these are combined, so that each
/// binds both levels.
inline const AINV_MTX& six_of_rank_four(bool mixed)
{
  const auto make = [](bool mix) {
    constexpr std::size_t n = 6;
    std::mt19937_64 gen(11);
    std::normal_distribution<double> normal;
    Matrix l(n, 4);
    for (double& x : l.a) x = normal(gen);
    AINV_MTX m;
    m.values = (l * transpose(l)).a;
    PIVOTS pivots;
    ERROR_HANDLER eh;
    K4MSMISG(eh, n, m.values, 0, false, pivots, m.bound);
    m.shape = Shape::dense;
    m.lagrangian = static_cast<std::int64_t>(m.bound.size());
    m.order = static_cast<std::int64_t>(n) + m.lagrangian;
    m.log_determinant = pivots.log_determinant - (mix ? 2.0 * std::log(3.0) : 0.0);  // of the whole inverse, bindings included
    const auto order = static_cast<std::size_t>(m.order);
    for (std::size_t j = 0; mix && j < n; ++j) {
      const double a = m.values[n + j * order], b = m.values[n + 1 + j * order];
      m.values[n + j * order] = m.values[j + n * order] = a + b;
      m.values[n + 1 + j * order] = m.values[j + (n + 1) * order] = a - 2.0 * b;
    }
    L_STRENGTHEN(eh, m);
    return m;
  };
  static const AINV_MTX plain = make(false);
  static const AINV_MTX combined = make(true);
  return mixed ? combined : plain;
}

inline const std::vector<Case> cases = {
    {"two variances, two sections", {{{0, 0, 6, {0.7}}}}, {{{0, 0, 20, {1.1}}}, {{0, 0, 17, {2.3}}}}},
    {"sections scaled from outside, weights", {{{0, 0, 4, {}}, {0, 0, 3, {0.6}}}}, {{{0, 0, 20, {}}}, {{0, 0, 17, {}}}}, true, true},
    {"missing responses in one section", {{{0, 0, 6, {0.7}}}}, {{{0, 0, 20, {1.1}}}, {{0, 0, 17, {2.3}}}}, false, false, 3, 4},
    {"ar1 by ar1 with a scale, and a nugget", {{{0, 0, 40, {0.3}}}}, {{{1, 1, 5, {0.4}}, {1, 1, 8, {0.6}}}}, false, true},
    {"ar1v by ar2, weights, missing cells", {{{0, 0, 6, {0.7}}}}, {{{1, 1, 5, {0.4, 1.3}}, {1, 1, 8, {0.5, 0.2}, 2}}}, true, false, 3, 5},
    {"sections of series and of variances by level",
     {{{0, 0, 6, {0.7}}}},
     {{{1, 1, 4, {0.4}}, {1, 1, 6, {-0.3}}}, {{0, 0, 5, {}}, {4, 5, 4, {0.3, 0.8, 1.1, 1.4, 0.6}}}},
     false, true},
    {"a section of a series beside one of equal variances",
     {{{0, 0, 6, {0.7}}}, {{1, 1, 4, {0.3, 0.5}}}},
     {{{1, 1, 24, {0.4}}}, {{0, 0, 5, {}}, {0, 0, 6, {}}}},
     true, true},
    {"general correlations in a random product, powers of distances in the residual",
     {{{6, 5, 3, {0.3, 0.2, -0.4, 0.5, 0.9, 1.4}}, {0, 0, 7, {}}}, {{1, 1, 9, {0.5, 0.8}}}},
     {{{0, 0, 8, {}}, {10, 6, 5, {0.6, 1.2}, 1, 1, {0.0, 1.0, 2.5, 3.0, 4.7}}}}},
    {"variances by level, and an unstructured residual of two traits",
     {{{24, 8, 3, {0.5, 0.9, 1.4}}, {0, 0, 8, {}}}},
     {{{0, 0, 24, {}}, {25, 9, 2, {1.2, 0.4, 0.9}}}},
     false, false, 3, 3},
    {"unstructured by a series", {{{25, 9, 3, {1.0, 0.3, 0.8, -0.2, 0.1, 1.3}}, {1, 1, 4, {0.4}}}}, {{{0, 0, 50, {1.1}}}}},
    {"factors on the correlation and on the covariance scale",
     {{{26, 10, 3, {0.6, 0.5, 0.7, 0.9, 1.2, 0.8}}, {0, 0, 6, {}}}, {{29, 13, 3, {0.7, 0.5, 0.9, 0.3, 0.4, 0.2}}, {0, 0, 5, {}}}},
     {{{0, 0, 60, {1.1}}}}},
    {"Cholesky and antedependence factors",
     {{{27, 11, 3, {0.9, 0.4, 0.7, 0.2, -0.3, 1.1}, 2}, {0, 0, 6, {}}}},
     {{{0, 0, 12, {}}, {28, 12, 4, {0.8, -0.5, 1.1, 0.0, -0.4, 0.9, 0.0, 0.0, -0.3, 1.2}}}}},
    {"factor effects", {{{31, 15, 5, {0.3, 0.4, 0.2, 0.8, 0.5, 0.9}, 1, 0, {}, 4}, {0, 0, 8, {}}}}, {{{0, 0, 60, {1.1}}}}},
    {"factor effects, two levels without a variance of their own",
     {{{31, 15, 6, {0.3, 0.0, 0.0, 0.8, 0.5, 0.9}, 1, 0, {}, 3}, {0, 0, 9, {}}}},
     {{{0, 0, 40, {1.1}}}}},
    {"two factors, no variances of their own, by a series",
     {{{31, 15, 8, {0.0, 0.0, 0.0, 0.8, 0.5, 0.9, 0.3, -0.4, 0.2}, 2, 0, {}, 3}, {1, 1, 6, {0.5}}}},
     {{{0, 0, 40, {1.1}}}}},
    {"a product of three random components",
     {{{1, 1, 3, {0.4}}, {4, 5, 2, {0.3}}, {1, 1, 4, {0.2, 0.7}}}},
     {{{0, 0, 45, {1.1}}}}},
    {"relationships of nine animals, seven with records, and a plot each",
     {{{33, -1, 9, {0.8}, 1, 0, {}, 7, &nine_animals()}}, {{0, 0, 6, {0.4}}}},
     {{{0, 0, 40, {1.2}}}}, true},
    {"two traits of related animals",
     {{{25, 9, 2, {0.9, 0.3, 0.6}}, {33, -1, 9, {}, 1, 0, {}, 0, &nine_animals()}}},
     {{{0, 0, 20, {}}, {25, 9, 2, {1.2, 0.4, 0.9}}}}, false, false, 3, 4},
    {"a singular matrix", {{{33, -1, 8, {0.8}, 1, 0, {}, 6, &six_of_rank_four(false)}}, {{0, 0, 6, {0.4}}}}, {{{0, 0, 40, {1.2}}}}, true},
    {"a series by a singular matrix, its bindings combined",
     {{{1, 1, 4, {0.4}}, {33, -1, 8, {0.8}, 1, 0, {}, 6, &six_of_rank_four(true)}}},
     {{{0, 0, 20, {}}, {25, 9, 2, {1.2, 0.4, 0.9}}}}},
    {"a factor by related animals, no variances of their own",
     {{{31, 15, 7, {0.0, 0.0, 0.0, 0.8, 0.5, 0.9}, 1, 0, {}, 3}, {33, -1, 9, {}, 1, 0, {}, 0, &nine_animals()}}},
     {{{0, 0, 60, {1.1}}}}},
    {"a factor by a singular matrix, no variances of their own",
     {{{31, 15, 7, {0.0, 0.0, 0.0, 0.8, 0.5, 0.9}, 1, 0, {}, 3}, {33, -1, 8, {}, 1, 0, {}, 6, &six_of_rank_four(false)}}},
     {{{0, 0, 60, {1.1}}}}},
    {"ratios to a profiled variance, with weights", {{{0, 0, 6, {0.7}}}, {{1, 1, 5, {0.4, 0.3}}}}, {{{0, 0, 40, {1.0}}}}, true, false, 3, 0, true},
};

}  // namespace tolvan::test
