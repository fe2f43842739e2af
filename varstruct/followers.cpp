// Parameters that follow others.
#include "varstruct/followers.h"

#include <algorithm>

namespace tolvan {

namespace {

VARIANCE_PARAMETER& at(VARIANCE_MODEL& model, std::int64_t i) { return model.parameters[static_cast<std::size_t>(i)]; }
const VARIANCE_PARAMETER& at(const VARIANCE_MODEL& model, std::int64_t i) { return model.parameters[static_cast<std::size_t>(i)]; }

/// Adds shares, those of the same parameter together.
void add(std::vector<PARAMETER_SHARE>& to, std::span<const PARAMETER_SHARE> more, double by)
{
  for (const PARAMETER_SHARE& share : more) {
    const auto known = std::find_if(to.begin(), to.end(), [&](const PARAMETER_SHARE& s) { return s.of == share.of; });
    if (known != to.end()) {
      known->by += by * share.by;
    } else {
      to.push_back({share.of, by * share.by});
    }
  }
}

/// Takes down what a follower is made of: one master, or several.
void set_shares(VARIANCE_MODEL& model, std::int64_t follower, std::vector<PARAMETER_SHARE> shares)
{
  VARIANCE_PARAMETER& p = at(model, follower);
  p.constraint = Constraint::C;
  p.master = -1;
  if (shares.size() == 1) {
    p.sum = -1;
    p.master = shares.front().of;
    p.coefficient = shares.front().by;
    return;
  }
  if (p.sum < 0) {
    p.sum = static_cast<std::int64_t>(model.sums.size());
    model.sums.emplace_back();
  }
  model.sums[static_cast<std::size_t>(p.sum)] = std::move(shares);
}

}  // namespace

std::vector<PARAMETER_SHARE> made_of(const VARIANCE_MODEL& model, std::int64_t parameter)
{
  const VARIANCE_PARAMETER& p = at(model, parameter);
  if (p.sum >= 0) return model.sums[static_cast<std::size_t>(p.sum)];
  if (p.master >= 0) return {{p.master, p.coefficient}};
  return {{parameter, 1.0}};
}

bool is_estimated(const VARIANCE_MODEL& model, std::int64_t parameter)
{
  const auto shares = made_of(model, parameter);
  return std::any_of(shares.begin(), shares.end(), [&](const PARAMETER_SHARE& s) { return is_free(at(model, s.of).constraint); });
}

void link_to_sum(VARIANCE_MODEL& model, std::int64_t follower, std::span<const PARAMETER_SHARE> shares)
{
  std::vector<PARAMETER_SHARE> own;
  for (const PARAMETER_SHARE& share : shares) add(own, made_of(model, share.of), share.by);
  if (own.empty()) return;
  for (std::int64_t i = 0; i < model.count(); ++i) {
    if (i == follower || !follows(at(model, i))) continue;
    std::vector<PARAMETER_SHARE> of = made_of(model, i);
    const auto here = std::find_if(of.begin(), of.end(), [&](const PARAMETER_SHARE& s) { return s.of == follower; });
    if (here == of.end()) continue;
    const double by = here->by;
    of.erase(here);
    add(of, own, by);
    set_shares(model, i, std::move(of));
  }
  set_shares(model, follower, std::move(own));
}

void link_parameter(VARIANCE_MODEL& model, std::int64_t follower, std::int64_t master, double coefficient)
{
  const std::vector<PARAMETER_SHARE> of = made_of(model, master);
  if (of.size() == 1 && of.front().of == follower) return;
  const PARAMETER_SHARE share{master, coefficient};
  link_to_sum(model, follower, {&share, 1});
}

double value_of(const VARIANCE_MODEL& model, std::int64_t parameter)
{
  double value = 0.0;
  for (const PARAMETER_SHARE& share : made_of(model, parameter)) value += share.by * at(model, share.of).value;
  return value;
}

void set_followers(VARIANCE_MODEL& model, bool start)
{
  for (std::int64_t i = 0; i < model.count(); ++i) {
    VARIANCE_PARAMETER& p = at(model, i);
    if (!follows(p)) continue;
    p.value = value_of(model, i);
    if (start) p.start = p.value;
  }
}

}  // namespace tolvan
