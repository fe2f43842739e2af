// What an entry of marker_file asks for.  Routine: L_READ_MARKER_KEYS.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "api/error_handler.h"
#include "base/json.h"

namespace tolvan {

/// How a relationship matrix is formed of the markers.
enum class RelationshipMethod : std::int64_t {
  additive = 1,      // VanRaden (2008), method 1: columns centred, one divisor
  standardised = 2,  // VanRaden (2008), method 2: columns centred and scaled by their own variance
  dominance = 3,     // Vitezica, Varona and Legarra (2013)
};

/// What is taken off a column.
enum class Centring { by_method, means, value, none };

struct MARKER_KEYS {
  std::string name;  // of the matrix, and of its file unless `file` names another or several
  std::vector<std::string> files;  // at least one; the regressors of several, one a chromosome, follow each other
  // The files.
  std::int64_t markers = 0;      // regressors that are expected; 0: the header tells
  bool header = false;           // the first line holds names
  bool no_label = false;         // lines begin without the label of their genotype (nokey)
  std::int64_t columns_to_skip = 0;  // between the label and the regressors
  std::string genotype_column;   // by their names in the header: the column of the labels,
  std::string marker_column;     // and that of the markers' names where lines are not genotypes
  std::int64_t lines_to_skip = 0;
  std::vector<std::string> ids;       // the genotypes to use, in this order; empty: all
  std::int64_t from = 0, to = 0;      // the regressors to use, from 1; 0: all
  // The matrix.
  RelationshipMethod method = RelationshipMethod::additive;
  double divisor = 0.0;          // gscale; 0: by method and scale_mode
  std::int64_t scale_mode = 0;   // 0 by the method, 1 divided by the count of columns, 2 columns of unit variance
  Centring centring = Centring::by_method;
  double centre = 0.0;           // with Centring::value
  double offset = 0.0;           // more to take off than that
  double diagonal_offset = 0.0;  // mdfoffset
  std::string hadamard;          // the entry with whose matrix this one is multiplied; empty: none
  bool psd = false, nsd = false;
  std::int64_t precision = 0;
  std::int64_t save = 0;  // 1 the matrix, 2 its inverse, 3 both
  // Effects.
  bool fast_bayes = false;
  double bayes_df = 4.0;      // of the prior
  double bayes_offset = 0.0;  // more for each weight
  bool effects = false;       // rtmethod: marker effects after the fit
  bool pev = false;           // prediction error variances after the fit
};

/// L_READ_MARKER_KEYS: reads an entry of marker_file.
void L_READ_MARKER_KEYS(ERROR_HANDLER& eh, const JsonNode& entry, MARKER_KEYS& keys);

/// Whether a file is one of markers by its extension.
bool is_marker_file(std::string_view path);
/// Whether an extension, in lower case, is that of unformatted numbers, which may be markers, too.
bool is_unformatted(std::string_view extension);

}  // namespace tolvan
