// Where markers come from.  Routines: GETMARKERS, L_MATCH_GENOTYPES, L_SELECT_GENOTYPES.
#include "relmat/marker_files.h"

#include <algorithm>
#include <unordered_map>

#include "base/memory.h"
#include "base/text.h"
#include "data/entry_values.h"

namespace tolvan {
namespace {

/// L_READ_ONE_FILE: reads a file by its kind.
void L_READ_ONE_FILE(ERROR_HANDLER& eh, const MARKER_KEYS& keys, std::string path, MARKER_DATA& out)
{
  const Frame here{eh, __func__};
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

}  // namespace

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

void L_MATCH_GENOTYPES(ERROR_HANDLER& eh, const MARKER_DATA& first, MARKER_DATA& other)
{
  const Frame here{eh, __func__};
  if (first.genotypes == other.genotypes && first.labels == other.labels) return;
  if (first.labels.empty() || other.labels.empty()) {
    eh.error(text("the genotypes of ", other.origin, " can not be matched with those of ", first.origin));
    return eh.continuation(first.labels.empty() && other.labels.empty()
                               ? text("they have no labels, and there are ", other.genotypes, " and ", first.genotypes)
                               : text("those of ", first.labels.empty() ? first.origin : other.origin, " have no labels"));
  }
  const auto missing = [&](const std::string& label, const MARKER_DATA& has, const MARKER_DATA& lacks) {
    eh.error(text("the genotype ", label, " of ", has.origin, " is not in ", lacks.origin));
  };
  const bool room = attempt([&] {
    std::unordered_map<std::string_view, std::int64_t> row_of;
    for (std::int64_t k = 0; k < other.genotypes; ++k) row_of.try_emplace(other.labels[static_cast<std::size_t>(k)], k);
    std::vector<std::int64_t> rows;
    for (const std::string& label : first.labels) {
      const auto at = row_of.find(label);
      if (at == row_of.end()) return missing(label, first, other);
      rows.push_back(other.rows.empty() ? at->second : other.rows[static_cast<std::size_t>(at->second)]);
      row_of.erase(at);
    }
    if (!row_of.empty()) {
      const auto least = std::min_element(row_of.begin(), row_of.end(),
                                          [](const auto& a, const auto& b) { return a.second < b.second; });
      return missing(std::string(least->first), other, first);
    }
    other.rows = std::move(rows);
    other.labels = first.labels;
  });
  if (!room) eh.out_of_memory();
}

void GETMARKERS(ERROR_HANDLER& eh, const MARKER_KEYS& keys, MARKER_DATA& out)
{
  const Frame here{eh, __func__};
  L_READ_ONE_FILE(eh, keys, keys.files.front(), out);
  for (std::size_t k = 1; k < keys.files.size() && !eh.terminate(); ++k) {
    MARKER_DATA other;
    L_READ_ONE_FILE(eh, keys, keys.files[k], other);
    if (eh.terminate()) return;
    L_MATCH_GENOTYPES(eh, out, other);
    if (eh.terminate()) return;
    const bool room = attempt([&] {
      // Where a file has no names all regressors are numbered.
      const bool named = !out.names.empty() && !other.names.empty();
      if (named) out.names.insert(out.names.end(), other.names.begin(), other.names.end());
      if (!named) out.names.clear();
      out.regressors += other.regressors;
      out.further.push_back(std::move(other));
    });
    if (!room) return eh.out_of_memory();
  }
  if (!out.further.empty()) out.origin = keys.name;
}

}  // namespace tolvan
