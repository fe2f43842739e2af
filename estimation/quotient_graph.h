// Greedy minimum degree on a quotient graph: an eliminated equation becomes an element, whose list stands for
// the clique of its neighbours, so that storage never grows.  Degrees are the approximate external degrees of
// Amestoy, Davis & Duff 1996 (SIAM J. Matrix Anal. Appl. 17, 886-905): elements are absorbed,
// indistinguishable equations are merged (found by hashing their lists) and equations that lie in the new
// element alone are eliminated with it.
#pragma once

#include <cstdint>
#include <vector>

#include "estimation/coefficients.h"

namespace tolvan {

struct QUOTIENT_GRAPH {
  std::int32_t n = 0;

  // The list of an equation holds its elements, then its neighbours that are still equations; the list of an
  // element holds its equations.  All lists lie in one store, which is compressed when its free end runs out.
  std::vector<std::int32_t> store;
  std::int64_t free_end = 0;
  std::vector<std::int64_t> start;
  std::vector<std::int32_t> length;
  std::vector<std::int32_t> elements;  // how many of an equation's list are elements
  std::vector<std::uint8_t> in_use;    // the list is alive

  std::vector<std::int32_t> weight;  // equations merged into one; 0 no equation of its own any more; negative
                                     // while it lies in the element being formed
  std::vector<std::int32_t> degree;  // of an equation: approximate; of an element: the weight of its list
  std::vector<std::int32_t> taken_by;  // the equation or element that one went into; -1 none
  std::vector<std::int64_t> mark;      // 0 dead element

  // Equations of one degree are linked both ways; the links carry the hash chains meanwhile.
  std::vector<std::int32_t> head, next, previous, hash_head;

  std::int32_t lowest = 0;      // no equation has a smaller degree
  std::int32_t eliminated = 0;  // total weight
  std::int64_t stamp = 2;
  std::int32_t largest = 0;  // degree of the largest element so far
};

/// Sets up a graph of the first n equations of a pattern; rows and columns from n on are left out.  A bound equation is one with the
/// equation that it binds from the start: eliminated by itself, late, it would join all that the other was joined to.
void build_graph(std::int32_t n, const PATTERN& pattern, QUOTIENT_GRAPH& g);

/// Takes an equation out of the graph, so that it counts in no degree.
void set_aside(QUOTIENT_GRAPH& g, std::int32_t i);

/// Eliminates the equation of the least degree; gives its number, -1 when none is left.
std::int32_t eliminate_least(QUOTIENT_GRAPH& g);

}  // namespace tolvan
