// Matrices in text files.  Routine: L_READ_TEXT_MATRIX.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <deque>

#include "base/files.h"
#include "base/memory.h"
#include "base/packed.h"
#include "base/text.h"
#include "relmat/file_lines.h"
#include "relmat/list_directed.h"
#include "relmat/matrix_input.h"

namespace tolvan {
namespace {

constexpr std::size_t chunk_length = std::size_t{1} << 20;

/// L_DIRECTIVE: obeys a line that says the log determinant or the number of groups; anything else is passed
/// over.
void L_DIRECTIVE(ERROR_HANDLER& eh, const FILE_LINES& lines, MATRIX_INPUT& out)
{
  const Frame here{eh, __func__};
  const std::string_view line = trim(lines.line);
  const auto is = [&](std::initializer_list<std::string_view> words) {
    return std::any_of(words.begin(), words.end(),
                       [&](std::string_view word) { return line.starts_with(word); });
  };
  const bool determinant = is({"!LDE", "!lde"});
  if (!determinant && !is({"!GRO", "!gro"})) return;
  const std::size_t blank = line.find_first_of(" \t=");
  double x = 0.0;
  ListReader reader(blank == std::string_view::npos ? std::string_view() : line.substr(blank + 1));
  if (reader.next(x) != ListItem::value || !std::isfinite(x) ||
      (!determinant && (x < 0.0 || x != std::trunc(x)))) {
    lines.unreadable(
        eh, determinant ? "a number was expected behind !LDET" : "a count was expected behind !GROUP");
  } else if (determinant) {
    out.log_determinant = x;
  } else {
    out.groups = static_cast<std::int64_t>(x);
  }
}

/// Whether a line holds one element, the first of the diagonal.
bool begins_sparse(std::string_view line)
{
  double x[4] = {};
  std::int64_t given = 0;
  ListReader reader(line);
  ListItem item = ListItem::null;
  double value = 0.0;
  for (int k = 0; k < 4 && (item = reader.next(value)) != ListItem::end && item != ListItem::fault; ++k) {
    if (item != ListItem::value) continue;
    x[k] = value;
    given += k == 3 ? 8 : 1;
  }
  return given == 3 && x[0] == 1.0 && x[1] == 1.0;
}

/// L_READ_ELEMENTS: reads an element a line.
void L_READ_ELEMENTS(ERROR_HANDLER& eh, FILE_LINES& lines, MATRIX_INPUT& out)
{
  const Frame here{eh, __func__};
  out.form = MatrixForm::sparse;
  std::int64_t number = 0;
  const bool room = attempt([&] {
    do {
      if (is_blank(lines.line)) continue;
      double x[4] = {};
      ListReader reader(lines.line);
      int count = 0;
      while (count < 4) {
        const ListItem item = reader.next(x[count]);
        if (item == ListItem::end) break;
        if (item != ListItem::value) {
          count = 4;
          break;
        }
        ++count;
      }
      if (count != 3) return lines.unreadable(eh, "a row, a column and a value were expected");
      if (!L_TAKE_ELEMENT(eh, x[0], x[1], x[2], ++number, out))
        return eh.continuation(text("on line ", lines.file.line_number(), " of ", lines.path));
    } while (lines.next(eh));
  });
  if (!room) return eh.out_of_memory();
  if (!eh.terminate() && !order_is_sound(eh, out)) eh.continuation(text("file ", lines.path));
}

/// Numbers as they come, in chunks that can be freed one by one, with the shape of the lines they stood on.
struct NUMBERS_OF_LINES {
  std::deque<std::vector<double>> chunks;
  std::int64_t count = 0;
  std::int64_t lines = 0;
  std::int64_t first_line = 0;  // numbers on it
  bool all_as_the_first = true;

  void add(double x)
  {
    if (chunks.empty() || chunks.back().size() == chunk_length) chunks.emplace_back().reserve(chunk_length);
    chunks.back().push_back(x);
    ++count;
  }
  /// Takes the next numbers out, in their order; of a chunk that is through the memory is freed.
  void take(std::size_t n, double* to)
  {
    while (n > 0) {
      const std::vector<double>& front = chunks.front();
      const std::size_t part = std::min(n, front.size() - taken);
      std::copy_n(front.data() + taken, part, to);
      taken += part;
      to += part;
      n -= part;
      if (taken < front.size()) continue;
      chunks.pop_front();
      taken = 0;
    }
  }
  std::size_t taken = 0;  // of the first chunk
};

/// L_READ_NUMBERS: reads numbers up to the end of the file.
void L_READ_NUMBERS(ERROR_HANDLER& eh, FILE_LINES& lines, NUMBERS_OF_LINES& numbers)
{
  const Frame here{eh, __func__};
  const bool room = attempt([&] {
    do {
      const std::int64_t before = numbers.count;
      ListReader reader(lines.line);
      double x = 0.0;
      ListItem item = ListItem::end;
      while ((item = reader.next(x)) != ListItem::end) {
        if (item != ListItem::value || !std::isfinite(x))
          return lines.unreadable(
              eh, item == ListItem::value ? "a value is not finite" : "a number was expected");
        numbers.add(x);
      }
      const std::int64_t here_given = numbers.count - before;
      if (here_given == 0) continue;
      if (++numbers.lines == 1) numbers.first_line = here_given;
      numbers.all_as_the_first = numbers.all_as_the_first && here_given == numbers.first_line;
    } while (lines.next(eh));
  });
  if (!room) eh.out_of_memory();
}

/// L_SHAPE: makes the matrix that the numbers spell.
void L_SHAPE(ERROR_HANDLER& eh, const FILE_LINES& lines, NUMBERS_OF_LINES& numbers, MATRIX_INPUT& out)
{
  const Frame here{eh, __func__};
  const bool regular = numbers.all_as_the_first && numbers.lines > 1;
  const bool square = regular && numbers.first_line == numbers.lines;
  if (regular && numbers.first_line == 1) {
    out.form = MatrixForm::diagonal;
    out.order = numbers.count;
    if (assign(eh, out.values, out.order)) numbers.take(out.values.size(), out.values.data());
    return;
  }
  const auto n = square ? numbers.lines
                        : static_cast<std::int64_t>(
                              (std::sqrt(8.0 * static_cast<double>(numbers.count) + 1.0) - 1.0) / 2.0);
  if (!square && packed_size(n) != numbers.count) {
    eh.error(text("error reading values from ", lines.path), Ecode::io_error);
    eh.continuation(text(numbers.count, " values up to line ", lines.file.line_number(),
                         " are neither a lower triangle nor a square matrix"));
    return;
  }
  out.form = MatrixForm::dense;
  out.order = n;
  if (!room_for_dense(eh, n, out.may_grow, out.values)) return;
  // Column after column, so that the memory of the numbers goes as that of the matrix comes.
  const auto rows = static_cast<std::size_t>(n);
  for (std::size_t k = 0; k < rows; ++k) {
    out.values.resize((k + 1) * rows);
    numbers.take(square ? rows : k + 1, out.values.data() + k * rows);
  }
  if (square) return check_square(eh, out);
  for (std::size_t j = 0; j < rows; ++j) {
    for (std::size_t i = j + 1; i < rows; ++i) out.values[i + j * rows] = out.values[j + i * rows];
  }
}

}  // namespace

void L_READ_TEXT_MATRIX(ERROR_HANDLER& eh, const std::string& path, std::string_view kind, std::int64_t skip,
                        MATRIX_INPUT& out)
{
  const Frame here{eh, __func__};
  FILE_LINES lines{.file = {}, .path = path, .line = {}};
  lines.file.limit_lines(longest_line);
  if (!lines.file.open(path)) {
    eh.error(text("unable to open file ", path), Ecode::io_error);
    eh.continuation(lines.file.error());
    return;
  }
  bool found = false;
  for (std::int64_t number = 1; !found && lines.next(eh); ++number) {
    found = number > skip && !is_blank(lines.line) && !trim(lines.line).starts_with('!');
    if (!found) L_DIRECTIVE(eh, lines, out);
    if (eh.terminate()) return;
  }
  if (eh.terminate()) return;
  if (!found) return lines.unreadable(eh, lines.file.line_number() + 1, "the file has no data");

  const std::string beginning(trim(lines.line).substr(0, shown_of_a_line));
  if (begins_sparse(lines.line)) {
    eh.note(text("reading SPARSE format ", kind, " file beginning: ", beginning));
    L_READ_ELEMENTS(eh, lines, out);
    return;
  }
  eh.note(text("reading DENSE format ", kind, " file beginning ", beginning));
  NUMBERS_OF_LINES numbers;
  L_READ_NUMBERS(eh, lines, numbers);
  if (!eh.terminate()) L_SHAPE(eh, lines, numbers, out);
}

}  // namespace tolvan
