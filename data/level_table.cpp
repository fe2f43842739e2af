#include "data/level_table.h"

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

std::int64_t LEVEL_TABLE::find(std::string_view label) const
{
  const auto at = index_.find(label);
  return at == index_.end() ? 0 : at->second;
}

std::int64_t LEVEL_TABLE::find_or_add(std::string_view label)
{
  if (const auto at = index_.find(label); at != index_.end()) return at->second;
  if (labels_ == nullptr) labels_ = std::make_unique<std::deque<std::string>>();
  labels_->emplace_back(label);
  const std::int64_t level = size();
  index_.emplace(labels_->back(), level);
  return level;
}

void LEVEL_TABLE::clear()
{
  index_.clear();
  labels_.reset();
}

}  // namespace tolvan
