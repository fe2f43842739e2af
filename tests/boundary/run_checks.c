/* Runs: status and messages, repeated runs, the monitor, what is not built, the debug prints, the files of a run. */
#include <fcntl.h>
#include <unistd.h>

#include "checks.h"
#include "host.h"

static int exists(const char* name) { return access(name, F_OK) == 0; }

static void no_model(void)
{
  void* handle = new_handle("TLV");
  CHECK_INT(process(&handle, ""), 4);
  CHECK_HAS(errors_of(&handle), "model is required but was not found in");
  CHECK_INT(process(&handle, "{\"model\":{\"response\":\"y\"}}"), 4);
  int32_t length = 77;
  ctlv_check(&status, &handle, NULL, &length);
  CHECK_INT(status, 0);
  CHECK_INT(length, 0);
  ctlv_cleanup(&handle);
}

static void repeated_runs(void)
{
  void* handle = new_trial();
  CHECK(process(&handle, MODEL) <= 0);
  double first = 0.0, second = 1.0;
  ctlv_output_real_scalar(&status, &handle, "SCALAR_LOGLIK", 13, &first);

  /* The documents stay, the call's own text does not, the tables are replaced. */
  CHECK_INT(process(&handle, ""), 4);
  CHECK_HAS(errors_of(&handle), "model is required");
  CHECK(process(&handle, MODEL) <= 0);
  ctlv_output_real_scalar(&status, &handle, "SCALAR_LOGLIK", 13, &second);
  CHECK(first == second);

  /* A request that cannot be merged leaves the old tables, one that fails later does not. */
  CHECK_INT(process(&handle, "{\"title\":\"a\",\"title\":\"b\"}"), 4);
  CHECK_HAS(errors_of(&handle), "title");
  CHECK_HAS(errors_of(&handle), "ehc_invalid_json");
  CHECK_HAS(json_of(&handle, "OPTIONAL:TABLE_VARCOMP"), "SIGMA");
  CHECK_INT(process(&handle, "{\"model\":{\"response\":\"y\",\"fixed\":\"treat\",\"random\":\"nobody\"}}"), 4);
  CHECK(strcmp(json_of(&handle, "OPTIONAL:TABLE_VARCOMP"), "") == 0);
  CHECK_HAS(json_of(&handle, "SCALAR_FINAL_MESSAGE"), "Terminated early");
  CHECK_HAS(json_of(&handle, "SCALAR_CONVERGENCE_FLG"), "1");
  ctlv_cleanup(&handle);
}

static void preprocessing(void)
{
  void* handle = new_trial();
  CHECK(process(&handle, PREPROCESS) <= 0);
  CHECK_HAS(json_of(&handle, "SCALAR_FINAL_MESSAGE"), "Terminated early whilst preprocessing");
  CHECK(strcmp(json_of(&handle, "OPTIONAL:TABLE_TRACE"), "") == 0);
  CHECK_HAS(json_of(&handle, "INPUT_JSON:MODEL:FIXED"), "mu");
  ctlv_cleanup(&handle);
}

/* More messages than the first room for them. */
static void unknown_options(void)
{
  char request[2000] = "{\"model\":{\"response\":\"y\"},\"options\":{\"process_stage\":\"preprocess\"";
  for (int k = 1; k <= 21; ++k) {
    char option[40];
    snprintf(option, sizeof option, ",\"unknown%d\":%d", k, k);
    strcat(request, option);
  }
  strcat(request, "}}");
  void* handle = new_trial();
  CHECK_INT(process(&handle, request), -3);
  CHECK_INT(occurrences(errors_of(&handle), "is not a recognised key"), 21);
  CHECK_INT(occurrences(errors_of(&handle), "\"ecode\":4"), 21);
  CHECK_HAS(errors_of(&handle), "options.unknown21 is not a recognised key");
  CHECK_HAS(errors_of(&handle), "\"terminate\":false");
  ctlv_cleanup(&handle);
}

static int calls = 0;
static int32_t answer = 0;

static void monitor(int32_t* result, const char* json, int32_t length)
{
  ++calls;
  CHECK_INT(*result, 0);
  CHECK_INT(strlen(json) + 1, length);
  CHECK_HAS(json, "\"moninfo_type\":\"trace\"");
  CHECK_HAS(json, "\"gammas\":[");
  *result = answer;
}

static void monitored_runs(void)
{
  void* handle = new_trial();
  ctlv_register_function(&status, &handle, monitor, "MONITOR_FUNCTION", 16);
  CHECK(process(&handle, MODEL) <= 0);
  CHECK(calls > 2);

  /* Asking to finish at every iteration leaves one message. */
  calls = 0;
  answer = -4;
  CHECK_INT(process(&handle, MODEL), -5);
  CHECK(calls >= 1);
  CHECK_INT(occurrences(errors_of(&handle), "User sent a finish code, code = -4"), 1);
  CHECK_HAS(json_of(&handle, "OPTIONAL:TABLE_VARCOMP"), "SIGMA");

  calls = 0;
  answer = 3;
  CHECK_INT(process(&handle, MODEL), 5);
  CHECK_INT(calls, 1);
  CHECK_HAS(errors_of(&handle), "User sent an abort code, code = 3");

  answer = 0;
  calls = 0;
  ctlv_register_function(&status, &handle, NULL, "MONITOR_FUNCTION", 16);
  CHECK(process(&handle, MODEL) <= 0);
  CHECK_INT(calls, 0);
  ctlv_cleanup(&handle);
}

static char printed[2000000];

/* Runs with standard output in a file and reads it back. */
static void capture(void (*work)(void**), void** handle)
{
  fflush(stdout);
  const int kept = dup(1);
  const int file = open("boundary_printed.txt", O_RDWR | O_CREAT | O_TRUNC, 0600);
  dup2(file, 1);
  work(handle);
  fflush(stdout);
  dup2(kept, 1);
  close(kept);
  lseek(file, 0, SEEK_SET);
  const ssize_t n = read(file, printed, sizeof printed - 1);
  printed[n > 0 ? n : 0] = '\0';
  close(file);
  unlink("boundary_printed.txt");
}

static void run_with_all_prints(void** handle)
{
  info(handle, "{\"options\":{\"debug_level\":1023}}");
  info(handle, "{\"comments\":\"echoed\"}");
  process(handle, MODEL);
}

static void fail_on_input(void** handle)
{
  info(handle, "{\"api_options\":{\"debug_level\":8}}");
  info(handle, "{");
}

static void fail_on_data(void** handle) { matrix(handle, "d", NULL, 1, 1); }

static void debug_prints(void)
{
  void* failing = new_handle("TLV");
  capture(fail_on_input, &failing);
  CHECK_HAS(printed, "invalid JSON");
  capture(fail_on_data, &failing);
  CHECK_HAS(printed, "the values of dataset d are not there");
  ctlv_cleanup(&failing);

  void* handle = new_trial();
  capture(run_with_all_prints, &handle);
  CHECK(status <= 0);
  static const char* const headings[] = {"STANDARDISED JSON",    "USER SUPPLIED DATA", "JUST PRIOR TO AIWORK",
                                         "{\"comments\":\"echoed\"}", "ALL OUTPUT",         "Running Total (",
                                         "END OF AIDATA_BODY",   "DATA SUMMARY",       "Terminate     : F"};
  for (size_t k = 0; k < sizeof headings / sizeof headings[0]; ++k) CHECK_HAS(printed, headings[k]);
  capture(ctlv_dump, &handle);
  CHECK_HAS(printed, "TLV_OBJECT");
  CHECK_HAS(printed, "TABLE_VARCOMP");

  info(&handle, "{\"options\":{\"debug_level\":0}}");
  void* quiet = new_trial();
  capture(ctlv_cleanup, &handle);
  CHECK_INT(strlen(printed), 0);
  ctlv_cleanup(&quiet);
}

/* Side files go when the request itself asks for it; saved parameters and other roots stay. */
static void side_files(void)
{
  static const char* const gone[] = {"bdry.csv", "bdry.tvk", "bdry.res", "bdry.aov", "fort.19", "fort.7"};
  static const char* const stays[] = {"bdry.msv", "bdry.xyz", "bdry2.res"};
  for (int round = 0; round < 2; ++round) {
    for (int k = 0; k < 6; ++k) fclose(fopen(gone[k], "w"));
    for (int k = 0; k < 3; ++k) fclose(fopen(stays[k], "w"));
    void* handle = new_trial();
    if (round == 0) {
      CHECK(process(&handle, PREPROCESS) <= 0);
    } else {
      info(&handle, "{\"options\":{\"tmp_file_root\":\"bdry\",\"clean_up_sa_files\":true}}");
      CHECK(process(&handle, PREPROCESS) <= 0);
    }
    for (int k = 0; k < 6; ++k) CHECK_INT(exists(gone[k]), round == 0);
    for (int k = 0; k < 3; ++k) CHECK(exists(stays[k]));
    ctlv_cleanup(&handle);
  }
  for (int k = 0; k < 3; ++k) unlink(stays[k]);
}

/* What is not built, or can not be meant, ends a run with a message that names it. */
static void refusals(void)
{
#define WITH(part) "{\"model\":{\"response\":\"y\",\"random\":\"block\"" part "}"
  static const struct {
    const char *request, *told, *code;
  } rows[] = {
      {WITH(",\"vcm\":[{\"values\":[1]}]") "}", "was expecting either a name or ID number in each of the VCM entries",
       "ehc_invalid_input"},
      {WITH(",\"vcc_constraint\":[\"a\"]") "}", "constraint term a is not in the model", "ehc_invalid_input"},
      {"{\"model\":{\"response\":\"y\",\"random\":\"vm(block,G)\"}}", "no data were supplied for dataset G", "ehc_invalid_input"},
      {WITH("") ",\"grm_file\":[{\"name\":\"G\",\"type\":\"ft_csv\"}]}", "unable to open file G", "ehc_io_error"},
      {WITH("") ",\"marker_file\":[{\"name\":\"G\"}]}", "failed to open GRR file G", "ehc_io_error"},
      {WITH("") ",\"options\":{\"varscale\":\"2\"}}", "the option varscale is implemented for 0 and 1", "\"ecode\":4"},
      {WITH("") ",\"options\":{\"varscale\":[2]}}", "the option varscale is implemented for 0 and 1", "\"ecode\":4"},
      {WITH("") ",\"options\":{\"varscale\":-1}}", "the option varscale is implemented for 0 and 1", "\"ecode\":4"},
      {WITH("") ",\"options\":{\"ddf\":\"1\"}}", "the option ddf is not implemented", "\"ecode\":4"},
      {WITH("") ",\"options\":{\"screen\":[[\"2\"]]}}", "the option screen is not implemented", "\"ecode\":4"},
      {WITH("") ",\"options\":{\"extra\":1,\"extra\":2}}", "the key extra was supplied more than once in options",
       "ehc_invalid_json"},
      {WITH("") ",\"options\":{},\"options\":{}}", "the key options was supplied more than once in the request",
       "ehc_invalid_json"},
      {WITH(",\"fixed\":{\"terms\":[{\"term_name\":\"a\",\"term_name\":\"b\"}]}") "}",
       "the key term_name was supplied more than once in model.fixed.terms[1]", "ehc_invalid_json"},
  };
  void* handle = new_trial();
  for (size_t k = 0; k < sizeof rows / sizeof rows[0]; ++k) {
    CHECK_INT(process(&handle, rows[k].request), 4);
    CHECK_HAS(errors_of(&handle), rows[k].told);
    CHECK_HAS(errors_of(&handle), rows[k].code);
  }
  /* Values that ask for nothing pass, and a later document takes the place of an earlier one. */
  info(&handle, "{\"options\":{\"ddf\":\"0\",\"varscale\":[\"1\"],\"extra\":1}}");
  CHECK(process(&handle, WITH("") ",\"options\":{\"extra\":2}}") <= 0);
  CHECK(strcmp(json_of(&handle, "INPUT_JSON:OPTIONS"), "{\"ddf\":\"0\",\"varscale\":[\"1\"],\"extra\":2}") == 0);
  ctlv_cleanup(&handle);
#undef WITH
}

int run_checks(void)
{
  refusals();
  no_model();
  repeated_runs();
  preprocessing();
  unknown_options();
  monitored_runs();
  debug_prints();
  side_files();
  return failures;
}
