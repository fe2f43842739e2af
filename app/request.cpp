#include "app/request.h"

#include <algorithm>
#include <climits>
#include <filesystem>
#include <set>

#include "app/csv_file.h"
#include "app/files.h"
#include "app/json_value.h"

namespace tolvan::driver {
namespace {

Problem set_options(const FitArguments& arguments, Json& request)
{
  if (arguments.folder.empty() && arguments.resume.empty() && arguments.threads == 0) return {};
  Json* options = request.find("options");
  if (!options) options = &request.set("options", json_object());
  if (!options->is(JsonKind::object))
    return {Exit::bad_input, arguments.request + ": options is not an object"};
  if (arguments.threads > 0) options->set("maximum_number_of_threads", json_integer(arguments.threads));
  const std::string stem = arguments.request == "-" ? "tolvan" : std::filesystem::path(arguments.request).stem().string();
  if (!arguments.resume.empty()) {
    options->set("continue", json_string(arguments.resume));
    if (!options->find("tmp_file_root")) options->set("tmp_file_root", json_string(stem));
  }
  if (arguments.folder.empty()) return {};
  std::error_code error;
  std::filesystem::create_directories(arguments.folder, error);
  if (error) {
    return {Exit::out_of_resources, "unable to make the folder " + arguments.folder + ": " + error.message()};
  }
  options->set("outfolder", json_string(arguments.folder));
  if (!options->find("tmp_file_root")) options->set("tmp_file_root", json_string(stem));
  return {};
}

/// Calls for each object of a list of the request that may also be its only entry.
template <class Work>
void each_entry(Json& request, const char* key, Work&& work)
{
  Json* list = request.find(key);
  if (list == nullptr) return;
  const auto at = [&](Json& entry) {
    if (entry.is(JsonKind::object)) work(entry);
  };
  if (list->is(JsonKind::object)) at(*list);
  if (list->is(JsonKind::array)) std::for_each(list->items.begin(), list->items.end(), at);
}

/// All files of the request are named as seen from it, wherever the driver is started.  The name of a matrix stays: model
/// terms use it.
void find_files(const FitArguments& arguments, Json& request)
{
  const auto seen = [&](const std::string& name) { return json_string(beside(arguments.request, name)); };
  const auto set_seen = [&](Json& entry, const char* key) {
    if (const Json* name = entry.string_at(key)) entry.set(key, seen(name->text));
  };
  if (Json* file = request.find("data_file")) set_seen(*file, "name");
  std::set<std::string> markers;
  each_entry(request, "marker_file", [&](Json& entry) {
    if (const Json* name = entry.string_at("name")) markers.insert(name->text);
  });
  for (const char* list : {"marker_file", "grm_file", "pedigree_file"}) {
    each_entry(request, list, [&](Json& entry) {
      const Json* type = entry.string_at("type");
      if (type != nullptr && type->text == "ft_data") return;
      set_seen(entry, "trim");
      Json* file = entry.find("file");
      const Json* name = entry.string_at("name");
      if (file != nullptr && file->is(JsonKind::array)) {
        for (Json& each : file->items) {
          if (each.is(JsonKind::string)) each.text = beside(arguments.request, each.text);
        }
      } else if (file != nullptr) {
        set_seen(entry, "file");
      } else if (name != nullptr) {
        entry.set("file", seen(name->text));
      }
    });
  }
  each_entry(request, "mbf", [&](Json& entry) {  // a definition may name markers by their entry
    const Json* file = entry.string_at("file");
    if (file != nullptr && !markers.contains(file->text)) set_seen(entry, "file");
  });
}

/// The part of name=file.csv before its sign.
std::string dataset_name(const std::string& item) { return item.substr(0, item.find('=')); }

/// Without this, a name that is no dataset's would stand beside the described one, which stays without data.
Problem check_dataset_names(const FitArguments& arguments, const Json& request)
{
  if (arguments.data.empty()) return {};
  std::vector<std::string> described;
  const auto describe = [&described](const Json& entry) {
    if (const Json* name = entry.string_at("name")) described.push_back(name->text);
  };
  for (const Json& each : request.items) {
    if (each.name != "dataset") continue;
    if (each.is(JsonKind::object)) describe(each);
    if (each.is(JsonKind::array)) std::for_each(each.items.begin(), each.items.end(), describe);
  }
  std::string unknown, without;
  for (const std::string& item : arguments.data) {
    if (item.find('=') == std::string::npos) return {};  // told where the files are read
    const std::string name = dataset_name(item);
    if (unknown.empty() && std::find(described.begin(), described.end(), name) == described.end()) unknown = name;
  }
  for (const std::string& name : described) {
    const bool given = std::any_of(arguments.data.begin(), arguments.data.end(),
                                   [&name](const std::string& item) { return dataset_name(item) == name; });
    if (without.empty() && !given) without = name;
  }
  if (unknown.empty() || without.empty()) return {};
  return {Exit::bad_input, "no CSV file was given for the dataset " + without +
                               ", and no dataset entry of the request is called " + unknown};
}

Problem add_datasets(const FitArguments& arguments, Json& request, Request& out)
{
  std::set<std::string> names;
  for (const std::string& item : arguments.data) {
    const std::size_t equals = item.find('=');
    if (equals == 0 || equals == std::string::npos || equals + 1 == item.size()) {
      return {Exit::usage, "--data needs name=file.csv, not " + item};
    }
    const std::string name = item.substr(0, equals);
    if (!names.insert(name).second) return {Exit::usage, "--data names the dataset " + name + " twice"};
    CsvFile file;
    if (Problem p = read_csv(item.substr(equals + 1), file)) return p;
    if (Problem p = add_dataset(name, file, request, out.matrices.emplace_back(), out.narration)) return p;
  }
  return {};
}

}  // namespace

Problem prepare_request(const FitArguments& arguments, Request& out)
{
  std::vector<char> text;
  if (Problem p = read_file(arguments.request, text)) return p;
  out.name = arguments.request == "-" ? "standard input" : arguments.request;
  // Some editors begin a file with a mark of its encoding, which is no JSON.
  constexpr std::string_view mark = "\xEF\xBB\xBF";
  out.document.assign(text.begin(), text.end());
  if (out.document.starts_with(mark)) out.document.erase(0, mark.size());
  std::optional<Json> request = read_json(out.document);
  if (request && request->is(JsonKind::object)) {
    if (const Json* title = request->string_at("title")) out.title = title->text;
    find_files(arguments, *request);
    if (Problem p = check_dataset_names(arguments, *request)) return p;
    if (Problem p = add_datasets(arguments, *request, out)) return p;
    if (Problem p = set_options(arguments, *request)) return p;
    out.document = write_json(*request);
  }
  if (out.document.size() > INT32_MAX) return {Exit::bad_input, arguments.request + " is larger than 2 GB"};
  return {};
}

}  // namespace tolvan::driver
