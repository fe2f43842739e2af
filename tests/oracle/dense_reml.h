// Textbook REML from the dense variance matrix, for small models.  Nothing of the engine is used.
//
//     V = s2 (R0 + sum_t gamma_t Z_t Z_t'),  P = V^-1 - V^-1 X (X'V^-1 X)^-1 X'V^-1
//     LogL = -0.5 (log|V| + log|X'V^-1 X| + y'Py)                  (Patterson & Thompson 1971, without the constant)
// X is cut to full rank by leaving out later columns.
#pragma once

#include <cstddef>
#include <vector>

namespace tolvan_test {

struct Matrix {
  std::size_t rows = 0, columns = 0;
  std::vector<double> a;  // by rows
  Matrix() = default;
  Matrix(std::size_t r, std::size_t c) : rows(r), columns(c), a(r * c, 0.0) {}
  double& operator()(std::size_t i, std::size_t j) { return a[i * columns + j]; }
  double operator()(std::size_t i, std::size_t j) const { return a[i * columns + j]; }
};

Matrix operator*(const Matrix& a, const Matrix& b);
Matrix transpose(const Matrix& a);

/// Inverse and log-determinant of a symmetric positive definite matrix.
Matrix inverse_spd(const Matrix& a, double& log_determinant);

struct DenseModel {
  std::vector<double> y;
  std::vector<double> weight;  // empty: all 1; R0 = diag(1/weight)
  Matrix x;
  std::vector<Matrix> z;       // one a random term
};

struct DenseResult {
  double logl = 0.0;            // at s2
  double logl_profiled = 0.0;   // -0.5 (nu ln s2 + L + nu), L on the ratio scale
  double sigma2 = 0.0;          // y'Py / nu on the ratio scale
  double nu = 0.0;
  double log_weights = 0.0;
  std::vector<double> ai;       // 0.5 y'P V_i P V_j P y, lower triangle by rows, gammas first, then s2
  std::vector<double> score;    // 0.5 (y'P V_i P y - tr(P V_i))
  std::vector<double> b;        // effects of the kept columns of X
  std::vector<std::size_t> kept;
  std::vector<std::vector<double>> u;      // predicted effects, one list a term
  std::vector<std::vector<double>> u_pev;  // their prediction error variances
  std::vector<double> hat;                 // diagonal of the matrix that turns y into its fitted values
};

/// Evaluates the model at ratios gamma with the residual variance s2 (0: its profiled value).
DenseResult dense_reml(const DenseModel& model, const std::vector<double>& gamma, double s2 = 0.0);

/// The restricted likelihood of any variance matrix and its derivatives.
struct DenseVariance {
  double logl = 0.0;
  std::vector<double> score;  // 0.5 (y'P V_i P y - tr(P V_i))
  std::vector<double> ai;     // 0.5 y'P V_i P V_j P y, lower triangle by rows
  double quadratic = 0.0;     // y'Py
  double nu = 0.0;
  Matrix p;                   // P
  std::vector<double> py;     // P y
};
/// Evaluates y ~ (X b, V) with the derivatives of V.
DenseVariance dense_variance(const Matrix& x, const std::vector<double>& y, const Matrix& v, const std::vector<Matrix>& vdot);

}  // namespace tolvan_test
