/* Included ahead of every test when it is built for Windows: the few functions of POSIX that tests
 * use and the C library there has under another name. */
#ifndef ORB_TESTS_WINDOWS_POSIX_NAMES_H
#define ORB_TESTS_WINDOWS_POSIX_NAMES_H

#include <stdlib.h>
#include <unistd.h>

static inline int setenv(const char* name, const char* value, int overwrite) {
  if (!overwrite && getenv(name) != NULL) return 0;
  /* An empty value would remove the variable; a blank is the next to it. */
  return _putenv_s(name, value[0] != '\0' ? value : " ");
}

static inline int unsetenv(const char* name) { return _putenv_s(name, ""); }

#endif
