// Routines: L_FORM_GRM, L_TELL_MARKERS, L_HADAMARD, GET_GENOMIC_MATRIX, GBLUPGIV, L_SAVE_GRM, L_SAVEGRMINVERSE.
#include "relmat/genomic_matrix.h"

#include <algorithm>
#include <cmath>

#include "base/lapack.h"
#include "base/memory.h"
#include "base/symmetric.h"
#include "base/text.h"
#include "data/request_values.h"
#include "model/request.h"
#include "data/entry_values.h"
#include "relmat/marker_columns.h"
#include "relmat/marker_effects.h"
#include "relmat/matrix_keys.h"

namespace tolvan {
namespace {

constexpr std::size_t means_shown = 10;

/// Sums over the columns as they come.
struct SUMS {
  double divisor = 0.0, means = 0.0;
  std::int64_t columns = 0;  // with a value
};

/// Adds what a column tells.
void add_column(const MARKER_KEYS& keys, const MARKER_COLUMN& column, std::int64_t genotypes, GENOMIC_SUMMARY& summary,
                SUMS& sums)
{
  summary.missing += column.missing;
  if (column.missing == genotypes) return;  // such a column tells nothing, and is left out
  const bool first = sums.columns++ == 0;
  summary.low = first ? column.low : std::min(summary.low, column.low);
  summary.high = first ? column.high : std::max(summary.high, column.high);
  summary.lowest_mean = first ? column.mean : std::min(summary.lowest_mean, column.mean);
  summary.highest_mean = first ? column.mean : std::max(summary.highest_mean, column.mean);
  sums.means += column.mean;
  if (summary.first_means.size() < means_shown) summary.first_means.push_back(column.mean);
  summary.sigma += column.expected;
  summary.sigma_squares += column.expected * column.expected;
  if (column.scale == 0.0) return;
  ++summary.used;
  if (keys.scale_mode != 0 || keys.method == RelationshipMethod::standardised) {
    sums.divisor += 1.0;
  } else {
    sums.divisor += keys.method == RelationshipMethod::dominance ? column.expected * column.expected : column.expected;
  }
}

/// Divides the lower triangle and copies it into the upper one.
void divide_and_mirror(std::int64_t n, double divisor, double* g)
{
  constexpr std::int64_t tile = 64;
  for (std::int64_t j0 = 0; j0 < n; j0 += tile) {
    for (std::int64_t i0 = j0; i0 < n; i0 += tile) {
      for (std::int64_t j = j0; j < std::min(j0 + tile, n); ++j) {
        for (std::int64_t i = std::max(i0, j); i < std::min(i0 + tile, n); ++i)
          g[j + i * n] = g[i + j * n] = g[i + j * n] / divisor;
      }
    }
  }
}

std::string shown(double x)
{
  return std::string(trim(edit(x, "G12.5")));
}

/// The entry of a name in a list of matrices; null if there is none.
const JsonNode* named_entry(const JsonNode& request, std::string_view list_key, std::string_view name)
{
  const JsonNode* list = given_value(request, list_key);
  if (list == nullptr) return nullptr;
  const auto is_it = [&](const JsonNode& entry) {
    const JsonNode* own = given_value(entry, "name");
    return own != nullptr && own->is_text(name);
  };
  if (!list->is(JsonType::array)) return is_it(*list) ? list : nullptr;
  if (list->packed()) return nullptr;
  for (const auto& entry : list->children()) {
    if (is_it(*entry)) return entry.get();
  }
  return nullptr;
}

/// L_MULTIPLY_BY_ENTRY: multiplies a matrix by that of another entry, or by itself.
void L_MULTIPLY_BY_ENTRY(ERROR_HANDLER& eh, const MARKER_KEYS& keys, const JsonNode& request, MATRIX_INPUT& matrix)
{
  const Frame here{eh, __func__};
  if (keys.hadamard == keys.name) return L_HADAMARD(eh, matrix, matrix);
  const JsonNode* entry = named_entry(request, "marker_file", keys.hadamard);
  if (entry == nullptr) {
    eh.error(text("there is no marker_file entry ", keys.hadamard, " to multiply the matrix ", keys.name, " by"));
    return;
  }
  if (given_value(*entry, "hadamard") != nullptr) {
    eh.error(text("the matrix ", keys.hadamard, " that ", keys.name, " is to be multiplied by is a product itself"));
    return;
  }
  GENOMIC_MODEL other;
  MATRIX_INPUT by;
  GET_GENOMIC_MATRIX(eh, *entry, request, other, by);
  if (!eh.terminate()) L_HADAMARD(eh, by, matrix);
}

/// L_GET_WEIGHTS: the weights that an earlier run left; the first has none.
void L_GET_WEIGHTS(ERROR_HANDLER& eh, GENOMIC_MODEL& model)
{
  const Frame here{eh, __func__};
  MARKER_KEYS& keys = model.keys;
  if (!keys.fast_bayes) return;
  if (keys.method == RelationshipMethod::dominance || !keys.hadamard.empty()) {
    eh.note("!DOM and !EPI qualifiers are ignored with \"Fast Bayes\" option");
    if (keys.method == RelationshipMethod::dominance) keys.method = RelationshipMethod::additive;
    keys.hadamard.clear();
  }
  std::vector<double> effects;
  L_READ_MEF(eh, without_extension(model.data.origin), model.data, effects);
  if (eh.terminate() || effects.empty()) return;
  fast_bayes_weights(keys.bayes_df, keys.bayes_offset, effects, model.weights);
}

/// L_TELL_SINGULAR: refuses to invert what is singular by the way it is formed, where rounding might let it pass.
void L_TELL_SINGULAR(ERROR_HANDLER& eh, const GENOMIC_MODEL& model)
{
  const Frame here{eh, __func__};
  const MARKER_KEYS& keys = model.keys;
  if (keys.psd || keys.nsd || keys.diagonal_offset != 0.0 || !keys.hadamard.empty()) return;
  const bool at_means = keys.offset == 0.0 &&
                        (keys.centring == Centring::means || (keys.centring == Centring::by_method &&
                                                              keys.method != RelationshipMethod::dominance));
  const std::int64_t rank = std::min(model.summary.used, model.data.genotypes - (at_means ? 1 : 0));
  if (rank >= model.data.genotypes) return;
  eh.error("the GRM matrix is not positive definite");
  eh.continuation(
      "use the positive semi definite or negative semi definite options to invoke a different inversion");
  eh.continuation(text("its rank is ", rank, " at most, for ", model.data.genotypes, " genotypes: ",
                       rank < model.summary.used ? "the regressors are centered at their means"
                                                 : "there are too few regressors",
                       "; mdfoffset adds to its diagonal"));
}

}  // namespace

void L_FORM_GRM(ERROR_HANDLER& eh, const MARKER_KEYS& keys, const MARKER_DATA& data,
                const std::vector<double>& weights, std::vector<double>& g, GENOMIC_SUMMARY& summary)
{
  const Frame here{eh, __func__};
  const std::int64_t n = data.genotypes;
  const std::int64_t r = data.regressors;
  if (keys.method == RelationshipMethod::dominance && (data.in_numbers() || !data.all_coded())) {
    eh.error(text("dominance needs markers coded 0, 1 and 2, those of ", data.origin, " are not"));
    return;
  }
  std::int64_t size = 0;
  std::int64_t room = 0;
  const std::int64_t block = columns_of_block(data);
  if (!fits_blas(n) || !multiply_sizes(n, n, size) || !multiply_sizes(n, block, room)) return eh.out_of_memory();
  std::vector<double> z;
  std::vector<std::uint8_t> bytes;
  std::vector<MARKER_COLUMN> columns;
  if (!assign(eh, g, size) || !assign(eh, z, room)) return;

  summary = {};
  SUMS sums;
  for (std::int64_t first = 0; first < r; first += block) {
    const std::int64_t count = std::min(block, r - first);
    if (!resize(eh, columns, count)) return;
    L_FILL_COLUMNS(eh, keys, data, first, columns, z.data(), bytes);
    if (eh.terminate()) return;
    for (std::int64_t j = 0; j < count; ++j) {
      add_column(keys, columns[static_cast<std::size_t>(j)], n, summary, sums);
      if (!weights.empty()) dscal(n, std::sqrt(weights[static_cast<std::size_t>(first + j)]), z.data() + j * n, 1);
    }
    dsyrk('L', 'N', n, count, 1.0, z.data(), n, 1.0, g.data(), n);
  }
  summary.average_mean = sums.columns > 0 ? sums.means / static_cast<double>(sums.columns) : 0.0;
  summary.divisor = keys.divisor > 0.0 ? keys.divisor : sums.divisor;
  if (!(summary.divisor > 0.0)) {
    eh.error(text("the GRM matrix scaling factor is 0, no regressor of ", data.origin, " varies"));
    return;
  }
  // No element is larger than the diagonals allow.
  bool finite = std::isfinite(summary.divisor);
  for (std::int64_t i = 0; i < n && finite; ++i) finite = std::isfinite(g[static_cast<std::size_t>(i + i * n)]);
  if (!finite) return eh.error(text("the regressors of ", data.origin, " are too large, their squares are not finite"));
  divide_and_mirror(n, summary.divisor, g.data());
}

void L_TELL_MARKERS(ERROR_HANDLER& eh, const MARKER_KEYS& keys, const MARKER_DATA& data,
                    const GENOMIC_SUMMARY& summary)
{
  const Frame here{eh, __func__};
  if (summary.missing > 0) {
    const double cells = static_cast<double>(data.genotypes) * static_cast<double>(data.regressors);
    eh.note(text(summary.missing, " missing Regressor values (",
                 trim(edit(100.0 * static_cast<double>(summary.missing) / cells, "F8.2")),
                 "%) replaced by column average"));
  }
  eh.note("Marker Means");
  std::string means;
  for (const double mean : summary.first_means) means += text(means.empty() ? "" : " ", shown(mean));
  if (std::ssize(summary.first_means) < data.regressors) means += " ...";
  eh.continuation(means);
  eh.note(text("regressor values ranged ", shown(summary.low), " to ", shown(summary.high), ", regressor Means ranged ",
               shown(summary.lowest_mean), " to ", shown(summary.highest_mean)));
  constexpr double near = 0.5;
  const bool dominance = keys.method == RelationshipMethod::dominance;
  const bool by_means = keys.centring == Centring::means || (keys.centring == Centring::by_method && !dominance);
  const double centre = keys.offset + (keys.centring == Centring::value ? keys.centre : 0.0);
  if (by_means && keys.offset == 0.0) {
    eh.note("regressors centered at their means");
  } else if (by_means) {
    eh.note(text("regressors centered at their means and ", shown(keys.offset)));
  } else if (keys.centring == Centring::value || keys.offset != 0.0) {
    eh.note(text("regressors centered at ", shown(centre)));
  }
  const double away = by_means ? keys.offset : centre - summary.average_mean;
  if (!dominance && std::abs(away) > near) eh.note("not centered near the regressor means");
  if (data.all_coded()) {
    eh.note(text("Sigma (2p(1-p)) is ", shown(summary.sigma)));
    eh.continuation(text("Sigma (2p(1-p))^2 is ", shown(summary.sigma_squares)));
  }
  if (summary.used < data.regressors)
    eh.note(text(data.regressors - summary.used, " regressors are left out, they do not vary or are missing throughout"));
  eh.note(text("GRM matrix scaling factor is ", shown(summary.divisor)));
}

void L_HADAMARD(ERROR_HANDLER& eh, const MATRIX_INPUT& by, MATRIX_INPUT& matrix)
{
  const Frame here{eh, __func__};
  if (by.order != matrix.order || by.labels != matrix.labels) {
    eh.error(text("the matrices from ", matrix.origin, " and ", by.origin, " can not be multiplied element by element"));
    eh.continuation(by.order != matrix.order ? text("they have ", matrix.order, " and ", by.order, " rows")
                                             : std::string("their labels are not the same in the same order"));
    return;
  }
  for (std::size_t k = 0; k < matrix.values.size(); ++k) matrix.values[k] *= by.values[k];
}

void GET_GENOMIC_MATRIX(ERROR_HANDLER& eh, const JsonNode& entry, const JsonNode& request, GENOMIC_MODEL& model,
                        MATRIX_INPUT& matrix)
{
  const Frame here{eh, __func__};
  MARKER_KEYS& keys = model.keys;
  keys = {};
  L_READ_MARKER_KEYS(eh, entry, keys);
  if (eh.terminate()) return;
  GETMARKERS(eh, keys, model.data);
  if (eh.terminate()) return;
  L_GET_WEIGHTS(eh, model);
  if (eh.terminate()) return;
  if (keys.effects && !keys.hadamard.empty()) {
    eh.error(text("effects of markers (rtmethod) can not be worked out for ", keys.name, ", a product of matrices"));
    return;
  }
  matrix.origin = model.data.origin;
  matrix.form = MatrixForm::dense;
  matrix.order = model.data.genotypes;
  if (!room_for_dense(eh, matrix.order, keys.psd || keys.nsd, matrix.values)) return;
  L_FORM_GRM(eh, keys, model.data, model.weights, matrix.values, model.summary);
  if (eh.terminate()) return;
  if (!attempt([&] { matrix.labels = model.data.labels; })) return eh.out_of_memory();
  L_TELL_MARKERS(eh, keys, model.data, model.summary);
  if (!keys.hadamard.empty()) L_MULTIPLY_BY_ENTRY(eh, keys, request, matrix);
  if (eh.terminate()) return;
  for (std::int64_t k = 0; k < matrix.order && keys.diagonal_offset != 0.0; ++k)
    matrix.values[static_cast<std::size_t>(k + k * matrix.order)] += keys.diagonal_offset;
}

void GBLUPGIV(ERROR_HANDLER& eh, const GENOMIC_MODEL& model, MATRIX_INPUT& matrix, AINV_MTX& out)
{
  const Frame here{eh, __func__};
  const MARKER_KEYS& keys = model.keys;
  L_TELL_SINGULAR(eh, model);
  if (eh.terminate()) return;
  out.origin = matrix.origin;
  out.markers = true;
  out.labels = std::move(matrix.labels);
  if ((keys.save & 1) != 0) L_SAVE_GRM(eh, matrix);
  if (eh.terminate()) return;
  MATRIX_KEYS inversion;
  inversion.name = keys.name;
  inversion.psd = keys.psd;
  inversion.nsd = keys.nsd;
  inversion.precision = keys.precision;
  L_GETGIV_INVERT(eh, inversion, matrix, out);
  if (eh.terminate()) return;
  AMTX_FINISH_OFF(eh, out);
  if (!eh.terminate() && (keys.save & 2) != 0) L_SAVEGRMINVERSE(eh, out);
}

void L_SAVE_GRM(ERROR_HANDLER& eh, MATRIX_INPUT& matrix)
{
  const Frame here{eh, __func__};
  AINV_MTX direct;
  direct.origin = matrix.origin;
  direct.shape = Shape::dense;
  direct.order = matrix.order;
  direct.values.swap(matrix.values);
  L_SAVEMAT(eh, direct, ".dgrm");
  direct.values.swap(matrix.values);
}

void L_SAVEGRMINVERSE(ERROR_HANDLER& eh, const AINV_MTX& inverse)
{
  const Frame here{eh, __func__};
  L_SAVEMAT(eh, inverse);
}

}  // namespace tolvan
