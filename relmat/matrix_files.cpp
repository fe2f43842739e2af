// Where a matrix comes from: HANDLE_GIV_GRM_MARKER_FILES, GETGIV, READ_MARKER_COVARIATES.
#include <algorithm>
#include <array>

#include "base/files.h"
#include "base/memory.h"
#include "base/text.h"
#include "data/request_values.h"
#include "model/request.h"
#include "data/entry_values.h"
#include "relmat/marker_columns.h"
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
  keys.name = keys.path = name->text();
  if (const std::string file = L_TEXT_UNDER(eh, entry, "file"); !is_blank(file)) keys.path = file;
  if (const JsonNode* type = given_value(entry, "type")) keys.type = type->text();
  for (const char* key : {"dense", "psd", "nsd", "savegiv", "nullsing", "nonull", "invert"}) {
    const JsonNode* node = given_value(entry, key);
    if (node != nullptr && (node->is(JsonType::array) || node->is(JsonType::object)))
      REPORT_JSON_ERROR(eh, *node, {"a logical", "an integer"});
  }
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
  if (extension == "rgrm") {
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
  const MATRIX_KIND* kind = L_FIND_FILE(eh, keys.path, in.origin);
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

/// The entries of a list that may also be one of them.
std::vector<const JsonNode*> entries_of(const JsonNode& list)
{
  std::vector<const JsonNode*> entries;
  if (!list.is(JsonType::array)) {
    entries.push_back(&list);
  } else if (!list.packed()) {
    for (const auto& entry : list.children()) entries.push_back(entry.get());
  }
  return entries;
}

/// The entry of marker_file of a name, null if there is none.
const JsonNode* marker_entry(const JsonNode& request, std::string_view name)
{
  const JsonNode* list = given_value(request, "marker_file");
  if (list == nullptr) return nullptr;
  for (const JsonNode* entry : entries_of(*list)) {
    const JsonNode* own = given_value(*entry, "name");
    if (own != nullptr && own->is_text(name)) return entry;
  }
  return nullptr;
}

/// Whether an entry is one of markers: by its list, or by its file, which wins.
bool is_of_markers(const JsonNode& entry)
{
  const JsonNode* type = given_value(entry, "type");
  const JsonNode* name = given_value(entry, "name");
  const JsonNode* file = given_value(entry, "file");
  if (type != nullptr && type->is_text("ft_data")) return false;
  if (file != nullptr && file->is(JsonType::array) && !file->packed() && file->size() > 0)
    file = file->children().front().get();
  if (file != nullptr && file->is(JsonType::string)) name = file;
  const std::string path = name != nullptr && name->is(JsonType::string) ? name->text() : std::string();
  if (is_marker_file(path)) return true;
  // Without an extension the list tells: the name of the entry or of the array around it.
  const JsonNode* list = entry.parent() != nullptr && entry.name.empty() ? entry.parent() : &entry;
  if (list->name != "marker_file") return false;
  const std::string extension = extension_of(path);
  return extension.empty() || (is_unformatted(extension) && given_value(entry, "markers") != nullptr);
}

/// Whether markers are asked for as covariates and by no term as a matrix.
bool only_covariates(const JsonNode& request, const JsonNode& entry)
{
  const JsonNode* list = given_value(request, "mbf");
  const JsonNode* name = given_value(entry, "name");
  if (list == nullptr || name == nullptr || !name->is(JsonType::string) || given_value(entry, "giv") != nullptr) return false;
  if (!is_of_markers(entry)) return false;
  const std::vector<const JsonNode*> definitions = entries_of(*list);
  return std::any_of(definitions.begin(), definitions.end(), [&](const JsonNode* definition) {
    const JsonNode* file = given_value(*definition, "file");
    return file != nullptr && file->is_text(name->text());
  });
}

/// L_GET_MARKER_MATRIX: forms the relationship matrix of markers and inverts it.
void L_GET_MARKER_MATRIX(ERROR_HANDLER& eh, const JsonNode& entry, const JsonNode& request, AINV_MTXS& store,
                         GENOMIC_MODELS& genomic)
{
  const Frame here{eh, __func__};
  GENOMIC_MODEL model;
  MATRIX_INPUT in;
  GET_GENOMIC_MATRIX(eh, entry, request, model, in);
  if (eh.terminate()) return;
  if (const JsonNode* ldet = given_value(entry, "ldet"); ldet != nullptr && ldet->is_number())
    in.log_determinant = ldet->number();
  AINV_MTX* out = AMTXS_EMPTY_POS(eh, store, model.keys.name);
  if (out == nullptr) return;
  GBLUPGIV(eh, model, in, *out);
  if (eh.terminate() || !(model.keys.effects || model.keys.pev)) return;
  if (!attempt([&] { genomic.models.push_back(std::move(model)); })) eh.out_of_memory();
}

/// L_READ_COVARIATES: takes markers as they are, missing ones replaced.
void L_READ_COVARIATES(ERROR_HANDLER& eh, const MARKER_KEYS& keys, COVARIATE_TABLE& table)
{
  const Frame here{eh, __func__};
  MARKER_DATA data;
  GETMARKERS(eh, keys, data);
  if (eh.terminate()) return;
  L_FILL_COVARIATES(eh, data, table.values);
  if (eh.terminate()) return;
  table.columns = data.regressors;
  const bool room = attempt([&] {
    for (std::int64_t k = 1; k <= data.genotypes && data.labels.empty(); ++k) table.keys.push_back(text(k));
    if (!data.labels.empty()) table.keys = std::move(data.labels);
    for (std::int64_t j = 0; j < data.regressors; ++j) table.names.push_back(data.name(j));
  });
  if (!room) eh.out_of_memory();
}

}  // namespace

void make_dense(ERROR_HANDLER& eh, MATRIX_INPUT& matrix)
{
  const std::int64_t n = matrix.order;
  if (matrix.form == MatrixForm::dense) return;
  std::vector<double> full;
  if (!room_for_dense(eh, n, matrix.may_grow, full) || !assign(eh, full, n * n)) return;
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
            const USER_DATASET_STORE& datasets, AINV_MTXS& store, GENOMIC_MODELS& genomic)
{
  const Frame here{eh, __func__};
  if (is_of_markers(entry)) return L_GET_MARKER_MATRIX(eh, entry, request, store, genomic);
  MATRIX_KEYS keys;
  L_READ_MATRIX_KEYS(eh, entry, keys);
  if (eh.terminate()) return;
  AINV_MTX* out = AMTXS_EMPTY_POS(eh, store, keys.name);
  if (out == nullptr) return;
  MATRIX_INPUT in;
  in.may_grow = keys.psd || keys.nsd;
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
                                 const USER_DATASET_STORE& datasets, AINV_MTXS& store, GENOMIC_MODELS& genomic)
{
  const Frame here{eh, __func__};
  for (const char* key : {"grm_file", "marker_file"}) {
    const JsonNode* list = given_value(request, key);
    if (list == nullptr) continue;
    if (list->is(JsonType::array) && list->packed() && list->size() > 0) {
      REPORT_JSON_ERROR(eh, *list, {"an array of objects"});
      return;
    }
    for (const JsonNode* entry : entries_of(*list)) {
      if (!entry->is(JsonType::object)) {
        REPORT_JSON_ERROR(eh, *entry, {"an object that describes a matrix"});
      } else if (!only_covariates(request, *entry)) {
        GETGIV(eh, *entry, request, datasets, store, genomic);
      }
      if (eh.terminate()) return;
    }
  }
}

void READ_MARKER_COVARIATES(ERROR_HANDLER& eh, const JsonNode& request, COVARIATE_TABLES& tables)
{
  const Frame here{eh, __func__};
  const JsonNode* list = given_value(request, "mbf");
  if (list == nullptr) return;
  for (const JsonNode* definition : entries_of(*list)) {
    const JsonNode* file = given_value(*definition, "file");
    if (file == nullptr || !file->is(JsonType::string)) continue;
    const JsonNode* entry = marker_entry(request, file->text());
    if (entry == nullptr && !is_marker_file(file->text())) continue;
    if (find_table(tables, file->text()) != nullptr) continue;
    MARKER_KEYS keys;
    if (entry != nullptr) {
      L_READ_MARKER_KEYS(eh, *entry, keys);
    } else {
      keys.name = file->text();
      keys.files = {keys.name};
      keys.markers = L_COUNT_UNDER(eh, *definition, "columns");
      keys.lines_to_skip = L_COUNT_UNDER(eh, *definition, "skip");
    }
    if (eh.terminate()) return;
    COVARIATE_TABLE table{.file = file->text()};
    L_READ_COVARIATES(eh, keys, table);
    if (eh.terminate()) return eh.continuation("issue processing the mbf information");
    tables.push_back(std::move(table));
  }
}

}  // namespace tolvan
