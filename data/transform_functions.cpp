#include "data/transform_functions.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "base/numbers.h"
#include "base/text.h"
#include "data/day_number.h"

namespace tolvan {

namespace {

using enum TransformCode;
using Arguments = TransformArguments;
using Family = TransformFamily;

constexpr double two_pi = 6.283185308;

// clang-format off
constexpr std::array catalogue = {
    TRANSFORM_ENTRY{"+",        add,                   Family::maths,     Arguments::operand},
    TRANSFORM_ENTRY{"-",        subtract,              Family::maths,     Arguments::operand},
    TRANSFORM_ENTRY{"*",        multiply,              Family::maths,     Arguments::operand},
    TRANSFORM_ENTRY{"/",        divide,                Family::maths,     Arguments::operand},
    TRANSFORM_ENTRY{"^",        power,                 Family::maths,     Arguments::operand},
    TRANSFORM_ENTRY{"<",        less,                  Family::maths,     Arguments::operand},
    TRANSFORM_ENTRY{"<=",       less_equal,            Family::maths,     Arguments::operand},
    TRANSFORM_ENTRY{">",        greater,               Family::maths,     Arguments::operand},
    TRANSFORM_ENTRY{">=",       greater_equal,         Family::maths,     Arguments::operand},
    TRANSFORM_ENTRY{"=",        equal,                 Family::maths,     Arguments::operand},
    TRANSFORM_ENTRY{"==",       equal,                 Family::maths,     Arguments::operand},
    TRANSFORM_ENTRY{"<>",       not_equal,             Family::maths,     Arguments::operand},
    TRANSFORM_ENTRY{"EXP",      exponential,           Family::function,  Arguments::none},
    TRANSFORM_ENTRY{"ABS",      absolute,              Family::function,  Arguments::none},
    TRANSFORM_ENTRY{"COS",      cosine,                Family::function,  Arguments::optional_value, two_pi},
    TRANSFORM_ENTRY{"SIN",      sine,                  Family::function,  Arguments::optional_value, two_pi},
    TRANSFORM_ENTRY{"SEQ",      sequence,              Family::function,  Arguments::none},
    TRANSFORM_ENTRY{"JDDM",     date_ddmm,             Family::function,  Arguments::none},
    TRANSFORM_ENTRY{"JMMD",     date_mmdd,             Family::function,  Arguments::none},
    TRANSFORM_ENTRY{"JYYM",     date_yymm,             Family::function,  Arguments::none},
    TRANSFORM_ENTRY{"JYYD",     date_yyddd,            Family::function,  Arguments::none},
    TRANSFORM_ENTRY{"MOD",      modulo,                Family::function,  Arguments::value},
    TRANSFORM_ENTRY{"MAX",      maximum,               Family::function,  Arguments::value},
    TRANSFORM_ENTRY{"MIN",      minimum,               Family::function,  Arguments::value},
    TRANSFORM_ENTRY{"NORMAL",   normal,                Family::function,  Arguments::value},
    TRANSFORM_ENTRY{"UNIFORM",  uniform,               Family::function,  Arguments::value},
    TRANSFORM_ENTRY{"DOM",      dominance,             Family::function,  Arguments::optional_value, 1.0},
    TRANSFORM_ENTRY{"ARCSIN",   arcsine,               Family::function,  Arguments::optional_value, 1.0},
    TRANSFORM_ENTRY{"ARCSINV",  arcsine_inverse,       Family::function,  Arguments::optional_value, 1.0},
    TRANSFORM_ENTRY{"SUB",      substitute,            Family::function,  Arguments::values},
    TRANSFORM_ENTRY{"SET",      set,                   Family::function,  Arguments::rising_values},
    TRANSFORM_ENTRY{"REPLACE",  replace,               Family::function,  Arguments::pairs},
    TRANSFORM_ENTRY{"RESCALE",  rescale,               Family::function,  Arguments::two_values},
    TRANSFORM_ENTRY{"SEED",     none,                  Family::function,  Arguments::value},
    TRANSFORM_ENTRY{"D",        drop_equal_or_missing, Family::miss_drop, Arguments::value_or_missing},
    TRANSFORM_ENTRY{"Dv",       drop_equal,            Family::miss_drop, Arguments::value},
    TRANSFORM_ENTRY{"D<",       drop_less,             Family::miss_drop, Arguments::value},
    TRANSFORM_ENTRY{"D<=",      drop_less_equal,       Family::miss_drop, Arguments::value},
    TRANSFORM_ENTRY{"D>",       drop_greater,          Family::miss_drop, Arguments::value},
    TRANSFORM_ENTRY{"D>=",      drop_greater_equal,    Family::miss_drop, Arguments::value},
    TRANSFORM_ENTRY{"D<>",      drop_not_equal,        Family::miss_drop, Arguments::value},
    TRANSFORM_ENTRY{"M",        miss_equal,            Family::miss_drop, Arguments::value},
    TRANSFORM_ENTRY{"M<",       miss_less,             Family::miss_drop, Arguments::value},
    TRANSFORM_ENTRY{"M<=",      miss_less_equal,       Family::miss_drop, Arguments::value},
    TRANSFORM_ENTRY{"M>",       miss_greater,          Family::miss_drop, Arguments::value},
    TRANSFORM_ENTRY{"M>=",      miss_greater_equal,    Family::miss_drop, Arguments::value},
    TRANSFORM_ENTRY{"M<>",      miss_not_equal,        Family::miss_drop, Arguments::value},
};
// clang-format on

/// A uniform draw from the 2^53 - 1 equally spaced numbers between 0 and 1, both excluded.
double uniform_draw(std::mt19937_64& random)
{
  while (true) {
    const std::uint64_t bits = random() >> 11U;
    if (bits != 0) return static_cast<double>(bits) * 0x1p-53;
  }
}

/// A standard normal draw from two uniform ones (Box and Muller 1958).
double normal_draw(std::mt19937_64& random)
{
  const double u = uniform_draw(random);
  const double v = uniform_draw(random);
  return std::sqrt(-2.0 * std::log(u)) * std::cos(2.0 * 3.14159265358979323846 * v);
}

/// The day number of a date written as one number; no year is 1900.
TransformOutcome date_of_number(TransformCode code, double x, double& result)
{
  if (!(x >= 1.0 && x < 1e9) || x != std::floor(x)) return TransformOutcome::invalid_date;
  auto n = static_cast<std::int64_t>(x);
  const auto year_of = [](std::int64_t given) { return given == 0 ? 1900 : full_year(given); };
  std::optional<std::int64_t> day;
  if (code == date_yyddd) {
    const std::int64_t of_year = n % 1000;
    const auto first = day_number(year_of(n / 1000), 1, 1);
    const auto next = day_number(year_of(n / 1000) + 1, 1, 1);
    if (first && next && of_year >= 1 && *first + of_year <= *next) day = *first + of_year - 1;
  } else if (code == date_yymm) {
    day = day_number(year_of(n / 10000), n / 100 % 100, n % 100);
  } else {
    std::int64_t year = 0;
    if (n >= 10000) {
      year = n % 10000;
      n /= 10000;
    }
    const std::int64_t a = n / 100;
    const std::int64_t b = n % 100;
    day = code == date_ddmm ? day_number(year_of(year), b, a) : day_number(year_of(year), a, b);
  }
  if (!day) return TransformOutcome::invalid_date;
  result = static_cast<double>(*day);
  return TransformOutcome::value;
}

/// 1 for the heterozygote and 0 for both homozygotes, markers being coded -1, 0, 1 or, with highest code 2,
/// 0, 1, 2; between the codes, as for imputed markers, linear in the first and quadratic in the second
/// coding.
TransformOutcome dominance_of(double x, double highest, double& result)
{
  const double lowest = highest == 2.0 ? 0.0 : -1.0;
  if (x < lowest || x > highest) return TransformOutcome::out_of_range;
  result = highest == 2.0 ? x * (2.0 - x) : 1.0 - std::abs(x);
  return TransformOutcome::value;
}

double truth(bool condition)
{
  return condition ? 1.0 : 0.0;
}

TransformOutcome drop_if(bool condition)
{
  return condition ? TransformOutcome::drop : TransformOutcome::value;
}

TransformOutcome missing_if(bool condition)
{
  return condition ? TransformOutcome::missing : TransformOutcome::value;
}

/// The operations that see missing values: those that look for them and those that keep them.
TransformOutcome treat_missing(TransformCode code, double x, double a, std::span<const double> values,
                               double& result)
{
  result = x;
  if (code == replace) {
    for (std::size_t k = 0; k + 1 < values.size(); k += 2) {
      if (x != values[k]) continue;
      result = values[k + 1];
      break;
    }
    return TransformOutcome::value;
  }
  if (is_no_value(x)) return drop_if(code == drop_missing || code == drop_equal_or_missing);
  switch (code) {
    case drop_equal_or_missing:
    case drop_equal:
      return drop_if(x == a);
    case drop_less:
      return drop_if(x < a);
    case drop_less_equal:
      return drop_if(x <= a);
    case drop_greater:
      return drop_if(x > a);
    case drop_greater_equal:
      return drop_if(x >= a);
    case drop_not_equal:
      return drop_if(x != a);
    case miss_equal:
      return missing_if(x == a);
    case miss_less:
      return missing_if(x < a);
    case miss_less_equal:
      return missing_if(x <= a);
    case miss_greater:
      return missing_if(x > a);
    case miss_greater_equal:
      return missing_if(x >= a);
    case miss_not_equal:
      return missing_if(x != a);
    default:
      return TransformOutcome::value;
  }
}

}  // namespace

const TRANSFORM_ENTRY* find_transformation(std::string_view name)
{
  const auto* const at =
      std::find_if(catalogue.begin(), catalogue.end(),
                   [name](const TRANSFORM_ENTRY& entry) { return equal_nocase(entry.name, name); });
  return at == catalogue.end() ? nullptr : at;
}

bool handles_missing(TransformCode code)
{
  return code == replace || code >= drop_missing;
}

TransformOutcome PDCODE(TRANSFORM_STEP& step, double x, double a, std::span<const double> values,
                        std::mt19937_64& random, double& result)
{
  if (handles_missing(step.code)) return treat_missing(step.code, x, a, values, result);
  switch (step.code) {
    case add:
      result = x + a;
      break;
    case subtract:
      result = x - a;
      break;
    case multiply:
      result = x * a;
      break;
    case divide:
      result = x / a;
      break;
    case power:
      result = std::pow(x, a);
      break;
    case less:
      result = truth(x < a);
      break;
    case less_equal:
      result = truth(x <= a);
      break;
    case greater:
      result = truth(x > a);
      break;
    case greater_equal:
      result = truth(x >= a);
      break;
    case equal:
      result = truth(x == a);
      break;
    case not_equal:
      result = truth(x != a);
      break;
    case exponential:
      result = std::exp(x);
      break;
    case absolute:
      result = std::abs(x);
      break;
    case cosine:
      result = std::cos(two_pi * x / a);
      break;
    case sine:
      result = std::sin(two_pi * x / a);
      break;
    case sequence:
      if (step.position == 0.0 || x != step.previous) step.position += 1.0;
      step.previous = x;
      result = step.position;
      break;
    case date_ddmm:
    case date_mmdd:
    case date_yymm:
    case date_yyddd:
      return date_of_number(step.code, x, result);
    case modulo:
      result = x - a * std::floor(x / a);
      break;
    case maximum:
      result = std::max(x, a);
      break;
    case minimum:
      result = std::min(x, a);
      break;
    case normal:
      result = x + std::sqrt(a) * normal_draw(random);
      break;
    case uniform:
      result = x + a * uniform_draw(random);
      break;
    case dominance:
      return dominance_of(x, a, result);
    case arcsine:
      result = std::asin(std::sqrt(x / a));
      break;
    case arcsine_inverse:
      result = a * std::sin(x) * std::sin(x);
      break;
    case substitute: {
      const auto at = std::find(values.begin(), values.end(), x);
      result = at == values.end() ? 0.0 : static_cast<double>(at - values.begin() + 1);
      break;
    }
    case set:
      if (!(x >= 1.0 && x <= static_cast<double>(values.size())) || x != std::floor(x))
        return TransformOutcome::missing;
      result = values[static_cast<std::size_t>(x) - 1];
      break;
    case rescale:
      result = (x + values[0]) * values[1];
      break;
    default:
      return TransformOutcome::undefined;
  }
  return std::isfinite(result) ? TransformOutcome::value : TransformOutcome::undefined;
}

}  // namespace tolvan
