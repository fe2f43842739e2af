// The request as the engine gets it: the user's document with the command line worked in.
#pragma once

#include <string>
#include <vector>

#include "app/dataset.h"
#include "app/fit.h"

namespace tolvan::driver {

struct Request {
  std::string name;  // of its file
  std::string document;
  std::string title;
  std::vector<Matrix> matrices;
  std::string narration;  // choices that were made for the user, a line each
};

/// Reads the request and its CSV files.  A document that is no JSON object is handed on as it is: the engine
/// says what is wrong with it.
Problem prepare_request(const FitArguments& arguments, Request& out);

}  // namespace tolvan::driver
