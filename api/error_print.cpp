// The handler's store in print.
#include <cstdio>

#include "api/error_handler.h"
#include "base/text.h"

namespace tolvan {

namespace {

constexpr int integer_width = 12;

std::string_view letter(bool value)
{
  return value ? "T" : "F";
}

// head: the type of the first record of the block; number: the record's number in the store, from 1.
void print_record(const ERROR_MESSAGE& record, bool details, Etype head, std::int64_t number,
                  std::string& out)
{
  const bool bare = record.etype == Etype::continuation && head == Etype::info;
  const std::string_view prefix = bare ? "" : etype_prefix(record.etype);
  const std::string margin(prefix.size(), ' ');
  const bool internal = record.etype == Etype::internal;

  out += text(prefix, record.message.value_or(""));
  if ((internal || details) && !is_blank(record.routine))
    out += text(" (error thrown in ", record.routine, ")");
  out += '\n';

  if (internal || (record.last_in_block && details)) {
    const auto line = [&](std::string_view label, std::string_view value) {
      out += text(margin, label, value, "\n");
    };
    line("MSG ID   : ", edit_i(number, integer_width));
    line("CODE     : ", ecode_name(record.ecode));
    line("LOCATION : ", edit_i(record.location, integer_width));
    line("ID       : ", edit_i(record.id, integer_width));
    line("IV       : ", edit_i(record.iv, integer_width));
    line("RV      : ", edit_g(record.rv, 15, 8));  // sic: one column short
    line("ADJUSTED : ", letter(record.adjusted));
    line("TERMINATE: ", letter(record.terminate));
  }
  if (details) {
    out += "Stack Information:";
    out += record.stack.empty() ? " none available\n" : "\n";
    for (auto name = record.stack.rbegin(); name != record.stack.rend(); ++name) out += text(*name, "\n");
  }
}

}  // namespace

std::string ERROR_HANDLER::EH_PRINT_TEXT(bool details, bool summary, bool heading,
                                         std::optional<std::int64_t> location) const
{
  std::string out;
  if (summary) {
    out += text("Debug Level   : ", debug_text_, "\n");
    out += text("Terminate     : ", letter(terminate_), "\n");
    if (terminate_) {
      out += text("Terminated in : ", terminated_in_.value_or("<unspecified routine>"), "\n");
      out += text("Terminate etype: ", etype_name(terminate_etype_), "\n");
      out += text("Terminate code: ", ecode_name(terminate_code_), "\n");
    }
  }
  if (heading) out += "----\n";
  Etype head = Etype::not_set;
  bool first = true;
  for (std::int64_t number = 1; number <= count(); ++number) {
    const ERROR_MESSAGE& record = *EH_GET_MESSAGE(number);
    if (record.etype != Etype::continuation) head = record.etype;
    if (location && *location != not_given && *location != record.location) continue;
    if (record.etype == Etype::unused) continue;
    if (!first && record.etype != Etype::continuation) out += '\n';
    first = false;
    print_record(record, details, head, number, out);
  }
  return out;
}

void ERROR_HANDLER::EH_PRINT(bool details, bool summary, bool heading,
                             std::optional<std::int64_t> location) const
{
  const std::string out = EH_PRINT_TEXT(details, summary, heading, location);
  std::fwrite(out.data(), 1, out.size(), stdout);
}

}  // namespace tolvan
