// Matrices in unformatted files.  Routines: L_READ_BINARY_MATRIX, READ_MATRIX_FROM_RGRM_UNITNO, L_SAVEMAT.
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "base/files.h"
#include "base/memory.h"
#include "base/packed.h"
#include "base/text.h"
#include "data/entry_values.h"
#include "relmat/matrix_input.h"
#include "relmat/record_file.h"
#include "relmat/structure_matrices.h"

namespace tolvan {
namespace {

constexpr std::int64_t element_numbers = 3;

/// The order of a dense matrix whose records of 1, 2, ... n numbers fill a file; 0 where none does.
std::int64_t order_of_file(std::int64_t bytes, std::int64_t width)
{
  // bytes = 2 marks n + width n (n + 1) / 2
  const double b = 2.0 * mark_bytes + 0.5 * static_cast<double>(width);
  const double w = 0.5 * static_cast<double>(width);
  const auto n = static_cast<std::int64_t>(
      std::llround((-b + std::sqrt(b * b + 4.0 * w * static_cast<double>(bytes))) / (2.0 * w)));
  return 2 * mark_bytes * n + width * packed_size(n) == bytes ? n : 0;
}

/// L_READ_RECORDS_SPARSE: reads an element a record.
void L_READ_RECORDS_SPARSE(ERROR_HANDLER& eh, RECORDS& records, MATRIX_INPUT& out)
{
  const Frame here{eh, __func__};
  const std::int64_t record_bytes = 2 * mark_bytes + element_numbers * records.width();
  if (records.bytes % record_bytes != 0) return unreadable(eh, records.path, records.single);
  out.form = MatrixForm::sparse;
  const std::int64_t count = records.bytes / record_bytes;
  if (!reserve(eh, out.row, count) || !reserve(eh, out.column, count) || !reserve(eh, out.values, count))
    return;
  double x[element_numbers];
  for (std::int64_t k = 1; k <= count; ++k) {
    if (!records.read(eh, element_numbers, x)) return;
    if (k == 1 && (x[0] != 1.0 || x[1] != 1.0)) return unreadable(eh, records.path, records.single);
    if (!L_TAKE_ELEMENT(eh, x[0], x[1], x[2], k, out)) return eh.continuation(text("file ", records.path));
  }
  if (!order_is_sound(eh, out)) eh.continuation(text("file ", records.path));
}

/// Copies the upper triangle of columns as they were read, rows of the lower one, to the lower triangle; a
/// value that is not finite is an error.
void mirror(ERROR_HANDLER& eh, MATRIX_INPUT& out)
{
  const std::int64_t n = out.order;
  double* a = out.values.data();
  for (std::int64_t j = 0; j < n; ++j) {
    for (std::int64_t i = 0; i < j; ++i) a[j + i * n] = a[i + j * n];
  }
  check_square(eh, out);
}

/// L_READ_RECORDS_DENSE: reads a row of the lower triangle a record.
void L_READ_RECORDS_DENSE(ERROR_HANDLER& eh, RECORDS& records, MATRIX_INPUT& out)
{
  const Frame here{eh, __func__};
  const std::int64_t n = order_of_file(records.bytes, records.width());
  if (n == 0) return unreadable(eh, records.path, records.single);
  out.form = MatrixForm::dense;
  out.order = n;
  if (!room_for_dense(eh, n, out.may_grow, out.values) || !assign(eh, out.values, n * n)) return;
  for (std::int64_t k = 0; k < n; ++k) {
    if (!records.read(eh, k + 1, out.values.data() + k * n)) return;
  }
  mirror(eh, out);
}

/// Adds a record to a file.
void put_record(FileWriter& file, const double* x, std::int64_t n)
{
  const auto bytes = static_cast<std::int32_t>(n * static_cast<std::int64_t>(sizeof(double)));
  char mark[mark_bytes];
  std::memcpy(mark, &bytes, mark_bytes);
  file.write({mark, mark_bytes});
  file.write({reinterpret_cast<const char*>(x), static_cast<std::size_t>(bytes)});
  file.write({mark, mark_bytes});
}

}  // namespace

void L_READ_BINARY_MATRIX(ERROR_HANDLER& eh, const std::string& path, Coding_of_file coding,
                          MATRIX_INPUT& out)
{
  const Frame here{eh, __func__};
  const bool single = coding == Coding_of_file::single_precision;
  RECORDS records{.file = nullptr, .path = path, .single = single, .bytes = 0, .number = 0, .narrow = {}};
  records.file = open_to_read(eh, path, records.bytes);
  if (eh.terminate()) return;
  std::int32_t first = 0;
  if (std::fread(&first, 1, mark_bytes, records.file.get()) != mark_bytes)
    return unreadable(eh, path, single);
  std::rewind(records.file.get());
  if (first == element_numbers * records.width()) {
    L_READ_RECORDS_SPARSE(eh, records, out);
  } else if (first == records.width()) {
    L_READ_RECORDS_DENSE(eh, records, out);
  } else {
    unreadable(eh, path, single);
  }
}

void READ_MATRIX_FROM_RGRM_UNITNO(ERROR_HANDLER& eh, const std::string& path, std::int64_t n,
                                  MATRIX_INPUT& out)
{
  const Frame here{eh, __func__};
  std::int64_t bytes = 0;
  const FileHandle file = open_to_read(eh, path, bytes);
  if (eh.terminate()) return;
  std::int64_t claimed = 0;
  const bool read = std::fread(&claimed, sizeof claimed, 1, file.get()) == 1;
  std::int64_t row_bytes = 0;
  if (!read || claimed != n || !multiply_sizes(n, 8, row_bytes) || bytes / row_bytes != n + 1 ||
      bytes % row_bytes != 0) {
    eh.error(text("unexpected format in file ", path, ", expected ", n, " records, file claims to contain ",
                  claimed),
             Ecode::io_error);
    return;
  }
  out.form = MatrixForm::dense;
  out.order = n;
  if (!room_for_dense(eh, n, out.may_grow, out.values) || !assign(eh, out.values, n * n)) return;
  const auto length = static_cast<std::size_t>(n);
  for (std::int64_t k = 0; k < n; ++k) {
    double* row = out.values.data() + k * n;
    const bool there = std::fseek(file.get(), static_cast<long>((k + 1) * row_bytes), SEEK_SET) == 0 &&
                       std::fread(row, sizeof(double), length, file.get()) == length;
    if (!there) {
      eh.error(text("error reading values from ", path), Ecode::io_error);
      return;
    }
    std::fill(row + k + 1, row + n, 0.0);
  }
  mirror(eh, out);
}

void L_SAVEMAT(ERROR_HANDLER& eh, const AINV_MTX& matrix, std::string_view extension)
{
  const Frame here{eh, __func__};
  const std::string path = text(without_extension(matrix.origin), extension);
  const std::int64_t n = matrix.order;
  constexpr std::int64_t longest_record = 2147483647 / 8;
  FileWriter file;
  bool open = n <= longest_record && file.open(path);
  const SYMMETRIC a = matrix.inverse();
  const bool dense = a.shape == Shape::dense;
  std::int64_t filled = 0;
  for (std::int64_t j = 0; j < n && dense; ++j) {
    for (std::int64_t i = j; i < n; ++i) filled += a.values[i + j * n] != 0.0 ? 1 : 0;
  }
  if (open && dense && 2 * filled >= packed_size(n)) {
    for (std::int64_t k = 0; k < n; ++k)
      put_record(file, a.values + k * n, k + 1);  // column k down to the diagonal is row k
  } else if (open) {
    const auto put = [&](std::int64_t i, std::int64_t j, double value) {
      const double x[element_numbers] = {static_cast<double>(i + 1), static_cast<double>(j + 1), value};
      if (value != 0.0 || (i == 0 && j == 0) || (i == j && i == n - 1)) put_record(file, x, element_numbers);
    };
    for (std::int64_t j = 0; j < n; ++j) {
      if (a.shape == Shape::diagonal) put(j, j, a.values[j]);
      for (std::int64_t i = j; i < n && dense; ++i) put(i, j, a.values[i + j * n]);
      if (a.shape != Shape::sparse) continue;
      for (std::int64_t k = a.start[j]; k < a.start[j + 1]; ++k) put(a.row[k], j, a.values[k]);
    }
  }
  open = open && file.commit();
  if (!open) {
    eh.error(text("unable to open file ", path), Ecode::io_error);
    eh.continuation(file.error());
    return;
  }
  eh.note(text(extension == ".dgiv" ? "G Inverse written to " : "G written to ", path));
}

}  // namespace tolvan
