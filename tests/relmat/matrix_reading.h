// Known matrices read through the entries of a request.
#pragma once

#include <string>
#include <utility>

#include "relmat/matrix_keys.h"
#include "support/checks.h"

namespace tolvan_test {

using namespace tolvan;

/// The matrix of an entry, and the messages of reading it.
struct Reading {
  ERROR_HANDLER eh;
  AINV_MTXS store;
  USER_DATASET_STORE datasets;
  GENOMIC_MODELS genomic;
  std::string messages;

  const AINV_MTX* read(const std::string& entry, const std::string& more = "{}")
  {
    JsonError error;
    auto request = parse_json(more, error);
    EXPECT_NE(request, nullptr) << more;
    auto list = parse_json(entry, error);
    EXPECT_NE(list, nullptr) << entry;
    list->name = "grm_file";
    request->add(std::move(list));
    HANDLE_GIV_GRM_MARKER_FILES(eh, *request, datasets, store, genomic);
    EXPECT_TRUE(eh.stack().entries.empty());
    messages = messages_text(eh);
    return eh.terminate() || store.matrices.empty() ? nullptr : &store.matrices.back();
  }
};

inline double element(const AINV_MTX& m, std::int64_t i, std::int64_t j)  // from 1
{
  const SYMMETRIC a = m.inverse();
  if (i < j) std::swap(i, j);
  if (a.shape == Shape::dense) return a.values[(i - 1) + (j - 1) * a.n];
  if (a.shape == Shape::diagonal) return i == j ? a.values[i - 1] : 0.0;
  for (std::int64_t k = a.start[j - 1]; k < a.start[j]; ++k) {
    if (a.row[k] == i - 1) return a.values[k];
  }
  return 0.0;
}

}  // namespace tolvan_test
