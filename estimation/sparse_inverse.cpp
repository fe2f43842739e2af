// SMIREV: the elements of Z = C^-1 on the pattern of L, node by node from the last one down, in the place of
// L (Takahashi, Fagan & Chen 1973, in blocks).  With J the columns of a node, R its rows below them and Y =
// L_RJ L_JJ^-1:
//
//     Z_RJ = -Z_RR Y,      Z_JJ = L_JJ^-T D^-1 L_JJ^-1 - Y' Z_RJ.
//
// Z_RR is read from the panels further up, a group of its columns at a time: where it stands, if the rows of
// R follow each other there, otherwise gathered.  Finished panels hold both triangles of Z_JJ.  A singular
// equation has zeros in L and in D^-1, which makes its row and column of Z zero.
#include <algorithm>

#include "base/lapack.h"
#include "base/memory.h"
#include "estimation/supernode.h"

namespace tolvan {

namespace {

using std::int32_t;
using std::int64_t;

constexpr int64_t group_columns = 256;    // columns of Z_RR gathered at a time
constexpr int64_t group_tile = 80;        // columns of a group that one thread sums up at a time
constexpr int64_t square_tile = 64;       // columns of the square on a node's diagonal, likewise
constexpr int64_t product_columns = 128;  // of L_RJ M at a time

// Columns of Z_RR from the node's row `begin` on.
struct GROUP {
  int64_t begin = 0, end = 0;  // rows of the node whose columns they are
  const double* z = nullptr;   // element (begin, begin); both triangles of the square, then all rows below
  int64_t ld = 0;
};

// The panel that is inverted, and its Y.
struct PANEL {
  double* z;
  int64_t ld, width, below;
  double* y;  // below by width
};

// Beside what all threads share, a node's inverse needs its Y and a group of Z_RR.
struct INVERSE_WORK {
  std::vector<double> y;        // rows by columns of a node
  std::vector<double> group;    // rows by group_columns
  std::vector<GROUP> groups;    // blocks of a node
  std::vector<double> square;   // columns of a node squared
  std::vector<double> scaled;   // columns of a node squared
  std::vector<int32_t> places;  // rows
};

struct INVERSION {
  FACTOR& factor;
  WATCH& watch;
  std::vector<INVERSE_WORK>& work;
};

// Where the rows from `begin` to `end` stand in a node that has them all.
void find_places(const FACTOR& factor, const SNODE& node, const int32_t* begin, const int32_t* end,
                 int32_t* place)
{
  const int32_t* list = factor.row_list.data() + node.row_list;
  if (node.contiguous) {
    while (begin < end) *place++ = *begin++ - node.first;
    return;
  }
  const int64_t wanted = end - begin;
  int64_t at = *begin <= node.last ? *begin - node.first : node.width();
  if (wanted * 8 > node.rows - at) {  // side by side
    for (; begin < end; ++begin) {
      while (list[at] != *begin) ++at;
      *place++ = static_cast<int32_t>(at);
    }
    return;
  }
  for (; begin < end; ++begin) {
    int64_t step = 1;
    while (at + step < node.rows && list[at + step] <= *begin) step *= 2;
    at = std::upper_bound(list + at, list + std::min(at + step, node.rows), *begin) - list - 1;
    *place++ = static_cast<int32_t>(at);
  }
}

// A node of one column: one pass over the columns of Z_RR, each element read once.
void invert_column(INVERSION& run, int32_t s, INVERSE_WORK& work)
{
  FACTOR& factor = run.factor;
  const SNODE& node = factor.nodes[s];
  const int32_t* row = factor.row_list.data() + node.row_list;
  double* z = factor.panel.data() + node.panel;
  double* y = work.y.data();
  for (int64_t r = 1; r < node.rows; ++r) {
    y[r] = z[r];
    z[r] = 0.0;
  }
  for (int64_t b = factor.block_start[s]; b < factor.block_start[s + 1]; ++b) {
    const SBLOCK& block = factor.blocks[b];
    const SNODE& up = factor.nodes[block.target];
    const bool contiguous = up.contiguous;
    const int32_t* place = work.places.data() - block.begin;
    if (!contiguous) find_places(factor, up, row + block.begin, row + node.rows, work.places.data());
    for (int32_t c = block.begin; c < block.end; ++c) {
      const double* column = factor.panel.data() + up.panel + (row[c] - up.first) * up.rows;
      const double yc = y[c];
      double sum = column[row[c] - up.first] * yc;
      if (contiguous) {
        for (int64_t r = c + 1; r < node.rows; ++r) {
          const double v = column[row[r] - up.first];
          z[r] -= v * yc;
          sum += v * y[r];
        }
      } else {
        for (int64_t r = c + 1; r < node.rows; ++r) {
          const double v = column[place[r]];
          z[r] -= v * yc;
          sum += v * y[r];
        }
      }
      z[c] -= sum;
    }
  }
  double d = factor.reciprocal[node.first];
  for (int64_t r = 1; r < node.rows; ++r) d -= y[r] * z[r];
  z[0] = d;
}

// A block of Z_RR where it stands: the rows of R from the block on follow each other, there too.
bool stands_together(const FACTOR& factor, const SNODE& node, const SBLOCK& block, GROUP& group)
{
  const int32_t* row = factor.row_list.data() + node.row_list;
  const SNODE& up = factor.nodes[block.target];
  const int64_t rows = node.rows - block.begin;
  if (row[node.rows - 1] - row[block.begin] != rows - 1) return false;
  if (!up.contiguous && rows > block.end - block.begin) return false;
  const int64_t at = row[block.begin] - up.first;
  group = {block.begin, block.end, factor.panel.data() + up.panel + at + at * up.rows, up.rows};
  return true;
}

// The next group: one block where it stands, or as many as there is room for, gathered.
GROUP next_group(INVERSION& run, const SNODE& node, int64_t& b, int64_t b_end, int threads,
                 INVERSE_WORK& work)
{
  FACTOR& factor = run.factor;
  const int32_t* row = factor.row_list.data() + node.row_list;
  GROUP group;
  if (stands_together(factor, node, factor.blocks[b], group)) {
    ++b;
    return group;
  }
  group.begin = factor.blocks[b].begin;
  const int64_t rows = node.rows - group.begin;
  group.z = work.group.data();
  group.ld = rows;
  group.end = group.begin;
  while (b < b_end && (group.end == group.begin || factor.blocks[b].end - group.begin <= group_columns)) {
    const SBLOCK& block = factor.blocks[b];
    const SNODE& up = factor.nodes[block.target];
    int32_t* place = work.places.data();
    find_places(factor, up, row + block.begin, row + node.rows, place);
    const int64_t columns = block.end - block.begin;
    const int forked = columns * rows > 256 * 1024 ? threads : 1;
    share(forked, (columns + group_tile - 1) / group_tile, [&](int64_t k, int) {
      const int64_t last = std::min<int64_t>(block.end, block.begin + (k + 1) * group_tile);
      for (int64_t c = block.begin + k * group_tile; c < last; ++c) {
        const double* column = factor.panel.data() + up.panel + (row[c] - up.first) * up.rows;
        double* to = work.group.data() + (c - group.begin) * group.ld - group.begin;
        for (int64_t r = block.begin; r < node.rows; ++r) to[r] = column[place[r - block.begin]];
      }
    });
    group.end = block.end;
    ++b;
  }
  const int64_t size = group.end - group.begin;  // the square on the diagonal is wanted whole
  for (int64_t c = 0; c < size; ++c) {
    for (int64_t r = 0; r < c; ++r) work.group[r + c * group.ld] = work.group[c + r * group.ld];
  }
  return group;
}

// What a group adds to the rows from..to of Z_RJ, which lie at or below its first row: -Z_RR Y, its columns
// of Z_RR.
void add_columns(const GROUP& group, const PANEL& p, int64_t from, int64_t to)
{
  dgemm('N', 'N', to - from, p.width, group.end - group.begin, -1.0, group.z + (from - group.begin), group.ld,
        p.y + (group.begin - p.width), p.below, group.begin == p.width ? 0.0 : 1.0, p.z + from, p.ld);
}

// What the rows below a group add to its own rows from..to: the same columns of Z_RR, transposed.
void add_rows(const GROUP& group, const PANEL& p, int64_t from, int64_t to)
{
  if (group.end == p.ld) return;
  dgemm('T', 'N', to - from, p.width, p.ld - group.end, -1.0,
        group.z + (group.end - group.begin) + (from - group.begin) * group.ld, group.ld,
        p.y + (group.end - p.width), p.below, 1.0, p.z + from, p.ld);
}

// Z_RJ where all of Z_RR can be read in its place: tiles of whole groups, each of them summed by one thread.
void multiply_in_place(INVERSION& run, const PANEL& p, const std::vector<GROUP>& groups, int64_t count,
                       int threads)
{
  const int64_t tile = inverse_tile_rows(p.below);
  const int64_t blocks = (p.below + tile - 1) / tile;  // about as many tiles, cut between groups
  share(threads, blocks, [&](int64_t k, int) {
    const auto cut = [&](int64_t at) {
      return std::partition_point(groups.begin(), groups.begin() + count,
                                  [&](const GROUP& g) { return g.begin - p.width < at * tile; }) -
             groups.begin();
    };
    const int64_t first = cut(k), last = cut(k + 1);
    if (first == last) return;
    const int64_t to = groups[last - 1].end;
    for (int64_t g = 0; g < last && !run.watch.stop(); ++g) {
      add_columns(groups[g], p, std::max(groups[first].begin, groups[g].begin), to);
      if (g >= first) add_rows(groups[g], p, groups[g].begin, groups[g].end);
    }
  });
}

// Z_RJ group by group; what doesn't stand together is gathered first.
void multiply_gathered(INVERSION& run, int32_t s, const PANEL& p, int threads, INVERSE_WORK& work)
{
  const FACTOR& factor = run.factor;
  const bool tiled = p.below > inverse_untiled_rows;
  for (int64_t b = factor.block_start[s], b_end = factor.block_start[s + 1];
       b < b_end && !run.watch.stop();) {
    const GROUP group = next_group(run, factor.nodes[s], b, b_end, threads, work);
    const int64_t columns = group.end - group.begin, rows = p.ld - group.begin;
    const int forked = static_cast<double>(rows) * columns * p.width > fork_above ? threads : 1;
    const int64_t tile = tiled ? inverse_tile_rows(p.below) : rows;
    share(forked, (rows + tile - 1) / tile, [&](int64_t k, int) {
      add_columns(group, p, group.begin + k * tile, std::min(group.begin + (k + 1) * tile, p.ld));
    });
    const int64_t sums = tiled ? group_tile : columns;
    share(forked, (columns + sums - 1) / sums, [&](int64_t k, int) {
      add_rows(group, p, group.begin + k * sums, std::min(group.begin + (k + 1) * sums, group.end));
    });
  }
}

void invert_node(INVERSION& run, int32_t s, int threads, INVERSE_WORK& work)
{
  FACTOR& factor = run.factor;
  const SNODE& node = factor.nodes[s];
  if (node.width() == 1) return invert_column(run, s, work);
  const int64_t ld = node.rows, width = node.width(), below = ld - width;
  double* panel = factor.panel.data() + node.panel;
  double* y = work.y.data();
  const bool tiled = below > inverse_untiled_rows;
  const int forked = static_cast<double>(below) * width * below > fork_above ? threads : 1;

  // M = L_JJ^-1 (lower, unit) and Y = L_RJ M, by runs of columns, each from its own diagonal on.
  double* m = work.square.data();
  for (int64_t j = 0; j < width; ++j) {
    std::fill_n(m + j * width, j, 0.0);
    m[j + j * width] = 1.0;
    std::copy(panel + j + 1 + j * ld, panel + width + j * ld, m + j + 1 + j * width);
  }
  dtrtri('L', 'U', width, m, width);
  if (below > 0) {
    const int64_t tile = tiled ? inverse_tile_rows(below) : below;
    share(forked, (below + tile - 1) / tile, [&](int64_t k, int) {
      const int64_t from = k * tile, rows = std::min(tile, below - from);
      for (int64_t j = 0; j < width; j += product_columns) {
        dgemm('N', 'N', rows, std::min(product_columns, width - j), width - j, 1.0, panel + width + from + j * ld, ld,
              m + j + j * width, width, 0.0, y + from + j * below, below);
      }
    });
    const PANEL p{panel, ld, width, below, y};
    int64_t count = 0;
    bool together = true;
    for (int64_t b = factor.block_start[s]; b < factor.block_start[s + 1] && together; ++b) {
      together = stands_together(factor, node, factor.blocks[b], work.groups[count++]);
    }
    if (together) {
      multiply_in_place(run, p, work.groups, count, forked);
    } else {
      multiply_gathered(run, s, p, forked, work);
    }
  }

  // Z_JJ = M' D^-1 M - Y' Z_RJ, its lower triangle, and the upper one from it.
  double* scaled = work.scaled.data();
  for (int64_t j = 0; j < width; ++j) {
    for (int64_t i = 0; i < width; ++i)
      scaled[i + j * width] = m[i + j * width] * factor.reciprocal[node.first + i];
  }
  const int64_t sums = tiled ? square_tile : width;
  share(forked, (width + sums - 1) / sums, [&](int64_t k, int) {
    const int64_t j = k * sums, count = std::min(sums, width - j), rows = width - j;
    dgemm('T', 'N', rows, count, rows, 1.0, m + j + j * width, width, scaled + j + j * width, width, 0.0,
          panel + j + j * ld, ld);
    if (below > 0) {
      dgemm('T', 'N', rows, count, below, -1.0, y + j * below, below, panel + width + j * ld, ld, 1.0,
            panel + j + j * ld, ld);
    }
  });
  for (int64_t j = 0; j < width; ++j) {
    for (int64_t i = 0; i < j; ++i) panel[i + j * ld] = panel[j + i * ld];
  }
}

// What the largest of some nodes needs.
struct NEED {
  int64_t y = 1, rows = 1, width = 1, blocks = 1;
  void add(const FACTOR& factor, int32_t begin, int32_t end)
  {
    for (int32_t s = begin; s < end; ++s) {
      const SNODE& node = factor.nodes[s];
      y = std::max(y, node.rows * node.width());
      rows = std::max(rows, node.rows);
      width = std::max<int64_t>(width, node.width());
      blocks = std::max(blocks, factor.block_start[s + 1] - factor.block_start[s]);
    }
  }
};

bool reserve_inverse(ERROR_HANDLER& eh, const NEED& need, INVERSE_WORK& work)
{
  const int64_t square = need.width * need.width;
  return resize(eh, work.y, need.y) &&
         resize(eh, work.group, need.rows * std::min(need.rows, group_columns)) &&
         resize(eh, work.places, need.rows) && resize(eh, work.groups, need.blocks) &&
         resize(eh, work.square, square) && resize(eh, work.scaled, square);
}

}  // namespace

void SMIREV(ERROR_HANDLER& eh, FACTOR& factor, int threads, CANCEL cancel)
{
  const Frame here{eh, __func__};
  threads = useful_threads(factor, threads);
  const auto nodes = static_cast<int32_t>(factor.nodes.size());
  NEED of_tasks, of_all;
  for (const auto& task : factor.tasks) of_tasks.add(factor, task.begin, task.end);
  of_all.add(factor, 0, nodes);
  std::vector<INVERSE_WORK> work;
  if (!resize(eh, work, threads)) return;
  for (int t = 0; t < threads; ++t) {
    if (!reserve_inverse(eh, t == 0 ? of_all : of_tasks, work[t])) return;
  }

  single_blas_thread();
  WATCH watch(cancel);
  INVERSION run{factor, watch, work};
  if (threads == 1) {
    for (int32_t s = nodes - 1; s >= 0 && !watch.stop(); --s) invert_node(run, s, 1, work[0]);
  } else {
    for (auto s = factor.top.rbegin(); s != factor.top.rend() && !watch.stop(); ++s)
      invert_node(run, *s, threads, work[0]);
    share(threads, static_cast<int64_t>(factor.tasks.size()), [&](int64_t k, int t) {
      const auto& task = factor.tasks[k];
      for (int32_t s = task.end - 1; s >= task.begin && !watch.stop(); --s) invert_node(run, s, 1, work[t]);
    });
  }
  factor.holds_inverse = !watch.stop();
}

}  // namespace tolvan
