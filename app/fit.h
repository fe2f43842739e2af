// tolvan fit: one request from its files to its report.
#pragma once

#include <string>
#include <vector>

#include "app/messages.h"
#include "app/problem.h"

namespace tolvan::driver {

struct FitArguments {
  std::string request;            // file of the request; "-" is standard input
  std::vector<std::string> data;  // name=file.csv
  bool json = false;
  std::string folder;  // for report files; empty: none are asked for
  std::string resume;  // a parameter file of an earlier fit to start from; empty: none
  std::string html;    // a page with the report; empty: none
  Talk talk = Talk::normal;
  int threads = 0;  // 0: the engine's choice
};

/// Tells on standard error why nothing was run; gives the exit code.
int refuse(const FitArguments& arguments, const Problem& problem);

/// Runs the fit; gives the exit code.
int fit(const FitArguments& arguments);

}  // namespace tolvan::driver
