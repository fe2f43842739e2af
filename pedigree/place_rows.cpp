#include "pedigree/place_rows.h"

#include <algorithm>
#include <utility>

#include "base/memory.h"

namespace tolvan {
namespace {

/// Rows wait for those of their parents that do not stand yet; all arrays by row, from 0.
struct WAITING {
  std::vector<std::int32_t> first, last;  // of the queue of rows that wait for a row; -1: none
  std::vector<std::int32_t> next[2];      // in the queue of the row's first and second parent
  std::vector<char> parents;              // how many a row still waits for
};

std::int32_t& next_of(const PEDIGREE& p, WAITING& w, std::int32_t row, std::int32_t parent)
{
  return w.next[p.male[static_cast<std::size_t>(row)] == parent + 1 ? 0 : 1][static_cast<std::size_t>(row)];
}

}  // namespace

bool parents_first(const PEDIGREE& pedigree)
{
  for (std::int32_t i = 0; i < pedigree.rows(); ++i) {
    const auto row = static_cast<std::size_t>(i);
    if (std::max(pedigree.male[row], pedigree.female[row]) > i) return false;
  }
  return true;
}

void L_PLACE_ROWS(ERROR_HANDLER& eh, const PEDIGREE& p, PLACEMENT& out)
{
  const Frame here{eh, __func__};
  WAITING w;
  const std::int64_t n = p.rows();
  for (std::vector<std::int32_t>* each : {&w.first, &w.last, &w.next[0], &w.next[1]}) {
    if (!assign(eh, *each, n, -1)) return;
  }
  if (!assign(eh, w.parents, n, '\0') || !reserve(eh, out.order, n)) return;
  const bool room = attempt([&] {
    out.placed.assign(static_cast<std::size_t>(n), false);
    std::vector<std::int32_t> ready;
    for (std::int32_t i = 0; i < n; ++i) {
      const auto row = static_cast<std::size_t>(i);
      const std::int32_t sides[2] = {p.male[row] - 1, p.female[row] - 1};
      for (int k = 0; k < 2; ++k) {
        const std::int32_t parent = sides[k];
        if (parent < 0 || out.placed[static_cast<std::size_t>(parent)] || (k == 1 && parent == sides[0]))
          continue;
        ++w.parents[row];
        std::int32_t& last = w.last[static_cast<std::size_t>(parent)];
        (last < 0 ? w.first[static_cast<std::size_t>(parent)] : next_of(p, w, last, parent)) = i;
        last = i;
      }
      if (w.parents[row] > 0) {
        out.moved.push_back(i);
        continue;
      }
      ready.push_back(i);
      while (!ready.empty()) {
        const std::int32_t at = ready.back();
        ready.pop_back();
        out.order.push_back(at);
        out.placed[static_cast<std::size_t>(at)] = true;
        const auto from = static_cast<std::ptrdiff_t>(ready.size());
        for (std::int32_t child = w.first[static_cast<std::size_t>(at)]; child >= 0;
             child = next_of(p, w, child, at)) {
          if (--w.parents[static_cast<std::size_t>(child)] == 0) ready.push_back(child);
        }
        std::reverse(ready.begin() + from, ready.end());
      }
    }
  });
  if (!room) eh.out_of_memory();
}

void L_FIND_LOOPS(ERROR_HANDLER& eh, const PEDIGREE& p, const PLACEMENT& placement,
                  std::vector<std::int32_t>& rows)
{
  const Frame here{eh, __func__};
  const std::size_t n = p.id.size();
  const bool room = attempt([&] {
    std::vector<std::int32_t> progeny(n, 0);
    std::vector<bool> off = placement.placed;
    std::vector<std::int32_t> youngest;  // without progeny that is left
    const auto each_parent = [&](std::size_t row, auto&& work) {
      if (p.male[row] > 0) work(static_cast<std::size_t>(p.male[row] - 1));
      if (p.female[row] > 0 && p.female[row] != p.male[row])
        work(static_cast<std::size_t>(p.female[row] - 1));
    };
    for (std::size_t i = 0; i < n; ++i) {
      if (!placement.placed[i]) each_parent(i, [&](std::size_t parent) { ++progeny[parent]; });
    }
    for (std::size_t i = 0; i < n; ++i) {
      if (!placement.placed[i] && progeny[i] == 0) youngest.push_back(static_cast<std::int32_t>(i));
    }
    while (!youngest.empty()) {
      const auto i = static_cast<std::size_t>(youngest.back());
      youngest.pop_back();
      off[i] = true;
      each_parent(i, [&](std::size_t parent) {
        if (--progeny[parent] == 0 && !placement.placed[parent])
          youngest.push_back(static_cast<std::int32_t>(parent));
      });
    }
    for (std::size_t i = 0; i < n; ++i) {
      if (!off[i]) rows.push_back(static_cast<std::int32_t>(i));
    }
  });
  if (!room) eh.out_of_memory();
}

void L_PERMUTE_ROWS(ERROR_HANDLER& eh, const std::vector<std::int32_t>& order, PEDIGREE& p)
{
  const Frame here{eh, __func__};
  const std::int64_t n = p.rows();
  std::vector<std::int32_t> place, codes;
  if (!assign(eh, place, n) || !assign(eh, codes, n)) return;
  for (std::size_t k = 0; k < order.size(); ++k)
    place[static_cast<std::size_t>(order[k])] = static_cast<std::int32_t>(k) + 1;
  for (std::vector<std::int32_t>* column : {&p.id, &p.male, &p.female}) {
    for (std::size_t k = 0; k < order.size(); ++k) {
      const std::int32_t value = (*column)[static_cast<std::size_t>(order[k])];
      const bool renumber = column != &p.id && value > 0;
      codes[k] = renumber ? place[static_cast<std::size_t>(value - 1)] : value;
    }
    column->swap(codes);
  }
  std::vector<double> values;
  for (std::vector<double>* column : {&p.sex, &p.level}) {
    if (column->empty()) continue;
    if (!assign(eh, values, n)) return;
    for (std::size_t k = 0; k < order.size(); ++k) values[k] = (*column)[static_cast<std::size_t>(order[k])];
    column->swap(values);
  }
}

}  // namespace tolvan
