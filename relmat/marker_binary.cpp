// Markers in unformatted files.  Routine: L_READ_MARKER_RECORDS.
#include <cmath>

#include "base/memory.h"
#include "base/numbers.h"
#include "base/text.h"
#include "data/entry_values.h"
#include "relmat/marker_files.h"
#include "relmat/marker_table.h"
#include "relmat/record_file.h"

namespace tolvan {

void L_READ_MARKER_RECORDS(ERROR_HANDLER& eh, const MARKER_KEYS& keys, const std::string& path, MARKER_DATA& out)
{
  const Frame here{eh, __func__};
  const bool single = extension_of(path) != "dgrm";
  RECORDS records{.file = nullptr, .path = path, .single = single, .bytes = 0, .number = 0, .narrow = {}};
  records.file.reset(file_size(path) < 0 ? nullptr : std::fopen(path.c_str(), "rbe"));
  if (records.file == nullptr) return eh.error(text("failed to open GRR file ", path), Ecode::io_error);
  records.bytes = file_size(path);
  std::int32_t first = 0;
  const bool read = std::fread(&first, 1, mark_bytes, records.file.get()) == mark_bytes;
  std::rewind(records.file.get());
  const std::int64_t width = first / records.width();
  if (!read || first <= 0 || first % records.width() != 0 || records.bytes % (2 * mark_bytes + first) != 0)
    return unreadable(eh, path, single);
  const std::int64_t count = std::min(width, keys.markers);
  eh.note(keys.markers < width ? text("using the first ", count, " of the regressors that appear to be in the file")
                               : text("using the ", count, " regressors that appear to be in the file"));
  if (keys.to > count) {
    eh.error(text("the range ", keys.from, " to ", keys.to, " is beyond the ", count, " regressors of ", path));
    return;
  }
  const std::int64_t from = keys.to > 0 ? keys.from - 1 : 0;
  const std::int64_t to = keys.to > 0 ? keys.to : count;
  const std::int64_t genotypes = records.bytes / (2 * mark_bytes + first);
  const bool room = attempt([&] {
    std::vector<double> row(static_cast<std::size_t>(width));
    MARKER_TABLE table(to - from);
    for (std::int64_t i = 0; i < genotypes; ++i) {
      if (!records.read(eh, width, row.data())) return;
      table.add_lines(1);
      for (std::int64_t j = from; j < to; ++j) {
        const double x = row[static_cast<std::size_t>(j)];
        if (std::isnan(x) || x == no_value || x == static_cast<double>(static_cast<float>(no_value))) continue;
        if (!std::isfinite(x)) {
          eh.error(text("error reading values from ", path), Ecode::io_error);
          return eh.continuation(text("value ", j + 1, " of record ", i + 1, " is not finite"));
        }
        table.set(i, j - from, x);
      }
    }
    for (std::int64_t j = keys.from; j <= keys.to && keys.to > 0; ++j) out.names.push_back(text(j));
    L_FINISH_TABLE(eh, table, false, false, out);
  });
  if (!room) return eh.out_of_memory();
  if (!eh.terminate()) L_SELECT_GENOTYPES(eh, keys, path, {}, out);
}

}  // namespace tolvan
