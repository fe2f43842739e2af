// Working variables and the average-information matrix.  Routines: K4MWVG, K4MWVR, K4MWVA.
#include <algorithm>
#include <cmath>

#include "base/lapack.h"
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

/// The lower triangle of B'DB by rows, B n x k: by stretches of rows, so that a copy of D B stays small.
std::vector<double> weighted_products(std::size_t n, std::size_t k, const std::vector<double>& b, const std::vector<double>& d)
{
  constexpr std::size_t stretch = 2048;
  std::vector<double> product(k * k, 0.0);
  std::vector<double> db(std::min(stretch, n) * k);
  for (std::size_t from = 0; from < n; from += stretch) {
    const std::size_t rows = std::min(stretch, n - from);
    for (std::size_t j = 0; j < k; ++j) {
      for (std::size_t i = 0; i < rows; ++i) db[j * rows + i] = d[from + i] * b[j * n + from + i];
    }
    const auto m = static_cast<std::int64_t>(rows);
    const auto c = static_cast<std::int64_t>(k);
    dgemm('T', 'N', c, c, m, 1.0, b.data() + from, static_cast<std::int64_t>(n), db.data(), m, 1.0, product.data(), c);
  }
  std::vector<double> packed(k * (k + 1) / 2);
  for (std::size_t i = 0; i < k; ++i) {
    for (std::size_t j = 0; j <= i; ++j) packed[i * (i + 1) / 2 + j] = product[i + j * k];
  }
  return packed;
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
  working.has_a.assign(k, 0);
  working.data.clear();
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
    if (residual >= 0) working.has_a[static_cast<std::size_t>(residual)] = 1;
    if (residual >= 0) scatter_effects(q, first, u, working.a.data() + static_cast<std::size_t>(residual) * n);
    for (std::size_t c = 0; c < components.size(); ++c) {
      const STRUCTURE_ROW& row = model.rows[static_cast<std::size_t>(structure.first_row) + c];
      const PRODUCT_BLOCK block = block_of(components, c);
      for (std::int64_t i = 0; i < row.parameters; ++i) {
        const std::ptrdiff_t column = column_of(ev.information, row.first + i);
        if (column < 0) continue;
        components[c]->working(i, u.data(), w.data(), block.outer, block.inner);
        working.has_a[static_cast<std::size_t>(column)] = 1;
        scatter_effects(q, first, w, working.a.data() + static_cast<std::size_t>(column) * n);
      }
    }
  }
}

void K4MWVR(ERROR_HANDLER& eh, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& q, const EVALUATION& ev, WORKING_VARIABLES& working)
{
  const Frame here{eh, __func__};
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
    WORKING_VARIABLES::DATA_PART& data = working.data.emplace_back(WORKING_VARIABLES::DATA_PART{column, section.first_record, part});
    for (std::size_t i = 0; i < part.size(); ++i) {
      const double rw = root_weight(static_cast<std::size_t>(section.first_record) + i);
      data.f[i] = rw > 0.0 ? part[i] / rw : 0.0;
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
  const double* g = ev.random_part.data();  // W'R^-1 e
  ev.information.ai.assign(k * (k + 1) / 2, 0.0);
  const auto ai = [&](std::size_t i, std::size_t j) -> double& {
    return ev.information.ai[i >= j ? i * (i + 1) / 2 + j : j * (j + 1) / 2 + i];
  };

  // b_i = W'R^-1 w_i = alpha_i g + C_R a_i + W'R^-1 f_i and the corner w_i'R^-1 w_j.
  std::vector<double> b(n * k, 0.0);
  std::vector<double> ga(k, 0.0);  // e'R^-1 W a_i
  for (std::size_t i = 0; i < k; ++i) {
    if (!working.has_a[i]) continue;
    multiply_residual_part(q, working.a.data() + i * n, b.data() + i * n, 1);
    ga[i] = dot(n, g, working.a.data() + i * n);
  }
  for (std::size_t i = 0; i < k; ++i) {
    for (std::size_t j = 0; j <= i; ++j) {
      ai(i, j) = working.alpha[i] * working.alpha[j] * ev.residual_square + working.alpha[i] * ga[j] + working.alpha[j] * ga[i];
      if (working.has_a[i] && working.has_a[j]) ai(i, j) += dot(n, working.a.data() + i * n, b.data() + j * n);
    }
  }
  std::vector<double> rf;      // R^-1 f_i, within its section as f_i is
  std::vector<double> wrf(n);  // W'R^-1 f_i
  for (std::size_t d = 0; d < working.data.size(); ++d) {
    const WORKING_VARIABLES::DATA_PART& part = working.data[d];
    const auto i = static_cast<std::size_t>(part.parameter);
    const auto first = static_cast<std::size_t>(part.first);
    rf.resize(part.f.size());
    std::fill(wrf.begin(), wrf.end(), 0.0);
    double ef = 0.0;
    for (std::size_t m = 0; m < rf.size(); ++m) {
      const std::size_t r = first + m;
      double sum = 0.0;
      for (auto at = static_cast<std::size_t>(q.residual.start[r]); at < static_cast<std::size_t>(q.residual.start[r + 1]); ++at) {
        sum += q.residual.value[at] * part.f[static_cast<std::size_t>(q.residual.record[at]) - first];
      }
      rf[m] = sum;
      ef += ev.residual[r] * sum;
      for (auto at = static_cast<std::size_t>(q.rows.start[r]); at < static_cast<std::size_t>(q.rows.start[r + 1]); ++at) {
        wrf[static_cast<std::size_t>(q.rows.record[at])] += sum * q.rows.value[at];
      }
    }
    daxpy(q.n, 1.0, wrf.data(), 1, b.data() + i * n, 1);
    for (std::size_t j = 0; j < k; ++j) {
      double cross = working.alpha[j] * ef;
      if (working.has_a[j]) cross += dot(n, wrf.data(), working.a.data() + j * n);
      ai(i, j) += i == j ? 2.0 * cross : cross;
    }
    for (std::size_t o = 0; o <= d; ++o) {
      const WORKING_VARIABLES::DATA_PART& other = working.data[o];
      if (other.first == part.first) ai(i, static_cast<std::size_t>(other.parameter)) += dot(rf.size(), rf.data(), other.f.data());
    }
  }
  for (std::size_t i = 0; i < k; ++i) {
    if (working.alpha[i] != 0.0) daxpy(q.n, working.alpha[i], g, 1, b.data() + i * n, 1);
  }

  // w_i'P w_j = w_i'R^-1 w_j - (L^-1 b_i)' D^-1 (L^-1 b_j): the forward sweep alone.
  SMIFWD(q.factor, b.data(), static_cast<std::int64_t>(k), threads);
  const std::vector<double> absorbed = weighted_products(n, k, b, q.factor.reciprocal);
  for (std::size_t i = 0; i < absorbed.size(); ++i) ev.information.ai[i] = 0.5 * (ev.information.ai[i] - absorbed[i]) / ev.sigma2;

  // The profiled residual variance: its derivative of V is H = V / s2, on the scale of the ratios y; so its row is
  // divided by s2, its diagonal twice.  Then AI(s2, s2) = nu / (2 s2^2).
  if (ev.information.held_out >= 0) {
    const std::int64_t s = ev.information.held_out;
    ev.information.at(s, s) /= ev.sigma2;
    for (std::int64_t j = 0; j < ev.information.count(); ++j) ev.information.at(s, j) /= ev.sigma2;
  }
}

}  // namespace tolvan
