// Correlation matrices from their textbook definitions, dense and slow: the yardstick of the formed
// components.
#pragma once

#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "varstruct/parameter_table.h"

namespace tolvan::dense {

/// Square, by columns.
struct Matrix {
  std::int64_t n = 0;
  std::vector<double> a;
  explicit Matrix(std::int64_t size = 0) : n(size), a(static_cast<std::size_t>(size * size), 0.0) {}
  double& operator()(std::int64_t i, std::int64_t j) { return a[static_cast<std::size_t>(i + j * n)]; }
  double operator()(std::int64_t i, std::int64_t j) const { return a[static_cast<std::size_t>(i + j * n)]; }
};

Matrix product(const Matrix& a, const Matrix& b);
/// Inverse, log-determinant and condition of a symmetric positive definite matrix, by eigenvalues.
struct Inverted {
  Matrix inverse;
  double log_determinant = 0.0, condition = 0.0;
};
Inverted inverted(const Matrix& r);

using Values = std::vector<double>;
using Random = std::mt19937_64;

/// One correlation model as a test row.
struct Model {
  std::string name;
  std::int64_t code, selector, sub_code, order;
  /// R of n levels at own parameters and coordinates.
  std::function<Matrix(std::int64_t n, const Values& theta, const COORDINATES& at)> matrix;
  /// Parameters in the space.
  std::function<Values(std::int64_t n, Random& random)> draw;
  int dimensions = 0;     // of the coordinates
  bool one_level = true;  // has a matrix of its own for one level
};

/// All of them.
const std::vector<Model>& models();

double uniform(Random& random, double from, double to);
/// Points at least a gap apart in each coordinate of one dimension, or in the plane.
COORDINATES scatter(std::int64_t n, int dimensions, Random& random);

}  // namespace tolvan::dense
