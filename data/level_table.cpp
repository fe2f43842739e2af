#include "data/level_table.h"

#include <functional>

namespace tolvan {

LEVEL_TABLE::LEVEL_TABLE(const LEVEL_TABLE& other)
{
  for (std::int64_t level = 1; level <= other.size(); ++level) find_or_add(other.label(level));
}

LEVEL_TABLE& LEVEL_TABLE::operator=(const LEVEL_TABLE& other)
{
  if (this != &other) {
    LEVEL_TABLE copy(other);
    *this = std::move(copy);
  }
  return *this;
}

namespace {

std::uint64_t hash_of(std::string_view label)
{
  return std::hash<std::string_view>{}(label);
}

/// The part that a slot keeps; the place comes from the low bits.
std::uint32_t kept_hash(std::uint64_t hash)
{
  return static_cast<std::uint32_t>(hash >> 32U);
}

}  // namespace

/// The slot of a label, or the free one where it would stand.
std::size_t LEVEL_TABLE::place(std::string_view label, std::uint64_t hash) const
{
  const std::size_t mask = slots_.size() - 1;
  std::size_t at = static_cast<std::size_t>(hash) & mask;
  while (slots_[at].level != 0 &&
         (slots_[at].hash != kept_hash(hash) || (*labels_)[slots_[at].level - 1] != label)) {
    at = (at + 1) & mask;
  }
  return at;
}

/// Doubles the index.
void LEVEL_TABLE::grow()
{
  std::vector<Slot> larger(slots_.empty() ? 16 : 2 * slots_.size());
  const std::size_t mask = larger.size() - 1;
  for (std::int64_t level = 1; level <= size(); ++level) {
    const std::uint64_t hash = hash_of(label(level));
    std::size_t at = static_cast<std::size_t>(hash) & mask;
    while (larger[at].level != 0) at = (at + 1) & mask;
    larger[at] = {kept_hash(hash), static_cast<std::uint32_t>(level)};
  }
  slots_ = std::move(larger);
}

std::int64_t LEVEL_TABLE::find(std::string_view label) const
{
  return slots_.empty() ? 0 : slots_[place(label, hash_of(label))].level;
}

std::int64_t LEVEL_TABLE::find_or_add(std::string_view label)
{
  const std::uint64_t hash = hash_of(label);
  if (!slots_.empty()) {
    if (const std::uint32_t known = slots_[place(label, hash)].level; known != 0) return known;
  }
  if (labels_ == nullptr) labels_ = std::make_unique<std::deque<std::string>>();
  if (2 * labels_->size() >= slots_.size()) grow();
  const std::size_t at = place(label, hash);
  labels_->emplace_back(label);
  slots_[at] = {kept_hash(hash), static_cast<std::uint32_t>(labels_->size())};
  return size();
}

void LEVEL_TABLE::clear()
{
  slots_.clear();
  labels_.reset();
}

}  // namespace tolvan
