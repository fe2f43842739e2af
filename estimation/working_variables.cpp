// Working variables and the average-information matrix.  Routines: K4MWVG, K4MWVR, K4MWVA.
#include <algorithm>
#include <cmath>

#include "base/lapack.h"
#include "base/memory.h"
#include "estimation/evaluation.h"
#include "estimation/share.h"

namespace tolvan {
namespace {

/// The column of a parameter among the active ones, -1 when it is not active.
std::ptrdiff_t column_of(const INFORMATION& information, std::int64_t parameter)
{
  const auto& active = information.active;
  const auto at = std::lower_bound(active.begin(), active.end(), parameter);
  return at != active.end() && *at == parameter ? at - active.begin() : std::ptrdiff_t{-1};
}

constexpr std::size_t tile = 64;         // columns that are worked on at a time
constexpr std::int64_t stretch = 2048;   // rows, where a scaled copy is made

double dot(std::size_t n, const double* x, const double* y) { return ddot(static_cast<std::int64_t>(n), x, 1, y, 1); }

/// What tall_product works with, made once for many of them.
struct TALL_WORK {
  std::vector<std::vector<double>> sums;    // one a part of the rows
  std::vector<std::vector<double>> scaled;  // one a thread
};

/// product = A'B, or A'DB with a diagonal D: A n x height, B n x width.  The rows are cut into parts with sums of their own.
void tall_product(std::int64_t n, std::int64_t height, std::int64_t width, const double* a, const double* b, const double* d,
                  int threads, TALL_WORK& work, std::vector<double>& product)
{
  work.sums.resize(static_cast<std::size_t>(sum_parts));
  work.scaled.resize(static_cast<std::size_t>(threads));
  share_parts(threads, n, [&](std::int64_t part, std::int64_t begin, std::int64_t end, int thread) {
    auto& sum = work.sums[static_cast<std::size_t>(part)];
    auto& scaled = work.scaled[static_cast<std::size_t>(thread)];
    sum.assign(static_cast<std::size_t>(height * width), 0.0);
    if (d == nullptr) {
      if (begin < end) dgemm('T', 'N', height, width, end - begin, 1.0, a + begin, n, b + begin, n, 1.0, sum.data(), height);
      return;
    }
    scaled.resize(static_cast<std::size_t>(stretch * width));
    for (std::int64_t from = begin; from < end; from += stretch) {
      const std::int64_t rows = std::min(stretch, end - from);
      for (std::int64_t j = 0; j < width; ++j) {
        const double* column = b + j * n + from;
        double* to = scaled.data() + j * rows;
        for (std::int64_t i = 0; i < rows; ++i) to[i] = d[from + i] * column[i];
      }
      dgemm('T', 'N', height, width, rows, 1.0, a + from, n, scaled.data(), rows, 1.0, sum.data(), height);
    }
  });
  product.assign(static_cast<std::size_t>(height * width), 0.0);
  for (const auto& sum : work.sums) {
    for (std::size_t i = 0; i < product.size(); ++i) product[i] += sum[i];
  }
}

/// Takes B'DB off the lower triangle by rows, B n x k, by tiles of columns.
void subtract_weighted_products(std::int64_t n, std::size_t k, const std::vector<double>& b, const std::vector<double>& d,
                                int threads, TALL_WORK& work, std::vector<double>& packed)
{
  std::vector<double> product;
  for (std::size_t j0 = 0; j0 < k; j0 += tile) {
    const std::size_t width = std::min(tile, k - j0);
    const std::size_t height = k - j0;
    const double* from = b.data() + j0 * static_cast<std::size_t>(n);
    tall_product(n, static_cast<std::int64_t>(height), static_cast<std::int64_t>(width), from, from, d.data(), threads, work, product);
    for (std::size_t j = 0; j < width; ++j) {
      for (std::size_t i = j0 + j; i < k; ++i) packed[i * (i + 1) / 2 + j0 + j] -= product[(i - j0) + j * height];
    }
  }
}

/// R^-1 f for every column of a block of data parts, within its section.
void times_residual_inverse(const MIXED_EQUATIONS& q, const WORKING_VARIABLES::DATA_BLOCK& block, int threads,
                            std::vector<double>& rf)
{
  const auto first = static_cast<std::size_t>(block.first);
  rf.resize(block.f.size());
  share(threads, std::ssize(block.parameter), [&](std::int64_t p, int) {
    const double* f = block.f.data() + static_cast<std::size_t>(p) * block.records;
    double* to = rf.data() + static_cast<std::size_t>(p) * block.records;
    for (std::size_t m = 0; m < block.records; ++m) {
      double sum = 0.0;
      const auto end = static_cast<std::size_t>(q.residual.start[first + m + 1]);
      for (auto at = static_cast<std::size_t>(q.residual.start[first + m]); at < end; ++at) {
        sum += q.residual.value[at] * f[static_cast<std::size_t>(q.residual.record[at]) - first];
      }
      to[m] = sum;
    }
  });
}

/// Adds W'x to y, x the records of a section from `first` on.
void add_to_equations(const MIXED_EQUATIONS& q, std::size_t first, std::size_t records, const double* x, double* y)
{
  for (std::size_t m = 0; m < records; ++m) {
    const auto end = static_cast<std::size_t>(q.rows.start[first + m + 1]);
    for (auto at = static_cast<std::size_t>(q.rows.start[first + m]); at < end; ++at) {
      y[static_cast<std::size_t>(q.rows.record[at])] += x[m] * q.rows.value[at];
    }
  }
}

}  // namespace

void K4MWVG(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& q, const EVALUATION& ev,
            WORKING_VARIABLES& working)
{
  const Frame here{eh, __func__};
  const auto n = static_cast<std::size_t>(q.n);
  const auto k = static_cast<std::size_t>(ev.information.count());
  working.alpha.assign(k, 0.0);
  if (!assign(eh, working.a, q.n * ev.information.count(), 0.0)) return;
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
      for (const auto& [binding, bound] : components[c]->lagrangian()) {
        if (q.solving != Solving::by_factor || q.position_of(first + binding * block.inner) > q.position_of(first + bound * block.inner)) continue;
        eh.internal("K4MWVE XFA Equation order error.");
        return;
      }
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
    if (working.data.empty() || working.data.back().first != section.first_record)
      working.data.push_back({.first = section.first_record, .records = part.size(), .parameter = {}, .f = {}});
    WORKING_VARIABLES::DATA_BLOCK& data = working.data.back();
    data.parameter.push_back(column);
    for (std::size_t i = 0; i < part.size(); ++i) {
      const double rw = root_weight(static_cast<std::size_t>(section.first_record) + i);
      data.f.push_back(rw > 0.0 ? part[i] / rw : 0.0);
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

void K4MWVA(ERROR_HANDLER& eh, const FIT_MODEL& in, const MIXED_EQUATIONS& q, WORKING_VARIABLES& working, int threads, EVALUATION& ev)
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

  // The corner w_i'R^-1 w_j: what is made of alpha and of f, first.
  std::vector<double> ga(k, 0.0);  // e'R^-1 W a_i
  std::size_t a_end = 0;           // behind the last parameter with an a
  for (std::size_t i = 0; i < k; ++i) {
    if (!working.has_a[i]) continue;
    a_end = i + 1;
    ga[i] = dot(n, g, working.a.data() + i * n);
  }
  for (std::size_t i = 0; i < k; ++i) {
    for (std::size_t j = 0; j <= i; ++j) {
      ai(i, j) = working.alpha[i] * working.alpha[j] * ev.residual_square + working.alpha[i] * ga[j] + working.alpha[j] * ga[i];
    }
  }
  // w_i'P y = w_i'R^-1 e: the part of the scores that the data make.
  std::vector<double>& quadratic = ev.information.quadratic;
  quadratic.resize(k);
  for (std::size_t i = 0; i < k; ++i) quadratic[i] = working.alpha[i] * ev.residual_square + ga[i];
  std::vector<std::pair<const WORKING_VARIABLES::DATA_BLOCK*, std::size_t>> part_of(k, {nullptr, 0});
  std::vector<std::vector<double>> rf(working.data.size());  // R^-1 f
  for (std::size_t d = 0; d < working.data.size(); ++d) {
    const WORKING_VARIABLES::DATA_BLOCK& block = working.data[d];
    const auto parts = static_cast<std::int64_t>(block.parameter.size());
    const auto records = static_cast<std::int64_t>(block.records);
    times_residual_inverse(q, block, threads, rf[d]);
    std::vector<double> product(static_cast<std::size_t>(parts * parts));
    dgemm('T', 'N', parts, parts, records, 1.0, rf[d].data(), records, block.f.data(), records, 0.0, product.data(), parts);
    for (std::int64_t p = 0; p < parts; ++p) {
      const auto i = static_cast<std::size_t>(block.parameter[static_cast<std::size_t>(p)]);
      part_of[i] = {&block, static_cast<std::size_t>(p)};
      const double ef = dot(block.records, ev.residual.data() + block.first, rf[d].data() + p * records);
      quadratic[i] += ef;
      for (std::size_t j = 0; j < k; ++j) ai(i, j) += (i == j ? 2.0 : 1.0) * working.alpha[j] * ef;
      for (std::int64_t o = 0; o <= p; ++o)
        ai(i, static_cast<std::size_t>(block.parameter[static_cast<std::size_t>(o)])) += product[static_cast<std::size_t>(p + o * parts)];
    }
  }
  // c_i = C_R a_i + W'R^-1 f_i for a tile of parameters.  None has both an a and an f.
  const auto form_tile = [&](std::size_t j0, std::size_t width, double* c) {
    if (j0 < a_end) {
      multiply_residual_part(q, working.a.data() + j0 * n, c, static_cast<std::int64_t>(std::min(width, a_end - j0)), threads);
    }
    if (j0 + width > a_end) std::fill(c + (std::max(j0, a_end) - j0) * n, c + width * n, 0.0);
    share(threads, static_cast<std::int64_t>(width), [&](std::int64_t column, int) {
      const std::size_t j = j0 + static_cast<std::size_t>(column);
      const auto& [block, p] = part_of[j];
      if (block == nullptr) return;
      const std::vector<double>& values = rf[static_cast<std::size_t>(block - working.data.data())];
      add_to_equations(q, static_cast<std::size_t>(block->first), block->records, values.data() + p * block->records, c + (j - j0) * n);
    });
  };
  // The rest of the corner is c_j'a_i.  Tiles, if there are several, are formed again for b_i = W'R^-1 w_i = alpha_i g + c_i,
  // in the place of a_i, so that there never are two large matrices of equations by parameters.
  const bool one_tile = k <= tile;
  std::vector<double>& c = working.tile;
  if (!resize(eh, c, q.n * static_cast<std::int64_t>(std::min(tile, k)))) return;
  std::vector<double> product;
  TALL_WORK work;
  for (std::size_t j0 = 0; j0 < k && a_end > 0; j0 += tile) {
    const std::size_t width = std::min(tile, k - j0);
    const bool random_only = std::all_of(working.has_a.begin() + static_cast<std::ptrdiff_t>(j0),
                                         working.has_a.begin() + static_cast<std::ptrdiff_t>(j0 + width), [](auto h) { return h != 0; });
    const std::size_t height = random_only ? j0 + width : a_end;
    form_tile(j0, width, c.data());
    tall_product(q.n, static_cast<std::int64_t>(height), static_cast<std::int64_t>(width), working.a.data(), c.data(), nullptr, threads,
                 work, product);
    for (std::size_t j = j0; j < j0 + width; ++j) {
      // A pair of two with an a once, at the later of them.
      for (std::size_t i = 0; i < height; ++i) {
        if (working.has_a[i] && (i <= j || !working.has_a[j])) ai(i, j) += product[i + (j - j0) * height];
      }
    }
  }
  std::vector<double>& b = working.a;
  if (one_tile && a_end == 0) form_tile(0, k, c.data());
  if (one_tile) b.swap(c);
  for (std::size_t j0 = 0; j0 < k; j0 += tile) {
    const std::size_t width = std::min(tile, k - j0);
    if (!one_tile) {
      form_tile(j0, width, c.data());
      std::copy_n(c.data(), width * n, b.data() + j0 * n);
    }
    for (std::size_t j = j0; j < j0 + width; ++j) {
      if (working.alpha[j] != 0.0) daxpy(q.n, working.alpha[j], g, 1, b.data() + j * n, 1);
    }
  }
  // w_i'P w_j = w_i'R^-1 w_j - (L^-1 b_i)' D^-1 (L^-1 b_j): the forward sweep alone.
  SMIFWD(q.factor, b.data(), static_cast<std::int64_t>(k), threads);
  subtract_weighted_products(q.n, k, b, q.factor.reciprocal, threads, work, ev.information.ai);
  for (double& x : ev.information.ai) x *= 0.5 / ev.sigma2;
  for (double& x : quadratic) x *= 0.5 / ev.sigma2;

  // The profiled residual variance: its derivative of V is H = V / s2, on the scale of the ratios y; so its row is
  // divided by s2, its diagonal twice.  Then AI(s2, s2) = nu / (2 s2^2).
  if (ev.information.held_out >= 0) {
    const std::int64_t s = ev.information.held_out;
    quadratic[static_cast<std::size_t>(s)] /= ev.sigma2;
    ev.information.at(s, s) /= ev.sigma2;
    for (std::int64_t j = 0; j < ev.information.count(); ++j) ev.information.at(s, j) /= ev.sigma2;
  }
}

}  // namespace tolvan
