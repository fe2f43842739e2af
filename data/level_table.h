// The labels of one factor: level numbers from 1, found by hashing.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

namespace tolvan {

/// Labels in level order with their index.  Copying rebuilds the index.
class LEVEL_TABLE {
 public:
  LEVEL_TABLE() = default;
  LEVEL_TABLE(const LEVEL_TABLE& other);
  LEVEL_TABLE& operator=(const LEVEL_TABLE& other);
  LEVEL_TABLE(LEVEL_TABLE&&) noexcept = default;
  LEVEL_TABLE& operator=(LEVEL_TABLE&&) noexcept = default;

  std::int64_t size() const { return labels_ == nullptr ? 0 : static_cast<std::int64_t>(labels_->size()); }
  /// The level of a label, 0 when it has none.
  std::int64_t find(std::string_view label) const;
  /// The level of a label, added behind the last when it is new.
  std::int64_t find_or_add(std::string_view label);
  /// The label of a level from 1 to size().
  const std::string& label(std::int64_t level) const { return (*labels_)[static_cast<std::size_t>(level - 1)]; }
  void clear();

 private:
  // Addresses stay while levels are added; held by a pointer since moving a deque allocates, and may so fail.
  std::unique_ptr<std::deque<std::string>> labels_;
  std::unordered_map<std::string_view, std::int64_t> index_;
};

}  // namespace tolvan
