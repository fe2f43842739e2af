/* The boundary as a C host sees it. */
#include <stdio.h>

int handle_checks(void);
int input_checks(void);
int output_checks(void);
int run_checks(void);

int main(void)
{
  const int failures = handle_checks() + input_checks() + output_checks() + run_checks();
  if (failures > 0) fprintf(stderr, "%d checks failed\n", failures);
  return failures > 0 ? 1 : 0;
}
