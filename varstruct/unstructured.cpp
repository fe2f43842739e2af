// The unstructured covariance matrix and its mending.  Routine: ADJUST.
#include <algorithm>
#include <cmath>
#include <string>

#include "base/memory.h"
#include "base/numbers.h"
#include "base/packed.h"
#include "base/text.h"
#include "varstruct/covariance_models.h"
#include "varstruct/dense_covariance.h"
#include "varstruct/followers.h"
#include "varstruct/form_row.h"
#include "varstruct/mend_matrix.h"

namespace tolvan {

namespace {

constexpr double pivot_tolerance =
    wide(0.00001F);  // of the diagonal: the least share that the levels before leave unexplained
constexpr double least_eigenvalue = 5e-5;  // that correlations are raised to
constexpr double diagonal_increase = wide(1.1F);
constexpr double diagonal_floor = wide(0.001F);
constexpr double covariance_shrink = wide(0.55F);
constexpr int attempts = 10;
constexpr int most_halvings = 100;  // of the covariances of a start
constexpr std::size_t elements_told = 6;

class UNSTRUCTURED : public DENSE_COVARIANCE {
 public:
  Formed form(FORM_CONTEXT& context) override;

 private:
  /// How an attempt to mend turned the matrix out.
  enum class Way { none, weakened, halved, repeated, bent };

  Way ADJUST(FORM_CONTEXT& context, std::int64_t minor);
  Way weaken_all(const VARIANCE_MODEL& model, const STRUCTURE_ROW& row);
  Way L_REPEAT(ERROR_HANDLER& eh, const VARIANCE_MODEL& model, const STRUCTURE_ROW& row,
               std::vector<std::int64_t>& marked, std::int64_t minor);
  std::int64_t try_values(double tolerance);
  void keep_ties(const VARIANCE_MODEL& model, const STRUCTURE_ROW& row);
  std::int64_t row_count() const { return static_cast<std::int64_t>(v_.size()); }
  double distance() const;

  std::vector<double> v_;         // the packed elements as they are tried
  std::vector<double> proposed_;  // as they were given
  std::vector<double>
      accepted_;  // the last ones that were positive definite as given or mended; empty: none yet
};

/// Inverts the elements at hand: 0, or the leading minor at fault.
std::int64_t UNSTRUCTURED::try_values(double tolerance)
{
  const PackedSymmetric<const double> v{v_};
  for (std::int64_t j = 0; j < n(); ++j) {
    for (std::int64_t i = 0; i < n(); ++i) r(i, j) = v(i + 1, j + 1);
  }
  return invert(tolerance);
}

/// A fixed element stays what it was, a follower follows its master.
void UNSTRUCTURED::keep_ties(const VARIANCE_MODEL& model, const STRUCTURE_ROW& row)
{
  for (std::size_t k = 0; k < v_.size(); ++k) {
    const VARIANCE_PARAMETER& p = model.parameters[static_cast<std::size_t>(row.first) + k];
    if (p.constraint == Constraint::F) v_[k] = proposed_[k];
  }
  for (std::size_t k = 0; k < v_.size(); ++k) {
    const VARIANCE_PARAMETER& p = model.parameters[static_cast<std::size_t>(row.first) + k];
    if (!follows(p)) continue;
    double value = 0.0;
    bool here = true;
    for (const PARAMETER_SHARE& share : made_of(model, row.first + static_cast<std::int64_t>(k))) {
      const std::int64_t of = share.of - row.first;
      here = here && of >= 0 && of < static_cast<std::int64_t>(v_.size());
      if (here) value += share.by * v_[static_cast<std::size_t>(of)];
    }
    v_[k] = here ? value : proposed_[k];
  }
}

/// How far the elements at hand are from those given, on the scale of the correlations as given: a sum of
/// squares.
double UNSTRUCTURED::distance() const
{
  const PackedLower<const double> v{v_}, given{proposed_};
  const auto scale = [&](std::int64_t i) { return given(i, i) > 0.0 ? given(i, i) : v(i, i); };
  double sum = 0.0;
  for (std::int64_t i = 1; i <= inverse_.n; ++i) {
    for (std::int64_t j = 1; j <= i; ++j) {
      const double d = v(i, j) - given(i, j);
      sum += (i == j ? 1.0 : 2.0) * d * d / (scale(i) * scale(j));
    }
  }
  return sum;
}

/// L_REPEAT: raises the variances of the levels at fault and shrinks their covariances, until the matrix is
/// sound.
UNSTRUCTURED::Way UNSTRUCTURED::L_REPEAT(ERROR_HANDLER& eh, const VARIANCE_MODEL& model,
                                         const STRUCTURE_ROW& row, std::vector<std::int64_t>& marked,
                                         std::int64_t minor)
{
  const Frame here{eh, __func__};
  const PackedSymmetric<double> v{v_};
  for (int k = 0; k < attempts; ++k) {
    if (std::find(marked.begin(), marked.end(), minor - 1) == marked.end() &&
        !attempt([&] { marked.push_back(minor - 1); })) {
      eh.out_of_memory();
      return Way::none;
    }
    for (const std::int64_t level : marked) {
      const std::int64_t i = level + 1;
      v(i, i) = std::max(v(i, i) * diagonal_increase, diagonal_floor);
      for (std::int64_t j = 1; j <= n(); ++j) {
        if (j != i) v(i, j) *= covariance_shrink;
      }
    }
    keep_ties(model, row);
    minor = try_values(pivot_tolerance);
    if (minor == 0) return Way::repeated;
  }
  return Way::none;
}

/// Halves all covariances as given until the matrix is sound: a start far out of the space.
UNSTRUCTURED::Way UNSTRUCTURED::weaken_all(const VARIANCE_MODEL& model, const STRUCTURE_ROW& row)
{
  std::copy(proposed_.begin(), proposed_.end(), v_.begin());
  const PackedSymmetric<double> v{v_};
  for (int k = 0; k < most_halvings; ++k) {
    for (std::int64_t i = 2; i <= n(); ++i) {
      for (std::int64_t j = 1; j < i; ++j) v(i, j) *= 0.5;
    }
    keep_ties(model, row);
    if (try_values(pivot_tolerance) == 0) return Way::weakened;
  }
  return Way::none;
}

/// ADJUST: makes the matrix at hand positive definite, by the mildest way that serves.  Three are tried, and
/// the one that stays nearest to the matrix as given, on the scale of correlations, is taken:
///   - the covariances of the level at fault are weakened;
///   - half way back to the last good matrix;
///   - eigenvalues of the correlations are raised to a floor, or bent if the option says so.
/// If none of them serves: levels at fault get higher variances and lower covariances, again and again.
UNSTRUCTURED::Way UNSTRUCTURED::ADJUST(FORM_CONTEXT& context, std::int64_t minor)
{
  ERROR_HANDLER& eh = context.eh;
  const Frame here{eh, __func__};
  const VARIANCE_MODEL& model = context.model;
  std::vector<std::int64_t> marked;
  std::vector<double> best, weakened;
  Way taken = Way::none;
  double nearest = 0.0;
  if (!resize(eh, best, row_count()) || !resize(eh, weakened, row_count())) return Way::none;
  const auto consider = [&](Way way) {
    keep_ties(model, context.row);
    const std::int64_t at_fault = try_values(pivot_tolerance);
    if (at_fault != 0) return at_fault;
    const double d = distance();
    if (taken == Way::none || d < nearest) {
      nearest = d;
      taken = way;
      std::copy(v_.begin(), v_.end(), best.begin());
    }
    return at_fault;
  };

  std::int64_t faults = 0;
  Mended status = Mended::refused;
  K4MVUS(eh, v_, n(), faults, marked, 0, 0.0, context.bend, status);
  if (eh.terminate()) return Way::none;
  if (status == Mended::yes) minor = consider(Way::weakened);
  std::copy(v_.begin(), v_.end(), weakened.begin());
  if (context.iteration == 1) {
    // A starting matrix at the edge of its space is no place to begin from: covariances are weakened until it is well inside.
    if (taken == Way::weakened) return try_values(pivot_tolerance) == 0 ? taken : Way::none;
    const Way way = L_REPEAT(eh, model, context.row, marked, minor);
    return way == Way::none && !eh.terminate() ? weaken_all(model, context.row) : way;
  }
  if (accepted_.size() == v_.size()) {
    for (std::size_t k = 0; k < v_.size(); ++k) v_[k] = 0.5 * (accepted_[k] + proposed_[k]);
    consider(Way::halved);
  }
  std::copy(proposed_.begin(), proposed_.end(), v_.begin());
  if (context.bend != 0.0) {
    faults = -1;
    K4MVUS(eh, v_, n(), faults, marked, 0, 0.0, context.bend, status);
    if (status != Mended::refused) consider(Way::bent);
  } else if (floor_eigenvalues(eh, v_, n(), least_eigenvalue)) {
    consider(Way::bent);
  }
  if (eh.terminate()) return Way::none;
  if (taken != Way::none) {
    std::copy(best.begin(), best.end(), v_.begin());
    return try_values(pivot_tolerance) == 0 ? taken : Way::none;
  }
  std::copy(weakened.begin(), weakened.end(), v_.begin());
  return L_REPEAT(eh, model, context.row, marked, minor);
}

Formed UNSTRUCTURED::form(FORM_CONTEXT& context)
{
  ERROR_HANDLER& eh = context.eh;
  const Frame here{eh, __func__};
  const STRUCTURE_ROW& row = context.row;
  const std::int64_t levels = row.size;
  if (!check_row_size(eh, row, packed_size(levels))) return Formed::in_handler;
  if (!make_room(eh, levels, row.parameters, 0)) return Formed::in_handler;
  if (!resize(eh, v_, row.parameters) || !resize(eh, proposed_, row.parameters)) return Formed::in_handler;
  VARIANCE_PARAMETER* theta = context.model.parameters.data() + row.first;
  for (std::size_t k = 0; k < v_.size(); ++k) v_[k] = proposed_[k] = theta[k].value;

  const std::int64_t minor = try_values(pivot_tolerance);
  if (minor != 0) {
    const Way way = ADJUST(context, minor);
    if (eh.terminate()) return Formed::in_handler;
    eh.warning("US matrix is not positive definite!");
    if (way == Way::none) return Formed::in_handler;
    std::string begins;
    for (std::size_t k = 0; k < std::min(v_.size(), elements_told); ++k) begins += edit_g(v_[k], 12, 3);
    eh.continuation(
        text("Modified NPD matrix in structure ", term_of_row(row, context.model), " begins: ", begins));
    if (way == Way::halved)
      eh.continuation(text("NonPosDef US matrix modified at iteration ", context.iteration));
    for (std::size_t k = 0; k < v_.size(); ++k) theta[k].value = v_[k];
    ++context.model.modified;
  }
  if (!attempt([&] { accepted_ = v_; })) {
    eh.out_of_memory();
    return Formed::in_handler;
  }

  // dV/dv_ij = e_i e_j' + e_j e_i', or e_i e_i' on the diagonal
  std::size_t k = 0;
  for (std::int64_t i = 0; i < levels; ++i) {
    for (std::int64_t j = 0; j <= i; ++j) derivatives_[k++] = {.i = i, .c = j, .factor = i == j ? 0.5 : 1.0};
  }
  finish();
  return Formed::done;
}

}  // namespace

std::unique_ptr<COMPONENT_MATRIX> make_unstructured(const STRUCTURE_ROW&, const VARIANCE_MODEL&)
{
  return std::make_unique<UNSTRUCTURED>();
}

std::string_view term_of_row(const STRUCTURE_ROW& row, const VARIANCE_MODEL& model)
{
  if (row.first < 0 || row.first >= model.count()) return {};
  const std::string_view label = model.parameters[static_cast<std::size_t>(row.first)].label;
  return label.substr(0, label.find(';'));
}

}  // namespace tolvan
