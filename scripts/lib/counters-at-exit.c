/* For scripts/coverage: a process that leaves by _exit writes its counters before. */
#include <sys/resource.h>

void __gcov_dump(void);
void __real__exit(int status);
void __wrap__exit(int status);

/* A test may have limited the size of files, and the file of the counters is one. */
static void __attribute__((destructor)) unlimit_files(void)
{
    struct rlimit limit;
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_FSIZE, &limit);
}

void __wrap__exit(int status)
{
    unlimit_files();
    __gcov_dump();
    __real__exit(status);
}
