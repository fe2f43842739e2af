// Compiles if the header serves C++ as well.
#include "tolvan/tolvan_api.h"

ctlv_monitor_function monitor_of_a_host(ctlv_monitor_function function) { return function; }
