#include "app/report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <set>

#include "app/json_value.h"
#include "app/model_terms.h"
#include "app/terminal.h"
#include "app/text_table.h"

namespace tolvan::driver {
namespace {

/// Final messages are built of pieces: a blank may lead, an empty piece may end them.
std::string tidied(const std::string& text)
{
  const std::size_t from = std::min(text.find_first_not_of(' '), text.size());
  return text.substr(from, text.find_last_not_of(" ;") + 1 - from);
}

void heading(const char* text)
{
  std::printf("\n%s\n", styled(stdout, Style::bold, text).c_str());
}

/// Whether the model has one residual variance to tell: with several sections, or a matrix of traits, the scalar is 1 throughout.
bool one_residual_variance(Engine& engine)
{
  const auto sigma2 = engine.reals("TABLE_TRACE:SIGMA2");
  return std::any_of(sigma2.begin(), sigma2.end(), [](double s) { return s != 1.0; }) || engine.real("SCALAR_SIGMA2").value_or(1.0) != 1.0;
}

void print_trace(Engine& engine)
{
  constexpr std::size_t most_gammas = 4;
  const auto iterations = engine.integers("TABLE_TRACE:ITER");
  if (iterations.empty()) return;
  const auto loglik = engine.reals("TABLE_TRACE:LOGL");
  std::vector<std::string> change;
  for (std::size_t i = 0; i < loglik.size(); ++i) {
    change.push_back(i == 0 ? "" : number_cell(loglik[i] - loglik[i - 1], 6));
  }
  std::vector<TextColumn> columns = {
      {.heading = "Iteration", .cells = number_cells(iterations)},
      {.heading = "LogL", .cells = number_cells(loglik, 6)},
      {.heading = "Change", .cells = change},
      {.heading = "DF", .cells = number_cells(engine.integers("TABLE_TRACE:DF"))},
      {.heading = "Restrained", .cells = number_cells(engine.integers("TABLE_TRACE:NCON"))},
  };
  if (one_residual_variance(engine))
    columns.insert(columns.begin() + 3, {.heading = "Residual", .cells = number_cells(engine.reals("TABLE_TRACE:SIGMA2"))});
  for (std::size_t k = 1; k <= most_gammas; ++k) {
    const auto gammas = engine.reals("TABLE_TRACE:gammas_" + std::to_string(k));
    if (gammas.empty()) break;
    columns.push_back({.heading = "Gamma " + std::to_string(k), .cells = number_cells(gammas)});
  }
  heading("Iterations");
  std::fputs(text_table(columns).c_str(), stdout);
}

void print_variance_components(Engine& engine)
{
  const auto labels = engine.strings("TABLE_VARCOMP", "LABEL");
  if (labels.empty()) return;
  const auto bounds = engine.strings("TABLE_VARCOMP", "BOUND");
  heading("Variance components");
  std::fputs(
      text_table({
                     {.heading = "Term", .right = false, .cells = labels},
                     {.heading = "Gamma", .cells = number_cells(engine.reals("TABLE_VARCOMP:GAMMA"), bounds)},
                     {.heading = "Sigma", .cells = number_cells(engine.reals("TABLE_VARCOMP:SIGMA"), bounds)},
                     {.heading = "SE", .cells = error_cells(engine.reals("TABLE_VARCOMP:SE"))},
                     {.heading = "Sigma/SE", .cells = number_cells(engine.reals("TABLE_VARCOMP:ZRATIO"), 2)},
                     {.heading = "%", .cells = number_cells(engine.integers("TABLE_VARCOMP:PC"))},
                     {.heading = "C", .right = false, .cells = bounds},
                 })
          .c_str(),
      stdout);
  struct Code {
    const char* letter;
    const char* meaning;
  };
  constexpr Code codes[] = {
      {"B", "fixed at a boundary"},
      {"F", "held at its value, by the request or by the model"},
      {"?", "liable to change from P to B"},
      {"C", "made of other parameters, or held by a constraint"},
      {"U", "unbounded"},
      {"Z", "positive, let go near zero"},
      {"S", "without information in the data (singular information matrix)"},
      {"H", "held"},
  };
  for (const Code& code : codes) {
    for (const std::string& bound : bounds) {
      if (bound.substr(0, 1) != code.letter) continue;
      std::printf("  %s: %s\n", code.letter, code.meaning);
      break;
    }
  }
}

void print_fixed_effects(Engine& engine)
{
  const auto labels = engine.strings("TABLE_SLN", "LABEL");
  const auto levels = engine.strings("TABLE_SLN", "LVL");
  const auto effects = engine.reals("TABLE_SLN:EFFECT");
  const auto errors = engine.reals("TABLE_SLN:SE");
  if (labels.empty() || effects.size() != labels.size() || errors.size() != labels.size()) return;
  const std::vector<std::string> terms = model_terms(engine, "fixed");
  const std::set<std::string> fixed(terms.begin(), terms.end());
  TextColumn term{.heading = "Term", .right = false, .cells = {}};
  TextColumn level{.heading = "Level", .right = false, .cells = {}};
  std::vector<double> effect;
  std::vector<double> error;
  for (std::size_t i = 0; i < labels.size(); ++i) {
    if (!fixed.contains(labels[i])) continue;
    const bool same_term = i > 0 && labels[i] == labels[i - 1];
    term.cells.push_back(same_term ? "" : labels[i]);
    level.cells.push_back(i < levels.size() ? levels[i] : "");
    effect.push_back(effects[i]);
    error.push_back(errors[i]);
  }
  if (effect.empty()) return;
  heading("Fixed effects");
  std::fputs(text_table({term,
                         level,
                         {.heading = "Effect", .cells = number_cells(effect)},
                         {.heading = "SE", .cells = error_cells(error)}})
                 .c_str(),
             stdout);
}

void print_summary(Engine& engine)
{
  heading("Summary");
  const auto row = [](const char* name, const std::string& value, const std::string& rest = "") {
    std::printf("  %-18s  %16s%s\n", name, value.c_str(), rest.c_str());
  };
  const auto loglik = engine.real("SCALAR_LOGLIK");
  const auto aic = engine.real("SCALAR_AIC");
  const auto parameters = engine.integer("SCALAR_AIC_NPARAM");
  if (loglik) {
    // A large LogL is reported relative to a base of some 100000s; AIC = 2 (parameters - LogL - base) tells
    // which.
    double base = 0.0;
    if (aic && parameters) base = std::round((*parameters - *aic / 2.0 - *loglik) / 1e5) * 1e5;
    row("LogL", number_cell(*loglik, 6),
        base == 0.0 ? "" : "  relative to a base of " + number_cell(base, 0));
  }
  if (const auto df = engine.integer("SCALAR_DF")) row("Residual df", std::to_string(*df));
  if (const auto sigma2 = engine.real("SCALAR_SIGMA2"); sigma2 && one_residual_variance(engine))
    row("Residual variance", number_cells(std::vector{*sigma2})[0]);
  if (aic) {
    row("AIC", number_cell(*aic, 4),
        parameters ? "  with " + std::to_string(*parameters) + " parameters" : "");
  }
  if (const auto bic = engine.real("SCALAR_BIC")) row("BIC", number_cell(*bic, 4));
  for (const char* table : {"TABLE_VPARSUM", "TABLE_KCV"}) {
    if (const std::string title = engine.table_title(table); !title.empty()) std::printf("\n%s\n", title.c_str());
  }
  const std::string message = engine.scalar_text("SCALAR_FINAL_MESSAGE");
  if (!message.empty()) std::printf("\n%s\n", tidied(message).c_str());
}

}  // namespace

void print_report(Engine& engine, const std::string& title)
{
  if (!title.empty()) std::printf("%s\n", styled(stdout, Style::bold, title).c_str());
  print_trace(engine);
  print_variance_components(engine);
  print_fixed_effects(engine);
  print_summary(engine);
}

void print_json_report(Engine* engine, std::int32_t status, const std::string& final_message,
                       const std::string& error_information)
{
  std::printf("{\"status\":%d,\"final_message\":%s", status, quoted(tidied(final_message)).c_str());
  std::optional<Json> available;
  if (engine) available = read_json(engine->json("AVAILABLE_OUTPUT").value_or(""));
  if (!available) available = json_object();
  std::fputs(",\n\"scalars\":{", stdout);
  const char* between = "";
  for (const Json& output : available->items) {
    if (output.find("column_info")) continue;
    const auto document = read_json(engine->json(output.name).value_or(""));
    const Json* value =
        document && !document->items.empty() ? document->items.front().find("value") : nullptr;
    if (!value) continue;
    std::printf("%s%s:%s", between, quoted(output.name).c_str(), write_json(*value).c_str());
    between = ",";
  }
  std::fputs("},\n\"tables\":{", stdout);
  between = "";
  for (const Json& output : available->items) {
    if (!output.find("column_info")) continue;
    // The engine's text is {"NAME":{...}}: without the outer braces it is the member wanted here.
    const std::string text = engine->json(output.name).value_or("");
    if (text.size() < 2) continue;
    std::printf("%s\n", between);
    std::fwrite(text.data() + 1, 1, text.size() - 2, stdout);
    between = ",";
  }
  std::printf("},\n\"error_information\":%s}\n", error_information.c_str());
}

}  // namespace tolvan::driver
