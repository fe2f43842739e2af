// Work with the inverse of a direct product of components without forming it whole.
#include "estimation/direct_product.h"

#include <algorithm>
#include <cstdlib>
#include <numeric>

namespace tolvan {

COMPONENT_ROWS::COMPONENT_ROWS(const SYMMETRIC& matrix) : matrix_(matrix)
{
  const std::int64_t n = matrix.n;
  switch (matrix.shape) {
    case Shape::identity:
    case Shape::diagonal: {
      column_.resize(1);
      index_.resize(1);
      value_.assign(1, 1.0);
      break;
    }
    case Shape::banded: {
      longest_ = std::min(n, 2 * matrix.bandwidth + 1);
      column_.resize(static_cast<std::size_t>(longest_));
      index_.resize(column_.size());
      value_.resize(column_.size());
      break;
    }
    case Shape::dense:
    case Shape::sparse: {
      const auto full = std::make_shared<FULL_PATTERN>();
      fill_pattern(*full);
      full_ = full;
      break;
    }
  }
}

void COMPONENT_ROWS::fill_pattern(FULL_PATTERN& full)
{
  const std::int64_t n = matrix_.n;
  if (matrix_.shape == Shape::dense) {
    longest_ = n;
    full.column.resize(static_cast<std::size_t>(n));
    std::iota(full.column.begin(), full.column.end(), 0);
    return;
  }
  full.start.assign(static_cast<std::size_t>(n) + 1, 0);
  for (std::int64_t j = 0; j < n; ++j) {
    for (std::int64_t k = matrix_.start[j]; k < matrix_.start[j + 1]; ++k) {
      ++full.start[static_cast<std::size_t>(j) + 1];
      if (matrix_.row[k] != j) ++full.start[static_cast<std::size_t>(matrix_.row[k]) + 1];
    }
  }
  for (std::size_t j = 0; j < static_cast<std::size_t>(n); ++j) {
    longest_ = std::max(longest_, full.start[j + 1]);
    full.start[j + 1] += full.start[j];
  }
  full.column.resize(static_cast<std::size_t>(full.start.back()));
  full.index.resize(full.column.size());
  value_.resize(static_cast<std::size_t>(longest_));
  // Column j's elements above the diagonal come from earlier columns, in rising order; then its own.
  std::vector<std::int64_t> next(full.start.begin(), full.start.end() - 1);
  const auto put = [&](std::int64_t row, std::int64_t column, std::int64_t at) {
    const auto place = static_cast<std::size_t>(next[static_cast<std::size_t>(row)]++);
    full.column[place] = static_cast<std::int32_t>(column);
    full.index[place] = at;
  };
  for (std::int64_t j = 0; j < n; ++j) {
    for (std::int64_t k = matrix_.start[j]; k < matrix_.start[j + 1]; ++k) {
      if (matrix_.row[k] != j) put(matrix_.row[k], j, k);
    }
  }
  for (std::int64_t j = 0; j < n; ++j) {
    for (std::int64_t k = matrix_.start[j]; k < matrix_.start[j + 1]; ++k) put(j, matrix_.row[k], k);
  }
}

const COMPONENT_LINE& COMPONENT_ROWS::line(std::int64_t a)
{
  const auto at = static_cast<std::size_t>(a);
  line_ = {};
  switch (matrix_.shape) {
    case Shape::identity:
    case Shape::diagonal:
      column_[0] = static_cast<std::int32_t>(a);
      index_[0] = matrix_.shape == Shape::identity ? 0 : a;
      value_[0] = matrix_.shape == Shape::identity ? 1.0 : matrix_.values[a];
      line_ = {1, column_.data(), value_.data(), index_.data(), 0};
      break;
    case Shape::banded: {
      const std::int64_t from = std::max<std::int64_t>(0, a - matrix_.bandwidth);
      const std::int64_t to = std::min(matrix_.n - 1, a + matrix_.bandwidth);
      for (std::int64_t b = from; b <= to; ++b) {
        const auto k = static_cast<std::size_t>(b - from);
        column_[k] = static_cast<std::int32_t>(b);
        index_[k] = std::abs(a - b) * matrix_.n + std::min(a, b);
        value_[k] = matrix_.values[index_[k]];
      }
      line_ = {to - from + 1, column_.data(), value_.data(), index_.data(), 0};
      break;
    }
    case Shape::dense:
      line_ = {matrix_.n, full_->column.data(), matrix_.values + a * matrix_.n, nullptr, a * matrix_.n};
      break;
    case Shape::sparse: {
      const std::int64_t count = full_->start[at + 1] - full_->start[at];
      const std::int64_t* index = full_->index.data() + full_->start[at];
      for (std::int64_t k = 0; k < count; ++k) value_[static_cast<std::size_t>(k)] = matrix_.values[index[k]];
      line_ = {count, full_->column.data() + full_->start[at], value_.data(), index, 0};
      break;
    }
  }
  return line_;
}

PRODUCT_ROWS::PRODUCT_ROWS(const COMPONENTS& components)
{
  rows_.reserve(components.size());
  for (const auto& component : components) {
    rows_.emplace_back(component->inverse());
    sizes_.push_back(component->inverse().n);
    size_ *= component->inverse().n;
  }
  lines_.resize(rows_.size());
  digits_.assign(rows_.size(), -1);
}

PRODUCT_ROWS::PRODUCT_ROWS(const PRODUCT_ROWS& other)
    : rows_(other.rows_),
      sizes_(other.sizes_),
      digits_(other.digits_.size(), -1),  // the rows are fetched anew, into buffers of their own
      lines_(other.lines_.size()),
      size_(other.size_),
      keep_zeros_(other.keep_zeros_)
{
}

void PRODUCT_ROWS::refresh(const COMPONENTS& components)
{
  for (std::size_t c = 0; c < rows_.size(); ++c) rows_[c].refresh(components[c]->inverse());
  std::fill(digits_.begin(), digits_.end(), -1);
}

bool PRODUCT_ROWS::diagonal() const
{
  return std::all_of(rows_.begin(), rows_.end(), [](const COMPONENT_ROWS& r) {
    return r.matrix().shape == Shape::identity || r.matrix().shape == Shape::diagonal;
  });
}

double PRODUCT_ROWS::scale() const
{
  double product = 1.0;
  for (const COMPONENT_ROWS& r : rows_) product *= r.matrix().scale;
  return product;
}

void PRODUCT_ROWS::move_to(std::int64_t e)
{
  for (std::size_t c = rows_.size(); c-- > 0;) {
    const std::int64_t digit = e % sizes_[c];
    e /= sizes_[c];
    if (digit == digits_[c]) continue;
    digits_[c] = digit;
    lines_[c] = rows_[c].line(digit);
  }
}

void PRODUCT_ROWS::add(double t, bool twice, const std::vector<double*>& s) const
{
  for (std::size_t c = 0; c < rows_.size(); ++c) {
    if (s[c] == nullptr) continue;
    double others = t;
    for (std::size_t o = 0; o < rows_.size(); ++o) {
      if (o != c) others *= lines_[o].value[chosen_[o]] * rows_[o].matrix().scale;
    }
    const COMPONENT_LINE& line = lines_[c];
    const std::int64_t i = chosen_[c];
    const std::int64_t column = line.column[i];
    if (column == digits_[c] && twice) others *= 2.0;
    const std::int64_t at = line.index != nullptr ? line.index[i] : line.index_from + column;
    s[c][at] += others;
    // A dense layout holds both triangles.
    if (line.index == nullptr && column != digits_[c]) s[c][column * sizes_[c] + digits_[c]] += others;
  }
}

void apply_inverse(const COMPONENTS& components, const double* x, double* y, std::vector<double>& work)
{
  std::int64_t size = 1;
  for (const auto& component : components) size *= component->inverse().n;
  if (components.size() > 1) work.resize(static_cast<std::size_t>(size));
  // Each component writes to the other buffer, the last one to y.
  const double* from = x;
  std::int64_t outer = 1;
  for (std::size_t c = 0; c < components.size(); ++c) {
    const std::int64_t n = components[c]->inverse().n;
    const std::int64_t inner = n == 0 ? 0 : size / (outer * n);
    double* to = (components.size() - c) % 2 == 1 ? y : work.data();
    components[c]->apply_inverse(from, to, outer, inner);
    from = to;
    outer *= n;
  }
}

PRODUCT_BLOCK block_of(const COMPONENTS& components, std::size_t c)
{
  PRODUCT_BLOCK block;
  for (std::size_t i = 0; i < c; ++i) block.outer *= components[i]->inverse().n;
  for (std::size_t i = c + 1; i < components.size(); ++i) block.inner *= components[i]->inverse().n;
  return block;
}

std::int64_t negative_eigenvalues(const COMPONENTS& components)
{
  std::int64_t negative = 0;
  std::int64_t positive = 1;
  for (const auto& component : components) {
    const std::int64_t down = component->negative();
    const std::int64_t up = component->counted() - down;  // in the dimensions without a variance it is 0
    const std::int64_t below = negative * up + positive * down;
    positive = negative * down + positive * up;
    negative = below;
  }
  return negative;
}

}  // namespace tolvan
