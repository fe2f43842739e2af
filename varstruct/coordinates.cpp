// The places of the levels of a distance model, from the records.
#include "varstruct/coordinates.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "base/memory.h"
#include "base/numbers.h"
#include "base/text.h"

namespace tolvan {

namespace {

bool all_known(std::span<const double> x)
{
  return std::all_of(x.begin(), x.end(), [](double v) { return std::isfinite(v) && !is_no_value(v); });
}

}  // namespace

void AIDPOW(ERROR_HANDLER& eh, std::span<const double> x, std::span<const double> y, std::int64_t levels,
            PLACES& places)
{
  const Frame here{eh, __func__};
  const auto records = static_cast<std::int64_t>(x.size());
  const bool plane = !y.empty();
  if ((plane && y.size() != x.size()) || !all_known(x) || !all_known(y)) {
    eh.error(text("issue sorting ", plane ? "X,Y" : "X", " values for Spatial structure"));
    return;
  }
  places = {};
  if (!assign<std::int64_t>(eh, places.level, records, 0)) return;
  std::iota(places.level.begin(), places.level.end(), 0);
  if (records == levels) {
    if (!assign(eh, places.at.x, records, 0.0) || (plane && !assign(eh, places.at.y, records, 0.0))) return;
    std::copy(x.begin(), x.end(), places.at.x.begin());
    std::copy(y.begin(), y.end(), places.at.y.begin());
    return;
  }

  const std::int64_t most = std::clamp<std::int64_t>(levels, 0, records);
  if (!reserve(eh, places.at.x, most) || !reserve(eh, places.at.y, plane ? most : 0)) return;
  std::vector<std::int64_t> order;
  if (!assign<std::int64_t>(eh, order, records, 0)) return;
  std::iota(order.begin(), order.end(), 0);
  const auto height = [&](std::size_t i) { return plane ? y[i] : 0.0; };
  const auto before = [&](std::int64_t a, std::int64_t b) {
    const auto i = static_cast<std::size_t>(a), j = static_cast<std::size_t>(b);
    return x[i] != x[j] ? x[i] < x[j] : height(i) < height(j);
  };
  std::sort(order.begin(), order.end(), before);

  const std::int64_t repeats = levels > 0 ? records / levels : 0;
  std::int64_t unique = 0, here_so_far = 0;
  bool even = levels > 0 && records % levels == 0;
  for (std::size_t k = 0; k < order.size(); ++k) {
    if (k == 0 || before(order[k - 1], order[k])) {
      even = even && (k == 0 || here_so_far == repeats);
      const auto i = static_cast<std::size_t>(order[k]);
      if (unique < levels) {
        places.at.x.push_back(x[i]);
        if (plane) places.at.y.push_back(y[i]);
      }
      ++unique;
      here_so_far = 0;
    }
    ++here_so_far;
    places.level[static_cast<std::size_t>(order[k])] = unique - 1;
  }
  even = even && here_so_far == repeats;
  if (unique != levels) {
    eh.error(text(unique, " unique points but expected to find ", levels, " in the ", records,
                  " records assigned to this section"));
  } else if (!even) {
    eh.error(text(records, " records assigned to this section, expected to find ", repeats, " repeats of ",
                  levels, " coordinates"));
  }
}

}  // namespace tolvan
