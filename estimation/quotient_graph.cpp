// The quotient graph: setting it up, forming an element, degrees, merging.
#include "estimation/quotient_graph.h"

#include <algorithm>

namespace tolvan {

namespace {

using std::int32_t;
using std::int64_t;

void link_by_degree(QUOTIENT_GRAPH& g, int32_t i)
{
  const int32_t d = g.degree[i];
  const int32_t after = g.head[d];
  g.next[i] = after;
  g.previous[i] = -1;
  if (after >= 0) g.previous[after] = i;
  g.head[d] = i;
  g.lowest = std::min(g.lowest, d);
}

void unlink(QUOTIENT_GRAPH& g, int32_t i)
{
  const int32_t before = g.previous[i], after = g.next[i];
  if (after >= 0) g.previous[after] = before;
  if (before >= 0) {
    g.next[before] = after;
  } else {
    g.head[g.degree[i]] = after;
  }
}

// Moves the live lists to the front of the store.  The first entry of each list is swapped for a mark of its
// owner, so that one pass finds the lists in the order of the store.
void compress(QUOTIENT_GRAPH& g)
{
  for (int32_t i = 0; i < g.n; ++i) {
    if (!g.in_use[i] || g.length[i] == 0) continue;
    int32_t& first = g.store[g.start[i]];
    g.start[i] = first;
    first = -i - 1;
  }
  int64_t to = 0;
  for (int64_t from = 0; from < g.free_end;) {
    const int32_t entry = g.store[from];
    if (entry >= 0) {
      ++from;
      continue;
    }
    const int32_t i = -entry - 1;
    g.store[to] = static_cast<int32_t>(g.start[i]);
    g.start[i] = to;
    std::copy_n(g.store.begin() + from + 1, g.length[i] - 1, g.store.begin() + to + 1);
    to += g.length[i];
    from += g.length[i];
  }
  g.free_end = to;
}

// The element of `me`: all equations that share an element with it or are its neighbours.  Gives their
// weight.
int32_t form_element(QUOTIENT_GRAPH& g, int32_t me)
{
  const int32_t own = g.weight[me];
  g.weight[me] = -own;
  int32_t size = 0;
  int64_t out;
  const auto take = [&](int32_t i) {
    if (g.weight[i] <= 0) return;
    size += g.weight[i];
    g.weight[i] = -g.weight[i];
    g.store[out++] = i;
    unlink(g, i);
  };
  if (g.elements[me] == 0) {  // the list shrinks in place
    const int64_t begin = g.start[me], end = begin + g.length[me];
    out = begin;
    for (int64_t p = begin; p < end; ++p) take(g.store[p]);
    g.length[me] = static_cast<int32_t>(out - begin);
    return size;
  }
  int64_t room = g.length[me];
  for (int32_t k = 0; k < g.elements[me]; ++k) room += g.length[g.store[g.start[me] + k]];
  room = std::min<int64_t>(room, g.n);
  if (g.free_end + room > static_cast<int64_t>(g.store.size())) compress(g);
  const int64_t begin = g.free_end, list = g.start[me];
  out = begin;
  for (int32_t k = 0; k < g.elements[me]; ++k) {
    const int32_t e = g.store[list + k];
    if (g.mark[e] == 0) continue;
    const int64_t members = g.start[e];
    for (int32_t m = 0; m < g.length[e]; ++m) take(g.store[members + m]);
    g.mark[e] = 0;
    g.in_use[e] = 0;
  }
  for (int32_t k = g.elements[me]; k < g.length[me]; ++k) take(g.store[list + k]);
  g.start[me] = begin;
  g.length[me] = static_cast<int32_t>(out - begin);
  g.free_end = out;
  return size;
}

// For every element e that meets the new one: mark[e] - stamp becomes the weight of e outside the new
// element.
void measure_overlaps(QUOTIENT_GRAPH& g, int32_t me)
{
  for (int64_t p = g.start[me], end = p + g.length[me]; p < end; ++p) {
    const int32_t i = g.store[p];
    const int32_t w = -g.weight[i];
    for (int64_t q = g.start[i], last = q + g.elements[i]; q < last; ++q) {
      const int32_t e = g.store[q];
      if (g.mark[e] >= g.stamp) {
        g.mark[e] -= w;
      } else if (g.mark[e] != 0) {
        g.mark[e] = g.degree[e] + g.stamp - w;
      }
    }
  }
}

// Cleans the list of equation i, which lies in the new element, puts the element into it and bounds its
// degree from what lies outside the element.  False if nothing does: i can then be eliminated with the
// element.
bool update_equation(QUOTIENT_GRAPH& g, int32_t i, int32_t me)
{
  const int64_t begin = g.start[i];
  const int64_t neighbours = begin + g.elements[i], end = begin + g.length[i];
  int64_t out = begin;
  int64_t degree = 0;
  std::uint64_t hash = 0;
  for (int64_t p = begin; p < neighbours; ++p) {
    const int32_t e = g.store[p];
    if (g.mark[e] == 0) continue;
    const int64_t outside = g.mark[e] - g.stamp;
    if (outside > 0) {
      degree += outside;
      hash += static_cast<std::uint64_t>(e);
      g.store[out++] = e;
    } else {  // e lies within the new element
      g.mark[e] = 0;
      g.in_use[e] = 0;
    }
  }
  const int64_t first_neighbour = out;
  for (int64_t p = neighbours; p < end; ++p) {
    const int32_t j = g.store[p];
    if (g.weight[j] <= 0) continue;
    degree += g.weight[j];
    hash += static_cast<std::uint64_t>(j);
    g.store[out++] = j;
  }
  if (out == begin) return false;

  // One entry at least has gone (an element taken up, or `me` itself), which leaves room for the new element
  // in front.
  g.store[out] = g.store[first_neighbour];
  g.store[first_neighbour] = g.store[begin];
  g.store[begin] = me;
  g.elements[i] = static_cast<int32_t>(first_neighbour - begin) + 1;
  g.length[i] = static_cast<int32_t>(out - begin) + 1;
  g.degree[i] = static_cast<int32_t>(std::min<int64_t>(g.degree[i], degree));
  const auto bucket = static_cast<int32_t>(hash % static_cast<std::uint64_t>(g.n));
  g.next[i] = g.hash_head[bucket];
  g.hash_head[bucket] = i;
  g.previous[i] = bucket;
  return true;
}

bool same_lists(const QUOTIENT_GRAPH& g, int32_t i, int32_t j)  // the entries of i carry the stamp
{
  if (g.length[i] != g.length[j] || g.elements[i] != g.elements[j]) return false;
  for (int64_t p = g.start[j] + 1, end = g.start[j] + g.length[j]; p < end; ++p) {
    if (g.mark[g.store[p]] != g.stamp) return false;
  }
  return true;
}

// Merges the equations of one hash chain that have equal lists.
void merge_chain(QUOTIENT_GRAPH& g, int32_t chain)
{
  for (int32_t i = chain; i >= 0 && g.next[i] >= 0; i = g.next[i]) {
    for (int64_t p = g.start[i] + 1, end = g.start[i] + g.length[i]; p < end; ++p)
      g.mark[g.store[p]] = g.stamp;
    for (int32_t before = i, j = g.next[i]; j >= 0;) {
      const int32_t after = g.next[j];
      if (same_lists(g, i, j)) {
        g.weight[i] += g.weight[j];  // both negative
        g.weight[j] = 0;
        g.taken_by[j] = i;
        g.in_use[j] = 0;
        g.next[before] = after;
      } else {
        before = j;
      }
      j = after;
    }
    ++g.stamp;
  }
}

// Leaves each neighbour once in the lists of a graph just set up, where equations that are one have made it stand twice; degrees are
// the weights of the lists.
void leave_once(QUOTIENT_GRAPH& g)
{
  g.degree.assign(static_cast<std::size_t>(g.n), 0);
  std::vector<int32_t> seen_by(static_cast<std::size_t>(g.n), -1);
  for (int32_t i = 0; i < g.n; ++i) {
    int64_t out = g.start[i];
    for (int64_t p = g.start[i], end = p + g.length[i]; p < end; ++p) {
      const int32_t j = g.store[p];
      if (seen_by[j] == i) continue;
      seen_by[j] = i;
      g.degree[i] += g.weight[j];
      g.store[out++] = j;
    }
    g.length[i] = static_cast<int32_t>(out - g.start[i]);
  }
}

}  // namespace

void build_graph(int32_t n, const PATTERN& pattern, QUOTIENT_GRAPH& g)
{
  g = {};
  g.n = n;
  const auto size = static_cast<std::size_t>(n);
  g.weight.assign(size, 1);
  g.in_use.assign(size, 1);
  g.taken_by.assign(size, -1);
  for (const auto& [binding, with] : pattern.bound) {
    if (binding >= n || with >= n) continue;
    g.taken_by[binding] = with;
    g.weight[with] += g.weight[binding];
    g.weight[binding] = 0;
    g.in_use[binding] = 0;
  }
  const auto node = [&](int32_t i) { return g.taken_by[i] < 0 ? i : g.taken_by[i]; };
  const auto each_pair = [&](auto visit) {
    for (int32_t j = 0; j < n; ++j) {
      for (int64_t p = pattern.start[j]; p < pattern.start[j + 1]; ++p) {
        if (pattern.row[p] < n && node(j) != node(pattern.row[p])) visit(node(j), node(pattern.row[p]));
      }
    }
  };
  g.length.assign(size, 0);
  each_pair([&](int32_t i, int32_t j) {
    ++g.length[i];
    ++g.length[j];
  });
  g.start.assign(size, 0);
  int64_t total = 0;
  for (int32_t i = 0; i < n; ++i) {
    g.start[i] = total;
    total += g.length[i];
  }
  g.store.resize(static_cast<std::size_t>(total + total / 5 + n));
  g.free_end = total;
  std::vector<int64_t> fill(g.start);
  each_pair([&](int32_t i, int32_t j) {
    g.store[fill[i]++] = j;
    g.store[fill[j]++] = i;
  });
  g.mark.assign(size, 1);
  if (pattern.bound.empty()) {
    g.degree = g.length;
  } else {
    leave_once(g);
  }
  g.elements.assign(size, 0);
  g.head.assign(size, -1);
  g.next.assign(size, -1);
  g.previous.assign(size, -1);
  g.hash_head.assign(size, -1);
  g.lowest = n;
  for (int32_t i = n - 1; i >= 0; --i) {
    if (g.weight[i] > 0) link_by_degree(g, i);
  }
}

void set_aside(QUOTIENT_GRAPH& g, int32_t i)
{
  unlink(g, i);
  g.eliminated += g.weight[i];
  g.weight[i] = 0;
  g.in_use[i] = 0;
}

int32_t eliminate_least(QUOTIENT_GRAPH& g)
{
  while (g.lowest < g.n && g.head[g.lowest] < 0) ++g.lowest;
  if (g.lowest >= g.n) return -1;
  const int32_t me = g.head[g.lowest];
  unlink(g, me);

  int32_t own = g.weight[me];
  g.eliminated += own;
  int32_t size = form_element(g, me);
  g.mark[me] = 1;
  g.degree[me] = size;
  measure_overlaps(g, me);

  const int64_t begin = g.start[me], end = begin + g.length[me];
  for (int64_t p = begin; p < end; ++p) {
    const int32_t i = g.store[p];
    if (update_equation(g, i, me)) continue;
    const int32_t w = -g.weight[i];
    size -= w;
    own += w;
    g.eliminated += w;
    g.weight[i] = 0;
    g.taken_by[i] = me;
    g.in_use[i] = 0;
  }
  g.largest = std::max(g.largest, g.degree[me]);
  g.stamp += g.largest + 1;

  for (int64_t p = begin; p < end; ++p) {
    const int32_t i = g.store[p];
    if (g.weight[i] >= 0) continue;
    const int32_t bucket = g.previous[i], chain = g.hash_head[bucket];
    if (chain < 0) continue;
    g.hash_head[bucket] = -1;
    merge_chain(g, chain);
  }

  int64_t out = begin;
  for (int64_t p = begin; p < end; ++p) {
    const int32_t i = g.store[p];
    if (g.weight[i] >= 0) continue;
    const int32_t w = -g.weight[i];
    g.weight[i] = w;
    const int64_t bound = static_cast<int64_t>(g.degree[i]) + size - w;
    g.degree[i] =
        static_cast<int32_t>(std::max<int64_t>(0, std::min<int64_t>(bound, g.n - g.eliminated - w)));
    link_by_degree(g, i);
    g.store[out++] = i;
  }
  g.weight[me] = own;
  g.degree[me] = size;
  g.length[me] = static_cast<int32_t>(out - begin);
  if (end == g.free_end) g.free_end = out;
  if (out == begin) {
    g.mark[me] = 0;
    g.in_use[me] = 0;
  }
  return me;
}

}  // namespace tolvan
