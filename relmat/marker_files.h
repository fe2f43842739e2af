// Tables of markers, regressors by genotype, and the files that they come from.
// Routines: GETMARKERS, L_MATCH_GENOTYPES, L_READ_MARKER_TEXT, L_READ_MARKER_RECORDS, L_SELECT_GENOTYPES.
#pragma once

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <string>
#include <vector>

#include "api/error_handler.h"
#include "relmat/marker_keys.h"
#include "relmat/plink_files.h"

namespace tolvan {

/// A table of markers in one of three forms: codes of 2 bits in memory, the same in their file, or numbers.
///
/// Codes stand by columns, 4 genotypes a byte, the first in the lowest bits; every column begins with a byte of
/// its own.  They are those of .bed files: 0 two copies of the allele, 1 missing, 2 one copy, 3 none.
struct MARKER_DATA {
  std::string origin;               // file, for messages
  std::int64_t genotypes = 0;       // in use
  std::int64_t regressors = 0;      // in use
  std::vector<std::string> labels;  // of the genotypes in use; empty: they are numbered
  std::vector<std::string> names;   // of the regressors in use; empty: they are numbered
  bool coded = false;               // the own table's are counts of an allele: 0, 1, 2 or, where they are estimated, between

  std::vector<std::uint8_t> codes;
  BED_FILE bed;
  std::int64_t first_column = 0;    // of that file, in use; all columns in memory are
  std::vector<double> values;       // genotype i, regressor j (from 0) at i row_step + j column_step; NaN: missing
  std::int64_t row_step = 0, column_step = 0;
  std::int64_t source_genotypes = 0;
  std::vector<std::int64_t> rows;   // of the source, in use, in their order; empty: all
  // Tables of further files, without any of their own, with the same genotypes in the same order: their regressors
  // follow and count in `regressors` and `names`.
  std::vector<MARKER_DATA> further;

  bool in_numbers() const
  {
    return !values.empty() || std::any_of(further.begin(), further.end(), [](const MARKER_DATA& m) { return m.in_numbers(); });
  }
  bool all_coded() const
  {
    return coded && std::all_of(further.begin(), further.end(), [](const MARKER_DATA& m) { return m.coded; });
  }
  std::int64_t own_regressors() const
  {
    return std::accumulate(further.begin(), further.end(), regressors,
                           [](std::int64_t left, const MARKER_DATA& m) { return left - m.regressors; });
  }
  std::int64_t column_bytes() const { return (source_genotypes + 3) / 4; }
  std::string name(std::int64_t j) const
  {
    return names.empty() ? std::to_string(j + 1) : names[static_cast<std::size_t>(j)];
  }
};

inline constexpr std::uint8_t two_copies = 0, missing_code = 1, one_copy = 2, no_copy = 3;

/// GETMARKERS: reads the files of markers of an entry, of any kind: grr, mkr, mat, bed with its bim and fam, or the
/// unformatted bgrm, sgrm and dgrm.
///
/// The columns of a .bed file stay there; they are read as they are needed.  Several files hold the same genotypes; where
/// their order is another the labels match them.
void GETMARKERS(ERROR_HANDLER& eh, const MARKER_KEYS& keys, MARKER_DATA& out);

/// L_READ_MARKER_TEXT: reads a text file, as a rule a line a genotype: its label, then the regressors, between
/// blanks or commas.
///
/// Nothing, NA, na, * and a point are missing.  A table of 0, 1 and 2, in which -1 and 9 are missing too, is
/// one of counts, unless its codes are -1, 0 and 1; so is any file of the kind mkr, whose values outside 0 to 2
/// are missing.
void L_READ_MARKER_TEXT(ERROR_HANDLER& eh, const MARKER_KEYS& keys, const std::string& path, MARKER_DATA& out);

/// L_READ_MARKER_RECORDS: reads an unformatted file of the extension of a matrix: the regressors of a genotype a record,
/// without labels.  NaN and the mark of missing data are missing.
void L_READ_MARKER_RECORDS(ERROR_HANDLER& eh, const MARKER_KEYS& keys, const std::string& path, MARKER_DATA& out);

/// L_MATCH_GENOTYPES: brings the genotypes of a further file into the order of the first; all must be in both.
void L_MATCH_GENOTYPES(ERROR_HANDLER& eh, const MARKER_DATA& first, MARKER_DATA& other);

/// L_SELECT_GENOTYPES: restricts a table to the genotypes that the keys name, in their order.
///   lines   of the genotypes in their file, for messages; the same label twice is an error
void L_SELECT_GENOTYPES(ERROR_HANDLER& eh, const MARKER_KEYS& keys, const std::string& path,
                        const std::vector<std::int64_t>& lines, MARKER_DATA& out);

}  // namespace tolvan
