// The distinct names of a pedigree, numbered from 0 in order of first appearance.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tolvan {

/// Names and their codes.  A name that spells a whole number is kept as that number, so that 7 and "7" are
/// one name; all others are kept as texts.  Blanks around a name do not count.  Nothing here reports: a lack
/// of memory is thrown and caught by the caller, as everywhere through attempt().
class NAME_CODES {
 public:
  /// The code of a name, new if need be.
  std::int32_t add(std::int64_t number);
  std::int32_t add(std::string_view name);
  std::int64_t size() const { return static_cast<std::int64_t>(value_.size()); }
  std::string name(std::int32_t code) const;

  /// Says that most names will be numbers from low to high: they are then looked up without hashing.  Only
  /// ahead of the first name, and only obeyed where the range is not much wider than the number of names.
  void expect_numbers(std::int64_t low, std::int64_t high, std::int64_t names);
  /// Frees what only add() needs.
  void close();

 private:
  struct Slot {
    std::int32_t code = -1;
    std::uint32_t hash = 0;
  };
  template <class Same>
  std::int32_t look_up(std::vector<Slot>& slots, std::int64_t& held, std::uint64_t hash, Same&& same) const;
  void store(std::vector<Slot>& slots, std::int64_t& held, std::uint64_t hash, std::int32_t code);

  std::vector<std::int64_t> value_;  // of each code: the number, or the place in texts_
  std::vector<bool> is_text_;
  std::vector<std::string> texts_;
  std::vector<std::int32_t> window_;  // codes of the numbers from low_ on, -1 where not met
  std::int64_t low_ = 0;
  std::vector<Slot> number_slots_, text_slots_;  // open addressing, a power of two long
  std::int64_t numbers_held_ = 0, texts_held_ = 0;
};

}  // namespace tolvan
