// All results of one object: named tables and scalars, and how a caller reads them by output ID.
// Routines: OTST_ (store), OST_ (scalar).
//
// An output ID is a list of parts joined with ":".  Names compare without case and without trailing blanks.
// A first part "OPTIONAL" says that an absent output is no failure.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "api/error_handler.h"
#include "api/table.h"

namespace tolvan {

struct OUTPUT_SCALAR {
  std::string name;  // upper case
  ColumnType type = ColumnType::unknown;
  std::int64_t ival = 0;
  double rval = 0.0;
  std::string sval;  // of type json: a JSON text
};

/// Owns the tables and scalars; names are unique within each kind.  Addresses hold until the store is
/// cleared.
struct OUTPUT_TABLE_STORE {
  std::vector<std::unique_ptr<OUTPUT_TABLE>> tables;
  std::vector<std::unique_ptr<OUTPUT_SCALAR>> scalars;

  std::int64_t ntables() const { return static_cast<std::int64_t>(tables.size()); }
  std::int64_t nscalars() const { return static_cast<std::int64_t>(scalars.size()); }
  OUTPUT_TABLE& table(std::int64_t index) { return *tables[static_cast<std::size_t>(index - 1)]; }
  const OUTPUT_TABLE& table(std::int64_t index) const { return *tables[static_cast<std::size_t>(index - 1)]; }
  OUTPUT_SCALAR& scalar(std::int64_t index) { return *scalars[static_cast<std::size_t>(index - 1)]; }
  const OUTPUT_SCALAR& scalar(std::int64_t index) const
  {
    return *scalars[static_cast<std::size_t>(index - 1)];
  }
  /// Null if there is none of that name.
  OUTPUT_TABLE* find_table(std::string_view name);
  const OUTPUT_TABLE* find_table(std::string_view name) const;
  OUTPUT_SCALAR* find_scalar(std::string_view name);
  const OUTPUT_SCALAR* find_scalar(std::string_view name) const;
};

// Filling.

/// OTST_REGISTER_TABLE: creates an empty table and gives its index from 1; a name that is known already
/// starts afresh in its old place.  Fetch the record by store.table(index).
std::int64_t OTST_REGISTER_TABLE(ERROR_HANDLER& eh, OUTPUT_TABLE_STORE& store, std::string_view name,
                                 TableType type = TableType::table);
/// OTST_REGISTER_SCALAR: creates a scalar without value and gives its index from 1; a known name keeps its
/// place.
std::int64_t OTST_REGISTER_SCALAR(ERROR_HANDLER& eh, OUTPUT_TABLE_STORE& store, std::string_view name);
/// OTST_SAVE_SCALAR_INTEGER: stores an integer scalar, in place of an older one of that name.
void OTST_SAVE_SCALAR_INTEGER(ERROR_HANDLER& eh, OUTPUT_TABLE_STORE& store, std::string_view name,
                              std::int64_t value);
/// OTST_SAVE_SCALAR_REAL_WP: stores a real scalar, in place of an older one of that name.
void OTST_SAVE_SCALAR_REAL_WP(ERROR_HANDLER& eh, OUTPUT_TABLE_STORE& store, std::string_view name,
                              double value);
/// OTST_SAVE_SCALAR_STRING: stores a string scalar, in place of an older one of that name.
void OTST_SAVE_SCALAR_STRING(ERROR_HANDLER& eh, OUTPUT_TABLE_STORE& store, std::string_view name,
                             std::string_view value);
/// OTST_SAVE_JSON: stores a JSON text as a scalar of type json; a text that does not parse is refused.
void OTST_SAVE_JSON(ERROR_HANDLER& eh, OUTPUT_TABLE_STORE& store, std::string_view name,
                    std::string_view json);
/// OTST_CLEAR: empties the store.
void OTST_CLEAR(ERROR_HANDLER& eh, OUTPUT_TABLE_STORE& store);

// Reading as typed arrays.

/// What OTST_SQUASH_TABLE_DATA_ fills.  A null buffer (or a buffer without count) is absent: it has no
/// capacity test and receives nothing.  A count that is given is overwritten by what the output holds,
/// whether copied or not.
template <class Integer>
struct SQUASH_BUFFERS {
  double* reals = nullptr;
  std::int32_t* real_count = nullptr;
  Integer* integers = nullptr;
  std::int32_t* integer_count = nullptr;
  char* text = nullptr;
  std::int32_t* text_length = nullptr;
};
using SQUASH_BUFFERS_I4B = SQUASH_BUFFERS<std::int32_t>;
using SQUASH_BUFFERS_I8B = SQUASH_BUFFERS<std::int64_t>;

/// OTST_SQUASH_TABLE_DATA_I4B: copies a table or one of its columns into the caller's buffers, column after
/// column, integers narrowed to 32 bits (saturating).
///
/// Nothing at all is copied when the capacity of any given buffer is too small; that is no failure, the
/// counts tell what is needed.  Texts are joined with one blank into one text of m bytes, m not counting a
/// NUL: a buffer of more than m bytes gets the text and a NUL, one of exactly m bytes loses its last byte to
/// the NUL, an empty text writes nothing.
void OTST_SQUASH_TABLE_DATA_I4B(ERROR_HANDLER& eh, const OUTPUT_TABLE_STORE& store, std::string_view id,
                                const SQUASH_BUFFERS_I4B& buffers);
/// OTST_SQUASH_TABLE_DATA_I8B: the same with 64-bit integers.
void OTST_SQUASH_TABLE_DATA_I8B(ERROR_HANDLER& eh, const OUTPUT_TABLE_STORE& store, std::string_view id,
                                const SQUASH_BUFFERS_I8B& buffers);
/// OTT_SQUASH_TABLE_DATA_I4B: the same for a table in hand; column 0 means all columns.
void OTT_SQUASH_TABLE_DATA_I4B(ERROR_HANDLER& eh, const OUTPUT_TABLE& table, std::int64_t column,
                               const SQUASH_BUFFERS_I4B& buffers);
/// OTT_SQUASH_TABLE_DATA_I8B: the same for a table in hand, with 64-bit integers.
void OTT_SQUASH_TABLE_DATA_I8B(ERROR_HANDLER& eh, const OUTPUT_TABLE& table, std::int64_t column,
                               const SQUASH_BUFFERS_I8B& buffers);

/// OTST_OUTPUT_SCALAR: copies an integer scalar, narrowed to 32 bits (saturating), or a real scalar, by
/// output ID.
void OTST_OUTPUT_SCALAR(ERROR_HANDLER& eh, const OUTPUT_TABLE_STORE& store, std::string_view id,
                        std::int32_t* value);
void OTST_OUTPUT_SCALAR(ERROR_HANDLER& eh, const OUTPUT_TABLE_STORE& store, std::string_view id,
                        double* value);

// Reading as JSON.

/// OTST_OUTPUT_JSON: the document of an output ID: AVAILABLE_OUTPUT and AVAILABLE_OUTPUT_FULL (alone, with a
/// table, with a table and column), a table, its TITLES, FOOTNOTES or a column, a scalar.  Empty with a
/// message when there is none, empty without one if the ID is optional.  Other IDs of an object are answered
/// before this is asked.
std::string OTST_OUTPUT_JSON(ERROR_HANDLER& eh, const OUTPUT_TABLE_STORE& store, std::string_view id);
/// OTST_ADD_TO_JPTR: adds all tables, then all scalars, to an object node under their names.
void OTST_ADD_TO_JPTR(ERROR_HANDLER& eh, const OUTPUT_TABLE_STORE& store, JsonNode& parent,
                      TableValues values = TableValues::included);
/// OTST_TO_JSTR: the document of all tables, then all scalars.
std::string OTST_TO_JSTR(ERROR_HANDLER& eh, const OUTPUT_TABLE_STORE& store,
                         TableValues values = TableValues::included);
/// OST_ADD_TO_JPTR: adds a scalar, an object of type and value, to an object node under its name; false with
/// a message if it has no value.
bool OST_ADD_TO_JPTR(ERROR_HANDLER& eh, const OUTPUT_SCALAR& scalar, JsonNode& parent);
/// OST_ADD_VALUE_TO_JPTR: adds the value of a scalar to an object node under the key "value"; false with a
/// message if there is none.
bool OST_ADD_VALUE_TO_JPTR(ERROR_HANDLER& eh, const OUTPUT_SCALAR& scalar, JsonNode& parent);
/// OST_TO_JSTR: the document {"<scalar>":{...}}.
std::string OST_TO_JSTR(ERROR_HANDLER& eh, const OUTPUT_SCALAR& scalar);

// An output ID taken apart.
struct OUTPUT_ID {
  std::string full;                // as given, without OPTIONAL
  std::vector<std::string> parts;  // trailing blanks removed; at least one
  bool optional = false;
};
/// Splits an output ID at ":"; a first part OPTIONAL is taken off and noted.
OUTPUT_ID split_output_id(std::string_view id);

}  // namespace tolvan
