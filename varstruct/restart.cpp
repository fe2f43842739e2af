// What a run takes from the files of an earlier one, and what it holds.  Routines: HANDLE_RSV_FILE, HOLD_PARAMETERS.
#include "base/text.h"
#include "varstruct/followers.h"
#include "varstruct/initial_values.h"
#include "varstruct/parameter_files.h"

namespace tolvan {

namespace {

constexpr std::string_view default_name = "*DEFAULT*";

bool is_table(std::string_view name)
{
  const std::string end = lower(name);
  return end.ends_with(".tsv") || end.ends_with(".msv") || end.ends_with(".esv");
}

/// The name of the file that an option asks for: as given, with the extension behind it, or in the folder of the run.
std::string find_file(const std::string& asked, std::string_view extension, const std::string& folder)
{
  for (const std::string& start : {std::string(), folder}) {
    for (const std::string_view end : {std::string_view(), extension}) {
      const std::string name = text(start, asked, end);
      if (file_size(name) >= 0) return name;
    }
  }
  return asked;
}

/// L_TAKE_UP: reads the file of one option.
///   extension   of the run's own file, which the option means without a name
void L_TAKE_UP(ERROR_HANDLER& eh, const FileOption& option, std::string_view extension, const TERM_TABLE& terms,
               PARAMETER_FILES& files, VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  const bool own = option.file == default_name;
  const std::string name = own ? text(files.base, extension) : find_file(option.file, extension, files.folder());
  const bool table = is_table(name) || (extension != ".rsv" && !lower(name).ends_with(".rsv"));
  if (!files.in_use) {
    eh.internal(text("attempting to call ", table ? "TSVIO_READ" : "AIDCON_RETRIEVE", " when there are no files to read from"));
    return;
  }
  // A table that the user keeps is written for him where none stands, and never again.
  const TableFile form = table_file_of(name);
  std::string* const kept = form == TableFile::msv ? &files.msv : form == TableFile::esv ? &files.esv : nullptr;
  if (file_size(name) < 0) {
    if (table && kept != nullptr) *kept = name;
    if (own || (table && kept != nullptr)) {
      eh.warning(text("failed to find ", name));
      eh.continuation("the initial values of the model stay");
    } else {
      eh.error(text("failed to find ", name), Ecode::io_error);
    }
    return;
  }
  if (!table) {
    AIDCON_RETRIEVE(eh, terms, name, files, model);
  } else if (!TSVIO_READ(eh, name, files, model)) {
    eh.continuation(text("Failed parsing .tsv ", name));
  }
}

}  // namespace

void HANDLE_RSV_FILE(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const TERM_TABLE& terms, PARAMETER_FILES& files,
                     VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  struct Source {
    const FileOption& option;
    std::string_view extension;
  };
  for (const Source& source : {Source{options.continue_from.asked ? options.continue_from : options.final_file, ".rsv"},
                               Source{options.tsv, ".tsv"}, Source{options.msv, ".msv"}}) {
    if (!source.option.asked) continue;
    L_TAKE_UP(eh, source.option, source.extension, terms, files, model);
    if (eh.terminate()) return;
  }
}

void HOLD_PARAMETERS(ERROR_HANDLER& eh, const FIT_OPTIONS& options, VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  for (const std::int64_t n : options.hold) {
    if (n < 1 || n > model.count()) {
      eh.error(text("the option hold names parameter ", n, ", the model has ", model.count()));
      return;
    }
    VARIANCE_PARAMETER& p = model.parameters[static_cast<std::size_t>(n - 1)];
    if (follows(p)) {
      eh.error(text("the option hold names parameter ", n, ", which follows parameter ", made_of(model, n - 1).front().of + 1));
      return;
    }
    if (!set_constraint(model, n - 1, Constraint::F)) {
      REFUSE_PROFILED_RESIDUAL(eh, p.label);
      return;
    }
  }
}

}  // namespace tolvan
