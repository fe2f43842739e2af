/* Compiles if the header is plain C99 by itself; every export must have the shape that hosts declare. */
#include "tolvan/tolvan_api.h"

void header_test(void)
{
  void (*initialise)(int32_t*, void**, const char*, int32_t) = ctlv_initialise;
  void (*cleanup)(void**) = ctlv_cleanup;
  void (*check)(int32_t*, void**, char*, int32_t*) = ctlv_check;
  void (*input)(int32_t*, void**, const char*, int32_t, const double*, const int32_t*, const int32_t*) =
      ctlv_input_real_2d;
  void (*table)(int32_t*, void**, const char*, int32_t, double*, int32_t*, int32_t*, int32_t*, char*, int32_t*) =
      ctlv_output_table_data;
  (void)initialise;
  (void)cleanup;
  (void)check;
  (void)input;
  (void)table;
}
