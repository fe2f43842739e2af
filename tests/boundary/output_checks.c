/* What comes out of a fit: JSON, typed arrays and scalars, and the asking for sizes. */
#include "checks.h"
#include "host.h"

static void* fitted(void)
{
  void* handle = new_trial();
  CHECK(process(&handle, MODEL) <= 0);
  if (status > 0) fprintf(stderr, "the trial does not fit: %s\n", errors_of(&handle));
  return handle;
}

static void json_sizes(void** handle)
{
  static char text[200000];
  int32_t length = 0;
  ctlv_output_json(&status, handle, "TABLE_VARCOMP", 13, NULL, &length);
  CHECK_INT(status, 4);
  CHECK(length > 100 && length < (int32_t)sizeof text);
  const int32_t needed = length;

  length = needed - 1;
  memset(text, '#', sizeof text);
  ctlv_output_json(&status, handle, "table_varcomp", 13, text, &length);
  CHECK_INT(status, 4);
  CHECK_INT(length, needed);
  CHECK(text[0] == '#');
  ctlv_output_json(&status, handle, "Table_Varcomp  ", 15, text, &length);
  CHECK_INT(status, 0);
  CHECK_INT(length, needed);
  CHECK_INT(strlen(text) + 1, needed);
  CHECK(text[needed] == '#');
  CHECK_HAS(text, "{\"TABLE_VARCOMP\":{");

  /* A buffer that was not given holds nothing, whatever its length is said to be. */
  length = needed;
  ctlv_output_json(&status, handle, "TABLE_VARCOMP", 13, NULL, &length);
  CHECK_INT(status, 4);
  length = -5;
  ctlv_output_json(&status, handle, "TABLE_VARCOMP", 13, text, &length);
  CHECK_INT(status, 4);
  CHECK_INT(length, needed);
}

static void json_ids(void** handle)
{
  CHECK_HAS(json_of(handle, "AVAILABLE_OUTPUT"), "TABLE_SLN");
  CHECK_HAS(json_of(handle, "available_output_full:table_varcomp:sigma"), "SIGMA");
  CHECK_HAS(json_of(handle, "TABLE_VARCOMP:SIGMA"), "\"values\":[");
  CHECK_HAS(json_of(handle, "SCALAR_LOGLIK"), "\"value\":");
  CHECK_HAS(json_of(handle, "INPUT_JSON:MODEL:RANDOM"), "block");
  CHECK(strcmp(json_of(handle, "INPUT_JSON:MODEL:FIXED:TERMS:1"), "\"mu\"") == 0);
  CHECK_HAS(json_of(handle, "STANDARDISED_JSON"), "\"mu\"");
  CHECK_HAS(json_of(handle, "CURRENT_OPTIONS"), "debug_level");

  static const char* const absent[] = {"TABLE_NONE",       "TABLE_VARCOMP:NONE",  "",       "INPUT_JSON:NONE",
                                       "SCALAR_LOGLIK:X",  "CURRENT_OPTIONS:X",   "TABLE_NONE:OPTIONAL"};
  for (size_t k = 0; k < sizeof absent / sizeof absent[0]; ++k) {
    CHECK(strcmp(json_of(handle, absent[k]), "") == 0);
    if (status != 4) fprintf(stderr, "ID \"%s\"\n", absent[k]);
    CHECK_INT(status, 4);
  }
  json_of(handle, "table_none");
  CHECK_HAS(errors_of(handle), "the output information with ID TABLE_NONE can not be output via JSON");
  json_of(handle, "optional:TABLE_NONE");
  CHECK_INT(status, 0);
  CHECK(strcmp(json_of(handle, "OPTIONAL:INPUT_JSON:NONE"), "") == 0);
  CHECK_INT(status, 0);
  CHECK_HAS(json_of(handle, "OPTIONAL:TABLE_VARCOMP"), "TABLE_VARCOMP");
}

static void columns(void** handle)
{
  double values[2] = {-1.0, -1.0};
  int32_t count = 0;
  ctlv_output_real(&status, handle, "table_varcomp:sigma", 19, NULL, &count);
  CHECK_INT(status, 0);
  CHECK_INT(count, 2);
  count = 1;
  ctlv_output_real(&status, handle, "table_varcomp:sigma", 19, values, &count);
  CHECK_INT(status, 0);
  CHECK_INT(count, 2);
  CHECK(values[0] == -1.0);
  ctlv_output_real(&status, handle, "table_varcomp:sigma", 19, values, &count);
  CHECK(values[0] > 0.0 && values[1] > 0.0);

  count = 5;
  ctlv_output_real(&status, handle, "TABLE_NONE", 10, values, &count);
  CHECK_INT(status, 4);
  CHECK_HAS(errors_of(handle), "the output information with ID TABLE_NONE does not exist");
  ctlv_output_real(&status, handle, "TABLE_VARCOMP:NONE", 18, values, &count);
  CHECK_INT(status, 4);
  CHECK_HAS(errors_of(handle), "does not exist");

  int32_t df[64];
  count = 64;
  ctlv_output_integer(&status, handle, "TABLE_TRACE:DF", 14, df, &count);
  CHECK_INT(status, 0);
  CHECK(count > 1);
  CHECK_INT(df[0], 9);
}

static void whole_table(void** handle)
{
  static double reals[500];
  static int32_t integers[500];
  static char text[5000];
  int32_t n_reals = 0, n_integers = 0, length = 0;
  ctlv_output_table_data(&status, handle, "TABLE_SLN", 9, NULL, &n_reals, NULL, &n_integers, NULL, &length);
  CHECK_INT(status, 0);
  CHECK(n_reals > 0 && length > 10 && length < 4000);
  const int32_t needed = length, needed_reals = n_reals;

  /* One capacity too small: nothing of anything. */
  reals[0] = -77.0;
  text[0] = '#';
  length = needed - 1;
  n_reals = n_integers = 500;
  ctlv_output_table_data(&status, handle, "TABLE_SLN", 9, reals, &n_reals, integers, &n_integers, text, &length);
  CHECK_INT(status, 0);
  CHECK_INT(length, needed);
  CHECK_INT(n_reals, needed_reals);
  CHECK(reals[0] == -77.0 && text[0] == '#');

  /* Exactly as long as the text: its last byte gives way to the NUL. */
  length = needed;
  n_reals = n_integers = 500;
  ctlv_output_table_data(&status, handle, "TABLE_SLN", 9, reals, &n_reals, integers, &n_integers, text, &length);
  CHECK(reals[0] != -77.0);
  CHECK_INT(strlen(text), needed - 1);
  length = needed + 1;
  n_reals = n_integers = 500;
  ctlv_output_table_data(&status, handle, "TABLE_SLN", 9, reals, &n_reals, integers, &n_integers, text, &length);
  CHECK_INT(strlen(text), needed);
  CHECK_INT(length, needed);
}

static void scalars(void** handle)
{
  double logl = 1e30;
  int32_t df = -1;
  ctlv_output_real_scalar(&status, handle, "scalar_loglik", 13, &logl);
  CHECK_INT(status, 0);
  CHECK(logl < 0.0);
  ctlv_output_integer_scalar(&status, handle, "SCALAR_CONVERGENCE_FLG", 22, &df);
  CHECK_INT(status, 0);
  CHECK_INT(df, 0);
  df = -1;
  ctlv_output_integer_scalar(&status, handle, "SCALAR_LOGLIK", 13, &df);
  CHECK_INT(status, 4);
  CHECK_INT(df, -1);
  CHECK_HAS(errors_of(handle),
            "the output information with ID SCALAR_LOGLIK can not be output via this call due to its type");
  ctlv_output_real_scalar(&status, handle, "SCALAR_NONE", 11, &logl);
  CHECK_INT(status, 4);
  CHECK_HAS(errors_of(handle), "the output information with ID SCALAR_NONE does not exist");
}

int output_checks(void)
{
  void* handle = fitted();
  json_sizes(&handle);
  json_ids(&handle);
  columns(&handle);
  whole_table(&handle);
  scalars(&handle);
  ctlv_cleanup(&handle);
  return failures;
}
