#include "oracle/dense_reml.h"

#include <cmath>

namespace tolvan_test {

Matrix operator*(const Matrix& a, const Matrix& b)
{
  Matrix c(a.rows, b.columns);
  for (std::size_t i = 0; i < a.rows; ++i) {
    for (std::size_t k = 0; k < a.columns; ++k) {
      for (std::size_t j = 0; j < b.columns; ++j) c(i, j) += a(i, k) * b(k, j);
    }
  }
  return c;
}

Matrix transpose(const Matrix& a)
{
  Matrix t(a.columns, a.rows);
  for (std::size_t i = 0; i < a.rows; ++i) {
    for (std::size_t j = 0; j < a.columns; ++j) t(j, i) = a(i, j);
  }
  return t;
}

Matrix inverse_spd(const Matrix& a, double& log_determinant)
{
  // Gauss-Jordan without pivoting, which is safe for positive definite matrices.
  const std::size_t n = a.rows;
  Matrix m = a;
  log_determinant = 0.0;
  for (std::size_t k = 0; k < n; ++k) {
    const double pivot = m(k, k);
    log_determinant += std::log(pivot);
    m(k, k) = 1.0;
    for (std::size_t j = 0; j < n; ++j) m(k, j) /= pivot;
    for (std::size_t i = 0; i < n; ++i) {
      if (i == k) continue;
      const double f = m(i, k);
      m(i, k) = 0.0;
      for (std::size_t j = 0; j < n; ++j) m(i, j) -= f * m(k, j);
    }
  }
  return m;
}

namespace {

/// The columns of X that are independent of the ones before them.
std::vector<std::size_t> independent(const Matrix& x)
{
  std::vector<std::vector<double>> basis;
  std::vector<std::size_t> kept;
  for (std::size_t j = 0; j < x.columns; ++j) {
    std::vector<double> v(x.rows);
    double before = 0.0;
    for (std::size_t i = 0; i < x.rows; ++i) {
      v[i] = x(i, j);
      before += v[i] * v[i];
    }
    for (int twice = 0; twice < 2; ++twice) {
      for (const auto& q : basis) {
        double dot = 0.0;
        for (std::size_t i = 0; i < v.size(); ++i) dot += q[i] * v[i];
        for (std::size_t i = 0; i < v.size(); ++i) v[i] -= dot * q[i];
      }
    }
    double after = 0.0;
    for (const double e : v) after += e * e;
    if (after <= 1e-12 * before || after == 0.0) continue;
    for (double& e : v) e /= std::sqrt(after);
    basis.push_back(v);
    kept.push_back(j);
  }
  return kept;
}

double trace_of_product(const Matrix& a, const Matrix& b)
{
  double sum = 0.0;
  for (std::size_t i = 0; i < a.rows; ++i) {
    for (std::size_t j = 0; j < a.columns; ++j) sum += a(i, j) * b(j, i);
  }
  return sum;
}

}  // namespace

DenseResult dense_reml(const DenseModel& model, const std::vector<double>& gamma, double s2)
{
  DenseResult out;
  const std::size_t n = model.y.size();
  out.kept = independent(model.x);
  const std::size_t p = out.kept.size();
  Matrix x(n, p);
  for (std::size_t j = 0; j < p; ++j) {
    for (std::size_t i = 0; i < n; ++i) x(i, j) = model.x(i, out.kept[j]);
  }
  Matrix y(n, 1);
  for (std::size_t i = 0; i < n; ++i) y(i, 0) = model.y[i];

  Matrix h(n, n);
  for (std::size_t i = 0; i < n; ++i) {
    const double w = model.weight.empty() ? 1.0 : model.weight[i];
    h(i, i) = 1.0 / w;
    out.log_weights += std::log(w);
  }
  std::vector<Matrix> zz;
  for (std::size_t t = 0; t < model.z.size(); ++t) {
    zz.push_back(model.z[t] * transpose(model.z[t]));
    for (std::size_t k = 0; k < h.a.size(); ++k) h.a[k] += gamma[t] * zz[t].a[k];
  }
  double log_h = 0.0;
  double log_x = 0.0;
  const Matrix hi = inverse_spd(h, log_h);
  const Matrix hix = hi * x;
  const Matrix xhx = inverse_spd(transpose(x) * hix, log_x);
  Matrix proj = hix * xhx * transpose(hix);
  for (std::size_t k = 0; k < proj.a.size(); ++k) proj.a[k] = hi.a[k] - proj.a[k];
  const Matrix py = proj * y;
  const double quadratic = (transpose(y) * py)(0, 0);
  out.nu = static_cast<double>(n - p);
  out.sigma2 = quadratic / out.nu;
  out.logl_profiled = -0.5 * (out.nu * std::log(out.sigma2) + log_h + log_x + out.nu);
  if (s2 <= 0.0) s2 = out.sigma2;
  out.logl = -0.5 * (out.nu * std::log(s2) + log_h + log_x + quadratic / s2);

  // Derivatives of V = s2 H: s2 ZZ' for a gamma, H for s2; P is 1/s2 times the one of H.
  std::vector<Matrix> vdot;
  for (const Matrix& m : zz) {
    vdot.push_back(m);
    for (double& e : vdot.back().a) e *= s2;
  }
  vdot.push_back(h);
  std::vector<Matrix> w;
  for (const Matrix& m : vdot) w.push_back(m * py);
  for (std::size_t i = 0; i < vdot.size(); ++i) {
    out.score.push_back(0.5 * ((transpose(py) * w[i])(0, 0) / (s2 * s2) - trace_of_product(proj, vdot[i]) / s2));
    for (std::size_t j = 0; j <= i; ++j) out.ai.push_back(0.5 * (transpose(w[i]) * (proj * w[j]))(0, 0) / (s2 * s2 * s2));
  }

  const Matrix b = xhx * (transpose(hix) * y);
  out.b = b.a;
  for (std::size_t t = 0; t < model.z.size(); ++t) {
    const Matrix zt = transpose(model.z[t]);
    Matrix u = zt * py;
    for (double& e : u.a) e *= gamma[t];
    out.u.push_back(u.a);
    const Matrix zpz = zt * (proj * model.z[t]);
    std::vector<double> pev(zpz.rows);
    for (std::size_t i = 0; i < pev.size(); ++i) pev[i] = s2 * (gamma[t] - gamma[t] * gamma[t] * zpz(i, i));
    out.u_pev.push_back(pev);
  }
  out.hat.resize(n);
  for (std::size_t i = 0; i < n; ++i) {  // fitted = y - R0 P y
    out.hat[i] = 1.0 - proj(i, i) / (model.weight.empty() ? 1.0 : model.weight[i]);
  }
  return out;
}

DenseVariance dense_variance(const Matrix& full, const std::vector<double>& response, const Matrix& v, const std::vector<Matrix>& vdot)
{
  DenseVariance out;
  const std::size_t n = response.size();
  const std::vector<std::size_t> kept = independent(full);
  Matrix x(n, kept.size());
  Matrix y(n, 1);
  for (std::size_t i = 0; i < n; ++i) {
    y(i, 0) = response[i];
    for (std::size_t j = 0; j < kept.size(); ++j) x(i, j) = full(i, kept[j]);
  }
  double log_v = 0.0;
  double log_x = 0.0;
  const Matrix vi = inverse_spd(v, log_v);
  const Matrix vix = vi * x;
  const Matrix xvx = inverse_spd(transpose(x) * vix, log_x);
  Matrix proj = vix * xvx * transpose(vix);
  for (std::size_t k = 0; k < proj.a.size(); ++k) proj.a[k] = vi.a[k] - proj.a[k];
  const Matrix py = proj * y;
  out.quadratic = (transpose(y) * py)(0, 0);
  out.nu = static_cast<double>(n - kept.size());
  out.logl = -0.5 * (log_v + log_x + out.quadratic);
  std::vector<Matrix> w;
  for (const Matrix& m : vdot) w.push_back(m * py);
  for (std::size_t i = 0; i < vdot.size(); ++i) {
    out.score.push_back(0.5 * ((transpose(py) * w[i])(0, 0) - trace_of_product(proj, vdot[i])));
    for (std::size_t j = 0; j <= i; ++j) out.ai.push_back(0.5 * (transpose(w[i]) * (proj * w[j]))(0, 0));
  }
  out.py = py.a;
  out.p = std::move(proj);
  return out;
}

}  // namespace tolvan_test
