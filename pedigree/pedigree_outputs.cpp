// Files that a pedigree leaves: L_WRITE_SORTED_PEDIGREE, L_AIPEDA_WRITE_DIAGONAL_AINVERSE,
// L_AIPEDA_WRITE_GIV.
#include <algorithm>

#include "base/files.h"
#include "base/memory.h"
#include "base/text.h"
#include "data/entry_values.h"
#include "pedigree/pedigree_file.h"

namespace tolvan {
namespace {

/// The text edit A24: cut or filled up behind.
std::string edit_a24(std::string_view name)
{
  constexpr std::size_t width = 24;
  std::string out(name.substr(0, width));
  out.resize(width, ' ');
  return out;
}

std::vector<bool> parents_of(const PEDIGREE& p)
{
  std::vector<bool> is_parent(p.id.size(), false);
  for (const std::vector<std::int32_t>* side : {&p.male, &p.female}) {
    for (const std::int32_t each : *side) {
      if (each > 0) is_parent[static_cast<std::size_t>(each - 1)] = true;
    }
  }
  return is_parent;
}

void finish(ERROR_HANDLER& eh, FileWriter& file, const std::string& path)
{
  if (file.commit()) return;
  eh.error(text("unable to write file ", path), Ecode::io_error);
  eh.continuation(file.error());
}

/// One line of names: an individual and its parents.
std::string line_of(const PEDIGREE& p, const std::vector<std::string>& labels, std::size_t k)
{
  const auto name = [&](std::int32_t row) {
    return row > 0 ? labels[static_cast<std::size_t>(row - 1)] : std::string("0");
  };
  std::string line = text(labels[k], ", ", name(p.male[k]), ", ", name(p.female[k]));
  if (!p.sex.empty()) line += p.sex[k] == 0.0 ? ", 1" : ", 2";
  if (!p.level.empty()) line += text(", ", p.level[k]);
  return line + "\n";
}

/// L_WRITE_ELEMENTS: writes a file of elements: row, column, value.
template <class Each>
void L_WRITE_ELEMENTS(ERROR_HANDLER& eh, const std::string& path, Each&& each_element)
{
  const Frame here{eh, __func__};
  FileWriter file;
  file.open(path);
  each_element([&](std::int64_t row, std::int64_t column, double value) {
    file.write(text(row, " ", column, " ", value, "\n"));
  });
  finish(eh, file, path);
}

/// L_WRITE_GROUP_SHARES: the share of each group in each individual, Q = P Q down the pedigree, where it is
/// not 0.
void L_WRITE_GROUP_SHARES(ERROR_HANDLER& eh, const PEDIGREE_KEYS& keys, const PEDIGREE& p,
                          const std::string& path)
{
  const Frame here{eh, __func__};
  const BREEDING_RULES rules = breeding_rules(keys);
  std::vector<double> q;
  std::int64_t size = 0;
  if (!multiply_sizes(p.rows(), p.groups, size)) return eh.out_of_memory();
  if (!assign(eh, q, size)) return;
  const auto at = [&](std::int64_t row) { return q.data() + (row - 1) * p.groups; };
  for (std::int64_t g = 1; g <= p.groups; ++g) at(g)[g - 1] = 1.0;
  for (std::int64_t i = p.groups + 1; i <= p.rows(); ++i) {
    const auto [c1, c2] = parent_paths(p, rules, i);
    const std::pair<std::int64_t, double> parents[] = {{p.male[static_cast<std::size_t>(i - 1)], c1},
                                                       {p.female[static_cast<std::size_t>(i - 1)], c2}};
    for (const auto& [parent, share] : parents) {
      for (std::int64_t g = 0; g < p.groups && parent > 0; ++g) at(i)[g] += share * at(parent)[g];
    }
  }
  L_WRITE_ELEMENTS(eh, path, [&](auto&& put) {
    for (std::int64_t i = p.groups + 1; i <= p.rows(); ++i) {
      for (std::int64_t g = 1; g <= p.groups; ++g) {
        if (at(i)[g - 1] != 0.0) put(i, g, at(i)[g - 1]);
      }
    }
  });
}

}  // namespace

void L_WRITE_SORTED_PEDIGREE(ERROR_HANDLER& eh, const PEDIGREE_KEYS& keys, const PEDIGREE& pedigree,
                             const std::vector<std::string>& labels)
{
  const Frame here{eh, __func__};
  const std::string path = without_extension(keys.path) + ".srt";
  const std::vector<bool> is_parent = parents_of(pedigree);
  FileWriter file;
  file.open(path);
  std::int64_t first = 0;
  for (const bool ahead : {true, false}) {
    for (std::size_t k = 0; k < labels.size(); ++k) {
      if ((is_parent[k] || (pedigree.male[k] == 0 && pedigree.female[k] == 0)) != ahead) continue;
      first += ahead ? 1 : 0;
      file.write(line_of(pedigree, labels, k));
    }
  }
  finish(eh, file, path);
  if (!eh.terminate())
    eh.note(text("sorted pedigree written to: ", path, ", first ", first,
                 " rows include all parents and base individuals"));
}

void L_AIPEDA_WRITE_DIAGONAL_AINVERSE(ERROR_HANDLER& eh, const PEDIGREE_KEYS& keys, const FIT_PEDIGREE& p)
{
  const Frame here{eh, __func__};
  const std::string path = without_extension(keys.path) + ".aif";
  // The inbreeding of the sex-linked inverse is that at an X-linked locus; the autosomal one stands beside
  // it.
  std::vector<double> autosomal;
  if (keys.sex_linked) {
    PEDIGREE plain = p.pedigree;
    plain.sex.clear();
    INBREEDING f;
    L_INBREEDING_BY_SIRES(eh, plain, {}, f);
    if (eh.terminate()) return;
    autosomal = std::move(f.F);
  }
  const std::vector<bool> is_parent = parents_of(p.pedigree);
  FileWriter file;
  file.open(path);
  file.write(keys.sex_linked
                 ? "Identity          Inbreeding XlinkInBreeding   Diag_of_Ainverse Parent/NonParent\n"
                 : "Identity          Inbreeding   Diag_of_Ainverse Parent/NonParent\n");
  for (std::size_t k = 0; k < p.labels.size(); ++k) {
    const auto row = static_cast<std::int64_t>(k) + 1;
    const std::string linked = keys.sex_linked ? edit_f(autosomal[k], 12, 6) : std::string();
    file.write(text(edit_a24(p.labels[k]), linked, edit_f(p.inverse.inbreeding[k], 12, 6),
                    edit_f(sparse_element(p.inverse.matrix, row, row), 16, 6),
                    is_parent[k] ? " Parent\n" : " NonParent\n"));
  }
  finish(eh, file, path);
}

void L_AIPEDA_WRITE_GIV(ERROR_HANDLER& eh, const PEDIGREE_KEYS& keys, const FIT_PEDIGREE& p)
{
  const Frame here{eh, __func__};
  const std::string root = without_extension(keys.path);
  const SPARSE_MTX_LLIST& a = p.inverse.matrix;
  L_WRITE_ELEMENTS(eh, root + "_A.giv", [&](auto&& put) {
    for (std::int64_t i = 0; i < a.order; ++i) {
      for (std::int64_t k = a.start[static_cast<std::size_t>(i)];
           k < a.start[static_cast<std::size_t>(i) + 1]; ++k)
        put(i + 1, a.index[static_cast<std::size_t>(k)] + 1, a.values[static_cast<std::size_t>(k)]);
    }
  });
  if (eh.terminate() || keys.write_giv < 2) return;
  L_WRITE_ELEMENTS(eh, root + "_B.giv", [&](auto&& put) {
    for (std::int64_t i = p.pedigree.groups; i < a.order; ++i)
      put(i + 1, i + 1, 1.0 / p.inverse.variance[static_cast<std::size_t>(i)]);
  });
  if (eh.terminate()) return;
  if (p.pedigree.groups > 0) L_WRITE_GROUP_SHARES(eh, keys, p.pedigree, root + "_Q.giv");
  if (eh.terminate()) return;
  const std::string path = root + "_Parent.ped";
  FileWriter file;
  file.open(path);
  for (std::size_t k = 0; k < p.labels.size(); ++k) file.write(line_of(p.pedigree, p.labels, k));
  finish(eh, file, path);
}

}  // namespace tolvan
