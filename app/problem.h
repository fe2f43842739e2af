// What stops a command: the exit code and the words for the user.
#pragma once

#include <string>

namespace tolvan::driver {

enum class Exit {
  converged = 0,
  fit_failed = 1,
  usage = 2,
  bad_input = 3,
  not_converged = 4,
  cancelled = 5,
  out_of_resources = 6,
};

struct Problem {
  Exit exit = Exit::bad_input;
  std::string text;  // empty: there is no problem
  explicit operator bool() const { return !text.empty(); }
};

}  // namespace tolvan::driver
