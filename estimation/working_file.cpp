// The working variables of a fit by records, and as a file.  Routine: AIDWVR.
#include "estimation/working_file.h"

#include <algorithm>

#include "base/files.h"
#include "base/text.h"
#include "varstruct/followers.h"

namespace tolvan {

std::vector<double> working_by_records(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& q,
                                       EVALUATION& ev)
{
  const std::vector<std::int64_t> masters = ev.information.active;
  const auto is_master = [&](std::int64_t p) { return std::binary_search(masters.begin(), masters.end(), p); };
  INFORMATION all;
  for (std::int64_t p = 0; p < model.count(); ++p) {
    const std::vector<PARAMETER_SHARE> shares = made_of(model, p);
    if (std::any_of(shares.begin(), shares.end(), [&](const PARAMETER_SHARE& s) { return is_master(s.of); })) all.active.push_back(p);
  }
  std::swap(all, ev.information);
  WORKING_VARIABLES working;
  K4MWVG(eh, in, model, q, ev, working);
  if (!eh.terminate()) K4MWVR(eh, model, q, ev, working);
  std::swap(all, ev.information);
  const std::size_t rows = q.y.size();
  std::vector<double> out(rows * masters.size(), 0.0);
  if (eh.terminate()) return out;

  // alpha e + W a + f of each, added to what it is made of.
  std::vector<double> w(rows);
  const auto n = static_cast<std::size_t>(q.n);
  for (std::size_t i = 0; i < all.active.size(); ++i) {
    for (std::size_t r = 0; r < rows; ++r) w[r] = working.alpha[i] * ev.residual[r];
    for (std::size_t p = 0; p < n && working.has_a[i]; ++p) {
      const double a = working.a[i * n + p];
      for (auto k = static_cast<std::size_t>(q.columns.start[p]); k < static_cast<std::size_t>(q.columns.start[p + 1]); ++k) {
        w[static_cast<std::size_t>(q.columns.record[k])] += a * q.columns.value[k];
      }
    }
    for (const WORKING_VARIABLES::DATA_BLOCK& block : working.data) {
      for (std::size_t c = 0; c < block.parameter.size(); ++c) {
        if (block.parameter[c] != static_cast<std::int64_t>(i)) continue;
        for (std::size_t m = 0; m < block.records; ++m) w[static_cast<std::size_t>(block.first) + m] += block.f[c * block.records + m];
      }
    }
    for (const PARAMETER_SHARE& share : made_of(model, all.active[i])) {
      if (!is_master(share.of)) continue;
      const auto at = static_cast<std::size_t>(std::lower_bound(masters.begin(), masters.end(), share.of) - masters.begin());
      for (std::size_t r = 0; r < rows; ++r) out[at * rows + r] += share.by * w[r];
    }
  }
  return out;
}

void AIDWVR(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& q, EVALUATION& ev,
            const std::string& name)
{
  const Frame here{eh, __func__};
  const std::vector<double> w = working_by_records(eh, in, model, q, ev);
  if (eh.terminate()) return;
  const std::size_t rows = q.y.size();
  FileWriter file;
  bool good = file.open(name) && file.write("   ROW  VPAR  Working_Variable\n");
  for (std::size_t i = 0; i < ev.information.active.size() && good; ++i) {
    std::string lines;
    for (std::size_t r = 0; r < rows; ++r) {
      lines += text(edit_i(in.design.record[r], 6), edit_i(ev.information.active[i] + 1, 6), edit_g(w[i * rows + r], 18, 9), '\n');
    }
    good = file.write(lines);
  }
  if (good && file.commit()) return;
  eh.error(text("unable to write file ", name), Ecode::io_error);
  eh.continuation(file.error());
}

}  // namespace tolvan
