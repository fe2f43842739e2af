// Large pages for arrays that are read over and over.  Routine: advise_large_pages.
#pragma once

#include <sys/mman.h>

#include <cstdint>

namespace tolvan {

/// Asks the system to hold room not yet written to in pages of 2 MB, of which a processor can find more at a time than of small
/// ones.  Advice alone: nothing depends on whether it is taken.
inline void advise_large_pages(void* room, std::int64_t bytes)
{
#ifdef MADV_HUGEPAGE
  constexpr std::uintptr_t page = std::uintptr_t{2} << 20;
  const auto begin = (reinterpret_cast<std::uintptr_t>(room) + page - 1) / page * page;
  const auto end = (reinterpret_cast<std::uintptr_t>(room) + static_cast<std::uintptr_t>(bytes)) / page * page;
  if (begin < end) ::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
#else
  static_cast<void>(room);
  static_cast<void>(bytes);
#endif
}

}  // namespace tolvan
