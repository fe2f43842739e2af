// Requests damaged at random, some thousands by a fixed seed: every call comes back with a status that says
// what it is, and the object can be cleaned up.  What else goes wrong is for the sanitizers to see.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <string_view>

#include "checks.h"
#include "tolvan/tolvan_api.h"

namespace {

constexpr int rounds = 6000;
constexpr std::size_t longest = 20000;

constexpr std::array<std::string_view, 6> documents = {
    R"j({"dataset":{"name":"d","number_of_observations":8,"storage_order":"so_row_major","variables":[{"name":"a",)j"
    R"j("field_type":"vt_integer_factor_1_to_n","number_of_levels":4},{"name":"b","field_type":"vt_string_factor",)j"
    R"j("factor_labels":["x","z"]},{"name":"c"},{"name":"y"}]}})j",
    R"j({"model":{"response":"y","fixed":"mu+b*c","random":"idv(a,init=0.2)","residual":"units"},"options":{"extra":1}})j",
    R"j({"model":{"response":"y","fixed":"b+a/b-b","random":"a+a:b","sparse":"mv"},"na_action":{"x":"omit","y":"include"}})j",
    R"j({"model":{"response":{"terms":"y"},"fixed":{"terms":["mu","b",{"interaction":["b","c"]}]},)j"
    R"j("random":{"terms":["a"]},"weights":"c"},"initial_values":[{"term":"a","value":0.5,"constraint":"P"}]})j",
    R"j({"model":{"response":"y","random":"str(~a+a:b)+ar1(a)+vm(a,G)"},"wald":{"den_df":"none"},"title":"t"})j",
    R"j({"data_file":{"name":"absent.csv","type":"ft_csv","skip":1},"variables":[{"name":"y"}],"model":{"response":"y"},)j"
    R"j("predict":{"classify":"b"},"api_options":{"debug_level":0},"macro_variables":[1,2],"dopart":1})j",
};

constexpr std::array<std::string_view, 30> pieces = {
    "{",  "}",    "[",     "]",     "\"",    ",",       ":",           "null",      "true",    "-1",
    "0",  "1e99", "1.5",   "(",     ")",     "+",       "*",           "/",         "\\u0000", "\\",
    "mu", "mv",   "units", "\"y\"", "\"a\"", "\"b:c\"", "\"options\"", "\"model\"", "{}",      "[[1,2],[3]]"};

// A record a row: a, b, c, y with a missing value in each of b and y.
constexpr double missing = TOLVAN_MISSING;
const double values[32] = {1, 1, 0.5, 3.1, 1, 2, 1.5, 4.0,     2, 1, 2.5, 5.2, 2, missing, 0.1, 4.9,
                           3, 1, 0.9, 2.2, 3, 2, 1.1, missing, 4, 1, 3.3, 6.0, 4, 2,       0.7, 5.5};

class Damage {
 public:
  explicit Damage(std::uint32_t seed) : random_(seed) {}
  std::size_t below(std::size_t n) { return n == 0 ? 0 : random_() % n; }
  std::string_view any_document() { return documents[below(documents.size())]; }

  std::string apply(std::string text)
  {
    for (std::size_t k = below(4); k-- > 0;) {
      const std::size_t at = below(text.size() + 1);
      const std::size_t length = below(12);
      switch (below(7)) {
        case 0:
          text.insert(at, pieces[below(pieces.size())]);
          break;
        case 1:
          text.replace(at, std::min(length, text.size() - at), pieces[below(pieces.size())]);
          break;
        case 2:
          text.erase(at, length);
          break;
        case 3:
          text.insert(at, text.substr(below(text.size() + 1), 40));
          break;
        case 4:
          text.resize(at);
          break;
        case 5:
          if (at < text.size()) text[at] = static_cast<char>(random_());
          break;
        default:
          text.insert(at, any_document().substr(below(60), 50));
          break;
      }
      if (text.size() > longest) text.resize(longest);
    }
    return text;
  }

 private:
  std::mt19937 random_;
};

int iterations = 0;

/// Damage can ask for any number of iterations.
void stop_at_last(std::int32_t* result, const char*, std::int32_t)
{
  if (++iterations > 40) *result = 1;
}

void check_status(std::int32_t status, std::uint32_t seed, const std::string& text)
{
  const bool known = (status >= -6 && status <= 0) || (status >= 4 && status <= 6);
  if (known) return;
  std::fprintf(stderr, "round %u: status %d for %s\n", seed, status, text.c_str());
  ++failures;
}

int one_round(std::uint32_t seed)
{
  Damage damage(seed);
  void* handle = nullptr;
  std::int32_t status = 0;
  ctlv_initialise(&status, &handle, "TLV", 3);
  ctlv_register_function(&status, &handle, stop_at_last, "MONITOR_FUNCTION", 16);
  iterations = 0;
  const std::int32_t rows = 8, columns = 4;
  ctlv_input_real_2d(&status, &handle, "d", 1, values, &rows, &columns);
  std::string text(documents[0]);
  if (damage.below(3) == 0) text = damage.apply(text);
  ctlv_input_info(&status, &handle, text.data(), static_cast<std::int32_t>(text.size()));
  check_status(status, seed, text);
  std::string request = damage.apply(std::string(documents[1 + damage.below(documents.size() - 1)]));
  status = 77;
  ctlv_process(&status, &handle, request.data(), static_cast<std::int32_t>(request.size()));
  const int failed = status > 0;
  static char out[400000];
  if (status == 999) {  // an internal error is a fault, but for the one that a part without terms is told by
    std::int32_t length = sizeof out;
    ctlv_output_json(&status, &handle, "ERROR_INFORMATION", 17, out, &length);
    if (std::strstr(out, "not expecting to get here with no terms") == nullptr) status = 999;
  }
  check_status(status, seed, request);
  for (const char* id : {"ERROR_INFORMATION", "AVAILABLE_OUTPUT_FULL", "INPUT_JSON"}) {
    std::int32_t length = sizeof out;
    ctlv_output_json(&status, &handle, id, static_cast<std::int32_t>(std::strlen(id)), out, &length);
    check_status(status, seed, request);
  }
  ctlv_cleanup(&handle);
  CHECK(handle == nullptr);
  return failed;
}

}  // namespace

int main(int argc, char** argv)
{
  if (argc > 1) return one_round(static_cast<std::uint32_t>(std::atoi(argv[1])));
  int failed = 0;
  for (std::uint32_t seed = 1; seed <= rounds; ++seed) failed += one_round(seed);
  std::fprintf(stderr, "%d of %d damaged requests were refused\n", failed, rounds);
  CHECK(failed > rounds / 4 && failed < rounds);  // neither dead nor deaf
  return failures > 0 ? 1 : 0;
}
