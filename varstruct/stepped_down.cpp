// A component whose row has parameters in front that no longer belong to its model.
#include "varstruct/stepped_down.h"

#include <algorithm>
#include <utility>

#include "base/memory.h"

namespace tolvan {

namespace {

class BEHIND_STEPPED final : public COMPONENT_MATRIX {
 public:
  BEHIND_STEPPED(std::unique_ptr<COMPONENT_MATRIX> core, std::int64_t count) : core_(std::move(core)), count_(count) {}

  Formed form(FORM_CONTEXT& context) override
  {
    const Formed formed = core_->form(context);
    if (formed != Formed::done && formed != Formed::done_by_metric) return formed;
    const std::vector<double>& parts = core_->score_part();
    if (!assign(context.eh, score_part_, count_ + static_cast<std::int64_t>(parts.size()))) return Formed::in_handler;
    std::copy(parts.begin(), parts.end(), score_part_.begin() + count_);
    inverse_ = core_->inverse();
    log_determinant_ = core_->log_determinant();
    negative_ = core_->negative();
    return formed;
  }
  void contract(const double* s, double* out) const override { core_->contract(s, out + count_); }
  void working(std::int64_t k, const double* x, double* y, std::int64_t outer, std::int64_t inner) const override
  {
    if (k < count_) {
      std::fill_n(y, outer * inverse_.n * inner, 0.0);
    } else {
      core_->working(k - count_, x, y, outer, inner);
    }
  }
  void apply_inverse(const double* x, double* y, std::int64_t outer, std::int64_t inner) const override
  {
    core_->apply_inverse(x, y, outer, inner);
  }
  void covariance(double* r) const override { core_->covariance(r); }

 private:
  std::unique_ptr<COMPONENT_MATRIX> core_;
  std::int64_t count_;
};

}  // namespace

STRUCTURE_ROW live_row(const STRUCTURE_ROW& row)
{
  STRUCTURE_ROW live = row;
  live.first += row.stepped;
  live.parameters -= row.stepped;
  live.stepped = 0;
  return live;
}

void take_step_down(const STRUCTURE_ROW& live, STRUCTURE_ROW& row)
{
  row.stepped = row.parameters - live.parameters;
  row.order = live.order;
  row.model = live.model;
  row.sub_code = live.sub_code;
  row.scale = live.scale;
}

std::unique_ptr<COMPONENT_MATRIX> behind_stepped(std::unique_ptr<COMPONENT_MATRIX> core, std::int64_t count)
{
  if (core == nullptr || count == 0) return core;
  return std::make_unique<BEHIND_STEPPED>(std::move(core), count);
}

}  // namespace tolvan
