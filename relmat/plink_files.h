// Genotypes of two bits each in a .bed file, with their markers in .bim and their individuals in .fam.
// Routines: L_OPEN_PLINK_FILES, L_READ_BED_COLUMNS.
#pragma once

#include <cstdint>
#include <string>

#include "api/error_handler.h"
#include "base/files.h"
#include "relmat/marker_keys.h"

namespace tolvan {

struct MARKER_DATA;

/// An open .bed file: 3 bytes that name the kind and the order, then a column of codes a marker.
struct BED_FILE {
  FileHandle file;
  std::string path;
};

/// L_OPEN_PLINK_FILES: reads the individuals and the names of the markers, and checks the size and the first bytes of
/// the .bed file.
void L_OPEN_PLINK_FILES(ERROR_HANDLER& eh, const MARKER_KEYS& keys, const std::string& path, MARKER_DATA& out);

/// L_READ_BED_COLUMNS: reads the columns of count markers from a marker (from 0 in the file) on.
///   to   count columns of as many bytes as the individuals of the file need
void L_READ_BED_COLUMNS(ERROR_HANDLER& eh, const MARKER_DATA& data, std::int64_t first, std::int64_t count,
                        std::uint8_t* to);

}  // namespace tolvan
