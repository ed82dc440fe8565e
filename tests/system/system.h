/* What tests look at in their own process, which every system tells in its own way. */
#ifndef ORB_TESTS_SYSTEM_SYSTEM_H
#define ORB_TESTS_SYSTEM_SYSTEM_H

#ifdef __cplusplus
extern "C" {
#endif

int allThreads(void);
int openFileCount(void); /* or what else of the system's the process has handles to */
long residentKiB(void);  /* memory that the process holds */
int isWritable(const void* address);
/* Whether a file with this in its name is mapped. */
int isFileMapped(const char* partOfName);

#ifdef __cplusplus
}
#endif

#endif
