// The text of the primary report, and the listing of the model in it.  Routine: PRTERRTXT.
#include <algorithm>

#include "api/version.h"
#include "base/text.h"
#include "reports/report_files.h"
#include "varstruct/model_catalogue.h"

namespace tolvan {

namespace {

std::string padded(std::string_view s, std::size_t width)
{
  std::string out(s);
  if (out.size() < width) out.resize(width, ' ');
  return out;
}

/// The widest of some names, at least a given width.
template <class Rows, class Name>
std::size_t widest(const Rows& rows, std::size_t least, Name name)
{
  for (const auto& row : rows) least = std::max<std::size_t>(least, name(row).size());
  return least;
}

std::string_view model_name(const STRUCTURE_ROW& row)
{
  const auto k = static_cast<std::size_t>(std::max<std::int64_t>(row.selector, 0));
  return rtrim(k < component_models.size() ? component_models[k].name : std::string_view("?"));
}

/// The common beginning of the labels of a row's parameters: its structure in words.
std::string row_label(const VARIANCE_MODEL& model, const STRUCTURE_ROW& row)
{
  if (row.parameters < 1 || row.first < 0 || row.first >= model.count()) return {};
  const std::string& label = model.parameters[static_cast<std::size_t>(row.first)].label;
  return label.substr(0, label.find(';'));
}

std::string values_line(const VARIANCE_MODEL& model, std::int64_t first, std::int64_t count)
{
  constexpr std::int64_t most = 5;
  std::string out;
  for (std::int64_t i = first; i < first + std::min(count, most); ++i) {
    const VARIANCE_PARAMETER& p = model.parameters[static_cast<std::size_t>(i)];
    out += text(' ', edit_g(p.start, 11, 4), ' ', constraint_letters[static_cast<std::size_t>(p.constraint)]);
  }
  if (count > most) out += " ...";
  return out;
}

void heading(std::string& out, std::string_view words)
{
  out += text('\n', words, '\n', std::string(words.size(), '-'), '\n');
}

void add_table(ERROR_HANDLER& eh, const OUTPUT_TABLE_STORE& store, std::string_view name, std::string& out)
{
  const OUTPUT_TABLE* t = store.find_table(name);
  if (t == nullptr) return;
  constexpr std::int64_t wide_line = 132;
  std::string printed;
  OTT_PRETTY_PRINT(eh, *t, printed, wide_line);
  out += text('\n', printed);
}

/// The messages behind the first so many.
std::string messages_text(const ERROR_HANDLER& messages, std::size_t from)
{
  ERROR_HANDLER part;
  part.EH_ADD_ALL(messages, from);
  return part.EH_PRINT_TEXT();
}

constexpr std::size_t most_levels_counted = 60;

/// Title, comments, messages so far, data, model.
std::string head_text(const RUN_REPORT& run)
{
  std::string out = text("tolvan ", version_tag, '\n');
  if (!is_blank(run.title)) out += text(' ', run.title, '\n');
  for (const std::string& line : run.comments) out += text(' ', line, '\n');
  if (run.messages.count() > 0) {
    heading(out, "Messages");
    out += messages_text(run.messages, 0);
  }
  if (!run.summary.empty()) {
    heading(out, "Data");
    ERROR_HANDLER own;
    out += AIDDIS(own, run.variables, run.summary, most_levels_counted);
    for (const VARIABLE_SUMMARY& each : run.summary) {
      if (each.level_counts.size() <= most_levels_counted) continue;
      out += text("\n The counts of factors of more than ", most_levels_counted, " levels are in the .tvs file.\n");
      break;
    }
  }
  if (!run.terms.rows.empty()) {
    heading(out, "Model");
    out += PRTERRTXT(run.terms, run.model);
  }
  return out;
}

/// The scalars of the fit.  Where each section has variances of its own, or the residual a matrix, there is no one residual
/// variance to tell: the scalar is then 1.
std::string scalars_text(const RUN_REPORT& run)
{
  const bool one_variance = run.model.profiled || run.model.residual_parameter >= 0;
  struct Line {
    const char* name;
    const char* words;
  };
  std::string out;
  for (const Line& line : {Line{"SCALAR_LOGLIK", "LogL"}, Line{"SCALAR_DF", "Residual degrees of freedom"},
                           Line{"SCALAR_SIGMA2", "Residual variance"}, Line{"SCALAR_AIC", "Akaike information criterion"},
                           Line{"SCALAR_AIC_NPARAM", "  with variance parameters"},
                           Line{"SCALAR_BIC", "Bayesian information criterion"}, Line{"SCALAR_DETC", "log|C|"}}) {
    const OUTPUT_SCALAR* scalar = run.store.find_scalar(line.name);
    if (scalar == nullptr || (!one_variance && scalar->name == "SCALAR_SIGMA2")) continue;
    const std::string value = scalar->type == ColumnType::integer ? edit_i(scalar->ival, 16) : edit_g(scalar->rval, 16, 8);
    out += text(' ', padded(line.words, 32), value, '\n');
  }
  return out;
}

}  // namespace

std::string PRTERRTXT(const TERM_TABLE& terms, const VARIANCE_MODEL& model)
{
  std::string out = " Currently defined structures, COLS and LEVELS\n";
  const std::size_t width = widest(terms.rows, 24, [](const TERM_ROW& t) -> const std::string& { return t.name; });
  std::int64_t number = 0;
  // A row without parameters has no label of its own: it goes by the name of its term or section.
  std::vector<std::string> random(model.rows.size()), residual(model.residual.size());
  for (const TERM_STRUCTURE& structure : model.terms) {
    for (std::int64_t r = structure.first_row; r < structure.first_row + structure.rows; ++r)
      random[static_cast<std::size_t>(r)] = terms.rows[static_cast<std::size_t>(structure.term)].name;
  }
  for (const RESIDUAL_SECTION& section : model.sections) {
    for (std::int64_t r = section.first_row; r < section.first_row + section.rows; ++r)
      residual[static_cast<std::size_t>(r)] = section.name.empty() ? section.label : section.name;
  }
  const auto list = [&](const std::vector<STRUCTURE_ROW>& rows, const std::vector<std::string>& names) {
    for (std::size_t r = 0; r < rows.size(); ++r) {
      const std::string label = row_label(model, rows[r]);
      out += text(edit_i(++number, 5), "  ", padded(label.empty() ? names[r] : label, width), ' ', padded(model_name(rows[r]), 5),
                  edit_i(rows[r].parameters, 6), edit_i(rows[r].size, 9), '\n');
    }
  };
  list(model.rows, random);
  list(model.residual, residual);
  if (model.parameters.empty()) return out + "Model specification: GAMMAS is not allocated\n";

  out += " Model specification:  TERM LEVELS GAMMAS\n";
  for (std::size_t i = 0; i < terms.rows.size(); ++i) {
    const TERM_ROW& term = terms.rows[i];
    if (!has_equations(term) || term.dropped) continue;
    out += text("       ", padded(term.name, width), edit_i(term.equations, 9));
    for (const TERM_STRUCTURE& structure : model.terms) {
      if (structure.term != static_cast<std::int64_t>(i)) continue;
      for (std::int64_t r = structure.first_row; r < structure.first_row + structure.rows; ++r) {
        const STRUCTURE_ROW& row = model.rows[static_cast<std::size_t>(r)];
        out += values_line(model, row.first, row.parameters);
      }
    }
    out += '\n';
  }
  out += " SECTIONS    RECORDS  TYPE   STRUCT\n";
  number = 0;
  for (const RESIDUAL_SECTION& section : model.sections) {
    std::string types;
    for (std::int64_t r = section.first_row; r < section.first_row + section.rows; ++r)
      types += text(types.empty() ? "" : " x ", model_name(model.residual[static_cast<std::size_t>(r)]));
    out += text(edit_i(++number, 9), edit_i(section.records, 11), "  ", types, "  ", section.label);
    for (std::int64_t r = section.first_row; r < section.first_row + section.rows; ++r) {
      const STRUCTURE_ROW& row = model.residual[static_cast<std::size_t>(r)];
      out += values_line(model, row.first, row.parameters);
    }
    if (section.scale >= 0) out += values_line(model, section.scale, 1);
    out += '\n';
  }
  return out;
}

std::string final_values_text(const VARIANCE_MODEL& model, const FIT_STATE& fit)
{
  if (fit.evaluated.empty() || fit.evaluated.size() != model.parameters.size())
    return "Final parameter values: GAMMAS is not allocated\n";
  std::string out = " Final parameter values:\n";
  for (std::size_t k = 0; k < fit.evaluated.size(); ++k) {
    out += edit_g(fit.evaluated[k], 16, 8);
    if (k % 5 == 4 || k + 1 == fit.evaluated.size()) out += '\n';
  }
  return out;
}

void begin_primary_report(const RUN_REPORT& run, REPORT_FILES& files)
{
  if (!files.in_use) return;
  std::string out = head_text(run);
  heading(out, "Iterations");
  files.tlv.write(out);
  files.tlv.show();
  files.begun = true;
  files.messages_told = static_cast<std::size_t>(run.messages.count());
}

std::string iteration_line(const ITERATION_ROW& row)
{
  constexpr std::size_t most = 8;
  const auto real = [](double x, int width, int digits) {
    return is_no_value(x) ? padded("", static_cast<std::size_t>(width) - 2) + "NA" : edit_g(x, width, digits);
  };
  std::string out = text("iteration ", edit_i(row.iteration, 4), "  LogL ", real(row.logl, 13, 6), "  sigma2 ", real(row.sigma2, 12, 5),
                         "  df ", edit_i(row.df, 9), "  step ", edit_f(row.step, 6, 3), "  restrained ", edit_i(row.restrained, 4));
  if (row.flag != ' ') out += text("  repeat ", row.flag);
  out += "  parameters";
  for (std::size_t k = 0; k < std::min(most, row.gammas.size()); ++k) out += text(' ', edit_g(row.gammas[k], 11, 4));
  if (row.gammas.size() > most) out += " ...";
  return std::string(rtrim(out)) + '\n';
}

std::string rest_of_primary_report(ERROR_HANDLER& eh, const RUN_REPORT& run, const REPORT_FILES& files)
{
  std::string out;
  if (!files.begun) {
    out = head_text(run);
  } else {
    if (!run.fit.trace.empty()) out += final_values_text(run.model, run.fit);
    if (static_cast<std::size_t>(run.messages.count()) > files.messages_told) {
      heading(out, "Messages of the fit");
      out += messages_text(run.messages, files.messages_told);
    }
  }
  heading(out, "Results");
  const OUTPUT_SCALAR* message = run.store.find_scalar("SCALAR_FINAL_MESSAGE");
  if (message != nullptr) out += text(' ', trim(message->sval), '\n');
  const bool stopped = run.fit.end == FitEnd::aborted || run.fit.end == FitEnd::failed;
  if (stopped && !run.fit.trace.empty()) out += text(' ', trim(run.fit.status), '\n');
  for (const char* name : {"TABLE_VARCOMP", "TABLE_VPARSUM", "TABLE_STRATVAR", "TABLE_INCRWALD", "TABLE_CONDRWALD"})
    add_table(eh, run.store, name, out);
  if (const std::string scalars = scalars_text(run); !scalars.empty()) out += text('\n', scalars);
  add_table(eh, run.store, "TABLE_KCV", out);
  for (const auto& table : run.store.tables) {
    if (table->name.starts_with("TABLE_PREDICT")) add_table(eh, run.store, table->name, out);
  }
  for (const auto& table : run.store.tables) {
    if (table->name.starts_with("TABLE_FACTOR_")) add_table(eh, run.store, table->name, out);
  }
  heading(out, "Time");
  out += TMG_TABLE(run.timing, "END OF AIDATA_BODY");
  return out;
}

}  // namespace tolvan
