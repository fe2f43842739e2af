// bench_design [RECORDS [ROUNDS]]: the search of the data for what functions need, and the forming of the design.
//
// The data are made up: a factor of a tenth as many levels as records, one of 100, a covariate of 50 distinct values, one
// whose values are all distinct, two responses. Seconds are processor seconds, the least of the rounds; ns an element are
// those of the design alone.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "api/communication.h"
#include "base/clock.h"
#include "base/text.h"
#include "data/design_matrix.h"
#include "data/read_data.h"
#include "model/request.h"

using namespace tolvan;

namespace {

int complain(const ERROR_HANDLER& eh)
{
  for (const auto& message : eh.messages()) std::fprintf(stderr, "%s\n", message.message.value_or("").c_str());
  return 1;
}

/// Seconds of the search and of the design, and the size of the design.
struct Figures {
  double bases = std::numeric_limits<double>::max(), design = bases;
  std::int64_t rows = 0, elements = 0, equations = 0;
};

int measure(const USER_DATASET_STORE& datasets, const std::string& json, int rounds, Figures& figures)
{
  ERROR_HANDLER eh;
  COMMUNICATION communication;
  FIT_OPTIONS options = FIT_OPTIONS_DEFAULTS();
  JsonError failure;
  const std::unique_ptr<JsonNode> request = parse_json(json, failure);
  bool has_model = false;
  PRIMARY_DATA primary;
  VARIABLE_TABLE variables;
  FACTOR_TABLE factors;
  TERM_TABLE terms;
  MODEL_INFO info;
  DATA_STORE store;
  API_STANDARDISE_AND_EXPAND_JSON(eh, communication, request.get(), has_model);
  if (!eh.terminate()) GET_PRIMARY_DATA_DESCRIPTION(eh, *request, datasets, primary);
  if (!eh.terminate()) NEW_AIDTIN(eh, communication, primary.variables, variables);
  if (!eh.terminate()) INITFLL(eh, variables);
  if (!eh.terminate()) NEW_PARSE_LINEAR_MODEL(eh, communication, *request, variables, factors, terms, info);
  if (!eh.terminate()) READ_DATA_FILE(eh, primary, variables, store);
  if (!eh.terminate()) COMPLETE_LINEAR_MODEL(eh, communication, *request, variables, factors, terms, info);
  if (eh.terminate()) return complain(eh);
  const FACTOR_TABLE before = factors;
  for (int k = 0; k < rounds; ++k) {
    factors = before;
    const double start = cpu_seconds();
    FORM_DESIGN_BASES(eh, options, *request, datasets, {}, variables, store, factors);
    if (eh.terminate()) return complain(eh);
    const double found = cpu_seconds();
    SET_TERM_EQUATIONS(eh, variables, store.records(), 0, factors, terms);
    DESIGN_MTX design;
    if (!eh.terminate()) AIDSGN(eh, options, variables, store, factors, terms, info, design);
    if (eh.terminate()) return complain(eh);
    figures.bases = std::min(figures.bases, found - start);
    figures.design = std::min(figures.design, cpu_seconds() - found);
    figures.rows = design.rows();
    figures.elements = std::ssize(design.equation);
    figures.equations = terms.equations;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv)
{
  const std::int64_t records = argc > 1 ? std::atoll(argv[1]) : 1000000;
  const int rounds = argc > 2 ? std::atoi(argv[2]) : 3;
  if (records < 100 || rounds < 1) return 1;

  std::mt19937_64 random(1);
  std::vector<double> values;
  const auto levels = static_cast<std::uint64_t>(records / 10);
  for (std::int64_t r = 0; r < records; ++r) {
    const double noise = std::generate_canonical<double, 53>(random);
    values.insert(values.end(), {static_cast<double>(random() % levels + 1), static_cast<double>(random() % 100 + 1),
                                 static_cast<double>(random() % 50) / 7.0, noise, 10.0 * noise, -noise});
  }
  ERROR_HANDLER eh;
  USER_DATASET_STORE datasets;
  UDST_ADD(eh, datasets, "d", values.data(), records, 6);
  if (eh.terminate()) return complain(eh);

  struct Model {
    const char* response;
    const char* terms;
  };
  constexpr Model models[] = {
      {"y1", "a"},          {"y1", "a:b"},          {"y1", "x"},           {"y1", "a:x"},         {"y1", "con(b)"},
      {"y1", "pow(x,2)"},   {"y1", "fac(x)"},       {"y1", "fac(u)"},      {"y1", "fac(x,b)"},    {"y1", "at(b,3):a"},
      {"y1", "uni(b,3)"},   {"y1", "a+and(a,0.5)"}, {"y1", "pol(x,3)"},    {"y1", "pol(u,3)"},    {"y1", "leg(x,3):a"},
      {"y1", "spl(x)"},     {"y1", "spl(u,10)"},    {"y1", "spl(x,12):b"}, {"y1", "a+b+x+pol(x,2)+fac(x)+spl(u,10)"},
      {"y1+y2", "trait:a"},
  };
  std::printf("%-36s %12s %12s %9s %9s %8s\n", "terms", "equations", "elements", "bases s", "design s", "ns/elem");
  for (const Model& model : models) {
    const std::string json =
        text(R"({"dataset":{"name":"d","storage_order":"so_row_major","number_of_observations":)", records,
             R"(,"variables":[{"name":"a","field_type":"vt_integer_factor_1_to_n"},{"name":"b","field_type":"vt_integer_factor_1_to_n"},)",
             R"({"name":"x"},{"name":"u"},{"name":"y1"},{"name":"y2"}]},"model":{"response":")", model.response,
             R"(","fixed":"mu","sparse":")", model.terms, "\"}}");
    Figures f;
    if (measure(datasets, json, rounds, f) != 0) return 1;
    std::printf("%-36s %12lld %12lld %9.3f %9.3f %8.1f\n", model.terms, static_cast<long long>(f.equations),
                static_cast<long long>(f.elements), f.bases, f.design, f.design * 1e9 / static_cast<double>(f.elements));
  }
  return 0;
}
