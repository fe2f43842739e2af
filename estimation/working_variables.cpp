// Working variables and the average-information matrix.  Routines: K4MWVG, K4MWVR, K4MWVA.
#include <algorithm>
#include <cmath>

#include "estimation/evaluation.h"

namespace tolvan {
namespace {

/// The column of a parameter among the active ones, -1 when it is not active.
std::ptrdiff_t column_of(const INFORMATION& information, std::int64_t parameter)
{
  const auto& active = information.active;
  const auto at = std::lower_bound(active.begin(), active.end(), parameter);
  return at != active.end() && *at == parameter ? at - active.begin() : std::ptrdiff_t{-1};
}

double dot(std::size_t n, const double* x, const double* y)
{
  double sum = 0.0;
  for (std::size_t i = 0; i < n; ++i) sum += x[i] * y[i];
  return sum;
}

/// sum of x y d.
double dot(std::size_t n, const double* x, const double* y, const double* d)
{
  double sum = 0.0;
  for (std::size_t i = 0; i < n; ++i) sum += x[i] * y[i] * d[i];
  return sum;
}

}  // namespace

void K4MWVG(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& q, const EVALUATION& ev,
            WORKING_VARIABLES& working)
{
  const Frame here{eh, __func__};
  const auto n = static_cast<std::size_t>(q.n);
  const auto k = static_cast<std::size_t>(ev.information.count());
  working.alpha.assign(k, 0.0);
  working.a.assign(n * k, 0.0);
  working.data.clear();
  working.f.clear();
  const std::ptrdiff_t residual = model.profiled ? column_of(ev.information, model.residual_parameter) : -1;
  std::vector<double> u;
  std::vector<double> w;
  for (std::size_t t = 0; t < model.terms.size(); ++t) {
    const TERM_STRUCTURE& structure = model.terms[t];
    if (structure.dropped) continue;
    const std::int64_t first = first_equation(in.terms, structure);
    const COMPONENTS& components = ev.formed.terms[t].components;
    u.resize(static_cast<std::size_t>(q.random[t].size()));
    w.resize(u.size());
    gather_effects(q, first, ev.solution.data(), u);
    if (residual >= 0) scatter_effects(q, first, u, working.a.data() + static_cast<std::size_t>(residual) * n);
    for (std::size_t c = 0; c < components.size(); ++c) {
      const STRUCTURE_ROW& row = model.rows[static_cast<std::size_t>(structure.first_row) + c];
      const PRODUCT_BLOCK block = block_of(components, c);
      for (std::int64_t i = 0; i < row.parameters; ++i) {
        const std::ptrdiff_t column = column_of(ev.information, row.first + i);
        if (column < 0) continue;
        components[c]->working(i, u.data(), w.data(), block.outer, block.inner);
        scatter_effects(q, first, w, working.a.data() + static_cast<std::size_t>(column) * n);
      }
    }
  }
}

void K4MWVR(ERROR_HANDLER& eh, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& q, const EVALUATION& ev, WORKING_VARIABLES& working)
{
  const Frame here{eh, __func__};
  const std::size_t rows = ev.residual.size();
  const auto whole = [&](std::int64_t parameter, double v) {  // a variance of the whole residual
    const std::ptrdiff_t column = column_of(ev.information, parameter);
    if (column >= 0) working.alpha[static_cast<std::size_t>(column)] = 1.0 / v;
  };
  if (model.profiled) whole(model.residual_parameter, 1.0);
  if (q.residual.empty()) {
    if (!model.profiled && model.residual_parameter >= 0) {
      whole(model.residual_parameter, ev.evaluated[static_cast<std::size_t>(model.residual_parameter)]);
    }
    return;
  }
  const auto root_weight = [&](std::size_t r) { return q.residual.root_weight.empty() ? 1.0 : q.residual.root_weight[r]; };
  std::vector<double> e;
  std::vector<double> w;
  const auto take = [&](std::ptrdiff_t column, const RESIDUAL_SECTION& section, const std::vector<double>& part) {
    working.data.push_back(column);
    const std::size_t from = working.f.size();
    working.f.resize(from + rows, 0.0);
    for (std::size_t i = 0; i < part.size(); ++i) {
      const std::size_t r = static_cast<std::size_t>(section.first_record) + i;
      const double rw = root_weight(r);
      working.f[from + r] = rw > 0.0 ? part[i] / rw : 0.0;
    }
  };
  for (std::size_t s = 0; s < model.sections.size(); ++s) {
    const RESIDUAL_SECTION& section = model.sections[s];
    const FORMED_SECTION& formed = ev.formed.sections[s];
    e.resize(static_cast<std::size_t>(formed.records));
    w.resize(e.size());
    for (std::size_t i = 0; i < e.size(); ++i) {
      const std::size_t r = static_cast<std::size_t>(section.first_record) + i;
      e[i] = root_weight(r) * ev.residual[r];
    }
    for (std::size_t c = 0; c < formed.components.size(); ++c) {
      const STRUCTURE_ROW& row = model.residual[static_cast<std::size_t>(section.first_row) + c];
      const PRODUCT_BLOCK block = block_of(formed.components, c);
      for (std::int64_t i = 0; i < row.parameters; ++i) {
        const std::ptrdiff_t column = column_of(ev.information, row.first + i);
        if (column < 0 || (model.profiled && row.first + i == model.residual_parameter)) continue;
        formed.components[c]->working(i, e.data(), w.data(), block.outer, block.inner);
        take(column, section, w);
      }
    }
    const std::ptrdiff_t column = section.scale < 0 ? -1 : column_of(ev.information, section.scale);
    if (column < 0 || (model.profiled && section.scale == model.residual_parameter)) continue;
    if (model.sections.size() == 1) {
      whole(section.scale, formed.scale);
      continue;
    }
    for (std::size_t i = 0; i < e.size(); ++i) w[i] = e[i] / formed.scale;
    take(column, section, w);
  }
}

void K4MWVA(ERROR_HANDLER& eh, const FIT_MODEL& in, const MIXED_EQUATIONS& q, const WORKING_VARIABLES& working, int threads,
            EVALUATION& ev)
{
  const Frame here{eh, __func__};
  const Timed timed{in.timing, "K4MWVA", "K4MITR"};
  const auto n = static_cast<std::size_t>(q.n);
  const auto k = static_cast<std::size_t>(ev.information.count());
  const std::size_t rows = ev.residual.size();
  const double* g = ev.random_part.data();  // W'R^-1 e
  ev.information.ai.assign(k * (k + 1) / 2, 0.0);
  const auto ai = [&](std::size_t i, std::size_t j) -> double& {
    return ev.information.ai[i >= j ? i * (i + 1) / 2 + j : j * (j + 1) / 2 + i];
  };

  // b_i = W'R^-1 w_i = alpha_i g + C_R a_i + W'R^-1 f_i and the corner w_i'R^-1 w_j.
  std::vector<double> b(n * k);
  multiply_residual_part(q, working.a.data(), b.data(), static_cast<std::int64_t>(k));
  std::vector<double> ga(k);  // e'R^-1 W a_i
  for (std::size_t i = 0; i < k; ++i) ga[i] = dot(n, g, working.a.data() + i * n);
  for (std::size_t i = 0; i < k; ++i) {
    for (std::size_t j = 0; j <= i; ++j) {
      ai(i, j) = working.alpha[i] * working.alpha[j] * ev.residual_square + working.alpha[i] * ga[j] + working.alpha[j] * ga[i] +
                 dot(n, working.a.data() + i * n, b.data() + j * n);
    }
  }
  std::vector<double> rf(rows);   // R^-1 f_i
  std::vector<double> wrf(n);     // W'R^-1 f_i
  for (std::size_t d = 0; d < working.data.size(); ++d) {
    const auto i = static_cast<std::size_t>(working.data[d]);
    multiply_residual_inverse(q.residual, working.f.data() + d * rows, rf.data());
    for (std::size_t p = 0; p < n; ++p) {
      double sum = 0.0;
      for (auto m = static_cast<std::size_t>(q.columns.start[p]); m < static_cast<std::size_t>(q.columns.start[p + 1]); ++m) {
        sum += q.columns.value[m] * rf[static_cast<std::size_t>(q.columns.record[m])];
      }
      wrf[p] = sum;
      b[i * n + p] += sum;
    }
    const double ef = dot(rows, ev.residual.data(), rf.data());
    for (std::size_t j = 0; j < k; ++j) {
      const double cross = working.alpha[j] * ef + dot(n, wrf.data(), working.a.data() + j * n);
      ai(i, j) += i == j ? 2.0 * cross : cross;
    }
    for (std::size_t o = 0; o <= d; ++o) {
      ai(i, static_cast<std::size_t>(working.data[o])) += dot(rows, rf.data(), working.f.data() + o * rows);
    }
  }
  for (std::size_t i = 0; i < k; ++i) {
    if (working.alpha[i] == 0.0) continue;
    for (std::size_t p = 0; p < n; ++p) b[i * n + p] += working.alpha[i] * g[p];
  }

  // w_i'P w_j = w_i'R^-1 w_j - (L^-1 b_i)' D^-1 (L^-1 b_j): the forward sweep alone.
  SMIFWD(q.factor, b.data(), static_cast<std::int64_t>(k), threads);
  for (std::size_t i = 0; i < k; ++i) {
    for (std::size_t j = 0; j <= i; ++j) {
      const double sum = dot(n, b.data() + i * n, b.data() + j * n, q.factor.reciprocal.data());
      ai(i, j) = 0.5 * (ai(i, j) - sum) / ev.sigma2;
    }
  }

  // The profiled residual variance: its derivative of V is H = V / s2, on the scale of the ratios y; so its row is
  // divided by s2, its diagonal twice.  Then AI(s2, s2) = nu / (2 s2^2).
  if (ev.information.held_out >= 0) {
    const std::int64_t s = ev.information.held_out;
    ev.information.at(s, s) /= ev.sigma2;
    for (std::int64_t j = 0; j < ev.information.count(); ++j) ev.information.at(s, j) /= ev.sigma2;
  }
}

}  // namespace tolvan
