// The rules of a pedigree: GET_UNIQUE_VALS, CHKPED.
#include "pedigree/check_pedigree.h"

#include <algorithm>

#include "base/memory.h"
#include "base/text.h"

namespace tolvan {
namespace {

constexpr std::int32_t none = PEDIGREE_COLUMNS::no_name;

/// What the rules know of each name.
struct NAMES_IN_USE {
  std::vector<std::int32_t> row;             // of the name among the identifiers, from 1; 0: none
  std::vector<std::int32_t> males, females;  // distinct parents by first appearance
  std::vector<bool> is_male, is_female;
};

/// L_GATHER: lists the parents and where each name has its row; of a name that comes twice the first row
/// counts.
void L_GATHER(ERROR_HANDLER& eh, const PEDIGREE_COLUMNS& p, NAMES_IN_USE& use)
{
  const Frame here{eh, __func__};
  const std::int64_t names = p.names.size();
  GET_UNIQUE_VALS(eh, p.male, names, use.males);
  GET_UNIQUE_VALS(eh, p.female, names, use.females);
  if (eh.terminate() || !assign(eh, use.row, names)) return;
  const bool room = attempt([&] {
    use.is_male.assign(static_cast<std::size_t>(names), false);
    use.is_female.assign(static_cast<std::size_t>(names), false);
  });
  if (!room) return eh.out_of_memory(names / 4);
  for (const std::int32_t each : use.males) use.is_male[static_cast<std::size_t>(each)] = true;
  for (const std::int32_t each : use.females) use.is_female[static_cast<std::size_t>(each)] = true;
  for (std::size_t k = p.id.size(); k-- > 0;) {
    if (p.id[k] != none) use.row[static_cast<std::size_t>(p.id[k])] = static_cast<std::int32_t>(k) + 1;
  }
}

bool is_group(const NAMES_IN_USE& use, std::int64_t groups, std::int32_t name)
{
  const std::int32_t row = use.row[static_cast<std::size_t>(name)];
  return row > 0 && row <= groups;
}

/// L_CHECK_NAMES: the rules of identifiers and parents.  A genetic group may stand on both sides.
void L_CHECK_NAMES(ERROR_HANDLER& eh, const PEDIGREE_COLUMNS& p, const PEDIGREE_FLAGS& flags,
                   const NAMES_IN_USE& use)
{
  const Frame here{eh, __func__};
  const std::size_t n = p.id.size();
  const auto name = [&](std::int32_t code) { return p.names.name(code); };
  if (!flags.grandsire) {
    for (const std::int32_t each : use.males) {
      if (use.is_female[static_cast<std::size_t>(each)] && !is_group(use, flags.groups, each))
        eh.error(text(name(each), " is both a male and female parent."));
    }
    for (std::size_t k = 0; k < n; ++k) {
      if (p.male[k] == none || p.male[k] != p.female[k] || is_group(use, flags.groups, p.male[k])) continue;
      eh.error(text(p.id[k] == none ? std::string() : name(p.id[k]), " has ", name(p.male[k]),
                    " as both male and female parent."));
    }
  }
  for (std::size_t k = 0; k < n; ++k) {
    if (p.id[k] == none) eh.error(text("One of the pedigree ids is missing at row ", k + 1, ".]."));  // sic
  }
  for (std::size_t k = 0; k < n; ++k) {
    if (p.id[k] == none) continue;
    if (p.male[k] == p.id[k]) eh.error(text(name(p.id[k]), " cannot be its own male parent."));
    if (p.female[k] == p.id[k]) eh.error(text(name(p.id[k]), " cannot be its own female parent."));
  }
  std::vector<bool> told;
  for (std::size_t k = 0; k < n; ++k) {
    if (p.id[k] == none || use.row[static_cast<std::size_t>(p.id[k])] == static_cast<std::int32_t>(k) + 1)
      continue;
    if (told.empty() && !attempt([&] { told.assign(use.row.size(), false); }))
      return eh.out_of_memory(static_cast<std::int64_t>(use.row.size()) / 8);
    if (told[static_cast<std::size_t>(p.id[k])]) continue;
    told[static_cast<std::size_t>(p.id[k])] = true;
    eh.error(text(name(p.id[k]), " occurs more than once in the pedigree."));
  }
  for (std::size_t k = 0; k < std::min(n, static_cast<std::size_t>(flags.groups)); ++k) {
    if (p.id[k] != none && (p.male[k] != none || p.female[k] != none))
      eh.error(text("Invalid 'parent' for genetic group ", name(p.id[k])));
  }
}

/// L_CHECK_SEX: parents of the wrong sex, and values that are no sex.
void L_CHECK_SEX(ERROR_HANDLER& eh, const PEDIGREE_COLUMNS& p, const PEDIGREE_FLAGS& flags,
                 const NAMES_IN_USE& use)
{
  const Frame here{eh, __func__};
  const auto wrong = [&](std::int32_t parent, double sex) {
    const std::int32_t row = use.row[static_cast<std::size_t>(parent)];
    return row > flags.groups && p.sex[static_cast<std::size_t>(row - 1)] == sex;
  };
  for (const std::int32_t each : use.males) {
    if (wrong(each, 1.0)) eh.error(text(p.names.name(each), " has sex=female but is a male parent."));
  }
  for (const std::int32_t each : use.females) {
    if (wrong(each, 0.0)) eh.error(text(p.names.name(each), " has sex=male but is a female parent."));
  }
  for (std::size_t k = static_cast<std::size_t>(flags.groups); k < p.sex.size(); ++k) {
    if (p.sex[k] == 0.0 || p.sex[k] == 1.0) continue;
    eh.error(text("Gender value ", p.sex[k], " for ", p.names.name(p.id[k]), " must be 0 or 1."));
  }
}

/// L_CHECK_LEVELS: the first selfing value out of range.
void L_CHECK_LEVELS(ERROR_HANDLER& eh, const PEDIGREE_COLUMNS& p)
{
  const Frame here{eh, __func__};
  const auto bad = std::find_if(p.level.begin(), p.level.end(),
                                [](double v) { return !(v >= 0.0 && v <= highest_level); });
  if (bad == p.level.end()) return;
  eh.error(text("Selfing value ", *bad, " for ",
                p.names.name(p.id[static_cast<std::size_t>(bad - p.level.begin())]),
                *bad < 0.0 ? " is negative." : " is too large (> 100)."));
}

/// L_ADD_PARENTS: lists the groups, then the parents without a row, then all others, and numbers the parents.
void L_ADD_PARENTS(ERROR_HANDLER& eh, const PEDIGREE_COLUMNS& p, const PEDIGREE_FLAGS& flags,
                   NAMES_IN_USE& use, PEDIGREE& out)
{
  const Frame here{eh, __func__};
  std::vector<std::int32_t> added;
  const bool room = attempt([&] {
    for (const std::vector<std::int32_t>* side : {&use.males, &use.females}) {
      for (const std::int32_t each : *side) {
        std::int32_t& row = use.row[static_cast<std::size_t>(each)];
        if (row == 0) added.push_back(each);
        row = row == 0 ? -1 : row;
      }
    }
  });
  if (!room) return eh.out_of_memory();

  const std::int64_t more = static_cast<std::int64_t>(added.size());
  const std::int64_t n = p.rows() + more;
  out.groups = flags.groups;
  if (!assign(eh, out.id, n) || !assign(eh, out.male, n) || !assign(eh, out.female, n)) return;
  if (!p.sex.empty() && !assign(eh, out.sex, n)) return;
  if (!p.level.empty() && !assign(eh, out.level, n, flags.parent_level)) return;
  for (std::int64_t k = 0; k < more; ++k) {
    const auto to = static_cast<std::size_t>(flags.groups + k);
    const std::int32_t name = added[static_cast<std::size_t>(k)];
    out.id[to] = name;
    use.row[static_cast<std::size_t>(name)] = static_cast<std::int32_t>(to) + 1;
    if (!p.sex.empty()) out.sex[to] = use.is_male[static_cast<std::size_t>(name)] ? 0.0 : 1.0;
  }
  for (std::int64_t k = 0; k < p.rows(); ++k) {
    const auto from = static_cast<std::size_t>(k);
    const auto to = static_cast<std::size_t>(k < flags.groups ? k : k + more);
    out.id[to] = p.id[from];
    use.row[static_cast<std::size_t>(p.id[from])] = static_cast<std::int32_t>(to) + 1;
    if (!p.sex.empty()) out.sex[to] = p.sex[from];
    if (!p.level.empty()) out.level[to] = p.level[from];
  }
  const auto row_of = [&](std::int32_t name) {
    return name == none ? 0 : use.row[static_cast<std::size_t>(name)];
  };
  for (std::int64_t k = flags.groups; k < p.rows(); ++k) {
    const auto from = static_cast<std::size_t>(k);
    out.male[from + added.size()] = row_of(p.male[from]);
    out.female[from + added.size()] = row_of(p.female[from]);
  }
}

}  // namespace

bool MISSING_TEXTS::contains(std::string_view name) const
{
  name = trim(name);
  return name.empty() || name == "0" || std::find(texts_.begin(), texts_.end(), name) != texts_.end();
}

void MISSING_TEXTS::add(std::string_view name)
{
  if (!contains(name)) texts_.emplace_back(trim(name));
}

void GET_UNIQUE_VALS(ERROR_HANDLER& eh, std::span<const std::int32_t> values, std::int64_t names,
                     std::vector<std::int32_t>& unique)
{
  const Frame here{eh, __func__};
  unique.clear();
  const bool room = attempt([&] {
    std::vector<bool> seen(static_cast<std::size_t>(names), false);
    for (const std::int32_t each : values) {
      if (each == none || seen[static_cast<std::size_t>(each)]) continue;
      seen[static_cast<std::size_t>(each)] = true;
      unique.push_back(each);
    }
  });
  if (!room) eh.out_of_memory();
}

void CHKPED(ERROR_HANDLER& eh, const PEDIGREE_COLUMNS& columns, const PEDIGREE_FLAGS& flags, PEDIGREE& out)
{
  const Frame here{eh, __func__};
  NAMES_IN_USE use;
  L_GATHER(eh, columns, use);
  if (eh.terminate()) return;
  L_CHECK_NAMES(eh, columns, flags, use);
  if (eh.terminate()) return;
  if (!columns.level.empty() && !columns.sex.empty())
    eh.error("Only one of selfing_levels and gender can be set.");
  if (eh.terminate()) return;
  if (!columns.sex.empty()) L_CHECK_SEX(eh, columns, flags, use);
  if (eh.terminate()) return;
  L_CHECK_LEVELS(eh, columns);
  if (eh.terminate()) return;
  L_ADD_PARENTS(eh, columns, flags, use, out);
  if (eh.terminate()) return;
  if (flags.sort) SORTPED(eh, columns.names, out);
}

}  // namespace tolvan
