// bench_dense_inverse [ORDER...]: inverses of a dense relationship matrix beside dpotrf and dpotri.
//
// Seconds of the processor on one thread.  The singular matrix has a rank of nine tenths of its order.
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "base/clock.h"
#include "base/lapack.h"
#include "relmat/invert_dense.h"

using namespace tolvan;

namespace {

std::vector<double> relationship(std::int64_t n, std::int64_t rank, double more)
{
  std::mt19937 random(1);
  std::normal_distribution<double> normal;
  std::vector<double> x(static_cast<std::size_t>(n * rank));
  for (double& each : x) each = normal(random);
  std::vector<double> k(static_cast<std::size_t>(n * n), 0.0);
  dsyrk('L', 'N', n, rank, 1.0 / static_cast<double>(rank), x.data(), n, 0.0, k.data(), n);
  for (std::int64_t i = 0; i < n; ++i) k[static_cast<std::size_t>(i * n + i)] += more;
  return k;
}

template <class Work>
double seconds(Work&& work)
{
  const double start = cpu_seconds();
  work();
  return cpu_seconds() - start;
}

}  // namespace

int main(int argc, char** argv)
{
  single_blas_thread();
  std::vector<std::int64_t> orders;
  for (int k = 1; k < argc; ++k) orders.push_back(std::atoll(argv[k]));
  if (orders.empty()) orders = {1000, 3000};
  for (const std::int64_t n : orders) {
    const std::vector<double> k = relationship(n, n, 0.1);
    ERROR_HANDLER eh;
    PIVOTS pivots;
    double logdet = 0.0;
    std::vector<double> a = k;
    const double lapack = seconds([&] {
      dpotrf('L', n, a.data(), n);
      dpotri('L', n, a.data(), n);
    });
    a = k;
    const double definite = seconds([&] { SMILM(eh, n, a.data(), 0, logdet); });
    a = k;
    const double swept = seconds([&] { SMIDENSE(eh, n, a.data(), 0, pivots); });
    a = relationship(n, n * 9 / 10, 0.0);
    std::vector<std::int64_t> bound;
    const double singular = seconds([&] { K4MSMISG(eh, n, a, 0, false, pivots, bound); });
    std::printf(
        "order %lld: dpotrf and dpotri %.2f s; SMILM %.2f s (%.2f); SMIDENSE %.2f s (%.2f); K4MSMISG %.2f s "
        "(%.2f), %zu rows added\n",
        static_cast<long long>(n), lapack, definite, definite / lapack, swept, swept / lapack, singular,
        singular / lapack, bound.size());
  }
  return 0;
}
