// The live trail of routine names.  Its own faults are printed, since the handler is what has failed.
#include <cstdio>

#include "api/error_handler.h"
#include "base/memory.h"

namespace tolvan {

namespace {

constexpr std::size_t first_capacity = 20;
constexpr std::size_t largest_capacity = 320;

void print_line(const char* label, std::string_view value) noexcept
{
  std::printf("%s%.*s\n", label, static_cast<int>(value.size()), value.data());
}

}  // namespace

void ERROR_HANDLER::EST_ADD(std::string_view name) noexcept
{
  if (stack_.mode == 0) return;
  auto& entries = stack_.entries;
  if (entries.size() == entries.capacity() || entries.size() >= largest_capacity) {
    if (entries.size() >= largest_capacity) {
      print_line("Internal Error: Stack issues in ERROR_HANDLER_TYPE:EST_ADD", "");
      print_line("       RNAME  = ", name);
      std::printf("   Stack size = %zu\n", entries.size());
      ignore_stack();
      return;
    }
    const std::size_t capacity = entries.size() < first_capacity ? first_capacity : 2 * entries.size();
    if (!attempt([&] { entries.reserve(capacity < largest_capacity ? capacity : largest_capacity); })) {
      // Memory is short: lose the trail rather than the run.
      stack_.mode = 0;
      entries.clear();
      return;
    }
  }
  entries.push_back(name);
}

void ERROR_HANDLER::EST_REMOVE(std::string_view name) noexcept
{
  if (stack_.mode == 0) return;
  auto& entries = stack_.entries;
  if (!entries.empty() && entries.back() == name) {
    entries.pop_back();
    return;
  }
  print_line("Internal Error: Stack issues in ERROR_HANDLER_TYPE:EST_REMOVE", "");
  print_line("   RNAME = ", name);
  std::printf("   Stack size = %zu\n", entries.size());
  if (!entries.empty()) print_line("   Top of Stack = ", entries.back());
  ignore_stack();
}

void ERROR_HANDLER::ignore_stack() noexcept
{
  print_line("Clearing stack and ignoring it going forward", "");
  stack_.mode = 0;
  stack_.entries.clear();
}

std::string_view ERROR_HANDLER::EST_LEVEL(std::int64_t level) const
{
  const auto size = static_cast<std::int64_t>(stack_.entries.size());
  return level >= 1 && level <= size ? stack_.entries[static_cast<std::size_t>(level - 1)] : "UNKNOWN";
}

}  // namespace tolvan
