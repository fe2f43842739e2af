// The factor table: one row for each variable, reserved factor, derived factor and interaction component.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "model/design_basis.h"
#include "model/design_kinds.h"

namespace tolvan {

/// Kinds that are read with the terms (design_kinds.h has them all): a component of the structure of linked terms; the
/// condition of a residual section; a factor at one level.
inline constexpr std::int64_t kind_linked = 15, kind_section = 16, kind_at = 47;

/// Reserved factors stand behind the variables, in this order.
enum class Reserved { none, mu, units, trait, mv };

struct FACTOR_ROW {
  std::string name = {};
  std::int64_t kind = 0;  // design function, 0 for a plain variable; a DesignKind, whose table tells what the row holds
  std::int64_t source = 0;    // row from which it derives (a copy for an interaction included), 0 for none
  bool copy = false;          // a copy of its source, for an interaction or to carry a structure: same design, same levels
  std::int64_t variable = 0;  // variable whose column it reads, from 1; 0 for a reserved factor
  Reserved reserved = Reserved::none;
  bool is_factor = false;   // levels; false: a covariate with one equation
  std::int64_t levels = 0;  // 1 for a covariate and mu; set for data factors once the data are read
  std::vector<double> arguments = {};  // of the design function; of at() and sat() the level, of mtrn() phi, nu, delta, alpha
                                       // and lambda with no_value where none was given
  std::vector<std::string> labels = {};  // of its levels, where it is no variable and their numbers don't tell; not of a copy
  std::string user_facing_name = {};  // when it differs from the name
  std::string structure = {};         // variance function named on it ("idv"), empty for none
  std::vector<double> init = {};      // starting values given to that function
  std::int64_t order = 0;             // its k: bands, factors, order of antedependence; 0 when it has none
  std::int64_t second = 0;            // factor row of the second coordinate: of fac(x,y), of a model in two dimensions; 0 for none
  std::vector<double> dist = {};      // coordinates of the levels handed to it, empty for none
  std::string matrix = {};            // source named in vm(), ide() or ric(): a known matrix, its file or dataset
  std::int64_t matrix_rows = 0;       // of that matrix, once it is read: levels without data count too
  std::int64_t added_rows = 0;        // effects behind those of the levels that a singular matrix brings along
  std::int64_t binding_rows = 0;      // of fa() and rr(), behind the factors: equations that bind levels without a variance of
                                      // their own to them

  std::int64_t least_levels = 0;      // levels to have at least, so that factors joined by and() agree
  std::shared_ptr<const DESIGN_BASIS> basis = {};  // what the data tell of a design function; null in a copy

  DesignKind design_kind() const { return static_cast<DesignKind>(kind); }
  const std::string& shown() const { return user_facing_name.empty() ? name : user_facing_name; }
};

struct FACTOR_TABLE {
  std::vector<FACTOR_ROW> rows;
  std::int64_t count() const { return static_cast<std::int64_t>(rows.size()); }
  FACTOR_ROW& row(std::int64_t i) { return rows[static_cast<std::size_t>(i - 1)]; }
  const FACTOR_ROW& row(std::int64_t i) const { return rows[static_cast<std::size_t>(i - 1)]; }
  /// The row that a copy repeats; the row itself if it is none.
  std::int64_t original(std::int64_t i) const
  {
    while (row(i).copy) i = row(i).source;
    return i;
  }
};

}  // namespace tolvan
