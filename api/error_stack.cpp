// The live trail of routine names.  Its own faults are printed, since the handler is what has failed.
#include <algorithm>
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

// The stack is switched off, or has to grow: from 20 by doubling to 320 names, never more.
void ERROR_HANDLER::add_name_slowly(std::string_view name) noexcept
{
  if (stack_.mode == 0) return;
  auto& names = stack_.entries;
  if (names.size() >= largest_capacity) {
    print_line("Internal Error: Stack issues in ERROR_HANDLER_TYPE:EST_ADD", "");
    print_line("       RNAME  = ", name);
    std::printf("   Stack size = %zu\n", names.size());
    ignore_stack();
    return;
  }
  const std::size_t capacity = std::clamp(2 * names.size(), first_capacity, largest_capacity);
  if (!attempt([&] { names.reserve(capacity); })) {
    // Memory is short: lose the trail rather than the run.
    stack_.mode = 0;
    names.clear();
    return;
  }
  names.push_back(name);
}

// The name is not the very one that was pushed: it may be equal all the same.
void ERROR_HANDLER::remove_name_slowly(std::string_view name) noexcept
{
  if (stack_.mode == 0) return;
  auto& names = stack_.entries;
  if (!names.empty() && names.back() == name) {
    names.pop_back();
    return;
  }
  print_line("Internal Error: Stack issues in ERROR_HANDLER_TYPE:EST_REMOVE", "");
  print_line("   RNAME = ", name);
  std::printf("   Stack size = %zu\n", names.size());
  if (!names.empty()) print_line("   Top of Stack = ", names.back());
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
