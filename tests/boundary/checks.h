/* The checks of the boundary programs: a failed one tells its line and goes on, and the program ends with 1. */
#ifndef CHECKS_H
#define CHECKS_H

#include <stdio.h>
#include <string.h>

static int failures = 0;

#define CHECK(condition)                                                      \
  do {                                                                        \
    if (!(condition)) {                                                       \
      fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #condition); \
      ++failures;                                                             \
    }                                                                         \
  } while (0)

#define CHECK_INT(actual, expected)                                                                     \
  do {                                                                                                  \
    const long actual_ = (long)(actual), expected_ = (long)(expected);                                  \
    if (actual_ != expected_) {                                                                         \
      fprintf(stderr, "%s:%d: %s is %ld, not %ld\n", __FILE__, __LINE__, #actual, actual_, expected_);  \
      ++failures;                                                                                       \
    }                                                                                                   \
  } while (0)

#define CHECK_HAS(text, part)                                                                   \
  do {                                                                                          \
    const char* text_ = (text);                                                                 \
    if (strstr(text_, (part)) == NULL) {                                                        \
      fprintf(stderr, "%s:%d: no \"%s\" in: %.600s\n", __FILE__, __LINE__, (part), text_);      \
      ++failures;                                                                               \
    }                                                                                           \
  } while (0)

#endif
