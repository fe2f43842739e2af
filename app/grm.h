// tolvan grm: the relationship matrix of markers from their files.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "app/messages.h"

namespace tolvan::driver {

struct GrmArguments {
  std::vector<std::string> markers;  // files, one or one a chromosome
  int count = 0;                     // of the markers of a file; 0: the header tells
  bool header = false, no_label = false;
  int skip = 0, column_skip = 0;
  std::string label_column, marker_column;
  int method = 1;
  std::optional<double> centre, divisor, diagonal;
  int scale_mode = 0;
  std::string range;   // from:to
  std::string output;  // file for the matrix; empty: none
  bool json = false;
  Talk talk = Talk::normal;
};

/// Forms the matrix, prints what it is like, and writes it; gives the exit code.
int grm(const GrmArguments& arguments);

}  // namespace tolvan::driver
