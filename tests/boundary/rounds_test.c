/* Loads and unloads the library many times, then fits many times in one process: memory must stay flat. */
#include <dlfcn.h>
#include <stdio.h>
#include <unistd.h>

#include "checks.h"
#include "tolvan/tolvan_api.h"

enum { load_rounds = 50, fit_rounds = 10000, warm_up = 500 };

static const char description[] =
    "{\"dataset\":{\"name\":\"d\",\"number_of_observations\":6,\"variables\":[{\"name\":\"a\","
    "\"field_type\":\"vt_integer_factor_1_to_n\",\"number_of_levels\":3},{\"name\":\"y\"}]}}";
static const char request[] = "{\"model\":{\"response\":\"y\",\"random\":\"a\"}}";
static const double values[12] = {1, 1, 2, 2, 3, 3, 10, 12, 15, 14, 20, 18};

static long resident_kilobytes(void)
{
  long pages = 0, ignored = 0;
  FILE* file = fopen("/proc/self/statm", "r");
  if (file == NULL) return 0;
  if (fscanf(file, "%ld %ld", &ignored, &pages) != 2) pages = 0;
  fclose(file);
  return pages * (sysconf(_SC_PAGESIZE) / 1024);
}

/* A function of the library, by way of bytes: ISO C knows no cast from a data pointer to a function's. */
static void find(void* library, const char* name, void* function)
{
  void* address = dlsym(library, name);
  CHECK(address != NULL);
  memcpy(function, &address, sizeof address);
}

static int32_t one_fit(void* library)
{
  void (*initialise)(int32_t*, void**, const char*, int32_t);
  void (*input_info)(int32_t*, void**, const char*, int32_t);
  void (*input)(int32_t*, void**, const char*, int32_t, const double*, const int32_t*, const int32_t*);
  void (*process)(int32_t*, void**, const char*, int32_t);
  void (*cleanup)(void**);
  find(library, "ctlv_initialise", &initialise);
  find(library, "ctlv_input_info", &input_info);
  find(library, "ctlv_input_real_2d", &input);
  find(library, "ctlv_process", &process);
  find(library, "ctlv_cleanup", &cleanup);
  void* handle = NULL;
  int32_t status = 0;
  const int32_t rows = 6, columns = 2;
  initialise(&status, &handle, "TLV", 3);
  input_info(&status, &handle, description, sizeof description - 1);
  input(&status, &handle, "d", 1, values, &rows, &columns);
  process(&status, &handle, request, sizeof request - 1);
  cleanup(&handle);
  CHECK(handle == NULL);
  return status;
}

int main(int argc, char** argv)
{
  if (argc != 2) return 2;
  for (int round = 0; round < load_rounds; ++round) {
    void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    CHECK(library != NULL);
    if (library == NULL) {
      fprintf(stderr, "%s\n", dlerror());
      return 1;
    }
    CHECK(one_fit(library) <= 0);
    CHECK_INT(dlclose(library), 0);
  }
  void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  long before = 0;
  for (int round = 0; round < fit_rounds; ++round) {
    if (round == warm_up) before = resident_kilobytes();
    if (one_fit(library) > 0) {
      CHECK(!"a fit failed");
      break;
    }
  }
  const long after = resident_kilobytes();
  fprintf(stderr, "resident: %ld kB after %d fits, %ld kB after %d\n", before, warm_up, after, fit_rounds);
  /* A leak of 64 bytes a round would show as 600 kB. */
  CHECK(after - before < 500);
  return failures > 0 ? 1 : 0;
}
