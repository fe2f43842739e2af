// From the lines of a pedigree file to a pedigree in order: AIPSRT, L_TRIM_PEDIGREE.
#include <algorithm>

#include "base/files.h"
#include "base/memory.h"
#include "base/text.h"
#include "pedigree/pedigree_file.h"
#include "pedigree/place_rows.h"

namespace tolvan {
namespace {

constexpr std::int64_t most_rows_told = 100;

/// The parents of a line in words.
std::string parents_of(const PEDIGREE_LINES& lines, const PEDIGREE_LINE& line)
{
  const auto name = [&](std::int32_t code) { return code < 0 ? std::string("0") : lines.names.name(code); };
  return text(name(line.id), " ", name(line.male), " ", name(line.female));
}

/// L_CHECK_LINES: faults of single lines.
void L_CHECK_LINES(ERROR_HANDLER& eh, const PEDIGREE_KEYS& keys, const PEDIGREE_LINES& lines)
{
  const Frame here{eh, __func__};
  std::int64_t without_identity = 0;
  bool level_told = !keys.levels();
  for (std::size_t k = 0; k < lines.lines.size(); ++k) {
    const PEDIGREE_LINE& line = lines.lines[k];
    if (line.id < 0) {
      if (++without_identity == 1) {
        eh.error(text("failed to process the pedigree file,  having identified ", lines.names.size(),
                      " individuals from ", line.line, " lines of pedigree file ", keys.path));
      }
      if (without_identity <= most_rows_told)
        eh.continuation(text("the identity is missing in line ", line.line));
      continue;
    }
    if (!level_told && !(line.code >= 0.0 && line.code <= highest_level)) {
      eh.error(text("Selfing value ", line.code, " for ", lines.names.name(line.id),
                    line.code < 0.0 ? " is negative." : " is too large (> 100)."));
      eh.continuation(text("pedigree line ", line.line));
      level_told = true;  // the first alone, as in a pedigree that is handed in
    }
    if (line.id == line.male || line.id == line.female)
      eh.error(text("an individual cannot be its own parent, faulty pedigree line ", line.line));
    if (static_cast<std::int64_t>(k) < keys.groups && (line.male >= 0 || line.female >= 0))
      eh.error(text("Invalid 'parent' for genetic group ", lines.names.name(line.id)));
  }
}

/// L_DROP_REPEATS: keeps one line for each identity, in the place of the first; of a base individual that
/// comes again with parents the latter count.  Lines without an identity, which are told already, go.
void L_DROP_REPEATS(ERROR_HANDLER& eh, const PEDIGREE_KEYS& keys, PEDIGREE_LINES& lines)
{
  const Frame here{eh, __func__};
  std::vector<std::int32_t> first;  // place of the line of each name, -1 for none
  if (!assign(eh, first, lines.names.size(), -1)) return;
  std::int64_t duplicates = 0;
  std::int64_t respecified = 0;
  std::size_t kept = 0;
  for (std::size_t k = 0; k < lines.lines.size(); ++k) {
    const PEDIGREE_LINE line = lines.lines[k];
    if (line.id < 0) continue;
    std::int32_t& place = first[static_cast<std::size_t>(line.id)];
    if (place < 0) {
      place = static_cast<std::int32_t>(kept);
      lines.lines[kept++] = line;
      continue;
    }
    PEDIGREE_LINE& known = lines.lines[static_cast<std::size_t>(place)];
    const bool base = line.male < 0 && line.female < 0;
    const bool was_base = known.male < 0 && known.female < 0;
    if (line.male == known.male && line.female == known.female) {
      ++duplicates;
    } else if (base) {
      eh.warning(text("respecification of ", lines.names.name(line.id), " as a base animal at line ",
                      line.line, " is ignored"));
    } else if (was_base && place >= keys.groups) {
      ++respecified;
      known = line;
    } else if (keys.repeat) {
      ++duplicates;
    } else {
      eh.error(text("contradictory pedigree line ", parents_of(lines, line), " was given as ",
                    parents_of(lines, known)));
      eh.continuation(text("lines ", line.line, " and ", known.line));
    }
  }
  lines.lines.resize(kept);
  if (duplicates > 0) eh.note(text("there were ", duplicates, " duplicate lines in pedigree"));
  if (respecified > 0) eh.note(text(respecified, " base animals were respecified with parentage"));
}

/// L_LIST_PARENTS: groups first, then parents without a line of their own, males before females, then the
/// lines.
void L_LIST_PARENTS(ERROR_HANDLER& eh, const PEDIGREE_KEYS& keys, const PEDIGREE_LINES& lines, PEDIGREE& out)
{
  const Frame here{eh, __func__};
  std::vector<std::int32_t> row;  // of each name, from 1; 0 not listed, -1 to be added
  if (!assign(eh, row, lines.names.size())) return;
  for (const PEDIGREE_LINE& line : lines.lines) row[static_cast<std::size_t>(line.id)] = 1;
  std::vector<std::int32_t> added;
  std::size_t males = 0;
  const bool room = attempt([&] {
    for (const auto side : {&PEDIGREE_LINE::male, &PEDIGREE_LINE::female}) {
      for (const PEDIGREE_LINE& line : lines.lines) {
        const std::int32_t parent = line.*side;
        if (parent < 0 || row[static_cast<std::size_t>(parent)] != 0) continue;
        row[static_cast<std::size_t>(parent)] = -1;
        added.push_back(parent);
      }
      if (side == &PEDIGREE_LINE::male) males = added.size();
    }
  });
  if (!room) return eh.out_of_memory();
  const auto groups = static_cast<std::size_t>(keys.groups);
  const std::int64_t n = std::ssize(lines.lines) + std::ssize(added);
  out.groups = keys.groups;
  if (!assign(eh, out.id, n) || !assign(eh, out.male, n) || !assign(eh, out.female, n)) return;
  if (keys.sex_linked && !assign(eh, out.sex, n)) return;
  if (keys.levels() && !assign(eh, out.level, n)) return;
  const auto put = [&](std::size_t to, std::int32_t name, double code) {
    out.id[to] = name;
    row[static_cast<std::size_t>(name)] = static_cast<std::int32_t>(to) + 1;
    if (!out.sex.empty()) out.sex[to] = code;
    if (!out.level.empty()) out.level[to] = code;
  };
  for (std::size_t k = 0; k < added.size(); ++k)
    put(groups + k, added[k], keys.sex_linked && k >= males ? 1.0 : 0.0);
  for (std::size_t k = 0; k < lines.lines.size(); ++k)
    put(k < groups ? k : k + added.size(), lines.lines[k].id, lines.lines[k].code);
  for (std::size_t k = groups; k < lines.lines.size(); ++k) {
    const PEDIGREE_LINE& line = lines.lines[k];
    out.male[k + added.size()] = line.male < 0 ? 0 : row[static_cast<std::size_t>(line.male)];
    out.female[k + added.size()] = line.female < 0 ? 0 : row[static_cast<std::size_t>(line.female)];
  }
  for (std::size_t k = groups; k < out.level.size(); ++k) {
    if (out.level[k] == 0.0 && out.male[k] == 0 && out.female[k] == 0) out.level[k] = *keys.level;
  }
  if (keys.sex_linked && !added.empty()) {
    eh.note("check the 4th (XLINK) field of any parent records inserted in the sorted pedigree");
  }
}

/// L_TELL_CHAIN: one loop, each row followed by one of its parents, and the rows that are on any.
void L_TELL_CHAIN(ERROR_HANDLER& eh, const NAME_CODES& names, const PEDIGREE& p, const PLACEMENT& placement)
{
  const Frame here{eh, __func__};
  std::vector<std::int32_t> rows;
  L_FIND_LOOPS(eh, p, placement, rows);
  if (eh.terminate() || rows.empty()) return;
  const auto told = [&](std::int32_t row) {
    const auto k = static_cast<std::size_t>(row);
    const auto parent = [&](std::int32_t r) {
      return r == 0 ? std::string("0") : names.name(p.id[static_cast<std::size_t>(r - 1)]);
    };
    return text(names.name(p.id[k]), " ", parent(p.male[k]), " ", parent(p.female[k]));
  };
  const auto on_a_loop = [&](std::int32_t row) {
    return row >= 0 && std::binary_search(rows.begin(), rows.end(), row);
  };
  // From a row to a parent and on: within as many steps as there are rows the walk is on a loop; then once
  // round.
  std::int32_t at = rows.front();
  const auto older = [&](std::int32_t row) {
    const auto k = static_cast<std::size_t>(row);
    return on_a_loop(p.male[k] - 1) ? p.male[k] - 1 : p.female[k] - 1;
  };
  for (std::size_t k = 0; k < rows.size() && on_a_loop(older(at)); ++k) at = older(at);
  eh.error(
      "apparent error in pedigree relationships demonstrated in the following pedigree chain (youngest "
      "first)");
  std::int32_t link = at;
  for (std::int64_t k = 0; k < most_rows_told; ++k) {
    eh.continuation(told(link));
    link = older(link);
    if (link == at || !on_a_loop(link)) break;
  }
  eh.error(
      "pedigree inconsistency, the following pedigree rows could not be organised to form a valid pedigree");
  for (std::size_t k = 0; k < rows.size() && k < static_cast<std::size_t>(most_rows_told); ++k)
    eh.continuation(told(rows[k]));
  if (std::ssize(rows) > most_rows_told)
    eh.continuation(text("and  ", std::ssize(rows) - most_rows_told, " others"));
}

}  // namespace

void AIPSRT(ERROR_HANDLER& eh, const PEDIGREE_KEYS& keys, PEDIGREE_LINES& lines, PEDIGREE& out)
{
  const Frame here{eh, __func__};
  L_CHECK_LINES(eh, keys, lines);
  L_DROP_REPEATS(eh, keys, lines);
  if (eh.terminate()) return;
  constexpr std::int64_t least = 2;
  if (std::ssize(lines.lines) <= (keys.alpha ? least : 0) || std::ssize(lines.lines) <= keys.groups) {
    eh.error(keys.alpha ? std::string("an ALPHA pedigree must contain more than 2 individuals")
                        : text("failed to process the pedigree file,  having identified ", lines.names.size(),
                               " individuals from ", std::ssize(lines.lines), " lines of pedigree file ",
                               keys.path));
    return;
  }
  L_LIST_PARENTS(eh, keys, lines, out);
  if (eh.terminate()) return;
  if (keys.sort && !parents_first(out)) {
    PLACEMENT placement;
    L_PLACE_ROWS(eh, out, placement);
    if (eh.terminate()) return;
    eh.note("Sort Pedigree");
    if (!placement.complete()) return L_TELL_CHAIN(eh, lines.names, out, placement);
    eh.continuation(text(placement.moved.size(), " of ", out.rows(), " rows stood ahead of their parents"));
    L_PERMUTE_ROWS(eh, placement.order, out);
    if (eh.terminate()) return;
  }
  if (keys.groups > 0) eh.note("use !LAST qualifier to make sure GROUPS absorbed last");
  if (!keys.trim.empty()) L_TRIM_PEDIGREE(eh, keys, lines, out);
}

void L_TRIM_PEDIGREE(ERROR_HANDLER& eh, const PEDIGREE_KEYS& keys, PEDIGREE_LINES& lines, PEDIGREE& pedigree)
{
  const Frame here{eh, __func__};
  if (!parents_first(pedigree)) return;  // told where the inverse is formed
  FileReader file;
  if (!file.open(keys.trim)) {
    eh.error(text("unable to open file ", keys.trim), Ecode::io_error);
    eh.continuation(file.error());
    return;
  }
  const std::int64_t n = pedigree.rows();
  const std::int64_t known = lines.names.size();
  std::vector<std::int32_t> row;  // of each name
  std::vector<char> keep;
  if (!assign(eh, row, known) || !assign(eh, keep, n, '\0')) return;
  for (std::int64_t k = 0; k < n; ++k)
    row[static_cast<std::size_t>(pedigree.id[static_cast<std::size_t>(k)])] =
        static_cast<std::int32_t>(k) + 1;
  std::int64_t records = 0;
  std::int64_t found = 0;
  std::int64_t bad = 0;
  std::string unknown;  // the first identity that the pedigree lacks
  std::string_view line;
  const bool room = attempt([&] {
    while (file.next_line(line)) {
      if (is_blank(line)) continue;
      ++records;
      std::string_view field = trim(line);
      field = trim(field.substr(0, field.find_first_of(", \t")));
      const std::string name = keys.upper_case ? upper(field) : std::string(field);
      const std::int32_t code = name.empty() ? -1 : lines.names.add(name);  // names that are new have no row
      if (code < 0 || code >= known) {
        if (name.empty() && ++bad <= most_rows_told)
          eh.warning(text("no trim check field [ 1 ] found on line: ", file.line_number()));
        if (unknown.empty()) unknown = name;
        continue;
      }
      const std::int32_t at = row[static_cast<std::size_t>(code)];
      if (at == 0 || keep[static_cast<std::size_t>(at - 1)] != 0) continue;
      keep[static_cast<std::size_t>(at - 1)] = 1;
      ++found;
    }
  });
  if (!room) return eh.out_of_memory();
  eh.note(text(found, " identities have data records; ", records, " records checked"));
  if (found == 0) {
    eh.error(text("failed to find identity ", unknown, " in the pedigree file"));
    eh.continuation(text("nor that of any other record of ", keys.trim));
    return;
  }
  std::vector<std::int32_t> order;
  for (std::int64_t k = n - 1; k >= 0; --k) {
    const auto at = static_cast<std::size_t>(k);
    if (k < pedigree.groups) keep[at] = 1;
    if (keep[at] == 0) continue;
    for (const std::int32_t parent : {pedigree.male[at], pedigree.female[at]}) {
      if (parent > 0) keep[static_cast<std::size_t>(parent - 1)] = 1;
    }
  }
  // The rows that stay are moved up; those that go are numbered behind them and cut off.
  if (!reserve(eh, order, n)) return;
  for (const char wanted : {char{1}, char{0}}) {
    for (std::int64_t k = 0; k < n; ++k) {
      if (keep[static_cast<std::size_t>(k)] == wanted) order.push_back(static_cast<std::int32_t>(k));
    }
  }
  L_PERMUTE_ROWS(eh, order, pedigree);
  if (eh.terminate()) return;
  const auto left = static_cast<std::size_t>(std::count(keep.begin(), keep.end(), char{1}));
  for (std::vector<std::int32_t>* each : {&pedigree.id, &pedigree.male, &pedigree.female}) each->resize(left);
  for (std::vector<double>* each : {&pedigree.sex, &pedigree.level}) {
    if (!each->empty()) each->resize(left);
  }
}

}  // namespace tolvan
