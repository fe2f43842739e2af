// Memory that runs out at every single allocation of a whole run: each call ends with a status and a message,
// the result of a run that got through is right to the bit, and nothing stays allocated.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "checks.h"
#include "support/failing_memory.h"
#include "tolvan/tolvan_api.h"

namespace {

constexpr std::int64_t every_one = 5000;  // failures tried one by one; beyond, in steps
#ifdef __SANITIZE_ADDRESS__
constexpr double time_limit = 10.0;  // seconds a request and mode
#else
constexpr double time_limit = 40.0;
#endif

const char description[] =
    R"({"dataset":{"name":"d","number_of_observations":6,"variables":[{"name":"a","field_type":"vt_string_factor",)"
    R"("factor_labels":["north","south","east"]},{"name":"y"}]},"options":{"maximum_number_of_threads":1}})";
// The data come as a matrix, or from a file that the request describes by itself.
const char* const requests[] = {
    R"({"model":{"response":"y","fixed":"mu","random":"a"}})",
    R"j({"data_file":{"name":"memory_test.csv","type":"ft_csv","skip":1},"variables":[{"name":"g",)j"
    R"j("field_type":"vt_string_factor"},{"name":"x"},{"name":"y"}],"na_action":{"y":"include"},)j"
    R"j("model":{"response":"y","fixed":"x","random":"idv(g,init=0.5)+g:x"}})j"};
const char file_data[] =
    "g,x,y\none,1,3.1\ntwo,2,NA\none,3,4.9\nthree,1,5.5\ntwo,3,6.1\nthree,2,5.8\none,2,4.4\n";
constexpr std::int32_t six = 6, two = 2;
const double values[12] = {1, 1, 2, 2, 3, 3, 10, 12, 15, 14, 20, 18};

struct HostCalls {
  const char* request;
  void* handle = nullptr;
  std::int32_t status = 0;  // of the last call made: the run ends with the first one that fails
  double logl = 0.0;

  bool given = false;  // all inputs were taken

  bool good() const { return status <= 0; }
  void fit()
  {
    if (given) ctlv_process(&status, &handle, request, static_cast<std::int32_t>(std::strlen(request)));
    if (given && good()) ctlv_output_real_scalar(&status, &handle, "SCALAR_LOGLIK", 13, &logl);
  }
  void run()
  {
    static char text[100000];
    ctlv_initialise(&status, &handle, "{\"type\":\"TLV\"}", 14);
    if (good()) ctlv_input_info(&status, &handle, description, sizeof description - 1);
    if (good()) ctlv_input_real_2d(&status, &handle, "d", 1, values, &six, &two);
    given = good();
    fit();
    for (const char* id : {"TABLE_SLN", "AVAILABLE_OUTPUT", "INPUT_JSON"}) {
      std::int32_t length = sizeof text;
      if (good())
        ctlv_output_json(&status, &handle, id, static_cast<std::int32_t>(std::strlen(id)), text, &length);
    }
  }
  std::string errors()
  {
    static char text[200000];
    std::int32_t read = 0, length = sizeof text;
    ctlv_output_json(&read, &handle, "ERROR_INFORMATION", 17, text, &length);
    return length > 0 && read == 0 ? text : "";
  }
};

/// Lets the n-th allocation fail; false once the run needs fewer than that.
bool fail_at(const char* request, std::int64_t n, bool once, double expected)
{
  const std::int64_t before = tolvan::bytes_in_use();
  HostCalls calls{request};
  bool struck = false;
  {
    const tolvan::FailingMemory failing(n, once);
    calls.run();
    struck = failing.struck();
  }
  if (calls.good()) {
    if (calls.logl != expected) {
      std::fprintf(stderr, "allocation %lld: no call failed, LogL is %.17g\n", static_cast<long long>(n),
                   calls.logl);
      ++failures;
    }
  } else if (calls.handle == nullptr) {
    CHECK_INT(calls.status, 2);
  } else {
    CHECK_INT(calls.status, 4);
    // A single failure leaves room for its message.
    if (once) {
      const std::string told = calls.errors();
      CHECK_HAS(told.c_str(), "ehc_alloc_fail");
      CHECK_HAS(told.c_str(), "\"stack\":[\"CTLV_");
    }
    // With memory there again, the object still has its inputs and fits.
    if (calls.given) {
      calls.fit();
      CHECK(calls.good() && calls.logl == expected);
    }
  }
  ctlv_cleanup(&calls.handle);
  CHECK(calls.handle == nullptr);
  if (tolvan::bytes_in_use() != before) {
    std::fprintf(stderr, "allocation %lld (%s): %lld bytes left\n", static_cast<long long>(n),
                 once ? "once" : "from there on", static_cast<long long>(tolvan::bytes_in_use() - before));
    ++failures;
  }
  return struck;
}

/// All failures of the runs of one request.
void fail_everywhere(const char* request)
{
  // Twice: what the libraries keep for good is made by the first calls.
  HostCalls first{request}, reference{request};
  first.run();
  ctlv_cleanup(&first.handle);
  reference.run();
  if (!reference.good()) std::fprintf(stderr, "%s\n", reference.errors().c_str());
  CHECK(reference.good());
  ctlv_cleanup(&reference.handle);

  for (const bool once : {true, false}) {
    using clock = std::chrono::steady_clock;
    const auto begun = clock::now();
    const auto seconds = [&] { return std::chrono::duration<double>(clock::now() - begun).count(); };
    std::int64_t tried = 0, n = 0;
    while (failures < 20 && seconds() < time_limit && fail_at(request, n, once, reference.logl)) {
      ++tried;
      n += n < every_one ? 1 : 37;
    }
    std::fprintf(stderr, "%lld of the first %lld allocations made to fail (%s)\n",
                 static_cast<long long>(tried), static_cast<long long>(n),
                 once ? "each alone" : "with all that follow");
    CHECK(tried > 500);
  }
}

}  // namespace

int main()
{
  std::FILE* file = std::fopen("memory_test.csv", "w");
  if (file == nullptr) return 2;
  std::fputs(file_data, file);
  std::fclose(file);
  for (const char* request : requests) fail_everywhere(request);
  std::remove("memory_test.csv");
  return failures > 0 ? 1 : 0;
}
