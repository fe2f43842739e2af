// Random numbers: the four-fold congruential generator of Wichmann & Hill (2006), Computational Statistics & Data Analysis 51.
#pragma once

#include <array>
#include <cmath>
#include <cstdint>

namespace tolvan {

/// The seeds of a run that names none.
inline constexpr std::array<std::int64_t, 4> default_seeds{123456789, 362436069, 521288629, 88675123};

/// Uniform and normal numbers; the same seeds give the same numbers on every machine.  Period about 2^121.
class WICHMANN_HILL {
 public:
  explicit WICHMANN_HILL(const std::array<std::int64_t, 4>& seeds) : state_(seeds) {}
  /// A stream of its own for each number.
  explicit WICHMANN_HILL(std::int64_t seed)
  {
    // Every seed goes through the modulus, which gives 1 to modulus - 1; the streams part within the first few numbers.
    for (std::size_t k = 0; k < 4; ++k) {
      const std::uint64_t mixed = static_cast<std::uint64_t>(default_seeds[k]) + static_cast<std::uint64_t>(seed) * (2 * k + 1);
      state_[k] = 1 + static_cast<std::int64_t>(mixed % static_cast<std::uint64_t>(modulus[k] - 1));
    }
    for (int k = 0; k < 10; ++k) uniform();
  }
  /// Above 0 and below 1.
  double uniform()
  {
    double sum = 0.0;
    for (std::size_t k = 0; k < 4; ++k) {
      state_[k] = state_[k] * multiplier[k] % modulus[k];
      sum += static_cast<double>(state_[k]) / static_cast<double>(modulus[k]);
    }
    const double u = sum - std::floor(sum);
    return u > 0.0 ? u : uniform();
  }
  /// Standard normal (Marsaglia & Bray 1964); the second of each pair is kept for the next call.
  double normal()
  {
    if (has_spare_) {
      has_spare_ = false;
      return spare_;
    }
    double x = 0.0, y = 0.0, square = 0.0;
    do {
      x = 2.0 * uniform() - 1.0;
      y = 2.0 * uniform() - 1.0;
      square = x * x + y * y;
    } while (square >= 1.0 || square == 0.0);
    const double by = std::sqrt(-2.0 * std::log(square) / square);
    spare_ = y * by;
    has_spare_ = true;
    return x * by;
  }
  /// 0 to n - 1.
  std::int64_t below(std::int64_t n) { return static_cast<std::int64_t>(uniform() * static_cast<double>(n)); }

 private:
  static constexpr std::array<std::int64_t, 4> multiplier{11600, 47003, 23000, 33000};
  static constexpr std::array<std::int64_t, 4> modulus{2147483579, 2147483543, 2147483423, 2147483123};
  std::array<std::int64_t, 4> state_{};
  double spare_ = 0.0;
  bool has_spare_ = false;
};

}  // namespace tolvan
