// Work with the inverse of a direct product of components without forming it whole.
//
// An element of the product is numbered in mixed radix, the first component slowest.  Its row of the inverse has one element
// for each combination of elements of its components' rows.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "base/symmetric.h"
#include "varstruct/form_structures.h"

namespace tolvan {

/// One row of a component's inverse: all elements of both triangles, columns rising.  Values lack the matrix's scale.
struct COMPONENT_LINE {
  std::int64_t count = 0;
  const std::int32_t* column = nullptr;
  const double* value = nullptr;
  const std::int64_t* index = nullptr;  // where an element stands in arrays laid out like the values; null: index_from + column
  std::int64_t index_from = 0;
};

/// The rows of one component's inverse, both triangles, whatever its shape.  The pattern is kept, the values are read anew.
/// A copy shares the pattern and has a present row of its own.
class COMPONENT_ROWS {
 public:
  explicit COMPONENT_ROWS(const SYMMETRIC& matrix);
  /// Reads the values of the present evaluation.
  void refresh(const SYMMETRIC& matrix) { matrix_ = matrix; }
  const SYMMETRIC& matrix() const { return matrix_; }
  /// Row a; what it points at stays until the next call.
  const COMPONENT_LINE& line(std::int64_t a);
  /// Elements of the fullest row.
  std::int64_t longest() const { return longest_; }

 private:
  SYMMETRIC matrix_;
  struct FULL_PATTERN {
    std::vector<std::int64_t> start;   // sparse: of the rows
    std::vector<std::int32_t> column;  // of the rows; dense: 0, 1, ... n - 1
    std::vector<std::int64_t> index;   // sparse
  };
  void fill_pattern(FULL_PATTERN& full);

  std::int64_t longest_ = 1;
  std::shared_ptr<const FULL_PATTERN> full_;
  std::vector<std::int32_t> column_;   // of the present row
  std::vector<std::int64_t> index_;    // of the present row
  std::vector<double> value_;          // of the present row
  COMPONENT_LINE line_;
};

/// The inverse of a product, walked row by row.
class PRODUCT_ROWS {
 public:
  explicit PRODUCT_ROWS(const COMPONENTS& components);
  /// A copy walks by itself: one for each thread.
  PRODUCT_ROWS(const PRODUCT_ROWS& other);
  PRODUCT_ROWS(PRODUCT_ROWS&&) = default;
  PRODUCT_ROWS& operator=(const PRODUCT_ROWS& other) { return *this = PRODUCT_ROWS(other); }
  PRODUCT_ROWS& operator=(PRODUCT_ROWS&&) = default;
  void refresh(const COMPONENTS& components);
  std::int64_t size() const { return size_; }
  /// Whether every component is an identity or diagonal.
  bool diagonal() const;
  /// The product of the components' scales.
  double scale() const;
  std::size_t components() const { return rows_.size(); }

  /// Whether the product is one dense component; its present row without the scale.
  bool is_one_dense() const { return rows_.size() == 1 && rows_.front().matrix().shape == Shape::dense; }
  const double* dense_row() const { return lines_.front().value; }

  /// Moves to row e.
  void move_to(std::int64_t e);
  /// Calls f(column, value) for every element of the present row; value includes all scales.
  template <class F>
  void each(F&& f) const
  {
    walk(0, 0, scale(), f);
  }
  /// Adds t times the product of the other components' values to component c's element of a pair, for every c in `wanted`.
  /// The pair is the present row with an element of it: visit(column) answers t for each column; 0 skips the pair.
  ///   halves  the caller visits every ordered pair with halves that add up to t over both orders; else each unordered pair
  ///           once, where a pair on c's diagonal stands for both orders
  template <class T>
  void contract(T&& visit, std::int64_t row, bool halves, const std::vector<double*>& s) const
  {
    chosen_.resize(rows_.size());
    contract_walk(0, 0, visit, row, halves, s);
  }

 private:
  template <class F>
  void walk(std::size_t c, std::int64_t from, double value, F& f) const
  {
    const COMPONENT_LINE& line = lines_[c];
    const std::int64_t base = from * sizes_[c];
    if (c + 1 == rows_.size()) {
      for (std::int64_t i = 0; i < line.count; ++i) f(base + line.column[i], value * line.value[i]);
      return;
    }
    for (std::int64_t i = 0; i < line.count; ++i) {
      if (line.value[i] != 0.0 || keep_zeros_) walk(c + 1, base + line.column[i], value * line.value[i], f);
    }
  }
  template <class T>
  void contract_walk(std::size_t c, std::int64_t from, T& visit, std::int64_t row, bool halves, const std::vector<double*>& s) const
  {
    const COMPONENT_LINE& line = lines_[c];
    const std::int64_t base = from * sizes_[c];
    for (std::int64_t i = 0; i < line.count; ++i) {
      chosen_[c] = i;
      const std::int64_t column = base + line.column[i];
      if (c + 1 < rows_.size()) {
        contract_walk(c + 1, column, visit, row, halves, s);
        continue;
      }
      const double t = visit(column);
      if (t != 0.0) add(t, halves || row != column, s);
    }
  }
  void add(double t, bool twice, const std::vector<double*>& s) const;

  std::vector<COMPONENT_ROWS> rows_;
  std::vector<std::int64_t> sizes_;
  std::vector<std::int64_t> digits_;
  std::vector<COMPONENT_LINE> lines_;
  mutable std::vector<std::int64_t> chosen_;
  std::int64_t size_ = 1;
  bool keep_zeros_ = false;

 public:
  /// Whether elements of value zero are visited: for patterns.
  void keep_zeros(bool keep) { keep_zeros_ = keep; }
};

/// y = R^-1 x over a product, x and y of its size and apart.
///   work  a scratch vector, grown as needed
void apply_inverse(const COMPONENTS& components, const double* x, double* y, std::vector<double>& work);

/// The block of component c in a product of components: elements are (outer, level, inner).
struct PRODUCT_BLOCK {
  std::int64_t outer = 1, inner = 1;
};
PRODUCT_BLOCK block_of(const COMPONENTS& components, std::size_t c);

/// The number of negative eigenvalues of a product, from those of its components.
std::int64_t negative_eigenvalues(const COMPONENTS& components);

}  // namespace tolvan
