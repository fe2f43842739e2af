// bench_markers [GENOTYPES MARKERS]...: relationship matrices of simulated half-sib families, from a .bed file and from
// text, beside one dsyrk of the same shape.
//
// Seconds of the processor on one thread, least of the rounds.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/lapack.h"
#include "relmat/genomic_matrix.h"

using namespace tolvan;

namespace {

/// Counts by marker: families of 20 share one parent's gamete.
std::vector<std::vector<std::uint8_t>> families(std::size_t n, std::size_t m)
{
  std::mt19937 random(1);
  std::uniform_real_distribution<double> uniform;
  const std::size_t count = std::max<std::size_t>(2, n / 20);
  std::vector<std::size_t> family(n);
  for (std::size_t& each : family) each = random() % count;
  std::vector<std::vector<std::uint8_t>> x(m, std::vector<std::uint8_t>(n));
  std::vector<std::uint8_t> gamete(count);
  for (std::size_t j = 0; j < m; ++j) {
    const double p = 0.05 + 0.45 * uniform(random);
    const auto bound = static_cast<std::uint32_t>(p * 4294967295.0);
    for (std::uint8_t& each : gamete) each = random() < bound ? 1 : 0;
    for (std::size_t i = 0; i < n; ++i) x[j][i] = static_cast<std::uint8_t>(gamete[family[i]] + (random() < bound ? 1 : 0));
  }
  return x;
}

void write_files(const std::string& root, const std::vector<std::vector<std::uint8_t>>& x)
{
  const std::size_t n = x.front().size();
  std::ofstream bed(root + ".bed", std::ios::binary), bim(root + ".bim"), fam(root + ".fam"), text(root + ".mkr");
  bed.write("\x6c\x1b\x01", 3);
  constexpr unsigned code[] = {3U, 2U, 0U};
  for (std::size_t j = 0; j < x.size(); ++j) {
    std::string column((n + 3) / 4, '\0');
    for (std::size_t i = 0; i < n; ++i)
      column[i / 4] = static_cast<char>(static_cast<unsigned char>(column[i / 4]) | (code[x[j][i]] << (2 * (i % 4))));
    bed << column;
    bim << "1 m" << j << " 0 " << j << " A G\n";
  }
  for (std::size_t i = 0; i < n; ++i) {
    fam << "f g" << i << " 0 0 0 -9\n";
    std::string line = "g" + std::to_string(i);
    for (const auto& column : x) line += {' ', static_cast<char>('0' + column[i])};
    text << line << "\n";
  }
}

template <class Work>
double seconds(int rounds, Work&& work)
{
  double least = 1e300;
  for (int k = 0; k < rounds; ++k) {
    const double start = cpu_seconds();
    work();
    least = std::min(least, cpu_seconds() - start);
  }
  return least;
}

/// What reading takes, and what forming does.
struct Parts {
  double read = 1e300, form = 1e300;
};

Parts form(int rounds, const std::string& path, std::int64_t markers, RelationshipMethod method)
{
  Parts parts;
  for (int k = 0; k < rounds; ++k) {
    ERROR_HANDLER eh;
    MARKER_KEYS keys;
    keys.files = {path};
    keys.markers = markers;
    keys.method = method;
    MARKER_DATA data;
    GENOMIC_SUMMARY summary;
    std::vector<double> g;
    parts.read = std::min(parts.read, seconds(1, [&] { GETMARKERS(eh, keys, data); }));
    parts.form = std::min(parts.form, seconds(1, [&] { L_FORM_GRM(eh, keys, data, {}, g, summary); }));
    if (eh.terminate()) std::printf("%s\n", eh.EH_LAST_MESSAGE().c_str()), std::exit(1);
  }
  return parts;
}

}  // namespace

int main(int argc, char** argv)
{
  single_blas_thread();
  std::vector<std::pair<std::int64_t, std::int64_t>> sizes;
  for (int k = 1; k + 1 < argc; k += 2) sizes.emplace_back(std::atoll(argv[k]), std::atoll(argv[k + 1]));
  if (sizes.empty()) sizes = {{1000, 5000}, {3000, 5000}};
  const std::string root = (std::filesystem::temp_directory_path() / ("tolvan_bench_markers_" + std::to_string(::getpid()))).string();
  for (const auto& [n, m] : sizes) {
    write_files(root, families(static_cast<std::size_t>(n), static_cast<std::size_t>(m)));
    const int rounds = n * m > 20000000 ? 2 : 5;
    double blas = 0.0;
    {
      std::vector<double> z(static_cast<std::size_t>(n * m), 0.5), g(static_cast<std::size_t>(n * n));
      blas = seconds(rounds, [&] { dsyrk('L', 'N', n, m, 1.0, z.data(), n, 0.0, g.data(), n); });
    }
    const double flops = static_cast<double>(n) * static_cast<double>(n + 1) * static_cast<double>(m);
    std::printf("%lld genotypes, %lld markers: dsyrk %.3f s, %.1f GFlops\n", static_cast<long long>(n), static_cast<long long>(m),
                blas, 1e-9 * flops / blas);
    for (const auto& [extension, method] :
         {std::pair{".bed", RelationshipMethod::additive}, std::pair{".bed", RelationshipMethod::dominance},
          std::pair{".mkr", RelationshipMethod::additive}}) {
      const Parts parts = form(rounds, root + extension, m, method);
      std::printf("  %s method %lld: open and read %.3f s, matrix %.3f s, %.2f of the rate of dsyrk\n", extension,
                  static_cast<long long>(method), parts.read, parts.form, blas / parts.form);
    }
    for (const char* extension : {".bed", ".bim", ".fam", ".mkr"}) std::filesystem::remove(root + extension);
  }
  return 0;
}
