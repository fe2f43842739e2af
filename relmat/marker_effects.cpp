// Routines: L_MARKER_EFFECTS, L_READ_MEF, L_RESWRITE.
#include "relmat/marker_effects.h"

#include <algorithm>
#include <cmath>
#include <unordered_map>

#include "base/files.h"
#include "base/lapack.h"
#include "base/memory.h"
#include "base/text.h"
#include "relmat/file_lines.h"
#include "relmat/list_directed.h"
#include "relmat/marker_columns.h"

namespace tolvan {

void L_MARKER_EFFECTS(ERROR_HANDLER& eh, const MARKER_KEYS& keys, const MARKER_DATA& data,
                      const std::vector<double>& weights, double divisor, const std::vector<double>& alpha,
                      std::vector<double>& effects)
{
  const Frame here{eh, __func__};
  const std::int64_t n = data.genotypes;
  const std::int64_t r = data.regressors;
  const std::int64_t block = columns_of_block(data);
  std::vector<double> z;
  std::vector<std::uint8_t> bytes;
  std::vector<MARKER_COLUMN> columns;
  if (!assign(eh, effects, r) || !assign(eh, z, n * block)) return;
  for (std::int64_t first = 0; first < r; first += block) {
    const std::int64_t count = std::min(block, r - first);
    if (!resize(eh, columns, count)) return;
    L_FILL_COLUMNS(eh, keys, data, first, columns, z.data(), bytes);
    if (eh.terminate()) return;
    dgemv('T', n, count, 1.0 / divisor, z.data(), n, alpha.data(), 1, 0.0, effects.data() + first, 1);
  }
  for (std::size_t j = 0; j < weights.size(); ++j) effects[j] *= weights[j];
}

void fast_bayes_weights(double df, double offset, const std::vector<double>& effects, std::vector<double>& weights)
{
  double squares = 0.0;
  std::size_t known = 0;
  for (const double u : effects) {
    if (std::isnan(u)) continue;
    squares += u * u;
    ++known;
  }
  weights.assign(effects.size(), 1.0);
  if (!(squares > 0.0)) return;
  const double prior = (df - 2.0) * squares / static_cast<double>(known);  // nu S^2
  double sum = 0.0;
  for (std::size_t j = 0; j < effects.size(); ++j) {
    if (std::isnan(effects[j])) continue;
    weights[j] = (prior + effects[j] * effects[j]) / (df + 1.0) + offset;
    sum += weights[j];
  }
  const double mean = sum / static_cast<double>(known);
  for (std::size_t j = 0; j < effects.size(); ++j) weights[j] = std::isnan(effects[j]) ? 1.0 : weights[j] / mean;
}

void L_READ_MEF(ERROR_HANDLER& eh, const std::string& root, const MARKER_DATA& data, std::vector<double>& effects)
{
  const Frame here{eh, __func__};
  const std::string path = root + ".mef";
  effects.clear();
  if (!file_exists(path)) return;
  FILE_LINES lines{.file = {}, .path = path, .line = {}};
  bool sound = lines.file.open(path);
  std::size_t found = 0;
  const bool room = attempt([&] {
    effects.assign(static_cast<std::size_t>(data.regressors), std::nan(""));
    std::unordered_map<std::string, std::size_t> place;
    for (std::size_t j = 0; j < effects.size(); ++j) place.try_emplace(data.name(static_cast<std::int64_t>(j)), j);
    while (sound && lines.file.next_line(lines.line)) {
      const std::string_view line = trim(lines.line);
      if (line.empty()) continue;
      const std::size_t end = std::min(line.find_first_of(" \t,"), line.size());
      double u = 0.0, weight = 0.0;
      ListReader numbers(line.substr(end));
      sound = numbers.next(u) == ListItem::value && numbers.next(weight) == ListItem::value && std::isfinite(u) &&
              std::isfinite(weight) && weight >= 0.0;
      const auto at = sound ? place.find(std::string(line.substr(0, end))) : place.end();
      if (at == place.end()) continue;
      found += std::isnan(effects[at->second]) ? 1 : 0;
      effects[at->second] = u;
    }
  });
  if (!room) return eh.out_of_memory();
  if (sound && lines.file.error().empty() && found == effects.size()) {
    eh.note("FBA Weights initialized from previous .mef file");
  } else {
    eh.warning(text("Issue readingFBA Weights from previous .mef file: ", root,  // sic
                    ".mef, weights may have been partially initialized"));
  }
}

void L_RESWRITE(ERROR_HANDLER& eh, const std::string& root, const MARKER_DATA& data,
                const std::vector<double>& effects, const std::vector<double>& weights)
{
  const Frame here{eh, __func__};
  const std::string path = root + ".mef";
  FileWriter file;
  bool written = file.open(path);
  for (std::size_t j = 0; j < effects.size() && written; ++j) {
    const double weight = weights.empty() ? 1.0 : weights[j];
    written = file.write(text(data.name(static_cast<std::int64_t>(j)), " ", effects[j], " ", weight, "\n"));
  }
  if (written && file.commit()) return eh.note(text("marker effects written to ", path));
  eh.error(text("unable to open file ", path), Ecode::io_error);
  eh.continuation(file.error());
}

}  // namespace tolvan
