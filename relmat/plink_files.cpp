// Routines: L_OPEN_PLINK_FILES, L_READ_BED_COLUMNS.
#include "relmat/plink_files.h"

#include <array>
#include <cstdio>

#include "base/memory.h"
#include "base/text.h"
#include "data/entry_values.h"
#include "relmat/file_lines.h"
#include "relmat/marker_files.h"

namespace tolvan {
namespace {

constexpr std::array<std::uint8_t, 3> first_bytes = {0x6C, 0x1B, 0x01};  // the last: by markers
constexpr std::uint8_t by_individuals = 0x00;
constexpr std::size_t name_field = 1;  // second field: of .fam the individual, of .bim the marker

/// L_READ_NAMES: the second field of each line.
///   fields   that a line has at least
void L_READ_NAMES(ERROR_HANDLER& eh, const std::string& path, std::size_t fields, std::vector<std::string>& names,
                  std::vector<std::int64_t>& numbers)
{
  const Frame here{eh, __func__};
  FILE_LINES lines{.file = {}, .path = path, .line = {}};
  lines.file.limit_lines(longest_line);
  if (!lines.file.open(path)) {
    eh.error(text("failed to open GRR file ", path), Ecode::io_error);
    return eh.continuation(lines.file.error());
  }
  const bool room = attempt([&] {
    while (lines.next(eh)) {
      std::string_view rest = trim(lines.line);
      if (rest.empty()) continue;
      std::string_view name;
      std::size_t count = 0;
      for (; !rest.empty(); ++count) {
        const std::size_t end = std::min(rest.find_first_of(" \t"), rest.size());
        if (count == name_field) name = rest.substr(0, end);
        rest = trim(rest.substr(end));
      }
      if (count < fields) return lines.unreadable(eh, text(fields, " fields were expected, ", count, " found"));
      names.emplace_back(name);
      numbers.push_back(lines.file.line_number());
    }
  });
  if (!room) eh.out_of_memory();
  if (!eh.terminate() && names.empty()) lines.unreadable(eh, lines.file.line_number() + 1, "the file has no data");
}

/// L_CHECK_BED: opens a .bed file; its first bytes and its size must be right.
void L_CHECK_BED(ERROR_HANDLER& eh, const std::string& path, std::int64_t individuals, std::int64_t markers,
                 BED_FILE& bed)
{
  const Frame here{eh, __func__};
  const std::int64_t size = file_size(path);
  bed.path = path;
  bed.file.reset(size < 0 ? nullptr : std::fopen(path.c_str(), "rbe"));
  if (bed.file == nullptr) return eh.error(text("failed to open GRR file ", path), Ecode::io_error);
  std::array<std::uint8_t, 3> head{};
  const bool read = std::fread(head.data(), 1, head.size(), bed.file.get()) == head.size();
  if (!read || head[0] != first_bytes[0] || head[1] != first_bytes[1]) {
    eh.error(text("unable to read from ", path, ", its first bytes are not those of a .bed file"), Ecode::io_error);
    return;
  }
  if (head[2] != first_bytes[2]) {
    eh.error(text("unable to read from ", path, ", its genotypes are not in the order of the markers"), Ecode::io_error);
    if (head[2] == by_individuals) eh.continuation("they are in the order of the individuals");
    return;
  }
  std::int64_t codes = 0;
  if (!multiply_sizes((individuals + 3) / 4, markers, codes) || size - std::ssize(head) != codes) {
    eh.error(text("unable to read from ", path, ", it has ", size, " bytes"), Ecode::io_error);
    eh.continuation(text(individuals, " individuals in .fam and ", markers, " markers in .bim need ",
                         codes + std::ssize(head)));
  }
}

}  // namespace

void L_OPEN_PLINK_FILES(ERROR_HANDLER& eh, const MARKER_KEYS& keys, const std::string& path, MARKER_DATA& out)
{
  const Frame here{eh, __func__};
  const std::string root = without_extension(path);
  constexpr std::size_t fields_of_fam = 2;  // family and individual; what follows them is not used
  constexpr std::size_t fields_of_bim = 2;  // chromosome and marker
  std::vector<std::int64_t> lines, lines_of_markers;
  L_READ_NAMES(eh, root + ".fam", fields_of_fam, out.labels, lines);
  if (eh.terminate()) return;
  L_READ_NAMES(eh, root + ".bim", fields_of_bim, out.names, lines_of_markers);
  if (eh.terminate()) return;
  const std::int64_t individuals = std::ssize(out.labels);
  const std::int64_t markers = std::ssize(out.names);
  L_CHECK_BED(eh, path, individuals, markers, out.bed);
  if (eh.terminate()) return;

  out.coded = true;
  out.source_genotypes = out.genotypes = individuals;
  out.regressors = markers;
  if (keys.markers > 0 && keys.markers < markers) {
    out.regressors = keys.markers;
    eh.note(text("using the first ", keys.markers, " of the regressors that appear to be in the file"));
  } else {
    eh.note(text("using the ", markers, " regressors that appear to be in the file"));
  }
  if (keys.to > out.regressors) {
    eh.error(text("the range ", keys.from, " to ", keys.to, " is beyond the ", out.regressors, " regressors of ", path));
    return;
  }
  if (keys.to > 0) {
    out.first_column = keys.from - 1;
    out.regressors = keys.to - keys.from + 1;
  }
  out.names.resize(static_cast<std::size_t>(out.first_column + out.regressors));
  out.names.erase(out.names.begin(), out.names.begin() + out.first_column);
  L_SELECT_GENOTYPES(eh, keys, root + ".fam", lines, out);
}

void L_READ_BED_COLUMNS(ERROR_HANDLER& eh, const MARKER_DATA& data, std::int64_t first, std::int64_t count,
                        std::uint8_t* to)
{
  const Frame here{eh, __func__};
  const std::int64_t start = std::ssize(first_bytes) + first * data.column_bytes();
  const auto bytes = static_cast<std::size_t>(count * data.column_bytes());
  std::FILE* file = data.bed.file.get();
  // Blocks follow each other: the place is right already, and moving there would drop what is buffered.
  const bool there = ::ftello(file) == start || ::fseeko(file, start, SEEK_SET) == 0;
  if (!there || std::fread(to, 1, bytes, file) != bytes)
    eh.error(text("unable to read from ", data.bed.path, ", attempting to read marker ", first + 1), Ecode::io_error);
}

}  // namespace tolvan
