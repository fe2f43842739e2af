// Dominance relationships of a pedigree and their inverses.  Routine: K4MVODPED.
#pragma once

#include <string>
#include <vector>

#include "api/error_handler.h"
#include "base/sparse_matrix.h"
#include "pedigree/check_pedigree.h"

namespace tolvan {

/// One of the matrices, as an inverse; terms of the model find it by its name.
struct DOMINANCE_MATRIX {
  std::string name;
  SPARSE_MTX_LLIST inverse;  // compressed by rows
  double logdet = 0.0;       // of the inverse
  std::int64_t empty = 0;    // its first rows, which have no element: genetic groups
  std::vector<std::string> labels;
};

/// K4MVODPED: forms the inverse of the dominance relationship matrix D of a plain pedigree, parents first.
///
/// D_ii = 1 and D_ij = (a_ss' a_dd' + a_sd' a_ds') / 4 for i from s and d and j from s' and d' (Cockerham
/// 1954, Genetics 39, 859-882), 0 where a parent is not known: no inbreeding is assumed.  All progeny of one
/// pair of parents share their row, so that with f the effects of the pairs and m what is left
///     d = W f + m,   var f = B, B_fg = D_ij for i of f and j of g,   var m_i = 1 - B_ff
/// (Hoeschele & VanRaden 1991, J. Dairy Sci. 74, 557-569); B_ff is 1/4 for unrelated parents that are not
/// inbred.  Pairs that are related, if only by way of others, make a dense block of the inverse.
///   labels  of the rows of the pedigree
///   parts   besides `Dominance`, D^-1, makes `BetFamInv`, B^-1 with the pairs s:d in the order of their
///           first progeny, and `DomWIfam`, the inverse of var m
void K4MVODPED(ERROR_HANDLER& eh, const PEDIGREE& pedigree, const std::vector<std::string>& labels,
               bool parts, std::vector<DOMINANCE_MATRIX>& out);

}  // namespace tolvan
