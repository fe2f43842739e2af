// The .veo file: the order in which the equations of a model were eliminated, for the next fit of that model.
// Routines: WRITE_EQUATION_ORDER, READ_EQUATION_ORDER.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "api/error_handler.h"
#include "model/term_table.h"

namespace tolvan {

/// The order of a fit's equations.
struct SAVED_ORDER {
  std::vector<std::int32_t> order;  // inner equation at each position; empty: none
  std::int64_t dense = 0;           // equations of the dense block, the last ones, in place
};

/// WRITE_EQUATION_ORDER: the file as bytes: mark, NEQ, NEQD, terms, code and equations a term, the order.
std::string WRITE_EQUATION_ORDER(const TERM_TABLE& terms, const SAVED_ORDER& order);
/// READ_EQUATION_ORDER: an order from the bytes of a file; false, and none, unless every number agrees with the model.
bool READ_EQUATION_ORDER(std::string_view bytes, const TERM_TABLE& terms, SAVED_ORDER& order);
/// Whether an order holds every equation once and leaves the dense ones last and in place.
bool is_order_of(const SAVED_ORDER& order, std::int64_t equations, std::int64_t dense);

}  // namespace tolvan
