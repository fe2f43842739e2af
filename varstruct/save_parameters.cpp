// Writing the parameter files.  Routines: AIOPENRSV, RSTRUCTURE, TSVIO_WRITE, SAVE_PARAMETERS.
#include <algorithm>

#include "base/text.h"
#include "varstruct/parameter_files.h"
#include "varstruct/parameter_lines.h"

namespace tolvan {

namespace {

constexpr std::string_view rsv_preamble =
    "This .rsv file holds parameter values between runs of TOLVAN and\n"
    "is not normally modified by the User.  The current values of the\n"
    "the variance parameters are listed as a block on the following lines.\n"
    "They are then listed again with identifying information\n"
    "in a form that the user may edit.\n";

/// Values in lines of (5G16.8), their count on a line before them.
std::string value_block(std::span<const double> values)
{
  std::string out = text(edit_i(static_cast<std::int64_t>(values.size()), 8), '\n');
  for (std::size_t k = 0; k < values.size(); ++k) {
    out += edit_g(values[k], 16, 8);
    if (k % 5 == 4 || k + 1 == values.size()) out += '\n';
  }
  return out;
}

/// One parameter of an .rsv file.  A parameter that equals another has the other's number and a 0; one that is a
/// multiple of another the negative number and the coefficient; one that stands alone a 0 and a 1.
std::string rsv_line(std::int64_t number, const VARIANCE_PARAMETER& p, double value)
{
  std::string out = text(edit_number(number), ", ", type_letter(p.type), ", ", file_letter(rsv_letters, p.constraint), ", ",
                         edit_value(value));
  const auto link = [](std::int64_t n) {  // I4, and a blank before larger numbers
    const std::string digits = text(n);
    return digits.size() < 4 ? edit_i(n, 4) : text(' ', digits);
  };
  if (p.master >= 0 && p.coefficient == 1.0) return text(out, link(p.master + 1), "   0\n");
  const double coefficient = p.master >= 0 ? p.coefficient : 1.0;
  std::string shown = edit_f(coefficient, 13, 6);
  double back = 0.0;
  if (!read_value(shown, back) || std::abs(back - coefficient) > 1e-6 * std::abs(coefficient)) shown = text(' ', coefficient);
  return text(out, link(p.master >= 0 ? -(p.master + 1) : 0), shown, '\n');
}

/// Coefficients of a constrained parameter; null for none.
const VCM_ROW* vcm_row(const VARIANCE_MODEL& model, std::int64_t parameter)
{
  for (const VCM_ROW& row : model.vcm) {
    if (row.parameter == parameter) return &row;
  }
  return nullptr;
}

std::string quoted(std::string_view label, std::size_t width)
{
  std::string out = "\"";
  for (const char c : label) {
    out += c;
    if (c == '"') out += c;
  }
  if (label.size() < width) out.append(width - label.size(), ' ');
  return out + '"';
}

/// The last two fields of a table's row: whom the parameter follows, and how.
std::string relation(const VARIANCE_MODEL& model, std::int64_t i)
{
  constexpr std::size_t most_coefficients = 100;
  const VARIANCE_PARAMETER& p = model.parameters[static_cast<std::size_t>(i)];
  if (const VCM_ROW* row = vcm_row(model, i)) {
    std::string out = edit_number(-(p.master >= 0 ? p.master + 1 : i + 1));
    const std::size_t n = std::min(row->coefficients.size(), most_coefficients);
    for (std::size_t k = 0; k < n; ++k) out += text(", ", edit_coefficient(row->coefficients[k]));
    return out;
  }
  if (p.master < 0) return text(edit_number(i + 1), ",    1");
  return text(edit_number(p.master + 1), ", ", edit_coefficient(p.coefficient));
}

/// L_WRITE_WHOLE: puts a file in its place, or complains with its words and leaves the earlier one.
void L_WRITE_WHOLE(ERROR_HANDLER& eh, FileWriter& file, std::string_view contents, const std::string& complaint)
{
  const Frame here{eh, __func__};
  if (file.write(contents) && file.commit()) return;
  eh.error(complaint, Ecode::io_error);
  eh.continuation(file.error());
}

}  // namespace

TableFile table_file_of(std::string_view name)
{
  if (lower(name).ends_with(".esv")) return TableFile::esv;
  return lower(name).ends_with(".msv") ? TableFile::msv : TableFile::tsv;
}

std::vector<double> parameter_values(const VARIANCE_MODEL& model)
{
  std::vector<double> values;
  for (const VARIANCE_PARAMETER& p : model.parameters) values.push_back(p.value);
  return values;
}

bool AIOPENRSV(ERROR_HANDLER& eh, const std::string& base, FileWriter& file)
{
  const Frame here{eh, __func__};
  const std::string name = base + ".rsv";
  if (file.open(name)) return true;
  eh.error(text("failed to open .rsv file: ", name), Ecode::io_error);
  eh.continuation(file.error());
  return false;
}

void RSTRUCTURE(ERROR_HANDLER& eh, const VARIANCE_MODEL& model, std::span<const double> values,
                const std::string& base, const std::string& response)
{
  const Frame here{eh, __func__};
  FileWriter file;
  if (!AIOPENRSV(eh, base, file)) return;
  std::string out = text(rsv_preamble, "Response ", response, '\n', value_block(values), "RSTRUCTURE        \n");
  for (const FILE_ROW& row : file_rows(model)) {
    out += row.variance ? " VARIANCE         " : " STRUCTURE        ";
    const STRUCTURE_ROW facts = row.row == nullptr ? STRUCTURE_ROW{.size = 1, .parameters = 1} : *row.row;
    for (const std::int64_t fact : {facts.size, facts.selector, facts.model, facts.order, facts.parameters})
      out += text(' ', edit_number(fact));
    out += text("  ", row.name, '\n');
    for (std::int64_t i = row.first; i < row.first + row.parameters; ++i) {
      const auto k = static_cast<std::size_t>(i);
      out += rsv_line(i + 1, model.parameters[k], values[k]);
    }
  }
  L_WRITE_WHOLE(eh, file, out, text("failed to write .rsv file: ", base, ".rsv"));
}

void TSVIO_WRITE(ERROR_HANDLER& eh, TableFile form, const VARIANCE_MODEL& model,
                 std::span<const double> values, const std::string& name, const std::string& response)
{
  const Frame here{eh, __func__};
  const char* extension = form == TableFile::tsv   ? "tsv"
                          : form == TableFile::msv ? "msv"
                          : form == TableFile::esv ? "esv"
                                                   : nullptr;
  if (extension == nullptr) {
    eh.internal("unexpected value for IOP");
    return;
  }
  std::string out = text("# This .", extension, " file is a mechanism for resetting initial parameter values\n",
                         "# by changing the values here and rerunning the job with !CONTINUE\n"
                         "# You may not change values in the first 3 fields\n"
                         "#         or RP fields where RP_GN is negative.\n",
                         "Response ", response,
                         "\n# Fields are:\n# GN, Term, Type, PSpace, Initial_value, RP_GN, RP_scale.\n");
  std::size_t width = 0;
  for (const VARIANCE_PARAMETER& p : model.parameters) width = std::max(width, p.label.size());
  for (const FILE_ROW& row : file_rows(model)) {
    if (row.parameters > 1) out += text("# STRUCTURE_", row.name, '\n');
    for (std::int64_t i = row.first; i < row.first + row.parameters; ++i) {
      const auto k = static_cast<std::size_t>(i);
      const VARIANCE_PARAMETER& p = model.parameters[k];
      out += text(edit_number(i + 1), ", ", quoted(p.label, width), ", ", type_letter(p.type), ", ",
                  file_letter(tsv_letters, p.constraint), ", ", edit_value(values[k]), ", ", relation(model, i), '\n');
    }
  }
  FileWriter file;
  if (!file.open(name)) {
    eh.error(text("unable to open file ", name), Ecode::io_error);
    eh.continuation(file.error());
    return;
  }
  L_WRITE_WHOLE(eh, file, out, text("unable to write file ", name));
}

void SAVE_PARAMETERS(ERROR_HANDLER& eh, const VARIANCE_MODEL& model, std::span<const double> values,
                     PARAMETER_FILES& files)
{
  const Frame here{eh, __func__};
  if (!files.in_use || values.size() != model.parameters.size()) return;
  ERROR_HANDLER aside;  // a fit is worth more than its side files
  RSTRUCTURE(aside, model, values, files.base, files.response);
  if (!aside.terminate()) TSVIO_WRITE(aside, TableFile::tsv, model, values, files.base + ".tsv", files.response);
  for (const auto& [form, name] : {std::pair{TableFile::msv, &files.msv}, {TableFile::esv, &files.esv}}) {
    if (!name->empty() && !aside.terminate()) TSVIO_WRITE(aside, form, model, values, *name, files.response);
  }
  if (!aside.terminate() || files.fault_told) return;
  files.fault_told = true;
  for (const ERROR_MESSAGE& message : aside.messages()) {
    if (message.etype == Etype::continuation)
      eh.continuation(message.message.value_or(""));
    else
      eh.EH_ADD_MESSAGE({.text = message.message.value_or(""), .etype = Etype::warning, .ecode = message.ecode, .terminate = false});
  }
  eh.continuation("the fit goes on; its parameters are not kept in files");
}

}  // namespace tolvan
