// How a run ended, in a flag and in words.  Routine: WARNING.
#include "base/text.h"
#include "reports/result_tables.h"

namespace tolvan {

namespace {

constexpr std::int64_t terminated_early = 1;

/// A text taken apart: the kind of message that its first word names, and what follows behind the ':'.
struct Words {
  std::optional<Etype> kind;
  std::string_view rest;
};

Words take_kind(std::string_view status)
{
  const std::string_view whole = trim(status);
  const std::size_t end = whole.find_first_of(" :");
  const std::string first = upper(whole.substr(0, end));
  std::optional<Etype> kind;
  if (first == "WARNING") kind = Etype::warning;
  if (first == "ERROR") kind = Etype::error;
  if (first == "NOTE") kind = Etype::note;
  if (first == "NOTICE") kind = Etype::notice;
  if (!kind) return {{}, whole};
  std::string_view rest = end == std::string_view::npos ? std::string_view{} : trim(whole.substr(end));
  if (rest.starts_with(':')) rest = trim(rest.substr(1));
  return {kind, rest};
}

bool holds(std::string_view status, std::string_view words)
{
  return status.find(words) != std::string_view::npos;
}

}  // namespace

void WARNING(ERROR_HANDLER& eh, std::string_view status, std::int64_t convergence_flag,
             OUTPUT_TABLE_STORE& store)
{
  const Frame here{eh, __func__};
  const bool stopped = convergence_flag == terminated_early && !holds(status, "LogL Converged");
  std::string_view message = status;
  if (stopped) {
    message = holds(status, "Forming Design Matrices")  ? "Terminated early whilst forming design matrices"
              : holds(status, "Finished Preprocessing") ? "Terminated early whilst preprocessing"
                                                        : "Terminated early";
  }
  // What stopped a run has been told already.
  const Words words = take_kind(status);
  if (words.kind && !words.rest.empty() && !stopped) {
    eh.EH_ADD_MESSAGE({.text = std::string(words.rest), .etype = *words.kind, .terminate = false});
  }
  OTST_SAVE_SCALAR_INTEGER(eh, store, "SCALAR_CONVERGENCE_FLG", convergence_flag);
  OTST_SAVE_SCALAR_STRING(eh, store, "SCALAR_FINAL_MESSAGE", message);
}

}  // namespace tolvan
