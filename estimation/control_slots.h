// The control vector of a fit: 64-bit integers, one named slot a line; the numbers are those of the engine's listings.
#pragma once

#include <array>
#include <cstdint>

namespace tolvan {

enum class Ai : int {
  first_run = 1,              // set once before the loop
  final_required = 3,         // below zero: a final pass is required after convergence
  mode = 5,                   // evaluation mode: 0 normal, else solutions at the given parameters
  us_modified = 10,           // unstructured matrices modified by the update
  restrained = 23,            // restrained updates in this step; halved in the convergence test
  boundary = 25,              // parameters noted at a boundary
  ai_singularities = 36,
  step_thousandths = 37,      // 1000 times the multiplier applied to the step
  penalty = 39,               // damping number of the information matrix, -1 for none
  held_out = 48,              // parameter held out of the update, 1-based, 0 for none
  outliers = 51,              // level of outlier statistics: above 1 they are formed
  final_pass = 52,            // 1 during the final iteration
  falls = 55,                 // consecutive iterations in which LogL fell
  threads = 57,
  count_ = 70
};

struct AIOPT {
  std::array<std::int64_t, static_cast<std::size_t>(Ai::count_)> slots{};
  std::int64_t operator()(Ai s) const { return slots[static_cast<std::size_t>(s)]; }
  std::int64_t& operator()(Ai s) { return slots[static_cast<std::size_t>(s)]; }
};

}  // namespace tolvan
