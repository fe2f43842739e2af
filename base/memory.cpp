#include "base/memory.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <limits>
#include <string>

#include "base/files.h"
#include "base/text.h"

namespace tolvan {

namespace {

constexpr std::int64_t unlimited = std::numeric_limits<std::int64_t>::max();

std::string contents(const std::string& path)
{
  std::string out;
  std::string error;
  if (!read_file(path, out, error)) out.clear();
  return out;
}

// The number after a key at the start of a line; -1 if there is none.
std::int64_t number_after(const std::string& file, std::string_view key)
{
  for (const std::string& line : split(file, '\n')) {
    if (!line.starts_with(key)) continue;
    const std::string_view rest = trim(std::string_view(line).substr(key.size()));
    std::int64_t value = -1;
    if (read_integer(rest.substr(0, rest.find(' ')), value)) return value;
  }
  return -1;
}

// What the files of one control group leave: its limit less what is used and cannot be dropped.
std::int64_t left_in_group(const std::string& folder, const char* limit_name, const char* usage_name,
                           const char* cache_key)
{
  std::int64_t limit = 0;
  std::int64_t usage = 0;
  if (!read_integer(trim(contents(folder + limit_name)), limit)) return unlimited;  // "max", or not readable
  if (!read_integer(trim(contents(folder + usage_name)), usage)) return limit;
  const std::int64_t cache = number_after(contents(folder + "/memory.stat"), cache_key);
  return std::max<std::int64_t>(0, limit - (usage - std::max<std::int64_t>(0, cache)));
}

// The least that the groups of this process leave, from its own up to the root.
std::int64_t left_in_groups()
{
  std::int64_t left = unlimited;
  for (const std::string& line : split(contents("/proc/self/cgroup"), '\n')) {
    const std::size_t first = line.find(':');
    const std::size_t second = first == line.npos ? line.npos : line.find(':', first + 1);
    if (second == line.npos) continue;
    const std::string controllers = line.substr(first + 1, second - first - 1);
    const bool unified = controllers.empty();
    if (!unified && controllers != "memory") continue;
    const std::string root = unified ? "/sys/fs/cgroup" : "/sys/fs/cgroup/memory";
    std::string group = line.substr(second + 1);
    while (true) {
      const std::string folder = root + (group == "/" ? "" : group);
      left =
          std::min(left, unified ? left_in_group(folder, "/memory.max", "/memory.current", "inactive_file ")
                                 : left_in_group(folder, "/memory.limit_in_bytes", "/memory.usage_in_bytes",
                                                 "total_inactive_file "));
      const std::size_t slash = group.rfind('/');
      if (group == "/" || group.empty() || slash == group.npos) break;
      group = slash == 0 ? "/" : group.substr(0, slash);
    }
  }
  return left;
}

std::int64_t left_in_address_space()
{
  rlimit limit{};
  if (::getrlimit(RLIMIT_AS, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return unlimited;
  const std::string pages = contents("/proc/self/statm");
  std::int64_t used = 0;
  read_integer(std::string_view(pages).substr(0, pages.find(' ')), used);
  return std::max<std::int64_t>(0,
                                static_cast<std::int64_t>(limit.rlim_cur) - used * ::sysconf(_SC_PAGESIZE));
}

}  // namespace

std::int64_t machine_memory_bytes()
{
  std::int64_t left = unlimited;
  std::int64_t kilobytes = number_after(contents("/proc/meminfo"), "MemAvailable:");
  if (kilobytes >= 0) left = kilobytes * 1024;
  return std::min({left, left_in_groups(), left_in_address_space()});
}

}  // namespace tolvan
