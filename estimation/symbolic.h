// The steps of the symbolic factorisation.  Routine SYMBOLICABS2 (factor.h) puts them together.
#pragma once

#include <cstdint>
#include <vector>

#include "estimation/coefficients.h"
#include "estimation/factor.h"

namespace tolvan {

/// The strictly lower triangle of a pattern by columns, in positions of an order; rows are not sorted.
struct LOWER_PATTERN {
  std::vector<std::int64_t> start;
  std::vector<std::int32_t> row;
};
void permute_pattern(const PATTERN& pattern, const std::vector<std::int32_t>& order, LOWER_PATTERN& lower);

/// The elimination tree: parent of each position, -1 for a root (Liu 1990, SIAM J. Matrix Anal. Appl. 11,
/// 134-172). The last `dense` positions form a chain.
void elimination_tree(const LOWER_PATTERN& lower, std::int64_t dense, std::vector<std::int32_t>& parent);

/// A postorder of a forest whose parents have higher numbers than their children; the last root comes last.
void postorder(const std::vector<std::int32_t>& parent, std::vector<std::int32_t>& order);

/// The number of entries of each column of L, diagonal included, for postordered positions
/// (Gilbert, Ng & Peyton 1994, SIAM J. Matrix Anal. Appl. 15, 1075-1091).
void column_counts(const LOWER_PATTERN& lower, std::int64_t dense, const std::vector<std::int32_t>& parent,
                   std::vector<std::int32_t>& count);

/// Runs of positions with one pattern, and the tree that they form.
struct NODE_TREE {
  std::vector<std::int32_t> first;   // first position of each node, and n at the end
  std::vector<std::int32_t> parent;  // -1 for a root
};

/// The fundamental supernodes, then merged along the tree wherever the zeros that this stores cost less time
/// than the calls that it saves.  Gives an order of the positions in which each merged node is one run.
void merge_nodes(const std::vector<std::int32_t>& parent, const std::vector<std::int32_t>& count,
                 std::int64_t dense, NODE_TREE& tree, std::vector<std::int32_t>& order);

/// The panels of the nodes of a tree, wide nodes cut; with their row lists, blocks and tasks.
void form_panels(const LOWER_PATTERN& lower, const NODE_TREE& tree, FACTOR& factor);

}  // namespace tolvan
