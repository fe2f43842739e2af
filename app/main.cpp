// tolvan: fits linear mixed models from the command line.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <new>
#include <string>
#include <tuple>
#include <vector>

#include "app/ainv.h"
#include "app/check.h"
#include "app/fit.h"
#include "app/grm.h"
#include "app/json_value.h"

namespace {

using namespace tolvan::driver;

constexpr const char* exit_codes =
    "Exit codes: 0 converged, 1 the fit failed, 2 usage, 3 the request or the data are wrong,\n"
    "4 not converged (results written), 5 cancelled, 6 out of memory or disk.";

int print_version()
{
  Engine engine("GENERAL_INFO");
  const auto document = read_json(engine.json("VERSION_INFORMATION").value_or(""));
  const Json* version = document ? document->find("version_information") : nullptr;
  const Json* number = version ? version->find("number") : nullptr;
  if (!number) {
    std::fputs("error: the engine does not tell its version\n", stderr);
    return static_cast<int>(Exit::fit_failed);
  }
  const auto part = [](const Json& of, const char* key) {
    const Json* item = of.find(key);
    return static_cast<int>(item ? item->integer() : 0);
  };
  std::printf("tolvan %d.%d.%d", part(*number, "major"), part(*number, "minor"), part(*number, "patch"));
  const Json* date = version->find("date");
  const Json& built = date ? *date : *version;
  if (part(built, "year") > 0) {
    std::printf(" (%04d-%02d-%02d)", part(built, "year"), part(built, "month"), part(built, "day"));
  }
  std::putchar('\n');
  return std::fflush(stdout) == 0 ? 0 : static_cast<int>(Exit::out_of_resources);
}

/// "--data a=x.csv b=y.csv" means "--data a=x.csv --data b=y.csv".
std::vector<std::string> arguments_of(int argc, char** argv)
{
  std::vector<std::string> out;
  bool after_data = false;
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    const bool pair = word.find('=') != std::string::npos && word.front() != '-';
    if (pair && after_data && out.back() != "--data") out.push_back("--data");
    after_data = word == "--data" || (after_data && pair);
    out.push_back(word);
  }
  return {out.rbegin(), out.rend()};  // the parser takes them from the back
}

int run(int argc, char** argv)
{
  CLI::App app{"tolvan fits linear mixed models by restricted maximum likelihood.", "tolvan"};
  app.footer(exit_codes);
  app.require_subcommand(0, 1);

  FitArguments a;
  bool quiet = false;
  bool verbose = false;
  CLI::App* const fit_command = app.add_subcommand("fit", "Fit the model of a request and print its results");
  bool standard_json = false;
  CLI::App* const check_command =
      app.add_subcommand("check", "Read a request and its data, print what they hold, and fit nothing");
  for (CLI::App* const command : {fit_command, check_command}) {
    command->add_option("request", a.request, "The request, a JSON file ('-' for standard input)")
        ->required()
        ->option_text(" ");
    command
        ->add_option(
            "--data", a.data,
            "A CSV file as the dataset of that name: columns by their header, factors of text coded by\n"
            "factor_labels or as they appear; NA, na, *, . and nothing are missing. May be repeated")
        ->type_name("name=file.csv")
        ->allow_extra_args(false);
    command->footer(exit_codes);
  }
  fit_command->add_flag("--json", a.json, "Print all results as one JSON document");
  CLI::Option* const as_json =
      check_command->add_flag("--json", a.json, "Print everything as one JSON document");
  check_command
      ->add_flag("--standard-json", standard_json,
                 "Print the request in its standard form, with all calls and lists written out")
      ->excludes(as_json);
  fit_command->add_option("-o", a.folder, "Write the report files into this folder")->type_name("DIR");
  fit_command
      ->add_option("--resume", a.resume,
                   "Start from the parameters of an earlier fit: its .rsv file, or a table .tsv, .msv, .esv")
      ->type_name("FILE");
  fit_command->add_option("--html", a.html, "Write a report with figures as one page for a browser")->type_name("FILE");
  for (CLI::App* const command : {fit_command, check_command}) {
    CLI::Option* const q = command->add_flag("-q", quiet, "No progress and no notes")->option_text(" ");
    command->add_flag("-v", verbose, "Tell more about data, messages and time")
        ->excludes(q)
        ->option_text(" ");
  }
  fit_command->add_option("--threads", a.threads, "Use at most N threads (the results do not depend on it)")
      ->option_text("N")
      ->check(CLI::Range(1, 1024));
  AinvArguments p;
  CLI::App* const ainv_command = app.add_subcommand(
      "ainv", "Form the inverse of a pedigree's relationship matrix and print what it is like");
  ainv_command
      ->add_option("pedigree", p.pedigree,
                   "A CSV file with a header: identity, male parent, female parent; 0, NA, na, *, . and\n"
                   "nothing are missing ('-' for standard input)")
      ->required()
      ->option_text(" ");
  const std::pair<const char*, std::pair<std::string*, const char*>> columns[] = {
      {"--id", {&p.id, "The column of the identities (1)"}},
      {"--male", {&p.male, "The column of the male parents (2)"}},
      {"--female", {&p.female, "The column of the female parents (3)"}},
      {"--sex", {&p.sex, "The column of the sexes, 0 male and 1 female: the inverse for an X-linked locus"}},
      {"--fgen", {&p.fgen, "The column of generations of selfing (1 and more) or inbreeding (below 1)"}}};
  for (const auto& [option, target] : columns) {
    ainv_command->add_option(option, *target.first, target.second)->option_text("NAME|N");
  }
  ainv_command->add_flag("--no-header", p.no_header, "The first line is an individual");
  ainv_command->add_option("--missing", p.missing, "A further text for a missing parent")
      ->option_text("TEXT");
  ainv_command->add_flag("--mgs", p.grandsire, "The female column holds maternal grandsires");
  ainv_command->add_option("--selfing", p.selfing, "The rate of selfing where the female parent is missing")
      ->option_text("RATE");
  ainv_command->add_option("--inbreeding", p.inbreeding, "Inbreeding of the base; 1: all are inbred lines")
      ->option_text("F");
  ainv_command->add_option("--groups", p.groups, "The first N individuals are genetic groups")
      ->option_text("N")
      ->check(CLI::NonNegativeNumber);
  ainv_command->add_option("--group-offset", p.group_offset, "The diagonal of the groups")->option_text("B");
  ainv_command
      ->add_option("-o", p.output, "Write the inverse as lines of row, column, value; identities to FILE.ids")
      ->type_name("FILE");
  ainv_command->add_flag("--json", p.json, "Print all tables as one JSON document");
  ainv_command->add_flag("-q", quiet, "No notes")->option_text(" ");
  ainv_command->footer(exit_codes);
  GrmArguments g;
  CLI::App* const grm_command =
      app.add_subcommand("grm", "Form the relationship matrix of markers and print what it is like");
  grm_command
      ->add_option("markers", g.markers,
                   "Files of markers: .grr, .mkr or .mat, lines of a genotype's label and its regressors,\n"
                   "or .bed with .bim and .fam beside it; several, as one a chromosome, make one set\n"
                   "of markers of the same genotypes, which their labels match")
      ->required()
      ->option_text(" ");
  const std::tuple<const char*, int*, const char*> integers[] = {
      {"--markers", &g.count, "The number of markers, where no header tells it"},
      {"--skip", &g.skip, "Lines ahead of header and data"},
      {"--cskip", &g.column_skip, "Columns between the label and the markers"},
      {"--method", &g.method, "1 columns centred (default), 2 scaled by their variances, too, 3 dominance"},
      {"--smode", &g.scale_mode, "0 scaled by the method (default), 1 by the markers' count, 2 columns of variance 1"}};
  for (const auto& [option, target, help] : integers)
    grm_command->add_option(option, *target, help)->option_text("N")->check(CLI::NonNegativeNumber);
  grm_command->add_flag("--header", g.header, "The first line holds names, as it always does in .grr");
  grm_command->add_flag("--no-label", g.no_label, "Lines have no label");
  grm_command->add_option("--gidname", g.label_column, "The column of the labels, by its header")->option_text("NAME");
  grm_command->add_option("--snpname", g.marker_column, "The column of the markers' names: lines are markers, not genotypes")
      ->option_text("NAME");
  grm_command->add_option("--centre", g.centre, "Centre the columns here, not at their means")->option_text("X");
  grm_command->add_option("--divisor", g.divisor, "Divide by this, not by what the method has")->option_text("X");
  grm_command->add_option("--diagonal", g.diagonal, "Add this to the diagonal")->option_text("X");
  grm_command->add_option("--range", g.range, "Use these markers, counted from 1")->option_text("FROM:TO");
  grm_command->add_option("-o", g.output, "Write the lower triangle, a line a row; labels to FILE.ids")->type_name("FILE");
  grm_command->add_flag("--json", g.json, "Print all tables as one JSON document");
  grm_command->add_flag("-q", quiet, "No notes")->option_text(" ");
  grm_command->footer(exit_codes);
  CLI::App* const version_command = app.add_subcommand("version", "Print the version");

  try {
    app.parse(arguments_of(argc, argv));
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? 0 : static_cast<int>(Exit::usage);
  }
  a.talk = quiet ? Talk::quiet : verbose ? Talk::verbose : Talk::normal;
  if (*fit_command) return fit(a);
  if (*check_command) return check(a, standard_json);
  if (*ainv_command) {
    p.talk = a.talk;
    return ainv(p);
  }
  if (*grm_command) {
    g.talk = a.talk;
    return grm(g);
  }
  if (*version_command) return print_version();
  std::fputs(app.help().c_str(), stderr);
  return static_cast<int>(Exit::usage);
}

}  // namespace

int main(int argc, char** argv)
{
  try {
    return run(argc, argv);
  } catch (const std::bad_alloc&) {
    std::fputs("error: out of memory\n", stderr);
    return static_cast<int>(tolvan::driver::Exit::out_of_resources);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "error: %s\n", e.what());
    return static_cast<int>(tolvan::driver::Exit::fit_failed);
  }
}
