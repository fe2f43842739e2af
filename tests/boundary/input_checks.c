/* What goes in: documents, matrices, callbacks, into each kind of object. */
#include <math.h>

#include "checks.h"
#include "host.h"

static void documents(void)
{
  void* handle = new_handle("TLV");
  CHECK_INT(info(&handle, "{\"title\":\"first\"}"), 0);

  /* Refused at once and not kept; the object lives on. */
  CHECK_INT(info(&handle, "{\"comments\":\"lost\""), 4);
  CHECK_HAS(errors_of(&handle), "ehc_invalid_json");
  CHECK_HAS(errors_of(&handle), "position");
  CHECK_INT(info(&handle, "[1,2]"), 4);
  CHECK_INT(info(&handle, ""), 4);
  CHECK(strcmp(json_of(&handle, "INPUT_JSON"), "{\"title\":\"first\"}") == 0);

  /* A text ends at its first NUL, whatever length is told. */
  ctlv_input_info(&status, &handle, "{\"part_id\":7}\0]]", 16);
  CHECK_INT(status, 0);
  CHECK(strcmp(json_of(&handle, "INPUT_JSON:PART_ID"), "7") == 0);
  ctlv_input_info(&status, &handle, "{}garbage behind the length", 2);
  CHECK_INT(status, 0);

  /* A clean call leaves the messages of the last one that had some. */
  CHECK_INT(info(&handle, "nonsense"), 4);
  CHECK_INT(info(&handle, "{}"), 0);
  CHECK_HAS(errors_of(&handle), "CTLV_INPUT_INFO");
  CHECK_HAS(errors_of(&handle), "\"stack\":[\"CTLV_INPUT_INFO\"]");
  ctlv_cleanup(&handle);
}

static void deep_document(void)
{
  enum { depth = 1000000 };
  char* text = malloc(depth);
  memset(text, '[', depth);
  void* handle = new_handle("TLV");
  ctlv_input_info(&status, &handle, text, depth);
  CHECK_INT(status, 4);
  CHECK_HAS(errors_of(&handle), "JSON is nested deeper than 1000 levels at position 1001");
  ctlv_process(&status, &handle, text, depth);
  CHECK_INT(status, 4);
  CHECK_HAS(errors_of(&handle), "additional JSON file");
  ctlv_cleanup(&handle);
  free(text);
}

static void settings(void)
{
  void* handle = new_handle("TLV");
  CHECK(strcmp(json_of(&handle, "CURRENT_OPTIONS"),
               "{\"options\":{\"clean_up_sa_files\":true,\"debug_level\":0,\"tmp_file_root\":\"TEMP_SOMETHING\"}}") == 0);
  CHECK_INT(info(&handle, "{\"api_options\":{\"debug_level\":2},\"options\":{\"tmp_file_root\":\"R\"}}"), 0);
  CHECK_HAS(json_of(&handle, "current_options"), "\"debug_level\":2,\"tmp_file_root\":\"R\"");

  /* What api_options does not know is complained of; a bad value changes nothing. */
  CHECK_INT(info(&handle, "{\"api_options\":{\"tricks\":1,\"debug_level\":0}}"), -3);
  CHECK_HAS(errors_of(&handle), "api_options.tricks");
  CHECK_INT(info(&handle, "{\"api_options\":{\"debug_level\":8,\"clean_up_sa_files\":\"maybe\"}}"), 4);
  CHECK_HAS(json_of(&handle, "CURRENT_OPTIONS"), "\"debug_level\":0");
  ctlv_cleanup(&handle);
}

static void matrices(void)
{
  static const double values[4] = {1.0, 2.0, 3.0, 4.0};
  void* handle = new_handle("TLV");
  CHECK_INT(matrix(&handle, "d", values, 2, 2), 0);
  CHECK_INT(matrix(&handle, "d", values, 0, 2), 4);
  CHECK_INT(matrix(&handle, "d", values, 2, -1), 4);
  CHECK_INT(matrix(&handle, "d", NULL, 2, 2), 4);
  CHECK_INT(matrix(&handle, "{\"dataset\":{\"name\":\"e\",\"number_of_observations\":3,\"number_of_variables\":2}}",
                   values, 2, 2),
            4);
  CHECK_INT(matrix(&handle, "{\"dataset\":{\"name\":\"e\",\"number_of_observations\":2,\"number_of_variables\":2}}",
                   values, 2, 2),
            0);
  CHECK_HAS(json_of(&handle, "INPUT_JSON:DATASET:NAME"), "e");

  double infinite[4] = {1.0, 2.0, 3.0, 4.0};
  infinite[3] = HUGE_VAL;
  void* trial = new_handle("TLV");
  info(&trial, "{\"dataset\":{\"name\":\"far\",\"number_of_observations\":2,\"storage_order\":\"so_row_major\","
               "\"variables\":[{\"name\":\"x\"},{\"name\":\"y\"}]},\"model\":{\"response\":\"y\"}}");
  int32_t s = matrix(&trial, "far", infinite, 2, 2);
  if (s == 0) s = process(&trial, "");
  CHECK_INT(s, 4);
  const char* told = errors_of(&trial);
  CHECK_HAS(told, "far");
  CHECK_HAS(told, "y");
  CHECK_HAS(told, "2");
  ctlv_cleanup(&trial);
  ctlv_cleanup(&handle);
}

static void monitor_of_nothing(int32_t* result, const char* json, int32_t length)
{
  (void)result;
  (void)json;
  (void)length;
}

static int32_t registered(void** handle, ctlv_monitor_function function, const char* kind)
{
  ctlv_register_function(&status, handle, function, kind, (int32_t)strlen(kind));
  return status;
}

static void callbacks(void)
{
  void* handle = new_handle("TLV");
  CHECK_INT(registered(&handle, monitor_of_nothing, "monitor_function  "), 0);
  CHECK_INT(registered(&handle, NULL, "MONITOR_FUNCTION"), 0);
  CHECK_INT(registered(&handle, monitor_of_nothing, "alarm"), 4);
  CHECK_HAS(errors_of(&handle), "ALARM is an unknown function type");
  CHECK_HAS(errors_of(&handle), "\"ecode\":6");
  ctlv_cleanup(&handle);
}

static void ainverse_object(void)
{
  void* handle = new_handle("AINV");
  char text[2000];
  int32_t length = 0;

  /* The check: 4 whether or not its document fitted. */
  ctlv_check(&status, &handle, NULL, &length);
  CHECK_INT(status, 4);
  CHECK(length > 1 && length < (int32_t)sizeof text);
  const int32_t needed = length;
  length = needed - 1;
  memset(text, '#', sizeof text);
  ctlv_check(&status, &handle, text, &length);
  CHECK_INT(status, 4);
  CHECK_INT(length, needed);
  CHECK(text[0] == '#');
  ctlv_check(&status, &handle, text, &length);
  CHECK_INT(status, 4);
  CHECK_INT(strlen(text) + 1, needed);
  CHECK_HAS(text, "no information on the pedigree has been supplied");

  CHECK_INT(process(&handle, ""), 4);
  CHECK_HAS(errors_of(&handle), "no information on the pedigree");
  CHECK_INT(info(&handle, "{\"id\":[1,2]}"), 0);
  CHECK_INT(info(&handle, "stored unread"), 0);
  CHECK_INT(process(&handle, ""), 4);
  CHECK_HAS(errors_of(&handle), "ehc_invalid_json");

  /* A pedigree that is out of order works with a note; a clean one leaves tables and scalars. */
  CHECK_INT(info(&handle, "{\"id\":[\"x\",\"s\",\"d\"],\"male\":[\"s\",0,0],\"female\":[\"d\",0,0]}"), 0);
  CHECK_INT(process(&handle, ""), -1);
  CHECK_HAS(errors_of(&handle), "Some parents had to be moved to come before their progeny:");
  CHECK_INT(info(&handle, "{\"id\":[1,2,3],\"male\":[0,0,1],\"female\":[0,0,2]}"), 0);
  CHECK_INT(process(&handle, ""), 0);
  CHECK_HAS(json_of(&handle, "TABLE_AINV_UID:UID"), "\"values\":[\"1\",\"2\",\"3\"]");
  int32_t inverted = 0;
  ctlv_output_integer_scalar(&status, &handle, "SCALAR_INVERTED", 15, &inverted);
  CHECK_INT(inverted, 1);
  double logdet = 0.0;
  ctlv_output_real_scalar(&status, &handle, "scalar_logdet", 13, &logdet);
  CHECK(logdet > 0.6931471 && logdet < 0.6931472); /* -ln 0.5 */
  ctlv_output_real_scalar(&status, &handle, "SCALAR_INVERTED", 15, &logdet);
  CHECK_INT(status, 4);
  double values[6];
  int32_t elements = 6;
  ctlv_output_real(&status, &handle, "TABLE_AINV_A:VALUES", 19, values, &elements);
  CHECK_INT(elements, 6);
  CHECK(values[2] == 2.0 && values[3] == 0.5 && values[4] == -1.0);
  CHECK_INT(info(&handle, ""), 0);
  CHECK_INT(process(&handle, ""), 4);
  json_of(&handle, "TABLE_AINV_A");
  CHECK_INT(status, 4);
  CHECK_INT(matrix(&handle, "d", trial_values, 2, 2), 999);
  CHECK_HAS(errors_of(&handle), "an ainv object does not take any 2D reall arrays");
  CHECK_INT(registered(&handle, NULL, "MONITOR_FUNCTION"), 4);
  CHECK_HAS(errors_of(&handle), "it is not valid to register a function to a handle holding an ainv object");
  CHECK(strcmp(json_of(&handle, "INPUT_JSON"), "") == 0);
  CHECK_INT(status, 4);
  ctlv_cleanup(&handle);
}

static void information_object(void)
{
  void* handle = new_handle("GENERAL_INFO");
  const char* version = json_of(&handle, "version_information");
  CHECK_HAS(version, "{\"version_information\":{\"number\":{\"major\":1,\"minor\":0,\"patch\":0,\"build\":");
  CHECK_HAS(version, "\"product_name\":\"tolvan_p\",\"year\":2");
  CHECK(strcmp(errors_of(&handle), "{\"error_information\":{\"terminate\":false}}") == 0);
  CHECK_INT(info(&handle, "{}"), 999);
  CHECK_HAS(errors_of(&handle), "Unknown handle");
  CHECK_INT(process(&handle, ""), 999);
  CHECK_INT(matrix(&handle, "d", trial_values, 1, 1), 999);
  CHECK_INT(registered(&handle, NULL, "MONITOR_FUNCTION"), 999);
  int32_t length = 0;
  ctlv_check(&status, &handle, NULL, &length);
  CHECK_INT(status, 4);
  CHECK(length > 0);
  json_of(&handle, "AVAILABLE_OUTPUT");
  CHECK_INT(status, 4);
  json_of(&handle, "OPTIONAL:AVAILABLE_OUTPUT");
  CHECK_INT(status, 0);
  ctlv_cleanup(&handle);
}

int input_checks(void)
{
  documents();
  deep_document();
  settings();
  matrices();
  callbacks();
  ainverse_object();
  information_object();
  return failures;
}
