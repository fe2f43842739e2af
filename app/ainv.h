// tolvan ainv: the inverse of a pedigree's relationship matrix from a table of comma-separated text.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "app/messages.h"

namespace tolvan::driver {

struct AinvArguments {
  std::string pedigree;  // file; "-" is standard input
  // Columns by the names of their headers, or by their numbers from 1.
  std::string id = "1", male = "2", female = "3";
  std::string sex, fgen;   // empty: none
  bool no_header = false;  // the first line is an individual
  bool grandsire = false;
  std::optional<double> selfing, inbreeding, group_offset;
  int groups = 0;
  std::string missing;  // a text for a missing parent
  std::string output;   // file for the inverse; empty: none
  bool json = false;
  Talk talk = Talk::normal;
};

/// Forms the inverse, prints what it is like, and writes it; gives the exit code.
int ainv(const AinvArguments& arguments);

}  // namespace tolvan::driver
