// Parameters that follow others: with a coefficient, or as a sum of several.  Plain functions.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "varstruct/parameter_table.h"

namespace tolvan {

/// What a parameter is made of: its master, the members of its sum, or itself when it follows none.
std::vector<PARAMETER_SHARE> made_of(const VARIANCE_MODEL& model, std::int64_t parameter);

/// Whether a parameter follows others.
inline bool follows(const VARIANCE_PARAMETER& p) { return p.master >= 0 || p.sum >= 0; }

/// Whether a parameter is to be estimated, by itself or through those that it follows.
bool is_estimated(const VARIANCE_MODEL& model, std::int64_t parameter);

/// Makes one parameter follow another one, or what that one is made of: value = coefficient times the master's.  What followed the
/// new follower follows its master.
void link_parameter(VARIANCE_MODEL& model, std::int64_t follower, std::int64_t master, double coefficient);
/// Makes one parameter a sum of others, none of which follows it.
void link_to_sum(VARIANCE_MODEL& model, std::int64_t follower, std::span<const PARAMETER_SHARE> shares);

/// The value of a follower from the present values of what it is made of.
double value_of(const VARIANCE_MODEL& model, std::int64_t parameter);
/// Gives all followers the values that their masters have now; as starting values, too, where asked.
void set_followers(VARIANCE_MODEL& model, bool start = true);

}  // namespace tolvan
