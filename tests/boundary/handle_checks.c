/* Handles: what ctlv_initialise makes, and what every export says to a handle that is none. */
#include "checks.h"
#include "host.h"

typedef struct {
  int64_t magic, type;
  void* object;
} Record;

enum { exports_with_status = 12 };

/* Calls an export by number with nothing but a handle, everything else valid; gives its status. */
static int32_t call_export(int which, void** handle)
{
  double real = 0.0;
  int32_t integer = 0, count = 1, real_count = 1, length = 8, rows = 1, columns = 1;
  char text[8];
  int32_t s = 77;
  switch (which) {
    case 0: ctlv_check(&s, handle, text, &length); break;
    case 1: ctlv_input_info(&s, handle, "{}", 2); break;
    case 2: ctlv_input_real_2d(&s, handle, "d", 1, &real, &rows, &columns); break;
    case 3: ctlv_process(&s, handle, "", 0); break;
    case 4: ctlv_register_function(&s, handle, NULL, "MONITOR_FUNCTION", 16); break;
    case 5: ctlv_output_json(&s, handle, "ERROR_INFORMATION", 17, text, &length); break;
    case 6: ctlv_output_integer(&s, handle, "T", 1, &integer, &count); break;
    case 7: ctlv_output_real(&s, handle, "T", 1, &real, &count); break;
    case 8: ctlv_output_integer_scalar(&s, handle, "S", 1, &integer); break;
    case 9: ctlv_output_real_scalar(&s, handle, "S", 1, &real); break;
    case 10: ctlv_output_table_data(&s, handle, "T", 1, &real, &real_count, &integer, &count, text, &length); break;
    default: ctlv_check(&s, handle, NULL, NULL); break;
  }
  return s;
}

static void bad_handles(void)
{
  int64_t object = 0;
  Record no_object = {34252313, 111, NULL};
  Record unknown_type = {34252313, 555, &object};
  Record unknown_empty = {34252313, 555, NULL};
  Record bad_magic = {34252314, 111, &object};
  int64_t short_thing = 12;
  struct {
    void* value;
    int32_t expected;
  } cases[] = {{NULL, -888},         {&no_object, -888}, {&unknown_type, 0},
               {&unknown_empty, -888}, {&bad_magic, -999}, {&short_thing, -999}};
  for (size_t k = 0; k < sizeof cases / sizeof cases[0]; ++k) {
    for (int which = 0; which < exports_with_status; ++which) {
      void* handle = cases[k].value;
      const int32_t s = call_export(which, &handle);
      if (s != cases[k].expected) fprintf(stderr, "export %d, handle %d\n", which, (int)k);
      CHECK_INT(s, cases[k].expected);
      CHECK(handle == cases[k].value);
    }
    void* handle = cases[k].value;
    ctlv_dump(&handle);
    ctlv_cleanup(&handle);
    CHECK(handle == cases[k].value);
  }
  for (int which = 0; which < exports_with_status; ++which) CHECK_INT(call_export(which, NULL), -888);
  ctlv_cleanup(NULL);
  ctlv_dump(NULL);
}

static void initialise(void)
{
  static const struct {
    const char* type;
    int32_t length, status;
  } cases[] = {{"TLV", 3, 0},
               {"", 0, 0},
               {"tolvan", 6, 0},
               {"TLV   ", 6, 0},
               {"TLV\0nonsense", 12, 0},
               {"ainverse", 8, 0},
               {"general_info", 12, 0},
               {"{\"type\":\"ainv\"}", 15, 0},
               {"{\"other\":1,\"type\":\"tlv \"}", 26, 0},
               {" TLV", 4, 1},
               {"XYZ", 3, 1},
               {" {\"type\":\"TLV\"}", 15, 1},
               {"{}", 2, 2},
               {"{\"type\":3}", 10, 2},
               {"{\"type\":\"TLV\"", 13, 2},
               {"{\"type\":\"nobody\"}", 17, 1}};
  for (size_t k = 0; k < sizeof cases / sizeof cases[0]; ++k) {
    void* handle = NULL;
    int32_t s = 77;
    ctlv_initialise(&s, &handle, cases[k].type, cases[k].length);
    if (s != cases[k].status) fprintf(stderr, "type %s\n", cases[k].type);
    CHECK_INT(s, cases[k].status);
    CHECK((handle != NULL) == (cases[k].status == 0));
    ctlv_cleanup(&handle);
    CHECK(handle == NULL);
    ctlv_cleanup(&handle);
  }
  int32_t s = 77;
  void* handle = NULL;
  ctlv_initialise(&s, &handle, NULL, -3);
  CHECK_INT(s, 0);
  ctlv_cleanup(&handle);
  ctlv_initialise(&s, &handle, NULL, 3);
  CHECK_INT(s, 2);
  CHECK(handle == NULL);
  ctlv_initialise(&s, NULL, "TLV", 3);
  CHECK_INT(s, 2);
  ctlv_initialise(NULL, &handle, "TLV", 3);
  CHECK(handle != NULL);
  ctlv_cleanup(&handle);
}

static void initialise_over_a_handle(void)
{
  void* handle = new_handle("AINV");
  const int64_t* record = handle;
  CHECK_INT(record[0], 34252313);
  CHECK_INT(record[1], 222);

  /* Refused before anything is taken down. */
  const void* before = handle;
  ctlv_initialise(&status, &handle, "XYZ", 3);
  CHECK_INT(status, 1);
  CHECK(handle == before);
  CHECK_INT(info(&handle, "kept unread"), 0);

  ctlv_initialise(&status, &handle, "TLV", 3);
  CHECK_INT(status, 0);
  record = handle;
  CHECK_INT(record[1], 111);
  ctlv_cleanup(&handle);

  Record stranger = {1, 2, &stranger};
  handle = &stranger;
  ctlv_initialise(&status, &handle, "TLV", 3);
  CHECK_INT(status, 2);
  CHECK(handle == &stranger);

  Record emptied = {34252313, 111, NULL};
  handle = &emptied;
  ctlv_initialise(&status, &handle, "TLV", 3);
  CHECK_INT(status, 0);
  CHECK(handle != &emptied);
  ctlv_cleanup(&handle);
}

/* Null in place of everything but the handle. */
static void null_arguments(void)
{
  static const char* const types[] = {"TLV", "AINV", "GENERAL_INFO"};
  for (int k = 0; k < 3; ++k) {
    void* handle = new_handle(types[k]);
    const int32_t one = 1;
    ctlv_check(NULL, &handle, NULL, NULL);
    ctlv_input_info(NULL, &handle, NULL, 10);
    ctlv_input_real_2d(NULL, &handle, NULL, 10, NULL, NULL, NULL);
    ctlv_input_real_2d(NULL, &handle, "d", 1, NULL, &one, &one);
    ctlv_process(NULL, &handle, NULL, 10);
    ctlv_register_function(NULL, &handle, NULL, NULL, 10);
    ctlv_output_json(NULL, &handle, NULL, 10, NULL, NULL);
    ctlv_output_json(NULL, &handle, "ERROR_INFORMATION", 17, NULL, NULL);
    ctlv_output_integer(NULL, &handle, NULL, 10, NULL, NULL);
    ctlv_output_real(NULL, &handle, NULL, 10, NULL, NULL);
    ctlv_output_integer_scalar(NULL, &handle, NULL, 10, NULL);
    ctlv_output_real_scalar(NULL, &handle, NULL, 10, NULL);
    ctlv_output_table_data(NULL, &handle, NULL, 10, NULL, NULL, NULL, NULL, NULL, NULL);
    ctlv_cleanup(&handle);
    CHECK(handle == NULL);
  }
}

/* Two objects never see each other's state. */
static void two_handles(void)
{
  void* one = new_handle("TLV");
  void* two = new_handle("TLV");
  CHECK_INT(info(&one, "{\"options\":{\"debug_level\":1}}"), 0);
  CHECK_INT(info(&two, "{"), 4);
  CHECK_HAS(json_of(&two, "CURRENT_OPTIONS"), "\"debug_level\":0");
  CHECK_HAS(json_of(&one, "CURRENT_OPTIONS"), "\"debug_level\":1");
  CHECK(strstr(errors_of(&one), "messages") == NULL);
  ctlv_cleanup(&one);
  CHECK_HAS(errors_of(&two), "messages");
  ctlv_cleanup(&two);
}

int handle_checks(void)
{
  initialise();
  initialise_over_a_handle();
  bad_handles();
  null_arguments();
  two_handles();
  return failures;
}
