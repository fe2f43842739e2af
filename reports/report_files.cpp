// Opening, filling and closing the report files of a run.  Routines: AIOPEN, OPENTXTCSV, WRITE_REPORT_FILES.
#include "reports/report_files.h"

#include "base/open_file.h"
#include "base/text.h"

namespace tolvan {

namespace {

constexpr std::int64_t separated_by_tabs = 1;  // values of slnform and yhtform; 0: aligned columns, below 0: no file

/// L_OPEN_REPORT: opens one of the family; what stood in it comes first where it is added to.
void L_OPEN_REPORT(ERROR_HANDLER& eh, const std::string& name, bool append, FileWriter& file)
{
  const Frame here{eh, __func__};
  std::string earlier, error;
  if (append && file_size(name) > 0 && !read_file(name, earlier, error)) {
    eh.error(text("unable to open file ", name), Ecode::io_error);
    eh.continuation(error);
    return;
  }
  if (OPEN_AND_CHECK_FILE(eh, name, file)) file.write(earlier);
}

/// L_COMMIT: puts a file in its place; the others are put in theirs whatever becomes of it.
void L_COMMIT(ERROR_HANDLER& eh, const std::string& name, FileWriter& file)
{
  const Frame here{eh, __func__};
  if (file.commit()) return;
  eh.error(text("unable to write file ", name), Ecode::io_error);
  eh.continuation(file.error());
}

/// A text in quotes, of which two stand for one.
std::string csv_quoted(std::string_view s)
{
  std::string out = "\"";
  for (const char c : s) {
    out += c;
    if (c == '"') out += c;
  }
  return out + '"';
}

/// One value between separators.
std::string plain_cell(const OUTPUT_TABLE& t, std::int64_t row, std::int64_t column, bool commas)
{
  switch (t.column(column).type) {
    case ColumnType::integer: {
      const std::int64_t value = t.integer(row, column);
      return value == not_given ? "NA" : text(value);
    }
    case ColumnType::real: {
      const double value = t.real(row, column);
      return is_no_value(value) ? "NA" : std::string(trim(edit_g(value, 16, 8)));
    }
    default: {
      const std::string& value = t.string(row, column);
      return commas && value.find_first_of(",\"\n") != std::string::npos ? csv_quoted(value) : value;
    }
  }
}

/// A table with a separator between its fields, the headings first; row by row, as there may be millions.
void write_separated(const OUTPUT_TABLE& t, char separator, FileWriter& file)
{
  std::string line;
  for (std::int64_t row = 0; row <= t.nrows; ++row) {
    line.clear();
    for (std::int64_t k = 1; k <= t.ncols(); ++k) {
      if (k > 1) line += separator;
      line += row == 0 ? t.column(k).heading : plain_cell(t, row, k, separator == ',');
    }
    line += '\n';
    if (!file.write(line)) return;
  }
}

/// L_WRITE_TABLE: the text form of a table, in the form that an option asks for.
void L_WRITE_TABLE(ERROR_HANDLER& eh, const OUTPUT_TABLE_STORE& store, std::string_view table, const std::string& stem,
                   std::string_view extension, std::int64_t form)
{
  const Frame here{eh, __func__};
  const OUTPUT_TABLE* t = store.find_table(table);
  if (t == nullptr || form < 0) return;
  FileWriter file;
  if (!OPENTXTCSV(eh, stem, extension, file)) return;
  if (form == 0) {
    constexpr std::int64_t one_block = 1000000;
    std::string printed;
    OTT_PRETTY_PRINT(eh, *t, printed, one_block);
    file.write(printed);
  } else {
    write_separated(*t, form == separated_by_tabs ? '\t' : ',', file);
  }
  L_COMMIT(eh, text(stem, '.', extension), file);
}

/// L_WRITE_EQUATIONS_OF_TERMS: the .cii file: the equations of the terms in C-inverse and, where terms were chosen, the elements.
void L_WRITE_EQUATIONS_OF_TERMS(ERROR_HANDLER& eh, const OUTPUT_TABLE_STORE& store, bool elements, const std::string& name)
{
  const Frame here{eh, __func__};
  const OUTPUT_TABLE* t = store.find_table("TABLE_CINV_INFO");
  if (t == nullptr) return;
  FileWriter file;
  if (!file.open(name)) {
    eh.error(text("unable to open file ", name, " for output"), Ecode::io_error);
    eh.continuation(file.error());
    return;
  }
  std::string printed;
  OTT_PRETTY_PRINT(eh, *t, printed);
  file.write(printed);
  if (const OUTPUT_TABLE* values = store.find_table("TABLE_CINV"); elements && values != nullptr) {
    file.write("\n");
    write_separated(*values, ' ', file);
  }
  L_COMMIT(eh, name, file);
}

/// One line an item, fields between tabs, numbers with all their digits: for programs that take results up.
std::string brief_dump(const RUN_REPORT& run)
{
  const OUTPUT_TABLE_STORE& store = run.store;
  std::string out = text("equations\tNEQ\t", run.terms.equations, "\nequations\tNEQD\t", run.order.dense, '\n');
  for (const auto& scalar : store.scalars) {
    out += text("scalar\t", scalar->name, '\t');
    if (scalar->type == ColumnType::integer) out += text(scalar->ival);
    if (scalar->type == ColumnType::real) out += text(scalar->rval);
    if (scalar->type == ColumnType::string) out += std::string(trim(scalar->sval));
    out += '\n';
  }
  for (const auto& [word, name] : {std::pair{"component", "TABLE_VARCOMP"}, {"effect", "TABLE_SLN"}}) {
    const OUTPUT_TABLE* t = store.find_table(name);
    for (std::int64_t row = 1; t != nullptr && row <= t->nrows; ++row) {
      out += word;
      for (std::int64_t k = 1; k <= t->ncols(); ++k) {
        out += '\t';
        switch (t->column(k).type) {
          case ColumnType::integer: out += text(t->integer(row, k)); break;
          case ColumnType::real: out += is_no_value(t->real(row, k)) ? "NA" : text(t->real(row, k)); break;
          default: out += t->string(row, k);
        }
      }
      out += '\n';
    }
  }
  return out;
}

/// L_AIDRPT_BRIEF_DUMP: the .vrb file.
void L_AIDRPT_BRIEF_DUMP(ERROR_HANDLER& eh, const RUN_REPORT& run, const std::string& stem)
{
  const Frame here{eh, __func__};
  FileWriter file;
  if (!OPENTXTCSV(eh, stem, "vrb", file)) return;
  file.write(brief_dump(run));
  L_COMMIT(eh, stem + ".vrb", file);
}

/// The packed triangle of the variances of variance parameters, in lines of (5G16.8).
std::string variances_text(const OUTPUT_TABLE_STORE& store)
{
  const OUTPUT_TABLE* t = store.find_table("TABLE_VARVAR");
  if (t == nullptr) return {};
  std::string out = text(t->titles.empty() ? "" : t->titles.front().text, '\n');
  for (std::int64_t k = 1; k <= t->nrows; ++k) {
    out += edit_g(t->real(k, 1), 16, 8);
    if (k % 5 == 0 || k == t->nrows) out += '\n';
  }
  return out;
}

/// L_ADD_WALD_TABLES: adds the tables of Wald tests at the end of the .aov file.
void L_ADD_WALD_TABLES(ERROR_HANDLER& eh, const RUN_REPORT& run, const std::string& stem)
{
  const Frame here{eh, __func__};
  std::string printed;
  for (const char* name : {"TABLE_STRATVAR", "TABLE_INCRWALD", "TABLE_CONDRWALD"}) {
    const OUTPUT_TABLE* t = run.store.find_table(name);
    if (t == nullptr) continue;
    OTT_PRETTY_PRINT(eh, *t, printed);
    printed += '\n';
  }
  if (printed.empty()) return;
  FileWriter file;
  L_OPEN_REPORT(eh, stem + ".aov", true, file);
  if (eh.terminate()) return;
  file.write(printed);
  L_COMMIT(eh, stem + ".aov", file);
}

}  // namespace

void AIOPEN(ERROR_HANDLER& eh, std::string_view mode, const std::string& root, const std::string& folder,
            REPORT_FILES& files)
{
  const Frame here{eh, __func__};
  files.stem = folder.empty() ? root : text(folder, folder.ends_with('/') ? "" : "/", root);
  const bool append = mode == "APPEND";
  struct Member {
    const char* extension;
    FileWriter& file;
    bool is_text;
  };
  for (const Member& each : {Member{".tlv", files.tlv, true}, Member{".vvp", files.vvp, true}, Member{".veo", files.veo, false},
                             Member{".res", files.res, true}}) {
    L_OPEN_REPORT(eh, files.stem + each.extension, append && each.is_text, each.file);
    if (eh.terminate()) return;
  }
  files.in_use = true;
  files.res.write(text(" === === === === Residual statistics for ", files.stem, ".tlv === === === ===\n"));
}

bool OPENTXTCSV(ERROR_HANDLER& eh, const std::string& stem, std::string_view extension, FileWriter& file)
{
  const Frame here{eh, __func__};
  return OPEN_AND_CHECK_FILE(eh, text(stem, '.', extension), file);
}

void WRITE_REPORT_FILES(ERROR_HANDLER& eh, const RUN_REPORT& run, REPORT_FILES& files)
{
  const Frame here{eh, __func__};
  if (!files.in_use) return;
  files.in_use = false;
  // Each file is tried: one that fails keeps none of the others back.
  const auto with_own = [&eh](auto&& write) {
    ERROR_HANDLER own;
    write(own);
    eh.EH_ADD_ALL(own);
  };
  if (run.fit.usable) {
    with_own([&](ERROR_HANDLER& own) { L_WRITE_TABLE(own, run.store, "TABLE_SLN", files.stem, "sln", run.options(Slot::slnform)); });
    with_own([&](ERROR_HANDLER& own) { L_WRITE_TABLE(own, run.store, "TABLE_YHT", files.stem, "yht", run.options(Slot::yhtform)); });
    with_own([&](ERROR_HANDLER& own) {
      L_WRITE_EQUATIONS_OF_TERMS(own, run.store, !run.options.inverse_terms.empty(), files.stem + ".cii");
    });
    with_own([&](ERROR_HANDLER& own) { L_WRITE_TABLE(own, run.store, "TABLE_KCV", files.stem, "kcv", 0); });
    if (run.options(Flag::vrb)) with_own([&](ERROR_HANDLER& own) { L_AIDRPT_BRIEF_DUMP(own, run, files.stem); });
    with_own([&](ERROR_HANDLER& own) { L_ADD_WALD_TABLES(own, run, files.stem); });
  }
  if (!run.summary.empty()) {
    with_own([&](ERROR_HANDLER& own) { WRITE_DATA_SUMMARY(own, files.stem + ".tvs", run.variables, run.summary); });
  }
  with_own([&](ERROR_HANDLER& own) {
    WRITE_RESIDUAL_REPORT(run.design, run.model, run.responses, run.store, files.res);
    L_COMMIT(own, files.stem + ".res", files.res);
  });
  with_own([&](ERROR_HANDLER& own) {
    files.vvp.write(variances_text(run.store));
    L_COMMIT(own, files.stem + ".vvp", files.vvp);
  });
  // Without an order the earlier file stays: the run may have ended before it knew its equations.
  if (!run.order.order.empty()) {
    with_own([&](ERROR_HANDLER& own) {
      files.veo.write(WRITE_EQUATION_ORDER(run.terms, run.order));
      L_COMMIT(own, files.stem + ".veo", files.veo);
    });
  }
  if (run.timing.process_log) {
    with_own([&](ERROR_HANDLER& own) {
      FileWriter log;
      if (!OPENTXTCSV(own, files.stem, "log", log)) return;
      log.write(run.timing.log_text);
      log.write(TMG_TABLE(run.timing, "END OF AIDATA_BODY"));
      L_COMMIT(own, files.stem + ".log", log);
    });
  }
  with_own([&](ERROR_HANDLER& own) {
    files.tlv.write(rest_of_primary_report(own, run, files));
    L_COMMIT(own, files.stem + ".tlv", files.tlv);
  });
}

}  // namespace tolvan
