// A pedigree as it comes in and as it is worked with; its checks and its order.
// Routines: GET_UNIQUE_VALS, CHKPED, SORTPED.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "api/error_handler.h"
#include "pedigree/name_codes.h"

namespace tolvan {

/// The texts that stand for a parent who is not known, besides a blank and "0"; compared exactly, without the
/// blanks around.
class MISSING_TEXTS {
 public:
  bool contains(std::string_view name) const;
  void add(std::string_view name);

 private:
  std::vector<std::string> texts_ = {"NA", "nan"};
};

/// The columns of a pedigree as they were given, row by row.
struct PEDIGREE_COLUMNS {
  NAME_CODES names;
  std::vector<std::int32_t> id, male, female;  // codes of names, no_name where missing
  std::vector<double> sex;                     // 0 male, 1 female; empty: not given
  std::vector<double> level;                   // selfing generations or inbreeding; empty: not given
  static constexpr std::int32_t no_name = -1;
  std::int64_t rows() const { return static_cast<std::int64_t>(id.size()); }
};

/// A pedigree whose parents are all listed.  Rows count from 1; the genetic groups are the first.
struct PEDIGREE {
  std::vector<std::int32_t> id;            // code of the name of each row
  std::vector<std::int32_t> male, female;  // rows of the parents, 0 where not known
  std::vector<double> sex, level;          // as in PEDIGREE_COLUMNS
  std::int64_t groups = 0;
  std::int64_t rows() const { return static_cast<std::int64_t>(id.size()); }
};

/// The highest level of selfing or inbreeding; its message tells another.
inline constexpr double highest_level = 999.0;

struct PEDIGREE_FLAGS {
  bool grandsire = false;  // the second parent column holds the maternal grandsire
  bool sort = true;
  std::int64_t groups = 0;    // the first rows are genetic groups
  double parent_level = 0.0;  // the level of parents that get a row of their own
};

/// GET_UNIQUE_VALS: the distinct names among some values, in order of first appearance, without missing ones.
///   number of names is that of the codes; unique is overwritten
void GET_UNIQUE_VALS(ERROR_HANDLER& eh, std::span<const std::int32_t> values, std::int64_t names,
                     std::vector<std::int32_t>& unique);

/// CHKPED: checks a pedigree, gives parents without a row one ahead of all others, and sorts it if asked.
///
/// All complaints of one group of rules come together; the rows they name are those of the input, from 1.
/// While one stands, out is not to be used.
void CHKPED(ERROR_HANDLER& eh, const PEDIGREE_COLUMNS& columns, const PEDIGREE_FLAGS& flags, PEDIGREE& out);

/// SORTPED: puts every row behind its parents: a row that stands before one moves directly behind the later
/// of them.
///
/// All others keep their order.  A note names the rows moved; a loop in the parentage is an error that names
/// its members.
void SORTPED(ERROR_HANDLER& eh, const NAME_CODES& names, PEDIGREE& pedigree);

}  // namespace tolvan
