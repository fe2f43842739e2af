// Where a matrix comes from: HANDLE_GIV_GRM_MARKER_FILES, GETGIV.
#include <algorithm>
#include <array>

#include "base/files.h"
#include "base/memory.h"
#include "base/text.h"
#include "data/request_values.h"
#include "model/request.h"
#include "relmat/matrix_keys.h"

namespace tolvan {
namespace {

constexpr std::array kinds = {
    MATRIX_KIND{"giv", true, Coding_of_file::text},
    MATRIX_KIND{"bgiv", true, Coding_of_file::single_precision},
    MATRIX_KIND{"sgiv", true, Coding_of_file::single_precision},
    MATRIX_KIND{"dgiv", true, Coding_of_file::double_precision},
    MATRIX_KIND{"grm", false, Coding_of_file::text},
    MATRIX_KIND{"bgrm", false, Coding_of_file::single_precision},
    MATRIX_KIND{"sgrm", false, Coding_of_file::single_precision},
    MATRIX_KIND{"dgrm", false, Coding_of_file::double_precision},
};
constexpr std::array marker_extensions = {"mkr", "mat", "grr"};

/// The extension of a file name in lower case, empty for none.
std::string extension_of(std::string_view path)
{
  const std::size_t at = path.find_last_of("./");
  return at == std::string_view::npos || path[at] == '/' ? std::string() : lower(path.substr(at + 1));
}

/// A switch that may be a logical, a number or a text: on for anything but false, 0, "" and their spellings.
bool is_on(const JsonNode& entry, std::string_view key)
{
  const JsonNode* node = given_value(entry, key);
  if (node == nullptr) return false;
  if (node->is(JsonType::string)) {
    const std::string word = lower(trim(node->text()));
    return !word.empty() && word != "false" && word != "0";
  }
  return node->is(JsonType::logical) ? node->logical() : node->is_number() && node->number() != 0.0;
}

/// L_COUNT_UNDER: the integer of a key, at least 0 unless negative values are allowed; 0 without the key.
std::int64_t L_COUNT_UNDER(ERROR_HANDLER& eh, const JsonNode& entry, std::string_view key,
                           bool negative = false)
{
  const Frame here{eh, __func__};
  const JsonNode* node = given_value(entry, key);
  if (node == nullptr) return 0;
  if (node->is(JsonType::logical)) return node->logical() ? 1 : 0;
  if (node->is(JsonType::integer) && (negative || node->integer() >= 0)) return node->integer();
  REPORT_JSON_ERROR(eh, *node, {negative ? "an integer" : "an integer of at least 0"});
  return 0;
}

/// L_READ_MATRIX_KEYS: reads an entry of grm_file.
void L_READ_MATRIX_KEYS(ERROR_HANDLER& eh, const JsonNode& entry, MATRIX_KEYS& keys)
{
  const Frame here{eh, __func__};
  const JsonNode* name = given_value(entry, "name");
  if (name == nullptr) {
    REPORT_JSON_ERROR(eh, entry, "name");
    return;
  }
  if (!name->is(JsonType::string) || is_blank(name->text())) {
    REPORT_JSON_ERROR(eh, *name, {"the name of a file or a dataset"});
    return;
  }
  keys.name = name->text();
  if (const JsonNode* type = given_value(entry, "type")) keys.type = type->text();
  keys.skip = L_COUNT_UNDER(eh, entry, "skip");
  keys.dense = is_on(entry, "dense");
  keys.psd = is_on(entry, "psd");
  keys.nsd = is_on(entry, "nsd");
  keys.groups = L_COUNT_UNDER(eh, entry, "group");
  keys.save = is_on(entry, "savegiv");
  keys.null_singular = is_on(entry, "nullsing");
  keys.no_null = is_on(entry, "nonull");
  keys.add = L_COUNT_UNDER(eh, entry, "add");
  keys.precision = L_COUNT_UNDER(eh, entry, "precision", true);
  keys.invert = is_on(entry, "invert");
  if (const JsonNode* ldet = given_value(entry, "ldet")) {
    if (ldet->is_number()) {
      keys.log_determinant = ldet->number();
    } else {
      REPORT_JSON_ERROR(eh, *ldet, {"a real number"});
    }
  }
}

/// L_FIND_FILE: the file of a name, which may lack its extension, and its kind; null with a message if there
/// is none.
const MATRIX_KIND* L_FIND_FILE(ERROR_HANDLER& eh, const std::string& name, std::string& path)
{
  const Frame here{eh, __func__};
  const std::string extension = extension_of(name);
  path = name;
  if (extension.empty()) {
    const auto* found = std::find_if(kinds.begin(), kinds.end(), [&](const MATRIX_KIND& each) {
      return file_exists(text(name, ".", each.extension));
    });
    if (found != kinds.end()) {
      path = text(name, ".", found->extension);
      return found;
    }
    eh.error(text("unable to open file ", name), Ecode::io_error);
    eh.continuation("or find a matching giv or grm file");
    return nullptr;
  }
  const auto* found = std::find_if(kinds.begin(), kinds.end(),
                                   [&](const MATRIX_KIND& each) { return each.extension == extension; });
  if (found != kinds.end()) return found;
  if (std::find(marker_extensions.begin(), marker_extensions.end(), extension) != marker_extensions.end()) {
    eh.not_implemented(text("marker files are not implemented: ", name));
  } else if (extension == "rgrm") {
    eh.error(text("was not expecting a .rgrm extension on ", name));
  } else {
    eh.error(text("unexpected extension on file ", name,
                  " was expecting one of: giv, bgiv, sgiv, dgiv, grm, bgrm, sgrm, dgrm, mkr, mat or grr"));
  }
  return nullptr;
}

/// L_READ_FROM_FILE: reads the file of an entry; gives whether it holds an inverse.
bool L_READ_FROM_FILE(ERROR_HANDLER& eh, const MATRIX_KEYS& keys, MATRIX_INPUT& in)
{
  const Frame here{eh, __func__};
  const MATRIX_KIND* kind = L_FIND_FILE(eh, keys.name, in.origin);
  if (kind == nullptr) return false;
  const std::string path = in.origin;
  if (kind->coding == Coding_of_file::text) {
    L_READ_TEXT_MATRIX(eh, path, kind->name(), keys.skip, in);
  } else {
    L_READ_BINARY_MATRIX(eh, path, kind->coding, in);
  }
  return kind->inverse && !keys.invert;
}

/// L_READ_FROM_DATASET: takes the matrix that was handed in under the name of an entry.
void L_READ_FROM_DATASET(ERROR_HANDLER& eh, const MATRIX_KEYS& keys, const JsonNode& request,
                         const USER_DATASET_STORE& datasets, MATRIX_INPUT& in)
{
  const Frame here{eh, __func__};
  in.origin = keys.name;
  DATASET_VIEW view;
  for (const JsonNode* each : dataset_descriptions(eh, request)) {
    const JsonNode* name = given_value(*each, "name");
    if (name == nullptr || !name->is_text(keys.name)) continue;
    UDST_BIND(eh, datasets, *each, view);
    if (eh.terminate()) return;
  }
  if (view.data == nullptr) view.data = datasets.find(keys.name);
  if (view.data == nullptr) {
    eh.error(text("no data were supplied for dataset ", keys.name));
    return;
  }
  const std::int64_t columns =
      view.info.number_of_variables > 0 ? view.info.number_of_variables : view.data->columns;
  constexpr std::int64_t columns_of_elements = 3;
  if (columns == columns_of_elements && !keys.dense) {
    L_COPY_SPARSE_FROM_UDSTORE(eh, view, in);
  } else {
    L_COPY_DENSE_FROM_UDSTORE(eh, view, in);
  }
}

}  // namespace

void make_dense(ERROR_HANDLER& eh, MATRIX_INPUT& matrix)
{
  const std::int64_t n = matrix.order;
  if (matrix.form == MatrixForm::dense) return;
  std::vector<double> full;
  std::int64_t size = 0;
  if (!multiply_sizes(n, n, size) || !assign(eh, full, size)) {
    if (!eh.terminate()) eh.out_of_memory();
    return;
  }
  if (matrix.form == MatrixForm::diagonal) {
    for (std::int64_t k = 0; k < n; ++k)
      full[static_cast<std::size_t>(k + k * n)] = matrix.values[static_cast<std::size_t>(k)];
  } else {
    for (std::size_t k = 0; k < matrix.values.size(); ++k) {
      const std::int64_t i = matrix.row[k] - 1;
      const std::int64_t j = matrix.column[k] - 1;
      full[static_cast<std::size_t>(i + j * n)] = full[static_cast<std::size_t>(j + i * n)] =
          matrix.values[k];
    }
  }
  matrix.values = std::move(full);
  std::vector<std::int32_t>().swap(matrix.row);
  std::vector<std::int32_t>().swap(matrix.column);
  matrix.form = MatrixForm::dense;
}

void GETGIV(ERROR_HANDLER& eh, const JsonNode& entry, const JsonNode& request,
            const USER_DATASET_STORE& datasets, AINV_MTXS& store)
{
  const Frame here{eh, __func__};
  MATRIX_KEYS keys;
  L_READ_MATRIX_KEYS(eh, entry, keys);
  if (eh.terminate()) return;
  AINV_MTX* out = AMTXS_EMPTY_POS(eh, store, keys.name);
  if (out == nullptr) return;
  MATRIX_INPUT in;
  bool inverse = !keys.invert;
  if (keys.type == "ft_data") {
    L_READ_FROM_DATASET(eh, keys, request, datasets, in);
  } else {
    inverse = L_READ_FROM_FILE(eh, keys, in);
  }
  if (eh.terminate()) return;
  if (keys.log_determinant) in.log_determinant = keys.log_determinant;
  if (keys.groups > 0) in.groups = keys.groups;
  if (in.groups > in.order) {
    eh.error(text("the matrix from ", in.origin, " has fewer rows (", in.order, ") than genetic groups (",
                  in.groups, ")"));
    return;
  }
  out->origin = in.origin;
  out->groups = in.groups;
  out->labels = std::move(in.labels);
  if (in.groups > 0) eh.note(text("genetic fixed groups declared in GIV matrix: ", in.groups));
  if (inverse) {
    L_GETGIV_ALREADY_INVERSE(eh, keys, in, *out);
  } else {
    L_GETGIV_INVERT(eh, keys, in, *out);
  }
  if (eh.terminate()) return;
  AMTX_FINISH_OFF(eh, *out);
  if (!eh.terminate() && keys.save) L_SAVEMAT(eh, *out);
}

void HANDLE_GIV_GRM_MARKER_FILES(ERROR_HANDLER& eh, const JsonNode& request,
                                 const USER_DATASET_STORE& datasets, AINV_MTXS& store)
{
  const Frame here{eh, __func__};
  const JsonNode* list = given_value(request, "grm_file");
  if (list == nullptr) return;
  const auto one = [&](const JsonNode& entry) {
    if (entry.is(JsonType::object)) {
      GETGIV(eh, entry, request, datasets, store);
    } else {
      REPORT_JSON_ERROR(eh, entry, {"an object that describes a matrix"});
    }
  };
  if (!list->is(JsonType::array)) return one(*list);
  if (list->packed() && list->size() > 0) return REPORT_JSON_ERROR(eh, *list, {"an array of objects"});
  for (const auto& entry : list->children()) {
    one(*entry);
    if (eh.terminate()) return;
  }
}

}  // namespace tolvan
