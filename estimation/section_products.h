// Cross-products of the design within residual sections whose R is a scaled identity: they never change during a fit.
#pragma once

#include <cstdint>
#include <vector>

#include "data/design_matrix.h"
#include "varstruct/form_structures.h"

namespace tolvan {

struct MIXED_EQUATIONS;

/// W_s'R0_s^-1 W_s of the sections s with R_s = v_s R0_s, R0_s = diag(1/weight), on the pattern of C and by its columns.
struct SECTION_PRODUCTS {
  struct ELEMENT {
    std::int32_t section;
    std::int32_t at;  // in its column of C
    double value;
  };
  std::vector<std::uint8_t> formed;     // a section each: whether its products are here; empty when none are
  std::vector<std::uint8_t> of_record;  // a record each: whether its section's products are here
  std::vector<std::int64_t> start;      // by columns of C
  std::vector<ELEMENT> elements;

  bool has(std::size_t section) const { return !formed.empty() && formed[section] != 0; }
  bool has_record(std::size_t record) const { return !of_record.empty() && of_record[record] != 0; }
  /// Whether no section is left that changes otherwise.
  bool all() const;
};

/// Forms them, once a fit, for equations with a factor.  Where the sections' records have nearly all of their products by themselves
/// nothing is gained: then none are kept.
void form_section_products(const DESIGN_MTX& design, const FORMED& formed, MIXED_EQUATIONS& equations);

/// tr(C^-1 W_s'R0_s^-1 W_s) of every section, 0 for those whose products are not here; inverse aligned with C.
std::vector<double> traces_by_section(const MIXED_EQUATIONS& equations, const std::vector<double>& inverse, int threads);

}  // namespace tolvan
