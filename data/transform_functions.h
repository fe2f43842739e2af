// The transformations by name, and the operation of each on one value.  Routine: PDCODE.
#pragma once

#include <cstdint>
#include <limits>
#include <random>
#include <span>
#include <string_view>

namespace tolvan {

/// The operations.
enum class TransformCode {
  none,  // acts when it is compiled
  add,
  subtract,
  multiply,
  divide,
  power,
  less,
  less_equal,
  greater,
  greater_equal,
  equal,
  not_equal,
  exponential,
  absolute,
  cosine,
  sine,
  sequence,
  date_ddmm,
  date_mmdd,
  date_yymm,
  date_yyddd,
  modulo,
  maximum,
  minimum,
  normal,
  uniform,
  dominance,
  arcsine,
  arcsine_inverse,
  substitute,
  set,
  replace,
  rescale,
  drop_missing,
  drop_equal_or_missing,
  drop_equal,
  drop_less,
  drop_less_equal,
  drop_greater,
  drop_greater_equal,
  drop_not_equal,
  miss_equal,
  miss_less,
  miss_less_equal,
  miss_greater,
  miss_greater_equal,
  miss_not_equal,
  last = miss_not_equal
};

enum class TransformFamily { maths, function, miss_drop };

/// What a transformation takes.
enum class TransformArguments {
  none,
  value,           // a number
  optional_value,  // a number or nothing
  operand,         // a number or a variable
  two_values,
  values,            // any number of numbers, at least one
  rising_values,     // the same, strictly increasing
  pairs,             // numbers or missing marks, an even number of them
  value_or_missing,  // a number or the missing mark
};

struct TRANSFORM_ENTRY {
  std::string_view name;
  TransformCode code = TransformCode::none;
  TransformFamily family = TransformFamily::maths;
  TransformArguments arguments = TransformArguments::none;
  double otherwise = 0.0;  // the value where none is given
};

/// The entry of a name, in any case; null for a name that is none.
const TRANSFORM_ENTRY* find_transformation(std::string_view name);

/// One operation on a record:  row[target] = operation(row[source], argument).
struct TRANSFORM_STEP {
  TransformCode code = TransformCode::none;
  std::size_t source = 0;  // columns of the working row, from 0
  std::size_t target = 0;
  static constexpr std::size_t no_column = std::numeric_limits<std::size_t>::max();
  std::size_t operand = no_column;  // the column of the argument where that is a variable
  double number = 0.0;              // the argument where that is a number
  std::size_t first_value = 0;      // of a list of arguments, in the store of the program
  std::size_t value_count = 0;
  std::string_view name = {};  // of the transformation

  std::int64_t undefined = 0;  // results that do not exist, and became missing
  double previous = 0.0;       // sequence: the source of the record before
  double position = 0.0;       // sequence: the number reached, 0 before the first record
};

/// What an operation makes of a value.
enum class TransformOutcome { value, missing, undefined, drop, invalid_date, out_of_range };

/// PDCODE: one operation on a value x with its argument a; x and a are missing at most for the operations
/// that know what to do then.
///   step     the state of a sequence is brought forward
///   values   the arguments of an operation that takes a list
///   random   the generator of the run
TransformOutcome PDCODE(TRANSFORM_STEP& step, double x, double a, std::span<const double> values,
                        std::mt19937_64& random, double& result);

/// Whether an operation drops records and changes nothing.
constexpr bool drops_records(TransformCode code)
{
  return code >= TransformCode::drop_missing && code <= TransformCode::drop_not_equal;
}
/// Whether an operation looks at missing values itself; for others a missing value gives a missing result.
bool handles_missing(TransformCode code);

}  // namespace tolvan
