// Pedigrees that a fit takes from files.  Routines: AIPEDA, AIPSRT, AIPEDM, L_READ_PEDIGREE_LINES,
// L_TRIM_PEDIGREE, L_PEDSTRUCT, L_WRITE_SORTED_PEDIGREE, L_AIPEDA_WRITE_DIAGONAL_AINVERSE,
// L_AIPEDA_WRITE_GIV, L_AIPEDA_READ_PEDIGREE_INFO_FROM_FILE, L_AIPEDA_WRITE_PEDIGREE_INFO_TO_FILE.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "api/error_handler.h"
#include "base/json.h"
#include "pedigree/check_pedigree.h"
#include "pedigree/dominance.h"
#include "pedigree/form_ainverse.h"

namespace tolvan {

/// What an entry of pedigree_file asks for.
struct PEDIGREE_KEYS {
  std::string name;              // of the matrix, which model terms use
  std::string path;              // of the file, the name unless `file` tells another
  bool comma_separated = false;  // type ft_csv
  std::int64_t skip = 0;         // lines at the head
  std::int64_t skip_fields = 0;  // fields at the head of each line
  bool repeat = false;           // identities may come again with other parents: the first counts
  bool alpha = false;            // identities are names
  bool upper_case = false;       // names are folded
  std::int64_t method = 0;
  std::int64_t groups = 0;
  double group_offset = 0.0;  // diagonal of the groups
  bool sex_linked = false;    // field 4 is the sex
  bool grandsire = false;     // the second parent is the maternal grandsire
  bool inbred = false;        // base lines are inbred
  // Inbreeding of base lines; without `inbred` the level of individuals without parents, field 4 then being
  // the level of each.
  std::optional<double> level;
  double bee = 0.0;      // path coefficient of the second parent; 0: none
  double selfing = 0.0;  // rate where the second parent is not known
  bool sort = false;
  std::string trim;             // data file whose identities are kept, with their ancestors; empty: none
  bool write_diagonal = false;  // .aif
  std::int64_t write_giv = 0;   // 0, 1 or 2
  std::int64_t dominance = 0;   // 1: its relationships, 2: their parts between and within families too
  bool reduce = false;          // to the individuals with data

  /// Whether field 4 is a level.
  bool levels() const { return level.has_value() && !inbred && !sex_linked; }
};

/// One individual as its line tells it; names are codes of PEDIGREE_LINES::names, -1 where missing.
struct PEDIGREE_LINE {
  std::int32_t id = -1, male = -1, female = -1;
  double code = 0.0;      // field 4: sex or level
  std::int64_t line = 0;  // its number in the file
};

struct PEDIGREE_LINES {
  NAME_CODES names;
  std::vector<PEDIGREE_LINE> lines;
};

/// A pedigree ready for use in a fit.
struct FIT_PEDIGREE {
  std::string name;                 // the entry's, which model terms use
  std::vector<std::string> labels;  // of the rows
  PEDIGREE pedigree;
  AINVERSE inverse;
  std::vector<DOMINANCE_MATRIX> dominance;
  bool reduce = false;  // the relationship matrix to the individuals with data, once they are read
};

/// AIPEDA: reads the pedigrees of a request: an entry or an array of them.
void AIPEDA(ERROR_HANDLER& eh, const JsonNode& request, std::vector<FIT_PEDIGREE>& out);

/// L_READ_PEDIGREE_LINES: reads a file, an individual a line: identity, two parents, field 4 where it is
/// asked for.
///
/// Fields stand between commas or tabs, in free text between blanks too; what is left out is missing, as are
/// "0", "*", "NA" and "nan". A '#' at the head of a word begins a remark, "//" a line of remarks.
void L_READ_PEDIGREE_LINES(ERROR_HANDLER& eh, const PEDIGREE_KEYS& keys, PEDIGREE_LINES& out);

/// AIPSRT: checks the lines, lists parents without a line as base individuals, trims, and puts parents ahead
/// of their progeny where it is asked for.
void AIPSRT(ERROR_HANDLER& eh, const PEDIGREE_KEYS& keys, PEDIGREE_LINES& lines, PEDIGREE& out);

/// L_TRIM_PEDIGREE: keeps the individuals that a data file names in its first field, and their ancestors.
void L_TRIM_PEDIGREE(ERROR_HANDLER& eh, const PEDIGREE_KEYS& keys, PEDIGREE_LINES& lines, PEDIGREE& pedigree);

/// AIPEDM: forms the inverse of the relationship matrix by the breeding system that the keys tell.
void AIPEDM(ERROR_HANDLER& eh, const PEDIGREE_KEYS& keys, const PEDIGREE& pedigree, AINVERSE& out);

/// L_AIPEDA_READ_PEDIGREE_INFO_FROM_FILE: takes the sorted pedigree that an earlier run left in
/// `ainverse.bin` beside the file; false where there is none, or it was made of another file, from other
/// keys, or does not hold together.
///   inbreeding  as that run had it
bool L_AIPEDA_READ_PEDIGREE_INFO_FROM_FILE(ERROR_HANDLER& eh, const PEDIGREE_KEYS& keys, PEDIGREE& pedigree,
                                           std::vector<std::string>& labels,
                                           std::vector<double>& inbreeding);
/// L_AIPEDA_WRITE_PEDIGREE_INFO_TO_FILE: leaves a sorted pedigree there for runs to come; a folder that can
/// not be written is no fault.
void L_AIPEDA_WRITE_PEDIGREE_INFO_TO_FILE(ERROR_HANDLER& eh, const PEDIGREE_KEYS& keys,
                                          const PEDIGREE& pedigree, const std::vector<std::string>& labels,
                                          const std::vector<double>& inbreeding);

/// L_PEDSTRUCT: tells the size of a pedigree and its generations on both sides.
void L_PEDSTRUCT(ERROR_HANDLER& eh, const PEDIGREE& pedigree);

/// L_WRITE_SORTED_PEDIGREE: writes a sorted pedigree beside its file, parents and base individuals first.
void L_WRITE_SORTED_PEDIGREE(ERROR_HANDLER& eh, const PEDIGREE_KEYS& keys, const PEDIGREE& pedigree,
                             const std::vector<std::string>& labels);
/// L_AIPEDA_WRITE_DIAGONAL_AINVERSE: writes inbreeding and diagonal of the inverse of every individual to
/// root.aif.
void L_AIPEDA_WRITE_DIAGONAL_AINVERSE(ERROR_HANDLER& eh, const PEDIGREE_KEYS& keys, const FIT_PEDIGREE& p);
/// L_AIPEDA_WRITE_GIV: writes the inverse, and with 2 its within-family part, the shares of the groups and
/// the coded pedigree.
void L_AIPEDA_WRITE_GIV(ERROR_HANDLER& eh, const PEDIGREE_KEYS& keys, const FIT_PEDIGREE& p);

/// The breeding system that the keys tell.
BREEDING_RULES breeding_rules(const PEDIGREE_KEYS& keys);

}  // namespace tolvan
