// The number types and marks that every subsystem shares.
#pragma once

#include <cmath>
#include <cstdint>

namespace tolvan {

/// A single-precision constant, as the double it widens to.
constexpr double wide(float x)
{
  return x;
}
static_assert(wide(0.9f) == 0.8999999761581421);

/// The missing value of data and the "no value" mark of every real array of a fit.  Never enters arithmetic.
inline constexpr double no_value = -1e-37;
/// An integer argument that was not given.
inline constexpr std::int64_t not_given = -987654;
/// The value of an argument or option that was named without a value.
inline constexpr const char* no_value_supplied = "NoValueSupplied";

inline bool is_no_value(double x)
{
  return x == no_value;
}

}  // namespace tolvan
