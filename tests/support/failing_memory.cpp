#include "support/failing_memory.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

constexpr std::int64_t never = -1;

thread_local std::int64_t allocations_left = never;
thread_local bool fails_once = false;
thread_local bool has_struck = false;
std::atomic<std::int64_t> in_use{0};
std::atomic<std::int64_t> peak{0};

bool must_fail()
{
  if (allocations_left == never) return false;
  if (allocations_left > 0) {
    --allocations_left;
    return false;
  }
  has_struck = true;
  if (fails_once) allocations_left = never;
  return true;
}

void* counted(void* block)
{
  const auto bytes = static_cast<std::int64_t>(malloc_usable_size(block));
  const std::int64_t now = in_use.fetch_add(bytes, std::memory_order_relaxed) + bytes;
  std::int64_t before = peak.load(std::memory_order_relaxed);
  while (now > before && !peak.compare_exchange_weak(before, now, std::memory_order_relaxed)) {
  }
  return block;
}

void release(void* block)
{
  if (block == nullptr) return;
  in_use.fetch_sub(static_cast<std::int64_t>(malloc_usable_size(block)), std::memory_order_relaxed);
  std::free(block);
}

void* allocate(std::size_t size, std::size_t alignment)
{
  // No machine has so much; the sanitizers' malloc would end the program rather than refuse.
  constexpr std::size_t absurd = std::size_t{1} << 40;
  if (must_fail() || size >= absurd) return nullptr;
  if (size == 0) size = 1;
  if (alignment > 0) size = (size + alignment - 1) / alignment * alignment;
  void* block = alignment > 0 ? std::aligned_alloc(alignment, size) : std::malloc(size);
  return block != nullptr ? counted(block) : nullptr;
}

}  // namespace

// clang-format off
void* operator new(std::size_t size)
{
  void* block = allocate(size, 0);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
void* operator new(std::size_t size, std::align_val_t alignment)
{
  void* block = allocate(size, static_cast<std::size_t>(alignment));
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new[](std::size_t size, std::align_val_t alignment) { return operator new(size, alignment); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size, 0); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocate(size, 0); }
void operator delete(void* block) noexcept { release(block); }
void operator delete[](void* block) noexcept { release(block); }
void operator delete(void* block, std::size_t) noexcept { release(block); }
void operator delete[](void* block, std::size_t) noexcept { release(block); }
void operator delete(void* block, std::align_val_t) noexcept { release(block); }
void operator delete[](void* block, std::align_val_t) noexcept { release(block); }
void operator delete(void* block, std::size_t, std::align_val_t) noexcept { release(block); }
void operator delete[](void* block, std::size_t, std::align_val_t) noexcept { release(block); }
// clang-format on

namespace tolvan {

FailingMemory::FailingMemory(std::int64_t good, bool once)
{
  allocations_left = good;
  fails_once = once;
  has_struck = false;
}

FailingMemory::~FailingMemory()
{
  allocations_left = never;
}

bool FailingMemory::struck() const
{
  return has_struck;
}

std::int64_t bytes_in_use()
{
  return in_use.load();
}

std::int64_t peak_bytes()
{
  return peak.load();
}

void reset_peak_bytes()
{
  peak.store(in_use.load());
}

}  // namespace tolvan
