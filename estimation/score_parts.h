// What the scores of a direct product's parameters are summed from, component by component.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "estimation/update_parameters.h"
#include "varstruct/form_structures.h"
#include "varstruct/parameter_table.h"

namespace tolvan {

/// The sums S_c of one product, laid out as each component's inverse.  Buffers are kept from one product to the next.
struct SCORE_PARTS {
  std::vector<double*> sums;  // one a component; null where no parameter of it is active

  /// Makes room for the components that have active parameters; false when none has.
  bool prepare(const COMPONENTS& components, const std::vector<STRUCTURE_ROW>& rows, std::int64_t first_row,
               const INFORMATION& information)
  {
    storage_.resize(std::max(storage_.size(), components.size()));
    sums.assign(components.size(), nullptr);
    first_.assign(components.size(), 0);
    bool any = false;
    for (std::size_t c = 0; c < components.size(); ++c) {
      const STRUCTURE_ROW& row = rows[static_cast<std::size_t>(first_row) + c];
      first_[c] = row.first;
      const auto& active = information.active;
      const auto at = std::lower_bound(active.begin(), active.end(), row.first);
      if (row.parameters == 0 || at == active.end() || *at >= row.first + row.parameters) continue;
      storage_[c].assign(static_cast<std::size_t>(components[c]->inverse().stored()), 0.0);
      sums[c] = storage_[c].data();
      any = true;
    }
    return any;
  }

  /// How many sums there are in all.
  std::size_t stored() const
  {
    std::size_t all = 0;
    for (std::size_t c = 0; c < sums.size(); ++c) all += sums[c] != nullptr ? storage_[c].size() : 0;
    return all;
  }

  /// Adds sums prepared for the same product.
  void add(const SCORE_PARTS& other)
  {
    for (std::size_t c = 0; c < sums.size(); ++c) {
      if (sums[c] == nullptr) continue;
      for (std::size_t i = 0; i < storage_[c].size(); ++i) storage_[c][i] += other.storage_[c][i];
    }
  }

  /// Adds -0.5 (size/n_c d log|R_c| - S_c dRi) of every active parameter to its score; by scales S_c.
  void add_scores(const COMPONENTS& components, std::int64_t size, double by, INFORMATION& information)
  {
    for (std::size_t c = 0; c < components.size(); ++c) {
      if (sums[c] == nullptr) continue;
      const std::vector<double>& part = components[c]->score_part();
      contracted_.assign(part.size(), 0.0);
      components[c]->contract(sums[c], contracted_.data());
      double copies = static_cast<double>(size) / static_cast<double>(components[c]->inverse().n);
      for (std::size_t k = 0; k < components.size(); ++k) {
        if (k != c) copies *= static_cast<double>(components[k]->counted()) / static_cast<double>(components[k]->inverse().n);
      }
      for (std::size_t i = 0; i < part.size(); ++i) {
        const auto& active = information.active;
        const std::int64_t parameter = first_[c] + static_cast<std::int64_t>(i);
        const auto at = std::lower_bound(active.begin(), active.end(), parameter);
        if (at == active.end() || *at != parameter) continue;
        information.score[static_cast<std::size_t>(at - active.begin())] += -0.5 * (copies * part[i] - by * contracted_[i]);
      }
    }
  }

 private:
  std::vector<std::vector<double>> storage_;
  std::vector<std::int64_t> first_;
  std::vector<double> contracted_;
};

}  // namespace tolvan
