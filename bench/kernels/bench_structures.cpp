// bench_structures [ROUNDS]: what forming the matrix of each kind of structure costs in one evaluation.
//
// form: inverse, log-determinant, derivatives, score parts.  contract: all derivatives against one matrix,
// for the scores. working: one working variable.  Seconds of the processor, the least of the rounds; the
// exponent is that of the growth from the row above, against the levels.  Peak memory is that of the process
// so far.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/lapack.h"
#include "base/numbers.h"
#include "bench/measure.h"
#include "varstruct/make_component.h"
#include "varstruct/model_catalogue.h"

using namespace tolvan;

namespace {

struct WORKLOAD {
  const char* name;
  std::int64_t code, selector, sub_code, order;
  std::int64_t n, outer, inner;  // levels, and the rest of the product
  double value;                  // of each parameter
};

// clang-format off
constexpr WORKLOAD workloads[] = {
    {"ar1(20) of ar1 x ar1",        1,  1, 0, 1,      20,    1, 1000, 0.5},
    {"ar1(1000) of ar1 x ar1",      1,  1, 0, 1,    1000,   20,    1, 0.5},
    {"ar1",                         1,  1, 0, 1,  100000,    1,    1, 0.5},
    {"ar1",                         1,  1, 0, 1, 1000000,    1,    1, 0.5},
    {"ar3",                         1,  1, 0, 3,  100000,    1,    1, 0.2},
    {"ar3",                         1,  1, 0, 3, 1000000,    1,    1, 0.2},
    {"ma1",                         2,  2, 0, 1,    1000,    1,    1, 0.5},
    {"ma1",                         2,  2, 0, 1,    2000,    1,    1, 0.5},
    {"cor",                         5,  4, 0, 1,    1000,    1,    1, 0.5},
    {"cor",                         5,  4, 0, 1,    2000,    1,    1, 0.5},
    {"corb",                        5,  5, 0, 0,     100,  100,    1, 0.3},
    {"corb",                        5,  5, 0, 0,     200,  100,    1, 0.3},
    {"corg",                        5,  6, 0, 0,     100,  100,    1, 0.3},
    {"corg",                        5,  6, 0, 0,     200,  100,    1, 0.3},
    {"us",                          9, 25, 0, 0,      30,    1, 1000, 0.1},
    {"us",                          9, 25, 0, 0,      60,    1, 1000, 0.1},
    {"us",                          9, 25, 0, 0,     120,    1, 1000, 0.1},
    {"sfa of 4 factors",           10, 26, 0, 4,      60,    1, 5000, 0.3},
    {"sfa of 4 factors",           10, 26, 0, 4,     120,    1, 5000, 0.3},
    {"facv of 4 factors",          13, 29, 0, 4,      60,    1, 5000, 0.3},
    {"facv of 4 factors",          13, 29, 0, 4,     120,    1, 5000, 0.3},
    {"chol",                       11, 27, 0, 1,      60,    1, 1000, 0.1},
    {"chol",                       11, 27, 0, 1,     120,    1, 1000, 0.1},
    {"ante of order 2",            12, 28, 0, 2,      60,    1, 1000, 0.1},
    {"ante of order 2",            12, 28, 0, 2,     120,    1, 1000, 0.1},
    {"fa of 60 by 4",              15, 31, 0, 4,      64,    1, 5000, 0.3},
    {"fa of 600 by 4",             15, 31, 0, 4,     604,    1,  500, 0.3},
    {"rr of 60 by 4",              15, 30, 0, 4,      64,    1, 5000, 0.3},
    {"iexp",                        6, 12, 1, 1,    1000,    1,    1, 0.5},
    {"iexp",                        6, 12, 1, 1,    2000,    1,    1, 0.5},
    {"sph",                         6, 15, 4, 1,    1000,    1,    1, 3.0},
    {"sph",                         6, 15, 4, 1,    2000,    1,    1, 3.0},
    {"mtrn of nu 0.5",              6, 23, 9, 1,    1000,    1,    1, 1.5},
    {"mtrn of nu 0.5",              6, 23, 9, 1,    2000,    1,    1, 1.5},
    {"mtrn of nu 1.1, estimated",   6, 23, 9, 2,    1000,    1,    1, 1.1},
    {"mtrn of nu 1.1, estimated",   6, 23, 9, 2,    2000,    1,    1, 1.1},
};
// clang-format on

constexpr std::size_t extended =
    31;  // the selector that counts the parameters of both factor models with effects

void set_up(const WORKLOAD& w, STRUCTURE_ROW& row, VARIANCE_MODEL& model)
{
  row.size = w.n;
  row.model = w.code;
  row.selector = w.selector;
  row.sub_code = w.sub_code;
  row.order = w.order;
  row.parameters = own_parameters(
      component_models[w.code == 15 ? extended : static_cast<std::size_t>(w.selector)], w.n, w.order);
  model.parameters.resize(static_cast<std::size_t>(row.parameters));
  for (VARIANCE_PARAMETER& p : model.parameters) p.value = w.value;
  if (w.selector == 5) {  // correlations that fall with the distance
    for (std::size_t k = 0; k < model.parameters.size(); ++k)
      model.parameters[k].value = std::pow(w.value, static_cast<double>(k + 1));
  }
  const auto n = static_cast<std::size_t>(w.n);
  if (w.code == 9 || w.code == 11 || w.code == 12) {  // triangles with 1 on the diagonal
    for (std::size_t i = 0; i < n; ++i) model.parameters[i * (i + 3) / 2].value = 1.0;
  }
  if (w.selector == 30) {  // no specific variances
    for (std::size_t i = 0; i + static_cast<std::size_t>(w.order) < n; ++i) model.parameters[i].value = 0.0;
  }
  if (w.code != 6) return;
  row.coordinates = 0;
  COORDINATES at;
  for (std::int64_t i = 0; i < w.n; ++i) {
    at.x.push_back(static_cast<double>(i % 40));
    at.y.push_back(static_cast<double>(i / 40));
  }
  model.coordinates.push_back(at);
}

}  // namespace

int main(int argc, char** argv)
{
  const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
  single_blas_thread();
  std::printf("%-26s %8s %7s %10s %8s %10s %8s %10s %8s\n", "structure", "levels", "params", "form", "growth",
              "contract", "growth", "working", "MB");
  double form_before = 0.0, contract_before = 0.0;
  const WORKLOAD* before = nullptr;
  for (const WORKLOAD& w : workloads) {
    STRUCTURE_ROW row;
    VARIANCE_MODEL model;
    set_up(w, row, model);
    ERROR_HANDLER eh;
    FORM_CONTEXT context{eh, model, row, 1, 0.999, 0.0};
    const auto component = make_component(row, model);
    if (component == nullptr) {
      std::printf("%-26s %8lld: no such model\n", w.name, static_cast<long long>(w.n));
      continue;
    }
    Formed formed = component->form(context);  // the buffers are made here
    const double form = least_seconds(rounds, [&] { formed = component->form(context); });
    if (formed != Formed::done && formed != Formed::done_by_metric) {
      std::printf("%-26s %8lld: not formed: %s\n", w.name, static_cast<long long>(w.n),
                  eh.EH_LAST_MESSAGE().c_str());
      return 1;
    }
    const std::vector<double> s(static_cast<std::size_t>(component->inverse().stored()), 1e-3);
    std::vector<double> out(static_cast<std::size_t>(row.parameters), 0.0);
    const double contract = least_seconds(rounds, [&] { component->contract(s.data(), out.data()); });
    std::vector<double> x(static_cast<std::size_t>(w.outer * component->inverse().n * w.inner), 1.0),
        y(x.size());
    const double working =
        least_seconds(rounds, [&] { component->working(0, x.data(), y.data(), w.outer, w.inner); });
    const bool grows = before != nullptr && std::string(before->name) == w.name;
    const double by = grows ? std::log(static_cast<double>(w.n) / static_cast<double>(before->n)) : 0.0;
    const auto exponent = [&](double now, double then) { return grows ? std::log(now / then) / by : 0.0; };
    std::printf("%-26s %8lld %7lld %10.6f %8.2f %10.6f %8.2f %10.6f %8.0f\n", w.name,
                static_cast<long long>(w.n), static_cast<long long>(row.parameters), form,
                exponent(form, form_before), contract, exponent(contract, contract_before), working,
                peak_megabytes());
    form_before = form;
    contract_before = contract;
    before = &w;
  }
  return 0;
}
