// Dates and times of day: their texts as numbers.
#pragma once

#include <cstdint>
#include <string_view>

namespace tolvan {

/// The order of the parts of a date, found from the first one met.
enum class DateForm { unknown, day_first, month_first, year_first };
/// The letters of a form in the note about it.
std::string_view date_form_letters(DateForm form);

/// The day of a date, counted from 1900-01-01 as day 1 in the Gregorian calendar; false for a text that is no
/// date of the form.  Parts stand between '-' or '/', the month may be a name (Jan to Dec, any case); a year
/// from 33 to 199 adds 1900, one from 0 to 32 adds 2000.
///   form   unknown: set from this text
bool read_date(std::string_view s, DateForm& form, double& day);

/// The seconds of the day of hours:minutes[:seconds]; false for a text that is no time.
bool read_time(std::string_view s, double& seconds);

}  // namespace tolvan
