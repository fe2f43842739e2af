// The coefficient matrix of a fit as a file.  Routines: WRITE_CMAT, WRITE_CMAT_TEXT.
#pragma once

#include <string>

#include "api/error_handler.h"
#include "estimation/equations.h"

namespace tolvan {

/// WRITE_CMAT: writes C of the last evaluation: the bytes "TLVCMAT1", the number of equations, the number of elements, then for
/// each element its row, its column and its value.  Little-endian, integers of 64 bits and doubles; the lower triangle by rows, in
/// the equations of the model from 1, zeros of the pattern included.  A file that can not be written is an error; where the
/// equations were solved without C a warning says so.
void WRITE_CMAT(ERROR_HANDLER& eh, const MIXED_EQUATIONS& equations, const std::string& name);
/// WRITE_CMAT_TEXT: the same for reading: row, column and value of an element on each line.
void WRITE_CMAT_TEXT(ERROR_HANDLER& eh, const MIXED_EQUATIONS& equations, const std::string& name);

}  // namespace tolvan
