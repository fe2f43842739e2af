#include "app/grm.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

#include "app/engine.h"
#include "app/fit.h"
#include "app/json_value.h"
#include "app/out_file.h"
#include "app/report.h"
#include "app/text_table.h"

namespace tolvan::driver {
namespace {

int refuse_grm(const GrmArguments& arguments, const Problem& problem)
{
  FitArguments as_fit;
  as_fit.json = arguments.json;
  return refuse(as_fit, problem);
}

/// The request for the engine.
Problem make_request(const GrmArguments& arguments, std::string& request)
{
  request = "{\"marker_file\":{\"name\":" + quoted(arguments.markers.front()) + ",\"file\":[";
  for (const std::string& file : arguments.markers) request += (&file == arguments.markers.data() ? "" : ",") + quoted(file);
  request += "]";
  const auto add = [&request](const char* key, const std::string& value) {
    request += std::string(",\"") + key + "\":" + value;
  };
  if (arguments.header) add("header", "true");
  if (arguments.no_label) add("nokey", "true");
  if (!arguments.label_column.empty()) add("gidname", quoted(arguments.label_column));
  if (!arguments.marker_column.empty()) add("snpname", quoted(arguments.marker_column));
  const std::pair<const char*, int> counts[] = {{"markers", arguments.count},
                                                {"skip", arguments.skip},
                                                {"cskip", arguments.column_skip},
                                                {"method", arguments.method},
                                                {"smode", arguments.scale_mode}};
  for (const auto& [key, value] : counts) add(key, std::to_string(value));
  const std::pair<const char*, const std::optional<double>*> numbers[] = {
      {"centre", &arguments.centre}, {"gscale", &arguments.divisor}, {"mdfoffset", &arguments.diagonal}};
  for (const auto& [key, value] : numbers) {
    if (!*value) continue;
    char text[32];
    add(key, std::string(text, std::to_chars(text, text + sizeof text, **value).ptr));
  }
  if (!arguments.range.empty()) {
    int from = 0, to = 0;
    const char* const end = arguments.range.data() + arguments.range.size();
    const auto first = std::from_chars(arguments.range.data(), end, from);
    const bool colon = first.ec == std::errc() && first.ptr != end && *first.ptr == ':';
    const auto last = colon ? std::from_chars(first.ptr + 1, end, to) : first;
    if (!colon || last.ec != std::errc() || last.ptr != end)
      return {Exit::usage, "--range needs the first and the last marker as FROM:TO, not " + arguments.range};
    add("range", "[" + std::to_string(from) + "," + std::to_string(to) + "]");
  }
  request += "}}";
  return {};
}

/// What the matrix is like, for the eye.
void print_matrix(Engine& engine, const std::vector<double>& values)
{
  const auto count = [&engine](const char* id) { return engine.integer(id).value_or(0); };
  const std::int32_t n = count("SCALAR_GRM_GENOTYPES");
  double low = 0.0, high = 0.0, trace = 0.0, others = 0.0;
  std::size_t at = 0;
  for (std::int32_t i = 0; i < n && at < values.size(); ++i) {
    for (std::int32_t j = 0; j < i; ++j) others += values[at++];
    const double d = values[at++];
    low = i == 0 ? d : std::min(low, d);
    high = i == 0 ? d : std::max(high, d);
    trace += d;
  }
  const double pairs = 0.5 * n * (n - 1.0);
  const std::vector<std::int32_t> counts = {n, count("SCALAR_GRM_MARKERS"), count("SCALAR_GRM_USED"),
                                            count("SCALAR_GRM_MISSING")};
  std::vector<std::string> cells = number_cells(counts);
  cells.push_back(general_cell(engine.real("SCALAR_GRM_SCALE").value_or(0.0)));
  for (const double x : {n > 0 ? trace / n : 0.0, low, high, pairs > 0.0 ? others / pairs : 0.0})
    cells.push_back(number_cell(x, 6));
  std::fputs(text_table({{.heading = "Relationship matrix",
                          .right = false,
                          .cells = {"Genotypes", "Markers", "  that enter", "Missing values", "Scaling factor", "Mean diagonal",
                                    "Smallest diagonal", "Largest diagonal", "Mean off the diagonal"}},
                         {.heading = "", .cells = cells}})
                 .c_str(),
             stdout);
}

/// Writes the lower triangle, a line a row, and beside it the labels of the rows.
Problem write_matrix(Engine& engine, const std::vector<double>& values, const std::string& path)
{
  const std::vector<std::string> uid = engine.strings("TABLE_GRM_UID", "UID");
  const std::string labels = path + ".ids";
  OutFile out(path);
  OutFile ids(labels);
  if (!out || !ids) return {Exit::out_of_resources, "unable to write " + (out ? labels : path)};
  std::size_t at = 0;
  std::string line;
  for (std::size_t i = 0; i < uid.size(); ++i) {
    line.clear();
    for (std::size_t j = 0; j <= i; ++j) {
      char text[32];
      line.append(text, std::to_chars(text, text + sizeof text, values[at++]).ptr);
      line += j < i ? ' ' : '\n';
    }
    out.put(line);
    ids.put(std::to_string(i + 1) + " " + uid[i] + "\n");
  }
  const bool written = out.close();
  if (ids.close() && written) return {};
  return {Exit::out_of_resources, "unable to write " + path};
}

}  // namespace

int grm(const GrmArguments& arguments)
{
  std::string request;
  if (const Problem problem = make_request(arguments, request)) return refuse_grm(arguments, problem);
  Messages messages;
  Engine engine("TLV");
  engine.process(request);
  const std::int32_t status = engine.status();
  messages.collect(engine);
  messages.show(arguments.talk);
  if (status <= 0 && (!arguments.json || !arguments.output.empty())) {
    const std::vector<double> values = engine.reals("TABLE_GRM:VALUES");
    if (!arguments.output.empty()) {
      if (const Problem problem = write_matrix(engine, values, arguments.output)) return refuse_grm(arguments, problem);
    }
    if (!arguments.json) print_matrix(engine, values);
  }
  if (arguments.json) {
    print_json_report(&engine, status, "", messages.document());
  } else if (status <= 0 && !arguments.output.empty()) {
    std::printf("\nThe matrix is in %s, the labels of its rows in %s.ids.\n", arguments.output.c_str(),
                arguments.output.c_str());
  }
  if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
    return refuse(FitArguments{}, {Exit::out_of_resources, "unable to write the results"});
  }
  return static_cast<int>(status <= 0 ? Exit::converged : messages.failure());
}

}  // namespace tolvan::driver
