// bench_read REQUEST [ROUNDS]: reads the data file of a request into the store.
//
// Beside it the plain loop: fread in chunks, strtod at the start of every field, a step to the next
// separator. Seconds are processor seconds, the least of the rounds; memory is what a round added to the
// process at most.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "api/communication.h"
#include "base/files.h"
#include "bench/measure.h"
#include "data/read_data.h"

using namespace tolvan;

namespace {

/// The yardstick; gives the number of fields so that the loop is not idle.
std::int64_t plain_loop(const std::string& path, double& sum)
{
  FileHandle file(std::fopen(path.c_str(), "rb"));
  if (file == nullptr) return 0;
  std::vector<char> buffer((std::size_t{1} << 18) + 1);
  std::int64_t fields = 0;
  std::size_t held = 0;
  while (true) {
    const std::size_t got = std::fread(buffer.data() + held, 1, buffer.size() - 1 - held, file.get());
    const std::size_t end = held + got;
    std::size_t whole = end;  // up to the last line end
    while (got > 0 && whole > 0 && buffer[whole - 1] != '\n') --whole;
    if (whole == 0) return fields;
    const char kept = buffer[whole];
    buffer[whole] = '\0';
    for (char *p = buffer.data(), *stop = p + whole; p < stop; ++p) {
      sum += std::strtod(p, &p);
      ++fields;
      while (p < stop && *p != ',' && *p != ' ' && *p != '\n') ++p;
    }
    buffer[whole] = kept;
    std::copy(buffer.begin() + static_cast<std::ptrdiff_t>(whole),
              buffer.begin() + static_cast<std::ptrdiff_t>(end), buffer.begin());
    held = end - whole;
    if (got == 0) return fields;
  }
}

int complain(const ERROR_HANDLER& eh)
{
  for (const auto& message : eh.messages())
    std::fprintf(stderr, "%s\n", message.message.value_or("").c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv)
{
  if (argc < 2) return std::fputs("bench_read REQUEST [ROUNDS]\n", stderr), 1;
  const int rounds = argc > 2 ? std::max(1, std::atoi(argv[2])) : 3;
  std::string contents;
  std::string error;
  if (!read_file(argv[1], contents, error)) return std::fprintf(stderr, "%s\n", error.c_str()), 1;
  JsonError failure;
  const auto request = parse_json(contents, failure);
  if (request == nullptr) return std::fprintf(stderr, "%s\n", failure.message.c_str()), 1;

  ERROR_HANDLER eh;
  PRIMARY_DATA primary;
  GET_PRIMARY_DATA_DESCRIPTION(eh, *request, {}, primary);
  if (eh.terminate() || primary.data_file == nullptr) return complain(eh);
  const std::string path = primary.data_file->find("name")->text();

  double sum = 0.0;
  std::int64_t fields = 0;
  const double plain = least_seconds(rounds, [&] { fields = plain_loop(path, sum); });
  std::printf("plain loop  %8.3f s  %lld fields, sum %g\n", plain, static_cast<long long>(fields), sum);

  const COMMUNICATION communication;
  const double before = peak_megabytes();
  std::int64_t records = 0;
  std::int64_t width = 0;
  const double read = least_seconds(rounds, [&] {
    VARIABLE_TABLE variables;
    DATA_STORE store;
    NEW_AIDTIN(eh, communication, primary.variables, variables);
    if (!eh.terminate()) INITFLL(eh, variables);
    if (!eh.terminate()) READ_DATA_FILE(eh, primary, variables, store);
    records = store.records();
    width = store.width();
  });
  if (eh.terminate()) return complain(eh);
  const double store_megabytes = static_cast<double>(records * width) * sizeof(double) / 1048576.0;
  const double added = peak_megabytes() - before;
  std::printf("reader      %8.3f s  %.2f of the plain loop's speed, %lld records\n", read, plain / read,
              static_cast<long long>(records));
  std::printf("memory      %8.1f MB added, %.2f times the store's %.1f MB\n", added, added / store_megabytes,
              store_megabytes);
  return 0;
}
