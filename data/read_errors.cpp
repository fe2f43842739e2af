#include "data/read_errors.h"

#include <algorithm>

#include "base/text.h"
#include "data/label_text.h"
#include "data/level_coding.h"

namespace tolvan {

namespace {

constexpr std::int64_t longest_excerpt = 72;
constexpr std::size_t most_values = 20;

std::string cause(const READ_FAULT& fault, const VARIABLE& variable)
{
  const std::string field = text("variable ", variable.name, ": \"", excerpt(fault.content), "\" ");
  switch (fault.kind) {
    case READ_FAULT::Kind::no_number:
      return field + "is not a number";
    case READ_FAULT::Kind::not_finite:
      return field + "is not a finite number";
    case READ_FAULT::Kind::no_level:
      return text(field, "is not a level, levels are whole numbers from ", variable.indexed_from);
    case READ_FAULT::Kind::level_too_large:
      return text(field, "is too large for a level, at most ", most_levels);
    case READ_FAULT::Kind::no_label:
      return field + "is neither a whole number nor a factor label";
    case READ_FAULT::Kind::too_few_fields:
      return text("variable ", variable.name, ": the line has too few fields");
    case READ_FAULT::Kind::none:
    case READ_FAULT::Kind::open_quote:
      break;
  }
  return {};
}

/// A text with a letter in front could be meant as a label.
bool looks_like_label(std::string_view field)
{
  return !field.empty() && ((field[0] >= 'a' && field[0] <= 'z') || (field[0] >= 'A' && field[0] <= 'Z'));
}

}  // namespace

std::string excerpt(std::string_view line)
{
  const std::string_view kept = cut_label(line, longest_excerpt);
  std::string shown(kept);
  for (char& c : shown) {
    if (static_cast<unsigned char>(c) < 0x20U || c == 0x7F) c = '?';
  }
  if (kept.size() < line.size()) shown += " ...";
  return shown;
}

void REPORT_DATA_READING_ERRORS_AND_WARNINGS(ERROR_HANDLER& eh, const READ_FAULT& fault, std::int64_t record,
                                             const VARIABLE_TABLE& variables, std::span<const double> values,
                                             DATA_LINES& lines)
{
  const Frame here{eh, __func__};
  const std::int64_t line_number = lines.number;
  const std::string context = excerpt(lines.line);
  if (fault.kind == READ_FAULT::Kind::open_quote) {
    eh.error("unexpected LineFeed character in character string");
    eh.continuation(text("at character ", fault.character, " of line ", line_number));
    eh.continuation("you probably need to convert the file from Unix ASCII to PC ASCII format");
    eh.continuation(text("context of read error: ", context));
    return;
  }
  const VARIABLE& variable = variables.rows[fault.variable];
  eh.error(text("error at field [", fault.field, "] of record ", record, " [line ", line_number));  // sic
  eh.continuation(cause(fault, variable));
  if (fault.kind == READ_FAULT::Kind::level_too_large) {
    eh.continuation(text("increase the number of levels declared for factor ", variable.name,
                         " and any other large factors"));
  }
  const bool wants_number =
      fault.kind == READ_FAULT::Kind::no_number || fault.kind == READ_FAULT::Kind::no_level;
  if (wants_number && looks_like_label(fault.content)) {
    eh.continuation(text("Maybe you want !A !L qualifiers for this factor: ", variable.name));
  }
  if (record == 1)
    eh.continuation("since this is the first data record you may need to skip some header lines");
  if (!values.empty()) {
    eh.continuation("values read before read error:");
    std::string read;
    for (const double x : values.subspan(values.size() - std::min(values.size(), most_values))) {
      read += is_no_value(x) ? std::string(" NA") : text(" ", x);
    }
    eh.continuation(read);
  }
  eh.continuation(text("context of read error: ", context));

  std::string_view rest;
  std::int64_t remaining = 0;
  if (lines.file.next_line(rest)) {
    eh.continuation(text("next data line beings: ", excerpt(rest)));  // sic
    for (remaining = 1; lines.file.next_line(rest); ++remaining) {
    }
  }
  eh.error(text("data input was aborted after reading ", record - 1, " records, ", remaining,
                " lines remain in the data file"));
}

}  // namespace tolvan
