// Where markers come from.  Routines: GETMARKERS, L_SELECT_GENOTYPES.
#include "relmat/marker_files.h"

#include <unordered_map>

#include "base/memory.h"
#include "base/text.h"
#include "relmat/entry_values.h"

namespace tolvan {

void L_SELECT_GENOTYPES(ERROR_HANDLER& eh, const MARKER_KEYS& keys, const std::string& path,
                        const std::vector<std::int64_t>& lines, MARKER_DATA& out)
{
  const Frame here{eh, __func__};
  std::unordered_map<std::string_view, std::int64_t> row_of;
  std::vector<std::string> labels;
  const bool room = attempt([&] {
    for (std::int64_t k = 0; k < std::ssize(out.labels); ++k) {
      const std::string& label = out.labels[static_cast<std::size_t>(k)];
      const auto [at, is_new] = row_of.try_emplace(label, k);
      if (is_new) continue;
      eh.error(text("the genotype ", label, " stands twice in ", path, ", on lines ",
                    lines[static_cast<std::size_t>(at->second)], " and ", lines[static_cast<std::size_t>(k)]));
      return;
    }
    if (keys.ids.empty()) return;
    if (out.labels.empty()) {
      eh.error(text("the genotypes of ", path, " have no labels, so that ids can not choose among them"));
      return;
    }
    std::vector<bool> taken(out.labels.size());
    for (const std::string& id : keys.ids) {
      const auto at = row_of.find(id);
      if (at == row_of.end() || taken[static_cast<std::size_t>(at->second)]) {
        eh.error(at == row_of.end() ? text("the genotype ", id, " of ids is not in ", path)
                                    : text("the genotype ", id, " stands twice in ids"));
        return;
      }
      taken[static_cast<std::size_t>(at->second)] = true;
      out.rows.push_back(at->second);
      labels.push_back(id);
    }
    out.genotypes = std::ssize(out.rows);
  });
  if (!room) eh.out_of_memory();
  if (!eh.terminate() && !keys.ids.empty()) out.labels = std::move(labels);
}

void GETMARKERS(ERROR_HANDLER& eh, const MARKER_KEYS& keys, MARKER_DATA& out)
{
  const Frame here{eh, __func__};
  std::string path = keys.path();
  if (extension_of(path).empty()) {
    for (const char* extension : {".mkr", ".mat", ".grr", ".bed"}) {
      if (!file_exists(path + extension)) continue;
      path += extension;
      break;
    }
  }
  out.origin = path;
  const std::string kind = extension_of(path);
  if (kind == "bed") {
    L_OPEN_PLINK_FILES(eh, keys, path, out);
  } else if (is_unformatted(kind)) {
    L_READ_MARKER_RECORDS(eh, keys, path, out);
  } else {
    L_READ_MARKER_TEXT(eh, keys, path, out);
  }
  if (eh.terminate()) return;
  if (out.coded) {
    eh.note(text("marker data [0/1/2] for ", out.regressors, " markers read from ", out.origin));
  } else {
    eh.note(text("data for ", out.genotypes, " genotypes and ", out.regressors, " regressors read from ", out.origin));
  }
}

}  // namespace tolvan
