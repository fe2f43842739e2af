#include "pedigree/name_codes.h"

#include <functional>
#include <optional>

#include "base/text.h"

namespace tolvan {
namespace {

constexpr std::int64_t widest_window = 8;  // numbers of the range for each name that is expected
constexpr std::size_t first_slots = 1024;

/// The whole number that a name spells in its plain form: no sign but a minus, no leading zeros.
std::optional<std::int64_t> plain_number(std::string_view s)
{
  const std::size_t sign = s.starts_with('-') ? 1 : 0;
  if (s.size() == sign || s.size() > 19 || s[sign] < '0' || s[sign] > '9') return std::nullopt;
  if (s[sign] == '0' && s.size() > 1) return std::nullopt;
  std::int64_t value = 0;
  return read_integer(s, value) ? std::optional(value) : std::nullopt;
}

std::uint64_t hash_of(std::int64_t number)
{
  std::uint64_t x = static_cast<std::uint64_t>(number) * 0x9E3779B97F4A7C15ULL;
  return x ^ (x >> 32U);
}

}  // namespace

template <class Same>
std::int32_t NAME_CODES::look_up(std::vector<Slot>& slots, std::int64_t& held, std::uint64_t hash,
                                 Same&& same) const
{
  if (held == 0) return -1;
  const std::size_t mask = slots.size() - 1;
  for (std::size_t at = hash & mask; slots[at].code >= 0; at = (at + 1) & mask) {
    if (slots[at].hash == static_cast<std::uint32_t>(hash >> 16U) && same(slots[at].code))
      return slots[at].code;
  }
  return -1;
}

void NAME_CODES::store(std::vector<Slot>& slots, std::int64_t& held, std::uint64_t hash, std::int32_t code)
{
  const auto put = [](std::vector<Slot>& to, std::uint64_t h, Slot slot) {
    const std::size_t mask = to.size() - 1;
    std::size_t at = h & mask;
    while (to[at].code >= 0) at = (at + 1) & mask;
    to[at] = slot;
  };
  if (2 * (held + 1) > static_cast<std::int64_t>(slots.size())) {
    // The slots know only a part of the hash: the names give it anew.
    std::vector<Slot> wider(slots.empty() ? first_slots : 4 * slots.size());
    for (const Slot& slot : slots) {
      if (slot.code < 0) continue;
      const auto at = static_cast<std::size_t>(slot.code);
      put(wider,
          is_text_[at] ? std::hash<std::string_view>{}(texts_[static_cast<std::size_t>(value_[at])])
                       : hash_of(value_[at]),
          slot);
    }
    slots = std::move(wider);
  }
  put(slots, hash, {code, static_cast<std::uint32_t>(hash >> 16U)});
  ++held;
}

void NAME_CODES::expect_numbers(std::int64_t low, std::int64_t high, std::int64_t names)
{
  std::int64_t range = 0;
  if (size() > 0 || __builtin_sub_overflow(high, low, &range) || range < 0 || range / widest_window > names)
    return;
  window_.assign(static_cast<std::size_t>(range) + 1, -1);
  low_ = low;
  value_.reserve(static_cast<std::size_t>(names));
  is_text_.reserve(static_cast<std::size_t>(names));
}

std::int32_t NAME_CODES::add(std::int64_t number)
{
  const auto fresh = static_cast<std::int32_t>(value_.size());
  std::int64_t at = 0;
  if (!__builtin_sub_overflow(number, low_, &at) && at >= 0 &&
      at < static_cast<std::int64_t>(window_.size())) {
    std::int32_t& code = window_[static_cast<std::size_t>(at)];
    if (code >= 0) return code;
    value_.push_back(number);
    is_text_.push_back(false);
    return code = fresh;
  }
  const std::uint64_t hash = hash_of(number);
  const std::int32_t known = look_up(number_slots_, numbers_held_, hash, [&](std::int32_t code) {
    return value_[static_cast<std::size_t>(code)] == number;
  });
  if (known >= 0) return known;
  value_.push_back(number);
  is_text_.push_back(false);
  store(number_slots_, numbers_held_, hash, fresh);
  return fresh;
}

std::int32_t NAME_CODES::add(std::string_view name)
{
  name = trim(name);
  if (const auto number = plain_number(name)) return add(*number);
  const std::uint64_t hash = std::hash<std::string_view>{}(name);
  const std::int32_t known = look_up(text_slots_, texts_held_, hash, [&](std::int32_t code) {
    return texts_[static_cast<std::size_t>(value_[static_cast<std::size_t>(code)])] == name;
  });
  if (known >= 0) return known;
  const auto fresh = static_cast<std::int32_t>(value_.size());
  value_.push_back(static_cast<std::int64_t>(texts_.size()));
  is_text_.push_back(true);
  texts_.emplace_back(name);
  store(text_slots_, texts_held_, hash, fresh);
  return fresh;
}

std::string NAME_CODES::name(std::int32_t code) const
{
  const auto at = static_cast<std::size_t>(code);
  return is_text_[at] ? texts_[static_cast<std::size_t>(value_[at])] : text(value_[at]);
}

void NAME_CODES::close()
{
  std::vector<std::int32_t>().swap(window_);
  std::vector<Slot>().swap(number_slots_);
  std::vector<Slot>().swap(text_slots_);
  numbers_held_ = texts_held_ = 0;
}

}  // namespace tolvan
