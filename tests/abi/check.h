/* Checks of the programs that see the plug-in as a host does. A failed check is told and counted;
 * the program goes on and ends with a failure. */
#ifndef ORB_TESTS_ABI_CHECK_H
#define ORB_TESTS_ABI_CHECK_H

#include <stdio.h>
#include <string.h>

/* Number of failed checks so far. */
extern int failedChecks;

#define CHECK(condition)                                                      \
  do {                                                                        \
    if (!(condition)) {                                                       \
      failedChecks += 1;                                                      \
      fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #condition); \
    }                                                                         \
  } while (0)

#define CHECK_INT(actual, expected)                                                      \
  do {                                                                                   \
    const long long checkActual = (long long)(actual);                                   \
    const long long checkExpected = (long long)(expected);                               \
    if (checkActual != checkExpected) {                                                  \
      failedChecks += 1;                                                                 \
      fprintf(stderr, "%s:%d: %s is %lld, expected %lld\n", __FILE__, __LINE__, #actual, \
              checkActual, checkExpected);                                               \
    }                                                                                    \
  } while (0)

#define CHECK_TEXT(actual, expected)                                                         \
  do {                                                                                       \
    const char* checkActual = (actual);                                                      \
    const char* checkExpected = (expected);                                                  \
    if (strcmp(checkActual, checkExpected) != 0) {                                           \
      failedChecks += 1;                                                                     \
      fprintf(stderr, "%s:%d: %s is \"%s\", expected \"%s\"\n", __FILE__, __LINE__, #actual, \
              checkActual, checkExpected);                                                   \
    }                                                                                        \
  } while (0)

#endif
