// The labels of one factor: level numbers from 1, found by hashing with open addresses.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

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
  const std::string& label(std::int64_t level) const
  {
    return (*labels_)[static_cast<std::size_t>(level - 1)];
  }
  void clear();

 private:
  /// A place of the index: a part of the label's hash and its level, 0 where the place is free.
  struct Slot {
    std::uint32_t hash = 0;
    std::uint32_t level = 0;
  };
  std::size_t place(std::string_view label, std::uint64_t hash) const;
  void grow();

  // Held by a pointer since moving a deque allocates, and may so fail.
  std::unique_ptr<std::deque<std::string>> labels_;
  std::vector<Slot> slots_;  // a power of two of them, at most half in use
};

}  // namespace tolvan
