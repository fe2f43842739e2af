// What the EM family of updates keeps during a fit.  Plain records; no routines.
#pragma once

#include <cstdint>
#include <vector>

namespace tolvan {

/// The unstructured rows that EM may serve, and how often it did.
struct EM_STATE {
  struct ROW {
    std::int64_t first = 0;      // parameter, from 0
    std::int64_t levels = 0;
    double units = 0.0;          // independent copies of the matrix: the product of the other components' sizes
    std::int64_t structure = -1; // in VARIANCE_MODEL::terms; -1: a row of the residual
    std::int64_t component = 0;  // of that term's product
  };
  std::vector<ROW> rows;         // empty when EM was turned off
  bool chosen = false;           // the user asked for it; else it stands in where the step can't be kept in the space
  bool expanded = true;          // PX-EM
  std::int64_t asked = 1;        // the option's value; 0: off
  std::int64_t used = 0;         // rows updated so far
};

}  // namespace tolvan
