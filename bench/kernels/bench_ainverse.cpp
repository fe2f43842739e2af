// bench_ainverse REQUEST...: the inverse of a pedigree's relationship matrix from its request in memory.
//
// Seconds are of the processor: reading the JSON, and all that follows up to the tables.  The last figures
// are the peak of the memory above the text, the elements of the lower triangle, the log determinant and the
// inbreeding.
#include <algorithm>
#include <cstdio>
#include <numeric>
#include <string>

#include "base/files.h"
#include "bench/measure.h"
#include "pedigree/ainverse_object.h"

using namespace tolvan;

namespace {

bool run(const char* path)
{
  std::string document;
  std::string fault;
  if (!read_file(path, document, fault)) {
    std::printf("%s: %s\n", path, fault.c_str());
    return false;
  }
  const double before = peak_megabytes();
  ERROR_HANDLER eh;
  JsonError error;
  double start = cpu_seconds();
  auto request = parse_json(document, error);
  const double read = cpu_seconds() - start;
  if (request == nullptr) {
    std::printf("%s: %s\n", path, error.message.c_str());
    return false;
  }
  start = cpu_seconds();
  TAINVERSE result;
  OUTPUT_TABLE_STORE tables;
  CALL_AINVERSE_WITH_JPTR(eh, *request, result);
  if (!eh.terminate()) AINVT_POPULATE_TABLE_STORE(eh, result, tables);
  const double work = cpu_seconds() - start;
  if (eh.terminate()) {
    std::printf("%s: %lld messages after %.2f s, the last: %s\n", path, static_cast<long long>(eh.count()),
                work, eh.EH_LAST_MESSAGE().c_str());
    return true;
  }
  const auto& F = tables.find_table("TABLE_AINV_INBREEDING")->real_col[0];
  std::printf(
      "%s: read %.3f s, work %.3f s, %.0f MB above the text; %lld elements, logdet %.6f, F at most %.6f, "
      "mean %.8f\n",
      path, read, work, peak_megabytes() - before,
      static_cast<long long>(tables.find_table("TABLE_AINV_A")->nrows),
      tables.find_scalar("SCALAR_LOGDET")->rval, *std::max_element(F.begin(), F.end()),
      std::accumulate(F.begin(), F.end(), 0.0) / static_cast<double>(F.size()));
  return true;
}

}  // namespace

int main(int argc, char** argv)
{
  bool done = true;
  for (int k = 1; k < argc; ++k) done = run(argv[k]) && done;
  return done ? 0 : 1;
}
