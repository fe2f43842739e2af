/* A small host: the exports with the lengths filled in, and one request that fits. */
#ifndef HOST_H
#define HOST_H

#include <stdlib.h>
#include <string.h>

#include "tolvan/tolvan_api.h"

static int32_t status;

static inline void* new_handle(const char* type)
{
  void* handle = NULL;
  ctlv_initialise(&status, &handle, type, (int32_t)strlen(type));
  return handle;
}

static inline int32_t info(void** handle, const char* json)
{
  status = 77;
  ctlv_input_info(&status, handle, json, (int32_t)strlen(json));
  return status;
}

static inline int32_t process(void** handle, const char* json)
{
  status = 77;
  ctlv_process(&status, handle, json, (int32_t)strlen(json));
  return status;
}

static inline int32_t matrix(void** handle, const char* name, const double* values, int32_t rows, int32_t columns)
{
  status = 77;
  ctlv_input_real_2d(&status, handle, name, (int32_t)strlen(name), values, &rows, &columns);
  return status;
}

/* An output by the protocol: ask for the size, then fetch.  Empty if it is absent; the text lives until the next call. */
static inline const char* json_of(void** handle, const char* id)
{
  static char* text = NULL;
  int32_t length = 0;
  free(text);
  text = NULL;
  ctlv_output_json(&status, handle, id, (int32_t)strlen(id), NULL, &length);
  if (length <= 0) return "";
  text = malloc((size_t)length);
  ctlv_output_json(&status, handle, id, (int32_t)strlen(id), text, &length);
  return status > 0 ? "" : text;
}

static inline const char* errors_of(void** handle) { return json_of(handle, "ERROR_INFORMATION"); }

static inline int occurrences(const char* text, const char* part)
{
  int n = 0;
  for (text = strstr(text, part); text != NULL; text = strstr(text + 1, part)) ++n;
  return n;
}

/* Four blocks of three treatments. */
#define TRIAL                                                                                             \
  "{\"dataset\":{\"name\":\"trial\",\"number_of_observations\":12,\"storage_order\":\"so_row_major\","    \
  "\"variables\":[{\"name\":\"block\",\"field_type\":\"vt_integer_factor_1_to_n\",\"number_of_levels\":4}," \
  "{\"name\":\"treat\",\"field_type\":\"vt_integer_factor_1_to_n\",\"number_of_levels\":3},{\"name\":\"y\"}]}}"
#define MODEL "{\"model\":{\"response\":\"y\",\"fixed\":\"treat\",\"random\":\"block\"}}"
#define PREPROCESS \
  "{\"model\":{\"response\":\"y\",\"fixed\":\"treat\",\"random\":\"block\"},\"options\":{\"process_stage\":\"preprocess\"}}"

static const double trial_values[36] = {1, 1, 10.1, 1, 2, 12.4, 1, 3, 11.7, 2, 1, 13.0, 2, 2, 15.6, 2, 3, 13.8,
                                        3, 1, 9.2,  3, 2, 10.5, 3, 3, 10.9, 4, 1, 12.2, 4, 2, 14.9, 4, 3, 12.5};

/* A fit object that knows the trial and waits for a model. */
static inline void* new_trial(void)
{
  void* handle = new_handle("TLV");
  info(&handle, TRIAL);
  matrix(&handle, "trial", trial_values, 12, 3);
  return handle;
}

#endif
