#include "base/value_index.h"

#include <algorithm>
#include <bit>
#include <numeric>

namespace tolvan {

namespace {

/// Mixes the bits of two numbers (the finaliser of SplitMix64; Steele, Lea and Flood, 2014).
std::uint64_t mix(double x, double y)
{
  std::uint64_t h = std::bit_cast<std::uint64_t>(x) + 0x9e3779b97f4a7c15U * std::bit_cast<std::uint64_t>(y);
  h = (h ^ (h >> 30)) * 0xbf58476d1ce4e5b9U;
  h = (h ^ (h >> 27)) * 0x94d049bb133111ebU;
  return h ^ (h >> 31);
}

constexpr std::size_t fewest_slots = 64;

}  // namespace

/// The slot that holds a pair, or the empty one where it belongs.
std::size_t VALUE_INDEX::slot_of(double x, double y) const
{
  const std::size_t mask = slot_.size() - 1;
  std::size_t s = static_cast<std::size_t>(mix(x, y)) & mask;
  while (slot_[s] != 0) {
    if (holds(static_cast<std::size_t>(slot_[s] - 1), x, y)) return s;
    s = (s + 1) & mask;
  }
  return s;
}

void VALUE_INDEX::rehash(std::size_t slots)
{
  slot_.assign(slots, 0);
  for (std::size_t k = 0; k < x_.size(); ++k) slot_[slot_of(x_[k], y_.empty() ? 0.0 : y_[k])] = static_cast<std::int32_t>(k) + 1;
}

void VALUE_INDEX::add(double x, double y)
{
  x += 0.0;  // -0 becomes 0
  y += 0.0;
  if (slot_.empty()) rehash(fewest_slots);
  std::size_t s = slot_of(x, y);
  if (slot_[s] != 0) return;
  if (2 * (x_.size() + 1) > slot_.size()) {
    rehash(2 * slot_.size());
    s = slot_of(x, y);
  }
  if (y != 0.0 && y_.empty()) y_.resize(x_.size(), 0.0);
  x_.push_back(x);
  if (y != 0.0 || !y_.empty()) y_.resize(x_.size(), y);
  slot_[s] = static_cast<std::int32_t>(x_.size());
}

void VALUE_INDEX::sort()
{
  std::vector<std::int32_t> order(x_.size());
  std::iota(order.begin(), order.end(), 0);
  std::sort(order.begin(), order.end(), [this](std::int32_t a, std::int32_t b) {
    const auto i = static_cast<std::size_t>(a), j = static_cast<std::size_t>(b);
    return x_[i] < x_[j] || (x_[i] == x_[j] && !y_.empty() && y_[i] < y_[j]);
  });
  std::vector<double> sorted(x_.size());
  for (std::vector<double>* values : {&x_, &y_}) {
    if (values->empty()) continue;
    for (std::size_t k = 0; k < order.size(); ++k) sorted[k] = (*values)[static_cast<std::size_t>(order[k])];
    values->swap(sorted);
  }
  if (!slot_.empty()) rehash(slot_.size());
}

std::int64_t VALUE_INDEX::find(double x, double y) const
{
  return slot_.empty() ? 0 : slot_[slot_of(x + 0.0, y + 0.0)];
}

}  // namespace tolvan
