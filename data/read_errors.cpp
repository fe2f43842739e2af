#include "data/read_errors.h"

#include <algorithm>
#include <vector>

#include "base/text.h"
#include "data/label_text.h"
#include "data/level_coding.h"

namespace tolvan {

namespace {

using Fault = READ_FAULT::Kind;

constexpr std::int64_t longest_excerpt = 72;
constexpr std::size_t most_values = 20;

/// A text with a letter in front could be meant as a label.
bool looks_like_label(std::string_view field)
{
  return !field.empty() && ((field[0] >= 'a' && field[0] <= 'z') || (field[0] >= 'A' && field[0] <= 'Z'));
}

/// Words that other programs write for a missing value.
bool means_missing(std::string_view field)
{
  constexpr std::string_view words[] = {"nan", "n/a", "na", "#n/a", "null", "none", "missing", "-", "?"};
  return std::any_of(std::begin(words), std::end(words), [field](std::string_view word) { return equal_nocase(field, word); });
}

/// The last values of the record before the field of the fault; empty without any.
std::string values_before(const READ_FAULT& fault, const FIELD_MAP& fields, std::span<const double> row)
{
  std::vector<double> before;
  const auto end = std::min(static_cast<std::size_t>(fault.field - 1), fields.fields());
  for (std::size_t f = 0; f < end; ++f) {
    for (std::size_t v = fields.first_variable[f]; v != no_variable; v = fields.next_variable[v])
      before.push_back(row[v]);
  }
  std::string read;
  for (std::size_t k = before.size() - std::min(before.size(), most_values); k < before.size(); ++k) {
    read += is_no_value(before[k]) ? std::string(" NA") : text(" ", before[k]);
  }
  return read;
}

/// L_TELL_FAULT: the message itself, by the kind of the fault.
void L_TELL_FAULT(ERROR_HANDLER& eh, const READ_FAULT& fault, const VARIABLE_TABLE& variables,
                  const DATA_LINES& lines)
{
  const Frame here{eh, __func__};
  if (fault.kind == Fault::no_date || fault.kind == Fault::no_time) {
    eh.error(
        text("Invalid ", fault.kind == Fault::no_date ? "DATE" : "TIME", " string ", excerpt(fault.content)));
    eh.error(text("error parsing !DATE (!TIME) field ", fault.field, " of record ", lines.record));
  } else if (fault.kind == Fault::no_identity) {
    eh.error(text(excerpt(fault.content), " was not present in the pedigree"));
    eh.continuation(text("this identifier label for ", variables.rows[fault.variable].name,
                         " does not appear to be in the Pedigree file"));
  }
  eh.error(
      text("error at field [", fault.field, "] of record ", lines.record, " [line ", lines.number));  // sic
  eh.continuation(text("of ", lines.name(), ", ", fault_words(fault, variables)));
  if (fault.variable == no_variable) return;
  const std::string& name = variables.rows[fault.variable].name;
  if (fault.kind == Fault::level_too_large) {
    eh.continuation(
        text("increase the number of levels declared for factor ", name, " and any other large factors"));
  }
  const bool unreadable = fault.kind == Fault::no_number || fault.kind == Fault::no_level;
  if (unreadable && looks_like_label(fault.content)) {
    eh.continuation(text("Maybe you want !A !L qualifiers for this factor: ", name));
  }
  if ((unreadable || fault.kind == Fault::not_finite) && means_missing(fault.content)) {
    eh.continuation("a missing value is NA, na, * or .");
  }
  if (fault.content.find('\r') != std::string::npos) {
    eh.continuation("the line holds a carriage return; lines must end in line feeds");
  }
}

}  // namespace

std::string fault_words(const READ_FAULT& fault, const VARIABLE_TABLE& variables)
{
  if (fault.variable == no_variable) return "the filter: the record has too few fields";
  const VARIABLE& variable = variables.rows[fault.variable];
  const std::string field = text("variable ", variable.name, ": \"", excerpt(fault.content), "\" ");
  switch (fault.kind) {
    case Fault::no_number:
      return field + "is not a number";
    case Fault::not_finite:
      return field + "is not a finite number";
    case Fault::no_level:
      if (variable.type == FieldType::integer_factor) return field + "is not a level, levels are whole numbers";
      return text(field, "is not a level, levels are whole numbers from ", variable.indexed_from);
    case Fault::level_too_large:
      return text(field, "is too large for a level, at most ", most_levels);
    case Fault::no_label:
      return field + "is neither a whole number nor a factor label";
    case Fault::no_identity:
      return field + "is not in the pedigree";
    case Fault::no_date:
      return field + "is not a date of the form in use";
    case Fault::no_time:
      return field + "is not a time of day";
    case Fault::too_few_fields:
      return text("variable ", variable.name, ": the line has too few fields");
    case Fault::none:
    case Fault::open_quote:
      break;
  }
  return {};
}

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

void REPORT_DATA_READING_ERRORS_AND_WARNINGS(ERROR_HANDLER& eh, const READ_FAULT& fault,
                                             const VARIABLE_TABLE& variables, const FIELD_MAP& fields,
                                             std::span<const double> row, DATA_LINES& lines)
{
  const Frame here{eh, __func__};
  const std::string context = excerpt(lines.line);
  if (fault.kind == Fault::open_quote) {
    eh.error("unexpected LineFeed character in character string");
    eh.continuation(text("at character ", fault.character, " of line ", lines.number));
    eh.continuation("you probably need to convert the file from Unix ASCII to PC ASCII format");
    eh.continuation(text("at ", lines.place()));
    eh.continuation(text("context of read error: ", context));
    return;
  }
  L_TELL_FAULT(eh, fault, variables, lines);
  if (lines.record == 1)
    eh.continuation("since this is the first data record you may need to skip some header lines");
  if (const std::string read = values_before(fault, fields, row); !read.empty()) {
    eh.continuation("values read before read error:");
    eh.continuation(read);
  }
  eh.continuation(text("context of read error: ", context));

  FileReader& file = lines.sources.back().file;
  std::string_view rest;
  std::int64_t remaining = 0;
  if (file.next_line(rest)) {
    eh.continuation(text("next data line beings: ", excerpt(rest)));  // sic
    for (remaining = 1; file.next_line(rest); ++remaining) {
    }
  }
  eh.error(text("data input was aborted after reading ", lines.record - 1, " records, ", remaining,
                " lines remain in the data file"));
}

}  // namespace tolvan
