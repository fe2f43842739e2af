#include "app/html_report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <set>

#include "app/json_value.h"
#include "app/model_terms.h"
#include "app/svg.h"
#include "app/text_table.h"

namespace tolvan::driver {
namespace {

constexpr double missing = -1e-37;
constexpr std::size_t most_points = 4000;   // of a figure; of more a regular part is drawn
constexpr std::size_t most_effects = 12;    // of a random term
constexpr std::size_t most_terms = 6;       // random terms with a table
constexpr std::size_t most_rows = 400;      // of the table of fixed effects
constexpr double stands_out = 3.5;          // of a residual over its standard deviation

constexpr const char* style =
    "body{font:15px/1.45 system-ui,sans-serif;color:#222;max-width:1000px;margin:2em auto;padding:0 1em}"
    "h1{font-size:1.5em}h2{font-size:1.15em;border-bottom:1px solid #ccc;margin-top:2em}"
    "table{border-collapse:collapse;font-variant-numeric:tabular-nums}"
    "th,td{padding:.15em .8em;text-align:right;border-bottom:1px solid #eee}th{border-bottom:1px solid #888}"
    "th.l,td.l{text-align:left}.figures{display:flex;flex-wrap:wrap;gap:1em}"
    "figure{margin:0;width:460px;break-inside:avoid}figcaption{font-size:12px;color:#555;text-align:center}.name{white-space:nowrap;margin-right:.8em}"
    "svg{width:100%;height:auto;font:11px system-ui,sans-serif}svg .head{font-size:13px;font-weight:600}"
    ".grid{stroke:#e6e6e6}.frame{fill:none;stroke:#888}.line{fill:none;stroke-width:1.5}"
    ".point{fill:#1f5fa8;fill-opacity:.55}.guide{stroke:#b2182b;stroke-width:1.2}.bar{fill:#8fb3d9;stroke:#1f5fa8}"
    ".warn{background:#fff4e0;border-left:4px solid #d98e00;padding:.4em .8em;margin:.4em 0}"
    ".good{background:#eaf5ea;border-left:4px solid #3c8d40;padding:.4em .8em;margin:.4em 0}"
    "@media print{body{max-width:none;margin:0}h2{break-after:avoid}figure{width:48%}}";

std::string join(const std::vector<std::string>& words, const char* between)
{
  std::string out;
  for (const std::string& word : words) out += (out.empty() ? "" : between) + word;
  return out;
}

std::string paragraph(const std::string& text, const char* kind = nullptr)
{
  return std::string("<p") + (kind ? std::string(" class=\"") + kind + "\"" : "") + ">" + escaped(text) + "</p>\n";
}

/// A table; the first columns hold words.
std::string table(const std::vector<TextColumn>& columns)
{
  std::string out = "<table><thead><tr>";
  for (const TextColumn& c : columns) out += std::string("<th") + (c.right ? ">" : " class=\"l\">") + escaped(c.heading) + "</th>";
  out += "</tr></thead><tbody>\n";
  const std::size_t rows = columns.empty() ? 0 : columns.front().cells.size();
  for (std::size_t k = 0; k < rows; ++k) {
    out += "<tr>";
    for (const TextColumn& c : columns)
      out += std::string("<td") + (c.right ? ">" : " class=\"l\">") + escaped(k < c.cells.size() ? c.cells[k] : "") + "</td>";
    out += "</tr>\n";
  }
  return out + "</tbody></table>\n";
}

/// Fitted values and residuals of the records that have both, of one trait.
struct Residuals {
  std::string trait;         // empty with one response
  std::vector<double> all;  // by record; not a number where missing
  std::vector<double> fitted, residual;
  double mean = 0.0, sd = 0.0;
  std::size_t outside = 0;
};

/// Mean, standard deviation and count of those far out.
void summarise(Residuals& out)
{
  const auto n = static_cast<double>(out.residual.size());
  for (const double e : out.residual) out.mean += e / n;
  for (const double e : out.residual) out.sd += (e - out.mean) * (e - out.mean) / std::max(1.0, n - 1.0);
  out.sd = std::sqrt(out.sd);
  for (const double e : out.residual) out.outside += std::fabs(e - out.mean) > stands_out * out.sd ? 1 : 0;
}

/// The residuals of each trait: a record has a row for every one.
std::vector<Residuals> read_residuals(Engine& engine)
{
  const auto record = engine.integers("TABLE_YHT:RECORD");
  const auto fitted = engine.reals("TABLE_YHT:YHAT"), residual = engine.reals("TABLE_YHT:RESID");
  if (record.empty() || fitted.size() != record.size() || residual.size() != record.size()) return {};
  std::size_t traits = 1;
  while (traits < record.size() && record[traits] == record[0]) ++traits;
  const auto names = model_terms(engine, "response");
  std::vector<Residuals> out(traits);
  for (std::size_t k = 0; k < record.size(); ++k) {
    Residuals& own = out[k % traits];
    const bool absent = residual[k] == missing || fitted[k] == missing;
    own.all.push_back(absent ? std::numeric_limits<double>::quiet_NaN() : residual[k]);
    if (absent) continue;
    own.fitted.push_back(fitted[k]);
    own.residual.push_back(residual[k]);
  }
  for (std::size_t t = 0; t < traits; ++t) {
    if (traits > 1) out[t].trait = t < names.size() ? names[t] : std::to_string(t + 1);
    summarise(out[t]);
  }
  return out;
}
/// Every k-th of many points.
std::vector<double> thinned(const std::vector<double>& all)
{
  const std::size_t step = all.size() / most_points + 1;
  std::vector<double> out;
  for (std::size_t k = 0; k < all.size(); k += step) out.push_back(all[k]);
  return out;
}

std::string model_in_words(Engine& engine, const std::vector<Residuals>& residuals)
{
  const auto say = [&](const char* part, const char* words) {
    auto terms = model_terms(engine, part);
    std::erase(terms, "mv");
    return terms.empty() ? std::string() : paragraph(words + join(terms, ", ") + ".");
  };
  std::string out = say("response", residuals.size() > 1 ? "The responses, fitted together: " : "The response is ");
  out += say("fixed", "Fixed terms, estimated as they are: ");
  out += say("random", "Random terms, whose effects are drawn towards zero as far as their variances say: ");
  out += say("sparse", "Further fixed terms of many levels: ");
  const auto residual = model_terms(engine, "residual");
  out += residual.empty() ? paragraph("The residuals are independent with one variance.")
                          : paragraph("The residuals are correlated, or have variances of their own, by " + join(residual, ", ") + ".");
  for (const char* part : {"fixed", "sparse"}) {
    const auto terms = model_terms(engine, part);
    if (std::find(terms.begin(), terms.end(), "mv") != terms.end()) out += paragraph("Missing values of the response are estimated (mv).");
  }
  std::size_t observed = 0;
  for (const Residuals& each : residuals) observed += each.residual.size();
  std::string facts = "The variances were estimated by restricted maximum likelihood from " + std::to_string(observed) +
                      " observed values";
  if (const auto df = engine.integer("SCALAR_DF")) facts += ", with " + std::to_string(*df) + " degrees of freedom left for them";
  return out + paragraph(facts + ".");
}

std::string judgement(Engine& engine, const std::vector<Residuals>& residuals, const Messages& messages)
{
  std::string out;
  const std::string final_message = engine.scalar_text("SCALAR_FINAL_MESSAGE");
  const auto flag = engine.integer("SCALAR_CONVERGENCE_FLG");
  const bool converged = flag && *flag == 0 && final_message.find("LogL Converged") != std::string::npos;
  const bool settled = final_message.find("Not Converged") == std::string::npos;
  if (converged && settled) {
    out += paragraph("The fit converged.", "good");
  } else if (converged) {
    out += paragraph("The likelihood converged but some variance parameters were still moving: look at the column % below.", "warn");
  } else if (flag && *flag == 0 && final_message.find("RBG") != std::string::npos) {
    out += paragraph("The fit converged. Its results are averages over rounds of imputation of the missing responses.", "good");
  } else if (flag && *flag == 0 && final_message.find("BLUP") != std::string::npos) {
    out += paragraph("The effects were solved for; the variance parameters were taken as given and not estimated.", "good");
  } else if (flag && *flag == 2) {
    out += paragraph("The fit did not converge. Its numbers are those of the last iteration and should not be relied on.", "warn");
  } else {
    out += paragraph("The fit ended before it was done: " + final_message, "warn");
  }
  const auto labels = engine.strings("TABLE_VARCOMP", "LABEL"), bounds = engine.strings("TABLE_VARCOMP", "BOUND");
  for (std::size_t k = 0; k < labels.size() && k < bounds.size(); ++k) {
    const char letter = bounds[k].empty() ? ' ' : bounds[k].front();
    if (letter == 'B') {
      out += paragraph("The parameter " + labels[k] + " went to the edge of what it may be and was held there; for a variance this " +
                           "means that the data show none.",
                       "warn");
    } else if (letter == '?') {
      out += paragraph("The parameter " + labels[k] + " was on its way to the edge of what it may be.", "warn");
    } else if (letter == 'S') {
      out += paragraph("The data say nothing of the parameter " + labels[k] + ".", "warn");
    }
  }
  for (const Residuals& each : residuals) {
    if (each.outside == 0) continue;
    out += paragraph(std::to_string(each.outside) + " residual" + (each.outside == 1 ? "" : "s") +
                         (each.trait.empty() ? "" : " of " + each.trait) + (each.outside == 1 ? " lies" : " lie") +
                         " more than 3.5 standard deviations from the mean: check these records.",
                     "warn");
  }
  if (const auto information = read_json(messages.document())) {
    const Json* list = information->find("messages");
    if (!list) {
      const Json* inside = information->find("error_information");
      list = inside ? inside->find("messages") : nullptr;
    }
    bool of_warning = false;
    for (const Json& message : list ? list->items : std::vector<Json>{}) {
      const Json* type = message.find("etype");
      const Json* text = message.string_at("message");
      const std::int64_t kind = type ? type->integer() : 0;
      if (kind != 9999) of_warning = kind == 3 || kind == 4 || kind == 5;
      if (of_warning && text) out += paragraph(text->text, "warn");
    }
  }
  return out;
}

std::string trace_part(Engine& engine)
{
  const auto iterations = engine.integers("TABLE_TRACE:ITER");
  if (iterations.empty()) return {};
  std::vector<double> x(iterations.begin(), iterations.end());
  const auto clean = [](std::vector<double> values) {
    for (double& v : values) {
      if (v == missing) v = std::numeric_limits<double>::quiet_NaN();
    }
    return values;
  };
  std::string out = "<h2>Convergence</h2>\n<div class=\"figures\">\n";
  out += line_figure({"Log-likelihood by iteration", "iteration", "LogL"}, x, {clean(engine.reals("TABLE_TRACE:LOGL"))});
  std::vector<std::vector<double>> gammas;
  for (int k = 1; k <= 8; ++k) {
    auto values = clean(engine.reals("TABLE_TRACE:gammas_" + std::to_string(k)));
    if (values.empty()) break;
    gammas.push_back(std::move(values));
  }
  auto names = engine.strings("TABLE_VARCOMP", "LABEL");
  const std::size_t parameters = names.size();
  if (names.size() > gammas.size()) names.resize(gammas.size());
  out += line_figure({"Variance parameters by iteration", "iteration", "parameter"}, x, gammas, names);
  if (parameters > names.size())
    return out + "</div>\n" + paragraph("Of " + std::to_string(parameters) + " variance parameters the first " + std::to_string(names.size()) + " are drawn.");
  return out + "</div>\n";
}

std::string components_part(Engine& engine)
{
  const auto labels = engine.strings("TABLE_VARCOMP", "LABEL");
  if (labels.empty()) return {};
  const auto bounds = engine.strings("TABLE_VARCOMP", "BOUND");
  std::string out = "<h2>Variance components</h2>\n";
  out += table({{.heading = "Term", .right = false, .cells = labels},
                {.heading = "Component", .cells = number_cells(engine.reals("TABLE_VARCOMP:SIGMA"), bounds)},
                {.heading = "Standard error", .cells = error_cells(engine.reals("TABLE_VARCOMP:SE"))},
                {.heading = "Ratio", .cells = number_cells(engine.reals("TABLE_VARCOMP:ZRATIO"), 2)},
                {.heading = "%", .cells = number_cells(engine.integers("TABLE_VARCOMP:PC"))},
                {.heading = "C", .right = false, .cells = bounds}});
  std::string facts;
  const auto add = [&](const char* words, std::optional<double> value) {
    if (value) facts += std::string(facts.empty() ? "" : ", ") + words + " " + number_cell(*value, 3);
  };
  add("LogL", engine.real("SCALAR_LOGLIK"));
  add("AIC", engine.real("SCALAR_AIC"));
  add("BIC", engine.real("SCALAR_BIC"));
  if (!facts.empty()) out += paragraph(facts + ".");
  return out + paragraph("% is the change in the last iteration; C: P positive, U free, F held at its value by the request or by the model, B at its "
                         "bound, C made of others, S without information.");
}

std::string effects_part(Engine& engine)
{
  const auto labels = engine.strings("TABLE_SLN", "LABEL"), levels = engine.strings("TABLE_SLN", "LVL");
  const auto effects = engine.reals("TABLE_SLN:EFFECT"), errors = engine.reals("TABLE_SLN:SE");
  if (labels.empty() || effects.size() != labels.size() || errors.size() != labels.size() || levels.size() != labels.size()) return {};
  const auto of_part = [&](const char* part) {
    const auto terms = model_terms(engine, part);
    return std::set<std::string>(terms.begin(), terms.end());
  };
  const auto rows = [&](const std::vector<std::size_t>& which) {
    TextColumn term{.heading = "Term", .right = false, .cells = {}}, level{.heading = "Level", .right = false, .cells = {}};
    std::vector<double> effect, error;
    for (const std::size_t k : which) {
      term.cells.push_back(labels[k]);
      level.cells.push_back(levels[k]);
      effect.push_back(effects[k]);
      error.push_back(errors[k] == missing ? 0.0 : errors[k]);
    }
    return table({term, level, {.heading = "Effect", .cells = number_cells(effect)}, {.heading = "Standard error", .cells = error_cells(error)}});
  };
  const std::set<std::string> fixed = of_part("fixed");
  std::vector<std::size_t> chosen;
  std::vector<std::string> others;
  std::size_t found = 0;
  for (std::size_t k = 0; k < labels.size(); ++k) {
    if (labels[k] == "mv_estimates") continue;
    if (!fixed.contains(labels[k])) {
      if (others.empty() || others.back() != labels[k]) others.push_back(labels[k]);
    } else if (++found <= most_rows) {
      chosen.push_back(k);
    }
  }
  std::string out;
  if (!chosen.empty()) out += "<h2>Fixed effects</h2>\n" + rows(chosen);
  if (found > chosen.size()) out += paragraph("Of " + std::to_string(found) + " effects the first " + std::to_string(chosen.size()) + " are shown.");
  if (!others.empty()) out += "<h2>Largest random effects</h2>\n";
  for (std::size_t t = 0; t < std::min(most_terms, others.size()); ++t) {
    std::vector<std::size_t> all;
    for (std::size_t k = 0; k < labels.size(); ++k) {
      if (labels[k] == others[t]) all.push_back(k);
    }
    const std::size_t shown = std::min(most_effects, all.size());
    std::partial_sort(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(shown), all.end(),
                      [&](std::size_t a, std::size_t b) { return std::fabs(effects[a]) > std::fabs(effects[b]); });
    const std::size_t count = all.size();
    all.resize(shown);
    out += rows(all) + paragraph(std::to_string(shown) + " of " + std::to_string(count) + " effects of " + others[t] + ".");
  }
  return out;
}

std::string residuals_part(const Residuals& residuals, const std::vector<Field>& fields)
{
  if (residuals.residual.size() < 2) return {};
  const std::string of = residuals.trait.empty() ? "" : " of " + residuals.trait;
  std::string out = "<h2>Residuals" + escaped(of) + "</h2>\n<div class=\"figures\">\n";
  out += scatter_figure({"Residuals against fitted values" + of, "fitted value", "residual"}, thinned(residuals.fitted), thinned(residuals.residual),
                        {true, 0.0, 0.0});
  std::vector<double> sorted = residuals.residual, quantile;
  std::sort(sorted.begin(), sorted.end());
  for (std::size_t k = 0; k < sorted.size(); ++k)
    quantile.push_back(normal_quantile((static_cast<double>(k) + 0.5) / static_cast<double>(sorted.size())));
  out += scatter_figure({"Normal quantiles" + of, "normal quantile", "residual"}, thinned(quantile), thinned(sorted), {true, residuals.mean, residuals.sd});
  out += histogram_figure({"Histogram of residuals" + of, "residual", "records"}, residuals.residual);
  for (const Field& field : fields) {
    out += heat_map_figure({"Residuals in the field, " + field.name, field.column_name, field.row_name}, field.cells, field.rows, field.columns);
    std::int64_t rows = 0, columns = 0;
    const auto variogram = sample_variogram(field, rows, columns);
    std::vector<double> shifted = variogram;  // displacement 0 has none
    shifted.front() = std::numeric_limits<double>::quiet_NaN();
    out += heat_map_figure({"Sample variogram, " + field.name, "displacement in " + field.column_name, "displacement in " + field.row_name}, shifted, rows,
                           columns, 0.0);
  }
  out += "</div>\n";
  if (residuals.residual.size() > most_points) out += paragraph("Of many records a regular part is drawn.");
  return out;
}

std::string cross_validation_part(Engine& engine)
{
  const auto cv = engine.reals("TABLE_KCV:CVEFFECT"), standard = engine.reals("TABLE_KCV:STNDEFFECT");
  if (cv.empty() || cv.size() != standard.size()) return {};
  return "<h2>Cross-validation</h2>\n" + paragraph(engine.table_title("TABLE_KCV") + ".") + "<div class=\"figures\">\n" +
         scatter_figure({"Effects of the fit against those predicted without their data", "predicted", "fit"}, thinned(cv), thinned(standard),
                        {true, 0.0, 1.0}) +
         "</div>\n";
}

}  // namespace

Problem write_html_report(Engine& engine, const FitArguments& arguments, const Request& request, const Messages& messages)
{
  const std::vector<Residuals> residuals = read_residuals(engine);
  const std::vector<Field> fields = residuals.size() == 1 ? residual_fields(engine, residuals.front().all) : std::vector<Field>{};
  const std::string title = request.title.empty() ? "Fit of " + arguments.request : request.title;
  std::string page = "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\"/>\n<title>" + escaped(title) + "</title>\n<style>" + style +
                     "</style>\n</head>\n<body>\n<h1>" + escaped(title) + "</h1>\n";
  page += judgement(engine, residuals, messages);
  page += "<h2>The model</h2>\n" + model_in_words(engine, residuals);
  page += components_part(engine);
  page += trace_part(engine);
  page += effects_part(engine);
  page += cross_validation_part(engine);
  for (const Residuals& each : residuals) page += residuals_part(each, fields);
  page += "</body>\n</html>\n";

  const std::string beside = arguments.html + ".part";
  std::FILE* file = std::fopen(beside.c_str(), "wb");
  bool done = file != nullptr && std::fwrite(page.data(), 1, page.size(), file) == page.size();
  if (file != nullptr) done = std::fclose(file) == 0 && done;
  std::error_code error;
  if (done) std::filesystem::rename(beside, arguments.html, error);
  if (done && !error) return {};
  std::filesystem::remove(beside, error);
  return {Exit::out_of_resources, "unable to write the page " + arguments.html};
}

}  // namespace tolvan::driver
