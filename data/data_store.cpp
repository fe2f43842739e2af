#include "data/data_store.h"

namespace tolvan {

namespace {
constexpr std::int64_t chunk_bytes = 1 << 20;
}

DATA_STORE::DATA_STORE(std::int64_t width) : width_(width)
{
  const std::int64_t row_bytes = static_cast<std::int64_t>(sizeof(double)) * (width > 0 ? width : 1);
  while ((row_bytes << (shift_ + 1)) <= chunk_bytes) ++shift_;
}

void DST_WRITE_ROW(ERROR_HANDLER& eh, DATA_STORE& store, std::span<const double> row)
{
  const Frame here{eh, __func__};
  if (static_cast<std::int64_t>(row.size()) != store.width_) {
    eh.internal("a row of the wrong width was handed to the data store");
    return;
  }
  const std::int64_t chunk_rows = std::int64_t{1} << store.shift_;
  if (store.records_ == static_cast<std::int64_t>(store.chunks_.size()) * chunk_rows) {
    store.chunks_.emplace_back();
    store.chunks_.back().reserve(static_cast<std::size_t>(chunk_rows * store.width_));
  }
  std::vector<double>& chunk = store.chunks_.back();
  chunk.insert(chunk.end(), row.begin(), row.end());
  ++store.records_;
}

}  // namespace tolvan
