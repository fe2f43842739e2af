/* tolvan_api.h: the interface of the tolvan engine, for C (C99 and later) and C++.
 *
 * The engine fits linear mixed models by restricted maximum likelihood.  A host obtains a handle, feeds it
 * JSON documents and numeric matrices, asks it to process, and reads tables and scalars out of it by name:
 *
 *     int32_t status = 0;
 *     void* handle = NULL;
 *     ctlv_initialise(&status, &handle, "TLV", 3);
 *     ctlv_input_info(&status, &handle, document, document_length);
 *     ctlv_input_real_2d(&status, &handle, "trial", 5, values, &rows, &columns);
 *     ctlv_process(&status, &handle, request, request_length);
 *     ctlv_output_real_scalar(&status, &handle, "SCALAR_LOGLIK", 13, &loglik);
 *     ctlv_cleanup(&handle);
 *
 * What all calls share
 *
 * handle    The address of the caller's handle variable, never its value.  Set the variable to NULL before
 *           its first ctlv_initialise; ctlv_cleanup sets it to NULL again.  The handle belongs to the
 *           library.
 * status    Written by the call, never read:
 *              0      finished without any message
 *              < 0    finished, with messages: -1 notes, -2 notices, -3 warnings, -4 errors that stopped
 *                     nothing, -5 finished early by the monitor, -6 information
 *              > 0    failed: 4 error, 5 stopped by the monitor, 6 an error together with information,
 *                     999 internal
 *              -888   the handle variable is NULL, or its object is gone
 *              -999   the handle variable points at something that is no handle
 *           The number is the largest type among the messages.  ctlv_initialise has values of its own.
 *           After a call with messages they can be read as the output ERROR_INFORMATION, until the next
 *           call with messages; a clean call leaves them as they were.
 * text in   A pointer and a length in bytes.  The text ends at the first NUL within the length, or at the
 *           length if there is none; a length of 0 or less is the empty text, and the pointer may then be
 *           NULL.  UTF-8.  The library copies what it keeps.
 * IDs       An output is named by one or more parts joined with ':', in any case: "TABLE_VARCOMP",
 *           "table_varcomp:sigma".  With "OPTIONAL:" in front an absent output is no error.
 * sizes     Counts and lengths are in and out.  On entry a count is the capacity of the caller's array; on
 *           return it is what the output holds.  If the capacity is too small nothing is copied, so that a
 *           call with count 0 (the array may then be NULL) asks for the size, and a second one with room
 *           enough fetches the values.
 * missing   A missing number is TOLVAN_MISSING, in both directions.
 * threads   One call at a time in the whole process.  A handle may move between threads.  Inside
 *           ctlv_process the library uses threads of its own; the monitor runs on the thread that called.
 *
 * No call throws, and none ends the process.
 */
#ifndef TOLVAN_TOLVAN_API_H
#define TOLVAN_TOLVAN_API_H

#include <stdint.h>

#if defined(_WIN32)
#define TOLVAN_EXPORT __declspec(dllexport)
#elif defined(__GNUC__)
#define TOLVAN_EXPORT __attribute__((visibility("default")))
#else
#define TOLVAN_EXPORT
#endif

/* The missing value in data and results. */
#define TOLVAN_MISSING (-1e-37)

#ifdef __cplusplus
extern "C" {
#endif

/* The monitor: called once per iteration of a fit, on the thread that called ctlv_process.
 *
 *   result   0 on entry.  Leave it 0 to go on; a positive number stops the run with an error (status 5), a
 *            negative one finishes it after this iteration, results written (status -5).
 *   json     a JSON object with the state of the iteration, NUL-terminated; it belongs to the library and
 *            lives until the monitor returns
 *   length   bytes of json, its NUL included
 *
 * The monitor must not call the library. */
typedef void (*ctlv_monitor_function)(int32_t* result, const char* json, int32_t length);

/* Creates an object and writes its handle.  A handle already in the variable is cleaned up first.
 *
 *   type     the kind of object, in any case: "TLV" or "TOLVAN" (a model fit), "AINV" or "AINVERSE" (the
 *            inverse of a pedigree's relationship matrix), "GENERAL_INFO" (versions); or a JSON object
 *            whose string `type` is one of these.  Empty is "TLV".
 *   status   0; 1 unknown kind (no handle is made, one already there stays); 2 the text can not be read,
 *            has no `type`, or the object could not be made */
TOLVAN_EXPORT void ctlv_initialise(int32_t* status, void** handle, const char* type, int32_t type_length);

/* Frees the object and all it holds, and sets the handle variable to NULL.  Harmless on NULL. */
TOLVAN_EXPORT void ctlv_cleanup(void** handle);

/* Checks what the object has been given so far, without processing; ctlv_process does the same first.
 *
 *   buffer   receives the error_information document (JSON, NUL-terminated) if the check left messages and
 *            it fits
 *   length   in: bytes of buffer; out: bytes needed, NUL included, 0 if there were no messages
 *   status   0, or 4 if there were messages, whether or not they fitted */
TOLVAN_EXPORT void ctlv_check(int32_t* status, void** handle, char* buffer, int32_t* length);

/* Prints the object on standard output, for debugging. */
TOLVAN_EXPORT void ctlv_dump(void** handle);

/* Gives the object one JSON document.  May be called many times: the documents are kept in order and merged
 * when ctlv_process runs.  A document that does not parse is refused.
 *
 *   json     an object whose keys are those of the request: `dataset`, `data_file`, `variables`, `model`,
 *            `options` ... */
TOLVAN_EXPORT void ctlv_input_info(int32_t* status, void** handle, const char* json, int32_t json_length);

/* Hands in the values of one dataset as a dense matrix, which is copied.  Not for an A-inverse object.
 *
 *   name     the name of a `dataset` described in some document, given before or after; or, if it starts
 *            with '{', a document with that one `dataset`
 *   values   rows x columns doubles in the `storage_order` of the description (by rows: so_row_major; by
 *            columns: so_column_major).  A row is a record, a column a variable.  A factor is given as
 *            level numbers from 1.  Missing: TOLVAN_MISSING or any NaN.
 *   rows, columns   both at least 1; read only */
TOLVAN_EXPORT void ctlv_input_real_2d(int32_t* status, void** handle, const char* name, int32_t name_length,
                                      const double* values, const int32_t* rows, const int32_t* columns);

/* Runs the object: for a model fit one whole analysis.  The results of an earlier run are dropped, the
 * inputs are kept, so that the call can be repeated.  On failure the tables written so far stay readable.
 *
 *   json     one more document, merged last and not kept; may be empty */
TOLVAN_EXPORT void ctlv_process(int32_t* status, void** handle, const char* json, int32_t json_length);

/* Registers a callback of a model fit, in place of an earlier one.
 *
 *   function   a ctlv_monitor_function; NULL switches monitoring off.  Must stay callable as long as the
 *              handle is used.
 *   kind       "MONITOR_FUNCTION", in any case */
TOLVAN_EXPORT void ctlv_register_function(int32_t* status, void** handle, ctlv_monitor_function function,
                                          const char* kind, int32_t kind_length);

/* Reads an output as JSON.
 *
 *   id       a table, TABLE:COLUMN, TABLE:TITLES, TABLE:FOOTNOTES or a scalar; AVAILABLE_OUTPUT or
 *            AVAILABLE_OUTPUT_FULL (the latter with values); ERROR_INFORMATION; INPUT_JSON, with the keys
 *            of a path as further parts; CURRENT_OPTIONS.  Of an information object: VERSION_INFORMATION,
 *            ERROR_INFORMATION.
 *   buffer   receives the text, NUL-terminated, if it fits
 *   length   in: bytes of buffer; out: bytes of the text, NUL included
 *   status   4 with length above 0: too small, nothing copied, call again with that many bytes;
 *            4 with length 0: there is no such output; with "OPTIONAL:" that is status 0 and length 0 */
TOLVAN_EXPORT void ctlv_output_json(int32_t* status, void** handle, const char* id, int32_t id_length,
                                    char* buffer, int32_t* length);

/* Reads integer columns of a table: one column by TABLE:COLUMN, or all of the table's, one after the other.
 *
 *   values   receives the values if the capacity suffices; numbers beyond 32 bits are clipped
 *   count    in: capacity of values; out: values in the output (status stays 0 when they did not fit) */
TOLVAN_EXPORT void ctlv_output_integer(int32_t* status, void** handle, const char* id, int32_t id_length,
                                       int32_t* values, int32_t* count);

/* Reads real columns of a table: as ctlv_output_integer, for doubles. */
TOLVAN_EXPORT void ctlv_output_real(int32_t* status, void** handle, const char* id, int32_t id_length,
                                    double* values, int32_t* count);

/* Reads an integer scalar; value is untouched on failure. */
TOLVAN_EXPORT void ctlv_output_integer_scalar(int32_t* status, void** handle, const char* id,
                                              int32_t id_length, int32_t* value);

/* Reads a real scalar; value is untouched on failure. */
TOLVAN_EXPORT void ctlv_output_real_scalar(int32_t* status, void** handle, const char* id, int32_t id_length,
                                           double* value);

/* Reads all columns of a table (or one, by TABLE:COLUMN) in one call: the reals, the integers and the
 * strings, each kind column after column, all rows of a column together.  Nothing is copied unless all
 * three capacities suffice.
 *
 *   reals, real_count         as in ctlv_output_real
 *   integers, integer_count   as in ctlv_output_integer
 *   strings                   receives the strings joined with blanks, NUL-terminated.  A buffer of exactly
 *                             the needed length loses the text's last byte to the NUL: give one byte more.
 *   string_length             in: bytes of strings; out: bytes of the joined text, without NUL */
TOLVAN_EXPORT void ctlv_output_table_data(int32_t* status, void** handle, const char* id, int32_t id_length,
                                          double* reals, int32_t* real_count, int32_t* integers,
                                          int32_t* integer_count, char* strings, int32_t* string_length);

#ifdef __cplusplus
}
#endif

#endif
