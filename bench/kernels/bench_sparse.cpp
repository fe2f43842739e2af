// bench_sparse WORKLOAD FOLDER [THREADS [ROUNDS]]: ordering, symbolic step, factor, sweeps and inverse of one
// C.
//
// Beside them CHOLMOD's factorisations, or, for a dense C (grm), dpotrf and dpotri.  The values are of no fit: off the diagonal
// -1, on it the row's count and a half, so that C is positive definite. Seconds are the least of the rounds: of the processor on
// one thread, of the wall clock on more.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <set>
#include <string>

#include "base/lapack.h"
#include "bench/measure.h"
#include "bench_patterns.h"
#include "estimation/factor.h"
#include "estimation/order_equations.h"
#include "estimation/symbolic.h"

#ifdef TOLVAN_HAVE_CHOLMOD
#include <cholmod.h>
#endif

using namespace tolvan;

namespace {

// Every pair of the dense equations is listed, as C holds it.
void complete(PATTERN& pattern)
{
  PATTERN whole;
  whole.n = pattern.n;
  whole.dense = pattern.dense;
  whole.start.push_back(0);
  for (std::int64_t j = 0; j < pattern.n; ++j) {
    if (j < pattern.n - pattern.dense) {
      whole.row.insert(whole.row.end(), pattern.row.begin() + pattern.start[j],
                       pattern.row.begin() + pattern.start[j + 1]);
    } else {
      for (std::int64_t i = j + 1; i < pattern.n; ++i) whole.row.push_back(static_cast<std::int32_t>(i));
    }
    whole.start.push_back(static_cast<std::int64_t>(whole.row.size()));
  }
  pattern = std::move(whole);
}

// C in the elimination order of the factor.
void fill(const PATTERN& pattern, const FACTOR& factor, COEFFICIENTS& c)
{
  LOWER_PATTERN lower;
  permute_pattern(pattern, factor.order, lower);
  std::vector<double> count(static_cast<std::size_t>(pattern.n), 1.5);
  c.n = pattern.n;
  c.start.assign(1, 0);
  for (std::int64_t j = 0; j < c.n; ++j) {
    c.row.push_back(static_cast<std::int32_t>(j));
    for (std::int64_t p = lower.start[j]; p < lower.start[j + 1]; ++p) {
      c.row.push_back(lower.row[p]);
      ++count[lower.row[p]];
      ++count[j];
    }
    std::sort(c.row.begin() + c.start[j], c.row.end());
    c.start.push_back(static_cast<std::int64_t>(c.row.size()));
  }
  c.value.assign(c.row.size(), -1.0);
  for (std::int64_t j = 0; j < c.n; ++j) c.value[c.start[j]] = count[j];
}

struct Exact {
  double entries = 0.0, flops = 0.0;
};
Exact exact_size(const PATTERN& pattern, const std::vector<std::int32_t>& order)
{
  LOWER_PATTERN lower;
  std::vector<std::int32_t> parent, count;
  permute_pattern(pattern, order, lower);
  elimination_tree(lower, pattern.dense, parent);
  column_counts(lower, pattern.dense, parent, count);
  Exact exact;
  for (const double k : count) {
    exact.entries += k;
    exact.flops += k * k;
  }
  return exact;
}

#ifdef TOLVAN_HAVE_CHOLMOD
void run_cholmod(const PATTERN& pattern, const Exact& ours, int rounds, double our_order, double our_factor,
                 double our_inverse)
{
  cholmod_common common;
  cholmod_l_start(&common);
  common.nmethods = 1;
  common.method[0].ordering = CHOLMOD_AMD;
  common.postorder = 1;
  const auto n = static_cast<std::size_t>(pattern.n);
  cholmod_sparse* a =
      cholmod_l_allocate_sparse(n, n, pattern.row.size() + n, 0, 1, -1, CHOLMOD_REAL, &common);
  auto* start = static_cast<SuiteSparse_long*>(a->p);
  auto* row = static_cast<SuiteSparse_long*>(a->i);
  auto* value = static_cast<double*>(a->x);
  std::vector<double> count(n, 1.5);
  SuiteSparse_long k = 0;
  for (std::int64_t j = 0; j < pattern.n; ++j) {
    start[j] = k;
    row[k++] = j;
    for (std::int64_t p = pattern.start[j]; p < pattern.start[j + 1]; ++p) {
      value[k] = -1.0;
      row[k++] = pattern.row[p];
      ++count[pattern.row[p]];
      ++count[j];
    }
  }
  start[n] = k;
  for (std::int64_t j = 0; j < pattern.n; ++j) value[start[j]] = count[j];

  double best = std::numeric_limits<double>::max();
  for (const int kind : {CHOLMOD_SUPERNODAL, CHOLMOD_SIMPLICIAL}) {
    if (kind == CHOLMOD_SIMPLICIAL && ours.flops > 2e9) continue;  // minutes, and never the better one
    common.supernodal = kind;
    cholmod_factor* factor = nullptr;
    const double analyse = least_seconds(rounds, 1, [&] {
      if (factor) cholmod_l_free_factor(&factor, &common);
      factor = cholmod_l_analyze(a, &common);
    });
    const double seconds = least_seconds(rounds, 1, [&] { cholmod_l_factorize(a, factor, &common); });
    best = std::min(best, seconds);
    std::printf("  cholmod %-11s analyse %9.4f  factor %9.4f  nnz(L) %.4g  flops %.4g\n",
                kind == CHOLMOD_SUPERNODAL ? "supernodal" : "simplicial", analyse, seconds, common.lnz,
                common.fl);
    if (kind == CHOLMOD_SUPERNODAL) {
      std::printf("  against AMD: nnz(L) %.3f  flops %.3f  ordering time %.2f of its analysis\n",
                  ours.entries / common.lnz, ours.flops / common.fl, our_order / analyse);
    }
    cholmod_l_free_factor(&factor, &common);
  }
  std::printf("  factor %.2f, factor and inverse %.2f of the better CHOLMOD factorisation\n",
              our_factor / best, (our_factor + our_inverse) / best);
  cholmod_l_free_sparse(&a, &common);
  cholmod_l_finish(&common);
}
#endif

// C whole, for dpotrf and dpotri beside it.
std::vector<double> whole_matrix(const COEFFICIENTS& c)
{
  std::vector<double> whole(static_cast<std::size_t>(c.n * c.n));
  for (std::int64_t j = 0; j < c.n; ++j) {
    for (std::int64_t p = c.start[j]; p < c.start[j + 1]; ++p) whole[c.row[p] + j * c.n] = c.value[p];
  }
  return whole;
}

}  // namespace

int main(int argc, char** argv)
{
  PATTERN pattern;
  if (argc < 3 || !bench::read_pattern(argv[1], argv[2], pattern)) {
    std::fprintf(stderr,
                 "usage: bench_sparse crossed|glmm|animal|ar1|ar1-nugget|met|grm FOLDER [THREADS [ROUNDS]]\n");
    return 2;
  }
  complete(pattern);
  const int threads = argc > 3 ? std::atoi(argv[3]) : 1;
  const int rounds = argc > 4 ? std::atoi(argv[4]) : 3;
  ERROR_HANDLER eh;
  std::vector<std::int32_t> order;
  FACTOR factor;
  COEFFICIENTS c;
  ABSORBED absorbed;
  ABSORB_CONTROL control;
  control.threads = threads;
  single_blas_thread();

  const double ordering = least_seconds(rounds, 1, [&] { REORDER_MATRIX(eh, pattern, 0, order); });
  const double symbolic = least_seconds(rounds, 1, [&] { SYMBOLICABS2(eh, pattern, order, factor); });
  const Exact exact = exact_size(pattern, factor.order);
  fill(pattern, factor, c);
  const bool is_dense = std::string(argv[1]) == "grm";
  std::vector<double> whole, a;
  if (is_dense) whole = whole_matrix(c);
  double lapack = 1e300, numeric = 1e300, inverse = 1e300, solve = 1e300, forward = 1e300, gather = 1e300;
  constexpr std::int64_t many = 64;
  std::vector<double> b(static_cast<std::size_t>(pattern.n * many), 1.0), z;
  for (int k = 0; k < std::max(2, rounds) && !eh.terminate(); ++k) {  // the first round makes the panels
    numeric =
        std::min(numeric, least_seconds(1, threads, [&] { K4MXXAIL(eh, c, control, factor, absorbed); }));
    solve = std::min(solve, least_seconds(1, threads, [&] {
                       SMIFWD(factor, b.data(), 1, threads);
                       SMIBCK(factor, b.data(), 1, threads);
                     }));
    forward = std::min(forward, least_seconds(1, threads, [&] { SMIFWD(factor, b.data(), many, threads); }));
    inverse = std::min(inverse, least_seconds(1, threads, [&] { SMIREV(eh, factor, threads, {}); }));
    gather = std::min(gather, least_seconds(1, threads, [&] { gather_inverse(factor, c, z, threads); }));
    if (!is_dense) continue;
    a = whole;
    lapack = std::min(lapack, least_seconds(1, 1, [&] {
                        dpotrf('L', c.n, a.data(), c.n);
                        dpotri('L', c.n, a.data(), c.n);
                      }));
  }
  if (eh.terminate()) {
    std::fprintf(stderr, "%s\n", eh.EH_PRINT_TEXT().c_str());
    return 1;
  }
  std::printf("%s %s: %lld equations, %lld dense, %zu pairs, %d threads\n", argv[1], argv[2],
              static_cast<long long>(pattern.n), static_cast<long long>(pattern.dense), pattern.row.size(),
              threads);
  std::printf("  nnz(L) %.4g  stored %.4g  flops %.4g  nodes %zu  blocks %zu  row lists %zu\n", exact.entries,
              static_cast<double>(factor.panel_size), exact.flops, factor.nodes.size(), factor.blocks.size(),
              factor.row_list.size());
  std::printf(
      "  ordering %.4f  symbolic %.4f  factor %.4f (%.1f Gflop/s)  solve %.4f  forward %lld %.4f  inverse %.4f"
      "  gather %.4f\n",
      ordering, symbolic, numeric, exact.flops / numeric / 1e9, solve, static_cast<long long>(many), forward, inverse, gather);
  std::printf("  log determinant %.10g, peak memory %.0f MB\n", absorbed.log_determinant,
              peak_megabytes());
  if (is_dense) {
    std::printf("  dpotrf and dpotri %.4f: factor and inverse %.2f of it\n", lapack, (numeric + inverse) / lapack);
    return 0;
  }
#ifdef TOLVAN_HAVE_CHOLMOD
  run_cholmod(pattern, exact, rounds, ordering, numeric, inverse);
#endif
  return 0;
}
