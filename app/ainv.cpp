#include "app/ainv.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <numeric>

#include "app/csv_file.h"
#include "app/engine.h"
#include "app/fit.h"
#include "app/json_value.h"
#include "app/out_file.h"
#include "app/report.h"
#include "app/terminal.h"
#include "app/text_table.h"

namespace tolvan::driver {
namespace {

int refuse_ainv(const AinvArguments& arguments, const Problem& problem)
{
  FitArguments as_fit;
  as_fit.json = arguments.json;
  return refuse(as_fit, problem);
}

/// The column of a name, or of a number from 1; the problem if there is none.
Problem find_column(const CsvFile& file, const std::string& wanted, std::size_t& column)
{
  const auto named = std::find(file.header.begin(), file.header.end(), wanted);
  if (named != file.header.end()) {
    column = static_cast<std::size_t>(named - file.header.begin());
    return {};
  }
  std::size_t number = 0;
  const auto [end, fault] = std::from_chars(wanted.data(), wanted.data() + wanted.size(), number);
  if (fault == std::errc() && end == wanted.data() + wanted.size() && number >= 1 &&
      number <= file.header.size()) {
    column = number - 1;
    return {};
  }
  return {Exit::bad_input, file.path + " has no column " + wanted};
}

/// Whether a field can stand in JSON as the whole number that it is.
bool is_plain_number(std::string_view field)
{
  const bool negative = !field.empty() && field.front() == '-';
  const std::string_view digits = field.substr(negative ? 1 : 0);
  constexpr std::size_t most_digits = 18;
  if (digits.empty() || digits.size() > most_digits || (digits.front() == '0' && field.size() > 1))
    return false;
  return std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; });
}

/// Adds a column to the request as an array under a key: of names, or of the numbers that a column must hold.
Problem add_column(const CsvFile& file, const AinvArguments& arguments, const std::string& wanted,
                   const char* key, bool numbers, std::string& request)
{
  std::size_t column = 0;
  if (Problem problem = find_column(file, wanted, column)) return problem;
  request += std::string(",\"") + key + "\":[";
  const auto add = [&](std::string_view field, std::int64_t line) -> Problem {
    if (request.back() != '[') request += ',';
    if (is_plain_number(field)) {
      request += field;
    } else if (!numbers) {
      request += quoted(is_missing(field) ? std::string_view("0") : field);
    } else if (const auto value = number_of(field, file.separator)) {
      char text[32];
      request.append(text, std::to_chars(text, text + sizeof text, *value).ptr);
    } else {
      return {Exit::bad_input,
              file.path + ", line " + std::to_string(line) + ": " + std::string(field) + " is no number"};
    }
    return {};
  };
  if (arguments.no_header) {
    if (Problem problem = add(file.header[column], 1)) return problem;
  }
  for (std::int64_t k = 0; k < file.records(); ++k) {
    if (Problem problem = add(file.field(k, column), file.lines[static_cast<std::size_t>(k)])) return problem;
  }
  request += ']';
  return {};
}

/// The request for the engine.
Problem make_request(const AinvArguments& arguments, std::string& request)
{
  CsvFile file;
  if (Problem problem = read_csv(arguments.pedigree, file)) return problem;
  request = "{\"psort\":true";
  const std::pair<const std::string*, const char*> names[] = {
      {&arguments.id, "id"}, {&arguments.male, "male"}, {&arguments.female, "female"}};
  for (const auto& [column, key] : names) {
    if (Problem problem = add_column(file, arguments, *column, key, false, request)) return problem;
  }
  const std::pair<const std::string*, const char*> values[] = {{&arguments.sex, "sex"},
                                                               {&arguments.fgen, "fgen"}};
  for (const auto& [column, key] : values) {
    if (column->empty()) continue;
    if (Problem problem = add_column(file, arguments, *column, key, true, request)) return problem;
  }
  const std::pair<const std::optional<double>*, const char*> numbers[] = {
      {&arguments.selfing, "selfing"},
      {&arguments.inbreeding, "inbreed"},
      {&arguments.group_offset, "groupoffset"}};
  for (const auto& [value, key] : numbers) {
    if (!*value) continue;
    char text[32];
    request += std::string(",\"") + key + "\":";
    request.append(text, std::to_chars(text, text + sizeof text, **value).ptr);
  }
  if (arguments.groups > 0) request += ",\"groups\":" + std::to_string(arguments.groups);
  if (arguments.grandsire) request += ",\"mgs\":1";
  if (!arguments.missing.empty()) request += ",\"mv\":" + quoted(arguments.missing);
  request += '}';
  return {};
}

/// What the inverse is like, for the eye.
void print_inverse(Engine& engine, int groups)
{
  const std::vector<std::int32_t> male = engine.integers("TABLE_AINV_PEDIGREE:MALE");
  const std::vector<std::int32_t> female = engine.integers("TABLE_AINV_PEDIGREE:FEMALE");
  const std::vector<double> F = engine.reals("TABLE_AINV_INBREEDING:VALUES");
  const auto first = static_cast<std::size_t>(groups);
  std::vector<std::int32_t> known(3, 0);
  for (std::size_t k = first; k < male.size(); ++k)
    ++known[(male[k] > 0 ? 1U : 0U) + (female[k] > 0 ? 1U : 0U)];
  const auto inbred =
      static_cast<std::int32_t>(std::count_if(F.begin(), F.end(), [](double f) { return f > 0.0; }));
  const auto individuals = static_cast<std::int32_t>(male.size() - first);
  const auto elements = static_cast<std::int32_t>(engine.reals("TABLE_AINV_A:VALUES").size());
  std::vector<std::int32_t> counts = {individuals, known[2], known[1], known[0], inbred, elements};
  std::vector<std::string> words = {"Individuals", "  with two parents", "  with one parent",
                                    "  with none", "  inbred",           "Elements of the lower triangle"};
  std::vector<std::string> cells = number_cells(counts);
  if (groups > 0) {
    words.insert(words.begin() + 1, "Genetic groups");
    cells.insert(cells.begin() + 1, std::to_string(groups));
  }
  const double sum = std::accumulate(F.begin(), F.end(), 0.0);
  words.insert(words.end(), {"Mean inbreeding", "Largest inbreeding", "log|A^-1|"});
  cells.push_back(number_cell(individuals > 0 ? sum / individuals : 0.0, 6));
  cells.push_back(number_cell(F.empty() ? 0.0 : *std::max_element(F.begin(), F.end()), 6));
  cells.push_back(number_cell(engine.real("SCALAR_LOGDET").value_or(0.0), 6));
  std::fputs(
      text_table({{.heading = "Pedigree", .right = false, .cells = words}, {.heading = "", .cells = cells}})
          .c_str(),
      stdout);
}

/// Writes the lower triangle by rows, and beside it the identities of the rows with their inbreeding.
Problem write_inverse(Engine& engine, const std::string& path)
{
  const std::vector<std::int32_t> row = engine.integers("TABLE_AINV_A:ROWID");
  const std::vector<std::int32_t> column = engine.integers("TABLE_AINV_A:COLID");
  const std::vector<std::int32_t> next = engine.integers("TABLE_AINV_A:NXT_LOC");
  const std::vector<double> value = engine.reals("TABLE_AINV_A:VALUES");
  const std::vector<std::string> uid = engine.strings("TABLE_AINV_UID", "UID");
  const std::vector<double> F = engine.reals("TABLE_AINV_INBREEDING:VALUES");
  const std::string identities = path + ".ids";
  OutFile out(path);
  OutFile ids(identities);
  if (!out || !ids) return {Exit::out_of_resources, "unable to write " + (out ? identities : path)};
  const auto put = [&](std::size_t at) {
    char text[64];
    char* end = std::to_chars(text, text + 12, row[at]).ptr;
    *end++ = ' ';
    end = std::to_chars(end, end + 12, column[at]).ptr;
    *end++ = ' ';
    end = std::to_chars(end, end + 32, value[at]).ptr;
    *end++ = '\n';
    out.put({text, static_cast<std::size_t>(end - text)});
  };
  for (std::size_t k = 0; k < uid.size(); ++k) {
    for (std::int32_t at = next[k]; at > 0; at = next[static_cast<std::size_t>(at - 1)])
      put(static_cast<std::size_t>(at - 1));
    put(k);
    char inbreeding[32];
    std::snprintf(inbreeding, sizeof inbreeding, " %.9g\n", F[k]);
    ids.put(std::to_string(k + 1) + " " + uid[k] + inbreeding);
  }
  const bool written = out.close();
  if (ids.close() && written) return {};
  return {Exit::out_of_resources, "unable to write " + path};
}

}  // namespace

int ainv(const AinvArguments& arguments)
{
  std::string request;
  if (const Problem problem = make_request(arguments, request)) return refuse_ainv(arguments, problem);
  Messages messages;
  Engine engine("AINV");
  engine.input_info(request);
  std::string().swap(request);
  engine.process("");
  const std::int32_t status = engine.status();
  messages.collect(engine);
  messages.show(arguments.talk);
  if (status <= 0 && !arguments.output.empty()) {
    if (const Problem problem = write_inverse(engine, arguments.output))
      return refuse_ainv(arguments, problem);
  }
  if (arguments.json) {
    print_json_report(&engine, status, "", messages.document());
  } else if (status <= 0) {
    print_inverse(engine, arguments.groups);
    if (!arguments.output.empty())
      std::printf("\nThe inverse is in %s, the identities of its rows in %s.ids.\n", arguments.output.c_str(),
                  arguments.output.c_str());
  }
  if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
    return refuse(FitArguments{}, {Exit::out_of_resources, "unable to write the results"});
  }
  return static_cast<int>(status <= 0 ? Exit::converged : messages.failure());
}

}  // namespace tolvan::driver
