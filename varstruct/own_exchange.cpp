// The exchange of files with a user's own program.  Routines: K4MOWN, AIDOWN.
#include <algorithm>
#include <cctype>
#include <cstdlib>

#include "base/files.h"
#include "base/memory.h"
#include "base/packed.h"
#include "base/text.h"
#include "varstruct/own_program.h"

namespace tolvan {

namespace {

constexpr std::size_t longest_stem = 60;
constexpr std::size_t integer_width = 5, real_width = 14, reals_in_line = 6;
constexpr int real_digits = 7;
constexpr std::int64_t diagonal_code = 8;

std::vector<std::string_view> words(std::string_view line)
{
  std::vector<std::string_view> out;
  for (std::size_t at = 0; at < line.size();) {
    const std::size_t begin = line.find_first_not_of(" \t", at);
    if (begin == std::string_view::npos) break;
    at = std::min(line.find_first_of(" \t", begin), line.size());
    out.push_back(line.substr(begin, at - begin));
  }
  return out;
}

/// The line cut into fields of a width, blanks taken off; the last field may be short.
std::vector<std::string_view> fields(std::string_view line, std::size_t width)
{
  std::vector<std::string_view> out;
  line = rtrim(line);
  for (std::size_t at = 0; at < line.size(); at += width) out.push_back(trim(line.substr(at, width)));
  return out;
}

bool read_number(std::string_view s, double& out)
{
  std::string number(s);
  std::replace_if(
      number.begin(), number.end(), [](char c) { return c == 'D' || c == 'd'; }, 'E');
  return read_real(number, out);
}

/// All pieces as numbers; false if one is none.
bool read_numbers(const std::vector<std::string_view>& pieces, std::vector<double>& out)
{
  out.resize(pieces.size());
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    if (!read_number(pieces[i], out[i])) return false;
  }
  return !pieces.empty();
}

/// `count` numbers in (6D14.7).  Lines whose numbers stand apart by blanks may have any columns.
bool read_dense(FileReader& file, std::string_view line, std::size_t count, std::vector<double>& out)
{
  std::vector<double> numbers;
  out.clear();
  do {
    if (!read_numbers(fields(line, real_width), numbers) && !read_numbers(words(line), numbers)) return false;
    if (numbers.size() > reals_in_line || out.size() + numbers.size() > count) return false;
    out.insert(out.end(), numbers.begin(), numbers.end());
  } while (out.size() < count && file.next_line(line));
  return out.size() == count;
}

std::string write_numbers(std::span<const double> values)
{
  std::string out;
  for (std::size_t i = 0; i < values.size(); ++i) {
    out += edit_d(values[i], real_width, real_digits);
    if ((i + 1) % reals_in_line == 0 || i + 1 == values.size()) out += '\n';
  }
  return out;
}

std::string first_line(std::int64_t n, std::int64_t m, std::int64_t control)
{
  return edit_i(n, integer_width) + edit_i(m, integer_width) + edit_i(control, integer_width);
}

bool agrees(std::string_view line, std::int64_t n, std::int64_t m, std::int64_t control)
{
  for (const auto& pieces : {fields(line, integer_width), words(line)}) {
    std::int64_t a = 0, b = 0, c = 0;
    if (pieces.size() == 3 && read_integer(pieces[0], a) && read_integer(pieces[1], b) &&
        read_integer(pieces[2], c) && a == n && b == m && c == control)
      return true;
  }
  return false;
}

std::string own_file_text(const OWN_PROGRAM& program, const std::string& gdg, std::int64_t n,
                          std::span<const double> values)
{
  const auto m = static_cast<std::int64_t>(values.size());
  return text(first_line(n, m, program.control), "\n", write_numbers(values),
              " This file was written by Tolvan for reading by your program ", program.program, "\n",
              " Tolvan writes this file, runs ", program.program, " and then reads ", gdg, "\n",
              " which it presumes you have written in the following format:\n",
              " The first lines should agree with the top of this file\n",
              " specifying the order of the matrices         (", n, ")\n",
              " the number of variance parameters (", m, ")\n", " and a control parameter you can specify (",
              program.control, ")\n", " These are written in (3I5 ) format. They are followed by\n",
              " the list of variance parameters written in (6D14.7) format.\n", " Follow this with ", m + 1,
              " matrices written in (6D14.7) format.\n", " These are to be each of ", packed_size(n),
              " elements being lower triangle\n",
              " row-wise of the G matrix and its derivatives with respect to\n",
              " the parameters in turn.\n");
}

/// What became of one matrix.
enum class Cells { more, matrix_done, file_done, bad_cell, bad_mark, no_number };

/// One line of a matrix in sparse form.
Cells read_cell(std::string_view line, std::int64_t n, std::vector<double>& out)
{
  const auto pieces = words(line);
  std::int64_t i = 0, j = 0, mark = 0;
  double value = 0.0;
  if (pieces.size() != 4 || !read_number(pieces[2], value)) return Cells::no_number;
  if (!read_integer(pieces[0], i) || !read_integer(pieces[1], j) || i < 1 || i > n || j < 1 || j > n)
    return Cells::bad_cell;
  if (!read_integer(pieces[3], mark) || mark < -1 || mark > 1) return Cells::bad_mark;
  PackedSymmetric<double>{out}(i, j) = value;
  return mark == 0 ? Cells::more : mark == 1 ? Cells::matrix_done : Cells::file_done;
}

bool is_sparse(std::string_view line)
{
  const auto pieces = words(line);
  std::int64_t i = 0;
  return pieces.size() == 4 && read_integer(pieces[0], i) && read_integer(pieces[1], i);
}

/// One matrix in either form; false if it cannot be read, with a terminating message where there is more to
/// say than that.
bool read_matrix(ERROR_HANDLER& eh, FileReader& file, std::int64_t n, std::vector<double>& out,
                 bool& file_done)
{
  std::string_view line;
  if (!file.next_line(line)) return false;
  if (!is_sparse(line)) return read_dense(file, line, static_cast<std::size_t>(packed_size(n)), out);
  eh.EH_ADD_MESSAGE({.text = " reading OWN matrix in SPARSE form", .etype = Etype::note, .unique = true});
  out.assign(static_cast<std::size_t>(packed_size(n)), 0.0);
  do {
    switch (read_cell(line, n, out)) {
      case Cells::more:
        break;
      case Cells::file_done:
        file_done = true;
        return true;
      case Cells::matrix_done:
        return true;
      case Cells::no_number:
        return false;
      case Cells::bad_cell:
        eh.error("invalid matrix cell numbers");
        return false;
      case Cells::bad_mark:
        eh.error("invalid 4th field retrieving OWN matrices");
        eh.continuation("permitted values: 0 1 -1");
        return false;
    }
  } while (file.next_line(line));
  return false;
}

/// Reads what the program wrote.
bool read_answer(ERROR_HANDLER& eh, FileReader& file, const OWN_PROGRAM& program, const std::string& gdg,
                 std::int64_t n, std::int64_t m, OWN_MATRICES& out)
{
  std::string_view line;
  if (!file.next_line(line) || !agrees(line, n, m, program.control)) {
    eh.error(text("failed reading the first line of ", gdg, " which should look like [",
                  first_line(n, m, program.control), "]"));
    return false;
  }
  std::vector<double> parameters;
  if (m > 0 && (!file.next_line(line) || !read_dense(file, line, static_cast<std::size_t>(m), parameters))) {
    eh.error(text("failed reading the second section of ", gdg, " which should look like (6D14.7)"));
    return false;
  }
  out.matrices.assign(static_cast<std::size_t>(m) + 1, {});
  bool file_done = false;
  for (std::size_t k = 0; k < out.matrices.size(); ++k) {
    std::vector<double>& matrix = out.matrices[k];
    if (file_done) {
      matrix.assign(static_cast<std::size_t>(packed_size(n)), 0.0);
    } else if (!read_matrix(eh, file, n, matrix, file_done)) {
      const auto say = [&](std::string words) {  // what is wrong with a cell has been told already
        eh.terminate() ? eh.continuation(std::move(words)) : eh.error(std::move(words));
      };
      if (k == 0) {
        say(text("failed reading the third section of ", gdg, " which should contain the G matrix, ",
                 packed_size(n), " values in (6D14.7) format"));
        eh.continuation("failed to read the first matrix from your GDG file, Check FORMAT is 6D14.7");
      } else {
        say(text("failed reading derivative matrix from ", gdg, " which should contain ", packed_size(n),
                 " values in (6D14.7) format"));
        eh.continuation(text("failed to read the derivative matrix ", static_cast<std::int64_t>(k),
                             " from your GDG file"));
      }
      eh.continuation("check the format of your GDG file");
      return false;
    }
  }
  return true;
}

}  // namespace

OWN_FILES own_files(std::string_view file, std::int64_t control)
{
  std::string_view stem = file.substr(0, std::min(file.find(' '), longest_stem));
  if (stem.size() >= 5 && stem[stem.size() - 5] == '.') stem.remove_suffix(5);
  return {text(stem, "A", control, ".own"), text(stem, ".gdg")};
}

bool AIDOWN(ERROR_HANDLER& eh, const OWN_PROGRAM& program, std::int64_t n, std::span<const double> values,
            OWN_MATRICES& out)
{
  const Frame here{eh, __func__};
  bool good = false;
  const bool room = attempt([&] {
    const auto [own, gdg] = own_files(program.file, program.control);
    const auto unable = [&](const std::string& name) {
      eh.error(text("unable to read / write data file ", name), Ecode::io_error);
      eh.continuation(text(" need to run ", program.program));
    };
    std::string error;
    if (!write_file(own, own_file_text(program, gdg, n, values), error)) return unable(own);
    if (!is_blank(program.program)) {
      delete_quietly(gdg);  // an answer to an earlier question must not be taken for one to this
      [[maybe_unused]] const int answer = std::system(text(program.program, " ", own).c_str());
    }
    FileReader file;
    if (!file.open(gdg)) return unable(gdg);
    good = read_answer(eh, file, program, gdg, n, static_cast<std::int64_t>(values.size()), out);
  });
  if (!room) eh.out_of_memory();
  return room && good;
}

bool K4MOWN(ERROR_HANDLER& eh, const STRUCTURE_ROW& row, const VARIANCE_MODEL& model, OwnForm& form,
            OWN_MATRICES& out)
{
  const Frame here{eh, __func__};
  if (row.own < 0 || row.own >= static_cast<std::int64_t>(model.own_programs.size())) {
    eh.internal(text("Failed to form variance structure ", row.model));
    return false;
  }
  const OWN_PROGRAM& program = model.own_programs[static_cast<std::size_t>(row.own)];
  std::vector<double> values;
  if (!resize(eh, values, row.parameters)) return false;
  for (std::size_t k = 0; k < values.size(); ++k)
    values[k] = model.parameters[static_cast<std::size_t>(row.first) + k].value;
  form = row.model == diagonal_code ? OwnForm::diagonal : program.inverse ? OwnForm::inverse : OwnForm::plain;
  if (!AIDOWN(eh, program, row.size, values, out)) return false;
  if (form != OwnForm::diagonal) return true;
  for (auto& matrix : out.matrices) {
    for (std::int64_t i = 0; i < row.size; ++i)
      matrix[static_cast<std::size_t>(i)] = matrix[static_cast<std::size_t>(packed_size(i + 1) - 1)];
    matrix.resize(static_cast<std::size_t>(row.size));
  }
  return true;
}

}  // namespace tolvan
