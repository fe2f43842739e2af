#include "app/check.h"

#include <algorithm>
#include <cstdio>

#include "app/report.h"
#include "app/request.h"
#include "app/run_request.h"
#include "app/terminal.h"
#include "app/text_table.h"

namespace tolvan::driver {
namespace {

constexpr std::size_t widest_line = 100;
constexpr std::size_t most_levels = 20;  // of a factor, unless all are asked for

void heading(const char* text)
{
  std::printf("\n%s\n", styled(stdout, Style::bold, text).c_str());
}

std::string counted(std::size_t n, const char* one, const char* more)
{
  return std::to_string(n) + " " + (n == 1 ? one : more);
}

void print_data(Engine& engine)
{
  const auto names = engine.strings("TABLE_DATA_SUMMARY", "VARIABLE");
  if (names.empty()) return;
  const auto types = engine.strings("TABLE_DATA_SUMMARY", "TYPE");
  auto levels = number_cells(engine.integers("TABLE_DATA_SUMMARY:LEVELS"));
  auto zeros = number_cells(engine.integers("TABLE_DATA_SUMMARY:ZEROS"));
  for (std::size_t v = 0; v < names.size(); ++v) (types[v] == "factor" ? zeros : levels)[v] = "";
  heading("Data");
  if (const auto records = engine.integer("SCALAR_DATA_RECORDS")) {
    std::printf("  %s", counted(static_cast<std::size_t>(*records), "record", "records").c_str());
    const auto analysed = engine.integer("SCALAR_ANALYSIS_RECORDS");
    std::printf(analysed ? ", %d in the analysis\n\n" : "\n\n", analysed.value_or(0));
  }
  const auto general = [&engine](const char* column) {
    std::vector<std::string> cells;
    for (const double x : engine.reals(std::string("TABLE_DATA_SUMMARY:") + column)) {
      cells.push_back(general_cell(x));
    }
    return cells;
  };
  std::fputs(text_table({
                            {.heading = "Variable", .right = false, .cells = names},
                            {.heading = "Type", .right = false, .cells = types},
                            {.heading = "Levels", .cells = levels},
                            {.heading = "Missing",
                             .cells = number_cells(engine.integers("TABLE_DATA_SUMMARY:MISSING"))},
                            {.heading = "Zeros", .cells = zeros},
                            {.heading = "Mean", .cells = general("MEAN")},
                            {.heading = "Minimum", .cells = general("MINIMUM")},
                            {.heading = "Maximum", .cells = general("MAXIMUM")},
                        })
                 .c_str(),
             stdout);
}

/// One factor: how many levels, how often, and which.
std::string factor_lines(const std::string& name, const std::vector<std::string>& levels,
                         const std::vector<std::int32_t>& counts, bool all)
{
  const auto [least, most] = std::minmax_element(counts.begin(), counts.end());
  std::string text =
      "  " + name + ": " + counted(levels.size(), "level", "levels") + ", " + std::to_string(*least);
  if (*least != *most) text += " to " + std::to_string(*most);
  text += *least == 1 && *most == 1 ? " record each\n" : " records each\n";
  const std::size_t shown = all ? levels.size() : std::min(levels.size(), most_levels);
  std::string line = "   ";
  for (std::size_t l = 0; l < levels.size(); ++l) {
    std::string piece = " ";
    if (l == shown) {
      piece += "and " + std::to_string(levels.size() - shown) + " more";
    } else {
      piece += levels[l] + (*least != *most ? " (" + std::to_string(counts[l]) + ")" : "");
      if (l + 1 < levels.size()) piece += ",";
    }
    if (line.size() + piece.size() > widest_line) {
      text += line + "\n";
      line = "   ";
    }
    line += piece;
    if (l == shown) break;
  }
  return text + line + "\n";
}

void print_levels(Engine& engine, bool all)
{
  const auto variables = engine.strings("TABLE_LEVEL_COUNTS", "VARIABLE");
  if (variables.empty()) return;
  const auto levels = engine.strings("TABLE_LEVEL_COUNTS", "LEVEL");
  const auto counts = engine.integers("TABLE_LEVEL_COUNTS:COUNT");
  heading("Levels");
  for (std::size_t from = 0; from < variables.size();) {
    std::size_t to = from;
    while (to < variables.size() && variables[to] == variables[from]) ++to;
    const auto first = static_cast<std::ptrdiff_t>(from);
    const auto last = static_cast<std::ptrdiff_t>(to);
    std::fputs(factor_lines(variables[from], {levels.begin() + first, levels.begin() + last},
                            {counts.begin() + first, counts.begin() + last}, all)
                   .c_str(),
               stdout);
    from = to;
  }
}

void print_terms(Engine& engine)
{
  const auto terms = engine.strings("TABLE_TERMS", "TERM");
  if (terms.empty()) return;
  const auto equations = engine.integers("TABLE_TERMS:EQUATIONS");
  const auto parts = engine.strings("TABLE_TERMS", "PART");
  std::vector<std::string> sizes;
  std::int64_t total = 0;
  for (std::size_t i = 0; i < terms.size(); ++i) {
    const bool has_equations = parts[i] != "response" && parts[i] != "residual";
    sizes.push_back(has_equations ? std::to_string(equations[i]) : "");
    total += equations[i];
  }
  heading("Terms");
  std::fputs(text_table({{.heading = "Term", .right = false, .cells = terms},
                         {.heading = "Part", .right = false, .cells = parts},
                         {.heading = "Equations", .cells = sizes}})
                 .c_str(),
             stdout);
  std::printf("  %lld equations in all\n", static_cast<long long>(total));
}

/// The standard request without the stop before the fit, which is the check's own.
Json standard_request(Engine& engine, const Request& request)
{
  Json standard = read_json(engine.json("INPUT_JSON").value_or("")).value_or(json_object());
  Json* options = standard.find("options");
  if (options == nullptr) return standard;
  const auto given = read_json(request.document);
  const Json* own = given ? given->find("options") : nullptr;
  const Json* stage = own ? own->find("process_stage") : nullptr;
  const auto same = [](const Json& item) { return item.name == "process_stage"; };
  if (stage != nullptr) {
    options->set("process_stage", *stage);
  } else {
    options->items.erase(std::remove_if(options->items.begin(), options->items.end(), same),
                         options->items.end());
  }
  if (options->items.empty()) {
    const auto is_options = [](const Json& item) { return item.name == "options"; };
    standard.items.erase(std::remove_if(standard.items.begin(), standard.items.end(), is_options),
                         standard.items.end());
  }
  return standard;
}

}  // namespace

void print_check_report(Engine& engine, const std::string& title, bool all_levels)
{
  if (!title.empty()) std::printf("%s\n", styled(stdout, Style::bold, title).c_str());
  print_data(engine);
  print_levels(engine, all_levels);
  print_terms(engine);
}

int check(const FitArguments& arguments, bool standard_json)
{
  Request request;
  if (const Problem problem = prepare_request(arguments, request)) return refuse(arguments, problem);
  if (arguments.talk != Talk::quiet) std::fputs(request.narration.c_str(), stderr);

  Messages messages;
  Engine engine("TLV");
  const std::int32_t status =
      run_request(engine, request, R"({"options":{"process_stage":"preprocess"}})", nullptr, messages);
  messages.show(arguments.talk);
  if (arguments.json) {
    print_json_report(&engine, status, engine.scalar_text("SCALAR_FINAL_MESSAGE"), messages.document());
  } else if (standard_json) {
    if (status <= 0) std::printf("%s\n", indented_json(standard_request(engine, request)).c_str());
  } else {
    print_check_report(engine, request.title, arguments.talk == Talk::verbose);
    if (status <= 0) {
      const std::size_t warnings = messages.warnings();
      std::printf("\nThe request and the data were checked%s; nothing was fitted.\n",
                  warnings == 0 ? "" : (", with " + counted(warnings, "warning", "warnings")).c_str());
    }
  }
  if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
    return refuse(FitArguments{}, {Exit::out_of_resources, "unable to write the results"});
  }
  return static_cast<int>(status > 0 ? messages.failure() : Exit::converged);
}

}  // namespace tolvan::driver
