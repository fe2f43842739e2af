// Views of packed triangles and vectors in the numbering of mathematics: round brackets count from 1.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace tolvan {

/// The number of elements of a packed triangle of order n.
constexpr std::int64_t packed_size(std::int64_t n)
{
  return n * (n + 1) / 2;
}

/// Lower triangle by rows; (i, j) from 1, j at most i.
template <class T>
struct PackedLower {
  std::span<T> a;
  T& operator()(std::int64_t i, std::int64_t j) const
  {
    return a[static_cast<std::size_t>(i * (i - 1) / 2 + j - 1)];
  }
};

/// Either half of a symmetric matrix whose lower triangle is packed by rows; (i, j) from 1, in any order.
template <class T>
struct PackedSymmetric {
  std::span<T> a;
  T& operator()(std::int64_t i, std::int64_t j) const
  {
    return i >= j ? PackedLower<T>{a}(i, j) : PackedLower<T>{a}(j, i);
  }
};

/// A vector counted from 1.
template <class T>
struct Numbered {
  std::span<T> a;
  T& operator()(std::int64_t i) const { return a[static_cast<std::size_t>(i - 1)]; }
  std::int64_t size() const { return static_cast<std::int64_t>(a.size()); }
};

}  // namespace tolvan
