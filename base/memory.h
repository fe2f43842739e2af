// Memory: the one place, besides the call frame of the exports, where a failed allocation is caught.
#pragma once

#include <cstdint>
#include <new>
#include <stdexcept>
#include <utility>
#include <vector>

#include "api/error_handler.h"

namespace tolvan {

/// Runs the work; false if memory was short.  What the work had half done is its own affair.
template <class Work>
bool attempt(Work&& work) noexcept
{
  try {
    std::forward<Work>(work)();
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  } catch (const std::length_error&) {
    return false;
  }
}

/// The product of two sizes; false if one is negative or the product does not fit.
inline bool multiply_sizes(std::int64_t a, std::int64_t b, std::int64_t& out)
{
  return a >= 0 && b >= 0 && !__builtin_mul_overflow(a, b, &out);
}

/// Gives the vector n elements, the new ones with the value; the memory message and false if there is no
/// room.
template <class T>
bool resize(ERROR_HANDLER& eh, std::vector<T>& a, std::int64_t n, const T& value = T())
{
  std::int64_t bytes = -1;
  const bool fits = multiply_sizes(n, static_cast<std::int64_t>(sizeof(T)), bytes);
  if (fits && attempt([&] { a.resize(static_cast<std::size_t>(n), value); })) return true;
  eh.out_of_memory(fits ? bytes : -1);
  return false;
}

/// Room for n elements, without making any.
template <class T>
bool reserve(ERROR_HANDLER& eh, std::vector<T>& a, std::int64_t n)
{
  std::int64_t bytes = -1;
  const bool fits = multiply_sizes(n, static_cast<std::int64_t>(sizeof(T)), bytes);
  if (fits && attempt([&] { a.reserve(static_cast<std::size_t>(n)); })) return true;
  eh.out_of_memory(fits ? bytes : -1);
  return false;
}

/// Makes n elements of the value, whatever was there before.
template <class T>
bool assign(ERROR_HANDLER& eh, std::vector<T>& a, std::int64_t n, const T& value = T())
{
  std::int64_t bytes = -1;
  const bool fits = multiply_sizes(n, static_cast<std::int64_t>(sizeof(T)), bytes);
  if (fits && attempt([&] { a.assign(static_cast<std::size_t>(n), value); })) return true;
  eh.out_of_memory(fits ? bytes : -1);
  return false;
}

/// The memory that this process may still take: what the machine has left, less if a control group or an
/// address-space limit allows less.  The largest integer where nothing can be read.
std::int64_t machine_memory_bytes();

}  // namespace tolvan
