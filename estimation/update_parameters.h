// One average-information step: damping, inversion with its own pivot rule, the step and its restraint.
// Routines: K4MUPD, K4MAII.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "api/error_handler.h"
#include "estimation/control_slots.h"
#include "estimation/keep_inside.h"
#include "estimation/secant_information.h"
#include "varstruct/parameter_table.h"

namespace tolvan {

/// The score and the average-information matrix of one evaluation, over the active parameters.
struct INFORMATION {
  std::vector<std::int64_t> active;  // parameter indices, rising
  std::vector<double> score;         // one an active parameter
  std::vector<double> ai;            // lower triangle by rows
  std::vector<double> unit;          // a natural unit of each parameter: 1 for a ratio, a residual variance for a variance
  std::vector<double> quadratic;     // the part of each score that the data make, 0.5 y'P Vdot P y; empty where it is not known
  std::int64_t held_out = -1;        // position in `active` of the profiled residual variance, -1 for none

  std::int64_t count() const { return static_cast<std::int64_t>(active.size()); }
  double& at(std::int64_t i, std::int64_t j)
  {
    return i >= j ? ai[static_cast<std::size_t>(i * (i + 1) / 2 + j)] : ai[static_cast<std::size_t>(j * (j + 1) / 2 + i)];
  }
  double at(std::int64_t i, std::int64_t j) const { return const_cast<INFORMATION*>(this)->at(i, j); }
};

/// The same information with every parameter counted in its unit, so that no test of size depends on the units of the response.
INFORMATION in_units(INFORMATION information);

/// Folds the parameters that follow another one into their masters: with theta = M phi the score becomes M' s, the information
/// M' AI M.  A follower whose master takes no part leaves.
void fold_followers(const VARIANCE_MODEL& model, INFORMATION& information);

/// A parameter that left the step for want of information.
struct SINGULAR_PARAMETER {
  std::string label;
  std::vector<std::string> made_of{};  // labels of those that it cannot be told from together; none where they are many
  bool silent = false;                 // the likelihood does not change with it at all
};

/// What the update keeps between iterations.
struct UPDATE_STATE {
  double step = 1.0;               // the step size of the fit
  double saved_step = 1.0;         // what a reset goes back to
  double multiplier = 1.0;         // the last multiplier of the information's diagonal
  int shortening = 0;              // times that steps are halved since they lowered the LogL, see damp_steps
  int taken_with = 0;              // that of the last step
  int came_with = 0;               // that of the step before, which led to the present evaluation
  std::vector<double> reference;   // a reference value a parameter
  std::vector<double> last;        // the values before the present ones
  std::vector<double> moved;       // the last step, one a parameter, in units of that time
  std::vector<int> pulled;         // consecutive updates in which the rules pulled a variance towards zero or held a correlation near one
  std::vector<double> change;      // relative change that the last step would make
  double largest_change = 0.0;
  double expected_gain = 0.0;      // of LogL by the last step, by the quadratic model
  bool may_fix = true;             // LogL has settled so far that a correlation with little information is fixed for good
  bool growth_capped = false;      // a parameter wanted to grow by more than a step may: not at its optimum
  std::string first_singular;      // label of the first parameter that the residual may make up
  std::vector<SINGULAR_PARAMETER> singular;  // of the last information matrix
  std::vector<std::int64_t> told;  // correlations of which it was told that they are fixed
  SECANTS secants;
  std::vector<DEFINITE_ROW> definite;  // unstructured matrices whose step is kept in their space, where EM was not asked for
};

/// Halves the steps once more (a fall of LogL) or once less (a gain).
void damp_steps(bool fell, UPDATE_STATE& state);

/// K4MAII: the inverse of the information matrix over the parameters that have information, by its own pivot rule.
///   update      codes of dependent parameters become S; a count goes to AIOPT(36); false leaves codes alone
///   information in units; covariance  likewise, lower triangle over `active`, zero rows for parameters left out
///   used        one an active parameter: whether it takes part
void K4MAII(ERROR_HANDLER& eh, bool update, std::int64_t iteration, INFORMATION& information, VARIANCE_MODEL& model, AIOPT& aiopt,
            UPDATE_STATE& state, std::vector<double>& covariance, std::vector<std::uint8_t>& used);

/// K4MUPD: turns score and information into the next parameter values.
///   gain   LogL of this evaluation less that of the previous one, 0 on the first
void K4MUPD(ERROR_HANDLER& eh, std::int64_t iteration, double gain, INFORMATION information, VARIANCE_MODEL& model, AIOPT& aiopt,
            UPDATE_STATE& state);

}  // namespace tolvan
