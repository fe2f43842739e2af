#include "data/data_store.h"

#include <algorithm>
#include <limits>

#include "base/memory.h"
#include "base/text.h"

namespace tolvan {

namespace {

constexpr std::int64_t usual_block_bytes = 1 << 20;

/// L_SCRATCH_FAULT: why rows can't be written.
void L_SCRATCH_FAULT(ERROR_HANDLER& eh, const ScratchFile& file, const DATA_STORE& store)
{
  const Frame here{eh, __func__};
  eh.error(text("can't write scratch file, unitno= ", file.unit(), " iostat=", file.fault()),
           Ecode::io_error);
  eh.continuation(text(store.records(),
                       " records read. Check TEMP directory (e.g. /tmp) is not full (df -k;ls -lt /tmp)"));
  eh.continuation(file.error());
  eh.continuation("try !NOSCRATCH     to hold data in core, or");
  eh.continuation("!NOSCRATCH 2   to put scratch file in current folder.");
}

/// L_NO_MEMORY: that memory was short.
void L_NO_MEMORY(ERROR_HANDLER& eh, std::string_view what)
{
  const Frame here{eh, __func__};
  eh.EH_ADD_MESSAGE(
      {.text = std::string(what), .etype = Etype::error, .ecode = Ecode::alloc_fail, .terminate = true});
}

/// L_CANT_READ: why a row can't be read back.
void L_CANT_READ(ERROR_HANDLER& eh, const ScratchFile& file)
{
  const Frame here{eh, __func__};
  if (!file.is_open()) {
    eh.error(text("was expecting a scratch data file to be opened on unit ", file.unit()), Ecode::io_error);
    return;
  }
  eh.error(text("unable to read from the scratch data file ", file.unit()), Ecode::io_error);
  if (!file.error().empty()) eh.continuation(file.error());
}

}  // namespace

/// How a store finds room for its next block.
struct StoreGrowth {
  ERROR_HANDLER& eh;
  DATA_STORE& store;

  /// Room in memory; false where the rules or the machine have none.
  bool in_memory()
  {
    if (store.on_scratch()) return false;
    const std::int64_t bytes = std::max<std::int64_t>(store.block_bytes(), 1);
    if (store.rules_.scratch != ScratchPlace::nowhere && store.held() >= store.rules_.most_memory / bytes)
      return false;
    return attempt([&] {
      store.blocks_.emplace_back();
      store.blocks_.back().reserve(static_cast<std::size_t>(store.width_ << store.shift_));
    });
  }

  /// L_OPEN_SCRATCH: makes the scratch file with the memory that it needs.
  void L_OPEN_SCRATCH()
  {
    const Frame here{eh, __func__};
    if (!store.blocks_.empty() && store.blocks_.back().capacity() == 0) store.blocks_.pop_back();
    if (store.rules_.scratch == ScratchPlace::nowhere) {
      L_NO_MEMORY(eh, "insufficent memory to hold data and scratch file not available");  // sic
      return;
    }
    const auto size = static_cast<std::size_t>(store.width_ << store.shift_);
    const bool room = attempt([&] {
      store.tail_.reserve(size);
      store.window_.resize(size);
    });
    if (!room) {
      L_NO_MEMORY(eh, "reallocation error thrown in DST");
      return;
    }
    const bool here_only = store.rules_.scratch == ScratchPlace::current_folder;
    if (store.scratch_.open(here_only ? "." : temporary_folder())) return;
    eh.error("error opening the scratch data file", Ecode::io_error);
    eh.continuation(text(here_only ? "." : temporary_folder(), ": ", store.scratch_.error()));
  }

  /// L_NEXT_BLOCK: room for the rows of one more block.
  void L_NEXT_BLOCK()
  {
    const Frame here{eh, __func__};
    if (in_memory()) return;
    if (!store.on_scratch()) {
      L_OPEN_SCRATCH();
      if (eh.terminate()) return;
    }
    if (store.tail_block_ >= 0) {
      const std::int64_t place = store.tail_block_ - store.held();
      if (!store.scratch_.write(place * store.block_bytes(), store.tail_.data(), store.block_bytes())) {
        L_SCRATCH_FAULT(eh, store.scratch_, store);
        return;
      }
    }
    store.tail_.clear();
    store.tail_block_ = store.records_ >> store.shift_;
  }
};

DATA_STORE::DATA_STORE(std::int64_t width, const STORE_RULES& rules) : width_(width), rules_(rules)
{
  if (rules_.most_memory < 0 && width_ > 0) rules_.most_memory = machine_memory_bytes() / 2;
  // A small allowance is to be used in several blocks all the same.
  const std::int64_t wanted = std::min(usual_block_bytes, std::max<std::int64_t>(rules_.most_memory / 4, 1));
  const std::int64_t row_bytes = static_cast<std::int64_t>(sizeof(double)) * (width > 0 ? width : 1);
  while ((row_bytes << (shift_ + 1)) <= wanted) ++shift_;
}

const double* DATA_STORE::load(std::int64_t block) const
{
  const std::int64_t place = block - held();
  window_block_ = block;
  if (!scratch_.is_open() || !scratch_.read(place * block_bytes(), window_.data(), block_bytes())) {
    failed_ = true;
    window_block_ = -1;
    std::fill(window_.begin(), window_.end(), no_value);
  }
  return window_.data();
}

void DST_WRITE_ROW(ERROR_HANDLER& eh, DATA_STORE& store, std::span<const double> row)
{
  const Frame here{eh, __func__};
  if (static_cast<std::int64_t>(row.size()) != store.width_) {
    eh.internal("a row of the wrong width was handed to the data store");
    return;
  }
  if ((store.records_ & ((std::int64_t{1} << store.shift_) - 1)) == 0) {
    StoreGrowth{eh, store}.L_NEXT_BLOCK();
    if (eh.terminate()) return;
  }
  std::vector<double>& block = store.on_scratch() ? store.tail_ : store.blocks_.back();
  block.insert(block.end(), row.begin(), row.end());
  ++store.records_;
}

bool DST_READ_ROW(ERROR_HANDLER& eh, const DATA_STORE& store, std::int64_t record,
                  std::span<const double>& row)
{
  row = store.row(record);
  if (!store.failed_) return true;
  const Frame here{eh, __func__};
  L_CANT_READ(eh, store.scratch_);
  return false;
}

std::span<double> DST_GET_BLOCK(ERROR_HANDLER& eh, DATA_STORE& store, std::int64_t block)
{
  const Frame here{eh, __func__};
  const std::int64_t first = block << store.shift_;
  const std::int64_t rows = std::min(store.records_ - first, std::int64_t{1} << store.shift_);
  double* start = const_cast<double*>(store.block_start(block));
  if (store.failed_) {
    L_CANT_READ(eh, store.scratch_);
    return {};
  }
  return {start, static_cast<std::size_t>(rows * store.width_)};
}

void DST_PUT_BLOCK(ERROR_HANDLER& eh, DATA_STORE& store, std::int64_t block)
{
  const Frame here{eh, __func__};
  if (block != store.window_block_ || block < store.held()) return;  // it was changed in its place
  const std::int64_t place = block - store.held();
  if (!store.scratch_.write(place * store.block_bytes(), store.window_.data(), store.block_bytes())) {
    L_SCRATCH_FAULT(eh, store.scratch_, store);
  }
}

void DST_CHECK(ERROR_HANDLER& eh, const DATA_STORE& store)
{
  const Frame here{eh, __func__};
  if (store.failed_) L_CANT_READ(eh, store.scratch_);
}

}  // namespace tolvan
